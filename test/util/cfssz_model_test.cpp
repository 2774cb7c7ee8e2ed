// Streams of many random definitions and records against a model that writes and reads them bit by bit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "liborlith/util/cfssz.h"
#include "test/util/cfssz_model.h"

namespace {

using namespace cfssz_model;

constexpr uint16_t kSignature = 0xc0de;

class CfsszModel : public testing::Test {
 protected:
  void SetUp() override {
    seed_ = std::random_device{}();
    RecordProperty("seed", std::to_string(seed_));
    random_.seed(seed_);
  }
  std::string seed() const { return "seed " + std::to_string(seed_); }

  uint64_t pick(uint64_t end) { return std::uniform_int_distribution<uint64_t>(0, end - 1)(random_); }

  Layout random_layout() {
    const bool raw_only = pick(8) == 0, no_raw = pick(2) == 0;
    std::vector<Field> fields(pick(10));
    for (Field &field : fields) {
      field.type = static_cast<cfssz_field_type>(pick(4));
      field.enc = raw_only ? CFSSZ_NONE : static_cast<cfssz_field_encoding>(no_raw ? 1 + pick(2) : pick(3));
    }
    Layout layout(fields);
    if (pick(2) == 0) {  // gaps, off any alignment
      size_t shift = 0;
      for (Field &field : layout.fields) field.offset += shift += pick(6);
    }
    return layout;
  }

  // Differences of every shape: none, small, one bit, a run of bits with zeros around it, anything.
  uint64_t random_value(const Field &field, uint64_t last) {
    const uint64_t any = random_();
    switch (pick(7)) {
      case 0:
      case 1:
        return last;
      case 2:
        return field.wrap(last + pick(100) - 50);
      case 3:
        return field.wrap(last ^ uint64_t{1} << pick(64));
      case 4:
        return field.wrap(last ^ (any >> pick(64)) << pick(64));
      case 5:
        return field.wrap(last + 60);
      default:
        return field.wrap(any);
    }
  }

  std::vector<Record> random_records(const Layout &layout) {
    std::vector<Record> records(pick(40), Record(layout.fields.size()));
    for (size_t n = 0; n < records.size(); ++n) {
      for (size_t i = 0; i < layout.fields.size(); ++i)
        records[n][i] = random_value(layout.fields[i], n == 0 ? 0 : records[n - 1][i]);
    }
    return records;
  }

  std::mt19937_64 random_;
  unsigned seed_ = 0;
};

// Which records come back: none does after the first one that a kept rule spoils.
bool comes_back(const Layout &layout, const Record &record, const Record &last) {
  for (size_t i = 0; i < record.size(); ++i) {
    const Field &field = layout.fields[i];
    if (field.enc == CFSSZ_XOR_VARBIT && field.bits() == 64 && trailing_zeros(record[i] ^ last[i], 64) == 3)
      return false;
  }
  return true;
}

Bytes encode(const Layout &layout, const std::vector<Record> &records, Bytes buffer) {
  const DefinitionPtr def = layout.compile(kSignature);
  const StatePtr state(cfssz_enc_state_alloc(def.get()));
  for (const Record &record : records)
    EXPECT_EQ(cfssz_enc_state_add(state.get(), buffer.data(), buffer.size(), layout.lay_out(record).data()),
              0u);
  buffer.resize(cfssz_enc_state_finalize(state.get(), buffer.data(), buffer.size()));
  return buffer;
}

Bytes encode_tightly(const Layout &layout, const std::vector<Record> &records) {
  const DefinitionPtr def = layout.compile(kSignature);
  const StatePtr state(cfssz_enc_state_alloc(def.get()));
  TightBuffer buffer(def.get());
  for (const Record &record : records) EXPECT_TRUE(buffer.add(state.get(), layout.lay_out(record)));
  Bytes stream(buffer.size());
  stream.resize(cfssz_enc_state_finalize(state.get(), buffer.data(), buffer.size()));
  std::copy(buffer.data(), buffer.data() + stream.size(), stream.begin());
  return stream;
}

// Reads `stream` to its end; with the model, record by record. Returns the records.
std::vector<Record> decode_with_model(const Layout &layout, const Bytes &stream) {
  const DefinitionPtr def = layout.compile(kSignature);
  const StatePtr state(cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
  Decoder model(layout, stream);
  std::vector<Record> records;
  for (;;) {
    Bytes bytes(layout.struct_bytes());
    Record expected;
    const ssize_t bits = cfssz_dec_state_next(state.get(), stream.data(), stream.size(), bytes.data());
    EXPECT_EQ(bits, model.next(&expected));
    if (bits <= 0 || testing::Test::HasFailure()) return records;
    EXPECT_EQ(layout.read(bytes), expected);
    records.push_back(expected);
  }
}

size_t worst_bytes(const Layout &layout, size_t records) {
  return 6 + records * (layout.fields.size() * 10 + 2) + 64;
}

TEST_F(CfsszModel, WritesTheSameBytesInAnyBuffer) {
  for (int round = 0; round < 1500 && !HasFailure(); ++round) {
    SCOPED_TRACE(seed());
    const Layout layout = random_layout();
    const std::vector<Record> records = random_records(layout);
    Encoder model(layout);
    for (const Record &record : records) model.add(record);
    const Bytes expected = model.stream(kSignature);
    ASSERT_EQ(encode(layout, records, Bytes(worst_bytes(layout, records.size()))), expected);
    ASSERT_EQ(encode_tightly(layout, records), expected);
  }
}

TEST_F(CfsszModel, ReadsBackEveryRecordThatNoKeptRuleSpoils) {
  size_t spoiled = 0, back = 0;
  for (int round = 0; round < 1500 && !HasFailure(); ++round) {
    SCOPED_TRACE(seed());
    const Layout layout = random_layout();
    const std::vector<Record> records = random_records(layout);
    const Bytes stream = encode(layout, records, Bytes(worst_bytes(layout, records.size())));
    const std::vector<Record> decoded = decode_with_model(layout, stream);
    if (layout.mixes_raw_and_packed() || layout.fields.empty()) continue;
    Record last(layout.fields.size());
    for (size_t n = 0; n < records.size(); ++n, ++back) {
      if (!comes_back(layout, records[n], last)) {
        ++spoiled;
        break;
      }
      ASSERT_LT(n, decoded.size());
      ASSERT_EQ(decoded[n], records[n]);
      last = records[n];
    }
  }
  if (!HasFailure()) {
    EXPECT_GT(back, 1000u);
    EXPECT_GT(spoiled, 10u);
  }
}

TEST_F(CfsszModel, ReadsStreamsCutAtEveryByteAlike) {
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    SCOPED_TRACE(seed());
    const Layout layout = random_layout();
    const Bytes stream = encode(layout, random_records(layout), Bytes(worst_bytes(layout, 40)));
    for (size_t len = 6; len <= stream.size(); ++len)
      decode_with_model(layout, Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(len)));
  }
}

TEST_F(CfsszModel, ReadsAnyBytesAlike) {
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    SCOPED_TRACE(seed());
    const Layout layout = random_layout();
    Bytes stream(6 + pick(300));
    const bool sparse = pick(2) == 0;  // long runs of zeros make long streams
    for (uint8_t &byte : stream) byte = static_cast<uint8_t>(sparse && pick(4) != 0 ? 0 : random_());
    stream[0] = kSignature >> 8;
    stream[1] = kSignature & 0xff;
    decode_with_model(layout, stream);
  }
}

}  // namespace
