// New keys in the radix tree. A key that parts from a leaf, or from a path, gets a node of four at the fork; a node
// without room for a child makes way for one of the next kind.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {
namespace {

vask_art_pin new_leaf(const vask_art_tree *t, const Key &key, void *value) noexcept {
  auto *leaf = static_cast<vask_art_leaf *>(alloc_unset(t, key.len + sizeof(vask_art_leaf)));
  leaf->value = value;
  leaf->key_len = static_cast<uint32_t>(key.len);
  if (key.len > 0) memcpy(leaf->key, key.bytes, key.len);
  // The cell has room for four bytes more, and they are zero.
  memset(leaf->key + key.len, 0, sizeof(vask_art_leaf) - offsetof(vask_art_leaf, key));
  return SET_LEAF(pin_of(t->ser->base, leaf));
}

uint8_t leaf_byte(const vask_art_leaf *leaf, size_t depth) noexcept {
  return depth < leaf->key_len ? leaf->key[depth] : uint8_t{0};
}

void set_path(vask_art_node *n, const unsigned char *bytes, size_t len) noexcept {
  n->partial_len = static_cast<uint32_t>(len);
  const uint32_t stored = stored_path_len(n);
  if (stored > 0) memmove(n->partial, bytes, stored);
  memset(n->partial + stored, 0, kStoredPath - stored);
}

template <typename Node>
void put_at(Node *node, unsigned at, uint8_t c, vask_art_pin child) noexcept {
  const unsigned after = node->n.num_children - at;
  memmove(node->keys + at + 1, node->keys + at, after);
  memmove(node->children + at + 1, node->children + at, after * sizeof(child));
  node->keys[at] = c;
  node->children[at] = child;
  ++node->n.num_children;
}

void put_into_four(vask_art_node4 *node, uint8_t c, vask_art_pin child) noexcept {
  unsigned at = 0;
  while (at < node->n.num_children && node->keys[at] <= c) ++at;
  put_at(node, at, c, child);
}

void put_into_sixteen(vask_art_node16 *node, uint8_t c, vask_art_pin child) noexcept {
  // By signed bytes on purpose: trees are walked in the order that this has made.
  put_at(node, first_below(bytes_greater(node->keys, c), node->n.num_children), c, child);
}

void put_into_forty_eight(vask_art_node48 *node, uint8_t c, vask_art_pin child) noexcept {
  unsigned slot = 0;
  while (node->children[slot] != 0) ++slot;
  node->children[slot] = child;
  node->keys[c] = static_cast<uint8_t>(slot + 1);
  ++node->n.num_children;
}

// Puts `larger` in the place of `n`, with its path and number of children.
void replace_node(const vask_art_tree *t, vask_art_pin *ref, vask_art_node *n,
                  vask_art_node *larger) noexcept {
  larger->partial_len = n->partial_len;
  larger->num_children = n->num_children;
  memcpy(larger->partial, n->partial, kStoredPath);
  *ref = pin_of(t->ser->base, larger);
  free_cell(t, n);
}

vask_art_node16 *grow_four(const vask_art_tree *t, vask_art_pin *ref, vask_art_node4 *node) noexcept {
  vask_art_node16 *larger = node16(alloc_node(t, NODE16));
  memcpy(larger->keys, node->keys, sizeof(node->keys));
  memcpy(larger->children, node->children, sizeof(node->children));
  replace_node(t, ref, &node->n, &larger->n);
  return larger;
}

vask_art_node48 *grow_sixteen(const vask_art_tree *t, vask_art_pin *ref, vask_art_node16 *node) noexcept {
  vask_art_node48 *larger = node48(alloc_node(t, NODE48));
  memcpy(larger->children, node->children, sizeof(node->children));
  for (unsigned i = 0; i < 16; ++i) larger->keys[node->keys[i]] = static_cast<uint8_t>(i + 1);
  replace_node(t, ref, &node->n, &larger->n);
  return larger;
}

vask_art_node256 *grow_forty_eight(const vask_art_tree *t, vask_art_pin *ref,
                                   vask_art_node48 *node) noexcept {
  vask_art_node256 *larger = node256(alloc_node(t, NODE256));
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (node->keys[byte] != 0) larger->children[byte] = node->children[node->keys[byte] - 1];
  }
  replace_node(t, ref, &node->n, &larger->n);
  return larger;
}

// Adds a child below a byte that has none. `ref` is the slot that holds the node.
void add_child(const vask_art_tree *t, vask_art_pin *ref, vask_art_node *n, uint8_t c,
               vask_art_pin child) noexcept {
  switch (n->type) {
    case NODE4:
      if (n->num_children < 4) return put_into_four(node4(n), c, child);
      return put_into_sixteen(grow_four(t, ref, node4(n)), c, child);
    case NODE16:
      if (n->num_children < 16) return put_into_sixteen(node16(n), c, child);
      return put_into_forty_eight(grow_sixteen(t, ref, node16(n)), c, child);
    case NODE48:
      if (n->num_children < 48) return put_into_forty_eight(node48(n), c, child);
      n = &grow_forty_eight(t, ref, node48(n))->n;
      break;
    case NODE256:
      break;
    default:
      unknown_node_type(n);
  }
  // The 256th child wraps the count to 0 on purpose: it has eight bits in every image, and only the test for shrinking
  // looks at it, at 37.
  ++n->num_children;
  node256(n)->children[c] = child;
}

// A leaf stands where the key leads: both go below a node of four that has what they share as its path.
void split_leaf(const vask_art_tree *t, vask_art_pin *ref, const Key &key, size_t depth,
                void *value) noexcept {
  const uintptr_t base = t->ser->base;
  const vask_art_pin old_pin = *ref;
  const vask_art_leaf *old = leaf_at(base, old_pin);
  size_t fork = depth;
  while (fork < key.len && fork < old->key_len && key.bytes[fork] == old->key[fork]) ++fork;
  vask_art_node4 *node = node4(alloc_node(t, NODE4));
  set_path(&node->n, key.bytes + std::min(depth, key.len), fork - depth);
  put_into_four(node, leaf_byte(old, fork), old_pin);
  put_into_four(node, key.at(fork), new_leaf(t, key, value));
  *ref = pin_of(base, node);
}

// The key leaves the path of a node after `matching` bytes: a node of four gets what lies before the fork as its path,
// the old node keeps what follows it.
void split_path(const vask_art_tree *t, vask_art_pin *ref, size_t matching, const Key &key, size_t depth,
                void *value) noexcept {
  const uintptr_t base = t->ser->base;
  const vask_art_pin old_pin = *ref;
  vask_art_node *old = node_at(base, old_pin);
  // The byte at the fork and what the old node holds of its path from now on: from the node, or, where the path is
  // longer, from a leaf below.
  unsigned char rest[1 + kStoredPath] = {};
  if (old->partial_len > kStoredPath) {
    const vask_art_leaf *leaf = minimum_leaf(base, old_pin);
    for (size_t i = 0; i < sizeof rest; ++i) rest[i] = leaf_byte(leaf, depth + matching + i);
  } else {
    memcpy(rest, old->partial + matching, kStoredPath - matching);
  }
  vask_art_node4 *node = node4(alloc_node(t, NODE4));
  set_path(&node->n, old->partial, matching);
  set_path(old, rest + 1, old->partial_len - matching - 1);
  put_into_four(node, rest[0], old_pin);
  put_into_four(node, key.at(depth + matching), new_leaf(t, key, value));
  *ref = pin_of(base, node);
}

}  // namespace

void *insert_key(vask_art_tree *t, const Key &key, void *value, bool replace, bool *added) noexcept {
  const uintptr_t base = t->ser->base;
  vask_art_pin *ref = &t->root;
  size_t depth = 0;
  while (*ref != 0 && !IS_LEAF(*ref)) {
    vask_art_node *n = node_at(base, *ref);
    ask_for_node_tail(base, *ref);
    if (n->partial_len != 0) {
      const size_t matching = matching_path_len(base, n, key, depth);
      if (matching < n->partial_len) {
        split_path(t, ref, matching, key, depth, value);
        *added = true;
        return nullptr;
      }
      depth += n->partial_len;
    }
    const uint8_t c = key.at(depth);
    vask_art_pin *child = find_child(n, c);
    if (child == nullptr) {
      add_child(t, ref, n, c, new_leaf(t, key, value));
      *added = true;
      return nullptr;
    }
    ref = child;
    ++depth;
  }
  if (*ref == 0) {
    *ref = new_leaf(t, key, value);
  } else {
    vask_art_leaf *leaf = leaf_at(base, *ref);
    if (leaf_matches(leaf, key)) {
      void *old = leaf->value;
      if (replace) leaf->value = value;
      return old;
    }
    split_leaf(t, ref, key, depth, value);
  }
  *added = true;
  return nullptr;
}

}  // namespace liborlith
