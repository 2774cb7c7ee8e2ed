/* The metric filter hook: where a host, or a module loaded into it, vetoes or accepts metrics by their identity.
 *
 * Any number of filters can be registered, and none can be removed. An invocation runs them one after the other, the
 * last registered first, and combines their answers. A filter runs on whichever thread invokes the hook, possibly on
 * several at once; it may register further filters, which the running invocation does not see. */
#ifndef LIBORLITH_UTIL_LIBORLITH_HOOKS_H
#define LIBORLITH_UTIL_LIBORLITH_HOOKS_H

#include "ruxo/base.h"
#include "ruxo/hooks.h"

RUXO_BEGIN_DECLS

/* `id`: the text of the metric's check identifier; `name`: the metric's name, `name_len` bytes, not necessarily
 * NUL-terminated; both only for the duration of the call. `closure`: as it was registered. Answers:
 * RUXO_HOOK_CONTINUE, no opinion; RUXO_HOOK_DONE, accepted, though later filters still run; RUXO_HOOK_ABORT, refused,
 * at once. Any other value counts as no opinion. */
typedef ruxo_hook_return_t (*metric_filter_hook_f)(void *closure, const char *id, const char *name,
                                                   int name_len, int account_id);

/* One registered filter. Complete before it becomes reachable and never changed or freed after that. */
typedef struct ruxo_hook_metric_filter_list {
  char *optional_name; /* a private copy, or null */
  const char *proto;   /* the text of metric_filter_hook_proto() */
  metric_filter_hook_f func;
  void *closure;
  struct ruxo_hook_metric_filter_list *next;
} ruxo_hook_metric_filter_list;

/* The filter registered last; null while there is none. Read and changed atomically, and only by the functions
 * below. */
RUXO_EXPORT extern ruxo_hook_metric_filter_list *nh_metric_filter_list;

/* Adds a filter for good; it runs before those already there. `name` (may be null) is copied; `closure` is kept, and
 * must live as long as the process. A null `func` is kept and never called. Lock-free; any thread. Running out of
 * memory is not survived. */
RUXO_EXPORT void metric_filter_hook_register(const char *name, metric_filter_hook_f func, void *closure);

/* Whether any filter is registered. Any thread. */
RUXO_EXPORT ruxo_boolean metric_filter_hook_exists(void);

/* Asks the filters: RUXO_HOOK_ABORT as soon as one answers it, without calling the rest; otherwise RUXO_HOOK_DONE if
 * any answered that; otherwise, and without filters, RUXO_HOOK_CONTINUE. Takes no lock; sees the filters that were
 * registered when it began. Any thread. */
RUXO_EXPORT ruxo_hook_return_t metric_filter_hook_invoke(const char *id, const char *name, int name_len,
                                                         int account_id);

/* The parameters of a filter as text, by which a loadable module checks what it is attaching to. Constant. */
RUXO_EXPORT const char *metric_filter_hook_proto(void);

RUXO_END_DECLS

#endif
