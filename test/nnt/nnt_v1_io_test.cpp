// Reading and writing slots through a handle.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <map>
#include <random>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

constexpr uint64_t kEpoch = 6000;
constexpr uint32_t kPeriod = 60;

// A file of its own with some slots, at kEpoch and kPeriod.
struct File {
  explicit File(const std::string &records = "", uint32_t period = kPeriod, uint64_t epoch = kEpoch)
      : head(header(period, epoch)), handle(open_bytes(dir, "f", head + records)) {}

  std::string records() const {
    const std::string bytes = dir.read("f");
    EXPECT_EQ(bytes.substr(0, 16), head);
    return bytes.substr(16);
  }
  nnt_handle *get() const { return handle.get(); }

  TempDir dir;
  std::string head;
  Handle handle;
};

uint64_t at(uint64_t slot) {
  return kEpoch + slot * kPeriod;
}

std::vector<nnt_multitype> numbers(std::initializer_list<uint64_t> list) {
  std::vector<nnt_multitype> values;
  for (const uint64_t number : list) values.push_back(uint64_value(number));
  return values;
}

std::string records_of(const std::vector<nnt_multitype> &values) {
  std::string bytes;
  for (const nnt_multitype &v : values) bytes += v.type == NNT_TYPE_ABSENT ? absent_records(1) : record_of(v);
  return bytes;
}

int put(const File &f, uint64_t whence, const std::vector<nnt_multitype> &values) {
  return nnt_put_range(f.get(), whence, static_cast<int>(values.size()), values.data());
}

std::vector<nnt_multitype> get(const File &f, uint64_t whence, int count) {
  std::vector<nnt_multitype> values(static_cast<size_t>(count), filler());
  EXPECT_EQ(nnt_get_range(f.get(), whence, count, values.data()), count);
  return values;
}

void expect_slots(const File &f, const std::vector<nnt_multitype> &expected) {
  const std::vector<nnt_multitype> read = get(f, kEpoch, static_cast<int>(expected.size()));
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_TRUE(same_stored(read[i], expected[i])) << "slot " << i;
    nnt_multitype v{};
    EXPECT_EQ(nnt_get(f.get(), at(i), &v), 1);
    EXPECT_TRUE(same_stored(v, expected[i])) << "slot " << i;
  }
}

const nnt_multitype kAbsent{};

}  // namespace

// ---- put ----

TEST(NntPut, WritesOneRecordAtItsPlace) {
  File f;
  const nnt_multitype v = uint64_value(7);
  EXPECT_EQ(nnt_put(f.get(), at(2), &v), 1);
  EXPECT_EQ(f.records(), absent_records(2) + record_of(v));
}

TEST(NntPut, AnyTimestampInsideAPeriodNamesItsSlot) {
  for (const uint64_t inside : {0u, 1u, 59u}) {
    File f;
    const nnt_multitype v = uint64_value(7);
    EXPECT_EQ(nnt_put(f.get(), at(1) + inside, &v), 1);
    EXPECT_EQ(f.records(), absent_records(1) + record_of(v));
    nnt_multitype back{};
    EXPECT_EQ(nnt_get(f.get(), at(2) - 1, &back), 1);
    EXPECT_TRUE(same_stored(back, v));
  }
}

TEST(NntPut, EveryStorableTypeComesBack) {
  for (uint32_t type = 1; type <= 6; ++type) {
    File f;
    const nnt_multitype v = value_of_type(static_cast<nnt_type_t>(type));
    EXPECT_EQ(nnt_put(f.get(), kEpoch, &v), 1);
    EXPECT_EQ(f.records(), record_of(v));
    nnt_multitype back{};
    EXPECT_EQ(nnt_get(f.get(), kEpoch, &back), 1);
    EXPECT_TRUE(same_stored(back, v));
  }
}

TEST(NntPut, FarPastTheEndLeavesAbsentSlotsBetween) {
  File f(record_of(uint64_value(1)));
  const nnt_multitype v = uint64_value(2);
  EXPECT_EQ(nnt_put(f.get(), at(1000), &v), 1);
  EXPECT_EQ(f.records(), record_of(uint64_value(1)) + absent_records(999) + record_of(v));
  for (const uint64_t slot : {1u, 500u, 999u, 1001u}) {
    nnt_multitype back = filler();
    EXPECT_EQ(nnt_get(f.get(), at(slot), &back), 1);
    nnt_multitype expected = filler();
    expected.type = NNT_TYPE_ABSENT;
    EXPECT_EQ(memcmp(&back, &expected, sizeof(back)), 0) << "only the type is set";
  }
  uint64_t apocalypse = 0;
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, at(1001));
}

TEST(NntPut, ASingleAbsentValueIsRefused) {
  File f(record_of(uint64_value(1)));
  EXPECT_EQ(nnt_put(f.get(), kEpoch, &kAbsent), -1);
  EXPECT_EQ(f.records(), record_of(uint64_value(1)));
  // So is the one that is left after those before the epoch.
  EXPECT_EQ(put(f, kEpoch - kPeriod, {uint64_value(5), kAbsent}), -1);
  EXPECT_EQ(f.records(), record_of(uint64_value(1)));
}

TEST(NntPut, AnAbsentValueAmongOthersClearsItsSlot) {
  File f(records_of(numbers({1, 2, 3})));
  EXPECT_EQ(put(f, at(0), {kAbsent, uint64_value(9)}), 2);
  EXPECT_EQ(f.records(), absent_records(1) + records_of(numbers({9, 3})));
  EXPECT_EQ(put(f, at(1), {kAbsent, kAbsent}), 2);
  EXPECT_EQ(f.records(), absent_records(3));
}

TEST(NntPut, AStringRefusesTheWholeRange) {
  const std::string before = records_of(numbers({1, 2, 3}));
  for (const size_t where : {0u, 1u, 2u}) {
    File f(before);
    std::vector<nnt_multitype> values = numbers({4, 5, 6});
    values[where].type = NNT_TYPE_STRING;
    EXPECT_EQ(put(f, at(0), values), -1);
    EXPECT_EQ(f.records(), before);
  }
  File f(before);
  const nnt_multitype text = value_of_type(NNT_TYPE_STRING);
  EXPECT_EQ(nnt_put(f.get(), at(0), &text), -1);
  EXPECT_EQ(f.records(), before);
}

TEST(NntPut, AnUnknownTypeIsStoredDamaged) {
  File f;
  const nnt_multitype odd = value_of_type(static_cast<nnt_type_t>(9));
  EXPECT_EQ(nnt_put(f.get(), at(0), &odd), 1);
  nnt_multitype v{};
  EXPECT_EQ(nnt_get(f.get(), at(0), &v), -1);
  EXPECT_EQ(get(f, at(0), 1)[0].type, NNT_TYPE_ABSENT);
}

TEST(NntPut, ValuesBeforeTheEpochAreSkipped) {
  File f;
  EXPECT_EQ(put(f, kEpoch - 2 * kPeriod, numbers({1, 2, 3})), 1);
  EXPECT_EQ(f.records(), records_of(numbers({3})));
  EXPECT_EQ(put(f, kEpoch - 2 * kPeriod, numbers({4, 5, 6, 7})), 2);
  EXPECT_EQ(f.records(), records_of(numbers({6, 7})));
}

TEST(NntPut, AnUnalignedStartBeforeTheEpochKeepsItsDistance) {
  // The values stand at epoch - 61, -1 and +59: the last one falls into slot 0.
  File f;
  EXPECT_EQ(put(f, kEpoch - 61, numbers({1, 2, 3})), 1);
  EXPECT_EQ(f.records(), records_of(numbers({3})));
}

TEST(NntPut, WithNothingAfterTheEpochNothingIsDue) {
  File f;
  EXPECT_EQ(put(f, 0, numbers({1, 2, 3})), 0);
  EXPECT_EQ(put(f, kEpoch - 3 * kPeriod, numbers({1, 2, 3})), 0);
  const nnt_multitype v = uint64_value(1);
  EXPECT_EQ(nnt_put(f.get(), kEpoch - 1, &v), 0);
  EXPECT_EQ(nnt_put_range(f.get(), kEpoch, 0, &v), 0);
  EXPECT_EQ(nnt_put_range(f.get(), kEpoch, -1, &v), 0);
  EXPECT_EQ(nnt_put_range(f.get(), kEpoch, INT_MIN, &v), 0);
  EXPECT_EQ(f.records(), "");
}

TEST(NntPut, ASkippedStringDoesNotMatter) {
  File f;
  EXPECT_EQ(put(f, kEpoch - kPeriod, {value_of_type(NNT_TYPE_STRING), uint64_value(2)}), 1);
  EXPECT_EQ(f.records(), records_of(numbers({2})));
}

TEST(NntPut, ASlotBeyondAnyFileIsRefused) {
  File f("", 1, kEpoch);
  const nnt_multitype v = uint64_value(1);
  for (const uint64_t whence : {UINT64_MAX, UINT64_MAX / 32, UINT64_C(1) << 59, UINT64_C(1) << 58}) {
    EXPECT_EQ(nnt_put(f.get(), whence, &v), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(put(f, whence, numbers({1, 2})), -1);
    nnt_multitype back = filler();
    EXPECT_EQ(nnt_get(f.get(), whence, &back), 1);
    EXPECT_EQ(back.type, NNT_TYPE_ABSENT);
    EXPECT_EQ(get(f, whence, 2)[1].type, NNT_TYPE_ABSENT);
  }
  EXPECT_EQ(f.records(), "");
}

TEST(NntPut, ARangeIsOneWrite) {
  for (const int count : {1, 2, 1000, 5000}) {
    File f;
    const std::vector<nnt_multitype> values(static_cast<size_t>(count), uint64_value(3));
    const faults::Uses uses;
    EXPECT_EQ(put(f, at(0), values), count);
    EXPECT_EQ(uses(faults::Call::pwrite), 1);
    EXPECT_EQ(f.records(), records_of(values));
  }
}

TEST(NntPut, ShortRangesTakeNoMemory) {
  File f;
  const std::vector<nnt_multitype> values(1000, uint64_value(3));
  const faults::Fail malloc_fault(faults::Call::malloc, ENOMEM);
  const faults::Fail calloc_fault(faults::Call::calloc, ENOMEM);
  EXPECT_EQ(nnt_put(f.get(), at(0), values.data()), 1);
  EXPECT_EQ(put(f, at(0), values), 1000);
  std::vector<nnt_multitype> read(1000);
  EXPECT_EQ(nnt_get_range(f.get(), at(0), 1000, read.data()), 1000);
}

TEST(NntPut, WithoutMemoryALongRangeIsRefused) {
  File f;
  const std::vector<nnt_multitype> values(5000, uint64_value(3));
  {
    const faults::Fail fault(faults::Call::malloc, ENOMEM);
    EXPECT_EQ(put(f, at(0), values), -1);
    EXPECT_EQ(f.records(), "");
  }
  EXPECT_EQ(put(f, at(0), values), 5000);
  const faults::Fail fault(faults::Call::malloc, ENOMEM);
  std::vector<nnt_multitype> read(5000);
  EXPECT_EQ(nnt_get_range(f.get(), at(0), 5000, read.data()), -1);
}

// ---- put, with a system that does not play along ----

TEST(NntPutFaults, InterruptionsAreRepeated) {
  File f;
  const faults::Fail fault(faults::Call::pwrite, EINTR, 1, 3);
  EXPECT_EQ(put(f, at(0), numbers({1, 2})), 2);
  EXPECT_EQ(f.records(), records_of(numbers({1, 2})));
}

TEST(NntPutFaults, AFailedWriteIsReportedAndChangesNothing) {
  File f(records_of(numbers({1})));
  const faults::Fail fault(faults::Call::pwrite, ENOSPC);
  EXPECT_EQ(put(f, at(0), numbers({5, 6})), -1);
  EXPECT_EQ(errno, ENOSPC);
  const nnt_multitype v = uint64_value(7);
  EXPECT_EQ(nnt_put(f.get(), at(0), &v), -1);
  EXPECT_EQ(f.records(), records_of(numbers({1})));
}

TEST(NntPutFaults, AShortWriteOfWholeRecordsCountsThem) {
  for (const size_t written : {0u, 32u, 64u}) {
    File f;
    const faults::Short fault(faults::Call::pwrite, written);
    EXPECT_EQ(put(f, at(0), numbers({1, 2, 3})), static_cast<int>(written / 32));
    EXPECT_EQ(f.records(), records_of(numbers({1, 2, 3})).substr(0, written));
  }
}

TEST(NntPutFaults, ATornRecordAtTheEndIsCutOff) {
  for (const size_t written : {1u, 31u, 33u, 40u, 63u, 65u}) {
    SCOPED_TRACE(written);
    File f(records_of(numbers({9})));
    const faults::Short fault(faults::Call::pwrite, written, 1, 1);
    EXPECT_EQ(put(f, at(1), numbers({1, 2, 3})), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(f.records(), records_of(numbers({9, 1, 2, 3})).substr(0, 32 + written / 32 * 32));
    EXPECT_NE(open_file(f.dir.file("f")), nullptr);
  }
}

TEST(NntPutFaults, ATornRecordAfterAGapIsCutOff) {
  File f;
  const faults::Short fault(faults::Call::pwrite, 20, 1, 1);
  const nnt_multitype v = uint64_value(1);
  EXPECT_EQ(nnt_put(f.get(), at(5), &v), -1);
  EXPECT_EQ(f.records(), absent_records(5));
}

TEST(NntPutFaults, ATornRecordOverAnOlderOneIsFinished) {
  for (const size_t written : {1u, 31u, 40u}) {
    SCOPED_TRACE(written);
    File f(records_of(numbers({7, 8, 9})));
    const faults::Short fault(faults::Call::pwrite, written, 1, 1);
    EXPECT_EQ(put(f, at(0), numbers({1, 2, 3})), -1);
    const size_t whole = (written + 31) / 32;
    EXPECT_EQ(f.records(), records_of(numbers({1, 2, 3})).substr(0, 32 * whole) +
                               records_of(numbers({7, 8, 9})).substr(32 * whole));
  }
}

TEST(NntPutFaults, FinishingTakesAsManyWritesAsItMust) {
  File f(records_of(numbers({7, 8})));
  const faults::Short short_fault(faults::Call::pwrite, 5);
  const faults::Fail interrupted(faults::Call::pwrite, EINTR, 2, 2);
  EXPECT_EQ(put(f, at(0), numbers({1, 2})), -1);
  EXPECT_EQ(f.records(), records_of(numbers({1, 8})));
}

TEST(NntPutFaults, WhenCuttingFailsTheRecordIsFinished) {
  File f;
  const faults::Short short_fault(faults::Call::pwrite, 40, 1, 1);
  const faults::Fail cut_fault(faults::Call::ftruncate, EIO);
  EXPECT_EQ(put(f, at(0), numbers({1, 2, 3})), -1);
  EXPECT_EQ(f.records(), records_of(numbers({1, 2})));
}

TEST(NntPutFaults, CuttingIsRepeatedWhenInterrupted) {
  File f;
  const faults::Short short_fault(faults::Call::pwrite, 40, 1, 1);
  const faults::Fail cut_fault(faults::Call::ftruncate, EINTR, 1, 2);
  const faults::Fail stat_fault(faults::Call::fstat, EINTR, 1, 2);
  EXPECT_EQ(put(f, at(0), numbers({1, 2, 3})), -1);
  EXPECT_EQ(f.records(), records_of(numbers({1})));
}

TEST(NntPutFaults, WithoutTheSizeTheRecordIsFinished) {
  File f;
  const faults::Short short_fault(faults::Call::pwrite, 40, 1, 1);
  const faults::Fail stat_fault(faults::Call::fstat, EIO);
  EXPECT_EQ(put(f, at(0), numbers({1, 2, 3})), -1);
  EXPECT_EQ(f.records(), records_of(numbers({1, 2})));
}

TEST(NntPutFaults, WhenTheRestCannotBeWrittenTheChecksumRejectsTheRecord) {
  File f(records_of(numbers({UINT64_C(0x0906050403020100), 8})));
  const faults::Short short_fault(faults::Call::pwrite, 12, 1, 1);
  const faults::Fail write_fault(faults::Call::pwrite, ENOSPC, 2);
  EXPECT_EQ(put(f, at(0), numbers({1, 2})), -1);
  EXPECT_EQ(f.records().size(), 64u);
  nnt_multitype v{};
  EXPECT_EQ(nnt_get(f.get(), at(0), &v), -1);
  EXPECT_EQ(nnt_get(f.get(), at(1), &v), 1);
  EXPECT_EQ(v.value.v_uint64, 8u);
}

// ---- get ----

TEST(NntGet, BeforeTheEpochAndPastTheEndIsAbsent) {
  File f(records_of(numbers({1})));
  for (const uint64_t whence : {UINT64_C(0), kEpoch - 1, at(1), at(2), UINT64_MAX}) {
    nnt_multitype v = filler();
    EXPECT_EQ(nnt_get(f.get(), whence, &v), 1);
    EXPECT_EQ(v.type, NNT_TYPE_ABSENT);
    EXPECT_EQ(v.count, filler().count) << "only the type is set";
  }
}

TEST(NntGet, AnyFlippedBitIsFound) {
  const std::string good = record_of(uint64_value(77));
  for (size_t bit = 0; bit < 256; ++bit) {
    std::string bytes = good;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    File f(bytes);
    nnt_multitype v{};
    EXPECT_EQ(nnt_get(f.get(), kEpoch, &v), -1) << bit;
  }
}

TEST(NntGet, AFileCutInsideARecordIsAnError) {
  for (const off_t cut : {1, 16, 31}) {
    File f(records_of(numbers({1, 2})));
    ASSERT_EQ(truncate(f.dir.file("f").c_str(), 16 + 32 + cut), 0);
    nnt_multitype v{};
    EXPECT_EQ(nnt_get(f.get(), at(0), &v), 1);
    EXPECT_EQ(nnt_get(f.get(), at(1), &v), -1);
    std::vector<nnt_multitype> read(5000, filler());
    EXPECT_EQ(nnt_get_range(f.get(), at(0), 1, read.data()), 1);
    EXPECT_EQ(nnt_get_range(f.get(), at(0), 3, read.data()), -1);
    EXPECT_EQ(nnt_get_range(f.get(), at(0), 5000, read.data()), -1);
  }
}

TEST(NntGet, InterruptionsAreRepeatedAndFailuresReported) {
  File f(records_of(numbers({1})));
  nnt_multitype v{};
  {
    const faults::Fail fault(faults::Call::pread, EINTR, 1, 3);
    EXPECT_EQ(nnt_get(f.get(), kEpoch, &v), 1);
  }
  {
    const faults::Fail fault(faults::Call::pread, EINTR, 1, 3);
    EXPECT_EQ(nnt_get_range(f.get(), kEpoch, 1, &v), 1);
  }
  const faults::Fail fault(faults::Call::pread, EIO);
  EXPECT_EQ(nnt_get(f.get(), kEpoch, &v), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(nnt_get_range(f.get(), kEpoch, 1, &v), -1);
}

TEST(NntGet, AShortReadOfARecordIsAnError) {
  File f(records_of(numbers({1})));
  const faults::Short fault(faults::Call::pread, 20);
  nnt_multitype v{};
  EXPECT_EQ(nnt_get(f.get(), kEpoch, &v), -1);
  EXPECT_EQ(nnt_get_range(f.get(), kEpoch, 1, &v), -1);
}

// ---- get_range ----

TEST(NntGetRange, ReadsEverySlotAskedFor) {
  File f(records_of(numbers({1})) + absent_records(1) + records_of(numbers({3})));
  expect_slots(f, {uint64_value(1), kAbsent, uint64_value(3), kAbsent, kAbsent});
}

TEST(NntGetRange, WithoutACountItIsHandedBack) {
  File f(records_of(numbers({1})));
  nnt_multitype v = filler();
  for (const int count : {0, -1, INT_MIN}) EXPECT_EQ(nnt_get_range(f.get(), kEpoch, count, &v), count);
  const nnt_multitype untouched = filler();
  EXPECT_EQ(memcmp(&v, &untouched, sizeof(v)), 0);
}

TEST(NntGetRange, SlotsBeforeTheEpochAreAbsent) {
  File f(records_of(numbers({1, 2})));
  const std::vector<nnt_multitype> read = get(f, kEpoch - 2 * kPeriod, 5);
  EXPECT_EQ(read[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[0].count, filler().count) << "only the type is set";
  EXPECT_EQ(read[1].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[2].value.v_uint64, 1u);
  EXPECT_EQ(read[3].value.v_uint64, 2u);
  EXPECT_EQ(read[4].type, NNT_TYPE_ABSENT);
}

TEST(NntGetRange, AllBeforeTheEpochReadsNothing) {
  File f(records_of(numbers({1, 2})));
  const faults::Uses uses;
  for (const nnt_multitype &v : get(f, 0, 100)) EXPECT_EQ(v.type, NNT_TYPE_ABSENT);
  EXPECT_EQ(uses(faults::Call::pread), 0);
}

TEST(NntGetRange, AnUnalignedStartBeforeTheEpochKeepsItsDistance) {
  File f(records_of(numbers({1, 2})));
  const std::vector<nnt_multitype> read = get(f, kEpoch - 61, 4);  // at -61, -1, +59 and +119
  EXPECT_EQ(read[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[1].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[2].value.v_uint64, 1u);
  EXPECT_EQ(read[3].value.v_uint64, 2u);
}

// The distance from the start is counted in 32 bits on purpose: after 2^32 it starts over, before the epoch.
TEST(NntGetRange, TheDistanceToTheEpochWraps) {
  const uint32_t period = UINT32_C(1) << 31;
  const uint64_t epoch = UINT64_C(1) << 32;
  File f(records_of(numbers({1, 2})), period, epoch);
  for (const nnt_multitype &v : get(f, 0, 6)) EXPECT_EQ(v.type, NNT_TYPE_ABSENT);
  const std::vector<nnt_multitype> read = get(f, period, 3);
  EXPECT_EQ(read[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[1].value.v_uint64, 1u);
  EXPECT_EQ(read[2].value.v_uint64, 2u);
}

TEST(NntGetRange, ADamagedRecordOnlyLosesItself) {
  std::string records = records_of(numbers({1, 2, 3}));
  records[32 + 9] = 'x';
  File f(records);
  const std::vector<nnt_multitype> read = get(f, kEpoch, 3);
  EXPECT_EQ(read[0].value.v_uint64, 1u);
  EXPECT_EQ(read[1].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[2].value.v_uint64, 3u);
}

TEST(NntGetRange, ARecordOfType7IsAbsentButPartlyFilled) {
  std::string record = record_of(uint64_value(1));
  record[1] = 15;
  File f(with_checksum(record));
  const std::vector<nnt_multitype> read = get(f, kEpoch, 1);
  EXPECT_EQ(read[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[0].count, 1u);
}

TEST(NntGetRange, IsOneRead) {
  for (const int count : {1, 288, 1024, 1025, 5000}) {
    File f(records_of(std::vector<nnt_multitype>(5000, uint64_value(3))));
    const faults::Uses uses;
    for (const nnt_multitype &v : get(f, kEpoch, count)) ASSERT_EQ(v.value.v_uint64, 3u);
    EXPECT_EQ(uses(faults::Call::pread), 1);
  }
}

TEST(NntGetRange, AShortReadOfWholeRecordsLeavesTheRestAbsent) {
  File f(records_of(numbers({1, 2, 3})));
  const faults::Short fault(faults::Call::pread, 64);
  const std::vector<nnt_multitype> read = get(f, kEpoch, 3);
  EXPECT_EQ(read[1].value.v_uint64, 2u);
  EXPECT_EQ(read[2].type, NNT_TYPE_ABSENT);
}

TEST(NntGetRange, ALongRangeOverAShortFileTakesLittleMemory) {
  File f(records_of(numbers({1, 2})));
  const faults::Fail fault(faults::Call::malloc, ENOMEM);  // what the file holds fits the stack
  const std::vector<nnt_multitype> read = get(f, kEpoch, 100000);
  EXPECT_EQ(read[1].value.v_uint64, 2u);
  EXPECT_EQ(read[99999].type, NNT_TYPE_ABSENT);
  const std::vector<nnt_multitype> past = get(f, at(10), 100000);
  EXPECT_EQ(past[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(past[99999].type, NNT_TYPE_ABSENT);
}

TEST(NntGetRange, AnUnknownSizeDoesNotMatter) {
  File f(records_of(numbers({1, 2})));
  const faults::Fail fault(faults::Call::fstat, EIO);
  EXPECT_EQ(get(f, kEpoch, 5000)[1].value.v_uint64, 2u);
}

// ---- apocalypse ----

TEST(NntApocalypse, CountsWholeRecords) {
  File f(absent_records(3));
  uint64_t apocalypse = 0;
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, at(3));
  ASSERT_EQ(truncate(f.dir.file("f").c_str(), 16 + 95), 0);
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, at(2));
  ASSERT_EQ(truncate(f.dir.file("f").c_str(), 3), 0);
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, kEpoch);
}

TEST(NntApocalypse, IsComputedIn64Bits) {
  File f(absent_records(3), UINT32_C(2500000000), UINT64_C(2500000000));
  uint64_t apocalypse = 0;
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, UINT64_C(10000000000));
}

TEST(NntApocalypse, RepeatsInterruptionsAndReportsFailure) {
  File f(absent_records(3));
  uint64_t apocalypse = 0;
  {
    const faults::Fail fault(faults::Call::fstat, EINTR, 1, 2);
    EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
    EXPECT_EQ(apocalypse, at(3));
  }
  const faults::Fail fault(faults::Call::fstat, EIO);
  EXPECT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), -1);
}

// ---- against a map from slot to value ----

namespace {

class Model {
 public:
  // What a put of `values` at `whence` does; the number of records written, or -1.
  int put(uint64_t whence, const std::vector<nnt_multitype> &values) {
    std::vector<std::pair<uint64_t, nnt_multitype>> due;
    for (size_t i = 0; i < values.size(); ++i) {
      const uint64_t t = whence + i * kPeriod;
      if (t >= kEpoch) due.emplace_back(t / kPeriod, values[i]);
    }
    for (const auto &entry : due) {
      const nnt_type_t type = entry.second.type;
      if (type == NNT_TYPE_STRING || (type == NNT_TYPE_ABSENT && due.size() == 1)) return -1;
    }
    for (const auto &[slot, v] : due) slots_[slot] = v;
    return static_cast<int>(due.size());
  }
  nnt_multitype get(uint64_t whence) const {
    const auto found = whence < kEpoch ? slots_.end() : slots_.find(whence / kPeriod);
    return found == slots_.end() ? kAbsent : found->second;
  }
  uint64_t apocalypse() const { return slots_.empty() ? kEpoch : (slots_.rbegin()->first + 1) * kPeriod; }

 private:
  std::map<uint64_t, nnt_multitype> slots_;
};

nnt_multitype random_value(std::mt19937_64 &random) {
  nnt_multitype v{};
  v.type = static_cast<nnt_type_t>(random() % 40 == 0 ? 7 : random() % 7);
  v.count = static_cast<uint32_t>(random() % 65536);
  v.stddev_present = static_cast<uint8_t>(random() % 2);
  v.stddev = static_cast<float>(random() % 1000);
  v.value.v_uint64 = random();
  v.derivative = static_cast<float>(random() % 1000);
  v.counter_stddev = static_cast<float>(random() % 1000);
  return v;
}

void run_against_model(uint64_t seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  File f;
  Model model;
  for (int step = 0; step < 60; ++step) {
    const uint64_t whence = kEpoch - 10 * kPeriod + random() % (200 * kPeriod);
    std::vector<nnt_multitype> values(random() % 20);
    for (nnt_multitype &v : values) v = random_value(random);
    ASSERT_EQ(put(f, whence, values), model.put(whence, values));
    uint64_t apocalypse = 0;
    ASSERT_EQ(nnt_get_apocalypse(f.get(), &apocalypse), 0);
    ASSERT_EQ(apocalypse, model.apocalypse());

    const uint64_t from = kEpoch - 10 * kPeriod + random() % (250 * kPeriod);
    const std::vector<nnt_multitype> read = get(f, from, static_cast<int>(random() % 50));
    for (size_t i = 0; i < read.size(); ++i) {
      const nnt_multitype expected = model.get(from + i * kPeriod);
      ASSERT_TRUE(same_stored(read[i], expected));
      nnt_multitype one{};
      ASSERT_EQ(nnt_get(f.get(), from + i * kPeriod, &one), 1);
      ASSERT_TRUE(same_stored(one, expected));
    }
  }
  const View view(nnt_acquire_readfast(f.get()));
  for (uint64_t t = kEpoch - 100; t < model.apocalypse() + 100; t += 7) {
    nnt_multitype v{};
    ASSERT_EQ(nnt_get_fast(view.get(), t, &v), 1);
    ASSERT_TRUE(same_stored(v, model.get(t)));
  }
}

}  // namespace

TEST(NntModel, RandomWritesAndReadsAgree) {
  for (uint64_t seed = 1; seed <= 100; ++seed) run_against_model(seed);
}
