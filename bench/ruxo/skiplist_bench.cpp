// Building and searching lists of ring points (32 bytes that compare with memcmp, in 64-byte slots).
// Neighbours: the verification alone (one compare an element), an ordered set for building, a bare binary
// search for finding.
#include <benchmark/benchmark.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

#include "ruxo/skiplist.h"

namespace {

struct Slot {
  uint8_t location[32];
  void *rest[4];
};

int compare_slots(const void *a, const void *b) {
  return memcmp(static_cast<const Slot *>(a)->location, static_cast<const Slot *>(b)->location, 32);
}

int compare_key(const void *key, const void *slot) {
  return memcmp(key, static_cast<const Slot *>(slot)->location, 32);
}

std::vector<Slot> sorted_slots(size_t count) {
  std::mt19937_64 random(1);
  std::vector<Slot> slots(count);
  for (Slot &slot : slots) {
    for (size_t i = 0; i < 32; i += 8) {
      const uint64_t bits = random();
      memcpy(slot.location + i, &bits, 8);
    }
  }
  std::sort(slots.begin(), slots.end(),
            [](const Slot &a, const Slot &b) { return compare_slots(&a, &b) < 0; });
  return slots;
}

void build_strided(benchmark::State &state) {
  std::vector<Slot> slots = sorted_slots(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    ruxo_skiplist *const list = ruxo_skiplist_alloc(compare_slots, compare_key);
    if (ruxo_skiplist_build_strided(list, slots.data(), sizeof(Slot), slots.size()) != 0) abort();
    ruxo_skiplist_destroy(list, nullptr);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(build_strided)->Arg(100000)->Arg(8000000)->Unit(benchmark::kMillisecond);

void neighbour_verify_only(benchmark::State &state) {
  const std::vector<Slot> slots = sorted_slots(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    for (size_t i = 1; i < slots.size(); ++i) {
      if (compare_slots(&slots[i - 1], &slots[i]) >= 0) abort();
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(neighbour_verify_only)->Arg(100000)->Arg(8000000)->Unit(benchmark::kMillisecond);

struct Before {
  bool operator()(const Slot *a, const Slot *b) const { return compare_slots(a, b) < 0; }
};

void neighbour_ordered_set(benchmark::State &state) {
  const std::vector<Slot> slots = sorted_slots(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::set<const Slot *, Before> set;
    for (const Slot &slot : slots) set.insert(set.end(), &slot);
    benchmark::DoNotOptimize(set.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(neighbour_ordered_set)->Arg(100000)->Unit(benchmark::kMillisecond);

void find_neighbors(benchmark::State &state) {
  std::vector<Slot> slots = sorted_slots(static_cast<size_t>(state.range(0)));
  ruxo_skiplist *const list = ruxo_skiplist_alloc(compare_slots, compare_key);
  ruxo_skiplist_build_strided(list, slots.data(), sizeof(Slot), slots.size());
  std::mt19937_64 random(2);
  ruxo_skiplist_node next;
  for (auto _ : state) {
    uint64_t key[4] = {random(), 0, 0, 0};
    benchmark::DoNotOptimize(ruxo_skiplist_find_neighbors(list, key, nullptr, nullptr, &next));
  }
  ruxo_skiplist_destroy(list, nullptr);
}
BENCHMARK(find_neighbors)->Arg(100000);

void neighbour_lower_bound_on_the_slots(benchmark::State &state) {
  const std::vector<Slot> slots = sorted_slots(static_cast<size_t>(state.range(0)));
  std::mt19937_64 random(2);
  for (auto _ : state) {
    uint64_t key[4] = {random(), 0, 0, 0};
    benchmark::DoNotOptimize(
        std::lower_bound(slots.begin(), slots.end(), key,
                         [](const Slot &a, const uint64_t *k) { return memcmp(a.location, k, 32) < 0; }));
  }
}
BENCHMARK(neighbour_lower_bound_on_the_slots)->Arg(100000);

}  // namespace
