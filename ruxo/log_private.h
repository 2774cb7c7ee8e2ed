// How a log line travels: ruxo_log_vwrite() formats the message and makes a Record of it; the queue
// (log_queue.cpp) holds records until the writer thread, or whoever needs them written, gives each to the
// outlets that its stream had when the line was logged; an outlet that leaves the process formats the record
// (log_format.cpp).
//
//   caller: format message -> enqueue --> [queue] --> drain: Outlet::take(record)..., Outlet::flush()
//
// Logging works before main() and after it: everything global here is constant-initialised and never
// destroyed.
#ifndef RUXO_LOG_PRIVATE_H
#define RUXO_LOG_PRIVATE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ruxo/log.h"

struct ruxo_log_outlet;

namespace ruxo {

// A global that is constant-initialised and never destroyed.
template <class T>
union Immortal {
  T value;
  constexpr Immortal() : value{} {}
  constexpr ~Immortal() {}
  T *operator->() { return &value; }
};

using OutletList = std::vector<ruxo_log_outlet *>;

struct Record {
  std::shared_ptr<const OutletList> outlets;  // null: standard error
  const char *stream_name;                    // streams are never freed
  const char *file;
  int line;
  uint64_t time_ms;     // since the Unix epoch
  uint64_t task;        // the kernel's id of the logging thread
  uint64_t trace_id;    // 0: no span was active
  std::string message;  // as the caller wrote it
};

// One line with its "\n", appended to `out`.
void append_logfmt(std::string &out, const Record &record);
void append_json(std::string &out, const Record &record);

// Queues the record; once synchronous, it has reached its outlets on return.
void enqueue(Record &&record);
// Gives everything that is queued to its outlets, on the calling thread.
void drain();

// Raises or lowers ruxo_log_overrides: by one for the global switch, by one for each thread whose active span
// collects logs.
void log_overrides_add(int difference);

// Writes a text straight to standard error; for faults of logging itself.
void write_stderr(std::string_view text) noexcept;

// The outlet that needs no memory and no initialisation.
ruxo_log_outlet *stderr_logfmt_outlet();

}  // namespace ruxo

// Outlets are never freed: records on their way, streams and callers may all refer to one.
// take() and flush() are called by one thread at a time (under the queue's output lock).
struct ruxo_log_outlet {
  virtual void take(const ruxo::Record &record) = 0;
  virtual void flush() = 0;

 protected:
  ~ruxo_log_outlet() = default;
};

#endif
