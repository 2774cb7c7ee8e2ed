#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "test/topo/topo_test_support.h"

// What a wait does instead of sleeping.
static std::function<void()> while_asleep;
static std::atomic<int> seconds_slept{0};
extern "C" {
unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  seconds_slept += static_cast<int>(seconds);
  if (while_asleep) while_asleep();
  return 0;
}
}

namespace {

using namespace topo_test;

class TopoStates : public testing::Test {
 protected:
  TopoStates() : first(compile_ok(many_nodes(3, 5, 2))) {}
  ~TopoStates() override {
    while_asleep = nullptr;
    topo_initialize(nullptr, nullptr, my.data());
  }

  // unknown, new, transitioning, transitioned
  static std::array<int, 4> counts(const topo_config *tc) {
    return {tc->hosts_unknown, tc->hosts_new, tc->hosts_transitioning, tc->hosts_transitioned};
  }
  using Counts = std::array<int, 4>;

  const TopoHandle first;
  std::array<uint8_t, 16> my = binary_id(numbered_id(1));
};

TEST_F(TopoStates, StateNames) {
  EXPECT_STREQ(topo_host_state_name(TOPO_ACTIVE_UNKNOWN), "unknown");
  EXPECT_STREQ(topo_host_state_name(TOPO_ACTIVE_NEW), "new");
  EXPECT_STREQ(topo_host_state_name(TOPO_ACTIVE_TRANSITIONING), "transitioning");
  EXPECT_STREQ(topo_host_state_name(TOPO_ACTIVE_TRANSITIONED), "transitioned");
  EXPECT_STREQ(topo_host_state_name(static_cast<topo_host_state_t>(7)), "error");
}

TEST_F(TopoStates, ReadsOpenWhenNoNodeIsUnknownOrTransitioning) {
  topo_config *tc = first.get();
  topo_initialize(tc, nullptr, my.data());
  EXPECT_EQ(tc->hosts_unknown, 2);
  EXPECT_EQ(tc->hosts_transitioned, 1);
  EXPECT_EQ(tc->reads_allowed, 0);
  host_activate(tc, &tc->hc[0], TOPO_ACTIVE_TRANSITIONING);
  host_activate(tc, &tc->hc[2], TOPO_ACTIVE_NEW);
  EXPECT_EQ(tc->hosts_unknown, 0);
  EXPECT_EQ(tc->hosts_transitioning, 1);
  EXPECT_EQ(tc->hosts_new, 1);
  EXPECT_EQ(tc->reads_allowed, 0);
  host_activate(tc, &tc->hc[0], TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(tc->reads_allowed, 1);
  host_activate(tc, &tc->hc[0], TOPO_ACTIVE_UNKNOWN);
  EXPECT_EQ(tc->hosts_unknown, 1);
  EXPECT_EQ(tc->reads_allowed, 1);  // never closed again
}

TEST_F(TopoStates, ActivatingNothingOrTheSameStateChangesNothing) {
  topo_config *tc = first.get();
  host_activate(nullptr, &tc->hc[0], TOPO_ACTIVE_NEW);
  host_activate(tc, nullptr, TOPO_ACTIVE_NEW);
  host_activate(tc, &tc->hc[0], TOPO_ACTIVE_UNKNOWN);
  EXPECT_EQ(tc->hc[0].active, TOPO_ACTIVE_UNKNOWN);
  EXPECT_EQ(tc->hosts_unknown + tc->hosts_new + tc->hosts_transitioning + tc->hosts_transitioned, 0);
  EXPECT_EQ(tc->reads_allowed, 0);
}

TEST_F(TopoStates, CompilationLeavesAllCountsZero) {
  EXPECT_EQ(counts(first.get()), (Counts{0, 0, 0, 0}));
  EXPECT_EQ(first->reads_allowed, 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(first->hc[i].active, TOPO_ACTIVE_UNKNOWN);
}

TEST_F(TopoStates, TheFirstChangeCountsAllNodes) {
  host_activate(first.get(), &first->hc[2], TOPO_ACTIVE_NEW);
  EXPECT_EQ(counts(first.get()), (Counts{2, 1, 0, 0}));
}

TEST_F(TopoStates, ATopologyOfOneNodeOpensWithItsNode) {
  const TopoHandle single = compile_ok(nodes("", node(kId1)));
  auto id = binary_id(kId1);
  topo_initialize(single.get(), nullptr, id.data());
  EXPECT_EQ(counts(single.get()), (Counts{0, 0, 0, 1}));
  EXPECT_EQ(single->reads_allowed, 1);
}

TEST_F(TopoStates, NewNodesDoNotKeepReadsShut) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(first->reads_allowed, 0);
    host_activate(first.get(), &first->hc[i], TOPO_ACTIVE_NEW);
  }
  EXPECT_EQ(first->reads_allowed, 1);
}

TEST_F(TopoStates, AStateWithoutANameIsInNoCount) {
  const TopoHandle single = compile_ok(nodes("", node(kId1)));
  host_activate(single.get(), &single->hc[0], static_cast<topo_host_state_t>(7));
  EXPECT_EQ(counts(single.get()), (Counts{0, 0, 0, 0}));
  host_activate(single.get(), &single->hc[0], TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(counts(single.get()), (Counts{0, 0, 0, 1}));
}

TEST_F(TopoStates, CountsAgreeWithTheStatesUnderRandomChanges) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const TopoHandle tc = compile_ok(many_nodes(9, 1, 2));
  bool opened = false;
  for (int i = 0; i < 2000; ++i) {
    host_activate(tc.get(), &tc->hc[random() % 9], static_cast<topo_host_state_t>(random() % 4));
    Counts model{};
    for (int k = 0; k < 9; ++k) ++model[tc->hc[k].active];
    // Before the first change of a state nothing is counted.
    if (counts(tc.get()) != Counts{0, 0, 0, 0}) {
      ASSERT_EQ(counts(tc.get()), model);
      opened = opened || (model[0] == 0 && model[2] == 0);
    }
    ASSERT_EQ(tc->reads_allowed, opened ? 1 : 0);
  }
}

// ---- The barrier ----

TEST_F(TopoStates, TheBarrierReturnsAtOnceWhenReadsAreOpen) {
  first->reads_allowed = 1;
  seconds_slept = 0;
  EXPECT_EQ(topo_wait_on_readwrite_barrier(first.get()), 0);
  EXPECT_EQ(seconds_slept, 0);
}

TEST_F(TopoStates, TheBarrierLooksOnceASecondUntilReadsOpen) {
  topo_initialize(first.get(), nullptr, my.data());
  seconds_slept = 0;
  int rounds = 0;
  while_asleep = [&] {
    if (++rounds == 3) host_activate(first.get(), &first->hc[0], TOPO_ACTIVE_TRANSITIONED);
    if (rounds == 5) host_activate(first.get(), &first->hc[2], TOPO_ACTIVE_NEW);
  };
  EXPECT_EQ(topo_wait_on_readwrite_barrier(first.get()), 0);
  EXPECT_EQ(seconds_slept, 5);
}

TEST_F(TopoStates, TheBarrierOfNoTopologyIsAnError) {
  EXPECT_EQ(topo_wait_on_readwrite_barrier(nullptr), -1);
}

TEST_F(TopoStates, WaitersPassWhenAnotherThreadOpensReads) {
  while_asleep = [] { std::this_thread::yield(); };
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] { EXPECT_EQ(topo_wait_on_readwrite_barrier(first.get()), 0); });
  }
  for (int i = 0; i < 3; ++i) host_activate(first.get(), &first->hc[i], TOPO_ACTIVE_TRANSITIONED);
  for (std::thread &waiter : waiters) waiter.join();
  EXPECT_EQ(first->reads_allowed, 1);
}

TEST_F(TopoStates, ChangesFromManyThreadsAreAllCounted) {
  const TopoHandle tc = compile_ok(many_nodes(8, 1, 2));
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([&tc, i] {
      std::mt19937 random(i);
      for (int round = 0; round < 5000; ++round) {
        host_activate(tc.get(), &tc->hc[random() % 8], static_cast<topo_host_state_t>(random() % 4));
      }
      for (int k = 0; k < 8; ++k) host_activate(tc.get(), &tc->hc[k], TOPO_ACTIVE_TRANSITIONED);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(counts(tc.get())[0] + counts(tc.get())[1] + counts(tc.get())[2] + counts(tc.get())[3], 8);
  for (int k = 0; k < 8; ++k) host_activate(tc.get(), &tc->hc[k], TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(counts(tc.get()), (Counts{0, 0, 0, 8}));
}

// ---- Copies ----

TEST_F(TopoStates, ACopySharesAllButItsOwnBlock) {
  host_activate(first.get(), &first->hc[0], TOPO_ACTIVE_NEW);
  topo_config *copy = topo_copy_topology(first.get());
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, first.get());
  EXPECT_EQ(memcmp(copy, first.get(), sizeof(topo_config)), 0);
  EXPECT_EQ(copy->hc, first->hc);
  EXPECT_EQ(copy->ring, first->ring);
  EXPECT_EQ(copy->connect_to, first->connect_to);
  host_config *on_copy[10], *on_first[10];
  EXPECT_EQ(topo_find_insertion_point_config(copy, "key", 3, on_copy, 0), 2);
  EXPECT_EQ(topo_find_insertion_point_config(first.get(), "key", 3, on_first, 0), 2);
  EXPECT_EQ(on_copy[0], on_first[0]);
  EXPECT_EQ(on_copy[1], on_first[1]);
  copy->w_count = 1;
  EXPECT_EQ(first->w_count, 2);
  free(copy);
}

TEST_F(TopoStates, ACopyOfNothingIsNothing) {
  EXPECT_EQ(topo_copy_topology(nullptr), nullptr);
}

}  // namespace
