/* Sections and deferred frees over an epoch counter of the concurrency library, whose header is C only.
 *
 * Each thread has one record: whether it is inside a section, and its frees that still wait. Records are
 * never destroyed, only handed on: when a thread ends, what still waits moves to the shared `orphans` record.
 * A section is opened and closed by its thread alone, without a lock. The frees of a record are behind its lock,
 * because any thread may carry them out: the thread that asked may never call again.
 *
 * Who carries them out: the thread that asks, at once, when no section is open and nothing of its own waits;
 * else every 64 times. What an open section holds back is left to that section: the one that has been open
 * longest is told that it is in the way, and as it closes it frees what it can, of all threads, and tells the
 * next. (A section that closes in the nanoseconds in which it is told may miss that, since closing it waits for
 * no other processor; then its thread's next section, or a later free, makes up for it.)
 *
 * Locks are taken in this order: registry_lock, sweep_lock, a record's, the orphans'. */
#include "ruxo/memory.h"

#include <ck_epoch.h>
#include <pthread.h>
#include <sched.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

#include "ruxo/log.h"

/* The thread sanitizer does not see the library's atomics, which are assembly. All it has to know is that
 * what a section did comes before what is done once that section cannot look any more, that a record is
 * used by one thread after the other, and that a record is made before it is found. */
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
#define RECORD_MADE() __tsan_release(&epoch.records)
#define RECORD_FOUND() __tsan_acquire(&epoch.records)
#else
#define SECTION_DONE() ((void)0)
#define SECTIONS_OVER() ((void)0)
#define RECORD_LEFT(record) ((void)0)
#define RECORD_TAKEN(record) ((void)0)
#define RECORD_MADE() ((void)0)
#define RECORD_FOUND() ((void)0)
#endif

/* Frees that may wait before their thread tries to carry them out. */
#define PENDING_BATCH 64u

/* In front of every block of safe memory; 16 bytes, so the block keeps malloc's alignment. */
struct safe_header {
  ck_epoch_entry_t entry;
};
_Static_assert(sizeof(struct safe_header) % _Alignof(max_align_t) == 0,
               "the block behind it must be aligned");

struct memory_record {
  ck_epoch_record_t section; /* and, behind `lock`, the frees that wait */
  pthread_mutex_t lock;
  unsigned waiting;    /* how many; written behind `lock`, read without it */
  unsigned in_the_way; /* frees wait for the section to close; set by any thread, taken back by its own */
};

static ck_epoch_t epoch;
static struct memory_record orphans = {.lock = PTHREAD_MUTEX_INITIALIZER};
static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER; /* records come and go */
static pthread_mutex_t sweep_lock = PTHREAD_MUTEX_INITIALIZER;    /* held by the one thread that sweeps */
static unsigned sweep_wanted;
static pthread_once_t once = PTHREAD_ONCE_INIT;
static pthread_key_t record_key; /* for its destructor only */
static _Thread_local struct memory_record *own_record;

static unsigned load(const unsigned *value) {
  return __atomic_load_n(value, __ATOMIC_RELAXED);
}
static void store(unsigned *value, unsigned now) {
  __atomic_store_n(value, now, __ATOMIC_RELAXED);
}

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
CK_STACK_CONTAINER(ck_epoch_record_t, record_next, section_of)

static struct memory_record *record_of(ck_stack_entry_t *entry) {
  RECORD_FOUND();
  return (struct memory_record *)section_of(entry); /* its first member */
}

/* ---- Carrying out frees ---- */

/* Whether any thread is inside a section. If none is, none can see what was given to be freed before: so it is asked
 * behind a record's lock, which comes after that in the eyes of all threads. */
static bool any_section_is_open(void) {
  ck_stack_entry_t *entry;
  ck_pr_fence_atomic_load();
  CK_STACK_FOREACH(&epoch.records, entry) {
    if (ck_pr_load_uint(&record_of(entry)->section.active) != 0) return true;
  }
  ck_pr_fence_acquire(); /* what the sections looked at is behind us */
  return false;
}

/* All frees that wait on the record, behind its lock, to the front of a list. */
static void take_pending(struct memory_record *record, ck_stack_t *taken) {
  for (unsigned i = 0; i < CK_EPOCH_LENGTH; ++i) {
    ck_stack_entry_t *next = ck_stack_batch_pop_npsc(&record->section.pending[i]);
    while (next != NULL) {
      ck_stack_entry_t *const entry = next;
      next = CK_STACK_NEXT(next);
      ck_stack_push_spnc(taken, entry);
    }
  }
  record->section.n_pending = 0;
}

static void free_all(ck_stack_t *list) {
  ck_stack_entry_t *next = CK_STACK_FIRST(list);
  while (next != NULL) {
    ck_epoch_entry_t *const entry = entry_of(next);
    next = CK_STACK_NEXT(next);
    free_entry(entry);
  }
}

/* Frees at once what no section can see. Otherwise adds it to what waits on the record, and returns how much that
 * is. */
static unsigned free_or_add(struct memory_record *record, ck_epoch_entry_t *entry) {
  pthread_mutex_lock(&record->lock);
  if (record->section.n_pending == 0 && !any_section_is_open()) {
    pthread_mutex_unlock(&record->lock);
    free_entry(entry);
    return 0;
  }
  /* That the block can no longer be found has to be seen by all before the epoch is looked at, or a section of a
   * later epoch than the one that is noted could still find it. */
  ck_pr_fence_atomic_load();
  ck_epoch_call(&record->section, entry, free_entry);
  const unsigned waiting = record->section.n_pending;
  store(&record->waiting, waiting);
  pthread_mutex_unlock(&record->lock);
  return waiting;
}

/* Frees what no section can see any more, and returns how many are left. The lock is what makes it right for other
 * threads to do this: nothing is added while the library looks which of its lists are old enough. It may set back
 * the epoch of a section that its thread opens at the same time, which then only looks older than it is. */
static unsigned reclaim(struct memory_record *record) {
  ck_stack_t ready = CK_STACK_INITIALIZER;
  pthread_mutex_lock(&record->lock);
  if (any_section_is_open()) {
    ck_epoch_poll_deferred(&record->section, &ready);
  } else {
    take_pending(record, &ready);
  }
  const unsigned left = record->section.n_pending;
  store(&record->waiting, left);
  pthread_mutex_unlock(&record->lock);
  free_all(&ready);
  return left;
}

/* The section that has been open longest: the last, of those now open, to be in the way. Null when none is. */
static struct memory_record *oldest_section(void) {
  struct memory_record *oldest = NULL;
  unsigned oldest_epoch = 0;
  ck_stack_entry_t *entry;
  CK_STACK_FOREACH(&epoch.records, entry) {
    struct memory_record *const record = record_of(entry);
    if (ck_pr_load_uint(&record->section.active) == 0) continue;
    const unsigned since = ck_pr_load_uint(&record->section.epoch);
    if (oldest != NULL && (int)(since - oldest_epoch) >= 0) continue;
    oldest = record;
    oldest_epoch = since;
  }
  return oldest;
}

/* Leaves the frees that wait to a section in their way. False when none is open. */
static bool leave_to_oldest_section(void) {
  for (;;) {
    struct memory_record *const oldest = oldest_section();
    if (oldest == NULL) return false;
    if (load(&oldest->in_the_way) == 0) store(&oldest->in_the_way, 1);
    ck_pr_fence_memory();
    if (ck_pr_load_uint(&oldest->section.active) != 0) return true;
    /* It closed meanwhile, perhaps without having been told. */
  }
}

static void sweep_all_records(void) {
  unsigned left;
  do {
    ck_stack_entry_t *entry;
    left = 0;
    CK_STACK_FOREACH(&epoch.records, entry) {
      if (load(&record_of(entry)->waiting) > 0) left += reclaim(record_of(entry));
    }
  } while (left > 0 && !leave_to_oldest_section());
}

/* One thread sweeps at a time; who finds another at it leaves it one more round to do. */
static void sweep(void) {
  __atomic_store_n(&sweep_wanted, 1, __ATOMIC_SEQ_CST);
  while (load(&sweep_wanted) != 0 && pthread_mutex_trylock(&sweep_lock) == 0) {
    while (load(&sweep_wanted) != 0) {
      __atomic_exchange_n(&sweep_wanted, 0, __ATOMIC_SEQ_CST);
      sweep_all_records();
    }
    pthread_mutex_unlock(&sweep_lock);
  }
}

/* ---- Records ---- */

/* Hands the frees that wait on `record` to the shared one, as if they were asked for now. Behind the record's lock.
 */
static void orphan_pending(struct memory_record *record) {
  ck_stack_t taken = CK_STACK_INITIALIZER;
  take_pending(record, &taken);
  store(&record->waiting, 0);
  store(&record->in_the_way, 0);
  pthread_mutex_lock(&orphans.lock);
  ck_pr_fence_atomic_load();
  ck_stack_entry_t *next = CK_STACK_FIRST(&taken);
  while (next != NULL) {
    ck_epoch_entry_t *const entry = entry_of(next);
    next = CK_STACK_NEXT(next);
    ck_epoch_call(&orphans.section, entry, free_entry);
  }
  store(&orphans.waiting, orphans.section.n_pending);
  pthread_mutex_unlock(&orphans.lock);
}

/* At the end of its thread. */
static void release_record(void *of_thread) {
  struct memory_record *const record = of_thread;
  own_record = NULL;
  SECTION_DONE();
  pthread_mutex_lock(&registry_lock);
  pthread_mutex_lock(&record->lock);
  orphan_pending(record);
  RECORD_LEFT(record);
  ck_epoch_unregister(&record->section);
  pthread_mutex_unlock(&record->lock);
  pthread_mutex_unlock(&registry_lock);
  sweep(); /* frees may have been left to a section that ended with its thread */
}

/* One sweep frees everything when no section is open; when one is, what it could see is rightly left alone. */
static void free_at_exit(void) {
  sweep();
}

static void before_fork(void) {
  ck_stack_entry_t *entry;
  pthread_mutex_lock(&registry_lock);
  pthread_mutex_lock(&sweep_lock);
  /* The orphans' record was the first to come, so it is the last here. */
  CK_STACK_FOREACH(&epoch.records, entry) pthread_mutex_lock(&record_of(entry)->lock);
}

static void in_parent(void) {
  ck_stack_entry_t *entry;
  CK_STACK_FOREACH(&epoch.records, entry) pthread_mutex_unlock(&record_of(entry)->lock);
  pthread_mutex_unlock(&sweep_lock);
  pthread_mutex_unlock(&registry_lock);
}

/* The other threads are not there in the child: their sections are over, their frees are everybody's. */
static void in_child(void) {
  ck_stack_entry_t *entry;
  pthread_mutex_unlock(&orphans.lock);
  CK_STACK_FOREACH(&epoch.records, entry) {
    struct memory_record *const record = record_of(entry);
    if (record == &orphans) continue;
    if (record != own_record && ck_epoch_record_ct(&record->section) != NULL) {
      orphan_pending(record);
      ck_epoch_unregister(&record->section);
    }
    pthread_mutex_unlock(&record->lock);
  }
  pthread_mutex_unlock(&sweep_lock);
  pthread_mutex_unlock(&registry_lock);
}

static void start(void) {
  ck_epoch_init(&epoch);
  ck_epoch_register(&epoch, &orphans.section, &orphans);
  if (pthread_key_create(&record_key, release_record) != 0) fatal("no thread key left for memory sections");
  pthread_atfork(before_fork, in_parent, in_child);
  atexit(free_at_exit);
}

/* A record that a thread has left, or a new one. Null when there is no memory for one. A record's context is
 * non-null exactly while some thread has it. Behind registry_lock. */
static struct memory_record *recycle_or_make(void) {
  ck_epoch_record_t *const left = ck_epoch_recycle(&epoch, &epoch);
  if (left != NULL) return (struct memory_record *)left; /* its first member */
  struct memory_record *const record = aligned_alloc(_Alignof(struct memory_record), sizeof *record);
  if (record == NULL) return NULL;
  memset(record, 0, sizeof *record);
  pthread_mutex_init(&record->lock, NULL);
  RECORD_MADE();
  ck_epoch_register(&epoch, &record->section, &epoch);
  return record;
}

/* This thread's record, made on first use. Null when there is no memory for one. */
static struct memory_record *obtain_record(void) {
  pthread_once(&once, start);
  pthread_mutex_lock(&registry_lock);
  struct memory_record *record = recycle_or_make();
  if (record != NULL) RECORD_TAKEN(record);
  if (record != NULL && pthread_setspecific(record_key, record) != 0) {
    ck_epoch_unregister(&record->section);
    record = NULL;
  }
  pthread_mutex_unlock(&registry_lock);
  own_record = record;
  return record;
}

static inline struct memory_record *record_or_null(void) {
  return __builtin_expect(own_record != NULL, 1) ? own_record : obtain_record();
}

/* ---- Sections and blocks ---- */

void ruxo_memory_begin(void) {
  struct memory_record *const record = record_or_null();
  if (record == NULL) fatal("no memory to open a memory section");
  ck_epoch_begin(&record->section, NULL);
}

void ruxo_memory_end(void) {
  struct memory_record *const record = own_record;
  if (record == NULL || record->section.active == 0) fatal("a memory section is ended that was not begun");
  SECTION_DONE();
  if (!ck_epoch_end(&record->section, NULL) || __builtin_expect(load(&record->in_the_way) == 0, 1)) return;
  store(&record->in_the_way, 0);
  sweep();
}

ruxo_boolean ruxo_memory_in_cs(void) {
  return own_record != NULL && own_record->section.active > 0;
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
  struct memory_record *const own = record_or_null();
  struct memory_record *const record = own == NULL ? &orphans : own;
  const unsigned waiting = free_or_add(record, &header->entry);
  if (waiting == 1 && record->section.active > 0) {
    store(&record->in_the_way, 1); /* certainly */
  } else if (waiting > 0 && (waiting == 1 || (waiting % PENDING_BATCH == 0 && reclaim(record) > 0))) {
    if (!leave_to_oldest_section()) sweep();
  }
}

static void yield_to_sections(ck_epoch_t *waiting, ck_epoch_record_t *record, void *closure) {
  (void)waiting, (void)record, (void)closure;
  sched_yield();
}

void ruxo_memory_synchronize(void) {
  struct memory_record *const record = record_or_null();
  if (record == NULL) fatal("no memory to wait for memory sections");
  if (record->section.active > 0) fatal("a thread inside a memory section waits for all sections to end");
  ck_epoch_synchronize_wait(&epoch, yield_to_sections, NULL);
  pthread_mutex_lock(&record->lock);
  ck_epoch_reclaim(&record->section);
  store(&record->waiting, 0);
  pthread_mutex_unlock(&record->lock);
  sweep();
  /* Another thread may just be carrying out frees of this one. */
  pthread_mutex_lock(&sweep_lock);
  pthread_mutex_unlock(&sweep_lock);
}
