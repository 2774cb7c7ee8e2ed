// Opening, closing and dispatching.
#include "liborlith/nnt/nnt.h"

#include <sys/stat.h>

#include <cerrno>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

struct Opened {
  Handle handle;
  std::string error;
  int error_number;
};

Opened try_open(const std::string &path) {
  char *error = const_cast<char *>("stale");
  errno = 0;
  Handle h(nnt_open(path.c_str(), &error));
  Opened result{std::move(h), error != nullptr ? error : "", errno};
  free(error);
  return result;
}

void expect_refused(const std::string &bytes, const std::string &message) {
  SCOPED_TRACE(message);
  TempDir dir;
  const Opened opened = try_open(dir.write("f", bytes));
  EXPECT_EQ(opened.handle, nullptr);
  EXPECT_EQ(opened.error, message);
  EXPECT_EQ(opened.error_number, EIO);
  EXPECT_EQ(dir.read("f"), bytes) << "a refused file is not changed";
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

}  // namespace

// ---- layout ----

TEST(NntLayout, FieldsComeInTheOrderThatHostsExpect) {
  EXPECT_EQ(offsetof(nnt_handle, fd), 0u);
  EXPECT_EQ(offsetof(nnt_handle, dirty), 4u);
  EXPECT_EQ(offsetof(nnt_handle, hdr), 8u);
  EXPECT_EQ(offsetof(nnt_handle, opset), 24u);
  EXPECT_EQ(offsetof(nnt_handle, op_ctx), 32u);
  EXPECT_EQ(offsetof(nnt_handle, sync_on_close), 40u);

  EXPECT_EQ(offsetof(nnt_handle_readfast, addr), 0u);
  EXPECT_EQ(offsetof(nnt_handle_readfast, len), 8u);
  EXPECT_EQ(offsetof(nnt_handle_readfast, hdr), 16u);
  EXPECT_EQ(offsetof(nnt_handle_readfast, opset), 32u);
  EXPECT_EQ(offsetof(nnt_handle_readfast, op_ctx), 40u);
  EXPECT_EQ(offsetof(nnt_handle_readfast, dealloc), 48u);

  EXPECT_EQ(offsetof(nnt_range_raw_data, original_epoch), 0u);
  EXPECT_EQ(offsetof(nnt_range_raw_data, original_apocalypse), 8u);
  EXPECT_EQ(offsetof(nnt_range_raw_data, datapoints), 16u);
  EXPECT_EQ(offsetof(nnt_range_raw_data, new_hdr), 24u);
  EXPECT_EQ(offsetof(nnt_range_raw_data, data_size), 32u);
  EXPECT_EQ(offsetof(nnt_range_raw_data, data), 40u);
}

TEST(NntLayout, TheTableHoldsVersion1InOrder) {
  using slot = void (*)();
  const slot expected[] = {
      reinterpret_cast<slot>(nnt_v1_init),
      reinterpret_cast<slot>(nnt_v1_close),
      reinterpret_cast<slot>(nnt_v1_get),
      reinterpret_cast<slot>(nnt_v1_get_range),
      reinterpret_cast<slot>(nnt_v1_get_raw_range),
      reinterpret_cast<slot>(nnt_v1_put),
      reinterpret_cast<slot>(nnt_v1_put_range),
      reinterpret_cast<slot>(nnt_v1_rewind_epoch),
      reinterpret_cast<slot>(nnt_v1_merge),
      reinterpret_cast<slot>(nnt_v1_init_readfast),
      reinterpret_cast<slot>(nnt_v1_uninit_readfast),
      reinterpret_cast<slot>(nnt_v1_get_readfast),
      reinterpret_cast<slot>(nnt_v1_get_readfast_apocalypse),
      reinterpret_cast<slot>(nnt_v1_delete_range),
      reinterpret_cast<slot>(nnt_v1_get_apocalypse),
      reinterpret_cast<slot>(nnt_v1_get_create_time),
  };
  ASSERT_EQ(sizeof(nnt_opset), sizeof(expected));
  EXPECT_EQ(memcmp(&nnt_v1_opset, expected, sizeof(expected)), 0);
}

TEST(NntLayout, TheLongestFileName) {
  EXPECT_EQ(NNT_MAX_FILE_NAME_LENGTH, 255);
}

// ---- opening ----

TEST(NntOpen, AHeaderAloneIsAnEmptyFile) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  ASSERT_NE(h, nullptr);
  uint64_t epoch = 0, period = 0, apocalypse = 0;
  nnt_get_metadata(h.get(), &epoch, &period);
  EXPECT_EQ(epoch, 120u);
  EXPECT_EQ(period, 60u);
  EXPECT_EQ(nnt_get_apocalypse(h.get(), &apocalypse), 0);
  EXPECT_EQ(apocalypse, 120u);
  for (const uint64_t whence : {UINT64_C(0), UINT64_C(119), UINT64_C(120), UINT64_C(180), UINT64_MAX}) {
    nnt_multitype v = filler();
    EXPECT_EQ(nnt_get(h.get(), whence, &v), 1);
    EXPECT_EQ(v.type, NNT_TYPE_ABSENT);
  }
}

TEST(NntOpen, MetadataMayBeAskedForInParts) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  uint64_t epoch = 0, period = 0;
  nnt_get_metadata(h.get(), &epoch, nullptr);
  nnt_get_metadata(h.get(), nullptr, &period);
  nnt_get_metadata(h.get(), nullptr, nullptr);
  EXPECT_EQ(epoch, 120u);
  EXPECT_EQ(period, 60u);
}

TEST(NntOpen, AShortHeaderIsRefused) {
  for (size_t length = 0; length < 16; ++length)
    expect_refused(header(60, 120).substr(0, length), "could not read header");
}

TEST(NntOpen, OtherVersionsAreRefused) {
  for (const char *version : {"NNT2", "NNT0", "nnt1", "XNT1", "\1NT1"})
    expect_refused(header(60, 120, version), "unknown version");
  expect_refused(header(0, 7, "NNT2"), "unknown version");
}

TEST(NntOpen, APeriodOf0IsRefused) {
  expect_refused(header(0, 120), "invalid period");
}

TEST(NntOpen, AMisalignedEpochIsRefusedBeforeABadOne) {
  expect_refused(header(60, 121), "epoch misaligned");
  expect_refused(header(60, UINT64_C(5000000001)), "epoch misaligned");
}

TEST(NntOpen, TheLargestEpochIsTheLastGoodOne) {
  TempDir dir;
  EXPECT_NE(open_bytes(dir, "f", header(1, UINT64_C(4999999999))), nullptr);
  expect_refused(header(1, UINT64_C(5000000000)), "bad epoch");
  expect_refused(header(1, UINT64_MAX), "bad epoch");
}

TEST(NntOpen, ASizeThatIsNotWholeRecordsIsRefused) {
  for (const size_t extra : {1u, 16u, 31u, 33u, 63u})
    expect_refused(header(60, 120) + std::string(extra, '\0'), "initialization failed");
  TempDir dir;
  for (const size_t extra : {0u, 32u, 64u})
    EXPECT_NE(open_bytes(dir, "f", header(60, 120) + std::string(extra, '\0')), nullptr);
}

TEST(NntOpen, AMissingFileKeepsTheReasonOfOpen) {
  TempDir dir;
  const Opened opened = try_open(dir.file("none"));
  EXPECT_EQ(opened.handle, nullptr);
  EXPECT_EQ(opened.error, strerror(ENOENT));
  EXPECT_EQ(opened.error_number, ENOENT);
}

TEST(NntOpen, WithoutAnErrorPointerTheChecksAreTheSame) {
  TempDir dir;
  errno = 0;
  EXPECT_EQ(nnt_open(dir.file("none").c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(nnt_open(dir.write("f", "short").c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, EIO);
}

TEST(NntOpen, OnSuccessTheErrorIsNull) {
  TempDir dir;
  char *error = const_cast<char *>("stale");
  Handle h(nnt_open(dir.write("f", header(60, 120)).c_str(), &error));
  EXPECT_NE(h, nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST(NntOpen, ARefusedDescriptorIsClosed) {
  TempDir dir;
  const int fd = open(dir.write("f", "short").c_str(), O_RDWR);
  char *error = nullptr;
  EXPECT_EQ(nnt_open_fd(fd, &error), nullptr);
  EXPECT_STREQ(error, "could not read header");
  free(error);
  EXPECT_FALSE(is_open(fd));
}

TEST(NntOpen, ADescriptorThatIsNotOneIsRefused) {
  char *error = nullptr;
  EXPECT_EQ(nnt_open_fd(-1, &error), nullptr);
  EXPECT_STREQ(error, "could not read header");
  EXPECT_EQ(errno, EIO);
  free(error);
}

TEST(NntOpen, ADescriptorIsTakenOver) {
  TempDir dir;
  const int fd = open(dir.write("f", header(60, 120)).c_str(), O_RDWR);
  nnt_handle *h = nnt_open_fd(fd, nullptr);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->fd, fd);
  EXPECT_TRUE(h->sync_on_close);
  EXPECT_EQ(nnt_close(h), 0);
  EXPECT_FALSE(is_open(fd));
}

TEST(NntOpen, InterruptionsAreRepeated) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120));
  const faults::Fail open_fault(faults::Call::open, EINTR, 1, 2);
  const faults::Fail read_fault(faults::Call::pread, EINTR, 1, 2);
  const faults::Fail stat_fault(faults::Call::fstat, EINTR, 1, 2);
  EXPECT_NE(Handle(nnt_open(path.c_str(), nullptr)), nullptr);
}

TEST(NntOpen, AFailedReadIsAHeaderThatCannotBeRead) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120));
  const faults::Fail fault(faults::Call::pread, EBADF);
  const Opened opened = try_open(path);
  EXPECT_EQ(opened.error, "could not read header");
  EXPECT_EQ(opened.error_number, EIO);
}

TEST(NntOpen, RunningOutOfMemoryLosesNothing) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120));
  {
    const faults::Fail fault(faults::Call::calloc, ENOMEM, 1, 1);  // the handle
    const int fd = open(path.c_str(), O_RDWR);
    errno = 0;
    EXPECT_EQ(nnt_open_fd(fd, nullptr), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(is_open(fd));
  }
  const faults::Fail fault(faults::Call::calloc, ENOMEM, 2, 1);  // the version's own data
  const Opened opened = try_open(path);
  EXPECT_EQ(opened.handle, nullptr);
  EXPECT_EQ(opened.error, "initialization failed");
}

TEST(NntOpen, AnUnknownSizeIsAccepted) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120) + "torn");
  const faults::Fail fault(faults::Call::fstat, EOVERFLOW);
  const uint64_t before = static_cast<uint64_t>(time(nullptr));
  const Opened opened = try_open(path);
  ASSERT_NE(opened.handle, nullptr);
  uint64_t created = 0;
  EXPECT_EQ(nnt_get_create_time(opened.handle.get(), &created), 0);
  EXPECT_GE(created, before);
  EXPECT_LE(created, static_cast<uint64_t>(time(nullptr)));
}

// ---- create time ----

TEST(NntCreateTime, IsTheTimeOfLastAccess) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120));
  const struct timespec times[2] = {{1234567890, 5}, {1500000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  const int fd = open(path.c_str(), O_RDWR | O_NOATIME);
  Handle h(nnt_open_fd(fd, nullptr));
  uint64_t created = 0;
  EXPECT_EQ(nnt_get_create_time(h.get(), &created), 0);
  EXPECT_EQ(created, 1234567890u);
}

TEST(NntCreateTime, NeedsAHandle) {
  uint64_t created = 7;
  EXPECT_EQ(nnt_get_create_time(nullptr, &created), -1);
  EXPECT_EQ(created, 7u);
}

TEST(NntCreateTime, ATableWithoutItGivesZero) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  nnt_opset without = nnt_v1_opset;
  without.get_create_time = nullptr;
  h->opset = &without;
  uint64_t created = 7;
  EXPECT_EQ(nnt_get_create_time(h.get(), &created), 0);
  EXPECT_EQ(created, 0u);
  EXPECT_EQ(nnt_get_create_time(h.get(), nullptr), 0);
  h->opset = &nnt_v1_opset;
}

// ---- dirty, sync and close ----

TEST(NntSync, OnlyADirtyHandleIsSynced) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  const faults::Uses uses;
  EXPECT_EQ(nnt_sync(h.get()), 0);
  EXPECT_EQ(uses(faults::Call::fsync), 0);
  const nnt_multitype v = uint64_value(1);
  EXPECT_EQ(nnt_put(h.get(), 120, &v), 1);
  EXPECT_EQ(h->dirty, 1);
  EXPECT_EQ(nnt_sync(h.get()), 0);
  EXPECT_EQ(h->dirty, 0);
  EXPECT_EQ(uses(faults::Call::fsync), 1);
}

TEST(NntSync, RepeatsInterruptionsAndReportsFailure) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  h->dirty = 1;
  {
    const faults::Fail fault(faults::Call::fsync, EINTR, 1, 3);
    EXPECT_EQ(nnt_sync(h.get()), 0);
  }
  h->dirty = 1;
  const faults::Fail fault(faults::Call::fsync, EIO);
  EXPECT_EQ(nnt_sync(h.get()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(h->dirty, 0) << "the handle is clean whatever happened";
}

TEST(NntSync, EveryPutMarksTheHandleEvenARefusedOne) {
  TempDir dir;
  const nnt_multitype absent{};
  Handle h = open_bytes(dir, "f", header(60, 120));
  EXPECT_EQ(nnt_put(h.get(), 120, &absent), -1);
  EXPECT_EQ(h->dirty, 1);
  h->dirty = 0;
  EXPECT_EQ(nnt_put_range(h.get(), 120, 0, nullptr), 0);
  EXPECT_EQ(h->dirty, 1);
}

TEST(NntSync, ReadsDoNotMarkTheHandle) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", header(60, 120));
  nnt_multitype v[2];
  nnt_get(h.get(), 120, v);
  nnt_get_range(h.get(), 120, 2, v);
  EXPECT_EQ(h->dirty, 0);
}

TEST(NntClose, SyncsWhenAskedTo) {
  TempDir dir;
  const std::string path = dir.write("f", header(60, 120));
  for (const bool sync_on_close : {true, false}) {
    nnt_handle *h = nnt_open_sync(path.c_str(), sync_on_close, nullptr);
    EXPECT_EQ(h->sync_on_close, sync_on_close);
    h->dirty = 1;
    const faults::Uses uses;
    EXPECT_EQ(nnt_close(h), 0);
    EXPECT_EQ(uses(faults::Call::fsync), sync_on_close ? 1 : 0);
  }
}

TEST(NntClose, ReportsAFailedSyncAndClosesAllTheSame) {
  TempDir dir;
  Handle owner = open_bytes(dir, "f", header(60, 120));
  nnt_handle *h = owner.release();
  const int fd = h->fd;
  h->dirty = 1;
  const faults::Fail fault(faults::Call::fsync, EIO);
  EXPECT_EQ(nnt_close(h), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(is_open(fd));
}

TEST(NntClose, NullIsNothing) {
  EXPECT_EQ(nnt_close(nullptr), 0);
}

TEST(NntClose, ATableWithoutCloseIsFine) {
  TempDir dir;
  nnt_handle *h = open_bytes(dir, "f", header(60, 120)).release();
  nnt_opset without = nnt_v1_opset;
  without.close = nullptr;
  nnt_v1_close(h);
  h->opset = &without;
  EXPECT_EQ(nnt_close(h), 0);
}

TEST(NntApocalypse, NeedsAHandle) {
  uint64_t apocalypse = 7;
  EXPECT_EQ(nnt_get_apocalypse(nullptr, &apocalypse), -1);
  EXPECT_EQ(apocalypse, 7u);
}

// ---- image_from ----

TEST(NntImageFrom, CopiesEverySlot) {
  TempDir dir;
  const std::string records = record_of(uint64_value(1)) + absent_records(2) + record_of(uint64_value(4));
  Handle src = open_bytes(dir, "src", header(60, 120) + records);
  Handle dest = open_bytes(dir, "dest", header(60, 120));
  EXPECT_EQ(nnt_image_from(dest.get(), src.get()), 0);
  EXPECT_EQ(dir.read("dest"), header(60, 120) + records);
  EXPECT_EQ(dest->dirty, 1);
  EXPECT_EQ(src->dirty, 0);
}

TEST(NntImageFrom, LandsAtTheDestinationsEpoch) {
  TempDir dir;
  const std::string records = record_of(uint64_value(1)) + record_of(uint64_value(2));
  Handle src = open_bytes(dir, "src", header(60, 120) + records);
  Handle dest = open_bytes(
      dir, "dest",
      header(60, 6000) + absent_records(1) + record_of(uint64_value(9)) + record_of(uint64_value(10)));
  EXPECT_EQ(nnt_image_from(dest.get(), src.get()), 0);
  EXPECT_EQ(dir.read("dest"), header(60, 6000) + records + record_of(uint64_value(10)));
}

TEST(NntImageFrom, ASingleAbsentSlotCannotBeWritten) {
  TempDir dir;
  Handle src = open_bytes(dir, "src", header(60, 120) + absent_records(1));
  Handle dest = open_bytes(dir, "dest", header(60, 120));
  EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
  EXPECT_EQ(dir.read("dest"), header(60, 120));
}

TEST(NntImageFrom, NeedsTwoHandlesAndASlot) {
  TempDir dir;
  Handle src = open_bytes(dir, "src", header(60, 120));
  Handle dest = open_bytes(dir, "dest", header(60, 120));
  EXPECT_EQ(nnt_image_from(nullptr, src.get()), -1);
  EXPECT_EQ(nnt_image_from(dest.get(), nullptr), -1);
  EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
}

TEST(NntImageFrom, FailuresOfEachStepAreReported) {
  TempDir dir;
  Handle src = open_bytes(dir, "src", header(60, 120) + record_of(uint64_value(1)) + absent_records(1));
  Handle dest = open_bytes(dir, "dest", header(60, 120));
  {
    const faults::Fail fault(faults::Call::fstat, EIO);
    EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
  }
  {
    const faults::Fail fault(faults::Call::calloc, ENOMEM);
    EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
  }
  {
    const faults::Fail fault(faults::Call::pread, EIO);
    EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
  }
  {
    const faults::Fail fault(faults::Call::pwrite, ENOSPC);
    EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1);
  }
  EXPECT_EQ(dir.read("dest"), header(60, 120));
  const faults::Short fault(faults::Call::pwrite, 32, 1, 1);
  EXPECT_EQ(nnt_image_from(dest.get(), src.get()), -1) << "only one of two records was written";
}
