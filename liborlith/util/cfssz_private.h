// What the sources of packed record streams share: the record images, and the coding of one record.
#ifndef LIBORLITH_UTIL_CFSSZ_PRIVATE_H
#define LIBORLITH_UTIL_CFSSZ_PRIVATE_H

#include <type_traits>

#include "liborlith/util/cfssz.h"

namespace liborlith {

// Stops on a field type that is none of the four.
[[noreturn]] void cfssz_unknown_type();

// Integers are kept raw as big-endian bytes, floats in host order.
inline bool cfssz_is_integer(cfssz_field_type type) {
  if (type > CFSSZ_DOUBLE) cfssz_unknown_type();
  return type <= CFSSZ_INT64;
}

// Where the values of record `n` are kept. The one before it lies in image n + 1, the one before that still in n.
inline uint8_t *cfssz_image(cfssz_state &state, uint32_t n) noexcept {
  return state.working_buffer + (n & 1) * state.definition->len;
}

inline uint8_t *cfssz_spare_image(cfssz_state &state) noexcept {
  return state.working_buffer + 2 * state.definition->len;
}

// The most bits that a record can take more than its bytes, a field: flag, leading zeros (5), trailing flag and code.
constexpr size_t kMostExtraBits = 10;

// Bytes from that of the first bit on which any record of the definition, wherever in that byte it begins, leaves
// at least 16 free: room for words to be written and read whole.
inline size_t cfssz_ample_bytes(const cfssz_definition &def) noexcept {
  return def.len + (def.nfields * kMostExtraBits + 7) / 8 + 1 + 16;
}

// `Word` (uint32_t or uint64_t) holds the field's bits. The sign is that of the same width.
template <typename Word>
constexpr Word zigzag(Word d) noexcept {
  using Signed = std::make_signed_t<Word>;
  return static_cast<Word>(d << 1) ^ static_cast<Word>(static_cast<Signed>(d) >> (8 * sizeof(Word) - 1));
}

template <typename Word>
constexpr Word unzigzag(Word w) noexcept {
  return static_cast<Word>(w >> 1) ^ static_cast<Word>(0 - (w & 1));
}

// Bits that hold the number of leading zero pairs.
template <typename Word>
constexpr unsigned kZeroPairsBits = sizeof(Word) == 4 ? 4 : 5;

// Encodes a record, as cfssz_enc_state_add says, into a buffer that holds at least the stream so far.
size_t cfssz_encode_record(cfssz_state &state, uint8_t *stream, size_t len, const uint8_t *record);

// Decodes record `current_index`, as cfssz_dec_state_next says.
ssize_t cfssz_decode_record(cfssz_state &state, const uint8_t *stream, size_t len, uint8_t *record);

}  // namespace liborlith

#endif
