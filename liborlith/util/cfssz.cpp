// Definitions and states of packed record streams. The records themselves: cfssz_encode.cpp, cfssz_decode.cpp.
#include "liborlith/util/cfssz.h"

#include <cstddef>
#include <cstdlib>
#include <iterator>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/util/cfssz_bits_private.h"
#include "liborlith/util/cfssz_private.h"

// Hosts are compiled against these layouts.
static_assert(sizeof(cfssz_field) == 32 && offsetof(cfssz_field, internal_offset) == 8 &&
              offsetof(cfssz_field, len) == 16 && offsetof(cfssz_field, field_type) == 24 &&
              offsetof(cfssz_field, field_enc) == 28);
static_assert(sizeof(cfssz_definition) == 24 && offsetof(cfssz_definition, nfields) == 8 &&
              offsetof(cfssz_definition, len) == 16 && offsetof(cfssz_definition, fields) == 24);
static_assert(offsetof(cfssz_state, bit_offset) == 16 && offsetof(cfssz_state, encoding) == 24 &&
              offsetof(cfssz_state, nelem) == 28 && offsetof(cfssz_state, current_index) == 32 &&
              offsetof(cfssz_state, working_buffer) == 36);

namespace {

using namespace liborlith;

constexpr size_t kTypeLen[] = {4, 8, 4, 8};

size_t type_len(cfssz_field_type type) {
  if (type >= std::size(kTypeLen)) cfssz_unknown_type();
  return kTypeLen[type];
}

size_t count_fields(const cfssz_field **fields) {
  size_t count = 0;
  while (fields[count] != nullptr) ++count;
  return count;
}

void append_field(cfssz_definition *def, cfssz_field field) {
  field.len = type_len(field.field_type);
  if (field.field_enc > CFSSZ_DELTADELTA_VARBIT) liborlith_assert(0);
  field.internal_offset = def->len;
  def->len += field.len;
  def->fields[def->nfields++] = field;
}

cfssz_state *new_state(cfssz_definition *def) {
  auto *state = static_cast<cfssz_state *>(calloc(1, sizeof(cfssz_state) + 3 * def->len));
  if (state == nullptr) return nullptr;
  state->definition = def;
  state->bit_offset = size_t{CFSSZ_HEADER_BYTES} * 8;
  return state;
}

uint16_t stream_signature(const uint8_t *header) {
  return __builtin_bswap16(load_word<uint16_t>(header));
}

}  // namespace

void liborlith::cfssz_unknown_type() {
  liborlith_assert(0);
  __builtin_unreachable();  // for builds that do not look into the line above
}

cfssz_definition *cfssz_compile_definition(uint16_t sig, const cfssz_field **fields) {
  const size_t count = count_fields(fields);
  auto *def =
      static_cast<cfssz_definition *>(calloc(1, sizeof(cfssz_definition) + count * sizeof(cfssz_field)));
  if (def == nullptr) return nullptr;
  def->signature = sig;
  for (size_t i = 0; i < count; ++i) append_field(def, *fields[i]);
  return def;
}

cfssz_state *cfssz_enc_state_alloc(cfssz_definition *def) {
  cfssz_state *state = new_state(def);
  if (state != nullptr) state->encoding = true;
  return state;
}

size_t cfssz_enc_state_add(cfssz_state *state, void *buffer, size_t bufflen, const void *vstruct) {
  liborlith_assert(state->encoding);
  // Not to be told from success; callers depend on it (test: CfsszEncode.ABufferShorterThanTheStream...).
  if (bytes_for(state->bit_offset) > bufflen) return 0;
  const cfssz_definition &def = *state->definition;
  const size_t usual_bytes = state->bit_offset / 8 + def.len + def.nfields;
  if (bufflen < usual_bytes) return usual_bytes;
  return cfssz_encode_record(*state, static_cast<uint8_t *>(buffer), bufflen,
                             static_cast<const uint8_t *>(vstruct));
}

size_t cfssz_enc_state_finalize(cfssz_state *state, void *buffer, size_t bufflen) {
  liborlith_assert(state->encoding);
  const size_t stream_bytes = bytes_for(state->bit_offset);
  if (stream_bytes > bufflen) return 0;
  auto *header = static_cast<uint8_t *>(buffer);
  store_word(header, __builtin_bswap16(static_cast<uint16_t>(state->definition->signature)));
  store_word(header + 2, __builtin_bswap32(state->nelem));
  return stream_bytes;
}

cfssz_state *cfssz_dec_state_alloc(cfssz_definition *def, const void *buff, size_t bufflen) {
  const auto *header = static_cast<const uint8_t *>(buff);
  if (bufflen < CFSSZ_HEADER_BYTES) return nullptr;
  if (stream_signature(header) != static_cast<uint16_t>(def->signature)) return nullptr;
  cfssz_state *state = new_state(def);
  if (state != nullptr) state->nelem = __builtin_bswap32(load_word<uint32_t>(header + 2));
  return state;
}

ssize_t cfssz_dec_state_next(cfssz_state *state, const void *buff, size_t bufflen, void *vstruct) {
  liborlith_assert(!state->encoding);
  if (state->current_index >= state->nelem) return 0;
  return cfssz_decode_record(*state, static_cast<const uint8_t *>(buff), bufflen,
                             static_cast<uint8_t *>(vstruct));
}
