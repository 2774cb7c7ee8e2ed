// Deferred reclamation. Goal: entering and leaving a section takes at most 3 times two uncontended atomic stores.
// Neighbours: those stores, and for frees the allocator alone.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "ruxo/memory.h"

namespace {

void neighbour_two_atomic_stores(benchmark::State &state) {
  std::atomic<unsigned> value{0};
  for (auto _ : state) {
    value.store(1);
    value.store(0);
  }
}
BENCHMARK(neighbour_two_atomic_stores);

void section(benchmark::State &state) {
  for (auto _ : state) {
    ruxo_memory_begin();
    benchmark::ClobberMemory();
    ruxo_memory_end();
  }
}
BENCHMARK(section);
BENCHMARK(section)->Threads(2);

void nested_section(benchmark::State &state) {
  ruxo_memory_begin();
  for (auto _ : state) {
    ruxo_memory_begin();
    benchmark::ClobberMemory();
    ruxo_memory_end();
  }
  ruxo_memory_end();
}
BENCHMARK(nested_section);

// Beside a thread that frees all the time.
void section_beside_a_writer(benchmark::State &state) {
  std::atomic<bool> done{false};
  std::thread writer([&] {
    while (!done) ruxo_memory_safe_free(ruxo_memory_safe_malloc(32));
  });
  section(state);
  done = true;
  writer.join();
}
BENCHMARK(section_beside_a_writer);

void neighbour_malloc_free(benchmark::State &state) {
  for (auto _ : state) {
    void *block = malloc(32);
    benchmark::DoNotOptimize(block);
    free(block);
  }
}
BENCHMARK(neighbour_malloc_free);

void free_outside_sections(benchmark::State &state) {
  for (auto _ : state) ruxo_memory_safe_free(ruxo_memory_safe_malloc(32));
}
BENCHMARK(free_outside_sections);
BENCHMARK(free_outside_sections)->Threads(2);

void free_in_a_section(benchmark::State &state) {
  for (auto _ : state) {
    ruxo_memory_begin();
    ruxo_memory_safe_free(ruxo_memory_safe_malloc(32));
    ruxo_memory_end();
  }
}
BENCHMARK(free_in_a_section);

// While a section stays open, and nothing can be freed.
void free_beside_a_long_section(benchmark::State &state) {
  std::atomic<int> stage{0};
  std::thread reader([&] {
    ruxo_memory_begin();
    stage = 1;
    while (stage == 1) std::this_thread::yield();
    ruxo_memory_end();
  });
  while (stage == 0) std::this_thread::yield();
  free_outside_sections(state);
  stage = 2;
  reader.join();
}
BENCHMARK(free_beside_a_long_section)->Iterations(200000);

}  // namespace
