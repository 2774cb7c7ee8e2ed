#include "liborlith/util/oil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "liborlith/util/oil_private.h"
#include "test/util/oil_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(Oil, FreshListsAreEmptyWithTheirCapacity) {
  const OilPtr one(oil_alloc());
  EXPECT_EQ(oil_size(one.get()), 0u);
  EXPECT_EQ(oil_capacity(one.get()), 1u);
  const OilPtr none(oil_alloc_cap(0));
  EXPECT_EQ(oil_capacity(none.get()), 0u);
  const OilPtr many(oil_alloc_cap(77));
  EXPECT_EQ(oil_capacity(many.get()), 77u);
  EXPECT_EQ(many->lock, 0u);
}

TEST(Oil, NullReadsAsAnEmptyList) {
  int idx = 7;
  uint32_t epoch = 5, apocalypse = 6;
  oil_free(nullptr);
  EXPECT_EQ(oil_size(nullptr), 0u);
  EXPECT_EQ(oil_capacity(nullptr), 0u);
  EXPECT_EQ(oil_put(nullptr, 1, 2), 0);
  EXPECT_EQ(oil_epoch_apoc(nullptr, &epoch, &apocalypse), 0);
  EXPECT_EQ(oil_find(nullptr, 1, &idx), 0);
  EXPECT_EQ(oil_range_contains(nullptr, 1, 2, &idx), 0);
  EXPECT_EQ(oil_valid(nullptr), 1);
  EXPECT_EQ(oil_exact_match(nullptr, nullptr), 1);
  oil_iter(nullptr, nullptr, nullptr);
  const OilPtr clone(oil_clone(nullptr));
  EXPECT_EQ(oil_size(clone.get()), 0u);
  EXPECT_EQ(oil_capacity(clone.get()), 1u);
}

TEST(Oil, GrowsAsAppendsNeedIt) {
  const OilPtr oil(oil_alloc());
  for (uint32_t count = 1; count <= 33; ++count) {
    ASSERT_EQ(oil_put(oil.get(), count * 1000, count * 1000 + 1), 1);
    const uint32_t expected = count == 1    ? 1
                              : count == 2  ? 2
                              : count <= 8  ? 8
                              : count <= 16 ? 16
                              : count <= 32 ? 32
                                            : 48;
    ASSERT_EQ(oil_capacity(oil.get()), expected) << count;
    ASSERT_EQ(oil_size(oil.get()), count);
  }
}

TEST(Oil, OddCapacitiesGrowByTheSameTable) {
  const std::pair<uint32_t, uint32_t> table[] = {{0, 16}, {1, 2},  {2, 8},   {3, 16}, {7, 16},
                                                 {8, 16}, {9, 25}, {16, 32}, {25, 41}};
  for (const auto &[before, after] : table) {
    const OilPtr oil(oil_alloc_cap(before));
    for (uint32_t i = 0; i <= before; ++i) oil_put(oil.get(), 1 + i * 1000, 1 + i * 1000);
    EXPECT_EQ(oil_capacity(oil.get()), after) << before;
    EXPECT_EQ(oil_size(oil.get()), before + 1) << before;
  }
}

TEST(Oil, ExpandOpensASlotAnywhereWithAndWithoutGrowing) {
  for (const uint32_t capacity : {3u, 4u}) {
    for (const int pos : {-1, 0, 1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << "capacity " << capacity << " pos " << pos);
      const OilPtr oil(oil_alloc_cap(capacity));
      for (uint32_t t : {1000u, 2000u, 3000u}) oil_put(oil.get(), t, t);
      PRV_oil_expand(oil.get(), pos);
      ASSERT_EQ(oil->size, 4u);
      EXPECT_EQ(oil->capacity, capacity == 3 ? 16u : 4u);
      EXPECT_EQ(oil->lock, 0u);
      const uint32_t hole = pos < 0 ? 3 : static_cast<uint32_t>(pos);
      oil->entries[hole] = {9, 9};
      std::vector<uint32_t> expected = {1000, 2000, 3000};
      expected.insert(expected.begin() + hole, 9);
      for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(oil->entries[i].first, expected[i]);
    }
  }
}

TEST(Oil, EpochAndApocalypseAreTheOuterTimes) {
  const OilPtr oil(oil_alloc());
  uint32_t epoch = 5, apocalypse = 6;
  EXPECT_EQ(oil_epoch_apoc(oil.get(), &epoch, &apocalypse), 0);
  EXPECT_EQ(epoch, 5u);
  EXPECT_EQ(apocalypse, 6u);
  oil_put(oil.get(), 1000, 1010);
  oil_put(oil.get(), 5000, 5050);
  EXPECT_EQ(oil_epoch_apoc(oil.get(), &epoch, &apocalypse), 1);
  EXPECT_EQ(epoch, 1000u);
  EXPECT_EQ(apocalypse, 5050u);
  EXPECT_EQ(oil_epoch_apoc(oil.get(), nullptr, nullptr), 1);
}

TEST(Oil, FindTellsWhereATimeLies) {
  const OilPtr oil = raw_list({{10, 20}, {40, 50}, {70, 80}});
  const struct {
    uint32_t t;
    int found;
    int idx;
  } table[] = {{5, 0, -1}, {9, 0, -1}, {10, 1, 0}, {20, 1, 0}, {21, 0, 0},        {30, 0, 0}, {39, 0, 0},
               {40, 1, 1}, {45, 1, 1}, {50, 1, 1}, {51, 0, 1}, {60, 0, 1},        {69, 0, 1}, {70, 1, 2},
               {80, 1, 2}, {81, 0, 3}, {90, 0, 3}, {0, 0, -1}, {0xFFFFFFFF, 0, 3}};
  for (const auto &row : table) {
    int idx = 99;
    EXPECT_EQ(oil_find(oil.get(), row.t, &idx), row.found) << row.t;
    EXPECT_EQ(idx, row.idx) << row.t;
    EXPECT_EQ(oil_find(oil.get(), row.t, nullptr), row.found) << row.t;
  }
}

TEST(Oil, FindInAnEmptyListAndInOneOfTwo) {
  int idx = 99;
  const OilPtr empty(oil_alloc());
  EXPECT_EQ(oil_find(empty.get(), 5, &idx), 0);
  EXPECT_EQ(idx, 0);
  const OilPtr two = raw_list({{10, 20}, {40, 50}});
  EXPECT_EQ(oil_find(two.get(), 30, &idx), 0);
  EXPECT_EQ(idx, 0);
  EXPECT_EQ(oil_find(two.get(), 51, &idx), 0);
  EXPECT_EQ(idx, 2);
}

TEST(Oil, FindAgreesWithALinearScan) {
  const unsigned seed = fresh_seed();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 300; ++round) {
    const Intervals intervals = random_intervals(random, random() % 40);
    const OilPtr oil = raw_list(intervals);
    for (uint32_t t = 0; t < 400; ++t) {
      bool found = false;
      int expected = intervals.empty() ? 0 : -1;
      for (size_t i = 0; i < intervals.size(); ++i) {
        if (intervals[i].first <= t) expected = static_cast<int>(i);
        if (intervals[i].first <= t && t <= intervals[i].second) found = true;
      }
      if (!found && !intervals.empty() && t > intervals.back().second)
        expected = static_cast<int>(intervals.size());
      int idx = 99;
      ASSERT_EQ(oil_find(oil.get(), t, &idx), found ? 1 : 0) << t;
      ASSERT_EQ(idx, expected) << t;
    }
  }
}

TEST(Oil, RangeContainsTellsTheFirstIntervalItOverlaps) {
  const OilPtr oil = raw_list({{10, 20}, {40, 50}, {70, 80}});
  const struct {
    uint32_t a, b;
    int found;
    int idx;
  } table[] = {{25, 35, 0, 0}, {25, 45, 1, 1}, {25, 40, 1, 1}, {21, 39, 0, 0}, {15, 45, 1, 0}, {20, 21, 1, 0},
               {25, 75, 1, 1}, {0, 9, 0, -1},  {0, 10, 1, 0},  {0, 99, 1, 0},  {81, 99, 0, 3}, {80, 99, 1, 2},
               {51, 69, 0, 1}, {45, 15, 0, 1}, {30, 30, 0, 0}, {45, 45, 1, 1}};
  for (const auto &row : table) {
    int idx = 99;
    EXPECT_EQ(oil_range_contains(oil.get(), row.a, row.b, &idx), row.found) << row.a << ".." << row.b;
    EXPECT_EQ(idx, row.idx) << row.a << ".." << row.b;
    EXPECT_EQ(oil_range_contains(oil.get(), row.a, row.b, nullptr), row.found);
  }
  const OilPtr empty(oil_alloc());
  int idx = 99;
  EXPECT_EQ(oil_range_contains(empty.get(), 0, 100, &idx), 0);
  EXPECT_EQ(idx, 0);
}

TEST(Oil, RangeContainsAgreesWithASetOfPoints) {
  const unsigned seed = fresh_seed();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const Intervals intervals = random_intervals(random, random() % 12);
    const OilPtr oil = raw_list(intervals);
    const std::vector<bool> active = points_of(intervals, 400);
    const uint32_t a = static_cast<uint32_t>(random() % 400);
    const uint32_t b = a + static_cast<uint32_t>(random() % (400 - a));
    bool expected = false;
    for (uint32_t t = a; t <= b; ++t) expected = expected || active[t];
    ASSERT_EQ(oil_range_contains(oil.get(), a, b, nullptr), expected ? 1 : 0) << a << ".." << b;
  }
}

TEST(Oil, ExactMatchComparesIntervalsAndTakesNullForEmpty) {
  const OilPtr empty(oil_alloc_cap(5));
  const OilPtr a = raw_list({{10, 20}, {40, 50}});
  const OilPtr same = raw_list({{10, 20}, {40, 50}});
  const OilPtr longer = raw_list({{10, 20}, {40, 50}, {70, 80}});
  const OilPtr other_first = raw_list({{10, 20}, {41, 50}});
  const OilPtr other_last = raw_list({{10, 20}, {40, 51}});
  EXPECT_EQ(oil_exact_match(nullptr, empty.get()), 1);
  EXPECT_EQ(oil_exact_match(empty.get(), nullptr), 1);
  EXPECT_EQ(oil_exact_match(a.get(), same.get()), 1);
  EXPECT_EQ(oil_exact_match(a.get(), a.get()), 1);
  EXPECT_EQ(oil_exact_match(a.get(), nullptr), 0);
  EXPECT_EQ(oil_exact_match(a.get(), longer.get()), 0);
  EXPECT_EQ(oil_exact_match(a.get(), other_first.get()), 0);
  EXPECT_EQ(oil_exact_match(a.get(), other_last.get()), 0);
  EXPECT_EQ(a->lock, 0u);
}

TEST(Oil, CloneIsIndependentAndExactlyAsLargeAsItMustBe) {
  const OilPtr oil = raw_list({{10, 20}, {400, 500}, {7000, 8000}});
  const OilPtr clone(oil_clone(oil.get()));
  EXPECT_EQ(oil_capacity(clone.get()), 3u);
  EXPECT_EQ(oil_exact_match(oil.get(), clone.get()), 1);
  oil_put(clone.get(), 90000, 90001);
  EXPECT_EQ(oil_capacity(clone.get()), 16u);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(10, 20), Pair(400, 500), Pair(7000, 8000)));
  const OilPtr empty(oil_alloc_cap(9));
  const OilPtr empty_clone(oil_clone(empty.get()));
  EXPECT_EQ(oil_capacity(empty_clone.get()), 0u);
  EXPECT_THAT(contents(empty_clone.get()), IsEmpty());
}

TEST(Oil, ValidHoldsTheInvariantsAndNothingElse) {
  EXPECT_EQ(oil_valid(raw_list({}).get()), 1);
  EXPECT_EQ(oil_valid(raw_list({{0, 0}}).get()), 1);
  EXPECT_EQ(oil_valid(raw_list({{10, 20}, {21, 30}}).get()), 1) << "neighbours may touch";
  EXPECT_EQ(oil_valid(raw_list({{10, 20}, {10, 20}}).get()), 1) << "nothing decreases";
  EXPECT_EQ(oil_valid(raw_list({{20, 10}}).get()), 0);
  EXPECT_EQ(oil_valid(raw_list({{10, 20}, {9, 30}}).get()), 0);
  EXPECT_EQ(oil_valid(raw_list({{10, 20}, {12, 19}}).get()), 0);
  const OilPtr overfull = raw_list({{10, 20}, {30, 40}});
  overfull->capacity = 1;
  EXPECT_EQ(oil_valid(overfull.get()), 0);
  overfull->capacity = 2;
}

TEST(Oil, IterVisitsEachIntervalInOrderWithItsIndexAndTheSize) {
  const OilPtr oil = raw_list({{10, 20}, {40, 50}});
  struct Visit {
    uint32_t index, size, first, last;
    bool operator==(const Visit &) const = default;
  };
  std::vector<Visit> visits;
  oil_iter(
      oil.get(),
      [](void *closure, uint32_t index, uint32_t size, uint32_t first, uint32_t last) {
        static_cast<std::vector<Visit> *>(closure)->push_back({index, size, first, last});
      },
      &visits);
  EXPECT_EQ(visits, (std::vector<Visit>{{0, 2, 10, 20}, {1, 2, 40, 50}}));
  EXPECT_EQ(oil->lock, 0u);
}

TEST(Oil, IterHoldsTheSharedLockAndOtherReadersGetIn) {
  const OilPtr oil = raw_list({{10, 20}});
  oil_iter(
      oil.get(),
      [](void *closure, uint32_t, uint32_t, uint32_t, uint32_t) {
        auto *list = static_cast<oil_list_t *>(closure);
        EXPECT_EQ(list->lock, 4u);
        EXPECT_EQ(oil_find(list, 15, nullptr), 1);
      },
      oil.get());
}

TEST(OilDeathTest, AnAppendWithoutALastSlotIsFatal) {
  EXPECT_DEATH(
      {
        oil_error_ls = ruxo_error;
        const OilPtr oil(oil_alloc());
        liborlith::oil_fill_last_locked(oil.get(), 1, 2);
      },
      "message=\"\\[FATAL\\] Couldn't get oil_last_locked in oil_append_after_locked - oil->size = 0\"\n");
}

}  // namespace
