// A rollup file as a packed record stream, and back again, byte for byte. doc/packed-rollup.md has the form.
#ifndef ORLITH_PACKED_ROLLUP_H
#define ORLITH_PACKED_ROLLUP_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "liborlith/nnt/nnt_v1.h"

// The whole of a file in memory: its header, and one sound record (check_record) a slot.
struct Rollup {
  nnt_hdr header{};
  std::vector<nnt_datum_v1> records;

  uint64_t file_bytes() const { return NNT_V1_START + records.size() * sizeof(nnt_datum_v1); }
};

// Slots that are packed in one go, and taken from a packed file: half a GiB of records, 31 years of minutes.
constexpr uint64_t kMostPackedSlots = uint64_t{1} << 24;

// The shortest of the streams that the definitions give, each of which is decoded and compared first. Empty when one
// does not come back, which nothing in a rollup can bring about.
std::vector<uint8_t> pack_rollup(const Rollup &rollup);

// Fills *rollup. What is wrong with the stream ("unknown signature: ..."), or an empty text; a rollup without a fault
// is whole and sound: every record, and the hash of them all.
std::string unpack_rollup(std::span<const uint8_t> stream, Rollup *rollup);

#endif
