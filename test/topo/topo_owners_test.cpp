#include <algorithm>
#include <cstring>
#include <memory>

#include "liborlith/util/metric_locator.h"
#include "test/support/log_capture.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

using Owners = std::vector<const host_config *>;

const std::string kCheck = "aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee";
// SHA-256 of "aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee-cpu|ST[host:a]".
constexpr char kHash[] = "433e7b6c6d78b5f9dce65b792c714500580d4147d67bfc0f385c9b65fc7ac53c";
const std::string kName = "cpu|ST[host:a]";

struct Deref {
  void operator()(orlith_metric_locator_t *locator) const { orlith_metric_locator_deref(locator); }
};
using LocatorPtr = std::unique_ptr<orlith_metric_locator_t, Deref>;

LocatorPtr make_locator(const std::string &name = kName) {
  mem_reader_t reader{};
  mem_reader_init_mem(&reader, name.data(), name.size());
  return LocatorPtr(orlith_metric_locator_create(binary_id(kCheck).data(), &reader, METRIC_TYPE_NUMERIC));
}

Owners owners_of_key(const topo_config *tc, const std::string &key, int count = 0) {
  host_config *loc[10];
  const int n = topo_find_insertion_point_config(tc, key.data(), key.size(), loc, count);
  return {loc, loc + n};
}

// Activates a topology of nine nodes and takes it back.
class TopoOwners : public testing::Test {
 protected:
  TopoOwners() : tc(compile_ok(many_nodes(9, 50, 3))) { topo_initialize(tc.get(), nullptr, check_id.data()); }
  ~TopoOwners() override {
    topo_initialize(nullptr, nullptr, check_id.data());
    topo_set_node(check_id.data());
  }
  void deactivate() { topo_initialize(nullptr, nullptr, check_id.data()); }

  std::array<uint8_t, 16> check_id = binary_id(kCheck);
  const TopoHandle tc;
  const Owners expected = owners_of_key(tc.get(), kCheck + "-" + kName);
};
using TopoOwnersDeathTest = TopoOwners;

TEST_F(TopoOwners, LocatorsArePlacedByTheirHash) {
  const LocatorPtr locator = make_locator();
  ASSERT_NE(locator, nullptr);
  EXPECT_EQ(hex(orlith_metric_locator_get_hash(locator.get())), kHash);
  host_config *loc[10];
  for (const int count : {0, 1, 2, 3, 7}) {
    int n = topo_find_insertion_point_config_locator(tc.get(), locator.get(), loc, count);
    EXPECT_EQ(Owners(loc, loc + n), owners_of_key(tc.get(), kCheck + "-" + kName, count));
    n = topo_find_insertion_point_config_locator_slow(tc.get(), locator.get(), loc, count);
    EXPECT_EQ(Owners(loc, loc + n), owners_of_key(tc.get(), kCheck + "-" + kName, count));
  }
}

TEST_F(TopoOwners, KeysArePlacedOnTheActiveTopology) {
  host_config *loc[10];
  const std::string key = kCheck + "-" + kName;
  int n = topo_find_insertion_point(key.data(), key.size(), loc, 0);
  EXPECT_EQ(Owners(loc, loc + n), expected);
  n = topo_find_insertion_point_uuidstr_name(kCheck.c_str(), kName.c_str(), loc, 0);
  EXPECT_EQ(Owners(loc, loc + n), expected);
  n = topo_find_insertion_point_name(check_id.data(), kName.c_str(), loc, 0);
  EXPECT_EQ(Owners(loc, loc + n), expected);
}

TEST_F(TopoOwners, WithoutAnActiveTopologyNobodyOwnsAnything) {
  deactivate();
  const LocatorPtr locator = make_locator();
  host_config *loc[10];
  EXPECT_EQ(topo_find_insertion_point("x", 1, loc, 0), 0);
  EXPECT_EQ(topo_find_insertion_point_uuidstr_name(kCheck.c_str(), "m", loc, 0), 0);
  EXPECT_EQ(topo_find_insertion_point_name(check_id.data(), "m", loc, 0), 0);
  EXPECT_FALSE(topo_is_mine(locator.get()));
  EXPECT_FALSE(topo_is_mine_uuid_name(kCheck.c_str(), kName.c_str()));
}

// A host asks about the next topology, which there may not be.
TEST_F(TopoOwners, NothingIsLocalToNoTopology) {
  const LocatorPtr locator = make_locator();
  host_config *loc[10];
  EXPECT_FALSE(topo_is_local_to_topology(locator.get(), topo_next_active(), tc->hc[0].id, loc));
}

TEST_F(TopoOwners, FindTwo) {
  host_config *h1 = nullptr;
  host_config *h2 = nullptr;
  std::string name = kName;
  EXPECT_EQ(topo_find_two(tc.get(), check_id.data(), name.data(), &h1, &h2), 2);
  EXPECT_EQ((Owners{h1, h2}), (Owners{expected[0], expected[1]}));
  const TopoHandle single = compile_ok(nodes("", node(kId1)));
  EXPECT_EQ(topo_find_two(single.get(), check_id.data(), name.data(), &h1, &h2), 1);
  EXPECT_EQ(h1, single->hc);
  EXPECT_EQ(h2, nullptr);
  EXPECT_EQ(topo_find_two(nullptr, check_id.data(), name.data(), &h1, &h2), 0);
  EXPECT_EQ(h1, nullptr);
}

TEST_F(TopoOwners, MineIsWhatOneOfMyCopiesIs) {
  const LocatorPtr locator = make_locator();
  int mine = 0;
  for (int i = 0; i < 9; ++i) {
    topo_set_node(tc->hc[i].id);
    const bool owner = std::find(expected.begin(), expected.end(), &tc->hc[i]) != expected.end();
    EXPECT_EQ(topo_is_mine(locator.get()), owner);
    EXPECT_EQ(topo_is_mine_uuid_name(kCheck.c_str(), kName.c_str()), owner);
    host_config *loc[10];
    EXPECT_EQ(topo_is_local_to_topology(locator.get(), tc.get(), tc->hc[i].id, loc), owner);
    EXPECT_EQ(Owners(loc, loc + 3), expected);
    mine += owner;
  }
  EXPECT_EQ(mine, 3);
  topo_set_node(check_id.data());  // a stranger
  EXPECT_FALSE(topo_is_mine(locator.get()));
}

TEST_F(TopoOwners, KeysUpToTheLimitArePlacedAndLongerOnesAreLogged) {
  const std::string longest(4134 - 3 - kCheck.size(), 'm');
  const std::string too_long = longest + "m";
  host_config *loc[10];
  host_config *h1 = nullptr;
  host_config *h2 = nullptr;
  const LogCapture errors(&ruxo_error);
  const int n = topo_find_insertion_point_uuidstr_name(kCheck.c_str(), longest.c_str(), loc, 0);
  EXPECT_EQ(Owners(loc, loc + n), owners_of_key(tc.get(), kCheck + "-" + longest));
  topo_set_node(loc[0]->id);
  EXPECT_TRUE(topo_is_mine_uuid_name(kCheck.c_str(), longest.c_str()));
  EXPECT_EQ(errors.lines(), std::vector<std::string>());

  EXPECT_FALSE(topo_is_mine_uuid_name(kCheck.c_str(), too_long.c_str()));
  EXPECT_EQ(topo_find_insertion_point_uuidstr_name(kCheck.c_str(), too_long.c_str(), loc, 0), 0);
  EXPECT_EQ(topo_find_insertion_point_name(check_id.data(), too_long.c_str(), loc, 0), 0);
  std::string name = too_long;
  EXPECT_EQ(topo_find_two(tc.get(), check_id.data(), name.data(), &h1, &h2), 0);
  const std::string rest = ": skipping " + kCheck + "-" + too_long + ", too long\n";
  EXPECT_EQ(errors.lines(),
            (std::vector<std::string>{
                "topo_is_mine_uuid_name" + rest, "topo_find_insertion_point_uuidstr_name" + rest,
                "topo_find_insertion_point_uuidstr_name" + rest, "topo_find_two" + rest}));
}

TEST_F(TopoOwnersDeathTest, LocalToTopologyNeedsRoomForTheOwners) {
  const LocatorPtr locator = make_locator();
  EXPECT_DEATH(topo_is_local_to_topology(locator.get(), tc.get(), check_id.data(), nullptr),
               "\\[FATAL\\] assertion \\(hc\\) at topo/topo_owners\\.cpp:[0-9]+ failed");
}

}  // namespace
