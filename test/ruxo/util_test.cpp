#include "ruxo/util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "test/support/child_process.h"
#include "test/support/temp_dir.h"

TEST(Util, MemmemFindsTheFirstOccurrenceWithinBounds) {
  const char text[] = "abcabc";
  EXPECT_EQ(ruxo_memmem(text, 6, "bc", 2), text + 1);
  EXPECT_EQ(ruxo_memmem(text, 6, "abcabc", 6), text);
  EXPECT_EQ(ruxo_memmem(text, 5, "cabc", 4), nullptr) << "beyond the haystack";
  EXPECT_EQ(ruxo_memmem(text, 6, "abcabcd", 7), nullptr);
  EXPECT_EQ(ruxo_memmem(text, 6, "x", 1), nullptr);
  EXPECT_EQ(ruxo_memmem(text, 6, "", 0), text);
  EXPECT_EQ(ruxo_memmem("a\0b", 3, "\0b", 2) != nullptr, true) << "NULs are bytes like others";
}

TEST(Util, MkdirForFileMakesEveryMissingParentAndNotTheFile) {
  const TempDir dir;
  EXPECT_EQ(mkdir_for_file(dir.file("a/b/c/file").c_str(), 0750), 0);
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("a/b/c")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("a/b/c/file")));
  EXPECT_EQ(mkdir_for_file(dir.file("a/b/c/other").c_str(), 0750), 0) << "all there";
  EXPECT_EQ(mkdir_for_file("file", 0750), 0) << "no parent named";
  EXPECT_EQ(mkdir_for_file((dir.path() + "//d///file").c_str(), 0750), 0) << "doubled slashes";
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("d")));
}

TEST(Util, MkdirForFileFailsWhereAParentIsAFile) {
  const TempDir dir;
  dir.write("a", "");
  errno = 0;
  EXPECT_EQ(mkdir_for_file(dir.file("a/b/c").c_str(), 0750), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(mkdir_for_file(dir.file("a/b").c_str(), 0750), -1) << "the last parent is a file";
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(Util, NowIsTheWallClockInMilliseconds) {
  const auto before = static_cast<uint64_t>(time(nullptr));
  const uint64_t now = ruxo_now_ms();
  const auto after = static_cast<uint64_t>(time(nullptr));
  // time() may read a coarser clock, which lags by a tick.
  EXPECT_GE(now, before * 1000);
  EXPECT_LE(now, (after + 2) * 1000);
}

TEST(Util, TheTaskIdIsTheThreads) {
  EXPECT_EQ(ruxo_task_id(), static_cast<uint64_t>(getpid())) << "the main thread has the process's number";
  uint64_t other = 0, expected = 0;
  std::thread([&] { other = ruxo_task_id(), expected = static_cast<uint64_t>(gettid()); }).join();
  EXPECT_EQ(other, expected);
  EXPECT_NE(other, ruxo_task_id());
}

TEST(Util, TheTaskIdIsNewInAForkedChild) {
  FORKS_A_CHILD();
  ruxo_task_id();
  EXPECT_TRUE(run_in_child([] {
                if (ruxo_task_id() != static_cast<uint64_t>(getpid())) _exit(1);
              }).exited_with(0));
}
