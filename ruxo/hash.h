/* A hash table from byte strings to pointers. Keys are any bytes, of any length and none; they are copied
 * into the table and hashed (XXH3) with a seed drawn once a process, because keys come from outside. Values
 * are only carried: they are the caller's, null is one like others. Threads: not synchronised. Any number may
 * read one table at once, or one may change it. */
#ifndef RUXO_HASH_H
#define RUXO_HASH_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_hash_table {
  void *impl; /* null: empty, nothing allocated; so a zeroed table is an initialised one */
} ruxo_hash_table;

/* Is given a value that leaves the table; it may use the table. */
typedef void (*ruxo_hash_free_f)(void *data);

/* Makes `h` an empty table, without a look at what it held before. Allocates nothing. */
RUXO_EXPORT void ruxo_hash_init(ruxo_hash_table *h);

/* Stores `data` under a copy of the key's key_len bytes. Returns 1; 0, leaving the table as it was, when the
 * key is present (ruxo_hash_retrieve() tells) or memory ran out. */
RUXO_EXPORT int ruxo_hash_store(ruxo_hash_table *h, const void *key, size_t key_len, void *data);

/* Stores `data`, in place of the key's old value if there is one, which is then given to free_data unless
 * that is null. Returns 1; 0, leaving the table and the old value as they were, when memory ran out. */
RUXO_EXPORT int ruxo_hash_replace(ruxo_hash_table *h, const void *key, size_t key_len, void *data,
                                  ruxo_hash_free_f free_data);

/* Looks the key up, without allocating. Returns 1 and sets *data, unless `data` is null; 0, leaving *data
 * alone, when the key is absent. */
RUXO_EXPORT int ruxo_hash_retrieve(const ruxo_hash_table *h, const void *key, size_t key_len, void **data);

/* Removes the key; its value is then given to free_data unless that is null. Returns 1, or 0 when it is
 * absent. */
RUXO_EXPORT int ruxo_hash_delete(ruxo_hash_table *h, const void *key, size_t key_len,
                                 ruxo_hash_free_f free_data);

/* The number of keys. */
RUXO_EXPORT size_t ruxo_hash_size(const ruxo_hash_table *h);

/* Calls f for each entry, in no order, on the calling thread, with `closure` handed through. The key is
 * borrowed for the call. f must not change the table and must not throw. */
RUXO_EXPORT void ruxo_hash_each(const ruxo_hash_table *h,
                                void (*f)(const void *key, size_t key_len, void *data, void *closure),
                                void *closure);

/* Empties the table and gives its memory back; each value is given to free_data unless that is null. The
 * table can be used again, and destroyed again. */
RUXO_EXPORT void ruxo_hash_destroy(ruxo_hash_table *h, ruxo_hash_free_f free_data);

RUXO_END_DECLS

#endif
