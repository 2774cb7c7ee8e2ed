// Columns of a histogram on their way into the image of a series, by whatever instructions the processor has. Which
// counts of a histogram have changed, and how many bytes each takes, cannot be foreseen, so that a branch on it is
// mostly a wrong guess: everything here does without.
#ifndef LIBORLITH_UTIL_HISTOGRAM_SERIES_COLUMNS_PRIVATE_H
#define LIBORLITH_UTIL_HISTOGRAM_SERIES_COLUMNS_PRIVATE_H

#include <cstddef>
#include <cstdint>

#include "vaskllhist/vaskllhist.h"

namespace hss {

// The buckets of a histogram, or of a difference whose counts are signed.
struct Columns {
  const hist_code_t *codes;
  const uint64_t *counts;
  size_t n;
};

// Columns that are made have room for so many buckets more: what lies there is overwritten.
constexpr size_t kColumnPadding = 32;

// The room that writing takes. The longest histogram takes less; bytes behind what it takes are overwritten.
constexpr size_t writing_room(size_t n_buckets) noexcept {
  return 11 * n_buckets + 64;
}

// One way of doing it. All of them make the same of everything.
struct ColumnCode {
  // The counts of `h` less `prior_counts`, those of the same buckets, all unsigned, into `codes` and `counts`, leaving
  // the zeros out. Returns how many there are; `*overflows` tells whether one does not fit into 64 signed bits.
  size_t (*subtract)(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                     bool *overflows) noexcept;
  // Writes exponents, mantissas and counts at `at`; returns the place behind them.
  uint8_t *(*write)(uint8_t *at, const Columns &h) noexcept;
};

enum class Instructions : uint8_t { plain, avx2, avx512 };

// What such instructions do; null where the processor has none of them.
const ColumnCode *column_code(Instructions instructions) noexcept;

// The best there is, or the best up to what limit_instructions() was given, as tests and benchmarks do. Any thread.
const ColumnCode &column_code() noexcept;
void limit_instructions(Instructions most) noexcept;

// ---- The codes themselves

// Whether a difference does not fit into 64 signed bits. Only where counts have all 64 bits is there a need to ask.
bool any_overflows(const Columns &h, const uint64_t *prior_counts) noexcept;

size_t subtract_plain(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                      bool *overflows) noexcept;
uint8_t *write_plain(uint8_t *at, const Columns &h) noexcept;

// Only for processors that have AVX2 and what came with it, and AVX-512 with VBMI2.
size_t subtract_avx2(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                     bool *overflows) noexcept;
uint8_t *write_avx2(uint8_t *at, const Columns &h) noexcept;
size_t subtract_avx512(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                       bool *overflows) noexcept;
uint8_t *write_avx512(uint8_t *at, const Columns &h) noexcept;

}  // namespace hss

#endif
