#include "orlith/metric_index_builder.h"

#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <string>

#include "orlith/metric_index.h"

namespace {

using List = std::vector<LeafUnits>;
constexpr size_t kReadBytes = size_t{1} << 20;

struct FreeHash {
  void operator()(XXH3_state_t *state) const { XXH3_freeState(state); }
};

const unsigned char *bytes_of(const std::string &text) {
  return reinterpret_cast<const unsigned char *>(text.data());
}

// Keys are stored with a NUL, so that none begins with another.
std::string stored_key(std::string_view key) {
  return std::string(key) + '\0';
}

class ImageWriter {
 public:
  ImageWriter(int fd, const vask_art_tree &metrics, const std::vector<MetricFiles> &sets)
      : ser_{fd, ART_DEFAULT_OFFSET, 0, false}, metrics_(metrics), sets_(sets), set_offsets_(sets.size()) {
    vask_art_tree_init(&tags_);
  }
  ~ImageWriter() { vask_art_tree_destroy(&tags_); }
  ImageWriter(const ImageWriter &) = delete;
  ImageWriter &operator=(const ImageWriter &) = delete;

  bool write(uint64_t trees_hash, MetricIndexBuilder::Counts *counts) {
    uintptr_t metrics_root = 0, tags_root = 0;
    if (!write_header() || !write_tree(metrics_, write_files, &metrics_root)) return false;
    vask_art_iter(&metrics_, list_tags, this);
    if (!write_tree(tags_, write_list, &tags_root)) return false;
    IndexDirectory directory = {};
    memcpy(directory.magic, kIndexMagic, sizeof directory.magic);
    directory.version = kIndexVersion;
    directory.file_bytes = ser_.offset + sizeof directory;
    directory.metrics_root = metrics_root;
    directory.metric_count = vask_art_size(&metrics_);
    directory.tags_root = tags_root;
    directory.tag_count = vask_art_size(&tags_);
    directory.tagged_count = tagged_;
    directory.trees_hash = trees_hash;
    if (!hash_content(directory, &directory.content_hash)) return false;
    if (vask_art_serializer_write_custom(&ser_, &directory, sizeof directory) == 0) return false;
    *counts = {directory.metric_count, directory.tag_count, tagged_, ser_.offset};
    return vask_art_serializer_finalize(&ser_, VASK_ART_SER_COMPLETE);
  }

 private:
  bool write_header() {
    vask_art_ser_hdr header = VASK_ART_SER_HDR;
    header.version = kIndexImageVersion;
    const auto *bytes = reinterpret_cast<const char *>(&header);
    for (size_t at = 0; at < sizeof header;) {
      const ssize_t put = pwrite(ser_.fd, bytes + at, sizeof header - at, static_cast<off_t>(at));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return false;
      at += static_cast<size_t>(put);
    }
    return true;
  }

  // What was written, as the file has it, and the directory but for the hash.
  bool hash_content(const IndexDirectory &directory, uint64_t *hash) const {
    const std::unique_ptr<XXH3_state_t, FreeHash> state(XXH3_createState());
    if (state == nullptr || XXH3_64bits_reset(state.get()) != XXH_OK) return false;
    std::vector<char> buffer(kReadBytes);
    for (uint64_t at = ART_DEFAULT_OFFSET; at < ser_.offset;) {
      const ssize_t got = pread(ser_.fd, buffer.data(), std::min<uint64_t>(buffer.size(), ser_.offset - at),
                                static_cast<off_t>(at));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      XXH3_64bits_update(state.get(), buffer.data(), static_cast<size_t>(got));
      at += static_cast<uint64_t>(got);
    }
    XXH3_64bits_update(state.get(), &directory, offsetof(IndexDirectory, content_hash));
    *hash = XXH3_64bits_digest(state.get());
    return true;
  }

  bool write_tree(const vask_art_tree &tree, vask_art_value_serialize_f hook, uintptr_t *root) {
    vask_art_tree_interposition_t ops = vask_art_tree_default_interposition;
    ops.serialize = hook;
    return vask_art_serializer_write_tree(&ser_, &tree, &ops, this, root);
  }

  // Each set once. Leaves are written in the tree's order, each right behind what its hook writes.
  static ssize_t write_files(void *self, const vask_art_tree *, void *value, vask_art_writer_f writer,
                             file_serializer_t *ser) {
    auto *image = static_cast<ImageWriter *>(self);
    uint64_t &offset = image->set_offsets_[reinterpret_cast<uintptr_t>(value)];
    if (offset == 0) {
      const std::string bytes = encode_files(image->sets_[reinterpret_cast<uintptr_t>(value)]);
      offset = writer(ser, bytes.data(), bytes.size());
      if (offset == 0) return -1;
    }
    const uint64_t units = ser->offset / WRITEALIGN;
    if (units > std::numeric_limits<LeafUnits>::max()) {
      errno = EFBIG;
      return -1;
    }
    image->leaves_.push_back(static_cast<LeafUnits>(units));
    return static_cast<ssize_t>(offset);
  }

  // Called in the same order, so that the lists ascend.
  static int list_tags(void *self, const unsigned char *key, uint32_t key_len, void *) {
    auto *image = static_cast<ImageWriter *>(self);
    const LeafUnits leaf = image->leaves_[image->listed_++];
    for (const std::string_view tag :
         tags_of_key({reinterpret_cast<const char *>(key), size_t{key_len} - 1})) {
      List *list = image->list_of(tag);
      list->push_back(leaf);
      ++image->tagged_;
    }
    return 0;
  }

  List *list_of(std::string_view tag) {
    const std::string key = stored_key(tag);
    const int len = static_cast<int>(key.size());
    if (void *known = vask_art_search(&tags_, bytes_of(key), len)) return static_cast<List *>(known);
    List *list = &lists_.emplace_back();
    vask_art_insert(&tags_, bytes_of(key), len, list);
    return list;
  }

  static ssize_t write_list(void *, const vask_art_tree *, void *value, vask_art_writer_f writer,
                            file_serializer_t *ser) {
    const auto *list = static_cast<const List *>(value);
    const uint64_t count = list->size();
    std::string bytes(reinterpret_cast<const char *>(&count), sizeof count);
    bytes.append(reinterpret_cast<const char *>(list->data()), list->size() * sizeof(LeafUnits));
    const uint64_t offset = writer(ser, bytes.data(), bytes.size());
    return offset == 0 ? -1 : static_cast<ssize_t>(offset);
  }

  file_serializer_t ser_;
  const vask_art_tree &metrics_;
  const std::vector<MetricFiles> &sets_;
  std::vector<uint64_t> set_offsets_;  // 0: not written yet
  std::vector<LeafUnits> leaves_;      // of the metrics, in order
  size_t listed_ = 0;
  uint64_t tagged_ = 0;
  std::deque<List> lists_;
  vask_art_tree tags_;  // the values are the lists
};

}  // namespace

MetricIndexBuilder::MetricIndexBuilder() : sets_(1) {
  vask_art_tree_init(&metrics_);
}

MetricIndexBuilder::~MetricIndexBuilder() {
  vask_art_tree_destroy(&metrics_);
}

MetricIndexBuilder::SetNumber MetricIndexBuilder::number_of(MetricFiles files) {
  const auto [at, is_new] = numbers_.emplace(std::move(files), static_cast<SetNumber>(sets_.size()));
  if (is_new) sets_.push_back(at->first);
  return at->second;
}

bool MetricIndexBuilder::add(std::string_view key, const MetricPlace &place) {
  const std::string stored = stored_key(key);
  const int len = static_cast<int>(stored.size());
  const auto old =
      static_cast<SetNumber>(reinterpret_cast<uintptr_t>(vask_art_search(&metrics_, bytes_of(stored), len)));
  const auto [known, is_unknown] = with_one_more_.try_emplace({old, place}, old);
  if (is_unknown && !has_place(sets_[old], place)) {
    MetricFiles files = sets_[old];
    add_place(&files, place);
    known->second = number_of(std::move(files));
  }
  if (known->second == old) return false;
  vask_art_insert(&metrics_, bytes_of(stored), len, reinterpret_cast<void *>(uintptr_t{known->second}));
  return true;
}

bool MetricIndexBuilder::add(std::string_view key, const MetricFiles &files) {
  bool is_news = false;
  for (const MetricPlace &place : files) is_news = add(key, place) || is_news;
  return is_news;
}

int MetricIndexBuilder::write(int fd, uint64_t trees_hash, Counts *counts) const {
  for (const MetricFiles &files : sets_)
    if (files.size() > kMostPlaces) return EFBIG;
  errno = 0;
  if (ImageWriter(fd, metrics_, sets_).write(trees_hash, counts)) return 0;
  return errno != 0 ? errno : EIO;
}
