// Which events are registered, and the loop threads' coming and going.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include "ruxo/eventer_private.h"
#include "ruxo/guard_private.h"
#include "ruxo/log.h"

namespace ruxo {

// ---- The registry ----

std::shared_ptr<Loop> Registry::loop_for(pthread_t owner) {
  const std::lock_guard guard(lock_);
  if (loops_.empty()) return nullptr;
  for (const std::shared_ptr<Loop> &loop : loops_) {
    if (pthread_equal(loop->thread(), owner) != 0) return loop;
  }
  return loops_[turn_++ % loops_.size()];
}

size_t Registry::loop_count() {
  const std::lock_guard guard(lock_);
  return loops_.size();
}

pthread_t Registry::thread_at(unsigned index) {
  const std::lock_guard guard(lock_);
  return loops_.empty() ? pthread_t{} : loops_[index % loops_.size()]->thread();
}

bool Registry::insert(ruxo_event &event) {
  const std::lock_guard guard(lock_);
  if (event.kind == EventKind::timer) return timers_.insert(&event).second;
  const auto index = static_cast<size_t>(event.fd);
  if (index >= by_fd_.size()) by_fd_.resize(index + 1);
  if (by_fd_[index] != nullptr) return false;
  by_fd_[index] = &event;
  return true;
}

void Registry::erase(ruxo_event &event) {
  const std::lock_guard guard(lock_);
  if (event.kind == EventKind::timer) {
    timers_.erase(&event);
  } else {
    by_fd_[static_cast<size_t>(event.fd)] = nullptr;
  }
}

EventRef Registry::find_fd(int fd) {
  const std::lock_guard guard(lock_);
  if (fd < 0 || static_cast<size_t>(fd) >= by_fd_.size()) return EventRef();
  return EventRef(by_fd_[static_cast<size_t>(fd)]);
}

EventRef Registry::find_timer(ruxo_event *event) {
  const std::lock_guard guard(lock_);
  return EventRef(timers_.count(event) == 0 ? nullptr : event);
}

std::vector<EventRef> Registry::all() {
  const std::lock_guard guard(lock_);
  std::vector<EventRef> events;
  for (ruxo_event *const event : by_fd_) {
    if (event != nullptr) events.emplace_back(event);
  }
  for (ruxo_event *const event : timers_) events.emplace_back(event);
  return events;
}

std::vector<std::shared_ptr<Loop>> Registry::replace_loops(std::vector<std::shared_ptr<Loop>> loops) {
  const std::lock_guard guard(lock_);
  loops_.swap(loops);
  return loops;
}

namespace {

constexpr unsigned kMaxThreads = 256;

// What a fork gives the child anew. Never destroyed, so that threads which outlive main() can still ask.
struct System {
  Registry registry;
  std::mutex lifecycle;  // held while starting and stopping
  System *parents;       // what the child leaves alone, kept so that leak checkers see it as kept
};

std::atomic<System *> current_system = nullptr;

System &eventer_system() {
  System *known = current_system.load(std::memory_order_acquire);
  if (known != nullptr) return *known;
  auto fresh = or_fatal("no memory for the event loop", [] { return std::make_unique<System>(); });
  if (current_system.compare_exchange_strong(known, fresh.get(), std::memory_order_acq_rel))
    return *fresh.release();
  return *known;
}

void before_fork() {
  callback_names_lock().lock();
  queues_lock().lock();
}

void in_parent() {
  queues_lock().unlock();
  callback_names_lock().unlock();
}

// The parent's loops wait on descriptors that both share: the child must not touch them.
void in_child() {
  System *const parents = current_system.load();
  if (parents != nullptr) {
    current_system = nullptr;
    eventer_system().parents = parents;
  }
  Loop::forget_current();
  queues_in_child();
  in_parent();
}

// As the library is loaded: no thread of ours can hold a lock before the handlers are in place.
__attribute__((constructor)) void install_handlers() {
  pthread_atfork(before_fork, in_parent, in_child);
}

using Loops = std::vector<std::shared_ptr<Loop>>;

void stop_threads(const Loops &loops) {
  for (const auto &loop : loops) loop->stop();
  for (const auto &loop : loops) loop->join();
}

// Empty when a thread could not be made.
Loops start_threads(unsigned count) {
  Loops loops;
  for (unsigned i = 0; i < count; ++i) loops.push_back(std::make_shared<Loop>());
  for (unsigned i = 0; i < count; ++i) {
    if (loops[i]->start(i)) continue;
    loops.resize(i);
    stop_threads(loops);
    return {};
  }
  return loops;
}

void ignore_broken_pipes() {
  struct sigaction now {};
  if (sigaction(SIGPIPE, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) signal(SIGPIPE, SIG_IGN);
}

int start(unsigned threads) {
  const std::lock_guard guard(eventer_system().lifecycle);
  if (threads == 0 || threads > kMaxThreads || registry().loop_count() > 0) return -1;
  Loops loops = start_threads(threads);
  if (loops.empty()) return -1;
  ignore_broken_pipes();
  registry().replace_loops(std::move(loops));
  or_fatal("no memory to start the event loop", [] {
    open_all_queues();
    for (const EventRef &event : registry().all()) attach_waiting(*event);
  });
  return 0;
}

void abandon_all() {
  for (const EventRef &event : registry().all()) abandon(*event);
}

// The queues first, while their completions have a loop to run on. What was posted behind a loop's end, which is the
// cancellation of jobs that a last callback added to a closed queue, is done here.
void stop() {
  const std::lock_guard guard(eventer_system().lifecycle);
  close_all_queues();
  const Loops loops = registry().replace_loops({});
  stop_threads(loops);
  abandon_all();
  for (const auto &loop : loops) loop->close_and_do_the_rest();
  abandon_all();
}

}  // namespace

Registry &registry() {
  return eventer_system().registry;
}

void eventer_fatal(const char *text) noexcept {
  ruxo_log_go_synch();
  ruxo_log(ruxo_error, "[FATAL] %s\n", text);
  abort();
}

struct timeval time_of_day() noexcept {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return now;
}

}  // namespace ruxo

int eventer_start(unsigned threads) {
  return ruxo::guarded(-1, [&] { return ruxo::start(threads); });
}

void eventer_stop(void) {
  if (ruxo::Loop::current() != nullptr || ruxo::is_worker_thread()) {
    ruxo::eventer_fatal("eventer_stop() was called from a loop or worker thread");
  }
  ruxo::or_fatal("no memory to stop the event loop", ruxo::stop);
}

unsigned eventer_loop_count(void) {
  return static_cast<unsigned>(ruxo::registry().loop_count());
}

pthread_t eventer_choose_owner(unsigned index) {
  return ruxo::registry().thread_at(index);
}
