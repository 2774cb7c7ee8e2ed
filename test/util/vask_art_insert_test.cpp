#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

#include "test/util/vask_art_support.h"

namespace {

using testing::ElementsAre;

int kind_of_root(ArtTree &tree) {
  return PIN_2_NODE(tree->ser, tree->root)->type;
}

TEST(ArtInsert, ReplacesAndReturnsTheOldValue) {
  ArtTree tree;
  EXPECT_EQ(tree.insert("key", 1), 0u);
  EXPECT_EQ(tree.insert("kez", 2), 0u);
  EXPECT_EQ(tree.insert("key", 3), 1u);
  EXPECT_EQ(vask_art_size(tree.get()), 2u);
  EXPECT_EQ(tree.find("key"), 3u);
}

TEST(ArtInsert, NoReplaceKeepsAndReturnsTheOldValue) {
  ArtTree tree;
  EXPECT_EQ(tree.insert_no_replace("key", 1), 0u);
  EXPECT_EQ(tree.insert_no_replace("kez", 2), 0u);
  EXPECT_EQ(tree.insert_no_replace("key", 3), 1u);
  EXPECT_EQ(vask_art_size(tree.get()), 2u);
  EXPECT_EQ(tree.find("key"), 1u);
}

TEST(ArtInsert, ANullValueCountsAsAKey) {
  ArtTree tree;
  EXPECT_EQ(tree.insert("key", 0), 0u);
  EXPECT_EQ(tree.insert("key", 0), 0u);
  EXPECT_EQ(vask_art_size(tree.get()), 1u);
  EXPECT_EQ(tree.insert_no_replace("key", 5), 0u);
  EXPECT_EQ(tree.find("key"), 0u);
}

TEST(ArtInsert, TheKeyIsCopied) {
  ArtTree tree;
  unsigned char key[] = "key";
  vask_art_insert(tree.get(), key, 3, value_of(1));
  key[0] = 'x';
  EXPECT_EQ(tree.find("key"), 1u);
}

TEST(ArtInsert, NodesGrowOnTheFifthSeventeenthAndFortyNinthChild) {
  ArtTree tree;
  for (unsigned count = 1; count <= 256; ++count) {
    tree.insert(key_at((count - 1) * 7 % 256, "abc"), count);
    if (count == 1) continue;
    const int expected = count <= 4 ? NODE4 : count <= 16 ? NODE16 : count <= 48 ? NODE48 : NODE256;
    ASSERT_EQ(kind_of_root(tree), expected) << count;
    for (unsigned i = 1; i <= count; ++i) ASSERT_EQ(tree.find(key_at((i - 1) * 7 % 256, "abc")), i) << count;
    ASSERT_EQ(tree.contents().size(), count);
  }
}

TEST(ArtInsert, TheCountOf256ChildrenWraps) {
  ArtTree tree;
  for (unsigned i = 0; i < 256; ++i) tree.insert(key_at(i), i + 1);
  EXPECT_EQ(PIN_2_NODE(tree->ser, tree->root)->num_children, 0);
  EXPECT_EQ(tree.contents().size(), 256u);
  EXPECT_EQ(tree.find(key_at(255)), 256u);
  EXPECT_EQ(tree.erase(key_at(255)), 256u);
  EXPECT_EQ(PIN_2_NODE(tree->ser, tree->root)->num_children, 255);
}

TEST(ArtInsert, HighBytesComeFirstInANodeOfSixteenThatWasFilled) {
  ArtTree tree;
  for (const unsigned byte : {0x10u, 0x20u, 0x30u, 0x40u}) tree.insert(key_at(byte));
  for (const unsigned byte : {0x80u, 0x7fu, 0xffu, 0x00u}) tree.insert(key_at(byte));
  EXPECT_EQ(kind_of_root(tree), NODE16);
  EXPECT_THAT(tree.keys(), ElementsAre(key_at(0x80), key_at(0xff), key_at(0x00), key_at(0x10), key_at(0x20),
                                       key_at(0x30), key_at(0x40), key_at(0x7f)));
  for (unsigned i = 0; i < 17; ++i) tree.insert(key_at(0x50 + i));
  EXPECT_EQ(kind_of_root(tree), NODE48);
  std::vector<std::string> sorted = tree.keys();
  EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end())) << "kinds beyond sixteen are unsigned";
}

TEST(ArtInsert, ANodeOfFourKeepsUnsignedOrderAndSoDoesWhatGrewFromIt) {
  ArtTree tree;
  for (const unsigned byte : {0xf0u, 0x01u, 0x90u, 0x02u}) tree.insert(key_at(byte));
  EXPECT_THAT(tree.keys(), ElementsAre(key_at(0x01), key_at(0x02), key_at(0x90), key_at(0xf0)));
  // 0x03 is greater than all but none is greater than it as a signed byte: it goes to the end.
  tree.insert(key_at(0x03));
  EXPECT_THAT(tree.keys(), ElementsAre(key_at(0x01), key_at(0x02), key_at(0x90), key_at(0xf0), key_at(0x03)));
  // 0x80 is below them all.
  tree.insert(key_at(0x80));
  EXPECT_EQ(tree.keys().front(), key_at(0x80));
}

TEST(ArtInsert, SplitsAPathWhereverAKeyLeavesIt) {
  const std::string path = "0123456789abcdefghijklmnop";
  for (size_t at = 0; at < path.size(); ++at) {
    ArtTree tree;
    ModelTree model;
    const auto put = [&](const std::string &key) {
      tree.insert(key, 1);
      model.insert(key, 1);
    };
    put(path + "x");
    put(path + "y");
    put(path.substr(0, at) + "-");
    ASSERT_EQ(describe(tree.get()), model.describe()) << at;
    ASSERT_EQ(tree.find(path + "x"), 1u);
    // And once more, above and below the first split.
    for (size_t again = 0; again < path.size(); ++again) {
      put(path.substr(0, again) + "+" + path);
      ASSERT_EQ(describe(tree.get()), model.describe()) << at << " " << again;
    }
  }
}

// A node at each of the first bytes of a key and at each of its last: thousands of nodes below one another, and a path
// of many thousand bytes. On a stack that has no room for a recursion into them.
TEST(ArtInsert, LongKeysMakeTreesTooDeepForRecursion) {
  const auto work = [](void *) -> void * {
    constexpr size_t kLen = 64 * 1024;
    constexpr size_t kForks = 3000;
    ArtTree tree;
    const std::string longest(kLen, 'a');
    tree.insert(longest, 1);
    for (size_t i = 0; i < kForks; ++i) tree.insert(longest.substr(0, i) + "b", i + 2);
    for (size_t i = kLen - 20; i < kLen; ++i) tree.insert(longest.substr(0, i) + "b", i + 2);
    EXPECT_EQ(tree.find(longest), 1u);
    EXPECT_EQ(tree.find(longest.substr(0, 2999) + "b"), 3001u);
    EXPECT_EQ(tree.find(longest.substr(0, kLen - 1) + "b"), kLen + 1);
    EXPECT_EQ(tree.find(longest.substr(0, 5000)), 0u);
    EXPECT_EQ(tree.erase(longest.substr(0, 5000)), 0u);
    EXPECT_EQ(tree.contents().size(), kForks + 21);
    EXPECT_EQ(tree.keys(longest.substr(0, 4000)).size(), 21u);
    EXPECT_EQ(tree.erase(longest.substr(0, 1500) + "b"), 1502u);
    EXPECT_EQ(leaf_key(vask_art_maximum(tree.get())), "b");
    EXPECT_EQ(leaf_key(vask_art_minimum(tree.get())), longest);
    return nullptr;
  };
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

}  // namespace
