// Columns of a histogram on their way into the image of a series, and what wide instructions do for them where the
// processor has them.
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

// Whether the functions below may be called. On other machines they do nothing at all.
bool has_wide() noexcept;

// Columns that are made have room for so many buckets more: what lies there is overwritten.
constexpr size_t kWidePadding = 8;

// The counts of `h` less `prior_counts`, those of the same buckets, all unsigned, into `codes` and `counts`, leaving
// the zeros out. Returns how many there are; `*overflows` tells whether one does not fit into 64 signed bits.
size_t subtract_wide(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                     bool *overflows) noexcept;

// The room that write_wide() wants. The longest histogram takes less; bytes behind what it takes are overwritten.
constexpr size_t wide_room(size_t n_buckets) noexcept {
  return 11 * n_buckets + 64;
}

// Writes exponents, mantissas and counts at `at`, as write_histogram() does; returns the place behind them.
uint8_t *write_wide(uint8_t *at, const Columns &h) noexcept;

}  // namespace hss

#endif
