// In-order walks of the radix tree. The time goes into waiting for cells that lie scattered in memory, so each node's
// children are asked for some way ahead of their turn.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {

TmpValue::TmpValue(const vask_art_tree *t, const vask_art_leaf *leaf) noexcept
    : t_(t), value_(leaf->value), made_(t->ops != nullptr && t->ops->deserialize_tmp != nullptr) {
  if (!made_) return;
  const auto stored = reinterpret_cast<uintptr_t>(leaf->value);
  value_ = t->ops->deserialize_tmp(t->ops_closure, t, stored != 0 ? PIN_2_PTR(t->ser, stored) : nullptr);
}

TmpValue::~TmpValue() {
  if (made_) vask_art_release_tmp(t_, value_);
}

namespace {

constexpr unsigned kAhead = 8;

struct Frame {
  vask_art_node *node;
  unsigned next;   // as next_child counts
  unsigned ahead;  // the same, of the child to ask for
};

void ask_for_next(uintptr_t base, Frame &frame) noexcept {
  uint8_t c = 0;
  const vask_art_pin *child = next_child(frame.node, frame.ahead, &c);
  if (child != nullptr) __builtin_prefetch(leaf_at(base, *child));
}

Frame enter(uintptr_t base, vask_art_pin pin) noexcept {
  Frame frame = {node_at(base, pin), 0, 0};
  for (unsigned i = 0; i < kAhead; ++i) ask_for_next(base, frame);
  return frame;
}

int report(const vask_art_tree *t, const vask_art_leaf *leaf, vask_art_callback cb, void *data) {
  const TmpValue value(t, leaf);
  return cb(data, leaf->key, leaf->key_len, value.get());
}

int iterate(const vask_art_tree *t, vask_art_pin root, vask_art_callback cb, void *data) {
  const uintptr_t base = t->ser->base;
  if (root == 0) return 0;
  if (IS_LEAF(root)) return report(t, leaf_at(base, root), cb, data);
  WalkStack<Frame, 64> open;
  open.push(enter(base, root));
  while (!open.empty()) {
    Frame &frame = open.top();
    uint8_t c = 0;
    const vask_art_pin *child = next_child(frame.node, frame.next, &c);
    if (child == nullptr) {
      open.pop();
      continue;
    }
    ask_for_next(base, frame);
    if (!IS_LEAF(*child)) {
      open.push(enter(base, *child));
    } else if (const int result = report(t, leaf_at(base, *child), cb, data)) {
      return result;
    }
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
