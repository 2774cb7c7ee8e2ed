/* Base64, the standard alphabet with padding (RFC 4648, section 4).
 * Lengths are in bytes, without a NUL anywhere. Nothing is kept. Any thread, on different buffers. */
#ifndef RUXO_B64_H
#define RUXO_B64_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The number of characters that `len` bytes encode to; SIZE_MAX when it is larger than that. */
RUXO_EXPORT size_t ruxo_b64_encode_len(size_t len);

/* Encodes `len` bytes of `src` into `dest`, which has room for `dest_len` characters; no NUL is written, so
 * exactly ruxo_b64_encode_len(len) are enough. `src` and `dest` must not overlap. Returns the number of
 * characters written; 0, writing nothing, when dest_len is too small. Nothing encodes to nothing: 0 too. */
RUXO_EXPORT size_t ruxo_b64_encode(const void *src, size_t len, char *dest, size_t dest_len);

/* An upper bound of the bytes that `len` characters decode to (up to two more than they do). */
RUXO_EXPORT size_t ruxo_b64_max_decode_len(size_t len);

/* Decodes `len` characters of `src` into `dest`, which has room for `dest_len` bytes; room for exactly the
 * decoded bytes is enough. Strict: whole groups of four, padding only at the end, the bits that padding
 * leaves over zero, no white space, nothing else; so each sequence of bytes has exactly one text. `src` and
 * `dest` must not overlap. Returns the number of bytes written; 0 on any fault, when `len` is 0 and when
 * dest_len is too small, and `dest` may then hold a part of the bytes, never beyond dest_len. */
RUXO_EXPORT size_t ruxo_b64_decode(const char *src, size_t len, void *dest, size_t dest_len);

RUXO_END_DECLS

#endif
