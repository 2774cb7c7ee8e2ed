// Reads all of an index: what is in it, and whether it is sound.
#include <fmt/format.h>
#include <sys/mman.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "orlith/locator.h"
#include "orlith/metric_index.h"

namespace {

struct FreeText {
  void operator()(char *text) const { free(text); }
};

// Makes the verifier look at values as offsets; nothing is ever translated.
void *value_as_it_is(void *, const vask_art_tree *, const void *stored) {
  return const_cast<void *>(stored);
}

std::string verify_tree(std::string_view image, uint64_t end, uint64_t root, const char *what) {
  vask_art_tree_interposition_t ops{};
  ops.read_only = true;
  ops.deserialize = value_as_it_is;
  file_serializer_t ser = {-1, end, reinterpret_cast<uintptr_t>(image.data()), false};
  vask_art_tree tree;
  char *text = nullptr;
  const bool is_sound = vask_art_serializer_verified_tree_at_offset(&ser, &tree, root, &ops, nullptr, &text);
  const std::unique_ptr<char, FreeText> owner(text);
  if (is_sound) return "";
  return fmt::format("tree of the {}: {}", what, text != nullptr ? text : "out of memory");
}

std::string count_fault(const char *what, uint64_t found, uint64_t expected) {
  if (found == expected) return "";
  return fmt::format("the directory says {} {}, found {}", expected, what, found);
}

// Whether the name is canonical: with another spelling nobody would find the metric.
bool is_canonical(std::string_view key) {
  std::string fault;
  const Locator locator = make_locator(std::string(check_of_key(key)), name_of_key(key), &fault);
  return locator != nullptr &&
         name_of_key(key) == std::string_view(orlith_metric_locator_get_name_with_tags(locator.get()),
                                              orlith_metric_locator_get_name_len_with_tags(locator.get()));
}

}  // namespace

std::string MetricIndex::verify_trees() const {
  const uint64_t end = end_of_trees();
  std::string fault = verify_tree(image_, end, directory_.metrics_root, "metrics");
  return !fault.empty() ? fault : verify_tree(image_, end, directory_.tags_root, "tags");
}

std::string MetricIndex::verify() const {
  madvise(const_cast<char *>(image_.data()), image_.size(), MADV_NORMAL);
  std::string fault = verify_trees();
  if (!fault.empty()) return fault;

  FilesReader reader(*this);
  std::vector<LeafUnits> leaves;  // ascending, as the walk goes
  uint64_t tagged = 0;
  std::string own_fault;
  fault = metrics_.each("", [&](const ImageLeaf &leaf) {
    std::string_view key;
    own_fault = key_of(leaf, &key);
    if (own_fault.empty() && !is_canonical(key))
      own_fault = fmt::format("leaf at offset {}: its metric's name is not canonical", leaf.offset);
    if (own_fault.empty()) own_fault = reader.read(leaf);
    if (own_fault.empty()) tagged += tags_of_key(key).size();
    leaves.push_back(static_cast<LeafUnits>(leaf.offset / WRITEALIGN));
    return own_fault.empty();
  });
  if (fault.empty()) fault = own_fault;
  if (fault.empty()) fault = count_fault("metrics", leaves.size(), directory_.metric_count);
  if (fault.empty()) fault = count_fault("entries of lists", tagged, directory_.tagged_count);
  if (!fault.empty()) return fault;

  // Every entry is a metric that has the tag, none stands twice, and they are as many as the metrics have tags: so none
  // is missing.
  uint64_t tags = 0;
  uint64_t entries = 0;
  fault = tags_.each("", [&](const ImageLeaf &tag) {
    own_fault = verify_list(tag, leaves, &entries);
    ++tags;
    return own_fault.empty();
  });
  if (fault.empty()) fault = own_fault;
  if (fault.empty()) fault = count_fault("tags", tags, directory_.tag_count);
  if (fault.empty()) fault = count_fault("entries of lists", entries, directory_.tagged_count);
  return !fault.empty() ? fault : verify_hash();
}

// Behind the structure, which says better what is wrong.
std::string MetricIndex::verify_hash() const {
  const uint64_t at = image_.size() - sizeof directory_.content_hash;
  const std::string_view hashed = image_.substr(ART_DEFAULT_OFFSET, at - ART_DEFAULT_OFFSET);
  const uint64_t hash = XXH3_64bits(hashed.data(), hashed.size());
  if (hash == directory_.content_hash) return "";
  return fmt::format("hash at offset {}: found {:016x}, expected {:016x}: some byte was changed", at,
                     directory_.content_hash, hash);
}

std::string MetricIndex::verify_list(const ImageLeaf &tag, const std::vector<LeafUnits> &leaves,
                                     uint64_t *entries) const {
  if (tag.key.empty() || tag.key.back() != '\0')
    return fmt::format("leaf at offset {}: its key is no tag", tag.offset);
  const std::string_view text = tag.key.substr(0, tag.key.size() - 1);
  List list;
  std::string fault = list_of(tag, &list);
  if (!fault.empty()) return fault;
  *entries += list.count;
  for (uint64_t i = 0; i < list.count; ++i) {
    const auto fail = [&](const char *what) {
      return fmt::format("list at offset {}: entry {}, offset {}: {}", tag.value, i,
                         uint64_t{list.leaves[i]} * WRITEALIGN, what);
    };
    if (i > 0 && list.leaves[i] <= list.leaves[i - 1]) return fail("not behind the one before it");
    if (!std::binary_search(leaves.begin(), leaves.end(), list.leaves[i]))
      return fail("no metric begins there");
    ImageLeaf leaf;
    fault = metrics_.leaf_at(uint64_t{list.leaves[i]} * WRITEALIGN, &leaf);
    if (!fault.empty()) return fault;
    const std::vector<std::string_view> tags = tags_of_key(leaf.key.substr(0, leaf.key.size() - 1));
    if (std::find(tags.begin(), tags.end(), text) == tags.end())
      return fail("the metric does not have the tag");
  }
  return "";
}

std::string MetricIndex::stats(IndexStats *stats) const {
  madvise(const_cast<char *>(image_.data()), image_.size(), MADV_NORMAL);
  *stats = {};
  FilesReader reader(*this);
  std::unordered_set<uint64_t> seen;
  std::string own_fault;
  const auto count_files = [&](const ImageLeaf &leaf) {
    own_fault = reader.read(leaf);
    if (own_fault.empty() && seen.insert(leaf.value).second)
      stats->files_bytes += padded(encode_files(reader.files()).size());
    return own_fault.empty();
  };
  std::string fault = metrics_.each("", count_files, &stats->metrics);
  if (fault.empty()) fault = own_fault;
  if (!fault.empty()) return fault;
  const auto count_list = [&](const ImageLeaf &tag) {
    List list;
    own_fault = list_of(tag, &list);
    if (own_fault.empty()) stats->list_bytes += padded(kListHeadBytes + list.count * sizeof(LeafUnits));
    return own_fault.empty();
  };
  fault = tags_.each("", count_list, &stats->tags);
  return fault.empty() ? own_fault : fault;
}
