// Any bytes as a topology document: they are refused with a message, or compile to a topology that has the
// promised form, whose two walks agree, and which compiles again under its own signature.
#include <libxml/tree.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "liborlith/topo/topo.h"

// Host names would be sent to a name server; documents of the fuzzer reach none. Linked in place of the
// system's.
struct addrinfo;
extern "C" int __wrap_getaddrinfo(const char *, const char *, const struct addrinfo *, struct addrinfo **) {
  return -2;  // the name is unknown
}

namespace {

constexpr long kMaxPoints = 20000;  // keeps one run short

void require(bool condition) {
  if (!condition) abort();
}

// An upper bound of the points, read without the code under test.
long count_points(const xmlNode *root) {
  long points = 0;
  for (const xmlNode *node = root == nullptr ? nullptr : root->children; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    xmlChar *weight = xmlGetProp(node, reinterpret_cast<const xmlChar *>("weight"));
    if (weight == nullptr) continue;
    points += strtol(reinterpret_cast<const char *>(weight), nullptr, 10) & 0xffff;
    xmlFree(weight);
  }
  return points;
}

void check_placement(const topo_config *tc, const uint8_t *location) {
  host_config *fast[TOPO_MAX_COPIES];
  host_config *slow[TOPO_MAX_COPIES];
  const int count = _topo_find_insertion_point_config(tc, location, fast, 0);
  require(count == tc->w_count);
  require(count == _topo_find_insertion_point_config_slow(tc, location, slow, 0));
  for (int i = 0; i < count; ++i) {
    require(fast[i] == slow[i]);
    for (int k = 0; k < i; ++k) require(fast[i] != fast[k]);
  }
}

void check_topology(xmlDoc *doc, topo_config *tc) {
  const int32_t last = static_cast<int32_t>(ruxo_skiplist_size(tc->ring)) - 1;
  require(tc->host_count >= 1 && tc->host_count <= TOPO_MAX_HOSTS);
  require(tc->w_count >= 1 && tc->w_count <= tc->host_count);
  for (int b = 0; b < FAST_SIZE; ++b) {
    const fast_search_hints_t &hint = tc->fast_search_hints[b];
    require(0 <= hint.lower && hint.lower <= hint.upper && hint.upper <= last);
  }
  uint8_t location[TOPO_HASH_SIZE];
  for (uint32_t i = 0; i < 64; ++i) {
    topo_hash(&i, sizeof i, location);
    check_placement(tc, location);
  }
  for (int32_t k = 0; k <= last; k += 1 + last / 32) check_placement(tc, tc->fast_loc_ring + 32 * k);
  topo_config *again = topo_compile(doc, tc->hex_signature, nullptr);
  require(again != nullptr);
  topo_free(again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ruxo_error = nullptr;  // faults are logged as well, which would take most of the time
  char *err = nullptr;
  xmlDoc *doc = topo_parse_document(reinterpret_cast<const char *>(data), size, &err);
  require((doc == nullptr) == (err != nullptr));
  free(err);
  if (doc == nullptr) return 0;
  if (count_points(xmlDocGetRootElement(doc)) <= kMaxPoints) {
    topo_config *tc = topo_compile(doc, nullptr, &err);
    require((tc == nullptr) == (err != nullptr));
    free(err);
    if (tc != nullptr) check_topology(doc, tc);
    topo_free(tc);
  }
  xmlFreeDoc(doc);
  return 0;
}
