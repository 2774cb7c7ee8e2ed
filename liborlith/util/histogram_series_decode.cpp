// From an image to a series, and from an entry's data to its histogram.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "liborlith/util/histogram_series_count_private.h"
#include "liborlith/util/histogram_series_private.h"
#include "ruxo/lz4f.h"

namespace {

// An entry's data, cut into its columns.
struct Data {
  const uint8_t *exponents;
  const uint8_t *mantissas;
  const uint8_t *counts;
  const uint8_t *counts_end;
  size_t n;
};

// False when the entry's words are not inside the image, run backwards, or leave no room for the columns.
bool find_data(const histogram_series_t *hs, uint32_t i, Data *out) {
  const size_t data_at = hss::data_start(hss::image_entries(hs));
  const size_t start = data_at + (i > 0 ? hss::word_of(hs, i - 1) & hss::kEndMask : 0);
  const size_t end = data_at + (hss::word_of(hs, i) & hss::kEndMask);
  if (end > hs->buff_len || start > end || end - start < hss::kBucketCountBytes) return false;
  const uint8_t *image = hss::image_of(hs);
  out->counts_end = image + end - hss::kBucketCountBytes;
  out->n = hss::load<uint16_t>(out->counts_end);
  // A bucket has an exponent, a mantissa and a count of at least a byte.
  if (end - start - hss::kBucketCountBytes < out->n * 3) return false;
  out->exponents = image + start;
  out->mantissas = out->exponents + out->n;
  out->counts = out->mantissas + out->n;
  return true;
}

// Buckets being put together. Most histograms have few, and need no memory for it.
class Buckets {
 public:
  // Room for so many; false when memory ran out.
  bool reserve(size_t room) {
    if (room <= kFew) return true;
    many_codes_.reset(new (std::nothrow) hist_code_t[room]);
    many_counts_.reset(new (std::nothrow) uint64_t[room]);
    codes = many_codes_.get();
    counts = many_counts_.get();
    return codes != nullptr && counts != nullptr;
  }
  hss::HistogramPtr histogram() const {
    return hss::HistogramPtr(hist_of_columns(codes, counts, static_cast<int>(n)));
  }

 private:
  static constexpr size_t kFew = 512;
  std::unique_ptr<hist_code_t[]> many_codes_;
  std::unique_ptr<uint64_t[]> many_counts_;
  hist_code_t few_codes_[kFew];
  uint64_t few_counts_[kFew];

 public:
  hist_code_t *codes = few_codes_;
  uint64_t *counts = few_counts_;
  size_t n = 0;
};

bool is_bucket(hist_bucket_t bucket) {
  const bool is_positive = bucket.val >= 10 && bucket.val <= 99;
  const bool is_negative = bucket.val <= -10 && bucket.val >= -99;
  return is_positive || is_negative || (bucket.exp == 0 && (bucket.val == 0 || bucket.val == -1));
}

// False when a count ends too late, a bucket does not exist or is not behind the one before it, when the counts are not
// all there is, or when memory ran out.
bool read_buckets(const Data &data, Buckets &out) {
  if (!out.reserve(data.n)) return false;
  hist_bucket_t bucket{};
  int before = -1;
  for (size_t i = 0; i < data.n; ++i) {
    const auto exponent = static_cast<int8_t>(data.exponents[i]);
    const bool repeats = i > 0 && exponent == bucket.exp;
    const unsigned mantissa = data.mantissas[i] + (repeats ? static_cast<uint8_t>(bucket.val) : 0u);
    bucket = {.val = static_cast<int8_t>(mantissa), .exp = exponent};
    if (!is_bucket(bucket)) return false;
    const hist_code_t code = hist_code_of_bucket(bucket);
    if (code <= before) return false;
    before = code;
    out.codes[i] = code;
  }
  const uint8_t *at = data.counts;
  for (size_t i = 0; i < data.n; ++i) {
    int64_t count;
    at = hss::hss_read_bvcount(at, data.counts_end, &count);
    if (at == nullptr) return false;
    out.counts[i] = static_cast<uint64_t>(count);
  }
  out.n = data.n;
  return at == data.counts_end;
}

// False when the sum leaves the range of a count: it is smaller than the count exactly when the change is negative, or
// else it has wrapped.
bool add_change(uint64_t count, uint64_t change, uint64_t *sum) {
  *sum = count + change;
  return (static_cast<int64_t>(change) < 0) == (*sum < count);
}

// Adds to the buckets that are there, the usual case. False when one of the difference is not, or when a count leaves
// its range; some have been added to then.
bool add_to_known(const Buckets &difference, Buckets &sum) {
  if (sum.n == 0 || difference.n == 0) return difference.n == 0;
  if (difference.codes[0] < sum.codes[0]) return false;
  const hist_code_t *at = sum.codes;
  const hist_code_t *const last = at + sum.n - 1;
  for (size_t k = 0; k < difference.n; ++k) {
    const hist_code_t code = difference.codes[k];
    // It is at most as many places ahead as the codes are apart, since they ascend, and exactly as many where no
    // bucket is missing in between; where some are, it is mostly near.
    const auto apart = static_cast<std::ptrdiff_t>(code - *at);
    const hist_code_t *ahead = at + std::min(apart, last - at);
    if (*ahead == code) at = ahead;
    while (at != ahead && *at < code) ++at;
    uint64_t &count = sum.counts[at - sum.codes];
    if (*at != code || !add_change(count, difference.counts[k], &count)) return false;
  }
  return true;
}

bool add_by_merging(const histogram_t *prior, const Buckets &difference, Buckets &sum) {
  const hist_code_t *codes = hist_codes(prior);
  const uint64_t *counts = hist_counts(prior);
  const auto n = static_cast<size_t>(hist_bucket_count(prior));
  bool good = true;
  sum.n = 0;
  const auto put = [&](hist_code_t code, uint64_t count, uint64_t change) {
    sum.codes[sum.n] = code;
    good &= add_change(count, change, &sum.counts[sum.n]);
    ++sum.n;
  };
  size_t i = 0;
  for (size_t k = 0; k < difference.n; ++k) {
    const hist_code_t code = difference.codes[k];
    for (; i < n && codes[i] < code; ++i) put(codes[i], counts[i], 0);
    const bool is_known = i < n && codes[i] == code;
    put(code, is_known ? counts[i] : 0, difference.counts[k]);
    i += is_known;
  }
  for (; i < n; ++i) put(codes[i], counts[i], 0);
  return good;
}

void remove_zeroes(Buckets &buckets) {
  if (std::find(buckets.counts, buckets.counts + buckets.n, 0) == buckets.counts + buckets.n) return;
  size_t kept = 0;
  for (size_t i = 0; i < buckets.n; ++i) {
    buckets.codes[kept] = buckets.codes[i];
    buckets.counts[kept] = buckets.counts[i];
    kept += buckets.counts[i] != 0;
  }
  buckets.n = kept;
}

// What hist_add_as_int64() and hist_remove_zeroes() make of a copy of `prior`: false when a count leaves its range, or
// when memory ran out.
bool add_difference(const histogram_t *prior, const Buckets &difference, Buckets &sum) {
  const auto n = static_cast<size_t>(hist_bucket_count(prior));
  if (!sum.reserve(n + difference.n)) return false;
  std::copy_n(hist_codes(prior), n, sum.codes);
  std::copy_n(hist_counts(prior), n, sum.counts);
  sum.n = n;
  if (!add_to_known(difference, sum) && !add_by_merging(prior, difference, sum)) return false;
  remove_zeroes(sum);
  return true;
}

}  // namespace

hss::HistogramPtr hss::decode_entry(const histogram_series_t *hs, uint32_t i, const histogram_t *prior) {
  const uint32_t encoding = word_of(hs, i) & kEncodingMask;
  if (encoding != kWhole && encoding != kDifference) return nullptr;
  if (encoding == kDifference && prior == nullptr) return nullptr;
  Data data;
  Buckets stored;
  if (!find_data(hs, i, &data) || !read_buckets(data, stored)) return nullptr;
  if (encoding == kWhole) return stored.histogram();
  Buckets sum;
  return add_difference(prior, stored, sum) ? sum.histogram() : nullptr;
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
  hs->histograms = static_cast<histogram_t **>(malloc(n_entries * sizeof(void *)));
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
  std::unique_ptr<void, hss::Free> owner(block);
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
