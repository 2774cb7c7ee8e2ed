// A tree into an image: each cell a block, children before their parents, so that every pin is known when the block
// that holds it is written.
#include <memory>

#include "liborlith/util/vask_art_private.h"

namespace liborlith {
namespace {

struct Free {
  void operator()(void *bytes) const noexcept { free(bytes); }
};

class TreeWriter {
 public:
  TreeWriter(const vask_art_tree *from, const vask_art_tree *to, file_serializer_t *ser) noexcept
      : base_(from->ser->base), to_(to), ser_(ser) {}
  ~TreeWriter() {
    for (Frame &frame : open_) free(frame.block);
  }
  TreeWriter(const TreeWriter &) = delete;
  TreeWriter &operator=(const TreeWriter &) = delete;

  // Puts the pin of what was written into `*root`.
  bool run(vask_art_pin pin, vask_art_pin *root) noexcept {
    *root = 0;
    if (pin == 0) return true;
    if (IS_LEAF(pin)) return write_leaf(leaf_at(base_, pin), root);
    if (!enter(pin, root)) return false;
    while (!open_.empty()) {
      Frame &frame = open_.top();
      uint8_t c = 0;
      const vask_art_pin *child = next_child(frame.node, frame.next, &c);
      if (child == nullptr) {
        if (!leave()) return false;
        continue;
      }
      vask_art_pin *slot = same_slot(frame, child);
      if (!(IS_LEAF(*child) ? write_leaf(leaf_at(base_, *child), slot) : enter(*child, slot))) return false;
    }
    return true;
  }

 private:
  struct Frame {
    vask_art_node *node;
    vask_art_node *block;  // what will be written, owned
    vask_art_pin *ref;     // what will refer to it: a slot of the block above, or the root
    unsigned next;
  };

  static vask_art_pin *same_slot(const Frame &frame, const vask_art_pin *slot) noexcept {
    const auto distance = reinterpret_cast<uintptr_t>(slot) - reinterpret_cast<uintptr_t>(frame.node);
    return static_cast<vask_art_pin *>(address_of(reinterpret_cast<uintptr_t>(frame.block) + distance));
  }

  bool enter(vask_art_pin pin, vask_art_pin *ref) noexcept {
    vask_art_node *node = node_at(base_, pin);
    std::unique_ptr<vask_art_node, Free> block(static_cast<vask_art_node *>(calloc(1, node_size(node))));
    if (block == nullptr) return false;
    block->partial_len = node->partial_len;
    block->type = node->type;
    block->num_children = node->num_children;
    memcpy(block->partial, node->partial, stored_path_len(node));
    memcpy(block.get() + 1, node + 1, children_offset(node) - sizeof(*node));
    if (!open_.try_push({node, block.get(), ref, 0})) return false;
    static_cast<void>(block.release());  // the frame owns it now
    return true;
  }

  bool leave() noexcept {
    const Frame frame = open_.top();
    open_.pop();
    const std::unique_ptr<vask_art_node, Free> block(frame.block);
    *frame.ref = write_to_pic(ser_, block.get(), node_size(block.get()));
    return *frame.ref != 0;
  }

  bool write_leaf(const vask_art_leaf *leaf, vask_art_pin *ref) noexcept {
    uint64_t value = reinterpret_cast<uintptr_t>(leaf->value);
    if (to_->ops != nullptr && to_->ops->serialize != nullptr) {
      const ssize_t offset = to_->ops->serialize(to_->ops_closure, to_, leaf->value, write_to_pic, ser_);
      if (offset < 0) return false;
      value = static_cast<uint64_t>(offset);
    }
    const uint64_t at = write_to_pic(ser_, &value, sizeof value);
    if (at == 0) return false;
    // Its length and bytes lie together in the cell as they do in the block.
    if (write_to_pic(ser_, &leaf->key_len, sizeof leaf->key_len + leaf->key_len) == 0) return false;
    *ref = SET_LEAF(at);
    return true;
  }

  uintptr_t base_;
  const vask_art_tree *to_;
  file_serializer_t *ser_;
  WalkStack<Frame, 64> open_;
};

}  // namespace
}  // namespace liborlith

using namespace liborlith;

bool vask_art_serializer_write_tree(file_serializer_t *ser, const vask_art_tree *t,
                                    vask_art_tree_interposition_t *ops, void *closure, uintptr_t *offset) {
  vask_art_tree to;
  vask_art_tree_init(&to);
  vask_art_tree_interpose(&to, nullptr, ops, closure);
  vask_art_pin root = 0;
  if (!TreeWriter(t, &to, ser).run(t->root, &root)) return false;
  *offset = root;
  return true;
}
