// Where the bins lie: powers of ten, bin borders as doubles, and the code that orders buckets. Internal to the library.
#ifndef VASKLLHIST_DECIMAL_PRIVATE_H
#define VASKLLHIST_DECIMAL_PRIVATE_H

#include <array>
#include <cstdint>

#include "vaskllhist/vaskllhist.h"

namespace vaskllhist {

// A bucket as one number that orders buckets by value. For a positive bucket it is 0x8000 plus 128 (exp + 128) plus
// val; a negative one has the complement of its mirror image; zero lies between them and no number behind all.
// The upper 9 bits are the page of the code: buckets of one sign and exponent share one.
using Code = uint16_t;
constexpr Code kZeroCode = 0x8000;
constexpr Code kNoNumberCode = 0xffff;
constexpr unsigned kPageBits = 7;
constexpr unsigned kPageSize = 1U << kPageBits;
constexpr unsigned kPages = 0x10000U >> kPageBits;

constexpr hist_bucket_t kZeroBucket = {0, 0};
constexpr hist_bucket_t kNoNumberBucket = {-1, 0};

constexpr int kMinExponent = -128;
constexpr int kMaxExponent = 127;
constexpr unsigned kMinMantissa = 10;
constexpr unsigned kMaxMantissa = 99;

constexpr Code positive_code(unsigned decade, unsigned mantissa) {
  return static_cast<Code>(0x8000U | decade << kPageBits | mantissa);
}

// The mirror image at zero; of no use for zero itself.
constexpr Code negated(Code code) {
  return static_cast<Code>(~code);
}

// The bucket must be valid.
Code code_of(hist_bucket_t bucket) noexcept;
// The code must be one that code_of gives: is_code(code).
hist_bucket_t bucket_of(Code code) noexcept;
bool is_code(Code code) noexcept;

// The code of the bin of a value, and of value * 10^scale.
Code code_of_value(double value) noexcept;
Code code_of_scaled(int64_t value, int scale) noexcept;

// What stands for the values of a bucket: its middle. NaN for no number.
double midpoint_of(Code code) noexcept;

}  // namespace vaskllhist

#endif
