#include "liborlith/orollupd/rollup.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <limits>
#include <random>

#include "liborlith/orollupd/rollup_private.h"
#include "test/support/values.h"

namespace {

// The rule for integers above 2^63 - 1, in steps: halved with the low bit kept, converted, doubled.
double halve_convert_double(uint64_t v) {
  if (v <= INT64_MAX) return static_cast<double>(static_cast<int64_t>(v));
  return static_cast<double>(static_cast<int64_t>((v >> 1) | (v & 1))) * 2;
}

}  // namespace

// ---- Layout and codes

TEST(MetricValueLayout, FieldsStandWhereHostsExpectThem) {
  EXPECT_EQ(sizeof(metric_value_t), 24U);
  EXPECT_EQ(offsetof(metric_value_t, whence_ms), 0U);
  EXPECT_EQ(offsetof(metric_value_t, type), 8U);
  EXPECT_EQ(sizeof(metric_value_t::type), 4U);
  EXPECT_EQ(offsetof(metric_value_t, is_null), 12U);
  EXPECT_EQ(offsetof(metric_value_t, storage), 16U);
}

TEST(MetricValueLayout, TypeCodesAreTheirLetters) {
  EXPECT_EQ(ORLITH_METRIC_ABSENT, 0);
  EXPECT_EQ(ORLITH_METRIC_GUESS, '0');
  EXPECT_EQ(ORLITH_METRIC_INT32, 'i');
  EXPECT_EQ(ORLITH_METRIC_UINT32, 'I');
  EXPECT_EQ(ORLITH_METRIC_INT64, 'l');
  EXPECT_EQ(ORLITH_METRIC_UINT64, 'L');
  EXPECT_EQ(ORLITH_METRIC_DOUBLE, 'n');
  EXPECT_EQ(ORLITH_METRIC_STRING, 's');
  EXPECT_EQ(ORLITH_METRIC_HISTOGRAM, 'h');
  EXPECT_EQ(ORLITH_METRIC_HISTOGRAM_CUMULATIVE, 'H');
  EXPECT_EQ(ORLITH_METRIC_HISTOGRAM_ENTRY, 16);
  EXPECT_EQ(ORLITH_METRIC_HISTOGRAM_CUMULATIVE_ENTRY, 32);
}

TEST(MetricToNntType, MapsNumbersAndNothingElse) {
  for (uint32_t code = 0; code < 1024; ++code) {
    const nnt_type_t expected = code == 'I'   ? NNT_TYPE_UINT32
                                : code == 'L' ? NNT_TYPE_UINT64
                                : code == 'i' ? NNT_TYPE_INT32
                                : code == 'l' ? NNT_TYPE_INT64
                                : code == 'n' ? NNT_TYPE_DOUBLE
                                              : NNT_TYPE_NULL;
    EXPECT_EQ(metric_to_nnt_type(code), expected) << code;
  }
  EXPECT_EQ(metric_to_nnt_type(UINT32_MAX), NNT_TYPE_NULL);
}

// ---- NaN

TEST(PrivateNan, IsNotANumberBeforeAndAfterItIsComputed) {
  EXPECT_TRUE(std::isnan(liborlith_private_nan_double));
  EXPECT_TRUE(std::isnan(liborlith_private_nan_float));
  init_private_nan();
  EXPECT_TRUE(std::isnan(liborlith_private_nan_double));
  EXPECT_TRUE(std::isnan(liborlith_private_nan_float));
}

TEST(PrivateNan, HasTheBitsOfEveryOtherUndefinedResult) {
  init_private_nan();
  volatile double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(std::bit_cast<uint64_t>(liborlith_private_nan_double),
            std::bit_cast<uint64_t>(infinity - infinity));
}

TEST(PrivateNanDeathTest, APlatformWithoutNanEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const float nan = std::numeric_limits<float>::quiet_NaN();
  orollup_error_ls = ruxo_error;
  const auto minus_one = testing::ExitedWithCode(255);
  EXPECT_EXIT(rollup::adopt_nan(0.0F, nan), minus_one, "Cannot construct a NaN value!");
  EXPECT_EXIT(rollup::adopt_nan(nan, 1.0), minus_one, "Cannot construct a NaN value!");
}

// ---- Accessors

TEST(MetricValueIsNegative, FollowsTheSign) {
  EXPECT_EQ(metric_value_is_negative(Value::i(-1)), 1);
  EXPECT_EQ(metric_value_is_negative(Value::i(0)), 0);
  EXPECT_EQ(metric_value_is_negative(Value::l(INT64_MIN)), 1);
  EXPECT_EQ(metric_value_is_negative(Value::l(5)), 0);
  EXPECT_EQ(metric_value_is_negative(Value::I(UINT32_MAX)), 0);
  EXPECT_EQ(metric_value_is_negative(Value::L(UINT64_MAX)), 0);
  EXPECT_EQ(metric_value_is_negative(Value::n(-0.5)), 1);
  EXPECT_EQ(metric_value_is_negative(Value::n(-0.0)), 0);
  EXPECT_EQ(metric_value_is_negative(Value::n(std::nan(""))), 0);
  EXPECT_EQ(metric_value_is_negative(Value::null('x')), 0) << "a null value of any type";
}

TEST(MetricValueUint64, WidensWhatIsNotNegative) {
  EXPECT_EQ(metric_value_uint64(Value::I(UINT32_MAX)), UINT32_MAX);
  EXPECT_EQ(metric_value_uint64(Value::L(UINT64_MAX)), UINT64_MAX);
  EXPECT_EQ(metric_value_uint64(Value::i(INT32_MAX)), 2147483647U);
  EXPECT_EQ(metric_value_uint64(Value::l(INT64_MAX)), 9223372036854775807U);
  EXPECT_EQ(metric_value_uint64(Value::l(0)), 0U);
}

TEST(MetricValueInt64, WidensSignedAndUnsigned32) {
  EXPECT_EQ(metric_value_int64(Value::i(INT32_MIN)), INT32_MIN);
  EXPECT_EQ(metric_value_int64(Value::l(INT64_MIN)), INT64_MIN);
  EXPECT_EQ(metric_value_int64(Value::I(UINT32_MAX)), 4294967295);
}

TEST(MetricValueDouble, ConvertsEveryNumber) {
  EXPECT_EQ(metric_value_double(Value::i(-3)), -3.0);
  EXPECT_EQ(metric_value_double(Value::I(UINT32_MAX)), 4294967295.0);
  EXPECT_EQ(metric_value_double(Value::l(INT64_MIN)), -9223372036854775808.0);
  EXPECT_EQ(metric_value_double(Value::n(1.25)), 1.25);
  EXPECT_TRUE(std::isnan(metric_value_double(Value::null('i'))));
  for (const unsigned type : {0U, 16U, 32U, 48U, 72U, 104U, 115U, 120U}) {
    EXPECT_TRUE(std::isnan(metric_value_double(Value::raw(type)))) << type;
  }
}

TEST(MetricValueDouble, RoundsUnsigned64ByHalvingWithTheLowBit) {
  const unsigned seed = 7;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (const uint64_t v :
       {uint64_t{0}, uint64_t{INT64_MAX}, uint64_t{1} << 63, (uint64_t{1} << 63) + 1024,
        (uint64_t{1} << 63) + 1025, (uint64_t{1} << 63) + 3072, UINT64_MAX, UINT64_MAX - 1024}) {
    EXPECT_EQ(metric_value_double(Value::L(v)), halve_convert_double(v)) << v;
  }
  for (int round = 0; round < 100000; ++round) {
    const uint64_t v = random() | uint64_t{1} << 63;
    ASSERT_EQ(metric_value_double(Value::L(v)), halve_convert_double(v)) << v;
  }
}

// ---- Fatal uses of the accessors

class MetricValueDeathTest : public testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    orollup_error_ls = ruxo_error;
  }
};

TEST_F(MetricValueDeathTest, UnknownTypesAreFatal) {
  EXPECT_DEATH(metric_value_is_negative(Value::raw('s')), "\\[FATAL\\] Unknown type: 0x0073");
  EXPECT_DEATH(metric_value_uint64(Value::n(1)), "\\[FATAL\\] Unknown type: 0x006e");
  EXPECT_DEATH(metric_value_int64(Value::L(1)), "\\[FATAL\\] Unknown type: 0x004c");
  EXPECT_DEATH(metric_value_int64(Value::raw(0)), "\\[FATAL\\] Unknown type: 0x0000");
}

TEST_F(MetricValueDeathTest, NullValuesHaveNoInteger) {
  EXPECT_DEATH(metric_value_uint64(Value::null('L')), "\\[FATAL\\] Unknown type: 0x004c");
  EXPECT_DEATH(metric_value_int64(Value::null('i')), "\\[FATAL\\] Unknown type: 0x0069");
}

TEST_F(MetricValueDeathTest, NegativeValuesHaveNoUnsignedForm) {
  EXPECT_DEATH(
      metric_value_uint64(Value::i(-1)),
      "\\[FATAL\\] assertion \\(v->storage\\.v_int32 >= 0\\) at orollupd/rollup\\.cpp:[0-9]+ failed");
  EXPECT_DEATH(
      metric_value_uint64(Value::l(-1)),
      "\\[FATAL\\] assertion \\(v->storage\\.v_int64 >= 0\\) at orollupd/rollup\\.cpp:[0-9]+ failed");
}

// ---- Start-up

namespace {

int start_rollup() {
  liborlith_private_nan_double = 0.0;
  ruxo_log_stream_t debug_ls = ruxo_log_stream_new("debug/orollup");
  orollupd_rollup_init();
  const bool streams = orollup_debug_ls == debug_ls && orollup_error_ls == ruxo_error;
  orollup_debug_ls = nullptr;
  orollupd_rollup_init();
  return streams && orollup_debug_ls == nullptr && std::isnan(liborlith_private_nan_double) ? 0 : 1;
}

}  // namespace

TEST(RollupInitDeathTest, OpensStreamsAndMakesTheNanOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit(start_rollup()), testing::ExitedWithCode(0), "");
}

// ---- Ignored extensions

TEST(IgnoredExtensions, AreWhatFollowsTheLastColon) {
  store_extension_to_ignore("bytes");
  store_extension_to_ignore("bytes");
  store_extension_to_ignore("");
  EXPECT_TRUE(rollup::has_ignored_extension("cpu:bytes"));
  EXPECT_TRUE(rollup::has_ignored_extension("a:b:bytes"));
  EXPECT_TRUE(rollup::has_ignored_extension(":bytes"));
  EXPECT_FALSE(rollup::has_ignored_extension("bytes")) << "no colon, no extension";
  EXPECT_FALSE(rollup::has_ignored_extension("cpu:bytes:"));
  EXPECT_FALSE(rollup::has_ignored_extension("cpu:"));
  EXPECT_FALSE(rollup::has_ignored_extension("cpu:byte"));
  EXPECT_FALSE(rollup::has_ignored_extension("cpu:bytes2"));
  EXPECT_FALSE(rollup::has_ignored_extension(""));
}
