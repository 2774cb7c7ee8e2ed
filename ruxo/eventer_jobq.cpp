// Job queues and their workers.
//
// The workers are threads of our own rather than the input/output library's pool: that begins all its threads at once,
// cannot tell what waits, and drops instead of cancelling what it has not begun.
#include <pthread.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <thread>

#include "ruxo/eventer_private.h"
#include "ruxo/guard_private.h"

struct ruxo_jobq {
 public:
  ruxo_jobq(const char *its_name, unsigned threads) : name(its_name), max_workers_(threads) {}

  void add(eventer_t job);
  // Returns when what it had begun or was keeping is over; with `late_ones` also what was added to it closed, which
  // may go on for as long as somebody adds.
  void close(bool late_ones);
  void open();
  // In a forked child: jobs and workers are the parent's.
  void start_over();
  size_t backlog() const;
  size_t inflight() const;
  void over(eventer_t job) noexcept;

  const std::string name;

 private:
  struct State {
    std::mutex lock;
    std::condition_variable filled;  // for the workers
    std::condition_variable quiet;   // nothing is in flight, or nothing late
    eventer_t first = nullptr;       // the jobs that wait, linked
    eventer_t last = nullptr;
    size_t backlog = 0;
    size_t inflight = 0;  // taken by a worker or cancelled by closing, and not over
    size_t late = 0;      // added to the closed queue, and not over
    size_t idle = 0;      // workers that wait, or are about to
    std::vector<pthread_t> workers;
    bool closed = false;
    State *parents = nullptr;  // what a forked child leaves alone
  };

  static void *run_worker(void *queue);
  void serve();
  bool work(ruxo_event &job) noexcept;
  void append(eventer_t job);
  eventer_t pop();
  eventer_t take_all();
  bool ensure_worker();

  const unsigned max_workers_;
  std::unique_ptr<State> state_ = std::make_unique<State>();
};

namespace {

constexpr unsigned kMaxWorkers = 1024;
constexpr const char *kDefaultQueue = "default";

thread_local bool on_worker = false;

using SharedQueue = std::shared_ptr<ruxo_jobq>;

struct Queues {
  std::mutex lock;  // held across a fork
  std::map<std::string, SharedQueue, std::less<>> by_name;
};

// Never destroyed, so that threads which outlive main() can still ask.
Queues &queues() {
  static Queues *const instance = new Queues;
  return *instance;
}

std::vector<SharedQueue> all_queues() {
  const std::lock_guard guard(queues().lock);
  std::vector<SharedQueue> all;
  for (const auto &[name, queue] : queues().by_name) all.push_back(queue);
  return all;
}

void call(ruxo_event &job, int phase) noexcept {
  struct timeval now = ruxo::time_of_day();
  job.function(&job, phase, job.closure, &now);
}

// COMPLETE or CANCEL, on the owner where it runs.
void call_last(ruxo_event &job, uint64_t, int phase) noexcept {
  call(job, phase);
  job.queue->over(&job);
}

// `loop` is the owner's; null: here.
void call_on(ruxo::Loop *loop, ruxo_event &job, int phase) noexcept {
  if (loop != nullptr) job.owner = loop->thread();
  if (loop == nullptr || !loop->post(ruxo::EventRef(&job), call_last, 0, phase)) call_last(job, 0, phase);
}

void cancel(ruxo_event &job) noexcept {
  call_on(ruxo::registry().loop_for(job.owner).get(), job, EVENTER_ASYNCH_CANCEL);
}

ruxo_jobq *default_queue() {
  Queues &known = queues();
  const std::lock_guard guard(known.lock);
  SharedQueue &queue = known.by_name[kDefaultQueue];
  if (queue == nullptr) {
    const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
    queue = std::make_shared<ruxo_jobq>(kDefaultQueue, std::min(processors, kMaxWorkers));
  }
  return queue.get();
}

ruxo_jobq *create(const char *name, unsigned threads) {
  if (threads == 0 || threads > kMaxWorkers) return nullptr;
  auto queue = std::make_shared<ruxo_jobq>(name, threads);
  Queues &known = queues();
  const std::lock_guard guard(known.lock);
  return known.by_name.try_emplace(name, queue).second ? queue.get() : nullptr;
}

// Out of the list; null when it was not in there.
SharedQueue remove(const ruxo_jobq *queue) {
  Queues &known = queues();
  const std::lock_guard guard(known.lock);
  const auto entry = known.by_name.find(queue->name);
  if (entry == known.by_name.end() || entry->second.get() != queue) return nullptr;
  SharedQueue removed = std::move(entry->second);
  known.by_name.erase(entry);
  return removed;
}

}  // namespace

// ---- Jobs that wait; behind the lock ----

void ruxo_jobq::append(eventer_t job) {
  job->next = nullptr;
  (state_->last == nullptr ? state_->first : state_->last->next) = job;
  state_->last = job;
  ++state_->backlog;
}

eventer_t ruxo_jobq::pop() {
  const eventer_t job = state_->first;
  state_->first = job->next;
  if (state_->first == nullptr) state_->last = nullptr;
  --state_->backlog;
  ++state_->inflight;
  return job;
}

eventer_t ruxo_jobq::take_all() {
  const eventer_t jobs = state_->first;
  state_->first = state_->last = nullptr;
  state_->inflight += state_->backlog;
  state_->backlog = 0;
  return jobs;
}

// A further worker, when those that wait have enough to do. False when there is none at all.
bool ruxo_jobq::ensure_worker() {
  if (state_->backlog <= state_->idle || state_->workers.size() >= max_workers_) return true;
  state_->workers.reserve(max_workers_);
  pthread_t worker;
  if (ruxo::start_thread(&worker, run_worker, this)) state_->workers.push_back(worker);
  return !state_->workers.empty();
}

// ---- Workers ----

void *ruxo_jobq::run_worker(void *queue) {
  on_worker = true;
  auto *const self = static_cast<ruxo_jobq *>(queue);
  pthread_setname_np(pthread_self(), self->name.substr(0, 15).c_str());
  self->serve();
  return nullptr;
}

void ruxo_jobq::serve() {
  std::unique_lock guard(state_->lock);
  bool counted = false;
  for (;;) {
    if (!counted) ++state_->idle;
    state_->filled.wait(guard, [this] { return state_->first != nullptr || state_->closed; });
    --state_->idle;
    if (state_->first == nullptr) return;
    const eventer_t job = pop();
    guard.unlock();
    counted = work(*job);
    guard.lock();
  }
}

// Whether the worker was counted as idle. It is before the completion can run: where that hands over the next job, this
// worker does it, and no other is started or woken.
bool ruxo_jobq::work(ruxo_event &job) noexcept {
  call(job, EVENTER_ASYNCH_WORK);
  if (job.mask == 0) {
    over(&job);
    return false;
  }
  const std::shared_ptr<ruxo::Loop> loop = ruxo::registry().loop_for(job.owner);
  if (loop != nullptr) {
    const std::lock_guard guard(state_->lock);
    ++state_->idle;
  }
  call_on(loop.get(), job, EVENTER_ASYNCH_COMPLETE);
  return loop != nullptr;
}

void ruxo_jobq::over(eventer_t job) noexcept {
  const bool late = job->late;
  job->release();
  const std::lock_guard guard(state_->lock);
  if (--(late ? state_->late : state_->inflight) == 0) state_->quiet.notify_all();
}

// ---- The queue ----

void ruxo_jobq::add(eventer_t job) {
  job->queue = this;
  std::unique_lock guard(state_->lock);
  if (!state_->closed) {
    append(job);
    if (ruxo::or_fatal("no memory for a worker", [this] { return ensure_worker(); })) {
      state_->filled.notify_one();
      return;
    }
    take_all();  // that is this one: without workers, none is kept
  } else {
    job->late = true;
    ++state_->late;
  }
  guard.unlock();
  cancel(*job);
}

void ruxo_jobq::close(bool late_ones) {
  std::unique_lock guard(state_->lock);
  state_->closed = true;
  eventer_t job = take_all();
  state_->filled.notify_all();
  guard.unlock();
  while (job != nullptr) {
    const eventer_t next = job->next;
    cancel(*job);
    job = next;
  }
  guard.lock();
  state_->quiet.wait(guard, [&] { return state_->inflight == 0 && (state_->late == 0 || !late_ones); });
  std::vector<pthread_t> workers;
  workers.swap(state_->workers);
  guard.unlock();
  for (const pthread_t worker : workers) pthread_join(worker, nullptr);
}

void ruxo_jobq::open() {
  const std::lock_guard guard(state_->lock);
  state_->closed = false;
}

void ruxo_jobq::start_over() {
  auto fresh = std::make_unique<State>();
  fresh->parents = state_.release();
  state_ = std::move(fresh);
}

size_t ruxo_jobq::backlog() const {
  const std::lock_guard guard(state_->lock);
  return state_->backlog;
}

size_t ruxo_jobq::inflight() const {
  const std::lock_guard guard(state_->lock);
  return state_->inflight + state_->late;
}

bool ruxo::is_worker_thread() noexcept {
  return on_worker;
}

std::mutex &ruxo::queues_lock() {
  return queues().lock;
}

void ruxo::queues_in_child() {
  on_worker = false;
  for (const auto &[name, queue] : queues().by_name) {
    or_fatal("no memory for a forked child", [&queue = queue] { queue->start_over(); });
  }
}

void ruxo::close_all_queues() {
  for (const SharedQueue &queue : all_queues()) queue->close(false);
}

void ruxo::open_all_queues() {
  for (const SharedQueue &queue : all_queues()) queue->open();
}

eventer_jobq_t *eventer_jobq_create(const char *name, unsigned threads) {
  return ruxo::guarded<eventer_jobq_t *>(nullptr, [&] { return create(name, threads); });
}

eventer_jobq_t *eventer_jobq_by_name(const char *name) {
  Queues &known = queues();
  const std::lock_guard guard(known.lock);
  const auto entry = known.by_name.find(std::string_view(name));
  return entry == known.by_name.end() ? nullptr : entry->second.get();
}

void eventer_add_asynch(eventer_jobq_t *queue, eventer_t e) {
  if (queue == nullptr) queue = ruxo::or_fatal("no memory for the default queue", default_queue);
  queue->add(e);
}

size_t eventer_jobq_backlog(const eventer_jobq_t *queue) {
  return queue->backlog();
}

size_t eventer_jobq_inflight(const eventer_jobq_t *queue) {
  return queue->inflight();
}

void eventer_jobq_destroy(eventer_jobq_t *queue) {
  if (queue == nullptr) return;
  if (ruxo::Loop::current() != nullptr || ruxo::is_worker_thread()) {
    ruxo::eventer_fatal("a job queue is destroyed from a loop or worker thread");
  }
  const SharedQueue removed = remove(queue);
  if (removed != nullptr) removed->close(true);
}
