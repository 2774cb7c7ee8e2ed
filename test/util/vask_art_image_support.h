// Images for tests: written into a folder of their own, or put together from bytes.
#ifndef TEST_UTIL_VASK_ART_IMAGE_SUPPORT_H
#define TEST_UTIL_VASK_ART_IMAGE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "test/support/temp_dir.h"
#include "test/util/vask_art_support.h"

struct SerializerFree {
  void operator()(file_serializer_t *ser) const { vask_art_serializer_destroy(ser); }
};
using SerializerPtr = std::unique_ptr<file_serializer_t, SerializerFree>;

inline constexpr uint16_t kVersion = 7;

// Hooks of a tree over an image whose values are numbers.
inline vask_art_tree_interposition_t *reading_hooks() {
  static vask_art_tree_interposition_t ops = [] {
    vask_art_tree_interposition_t hooks{};
    hooks.read_only = true;
    return hooks;
  }();
  return &ops;
}

// Bytes from hex digits; everything else is for the reader.
inline std::string bytes_of(std::string_view hex) {
  std::string digits, result;
  for (const char c : hex) {
    if (c != ' ' && c != '\n') digits += c;
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return result;
}
// `len` bytes of a number, lowest first.
inline std::string little(uint64_t number, size_t len) {
  std::string result;
  for (size_t i = 0; i < len; ++i) result += static_cast<char>(number >> (8 * i));
  return result;
}

// What a test puts into an image is `image()`; bytes() has the finished file.
class ImageFile {
 public:
  ImageFile() : ser_(vask_art_serializer_new(path().c_str(), kVersion, true)) {}
  std::string path() const { return dir_.file("image"); }
  file_serializer_t *ser() { return ser_.get(); }

  uintptr_t write(const vask_art_tree *t, vask_art_tree_interposition_t *ops = nullptr,
                  void *closure = nullptr) {
    uintptr_t offset = 1;
    EXPECT_TRUE(vask_art_serializer_write_tree(ser_.get(), t, ops, closure, &offset));
    return offset;
  }
  uintptr_t write(std::string_view bytes) {
    return vask_art_serializer_write_custom(ser_.get(), bytes.data(), bytes.size());
  }
  // Finishes the writing and opens what was written.
  file_serializer_t *open() {
    EXPECT_TRUE(vask_art_serializer_finalize(ser_.get(), VASK_ART_SER_COMPLETE));
    ser_.reset(vask_art_serializer_new(path().c_str(), kVersion, false));
    EXPECT_NE(ser_, nullptr);
    return ser_.get();
  }
  std::string bytes() const { return dir_.read("image"); }

 private:
  TempDir dir_;
  SerializerPtr ser_;
};

// A tree over an image; nothing of it is freed.
inline vask_art_tree tree_over(file_serializer_t *ser, uintptr_t offset,
                               vask_art_tree_interposition_t *ops = reading_hooks(),
                               void *closure = nullptr) {
  vask_art_tree tree;
  EXPECT_TRUE(vask_art_serializer_tree_at_offset(ser, &tree, offset, ops, closure));
  return tree;
}

// Bytes that lie at a multiple of 8 and end where they end, as an image that someone else has mapped.
class MemoryImage {
 public:
  explicit MemoryImage(const std::string &bytes) : bytes_(new unsigned char[bytes.size()]) {
    memcpy(bytes_.get(), bytes.data(), bytes.size());
    ser_ = {-1, bytes.size(), reinterpret_cast<uintptr_t>(bytes_.get()), false};
  }
  file_serializer_t *ser() { return &ser_; }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
  file_serializer_t ser_;
};

#endif
