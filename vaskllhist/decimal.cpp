#include "vaskllhist/decimal_private.h"

#include <bit>
#include <limits>
#include <utility>

#include "vaskllhist/powers_private.h"

namespace vaskllhist {
namespace {

constexpr Decade make_decade(unsigned decade) {
  Decade borders{};
  for (unsigned bin = 0; bin <= kBins; ++bin) {
    const double border = multiple_of_power(kMinMantissa + bin, static_cast<int>(decade) + kMinExponent - 1);
    borders[bin] = std::bit_cast<uint64_t>(border);
  }
  return borders;
}

// A constant for each decade: compilers limit how much work one may be.
template <unsigned decade>
constexpr Decade kDecade = make_decade(decade);

template <unsigned... decades>
constexpr std::array<Decade, kDecades> make_borders(std::integer_sequence<unsigned, decades...>) {
  return {kDecade<decades>...};
}

constexpr std::array<uint64_t, kDecades + 1> make_starts() {
  std::array<uint64_t, kDecades + 1> starts{};
  for (unsigned decade = 0; decade <= kDecades; ++decade) {
    const double start = multiple_of_power(1, static_cast<int>(decade) + kMinExponent);
    starts[decade] = std::bit_cast<uint64_t>(start);
  }
  return starts;
}

constexpr std::array<double, kDecades> make_scales() {
  std::array<double, kDecades> scales{};
  for (unsigned decade = 0; decade < kDecades; ++decade) {
    const double exact = multiple_of_power(1, 1 - (static_cast<int>(decade) + kMinExponent));
    scales[decade] = exact * (1 - 4 * std::numeric_limits<double>::epsilon());
  }
  return scales;
}

constexpr std::array<uint64_t, 20> make_integer_powers() {
  std::array<uint64_t, 20> powers{1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}

constexpr std::array<uint64_t, 20> kIntegerPowers = make_integer_powers();

// The decimal digits of a number that is not 0.
unsigned digits_of(uint64_t number) noexcept {
  const auto bits = static_cast<unsigned>(std::bit_width(number));
  const unsigned estimate = bits * 1233 >> 12;
  return estimate + (number >= kIntegerPowers[estimate] ? 1 : 0);
}

}  // namespace

constexpr std::array<Decade, kDecades> kBorders =
    make_borders(std::make_integer_sequence<unsigned, kDecades>());
constexpr std::array<uint64_t, kDecades + 1> kStarts = make_starts();
constexpr std::array<double, kDecades> kScales = make_scales();

Code code_of(hist_bucket_t bucket) noexcept {
  if (bucket.val == kZeroBucket.val) return kZeroCode;
  if (bucket.val == kNoNumberBucket.val) return kNoNumberCode;
  const auto decade = static_cast<unsigned>(bucket.exp - kMinExponent);
  if (bucket.val > 0) return positive_code(decade, static_cast<unsigned>(bucket.val));
  return negated(positive_code(decade, static_cast<unsigned>(-bucket.val)));
}

hist_bucket_t bucket_of(Code code) noexcept {
  if (code == kZeroCode) return kZeroBucket;
  if (code == kNoNumberCode) return kNoNumberBucket;
  const bool negative = code < kZeroCode;
  const unsigned magnitude = negative ? negated(code) : code;
  const int val = static_cast<int>(magnitude % kPageSize);
  const int exp = static_cast<int>((magnitude & 0x7fffU) >> kPageBits) + kMinExponent;
  return {static_cast<int8_t>(negative ? -val : val), static_cast<int8_t>(exp)};
}

bool is_code(Code code) noexcept {
  if (code == kZeroCode || code == kNoNumberCode) return true;
  const unsigned val = (code < kZeroCode ? negated(code) : code) % kPageSize;
  return kMinMantissa <= val && val <= kMaxMantissa;
}

Code code_of_scaled(int64_t value, int scale) noexcept {
  if (value == 0) return kZeroCode;
  const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  const unsigned digits = digits_of(magnitude);
  const int64_t exponent = int64_t{scale} + digits - 1;
  if (exponent < kMinExponent) return kZeroCode;
  if (exponent > kMaxExponent) return kNoNumberCode;
  const auto mantissa =
      static_cast<unsigned>(digits == 1 ? magnitude * 10 : magnitude / kIntegerPowers[digits - 2]);
  const Code code = positive_code(static_cast<unsigned>(exponent - kMinExponent), mantissa);
  return value < 0 ? negated(code) : code;
}

double midpoint_of(Code code) noexcept {
  if (code == kZeroCode) return 0;
  if (code == kNoNumberCode) return std::numeric_limits<double>::quiet_NaN();
  const Code magnitude = code < kZeroCode ? negated(code) : code;
  const unsigned twice = 2 * (magnitude % kPageSize) + 1;
  const int exponent = static_cast<int>((magnitude & 0x7fffU) >> kPageBits) + kMinExponent;
  const double middle = quick_multiple_of_power(twice, exponent - 1) / 2;
  return code < kZeroCode ? -middle : middle;
}

}  // namespace vaskllhist
