// Layout, values, their deviations and counts; nnt_multitype_rates_test.cpp has the rates.
#include "liborlith/nnt/nnt_multitype.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "test/nnt/nnt_multitype_support.h"

namespace {

using namespace multitype_test;

// The number in a slot whose type a merge has set.
double stored_number(const nnt_multitype &v) {
  if (v.type == NNT_TYPE_UINT64) return static_cast<double>(v.value.v_uint64);
  if (v.type == NNT_TYPE_INT64) return static_cast<double>(v.value.v_int64);
  return v.value.v_double;
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
