#include "orlith/packed_rollup.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "liborlith/util/cfssz.h"
#include "orlith/nnt_reader.h"

namespace {

struct Free {
  void operator()(void *p) const { free(p); }
};
using Definition = std::unique_ptr<cfssz_definition, Free>;
using State = std::unique_ptr<cfssz_state, Free>;

// Every encoding in these definitions gives back every value. The checksum of a slot is left out (it follows from the
// rest); the hash at the end of the stream stands for all of them.
constexpr uint16_t kWholeValues = 0x4e31;  // for counters and integers: values by difference of differences
constexpr uint16_t kHalvedValues =
    0x4e32;  // for doubles: values as two halves, of which the lower is often zero
constexpr uint16_t kSignatures[] = {kWholeValues, kHalvedValues};

Definition definition(uint16_t signature) {
  constexpr cfssz_field kHead = {0, 0, 0, CFSSZ_INT32, CFSSZ_XOR_VARBIT};
  constexpr cfssz_field kStddev = {offsetof(nnt_datum_v1, std), 0, 0, CFSSZ_FLOAT, CFSSZ_XOR_VARBIT};
  constexpr size_t kValueAt = offsetof(nnt_datum_v1, value);
  constexpr cfssz_field kValue = {kValueAt, 0, 0, CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT};
  constexpr cfssz_field kLow = {kValueAt, 0, 0, CFSSZ_INT32, CFSSZ_XOR_VARBIT};
  constexpr cfssz_field kHigh = {kValueAt + 4, 0, 0, CFSSZ_INT32, CFSSZ_XOR_VARBIT};
  std::vector<cfssz_field> rates;
  for (size_t at = offsetof(nnt_datum_v1, derivative); at < sizeof(nnt_datum_v1); at += 4)
    rates.push_back({at, 0, 0, CFSSZ_FLOAT, CFSSZ_XOR_VARBIT});
  std::vector<const cfssz_field *> list = {&kHead, &kStddev};
  if (signature == kWholeValues) {
    list.push_back(&kValue);
  } else {
    list.insert(list.end(), {&kLow, &kHigh});
  }
  for (const cfssz_field &rate : rates) list.push_back(&rate);
  list.push_back(nullptr);
  return Definition(cfssz_compile_definition(signature, list.data()));
}

uint64_t hash_of(const Rollup &rollup) {
  const std::unique_ptr<XXH3_state_t, void (*)(XXH3_state_t *)> state(
      XXH3_createState(), [](XXH3_state_t *s) { XXH3_freeState(s); });
  XXH3_64bits_reset(state.get());
  XXH3_64bits_update(state.get(), &rollup.header, sizeof rollup.header);
  XXH3_64bits_update(state.get(), rollup.records.data(), rollup.records.size() * sizeof(nnt_datum_v1));
  return XXH3_64bits_digest(state.get());
}

// The header before the slots and the hash after them, in the form of records.
nnt_datum_v1 as_record(const nnt_hdr &header) {
  nnt_datum_v1 record{};
  memcpy(&record, &header, sizeof header);
  return record;
}

nnt_datum_v1 as_record(uint64_t hash) {
  nnt_datum_v1 record{};
  record.value.v_uint64 = hash;
  return record;
}

nnt_datum_v1 without_checksum(nnt_datum_v1 record) {
  record.xor_chksum = 0;
  return record;
}

nnt_datum_v1 with_checksum(nnt_datum_v1 record) {
  uint8_t bytes[sizeof record];
  memcpy(bytes, &record, sizeof record);
  uint8_t checksum = 0;
  for (size_t i = 1; i < sizeof record; ++i) checksum ^= bytes[i];
  record.xor_chksum = checksum;
  return record;
}

bool same(const nnt_datum_v1 &a, const nnt_datum_v1 &b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

class Packer {
 public:
  explicit Packer(uint16_t signature)
      : definition_(definition(signature)), state_(cfssz_enc_state_alloc(definition_.get())), stream_(4096) {}

  void add(const nnt_datum_v1 &record) {
    while (const size_t needed = cfssz_enc_state_add(state_.get(), stream_.data(), stream_.size(), &record)) {
      stream_.resize(std::max(needed, 2 * stream_.size()));
    }
  }
  std::vector<uint8_t> finish() {
    stream_.resize(cfssz_enc_state_finalize(state_.get(), stream_.data(), stream_.size()));
    return std::move(stream_);
  }

 private:
  Definition definition_;
  State state_;
  std::vector<uint8_t> stream_;
};

std::vector<uint8_t> pack_as(uint16_t signature, const Rollup &rollup) {
  Packer packer(signature);
  packer.add(as_record(rollup.header));
  for (const nnt_datum_v1 &record : rollup.records) packer.add(without_checksum(record));
  packer.add(as_record(hash_of(rollup)));
  return packer.finish();
}

bool comes_back(std::span<const uint8_t> stream, const Rollup &rollup) {
  Rollup decoded;
  return unpack_rollup(stream, &decoded).empty() &&
         memcmp(&decoded.header, &rollup.header, sizeof rollup.header) == 0 &&
         std::equal(decoded.records.begin(), decoded.records.end(), rollup.records.begin(),
                    rollup.records.end(), same);
}

class Unpacker {
 public:
  Unpacker(std::span<const uint8_t> stream, uint16_t signature)
      : stream_(stream),
        definition_(definition(signature)),
        state_(cfssz_dec_state_alloc(definition_.get(), stream.data(), stream.size())) {}

  uint32_t record_count() const { return state_->nelem; }

  bool next(nnt_datum_v1 *record) {
    return cfssz_dec_state_next(state_.get(), stream_.data(), stream_.size(), record) > 0;
  }
  std::string damage() const {
    return fmt::format("record {} of {} at bit {}: is cut or damaged ({} bytes in the file)",
                       state_->current_index, state_->nelem, state_->bit_offset, stream_.size());
  }
  size_t bytes_after() const { return stream_.size() - (state_->bit_offset + 7) / 8; }

 private:
  std::span<const uint8_t> stream_;
  Definition definition_;
  State state_;
};

std::string read_header(Unpacker &unpacker, nnt_hdr *header) {
  nnt_datum_v1 record;
  if (!unpacker.next(&record)) return unpacker.damage();
  memcpy(header, &record, sizeof *header);
  if (std::string fault = nnt_header_fault(*header); !fault.empty()) return fault;
  return same(record, as_record(*header)) ? "" : "record 0: more than a header";
}

std::string read_slots(Unpacker &unpacker, std::vector<nnt_datum_v1> *records, uint32_t slots) {
  nnt_multitype value;
  // The number is only claimed: memory is taken as slots come, each of which has 7 bits in the stream.
  for (uint32_t slot = 0; slot < slots; ++slot) {
    nnt_datum_v1 record;
    if (!unpacker.next(&record)) return unpacker.damage();
    if (record.xor_chksum != 0)
      return fmt::format("slot {}: checksum byte 0x{:02x}, expected 0", slot, record.xor_chksum);
    record = with_checksum(record);
    if (std::string fault = check_record(record, &value); !fault.empty())
      return fmt::format("slot {}: {}", slot, fault);
    records->push_back(record);
  }
  return {};
}

std::string read_hash(Unpacker &unpacker, const Rollup &rollup) {
  nnt_datum_v1 record;
  if (!unpacker.next(&record)) return unpacker.damage();
  const uint64_t hash = hash_of(rollup);
  if (same(record, as_record(hash))) return {};
  return fmt::format("hash {:016x}, expected {:016x}", record.value.v_uint64, hash);
}

}  // namespace

std::vector<uint8_t> pack_rollup(const Rollup &rollup) {
  std::vector<uint8_t> shortest;
  for (const uint16_t signature : kSignatures) {
    std::vector<uint8_t> stream = pack_as(signature, rollup);
    if (!comes_back(stream, rollup)) return {};
    if (shortest.empty() || stream.size() < shortest.size()) shortest = std::move(stream);
  }
  return shortest;
}

std::string unpack_rollup(std::span<const uint8_t> stream, Rollup *rollup) {
  if (stream.size() < CFSSZ_HEADER_BYTES)
    return fmt::format("could not read header: found {} bytes, expected {}", stream.size(),
                       CFSSZ_HEADER_BYTES);
  const auto signature = static_cast<uint16_t>(stream[0] << 8 | stream[1]);
  if (std::find(std::begin(kSignatures), std::end(kSignatures), signature) == std::end(kSignatures))
    return fmt::format("unknown signature: found 0x{:04x}, expected 0x{:04x} or 0x{:04x}", signature,
                       kWholeValues, kHalvedValues);
  Unpacker unpacker(stream, signature);
  if (unpacker.record_count() < 2)
    return fmt::format("too few records: found {}, expected at least 2", unpacker.record_count());
  const uint32_t slots = unpacker.record_count() - 2;
  if (slots > kMostPackedSlots)
    return fmt::format("too many slots: found {}, expected at most {}", slots, kMostPackedSlots);
  if (std::string fault = read_header(unpacker, &rollup->header); !fault.empty()) return fault;
  if (std::string fault = read_slots(unpacker, &rollup->records, slots); !fault.empty()) return fault;
  if (std::string fault = read_hash(unpacker, *rollup); !fault.empty()) return fault;
  if (unpacker.bytes_after() != 0)
    return fmt::format("{} bytes after the last record; expected none", unpacker.bytes_after());
  return {};
}
