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

struct Total {
  uint64_t sum;
  bool is_small;  // the sum has not wrapped, and is a signed number, too
};

// In four sums, since each addition would have to wait for the one before.
Total total_of(std::span<const uint64_t> counts) {
  std::array<uint64_t, 4> sums{};
  uint64_t all_bits = 0;
  size_t i = 0;
  for (; i + 4 <= counts.size(); i += 4) {
    for (size_t k = 0; k < 4; ++k) sums[k] += counts[i + k];
    all_bits |= counts[i] | counts[i + 1] | counts[i + 2] | counts[i + 3];
  }
  for (; i < counts.size(); ++i) {
    sums[0] += counts[i];
    all_bits |= counts[i];
  }
  static_assert(HIST_MAX_BUCKETS < 1 << 16, "as many counts of less than 47 bits make less than 63 bits");
  return {sums[0] + sums[1] + sums[2] + sums[3], all_bits >> 47 == 0};
}

// The same for any counts, negative ones of a difference taken for 0: 46082 of them make less than 80 bits.
uint128 wide_total_of(const histogram &h) {
  uint128 sum = 0;
  for (size_t i = 0; i < h.number_buckets(); ++i) sum += h.counted(i);
  return sum;
}

// Which of the `total` values in order is the quantile, counted from 1. The product is a double's on purpose: a tenth
// of 10 values is one, which the exact product of 10 and the double nearest to 0.1 is a little above.
template <typename Count>
Count rank_of(double q, Count total) {
  const double product = q * static_cast<double>(total);
  if (product >= static_cast<double>(total)) return total;
  const auto whole = static_cast<Count>(product);
  return std::max<Count>(1, whole + (static_cast<double>(whole) < product ? 1 : 0));
}

// `order` names the quantiles from the smallest to the largest; count(i) gives the counts.
template <typename Count, typename CountOf>
void walk(const histogram &h, Count total, std::span<const int> order, const double *q, double *values,
          CountOf count) {
  size_t at = 0;
  Count reached = count(0);  // by the buckets up to `at`
  for (const int which : order) {
    const Count rank = rank_of(q[which], total);
    while (reached < rank) reached += count(++at);
    values[which] = midpoint_of(h.codes[at]);
  }
}

void sort(std::span<int> order, const double *q) {
  std::iota(order.begin(), order.end(), 0);
  const auto by_share = [q](int a, int b) { return q[a] < q[b]; };
  if (!std::is_sorted(order.begin(), order.end(), by_share)) std::sort(order.begin(), order.end(), by_share);
}

int quantiles(const histogram &h, std::span<int> order, const double *q, double *values) {
  const Total total = total_of({h.counts.data(), h.number_buckets()});
  sort(order, q);
  if (total.is_small) {
    if (total.sum == 0) return HIST_E_EMPTY;
    walk(h, static_cast<int64_t>(total.sum), order, q, values,
         [counts = h.counts.data()](size_t i) { return static_cast<int64_t>(counts[i]); });
    return 0;
  }
  const uint128 wide_total = wide_total_of(h);
  if (wide_total == 0) return HIST_E_EMPTY;
  walk(h, wide_total, order, q, values, [&h](size_t i) { return uint128{h.counted(i)}; });
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
