// The open slots of one metric at one period: samples are folded in memory, whole slots are written at checkpoints.
#ifndef ORLITH_ROLLUP_SLOTS_H
#define ORLITH_ROLLUP_SLOTS_H

#include <cstdint>
#include <vector>

#include "liborlith/nnt/nnt_multitype.h"
#include "liborlith/orollupd/rollup.h"

struct OpenSlot {
  uint64_t start_s = 0;
  nnt_multitype folded{};  // what came in since the slot was opened here
  int drun_ms = 0;         // time already folded into the derivative, and into the counter
  int crun_ms = 0;
  bool dirty = false;  // holds samples that no checkpoint has written
  // What the file of each owner held before this slot was opened here, read at the first write. It is kept so that
  // a slot which stays open over several checkpoints is combined with it once, not once a checkpoint. Owners are
  // always written in the same order: the first `owners_read` of them are known; empty: all those hold nothing.
  uint16_t owners_read = 0;
  std::vector<nnt_multitype> stored;

  const nnt_multitype &stored_for(size_t owner) const;
};

// What is to stand in an owner's file: the samples of `slot` combined with what was stored before. Counts weigh the
// values; a side that knows no rate (its first sample ever, or rates of unusable times only) weighs nothing in
// the rates of the other.
nnt_multitype combined_slot(const OpenSlot &slot, size_t owner);

// The open slots of one series, ascending by their start.
//
// They lie in blocks, one slot behind the other: samples mostly come in order, so that a new slot goes to the end of
// the last block, and a checkpoint reads the slots as they lie in memory. A slot that opens late moves the later ones
// of its block only, however many there are.
// Invariants: no block is empty; none holds more than kBlockSlots; starts ascend within a block and from block to
// block.
class SlotList {
 public:
  using Block = std::vector<OpenSlot>;
  static constexpr size_t kBlockSlots = 64;

  // The slot that starts there, added when there is none. Slots stay where they are until the next one is added.
  OpenSlot &find_or_add(uint64_t start_s);
  // Null when there is none.
  OpenSlot *find(uint64_t start_s);
  OpenSlot &newest() { return blocks_.back().back(); }
  size_t size() const { return size_; }
  std::vector<Block> &blocks() { return blocks_; }

  // Lets go of all but the newest, and of their memory.
  void keep_newest();

 private:
  OpenSlot &append(uint64_t start_s);
  OpenSlot &insert(uint64_t start_s);
  std::vector<Block>::iterator block_of(uint64_t start_s);

  std::vector<Block> blocks_;
  size_t size_ = 0;
};

class SlotSeries {
 public:
  explicit SlotSeries(uint32_t period_s) : period_s_(period_s) {}
  SlotSeries(SlotSeries &&) = default;  // no copies: current_ stays with its slot

  // Folds a numeric sample that is not null into its slot. True when that slot was opened by it. Samples may
  // come in any order; the rate of one that is not later than the sample before it is unknown.
  bool fold(const metric_value_t &sample);

  SlotList &slots() { return slots_; }
  uint32_t period_s() const { return period_s_; }

  // After a checkpoint: all slots but the newest are let go of. Returns how many.
  size_t close_all_but_newest();

 private:
  uint32_t period_s_;
  SlotList slots_;
  // The slot of the latest folded sample: most samples go where the one before them went.
  uint64_t current_start_s_ = 0;
  OpenSlot *current_ = nullptr;
  metric_value_t previous_{};  // the latest folded sample, once there is one
  bool has_previous_ = false;
};

#endif
