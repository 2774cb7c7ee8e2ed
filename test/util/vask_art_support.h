// Trees for tests: short ways to fill and read them, and a model whose nodes are kept in the plainest way.
#ifndef TEST_UTIL_VASK_ART_SUPPORT_H
#define TEST_UTIL_VASK_ART_SUPPORT_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "liborlith/util/vask_art.h"

// A key in memory that ends where the key ends, so that a sanitizer sees any byte read behind it.
class ExactKey {
 public:
  explicit ExactKey(std::string_view key)
      : bytes_(new unsigned char[key.size()]), len_(static_cast<int>(key.size())) {
    if (!key.empty()) memcpy(bytes_.get(), key.data(), key.size());
  }
  const unsigned char *bytes() const { return bytes_.get(); }
  int len() const { return len_; }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
  int len_;
};

inline void *value_of(uintptr_t number) {
  return reinterpret_cast<void *>(number);
}
inline uintptr_t number_of(const void *value) {
  return reinterpret_cast<uintptr_t>(value);
}

// Functions over any tree; values are numbers, 0 means null.
inline uintptr_t art_find(const vask_art_tree *t, std::string_view key) {
  const ExactKey exact(key);
  return number_of(vask_art_search(t, exact.bytes(), exact.len()));
}

using Contents = std::vector<std::pair<std::string, uintptr_t>>;

inline int collect(void *data, const unsigned char *key, uint32_t key_len, void *value) {
  static_cast<Contents *>(data)->emplace_back(std::string(reinterpret_cast<const char *>(key), key_len),
                                              number_of(value));
  return 0;
}
inline Contents art_contents(const vask_art_tree *t) {
  Contents result;
  vask_art_iter(t, collect, &result);
  return result;
}
inline Contents art_contents(const vask_art_tree *t, std::string_view prefix) {
  Contents result;
  const ExactKey exact(prefix);
  vask_art_iter_prefix(t, exact.bytes(), exact.len(), collect, &result);
  return result;
}
inline std::string leaf_key(const vask_art_leaf *leaf) {
  return {reinterpret_cast<const char *>(leaf->key), leaf->key_len};
}
inline std::vector<std::string> keys_of(const Contents &contents) {
  std::vector<std::string> keys;
  for (const auto &entry : contents) keys.push_back(entry.first);
  return keys;
}

class ArtTree {
 public:
  ArtTree() { vask_art_tree_init(&tree_); }
  ~ArtTree() { vask_art_tree_destroy(&tree_); }
  ArtTree(const ArtTree &) = delete;
  ArtTree &operator=(const ArtTree &) = delete;
  vask_art_tree *get() { return &tree_; }
  vask_art_tree *operator->() { return &tree_; }

  uintptr_t insert(std::string_view key, uintptr_t value = 1) {
    const ExactKey exact(key);
    return number_of(vask_art_insert(&tree_, exact.bytes(), exact.len(), value_of(value)));
  }
  uintptr_t insert_no_replace(std::string_view key, uintptr_t value) {
    const ExactKey exact(key);
    return number_of(vask_art_insert_no_replace(&tree_, exact.bytes(), exact.len(), value_of(value)));
  }
  uintptr_t erase(std::string_view key) {
    const ExactKey exact(key);
    return number_of(vask_art_delete(&tree_, exact.bytes(), exact.len()));
  }
  uintptr_t find(std::string_view key) const { return art_find(&tree_, key); }
  Contents contents() const { return art_contents(&tree_); }
  std::vector<std::string> keys() const { return keys_of(contents()); }
  std::vector<std::string> keys(std::string_view prefix) const {
    return keys_of(art_contents(&tree_, prefix));
  }

 private:
  vask_art_tree tree_;
};

// A key of one byte and a rest.
inline std::string key_at(unsigned byte, std::string_view rest = "") {
  return std::string(1, static_cast<char>(byte)).append(rest);
}

// ---- what the cells of a tree say ----

// "4[path|61:.. 62:..]": the kind, the stored path with what follows it in the node, and children in the order of their
// array; a leaf is its key. Also checks that what a node does not use is zero; "!" stands where it is not.
inline std::string hex_text(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto b = static_cast<unsigned char>(byte);
    text += "0123456789abcdef"[b >> 4];
    text += "0123456789abcdef"[b & 15];
  }
  return text;
}
inline bool all_zero(const void *bytes, size_t len) {
  const std::string zeros(len, '\0');
  return memcmp(bytes, zeros.data(), len) == 0;
}
inline std::string describe_cells(const vask_art_tree *t, vask_art_pin pin) {
  if (pin == 0) return "";
  if (IS_LEAF(pin))
    return "\"" + hex_text(leaf_key(static_cast<const vask_art_leaf *>(PIN_2_PTR(t->ser, LEAF_RAW(pin))))) +
           "\"";
  const vask_art_node *n = PIN_2_NODE(t->ser, pin);
  const size_t stored = std::min<size_t>(n->partial_len, 10);
  std::string text;
  const auto child = [&](unsigned byte, vask_art_pin below) {
    text += " " + hex_text(key_at(byte)) + ":" + describe_cells(t, below);
  };
  static const int kKinds[] = {0, 4, 16, 48, 256};
  text = std::to_string(kKinds[n->type]) + "[" + std::to_string(n->partial_len) + ":" +
         hex_text({reinterpret_cast<const char *>(n->partial), stored});
  if (!all_zero(n->partial + stored, 10 - stored)) text += "!";
  unsigned count = 0;
  if (n->type == NODE4 || n->type == NODE16) {
    const auto *four = reinterpret_cast<const vask_art_node4 *>(n);
    const auto *sixteen = reinterpret_cast<const vask_art_node16 *>(n);
    const uint8_t *keys = n->type == NODE4 ? four->keys : sixteen->keys;
    const vask_art_pin *children = n->type == NODE4 ? four->children : sixteen->children;
    const unsigned room = n->type == NODE4 ? 4 : 16;
    for (; count < n->num_children; ++count) child(keys[count], children[count]);
    if (!all_zero(keys + count, room - count) || !all_zero(children + count, (room - count) * 8)) text += "!";
  } else if (n->type == NODE48) {
    const auto *node = reinterpret_cast<const vask_art_node48 *>(n);
    for (unsigned byte = 0; byte < 256; ++byte) {
      if (node->keys[byte] == 0) continue;
      ++count;
      child(byte, node->children[node->keys[byte] - 1]);
    }
    if (std::count(node->children, node->children + 48, vask_art_pin{0}) != 48 - count) text += "!";
  } else {
    const auto *node = reinterpret_cast<const vask_art_node256 *>(n);
    for (unsigned byte = 0; byte < 256; ++byte) {
      if (node->children[byte] == 0) continue;
      ++count;
      child(byte, node->children[byte]);
    }
  }
  if (n->num_children != (count & 0xff)) text += "!";
  return text + "]";
}
inline std::string describe(const vask_art_tree *t) {
  return describe_cells(t, t->root);
}

// ---- the model ----

// The same tree with whole paths, children in a vector in node order, and recursion. Keys must be prefix-free.
class ModelTree {
 public:
  uintptr_t insert(const std::string &key, uintptr_t value, bool replace = true) {
    return insert_below(root_, key, 0, value, replace);
  }
  uintptr_t erase(const std::string &key) {
    uintptr_t value = 0;
    if (root_ && root_->kind == 0) {
      if (root_->bytes != key) return 0;
      value = root_->value;
      root_.reset();
      return value;
    }
    if (root_) erase_below(root_, key, 0, &value);
    return value;
  }
  Contents contents() const {
    Contents result;
    if (root_) collect_below(*root_, &result);
    return result;
  }
  std::string describe() const { return root_ ? describe_node(*root_) : ""; }

 private:
  struct Node {
    int kind;           // 0: a leaf; or room for children
    std::string bytes;  // the key, or the whole path
    uintptr_t value;
    std::vector<std::pair<uint8_t, std::unique_ptr<Node>>> children;
  };
  using Owner = std::unique_ptr<Node>;

  static Owner leaf(const std::string &key, uintptr_t value) { return Owner(new Node{0, key, value, {}}); }

  static void add(Node &n, uint8_t c, Owner child) {
    if (n.children.size() == static_cast<size_t>(n.kind)) {
      n.kind = n.kind == 4 ? 16 : n.kind == 16 ? 48 : 256;
      if (n.kind >= 48)
        std::sort(n.children.begin(), n.children.end(),
                  [](const auto &a, const auto &b) { return a.first < b.first; });
    }
    auto at = n.children.begin();
    while (at != n.children.end()) {
      const bool behind =
          n.kind == 16 ? static_cast<int8_t>(at->first) > static_cast<int8_t>(c) : at->first > c;
      if (behind) break;
      ++at;
    }
    n.children.emplace(at, c, std::move(child));
  }

  // Puts `owner` and a new leaf below a new node of four, forked `shared` bytes after `depth`.
  static void fork(Owner &owner, uint8_t old_byte, const std::string &key, size_t depth, size_t shared,
                   uintptr_t value) {
    Owner node(new Node{4, key.substr(depth, shared), 0, {}});
    add(*node, old_byte, std::move(owner));
    add(*node, static_cast<uint8_t>(key[depth + shared]), leaf(key, value));
    owner = std::move(node);
  }

  static uintptr_t insert_below(Owner &owner, const std::string &key, size_t depth, uintptr_t value,
                                bool replace) {
    if (!owner) {
      owner = leaf(key, value);
      return 0;
    }
    const size_t from = owner->kind == 0 ? depth : 0;
    size_t shared = 0;
    while (from + shared < owner->bytes.size() && depth + shared < key.size() &&
           owner->bytes[from + shared] == key[depth + shared])
      ++shared;
    if (owner->kind == 0) {
      if (owner->bytes == key) return std::exchange(owner->value, replace ? value : owner->value);
      const auto old_byte = static_cast<uint8_t>(owner->bytes[depth + shared]);
      fork(owner, old_byte, key, depth, shared, value);
      return 0;
    }
    if (shared < owner->bytes.size()) {
      const auto old_byte = static_cast<uint8_t>(owner->bytes[shared]);
      owner->bytes.erase(0, shared + 1);
      fork(owner, old_byte, key, depth, shared, value);
      return 0;
    }
    depth += shared;
    const auto c = static_cast<uint8_t>(key[depth]);
    for (auto &child : owner->children) {
      if (child.first == c) return insert_below(child.second, key, depth + 1, value, replace);
    }
    add(*owner, c, leaf(key, value));
    return 0;
  }

  static void erase_below(Owner &owner, const std::string &key, size_t depth, uintptr_t *value) {
    Node &n = *owner;
    if (key.compare(depth, n.bytes.size(), n.bytes) != 0) return;
    depth += n.bytes.size();
    if (depth >= key.size()) return;
    for (auto at = n.children.begin(); at != n.children.end(); ++at) {
      if (at->first != static_cast<uint8_t>(key[depth])) continue;
      if (at->second->kind != 0) return erase_below(at->second, key, depth + 1, value);
      if (at->second->bytes != key) return;
      *value = at->second->value;
      n.children.erase(at);
      shrink(owner);
      return;
    }
  }
  static void shrink(Owner &owner) {
    Node &n = *owner;
    const size_t left = n.children.size();
    if (n.kind == 16 && left == 3) n.kind = 4;
    if (n.kind == 48 && left == 12) n.kind = 16;
    if (n.kind == 256 && left == 37) n.kind = 48;
    if (n.kind != 4 || left != 1) return;
    Owner child = std::move(n.children[0].second);
    if (child->kind != 0) child->bytes = n.bytes + key_at(n.children[0].first) + child->bytes;
    owner = std::move(child);
  }

  static void collect_below(const Node &n, Contents *result) {
    if (n.kind == 0) result->emplace_back(n.bytes, n.value);
    for (const auto &child : n.children) collect_below(*child.second, result);
  }
  static std::string describe_node(const Node &n) {
    if (n.kind == 0) return "\"" + hex_text(n.bytes) + "\"";
    std::string text = std::to_string(n.kind) + "[" + std::to_string(n.bytes.size()) + ":" +
                       hex_text(std::string_view(n.bytes).substr(0, 10));
    for (const auto &child : n.children)
      text += " " + hex_text(key_at(child.first)) + ":" + describe_node(*child.second);
    return text + "]";
  }

  Owner root_;
};

// ---- random keys ----

inline unsigned fresh_art_seed() {
  return std::random_device{}();
}

// Makes keys that share long prefixes, fork at any byte, fill wide nodes, and are prefix-free: they hold no zero byte
// but the last.
class KeyMaker {
 public:
  explicit KeyMaker(std::mt19937 *random) : random_(random) {
    stems_.push_back("");
    for (int i = 0; i < 12; ++i) stems_.push_back(stems_[below(stems_.size())] + text(below(25)));
  }
  std::string key() { return stems_[below(stems_.size())] + text(below(4)) + std::string(1, '\0'); }
  // A prefix, or something near one.
  std::string prefix() {
    std::string result = key();
    result.resize(below(result.size() + 1));
    if (!result.empty() && below(4) == 0) result[below(result.size())] = byte();
    return result;
  }

 private:
  size_t below(size_t bound) { return (*random_)() % bound; }
  char byte() {
    static constexpr char kFew[] = {'a', 'b', '\x7f', '\x80', '\xff'};
    return below(3) != 0 ? kFew[below(sizeof kFew)] : static_cast<char>(1 + below(255));
  }
  std::string text(size_t len) {
    std::string result;
    while (result.size() < len) result += byte();
    return result;
  }

  std::mt19937 *random_;
  std::vector<std::string> stems_;
};

#endif
