// Bytes of streams, computed by hand; buffers that are too short; streams that are cut or damaged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "liborlith/util/cfssz.h"
#include "test/util/cfssz_model.h"

namespace {

using namespace cfssz_model;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr uint16_t kSignature = 0x5a01;

// A layout in use, with a generous zeroed buffer.
struct Encoding {
  explicit Encoding(std::vector<Field> fields, size_t room = 1000)
      : layout(std::move(fields)),
        def(layout.compile(kSignature)),
        state(cfssz_enc_state_alloc(def.get())),
        buffer(room) {}
  size_t add(const Record &record) {
    return cfssz_enc_state_add(state.get(), buffer.data(), buffer.size(), layout.lay_out(record).data());
  }
  Bytes finish() {
    const size_t len = cfssz_enc_state_finalize(state.get(), buffer.data(), buffer.size());
    return Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(len));
  }
  Bytes image() const {
    const auto *from = reinterpret_cast<const uint8_t *>(state.get());
    return Bytes(from, from + sizeof(cfssz_state) + 3 * def->len);
  }
  Layout layout;
  DefinitionPtr def;
  StatePtr state;
  Bytes buffer;
};

// All records of a stream, and what came after the last one: 0 or -1.
struct Decoding {
  Decoding(const Layout &layout, const Bytes &stream) {
    const DefinitionPtr def = layout.compile(kSignature);
    const StatePtr state(cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
    Bytes record(layout.struct_bytes(), 0xdd);
    while ((end = cfssz_dec_state_next(state.get(), stream.data(), stream.size(), record.data())) > 0)
      records.push_back(layout.read(record));
  }
  std::vector<Record> records;
  ssize_t end;
};

// The example of doc/packed-stream.md, which has its bits one by one.
TEST(CfsszBytes, OfTheDocumentedExample) {
  Encoding enc({{CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT}, {CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT}});
  ASSERT_EQ(enc.add({100, 0x3fe0000000000000}), 0u);
  ASSERT_EQ(enc.add({160, 0x3fe0000000000000}), 0u);
  ASSERT_EQ(enc.add({220, 0x3fe8000000000000}), 0u);
  EXPECT_THAT(enc.finish(), ElementsAreArray({0x5a, 0x01, 0x00, 0x00, 0x00, 0x03, 0x39, 0xf2, 0xf0, 0x00,
                                              0x00, 0xe0, 0x7f, 0x8e, 0x47, 0xf3, 0x00, 0x00, 0x08}));
}

// 5: 1, 14 zero pairs 0111, the 4 bits of 5 1010. Again: 0. Then 4, a difference of 1: 1, 15 pairs 1111, 10.
// In order: 10111101 | 0, 0, 111111 | 0.
TEST(CfsszBytes, OfXor32) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}});
  for (const uint64_t value : {5u, 5u, 4u}) ASSERT_EQ(enc.add({value}), 0u);
  EXPECT_THAT(enc.finish(), ElementsAre(0x5a, 0x01, 0, 0, 0, 3, 0b10111101, 0b11111100, 0));
}

// Deltas 100, 60, 60, 59. Zigzag 200: 1, 28 zero pairs 00111, the 8 bits 00010011. Zigzag 120: 1, 28 pairs (57
// zeros) 00111, the 8 bits 00011110. Then 0: the bit 0. Then 118 - 120 = -2, zigzag 3: 1, 31 pairs 11111, 11.
// In order: 10011100 01001110 01110001 1110 0 111 11111.
TEST(CfsszBytes, OfDelta64) {
  Encoding enc({{CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT}});
  for (const uint64_t value : {100u, 160u, 220u, 279u}) ASSERT_EQ(enc.add({value}), 0u);
  EXPECT_THAT(enc.finish(), ElementsAre(0x5a, 0x01, 0, 0, 0, 4, 0b00111001, 0b01110010, 0b10001110,
                                        0b11100111, 0b00011111));
}

// Deltas -1, -1, -1, -3. Zigzag 1: 1, 15 zero pairs 1111, 10. The same once more; then 0. Zigzag 5 less zigzag 1 is 4
// (the differences themselves are 2 apart, downwards), zigzag 8: 1, 14 pairs 0111, 0001.
// In order: 1111110 1 111110 0 1 0111 0001.
TEST(CfsszBytes, OfDelta32TakeTheSecondDifferenceBetweenZigzagNumbers) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_DELTADELTA_VARBIT}});
  for (const uint64_t value : {0xffffffff, 0xfffffffe, 0xfffffffd, 0xfffffffa})
    ASSERT_EQ(enc.add({value}), 0u);
  EXPECT_THAT(enc.finish(), ElementsAre(0x5a, 0x01, 0, 0, 0, 4, 0b10111111, 0b10011111, 0b10001110));
}

TEST(CfsszRaw, OnAByteBoundaryHasIntegersBigEndianAndFloatsInHostOrder) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_NONE},
                {CFSSZ_INT64, CFSSZ_NONE},
                {CFSSZ_FLOAT, CFSSZ_NONE},
                {CFSSZ_DOUBLE, CFSSZ_NONE}});
  const Record record = {0x01020304, 0x1112131415161718, 0x21222324, 0x3132333435363738};
  ASSERT_EQ(enc.add(record), 0u);
  const Bytes stream = enc.finish();
  EXPECT_THAT(stream, ElementsAreArray({0x5a, 0x01, 0,    0,    0,    1,    0x01, 0x02, 0x03, 0x04,
                                        0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x24, 0x23,
                                        0x22, 0x21, 0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31}));
  EXPECT_THAT(Decoding(enc.layout, stream).records, ElementsAre(record));
}

// The first field is 0, one bit; the second then begins at bit 1 (o = 1). Its bytes 01 42 24 18 become
//   byte 6: its bits 1 to 7 (0), bit 0 = top bit of 01:  00
//   byte 7: 01 << 1 = 02, bit 0 = top bit of 42:         02
//   byte 8: 42 << 1 = 84, top bit of 24:                 84
//   byte 9: 24 << 1 = 48, top bit of 18:                 48
//   byte 10: 18 << 1:                                    30
// and a reader, from bit 1 of byte 6 on, finds 00 01 42 24: bytes (00 >> 1 | 02 << 7), (02 >> 1 | 84 << 7), ...
TEST(CfsszRaw, OffAByteBoundaryIsPlacedByItsOwnRuleAndReadsBackAsSomethingElse) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}, {CFSSZ_INT32, CFSSZ_NONE}});
  ASSERT_EQ(enc.add({0, 0x01422418}), 0u);
  EXPECT_EQ(enc.state->bit_offset, 48u + 33);
  const Bytes stream = enc.finish();
  EXPECT_THAT(stream, ElementsAre(0x5a, 0x01, 0, 0, 0, 1, 0x00, 0x02, 0x84, 0x48, 0x30));
  EXPECT_THAT(Decoding(enc.layout, stream).records, ElementsAre(Record{0, 0x00014224}));
}

// The same with o = 7 after a field of the bits 1 1111 10 (7 bits): the placement wipes the field's own bits.
TEST(CfsszRaw, OffAByteBoundaryWipesTheBitsBeforeIt) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}, {CFSSZ_FLOAT, CFSSZ_NONE}});
  ASSERT_EQ(enc.add({1, 0x0a0b0c0d}), 0u);
  // Bytes 0d 0c 0b 0a, o = 7: byte 6 is 0d >> 1; then 0d << 7 | 0c >> 1, 0c << 7 | 0b >> 1, 0b << 7 | 0a >> 1, 0a << 7.
  EXPECT_THAT(enc.finish(), ElementsAre(0x5a, 0x01, 0, 0, 0, 1, 0x06, 0x86, 0x05, 0x85, 0x00));
}

// Both fields of the first record leave o = 1 and the last byte b << 1; the second record's single bit touches only
// bit 1 of it, and its raw field keeps what stands above.
TEST(CfsszRaw, OffAByteBoundaryKeepsWhatStandsAboveInTheFirstByte) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}, {CFSSZ_INT32, CFSSZ_NONE}});
  ASSERT_EQ(enc.add({0, 0xff}), 0u);  // byte 10: fe; the position is its bit 1
  ASSERT_EQ(enc.add({0, 0}), 0u);  // bit 1 cleared: fc; then, o = 2, bits 2 to 7 kept and bits 0 and 1 zero
  EXPECT_THAT(enc.finish(), ElementsAre(0x5a, 0x01, 0, 0, 0, 2, 0, 0, 0, 1, 0xfc, 0, 0, 0, 0));
}

TEST(CfsszEncode, AShorterBufferThanARecordUsuallyNeedsIsAnsweredWithThatSize) {
  Encoding enc({{CFSSZ_INT64, CFSSZ_XOR_VARBIT}, {CFSSZ_INT32, CFSSZ_XOR_VARBIT}}, 6 + 12 + 2 - 1);
  enc.buffer.assign(enc.buffer.size(), 0xee);
  const Bytes state = enc.image(), buffer = enc.buffer;
  EXPECT_EQ(enc.add({1, 1}), 6u + 12 + 2);
  EXPECT_EQ(enc.image(), state);
  EXPECT_EQ(enc.buffer, buffer);
  enc.buffer.resize(20);
  EXPECT_EQ(enc.add({1, 1}), 0u);
  EXPECT_EQ(enc.state->nelem, 1u);
  // 1 + 5 + 1 + 2 and 1 + 4 + 2 bits are 2 bytes exactly: now bit_offset / 8 is 8.
  EXPECT_EQ(enc.state->bit_offset, 64u);
  EXPECT_EQ(enc.add({1, 1}), 8u + 12 + 2);
}

// 74 bits (flag, 5, flag, 3, 64) from bit 7 of a byte on reach into the 11th: two more than 8 + 1 make room for.
TEST(CfsszEncode, ARecordThatNeedsTwoBytesMoreIsAnsweredWithWhatItNeeds) {
  Encoding enc({{CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT}}, 6 + 9);
  for (int i = 0; i < 7; ++i) ASSERT_EQ(enc.add({0}), 0u);
  ASSERT_EQ(enc.state->bit_offset, 48u + 7);
  enc.buffer.assign(6 + 9, 0xee);
  for (const size_t room : {6u + 9, 6u + 10}) {
    enc.buffer.resize(room, 0xee);
    const Bytes state = enc.image(), buffer = enc.buffer;
    EXPECT_EQ(enc.add({0x8000000000000008}), 6u + 11);
    EXPECT_EQ(enc.image(), state);
    EXPECT_EQ(enc.buffer, buffer);
  }
  enc.buffer.resize(6 + 11);
  EXPECT_EQ(enc.add({0x8000000000000008}), 0u);
  EXPECT_EQ(enc.state->bit_offset, 48u + 7 + 74);
}

TEST(CfsszEncode, ABufferShorterThanTheStreamIsAnsweredWithZeroAndNothingIsWritten) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}}, 5);
  const Bytes fresh = enc.image();
  EXPECT_EQ(enc.add({1}), 0u);
  EXPECT_EQ(enc.image(), fresh);
  EXPECT_EQ(cfssz_enc_state_finalize(enc.state.get(), enc.buffer.data(), 5), 0u);
  enc.buffer.resize(20);
  ASSERT_EQ(enc.add({1}), 0u);
  ASSERT_EQ(enc.add({2}), 0u);
  const Bytes state = enc.image(), buffer = enc.buffer;
  EXPECT_EQ(cfssz_enc_state_add(enc.state.get(), enc.buffer.data(), 7, enc.layout.lay_out({3}).data()), 0u);
  EXPECT_EQ(cfssz_enc_state_finalize(enc.state.get(), enc.buffer.data(), 7), 0u);
  EXPECT_EQ(enc.image(), state);
  EXPECT_EQ(enc.buffer, buffer);
  EXPECT_EQ(cfssz_enc_state_finalize(enc.state.get(), enc.buffer.data(), 8), 8u);
}

TEST(CfsszEncode, GoesOnAfterAFinalize) {
  Encoding enc({{CFSSZ_INT32, CFSSZ_DELTADELTA_VARBIT}});
  ASSERT_EQ(enc.add({10}), 0u);
  const Bytes one = enc.finish();
  EXPECT_THAT(Decoding(enc.layout, one).records, ElementsAre(Record{10}));
  ASSERT_EQ(enc.add({20}), 0u);
  ASSERT_EQ(enc.add({30}), 0u);
  EXPECT_THAT(Decoding(enc.layout, enc.finish()).records, ElementsAre(Record{10}, Record{20}, Record{30}));
}

TEST(CfsszEncode, NeedsNoZeroedBuffer) {
  const std::vector<Field> fields = {{CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT},
                                     {CFSSZ_INT32, CFSSZ_DELTADELTA_VARBIT}};
  for (const size_t room : {size_t{1000}, size_t{43}}) {
    Encoding zeroed(fields, room), used(fields, room);
    used.buffer.assign(room, 0xff);
    for (const Record &record :
         {Record{0x4059000000000000, 7}, {0x4059000000000000, 7}, {0x4059000000000001, 9}}) {
      ASSERT_EQ(zeroed.add(record), 0u);
      ASSERT_EQ(used.add(record), 0u);
    }
    Bytes expected = zeroed.finish(), actual = used.finish();
    const unsigned used_bits = used.state->bit_offset % 8;
    ASSERT_NE(used_bits, 0u);
    actual.back() &= static_cast<uint8_t>((1u << used_bits) - 1);  // the bits above are unspecified
    EXPECT_EQ(actual, expected);
  }
}

TEST(CfsszDecode, WritesOnlyTheBytesOfFields) {
  Layout layout({{CFSSZ_INT32, CFSSZ_XOR_VARBIT}, {CFSSZ_INT64, CFSSZ_XOR_VARBIT}});
  layout.fields[0].offset = 8;
  layout.fields[1].offset = 16;
  const DefinitionPtr def = layout.compile(kSignature);
  const uint8_t stream[] = {0x5a, 0x01, 0, 0, 0, 1, 0};
  const StatePtr state(cfssz_dec_state_alloc(def.get(), stream, sizeof stream));
  Bytes record(32, 0xdd);
  EXPECT_EQ(cfssz_dec_state_next(state.get(), stream, sizeof stream, record.data()), 2);
  for (size_t i = 0; i < record.size(); ++i)
    EXPECT_EQ(record[i], (i >= 8 && i < 12) || (i >= 16 && i < 24) ? 0 : 0xdd) << i;
}

// 64 - 2 * 31 - 4 = -2: no such number is written.
TEST(CfsszDecode, ANegativeNumberOfBitsIsDamage) {
  const Layout layout({{CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT}});
  const Bytes stream = {0x5a, 0x01, 0, 0, 0, 1, 0b01111111, 0, 0, 0, 0, 0, 0, 0, 0,
                        0,    0,    0, 0, 0, 0, 0,          0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Decoding(layout, stream).end, -1);
}

// 30 zero pairs and 4 trailing zeros leave no bits: the value before, from 10 bits.
TEST(CfsszDecode, NoBitsLeftIsThePreviousValue) {
  const Layout layout({{CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT}});
  const Decoding dec(layout, {0x5a, 0x01, 0, 0, 0, 1, 0b01111101, 0b00});
  EXPECT_THAT(dec.records, ElementsAre(Record{0}));
  EXPECT_EQ(dec.end, 0);
}

TEST(CfsszDecode, ACutStreamGivesItsWholeRecordsThenDamageAndGoesOnWhenTheRestIsThere) {
  const std::vector<Field> fields = {{CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT},
                                     {CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT},
                                     {CFSSZ_INT32, CFSSZ_XOR_VARBIT}};
  Encoding enc(fields);
  std::vector<Record> records;
  std::vector<size_t> ends;
  for (uint64_t i = 0; i < 20; ++i) {
    records.push_back({1700000000 + 60 * i + i % 3, 0x4059000000000000 + (i * i << 40), uint64_t{1000} >> i});
    ASSERT_EQ(enc.add(records.back()), 0u);
    ends.push_back((enc.state->bit_offset + 7) / 8);
  }
  const Bytes stream = enc.finish();
  for (size_t len = 6; len <= stream.size(); ++len) {
    const Bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(len));
    const StatePtr state(cfssz_dec_state_alloc(enc.def.get(), cut.data(), cut.size()));
    Bytes record(enc.layout.struct_bytes());
    size_t count = 0;
    for (; ends[count] <= len; ++count) {
      ASSERT_GT(cfssz_dec_state_next(state.get(), cut.data(), len, record.data()), 0) << len;
      ASSERT_EQ(enc.layout.read(record), records[count]);
      if (count + 1 == records.size()) break;
    }
    if (len == stream.size()) break;
    record.assign(record.size(), 0xdd);
    for (int i = 0; i < 2; ++i)
      ASSERT_EQ(cfssz_dec_state_next(state.get(), cut.data(), len, record.data()), -1) << len;
    EXPECT_THAT(record, testing::Each(0xdd));
    for (; count < records.size(); ++count) {
      ASSERT_GT(cfssz_dec_state_next(state.get(), stream.data(), stream.size(), record.data()), 0);
      ASSERT_EQ(enc.layout.read(record), records[count]);
    }
    EXPECT_EQ(cfssz_dec_state_next(state.get(), stream.data(), stream.size(), record.data()), 0);
  }
}

TEST(CfsszDecode, RawBytesBeyondTheBufferAreDamage) {
  for (const cfssz_field_type type : {CFSSZ_INT32, CFSSZ_INT64, CFSSZ_FLOAT, CFSSZ_DOUBLE}) {
    const Layout layout({{type, CFSSZ_NONE}});
    Bytes stream = {0x5a, 0x01, 0, 0, 0, 2};
    stream.resize(6 + layout.struct_bytes() * 2 - 1, 0x11);
    const Decoding dec(layout, stream);
    EXPECT_EQ(dec.records.size(), 1u);
    EXPECT_EQ(dec.end, -1);
  }
}

}  // namespace
