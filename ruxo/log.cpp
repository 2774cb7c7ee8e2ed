// Streams: their registry, when they are live, and the call that turns arguments into a record.
#include "ruxo/log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <new>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"
#include "ruxo/zipkin.h"

int ruxo_log_overrides = 0;

namespace {

using ruxo::OutletList;
using ruxo::Stream;

constinit Stream error_stream{"error", true};
constinit Stream notice_stream{"notice", true};
constinit Stream debug_stream{"debug", false};
constinit std::atomic<bool> global_enabled{false};

Stream *full(ruxo_log_stream_t ls) {
  return static_cast<Stream *>(ls);
}

using Registry = std::map<std::string, Stream *, std::less<>>;

// Under log_lock().
Registry &registry() {
  static Registry *const instance = new Registry{{error_stream.name, &error_stream},
                                                 {notice_stream.name, &notice_stream},
                                                 {debug_stream.name, &debug_stream}};
  return *instance;
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

void set_enabled(ruxo_log_stream_t ls, bool enabled) {
  Stream &stream = *full(ls);
  const std::lock_guard guard(ruxo::log_lock());
  stream.enabled = enabled;
  stream.update_live();
}

}  // namespace

ruxo_log_stream_t ruxo_error = &error_stream;
ruxo_log_stream_t ruxo_notice = &notice_stream;
ruxo_log_stream_t ruxo_debug = &debug_stream;

ruxo_log_stream_t ruxo_log_stream_new(const char *name) {
  return ruxo::guarded<ruxo_log_stream_t>(nullptr, [&]() -> ruxo_log_stream_t {
    const std::lock_guard guard(ruxo::log_lock());
    const auto [entry, added] = registry().try_emplace(name, nullptr);
    if (!added) return entry->second;
    entry->second = new (std::nothrow) Stream(entry->first.c_str(), false);
    if (entry->second != nullptr) return entry->second;
    registry().erase(entry);
    return nullptr;
  });
}

ruxo_boolean ruxo_log_stream_exists(const char *name) {
  return ruxo_log_stream_find(name) != nullptr;
}

ruxo_log_stream_t ruxo_log_stream_find(const char *name) {
  return ruxo::guarded<ruxo_log_stream_t>(nullptr, [&]() -> ruxo_log_stream_t {
    const std::lock_guard guard(ruxo::log_lock());
    const auto entry = registry().find(std::string_view(name));
    return entry == registry().end() ? nullptr : entry->second;
  });
}

const char *ruxo_log_stream_name(ruxo_log_stream_t ls) {
  return full(ls)->name;
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
    const std::lock_guard guard(ruxo::log_lock());
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
  const std::lock_guard guard(ruxo::log_lock());
  stream.has_initial_stderr = false;
  stream.outlets.value.reset();
  stream.update_live();
}

ruxo_boolean ruxo_log_has_material_output(ruxo_log_stream_t ls) {
  if (ls == nullptr) return false;
  const Stream &stream = *full(ls);
  const std::lock_guard guard(ruxo::log_lock());
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
  const int callers_errno = errno;  // a caller may log a fault first and handle it after
  try {
    ruxo::Record record{};
    record.file = file;
    record.line = line;
    record.message = format_message(format, args);
    ruxo::enqueue(*full(ls), std::move(record));
  } catch (...) {
    ruxo::write_stderr("a log line was lost: out of memory\n");
  }
  errno = callers_errno;
}
