#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "test/util/vask_art_support.h"

namespace {

using testing::ElementsAre;

int kind_of_root(ArtTree &tree) {
  return IS_LEAF(tree->root) ? 0 : PIN_2_NODE(tree->ser, tree->root)->type;
}

TEST(ArtDelete, ReturnsTheValueOnce) {
  ArtTree tree;
  tree.insert("one", 1);
  tree.insert("two", 2);
  EXPECT_EQ(tree.erase("one"), 1u);
  EXPECT_EQ(tree.erase("one"), 0u);
  EXPECT_EQ(vask_art_size(tree.get()), 1u);
  EXPECT_EQ(tree.find("one"), 0u);
  EXPECT_EQ(tree.erase("two"), 2u);
  EXPECT_EQ(tree->root, 0u);
  EXPECT_EQ(vask_art_size(tree.get()), 0u);
}

TEST(ArtDelete, NodesShrinkAtThirtySevenTwelveThreeAndOne) {
  ArtTree tree;
  for (unsigned i = 0; i < 256; ++i) tree.insert(key_at(i, "abc"), i + 1);
  for (unsigned left = 255; left >= 1; --left) {
    ASSERT_EQ(tree.erase(key_at(left, "abc")), left + 1);
    const int expected = left > 37 ? NODE256 : left > 12 ? NODE48 : left > 3 ? NODE16 : left > 1 ? NODE4 : 0;
    ASSERT_EQ(kind_of_root(tree), expected) << left;
    const std::vector<std::string> keys = tree.keys();
    ASSERT_EQ(keys.size(), left);
    for (unsigned i = 0; i < left; ++i) {
      ASSERT_EQ(keys[i], key_at(i, "abc"));
      ASSERT_EQ(tree.find(keys[i]), i + 1);
    }
  }
}

TEST(ArtDelete, ANodeThatShrankToSixteenIsInUnsignedOrder) {
  ArtTree tree;
  std::vector<std::string> expected;
  for (unsigned i = 0; i < 17; ++i) tree.insert(key_at(i * 15));
  for (unsigned i = 0; i < 5; ++i) tree.erase(key_at(i * 15));
  for (unsigned i = 5; i < 17; ++i) expected.push_back(key_at(i * 15));
  EXPECT_EQ(kind_of_root(tree), NODE16);
  EXPECT_EQ(tree.keys(), expected);
}

TEST(ArtDelete, AnAbsentKeyChangesNothing) {
  ArtTree tree;
  const std::string path = "0123456789abcdefghij";
  tree.insert(path + "x", 1);
  tree.insert(path + "y", 2);
  tree.insert("01Z", 3);
  const std::string before = describe(tree.get());
  const std::string longest = path + "x";
  for (size_t len = 0; len < longest.size(); ++len) {
    EXPECT_EQ(tree.erase(longest.substr(0, len)), 0u) << len;
    EXPECT_EQ(tree.erase(longest.substr(0, len) + "-"), 0u) << len;
    // Matches what the node holds of its path, and ends before the path does.
    std::string other = longest.substr(0, len);
    if (len > 0) other.back() = '#';
    EXPECT_EQ(tree.erase(other), 0u) << len;
  }
  EXPECT_EQ(tree.erase(longest + "x"), 0u);
  EXPECT_EQ(describe(tree.get()), before);
  EXPECT_EQ(vask_art_size(tree.get()), 3u);
}

TEST(ArtDelete, TheLastChildInheritsThePathOfItsNode) {
  // Lengths on both sides of what a node holds.
  for (size_t above = 0; above <= 12; ++above) {
    for (size_t below = 0; below <= 12; ++below) {
      const std::string stem = std::string("ABCDEFGHIJKLMNOP").substr(0, above);
      const std::string rest = std::string("0123456789abcdef").substr(0, below);
      ArtTree tree;
      tree.insert(stem + "-", 1);
      tree.insert(stem + "+" + rest + "x", 2);
      tree.insert(stem + "+" + rest + "y", 3);
      EXPECT_EQ(tree.erase(stem + "-"), 1u);
      const std::string path = stem + "+" + rest;
      EXPECT_EQ(describe(tree.get()), "4[" + std::to_string(path.size()) + ":" +
                                          hex_text(path.substr(0, 10)) + " 78:\"" + hex_text(path + "x") +
                                          "\" 79:\"" + hex_text(path + "y") + "\"]");
      EXPECT_EQ(tree.find(path + "x"), 2u);
      EXPECT_THAT(tree.keys(path), ElementsAre(path + "x", path + "y"));
    }
  }
}

TEST(ArtDelete, WhatANodeNoLongerUsesIsZero) {
  ArtTree tree;
  for (const unsigned count : {4u, 16u, 48u, 100u}) {
    for (unsigned i = 0; i < count; ++i) tree.insert(key_at(i * 2 + 1, "0123456789abcdef"));
    for (unsigned i = 0; i < count; ++i) {
      tree.erase(key_at((i * 5 % count) * 2 + 1, "0123456789abcdef"));
      ASSERT_EQ(describe(tree.get()).find('!'), std::string::npos) << count << " " << i;
    }
    EXPECT_LE(vask_art_size(tree.get()), count);
  }
}

}  // namespace
