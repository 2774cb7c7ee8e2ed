#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

TEST(HistError, EveryCodeHasItsOwnText) {
  std::set<int> codes;
  std::set<std::string> texts;
  size_t count = 0;
#define HIST_TEST_ENTRY(name, code, text)             \
  EXPECT_STREQ(hist_error_text(HIST_E_##name), text); \
  codes.insert(HIST_E_##name);                        \
  texts.insert(text);                                 \
  ++count;
  HIST_ERRORS(HIST_TEST_ENTRY)
#undef HIST_TEST_ENTRY
  EXPECT_EQ(codes.size(), count);
  EXPECT_EQ(texts.size(), count);
}

// Hosts log the numbers; they stay what they are.
TEST(HistError, NumbersArePinned) {
  const std::vector<int> codes = {HIST_E_ARGUMENT, HIST_E_MEMORY,  HIST_E_BUCKET,    HIST_E_ORDER,
                                  HIST_E_INDEX,    HIST_E_RANGE,   HIST_E_QUANTILE,  HIST_E_EMPTY,
                                  HIST_E_ROOM,     HIST_E_VERSION, HIST_E_TRUNCATED, HIST_E_TRAILING,
                                  HIST_E_NUMBER};
  for (size_t i = 0; i < codes.size(); ++i) EXPECT_EQ(codes[i], -1 - static_cast<int>(i));
}

TEST(HistError, OtherNumbersHaveATextToo) {
  EXPECT_STREQ(hist_error_text(0), "no error");
  EXPECT_STREQ(hist_error_text(12), "no error");
  EXPECT_STREQ(hist_error_text(-14), "unknown error");
  EXPECT_STREQ(hist_error_text(INT64_MIN), "unknown error");
}

}  // namespace
