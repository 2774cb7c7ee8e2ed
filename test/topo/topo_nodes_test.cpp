#include <arpa/inet.h>
#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <list>
#include <set>

#include "test/support/faults.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

using Nodes = std::vector<const host_config *>;

Nodes all_of(const topo_config *tc) {
  Nodes result;
  for (int i = 0; i < tc->host_count; ++i) result.push_back(&tc->hc[i]);
  return result;
}

void be(const std::string &id) {
  topo_set_node(binary_id(id).data());
}

TEST(TopoNodes, NullTopologies) {
  host_config *loc[4] = {};
  auto id = binary_id(kId1);
  EXPECT_EQ(topo_contains(nullptr, id.data()), nullptr);
  EXPECT_EQ(topo_size(nullptr), 0);
  EXPECT_EQ(topo_n(nullptr), 0);
  EXPECT_EQ(topo_w(nullptr), 0);
  EXPECT_FALSE(topo_sided(nullptr));
  EXPECT_EQ(topo_side(nullptr, id.data()), TOPO_RINGSIDE_BOTH);
  EXPECT_EQ(topo_get_all_nodes(nullptr, loc), 0);
  EXPECT_EQ(topo_get_all_nodes_except_self(nullptr, loc), 0);
  EXPECT_EQ(topo_get_all_nodes_except_self(nullptr, nullptr), 0);
  EXPECT_EQ(topo_get_just_self(nullptr, loc), 0);
  EXPECT_EQ(topo_get_all_nodes_in_tcs(nullptr, nullptr, loc), 0);
  EXPECT_EQ(topo_get_all_nodes_on_side(nullptr, loc, id.data(), ruxo_true), 0);
  EXPECT_EQ(topo_get_all_nodes_on_side(nullptr, loc, id.data(), ruxo_false), 0);
  EXPECT_EQ(topo_randomize_hosts(nullptr, loc, 4), 0);
  EXPECT_EQ(loc[0], nullptr);
}

TEST(TopoNodes, CountsAndMembership) {
  const TopoHandle tc = compile_ok(many_nodes(5, 3, 3));
  EXPECT_EQ(topo_size(tc.get()), 5);
  EXPECT_EQ(topo_n(tc.get()), 3);
  EXPECT_EQ(topo_w(tc.get()), 3);
  EXPECT_FALSE(topo_sided(tc.get()));
  EXPECT_EQ(topo_contains(tc.get(), binary_id(numbered_id(4)).data()), &tc->hc[4]);
  EXPECT_EQ(topo_contains(tc.get(), binary_id(kId1).data()), nullptr);
}

TEST(TopoNodes, SideOfANode) {
  const TopoHandle tc = compile_ok(many_nodes(4, 3, 2, true));
  EXPECT_TRUE(topo_sided(tc.get()));
  EXPECT_EQ(topo_side(tc.get(), binary_id(numbered_id(0)).data()), TOPO_RINGSIDE_A);
  EXPECT_EQ(topo_side(tc.get(), binary_id(numbered_id(1)).data()), TOPO_RINGSIDE_B);
  EXPECT_EQ(topo_side(tc.get(), binary_id(kId1).data()), TOPO_RINGSIDE_BOTH);
}

TEST(TopoNodes, SideWithoutATopologyIsThatOfSelfOrOfTheActiveOne) {
  const TopoHandle sided = compile_ok(many_nodes(4, 3, 2, true));
  auto b = binary_id(numbered_id(1));
  topo_initialize(sided.get(), nullptr, b.data());
  EXPECT_EQ(topo_side(nullptr, b.data()), TOPO_RINGSIDE_B);  // from the active one
  be(numbered_id(1));
  EXPECT_EQ(topo_side(nullptr, b.data()), TOPO_RINGSIDE_B);
  topo_initialize(nullptr, nullptr, b.data());
  EXPECT_EQ(topo_side(nullptr, b.data()), TOPO_RINGSIDE_B);  // from this node itself
  EXPECT_EQ(topo_side(nullptr, binary_id(numbered_id(3)).data()), TOPO_RINGSIDE_BOTH);
  be(kId1);  // forgets the node before its topology is freed
}

TEST(TopoNodes, AllNodesInDocumentOrder) {
  const TopoHandle tc = compile_ok(many_nodes(5, 3, 2));
  host_config *loc[5];
  EXPECT_EQ(topo_get_all_nodes(tc.get(), nullptr), 5);
  EXPECT_EQ(topo_get_all_nodes(tc.get(), loc), 5);
  EXPECT_EQ(Nodes(loc, loc + 5), all_of(tc.get()));
}

TEST(TopoNodes, AllButSelfAndJustSelf) {
  const TopoHandle tc = compile_ok(many_nodes(5, 3, 2));
  host_config *loc[5] = {};
  be(kId1);  // in no topology
  EXPECT_EQ(topo_get_all_nodes_except_self(tc.get(), loc), 5);
  EXPECT_EQ(topo_get_just_self(tc.get(), loc), 0);
  be(numbered_id(2));
  EXPECT_EQ(topo_get_all_nodes_except_self(tc.get(), loc), 4);
  EXPECT_EQ(Nodes(loc, loc + 4), (Nodes{&tc->hc[0], &tc->hc[1], &tc->hc[3], &tc->hc[4]}));
  EXPECT_EQ(topo_get_all_nodes_except_self(tc.get(), nullptr), 5);  // the number of all
  EXPECT_EQ(topo_get_just_self(tc.get(), loc), 1);
  EXPECT_EQ(loc[0], &tc->hc[2]);
  EXPECT_EQ(topo_get_just_self(tc.get(), nullptr), 0);
}

TEST(TopoNodes, NodesOfTwoTopologies) {
  const TopoHandle one = compile_ok(nodes("", node(kId1) + node(kId2)));
  const TopoHandle two = compile_ok(nodes("", node(kId3) + node(kId2) + node(kId4)));
  host_config *loc[8];
  EXPECT_EQ(topo_get_all_nodes_in_tcs(one.get(), two.get(), loc), 4);
  EXPECT_EQ(Nodes(loc, loc + 4), (Nodes{&one->hc[0], &one->hc[1], &two->hc[0], &two->hc[2]}));
  EXPECT_EQ(topo_get_all_nodes_in_tcs(nullptr, two.get(), loc), 3);
  EXPECT_EQ(Nodes(loc, loc + 3), all_of(two.get()));
  EXPECT_EQ(topo_get_all_nodes_in_tcs(one.get(), nullptr, loc), 2);
  EXPECT_EQ(Nodes(loc, loc + 2), all_of(one.get()));
}

TEST(TopoNodes, NodesOnASide) {
  const TopoHandle tc = compile_ok(many_nodes(5, 3, 2, true));  // a b a b a
  const auto a = binary_id(numbered_id(2));
  host_config *loc[5];
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), nullptr, a.data(), ruxo_true), 3);
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, a.data(), ruxo_true), 3);
  EXPECT_EQ(Nodes(loc, loc + 3), (Nodes{&tc->hc[0], &tc->hc[2], &tc->hc[4]}));
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), nullptr, a.data(), ruxo_false), 2);
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, a.data(), ruxo_false), 2);
  EXPECT_EQ(Nodes(loc, loc + 2), (Nodes{&tc->hc[1], &tc->hc[3]}));
  const auto stranger = binary_id(kId1);
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, stranger.data(), ruxo_true), 0);
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, stranger.data(), ruxo_false), 5);
  EXPECT_EQ(Nodes(loc, loc + 5), all_of(tc.get()));
}

TEST(TopoNodes, WithoutSidesAllNodesAreMine) {
  const TopoHandle tc = compile_ok(many_nodes(5, 3, 2));
  const auto me = binary_id(numbered_id(2));
  host_config *loc[5];
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, me.data(), ruxo_true), 5);
  EXPECT_EQ(Nodes(loc, loc + 5), all_of(tc.get()));
  EXPECT_EQ(topo_get_all_nodes_on_side(tc.get(), loc, me.data(), ruxo_false), 0);
}

// ---- Random choice ----

TEST(TopoRandomizeHosts, SortsTheNodesByTheirDraws) {
  const TopoHandle tc = compile_ok(many_nodes(20, 1, 2));
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    srandom(seed);
    std::vector<std::pair<long, const host_config *>> draws;
    for (int i = 0; i < 20; ++i) draws.emplace_back(random(), &tc->hc[i]);
    std::stable_sort(draws.begin(), draws.end(),
                     [](const auto &x, const auto &y) { return x.first < y.first; });
    srandom(seed);
    host_config *chosen[20];
    ASSERT_EQ(topo_randomize_hosts(tc.get(), chosen, 7), 7);
    for (size_t i = 0; i < 7; ++i) EXPECT_EQ(chosen[i], draws[i].second);
  }
}

TEST(TopoRandomizeHosts, GivesAtMostAllNodes) {
  const TopoHandle tc = compile_ok(many_nodes(5, 1, 2));
  host_config *chosen[6] = {};
  EXPECT_EQ(topo_randomize_hosts(tc.get(), chosen, 0), 0);
  EXPECT_EQ(topo_randomize_hosts(tc.get(), chosen, -1), 0);
  EXPECT_EQ(chosen[0], nullptr);
  EXPECT_EQ(topo_randomize_hosts(tc.get(), chosen, 100), 5);
  EXPECT_EQ(std::set<host_config *>(chosen, chosen + 5).size(), 5u);
  EXPECT_EQ(chosen[5], nullptr);
}

// ---- Where a node is reached ----

class TopoUpdateIp : public testing::Test {
 protected:
  int update(const char *address, const char *port, const char *apiport) {
    return topo_update_ip(tc.get(), copy(kId2.c_str()), copy(address), copy(port), copy(apiport));
  }
  // "address port apiport" of the second node.
  std::string reached() const {
    const host_config &host = tc->hc[1];
    return std::string(inet_ntoa(host.net_address)) + " " + std::to_string(ntohs(host.net_port)) + " " +
           std::to_string(ntohs(host.net_apiport));
  }
  char *copy(const char *text) {
    if (text == nullptr) return nullptr;
    texts.emplace_back(text);
    return texts.back().data();
  }

  const TopoHandle tc = compile_ok(nodes("", node(kId1) + node(kId2)));
  std::list<std::string> texts;
};

TEST_F(TopoUpdateIp, StoresWhatIsGiven) {
  EXPECT_EQ(reached(), "127.0.0.1 8112 8113");
  EXPECT_EQ(update("10.1.2.3", nullptr, nullptr), 0);
  EXPECT_EQ(reached(), "10.1.2.3 8112 8113");
  EXPECT_EQ(update(nullptr, "1", nullptr), 0);
  EXPECT_EQ(reached(), "10.1.2.3 1 8113");
  EXPECT_EQ(update(nullptr, nullptr, "65535"), 0);
  EXPECT_EQ(reached(), "10.1.2.3 1 65535");
  EXPECT_EQ(update("10.9.8.7", "2", "3"), 0);
  EXPECT_EQ(reached(), "10.9.8.7 2 3");
  EXPECT_EQ(update(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(reached(), "10.9.8.7 2 3");
  EXPECT_STREQ(inet_ntoa(tc->hc[0].net_address), "127.0.0.1") << "the other node";
}

TEST_F(TopoUpdateIp, LeavesEverythingElseAsItWas) {
  const std::string signature = tc->hex_signature;
  EXPECT_EQ(update("10.1.2.3", "1", "2"), 0);
  EXPECT_EQ(tc->hc[1].url_prefix, "http://" + kId2 + ":8113");
  EXPECT_STREQ(tc->hc[1].hostname, "127.0.0.1");
  EXPECT_EQ(tc->connect_to->next->data, kId2 + ":8113:127.0.0.1:8113");
  EXPECT_EQ(tc->hex_signature, signature);
}

TEST_F(TopoUpdateIp, ARejectedAddressLeavesThePortsUnchanged) {
  EXPECT_EQ(update("10.1.2", "1", "2"), 0) << "inet_aton takes short forms";
  EXPECT_EQ(reached(), "10.1.0.2 1 2");
  for (const char *bad : {"10.1.2.256", "", "localhost", "::1", "1.2.3.4.5"}) {
    EXPECT_EQ(update(bad, "3", "4"), -1) << bad;
  }
  EXPECT_EQ(reached(), "10.1.0.2 1 2");
}

TEST_F(TopoUpdateIp, PortsAreReadInBase10AndCutTo16Bits) {  // deliberately unchecked
  EXPECT_EQ(update(nullptr, "65537", "12ab"), 0);
  EXPECT_EQ(reached(), "127.0.0.1 1 12");
  EXPECT_EQ(update(nullptr, "-1", "x"), 0);
  EXPECT_EQ(reached(), "127.0.0.1 65535 0");
  EXPECT_EQ(update(nullptr, "010", "0x10"), 0);
  EXPECT_EQ(reached(), "127.0.0.1 10 0");
}

TEST_F(TopoUpdateIp, RefusesUnknownNodesAndTopologies) {
  EXPECT_EQ(topo_update_ip(nullptr, copy(kId2.c_str()), nullptr, copy("1"), nullptr), -1);
  EXPECT_EQ(topo_update_ip(tc.get(), copy(kId3.c_str()), nullptr, copy("1"), nullptr), -1);
  EXPECT_EQ(topo_update_ip(tc.get(), copy("2222"), nullptr, copy("1"), nullptr), -1);
  EXPECT_EQ(topo_update_ip(tc.get(), nullptr, nullptr, copy("1"), nullptr), -1);
  EXPECT_EQ(reached(), "127.0.0.1 8112 8113");
}

TEST(TopoRandomizeHostsDeathTest, StopsWithoutMemory) {
  const TopoHandle tc = compile_ok(many_nodes(5, 1, 2));
  host_config *chosen[5];
  EXPECT_DEATH(
      {
        const faults::Fail no_memory(faults::Call::calloc, ENOMEM);
        topo_randomize_hosts(tc.get(), chosen, 5);
      },
      "\\[FATAL\\] assertion \\(draws\\) at topo/topo_nodes\\.cpp:[0-9]+ failed");
}

}  // namespace
