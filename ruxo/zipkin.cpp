#include "ruxo/zipkin.h"

#include <sys/random.h>
#include <time.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"
#include "ruxo/util.h"
#include "ruxo/zipkin_private.h"

namespace {

using Kind = ruxo_zipkin_span::Kind;
using SpanPtr = std::unique_ptr<ruxo_zipkin_span>;

uint64_t clock_us(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t draw_id() {
  uint64_t id = 0;
  while (id == 0) {
    // Without randomness the time has to do: an id only tells traces apart.
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = ruxo_now_ms();
  }
  return id;
}

bool draw_sampled() {
  return static_cast<double>(draw_id() >> 11) * 0x1p-53 < ruxo::tracing_sample_rate();
}

// The first span of a new trace.
SpanPtr make_span(const char *name, Kind kind) {
  auto span = std::make_unique<ruxo_zipkin_span>();
  span->name = name;
  span->kind = kind;
  span->trace_id = draw_id();
  span->id = draw_id();
  span->begin_us = clock_us(CLOCK_REALTIME);
  span->begin_steady_us = clock_us(CLOCK_MONOTONIC);
  return span;
}

// A thread that ends inside a span leaves it: the count of collecting threads must not stay up.
struct ActiveSpan {
  ruxo_zipkin_span *span = nullptr;
  ~ActiveSpan() { ruxo_zipkin_set_active_span(nullptr); }
};

thread_local ActiveSpan active;
thread_local SpanPtr client;

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

void publish(SpanPtr span) {
  {
    const std::lock_guard guard(ruxo::log_lock());
    if (span->end_steady_us == 0) span->end_steady_us = clock_us(CLOCK_MONOTONIC);
  }
  if (span->sampled) ruxo::report_span(std::move(span));
}

__attribute__((format(printf, 3, 4))) const char *render(char *buff, size_t len, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = vsnprintf(buff, len, format, args);
  va_end(args);
  return written >= 0 && static_cast<size_t>(written) < len ? buff : nullptr;
}

std::optional<unsigned> hex_digit(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
  return std::nullopt;
}

// Exactly 16 hexadecimal digits.
std::optional<uint64_t> parse_id(std::string_view text) {
  if (text.size() != 16) return std::nullopt;
  uint64_t id = 0;
  for (const char c : text) {
    const std::optional<unsigned> digit = hex_digit(c);
    if (!digit) return std::nullopt;
    id = id << 4 | *digit;
  }
  return id;
}

// Takes a peer's numbers over; false, changing nothing, when they are not what they should be.
bool join(ruxo_zipkin_span &span, std::string_view trace, std::string_view parent, std::string_view id) {
  uint64_t high = 0;
  if (trace.size() == 32) {
    const std::optional<uint64_t> upper = parse_id(trace.substr(0, 16));
    if (!upper) return false;
    high = *upper;
    trace.remove_prefix(16);
  }
  const std::optional<uint64_t> low = parse_id(trace), own = parse_id(id);
  const std::optional<uint64_t> above = parent.empty() ? std::optional<uint64_t>(0) : parse_id(parent);
  if (!low || *low == 0 || !own || *own == 0 || !above) return false;
  span.trace_id_high = high;
  span.trace_id = *low;
  span.id = *own;
  span.parent_id = *above;
  span.shared = true;
  return true;
}

std::string_view text_or_empty(const char *text) {
  return text == nullptr ? std::string_view() : text;
}

bool is_sampled(std::string_view wish) {
  if (wish == "1" || wish == "true" || wish == "d") return true;
  if (wish == "0" || wish == "false") return false;
  return draw_sampled();
}

void note(ruxo_zipkin_span &span, std::string_view event) {
  const uint64_t now_us = clock_us(CLOCK_REALTIME), steady_us = clock_us(CLOCK_MONOTONIC);
  if (event == ZIPKIN_CLIENT_SEND || event == ZIPKIN_SERVER_RECV) {
    span.begin_us = now_us;
    span.begin_steady_us = steady_us;
  } else if (event == ZIPKIN_CLIENT_RECV || event == ZIPKIN_SERVER_SEND) {
    span.end_steady_us = steady_us;
  } else {
    span.annotations.push_back({now_us, std::string(event)});
  }
}

}  // namespace

ruxo_zipkin_span *ruxo_zipkin_span_new(const char *name) {
  return ruxo::guarded<ruxo_zipkin_span *>(nullptr, [&] {
    SpanPtr span = make_span(name, Kind::local);
    span->sampled = ruxo::tracing_is_on() && draw_sampled();
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
  return index < span->annotations.size() ? span->annotations[index].text.c_str() : nullptr;
}

void ruxo::annotate_active_span(const std::string &message) {
  ruxo_zipkin_span *const span = active.span;
  if (span != nullptr && span->logs_attached) {
    span->annotations.push_back({clock_us(CLOCK_REALTIME), message});
  }
}

void ruxo_zipkin_span_annotate(ruxo_zipkin_span *span, const char *event) {
  if (span == nullptr) return;
  ruxo::guarded(false, [&] {
    const std::lock_guard guard(ruxo::log_lock());
    note(*span, event);
    return true;
  });
}

void ruxo_zipkin_span_bannotate_i32(ruxo_zipkin_span *span, const char *key, int32_t value) {
  char text[16];
  snprintf(text, sizeof text, "%" PRId32, value);
  ruxo_zipkin_span_bannotate_str(span, key, text);
}

void ruxo_zipkin_span_bannotate_str(ruxo_zipkin_span *span, const char *key, const char *value) {
  if (span == nullptr) return;
  ruxo::guarded(false, [&] {
    std::pair<std::string, std::string> tag(key, value);
    const std::lock_guard guard(ruxo::log_lock());
    for (auto &known : span->tags) {
      if (known.first != tag.first) continue;
      known.second.swap(tag.second);
      return true;
    }
    span->tags.push_back(std::move(tag));
    return true;
  });
}

ruxo_zipkin_span *ruxo_zipkin_client_start(const char *name) {
  client.reset();
  if (!ruxo::tracing_is_on()) return nullptr;
  client = ruxo::guarded(SpanPtr(), [&] {
    SpanPtr span = make_span(name, Kind::client);
    if (const ruxo_zipkin_span *const parent = active.span; parent != nullptr) {
      span->trace_id_high = parent->trace_id_high;
      span->trace_id = parent->trace_id;
      span->parent_id = parent->id;
      span->sampled = parent->sampled;
    } else {
      span->sampled = draw_sampled();
    }
    return span;
  });
  return client.get();
}

ruxo_zipkin_span *ruxo_zipkin_client_span(void) {
  return client.get();
}

const char *ruxo_zipkin_client_trace_header(char *buff, size_t len) {
  if (client == nullptr) return nullptr;
  if (client->trace_id_high == 0) return render(buff, len, "X-B3-TraceId: %016" PRIx64, client->trace_id);
  return render(buff, len, "X-B3-TraceId: %016" PRIx64 "%016" PRIx64, client->trace_id_high,
                client->trace_id);
}

const char *ruxo_zipkin_client_parent_header(char *buff, size_t len) {
  if (client == nullptr || client->parent_id == 0) return nullptr;
  return render(buff, len, "X-B3-ParentSpanId: %016" PRIx64, client->parent_id);
}

const char *ruxo_zipkin_client_span_header(char *buff, size_t len) {
  return client == nullptr ? nullptr : render(buff, len, "X-B3-SpanId: %016" PRIx64, client->id);
}

const char *ruxo_zipkin_client_sampled_header(char *buff, size_t len) {
  return client == nullptr ? nullptr : render(buff, len, "X-B3-Sampled: %d", client->sampled ? 1 : 0);
}

void ruxo_zipkin_client_publish(void) {
  if (client != nullptr) publish(std::move(client));
}

ruxo_zipkin_span *ruxo_zipkin_server_start(const char *name, const char *trace_id, const char *parent_id,
                                           const char *span_id, const char *sampled) {
  if (!ruxo::tracing_is_on()) return nullptr;
  return ruxo::guarded<ruxo_zipkin_span *>(nullptr, [&] {
    SpanPtr span = make_span(name, Kind::server);
    join(*span, text_or_empty(trace_id), text_or_empty(parent_id), text_or_empty(span_id));
    span->sampled = is_sampled(text_or_empty(sampled));
    return span.release();
  });
}

void ruxo_zipkin_span_publish(ruxo_zipkin_span *span) {
  if (span == nullptr) return;
  if (active.span == span) ruxo_zipkin_set_active_span(nullptr);
  publish(SpanPtr(span));
}
