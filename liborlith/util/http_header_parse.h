/* A parser of response header lines, with the signature of libcurl's header callback.
 *
 * libcurl delivers one line a call, its CR LF included; the parser splits it at the first colon and hands the key in
 * lower case (ASCII) and the value to a callback. It never refuses: the status line, lines of more than 1 MiB, without
 * a colon, or without CR LF behind the value are passed over, and the result is always the whole length, so that a
 * header can not make a transfer fail. Each call is a line of its own: folded lines are not joined (RFC 9112, 5.2, has
 * them obsolete).
 *
 * A context belongs to one thread at a time. */
#ifndef LIBORLITH_UTIL_HTTP_HEADER_PARSE_H
#define LIBORLITH_UTIL_HTTP_HEADER_PARSE_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Longer lines, in bytes with their CR LF, are passed over. */
#define HTTP_HEADER_PARSE_MAX_HEADER_SIZE (1024 * 1024)

/* Where a parser that joins pieces of a line would be. This one sees whole lines: its state is always EMPTY. */
typedef enum {
  HTTP_HEADER_PARSE_STATE_EMPTY = 0,
  HTTP_HEADER_PARSE_STATE_READING_KEY = 1,
  HTTP_HEADER_PARSE_STATE_READING_VALUE_WS = 2,
  HTTP_HEADER_PARSE_STATE_READING_VALUE_DATA = 3,
  HTTP_HEADER_PARSE_STATE_OVERFLOW = 4
} http_header_parse_state_e;

/* Both texts are the callee's to read and change during the call. The value begins at its first byte that is no white
 * space and ends before CR LF: blanks at its end stay. */
typedef void (*http_header_parse_f)(char *key, char *value, void *closure);

/* Just over 1 MiB: part of its owner, or of a frame on a stack that has the room. */
typedef struct _http_header_parse_ctx_t {
  http_header_parse_state_e state;
  char buffer[HTTP_HEADER_PARSE_MAX_HEADER_SIZE]; /* the line; not cleared between lines */
  char *key;                                      /* into the buffer, null between lines */
  char *value;                                    /* likewise */
  size_t filled;                                  /* always 0: lines come whole */
  http_header_parse_f parse_cb;
  void *parse_closure;
} http_header_parse_ctx_t;

/* Prepares a context: `cb` (not null) is called for each header with `closure`. */
RUXO_EXPORT void http_header_parse_ctx_init(http_header_parse_ctx_t *ctx, http_header_parse_f cb,
                                            void *closure);

/* Forgets the line; the callback and the bytes of the buffer stay. */
RUXO_EXPORT void http_header_parse_ctx_reset(http_header_parse_ctx_t *ctx);

/* Takes one line: `size` times `nmemb` bytes at `ptr`, which need no NUL behind them and may hold any bytes. `ctx` is
 * an http_header_parse_ctx_t, without a type for libcurl. Returns size * nmemb. */
RUXO_EXPORT size_t http_header_parse(char *ptr, size_t size, size_t nmemb, void *ctx);

RUXO_END_DECLS

#endif
