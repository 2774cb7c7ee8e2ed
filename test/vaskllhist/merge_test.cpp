// Sums and differences of histograms, against maps of wide numbers.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "test/vaskllhist/histogram_support.h"

namespace {

using namespace hist_test;

__extension__ typedef __int128 wide_int;

TEST(Accumulate, AddsBucketByBucket) {
  const Histogram target{{-10, 0, 1}, {10, 0, 5}};
  const Histogram source{{-10, 0, 2}, {0, 0, 3}, {12, 3, 0}, {-1, 0, 4}};
  EXPECT_EQ(accumulate(target, {source.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{-10, 0, 3}, {0, 0, 3}, {10, 0, 5}, {12, 3, 0}, {-1, 0, 4}}));
  EXPECT_EQ(source.entries(), (Entries{{-10, 0, 2}, {0, 0, 3}, {12, 3, 0}, {-1, 0, 4}}));
}

TEST(Accumulate, IntoAnEmptyOneCopies) {
  const Histogram source{{10, 0, 5}, {20, 0, 0}};
  const Histogram target(hist_alloc_bins(2));
  EXPECT_EQ(accumulate(target, {source.get()}), 0);
  EXPECT_EQ(target.entries(), source.entries());
  EXPECT_FALSE(hist_is_difference(target.get()));
}

TEST(Accumulate, NoSourcesAndNullSourcesAddNothing) {
  const Histogram target{{10, 0, 5}};
  const Histogram source{{10, 0, 1}};
  EXPECT_EQ(hist_accumulate(target.get(), nullptr, 0), 0);
  EXPECT_EQ(accumulate(target, {nullptr, source.get(), nullptr}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, 6}}));
}

TEST(Accumulate, OneSourceMayStandThereTwice) {
  const Histogram target;
  const Histogram source{{10, 0, 1}, {11, 0, 2}};
  EXPECT_EQ(accumulate(target, {source.get(), source.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, 2}, {11, 0, 4}}));
}

TEST(Merge, RefusesWhatIsNoArgument) {
  const Histogram target{{10, 0, 5}}, source{{11, 0, 1}};
  const histogram_t *const sources[] = {source.get(), target.get()};
  for (const auto merge : {hist_accumulate, hist_subtract_as_int64, hist_add_as_int64}) {
    EXPECT_EQ(merge(nullptr, sources, 1), HIST_E_ARGUMENT);
    EXPECT_EQ(merge(target.get(), nullptr, 1), HIST_E_ARGUMENT);
    EXPECT_EQ(merge(target.get(), sources, -1), HIST_E_ARGUMENT);
    EXPECT_EQ(merge(target.get(), sources, 2), HIST_E_ARGUMENT) << "the target is among the sources";
    EXPECT_EQ(target.entries(), (Entries{{10, 0, 5}}));
  }
}

TEST(Accumulate, Saturates) {
  const Histogram target{{10, 0, UINT64_MAX - 1}, {11, 0, UINT64_MAX}};
  const Histogram source{{10, 0, 1}, {11, 0, 1}, {12, 0, 1}};
  EXPECT_EQ(accumulate(target, {source.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, UINT64_MAX}, {11, 0, UINT64_MAX}, {12, 0, 1}}));
  EXPECT_EQ(accumulate(target, {source.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, UINT64_MAX}, {11, 0, UINT64_MAX}, {12, 0, 2}}));
}

TEST(Subtract, GivesSignedCountsAndDropsWhatIsEqual) {
  const Histogram target{{10, 0, 5}, {11, 0, 7}, {13, 0, 1}};
  const Histogram source{{-20, 0, 3}, {10, 0, 5}, {11, 0, 9}, {14, 0, 0}};
  EXPECT_EQ(subtract(target, {source.get()}), 0);
  EXPECT_TRUE(hist_is_difference(target.get()));
  EXPECT_EQ(target.entries(), (Entries{{-20, 0, as_count(-3)}, {11, 0, as_count(-2)}, {13, 0, 1}}));
}

TEST(Subtract, EqualHistogramsLeaveNothing) {
  const Histogram source{{-20, 0, 3}, {10, 0, 5}, {-1, 0, UINT64_MAX}};
  const Histogram target(hist_clone(source.get()));
  EXPECT_EQ(subtract(target, {source.get()}), 0);
  EXPECT_EQ(hist_bucket_count(target.get()), 0);
}

// As a series of histograms stores them: the current one into room for both, less the one before.
TEST(Subtract, ADifferenceOfSimilarHistogramsIsSmaller) {
  const Histogram before{{10, 0, 5}, {11, 0, 7}, {12, 0, 1}};
  const Histogram current{{10, 0, 5}, {11, 0, 8}, {12, 0, 1}};
  const Histogram difference(hist_alloc_bins(6));
  EXPECT_EQ(accumulate(difference, {current.get()}), 0);
  EXPECT_EQ(subtract(difference, {before.get()}), 0);
  EXPECT_EQ(difference.entries(), (Entries{{11, 0, 1}}));
}

TEST(Subtract, RefusesWhatLeavesSigned64Bits) {
  const uint64_t most = INT64_MAX;
  const struct {
    uint64_t from, take;
    int result;
  } cases[] = {
      {most, 0, 0},
      {most + 1, 0, HIST_E_RANGE},
      {most + 1, 1, 0},
      {UINT64_MAX, UINT64_MAX, 0},
      {UINT64_MAX, most + 1, 0},
      {UINT64_MAX, most, HIST_E_RANGE},
      {0, most + 1, 0},
      {0, most + 2, HIST_E_RANGE},
      {1, most + 2, 0},
      {0, UINT64_MAX, HIST_E_RANGE},
  };
  for (const auto &[from, take, result] : cases) {
    const Histogram target{{10, 0, from}, {50, 0, 1}}, source{{10, 0, take}, {50, 0, 2}};
    EXPECT_EQ(subtract(target, {source.get()}), result) << from << " " << take;
    if (result == 0) {
      EXPECT_EQ(hist_count_at(target.get(), bucket(10, 0)), from - take);
    } else {
      EXPECT_EQ(target.entries(), (Entries{{10, 0, from}, {50, 0, 1}}));
      EXPECT_FALSE(hist_is_difference(target.get()));
    }
  }
}

TEST(Subtract, ABucketOnlyOneOfThemHasIsCheckedToo) {
  const Histogram large{{10, 0, UINT64_MAX}}, other{{11, 0, 1}};
  EXPECT_EQ(subtract(large, {other.get()}), HIST_E_RANGE);
  EXPECT_EQ(subtract(other, {large.get()}), HIST_E_RANGE);
  EXPECT_EQ(large.entries(), (Entries{{10, 0, UINT64_MAX}}));
  EXPECT_EQ(other.entries(), (Entries{{11, 0, 1}}));
}

TEST(Subtract, OnlyTheResultOfSeveralSourcesHasToFit) {
  const Histogram target{{10, 0, UINT64_MAX}}, half{{10, 0, uint64_t{1} << 63}};
  EXPECT_EQ(subtract(target, {half.get(), half.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, as_count(-1)}}));
}

TEST(Subtract, ADifferenceStaysSigned) {
  const Histogram target{{10, 0, 1}}, three{{10, 0, 3}};
  EXPECT_EQ(subtract(target, {three.get()}), 0);
  EXPECT_EQ(subtract(target, {three.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, as_count(-5)}}));
  const Histogram zero{{20, 0, 1}};
  EXPECT_EQ(subtract(zero, {target.get()}), 0);
  EXPECT_EQ(zero.entries(), (Entries{{10, 0, 5}, {20, 0, 1}})) << "the source's counts are signed, too";
}

TEST(Add, IsTheInverse) {
  const Histogram before{{10, 0, 5}, {11, 0, 7}, {12, 0, 2}};
  const Histogram current{{10, 0, 5}, {11, 0, 3}, {13, 0, UINT64_MAX >> 1}};
  const Histogram difference(hist_clone(current.get()));
  ASSERT_EQ(subtract(difference, {before.get()}), 0);
  // What was taken away is added to the difference, or the difference to what was taken away.
  const Histogram sum(hist_clone(before.get()));
  EXPECT_EQ(add(sum, {difference.get()}), 0);
  EXPECT_EQ(add(difference, {before.get()}), 0);
  for (const Histogram *result : {&sum, &difference}) {
    hist_remove_zeroes(result->get());
    EXPECT_EQ(result->entries(), current.entries());
  }
  EXPECT_FALSE(hist_is_difference(sum.get()));
  EXPECT_TRUE(hist_is_difference(difference.get()));
}

TEST(Add, KeepsZeroBuckets) {
  const Histogram target{{10, 0, 5}, {11, 0, 0}};
  const Histogram source;
  hist_insert_raw_end(source.get(), bucket(10, 0), as_count(-5));
  hist_insert_raw_end(source.get(), bucket(12, 0), 0);
  EXPECT_EQ(add(target, {source.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, 0}, {11, 0, 0}, {12, 0, 0}}));
}

TEST(Add, RefusesCountsOutOfRange) {
  const Histogram target{{10, 0, 5}, {11, 0, UINT64_MAX}};
  const Histogram too_few{{10, 0, as_count(-6)}}, too_many{{11, 0, 1}}, from_nothing{{12, 0, as_count(-1)}};
  for (const Histogram *source : {&too_few, &too_many, &from_nothing}) {
    EXPECT_EQ(add(target, {source->get()}), HIST_E_RANGE);
    EXPECT_EQ(target.entries(), (Entries{{10, 0, 5}, {11, 0, UINT64_MAX}}));
  }
  const Histogram one_less{{11, 0, as_count(-1)}};
  EXPECT_EQ(add(target, {one_less.get(), too_many.get()}), 0) << "only the result has to fit";
}

TEST(Add, OfADifferenceIsSigned) {
  const Histogram target{{10, 0, 1}}, two{{10, 0, 2}};
  ASSERT_EQ(subtract(target, {two.get()}), 0);
  const Histogram minus_three{{10, 0, as_count(-3)}}, most{{10, 0, INT64_MAX}};
  EXPECT_EQ(add(target, {minus_three.get()}), 0);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, as_count(-4)}}));
  EXPECT_EQ(add(target, {most.get()}), 0);
  EXPECT_EQ(add(target, {most.get()}), HIST_E_RANGE);
  EXPECT_EQ(target.entries(), (Entries{{10, 0, INT64_MAX - 4}}));
}

Histogram difference_of_one(int64_t count) {
  Histogram result, empty;
  EXPECT_EQ(subtract(result, {empty.get()}), 0);
  hist_insert_raw_end(result.get(), bucket(10, 0), as_count(count));
  return result;
}

TEST(Difference, AccumulatesSignedAndSaturatesAtBothEnds) {
  const Histogram least = difference_of_one(INT64_MIN), minus_one = difference_of_one(-1);
  EXPECT_EQ(accumulate(least, {minus_one.get()}), 0);
  EXPECT_EQ(least.entries(), (Entries{{10, 0, as_count(INT64_MIN)}}));

  const Histogram ordinary{{10, 0, 5}, {11, 0, UINT64_MAX}};
  EXPECT_EQ(accumulate(ordinary, {minus_one.get()}), 0);
  EXPECT_TRUE(hist_is_difference(ordinary.get()));
  EXPECT_EQ(ordinary.entries(), (Entries{{10, 0, 4}, {11, 0, INT64_MAX}}));
}

TEST(Difference, CountsInsertedSaturateAtTheLargestSignedOne) {
  const Histogram h = difference_of_one(-2);
  EXPECT_EQ(hist_insert(h.get(), 1, 5), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(10, 0)), 3U);
  EXPECT_EQ(hist_insert(h.get(), 1, UINT64_MAX), 0);
  EXPECT_EQ(hist_insert(h.get(), 2, UINT64_MAX), 0);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, INT64_MAX}, {20, 0, INT64_MAX}}));
  EXPECT_EQ(hist_remove(h.get(), 1, 5), 0U);
}

TEST(Difference, IsClonedAndClearedAsOne) {
  const Histogram h = difference_of_one(-2);
  const Histogram copy(hist_clone(h.get()));
  EXPECT_TRUE(hist_is_difference(copy.get()));
  EXPECT_EQ(copy.entries(), h.entries());
  hist_clear(copy.get());
  EXPECT_FALSE(hist_is_difference(copy.get()));
}

// A histogram of random buckets out of `spread`, in the shape that merging meets: few or many in common.
Histogram random_histogram(std::mt19937_64 &random, size_t buckets, size_t spread) {
  Histogram h;
  for (size_t i = 0; i < buckets; ++i) {
    const size_t which = random() % spread;
    const int val = 10 + static_cast<int>(which % 90);
    const uint64_t count = random() % 8 == 0 ? random() : random() % 100;
    hist_insert_raw(h.get(), bucket(which % 2 == 0 ? val : -val, static_cast<int>(which / 90)), count);
  }
  return h;
}

using Sums = std::map<std::tuple<int, double>, std::pair<hist_bucket_t, wide_int>>;

void add_to(Sums &sums, const Histogram &h, int sign) {
  for (const Entry &entry : h.entries()) {
    const hist_bucket_t at = bucket(entry.val, entry.exp);
    sums.try_emplace(place_of(at), at, 0).first->second.second += sign * static_cast<wide_int>(entry.count);
  }
}

Entries clamped(const Sums &sums, wide_int least, wide_int most, bool keep_zeroes) {
  Entries result;
  for (const auto &[place, sum] : sums) {
    const auto &[at, count] = sum;
    if (count == 0 && !keep_zeroes) continue;
    result.push_back({at.val, at.exp, static_cast<uint64_t>(std::clamp(count, least, most))});
  }
  return result;
}

TEST(Merge, AgreesWithAMapForRandomHistograms) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    const size_t spread = 1 + random() % 400;
    // One in fifteen is of the size where the sources' codes are united in a table.
    const size_t count = seed % 15 == 0 ? 150 : random() % 5;
    const Histogram start = random_histogram(random, random() % 50, spread);
    std::vector<Histogram> owned;
    std::vector<const histogram_t *> sources;
    Sums sums, differences;
    add_to(sums, start, 1);
    add_to(differences, start, 1);
    for (size_t i = 0; i < count; ++i) {
      owned.push_back(i > 0 && random() % 3 == 0 ? Histogram(hist_clone(owned.back().get()))
                                                 : random_histogram(random, random() % 150, spread));
      sources.push_back(owned.back().get());
      add_to(sums, owned.back(), 1);
      add_to(differences, owned.back(), -1);
    }
    const Histogram at_once(hist_clone(start.get())), singly(hist_clone(start.get()));
    ASSERT_EQ(hist_accumulate(at_once.get(), sources.data(), static_cast<int>(count)), 0);
    for (const histogram_t *source : sources) ASSERT_EQ(hist_accumulate(singly.get(), &source, 1), 0);
    const Entries expected = clamped(sums, 0, UINT64_MAX, true);
    ASSERT_EQ(at_once.entries(), expected);
    ASSERT_EQ(singly.entries(), expected);

    bool fits = true;
    for (const auto &[place, sum] : differences) fits &= INT64_MIN <= sum.second && sum.second <= INT64_MAX;
    const Histogram less(hist_clone(start.get()));
    ASSERT_EQ(hist_subtract_as_int64(less.get(), sources.data(), static_cast<int>(count)),
              fits ? 0 : HIST_E_RANGE);
    ASSERT_EQ(less.entries(), fits ? clamped(differences, INT64_MIN, INT64_MAX, false) : start.entries());
  }
}

TEST(Merge, AResultIsCountedInto) {
  const Histogram target;
  for (int i = 0; i < 30; ++i) hist_insert(target.get(), 10 + i, 1);
  const Histogram source{{10, 0, 1}, {15, 1, 1}, {99, 3, 1}};
  ASSERT_EQ(accumulate(target, {source.get()}), 0);
  ASSERT_EQ(hist_insert(target.get(), 1, 1), 0);
  ASSERT_EQ(hist_insert(target.get(), 15, 1), 0);
  ASSERT_EQ(hist_insert(target.get(), 9900, 1), 0);
  EXPECT_EQ(hist_count_at(target.get(), bucket(10, 0)), 2U);
  EXPECT_EQ(hist_count_at(target.get(), bucket(15, 1)), 3U);
  EXPECT_EQ(hist_count_at(target.get(), bucket(99, 3)), 2U);
  EXPECT_EQ(hist_count_at(target.get(), bucket(39, 1)), 1U);
}

}  // namespace
