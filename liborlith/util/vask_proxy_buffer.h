/* Proxy buffers, which spool a peer's answer to a request. */
#ifndef LIBORLITH_UTIL_VASK_PROXY_BUFFER_H
#define LIBORLITH_UTIL_VASK_PROXY_BUFFER_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams "debug/vask_proxy_buffer" and "error/vask_proxy_buffer". */
RUXO_EXPORT extern ruxo_log_stream_t vask_proxy_buffer_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t vask_proxy_buffer_error_ls;

/* Opens the streams; once in a process. */
RUXO_EXPORT void vask_proxy_buffer_lib_init(void);

RUXO_END_DECLS

#endif
