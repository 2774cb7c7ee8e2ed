#include <algorithm>
#include <cstring>
#include <set>
#include <thread>

#include "liborlith/topo/topo_private.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

using Owners = std::vector<const host_config *>;

int size_of(const topo_config *tc) {
  return static_cast<int>(ruxo_skiplist_size(tc->ring));
}
const uint8_t *point(const topo_config *tc, int k) {
  return tc->fast_loc_ring + 32 * k;
}

// ---- The search ----

// The binary search inside the hints, step by step as the format page states it.
int stated_search(const topo_config *tc, const Location &loc, bool *ran_beyond_last) {
  const int last = size_of(tc) - 1;
  const int b = (loc[0] << 6) | (loc[1] >> 2);
  int lower = tc->fast_search_hints[b].lower;
  int upper = tc->fast_search_hints[b].upper;
  while (lower < upper) {
    const int mid = lower + (upper - lower) / 2;
    const int c = memcmp(point(tc, mid), loc.data(), 32);
    if (c == 0) return mid;
    if (c > 0) {
      upper = mid - 1;
    } else {
      lower = mid + 1;
    }
  }
  if (lower <= last) {
    if (memcmp(point(tc, lower), loc.data(), 32) >= 0) return lower;
    return lower + 1 > last ? 0 : lower + 1;
  }
  *ran_beyond_last = true;
  if (last < 1) return 0;
  return memcmp(point(tc, 0), loc.data(), 32) < 0 ? 1 : 0;
}

int linear_search(const topo_config *tc, const Location &loc) {
  for (int k = 0; k < size_of(tc); ++k) {
    if (memcmp(point(tc, k), loc.data(), 32) >= 0) return k;
  }
  return 0;
}

// Random locations, and those around every point and at the edges of the hint buckets.
std::vector<Location> probes(const topo_config *tc, std::mt19937_64 &random) {
  std::vector<Location> result;
  for (int i = 0; i < 2000; ++i) result.push_back(random_location(random));
  const int step = std::max(1, size_of(tc) / 300);
  for (int k = 0; k < size_of(tc); k += step) {
    Location location;
    memcpy(location.data(), point(tc, k), 32);
    result.push_back(location);
    Location after = location;
    for (size_t i = 32; i-- > 0 && ++after[i] == 0;) {
    }
    result.push_back(after);
    for (size_t i = 32; i-- > 0 && location[i]-- == 0;) {
    }
    result.push_back(location);
    location[31] ^= 0x55;  // the same first 64 bits
    result.push_back(location);
  }
  for (unsigned b = 0; b < 16384; b += 37) {
    Location edge{};
    edge[0] = static_cast<uint8_t>(b >> 6);
    edge[1] = static_cast<uint8_t>(b << 2);
    result.push_back(edge);
    std::fill(edge.begin() + 2, edge.end(), uint8_t{0xff});
    edge[1] |= 3;
    result.push_back(edge);
  }
  result.push_back(Location{});
  Location top;
  top.fill(0xff);
  result.push_back(top);
  return result;
}

struct Shape {
  unsigned nodes;
  unsigned weight;
  unsigned copies;
  bool sided;
};
const Shape kShapes[] = {{1, 1, 1, false},     {1, 2, 1, false},     {2, 1, 2, false},   {3, 1, 3, false},
                         {4, 1, 4, true},      {5, 3, 3, false},     {7, 5, 2, false},   {6, 20, 2, true},
                         {8, 100, 7, true},    {20, 50, 10, true},   {12, 9, 10, false}, {30, 40, 4, false},
                         {16, 1000, 3, false}, {1, 65535, 1, false}, {128, 5, 10, true}};

std::string describe(const Shape &shape) {
  return std::to_string(shape.nodes) + " nodes of weight " + std::to_string(shape.weight) + ", " +
         std::to_string(shape.copies) + " copies" + (shape.sided ? ", sided" : "");
}

TopoHandle compile_shape(const Shape &shape) {
  return compile_ok(many_nodes(shape.nodes, shape.weight, shape.copies, shape.sided));
}

// The stated search has an end for "lower beyond the last point" that would skip point 0. It cannot be
// reached: lower only grows to mid + 1 with mid < upper, so it stays at or below the last point. Everywhere
// else the search ends on the first point at or after the location. So it agrees with a linear scan without
// exception, which this test holds.
TEST(TopoRingSearch, AgreesWithTheStatedSearchAndWithALinearScan) {
  constexpr unsigned kSeed = 20260101;
  for (const Shape &shape : kShapes) {
    SCOPED_TRACE(describe(shape) + ", seed " + std::to_string(kSeed));
    std::mt19937_64 random(kSeed);
    const TopoHandle tc = compile_shape(shape);
    bool ran_beyond_last = false;
    for (const Location &loc : probes(tc.get(), random)) {
      const int found = topo_ring_search(tc.get(), loc.data());
      ASSERT_EQ(found, stated_search(tc.get(), loc, &ran_beyond_last)) << hex(loc.data());
      if (size_of(tc.get()) <= 2000) {
        ASSERT_EQ(found, linear_search(tc.get(), loc)) << hex(loc.data());
      }
    }
    EXPECT_FALSE(ran_beyond_last);
  }
}

// Rings whose points crowd together, as no hash makes them: guessing by proportion must then fall back, not
// fail.
TEST(TopoRingSearch, AgreesOnCrowdedRings) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const TopoHandle tc = compile_shape({4, 1 + static_cast<unsigned>(random() % 60), 2, false});
    const int size = size_of(tc.get());
    std::set<Location> made_up;
    while (made_up.size() < static_cast<size_t>(size)) {
      Location location = random_location(random);
      for (size_t i = 0; i < random() % 30; ++i) location[i] = static_cast<uint8_t>(random() % 2 * 0xff);
      made_up.insert(location);
    }
    int k = 0;
    for (const Location &location : made_up) {
      memcpy(tc->fast_slot_ring[k]->location, location.data(), 32);
      memcpy(tc->fast_loc_ring + 32 * k++, location.data(), 32);
    }
    for (int b = 0; b < FAST_SIZE; ++b) {  // hints by counting
      int below = 0;
      int not_beyond = 0;
      for (k = 0; k < size; ++k) {
        const int prefix = (point(tc.get(), k)[0] << 6) | (point(tc.get(), k)[1] >> 2);
        below += prefix < b;
        not_beyond += prefix <= b;
      }
      tc->fast_search_hints[b] = {std::min(below, size - 1), std::min(not_beyond, size - 1)};
    }
    bool ran_beyond_last = false;
    for (const Location &loc : probes(tc.get(), random)) {
      const int found = topo_ring_search(tc.get(), loc.data());
      ASSERT_EQ(found, stated_search(tc.get(), loc, &ran_beyond_last)) << hex(loc.data());
      ASSERT_EQ(found, linear_search(tc.get(), loc)) << hex(loc.data());
    }
    EXPECT_FALSE(ran_beyond_last);
  }
}

// ---- The walks ----

// The fast walk read directly off its description, with the stated search and nothing clever.
Owners model_walk(const topo_config *tc, const Location &hash, int w) {
  const int count = w != 0 && w < tc->w_count ? w : tc->w_count;
  const int n = std::min(count, 10);
  const int size = size_of(tc);
  Location loc = hash;
  Owners out;
  std::vector<int> found_idx;
  for (int i = 0; i < n; ++i) {
    const int side = !tc->use_side ? 0 : (loc[0] & 0x80) != 0 ? 2 : 1;
    bool ignored = false;
    int idx = i < 2 ? stated_search(tc, loc, &ignored) : (found_idx[static_cast<size_t>(i - 2)] + 1) % size;
    for (int step = 0; tc->use_side && step < size - 1 && (point(tc, idx)[0] ^ loc[0]) >= 0x80; ++step) {
      idx = (idx + 1) % size;
    }
    const host_config *candidate = tc->fast_slot_ring[idx]->node;
    while (std::find(out.begin(), out.end(), candidate) != out.end()) {
      for (int step = 0; step < size - 1; ++step) {
        idx = (idx + 1) % size;
        const host_config *other = tc->fast_slot_ring[idx]->node;
        if (other == candidate || static_cast<int>(other->ringside) != side) continue;
        candidate = other;
        break;
      }
    }
    out.push_back(candidate);
    found_idx.push_back(idx);
    loc[0] = static_cast<uint8_t>(loc[0] + 0x80);
  }
  return out;
}

Owners fast(const topo_config *tc, const Location &hash, int count) {
  host_config *loc[10];
  const int n = _topo_find_insertion_point_config(tc, hash.data(), loc, count);
  return {loc, loc + n};
}

Owners slow(const topo_config *tc, const Location &hash, int count) {
  host_config *loc[10];
  const int n = _topo_find_insertion_point_config_slow(tc, hash.data(), loc, count);
  return {loc, loc + n};
}

TEST(TopoPlacement, BothWalksFollowTheDescription) {
  for (const Shape &shape : kShapes) {
    SCOPED_TRACE(describe(shape));
    std::mt19937_64 random(42);
    const TopoHandle tc = compile_shape(shape);
    std::vector<Location> locations = probes(tc.get(), random);
    if (locations.size() > 2500) locations.resize(2500);
    for (const Location &location : locations) {
      const int count = static_cast<int>(random() % (shape.copies + 2));
      SCOPED_TRACE(hex(location.data()) + ", " + std::to_string(count) + " copies");
      const Owners expected = model_walk(tc.get(), location, count);
      ASSERT_EQ(fast(tc.get(), location, count), expected);
      ASSERT_EQ(slow(tc.get(), location, count), expected);
      ASSERT_EQ(std::set<const host_config *>(expected.begin(), expected.end()).size(), expected.size());
    }
  }
}

TEST(TopoPlacement, OneNodeOwnsEverything) {
  const TopoHandle tc = compile_ok(nodes("write_copies='1'", node(kId1, "3")));
  std::mt19937_64 random(1);
  for (int i = 0; i < 100; ++i) {
    for (const int count : {0, 1, 2, 10, 1000}) {
      const Location location = random_location(random);
      EXPECT_EQ(fast(tc.get(), location, count), Owners{tc->hc});
      EXPECT_EQ(slow(tc.get(), location, count), Owners{tc->hc});
    }
  }
}

TEST(TopoPlacement, CountIsAtMostTheCopyCount) {
  const TopoHandle three = compile_ok(many_nodes(5, 10, 3));
  const TopoHandle ten = compile_ok(many_nodes(12, 10, 10));
  const Location location{};
  for (const auto &[count, expected] : {std::pair(0, 3u), {1, 1u}, {2, 2u}, {3, 3u}, {4, 3u}, {1000, 3u}}) {
    EXPECT_EQ(fast(three.get(), location, count).size(), expected) << count;
    EXPECT_EQ(slow(three.get(), location, count).size(), expected) << count;
  }
  EXPECT_EQ(fast(ten.get(), location, 15).size(), 10u);
  EXPECT_EQ(slow(ten.get(), location, 15).size(), 10u);
}

TEST(TopoPlacement, WritesNoMoreThanItReturns) {
  const TopoHandle tc = compile_ok(many_nodes(5, 10, 3));
  host_config *loc[10];
  std::fill_n(loc, 10, reinterpret_cast<host_config *>(8));
  EXPECT_EQ(_topo_find_insertion_point_config(tc.get(), Location{}.data(), loc, 2), 2);
  EXPECT_EQ(loc[2], reinterpret_cast<host_config *>(8));
  EXPECT_EQ(_topo_find_insertion_point_config_slow(tc.get(), Location{}.data(), loc, 2), 2);
  EXPECT_EQ(loc[2], reinterpret_cast<host_config *>(8));
}

TEST(TopoPlacement, MoreThanTenCopiesAreCut) {
  const TopoHandle tc = compile_ok(many_nodes(12, 10, 10));
  topo_config twelve = *tc;  // as no document can ask for
  twelve.w_count = 12;
  EXPECT_EQ(fast(&twelve, Location{}, 0).size(), 10u);
  EXPECT_EQ(slow(&twelve, Location{}, 0).size(), 10u);
}

TEST(TopoPlacement, SidesTakeTurns) {
  const TopoHandle tc = compile_ok(many_nodes(6, 30, 2, true));
  std::mt19937_64 random(4);
  for (int i = 0; i < 2000; ++i) {
    const Location location = random_location(random);
    const Owners owners = fast(tc.get(), location, 0);
    ASSERT_EQ(owners.size(), 2u);
    EXPECT_NE(owners[0]->ringside, owners[1]->ringside);
    EXPECT_EQ(owners[0]->ringside == TOPO_RINGSIDE_A, location[0] < 0x80);
  }
}

TEST(TopoPlacement, APointOwnsItsOwnLocation) {
  for (const bool sided : {false, true}) {
    const TopoHandle tc = compile_ok(many_nodes(6, 30, 2, sided));
    for (int k = 0; k < size_of(tc.get()); ++k) {
      Location location;
      memcpy(location.data(), point(tc.get(), k), 32);
      EXPECT_EQ(fast(tc.get(), location, 1), Owners{tc->fast_slot_ring[k]->node});
      EXPECT_EQ(slow(tc.get(), location, 1), Owners{tc->fast_slot_ring[k]->node});
    }
  }
}

TEST(TopoPlacement, BeyondTheLastPointTheRingBeginsAnew) {
  const TopoHandle tc = compile_ok(many_nodes(6, 30, 2));
  Location top;
  top.fill(0xff);
  EXPECT_EQ(topo_ring_search(tc.get(), top.data()), 0);
  EXPECT_EQ(fast(tc.get(), top, 1), Owners{tc->fast_slot_ring[0]->node});
  EXPECT_EQ(slow(tc.get(), top, 1), Owners{tc->fast_slot_ring[0]->node});
}

TEST(TopoPlacement, AdjacentPointsOfOneNodeCountOnce) {
  // One node has nearly all points, so its points lie side by side almost everywhere.
  const TopoHandle tc =
      compile_ok(nodes("write_copies='3'", node(kId1, "5000") + node(kId2, "1") + node(kId3, "1")));
  std::mt19937_64 random(4);
  for (int i = 0; i < 500; ++i) {
    const Location location = random_location(random);
    const Owners owners = fast(tc.get(), location, 0);
    EXPECT_EQ(std::set<const host_config *>(owners.begin(), owners.end()).size(), 3u);
    EXPECT_EQ(owners, slow(tc.get(), location, 0));
  }
}

TEST(TopoPlacement, IsTheSameInEveryCompilation) {
  const std::string xml = many_nodes(9, 77, 3);
  const TopoHandle one = compile_ok(xml);
  const TopoHandle two = compile_ok(xml);
  for (int i = 0; i < 200; ++i) {
    const std::string key = "key " + std::to_string(i);
    host_config *a[10];
    host_config *b[10];
    ASSERT_EQ(topo_find_insertion_point_config(one.get(), key.data(), key.size(), a, 0), 3);
    ASSERT_EQ(topo_find_insertion_point_config_slow(two.get(), key.data(), key.size(), b, 0), 3);
    for (int k = 0; k < 3; ++k) EXPECT_STREQ(a[k]->id_str, b[k]->id_str);
  }
}

TEST(TopoPlacement, BytesArePlacedByTheirHash) {
  const TopoHandle tc = compile_ok(many_nodes(9, 77, 3));
  Location hash;
  topo_hash("abc", 3, hash.data());
  host_config *loc[10];
  const int n = topo_find_insertion_point_config(tc.get(), "abc", 3, loc, 0);
  EXPECT_EQ(Owners(loc, loc + n), fast(tc.get(), hash, 0));
}

TEST(TopoPlacement, ManyThreadsReadOneTopology) {
  const TopoHandle tc = compile_ok(many_nodes(9, 77, 3));
  std::array<int, 4> wrong{};
  std::vector<std::thread> threads;
  for (int &count : wrong) {
    threads.emplace_back([&] {
      std::mt19937_64 random(8);
      for (int i = 0; i < 2000; ++i) {
        const Location location = random_location(random);
        count += fast(tc.get(), location, 0) != slow(tc.get(), location, 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, (std::array<int, 4>{}));
}

// ---- Fatal stops ----

std::string fatal_line(const std::string &condition) {
  return "\\[FATAL\\] assertion \\(" + condition + "\\) at topo/topo_ring\\.cpp:[0-9]+ failed";
}

TEST(TopoPlacementDeathTest, ANegativeCountIsFatal) {
  const TopoHandle tc = compile_ok(many_nodes(3, 3, 2));
  EXPECT_DEATH(fast(tc.get(), Location{}, -1), fatal_line("return_count >= 1"));
  EXPECT_DEATH(slow(tc.get(), Location{}, -1), fatal_line("return_count >= 1"));
}

// Topologies that no document makes, by changing the copy of a compiled one.
TEST(TopoPlacementDeathTest, MoreCopiesThanNodesAreFatal) {
  for (const unsigned count : {1u, 2u, 3u}) {
    const TopoHandle tc = compile_ok(many_nodes(count, 3, count));
    topo_config greedy = *tc;
    greedy.w_count = static_cast<uint16_t>(count + 1);
    EXPECT_DEATH(fast(&greedy, Location{}, 0), fatal_line("0"));
    EXPECT_DEATH(slow(&greedy, Location{}, 0), fatal_line("loc\\[i\\]"));
  }
}

TEST(TopoPlacementDeathTest, MoreCopiesThanASideHasNodesAreFatal) {
  const TopoHandle tc = compile_ok(many_nodes(4, 3, 4, true));
  topo_config greedy = *tc;
  greedy.w_count = 5;
  EXPECT_DEATH(fast(&greedy, Location{}, 0), fatal_line("0"));
  EXPECT_DEATH(slow(&greedy, Location{}, 0), fatal_line("loc\\[i\\]"));
}

TEST(TopoPlacementDeathTest, AnEmptyListIsFatalToTheReferenceWalk) {
  const TopoHandle tc = compile_ok(many_nodes(3, 3, 2));
  topo_config empty = *tc;
  empty.ring = ruxo_skiplist_alloc(topo_locator, topo_locator_k);
  EXPECT_DEATH(slow(&empty, Location{}, 0), fatal_line("next"));
  ruxo_skiplist_destroy(empty.ring, nullptr);
}

}  // namespace
