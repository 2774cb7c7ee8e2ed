/* Events and the names of their callbacks. */
#ifndef RUXO_EVENTER_H
#define RUXO_EVENTER_H

#include <sys/time.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

#define EVENTER_READ 0x01
#define EVENTER_WRITE 0x02
#define EVENTER_EXCEPTION 0x04
#define EVENTER_TIMER 0x08
#define EVENTER_ASYNCH_WORK 0x10
#define EVENTER_ASYNCH_COMPLETE 0x20

typedef struct ruxo_event *eventer_t;
typedef int (*eventer_func_t)(eventer_t e, int mask, void *closure, struct timeval *now);

/* Makes `function` known as `name`, so that jobs and configuration can refer to it. A name registered again keeps
 * its first function. 0, or -1 when the name is taken by another function. */
RUXO_EXPORT int eventer_name_callback(const char *name, eventer_func_t function);
RUXO_EXPORT eventer_func_t eventer_callback_for_name(const char *name); /* null: unknown */
RUXO_EXPORT const char *eventer_name_for_callback(eventer_func_t function); /* null: unnamed */

RUXO_EXPORT eventer_t eventer_alloc(void);
RUXO_EXPORT void eventer_free(eventer_t e);
RUXO_EXPORT void eventer_set_mask(eventer_t e, int mask);
RUXO_EXPORT int eventer_get_mask(eventer_t e);

RUXO_END_DECLS

#endif
