/* A region of bytes that its owner may modify, so that a view lying inside it can be patched in place (for
 * example, a NUL written over the separator that ends a field). Owns nothing; one thread at a time. */
#ifndef LIBORLITH_UTIL_RW_BUFFER_H
#define LIBORLITH_UTIL_RW_BUFFER_H

#include "liborlith/util/mem_reader.h"

RUXO_BEGIN_DECLS

typedef struct rw_buffer {
  mem_reader_t mem; /* the region; always made from writable bytes */
} rw_buffer_t;

/* Makes the region (null, 0). */
RUXO_EXPORT void rw_buffer_init(rw_buffer_t *s);

/* Makes the region the `size` bytes at `bytes`, which are borrowed and must be writable. */
RUXO_EXPORT void rw_buffer_fill(rw_buffer_t *s, void *bytes, size_t size);

/* Writes a view of the whole region to `output`. */
RUXO_EXPORT void rw_buffer_get_reader(const rw_buffer_t *s, mem_reader_t *output);

/* Stores `write_char` in the byte just before `successor` starts; true when stored. Refuses, changing
 * nothing, a successor that is null, that starts at or before the region's start, or that starts beyond its
 * end. A successor that starts exactly at the end is accepted: the last byte is written. */
RUXO_EXPORT ruxo_boolean rw_buffer_write_preceding_byte(rw_buffer_t *s, const mem_reader_t *successor,
                                                        char write_char);

/* The writable form of the view `pos`, if it lies inside the region (its end may be the region's end); else
 * null. */
RUXO_EXPORT uint8_t *rw_buffer_get_buffer(const rw_buffer_t *s, const mem_reader_t *pos);

RUXO_END_DECLS

#endif
