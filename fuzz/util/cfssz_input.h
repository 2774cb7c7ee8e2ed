// A definition from the first bytes of a fuzzer's input: the number of fields, then a byte for each: its type (2
// bits), its encoding (2 bits, of which one pattern is not used), and how far it stands from the one before (4 bits).
#ifndef FUZZ_UTIL_CFSSZ_INPUT_H
#define FUZZ_UTIL_CFSSZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "test/util/cfssz_model.h"

inline void require(bool condition) {
  if (!condition) abort();
}

inline uint8_t take_byte(const uint8_t **data, size_t *size) {
  if (*size == 0) return 0;
  --*size;
  return *(*data)++;
}

inline cfssz_model::Layout take_layout(const uint8_t **data, size_t *size) {
  std::vector<cfssz_model::Field> fields(take_byte(data, size) % 24);
  std::vector<size_t> gaps;
  for (cfssz_model::Field &field : fields) {
    const uint8_t byte = take_byte(data, size);
    field.type = static_cast<cfssz_field_type>(byte & 3);
    field.enc = static_cast<cfssz_field_encoding>((byte >> 2 & 3) % 3);
    gaps.push_back(byte >> 4);
  }
  cfssz_model::Layout layout(fields);
  size_t shift = 0;
  for (size_t i = 0; i < gaps.size(); ++i) layout.fields[i].offset += shift += gaps[i];
  return layout;
}

#endif
