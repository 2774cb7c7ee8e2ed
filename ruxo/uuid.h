/* UUIDs as 16 bytes, in the order of their text, and as 36 characters (RFC 4122, section 3).
 * Nothing is allocated or kept. Any thread. */
#ifndef RUXO_UUID_H
#define RUXO_UUID_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

#define RUXO_UUID_SIZE 16
#define RUXO_UUID_STRING_SIZE 37 /* with the NUL */

typedef uint8_t ruxo_uuid_t[RUXO_UUID_SIZE];

/* Parses exactly 36 characters and a NUL into the 16 bytes of `out`: hyphens at 8, 13, 18 and 23, hexadecimal
 * digits of either case elsewhere; any version and variant. Nothing behind the first NUL or the 37th
 * character is read. Returns 0, or -1 leaving `out` as it was. */
RUXO_EXPORT int ruxo_uuid_parse(const char *text, uint8_t *out);

/* The same over the `len` bytes at `text`, which need no NUL: 36, or it is refused. */
RUXO_EXPORT int ruxo_uuid_parse_n(const char *text, size_t len, uint8_t *out);

/* Writes 36 lower-case characters and a NUL to `out`, which has room for RUXO_UUID_STRING_SIZE. */
RUXO_EXPORT void ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out);

/* Writes a new random UUID (version 4), from the system's source of random numbers, to the 16 bytes of `out`. */
RUXO_EXPORT void ruxo_uuid_generate(uint8_t *out);

/* Orders two UUIDs by their bytes, as memcmp does. */
RUXO_EXPORT int ruxo_uuid_compare(const uint8_t *a, const uint8_t *b);

RUXO_END_DECLS

#endif
