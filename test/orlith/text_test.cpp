#include "orlith/text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <random>

namespace {

TEST(Escaped, LeavesPlainTextAndValidUtf8Alone) {
  EXPECT_EQ(escaped("disk /dev/sda1 'x' \"y\""), "disk /dev/sda1 'x' \"y\"");
  EXPECT_EQ(escaped("Zürich ☃ 🙂"), "Zürich ☃ 🙂");
  EXPECT_EQ(escaped(""), "");
}

TEST(Escaped, WritesControlBytesAndBackslashesSoThatNothingIsAmbiguous) {
  EXPECT_EQ(escaped(std::string_view("a\0b\x1b[31m\x7f", 9)), "a\\x00b\\x1b[31m\\x7f");
  EXPECT_EQ(escaped("tab\there\r\n"), "tab\\there\\r\\n");
  EXPECT_EQ(escaped("\\x41"), "\\\\x41");
}

TEST(Escaped, WritesInvalidUtf8ByteByByte) {
  EXPECT_EQ(escaped("\xff"), "\\xff");
  EXPECT_EQ(escaped("\xc0\xaf"), "\\xc0\\xaf");                    // overlong slash
  EXPECT_EQ(escaped("\xe0\x80\x80"), "\\xe0\\x80\\x80");           // overlong NUL
  EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // a surrogate
  EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // above U+10FFFF
  EXPECT_EQ(escaped("\xe2\x98"), "\\xe2\\x98");                    // cut short
  EXPECT_EQ(escaped("\xc3("), "\\xc3(");
}

TEST(Escaped, ShowsCharactersThatReorderOrHideText) {
  EXPECT_EQ(escaped("a\u202eb"), "a\\u202eb");
  EXPECT_EQ(escaped("a\u200bb"), "a\\u200bb");
  EXPECT_EQ(escaped("a\u0085b"), "a\\u0085b");
  EXPECT_EQ(escaped("\ufeffa"), "\\ufeffa");
}

TEST(ValidUtf8, ChangesInvalidBytesOnly) {
  EXPECT_EQ(valid_utf8("a\n\x1b\xff☃"), "a\n\x1b\\xff☃");
}

TEST(HumanCount, GroupsDigitsByThree) {
  EXPECT_EQ(human_count(0), "0");
  EXPECT_EQ(human_count(999), "999");
  EXPECT_EQ(human_count(1000), "1,000");
  EXPECT_EQ(human_count(1234567), "1,234,567");
  EXPECT_EQ(human_count(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(HumanBytes, ChoosesTheUnit) {
  EXPECT_EQ(human_bytes(0), "0 bytes");
  EXPECT_EQ(human_bytes(1), "1 byte");
  EXPECT_EQ(human_bytes(1023), "1023 bytes");
  EXPECT_EQ(human_bytes(1024), "1.0 KiB");
  EXPECT_EQ(human_bytes(1536), "1.5 KiB");
  EXPECT_EQ(human_bytes(1024 * 1024 - 1), "1.0 MiB");
  EXPECT_EQ(human_bytes(UINT64_MAX), "16.0 EiB");
}

TEST(HumanRate, KeepsThreeDigits) {
  EXPECT_EQ(human_rate(0, "slots"), "0 slots/s");
  EXPECT_EQ(human_rate(999, "slots"), "999 slots/s");
  EXPECT_EQ(human_rate(1234567, "slots"), "1.23 M slots/s");
}

TEST(HumanDuration, UsesTwoUnitsAtMost) {
  EXPECT_EQ(human_duration_s(0.25), "0.25 s");
  EXPECT_EQ(human_duration_s(12.3), "12 s");
  EXPECT_EQ(human_duration_s(59.7), "1 min 00 s");
  EXPECT_EQ(human_duration_s(75), "1 min 15 s");
  EXPECT_EQ(human_duration_s(3725), "1 h 02 min");
  EXPECT_EQ(human_duration_s(90000), "1 d 01 h");
  EXPECT_EQ(human_duration_s(std::nan("")), "?");
}

TEST(Shortest, ReadsBackTheSame) {
  EXPECT_EQ(shortest(0.1), "0.1");
  EXPECT_EQ(shortest(0.1f), "0.1");
  EXPECT_EQ(shortest(1e300), "1e+300");
  EXPECT_EQ(shortest(std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(shortest(-std::numeric_limits<double>::infinity()), "-inf");
}

TEST(IsoTime, AgreesWithTheCLibrary) {
  std::mt19937_64 random(7);
  for (int i = 0; i < 20000; ++i) {
    const auto seconds = static_cast<time_t>(random() % 253402300800u);
    tm broken{};
    gmtime_r(&seconds, &broken);
    char expected[32];
    strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", &broken);
    ASSERT_EQ(iso_time(static_cast<uint64_t>(seconds)), expected) << seconds;
    ASSERT_EQ(parse_time(expected), static_cast<uint64_t>(seconds));
  }
}

TEST(IsoTime, WritesDigitsBeyondTheYear9999) {
  EXPECT_EQ(iso_time(253402300799), "9999-12-31T23:59:59Z");
  EXPECT_EQ(iso_time(253402300800), "253402300800");
  EXPECT_EQ(iso_time(UINT64_MAX), "18446744073709551615");
}

TEST(ParseTime, ReadsEpochSeconds) {
  EXPECT_EQ(parse_time("0"), 0u);
  EXPECT_EQ(parse_time("1700000000"), 1700000000u);
  EXPECT_EQ(parse_time("1700000000.75"), 1700000000u);
  EXPECT_EQ(parse_time("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(parse_time("18446744073709551616"), std::nullopt);
}

TEST(ParseTime, ReadsIso8601) {
  EXPECT_EQ(parse_time("1970-01-01"), 0u);
  EXPECT_EQ(parse_time("2023-11-14T22:13:20Z"), 1700000000u);
  EXPECT_EQ(parse_time("2023-11-14 22:13:20"), 1700000000u);
  EXPECT_EQ(parse_time("2023-11-14T22:13"), 1699999980u);
  EXPECT_EQ(parse_time("2023-11-14T22:13:20.999Z"), 1700000000u);
  EXPECT_EQ(parse_time("2023-11-14T23:13:20+01:00"), 1700000000u);
  EXPECT_EQ(parse_time("2023-11-14T16:43:20-0530"), 1700000000u);
  EXPECT_EQ(parse_time("2023-11-15T00:13:20+02"), 1700000000u);
  EXPECT_EQ(parse_time("2024-02-29"), 1709164800u);
}

TEST(ParseTime, RefusesEverythingElse) {
  for (const char *text : {"",
                           "-1",
                           "+1",
                           "now",
                           "12x",
                           "1.",
                           ".5",
                           " 1",
                           "1 ",
                           "2023-02-29",
                           "2023-13-01",
                           "2023-04-31",
                           "2023-11-14T",
                           "2023-11-14T24:00",
                           "2023-11-14T22",
                           "2023-11-14T22:13:61",
                           "2023-11-14T22:13:20.",
                           "2023-11-14T22:13:20+1",
                           "2023-11-14T22:13:20Zx",
                           "1969-12-31",
                           "1970-01-01T00:00+01:00",
                           "2023-1-01"})
    EXPECT_EQ(parse_time(text), std::nullopt) << text;
}

}  // namespace
