/* JSON values: always strict (RFC 8259), UTF-8 checked, depth and size limited. */
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
  RUXO_JSON_DOUBLE,
  RUXO_JSON_INT,
  RUXO_JSON_OBJECT,
  RUXO_JSON_ARRAY,
  RUXO_JSON_STRING
} ruxo_json_type_t;

/* One complete value and nothing after it; null on any fault. Freed with ruxo_json_free. */
RUXO_EXPORT ruxo_json_object *ruxo_json_parse(const char *text);
RUXO_EXPORT ruxo_json_object *ruxo_json_parse_n(const char *text, size_t len);
/* The compact text, owned by the object and valid until its next change or free. */
RUXO_EXPORT const char *ruxo_json_text(ruxo_json_object *o);
RUXO_EXPORT void ruxo_json_free(ruxo_json_object *o);

/* A null pointer is JSON's null wherever a value is taken. */
RUXO_EXPORT ruxo_json_object *ruxo_json_new_object(void);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_array(void);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_string(const char *text);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_string_len(const char *text, size_t len);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_int(int64_t value);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_uint(uint64_t value);
/* Written with the digits that read back the same value; null for NaN and the infinities. */
RUXO_EXPORT ruxo_json_object *ruxo_json_new_double(double value);
RUXO_EXPORT ruxo_json_object *ruxo_json_new_boolean(ruxo_boolean value);

/* Both take over `value`. */
RUXO_EXPORT void ruxo_json_object_set(ruxo_json_object *o, const char *key, ruxo_json_object *value);
RUXO_EXPORT void ruxo_json_array_add(ruxo_json_object *array, ruxo_json_object *value);

RUXO_EXPORT ruxo_json_type_t ruxo_json_type(const ruxo_json_object *o);
/* The member, borrowed. *present (may be null) tells an absent key from a null value. */
RUXO_EXPORT ruxo_json_object *ruxo_json_object_get(const ruxo_json_object *o, const char *key,
                                                   ruxo_boolean *present);
RUXO_EXPORT size_t ruxo_json_array_length(const ruxo_json_object *array);
RUXO_EXPORT ruxo_json_object *ruxo_json_array_get(const ruxo_json_object *array, size_t index);
RUXO_EXPORT ruxo_boolean ruxo_json_is_int64(const ruxo_json_object *o);
RUXO_EXPORT ruxo_boolean ruxo_json_is_uint64(const ruxo_json_object *o);
RUXO_EXPORT int64_t ruxo_json_int(const ruxo_json_object *o);
RUXO_EXPORT uint64_t ruxo_json_uint(const ruxo_json_object *o);
RUXO_EXPORT double ruxo_json_double(const ruxo_json_object *o);
RUXO_EXPORT ruxo_boolean ruxo_json_boolean(const ruxo_json_object *o);
RUXO_EXPORT const char *ruxo_json_string(const ruxo_json_object *o, size_t *len); /* borrowed; may hold NULs */

RUXO_END_DECLS

#endif
