// Every way of working on columns against loops of a line each, and the ways of writing an entry against each other.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "liborlith/util/histogram_series_columns_private.h"
#include "test/util/histogram_series_support.h"

namespace {

struct Buckets {
  std::vector<hist_code_t> codes;
  std::vector<uint64_t> counts;

  explicit Buckets(const Counts &buckets) {
    for (const auto &[bucket, count] : buckets) {
      codes.push_back(
          hist_code_of_bucket({static_cast<int8_t>(bucket.val), static_cast<int8_t>(bucket.exp)}));
      counts.push_back(static_cast<uint64_t>(count));
    }
  }
  hss::Columns columns() const { return {codes.data(), counts.data(), codes.size()}; }
};

int64_t random_count(std::mt19937_64 &random) {
  switch (random() % 6) {
    case 0:
      return static_cast<int64_t>(random());
    case 1:
      return static_cast<int64_t>(random() >> (random() % 64));
    case 2:
      return -static_cast<int64_t>(random() >> (1 + random() % 63));
    default:
      return static_cast<int64_t>(random() % 20) - 2;
  }
}

Counts random_buckets(std::mt19937_64 &random, size_t n) {
  Counts counts;
  const auto decades = 1 + random() % 20;
  while (counts.size() < n) {
    const int sign = random() % 8 == 0 ? -1 : 1;
    Bucket bucket = {sign * static_cast<int>(10 + random() % 90),
                     static_cast<int>(random() % decades) * 12 - 128};
    if (random() % 50 == 0) bucket = {0, 0};
    if (random() % 50 == 0) bucket = {-1, 0};
    counts[bucket] = random_count(random);
  }
  return counts;
}

class HistogramSeriesColumns : public testing::TestWithParam<hss::Instructions> {
 protected:
  void SetUp() override {
    code = hss::column_code(GetParam());
    if (code == nullptr) GTEST_SKIP() << "this processor has none";
  }

  const hss::ColumnCode *code = nullptr;
};

std::string name_of(const testing::TestParamInfo<hss::Instructions> &info) {
  return std::array{"plain", "avx2", "avx512"}.at(static_cast<size_t>(info.param));
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(With, HistogramSeriesColumns,
                         testing::Values(hss::Instructions::plain, hss::Instructions::avx2,
                                         hss::Instructions::avx512),
                         name_of);

TEST_P(HistogramSeriesColumns, WritesTheBytesOfTheRule) {
  std::mt19937_64 random(20261123);
  for (size_t round = 0; round < 3000; ++round) {
    const Counts counts = random_buckets(random, round % 150);
    const Buckets model(counts);
    Bytes expected = entry_data(counts);
    expected.resize(expected.size() - 2);  // without the bucket count
    // A block of exactly the room that is asked for, so that the address sanitizer sees a write behind it.
    const size_t room = hss::writing_room(counts.size());
    const std::unique_ptr<uint8_t[]> out(new uint8_t[room]);
    const uint8_t *end = code->write(out.get(), model.columns());
    ASSERT_EQ(Bytes(out.get(), const_cast<uint8_t *>(end)), expected) << round;
  }
}

TEST_P(HistogramSeriesColumns, WritesCountsOfEveryWidth) {
  for (int width = 0; width < 64; ++width) {
    for (const int64_t offset : {-1, 0, 1}) {
      const auto count = static_cast<int64_t>((uint64_t{1} << width) + static_cast<uint64_t>(offset));
      const Counts counts = {{{10, 0}, 1}, {{11, 0}, count}, {{12, 0}, ~count}, {{13, 0}, 2}};
      Bytes out(hss::writing_room(4));
      out.resize(static_cast<size_t>(code->write(out.data(), Buckets(counts).columns()) - out.data()));
      append_number(out, 4, 2);
      ASSERT_EQ(out, entry_data(counts)) << count;
    }
  }
}

TEST_P(HistogramSeriesColumns, WritesEveryBucket) {
  Counts counts = {{{0, 0}, 1}, {{-1, 0}, 1}};
  for (int exp = -128; exp <= 127; ++exp)
    for (int val = 10; val <= 99; ++val) counts[{val, exp}] = counts[{-val, exp}] = 1;
  Bytes out(hss::writing_room(counts.size()));
  out.resize(static_cast<size_t>(code->write(out.data(), Buckets(counts).columns()) - out.data()));
  append_number(out, counts.size(), 2);
  EXPECT_EQ(out, entry_data(counts));
}

TEST_P(HistogramSeriesColumns, SubtractsAsNumbersDo) {
  std::mt19937_64 random(20261124);
  size_t overflown = 0;
  for (size_t round = 0; round < 3000; ++round) {
    const Buckets now(random_buckets(random, round % 150));
    std::vector<uint64_t> before = now.counts;
    const auto one_in = 1 + random() % 20;
    for (uint64_t &count : before)
      if (random() % one_in == 0) count = round % 2 == 0 ? count - random() % 100 : random();
    std::vector<hist_code_t> codes;
    std::vector<uint64_t> counts;
    bool fits = true;
    for (size_t i = 0; i < before.size(); ++i) {
      __extension__ const __int128 change = static_cast<__int128>(now.counts[i]) - before[i];
      fits &= change >= INT64_MIN && change <= INT64_MAX;
      if (change == 0) continue;
      codes.push_back(now.codes[i]);
      counts.push_back(static_cast<uint64_t>(change));
    }
    const size_t room = before.size() + hss::kColumnPadding;
    const std::unique_ptr<hist_code_t[]> out_codes(new hist_code_t[room]);
    const std::unique_ptr<uint64_t[]> out_counts(new uint64_t[room]);
    bool overflows = fits;
    const size_t n =
        code->subtract(now.columns(), before.data(), out_codes.get(), out_counts.get(), &overflows);
    ASSERT_EQ(overflows, !fits);
    ASSERT_EQ(std::vector<hist_code_t>(out_codes.get(), out_codes.get() + n), codes);
    ASSERT_EQ(std::vector<uint64_t>(out_counts.get(), out_counts.get() + n), counts);
    overflown += overflows;
  }
  EXPECT_GT(overflown, 100U);
  EXPECT_LT(overflown, 2900U);
}

// With no room to spare entries are written count by count, on every processor.
TEST(HistogramSeriesColumnCode, AnExactBufferGetsTheSameImage) {
  std::mt19937_64 random(20261125);
  for (size_t round = 0; round < 500; ++round) {
    Counts counts = random_buckets(random, 30 + round % 60);
    std::erase_if(counts,
                  [](const auto &entry) { return entry.second == 0; });  // the first entry would lose them
    Model model;
    for (uint32_t i = 0; i < 1 + round % 3; ++i) model[i] = counts;
    const Bytes expected = model_image(model);
    const Series hs = series_of(model);
    Bytes out(expected.size());
    size_t size = 0;
    ASSERT_TRUE(histogram_series_serialize(hs.get(), out.data(), out.size(), &size));
    if (size > out.size()) {
      ASSERT_EQ(out, expected) << "the image as it was built";
    } else {
      out.resize(size);
      ASSERT_EQ(decompressed(out), expected);
    }
  }
}

TEST_P(HistogramSeriesColumns, MakeTheImageOfTheRule) {
  std::mt19937_64 random(20261126);
  hss::limit_instructions(GetParam());
  for (size_t round = 0; round < 100; ++round) {
    Counts counts = random_buckets(random, round);
    std::erase_if(counts, [](const auto &entry) { return entry.second <= 0; });
    Model model;
    for (uint32_t i = 0; i < 4; ++i) {
      for (auto &[bucket, count] : counts)
        if (random() % 4 == 0) count = static_cast<int64_t>(1 + random() % 1000);
      model[i] = counts;
    }
    const Series hs = series_of(model);
    Bytes out(histogram_series_serialize_maxsize(hs.get()));
    size_t size = 0;
    ASSERT_TRUE(histogram_series_serialize(hs.get(), out.data(), out.size(), &size));
    out.resize(size);
    EXPECT_EQ(decompressed(out), model_image(model)) << round;
  }
  hss::limit_instructions(hss::Instructions::avx512);
}
