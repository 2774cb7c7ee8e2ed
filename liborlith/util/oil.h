/* Ordered interval lists: when a metric stream was active.
 *
 * A list is a sorted array of closed ranges of unsigned 32-bit times. It does not know its unit; metric
 * locators keep periods of 300 seconds in it. Activity is reported with oil_put, which coalesces what touches
 * or lies within a tolerance of 96 units, so that a stream that reports steadily keeps one interval.
 * doc/interval-lists.md has the rules and the lock word in full.
 *
 * Threads: every list carries its own lock, and every function here takes what it needs: any number of
 * threads may read one list while others put into it. A put that only stretches existing intervals does not
 * hold readers up; they see the old or the new bounds. No lock is held when a function returns, and none may
 * be held when one is called: a callback of oil_iter must not call back into its list with anything that may
 * write.
 *
 * A null list reads as an empty one. Running out of memory is not survived. */
#ifndef LIBORLITH_UTIL_OIL_H
#define LIBORLITH_UTIL_OIL_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* Two intervals no further apart than this are one, as far as an append is concerned. */
#define OIL_TOLERANCE 96u

typedef struct oil_interval_s {
  uint32_t first; /* at most `last` */
  uint32_t last;  /* included */
} oil_interval_t;

/* Invariants, checked by oil_valid: (1) size <= capacity; (2) first <= last in each interval; (3) neither
 * `first` nor `last` ever decreases from one interval to the next. Neighbours may touch: a `first` may follow
 * directly on the `last` before it. The fields are public for their layout only; go through the functions. */
typedef struct oil_list_s {
  uint32_t size;           /* intervals in use */
  uint32_t capacity;       /* intervals allocated */
  oil_interval_t *entries; /* owned */
  uint64_t lock;           /* guards all of the above; changed only atomically */
} oil_list_t;

struct orlith_metric_locator;

/* The module's streams "debug/oil" and "error/oil". */
RUXO_EXPORT extern ruxo_log_stream_t oil_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t oil_error_ls;

/* Opens the streams; once in a process. */
RUXO_EXPORT void oil_lib_init(void);

/* A new empty list with room for one interval; the caller owns it and releases it with oil_free. */
RUXO_EXPORT oil_list_t *oil_alloc(void);

/* The same with room for `cap` intervals, which may be 0. */
RUXO_EXPORT oil_list_t *oil_alloc_cap(uint32_t cap);

/* Frees the list; null is ignored. Waits for a writer that is still at work, but the caller must see to it
 * that no other thread uses the list from now on. */
RUXO_EXPORT void oil_free(oil_list_t *oil);

/* An independent copy, owned by the caller, with exactly the room it needs. Null gives oil_alloc(). */
RUXO_EXPORT oil_list_t *oil_clone(oil_list_t *oil);

/* The number of intervals in use, and of those allocated. */
RUXO_EXPORT uint32_t oil_size(oil_list_t *oil);
RUXO_EXPORT uint32_t oil_capacity(oil_list_t *oil);

/* Reports activity from `first` to `last`, both included. 1 if the list changed; 0 if everything was already
 * covered, and for the two requests that mean nothing: first = last = 0, and first > last. */
RUXO_EXPORT int oil_put(oil_list_t *oil, uint32_t first, uint32_t last);

/* The first and the last active time (either pointer may be null). 1; or 0 with nothing written for an empty
 * list. */
RUXO_EXPORT int oil_epoch_apoc(oil_list_t *oil, uint32_t *epoch, uint32_t *apocalypse);

/* Whether `t` lies in an interval: 1 or 0. `idx` (may be null) receives the interval's index; for a `t` that
 * lies in none: 0 when the list is empty, -1 before the first interval, i in the gap after interval i, and
 * the list's size after the last one. */
RUXO_EXPORT int oil_find(oil_list_t *oil, uint32_t t, int *idx);

/* Whether the closed range from `a` to `b` shares a time with an interval: 1 or 0; 0 if a > b. `idx` (may be
 * null) receives the index of the first interval it overlaps, or else what oil_find gives for `a`. */
RUXO_EXPORT int oil_range_contains(oil_list_t *oil, uint32_t a, uint32_t b, int *idx);

/* 1 if both lists hold the same intervals, else 0. Locks `a`, then `b`: threads that compare the same two
 * lists while others write to them must all pass them in the same order. */
RUXO_EXPORT int oil_exact_match(oil_list_t *a, oil_list_t *b);

/* Puts every interval of `src`, which is only read, into the locator's activity list, making one if there is
 * none. 1 if that list changed, else 0. Merging a list into itself is refused with a line on the error stream
 * and 0. The caller holds the locator's activity lock exclusively. Locks `src`, then the locator's list: two
 * lists must not be merged into each other at the same time. */
RUXO_EXPORT int oil_merge_inplace(struct orlith_metric_locator *locator, oil_list_t *src);

/* 1 if the invariants above hold, else 0. */
RUXO_EXPORT int oil_valid(oil_list_t *oil);

typedef void (*oil_iter_f)(void *closure, uint32_t index, uint32_t size, uint32_t first, uint32_t last);

/* Calls `fn` for each interval in order, with its index and the list's size. The list is locked shared for
 * the whole walk, so `fn` must not put into it, merge, or free it, and should be brief: writers wait. */
RUXO_EXPORT void oil_iter(oil_list_t *oil, oil_iter_f fn, void *closure);

/* Writes "[(first,last),(first,last)]", cut to len - 1 characters and NUL-terminated, to `buf` (which may be
 * null when `len` is 0). Returns the length of the whole text without its NUL, whether or not it fitted; 0
 * and an empty text for a null list. */
RUXO_EXPORT size_t oil_print(oil_list_t *oil, char *buf, size_t len);

/* One line with the list's addresses, size, capacity and intervals to standard error; nothing for a null
 * list. */
RUXO_EXPORT void oil_debug(oil_list_t *oil);

/* The same to the debug stream, one log call for each piece of the line. */
RUXO_EXPORT void oil_dump(oil_list_t *oil);

RUXO_END_DECLS

#endif
