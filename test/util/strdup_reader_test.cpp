#include "liborlith/util/strdup_reader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "test/support/faults.h"

namespace {

std::string text_of(const strdup_reader_t &s) {
  return {reinterpret_cast<const char *>(s.to_free.mem.input_buffer), s.to_free.mem.input_buffer_size};
}

TEST(StrdupReader, CleanupOfANeverFilledReaderDoesNothing) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  strdup_reader_cleanup(&s);
  strdup_reader_cleanup(&s);
  EXPECT_EQ(s.to_free.mem.input_buffer, nullptr);
  EXPECT_EQ(s.to_free.mem.input_buffer_size, 0u);
}

TEST(StrdupReader, HoldsACopyWithoutItsNulWhichStillFollows) {
  char text[] = "some text";
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, text));
  std::strcpy(text, "other");
  EXPECT_EQ(text_of(s), "some text");
  EXPECT_EQ(s.to_free.mem.input_buffer[9], '\0');
  strdup_reader_cleanup(&s);
}

TEST(StrdupReader, CleanupTwiceIsHarmless) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, "text"));
  strdup_reader_cleanup(&s);
  EXPECT_EQ(s.to_free.mem.input_buffer, nullptr);
  EXPECT_EQ(s.to_free.mem.input_buffer_size, 0u);
  strdup_reader_cleanup(&s);
}

TEST(StrdupReader, FillingAgainReleasesTheFirstCopy) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, "first"));
  ASSERT_TRUE(strdup_reader_try_fill(&s, "the second"));  // the leak checker sees the first
  EXPECT_EQ(text_of(s), "the second");
  strdup_reader_cleanup(&s);
}

TEST(StrdupReader, AnEmptyStringIsACopyToo) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, ""));
  EXPECT_NE(s.to_free.mem.input_buffer, nullptr);
  EXPECT_EQ(s.to_free.mem.input_buffer_size, 0u);
  strdup_reader_cleanup(&s);
}

TEST(StrdupReader, ItsBufferCanBePatchedInPlace) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, "key=value"));
  rw_buffer_t *buffer = strdup_reader_get_buffer(&s);
  mem_reader_t whole, value;
  rw_buffer_get_reader(buffer, &whole);
  ASSERT_EQ(mem_reader_find_pos_after_sep(&whole, '=', &value), 4u);
  ASSERT_TRUE(rw_buffer_write_preceding_byte(buffer, &value, '\0'));
  EXPECT_STREQ(reinterpret_cast<const char *>(whole.input_buffer), "key");
  EXPECT_STREQ(reinterpret_cast<const char *>(value.input_buffer), "value");
  strdup_reader_cleanup(&s);
}

TEST(StrdupReader, WithoutMemoryItOwnsNothingAndTheEarlierCopyIsGone) {
  strdup_reader_t s;
  strdup_reader_init(&s);
  ASSERT_TRUE(strdup_reader_try_fill(&s, "first"));
  const faults::Fail fault(faults::Call::strdup, ENOMEM);
  EXPECT_FALSE(strdup_reader_try_fill(&s, "second"));
  EXPECT_EQ(s.to_free.mem.input_buffer, nullptr);
  EXPECT_EQ(s.to_free.mem.input_buffer_size, 0u);
  strdup_reader_cleanup(&s);
}

}  // namespace
