// Reading slots from an image in memory.
#include <sys/mman.h>

#include <climits>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

constexpr uint64_t kEpoch = 6000;

std::string three_records() {
  return record_of(uint64_value(1)) + record_of(uint64_value(2)) + record_of(uint64_value(3));
}

struct Read {
  int result;
  nnt_multitype v;
};

Read read_fast(const View &rf, uint64_t whence) {
  Read read{0, filler()};
  read.result = nnt_get_fast(rf.get(), whence, &read.v);
  return read;
}

void expect_cleared(const View &rf, uint64_t whence, int result) {
  SCOPED_TRACE(whence);
  const Read read = read_fast(rf, whence);
  EXPECT_EQ(read.result, result);
  EXPECT_TRUE(is_zero(read.v));
}

uint64_t apocalypse_of(const View &rf) {
  uint64_t apocalypse = 0;
  EXPECT_EQ(nnt_get_fast_apocalypse(rf.get(), &apocalypse), 0);
  return apocalypse;
}

// The raw range with its header freed.
struct Raw {
  int result = 0;
  nnt_range_raw_data data{};
  nnt_hdr header{};
  std::string bytes;
};

Raw raw_range(const View &rf, uint64_t whence, int cnt) {
  Raw raw;
  raw.result = nnt_get_raw_range(rf.get(), whence, cnt, &raw.data);
  if (raw.result != 0) return raw;
  raw.header = *raw.data.new_hdr;
  free(raw.data.new_hdr);
  EXPECT_EQ(raw.data.data_size, static_cast<int>(raw.data.datapoints * 32));
  if (raw.data.data_size > 0) raw.bytes.assign(raw.data.data, static_cast<size_t>(raw.data.data_size));
  return raw;
}

}  // namespace

// ---- single slots ----

TEST(NntGetFast, ReadsEverySlot) {
  View rf = view_of(header(60, kEpoch) + three_records());
  for (uint64_t slot = 0; slot < 3; ++slot) {
    for (const uint64_t inside : {0u, 59u}) {
      const Read read = read_fast(rf, kEpoch + slot * 60 + inside);
      EXPECT_EQ(read.result, 1);
      EXPECT_TRUE(same_stored(read.v, uint64_value(slot + 1)));
    }
  }
}

TEST(NntGetFast, OutsideTheImageAllIsZero) {
  View rf = view_of(header(60, kEpoch) + three_records());
  for (const uint64_t whence : {UINT64_C(0), kEpoch - 1, kEpoch + 180, kEpoch + 240, UINT64_MAX})
    expect_cleared(rf, whence, 1);
}

TEST(NntGetFast, AnAbsentSlotOnlySetsTheType) {
  View rf = view_of(header(60, kEpoch) + absent_records(1));
  const Read read = read_fast(rf, kEpoch);
  EXPECT_EQ(read.result, 1);
  nnt_multitype expected = filler();
  expected.type = NNT_TYPE_ABSENT;
  EXPECT_EQ(memcmp(&read.v, &expected, sizeof(expected)), 0);
}

TEST(NntGetFast, ARecordThatTheImageEndsInIsOutsideIt) {
  for (size_t length = 0; length < 64; ++length) {
    SCOPED_TRACE(length);
    View rf = view_of((header(60, kEpoch) + three_records()).substr(0, 16 + length));
    for (uint64_t slot = 0; slot < 2; ++slot) {
      const Read read = read_fast(rf, kEpoch + slot * 60);
      EXPECT_EQ(read.result, 1);
      EXPECT_EQ(read.v.type, (slot + 1) * 32 <= length ? NNT_TYPE_UINT64 : NNT_TYPE_ABSENT);
    }
  }
}

TEST(NntGetFast, AnyFlippedBitGivesAnErrorAndZeros) {
  const std::string good = record_of(uint64_value(77));
  for (size_t bit = 0; bit < 256; ++bit) {
    std::string bytes = good;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    expect_cleared(view_of(header(60, kEpoch) + bytes), kEpoch, -1);
  }
}

TEST(NntGetFast, TypesThatCannotBeGiveAnErrorAndZeros) {
  std::string no_type = absent_records(1);
  no_type[4] = 0x40;
  expect_cleared(view_of(header(60, kEpoch) + with_checksum(no_type)), kEpoch, -1);
  std::string text = record_of(uint64_value(1));
  text[1] = 15;
  expect_cleared(view_of(header(60, kEpoch) + with_checksum(text)), kEpoch, -1);
}

TEST(NntGetFast, APeriodOf0IsDamage) {
  View rf = view_of(header(0, kEpoch) + three_records());
  expect_cleared(rf, kEpoch - 1, 1);
  for (const uint64_t whence : {kEpoch, kEpoch + 1, UINT64_MAX}) expect_cleared(rf, whence, -1);
}

TEST(NntGetFast, PlacesThatWouldWrapAreOutside) {
  View rf = view_of(header(1, 0) + three_records());
  // 32 * whence is a multiple of 2^64, so the offset would come out as that of slot 0, 1 or 2.
  for (const uint64_t slot : {UINT64_C(0), UINT64_C(1), UINT64_C(2)})
    for (const uint64_t wrap : {UINT64_C(1) << 59, UINT64_C(2) << 59, UINT64_C(31) << 59})
      expect_cleared(rf, wrap + slot, 1);
  expect_cleared(rf, UINT64_MAX, 1);
  EXPECT_EQ(read_fast(rf, 2).v.value.v_uint64, 3u);
}

TEST(NntGetFast, AnEpochAtTheEndOfTimeReadsItsFirstSlots) {
  View rf = view_of(header(1, UINT64_MAX - 1) + three_records());
  EXPECT_EQ(read_fast(rf, UINT64_MAX - 1).v.value.v_uint64, 1u);
  EXPECT_EQ(read_fast(rf, UINT64_MAX).v.value.v_uint64, 2u);
  expect_cleared(rf, 0, 1);
}

TEST(NntGetFast, AnUnalignedEpochCountsPeriodsFromItsOwn) {
  View rf = view_of(header(60, 6030) + three_records());
  EXPECT_EQ(read_fast(rf, 6030).v.value.v_uint64, 1u);
  EXPECT_EQ(read_fast(rf, 6059).v.value.v_uint64, 1u);
  EXPECT_EQ(read_fast(rf, 6060).v.value.v_uint64, 2u);
  expect_cleared(rf, 6029, 1);
}

// ---- ranges ----

namespace {

// Slot by slot, until the timestamps end.
std::vector<nnt_multitype> slots_one_by_one(const View &rf, uint64_t whence, int cnt) {
  std::vector<nnt_multitype> values(static_cast<size_t>(cnt), nnt_multitype{});
  bool ended = false;
  for (nnt_multitype &v : values) {
    if (!ended) nnt_get_fast(rf.get(), whence, &v);
    ended = ended || whence > UINT64_MAX - rf->hdr.period;
    whence += rf->hdr.period;
  }
  return values;
}

void expect_same_range(const View &rf, uint64_t whence, int cnt) {
  SCOPED_TRACE(testing::Message() << "from " << whence << ", " << cnt << " slots");
  std::vector<nnt_multitype> values(static_cast<size_t>(cnt), nnt_multitype{});
  ASSERT_EQ(nnt_get_fast_range(rf.get(), whence, cnt, values.data()), cnt);
  const std::vector<nnt_multitype> expected = slots_one_by_one(rf, whence, cnt);
  for (size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(memcmp(&values[i], &expected[i], sizeof(values[i])), 0) << "slot " << i;
}

}  // namespace

TEST(NntGetFastRange, IsTheSameAsSlotBySlot) {
  std::string damaged = three_records();
  damaged[32 + 9] = 'x';
  const std::string images[] = {
      header(60, kEpoch) + three_records(),
      header(60, kEpoch) + damaged + absent_records(2) + record_of(uint64_value(9)),
      header(60, kEpoch),
      header(60, kEpoch) + three_records() + "ragged",
      header(60, 6030) + three_records(),
      header(1, 0) + three_records(),
      header(0, kEpoch) + three_records(),
      header(1, UINT64_MAX - 1) + three_records(),
      header(60, UINT64_MAX - 1) + three_records(),
      header(0xffffffff, 5) + three_records(),
  };
  const nnt_opset other_table = nnt_v1_opset;
  for (const std::string &image : images) {
    View rf = view_of(image);
    for (const bool known_table : {true, false}) {
      rf->opset = known_table ? &nnt_v1_opset : &other_table;
      for (const uint64_t whence :
           {UINT64_C(0), UINT64_C(1), kEpoch - 121, kEpoch - 60, kEpoch - 1, kEpoch, kEpoch + 59, kEpoch + 60,
            kEpoch + 119, kEpoch + 180, UINT64_C(1) << 59, UINT64_MAX - 61, UINT64_MAX - 1, UINT64_MAX})
        for (const int cnt : {1, 2, 3, 4, 300}) expect_same_range(rf, whence, cnt);
    }
  }
}

TEST(NntGetFastRange, WithoutACountItIsHandedBack) {
  View rf = view_of(header(60, kEpoch) + three_records());
  nnt_multitype v = filler();
  for (const int none : {0, -1, INT_MIN}) EXPECT_EQ(nnt_get_fast_range(rf.get(), kEpoch, none, &v), none);
  EXPECT_EQ(nnt_get_fast_range(nullptr, kEpoch, 1, &v), -1);
  const nnt_multitype untouched = filler();
  EXPECT_EQ(memcmp(&v, &untouched, sizeof(v)), 0);
}

// ---- apocalypse ----

TEST(NntGetFastApocalypse, IsTheEpochAndThePeriodsOfTheRecords) {
  EXPECT_EQ(apocalypse_of(view_of(header(60, kEpoch))), kEpoch);
  EXPECT_EQ(apocalypse_of(view_of(header(60, kEpoch) + three_records())), kEpoch + 180);
  EXPECT_EQ(apocalypse_of(view_of(header(0, kEpoch) + three_records())), kEpoch);
}

// On purpose: readers depend on the 32-bit product.
TEST(NntGetFastApocalypse, WrapsAt32Bits) {
  const uint32_t period = UINT32_C(1) << 31;
  EXPECT_EQ(apocalypse_of(view_of(header(period, 0) + absent_records(1))), UINT64_C(1) << 31);
  EXPECT_EQ(apocalypse_of(view_of(header(period, 0) + absent_records(2))), 0u);
  EXPECT_EQ(apocalypse_of(view_of(header(period, 0) + absent_records(3))), UINT64_C(1) << 31);
  EXPECT_EQ(apocalypse_of(view_of(header(0xffffffff, 5) + absent_records(2))), UINT64_C(5) + 0xfffffffe);
}

TEST(NntGetFastApocalypse, CountsTheLengthInRecordsEvenForARaggedEnd) {
  // 16 + 32 + 16 bytes are two records' worth: the length is divided as it is.
  EXPECT_EQ(apocalypse_of(view_of(header(60, kEpoch) + std::string(48, '\0'))), kEpoch + 120);
}

// ---- raw ranges ----

TEST(NntRawRange, HandsOutStoredRecords) {
  View rf = view_of(header(60, kEpoch) + three_records());
  const Raw raw = raw_range(rf, kEpoch + 60, 10);
  EXPECT_EQ(raw.result, 0);
  EXPECT_EQ(raw.data.original_epoch, kEpoch);
  EXPECT_EQ(raw.data.original_apocalypse, kEpoch + 180);
  EXPECT_EQ(raw.data.datapoints, 2u);
  EXPECT_EQ(raw.bytes, three_records().substr(32));
  EXPECT_EQ(raw.data.data, static_cast<char *>(rf->addr) + 16 + 32) << "not a copy";
  EXPECT_EQ(memcmp(raw.header.version, "NNT1", 4), 0);
  EXPECT_EQ(raw.header.period, 60u);
  EXPECT_EQ(raw.header.epoch, kEpoch + 60);
}

TEST(NntRawRange, HeaderAndRecordsAreAFile) {
  View rf = view_of(header(60, kEpoch) + three_records());
  nnt_range_raw_data data{};
  ASSERT_EQ(nnt_get_raw_range(rf.get(), kEpoch + 60, 2, &data), 0);
  std::string file(reinterpret_cast<const char *>(data.new_hdr), sizeof(nnt_hdr));
  file.append(data.data, static_cast<size_t>(data.data_size));
  free(data.new_hdr);
  EXPECT_EQ(file, header(60, kEpoch + 60) + three_records().substr(32));
}

TEST(NntRawRange, TheCountLimitsIt) {
  View rf = view_of(header(60, kEpoch) + three_records());
  EXPECT_EQ(raw_range(rf, kEpoch, 2).bytes, three_records().substr(0, 64));
  EXPECT_EQ(raw_range(rf, kEpoch, INT_MAX).bytes, three_records());
  for (const int none : {0, -1, INT_MIN}) {
    const Raw raw = raw_range(rf, kEpoch, none);
    EXPECT_EQ(raw.result, 0);
    EXPECT_EQ(raw.data.datapoints, 0u);
    EXPECT_EQ(raw.header.epoch, kEpoch);
  }
}

TEST(NntRawRange, StartsAtTheEpochAtTheEarliest) {
  View rf = view_of(header(60, kEpoch) + three_records());
  const Raw raw = raw_range(rf, 0, 1);
  EXPECT_EQ(raw.bytes, three_records().substr(0, 32));
  EXPECT_EQ(raw.header.epoch, kEpoch);
}

TEST(NntRawRange, AnUnalignedStartMakesAnUnalignedEpoch) {
  View rf = view_of(header(60, kEpoch) + three_records());
  const Raw raw = raw_range(rf, kEpoch + 61, 1);
  EXPECT_EQ(raw.bytes, three_records().substr(32, 32));
  EXPECT_EQ(raw.header.epoch, kEpoch + 61);
}

TEST(NntRawRange, PastTheEndThereIsNothing) {
  View rf = view_of(header(60, kEpoch) + three_records());
  for (const uint64_t whence : {kEpoch + 180, kEpoch + 1000, UINT64_MAX}) {
    const Raw raw = raw_range(rf, whence, 5);
    EXPECT_EQ(raw.result, 0);
    EXPECT_EQ(raw.data.datapoints, 0u);
    EXPECT_EQ(raw.data.data_size, 0);
    EXPECT_EQ(raw.header.epoch, kEpoch);
    EXPECT_EQ(raw.data.original_apocalypse, kEpoch + 180);
  }
}

TEST(NntRawRange, AnEmptyImageHasNothing) {
  View rf = view_of(header(60, kEpoch));
  const Raw raw = raw_range(rf, kEpoch, 5);
  EXPECT_EQ(raw.result, 0);
  EXPECT_EQ(raw.data.datapoints, 0u);
  EXPECT_EQ(raw.header.epoch, kEpoch);
}

TEST(NntRawRange, HeadersThatMakeNoSenseGiveNothing) {
  for (const uint64_t whence : {UINT64_C(0), kEpoch, UINT64_MAX}) {
    EXPECT_EQ(raw_range(view_of(header(0, kEpoch) + three_records()), whence, 5).data.datapoints, 0u);
    // The apocalypse wraps to before the epoch.
    EXPECT_EQ(raw_range(view_of(header(60, UINT64_MAX) + three_records()), whence, 5).data.datapoints, 0u);
  }
}

TEST(NntRawRange, ARaggedEndIsNeitherARecordNorAPlace) {
  for (size_t extra = 1; extra < 32; ++extra) {
    SCOPED_TRACE(extra);
    View rf = view_of(header(60, kEpoch) + three_records() + std::string(extra, 'x'));
    const Raw all = raw_range(rf, kEpoch, 100);
    EXPECT_EQ(all.data.datapoints, 3u);
    const Raw past = raw_range(rf, kEpoch + 180, 100);
    EXPECT_EQ(past.data.datapoints, 0u);
    if (past.data.data != nullptr) {
      EXPECT_LE(past.data.data, static_cast<char *>(rf->addr) + rf->len);
    }
  }
}

TEST(NntRawRange, AWrappedApocalypseHidesTheSlotsPastIt) {
  const uint32_t period = UINT32_C(1) << 31;
  View rf = view_of(header(period, 0) + three_records());  // ends at 2^31 after the wrap
  EXPECT_EQ(raw_range(rf, 0, 100).bytes, three_records());
  EXPECT_EQ(raw_range(rf, period, 100).data.datapoints, 0u);
}

TEST(NntRawRange, DamagedRecordsAreHandedOutAsTheyAre) {
  std::string records = three_records();
  records[32 + 9] = 'x';
  EXPECT_EQ(raw_range(view_of(header(60, kEpoch) + records), kEpoch, 3).bytes, records);
}

TEST(NntRawRange, WithoutMemoryNothingIsTouched) {
  View rf = view_of(header(60, kEpoch) + three_records());
  nnt_range_raw_data data;
  memset(&data, 0x5a, sizeof(data));
  const nnt_range_raw_data before = data;
  const faults::Fail fault(faults::Call::malloc, ENOMEM);
  EXPECT_EQ(nnt_get_raw_range(rf.get(), kEpoch, 3, &data), -1);
  EXPECT_EQ(memcmp(&data, &before, sizeof(data)), 0);
}

TEST(NntRawRange, NeverExceedsWhatItsSizeCanTell) {
  // 2^26 records are 2^31 bytes, one more than data_size holds. The image is never touched, so it costs no memory.
  const size_t length = 16 + 32 * (size_t{1} << 26);
  void *addr =
      mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(addr, MAP_FAILED);
  memcpy(addr, header(1, 0).data(), 16);
  View rf(nnt_acquire_transient_mmap(addr, length));
  nnt_range_raw_data data{};
  ASSERT_EQ(nnt_get_raw_range(rf.get(), 0, INT_MAX, &data), 0);
  free(data.new_hdr);
  EXPECT_EQ(data.datapoints, (1u << 26) - 1);
  EXPECT_EQ(data.data_size, INT_MAX - 31);
}
