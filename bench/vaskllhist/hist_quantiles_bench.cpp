// Eleven quantiles at once, next to one pass over the same buckets and counts, and to the mean.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

histogram_t *make(int64_t buckets) {
  std::mt19937_64 random(11);
  histogram_t *h = hist_alloc();
  for (int64_t i = 0; i < buckets; ++i)
    hist_insert_scaled(h, 10 + i % 90, static_cast<int>(i / 90), 1 + random() % 1000);
  return h;
}

void quantiles(benchmark::State &state) {
  histogram_t *h = make(state.range(0));
  const std::array<double, 11> q = {0, 0.01, 0.05, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99, 1};
  std::array<double, 11> values{};
  for (auto _ : state) {
    hist_quantiles(h, q.data(), static_cast<int>(q.size()), values.data());
    benchmark::DoNotOptimize(values);
  }
  hist_free(h);
}
BENCHMARK(quantiles)->ArgName("buckets")->Arg(100)->Arg(1000);

void one_pass_by_index(benchmark::State &state) {
  histogram_t *h = make(state.range(0));
  for (auto _ : state) {
    uint64_t sum = 0;
    hist_bucket_t bucket;
    uint64_t count;
    for (int i = 0; hist_bucket_at(h, i, &bucket, &count) == 0; ++i) sum += count;
    benchmark::DoNotOptimize(sum);
  }
  hist_free(h);
}
BENCHMARK(one_pass_by_index)->ArgName("buckets")->Arg(100)->Arg(1000);

// Over arrays, adding up what each bucket stands for, as a mean does.
void one_pass_over_arrays(benchmark::State &state) {
  histogram_t *h = make(state.range(0));
  std::vector<double> midpoints;
  std::vector<uint64_t> counts;
  hist_bucket_t bucket;
  uint64_t count;
  for (int i = 0; hist_bucket_at(h, i, &bucket, &count) == 0; ++i) {
    midpoints.push_back(hist_bucket_midpoint(bucket));
    counts.push_back(count);
  }
  for (auto _ : state) {
    double sum = 0;
    for (size_t i = 0; i < counts.size(); ++i) sum += midpoints[i] * static_cast<double>(counts[i]);
    benchmark::DoNotOptimize(sum);
  }
  hist_free(h);
}
BENCHMARK(one_pass_over_arrays)->ArgName("buckets")->Arg(100)->Arg(1000);

void mean(benchmark::State &state) {
  histogram_t *h = make(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(hist_approx_mean(h));
  hist_free(h);
}
BENCHMARK(mean)->ArgName("buckets")->Arg(100)->Arg(1000);

}  // namespace
