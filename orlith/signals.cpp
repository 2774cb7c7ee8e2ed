#include "orlith/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

// Written by the handler, polled by waiters: a signal that arrives between a look at the flag and the start
// of the wait still ends the wait.
int wake_pipe[2] = {-1, -1};
std::atomic<bool> flag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set in a signal handler");

void on_signal(int) {
  const int saved_errno = errno;
  flag.store(true, std::memory_order_relaxed);
  const char byte = 0;
  [[maybe_unused]] const ssize_t ignored = write(wake_pipe[1], &byte, 1);
  errno = saved_errno;
}

}  // namespace

void install_signal_handlers() {
  if (pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0) wake_pipe[0] = wake_pipe[1] = -1;
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  // One chance to end in order; the default action is back for the second signal.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    // A shell starts background jobs with interrupts ignored: the key is not meant for them.
    struct sigaction inherited {};
    sigaction(number, nullptr, &inherited);
    if (inherited.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

bool interrupted() {
  return flag.load(std::memory_order_relaxed);
}

void set_interrupted(bool value) {
  flag.store(value, std::memory_order_relaxed);
}

bool wait_for_input(int fd, int timeout_ms) {
  pollfd ready[] = {{fd, POLLIN, 0}, {wake_pipe[0], POLLIN, 0}};
  return poll(ready, 2, timeout_ms) > 0 && ready[0].revents != 0;
}

bool wait_for_interrupt_ns(uint64_t ns) {
  constexpr uint64_t ns_per_s = 1'000'000'000;
  const timespec timeout{static_cast<time_t>(ns / ns_per_s), static_cast<long>(ns % ns_per_s)};
  pollfd wake{wake_pipe[0], POLLIN, 0};  // a negative descriptor is never ready: then this only waits
  ppoll(&wake, 1, &timeout, nullptr);
  return interrupted();
}
