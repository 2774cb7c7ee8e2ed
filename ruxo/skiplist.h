/* An ordered list of pointers under a caller's order, held as one sorted array: neighbours are adjacent in
 * memory, a search is a binary search, a whole list is built in one pass. Inserting or removing one element
 * moves those behind it, so large lists are built, not grown. Elements are the caller's: they are carried,
 * compared, and freed only through a callback. Threads: not synchronised. Any number may read one list at
 * once, or one may change it. Any change invalidates the nodes that were handed out. */
#ifndef RUXO_SKIPLIST_H
#define RUXO_SKIPLIST_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct ruxo_skiplist ruxo_skiplist;
/* A position in the list; null is "none". It points into the one array of all elements, in order, so the node of the
 * smallest element is that array until the list changes. */
typedef void *const *ruxo_skiplist_node;
/* Orders two elements (or, in the key form, a key `a` against an element `b`): negative, zero or positive as
 * `a` comes before, is equal to or comes after `b`. A strict weak order, and the same one in both forms. */
typedef int (*ruxo_skiplist_compare_f)(const void *a, const void *b);

/* A new empty list, to be given to ruxo_skiplist_destroy(). `compare` orders elements, `compare_key` keys
 * against elements; the latter may be null if no find is called. Null when memory ran out. */
RUXO_EXPORT ruxo_skiplist *ruxo_skiplist_alloc(ruxo_skiplist_compare_f compare,
                                               ruxo_skiplist_compare_f compare_key);

/* Inserts `data` at its place. Returns its node; null, changing nothing, when an equal element is present or
 * memory ran out. */
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_insert(ruxo_skiplist *sl, void *data);

/* Replaces the whole content by the `count` elements of `sorted` (copied), which must be strictly ascending:
 * that is checked, one compare an element. The old elements are dropped, not freed. Returns 0; -1, changing
 * nothing, when two neighbours are not ascending or memory ran out. */
RUXO_EXPORT int ruxo_skiplist_build(ruxo_skiplist *sl, void *const *sorted, size_t count);

/* The same for `count` elements that lie `stride` bytes apart from `first` on, already in order: an array of
 * structures, which must outlive the list. Eight million elements that compare by memcmp take about 0.1 s,
 * half of it for the check. */
RUXO_EXPORT int ruxo_skiplist_build_strided(ruxo_skiplist *sl, void *first, size_t stride, size_t count);

/* Removes the element equal to `data` and gives it to free_data, unless that is null. Returns 1, or 0 when
 * there is none. */
RUXO_EXPORT int ruxo_skiplist_remove(ruxo_skiplist *sl, const void *data, void (*free_data)(void *));

/* The number of elements. */
RUXO_EXPORT size_t ruxo_skiplist_size(const ruxo_skiplist *sl);

/* The element equal to `key`, and its node in *node unless `node` is null; both null when there is none. */
RUXO_EXPORT void *ruxo_skiplist_find(const ruxo_skiplist *sl, const void *key, ruxo_skiplist_node *node);

/* The same; and *prev and *next, each unless null, become the nearest nodes strictly before and strictly
 * after the key, whether or not it was found: null at the respective end. */
RUXO_EXPORT void *ruxo_skiplist_find_neighbors(const ruxo_skiplist *sl, const void *key,
                                               ruxo_skiplist_node *node, ruxo_skiplist_node *prev,
                                               ruxo_skiplist_node *next);

/* The node of the smallest element; null when the list is empty. */
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_first(const ruxo_skiplist *sl);

/* The node after or before `node`, which is one of this list; null at the end, at the start, and for null. */
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_next(const ruxo_skiplist *sl, ruxo_skiplist_node node);
RUXO_EXPORT ruxo_skiplist_node ruxo_skiplist_previous(const ruxo_skiplist *sl, ruxo_skiplist_node node);

/* The node's element; null for null. */
RUXO_EXPORT void *ruxo_skiplist_data(ruxo_skiplist_node node);

/* Frees the list, giving each element to free_data unless that is null; free_data must not use the list. Null
 * is ignored. */
RUXO_EXPORT void ruxo_skiplist_destroy(ruxo_skiplist *sl, void (*free_data)(void *));

RUXO_END_DECLS

#endif
