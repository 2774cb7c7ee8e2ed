// Where the bins lie: powers of ten, bin borders as doubles, and the code that orders buckets. Internal to the library.
#ifndef VASKLLHIST_DECIMAL_PRIVATE_H
#define VASKLLHIST_DECIMAL_PRIVATE_H

#include <array>
#include <bit>
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

constexpr unsigned kDecades = kMaxExponent - kMinExponent + 1;
constexpr unsigned kBins = kMaxMantissa - kMinMantissa + 1;

// The lower borders of the positive bins of one exponent, as the bits of doubles: these order like integers, faster.
// Behind the last comes the first border of the next decade.
using Decade = std::array<uint64_t, kBins + 1>;
extern const std::array<Decade, kDecades> kBorders;

// The first border of each decade, and behind them the end of the last.
extern const std::array<uint64_t, kDecades + 1> kStarts;

// Brings the values of a decade to their mantissas. Made smaller by four roundings, so that the product is never above
// a value's mantissa though possibly, close above a border, below it.
extern const std::array<double, kDecades> kScales;

// The decade that 2^`exponent` lies in, which is -1 for the power of two below the smallest border: the logarithm of 2
// to 18 binary places, which is right for every exponent in range.
constexpr int decade_of_power_of_two(int exponent) {
  return (exponent * 78913 >> 18) - kMinExponent;
}

// The code of the bin of a value. In the header because counting spends most of its time here.
inline Code code_of_value(double value) noexcept {
  const auto bits = std::bit_cast<uint64_t>(value);
  const uint64_t magnitude = bits << 1 >> 1;
  if (magnitude - kStarts.front() >= kStarts.back() - kStarts.front())
    return magnitude < kStarts.front() ? kZeroCode : kNoNumberCode;
  // A power of two and the next have at most one start of a decade between them.
  auto decade = static_cast<unsigned>(decade_of_power_of_two(static_cast<int>(magnitude >> 52) - 1023));
  if (magnitude >= kStarts[decade + 1]) ++decade;
  const double scaled = std::bit_cast<double>(magnitude) * kScales[decade];
  auto mantissa = static_cast<unsigned>(static_cast<int>(scaled));
  if (magnitude >= kBorders[decade][mantissa + 1 - kMinMantissa]) ++mantissa;
  const auto sign = static_cast<Code>(-static_cast<int>(bits >> 63));
  return static_cast<Code>(positive_code(decade, mantissa) ^ sign);
}

// The code of the bin of value * 10^scale.
Code code_of_scaled(int64_t value, int scale) noexcept;

// What stands for the values of a bucket: its middle. NaN for no number.
double midpoint_of(Code code) noexcept;

}  // namespace vaskllhist

#endif
