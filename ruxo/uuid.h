/* UUIDs as 16 bytes and as 36 characters. */
#ifndef RUXO_UUID_H
#define RUXO_UUID_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

#define RUXO_UUID_SIZE 16
#define RUXO_UUID_STRING_SIZE 37 /* with the NUL */

typedef uint8_t ruxo_uuid_t[RUXO_UUID_SIZE];

/* Parses exactly 36 characters and a NUL, either case. 0, or -1 leaving `out` as it was. */
RUXO_EXPORT int ruxo_uuid_parse(const char *text, uint8_t *out);
/* The same over a view of `len` bytes. */
RUXO_EXPORT int ruxo_uuid_parse_n(const char *text, size_t len, uint8_t *out);
/* Writes 36 lower-case characters and a NUL. */
RUXO_EXPORT void ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out);
RUXO_EXPORT void ruxo_uuid_generate(uint8_t *out);
RUXO_EXPORT int ruxo_uuid_compare(const uint8_t *a, const uint8_t *b);

RUXO_END_DECLS

#endif
