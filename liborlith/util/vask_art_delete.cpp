// Removed keys in the radix tree. A node with few children left makes way for one of the next smaller kind; the
// thresholds lie below those for growing, so that a key that comes and goes does not rebuild its node each time. A
// node with one child left goes, and the child gets its path.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {
namespace {

// How many children are left when a node shrinks.
constexpr unsigned kLeftInFour = 1;
constexpr unsigned kLeftInSixteen = 3;
constexpr unsigned kLeftInFortyEight = 12;
constexpr unsigned kLeftIn256 = 37;

template <typename Node>
void close_gap(Node *node, const vask_art_pin *slot) noexcept {
  const auto at = static_cast<unsigned>(slot - node->children);
  const unsigned last = --node->n.num_children;
  memmove(node->keys + at, node->keys + at + 1, last - at);
  memmove(node->children + at, node->children + at + 1, (last - at) * sizeof(*slot));
  // What is not used is zero, in images too.
  node->keys[last] = 0;
  node->children[last] = 0;
}

// Puts `smaller`, which has its children, in the place of `n`, with its path.
void replace_node(const vask_art_tree *t, vask_art_pin *ref, vask_art_node *n,
                  vask_art_node *smaller) noexcept {
  smaller->partial_len = n->partial_len;
  memcpy(smaller->partial, n->partial, kStoredPath);
  *ref = pin_of(t->ser->base, smaller);
  free_cell(t, n);
}

// The path of a node, its byte, and the path of the one child that is left become the child's path.
void join_paths(const vask_art_node4 *node, vask_art_node *child) noexcept {
  uint8_t joined[kStoredPath] = {};
  uint32_t len = stored_path_len(&node->n);
  memcpy(joined, node->n.partial, len);
  if (len < kStoredPath) joined[len++] = node->keys[0];
  memcpy(joined + len, child->partial, std::min(stored_path_len(child), kStoredPath - len));
  memcpy(child->partial, joined, kStoredPath);
  child->partial_len += node->n.partial_len + 1;
}

void remove_from_four(const vask_art_tree *t, vask_art_pin *ref, vask_art_node4 *node,
                      vask_art_pin *slot) noexcept {
  close_gap(node, slot);
  if (node->n.num_children != kLeftInFour) return;
  const vask_art_pin child = node->children[0];
  if (!IS_LEAF(child)) join_paths(node, node_at(t->ser->base, child));
  *ref = child;
  free_cell(t, node);
}

void remove_from_sixteen(const vask_art_tree *t, vask_art_pin *ref, vask_art_node16 *node,
                         vask_art_pin *slot) noexcept {
  close_gap(node, slot);
  if (node->n.num_children != kLeftInSixteen) return;
  vask_art_node4 *smaller = node4(alloc_node(t, NODE4));
  smaller->n.num_children = kLeftInSixteen;
  memcpy(smaller->keys, node->keys, kLeftInSixteen);
  memcpy(smaller->children, node->children, kLeftInSixteen * sizeof(*slot));
  replace_node(t, ref, &node->n, &smaller->n);
}

void remove_from_forty_eight(const vask_art_tree *t, vask_art_pin *ref, vask_art_node48 *node, uint8_t c,
                             vask_art_pin *slot) noexcept {
  node->keys[c] = 0;
  *slot = 0;
  if (--node->n.num_children != kLeftInFortyEight) return;
  vask_art_node16 *smaller = node16(alloc_node(t, NODE16));
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (node->keys[byte] == 0) continue;
    const unsigned at = smaller->n.num_children++;
    smaller->keys[at] = static_cast<uint8_t>(byte);
    smaller->children[at] = node->children[node->keys[byte] - 1];
  }
  replace_node(t, ref, &node->n, &smaller->n);
}

void remove_from_256(const vask_art_tree *t, vask_art_pin *ref, vask_art_node256 *node,
                     vask_art_pin *slot) noexcept {
  *slot = 0;
  if (--node->n.num_children != kLeftIn256) return;
  vask_art_node48 *smaller = node48(alloc_node(t, NODE48));
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (node->children[byte] == 0) continue;
    const unsigned at = smaller->n.num_children++;
    smaller->keys[byte] = static_cast<uint8_t>(at + 1);
    smaller->children[at] = node->children[byte];
  }
  replace_node(t, ref, &node->n, &smaller->n);
}

// Takes the child in `slot`, below the byte `c`, out of a node; `ref` is the slot that holds the node.
void remove_child(const vask_art_tree *t, vask_art_pin *ref, vask_art_node *n, uint8_t c,
                  vask_art_pin *slot) noexcept {
  switch (n->type) {
    case NODE4:
      return remove_from_four(t, ref, node4(n), slot);
    case NODE16:
      return remove_from_sixteen(t, ref, node16(n), slot);
    case NODE48:
      return remove_from_forty_eight(t, ref, node48(n), c, slot);
    case NODE256:
      return remove_from_256(t, ref, node256(n), slot);
    default:
      unknown_node_type(n);
  }
}

}  // namespace

void *delete_key(vask_art_tree *t, const Key &key, bool *removed) noexcept {
  const uintptr_t base = t->ser->base;
  vask_art_pin *ref = nullptr;  // the slot that holds `parent`
  vask_art_node *parent = nullptr;
  vask_art_pin *slot = &t->root;
  uint8_t c = 0;
  size_t depth = 0;
  while (*slot != 0 && !IS_LEAF(*slot)) {
    vask_art_node *n = node_at(base, *slot);
    ask_for_node_tail(base, *slot);
    if (n->partial_len != 0) {
      if (!stored_path_may_match(n, key, depth)) return nullptr;
      depth += n->partial_len;
    }
    c = key.at(depth);
    vask_art_pin *child = find_child(n, c);
    if (child == nullptr) return nullptr;
    ref = slot;
    parent = n;
    slot = child;
    ++depth;
  }
  if (*slot == 0) return nullptr;
  ask_for_leaf_tail(base, *slot, key);
  vask_art_leaf *leaf = leaf_at(base, *slot);
  if (!leaf_matches(leaf, key)) return nullptr;
  if (parent != nullptr) {
    remove_child(t, ref, parent, c, slot);
  } else {
    t->root = 0;
  }
  void *value = leaf->value;
  free_cell(t, leaf);
  *removed = true;
  return value;
}

}  // namespace liborlith
