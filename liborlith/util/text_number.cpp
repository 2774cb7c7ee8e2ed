// Bounded number reading. The common spellings are read here, all others by the C library on a copy of the
// number.
#include <locale.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "liborlith/util/text_number_internal.h"

namespace {

bool is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

const char *skip_space(const char *at, const char *end) {
  while (at != end && is_space(*at)) ++at;
  return at;
}

// The sign at `at`, which is moved past it: true for '-'.
bool take_sign(const char *&at, const char *end) {
  if (at == end || (*at != '-' && *at != '+')) return false;
  return *at++ == '-';
}

struct Magnitude {
  uint64_t value = 0;
  bool negative = false;
  bool overflow = false;
  const char *after = nullptr;  // null: no digits
};

constexpr uint64_t every_byte(uint8_t value) {
  return 0x0101010101010101u * value;
}

// The number that eight digits at `at` make, or false. Lanes of one digit are joined to lanes of two, four and
// eight, each by one multiplication that adds a lane to its weighted neighbour; the first digit is in the lowest
// byte.
bool read_eight_digits(const char *at, uint64_t &number) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t word;
  memcpy(&word, at, sizeof(word));
  // Digits are 0x30 to 0x39: the high half of the byte is 3, and still is with 6 added.
  const uint64_t high_halves = every_byte(0xF0);
  if ((word & high_halves) != every_byte(0x30)) return false;
  if (((word + every_byte(0x06)) & high_halves) != every_byte(0x30)) return false;
  word = ((word & every_byte(0x0F)) * (10 * 256 + 1)) >> 8;
  word = ((word & 0x00FF00FF00FF00FFu) * (100 * 65536 + 1)) >> 16;
  number = ((word & 0x0000FFFF0000FFFFu) * (uint64_t{10000} * 4294967296 + 1)) >> 32;
  return true;
}

Magnitude read_magnitude(const char *at, const char *end) {
  Magnitude result;
  at = skip_space(at, end);
  result.negative = take_sign(at, end);
  if (end - at >= 8 && read_eight_digits(at, result.value)) result.after = at += 8;
  for (; at != end && is_digit(*at); ++at) {
    const auto digit = static_cast<uint64_t>(*at - '0');
    if (__builtin_mul_overflow(result.value, uint64_t{10}, &result.value) ||
        __builtin_add_overflow(result.value, digit, &result.value)) {
      result.overflow = true;
    }
    result.after = at + 1;
  }
  return result;
}

}  // namespace

uint64_t text_number::read_uint64(const char *at, const char *end, const char **after) noexcept {
  const Magnitude number = read_magnitude(at, end);
  if (after != nullptr) *after = number.after != nullptr ? number.after : at;
  if (number.overflow) return std::numeric_limits<uint64_t>::max();
  return number.negative ? 0 - number.value : number.value;
}

int64_t text_number::read_int64(const char *at, const char *end) noexcept {
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  const Magnitude number = read_magnitude(at, end);
  if (number.overflow || number.value > kMax) {
    return number.negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  const auto value = static_cast<int64_t>(number.value);
  return number.negative ? -value : value;
}

// ---- Doubles

namespace {

// A decimal number as it is written: mantissa * 10^exponent, without its sign.
struct Decimal {
  uint64_t mantissa = 0;
  int exponent = 0;
  bool exact = false;  // the mantissa holds every digit
  const char *after = nullptr;
};

constexpr int kMantissaDigits = 19;   // always fit 64 bits
constexpr int kExponentCap = 100000;  // far outside a double's range, far inside an int's

// The exponent's value when one stands at `at`, which is then moved past it; else 0.
int take_exponent(const char *&at, const char *end) {
  if (at == end || (*at != 'e' && *at != 'E')) return 0;
  const char *digits = at + 1;
  const bool negative = digits != end && take_sign(digits, end);
  if (digits == end || !is_digit(*digits)) return 0;
  int value = 0;
  for (; digits != end && is_digit(*digits); ++digits) {
    if (value < kExponentCap) value = value * 10 + (*digits - '0');
  }
  at = digits;
  return negative ? -value : value;
}

// Reads digits "." digits exponent; false when no digit stands there, or "0x".
bool scan_decimal(const char *at, const char *end, Decimal &out) {
  const char *start = at;
  int digit_count = 0;  // without leading zeros
  const auto take_digits = [&] {
    for (; at != end && is_digit(*at); ++at) {
      if (digit_count == kMantissaDigits) {
        digit_count = kMantissaDigits + 1;  // too many to hold; the exponent is of no use then
        continue;
      }
      if (digit_count > kMantissaDigits) continue;
      out.mantissa = out.mantissa * 10 + static_cast<uint64_t>(*at - '0');
      if (out.mantissa != 0) ++digit_count;
    }
  };
  take_digits();
  const auto whole_len = at - start;
  if (whole_len == 1 && *start == '0' && at != end && (*at == 'x' || *at == 'X')) return false;
  std::ptrdiff_t fraction_len = 0;
  if (at != end && *at == '.') {
    const char *fraction = ++at;
    take_digits();
    fraction_len = at - fraction;
  }
  if (whole_len + fraction_len == 0) return false;
  const int written_exponent = take_exponent(at, end);
  out.exact = digit_count <= kMantissaDigits && fraction_len < kExponentCap;
  if (out.exact) out.exponent = written_exponent - static_cast<int>(fraction_len);
  out.after = at;
  return true;
}

constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                              1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// Most numbers in lines: digits, perhaps a point and digits, at most 15 of them; false for all others.
bool read_short_decimal(const char *at, const char *end, double &value) {
  constexpr std::ptrdiff_t kMostBytes =
      16;  // 15 digits and the point, so that the mantissa is an exact double
  const char *const start = at;
  uint64_t mantissa = 0;
  for (; at != end && is_digit(*at); ++at) mantissa = mantissa * 10 + static_cast<uint64_t>(*at - '0');
  if (at == start) return false;
  size_t fraction_len = 0;
  if (at != end && *at == '.') {
    const char *const fraction = ++at;
    for (; at != end && is_digit(*at); ++at) mantissa = mantissa * 10 + static_cast<uint64_t>(*at - '0');
    fraction_len = static_cast<size_t>(at - fraction);
  }
  const bool ends_here = at == end || ((*at | 0x20) != 'e' && (*at | 0x20) != 'x');
  if (!ends_here || at - start > kMostBytes || mantissa >= uint64_t{1000000000000000}) return false;
  value = static_cast<double>(mantissa) / kPowers[fraction_len];
  return true;
}

// Both the mantissa and the power of ten are exact doubles here, so that one rounding gives the nearest
// double (W. D. Clinger, "How to read floating point numbers accurately", 1990).
bool from_exact_parts(const Decimal &number, double &value) {
  constexpr uint64_t kLargestExact = uint64_t{1} << 53;
  if (!number.exact || number.mantissa > kLargestExact) return false;
  if (number.exponent < -22 || number.exponent > 22) return false;
  const auto mantissa = static_cast<double>(number.mantissa);
  value = number.exponent < 0 ? mantissa / kPowers[-number.exponent] : mantissa * kPowers[number.exponent];
  return true;
}

// Any byte that the C library could take as part of a number.
bool is_number_byte(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '+' ||
         c == '-' || c == '_' || c == '(' || c == ')';
}

double read_with_library(const char *at, const char *end) {
  static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  const char *after = at;
  while (after != end && is_number_byte(*after)) ++after;
  const auto len = static_cast<size_t>(after - at);
  char short_text[128];
  std::unique_ptr<char[]> long_text;
  if (len >= sizeof(short_text)) long_text.reset(new (std::nothrow) char[len + 1]);
  char *text = len >= sizeof(short_text) ? long_text.get() : short_text;
  if (text == nullptr) return 0.0;
  memcpy(text, at, len);
  text[len] = '\0';
  return strtod_l(text, nullptr, c_locale);
}

}  // namespace

double text_number::read_double(const char *at, const char *end) noexcept {
  const char *signed_start = skip_space(at, end);
  const char *start = signed_start;
  const bool negative = take_sign(start, end);
  double value = 0.0;
  if (read_short_decimal(start, end, value)) return negative ? -value : value;
  Decimal number;
  if (!scan_decimal(start, end, number)) return read_with_library(signed_start, end);
  if (from_exact_parts(number, value)) return negative ? -value : value;
  if (std::from_chars(start, number.after, value).ec == std::errc{}) return negative ? -value : value;
  return read_with_library(signed_start, end);  // beyond a double's range
}

namespace {

// A fraction of one to three digits and nothing that would scale it: whole milliseconds, the same as by way of a
// double (a test tries all of them). False for every other fraction.
bool read_whole_ms(const char *point, const char *end, uint64_t &ms) {
  uint64_t scale = 1000;
  const char *at = point + 1;
  ms = 0;
  for (; at != end && is_digit(*at) && scale > 1; ++at) {
    scale /= 10;
    ms += static_cast<uint64_t>(*at - '0') * scale;
  }
  return scale < 1000 && (at == end || (!is_digit(*at) && (*at | 0x20) != 'e'));
}

}  // namespace

uint64_t text_number::read_timestamp_ms(const char *at, const char *end) noexcept {
  constexpr double kTwoTo64 = 18446744073709551616.0;
  const char *after = at;
  const uint64_t whole_ms = read_uint64(at, end, &after) * 1000;
  if (after == end || *after != '.') return whole_ms;
  uint64_t ms = 0;
  if (read_whole_ms(after, end, ms)) return whole_ms + ms;
  const double fraction_ms = read_double(after, end) * 1000;
  return fraction_ms < kTwoTo64 ? whole_ms + static_cast<uint64_t>(fraction_ms) : whole_ms;
}
