/* A hash table from byte strings to pointers. Keys are copied into the table and hashed with a seed drawn once a
 * process, because keys come from outside. Not synchronised: the caller locks. */
#ifndef RUXO_HASH_H
#define RUXO_HASH_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_hash_table {
  void *impl; /* null: empty, nothing allocated; so a zeroed table is an initialised one */
} ruxo_hash_table;

typedef void (*ruxo_hash_free_f)(void *data);

RUXO_EXPORT void ruxo_hash_init(ruxo_hash_table *h);
/* 1 when stored; 0 when the key is present (the table keeps its old value) or memory ran out. */
RUXO_EXPORT int ruxo_hash_store(ruxo_hash_table *h, const void *key, size_t key_len, void *data);
/* Stores or overwrites; an overwritten value is given to free_data when that is not null. 1, or 0 out of memory. */
RUXO_EXPORT int ruxo_hash_replace(ruxo_hash_table *h, const void *key, size_t key_len, void *data,
                                  ruxo_hash_free_f free_data);
/* 1 and *data (data may be null) when present, else 0. */
RUXO_EXPORT int ruxo_hash_retrieve(const ruxo_hash_table *h, const void *key, size_t key_len, void **data);
RUXO_EXPORT int ruxo_hash_delete(ruxo_hash_table *h, const void *key, size_t key_len, ruxo_hash_free_f free_data);
RUXO_EXPORT size_t ruxo_hash_size(const ruxo_hash_table *h);
/* Calls f for each entry, in no order; f must not change the table. */
RUXO_EXPORT void ruxo_hash_each(const ruxo_hash_table *h,
                                void (*f)(const void *key, size_t key_len, void *data, void *closure),
                                void *closure);
RUXO_EXPORT void ruxo_hash_destroy(ruxo_hash_table *h, ruxo_hash_free_f free_data);

RUXO_END_DECLS

#endif
