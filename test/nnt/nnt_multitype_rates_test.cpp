// Derivatives and counters of merged values, and how they change.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>

#include "liborlith/nnt/nnt_multitype.h"
#include "test/nnt/nnt_multitype_support.h"

namespace {

using namespace multitype_test;

nnt_multitype with_counter(float value, float stddev) {
  nnt_multitype v = int32_value(0, 1);
  v.counter = value;
  v.counter_stddev = stddev;
  return v;
}

void merge_derivatives(nnt_multitype *a, int a_drun, const nnt_multitype &v, int v_drun) {
  nnt_multitype_accum_counts(a, 1, a_drun, 0, &v, 1, v_drun, 0);
}
void merge_counters(nnt_multitype *a, int a_crun, const nnt_multitype &v, int v_crun) {
  nnt_multitype_accum_counts(a, 1, 0, a_crun, &v, 1, 0, v_crun);
}

}  // namespace

// ---- the derivative ----

TEST(NntMultitypeDerivative, IsAMeanWeightedByRuns) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 3000, with_derivative(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 3.0F);
  EXPECT_FLOAT_EQ(a.derivative_stddev, std::sqrt(6.0F));  // as the value does
}

TEST(NntMultitypeDerivative, WithoutARunOfItsOwnTheTargetTakesTheSource) {
  for (const float own : {2.0F, kNaN}) {
    nnt_multitype a = with_derivative(own, 1.0F);
    merge_derivatives(&a, 0, with_derivative(6.0F, 3.0F), 1000);
    EXPECT_EQ(a.derivative, 6.0F);
    EXPECT_EQ(a.derivative_stddev, 3.0F);
  }
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 0, with_derivative(kNaN, kNaN), 1000);
  EXPECT_TRUE(std::isnan(a.derivative));
  EXPECT_TRUE(std::isnan(a.derivative_stddev));
}

TEST(NntMultitypeDerivative, WithoutAnyRunItStays) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 0, with_derivative(6.0F, 3.0F), 0);
  EXPECT_EQ(a.derivative, 2.0F);
  EXPECT_EQ(a.derivative_stddev, 1.0F);
  // Runs that cancel out count as none.
  merge_derivatives(&a, 5, with_derivative(6.0F, 3.0F), -5);
  EXPECT_EQ(a.derivative, 2.0F);
}

TEST(NntMultitypeDerivative, AnUndefinedTargetTakesTheSource) {
  nnt_multitype a = with_derivative(kNaN, kNaN);
  merge_derivatives(&a, 1000, with_derivative(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 6.0F);
  EXPECT_EQ(a.derivative_stddev, 3.0F);
}

TEST(NntMultitypeDerivative, AnUndefinedTargetWithADeviationPoolsToZero) {
  nnt_multitype a = with_derivative(kNaN, 1.0F);
  merge_derivatives(&a, 1000, with_derivative(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 6.0F);
  EXPECT_EQ(a.derivative_stddev, 0.0F);  // the variance is NaN
  a = with_derivative(kNaN, 1.0F);
  merge_derivatives(&a, 1000, with_derivative(6.0F, kNaN), 1000);
  EXPECT_EQ(a.derivative_stddev, 1.0F);
}

TEST(NntMultitypeDerivative, AnUndefinedSourceLeavesTheMean) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 1000, with_derivative(kNaN, kNaN), 1000);
  EXPECT_EQ(a.derivative, 2.0F);
  EXPECT_EQ(a.derivative_stddev, 1.0F);
  // With a deviation but no value the pooled variance is NaN.
  merge_derivatives(&a, 1000, with_derivative(kNaN, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 2.0F);
  EXPECT_EQ(a.derivative_stddev, 0.0F);
}

TEST(NntMultitypeDerivative, AnUndefinedDeviationOfTheTargetTakesTheSources) {
  nnt_multitype a = with_derivative(2.0F, kNaN);
  merge_derivatives(&a, 1000, with_derivative(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 4.0F);
  EXPECT_EQ(a.derivative_stddev, 3.0F);
}

TEST(NntMultitypeDerivative, AnUndefinedDeviationOfTheSourceLeavesTheTargets) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 1000, with_derivative(6.0F, kNaN), 1000);
  EXPECT_EQ(a.derivative, 4.0F);
  EXPECT_EQ(a.derivative_stddev, 1.0F);
}

TEST(NntMultitypeDerivative, ANegativeVarianceGivesZero) {
  int negative = 0;
  for (int i = 1; i < 2000; ++i) {
    const float rate = 0.1F * static_cast<float>(i);
    const float mean = (3.0F * rate + 4.0F * rate) / 7.0F;
    const float variance = (rate * rate * 3.0F + rate * rate * 4.0F) / 7.0F - mean * mean;
    nnt_multitype a = with_derivative(rate, 0.0F);
    merge_derivatives(&a, 3, with_derivative(rate, 0.0F), 4);
    EXPECT_FALSE(std::isnan(a.derivative_stddev));
    if (variance < 0) {
      ++negative;
      EXPECT_EQ(a.derivative_stddev, 0.0F);
    }
  }
  EXPECT_GT(negative, 0);
}

TEST(NntMultitypeDerivative, IsMergedEvenWithoutSamples) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  const nnt_multitype v = with_derivative(6.0F, 3.0F);
  EXPECT_EQ(nnt_multitype_accum_counts(&a, 0, 1, 0, &v, 0, 1, 0), 0);
  EXPECT_EQ(a.type, NNT_TYPE_INT32);
  EXPECT_EQ(a.derivative, 4.0F);
}

// ---- the counter ----

TEST(NntMultitypeCounter, IsAMeanWeightedByItsOwnRuns) {
  nnt_multitype a = with_counter(2.0F, 1.0F);
  merge_counters(&a, 3000, with_counter(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.counter, 3.0F);
  EXPECT_FLOAT_EQ(a.counter_stddev, std::sqrt(6.0F));
  EXPECT_EQ(a.derivative, 0.0F);
}

TEST(NntMultitypeCounter, ADeviationWithoutAValueIsNotPooled) {
  nnt_multitype a = with_counter(2.0F, 1.0F);
  merge_counters(&a, 1000, with_counter(kNaN, 3.0F), 1000);
  EXPECT_EQ(a.counter, 2.0F);
  EXPECT_EQ(a.counter_stddev, 1.0F);  // where a derivative's would have become 0
}

TEST(NntMultitypeCounter, WithoutARunOfItsOwnTheTargetTakesTheSource) {
  nnt_multitype a = with_counter(2.0F, 1.0F);
  merge_counters(&a, 0, with_counter(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.counter, 6.0F);
  EXPECT_EQ(a.counter_stddev, 3.0F);
}

TEST(NntMultitypeCounter, AnUndefinedTargetTakesTheSource) {
  nnt_multitype a = with_counter(kNaN, 1.0F);
  merge_counters(&a, 1000, with_counter(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.counter, 6.0F);
  EXPECT_EQ(a.counter_stddev, 0.0F);  // pooled with a NaN
  a = with_counter(2.0F, kNaN);
  merge_counters(&a, 1000, with_counter(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.counter_stddev, 3.0F);
}

TEST(NntMultitypeCounter, WithoutAnyRunItStays) {
  nnt_multitype a = with_counter(2.0F, 1.0F);
  merge_counters(&a, 0, with_counter(6.0F, 3.0F), 0);
  EXPECT_EQ(a.counter, 2.0F);
  EXPECT_EQ(a.counter_stddev, 1.0F);
}

// ---- second order ----

namespace {

struct SecondOrder {
  std::array<float, 8> derivatives{};
  std::array<float, 8> counters{};
  stddev_t stddev{0, 0, 0.0F, 0.0F, derivatives.data(), counters.data()};
};

api_nnt_multitype rates(float derivative, float counter) {
  api_nnt_multitype v{};
  v.v.count = 1;
  v.v.derivative = derivative;
  v.v.counter = counter;
  return v;
}

}  // namespace

TEST(NntMultitypeSecondOrder, FoldsTheChangeOfTheRates) {
  SecondOrder s;
  api_nnt_multitype a = rates(0.0F, 0.0F);
  int32_t weight = 0;
  const api_nnt_multitype first = rates(1.0F, 10.0F);
  const api_nnt_multitype second = rates(5.0F, 6.0F);
  const api_nnt_multitype third = rates(5.0F, 14.0F);
  nnt_multitype_accum_second_order(&a, &first, &second, 100, 102, &s.stddev, &weight);
  EXPECT_EQ(a.s.derivative, 2.0F);
  EXPECT_EQ(a.s.counter, -2.0F);
  EXPECT_EQ(weight, 2);
  nnt_multitype_accum_second_order(&a, &second, &third, 102, 104, &s.stddev, &weight);
  EXPECT_EQ(a.s.derivative, 1.0F);  // (2 * 2 + 2 * 0) / 4
  EXPECT_EQ(a.s.counter, 1.0F);     // (-2 * 2 + 2 * 4) / 4
  EXPECT_EQ(weight, 4);
  EXPECT_EQ(s.stddev.count, 2);
  EXPECT_EQ(s.stddev.weight, 0);
  EXPECT_EQ(s.derivatives[0], 2.0F);
  EXPECT_EQ(s.derivatives[1], 0.0F);
  EXPECT_EQ(s.counters[0], -2.0F);
  EXPECT_EQ(s.counters[1], 4.0F);
  EXPECT_EQ(s.stddev.derivative_sum, 2.0F);
  EXPECT_EQ(s.stddev.counter_sum, 2.0F);
}

TEST(NntMultitypeSecondOrder, NeedsSamplesOnBothSides) {
  for (const bool first_empty : {true, false}) {
    SecondOrder s;
    api_nnt_multitype a = rates(0.0F, 0.0F);
    api_nnt_multitype first = rates(1.0F, 10.0F);
    api_nnt_multitype second = rates(5.0F, 6.0F);
    (first_empty ? first : second).v.count = 0;
    int32_t weight = 7;
    nnt_multitype_accum_second_order(&a, &first, &second, 100, 102, &s.stddev, &weight);
    EXPECT_EQ(a.s.derivative, 0.0F);
    EXPECT_EQ(s.stddev.count, 0);
    EXPECT_EQ(weight, 7);
  }
}

TEST(NntMultitypeSecondOrder, TheWeightIsHeldAtItsLimits) {
  SecondOrder s;
  api_nnt_multitype a = rates(0.0F, 0.0F);
  const api_nnt_multitype slot = rates(1.0F, 1.0F);
  int32_t weight = INT32_MAX;
  nnt_multitype_accum_second_order(&a, &slot, &slot, INT32_MIN, INT32_MAX, &s.stddev, &weight);
  EXPECT_EQ(weight, INT32_MAX);
  weight = INT32_MIN;
  nnt_multitype_accum_second_order(&a, &slot, &slot, INT32_MAX, INT32_MIN, &s.stddev, &weight);
  EXPECT_EQ(weight, INT32_MIN);
}

TEST(NntMultitypeSecondOrder, EqualTimesAreUndefinedNotFatal) {
  SecondOrder s;
  api_nnt_multitype a = rates(0.0F, 0.0F);
  const api_nnt_multitype slot = rates(1.0F, 1.0F);
  int32_t weight = 0;
  nnt_multitype_accum_second_order(&a, &slot, &slot, 5, 5, &s.stddev, &weight);
  EXPECT_TRUE(std::isnan(a.s.derivative));
  EXPECT_EQ(weight, 0);
}
