// Counts, sum, mean and deviation.
#include <cmath>
#include <limits>

#include "vaskllhist/histogram_private.h"

namespace vaskllhist {
namespace {

// The counts of the buckets from `first` up to `last`, which is excluded.
uint64_t sum_of_counts(const histogram &h, size_t first, size_t last) {
  uint64_t sum = 0;
  for (size_t i = first; i < last; ++i) sum = saturating_sum(sum, h.counted(i));
  return sum;
}

// The code at which `value` stands among the numbers: what is too large for a bucket lies behind, or before, them all.
struct Place {
  size_t below;  // buckets that lie below
  size_t above;  // the first bucket that lies above
};

Place place_of(const histogram &h, double value) {
  const size_t numbers = h.number_buckets();
  if (std::isnan(value)) return {0, numbers};
  const Code code = code_of_value(value);
  if (code == kNoNumberCode) return value > 0 ? Place{numbers, numbers} : Place{0, 0};
  const size_t at = h.position_of(code);
  return {at, at < numbers && h.codes[at] == code ? at + 1 : at};
}

struct Moments {
  double count = 0;
  double sum = 0;
};

Moments moments_of(const histogram &h) {
  Moments moments;
  for (size_t i = 0; i < h.number_buckets(); ++i) {
    const auto count = static_cast<double>(h.counted(i));
    moments.count += count;
    moments.sum += count * midpoint_of(h.codes[i]);
  }
  return moments;
}

}  // namespace
}  // namespace vaskllhist

uint64_t hist_sample_count(const histogram_t *h) {
  return h == nullptr ? 0 : vaskllhist::sum_of_counts(*h, 0, h->size());
}

uint64_t hist_number_count(const histogram_t *h) {
  return h == nullptr ? 0 : vaskllhist::sum_of_counts(*h, 0, h->number_buckets());
}

uint64_t hist_count_below(const histogram_t *h, double value) {
  return h == nullptr ? 0 : vaskllhist::sum_of_counts(*h, 0, vaskllhist::place_of(*h, value).below);
}

uint64_t hist_count_above(const histogram_t *h, double value) {
  if (h == nullptr) return 0;
  return vaskllhist::sum_of_counts(*h, vaskllhist::place_of(*h, value).above, h->number_buckets());
}

double hist_approx_sum(const histogram_t *h) {
  return h == nullptr ? 0 : vaskllhist::moments_of(*h).sum;
}

double hist_approx_mean(const histogram_t *h) {
  const vaskllhist::Moments moments = h == nullptr ? vaskllhist::Moments{} : vaskllhist::moments_of(*h);
  return moments.count == 0 ? std::numeric_limits<double>::quiet_NaN() : moments.sum / moments.count;
}

double hist_approx_stddev(const histogram_t *h) {
  const double mean = hist_approx_mean(h);
  if (std::isnan(mean)) return mean;
  double count = 0, squares = 0;
  for (size_t i = 0; i < h->number_buckets(); ++i) {
    const auto weight = static_cast<double>(h->counted(i));
    const double distance = vaskllhist::midpoint_of(h->codes[i]) - mean;
    count += weight;
    squares += weight * distance * distance;
  }
  return std::sqrt(squares / count);
}

int hist_downsample(histogram_t *h, uint64_t factor) {
  if (h == nullptr || factor == 0) return HIST_E_ARGUMENT;
  if (h->is_difference) return HIST_E_RANGE;
  uint64_t left = 0;  // values since the last one that stayed
  const size_t numbers = h->number_buckets();
  for (size_t i = 0; i < h->size(); ++i) {
    if (i == numbers) left = 0;
    const uint64_t count = h->counts[i];
    const uint64_t rest = count % factor;
    const bool carries = rest >= factor - left;
    h->counts[i] = count / factor + (carries ? 1 : 0);
    left = carries ? rest - (factor - left) : left + rest;
  }
  return 0;
}
