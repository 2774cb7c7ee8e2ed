/* JSON values: strict (RFC 8259), UTF-8 checked, depth and size limited.
 *
 * Reading refuses, besides what is no JSON: integers that fit neither int64_t nor uint64_t, fractional
 * numbers beyond a double, an escaped surrogate that is not one of a pair, a NUL in a member's name. Of
 * members of the same name the last one counts.
 *
 * Values form trees. The caller owns a root and frees it; a container owns what was put into it, and what the
 * getters hand out is borrowed from it. A null pointer is JSON's null wherever a value is taken; the getters
 * take any type and answer "nothing" (0, false, null) for the wrong one. Threads: one at a time for one tree,
 * readers included. */
#ifndef RUXO_JSON_H
#define RUXO_JSON_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Texts longer, or containers nested deeper, than this are refused. */
#define RUXO_JSON_MAX_BYTES ((size_t)64 << 20)
#define RUXO_JSON_MAX_DEPTH 64

typedef struct ruxo_json_object ruxo_json_object;

typedef enum {
  RUXO_JSON_NULL,
  RUXO_JSON_BOOLEAN,
  RUXO_JSON_DOUBLE, /* a number written with a fraction or an exponent */
  RUXO_JSON_INT,    /* any other number, of 64 bits, signed or not */
  RUXO_JSON_OBJECT,
  RUXO_JSON_ARRAY,
  RUXO_JSON_STRING
} ruxo_json_type_t;

/* Parses one complete value with nothing but white space around it, from a text with a NUL or from `len`
 * bytes. The text is only read. Returns a new root, non-null for the text "null" too; null on any fault and
 * when memory ran out. */
RUXO_EXPORT ruxo_json_object *ruxo_json_parse(const char *text);
RUXO_EXPORT ruxo_json_object *ruxo_json_parse_n(const char *text, size_t len);

/* The same for what the descriptor `fd` gives from its position to its end. Null, besides, when that is more than
 * `max_bytes` (or RUXO_JSON_MAX_BYTES), or cannot be read; where the descriptor then stands is not said. It stays open
 * and the caller's. */
RUXO_EXPORT ruxo_json_object *ruxo_json_from_fd(int fd, size_t max_bytes);

/* The compact text, which ruxo_json_parse() takes (unless the tree is deeper than its limit); members in the
 * order added, slashes not escaped, numbers that were parsed with a fraction as they were spelled. Owned by
 * the value and valid until its next change or text, or its end. Null when memory ran out. */
RUXO_EXPORT const char *ruxo_json_text(ruxo_json_object *o);

/* Frees a root and all it holds. Null is ignored. */
RUXO_EXPORT void ruxo_json_free(ruxo_json_object *o);

/* New roots; null when memory ran out. */
RUXO_EXPORT ruxo_json_object *ruxo_json_new_object(void);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_array(void);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_int(int64_t value);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_uint(uint64_t value);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_boolean(ruxo_boolean value);

/* A copy of the text up to its NUL, or of `len` bytes, which may hold NULs and are at most
 * RUXO_JSON_MAX_BYTES (null beyond). Bytes that are no UTF-8 are replaced, each by U+FFFD, so that the
 * written text is valid. */
RUXO_EXPORT ruxo_json_object *ruxo_json_new_string(const char *text);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_string_len(const char *text, size_t len);

/* Written with the fewest digits that read back the same value, and with a ".0" or an exponent when it is
 * whole, so that it stays a double; null, which is JSON's null, for NaN and the infinities. */
RUXO_EXPORT ruxo_json_object *ruxo_json_new_double(double value);

/* Sets the member `key` (copied) of an object, replacing and freeing the value it had; adds to the end of an
 * array. Both take over the root `value`, which must not be the container or hold it. False when the
 * container is of another type, the key is no UTF-8, or memory ran out: then nothing changes and `value`
 * stays with the caller. */
RUXO_EXPORT ruxo_boolean ruxo_json_object_set(ruxo_json_object *o, const char *key, ruxo_json_object *value);
RUXO_EXPORT ruxo_boolean ruxo_json_array_add(ruxo_json_object *array, ruxo_json_object *value);

/* The type; RUXO_JSON_NULL for a null pointer. */
RUXO_EXPORT ruxo_json_type_t ruxo_json_type(const ruxo_json_object *o);

/* The member of that name; null when there is none or its value is null, which *present (unless null) tells
 * apart. */
RUXO_EXPORT ruxo_json_object *ruxo_json_object_get(const ruxo_json_object *o, const char *key,
                                                   ruxo_boolean *present);

/* The number of elements, and the one at `index`; null past the end and for null. */
RUXO_EXPORT size_t ruxo_json_array_length(const ruxo_json_object *array);
RUXO_EXPORT ruxo_json_object *ruxo_json_array_get(const ruxo_json_object *array, size_t index);

/* Whether it is a RUXO_JSON_INT whose value the type holds. */
RUXO_EXPORT ruxo_boolean ruxo_json_is_int64(const ruxo_json_object *o);
RUXO_EXPORT ruxo_boolean ruxo_json_is_uint64(const ruxo_json_object *o);

/* The value of a RUXO_JSON_INT; 0 when the type cannot hold it: nothing is clamped. */
RUXO_EXPORT int64_t ruxo_json_int(const ruxo_json_object *o);
RUXO_EXPORT uint64_t ruxo_json_uint(const ruxo_json_object *o);

/* The value of either kind of number; the nearest double for a large RUXO_JSON_INT. */
RUXO_EXPORT double ruxo_json_double(const ruxo_json_object *o);

/* The value of a RUXO_JSON_BOOLEAN; false for another type. */
RUXO_EXPORT ruxo_boolean ruxo_json_boolean(const ruxo_json_object *o);

/* The bytes of a string, borrowed, with a NUL behind them; they may hold NULs, so *len (unless null) is their
 * true length. Null and 0 for another type. */
RUXO_EXPORT const char *ruxo_json_string(const ruxo_json_object *o, size_t *len);

RUXO_END_DECLS

#endif
