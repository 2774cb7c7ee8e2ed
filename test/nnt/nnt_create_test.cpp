// Making files with a header only.
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include "liborlith/nnt/nnt.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

bool exists(const std::string &path) {
  return std::filesystem::exists(path);
}

std::string content_of(int fd) {
  std::string bytes(4096, '\0');
  const ssize_t got = pread(fd, bytes.data(), bytes.size(), 0);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

int files_in(const TempDir &dir) {
  int count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(dir.path())) ++count;
  return count;
}

// The number between base and the random part of a template "base_1f_XXXXXX".
uint32_t number_in(const std::string &name, const std::string &base) {
  EXPECT_EQ(name.substr(0, base.size() + 1), base + "_");
  EXPECT_EQ(name.substr(name.size() - 7), "_XXXXXX");
  return static_cast<uint32_t>(std::stoul(name.substr(base.size() + 1), nullptr, 16));
}

}  // namespace

TEST(NntCreate, WritesTheHeaderAndNothingElse) {
  TempDir dir;
  ASSERT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0x12345678 * UINT64_C(60), 60, 0644), 0);
  // "NNT1", 60, then 0x12345678 * 60 = 0x444444420
  const char expected[] = "NNT1\x3c\0\0\0\x20\x44\x44\x44\x04\0\0\0";
  EXPECT_EQ(dir.read("f"), std::string(expected, 16));
}

TEST(NntCreate, TheResultOpens) {
  TempDir dir;
  ASSERT_EQ(nnt_create("NNT1", dir.file("f").c_str(), 6000, 300, 0644), 0);
  Handle h = open_file(dir.file("f"));
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->hdr.epoch, 6000u);
  EXPECT_EQ(h->hdr.period, 300u);
}

TEST(NntCreate, TakesTheFirstFourBytesOfTheVersion) {
  TempDir dir;
  EXPECT_EQ(nnt_create("NNT2 and more", dir.file("long").c_str(), 0, 60, 0644), 0);
  EXPECT_EQ(dir.read("long"), header(60, 0, "NNT2"));
  EXPECT_EQ(nnt_create("N", dir.file("short").c_str(), 0, 60, 0644), 0);
  EXPECT_EQ(dir.read("short"), header(60, 0, std::string("N\0\0\0", 4)));
}

TEST(NntCreate, KeepsThePeriodTo32Bits) {
  TempDir dir;
  const uint64_t period = (UINT64_C(1) << 32) + 60;
  EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), period * 2, period, 0644), 0);
  EXPECT_EQ(dir.read("f"), header(60, period * 2));
}

TEST(NntCreate, RefusesAMisalignedEpochAndAPeriodOf0) {
  TempDir dir;
  struct Case {
    uint64_t epoch, period;
  };
  for (const Case &c : {Case{61, 60}, Case{0, 0}, Case{60, 0}, Case{0, UINT64_C(1) << 32}}) {
    errno = 0;
    EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), c.epoch, c.period, 0644), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nnt_create_tmp(nullptr, dir.file("f").c_str(), c.epoch, c.period, 0644), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(files_in(dir), 0);
}

TEST(NntCreate, NeverOverwrites) {
  TempDir dir;
  const std::string path = dir.write("f", "precious");
  EXPECT_EQ(nnt_create(nullptr, path.c_str(), 0, 60, 0644), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(dir.read("f"), "precious");
}

TEST(NntCreate, SaysWhyAFileCannotBeMade) {
  TempDir dir;
  EXPECT_EQ(nnt_create(nullptr, dir.file("none/f").c_str(), 0, 60, 0644), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(NntCreate, AppliesTheMode) {
  TempDir dir;
  const mode_t old = umask(022);
  ASSERT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0, 60, 0666), 0);
  umask(old);
  struct stat st {};
  ASSERT_EQ(stat(dir.file("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(NntCreate, RepeatsInterruptions) {
  TempDir dir;
  const faults::Fail open_fault(faults::Call::open, EINTR, 1, 2);
  const faults::Fail write_fault(faults::Call::write, EINTR, 1, 2);
  EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0, 60, 0644), 0);
  EXPECT_EQ(dir.read("f"), header(60, 0));
}

TEST(NntCreate, AFailedWriteRemovesTheFileAndKeepsTheReason) {
  TempDir dir;
  const faults::Fail fault(faults::Call::write, ENOSPC);
  EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0, 60, 0644), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(exists(dir.file("f")));
  EXPECT_EQ(fcntl(faults::last_closed(), F_GETFD), -1);
}

TEST(NntCreate, AShortWriteRemovesTheFile) {
  TempDir dir;
  for (const size_t written : {0u, 1u, 15u}) {
    const faults::Short fault(faults::Call::write, written);
    EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0, 60, 0644), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(exists(dir.file("f")));
  }
}

TEST(NntCreate, AFailedRemovalDoesNotHideTheReason) {
  TempDir dir;
  const faults::Fail write_fault(faults::Call::write, ENOSPC);
  const faults::Fail unlink_fault(faults::Call::unlink, EACCES);
  const faults::Fail close_fault(faults::Call::close, EINTR);
  EXPECT_EQ(nnt_create(nullptr, dir.file("f").c_str(), 0, 60, 0644), -1);
  EXPECT_EQ(errno, ENOSPC);
}

// ---- anonymous files ----

TEST(NntCreateTmp, IsAnAnonymousFileWithAHeader) {
  TempDir dir;
  const int fd = nnt_create_tmp(nullptr, dir.file("base").c_str(), 120, 60, 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(files_in(dir), 0);
  EXPECT_EQ(content_of(fd), header(60, 120));
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 16);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  Handle h(nnt_open_fd(fd, nullptr));
  ASSERT_NE(h, nullptr);
  const nnt_multitype v = uint64_value(7);
  EXPECT_EQ(nnt_put(h.get(), 120, &v), 1);
}

TEST(NntCreateTmp, NumbersItsTemplatesInHex) {
  TempDir dir;
  const std::string base = dir.file("base");
  uint32_t first = 0;
  for (uint32_t i = 0; i < 20; ++i) {
    const int fd = nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0);
    ASSERT_GE(fd, 0);
    close(fd);
    const uint32_t number = number_in(faults::last_template(), base);
    if (i == 0) first = number;
    EXPECT_EQ(number, first + i);
    EXPECT_EQ(faults::last_unlinked().substr(0, base.size()), base);
  }
}

// Run as its own process this is the first call ever; among others the number is whatever they left.
TEST(NntCreateTmp, StartsAtZeroInAFreshProcess) {
  const auto in_child = [] {
    TempDir dir;
    const std::string base = dir.file("base");
    close(nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0));
    _exit(faults::last_template() == base + "_0_XXXXXX" ? 0 : 1);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts the program anew
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "");
}

TEST(NntCreateTmp, ANameThatDoesNotFitIsRefused) {
  const std::string base(5000, 'x');
  EXPECT_EQ(nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(NntCreateTmp, SaysWhyAFileCannotBeMade) {
  TempDir dir;
  EXPECT_EQ(nnt_create_tmp(nullptr, dir.file("none/f").c_str(), 0, 60, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(NntCreateTmp, RepeatsInterruptions) {
  TempDir dir;
  const faults::Fail make_fault(faults::Call::mkstemp, EINTR, 1, 2);
  const faults::Fail write_fault(faults::Call::write, EINTR, 1, 2);
  const int fd = nnt_create_tmp(nullptr, dir.file("base").c_str(), 120, 60, 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(content_of(fd), header(60, 120));
  close(fd);
}

TEST(NntCreateTmp, AFailedOrShortWriteClosesTheFile) {
  TempDir dir;
  {
    const faults::Fail fault(faults::Call::write, ENOSPC);
    EXPECT_EQ(nnt_create_tmp(nullptr, dir.file("base").c_str(), 120, 60, 0), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fcntl(faults::last_closed(), F_GETFD), -1);
  }
  const faults::Short fault(faults::Call::write, 8);
  EXPECT_EQ(nnt_create_tmp(nullptr, dir.file("base").c_str(), 120, 60, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(fcntl(faults::last_closed(), F_GETFD), -1);
  EXPECT_EQ(files_in(dir), 0);
}

TEST(NntCreateTmp, ConcurrentCallersNeverShareANumber) {
  TempDir dir;
  const std::string base = dir.file("base");
  const int first = nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0);
  const uint32_t before = number_in(faults::last_template(), base);
  close(first);
  constexpr int kEach = 50;
  const auto work = [&] {
    for (int i = 0; i < kEach; ++i) {
      const int fd = nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0);
      EXPECT_GE(fd, 0);
      close(fd);
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  const int last = nnt_create_tmp(nullptr, base.c_str(), 120, 60, 0);
  close(last);
  EXPECT_EQ(number_in(faults::last_template(), base), before + 2 * kEach + 1);
}
