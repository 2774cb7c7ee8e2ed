/* Moving the work of a request handler onto a job queue.
 *
 * A handler on a loop thread that has to do work which blocks, such as merging what several peers answer, hands that
 * to a job queue and returns. For a request over HTTP the connection leaves the loop meanwhile: nothing of it is read
 * and no deadline runs. The job's completion runs on the connection's thread; it adds the connection's event again with
 * eventer_add(), and ends the response.
 *
 * The callback is one of ruxo/eventer.h: called with EVENTER_ASYNCH_WORK on a worker, then with EVENTER_ASYNCH_COMPLETE
 * on the owner; or with EVENTER_ASYNCH_CANCEL alone when the queue is closed before the work began. Its closure is
 * only passed on. `jobq` may be null: the default queue. Any thread; running out of memory is fatal. */
#ifndef LIBORLITH_UTIL_GO_ASYNCH_H
#define LIBORLITH_UTIL_GO_ASYNCH_H

#include "ruxo/eventer.h"
#include "ruxo/http.h"
#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams "debug/go_asynch" and "error/go_asynch". */
RUXO_EXPORT extern ruxo_log_stream_t go_asynch_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t go_asynch_error_ls;

/* Opens the streams; once in a process. */
RUXO_EXPORT void orlith_go_asynch_lib_init(void);

/* Hands the work to the queue. Always 0. */
RUXO_EXPORT int orlith_go_asynch(eventer_jobq_t *jobq, eventer_func_t asynch_func, void *asynch_closure);

/* The same for the handler of a request, which takes its connection's event off the loop first and completes on that
 * event's owner. A null connection, or one whose event is off the loop already, changes nothing. Call it on
 * the connection's thread, then return from the handler. Always 0. */
RUXO_EXPORT int orlith_http_go_asynch(eventer_jobq_t *jobq, eventer_func_t asynch_func, void *asynch_closure,
                                      ruxo_http_connection_t *connection);

RUXO_END_DECLS

#endif
