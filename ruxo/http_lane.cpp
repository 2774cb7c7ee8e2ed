// What the connections of one loop thread share.
//
// Deadlines: every phase has one time-out, so its connections stand in a queue in the order in which they are due, and
// starting the time anew means going to the end of it. One timer waits for the first of the firsts; it is set earlier
// when something is due before it, and otherwise left to find out.
#include <time.h>

#include <algorithm>

#include "ruxo/http_private.h"

namespace ruxo::http {

namespace {

// How long a closing connection may take to see that, so that our last bytes are not lost with it.
constexpr uint64_t kLingerTimeoutMs = 2000;

uint64_t monotonic_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

struct Task {
  Lane &lane;
  void (*work)(Lane &lane);
};

}  // namespace

Lane::Lane(ruxo_http_server &its_server, pthread_t its_owner) : owner(its_owner), server(its_server) {}

uint64_t Lane::timeout_ms(Phase phase) const {
  const ruxo_http_limits_t &limits = server.limits;
  switch (phase) {
    case Phase::handshake:
    case Phase::head:
      return limits.header_timeout_ms;
    case Phase::idle:
      return limits.idle_timeout_ms;
    case Phase::body:
      return limits.body_timeout_ms;
    case Phase::write:
      return limits.write_timeout_ms;
    case Phase::linger:
      return kLingerTimeoutMs;
    case Phase::none:
      break;
  }
  return 0;
}

void Lane::unlink(ruxo_http_connection &connection) {
  if (connection.phase == Phase::none) return;
  Queue &queue = queues_[static_cast<size_t>(connection.phase)];
  (connection.earlier == nullptr ? queue.first : connection.earlier->later) = connection.later;
  (connection.later == nullptr ? queue.last : connection.later->earlier) = connection.earlier;
  connection.earlier = connection.later = nullptr;
  connection.phase = Phase::none;
}

void Lane::arm(ruxo_http_connection &connection, Phase phase) {
  unlink(connection);
  const uint64_t timeout = timeout_ms(phase);
  if (timeout == 0) return;
  const uint64_t now = monotonic_ms();
  Queue &queue = queues_[static_cast<size_t>(phase)];
  connection.phase = phase;
  connection.deadline_ms = now + timeout;
  connection.earlier = queue.last;
  (queue.last == nullptr ? queue.first : queue.last->later) = &connection;
  queue.last = &connection;
  if (timer_ == nullptr || connection.deadline_ms < timer_at_ms_) set_timer(connection.deadline_ms, now);
}

void Lane::set_timer(uint64_t at_ms, uint64_t now_ms) {
  stop_timer();
  const uint64_t delay = at_ms > now_ms ? at_ms - now_ms : 0;
  timer_ = eventer_add_in_s_us(on_timer, this, delay / 1000, (delay % 1000) * 1000);
  timer_at_ms_ = at_ms;
}

void Lane::stop_timer() {
  if (timer_ == nullptr) return;
  eventer_free(eventer_remove_timer(timer_));
  timer_ = nullptr;
}

int Lane::on_timer(eventer_t, int, void *closure, struct timeval *) {
  Lane *const lane = static_cast<Lane *>(closure);
  lane->timer_ = nullptr;  // the loop frees it
  lane->expire();
  return 0;
}

void Lane::expire() {
  const uint64_t now = monotonic_ms();
  for (Queue &queue : queues_) {
    while (queue.first != nullptr && queue.first->deadline_ms <= now) queue.first->on_deadline();
  }
  uint64_t next = UINT64_MAX;
  for (const Queue &queue : queues_) {
    if (queue.first != nullptr) next = std::min(next, queue.first->deadline_ms);
  }
  if (next != UINT64_MAX && (timer_ == nullptr || next < timer_at_ms_)) set_timer(next, now);
}

// RFC 9110 section 5.6.7. The names are English whatever the locale.
const char *Lane::date() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (now.tv_sec == date_second_) return date_;
  static constexpr const char *kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  struct tm t;
  gmtime_r(&now.tv_sec, &t);
  snprintf(date_, sizeof date_, "%s, %02u %s %04u %02u:%02u:%02u GMT", kDays[t.tm_wday % 7],
           static_cast<unsigned>(t.tm_mday) % 100, kMonths[t.tm_mon % 12],
           static_cast<unsigned>(t.tm_year + 1900) % 10000, static_cast<unsigned>(t.tm_hour) % 100,
           static_cast<unsigned>(t.tm_min) % 100, static_cast<unsigned>(t.tm_sec) % 100);
  date_second_ = now.tv_sec;
  return date_;
}

void Lane::add(ruxo_http_connection *connection) {
  const std::lock_guard guard(lock_);
  connections_.insert(connection);
}

void Lane::remove(ruxo_http_connection *connection) {
  unlink(*connection);
  const std::lock_guard guard(lock_);
  connections_.erase(connection);
}

std::vector<ruxo_http_connection *> Lane::all() {
  const std::lock_guard guard(lock_);
  return {connections_.begin(), connections_.end()};
}

int Lane::on_task(eventer_t, int, void *closure, struct timeval *) {
  const std::unique_ptr<Task> task(static_cast<Task *>(closure));
  ruxo_http_server &server = task->lane.server;
  task->work(task->lane);
  server.task_done();
  return 0;
}

void Lane::post(void (*work)(Lane &lane)) {
  auto task = std::make_unique<Task>(Task{*this, work});
  const struct timeval at_once = {};
  const eventer_t e = eventer_alloc_timer(on_task, task.get(), &at_once);
  if (e == nullptr) throw std::bad_alloc();
  eventer_set_owner(e, owner);
  if (eventer_add(e) != 0) {
    eventer_free(e);
    throw std::bad_alloc();
  }
  task.release();  // the event's now
}

void Lane::stop_idle() {
  for (ruxo_http_connection *const connection : all()) connection->stop_if_idle();
}

void Lane::cut_all() {
  for (ruxo_http_connection *const connection : all()) cut_count += connection->cut() ? 1 : 0;
  stop_timer();
}

void Lane::abandon_all() {
  timer_ = nullptr;  // gone with the loop
  for (ruxo_http_connection *const connection : all()) cut_count += connection->abandon() ? 1 : 0;
}

}  // namespace ruxo::http
