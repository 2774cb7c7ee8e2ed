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

// A record as four words. The XOR of all bytes is the XOR of the words, folded.
struct Words {
  uint64_t word[4];
};

inline Words load(const void *record) noexcept {
  Words w;
  memcpy(&w, record, sizeof(w));
  return w;
}

inline uint64_t folded_xor(const Words &w) noexcept {
  uint64_t x = w.word[0] ^ w.word[1] ^ w.word[2] ^ w.word[3];
  x ^= x >> 32;
  x ^= x >> 16;
  x ^= x >> 8;
  return x & 0xff;
}

// Which bytes of `value` a type has.
inline constexpr uint64_t kValueMask[8] = {
    0, 0, 0xffffffff, 0xffffffff, ~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}, 0};

// What v1_encode does, into words. The rates lie in *v as they do in a record, so they are copied in pairs.
inline int encode(const nnt_multitype &v, void *record) noexcept {
  static_assert(offsetof(nnt_multitype, derivative_stddev) == offsetof(nnt_multitype, derivative) + 4);
  static_assert(offsetof(nnt_multitype, counter_stddev) == offsetof(nnt_multitype, counter) + 4);
  const uint32_t type = v.type;
  if (type == NNT_TYPE_ABSENT || type == NNT_TYPE_STRING) {
    memset(record, 0, kRecordSize);
    return -1;
  }
  const uint32_t stored_type = type > NNT_V1_TYPE_MASK ? 0 : type;
  const bool has_stddev = v.stddev_present != 0;
  const uint64_t typeinfo = stored_type | (has_stddev ? 0u : NNT_V1_NO_STDDEV);
  const uint64_t count = v.count < 65535 ? v.count : 65535;
  const uint64_t stddev = has_stddev ? std::bit_cast<uint32_t>(v.stddev) : 0;

  const char *bytes = reinterpret_cast<const char *>(&v);
  Words w;
  w.word[0] = typeinfo << 8 | count << 16 | stddev << 32;
  memcpy(&w.word[1], &v.value, 8);
  w.word[1] &= kValueMask[stored_type];
  memcpy(&w.word[2], bytes + offsetof(nnt_multitype, derivative), 8);
  memcpy(&w.word[3], bytes + offsetof(nnt_multitype, counter), 8);
  w.word[0] |= folded_xor(w);
  memcpy(record, &w, sizeof(w));
  return 0;
}

// What v1_decode does, from words.
inline int decode(const Words &w, nnt_multitype *v) noexcept {
  if (folded_xor(w) != 0) return -1;
  const uint32_t type = static_cast<uint32_t>(w.word[0] >> 8) & NNT_V1_TYPE_MASK;
  if (type == NNT_TYPE_ABSENT) {
    if ((w.word[0] | w.word[1] | w.word[2] | w.word[3]) != 0) return -1;
    v->type = NNT_TYPE_ABSENT;
    return 0;
  }
  const bool has_stddev = (w.word[0] >> 8 & NNT_V1_NO_STDDEV) == 0;
  v->count = static_cast<uint16_t>(w.word[0] >> 16);
  v->stddev_present = has_stddev;
  if (has_stddev) v->stddev = std::bit_cast<float>(static_cast<uint32_t>(w.word[0] >> 32));
  char *bytes = reinterpret_cast<char *>(v);
  memcpy(bytes + offsetof(nnt_multitype, derivative), &w.word[2], 8);
  memcpy(bytes + offsetof(nnt_multitype, counter), &w.word[3], 8);
  if (type == NNT_TYPE_STRING) return -1;
  if (type != NNT_TYPE_NULL) {
    const uint64_t value = w.word[1] & kValueMask[type];
    memcpy(&v->value, &value, 8);
  }
  v->type = static_cast<nnt_type_t>(type);
  return 0;
}

}  // namespace nnt_v1

#endif
