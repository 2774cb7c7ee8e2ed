#include <atomic>
#include <cstring>
#include <thread>

#include "test/support/log_capture.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

using Id = std::array<uint8_t, 16>;

Id me() {
  Id id;
  topo_me(id.data());
  return id;
}

// Every test leaves the process with no topology, no id and no self node that a later one could meet.
class TopoLifecycle : public testing::Test {
 protected:
  TopoLifecycle() : first(compile_ok(many_nodes(3, 5, 2))), second(compile_ok(many_nodes(5, 5, 2))) {}
  ~TopoLifecycle() override {
    topo_initialize(nullptr, nullptr, Id{}.data());
    topo_set_node(Id{}.data());
  }

  const TopoHandle first;
  const TopoHandle second;
  Id my = binary_id(numbered_id(1));
};
using TopoLifecycleDeathTest = TopoLifecycle;

TEST_F(TopoLifecycle, ThePairThroughAMove) {
  EXPECT_EQ(topo_active(), nullptr);
  EXPECT_EQ(topo_next_active(), nullptr);
  EXPECT_EQ(topo_target(), nullptr);
  EXPECT_EQ(topo_transition(), -1);

  EXPECT_EQ(topo_initialize(first.get(), nullptr, my.data()), 0);
  topo_set_node(my.data());
  EXPECT_EQ(topo_active(), first.get());
  EXPECT_EQ(topo_target(), first.get());
  EXPECT_EQ(first->hc[1].active, TOPO_ACTIVE_TRANSITIONED);

  EXPECT_EQ(topo_activate_next(second.get()), 0);
  EXPECT_EQ(topo_active(), first.get());
  EXPECT_EQ(topo_next_active(), second.get());
  EXPECT_EQ(topo_target(), second.get());
  EXPECT_EQ(second->hc[1].active, TOPO_ACTIVE_TRANSITIONING);
  EXPECT_EQ(topo_activate_next(first.get()), -1);
  EXPECT_EQ(topo_next_active(), second.get());

  const LogCapture errors(&ruxo_error);
  EXPECT_EQ(topo_transition(), 0);
  EXPECT_EQ(topo_active(), second.get());
  EXPECT_EQ(topo_next_active(), nullptr);
  EXPECT_EQ(second->hc[1].active, TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(errors.lines(), (std::vector<std::string>{"TOPO(0): " + std::string(second->hex_signature) + "\n",
                                                      "TOPO(1): -\n"}));
  EXPECT_EQ(topo_transition(), -1);
  EXPECT_EQ(topo_active(), second.get());
}

TEST_F(TopoLifecycle, TheNextTopologyMakesMeNewOrTransitioning) {
  topo_initialize(nullptr, second.get(), my.data());
  EXPECT_EQ(second->hc[1].active, TOPO_ACTIVE_NEW);
  topo_initialize(first.get(), second.get(), my.data());
  EXPECT_EQ(first->hc[1].active, TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(second->hc[1].active, TOPO_ACTIVE_TRANSITIONING);
}

TEST_F(TopoLifecycle, AStrangerChangesNoState) {
  Id stranger = binary_id(kId1);
  topo_initialize(first.get(), second.get(), stranger.data());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(first->hc[i].active, TOPO_ACTIVE_UNKNOWN);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(second->hc[i].active, TOPO_ACTIVE_UNKNOWN);
}

// ---- Who this node is ----

TEST_F(TopoLifecycle, MeIsTheIdLastGiven) {
  Id stranger = binary_id(kId1);
  EXPECT_EQ(topo_set_node(stranger.data()), -1);
  EXPECT_EQ(me(), stranger);
  EXPECT_EQ(topo_set_node(my.data()), -1);  // no topology at all
  EXPECT_EQ(me(), my);
  topo_initialize(first.get(), nullptr, my.data());
  EXPECT_EQ(topo_set_node(my.data()), 0);
  EXPECT_EQ(me(), my);
  EXPECT_EQ(topo_set_node(stranger.data()), -1);  // replaces what was found before
  EXPECT_EQ(me(), stranger);
}

TEST_F(TopoLifecycle, AnIdInNoRingIsMineAllTheSame) {
  topo_initialize(first.get(), second.get(), my.data());
  Id stranger = binary_id(kId1);
  EXPECT_EQ(topo_set_node(stranger.data()), -1);
  EXPECT_EQ(me(), stranger);
}

// A reader must never meet an id that is half the old one and half the new one.
TEST_F(TopoLifecycle, MeIsReadWholeWhileItChanges) {
  topo_initialize(first.get(), nullptr, my.data());
  Id low, high;  // in no ring, so the id itself is what is read
  low.fill(0x11);
  high.fill(0xee);
  topo_set_node(low.data());
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!done) {
        const Id seen = me();
        ASSERT_TRUE(seen == low || seen == high || seen == my);
      }
    });
  }
  for (int i = 0; i < 20000; ++i) {
    topo_set_node(high.data());
    if (i % 8 == 0) topo_set_node(my.data());
    topo_set_node(low.data());
  }
  done = true;
  for (std::thread &reader : readers) reader.join();
}

TEST_F(TopoLifecycle, NodesAreFoundByTheirFirstPointOnEitherRing) {
  topo_initialize(first.get(), second.get(), my.data());
  for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(topo_set_node(binary_id(numbered_id(i)).data()), 0) << i;
  EXPECT_EQ(topo_set_node(binary_id(numbered_id(5)).data()), -1);
  topo_initialize(second.get(), first.get(), my.data());
  EXPECT_EQ(topo_set_node(binary_id(numbered_id(4)).data()), 0);  // in the active one only
}

TEST_F(TopoLifecycle, NodesOfSidedTopologiesAreFoundInTheirHalf) {
  const TopoHandle sided = compile_ok(many_nodes(8, 1, 2, true));
  topo_initialize(nullptr, sided.get(), my.data());
  for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(topo_set_node(binary_id(numbered_id(i)).data()), 0) << i;
  EXPECT_EQ(topo_set_node(binary_id(numbered_id(8)).data()), -1);
  // The sided one is asked first; the plain one is then asked with the unadjusted location.
  topo_initialize(second.get(), sided.get(), my.data());
  for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(topo_set_node(binary_id(numbered_id(i)).data()), 0) << i;
  const TopoHandle two = compile_ok(many_nodes(2, 1, 2, true));
  topo_initialize(second.get(), two.get(), my.data());
  for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(topo_set_node(binary_id(numbered_id(i)).data()), 0) << i;
}

TEST_F(TopoLifecycleDeathTest, AnEphemeralProcessIsNobodyElse) {
  Id ephemeral = binary_id(kId4);
  EXPECT_FALSE(topo_i_am_ephemeral());
  // In a child, because a process cannot stop being ephemeral.
  EXPECT_EXIT(
      {
        topo_set_node(my.data());
        topo_set_i_am_ephemeral(ephemeral.data());
        exit(topo_i_am_ephemeral() && me() == ephemeral ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(TopoLifecycleDeathTest, AnEphemeralProcessMustNotBeInATopology) {
  const auto conflict = "message=\"Dangerous ephemeral node id conflict\\.\"\n$";
  EXPECT_EXIT(
      {
        topo_set_i_am_ephemeral(my.data());
        topo_initialize(nullptr, second.get(), my.data());
      },
      testing::ExitedWithCode(255), conflict);
  EXPECT_EXIT(
      {
        topo_set_i_am_ephemeral(my.data());
        topo_activate_next(second.get());
      },
      testing::ExitedWithCode(255), conflict);
  EXPECT_EXIT(
      {
        topo_activate_next(second.get());
        topo_set_i_am_ephemeral(my.data());
        topo_transition();
      },
      testing::ExitedWithCode(255), conflict);
}

TEST_F(TopoLifecycleDeathTest, AnEphemeralConflictOfSetNodeIsOnlyLogged) {
  EXPECT_EXIT(
      {
        topo_initialize(first.get(), nullptr, my.data());
        topo_set_i_am_ephemeral(my.data());
        const int result = topo_set_node(my.data());
        ruxo_log_flush();
        exit(result == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7),
      "message=\"Dangerous ephemeral node id conflict: 00000001-0000-4000-8000-000000001eef\"\n$");
}

TEST_F(TopoLifecycleDeathTest, AnEphemeralStrangerMayUseTopologies) {
  EXPECT_EXIT(
      {
        Id ephemeral = binary_id(kId4);
        topo_set_i_am_ephemeral(ephemeral.data());
        topo_initialize(first.get(), nullptr, ephemeral.data());
        topo_activate_next(second.get());
        exit(topo_transition() == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

// ---- Iteration ----

struct Visit {
  const host_config *host;
  unsigned short idx;
  std::string location;
  double percent;
};

TEST_F(TopoLifecycle, ApplyVisitsNodesInOrderAndSums) {
  std::vector<host_config *> visited;
  const int sum = topo_apply(second.get(), &visited, [](topo_config *tc, host_config *host, void *thunk) {
    static_cast<std::vector<host_config *> *>(thunk)->push_back(host);
    return host->topo == tc ? 10 : 0;
  });
  EXPECT_EQ(sum, 50);
  ASSERT_EQ(visited.size(), 5u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(visited[static_cast<size_t>(i)], &second->hc[i]);
}

TEST_F(TopoLifecycle, ApplyOnNoNodesCallsNothing) {
  topo_config empty{};
  const auto fail = [](topo_config *, host_config *, void *) {
    ADD_FAILURE();
    return 1;
  };
  EXPECT_EQ(topo_apply(&empty, nullptr, fail), 0);
  EXPECT_EQ(topo_apply(nullptr, nullptr, fail), 0);
}

TEST_F(TopoLifecycle, RingApplyVisitsPointsInOrderAndSums) {
  std::vector<Visit> visits;
  const int sum =
      ring_apply(second.get(), &visits,
                 [](topo_config *, host_config *host, unsigned short idx, uint8_t *location, double percent,
                    void *thunk) {
                   static_cast<std::vector<Visit> *>(thunk)->push_back({host, idx, hex(location), percent});
                   return 2;
                 });
  EXPECT_EQ(sum, 50);
  ASSERT_EQ(visits.size(), 25u);
  for (size_t k = 0; k < visits.size(); ++k) {
    const host_config_slot *slot = second->fast_slot_ring[k];
    EXPECT_EQ(visits[k].host, slot->node);
    EXPECT_EQ(visits[k].idx, slot->idx);
    EXPECT_EQ(visits[k].location, hex(slot->location));
    EXPECT_NEAR(visits[k].percent, (slot->location[0] * 256 + slot->location[1]) / 655.36, 0.002);
  }
}

TEST_F(TopoLifecycle, RingApplyOnAnEmptyRingIsZero) {
  const auto fail = [](topo_config *, host_config *, unsigned short, uint8_t *, double, void *) {
    ADD_FAILURE();
    return 1;
  };
  topo_config empty{};
  EXPECT_EQ(ring_apply(&empty, nullptr, fail), 0);
  EXPECT_EQ(ring_apply(nullptr, nullptr, fail), 0);
}

TEST_F(TopoLifecycle, FreeTakesNull) {
  topo_free(nullptr);
}

}  // namespace
