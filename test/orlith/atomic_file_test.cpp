#include "orlith/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

using Existing = AtomicFile::Existing;
using faults::Call;

constexpr Existing kBoth[] = {Existing::replace, Existing::keep};

struct AtomicFileTest : testing::Test {
  // Writes "new" and commits it; the answer of the commit.
  int commit(Existing existing = Existing::replace) {
    AtomicFile file(path);
    EXPECT_EQ(file.open(), 0);
    EXPECT_EQ(write(file.fd(), "new", 3), 3);
    return file.commit(existing);
  }
  void expect_only_file_holds(const std::string &bytes) {
    EXPECT_EQ(folder.read("file"), bytes);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
  }

  TempDir folder;
  const std::string path = folder.file("file");
};

TEST_F(AtomicFileTest, AppearsWholeWithTheCommit) {
  for (const Existing existing : kBoth) {
    {
      AtomicFile file(path);
      ASSERT_EQ(file.open(), 0);
      ASSERT_EQ(write(file.fd(), "new", 3), 3);
      EXPECT_FALSE(std::filesystem::exists(path));
      EXPECT_EQ(file.commit(existing), 0);
    }
    expect_only_file_holds("new");
    unlink(path.c_str());
  }
}

TEST_F(AtomicFileTest, WithoutACommitNothingIsLeft) {
  folder.write("file", "old");
  {
    AtomicFile file(path);
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(write(file.fd(), "new", 3), 3);
  }
  expect_only_file_holds("old");
}

TEST_F(AtomicFileTest, ReplacesAFileOnlyWhenItMay) {
  folder.write("file", "old");
  EXPECT_EQ(commit(Existing::keep), EEXIST);
  expect_only_file_holds("old");
  EXPECT_EQ(commit(Existing::replace), 0);
  expect_only_file_holds("new");
}

// The first sync is that of the file, the second that of the folder.
TEST_F(AtomicFileTest, AFolderThatCannotBeSyncedIsToldAndTheNewFileStands) {
  for (const Existing existing : kBoth) {
    const faults::Fail fail(Call::fsync, EIO, 2, 1);
    EXPECT_EQ(commit(existing), EIO);
    EXPECT_TRUE(fail.hit());
    expect_only_file_holds("new");
    unlink(path.c_str());
  }
}

TEST_F(AtomicFileTest, AFolderThatCannotBeOpenedForSyncingIsToldToo) {
  folder.write("file", "old");
  AtomicFile file(path);
  ASSERT_EQ(file.open(), 0);
  ASSERT_EQ(write(file.fd(), "new", 3), 3);
  const faults::Fail fail(Call::open, EACCES);
  EXPECT_EQ(file.commit(), EACCES);
  EXPECT_TRUE(fail.hit());
  expect_only_file_holds("new");
}

TEST_F(AtomicFileTest, ASystemThatSyncsNoFoldersIsNoFailure) {
  const faults::Fail fail(Call::fsync, EINVAL, 2, 1);
  EXPECT_EQ(commit(), 0);
  EXPECT_TRUE(fail.hit());
  expect_only_file_holds("new");
}

TEST_F(AtomicFileTest, EveryEarlierFailureLeavesTheOldFile) {
  folder.write("file", "old");
  for (const Call call : {Call::fsync, Call::close, Call::rename}) {
    const faults::Fail fail(call, EIO, 1, 1);
    EXPECT_EQ(commit(), EIO);
    EXPECT_TRUE(fail.hit());
    expect_only_file_holds("old");
  }
  unlink(path.c_str());
  const faults::Fail fail(Call::link, EIO);
  EXPECT_EQ(commit(Existing::keep), EIO);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(AtomicFileTest, ALinkStaysALink) {
  folder.write("file", "old");
  ASSERT_EQ(symlink("file", folder.file("link").c_str()), 0);
  {
    AtomicFile file(folder.file("link"));
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(write(file.fd(), "new", 3), 3);
    EXPECT_EQ(file.commit(), 0);
  }
  EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
  EXPECT_EQ(folder.read("file"), "new");
}

TEST_F(AtomicFileTest, ADeviceIsWrittenInPlace) {
  AtomicFile file("/dev/null");
  ASSERT_EQ(file.open(), 0);
  EXPECT_EQ(write(file.fd(), "new", 3), 3);
  const faults::Uses uses;
  EXPECT_EQ(file.commit(), 0);
  EXPECT_EQ(uses(Call::rename) + uses(Call::link) + uses(Call::fsync), 0);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(AtomicFileTest, AFolderIsNoFile) {
  EXPECT_EQ(AtomicFile(folder.path()).open(), EISDIR);
}

TEST_F(AtomicFileTest, IsAsOpenAsTheUmaskAllows) {
  const mode_t before = umask(027);
  EXPECT_EQ(commit(), 0);
  umask(before);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640U);
}

}  // namespace
