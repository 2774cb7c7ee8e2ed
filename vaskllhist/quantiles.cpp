// Quantiles, many at once.
#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <span>

#include "vaskllhist/histogram_private.h"
#include "vaskllhist/powers_private.h"

namespace vaskllhist {
namespace {

// The wide sum, which cannot overflow: HIST_MAX_BUCKETS counts take less than 80 bits.
uint128 number_count(const histogram &h, size_t numbers) {
  uint128 sum = 0;
  for (size_t i = 0; i < numbers; ++i) sum += h.counted(i);
  return sum;
}

// Which of the `total` values in order is the quantile, counted from 1. The product is a double's on purpose: a tenth
// of 10 values is one, which the exact product of 10 and the double nearest to 0.1 is a little above.
template <typename Count>
Count rank_of(double q, Count total) {
  const double rank = std::ceil(q * static_cast<double>(total));
  if (rank < 1) return 1;
  return rank >= static_cast<double>(total) ? total : static_cast<Count>(rank);
}

// `order` names the quantiles from the smallest to the largest.
template <typename Count>
void walk(const histogram &h, Count total, std::span<const int> order, const double *q, double *values) {
  size_t at = 0;
  Count reached = h.counted(0);  // by the buckets up to `at`
  for (const int which : order) {
    const Count rank = rank_of(q[which], total);
    while (reached < rank) reached += h.counted(++at);
    values[which] = midpoint_of(h.codes[at]);
  }
}

int quantiles(const histogram &h, std::span<int> order, const double *q, double *values) {
  const uint128 total = number_count(h, h.number_buckets());
  if (total == 0) return HIST_E_EMPTY;
  std::iota(order.begin(), order.end(), 0);
  const auto by_share = [q](int a, int b) { return q[a] < q[b]; };
  if (!std::is_sorted(order.begin(), order.end(), by_share)) std::sort(order.begin(), order.end(), by_share);
  if (total <= UINT64_MAX) {
    walk<uint64_t>(h, static_cast<uint64_t>(total), order, q, values);
  } else {
    walk<uint128>(h, total, order, q, values);
  }
  return 0;
}

}  // namespace
}  // namespace vaskllhist

int hist_quantiles(const histogram_t *h, const double *q, int count, double *values) {
  if (count < 0 || (count > 0 && (q == nullptr || values == nullptr))) return HIST_E_ARGUMENT;
  if (!std::all_of(q, q + count, [](double share) { return share >= 0 && share <= 1; }))
    return HIST_E_QUANTILE;
  if (h == nullptr) return HIST_E_EMPTY;
  std::array<int, 64> few;
  const auto size = static_cast<size_t>(count);
  if (size <= few.size()) return vaskllhist::quantiles(*h, {few.data(), size}, q, values);
  return vaskllhist::or_out_of_memory([&]() -> int {
    std::vector<int> many(size);
    return vaskllhist::quantiles(*h, many, q, values);
  });
}
