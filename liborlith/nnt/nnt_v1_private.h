// Slot arithmetic and the record conversions of version 1, inlined where ranges are read and written.
#ifndef LIBORLITH_NNT_NNT_V1_PRIVATE_H
#define LIBORLITH_NNT_NNT_V1_PRIVATE_H

#include <bit>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>

#include "liborlith/nnt/nnt_v1.h"

namespace nnt_v1 {

static_assert(std::endian::native == std::endian::little,
              "files are little-endian and are read and written as they lie in memory");
static_assert(sizeof(nnt_hdr) == 16 && offsetof(nnt_hdr, period) == 4 && offsetof(nnt_hdr, epoch) == 8);
static_assert(sizeof(nnt_hdr) == NNT_V1_START);
static_assert(sizeof(nnt_datum_v1) == 32);
static_assert(offsetof(nnt_datum_v1, typeinfo) == 1 && offsetof(nnt_datum_v1, count) == 2);
static_assert(offsetof(nnt_datum_v1, std) == 4 && offsetof(nnt_datum_v1, value) == 8);
static_assert(offsetof(nnt_datum_v1, derivative) == 16 && offsetof(nnt_datum_v1, counter) == 24);

inline constexpr size_t kRecordSize = sizeof(nnt_datum_v1);
inline constexpr size_t kStart = NNT_V1_START;

// The slot of a timestamp at or after the epoch. The period must not be 0.
inline uint64_t slot_of(const nnt_hdr &hdr, uint64_t whence) noexcept {
  return whence / hdr.period - hdr.epoch / hdr.period;
}

// How many of the timestamps from `whence` on, one period apart, lie before the epoch. The period must not be 0.
inline uint64_t values_before_epoch(const nnt_hdr &hdr, uint64_t whence) noexcept {
  if (whence >= hdr.epoch) return 0;
  const uint64_t gap = hdr.epoch - whence;
  return gap / hdr.period + (gap % hdr.period != 0 ? 1 : 0);
}

// The file offset of `count` records from `slot` on; nothing when they would end past the largest file there can be.
inline std::optional<int64_t> offset_of(uint64_t slot, uint64_t count) noexcept {
  constexpr uint64_t kMaxSlots =
      (static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) - kStart) / kRecordSize;
  if (count > kMaxSlots || slot > kMaxSlots - count) return std::nullopt;
  return static_cast<int64_t>(kStart + slot * kRecordSize);
}

// Whole records in a file or image of `size_bytes`.
inline uint64_t records_in(uint64_t size_bytes) noexcept {
  return size_bytes < kStart ? 0 : (size_bytes - kStart) / kRecordSize;
}

inline uint64_t load_word(const void *from, size_t offset_bytes) noexcept {
  uint64_t word;
  memcpy(&word, static_cast<const char *>(from) + offset_bytes, sizeof(word));
  return word;
}

inline void store_word(void *to, size_t offset_bytes, uint64_t word) noexcept {
  memcpy(static_cast<char *>(to) + offset_bytes, &word, sizeof(word));
}

// A record as four words. The XOR of all bytes is the XOR of the words, folded. Words are loaded and stored one by
// one: a record put together in memory and then moved as a whole would wait for its own stores.
struct Words {
  uint64_t head, value, derivative, counter;
};

inline Words load(const void *record) noexcept {
  return {load_word(record, 0), load_word(record, 8), load_word(record, 16), load_word(record, 24)};
}

inline void store(void *record, const Words &w) noexcept {
  store_word(record, 0, w.head);
  store_word(record, 8, w.value);
  store_word(record, 16, w.derivative);
  store_word(record, 24, w.counter);
}

inline uint64_t folded_xor(const Words &w) noexcept {
  uint64_t x = w.head ^ w.value ^ w.derivative ^ w.counter;
  x ^= x >> 32;
  x ^= x >> 16;
  x ^= x >> 8;
  return x & 0xff;
}

// Which bytes of `value` a type has.
inline constexpr uint64_t kValueMask[8] = {
    0, 0, 0xffffffff, 0xffffffff, ~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}, 0};

// The rates lie in a value as they do in a record, so they are copied in pairs.
static_assert(offsetof(nnt_multitype, derivative_stddev) == offsetof(nnt_multitype, derivative) + 4);
static_assert(offsetof(nnt_multitype, counter_stddev) == offsetof(nnt_multitype, counter) + 4);

// The record of a value that is stored with type bits `type`.
inline void encode_as(uint32_t type, const nnt_multitype &v, void *record) noexcept {
  const uint64_t lacks_stddev = v.stddev_present == 0 ? 1 : 0;
  const uint64_t typeinfo = type | lacks_stddev * NNT_V1_NO_STDDEV;
  const uint64_t count = v.count < 65535 ? v.count : 65535;
  const uint64_t stddev = std::bit_cast<uint32_t>(v.stddev) & (lacks_stddev - 1);
  Words w{typeinfo << 8 | count << 16 | stddev << 32,
          load_word(&v, offsetof(nnt_multitype, value)) & kValueMask[type],
          load_word(&v, offsetof(nnt_multitype, derivative)),
          load_word(&v, offsetof(nnt_multitype, counter))};
  w.head |= folded_xor(w);
  store(record, w);
}

// What v1_encode does.
inline int encode(const nnt_multitype &v, void *record) noexcept {
  const uint32_t type = v.type;
  if (type - NNT_TYPE_NULL <= NNT_TYPE_DOUBLE - NNT_TYPE_NULL) {
    encode_as(type, v, record);
    return 0;
  }
  if (type > NNT_V1_TYPE_MASK) {
    encode_as(0, v, record);
    return 0;
  }
  store(record, Words{});
  return -1;
}

// What v1_decode does.
inline int decode(const Words &w, nnt_multitype *v) noexcept {
  if (folded_xor(w) != 0) return -1;
  const uint32_t type = static_cast<uint32_t>(w.head >> 8) & NNT_V1_TYPE_MASK;
  if (type == NNT_TYPE_ABSENT) {
    if ((w.head | w.value | w.derivative | w.counter) != 0) return -1;
    v->type = NNT_TYPE_ABSENT;
    return 0;
  }
  const bool has_stddev = (w.head >> 8 & NNT_V1_NO_STDDEV) == 0;
  v->count = static_cast<uint16_t>(w.head >> 16);
  v->stddev_present = has_stddev;
  if (has_stddev) v->stddev = std::bit_cast<float>(static_cast<uint32_t>(w.head >> 32));
  store_word(v, offsetof(nnt_multitype, derivative), w.derivative);
  store_word(v, offsetof(nnt_multitype, counter), w.counter);
  if (type == NNT_TYPE_STRING) return -1;
  if (type != NNT_TYPE_NULL) store_word(v, offsetof(nnt_multitype, value), w.value & kValueMask[type]);
  v->type = static_cast<nnt_type_t>(type);
  return 0;
}

}  // namespace nnt_v1

#endif
