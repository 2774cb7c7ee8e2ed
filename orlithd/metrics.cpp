#include "orlithd/metrics.h"

#include <array>
#include <cstdlib>
#include <limits>
#include <string>

#include "orlithd/handlers.h"
#include "ruxo/stats.h"

namespace {

// By the status's first digit. Set before the first request.
std::array<stats_handle_t *, 6> answers{};
stats_handle_t *answer_bytes = nullptr;
stats_handle_t *answer_time = nullptr;

double uptime_s(void *closure) {
  const Node *const node = static_cast<const Node *>(closure);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - node->start).count();
}

double free_bytes(void *closure) {
  int error = 0;
  const uint64_t bytes = static_cast<const Node *>(closure)->data.free_bytes(&error);
  return error == 0 ? static_cast<double>(bytes) : std::numeric_limits<double>::quiet_NaN();
}

double waiting_jobs(void *closure) {
  return static_cast<double>(eventer_jobq_backlog(static_cast<const Node *>(closure)->jobs));
}

double waiting_peers(void *closure) {
  return static_cast<double>(eventer_jobq_backlog(static_cast<const Node *>(closure)->peers));
}

}  // namespace

void register_metrics(Node *node) {
  stats_ns_t *const ns = stats_ns_get(nullptr, "orlithd");
  for (size_t digit = 2; digit < answers.size(); ++digit) {
    const std::string label = "status=" + std::to_string(digit) + "xx";
    answers[digit] = stats_register(ns, "answers", label.c_str(), STATS_TYPE_COUNTER, "Requests answered.");
  }
  answer_bytes =
      stats_register(ns, "answer_bytes", nullptr, STATS_TYPE_COUNTER, "Bytes of the bodies of answers.");
  answer_time =
      stats_register(ns, "answer", nullptr, STATS_TYPE_LATENCY, "From reading a request to its answer.");
  stats_register_callback(ns, "uptime_seconds", nullptr, uptime_s, node, "Since the node started.");
  stats_register_callback(ns, "free_bytes", nullptr, free_bytes, node, "Room for uploads.");
  stats_register_callback(ns, "waiting_jobs", "queue=disk", waiting_jobs, node,
                          "Jobs that wait for a worker.");
  stats_register_callback(ns, "waiting_jobs", "queue=peers", waiting_peers, node,
                          "Jobs that wait for a worker.");
}

void count_answer(int status, size_t body_bytes, double seconds) noexcept {
  const size_t digit = static_cast<size_t>(status) / 100;
  if (digit < answers.size()) stats_add(answers[digit], 1);
  stats_add(answer_bytes, body_bytes);
  stats_observe(answer_time, seconds);
}

void get_metrics(Node &, Exchange &exchange) {
  size_t len = 0;
  char *const text = stats_prometheus_text(&len);
  if (text == nullptr) return exchange.error(503, "out of memory");
  exchange.text(200, "text/plain; version=0.0.4; charset=utf-8", {text, len});
  free(text);
}
