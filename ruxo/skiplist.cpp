#include "ruxo/skiplist.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "ruxo/guard_private.h"

struct ruxo_skiplist {
  ruxo_skiplist_compare_f compare;
  ruxo_skiplist_compare_f compare_key;
  // Invariant: strictly ascending under `compare`.
  std::vector<void *> elements;
};

namespace {

using Order = ruxo_skiplist_compare_f;

// The index of the first element that is not before the key.
size_t lower_bound(const ruxo_skiplist *sl, Order order, const void *key) {
  size_t first = 0;
  size_t count = sl->elements.size();
  while (count > 0) {
    const size_t half = count / 2;
    if (order(key, sl->elements[first + half]) > 0) {
      first += half + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  return first;
}

bool equal_at(const ruxo_skiplist *sl, Order order, const void *key, size_t index) {
  return index < sl->elements.size() && order(key, sl->elements[index]) == 0;
}

ruxo_skiplist_node node_at(const ruxo_skiplist *sl, size_t index) {
  return index < sl->elements.size() ? sl->elements.data() + index : nullptr;
}

template <class Element>
int build(ruxo_skiplist *sl, size_t count, Element element) {
  return ruxo::guarded(-1, [&] {
    std::vector<void *> built;
    built.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      void *const next = element(i);
      if (i > 0 && sl->compare(built.back(), next) >= 0) return -1;
      built.push_back(next);
    }
    sl->elements.swap(built);
    return 0;
  });
}

}  // namespace

ruxo_skiplist *ruxo_skiplist_alloc(ruxo_skiplist_compare_f compare, ruxo_skiplist_compare_f compare_key) {
  return ruxo::guarded<ruxo_skiplist *>(nullptr, [&] { return new ruxo_skiplist{compare, compare_key, {}}; });
}

ruxo_skiplist_node ruxo_skiplist_insert(ruxo_skiplist *sl, void *data) {
  const size_t index = lower_bound(sl, sl->compare, data);
  if (equal_at(sl, sl->compare, data, index)) return nullptr;
  return ruxo::guarded<ruxo_skiplist_node>(nullptr, [&] {
    sl->elements.insert(sl->elements.begin() + static_cast<std::ptrdiff_t>(index), data);
    return node_at(sl, index);
  });
}

int ruxo_skiplist_build(ruxo_skiplist *sl, void *const *sorted, size_t count) {
  return build(sl, count, [&](size_t i) { return sorted[i]; });
}

int ruxo_skiplist_build_strided(ruxo_skiplist *sl, void *first, size_t stride, size_t count) {
  char *const base = static_cast<char *>(first);
  return build(sl, count, [&](size_t i) -> void * { return base + i * stride; });
}

int ruxo_skiplist_remove(ruxo_skiplist *sl, const void *data, void (*free_data)(void *)) {
  const size_t index = lower_bound(sl, sl->compare, data);
  if (!equal_at(sl, sl->compare, data, index)) return 0;
  void *const removed = sl->elements[index];
  sl->elements.erase(sl->elements.begin() + static_cast<std::ptrdiff_t>(index));
  if (free_data != nullptr) free_data(removed);
  return 1;
}

size_t ruxo_skiplist_size(const ruxo_skiplist *sl) {
  return sl->elements.size();
}

void *ruxo_skiplist_find(const ruxo_skiplist *sl, const void *key, ruxo_skiplist_node *node) {
  return ruxo_skiplist_find_neighbors(sl, key, node, nullptr, nullptr);
}

void *ruxo_skiplist_find_neighbors(const ruxo_skiplist *sl, const void *key, ruxo_skiplist_node *node,
                                   ruxo_skiplist_node *prev, ruxo_skiplist_node *next) {
  const size_t index = lower_bound(sl, sl->compare_key, key);
  const bool found = equal_at(sl, sl->compare_key, key, index);
  if (node != nullptr) *node = found ? node_at(sl, index) : nullptr;
  if (prev != nullptr) *prev = index > 0 ? node_at(sl, index - 1) : nullptr;
  if (next != nullptr) *next = node_at(sl, found ? index + 1 : index);
  return found ? sl->elements[index] : nullptr;
}

ruxo_skiplist_node ruxo_skiplist_first(const ruxo_skiplist *sl) {
  return node_at(sl, 0);
}

ruxo_skiplist_node ruxo_skiplist_next(const ruxo_skiplist *sl, ruxo_skiplist_node node) {
  return node == nullptr ? nullptr : node_at(sl, static_cast<size_t>(node - sl->elements.data()) + 1);
}

ruxo_skiplist_node ruxo_skiplist_previous(const ruxo_skiplist *sl, ruxo_skiplist_node node) {
  return node == nullptr || node == sl->elements.data() ? nullptr : node - 1;
}

void *ruxo_skiplist_data(ruxo_skiplist_node node) {
  return node == nullptr ? nullptr : *node;
}

void ruxo_skiplist_destroy(ruxo_skiplist *sl, void (*free_data)(void *)) {
  const std::unique_ptr<ruxo_skiplist> owned(sl);
  if (owned != nullptr && free_data != nullptr) std::ranges::for_each(owned->elements, free_data);
}
