// What the sources of the radix tree share: cells by their pins, look-up of children, paths, and a stack for walks.
//
//   vask_art.cpp         life of a tree, ends, the entries that write
//   vask_art_search.cpp  look-up
//   vask_art_insert.cpp  new keys: leaves, splits, growth
//   vask_art_delete.cpp  removed keys: shrinking, joining of paths
//   vask_art_iter.cpp    in order;   vask_art_iter_bfsp.cpp  level by level
//   vask_art_image.cpp   files of images; vask_art_image_write.cpp trees into them, vask_art_image_verify.cpp doubts
//
// A *path* is the bytes that all keys below a node share there, of which the node holds the first ten. A *depth*
// counts the bytes of a key that lie above. Paths are compared on the way down as far as they are stored; whoever acts
// on a key below one must compare the rest with a leaf.
#ifndef LIBORLITH_UTIL_VASK_ART_PRIVATE_H
#define LIBORLITH_UTIL_VASK_ART_PRIVATE_H

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "liborlith/util/vask_art.h"
#include "liborlith/util/vask_art_simd_private.h"

namespace liborlith {

inline constexpr uint32_t kStoredPath = VASK_ART_MAX_PREFIX_LEN;
// What memory is fetched by.
inline constexpr size_t kCacheLine = 64;

// A node of a type that does not exist: the tree is damaged. Fatal.
[[noreturn]] void unknown_node_type(const vask_art_node *node);

// A key as the entries take it.
struct Key {
  const unsigned char *bytes;
  size_t len;

  Key(const unsigned char *key, int key_len) noexcept
      : bytes(key), len(key_len > 0 ? static_cast<size_t>(key_len) : 0) {}
  // The byte that leads on at a depth. Only a key that is a prefix of another, or seems to be one while paths are not
  // compared whole, gets behind its end; zero is taken to follow there.
  uint8_t at(size_t depth) const noexcept { return depth < len ? bytes[depth] : uint8_t{0}; }
  size_t left(size_t depth) const noexcept { return depth < len ? len - depth : 0; }
};

// ---- cells ----

// Pins are numbers, in memory as in files; this is where they become addresses.
inline void *address_of(uintptr_t address) noexcept {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): there is no pointer to start from
  return reinterpret_cast<void *>(address);
}

inline vask_art_node *node_at(uintptr_t base, vask_art_pin pin) noexcept {
  return static_cast<vask_art_node *>(address_of(base + pin));
}
inline vask_art_leaf *leaf_at(uintptr_t base, vask_art_pin pin) noexcept {
  return static_cast<vask_art_leaf *>(address_of((base + pin) & ~uintptr_t{1}));
}
inline vask_art_pin pin_of(uintptr_t base, const void *cell) noexcept {
  return reinterpret_cast<uintptr_t>(cell) - base;
}

inline vask_art_node4 *node4(vask_art_node *n) noexcept {
  return reinterpret_cast<vask_art_node4 *>(n);
}
inline vask_art_node16 *node16(vask_art_node *n) noexcept {
  return reinterpret_cast<vask_art_node16 *>(n);
}
inline vask_art_node48 *node48(vask_art_node *n) noexcept {
  return reinterpret_cast<vask_art_node48 *>(n);
}
inline vask_art_node256 *node256(vask_art_node *n) noexcept {
  return reinterpret_cast<vask_art_node256 *>(n);
}

inline size_t node_size(const vask_art_node *n) noexcept {
  switch (n->type) {
    case NODE4:
      return sizeof(vask_art_node4);
    case NODE16:
      return sizeof(vask_art_node16);
    case NODE48:
      return sizeof(vask_art_node48);
    case NODE256:
      return sizeof(vask_art_node256);
    default:
      unknown_node_type(n);
  }
}

inline uint32_t stored_path_len(const vask_art_node *n) noexcept {
  return std::min(n->partial_len, kStoredPath);
}

// Take a cell from the tree's hooks, as it comes or all zero.
void *alloc_unset(const vask_art_tree *t, size_t len) noexcept;
void *alloc_cell(const vask_art_tree *t, size_t len) noexcept;
void free_cell(const vask_art_tree *t, void *cell) noexcept;
vask_art_node *alloc_node(const vask_art_tree *t, uint8_t type) noexcept;

// Asks for the lines of a cell that begin from `from` on and before `to`.
inline void ask_for_lines(uintptr_t cell, size_t from, size_t to) noexcept {
  for (size_t at = from; at < to; at += kCacheLine) __builtin_prefetch(address_of(cell + at));
}
// For a walk that reads a cell's first line at once. Which other line of a node it needs depends on what stands there:
// asks for those of the two smaller kinds.
inline void ask_for_node_tail(uintptr_t base, vask_art_pin pin) noexcept {
  ask_for_lines(base + pin, kCacheLine, sizeof(vask_art_node16));
}
// A leaf has the key's length if it has the key: its end need not wait for its begin.
inline void ask_for_leaf_tail(uintptr_t base, vask_art_pin pin, const Key &key) noexcept {
  __builtin_prefetch(address_of(base + pin + offsetof(vask_art_leaf, key) + key.len));
}

// ---- children ----

template <typename Word>
Word load(const void *bytes) noexcept {
  Word word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// The slot of the child below a key byte, null if there is none.
inline vask_art_pin *find_child(vask_art_node *n, uint8_t c) noexcept {
  if (n->type == NODE4 || n->type == NODE16) {
    // Both have their keys at the same place, and a node of four has sixteen bytes there: what lies behind its keys is
    // beyond its count. So one comparison serves both, and which of them it is costs no branch that could be guessed
    // wrong on every level.
    const unsigned count = n->num_children;
    const unsigned i = first_below(bytes_equal(reinterpret_cast<const uint8_t *>(n + 1), c), count);
    static_assert(offsetof(vask_art_node4, children) == sizeof *n + NODE4 * sizeof(vask_art_pin) &&
                  offsetof(vask_art_node16, children) == sizeof *n + NODE16 * sizeof(vask_art_pin));
    return i < count ? reinterpret_cast<vask_art_pin *>(n + 1) + n->type + i : nullptr;
  }
  if (n->type == NODE48) {
    const unsigned i = node48(n)->keys[c];
    return i != 0 ? &node48(n)->children[i - 1] : nullptr;
  }
  if (n->type == NODE256) return node256(n)->children[c] != 0 ? &node256(n)->children[c] : nullptr;
  unknown_node_type(n);
}

// The first byte from `byte` on that has a child in a node of 48; 256 if there is none.
inline unsigned next_used_key(const uint8_t *keys, unsigned byte) noexcept {
  while (byte % 8 != 0 && keys[byte] == 0) ++byte;
  if (byte % 8 != 0) return byte;
  for (; byte < 256; byte += 8) {
    if (const auto word = load<uint64_t>(keys + byte))
      return byte + static_cast<unsigned>(__builtin_ctzll(word)) / 8;
  }
  return 256;
}

// Walks the children of a node in its order. `next` is where to look from, 0 at first; it is left where to go on.
// Returns the slot of the next child and puts its key byte into `*c`; null after the last.
inline vask_art_pin *next_child(vask_art_node *n, unsigned &next, uint8_t *c) noexcept {
  switch (n->type) {
    case NODE4:
      if (next >= n->num_children) return nullptr;
      *c = node4(n)->keys[next];
      return &node4(n)->children[next++];
    case NODE16:
      if (next >= n->num_children) return nullptr;
      *c = node16(n)->keys[next];
      return &node16(n)->children[next++];
    case NODE48:
      next = next_used_key(node48(n)->keys, next);
      if (next == 256) return nullptr;
      *c = static_cast<uint8_t>(next);
      return &node48(n)->children[node48(n)->keys[next++] - 1];
    case NODE256:
      while (next < 256) {
        const unsigned byte = next++;
        if (node256(n)->children[byte] == 0) continue;
        *c = static_cast<uint8_t>(byte);
        return &node256(n)->children[byte];
      }
      return nullptr;
    default:
      unknown_node_type(n);
  }
}

// The leaf of the smallest key below a pin other than 0.
const vask_art_leaf *minimum_leaf(uintptr_t base, vask_art_pin pin) noexcept;

// ---- paths ----

inline bool leaf_matches(const vask_art_leaf *leaf, const Key &key) noexcept {
  return leaf->key_len == key.len && (key.len == 0 || memcmp(leaf->key, key.bytes, key.len) == 0);
}
inline bool leaf_starts_with(const vask_art_leaf *leaf, const Key &prefix) noexcept {
  return prefix.len <= leaf->key_len && (prefix.len == 0 || memcmp(leaf->key, prefix.bytes, prefix.len) == 0);
}

// The first `len` bytes (below 8) as a number, lowest first; not one byte behind them is read.
inline uint64_t load_short(const unsigned char *bytes, size_t len) noexcept {
  if (len >= 4) return load<uint32_t>(bytes) | uint64_t{load<uint32_t>(bytes + len - 4)} << (8 * (len - 4));
  if (len == 0) return 0;
  const size_t middle = len / 2;
  return bytes[0] | uint64_t{bytes[middle]} << (8 * middle) | uint64_t{bytes[len - 1]} << (8 * (len - 1));
}

inline constexpr uint64_t low_bytes(size_t count) noexcept {
  return count < 8 ? (uint64_t{1} << (8 * count)) - 1 : ~uint64_t{0};
}

// Whether the stored part of a node's path is what the key has at `depth`. In words: a loop over a few bytes ends at
// a place that cannot be guessed.
inline bool stored_path_matches(const vask_art_node *n, const Key &key, size_t depth) noexcept {
  const size_t stored = stored_path_len(n);
  const size_t left = key.left(depth);
  if (left < stored) return false;
  if (stored == 0) return true;
  const unsigned char *bytes = key.bytes + depth;
  const uint64_t first = left >= 8 ? load<uint64_t>(bytes) : load_short(bytes, left);
  if (((first ^ load<uint64_t>(n->partial)) & low_bytes(stored)) != 0) return false;
  if (stored <= 8) return true;
  return n->partial[8] == bytes[8] && (stored == 9 || n->partial[9] == bytes[9]);
}

// Whether that may be so: as good, and quicker, for who compares the whole key at the leaf. A word is looked at where
// the key has one left; the rest is for the leaf.
inline bool stored_path_may_match(const vask_art_node *n, const Key &key, size_t depth) noexcept {
  if (key.left(depth) < 8) return true;
  const uint64_t differing = load<uint64_t>(key.bytes + depth) ^ load<uint64_t>(n->partial);
  return (differing & low_bytes(n->partial_len)) == 0;
}

// How many bytes of a node's path are what the key has at `depth`; all of them are compared.
size_t matching_path_len(uintptr_t base, const vask_art_node *n, const Key &key, size_t depth) noexcept;

// ---- writing ----

// Each returns what the entry of its name returns; `*added` and `*removed` tell whether the number of keys changed.
void *insert_key(vask_art_tree *t, const Key &key, void *value, bool replace, bool *added) noexcept;
void *delete_key(vask_art_tree *t, const Key &key, bool *removed) noexcept;

// ---- walks ----

// A stack for walks, since keys of many thousand bytes make trees too deep for recursion. The first entries need no
// allocation. T is copied byte by byte.
template <typename T, size_t kInside>
class WalkStack {
 public:
  WalkStack() noexcept = default;
  ~WalkStack() {
    if (entries_ != inside_) free(entries_);
  }
  WalkStack(const WalkStack &) = delete;
  WalkStack &operator=(const WalkStack &) = delete;

  bool empty() const noexcept { return size_ == 0; }
  T &top() noexcept { return entries_[size_ - 1]; }
  void pop() noexcept { --size_; }
  void push(const T &entry) noexcept {
    if (!try_push(entry)) abort();
  }
  // Whether there was memory for it.
  [[nodiscard]] bool try_push(const T &entry) noexcept {
    if (!try_extend(size_ + 1)) return false;
    top() = entry;
    return true;
  }
  // At least `count` entries; what is new is not set.
  void extend(size_t count) noexcept {
    if (!try_extend(count)) abort();
  }
  T *begin() noexcept { return entries_; }
  T *end() noexcept { return entries_ + size_; }

 private:
  bool try_extend(size_t count) noexcept {
    if (count > capacity_ && !grow(count)) return false;
    size_ = std::max(size_, count);
    return true;
  }
  bool grow(size_t count) noexcept {
    const size_t capacity = std::max(count, 2 * capacity_);
    auto *larger = static_cast<T *>(malloc(capacity * sizeof(T)));
    if (larger == nullptr) return false;
    memcpy(larger, entries_, size_ * sizeof(T));
    if (entries_ != inside_) free(entries_);
    entries_ = larger;
    capacity_ = capacity;
    return true;
  }

  size_t size_ = 0;
  size_t capacity_ = kInside;
  T inside_[kInside];
  T *entries_ = inside_;
};

// The value that an iteration's callback is given, for the time of the call.
class TmpValue {
 public:
  TmpValue(const vask_art_tree *t, const vask_art_leaf *leaf) noexcept;
  ~TmpValue();
  TmpValue(const TmpValue &) = delete;
  TmpValue &operator=(const TmpValue &) = delete;
  void *get() const noexcept { return value_; }

 private:
  const vask_art_tree *t_;
  void *value_;
  bool made_;
};

// Where a prefix ends: the pin below which lie the keys that start with it, 0 if there are none, and the depth of that
// cell. A leaf is one that starts with the prefix.
struct PrefixEnd {
  vask_art_pin pin;
  size_t depth;
};
PrefixEnd find_prefix_end(const vask_art_tree *t, const Key &prefix) noexcept;

// ---- images ----

// Where the pins of a node begin, in its cell and in its block of an image alike.
inline size_t children_offset(const vask_art_node *n) noexcept {
  switch (n->type) {
    case NODE4:
      return offsetof(vask_art_node4, children);
    case NODE16:
      return offsetof(vask_art_node16, children);
    case NODE48:
      return offsetof(vask_art_node48, children);
    case NODE256:
      return offsetof(vask_art_node256, children);
    default:
      unknown_node_type(n);
  }
}

// How many zero bytes fill a block up.
inline size_t padding(size_t len) noexcept {
  return (WRITEALIGN - len % WRITEALIGN) % WRITEALIGN;
}

// Repeats a system call for as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) noexcept {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

// The writer that `serialize` hooks are given: one block, one system call. 0 on failure.
uint64_t write_to_pic(file_serializer_t *ser, const void *bytes, size_t len);

}  // namespace liborlith

#endif
