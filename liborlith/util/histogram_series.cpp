// The series itself: its arrays, what is added to it, and when its entries are decoded.
#include "liborlith/util/histogram_series.h"

#include <algorithm>
#include <cstdlib>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/util/histogram_series_private.h"

static_assert(sizeof(histogram_series_t) == 56 && offsetof(histogram_series_t, buff) == 40);

namespace {

constexpr uint32_t kFirstSlots = 32;

bool is_marker(const histogram_t *h) {
  return h == HISTOGRAM_SERIES_NOT_DECODED;
}

void free_histograms(histogram_series_t *hs) {
  for (uint32_t i = 0; i < hs->n_entries; ++i) {
    if (!is_marker(hs->histograms[i])) hist_free(hs->histograms[i]);
  }
}

// Everything that the series holds; the arrays' fields are then stale.
void free_contents(histogram_series_t *hs) {
  free_histograms(hs);
  free(hs->histograms);
  free(hs->offsets_ms);
  free(hs->buff);
}

// New arrays of `slots`, empty, in place of all that the series holds. False, changing nothing, when memory ran
// out.
bool start_arrays(histogram_series_t *hs, uint32_t slots) {
  auto *histograms = static_cast<histogram_t **>(malloc(slots * sizeof(void *)));
  auto *offsets_ms = static_cast<uint32_t *>(malloc(slots * sizeof(*hs->offsets_ms)));
  if (histograms == nullptr || offsets_ms == nullptr) {
    free(histograms);
    free(offsets_ms);
    return false;
  }
  free_contents(hs);
  hs->histograms = histograms;
  hs->offsets_ms = offsets_ms;
  hs->n_entries = 0;
  hs->n_alloc = slots;
  hs->buff = nullptr;
  hs->buff_len = 0;
  return true;
}

template <typename Slot>
bool resize(Slot *&array, size_t bytes) {
  auto *resized = static_cast<Slot *>(realloc(array, bytes));
  if (resized == nullptr) return false;
  array = resized;
  return true;
}

// Sees to room for one more entry.
bool make_room(histogram_series_t *hs) {
  if (hs->n_entries < hs->n_alloc) return true;
  // Not reached with no slots: the first add has made some.
  const uint32_t slots = hs->n_alloc + std::max(hs->n_alloc / 2, 1U);
  if (!resize(hs->histograms, slots * sizeof(void *))) return false;
  if (!resize(hs->offsets_ms, slots * sizeof(*hs->offsets_ms))) return false;
  hs->n_alloc = slots;
  return true;
}

// The index behind the last entry whose offset is at most `offset_ms`. From the back: times mostly come in order.
uint32_t place_after(const histogram_series_t *hs, uint32_t offset_ms) {
  uint32_t i = hs->n_entries;
  while (i > 0 && hs->offsets_ms[i - 1] > offset_ms) --i;
  return i;
}

// Adds to an entry that is there. It is not decoded for this: callers who read a series decode it first.
bool accumulate_into(histogram_series_t *hs, uint32_t i, histogram_t *h, bool give) {
  // The next one may be stored as the difference from this one as it still is.
  if (i + 1 < hs->n_entries) histogram_series_populate(hs, i + 1);
  histogram_t *entry = hs->histograms[i];
  if (entry == nullptr || is_marker(entry)) return false;
  if (hist_accumulate(entry, &h, 1) < 0) return false;
  if (give) hist_free(h);
  return true;
}

// Puts a histogram that is the series' own at index `at`, moving the rest up.
void place(histogram_series_t *hs, uint32_t at, uint32_t offset_ms, histogram_t *own) {
  const uint32_t n = hs->n_entries;
  std::copy_backward(hs->histograms + at, hs->histograms + n, hs->histograms + n + 1);
  std::copy_backward(hs->offsets_ms + at, hs->offsets_ms + n, hs->offsets_ms + n + 1);
  hs->histograms[at] = own;
  hs->offsets_ms[at] = offset_ms;
  ++hs->n_entries;
}

bool insert_at(histogram_series_t *hs, uint32_t at, uint32_t offset_ms, histogram_t *h, bool give) {
  // Entries that move no longer have the index that they have in the image.
  if (at < hs->n_entries) hss::decode_all(hs);
  hss::HistogramPtr copy;
  if (!give) copy.reset(hist_clone(h));
  if (!give && copy == nullptr) return false;
  // A series from an image has no slots of its own: its entries give way to the first one added.
  const bool roomy = hs->n_alloc == 0 ? start_arrays(hs, kFirstSlots) : make_room(hs);
  if (!roomy) return false;
  place(hs, std::min(at, hs->n_entries), offset_ms, give ? h : copy.release());
  return true;
}

int compare_offset_ms(const void *a, const void *b) {
  const uint32_t left = *static_cast<const uint32_t *>(a);
  const uint32_t right = *static_cast<const uint32_t *>(b);
  return (left > right) - (left < right);
}

// The first entry to decode on the way to entry `i`: the nearest one at or before it that is whole, or whose
// predecessor is decoded.
uint32_t chain_start(const histogram_series_t *hs, uint32_t i) {
  while (hss::is_difference(hs, i)) {
    liborlith_assert(i > 0);
    if (!is_marker(hs->histograms[i - 1])) return i;
    --i;
  }
  return i;
}

}  // namespace

extern "C" histogram_series_t *histogram_series_alloc(uint64_t base_ms, uint32_t window_ms) {
  if (window_ms == 0 || base_ms % window_ms != 0) return nullptr;
  auto *hs = static_cast<histogram_series_t *>(calloc(1, sizeof(histogram_series_t)));
  if (hs == nullptr) return nullptr;
  hs->base_ms = base_ms;
  hs->window_ms = window_ms;
  return hs;
}

extern "C" void histogram_series_free(histogram_series_t *hs) {
  if (hs == nullptr) return;
  free_contents(hs);
  free(hs);
}

extern "C" ruxo_boolean histogram_series_add(histogram_series_t *hs, uint64_t whence_ms, histogram_t *h,
                                             ruxo_boolean give) {
  if (hs == nullptr || h == nullptr) return ruxo_false;
  if (whence_ms < hs->base_ms || whence_ms - hs->base_ms > hs->window_ms) return ruxo_false;
  const auto offset_ms = static_cast<uint32_t>(whence_ms - hs->base_ms);
  if (hs->n_alloc == 0) return insert_at(hs, hs->n_entries, offset_ms, h, give);
  const uint32_t at = place_after(hs, offset_ms);
  const bool present = at > 0 && hs->offsets_ms[at - 1] == offset_ms;
  return present ? accumulate_into(hs, at - 1, h, give) : insert_at(hs, at, offset_ms, h, give);
}

extern "C" ruxo_boolean histogram_series_remove(histogram_series_t *, uint64_t) {
  return ruxo_false;
}

// ---- Looking

extern "C" void histogram_series_populate(histogram_series_t *hs, uint32_t i) {
  if (hs == nullptr || i >= hs->n_entries || !is_marker(hs->histograms[i])) return;
  liborlith_assert(hs->buff != ((void *)0));
  if (!hss::has_word(hs, i)) return;
  // Step by step, not by recursion: an image may hold chains of any length.
  for (uint32_t k = chain_start(hs, i); k <= i; ++k) {
    const histogram_t *before = k > 0 ? hs->histograms[k - 1] : nullptr;
    hs->histograms[k] = hss::decode_entry(hs, k, is_marker(before) ? nullptr : before).release();
  }
}

void hss::decode_all(histogram_series_t *hs) {
  for (uint32_t i = 0; i < hs->n_entries; ++i) {
    histogram_series_populate(hs, i);
    if (is_marker(hs->histograms[i])) hs->histograms[i] = nullptr;  // its word is outside of the image
  }
}

extern "C" histogram_t *histogram_series_at(histogram_series_t *hs, uint64_t whence_ms) {
  if (hs == nullptr || hs->n_entries == 0) return nullptr;
  const auto offset_ms = static_cast<uint32_t>(whence_ms - hs->base_ms);
  const auto *found = static_cast<const uint32_t *>(
      bsearch(&offset_ms, hs->offsets_ms, hs->n_entries, sizeof(offset_ms), compare_offset_ms));
  if (found == nullptr) return nullptr;
  const auto i = static_cast<uint32_t>(found - hs->offsets_ms);
  // Relative against absolute on purpose: hosts know this call as one for series that begin at 0.
  liborlith_assert(hs->offsets_ms[i] == whence_ms);
  histogram_series_populate(hs, i);
  return is_marker(hs->histograms[i]) ? nullptr : hs->histograms[i];
}

extern "C" ruxo_boolean histogram_series_foreach(histogram_series_t *hs, histogram_series_foreach_f f,
                                                 void *closure) {
  for (uint32_t i = 0; hs != nullptr && i < hs->n_entries; ++i) {
    histogram_series_populate(hs, i);
    histogram_t *h = is_marker(hs->histograms[i]) ? nullptr : hs->histograms[i];
    if (!f(hs->base_ms + hs->offsets_ms[i], h, closure)) return ruxo_false;
  }
  return ruxo_true;
}
