// Histograms and series in tests: plain models of them, and an encoder of a few lines that knows nothing of the
// product's.
#ifndef TEST_UTIL_HISTOGRAM_SERIES_SUPPORT_H
#define TEST_UTIL_HISTOGRAM_SERIES_SUPPORT_H

#include <lz4frame.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "liborlith/util/histogram_series.h"

using Bytes = std::vector<uint8_t>;

struct SeriesFree {
  void operator()(histogram_series_t *hs) const { histogram_series_free(hs); }
};
using Series = std::unique_ptr<histogram_series_t, SeriesFree>;

// ---- Plain models

// A bucket, ordered by value: negative ones from the largest magnitude down, zero, positive ones, no number.
struct Bucket {
  int val, exp;
  std::array<int, 3> key() const {
    if (val == -1) return {2, 0, 0};
    if (val == 0) return {0, 0, 0};
    return val < 0 ? std::array<int, 3>{-1, -exp, val} : std::array<int, 3>{1, exp, val};
  }
  bool operator<(const Bucket &other) const { return key() < other.key(); }
  bool operator==(const Bucket &other) const { return val == other.val && exp == other.exp; }
};
using Counts = std::map<Bucket, int64_t>;

inline histogram_t *histogram_of(const Counts &counts) {
  histogram_t *h = hist_alloc();
  for (const auto &[bucket, count] : counts) {
    const hist_bucket_t raw = {static_cast<int8_t>(bucket.val), static_cast<int8_t>(bucket.exp)};
    if (hist_insert_raw_end(h, raw, static_cast<uint64_t>(count)) < 0) throw std::logic_error("bad bucket");
  }
  return h;
}

inline Counts counts_of(const histogram_t *h) {
  Counts result;
  for (int i = 0; i < hist_bucket_count(h); ++i) {
    hist_bucket_t bucket;
    uint64_t count;
    hist_bucket_at(h, i, &bucket, &count);
    result[{bucket.val, bucket.exp}] = static_cast<int64_t>(count);
  }
  return result;
}

using Model = std::map<uint32_t, Counts>;  // by offset

inline Series series_of(const Model &model, uint64_t base_ms = 0, uint32_t window_ms = 1000000) {
  Series hs(histogram_series_alloc(base_ms, window_ms));
  for (const auto &[offset, counts] : model) {
    if (!histogram_series_add(hs.get(), base_ms + offset, histogram_of(counts), true))
      throw std::logic_error("not added");
  }
  return hs;
}

// ---- The image

inline void append_number(Bytes &out, uint64_t number, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

inline void append_count(Bytes &out, int64_t count) {
  auto c = static_cast<uint64_t>(count);
  uint8_t flag = 0;
  if (c >> 56 == 255) c = ~c, flag = 8;
  if (c >= 1 && c <= 15) return out.push_back(static_cast<uint8_t>(c * 16 + flag));
  const uint64_t limits[] = {0xFF,         0xFFFF,          0xFFFFFF,        0xFFFFFFFFF,
                             0xFFFFFFFFFF, 0xFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFF};
  uint8_t k = 0;
  while (k < 7 && c > limits[k]) ++k;
  out.push_back(flag | k);
  append_number(out, c, k + 1);
}

inline Bytes entry_data(const Counts &counts) {
  Bytes out;
  for (const auto &[bucket, count] : counts) out.push_back(static_cast<uint8_t>(bucket.exp));
  const Bucket *before = nullptr;
  for (const auto &[bucket, count] : counts) {
    const bool repeats = before != nullptr && before->exp == bucket.exp;
    out.push_back(static_cast<uint8_t>(bucket.val - (repeats ? before->val : 0)));
    before = &bucket;
  }
  for (const auto &[bucket, count] : counts) append_count(out, count);
  append_number(out, counts.size(), 2);
  return out;
}

inline Counts difference_of(const Counts &counts, const Counts &prior) {
  Counts result = counts;
  for (const auto &[bucket, count] : prior) result[bucket] -= count;
  std::erase_if(result, [](const auto &entry) { return entry.second == 0; });
  return result;
}

// An image from its parts, good or bad.
struct Image {
  uint64_t base_ms = 0;
  uint32_t window_ms = 1000000;
  std::vector<uint32_t> offsets;  // as stored
  std::vector<uint32_t> words;
  Bytes data;

  void add(uint32_t offset, uint32_t encoding, const Bytes &entry) {
    offsets.push_back(offset);
    data.insert(data.end(), entry.begin(), entry.end());
    words.push_back(encoding << 30 | static_cast<uint32_t>(data.size()));
  }
  Bytes bytes() const {
    Bytes out;
    append_number(out, base_ms, 8);
    append_number(out, window_ms, 4);
    append_number(out, offsets.size(), 4);
    for (const uint32_t offset : offsets) append_number(out, offset, 4);
    for (const uint32_t word : words) append_number(out, word, 4);
    out.insert(out.end(), data.begin(), data.end());
    return out;
  }
};

// The image of a series, by the rule.
inline Bytes model_image(const Model &model, uint64_t base_ms = 0, uint32_t window_ms = 1000000) {
  Image image{.base_ms = base_ms, .window_ms = window_ms, .offsets = {}, .words = {}, .data = {}};
  const Counts *prior = nullptr;
  uint32_t before = 0;
  size_t whole = 0;
  for (const auto &[offset, counts] : model) {
    const size_t i = image.words.size();
    Counts stored = counts;
    uint32_t encoding = 0;
    if (prior != nullptr && i - whole < 61) {
      const Counts difference = difference_of(counts, *prior);
      if (difference.size() < counts.size()) stored = difference, encoding = 2;
    }
    if (encoding == 0) whole = i;
    image.add(offset - before, encoding, entry_data(stored));
    prior = &counts;
    before = offset;
  }
  return image.bytes();
}

// ---- Compression, by the library itself

inline Bytes compressed(const Bytes &bytes) {
  Bytes out(LZ4F_compressFrameBound(bytes.size(), nullptr));
  out.resize(LZ4F_compressFrame(out.data(), out.size(), bytes.data(), bytes.size(), nullptr));
  return out;
}

inline Bytes decompressed(const Bytes &frame) {
  LZ4F_dctx *context = nullptr;
  LZ4F_createDecompressionContext(&context, LZ4F_VERSION);
  Bytes out;
  size_t at = 0, hint = 1;  // 0: the frame is complete
  while (hint != 0 && at < frame.size()) {
    Bytes piece(65536);
    size_t piece_len = piece.size(), taken = frame.size() - at;
    hint = LZ4F_decompress(context, piece.data(), &piece_len, frame.data() + at, &taken, nullptr);
    if (LZ4F_isError(hint)) {
      LZ4F_freeDecompressionContext(context);
      throw std::runtime_error(LZ4F_getErrorName(hint));
    }
    at += taken;
    out.insert(out.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(piece_len));
  }
  LZ4F_freeDecompressionContext(context);
  if (hint != 0) throw std::runtime_error("the frame ends early");
  if (at != frame.size()) throw std::runtime_error("bytes behind the frame");
  return out;
}

inline Bytes serialized(histogram_series_t *hs) {
  Bytes out(histogram_series_serialize_maxsize(hs));
  size_t size = 0;
  if (!histogram_series_serialize(hs, out.data(), out.size(), &size) || size > out.size())
    throw std::runtime_error("not serialized");
  out.resize(size);
  return out;
}

inline Series read(const Bytes &frame) {
  return Series(histogram_series_deserialize(frame.data(), frame.size()));
}
inline Series read_image(const Bytes &image) {
  return read(compressed(image));
}

inline uint32_t decoded_entries(const histogram_series_t *hs) {
  uint32_t count = 0;
  for (uint32_t i = 0; i < hs->n_entries; ++i) count += hs->histograms[i] != HISTOGRAM_SERIES_NOT_DECODED;
  return count;
}

#endif
