// Events: making them, adding them, taking them out, calling them.
#include "ruxo/eventer.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "ruxo/eventer_private.h"

using ruxo::EventKind;
using ruxo::EventRef;
using ruxo::kDescriptorBits;

namespace {

constexpr const char *kNoMemoryToWait = "no memory to wait for an event";

pthread_t current_loop_thread() noexcept {
  return ruxo::Loop::current() == nullptr ? pthread_t{} : pthread_self();
}

bool is_own_thread(const ruxo_event &e) noexcept {
  return e.loop != nullptr && ruxo::Loop::current() == e.loop.get();
}

// ---- Registering. All of these hold the event's lock. ----

// Waits for what the mask asks for and is not waited for yet.
void arm(ruxo_event &e) {
  if (e.waiter == nullptr) return;
  const int missing = e.mask & kDescriptorBits & ~e.waiting;
  if (missing == 0) return;
  e.waiting |= missing;
  e.waiter->wait(e, missing);
}

// The event is nobody's from here on: it must be given to someone or released.
void unregister(ruxo_event &e) noexcept {
  e.registration = 0;
  e.running = false;
  e.waiting = 0;
  e.woken = 0;
  e.waiter.reset();
  e.loop.reset();
  ruxo::registry().erase(e);
  if (e.takers > 0) e.idle.notify_all();
  e.takers = 0;
}

// False, with the reason in errno.
bool attach(ruxo_event &e) {
  e.loop = ruxo::registry().loop_for(e.owner);
  if (e.loop == nullptr) return true;
  e.owner = e.loop->thread();
  e.waiter = e.loop->watch(e);
  if (e.waiter == nullptr) return false;
  if (e.kind == EventKind::timer) {
    e.waiter->wait(e, EVENTER_TIMER);
  } else {
    arm(e);
  }
  return true;
}

// Descriptors of other kinds than these may be ones that are always ready, which the system refuses to watch.
bool can_always_be_watched(mode_t mode) noexcept {
  return S_ISSOCK(mode) || S_ISFIFO(mode);
}

// False, with the reason in errno.
bool is_watchable(int fd) noexcept {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  if (can_always_be_watched(status.st_mode)) return true;
  const int trial = epoll_create1(EPOLL_CLOEXEC);
  if (trial < 0) return false;
  epoll_event nothing{};
  const bool watchable = epoll_ctl(trial, EPOLL_CTL_ADD, fd, &nothing) == 0;
  const int reason = errno;
  close(trial);
  errno = reason;
  return watchable;
}

bool waits_for_something(const ruxo_event &e) noexcept {
  if (e.kind == EventKind::timer) return true;
  if (e.kind == EventKind::descriptor && (e.mask & kDescriptorBits) != 0) return true;
  errno = EINVAL;
  return false;
}

bool insert(ruxo_event &e) {
  if (e.registration == 0 && ruxo::registry().insert(e)) return true;
  errno = EEXIST;
  return false;
}

bool add(ruxo_event &e) {
  if (!waits_for_something(e)) return false;
  if (e.kind == EventKind::descriptor && !is_watchable(e.fd)) return false;
  if (!insert(e)) return false;
  e.registration = ++e.registrations;
  int reason = ENOMEM;
  try {
    if (attach(e)) return true;
    reason = errno;
  } catch (...) {
  }
  unregister(e);
  errno = reason;
  return false;
}

// The event, out of the loop; null when it is not registered.
eventer_t take(const EventRef &found) noexcept {
  if (!found) return nullptr;
  ruxo_event &e = *found;
  std::unique_lock guard(e.lock);
  const uint64_t registration = e.registration;
  if (registration == 0) return nullptr;
  if (e.running && !is_own_thread(e)) {
    ++e.takers;
    e.idle.wait(guard, [&] { return !e.running || e.registration != registration; });
    if (e.registration != registration) return nullptr;
  }
  unregister(e);
  return &e;
}

// ---- Calling. On the loop's thread. ----

// Of the bits that are wanted, those that are ready now. All, when the descriptor failed and EXCEPTION is not wanted.
int poll_descriptor(int fd, int wanted) noexcept {
  pollfd question{fd, 0, 0};
  if ((wanted & EVENTER_READ) != 0) question.events |= POLLIN;
  if ((wanted & EVENTER_WRITE) != 0) question.events |= POLLOUT;
  if ((wanted & EVENTER_EXCEPTION) != 0) question.events |= POLLPRI;
  int count;
  do {
    count = poll(&question, 1, 0);
  } while (count < 0 && errno == EINTR);
  const bool failed = count < 0 || (question.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  if (failed && (wanted & EVENTER_EXCEPTION) == 0) return wanted;
  int ready = failed ? EVENTER_EXCEPTION : 0;
  if ((question.revents & POLLIN) != 0) ready |= EVENTER_READ;
  if ((question.revents & POLLOUT) != 0) ready |= EVENTER_WRITE;
  if ((question.revents & POLLPRI) != 0) ready |= EVENTER_EXCEPTION;
  return ready & wanted;
}

// What the callback is to be told, now that a wait for `bit` has ended. Several bits are told of in one call, so that
// a callback sees what there is to be read before, and not after, that the peer is gone.
int what_happened(const ruxo_event &e, int bit) noexcept {
  if (e.kind == EventKind::timer) return EVENTER_TIMER;
  const int wanted = e.mask & kDescriptorBits;
  if ((wanted & bit) == 0) return 0;  // it was, when the wait began
  return wanted == bit ? bit : poll_descriptor(e.fd, wanted);
}

// What follows from the callback's answer.
void after_call(ruxo_event &e, int next) {
  e.running = false;
  if (next == 0 || e.kind == EventKind::timer) {
    unregister(e);
    e.release();  // what the registry held; the caller has a share of its own
    return;
  }
  if (!e.updated) e.mask = next;
  if (e.takers > 0) {
    e.idle.notify_all();
  } else {
    arm(e);
  }
}

void call(ruxo_event &e, std::unique_lock<std::mutex> &guard, int mask) {
  const uint64_t registration = e.registration;
  e.running = true;
  e.updated = false;
  guard.unlock();
  struct timeval now = ruxo::time_of_day();
  const int next = e.function(&e, mask, e.closure, &now);
  guard.lock();
  if (e.registration == registration) after_call(e, next);
}

void on_wakeup(ruxo_event &e, uint64_t registration, int mask) noexcept {
  std::unique_lock guard(e.lock);
  if (e.registration != registration || e.takers > 0) return;
  ruxo::or_fatal(kNoMemoryToWait, [&] { call(e, guard, mask); });
}

void post_wakeup(ruxo_event &e, int mask) noexcept {
  e.loop->post(EventRef(&e), on_wakeup, e.registration, mask);
}

eventer_t new_event(EventKind kind, eventer_func_t function, void *closure) noexcept {
  return new (std::nothrow) ruxo_event(kind, function, closure);
}

// The wall-clock time after a delay, at most the end of time.
struct timeval time_in(unsigned long seconds, unsigned long microseconds) noexcept {
  constexpr unsigned long kMicrosecondsPerSecond = 1000000;
  struct timeval when = ruxo::time_of_day();
  const unsigned long fraction =
      static_cast<unsigned long>(when.tv_usec) + microseconds % kMicrosecondsPerSecond;
  const unsigned long carried = microseconds / kMicrosecondsPerSecond + fraction / kMicrosecondsPerSecond;
  if (__builtin_add_overflow(when.tv_sec, seconds, &when.tv_sec) ||
      __builtin_add_overflow(when.tv_sec, carried, &when.tv_sec)) {
    when.tv_sec = std::numeric_limits<time_t>::max();
  }
  when.tv_usec = static_cast<suseconds_t>(fraction % kMicrosecondsPerSecond);
  return when;
}

}  // namespace

ruxo_event::ruxo_event(EventKind its_kind, eventer_func_t its_function, void *its_closure) noexcept
    : kind(its_kind), function(its_function), closure(its_closure), owner(current_loop_thread()) {}

void ruxo_event::release() noexcept {
#ifndef __clang_analyzer__  // which does not count, and takes every release for the last
  if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
#endif
}

void ruxo::on_wait_ended(ruxo_event &e, uint64_t registration, int bit) noexcept {
  std::unique_lock guard(e.lock);
  if (e.registration != registration) return;
  e.waiting &= ~bit;
  if (e.takers > 0) return;
  or_fatal(kNoMemoryToWait, [&] {
    const int mask = what_happened(e, bit);
    if (mask == 0) return arm(e);
    call(e, guard, mask);
  });
}

void ruxo::attach_waiting(ruxo_event &e) noexcept {
  const std::lock_guard guard(e.lock);
  if (e.registration == 0 || e.loop != nullptr) return;
  const bool attached = or_fatal(kNoMemoryToWait, [&] { return attach(e); });
  if (e.loop == nullptr) return;
  const int woken = std::exchange(e.woken, 0) | (attached ? 0 : EVENTER_EXCEPTION);
  if (woken != 0) post_wakeup(e, woken);
}

void ruxo::abandon(ruxo_event &e) noexcept {
  const std::lock_guard guard(e.lock);
  if (e.registration == 0) return;
  unregister(e);
  e.release();
}

eventer_t eventer_alloc(void) {
  return new_event(EventKind::plain, nullptr, nullptr);
}

eventer_t eventer_alloc_fd(eventer_func_t function, void *closure, int fd, int mask) {
  const eventer_t e = new_event(EventKind::descriptor, function, closure);
  if (e == nullptr) return nullptr;
  e->fd = fd;
  e->mask = mask;
  return e;
}

eventer_t eventer_alloc_timer(eventer_func_t function, void *closure, const struct timeval *when) {
  const eventer_t e = new_event(EventKind::timer, function, closure);
  if (e == nullptr) return nullptr;
  e->when = *when;
  e->mask = EVENTER_TIMER;
  return e;
}

eventer_t eventer_alloc_asynch(eventer_func_t function, void *closure) {
  const eventer_t e = new_event(EventKind::job, function, closure);
  if (e != nullptr) e->mask = EVENTER_ASYNCH_WORK | EVENTER_ASYNCH_COMPLETE;
  return e;
}

void eventer_free(eventer_t e) {
  if (e == nullptr) return;
  {
    const std::lock_guard guard(e->lock);
    if (e->registration != 0) ruxo::eventer_fatal("an event is freed that is registered");
  }
  e->release();
}

int eventer_add(eventer_t e) {
  const EventRef keep(e);  // the callback may end the event before this returns
  const std::lock_guard guard(e->lock);
  try {
    return add(*e) ? 0 : -1;
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

eventer_t eventer_add_in_s_us(eventer_func_t function, void *closure, unsigned long seconds,
                              unsigned long microseconds) {
  const struct timeval when = time_in(seconds, microseconds);
  const eventer_t e = eventer_alloc_timer(function, closure, &when);
  if (e == nullptr || eventer_add(e) == 0) return e;
  eventer_free(e);
  return nullptr;
}

eventer_t eventer_remove_fd(int fd) {
  return take(ruxo::registry().find_fd(fd));
}

eventer_t eventer_remove_timer(eventer_t e) {
  return take(ruxo::registry().find_timer(e));
}

void eventer_update(eventer_t e, int mask) {
  const std::lock_guard guard(e->lock);
  e->mask = mask;
  if (e->registration == 0) return;
  e->updated = true;
  if (!e->running) ruxo::or_fatal(kNoMemoryToWait, [&] { arm(*e); });
}

void eventer_wakeup(eventer_t e, int mask) {
  const std::lock_guard guard(e->lock);
  if (e->registration == 0) return;
  if (e->loop == nullptr) {
    e->woken |= mask;
  } else {
    post_wakeup(*e, mask);
  }
}

void eventer_set_mask(eventer_t e, int mask) {
  e->mask = mask;
}
int eventer_get_mask(eventer_t e) {
  return e->mask;
}
int eventer_get_fd(eventer_t e) {
  return e->fd;
}
void *eventer_get_closure(eventer_t e) {
  return e->closure;
}
struct timeval eventer_get_when(eventer_t e) {
  return e->when;
}
void eventer_set_owner(eventer_t e, pthread_t owner) {
  e->owner = owner;
}
pthread_t eventer_get_owner(eventer_t e) {
  return e->owner;
}
ruxo_boolean eventer_is_owner(eventer_t e) {
  return ruxo::Loop::current() != nullptr && pthread_equal(e->owner, pthread_self()) != 0;
}
