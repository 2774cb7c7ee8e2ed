#include "orlith/image_tree.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace {

constexpr uint64_t kLeafHead = offsetof(vask_art_leaf, key);
constexpr std::array<uint64_t, 4> kNodeBytes = {sizeof(vask_art_node4), sizeof(vask_art_node16),
                                                sizeof(vask_art_node48), sizeof(vask_art_node256)};
static_assert(kLeafHead == 12 && kNodeBytes[0] == 56 && kNodeBytes[3] == 2064);

size_t kind_of(const vask_art_node *node) {
  return size_t{node->type} - NODE4;
}

template <typename T>
const T *as(const vask_art_node *node) {
  return reinterpret_cast<const T *>(node);
}

// Of a node of 4 or of 16: the child below `byte`.
template <typename T>
uint64_t child_in_array(const vask_art_node *node, uint8_t byte) {
  const auto *array = as<T>(node);
  const auto *end = array->keys + node->num_children;
  const auto *at = std::find(array->keys, end, byte);
  return at == end ? 0 : array->children[at - array->keys];
}

}  // namespace

std::string ImageTree::check_node(uint64_t pin, uint64_t limit, Node *node) const {
  const auto fits = [&](uint64_t len) {
    return pin >= ART_DEFAULT_OFFSET && pin <= limit && len <= limit - pin;
  };
  if (pin % WRITEALIGN != 0) return fmt::format("node at offset {}: not at a multiple of 8", pin);
  if (!fits(sizeof(vask_art_node)))
    return fmt::format("node at offset {}: does not end within the first {} bytes", pin, limit);
  *node = {pin, reinterpret_cast<const vask_art_node *>(image_.data() + pin)};
  const unsigned type = node->header->type;
  if (type < NODE4 || type > NODE256) return fmt::format("node at offset {}: unknown type {}", pin, type);
  if (!fits(kNodeBytes[kind_of(node->header)]))
    return fmt::format("node at offset {}: does not end within the first {} bytes", pin, limit);
  const unsigned count = node->header->num_children;
  const unsigned room = TreeShape::kRooms[kind_of(node->header)];
  if (count > room || (count == 0 && type != NODE256))
    return fmt::format("node at offset {}: {} children in a node of {}", pin, count, room);
  return "";
}

std::string ImageTree::check_leaf(uint64_t offset, uint64_t limit, ImageLeaf *leaf) const {
  if (offset % WRITEALIGN != 0) return fmt::format("leaf at offset {}: not at a multiple of 8", offset);
  if (offset < ART_DEFAULT_OFFSET || offset > limit || kLeafHead > limit - offset)
    return fmt::format("leaf at offset {}: does not end within the first {} bytes", offset, limit);
  const auto *cell = reinterpret_cast<const vask_art_leaf *>(image_.data() + offset);
  if (cell->key_len > limit - offset - kLeafHead)
    return fmt::format("leaf at offset {}: its key of {} bytes does not end within the first {} bytes",
                       offset, cell->key_len, limit);
  *leaf = {offset, image_.substr(offset + kLeafHead, cell->key_len), reinterpret_cast<uint64_t>(cell->value)};
  return "";
}

std::string ImageTree::child(const Node &node, uint8_t byte, uint64_t *pin) {
  *pin = 0;
  switch (node.header->type) {
    case NODE4:
      *pin = child_in_array<vask_art_node4>(node.header, byte);
      return "";
    case NODE16:
      *pin = child_in_array<vask_art_node16>(node.header, byte);
      return "";
    case NODE48: {
      const auto *forty_eight = as<vask_art_node48>(node.header);
      const unsigned slot = forty_eight->keys[byte];
      if (slot > 48)
        return fmt::format("node at offset {}: byte 0x{:02x} leads to slot {} of 48", node.offset, byte,
                           slot);
      if (slot > 0) *pin = forty_eight->children[slot - 1];
      return "";
    }
    default:
      *pin = as<vask_art_node256>(node.header)->children[byte];
      return "";
  }
}

std::string ImageTree::next_child(const Node &node, unsigned *next, uint64_t *pin) {
  *pin = 0;
  const bool is_array = node.header->type == NODE4 || node.header->type == NODE16;
  const unsigned end = is_array ? node.header->num_children : 256;
  for (; *next < end; ++*next) {
    if (node.header->type == NODE4) {
      *pin = as<vask_art_node4>(node.header)->children[*next];
    } else if (node.header->type == NODE16) {
      *pin = as<vask_art_node16>(node.header)->children[*next];
    } else if (std::string fault = child(node, static_cast<uint8_t>(*next), pin); !fault.empty()) {
      return fault;
    }
    if (*pin != 0) {
      ++*next;
      return "";
    }
    if (is_array) return fmt::format("node at offset {}: child {} is missing", node.offset, *next);
  }
  return "";
}

// Of a path, a node holds the first ten bytes; what it does not hold is settled by the leaves.
bool ImageTree::has_path(const Node &node, std::string_view key, size_t depth) {
  const size_t stored = std::min<size_t>(node.header->partial_len, VASK_ART_MAX_PREFIX_LEN);
  const size_t compared = std::min(stored, key.size() - depth);
  return memcmp(node.header->partial, key.data() + depth, compared) == 0;
}

std::string ImageTree::find(std::string_view key, std::optional<ImageLeaf> *leaf) const {
  leaf->reset();
  uint64_t pin = root_;
  uint64_t limit = end_;
  size_t depth = 0;
  while (pin != 0 && !IS_LEAF(pin)) {
    Node node;
    if (std::string fault = check_node(pin, limit, &node); !fault.empty()) return fault;
    if (!has_path(node, key, depth)) return "";
    depth += node.header->partial_len;
    if (depth >= key.size()) return "";
    if (std::string fault = child(node, static_cast<uint8_t>(key[depth++]), &pin); !fault.empty())
      return fault;
    limit = node.offset;
  }
  if (pin == 0) return "";
  ImageLeaf found;
  if (std::string fault = check_leaf(LEAF_RAW(pin), limit, &found); !fault.empty()) return fault;
  if (found.key == key) *leaf = found;
  return "";
}

// To the cell below which all keys lie that begin with the prefix.
std::string ImageTree::go_down(std::string_view prefix, uint64_t *pin, uint64_t *limit) const {
  size_t depth = 0;
  while (*pin != 0 && !IS_LEAF(*pin) && depth < prefix.size()) {
    Node node;
    if (std::string fault = check_node(*pin, *limit, &node); !fault.empty()) return fault;
    if (!has_path(node, prefix, depth)) {
      *pin = 0;
      return "";
    }
    depth += node.header->partial_len;
    if (depth >= prefix.size()) return "";
    if (std::string fault = child(node, static_cast<uint8_t>(prefix[depth++]), pin); !fault.empty())
      return fault;
    *limit = node.offset;
  }
  return "";
}

// A walk over all below one cell, without recursion: trees may be as deep as keys are long.
class ImageTree::Walk {
 public:
  Walk(const ImageTree &tree, std::string_view prefix, const Visit &visit, TreeShape *shape)
      : tree_(tree), prefix_(prefix), visit_(visit), shape_(shape) {}

  std::string run(uint64_t pin, uint64_t limit) {
    std::string fault = enter(pin, limit);
    while (fault.empty() && !stopped_ && !open_.empty()) {
      Frame &frame = open_.back();
      uint64_t next = 0;
      fault = next_child(frame.node, &frame.next, &next);
      if (!fault.empty()) break;
      if (next == 0) {
        free_from_ = frame.node.offset + kNodeBytes[kind_of(frame.node.header)];
        open_.pop_back();
      } else {
        fault = enter(next, frame.node.offset);
      }
    }
    return fault;
  }

 private:
  struct Frame {
    Node node;
    unsigned next;
  };

  std::string enter(uint64_t pin, uint64_t limit) {
    const char *what = IS_LEAF(pin) ? "leaf" : "node";
    const uint64_t offset = LEAF_RAW(pin);
    if (offset < free_from_)
      return fmt::format("{} at offset {}: lies before offset {}, up to which others lie", what, offset,
                         free_from_);
    if (IS_LEAF(pin)) return take_leaf(offset, limit);
    Node node;
    if (std::string fault = tree_.check_node(pin, limit, &node); !fault.empty()) return fault;
    open_.push_back({node, 0});
    if (shape_ != nullptr) {
      ++shape_->nodes[kind_of(node.header)];
      shape_->node_bytes[kind_of(node.header)] += kNodeBytes[kind_of(node.header)];
    }
    return "";
  }

  std::string take_leaf(uint64_t offset, uint64_t limit) {
    ImageLeaf leaf;
    if (std::string fault = tree_.check_leaf(offset, limit, &leaf); !fault.empty()) return fault;
    free_from_ = offset + kLeafHead + leaf.key.size();
    if (!leaf.key.starts_with(prefix_)) return "";
    if (shape_ != nullptr) {
      ++shape_->leaves;
      shape_->leaf_bytes += (kLeafHead + leaf.key.size() + WRITEALIGN - 1) / WRITEALIGN * WRITEALIGN;
      shape_->key_bytes += leaf.key.size();
      shape_->depth = std::max<uint64_t>(shape_->depth, open_.size() + 1);
    }
    stopped_ = !visit_(leaf);
    return "";
  }

  const ImageTree &tree_;
  std::string_view prefix_;
  const Visit &visit_;
  TreeShape *shape_;
  std::vector<Frame> open_;
  uint64_t free_from_ = ART_DEFAULT_OFFSET;
  bool stopped_ = false;
};

std::string ImageTree::each(std::string_view prefix, const Visit &visit, TreeShape *shape) const {
  uint64_t pin = root_;
  uint64_t limit = end_;
  if (std::string fault = go_down(prefix, &pin, &limit); !fault.empty() || pin == 0) return fault;
  return Walk(*this, prefix, visit, shape).run(pin, limit);
}
