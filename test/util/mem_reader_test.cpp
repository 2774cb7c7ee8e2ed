#include "liborlith/util/mem_reader.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace {

mem_reader_t reader_of(std::string_view text) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, text.data(), text.size());
  return reader;
}

std::string_view text_of(const mem_reader_t &reader) {
  return {reinterpret_cast<const char *>(reader.input_buffer), reader.input_buffer_size};
}

// A view that no operation under test would produce by chance.
mem_reader_t poisoned() {
  static const uint8_t elsewhere = 0;
  return {&elsewhere, 12345};
}

void expect_null(const mem_reader_t &reader) {
  EXPECT_EQ(reader.input_buffer, nullptr);
  EXPECT_EQ(reader.input_buffer_size, 0u);
}

void expect_view(const mem_reader_t &reader, const void *start, size_t size) {
  EXPECT_EQ(static_cast<const void *>(reader.input_buffer), start);
  EXPECT_EQ(reader.input_buffer_size, size);
}

TEST(MemReader, InitEmptyIsNullAndZero) {
  mem_reader_t reader = poisoned();
  mem_reader_init_empty(&reader);
  expect_null(reader);
}

TEST(MemReader, InitMemViewsTheBytesAndTheGettersTellThem) {
  const char bytes[] = {'a', '\0', 'b'};
  mem_reader_t reader = poisoned();
  mem_reader_init_mem(&reader, bytes, 3);
  EXPECT_EQ(static_cast<const void *>(mem_reader_get_buffer(&reader)), bytes);
  EXPECT_EQ(mem_reader_get_buffer_size(&reader), 3u);
}

TEST(MemReader, AdvanceByLessThanTheSizeLeavesTheRest) {
  const std::string text = "abcde";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_try_advance(&input, 2, &output), 2u);
  expect_view(output, text.data() + 2, 3);
  EXPECT_EQ(mem_reader_try_advance(&input, 0, &output), 0u);
  expect_view(output, text.data(), 5);
}

TEST(MemReader, AdvanceByExactlyTheSizeGivesTheEndPointerAndByOneMoreGivesNull) {
  const std::string text = "abcde";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_try_advance(&input, 5, &output), 5u);
  expect_view(output, text.data() + 5, 0);
  EXPECT_EQ(mem_reader_try_advance(&input, 6, &output), 5u);
  expect_null(output);
}

TEST(MemReader, AdvanceOfANullReader) {
  mem_reader_t input;
  mem_reader_init_empty(&input);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_try_advance(&input, 0, &output), 0u);
  expect_null(output);
  output = poisoned();
  EXPECT_EQ(mem_reader_try_advance(&input, 1, &output), 0u);
  expect_null(output);
}

TEST(MemReader, AdvanceByTheGreatestSizeDoesNotWrap) {
  const mem_reader_t input = reader_of("abc");
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_try_advance(&input, SIZE_MAX, &output), 3u);
  expect_null(output);
}

TEST(MemReader, TruncateToExactlyTheSizeSucceedsAndToOneMoreFails) {
  const std::string text = "abcde";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_TRUE(mem_reader_try_truncate(&input, 5, &output));
  expect_view(output, text.data(), 5);
  EXPECT_FALSE(mem_reader_try_truncate(&input, 6, &output));
  expect_null(output);
}

TEST(MemReader, TruncateToFewerAndToNone) {
  const std::string text = "abcde";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_TRUE(mem_reader_try_truncate(&input, 3, &output));
  expect_view(output, text.data(), 3);
  EXPECT_TRUE(mem_reader_try_truncate(&input, 0, &output));
  expect_view(output, text.data(), 0);
}

TEST(MemReader, TruncateToGivesThePartBeforeTheSeparator) {
  const std::string text = "name\tvalue";
  const mem_reader_t whole = reader_of(text);
  mem_reader_t later = poisoned();
  ASSERT_EQ(mem_reader_find_pos_after_sep(&whole, '\t', &later), 5u);
  mem_reader_t before = poisoned();
  mem_reader_truncate_to(&whole, &later, 1, &before);
  expect_view(before, text.data(), 4);
  mem_reader_truncate_to(&whole, &later, 0, &before);
  expect_view(before, text.data(), 5);
}

TEST(MemReader, ForwardSearchThatMissesInThreeBytesReturnsFourAndNull) {
  const mem_reader_t input = reader_of("abc");
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '|', &output), 4u);
  expect_null(output);
}

TEST(MemReader, ForwardSearchInAnEmptyInputReturnsZeroAndNull) {
  const std::string text = "|";
  mem_reader_t input;
  mem_reader_init_mem(&input, text.data(), 0);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '|', &output), 0u);
  expect_null(output);
}

TEST(MemReader, ForwardSearchWhoseHitIsTheLastByteGivesTheEndPointer) {
  const std::string text = "a|";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '|', &output), 2u);
  expect_view(output, text.data() + 2, 0);
}

TEST(MemReader, ForwardSearchFindsTheFirstOfSeveral) {
  const std::string text = "a|b|c";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '|', &output), 2u);
  expect_view(output, text.data() + 2, 3);
}

TEST(MemReader, BackwardSearchFindsTheLastOfSeveral) {
  const std::string text = "a|b|c";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '|', &output), 4u);
  expect_view(output, text.data() + 4, 1);
}

TEST(MemReader, BackwardSearchThatMissesReturnsZeroAndNull) {
  const mem_reader_t input = reader_of("abcde");
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '|', &output), 0u);
  expect_null(output);
}

TEST(MemReader, BackwardSearchAtBothEndsAndInAnEmptyInput) {
  const std::string text = "|ab|";
  mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '|', &output), 4u);
  expect_view(output, text.data() + 4, 0);
  input = reader_of(std::string_view(text).substr(0, 3));
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '|', &output), 1u);
  expect_view(output, text.data() + 1, 2);
  input.input_buffer_size = 0;
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '|', &output), 0u);
  expect_null(output);
}

TEST(MemReader, SeparatorsAbove127AndNulAreOrdinaryBytes) {
  const std::string text(
      "a\xff"
      "b\0c",
      5);
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '\xff', &output), 2u);
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '\xff', &output), 2u);
  EXPECT_EQ(mem_reader_find_pos_after_sep(&input, '\0', &output), 4u);
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&input, '\0', &output), 4u);
}

TEST(MemReader, MatchOnAReaderShorterThanThePatternLeavesTheInput) {
  const std::string text = "ab";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_FALSE(mem_reader_advance_if_match(&input, "abc", 3, &output));
  expect_view(output, text.data(), 2);
}

TEST(MemReader, MatchAdvancesPastThePatternOnly) {
  const std::string text = "abcde";
  const mem_reader_t input = reader_of(text);
  mem_reader_t output = poisoned();
  EXPECT_TRUE(mem_reader_advance_if_match(&input, "abc", 3, &output));
  expect_view(output, text.data() + 3, 2);
  EXPECT_TRUE(mem_reader_advance_if_match(&input, "abcde", 5, &output));
  expect_view(output, text.data() + 5, 0);
  EXPECT_FALSE(mem_reader_advance_if_match(&input, "abd", 3, &output));
  expect_view(output, text.data(), 5);
}

TEST(MemReader, AnEmptyPatternAlwaysMatches) {
  mem_reader_t input;
  mem_reader_init_empty(&input);
  mem_reader_t output = poisoned();
  EXPECT_TRUE(mem_reader_advance_if_match(&input, "", 0, &output));
  expect_null(output);
}

TEST(MemReader, TheOutputMayBeTheInput) {
  const std::string text = "key=one,two";
  mem_reader_t cursor = reader_of(text);
  EXPECT_TRUE(mem_reader_advance_if_match(&cursor, "key", 3, &cursor));
  EXPECT_EQ(text_of(cursor), "=one,two");
  EXPECT_EQ(mem_reader_try_advance(&cursor, 1, &cursor), 1u);
  EXPECT_EQ(text_of(cursor), "one,two");
  EXPECT_EQ(mem_reader_find_pos_after_sep(&cursor, ',', &cursor), 4u);
  EXPECT_EQ(text_of(cursor), "two");
  EXPECT_TRUE(mem_reader_try_truncate(&cursor, 2, &cursor));
  EXPECT_EQ(text_of(cursor), "tw");
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&cursor, 't', &cursor), 1u);
  EXPECT_EQ(text_of(cursor), "w");
  mem_reader_t whole = reader_of(text);
  mem_reader_truncate_to(&whole, &cursor, 1, &whole);
  EXPECT_EQ(text_of(whole), "key=one,");
  EXPECT_EQ(mem_reader_find_pos_after_sep(&cursor, '|', &cursor), 2u);
  expect_null(cursor);
}

TEST(MemReader, SearchesAgreeWithStringViewOnRandomText) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 24, '\0');
    for (char &byte : text) byte = static_cast<char>('a' + random() % 5);
    const char sep = static_cast<char>('a' + random() % 6);
    const mem_reader_t input = reader_of(text);
    mem_reader_t output = poisoned();

    const size_t first = std::string_view(text).find(sep);
    const size_t forward = mem_reader_find_pos_after_sep(&input, sep, &output);
    if (first == std::string_view::npos) {
      ASSERT_EQ(forward, text.empty() ? 0 : text.size() + 1);
      expect_null(output);
    } else {
      ASSERT_EQ(forward, first + 1);
      expect_view(output, text.data() + first + 1, text.size() - first - 1);
    }

    const size_t last = std::string_view(text).rfind(sep);
    const size_t backward = mem_reader_find_pos_after_sep_from_end(&input, sep, &output);
    if (last == std::string_view::npos) {
      ASSERT_EQ(backward, 0u);
      expect_null(output);
    } else {
      ASSERT_EQ(backward, last + 1);
      expect_view(output, text.data() + last + 1, text.size() - last - 1);
    }
  }
}

}  // namespace
