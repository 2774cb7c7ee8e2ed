// Statistics against the exact figures of the values, within the error bound, and against a sorted list.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "test/vaskllhist/histogram_support.h"

namespace {

using namespace hist_test;

// Half the width of the bin that holds the value, from its decimal exponent; with a little for rounding.
double half_bin(double value) {
  const hist_bucket_t at = bucket_by_text(value);
  return at.val == 0 ? 1e-128 : 0.05 * std::pow(10.0, at.exp) * (1 + 1e-12);
}

struct Sample {
  std::vector<double> values;  // ascending
  Histogram histogram;
  double widest = 0;  // half a bin

  explicit Sample(std::vector<double> from) : values(std::move(from)) {
    std::sort(values.begin(), values.end());
    for (const double value : values) {
      hist_insert(histogram.get(), value, 1);
      widest = std::max(widest, half_bin(value));
    }
  }
};

Sample random_sample(unsigned seed) {
  std::mt19937_64 random(seed);
  const size_t size = 1 + random() % 3000;
  std::vector<double> values(size);
  for (double &value : values) {
    switch (seed % 4) {
      case 0:
        value = std::normal_distribution<double>(0, 100)(random);
        break;
      case 1:
        value = std::lognormal_distribution<double>(2, 2)(random);
        break;
      case 2:
        value = static_cast<double>(random() % 200);
        break;
      default:
        value = std::uniform_real_distribution<double>(0.9, 1.1)(random) * (random() % 2 == 0 ? 1 : -1);
    }
  }
  return Sample(values);
}

TEST(Statistics, AreWithinHalfABinOfTheExactFigures) {
  for (unsigned seed = 1; seed <= 120; ++seed) {
    SCOPED_TRACE(seed);
    const Sample sample = random_sample(seed);
    const auto n = static_cast<long double>(sample.values.size());
    const long double sum = std::accumulate(sample.values.begin(), sample.values.end(), 0.0L);
    long double squares = 0;
    for (const double value : sample.values) squares += (value - sum / n) * (value - sum / n);
    const histogram_t *h = sample.histogram.get();
    EXPECT_EQ(hist_sample_count(h), sample.values.size());
    EXPECT_NEAR(hist_approx_sum(h), static_cast<double>(sum), static_cast<double>(n) * sample.widest);
    EXPECT_NEAR(hist_approx_mean(h), static_cast<double>(sum / n), sample.widest);
    EXPECT_NEAR(hist_approx_stddev(h), static_cast<double>(std::sqrt(squares / n)), sample.widest);
  }
}

TEST(Statistics, QuantilesAreWithinHalfABinOfTheSortedValues) {
  for (unsigned seed = 1; seed <= 120; ++seed) {
    SCOPED_TRACE(seed);
    const Sample sample = random_sample(seed);
    const size_t n = sample.values.size();
    std::mt19937_64 random(seed);
    std::vector<double> q = {0.5, 0, 1, 0.99, 0.25, 0.25};  // in no order
    while (q.size() < 100) q.push_back(std::uniform_real_distribution<double>(0, 1)(random));
    q.resize(seed % 2 == 0 ? 100 : 11);
    std::vector<double> actual(q.size());
    ASSERT_EQ(hist_quantiles(sample.histogram.get(), q.data(), static_cast<int>(q.size()), actual.data()), 0);
    for (size_t i = 0; i < q.size(); ++i) {
      const double rank = std::max(1.0, std::ceil(q[i] * static_cast<double>(n)));
      const double exact = sample.values[static_cast<size_t>(rank) - 1];
      EXPECT_NEAR(actual[i], exact, half_bin(exact)) << q[i];
      EXPECT_EQ(actual[i], hist_bucket_midpoint(bucket_by_text(exact))) << q[i];
    }
  }
}

TEST(Statistics, CountsBelowAndAboveAreThoseOfOtherBuckets) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    const Sample sample = random_sample(seed);
    const histogram_t *h = sample.histogram.get();
    for (const double value : {-1e9, -50.0, -1.0, 0.0, 0.95, 1.0, 1.049, 7.7, 100.0, 1e9}) {
      const hist_bucket_t at = bucket_by_text(value);
      uint64_t below = 0, above = 0;
      for (const double other : sample.values) {
        const auto place = place_of(bucket_by_text(other));
        below += place < place_of(at) ? 1 : 0;
        above += place > place_of(at) ? 1 : 0;
      }
      EXPECT_EQ(hist_count_below(h, value), below) << value;
      EXPECT_EQ(hist_count_above(h, value), above) << value;
      EXPECT_EQ(below + hist_count_at(h, at) + above, hist_number_count(h)) << value;
    }
  }
}

TEST(Statistics, OfOneBucket) {
  const Histogram h{{-12, 1, 3}};  // -12.5
  EXPECT_DOUBLE_EQ(hist_approx_sum(h.get()), -37.5);
  EXPECT_DOUBLE_EQ(hist_approx_mean(h.get()), -12.5);
  EXPECT_EQ(hist_approx_stddev(h.get()), 0);
}

TEST(Statistics, OfTwoBuckets) {
  const Histogram h{{10, 0, 1}, {20, 0, 3}};  // 1.05 and three times 2.05
  EXPECT_DOUBLE_EQ(hist_approx_sum(h.get()), 7.2);
  EXPECT_DOUBLE_EQ(hist_approx_mean(h.get()), 1.8);
  EXPECT_DOUBLE_EQ(hist_approx_stddev(h.get()), std::sqrt((0.75 * 0.75 + 3 * 0.25 * 0.25) / 4));
}

TEST(Statistics, OfNothing) {
  const Histogram empty, zeroes{{10, 0, 0}}, no_numbers{{-1, 0, 5}};
  const double half = 0.5;
  double value = 77;
  for (const histogram_t *h :
       {empty.get(), zeroes.get(), no_numbers.get(), static_cast<histogram_t *>(nullptr)}) {
    EXPECT_EQ(hist_number_count(h), 0U);
    EXPECT_EQ(hist_count_below(h, 1e9), 0U);
    EXPECT_EQ(hist_count_above(h, -1e9), 0U);
    EXPECT_EQ(hist_approx_sum(h), 0);
    EXPECT_TRUE(std::isnan(hist_approx_mean(h)));
    EXPECT_TRUE(std::isnan(hist_approx_stddev(h)));
    EXPECT_EQ(hist_quantiles(h, &half, 1, &value), HIST_E_EMPTY);
  }
  EXPECT_EQ(value, 77);
  EXPECT_EQ(hist_sample_count(nullptr), 0U);
  EXPECT_EQ(hist_sample_count(no_numbers.get()), 5U);
}

TEST(Statistics, LeaveNoNumberOut) {
  const Histogram h{{10, 0, 2}, {-1, 0, 100}};
  const double most = 1;
  double value = 0;
  EXPECT_EQ(hist_sample_count(h.get()), 102U);
  EXPECT_EQ(hist_number_count(h.get()), 2U);
  EXPECT_DOUBLE_EQ(hist_approx_mean(h.get()), 1.05);
  EXPECT_EQ(hist_quantiles(h.get(), &most, 1, &value), 0);
  EXPECT_EQ(value, 1.05);
}

TEST(Statistics, EverythingLiesBelowInfinity) {
  const Histogram h{{-10, 0, 1}, {10, 0, 2}, {-1, 0, 100}};
  for (const double large : {kInfinity, 1e128}) {
    EXPECT_EQ(hist_count_below(h.get(), large), 3U);
    EXPECT_EQ(hist_count_above(h.get(), large), 0U);
    EXPECT_EQ(hist_count_below(h.get(), -large), 0U);
    EXPECT_EQ(hist_count_above(h.get(), -large), 3U);
  }
  EXPECT_EQ(hist_count_below(h.get(), kNan), 0U);
  EXPECT_EQ(hist_count_above(h.get(), kNan), 0U);
}

TEST(Statistics, QuantilesRefuseWhatIsNone) {
  const Histogram h{{10, 0, 2}};
  double values[2] = {77, 77};
  for (const double wrong : {-0.001, 1.001, kNan, kInfinity}) {
    const double q[2] = {0.5, wrong};
    EXPECT_EQ(hist_quantiles(h.get(), q, 2, values), HIST_E_QUANTILE) << wrong;
  }
  const double q[2] = {0.5, 1};
  EXPECT_EQ(hist_quantiles(h.get(), q, -1, values), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_quantiles(h.get(), nullptr, 1, values), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_quantiles(h.get(), q, 1, nullptr), HIST_E_ARGUMENT);
  EXPECT_EQ(values[0], 77);
  EXPECT_EQ(hist_quantiles(h.get(), nullptr, 0, nullptr), 0);
}

TEST(Statistics, ATenthOfTenValuesIsTheFirst) {
  Histogram h;
  for (int i = 1; i <= 10; ++i) hist_insert(h.get(), i, 1);
  const double q[] = {0.1, 0.1000001, 0.2, 0.7, 0.9, 0.90001};
  double values[6];
  ASSERT_EQ(hist_quantiles(h.get(), q, 6, values), 0);
  EXPECT_EQ(values[0], 1.05);
  EXPECT_EQ(values[1], 2.05);
  EXPECT_EQ(values[2], 2.05);
  EXPECT_EQ(values[3], 7.05);
  EXPECT_EQ(values[4], 9.05);
  EXPECT_EQ(values[5], 10.5);
}

TEST(Statistics, CountsMayBeAsLargeAsTheyGet) {
  const Histogram h{{10, 0, UINT64_MAX}, {20, 0, UINT64_MAX}, {30, 0, UINT64_MAX}, {40, 0, 1}};
  EXPECT_EQ(hist_number_count(h.get()), UINT64_MAX);
  EXPECT_EQ(hist_count_below(h.get(), 3), UINT64_MAX);
  EXPECT_DOUBLE_EQ(hist_approx_mean(h.get()), 2.05);
  const double q[] = {0, 0.3, 0.5, 0.9};
  double values[4];
  ASSERT_EQ(hist_quantiles(h.get(), q, 4, values), 0);
  EXPECT_EQ(values[0], 1.05);
  EXPECT_EQ(values[1], 1.05);
  EXPECT_EQ(values[2], 2.05);
  EXPECT_EQ(values[3], 3.05);
}

TEST(Statistics, ATotalBeyond64BitsDoesNotWrap) {
  Histogram h;
  for (int i = 0; i < 8; ++i) hist_insert(h.get(), 1 + i, uint64_t{1} << 62);  // 2^65 together
  const double q[] = {0, 0.125, 0.5, 0.51, 1};
  double values[5];
  ASSERT_EQ(hist_quantiles(h.get(), q, 5, values), 0);
  EXPECT_EQ(values[0], 1.05);
  EXPECT_EQ(values[1], 1.05);
  EXPECT_EQ(values[2], 4.05);
  EXPECT_EQ(values[3], 5.05);
  EXPECT_EQ(values[4], 8.05);
  EXPECT_EQ(hist_number_count(h.get()), UINT64_MAX);
}

TEST(Statistics, OfADifferenceLeaveNegativeCountsOut) {
  const Histogram h{{10, 0, 5}, {20, 0, 1}}, source{{10, 0, 1}, {20, 0, 3}};
  ASSERT_EQ(subtract(h, {source.get()}), 0);
  const double q[] = {0, 1};
  double values[2];
  EXPECT_EQ(hist_sample_count(h.get()), 4U);
  EXPECT_EQ(hist_count_above(h.get(), 1), 0U);
  EXPECT_DOUBLE_EQ(hist_approx_mean(h.get()), 1.05);
  ASSERT_EQ(hist_quantiles(h.get(), q, 2, values), 0);
  EXPECT_EQ(values[1], 1.05);
}

// The values that stay are every `factor`-th of them in order, which a list shows.
TEST(Downsample, KeepsEveryNthValueInOrder) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    const Sample sample = random_sample(seed);
    std::mt19937 random(seed);
    const size_t factor = 1 + random() % 40;
    std::vector<double> kept;
    for (size_t i = factor; i <= sample.values.size(); i += factor) kept.push_back(sample.values[i - 1]);
    const Sample expected(kept);
    ASSERT_EQ(hist_downsample(sample.histogram.get(), factor), 0);
    hist_remove_zeroes(sample.histogram.get());
    ASSERT_EQ(sample.histogram.entries(), expected.histogram.entries());
  }
}

TEST(Downsample, KeepsBucketsAndThinsNoNumbersByThemselves) {
  const Histogram h{{10, 0, 1}, {11, 0, 2}, {-1, 0, 5}};
  EXPECT_EQ(hist_downsample(h.get(), 2), 0);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 0}, {11, 0, 1}, {-1, 0, 2}}));
}

TEST(Downsample, TakesAnyCountAndFactor) {
  const Histogram h{{10, 0, UINT64_MAX}, {11, 0, UINT64_MAX}, {12, 0, UINT64_MAX}};
  EXPECT_EQ(hist_downsample(h.get(), 1), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(11, 0)), UINT64_MAX);
  EXPECT_EQ(hist_downsample(h.get(), UINT64_MAX - 1), 0);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 1}, {11, 0, 1}, {12, 0, 1}}));
  EXPECT_EQ(hist_downsample(h.get(), UINT64_MAX), 0);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 0}, {11, 0, 0}, {12, 0, 0}}));
}

TEST(Downsample, RefusesWhatItCannotDo) {
  const Histogram h{{10, 0, 5}}, source{{11, 0, 1}};
  EXPECT_EQ(hist_downsample(nullptr, 2), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_downsample(h.get(), 0), HIST_E_ARGUMENT);
  ASSERT_EQ(subtract(h, {source.get()}), 0);
  EXPECT_EQ(hist_downsample(h.get(), 2), HIST_E_RANGE);
  EXPECT_EQ(hist_count_at(h.get(), bucket(10, 0)), 5U);
}

}  // namespace
