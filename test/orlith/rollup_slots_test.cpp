#include "orlith/rollup_slots.h"
#include "test/support/values.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

metric_value_t number(uint64_t whence_ms, double value) {
  metric_value_t sample{};
  sample.whence_ms = whence_ms;
  sample.type = ORLITH_METRIC_DOUBLE;
  sample.storage.v_double = value;
  return sample;
}

TEST(SlotSeries, PutsSamplesIntoTheSlotsOfTheirTime) {
  SlotSeries series(60);
  EXPECT_TRUE(series.fold(number(60'000, 1)));
  EXPECT_FALSE(series.fold(number(119'999, 4)));
  EXPECT_TRUE(series.fold(number(120'000, 10)));
  ASSERT_EQ(series.slots().size(), 2U);
  EXPECT_EQ(series.slots().at(60).folded.count, 2U);
  EXPECT_EQ(number_of(series.slots().at(60).folded), 2.5);
  EXPECT_EQ(series.slots().at(120).folded.count, 1U);
}

TEST(SlotSeries, FoldsLateSamplesIntoSlotsThatAreStillOpen) {
  SlotSeries series(60);
  series.fold(number(60'000, 1));
  series.fold(number(180'000, 5));
  EXPECT_FALSE(series.fold(number(61'000, 2)));
  EXPECT_TRUE(series.fold(number(125'000, 7)));  // between the two
  EXPECT_EQ(series.slots().size(), 3U);
  EXPECT_EQ(number_of(series.slots().at(60).folded), 1.5);
}

TEST(SlotSeries, KnowsTheFirstSecondAndTheFirstSlot) {
  SlotSeries series(300);
  EXPECT_TRUE(series.fold(number(0, 1)));
  EXPECT_FALSE(series.fold(number(299'999, 1)));
  EXPECT_EQ(series.slots().begin()->first, 0U);
}

TEST(SlotSeries, KeepsTheNewestSlotAcrossACheckpoint) {
  SlotSeries series(10);
  for (uint64_t second = 0; second < 50; second += 5) series.fold(number(second * 1000, 1));
  EXPECT_EQ(series.close_all_but_newest(), 4U);
  ASSERT_EQ(series.slots().size(), 1U);
  EXPECT_EQ(series.slots().begin()->first, 40U);
  EXPECT_FALSE(series.fold(number(49'000, 1)));
  EXPECT_EQ(series.slots().at(40).folded.count, 3U);
  EXPECT_EQ(series.close_all_but_newest(), 0U);
}

// 300 a minute, sampled twice in the slot: 5 a second, over 30 seconds of the slot.
TEST(SlotSeries, TakesRatesAcrossSlotBorders) {
  SlotSeries series(60);
  series.fold(number(30'000, 0));
  series.fold(number(60'000, 150));
  series.fold(number(90'000, 300));
  const OpenSlot &slot = series.slots().at(60);
  EXPECT_EQ(slot.folded.derivative, 5.0F);
  EXPECT_EQ(slot.folded.counter, 5.0F);
  EXPECT_EQ(slot.drun_ms, 60'000);
  EXPECT_EQ(slot.crun_ms, 60'000);
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
