// How the event loop is put together.
//
//   eventer.cpp         events: adding, taking out, calling them                  ruxo_event::lock
//   eventer_system.cpp  which events are registered, the loop threads' coming and going   Registry::lock
//   eventer_jobq.cpp    job queues and their workers
//   eventer_loop.cpp    one loop thread; the only file that sees the library which waits
//   eventer_names.cpp   names of callbacks
//
// An event is shared by its holder (the host, or, registered, the registry) and by what is under way for it in a loop:
// a wait, a wake-up. These name the registration they belong to, and come to nothing when that is over; so nobody has
// to find them when an event is taken out.
//
// Locks, taken in this order: an event's, the registry's, a loop's. A queue's is taken alone. No callback runs under
// any of them.
#ifndef RUXO_EVENTER_PRIVATE_H
#define RUXO_EVENTER_PRIVATE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ruxo/eventer.h"

namespace ruxo {

class Loop;
class Waiter;

inline constexpr int kDescriptorBits = EVENTER_READ | EVENTER_WRITE | EVENTER_EXCEPTION;

enum class EventKind { plain, descriptor, timer, job };

}  // namespace ruxo

struct ruxo_event {
  ruxo_event(ruxo::EventKind its_kind, eventer_func_t its_function, void *its_closure) noexcept;

  void refer() noexcept { references.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept;

  const ruxo::EventKind kind;
  const eventer_func_t function;
  void *const closure;
  int fd = -1;             // fixed once made
  struct timeval when {};  // the same
  std::atomic<int> mask = 0;
  std::atomic<pthread_t> owner;  // 0: none yet
  std::atomic<unsigned> references = 1;

  // Guarded by `lock`:
  std::mutex lock;
  uint64_t registration = 0;         // its number, from 1; 0: not registered
  uint64_t registrations = 0;        // how many there have been
  std::shared_ptr<ruxo::Loop> loop;  // null while eventer_start() is awaited
  std::unique_ptr<ruxo::Waiter> waiter;
  int waiting = 0;       // bits whose wait is under way
  int woken = 0;         // wake-ups that await eventer_start()
  bool running = false;  // inside the callback, for this registration
  bool updated = false;  // the mask was changed meanwhile
  unsigned takers = 0;   // threads that wait for `running` to end; one of them takes the event out
  std::condition_variable idle;

  // Of a job. The first is guarded by the queue's lock.
  ruxo_event *next = nullptr;
  ruxo_jobq *queue = nullptr;
  bool late = false;  // added to the closed queue
};

namespace ruxo {

// A share in an event.
class EventRef {
 public:
  EventRef() = default;
  explicit EventRef(ruxo_event *event) noexcept : event_(event) {
    if (event != nullptr) event->refer();
  }
  EventRef(const EventRef &other) noexcept : EventRef(other.event_) {}
  EventRef(EventRef &&other) noexcept : event_(std::exchange(other.event_, nullptr)) {}
  EventRef &operator=(EventRef other) noexcept {
    std::swap(event_, other.event_);
    return *this;
  }
  ~EventRef() {
    if (event_ != nullptr) event_->release();
  }
  explicit operator bool() const { return event_ != nullptr; }
  ruxo_event *operator->() const { return event_; }
  ruxo_event &operator*() const { return *event_; }
  ruxo_event *get() const { return event_; }

 private:
  ruxo_event *event_ = nullptr;
};

// What a loop does for an event: `argument` is a bit, a mask or a phase.
using LoopCall = void (*)(ruxo_event &event, uint64_t registration, int argument) noexcept;

// What waits for an event. Destroying it ends that.
class Waiter {
 public:
  virtual ~Waiter() = default;
  // Begins to wait for each of the bits (a timer: for its time); holds the event's lock. Throws without memory.
  virtual void wait(ruxo_event &event, int bits) = 0;
};

// One loop thread, and what it waits for.
class Loop {
 public:
  // Throws when there is no memory or no descriptor for it.
  Loop();
  ~Loop();
  Loop(const Loop &) = delete;
  Loop &operator=(const Loop &) = delete;

  // False when there is no thread to be had.
  bool start(unsigned index);
  // Ends the thread, behind the callback that it runs; waits for its end.
  void stop();
  void join();
  // Does on the calling thread what was posted and not done, and refuses to be posted anything from then on.
  void close_and_do_the_rest();

  pthread_t thread() const { return thread_; }
  // The one whose thread this is; null for other threads.
  static Loop *current() noexcept;
  static void forget_current() noexcept;  // in a forked child

  // False, when the loop was closed.
  bool post(const EventRef &event, LoopCall call, uint64_t registration, int argument) noexcept;
  // Null, with the reason in errno, when the descriptor cannot be watched. Throws without memory.
  std::unique_ptr<Waiter> watch(ruxo_event &event);

 private:
  struct Context;
  static void *run(void *loop);

  std::unique_ptr<Context> context_;
  std::mutex lock_;  // guards `closed_` against those who post
  bool closed_ = false;
  pthread_t thread_{};
  unsigned index_ = 0;
};

// The loop threads, and the events that are registered.
class Registry {
 public:
  // The loop of that thread; another in turn when it has none; null when there is none at all.
  std::shared_ptr<Loop> loop_for(pthread_t owner);
  size_t loop_count();
  pthread_t thread_at(unsigned index);

  // False when the descriptor has an event. Throws without memory.
  bool insert(ruxo_event &event);
  void erase(ruxo_event &event);
  EventRef find_fd(int fd);
  EventRef find_timer(ruxo_event *event);
  std::vector<EventRef> all();

  // Gives the loops that were there.
  std::vector<std::shared_ptr<Loop>> replace_loops(std::vector<std::shared_ptr<Loop>> loops);

 private:
  std::mutex lock_;
  std::vector<std::shared_ptr<Loop>> loops_;
  unsigned turn_ = 0;
  std::vector<ruxo_event *> by_fd_;
  std::unordered_set<ruxo_event *> timers_;
};

Registry &registry();

// A wait for the bit has ended (a LoopCall).
void on_wait_ended(ruxo_event &event, uint64_t registration, int bit) noexcept;
// For a registered event without a loop: hands it to one, if there is one. Takes the event's lock.
void attach_waiting(ruxo_event &event) noexcept;
// Takes a registered event out and frees it, on behalf of eventer_stop().
void abandon(ruxo_event &event) noexcept;

// Closes every job queue and waits until all is over in them; opens them again; makes them a forked child's.
void close_all_queues();
void open_all_queues();
std::mutex &queues_lock();
void queues_in_child();
bool is_worker_thread() noexcept;

std::mutex &callback_names_lock();

// Starts a thread which the host's signals leave alone. False when there is none to be had.
bool start_thread(pthread_t *thread, void *(*work)(void *), void *argument) noexcept;

struct timeval time_of_day() noexcept;

[[noreturn]] void eventer_fatal(const char *text) noexcept;

// The result of `work`, which must not fail for memory.
template <class Work>
auto or_fatal(const char *text, Work &&work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (...) {
    eventer_fatal(text);
  }
}

}  // namespace ruxo

#endif
