// From an image to a series, and from an entry's data to its histogram.
#include <algorithm>
#include <bit>
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
  const uint8_t *image_end;
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
  out->image_end = image + hs->buff_len;
  out->n = hss::load<uint16_t>(out->counts_end);
  // A bucket has an exponent, a mantissa and a count of at least a byte.
  if (end - start - hss::kBucketCountBytes < out->n * 3) return false;
  out->exponents = image + start;
  out->mantissas = out->exponents + out->n;
  out->counts = out->mantissas + out->n;
  return true;
}

// Most histograms have at most so many buckets.
constexpr size_t kFew = 512;

// Buckets being put together, without memory from the heap where they are few.
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
  std::unique_ptr<hist_code_t[]> many_codes_;
  std::unique_ptr<uint64_t[]> many_counts_;
  hist_code_t few_codes_[kFew];
  uint64_t few_counts_[kFew];

 public:
  hist_code_t *codes = few_codes_;
  uint64_t *counts = few_counts_;
  size_t n = 0;
};

constexpr unsigned kMinMantissa = 10;
constexpr unsigned kMaxMantissa = 99;

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

// What hist_add_as_int64() and hist_remove_zeroes() make of a copy of `prior`, taken for unsigned counts: false when a
// count leaves its range, or when memory ran out.
bool add_by_merging(const histogram_t *prior, const Buckets &difference, Buckets &sum) {
  const hist_code_t *codes = hist_codes(prior);
  const uint64_t *counts = hist_counts(prior);
  const auto n = static_cast<size_t>(hist_bucket_count(prior));
  if (!sum.reserve(n + difference.n)) return false;
  bool good = true;
  const auto put = [&](hist_code_t code, uint64_t count, uint64_t change) {
    uint64_t &total = sum.counts[sum.n];
    sum.codes[sum.n] = code;
    good &= add_change(count, change, &total);
    sum.n += total != 0;
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

// ---- Eight bytes at a time

constexpr uint64_t kEach = 0x0101010101010101;
constexpr uint64_t kTops = 0x80 * kEach;

// The next eight bytes, 0 where there are none.
uint64_t load_eight(const uint8_t *at, const uint8_t *end) {
  if (end - at >= 8) return hss::load<uint64_t>(at);
  uint64_t bytes = 0;
  memcpy(&bytes, at, static_cast<size_t>(end - at));
  return bytes;
}

// How many bytes from the first on are the same.
size_t repetitions(uint64_t bytes) {
  const uint64_t others = bytes ^ (bytes & 0xff) * kEach;
  return others == 0 ? 8 : static_cast<size_t>(std::countr_zero(others)) / 8;
}

// Whether one is above `limit`, which is at most 127.
bool any_above(uint64_t bytes, unsigned limit) {
  return ((((bytes & ~kTops) + (0x7f - limit) * kEach) | bytes) & kTops) != 0;
}

bool any_zero(uint64_t bytes) {
  return ((bytes - kEach) & ~bytes & kTops) != 0;
}

unsigned byte_of(uint64_t bytes, size_t i) {
  return static_cast<unsigned>(bytes >> (8 * i)) & 0xff;
}

// Adds the counts of a difference to those that they belong to, in groups of up to eight buckets of one decade. For the
// usual case: all buckets are positive, and all are there.
class Adder {
 public:
  // Columns of `n` buckets, none of them 0.
  Adder(const Data &data, const hist_code_t *codes, uint64_t *counts, size_t n)
      : data_(data), codes_(codes), counts_(counts), n_(n), at_(data.counts) {}

  // False when it is not the usual case, when counts end too late or too early, and when a sum leaves the range of a
  // count. The counts are of no use then.
  bool add_all() {
    for (size_t i = 0; i < data_.n;) {
      const uint64_t exponents = load_eight(data_.exponents + i, data_.image_end);
      const size_t len = std::min(repetitions(exponents), data_.n - i);
      const unsigned decade = 0x8000u | (byte_of(exponents, 0) ^ 0x80u) << 7;
      if (decade != decade_) start_decade(decade);
      if (!add_group(i, len)) return false;
      i += len;
    }
    return good_ && at_ == data_.counts_end;
  }

  // Whether a sum is 0.
  bool makes_zero() const { return makes_zero_; }

 private:
  void start_decade(unsigned decade) {
    constexpr unsigned kCodesOfADecade = 128;
    constexpr unsigned kBuckets = kMaxMantissa - kMinMantissa + 1;
    // Without a gap between the decades their buckets are neighbours.
    if (decade == decade_ + kCodesOfADecade) shift_ += kCodesOfADecade - kBuckets;
    decade_ = decade;
    mantissa_ = 0;
  }

  bool add_group(size_t i, size_t len) {
    const uint64_t used = ~uint64_t{0} >> (64 - 8 * len);
    const uint64_t steps = load_eight(data_.mantissas + i, data_.image_end) & used;
    // Each mantissa is the sum of the steps up to it. With no step above the limit the first sum that is too large is
    // seen to be before anything is carried from one byte to the next.
    const uint64_t mantissas = (steps + mantissa_) * kEach;
    if (any_above(steps, kMaxMantissa) || any_zero(steps | ~used) || any_above(mantissas, kMaxMantissa))
      return false;
    const unsigned first = byte_of(mantissas, 0);
    const unsigned last = byte_of(mantissas, 7);  // steps that are not used are 0
    if (first < kMinMantissa || !find(decade_ | first)) return false;
    mantissa_ = last;
    // Codes ascend: where two are as far apart as their places, none between them is missing.
    const size_t last_place = place_ + (last - first);
    if (last_place >= n_ || codes_[last_place] != (decade_ | last)) return add_one_by_one(mantissas, len);
    if (!add_short(mantissas, used, len)) {
      for (size_t k = 0; k < len; ++k)
        if (!add_count(place_ + (byte_of(mantissas, k) - first))) return false;
    }
    place_ = last_place;
    next_ = last_place + 1;
    return true;
  }

  bool add_one_by_one(uint64_t mantissas, size_t len) {
    for (size_t k = 0; k < len; ++k) {
      if (!find(decade_ | byte_of(mantissas, k)) || !add_count(place_)) return false;
      next_ = place_ + 1;
    }
    return true;
  }

  // Finds a bucket from next_ on. Between neighbours in a decade there is mostly no gap.
  bool find(unsigned code) {
    size_t place = code - shift_;
    if (place < next_ || place >= n_ || codes_[place] != code) {
      place = search(code);
      if (place == n_ || codes_[place] != code) return false;
      shift_ = code - place;
    }
    place_ = place;
    return true;
  }

  // The first place from next_ on that has no code below this one. How far that is cannot be foreseen, so that it is
  // counted, not stopped at.
  size_t search(unsigned code) const {
    constexpr size_t kStride = 8;
    size_t place = next_;
    while (n_ - place >= kStride) {
      size_t below = 0;
#pragma GCC unroll 8
      for (size_t k = 0; k < kStride; ++k) below += codes_[place + k] < code;
      place += below;
      if (below < kStride) return place;
    }
    while (place < n_ && codes_[place] < code) ++place;
    return place;
  }

  // When all counts are positive ones in a byte each; else does nothing. The buckets are neighbours from place_ on.
  bool add_short(uint64_t mantissas, uint64_t used, size_t len) {
    const uint64_t bytes = load_eight(at_, data_.image_end) & used;
    const uint64_t are_short = (((bytes & 0x70 * kEach) + 0x70 * kEach) | bytes) & kTops;
    if (are_short != (kTops & used) || (bytes & hss::kNegative * kEach) != 0) return false;
    const uint64_t amounts = bytes >> 4 & 0x0f * kEach;
    const size_t shift = place_ - byte_of(mantissas, 0);
    bool wraps = false;
    // Without an end that cannot be foreseen: those that are not used add 0 to the last bucket.
#pragma GCC unroll 8
    for (size_t k = 0; k < 8; ++k) {
      uint64_t &count = counts_[shift + byte_of(mantissas, k)];
      wraps |= __builtin_add_overflow(count, byte_of(amounts, k), &count);
    }
    good_ &= !wraps;
    at_ += len;
    return true;
  }

  bool add_count(size_t place) {
    int64_t change;
    at_ = hss::hss_read_bvcount(at_, data_.counts_end, &change);
    if (at_ == nullptr) return false;
    good_ &= add_change(counts_[place], static_cast<uint64_t>(change), &counts_[place]);
    makes_zero_ |= counts_[place] == 0;
    return true;
  }

  const Data data_;
  const hist_code_t *const codes_;
  uint64_t *const counts_;
  const size_t n_;
  const uint8_t *at_;    // the next count
  unsigned decade_ = 0;  // of the group before: none
  uint64_t mantissa_ = 0;
  size_t next_ = 0;   // no bucket before it may follow
  size_t place_ = 0;  // of the last bucket that was found
  size_t shift_ = 0;  // from a place to the code there
  bool good_ = true;
  bool makes_zero_ = false;
};

// The usual case of a difference, from its bytes to a copy of `prior`. Null when it is another, and whenever anything
// is wrong: the long way then finds out what.
hss::HistogramPtr add_to_copy(const Data &data, const histogram_t *prior) {
  if (hist_is_difference(prior)) return nullptr;
  hss::HistogramPtr sum(hist_clone(prior));
  if (sum == nullptr) return nullptr;
  hist_remove_zeroes(sum.get());
  Adder adder(data, hist_codes(sum.get()), hist_mutable_counts(sum.get()),
              static_cast<size_t>(hist_bucket_count(sum.get())));
  if (!adder.add_all()) return nullptr;
  if (adder.makes_zero()) hist_remove_zeroes(sum.get());
  return sum;
}

}  // namespace

hss::HistogramPtr hss::decode_entry(const histogram_series_t *hs, uint32_t i, const histogram_t *prior) {
  const uint32_t encoding = word_of(hs, i) & kEncodingMask;
  if (encoding != kWhole && encoding != kDifference) return nullptr;
  if (encoding == kDifference && prior == nullptr) return nullptr;
  Data data;
  if (!find_data(hs, i, &data)) return nullptr;
  if (encoding == kDifference) {
    if (HistogramPtr sum = add_to_copy(data, prior)) return sum;
  }
  Buckets stored;
  if (!read_buckets(data, stored)) return nullptr;
  if (encoding == kWhole) return stored.histogram();
  Buckets sum;
  return add_by_merging(prior, stored, sum) ? sum.histogram() : nullptr;
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
