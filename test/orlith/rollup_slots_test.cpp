#include "orlith/rollup_slots.h"
#include "test/support/values.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

namespace {

metric_value_t number(uint64_t whence_ms, double value) {
  metric_value_t sample{};
  sample.whence_ms = whence_ms;
  sample.type = ORLITH_METRIC_DOUBLE;
  sample.storage.v_double = value;
  return sample;
}

const OpenSlot &slot_at(SlotSeries &series, uint64_t start_s) {
  static const OpenSlot kNone;
  const OpenSlot *slot = series.slots().find(start_s);
  EXPECT_NE(slot, nullptr) << "no slot starts at " << start_s;
  return slot != nullptr ? *slot : kNone;
}

TEST(SlotSeries, PutsSamplesIntoTheSlotsOfTheirTime) {
  SlotSeries series(60);
  EXPECT_TRUE(series.fold(number(60'000, 1)));
  EXPECT_FALSE(series.fold(number(119'999, 4)));
  EXPECT_TRUE(series.fold(number(120'000, 10)));
  ASSERT_EQ(series.slots().size(), 2U);
  EXPECT_EQ(slot_at(series, 60).folded.count, 2U);
  EXPECT_EQ(number_of(slot_at(series, 60).folded), 2.5);
  EXPECT_EQ(slot_at(series, 120).folded.count, 1U);
}

TEST(SlotSeries, FoldsLateSamplesIntoSlotsThatAreStillOpen) {
  SlotSeries series(60);
  series.fold(number(60'000, 1));
  series.fold(number(180'000, 5));
  EXPECT_FALSE(series.fold(number(61'000, 2)));
  EXPECT_TRUE(series.fold(number(125'000, 7)));  // between the two
  EXPECT_EQ(series.slots().size(), 3U);
  EXPECT_EQ(number_of(slot_at(series, 60).folded), 1.5);
}

TEST(SlotSeries, KnowsTheFirstSecondAndTheFirstSlot) {
  SlotSeries series(300);
  EXPECT_TRUE(series.fold(number(0, 1)));
  EXPECT_FALSE(series.fold(number(299'999, 1)));
  EXPECT_EQ(series.slots().newest().start_s, 0U);
}

TEST(SlotSeries, KeepsTheNewestSlotAcrossACheckpoint) {
  SlotSeries series(10);
  for (uint64_t second = 0; second < 50; second += 5) series.fold(number(second * 1000, 1));
  EXPECT_EQ(series.close_all_but_newest(), 4U);
  ASSERT_EQ(series.slots().size(), 1U);
  EXPECT_EQ(series.slots().newest().start_s, 40U);
  EXPECT_FALSE(series.fold(number(49'000, 1)));
  EXPECT_EQ(slot_at(series, 40).folded.count, 3U);
  EXPECT_EQ(series.close_all_but_newest(), 0U);
}

// 300 a minute, sampled twice in the slot: 5 a second, over 30 seconds of the slot.
TEST(SlotSeries, TakesRatesAcrossSlotBorders) {
  SlotSeries series(60);
  series.fold(number(30'000, 0));
  series.fold(number(60'000, 150));
  series.fold(number(90'000, 300));
  const OpenSlot &slot = slot_at(series, 60);
  EXPECT_EQ(slot.folded.derivative, 5.0F);
  EXPECT_EQ(slot.folded.counter, 5.0F);
  EXPECT_EQ(slot.drun_ms, 60'000);
  EXPECT_EQ(slot.crun_ms, 60'000);
}

std::vector<uint64_t> starts_in(SlotList &slots) {
  std::vector<uint64_t> result;
  for (const SlotList::Block &block : slots.blocks()) {
    EXPECT_FALSE(block.empty());
    EXPECT_LE(block.size(), SlotList::kBlockSlots);
    for (const OpenSlot &slot : block) result.push_back(slot.start_s);
  }
  return result;
}

TEST(SlotList, AgreesWithAMapWhateverTheOrder) {
  for (const unsigned seed : {21U, 22U, 23U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const bool mostly_ascending = seed == 22;
    std::map<uint64_t, uint32_t> model;
    SlotList slots;
    EXPECT_EQ(slots.find(0), nullptr);
    for (uint64_t i = 0; i < 3000; ++i) {
      const uint64_t start_s = mostly_ascending ? i * 10 + random() % 40 : random() % 2000;
      ++model[start_s];
      ++slots.find_or_add(start_s).folded.count;
    }
    ASSERT_EQ(slots.size(), model.size());
    std::vector<uint64_t> expected;
    for (const auto &[start_s, count] : model) {
      expected.push_back(start_s);
      ASSERT_NE(slots.find(start_s), nullptr);
      EXPECT_EQ(slots.find(start_s)->folded.count, count);
    }
    EXPECT_EQ(starts_in(slots), expected);
    EXPECT_EQ(slots.newest().start_s, expected.back());
    EXPECT_EQ(slots.find(expected.back() + 1), nullptr);
  }
}

TEST(SlotList, TakesSlotsThatOpenBackwards) {
  SlotList slots;
  for (uint64_t start_s = 1000; start_s > 0; --start_s) slots.find_or_add(start_s);
  const std::vector<uint64_t> starts = starts_in(slots);
  ASSERT_EQ(starts.size(), 1000U);
  EXPECT_EQ(starts.front(), 1U);
  EXPECT_EQ(starts.back(), 1000U);
}

TEST(SlotList, KeepsTheNewestAsItIs) {
  SlotList slots;
  for (uint64_t start_s = 0; start_s < 200; ++start_s) slots.find_or_add(start_s).crun_ms = 7;
  slots.newest().folded.count = 9;
  slots.newest().stored.resize(3);
  slots.keep_newest();
  EXPECT_EQ(starts_in(slots), std::vector<uint64_t>{199});
  EXPECT_EQ(slots.size(), 1U);
  EXPECT_EQ(slots.newest().folded.count, 9U);
  EXPECT_EQ(slots.newest().crun_ms, 7);
  EXPECT_EQ(slots.newest().stored.size(), 3U);
  slots.find_or_add(5);
  EXPECT_EQ(starts_in(slots), (std::vector<uint64_t>{5, 199}));
}

OpenSlot slot_with(double value, uint32_t count, float rate, int drun_ms) {
  OpenSlot slot;
  slot.folded.type = NNT_TYPE_DOUBLE;
  slot.folded.count = count;
  slot.folded.value.v_double = value;
  slot.folded.derivative = rate;
  slot.folded.counter = rate;
  slot.drun_ms = drun_ms;
  slot.crun_ms = drun_ms;
  return slot;
}

TEST(CombinedSlot, IsWhatWasFoldedWhenNothingIsStored) {
  const OpenSlot slot = slot_with(1.25, 3, 2, 1000);
  const nnt_multitype result = combined_slot(slot, 0);
  EXPECT_EQ(result.count, 3U);
  EXPECT_EQ(result.value.v_double, 1.25);
  EXPECT_EQ(result.derivative, 2.0F);
}

TEST(CombinedSlot, WeighsBothSidesByTheirCounts) {
  OpenSlot slot = slot_with(10, 1, 8, 1000);
  slot.stored = {{},
                 slot_with(2, 3, 4, 1000).folded};  // the second owner's file has something, the first's not
  EXPECT_EQ(combined_slot(slot, 0).count, 1U);
  const nnt_multitype result = combined_slot(slot, 1);
  EXPECT_EQ(result.count, 4U);
  EXPECT_EQ(number_of(result), 4.0);   // (3 * 2 + 1 * 10) / 4
  EXPECT_EQ(result.derivative, 5.0F);  // (3 * 4 + 1 * 8) / 4
  EXPECT_EQ(result.counter, 5.0F);
}

TEST(CombinedSlot, ASideThatKnowsNoRateLeavesTheOthersAlone) {
  OpenSlot slot = slot_with(10, 1, 0, 0);  // the first sample of a run: its rate 0 means nothing
  slot.stored = {slot_with(2, 3, 4, 1000).folded};
  const nnt_multitype result = combined_slot(slot, 0);
  EXPECT_EQ(number_of(result), 4.0);
  EXPECT_EQ(result.derivative, 4.0F);
  EXPECT_EQ(result.counter, 4.0F);
}

TEST(CombinedSlot, CapsTheCountAtWhatARecordHolds) {
  OpenSlot slot = slot_with(1, 60000, 0, 0);
  slot.stored = {slot_with(1, 60000, 0, 0).folded};
  EXPECT_EQ(combined_slot(slot, 0).count, 65535U);
}

}  // namespace
