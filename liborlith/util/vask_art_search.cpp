// Look-up in the radix tree: of a key, and of where a prefix ends.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {

size_t matching_path_len(uintptr_t base, const vask_art_node *n, const Key &key, size_t depth) noexcept {
  if (n->partial_len <= kStoredPath && stored_path_matches(n, key, depth)) return n->partial_len;
  const size_t stored = std::min<size_t>(stored_path_len(n), key.left(depth));
  size_t i = 0;
  while (i < stored && n->partial[i] == key.bytes[depth + i]) ++i;
  if (i < kStoredPath || n->partial_len <= kStoredPath) return i;
  const vask_art_leaf *leaf = minimum_leaf(base, pin_of(base, n));
  const size_t end = std::min({size_t{leaf->key_len}, key.len, depth + n->partial_len});
  while (depth + i < end && leaf->key[depth + i] == key.bytes[depth + i]) ++i;
  return i;
}

PrefixEnd find_prefix_end(const vask_art_tree *t, const Key &prefix) noexcept {
  constexpr PrefixEnd kNone = {0, 0};
  const uintptr_t base = t->ser->base;
  vask_art_pin pin = t->root;
  size_t depth = 0;
  while (pin != 0 && !IS_LEAF(pin)) {
    vask_art_node *n = node_at(base, pin);
    if (depth >= prefix.len) {
      // Paths have been compared whole, so this only fails for keys that are prefixes of others.
      return leaf_starts_with(minimum_leaf(base, pin), prefix) ? PrefixEnd{pin, depth} : kNone;
    }
    const size_t matching = matching_path_len(base, n, prefix, depth);
    if (depth + matching == prefix.len) return {pin, depth};
    if (matching < n->partial_len) return kNone;
    depth += n->partial_len;
    const vask_art_pin *child = find_child(n, prefix.at(depth));
    if (child == nullptr) return kNone;
    pin = *child;
    ++depth;
  }
  if (pin == 0 || !leaf_starts_with(leaf_at(base, pin), prefix)) return kNone;
  return {pin, depth};
}

namespace {

const vask_art_leaf *find_leaf(const vask_art_tree *t, const Key &key) noexcept {
  const uintptr_t base = t->ser->base;
  vask_art_pin pin = t->root;
  size_t depth = 0;
  while (!IS_LEAF(pin)) {
    if (pin == 0) return nullptr;
    vask_art_node *n = node_at(base, pin);
    ask_for_node_tail(base, pin);
    // A branch, so that where there is no path, which is the rule, the child can be asked for before the node is there.
    if (n->partial_len != 0) {
      if (!stored_path_may_match(n, key, depth)) return nullptr;
      depth += n->partial_len;
    }
    if (depth >= key.len) return nullptr;
    const vask_art_pin *child = find_child(n, key.bytes[depth]);
    if (child == nullptr) return nullptr;
    pin = *child;
    ++depth;
  }
  ask_for_leaf_tail(base, pin, key);
  const vask_art_leaf *leaf = leaf_at(base, pin);
  return leaf_matches(leaf, key) ? leaf : nullptr;
}

}  // namespace
}  // namespace liborlith

using namespace liborlith;

void *vask_art_search(const vask_art_tree *t, const unsigned char *key, int len) {
  const vask_art_leaf *leaf = find_leaf(t, Key(key, len));
  if (leaf == nullptr) return nullptr;
  if (t->ops == nullptr || t->ops->deserialize == nullptr) return leaf->value;
  const auto stored = reinterpret_cast<uintptr_t>(leaf->value);
  return t->ops->deserialize(t->ops_closure, t, stored != 0 ? address_of(t->ser->base + stored) : nullptr);
}
