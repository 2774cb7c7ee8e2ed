#include "orlith/ingest_refusal.h"

#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <string>

#include "orlith/text.h"

namespace {

constexpr auto kTaken = std::nullopt;

TEST(Refusals, HaveDistinctNamesAndTexts) {
  std::set<std::string> names, texts;
  for (size_t i = 0; i < kRefusalCount; ++i) {
    names.insert(refusal_name(static_cast<Refusal>(i)));
    texts.insert(refusal_text(static_cast<Refusal>(i)));
  }
  EXPECT_EQ(names.size(), kRefusalCount);
  EXPECT_EQ(texts.size(), kRefusalCount);
}

TEST(Refusals, CoverEveryResultOfTheLineParser) {
  std::set<Refusal> seen;
  for (int code = 0; code >= -10; --code) seen.insert(refusal_of_code(code));
  EXPECT_EQ(seen.size(), 11U);
}

TEST(TimestampFault, TakesSecondsWithAnOptionalFraction) {
  for (const char *good :
       {"0", "1700000000", "12.5", "12.", "18446744073709550.999", "0000000000000000000000012"}) {
    EXPECT_EQ(timestamp_fault(good), kTaken) << good;
  }
}

TEST(TimestampFault, RefusesWhatTheParserWouldReadAsAnotherTime) {
  for (const char *bad :
       {"", ".", ".5", "-5", "+5", " 5", "5 ", "abc", "12a", "0x10", "1e9", "1.2.3", "nan"}) {
    EXPECT_EQ(timestamp_fault(bad), Refusal::bad_timestamp) << bad;
  }
}

TEST(TimestampFault, RefusesSecondsThatWouldWrapRoundToThePast) {
  for (const char *far : {"18446744073709551", "18446744073709552", "18446744073709552.5",
                          "99999999999999999999", "999999999999999999999999999999"}) {
    EXPECT_EQ(timestamp_fault(far), Refusal::in_the_future) << far;
  }
}

struct ValueCase {
  char type;
  const char *value;
  std::optional<Refusal> fault;
};

// Names the case in test lists, where its bytes would be addresses.
void PrintTo(const ValueCase &value_case, std::ostream *out) {
  *out << value_case.type << " '" << escaped(value_case.value) << "'";
}

class ValueFault : public testing::TestWithParam<ValueCase> {};

TEST_P(ValueFault, IsTold) {
  EXPECT_EQ(value_fault(GetParam().type, GetParam().value), GetParam().fault);
}

constexpr ValueCase kValueCases[] = {
    {'I', "0", kTaken},
    {'I', "4294967295", kTaken},
    {'I', "4294967296", Refusal::value_out_of_range},
    {'I', "-1", Refusal::value_out_of_range},
    {'I', "", Refusal::value_not_a_number},
    {'I', "-", Refusal::value_not_a_number},
    {'I', "abc", Refusal::value_not_a_number},
    {'I', "[[null]]", kTaken},
    {'I', "[[null", Refusal::value_not_a_number},
    {'i', "-2147483648", kTaken},
    {'i', "2147483648", Refusal::value_out_of_range},
    {'i', "-2147483649", Refusal::value_out_of_range},
    {'i', "+7", kTaken},
    {'i', "+-7", Refusal::value_not_a_number},
    {'L', "18446744073709551615", kTaken},
    {'L', "18446744073709551616", Refusal::value_out_of_range},
    {'L', "  12", kTaken},
    {'l', "-9223372036854775808", kTaken},
    {'l', "9223372036854775808", Refusal::value_out_of_range},
    {'l', "12 packets", kTaken},
    {'n', "1.5", kTaken},
    {'n', "-.5e-3", kTaken},
    {'n', "1e999", kTaken},  // a number by its text; its value is looked at after parsing
    {'n', "nan", Refusal::value_not_a_number},
    {'n', "-inf", Refusal::value_not_a_number},
    {'n', ".", Refusal::value_not_a_number},
    {'n', "", Refusal::value_not_a_number},
    {'n', "\xff", Refusal::value_not_a_number},
    {'s', "anything", kTaken},
    {'x', "5", Refusal::unknown_type},
};
INSTANTIATE_TEST_SUITE_P(Values, ValueFault, testing::ValuesIn(kValueCases));

}  // namespace
