// Packed rollup files written bit by bit, independently of the tool.
#ifndef TEST_ORLITH_PACK_MODEL_H
#define TEST_ORLITH_PACK_MODEL_H

#include <xxhash.h>

#include <string>

#include "test/orlith/nnt_model.h"
#include "test/util/cfssz_model.h"

// A stream of the definition with halved values, from records of 32 bytes as they stand.
struct PackedModel {
  PackedModel()
      : layout(std::vector<cfssz_model::Field>(8, {CFSSZ_INT32, CFSSZ_XOR_VARBIT})), encoder(layout) {}
  PackedModel &add(const std::string &bytes) {
    encoder.add(layout.read(cfssz_model::Bytes(bytes.begin(), bytes.end())));
    return *this;
  }
  std::string text() const {
    const cfssz_model::Bytes bytes = encoder.stream(0x4e32);
    return {bytes.begin(), bytes.end()};
  }
  cfssz_model::Layout layout;
  cfssz_model::Encoder encoder;
};

// The records that stand for a rollup file: its header, its slots without their checksums, its hash.
inline std::string packed_records(const std::string &file) {
  std::string records = file.substr(0, 16) + std::string(16, '\0') + file.substr(16);
  for (size_t at = 32; at < records.size(); at += 32) records[at] = 0;
  records += std::string(8, '\0');
  put_le(records, XXH3_64bits(file.data(), file.size()), 8);
  return records + std::string(16, '\0');
}

inline std::string packed_file(const std::string &file) {
  PackedModel model;
  const std::string records = packed_records(file);
  for (size_t at = 0; at < records.size(); at += 32) model.add(records.substr(at, 32));
  return model.text();
}

#endif
