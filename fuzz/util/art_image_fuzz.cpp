// Tree images. An input that begins with an even byte is an image whose last eight bytes are the offset of its root:
// opened as one that may be hostile, it is refused with a text, or holds what a reader of its own finds in it, and
// every function stays inside. One that begins with an odd byte is a list of keys: the tree of them, written and
// opened, holds what was put into it, trusted or not.
#include <sys/mman.h>
#include <unistd.h>

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

using Entries = std::vector<std::pair<std::string, uintptr_t>>;

int collect(void *data, const unsigned char *key, uint32_t key_len, void *value) {
  static_cast<Entries *>(data)->emplace_back(std::string(reinterpret_cast<const char *>(key), key_len),
                                             reinterpret_cast<uintptr_t>(value));
  return 0;
}
int look_at(void *data, const unsigned char *key, uint32_t key_len, bool, void *) {
  for (uint32_t i = 0; i < key_len; ++i) *static_cast<unsigned *>(data) += key[i];
  return 0;
}

// The image read by offsets, every access checked; knows nothing of the library but the format.
class Reader {
 public:
  Reader(const uint8_t *bytes, size_t size) : bytes_(bytes), size_(size) {}
  Entries contents(uint64_t root) {
    if (root != 0) read(root);
    return std::move(found_);
  }

 private:
  uint64_t number(uint64_t at, unsigned len) const {
    require(at <= size_ && len <= size_ - at);
    uint64_t result = 0;
    for (unsigned i = len; i-- > 0;) result = result << 8 | bytes_[at + i];
    return result;
  }
  void read(uint64_t pin) {
    if (pin % 2 == 1) {
      const uint64_t len = number(pin - 1 + 8, 4);
      std::string key;
      for (uint64_t i = 0; i < len; ++i) key += static_cast<char>(number(pin - 1 + 12 + i, 1));
      found_.emplace_back(key, number(pin - 1, 8));
      return;
    }
    const unsigned count = static_cast<unsigned>(number(pin + 5, 1));
    switch (number(pin + 4, 1)) {
      case 1:
      case 2:
        for (unsigned i = 0; i < count; ++i)
          read(number(pin + (number(pin + 4, 1) == 1 ? 24 : 32) + 8 * i, 8));
        break;
      case 3:
        for (unsigned byte = 0; byte < 256; ++byte) {
          const uint64_t slot = number(pin + 16 + byte, 1);
          if (slot != 0) read(number(pin + 272 + 8 * (slot - 1), 8));
        }
        break;
      case 4:
        for (unsigned byte = 0; byte < 256; ++byte) {
          const uint64_t child = number(pin + 16 + 8 * byte, 8);
          if (child != 0) read(child);
        }
        break;
      default:
        require(false);
    }
  }

  const uint8_t *bytes_;
  size_t size_;
  Entries found_;
};

void walk(const vask_art_tree *tree, const Entries &expected) {
  Entries found;
  require(vask_art_iter(tree, collect, &found) == 0);
  require(found == expected);
  unsigned sum = 0;
  vask_art_iter_bfsp_prefix(tree, nullptr, 0, look_at, &sum);
  require((vask_art_minimum(tree) == nullptr) == expected.empty());
  require((vask_art_maximum(tree) == nullptr) == expected.empty());
  for (const auto &[key, value] : expected) {
    const int len = static_cast<int>(key.size());
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[key.size()]);
    memcpy(exact.get(), key.data(), key.size());
    require(reinterpret_cast<uintptr_t>(vask_art_search(tree, exact.get(), len)) == value);
    for (const int cut : {1, len / 2, len - 1}) {
      if (cut < 0 || cut > len) continue;
      const std::unique_ptr<unsigned char[]> prefix(new unsigned char[static_cast<size_t>(cut)]);
      memcpy(prefix.get(), key.data(), static_cast<size_t>(cut));
      if (cut < len) require(vask_art_search(tree, prefix.get(), cut) == nullptr);
      Entries below;
      vask_art_iter_prefix(tree, prefix.get(), cut, collect, &below);
      require(std::find(below.begin(), below.end(), std::pair{key, value}) != below.end());
      vask_art_iter_bfsp_prefix(tree, prefix.get(), cut, look_at, &sum);
    }
  }
}

vask_art_tree_interposition_t *read_only() {
  static vask_art_tree_interposition_t ops = {};
  ops.read_only = true;
  return &ops;
}

void open_hostile(const uint8_t *data, size_t size) {
  if (size < 8) return;
  const std::unique_ptr<uint8_t[]> image(
      new uint8_t[size - 8]);  // at a multiple of 8, and ends where it ends
  memcpy(image.get(), data, size - 8);
  uintptr_t root = 0;
  memcpy(&root, data + size - 8, 8);
  file_serializer_t ser = {-1, size - 8, reinterpret_cast<uintptr_t>(image.get()), false};
  vask_art_tree tree;
  char *err = nullptr;
  const bool good =
      vask_art_serializer_verified_tree_at_offset(&ser, &tree, root, read_only(), nullptr, &err);
  require(good == (err == nullptr));
  free(err);
  if (good) walk(&tree, Reader(image.get(), size - 8).contents(root));
}

void open_own(const uint8_t *data, size_t size) {
  vask_art_tree tree;
  vask_art_tree_init(&tree);
  std::map<std::string, uintptr_t> map;
  for (size_t at = 0; at < size;) {
    const size_t len = std::min<size_t>(data[at] % 32, size - at - 1);
    std::string key(reinterpret_cast<const char *>(data + at + 1), len);
    std::replace(key.begin(), key.end(), '\0', '\1');
    key += '\0';
    const auto *bytes = reinterpret_cast<const unsigned char *>(key.data());
    if (data[at] >= 224) {
      vask_art_delete(&tree, bytes, static_cast<int>(key.size()));
      map.erase(key);
    } else {
      vask_art_insert(&tree, bytes, static_cast<int>(key.size()), reinterpret_cast<void *>(at + 1));
      map[key] = at + 1;
    }
    at += 1 + len;
  }
  const int fd = memfd_create("image", MFD_CLOEXEC);
  const vask_art_ser_hdr header = VASK_ART_SER_HDR;
  require(write(fd, &header, sizeof header) == sizeof header);
  file_serializer_t out = {fd, ART_DEFAULT_OFFSET, 0, false};
  uintptr_t root = 0;
  require(vask_art_serializer_write_tree(&out, &tree, nullptr, nullptr, &root));
  require(vask_art_serializer_finalize(&out, VASK_ART_SER_COMPLETE));
  vask_art_tree_destroy(&tree);
  const std::string name = "/proc/self/fd/" + std::to_string(fd);
  file_serializer_t *in = vask_art_serializer_new(name.c_str(), 0, false);
  require(in != nullptr && in->offset == out.offset);
  close(fd);
  vask_art_tree trusted, verified;
  require(vask_art_serializer_tree_at_offset(in, &trusted, root, read_only(), nullptr));
  require(vask_art_serializer_verified_tree_at_offset(in, &verified, root, read_only(), nullptr, nullptr));
  Entries contents;
  vask_art_iter(&trusted, collect, &contents);
  walk(&trusted, contents);
  walk(&verified, contents);
  std::sort(contents.begin(), contents.end());
  require(contents == Entries(map.begin(), map.end()));
  vask_art_serializer_destroy(in);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size = std::min<size_t>(size, 8192);
  if (data[0] % 2 == 0) {
    open_hostile(data + 1, size - 1);
  } else {
    open_own(data + 1, size - 1);
  }
  return 0;
}
