/* Joins: completion counters for parallel work.
 *
 * A join counts holds. Its creator has one, each piece of work adds its own before it starts and releases it when it
 * ends, and whoever releases the last one runs the completion. With a parent, a join counts as one hold on that until
 * it completes, so a whole tree of work completes from the leaves up.
 *
 * A join is freed by the call that releases its last hold; nobody may use its pointer after a release of theirs that
 * could have been the last. Holds may be added and released on any thread. */
#ifndef LIBORLITH_UTIL_JOIN_H
#define LIBORLITH_UTIL_JOIN_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams "debug/joiner" and "error/joiner". */
RUXO_EXPORT extern ruxo_log_stream_t join_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t join_error_ls;

/* Names the callback of the deferred commit ("liborlith_join_commit_helper") and opens the streams; once in a
 * process. */
RUXO_EXPORT void liborlith_join_init(void);

/* Runs once, on the thread that released the last hold, before the parent is released. It must not touch the join. */
typedef void (*liborlith_join_completion_f)(void *closure);

typedef struct _liborlith_join_t {
  uint32_t wait_count; /* outstanding holds; changed only atomically */
  liborlith_join_completion_f completion;
  void *closure;
  struct _liborlith_join_t *parent;
} liborlith_join_t;

/* A new join with one hold, the caller's, to be released with liborlith_join_commit. `parent` (may be null) must not
 * have completed; it gets one more hold. `completion` may be null; `closure` is only passed on to it. Running out of
 * memory is not survived. */
RUXO_EXPORT liborlith_join_t *liborlith_join_create(liborlith_join_t *parent,
                                                    liborlith_join_completion_f completion, void *closure);

/* Adds `wait_count` holds; the caller knows that one is outstanding. */
RUXO_EXPORT void liborlith_join_wait_more(liborlith_join_t *joiner, uint32_t wait_count);

/* Releases one hold. True if it was the last: then the completion has run, the parent's hold has been released (which
 * may have completed that, too), and the join is gone. */
RUXO_EXPORT ruxo_boolean liborlith_join_one(liborlith_join_t *joiner);

/* The creator's release, once it has started all the work: the same as liborlith_join_one. Until then the completion
 * cannot run. */
RUXO_EXPORT ruxo_boolean liborlith_join_commit(liborlith_join_t *joiner);

/* The same on the next cycle of the event loop, never within this call, for a creator that is not ready yet for what
 * the completion does. The completion, if this was the last hold, runs on the calling thread where that is a loop
 * thread, else on one of them in turn. Before eventer_start() it waits for that; a loop that is stopped first leaves
 * the hold in place, and the join with whoever knows it. Fatal without memory. */
RUXO_EXPORT void liborlith_join_commit_nextcycle(liborlith_join_t *joiner);

RUXO_END_DECLS

#endif
