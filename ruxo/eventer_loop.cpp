// One loop thread: a context of the input/output library, which waits for descriptors and for points in time.
//
// The library's waits are level-triggered: one that begins while the descriptor is ready ends at once. It says that a
// descriptor which failed or was hung up is ready for everything.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "ruxo/eventer_private.h"

namespace asio = boost::asio;

namespace {

thread_local ruxo::Loop *current_loop = nullptr;

using Descriptor = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;
using SteadyTimer =
    asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                               asio::io_context::executor_type>;

// What is posted, and what follows a wait.
struct Call {
  ruxo::EventRef event;
  ruxo::LoopCall function;
  uint64_t registration;
  int argument;

  void operator()() const { function(*event, registration, argument); }
  // Cancelled, or ended with an error: what it then comes to, the registration tells, and the next system call.
  void operator()(const boost::system::error_code &) const { (*this)(); }
};

Call wait_of(ruxo_event &event, int bit) {
  return {ruxo::EventRef(&event), ruxo::on_wait_ended, event.registration, bit};
}

class DescriptorWaiter : public ruxo::Waiter {
 public:
  explicit DescriptorWaiter(asio::io_context &io) : descriptor_(io) {}
  ~DescriptorWaiter() override { descriptor_.release(); }  // which does not close it

  bool watch(int fd) {
    boost::system::error_code error;
    descriptor_.assign(fd, error);
    if (error) errno = error.value();
    return !error;
  }

  void wait(ruxo_event &event, int bits) override {
    if ((bits & EVENTER_READ) != 0) wait(Descriptor::wait_read, event, EVENTER_READ);
    if ((bits & EVENTER_WRITE) != 0) wait(Descriptor::wait_write, event, EVENTER_WRITE);
    if ((bits & EVENTER_EXCEPTION) != 0) wait(Descriptor::wait_error, event, EVENTER_EXCEPTION);
  }

 private:
  void wait(Descriptor::wait_type type, ruxo_event &event, int bit) {
    descriptor_.async_wait(type, wait_of(event, bit));
  }

  Descriptor descriptor_;
};

class TimerWaiter : public ruxo::Waiter {
 public:
  explicit TimerWaiter(asio::io_context &io) : timer_(io) {}

  void wait(ruxo_event &event, int) override {
    timer_.expires_at(deadline(event.when));
    timer_.async_wait(wait_of(event, EVENTER_TIMER));
  }

 private:
  // The wall clock is read first: should the thread pause in between, the timer is late rather than early.
  static std::chrono::steady_clock::time_point deadline(const struct timeval &when) noexcept {
    using std::chrono::microseconds;
    constexpr int64_t kHundredYears = int64_t{100} * 365 * 86400 * 1000000;
    int64_t delay;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    if (__builtin_mul_overflow(int64_t{when.tv_sec}, 1000000, &delay) ||
        __builtin_add_overflow(delay, when.tv_usec, &delay) ||
        __builtin_sub_overflow(delay, std::chrono::duration_cast<microseconds>(now).count(), &delay)) {
      delay = when.tv_sec < 0 ? -kHundredYears : kHundredYears;
    }
    return std::chrono::steady_clock::now() + microseconds(std::clamp(delay, -kHundredYears, kHundredYears));
  }

  SteadyTimer timer_;
};

}  // namespace

struct ruxo::Loop::Context {
  asio::io_context io{1};  // one thread
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(io);
  // Makes the library open its descriptors now, while a failure can still be told.
  SteadyTimer first_timer{io};
};

ruxo::Loop::Loop() : context_(std::make_unique<Context>()) {}
ruxo::Loop::~Loop() = default;

ruxo::Loop *ruxo::Loop::current() noexcept {
  return current_loop;
}

void ruxo::Loop::forget_current() noexcept {
  current_loop = nullptr;
}

void *ruxo::Loop::run(void *loop) {
  current_loop = static_cast<Loop *>(loop);
  char name[16];
  snprintf(name, sizeof name, "eventer/%u", current_loop->index_);
  pthread_setname_np(pthread_self(), name);
  or_fatal("no memory for a loop thread", [] { current_loop->context_->io.run(); });
  current_loop = nullptr;
  return nullptr;
}

bool ruxo::Loop::start(unsigned index) {
  index_ = index;
  return start_thread(&thread_, run, this);
}

void ruxo::Loop::stop() {
  context_->io.stop();
}

void ruxo::Loop::join() {
  pthread_join(thread_, nullptr);
}

void ruxo::Loop::close_and_do_the_rest() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
  }
  context_->work.reset();
  context_->io.restart();
  or_fatal("no memory for the end of a loop", [this] { context_->io.poll(); });
}

bool ruxo::Loop::post(const EventRef &event, LoopCall call, uint64_t registration, int argument) noexcept {
  const std::lock_guard guard(lock_);
  if (closed_) return false;
  or_fatal("no memory to call an event", [&] {
    asio::post(context_->io, Call{event, call, registration, argument});
  });
  return true;
}

std::unique_ptr<ruxo::Waiter> ruxo::Loop::watch(ruxo_event &event) {
  if (event.kind == EventKind::timer) return std::make_unique<TimerWaiter>(context_->io);
  auto waiter = std::make_unique<DescriptorWaiter>(context_->io);
  if (!waiter->watch(event.fd)) return nullptr;
  return waiter;
}

bool ruxo::start_thread(pthread_t *thread, void *(*work)(void *), void *argument) noexcept {
  sigset_t blocked, old;
  sigfillset(&blocked);
  // A thread's own faults have to reach it.
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
    sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &old);
  const bool started = pthread_create(thread, nullptr, work, argument) == 0;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return started;
}
