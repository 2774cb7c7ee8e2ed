#include "orlith/rollup_store.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "liborlith/liborlith_init.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

class RollupStoreTest : public testing::Test {
 protected:
  RollupStoreTest() { liborlith_init(); }

  static OpenSlot slot(double value) {
    OpenSlot result;
    result.folded.type = NNT_TYPE_DOUBLE;
    result.folded.count = 1;
    result.folded.value.v_double = value;
    result.dirty = true;
    return result;
  }

  // Writes value 1.0 * start into each of the slots of one file.
  static bool write(RollupStore &store, const std::string &file, const std::vector<uint64_t> &starts) {
    std::map<uint64_t, OpenSlot> slots;
    std::vector<SlotWrite> writes;
    for (const uint64_t start : starts) {
      slots[start] = slot(static_cast<double>(start));
      writes.push_back({start, &slots[start]});
    }
    return store.write({file, 60, 0, 1}, writes);
  }

  std::map<uint64_t, double> stored(const std::string &file) const {
    std::map<uint64_t, double> result;
    nnt_handle *handle = nnt_open((dir_.path() + "/" + file).c_str(), nullptr);
    if (handle == nullptr) return result;
    uint64_t epoch = 0, period = 0, apocalypse = 0;
    nnt_get_metadata(handle, &epoch, &period);
    nnt_get_apocalypse(handle, &apocalypse);
    for (uint64_t at = epoch; at < apocalypse; at += period) {
      nnt_multitype value{};
      EXPECT_EQ(nnt_get(handle, at, &value), 1);
      if (value.type == NNT_TYPE_UINT64) result[at] = static_cast<double>(value.value.v_uint64);
      if (value.type == NNT_TYPE_DOUBLE) result[at] = value.value.v_double;
    }
    nnt_close(handle);
    return result;
  }

  // Every file of the folder with its bytes.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> result;
    for (const auto &entry : fs::recursive_directory_iterator(dir_.path())) {
      if (!entry.is_regular_file()) continue;
      const std::string name = fs::relative(entry.path(), dir_.path()).string();
      result[name] = dir_.read(name);
    }
    return result;
  }

  TempDir dir_;
};

using Values = std::map<uint64_t, double>;

TEST_F(RollupStoreTest, CreatesFilesAtTheirFirstSlot) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path())) << store.error();
  ASSERT_TRUE(write(store, "60/check/a.nnt", {120, 180, 600})) << store.error();
  EXPECT_TRUE(stored("60/check/a.nnt").empty()) << "a file appears with the commit, not before";
  ASSERT_TRUE(store.commit()) << store.error();
  EXPECT_EQ(stored("60/check/a.nnt"), (Values{{120, 120}, {180, 180}, {600, 600}}));
  EXPECT_EQ(snapshot().size(), 1U) << "no working copy stays behind";
  EXPECT_EQ(dir_.read("60/check/a.nnt").size(), 16U + 9 * 32);
  EXPECT_EQ(store.files_created(), 1U);
  EXPECT_EQ(store.records_written(), 3U);
}

TEST_F(RollupStoreTest, WritesBehindAndBetweenWhatIsThere) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {120, 240}) && store.commit());
  ASSERT_TRUE(write(store, "a.nnt", {180, 300}) && store.commit());
  EXPECT_EQ(stored("a.nnt"), (Values{{120, 120}, {180, 180}, {240, 240}, {300, 300}}));
}

TEST_F(RollupStoreTest, MovesTheEpochBackForThePast) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {600, 660}) && store.commit());
  ASSERT_TRUE(write(store, "a.nnt", {0, 120, 660}) && store.commit()) << store.error();
  EXPECT_EQ(stored("a.nnt"), (Values{{0, 0}, {120, 120}, {600, 600}, {660, 660}}));
  EXPECT_EQ(snapshot().size(), 1U);
}

TEST_F(RollupStoreTest, CombinesASlotWithWhatIsStoredOnce) {
  {
    RollupStore store;
    ASSERT_TRUE(store.open(dir_.path()));
    ASSERT_TRUE(write(store, "a.nnt", {120}) && store.commit());
  }
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  OpenSlot open = slot(240);
  const std::vector<SlotWrite> writes = {{120, &open}};
  for (int checkpoint = 0; checkpoint < 3; ++checkpoint) {
    ASSERT_TRUE(store.write({"a.nnt", 60, 0, 1}, writes) && store.commit());
    EXPECT_EQ(stored("a.nnt"), (Values{{120, 180}})) << "checkpoint " << checkpoint;  // (120 + 240) / 2
  }
}

TEST_F(RollupStoreTest, ASlotOpenOverSeveralCheckpointsIsNotCombinedWithItself) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  OpenSlot open = slot(7);
  const std::vector<SlotWrite> writes = {{120, &open}};
  for (int checkpoint = 0; checkpoint < 3; ++checkpoint) {
    for (const size_t owner : {size_t{0}, size_t{1}}) {
      ASSERT_TRUE(store.write({"node" + std::to_string(owner) + "/a.nnt", 60, owner, 2}, writes));
    }
    ASSERT_TRUE(store.commit());
  }
  for (const char *file : {"node0/a.nnt", "node1/a.nnt"}) {
    nnt_handle *handle = nnt_open(dir_.file(file).c_str(), nullptr);
    ASSERT_NE(handle, nullptr);
    nnt_multitype value{};
    EXPECT_EQ(nnt_get(handle, 120, &value), 1);
    EXPECT_EQ(value.count, 1U);
    nnt_close(handle);
  }
}

TEST_F(RollupStoreTest, ReplacesAndReportsADamagedRecord) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {120, 180}) && store.commit());
  std::string bytes = dir_.read("a.nnt");
  bytes[16 + 32 + 9] ^= 1;
  dir_.write("a.nnt", bytes);
  ASSERT_TRUE(write(store, "a.nnt", {180}) && store.commit());
  EXPECT_EQ(store.damaged_records(), 1U);
  EXPECT_EQ(store.first_damaged(), dir_.file("a.nnt") + ": the record of second 180");
  EXPECT_EQ(stored("a.nnt"), (Values{{120, 120}, {180, 180}}));
}

TEST_F(RollupStoreTest, ARecordThatCannotBeReadIsNotTakenForADamagedOne) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {120, 180}) && store.commit());
  const auto before = snapshot();
  const faults::Fail fault(faults::Call::pread, EIO, 2, 1);  // the first reads the header
  EXPECT_FALSE(write(store, "a.nnt", {180}));
  EXPECT_EQ(store.error(), dir_.file("a.nnt") + ": cannot be read: Input/output error");
  EXPECT_EQ(store.damaged_records(), 0U);
  EXPECT_TRUE(store.roll_back());
  EXPECT_EQ(snapshot(), before);
}

TEST_F(RollupStoreTest, HolesStayHolesWhenTheEpochMovesBack) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  constexpr uint64_t kLate = 60 * 10'000'000;
  ASSERT_TRUE(write(store, "a.nnt", {600, kLate}) && store.commit());
  ASSERT_TRUE(write(store, "a.nnt", {0, 60}) && store.commit()) << store.error();
  struct stat info {};
  ASSERT_EQ(stat(dir_.file("a.nnt").c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 16 + 32 * 10'000'001LL);
  EXPECT_LT(info.st_blocks * 512, 1 << 20) << "320 MB of nothing take no room";
  nnt_handle *handle = nnt_open(dir_.file("a.nnt").c_str(), nullptr);
  ASSERT_NE(handle, nullptr);
  for (const uint64_t start : {uint64_t{0}, uint64_t{60}, uint64_t{600}, kLate}) {
    nnt_multitype value{};
    EXPECT_EQ(nnt_get(handle, start, &value), 1);
    EXPECT_EQ(value.value.v_double, static_cast<double>(start));
  }
  nnt_close(handle);
}

TEST_F(RollupStoreTest, AFileKeepsItsRightsWhenTheEpochMovesBack) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {600}) && store.commit());
  ASSERT_EQ(chmod(dir_.file("a.nnt").c_str(), 0604), 0);
  ASSERT_TRUE(write(store, "a.nnt", {60}) && store.commit());
  struct stat info {};
  ASSERT_EQ(stat(dir_.file("a.nnt").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777U, 0604U);
}

TEST_F(RollupStoreTest, CountsOnlyRecordsThatWereCommitted) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {600, 660}));
  EXPECT_EQ(store.records_written(), 0U);
  ASSERT_TRUE(store.commit());
  ASSERT_TRUE(write(store, "a.nnt", {720}));
  EXPECT_TRUE(store.roll_back());
  ASSERT_TRUE(store.commit());
  EXPECT_EQ(store.records_written(), 2U);
}

TEST_F(RollupStoreTest, AFileThatIsAFolderIsNamedWithItsReason) {
  fs::create_directory(dir_.file("a.nnt"));
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  EXPECT_FALSE(write(store, "a.nnt", {60}));
  EXPECT_EQ(store.error(), dir_.file("a.nnt") + ": Is a directory; mend it or move it away to go on");
}

TEST_F(RollupStoreTest, SaysWhyALongPathCannotBeReached) {
  std::string file;
  for (int i = 0; i < 24; ++i) file += std::string(240, 'A') + "/";
  dir_.write(file.substr(0, 240), "in the way");
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  EXPECT_FALSE(write(store, file + "rest.nnt", {60}));
  EXPECT_EQ(store.error(), dir_.file(file) + "rest.nnt: Not a directory; mend it or move it away to go on");
}

TEST_F(RollupStoreTest, SaysTheReasonOfAWriteThatEndedHalfWay) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {60}) && store.commit());
  const auto before = snapshot();
  struct rlimit old_limit {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  const auto old_action = signal(SIGXFSZ, SIG_IGN);
  const struct rlimit limit = {16 + 32 * 3 + 8, old_limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_FALSE(write(store, "new.nnt", {120, 180, 240, 300, 360}));
  EXPECT_EQ(store.error(), dir_.file("new.nnt") + ": cannot be written: File too large");
  EXPECT_TRUE(store.roll_back());
  setrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, old_action);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(RollupStoreTest, RefusesFilesThatAreNoneOfItsOwn) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  dir_.write("short.nnt", "NNT1");
  EXPECT_FALSE(write(store, "short.nnt", {120}));
  EXPECT_EQ(store.error(),
            dir_.file("short.nnt") + ": could not read header; mend it or move it away to go on");
}

TEST_F(RollupStoreTest, RefusesAFileOfAnotherPeriod) {
  ASSERT_EQ(nnt_create(nullptr, dir_.file("a.nnt").c_str(), 300, 300, 0600), 0);
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  EXPECT_FALSE(write(store, "a.nnt", {300}));
  EXPECT_EQ(store.error(),
            dir_.file("a.nnt") + ": holds slots of 300 s instead of 60 s; move it away to go on");
}

TEST_F(RollupStoreTest, WholeFilesAppearWithTheCommit) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(store.replace("a/b/whole", "first") && store.replace("empty", "")) << store.error();
  EXPECT_FALSE(fs::exists(dir_.file("a/b/whole")));
  ASSERT_TRUE(store.commit()) << store.error();
  EXPECT_EQ(snapshot(), (std::map<std::string, std::string>{{"a/b/whole", "first"}, {"empty", ""}}));
  EXPECT_EQ(store.files_created(), 2U);
  EXPECT_EQ(store.whole_file_bytes_written(), 5U);
  ASSERT_TRUE(store.replace("a/b/whole", "second, longer"));
  EXPECT_EQ(dir_.read("a/b/whole"), "first");
  ASSERT_TRUE(store.commit());
  EXPECT_EQ(dir_.read("a/b/whole"), "second, longer");
  EXPECT_EQ(snapshot().size(), 2U);
  EXPECT_EQ(store.files_created(), 2U);
}

TEST_F(RollupStoreTest, WholeFilesAreTakenBackWithTheSlots) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(store.replace("whole", "first") && write(store, "a.nnt", {60}) && store.commit());
  const auto before = snapshot();
  ASSERT_TRUE(store.replace("whole", "second") && store.replace("new", "x") && write(store, "a.nnt", {120}));
  EXPECT_TRUE(store.roll_back());
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(store.whole_file_bytes_written(), 5U);
}

TEST_F(RollupStoreTest, ReadsWholeFiles) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  dir_.write("whole", "bytes");
  std::string bytes;
  bool exists = false;
  ASSERT_TRUE(store.read("whole", 5, &bytes, &exists)) << store.error();
  EXPECT_TRUE(exists);
  EXPECT_EQ(bytes, "bytes");
  ASSERT_TRUE(store.read("no/such/file", 5, &bytes, &exists)) << store.error();
  EXPECT_FALSE(exists);
}

TEST_F(RollupStoreTest, NamesWholeFilesThatCannotBeRead) {
  const auto error_of = [&](const std::string &file) {
    RollupStore store;
    std::string bytes;
    bool exists = false;
    EXPECT_TRUE(store.open(dir_.path()));
    EXPECT_FALSE(store.read(file, 4, &bytes, &exists));
    return store.error();
  };
  fs::create_directory(dir_.file("folder"));
  ASSERT_EQ(mkfifo(dir_.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(error_of(dir_.write("large", "bytes").substr(dir_.path().size() + 1)),
            dir_.file("large") + ": is too large; move it away to go on");
  EXPECT_EQ(error_of("folder"), dir_.file("folder") + ": is no regular file");
  EXPECT_EQ(error_of("pipe"), dir_.file("pipe") + ": is no regular file");
  EXPECT_EQ(error_of("large/below"), dir_.file("large/below") + ": cannot be opened: Not a directory");
}

TEST_F(RollupStoreTest, OneWriterAtATime) {
  RollupStore first, second;
  ASSERT_TRUE(first.open(dir_.path()));
  EXPECT_FALSE(second.open(dir_.path()));
  EXPECT_EQ(second.error(), dir_.path() + ": another process is writing into this data folder");
}

TEST_F(RollupStoreTest, SaysWhyAFolderCannotBeUsed) {
  dir_.write("plain", "");
  RollupStore store;
  EXPECT_FALSE(store.open(dir_.file("plain")));
  EXPECT_EQ(store.error(), dir_.file("plain") + ": cannot be created: Not a directory");
}

TEST_F(RollupStoreTest, TakesTheLongestPaths) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  std::string file;
  for (int i = 0; i < 24; ++i) file += std::string(240, 'A') + "/";
  file += "rest.nnt";
  ASSERT_TRUE(write(store, file, {120}) && store.commit()) << store.error();
  ASSERT_TRUE(write(store, file, {60, 180}) && store.commit()) << store.error();
  std::map<uint64_t, OpenSlot> nothing;
  OpenSlot probe = slot(0);
  ASSERT_TRUE(store.write({file, 60, 0, 1}, std::vector<SlotWrite>{{120, &probe}}));
  EXPECT_EQ(probe.stored_for(0).type, NNT_TYPE_DOUBLE);
}

// ---- what a failure leaves behind ----

// Changes of every kind at once: a new file, one written in place, one whose epoch moves back.
bool write_every_kind(RollupStore &store,
                      bool (*write_file)(RollupStore &, const std::string &, const std::vector<uint64_t> &)) {
  return write_file(store, "in_place.nnt", {660, 720, 1200}) && write_file(store, "new.nnt", {60, 120}) &&
         write_file(store, "rewound.nnt", {0, 660}) && store.commit();
}

TEST_F(RollupStoreTest, AnyFailedCallLeavesTheFolderAsItWas) {
  {
    RollupStore store;
    ASSERT_TRUE(store.open(dir_.path()));
    ASSERT_TRUE(write(store, "in_place.nnt", {600, 660}) && write(store, "rewound.nnt", {600}) &&
                store.commit());
  }
  const auto before = snapshot();
  struct {
    const char *name;
    faults::Call call;
    int error;
  } const cases[] = {{"pread", faults::Call::pread, EIO},   {"pwrite", faults::Call::pwrite, ENOSPC},
                     {"pwrite", faults::Call::pwrite, EIO}, {"syncfs", faults::Call::syncfs, EIO},
                     {"rename", faults::Call::rename, EIO}, {"link", faults::Call::link, EMLINK}};
  for (const auto &c : cases) {
    bool succeeded = false;
    int failures = 0;
    for (int nth = 1; !succeeded; ++nth) {
      SCOPED_TRACE(std::string(c.name) + " number " + std::to_string(nth));
      ASSERT_LE(nth, 40) << "the call is never made often enough to succeed at last";
      RollupStore store;
      std::optional<faults::Fail> fault(std::in_place, c.call, c.error, nth, 1);
      ASSERT_TRUE(store.open(dir_.path()));
      succeeded = write_every_kind(store, write);
      const bool fault_was_hit = fault->hit();
      fault.reset();
      if (succeeded) {
        EXPECT_FALSE(fault_was_hit);
        break;
      }
      ++failures;
      EXPECT_NE(store.error(), "");
      EXPECT_TRUE(store.roll_back()) << store.unrestored();
      EXPECT_EQ(snapshot(), before);
    }
    EXPECT_GT(failures, 0);
    // For the next case the folder is put back by hand.
    for (const auto &[name, bytes] : snapshot()) fs::remove(dir_.file(name));
    for (const auto &[name, bytes] : before) dir_.write(name, bytes);
  }
}

TEST_F(RollupStoreTest, AWriteThatStopsInsideARecordIsFinished) {
  std::map<std::string, std::string> whole;
  bool fault_was_hit = true;
  for (int nth = 0; fault_was_hit; ++nth) {  // the first time around without a fault
    SCOPED_TRACE("pwrite number " + std::to_string(nth));
    for (const auto &[name, bytes] : snapshot()) fs::remove(dir_.file(name));
    RollupStore store;
    ASSERT_TRUE(store.open(dir_.path()));
    ASSERT_TRUE(write(store, "in_place.nnt", {600, 660}) && write(store, "rewound.nnt", {600}) &&
                store.commit());
    const faults::Short fault(faults::Call::pwrite, 16, nth, nth > 0 ? 1 : 0);
    ASSERT_TRUE(write_every_kind(store, write)) << store.error();
    fault_was_hit = nth == 0 || fault.hit();
    if (nth == 0) whole = snapshot();
    EXPECT_EQ(snapshot(), whole);
  }
}

TEST_F(RollupStoreTest, NamesTheFileAndTheReason) {
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  const faults::Fail fault(faults::Call::pwrite, ENOSPC, 1, 1);
  EXPECT_FALSE(write(store, "a.nnt", {120}));
  EXPECT_EQ(store.error(), dir_.file("a.nnt") + ": cannot be written: No space left on device");
}

TEST_F(RollupStoreTest, WhatIsNotCommittedIsTakenBackAtTheEnd) {
  {
    RollupStore store;
    ASSERT_TRUE(store.open(dir_.path()));
    ASSERT_TRUE(write(store, "a.nnt", {120}));
  }
  EXPECT_TRUE(snapshot().empty());
}

TEST_F(RollupStoreTest, CopiesLeftByAKilledProcessAreReplaced) {
  dir_.write("a.nnt.new", "half a copy");
  RollupStore store;
  ASSERT_TRUE(store.open(dir_.path()));
  ASSERT_TRUE(write(store, "a.nnt", {120}) && store.commit()) << store.error();
  EXPECT_EQ(stored("a.nnt"), (Values{{120, 120}}));
}

}  // namespace
