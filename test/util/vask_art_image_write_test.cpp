#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string>

#include "test/support/faults.h"
#include "test/util/vask_art_image_support.h"

namespace {

TEST(ArtImageWrite, AnEmptyTreeWritesNothing) {
  ImageFile image;
  ArtTree tree;
  EXPECT_EQ(image.write(tree.get()), 0u);
  EXPECT_EQ(image.ser()->offset, 8u);
  vask_art_tree read = tree_over(image.open(), 0);
  EXPECT_TRUE(art_contents(&read).empty());
  EXPECT_EQ(art_find(&read, "a"), 0u);
  EXPECT_EQ(image.bytes(), bytes_of("41 52 54 00 07 00 01 00"));
}

TEST(ArtImageWrite, TheBytesOfALeaf) {
  ImageFile image;
  ArtTree tree;
  tree.insert("abcd", 0x1122334455667788);
  EXPECT_EQ(image.write(tree.get()), 9u);
  vask_art_tree read = tree_over(image.open(), 9);
  EXPECT_EQ(image.bytes(), bytes_of("41 52 54 00 07 00 01 00"
                                    "88 77 66 55 44 33 22 11"
                                    "04 00 00 00 61 62 63 64"));
  EXPECT_EQ(art_find(&read, "abcd"), 0x1122334455667788u);
  // The two blocks are adjacent: value, length, key.
  const auto *leaf =
      static_cast<const unsigned char *>(vask_art_serializer_offset_to_address(image.ser(), 8));
  EXPECT_EQ(reinterpret_cast<const unsigned char *>(vask_art_minimum(&read)), leaf);
  EXPECT_EQ(leaf[8], 4);
  EXPECT_EQ(leaf[12], 'a');
}

TEST(ArtImageWrite, AKeyOfFourBytesTakesEightAndOneOfFiveSixteen) {
  for (const auto &[key, size] :
       std::map<std::string, size_t>{{"", 8}, {"abc", 8}, {"abcd", 8}, {"abcde", 16}}) {
    ImageFile image;
    ArtTree tree;
    tree.insert(key, 1);
    image.write(tree.get());
    EXPECT_EQ(image.bytes().size(), 16 + size) << key;
  }
  ImageFile image;
  ArtTree tree;
  tree.insert("abcde", 1);
  image.write(tree.get());
  EXPECT_EQ(image.bytes().substr(16), bytes_of("05 00 00 00 61 62 63 64 65 00 00 00 00 00 00 00"));
}

TEST(ArtImageWrite, TheBytesOfANodeOfFour) {
  ImageFile image;
  ArtTree tree;
  tree.insert(std::string("ac", 3), 18);
  tree.insert(std::string("ab", 3), 17);
  EXPECT_EQ(image.write(tree.get()), 40u);
  image.open();
  EXPECT_EQ(image.bytes(), bytes_of(R"(
      41 52 54 00  07 00  01 00
      11 00 00 00 00 00 00 00  03 00 00 00 61 62 00  00
      12 00 00 00 00 00 00 00  03 00 00 00 61 63 00  00
      01 00 00 00  01  02  61 00 00 00 00 00 00 00 00 00
      62 63 00 00  00 00 00 00
      09 00 00 00 00 00 00 00  19 00 00 00 00 00 00 00
      00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00)"));
}

TEST(ArtImageWrite, APathLongerThanANodeHolds) {
  ImageFile image;
  ArtTree tree;
  const std::string path = "0123456789abc";
  tree.insert(path + "x", 1);
  tree.insert(path + "y", 2);
  const uintptr_t root = image.write(tree.get());
  EXPECT_EQ(image.bytes().substr(root, 24), bytes_of(R"(
      0d 00 00 00  01  02  30 31 32 33 34 35 36 37 38 39
      78 79 00 00  00 00 00 00)"));
}

// What `count` leaves of one byte, with the byte as value, make of the file: 16 bytes each from offset 8 on, in the
// order of `bytes`; then the pin of each.
std::string leaves_of(const std::string &bytes) {
  std::string result;
  for (const char byte : bytes)
    result += little(static_cast<unsigned char>(byte), 8) + little(1, 4) + std::string(1, byte) +
              std::string(3, '\0');
  return result;
}
uint64_t pin_of_leaf(size_t index) {
  return (8 + 16 * index) | 1;
}
std::string header_of_node(unsigned type, unsigned count) {
  return little(0, 4) + little(type, 1) + little(count, 1) + std::string(10, '\0');
}
void insert_all(ArtTree *tree, const std::string &bytes) {
  for (const char byte : bytes) tree->insert(std::string(1, byte), static_cast<unsigned char>(byte));
}

TEST(ArtImageWrite, TheBytesOfANodeOfSixteen) {
  ImageFile image;
  ArtTree tree;
  insert_all(&tree, std::string("\x01\x02\x03\x04\x05\x80", 6));
  const std::string order("\x80\x01\x02\x03\x04\x05", 6);
  const uintptr_t root = image.write(tree.get());
  std::string expected = leaves_of(order) + header_of_node(2, 6) + order + std::string(10, '\0');
  for (size_t i = 0; i < 16; ++i) expected += little(i < 6 ? pin_of_leaf(i) : 0, 8);
  EXPECT_EQ(image.bytes().substr(8), expected);
  EXPECT_EQ(root, 8u + 6 * 16);
}

TEST(ArtImageWrite, TheBytesOfANodeOfFortyEight) {
  ImageFile image;
  ArtTree tree;
  std::string bytes;
  for (unsigned i = 0; i < 20; ++i) bytes += static_cast<char>(19 - i);
  insert_all(&tree, bytes);
  image.write(tree.get());
  std::string sorted = bytes;
  std::sort(sorted.begin(), sorted.end());
  // Sixteen went in by order of byte, 4 to 19; then 3, 2, 1 and 0 into the free slots.
  std::string keys(256, '\0');
  std::string children;
  for (unsigned slot = 0; slot < 48; ++slot) {
    const unsigned byte = slot < 16 ? slot + 4 : 19 - slot;
    if (slot < 20) keys[byte] = static_cast<char>(slot + 1);
    children += little(slot < 20 ? pin_of_leaf(byte) : 0, 8);
  }
  EXPECT_EQ(image.bytes().substr(8), leaves_of(sorted) + header_of_node(3, 20) + keys + children);
}

TEST(ArtImageWrite, TheBytesOfANodeOf256) {
  for (const unsigned count : {60u, 256u}) {
    ImageFile image;
    ArtTree tree;
    std::string bytes;
    for (unsigned i = 0; i < count; ++i) bytes += static_cast<char>(i);
    insert_all(&tree, bytes);
    image.write(tree.get());
    std::string expected = leaves_of(bytes) + header_of_node(4, count == 256 ? 0 : count);
    for (size_t i = 0; i < 256; ++i) expected += little(i < count ? pin_of_leaf(i) : 0, 8);
    EXPECT_EQ(image.bytes().substr(8), expected);
  }
}

TEST(ArtImageWrite, HoldsNoLeftoversOfMemory) {
  // Cells from memory that was used, and nodes that have lost children and paths.
  vask_art_tree_interposition_t ops = vask_art_tree_default_interposition;
  ops.alloc = [](void *, const vask_art_tree *, size_t len) { return memset(malloc(len), 0x5a, len); };
  ArtTree tree;
  vask_art_tree_interpose(tree.get(), nullptr, &ops, nullptr);
  insert_all(&tree, "\x01\x02\x03\x04\x05\x06");
  tree.insert("\x07path that is long1", 1);
  tree.insert("\x07path that is long2", 1);
  tree.insert("\x07path2", 1);
  for (const char *key : {"\x05", "\x06", "\x07path2", "\x07path that is long1"}) tree.erase(key);
  tree.erase("\x07path that is long2");
  ImageFile image;
  image.write(tree.get());
  const std::string order = "\x01\x02\x03\x04";
  std::string expected = leaves_of(order) + header_of_node(2, 4) + order + std::string(12, '\0');
  for (size_t i = 0; i < 16; ++i) expected += little(i < 4 ? pin_of_leaf(i) : 0, 8);
  EXPECT_EQ(image.bytes().substr(8), expected);
}

TEST(ArtImageWrite, ATreeReadFromAnImageWritesTheSameImage) {
  const unsigned seed = fresh_art_seed();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 8; ++round) {
    KeyMaker keys(&random);
    ArtTree tree;
    for (uintptr_t i = 1; i <= 400; ++i) {
      tree.insert(keys.key(), i);
      if (i % 4 == 0) tree.erase(keys.key());
    }
    ImageFile image, copy;
    const uintptr_t root = image.write(tree.get());
    file_serializer_t *ser = image.open();
    vask_art_tree read = tree_over(ser, root);
    EXPECT_EQ(art_contents(&read), tree.contents());
    EXPECT_EQ(describe(&read), describe(tree.get()));
    EXPECT_EQ(vask_art_size(&read), 0u);
    for (const auto &[key, value] : tree.contents()) ASSERT_EQ(art_find(&read, key), value);
    for (int i = 0; i < 50; ++i) {
      const std::string absent_or_not = keys.key();
      ASSERT_EQ(art_find(&read, absent_or_not), tree.find(absent_or_not));
      const std::string prefix = keys.prefix();
      ASSERT_EQ(art_contents(&read, prefix), art_contents(tree.get(), prefix));
    }
    EXPECT_EQ(copy.write(&read), root);
    copy.open();
    EXPECT_EQ(copy.bytes(), image.bytes());
    vask_art_tree verified;
    char *err = nullptr;
    EXPECT_TRUE(
        vask_art_serializer_verified_tree_at_offset(ser, &verified, root, reading_hooks(), nullptr, &err))
        << err;
    EXPECT_EQ(verified.root, root);
  }
}

// ---- values ----

// Values are strings that lie in the image in front of their leaf: a length and the bytes.
struct Texts {
  int calls = 0;
  int fail_at = 0;
  const vask_art_tree *tree = nullptr;
};
ssize_t write_text(void *closure, const vask_art_tree *t, void *value, vask_art_writer_f writer,
                   file_serializer_t *ser) {
  auto *self = static_cast<Texts *>(closure);
  EXPECT_EQ(t->ops_closure, closure);
  if (++self->calls == self->fail_at) return -1;
  if (value == nullptr) return 0;
  const auto *text = static_cast<const std::string *>(value);
  const std::string block = little(text->size(), 4) + *text;
  return static_cast<ssize_t>(writer(ser, block.data(), block.size()));
}
void *read_text(void *, const vask_art_tree *, const void *stored) {
  if (stored == nullptr) return nullptr;
  uint32_t len = 0;
  memcpy(&len, stored, 4);
  return new std::string(static_cast<const char *>(stored) + 4, len);
}
void release_text(void *, const vask_art_tree *, void *value) {
  delete static_cast<std::string *>(value);
}
vask_art_tree_interposition_t text_hooks() {
  vask_art_tree_interposition_t ops{};
  ops.serialize = write_text;
  ops.deserialize = ops.deserialize_tmp = read_text;
  ops.release = ops.release_tmp = release_text;
  ops.read_only = true;
  return ops;
}

TEST(ArtImageWrite, ValuesGoThroughTheHooksOfTheImage) {
  std::string texts[] = {"one", "", "a longer text"};
  ArtTree tree;
  for (uintptr_t i = 0; i < 3; ++i) tree.insert(key_at('a' + static_cast<unsigned>(i)), number_of(&texts[i]));
  tree.insert("null", 0);
  Texts account;
  vask_art_tree_interposition_t ops = text_hooks();
  ImageFile image;
  const uintptr_t root = image.write(tree.get(), &ops, &account);
  EXPECT_EQ(account.calls, 4);
  EXPECT_EQ(image.bytes().substr(8, 24), bytes_of("03 00 00 00 6f 6e 65 00"
                                                  "08 00 00 00 00 00 00 00"
                                                  "01 00 00 00 61 00 00 00"));
  vask_art_tree read = tree_over(image.open(), root, &ops, &account);
  const auto find = [&](const char *key) {
    const ExactKey exact(key);
    return static_cast<std::string *>(vask_art_search(&read, exact.bytes(), exact.len()));
  };
  for (unsigned i = 0; i < 3; ++i) {
    std::string *text = find(key_at('a' + i).c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(*text, texts[i]);
    vask_art_release(&read, text);
  }
  EXPECT_EQ(find("null"), nullptr);
  std::string all;
  vask_art_iter(
      &read,
      [](void *data, const unsigned char *, uint32_t, void *value) {
        *static_cast<std::string *>(data) +=
            value != nullptr ? *static_cast<std::string *>(value) + ";" : "-";
        return 0;
      },
      &all);
  EXPECT_EQ(all, "one;;a longer text;-");
}

TEST(ArtImageWrite, AFailingHookFailsTheTree) {
  ArtTree tree;
  for (unsigned i = 0; i < 5; ++i) tree.insert(key_at(i), 0);
  vask_art_tree_interposition_t ops = text_hooks();
  for (int at = 1; at <= 5; ++at) {
    Texts account;
    account.fail_at = at;
    ImageFile image;
    uintptr_t offset = 77;
    EXPECT_FALSE(vask_art_serializer_write_tree(image.ser(), tree.get(), &ops, &account, &offset));
    EXPECT_EQ(account.calls, at);
    EXPECT_EQ(offset, 77u);
  }
}

// ---- writes that fail ----

TEST(ArtImageWrite, EachFailedOrShortWriteFailsTheTree) {
  ArtTree tree;
  for (const char *key : {"a.x", "a.y", "b"}) tree.insert(key, 1);
  // Three leaves of two blocks and two nodes: eight writes.
  for (int at = 1; at <= 9; ++at) {
    ImageFile image;
    uintptr_t offset = 77;
    {
      const faults::Fail full(faults::Call::pwritev, ENOSPC, at, 1);
      errno = 0;
      EXPECT_EQ(vask_art_serializer_write_tree(image.ser(), tree.get(), nullptr, nullptr, &offset), at == 9)
          << at;
      EXPECT_EQ(errno, at == 9 ? 0 : ENOSPC);
    }
    const size_t before = image.ser()->offset;
    const faults::Short cut(faults::Call::pwritev, 7, at, 1);
    EXPECT_EQ(vask_art_serializer_write_tree(image.ser(), tree.get(), nullptr, nullptr, &offset), at == 9)
        << at;
    if (at == 1) {
      EXPECT_EQ(image.ser()->offset, before);
    }
  }
}

TEST(ArtImageWrite, EachFailedAllocationFailsTheTree) {
  ArtTree tree;
  for (const char *key : {"a.x", "a.y", "b"}) tree.insert(key, 1);
  ImageFile image;
  uintptr_t offset = 77;
  for (int at = 1; at <= 2; ++at) {
    const faults::Fail full(faults::Call::calloc, ENOMEM, at, 1);
    EXPECT_FALSE(vask_art_serializer_write_tree(image.ser(), tree.get(), nullptr, nullptr, &offset)) << at;
  }
  EXPECT_EQ(offset, 77u);
}

TEST(ArtImageWrite, AnInterruptedWriteIsRepeated) {
  const faults::Fail interrupted(faults::Call::pwritev, EINTR, 1, 3);
  ImageFile image;
  EXPECT_EQ(image.write("block"), 8u);
  EXPECT_TRUE(interrupted.hit());
  EXPECT_EQ(image.bytes().substr(8), std::string("block\0\0\0", 8));
}

TEST(ArtImageWrite, ABlockIsOneSystemCall) {
  ImageFile image;
  const faults::Uses uses;
  image.write("block");
  EXPECT_EQ(uses(faults::Call::pwritev), 1);
  ArtTree tree;
  tree.insert("a", 1);
  tree.insert("b", 1);
  image.write(tree.get());
  EXPECT_EQ(uses(faults::Call::pwritev), 1 + 5);
}

TEST(ArtImageWrite, CustomBlocksArePaddedAndNumbered) {
  ImageFile image;
  EXPECT_EQ(image.write("12345678"), 8u);
  EXPECT_EQ(image.write("1"), 16u);
  EXPECT_EQ(image.write(""), 24u);
  EXPECT_EQ(image.write("12345678x"), 24u);
  EXPECT_EQ(image.ser()->offset, 40u);
  {
    const faults::Short cut(faults::Call::pwritev, 8);
    EXPECT_EQ(image.write("12345678x"), 0u);
  }
  EXPECT_EQ(image.ser()->offset, 40u);
  EXPECT_EQ(image.write("y"), 40u) << "in the place of what failed";
  EXPECT_EQ(image.bytes().size(), 48u);
}

// On a stack that has no room for a recursion into the tree.
TEST(ArtImageWrite, DeepTreesAreWrittenWithoutRecursion) {
  const auto work = [](void *) -> void * {
    constexpr size_t kForks = 1500;
    ArtTree tree;
    const std::string longest(64 * 1024, 'a');
    tree.insert(longest, 1);
    for (size_t i = 0; i < kForks; ++i) tree.insert(longest.substr(0, i) + "b", i + 2);
    ImageFile image;
    const uintptr_t root = image.write(tree.get());
    vask_art_tree read;
    char *err = nullptr;
    EXPECT_TRUE(vask_art_serializer_verified_tree_at_offset(image.open(), &read, root, reading_hooks(),
                                                            nullptr, &err))
        << err;
    EXPECT_EQ(art_contents(&read), tree.contents());
    return nullptr;
  };
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

}  // namespace
