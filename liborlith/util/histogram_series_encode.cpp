// From a series to its image.
#include <algorithm>
#include <cstdlib>
#include <new>
#include <type_traits>

#include "liborlith/util/histogram_series_columns_private.h"
#include "liborlith/util/histogram_series_count_private.h"
#include "liborlith/util/histogram_series_private.h"
#include "ruxo/lz4f.h"

namespace {

// What an entry and a bucket take at most, as the bound on the image counts them.
constexpr size_t kEntryBytes = hss::kIndexBytesPerEntry + hss::kBucketCountBytes;
constexpr size_t kBucketBytes = 2 + hss::kMaxCountBytes;

using hss::Columns;

Columns columns_of(const histogram_t *h) {
  return {hist_codes(h), hist_counts(h), static_cast<size_t>(hist_bucket_count(h))};
}

// Room for the difference of any two neighbours: for the buckets of both.
class Scratch {
 public:
  // False when memory ran out.
  bool reserve(const histogram_series_t *hs) {
    size_t widest = 1;
    for (uint32_t i = 0; i < hs->n_entries; ++i)
      widest = std::max(widest, static_cast<size_t>(hist_bucket_count(hs->histograms[i])));
    codes_.reset(new (std::nothrow) hist_code_t[2 * widest + hss::kColumnPadding]);
    counts_.reset(new (std::nothrow) uint64_t[2 * widest + hss::kColumnPadding]);
    return codes_ != nullptr && counts_ != nullptr;
  }
  hist_code_t *codes() { return codes_.get(); }
  uint64_t *counts() { return counts_.get(); }

 private:
  std::unique_ptr<hist_code_t[]> codes_;
  std::unique_ptr<uint64_t[]> counts_;
};

// The counts of one column less those of another, without the zeros.
template <typename Count, typename PriorCount>
class Changes {
 public:
  explicit Changes(Scratch &scratch) : codes_(scratch.codes()), counts_(scratch.counts()) {}

  // Where the codes are the same for a while, as they mostly are, the counts are subtracted without looking at them.
  void subtract(const Columns &h, const Columns &prior) {
    size_t i = 0;
    size_t k = 0;
    while (i < h.n && k < prior.n) {
      const size_t same = common_codes(h, i, prior, k);
      subtract_in_step({h.codes + i, h.counts + i, same}, prior.counts + k);
      i += same;
      k += same;
      while (i < h.n && k < prior.n && h.codes[i] != prior.codes[k]) {
        const bool has_h = h.codes[i] < prior.codes[k];
        put(has_h ? h.codes[i] : prior.codes[k], has_h ? h.counts[i] : 0, has_h ? 0 : prior.counts[k]);
        i += has_h;
        k += !has_h;
      }
    }
    for (; i < h.n; ++i) put(h.codes[i], h.counts[i], 0);
    for (; k < prior.n; ++k) put(prior.codes[k], 0, prior.counts[k]);
  }

  // False when a difference does not fit into 64 signed bits.
  bool finish(Columns *difference) const {
    *difference = {codes_, counts_, n_};
    return !overflows_;
  }

 private:
  static size_t common_codes(const Columns &h, size_t i, const Columns &prior, size_t k) {
    const size_t most = std::min(h.n - i, prior.n - k);
    const hist_code_t *const a = h.codes + i;
    const hist_code_t *const b = prior.codes + k;
    if (i + k == 0 && h.n == prior.n && memcmp(a, b, most * sizeof(*a)) == 0) return most;
    constexpr size_t kWord = sizeof(uint64_t) / sizeof(*a);
    size_t n = 0;
    while (n + kWord <= most && memcmp(a + n, b + n, sizeof(uint64_t)) == 0) n += kWord;
    while (n < most && a[n] == b[n]) ++n;
    return n;
  }

  // The counts of the same buckets.
  void subtract_in_step(const Columns &h, const uint64_t *prior_counts) {
    if constexpr (std::is_same_v<Count, uint64_t> && std::is_same_v<PriorCount, uint64_t>) {
      if (h.n >= kWorthACall) {
        bool overflows;
        n_ += hss::column_code().subtract(h, prior_counts, codes_ + n_, counts_ + n_, &overflows);
        overflows_ |= overflows;
        return;
      }
    }
    for (size_t i = 0; i < h.n; ++i) put(h.codes[i], h.counts[i], prior_counts[i]);
  }

  void put(hist_code_t code, uint64_t count, uint64_t prior_count) {
    int64_t change;
    overflows_ |=
        __builtin_sub_overflow(static_cast<Count>(count), static_cast<PriorCount>(prior_count), &change);
    codes_[n_] = code;
    counts_[n_] = static_cast<uint64_t>(change);
    n_ += change != 0;
  }

  static constexpr size_t kWorthACall = 8;

  hist_code_t *codes_;
  uint64_t *counts_;
  size_t n_ = 0;
  bool overflows_ = false;
};

// What hist_subtract_as_int64() makes of `h` and `prior`, whose counts are read as Count and as PriorCount. False
// when a difference does not fit into 64 signed bits.
template <typename Count, typename PriorCount>
bool subtract(const Columns &h, const Columns &prior, Scratch &scratch, Columns *difference) {
  Changes<Count, PriorCount> changes(scratch);
  changes.subtract(h, prior);
  return changes.finish(difference);
}

// The difference of `h` and the one before it, when it is worth storing: when it has fewer buckets.
bool find_difference(const histogram_t *h, const histogram_t *prior, Scratch &scratch, Columns *difference) {
  const Columns current = columns_of(h);
  const Columns before = columns_of(prior);
  bool fits;
  if (hist_is_difference(h)) {
    fits = hist_is_difference(prior) ? subtract<int64_t, int64_t>(current, before, scratch, difference)
                                     : subtract<int64_t, uint64_t>(current, before, scratch, difference);
  } else {
    fits = hist_is_difference(prior) ? subtract<uint64_t, int64_t>(current, before, scratch, difference)
                                     : subtract<uint64_t, uint64_t>(current, before, scratch, difference);
  }
  return fits && difference->n < current.n;
}

// Writes the columns of a histogram at `at`; returns the place behind them, or null when they do not fit before `end`.
uint8_t *write_columns(uint8_t *at, const uint8_t *end, const Columns &h) {
  if (static_cast<size_t>(end - at) >= hss::writing_room(h.n)) return hss::column_code().write(at, h);
  if (static_cast<size_t>(end - at) < 2 * h.n) return nullptr;
  uint8_t *exponents = at;
  uint8_t *mantissas = at + h.n;
  hist_bucket_t previous{};
  for (size_t i = 0; i < h.n; ++i) {
    const hist_bucket_t bucket = hist_bucket_of_code(h.codes[i]);
    const bool repeats = i > 0 && bucket.exp == previous.exp;
    exponents[i] = static_cast<uint8_t>(bucket.exp);
    mantissas[i] = static_cast<uint8_t>(bucket.val - (repeats ? previous.val : 0));
    previous = bucket;
  }
  at = mantissas + h.n;
  for (size_t i = 0; i < h.n; ++i) {
    at = hss::hss_write_bvcount(at, end, static_cast<int64_t>(h.counts[i]));
    if (at == nullptr) return nullptr;
  }
  return at;
}

// The same, with the bucket count behind the columns.
uint8_t *write_histogram(uint8_t *at, const uint8_t *end, const Columns &h) {
  static_assert(HIST_MAX_BUCKETS <= UINT16_MAX);
  at = write_columns(at, end, h);
  if (at == nullptr || static_cast<size_t>(end - at) < hss::kBucketCountBytes) return nullptr;
  hss::store(at, static_cast<uint16_t>(h.n));
  return at + hss::kBucketCountBytes;
}

enum class Written { yes, buffer_too_small, never };

// Builds the image in the caller's buffer.
class ImageWriter {
 public:
  ImageWriter(uint8_t *buff, size_t buff_len) : image_(buff), end_(buff + buff_len) {}

  Written write(const histogram_series_t *hs) {
    const size_t data_at = hss::data_start(hs->n_entries);
    if (data_at > HISTOGRAM_SERIES_MAX_IMAGE_BYTES) return Written::never;
    if (static_cast<size_t>(end_ - image_) < data_at) return Written::buffer_too_small;
    if (!scratch_.reserve(hs)) return Written::never;
    write_header(hs);
    data_ = at_ = image_ + data_at;
    uint32_t last_whole = 0;
    for (uint32_t i = 0; i < hs->n_entries; ++i) {
      const bool chained = i > 0 && i - last_whole < hss::kChainEntries;
      uint32_t encoding = hss::kWhole;
      if (!write_entry(hs->histograms[i], chained ? hs->histograms[i - 1] : nullptr, &encoding)) {
        return Written::buffer_too_small;
      }
      if (encoding == hss::kWhole) last_whole = i;
      if (len() > HISTOGRAM_SERIES_MAX_IMAGE_BYTES) return Written::never;
      hss::store(image_ + hss::word_at(hs->n_entries, i), encoding | static_cast<uint32_t>(at_ - data_));
    }
    return Written::yes;
  }
  size_t len() const { return static_cast<size_t>(at_ - image_); }

 private:
  void write_header(const histogram_series_t *hs) {
    hss::store(image_ + hss::kBaseAt, hs->base_ms);
    hss::store(image_ + hss::kWindowAt, hs->window_ms);
    hss::store(image_ + hss::kEntryCountAt, hs->n_entries);
    uint32_t previous = 0;
    for (uint32_t i = 0; i < hs->n_entries; ++i) {
      hss::store(image_ + hss::offset_at(i), hs->offsets_ms[i] - previous);
      previous = hs->offsets_ms[i];
    }
  }

  bool write_entry(histogram_t *h, const histogram_t *prior, uint32_t *encoding) {
    Columns stored;
    *encoding = hss::kDifference;
    if (prior == nullptr) hist_remove_zeroes(h);
    if (prior == nullptr || !find_difference(h, prior, scratch_, &stored)) {
      *encoding = hss::kWhole;
      stored = columns_of(h);
    }
    uint8_t *after = write_histogram(at_, end_, stored);
    if (after == nullptr) return false;
    at_ = after;
    return true;
  }

  Scratch scratch_;
  uint8_t *image_;
  const uint8_t *end_;
  uint8_t *data_ = nullptr;
  uint8_t *at_ = nullptr;
};
static_assert(HISTOGRAM_SERIES_MAX_IMAGE_BYTES <= hss::kEndMask, "every end fits its word");

// Compresses the image at the start of `buff` and puts the result in its place, if it fits. Returns its length; 0 on
// failure.
size_t compress_in_place(uint8_t *buff, size_t image_len, size_t buff_len) {
  const size_t bound = ruxo_lz4f_compress_bound(image_len);
  const std::unique_ptr<void, hss::Free> frame(malloc(bound));
  if (frame == nullptr) return 0;
  const size_t frame_len = ruxo_lz4f_compress(buff, image_len, frame.get(), bound);
  if (frame_len <= buff_len) memcpy(buff, frame.get(), frame_len);
  return frame_len;
}

// The bound for a series whose entries are all decoded.
size_t max_size(const histogram_series_t *hs) {
  size_t n_buckets = 0;
  for (uint32_t i = 0; i < hs->n_entries; ++i) {
    n_buckets += static_cast<size_t>(hist_bucket_count(hs->histograms[i]));  // 0 for null
  }
  return ruxo_lz4f_compress_bound(hss::kHeaderBytes + kEntryBytes * hs->n_entries + kBucketBytes * n_buckets);
}

bool has_damaged_entry(const histogram_series_t *hs) {
  return std::count(hs->histograms, hs->histograms + hs->n_entries, nullptr) != 0;
}

}  // namespace

extern "C" size_t histogram_series_serialize_maxsize(histogram_series_t *hs) {
  if (hs == nullptr) return 0;
  hss::decode_all(hs);
  return max_size(hs);
}

extern "C" ruxo_boolean histogram_series_serialize(histogram_series_t *hs, void *buff, size_t buff_len,
                                                   size_t *actual_size) {
  *actual_size = 0;
  if (hs == nullptr) return ruxo_false;
  hss::decode_all(hs);
  *actual_size = max_size(hs);
  auto *image = static_cast<uint8_t *>(buff);
  ImageWriter writer(image, buff_len);
  const Written written = has_damaged_entry(hs) ? Written::never : writer.write(hs);
  if (written == Written::buffer_too_small) return ruxo_false;
  *actual_size = written == Written::yes ? compress_in_place(image, writer.len(), buff_len) : 0;
  return *actual_size != 0;
}
