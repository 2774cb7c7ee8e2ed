#include "orlith/data_scan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "orlith/data_path.h"
#include "orlith/histogram_line.h"
#include "orlith/signals.h"
#include "test/orlith/index_model.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
const std::string kNode = "7a0a2f4e-52a1-4f0b-9a3c-000000000001";

struct DataScanTest : testing::Test {
  TempDir folder;
  DataScan scan;
  Problem problem;

  DataScanTest() { start_library(); }

  void put_file(const std::string &path) {
    fs::create_directories(fs::path(folder.file(path)).parent_path());
    folder.write(path, "");
  }
  void put_folder(const std::string &path) { fs::create_directories(folder.file(path)); }

  // Key to paths, through an index in a file beside the folder.
  std::map<std::string, std::vector<std::string>> found() {
    MetricIndexBuilder builder;
    EXPECT_TRUE(scan_data_folder(folder.path(), &builder, &scan, &problem)) << problem.text;
    const auto index = index_of(builder);
    std::map<std::string, std::vector<std::string>> result;
    EXPECT_EQ(index->each("",
                          [&](std::string_view key, const MetricFiles &files) {
                            for (const MetricFile &file : files_of(key, files))
                              result[std::string(key)].push_back(file.path);
                            return true;
                          }),
              "");
    return result;
  }

  std::unique_ptr<MetricIndex> index_of(const MetricIndexBuilder &builder) {
    const std::string path = beside_.file("index");
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    MetricIndexBuilder::Counts counts;
    EXPECT_EQ(builder.write(fd, scan.trees_hash, &counts), 0);
    close(fd);
    return MetricIndex::open(path, &problem);
  }

  // An index of the folder, as of `seconds` from now.
  std::unique_ptr<MetricIndex> stamped_index(int seconds) {
    MetricIndexBuilder builder;
    EXPECT_TRUE(scan_data_folder(folder.path(), &builder, &scan, &problem));
    index_of(builder);
    const struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + seconds, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, beside_.file("index").c_str(), times, 0), 0);
    return MetricIndex::open(beside_.file("index"), &problem);
  }
  bool is_current(const MetricIndex &index) {
    bool current = false;
    EXPECT_TRUE(index_is_current(folder.path(), index, &current, &problem)) << problem.text;
    return current;
  }

 private:
  TempDir beside_;
};

TEST_F(DataScanTest, FindsMetricsInEveryTree) {
  put_file("60/" + kCheck + "/Y3B1.nnt");
  put_file("300/" + kCheck + "/Y3B1.nnt");
  put_folder("300/" + kCheck + "/Y3B1.hist");
  put_file("300/" + kCheck + "/Y3B1.hist/1700000000.hss");
  put_file(kNode + "/60/" + kCheck + "/bWVtfFNUW2tpbmQ6ZnJlZV0=.nnt");
  put_file("60/" + kCheck + "/.nnt");
  const auto metrics = found();
  EXPECT_EQ(scan.files, 5u);
  EXPECT_EQ(scan.passed_over, 0u);
  ASSERT_EQ(metrics.size(), 3u);
  EXPECT_EQ(metrics.at(kCheck + "-"), std::vector<std::string>{"60/" + kCheck + "/.nnt"});
  EXPECT_EQ(metrics.at(kCheck + "-cpu"),
            (std::vector<std::string>{"60/" + kCheck + "/Y3B1.nnt", "300/" + kCheck + "/Y3B1.nnt",
                                      "300/" + kCheck + "/Y3B1.hist"}));
  EXPECT_EQ(metrics.at(kCheck + "-mem|ST[kind:free]"),
            std::vector<std::string>{kNode + "/60/" + kCheck + "/bWVtfFNUW2tpbmQ6ZnJlZV0=.nnt"});
}

TEST_F(DataScanTest, FindsNamesThatAreCutIntoFolders) {
  const std::string longest(4095, 'n'), just(190, 'x');
  for (const std::string &name : {longest, just})
    for (const std::string_view suffix : {kNntSuffix, kHistSuffix}) {
      const std::string path = folder.file("60/" + metric_file_path(kCheck, encoded_name(name), suffix));
      const ReachablePath reached(path, true);
      ASSERT_EQ(reached.error(), 0);
      if (suffix == kHistSuffix) {
        ASSERT_EQ(mkdir(reached.path().c_str(), 0700), 0);
      } else {
        close(open(reached.path().c_str(), O_WRONLY | O_CREAT, 0600));
      }
    }
  const auto metrics = found();
  EXPECT_EQ(scan.files, 4u);
  EXPECT_EQ(scan.passed_over, 0u);
  EXPECT_EQ(metrics.size(), 2u);
  EXPECT_TRUE(metrics.contains(kCheck + "-" + longest));
  EXPECT_TRUE(metrics.contains(kCheck + "-" + just));
}

TEST_F(DataScanTest, WhatIsNoMetricsFileIsPassedOver) {
  const std::string check = "60/" + kCheck;
  put_file(check + "/Y3B1.nnt");
  put_file(check + "/Y3B1.nnt.new");
  put_file(check + "/readme");
  put_file(check + "/Y3B.nnt");                       // no base64
  put_file(check + "/Y3B1fFNUW2JdfQ==.nnt");          // cpu|ST[b]}: canonical, so a metric
  put_file(check + "/Y3B1fFNUW2I6MSxhOjFd.nnt");      // cpu|ST[b:1,a:1]: not in order
  put_file(check + "/Y3B1fFNUW19fbmFtZTpiXQ==.nnt");  // a reserved category
  put_folder(check + "/Y3B1.nnt.d");
  put_file(check + "/Y3B1.hist");                               // no folder
  put_folder(check + "/bWVt.nnt");                              // no file
  put_file(check + "/" + std::string(240, 'Y') + "/Y3B1.nnt");  // shorter than names that are cut
  put_file("060/" + kCheck + "/bWVt.nnt");
  put_file("0/" + kCheck + "/bWVt.nnt");
  put_file("4294967296/" + kCheck + "/bWVt.nnt");
  put_file("60/6F2D1C66-9d0e-4c35-8a35-0123456789ab/bWVt.nnt");
  put_file("other/60/" + kCheck + "/bWVt.nnt");
  put_file("metrics.index");
  const auto metrics = found();
  EXPECT_EQ(scan.files, 2u);
  EXPECT_EQ(scan.passed_over, 9u);
  EXPECT_TRUE(metrics.contains(kCheck + "-cpu"));
  EXPECT_TRUE(metrics.contains(kCheck + "-cpu|ST[b]}"));
}

TEST_F(DataScanTest, FoldersThatAreLinkedInCount) {
  const TempDir other;
  fs::create_directories(other.file(kCheck));
  other.write(kCheck + "/Y3B1.nnt", "");
  fs::create_directory_symlink(other.path(), folder.file("60"));
  EXPECT_TRUE(found().contains(kCheck + "-cpu"));
}

TEST_F(DataScanTest, TheTreesAreKnownByAHashOfTheirNames) {
  put_folder("60");
  put_folder("300");
  put_folder(kNode);
  put_folder("other");
  put_file("7");
  found();
  const std::string names = "300\n60\n" + kNode + "\n";
  EXPECT_EQ(scan.trees_hash, XXH3_64bits(names.data(), names.size()));
}

TEST_F(DataScanTest, WhatCannotBeReadFailsTheScan) {
  put_file("60/" + kCheck + "/Y3B1.nnt");
  MetricIndexBuilder builder;
  {
    const faults::Fail fails(faults::Call::readdir, EIO, 7, 1);
    EXPECT_FALSE(scan_data_folder(folder.path(), &builder, &scan, &problem));
    ASSERT_TRUE(fails.hit());
  }
  EXPECT_THAT(problem.text, testing::EndsWith(": Input/output error"));
  EXPECT_EQ(problem.code, exit_failed);
  EXPECT_FALSE(scan_data_folder(folder.file("none"), &builder, &scan, &problem));
  EXPECT_EQ(problem.code, exit_not_found);
}

TEST_F(DataScanTest, AnIndexIsCurrentUntilAFolderChanges) {
  put_file("60/" + kCheck + "/Y3B1.nnt");
  put_file(kNode + "/60/" + kCheck + "/Y3B1.nnt");
  const auto later = stamped_index(1000);
  EXPECT_TRUE(is_current(*later));
  const auto earlier = stamped_index(-1000);
  EXPECT_FALSE(is_current(*earlier));
}

// Deleting a tree, or moving one in, changes no folder that stays or came.
TEST_F(DataScanTest, AnIndexIsNotCurrentWhenATreeCameOrWent) {
  put_file("60/" + kCheck + "/Y3B1.nnt");
  put_file("300/" + kCheck + "/Y3B1.nnt");
  const auto index = stamped_index(1000);
  EXPECT_TRUE(is_current(*index));
  fs::rename(folder.file("300"), folder.file("away"));
  EXPECT_FALSE(is_current(*index));
  fs::rename(folder.file("away"), folder.file("300"));
  EXPECT_TRUE(is_current(*index));
  put_folder("3600");
  EXPECT_FALSE(is_current(*index));
}

}  // namespace
