// Adding 1000 histograms of 100 buckets to one, next to one pass over as much memory as they take.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

constexpr size_t kSources = 1000;
constexpr size_t kBuckets = 100;

struct Free {
  void operator()(histogram_t *h) const { hist_free(h); }
};
using Owned = std::unique_ptr<histogram_t, Free>;

// 100 buckets each, chosen among as many as `of`.
std::vector<Owned> make_sources(size_t of) {
  std::mt19937_64 random(1000);
  std::vector<Owned> sources;
  for (size_t i = 0; i < kSources; ++i) {
    Owned source(hist_alloc());
    while (static_cast<size_t>(hist_bucket_count(source.get())) < kBuckets) {
      const size_t bucket = random() % of;
      hist_insert_scaled(source.get(), static_cast<int64_t>(10 + bucket % 90), static_cast<int>(bucket / 90),
                         random() % 1000);
    }
    sources.push_back(std::move(source));
  }
  return sources;
}

void per_bucket(benchmark::State &state) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSources * kBuckets));
}

void accumulate(benchmark::State &state) {
  const std::vector<Owned> owned = make_sources(static_cast<size_t>(state.range(0)));
  std::vector<const histogram_t *> sources;
  for (const Owned &source : owned) sources.push_back(source.get());
  for (auto _ : state) {
    const Owned sum(hist_alloc());
    hist_accumulate(sum.get(), sources.data(), static_cast<int>(sources.size()));
    benchmark::DoNotOptimize(sum.get());
  }
  per_bucket(state);
}
BENCHMARK(accumulate)->ArgName("buckets_to_choose_from")->Arg(100)->Arg(150)->Arg(1000);

// The same one by one, as they arrive.
void accumulate_singly(benchmark::State &state) {
  const std::vector<Owned> owned = make_sources(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    const Owned sum(hist_alloc());
    for (const Owned &source : owned) {
      const histogram_t *const one = source.get();
      hist_accumulate(sum.get(), &one, 1);
    }
    benchmark::DoNotOptimize(sum.get());
  }
  per_bucket(state);
}
BENCHMARK(accumulate_singly)->ArgName("buckets_to_choose_from")->Arg(100)->Arg(150)->Arg(1000);

// A code and a count a bucket.
void linear_pass(benchmark::State &state) {
  std::vector<std::vector<uint16_t>> codes(kSources, std::vector<uint16_t>(kBuckets, 1));
  std::vector<std::vector<uint64_t>> counts(kSources, std::vector<uint64_t>(kBuckets, 1));
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const auto &some : codes) sum = std::accumulate(some.begin(), some.end(), sum);
    for (const auto &some : counts) sum = std::accumulate(some.begin(), some.end(), sum);
    benchmark::DoNotOptimize(sum);
  }
  per_bucket(state);
}
BENCHMARK(linear_pass);

}  // namespace
