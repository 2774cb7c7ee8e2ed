// Loop threads for a test, and callbacks that are lambdas.
#ifndef TEST_SUPPORT_EVENT_LOOPS_H
#define TEST_SUPPORT_EVENT_LOOPS_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "ruxo/eventer.h"

// Loop threads while it lives. Declare it behind what the callbacks use.
class EventLoops {
 public:
  explicit EventLoops(unsigned threads = 1) {
    if (eventer_start(threads) != 0) throw std::runtime_error("the loops did not start");
  }
  ~EventLoops() { eventer_stop(); }
  EventLoops(const EventLoops &) = delete;
  EventLoops &operator=(const EventLoops &) = delete;
};

// A callback and its closure in one: eventer_alloc_fd(Handler::call, &handler, ...).
class Handler {
 public:
  using Work = std::function<int(eventer_t e, int mask, const struct timeval &now)>;
  explicit Handler(Work work) : work_(std::move(work)) {}
  Handler(const Handler &) = delete;
  Handler &operator=(const Handler &) = delete;
  static int call(eventer_t e, int mask, void *closure, struct timeval *now) {
    return static_cast<Handler *>(closure)->work_(e, mask, *now);
  }

 private:
  Work work_;
};

// Counts what happened; waits for it, for as long as the test may take.
class Happened {
 public:
  void once() {
    const std::lock_guard guard(lock_);
    ++count_;
    changed_.notify_one();  // behind the lock: who waits may be about to destroy this
  }
  void wait(int times = 1) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return count_ >= times; });
    count_ -= times;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  int count_ = 0;
};

// Does the work on that loop thread, and waits until it is done.
inline void on_loop(pthread_t owner, const std::function<void()> &work) {
  Happened done;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    work();
    done.once();
    return 0;
  });
  const struct timeval long_past {};
  const eventer_t e = eventer_alloc_timer(Handler::call, &handler, &long_past);
  eventer_set_owner(e, owner);
  if (eventer_add(e) != 0) throw std::runtime_error("the timer was not added");
  done.wait();
}

// What was posted to the loop before this has happened after it.
inline void let_loop_pass(pthread_t owner) {
  on_loop(owner, [] {});
  on_loop(owner, [] {});
}

#endif
