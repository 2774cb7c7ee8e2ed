#include "liborlith/nnt/nnt_multitype.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInfinity = std::numeric_limits<float>::infinity();

nnt_multitype of_type(nnt_type_t type, uint32_t count) {
  nnt_multitype v{};
  v.type = type;
  v.count = count;
  return v;
}
nnt_multitype int32_value(int32_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_INT32, count);
  v.value.v_int32 = number;
  return v;
}
nnt_multitype uint32_value(uint32_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_UINT32, count);
  v.value.v_uint32 = number;
  return v;
}
nnt_multitype int64_value(int64_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_INT64, count);
  v.value.v_int64 = number;
  return v;
}
nnt_multitype uint64_value(uint64_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_UINT64, count);
  v.value.v_uint64 = number;
  return v;
}
nnt_multitype double_value(double number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_DOUBLE, count);
  v.value.v_double = number;
  return v;
}
nnt_multitype with_stddev(nnt_multitype v, float stddev) {
  v.stddev_present = 1;
  v.stddev = stddev;
  return v;
}
nnt_multitype with_derivative(float value, float stddev) {
  nnt_multitype v = int32_value(0, 1);
  v.derivative = value;
  v.derivative_stddev = stddev;
  return v;
}
nnt_multitype with_counter(float value, float stddev) {
  nnt_multitype v = int32_value(0, 1);
  v.counter = value;
  v.counter_stddev = stddev;
  return v;
}

// The number in a slot whose type a merge has set.
double stored_number(const nnt_multitype &v) {
  if (v.type == NNT_TYPE_UINT64) return static_cast<double>(v.value.v_uint64);
  if (v.type == NNT_TYPE_INT64) return static_cast<double>(v.value.v_int64);
  return v.value.v_double;
}

// Merges with the sample counts as all weights, without touching the stored count.
int merge(nnt_multitype *a, const nnt_multitype &v) {
  const int a_count = static_cast<int>(a->count);
  const int v_count = static_cast<int>(v.count);
  return nnt_multitype_accum_counts(a, a_count, a_count, a_count, &v, v_count, v_count, v_count);
}

void merge_derivatives(nnt_multitype *a, int a_drun, const nnt_multitype &v, int v_drun) {
  nnt_multitype_accum_counts(a, 1, a_drun, 0, &v, 1, v_drun, 0);
}
void merge_counters(nnt_multitype *a, int a_crun, const nnt_multitype &v, int v_crun) {
  nnt_multitype_accum_counts(a, 1, 0, a_crun, &v, 1, 0, v_crun);
}

}  // namespace

// ---- layout ----

TEST(NntMultitypeLayout, FieldsLieWhereHostsExpectThem) {
  EXPECT_EQ(sizeof(nnt_type_t), 4u);
  EXPECT_EQ(offsetof(nnt_multitype, type), 0u);
  EXPECT_EQ(offsetof(nnt_multitype, count), 4u);
  EXPECT_EQ(offsetof(nnt_multitype, stddev_present), 8u);
  EXPECT_EQ(offsetof(nnt_multitype, stddev), 12u);
  EXPECT_EQ(offsetof(nnt_multitype, value), 16u);
  EXPECT_EQ(offsetof(nnt_multitype, min), 24u);
  EXPECT_EQ(offsetof(nnt_multitype, max), 28u);
  EXPECT_EQ(offsetof(nnt_multitype, derivative), 32u);
  EXPECT_EQ(offsetof(nnt_multitype, derivative_stddev), 36u);
  EXPECT_EQ(offsetof(nnt_multitype, derivative_min), 40u);
  EXPECT_EQ(offsetof(nnt_multitype, derivative_max), 44u);
  EXPECT_EQ(offsetof(nnt_multitype, counter), 48u);
  EXPECT_EQ(offsetof(nnt_multitype, counter_stddev), 52u);
  EXPECT_EQ(offsetof(nnt_multitype, counter_min), 56u);
  EXPECT_EQ(offsetof(nnt_multitype, counter_max), 60u);
  EXPECT_EQ(sizeof(nnt_multitype), 64u);
}

TEST(NntMultitypeLayout, SecondOrderRecordsLieWhereHostsExpectThem) {
  EXPECT_EQ(offsetof(stddev_t, count), 0u);
  EXPECT_EQ(offsetof(stddev_t, weight), 4u);
  EXPECT_EQ(offsetof(stddev_t, derivative_sum), 8u);
  EXPECT_EQ(offsetof(stddev_t, counter_sum), 12u);
  EXPECT_EQ(offsetof(stddev_t, derivative_values), 16u);
  EXPECT_EQ(offsetof(stddev_t, counter_values), 24u);
  EXPECT_EQ(offsetof(second_order_derivative_t, derivative), 0u);
  EXPECT_EQ(offsetof(second_order_derivative_t, counter), 4u);
  EXPECT_EQ(offsetof(second_order_derivative_t, derivative_stddev), 8u);
  EXPECT_EQ(offsetof(second_order_derivative_t, counter_stddev), 12u);
  EXPECT_EQ(offsetof(api_nnt_multitype, v), 0u);
  EXPECT_EQ(offsetof(api_nnt_multitype, s), 64u);
}

TEST(NntMultitypeLayout, TypeCodesAreThoseOfTheFiles) {
  EXPECT_EQ(NNT_TYPE_ABSENT, 0u);
  EXPECT_EQ(NNT_TYPE_NULL, 1u);
  EXPECT_EQ(NNT_TYPE_INT32, 2u);
  EXPECT_EQ(NNT_TYPE_UINT32, 3u);
  EXPECT_EQ(NNT_TYPE_INT64, 4u);
  EXPECT_EQ(NNT_TYPE_UINT64, 5u);
  EXPECT_EQ(NNT_TYPE_DOUBLE, 6u);
  EXPECT_EQ(NNT_TYPE_STRING, 7u);
}

// ---- the value ----

TEST(NntMultitypeAccum, TwoIntegersWidenToUnsigned64) {
  nnt_multitype a = int32_value(4, 2);
  nnt_multitype_accum(&a, std::array{int32_value(6, 2)}.data());
  EXPECT_EQ(a.type, NNT_TYPE_UINT64);
  EXPECT_EQ(a.value.v_uint64, 5u);
  EXPECT_EQ(a.count, 4u);
}

TEST(NntMultitypeAccum, AFractionalMeanIsADouble) {
  nnt_multitype a = int32_value(1, 1);
  EXPECT_EQ(merge(&a, int32_value(2, 1)), 2);
  EXPECT_EQ(a.type, NNT_TYPE_DOUBLE);
  EXPECT_EQ(a.value.v_double, 1.5);
}

TEST(NntMultitypeAccum, ANegativeIntegralMeanIsSigned64) {
  nnt_multitype a = int32_value(-3, 1);
  merge(&a, int32_value(-3, 1));
  EXPECT_EQ(a.type, NNT_TYPE_INT64);
  EXPECT_EQ(a.value.v_int64, -3);
}

TEST(NntMultitypeAccum, ANullSideCountsAsZero) {
  nnt_multitype a = of_type(NNT_TYPE_NULL, 3);
  EXPECT_EQ(merge(&a, int32_value(8, 1)), 4);
  EXPECT_EQ(a.type, NNT_TYPE_UINT64);
  EXPECT_EQ(a.value.v_uint64, 2u);
}

TEST(NntMultitypeAccum, AStringAnAbsentSideAndAnUnknownCodeCountAsZeroToo) {
  for (const uint32_t code : {0u, 1u, 7u, 8u, 200u, 0xffffffffu}) {
    SCOPED_TRACE(code);
    nnt_multitype a = uint32_value(9, 1);
    nnt_multitype v = of_type(static_cast<nnt_type_t>(code), 2);
    v.value.v_uint64 = 77;
    EXPECT_EQ(merge(&a, v), 3);
    EXPECT_EQ(a.type, NNT_TYPE_UINT64);
    EXPECT_EQ(a.value.v_uint64, 3u);
  }
}

TEST(NntMultitypeAccum, EveryNumericTypeIsReadAsItself) {
  struct Case {
    nnt_multitype v;
    double number;
  };
  const Case cases[] = {{int32_value(INT32_MIN, 1), -2147483648.0},
                        {uint32_value(UINT32_MAX, 1), 4294967295.0},
                        {int64_value(INT64_MIN, 1), -9223372036854775808.0},
                        {uint64_value(UINT64_C(1) << 63, 1), 9223372036854775808.0},
                        {double_value(-0.25, 1), -0.25}};
  for (const Case &c : cases) {
    nnt_multitype a = double_value(0.0, 0);  // weighs nothing: the mean is the other side
    EXPECT_EQ(nnt_multitype_accum_counts(&a, 0, 0, 0, &c.v, 1, 0, 0), 1);
    EXPECT_EQ(stored_number(a), c.number);
  }
}

TEST(NntMultitypeAccum, TheResultTypeFollowsTheMeanAtTheLimits) {
  struct Case {
    double mean;
    nnt_type_t type;
  };
  const double two_to_63 = std::ldexp(1.0, 63);
  const double two_to_64 = std::ldexp(1.0, 64);
  const Case cases[] = {
      {0.0, NNT_TYPE_UINT64},
      {-0.0, NNT_TYPE_UINT64},
      {1.0, NNT_TYPE_UINT64},
      {std::nextafter(1.0, 2.0), NNT_TYPE_DOUBLE},
      {0.5, NNT_TYPE_DOUBLE},
      {-0.5, NNT_TYPE_DOUBLE},
      {-1.0, NNT_TYPE_INT64},
      {two_to_63, NNT_TYPE_UINT64},
      {std::nextafter(two_to_64, 0.0), NNT_TYPE_UINT64},  // 2^64 - 2048
      {two_to_64, NNT_TYPE_DOUBLE},                       // one past what 64 bits hold
      {std::nextafter(two_to_64, INFINITY), NNT_TYPE_DOUBLE},
      {-two_to_63, NNT_TYPE_INT64},
      {std::nextafter(-two_to_63, -INFINITY), NNT_TYPE_DOUBLE},
      {std::nextafter(-two_to_63, 0.0), NNT_TYPE_INT64},
      {1e300, NNT_TYPE_DOUBLE},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mean);
    nnt_multitype a = double_value(c.mean, 1);
    const nnt_multitype v = double_value(0.0, 0);
    nnt_multitype_accum_counts(&a, 1, 0, 0, &v, 0, 0, 0);
    EXPECT_EQ(a.type, c.type);
    EXPECT_EQ(stored_number(a), c.mean);
  }
}

TEST(NntMultitypeAccum, LiteralIntegersAtTheLimits) {
  nnt_multitype a = double_value(std::ldexp(1.0, 64) - 2048.0, 1);
  const nnt_multitype nothing = double_value(0.0, 0);
  merge(&a, nothing);
  EXPECT_EQ(a.value.v_uint64, UINT64_C(18446744073709549568));
  a = int64_value(INT64_MIN, 1);
  merge(&a, nothing);
  EXPECT_EQ(a.type, NNT_TYPE_INT64);
  EXPECT_EQ(a.value.v_int64, INT64_MIN);
  // The largest 64-bit number is read as a double, 2^64, which no integer type holds any more.
  a = uint64_value(UINT64_MAX, 1);
  merge(&a, nothing);
  EXPECT_EQ(a.type, NNT_TYPE_DOUBLE);
  EXPECT_EQ(a.value.v_double, 18446744073709551616.0);
}

TEST(NntMultitypeAccum, InfinitiesAndNaNStayDoubles) {
  nnt_multitype a = double_value(static_cast<double>(INFINITY), 1);
  merge(&a, int32_value(1, 1));
  EXPECT_EQ(a.type, NNT_TYPE_DOUBLE);
  EXPECT_EQ(a.value.v_double, static_cast<double>(INFINITY));
  merge(&a, double_value(static_cast<double>(-INFINITY), 1));
  EXPECT_EQ(a.type, NNT_TYPE_DOUBLE);
  EXPECT_TRUE(std::isnan(a.value.v_double));
}

TEST(NntMultitypeAccum, TwoAbsentSidesChangeNothing) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 9);
  a.derivative = 3.0F;
  const nnt_multitype before = a;
  EXPECT_EQ(merge(&a, of_type(NNT_TYPE_ABSENT, 5)), 0);
  EXPECT_EQ(memcmp(&a, &before, sizeof(a)), 0);
}

TEST(NntMultitypeAccum, AnAbsentSideBecomesTheOtherExceptForItsCount) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 9);
  nnt_multitype v = with_stddev(int32_value(-7, 5), 1.5F);
  v.min = 1.0F;
  v.max = 2.0F;
  v.derivative = 3.0F;
  v.derivative_stddev = 4.0F;
  v.derivative_min = 5.0F;
  v.derivative_max = 6.0F;
  v.counter = 7.0F;
  v.counter_stddev = 8.0F;
  v.counter_min = 9.0F;
  v.counter_max = 10.0F;
  EXPECT_EQ(merge(&a, v), 5);
  EXPECT_EQ(a.count, 9u);
  a.count = v.count;
  EXPECT_EQ(memcmp(&a, &v, sizeof(a)), 0);
}

TEST(NntMultitypeAccum, AnAbsentSideTakesANullOne) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 0);
  EXPECT_EQ(merge(&a, of_type(NNT_TYPE_NULL, 2)), 2);
  EXPECT_EQ(a.type, NNT_TYPE_NULL);
}

TEST(NntMultitypeAccum, WithNoSamplesOnEitherSideTheValueStays) {
  nnt_multitype a = with_stddev(int32_value(4, 0), 2.0F);
  const nnt_multitype before = a;
  EXPECT_EQ(merge(&a, with_stddev(int32_value(6, 0), 1.0F)), 0);
  EXPECT_EQ(memcmp(&a, &before, sizeof(a)), 0);
}

TEST(NntMultitypeAccum, MinimaAndMaximaAreNotMerged) {
  nnt_multitype a = int32_value(1, 1);
  nnt_multitype v = int32_value(2, 1);
  a.min = a.max = a.derivative_min = a.derivative_max = a.counter_min = a.counter_max = 1.0F;
  v.min = v.max = v.derivative_min = v.derivative_max = v.counter_min = v.counter_max = 2.0F;
  merge(&a, v);
  for (const float kept : {a.min, a.max, a.derivative_min, a.derivative_max, a.counter_min, a.counter_max})
    EXPECT_EQ(kept, 1.0F);
}

TEST(NntMultitypeAccum, AValueMayBeMergedIntoItself) {
  nnt_multitype a = with_stddev(int32_value(6, 2), 3.0F);
  a.derivative = 5.0F;
  EXPECT_EQ(nnt_multitype_accum_counts(&a, 2, 2, 2, &a, 2, 2, 2), 4);
  EXPECT_EQ(a.value.v_uint64, 6u);
  EXPECT_EQ(a.stddev, 3.0F);  // sqrt(9 + 36 - 36)
  EXPECT_EQ(a.derivative, 5.0F);
}

TEST(NntMultitypeAccum, CountsBeyondIntAreHeldAtItsLimit) {
  nnt_multitype a = int32_value(1, 1);
  const nnt_multitype v = int32_value(1, 1);
  EXPECT_EQ(nnt_multitype_accum_counts(&a, INT_MAX, INT_MAX, INT_MAX, &v, INT_MAX, INT_MAX, INT_MAX),
            INT_MAX);
  EXPECT_EQ(nnt_multitype_accum_counts(&a, INT_MIN, INT_MIN, INT_MIN, &v, INT_MIN, INT_MIN, INT_MIN),
            INT_MIN);
}

// ---- its standard deviation ----

TEST(NntMultitypeStddev, NeitherSideHasOne) {
  nnt_multitype a = int32_value(4, 2);
  a.stddev = 99.0F;
  nnt_multitype v = int32_value(6, 2);
  v.stddev = 98.0F;
  merge(&a, v);
  EXPECT_EQ(a.stddev_present, 0);
  EXPECT_EQ(a.stddev, 99.0F);
}

TEST(NntMultitypeStddev, OnlyTheSourceHasOne) {
  nnt_multitype a = int32_value(4, 1);
  a.stddev = 99.0F;  // meaningless, so taken as 0
  merge(&a, with_stddev(int32_value(8, 1), 2.0F));
  EXPECT_EQ(a.stddev_present, 1);
  // ((0 + 16) * 1 + (4 + 64) * 1) / 2 - 36 = 6
  EXPECT_FLOAT_EQ(a.stddev, std::sqrt(6.0F));
}

TEST(NntMultitypeStddev, OnlyTheTargetHasOne) {
  nnt_multitype a = with_stddev(int32_value(4, 1), 2.5F);
  nnt_multitype v = int32_value(100, 1);
  v.stddev = 99.0F;
  merge(&a, v);
  EXPECT_EQ(a.stddev_present, 1);
  EXPECT_EQ(a.stddev, 2.5F);
}

TEST(NntMultitypeStddev, BothSidesArePooled) {
  nnt_multitype a = with_stddev(int32_value(2, 3), 1.0F);
  merge(&a, with_stddev(int32_value(6, 1), 3.0F));
  EXPECT_EQ(a.value.v_uint64, 3u);
  // ((1 + 4) * 3 + (9 + 36) * 1) / 4 - 9 = 6
  EXPECT_FLOAT_EQ(a.stddev, std::sqrt(6.0F));
}

TEST(NntMultitypeStddev, ANegativeVarianceGivesZero) {
  // In double precision 0.1 * 0.1 summed over 3 parts and divided again falls below the square of the mean for
  // some inputs; the search makes sure that at least one is met.
  int negative = 0;
  for (int i = 1; i < 2000; ++i) {
    const double number = 0.1 * i;
    const double mean = (3 * number + 4 * number) / 7;
    const double variance = (number * number * 3 + number * number * 4) / 7 - mean * mean;
    nnt_multitype a = with_stddev(double_value(number, 3), 0.0F);
    merge(&a, with_stddev(double_value(number, 4), 0.0F));
    EXPECT_FALSE(std::isnan(a.stddev));
    if (variance < 0) {
      ++negative;
      EXPECT_EQ(a.stddev, 0.0F);
    }
  }
  EXPECT_GT(negative, 0);
}

TEST(NntMultitypeStddev, AnUndefinedVarianceGivesZero) {
  nnt_multitype a = with_stddev(int32_value(1, 1), kNaN);
  merge(&a, with_stddev(int32_value(2, 1), 1.0F));
  EXPECT_EQ(a.stddev, 0.0F);
  EXPECT_EQ(a.stddev_present, 1);
}

TEST(NntMultitypeStddev, DeviationsAreSquaredInSinglePrecision) {
  // 1e20 squared overflows a float but not a double.
  nnt_multitype a = with_stddev(int32_value(0, 1), 1e20F);
  merge(&a, with_stddev(int32_value(0, 1), 0.0F));
  EXPECT_EQ(a.stddev, kInfinity);
  // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24: a float drops the last term.
  a = with_stddev(int32_value(0, 1), 0.0F);
  const float sv = 1.0F + 0x1p-12F;
  merge(&a, with_stddev(int32_value(0, 1), sv));
  EXPECT_EQ(a.stddev, static_cast<float>(std::sqrt((1.0 + 0x1p-11) / 2)));
}

// ---- the derivative ----

TEST(NntMultitypeDerivative, IsAMeanWeightedByRuns) {
  nnt_multitype a = with_derivative(2.0F, 1.0F);
  merge_derivatives(&a, 3000, with_derivative(6.0F, 3.0F), 1000);
  EXPECT_EQ(a.derivative, 3.0F);
  EXPECT_FLOAT_EQ(a.derivative_stddev, std::sqrt(6.0F));  // as for the value above
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

// ---- storing counts: accum and rollup ----

TEST(NntMultitypeCount, AccumCapsIt) {
  nnt_multitype a = int32_value(1, 65000);
  const nnt_multitype v = int32_value(1, 535);
  nnt_multitype_accum(&a, &v);
  EXPECT_EQ(a.count, 65535u);
  nnt_multitype_accum(&a, &v);
  EXPECT_EQ(a.count, 65535u);
  a.count = 65535;
  nnt_multitype huge = int32_value(1, UINT32_MAX);
  nnt_multitype_accum(&a, &huge);
  EXPECT_EQ(a.count, 65535u);
}

TEST(NntMultitypeCount, AccumIntoAnAbsentSlotCapsIt) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 0);
  const nnt_multitype v = int32_value(1, 70000);
  nnt_multitype_accum(&a, &v);
  EXPECT_EQ(a.count, 65535u);
}

TEST(NntMultitypeCount, AccumUsesItAsEveryWeight) {
  nnt_multitype a = with_derivative(2.0F, 0.0F);
  nnt_multitype v = with_derivative(6.0F, 0.0F);
  a.count = 3;
  a.counter = 10.0F;
  v.counter = 20.0F;
  nnt_multitype_accum(&a, &v);
  EXPECT_EQ(a.count, 4u);
  EXPECT_EQ(a.derivative, 3.0F);
  EXPECT_EQ(a.counter, 12.5F);
}

TEST(NntMultitypeRollup, PassesOverSlotsWithoutSamplesAndGrowsTheWeight) {
  nnt_multitype a = with_derivative(0.0F, 0.0F);  // weighs 300, and one sample
  std::vector<nnt_multitype> fine = {with_derivative(6.0F, 0.0F), with_derivative(1000.0F, 0.0F),
                                     with_derivative(9.0F, 0.0F)};
  fine[1].count = 0;
  nnt_multitype_rollup(&a, 300, 3, fine.data(), 60);
  EXPECT_EQ(a.count, 3u);
  // (300 * 0 + 60 * 6) / 360 = 1, then (360 * 1 + 60 * 9) / 420 = 15/7
  EXPECT_FLOAT_EQ(a.derivative, 15.0F / 7.0F);
}

TEST(NntMultitypeRollup, StartsFromAnAbsentSlot) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 0);
  const nnt_multitype fine[] = {int32_value(1, 1), int32_value(2, 1), int32_value(6, 1)};
  nnt_multitype_rollup(&a, 0, 3, fine, 60);
  EXPECT_EQ(a.type, NNT_TYPE_UINT64);
  EXPECT_EQ(a.value.v_uint64, 3u);
  EXPECT_EQ(a.count, 3u);
}

TEST(NntMultitypeRollup, CapsTheCount) {
  nnt_multitype a = of_type(NNT_TYPE_ABSENT, 0);
  const nnt_multitype fine[] = {int32_value(1, 60000), int32_value(1, 60000)};
  nnt_multitype_rollup(&a, 0, 2, fine, 60);
  EXPECT_EQ(a.count, 65535u);
}

TEST(NntMultitypeRollup, WithoutValuesNothingHappens) {
  nnt_multitype a = int32_value(4, 1);
  const nnt_multitype before = a;
  nnt_multitype_rollup(&a, 1, 0, nullptr, 60);
  nnt_multitype_rollup(&a, 1, -1, nullptr, 60);
  EXPECT_EQ(memcmp(&a, &before, sizeof(a)), 0);
}

TEST(NntMultitypeRollup, WeightsAreHeldAtTheLimitOfInt) {
  nnt_multitype a = with_derivative(2.0F, 0.0F);
  const nnt_multitype fine[] = {with_derivative(2.0F, 0.0F), with_derivative(2.0F, 0.0F)};
  nnt_multitype_rollup(&a, INT_MAX, 2, fine, INT_MAX);
  EXPECT_EQ(a.derivative, 2.0F);
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

// ---- against a long-hand model ----

namespace {

struct ModelRate {
  float value, stddev;
};

// Line by line, without sharing anything between derivative and counter but the steps.
ModelRate model_rate(ModelRate a, int a_run, ModelRate v, int v_run, bool is_counter) {
  const int w = a_run + v_run;
  if (w == 0) return a;
  const float da = a.value, sa = a.stddev, dv = v.value, sv = v.stddev;
  if (da != da || a_run == 0) {
    a.value = dv;
    if (sa != sa || a_run == 0) {
      a.stddev = sv;
      return a;
    }
  } else {
    if (dv == dv)
      a.value = (static_cast<float>(a_run) * da + static_cast<float>(v_run) * dv) / static_cast<float>(w);
    if (sa != sa) {
      a.stddev = sv;
      return a;
    }
  }
  if (sv != sv) return a;
  if (is_counter && dv != dv) return a;
  const float var =
      ((sa * sa + da * da) * static_cast<float>(a_run) + (sv * sv + dv * dv) * static_cast<float>(v_run)) /
          static_cast<float>(w) -
      a.value * a.value;
  a.stddev = var >= 0 ? std::sqrt(var) : 0.0F;
  return a;
}

double model_number(const nnt_multitype &v) {
  if (v.type == NNT_TYPE_INT32) return static_cast<double>(v.value.v_int32);
  if (v.type == NNT_TYPE_UINT32) return static_cast<double>(v.value.v_uint32);
  if (v.type == NNT_TYPE_INT64) return static_cast<double>(v.value.v_int64);
  if (v.type == NNT_TYPE_UINT64) return static_cast<double>(v.value.v_uint64);
  if (v.type == NNT_TYPE_DOUBLE) return v.value.v_double;
  return 0.0;
}

int model_accum(nnt_multitype *a, int ac, int ad, int akr, const nnt_multitype &v, int vc, int vd, int vk) {
  if (a->type == NNT_TYPE_ABSENT) {
    if (v.type == NNT_TYPE_ABSENT) return 0;
    const uint32_t count = a->count;
    *a = v;
    a->count = count;
    return vc;
  }
  const int n = ac + vc;
  const double ma = model_number(*a), mv = model_number(v);
  if (n != 0) {
    const double m = (static_cast<double>(ac) * ma + static_cast<double>(vc) * mv) / static_cast<double>(n);
    if (m == std::floor(m) && m >= 0 && m <= 18446744073709549568.0) {
      a->type = NNT_TYPE_UINT64;
      a->value.v_uint64 = static_cast<uint64_t>(m);
    } else if (m == std::floor(m) && m < 0 && m >= -9223372036854775808.0) {
      a->type = NNT_TYPE_INT64;
      a->value.v_int64 = static_cast<int64_t>(m);
    } else {
      a->type = NNT_TYPE_DOUBLE;
      a->value.v_double = m;
    }
    if (v.stddev_present) {
      const float sa = a->stddev_present ? a->stddev : 0.0F;
      const float sa2 = sa * sa, sv2 = v.stddev * v.stddev;
      const double var = ((static_cast<double>(sa2) + ma * ma) * static_cast<double>(ac) +
                          (static_cast<double>(sv2) + mv * mv) * static_cast<double>(vc)) /
                             static_cast<double>(n) -
                         m * m;
      a->stddev = var >= 0 ? static_cast<float>(std::sqrt(var)) : 0.0F;
      a->stddev_present = 1;
    }
  }
  const ModelRate d =
      model_rate({a->derivative, a->derivative_stddev}, ad, {v.derivative, v.derivative_stddev}, vd, false);
  a->derivative = d.value;
  a->derivative_stddev = d.stddev;
  const ModelRate k =
      model_rate({a->counter, a->counter_stddev}, akr, {v.counter, v.counter_stddev}, vk, true);
  a->counter = k.value;
  a->counter_stddev = k.stddev;
  return n;
}

class RandomValues {
 public:
  explicit RandomValues(uint64_t seed) : engine_(seed) {}

  int pick(int below) { return static_cast<int>(engine_() % static_cast<uint64_t>(below)); }
  float rate() {
    switch (pick(6)) {
      case 0:
        return kNaN;
      case 1:
        return 0.0F;
      case 2:
        return kInfinity;
      default:
        return std::uniform_real_distribution<float>(-1e4F, 1e4F)(engine_);
    }
  }
  int weight() { return pick(3) == 0 ? 0 : pick(3'600'000); }

  nnt_multitype value() {
    nnt_multitype v{};
    v.type = static_cast<nnt_type_t>(pick(9));
    v.count = static_cast<uint32_t>(pick(4) == 0 ? 0 : pick(70000));
    v.stddev_present = static_cast<uint8_t>(pick(2));
    v.stddev = rate();
    if (v.type == NNT_TYPE_DOUBLE && pick(2) == 0) {
      v.value.v_double = std::uniform_real_distribution<double>(-1e20, 1e20)(engine_);
    } else {
      v.value.v_uint64 = engine_() >> pick(64);
    }
    v.derivative = rate();
    v.derivative_stddev = rate();
    v.counter = rate();
    v.counter_stddev = rate();
    return v;
  }

 private:
  std::mt19937_64 engine_;
};

// Equal in every bit, any two NaNs being the same: which operand's NaN an operation hands on is the compiler's choice.
bool same_float(float a, float b) {
  return (a != a && b != b) || memcmp(&a, &b, sizeof(a)) == 0;
}
bool same(const nnt_multitype &a, const nnt_multitype &b) {
  const bool same_value = a.value.v_uint64 == b.value.v_uint64 ||
                          (a.type == NNT_TYPE_DOUBLE && a.value.v_double != a.value.v_double &&
                           b.value.v_double != b.value.v_double);
  return a.type == b.type && a.count == b.count && a.stddev_present == b.stddev_present && same_value &&
         same_float(a.stddev, b.stddev) && same_float(a.derivative, b.derivative) &&
         same_float(a.derivative_stddev, b.derivative_stddev) && same_float(a.counter, b.counter) &&
         same_float(a.counter_stddev, b.counter_stddev);
}

}  // namespace

TEST(NntMultitypeModel, RandomMergesAgree) {
  for (uint64_t seed = 1; seed <= 200'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues random(seed);
    nnt_multitype a = random.value();
    nnt_multitype model = a;
    const nnt_multitype v = random.value();
    const int ac = static_cast<int>(a.count), vc = static_cast<int>(v.count);
    const int ad = random.weight(), ak = random.weight(), vd = random.weight(), vk = random.weight();
    ASSERT_EQ(nnt_multitype_accum_counts(&a, ac, ad, ak, &v, vc, vd, vk),
              model_accum(&model, ac, ad, ak, v, vc, vd, vk));
    ASSERT_TRUE(same(a, model));
  }
}

TEST(NntMultitypeModel, RandomRollupsAgree) {
  for (uint64_t seed = 1; seed <= 5'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues random(seed);
    nnt_multitype a = random.value();
    nnt_multitype model = a;
    std::vector<nnt_multitype> fine(static_cast<size_t>(random.pick(12)));
    for (nnt_multitype &v : fine) v = random.value();
    nnt_multitype_rollup(&a, 300, static_cast<int>(fine.size()), fine.data(), 60);
    int weight = 300;
    for (const nnt_multitype &v : fine) {
      if (v.count == 0) continue;
      const int n = model_accum(&model, static_cast<int>(model.count), weight, weight, v,
                                static_cast<int>(v.count), 60, 60);
      model.count = static_cast<uint32_t>(n > 65535 ? 65535 : n);
      weight += 60;
    }
    ASSERT_TRUE(same(a, model));
  }
}
