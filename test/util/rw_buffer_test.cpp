#include "liborlith/util/rw_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class RwBuffer : public testing::Test {
 protected:
  RwBuffer() { rw_buffer_fill(&buffer_, bytes_ + 2, 4); }

  mem_reader_t view(size_t offset_bytes, size_t size) const {
    mem_reader_t result;
    mem_reader_init_mem(&result, bytes_ + offset_bytes, size);
    return result;
  }
  std::string bytes() const { return {bytes_, sizeof(bytes_)}; }

  // The region is "cdef"; what lies around it must never change.
  char bytes_[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  rw_buffer_t buffer_;
};

TEST_F(RwBuffer, InitMakesTheRegionEmpty) {
  rw_buffer_init(&buffer_);
  EXPECT_EQ(buffer_.mem.input_buffer, nullptr);
  EXPECT_EQ(buffer_.mem.input_buffer_size, 0u);
}

TEST_F(RwBuffer, ReaderViewsTheWholeRegion) {
  mem_reader_t reader;
  rw_buffer_get_reader(&buffer_, &reader);
  EXPECT_EQ(static_cast<const void *>(reader.input_buffer), bytes_ + 2);
  EXPECT_EQ(reader.input_buffer_size, 4u);
}

TEST_F(RwBuffer, WritesTheByteBeforeASuccessorInside) {
  const mem_reader_t successor = view(4, 2);
  EXPECT_TRUE(rw_buffer_write_preceding_byte(&buffer_, &successor, '\0'));
  EXPECT_EQ(bytes(), std::string("abc\0efgh", 8));
}

TEST_F(RwBuffer, RefusesASuccessorAtOrBeforeTheStart) {
  for (size_t offset_bytes : {0u, 1u, 2u}) {
    const mem_reader_t successor = view(offset_bytes, 1);
    EXPECT_FALSE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X')) << offset_bytes;
  }
  EXPECT_EQ(bytes(), "abcdefgh");
}

TEST_F(RwBuffer, AcceptsASuccessorExactlyAtTheEndAndWritesTheLastByte) {
  const mem_reader_t successor = view(6, 0);
  EXPECT_TRUE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X'));
  EXPECT_EQ(bytes(), "abcdeXgh");
}

TEST_F(RwBuffer, RefusesASuccessorBeyondTheEnd) {
  const mem_reader_t successor = view(7, 0);
  EXPECT_FALSE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X'));
  EXPECT_EQ(bytes(), "abcdefgh");
}

TEST_F(RwBuffer, RefusesANullSuccessorAndAnyOnAnEmptyRegion) {
  mem_reader_t successor;
  mem_reader_init_empty(&successor);
  EXPECT_FALSE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X'));
  rw_buffer_init(&buffer_);
  EXPECT_FALSE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X'));
  successor = view(3, 1);
  EXPECT_FALSE(rw_buffer_write_preceding_byte(&buffer_, &successor, 'X'));
  EXPECT_EQ(bytes(), "abcdefgh");
}

TEST_F(RwBuffer, GivesAWritablePointerForAViewUpToTheEnd) {
  mem_reader_t inside = view(3, 3);
  uint8_t *writable = rw_buffer_get_buffer(&buffer_, &inside);
  ASSERT_EQ(static_cast<void *>(writable), bytes_ + 3);
  writable[0] = 'X';
  EXPECT_EQ(bytes(), "abcXefgh");
  inside = view(6, 0);
  EXPECT_EQ(static_cast<void *>(rw_buffer_get_buffer(&buffer_, &inside)), bytes_ + 6);
}

TEST_F(RwBuffer, RefusesAViewThatEndsOneByteBeyondTheEnd) {
  mem_reader_t outside = view(3, 4);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &outside), nullptr);
  outside = view(7, 0);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &outside), nullptr);
}

TEST_F(RwBuffer, RefusesAViewWhoseSizeWouldWrapItsEnd) {
  const mem_reader_t wild = view(3, SIZE_MAX);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &wild), nullptr);
}

TEST_F(RwBuffer, RefusesAViewThatStartsBeforeANullViewAndAnEmptyRegion) {
  mem_reader_t outside = view(1, 2);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &outside), nullptr);
  mem_reader_init_empty(&outside);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &outside), nullptr);
  rw_buffer_init(&buffer_);
  outside = view(3, 0);
  EXPECT_EQ(rw_buffer_get_buffer(&buffer_, &outside), nullptr);
}

}  // namespace
