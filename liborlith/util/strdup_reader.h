/* An rw_buffer that owns a private copy of a NUL-terminated string, for parsers that patch their input.
 * Initialise with strdup_reader_init before anything else, release with strdup_reader_cleanup. One thread at
 * a time. */
#ifndef LIBORLITH_UTIL_STRDUP_READER_H
#define LIBORLITH_UTIL_STRDUP_READER_H

#include "liborlith/util/rw_buffer.h"

RUXO_BEGIN_DECLS

typedef struct strdup_reader {
  rw_buffer_t to_free; /* the copy, without its NUL; owned, released with free() */
} strdup_reader_t;

/* Makes it own nothing. Does not look at what `s` held before. */
RUXO_EXPORT void strdup_reader_init(strdup_reader_t *s);

/* Frees the copy, if there is one, and makes it own nothing. Harmless when repeated. */
RUXO_EXPORT void strdup_reader_cleanup(strdup_reader_t *s);

/* Frees an earlier copy, then copies `input` (NUL-terminated, only read during the call). The region excludes
 * the NUL, which still follows it in memory. False when there is no memory; then it owns nothing. */
RUXO_EXPORT ruxo_boolean strdup_reader_try_fill(strdup_reader_t *s, const char *input);

/* The region, valid for as long as the copy is. */
RUXO_EXPORT rw_buffer_t *strdup_reader_get_buffer(strdup_reader_t *s);

RUXO_END_DECLS

#endif
