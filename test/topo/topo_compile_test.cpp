#include <arpa/inet.h>
#include <curl/curl.h>
#include <libxml/parser.h>

#include <cstring>
#include <filesystem>
#include <new>

#include "liborlith/topo/topo_private.h"
#include "test/support/faults.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"
#include "test/topo/topo_test_support.h"

namespace {

// How many more ids are written before they come out empty; negative: all are written.
long ids_before_blank = -1;

}  // namespace

extern "C" {
void __real_ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out);
void __wrap_ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out);
void __wrap_ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out) {
  __real_ruxo_uuid_unparse_lower(uuid, out);
  if (ids_before_blank >= 0 && ids_before_blank-- == 0) *out = '\0';
}
}

// What C++ allocates is counted too: malloc here is the wrapper above. Not inlined, or the compiler takes the
// malloc and free inside for a mismatch.
[[gnu::noinline]] void *operator new(size_t size) {
  if (void *memory = malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return malloc(size);
}
[[gnu::noinline]] void operator delete(void *memory) noexcept {
  free(memory);
}
[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept {
  free(memory);
}

namespace {

using namespace topo_test;

constexpr char kGeneral[] = "XML parse error";

std::string error_of(std::string_view xml, const char *hexhash = nullptr) {
  const Compiled compiled = compile(xml, hexhash);
  EXPECT_EQ(compiled.tc, nullptr) << xml;
  return compiled.error;
}

std::string error_of_node(const std::string &one) {
  return error_of(nodes("", one));
}

// A node with one attribute replaced, or removed when `value` is null.
std::string node_with(const std::string &name, const char *value) {
  std::string text = "<node ";
  const std::pair<const char *, std::string> attributes[] = {
      {"id", kId1}, {"weight", "10"}, {"address", "127.0.0.1"}, {"port", "8112"}, {"apiport", "8113"}};
  for (const auto &[key, standard] : attributes) {
    if (key == name && value == nullptr) continue;
    text += key + std::string("=\"") + (key == name ? value : standard) + "\" ";
  }
  return text + "/>";
}

// ---- What a good document becomes ----

TEST(TopoCompile, FillsEveryField) {
  const Compiled compiled = compile(nodes(
      "write_copies='2'", "<node id='" + kId1 +
                              "' weight='3' address='127.0.0.1' port='8112' apiport='8113'/>"
                              "<node id='" +
                              kId2 + "' weight='65535' address='localhost' port='1' apiport='65535'/>"));
  const topo_config *tc = compiled.tc.get();
  ASSERT_NE(tc, nullptr) << compiled.error;
  EXPECT_EQ(compiled.error, "(no message)");
  EXPECT_EQ(tc->w_count, 2);
  EXPECT_EQ(tc->host_count, 2);
  EXPECT_FALSE(tc->use_side);
  EXPECT_FALSE(tc->use_tls);
  EXPECT_EQ(tc->ca_chain, nullptr);
  EXPECT_EQ(tc->hosts_unknown, 0);
  EXPECT_EQ(tc->hosts_new, 0);
  EXPECT_EQ(tc->hosts_transitioning, 0);
  EXPECT_EQ(tc->hosts_transitioned, 0);
  EXPECT_EQ(tc->reads_allowed, 0);
  EXPECT_EQ(ruxo_skiplist_size(tc->ring), 65538u);

  const host_config &first = tc->hc[0];
  EXPECT_EQ(memcmp(first.id, binary_id(kId1).data(), 16), 0);
  EXPECT_STREQ(first.id_str, kId1.c_str());
  EXPECT_EQ(first.weight, 3);
  EXPECT_EQ(first.net_address.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(first.net_port, htons(8112));
  EXPECT_EQ(first.net_apiport, htons(8113));
  EXPECT_EQ(first.active, TOPO_ACTIVE_UNKNOWN);
  EXPECT_EQ(first.ringside, TOPO_RINGSIDE_BOTH);
  EXPECT_EQ(first.topo, tc);
  EXPECT_STREQ(first.hostname, "127.0.0.1");
  EXPECT_STREQ(first.url_prefix, ("http://" + kId1 + ":8113").c_str());

  const host_config &second = tc->hc[1];
  EXPECT_EQ(second.weight, 65535);
  EXPECT_EQ(second.net_address.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(second.net_port, htons(1));
  EXPECT_STREQ(second.hostname, "localhost");
  EXPECT_STREQ(second.url_prefix, ("http://" + kId2 + ":65535").c_str());

  ASSERT_NE(tc->connect_to, nullptr);
  EXPECT_STREQ(tc->connect_to->data, (kId1 + ":8113:127.0.0.1:8113").c_str());
  ASSERT_NE(tc->connect_to->next, nullptr);
  EXPECT_STREQ(tc->connect_to->next->data, (kId2 + ":65535:localhost:65535").c_str());
  EXPECT_EQ(tc->connect_to->next->next, nullptr);
}

TEST(TopoCompile, StructuresKeepTheFieldOrderOfTheHosts) {
  static_assert(offsetof(host_config, id) == 0);
  static_assert(offsetof(host_config, id_str) == 16);
  static_assert(offsetof(host_config, weight) == 54);
  static_assert(offsetof(host_config, net_address) == 56);
  static_assert(offsetof(host_config, net_port) == 60);
  static_assert(offsetof(host_config, net_apiport) == 62);
  static_assert(offsetof(host_config, active) == 64);
  static_assert(offsetof(host_config, ringside) == 68);
  static_assert(offsetof(host_config, topo) == 72);
  static_assert(offsetof(host_config, hostname) == 80);
  static_assert(offsetof(host_config, url_prefix) == 88);
  static_assert(sizeof(host_config) == 96);

  static_assert(offsetof(topo_config, signature) == 0);
  static_assert(offsetof(topo_config, hex_signature) == 32);
  static_assert(offsetof(topo_config, w_count) == 98);
  static_assert(offsetof(topo_config, host_count) == 100);
  static_assert(offsetof(topo_config, hc) == 104);
  static_assert(offsetof(topo_config, ring) == 112);
  static_assert(offsetof(topo_config, hostset) == 120);
  static_assert(offsetof(topo_config, hosts_unknown) == 128);
  static_assert(offsetof(topo_config, hosts_new) == 132);
  static_assert(offsetof(topo_config, hosts_transitioning) == 136);
  static_assert(offsetof(topo_config, hosts_transitioned) == 140);
  static_assert(offsetof(topo_config, reads_allowed) == 144);
  static_assert(offsetof(topo_config, use_side) == 148);
  static_assert(offsetof(topo_config, use_tls) == 149);
  static_assert(offsetof(topo_config, ca_chain) == 152);
  static_assert(offsetof(topo_config, connect_to) == 160);
  static_assert(offsetof(topo_config, fast_loc_ring) == 168);
  static_assert(offsetof(topo_config, fast_slot_ring) == 176);
  static_assert(offsetof(topo_config, fast_search_hints) == 184);
  static_assert(sizeof(topo_config) == 192);
  static_assert(offsetof(host_config_slot, node) == 32 && offsetof(host_config_slot, idx) == 40);
  static_assert(sizeof(fast_search_hints_t) == 8 && offsetof(fast_search_hints_t, upper) == 4);
}

TEST(TopoCompile, TlsChangesTheUrlsOnly) {
  const TopoHandle plain = compile_ok(nodes("use_tls='false'", node(kId1)));
  const TopoHandle tls = compile_ok(nodes("use_tls='true'", node(kId1)));
  EXPECT_TRUE(tls->use_tls);
  EXPECT_STREQ(tls->hc[0].url_prefix, ("https://" + kId1 + ":8113").c_str());
  EXPECT_STREQ(plain->hc[0].url_prefix, ("http://" + kId1 + ":8113").c_str());
  EXPECT_STREQ(tls->hex_signature, plain->hex_signature);
}

TEST(TopoCompile, NumbersEndAtTheFirstOtherCharacter) {
  const TopoHandle tc = compile_ok(nodes("write_copies='1x'", node(kId1, "12abc")));
  EXPECT_EQ(tc->hc[0].weight, 12);
  EXPECT_EQ(tc->w_count, 1);
}

TEST(TopoCompile, AttributesTakeCharacterReferences) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1, "&#49;2")));
  EXPECT_EQ(tc->hc[0].weight, 12);
}

TEST(TopoCompile, OtherContentIsIgnored) {
  const TopoHandle tc =
      compile_ok("<nodes a='b'>text<!-- c --><other/>" + node(kId1) + "<x>" + node(kId2) + "</x></nodes>");
  EXPECT_EQ(tc->host_count, 1);
}

TEST(TopoCompile, MostNodesAndMostCopies) {
  const TopoHandle tc = compile_ok(many_nodes(128, 1, 10));
  EXPECT_EQ(tc->host_count, 128);
  EXPECT_EQ(tc->w_count, 10);
}

// ---- write_copies ----

TEST(TopoCompile, OneNodeHasOneCopyByDefault) {
  EXPECT_EQ(compile_ok(nodes("", node(kId1)))->w_count, 1);
}

TEST(TopoCompile, CopiesBelowOneAreTheDefault) {
  const std::string two = node(kId1) + node(kId2);
  for (const char *value : {"0", "-3", "", "x", "-99999999999999999999"}) {
    const std::string attribute = "write_copies='" + std::string(value) + "'";
    EXPECT_EQ(compile_ok(nodes(attribute, two))->w_count, 2) << value;
    EXPECT_EQ(compile_ok(nodes(attribute, node(kId1)))->w_count, 1) << value;  // counts as defaulted
  }
}

TEST(TopoCompile, MoreCopiesThanNodes) {
  const LogCapture errors(&ruxo_error);
  EXPECT_EQ(error_of(nodes("write_copies='2'", node(kId1))),
            "invalid topology: write_copies 2 > node count 1");
  EXPECT_EQ(error_of(nodes("write_copies='10'", node(kId1) + node(kId2))),
            "invalid topology: write_copies 10 > node count 2");
  EXPECT_EQ(errors.lines(), (std::vector<std::string>{"invalid topology: write_copies 2 > node count 1\n",
                                                      "invalid topology: write_copies 10 > node count 2\n"}));
}

TEST(TopoCompile, MoreThanTenCopies) {
  const LogCapture errors(&ruxo_error);
  EXPECT_EQ(error_of(nodes("write_copies='11'", "")),
            "invalid topology: write_copies 11 exceeds the max number of nodes 10");
  EXPECT_EQ(error_of(nodes("write_copies='99999999999999999999'", "")),
            "invalid topology: write_copies 9223372036854775807 exceeds the max number of nodes 10");
  ASSERT_EQ(errors.lines().size(), 2u);
  EXPECT_EQ(errors.lines()[0], "invalid topology: write_copies 11 exceeds the max number of nodes 10\n");
}

TEST(TopoCompile, DeprecatedNameOfCopies) {
  const std::string three = node(kId1) + node(kId2) + node(kId3);
  const LogCapture errors(&ruxo_error);
  EXPECT_EQ(compile_ok(nodes("n='3'", three))->w_count, 3);
  EXPECT_EQ(compile_ok(nodes("n='3' write_copies='1'", three))->w_count, 1);  // then "n" is not read
  EXPECT_EQ(error_of(nodes("n='0'", node(kId1)), "abc"),
            "invalid topology signature, should be " +
                std::string(compile_ok(nodes("", node(kId1)))->hex_signature) + "\n");
  EXPECT_EQ(errors.lines(),
            (std::vector<std::string>{"topo \"(null)\" using deprecated \"n\" instead of \"write_copies\"\n",
                                      "topo \"abc\" using deprecated \"n\" instead of \"write_copies\"\n"}));
}

// ---- The root ----

TEST(TopoCompile, BadUseTlsIsLoggedAndFails) {
  const LogCapture errors(&ruxo_error);
  EXPECT_EQ(error_of(nodes("use_tls='yes'", node(kId1)), "feed"), kGeneral);
  EXPECT_EQ(error_of(nodes("use_tls=''", node(kId1))), kGeneral);
  EXPECT_EQ(errors.lines(), (std::vector<std::string>{"topo \"feed\" has bad value for \"use_tls\"\n",
                                                      "topo \"(null)\" has bad value for \"use_tls\"\n"}));
}

TEST(TopoCompile, OtherRootsAndNoNodes) {
  EXPECT_EQ(error_of("<topology>" + node(kId1) + "</topology>"), kGeneral);
  EXPECT_EQ(error_of("<nodes xmlns='urn:x'>" + node(kId1) + "</nodes>"), kGeneral);
  EXPECT_EQ(error_of("<nodes/>"), kGeneral);
  EXPECT_EQ(error_of("<nodes><x>" + node(kId1) + "</x></nodes>"), kGeneral);
}

TEST(TopoCompile, NoDocumentAndAnEmptyOne) {
  char *err = nullptr;
  EXPECT_EQ(topo_compile(nullptr, nullptr, &err), nullptr);
  EXPECT_EQ(take(err), kGeneral);
  const DocPtr empty(xmlNewDoc(reinterpret_cast<const xmlChar *>("1.0")));
  EXPECT_EQ(topo_compile(empty.get(), nullptr, &err), nullptr);
  EXPECT_EQ(take(err), kGeneral);
  EXPECT_EQ(topo_compile(empty.get(), nullptr, nullptr), nullptr);
}

TEST(TopoCompile, MoreThan128Nodes) {
  EXPECT_EQ(error_of(many_nodes(129, 1, 2)), kGeneral);
  // A fault of a node, and of the sides, comes first.
  std::string content;
  for (unsigned i = 0; i < 129; ++i) content += node(numbered_id(i), "1", i == 0 ? "side='a'" : "");
  EXPECT_EQ(error_of(nodes("", content)), "mixed sided/unsided config");
  EXPECT_EQ(error_of(nodes("", content + node(kId1, "0"))),
            "node '" + kId1 + "': weight must > 0 and <= 65535\n");
}

// ---- Nodes ----

TEST(TopoCompile, BadIds) {
  EXPECT_EQ(error_of_node(node_with("id", nullptr)), "bad id: (null)\n");
  EXPECT_EQ(error_of_node(node_with("id", "")), "bad id: \n");
  EXPECT_EQ(error_of_node(node_with("id", "no-uuid")), "bad id: no-uuid\n");
  const std::string upper = "AAAAAAAA-bbbb-4ccc-8ddd-eeeeeeeeeeee";
  EXPECT_EQ(error_of_node(node_with("id", upper.c_str())),
            "bad id: " + upper + " (should be all lower-case letters in uuid)\n");
  EXPECT_EQ(error_of_node(node_with("id", (kId1 + "0").c_str())), "bad id: " + kId1 + "0\n");
}

TEST(TopoCompile, LongMessagesAreCut) {
  const std::string id(1000, 'x');
  const std::string message = error_of_node(node_with("id", id.c_str()));
  EXPECT_EQ(message, ("bad id: " + id).substr(0, 255));
  // Format characters from the document stay text.
  EXPECT_EQ(error_of_node(node_with("id", "%s%n%d")), "bad id: %s%n%d\n");
}

TEST(TopoCompile, MissingAttributes) {
  for (const char *name : {"port", "address", "weight", "apiport"}) {
    EXPECT_EQ(error_of_node(node_with(name, nullptr)),
              "port, apiport, address and weight must be specified.\n")
        << name;
  }
}

TEST(TopoCompile, NumbersOutOfRange) {
  for (const char *name : {"weight", "port", "apiport"}) {
    for (const char *value : {"0", "-1", "-65535", "65536", "65537", "131072", "", "x",
                              "99999999999999999999", "-99999999999999999999", "18446744073709551617"}) {
      EXPECT_EQ(error_of_node(node_with(name, value)),
                "node '" + kId1 + "': " + name + " must > 0 and <= 65535\n")
          << value;
    }
    EXPECT_NE(compile_ok(nodes("", node_with(name, "65535"))), nullptr);
    EXPECT_NE(compile_ok(nodes("", node_with(name, " +1"))), nullptr);
  }
}

TEST(TopoCompile, AddressesThatCannotBeRead) {
  // Neither is a name that a resolver would send anywhere.
  for (const char *address : {"", "256.256.256.256.256", "a b"}) {
    EXPECT_EQ(error_of_node(node_with("address", address)),
              "node '" + kId1 + "': can't interpret address " + address + "\n");
  }
}

TEST(TopoCompile, BadSides) {
  for (const char *side : {"c", "A", "", "ab"}) {
    EXPECT_EQ(error_of_node(node(kId1, "10", "side='" + std::string(side) + "'")),
              "node '" + kId1 + "': side must be a,b, or both\n");
  }
}

TEST(TopoCompile, TheFirstFaultWins) {
  const std::string bad_weight = node(kId1, "0");
  EXPECT_EQ(error_of(nodes("", bad_weight + node("x"))),
            "node '" + kId1 + "': weight must > 0 and <= 65535\n");
  EXPECT_EQ(error_of(nodes("", node("x") + bad_weight)), "bad id: x\n");
  const std::string all_bad = "<node id='" + kId1 + "' weight='0' port='0' apiport='0' address='' side='c'/>";
  EXPECT_EQ(error_of_node(all_bad), "node '" + kId1 + "': weight must > 0 and <= 65535\n");
  const std::string weight_good =
      "<node id='" + kId1 + "' weight='1' port='0' apiport='0' address='' side='c'/>";
  EXPECT_EQ(error_of_node(weight_good), "node '" + kId1 + "': port must > 0 and <= 65535\n");
  const std::string port_good =
      "<node id='" + kId1 + "' weight='1' port='1' apiport='0' address='' side='c'/>";
  EXPECT_EQ(error_of_node(port_good), "node '" + kId1 + "': apiport must > 0 and <= 65535\n");
  const std::string apiport_good =
      "<node id='" + kId1 + "' weight='1' port='1' apiport='1' address='' side='c'/>";
  EXPECT_EQ(error_of_node(apiport_good), "node '" + kId1 + "': can't interpret address \n");
}

TEST(TopoCompile, TheSameIdTwice) {
  const LogCapture errors(&ruxo_error);
  const std::string message = "Same uuid '" + kId1 + "' for different nodes.\n";
  EXPECT_EQ(error_of(nodes("", node(kId1) + node(kId2) + node(kId1, "20"))), message);
  EXPECT_EQ(errors.lines(), (std::vector<std::string>{message}));
}

// ---- Sides ----

std::string sided(int a, int b, int both, int copies) {
  std::string content;
  unsigned number = 0;
  for (int i = 0; i < a; ++i) content += node(numbered_id(number++), "5", "side='a'");
  for (int i = 0; i < b; ++i) content += node(numbered_id(number++), "5", "side='b'");
  for (int i = 0; i < both; ++i) content += node(numbered_id(number++), "5", "side='both'");
  return nodes("write_copies='" + std::to_string(copies) + "'", content);
}

TEST(TopoCompile, EnoughNodesOnEachSide) {
  EXPECT_TRUE(compile_ok(sided(2, 2, 0, 4))->use_side);
  EXPECT_TRUE(compile_ok(sided(1, 3, 0, 2))->use_side);
  EXPECT_TRUE(compile_ok(sided(3, 3, 0, 5))->use_side);
  EXPECT_EQ(error_of(sided(2, 2, 0, 4 + 1)), "invalid topology: write_copies 5 > node count 4");
  EXPECT_EQ(error_of(sided(2, 3, 0, 5)), "|side| < write_copies");
  EXPECT_EQ(error_of(sided(1, 3, 0, 3)), "|side| < write_copies");
  EXPECT_EQ(error_of(sided(2, 0, 0, 2)), "|side| < write_copies");
  EXPECT_EQ(error_of(sided(0, 2, 0, 2)), "|side| < write_copies");
}

TEST(TopoCompile, OneCopyCannotServeTwoSides) {
  EXPECT_EQ(error_of(sided(1, 1, 0, 1)), "write_copies < # sides");
  EXPECT_EQ(error_of(sided(1, 0, 1, 1)), "write_copies < # sides");
  EXPECT_EQ(error_of(nodes("", node(kId1, "1", "side='a'"))), "write_copies < # sides");
}

TEST(TopoCompile, SidedAndUnsidedNodesDoNotMix) {
  EXPECT_EQ(error_of(sided(1, 0, 1, 2)), "mixed sided/unsided config");
  EXPECT_EQ(error_of(sided(2, 2, 1, 2)), "mixed sided/unsided config");
}

// ---- The expected signature ----

TEST(TopoCompile, SignatureIsComparedInAnyCase) {
  const std::string xml = nodes("", node(kId1) + node(kId2));
  const std::string signature = compile_ok(xml)->hex_signature;
  std::string upper = signature;
  for (char &digit : upper) digit = static_cast<char>(toupper(digit));
  EXPECT_NE(compile(xml, signature.c_str()).tc, nullptr);
  EXPECT_NE(compile(xml, upper.c_str()).tc, nullptr);
  EXPECT_EQ(error_of(xml, ""), "invalid topology signature, should be " + signature + "\n");
  EXPECT_EQ(error_of(xml, (signature + "0").c_str()),
            "invalid topology signature, should be " + signature + "\n");
}

TEST(TopoCompile, ReportsToTheDebugStream) {
  ruxo_log_stream_t stream = nullptr;
  const LogCapture debug(&stream);
  topo_set_debug(stream);
  const TopoHandle tc = compile_ok(nodes("", node(kId1, "2")));
  topo_set_debug(nullptr);
  ASSERT_EQ(debug.lines().size(), 3u);  // two points of the ring, then
  EXPECT_EQ(debug.lines()[2], "compile topo: " + std::string(tc->hex_signature) + "\n");
}

// ---- Documents that a host parsed by itself ----

DocPtr parse_freely(const std::string &xml) {
  return DocPtr(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NONET));
}

std::string document_with_type(const std::string &declarations, const std::string &weight) {
  return "<!DOCTYPE nodes [" + declarations + "]>" + nodes("", node(kId1, weight));
}

TEST(TopoCompile, EntitiesOfPlainTextAreRead) {
  const DocPtr doc = parse_freely(document_with_type("<!ENTITY w '34'>", "12&w;5"));
  const TopoHandle tc(topo_compile(doc.get(), nullptr, nullptr));
  ASSERT_NE(tc, nullptr);
  EXPECT_EQ(tc->hc[0].weight, 12345);
}

TEST(TopoCompile, EntitiesThatExpandAreRefused) {
  std::string declarations = "<!ENTITY e0 '1'>";
  for (int i = 1; i < 30; ++i) {
    const std::string previous = "&e" + std::to_string(i - 1) + ";";
    declarations += "<!ENTITY e" + std::to_string(i) + " '" + previous + previous + "'>";
  }
  DocPtr doc = parse_freely(document_with_type("<!ENTITY e0 '1'><!ENTITY e1 '&e0;&e0;'>", "&e1;"));
  ASSERT_NE(doc, nullptr);
  char *err = nullptr;
  EXPECT_EQ(topo_compile(doc.get(), nullptr, &err), nullptr);
  EXPECT_EQ(take(err), kGeneral);
  doc = parse_freely(document_with_type("<!ENTITY e '" + std::string(60000, '1') + "'>", "&e;&e;"));
  ASSERT_NE(doc, nullptr);
  EXPECT_EQ(topo_compile(doc.get(), nullptr, &err), nullptr);
  EXPECT_EQ(take(err), kGeneral);
}

TEST(TopoCompile, AttributesMayHaveDeclaredDefaults) {
  const DocPtr doc =
      parse_freely("<!DOCTYPE nodes [<!ATTLIST node weight CDATA '7' side CDATA #IMPLIED>]>" +
                   nodes("", "<node id='" + kId1 + "' address='127.0.0.1' port='1' apiport='2'/>"));
  const TopoHandle tc(topo_compile(doc.get(), nullptr, nullptr));
  ASSERT_NE(tc, nullptr);
  EXPECT_EQ(tc->hc[0].weight, 7);
}

// ---- Broken invariants and exhausted memory ----

TEST(TopoCompileDeathTest, AnIdWithoutTextIsFatal) {
  // The id is written for its check, for the signature and for the node: the third time counts.
  ids_before_blank = 2;
  EXPECT_DEATH(compile(nodes("", node(kId1))),
               "\\[FATAL\\] assertion \\(hc->id_str\\[0\\]\\) at topo/topo_compile\\.cpp:[0-9]+ failed");
  ids_before_blank = -1;
}

// Runs `call` with the first, the second, ... allocation failing until none does. Returns how many did.
template <class Call>
long fail_each_allocation(Call call) {
  for (int n = 0;; ++n) {
    const faults::Fail no_memory(faults::Call::allocation, ENOMEM, n + 1, 1);
    call();
    if (!no_memory.hit()) return n;
  }
}

TEST(TopoCompile, EveryFailingAllocationIsAnErrorAndLeaksNothing) {
  const DocPtr doc = parse(nodes("", node(kId1) + node(kId2)));
  long compiled = 0;
  const long failures = fail_each_allocation([&] {
    char *err = nullptr;
    const TopoHandle tc(topo_compile(doc.get(), nullptr, &err));
    compiled += tc != nullptr;
    free(err);
  });
  EXPECT_EQ(compiled, 1);
  EXPECT_GE(failures, 10);  // topology, nodes, 2 names, 2 URLs, and the four arrays of the ring
}

TEST(TopoCompile, FaultsAreReportedWithoutMemoryToo) {
  for (const std::string &xml : {nodes("", node("x")), nodes("", ""), nodes("", node(kId1) + node(kId1))}) {
    const LogCapture errors(&ruxo_error);
    const DocPtr doc = parse(xml);
    EXPECT_GT(fail_each_allocation([&] {
                char *err = nullptr;
                EXPECT_EQ(topo_compile(doc.get(), nullptr, &err), nullptr);
                free(err);
              }),
              0);
  }
}

TEST(TopoParseDocument, FaultsAreReportedWithoutMemoryToo) {
  for (const std::string_view xml : {"", "<nodes>", "<!DOCTYPE a><a/>"}) {
    EXPECT_GT(fail_each_allocation([&] {
                char *err = nullptr;
                EXPECT_EQ(topo_parse_document(xml.data(), xml.size(), &err), nullptr);
                free(err);
              }),
              0);
  }
}

long open_files() {
  namespace fs = std::filesystem;
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

TEST(TopoParseDocumentFile, FilesAreClosedWithoutMemoryToo) {
  const TempDir dir;
  const long before = open_files();
  for (const std::string &path : {dir.file("none"), dir.write("large", std::string(40000, ' '))}) {
    EXPECT_GT(fail_each_allocation([&] {
                char *err = nullptr;
                EXPECT_EQ(topo_parse_document_file(path.c_str(), &err), nullptr);
                free(err);
              }),
              0);
  }
  EXPECT_EQ(open_files(), before);
}

}  // namespace
