#include "liborlith/fs_helpers/fs_helpers.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "test/support/log_capture.h"

// The library is looked for once in a process: each test here is a process of its own.

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

bool path_is_on_zfs = false;
std::map<std::string, std::string> libraries;  // by the name asked for: the file that stands for it
std::vector<std::string> asked_for;
int flags_asked = 0;
int closed = 0;

}  // namespace

extern "C" {
int __real_statfs(const char *path, struct statfs *info);
int __wrap_statfs(const char *path, struct statfs *info) {
  const int result = __real_statfs(path, info);
  if (result == 0 && path_is_on_zfs) info->f_type = 0x2fc12fc1;
  return result;
}
void *__real_dlopen(const char *name, int flags);
void *__wrap_dlopen(const char *name, int flags) {
  asked_for.emplace_back(name);
  flags_asked = flags;
  const auto library = libraries.find(name);
  return library == libraries.end() ? nullptr : __real_dlopen(library->second.c_str(), flags);
}
int __real_dlclose(void *library);
int __wrap_dlclose(void *library) {
  ++closed;
  return __real_dlclose(library);
}
}

namespace {

struct Figures {
  uint64_t fsid = 1, total = 2, avail = 3;
  double ratio = 4;
  double result = 5;
};

Figures figures_of(const char *path) {
  Figures f;
  f.result = fs_get_avail(path, &f.fsid, &f.total, &f.avail, &f.ratio);
  return f;
}

// What the system says of "/".
struct Root {
  Root() {
    statvfs("/", &vfs);
    statfs("/", &fs);
    memcpy(&fsid, &fs.f_fsid, sizeof fsid);
    total = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
  }
  struct statvfs vfs {};
  struct statfs fs {};
  uint64_t fsid = 0, total = 0;
};

class Zfs : public testing::Test {
 protected:
  Zfs() { path_is_on_zfs = true; }
  // Which of the doubles answers to which name.
  void provide(const std::string &name, const std::string &kind) {
    libraries[name] = std::string(ORLITH_ZFS_DOUBLES) + "/libzfs_double_" + kind + ".so";
  }
  // A variable of the double that was loaded.
  template <typename T>
  T &at(const char *name) {
    void *found = dlsym(RTLD_DEFAULT, name);
    if (found == nullptr) ADD_FAILURE() << name << ": no double is loaded";
    return *static_cast<T *>(found);
  }
  const Root root_;
  LogCapture notice_{&ruxo_notice};
};

TEST(FsHelpers, AnOrdinaryFileSystemAnswersByItself) {
  const Root root;
  const Figures f = figures_of("/");
  EXPECT_EQ(f.result, 0.0);
  EXPECT_EQ(f.fsid, root.fsid);
  EXPECT_EQ(f.total, root.total);
  EXPECT_GT(f.avail, 0U);
  EXPECT_LE(f.avail, f.total);
  EXPECT_EQ(f.ratio, 1.0);
  EXPECT_THAT(asked_for, IsEmpty());
}

TEST(FsHelpers, AMissingPathFailsWithARatioOfOne) {
  const Figures f = figures_of("/nowhere/at/all");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(f.result, -1.0);
  EXPECT_EQ(f.ratio, 1.0);
  EXPECT_EQ(f.fsid, 1U);
  EXPECT_EQ(f.total, 2U);
  EXPECT_EQ(f.avail, 3U);
}

TEST_F(Zfs, WithoutLibzfsTheOrdinaryFiguresStandAndItIsNotLookedForAgain) {
  for (int n = 0; n < 3; ++n) {
    const Figures f = figures_of("/");
    EXPECT_EQ(f.result, 0.0);
    EXPECT_EQ(f.total, root_.total);
    EXPECT_EQ(f.ratio, 1.0);
  }
  EXPECT_THAT(asked_for, ElementsAre("libzfs.so.2", "libzfs.so"));
  EXPECT_EQ(flags_asked, RTLD_LAZY | RTLD_GLOBAL);
  EXPECT_THAT(notice_.lines(), IsEmpty());
}

TEST_F(Zfs, TheDataSetsPropertiesReplaceTheFigures) {
  provide("libzfs.so.2", "whole");
  const Figures f = figures_of("/");
  EXPECT_EQ(f.result, 0.0);
  EXPECT_EQ(f.fsid, root_.fsid);
  EXPECT_EQ(f.total, 6000U);
  EXPECT_EQ(f.avail, 5000U);
  EXPECT_EQ(f.ratio, 2.37);
  EXPECT_STREQ(&at<char>("double_path"), "/");
  EXPECT_EQ(at<int>("double_type"), 1);
  EXPECT_STREQ(&at<char>("double_asked"), "325");
  EXPECT_THAT(asked_for, ElementsAre("libzfs.so.2"));
}

TEST_F(Zfs, TheSecondNameIsTriedAfterTheFirst) {
  provide("libzfs.so", "whole");
  EXPECT_EQ(figures_of("/").avail, 5000U);
  EXPECT_THAT(asked_for, ElementsAre("libzfs.so.2", "libzfs.so"));
}

TEST_F(Zfs, EachCallHasHandlesOfItsOwnAndGivesThemBack) {
  provide("libzfs.so.2", "whole");
  for (int n = 0; n < 3; ++n) figures_of("/");
  for (const char *counter : {"double_inits", "double_finis", "double_opens", "double_closes"})
    EXPECT_EQ(at<int>(counter), 3) << counter;
  EXPECT_THAT(asked_for, SizeIs(1));
}

TEST_F(Zfs, WithoutALibraryHandleTheFiguresStand) {
  provide("libzfs.so.2", "whole");
  figures_of("/");
  at<int>("double_no_library") = 1;
  const Figures f = figures_of("/");
  EXPECT_EQ(f.total, root_.total);
  EXPECT_EQ(f.ratio, 1.0);
  EXPECT_EQ(at<int>("double_finis"), 1);
}

TEST_F(Zfs, WithoutADataSetTheFiguresStandAndTheLibraryHandleIsGivenBack) {
  provide("libzfs.so.2", "whole");
  figures_of("/");
  at<int>("double_no_dataset") = 1;
  const Figures f = figures_of("/");
  EXPECT_EQ(f.total, root_.total);
  EXPECT_EQ(f.ratio, 1.0);
  EXPECT_EQ(at<int>("double_finis"), 2);
  EXPECT_EQ(at<int>("double_closes"), 1);
}

TEST_F(Zfs, WithoutTheAvailablePropertyTheRatioIsStillRead) {
  provide("libzfs.so.2", "whole");
  figures_of("/");
  (&at<int>("double_fails"))[3] = 1;
  at<char>("double_asked") = '\0';
  const Figures f = figures_of("/");
  EXPECT_EQ(f.total, root_.total);
  EXPECT_EQ(f.ratio, 2.37);
  EXPECT_STREQ(&at<char>("double_asked"), "35") << "what is used is not asked for then";
}

TEST_F(Zfs, WithoutTheUsedPropertyTheTotalStands) {
  provide("libzfs.so.2", "whole");
  figures_of("/");
  (&at<int>("double_fails"))[2] = 1;
  const Figures f = figures_of("/");
  EXPECT_EQ(f.total, root_.total);
  EXPECT_EQ(f.avail, 5000U);
}

TEST_F(Zfs, WithoutTheRatioItIsOne) {
  provide("libzfs.so.2", "whole");
  figures_of("/");
  (&at<int>("double_fails"))[5] = 1;
  const Figures f = figures_of("/");
  EXPECT_EQ(f.total, 6000U);
  EXPECT_EQ(f.ratio, 1.0);
}

TEST_F(Zfs, OneThreadLoadsWhileTheOthersWait) {
  provide("libzfs.so.2", "whole");
  std::vector<std::thread> threads;
  std::atomic<int> right = 0;
  for (int n = 0; n < 8; ++n) threads.emplace_back([&] { right += figures_of("/").ratio == 2.37 ? 1 : 0; });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(right, 8);
  EXPECT_THAT(asked_for, SizeIs(1));
}

// A library that lacks a function is told of once, closed, and never used.
class ZfsWithout : public Zfs {
 protected:
  void expect_notice(const std::string &kind, const std::string &notice) {
    provide("libzfs.so.2", kind);
    for (int n = 0; n < 2; ++n) {
      const Figures f = figures_of("/");
      EXPECT_EQ(f.result, 0.0);
      EXPECT_EQ(f.total, root_.total);
      EXPECT_EQ(f.ratio, 1.0);
    }
    ruxo_log_flush();
    EXPECT_THAT(notice_.lines(), ElementsAre(StartsWith(notice)));
    EXPECT_THAT(asked_for, SizeIs(1));
    EXPECT_EQ(closed, 1);
  }
};

TEST_F(ZfsWithout, Init) {
  expect_notice("without_init", "Cannot locate libzfs_init function: ");
}
TEST_F(ZfsWithout, Fini) {
  expect_notice("without_fini", "Cannot locate libzfs_fini function: ");
}
TEST_F(ZfsWithout, PathToZhandle) {
  expect_notice("without_open", "Cannot locate zfs_path_to_zhandle function: ");
}
TEST_F(ZfsWithout, Close) {
  expect_notice("without_close", "Cannot locate zfs_close function: ");
}
TEST_F(ZfsWithout, PropGetNumeric) {
  expect_notice("without_get", "Cannot locate zfs_prop_get_numeric function: ");
}
TEST_F(ZfsWithout, Several) {
  expect_notice("without_anything", "Cannot locate libzfs_init function: ");
}

}  // namespace
