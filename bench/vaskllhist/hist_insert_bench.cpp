// Counting a value in a histogram of 100 buckets, next to finding its bucket only, and to counting buckets that are
// known already in maps. The values lie in random order, so that no branch and no place can be guessed.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

constexpr size_t kValues = 1 << 16;

// From 1 to 20: 90 buckets of one decade and 10 of the next.
const std::vector<double> &values() {
  static const std::vector<double> all = [] {
    std::mt19937_64 random(100);
    std::vector<double> made(kValues);
    for (double &value : made) {
      const auto bucket = static_cast<double>(random() % 100);
      const double inside = std::uniform_real_distribution<double>(0.01, 0.99)(random);
      value = bucket < 90 ? 1 + 0.1 * (bucket + inside) : 10 + (bucket - 90 + inside);
    }
    return made;
  }();
  return all;
}

int key_of(double value) {
  const hist_bucket_t bucket = hist_bucket_of(value);
  return bucket.exp * 256 + bucket.val;
}

const std::vector<int> &keys() {
  static const std::vector<int> all = [] {
    std::vector<int> made;
    for (const double value : values()) made.push_back(key_of(value));
    return made;
  }();
  return all;
}

void per_value(benchmark::State &state) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kValues));
}

void insert(benchmark::State &state) {
  histogram_t *h = hist_alloc();
  for (auto _ : state)
    for (const double value : values()) hist_insert(h, value, 1);
  if (hist_bucket_count(h) != 100) state.SkipWithError("not 100 buckets");
  hist_free(h);
  per_value(state);
}
BENCHMARK(insert);

// Thousandths, whose digits are counted: no double is made of them.
void insert_scaled(benchmark::State &state) {
  std::vector<int64_t> thousandths;
  for (const double value : values()) thousandths.push_back(static_cast<int64_t>(value * 1000));
  histogram_t *h = hist_alloc();
  for (auto _ : state)
    for (const int64_t value : thousandths) hist_insert_scaled(h, value, -3, 1);
  hist_free(h);
  per_value(state);
}
BENCHMARK(insert_scaled);

void bucket_of_value(benchmark::State &state) {
  for (auto _ : state)
    for (const double value : values()) benchmark::DoNotOptimize(hist_bucket_of(value));
  per_value(state);
}
BENCHMARK(bucket_of_value);

template <typename Map>
void count_known_buckets(benchmark::State &state) {
  Map counts;
  for (auto _ : state)
    for (const int key : keys()) ++counts[key];
  if (counts.size() != 100) state.SkipWithError("not 100 buckets");
  per_value(state);
}
BENCHMARK(count_known_buckets<std::map<int, uint64_t>>);
BENCHMARK(count_known_buckets<std::unordered_map<int, uint64_t>>);

template <typename Map>
void count_values(benchmark::State &state) {
  Map counts;
  for (auto _ : state)
    for (const double value : values()) ++counts[key_of(value)];
  per_value(state);
}
BENCHMARK(count_values<std::map<int, uint64_t>>);
BENCHMARK(count_values<std::unordered_map<int, uint64_t>>);

}  // namespace
