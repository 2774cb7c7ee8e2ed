#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "test/util/vask_art_support.h"

namespace {

using testing::ElementsAre;

// Stops at the n-th call with the number of the call.
struct Stop {
  int at;
  int calls = 0;
  int tick() { return ++calls == at ? calls : 0; }
};
int stop(void *data, const unsigned char *, uint32_t, void *) {
  return static_cast<Stop *>(data)->tick();
}
int stop_partial(void *data, const unsigned char *, uint32_t, bool, void *) {
  return static_cast<Stop *>(data)->tick();
}

TEST(ArtIter, GivesKeysInOrderWithTheirValues) {
  ArtTree tree;
  tree.insert("banana", 2);
  tree.insert("apple", 1);
  tree.insert("cherry", 3);
  EXPECT_EQ(tree.contents(), (Contents{{"apple", 1}, {"banana", 2}, {"cherry", 3}}));
}

TEST(ArtIter, EndsWhenTheCallbackSaysSoAndReturnsItsResult) {
  ArtTree tree;
  for (unsigned i = 0; i < 300; ++i) tree.insert(key_at(i % 256) + key_at(i / 256) + "x");
  for (const int at : {1, 2, 17, 300}) {
    Stop here{at};
    EXPECT_EQ(vask_art_iter(tree.get(), stop, &here), at);
    EXPECT_EQ(here.calls, at);
  }
  Stop never{0};
  EXPECT_EQ(vask_art_iter(tree.get(), stop, &never), 0);
  EXPECT_EQ(never.calls, 300);
  Stop first{1};
  EXPECT_EQ(vask_art_iter_prefix(tree.get(), nullptr, 0, stop, &first), 1);
}

TEST(ArtIter, ANegativeResultIsReturnedAsItIs) {
  ArtTree tree;
  tree.insert("a");
  EXPECT_EQ(vask_art_iter(
                tree.get(), [](void *, const unsigned char *, uint32_t, void *) { return -7; }, nullptr),
            -7);
}

// ---- level by level ----

struct Told {
  std::string key;
  bool partial;
  uintptr_t value;
  bool operator==(const Told &) const = default;
};
void PrintTo(const Told &told, std::ostream *os) {
  *os << testing::PrintToString(told.key) << (told.partial ? " partial" : "") << " " << told.value;
}
Told path(std::string key) {
  return {std::move(key), true, 0};
}
Told leaf(std::string key, uintptr_t value) {
  return {std::move(key), false, value};
}

std::vector<Told> told_below(ArtTree &tree, std::string_view prefix) {
  std::vector<Told> result;
  const ExactKey exact(prefix);
  EXPECT_EQ(vask_art_iter_bfsp_prefix(
                tree.get(), exact.bytes(), exact.len(),
                [](void *data, const unsigned char *key, uint32_t key_len, bool partial, void *value) {
                  static_cast<std::vector<Told> *>(data)->push_back(
                      {std::string(reinterpret_cast<const char *>(key), key_len), partial, number_of(value)});
                  return 0;
                },
                &result),
            0);
  return result;
}

TEST(ArtBfsp, TellsEachLeafBelowANodeTwice) {
  ArtTree tree;
  tree.insert("a.x", 1);
  tree.insert("a.y", 2);
  tree.insert("b", 3);
  EXPECT_THAT(told_below(tree, ""), ElementsAre(path("a"), leaf("b", 3),         // the root's children
                                                leaf("a.x", 1), leaf("a.y", 2),  // those of "a.", first pass
                                                leaf("a.x", 1), leaf("a.y", 2),  // second pass
                                                leaf("b", 3)));
}

TEST(ArtBfsp, StartsAtTheNodeWhereThePrefixEnds) {
  ArtTree tree;
  tree.insert("host.cpu.idle", 1);
  tree.insert("host.cpu.user", 2);
  tree.insert("host.mem", 3);
  tree.insert("other", 4);
  const auto cpu = [&] {
    return std::vector<Told>{leaf("host.cpu.idle", 1), leaf("host.cpu.user", 2), leaf("host.cpu.idle", 1),
                             leaf("host.cpu.user", 2)};
  };
  std::vector<Told> hosts = {path("host.c"), leaf("host.mem", 3)};
  const std::vector<Told> below = cpu();
  hosts.insert(hosts.end(), below.begin(), below.end());
  hosts.push_back(leaf("host.mem", 3));
  for (const char *prefix : {"h", "ho", "host", "host."})
    EXPECT_EQ(told_below(tree, prefix), hosts) << prefix;
  for (const char *prefix : {"host.c", "host.cp", "host.cpu", "host.cpu."})
    EXPECT_EQ(told_below(tree, prefix), cpu()) << prefix;
  EXPECT_THAT(told_below(tree, "host.m"), ElementsAre(leaf("host.mem", 3)));
  EXPECT_THAT(told_below(tree, "host.mem"), ElementsAre(leaf("host.mem", 3)));
  for (const char *prefix : {"x", "hoxt", "host.x", "host.cxu.", "host.memo", "host.cpu.u2"})
    EXPECT_THAT(told_below(tree, prefix), testing::IsEmpty()) << prefix;
}

TEST(ArtBfsp, BytesOfAPathBeyondTheTenthReadAsZero) {
  ArtTree tree;
  const std::string stem = "0123456789abcde";
  tree.insert(stem + "x" + stem + "1", 1);
  tree.insert(stem + "x" + stem + "2", 2);
  tree.insert(stem + "y", 3);
  const std::string shown = std::string("0123456789") + std::string(5, '\0');
  const std::vector<Told> all = told_below(tree, "");
  EXPECT_EQ(all[0], path(shown + "x"));
  EXPECT_EQ(all[1], leaf(stem + "y", 3));
  // What the caller gave as prefix is told as it was given.
  tree.insert(stem + "x" + stem + "3" + "a", 4);
  tree.insert(stem + "x" + stem + "3" + "b", 5);
  const std::vector<Told> below = told_below(tree, stem + "x");
  EXPECT_EQ(below[2], path(stem + "x" + shown + "3"));
}

TEST(ArtBfsp, GoesThroughEveryKindOfNodeInItsOrder) {
  for (const unsigned count : {3u, 10u, 30u, 200u}) {
    ArtTree tree;
    std::vector<Told> expected;
    for (unsigned i = 0; i < count; ++i) {
      const std::string byte = key_at(i * 256 / count);
      tree.insert(byte + "-", i + 1);
      if (i % 2 == 1) tree.insert(byte + "+", i + 1);
    }
    // The model's order is the tree's own; the two passes are what is looked at.
    std::vector<std::string> keys = tree.keys();
    std::vector<Told> second;
    for (const std::string &key : keys) {
      const uintptr_t value = tree.find(key);
      if (value % 2 == 1) {
        expected.push_back(leaf(key, value));
        second.push_back(leaf(key, value));
      } else if (key[1] == '+') {
        expected.push_back(path(key.substr(0, 1)));
        for (int pass = 0; pass < 2; ++pass) {
          second.push_back(leaf(key, value));
          second.push_back(leaf(key_at(static_cast<unsigned char>(key[0]), "-"), value));
        }
      }
    }
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(told_below(tree, ""), expected) << count;
  }
}

TEST(ArtBfsp, EndsWhenTheCallbackSaysSo) {
  ArtTree tree;
  tree.insert("a.x", 1);
  tree.insert("a.y", 2);
  tree.insert("b", 3);
  for (int at = 1; at <= 7; ++at) {
    Stop here{at};
    EXPECT_EQ(vask_art_iter_bfsp_prefix(tree.get(), nullptr, 0, stop_partial, &here), at);
    EXPECT_EQ(here.calls, at);
  }
  Stop never{8};
  EXPECT_EQ(vask_art_iter_bfsp_prefix(tree.get(), nullptr, 0, stop_partial, &never), 0);
  EXPECT_EQ(never.calls, 7);
}

TEST(ArtBfsp, LongPathsAndDeepTreesNeedNoStack) {
  ArtTree tree;
  const std::string path_of_mega(1 << 20, 'p');
  tree.insert(path_of_mega + "1", 1);
  tree.insert(path_of_mega + "2", 2);
  tree.insert("q", 3);
  std::string deep;
  for (int i = 0; i < 3000; ++i) {
    tree.insert("d" + deep + "-", 4);
    deep += "a";
  }
  size_t told = 0;
  EXPECT_EQ(vask_art_iter_bfsp_prefix(
                tree.get(), nullptr, 0,
                [](void *data, const unsigned char *, uint32_t, bool, void *) {
                  ++*static_cast<size_t *>(data);
                  return 0;
                },
                &told),
            0);
  // "p", "q", "d"; the second "q"; two leaves twice; and below "d" 3000 leaves twice and 2998 nodes.
  EXPECT_EQ(told, 3u + 1 + 4 + 6000 + 2998);
}

}  // namespace
