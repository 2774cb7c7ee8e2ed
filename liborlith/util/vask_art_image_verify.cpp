// Opening a tree in an image of any bytes.
//
// Blocks are written children before parents, and children in the order of their node. So the check reads the tree in
// that order and asks of each block that it begins where the one before it ended, or later, and of each child that it
// ends before its parent begins. A tree that passes shares no byte between cells and has no cycle, each block was
// looked at once, and a hostile image costs no more than its size.
#include <cstdarg>
#include <cstdio>

#include "liborlith/util/vask_art_private.h"

namespace liborlith {
namespace {

class TreeCheck {
 public:
  TreeCheck(const file_serializer_t *ser, bool values_are_offsets) noexcept
      : base_(ser->base), size_(ser->offset), values_are_offsets_(values_are_offsets) {}

  bool run(vask_art_pin root) noexcept {
    if (root == 0) return true;
    if (!enter(root, size_)) return false;
    while (!open_.empty()) {
      Frame &frame = open_.top();
      const vask_art_pin *child = next_child(frame.node, frame.next, &frame.byte);
      if (child != nullptr) {
        if (!enter(*child, frame.offset)) return false;
      } else {
        free_from_ = frame.offset + node_size(frame.node);
        open_.pop();
      }
    }
    return true;
  }
  const char *fault() const noexcept { return fault_; }

 private:
  struct Frame {
    vask_art_node *node;
    uintptr_t offset;
    size_t depth;                // bytes of the keys before the node's path
    const vask_art_leaf *first;  // the first leaf below; knows what the node does not hold of its path
    unsigned next;
    uint8_t byte;  // that leads to the child which is looked at
  };

  __attribute__((format(printf, 4, 5))) bool fail(const char *what, uintptr_t offset, const char *format,
                                                  ...) noexcept {
    const int len = snprintf(fault_, sizeof fault_, "%s at offset %zu: ", what, size_t{offset});
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): seen only when several files are looked at in one run
    vsnprintf(fault_ + len, sizeof fault_ - static_cast<size_t>(len), format, args);
    va_end(args);
    return false;
  }

  // Whether `len` bytes from `offset` on lie behind what was read already and before `limit`.
  bool fits(const char *what, uintptr_t offset, size_t len, uintptr_t limit) noexcept {
    if (offset % WRITEALIGN != 0) return fail(what, offset, "not at a multiple of %d", WRITEALIGN);
    if (offset >= free_from_ && offset <= limit && len <= limit - offset) return true;
    return fail(what, offset,
                "its %zu bytes do not lie within the bytes from %zu to %zu that are left for it", len,
                size_t{free_from_}, size_t{limit});
  }

  bool enter(vask_art_pin pin, uintptr_t limit) noexcept {
    if (IS_LEAF(pin)) return check_leaf(LEAF_RAW(pin), limit);
    if (!fits("node", pin, sizeof(vask_art_node), limit)) return false;
    vask_art_node *node = node_at(base_, pin);
    if (node->type < NODE4 || node->type > NODE256)
      return fail("node", pin, "unknown type %u", unsigned{node->type});
    if (!fits("node", pin, node_size(node), limit) || !check_node(node, pin)) return false;
    const size_t depth = open_.empty() ? 0 : branch_of(open_.top()) + 1;
    if (!open_.try_push({node, pin, depth, nullptr, 0, 0})) return fail("node", pin, "out of memory");
    return true;
  }

  // Where in a key the byte stands that leads on from a node.
  static size_t branch_of(const Frame &frame) noexcept { return frame.depth + frame.node->partial_len; }

  bool zero(const void *bytes, size_t len, uintptr_t offset, const char *where) noexcept {
    const auto *at = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < len; ++i) {
      if (at[i] != 0) return fail("node", offset, "%s is not zero", where);
    }
    return true;
  }

  bool check_node(vask_art_node *node, uintptr_t offset) noexcept {
    const uint32_t stored = stored_path_len(node);
    if (!zero(node->partial + stored, kStoredPath - stored, offset, "what follows its path")) return false;
    switch (node->type) {
      case NODE4: {
        const vask_art_node4 *four = node4(node);
        return zero(four->keys + 4, 4, offset, "what follows its keys") && check_array(four, 4, offset);
      }
      case NODE16:
        return check_array(node16(node), 16, offset);
      case NODE48:
        return check_forty_eight(node48(node), offset);
      default:
        return check_256(node256(node), offset);
    }
  }

  template <typename Node>
  bool check_array(const Node *node, unsigned room, uintptr_t offset) noexcept {
    const unsigned count = node->n.num_children;
    if (count == 0 || count > room) return fail("node", offset, "%u children in a node of %u", count, room);
    bool seen[256] = {};
    for (unsigned i = 0; i < count; ++i) {
      if (node->children[i] == 0) return fail("node", offset, "child %u of %u is missing", i, count);
      if (seen[node->keys[i]])
        return fail("node", offset, "two children below byte 0x%02x", unsigned{node->keys[i]});
      seen[node->keys[i]] = true;
    }
    return zero(node->children + count, (room - count) * sizeof(node->children[0]), offset,
                "a slot that is not used");
  }

  bool check_forty_eight(const vask_art_node48 *node, uintptr_t offset) noexcept {
    bool seen[48] = {};
    unsigned count = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
      const unsigned slot = node->keys[byte];
      if (slot == 0) continue;
      if (slot > 48) return fail("node", offset, "byte 0x%02x leads to slot %u of 48", byte, slot);
      if (seen[slot - 1]) return fail("node", offset, "two bytes lead to slot %u", slot);
      if (node->children[slot - 1] == 0)
        return fail("node", offset, "byte 0x%02x leads to an empty slot", byte);
      seen[slot - 1] = true;
      ++count;
    }
    for (unsigned i = 0; i < 48; ++i) {
      if (!seen[i] && node->children[i] != 0)
        return fail("node", offset, "a slot that is not used is not zero");
    }
    return check_count(node->n, count, offset);
  }

  bool check_256(const vask_art_node256 *node, uintptr_t offset) noexcept {
    return check_count(
        node->n, static_cast<unsigned>(256 - std::count(node->children, node->children + 256, 0u)), offset);
  }

  bool check_count(const vask_art_node &node, unsigned count, uintptr_t offset) noexcept {
    if (count > 0 && node.num_children == (count & 0xff)) return true;
    return fail("node", offset, "says %u children and has %u", unsigned{node.num_children}, count);
  }

  bool check_leaf(uintptr_t offset, uintptr_t limit) noexcept {
    if (!fits("leaf", offset, offsetof(vask_art_leaf, key), limit)) return false;
    const vask_art_leaf *leaf = leaf_at(base_, offset);
    const size_t len = offsetof(vask_art_leaf, key) + leaf->key_len;
    if (!fits("leaf", offset, len + padding(len), limit)) return false;
    for (size_t i = 0; i < padding(len); ++i) {
      if (leaf->key[leaf->key_len + i] != 0) return fail("leaf", offset, "what follows its key is not zero");
    }
    const auto value = reinterpret_cast<uintptr_t>(leaf->value);
    if (values_are_offsets_ && value >= size_)
      return fail("leaf", offset, "its value at offset %zu is not within the %zu bytes of the file",
                  size_t{value}, size_);
    free_from_ = offset + len + padding(len);
    return check_key(leaf, offset);
  }

  // Whether the key has, all the way down, the bytes that led to it. A key is longer than the way is deep, so this
  // costs no more than the key is long.
  bool check_key(const vask_art_leaf *leaf, uintptr_t offset) noexcept {
    for (Frame &frame : open_) {
      const vask_art_node *node = frame.node;
      if (branch_of(frame) >= leaf->key_len)
        return fail("leaf", offset, "its key of %u bytes ends before the node at offset %zu leads on",
                    leaf->key_len, size_t{frame.offset});
      const unsigned char *path = leaf->key + frame.depth;
      const uint32_t stored = stored_path_len(node);
      if (frame.first == nullptr) frame.first = leaf;
      if (memcmp(path, node->partial, stored) != 0 ||
          memcmp(path + stored, frame.first->key + frame.depth + stored, node->partial_len - stored) != 0 ||
          path[node->partial_len] != frame.byte)
        return fail("leaf", offset, "its key does not lie below the node at offset %zu",
                    size_t{frame.offset});
    }
    return true;
  }

  uintptr_t base_;
  size_t size_;
  bool values_are_offsets_;
  uintptr_t free_from_ = ART_DEFAULT_OFFSET;
  WalkStack<Frame, 64> open_;
  char fault_[200] = "";
};

bool refuse(char **err, const char *text) noexcept {
  if (err != nullptr) *err = strdup(text);
  return false;
}

}  // namespace
}  // namespace liborlith

using namespace liborlith;

bool vask_art_serializer_verified_tree_at_offset(file_serializer_t *ser, vask_art_tree *dt, uintptr_t offset,
                                                 vask_art_tree_interposition_t *ops, void *closure,
                                                 char **err) {
  if (err != nullptr) *err = nullptr;
  if (!vask_art_serializer_tree_at_offset(ser, dt, offset, ops, closure)) {
    char text[120];
    snprintf(text, sizeof text, "root at offset %zu: not within the %zu bytes of a mapped file",
             size_t{offset}, ser->base != 0 ? ser->offset : size_t{0});
    return refuse(err, text);
  }
  const bool translated = ops != nullptr && (ops->deserialize != nullptr || ops->deserialize_tmp != nullptr);
  TreeCheck check(ser, translated);
  if (check.run(offset)) return true;
  dt->root = 0;
  return refuse(err, check.fault());
}
