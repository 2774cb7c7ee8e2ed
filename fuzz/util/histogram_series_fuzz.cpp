// The image of a histogram series. First byte: 0 takes the rest as the compressed image, anything else compresses it
// first, so that what is changed is the image itself. What is read is looked at from the back, added to, written and
// read again.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "liborlith/util/histogram_series.h"
#include "ruxo/lz4f.h"

namespace {

using Bytes = std::vector<uint8_t>;

void require(bool condition) {
  if (!condition) abort();
}

Bytes compressed(const uint8_t *data, size_t size) {
  Bytes frame(ruxo_lz4f_compress_bound(size));
  frame.resize(ruxo_lz4f_compress(data, size, frame.data(), frame.size()));
  return frame;
}

bool is_same(const histogram_t *a, const histogram_t *b) {
  if (hist_bucket_count(a) != hist_bucket_count(b)) return false;
  for (int i = 0; i < hist_bucket_count(a); ++i) {
    hist_bucket_t left, right;
    uint64_t left_count, right_count;
    hist_bucket_at(a, i, &left, &left_count);
    hist_bucket_at(b, i, &right, &right_count);
    if (left.val != right.val || left.exp != right.exp) return false;
  }
  return true;
}

// Writes the series, if all of it is sound, and reads it back. Counts may have lost bits on the way, and a difference
// that did can be out of range, so only whole series of small counts are compared.
void write_and_read(histogram_series_t *hs, bool is_sound, bool has_small_counts) {
  Bytes out(histogram_series_serialize_maxsize(hs));
  size_t size = 0;
  require(histogram_series_serialize(hs, out.data(), out.size(), &size) == is_sound);
  require((size != 0) == is_sound);
  if (!is_sound) return;
  require(size <= out.size());
  histogram_series_t *back = histogram_series_deserialize(out.data(), size);
  require(back != nullptr && back->n_entries == hs->n_entries && back->base_ms == hs->base_ms);
  for (uint32_t i = 0; i < back->n_entries; ++i) {
    require(back->offsets_ms[i] == hs->offsets_ms[i]);
    histogram_series_populate(back, i);
    if (!has_small_counts) continue;
    histogram_t *expected = hist_clone(hs->histograms[i]);
    histogram_t *actual = back->histograms[i];
    require(actual != nullptr);
    hist_remove_zeroes(expected);
    hist_remove_zeroes(actual);
    require(is_same(actual, expected));
    hist_free(expected);
  }
  histogram_series_free(back);
}

bool are_small(const histogram_t *h) {
  for (int i = 0; i < hist_bucket_count(h); ++i) {
    uint64_t count;
    hist_bucket_at(h, i, nullptr, &count);
    if (count > UINT32_MAX) return false;
  }
  return true;
}

ruxo_boolean count_call(uint64_t, histogram_t *, void *closure) {
  ++*static_cast<uint32_t *>(closure);
  return ruxo_true;
}

void look(histogram_series_t *hs) {
  bool is_sound = true;
  bool has_small_counts = true;
  for (uint32_t i = hs->n_entries; i-- > 0;) {
    histogram_series_populate(hs, i);
    require(hs->histograms[i] != HISTOGRAM_SERIES_NOT_DECODED);
    is_sound &= hs->histograms[i] != nullptr;
    has_small_counts &= are_small(hs->histograms[i]);
  }
  uint32_t calls = 0;
  require(histogram_series_foreach(hs, count_call, &calls) && calls == hs->n_entries);
  write_and_read(hs, is_sound, has_small_counts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const Bytes frame = data[0] == 0 ? Bytes(data + 1, data + size) : compressed(data + 1, size - 1);
  histogram_series_t *hs = histogram_series_deserialize(frame.data(), frame.size());
  if (hs == nullptr) return 0;
  // Many entries take memory and time for nothing new.
  if (hs->n_entries < 2000) look(hs);
  histogram_t *h = hist_alloc();
  require(histogram_series_add(hs, hs->base_ms, h, ruxo_true) && hs->n_entries == 1);
  histogram_series_free(hs);
  return 0;
}
