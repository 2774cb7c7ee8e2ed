// Packed record streams a second time, one bit after the other, and the ways in which tests and fuzzers make
// definitions and records. Slow, and nothing like the words of the code under test.
#ifndef TEST_UTIL_CFSSZ_MODEL_H
#define TEST_UTIL_CFSSZ_MODEL_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "liborlith/util/cfssz.h"

namespace cfssz_model {

using Bytes = std::vector<uint8_t>;
using Record = std::vector<uint64_t>;  // one value a field, as its bits

struct Field {
  cfssz_field_type type;
  cfssz_field_encoding enc;
  size_t offset = 0;  // into the structure

  unsigned bits() const { return type == CFSSZ_INT32 || type == CFSSZ_FLOAT ? 32 : 64; }
  uint64_t wrap(uint64_t value) const { return bits() == 32 ? value & 0xffffffff : value; }
};

struct Free {
  void operator()(void *p) const { free(p); }
};
using DefinitionPtr = std::unique_ptr<cfssz_definition, Free>;
using StatePtr = std::unique_ptr<cfssz_state, Free>;

// The fields of a structure, and records laid out as it has them.
struct Layout {
  std::vector<Field> fields;

  // Places the fields one after the other.
  explicit Layout(std::vector<Field> some) : fields(std::move(some)) {
    size_t end = 0;
    for (Field &field : fields) {
      field.offset = end;
      end += field.bits() / 8;
    }
  }
  size_t struct_bytes() const {
    size_t end = 0;
    for (const Field &field : fields) end = std::max(end, field.offset + field.bits() / 8);
    return end;
  }
  DefinitionPtr compile(uint16_t signature) const {
    std::vector<cfssz_field> described;
    for (const Field &field : fields) described.push_back({field.offset, 77, 99, field.type, field.enc});
    std::vector<const cfssz_field *> list;
    for (const cfssz_field &field : described) list.push_back(&field);
    list.push_back(nullptr);
    return DefinitionPtr(cfssz_compile_definition(signature, list.data()));
  }
  Bytes lay_out(const Record &record) const {
    Bytes bytes(struct_bytes());
    for (size_t i = 0; i < fields.size(); ++i)
      memcpy(bytes.data() + fields[i].offset, &record[i], fields[i].bits() / 8);
    return bytes;
  }
  Record read(const Bytes &bytes) const {
    Record record;
    for (const Field &field : fields) {
      record.push_back(0);
      memcpy(&record.back(), bytes.data() + field.offset, field.bits() / 8);
    }
    return record;
  }
  // Whether a field that is kept raw may begin within a byte.
  bool mixes_raw_and_packed() const {
    bool raw = false, packed = false;
    for (const Field &field : fields) (field.enc == CFSSZ_NONE ? raw : packed) = true;
    return raw && packed;
  }
};

inline unsigned leading_zeros(uint64_t value, unsigned bits) {
  unsigned count = 0;
  while (count < bits && (value >> (bits - 1 - count) & 1) == 0) ++count;
  return count;
}

inline unsigned trailing_zeros(uint64_t value, unsigned bits) {
  unsigned count = 0;
  while (count < bits && (value >> count & 1) == 0) ++count;
  return count;
}

inline uint64_t zigzag(uint64_t d, const Field &field) {
  const bool negative = (field.wrap(d) >> (field.bits() - 1)) != 0;
  return field.wrap(negative ? 2 * ~d + 1 : 2 * d);
}

inline uint64_t unzigzag(uint64_t w, const Field &field) {
  return field.wrap(w % 2 == 0 ? w / 2 : ~(w / 2));
}

// The bytes of a raw field: integers big-endian, floats little-endian.
inline Bytes raw_bytes(uint64_t value, const Field &field) {
  Bytes bytes;
  for (unsigned i = 0; i < field.bits(); i += 8) bytes.push_back(static_cast<uint8_t>(value >> i));
  if (field.type == CFSSZ_INT32 || field.type == CFSSZ_INT64) bytes = Bytes(bytes.rbegin(), bytes.rend());
  return bytes;
}

// The values of the two records before the one at hand.
struct History {
  Record last, before_last;
  size_t index = 0;

  explicit History(size_t fields) : last(fields), before_last(fields) {}
  void push(const Record &record) {
    before_last = last;
    last = record;
    ++index;
  }
  // What a delta is coded against: the zigzag number of the last delta, from the third record on.
  uint64_t expected(size_t field_index, const Field &field) const {
    if (index < 2) return 0;
    return zigzag(last[field_index] - before_last[field_index], field);
  }
};

class Encoder {
 public:
  explicit Encoder(const Layout &layout) : layout_(layout), history_(layout.fields.size()) {}

  void add(const Record &record) {
    for (size_t i = 0; i < record.size(); ++i) add_field(i, record[i]);
    history_.push(record);
  }
  size_t bits() const { return bits_; }
  // The stream so far, with its header.
  Bytes stream(uint16_t signature) const {
    Bytes result = bytes_;
    result.resize((bits_ + 7) / 8);
    const size_t n = history_.index;
    const size_t header[] = {size_t{signature} >> 8, signature, n >> 24, n >> 16, n >> 8, n};
    for (size_t i = 0; i < 6; ++i) result[i] = static_cast<uint8_t>(header[i]);
    return result;
  }

 private:
  uint8_t &byte(size_t index) {
    if (bytes_.size() <= index) bytes_.resize(index + 1);
    return bytes_[index];
  }
  void bit(bool set) {
    uint8_t &at = byte(bits_ / 8);
    const unsigned mask = 1u << (bits_ % 8);
    at = static_cast<uint8_t>(set ? at | mask : at & ~mask);
    ++bits_;
  }
  // Also clears what stands above in the last byte.
  void number(uint64_t value, unsigned count) {
    for (unsigned i = 0; i < count; ++i) bit((value >> i & 1) != 0);
    if (bits_ % 8 != 0) byte(bits_ / 8) &= static_cast<uint8_t>((1u << (bits_ % 8)) - 1);
  }
  void raw(const Bytes &bytes) {
    const unsigned o = bits_ % 8;
    for (const uint8_t b : bytes) {
      if (o == 0) {
        byte(bits_ / 8) = b;
      } else {
        uint8_t &current = byte(bits_ / 8);
        current = static_cast<uint8_t>((current >> o << o) | (b >> (8 - o)));
        byte(bits_ / 8 + 1) = static_cast<uint8_t>(b << o);
      }
      bits_ += 8;
    }
  }
  void number_without_leading_zeros(uint64_t value, const Field &field) {
    if (value == 0) return bit(false);
    const unsigned pairs = leading_zeros(value, field.bits()) / 2;
    bit(true);
    number(pairs, field.bits() == 32 ? 4 : 5);
    number(value, field.bits() - 2 * pairs);
  }
  void xor64(uint64_t x) {
    if (x == 0) return bit(false);
    const unsigned pairs = leading_zeros(x, 64) / 2;
    bit(true);
    number(pairs, 5);
    unsigned shift = 0;
    bit(trailing_zeros(x, 64) > 2);
    if (trailing_zeros(x, 64) > 2) {
      shift = std::min(trailing_zeros(x, 64), 32u) / 4 * 4;
      number(shift == 0 ? 7 : shift / 4 - 1, 3);
    }
    number(x >> shift, 64 - 2 * pairs - shift);
  }
  void add_field(size_t i, uint64_t value) {
    const Field &field = layout_.fields[i];
    if (field.enc == CFSSZ_NONE) return raw(raw_bytes(value, field));
    if (field.enc == CFSSZ_XOR_VARBIT) {
      const uint64_t x = value ^ history_.last[i];
      return field.bits() == 64 ? xor64(x) : number_without_leading_zeros(x, field);
    }
    const uint64_t delta = zigzag(value - history_.last[i], field);
    const uint64_t coded = history_.index < 2 ? delta : zigzag(delta - history_.expected(i, field), field);
    number_without_leading_zeros(coded, field);
  }

  const Layout &layout_;
  History history_;
  Bytes bytes_;
  size_t bits_ = 48;
};

class Decoder {
 public:
  Decoder(const Layout &layout, Bytes stream)
      : layout_(layout), history_(layout.fields.size()), bytes_(std::move(stream)) {
    for (size_t i = 2; i < 6; ++i) records_ = records_ << 8 | bytes_[i];
  }

  // The size of the next record in bits; 0 at the end, -1 on damage, after which nothing else is given.
  long next(Record *record) {
    if (history_.index == records_) return 0;
    const size_t start = bits_;
    record->clear();
    for (size_t i = 0; i < layout_.fields.size(); ++i) record->push_back(field(i));
    if (damaged_) return -1;
    history_.push(*record);
    return static_cast<long>(bits_ - start);
  }

 private:
  bool bit() {
    if (bits_ / 8 >= bytes_.size()) damaged_ = true;
    if (damaged_) return false;
    const bool set = (bytes_[bits_ / 8] >> (bits_ % 8) & 1) != 0;
    ++bits_;
    return set;
  }
  uint64_t number(unsigned count) {
    uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) value |= uint64_t{bit()} << i;
    return value;
  }
  uint64_t raw(const Field &field) {
    Bytes bytes;
    for (unsigned i = 0; i < field.bits(); i += 8) bytes.push_back(static_cast<uint8_t>(number(8)));
    if (field.type == CFSSZ_INT32 || field.type == CFSSZ_INT64) bytes = Bytes(bytes.rbegin(), bytes.rend());
    uint64_t value = 0;
    for (size_t i = 0; i < bytes.size(); ++i) value |= uint64_t{bytes[i]} << (8 * i);
    return value;
  }
  uint64_t number_without_leading_zeros(const Field &field) {
    if (!bit()) return 0;
    const auto pairs = static_cast<unsigned>(number(field.bits() == 32 ? 4 : 5));
    return number(field.bits() - 2 * pairs);
  }
  uint64_t xor64() {
    if (!bit()) return 0;
    const int pairs = static_cast<int>(number(5));
    const int shift = bit() ? static_cast<int>(number(3)) * 4 + 4 : 0;
    if (64 - 2 * pairs - shift < 0) damaged_ = true;
    if (damaged_) return 0;
    return number(static_cast<unsigned>(64 - 2 * pairs - shift)) << shift;
  }
  uint64_t field(size_t i) {
    const Field &field = layout_.fields[i];
    const uint64_t p1 = history_.last[i];
    if (field.enc == CFSSZ_NONE) return raw(field);
    if (field.enc == CFSSZ_XOR_VARBIT)
      return p1 ^ (field.bits() == 64 ? xor64() : number_without_leading_zeros(field));
    const uint64_t e = unzigzag(number_without_leading_zeros(field), field);
    if (history_.index < 2) return field.wrap(p1 + e);
    return field.wrap(p1 + unzigzag(field.wrap(history_.expected(i, field) + e), field));
  }

  const Layout &layout_;
  History history_;
  Bytes bytes_;
  size_t bits_ = 48;
  size_t records_ = 0;
  bool damaged_ = false;
};

// Adds a record to a buffer that always has just the size that was asked for. A canary stands behind it, a refusal
// must leave the state, and no size may be asked for that is not needed.
class TightBuffer {
 public:
  explicit TightBuffer(const cfssz_definition *def)
      : bytes_(6 + kCanary, 0), state_bytes_(sizeof(cfssz_state) + 3 * def->len) {
    memset(bytes_.data() + 6, 0xc5, kCanary);
  }
  size_t size() const { return bytes_.size() - kCanary; }
  uint8_t *data() { return bytes_.data(); }
  Bytes content() const { return Bytes(bytes_.begin(), bytes_.end() - kCanary); }

  // False when something of that did not hold.
  bool add(cfssz_state *state, const Bytes &record) {
    for (int refusals = 0;; ++refusals) {
      const Bytes before = bytes_;
      const Bytes state_before = image_of(state);
      const size_t needed = cfssz_enc_state_add(state, data(), size(), record.data());
      for (size_t i = size(); i < bytes_.size(); ++i)
        if (bytes_[i] != 0xc5) return false;
      if (needed == 0) return true;
      if (refusals == 2 || needed <= size()) return false;
      if (bytes_ != before || image_of(state) != state_before) return false;
      bytes_.resize(needed);
      bytes_.resize(needed + kCanary, 0xc5);
      memset(bytes_.data() + before.size() - kCanary, 0, needed - (before.size() - kCanary));
    }
  }

 private:
  static constexpr size_t kCanary = 16;
  Bytes image_of(const cfssz_state *state) const {
    const auto *from = reinterpret_cast<const uint8_t *>(state);
    return Bytes(from, from + state_bytes_);
  }
  Bytes bytes_;
  size_t state_bytes_;
};

}  // namespace cfssz_model

#endif
