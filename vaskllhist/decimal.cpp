#include "vaskllhist/decimal_private.h"

#include <bit>
#include <limits>

#include "vaskllhist/powers_private.h"

namespace vaskllhist {
namespace {

constexpr unsigned kDecades = kMaxExponent - kMinExponent + 1;
constexpr unsigned kBins = kMaxMantissa - kMinMantissa + 1;

// The lower borders of the positive bins of one exponent, as the bits of doubles: these order like integers, faster.
// Behind the last comes the first border of the next decade.
using Decade = std::array<uint64_t, kBins + 1>;

constexpr std::array<Decade, kDecades> make_borders() {
  std::array<Decade, kDecades> borders{};
  for (unsigned decade = 0; decade < kDecades; ++decade) {
    for (unsigned bin = 0; bin <= kBins; ++bin) {
      const double border =
          multiple_of_power(kMinMantissa + bin, static_cast<int>(decade) + kMinExponent - 1);
      borders[decade][bin] = std::bit_cast<uint64_t>(border);
    }
  }
  return borders;
}

constexpr std::array<Decade, kDecades> kBorders = make_borders();

// The first border of each decade, and behind them the end of the last.
constexpr std::array<uint64_t, kDecades + 1> make_starts() {
  std::array<uint64_t, kDecades + 1> starts{};
  for (unsigned decade = 0; decade < kDecades; ++decade) {
    starts[decade] = kBorders[decade][0];
    starts[decade + 1] = kBorders[decade][kBins];
  }
  return starts;
}

constexpr std::array<uint64_t, kDecades + 1> kStarts = make_starts();
constexpr uint64_t kSmallest = kStarts.front();
constexpr uint64_t kTooLarge = kStarts.back();

// Brings the values of a decade to their mantissas. Made smaller by four roundings, so that the product of a value is
// never above its mantissa though possibly, close above a border, below it.
constexpr std::array<double, kDecades> make_scales() {
  std::array<double, kDecades> scales{};
  for (unsigned decade = 0; decade < kDecades; ++decade) {
    const double exact = multiple_of_power(1, 1 - (static_cast<int>(decade) + kMinExponent));
    scales[decade] = exact * (1 - 4 * std::numeric_limits<double>::epsilon());
  }
  return scales;
}

constexpr std::array<double, kDecades> kScales = make_scales();

// The decade that 2^`exponent` lies in, which is -1 for the power of two below the smallest border: the logarithm of 2
// to 18 binary places, which is right for every exponent in range.
constexpr int decade_of_power_of_two(int exponent) {
  return (exponent * 78913 >> 18) - kMinExponent;
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

Code code_of_value(double value) noexcept {
  const auto bits = std::bit_cast<uint64_t>(value);
  const uint64_t magnitude = bits << 1 >> 1;
  if (magnitude - kSmallest >= kTooLarge - kSmallest)
    return magnitude < kSmallest ? kZeroCode : kNoNumberCode;
  // A power of two and the next have at most one start of a decade between them.
  auto decade = static_cast<unsigned>(decade_of_power_of_two(static_cast<int>(magnitude >> 52) - 1023));
  if (magnitude >= kStarts[decade + 1]) ++decade;
  const double scaled = std::bit_cast<double>(magnitude) * kScales[decade];
  auto mantissa = static_cast<unsigned>(static_cast<int>(scaled));
  if (magnitude >= kBorders[decade][mantissa + 1 - kMinMantissa]) ++mantissa;
  const auto sign = static_cast<Code>(-static_cast<int>(bits >> 63));
  return static_cast<Code>(positive_code(decade, mantissa) ^ sign);
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
