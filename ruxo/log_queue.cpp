// The queue between the threads that log and the outlets.
//
// Whoever needs lines written can write them: the writer thread as its work, a thread that waits for them
// (going synchronous, flushing, reading a memory outlet, leaving the process), a thread that finds the queue
// full. So nothing here waits for the writer thread, and a forked child, which has none, loses nothing.
//
// Locks, taken in this order: `output` is held while records go to outlets, which keeps them in order;
// log_lock() guards the fields of Queue that follow it.
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <mutex>

#include "ruxo/log_private.h"
#include "ruxo/util.h"
#include "ruxo/zipkin.h"
#include "ruxo/zipkin_private.h"

namespace {

using ruxo::Record;

// Beyond either limit, a thread that logs first writes out what is queued.
constexpr size_t kMaxQueuedRecords = 8192;
constexpr size_t kMaxQueuedBytes = size_t{8} << 20;

struct Queue {
  std::mutex output;
  std::vector<Record> batch;  // what is being written, under `output`; kept for its capacity
  std::mutex lock;            // log_lock()
  pthread_cond_t filled = PTHREAD_COND_INITIALIZER;
  std::vector<Record> records;
  size_t message_bytes = 0;
  bool synchronous = false;
  bool writer_started = false;
  bool writer_waits = false;
};

constinit ruxo::Immortal<Queue> queue;

template <class Action>
void for_each_outlet(const Record &record, Action action) {
  if (record.outlets == nullptr) return action(*ruxo::stderr_logfmt_outlet());
  for (ruxo_log_outlet *const outlet : *record.outlets) action(*outlet);
}

void give(ruxo_log_outlet &outlet, const Record &record) noexcept {
  try {
    outlet.take(record);
  } catch (...) {
    ruxo::write_stderr("a log line was lost: out of memory\n");
  }
}

// Holds the output lock.
void write_queued() {
  {
    const std::lock_guard guard(queue->lock);
    queue->batch.swap(queue->records);
    queue->message_bytes = 0;
  }
  for (const Record &record : queue->batch) {
    for_each_outlet(record, [&](ruxo_log_outlet &outlet) { give(outlet, record); });
  }
  // A flush with nothing left to write costs nothing, so each record can ask for its own.
  for (const Record &record : queue->batch) {
    for_each_outlet(record, [](ruxo_log_outlet &outlet) { outlet.flush(); });
  }
  queue->batch.clear();
}

void *write_for_ever(void *) {
  for (;;) {
    {
      std::unique_lock guard(queue->lock);
      while (queue->records.empty()) {
        queue->writer_waits = true;
        pthread_cond_wait(&queue->filled, queue->lock.native_handle());
      }
      queue->writer_waits = false;
    }
    ruxo::drain();
  }
  return nullptr;
}

void before_fork() {
  queue->output.lock();
  // Written by the parent now, and so neither twice nor, by a child that execs, never.
  write_queued();
  queue->lock.lock();
}

void in_parent() {
  queue->lock.unlock();
  queue->output.unlock();
}

void in_child() {
  queue->writer_started = false;
  queue->writer_waits = false;
  // Anew, because the parent's writer may be waiting on it.
  queue->filled = PTHREAD_COND_INITIALIZER;
  in_parent();
}

// Lines of exit handlers and destructors that run after this one are written at once.
void at_exit() {
  ruxo_log_go_synch();
}

// As the library is loaded: no thread of ours can hold a lock before the handlers are in place.
__attribute__((constructor)) void install_handlers() {
  pthread_atfork(before_fork, in_parent, in_child);
  atexit(at_exit);
}

bool start_writer() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // The host's signals are not for this thread.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, write_for_ever, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attributes);
  return started;
}

// Holds log_lock(). False: there is no thread to be had, so the caller writes.
bool ensure_writer() {
  return queue->writer_started || (queue->writer_started = start_writer());
}

bool is_full() {
  return queue->records.size() >= kMaxQueuedRecords || queue->message_bytes >= kMaxQueuedBytes;
}

void set_synchronous(bool synchronous) {
  const std::lock_guard guard(queue->lock);
  queue->synchronous = synchronous;
}

}  // namespace

std::mutex &ruxo::log_lock() {
  return queue->lock;
}

void ruxo::enqueue(const Stream &stream, Record &&record) {
  const ruxo_zipkin_span *const span = ruxo_zipkin_active_span();
  record.stream_name = stream.name;
  record.time_ms = ruxo_now_ms();
  record.task = ruxo_task_id();
  record.trace_id = span == nullptr ? 0 : ruxo_zipkin_span_trace_id(span);
  bool write_here;
  {
    const std::lock_guard guard(queue->lock);
    annotate_active_span(record.message);
    if (!ruxo_log_global_enabled() && !(stream.enabled && stream.has_outlet())) return;
    record.outlets = stream.outlets.value;
    queue->message_bytes += record.message.size();
    queue->records.push_back(std::move(record));
    write_here = queue->synchronous || is_full() || !ensure_writer();
    if (!write_here && queue->writer_waits) pthread_cond_signal(&queue->filled);
  }
  if (write_here) drain();
}

std::unique_lock<std::mutex> ruxo::drain_and_hold() noexcept {
  std::unique_lock guard(queue->output);
  write_queued();
  return guard;
}

void ruxo::drain() noexcept {
  drain_and_hold();
}

void ruxo_log_go_synch(void) {
  set_synchronous(true);
  ruxo::drain();
}

void ruxo_log_go_asynch(void) {
  set_synchronous(false);
}

void ruxo_log_flush(void) {
  ruxo::drain();
}
