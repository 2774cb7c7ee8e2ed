/* Tracing spans, as far as logging needs them: a thread's active span can collect the lines logged under it. */
#ifndef RUXO_ZIPKIN_H
#define RUXO_ZIPKIN_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_zipkin_span ruxo_zipkin_span;

RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_span_new(const char *name);
RUXO_EXPORT void ruxo_zipkin_span_free(ruxo_zipkin_span *span); /* not while it is any thread's active span */
RUXO_EXPORT const char *ruxo_zipkin_span_name(const ruxo_zipkin_span *span);
/* A random number that is never 0; log lines written under the span carry it as 16 hex digits. */
RUXO_EXPORT uint64_t ruxo_zipkin_span_trace_id(const ruxo_zipkin_span *span);
/* This thread's active span; null: none. Setting returns the one that was active. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_active_span(void);
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_set_active_span(ruxo_zipkin_span *span);
/* Whether lines logged while the span is active are kept as its annotations. */
RUXO_EXPORT void ruxo_zipkin_span_attach_logs(ruxo_zipkin_span *span, ruxo_boolean attach);
RUXO_EXPORT ruxo_boolean ruxo_zipkin_span_logs_attached(const ruxo_zipkin_span *span);
RUXO_EXPORT size_t ruxo_zipkin_span_annotation_count(const ruxo_zipkin_span *span);
RUXO_EXPORT const char *ruxo_zipkin_span_annotation(const ruxo_zipkin_span *span, size_t index);

RUXO_END_DECLS

#endif
