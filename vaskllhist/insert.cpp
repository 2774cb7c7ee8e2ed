// Putting values in.
#include <algorithm>
#include <cstddef>

#include "vaskllhist/histogram_private.h"

namespace vaskllhist {
namespace {

void add_to_count(histogram &h, size_t index, uint64_t count) noexcept {
  uint64_t &sum = h.counts[index];
  if (!h.is_difference) {
    sum = saturating_sum(sum, count);
    return;
  }
  // In two's complement the way to the largest signed number is unsigned whatever the sign of the count.
  const uint64_t room = static_cast<uint64_t>(INT64_MAX) - sum;
  sum += std::min(count, room);
}

void add_bucket(histogram &h, size_t index, Code code, uint64_t count) {
  h.make_room();
  if (h.lookup) h.lookup->make_room(code);
  h.codes.insert(h.codes.begin() + static_cast<std::ptrdiff_t>(index), code);
  h.counts.insert(h.counts.begin() + static_cast<std::ptrdiff_t>(index), count);
  if (h.lookup) h.lookup->refresh(h.codes, index);
}

int insert_by_search(histogram &h, Code code, uint64_t count) noexcept {
  return or_out_of_memory([&]() -> int {
    const size_t index = h.position_of(code);
    if (index < h.size() && h.codes[index] == code) {
      add_to_count(h, index, count);
    } else {
      add_bucket(h, index, code, h.is_difference ? std::min<uint64_t>(count, INT64_MAX) : count);
    }
    h.want_lookup();
    return 0;
  });
}

int insert(histogram &h, Code code, uint64_t count) noexcept {
  if (h.lookup) {
    const size_t index = h.lookup->index_of(code);
    if (index != Lookup::kAbsent) {
      h.counts[index] = saturating_sum(h.counts[index], count);
      return 0;
    }
  }
  return insert_by_search(h, code, count);
}

}  // namespace
}  // namespace vaskllhist

int hist_insert(histogram_t *h, double value, uint64_t count) {
  if (h == nullptr) return HIST_E_ARGUMENT;
  return vaskllhist::insert(*h, vaskllhist::code_of_value(value), count);
}

int hist_insert_scaled(histogram_t *h, int64_t value, int scale, uint64_t count) {
  if (h == nullptr) return HIST_E_ARGUMENT;
  return vaskllhist::insert(*h, vaskllhist::code_of_scaled(value, scale), count);
}

int hist_insert_raw(histogram_t *h, hist_bucket_t bucket, uint64_t count) {
  if (h == nullptr) return HIST_E_ARGUMENT;
  if (!hist_bucket_is_valid(bucket)) return HIST_E_BUCKET;
  return vaskllhist::insert(*h, vaskllhist::code_of(bucket), count);
}

int hist_insert_raw_end(histogram_t *h, hist_bucket_t bucket, uint64_t count) {
  if (h == nullptr) return HIST_E_ARGUMENT;
  if (!hist_bucket_is_valid(bucket)) return HIST_E_BUCKET;
  const vaskllhist::Code code = vaskllhist::code_of(bucket);
  if (!h->codes.empty() && h->codes.back() >= code) return HIST_E_ORDER;
  return vaskllhist::or_out_of_memory([&]() -> int {
    vaskllhist::add_bucket(*h, h->size(), code, count);
    return 0;
  });
}

uint64_t hist_remove(histogram_t *h, double value, uint64_t count) {
  if (h == nullptr || h->is_difference) return 0;
  const vaskllhist::Code code = vaskllhist::code_of_value(value);
  const size_t index = h->position_of(code);
  if (index == h->size() || h->codes[index] != code) return 0;
  const uint64_t taken = std::min(count, h->counts[index]);
  h->counts[index] -= taken;
  return taken;
}
