#include "liborlith/util/histogram_series_count_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "test/util/histogram_series_support.h"

using testing::ElementsAre;

namespace {

Bytes written(int64_t count) {
  Bytes out(hss::kMaxCountBytes);
  const uint8_t *end = hss::hss_write_bvcount(out.data(), out.data() + out.size(), count);
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

int64_t read_back(const Bytes &bytes) {
  // A block of exactly these bytes, so that the address sanitizer sees a read behind them.
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size()]);
  memcpy(exact.get(), bytes.data(), bytes.size());
  int64_t count = 0;
  EXPECT_EQ(hss::hss_read_bvcount(exact.get(), exact.get() + bytes.size(), &count),
            exact.get() + bytes.size());
  return count;
}

}  // namespace

TEST(SeriesCount, FifteenTakesOneByte) {
  EXPECT_THAT(written(15), ElementsAre(0xF0));
  EXPECT_THAT(written(1), ElementsAre(0x10));
}
TEST(SeriesCount, SixteenTakesTwoBytes) {
  EXPECT_THAT(written(16), ElementsAre(0x00, 0x10));
}
TEST(SeriesCount, ZeroTakesTwoBytes) {
  EXPECT_THAT(written(0), ElementsAre(0x00, 0x00));
}
TEST(SeriesCount, MinusOneTakesTwoBytes) {
  EXPECT_THAT(written(-1), ElementsAre(0x08, 0x00));
}
TEST(SeriesCount, OtherNegativeCountsAreComplements) {
  EXPECT_THAT(written(-2), ElementsAre(0x18));
  EXPECT_THAT(written(-16), ElementsAre(0xF8));
  EXPECT_THAT(written(-17), ElementsAre(0x08, 0x10));
  EXPECT_THAT(written(-257), ElementsAre(0x09, 0x00, 0x01));
}
TEST(SeriesCount, LargerCountsAreLeastSignificantByteFirst) {
  EXPECT_THAT(written(255), ElementsAre(0x00, 0xFF));
  EXPECT_THAT(written(256), ElementsAre(0x01, 0x00, 0x01));
  EXPECT_THAT(written(0x123456), ElementsAre(0x02, 0x56, 0x34, 0x12));
  EXPECT_THAT(written(0x1000000), ElementsAre(0x03, 0, 0, 0, 1));
  EXPECT_THAT(written(INT64_MAX), ElementsAre(0x07, 255, 255, 255, 255, 255, 255, 255, 127));
}

TEST(SeriesCount, CountsOf33To36AndOf49To52BitsLoseTheirTopFourBits) {
  // The limits are as they are on purpose; what is written has always been written so.
  EXPECT_THAT(written(0xFFFFFFFF), ElementsAre(0x03, 255, 255, 255, 255));
  EXPECT_THAT(written(0x100000000), ElementsAre(0x03, 0, 0, 0, 0));
  EXPECT_EQ(read_back(written(0xA12345678)), 0x12345678);
  EXPECT_THAT(written(0x1000000000), ElementsAre(0x04, 0, 0, 0, 0, 16));
  EXPECT_THAT(written(0xFFFFFFFFFFFF), ElementsAre(0x05, 255, 255, 255, 255, 255, 255));
  EXPECT_EQ(read_back(written(0xF123456789ABC)), 0x123456789ABC);
  EXPECT_THAT(written(0x10000000000000), ElementsAre(0x06, 0, 0, 0, 0, 0, 0, 16));
}

TEST(SeriesCount, NegativeCountsBeyond56BitsTakeNineBytesAndSurvive) {
  EXPECT_EQ(written(INT64_MIN).size(), 9U);
  EXPECT_EQ(read_back(written(INT64_MIN)), INT64_MIN);
  const int64_t lowest_short = -(int64_t{1} << 56);
  EXPECT_EQ(written(lowest_short).size(), 8U);
  EXPECT_EQ(read_back(written(lowest_short)), lowest_short);
  EXPECT_EQ(written(lowest_short - 1).size(), 9U);
  EXPECT_EQ(read_back(written(lowest_short - 1)), lowest_short - 1);
}

TEST(SeriesCount, AFirstByteAbove15HasTheCountInItsUpperHalf) {
  EXPECT_EQ(read_back({0x10}), 1);
  EXPECT_EQ(read_back({0x17}), 1) << "the lower three bits do not count then";
  EXPECT_EQ(read_back({0xFF}), -16);
  EXPECT_EQ(read_back({0x07, 1, 0, 0, 0, 0, 0, 0, 0}), 1) << "and no shortest form is asked for";
}

TEST(SeriesCount, AgreesWithThePlainRuleAndNeverLeavesItsBounds) {
  const unsigned seed = 20260402;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20000; ++round) {
    const auto magnitude = static_cast<int64_t>(random() >> (random() % 64));
    const int64_t count = random() % 2 == 0 ? magnitude : -magnitude;
    Bytes expected;
    append_count(expected, count);
    ASSERT_EQ(written(count), expected) << count;
    const auto bits = std::bit_width(static_cast<uint64_t>(count < 0 ? ~count : count));
    const bool loses = (bits > 32 && bits <= 36) || (bits > 48 && bits <= 52);
    if (!loses) {
      ASSERT_EQ(read_back(expected), count);
    }
    for (size_t room = 0; room < expected.size(); ++room) {
      const std::unique_ptr<uint8_t[]> exact(new uint8_t[room]);
      EXPECT_EQ(hss::hss_write_bvcount(exact.get(), exact.get() + room, count), nullptr);
      memcpy(exact.get(), expected.data(), room);
      int64_t ignored = 0;
      EXPECT_EQ(hss::hss_read_bvcount(exact.get(), exact.get() + room, &ignored), nullptr);
    }
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[expected.size()]);
    EXPECT_EQ(hss::hss_write_bvcount(exact.get(), exact.get() + expected.size(), count),
              exact.get() + expected.size());
  }
}
