#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "liborlith/util/oil.h"
#include "test/util/oil_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

// The rules of a put, step by step over a plain vector and with linear scans: the oracle of the real thing.
class Model {
 public:
  struct Entry {
    uint64_t first, last;
  };
  std::vector<Entry> entries;

  bool put(uint64_t first, uint64_t last) {
    if (first == 0 && last == 0) return false;
    if (first > last) return false;
    if (entries.empty() || first > entries.back().last + 96) {
      entries.push_back({first, last});
      return true;
    }
    Entry &newest = entries.back();
    if (first > newest.last) {
      newest.last = last;
      return true;
    }
    if (first >= newest.first) {
      if (last <= newest.last) return false;
      newest.last = last;
      return true;
    }
    return put_earlier(first, last);
  }

  Intervals intervals() const {
    Intervals result;
    for (const Entry &e : entries)
      result.emplace_back(static_cast<uint32_t>(e.first), static_cast<uint32_t>(e.last));
    return result;
  }

 private:
  struct Place {
    bool inside;
    int64_t index;
  };

  int64_t count() const { return static_cast<int64_t>(entries.size()); }
  Entry &at(int64_t i) { return entries[static_cast<size_t>(i)]; }

  Place find(uint64_t t) {
    Place place{false, -1};
    for (int64_t i = 0; i < count(); ++i) {
      if (t >= at(i).first && t <= at(i).last) return {true, i};
      if (t > at(i).last) place.index = i;
    }
    if (t > entries.back().last) place.index = count();
    return place;
  }

  bool put_earlier(uint64_t first, uint64_t last) {
    const Place a = find(first);
    const Place b = find(last);
    if (a.inside && last <= at(a.index).last) return false;
    if (!a.inside && !b.inside && a.index == b.index) return insert(first, last, a.index);
    bool changed = false;
    int64_t current = a.index;
    uint64_t uncovered = first;
    if (a.index == -1 && last + 97 >= at(0).first) {
      at(0).first = first;
      changed = true;
      uncovered = at(0).last + 1;
      current = count() > 1 && at(1).first <= uncovered ? 1 : 0;
    }
    while (!(last <= at(current).last || last < uncovered)) {
      if (current == count() - 1 || at(current + 1).first > last + 97)
        return insert(first, last, current) || changed;
      const uint64_t start = std::max(uncovered, at(current).last + 1);
      if (start < at(current + 1).first) {
        at(current + 1).first = start;
        changed = true;
      }
      uncovered = at(current + 1).last + 1;
      current += current + 2 < count() && at(current + 2).first <= uncovered ? 2 : 1;
    }
    return changed;
  }

  bool insert(uint64_t first, uint64_t last, int64_t i) {
    const bool has_next = i + 1 < count();
    uint64_t end = last;
    if (has_next && at(i + 1).first <= last + 96) end = at(i + 1).first - 1;
    if (i >= 0 && at(i).last + 96 > first && at(i).last <= 0xFFFFFF9E) {
      at(i).last = end;
      return true;
    }
    if (has_next && first + 96 > at(i + 1).first) {
      at(i + 1).first = first;
      return true;
    }
    if (has_next && end + 1 >= at(i + 1).first && at(i + 1).last >= end) {
      at(i + 1).first = first;
      return true;
    }
    // Starts never decrease.
    if (i >= 0 && first < at(i).first) first = at(i).first;
    entries.insert(entries.begin() + i + 1, Entry{first, end});
    return true;
  }
};

OilPtr list_after(const Intervals &puts) {
  OilPtr oil(oil_alloc());
  for (const auto &[first, last] : puts) oil_put(oil.get(), first, last);
  return oil;
}

TEST(OilPut, ASmallGapAtTheEndIsBridged) {
  EXPECT_THAT(contents(list_after({{100, 200}, {250, 300}}).get()), ElementsAre(Pair(100, 300)));
}

TEST(OilPut, AGapOf96StillExtendsAndOneOf97BeginsANewInterval) {
  EXPECT_THAT(contents(list_after({{100, 200}, {296, 300}}).get()), ElementsAre(Pair(100, 300)));
  EXPECT_THAT(contents(list_after({{100, 200}, {297, 300}}).get()),
              ElementsAre(Pair(100, 200), Pair(297, 300)));
}

TEST(OilPut, ZeroAndReversedRangesMeanNothing) {
  const OilPtr oil(oil_alloc());
  EXPECT_EQ(oil_put(oil.get(), 0, 0), 0);
  EXPECT_EQ(oil_put(oil.get(), 5, 4), 0);
  EXPECT_THAT(contents(oil.get()), IsEmpty());
  EXPECT_EQ(oil_put(oil.get(), 100, 200), 1);
  EXPECT_EQ(oil_put(oil.get(), 0, 0), 0);
  EXPECT_EQ(oil_put(oil.get(), 300, 299), 0);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(100, 200)));
  EXPECT_EQ(oil_put(oil.get(), 0, 1), 1) << "a range that only begins at 0 means something";
  EXPECT_EQ(oil->lock, 0u);
}

TEST(OilPut, WhatIsCoveredChangesNothing) {
  const Intervals intervals = {{100, 200}, {1000, 1100}, {3000, 3100}};
  const OilPtr oil = raw_list(intervals);
  for (const auto &[first, last] : intervals) {
    EXPECT_EQ(oil_put(oil.get(), first, last), 0);
    EXPECT_EQ(oil_put(oil.get(), first, first), 0);
    EXPECT_EQ(oil_put(oil.get(), last, last), 0);
    EXPECT_EQ(oil_put(oil.get(), first + 1, last - 1), 0);
  }
  EXPECT_EQ(contents(oil.get()), intervals);
  EXPECT_EQ(oil->lock, 0u);
}

TEST(OilPut, TheLastIntervalIsExtendedFromInside) {
  const OilPtr oil = raw_list({{100, 200}});
  EXPECT_EQ(oil_put(oil.get(), 100, 201), 1);
  EXPECT_EQ(oil_put(oil.get(), 150, 250), 1);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(100, 250)));
}

struct Case {
  const char *situation;
  Intervals before;
  Interval put;
  int result;
  Intervals after;
};

// Worked by hand. "Near" is within the tolerance of 96.
const Case cases_before_the_last[] = {
    {"alone in a gap", {{100, 200}, {5000, 5100}}, {1000, 1010}, 1, {{100, 200}, {1000, 1010}, {5000, 5100}}},
    {"95 after the previous", {{100, 200}, {5000, 5100}}, {295, 300}, 1, {{100, 300}, {5000, 5100}}},
    {"96 after the previous",
     {{100, 200}, {5000, 5100}},
     {296, 300},
     1,
     {{100, 200}, {296, 300}, {5000, 5100}}},
    {"96 before the next", {{100, 200}, {5000, 5100}}, {4800, 4904}, 1, {{100, 200}, {4800, 5100}}},
    {"97 before the next",
     {{100, 200}, {5000, 5100}},
     {4800, 4903},
     1,
     {{100, 200}, {4800, 4903}, {5000, 5100}}},
    {"near both: the gap is closed from the left",
     {{100, 200}, {300, 400}},
     {250, 260},
     1,
     {{100, 299}, {300, 400}}},
    {"far before everything", {{1000, 1100}}, {5, 10}, 1, {{5, 10}, {1000, 1100}}},
    {"near before everything", {{1000, 1100}}, {900, 910}, 1, {{900, 1100}}},
    {"before everything, into the first", {{1000, 1100}}, {900, 1050}, 1, {{900, 1100}}},
    {"over everything", {{1000, 1100}}, {900, 1200}, 1, {{900, 1200}}},
    {"over two, from before the first to after the last",
     {{1000, 1100}, {2000, 2100}},
     {900, 2200},
     1,
     {{900, 1100}, {1101, 2200}}},
    {"from inside one to inside the next",
     {{1000, 1100}, {2000, 2100}},
     {1050, 2050},
     1,
     {{1000, 1100}, {1101, 2100}}},
    {"from a gap to inside the next",
     {{1000, 1100}, {2000, 2100}},
     {1500, 2050},
     1,
     {{1000, 1100}, {1500, 2100}}},
    {"from inside one, ending in the gap",
     {{1000, 1100}, {2000, 2100}},
     {1050, 1500},
     1,
     {{1000, 1500}, {2000, 2100}}},
    {"from inside one, ending 97 before the next",
     {{1000, 1100}, {2000, 2100}},
     {1050, 1903},
     1,
     {{1000, 1100}, {1101, 2100}}},
    {"from inside one, ending 98 before the next",
     {{1000, 1100}, {2000, 2100}},
     {1050, 1902},
     1,
     {{1000, 1902}, {2000, 2100}}},
    {"over several gaps",
     {{1000, 1100}, {2000, 2100}, {3000, 3100}, {9000, 9100}},
     {1500, 5000},
     1,
     {{1000, 1100}, {1500, 2100}, {2101, 5000}, {9000, 9100}}},
    {"over neighbours that touch",
     {{1000, 1100}, {1101, 1200}, {2000, 2100}, {2101, 2200}, {5000, 5100}},
     {1050, 2150},
     1,
     {{1000, 1100}, {1101, 1200}, {1201, 2100}, {2101, 2200}, {5000, 5100}}},
    {"over neighbours that touch, nothing new",
     {{1000, 1100}, {1101, 1200}, {5000, 5100}},
     {1050, 1150},
     0,
     {{1000, 1100}, {1101, 1200}, {5000, 5100}}},
    {"from before everything over touching neighbours",
     {{1000, 1100}, {1101, 1200}, {5000, 5100}},
     {900, 1150},
     1,
     {{900, 1100}, {1101, 1200}, {5000, 5100}}},
    // Near 2^32 nothing wraps: the end of time is not close to its beginning.
    {"insertion far from an interval at the end of time",
     {{100, 200}, {0xFFFFFFF0, 0xFFFFFFFF}},
     {1000, 1010},
     1,
     {{100, 200}, {1000, 1010}, {0xFFFFFFF0, 0xFFFFFFFF}}},
    {"from the start of time to its end", {{0xFFFFFFF0, 0xFFFFFFFF}}, {0, 0xFFFFFFFF}, 1, {{0, 0xFFFFFFFF}}},
    {"a previous interval that ends at the highest extendable time",
     {{0xFFFFFF90, 0xFFFFFF9E}, {0xFFFFFFF0, 0xFFFFFFF1}},
     {0xFFFFFFA5, 0xFFFFFFA6},
     1,
     {{0xFFFFFF90, 0xFFFFFFEF}, {0xFFFFFFF0, 0xFFFFFFF1}}},
    {"a previous interval that ends one later is not extended",
     {{0xFFFFFF90, 0xFFFFFF9F}, {0xFFFFFFF0, 0xFFFFFFF1}},
     {0xFFFFFFA5, 0xFFFFFFA6},
     1,
     {{0xFFFFFF90, 0xFFFFFF9F}, {0xFFFFFFA5, 0xFFFFFFF1}}},
    {"a walk that ends at an interval above the bound adds one that overlaps it",
     {{10, 20}, {0xFFFFFFA0, 0xFFFFFFA5}},
     {0xFFFFFF90, 0xFFFFFFF0},
     1,
     {{10, 20}, {0xFFFFFF90, 0xFFFFFFA5}, {0xFFFFFF90, 0xFFFFFFF0}}},
    {"and which never begins before it",
     {{10, 20}, {100, 0xFFFFFFA5}},
     {15, 0xFFFFFFF0},
     1,
     {{10, 20}, {21, 0xFFFFFFA5}, {21, 0xFFFFFFF0}}}};

TEST(OilPut, BeforeTheLastIntervalFollowsTheRules) {
  for (const Case &c : cases_before_the_last) {
    SCOPED_TRACE(c.situation);
    const OilPtr oil = raw_list(c.before);
    EXPECT_EQ(oil_put(oil.get(), c.put.first, c.put.second), c.result);
    EXPECT_EQ(contents(oil.get()), c.after);
    EXPECT_EQ(oil->lock, 0u);
  }
}

TEST(OilPut, TheLastIntervalExtendsUpToTheEndOfTime) {
  const OilPtr oil = raw_list({{100, 0xFFFFFFF0}});
  EXPECT_EQ(oil_put(oil.get(), 0xFFFFFFFE, 0xFFFFFFFE), 1);
  EXPECT_EQ(oil_put(oil.get(), 0xFFFFFFFF, 0xFFFFFFFF), 1);
  EXPECT_EQ(oil_put(oil.get(), 0xFFFFFFFF, 0xFFFFFFFF), 0);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(100, 0xFFFFFFFF)));
}

// The table of doc/interval-lists.md.
TEST(OilPut, TheDocumentedExampleHolds) {
  const OilPtr oil(oil_alloc());
  const struct {
    uint32_t first, last;
    const char *text;
  } steps[] = {{100, 200, "[(100,200)]"},
               {250, 300, "[(100,300)]"},
               {397, 400, "[(100,300),(397,400)]"},
               {1000, 1010, "[(100,300),(397,400),(1000,1010)]"},
               {600, 610, "[(100,300),(397,400),(600,610),(1000,1010)]"},
               {950, 960, "[(100,300),(397,400),(600,610),(950,1010)]"},
               {290, 620, "[(100,300),(301,400),(401,620),(950,1010)]"}};
  for (const auto &step : steps) {
    EXPECT_EQ(oil_put(oil.get(), step.first, step.last), 1);
    char text[200];
    oil_print(oil.get(), text, sizeof text);
    EXPECT_STREQ(text, step.text);
  }
}

// Puts random ranges into the list and into the model, from `base` up over `span`, and compares after each.
void compare_with_model(unsigned seed, uint64_t base, uint32_t span, uint32_t max_length) {
  SCOPED_TRACE(testing::Message() << "seed " << seed << " base " << base << " span " << span);
  std::mt19937 random(seed);
  const OilPtr oil(oil_alloc());
  Model model;
  for (int step = 0; step < 120; ++step) {
    const uint64_t first = base + random() % span;
    const uint64_t last = std::min<uint64_t>(first + random() % max_length, 0xFFFFFFFF);
    const bool changed = model.put(first, last);
    ASSERT_EQ(oil_put(oil.get(), static_cast<uint32_t>(first), static_cast<uint32_t>(last)), changed ? 1 : 0)
        << "step " << step << ": " << first << ".." << last;
    ASSERT_EQ(contents(oil.get()), model.intervals()) << "step " << step << ": " << first << ".." << last;
    ASSERT_EQ(oil_valid(oil.get()), 1);
    ASSERT_EQ(oil->lock, 0u);
  }
}

TEST(OilPut, AgreesWithTheModelOverRandomSequences) {
  const unsigned seed = fresh_seed();
  for (unsigned round = 0; round < 1500; ++round) {
    compare_with_model(seed + round, 0, 20000, 30);
    compare_with_model(seed + round, 0, 20000, 3000);
    compare_with_model(seed + round, 1u << 31, 5000, 400);
    compare_with_model(seed + round, 0, 300, 20);
    if (HasFatalFailure()) return;
  }
}

TEST(OilPut, AgreesWithTheModelNearTheEndOfTime) {
  const unsigned seed = fresh_seed();
  for (unsigned round = 0; round < 2000; ++round) {
    compare_with_model(seed + round, 0xFFFFFFFF - 1999, 2000, 100);
    compare_with_model(seed + round, 0xFFFFFFFF - 399, 400, 60);
    compare_with_model(seed + round, 0xFFFFFFFF - 9999, 10000, 10000);
    if (HasFatalFailure()) return;
  }
}

// A look-up of each time agrees with a linear scan, and the index it gives is of an interval with that time.
void expect_find_sees(oil_list_t *oil, const Intervals &intervals, uint64_t base, uint32_t limit) {
  for (uint32_t t = 0; t < limit; ++t) {
    const auto time = static_cast<uint32_t>(base + t);
    const auto holds_time = [time](const Interval &i) { return i.first <= time && time <= i.second; };
    int idx = -2;
    const bool found = oil_find(oil, time, &idx) == 1;
    ASSERT_EQ(found, std::any_of(intervals.begin(), intervals.end(), holds_time)) << time;
    if (found) {
      ASSERT_TRUE(holds_time(intervals.at(static_cast<size_t>(idx)))) << time << " index " << idx;
    }
  }
}

// What a put promises in terms of single times, whatever the intervals are: it covers what it is told, keeps
// what was covered, and adds nothing beyond the tolerance. Times are counted from `base`, over `limit` of them.
void put_randomly_and_check_every_time(unsigned seed, uint64_t base, uint32_t limit, uint32_t max_length) {
  SCOPED_TRACE(testing::Message() << "seed " << seed << " base " << base);
  std::mt19937 random(seed);
  const OilPtr oil(oil_alloc());
  const auto active_times = [&](const Intervals &intervals) {
    Intervals shifted;
    for (const auto &[first, last] : intervals)
      shifted.emplace_back(static_cast<uint32_t>(first - base), static_cast<uint32_t>(last - base));
    return points_of(shifted, limit);
  };
  for (int step = 0; step < 60; ++step) {
    const uint32_t first = static_cast<uint32_t>(random() % limit);
    const uint32_t last = std::min(limit - 1, first + static_cast<uint32_t>(random() % max_length));
    SCOPED_TRACE(testing::Message() << first << ".." << last);
    const Intervals old_intervals = contents(oil.get());
    const std::vector<bool> before = active_times(old_intervals);
    const int changed =
        oil_put(oil.get(), static_cast<uint32_t>(base + first), static_cast<uint32_t>(base + last));
    const Intervals new_intervals = contents(oil.get());
    const std::vector<bool> after = active_times(new_intervals);

    if (base + last == 0) continue;
    ASSERT_EQ(changed == 1, new_intervals != old_intervals);
    ASSERT_EQ(oil_valid(oil.get()), 1);
    for (uint32_t t = 0; t < limit; ++t) {
      if (before[t] || (t >= first && t <= last)) {
        ASSERT_TRUE(after[t]) << t;
      } else if (after[t]) {
        // Filled in to bridge the gap to activity on the range's other side, which was near.
        bool near = false;
        for (uint32_t q = t + 1; q < limit && q <= last + 97 && t > last; ++q) near = near || before[q];
        for (uint32_t q = first > 96 ? first - 96 : 0; q < t && t < first; ++q) near = near || before[q];
        ASSERT_TRUE(near) << t;
      }
    }
    if (step % 10 == 9) expect_find_sees(oil.get(), new_intervals, base, limit);
    if (testing::Test::HasFatalFailure()) return;
  }
}

TEST(OilPut, CoversWhatItIsToldKeepsWhatWasAndAddsNothingBeyondTheTolerance) {
  const unsigned seed = fresh_seed();
  for (unsigned round = 0; round < 150; ++round) {
    put_randomly_and_check_every_time(seed + round, 0, 4000, round % 2 == 0 ? 12 : 700);
    if (HasFatalFailure()) return;
  }
}

// There an interval that is followed by its own kind, not stretched, must not disturb the order or a look-up.
TEST(OilPut, NearTheEndOfTimeEveryTimeIsFoundToo) {
  const unsigned seed = fresh_seed();
  constexpr uint32_t limit = 300;
  for (unsigned round = 0; round < 150; ++round) {
    put_randomly_and_check_every_time(seed + round, (uint64_t{1} << 32) - limit, limit,
                                      round % 2 == 0 ? 12 : 300);
    if (HasFatalFailure()) return;
  }
}

// Two neighbours above the bound, and a range over both that begins before them and ends later.
TEST(OilPut, NearTheEndOfTimeStartsNeverDecrease) {
  const OilPtr oil = raw_list({{10, 20}, {100, 0xFFFFFFA5}, {200, 0xFFFFFFB0}});
  EXPECT_EQ(oil_put(oil.get(), 15, 0xFFFFFFC0), 1);
  EXPECT_THAT(contents(oil.get()),
              ElementsAre(Pair(10, 20), Pair(21, 0xFFFFFFA5), Pair(200, 0xFFFFFFB0), Pair(200, 0xFFFFFFC0)));
  EXPECT_EQ(oil_put(oil.get(), 5, 0xFFFFFFFF), 1);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(5, 20), Pair(21, 0xFFFFFFA5), Pair(200, 0xFFFFFFB0),
                                               Pair(200, 0xFFFFFFC0), Pair(200, 0xFFFFFFFF)));
  EXPECT_EQ(oil_valid(oil.get()), 1);
}

}  // namespace
