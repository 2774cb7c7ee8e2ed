#include "orlith/rollup_slots.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace {

// Room for what most metrics keep open at most.
constexpr size_t kFirstBlockSlots = 4;

constexpr int kMaxStoredCount = 65535;
// The weights of two sides are added as signed 32-bit numbers; the stored one is at most kMaxStoredCount.
constexpr uint32_t kMaxWeight = INT32_MAX - kMaxStoredCount;

bool starts_before(const OpenSlot &slot, uint64_t start_s) {
  return slot.start_s < start_s;
}

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

OpenSlot &SlotList::find_or_add(uint64_t start_s) {
  if (blocks_.empty() || newest().start_s < start_s) return append(start_s);
  OpenSlot *known = find(start_s);
  return known != nullptr ? *known : insert(start_s);
}

OpenSlot *SlotList::find(uint64_t start_s) {
  if (blocks_.empty()) return nullptr;
  Block &block = *block_of(start_s);
  const auto place = std::lower_bound(block.begin(), block.end(), start_s, starts_before);
  return place != block.end() && place->start_s == start_s ? &*place : nullptr;
}

OpenSlot &SlotList::append(uint64_t start_s) {
  if (blocks_.empty() || blocks_.back().size() == kBlockSlots) {
    blocks_.emplace_back().reserve(blocks_.size() == 1 ? kFirstBlockSlots : kBlockSlots);
  }
  OpenSlot &slot = blocks_.back().emplace_back();
  slot.start_s = start_s;
  ++size_;
  return slot;
}

// A slot that starts before the newest one.
OpenSlot &SlotList::insert(uint64_t start_s) {
  auto block = block_of(start_s);
  if (block->size() == kBlockSlots) {
    const auto middle = block->begin() + kBlockSlots / 2;
    Block later(std::make_move_iterator(middle), std::make_move_iterator(block->end()));
    block->erase(middle, block->end());
    block = std::prev(blocks_.insert(std::next(block), std::move(later)));
    if (std::next(block)->front().start_s < start_s) ++block;
  }
  OpenSlot &slot = *block->emplace(std::lower_bound(block->begin(), block->end(), start_s, starts_before));
  slot.start_s = start_s;
  ++size_;
  return slot;
}

// The last block that begins at or before `start_s`; the first one when all begin later.
std::vector<SlotList::Block>::iterator SlotList::block_of(uint64_t start_s) {
  const auto later =
      std::upper_bound(std::next(blocks_.begin()), blocks_.end(), start_s,
                       [](uint64_t start, const Block &block) { return start < block.front().start_s; });
  return std::prev(later);
}

void SlotList::keep_newest() {
  if (size_ < 2) return;
  Block last;
  last.reserve(kFirstBlockSlots);
  last.push_back(std::move(newest()));
  std::vector<Block> only;
  only.push_back(std::move(last));
  blocks_ = std::move(only);
  size_ = 1;
}

bool SlotSeries::fold(const metric_value_t &sample) {
  const uint64_t time_s = sample.whence_ms / 1000;
  const size_t open_before = slots_.size();
  if (current_ == nullptr || time_s < current_start_s_ || time_s - current_start_s_ >= period_s_) {
    current_start_s_ = time_s - time_s % period_s_;
    current_ = &slots_.find_or_add(current_start_s_);
  }
  metric_value_t *previous = has_previous_ ? &previous_ : nullptr;
  add_data_to_bucket(&sample, &previous, &current_->folded, &current_->drun_ms, &current_->crun_ms);
  if (!has_previous_ && previous != nullptr) {  // the first one is handed out on the heap
    previous_ = *previous;
    has_previous_ = true;
    std::free(previous);
  }
  current_->dirty = true;
  return slots_.size() != open_before;
}

size_t SlotSeries::close_all_but_newest() {
  if (slots_.size() < 2) return 0;
  const size_t closed = slots_.size() - 1;
  slots_.keep_newest();
  current_ = &slots_.newest();
  current_start_s_ = current_->start_s;
  return closed;
}
