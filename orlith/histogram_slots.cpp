#include "orlith/histogram_slots.h"

#include <algorithm>
#include <new>
#include <numeric>

#include "orlith/histogram_series_file.h"

namespace {

// Offsets and windows of a series are 32-bit milliseconds.
constexpr uint32_t kLongestWindow_s = UINT32_MAX / 1000;
constexpr uint32_t kLongestWindowInDays_s = kLongestWindow_s / 86400 * 86400;

Histogram copy_of(const histogram_t *histogram) {
  Histogram copy(hist_clone(histogram));
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

// What the file holds, by time in milliseconds.
using Entries = std::map<uint64_t, Histogram>;

bool read_entries(RollupStore &store, const HistogramWindowFile &file, Entries *entries) {
  std::string bytes;
  bool exists = false;
  if (!store.read(file.path, kMaxSeriesFileBytes, &bytes, &exists)) return false;
  if (!exists) return true;
  HistogramSeriesFile series;
  if (!series.parse(bytes))
    return store.refuse(file.path, "is no histogram series, or a damaged one; move it away to go on");
  if (series.base_ms() != file.start_s * 1000 || series.window_ms() != file.window_s * 1000) {
    return store.refuse(file.path, "covers " + std::to_string(series.window_ms()) + " ms from " +
                                       std::to_string(series.base_ms()) + " ms instead of " +
                                       std::to_string(file.window_s) + " s from " +
                                       std::to_string(file.start_s) + " s; move it away to go on");
  }
  const bool is_whole = series.for_each([&](uint64_t time_ms, const histogram_t *histogram) {
    const bool is_new = histogram != nullptr && time_ms - series.base_ms() <= series.window_ms() &&
                        entries->try_emplace(time_ms).second;
    if (is_new) (*entries)[time_ms] = copy_of(histogram);
    return is_new;
  });
  return is_whole || store.refuse(file.path, "holds a damaged entry; move it away to go on");
}

bool add_slot(RollupStore &store, const HistogramWindowFile &file, uint64_t start_s, const histogram_t *slot,
              Entries *entries) {
  Histogram &entry = (*entries)[start_s * 1000];
  if (entry == nullptr) entry = new_histogram();
  if (!sum_can_be_stored(entry.get(), slot)) {
    return store.refuse(file.path, "cannot count beyond " + std::to_string(kMaxStoredBucketCount) +
                                       " in one bucket, and the slot of second " + std::to_string(start_s) +
                                       " would have to; leave out its samples to go on");
  }
  accumulate(entry.get(), slot);
  return true;
}

std::string image_of(const HistogramWindowFile &file, Entries entries) {
  const HistogramSeries series(histogram_series_alloc(file.start_s * 1000, file.window_s * 1000));
  if (series == nullptr) throw std::bad_alloc();
  for (auto &[time_ms, histogram] : entries) {
    if (!histogram_series_add(series.get(), time_ms, histogram.get(), true)) throw std::bad_alloc();
    [[maybe_unused]] const histogram_t *given = histogram.release();
  }
  return image_of_series(series.get());
}

}  // namespace

bool sum_can_be_stored(const histogram_t *a, const histogram_t *b) {
  const uint64_t all_a = hist_sample_count(a), all_b = hist_sample_count(b);
  if (all_a <= kMaxStoredBucketCount && all_b <= kMaxStoredBucketCount - all_a) return true;
  hist_bucket_t bucket;
  uint64_t count = 0;
  for (int i = 0; hist_bucket_at(a, i, &bucket, &count) == 0; ++i) {
    if (count > kMaxStoredBucketCount) return false;
  }
  for (int i = 0; hist_bucket_at(b, i, &bucket, &count) == 0; ++i) {
    if (count > kMaxStoredBucketCount - hist_count_at(a, bucket)) return false;
  }
  return true;
}

uint32_t histogram_window_s(uint32_t period_s) {
  if (period_s > kLongestWindow_s) return std::gcd(period_s, kLongestWindowInDays_s);
  return std::min(kWindowSlots, kLongestWindow_s / period_s) * period_s;
}

HistogramSlots::HistogramSlots(uint32_t period_s)
    : period_s_(period_s), window_s_(histogram_window_s(period_s)) {}

bool HistogramSlots::has_room(uint64_t whence_ms, const histogram_t *sample) const {
  const uint64_t start_s = slot_start_s(whence_ms);
  if (stored_ != nullptr && start_s == stored_start_s_) return sum_can_be_stored(stored_.get(), sample);
  const auto slot = slots_.find(start_s);
  return sum_can_be_stored(slot == slots_.end() ? nullptr : slot->second.get(), sample);
}

size_t HistogramSlots::fold(uint64_t whence_ms, const histogram_t *sample) {
  const uint64_t start_s = slot_start_s(whence_ms);
  Histogram &slot = slots_[start_s];
  const size_t opened = slot == nullptr ? kSlotWeight : 0;
  if (slot == nullptr) slot = new_histogram();
  const int before = hist_bucket_count(slot.get());
  accumulate(slot.get(), sample);
  if (stored_ != nullptr && start_s == stored_start_s_) accumulate(stored_.get(), sample);
  return opened + static_cast<size_t>(hist_bucket_count(slot.get()) - before);
}

size_t HistogramSlots::close_all() {
  const size_t before = windows_written_.size();
  for (const auto &[start_s, slot] : slots_) windows_written_.insert(window_start_s(start_s));
  if (!slots_.empty() && (stored_ == nullptr || slots_.rbegin()->first > stored_start_s_)) {
    stored_start_s_ = slots_.rbegin()->first;
    stored_ = std::move(slots_.rbegin()->second);
  }
  slots_.clear();
  return windows_written_.size() - before;
}

bool write_histogram_window(RollupStore &store, const HistogramWindowFile &file, HistogramSlotIterator first,
                            HistogramSlotIterator end) {
  Entries entries;
  if (!read_entries(store, file, &entries)) return false;
  for (auto slot = first; slot != end; ++slot) {
    if (!add_slot(store, file, slot->first, slot->second.get(), &entries)) return false;
  }
  const std::string image = image_of(file, std::move(entries));
  if (image.empty()) return store.refuse(file.path, "would be larger than a histogram series can be");
  return store.replace(file.path, image);
}
