/* Moving the work of a request handler onto a job queue. */
#ifndef LIBORLITH_UTIL_GO_ASYNCH_H
#define LIBORLITH_UTIL_GO_ASYNCH_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams "debug/go_asynch" and "error/go_asynch". */
RUXO_EXPORT extern ruxo_log_stream_t go_asynch_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t go_asynch_error_ls;

/* Opens the streams; once in a process. */
RUXO_EXPORT void orlith_go_asynch_lib_init(void);

RUXO_END_DECLS

#endif
