// What entries decode to, against a reader that takes the steps one by one: it reads bucket after bucket, appends each
// to a histogram, and adds a difference with the histogram library's own addition.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "test/util/histogram_series_support.h"

namespace {

constexpr uint32_t kWhole = 0, kDifference = 2;

struct Free {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using Histogram = std::unique_ptr<histogram_t, Free>;

// A count, or nothing when it does not end before the counts do.
std::optional<uint64_t> next_count(const Bytes &data, size_t *at, size_t end) {
  if (*at >= end) return std::nullopt;
  const uint8_t first = data[(*at)++];
  uint64_t c = first >> 4;
  if (first <= 15) {
    const size_t len = (first & 7u) + 1;
    if (end - *at < len) return std::nullopt;
    for (size_t i = 0; i < len; ++i) c |= uint64_t{data[*at + i]} << (8 * i);
    *at += len;
  }
  return (first & 8) != 0 ? ~c : c;
}

// The buckets of one entry's data; null when it is none.
Histogram buckets_of(const Bytes &data) {
  if (data.size() < 2) return nullptr;
  const size_t end = data.size() - 2;
  const size_t n = data[end] + 256u * data[end + 1];
  if (3 * n > end) return nullptr;
  Histogram h(hist_alloc());
  size_t at = 2 * n;
  hist_bucket_t bucket{};
  for (size_t i = 0; i < n; ++i) {
    const auto exp = static_cast<int8_t>(data[i]);
    const int before = i > 0 && exp == bucket.exp ? bucket.val : 0;
    bucket = {static_cast<int8_t>(data[n + i] + before), exp};
    const std::optional<uint64_t> count = next_count(data, &at, end);
    if (!count || hist_insert_raw_end(h.get(), bucket, *count) < 0) return nullptr;
  }
  return at == end ? std::move(h) : nullptr;
}

struct Entry {
  uint32_t encoding;
  Bytes data;
};

std::vector<Histogram> decoded_step_by_step(const std::vector<Entry> &entries) {
  std::vector<Histogram> result;
  for (const Entry &entry : entries) {
    Histogram stored = buckets_of(entry.data);
    if (entry.encoding == kDifference && stored != nullptr) {
      Histogram sum(hist_clone(result.back().get()));
      const histogram_t *const change = stored.get();
      if (sum == nullptr || hist_add_as_int64(sum.get(), &change, 1) < 0) sum.reset();
      hist_remove_zeroes(sum.get());
      stored = std::move(sum);
    }
    result.push_back(std::move(stored));
  }
  return result;
}

void expect_decoded_as_step_by_step(const std::vector<Entry> &entries) {
  Image image;
  for (const Entry &entry : entries) image.add(1, entry.encoding, entry.data);
  const Series hs = read_image(image.bytes());
  ASSERT_NE(hs, nullptr);
  const std::vector<Histogram> expected = decoded_step_by_step(entries);
  for (uint32_t i = 0; i < hs->n_entries; ++i) {
    histogram_series_populate(hs.get(), i);
    ASSERT_EQ(hs->histograms[i] != nullptr, expected[i] != nullptr) << i;
    ASSERT_EQ(counts_of(hs->histograms[i]), counts_of(expected[i].get())) << i;
  }
}

// Buckets from a range, some or nearly all of them, with counts of any sign and width; now and then a special one.
Counts random_counts(std::mt19937_64 &random, bool is_signed) {
  Counts counts;
  const int decades = static_cast<int>(1 + random() % 8);
  const auto share = 1 + random() % 100;
  const bool has_negative = random() % 4 == 0;
  for (int exp = -3; exp < decades - 3; ++exp) {
    for (int val = 10; val < 100; ++val) {
      if (random() % 100 >= share) continue;
      const int sign = has_negative && random() % 2 == 0 ? -1 : 1;
      const auto width = random() % 8 == 0 ? random() % 64 : random() % 6;
      const auto count = static_cast<int64_t>(random() & ((uint64_t{1} << width) - 1));
      counts[{sign * val, exp}] = is_signed && random() % 3 == 0 ? -count : count;
    }
  }
  if (random() % 5 == 0) counts[{0, 0}] = 1;
  if (random() % 5 == 0) counts[{-1, 0}] = 1;
  return counts;
}

// A change of some of the buckets that are there, and sometimes of others.
Counts random_change(std::mt19937_64 &random, const Counts &prior) {
  Counts change = random() % 4 == 0 ? random_counts(random, true) : Counts();
  const auto one_in = 1 + random() % 30;
  for (const auto &[bucket, count] : prior) {
    if (random() % one_in != 0) continue;
    // Down to nothing, one further, or anything small.
    const auto kind = random() % 40;
    change[bucket] = kind == 0 ? -count : kind == 1 ? -count - 1 : static_cast<int64_t>(random() % 40) - 4;
  }
  return change;
}

std::vector<Entry> random_entries(std::mt19937_64 &random) {
  std::vector<Entry> entries;
  Counts counts;
  for (auto n = 1 + random() % 6; n > 0; --n) {
    const bool whole = entries.empty() || random() % 6 == 0;
    if (whole) {
      counts = random_counts(random, false);
      entries.push_back({kWhole, entry_data(counts)});
    } else {
      const Counts change = random_change(random, counts);
      for (const auto &[bucket, count] : change) {
        int64_t &sum = counts[bucket];
        sum = static_cast<int64_t>(static_cast<uint64_t>(sum) + static_cast<uint64_t>(count));
      }
      std::erase_if(counts, [](const auto &entry) { return entry.second == 0; });
      entries.push_back({kDifference, entry_data(change)});
    }
  }
  return entries;
}

}  // namespace

TEST(HistogramSeriesDecode, AnyEntriesAreDecodedAsStepByStep) {
  const unsigned seed = 20261121;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    SCOPED_TRACE(round);
    ASSERT_NO_FATAL_FAILURE(expect_decoded_as_step_by_step(random_entries(random)));
  }
}

TEST(HistogramSeriesDecode, DamagedEntriesAreDecodedAsStepByStep) {
  const unsigned seed = 20261122;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    SCOPED_TRACE(round);
    std::vector<Entry> entries = random_entries(random);
    for (auto n = 1 + random() % 2; n > 0; --n) {
      Bytes &data = entries[random() % entries.size()].data;
      const auto kind = random() % 8;
      if (kind == 0 && !data.empty())
        data.erase(data.begin() + static_cast<std::ptrdiff_t>(random() % data.size()));
      if (kind == 1) data.insert(data.begin(), static_cast<uint8_t>(random()));
      if (kind > 1 && !data.empty()) {
        uint8_t &byte = data[random() % data.size()];
        byte = static_cast<uint8_t>(kind < 6 ? byte + random() % 5 - 2 : random());
      }
    }
    ASSERT_NO_FATAL_FAILURE(expect_decoded_as_step_by_step(entries));
  }
}

TEST(HistogramSeriesDecode, AMantissaThatWrapsAroundIsTheOneItLeadsTo) {
  // (50, 0), and 205 further modulo 256: the bucket of what is no number.
  const Entry first = {kWhole, entry_data({{{50, 0}, 1}, {{-1, 0}, 1}})};
  const Entry second = {kDifference, {0, 0, 50, 205, 0x20, 0x30, 2, 0}};
  ASSERT_NO_FATAL_FAILURE(expect_decoded_as_step_by_step({first, second}));
  // 150 further leads to (-56, 0), before it.
  const Entry damaged = {kDifference, {0, 0, 50, 150, 0x20, 0x30, 2, 0}};
  ASSERT_NO_FATAL_FAILURE(expect_decoded_as_step_by_step({first, damaged}));
}

TEST(HistogramSeriesDecode, ZeroBucketsOfAWholeHistogramEndWithTheNextDifference) {
  const Counts with_zero = {{{10, 0}, 1}, {{20, 0}, 0}, {{30, 0}, 2}};
  for (const Bucket changed : {Bucket{10, 0}, Bucket{20, 0}}) {
    ASSERT_NO_FATAL_FAILURE(expect_decoded_as_step_by_step(
        {{kWhole, entry_data(with_zero)}, {kDifference, entry_data({{changed, 4}})}}));
  }
}
