#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "test/util/vask_art_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ArtSearch, FindsWholeKeysOnly) {
  ArtTree tree;
  tree.insert("metric.a", 1);
  tree.insert("metric.b", 2);
  tree.insert("other", 3);
  EXPECT_EQ(tree.find("metric.a"), 1u);
  EXPECT_EQ(tree.find("metric.b"), 2u);
  EXPECT_EQ(tree.find("other"), 3u);
  for (const char *absent :
       {"", "m", "metric", "metric.", "metric.c", "metric.ab", "metrix.a", "othe", "others"})
    EXPECT_EQ(tree.find(absent), 0u) << absent;
}

TEST(ArtSearch, PathsLongerThanANodeHoldsAreDecidedByTheLeaf) {
  ArtTree tree;
  const std::string path = "0123456789abcdefghij";
  tree.insert(path + "x", 1);
  tree.insert(path + "y", 2);
  EXPECT_EQ(tree.find(path + "x"), 1u);
  EXPECT_EQ(tree.find(path + "y"), 2u);
  for (size_t at = 0; at < path.size(); ++at) {
    std::string other = path + "x";
    other[at] = '-';
    EXPECT_EQ(tree.find(other), 0u) << at;
    EXPECT_EQ(tree.find(path.substr(0, at)), 0u) << at;
    EXPECT_EQ(tree.find(path.substr(0, at) + "-"), 0u) << at;
  }
}

TEST(ArtSearch, AKeyThatIsAPrefixOfAnotherIsStoredButNotFound) {
  for (const bool shorter_first : {true, false}) {
    ArtTree tree;
    if (shorter_first) {
      tree.insert("ab", 2);
      tree.insert("abc", 3);
    } else {
      tree.insert("abc", 3);
      tree.insert("ab", 2);
    }
    EXPECT_EQ(tree.find("ab"), 0u);
    EXPECT_EQ(tree.find("abc"), 3u);
    EXPECT_EQ(vask_art_size(tree.get()), 2u);
    // Below the byte 0 that is taken to follow it.
    EXPECT_EQ(describe(tree.get()), "4[2:6162 00:\"6162\" 63:\"616263\"]");
    EXPECT_EQ(tree.erase("ab"), 2u);
    EXPECT_THAT(tree.keys(), ElementsAre("abc"));
  }
}

TEST(ArtSearch, StringsWithTheirNulAreNoPrefixesOfEachOther) {
  ArtTree tree;
  tree.insert(std::string("ab", 3), 2);
  tree.insert(std::string("abc", 4), 3);
  EXPECT_EQ(tree.find(std::string("ab", 3)), 2u);
  EXPECT_EQ(tree.find(std::string("abc", 4)), 3u);
}

// Nothing outside the keys may be read even by keys that are prefixes of each other; the sanitizers watch.
TEST(ArtSearch, KeysThatArePrefixesOfEachOtherReadNothingOutside) {
  const unsigned seed = fresh_art_seed();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 200; ++round) {
    ArtTree tree;
    for (int i = 0; i < 60; ++i) {
      std::string key;
      const size_t len = random() % 30;
      while (key.size() < len) key += random() % 8 == 0 ? '\0' : random() % 16 == 0 ? '\x01' : 'a';
      if (random() % 3 == 0) {
        tree.erase(key);
      } else {
        tree.insert(key, 1);
      }
      tree.find(key);
      tree.keys(key);
      vask_art_minimum(tree.get());
      vask_art_maximum(tree.get());
    }
  }
}

TEST(ArtPrefix, EndsInsideAPathAtANodeOrAtALeaf) {
  ArtTree tree;
  const std::string path = "0123456789abcdefghij";
  tree.insert(path + "x1", 1);
  tree.insert(path + "x2", 2);
  tree.insert(path + "y", 3);
  tree.insert("z", 4);
  for (size_t len = 1; len <= path.size(); ++len)
    EXPECT_THAT(tree.keys(path.substr(0, len)), ElementsAre(path + "x1", path + "x2", path + "y")) << len;
  EXPECT_THAT(tree.keys(path + "x"), ElementsAre(path + "x1", path + "x2"));
  EXPECT_THAT(tree.keys(path + "x2"), ElementsAre(path + "x2"));
  EXPECT_THAT(tree.keys(path + "y"), ElementsAre(path + "y"));
  EXPECT_THAT(tree.keys("z"), ElementsAre("z"));
  EXPECT_THAT(tree.keys("zz"), IsEmpty());
  EXPECT_EQ(tree.keys("").size(), 4u);
}

TEST(ArtPrefix, ThatDoesNotMatchAStoredPathFindsNothing) {
  ArtTree tree;
  const std::string path = "0123456789abcdefghij";
  tree.insert(path + "x", 1);
  tree.insert(path + "y", 2);
  for (size_t len = 1; len <= path.size() + 1; ++len) {
    for (size_t at = 0; at < len; ++at) {
      std::string prefix = (path + "x").substr(0, len);
      prefix[at] = '-';
      EXPECT_THAT(tree.keys(prefix), IsEmpty()) << len << " " << at;
      EXPECT_THAT(tree.keys(prefix + "x"), IsEmpty()) << len << " " << at;
    }
  }
}

// A path that differs at one place, and matches again where a node below it ends the prefix.
TEST(ArtPrefix, DoesNotResumeBehindAMismatch) {
  ArtTree tree;
  tree.insert("abcXdef1", 1);
  tree.insert("abcXdef2", 2);
  tree.insert("abcXg", 3);
  EXPECT_THAT(tree.keys("abZXdef"), IsEmpty());
  EXPECT_THAT(tree.keys("aZcXd"), IsEmpty());
  EXPECT_THAT(tree.keys("abZX"), IsEmpty());
  EXPECT_THAT(tree.keys("abcXdef"), ElementsAre("abcXdef1", "abcXdef2"));
}

}  // namespace
