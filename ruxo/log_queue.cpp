// The queue between the threads that log and the outlets.
//
// Whoever needs lines written can write them: the writer thread as its work, a thread that waits for them
// (going synchronous, flushing, reading a memory outlet, leaving the process), a thread that finds the queue
// full. So nothing here waits for the writer thread, and a forked child, which has none, loses nothing.
//
// Locks, taken in this order: `output` is held while records go to outlets, which keeps them in order;
// `entry` guards the fields below it and is held only for moments.
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <mutex>

#include "ruxo/guard_private.h"
#include "ruxo/log_private.h"

namespace {

using ruxo::Record;

// Beyond either limit, a thread that logs first writes out what is queued.
constexpr size_t kMaxQueuedRecords = 8192;
constexpr size_t kMaxQueuedBytes = size_t{8} << 20;

struct Queue {
  std::mutex output;
  std::mutex entry;
  pthread_cond_t filled = PTHREAD_COND_INITIALIZER;
  std::vector<Record> records;
  size_t message_bytes = 0;
  bool synchronous = false;
  bool writer_started = false;
  bool writer_waits = false;
  bool handlers_installed = false;
};

constinit ruxo::Immortal<Queue> queue;

void give(const Record &record) {
  if (record.outlets == nullptr) {
    ruxo::stderr_logfmt_outlet()->take(record);
    return;
  }
  for (ruxo_log_outlet *const outlet : *record.outlets) outlet->take(record);
}

void flush_outlets(const Record &record) {
  if (record.outlets == nullptr) {
    ruxo::stderr_logfmt_outlet()->flush();
    return;
  }
  for (ruxo_log_outlet *const outlet : *record.outlets) outlet->flush();
}

// Holds the output lock.
void write_queued() {
  std::vector<Record> batch;
  {
    const std::lock_guard guard(queue->entry);
    batch.swap(queue->records);
    queue->message_bytes = 0;
  }
  for (const Record &record : batch) give(record);
  for (const Record &record : batch) flush_outlets(record);
}

void *write_for_ever(void *) {
  for (;;) {
    {
      std::unique_lock guard(queue->entry);
      while (queue->records.empty()) {
        queue->writer_waits = true;
        pthread_cond_wait(&queue->filled, queue->entry.native_handle());
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
  queue->entry.lock();
}

void in_parent() {
  queue->entry.unlock();
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

// Holds the entry lock. False: there is no thread to be had, so the caller writes.
bool ensure_writer() {
  if (queue->writer_started) return true;
  if (!queue->handlers_installed) {
    pthread_atfork(before_fork, in_parent, in_child);
    atexit(at_exit);
    queue->handlers_installed = true;
  }
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // The host's signals are not for this thread.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_t thread;
  queue->writer_started = pthread_create(&thread, &attributes, write_for_ever, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attributes);
  return queue->writer_started;
}

bool is_full() {
  return queue->records.size() >= kMaxQueuedRecords || queue->message_bytes >= kMaxQueuedBytes;
}

void set_synchronous(bool synchronous) {
  const std::lock_guard guard(queue->entry);
  queue->synchronous = synchronous;
}

}  // namespace

void ruxo::enqueue(Record &&record) {
  bool write_here;
  {
    const std::lock_guard guard(queue->entry);
    queue->message_bytes += record.message.size();
    queue->records.push_back(std::move(record));
    write_here = queue->synchronous || !ensure_writer() || is_full();
    if (!write_here && queue->writer_waits) pthread_cond_signal(&queue->filled);
  }
  if (write_here) drain();
}

void ruxo::drain() {
  const std::lock_guard guard(queue->output);
  write_queued();
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
