// What a histogram is. Internal to the library.
#ifndef VASKLLHIST_HISTOGRAM_PRIVATE_H
#define VASKLLHIST_HISTOGRAM_PRIVATE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "vaskllhist/decimal_private.h"
#include "vaskllhist/lookup_private.h"
#include "vaskllhist/vaskllhist.h"

// Invariants: (1) codes and counts are of one size; (2) the codes ascend strictly and is_code() holds for each;
// (3) lookup is null, or gives the index of every code and of no other; (4) a difference has no lookup: its counts are
// two's complement, and the quick way of counting is for unsigned ones.
struct histogram {
  std::vector<vaskllhist::Code> codes;
  std::vector<uint64_t> counts;
  std::unique_ptr<vaskllhist::Lookup> lookup;
  bool is_difference = false;

  size_t size() const noexcept { return codes.size(); }

  // The index of the first code that is not below `code`: where it is, or where it belongs.
  size_t position_of(vaskllhist::Code code) const noexcept;

  // Room for one more bucket, so that adding it needs no memory.
  void make_room() {
    if (codes.size() < codes.capacity() && counts.size() < counts.capacity()) return;
    const size_t room = codes.size() < 8 ? 16 : 2 * codes.size();
    codes.reserve(room);
    counts.reserve(room);
  }

  // Makes the lookup, unless there is one or it is not worth it. It only makes counting quicker, so running out of
  // memory does not matter.
  void want_lookup() noexcept;

  // A count as statistics see it.
  uint64_t counted(size_t index) const noexcept {
    const uint64_t largest = is_difference ? INT64_MAX : UINT64_MAX;
    return counts[index] > largest ? 0 : counts[index];
  }

  // The number of buckets that hold numbers: all but a last one for what is no number.
  size_t number_buckets() const noexcept {
    return !codes.empty() && codes.back() == vaskllhist::kNoNumberCode ? size() - 1 : size();
  }
};

namespace vaskllhist {

constexpr uint64_t saturating_sum(uint64_t a, uint64_t b) {
  const uint64_t sum = a + b;
  return sum < a ? UINT64_MAX : sum;
}

// Runs `work`, which gives a code, and turns running out of memory into one.
template <typename Work>
auto or_out_of_memory(Work work) noexcept -> decltype(work()) {
  try {
    return work();
  } catch (const std::bad_alloc &) {
    return HIST_E_MEMORY;
  }
}

}  // namespace vaskllhist

#endif
