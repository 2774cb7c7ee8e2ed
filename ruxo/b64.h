/* Base64, the standard alphabet with padding (RFC 4648, section 4). */
#ifndef RUXO_B64_H
#define RUXO_B64_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Characters that `len` bytes encode to, without a NUL. */
RUXO_EXPORT size_t ruxo_b64_encode_len(size_t len);
/* Writes the encoding and no NUL. Returns its length, or 0 when dest_len is smaller than it. */
RUXO_EXPORT size_t ruxo_b64_encode(const void *src, size_t len, char *dest, size_t dest_len);
/* An upper bound of what `len` characters decode to. */
RUXO_EXPORT size_t ruxo_b64_max_decode_len(size_t len);
/* Strict: whole groups of four, padding only at the end, unused bits zero, nothing else. Returns the decoded
 * length; 0 on any fault, also when dest_len is too small. */
RUXO_EXPORT size_t ruxo_b64_decode(const char *src, size_t len, void *dest, size_t dest_len);

RUXO_END_DECLS

#endif
