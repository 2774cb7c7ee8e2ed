/* Events and the names of their callbacks. */
#ifndef RUXO_EVENTER_H
#define RUXO_EVENTER_H

#include <sys/time.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* What an event waits for, and what its callback is told has happened. */
#define EVENTER_READ 0x01
#define EVENTER_WRITE 0x02
#define EVENTER_EXCEPTION 0x04
#define EVENTER_TIMER 0x08
#define EVENTER_ASYNCH_WORK 0x10
#define EVENTER_ASYNCH_COMPLETE 0x20

typedef struct ruxo_event *eventer_t;
/* A callback: `mask` of the above is what happened, `closure` is the event's own, `now` the time of the call.
 * It returns the mask to wait for next, 0 when the event is done. */
typedef int (*eventer_func_t)(eventer_t e, int mask, void *closure, struct timeval *now);

/* Makes `function` known as `name`, so that jobs and configuration can refer to it. The name is copied; names
 * are never forgotten. A function may have several names and is called by the first. Registering the same
 * pair again changes nothing and is fine. Returns 0; -1, changing nothing, when the name belongs to another
 * function or memory ran out. Any thread. */
RUXO_EXPORT int eventer_name_callback(const char *name, eventer_func_t function);

/* The function known as `name`; null when there is none. Any thread. */
RUXO_EXPORT eventer_func_t eventer_callback_for_name(const char *name);

/* The first name that `function` was given, valid for the life of the process; null when it has none. Any
 * thread. */
RUXO_EXPORT const char *eventer_name_for_callback(eventer_func_t function);

/* A new event with mask 0, owned by the caller, who frees it; null when memory ran out. Any thread. */
RUXO_EXPORT eventer_t eventer_alloc(void);

/* Frees an event that is not registered anywhere; null is ignored. */
RUXO_EXPORT void eventer_free(eventer_t e);

/* Sets or reads what the event waits for. One thread at a time for one event. */
RUXO_EXPORT void eventer_set_mask(eventer_t e, int mask);
RUXO_EXPORT int eventer_get_mask(eventer_t e);

RUXO_END_DECLS

#endif
