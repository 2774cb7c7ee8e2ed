#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

struct Free {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using Histogram = std::unique_ptr<histogram_t, Free>;

Histogram of_columns(const std::vector<hist_code_t> &codes, const std::vector<uint64_t> &counts) {
  return Histogram(hist_of_columns(codes.data(), counts.data(), static_cast<int>(codes.size())));
}

// Every bucket there is, in order.
std::vector<hist_bucket_t> all_buckets() {
  std::vector<hist_bucket_t> result;
  for (int exp = 127; exp >= -128; --exp)
    for (int val = -99; val <= -10; ++val)
      result.push_back({static_cast<int8_t>(val), static_cast<int8_t>(exp)});
  result.push_back({0, 0});
  for (int exp = -128; exp <= 127; ++exp)
    for (int val = 10; val <= 99; ++val)
      result.push_back({static_cast<int8_t>(val), static_cast<int8_t>(exp)});
  result.push_back({-1, 0});
  return result;
}

}  // namespace

TEST(HistColumns, EveryBucketHasACodeOfItsOwnInOrder) {
  int before = -1;
  for (const hist_bucket_t bucket : all_buckets()) {
    const hist_code_t code = hist_code_of_bucket(bucket);
    ASSERT_GT(code, before);
    before = code;
    const hist_bucket_t back = hist_bucket_of_code(code);
    ASSERT_EQ(back.val, bucket.val);
    ASSERT_EQ(back.exp, bucket.exp);
  }
}

TEST(HistColumns, EveryNumberThatIsNoCodeIsRefused) {
  std::vector<bool> is_code(65536);
  for (const hist_bucket_t bucket : all_buckets()) is_code[hist_code_of_bucket(bucket)] = true;
  for (unsigned code = 0; code < 65536; ++code)
    ASSERT_EQ(of_columns({static_cast<hist_code_t>(code)}, {1}) != nullptr, is_code[code]) << code;
}

TEST(HistColumns, ShowTheBucketsAndMakeTheSameHistogram) {
  std::mt19937_64 random(20260407);
  const Histogram h(hist_alloc());
  for (uint64_t i = 0; i < 2000; ++i)
    hist_insert_scaled(h.get(), static_cast<int64_t>(random()) >> (random() % 64), -5, i);
  const int n = hist_bucket_count(h.get());
  ASSERT_GT(n, 100);
  const Histogram same(hist_of_columns(hist_codes(h.get()), hist_counts(h.get()), n));
  ASSERT_EQ(hist_bucket_count(same.get()), n);
  for (int i = 0; i < n; ++i) {
    hist_bucket_t bucket;
    uint64_t count;
    hist_bucket_at(same.get(), i, &bucket, &count);
    ASSERT_EQ(hist_codes(h.get())[i], hist_code_of_bucket(bucket));
    ASSERT_EQ(hist_counts(h.get())[i], count);
    ASSERT_EQ(hist_count_at(h.get(), bucket), count);
  }
}

TEST(HistColumns, CodesThatDoNotAscendAreRefused) {
  const hist_code_t one = hist_code_of_bucket({10, 0});
  const hist_code_t two = hist_code_of_bucket({20, 0});
  EXPECT_NE(of_columns({one, two}, {1, 1}), nullptr);
  EXPECT_EQ(of_columns({two, one}, {1, 1}), nullptr);
  EXPECT_EQ(of_columns({one, one}, {1, 1}), nullptr);
}

TEST(HistColumns, NothingMakesAnEmptyHistogram) {
  const Histogram h(hist_of_columns(nullptr, nullptr, 0));
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(hist_bucket_count(h.get()), 0);
  EXPECT_EQ(hist_of_columns(nullptr, nullptr, 1), nullptr);
  EXPECT_EQ(hist_of_columns(nullptr, nullptr, -1), nullptr);
  EXPECT_EQ(hist_codes(nullptr), nullptr);
  EXPECT_EQ(hist_counts(nullptr), nullptr);
  EXPECT_EQ(hist_mutable_counts(nullptr), nullptr);
}

TEST(HistColumns, CountsAreChangedInPlace) {
  const Histogram h(hist_alloc());
  for (int i = 0; i < 30; ++i) hist_insert_scaled(h.get(), 10 + i, 0, 1);
  hist_mutable_counts(h.get())[5] = UINT64_MAX - 1;
  hist_mutable_counts(h.get())[6] = 0;
  EXPECT_EQ(hist_count_at(h.get(), {15, 1}), UINT64_MAX - 1);
  EXPECT_EQ(hist_bucket_count(h.get()), 30);
  // The table that counting goes through is still right.
  hist_insert_scaled(h.get(), 16, 0, 3);
  EXPECT_EQ(hist_counts(h.get())[6], 3U);
}

TEST(HistColumns, ZeroesAreFoundWhereverTheyAre) {
  const uint64_t others[] = {1, INT64_MAX, uint64_t{1} << 63, UINT64_MAX, uint64_t{1} << 32};
  for (int n = 1; n < 40; ++n) {
    for (int zero = 0; zero <= n; ++zero) {
      const Histogram h(hist_alloc());
      for (int i = 0; i < n; ++i) hist_insert_scaled(h.get(), 10 + i, 0, i == zero ? 0 : others[i % 5]);
      hist_remove_zeroes(h.get());
      ASSERT_EQ(hist_bucket_count(h.get()), zero < n ? n - 1 : n) << zero;
      for (int i = 0; i < n; ++i)
        ASSERT_EQ(hist_count_at(h.get(), {static_cast<int8_t>(10 + i), 1}), i == zero ? 0 : others[i % 5]);
    }
  }
}
