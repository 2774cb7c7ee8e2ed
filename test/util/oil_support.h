// What the interval list's tests share.
#ifndef TEST_UTIL_OIL_SUPPORT_H
#define TEST_UTIL_OIL_SUPPORT_H

#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "liborlith/util/oil.h"

struct OilFree {
  void operator()(oil_list_t *oil) const { oil_free(oil); }
};
using OilPtr = std::unique_ptr<oil_list_t, OilFree>;

using Interval = std::pair<uint32_t, uint32_t>;  // first, last
using Intervals = std::vector<Interval>;

// A list with exactly these intervals, valid or not, stored past all of oil_put's rules.
inline OilPtr raw_list(const Intervals &intervals) {
  OilPtr oil(oil_alloc_cap(static_cast<uint32_t>(intervals.size())));
  for (const auto &[first, last] : intervals) oil->entries[oil->size++] = {first, last};
  return oil;
}

inline Intervals contents(oil_list_t *oil) {
  Intervals result;
  oil_iter(
      oil,
      [](void *closure, uint32_t, uint32_t, uint32_t first, uint32_t last) {
        static_cast<Intervals *>(closure)->emplace_back(first, last);
      },
      &result);
  return result;
}

// Sorted, disjoint, below 400, some touching.
inline Intervals random_intervals(std::mt19937 &random, size_t count) {
  Intervals result;
  uint32_t t = static_cast<uint32_t>(random() % 20);
  while (result.size() < count && t < 350) {
    const uint32_t last = t + static_cast<uint32_t>(random() % 12);
    result.emplace_back(t, last);
    t = last + 1 + static_cast<uint32_t>(random() % 15);
  }
  return result;
}

inline std::vector<bool> points_of(const Intervals &intervals, size_t limit) {
  std::vector<bool> active(limit, false);
  for (const auto &[first, last] : intervals) {
    for (uint32_t t = first; t <= last && t < limit; ++t) active[t] = true;
  }
  return active;
}

inline unsigned fresh_seed() {
  return std::random_device{}();
}

#endif
