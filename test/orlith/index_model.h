// Index files put together block by block, independently of the tool.
#ifndef TEST_ORLITH_INDEX_MODEL_H
#define TEST_ORLITH_INDEX_MODEL_H

#include <xxhash.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "test/orlith/nnt_model.h"

struct IndexModel {
  static constexpr size_t kDirectory = 72;
  std::string bytes = std::string("ART\0\1\0\1\0", 8);

  // A block and its offset.
  uint64_t put(std::string block) {
    const uint64_t offset = bytes.size();
    bytes += block;
    bytes.resize((bytes.size() + 7) / 8 * 8);
    return offset;
  }
  // The pin of a leaf; the NUL is added.
  uint64_t leaf(const std::string &key, uint64_t value) {
    std::string block;
    put_le(block, value, 8);
    put_le(block, key.size() + 1, 4);
    return put(block + key + '\0') | 1;
  }
  // Of at most four children, by their bytes.
  uint64_t node4(const std::string &path, const std::vector<std::pair<char, uint64_t>> &children) {
    std::string block;
    put_le(block, path.size(), 4);
    block += '\1';
    block += static_cast<char>(children.size());
    block += path.substr(0, 10);
    block.resize(16);
    for (const auto &child : children) block += child.first;
    block.resize(24);
    for (const auto &child : children) put_le(block, child.second, 8);
    block.resize(56);
    return put(block);
  }
  // Rollup files of these periods, in no node's tree.
  uint64_t rollups(const std::vector<uint32_t> &periods_s) {
    std::string block = std::string("\1\0", 2);
    put_le(block, periods_s.size(), 2);
    for (const uint32_t period_s : periods_s) {
      block += std::string(16, '\0');
      put_le(block, period_s, 4);
      block += std::string("\0\1\0\0", 4);
    }
    return put(block);
  }
  uint64_t list(const std::vector<uint64_t> &leaves) {
    std::string block;
    put_le(block, leaves.size(), 8);
    for (const uint64_t leaf : leaves) put_le(block, (leaf & ~uint64_t{1}) / 8, 4);
    return put(block);
  }
  // `trees` are the names of the folders at the top, each with a line feed.
  std::string finish(uint64_t metrics_root, uint64_t metrics, uint64_t tags_root, uint64_t tags,
                     uint64_t tagged, const std::string &trees = "60\n") {
    std::string directory = std::string("MIDX\1\0\0\0", 8);
    put_le(directory, bytes.size() + kDirectory, 8);
    for (const uint64_t word : {metrics_root, metrics, tags_root, tags, tagged}) put_le(directory, word, 8);
    put_le(directory, XXH3_64bits(trees.data(), trees.size()), 8);
    bytes += directory;
    put_le(bytes, XXH3_64bits(bytes.data() + 8, bytes.size() - 8), 8);
    return bytes;
  }
};

// One metric with one tag.
inline std::string one_metric_index(const std::string &key, const std::string &tag, uint32_t period_s) {
  IndexModel model;
  const uint64_t files = model.rollups({period_s});
  const uint64_t metric = model.leaf(key, files);
  const uint64_t list = model.list({metric});
  const uint64_t tags = model.leaf(tag, list);
  return model.finish(metric, 1, tags, 1, 1, std::to_string(period_s) + "\n");
}

#endif
