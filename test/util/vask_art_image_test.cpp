#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <thread>

#include "test/support/faults.h"
#include "test/util/vask_art_image_support.h"

namespace {

SerializerPtr new_image(const std::string &path, uint16_t version, bool create) {
  errno = 12345;
  return SerializerPtr(vask_art_serializer_new(path.c_str(), version, create));
}

TEST(ArtImage, AFreshFileHoldsAHeaderThatIsNotComplete) {
  TempDir dir;
  const mode_t old_mask = umask(0);
  const SerializerPtr ser = new_image(dir.file("image"), 0x1234, true);
  umask(old_mask);
  ASSERT_NE(ser, nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_GE(ser->fd, 0);
  EXPECT_EQ(ser->offset, 8u);
  EXPECT_EQ(ser->base, 0u);
  EXPECT_FALSE(ser->mapped);
  EXPECT_EQ(dir.read("image"), bytes_of("41 52 54 00 34 12 00 00"));
  struct stat status;
  ASSERT_EQ(stat(dir.file("image").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST(ArtImage, AFileThatExistsIsNotOverwritten) {
  TempDir dir;
  dir.write("image", "precious");
  EXPECT_EQ(new_image(dir.file("image"), 1, true), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(dir.read("image"), "precious");
}

TEST(ArtImage, AFinalizedImageIsMappedWhole) {
  ImageFile image;
  image.write("some bytes");
  const file_serializer_t *ser = image.open();
  EXPECT_EQ(ser->offset, 24u);
  EXPECT_GE(ser->fd, 0);
  EXPECT_TRUE(ser->mapped);
  EXPECT_EQ(memcmp(reinterpret_cast<const void *>(ser->base), image.bytes().data(), 24), 0);
}

TEST(ArtImage, OtherVersionsIncompleteImagesAndOtherFilesAreInvalid) {
  TempDir dir;
  const char *const invalid[] = {
      "41 52 54 00 08 00 01 00",  // another version
      "41 52 54 00 00 07 01 00",  // the other byte order
      "41 52 54 00 07 00 00 00",  // not finalized
      "41 52 54 00 07 00 fe ff",  // other flags
      "41 52 54 01 07 00 01 00",  // another magic
      "42 52 54 00 07 00 01 00",
      "41 52 54 00 07 00 01",  // short
      "",
  };
  for (const char *hex : invalid) {
    dir.write("image", bytes_of(hex));
    EXPECT_EQ(new_image(dir.file("image"), kVersion, false), nullptr) << hex;
    EXPECT_EQ(errno, EINVAL) << hex;
  }
  dir.write("image", bytes_of("41 52 54 00 07 00 ff ff"));
  EXPECT_NE(new_image(dir.file("image"), kVersion, false), nullptr) << "other flags beside";
  EXPECT_EQ(errno, 0);
}

TEST(ArtImage, AnotherVersionIsInvalidEvenWhenComplete) {
  ImageFile image;
  image.open();
  EXPECT_EQ(new_image(image.path(), kVersion + 1, false), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST(ArtImage, AnImageThatWasNotFinalizedCannotBeOpened) {
  ImageFile image;
  image.write("block");
  EXPECT_EQ(new_image(image.path(), kVersion, false), nullptr);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_TRUE(vask_art_serializer_finalize(image.ser(), 0x8000));
  EXPECT_EQ(new_image(image.path(), kVersion, false), nullptr);
  ASSERT_TRUE(vask_art_serializer_finalize(image.ser(), 0x8000 | VASK_ART_SER_COMPLETE));
  EXPECT_NE(new_image(image.path(), kVersion, false), nullptr);
  EXPECT_EQ(image.bytes().substr(0, 8), bytes_of("41 52 54 00 07 00 01 80"));
}

TEST(ArtImage, AFileThatCannotBeReadSaysWhy) {
  TempDir dir;
  EXPECT_EQ(new_image(dir.file("absent"), 1, false), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(new_image(dir.path(), 1, false), nullptr);
  EXPECT_EQ(errno, EISDIR);
}

// ---- calls that fail ----

TEST(ArtImage, EachFailureOfOpeningClosesTheFileAndKeepsItsReason) {
  using faults::Call;
  ImageFile image;
  image.open();
  for (const auto &[call, error] : {std::pair{Call::open, EACCES},
                                    {Call::read, EIO},
                                    {Call::fstat, EOVERFLOW},
                                    {Call::mmap, ENODEV},
                                    {Call::calloc, ENOMEM}}) {
    const faults::Fail fail(call, error, 1, 1);
    const faults::Uses uses;
    EXPECT_EQ(new_image(image.path(), kVersion, false), nullptr);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(uses(Call::close), call == Call::open ? 0 : 1);
  }
}

TEST(ArtImage, AFailedCreateLeavesTheFileBehind) {
  using faults::Call;
  for (const auto &[call, error] : {std::pair{Call::write, ENOSPC}, {Call::calloc, ENOMEM}}) {
    TempDir dir;
    const faults::Fail fail(call, error, 1, 1);
    const faults::Uses uses;
    EXPECT_EQ(new_image(dir.file("image"), kVersion, true), nullptr);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(uses(Call::close), 1);
    EXPECT_EQ(dir.read("image").size(), call == Call::write ? 0u : 8u);
    EXPECT_TRUE(std::filesystem::exists(dir.file("image")));
  }
  TempDir dir;
  const faults::Short cut(Call::write, 5, 1, 1);
  EXPECT_EQ(new_image(dir.file("image"), kVersion, true), nullptr);
  EXPECT_EQ(errno, EIO);
}

TEST(ArtImage, InterruptedCallsAreRepeated) {
  using faults::Call;
  ImageFile image;
  for (const Call call : {Call::fdatasync, Call::pwrite}) {
    const faults::Fail interrupted(call, EINTR, 1, 2);
    EXPECT_TRUE(vask_art_serializer_finalize(image.ser(), VASK_ART_SER_COMPLETE));
    EXPECT_TRUE(interrupted.hit());
  }
  for (const Call call : {Call::open, Call::read, Call::fstat}) {
    const faults::Fail interrupted(call, EINTR, 1, 2);
    EXPECT_NE(new_image(image.path(), kVersion, false), nullptr);
    EXPECT_TRUE(interrupted.hit());
  }
  const faults::Fail interrupted(Call::write, EINTR, 1, 2);
  TempDir dir;
  EXPECT_NE(new_image(dir.file("image"), kVersion, true), nullptr);
  EXPECT_TRUE(interrupted.hit());
}

TEST(ArtImage, FinalizeIsTwoSyncsAroundTheFlagAndFailsWithAnyOfThem) {
  using faults::Call;
  const auto finalize = [](ImageFile *image) {
    return vask_art_serializer_finalize(image->ser(), VASK_ART_SER_COMPLETE);
  };
  {
    ImageFile image;
    const faults::Fail full(Call::fdatasync, EIO, 1, 1);
    EXPECT_FALSE(finalize(&image));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(image.bytes()[6], 0) << "no flag before the data are safe";
  }
  {
    ImageFile image;
    const faults::Fail full(Call::pwrite, ENOSPC, 1, 1);
    EXPECT_FALSE(finalize(&image));
    EXPECT_EQ(errno, ENOSPC);
  }
  {
    ImageFile image;
    const faults::Short cut(Call::pwrite, 1, 1, 1);
    EXPECT_FALSE(finalize(&image));
    EXPECT_EQ(errno, EIO);
  }
  {
    ImageFile image;
    const faults::Fail full(Call::fdatasync, EIO, 2, 1);
    EXPECT_FALSE(finalize(&image));
  }
}

// ---- trees and blocks of one file ----

TEST(ArtImage, TwoTreesAndCustomBlocksAreReachableFromTheirOffsets) {
  ImageFile image;
  ArtTree first, second;
  for (uintptr_t i = 1; i <= 300; ++i) first.insert("first" + std::to_string(i) + '\0', i);
  for (uintptr_t i = 1; i <= 50; ++i) second.insert("second" + std::to_string(i) + '\0', i * 2);
  const uintptr_t block = image.write("a block before");
  const uintptr_t first_root = image.write(first.get());
  const uintptr_t between = image.write("one between");
  const uintptr_t second_root = image.write(second.get());
  const uintptr_t last = image.write("and one behind");
  file_serializer_t *ser = image.open();
  vask_art_tree read_first = tree_over(ser, first_root), read_second = tree_over(ser, second_root);
  EXPECT_EQ(art_contents(&read_first), first.contents());
  EXPECT_EQ(art_contents(&read_second), second.contents());
  const auto text_at = [&](uintptr_t offset) {
    return std::string(static_cast<const char *>(vask_art_serializer_offset_to_address(ser, offset)));
  };
  EXPECT_EQ(text_at(block), "a block before");
  EXPECT_EQ(text_at(between), "one between");
  EXPECT_EQ(text_at(last), "and one behind");
}

TEST(ArtImage, ATreeNeedsAnOffsetWithinTheFile) {
  ImageFile image;
  ArtTree tree;
  tree.insert("a", 1);
  const uintptr_t root = image.write(tree.get());
  vask_art_tree read;
  EXPECT_FALSE(vask_art_serializer_tree_at_offset(image.ser(), &read, root, reading_hooks(), nullptr))
      << "nothing is mapped while it is written";
  file_serializer_t *ser = image.open();
  for (const uintptr_t beyond : {ser->offset, ser->offset + 1, ~uintptr_t{0}}) {
    EXPECT_FALSE(vask_art_serializer_tree_at_offset(ser, &read, beyond, reading_hooks(), nullptr));
    EXPECT_EQ(read.root, 0u);
  }
  EXPECT_TRUE(vask_art_serializer_tree_at_offset(ser, &read, root, reading_hooks(), &tree));
  EXPECT_EQ(read.root, root);
  EXPECT_EQ(read.ser, ser);
  EXPECT_EQ(read.ops, reading_hooks());
  EXPECT_EQ(read.ops_closure, &tree);
  EXPECT_EQ(vask_art_size(&read), 0u);
}

TEST(ArtImage, AddressesAreOfAMappingAndDoNotWrap) {
  ImageFile image;
  image.write("block");
  EXPECT_EQ(vask_art_serializer_offset_to_address(image.ser(), 8), nullptr);
  EXPECT_EQ(vask_art_serializer_offset_to_address(&self_image_ser, 8), nullptr);
  file_serializer_t *ser = image.open();
  EXPECT_EQ(vask_art_serializer_offset_to_address(ser, 8), reinterpret_cast<const void *>(ser->base + 8));
  EXPECT_EQ(vask_art_serializer_offset_to_address(ser, ~uintptr_t{0}), nullptr);
  EXPECT_EQ(vask_art_serializer_offset_to_address(ser, ~uintptr_t{0} - ser->base + 1), nullptr);
  EXPECT_NE(vask_art_serializer_offset_to_address(ser, ~uintptr_t{0} - ser->base), nullptr);
}

TEST(ArtImage, DestroyIgnoresNull) {
  vask_art_serializer_destroy(nullptr);
}

TEST(ArtImageDeathTest, AnImageIsNotWrittenThroughItsTree) {
  ImageFile image;
  ArtTree tree;
  tree.insert("a", 1);
  const uintptr_t root = image.write(tree.get());
  vask_art_tree read = tree_over(image.open(), root);
  const auto *key = reinterpret_cast<const unsigned char *>("b");
  EXPECT_DEATH(vask_art_insert(&read, key, 1, nullptr),
               "message=\"\\[FATAL\\] assertion \\(!t->ops \\|\\| !t->ops->read_only\\) at "
               "util/vask_art\\.cpp:[0-9]+ failed\"\n");
}

TEST(ArtImage, EightThreadsReadOneImage) {
  ImageFile image;
  ArtTree tree;
  for (uintptr_t i = 1; i <= 3000; ++i)
    tree.insert("metric|ST[host:" + std::to_string(i * 7919) + "]" + '\0', i);
  const uintptr_t root = image.write(tree.get());
  file_serializer_t *ser = image.open();
  const Contents contents = tree.contents();
  std::vector<std::thread> readers;
  std::atomic<int> wrong = 0;
  for (size_t reader = 0; reader < 8; ++reader) {
    readers.emplace_back([&, reader] {
      vask_art_tree read = tree_over(ser, root);
      for (size_t i = reader; i < contents.size(); i += 3) {
        if (art_find(&read, contents[i].first) != contents[i].second) ++wrong;
      }
      if (art_contents(&read) != contents) ++wrong;
      if (art_contents(&read, "metric|ST[host:1") != art_contents(tree.get(), "metric|ST[host:1")) ++wrong;
    });
  }
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

// Against a sorted vector: a million names of metrics, built, written, mapped, walked and looked up.
TEST(ArtImage, AMillionKeysComeBackInOrder) {
  constexpr uintptr_t kKeys = 1000000;
  std::vector<std::string> keys;
  keys.reserve(kKeys);
  char text[64];
  for (uintptr_t i = 0; i < kKeys; ++i) {
    const int len = snprintf(text, sizeof text, "disk_%zu|ST[device:sd%zu,host:%zu]", i % 8, i / 8 % 16,
                             i * size_t{2654435761} % 1000003);
    keys.emplace_back(text, static_cast<size_t>(len) + 1);
  }
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  ASSERT_GT(keys.size(), kKeys / 10 * 9);

  ImageFile image;
  uintptr_t root = 0;
  {
    ArtTree tree;
    // Inserted from both ends, so that nodes do not grow in order.
    for (size_t i = 0; i < keys.size(); ++i) {
      const size_t at = i % 2 == 0 ? i / 2 : keys.size() - 1 - i / 2;
      tree.insert(keys[at], at + 1);
    }
    root = image.write(tree.get());
  }
  vask_art_tree read = tree_over(image.open(), root);
  struct Walk {
    const std::vector<std::string> *keys;
    size_t next;
  } walk = {&keys, 0};
  const auto compare = [](void *data, const unsigned char *key, uint32_t key_len, void *value) {
    auto *at = static_cast<Walk *>(data);
    const std::string_view found(reinterpret_cast<const char *>(key), key_len);
    const bool same = at->next < at->keys->size() && found == (*at->keys)[at->next] &&
                      reinterpret_cast<uintptr_t>(value) == at->next + 1;
    ++at->next;
    return same ? 0 : 1;
  };
  EXPECT_EQ(vask_art_iter(&read, compare, &walk), 0) << "at key " << walk.next;
  EXPECT_EQ(walk.next, keys.size());
  for (size_t i = 0; i < keys.size(); i += 7) ASSERT_EQ(art_find(&read, keys[i]), i + 1);
}

}  // namespace
