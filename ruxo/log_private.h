// How a log line travels: ruxo_log_vwrite() formats the message; enqueue() makes it an annotation of the
// thread's span and puts it into the queue (log_queue.cpp) with the outlets that its stream has at that
// moment; the writer thread, or whoever needs it written, gives it to them; an outlet that leaves the process
// formats the whole record (log_format.cpp).
//
//   caller: format message -> enqueue --> [queue] --> drain: outlet.take(record)..., outlet.flush()
//
// Logging works before main() and after it: everything global here is constant-initialised and never
// destroyed.
#ifndef RUXO_LOG_PRIVATE_H
#define RUXO_LOG_PRIVATE_H

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ruxo/log.h"

struct ruxo_log_outlet;

namespace ruxo {

// A global that is constant-initialised and never destroyed.
template <class T>
union Immortal {
  T value;
  template <class... Arguments>
  constexpr explicit Immortal(Arguments... arguments) : value{arguments...} {}
  constexpr ~Immortal() {}
  T *operator->() { return &value; }
};

using OutletList = std::vector<ruxo_log_outlet *>;
using SharedOutlets = std::shared_ptr<const OutletList>;  // replaced as a whole, never changed

// Guards the streams' registry and settings, the spans, and the records in the queue. Held for moments;
// nothing is written and no other lock is taken under it. Across a fork it is held, so a child finds it free.
std::mutex &log_lock();

// Threads: `live` is written under log_lock() and read without; everything else is guarded by log_lock().
// Invariant: live == (enabled and has_outlet()).
struct Stream : ruxo_log_stream {
  const char *name;
  bool enabled;
  // Standard error, without a list that would take memory: how the error stream starts.
  bool has_initial_stderr;
  Immortal<SharedOutlets> outlets;  // null: none beyond the above

  constexpr Stream(const char *stream_name, bool initial_stderr)
      : ruxo_log_stream{initial_stderr},
        name(stream_name),
        enabled(true),
        has_initial_stderr(initial_stderr) {}

  bool has_outlet() const { return has_initial_stderr || outlets.value != nullptr; }
  void update_live() { __atomic_store_n(&live, enabled && has_outlet() ? 1 : 0, __ATOMIC_RELAXED); }
};

struct Record {
  SharedOutlets outlets;    // null: standard error
  const char *stream_name;  // streams are never freed
  const char *file;
  int line;
  uint64_t time_ms;     // since the Unix epoch
  uint64_t task;        // the kernel's number of the logging thread
  uint64_t trace_id;    // 0: no span was active
  std::string message;  // as the caller wrote it
};

// One line with its "\n", appended to `out`.
void append_logfmt(std::string &out, const Record &record);
void append_json(std::string &out, const Record &record);

// Keeps the record as an annotation of this thread's span, if that collects logs, and queues it for the
// stream's outlets, if it is for them. Once synchronous, it has reached them on return.
void enqueue(const Stream &stream, Record &&record);

// Gives everything that is queued to its outlets, on the calling thread.
void drain() noexcept;
// The same, then keeps outlets from changing until the lock is released.
std::unique_lock<std::mutex> drain_and_hold() noexcept;

// Raises or lowers ruxo_log_overrides: by one for the global switch, by one for each thread whose active span
// collects logs.
void log_overrides_add(int difference);

// Writes a text straight to standard error; for faults of logging itself.
void write_stderr(std::string_view text) noexcept;

// The outlet that needs no memory and no initialisation.
ruxo_log_outlet *stderr_logfmt_outlet();

}  // namespace ruxo

// Outlets are never freed: records on their way, streams and callers may all refer to one.
// Everything in one is used by a single thread at a time, the one that holds the queue's output lock.
struct ruxo_log_outlet {
  virtual void take(const ruxo::Record &record) = 0;
  virtual void flush() = 0;
  virtual bool reopen() { return true; }
  virtual std::deque<std::string> *memory_lines() { return nullptr; }  // what a memory outlet holds

  ruxo_log_outlet *next_made = nullptr;  // all that were made, so that leak checkers see them as kept

 protected:
  ~ruxo_log_outlet() = default;
};

#endif
