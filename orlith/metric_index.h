// An index of the metrics below a data folder: one file with a tree from key to files and one from tag to metrics,
// read in place. doc/metric-index.md has the form.
//
// The file may hold anything. Opening it looks at its header and at the directory at its end, asking for something at
// the cells on the way there; each is checked before it is used (image_tree.h). verify() reads all of it.
//
// Texts that are returned tell what is wrong at which offset, and are empty while nothing is. Visitors return false to
// end a walk.
//
// Threads: any number may use one index. The file must not be changed or cut while it is open; who writes one puts a
// new file in its place.
#ifndef ORLITH_METRIC_INDEX_H
#define ORLITH_METRIC_INDEX_H

#include <time.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orlith/image_tree.h"
#include "orlith/metric_files.h"
#include "orlith/nnt_reader.h"

// The index that belongs to a data folder lies in it under this name.
constexpr std::string_view kIndexFile = "metrics.index";
constexpr uint16_t kIndexImageVersion = 1;

// The last bytes of the file. Little-endian.
struct IndexDirectory {
  char magic[4];  // "MIDX"
  uint16_t version;
  uint16_t zero;
  uint64_t file_bytes;
  uint64_t metrics_root;
  uint64_t metric_count;
  uint64_t tags_root;
  uint64_t tag_count;
  uint64_t tagged_count;  // entries of all lists together
  uint64_t trees_hash;    // of the data folder's trees: see data_scan.h
  uint64_t content_hash;  // XXH3, 64 bits, of what lies between the image's header and this field
};
static_assert(sizeof(IndexDirectory) == 72);
constexpr char kIndexMagic[4] = {'M', 'I', 'D', 'X'};
constexpr uint16_t kIndexVersion = 1;

// A list of metrics, as the value of a tag: a count of 64 bits, then as many leaves of the metrics, ascending, each as
// its offset divided by 8.
constexpr uint64_t kListHeadBytes = 8;
using LeafUnits = uint32_t;

// Blocks are filled up to a multiple of 8 bytes.
constexpr uint64_t padded(uint64_t bytes) {
  return (bytes + WRITEALIGN - 1) / WRITEALIGN * WRITEALIGN;
}

struct IndexStats {
  TreeShape metrics, tags;
  uint64_t files_bytes = 0;  // what metrics refer to, each block once
  uint64_t list_bytes = 0;   // what tags refer to
};

class MetricIndex {
 public:
  // Null with *problem: exit_not_found when there is no such file, exit_failed when it cannot be read, exit_damaged
  // when it is no index.
  static std::unique_ptr<MetricIndex> open(const std::string &path, Problem *problem);
  // The same for a file that is open; the descriptor stays the caller's.
  static std::unique_ptr<MetricIndex> open(int fd, Problem *problem);
  ~MetricIndex();
  MetricIndex(const MetricIndex &) = delete;
  MetricIndex &operator=(const MetricIndex &) = delete;

  const IndexDirectory &directory() const { return directory_; }
  // The time stamp of the file: nothing that changed in the folder before is missing.
  const struct timespec &as_of() const { return as_of_; }

  using Visit = std::function<bool(std::string_view key, const MetricFiles &files)>;
  // The files of one metric, if it is there.
  std::string find(std::string_view key, std::optional<MetricFiles> *files) const;
  // The metrics whose keys begin with the text.
  std::string each(std::string_view prefix, const Visit &visit) const;
  // The metrics that have all of these canonical tags, one or more. Begins with the rarest.
  std::string each_with_tags(std::span<const std::string> tags, const Visit &visit) const;

  std::string stats(IndexStats *stats) const;
  // Reads everything: both trees, every value and list, whether the tags are those of the keys, and the hash.
  std::string verify() const;

 private:
  MetricIndex(std::string_view image, const IndexDirectory &directory, const struct timespec &as_of);
  // The metrics that have one tag, as far as the file goes.
  struct List {
    const LeafUnits *leaves = nullptr;
    uint64_t count = 0;
    const LeafUnits *begin() const { return leaves; }
    const LeafUnits *end() const { return leaves + count; }
  };
  // Reads the files of one leaf after the other. Nearly all metrics of a folder share one set: the latest is kept.
  class FilesReader {
   public:
    explicit FilesReader(const MetricIndex &index) : index_(index) {}
    std::string read(const ImageLeaf &leaf);
    const MetricFiles &files() const { return files_; }

   private:
    const MetricIndex &index_;
    uint64_t offset_ = 0;  // that of files_
    MetricFiles files_;
  };

  uint64_t end_of_trees() const { return image_.size() - sizeof(IndexDirectory); }
  std::string list_of(const ImageLeaf &tag, List *list) const;
  std::string key_of(const ImageLeaf &leaf, std::string_view *key) const;
  std::string verify_trees() const;
  std::string verify_hash() const;
  // `leaves` are those of all metrics, ascending. Adds to *entries.
  std::string verify_list(const ImageLeaf &tag, const std::vector<LeafUnits> &leaves,
                          uint64_t *entries) const;

  std::string_view image_;
  IndexDirectory directory_;
  struct timespec as_of_;
  ImageTree metrics_, tags_;
};

// What is wrong with a tag as a user writes it; *tags gets it in its canonical spelling, and more than one for a list
// of them with commas.
std::string canonical_tags(const std::string &text, std::vector<std::string> *tags);
// The tags of a key, in their canonical spelling.
std::vector<std::string_view> tags_of_key(std::string_view key);

#endif
