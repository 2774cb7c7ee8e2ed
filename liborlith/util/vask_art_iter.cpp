// In-order walks of the radix tree. The time goes into waiting for cells that lie scattered in memory, so a walk runs
// ahead of what it tells by some leaves, which are asked for meanwhile, and by the nodes beside those it enters.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {

TmpValue::TmpValue(const vask_art_tree *t, const vask_art_leaf *leaf) noexcept
    : t_(t), value_(leaf->value), made_(t->ops != nullptr && t->ops->deserialize_tmp != nullptr) {
  if (!made_) return;
  const auto stored = reinterpret_cast<uintptr_t>(leaf->value);
  value_ =
      t->ops->deserialize_tmp(t->ops_closure, t, stored != 0 ? address_of(t->ser->base + stored) : nullptr);
}

TmpValue::~TmpValue() {
  if (made_) vask_art_release_tmp(t_, value_);
}

namespace {

// How many leaves are asked for before the first of them is told.
constexpr size_t kLeavesAhead = 32;
// How many children of a node are asked for when the walk comes near it.
constexpr unsigned kChildrenAhead = 16;

// The children of a node that are to come. It fits two registers and need not be put together in memory: a processor
// that reads back, in another width, what it just wrote waits for all cells asked for before.
struct Frame {
  const vask_art_pin *children;
  uint16_t next, end;
  uint8_t type;

  vask_art_pin take() noexcept {
    if (type == NODE48) {
      const uint8_t *keys = reinterpret_cast<const uint8_t *>(children) - 256;
      const unsigned byte = next_used_key(keys, next);
      if (byte == 256) return 0;
      next = static_cast<uint16_t>(byte + 1);
      return children[keys[byte] - 1];
    }
    while (next != end) {
      if (const vask_art_pin pin = children[next++]) return pin;
    }
    return 0;
  }
};

inline Frame frame_of(vask_art_node *n) noexcept {
  switch (n->type) {
    case NODE4:
      return {node4(n)->children, 0, n->num_children, NODE4};
    case NODE16:
      return {node16(n)->children, 0, n->num_children, NODE16};
    case NODE48:
      return {node48(n)->children, 0, 256, NODE48};
    case NODE256:
      return {node256(n)->children, 0, 256, NODE256};
    default:
      unknown_node_type(n);
  }
}

// Gives leaves in order, and asks for each as it gives it.
class Leaves {
 public:
  Leaves(uintptr_t base, vask_art_pin root) noexcept : base_(base), only_(root) {
    if (root != 0) open_.push({&only_, 0, 1, NODE4});
  }
  const vask_art_leaf *next() noexcept {
    while (!open_.empty()) {
      const vask_art_pin pin = open_.top().take();
      if (pin == 0) {
        open_.pop();
      } else if (IS_LEAF(pin)) {
        const vask_art_leaf *leaf = leaf_at(base_, pin);
        __builtin_prefetch(leaf);
        return leaf;
      } else {
        look_below_next();
        open_.push(frame_of(node_at(base_, pin)));
      }
    }
    return nullptr;
  }

 private:
  // Asks for as much of a node as the two smaller kinds have.
  void ask_for_node(vask_art_pin pin) noexcept { ask_for_lines(base_ + pin, 0, sizeof(vask_art_node16)); }
  void ask_below(vask_art_pin pin) noexcept {
    if (pin == 0 || IS_LEAF(pin)) return;
    Frame frame = frame_of(node_at(base_, pin));
    if (frame.type == NODE48) ask_for_lines(base_ + pin, sizeof(vask_art_node16), sizeof(vask_art_node48));
    for (unsigned i = 0; i < kChildrenAhead; ++i) {
      const vask_art_pin child = frame.take();
      if (child == 0) return;
      if (!IS_LEAF(child)) ask_for_node(child);
    }
  }
  // The node after the one that is entered was asked for before: it is there by now, and tells what it will need. After
  // the last of its siblings that is the first child of the node after their parent.
  void look_below_next() noexcept {
    Frame *top = &open_.top();
    Frame ahead = *top;
    if (const vask_art_pin sibling = ahead.take()) {
      ask_below(sibling);
      // The two larger kinds have more children than were asked for at first.
      if (ahead.type != NODE4 && ahead.type != NODE16) {
        ahead.take();
        const vask_art_pin far = ahead.take();
        if (far != 0 && !IS_LEAF(far)) ask_for_node(far);
      }
    } else if (top != open_.begin()) {
      ahead = top[-1];
      const vask_art_pin after_parent = ahead.take();
      if (after_parent == 0 || IS_LEAF(after_parent)) return;
      ahead = frame_of(node_at(base_, after_parent));
      ask_below(ahead.take());
    }
  }

  uintptr_t base_;
  vask_art_pin only_;
  WalkStack<Frame, 64> open_;
};

int report(const vask_art_tree *t, const vask_art_leaf *leaf, vask_art_callback cb, void *data) {
  const TmpValue value(t, leaf);
  return cb(data, leaf->key, leaf->key_len, value.get());
}

int iterate(const vask_art_tree *t, vask_art_pin root, vask_art_callback cb, void *data) {
  Leaves leaves(t->ser->base, root);
  const vask_art_leaf *ahead[kLeavesAhead];
  size_t count = 0;
  while (count < kLeavesAhead && (ahead[count] = leaves.next()) != nullptr) ++count;
  const bool more = count == kLeavesAhead;
  for (size_t at = 0; at < count; at = at + 1 == kLeavesAhead ? 0 : at + 1) {
    const vask_art_leaf *leaf = ahead[at];
    if (leaf == nullptr) return 0;
    if (more) ahead[at] = leaves.next();
    if (const int result = report(t, leaf, cb, data)) return result;
  }
  return 0;
}

}  // namespace
}  // namespace liborlith

using namespace liborlith;

int vask_art_iter(const vask_art_tree *t, vask_art_callback cb, void *data) {
  return iterate(t, t->root, cb, data);
}

int vask_art_iter_prefix(const vask_art_tree *t, const unsigned char *prefix, int len, vask_art_callback cb,
                         void *data) {
  return iterate(t, find_prefix_end(t, Key(prefix, len)).pin, cb, data);
}
