// Where lines go: descriptors and memory.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"

namespace {

using ruxo::Record;

// Lines are collected up to this size and written together, in one system call.
constexpr size_t kCollectBytes = size_t{64} << 10;

// The number of bytes written: all of them, or fewer with errno.
size_t write_all(int fd, std::string_view bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n >= 0) {
      written += static_cast<size_t>(n);
    } else if (errno == EAGAIN) {
      // Someone made the descriptor non-blocking (a shared terminal or pipe): wait for room, lose nothing.
      struct pollfd room = {fd, POLLOUT, 0};
      poll(&room, 1, -1);
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

class DescriptorOutlet final : public ruxo_log_outlet {
 public:
  constexpr DescriptorOutlet(int fd, bool json) : fd_(fd), json_(json) {}

  void take(const Record &record) override {
    json_ ? ruxo::append_json(lines_.value, record) : ruxo::append_logfmt(lines_.value, record);
    if (lines_->size() >= kCollectBytes) flush();
  }

  void flush() override {
    if (lines_->empty()) return;
    // After a line that was cut off by a fault, the next one starts on its own.
    if (torn_) lines_->insert(lines_->begin(), '\n');
    const size_t written = write_all(fd_, lines_.value);
    if (written == lines_->size()) {
      failing_ = torn_ = false;
    } else {
      report_failure(errno);
      if (written > 0) torn_ = lines_.value[written - 1] != '\n';
    }
    lines_->clear();
  }

 private:
  // Once for each stretch of failures; standard error is the only place left to say so.
  void report_failure(int reason) {
    if (std::exchange(failing_, true) || fd_ == STDERR_FILENO) return;
    ruxo::write_stderr(std::string("log lines are being lost: cannot write: ") + strerror(reason) + "\n");
  }

  ruxo::Immortal<std::string> lines_;  // formatted and not yet written
  int fd_;
  bool json_;
  bool failing_ = false;
  bool torn_ = false;
};

class MemoryOutlet final : public ruxo_log_outlet {
 public:
  void take(const Record &record) override {
    const std::lock_guard guard(lock_);
    lines_.push_back(record.message);
  }
  void flush() override {}

  const char *line(size_t index) {
    const std::lock_guard guard(lock_);
    return index < lines_.size() ? lines_[index].c_str() : nullptr;
  }
  size_t count() {
    const std::lock_guard guard(lock_);
    return lines_.size();
  }
  void clear() {
    const std::lock_guard guard(lock_);
    lines_.clear();
  }

 private:
  std::mutex lock_;
  std::deque<std::string> lines_;  // a deque: texts handed out stay where they are
};

constinit DescriptorOutlet stderr_logfmt{STDERR_FILENO, false};
constinit DescriptorOutlet stderr_json{STDERR_FILENO, true};

MemoryOutlet *memory(ruxo_log_outlet_t outlet) {
  return static_cast<MemoryOutlet *>(outlet);
}

}  // namespace

void ruxo::write_stderr(std::string_view text) noexcept {
  write_all(STDERR_FILENO, text);
}

ruxo_log_outlet *ruxo::stderr_logfmt_outlet() {
  return &stderr_logfmt;
}

ruxo_log_outlet_t ruxo_log_outlet_stderr(ruxo_boolean json) {
  return json ? &stderr_json : &stderr_logfmt;
}

ruxo_log_outlet_t ruxo_log_outlet_file(const char *path, ruxo_boolean json) {
  // Each write appends where the file ends then, so several processes can share one file.
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
  if (fd < 0) return nullptr;
  auto *const outlet = new (std::nothrow) DescriptorOutlet(fd, json);
  if (outlet == nullptr) {
    close(fd);
    errno = ENOMEM;
  }
  return outlet;
}

ruxo_log_outlet_t ruxo_log_outlet_memory(void) {
  return new (std::nothrow) MemoryOutlet;
}

const char *ruxo_log_outlet_memory_line(ruxo_log_outlet_t outlet, size_t index) {
  ruxo::drain();
  return memory(outlet)->line(index);
}

size_t ruxo_log_outlet_memory_count(ruxo_log_outlet_t outlet) {
  ruxo::drain();
  return memory(outlet)->count();
}

void ruxo_log_outlet_memory_clear(ruxo_log_outlet_t outlet) {
  ruxo::drain();
  memory(outlet)->clear();
}
