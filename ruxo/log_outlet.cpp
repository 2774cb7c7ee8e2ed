// Where lines go: descriptors and memory.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <new>

#include "ruxo/log_private.h"

namespace {

using ruxo::Record;

// Lines are collected up to this size and written together, in one system call.
constexpr size_t kCollectBytes = size_t{64} << 10;

// While it lives, the thread cannot be cancelled half-way through a line.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
  ~NoCancellation() { pthread_setcancelstate(old_state_, nullptr); }
  NoCancellation(const NoCancellation &) = delete;
  NoCancellation &operator=(const NoCancellation &) = delete;

 private:
  int old_state_ = 0;
};

// While it lives, a pipe that its reader has closed is an error of write() and does not kill the process.
class NoBrokenPipeSignal {
 public:
  NoBrokenPipeSignal() {
    sigset_t broken_pipe, pending;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &broken_pipe, &old_mask_);
  }
  ~NoBrokenPipeSignal() {
    if (pipe_broke && !was_pending_) take_back_signal();
    pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
  }
  NoBrokenPipeSignal(const NoBrokenPipeSignal &) = delete;
  NoBrokenPipeSignal &operator=(const NoBrokenPipeSignal &) = delete;

  bool pipe_broke = false;

 private:
  static void take_back_signal() {
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    const struct timespec at_once = {0, 0};
    while (sigtimedwait(&broken_pipe, nullptr, &at_once) == -1 && errno == EINTR) {
    }
  }

  sigset_t old_mask_;
  bool was_pending_ = false;
};

// The number of bytes written: all of them, or fewer with *fault set to the errno.
size_t write_all(int fd, std::string_view bytes, int *fault) {
  const NoCancellation until_written;
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n > 0) {
      written += static_cast<size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      // Someone made the descriptor non-blocking (a shared terminal or pipe): wait for room, lose nothing.
      struct pollfd room = {fd, POLLOUT, 0};
      poll(&room, 1, -1);
    } else if (n == 0 || errno != EINTR) {
      *fault = n == 0 ? EIO : errno;
      break;
    }
  }
  return written;
}

size_t write_all_to_pipe(int fd, std::string_view bytes, int *fault) {
  NoBrokenPipeSignal guard;
  const size_t written = write_all(fd, bytes, fault);
  guard.pipe_broke = written < bytes.size() && *fault == EPIPE;
  return written;
}

// True also when it cannot be told.
bool may_be_pipe(int fd) {
  struct stat what;
  return fstat(fd, &what) != 0 || !(S_ISREG(what.st_mode) || S_ISCHR(what.st_mode));
}

class DescriptorOutlet final : public ruxo_log_outlet {
 public:
  // The path (null for standard error) is kept, for reopening.
  constexpr DescriptorOutlet(int fd, const char *path, bool json, bool to_pipe)
      : path_(path), fd_(fd), json_(json), to_pipe_(to_pipe) {}

  void take(const Record &record) override {
    if (lines_ == nullptr) lines_ = new std::string;
    json_ ? ruxo::append_json(*lines_, record) : ruxo::append_logfmt(*lines_, record);
    if (lines_->size() >= kCollectBytes) flush();
  }

  void flush() override {
    if (lines_ == nullptr || lines_->empty()) return;
    int fault = 0;
    // After a line that a fault cut off, the next one starts on its own.
    if (torn_) torn_ = write_bytes("\n", &fault) == 0;
    const size_t written = torn_ ? 0 : write_bytes(*lines_, &fault);
    if (written > 0) torn_ = (*lines_)[written - 1] != '\n';
    if (written == lines_->size()) {
      failing_ = false;
    } else {
      report_failure(fault);
    }
    lines_->clear();
  }

  bool reopen() override {
    if (path_ == nullptr) return true;
    const int fd = open_to_append(path_);
    if (fd < 0) return false;
    close(std::exchange(fd_, fd));
    to_pipe_ = may_be_pipe(fd);
    failing_ = false;
    return true;
  }

  static int open_to_append(const char *path) {
    // Each write appends where the file ends then, so several processes can share one file.
    return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
  }

 private:
  size_t write_bytes(std::string_view bytes, int *fault) const {
    return to_pipe_ ? write_all_to_pipe(fd_, bytes, fault) : write_all(fd_, bytes, fault);
  }

  // Once for each stretch of failures; standard error is the only place left to say so.
  void report_failure(int fault) {
    if (std::exchange(failing_, true) || path_ == nullptr) return;
    char text[512];
    const int len = snprintf(text, sizeof text, "log lines are being lost: cannot write %s: %s\n", path_,
                             strerrordesc_np(fault));
    if (len > 0) ruxo::write_stderr({text, std::min(static_cast<size_t>(len), sizeof text - 1)});
  }

  // Formatted and not yet written. Made with the first line: the outlets for standard error are there before
  // any constructor runs, and are never destroyed.
  std::string *lines_ = nullptr;
  const char *path_;
  int fd_;
  bool json_;
  bool to_pipe_;  // or to what only may be one: writing then takes care of the signal of a broken pipe
  bool failing_ = false;
  bool torn_ = false;  // the last byte written was not the end of a line
};

class MemoryOutlet final : public ruxo_log_outlet {
 public:
  void take(const Record &record) override { lines_.push_back(record.message); }
  void flush() override {}
  std::deque<std::string> *memory_lines() override { return &lines_; }

 private:
  std::deque<std::string> lines_;  // a deque: texts handed out stay where they are
};

constinit ruxo::Immortal<DescriptorOutlet> stderr_logfmt{STDERR_FILENO, nullptr, false, true};
constinit ruxo::Immortal<DescriptorOutlet> stderr_json{STDERR_FILENO, nullptr, true, true};

// Hands a new outlet to the framework for good. Null stays null.
ruxo_log_outlet_t keep(ruxo_log_outlet_t outlet) {
  static constinit ruxo_log_outlet *last_made = nullptr;
  if (outlet == nullptr) return nullptr;
  const std::lock_guard guard(ruxo::log_lock());
  outlet->next_made = std::exchange(last_made, outlet);
  return outlet;
}

}  // namespace

void ruxo::write_stderr(std::string_view text) noexcept {
  int ignored = 0;
  write_all_to_pipe(STDERR_FILENO, text, &ignored);
}

ruxo_log_outlet *ruxo::stderr_logfmt_outlet() {
  return &stderr_logfmt.value;
}

ruxo_log_outlet_t ruxo_log_outlet_stderr(ruxo_boolean json) {
  return json ? &stderr_json.value : &stderr_logfmt.value;
}

ruxo_log_outlet_t ruxo_log_outlet_file(const char *path, ruxo_boolean json) {
  const int fd = DescriptorOutlet::open_to_append(path);
  if (fd < 0) return nullptr;
  char *const kept_path = strdup(path);
  auto *const outlet = kept_path == nullptr ? nullptr
                                            : new (std::nothrow)
                                                  DescriptorOutlet(fd, kept_path, json, may_be_pipe(fd));
  if (outlet == nullptr) {
    close(fd);
    free(kept_path);
    errno = ENOMEM;
  }
  return keep(outlet);
}

ruxo_boolean ruxo_log_outlet_reopen(ruxo_log_outlet_t outlet) {
  const auto held = ruxo::drain_and_hold();
  return outlet->reopen();
}

ruxo_log_outlet_t ruxo_log_outlet_memory(void) {
  return keep(new (std::nothrow) MemoryOutlet);
}

const char *ruxo_log_outlet_memory_line(ruxo_log_outlet_t outlet, size_t index) {
  const auto held = ruxo::drain_and_hold();
  const auto *const lines = outlet->memory_lines();
  return lines != nullptr && index < lines->size() ? (*lines)[index].c_str() : nullptr;
}

size_t ruxo_log_outlet_memory_count(ruxo_log_outlet_t outlet) {
  const auto held = ruxo::drain_and_hold();
  const auto *const lines = outlet->memory_lines();
  return lines == nullptr ? 0 : lines->size();
}

void ruxo_log_outlet_memory_clear(ruxo_log_outlet_t outlet) {
  const auto held = ruxo::drain_and_hold();
  if (auto *const lines = outlet->memory_lines()) lines->clear();
}
