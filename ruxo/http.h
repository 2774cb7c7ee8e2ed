/* The HTTP server: HTTP/1.0 and 1.1 (RFC 9112), with or without TLS, on the loop threads of ruxo/eventer.h.
 *
 * A server listens on addresses and knows routes. A connection belongs to one loop thread; all that happens to it
 * happens there, unless its handler takes it off the loop (below). A request is refused when it is malformed (400), has
 * no or several Hosts (400), an unknown transfer coding (501), expectation (417) or version (505), a URL, header block,
 * number of fields or body beyond the limits (414, 431, 413), or is slower than the deadlines (408 where it had begun,
 * else a plain close). Only a body can be refused after a handler has seen the request. What follows a request that was
 * refused is not read. Refusals are logged on the stream "error/http", or, while that has no outlet, on the global one.
 *
 * Strings handed to handlers live as long as the session. Sessions and connections are the server's; the connection's
 * next request does not begin before the response was ended. Texts given in are copied. Unless it says otherwise, a
 * function about a session is for its connection's loop thread. doc/http-server.md has the whole behaviour. */
#ifndef RUXO_HTTP_H
#define RUXO_HTTP_H

#include <sys/types.h>

#include "ruxo/eventer.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_http_server ruxo_http_server_t;
typedef struct ruxo_http_connection ruxo_http_connection_t;
/* One request and its response. */
typedef struct ruxo_http_session_ctx ruxo_http_session_ctx;

/* ---- Servers ---- */

/* Limits of a server, in bytes, in number, or in milliseconds (0: no such deadline). ruxo_http_limits_default() sets
 * the values that the comments begin with. */
typedef struct ruxo_http_limits {
  size_t max_url;             /* 8192 */
  size_t max_header_bytes;    /* 65536, the request line included */
  size_t max_headers;         /* 100, fields of a trailer included */
  uint64_t max_body;          /* 1 MiB, for routes that do not have their own */
  unsigned max_connections;   /* 4096; a further one is answered 503 and closed */
  unsigned max_requests;      /* on one connection: 0, which is any number */
  uint64_t header_timeout_ms; /* 10000, from a request's first byte to its empty line; also for TLS */
  uint64_t body_timeout_ms;   /* 30000, without a byte of the body arriving */
  uint64_t idle_timeout_ms;   /* 60000, before the first request and between two */
  uint64_t write_timeout_ms;  /* 30000, without a byte of the response leaving */
} ruxo_http_limits_t;
RUXO_EXPORT void ruxo_http_limits_default(ruxo_http_limits_t *limits);

/* A server without routes and addresses. `limits` is copied, null means the defaults. Null when memory ran out. It is
 * prepared by one thread at a time. */
RUXO_EXPORT ruxo_http_server_t *ruxo_http_server_new(const ruxo_http_limits_t *limits);

/* What happens to a session: its handler is called with HEAD when the headers have been read, with BODY for each piece
 * of the body, and with COMPLETE when all has been read; or with ABORTED, after any of these, when the connection was
 * lost, cut or the request refused before the response was ended: then it releases what it keeps, and touches the
 * session no more. Once the response was ended it is not called any more. A handler that only answers can look for
 * COMPLETE and ignore the rest. */
typedef enum { RUXO_HTTP_HEAD, RUXO_HTTP_BODY, RUXO_HTTP_COMPLETE, RUXO_HTTP_ABORTED } ruxo_http_phase_t;
/* `bytes` is the piece of the body, for this call (null but for BODY). Returns 0; with anything else the client is
 * answered 500, whatever the response was to be, and the connection closed, and the handler is not called again. */
typedef int (*ruxo_http_handler_f)(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes,
                                   size_t len, void *closure);

/* Makes `handler` answer `method` ("GET" also answers HEAD, whose body is dropped) on the path `path`, or, when that
 * ends in '/', on all paths that begin with it; the longest that has the method counts. Paths are compared as they are
 * sent, byte by byte and without the query. `max_body` 0 means the server's limit. A path that is known under another
 * method only is answered 405 with Allow, one that is not known 404. 0; -1 when memory ran out, the method and path
 * have a handler, or the server listens already. */
RUXO_EXPORT int ruxo_http_server_route(ruxo_http_server_t *server, const char *method, const char *path,
                                       uint64_t max_body, ruxo_http_handler_f handler, void *closure);

/* Answers over TLS (1.2 and later) from now on, with a certificate chain and a key in PEM files. 0; -1 and *err (the
 * caller frees it) when they do not load or do not belong together. Before listening. */
RUXO_EXPORT int ruxo_http_server_tls(ruxo_http_server_t *server, const char *certificate_file,
                                     const char *key_file, char **err);

/* Listens on an IPv4 or IPv6 address; port 0 takes a free one. Returns the port; -1 and *err (the caller frees it).
 * Several addresses are fine. Connections are given to the loop threads in turn. Before eventer_start() they wait. */
RUXO_EXPORT int ruxo_http_server_listen(ruxo_http_server_t *server, const char *address, uint16_t port,
                                        char **err);

/* Stops: listens no more, closes idle connections, lets requests that have begun finish (their responses say
 * "Connection: close") for up to `grace_ms` milliseconds, then closes what is left, and frees the server. Returns the
 * number of requests that were cut. Connections that float are cut off from their client, and freed once they are back
 * and their response is ended. Not from a loop thread. After eventer_stop() it ends everything at once. */
RUXO_EXPORT size_t ruxo_http_server_stop(ruxo_http_server_t *server, uint64_t grace_ms);

/* ---- Requests ---- */

RUXO_EXPORT const char *ruxo_http_request_method(const ruxo_http_session_ctx *ctx);
/* The path as sent, without the query and, for a whole URL, from its path on; and the query without its '?', null when
 * there is none. */
RUXO_EXPORT const char *ruxo_http_request_path(const ruxo_http_session_ctx *ctx);
RUXO_EXPORT const char *ruxo_http_request_query(const ruxo_http_session_ctx *ctx);
/* The header of that name in any case, values of several joined by ", "; null when there is none or no memory. */
RUXO_EXPORT const char *ruxo_http_request_header(ruxo_http_session_ctx *ctx, const char *name);
/* The length of the body as announced; -1 when it is chunked. */
RUXO_EXPORT int64_t ruxo_http_request_content_length(const ruxo_http_session_ctx *ctx);
/* The address and port of the client: "127.0.0.1:1234", "[::1]:1234". */
RUXO_EXPORT const char *ruxo_http_request_peer(const ruxo_http_session_ctx *ctx);

/* Decodes %XX and nothing else from `text` into the `size` bytes at `buff`, with a NUL. Returns the length; -1 for a
 * broken escape, a NUL, or no room. */
RUXO_EXPORT ssize_t ruxo_http_percent_decode(const char *text, char *buff, size_t size);

/* The same, for a path below a folder: decoded, and refused (-1) unless it is relative and none of its components is
 * empty, "." or "..", or holds a control byte. */
RUXO_EXPORT ssize_t ruxo_http_safe_path(const char *text, char *buff, size_t size);

/* A value that the host keeps with the session; null at its beginning. */
RUXO_EXPORT void ruxo_http_session_set_closure(ruxo_http_session_ctx *ctx, void *closure);
RUXO_EXPORT void *ruxo_http_session_closure(const ruxo_http_session_ctx *ctx);

/* ---- Responses ----
 * A response is built, in any phase but ABORTED, from a status, headers and pieces of a body, and sent by
 * ruxo_http_response_end(). One that is ended before the request's body was read closes the connection behind it. */

/* 200 to 599, and 200 at first; anything else becomes 500. */
RUXO_EXPORT void ruxo_http_response_status(ruxo_http_session_ctx *ctx, int status);
/* False, and nothing is added, for a name or value that is not allowed in a header, for a header that is the server's
 * own (Content-Length, Transfer-Encoding, Connection, Keep-Alive, Upgrade, Trailer, Date), and without memory. */
RUXO_EXPORT ruxo_boolean ruxo_http_response_header(ruxo_http_session_ctx *ctx, const char *name,
                                                   const char *value);
/* Copies the bytes. False, and nothing is added, without memory. */
RUXO_EXPORT ruxo_boolean ruxo_http_response_append(ruxo_http_session_ctx *ctx, const void *bytes, size_t len);
/* Appends `len` bytes of the file `fd` from `offset` (any) on, which go to the client without passing through user
 * memory where the kernel can do that (not under TLS, where they are read a record at a time). The descriptor is
 * duplicated, so the caller may close his, and its position is not used. `flags` are mmap(2)'s and of no effect: the
 * file is never mapped, because then one that becomes shorter would end the process; so it closes the connection, and
 * the client sees a short answer as what it is. False, and nothing is added, for a descriptor that is none or no
 * file's, a length of 0, bytes that the file does not hold now, and without memory. */
RUXO_EXPORT ruxo_boolean ruxo_http_response_append_mmap_from_fd(ruxo_http_session_ctx *ctx, int fd,
                                                                size_t len, int flags, off_t offset);
/* Ends the response; the session must not be used any more. On the connection's loop thread, in its handler or later;
 * or on any thread while the connection floats (below). */
RUXO_EXPORT void ruxo_http_response_end(ruxo_http_session_ctx *ctx);

/* A complete small answer: status, type and text; then ends. */
RUXO_EXPORT void ruxo_http_respond(ruxo_http_session_ctx *ctx, int status, const char *content_type,
                                   const char *text);

/* ---- Taking a connection off its loop ----
 * A host may float the connection of a request that has been read to its end: in HEAD when there is no body, in
 * COMPLETE, or later on its loop thread. Then nothing of it is read, no deadline runs, and no ABORTED comes any more.
 * Until it is back, the response may be built, and ended, on one other thread at a time. The way back is on the
 * owner's thread (the completion of a job that has the event's owner): add the event again with eventer_add(); and end
 * the response, if that was not done yet, there and then or later on that thread. Both must happen, also where a job
 * is cancelled. */

RUXO_EXPORT ruxo_http_connection_t *ruxo_http_session_connection(ruxo_http_session_ctx *ctx);
/* The connection's event, which the caller then takes out with eventer_remove_fd(eventer_get_fd(e)), and adds again on
 * the way back; null, and nothing has changed, when it floats already, its request has not been read to its end, or its
 * response was ended. */
RUXO_EXPORT eventer_t ruxo_http_connection_event_float(ruxo_http_connection_t *connection);

RUXO_END_DECLS

#endif
