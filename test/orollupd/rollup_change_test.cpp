#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "liborlith/orollupd/rollup.h"
#include "test/orollupd/naive_folding.h"
#include "test/support/log_capture.h"
#include "test/support/values.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct Change {
  Change(const Value &from, const Value &to) {
    calculate_change(from, to, &dy, &dt_ms);
    double inline_dy = 0;
    int inline_dt_ms = 0;
    calculate_change_inline(from, to, &inline_dy, &inline_dt_ms);
    EXPECT_EQ(std::bit_cast<uint64_t>(inline_dy), std::bit_cast<uint64_t>(dy));
    EXPECT_EQ(inline_dt_ms, dt_ms);
  }
  double dy = 0;
  int dt_ms = 0;
};

// A slot being filled, with the state that its caller keeps.
struct Slot {
  ~Slot() { free(last); }
  Slot() = default;
  Slot(const Slot &) = delete;
  Slot &operator=(const Slot &) = delete;

  Slot &add(const Value &sample) {
    add_data_to_bucket(sample, &last, &bucket, &drun, &crun);
    return *this;
  }

  nnt_multitype bucket{};
  metric_value_t *last = nullptr;
  int drun = 0;
  int crun = 0;
};

// A slot's bytes and its caller's state, to show that a call changed nothing.
std::vector<unsigned char> snapshot(const Slot &slot) {
  std::vector<unsigned char> bytes(sizeof slot.bucket + sizeof *slot.last + 2 * sizeof(int));
  unsigned char *at = bytes.data();
  memcpy(at, &slot.bucket, sizeof slot.bucket);
  if (slot.last != nullptr) memcpy(at + sizeof slot.bucket, slot.last, sizeof *slot.last);
  memcpy(at + sizeof slot.bucket + sizeof *slot.last, &slot.drun, sizeof(int));
  memcpy(at + sizeof slot.bucket + sizeof *slot.last + sizeof(int), &slot.crun, sizeof(int));
  return bytes;
}

}  // namespace

// ---- Change

TEST(CalculateChange, TimeIsTakenModulo32Bits) {
  EXPECT_EQ(Change(Value::i(1).at(1000), Value::i(1).at(1500)).dt_ms, 500);
  EXPECT_EQ(Change(Value::i(1).at(1500), Value::i(1).at(1000)).dt_ms, -500);
  EXPECT_EQ(Change(Value::i(1).at(0), Value::i(1).at(uint64_t{1} << 31)).dt_ms, INT_MIN);
  EXPECT_EQ(Change(Value::i(1).at(7), Value::i(1).at((uint64_t{1} << 32) + 12)).dt_ms, 5);
  EXPECT_EQ(Change(Value::null('i').at(1), Value::i(1).at(3)).dt_ms, 2) << "set even without a change";
}

TEST(CalculateChange, SignedDifferencesAreExact) {
  EXPECT_EQ(Change(Value::i(INT32_MIN), Value::i(INT32_MAX)).dy, 4294967295.0);
  EXPECT_EQ(Change(Value::I(10), Value::i(-5)).dy, -15.0);
  EXPECT_EQ(Change(Value::l(INT64_MAX), Value::l(INT64_MAX - 1)).dy, -1.0);
  EXPECT_EQ(Change(Value::l(INT64_MAX - 1), Value::l(INT64_MAX)).dy, 1.0) << "doubles alone would give 0";
}

TEST(CalculateChange, ASignedOverflowFallsBackToDoubles) {
  EXPECT_EQ(Change(Value::l(INT64_MIN), Value::l(1)).dy, 1.0 - -9223372036854775808.0);
  EXPECT_EQ(Change(Value::l(1), Value::l(INT64_MIN)).dy, -9223372036854775808.0 - 1.0);
  EXPECT_EQ(Change(Value::l(INT64_MIN), Value::l(INT64_MAX)).dy, 18446744073709551616.0);
}

TEST(CalculateChange, UnsignedDifferencesUse64Bits) {
  EXPECT_EQ(Change(Value::L(0), Value::L(UINT64_MAX)).dy, 18446744073709551615.0);
  EXPECT_EQ(Change(Value::L(UINT64_MAX), Value::L(UINT64_MAX - 3)).dy, -3.0);
  EXPECT_EQ(Change(Value::L(UINT64_MAX - 1), Value::L(UINT64_MAX)).dy, 1.0);
  EXPECT_EQ(Change(Value::L(UINT64_MAX), Value::L(0)).dy, -18446744073709551615.0) << "by doubles";
  EXPECT_EQ(Change(Value::L(uint64_t{1} << 63), Value::L(0)).dy, -9223372036854775808.0);
}

TEST(CalculateChange, OneUnsigned64WithANegativeValueUsesDoubles) {
  EXPECT_EQ(Change(Value::i(-1), Value::L(5)).dy, 6.0);
  EXPECT_EQ(Change(Value::L(UINT64_MAX), Value::l(-1)).dy, -1.0 - 18446744073709551615.0);
  EXPECT_EQ(Change(Value::L(5), Value::l(7)).dy, 2.0) << "both not negative: exact";
  EXPECT_EQ(Change(Value::L(5), Value::I(7)).dy, 2.0);
}

TEST(CalculateChange, ADoubleOnEitherSideUsesDoubles) {
  EXPECT_EQ(Change(Value::n(0.5), Value::i(2)).dy, 1.5);
  EXPECT_EQ(Change(Value::L(UINT64_MAX), Value::n(0)).dy, -18446744073709551615.0);
  EXPECT_TRUE(std::isnan(Change(Value::n(kNan), Value::n(1)).dy));
  EXPECT_TRUE(std::isnan(Change(Value::n(1), Value::raw('h')).dy));
}

TEST(CalculateChange, NullValuesAreLoggedAndGiveNan) {
  LogCapture log(&orollup_error_ls);
  double dy = 0;
  int dt = 0;
  calculate_change(Value::null('i'), Value::i(1), &dy, &dt);
  EXPECT_TRUE(std::isnan(dy));
  calculate_change(Value::i(1), Value::null('x'), &dy, &dt);
  calculate_change(Value::null('s'), Value::null('n'), &dy, &dt);
  EXPECT_THAT(log.lines(), ElementsAre("calculate_change on null metric, lhs is_null? 1; rhs is_null? 0.\n",
                                       "calculate_change on null metric, lhs is_null? 0; rhs is_null? 1.\n",
                                       "calculate_change on null metric, lhs is_null? 1; rhs is_null? 1.\n"));
}

TEST(CalculateChange, AbsentAndTextValuesGiveNanInSilence) {
  LogCapture log(&orollup_error_ls);
  EXPECT_TRUE(std::isnan(Change(Value::raw(0), Value::i(1)).dy));
  EXPECT_TRUE(std::isnan(Change(Value::n(1), Value::raw('s')).dy));
  EXPECT_TRUE(std::isnan(Change(Value::raw('s'), Value::raw('s')).dy));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(CalculateChangeDeathTest, AHistogramIsNoInteger) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  orollup_error_ls = ruxo_error;
  EXPECT_DEATH(Change(Value::i(1), Value::raw('h')), "\\[FATAL\\] Unknown type: 0x0068");
}

TEST(CalculateChange, AgreesWithExactArithmetic) {
  const unsigned seed = 161803;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const uint64_t edges[] = {
      0, 1, INT32_MAX, UINT32_MAX, uint64_t{1} << 53, INT64_MAX, uint64_t{1} << 63, UINT64_MAX};
  const auto any_value = [&] {
    const uint64_t bits =
        random() % 2 == 0 ? edges[random() % std::size(edges)] + random() % 5 - 2 : random() >> random() % 64;
    Value v = Value::raw(static_cast<unsigned>("iIlLn"[random() % 5]));
    v.value.storage.v_uint64 = bits;
    if (v.value.type == 'n') v.value.storage.v_double = static_cast<double>(static_cast<int64_t>(bits)) / 8;
    if (v.value.type == 'i' || v.value.type == 'I') v.value.storage.v_uint64 = bits & UINT32_MAX;
    return v;
  };
  for (int round = 0; round < 300000; ++round) {
    const Value from = any_value();
    const Value to = any_value();
    ASSERT_EQ(Change(from, to).dy, naive_change(from.value, to.value))
        << static_cast<char>(from.value.type) << from.value.storage.v_uint64 << " to "
        << static_cast<char>(to.value.type) << to.value.storage.v_uint64;
  }
}

// ---- Folding

TEST(AddDataToBucket, TheFirstSampleIsTheSlot) {
  const struct {
    Value sample;
    nnt_type_t type;
    uint64_t bits;
  } cases[] = {{Value::I(7), NNT_TYPE_UINT32, 7},
               {Value::i(-1), NNT_TYPE_INT32, UINT32_MAX},
               {Value::L(UINT64_MAX), NNT_TYPE_UINT64, UINT64_MAX},
               {Value::l(-2), NNT_TYPE_INT64, UINT64_MAX - 1},
               {Value::n(1.0), NNT_TYPE_DOUBLE, 0x3FF0000000000000}};
  for (const auto &test : cases) {
    Slot slot;
    slot.add(test.sample.at(60000));
    EXPECT_EQ(slot.bucket.type, test.type);
    EXPECT_EQ(slot.bucket.count, 1U);
    EXPECT_EQ(slot.bucket.value.v_uint64, test.bits);
    EXPECT_EQ(slot.bucket.stddev_present, 0);
    for (const float part :
         {slot.bucket.stddev, slot.bucket.min, slot.bucket.max, slot.bucket.derivative,
          slot.bucket.derivative_stddev, slot.bucket.counter, slot.bucket.counter_stddev}) {
      EXPECT_EQ(part, 0.0F) << "the rest is as it was";
    }
    ASSERT_NE(slot.last, nullptr);
    EXPECT_EQ(slot.last->type, test.sample.value.type);
    EXPECT_EQ(slot.last->whence_ms, 60000U);
    EXPECT_FALSE(slot.last->is_null);
    EXPECT_EQ(slot.last->storage.v_uint64, test.sample.value.storage.v_uint64);
    EXPECT_EQ(slot.drun, 0);
    EXPECT_EQ(slot.crun, 0);
  }
}

// Worked by hand: 100 at 0 s, 160 at 60 s, 130 at 90 s.
TEST(AddDataToBucket, FoldsLaterSamplesWithTheirRates) {
  Slot slot;
  slot.add(Value::L(100).at(0)).add(Value::L(160).at(60000));
  EXPECT_EQ(slot.bucket.type, NNT_TYPE_UINT64);
  EXPECT_EQ(slot.bucket.value.v_uint64, 130U);
  EXPECT_EQ(slot.bucket.count, 2U);
  EXPECT_EQ(slot.bucket.stddev_present, 1);
  EXPECT_EQ(slot.bucket.stddev, 30.0F);
  EXPECT_EQ(slot.bucket.derivative, 1.0F);
  EXPECT_EQ(slot.bucket.derivative_stddev, 0.0F);
  EXPECT_EQ(slot.bucket.counter, 1.0F);
  EXPECT_EQ(slot.drun, 60000);
  EXPECT_EQ(slot.crun, 60000);

  slot.add(Value::L(130).at(90000));
  EXPECT_EQ(slot.bucket.value.v_uint64, 130U);
  EXPECT_EQ(slot.bucket.count, 3U);
  EXPECT_FLOAT_EQ(slot.bucket.stddev, 24.494897F);              // the root of 600
  EXPECT_FLOAT_EQ(slot.bucket.derivative, 1.0F / 3);            // 60 s of 1 and 30 s of -1
  EXPECT_FLOAT_EQ(slot.bucket.derivative_stddev, 0.94280904F);  // the root of 8/9
  EXPECT_EQ(slot.bucket.counter, 1.0F) << "a counter never goes backwards";
  EXPECT_EQ(slot.drun, 90000);
  EXPECT_EQ(slot.crun, 60000);
  EXPECT_EQ(slot.last->whence_ms, 90000U);
  EXPECT_EQ(slot.last->storage.v_uint64, 130U);
}

TEST(AddDataToBucket, AnAbsentSlotTakesTheWholeSample) {
  Slot first;
  first.add(Value::i(10).at(0));
  Slot next;  // a new slot of the same metric
  std::swap(next.last, first.last);
  next.add(Value::i(4).at(2000));
  EXPECT_EQ(next.bucket.type, NNT_TYPE_INT32);
  EXPECT_EQ(next.bucket.count, 1U);
  EXPECT_EQ(next.bucket.value.v_int32, 4);
  EXPECT_EQ(next.bucket.derivative, -3.0F);
  EXPECT_TRUE(std::isnan(next.bucket.counter));
  EXPECT_EQ(next.bucket.stddev, 0.0F);
  EXPECT_EQ(next.bucket.stddev_present, 1);
  EXPECT_EQ(next.bucket.derivative_stddev, 0.0F);
  EXPECT_EQ(next.bucket.counter_stddev, 0.0F);
  for (const float part : {next.bucket.min, next.bucket.max, next.bucket.derivative_min,
                           next.bucket.derivative_max, next.bucket.counter_min, next.bucket.counter_max}) {
    EXPECT_TRUE(std::isnan(part));
  }
  EXPECT_EQ(next.drun, 2000);
  EXPECT_EQ(next.crun, 0);
}

TEST(AddDataToBucket, ANullSampleChangesNothing) {
  Slot slot;
  slot.add(Value::null('L').at(1));
  EXPECT_EQ(slot.last, nullptr);
  slot.add(Value::L(1).at(2)).add(Value::L(2).at(1002));
  const auto before = snapshot(slot);
  slot.add(Value::null('L').at(5000)).add(Value::null('x').at(6000));
  EXPECT_EQ(snapshot(slot), before);
}

TEST(AddDataToBucket, ATextSampleAfterTheFirstChangesNothing) {
  LogCapture log(&orollup_error_ls);
  Slot slot;
  slot.add(Value::L(1).at(2));
  const auto before = snapshot(slot);
  slot.add(Value::raw('s').at(5000)).add(Value::raw(0).at(6000));
  EXPECT_EQ(snapshot(slot), before);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(AddDataToBucketDeathTest, AFirstSampleThatIsNoNumberIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  orollup_error_ls = ruxo_error;
  Slot slot;
  EXPECT_DEATH(slot.add(Value::raw('s')), "\\[FATAL\\] Unknown type: 0x0073");
  EXPECT_DEATH(slot.add(Value::raw(0)), "\\[FATAL\\] Unknown type: 0x0000");
}

TEST(AddDataToBucketDeathTest, ALaterHistogramIsFatalUnlessItFollowsADouble) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  orollup_error_ls = ruxo_error;
  Slot after_integer, after_double;
  after_integer.add(Value::i(1).at(1000));
  EXPECT_DEATH(after_integer.add(Value::raw('h').at(2000)), "\\[FATAL\\] Unknown type: 0x0068");
  after_double.add(Value::n(1).at(1000));
  const auto before = snapshot(after_double);
  after_double.add(Value::raw('h').at(2000));
  EXPECT_EQ(snapshot(after_double), before);
}

TEST(AddDataToBucket, ASampleThatIsNotLaterHasNoRate) {
  for (const uint64_t whence_ms : {uint64_t{60000}, uint64_t{1}, uint64_t{60000} + (uint64_t{1} << 31)}) {
    Slot slot;
    slot.add(Value::L(100).at(60000)).add(Value::L(200).at(whence_ms));
    EXPECT_EQ(slot.bucket.count, 2U);
    EXPECT_EQ(slot.bucket.value.v_uint64, 150U) << "it counts for the value";
    EXPECT_EQ(slot.bucket.derivative, 0.0F) << "and leaves the rates alone";
    EXPECT_EQ(slot.drun, 0);
    EXPECT_EQ(slot.crun, 0);
    EXPECT_EQ(slot.last->whence_ms, whence_ms);
  }
}

TEST(AddDataToBucket, ANullPredecessorIsLoggedAndGivesNoRate) {
  LogCapture log(&orollup_error_ls);
  Slot slot;
  slot.add(Value::L(100).at(0));
  slot.last->is_null = true;
  slot.add(Value::L(200).at(1000));
  EXPECT_THAT(log.lines(), ElementsAre("calculate_change on null metric, lhs is_null? 1; rhs is_null? 0.\n"));
  EXPECT_TRUE(std::isnan(slot.bucket.derivative));
  EXPECT_EQ(slot.drun, 1000);
  EXPECT_EQ(slot.crun, 0);
  EXPECT_FALSE(slot.last->is_null) << "the new predecessor is the sample";
}

TEST(AddDataToBucket, RatesArePerSecond) {
  Slot slot;
  slot.add(Value::n(1.5).at(1000)).add(Value::n(2.0).at(1250));
  EXPECT_EQ(slot.bucket.derivative, 2.0F);
  EXPECT_EQ(slot.bucket.counter, 2.0F);
}

TEST(AddDataToBucket, ANanStddevBecomesZero) {
  Slot slot;
  slot.add(Value::n(std::numeric_limits<double>::infinity()).at(0)).add(Value::n(-1).at(1000));
  EXPECT_EQ(slot.bucket.stddev, 0.0F);
  EXPECT_EQ(slot.bucket.stddev_present, 1);
}

TEST(AddDataToBucket, WeightsAndCountSaturate) {
  Slot slot;
  slot.add(Value::L(1).at(0));
  slot.bucket.count = UINT32_MAX;
  slot.drun = INT_MAX - 10;
  slot.crun = INT_MAX;
  slot.add(Value::L(2).at(1000));
  EXPECT_EQ(slot.bucket.count, uint32_t{INT_MAX});
  EXPECT_EQ(slot.drun, INT_MAX);
  EXPECT_EQ(slot.crun, INT_MAX);
  EXPECT_FALSE(std::isnan(slot.bucket.derivative));
}

TEST(AddDataToBucket, AgreesWithFoldingInLongHand) {
  const unsigned seed = 577215;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int run = 0; run < 2000; ++run) {
    Slot slot;
    NaiveSlot naive;
    Value previous = Value::raw(0);
    const unsigned letter = static_cast<unsigned>("iIlLn"[random() % 5]);
    const auto any_sample = [&](uint64_t whence_ms) {
      Value v = Value::raw(letter).at(whence_ms);
      v.value.storage.v_uint64 = random() % 1000;
      if (letter == 'l') v.value.storage.v_int64 -= 500;
      if (letter == 'i') v.value.storage.v_int32 = static_cast<int32_t>(random() % 1000) - 500;
      if (letter == 'n') v.value.storage.v_double = static_cast<double>(random() % 100000) / 64 - 700;
      return v;
    };
    uint64_t now_ms = 1700000000000 + random() % 300000;
    previous = any_sample(now_ms);
    slot.add(previous);
    naive = {.absent = false, .number = naive_double(previous.value), .count = 1};
    for (uint64_t samples = 2 + random() % 20; samples > 0; --samples) {
      now_ms += random() % 8 == 0 ? 0 : random() % 60000;
      if (random() % 10 == 0) {  // a new slot of the same metric
        slot.bucket = {};
        slot.drun = slot.crun = 0;
        naive = {};
      }
      const Value sample = any_sample(now_ms);
      slot.add(sample);
      naive_fold(naive, previous.value, sample.value);
      previous = sample;
      ASSERT_EQ(number_of(slot.bucket), naive.number);
      ASSERT_EQ(slot.bucket.count, static_cast<uint32_t>(naive.count));
      ASSERT_EQ(slot.bucket.stddev, naive.stddev);
      for (const auto &[real, model] : {std::pair{slot.bucket.derivative, naive.derivative},
                                        {slot.bucket.derivative_stddev, naive.derivative_stddev},
                                        {slot.bucket.counter, naive.counter},
                                        {slot.bucket.counter_stddev, naive.counter_stddev}}) {
        ASSERT_TRUE(real == model || (std::isnan(real) && std::isnan(model))) << real << " " << model;
      }
      ASSERT_EQ(slot.drun, naive.drun);
      ASSERT_EQ(slot.crun, naive.crun);
    }
  }
}
