// What many threads of a node do at the same time: last values, activity and retained topologies; and placement while
// the cluster moves on. The thread sanitizer sees what the checks do not.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "liborlith/util/metric_locator.h"
#include "ruxo/memory.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

constexpr int kThreads = 8;
constexpr int kOperations = 1000000;
constexpr size_t kLocators = 4;
constexpr size_t kTopologies = 32;

struct State {
  State() {
    for (size_t i = 0; i < kLocators; ++i) {
      locators.push_back(make_locator("m" + std::to_string(i), METRIC_TYPE_ANY));
    }
    // Retained for good, so they are the process's from now on.
    for (unsigned i = 0; i < kTopologies; ++i) {
      topologies.push_back(compile_ok(many_nodes(2, i + 1, 2)).release());
    }
  }
  std::vector<LocatorPtr> locators;
  std::vector<topo_config *> topologies;
  std::atomic<size_t> retained{0};
  std::atomic<uint64_t> clock{1};
};

void check_numbers(orlith_metric_locator_t *loc) {
  uint64_t whence_ms[2];
  uint8_t type[2];
  orlith_metric_locator_numeric_value_t value[2];
  if (orlith_metric_locator_last2_numeric(loc, whence_ms, type, value) == 0) return;
  EXPECT_EQ(value[0].v_uint64, whence_ms[0]);
  EXPECT_EQ(value[1].v_uint64, whence_ms[1]);
}

void check_texts(orlith_metric_locator_t *loc) {
  uint64_t whence_ms = 0;
  const char *text = nullptr;
  ruxo_memory_begin();
  if (orlith_metric_locator_last_text(loc, &whence_ms, &text) == 1 && whence_ms != 0) {
    EXPECT_EQ(std::to_string(whence_ms), text);
  }
  if (orlith_metric_locator_last_hist_b64(loc, &whence_ms, &text) == 1 && whence_ms != 0) {
    EXPECT_EQ(std::to_string(whence_ms), text);
  }
  ruxo_memory_end();
}

void check_activity(orlith_metric_locator_t *loc) {
  oil_list_t *clone = orlith_metric_locator_get_activity_clone(loc);
  EXPECT_EQ(oil_valid(clone), 1);
  oil_free(clone);
}

void retain_next(State &state) {
  const size_t index = state.retained.fetch_add(1);
  if (index < kTopologies) topo_retain(state.topologies[index]);
}

void check_retained(State &state, size_t index) {
  topo_config *expected = state.topologies[index];
  const topo_config *found = topo_retrieve(expected->signature);
  EXPECT_TRUE(found == expected || found == nullptr);
}

void do_operation(State &state, std::mt19937 &random) {
  orlith_metric_locator_t *loc = state.locators[random() % kLocators].get();
  // Around the present, so that some updates come late and some twice.
  const uint64_t now = state.clock.fetch_add(1, std::memory_order_relaxed) + random() % 4;
  switch (random() % 10) {
    case 0:
    case 1: {
      orlith_metric_locator_numeric_value_t v;
      v.v_uint64 = now;
      return orlith_metric_locator_update_numeric(loc, now, 'L', &v, ruxo_true);
    }
    case 2:
      return orlith_metric_locator_update_text(loc, now, std::to_string(now).c_str(), ruxo_true);
    case 3:
      return orlith_metric_locator_update_hist(loc, now, std::to_string(now).c_str(), ruxo_true);
    case 4:
      return check_numbers(loc);
    case 5:
      return check_texts(loc);
    case 6:
      orlith_metric_locator_record_activity(loc, (now % 100 + 1) * 60000);
      return;
    case 7:
      if (random() % 16 == 0) return check_activity(loc);
      orlith_metric_locator_was_active(loc, now, now + 100000);
      return;
    case 8:
      orlith_metric_locator_compare_last2_numeric(loc, state.locators[random() % kLocators].get());
      return;
    default:
      if (random() % 256 == 0) retain_next(state);
      return check_retained(state, random() % kTopologies);
  }
}

TEST(StateStress, LastValuesActivityAndRetainedTopologiesFromEightThreads) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  State state;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&state, seed, i] {
      std::mt19937 random(seed + i);
      for (int k = 0; k < kOperations / kThreads; ++k) do_operation(state, random);
    });
  }
  for (std::thread &thread : threads) thread.join();
  while (state.retained < kTopologies) retain_next(state);
  for (topo_config *tc : state.topologies) EXPECT_EQ(topo_retrieve_hex(tc->hex_signature), tc);
  for (const LocatorPtr &loc : state.locators) {
    EXPECT_EQ(orlith_metric_locator_last_missing(loc.get()), 0);
    check_numbers(loc.get());
    check_texts(loc.get());
  }
}

// The owners that one topology gives, in the bytes of their ids.
using Owners = std::vector<std::string>;

Owners owners_on(const topo_config *tc, const orlith_metric_locator_t *loc) {
  host_config *owners[TOPO_MAX_COPIES];
  const int count = topo_find_insertion_point_config_locator(tc, loc, owners, 0);
  Owners result;
  for (int i = 0; i < count; ++i) result.emplace_back(owners[i]->id_str);
  return result;
}

TEST(StateStress, MetricsArePlacedWhileATopologyMovesFromNextToActive) {
  constexpr int kMoves = 300;
  const LogCapture errors(&ruxo_error);  // every move is reported
  const TopoHandle one = compile_ok(many_nodes(6, 20, 3));
  const TopoHandle other = compile_ok(many_nodes(9, 10, 2, true));
  std::array<uint8_t, 16> my = binary_id(numbered_id(1));
  const LocatorPtr loc = make_locator("cpu");
  const Owners on_one = owners_on(one.get(), loc.get());
  const Owners on_other = owners_on(other.get(), loc.get());
  ASSERT_EQ(topo_initialize(one.get(), nullptr, my.data()), 0);
  ASSERT_EQ(topo_set_node(my.data()), 0);

  std::atomic<bool> done{false};
  std::vector<std::thread> placers;
  for (int i = 0; i < 4; ++i) {
    placers.emplace_back([&] {
      while (!done) {
        for (const topo_config *tc : {topo_active(), topo_target()}) {
          ASSERT_TRUE(tc == one.get() || tc == other.get());
          ASSERT_EQ(owners_on(tc, loc.get()), tc == one.get() ? on_one : on_other);
        }
        const topo_config *next = topo_next_active();
        ASSERT_TRUE(next == nullptr || next == one.get() || next == other.get());
        const bool is_mine = topo_is_mine(loc.get());
        const auto has_me = [&](const Owners &owners) {
          return std::find(owners.begin(), owners.end(), numbered_id(1)) != owners.end();
        };
        ASSERT_TRUE(is_mine == has_me(on_one) || is_mine == has_me(on_other));
        std::array<uint8_t, 16> me;
        topo_me(me.data());
        ASSERT_EQ(me, my);
        const topo_host_ringside_t side = topo_side(nullptr, my.data());
        ASSERT_TRUE(side == TOPO_RINGSIDE_BOTH || side == TOPO_RINGSIDE_B) << side;
      }
    });
  }
  for (int i = 0; i < kMoves; ++i) {
    topo_config *next = i % 2 == 0 ? other.get() : one.get();
    EXPECT_EQ(topo_activate_next(next), 0);
    for (int k = 0; k < next->host_count; ++k) host_activate(next, &next->hc[k], TOPO_ACTIVE_TRANSITIONED);
    EXPECT_EQ(topo_transition(), 0);
    topo_set_node(my.data());
    std::this_thread::yield();
  }
  done = true;
  for (std::thread &placer : placers) placer.join();
  EXPECT_EQ(errors.lines().size(), 2U * kMoves);
  topo_initialize(nullptr, nullptr, my.data());
  my.fill(0);
  topo_set_node(my.data());
}

}  // namespace
