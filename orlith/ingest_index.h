// Keeps the index of a data folder up to date over one ingestion run, which holds the folder's lock meanwhile.
//
// What is there is added to when it knew all of the folder before the run wrote anything; it is left as it is, but for
// its time stamp, when the run brought no new metric. Otherwise, and when it turns out to be damaged, the folder is
// looked through.
#ifndef ORLITH_INGEST_INDEX_H
#define ORLITH_INGEST_INDEX_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orlith/metric_index.h"

class IngestIndex {
 public:
  // Before the first write.
  void look_at(const std::string &folder);

  // After the last one, with the keys of what was written and the places, none of them empty.
  using Stored = std::vector<std::pair<std::string, MetricFiles>>;
  // False with error(): then the old index, if there is one, stands.
  bool update(const Stored &stored);

  const std::string &error() const { return error_; }      // names the file
  const std::string &warning() const { return warning_; }  // the same; empty while there is none

 private:
  // Whether the index that is there can stay.
  bool knows(const Stored &stored);
  bool touch() const;
  bool build(const Stored &stored);
  // What was opened is of no use.
  void give_up(const std::string &fault);
  bool fail(const std::string &what);

  std::string folder_;
  std::string path_;
  std::unique_ptr<MetricIndex> index_;  // null when the folder has to be looked through
  std::string error_;
  std::string warning_;
};

#endif
