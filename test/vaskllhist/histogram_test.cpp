// Life of histograms, their buckets in order, and putting values in, against a map.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <thread>

#include "test/vaskllhist/histogram_support.h"

namespace {

using namespace hist_test;

TEST(Histogram, ANewOneIsEmpty) {
  for (const int bins : {-5, 0, 1, 100, HIST_MAX_BUCKETS, INT32_MAX}) {
    const Histogram h(hist_alloc_bins(bins));
    ASSERT_NE(h.get(), nullptr);
    EXPECT_EQ(hist_bucket_count(h.get()), 0);
    EXPECT_EQ(hist_sample_count(h.get()), 0U);
    EXPECT_FALSE(hist_is_difference(h.get()));
  }
  hist_free(nullptr);
}

TEST(Histogram, NullReadsAsEmpty) {
  EXPECT_EQ(hist_bucket_count(nullptr), 0);
  EXPECT_EQ(hist_bucket_at(nullptr, 0, nullptr, nullptr), HIST_E_INDEX);
  EXPECT_EQ(hist_count_at(nullptr, bucket(10, 0)), 0U);
  EXPECT_FALSE(hist_is_difference(nullptr));
  EXPECT_EQ(hist_clone(nullptr), nullptr);
  hist_clear(nullptr);
  hist_remove_zeroes(nullptr);
  EXPECT_EQ(hist_insert(nullptr, 1, 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_insert_scaled(nullptr, 1, 0, 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_insert_raw(nullptr, bucket(10, 0), 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_insert_raw_end(nullptr, bucket(10, 0), 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_remove(nullptr, 1, 1), 0U);
}

TEST(Histogram, BucketsAreInOrderOfValue) {
  const Histogram h;
  for (const double value :
       {kNan, 5.0, -5.0, 0.0, 1e-200, 1e127, -1e127, kInfinity, -kInfinity, 1e-128, -0.0, 5.05})
    EXPECT_EQ(hist_insert(h.get(), value, 1), 0);
  EXPECT_EQ(
      h.entries(),
      (Entries{{-10, 127, 1}, {-50, 0, 1}, {0, 0, 3}, {10, -128, 1}, {50, 0, 2}, {10, 127, 1}, {-1, 0, 3}}));
}

TEST(Histogram, EveryKindOfValueIsCounted) {
  const Histogram h;
  EXPECT_EQ(hist_insert(h.get(), 1.25, 2), 0);
  EXPECT_EQ(hist_insert_scaled(h.get(), 1250, -3, 3), 0);
  EXPECT_EQ(hist_insert_raw(h.get(), bucket(12, 0), 4), 0);
  EXPECT_EQ(hist_insert(h.get(), -7, 0), 0);
  EXPECT_EQ(h.entries(), (Entries{{-70, 0, 0}, {12, 0, 9}}));
  EXPECT_EQ(hist_insert_raw(h.get(), bucket(9, 0), 1), HIST_E_BUCKET);
  EXPECT_EQ(hist_insert_raw(h.get(), bucket(0, 3), 1), HIST_E_BUCKET);
  EXPECT_EQ(hist_bucket_count(h.get()), 2);
}

TEST(Histogram, BucketAtAnswersWhatItIsAskedFor) {
  const Histogram h{{10, 0, 5}, {11, 0, 6}};
  hist_bucket_t at = bucket(77, 7);
  uint64_t count = 77;
  EXPECT_EQ(hist_bucket_at(h.get(), 1, &at, nullptr), 0);
  EXPECT_EQ(at, bucket(11, 0));
  EXPECT_EQ(hist_bucket_at(h.get(), 0, nullptr, &count), 0);
  EXPECT_EQ(count, 5U);
  for (const int index : {-1, 2, INT32_MAX, INT32_MIN})
    EXPECT_EQ(hist_bucket_at(h.get(), index, &at, &count), HIST_E_INDEX);
  EXPECT_EQ(at, bucket(11, 0));
  EXPECT_EQ(count, 5U);
}

TEST(Histogram, CountAtKnowsEveryBucket) {
  const Histogram h{{-10, 0, 5}, {11, 0, 6}, {-1, 0, 7}};
  EXPECT_EQ(hist_count_at(h.get(), bucket(-10, 0)), 5U);
  EXPECT_EQ(hist_count_at(h.get(), bucket(11, 0)), 6U);
  EXPECT_EQ(hist_count_at(h.get(), bucket(-1, 0)), 7U);
  EXPECT_EQ(hist_count_at(h.get(), bucket(10, 0)), 0U);
  EXPECT_EQ(hist_count_at(h.get(), bucket(3, 0)), 0U);
}

TEST(Histogram, CountsSaturate) {
  for (const int others : {0, 20}) {  // found by searching, and by the lookup
    const Histogram h;
    for (int i = 0; i < others; ++i) hist_insert(h.get(), 20 + i, 1);
    EXPECT_EQ(hist_insert(h.get(), 1, UINT64_MAX - 1), 0);
    EXPECT_EQ(hist_insert(h.get(), 1, 1), 0);
    EXPECT_EQ(hist_count_at(h.get(), bucket(10, 0)), UINT64_MAX);
    EXPECT_EQ(hist_insert(h.get(), 1, 1), 0);
    EXPECT_EQ(hist_insert(h.get(), 1, UINT64_MAX), 0);
    EXPECT_EQ(hist_count_at(h.get(), bucket(10, 0)), UINT64_MAX);
    hist_insert(h.get(), 2, 1);
    EXPECT_EQ(hist_sample_count(h.get()), UINT64_MAX);
  }
}

TEST(Histogram, AppendingKeepsOrder) {
  const Histogram h;
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(-20, 3), 1), 0);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(-10, 3), 0), 0);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(-10, 3), 5), HIST_E_ORDER);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(-11, 3), 5), HIST_E_ORDER);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(8, 0), 5), HIST_E_BUCKET);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(0, 0), as_count(-4)), 0);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(10, -128), 2), 0);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(-1, 0), 3), 0);
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(99, 127), 3), HIST_E_ORDER);
  EXPECT_EQ(h.entries(),
            (Entries{{-20, 3, 1}, {-10, 3, 0}, {0, 0, as_count(-4)}, {10, -128, 2}, {-1, 0, 3}}));
}

TEST(Histogram, AppendedBucketsAreFoundByCounting) {
  const Histogram h;
  for (int i = 0; i < 40; ++i) hist_insert(h.get(), 10 + i, 1);  // has its lookup now
  EXPECT_EQ(hist_insert_raw_end(h.get(), bucket(50, 7), 1), 0);
  EXPECT_EQ(hist_insert(h.get(), 5e7, 1), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(50, 7)), 2U);
}

TEST(Histogram, RemovingTakesNoMoreThanThereIs) {
  const Histogram h{{10, 0, 5}, {20, 0, 1}};
  EXPECT_EQ(hist_remove(h.get(), 1.05, 3), 3U);
  EXPECT_EQ(hist_remove(h.get(), 1.05, 3), 2U);
  EXPECT_EQ(hist_remove(h.get(), 1.05, 3), 0U);
  EXPECT_EQ(hist_remove(h.get(), 1.1, 3), 0U);
  EXPECT_EQ(hist_remove(h.get(), 77, 3), 0U);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 0}, {20, 0, 1}}));
}

TEST(Histogram, ZeroBucketsStayUntilTheyAreRemoved) {
  const Histogram h{{-10, 0, 0}, {10, 0, 5}, {11, 0, 0}, {12, 0, 0}, {13, 0, 1}, {-1, 0, 0}};
  EXPECT_EQ(hist_bucket_count(h.get()), 6);
  hist_remove_zeroes(h.get());
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 5}, {13, 0, 1}}));
  hist_remove_zeroes(h.get());
  EXPECT_EQ(hist_bucket_count(h.get()), 2);
  EXPECT_EQ(hist_insert(h.get(), 1.2, 8), 0);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 5}, {12, 0, 8}, {13, 0, 1}}));
}

TEST(Histogram, CloneIsIndependent) {
  const Histogram h{{10, 0, 5}, {20, 0, 0}};
  const Histogram copy(hist_clone(h.get()));
  EXPECT_EQ(copy.entries(), h.entries());
  hist_insert(copy.get(), 1, 1);
  hist_insert(copy.get(), 3, 1);
  EXPECT_EQ(h.entries(), (Entries{{10, 0, 5}, {20, 0, 0}}));
  EXPECT_EQ(copy.entries(), (Entries{{10, 0, 6}, {20, 0, 0}, {30, 0, 1}}));
}

TEST(Histogram, ClearTakesEverythingOut) {
  const Histogram h;
  for (int i = 0; i < 50; ++i) hist_insert(h.get(), i, 1);
  hist_clear(h.get());
  EXPECT_EQ(hist_bucket_count(h.get()), 0);
  hist_insert(h.get(), 7, 1);
  EXPECT_EQ(h.entries(), (Entries{{70, 0, 1}}));
}

// Edits of every kind, in random order, on the histogram and on a map keyed by place in the order of value.
TEST(Histogram, AgreesWithAMapUnderRandomEdits) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const Histogram h;
    std::map<std::tuple<int, double>, Entry> model;
    const int spread = 1 + static_cast<int>(random() % 60);
    for (int edit = 0; edit < 600; ++edit) {
      const int64_t mantissa = static_cast<int64_t>(random() % 2000) - 1000;
      const int scale = static_cast<int>(random() % static_cast<unsigned>(spread)) - spread / 2;
      const uint64_t count = random() % 3;
      const double value =
          std::strtod((std::to_string(mantissa) + "e" + std::to_string(scale)).c_str(), nullptr);
      const hist_bucket_t at = bucket_by_text(value);
      Entry &entry = model.try_emplace(place_of(at), Entry{at.val, at.exp, 0}).first->second;
      switch (random() % 20) {
        case 0:
          entry.count -= hist_remove(h.get(), value, count);
          hist_remove_zeroes(h.get());
          std::erase_if(model, [](const auto &item) { return item.second.count == 0; });
          continue;
        case 1:
          ASSERT_EQ(hist_insert_scaled(h.get(), mantissa, scale, count), 0);
          break;
        case 2:
          ASSERT_EQ(hist_insert_raw(h.get(), at, count), 0);
          break;
        default:
          ASSERT_EQ(hist_insert(h.get(), value, count), 0);
      }
      entry.count += count;
    }
    Entries expected;
    for (const auto &[place, entry] : model) expected.push_back(entry);
    ASSERT_EQ(h.entries(), expected);
    for (const Entry &entry : expected)
      ASSERT_EQ(hist_count_at(h.get(), bucket(entry.val, entry.exp)), entry.count);
  }
}

TEST(Histogram, HoldsEveryBucketThereIs) {
  const Histogram h;
  for (int val = -99; val <= 99; ++val) {
    for (int exp = -128; exp <= 127; ++exp) {
      const int expected = hist_bucket_is_valid(bucket(val, exp)) ? 0 : HIST_E_BUCKET;
      ASSERT_EQ(hist_insert_raw(h.get(), bucket(val, exp), 1), expected);
    }
  }
  ASSERT_EQ(hist_bucket_count(h.get()), HIST_MAX_BUCKETS);
  hist_bucket_t before, at;
  for (int i = 1; i < HIST_MAX_BUCKETS; ++i) {
    hist_bucket_at(h.get(), i - 1, &before, nullptr);
    hist_bucket_at(h.get(), i, &at, nullptr);
    ASSERT_LT(hist_bucket_compare(before, at), 0);
  }
  EXPECT_EQ(hist_insert(h.get(), 9.95e127, 1), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(99, 127)), 2U);
  EXPECT_EQ(hist_insert(h.get(), kNan, 1), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(-1, 0)), 2U);
}

// Readers share a histogram that nobody changes, whatever they read.
TEST(Histogram, ManyThreadsReadOne) {
  const Histogram h;
  for (int i = 1; i <= 1000; ++i) hist_insert(h.get(), i, 1);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&h] {
      const double half = 0.5;
      double median = 0;
      char text[2048];
      for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(hist_count_at(h.get(), bucket(99, 0)), 0U);
        EXPECT_EQ(hist_sample_count(h.get()), 1000U);
        EXPECT_EQ(hist_quantiles(h.get(), &half, 1, &median), 0);
        EXPECT_GT(hist_serialize_b64(h.get(), text, sizeof(text)), 0);
        const Histogram copy(hist_clone(h.get()));
        EXPECT_EQ(accumulate(copy, {h.get()}), 0);
      }
    });
  }
  for (std::thread &reader : readers) reader.join();
}

}  // namespace
