#include "ruxo/zipkin.h"

#include <sys/random.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"
#include "ruxo/util.h"
#include "ruxo/zipkin_private.h"

struct ruxo_zipkin_span {
  std::string name;
  uint64_t trace_id = 0;
  std::atomic<bool> logs_attached = false;  // changed under log_lock(), asked without
  // Guarded by log_lock(), so that a forked child finds them whole:
  int active_threads = 0;
  std::deque<std::string> annotations;  // a deque: texts handed out stay where they are
};

namespace {

uint64_t draw_trace_id() {
  uint64_t id = 0;
  while (id == 0) {
    // Without randomness the time has to do: an id only tells traces apart.
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = ruxo_now_ms();
  }
  return id;
}

// A thread that ends inside a span leaves it: the count of collecting threads must not stay up.
struct ActiveSpan {
  ruxo_zipkin_span *span = nullptr;
  ~ActiveSpan() { ruxo_zipkin_set_active_span(nullptr); }
};

thread_local ActiveSpan active;

void leave(ruxo_zipkin_span &span) {
  const std::lock_guard guard(ruxo::log_lock());
  --span.active_threads;
  if (span.logs_attached) ruxo::log_overrides_add(-1);
}

void enter(ruxo_zipkin_span &span) {
  const std::lock_guard guard(ruxo::log_lock());
  ++span.active_threads;
  if (span.logs_attached) ruxo::log_overrides_add(1);
}

}  // namespace

ruxo_zipkin_span *ruxo_zipkin_span_new(const char *name) {
  return ruxo::guarded<ruxo_zipkin_span *>(nullptr, [&] {
    auto span = std::make_unique<ruxo_zipkin_span>();
    span->name = name;
    span->trace_id = draw_trace_id();
    return span.release();
  });
}

void ruxo_zipkin_span_free(ruxo_zipkin_span *span) {
  delete span;
}

const char *ruxo_zipkin_span_name(const ruxo_zipkin_span *span) {
  return span->name.c_str();
}

uint64_t ruxo_zipkin_span_trace_id(const ruxo_zipkin_span *span) {
  return span->trace_id;
}

ruxo_zipkin_span *ruxo_zipkin_active_span(void) {
  return active.span;
}

ruxo_zipkin_span *ruxo_zipkin_set_active_span(ruxo_zipkin_span *span) {
  ruxo_zipkin_span *const old = active.span;
  if (old == span) return old;
  active.span = span;
  if (span != nullptr) enter(*span);
  if (old != nullptr) leave(*old);
  return old;
}

void ruxo_zipkin_span_attach_logs(ruxo_zipkin_span *span, ruxo_boolean attach) {
  const std::lock_guard guard(ruxo::log_lock());
  if (span->logs_attached == attach) return;
  span->logs_attached = attach;
  ruxo::log_overrides_add(attach ? span->active_threads : -span->active_threads);
}

ruxo_boolean ruxo_zipkin_span_logs_attached(const ruxo_zipkin_span *span) {
  return span->logs_attached.load(std::memory_order_relaxed);
}

size_t ruxo_zipkin_span_annotation_count(const ruxo_zipkin_span *span) {
  const std::lock_guard guard(ruxo::log_lock());
  return span->annotations.size();
}

const char *ruxo_zipkin_span_annotation(const ruxo_zipkin_span *span, size_t index) {
  const std::lock_guard guard(ruxo::log_lock());
  return index < span->annotations.size() ? span->annotations[index].c_str() : nullptr;
}

void ruxo::annotate_active_span(const std::string &message) {
  ruxo_zipkin_span *const span = active.span;
  if (span != nullptr && span->logs_attached) span->annotations.push_back(message);
}
