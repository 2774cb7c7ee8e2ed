// Interval lists next to what bounds them: a put that extends the last interval next to an uncontended pair of
// atomic additions (what its lock costs at least), and a look-up in a long list next to std::upper_bound.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "liborlith/util/oil.h"

namespace {

void BM_AtomicAddPair(benchmark::State &state) {
  uint64_t word = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(__atomic_fetch_add(&word, 4, __ATOMIC_ACQUIRE));
    benchmark::DoNotOptimize(__atomic_fetch_sub(&word, 4, __ATOMIC_RELEASE));
  }
}
BENCHMARK(BM_AtomicAddPair);

void BM_PutNextPeriod(benchmark::State &state) {
  oil_list_t *oil = oil_alloc();
  uint32_t period = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(oil_put(oil, period, period));
    ++period;
  }
  oil_free(oil);
}
BENCHMARK(BM_PutNextPeriod);

void BM_PutSamePeriod(benchmark::State &state) {
  oil_list_t *oil = oil_alloc();
  for (auto _ : state) benchmark::DoNotOptimize(oil_put(oil, 5700000, 5700000));
  oil_free(oil);
}
BENCHMARK(BM_PutSamePeriod);

// Questions spread over the whole list, about half of them in gaps.
std::vector<uint32_t> questions(uint32_t interval_count) {
  std::mt19937 random(1);
  std::vector<uint32_t> result(4096);
  for (uint32_t &t : result) t = static_cast<uint32_t>(random() % (uint64_t{interval_count} * 400));
  return result;
}

void BM_UpperBound(benchmark::State &state) {
  const uint32_t count = static_cast<uint32_t>(state.range(0));
  std::vector<oil_interval_t> intervals;
  for (uint32_t i = 0; i < count; ++i) intervals.push_back({i * 400, i * 400 + 199});
  const std::vector<uint32_t> times = questions(count);
  size_t next = 0;
  for (auto _ : state) {
    const uint32_t t = times[next++ % times.size()];
    const auto after =
        std::upper_bound(intervals.begin(), intervals.end(), t,
                         [](uint32_t time, const oil_interval_t &i) { return time < i.first; });
    benchmark::DoNotOptimize(after != intervals.begin() && t <= std::prev(after)->last);
  }
}
BENCHMARK(BM_UpperBound)->Arg(2)->Arg(64)->Arg(4096)->Arg(100000);

void BM_Find(benchmark::State &state) {
  const uint32_t count = static_cast<uint32_t>(state.range(0));
  oil_list_t *oil = oil_alloc();
  for (uint32_t i = 0; i < count; ++i) oil_put(oil, i * 400 + (i == 0 ? 1 : 0), i * 400 + 199);
  const std::vector<uint32_t> times = questions(count);
  size_t next = 0;
  for (auto _ : state) benchmark::DoNotOptimize(oil_find(oil, times[next++ % times.size()], nullptr));
  oil_free(oil);
}
BENCHMARK(BM_Find)->Arg(2)->Arg(64)->Arg(4096)->Arg(100000);

}  // namespace
