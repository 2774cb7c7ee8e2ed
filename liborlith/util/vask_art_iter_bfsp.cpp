// The walk level by level. For each node it tells of all children and then descends into each, leaves included.
#include "liborlith/util/vask_art_private.h"

namespace liborlith {
namespace {

class PartialWalk {
 public:
  PartialWalk(const vask_art_tree *t, vask_art_partial_callback pcb, void *data) noexcept
      : t_(t), base_(t->ser->base), pcb_(pcb), data_(data) {}

  // `path` is what leads to the cell.
  int run(vask_art_pin pin, const unsigned char *path, size_t path_len) {
    if (IS_LEAF(pin)) return tell_leaf(pin);
    path_.extend(path_len);
    if (path_len > 0) memcpy(path_.begin(), path, path_len);
    if (const int result = enter(pin, path_len)) return result;
    while (!open_.empty()) {
      Frame &frame = open_.top();
      uint8_t c = 0;
      const vask_art_pin *child = next_child(frame.node, frame.next, &c);
      if (child == nullptr) {
        open_.pop();
        continue;
      }
      path_.begin()[frame.path_len - 1] = c;
      const int result = IS_LEAF(*child) ? tell_leaf(*child) : enter(*child, frame.path_len);
      if (result != 0) return result;
    }
    return 0;
  }

 private:
  struct Frame {
    vask_art_node *node;
    size_t path_len;  // of the path to its children, with their key byte
    unsigned next;
  };

  // The first pass over a node's children; leaves the node open for the second. The path buffer is one for the whole
  // walk: a node writes behind what leads to it, and so leaves the paths of those above it as they are.
  int enter(vask_art_pin pin, size_t above_len) {
    vask_art_node *node = node_at(base_, pin);
    const size_t path_len = above_len + node->partial_len + 1;
    path_.extend(path_len);
    unsigned char *path = path_.begin();
    const uint32_t stored = stored_path_len(node);
    memcpy(path + above_len, node->partial, stored);
    // Zeros stand for what the node does not hold, on purpose: telling the real bytes would cost a descent to a leaf.
    memset(path + above_len + stored, 0, node->partial_len - stored);
    unsigned next = 0;
    uint8_t c = 0;
    while (const vask_art_pin *child = next_child(node, next, &c)) {
      path[path_len - 1] = c;
      const int result = IS_LEAF(*child) ? tell_leaf(*child)
                                         : pcb_(data_, path, static_cast<uint32_t>(path_len), true, nullptr);
      if (result != 0) return result;
    }
    open_.push({node, path_len, 0});
    return 0;
  }

  int tell_leaf(vask_art_pin pin) {
    const vask_art_leaf *leaf = leaf_at(base_, pin);
    const TmpValue value(t_, leaf);
    return pcb_(data_, leaf->key, leaf->key_len, false, value.get());
  }

  const vask_art_tree *t_;
  uintptr_t base_;
  vask_art_partial_callback pcb_;
  void *data_;
  WalkStack<Frame, 64> open_;
  WalkStack<unsigned char, 512> path_;
};

}  // namespace
}  // namespace liborlith

using namespace liborlith;

int vask_art_iter_bfsp_prefix(const vask_art_tree *t, const unsigned char *prefix, int len,
                              vask_art_partial_callback pcb, void *data) {
  const PrefixEnd end = find_prefix_end(t, Key(prefix, len));
  if (end.pin == 0) return 0;
  return PartialWalk(t, pcb, data).run(end.pin, prefix, end.depth);
}
