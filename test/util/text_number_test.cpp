#include <gtest/gtest.h>

#include <bit>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "liborlith/util/text_number_internal.h"

namespace {

// The text as a block of exactly its bytes, so that the address sanitizer sees any read beyond its end.
struct Exact {
  explicit Exact(std::string_view text) : bytes(new char[text.size()]), len(text.size()) {
    if (len != 0) memcpy(bytes.get(), text.data(), len);
  }
  const char *begin() const { return bytes.get(); }
  const char *end() const { return bytes.get() + len; }
  std::unique_ptr<char[]> bytes;
  size_t len;
};

// The C library, on a NUL-terminated copy, is the rule.
void expect_as_library(const std::string &text) {
  SCOPED_TRACE("text: \"" + text + "\"");
  const Exact exact(text);
  char *library_after = nullptr;
  const char *after = nullptr;
  EXPECT_EQ(text_number::read_uint64(exact.begin(), exact.end(), &after),
            strtoull(text.c_str(), &library_after, 10));
  EXPECT_EQ(after - exact.begin(), library_after - text.c_str());
  EXPECT_EQ(text_number::read_int64(exact.begin(), exact.end()), strtoll(text.c_str(), nullptr, 10));
  EXPECT_EQ(std::bit_cast<uint64_t>(text_number::read_double(exact.begin(), exact.end())),
            std::bit_cast<uint64_t>(strtod(text.c_str(), nullptr)));
}

double read_double(const std::string &text) {
  const Exact exact(text);
  return text_number::read_double(exact.begin(), exact.end());
}

uint64_t read_timestamp(const std::string &text) {
  const Exact exact(text);
  return text_number::read_timestamp_ms(exact.begin(), exact.end());
}

}  // namespace

TEST(TextNumber, ReadsTheEdgesAsTheLibraryDoes) {
  for (const char *text : {"",
                           "0",
                           "-0",
                           "+0",
                           "1",
                           "-1",
                           "+1",
                           "12abc",
                           "abc",
                           "-",
                           "+",
                           "+-1",
                           "--1",
                           " 7",
                           "\t\n\v\f\r 7",
                           "\t",
                           "9223372036854775807",
                           "9223372036854775808",
                           "-9223372036854775808",
                           "-9223372036854775809",
                           "18446744073709551615",
                           "18446744073709551616",
                           "-18446744073709551615",
                           "-18446744073709551616",
                           "99999999999999999999999999",
                           "-99999999999999999999999999",
                           "00000000000000000000000000000012",
                           "0x1f",
                           "0X1P3",
                           "-0x.8p1",
                           "0x",
                           "0xg",
                           "0x.",
                           "1e5",
                           "1e",
                           "1e+",
                           "1E-",
                           "1e-5x",
                           "1.",
                           ".5",
                           "-.5",
                           "+.5",
                           ".",
                           "-.",
                           ".e5",
                           "1..2",
                           "1.5.6",
                           "5e-324",
                           "2e-324",
                           "3e-324",
                           "1e-400",
                           "-1e-400",
                           "1e400",
                           "-1e400",
                           "1.7976931348623157e308",
                           "1.7976931348623159e308",
                           "2.2250738585072011e-308",
                           "2.2250738585072014e-308",
                           "9007199254740992",
                           "9007199254740993",
                           "9007199254740993.0000000000000000000000000000000001",
                           "0.1",
                           "0.30000000000000004",
                           "123456789012345678",
                           "1234567890123456789012",
                           "1e22",
                           "1e23",
                           "8.5e22",
                           "1e-22",
                           "1e-23",
                           "0e999999999999",
                           "-0.0e-999999999999",
                           "1e99999999999999999999",
                           "1e-99999999999999999999",
                           "inf",
                           "-inf",
                           "+INF",
                           "infinity",
                           "Infinityx",
                           "infinit",
                           "in",
                           "nan",
                           "-nan",
                           "NaN(123)",
                           "nan(",
                           "nan(a_b)",
                           "nan(a-b)",
                           "nan()",
                           "1_000",
                           "1,5",
                           "1'000",
                           "0.000000000000000000001",
                           "12345678901234567890e-10",
                           "0000000000000000000000000.00000000000000000012"}) {
    expect_as_library(text);
  }
}

TEST(TextNumber, ReadsLongDigitsAsTheLibraryDoes) {
  for (const size_t len : {18U, 19U, 20U, 127U, 128U, 129U, 400U, 5000U}) {
    expect_as_library(std::string(len, '9'));
    expect_as_library("-" + std::string(len, '0') + "1");
    expect_as_library("0." + std::string(len, '0') + "1");
    expect_as_library("0." + std::string(len, '3'));
    expect_as_library(std::string(len, '7') + "e-" + std::to_string(len));
    expect_as_library("0x" + std::string(len, 'f'));
    expect_as_library("nan(" + std::string(len, 'a') + ")");
  }
}

TEST(TextNumber, AgreesWithTheLibraryOnRandomText) {
  const unsigned seed = 4711;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string_view alphabet = "0123456789012345678901234567890123456789....eE+-- \txXpPinfa()_";
  for (int round = 0; round < 200000 && !testing::Test::HasFailure(); ++round) {
    std::string text(random() % 24, ' ');
    for (char &c : text) c = alphabet[random() % alphabet.size()];
    expect_as_library(text);
  }
}

TEST(TextNumber, AgreesWithTheLibraryOnRandomDoubles) {
  const unsigned seed = 815;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const char *const formats[] = {"%.17g", "%.15g", "%.6g", "%.3f", "%.20e", "%.0f", "%a", "%.30g"};
  for (int round = 0; round < 100000 && !testing::Test::HasFailure(); ++round) {
    auto value = std::bit_cast<double>(random());
    if (round % 2 == 0) value = static_cast<double>(random() % 2000000) / 1000 - 1000;
    char text[400];
    snprintf(text, sizeof text, formats[random() % std::size(formats)], value);
    expect_as_library(text);
  }
}

TEST(TextNumber, AgreesWithTheLibraryNearHalfwayPoints) {
  const unsigned seed = 99;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    const uint64_t mantissa = (uint64_t{1} << 53) + (random() >> 10);
    expect_as_library(std::to_string(mantissa | 1));
    expect_as_library(std::to_string(mantissa) + "e" + std::to_string(static_cast<int>(random() % 60) - 30));
  }
}

TEST(TextNumber, StopsAtTheEndOfTheView) {
  const char text[] = "123.456e7";
  const char *after = nullptr;
  EXPECT_EQ(text_number::read_uint64(text, text + 2, &after), 12U);
  EXPECT_EQ(after, text + 2);
  EXPECT_EQ(text_number::read_double(text, text + 5), 123.4);
  EXPECT_EQ(text_number::read_double(text, text + 8), 123.456) << "an exponent without digits is not taken";
  EXPECT_EQ(text_number::read_double(text, text), 0.0);
}

TEST(TextNumber, DoesNotHeedTheProcessLocale) {
  bool tried = false;
  for (const char *name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE", "C.UTF-8"}) {
    if (setlocale(LC_ALL, name) == nullptr) continue;
    tried = true;
    EXPECT_EQ(read_double("1.5"), 1.5) << name;
    EXPECT_EQ(read_double("1,5"), 1.0) << name;
    EXPECT_EQ(read_double("0x1.8"), 1.5) << name << ", by way of the C library";
  }
  setlocale(LC_ALL, "C");
  EXPECT_TRUE(tried) << "C.UTF-8 is always there";
}

// ---- Timestamps

TEST(RollupTimestamp, SecondsBecomeMilliseconds) {
  EXPECT_EQ(read_timestamp("12"), 12000U);
  EXPECT_EQ(read_timestamp("12.5"), 12500U);
  EXPECT_EQ(read_timestamp("12.5\trest"), 12500U);
  EXPECT_EQ(read_timestamp("1700000000.123"), 1700000000123U);
  EXPECT_EQ(read_timestamp("12.9999"), 12999U) << "truncated";
  EXPECT_EQ(read_timestamp("12."), 12000U);
  EXPECT_EQ(read_timestamp(".25"), 250U) << "no number of seconds reads as 0";
  EXPECT_EQ(read_timestamp(""), 0U);
  EXPECT_EQ(read_timestamp("abc"), 0U);
}

TEST(RollupTimestamp, TheFractionIsReadAsANumberOfItsOwn) {
  EXPECT_EQ(read_timestamp("12.5e2"), 62000U) << "12 s and .5e2 s";
  EXPECT_EQ(read_timestamp("12.-5"), 12000U);
  EXPECT_EQ(read_timestamp("12.nan"), 12000U);
  EXPECT_EQ(read_timestamp("12.inf"), 12000U);
  EXPECT_EQ(read_timestamp("12. 5"), 12000U);
}

TEST(RollupTimestamp, AFractionBeyond64BitsAddsNothing) {
  EXPECT_EQ(read_timestamp("12.1e300"), 12000U);
  EXPECT_EQ(read_timestamp("12.1e999"), 12000U);
  EXPECT_EQ(read_timestamp("12.2e17"), 12000U) << "2e19 ms, above 2^64";
  EXPECT_EQ(read_timestamp("12.1e17"), 12000U + 10000000000000000000U) << "1e19 ms, below";
}

TEST(RollupTimestamp, WholeSecondsWrapAt64Bits) {
  EXPECT_EQ(read_timestamp("-1"), static_cast<uint64_t>(-1000));
  EXPECT_EQ(read_timestamp("-1.5"), static_cast<uint64_t>(-500));
  EXPECT_EQ(read_timestamp("18446744073709551616"), UINT64_MAX * 1000);
}

TEST(RollupTimestamp, EveryFractionOfUpToThreeDigitsIsAsByWayOfADouble) {
  for (unsigned digits = 1; digits <= 3; ++digits) {
    for (unsigned number = 0; number < 1000; ++number) {
      char text[16];
      snprintf(text, sizeof text, "7.%0*u", static_cast<int>(digits), number);
      const auto expected = 7000 + static_cast<uint64_t>(strtod(strchr(text, '.'), nullptr) * 1000);
      EXPECT_EQ(read_timestamp(text), expected) << text;
      EXPECT_EQ(read_timestamp(std::string(text) + "\tx"), expected) << text;
    }
  }
  EXPECT_EQ(read_timestamp("7.1e"), 7100U);
  EXPECT_EQ(read_timestamp("7.1e1"), 8000U);
  EXPECT_EQ(read_timestamp("7.1234"), 7123U);
}

TEST(RollupTimestamp, AgreesWithTheLibrary) {
  const unsigned seed = 31;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 100000; ++round) {
    std::string text = std::to_string(random() % 2000000000);
    if (random() % 4 != 0) {
      text += ".";
      for (unsigned digits = random() % 8; digits > 0; --digits)
        text += static_cast<char>('0' + random() % 10);
    }
    text += "\trest";
    char *after = nullptr;
    uint64_t expected = strtoull(text.c_str(), &after, 10) * 1000;
    if (*after == '.') expected += static_cast<uint64_t>(strtod(after, nullptr) * 1000);
    ASSERT_EQ(read_timestamp(text), expected) << text;
  }
}
