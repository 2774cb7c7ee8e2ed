// The open slots of one histogram metric at one period: samples are added up in memory, and merged at checkpoints into
// series files, one for each window of slots.
#ifndef ORLITH_HISTOGRAM_SLOTS_H
#define ORLITH_HISTOGRAM_SLOTS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "orlith/histogram_value.h"
#include "orlith/rollup_store.h"

// A bucket of a stored slot counts no further: the image of a series loses bits of some larger counts.
constexpr uint64_t kMaxStoredBucketCount = UINT32_MAX;

// Whether every count of the sum stays within that.
bool sum_can_be_stored(const histogram_t *a, const histogram_t *b);

// The time that one file covers, in seconds: kWindowSlots slots, or as many as the milliseconds of a series reach.
// One slot of a longer period still begins a window, of a length that divides the period.
uint32_t histogram_window_s(uint32_t period_s);
constexpr uint32_t kWindowSlots = 1440;

class HistogramSlots {
 public:
  explicit HistogramSlots(uint32_t period_s);

  // Whether the slot of that time can take the sample in.
  bool has_room(uint64_t whence_ms, const histogram_t *sample) const;
  // Adds a sample that has_room() to its slot, in any order of time. Returns by how many buckets the open slots grew; a
  // slot that is opened by it weighs kSlotWeight more, since histograms may have no bucket at all.
  static constexpr size_t kSlotWeight = 16;
  size_t fold(uint64_t whence_ms, const histogram_t *sample);

  // Open slots by their start (seconds).
  const std::map<uint64_t, Histogram> &slots() const { return slots_; }
  uint32_t period_s() const { return period_s_; }
  uint32_t window_s() const { return window_s_; }
  uint64_t window_start_s(uint64_t slot_start_s) const { return slot_start_s - slot_start_s % window_s_; }

  // After a checkpoint: all slots are let go of. Returns of how many windows they were the first ever.
  size_t close_all();

 private:
  uint64_t slot_start_s(uint64_t whence_ms) const { return whence_ms / 1000 / period_s_ * period_s_; }

  uint32_t period_s_;
  uint32_t window_s_;
  std::map<uint64_t, Histogram> slots_;
  std::set<uint64_t> windows_written_;
  // All that was taken in for the newest slot that a checkpoint closed: more of it may come.
  uint64_t stored_start_s_ = 0;
  Histogram stored_;
};

// The file of one metric, period, window and owner.
struct HistogramWindowFile {
  std::string path;  // below the data folder
  uint64_t start_s;
  uint32_t window_s;
};

// Merges slots, which all belong to the window, into the file, with what it holds already. Part of the store's next
// commit; false with its error() when the file cannot be read or written as a whole, or is damaged.
using HistogramSlotIterator = std::map<uint64_t, Histogram>::const_iterator;
bool write_histogram_window(RollupStore &store, const HistogramWindowFile &file, HistogramSlotIterator first,
                            HistogramSlotIterator end);

#endif
