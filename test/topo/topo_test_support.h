// What the topology tests share: documents written down in code, and topologies compiled from them.
#ifndef TEST_TOPO_TOPO_TEST_SUPPORT_H
#define TEST_TOPO_TOPO_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/topo/topo.h"

namespace topo_test {

inline const std::string kId1 = "11111111-1111-4111-8111-111111111111";
inline const std::string kId2 = "22222222-2222-4222-8222-222222222222";
inline const std::string kId3 = "33333333-3333-4333-8333-333333333333";
inline const std::string kId4 = "44444444-4444-4444-8444-444444444444";

using Location = std::array<uint8_t, TOPO_HASH_SIZE>;

struct DocFree {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocFree>;
struct TopoFreer {
  void operator()(topo_config *tc) const { topo_free(tc); }
};
using TopoHandle = std::unique_ptr<topo_config, TopoFreer>;

inline std::string take(char *text) {
  if (text == nullptr) return "(no message)";
  std::string result = text;
  free(text);
  return result;
}

inline DocPtr parse(std::string_view xml) {
  char *err = nullptr;
  DocPtr doc(topo_parse_document(xml.data(), xml.size(), &err));
  EXPECT_NE(doc, nullptr) << take(err) << "\n" << xml;
  return doc;
}

struct Compiled {
  TopoHandle tc;
  std::string error;  // "(no message)" where there is none
};

inline Compiled compile(std::string_view xml, const char *hexhash = nullptr) {
  const DocPtr doc = parse(xml);
  char *err = nullptr;
  Compiled result{TopoHandle(topo_compile(doc.get(), hexhash, &err)), ""};
  result.error = take(err);
  return result;
}

inline TopoHandle compile_ok(std::string_view xml) {
  Compiled result = compile(xml);
  EXPECT_NE(result.tc, nullptr) << result.error << xml;
  return std::move(result.tc);
}

// One <node/>; `rest` adds attributes such as side="a".
inline std::string node(const std::string &id, const std::string &weight = "10",
                        const std::string &rest = "") {
  return "<node id=\"" + id + "\" weight=\"" + weight +
         "\" address=\"127.0.0.1\" port=\"8112\" apiport=\"8113\" " + rest + "/>";
}

inline std::string nodes(const std::string &attributes, const std::string &content) {
  return "<nodes " + attributes + ">" + content + "</nodes>";
}

inline std::string numbered_id(unsigned number) {
  char id[37];
  snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", number, number * 7919);
  return id;
}

// `count` nodes numbered from 0, of one weight; with sides, a and b alternate.
inline std::string many_nodes(unsigned count, unsigned weight, unsigned write_copies, bool sided = false) {
  std::string content;
  for (unsigned i = 0; i < count; ++i) {
    const char *side = i % 2 == 0 ? "side=\"a\"" : "side=\"b\"";
    content += node(numbered_id(i), std::to_string(weight), sided ? side : "");
  }
  return nodes("write_copies=\"" + std::to_string(write_copies) + "\"", content);
}

inline std::string hex(const uint8_t *hash) {
  std::string text;
  char pair[3];
  for (size_t i = 0; i < TOPO_HASH_SIZE; ++i) {
    snprintf(pair, sizeof pair, "%02x", hash[i]);
    text += pair;
  }
  return text;
}

inline Location random_location(std::mt19937_64 &random) {
  Location location;
  for (uint8_t &byte : location) byte = static_cast<uint8_t>(random());
  return location;
}

inline std::array<uint8_t, 16> binary_id(const std::string &id) {
  std::array<uint8_t, 16> result;
  EXPECT_EQ(ruxo_uuid_parse(id.c_str(), result.data()), 0) << id;
  return result;
}

}  // namespace topo_test

#endif
