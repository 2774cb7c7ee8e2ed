// Looks through a data folder for its metrics: doc/data-folder.md says what lies where.
#ifndef ORLITH_DATA_SCAN_H
#define ORLITH_DATA_SCAN_H

#include <cstdint>
#include <string>

#include "orlith/metric_index.h"
#include "orlith/metric_index_builder.h"

struct DataScan {
  uint64_t files = 0;        // rollup files, and folders of histogram files
  uint64_t passed_over = 0;  // what lies among them and is none: working copies, names that no metric has
  // Of the names of the trees, which are the folders of periods and nodes at the top: each with a line feed, in the
  // order of their bytes, through XXH3 with 64 bits. It tells a tree that came or went, of which no other sign stays.
  uint64_t trees_hash = 0;
};

// Adds all metrics. False with *problem (its text names what is below the folder) when something cannot be read, or
// was interrupted.
bool scan_data_folder(const std::string &folder, MetricIndexBuilder *builder, DataScan *scan,
                      Problem *problem);

// The trees' hash alone.
bool hash_trees(const std::string &folder, uint64_t *hash, Problem *problem);

// Whether the index knows what lies in the folder: no folder in it changed after the index's time stamp, as far as
// folders tell, which is when files come and go, and not what is in them. Reads the names of trees and checks only.
bool index_is_current(const std::string &folder, const MetricIndex &index, bool *is_current,
                      Problem *problem);

#endif
