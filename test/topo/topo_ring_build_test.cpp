#include <cmath>
#include <cstring>
#include <map>

#include "liborlith/topo/topo_private.h"
#include "test/support/log_capture.h"
#include "test/topo/topo_test_support.h"

namespace {
bool list_loses_a_point = false;
}

extern "C" {
size_t __real_ruxo_skiplist_size(const ruxo_skiplist *sl);
size_t __wrap_ruxo_skiplist_size(const ruxo_skiplist *sl);
size_t __wrap_ruxo_skiplist_size(const ruxo_skiplist *sl) {
  return __real_ruxo_skiplist_size(sl) - (list_loses_a_point ? 1 : 0);
}
}

namespace {

using namespace topo_test;

struct Point {
  std::string id;
  uint16_t idx;
  bool operator==(const Point &) const = default;
};
using Model = std::map<Location, Point>;

// The ring by its definition: every point's hash, moved to its side, in a map.
Model model_ring(const topo_config *tc) {
  Model model;
  for (int n = 0; n < tc->host_count; ++n) {
    const host_config &host = tc->hc[n];
    for (unsigned i = 0; i < host.weight; ++i) {
      std::string message = host.id_str;
      message += static_cast<char>(i / 256);
      message += static_cast<char>(i % 256);
      Location location;
      topo_hash(message.data(), 38, location.data());
      if (host.ringside == TOPO_RINGSIDE_A) location[0] = static_cast<uint8_t>(location[0] % 128);
      if (host.ringside == TOPO_RINGSIDE_B) location[0] = static_cast<uint8_t>(location[0] % 128 + 128);
      model.emplace(location, Point{host.id_str, static_cast<uint16_t>(i)});
    }
  }
  return model;
}

int prefix_of(const uint8_t *location) {
  return (location[0] << 6) | (location[1] >> 2);
}

// The hints by the one-pass rule with its two cursors.
std::vector<fast_search_hints_t> model_hints(const uint8_t *locations, int size) {
  std::vector<fast_search_hints_t> hints(FAST_SIZE);
  const int last = size - 1;
  int lo = 0;
  int j = 0;
  for (int b = 0; b < FAST_SIZE; ++b) {
    hints[static_cast<size_t>(b)] = {lo, lo};
    fast_search_hints_t &hint = hints[static_cast<size_t>(b)];
    int next_j = j;
    int new_lo = lo;
    while (j < size) {
      hint.upper = j;
      if (prefix_of(locations + 32 * std::min(j, last)) <= b) {
        new_lo = j;
        next_j = ++j;
      } else {
        new_lo = j;
        next_j = j;
        break;
      }
    }
    j = next_j;
    lo = new_lo;
    if (lo >= size) hint.lower = last;
    if (lo >= size) hint.upper = last;
  }
  return hints;
}

void expect_ring_like_model(const topo_config *tc) {
  const Model model = model_ring(tc);
  ASSERT_EQ(ruxo_skiplist_size(tc->ring), model.size());
  ruxo_skiplist_node node = ruxo_skiplist_first(tc->ring);
  size_t k = 0;
  for (const auto &[location, point] : model) {
    const auto *slot = static_cast<const host_config_slot *>(ruxo_skiplist_data(node));
    ASSERT_EQ(hex(slot->location), hex(location.data())) << k;
    ASSERT_EQ(memcmp(tc->fast_loc_ring + 32 * k, location.data(), 32), 0) << k;
    ASSERT_EQ(tc->fast_slot_ring[k], slot) << k;
    ASSERT_EQ((Point{slot->node->id_str, slot->idx}), point) << k;
    ASSERT_EQ(slot->node->topo, tc);
    node = ruxo_skiplist_next(tc->ring, node);
    ++k;
  }
  EXPECT_EQ(node, nullptr);
  const std::vector<fast_search_hints_t> hints =
      model_hints(tc->fast_loc_ring, static_cast<int>(model.size()));
  ASSERT_EQ(memcmp(hints.data(), tc->fast_search_hints, sizeof(fast_search_hints_t) * FAST_SIZE), 0);
}

TEST(TopoRingBuild, IsTheSortedSetOfAllPoints) {
  const std::pair<unsigned, unsigned> shapes[] = {{1, 1},    {1, 2},   {2, 1},     {3, 7},     {16, 13},
                                                  {128, 64}, {4, 500}, {10, 1000}, {2, 20000}, {1, 65535}};
  for (const auto &[count, weight] : shapes) {
    for (const bool sided : {false, true}) {
      if (sided && count < 2) continue;
      SCOPED_TRACE(std::to_string(count) + " nodes of weight " + std::to_string(weight) +
                   (sided ? ", sided" : ""));
      expect_ring_like_model(compile_ok(many_nodes(count, weight, count < 2 ? 1 : 2, sided)).get());
    }
  }
}

TEST(TopoRingBuild, UnequalWeights) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 20; ++round) {
    const unsigned count = 1 + static_cast<unsigned>(random() % 9);
    std::string content;
    for (unsigned i = 0; i < count; ++i)
      content += node(numbered_id(i * 3), std::to_string(1 + random() % 700));
    SCOPED_TRACE(content);
    expect_ring_like_model(compile_ok(nodes("", content)).get());
  }
}

TEST(TopoRingBuild, SidesKeepToTheirHalves) {
  const TopoHandle tc = compile_ok(many_nodes(6, 100, 2, true));
  for (size_t k = 0; k < 600; ++k) {
    const host_config_slot *slot = tc->fast_slot_ring[k];
    EXPECT_EQ(slot->location[0] >= 0x80, slot->node->ringside == TOPO_RINGSIDE_B);
    EXPECT_EQ(slot->location[0] >= 0x80, k >= 300);
  }
}

TEST(TopoRingBuild, HostsetHoldsEveryNode) {
  const TopoHandle tc = compile_ok(many_nodes(128, 1, 2));
  EXPECT_EQ(ruxo_hash_size(&tc->hostset), 128u);
  for (int i = 0; i < 128; ++i) EXPECT_EQ(topo_contains(tc.get(), tc->hc[i].id), &tc->hc[i]);
}

// ---- Rings of made-up points ----

// Locations that the made-up hasher below hands out, by node (the first digit of its id) and point.
std::vector<std::vector<Location>> made_up;

void hash_made_up(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations) {
  const std::vector<Location> &points = made_up.at(static_cast<size_t>(id_str[0] - '0'));
  for (uint32_t i = 0; i < count; ++i) memcpy(locations + 32 * i, points.at(first + i).data(), 32);
}

struct MadeUpRing {
  explicit MadeUpRing(std::vector<std::vector<Location>> points) : hosts(points.size()) {
    made_up = std::move(points);
    for (size_t i = 0; i < hosts.size(); ++i) {
      hosts[i].id_str[0] = static_cast<char>('0' + i);
      hosts[i].weight = static_cast<uint16_t>(made_up[i].size());
    }
    tables = topo_build_ring_tables(hosts.data(), hosts.size(), hash_made_up);
  }
  ~MadeUpRing() {
    free(tables.slots);
    free(tables.locations);
    free(tables.hints);
  }
  MadeUpRing(const MadeUpRing &) = delete;
  MadeUpRing &operator=(const MadeUpRing &) = delete;

  std::vector<host_config> hosts;
  TopoRingTables tables;
};

void expect_like_map(const MadeUpRing &ring) {
  std::map<Location, std::pair<size_t, size_t>> model;
  for (size_t n = 0; n < made_up.size(); ++n) {
    for (size_t i = 0; i < made_up[n].size(); ++i) model.emplace(made_up[n][i], std::pair(n, i));
  }
  ASSERT_EQ(ring.tables.size, model.size());
  size_t k = 0;
  for (const auto &[location, origin] : model) {
    const host_config_slot &slot = ring.tables.slots[k];
    ASSERT_EQ(memcmp(slot.location, location.data(), 32), 0) << k;
    ASSERT_EQ(memcmp(ring.tables.locations + 32 * k, location.data(), 32), 0) << k;
    ASSERT_EQ(slot.node, &ring.hosts[origin.first]) << k;
    ASSERT_EQ(slot.idx, origin.second) << k;
    ++k;
  }
  const std::vector<fast_search_hints_t> hints =
      model_hints(ring.tables.locations, static_cast<int>(ring.tables.size));
  ASSERT_EQ(memcmp(hints.data(), ring.tables.hints, sizeof(fast_search_hints_t) * FAST_SIZE), 0);
}

TEST(TopoRingBuild, AllPointsInOneBucket) {
  std::mt19937_64 random(3);
  for (const uint8_t lead : {uint8_t{0x00}, uint8_t{0x7f}, uint8_t{0xff}}) {
    std::vector<Location> points(65535);
    for (Location &location : points) {
      location = random_location(random);
      location[0] = location[1] = lead;
    }
    const MadeUpRing ring({points});
    expect_like_map(ring);
    for (size_t b = 0; b < FAST_SIZE; ++b) {
      ASSERT_GE(ring.tables.hints[b].lower, 0);
      ASSERT_LE(ring.tables.hints[b].upper, 65534);
      ASSERT_LE(ring.tables.hints[b].lower, ring.tables.hints[b].upper);
    }
  }
}

TEST(TopoRingBuild, PointsThatDifferLate) {
  std::mt19937_64 random(5);
  std::vector<std::vector<Location>> points(3, std::vector<Location>(500));
  for (auto &node_points : points) {
    for (Location &location : node_points) {
      location.fill(0x42);
      for (size_t i = 28; i < 32; ++i) location[i] = static_cast<uint8_t>(random());
    }
  }
  expect_like_map(MadeUpRing(points));
}

TEST(TopoRingBuild, OfEqualPointsTheFirstStays) {
  std::mt19937_64 random(9);
  for (int round = 0; round < 30; ++round) {
    SCOPED_TRACE(round);
    const bool crowded = round % 2 == 0;
    std::vector<std::vector<Location>> points(4, std::vector<Location>(1 + random() % 400));
    for (auto &node_points : points) {
      for (Location &location : node_points) {
        location = crowded ? Location{} : random_location(random);
        location[31] = static_cast<uint8_t>(random());
        if (crowded) location[0] = static_cast<uint8_t>(random() % 3);
      }
    }
    points[3][0] = points[0][0];
    expect_like_map(MadeUpRing(points));
  }
  expect_like_map(MadeUpRing({{Location{}}, {Location{}}}));
}

// ---- Log lines and the broken invariant ----

TEST(TopoRingBuild, LogsEveryPointWhileDebugging) {
  ruxo_log_stream_t stream = nullptr;
  const LogCapture debug(&stream);
  topo_set_debug(stream);
  const TopoHandle tc = compile_ok(nodes("", node(kId1, "2")));
  topo_set_debug(nullptr);
  // Points 0 and 1 of this id begin 0x0e74ae38499610e8 and 0xed627896aea8b943.
  EXPECT_EQ(
      debug.lines(),
      (std::vector<std::string>{
          "ring(5.64679%) 0e74ae38499610e86ccbd6569fedb934f5f6da358caac6666f3093525853e213: " + kId1 + "-0\n",
          "ring(92.72838%) ed627896aea8b943c24733dc3aea984b4f2ab95a481cfb4cc9200b2dbeee01ba: " + kId1 +
              "-1\n",
          "compile topo: " + std::string(tc->hex_signature) + "\n"}));
}

TEST(TopoRingPercent, RunsFromZeroToAHundred) {
  Location location{};
  EXPECT_EQ(topo_ring_percent(location.data()), 0.0);
  location[0] = 0x80;
  EXPECT_DOUBLE_EQ(topo_ring_percent(location.data()), 50.0);
  location[0] = 0x40;
  EXPECT_DOUBLE_EQ(topo_ring_percent(location.data()), 25.0);
  location.fill(0xff);
  EXPECT_DOUBLE_EQ(topo_ring_percent(location.data()), 100.0);
}

TEST(TopoRingBuildDeathTest, ARingOfAnotherSizeIsFatal) {
  list_loses_a_point = true;
  EXPECT_DEATH(compile(nodes("", node(kId1))),
               "\\[FATAL\\] assertion \\(i == ruxo_skiplist_size\\(newconf->ring\\)\\) at "
               "topo/topo_ring_build\\.cpp:[0-9]+ failed");
  list_loses_a_point = false;
}

TEST(TopoLocator, CompareTheLocationOnly) {
  host_config_slot a{};
  host_config_slot b{};
  a.idx = 1;
  EXPECT_EQ(topo_locator(&a, &b), 0);
  b.location[31] = 1;
  EXPECT_LT(topo_locator(&a, &b), 0);
  EXPECT_GT(topo_locator(&b, &a), 0);
  a.location[0] = 0x80;  // bytes compare as unsigned
  EXPECT_GT(topo_locator(&a, &b), 0);
  EXPECT_EQ(topo_locator_k(a.location, &a), 0);
  EXPECT_LT(topo_locator_k(b.location, &a), 0);
  EXPECT_GT(topo_locator_k(a.location, &b), 0);
}

}  // namespace
