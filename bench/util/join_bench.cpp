// Joins. Goal: adding a hold and releasing it takes at most 1.5 times two atomic additions.
#include "liborlith/util/join.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

// Shared with the other threads, as the join below is.
std::atomic<uint32_t> count{1};

void neighbour_two_atomic_additions(benchmark::State &state) {
  for (auto _ : state) {
    count.fetch_add(1);
    count.fetch_sub(1);
  }
}
BENCHMARK(neighbour_two_atomic_additions);
BENCHMARK(neighbour_two_atomic_additions)->Threads(2);

void hold_and_release(benchmark::State &state) {
  static liborlith_join_t *const join = liborlith_join_create(nullptr, nullptr, nullptr);
  for (auto _ : state) {
    liborlith_join_wait_more(join, 1);
    benchmark::DoNotOptimize(liborlith_join_one(join));
  }
}
BENCHMARK(hold_and_release);
BENCHMARK(hold_and_release)->Threads(2);

void neighbour_malloc_free(benchmark::State &state) {
  for (auto _ : state) {
    void *block = calloc(1, sizeof(liborlith_join_t));
    benchmark::DoNotOptimize(block);
    free(block);
  }
}
BENCHMARK(neighbour_malloc_free);

void create_and_commit(benchmark::State &state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(liborlith_join_commit(liborlith_join_create(nullptr, nullptr, nullptr)));
}
BENCHMARK(create_and_commit);

}  // namespace
