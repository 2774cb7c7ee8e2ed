#include "orlith/ingest_index.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "orlith/atomic_file.h"
#include "orlith/data_scan.h"

void IngestIndex::look_at(const std::string &folder) {
  folder_ = folder;
  path_ = folder + (folder.ends_with('/') ? "" : "/") + std::string(kIndexFile);
  Problem problem;
  index_ = MetricIndex::open(path_, &problem);
  if (index_ == nullptr) {
    if (problem.code != exit_not_found) give_up(problem.text);
    return;
  }
  bool is_current = false;
  if (!index_is_current(folder, *index_, &is_current, &problem) || !is_current) index_.reset();
}

void IngestIndex::give_up(const std::string &fault) {
  index_.reset();
  warning_ = path_ + ": " + fault + "; made anew from the folder";
}

bool IngestIndex::fail(const std::string &what) {
  error_ = path_ + ": " + what;
  return false;
}

bool IngestIndex::update(const Stored &stored) {
  if (knows(stored) && touch()) return true;
  return build(stored);
}

bool IngestIndex::knows(const Stored &stored) {
  for (const auto &[key, files] : stored) {
    if (index_ == nullptr) return false;
    std::optional<MetricFiles> known;
    if (const std::string fault = index_->find(key, &known); !fault.empty()) {
      give_up(fault);
      return false;
    }
    const auto is_known = [&](const MetricPlace &place) { return known && has_place(*known, place); };
    if (!std::all_of(files.begin(), files.end(), is_known)) return false;
  }
  return index_ != nullptr;
}

// The index knows all that is in the folder by now.
bool IngestIndex::touch() const {
  const struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
  return utimensat(AT_FDCWD, path_.c_str(), times, 0) == 0;
}

bool IngestIndex::build(const Stored &stored) {
  // A flipped bit must not be taken over into every index from now on.
  if (index_ != nullptr)
    if (const std::string fault = index_->verify(); !fault.empty()) give_up(fault);
  MetricIndexBuilder builder;
  DataScan scan;
  Problem problem;
  if (index_ != nullptr) {
    const auto take = [&](std::string_view key, const MetricFiles &files) {
      builder.add(key, files);
      return true;
    };
    if (const std::string fault = index_->each("", take); !fault.empty()) return fail(fault);
    for (const auto &[key, files] : stored) builder.add(key, files);
    if (!hash_trees(folder_, &scan.trees_hash, &problem)) return fail(problem.text);
  } else if (!scan_data_folder(folder_, &builder, &scan, &problem)) {
    // An interrupted run ends at once. The next one sees that the folder is ahead of the index.
    return problem.code == exit_interrupted || fail(problem.text);
  }
  AtomicFile file(path_);
  MetricIndexBuilder::Counts counts;
  int error = file.open();
  if (error == 0) error = builder.write(file.fd(), scan.trees_hash, &counts);
  if (error == 0) error = file.commit();
  return error == 0 || fail(std::string("cannot be written: ") + strerror(error));
}
