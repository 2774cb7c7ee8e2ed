#include "orlith/rollup_slots.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr int kMaxStoredCount = 65535;
// The weights of two sides are added as signed 32-bit numbers; the stored one is at most kMaxStoredCount.
constexpr uint32_t kMaxWeight = INT32_MAX - kMaxStoredCount;

int as_weight(uint32_t count) {
  return static_cast<int>(std::min(count, kMaxWeight));
}

}  // namespace

const nnt_multitype &OpenSlot::stored_for(size_t owner) const {
  static const nnt_multitype kAbsent{};
  return stored.empty() ? kAbsent : stored[owner];
}

nnt_multitype combined_slot(const OpenSlot &slot, size_t owner) {
  const nnt_multitype &stored = slot.stored_for(owner);
  if (stored.type == NNT_TYPE_ABSENT) return slot.folded;
  nnt_multitype result = stored;
  const int stored_weight = as_weight(stored.count);
  const int weight = as_weight(slot.folded.count);
  const int count =
      nnt_multitype_accum_counts(&result, stored_weight, stored_weight, stored_weight, &slot.folded, weight,
                                 slot.drun_ms > 0 ? weight : 0, slot.crun_ms > 0 ? weight : 0);
  result.count = static_cast<uint32_t>(std::min(count, kMaxStoredCount));
  return result;
}

bool SlotSeries::fold(const metric_value_t &sample) {
  const uint64_t time_s = sample.whence_ms / 1000;
  const size_t open_before = slots_.size();
  if (current_ == nullptr || time_s < current_start_s_ || time_s - current_start_s_ >= period_s_) {
    current_start_s_ = time_s - time_s % period_s_;
    current_ = &slot_at(current_start_s_);
  }
  metric_value_t *previous = previous_.release();
  add_data_to_bucket(&sample, &previous, &current_->folded, &current_->drun_ms, &current_->crun_ms);
  previous_.reset(previous);
  current_->dirty = true;
  return slots_.size() != open_before;
}

OpenSlot &SlotSeries::slot_at(uint64_t start_s) {
  if (slots_.empty() || slots_.rbegin()->first < start_s) {
    return slots_.emplace_hint(slots_.end(), start_s, OpenSlot())->second;
  }
  return slots_[start_s];
}

size_t SlotSeries::close_all_but_newest() {
  if (slots_.size() < 2) return 0;
  const auto newest = std::prev(slots_.end());
  const size_t closed = slots_.size() - 1;
  slots_.erase(slots_.begin(), newest);
  current_start_s_ = newest->first;
  current_ = &newest->second;
  return closed;
}
