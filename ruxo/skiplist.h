/* An ordered list of pointers under a caller's order, held as one sorted array: neighbours are adjacent in memory
 * and a whole list is built in one pass. Not synchronised; any change invalidates nodes. */
#ifndef RUXO_SKIPLIST_H
#define RUXO_SKIPLIST_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_skiplist ruxo_skiplist;
/* A position in the list; null is "none". */
typedef void *const *ruxo_skiplist_node;
/* Orders two elements (or, for the key form, a key against an element) as memcmp does. */
typedef int (*ruxo_skiplist_compare_f)(const void *a, const void *b);

RUXO_EXPORT ruxo_skiplist *ruxo_skiplist_alloc(ruxo_skiplist_compare_f compare,
                                               ruxo_skiplist_compare_f compare_key);
/* The new element's node, or null when an equal element is present. */
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_insert(ruxo_skiplist *sl, void *data);
/* Replaces the whole content by `count` elements that are strictly ascending. Returns 0; -1, changing nothing,
 * when they are not or memory ran out. */
RUXO_EXPORT int ruxo_skiplist_build(ruxo_skiplist *sl, void *const *sorted, size_t count);
/* The same for elements that lie `stride` bytes apart from `first` on, already in order (an array of structures). */
RUXO_EXPORT int ruxo_skiplist_build_strided(ruxo_skiplist *sl, void *first, size_t stride, size_t count);
RUXO_EXPORT int ruxo_skiplist_remove(ruxo_skiplist *sl, const void *data, void (*free_data)(void *));
RUXO_EXPORT size_t ruxo_skiplist_size(const ruxo_skiplist *sl);
/* The element equal to `key` (null: none). *prev and *next, each if not null, become the nearest nodes strictly
 * before and after the key. */
RUXO_EXPORT void *ruxo_skiplist_find(const ruxo_skiplist *sl, const void *key, ruxo_skiplist_node *node);
RUXO_EXPORT void *ruxo_skiplist_find_neighbors(const ruxo_skiplist *sl, const void *key, ruxo_skiplist_node *node,
                                               ruxo_skiplist_node *prev, ruxo_skiplist_node *next);
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_first(const ruxo_skiplist *sl);
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_next(const ruxo_skiplist *sl, ruxo_skiplist_node node);
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_previous(const ruxo_skiplist *sl, ruxo_skiplist_node node);
RUXO_EXPORT void *ruxo_skiplist_data(ruxo_skiplist_node node);
RUXO_EXPORT void ruxo_skiplist_destroy(ruxo_skiplist *sl, void (*free_data)(void *));

RUXO_END_DECLS

#endif
