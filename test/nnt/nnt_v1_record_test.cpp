#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <random>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"

using namespace nnt_test;

namespace {

std::string bytes_of(const nnt_datum_v1 &d) {
  return {reinterpret_cast<const char *>(&d), sizeof(d)};
}

nnt_datum_v1 datum(const std::string &bytes) {
  nnt_datum_v1 d;
  EXPECT_EQ(bytes.size(), sizeof(d));
  memcpy(&d, bytes.data(), sizeof(d));
  return d;
}

std::string encoded(const nnt_multitype &v) {
  nnt_datum_v1 d;
  memset(&d, 0x77, sizeof(d));
  EXPECT_EQ(v1_encode(&v, &d), 0);
  return bytes_of(d);
}

std::string from_hex(const char *hex) {
  std::string bytes;
  for (unsigned number = 0; *hex != '\0';) {
    int length = 0;
    EXPECT_EQ(sscanf(hex, " %2x%n", &number, &length), 1);
    bytes.push_back(static_cast<char>(number));
    hex += length;
  }
  return bytes;
}

nnt_multitype sample(nnt_type_t type) {
  nnt_multitype v{};
  v.type = type;
  v.count = 300;
  v.stddev_present = 1;
  v.stddev = 1.5F;
  v.derivative = 0.25F;
  v.derivative_stddev = -1.0F;
  v.counter = 2.0F;
  v.counter_stddev = 0.125F;
  return v;
}

}  // namespace

TEST(NntV1Layout, FieldsLieWhereTheFormatHasThem) {
  EXPECT_EQ(sizeof(nnt_datum_v1), 32u);
  EXPECT_EQ(offsetof(nnt_datum_v1, xor_chksum), 0u);
  EXPECT_EQ(offsetof(nnt_datum_v1, typeinfo), 1u);
  EXPECT_EQ(offsetof(nnt_datum_v1, count), 2u);
  EXPECT_EQ(offsetof(nnt_datum_v1, std), 4u);
  EXPECT_EQ(offsetof(nnt_datum_v1, value), 8u);
  EXPECT_EQ(offsetof(nnt_datum_v1, derivative.value), 16u);
  EXPECT_EQ(offsetof(nnt_datum_v1, derivative.stddev), 20u);
  EXPECT_EQ(offsetof(nnt_datum_v1, counter.value), 24u);
  EXPECT_EQ(offsetof(nnt_datum_v1, counter.stddev), 28u);
  EXPECT_EQ(sizeof(nnt_hdr), 16u);
  EXPECT_EQ(offsetof(nnt_hdr, version), 0u);
  EXPECT_EQ(offsetof(nnt_hdr, period), 4u);
  EXPECT_EQ(offsetof(nnt_hdr, epoch), 8u);
  EXPECT_EQ(offsetof(v1_meta, create_time), 0u);
  EXPECT_EQ(offsetof(v1_meta, start), 8u);
}

TEST(NntV1Encode, EveryTypeAsWrittenByHand) {
  // The rates are 0.25, -1, 2 and 0.125; the deviation is 1.5; the count is 300.
  const std::string rates = "0000803e 000080bf 00000040 0000003e";
  nnt_multitype v = sample(NNT_TYPE_INT32);
  v.value.v_int32 = -2;
  EXPECT_EQ(encoded(v), from_hex(("2e 02 2c01 0000c03f feffffff 00000000" + rates).c_str()));
  v = sample(NNT_TYPE_UINT32);
  v.value.v_uint32 = 0x01020304;
  EXPECT_EQ(encoded(v), from_hex(("2a 03 2c01 0000c03f 04030201 00000000" + rates).c_str()));
  v = sample(NNT_TYPE_INT64);
  v.value.v_int64 = -2;
  EXPECT_EQ(encoded(v), from_hex(("28 04 2c01 0000c03f feffffff ffffffff" + rates).c_str()));
  v = sample(NNT_TYPE_UINT64);
  v.value.v_uint64 = UINT64_C(0x0102030405060708);
  EXPECT_EQ(encoded(v), from_hex(("20 05 2c01 0000c03f 08070605 04030201" + rates).c_str()));
  v = sample(NNT_TYPE_DOUBLE);
  v.value.v_double = 1.0;
  EXPECT_EQ(encoded(v), from_hex(("e4 06 2c01 0000c03f 00000000 0000f03f" + rates).c_str()));
  v = sample(NNT_TYPE_NULL);
  v.value.v_uint64 = 77;  // not stored
  EXPECT_EQ(encoded(v), from_hex(("2c 01 2c01 0000c03f 00000000 00000000" + rates).c_str()));
}

TEST(NntV1Encode, ACountBeyond16BitsIsHeld) {
  for (const uint32_t count : {65534u, 65535u, 65536u, 70000u, 0xffffffffu}) {
    nnt_multitype v = uint64_value(1);
    v.count = count;
    nnt_datum_v1 d;
    ASSERT_EQ(v1_encode(&v, &d), 0);
    EXPECT_EQ(d.count, count < 65535 ? count : 65535);
  }
}

TEST(NntV1Encode, WithoutADeviationThereIsABitAndAZero) {
  nnt_multitype v = sample(NNT_TYPE_UINT64);
  v.stddev_present = 0;
  nnt_datum_v1 d;
  ASSERT_EQ(v1_encode(&v, &d), 0);
  EXPECT_EQ(d.typeinfo, 13);
  EXPECT_EQ(d.std, 0.0F);
  nnt_multitype back = filler();
  ASSERT_EQ(v1_decode(&d, &back), 0);
  EXPECT_EQ(back.stddev_present, 0);
  EXPECT_EQ(back.stddev, filler().stddev) << "a deviation that is not stored is not set";
}

TEST(NntV1Encode, EveryTypeWithoutADeviation) {
  for (uint32_t type = 1; type <= 6; ++type) {
    nnt_multitype v = sample(static_cast<nnt_type_t>(type));
    v.stddev_present = 0;
    EXPECT_EQ(static_cast<uint8_t>(encoded(v)[1]), type | 0x08);
    v.stddev_present = 200;  // any non-zero byte is true
    EXPECT_EQ(static_cast<uint8_t>(encoded(v)[1]), type);
  }
}

TEST(NntV1Encode, AbsentAndStringHaveNoRecord) {
  for (const nnt_type_t type : {NNT_TYPE_ABSENT, NNT_TYPE_STRING}) {
    const nnt_multitype v = sample(type);
    nnt_datum_v1 d;
    memset(&d, 0x77, sizeof(d));
    EXPECT_NE(v1_encode(&v, &d), 0);
    EXPECT_EQ(bytes_of(d), absent_records(1));
  }
}

TEST(NntV1Encode, AnUnknownTypeLosesItsTypeAndValue) {
  for (const uint32_t type : {8u, 9u, 15u, 16u, 0xffffffffu}) {
    SCOPED_TRACE(type);
    nnt_multitype v = sample(static_cast<nnt_type_t>(type));
    v.value.v_uint64 = 77;
    const std::string record = encoded(v);
    EXPECT_EQ(record, from_hex("2d 00 2c01 0000c03f 0000000000000000 0000803e 000080bf 00000040 0000003e"));
    nnt_datum_v1 d = datum(record);
    nnt_multitype back = filler();
    EXPECT_EQ(v1_decode(&d, &back), -1);
  }
}

TEST(NntV1Encode, AnUnknownTypeWithNothingElseReadsAsAbsent) {
  nnt_multitype v{};
  v.type = static_cast<nnt_type_t>(8);
  v.stddev_present = 1;
  nnt_datum_v1 d = datum(encoded(v));
  EXPECT_EQ(bytes_of(d), absent_records(1));
  nnt_multitype back = filler();
  EXPECT_EQ(v1_decode(&d, &back), 0);
  EXPECT_EQ(back.type, NNT_TYPE_ABSENT);
}

TEST(NntV1Encode, MinimaAndMaximaAreNotStored) {
  nnt_multitype v = sample(NNT_TYPE_DOUBLE);
  const std::string without = encoded(v);
  v.min = v.max = v.derivative_min = v.derivative_max = v.counter_min = v.counter_max = 9.0F;
  EXPECT_EQ(encoded(v), without);
}

TEST(NntV1Decode, SetsWhatIsStoredAndNothingElse) {
  const nnt_datum_v1 d =
      datum(from_hex("2e 02 2c01 0000c03f feffffff 00000000 0000803e 000080bf 00000040 0000003e"));
  nnt_multitype v = filler();
  ASSERT_EQ(v1_decode(&d, &v), 0);
  EXPECT_EQ(v.type, NNT_TYPE_INT32);
  EXPECT_EQ(v.count, 300u);
  EXPECT_EQ(v.stddev_present, 1);
  EXPECT_EQ(v.stddev, 1.5F);
  EXPECT_EQ(v.value.v_int32, -2);
  EXPECT_EQ(v.derivative, 0.25F);
  EXPECT_EQ(v.derivative_stddev, -1.0F);
  EXPECT_EQ(v.counter, 2.0F);
  EXPECT_EQ(v.counter_stddev, 0.125F);
  const float kept = filler().min;
  EXPECT_EQ(v.min, kept);
  EXPECT_EQ(v.max, kept);
  EXPECT_EQ(v.derivative_min, kept);
  EXPECT_EQ(v.derivative_max, kept);
  EXPECT_EQ(v.counter_min, kept);
  EXPECT_EQ(v.counter_max, kept);
}

TEST(NntV1Decode, ANullHasNoValue) {
  const nnt_datum_v1 d =
      datum(from_hex("2c 01 2c01 0000c03f 0000000000000000 0000803e 000080bf 00000040 0000003e"));
  nnt_multitype v = filler();
  ASSERT_EQ(v1_decode(&d, &v), 0);
  EXPECT_EQ(v.type, NNT_TYPE_NULL);
  EXPECT_EQ(v.value.v_uint64, filler().value.v_uint64);
}

TEST(NntV1Decode, ZerosAreAnAbsentSlot) {
  const nnt_datum_v1 d = datum(absent_records(1));
  nnt_multitype v = filler();
  ASSERT_EQ(v1_decode(&d, &v), 0);
  EXPECT_EQ(v.type, NNT_TYPE_ABSENT);
  nnt_multitype expected = filler();
  expected.type = NNT_TYPE_ABSENT;
  EXPECT_EQ(memcmp(&v, &expected, sizeof(v)), 0) << "only the type is set";
}

TEST(NntV1Decode, TypeBits0WithAnythingElseAreRefused) {
  for (size_t at = 1; at < 32; ++at) {
    SCOPED_TRACE(at);
    std::string bytes = absent_records(1);
    bytes[at] = 0x08;  // in byte 1: no deviation, still type bits 0
    const nnt_datum_v1 d = datum(with_checksum(bytes));
    nnt_multitype v = filler();
    EXPECT_EQ(v1_decode(&d, &v), -1);
    const nnt_multitype untouched = filler();
    EXPECT_EQ(memcmp(&v, &untouched, sizeof(v)), 0);
  }
}

TEST(NntV1Decode, TypeBits0WithADeviationAndARightChecksumAreRefused) {
  std::string bytes = absent_records(1);
  bytes[4] = 0x40;
  bytes[7] = 0x40;  // the two cancel out: the right checksum is 0
  const nnt_datum_v1 d = datum(bytes);
  nnt_multitype v = filler();
  EXPECT_EQ(v1_decode(&d, &v), -1);
}

TEST(NntV1Decode, TypeBits7SetAllButTypeAndValueAndAreRefused) {
  std::string bytes = record_of(sample(NNT_TYPE_DOUBLE));
  bytes[1] = 7;
  const nnt_datum_v1 d = datum(with_checksum(bytes));
  nnt_multitype v = filler();
  EXPECT_EQ(v1_decode(&d, &v), -1);
  EXPECT_EQ(v.type, filler().type);
  EXPECT_EQ(v.count, 300u);
  EXPECT_EQ(v.stddev, 1.5F);
  EXPECT_EQ(v.derivative, 0.25F);
  EXPECT_EQ(v.counter_stddev, 0.125F);
  EXPECT_EQ(v.value.v_uint64, filler().value.v_uint64);
}

TEST(NntV1Decode, TheUpperBitsOfTheTypeAreNotLookedAt) {
  std::string bytes = record_of(uint64_value(5));
  bytes[1] = static_cast<char>(0xf0 | 13);
  const nnt_datum_v1 d = datum(with_checksum(bytes));
  nnt_multitype v{};
  EXPECT_EQ(v1_decode(&d, &v), 0);
  EXPECT_EQ(v.type, NNT_TYPE_UINT64);
  EXPECT_EQ(v.value.v_uint64, 5u);
}

TEST(NntV1Decode, AnyFlippedBitIsFound) {
  const std::string good = record_of(sample(NNT_TYPE_DOUBLE));
  for (size_t bit = 0; bit < 256; ++bit) {
    SCOPED_TRACE(bit);
    std::string bytes = good;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    const nnt_datum_v1 d = datum(bytes);
    nnt_multitype v = filler();
    EXPECT_EQ(v1_decode(&d, &v), -1);
    const nnt_multitype untouched = filler();
    EXPECT_EQ(memcmp(&v, &untouched, sizeof(v)), 0) << "a wrong checksum comes before anything else";
  }
}

TEST(NntV1Record, RandomValuesAgreeWithTheByteModelBothWays) {
  for (uint64_t seed = 1; seed <= 20'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    nnt_multitype v{};
    uint64_t noise[8];
    for (uint64_t &word : noise) word = random();
    memcpy(&v, noise, sizeof(v));  // any bits at all, not-a-number included
    v.type = static_cast<nnt_type_t>(1 + random() % 6);
    v.stddev_present = static_cast<uint8_t>(random() % 2);
    const std::string record = encoded(v);
    ASSERT_EQ(record, record_of(v));
    const nnt_datum_v1 d = datum(record);
    nnt_multitype back{};
    ASSERT_EQ(v1_decode(&d, &back), 0);
    ASSERT_EQ(record_of(back), record);
  }
}

// The file that doc/nnt-file.md shows in hex, written by the library.
TEST(NntV1Record, TheDocumentedExampleIsWhatIsWritten) {
  TempDir dir;
  ASSERT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 1500000000, 300, 0644), 0);
  nnt_multitype slots[3] = {};
  slots[0].type = NNT_TYPE_UINT64;
  slots[0].count = 5;
  slots[0].value.v_uint64 = 42;
  slots[0].derivative = 0.5F;
  slots[0].counter = 0.25F;
  slots[2].type = NNT_TYPE_DOUBLE;
  slots[2].count = 70000;
  slots[2].stddev_present = 1;
  slots[2].stddev = 2.5F;
  slots[2].value.v_double = 1.5;
  slots[2].derivative = -1.0F;
  slots[2].derivative_stddev = 0.125F;
  slots[2].counter = std::numeric_limits<float>::quiet_NaN();
  ASSERT_EQ(nnt_put_range(open_file(dir.file("f")).get(), 1500000000, 3, slots), 3);
  EXPECT_EQ(dir.read("f"), from_hex("4e4e54312c010000002f685900000000"
                                    "a30d0500000000002a00000000000000"
                                    "0000003f000000000000803e00000000"
                                    "00000000000000000000000000000000"
                                    "00000000000000000000000000000000"
                                    "1f06ffff00002040000000000000f83f"
                                    "000080bf0000003e0000c07f00000000"));
}
