// The encoder of packed record streams: one record to bits.
#include <bit>

#include "liborlith/util/cfssz_bits_private.h"
#include "liborlith/util/cfssz_private.h"

namespace {

using namespace liborlith;

// A flag, the number of leading zero pairs, and the bits below those; only the flag for 0.
template <typename Word, typename Sink>
CFSSZ_INLINE void put_number(Sink &sink, Word number) {
  if (number == 0) return sink.put_zero();
  constexpr unsigned kHeadBits = 1 + kZeroPairsBits<Word>;
  const auto pairs = static_cast<unsigned>(std::countl_zero(number)) / 2;
  const unsigned bits = 8 * sizeof(Word) - 2 * pairs;
  const uint64_t head = 1 | pairs << 1;
  if (kHeadBits + bits <= 64) return sink.put(head | uint64_t{number} << kHeadBits, kHeadBits + bits);
  sink.put(head, kHeadBits);
  sink.put(number, bits);
}

template <typename Sink>
CFSSZ_INLINE void put_xor(Sink &sink, uint32_t differing) {
  put_number(sink, differing);
}

// 64-bit fields also leave out trailing zeros, in fours, when there are more than 2 of them.
template <typename Sink>
CFSSZ_INLINE void put_xor(Sink &sink, uint64_t differing) {
  if (differing == 0) return sink.put_zero();
  const auto pairs = static_cast<unsigned>(std::countl_zero(differing)) / 2;
  const auto zeros = static_cast<unsigned>(std::countr_zero(differing));
  // 3 zeros are no four: nothing is left out, yet they take this way and are written with code 7, by which a reader
  // takes 32. Streams stay as they are, so this does (test: CfsszXor64.ThreeTrailingZeros...).
  const bool trailing = zeros > 2;
  const unsigned left_out = (zeros < 32 ? zeros : 32) & ~3u;
  const unsigned code = (left_out / 4 - 1) & 7;
  const unsigned shift = trailing ? left_out : 0;
  const unsigned bits = 64 - 2 * pairs - shift;
  const unsigned head_bits = trailing ? 10 : 7;
  const uint64_t head = 1 | pairs << 1 | (trailing ? 1u << 6 | code << 7 : 0);
  const uint64_t number = differing >> shift;
  if (head_bits + bits <= 64) return sink.put(head | number << head_bits, head_bits + bits);
  sink.put(head, head_bits);
  sink.put(number, bits);
}

// What a delta field stores for `value` after `last` and, from the third record on, `before_last`. The second
// difference is one of zigzag numbers, not of the differences themselves.
template <typename Word>
CFSSZ_INLINE Word delta_number(Word value, Word last, Word before_last, bool second_order) {
  const Word delta = zigzag<Word>(value - last);
  return second_order ? zigzag<Word>(delta - zigzag<Word>(last - before_last)) : delta;
}

// `last` and `before_last` point at the images of the two records before; the latter becomes this record's.
template <typename Word, typename Sink>
CFSSZ_INLINE void encode_field(const cfssz_field &field, bool second_order, const uint8_t *record,
                               const uint8_t *last, uint8_t *before_last, Sink &sink) {
  const auto value = load_word<Word>(record + field.field_offset);
  const auto p1 = load_word<Word>(last + field.internal_offset);
  if (field.field_enc == CFSSZ_XOR_VARBIT) {
    put_xor(sink, static_cast<Word>(value ^ p1));
  } else if (field.field_enc == CFSSZ_DELTADELTA_VARBIT) {
    const auto p2 = load_word<Word>(before_last + field.internal_offset);
    put_number(sink, delta_number(value, p1, p2, second_order));
  } else {
    sink.put_bytes(cfssz_is_integer(field.field_type) ? swap_bytes(value) : value);
  }
  if constexpr (Sink::kWrites) store_word(before_last + field.internal_offset, value);
}

template <typename Sink>
CFSSZ_INLINE void encode_fields(cfssz_state &state, const uint8_t *record, Sink &sink) {
  const cfssz_definition &def = *state.definition;
  const uint8_t *last = cfssz_image(state, state.nelem + 1);
  uint8_t *before_last = cfssz_image(state, state.nelem);
  const bool second_order = state.nelem >= 2;
  const cfssz_field *end = def.fields + def.nfields;
  for (const cfssz_field *field = def.fields; field != end; ++field) {
    if (field->len == 4) {
      encode_field<uint32_t>(*field, second_order, record, last, before_last, sink);
    } else {
      encode_field<uint64_t>(*field, second_order, record, last, before_last, sink);
    }
  }
}

template <Bounds kBounds>
void write_record(cfssz_state &state, uint8_t *stream, size_t len, const uint8_t *record) {
  BitWriter<kBounds> writer(stream, len, state.bit_offset);
  encode_fields(state, record, writer);
  state.bit_offset = writer.finish();
  ++state.nelem;
}

size_t bytes_with(cfssz_state &state, const uint8_t *record) {
  BitCounter counter(state.bit_offset);
  encode_fields(state, record, counter);
  return bytes_for(counter.bits());
}

}  // namespace

size_t liborlith::cfssz_encode_record(cfssz_state &state, uint8_t *stream, size_t len,
                                      const uint8_t *record) {
  if (len - state.bit_offset / 8 >= cfssz_ample_bytes(*state.definition)) {
    write_record<Bounds::ample>(state, stream, len, record);
    return 0;
  }
  const size_t needed = bytes_with(state, record);
  if (needed > len) return needed;
  write_record<Bounds::checked>(state, stream, len, record);
  return 0;
}
