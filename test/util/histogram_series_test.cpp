// A series in memory: adding, looking, and when entries of an image are decoded.
#include "liborlith/util/histogram_series.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <random>

#include "test/support/faults.h"
#include "test/util/histogram_series_support.h"

using testing::ElementsAre;
using testing::KilledBySignal;

namespace {

const Counts kOne = {{{10, 0}, 1}};
const Counts kTwo = {{{10, 0}, 2}, {{20, 0}, 1}};

struct HistogramFree {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using Histogram = std::unique_ptr<histogram_t, HistogramFree>;

Histogram make(const Counts &counts) {
  return Histogram(histogram_of(counts));
}

std::vector<uint32_t> offsets_of(const Series &hs) {
  return {hs->offsets_ms, hs->offsets_ms + hs->n_entries};
}

Model contents(histogram_series_t *hs) {
  Model result;
  struct Walk {
    Model *result;
    uint64_t base_ms;
  } walk{&result, hs->base_ms};
  EXPECT_TRUE(histogram_series_foreach(
      hs,
      [](uint64_t whence_ms, histogram_t *h, void *closure) {
        auto *w = static_cast<Walk *>(closure);
        (*w->result)[static_cast<uint32_t>(whence_ms - w->base_ms)] = counts_of(h);
        return true;
      },
      &walk));
  return result;
}

// Each has the one before and one value more.
Model growing(uint32_t entries) {
  Model model;
  Counts counts;
  for (int val = 10; val < 60; ++val) counts[{val, 0}] = 5;
  for (uint32_t i = 0; i < entries; ++i) {
    ++counts[{static_cast<int>(10 + i % 50), 0}];
    model[i * 10] = counts;
  }
  return model;
}

// A series from an image whose arrays are then declared to be ones that may grow, as a host can that fills the
// structure itself.
Series read_with_slots(const Model &model) {
  Series hs = read_image(model_image(model));
  hs->n_alloc = hs->n_entries;
  return hs;
}

}  // namespace

TEST(HistogramSeriesLayout, FieldsStandWhereHostsExpectThem) {
  EXPECT_EQ(sizeof(histogram_series_t), 56U);
  EXPECT_EQ(offsetof(histogram_series_t, base_ms), 0U);
  EXPECT_EQ(offsetof(histogram_series_t, histograms), 8U);
  EXPECT_EQ(offsetof(histogram_series_t, offsets_ms), 16U);
  EXPECT_EQ(offsetof(histogram_series_t, n_entries), 24U);
  EXPECT_EQ(offsetof(histogram_series_t, n_alloc), 28U);
  EXPECT_EQ(offsetof(histogram_series_t, window_ms), 32U);
  EXPECT_EQ(offsetof(histogram_series_t, buff), 40U);
  EXPECT_EQ(offsetof(histogram_series_t, buff_len), 48U);
}

// ---- Allocation

TEST(HistogramSeries, ABaseThatIsNotAMultipleOfTheWindowYieldsNull) {
  EXPECT_EQ(histogram_series_alloc(1500, 1000), nullptr);
  EXPECT_EQ(histogram_series_alloc(1, 0xFFFFFFFF), nullptr);
}

TEST(HistogramSeries, AWindowOf0IsRefused) {
  EXPECT_EQ(histogram_series_alloc(0, 0), nullptr);
  EXPECT_EQ(histogram_series_alloc(1000, 0), nullptr);
}

TEST(HistogramSeries, ANewSeriesIsEmpty) {
  const Series hs(histogram_series_alloc(3000, 1000));
  ASSERT_NE(hs, nullptr);
  EXPECT_EQ(hs->base_ms, 3000U);
  EXPECT_EQ(hs->window_ms, 1000U);
  EXPECT_EQ(hs->n_entries, 0U);
  EXPECT_EQ(hs->n_alloc, 0U);
  EXPECT_EQ(hs->buff, nullptr);
}

TEST(HistogramSeries, ANullSeriesIsFreedAndHoldsNothing) {
  histogram_series_free(nullptr);
  histogram_series_populate(nullptr, 0);
  EXPECT_EQ(histogram_series_at(nullptr, 0), nullptr);
  EXPECT_TRUE(histogram_series_foreach(nullptr, nullptr, nullptr));
  EXPECT_FALSE(histogram_series_add(nullptr, 0, nullptr, true));
  EXPECT_FALSE(histogram_series_remove(nullptr, 0));
  EXPECT_EQ(histogram_series_serialize_maxsize(nullptr), 0U);
  size_t size = 1;
  EXPECT_FALSE(histogram_series_serialize(nullptr, nullptr, 0, &size));
  EXPECT_EQ(size, 0U);
}

// ---- Adding

TEST(HistogramSeries, TheEndOfTheWindowBelongsToIt) {
  const Series hs(histogram_series_alloc(3000, 1000));
  EXPECT_TRUE(histogram_series_add(hs.get(), 3000, histogram_of(kOne), true));
  EXPECT_TRUE(histogram_series_add(hs.get(), 4000, histogram_of(kOne), true));
  const Histogram h = make(kOne);
  EXPECT_FALSE(histogram_series_add(hs.get(), 4001, h.get(), true));
  EXPECT_FALSE(histogram_series_add(hs.get(), 2999, h.get(), true));
  EXPECT_THAT(offsets_of(hs), ElementsAre(0, 1000));
}

TEST(HistogramSeries, AWindowAtTheEndOfTimeDoesNotWrap) {
  const uint64_t base_ms = UINT64_MAX - UINT64_MAX % 1000;
  const Series hs(histogram_series_alloc(base_ms, 1000));
  EXPECT_TRUE(histogram_series_add(hs.get(), UINT64_MAX, histogram_of(kOne), true));
  const Histogram h = make(kOne);
  EXPECT_FALSE(histogram_series_add(hs.get(), 0, h.get(), true));
}

TEST(HistogramSeries, AddingTwiceAtOneTimeAccumulates) {
  const Series hs(histogram_series_alloc(0, 1000));
  EXPECT_TRUE(histogram_series_add(hs.get(), 500, histogram_of(kOne), true));
  EXPECT_TRUE(histogram_series_add(hs.get(), 500, histogram_of(kTwo), true));
  const Histogram kept = make(kOne);
  EXPECT_TRUE(histogram_series_add(hs.get(), 500, kept.get(), false));
  EXPECT_EQ(hs->n_entries, 1U);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 500)), (Counts{{{10, 0}, 4}, {{20, 0}, 1}}));
  EXPECT_EQ(counts_of(kept.get()), kOne);
}

TEST(HistogramSeries, AGivenHistogramIsKeptItselfAndAnotherIsCopied) {
  const Series hs(histogram_series_alloc(0, 1000));
  histogram_t *given = histogram_of(kOne);
  const Histogram lent = make(kTwo);
  histogram_series_add(hs.get(), 1, given, true);
  histogram_series_add(hs.get(), 2, lent.get(), false);
  EXPECT_EQ(hs->histograms[0], given);
  EXPECT_NE(hs->histograms[1], lent.get());
  EXPECT_EQ(counts_of(hs->histograms[1]), kTwo);
}

TEST(HistogramSeries, ANullHistogramIsRefused) {
  const Series hs(histogram_series_alloc(0, 1000));
  EXPECT_FALSE(histogram_series_add(hs.get(), 1, nullptr, true));
  EXPECT_EQ(hs->n_entries, 0U);
}

TEST(HistogramSeries, GrowsFrom32SlotsByHalf) {
  const Series hs(histogram_series_alloc(0, 1000));
  std::map<uint32_t, uint32_t> slots;  // by the entries when they were first seen
  for (uint32_t i = 1; i <= 109; ++i) {
    histogram_series_add(hs.get(), i, histogram_of(kOne), true);
    if (slots.empty() || slots.rbegin()->second != hs->n_alloc) slots[i] = hs->n_alloc;
  }
  EXPECT_EQ(slots, (std::map<uint32_t, uint32_t>{{1, 32}, {33, 48}, {49, 72}, {73, 108}, {109, 162}}));
}

TEST(HistogramSeries, AgreesWithAMapUnderRandomAdds) {
  const unsigned seed = 20260403;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const Series hs(histogram_series_alloc(5000, 5000));
  Model model;
  for (int i = 0; i < 3000; ++i) {
    const auto offset = static_cast<uint32_t>(random() % 1500);
    const Bucket bucket = {static_cast<int>(10 + random() % 90), static_cast<int>(random() % 3)};
    ++model[offset][bucket];
    ASSERT_TRUE(histogram_series_add(hs.get(), 5000 + offset, histogram_of({{bucket, 1}}), true));
  }
  EXPECT_EQ(contents(hs.get()), model);
}

TEST(HistogramSeries, NothingChangesWhenMemoryRunsOut) {
  for (const auto call : {faults::Call::malloc, faults::Call::calloc}) {
    for (int nth = 1;; ++nth) {
      const Histogram h = make(kOne);
      faults::Fail fail(call, ENOMEM, nth, 1);
      const Series hs(histogram_series_alloc(0, 1000));
      if (hs != nullptr && !histogram_series_add(hs.get(), 1, h.get(), false)) {
        EXPECT_EQ(hs->n_entries, 0U);
      }
      if (!fail.hit()) break;
    }
  }
}

// ---- Looking

TEST(HistogramSeries, AtFindsWhatIsThere) {
  const Series hs = series_of({{0, kOne}, {7, kTwo}, {1000, kOne}}, 0, 1000);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 7)), kTwo);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 0)), kOne);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 1000)), kOne);
  EXPECT_EQ(histogram_series_at(hs.get(), 6), nullptr);
  EXPECT_EQ(histogram_series_at(hs.get(), 1001), nullptr);
  EXPECT_EQ(histogram_series_at(Series(histogram_series_alloc(0, 1000)).get(), 0), nullptr);
}

TEST(HistogramSeriesDeathTest, AtWithAnotherBaseThan0IsFatalOnceAnEntryIsFound) {
  const Series hs = series_of({{7, kOne}}, 3000, 1000);
  EXPECT_EQ(histogram_series_at(hs.get(), 3008), nullptr) << "nothing is found, nothing compared";
  // Kept as it stands: the stored offset is compared with the absolute time.
  EXPECT_EXIT(histogram_series_at(hs.get(), 3007), KilledBySignal(SIGABRT),
              "\\[FATAL\\] assertion \\(hs->offsets_ms\\[i\\] == whence_ms\\) at "
              "util/histogram_series\\.cpp:[0-9]+ failed");
}

TEST(HistogramSeriesDeathTest, AtComparesAllOfTheTime) {
  const Series hs = series_of({{7, kOne}}, 0, 1000);
  EXPECT_EXIT(histogram_series_at(hs.get(), (uint64_t{1} << 32) + 7), KilledBySignal(SIGABRT),
              "assertion \\(hs->offsets_ms\\[i\\] == whence_ms\\)");
}

TEST(HistogramSeries, ForeachGoesInOrderAndStopsAtTheFirstFalse) {
  const Series hs = series_of({{9, kOne}, {2, kTwo}, {5, kOne}}, 3000, 1000);
  std::vector<uint64_t> seen;
  const auto until_3005 = [](uint64_t whence_ms, histogram_t *, void *closure) {
    static_cast<std::vector<uint64_t> *>(closure)->push_back(whence_ms);
    return whence_ms != 3005;
  };
  EXPECT_FALSE(histogram_series_foreach(hs.get(), until_3005, &seen));
  EXPECT_THAT(seen, ElementsAre(3002, 3005));
  EXPECT_TRUE(histogram_series_foreach(Series(histogram_series_alloc(0, 1)).get(), until_3005, &seen));
}

TEST(HistogramSeries, RemoveRemovesNothing) {
  const Series hs = series_of({{9, kOne}});
  EXPECT_FALSE(histogram_series_remove(hs.get(), 9));
  EXPECT_FALSE(histogram_series_remove(hs.get(), 10));
  EXPECT_EQ(hs->n_entries, 1U);
}

// ---- Entries that are not decoded

TEST(HistogramSeries, ALookDecodesNoMoreThanTheChain) {
  const Series hs = read_image(model_image(growing(100)));
  EXPECT_EQ(decoded_entries(hs.get()), 0U);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 700)), growing(100).at(700));
  EXPECT_EQ(decoded_entries(hs.get()), 10U) << "entry 70 and its predecessors from the whole entry 61 on";
  histogram_series_at(hs.get(), 690);
  EXPECT_EQ(decoded_entries(hs.get()), 10U);
  histogram_series_at(hs.get(), 0);
  EXPECT_EQ(decoded_entries(hs.get()), 11U);
}

TEST(HistogramSeries, PopulateIgnoresIndexesPastTheEndAndDecodedEntries) {
  const Series hs = read_image(model_image(growing(3)));
  for (const uint32_t i : {3U, 4U, UINT32_MAX}) histogram_series_populate(hs.get(), i);
  EXPECT_EQ(decoded_entries(hs.get()), 0U);
  histogram_series_populate(hs.get(), 1);
  histogram_t *first = hs->histograms[1];
  histogram_series_populate(hs.get(), 1);
  EXPECT_EQ(hs->histograms[1], first);
}

TEST(HistogramSeriesDeathTest, AMarkerInASeriesWithoutAnImageIsFatal) {
  const Series hs = series_of({{1, kOne}});
  histogram_t *own = hs->histograms[0];
  hs->histograms[0] = HISTOGRAM_SERIES_NOT_DECODED;
  EXPECT_EXIT(histogram_series_populate(hs.get(), 0), KilledBySignal(SIGABRT),
              "\\[FATAL\\] assertion \\(hs->buff != \\(\\(void \\*\\)0\\)\\) at "
              "util/histogram_series\\.cpp:[0-9]+ failed");
  hs->histograms[0] = own;
}

TEST(HistogramSeriesDeathTest, ADifferenceFromNothingIsFatal) {
  const Series hs = read_image(model_image(growing(2)));
  static_cast<uint8_t *>(hs->buff)[16 + 4 * 2 + 3] |= 0x80;
  EXPECT_EXIT(histogram_series_populate(hs.get(), 1), KilledBySignal(SIGABRT),
              "\\[FATAL\\] assertion \\(i > 0\\) at util/histogram_series\\.cpp:[0-9]+ failed");
}

TEST(HistogramSeries, AddingToASeriesFromAnImageStartsNewArrays) {
  const Series hs = read_image(model_image(growing(50)));
  histogram_series_at(hs.get(), 100);  // some decoded, some not
  EXPECT_EQ(hs->n_alloc, 0U);
  EXPECT_TRUE(histogram_series_add(hs.get(), 100, histogram_of(kOne), true));
  EXPECT_EQ(hs->n_alloc, 32U);
  EXPECT_EQ(hs->buff, nullptr);
  EXPECT_EQ(hs->buff_len, 0U);
  EXPECT_EQ(contents(hs.get()), (Model{{100, kOne}})) << "what the image held has given way";
  EXPECT_TRUE(histogram_series_add(hs.get(), 50, histogram_of(kTwo), true));
  EXPECT_EQ(contents(hs.get()), (Model{{50, kTwo}, {100, kOne}}));
  EXPECT_EQ(contents(read(serialized(hs.get())).get()), (Model{{50, kTwo}, {100, kOne}}));
}

TEST(HistogramSeries, ARefusedAddLeavesASeriesFromAnImageAsItWas) {
  const Series hs = read_image(model_image(growing(5)));
  const Histogram h = make(kOne);
  EXPECT_FALSE(histogram_series_add(hs.get(), 1000001, h.get(), true));
  {
    const faults::Fail fail(faults::Call::malloc, ENOMEM, 2, 1);
    EXPECT_FALSE(histogram_series_add(hs.get(), 1, h.get(), true));
  }
  EXPECT_EQ(contents(hs.get()), growing(5));
}

TEST(HistogramSeries, AddingAtTheTimeOfAnEntryThatIsNotDecodedIsRefused) {
  const Series hs = read_with_slots({{1, kOne}, {2, {{{30, 1}, 5}}}});
  const Histogram h = make(kTwo);
  EXPECT_FALSE(histogram_series_add(hs.get(), 1, h.get(), true));
  EXPECT_EQ(hs->histograms[0], HISTOGRAM_SERIES_NOT_DECODED) << "not decoded for this";
  EXPECT_NE(hs->histograms[1], HISTOGRAM_SERIES_NOT_DECODED) << "the one behind it is";
  histogram_series_at(hs.get(), 1);
  EXPECT_TRUE(histogram_series_add(hs.get(), 1, h.get(), false));
  EXPECT_EQ(contents(hs.get()), (Model{{1, {{{10, 0}, 3}, {{20, 0}, 1}}}, {2, {{{30, 1}, 5}}}}));
}

TEST(HistogramSeries, AddingDecodesADifferenceFromTheEntryFirst) {
  const Model model = growing(3);
  const Series hs = read_with_slots(model);
  EXPECT_TRUE(histogram_series_add(hs.get(), 10, histogram_of(kOne), true));
  Model expected = model;
  ++expected[10][{10, 0}];
  EXPECT_EQ(contents(hs.get()), expected) << "entry 2 is the difference from entry 1 as it was";
}

TEST(HistogramSeries, InsertingBeforeEntriesDecodesThemAll) {
  const Series hs = read_with_slots(growing(10));
  EXPECT_TRUE(histogram_series_add(hs.get(), 45, histogram_of(kOne), true));
  EXPECT_EQ(decoded_entries(hs.get()), 11U);
  Model expected = growing(10);
  expected[45] = kOne;
  EXPECT_EQ(contents(hs.get()), expected);
}

TEST(HistogramSeries, AppendingDecodesNothing) {
  const Series hs = read_with_slots(growing(10));
  EXPECT_TRUE(histogram_series_add(hs.get(), 95, histogram_of(kOne), true));
  EXPECT_EQ(decoded_entries(hs.get()), 1U);
  Model expected = growing(10);
  expected[95] = kOne;
  EXPECT_EQ(contents(hs.get()), expected);
}

TEST(HistogramSeries, AddingToADamagedEntryIsRefused) {
  Image image;
  image.add(1, 0, {10, 0, 0x10, 9, 9});
  const Series hs = read_image(image.bytes());
  EXPECT_EQ(histogram_series_at(hs.get(), 1), nullptr);
  hs->n_alloc = hs->n_entries;
  const Histogram h = make(kOne);
  EXPECT_FALSE(histogram_series_add(hs.get(), 1, h.get(), true));
}
