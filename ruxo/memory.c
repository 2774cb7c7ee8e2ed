/* Sections and deferred frees over an epoch counter of the concurrency library, whose header is C only.
 *
 * Each thread has one record: whether it is inside a section, and its frees that still wait. Records are
 * never destroyed, only handed on: when a thread ends, what still waits moves to the shared `orphans` record.
 * A thread's record is touched by that thread alone; `orphans` is guarded by `orphans_lock`. */
#include "ruxo/memory.h"

#include <ck_epoch.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>

#include "ruxo/log.h"

/* The thread sanitizer does not see the library's atomics, which are assembly. All it has to know is that
 * what a section did comes before what is done once that section cannot look any more, and that a record is
 * used by one thread after the other. */
#if defined(__SANITIZE_THREAD__)
#define RUXO_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RUXO_TSAN 1
#endif
#endif
#ifdef RUXO_TSAN
#include <sanitizer/tsan_interface.h>
#define SECTION_DONE() __tsan_release(&epoch)
#define SECTIONS_OVER() __tsan_acquire(&epoch)
#define RECORD_LEFT(record) __tsan_release(record)
#define RECORD_TAKEN(record) __tsan_acquire(record)
#else
#define SECTION_DONE() ((void)0)
#define SECTIONS_OVER() ((void)0)
#define RECORD_LEFT(record) ((void)0)
#define RECORD_TAKEN(record) ((void)0)
#endif

/* Frees that may wait before their thread tries to carry them out. */
#define PENDING_BATCH 64u
/* A thread that leaves sections with frees waiting tries at every n-th, so that rare frees do not wait for
 * ever. */
#define ENDS_BETWEEN_POLLS 16u

/* In front of every block of safe memory; 16 bytes, so the block keeps malloc's alignment. */
struct safe_header {
  ck_epoch_entry_t entry;
};
_Static_assert(sizeof(struct safe_header) % _Alignof(max_align_t) == 0,
               "the block behind it must be aligned");

static ck_epoch_t epoch;
static ck_epoch_record_t orphans;
static unsigned orphan_count; /* guarded by orphans_lock, but peeked at without it */
static pthread_mutex_t orphans_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t once = PTHREAD_ONCE_INIT;
static pthread_key_t record_key; /* for its destructor only */
static _Thread_local ck_epoch_record_t *own_record;
static _Thread_local unsigned ends_since_poll;

static void fatal(const char *text) {
  ruxo_log_go_synch();
  ruxo_log(ruxo_error, "[FATAL] %s\n", text);
  abort();
}

static void free_entry(ck_epoch_entry_t *entry) {
  SECTIONS_OVER();
  free(entry);
}

CK_STACK_CONTAINER(ck_epoch_entry_t, stack_entry, entry_of)
CK_STACK_CONTAINER(ck_epoch_record_t, record_next, record_of)

/* Hands the frees that wait on `record` to the shared one, as if they were asked for now. Holds orphans_lock.
 */
static void orphan_pending(ck_epoch_record_t *record) {
  for (unsigned i = 0; i < CK_EPOCH_LENGTH; ++i) {
    ck_stack_entry_t *next = ck_stack_batch_pop_npsc(&record->pending[i]);
    while (next != NULL) {
      ck_epoch_entry_t *const entry = entry_of(next);
      next = CK_STACK_NEXT(next);
      ck_epoch_call(&orphans, entry, free_entry);
    }
  }
  __atomic_store_n(&orphan_count, orphans.n_pending, __ATOMIC_RELAXED);
}

static void release_record(void *record) {
  own_record = NULL;
  pthread_mutex_lock(&orphans_lock);
  SECTION_DONE();
  orphan_pending(record);
  pthread_mutex_unlock(&orphans_lock);
  RECORD_LEFT(record);
  ck_epoch_unregister(record);
}

static void poll_orphans(void) {
  if (__atomic_load_n(&orphan_count, __ATOMIC_RELAXED) == 0 || pthread_mutex_trylock(&orphans_lock) != 0)
    return;
  ck_epoch_poll(&orphans);
  __atomic_store_n(&orphan_count, orphans.n_pending, __ATOMIC_RELAXED);
  pthread_mutex_unlock(&orphans_lock);
}

static void poll_all(ck_epoch_record_t *record) {
  if (record->n_pending > 0) ck_epoch_poll(record);
  poll_orphans();
}

/* One poll frees everything when no section is open; when one is, what it could see is rightly left alone. */
static void free_at_exit(void) {
  if (own_record != NULL) poll_all(own_record);
}

static void before_fork(void) {
  pthread_mutex_lock(&orphans_lock);
}
static void in_parent(void) {
  pthread_mutex_unlock(&orphans_lock);
}

/* The other threads are not there in the child: their sections are over, their frees are everybody's. */
static void in_child(void) {
  ck_stack_entry_t *entry;
  CK_STACK_FOREACH(&epoch.records, entry) {
    ck_epoch_record_t *const record = record_of(entry);
    if (record == own_record || record == &orphans || ck_epoch_record_ct(record) == NULL) continue;
    orphan_pending(record);
    ck_epoch_unregister(record);
  }
  pthread_mutex_unlock(&orphans_lock);
}

static void start(void) {
  ck_epoch_init(&epoch);
  ck_epoch_register(&epoch, &orphans, &orphans);
  if (pthread_key_create(&record_key, release_record) != 0) fatal("no thread key left for memory sections");
  pthread_atfork(before_fork, in_parent, in_child);
  atexit(free_at_exit);
}

/* This thread's record, made on first use. Null when there is no memory for one. A record's context is
 * non-null exactly while some thread has it. */
static ck_epoch_record_t *obtain_record(void) {
  pthread_once(&once, start);
  ck_epoch_record_t *record = ck_epoch_recycle(&epoch, &epoch);
  if (record == NULL) {
    record = aligned_alloc(_Alignof(ck_epoch_record_t), sizeof *record);
    if (record == NULL) return NULL;
    memset(record, 0, sizeof *record);
    ck_epoch_register(&epoch, record, &epoch);
  }
  RECORD_TAKEN(record);
  if (pthread_setspecific(record_key, record) != 0) {
    ck_epoch_unregister(record);
    return NULL;
  }
  own_record = record;
  return record;
}

static inline ck_epoch_record_t *record_or_null(void) {
  return __builtin_expect(own_record != NULL, 1) ? own_record : obtain_record();
}

void ruxo_memory_begin(void) {
  ck_epoch_record_t *const record = record_or_null();
  if (record == NULL) fatal("no memory to open a memory section");
  ck_epoch_begin(record, NULL);
}

void ruxo_memory_end(void) {
  ck_epoch_record_t *const record = own_record;
  if (record == NULL || record->active == 0) fatal("a memory section is ended that was not begun");
  SECTION_DONE();
  if (!ck_epoch_end(record, NULL) || record->n_pending == 0) return;
  if (++ends_since_poll % ENDS_BETWEEN_POLLS == 0) poll_all(record);
}

ruxo_boolean ruxo_memory_in_cs(void) {
  return own_record != NULL && own_record->active > 0;
}

void *ruxo_memory_safe_malloc(size_t size) {
  if (size > SIZE_MAX - sizeof(struct safe_header)) return NULL;
  struct safe_header *const header = malloc(sizeof *header + size);
  return header == NULL ? NULL : header + 1;
}

void *ruxo_memory_safe_calloc(size_t count, size_t size) {
  size_t bytes;
  if (__builtin_mul_overflow(count, size, &bytes)) return NULL;
  void *const block = ruxo_memory_safe_malloc(bytes);
  return block == NULL ? NULL : memset(block, 0, bytes);
}

char *ruxo_memory_safe_strdup(const char *text) {
  const size_t bytes = strlen(text) + 1;
  char *const copy = ruxo_memory_safe_malloc(bytes);
  return copy == NULL ? NULL : memcpy(copy, text, bytes);
}

void ruxo_memory_safe_free(void *p) {
  if (p == NULL) return;
  struct safe_header *const header = (struct safe_header *)p - 1;
  SECTION_DONE();
  ck_epoch_record_t *const record = record_or_null();
  if (record == NULL) {
    pthread_mutex_lock(&orphans_lock);
    ck_epoch_call(&orphans, &header->entry, free_entry);
    __atomic_store_n(&orphan_count, orphans.n_pending, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&orphans_lock);
    return;
  }
  ck_epoch_call(record, &header->entry, free_entry);
  if (record->n_pending % PENDING_BATCH == 0) poll_all(record);
}

static void yield_to_sections(ck_epoch_t *waiting, ck_epoch_record_t *record, void *closure) {
  (void)waiting, (void)record, (void)closure;
  sched_yield();
}

void ruxo_memory_synchronize(void) {
  ck_epoch_record_t *const record = record_or_null();
  if (record == NULL) fatal("no memory to wait for memory sections");
  if (record->active > 0) fatal("a thread inside a memory section waits for all sections to end");
  ck_epoch_barrier_wait(record, yield_to_sections, NULL);
  poll_orphans();
}
