#include <gtest/gtest.h>

#include <set>
#include <string>

#include "pobe/pobe.h"

namespace {

TEST(PobeError, EveryCodeIsNegativeAndHasItsOwnText) {
  std::set<int> codes;
  std::set<std::string> texts;
  int count = 0;
#define POBE_TEST_ENTRY(name, code, text)             \
  EXPECT_LT(POBE_E_##name, 0);                        \
  EXPECT_STREQ(pobe_error_text(POBE_E_##name), text); \
  codes.insert(POBE_E_##name);                        \
  texts.insert(text);                                 \
  ++count;
  POBE_ERRORS(POBE_TEST_ENTRY)
#undef POBE_TEST_ENTRY
  EXPECT_EQ(codes.size(), static_cast<size_t>(count));
  EXPECT_EQ(texts.size(), static_cast<size_t>(count));
}

// Hosts log the numbers; they stay what they are.
TEST(PobeError, NumbersArePinned) {
  EXPECT_EQ(POBE_E_ARGUMENT, -1);
  EXPECT_EQ(POBE_E_CONTROL, -2);
  EXPECT_EQ(POBE_E_UTF8, -3);
  EXPECT_EQ(POBE_E_STREAM_TAGS, -4);
  EXPECT_EQ(POBE_E_MEASUREMENT_TAGS, -5);
  EXPECT_EQ(POBE_E_SECOND_STREAM_BLOCK, -6);
  EXPECT_EQ(POBE_E_STREAM_BLOCK_START, -7);
  EXPECT_EQ(POBE_E_MEASUREMENT_BLOCK_START, -8);
  EXPECT_EQ(POBE_E_TOO_MANY_TAGS, -9);
  EXPECT_EQ(POBE_E_EMPTY_TAG, -10);
  EXPECT_EQ(POBE_E_NO_COLON, -11);
  EXPECT_EQ(POBE_E_EMPTY_CATEGORY, -12);
  EXPECT_EQ(POBE_E_CATEGORY_LENGTH, -13);
  EXPECT_EQ(POBE_E_VALUE_LENGTH, -14);
  EXPECT_EQ(POBE_E_CATEGORY_BYTE, -15);
  EXPECT_EQ(POBE_E_VALUE_BYTE, -16);
  EXPECT_EQ(POBE_E_CATEGORY_BLANK, -17);
  EXPECT_EQ(POBE_E_VALUE_BLANK, -18);
  EXPECT_EQ(POBE_E_QUOTE_OPEN, -19);
  EXPECT_EQ(POBE_E_QUOTE_TRAILER, -20);
  EXPECT_EQ(POBE_E_BASE64, -21);
  EXPECT_EQ(POBE_E_TAG_REFUSED, -22);
  EXPECT_EQ(POBE_E_MEMORY, -23);
}

TEST(PobeError, OtherNumbersHaveATextToo) {
  EXPECT_STREQ(pobe_error_text(0), "no error");
  EXPECT_STREQ(pobe_error_text(12), "no error");
  EXPECT_STREQ(pobe_error_text(-24), "unknown error");
  EXPECT_STREQ(pobe_error_text(INT64_MIN), "unknown error");
}

}  // namespace
