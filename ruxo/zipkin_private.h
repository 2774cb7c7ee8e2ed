// What a span is made of, what logging asks of tracing, and what spans ask of their reporter.
#ifndef RUXO_ZIPKIN_PRIVATE_H
#define RUXO_ZIPKIN_PRIVATE_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ruxo/zipkin.h"

struct ruxo_zipkin_span {
  enum class Kind { local, client, server };
  struct Annotation {
    uint64_t time_us;  // since the Unix epoch
    std::string text;
  };

  std::string name;
  Kind kind = Kind::local;
  uint64_t trace_id_high = 0;  // 0: the trace has a number of 64 bits
  uint64_t trace_id = 0;
  uint64_t id = 0;
  uint64_t parent_id = 0;  // 0: the first of its trace
  bool sampled = false;
  bool shared = false;                      // the client's span has the same id
  std::atomic<bool> logs_attached = false;  // changed under log_lock(), asked without
  // Guarded by log_lock(), so that a forked child finds them whole:
  uint64_t begin_us = 0;         // since the Unix epoch
  uint64_t begin_steady_us = 0;  // the same moment on a clock that is never set
  uint64_t end_steady_us = 0;    // 0: goes on
  int active_threads = 0;
  std::deque<Annotation> annotations;  // a deque: texts handed out stay where they are
  std::vector<std::pair<std::string, std::string>> tags;
};

namespace ruxo {

// Keeps the message as an annotation of this thread's active span, if that collects logs. Under log_lock().
void annotate_active_span(const std::string &message);

// Queues a span for the collector, or drops and counts it. Waits for nothing but the queue's lock.
void report_span(std::unique_ptr<ruxo_zipkin_span> span) noexcept;

// Whether spans are made for requests, and the part of new traces (0 to 1) that is reported.
bool tracing_is_on() noexcept;
double tracing_sample_rate() noexcept;

}  // namespace ruxo

#endif
