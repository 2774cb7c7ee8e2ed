// Definitions and states; what each encoding costs; what is fatal.
#include "liborlith/util/cfssz.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>

#include "ruxo/log.h"
#include "test/util/cfssz_model.h"

namespace {

using namespace cfssz_model;
using testing::ElementsAre;

constexpr uint16_t kSignature = 0x5a01;

cfssz_field field_at(size_t offset, cfssz_field_type type, cfssz_field_encoding enc) {
  return {offset, 77, 99, type, enc};
}

TEST(CfsszDefinition, ComputesLengthsAndPlacesWhateverTheFieldsHeld) {
  const cfssz_field a = field_at(40, CFSSZ_INT32, CFSSZ_NONE);
  const cfssz_field b = field_at(8, CFSSZ_INT64, CFSSZ_XOR_VARBIT);
  const cfssz_field c = field_at(4, CFSSZ_FLOAT, CFSSZ_DELTADELTA_VARBIT);
  const cfssz_field d = field_at(24, CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT);
  const cfssz_field *fields[] = {&a, &b, &c, &d, nullptr};
  const DefinitionPtr def(cfssz_compile_definition(0xfedc, fields));
  ASSERT_NE(def, nullptr);
  EXPECT_EQ(def->signature, 0xfedcu);
  EXPECT_EQ(def->nfields, 4u);
  EXPECT_EQ(def->len, 24u);
  const size_t lens[] = {4, 8, 4, 8}, places[] = {0, 4, 12, 16}, offsets[] = {40, 8, 4, 24};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(def->fields[i].len, lens[i]);
    EXPECT_EQ(def->fields[i].internal_offset, places[i]);
    EXPECT_EQ(def->fields[i].field_offset, offsets[i]);
    EXPECT_EQ(def->fields[i].field_type, i);
    EXPECT_EQ(def->fields[i].field_enc, fields[i]->field_enc);
  }
}

TEST(CfsszDefinition, OfAnEmptyListHasNoFieldsAndNoLength) {
  const cfssz_field *none[] = {nullptr};
  const DefinitionPtr def(cfssz_compile_definition(7, none));
  ASSERT_NE(def, nullptr);
  EXPECT_EQ(def->signature, 7u);
  EXPECT_EQ(def->nfields, 0u);
  EXPECT_EQ(def->len, 0u);
}

TEST(CfsszDefinition, ConstantsAndLayoutAreWhatHostsHave) {
  EXPECT_EQ(sizeof(cfssz_field_type), 4u);
  EXPECT_EQ(sizeof(cfssz_field_encoding), 4u);
  EXPECT_THAT((std::vector<int>{CFSSZ_INT32, CFSSZ_INT64, CFSSZ_FLOAT, CFSSZ_DOUBLE}),
              ElementsAre(0, 1, 2, 3));
  EXPECT_THAT((std::vector<int>{CFSSZ_NONE, CFSSZ_XOR_VARBIT, CFSSZ_DELTADELTA_VARBIT}),
              ElementsAre(0, 1, 2));
  EXPECT_EQ(offsetof(cfssz_field, field_enc), 28u);
  EXPECT_EQ(offsetof(cfssz_definition, fields), 24u);
  EXPECT_EQ(offsetof(cfssz_state, working_buffer), 36u);
}

TEST(CfsszState, BothDirectionsBeginAfterTheHeaderWithZeroedImages) {
  const Layout layout({{CFSSZ_INT64, CFSSZ_XOR_VARBIT}, {CFSSZ_INT32, CFSSZ_NONE}});
  const DefinitionPtr def = layout.compile(kSignature);
  const uint8_t header[] = {0x5a, 0x01, 0x01, 0x02, 0x03, 0x04};
  const StatePtr enc(cfssz_enc_state_alloc(def.get()));
  const StatePtr dec(cfssz_dec_state_alloc(def.get(), header, sizeof header));
  ASSERT_TRUE(enc != nullptr && dec != nullptr);
  EXPECT_TRUE(enc->encoding);
  EXPECT_FALSE(dec->encoding);
  EXPECT_EQ(enc->nelem, 0u);
  EXPECT_EQ(dec->nelem, 0x01020304u);
  for (const cfssz_state *state : {enc.get(), dec.get()}) {
    EXPECT_EQ(state->definition, def.get());
    EXPECT_EQ(state->bit_offset, 48u);
    EXPECT_EQ(state->current_index, 0u);
    EXPECT_THAT(std::vector<uint8_t>(state->working_buffer, state->working_buffer + 36), testing::Each(0));
  }
}

TEST(CfsszState, AStreamWithAnotherSignatureYieldsNoDecodingState) {
  const DefinitionPtr def = Layout({{CFSSZ_INT32, CFSSZ_NONE}}).compile(kSignature);
  const uint8_t first[] = {0x5b, 0x01, 0, 0, 0, 0}, second[] = {0x5a, 0x02, 0, 0, 0, 0};
  const uint8_t swapped[] = {0x01, 0x5a, 0, 0, 0, 0};
  for (const uint8_t *header : {first, second, swapped})
    EXPECT_EQ(cfssz_dec_state_alloc(def.get(), header, 6), nullptr);
}

TEST(CfsszState, AStreamShorterThanItsHeaderYieldsNoDecodingState) {
  const DefinitionPtr def = Layout({{CFSSZ_INT32, CFSSZ_NONE}}).compile(kSignature);
  const uint8_t header[] = {0x5a, 0x01, 0, 0, 0, 0};
  for (size_t len = 0; len < 6; ++len) {
    const Bytes exact(header, header + len);
    EXPECT_EQ(cfssz_dec_state_alloc(def.get(), exact.data(), len), nullptr) << len;
  }
  EXPECT_NE(StatePtr(cfssz_dec_state_alloc(def.get(), header, 6)), nullptr);
}

TEST(CfsszState, OnlyTheLow16BitsOfASignatureCount) {
  const DefinitionPtr def = Layout({{CFSSZ_INT32, CFSSZ_NONE}}).compile(kSignature);
  def->signature |= 0xabcd0000;
  const uint8_t header[] = {0x5a, 0x01, 0, 0, 0, 0};
  EXPECT_NE(StatePtr(cfssz_dec_state_alloc(def.get(), header, 6)), nullptr);
}

// The sizes in bits of the records of a stream with one field, as written and as read.
class Costs {
 public:
  Costs(cfssz_field_type type, cfssz_field_encoding enc, const std::vector<uint64_t> &values) {
    const Layout layout({{type, enc}});
    const DefinitionPtr def = layout.compile(kSignature);
    const StatePtr state(cfssz_enc_state_alloc(def.get()));
    stream.assign(4096, 0);
    for (const uint64_t value : values) {
      const size_t before = state->bit_offset;
      EXPECT_EQ(cfssz_enc_state_add(state.get(), stream.data(), stream.size(), &value), 0u);
      written.push_back(state->bit_offset - before);
    }
    stream.resize(cfssz_enc_state_finalize(state.get(), stream.data(), stream.size()));
    const StatePtr dec(cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
    for (size_t i = 0; i < values.size(); ++i) {
      uint64_t value = 0;
      read.push_back(cfssz_dec_state_next(dec.get(), stream.data(), stream.size(), &value));
      decoded.push_back(value);
    }
  }
  std::vector<size_t> written;
  std::vector<ssize_t> read;
  std::vector<uint64_t> decoded;
  Bytes stream;
};

TEST(CfsszCost, IdenticalRecordsAfterTheFirstCostOneBitForEachXorOrDeltaField) {
  for (const cfssz_field_type type : {CFSSZ_INT32, CFSSZ_INT64, CFSSZ_FLOAT, CFSSZ_DOUBLE}) {
    for (const cfssz_field_encoding enc : {CFSSZ_XOR_VARBIT, CFSSZ_DELTADELTA_VARBIT}) {
      const Costs costs(type, enc, {1, 1, 1});
      EXPECT_GT(costs.written[0], 1u);
      EXPECT_THAT(costs.written, ElementsAre(costs.written[0], 1u, 1u));
      const Costs same(type, enc, {0, 0, 0, 0});
      EXPECT_THAT(same.written, ElementsAre(1u, 1u, 1u, 1u));
      EXPECT_THAT(same.read, ElementsAre(1, 1, 1, 1));
    }
  }
}

TEST(CfsszCost, DeltaFieldsFromTheThirdRecordOnCostOneBitWhenTheDeltaDoesNotChange) {
  for (const cfssz_field_type type : {CFSSZ_INT32, CFSSZ_INT64, CFSSZ_FLOAT, CFSSZ_DOUBLE}) {
    const Costs costs(type, CFSSZ_DELTADELTA_VARBIT, {1000, 1060, 1120, 1180, 1240});
    EXPECT_GT(costs.written[1], 1u);
    EXPECT_EQ(std::vector<size_t>(costs.written.begin() + 2, costs.written.end()),
              (std::vector<size_t>{1, 1, 1}));
    EXPECT_THAT(costs.decoded, ElementsAre(1000u, 1060u, 1120u, 1180u, 1240u));
  }
}

TEST(CfsszXor32, ADifferenceOf1Costs7Bits) {
  for (const cfssz_field_type type : {CFSSZ_INT32, CFSSZ_FLOAT}) {
    const Costs costs(type, CFSSZ_XOR_VARBIT, {6, 7});
    EXPECT_EQ(costs.written[1], 1u + 4 + 2);
    EXPECT_EQ(costs.read[1], 7);
    EXPECT_THAT(costs.decoded, ElementsAre(6u, 7u));
  }
}

TEST(CfsszXor32, ADifferenceInTheTopBitCosts37Bits) {
  for (const cfssz_field_type type : {CFSSZ_INT32, CFSSZ_FLOAT}) {
    const Costs costs(type, CFSSZ_XOR_VARBIT, {6, 0x80000006});
    EXPECT_EQ(costs.written[1], 1u + 4 + 32);
    EXPECT_THAT(costs.decoded, ElementsAre(6u, 0x80000006u));
  }
}

// One bit 1; 30 zero pairs, 01111; the trailing flag 1; code 7, 111; then the 4 bits of 8, lowest first, 0001.
// Bits 48 to 61: 1 01111 1 111 0001.
TEST(CfsszXor64, ThreeTrailingZerosAreWrittenWithCode7AndNoShiftAndDoNotDecode) {
  for (const cfssz_field_type type : {CFSSZ_INT64, CFSSZ_DOUBLE}) {
    const Costs costs(type, CFSSZ_XOR_VARBIT, {8});
    EXPECT_EQ(costs.written[0], 14u);
    EXPECT_THAT(costs.stream, ElementsAre(0x5a, 0x01, 0, 0, 0, 1, 0b11111101, 0b00100011));
    EXPECT_THAT(costs.read, ElementsAre(-1));
  }
}

TEST(CfsszXor64, ThreeTrailingZerosBelowHighBitsDecodeToAnotherValue) {
  const Costs costs(CFSSZ_INT64, CFSSZ_XOR_VARBIT, {0x8000000000000008});
  EXPECT_EQ(costs.written[0], 74u);
  EXPECT_THAT(costs.read, ElementsAre(10 + 32));
  EXPECT_THAT(costs.decoded, ElementsAre(uint64_t{8} << 32));
}

// 1; 27 zero pairs, 11011; flag 1; code 1, 100; the 64 - 54 - 8 = 2 bits of 1: 10.
// Bits 48 to 59: 1 11011 1 100 10.
TEST(CfsszXor64, EightTrailingZerosAreWrittenWithCode1) {
  for (const cfssz_field_type type : {CFSSZ_INT64, CFSSZ_DOUBLE}) {
    const Costs costs(type, CFSSZ_XOR_VARBIT, {0x100});
    EXPECT_EQ(costs.written[0], 12u);
    EXPECT_THAT(costs.stream, ElementsAre(0x5a, 0x01, 0, 0, 0, 1, 0b11110111, 0b00000100));
    EXPECT_THAT(costs.decoded, ElementsAre(0x100u));
  }
}

TEST(CfsszXor64, EveryCountOfTrailingZerosButThreeComesBack) {
  for (unsigned zeros = 0; zeros < 64; ++zeros) {
    for (const uint64_t above : {uint64_t{1}, uint64_t{5}, ~uint64_t{0}}) {
      const uint64_t value = above << zeros;
      const Costs costs(CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT, {value});
      if (zeros == 3) {
        EXPECT_NE(costs.decoded[0], value);
      } else {
        EXPECT_EQ(costs.decoded[0], value) << zeros;
        EXPECT_EQ(static_cast<size_t>(costs.read[0]), costs.written[0]);
      }
    }
  }
}

TEST(CfsszStream, OfNoRecordsIsTheHeaderAndDecodesToNothing) {
  const DefinitionPtr def = Layout({{CFSSZ_INT64, CFSSZ_XOR_VARBIT}}).compile(kSignature);
  const StatePtr enc(cfssz_enc_state_alloc(def.get()));
  Bytes buffer(100, 0xee);
  ASSERT_EQ(cfssz_enc_state_finalize(enc.get(), buffer.data(), buffer.size()), 6u);
  EXPECT_THAT(Bytes(buffer.begin(), buffer.begin() + 7), ElementsAre(0x5a, 0x01, 0, 0, 0, 0, 0xee));
  const StatePtr dec(cfssz_dec_state_alloc(def.get(), buffer.data(), 6));
  uint64_t value = 42;
  EXPECT_EQ(cfssz_dec_state_next(dec.get(), buffer.data(), 6, &value), 0);
  EXPECT_EQ(value, 42u);
}

TEST(CfsszStream, OfRecordsWithoutFieldsHoldsTheirNumberOnly) {
  const DefinitionPtr def = Layout(std::vector<Field>{}).compile(kSignature);
  const StatePtr enc(cfssz_enc_state_alloc(def.get()));
  Bytes buffer(6);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(cfssz_enc_state_add(enc.get(), buffer.data(), buffer.size(), nullptr), 0u);
  EXPECT_EQ(cfssz_enc_state_finalize(enc.get(), buffer.data(), buffer.size()), 6u);
  EXPECT_THAT(buffer, ElementsAre(0x5a, 0x01, 0, 0, 0, 3));
  const StatePtr dec(cfssz_dec_state_alloc(def.get(), buffer.data(), 6));
  EXPECT_EQ(cfssz_dec_state_next(dec.get(), buffer.data(), 6, nullptr), 0);
}

constexpr char kEncodingLine[] =
    "message=\"\\[FATAL\\] assertion \\(state->encoding\\) at util/cfssz\\.cpp:[0-9]+ failed\"\n";
constexpr char kDecodingLine[] =
    "message=\"\\[FATAL\\] assertion \\(!state->encoding\\) at util/cfssz\\.cpp:[0-9]+ failed\"\n";
constexpr char kZeroLine[] = "message=\"\\[FATAL\\] assertion \\(0\\) at util/cfssz\\.cpp:[0-9]+ failed\"\n";

class CfsszDeathTest : public testing::Test {
 protected:
  const DefinitionPtr def_ = Layout({{CFSSZ_INT32, CFSSZ_NONE}}).compile(kSignature);
  const uint8_t stream_[10] = {0x5a, 0x01, 0, 0, 0, 1};
  const StatePtr enc_{cfssz_enc_state_alloc(def_.get())};
  const StatePtr dec_{cfssz_dec_state_alloc(def_.get(), stream_, sizeof stream_)};
  uint8_t buffer_[64] = {};
  uint32_t record_ = 0;
};

TEST_F(CfsszDeathTest, AddingToADecodingStateIsFatal) {
  EXPECT_DEATH(cfssz_enc_state_add(dec_.get(), buffer_, sizeof buffer_, &record_), kEncodingLine);
}

TEST_F(CfsszDeathTest, FinalizingADecodingStateIsFatal) {
  EXPECT_DEATH(cfssz_enc_state_finalize(dec_.get(), buffer_, sizeof buffer_), kEncodingLine);
}

TEST_F(CfsszDeathTest, DecodingWithAnEncodingStateIsFatal) {
  EXPECT_DEATH(cfssz_dec_state_next(enc_.get(), stream_, sizeof stream_, &record_), kDecodingLine);
}

TEST_F(CfsszDeathTest, DefiningAFieldOfAnUnknownTypeIsFatal) {
  for (const uint32_t type : {4u, 0x80000000u}) {
    const cfssz_field field = field_at(0, static_cast<cfssz_field_type>(type), CFSSZ_NONE);
    const cfssz_field *fields[] = {&field, nullptr};
    EXPECT_DEATH(cfssz_compile_definition(1, fields), kZeroLine);
  }
}

TEST_F(CfsszDeathTest, DefiningAFieldOfAnUnknownEncodingIsFatal) {
  const cfssz_field field = field_at(0, CFSSZ_INT32, static_cast<cfssz_field_encoding>(3));
  const cfssz_field *fields[] = {&field, nullptr};
  EXPECT_DEATH(cfssz_compile_definition(1, fields), kZeroLine);
}

TEST_F(CfsszDeathTest, ReadingARawFieldOfAnUnknownTypeIsFatal) {
  def_->fields[0].field_type = static_cast<cfssz_field_type>(4);
  EXPECT_DEATH(cfssz_dec_state_next(dec_.get(), stream_, sizeof stream_, &record_), kZeroLine);
}

TEST_F(CfsszDeathTest, WritingARawFieldOfAnUnknownTypeIsFatal) {
  def_->fields[0].field_type = static_cast<cfssz_field_type>(4);
  EXPECT_DEATH(cfssz_enc_state_add(enc_.get(), buffer_, sizeof buffer_, &record_), kZeroLine);
}

}  // namespace
