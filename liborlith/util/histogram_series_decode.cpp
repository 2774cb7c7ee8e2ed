// From an image to a series, and from an entry's data to its histogram.
#include <cstdlib>

#include "liborlith/util/histogram_series_count_private.h"
#include "liborlith/util/histogram_series_private.h"
#include "ruxo/lz4f.h"

namespace {

struct Free {
  void operator()(void *block) const { free(block); }
};

// An entry's data, cut into its columns.
struct Columns {
  const uint8_t *exponents;
  const uint8_t *mantissas;
  const uint8_t *counts;
  const uint8_t *counts_end;
  uint16_t n_buckets;
};

// False when the entry's words are not inside the image, run backwards, or leave no room for the columns.
bool find_columns(const histogram_series_t *hs, uint32_t i, Columns *out) {
  const size_t data_at = hss::data_start(hss::image_entries(hs));
  const size_t start = data_at + (i > 0 ? hss::word_of(hs, i - 1) & hss::kEndMask : 0);
  const size_t end = data_at + (hss::word_of(hs, i) & hss::kEndMask);
  if (end > hs->buff_len || start > end || end - start < hss::kBucketCountBytes) return false;
  const uint8_t *image = hss::image_of(hs);
  out->counts_end = image + end - hss::kBucketCountBytes;
  out->n_buckets = hss::load<uint16_t>(out->counts_end);
  // A bucket has an exponent, a mantissa and a count of at least a byte.
  if (end - start - hss::kBucketCountBytes < size_t{out->n_buckets} * 3) return false;
  out->exponents = image + start;
  out->mantissas = out->exponents + out->n_buckets;
  out->counts = out->mantissas + out->n_buckets;
  return true;
}

// Null when a count ends too late, a bucket does not exist or is not behind the one before it, or when the counts
// are not all there is.
hss::HistogramPtr read_buckets(const Columns &columns) {
  hss::HistogramPtr h(hist_alloc_bins(columns.n_buckets));
  if (h == nullptr) return nullptr;
  const uint8_t *at = columns.counts;
  hist_bucket_t bucket{};
  for (size_t i = 0; i < columns.n_buckets; ++i) {
    const auto exponent = static_cast<int8_t>(columns.exponents[i]);
    const bool repeats = i > 0 && exponent == bucket.exp;
    const unsigned mantissa = columns.mantissas[i] + (repeats ? static_cast<uint8_t>(bucket.val) : 0u);
    bucket = {.val = static_cast<int8_t>(mantissa), .exp = exponent};
    int64_t count;
    at = hss::hss_read_bvcount(at, columns.counts_end, &count);
    if (at == nullptr) return nullptr;
    if (hist_insert_raw_end(h.get(), bucket, static_cast<uint64_t>(count)) < 0) return nullptr;
  }
  return at == columns.counts_end ? std::move(h) : nullptr;
}

hss::HistogramPtr add_difference(const histogram_t *prior, const histogram_t *difference) {
  hss::HistogramPtr sum(hist_clone(prior));
  if (sum == nullptr || hist_add_as_int64(sum.get(), &difference, 1) < 0) return nullptr;
  hist_remove_zeroes(sum.get());
  return sum;
}

}  // namespace

hss::HistogramPtr hss::decode_entry(const histogram_series_t *hs, uint32_t i, const histogram_t *prior) {
  const uint32_t encoding = word_of(hs, i) & kEncodingMask;
  if (encoding != kWhole && encoding != kDifference) return nullptr;
  if (encoding == kDifference && prior == nullptr) return nullptr;
  Columns columns;
  if (!find_columns(hs, i, &columns)) return nullptr;
  HistogramPtr h = read_buckets(columns);
  if (h == nullptr || encoding == kWhole) return h;
  return add_difference(prior, h.get());
}

// ---- The image

namespace {

// Whether the header and the last entry's word fit the image and its length. The entries in between are looked at
// when they are decoded.
bool is_image(const uint8_t *image, size_t len) {
  if (len < hss::kHeaderBytes) return false;
  const auto base_ms = hss::load<uint64_t>(image + hss::kBaseAt);
  const auto window_ms = hss::load<uint32_t>(image + hss::kWindowAt);
  if (window_ms == 0 || base_ms % window_ms != 0) return false;
  const auto n_entries = hss::load<uint32_t>(image + hss::kEntryCountAt);
  const size_t data_at = hss::data_start(n_entries);
  if (data_at > len) return false;
  if (n_entries == 0) return data_at == len;
  const auto last_word = hss::load<uint32_t>(image + hss::word_at(n_entries, n_entries - 1));
  if (data_at + (last_word & hss::kEndMask) != len) return false;
  // Decoding a difference from nothing is fatal, and must not be in the hands of who made the image.
  const auto first_word = hss::load<uint32_t>(image + hss::word_at(n_entries, 0));
  return (first_word & hss::kEncodingMask) != hss::kDifference;
}

// Arrays for the entries of an image, none of them decoded. False when memory ran out.
bool fill_entries(histogram_series_t *hs, uint32_t n_entries) {
  if (n_entries == 0) return true;
  hs->histograms = static_cast<histogram_t **>(malloc(n_entries * sizeof(*hs->histograms)));
  hs->offsets_ms = static_cast<uint32_t *>(malloc(n_entries * sizeof(*hs->offsets_ms)));
  if (hs->histograms == nullptr || hs->offsets_ms == nullptr) return false;
  hs->n_entries = n_entries;
  uint32_t offset_ms = 0;
  for (uint32_t i = 0; i < n_entries; ++i) {
    offset_ms += hss::load<uint32_t>(hss::image_of(hs) + hss::offset_at(i));
    hs->offsets_ms[i] = offset_ms;
    hs->histograms[i] = HISTOGRAM_SERIES_NOT_DECODED;
  }
  return true;
}

}  // namespace

extern "C" histogram_series_t *histogram_series_deserialize(const void *buff, size_t buff_len) {
  void *block = nullptr;
  size_t len = 0;
  if (ruxo_lz4f_decompress(buff, buff_len, HISTOGRAM_SERIES_MAX_IMAGE_BYTES, &block, &len) != RUXO_LZ4F_OK) {
    return nullptr;
  }
  std::unique_ptr<void, Free> owner(block);
  const auto *image = static_cast<const uint8_t *>(block);
  if (!is_image(image, len)) return nullptr;
  histogram_series_t *hs = histogram_series_alloc(hss::load<uint64_t>(image + hss::kBaseAt),
                                                  hss::load<uint32_t>(image + hss::kWindowAt));
  if (hs == nullptr) return nullptr;
  hs->buff = owner.release();
  hs->buff_len = len;
  // n_alloc stays 0: the arrays are not ones to grow (see histogram_series_add).
  if (fill_entries(hs, hss::load<uint32_t>(image + hss::kEntryCountAt))) return hs;
  histogram_series_free(hs);
  return nullptr;
}
