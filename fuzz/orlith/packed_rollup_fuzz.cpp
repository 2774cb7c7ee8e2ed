// Packed rollups. An even first byte: the rest is a stream of any bytes, and what is accepted packs to something that
// gives the same again. An odd one: the rest is header fields and records, whose checksums are put right, and those
// that are then sound come back from their stream.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "orlith/nnt_reader.h"
#include "orlith/packed_rollup.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

bool same(const Rollup &a, const Rollup &b) {
  return memcmp(&a.header, &b.header, sizeof a.header) == 0 && a.records.size() == b.records.size() &&
         (a.records.empty() ||
          memcmp(a.records.data(), b.records.data(), a.records.size() * sizeof(nnt_datum_v1)) == 0);
}

void require_comes_back(const Rollup &rollup) {
  const std::vector<uint8_t> stream = pack_rollup(rollup);
  Rollup again;
  require(!stream.empty() && unpack_rollup(stream, &again).empty() && same(again, rollup));
}

void pack_records(const uint8_t *data, size_t size) {
  Rollup rollup;
  if (size < 8) return;
  uint32_t words[2];
  memcpy(words, data, sizeof words);
  memcpy(rollup.header.version, NNT_V1_MAGIC, sizeof rollup.header.version);
  rollup.header.period = words[0] == 0 ? 1 : words[0];
  rollup.header.epoch = uint64_t{words[1]} / rollup.header.period * rollup.header.period;
  require(nnt_header_fault(rollup.header).empty());
  for (size_t at = 8; size - at >= sizeof(nnt_datum_v1); at += sizeof(nnt_datum_v1)) {
    uint8_t bytes[sizeof(nnt_datum_v1)];
    memcpy(bytes, data + at, sizeof bytes);
    bytes[0] = 0;
    uint8_t checksum = 0;
    for (const uint8_t byte : bytes) checksum ^= byte;
    bytes[0] = checksum;
    nnt_datum_v1 record;
    nnt_multitype value;
    memcpy(&record, bytes, sizeof record);
    if (check_record(record, &value).empty()) rollup.records.push_back(record);
  }
  require_comes_back(rollup);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 != 0) {
    pack_records(data + 1, size - 1);
    return 0;
  }
  Rollup rollup;
  const std::string fault = unpack_rollup({data + 1, size - 1}, &rollup);
  if (!fault.empty()) return 0;
  require_comes_back(rollup);
  return 0;
}
