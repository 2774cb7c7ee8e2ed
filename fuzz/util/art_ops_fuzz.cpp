// Edits of a radix tree by arbitrary bytes, next to an ordered map. An operation is a byte that says what to do, one
// with a length, and as many bytes of key. Keys of the first kind are made prefix-free as strings are, by a NUL at
// their end; those of the second are taken as they are, from few bytes, to show that breaking the rule breaks nothing
// else.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "liborlith/util/vask_art.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

class Input {
 public:
  Input(const uint8_t *data, size_t size) : at_(data), end_(data + size) {}
  bool empty() const { return at_ == end_; }
  uint8_t byte() { return at_ < end_ ? *at_++ : uint8_t{0}; }
  // Up to 255 bytes, each 7 times over when the length is odd, so that short inputs make long paths.
  std::string key() {
    const uint8_t len = byte();
    std::string result;
    for (unsigned i = 0; i < len / 2 && !empty(); ++i)
      result.append(len % 2 != 0 ? 7 : 1, static_cast<char>(byte()));
    return result;
  }

 private:
  const uint8_t *at_, *end_;
};

// Ends where the key ends.
struct Exact {
  std::unique_ptr<unsigned char[]> bytes;
  int len;
  explicit Exact(const std::string &key)
      : bytes(new unsigned char[key.size()]), len(static_cast<int>(key.size())) {
    memcpy(bytes.get(), key.data(), key.size());
  }
};

using Entries = std::vector<std::pair<std::string, void *>>;

int collect(void *data, const unsigned char *key, uint32_t key_len, void *value) {
  static_cast<Entries *>(data)->emplace_back(std::string(reinterpret_cast<const char *>(key), key_len),
                                             value);
  return 0;
}

// Entries that are not partial, each told once or twice.
int collect_leaves(void *data, const unsigned char *key, uint32_t key_len, bool partial, void *value) {
  require(key_len > 0 || !partial);
  return partial ? 0 : collect(data, key, key_len, value);
}

class Edits {
 public:
  Edits() { vask_art_tree_init(&tree_); }
  ~Edits() { vask_art_tree_destroy(&tree_); }
  Edits(const Edits &) = delete;
  Edits &operator=(const Edits &) = delete;

  void edit(uint8_t what, const std::string &key) {
    const Exact exact(key);
    void *value = reinterpret_cast<void *>(++count_);
    const auto known = map_.find(key);
    void *before = known != map_.end() ? known->second : nullptr;
    switch (what % 4) {
      case 0:
        require(vask_art_insert(&tree_, exact.bytes.get(), exact.len, value) == before);
        map_[key] = value;
        break;
      case 1:
        require(vask_art_insert_no_replace(&tree_, exact.bytes.get(), exact.len, value) == before);
        map_.emplace(key, value);
        break;
      case 2:
        require(vask_art_delete(&tree_, exact.bytes.get(), exact.len) == before);
        map_.erase(key);
        break;
      default:
        require(vask_art_search(&tree_, exact.bytes.get(), exact.len) == before);
        compare_prefix(key.substr(0, key.size() - 1));
    }
    require(vask_art_size(&tree_) == map_.size());
  }

  void compare_prefix(const std::string &prefix) {
    const Exact exact(prefix);
    Entries expected, found, told;
    for (auto at = map_.lower_bound(prefix); at != map_.end() && at->first.starts_with(prefix); ++at)
      expected.emplace_back(*at);
    require(vask_art_iter_prefix(&tree_, exact.bytes.get(), exact.len, collect, &found) == 0);
    require(vask_art_iter_bfsp_prefix(&tree_, exact.bytes.get(), exact.len, collect_leaves, &told) == 0);
    std::sort(found.begin(), found.end());
    require(found == expected);
    std::sort(told.begin(), told.end());
    told.erase(std::unique(told.begin(), told.end()), told.end());
    require(told == expected);
  }

 private:
  vask_art_tree tree_;
  std::map<std::string, void *> map_;
  uintptr_t count_ = 0;
};

void without_rule(Input *input) {
  vask_art_tree tree;
  vask_art_tree_init(&tree);
  while (!input->empty()) {
    const uint8_t what = input->byte();
    std::string key = input->key();
    for (char &byte : key) byte = "\0\1a"[static_cast<unsigned char>(byte) % 3];
    const Exact exact(key);
    if (what % 4 == 2) {
      vask_art_delete(&tree, exact.bytes.get(), exact.len);
    } else {
      vask_art_insert(&tree, exact.bytes.get(), exact.len, &tree);
    }
    void *found = vask_art_search(&tree, exact.bytes.get(), exact.len);
    require(found == nullptr || found == &tree);
    Entries entries;
    vask_art_iter_prefix(&tree, exact.bytes.get(), exact.len, collect, &entries);
    // A key that is a prefix of others lies where zeros follow it, and is told with what starts so.
    for (const auto &entry : entries) require(entry.first.starts_with(key) || key.starts_with(entry.first));
    vask_art_iter_bfsp_prefix(&tree, exact.bytes.get(), exact.len, collect_leaves, &entries);
  }
  vask_art_tree_destroy(&tree);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input input(data, std::min<size_t>(size, 4096));
  if (input.byte() % 4 == 3) {
    without_rule(&input);
    return 0;
  }
  Edits edits;
  while (!input.empty()) {
    const uint8_t what = input.byte();
    std::string key = input.key();
    std::replace(key.begin(), key.end(), '\0', '\1');
    edits.edit(what, key + '\0');
  }
  edits.compare_prefix("");
  return 0;
}
