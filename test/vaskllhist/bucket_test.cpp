// The bin of a value, exactly: against the shortest decimal text of doubles, and against the digits of integers.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "test/vaskllhist/histogram_support.h"

namespace {

using namespace hist_test;

TEST(Bucket, LiteralsLieWhereTheyRead) {
  const std::vector<std::pair<double, hist_bucket_t>> cases = {
      {1, bucket(10, 0)},         {0.1, bucket(10, -1)},      {0.12, bucket(12, -1)},
      {1.1, bucket(11, 0)},       {9.9, bucket(99, 0)},       {9.99, bucket(99, 0)},
      {10, bucket(10, 1)},        {17.3, bucket(17, 1)},      {99, bucket(99, 1)},
      {99.9, bucket(99, 1)},      {100, bucket(10, 2)},       {0.29, bucket(29, -1)},
      {0.57, bucket(57, -1)},     {1.005, bucket(10, 0)},     {4.35, bucket(43, 0)},
      {1e-128, bucket(10, -128)}, {9.9e127, bucket(99, 127)}, {1e23, bucket(10, 23)},
      {8.5e22, bucket(85, 22)},   {9.5e21, bucket(95, 21)},   {123456789, bucket(12, 8)},
  };
  for (const auto &[value, expected] : cases) {
    EXPECT_EQ(hist_bucket_of(value), expected) << value;
    EXPECT_EQ(hist_bucket_of(-value), bucket(-expected.val, expected.exp)) << -value;
  }
}

TEST(Bucket, BothEndsOfTheRange) {
  const hist_bucket_t zero = bucket(0, 0), no_number = bucket(-1, 0);
  for (const double sign : {1.0, -1.0}) {
    EXPECT_EQ(hist_bucket_of(sign * 0.0), zero);
    EXPECT_EQ(hist_bucket_of(sign * 5e-324), zero);
    EXPECT_EQ(hist_bucket_of(sign * 2.2e-308), zero);
    EXPECT_EQ(hist_bucket_of(sign * 9.9e-129), zero);
    EXPECT_EQ(hist_bucket_of(sign * std::nextafter(1e-128, 0)), zero);
    EXPECT_EQ(hist_bucket_of(std::nextafter(sign * 1e128, 0)), bucket(sign > 0 ? 99 : -99, 127));
    EXPECT_EQ(hist_bucket_of(sign * 1e128), no_number);
    EXPECT_EQ(hist_bucket_of(sign * std::numeric_limits<double>::max()), no_number);
    EXPECT_EQ(hist_bucket_of(sign * kInfinity), no_number);
    EXPECT_EQ(hist_bucket_of(std::copysign(kNan, sign)), no_number);
  }
  EXPECT_EQ(hist_bucket_of(std::bit_cast<double>(uint64_t{0x7ff0000000000001})),
            no_number);  // a signalling NaN
}

void expect_as_text(double value) {
  for (const double signed_value : {value, -value})
    ASSERT_EQ(hist_bucket_of(signed_value), bucket_by_text(signed_value)) << std::hexfloat << signed_value;
}

// Within a power of two and a decade the bin can only grow with the value. So these cases prove every other one: all
// borders and powers of two, with their neighbours on both sides.
TEST(Bucket, EveryBorderIsExact) {
  for (int exp = -128; exp <= 127; ++exp) {
    for (int val = 10; val <= 100; ++val) {
      const double border = border_by_text(val, exp);
      expect_as_text(border);
      expect_as_text(std::nextafter(border, 0));
      expect_as_text(std::nextafter(border, kInfinity));
      if (val == 100) continue;
      ASSERT_EQ(hist_bucket_of(border), bucket(val, exp));
    }
  }
  for (int power = -1074; power <= 1023; ++power) {
    const double border = std::ldexp(1.0, power);
    expect_as_text(border);
    expect_as_text(std::nextafter(border, 0));
    expect_as_text(std::nextafter(border, kInfinity));
  }
}

TEST(Bucket, RandomValuesLieWhereTheirTextReads) {
  std::mt19937_64 random(17);
  for (int i = 0; i < 1000000; ++i) {
    const uint64_t bits = random();
    expect_as_text(std::bit_cast<double>(bits));               // of any magnitude
    expect_as_text(static_cast<double>(bits >> (bits & 63)));  // integers
    expect_as_text(static_cast<double>(bits >> 44) / 1000);    // with three decimals
    if (HasFatalFailure()) FAIL() << "at value " << i;
  }
}

// The same through the C library's exact digits: as many as a double can ever have are cut off after two. A border that
// lies between two doubles is what sets the two apart, so borders are left out.
TEST(Bucket, ExactDigitsAgreeAwayFromBorders) {
  std::mt19937_64 random(18);
  char text[1200];
  for (int i = 0; i < 20000; ++i) {
    const double value = std::pow(10.0, std::uniform_real_distribution<double>(-128, 128)(random));
    const hist_bucket_t actual = hist_bucket_of(value);
    if (value == hist_bucket_lower(actual)) continue;
    std::snprintf(text, sizeof(text), "%.1100e", value);
    const int val = (text[0] - '0') * 10 + (text[2] - '0');
    ASSERT_EQ(actual, bucket(val, std::atoi(std::strchr(text, 'e') + 1))) << value;
  }
}

TEST(Bucket, BoundsAndMidpointsAreTheNearestDoubles) {
  for (int exp = -128; exp <= 127; ++exp) {
    for (int val = 10; val <= 99; ++val) {
      const double lower = border_by_text(val, exp), upper = border_by_text(val + 1, exp);
      const double middle = border_by_text(val * 10 + 5, exp - 1);
      ASSERT_EQ(hist_bucket_lower(bucket(val, exp)), lower);
      ASSERT_EQ(hist_bucket_upper(bucket(val, exp)), upper);
      ASSERT_EQ(hist_bucket_midpoint(bucket(val, exp)), middle);
      ASSERT_EQ(hist_bucket_lower(bucket(-val, exp)), -upper);
      ASSERT_EQ(hist_bucket_upper(bucket(-val, exp)), -lower);
      ASSERT_EQ(hist_bucket_midpoint(bucket(-val, exp)), -middle);
    }
  }
}

TEST(Bucket, ZeroHasNoWidthAndNoNumberNoBounds) {
  EXPECT_EQ(hist_bucket_lower(bucket(0, 0)), 0);
  EXPECT_EQ(hist_bucket_upper(bucket(0, 0)), 0);
  EXPECT_EQ(hist_bucket_midpoint(bucket(0, 0)), 0);
  for (const hist_bucket_t none : {bucket(-1, 0), bucket(5, 0), bucket(100, 0), bucket(0, 1)}) {
    EXPECT_TRUE(std::isnan(hist_bucket_lower(none))) << none;
    EXPECT_TRUE(std::isnan(hist_bucket_upper(none))) << none;
    EXPECT_TRUE(std::isnan(hist_bucket_midpoint(none))) << none;
  }
}

TEST(Bucket, ThereAreAsManyAsTheHeaderSays) {
  int valid = 0;
  for (int val = -128; val <= 127; ++val)
    for (int exp = -128; exp <= 127; ++exp) valid += hist_bucket_is_valid(bucket(val, exp)) ? 1 : 0;
  EXPECT_EQ(valid, HIST_MAX_BUCKETS);
  for (const int val : {-128, -100, -9, -2, 1, 9, 100, 127})
    EXPECT_FALSE(hist_bucket_is_valid(bucket(val, 0)));
  for (const int val : {-99, -10, -1, 0, 10, 99}) EXPECT_TRUE(hist_bucket_is_valid(bucket(val, 0)));
  EXPECT_FALSE(hist_bucket_is_valid(bucket(0, 1)));
  EXPECT_FALSE(hist_bucket_is_valid(bucket(-1, -1)));
}

TEST(Bucket, OrderIsThatOfValue) {
  const std::vector<hist_bucket_t> ascending = {
      bucket(-99, 127), bucket(-10, 127),  bucket(-99, 126), bucket(-11, 0),   bucket(-10, 0),
      bucket(-99, -1),  bucket(-10, -128), bucket(0, 0),     bucket(10, -128), bucket(99, -128),
      bucket(10, -127), bucket(10, 0),     bucket(99, 127),  bucket(-1, 0),    bucket(5, 0)};
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t k = 0; k < ascending.size(); ++k) {
      const int order = hist_bucket_compare(ascending[i], ascending[k]);
      EXPECT_EQ(order < 0, i < k) << ascending[i] << ascending[k];
      EXPECT_EQ(order > 0, i > k) << ascending[i] << ascending[k];
    }
  }
  EXPECT_EQ(hist_bucket_compare(bucket(5, 0), bucket(0, 7)), 0) << "what is no bucket has no order";
}

// The model of a scaled integer: its decimal digits.
hist_bucket_t bucket_by_digits(int64_t value, int64_t scale) {
  std::string digits = std::to_string(value);
  const bool negative = digits[0] == '-';
  if (negative) digits.erase(0, 1);
  if (digits == "0") return bucket(0, 0);
  const int64_t exp = static_cast<int64_t>(digits.size()) - 1 + scale;
  if (exp < -128) return bucket(0, 0);
  if (exp > 127) return bucket(-1, 0);
  const int val = std::stoi((digits + "0").substr(0, 2));
  return bucket(negative ? -val : val, static_cast<int>(exp));
}

TEST(Bucket, ScaledIntegersLieWhereTheirDigitsRead) {
  std::vector<int64_t> values = {0, INT64_MIN, INT64_MIN + 1, INT64_MAX};
  for (int64_t power = 1; power <= INT64_MAX / 10; power *= 10) {
    for (const int64_t near : {power - 1, power, power + 1}) {
      values.push_back(near);
      values.push_back(-near);
    }
  }
  std::mt19937_64 random(19);
  for (int i = 0; i < 200000; ++i) {
    const uint64_t bits = random();
    values.push_back(static_cast<int64_t>(bits) >> (bits & 63));
  }
  for (const int64_t value : values) {
    for (const int scale : {0, -3, -6, 9, 110, 127, 128, -128, -147, INT32_MAX, INT32_MIN})
      ASSERT_EQ(hist_bucket_of_scaled(value, scale), bucket_by_digits(value, scale)) << value << " " << scale;
  }
}

TEST(Bucket, EveryBucketHoldsItsMidpointAndIncludedBound) {
  for (int exp = -128; exp <= 127; ++exp) {
    for (int val = 10; val <= 99; ++val) {
      const hist_bucket_t positive = bucket(val, exp), negative = bucket(-val, exp);
      ASSERT_EQ(hist_bucket_of(hist_bucket_midpoint(positive)), positive);
      ASSERT_EQ(hist_bucket_of(hist_bucket_lower(positive)), positive);
      ASSERT_EQ(hist_bucket_of(hist_bucket_midpoint(negative)), negative);
      ASSERT_EQ(hist_bucket_of(hist_bucket_upper(negative)), negative);
      ASSERT_FALSE(hist_bucket_of(hist_bucket_upper(positive)) == positive);
      ASSERT_FALSE(hist_bucket_of(hist_bucket_lower(negative)) == negative);
    }
  }
}

}  // namespace
