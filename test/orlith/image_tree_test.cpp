#include "orlith/image_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "test/orlith/index_model.h"
#include "test/support/temp_dir.h"

namespace {

using Entries = std::vector<std::pair<std::string, uint64_t>>;

// An image in memory, at an address that is a multiple of 8.
class Image {
 public:
  explicit Image(const std::string &bytes) : words_((bytes.size() + 7) / 8), size_(bytes.size()) {
    memcpy(words_.data(), bytes.data(), bytes.size());
  }
  ImageTree tree(uint64_t root) const { return ImageTree(bytes(), size_, root); }
  std::string_view bytes() const { return {reinterpret_cast<const char *>(words_.data()), size_}; }
  uint8_t *at(size_t offset) { return reinterpret_cast<uint8_t *>(words_.data()) + offset; }

 private:
  std::vector<uint64_t> words_;
  size_t size_;
};

// Written by the library; the root is in *root.
std::string image_of(const std::map<std::string, uint64_t> &entries, uintptr_t *root) {
  const TempDir folder;
  vask_art_tree tree;
  vask_art_tree_init(&tree);
  for (const auto &[key, value] : entries)
    vask_art_insert(&tree, reinterpret_cast<const unsigned char *>(key.data()), static_cast<int>(key.size()),
                    reinterpret_cast<void *>(uintptr_t{value}));
  file_serializer_t *ser = vask_art_serializer_new(folder.file("image").c_str(), 1, true);
  EXPECT_TRUE(vask_art_serializer_write_tree(ser, &tree, nullptr, nullptr, root));
  vask_art_serializer_destroy(ser);
  vask_art_tree_destroy(&tree);
  return folder.read("image");
}

Entries walk(const ImageTree &tree, std::string_view prefix, std::string *fault, TreeShape *shape = nullptr) {
  Entries found;
  *fault = tree.each(
      prefix,
      [&](const ImageLeaf &leaf) {
        found.emplace_back(leaf.key, leaf.value);
        return true;
      },
      shape);
  return found;
}

std::map<std::string, uint64_t> random_entries(std::mt19937_64 &random, size_t count) {
  static const std::string stems[] = {"",          "a", "ab", "disk_operations|ST[device:", "\xc3\xa4\xff",
                                      "disk_opera"};
  std::map<std::string, uint64_t> entries;
  for (size_t i = 0; i < count; ++i) {
    std::string key = stems[random() % std::size(stems)];
    for (size_t length = random() % 4; length > 0; --length) key += static_cast<char>(1 + random() % 255);
    entries[key + '\0'] = 1 + random() % 1000;
  }
  return entries;
}

TEST(ImageTree, AnswersAsAPlainSortedListDoes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (const size_t count : {0u, 1u, 2u, 5u, 40u, 300u, 3000u}) {
    const auto entries = random_entries(random, count);
    uintptr_t root = 0;
    const Image image(image_of(entries, &root));
    const ImageTree tree = image.tree(root);
    for (const auto &[key, value] : entries) {
      std::optional<ImageLeaf> leaf;
      ASSERT_EQ(tree.find(key, &leaf), "");
      ASSERT_TRUE(leaf.has_value());
      ASSERT_EQ(leaf->value, value);
      ASSERT_EQ(leaf->key, key);
      ASSERT_EQ(tree.find(key.substr(0, key.size() - 1), &leaf), "");
      ASSERT_FALSE(leaf.has_value());
      ASSERT_EQ(tree.find(key + "x", &leaf), "");
      ASSERT_FALSE(leaf.has_value());
    }
    for (const std::string prefix :
         {"", "a", "ab", "disk", "disk_operations|", "disk_operationsX", "\xc3", "\xc4"}) {
      Entries expected;
      for (const auto &entry : entries)
        if (entry.first.starts_with(prefix)) expected.push_back(entry);
      std::string fault;
      Entries found = walk(tree, prefix, &fault);
      ASSERT_EQ(fault, "");
      std::sort(found.begin(), found.end());
      ASSERT_EQ(found, expected) << prefix;
    }
  }
}

TEST(ImageTree, CountsItsParts) {
  IndexModel model;
  const uint64_t a = model.leaf("xa", 1), b = model.leaf("xb1", 2), c = model.leaf("xb2", 3);
  const uint64_t inner = model.node4("", {{'1', b}, {'2', c}});
  const uint64_t root = model.node4("x", {{'a', a}, {'b', inner}});
  const Image image(model.bytes);
  TreeShape shape;
  std::string fault;
  EXPECT_EQ(walk(image.tree(root), "", &fault, &shape).size(), 3u);
  EXPECT_EQ(shape.nodes, (std::array<uint64_t, 4>{2, 0, 0, 0}));
  EXPECT_EQ(shape.node_bytes, (std::array<uint64_t, 4>{112, 0, 0, 0}));
  EXPECT_EQ(shape.leaves, 3u);
  EXPECT_EQ(shape.key_bytes, 3u + 4 + 4);
  EXPECT_EQ(shape.leaf_bytes, 16u + 16 + 16);
  EXPECT_EQ(shape.depth, 3u);
}

TEST(ImageTree, AVisitorEndsTheWalk) {
  IndexModel model;
  const uint64_t a = model.leaf("a", 1), b = model.leaf("b", 2);
  const uint64_t root = model.node4("", {{'a', a}, {'b', b}});
  int visits = 0;
  const Image image(model.bytes);
  EXPECT_EQ(image.tree(root).each("", [&](const ImageLeaf &) { return ++visits > 1; }), "");
  EXPECT_EQ(visits, 1);
}

// Two levels lead to each other, and one node to itself.
TEST(ImageTree, WaysThatLeadBackAreRefused) {
  IndexModel model;
  const uint64_t first = model.bytes.size();
  const uint64_t second = model.node4("", {{'a', first + 56}});
  const uint64_t root = model.node4("", {{'a', second}});
  ASSERT_EQ(root, first + 56);
  const Image image(model.bytes);
  std::optional<ImageLeaf> leaf;
  EXPECT_EQ(image.tree(root).find(std::string(100, 'a'), &leaf),
            "node at offset 64: does not end within the first 8 bytes");
  std::string fault;
  walk(image.tree(root), "", &fault);
  EXPECT_EQ(fault, "node at offset 64: does not end within the first 8 bytes");
  walk(image.tree(root), "aaaa", &fault);
  EXPECT_EQ(fault, "node at offset 64: does not end within the first 8 bytes");
}

// Forty levels, each of which leads to the next one twice: 2^40 ways down.
TEST(ImageTree, CellsThatAreSharedDoNotMultiplyAWalk) {
  IndexModel model;
  uint64_t below = model.leaf("x", 1);
  for (int level = 0; level < 40; ++level) below = model.node4("", {{'a', below}, {'b', below}});
  std::string fault;
  const Image image(model.bytes);
  const Entries found = walk(image.tree(below), "", &fault);
  EXPECT_EQ(found.size(), 1u);
  EXPECT_EQ(fault, "leaf at offset 8: lies before offset 22, up to which others lie");
}

TEST(ImageTree, NamesWhatIsWrongWithACell) {
  IndexModel model;
  const uint64_t a = model.leaf("a", 1), b = model.leaf("b", 2);
  const uint64_t root = model.node4("", {{'a', a}, {'b', b}});
  const auto fault_of = [&](size_t at, uint8_t byte) {
    Image image(model.bytes);
    *image.at(at) = byte;
    std::string found_fault, walk_fault;
    std::optional<ImageLeaf> leaf;
    found_fault = image.tree(root).find(std::string("b\0", 2), &leaf);
    walk(image.tree(root), "", &walk_fault);
    EXPECT_EQ(found_fault, walk_fault);
    return walk_fault;
  };
  EXPECT_EQ(fault_of(root + 4, 0), "node at offset 40: unknown type 0");
  EXPECT_EQ(fault_of(root + 4, 5), "node at offset 40: unknown type 5");
  EXPECT_EQ(fault_of(root + 4, 2), "node at offset 40: does not end within the first 96 bytes");
  EXPECT_EQ(fault_of(root + 5, 5), "node at offset 40: 5 children in a node of 4");
  EXPECT_EQ(fault_of(root + 5, 0), "node at offset 40: 0 children in a node of 4");
  EXPECT_EQ(fault_of(root + 32, 28 + 1), "leaf at offset 28: not at a multiple of 8");
  EXPECT_EQ(fault_of(root + 32, 40 + 1), "leaf at offset 40: does not end within the first 40 bytes");
  EXPECT_EQ(fault_of(24 + 8, 200),
            "leaf at offset 24: its key of 200 bytes does not end within the first 40 bytes");
  for (const uint64_t bad : {uint64_t{4}, root + 2, uint64_t{96}, uint64_t{1} << 40, ~uint64_t{0} - 7}) {
    const Image image(model.bytes);
    std::string fault;
    walk(image.tree(bad), "", &fault);
    EXPECT_NE(fault, "") << bad;
  }
}

// Exact heap copies, so that the address sanitizer sees a read past the end.
TEST(ImageTree, EveryByteChangedIsSafeToRead) {
  std::mt19937_64 random(7);
  const auto entries = random_entries(random, 60);
  uintptr_t root = 0;
  const std::string bytes = image_of(entries, &root);
  Image image(bytes);
  size_t faults = 0;
  for (size_t at = 0; at < bytes.size(); ++at) {
    for (const int change : {1, 0x40, 0xff}) {
      *image.at(at) = static_cast<uint8_t>(bytes[at] ^ change);
      const ImageTree tree = image.tree(root);
      std::optional<ImageLeaf> leaf;
      for (const auto &entry : entries) static_cast<void>(tree.find(entry.first, &leaf));
      std::string fault;
      EXPECT_LE(walk(tree, "", &fault).size(), bytes.size() / 16);
      faults += fault.empty() ? 0 : 1;
      walk(tree, "disk", &fault);
    }
    *image.at(at) = static_cast<uint8_t>(bytes[at]);
  }
  EXPECT_GT(faults, 100u);
}

TEST(ImageTree, DeepTreesAreWalkedWithoutRecursion) {
  IndexModel model;
  uint64_t below = model.leaf(std::string(200000, 'a'), 1);
  for (int level = 0; level < 200000; ++level) below = model.node4("", {{'a', below}});
  const Image image(model.bytes);
  std::string fault;
  EXPECT_EQ(walk(image.tree(below), "", &fault).size(), 1u);
  EXPECT_EQ(fault, "");
  std::optional<ImageLeaf> leaf;
  EXPECT_EQ(image.tree(below).find(std::string(200000, 'a') + '\0', &leaf), "");
  EXPECT_TRUE(leaf.has_value());
}

}  // namespace
