// Signatures against literal digests, computed outside (SHA-256 over the records as doc/topology.md lays them
// out).
#include <gtest/gtest.h>

#include "liborlith/topo/topo_private.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

// The field order hosts compile against.
static_assert(sizeof(host_config_sigpart) == 40 && offsetof(host_config_sigpart, id_str) == 0 &&
              offsetof(host_config_sigpart, padding) == 37 &&
              offsetof(host_config_sigpart, net_weight) == 38);
static_assert(sizeof(host_config_sigpart_withside) == 42 &&
              offsetof(host_config_sigpart_withside, net_weight) == 38 &&
              offsetof(host_config_sigpart_withside, ringside) == 40);

struct Case {
  const char *name;
  std::string xml;
  const char *signature;
};

TEST(TopoSignatureBytes, EveryFormOfTheRecords) {
  const std::string sides_a_b = node(kId1, "100", "side='a'") + node(kId2, "200", "side='b'");
  const Case cases[] = {
      {"two copies leave no trace", nodes("write_copies='2'", node(kId1, "100") + node(kId2, "200")),
       "381407be1b465586fb16e43b7990c4e92909add761e270a98cd87b43d2b5b043"},
      {"the default is two copies", nodes("", node(kId1, "100") + node(kId2, "200")),
       "381407be1b465586fb16e43b7990c4e92909add761e270a98cd87b43d2b5b043"},
      {"order counts", nodes("", node(kId2, "200") + node(kId1, "100")),
       "54a881cb38bf9c0c372dd1a609c67c3823a73a4e44d67f2ed118dbb44e28d712"},
      {"one copy closes the records", nodes("", node(kId1, "100")),
       "c8c48b4607679d9278416af38cf74c4297a5fdc7797c953ac2a16db50cdb9887"},
      {"three copies", nodes("write_copies='3'", node(kId1, "1") + node(kId2, "2") + node(kId3, "65535")),
       "4774f85e8df224e025a9a730cac32212434b2e387bdc44a874d9e422855e9da5"},
      {"sides", nodes("", sides_a_b), "74fa77676dc6ae691bc145d9f2a273b252beb81c64087d02f39aef71587bb7e2"},
      {"sides and four copies",
       nodes("write_copies='4'", node(kId1, "10", "side='a'") + node(kId2, "10", "side='a'") +
                                     node(kId3, "10", "side='b'") + node(kId4, "10", "side='b'")),
       "fbd081153778d485d7ca1ed84e1b93e4b1ca86fbca1e953906f2870a5c1a2faa"},
  };
  for (const Case &each : cases) {
    SCOPED_TRACE(each.name);
    const TopoHandle tc = compile_ok(each.xml);
    ASSERT_NE(tc, nullptr);
    EXPECT_STREQ(tc->hex_signature, each.signature);
    EXPECT_EQ(hex(tc->signature), each.signature);
  }
}

TEST(TopoSignatureBytes, AddressesPortsAndTlsDoNotEnter) {
  const std::string base = nodes("", node(kId1, "100") + node(kId2, "200"));
  const std::string moved =
      "<nodes use_tls='true'>"
      "<node id='" +
      kId1 +
      "' weight='100' address='10.1.2.3' port='1' apiport='2' side='both'/>"
      "<node id='" +
      kId2 + "' weight='200' address='localhost' port='3' apiport='65535'/></nodes>";
  EXPECT_STREQ(compile_ok(base)->hex_signature, compile_ok(moved)->hex_signature);
}

TEST(TopoSignatureBytes, ExplicitBothIsNoSide) {
  const TopoHandle tc =
      compile_ok(nodes("", node(kId1, "100", "side='both'") + node(kId2, "200", "side='both'")));
  EXPECT_STREQ(tc->hex_signature, "381407be1b465586fb16e43b7990c4e92909add761e270a98cd87b43d2b5b043");
  EXPECT_FALSE(tc->use_side);
}

// doc/topology.md works this one out; it is examples/three-nodes.xml.
TEST(TopoSignatureBytes, TheDocumentedExample) {
  const std::string first = "76650c73-426c-48f6-ab8e-b575c1d3d5d1";
  const TopoHandle tc = compile_ok(
      nodes("write_copies='2'", node(first, "32") + node("39b8406b-ab01-4224-86ac-5d63faa46ac1", "64") +
                                    node("e4a84d99-0cbe-43f9-82f6-33232bd4f8b6", "48")));
  EXPECT_STREQ(tc->hex_signature, "3f95f16c2109a7b1780ef551c839f1bfd5ca0bda26ec9cb53f290bcdaa213338");
  uint8_t point[32];
  topo_hash_points(first.c_str(), 1, 1, point);
  EXPECT_EQ(hex(point), "becfeb7bb563c348abc57b8b8d66f4ffc842f95a7b403898ba2630a95e3730cd");
  EXPECT_EQ(topo_location_prefix(point) >> (64 - FAST_SIZE_BITS), 12211u);
}

}  // namespace
