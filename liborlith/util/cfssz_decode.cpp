// The decoder of packed record streams: bits to one record.
#include <cstring>

#include "liborlith/util/cfssz_bits_private.h"
#include "liborlith/util/cfssz_private.h"

namespace {

using namespace liborlith;

// What put_number of the encoder wrote. Where the buffer ends within the first bits they read as zeros, and then the
// number is not shorter than it was, so the one check of its end is enough.
template <typename Word, typename Reader>
CFSSZ_INLINE bool take_number(Reader &reader, Word *number) {
  constexpr unsigned kHeadBits = 1 + kZeroPairsBits<Word>;
  const uint64_t ahead = reader.peek();
  *number = 0;
  if ((ahead & 1) == 0) return reader.skip(1);
  const auto pairs = static_cast<unsigned>(ahead >> 1 & low_bits(kZeroPairsBits<Word>));
  const unsigned bits = 8 * sizeof(Word) - 2 * pairs;
  if constexpr (sizeof(Word) == 4) {
    *number = static_cast<Word>(ahead >> kHeadBits & low_bits(bits));
    return reader.skip(kHeadBits + bits);
  } else {
    reader.skip(kHeadBits);
    return reader.take(bits, number);
  }
}

template <typename Reader>
CFSSZ_INLINE bool take_xor(Reader &reader, uint32_t *differing) {
  return take_number(reader, differing);
}

template <typename Reader>
CFSSZ_INLINE bool take_xor(Reader &reader, uint64_t *differing) {
  const uint64_t ahead = reader.peek();
  *differing = 0;
  if ((ahead & 1) == 0) return reader.skip(1);
  const auto pairs = static_cast<unsigned>(ahead >> 1 & 31);
  const bool trailing = (ahead >> 6 & 1) != 0;
  const unsigned shift = trailing ? static_cast<unsigned>(ahead >> 7 & 7) * 4 + 4 : 0;
  if (2 * pairs + shift > 64) return false;
  if (!reader.skip(trailing ? 10 : 7)) return false;
  const unsigned bits = 64 - 2 * pairs - shift;
  if (bits == 0) return true;
  uint64_t shifted;
  if (!reader.take(bits, &shifted)) return false;
  *differing = shifted << shift;
  return true;
}

template <typename Word>
CFSSZ_INLINE Word delta_value(Word number, Word last, Word before_last, bool second_order) {
  const Word e = unzigzag(number);
  if (!second_order) return last + e;
  return last + unzigzag<Word>(zigzag<Word>(last - before_last) + e);
}

template <typename Word, typename Reader>
CFSSZ_INLINE bool take_bytes(Reader &reader, cfssz_field_type type, Word *value) {
  uint64_t bytes;
  if (!reader.take(8 * sizeof(Word), &bytes)) return false;
  const auto word = static_cast<Word>(bytes);
  *value = cfssz_is_integer(type) ? swap_bytes(word) : word;
  return true;
}

// Stores the field's value to `image`; false if it cannot be decoded.
template <typename Word, typename Reader>
CFSSZ_INLINE bool decode_field(const cfssz_field &field, bool second_order, const uint8_t *last,
                               const uint8_t *before_last, uint8_t *image, Reader &reader) {
  const auto p1 = load_word<Word>(last + field.internal_offset);
  Word value;
  if (field.field_enc == CFSSZ_XOR_VARBIT) {
    if (!take_xor(reader, &value)) return false;
    value ^= p1;
  } else if (field.field_enc == CFSSZ_DELTADELTA_VARBIT) {
    const auto p2 = load_word<Word>(before_last + field.internal_offset);
    if (!take_number(reader, &value)) return false;
    value = delta_value(value, p1, p2, second_order);
  } else if (!take_bytes(reader, field.field_type, &value)) {
    return false;
  }
  store_word(image + field.internal_offset, value);
  return true;
}

template <typename Reader>
CFSSZ_INLINE bool decode_fields(cfssz_state &state, Reader &reader) {
  const cfssz_definition &def = *state.definition;
  const uint8_t *last = cfssz_image(state, state.current_index + 1);
  const uint8_t *before_last = cfssz_image(state, state.current_index);
  uint8_t *image = cfssz_spare_image(state);
  const bool second_order = state.current_index >= 2;
  const cfssz_field *end = def.fields + def.nfields;
  for (const cfssz_field *field = def.fields; field != end; ++field) {
    const bool decoded = field->len == 4
                             ? decode_field<uint32_t>(*field, second_order, last, before_last, image, reader)
                             : decode_field<uint64_t>(*field, second_order, last, before_last, image, reader);
    if (!decoded) return false;
  }
  return true;
}

// Hands the whole record over: nothing of one that fails half-way is seen.
void keep_record(cfssz_state &state, uint8_t *record) {
  const cfssz_definition &def = *state.definition;
  const uint8_t *image = cfssz_spare_image(state);
  const cfssz_field *end = def.fields + def.nfields;
  for (const cfssz_field *field = def.fields; field != end; ++field) {
    if (field->len == 4) {
      store_word(record + field->field_offset, load_word<uint32_t>(image + field->internal_offset));
    } else {
      store_word(record + field->field_offset, load_word<uint64_t>(image + field->internal_offset));
    }
  }
  memcpy(cfssz_image(state, state.current_index), image, def.len);
}

template <Bounds kBounds>
ssize_t read_record(cfssz_state &state, const uint8_t *stream, size_t len, uint8_t *record) {
  BitReader<kBounds> reader(stream, len, state.bit_offset);
  if (!decode_fields(state, reader)) return -1;
  keep_record(state, record);
  const size_t bits = reader.offset() - state.bit_offset;
  state.bit_offset = reader.offset();
  ++state.current_index;
  return static_cast<ssize_t>(bits);
}

}  // namespace

ssize_t liborlith::cfssz_decode_record(cfssz_state &state, const uint8_t *stream, size_t len,
                                       uint8_t *record) {
  const size_t start = state.bit_offset / 8;
  if (start <= len && len - start >= cfssz_ample_bytes(*state.definition)) {
    return read_record<Bounds::ample>(state, stream, len, record);
  }
  return read_record<Bounds::checked>(state, stream, len, record);
}
