// Merging, moving the epoch back, dropping the front.
#include <cerrno>
#include <map>
#include <random>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

constexpr uint32_t kPeriod = 60;

std::string records(std::initializer_list<uint64_t> numbers) {
  std::string bytes;
  for (const uint64_t number : numbers)
    bytes += number == 0 ? absent_records(1) : record_of(uint64_value(number));
  return bytes;
}

class NntFiles : public testing::Test {
 protected:
  Handle make(const std::string &name, uint64_t epoch, const std::string &content,
              uint32_t period = kPeriod) {
    return open_bytes(dir, name, header(period, epoch) + content);
  }
  std::string records_in(const std::string &name) const {
    const std::string bytes = dir.read(name);
    return bytes.size() < 16 ? "no header" : bytes.substr(16);
  }
  // An empty file to rewind into.
  int output(const std::string &name) const {
    return open(dir.file(name).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  }

  TempDir dir;
};

using NntMerge = NntFiles;
using NntMergeDeath = NntFiles;
using NntRewind = NntFiles;
using NntDelete = NntFiles;

int merge(const Handle &dst, const Handle &src, std::string *error = nullptr) {
  const char *text = nullptr;
  const int result = nnt_merge(dst.get(), src.get(), &text);
  if (error != nullptr) *error = text != nullptr ? text : "";
  return result;
}

}  // namespace

// ---- merge ----

TEST_F(NntMerge, TheSourceWinsWhereItHasSlotsAbsentOnesIncluded) {
  Handle dst = make("dst", 6000, records({1, 2, 3, 4, 5}));
  Handle src = make("src", 6060, records({20, 0, 40}));
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({1, 20, 0, 40, 5}));
  EXPECT_EQ(records_in("src"), records({20, 0, 40}));
  EXPECT_EQ(dst->dirty, 0);
  EXPECT_EQ(src->dirty, 0);
}

TEST_F(NntMerge, ExtendsTheDestination) {
  Handle dst = make("dst", 6000, records({1}));
  Handle src = make("src", 6000 + 4 * kPeriod, records({5, 6}));
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({1, 0, 0, 0, 5, 6}));
}

TEST_F(NntMerge, AtTheSameEpochItOverwrites) {
  Handle dst = make("dst", 6000, records({1, 2}));
  Handle src = make("src", 6000, records({5}));
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({5, 2}));
}

TEST_F(NntMerge, AnEmptySourceChangesNothing) {
  Handle dst = make("dst", 6000, records({1, 2}));
  Handle src = make("src", 60000, "");
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({1, 2}));
}

TEST_F(NntMerge, DamagedRecordsAreCopiedAsTheyAre) {
  std::string damaged = records({5});
  damaged[9] = 'x';
  Handle dst = make("dst", 6000, records({1}));
  Handle src = make("src", 6000, damaged);
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), damaged);
}

TEST_F(NntMerge, AFileMayBeMergedIntoItself) {
  Handle dst = make("dst", 6000, records({1, 2}));
  EXPECT_EQ(merge(dst, dst), 0);
  EXPECT_EQ(records_in("dst"), records({1, 2}));
}

TEST_F(NntMerge, ASourceCutInsideARecordGivesItsWholeOnes) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, records({1, 2}));
  ASSERT_EQ(truncate(dir.file("src").c_str(), 16 + 50), 0);
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({1}));
}

TEST_F(NntMerge, ASourceWithoutItsHeaderIsAnError) {
  Handle dst = make("dst", 6000, records({1}));
  Handle src = make("src", 6000, records({1}));
  ASSERT_EQ(truncate(dir.file("src").c_str(), 7), 0);
  std::string error;
  EXPECT_EQ(merge(dst, src, &error), -1);
  EXPECT_EQ(error, strerror(EIO));
}

TEST_F(NntMerge, IsOneWrite) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, absent_records(5000));
  const faults::Uses uses;
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(uses(faults::Call::pwrite), 1);
}

TEST_F(NntMerge, AShortWriteIsNamed) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, records({1, 2, 3}));
  for (const size_t written : {0u, 32u, 40u}) {
    const faults::Short fault(faults::Call::pwrite, written, 1, 1);
    std::string error;
    EXPECT_EQ(merge(dst, src, &error), -1);
    EXPECT_EQ(error, "short write");
    EXPECT_EQ(records_in("dst").size() % 32, 0u) << "no torn record is left";
  }
}

TEST_F(NntMerge, FailedCallsAreNamed) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, records({1, 2, 3}));
  std::string error;
  {
    const faults::Fail fault(faults::Call::fstat, EOVERFLOW);
    EXPECT_EQ(merge(dst, src, &error), -1);
    EXPECT_EQ(error, strerror(EOVERFLOW));
  }
  {
    const faults::Fail fault(faults::Call::mmap, ENOMEM);
    EXPECT_EQ(merge(dst, src, &error), -1);
    EXPECT_EQ(error, strerror(ENOMEM));
  }
  {
    const faults::Fail fault(faults::Call::pwrite, ENOSPC);
    EXPECT_EQ(merge(dst, src, &error), -1);
    EXPECT_EQ(error, strerror(ENOSPC));
    EXPECT_EQ(nnt_merge(dst.get(), src.get(), nullptr), -1);
  }
  EXPECT_EQ(records_in("dst"), "");
}

TEST_F(NntMerge, InterruptionsAreRepeated) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, records({1, 2}));
  const faults::Fail stat_fault(faults::Call::fstat, EINTR, 1, 2);
  const faults::Fail write_fault(faults::Call::pwrite, EINTR, 1, 2);
  EXPECT_EQ(merge(dst, src), 0);
  EXPECT_EQ(records_in("dst"), records({1, 2}));
}

namespace {

// The fatal line as a pattern; logs may put other fields around it and escape nothing in it.
std::string fatal(const std::string &condition, int line) {
  return "\\[FATAL\\] assertion \\(" + condition + "\\) at nnt/nnt_v1\\.cpp:" + std::to_string(line) +
         " failed";
}

}  // namespace

TEST_F(NntMergeDeath, DifferentVersionsAreFatal) {
  Handle dst = make("dst", 6000, "");
  Handle src = make("src", 6000, "");
  const nnt_opset other = nnt_v1_opset;
  EXPECT_DEATH(
      {
        src->opset = &other;
        src->hdr.period = 1;  // the version is looked at first
        merge(dst, src);
      },
      fatal("dst->opset == src->opset", 431));
}

TEST_F(NntMergeDeath, DifferentPeriodsAreFatal) {
  Handle dst = make("dst", 6120, "");
  Handle src = make("src", 6000, "", 120);
  EXPECT_DEATH(merge(dst, src), fatal("dst->hdr.period == src->hdr.period", 432));
}

TEST_F(NntMergeDeath, ASourceThatStartsEarlierIsFatal) {
  Handle dst = make("dst", 6060, "");
  Handle src = make("src", 6000, "");
  EXPECT_DEATH(merge(dst, src), fatal("dst->hdr.epoch <= src->hdr.epoch", 433));
}

// ---- rewind ----

TEST_F(NntRewind, MovesTheEpochBackAndLeavesAGap) {
  Handle h = make("f", 6000, records({1, 2}));
  const int fd = output("out");
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 6000 - 3 * kPeriod, fd), 0);
  EXPECT_EQ(dir.read("out"), header(kPeriod, 6000 - 3 * kPeriod) + records({0, 0, 0, 1, 2}));
  EXPECT_EQ(records_in("f"), records({1, 2}));
  EXPECT_EQ(h->dirty, 0);
  EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the descriptor stays the caller's";
  close(fd);
}

TEST_F(NntRewind, RoundsDownToASlot) {
  Handle h = make("f", 6000, records({1}));
  const int fd = output("out");
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 5999, fd), 0);
  EXPECT_EQ(dir.read("out"), header(kPeriod, 5940) + records({0, 1}));
  close(fd);
  const int first = output("first");
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 59, first), 0);
  EXPECT_EQ(dir.read("first"), header(kPeriod, 0) + absent_records(100) + records({1}));
  close(first);
}

TEST_F(NntRewind, AnEmptyFileKeepsTheGap) {
  Handle h = make("f", 6000, "");
  const int fd = output("out");
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 5940, fd), 0);
  EXPECT_EQ(dir.read("out"), header(kPeriod, 5940) + absent_records(1));
  close(fd);
}

TEST_F(NntRewind, GoesBackwardsOnly) {
  Handle h = make("f", 6000, records({1}));
  const int fd = output("out");
  for (const uint64_t whence : {UINT64_C(0), UINT64_C(6000), UINT64_C(6001), UINT64_MAX})
    EXPECT_EQ(nnt_rewind_epoch(h.get(), whence, fd), -1);
  EXPECT_EQ(dir.read("out"), "");
  close(fd);
}

TEST_F(NntRewind, WritesIntoAnAnonymousFile) {
  Handle h = make("f", 6000, records({1}));
  const int fd = nnt_create_tmp(nullptr, dir.file("base").c_str(), 0, kPeriod, 0);
  ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 5940, fd), 0);
  Handle out(nnt_open_fd(fd, nullptr));
  ASSERT_NE(out, nullptr);
  nnt_multitype v{};
  EXPECT_EQ(nnt_get(out.get(), 6000, &v), 1);
  EXPECT_EQ(v.value.v_uint64, 1u);
}

TEST_F(NntRewind, EveryFailureIsReported) {
  Handle h = make("f", 6000, records({1, 2}));
  const int fd = output("out");
  const auto fails = [&] {
    lseek(fd, 0, SEEK_SET);
    return nnt_rewind_epoch(h.get(), 5940, fd) == -1;
  };
  {
    const faults::Fail fault(faults::Call::write, ENOSPC);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Short fault(faults::Call::write, 15);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::fstat, EIO);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::ftruncate, EFBIG);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::mmap, ENOMEM);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::pwrite, ENOSPC);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Short fault(faults::Call::pwrite, 32, 1, 1);
    EXPECT_TRUE(fails());
  }
  close(fd);
}

TEST_F(NntRewind, InterruptionsAreRepeated) {
  Handle h = make("f", 6000, records({1, 2}));
  const int fd = output("out");
  const faults::Fail write_fault(faults::Call::write, EINTR, 1, 2);
  const faults::Fail stat_fault(faults::Call::fstat, EINTR, 1, 2);
  const faults::Fail truncate_fault(faults::Call::ftruncate, EINTR, 1, 2);
  const faults::Fail put_fault(faults::Call::pwrite, EINTR, 1, 2);
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 5940, fd), 0);
  EXPECT_EQ(dir.read("out"), header(kPeriod, 5940) + records({0, 1, 2}));
  close(fd);
}

TEST_F(NntRewind, AFileWithoutItsHeaderIsAnError) {
  Handle h = make("f", 6000, records({1}));
  ASSERT_EQ(truncate(dir.file("f").c_str(), 7), 0);
  const int fd = output("out");
  EXPECT_EQ(nnt_rewind_epoch(h.get(), 5940, fd), -1);
  close(fd);
}

// ---- front deletion ----

TEST_F(NntDelete, MovesWhatRemains) {
  Handle h = make("old", 6000, records({1, 2, 3, 4}));
  Handle h2 = make("new", 6120, "");
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 12345), 2);
  EXPECT_EQ(records_in("new"), records({3, 4}));
  EXPECT_EQ(records_in("old"), records({1, 2, 3, 4}));
  EXPECT_EQ(h->dirty, 1);
  EXPECT_EQ(h2->dirty, 1);
}

TEST_F(NntDelete, TheEndHasNoEffect) {
  for (const uint64_t end : {UINT64_C(0), UINT64_C(6060), UINT64_MAX}) {
    Handle h = make("old", 6000, records({1, 2, 3}));
    Handle h2 = make("new", 6060, "");
    EXPECT_EQ(nnt_delete(h.get(), h2.get(), end), 2);
    EXPECT_EQ(records_in("new"), records({2, 3}));
  }
}

TEST_F(NntDelete, TheSameEpochMovesAll) {
  Handle h = make("old", 6000, records({1, 0, 3}));
  Handle h2 = make("new", 6000, "");
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), 3);
  EXPECT_EQ(records_in("new"), records({1, 0, 3}));
}

TEST_F(NntDelete, PastTheDataNothingRemains) {
  for (const uint64_t epoch : {UINT64_C(6120), UINT64_C(6180), UINT64_C(4999999980)}) {
    Handle h = make("old", 6000, records({1, 2}));
    Handle h2 = make("new", epoch, "");
    EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), 0);
    EXPECT_EQ(records_in("new"), "");
  }
}

TEST_F(NntDelete, ATargetThatStartsEarlierIsAnError) {
  Handle h = make("old", 6000, records({1, 2}));
  Handle h2 = make("new", 5940, "");
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), -1);
  EXPECT_EQ(records_in("new"), "");
}

// Sizes are counted in signed 32 bits. The files are holes: they take no space.
TEST_F(NntDelete, MoreThan31BitsOfBytesMoveNothing) {
  Handle h = make("old", 0, "", 1);
  ASSERT_EQ(ftruncate(h->fd, 16 + (INT64_C(1) << 31)), 0);  // 2^26 records: the size becomes negative
  Handle h2 = make("new", 0, "", 1);
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), 0);
  ASSERT_EQ(ftruncate(h->fd, 16 + (INT64_C(1) << 32) + 32), 0);  // the size becomes that of one record
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), -1);
  EXPECT_EQ(records_in("new"), "");
}

TEST_F(NntDelete, ReadsAndWritesAsOftenAsItTakes) {
  Handle h = make("old", 6000, records({1, 2, 3, 4}));
  Handle h2 = make("new", 6060, "");
  const faults::Short read_fault(faults::Call::pread, 7);
  const faults::Short write_fault(faults::Call::pwrite, 11);
  const faults::Fail write_interrupted(faults::Call::pwrite, EINTR, 2, 2);
  const faults::Fail read_interrupted(faults::Call::pread, EINTR, 2, 2);
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), 3);
  EXPECT_EQ(records_in("new"), records({2, 3, 4}));
}

TEST_F(NntDelete, EveryFailureIsReported) {
  Handle h = make("old", 6000, records({1, 2, 3, 4}));
  Handle h2 = make("new", 6060, "");
  const auto fails = [&] { return nnt_delete(h.get(), h2.get(), 0) == -1; };
  {
    const faults::Fail fault(faults::Call::fstat, EIO);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::calloc, ENOMEM);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::pread, EIO);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Short fault(faults::Call::pwrite, 0);
    EXPECT_TRUE(fails());
  }
  {
    const faults::Fail fault(faults::Call::pwrite, ENOSPC);
    EXPECT_TRUE(fails());
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_EQ(records_in("new"), "");
}

TEST_F(NntDelete, AWriteThatFailsInsideARecordLeavesWholeOnes) {
  Handle h = make("old", 6000, records({1, 2, 3, 4}));
  Handle h2 = make("new", 6060, "");
  const faults::Short short_fault(faults::Call::pwrite, 40, 1, 1);
  const faults::Fail fault(faults::Call::pwrite, ENOSPC, 2);
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), -1);
  EXPECT_EQ(records_in("new"), records({2}));
}

TEST_F(NntDelete, AFileThatEndsEarlierThanItsSizeIsAnError) {
  Handle h = make("old", 6000, records({1, 2}));
  Handle h2 = make("new", 6060, "");
  const faults::Short fault(faults::Call::pread, 0);
  EXPECT_EQ(nnt_delete(h.get(), h2.get(), 0), -1);
}

// ---- against a map from timestamp to number ----

TEST_F(NntMerge, RandomFilesAgreeWithAMap) {
  for (uint64_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    std::map<uint64_t, uint64_t> model;
    const auto random_file = [&](const std::string &name, uint64_t epoch) {
      std::string content;
      const uint64_t count = random() % 30;
      for (uint64_t i = 0; i < count; ++i) {
        const uint64_t number = random() % 3 == 0 ? 0 : random();
        content += number == 0 ? absent_records(1) : record_of(uint64_value(number));
        model[epoch + i * kPeriod] = number;
      }
      return make(name, epoch, content);
    };
    const uint64_t dst_epoch = 6000 + random() % 10 * kPeriod;
    const uint64_t src_epoch = dst_epoch + random() % 40 * kPeriod;
    Handle dst = random_file("dst", dst_epoch);
    Handle src = random_file("src", src_epoch);
    ASSERT_EQ(merge(dst, src), 0);
    for (uint64_t t = dst_epoch; t < dst_epoch + 100 * kPeriod; t += kPeriod) {
      nnt_multitype v{};
      ASSERT_EQ(nnt_get(dst.get(), t, &v), 1);
      const auto found = model.find(t);
      const uint64_t expected = found == model.end() ? 0 : found->second;
      ASSERT_EQ(v.type, expected == 0 ? NNT_TYPE_ABSENT : NNT_TYPE_UINT64);
      if (expected != 0) {
        ASSERT_EQ(v.value.v_uint64, expected);
      }
    }
  }
}
