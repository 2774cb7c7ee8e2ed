// What must hold of every histogram that was read, and of what is made of it.
#ifndef FUZZ_VASKLLHIST_HIST_CHECKS_H
#define FUZZ_VASKLLHIST_HIST_CHECKS_H

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace hist_fuzz {

inline void require(bool condition) {
  if (!condition) std::abort();
}

struct Free {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using Owned = std::unique_ptr<histogram_t, Free>;

inline std::vector<uint8_t> stored(const histogram_t *h) {
  std::vector<uint8_t> bytes(hist_serialized_size(h));
  require(hist_serialize(h, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  return bytes;
}

inline void check_buckets(const histogram_t *h) {
  hist_bucket_t before{}, at{};
  uint64_t count = 0;
  for (int i = 0; i < hist_bucket_count(h); ++i, before = at) {
    require(hist_bucket_at(h, i, &at, &count) == 0);
    require(hist_bucket_is_valid(at) && hist_count_at(h, at) == count);
    require(i == 0 || hist_bucket_compare(before, at) < 0);
  }
  require(hist_bucket_at(h, hist_bucket_count(h), &at, &count) == HIST_E_INDEX);
}

inline void check_statistics(const histogram_t *h) {
  const double q[] = {1, 0, 0.5};
  double values[3];
  require(hist_number_count(h) <= hist_sample_count(h));
  const bool has_numbers = hist_number_count(h) != 0;
  require(std::isnan(hist_approx_mean(h)) != has_numbers);
  require(std::isnan(hist_approx_stddev(h)) != has_numbers);
  require(hist_quantiles(h, q, 3, values) == (has_numbers ? 0 : HIST_E_EMPTY));
  if (!has_numbers) return;
  require(values[1] <= values[2] && values[2] <= values[0]);
  require(hist_count_above(h, values[0]) == 0 && hist_count_below(h, values[1]) == 0);
}

// Taken from itself nothing is left; taken from nothing and added again, too.
inline void check_arithmetic(const histogram_t *h) {
  const Owned same(hist_clone(h)), sum(hist_alloc());
  require(hist_subtract_as_int64(same.get(), &h, 1) == 0 && hist_bucket_count(same.get()) == 0);
  require(hist_accumulate(sum.get(), &h, 1) == 0 && stored(sum.get()) == stored(h));
  if (hist_subtract_as_int64(sum.get(), &h, 1) == 0) require(hist_bucket_count(sum.get()) == 0);
  const Owned opposite(hist_alloc());
  if (hist_subtract_as_int64(opposite.get(), &h, 1) != 0) return;
  // The smallest signed number has no opposite of its type, so only the way back must be open.
  const histogram_t *const back = opposite.get();
  const Owned again(hist_clone(h));
  if (hist_add_as_int64(again.get(), &back, 1) == 0) {
    hist_remove_zeroes(again.get());
    require(hist_bucket_count(again.get()) == 0);
  }
}

// The histogram counts on: what was read must have left it whole.
inline void check_counting(histogram_t *h) {
  for (const double value : {1.0, -3e7, 0.0, 9.9e127, std::nan("")}) {
    const uint64_t before = hist_count_at(h, hist_bucket_of(value));
    require(hist_insert(h, value, 1) == 0);
    const bool is_full = before == (hist_is_difference(h) ? INT64_MAX : UINT64_MAX);
    require(hist_count_at(h, hist_bucket_of(value)) == before + (is_full ? 0 : 1));
  }
  check_buckets(h);
}

inline void check_all(histogram_t *h) {
  check_buckets(h);
  check_statistics(h);
  check_arithmetic(h);
  check_counting(h);
}

}  // namespace hist_fuzz

#endif
