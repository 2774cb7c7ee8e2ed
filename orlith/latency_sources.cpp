#include "orlith/latency_sources.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "orlith/sample.h"
#include "orlith/text.h"

namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kSleep_ns = 100'000;
constexpr size_t kPageBytes = 4096;
constexpr unsigned kSleepsPerRound = 20;
constexpr unsigned kPagesPerRound = 100;

uint64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

bool measure_wakeup(uint64_t *latency_ns) {
  const uint64_t due_ns = now_ns() + kSleep_ns;
  const timespec due{static_cast<time_t>(due_ns / kNsPerSecond), static_cast<long>(due_ns % kNsPerSecond)};
  const int error = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
  *latency_ns = now_ns() - due_ns;
  errno = error;
  return error == 0;
}

// A file of one page without a name: nothing is left behind, however the process ends.
class TemporaryPage {
 public:
  explicit TemporaryPage(const std::string &folder)
      : fd_(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) {
    if (fd_ < 0) make_and_unlink(folder);
    if (fd_ >= 0 && !write()) drop();
  }
  ~TemporaryPage() { drop(); }
  TemporaryPage(const TemporaryPage &) = delete;
  TemporaryPage &operator=(const TemporaryPage &) = delete;

  bool is_open() const { return fd_ >= 0; }
  bool read() { return is_whole(pread(fd_, page_.data(), page_.size(), 0)); }
  bool write() { return is_whole(pwrite(fd_, page_.data(), page_.size(), 0)); }

 private:
  // Not every file system has files without a name.
  void make_and_unlink(const std::string &folder) {
    std::string name = folder + "/orlith.XXXXXX";
    fd_ = mkostemp(name.data(), O_CLOEXEC);
    if (fd_ >= 0) unlink(name.c_str());
  }
  static bool is_whole(ssize_t moved) {
    if (moved >= 0 && moved != static_cast<ssize_t>(kPageBytes)) errno = EIO;
    return moved == static_cast<ssize_t>(kPageBytes);
  }
  void drop() {
    const int saved_errno = errno;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    errno = saved_errno;
  }

  std::array<char, kPageBytes> page_{};
  int fd_;
};

std::string temporary_folder() {
  const char *folder = getenv("TMPDIR");
  return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

LatencySource page_source(const std::shared_ptr<TemporaryPage> &page, const char *operation,
                          bool (TemporaryPage::*call)()) {
  return {tagged_name("page_cache_latency", {{"op", operation}, {"units", "seconds"}}), kPagesPerRound,
          [page, call](uint64_t *latency_ns) {
            const uint64_t start_ns = now_ns();
            const bool done = ((*page).*call)();
            *latency_ns = now_ns() - start_ns;
            return done;
          }};
}

}  // namespace

std::vector<LatencySource> host_latencies(std::vector<std::string> &problems) {
  std::vector<LatencySource> sources = {
      {tagged_name("scheduler_delay", {{"units", "seconds"}}), kSleepsPerRound, measure_wakeup}};
  const std::string folder = temporary_folder();
  const auto page = std::make_shared<TemporaryPage>(folder);
  if (!page->is_open()) {
    problems.push_back(fmt::format("a temporary file in {}: {}", escaped(folder), strerror(errno)));
    return sources;
  }
  sources.push_back(page_source(page, "read", &TemporaryPage::read));
  sources.push_back(page_source(page, "write", &TemporaryPage::write));
  return sources;
}

Histogram measure_latency(const LatencySource &source, Clock &clock, uint64_t budget_ns,
                          std::vector<std::string> &problems) {
  Histogram latencies = new_histogram();
  const uint64_t start_ns = clock.monotonic_ns();
  for (unsigned i = 0; i < source.most && clock.monotonic_ns() - start_ns < budget_ns; ++i) {
    uint64_t latency_ns = 0;
    if (!source.measure(&latency_ns)) {
      // An interrupt cuts a sleep short: that is no latency, and no fault.
      if (errno != EINTR) problems.push_back(fmt::format("{}: {}", source.name, strerror(errno)));
      break;
    }
    hist_insert_scaled(latencies.get(), static_cast<int64_t>(latency_ns), -9, 1);
  }
  return latencies;
}
