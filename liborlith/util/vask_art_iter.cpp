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
constexpr size_t kLeavesAhead = 16;

// The children of a node that are to come: an array in the two smaller kinds, a node to look through in the others.
struct Frame {
  const vask_art_pin *next, *end;
  vask_art_node *wide;
  unsigned next_byte;

  vask_art_pin take() noexcept {
    if (next != end) return *next++;
    if (wide == nullptr) return 0;
    uint8_t c = 0;
    const vask_art_pin *child = next_child(wide, next_byte, &c);
    return child != nullptr ? *child : 0;
  }
};

Frame frame_of(vask_art_node *n) noexcept {
  if (n->type != NODE4 && n->type != NODE16) return {nullptr, nullptr, n, 0};
  const vask_art_pin *children = n->type == NODE4 ? node4(n)->children : node16(n)->children;
  return {children, children + n->num_children, nullptr, 0};
}

void ask_for(uintptr_t base, vask_art_pin pin) noexcept {
  __builtin_prefetch(leaf_at(base, pin));
}

// Gives leaves in order, and asks for each as it gives it.
class Leaves {
 public:
  Leaves(uintptr_t base, vask_art_pin root) noexcept : base_(base) {
    if (root != 0) open_.push({&only_, &only_ + 1, nullptr, 0});
    only_ = root;
  }
  const vask_art_leaf *next() noexcept {
    while (!open_.empty()) {
      const vask_art_pin pin = open_.top().take();
      if (pin == 0) {
        open_.pop();
      } else if (IS_LEAF(pin)) {
        ask_for(base_, pin);
        return leaf_at(base_, pin);
      } else {
        look_below_sibling(open_.top());
        Frame frame = frame_of(node_at(base_, pin));
        ask_for_nodes(frame);
        open_.push(frame);
      }
    }
    return nullptr;
  }

 private:
  void ask_for_nodes(const Frame &frame) noexcept {
    for (const vask_art_pin *at = frame.next; at != frame.end; ++at) {
      if (!IS_LEAF(*at)) ask_for(base_, *at);
    }
  }
  // The node after the one that is entered was asked for when their parent was entered: it is there by now, and can
  // tell what it will need.
  void look_below_sibling(const Frame &frame) noexcept {
    if (frame.next != frame.end && !IS_LEAF(*frame.next))
      ask_for_nodes(frame_of(node_at(base_, *frame.next)));
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
