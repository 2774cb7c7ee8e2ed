/* Tracing spans: what a request took, in this process and in those it called.
 *
 * A thread's active span stands for what the thread works on; lines logged under it carry its trace and can become its
 * annotations. A client span is a request that this thread makes to a peer, and a child of its active span; a server
 * span is a request that a peer made to this process. Peers hand traces on in four headers (B3): X-B3-TraceId,
 * X-B3-ParentSpanId, X-B3-SpanId and X-B3-Sampled. Published spans go to a collector (Zipkin v2 JSON) from a thread of
 * their own. doc/tracing.md shows headers and JSON.
 *
 * Requests are not traced before ruxo_zipkin_report_to(): until then no client or server span comes into being.
 *
 * Threads: a span may be active on several threads at once, and all functions may be called from any thread,
 * until the span is freed or published. Texts given in are copied. */
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

/* A random number that is never 0; log lines written under the span carry it as 16 hexadecimal digits. Of a trace
 * number of 128 bits, which only a peer can have given, the lower half. */
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

/* The number of annotations, and the one at `index` in the order made: a message as the caller wrote it,
 * borrowed until the span is freed; null past the end. */
RUXO_EXPORT size_t ruxo_zipkin_span_annotation_count(const ruxo_zipkin_span *span);
RUXO_EXPORT const char *ruxo_zipkin_span_annotation(const ruxo_zipkin_span *span, size_t index);

/* ---- What happened during a span ----
 * Each takes a null span, and does nothing; without memory the span lacks what was to be added. */

/* Events that make the span's own times instead of an annotation: the first and the third begin it, the others end it.
 * A span begins when it is made and ends when it is published unless it is told otherwise. */
#define ZIPKIN_CLIENT_SEND "cs"
#define ZIPKIN_CLIENT_RECV "cr"
#define ZIPKIN_SERVER_RECV "sr"
#define ZIPKIN_SERVER_SEND "ss"

/* Notes an event, one of the above or any text, with the time of the call. */
RUXO_EXPORT void ruxo_zipkin_span_annotate(ruxo_zipkin_span *span, const char *event);

/* Adds a fact under a key (a tag, "http.status_code"); a later one of that key replaces it. */
RUXO_EXPORT void ruxo_zipkin_span_bannotate_i32(ruxo_zipkin_span *span, const char *key, int32_t value);
RUXO_EXPORT void ruxo_zipkin_span_bannotate_str(ruxo_zipkin_span *span, const char *key, const char *value);

/* ---- Requests to peers ----
 * A thread has at most one client span, which the framework owns. */

/* Begins a request: a span in the trace of this thread's active span, or in a new one. One that is in progress on the
 * thread is dropped. Returns it, borrowed; null, with no span in progress, while tracing is off or without memory. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_client_start(const char *name);

/* The client span in progress on the calling thread, borrowed until it is published; null when there is none. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_client_span(void);

/* Write a header ("X-B3-TraceId: 00f067aa0ba902b7", no line end) of the client span in progress into the `len` bytes
 * at `buff`, with a NUL. They return buff; null when there is no span in progress, when it has no parent (the second),
 * and when there is no room: 49 bytes always suffice. */
RUXO_EXPORT const char *ruxo_zipkin_client_trace_header(char *buff, size_t len);
RUXO_EXPORT const char *ruxo_zipkin_client_parent_header(char *buff, size_t len);
RUXO_EXPORT const char *ruxo_zipkin_client_span_header(char *buff, size_t len);
RUXO_EXPORT const char *ruxo_zipkin_client_sampled_header(char *buff, size_t len);

/* Ends the client span in progress and hands it to the reporter, or drops it when its trace is not sampled. */
RUXO_EXPORT void ruxo_zipkin_client_publish(void);

/* ---- Requests from peers ---- */

/* A span for a request with these values of the four headers, each null when it did not come. It shares the client's
 * numbers; when the trace and span numbers are missing or wrong it begins a trace of its own. "0" and "false" for
 * sampled keep the trace from being reported, "1", "true" and "d" have it reported; without it the rate decides. The
 * caller makes it active on the threads that work on the request, and publishes or frees it. Null while tracing is off
 * and without memory. */
RUXO_EXPORT ruxo_zipkin_span *ruxo_zipkin_server_start(const char *name, const char *trace_id,
                                                       const char *parent_id, const char *span_id,
                                                       const char *sampled);

/* Ends a span of the caller's and hands it to the reporter, or frees it when its trace is not sampled. It must not be
 * active on another thread; on the calling one it is no longer. Null is ignored. */
RUXO_EXPORT void ruxo_zipkin_span_publish(ruxo_zipkin_span *span);

/* ---- Reporting ---- */

/* Spans that wait for the collector at most; further ones are dropped and counted, and so are those that the collector
 * does not take. */
#define RUXO_ZIPKIN_MAX_QUEUED 4096

/* Traces requests from now on: `sample_rate` (0 to 1) of the traces that begin here are reported, in the name of
 * `service_name`, by POST to `collector_url` ("http://HOST:9411/api/v2/spans"). A null URL ends that; what is queued
 * is still reported. False, changing nothing, for a URL that is not http or https, a rate out of range, or without
 * memory. */
RUXO_EXPORT ruxo_boolean ruxo_zipkin_report_to(const char *collector_url, const char *service_name,
                                               double sample_rate);

/* Returns true as soon as everything published before the call was sent or dropped; false when that took longer than
 * `timeout_ms` milliseconds. */
RUXO_EXPORT ruxo_boolean ruxo_zipkin_flush(uint64_t timeout_ms);

/* How many spans the collector has taken, and how many were dropped. Either pointer may be null. */
RUXO_EXPORT void ruxo_zipkin_reporter_counts(uint64_t *sent, uint64_t *dropped);

RUXO_END_DECLS

#endif
