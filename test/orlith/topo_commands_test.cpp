#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>

#include "orlith/ring_moves.h"
#include "orlith/ring_share.h"
#include "orlith/topology_file.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/temp_dir.h"

namespace {

using testing::HasSubstr;

constexpr const char *check = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
const std::string cluster_path = ORLITH_FIXTURES "/cluster.xml";

// ---- an independent model of the ring: SHA-256 of id and point number, the owner is the next point's node ----

using Location = std::array<uint8_t, 32>;

struct NodeModel {
  std::string id;
  unsigned weight;
  char side;  // 'a', 'b' or ' '
};

std::vector<std::pair<Location, size_t>> ring_model(const std::vector<NodeModel> &nodes) {
  std::vector<std::pair<Location, size_t>> ring;
  for (size_t n = 0; n < nodes.size(); ++n)
    for (unsigned i = 0; i < nodes[n].weight; ++i) {
      std::string input = nodes[n].id;
      input += static_cast<char>(i >> 8);
      input += static_cast<char>(i);
      Location location;
      SHA256(reinterpret_cast<const uint8_t *>(input.data()), input.size(), location.data());
      if (nodes[n].side == 'a') location[0] &= 0x7F;
      if (nodes[n].side == 'b') location[0] |= 0x80;
      ring.emplace_back(location, n);
    }
  std::sort(ring.begin(), ring.end());
  return ring;
}

// Copy by copy: the first point at or after the location, in its half if there are sides, of a node not yet taken; then
// the location's top bit flips. From the third copy on the walk goes on behind the copy before the last.
std::vector<size_t> owners_model(const std::vector<std::pair<Location, size_t>> &ring, bool sided,
                                 Location location, size_t copies) {
  std::vector<size_t> owners, found;
  for (size_t copy = 0; copy < copies; ++copy) {
    size_t at = static_cast<size_t>(
        std::lower_bound(ring.begin(), ring.end(), std::pair(location, size_t{0})) - ring.begin());
    if (copy >= 2) at = found[copy - 2] + 1;
    for (;; ++at) {
      at %= ring.size();
      const bool other_half = ((ring[at].first[0] ^ location[0]) & 0x80) != 0;
      if (sided && other_half) continue;
      if (std::find(owners.begin(), owners.end(), ring[at].second) == owners.end()) break;
    }
    owners.push_back(ring[at].second);
    found.push_back(at);
    location[0] ^= 0x80;
  }
  return owners;
}

std::string id_of(size_t n) {
  return fmt::format("00000000-0000-4000-8000-{:012x}", n + 1);
}

std::string document(const std::vector<NodeModel> &nodes, size_t copies) {
  std::string xml = "<nodes write_copies=\"" + std::to_string(copies) + "\">";
  for (const NodeModel &node : nodes) {
    xml += "<node id=\"" + node.id + "\" address=\"127.0.0.1\" port=\"1\" apiport=\"2\" weight=\"" +
           std::to_string(node.weight) + "\"";
    if (node.side != ' ') xml += std::string(" side=\"") + node.side + "\"";
    xml += "/>";
  }
  return xml + "</nodes>";
}

struct RingCase {
  std::vector<NodeModel> nodes;
  size_t copies;
};

std::vector<RingCase> ring_cases() {
  return {
      {{{id_of(0), 1, ' '}}, 1},
      {{{id_of(0), 5, ' '}, {id_of(1), 1, ' '}}, 2},
      {{{id_of(0), 32, ' '}, {id_of(1), 32, ' '}, {id_of(2), 64, ' '}, {id_of(3), 7, ' '}}, 3},
      {{{id_of(0), 8, 'a'}, {id_of(1), 8, 'b'}}, 2},
      {{{id_of(0), 3, 'a'}, {id_of(1), 9, 'a'}, {id_of(2), 4, 'b'}, {id_of(3), 1, 'b'}}, 3},
  };
}

TEST(RingShares, AgreeWithManyRandomLocationsPlacedByAModel) {
  constexpr unsigned seed = 20231114;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (const RingCase &c : ring_cases()) {
    ToolSession tool;
    const Topology topology = compile_topology(document(c.nodes, c.copies), "case", tool.session);
    ASSERT_NE(topology, nullptr) << tool.err.text;
    const auto shares = ring_shares(*topology, {});
    const auto ring = ring_model(c.nodes);
    const bool sided = c.nodes[0].side != ' ';
    constexpr int samples = 40000;
    std::vector<int> first(c.nodes.size()), all(c.nodes.size());
    for (int i = 0; i < samples; ++i) {
      Location location;
      for (uint8_t &byte : location) byte = static_cast<uint8_t>(random());
      const auto owners = owners_model(ring, sided, location, c.copies);
      ++first[owners[0]];
      for (const size_t owner : owners) ++all[owner];
    }
    double first_sum = 0, data_sum = 0;
    for (size_t n = 0; n < c.nodes.size(); ++n) {
      // Five standard deviations of a share measured with so many samples.
      EXPECT_NEAR(shares[n].first, static_cast<double>(first[n]) / samples, 0.0125);
      EXPECT_NEAR(shares[n].data, static_cast<double>(all[n]) / samples / static_cast<double>(c.copies),
                  0.0125);
      first_sum += shares[n].first;
      data_sum += shares[n].data;
    }
    EXPECT_NEAR(first_sum, 1, 1e-14);
    EXPECT_NEAR(data_sum, 1, 1e-14);
  }
}

TEST(RingShares, AreTheArcsBetweenThePoints) {
  const std::vector<NodeModel> nodes = {{id_of(0), 3, ' '}, {id_of(1), 2, ' '}};
  ToolSession tool;
  const Topology topology = compile_topology(document(nodes, 1), "case", tool.session);
  const auto shares = ring_shares(*topology, {});
  const auto ring = ring_model(nodes);
  const auto place = [](const Location &location) {
    long double value = 0;
    for (size_t i = 32; i-- > 0;) value = (value + location[i]) / 256;
    return value;
  };
  std::vector<long double> expected(2);
  for (size_t i = 0; i < ring.size(); ++i) {
    const long double before = i > 0 ? place(ring[i - 1].first) : place(ring.back().first) - 1;
    expected[ring[i].second] += place(ring[i].first) - before;
  }
  EXPECT_NEAR(shares[0].first, static_cast<double>(expected[0]), 1e-15);
  EXPECT_NEAR(shares[1].first, static_cast<double>(expected[1]), 1e-15);
}

TEST(RingShares, WholeCopiesOnEveryNodeShareEvenly) {
  ToolSession tool;
  const Topology topology =
      compile_topology(document({{id_of(0), 100, ' '}, {id_of(1), 1, ' '}}, 2), "case", tool.session);
  const auto shares = ring_shares(*topology, {});
  EXPECT_DOUBLE_EQ(shares[0].data, 0.5);  // two copies on two nodes: weights do not matter
  EXPECT_DOUBLE_EQ(shares[1].data, 0.5);
}

TEST(RingMoves, AgreeWithManyRandomLocationsPlacedByAModel) {
  constexpr unsigned seed = 20231115;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const std::vector<RingCase> cases = ring_cases();
  for (const RingCase &before_case : cases)
    for (const RingCase &after_case : cases) {
      ToolSession tool;
      const Topology before =
          compile_topology(document(before_case.nodes, before_case.copies), "before", tool.session);
      const Topology after =
          compile_topology(document(after_case.nodes, after_case.copies), "after", tool.session);
      const auto before_ring = ring_model(before_case.nodes), after_ring = ring_model(after_case.nodes);
      std::map<CopyMove, int> counts;
      constexpr int samples = 20000;
      for (int i = 0; i < samples; ++i) {
        Location location;
        for (uint8_t &byte : location) byte = static_cast<uint8_t>(random());
        std::vector<CopyMove> expected;
        const auto ids = [&](const RingCase &c, const auto &ring) {
          std::vector<std::string> owners;
          for (const size_t n : owners_model(ring, c.nodes[0].side != ' ', location, c.copies))
            owners.push_back(c.nodes[n].id);
          return owners;
        };
        const auto lacking = [](const std::vector<std::string> &a, const std::vector<std::string> &b) {
          std::vector<std::string> rest;
          for (const std::string &id : a)
            if (std::find(b.begin(), b.end(), id) == b.end()) rest.push_back(id);
          return rest;
        };
        const auto old_ids = ids(before_case, before_ring), new_ids = ids(after_case, after_ring);
        auto losers = lacking(old_ids, new_ids), gainers = lacking(new_ids, old_ids);
        const size_t count = std::max(losers.size(), gainers.size());
        losers.resize(count);
        gainers.resize(count);
        for (size_t m = 0; m < count; ++m) expected.push_back({losers[m], gainers[m]});
        ASSERT_EQ(moves_at(*before, *after, location.data()), expected);
        for (const CopyMove &move : expected) ++counts[move];
      }
      const auto moves = ring_moves(*before, *after, {});
      for (const MoveShare &entry : moves) {
        // Five standard deviations of a share measured with so many samples.
        EXPECT_NEAR(entry.share, static_cast<double>(counts[entry.move]) / samples, 0.018);
        counts.erase(entry.move);
      }
      EXPECT_TRUE(counts.empty()) << counts.begin()->first.from << " to " << counts.begin()->first.to;
    }
}

TEST(RingMoves, ANewNodeGetsItsShareAndNobodyElseMoves) {
  ToolSession tool;
  std::vector<NodeModel> nodes = {{id_of(0), 20, ' '}, {id_of(1), 20, ' '}, {id_of(2), 20, ' '}};
  const Topology before = compile_topology(document(nodes, 1), "before", tool.session);
  nodes.push_back({id_of(3), 20, ' '});
  const Topology after = compile_topology(document(nodes, 1), "after", tool.session);
  double moved = 0;
  for (const MoveShare &entry : ring_moves(*before, *after, {})) {
    EXPECT_EQ(entry.move.to, id_of(3));
    moved += entry.share;
  }
  EXPECT_NEAR(moved, ring_shares(*after, {})[3].first, 1e-15);
}

// ---- the commands ----

TEST(TopoCheck, AcceptsAValidDocument) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "check", cluster_path}), exit_fine);
  EXPECT_EQ(tool.out.text, cluster_path +
                               ": valid, 4 nodes, 2 copies, signature "
                               "a2ed91a62cf886f6d020f9af0f179c286a26962efae62df964cba3435ff0d140\n");
}

// The signature of the fixture by hand: 40 bytes a node (id text, two zero bytes, the weight), hashed.
TEST(TopoCheck, ShowsTheSignatureOfTheNodes) {
  std::string bytes;
  for (const auto &[id, weight] : {std::pair("1f846f26-0cfd-4df5-b4f1-e0930604e577", 32),
                                   std::pair("765ac4cc-1929-4642-9ef1-d194d08f9538", 32),
                                   std::pair("8c2fc7b8-c569-402d-a393-db433fb267aa", 32),
                                   std::pair("07fa2237-5744-4c28-a622-a99cfc1ac87e", 64)}) {
    bytes += id;
    bytes += std::string(3, '\0');
    bytes += static_cast<char>(weight);
  }
  Location digest;
  SHA256(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), digest.data());
  std::string hex;
  for (const uint8_t byte : digest) hex += fmt::format("{:02x}", byte);
  ToolSession tool;
  tool.run({"topo", "check", "--json", cluster_path});
  EXPECT_EQ(tool.out.text, "{\"file\":\"" + cluster_path +
                               "\",\"valid\":true,\"nodes\":4,\"write_copies\":2,\"signature\":\"" + hex +
                               "\"}\n");
}

TEST(TopoCheck, NamesTheFaultOfARefusedDocument) {
  const TempDir folder;
  struct Case {
    std::string text, message;
  };
  const std::string node =
      R"(<node id="1f846f26-0cfd-4df5-b4f1-e0930604e577" address="1.2.3.4" port="1" apiport="2" )";
  const Case cases[] = {
      {"<nodes>\n" + node + "weight=\"0\"/></nodes>",
       "node '1f846f26-0cfd-4df5-b4f1-e0930604e577': weight must > 0 and <= 65535"},
      {"<nodes>" + node + "/></nodes>", "port, apiport, address and weight must be specified."},
      {"<nodes><node id=\"x&#39;y\"/></nodes>", "bad id: x'y"},
      {"<nodes write_copies=\"11\">" + node + "weight=\"1\"/></nodes>",
       "invalid topology: write_copies 11 exceeds the max number of nodes 10"},
  };
  for (const Case &c : cases) {
    ToolSession tool;
    const std::string path = folder.write("t.xml", c.text);
    EXPECT_EQ(tool.run({"topo", "check", path}), exit_damaged);
    EXPECT_EQ(tool.err.text, "orlith topo check: error: " + path + ": " + c.message + "\n");
    EXPECT_EQ(tool.out.text, "");
  }
}

// The compiler has one general message for these.
TEST(TopoCheck, SaysWhatIsNoTopologyAtAll) {
  const TempDir folder;
  struct Case {
    std::string text, message;
  };
  std::vector<NodeModel> many;
  for (size_t i = 0; i < 129; ++i) many.push_back({id_of(i), 1, ' '});
  const Case cases[] = {
      {"<cluster/>", "the root element is 'cluster', expected 'nodes'"},
      {"<nodes xmlns=\"urn:x\"/>", "the root element 'nodes' is in the namespace 'urn:x', expected none"},
      {"<nodes/>", "it has no element 'node'"},
      {"<nodes><other/></nodes>", "it has no element 'node'"},
      {"<nodes use_tls=\"yes\"/>", "use_tls: found 'yes', expected 'true' or 'false'"},
      {document(many, 2), "it has 129 nodes, at most 128 are accepted"},
  };
  for (const Case &c : cases) {
    ToolSession tool;
    const std::string path = folder.write("t.xml", c.text);
    EXPECT_EQ(tool.run({"topo", "check", path}), exit_damaged);
    EXPECT_EQ(tool.err.text, "orlith topo check: error: " + path + ": " + c.message + "\n");
  }
}

TEST(TopoCheck, WarnsOfTheOldNameOfCopies) {
  const TempDir folder;
  const std::string nodes = R"(<node id="1f846f26-0cfd-4df5-b4f1-e0930604e577" address="1.2.3.4" port="1" )"
                            R"(apiport="2" weight="3"/></nodes>)";
  const std::string path = folder.write("t.xml", "<nodes n=\"1\">" + nodes);
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "check", path}), exit_fine);
  EXPECT_EQ(tool.err.text, "orlith topo check: warning: " + path +
                               ": the attribute 'n' is deprecated, write 'write_copies' instead\n");
  EXPECT_THAT(tool.out.text, testing::StartsWith(path + ": valid, 1 node, 1 copy, signature "));
  const std::string both = folder.write("t.xml", "<nodes n=\"1\" write_copies=\"1\">" + nodes);
  ToolSession quiet;
  EXPECT_EQ(quiet.run({"topo", "check", both}), exit_fine);
  EXPECT_EQ(quiet.err.text, "");
}

TEST(TopoCheck, NamesTheLineOfAnXmlError) {
  const TempDir folder;
  ToolSession tool;
  const std::string path = folder.write("t.xml", "<nodes>\n\n</node>\n");
  EXPECT_EQ(tool.run({"topo", "check", path}), exit_damaged);
  EXPECT_THAT(tool.err.text, HasSubstr(path + ": line 3: "));
}

TEST(TopoCheck, TellsTheFaultAsJsonToo) {
  const TempDir folder;
  ToolSession tool;
  const std::string path = folder.write("t.xml", "<nodes><node id=\"\xc3\x28\"/></nodes>");
  EXPECT_EQ(tool.run({"topo", "check", "--json", path}), exit_damaged);
  EXPECT_THAT(tool.out.text, HasSubstr("\"valid\":false,\"error\":\""));
  ruxo_json_object *parsed = ruxo_json_parse(tool.out.text.c_str());
  EXPECT_NE(parsed, nullptr);
  ruxo_json_free(parsed);
}

TEST(TopoCommands, EndWithThreeWhenTheFileIsNotThere) {
  for (const std::vector<std::string> &arguments : {std::vector<std::string>{"topo", "check", "/no/such.xml"},
                                                    {"topo", "show", "/no/such.xml"},
                                                    {"topo", "place", "/no/such.xml", check, "cpu"}}) {
    ToolSession tool;
    EXPECT_EQ(tool.run(arguments), exit_not_found);
    EXPECT_THAT(tool.err.text, HasSubstr("/no/such.xml: No such file or directory\n"));
  }
}

// The document cannot be blamed for these.
TEST(TopoCommands, EndWithOneWhenTheFileCannotBeRead) {
  const TempDir folder;
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "check", "--json", folder.path()}), exit_failed);
  EXPECT_EQ(tool.err.text, "orlith topo check: error: " + folder.path() + ": Is a directory\n");
  EXPECT_EQ(tool.out.text, "{\"file\":\"" + folder.path() + "\",\"valid\":false,\"error\":\"" +
                               folder.path() + ": Is a directory\"}\n");
  ToolSession other;
  EXPECT_EQ(other.run({"topo", "show", cluster_path + "/x"}), exit_not_found);
  EXPECT_THAT(other.err.text, HasSubstr("Not a directory"));
}

TEST(TopoShow, ListsNodesWithTheirShares) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "show", cluster_path}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("copies     2\ntls        no\nsides      no\n\nnode "));
  EXPECT_THAT(tool.out.text,
              HasSubstr("07fa2237-5744-4c28-a622-a99cfc1ac87e 10.8.20.4 8112     8113 both     64 "));
}

TEST(TopoShow, GivesOneJsonDocument) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "show", "--json", cluster_path}), exit_fine);
  ruxo_json_object *parsed = ruxo_json_parse(tool.out.text.c_str());
  ASSERT_NE(parsed, nullptr);
  double sum = 0;
  const ruxo_json_object *nodes = ruxo_json_object_get(parsed, "nodes", nullptr);
  ASSERT_EQ(ruxo_json_array_length(nodes), 4u);
  for (size_t i = 0; i < 4; ++i)
    sum += ruxo_json_double(ruxo_json_object_get(ruxo_json_array_get(nodes, i), "data_share", nullptr));
  EXPECT_NEAR(sum, 1, 1e-12);
  ruxo_json_free(parsed);
}

TEST(TopoPlace, AgreesWithTheModelForManyNames) {
  const std::vector<NodeModel> nodes = {{"1f846f26-0cfd-4df5-b4f1-e0930604e577", 32, ' '},
                                        {"765ac4cc-1929-4642-9ef1-d194d08f9538", 32, ' '},
                                        {"8c2fc7b8-c569-402d-a393-db433fb267aa", 32, ' '},
                                        {"07fa2237-5744-4c28-a622-a99cfc1ac87e", 64, ' '}};
  const auto ring = ring_model(nodes);
  for (int i = 0; i < 200; ++i) {
    const std::string name = "metric" + std::to_string(i);
    const std::string key = check + ("-" + name);
    Location location;
    SHA256(reinterpret_cast<const uint8_t *>(key.data()), key.size(), location.data());
    ToolSession tool;
    ASSERT_EQ(tool.run({"topo", "place", "--json", cluster_path, check, name}), exit_fine);
    std::string expected = "\"owners\":[";
    int copy = 0;
    for (const size_t owner : owners_model(ring, false, location, 2)) {
      ++copy;
      expected += (copy > 1 ? ",{\"copy\":" : "{\"copy\":") + std::to_string(copy) + ",\"id\":\"" +
                  nodes[owner].id + "\",\"address\":\"10.8.20." + std::to_string(owner + 1) +
                  "\",\"port\":8112,\"api_port\":8113,\"url\":\"http://" + nodes[owner].id + ":8113\"}";
    }
    ASSERT_THAT(tool.out.text, testing::EndsWith(expected + "]}\n"));
  }
}

TEST(TopoPlace, ShowsTheCanonicalNameAndTheHash) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "place", cluster_path, "1B4E28BA-2FA1-11D2-883F-0016D3CCA427",
                      "cpu|ST[mode:user,core:1]", "--copies", "1"}),
            exit_fine);
  const std::string key = check + std::string("-cpu|ST[core:1,mode:user]");
  Location digest;
  SHA256(reinterpret_cast<const uint8_t *>(key.data()), key.size(), digest.data());
  std::string hex;
  for (const uint8_t byte : digest) hex += fmt::format("{:02x}", byte);
  EXPECT_THAT(tool.out.text,
              testing::StartsWith(std::string("check   ") + check +
                                  "\nmetric  cpu|ST[core:1,mode:user]\nhash    " + hex + "\n\ncopy node "));
  EXPECT_EQ(std::count(tool.out.text.begin(), tool.out.text.end(), '\n'), 6);
}

TEST(TopoPlace, SaysWhyANameIsRefused) {
  struct Case {
    std::string name, reason;
  };
  const Case cases[] = {
      {"cpu|ST[user]", "'cpu|ST[user]' is refused: a tag has no colon after its category"},
      {"cpu|ST[__name:x]", "the categories __name, __type, __activity and __check_uuid are reserved"},
      {"a\x01z", "'a\\x01z' is refused: the text holds a control character"},
      {std::string(5000, 'x'), "its canonical form has 5000 bytes, expected at most 4095"},
  };
  for (const Case &c : cases) {
    ToolSession tool;
    EXPECT_EQ(tool.run({"topo", "place", cluster_path, check, c.name}), exit_damaged);
    EXPECT_THAT(tool.err.text, HasSubstr(c.reason));
  }
}

TEST(TopoPlace, RefusesABadUuidAndBadCopies) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "place", cluster_path, "nope", "cpu"}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith topo place: error: UUID: found 'nope', expected a UUID\n");
  for (const char *copies : {"0", "-1", "11", "x"}) {
    ToolSession other;
    EXPECT_EQ(other.run({"topo", "place", cluster_path, check, "cpu", "--copies", copies}), exit_usage)
        << copies;
  }
}

// The four nodes of cluster.xml without the last one.
std::string without_last_node() {
  return document({{"1f846f26-0cfd-4df5-b4f1-e0930604e577", 32, ' '},
                   {"765ac4cc-1929-4642-9ef1-d194d08f9538", 32, ' '},
                   {"8c2fc7b8-c569-402d-a393-db433fb267aa", 32, ' '}},
                  2);
}

TEST(TopoDiff, SaysThatNothingMovesBetweenEqualTopologies) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "diff", cluster_path, cluster_path}), exit_fine);
  const std::string signature = "a2ed91a62cf886f6d020f9af0f179c286a26962efae62df964cba3435ff0d140";
  EXPECT_EQ(tool.out.text,
            "before  " + signature + "\nafter   " + signature + "\nmoving  0.000% of the data\n");
}

TEST(TopoDiff, ShowsWhoTakesOverFromANodeThatLeaves) {
  const TempDir folder;
  const std::string after = folder.write("after.xml", without_last_node());
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "diff", "--json", cluster_path, after}), exit_fine);
  ruxo_json_object *parsed = ruxo_json_parse(tool.out.text.c_str());
  ASSERT_NE(parsed, nullptr);
  const ruxo_json_object *moves = ruxo_json_object_get(parsed, "moves", nullptr);
  double from_the_leaver = 0;
  for (size_t i = 0; i < ruxo_json_array_length(moves); ++i) {
    const ruxo_json_object *move = ruxo_json_array_get(moves, i);
    if (ruxo_json_string(ruxo_json_object_get(move, "from", nullptr), nullptr) ==
        std::string("07fa2237-5744-4c28-a622-a99cfc1ac87e"))
      from_the_leaver += ruxo_json_double(ruxo_json_object_get(move, "data_share", nullptr));
  }
  ruxo_json_free(parsed);
  int code = exit_fine;
  const Topology before = load_topology(cluster_path, &code, tool.session);
  EXPECT_NEAR(from_the_leaver, ring_shares(*before, {})[3].data, 1e-12);
}

TEST(TopoDiff, TellsWhichMetricsMoveAndRefusesWhatIsNoKey) {
  const TempDir folder;
  const std::string after = folder.write("after.xml", without_last_node());
  std::string keys;
  for (int i = 0; i < 50; ++i) keys += check + ("-metric" + std::to_string(i)) + "\n";
  const std::string list = folder.write("keys", keys + "nonsense\n\n" + check + "-a|ST[b]\n");
  ToolSession tool;
  EXPECT_EQ(tool.run({"topo", "diff", cluster_path, after, "--metrics", list}), exit_damaged);
  EXPECT_EQ(tool.err.text, "orlith topo diff: warning: " + list +
                               ": line 51: found 'nonsense', expected a key as in UUID-NAME\n");
  int code = exit_fine;
  const Topology before_topology = load_topology(cluster_path, &code, tool.session);
  const Topology after_topology = compile_topology(without_last_node(), "after", tool.session);
  int moving = 0;
  for (int i = 0; i < 50; ++i) {
    const std::string key = check + ("-metric" + std::to_string(i));
    Location location;
    SHA256(reinterpret_cast<const uint8_t *>(key.data()), key.size(), location.data());
    const auto moves = moves_at(*before_topology, *after_topology, location.data());
    if (!moves.empty()) ++moving;
    for (const CopyMove &move : moves)
      EXPECT_THAT(tool.out.text, testing::ContainsRegex(key + " +" + move.from + " " + move.to));
  }
  EXPECT_GT(moving, 5);
  EXPECT_THAT(tool.out.text, HasSubstr(fmt::format("\nmetrics 50, moving {}, refused 2\n", moving)));
}

}  // namespace
