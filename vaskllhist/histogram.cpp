// Life of histograms, and access to their buckets.
#include "vaskllhist/histogram_private.h"

#include <algorithm>
#include <cstring>
#include <new>

using vaskllhist::Code;

namespace {

bool has_zero(const std::vector<uint64_t> &counts) {
  typedef uint64_t Pair __attribute__((vector_size(16)));
  constexpr size_t kAtOnce = 8;
  const uint64_t *at = counts.data();
  const uint64_t *const end = at + counts.size();
  // Only of 0 both the complement and the predecessor have the top bit.
  Pair zeros[2] = {};
  for (; static_cast<size_t>(end - at) >= kAtOnce; at += kAtOnce) {
    Pair pairs[kAtOnce / 2];
    memcpy(pairs, at, sizeof(pairs));
    zeros[0] |= ((pairs[0] - 1) & ~pairs[0]) | ((pairs[1] - 1) & ~pairs[1]);
    zeros[1] |= ((pairs[2] - 1) & ~pairs[2]) | ((pairs[3] - 1) & ~pairs[3]);
  }
  uint64_t zero = zeros[0][0] | zeros[0][1] | zeros[1][0] | zeros[1][1];
  for (; at < end; ++at) zero |= (*at - 1) & ~*at;
  return zero >> 63 != 0;
}

}  // namespace

size_t histogram::position_of(Code code) const noexcept {
  return static_cast<size_t>(std::lower_bound(codes.begin(), codes.end(), code) - codes.begin());
}

void histogram::want_lookup() noexcept {
  // Below this many buckets a search is as quick as a lookup, and a lookup takes more memory than they do.
  constexpr size_t worth_it = 9;
  if (lookup || is_difference || size() < worth_it) return;
  try {
    lookup = std::make_unique<vaskllhist::Lookup>(codes);
  } catch (const std::bad_alloc &) {
    lookup.reset();
  }
}

histogram_t *hist_alloc(void) {
  return new (std::nothrow) histogram;
}

histogram_t *hist_alloc_bins(int bins) {
  try {
    auto h = std::make_unique<histogram>();
    const auto room = static_cast<size_t>(std::clamp(bins, 0, HIST_MAX_BUCKETS));
    h->codes.reserve(room);
    h->counts.reserve(room);
    return h.release();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

void hist_free(histogram_t *h) {
  delete h;
}

histogram_t *hist_clone(const histogram_t *h) {
  if (h == nullptr) return nullptr;
  try {
    auto copy = std::make_unique<histogram>();
    copy->codes = h->codes;
    copy->counts = h->counts;
    copy->is_difference = h->is_difference;
    return copy.release();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

void hist_clear(histogram_t *h) {
  if (h == nullptr) return;
  h->codes.clear();
  h->counts.clear();
  h->lookup.reset();
  h->is_difference = false;
}

int hist_bucket_count(const histogram_t *h) {
  return h == nullptr ? 0 : static_cast<int>(h->size());
}

int hist_bucket_at(const histogram_t *h, int index, hist_bucket_t *bucket, uint64_t *count) {
  if (h == nullptr || index < 0 || static_cast<size_t>(index) >= h->size()) return HIST_E_INDEX;
  const auto at = static_cast<size_t>(index);
  if (bucket != nullptr) *bucket = vaskllhist::bucket_of(h->codes[at]);
  if (count != nullptr) *count = h->counts[at];
  return 0;
}

uint64_t hist_count_at(const histogram_t *h, hist_bucket_t bucket) {
  if (h == nullptr || !hist_bucket_is_valid(bucket)) return 0;
  const Code code = vaskllhist::code_of(bucket);
  const size_t at = h->position_of(code);
  return at < h->size() && h->codes[at] == code ? h->counts[at] : 0;
}

bool hist_is_difference(const histogram_t *h) {
  return h != nullptr && h->is_difference;
}

void hist_remove_zeroes(histogram_t *h) {
  // Mostly there are none, and looking is quicker than moving.
  if (h == nullptr || !has_zero(h->counts)) return;
  size_t kept = 0;
  for (size_t i = 0; i < h->size(); ++i) {
    if (h->counts[i] == 0) continue;
    h->codes[kept] = h->codes[i];
    h->counts[kept] = h->counts[i];
    ++kept;
  }
  h->codes.resize(kept);
  h->counts.resize(kept);
  h->lookup.reset();
}
