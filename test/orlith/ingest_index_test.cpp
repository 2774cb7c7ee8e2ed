// The index that `orlith ingest` keeps in its data folder.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "orlith/metric_index.h"
#include "orlith/rollup_store.h"
#include "test/orlith/index_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";

std::string line(const std::string &name) {
  return "M\t1700000000.250\t" + kCheck + "\t" + name + "\tL\t1\n";
}

struct IngestIndexTest : testing::Test {
  TempDir folder;
  const std::string data = folder.file("data"), index = data + "/metrics.index";
  std::string err;

  int ingest(const std::string &lines, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"ingest", "-q", "--data", data, folder.write("lines", lines)});
    ToolSession tool;
    const int code = tool.run(more);
    err = tool.err.text;
    return code;
  }
  // Keys with their paths, from the index.
  std::vector<std::string> listed() {
    std::vector<std::string> result;
    Problem problem;
    const auto opened = MetricIndex::open(index, &problem);
    EXPECT_NE(opened, nullptr) << problem.text;
    if (opened == nullptr) return result;
    EXPECT_EQ(opened->verify(), "");
    EXPECT_EQ(opened->each("",
                           [&](std::string_view key, const MetricFiles &files) {
                             for (const MetricFile &file : files_of(key, files)) result.push_back(file.path);
                             return true;
                           }),
              "");
    std::sort(result.begin(), result.end());
    return result;
  }
  // From the folder, by its files alone.
  std::vector<std::string> lying() {
    std::vector<std::string> result;
    for (const auto &entry : fs::recursive_directory_iterator(data)) {
      const std::string path = fs::relative(entry.path(), data);
      if (path.ends_with(".nnt") || path.ends_with(".hist")) result.push_back(path);
    }
    std::sort(result.begin(), result.end());
    return result;
  }
  ino_t inode() {
    struct stat info {};
    EXPECT_EQ(stat(index.c_str(), &info), 0);
    return info.st_ino;
  }
  void stamp(int seconds) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, index.c_str(), times, 0), 0);
  }
};

TEST_F(IngestIndexTest, IsMadeByTheFirstRunAndGrowsWithTheOthers) {
  ASSERT_EQ(ingest(line("a") + line("b|ST[x:1]")), exit_fine) << err;
  EXPECT_EQ(listed(), lying());
  EXPECT_EQ(listed().size(), 2u);
  ASSERT_EQ(ingest(line("a") + line("c"), {"--period", "60", "--period", "300"}), exit_fine) << err;
  EXPECT_EQ(listed(), lying());
  EXPECT_EQ(listed().size(), 5u);
  ASSERT_EQ(ingest("H\t1700000000\t" + kCheck + "\tb|ST[x:1]\taBACCsABCgI=\n"), exit_fine) << err;
  EXPECT_EQ(listed(), lying());
  EXPECT_EQ(listed().size(), 6u);
  EXPECT_EQ(err, "");
}

TEST_F(IngestIndexTest, ListsTheTreesOfNodes) {
  const std::string cluster = std::string(ORLITH_FIXTURES) + "/cluster.xml";
  ASSERT_EQ(ingest(line("a") + line("b"), {"--topology", cluster, "--me", "all"}), exit_fine) << err;
  EXPECT_EQ(listed(), lying());
  EXPECT_GE(listed().size(), 2u);
  EXPECT_EQ(listed().front().find("/60/"), 36u);
  // With what lies in no node's tree.
  ASSERT_EQ(ingest(line("a")), exit_fine) << err;
  EXPECT_EQ(listed(), lying());
}

TEST_F(IngestIndexTest, IsNotWrittenAgainWithoutNews) {
  ASSERT_EQ(ingest(line("a") + line("b")), exit_fine);
  stamp(1000);
  const ino_t before = inode();
  ASSERT_EQ(ingest(line("b")), exit_fine);
  EXPECT_EQ(inode(), before);
  // It says how much it knows: the time of the run.
  EXPECT_LT(fs::last_write_time(index) - fs::file_time_type::clock::now(), std::chrono::seconds(500));
  EXPECT_EQ(listed(), lying());
}

TEST_F(IngestIndexTest, WhatOthersPutIntoTheFolderIsFound) {
  ASSERT_EQ(ingest(line("a")), exit_fine);
  fs::copy_file(data + "/60/" + kCheck + "/YQ==.nnt", data + "/60/" + kCheck + "/Yg==.nnt");
  stamp(-1000);
  ASSERT_EQ(ingest(line("a")), exit_fine);
  EXPECT_EQ(err, "");
  EXPECT_EQ(listed().size(), 2u);
  EXPECT_EQ(listed(), lying());
}

TEST_F(IngestIndexTest, AMissingOneIsMadeFromTheFolder) {
  ASSERT_EQ(ingest(line("a") + line("b")), exit_fine);
  fs::remove(index);
  ASSERT_EQ(ingest(line("c")), exit_fine);
  EXPECT_EQ(err, "");
  EXPECT_EQ(listed(), lying());
  EXPECT_EQ(listed().size(), 3u);
}

TEST_F(IngestIndexTest, ADamagedOneIsToldAndMadeAnew) {
  ASSERT_EQ(ingest(line("a") + line("b")), exit_fine);
  folder.write("data/metrics.index", "ART");
  ToolSession tool;
  ASSERT_EQ(tool.run({"ingest", "--data", data, folder.write("lines", line("c"))}), exit_fine);
  EXPECT_EQ(tool.err.text, "orlith ingest: warning: " + index +
                               ": 3 bytes, expected an index of 80 or more; made anew from the folder\n");
  EXPECT_EQ(listed(), lying());
}

// Each byte of an index that is current is changed in turn: nothing that was in the folder is ever lost.
TEST_F(IngestIndexTest, NoChangedByteLosesAMetric) {
  ASSERT_EQ(ingest(line("a|ST[x:1]") + line("b")), exit_fine);
  const std::string good = folder.read("data/metrics.index");
  for (size_t at = 0; at < good.size(); at += 3) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    folder.write("data/metrics.index", bytes);
    stamp(1000);
    ASSERT_EQ(ingest(line("c" + std::to_string(at)) + line("b")), exit_fine) << at;
    ASSERT_EQ(listed(), lying()) << at;
  }
}

TEST_F(IngestIndexTest, AFailedWriteIsToldAndLeavesTheOldOne) {
  ASSERT_EQ(ingest(line("a")), exit_fine);
  const std::string before = folder.read("data/metrics.index");
  {
    const faults::Fail fails(faults::Call::fdatasync, ENOSPC);
    EXPECT_EQ(ingest(line("b")), exit_failed);
    EXPECT_EQ(
        err,
        "orlith ingest: error: " + index +
            ": cannot be written: No space left on device; the samples are stored, and 'orlith index build' "
            "makes the index\n");
  }
  EXPECT_EQ(folder.read("data/metrics.index"), before);
  EXPECT_EQ(lying().size(), 2u);
  for (const auto &entry : fs::directory_iterator(data))
    EXPECT_TRUE(entry.path().filename() == "60" || entry.path().filename() == "metrics.index")
        << entry.path();
  // The next run sees that the folder is ahead.
  stamp(-1000);
  ASSERT_EQ(ingest(line("a")), exit_fine);
  EXPECT_EQ(listed(), lying());
}

TEST_F(IngestIndexTest, ARunThatStoresNothingLeavesAnEmptyIndex) {
  EXPECT_EQ(ingest("no line\n"), exit_damaged);
  EXPECT_EQ(listed(), std::vector<std::string>());
}

// A second writer is refused before it reads the index, so none can lose what the other adds.
TEST_F(IngestIndexTest, ASecondWriterIsRefused) {
  ASSERT_EQ(ingest(line("a")), exit_fine);
  RollupStore other;
  ASSERT_TRUE(other.open(data));
  const std::string before = folder.read("data/metrics.index");
  EXPECT_EQ(ingest(line("b")), exit_failed);
  EXPECT_THAT(err, HasSubstr("another process is writing into this data folder"));
  EXPECT_EQ(folder.read("data/metrics.index"), before);
}

}  // namespace
