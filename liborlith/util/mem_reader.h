/* Views of bytes, narrowed step by step: what the parsers cut names and lines up with.
 *
 * A mem_reader owns nothing; the bytes it views must outlive it and need not be NUL-terminated. An empty
 * reader is (null, 0) or (pointer, 0); each function says which one it produces. Functions take the reader to
 * look at by const pointer and write their result into `output`, which may be the input itself: the input is
 * read before the output is written. Nothing here allocates, logs, aborts or fails in any other way than it
 * says. Any thread; one reader belongs to one thread at a time.
 *
 * All functions are inline for the ingestion path, and the library exports each one as a symbol as well. */
#ifndef LIBORLITH_UTIL_MEM_READER_H
#define LIBORLITH_UTIL_MEM_READER_H

#include <string.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

#define MEM_READER_INLINE RUXO_EXPORT inline

typedef struct mem_reader {
  const uint8_t *input_buffer; /* not owned; may be null */
  size_t input_buffer_size;    /* bytes in view */
} mem_reader_t;

/* Sets (null, 0). */
MEM_READER_INLINE void mem_reader_init_empty(mem_reader_t *reader) {
  reader->input_buffer = NULL;
  reader->input_buffer_size = 0;
}

/* Sets (bytes, size); `bytes` is borrowed for as long as the reader and the views made from it are used. */
MEM_READER_INLINE void mem_reader_init_mem(mem_reader_t *reader, const void *bytes, size_t size) {
  reader->input_buffer = (const uint8_t *)bytes;
  reader->input_buffer_size = size;
}

/* Skips the first n bytes. With n at most the size: output is the rest, (pointer, 0) when nothing is left,
 * and n is returned. Otherwise output is (null, 0) and the input's size is returned. */
MEM_READER_INLINE size_t mem_reader_try_advance(const mem_reader_t *input, size_t n, mem_reader_t *output) {
  const size_t size = input->input_buffer_size;
  if (n > size) {
    mem_reader_init_empty(output);
    return size;
  }
  /* C does not define null + 0. */
  mem_reader_init_mem(output, n == 0 ? input->input_buffer : input->input_buffer + n, size - n);
  return n;
}

/* Keeps the first n bytes. False, with (null, 0), when the input has fewer. */
MEM_READER_INLINE ruxo_boolean mem_reader_try_truncate(const mem_reader_t *input, size_t n,
                                                       mem_reader_t *output) {
  if (input->input_buffer_size < n) {
    mem_reader_init_empty(output);
    return ruxo_false;
  }
  mem_reader_init_mem(output, input->input_buffer, n);
  return ruxo_true;
}

/* The part of `whole` that ends k bytes before `later` starts: with k = 1 and a `later` found by one of the
 * searches below, the part before the separator. Unchecked: `later` must start inside `whole` (or at its
 * end), at least k bytes after its start. A search that missed gives no such view: look at its result first.
 */
MEM_READER_INLINE void mem_reader_truncate_to(const mem_reader_t *whole, const mem_reader_t *later, size_t k,
                                              mem_reader_t *output) {
  const uint8_t *start = whole->input_buffer;
  mem_reader_init_mem(output, start, (size_t)(later->input_buffer - start) - k);
}

/* The start of the view; may be null. */
MEM_READER_INLINE const uint8_t *mem_reader_get_buffer(const mem_reader_t *reader) {
  return reader->input_buffer;
}

/* The number of bytes in view. */
MEM_READER_INLINE size_t mem_reader_get_buffer_size(const mem_reader_t *reader) {
  return reader->input_buffer_size;
}

/* Searches forward. Found at index i: output is what follows the separator, (pointer, 0) when it is the last
 * byte; returns i + 1. Missed: output is (null, 0); returns size + 1, or 0 for an empty input. So a hit is a
 * result from 1 to the input's size. */
MEM_READER_INLINE size_t mem_reader_find_pos_after_sep(const mem_reader_t *input, char sep,
                                                       mem_reader_t *output) {
  const uint8_t *start = input->input_buffer;
  const size_t size = input->input_buffer_size;
  if (size == 0) {
    mem_reader_init_empty(output);
    return 0;
  }
  const void *hit = memchr(start, (unsigned char)sep, size);
  if (hit == NULL) {
    mem_reader_init_empty(output);
    return size + 1;
  }
  return mem_reader_try_advance(input, (size_t)((const uint8_t *)hit - start) + 1, output);
}

/* Searches backward, for the last separator. Found at index i: output is what follows it, (pointer, 0) when
 * it is the last byte; returns i + 1. Missed or empty: output is (null, 0); returns 0, which differs from the
 * forward search on purpose. */
MEM_READER_INLINE size_t mem_reader_find_pos_after_sep_from_end(const mem_reader_t *input, char sep,
                                                                mem_reader_t *output) {
  const uint8_t *start = input->input_buffer;
  for (size_t after = input->input_buffer_size; after > 0; --after) {
    if (start[after - 1] == (unsigned char)sep) return mem_reader_try_advance(input, after, output);
  }
  mem_reader_init_empty(output);
  return 0;
}

/* Skips `len` bytes if the input begins with exactly those at `bytes`: true, with the rest in output.
 * Otherwise, also when the input is shorter than `len`, false, and output is a copy of the input. */
MEM_READER_INLINE ruxo_boolean mem_reader_advance_if_match(const mem_reader_t *input, const void *bytes,
                                                           size_t len, mem_reader_t *output) {
  const ruxo_boolean match =
      input->input_buffer_size >= len && (len == 0 || memcmp(input->input_buffer, bytes, len) == 0);
  mem_reader_try_advance(input, match ? len : 0, output);
  return match;
}

RUXO_END_DECLS

#endif
