#include "orlith/hist_plot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "orlith/histogram_value.h"
#include "orlith/text.h"

namespace {

using testing::HasSubstr;

Histogram of(const std::vector<std::pair<double, uint64_t>> &values) {
  Histogram histogram = new_histogram();
  for (const auto &[value, count] : values) hist_insert(histogram.get(), value, count);
  return histogram;
}

constexpr HistPlotStyle kAscii = {.columns = 40, .rows = 10, .blocks = false, .color = false};
constexpr HistPlotStyle kBlocks = {.columns = 40, .rows = 10, .blocks = true, .color = false};

TEST(RenderHistogram, DrawsABarForEachBucketWhereTheyFit) {
  EXPECT_EQ(render_histogram(of({{1, 1}, {1.1, 4}, {1.2, 2}}).get(), kAscii),
            "  1 to 1.1 | 1 ######\n"
            "1.1 to 1.2 | 4 #########################\n"
            "1.2 to 1.3 | 2 #############\n");
}

TEST(RenderHistogram, DrawsBlocksInEighths) {
  EXPECT_EQ(render_histogram(of({{1, 1}, {1.1, 4}, {1.2, 2}}).get(), kBlocks),
            "  1 to 1.1 │ 1 ██████▎\n"
            "1.1 to 1.2 │ 4 █████████████████████████\n"
            "1.2 to 1.3 │ 2 ████████████▌\n");
}

TEST(RenderHistogram, KeepsOneEmptyRangeAndLeavesMoreOut) {
  EXPECT_EQ(render_histogram(of({{1, 1}, {1.2, 1}, {1.9, 1}}).get(), kAscii),
            "  1 to 1.1 | 1 #########################\n"
            "1.1 to 1.2 | 0\n"
            "1.2 to 1.3 | 1 #########################\n"
            "  :        |\n"
            "1.9 to   2 | 1 #########################\n");
}

TEST(RenderHistogram, NeighboursShareABarWhereLinesAreFew) {
  std::vector<std::pair<double, uint64_t>> values;
  for (int i = 10; i < 100; ++i) values.emplace_back(i + 0.5, 1);
  EXPECT_EQ(render_histogram(of(values).get(), kAscii),
            "10 to  20 | 10 #########################\n"
            "20 to  30 | 10 #########################\n"
            "30 to  40 | 10 #########################\n"
            "40 to  50 | 10 #########################\n"
            "50 to  60 | 10 #########################\n"
            "60 to  70 | 10 #########################\n"
            "70 to  80 | 10 #########################\n"
            "80 to  90 | 10 #########################\n"
            "90 to 100 | 10 #########################\n");
}

TEST(RenderHistogram, ZeroNegativesAndWhatIsNoNumberStandApart) {
  EXPECT_EQ(render_histogram(of({{-1.05, 2}, {0, 4}, {std::nan(""), 1}}).get(), kAscii),
            "     -1.1 to -1 | 2 ##########\n"
            "        :       |\n"
            "        0       | 4 ####################\n"
            "no number       | 1 #####\n");
}

TEST(RenderHistogram, ASingleOneAmongManyStillShows) {
  EXPECT_THAT(render_histogram(of({{1, 1}, {2, 1'000'000}}).get(), kAscii), HasSubstr("|         1 #\n"));
  EXPECT_THAT(render_histogram(of({{1, 1}, {2, 1'000'000}}).get(), kBlocks), HasSubstr("│         1 ▏\n"));
}

TEST(RenderHistogram, BarsAreColoured) {
  HistPlotStyle style = kAscii;
  style.color = true;
  EXPECT_THAT(render_histogram(of({{1, 1}}).get(), style), HasSubstr("\033[36m#"));
}

TEST(RenderHistogram, OfNothingIsNothing) {
  EXPECT_EQ(render_histogram(of({}).get(), kAscii), "");
  EXPECT_EQ(render_histogram(of({{3, 0}}).get(), kAscii), "");
}

// Whatever the rows, each value lies in exactly the range that holds its bucket, and the counts add up.
TEST(HistRanges, HoldTheCountsOfAPlainModel) {
  std::mt19937_64 random(21);
  for (int round = 0; round < 300; ++round) {
    std::vector<std::pair<double, uint64_t>> values;
    uint64_t no_numbers = 0;
    const uint64_t spread = random() % 250 + 1;
    for (int i = static_cast<int>(random() % 200); i >= 0; --i) {
      const double magnitude =
          (1 + static_cast<double>(random() % 9000) / 1000) *
          std::pow(10.0, static_cast<double>(random() % spread) - static_cast<double>(spread / 2));
      const uint64_t count = random() % 5 + 1;
      switch (random() % 8) {
        case 0:
          values.emplace_back(0, count);
          break;
        case 1:
          values.emplace_back(std::numeric_limits<double>::infinity(), count);
          no_numbers += count;
          break;
        default:
          values.emplace_back(random() % 2 == 0 ? magnitude : -magnitude, count);
      }
    }
    const size_t most = random() % 60;
    const std::vector<HistRange> ranges = hist_ranges(of(values).get(), most);
    SCOPED_TRACE(round);
    EXPECT_LE(ranges.size(), std::max(most, kFewestHistRanges));
    double last_upper = -HUGE_VAL;
    for (const HistRange &range : ranges) {
      if (range.kind == HistRange::Kind::no_number) {
        EXPECT_EQ(range.count, no_numbers);
      }
      if (range.kind != HistRange::Kind::values) continue;
      EXPECT_GE(range.lower, last_upper);
      last_upper = range.upper;
      uint64_t expected = 0;
      for (const auto &[value, count] : values) {
        // A value is compared by the middle of its bucket: on a border the sides of zero differ.
        const double middle = hist_bucket_midpoint(hist_bucket_of(value));
        const bool is_zero = range.lower == 0 && range.upper == 0;
        if (is_zero ? middle == 0 : middle > range.lower && middle < range.upper) expected += count;
      }
      EXPECT_EQ(range.count, expected) << range.lower << " to " << range.upper;
    }
    uint64_t sum = 0, expected_sum = 0;
    for (const HistRange &range : ranges) sum += range.count;
    for (const auto &[value, count] : values) expected_sum += count;
    EXPECT_EQ(sum, expected_sum);
  }
}

TEST(HistRanges, SurviveTheLargestAndSmallestNumbersAndEverySize) {
  const Histogram histogram =
      of({{9.99e127, UINT64_MAX}, {9.95e127, 3}, {-9.99e127, 1}, {1e-127, 1}, {0, 1}});
  for (const int size : {-5, 0, 1, 5, 1000}) {
    const std::string drawn =
        render_histogram(histogram.get(), {.columns = size, .rows = size, .blocks = true, .color = false});
    EXPECT_EQ(valid_utf8(drawn), drawn);
    EXPECT_THAT(drawn, HasSubstr("1e+128"));
  }
}

}  // namespace
