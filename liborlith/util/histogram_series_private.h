// The image of a histogram series before compression: where its parts stand, and who reads and writes them.
//
//   0         base_ms (8)
//   8         window_ms (4)
//   12        N, the number of entries (4)
//   16        N offsets (4 each): the first from base_ms, the others from the one before
//   16 + 4N   N words (4 each): the encoding in bits 31-30, in bits 29-0 where the entry's data ends
//   16 + 8N   the data of the entries, one after another; ends are counted from here
//
// Integers are little-endian; nothing is aligned.
#ifndef LIBORLITH_UTIL_HISTOGRAM_SERIES_PRIVATE_H
#define LIBORLITH_UTIL_HISTOGRAM_SERIES_PRIVATE_H

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "liborlith/util/histogram_series.h"

namespace hss {

static_assert(std::endian::native == std::endian::little, "the image is little-endian");

constexpr size_t kHeaderBytes = 16;
constexpr size_t kBaseAt = 0;
constexpr size_t kWindowAt = 8;
constexpr size_t kEntryCountAt = 12;
constexpr size_t kIndexBytesPerEntry = 8;
constexpr size_t kBucketCountBytes = 2;
constexpr uint32_t kEncodingMask = 3u << 30;
constexpr uint32_t kWhole = 0u << 30;
constexpr uint32_t kDifference = 2u << 30;
constexpr uint32_t kEndMask = ~kEncodingMask;
// A histogram so many entries after the last one written whole is written whole again.
constexpr uint32_t kChainEntries = 61;

template <typename Integer>
Integer load(const uint8_t *at) {
  Integer value;
  memcpy(&value, at, sizeof(value));
  return value;
}
template <typename Integer>
void store(uint8_t *at, Integer value) {
  memcpy(at, &value, sizeof(value));
}

constexpr size_t data_start(uint32_t n_entries) {
  return kHeaderBytes + kIndexBytesPerEntry * size_t{n_entries};
}
constexpr size_t offset_at(uint32_t i) {
  return kHeaderBytes + sizeof(uint32_t) * size_t{i};
}
constexpr size_t word_at(uint32_t n_entries, uint32_t i) {
  return kHeaderBytes + sizeof(uint32_t) * (size_t{n_entries} + i);
}

struct Free {
  void operator()(void *block) const { free(block); }
};
struct HistogramFree {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using HistogramPtr = std::unique_ptr<histogram_t, HistogramFree>;

// Of the image that entries are decoded from. It says itself how many entries it has: others may have been
// appended to the series since.
inline const uint8_t *image_of(const histogram_series_t *hs) {
  return static_cast<const uint8_t *>(hs->buff);
}
inline uint32_t image_entries(const histogram_series_t *hs) {
  return load<uint32_t>(image_of(hs) + kEntryCountAt);
}
// Whether the entry's word is inside the image. What follows asks for it.
inline bool has_word(const histogram_series_t *hs, uint32_t i) {
  if (hs->buff_len < kHeaderBytes) return false;
  const uint32_t n_entries = image_entries(hs);
  return i < n_entries && word_at(n_entries, i) + sizeof(uint32_t) <= hs->buff_len;
}
inline uint32_t word_of(const histogram_series_t *hs, uint32_t i) {
  return load<uint32_t>(image_of(hs) + word_at(image_entries(hs), i));
}
inline bool is_difference(const histogram_series_t *hs, uint32_t i) {
  return (word_of(hs, i) & kEncodingMask) == kDifference;
}

// Decodes entry `i` from its data. `prior` is the entry before it: needed for a difference (without it there is no
// result), ignored for a whole histogram. Null when the data is damaged or memory ran out.
HistogramPtr decode_entry(const histogram_series_t *hs, uint32_t i, const histogram_t *prior);

// Decodes every entry, so that none is HISTOGRAM_SERIES_NOT_DECODED afterwards (damaged ones are null).
void decode_all(histogram_series_t *hs);

}  // namespace hss

#endif
