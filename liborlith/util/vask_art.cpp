// The radix tree: its life, its ends, and the entries that write.
#include "liborlith/util/vask_art.h"

#include <bit>
#include <cstddef>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/util/vask_art_private.h"

// The cells are also what an image holds.
static_assert(std::endian::native == std::endian::little, "images are little-endian, and used in place");
static_assert(sizeof(vask_art_pin) == 8 && sizeof(void *) == 8);
static_assert(sizeof(vask_art_node) == 16 && offsetof(vask_art_node, type) == 4 &&
              offsetof(vask_art_node, num_children) == 5 && offsetof(vask_art_node, partial) == 6);
static_assert(sizeof(vask_art_node4) == 56 && offsetof(vask_art_node4, keys) == 16 &&
              offsetof(vask_art_node4, children) == 24);
static_assert(sizeof(vask_art_node16) == 160 && offsetof(vask_art_node16, keys) == 16 &&
              offsetof(vask_art_node16, children) == 32);
static_assert(sizeof(vask_art_node48) == 656 && offsetof(vask_art_node48, keys) == 16 &&
              offsetof(vask_art_node48, children) == 272);
static_assert(sizeof(vask_art_node256) == 2064 && offsetof(vask_art_node256, children) == 16);
static_assert(sizeof(vask_art_leaf) == 16 && offsetof(vask_art_leaf, key_len) == 8 &&
              offsetof(vask_art_leaf, key) == 12);

file_serializer_t self_image_ser = {-1, 0, 0, false};

vask_art_tree_interposition_t vask_art_tree_default_interposition = {
    nullptr, nullptr, nullptr, vask_art_default_alloc, vask_art_default_free, nullptr, nullptr, false};

namespace liborlith {
namespace {

const vask_art_tree_interposition_t *ops_of(const vask_art_tree *t) noexcept {
  return t->ops != nullptr ? t->ops : &vask_art_tree_default_interposition;
}

const vask_art_leaf *maximum_leaf(uintptr_t base, vask_art_pin pin) noexcept {
  while (!IS_LEAF(pin)) {
    vask_art_node *n = node_at(base, pin);
    switch (n->type) {
      case NODE4:
        pin = node4(n)->children[n->num_children - 1];
        break;
      case NODE16:
        pin = node16(n)->children[n->num_children - 1];
        break;
      case NODE48: {
        unsigned byte = 255;
        while (node48(n)->keys[byte] == 0) --byte;
        pin = node48(n)->children[node48(n)->keys[byte] - 1];
        break;
      }
      case NODE256: {
        unsigned byte = 255;
        while (node256(n)->children[byte] == 0) --byte;
        pin = node256(n)->children[byte];
        break;
      }
      default:
        unknown_node_type(n);
    }
  }
  return leaf_at(base, pin);
}

}  // namespace

void unknown_node_type(const vask_art_node *node) {
  liborlith_fatal(ruxo_error, "[FATAL] radix tree node of unknown type %u\n", unsigned{node->type});
}

void *alloc_unset(const vask_art_tree *t, size_t len) noexcept {
  return ops_of(t)->alloc(t->ops_closure, t, len);
}

void *alloc_cell(const vask_art_tree *t, size_t len) noexcept {
  return memset(alloc_unset(t, len), 0, len);
}

void free_cell(const vask_art_tree *t, void *cell) noexcept {
  ops_of(t)->free(t->ops_closure, t, cell);
}

vask_art_node *alloc_node(const vask_art_tree *t, uint8_t type) noexcept {
  vask_art_node kind{};
  kind.type = type;
  auto *n = static_cast<vask_art_node *>(alloc_cell(t, node_size(&kind)));
  n->type = type;
  return n;
}

const vask_art_leaf *minimum_leaf(uintptr_t base, vask_art_pin pin) noexcept {
  while (!IS_LEAF(pin)) {
    unsigned next = 0;
    uint8_t c = 0;
    pin = *next_child(node_at(base, pin), next, &c);
  }
  return leaf_at(base, pin);
}

}  // namespace liborlith

using namespace liborlith;

void *vask_art_default_alloc(void *, const vask_art_tree *, size_t len) {
  return malloc(len);
}

void vask_art_default_free(void *, const vask_art_tree *, void *cell) {
  free(cell);
}

int vask_art_tree_init(vask_art_tree *t) {
  *t = {0, 0, &self_image_ser, &vask_art_tree_default_interposition, nullptr};
  return 0;
}

void vask_art_tree_interpose(vask_art_tree *t, file_serializer_t *ser, vask_art_tree_interposition_t *ops,
                             void *closure) {
  liborlith_assert(t->size == 0);
  t->ops = ops;
  t->ops_closure = closure;
  t->ser = ser != nullptr ? ser : &self_image_ser;
}

int vask_art_tree_destroy(vask_art_tree *t) {
  struct Frame {
    vask_art_node *node;
    unsigned next;
  };
  WalkStack<Frame, 64> open;
  const uintptr_t base = t->ser->base;
  const auto enter = [&](vask_art_pin pin) {
    if (IS_LEAF(pin)) {
      free_cell(t, leaf_at(base, pin));
    } else if (pin != 0) {
      open.push({node_at(base, pin), 0});
    }
  };
  enter(t->root);
  while (!open.empty()) {
    Frame &frame = open.top();
    uint8_t c = 0;
    if (const vask_art_pin *child = next_child(frame.node, frame.next, &c)) {
      enter(*child);
    } else {
      free_cell(t, frame.node);
      open.pop();
    }
  }
  t->root = 0;
  t->size = 0;
  return 0;
}

uint64_t vask_art_size(const vask_art_tree *t) {
  return t->size;
}

const vask_art_leaf *vask_art_minimum(const vask_art_tree *t) {
  return t->root != 0 ? minimum_leaf(t->ser->base, t->root) : nullptr;
}

const vask_art_leaf *vask_art_maximum(const vask_art_tree *t) {
  return t->root != 0 ? maximum_leaf(t->ser->base, t->root) : nullptr;
}

void *vask_art_insert(vask_art_tree *t, const unsigned char *key, int len, void *value) {
  liborlith_assert(!t->ops || !t->ops->read_only);
  bool added = false;
  void *old = insert_key(t, Key(key, len), value, true, &added);
  if (added) ++t->size;
  return old;
}

void *vask_art_insert_no_replace(vask_art_tree *t, const unsigned char *key, int len, void *value) {
  liborlith_assert(!t->ops || !t->ops->read_only);
  bool added = false;
  void *old = insert_key(t, Key(key, len), value, false, &added);
  if (added) ++t->size;
  return old;
}

void *vask_art_delete(vask_art_tree *t, const unsigned char *key, int len) {
  liborlith_assert(!t->ops || !t->ops->read_only);
  bool removed = false;
  void *value = delete_key(t, Key(key, len), &removed);
  if (removed) --t->size;
  return value;
}

void vask_art_release(const vask_art_tree *t, void *value) {
  if (t->ops != nullptr && t->ops->release != nullptr) t->ops->release(t->ops_closure, t, value);
}

void vask_art_release_tmp(const vask_art_tree *t, void *value) {
  if (t->ops != nullptr && t->ops->release_tmp != nullptr) t->ops->release_tmp(t->ops_closure, t, value);
}
