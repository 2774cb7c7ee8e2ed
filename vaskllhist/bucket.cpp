// The exported functions of buckets.
#include <cmath>
#include <limits>

#include "vaskllhist/decimal_private.h"
#include "vaskllhist/powers_private.h"

namespace {

// The border on the side of zero, or the one away from it, as a positive number.
double inner_border(hist_bucket_t bucket) {
  return vaskllhist::quick_multiple_of_power(static_cast<unsigned>(std::abs(bucket.val)), bucket.exp - 1);
}

double outer_border(hist_bucket_t bucket) {
  return vaskllhist::quick_multiple_of_power(static_cast<unsigned>(std::abs(bucket.val)) + 1, bucket.exp - 1);
}

bool is_number(hist_bucket_t bucket) {
  return hist_bucket_is_valid(bucket) && bucket.val != vaskllhist::kNoNumberBucket.val;
}

constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

}  // namespace

hist_bucket_t hist_bucket_of(double value) {
  return vaskllhist::bucket_of(vaskllhist::code_of_value(value));
}

hist_bucket_t hist_bucket_of_scaled(int64_t value, int scale) {
  return vaskllhist::bucket_of(vaskllhist::code_of_scaled(value, scale));
}

bool hist_bucket_is_valid(hist_bucket_t bucket) {
  if (bucket.val == vaskllhist::kZeroBucket.val || bucket.val == vaskllhist::kNoNumberBucket.val)
    return bucket.exp == 0;
  const int magnitude = std::abs(bucket.val);
  return static_cast<int>(vaskllhist::kMinMantissa) <= magnitude &&
         magnitude <= static_cast<int>(vaskllhist::kMaxMantissa);
}

int hist_bucket_compare(hist_bucket_t a, hist_bucket_t b) {
  constexpr int behind_all = 0x10000;
  const int left = hist_bucket_is_valid(a) ? vaskllhist::code_of(a) : behind_all;
  const int right = hist_bucket_is_valid(b) ? vaskllhist::code_of(b) : behind_all;
  return left - right;
}

double hist_bucket_lower(hist_bucket_t bucket) {
  if (!is_number(bucket)) return kNotANumber;
  if (bucket.val == 0) return 0;
  return bucket.val > 0 ? inner_border(bucket) : -outer_border(bucket);
}

double hist_bucket_upper(hist_bucket_t bucket) {
  if (!is_number(bucket)) return kNotANumber;
  if (bucket.val == 0) return 0;
  return bucket.val > 0 ? outer_border(bucket) : -inner_border(bucket);
}

double hist_bucket_midpoint(hist_bucket_t bucket) {
  return is_number(bucket) ? vaskllhist::midpoint_of(vaskllhist::code_of(bucket)) : kNotANumber;
}
