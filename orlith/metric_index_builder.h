// Gathers metrics in memory and writes them as an index: doc/metric-index.md.
#ifndef ORLITH_METRIC_INDEX_BUILDER_H
#define ORLITH_METRIC_INDEX_BUILDER_H

#include <cstdint>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "liborlith/util/vask_art.h"
#include "orlith/metric_files.h"

class MetricIndexBuilder {
 public:
  MetricIndexBuilder();
  ~MetricIndexBuilder();
  MetricIndexBuilder(const MetricIndexBuilder &) = delete;
  MetricIndexBuilder &operator=(const MetricIndexBuilder &) = delete;

  // A metric, by its key, has files in one more place, or in these; whether that is news.
  bool add(std::string_view key, const MetricPlace &place);
  bool add(std::string_view key, const MetricFiles &files);

  uint64_t metric_count() const { return vask_art_size(&metrics_); }

  // What a written index holds.
  struct Counts {
    uint64_t metrics = 0, tags = 0, tagged = 0, bytes = 0;
  };
  // Writes the index into an empty file that can be read, too; `trees_hash` as in data_scan.h. 0, or an errno, EFBIG
  // for more than 32 GiB; then what was written is of no use.
  int write(int fd, uint64_t trees_hash, Counts *counts) const;

 private:
  using SetNumber = uint32_t;
  SetNumber number_of(MetricFiles files);

  // Nearly all metrics share one of a few sets of places: a key's value is the number of its set. Number 0 is empty.
  vask_art_tree metrics_;
  std::vector<MetricFiles> sets_;
  std::map<MetricFiles, SetNumber> numbers_;
  std::map<std::pair<SetNumber, MetricPlace>, SetNumber> with_one_more_;
};

#endif
