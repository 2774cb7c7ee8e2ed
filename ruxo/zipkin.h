/* Tracing spans, as far as logging needs them: a thread's active span can collect the lines logged under it.
 * Threads: a span may be active on several threads at once, and all functions may be called from any thread,
 * until the span is freed. */
#ifndef RUXO_ZIPKIN_H
#define RUXO_ZIPKIN_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_zipkin_span ruxo_zipkin_span;

/* A new span with a copy of the name and a random trace number, collecting no logs; freed by the caller with
 * ruxo_zipkin_span_free(). Null when memory ran out. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_span_new(const char *name);

/* Frees a span, which must not be any thread's active one. Null is ignored. */
RUXO_EXPORT void ruxo_zipkin_span_free(ruxo_zipkin_span *span);

/* The span's name, borrowed until the span is freed. */
RUXO_EXPORT const char *ruxo_zipkin_span_name(const ruxo_zipkin_span *span);

/* A random number that is never 0; log lines written under the span carry it as 16 hexadecimal digits. */
RUXO_EXPORT uint64_t ruxo_zipkin_span_trace_id(const ruxo_zipkin_span *span);

/* The calling thread's active span, borrowed; null when it has none. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_active_span(void);

/* Makes `span` (null: none) the calling thread's active one, borrowed until it is replaced or the thread
 * ends. Returns the one that was active, null for none. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_set_active_span(ruxo_zipkin_span *span);

/* Sets whether lines logged while the span is active are kept as its annotations, which makes every stream
 * live on those threads. What was kept stays when it is switched off. */
RUXO_EXPORT void ruxo_zipkin_span_attach_logs(ruxo_zipkin_span *span, ruxo_boolean attach);
RUXO_EXPORT ruxo_boolean ruxo_zipkin_span_logs_attached(const ruxo_zipkin_span *span);

/* The number of annotations, and the one at `index` in the order logged: the message as the caller wrote it,
 * borrowed until the span is freed; null past the end. */
RUXO_EXPORT size_t ruxo_zipkin_span_annotation_count(const ruxo_zipkin_span *span);
RUXO_EXPORT const char *ruxo_zipkin_span_annotation(const ruxo_zipkin_span *span, size_t index);

RUXO_END_DECLS

#endif
