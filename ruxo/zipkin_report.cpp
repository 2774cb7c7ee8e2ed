// How published spans reach their collector.
//
//   any thread: report_span() --> [queue, bounded] --> the reporter's thread: a batch as JSON, one POST
//
// The thread is started by the first span. Nothing but it waits for the collector: a full queue, and a batch that the
// collector did not take, are dropped and counted.
#include <curl/curl.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <new>
#include <string_view>

#include "ruxo/guard_private.h"
#include "ruxo/json.h"
#include "ruxo/log.h"
#include "ruxo/zipkin_private.h"

namespace {

using SpanPtr = std::unique_ptr<ruxo_zipkin_span>;
using Batch = std::vector<SpanPtr>;

constexpr size_t kMaxBatch = 100;
constexpr std::chrono::milliseconds kGathering{200};  // how long a batch waits to be filled
constexpr long kConnectTimeoutMs = 1000;
constexpr long kTimeoutMs = 5000;

// Threads: `lock` guards everything in it.
struct Reporter {
  std::mutex lock;
  std::condition_variable filled;   // for the reporter's thread
  std::condition_variable emptied;  // for those who flush
  std::deque<SpanPtr> queue;
  std::string url, service;
  size_t flushers = 0;
  bool thread_started = false;
  uint64_t accepted = 0, sent = 0, dropped = 0;  // accepted: entered the queue
  uint64_t finished = 0;                         // of those, sent or dropped
};

std::atomic<bool> tracing_on{false};
std::atomic<double> sample_rate{0.0};

// Never destroyed: spans may be published while the process ends.
Reporter &reporter() {
  static Reporter &instance = *new Reporter;
  return instance;
}

void before_fork() {
  reporter().lock.lock();
}
void in_parent() {
  reporter().lock.unlock();
}
// The parent's thread, and what it has queued, stay with the parent.
void in_child() {
  Reporter &r = reporter();
  r.queue.clear();
  r.thread_started = false;
  r.flushers = 0;
  r.finished = r.accepted;
  // Anew, because the parent's threads may be waiting on them.
  new (&r.filled) std::condition_variable;
  new (&r.emptied) std::condition_variable;
  r.lock.unlock();
}

// ---- JSON: Zipkin's version 2, doc/tracing.md ----

std::string hex(uint64_t id) {
  char text[17];
  snprintf(text, sizeof text, "%016" PRIx64, id);
  return text;
}

void add(ruxo_json_object *to, const char *key, ruxo_json_object *value) {
  if (value == nullptr || ruxo_json_object_set(to, key, value)) return;
  ruxo_json_free(value);  // only a key that is no UTF-8 is refused: the span goes without it
}

void add_text(ruxo_json_object *to, const char *key, const std::string &value) {
  add(to, key, ruxo_json_new_string_len(value.data(), value.size()));
}

ruxo_json_object *annotations_json(const ruxo_zipkin_span &span) {
  ruxo_json_object *const all = ruxo_json_new_array();
  for (const auto &annotation : span.annotations) {
    ruxo_json_object *const one = ruxo_json_new_object();
    add(one, "timestamp", ruxo_json_new_uint(annotation.time_us));
    add_text(one, "value", annotation.text);
    if (!ruxo_json_array_add(all, one)) ruxo_json_free(one);
  }
  return all;
}

ruxo_json_object *tags_json(const ruxo_zipkin_span &span) {
  ruxo_json_object *const all = ruxo_json_new_object();
  for (const auto &[key, value] : span.tags) add_text(all, key.c_str(), value);
  return all;
}

ruxo_json_object *span_json(const ruxo_zipkin_span &span, const std::string &service) {
  ruxo_json_object *const o = ruxo_json_new_object();
  add_text(o, "traceId", (span.trace_id_high == 0 ? "" : hex(span.trace_id_high)) + hex(span.trace_id));
  if (span.parent_id != 0) add_text(o, "parentId", hex(span.parent_id));
  add_text(o, "id", hex(span.id));
  add_text(o, "name", span.name);
  if (span.kind == ruxo_zipkin_span::Kind::client) add_text(o, "kind", "CLIENT");
  if (span.kind == ruxo_zipkin_span::Kind::server) add_text(o, "kind", "SERVER");
  add(o, "timestamp", ruxo_json_new_uint(span.begin_us));
  // At least 1: collectors take 0 for "not known".
  const uint64_t took_us =
      span.end_steady_us > span.begin_steady_us ? span.end_steady_us - span.begin_steady_us : 1;
  add(o, "duration", ruxo_json_new_uint(took_us));
  if (span.shared) add(o, "shared", ruxo_json_new_boolean(true));
  ruxo_json_object *const endpoint = ruxo_json_new_object();
  add_text(endpoint, "serviceName", service);
  add(o, "localEndpoint", endpoint);
  if (!span.annotations.empty()) add(o, "annotations", annotations_json(span));
  if (!span.tags.empty()) add(o, "tags", tags_json(span));
  return o;
}

std::string batch_json(const Batch &batch, const std::string &service) {
  std::string text = "[";
  for (const SpanPtr &span : batch) {
    ruxo_json_object *const o = span_json(*span, service);
    const char *const one = o == nullptr ? nullptr : ruxo_json_text(o);
    if (one != nullptr) text.append(text.size() > 1 ? "," : "").append(one);
    ruxo_json_free(o);
  }
  return text + "]";
}

// ---- Sending ----

size_t ignore_answer(char *, size_t size, size_t nmemb, void *) {
  return size * nmemb;
}

// One connection, kept between batches. Used by the reporter's thread only.
class Sender {
 public:
  Sender() : curl_(curl_easy_init()) {
    headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
    // Without a question whether the body is welcome, whose answer old servers keep one waiting for.
    if (curl_slist *const more = curl_slist_append(headers_, "Expect:"); more != nullptr) headers_ = more;
  }
  ~Sender() {
    curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
  }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  // An empty text when the collector took the batch, else what is wrong.
  std::string post(const std::string &url, const std::string &body) {
    if (curl_ == nullptr) return "no memory";
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, ignore_answer);
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, kTimeoutMs);
    const CURLcode code = curl_easy_perform(curl_);
    if (code != CURLE_OK) return curl_easy_strerror(code);
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    return status >= 200 && status < 300 ? std::string() : "status " + std::to_string(status);
  }

 private:
  CURL *curl_;
  curl_slist *headers_;
};

// Waits for spans, and a moment for more of them; `*url` and `*service` are where they go.
Batch take_batch(Reporter &r, std::string *url, std::string *service) {
  std::unique_lock guard(r.lock);
  r.filled.wait(guard, [&] { return !r.queue.empty(); });
  r.filled.wait_for(guard, kGathering, [&] { return r.queue.size() >= kMaxBatch || r.flushers > 0; });
  Batch batch;
  batch.reserve(kMaxBatch);
  *url = r.url;
  *service = r.service;
  while (!r.queue.empty() && batch.size() < kMaxBatch) {
    batch.push_back(std::move(r.queue.front()));
    r.queue.pop_front();
  }
  return batch;
}

void count_batch(Reporter &r, size_t spans, bool taken) {
  const std::lock_guard guard(r.lock);
  (taken ? r.sent : r.dropped) += spans;
  r.finished += spans;
  r.emptied.notify_all();
}

// Says so when the collector goes away, and when it is back; not for each batch between.
void tell_change(bool was_away, const std::string &url, size_t spans, const std::string &fault) {
  if (!fault.empty() && !was_away) {
    ruxo_log(ruxo_error, "tracing: %zu spans for %s dropped: %s\n", spans, url.c_str(), fault.c_str());
  }
  if (fault.empty() && was_away) ruxo_log(ruxo_notice, "tracing: %s takes spans again\n", url.c_str());
}

void *report_for_ever(void *) {
  Reporter &r = reporter();
  Sender sender;
  std::string away;  // the URL of a collector that did not take the last batch
  for (;;) {
    std::string url, service;
    size_t spans = 0;
    const std::string fault = ruxo::guarded(std::string("no memory"), [&] {
      const Batch batch = take_batch(r, &url, &service);
      spans = batch.size();
      return sender.post(url, batch_json(batch, service));
    });
    tell_change(!url.empty() && url == away, url, spans, fault);
    if (fault.empty()) url.clear();
    away.swap(url);
    count_batch(r, spans, fault.empty());
  }
  return nullptr;
}

// Holds r.lock.
bool ensure_thread(Reporter &r) {
  if (r.thread_started) return true;
  static const int handlers = pthread_atfork(before_fork, in_parent, in_child);
  pthread_attr_t attributes;
  if (handlers != 0 || pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // The host's signals are not for this thread.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_t thread;
  r.thread_started = pthread_create(&thread, &attributes, report_for_ever, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attributes);
  return r.thread_started;
}

bool is_web_url(std::string_view url) {
  return url.starts_with("http://") || url.starts_with("https://");
}

}  // namespace

bool ruxo::tracing_is_on() noexcept {
  return tracing_on.load(std::memory_order_relaxed);
}

double ruxo::tracing_sample_rate() noexcept {
  return sample_rate.load(std::memory_order_relaxed);
}

void ruxo::report_span(SpanPtr span) noexcept {
  Reporter &r = reporter();
  const std::lock_guard guard(r.lock);
  const bool queued = guarded(false, [&] {
    if (r.queue.size() >= RUXO_ZIPKIN_MAX_QUEUED || r.url.empty() || !ensure_thread(r)) return false;
    r.queue.push_back(std::move(span));
    return true;
  });
  if (!queued) {
    ++r.dropped;
    return;
  }
  ++r.accepted;
  // The thread needs to hear of the first span and of a full batch only.
  if (r.queue.size() == 1 || r.queue.size() == kMaxBatch) r.filled.notify_one();
}

ruxo_boolean ruxo_zipkin_report_to(const char *collector_url, const char *service_name, double rate) {
  if (collector_url == nullptr) {
    tracing_on = false;
    return true;
  }
  if (!is_web_url(collector_url) || !(rate >= 0.0 && rate <= 1.0)) return false;
  return ruxo::guarded(false, [&] {
    // Here, and not in the reporter's thread when it makes its first request: a child that was forked meanwhile would
    // find the library's lock taken, and nobody to let it go.
    static const CURLcode library = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (library != CURLE_OK) return false;
    std::string url = collector_url, service = service_name == nullptr ? "" : service_name;
    Reporter &r = reporter();
    {
      const std::lock_guard guard(r.lock);
      r.url.swap(url);
      r.service.swap(service);
    }
    sample_rate = rate;
    tracing_on = true;
    return true;
  });
}

ruxo_boolean ruxo_zipkin_flush(uint64_t timeout_ms) {
  Reporter &r = reporter();
  // A longer wait than a day would overflow clocks, not outlast a collector.
  const std::chrono::milliseconds timeout(timeout_ms < 86400000 ? timeout_ms : 86400000);
  std::unique_lock guard(r.lock);
  const uint64_t mine = r.accepted;
  ++r.flushers;
  r.filled.notify_one();
  const bool done = r.emptied.wait_for(guard, timeout, [&] { return r.finished >= mine; });
  --r.flushers;
  return done;
}

void ruxo_zipkin_reporter_counts(uint64_t *sent, uint64_t *dropped) {
  Reporter &r = reporter();
  const std::lock_guard guard(r.lock);
  if (sent != nullptr) *sent = r.sent;
  if (dropped != nullptr) *dropped = r.dropped;
}
