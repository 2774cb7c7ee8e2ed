// Placing a location, 2 copies, on a ring of 128,000 points (128 nodes of weight 1000), next to two other
// ways:
//   rendezvous   score all 128 nodes by one 64-bit mix each, keep the two highest
//   lower_bound  std::lower_bound over the sorted 32-byte points, once per copy, and the same walk
// The locations are random and many, so that their bucket is not in the cache by accident.
// Goals: place / rendezvous at most 0.25, place / lower_bound at most 0.20.
#include <benchmark/benchmark.h>
#include <libxml/tree.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "liborlith/topo/topo.h"

namespace {

constexpr unsigned kNodes = 128;
constexpr unsigned kWeight = 1000;
constexpr size_t kLocations = 1 << 16;

using Location = std::array<uint8_t, 32>;

const topo_config *topology() {
  static const topo_config *const tc = [] {
    std::string xml = "<nodes write_copies=\"2\">";
    for (unsigned n = 0; n < kNodes; ++n) {
      char id[37];
      snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", n, n * 7919);
      xml += "<node id=\"" + std::string(id) + "\" weight=\"" + std::to_string(kWeight) +
             "\" address=\"127.0.0.1\" port=\"8112\" apiport=\"8113\"/>";
    }
    xml += "</nodes>";
    xmlDoc *doc = topo_parse_document(xml.data(), xml.size(), nullptr);
    const topo_config *compiled = topo_compile(doc, nullptr, nullptr);
    xmlFreeDoc(doc);
    return compiled;
  }();
  return tc;
}

const std::vector<Location> &locations() {
  static const std::vector<Location> result = [] {
    std::mt19937_64 random(1);
    std::vector<Location> made(kLocations);
    for (Location &location : made) {
      for (uint8_t &byte : location) byte = static_cast<uint8_t>(random());
    }
    return made;
  }();
  return result;
}

void BM_Place(benchmark::State &state) {
  const topo_config *tc = topology();
  const std::vector<Location> &all = locations();
  size_t next = 0;
  for (auto _ : state) {
    host_config *owners[10];
    benchmark::DoNotOptimize(
        _topo_find_insertion_point_config(tc, all[next++ % kLocations].data(), owners, 2));
    benchmark::DoNotOptimize(owners);
  }
}
BENCHMARK(BM_Place);

uint64_t mix(uint64_t x) {
  x ^= x >> 32;
  x *= 0xd6e8feb86659fd93;
  return x ^ (x >> 32);
}

void BM_Rendezvous(benchmark::State &state) {
  const topo_config *tc = topology();
  uint64_t seeds[kNodes];
  for (unsigned n = 0; n < kNodes; ++n) memcpy(&seeds[n], tc->hc[n].id, sizeof seeds[n]);
  for (uint64_t &seed : seeds) seed = mix(seed * 0x9e3779b97f4a7c15);
  const std::vector<Location> &all = locations();
  size_t next = 0;
  for (auto _ : state) {
    uint64_t key;
    memcpy(&key, all[next++ % kLocations].data(), sizeof key);
    uint64_t best[2] = {0, 0};
    unsigned owners[2] = {0, 0};
    for (unsigned n = 0; n < kNodes; ++n) {
      const uint64_t score = mix(key ^ seeds[n]);
      if (score <= best[1]) continue;
      const bool is_first = score > best[0];
      best[1] = is_first ? best[0] : score;
      owners[1] = is_first ? owners[0] : n;
      if (is_first) best[0] = score;
      if (is_first) owners[0] = n;
    }
    host_config *found[2] = {&tc->hc[owners[0]], &tc->hc[owners[1]]};
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_Rendezvous);

void BM_LowerBound(benchmark::State &state) {
  const topo_config *tc = topology();
  const size_t size = size_t{kNodes} * kWeight;
  std::vector<Location> points(size);
  memcpy(points.data(), tc->fast_loc_ring, size * sizeof(Location));
  const std::vector<Location> &all = locations();
  size_t next = 0;
  for (auto _ : state) {
    Location location = all[next++ % kLocations];
    host_config *owners[2] = {nullptr, nullptr};
    for (int i = 0; i < 2; ++i) {
      const auto found = std::lower_bound(
          points.begin(), points.end(), location,
          [](const auto &a, const auto &b) { return memcmp(a.data(), b.data(), sizeof a) < 0; });
      size_t index = static_cast<size_t>(found - points.begin()) % size;
      while (tc->fast_slot_ring[index]->node == owners[0]) index = (index + 1) % size;
      owners[i] = tc->fast_slot_ring[index]->node;
      location[0] ^= 0x80;
    }
    benchmark::DoNotOptimize(owners);
  }
}
BENCHMARK(BM_LowerBound);

void BM_ReferenceWalk(benchmark::State &state) {
  const topo_config *tc = topology();
  const std::vector<Location> &all = locations();
  size_t next = 0;
  for (auto _ : state) {
    host_config *owners[10];
    benchmark::DoNotOptimize(
        _topo_find_insertion_point_config_slow(tc, all[next++ % kLocations].data(), owners, 2));
  }
}
BENCHMARK(BM_ReferenceWalk);

}  // namespace
