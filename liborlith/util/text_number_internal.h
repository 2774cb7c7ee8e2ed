// Numbers and times in lines of text, read within bounds. Internal to the library.
#ifndef LIBORLITH_UTIL_TEXT_NUMBER_INTERNAL_H
#define LIBORLITH_UTIL_TEXT_NUMBER_INTERNAL_H

#include <cstdint>

namespace text_number {

// Numbers at the start of a text, by the rules of the C library's base-10 conversions in the "C" locale,
// whatever the process's locale is: leading white space (TABs and newlines too) is skipped, a sign is taken,
// text after the number is ignored, no number reads as 0. They differ from those conversions only in that the
// text ends at `end`.

// As strtoull: beyond 64 bits the largest value; a negative number wraps. `*after` (may be null) receives the
// place after the number, or `at` when there is none.
uint64_t read_uint64(const char *at, const char *end, const char **after = nullptr) noexcept;
// As strtoll: clamped to 64 bits.
int64_t read_int64(const char *at, const char *end) noexcept;
// As strtod: the nearest double; hexadecimal, infinities and NaNs too.
double read_double(const char *at, const char *end) noexcept;

// Decimal seconds, with a fraction or without, as milliseconds modulo 2^64. A fraction that an exponent makes
// too large for 64 bits of milliseconds adds nothing.
uint64_t read_timestamp_ms(const char *at, const char *end) noexcept;

}  // namespace text_number

#endif
