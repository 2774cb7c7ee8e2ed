// Trees in images of any bytes. Images lie in memory that ends where they end, so that a sanitizer sees a read behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "test/support/faults.h"
#include "test/util/vask_art_image_support.h"

namespace {

// What is wrong with the tree at `root`; empty if nothing is.
std::string fault_of(const std::string &bytes, uintptr_t root,
                     vask_art_tree_interposition_t *ops = reading_hooks()) {
  MemoryImage image(bytes);
  vask_art_tree tree;
  char *err = nullptr;
  const bool good = vask_art_serializer_verified_tree_at_offset(image.ser(), &tree, root, ops, nullptr, &err);
  EXPECT_EQ(good, err == nullptr);
  EXPECT_EQ(tree.root, good ? root : 0);
  const std::string fault = err != nullptr ? err : "";
  free(err);
  return fault;
}

// Two leaves at 8 and 24 and their node at 40; 96 bytes.
std::string small_image() {
  return bytes_of(R"(
      41 52 54 00  07 00  01 00
      11 00 00 00 00 00 00 00  03 00 00 00 61 62 00  00
      12 00 00 00 00 00 00 00  03 00 00 00 61 63 00  00
      01 00 00 00  01  02  61 00 00 00 00 00 00 00 00 00
      62 63 00 00  00 00 00 00
      09 00 00 00 00 00 00 00  19 00 00 00 00 00 00 00
      00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00)");
}

struct Damage {
  size_t at;
  std::string bytes;
  std::string fault;
};

void expect_faults(const std::string &image, uintptr_t root, const std::vector<Damage> &damages) {
  EXPECT_EQ(fault_of(image, root), "");
  for (const Damage &damage : damages) {
    std::string damaged = image;
    damaged.replace(damage.at, damage.bytes.size(), damage.bytes);
    EXPECT_EQ(fault_of(damaged, root), damage.fault);
  }
}

TEST(ArtImageVerify, AcceptsWhatWasWrittenAndWalksIt) {
  MemoryImage image(small_image());
  vask_art_tree tree;
  ASSERT_TRUE(
      vask_art_serializer_verified_tree_at_offset(image.ser(), &tree, 40, reading_hooks(), nullptr, nullptr));
  EXPECT_EQ(art_contents(&tree), (Contents{{std::string("ab", 3), 17}, {std::string("ac", 3), 18}}));
  EXPECT_EQ(fault_of(small_image(), 0), "") << "an empty tree";
  EXPECT_EQ(fault_of(small_image(), 8 | 1), "") << "a tree of one leaf";
}

TEST(ArtImageVerify, TheRootLiesWithinTheFile) {
  EXPECT_EQ(fault_of(small_image(), 96), "root at offset 96: not within the 96 bytes of a mapped file");
  EXPECT_EQ(fault_of(small_image(), 4), "node at offset 4: not at a multiple of 8");
  EXPECT_EQ(fault_of(small_image(), 88),
            "node at offset 88: its 16 bytes do not lie within the bytes from 8 to 96 that are left for it");
  vask_art_tree tree;
  char *err = nullptr;
  EXPECT_FALSE(vask_art_serializer_verified_tree_at_offset(&self_image_ser, &tree, 40, reading_hooks(),
                                                           nullptr, &err));
  EXPECT_STREQ(err, "root at offset 40: not within the 0 bytes of a mapped file");
  free(err);
}

TEST(ArtImageVerify, TruncatedAnywhereItIsRefused) {
  const std::string whole = small_image();
  for (size_t len = 41; len < whole.size(); ++len) EXPECT_NE(fault_of(whole.substr(0, len), 40), "") << len;
  EXPECT_EQ(fault_of(whole.substr(0, 95), 40),
            "node at offset 40: its 56 bytes do not lie within the bytes from 8 to 95 that are left for it");
}

TEST(ArtImageVerify, NamesWhatIsWrongInANodeOfFour) {
  const std::string zero = std::string(1, '\0');
  expect_faults(
      small_image(), 40,
      {{44, zero, "node at offset 40: unknown type 0"},
       {44, "\x05", "node at offset 40: unknown type 5"},
       {44, "\x04",
        "node at offset 40: its 2064 bytes do not lie within the bytes from 8 to 96 that are left for it"},
       {45, zero, "node at offset 40: 0 children in a node of 4"},
       {45, "\x05", "node at offset 40: 5 children in a node of 4"},
       {45, "\x03", "node at offset 40: child 2 of 3 is missing"},
       {45, "\x01", "node at offset 40: a slot that is not used is not zero"},
       {47, "x", "node at offset 40: what follows its path is not zero"},
       {57, "b", "node at offset 40: two children below byte 0x62"},
       {60, "x", "node at offset 40: what follows its keys is not zero"},
       {95, "x", "node at offset 40: a slot that is not used is not zero"},
       // What children say of each other.
       {64, "\x29",
        "leaf at offset 40: its 12 bytes do not lie within the bytes from 8 to 40 that are left for it"},
       {64, "\x28",
        "node at offset 40: its 16 bytes do not lie within the bytes from 8 to 40 that are left for it"},
       {72, "\x09",
        "leaf at offset 8: its 12 bytes do not lie within the bytes from 24 to 40 that are left for it"},
       {64, "\x0b", "leaf at offset 10: not at a multiple of 8"},
       {64, "\x01",
        "leaf at offset 0: its 12 bytes do not lie within the bytes from 8 to 40 that are left for it"},
       {71, "\xff",
        "leaf at offset 18374686479671623688: its 12 bytes do not lie within the bytes from 8 to 40 that are "
        "left for "
        "it"},
       // What keys say of the way to them.
       {20, "x", "leaf at offset 8: its key does not lie below the node at offset 40"},
       {21, "x", "leaf at offset 8: its key does not lie below the node at offset 40"},
       {36, "b", "leaf at offset 24: its key does not lie below the node at offset 40"},
       {56, "x", "leaf at offset 8: its key does not lie below the node at offset 40"},
       {40, "\x03", "leaf at offset 8: its key of 3 bytes ends before the node at offset 40 leads on"},
       {40, "\xff\xff\xff\xff",
        "leaf at offset 8: its key of 3 bytes ends before the node at offset 40 leads on"},
       {16, "\x01", "leaf at offset 8: what follows its key is not zero"},
       {16, "\x05",
        "leaf at offset 24: its 12 bytes do not lie within the bytes from 32 to 40 that are left for it"},
       {16, "\x20",
        "leaf at offset 8: its 48 bytes do not lie within the bytes from 8 to 40 that are left for it"},
       {23, "x", "leaf at offset 8: what follows its key is not zero"}});
}

// An image of a tree whose root has `count` children of one byte.
struct Written {
  std::string bytes;
  uintptr_t root;
};
Written wide_image(unsigned count) {
  ImageFile file;
  ArtTree tree;
  for (unsigned i = 0; i < count; ++i) tree.insert(key_at(i), i);
  const uintptr_t root = file.write(tree.get());
  file.open();
  return {file.bytes(), root};
}

TEST(ArtImageVerify, NamesWhatIsWrongInANodeOfSixteen) {
  const auto [bytes, root] = wide_image(6);
  const std::string node = "node at offset " + std::to_string(root) + ": ";
  expect_faults(bytes, root,
                {{root + 5, "\x11", node + "17 children in a node of 16"},
                 {root + 5, "\x07", node + "child 6 of 7 is missing"},
                 {root + 18, "\x05", node + "two children below byte 0x05"},
                 {root + 32 + 8 * 15, "\x09", node + "a slot that is not used is not zero"}});
}

TEST(ArtImageVerify, NamesWhatIsWrongInANodeOfFortyEight) {
  const auto [bytes, root] = wide_image(20);
  const std::string node = "node at offset " + std::to_string(root) + ": ";
  expect_faults(bytes, root,
                {{root + 5, "\x15", node + "says 21 children and has 20"},
                 {root + 16 + 200, "\x31", node + "byte 0xc8 leads to slot 49 of 48"},
                 {root + 16 + 200, "\x30", node + "byte 0xc8 leads to an empty slot"},
                 {root + 16 + 200, "\x01", node + "two bytes lead to slot 1"},
                 {root + 272 + 8 * 47, "\x09", node + "a slot that is not used is not zero"}});
}

TEST(ArtImageVerify, NamesWhatIsWrongInANodeOf256) {
  const auto [bytes, root] = wide_image(100);
  const std::string node = "node at offset " + std::to_string(root) + ": ";
  expect_faults(bytes, root,
                {{root + 5, "\x65", node + "says 101 children and has 100"},
                 {root + 5, std::string(1, '\0'), node + "says 0 children and has 100"},
                 {root + 16 + 8 * 200, "\x09", node + "says 100 children and has 101"}});
  EXPECT_EQ(fault_of(wide_image(256).bytes, wide_image(256).root), "") << "a count of 256 wraps";
}

TEST(ArtImageVerify, ComparesWhatNodesDoNotHoldOfTheirPaths) {
  ImageFile file;
  ArtTree tree;
  const std::string path = "0123456789abcdefghij";
  tree.insert(path + "x", 1);
  tree.insert(path + "y", 2);
  const uintptr_t root = file.write(tree.get());
  file.open();
  std::string bytes = file.bytes();
  EXPECT_EQ(fault_of(bytes, root), "");
  const size_t second = bytes.find(path, 8 + 40);
  bytes[second + 15] = '-';
  EXPECT_EQ(fault_of(bytes, root), "leaf at offset 48: its key does not lie below the node at offset 88");
}

TEST(ArtImageVerify, ValuesThatAreTranslatedBeginWithinTheFile) {
  vask_art_tree_interposition_t ops{};
  ops.read_only = true;
  ops.deserialize = [](void *, const vask_art_tree *, const void *stored) {
    return const_cast<void *>(stored);
  };
  std::string image = small_image();
  EXPECT_EQ(fault_of(image, 40, &ops), "");
  image[8] = 95;
  EXPECT_EQ(fault_of(image, 40, &ops), "");
  image[8] = 96;
  EXPECT_EQ(fault_of(image, 40, &ops),
            "leaf at offset 8: its value at offset 96 is not within the 96 bytes of the file");
  EXPECT_EQ(fault_of(image, 40), "") << "numbers are not looked at";
  ops.deserialize_tmp = ops.deserialize;
  ops.deserialize = nullptr;
  EXPECT_NE(fault_of(image, 40, &ops), "");
  EXPECT_EQ(fault_of(image, 40, nullptr), "");
}

TEST(ArtImageVerify, EveryByteChangedIsSafeToWalk) {
  for (const unsigned count : {3u, 6u, 20u, 60u}) {
    ImageFile file;
    ArtTree tree;
    for (unsigned i = 0; i < count; ++i) {
      tree.insert(key_at(i * 4) + "0123456789abcdef" + key_at(1), i);
      tree.insert(key_at(i * 4) + "0123456789abcdef" + key_at(2), i);
    }
    const uintptr_t root = file.write(tree.get());
    file.open();
    const std::string whole = file.bytes();
    for (size_t at = 8; at<whole.size(); at += count> 6 ? 5 : 1) {
      for (const int change : {1, 8, 0x80, 0xff}) {
        std::string bytes = whole;
        bytes[at] = static_cast<char>(bytes[at] ^ change);
        MemoryImage image(bytes);
        vask_art_tree read;
        if (!vask_art_serializer_verified_tree_at_offset(image.ser(), &read, root, reading_hooks(), nullptr,
                                                         nullptr))
          continue;
        for (const auto &[key, value] : art_contents(&read)) {
          ASSERT_EQ(art_find(&read, key), value);
          ASSERT_EQ(art_contents(&read, key).size(), 1u);
        }
        vask_art_iter_bfsp_prefix(
            &read, nullptr, 0, [](void *, const unsigned char *, uint32_t, bool, void *) { return 0; },
            nullptr);
        vask_art_minimum(&read);
        vask_art_maximum(&read);
      }
    }
  }
}

TEST(ArtImageVerify, WithoutMemoryItIsRefused) {
  // Deeper than the stack that needs no allocation.
  ImageFile file;
  ArtTree tree;
  std::string stem;
  for (int i = 0; i < 100; ++i) {
    tree.insert(stem + "b", 1);
    stem += "a";
  }
  const uintptr_t root = file.write(tree.get());
  file.open();
  MemoryImage image(file.bytes());
  vask_art_tree read;
  char *err = nullptr;
  const faults::Fail full(faults::Call::malloc, ENOMEM, 1, 1);
  EXPECT_FALSE(
      vask_art_serializer_verified_tree_at_offset(image.ser(), &read, root, reading_hooks(), nullptr, &err));
  EXPECT_THAT(err, testing::MatchesRegex("node at offset [0-9]+: out of memory"));
  free(err);
}

}  // namespace
