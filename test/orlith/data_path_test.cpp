#include "orlith/data_path.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "test/support/temp_dir.h"

namespace {

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";

std::vector<std::string> split(const std::string &path) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
    parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  parts.push_back(path.substr(start));
  return parts;
}

TEST(MetricFilePath, KeepsAShortNameInOneFile) {
  EXPECT_EQ(metric_file_path(kCheck, "Y3B1"), kCheck + "/Y3B1.nnt");
  EXPECT_EQ(metric_file_path(kCheck, ""), kCheck + "/.nnt");
}

// A working copy adds four characters to the name, so 251 of the 255 are for the name itself.
TEST(MetricFilePath, SplitsExactlyWhereAFileNameWouldBeTooLong) {
  EXPECT_EQ(split(metric_file_path(kCheck, std::string(247, 'A'))).size(), 2U);
  const auto parts = split(metric_file_path(kCheck, std::string(248, 'A')));
  ASSERT_EQ(parts.size(), 3U);
  EXPECT_EQ(parts[1], std::string(240, 'A'));
  EXPECT_EQ(parts[2], std::string(8, 'A') + ".nnt");
}

TEST(MetricFilePath, LosesNothingAtAnyLength) {
  for (size_t length = 0; length <= 5464; length += 4) {
    std::string encoded;
    for (size_t i = 0; i < length; ++i) encoded += "ABCDEFGHIJKLMNOPQRSTUVWXYZ+_"[(i * 7 + i / 28) % 28];
    auto parts = split(metric_file_path(kCheck, encoded));
    for (const std::string &part : parts) ASSERT_LE(part.size(), 251U);
    parts.erase(parts.begin());
    ASSERT_EQ(encoded_name_from_parts(parts), encoded);
  }
}

TEST(MetricFilePath, HistogramsHaveAFolderOfTheirOwnSuffix) {
  EXPECT_EQ(metric_file_path("u", "YWJj", kHistSuffix), "u/YWJj.hist");
  EXPECT_EQ(metric_file_path("u", std::string(246, 'a'), kHistSuffix),
            "u/" + std::string(246, 'a') + ".hist");
  EXPECT_EQ(metric_file_path("u", std::string(247, 'a'), kHistSuffix),
            "u/" + std::string(240, 'a') + "/aaaaaaa.hist");
}

TEST(MetricFilePath, IsNotReadBackFromOtherFiles) {
  EXPECT_EQ(encoded_name_from_parts({"Y3B1.txt"}), "");
  EXPECT_EQ(encoded_name_from_parts({}), "");
}

TEST(ReachablePath, CreatesFoldersOnlyWhenAsked) {
  TempDir dir;
  const std::string wanted = dir.file("a/b/file");
  EXPECT_EQ(ReachablePath(wanted, false).error(), 0);  // a short path is not looked at before it is used
  EXPECT_NE(access(dir.file("a").c_str(), F_OK), 0);
  EXPECT_EQ(ReachablePath(wanted, true).error(), 0);
  EXPECT_EQ(access(dir.file("a/b").c_str(), F_OK), 0);
}

TEST(ReachablePath, ReachesPathsBeyondOneSystemCall) {
  TempDir dir;
  std::string wanted = dir.path();
  for (int i = 0; i < 40; ++i) wanted += "/" + std::string(200, static_cast<char>('a' + i % 26));
  wanted += "/file.nnt";
  ASSERT_GT(wanted.size(), static_cast<size_t>(PATH_MAX));
  EXPECT_EQ(ReachablePath(wanted, false).error(), ENOENT);
  const ReachablePath reached(wanted, true);
  ASSERT_EQ(reached.error(), 0);
  const int fd = open(reached.path().c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(access(ReachablePath(wanted, false).path().c_str(), F_OK), 0);
}

TEST(ReachablePath, SaysWhyAFolderCannotBeMade) {
  TempDir dir;
  dir.write("plain", "");
  EXPECT_EQ(ReachablePath(dir.file("plain/under/file"), true).error(), ENOTDIR);
}

}  // namespace
