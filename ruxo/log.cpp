// Streams: their registry, when they are live, and the call that turns arguments into a record.
#include "ruxo/log.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"
#include "ruxo/util.h"
#include "ruxo/zipkin.h"
#include "ruxo/zipkin_private.h"

int ruxo_log_overrides = 0;

namespace {

using ruxo::OutletList;
using SharedOutlets = std::shared_ptr<const OutletList>;

// Threads: `lock` guards every field but `live`, which is written under it and read without.
// Invariant: live == (enabled and there is an outlet).
struct Stream : ruxo_log_stream {
  const char *name;
  bool enabled;
  // Standard error, without a list that would need memory: how the error stream starts.
  bool has_initial_stderr;
  mutable std::mutex lock;
  ruxo::Immortal<SharedOutlets> outlets;  // replaced as a whole, so records can share it

  constexpr Stream(const char *stream_name, bool is_enabled, bool initial_stderr)
      : ruxo_log_stream{is_enabled && initial_stderr},
        name(stream_name),
        enabled(is_enabled),
        has_initial_stderr(initial_stderr) {}

  bool has_outlet() const { return has_initial_stderr || outlets.value != nullptr; }
  void update_live() { __atomic_store_n(&live, enabled && has_outlet() ? 1 : 0, __ATOMIC_RELAXED); }
};

constinit Stream error_stream{"error", true, true};
constinit Stream debug_stream{"debug", true, false};
constinit std::atomic<bool> global_enabled{false};

Stream *full(ruxo_log_stream_t ls) {
  return static_cast<Stream *>(ls);
}

struct Registry {
  std::mutex lock;
  std::map<std::string, Stream *, std::less<>> streams{{"error", &error_stream}, {"debug", &debug_stream}};
};

Registry &registry() {
  static Registry *const instance = new Registry;
  return *instance;
}

Stream *find_stream(std::string_view name) {
  Registry &known = registry();
  const std::lock_guard guard(known.lock);
  const auto entry = known.streams.find(name);
  return entry == known.streams.end() ? nullptr : entry->second;
}

// Where a line on the stream goes now. False: to no outlet.
bool destination(const Stream &stream, SharedOutlets &outlets) {
  const std::lock_guard guard(stream.lock);
  const bool everything = global_enabled.load(std::memory_order_relaxed);
  if (!everything && !(stream.enabled && stream.has_outlet())) return false;
  outlets = stream.outlets.value;
  return true;
}

std::string format_message(const char *format, va_list args) {
  char small[512];
  va_list again;
  va_copy(again, args);
  const int len = vsnprintf(small, sizeof small, format, args);
  std::string message;
  if (len < 0) {
    message = std::string("(cannot be formatted) ") + format;
  } else if (static_cast<size_t>(len) < sizeof small) {
    message.assign(small, static_cast<size_t>(len));
  } else {
    message.resize(static_cast<size_t>(len) + 1);
    vsnprintf(message.data(), message.size(), format, again);
    message.pop_back();
  }
  va_end(again);
  return message;
}

void log_message(const Stream &stream, const char *file, int line, std::string &&message) {
  ruxo::annotate_active_span(message);
  ruxo::Record record{};
  if (!destination(stream, record.outlets)) return;
  const ruxo_zipkin_span *const span = ruxo_zipkin_active_span();
  record.stream_name = stream.name;
  record.file = file;
  record.line = line;
  record.time_ms = ruxo_now_ms();
  record.task = ruxo_task_id();
  record.trace_id = span == nullptr ? 0 : ruxo_zipkin_span_trace_id(span);
  record.message = std::move(message);
  ruxo::enqueue(std::move(record));
}

}  // namespace

ruxo_log_stream_t ruxo_error = &error_stream;
ruxo_log_stream_t ruxo_debug = &debug_stream;

ruxo_log_stream_t ruxo_log_stream_new(const char *name) {
  return ruxo::guarded<ruxo_log_stream_t>(nullptr, [&]() -> ruxo_log_stream_t {
    Registry &known = registry();
    const std::lock_guard guard(known.lock);
    const auto [entry, added] = known.streams.try_emplace(name, nullptr);
    if (!added) return entry->second;
    entry->second = new (std::nothrow) Stream(entry->first.c_str(), true, false);
    if (entry->second != nullptr) return entry->second;
    known.streams.erase(entry);
    return nullptr;
  });
}

ruxo_boolean ruxo_log_stream_exists(const char *name) {
  return ruxo_log_stream_find(name) != nullptr;
}

ruxo_log_stream_t ruxo_log_stream_find(const char *name) {
  return ruxo::guarded<ruxo_log_stream_t>(nullptr, [&] { return find_stream(name); });
}

const char *ruxo_log_stream_name(ruxo_log_stream_t ls) {
  return full(ls)->name;
}

static void set_enabled(ruxo_log_stream_t ls, bool enabled) {
  Stream &stream = *full(ls);
  const std::lock_guard guard(stream.lock);
  stream.enabled = enabled;
  stream.update_live();
}

void ruxo_log_stream_enable(ruxo_log_stream_t ls) {
  set_enabled(ls, true);
}
void ruxo_log_stream_disable(ruxo_log_stream_t ls) {
  set_enabled(ls, false);
}

ruxo_boolean ruxo_log_stream_add_outlet(ruxo_log_stream_t ls, ruxo_log_outlet_t outlet) {
  return ruxo::guarded(false, [&] {
    Stream &stream = *full(ls);
    const std::lock_guard guard(stream.lock);
    auto list = stream.outlets.value == nullptr ? std::make_shared<OutletList>()
                                                : std::make_shared<OutletList>(*stream.outlets.value);
    if (stream.has_initial_stderr) list->push_back(ruxo::stderr_logfmt_outlet());
    if (std::ranges::find(*list, outlet) == list->end()) list->push_back(outlet);
    stream.has_initial_stderr = false;
    stream.outlets.value = std::move(list);
    stream.update_live();
    return true;
  });
}

void ruxo_log_stream_remove_outlets(ruxo_log_stream_t ls) {
  Stream &stream = *full(ls);
  const std::lock_guard guard(stream.lock);
  stream.has_initial_stderr = false;
  stream.outlets.value.reset();
  stream.update_live();
}

ruxo_boolean ruxo_log_has_material_output(ruxo_log_stream_t ls) {
  if (ls == nullptr) return false;
  const Stream &stream = *full(ls);
  const std::lock_guard guard(stream.lock);
  return stream.has_outlet();
}

ruxo_boolean ruxo_log_global_enabled(void) {
  return global_enabled.load(std::memory_order_relaxed);
}

void ruxo_log_set_global_enabled(ruxo_boolean enabled) {
  if (global_enabled.exchange(enabled) != enabled) ruxo::log_overrides_add(enabled ? 1 : -1);
}

void ruxo::log_overrides_add(int difference) {
  __atomic_fetch_add(&ruxo_log_overrides, difference, __ATOMIC_RELAXED);
}

ruxo_boolean ruxo_log_stream_is_live_overridden(ruxo_log_stream_t ls) {
  if (ls == nullptr) return false;
  if (ruxo_log_global_enabled()) return true;
  const ruxo_zipkin_span *const span = ruxo_zipkin_active_span();
  return span != nullptr && ruxo_zipkin_span_logs_attached(span);
}

void ruxo_log_write(ruxo_log_stream_t ls, const char *file, int line, const char *format, ...) {
  va_list args;
  va_start(args, format);
  ruxo_log_vwrite(ls, file, line, format, args);
  va_end(args);
}

void ruxo_log_vwrite(ruxo_log_stream_t ls, const char *file, int line, const char *format, va_list args) {
  if (ls == nullptr) return;
  const int logged_errno = errno;  // a caller may log first and look at errno after
  try {
    log_message(*full(ls), file, line, format_message(format, args));
  } catch (...) {
    ruxo::write_stderr("a log line was lost: out of memory\n");
  }
  errno = logged_errno;
}
