// From a topology document to a topology: the document's nodes, their signature and URLs, and the ring.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <libxml/tree.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo.h"
#include "liborlith/topo/topo_private.h"

namespace {

char *copy_text(const std::string &text) {
  char *copy = strdup(text.c_str());
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

// A topology with the document's nodes, which move into it, and nothing else.
TopoPtr start_topology(TopoDocument *document) {
  TopoPtr tc(static_cast<topo_config *>(calloc(1, sizeof(topo_config))));
  if (tc == nullptr) throw std::bad_alloc();
  const size_t count = document->hosts.size();
  tc->hc = static_cast<host_config *>(calloc(count, sizeof(host_config)));
  if (tc->hc == nullptr) throw std::bad_alloc();
  memcpy(tc->hc, document->hosts.data(), count * sizeof(host_config));
  document->hosts.clear();
  tc->host_count = static_cast<uint16_t>(count);
  tc->w_count = static_cast<uint16_t>(document->write_copies);
  tc->use_tls = document->use_tls;
  ruxo_hash_init(&tc->hostset);
  return tc;
}

void append_connect_to(topo_config *tc, const std::string &entry) {
  curl_slist *longer = curl_slist_append(tc->connect_to, entry.c_str());
  if (longer == nullptr) throw std::bad_alloc();
  tc->connect_to = longer;
}

// The request URL names the node by its id, and libcurl is told where that "host" really is. So certificates
// and virtual hosts are the same wherever a node moves.
void complete_host(topo_config *tc, host_config *hc) {
  ruxo_uuid_unparse_lower(hc->id, hc->id_str);
  liborlith_assert(hc->id_str[0]);
  hc->topo = tc;
  const std::string id = hc->id_str;
  const std::string apiport = std::to_string(ntohs(hc->net_apiport));
  hc->url_prefix = copy_text("http" + std::string(tc->use_tls ? "s" : "") + "://" + id + ":" + apiport);
  if (hc->hostname == nullptr) {
    char address[INET_ADDRSTRLEN];
    hc->hostname = copy_text(inet_ntop(AF_INET, &hc->net_address, address, sizeof address));
  }
  append_connect_to(tc, id + ":" + apiport + ":" + hc->hostname + ":" + apiport);
}

void sign_topology(topo_config *tc) {
  const std::span<const host_config> hosts(tc->hc, tc->host_count);
  for (const host_config &host : hosts) tc->use_side |= host.ringside != TOPO_RINGSIDE_BOTH;
  topo_sign(hosts, tc->w_count, tc->use_side, tc->signature);
  // Byte by byte on purpose: here even a signature of zeros would be written out.
  for (size_t i = 0; i < TOPO_HASH_SIZE; ++i)
    snprintf(tc->hex_signature + 2 * i, 3, "%02x", tc->signature[i]);
}

TopoPtr compile(xmlDocPtr doc, const char *hexhash) {
  TopoDocument document;
  topo_read_document(doc, hexhash, &document);
  TopoPtr tc = start_topology(&document);
  sign_topology(tc.get());
  for (size_t i = 0; i < tc->host_count; ++i) complete_host(tc.get(), &tc->hc[i]);
  topo_build_ring(tc.get());
  if (hexhash != nullptr && strcasecmp(hexhash, tc->hex_signature) != 0) {
    throw TopoFault("invalid topology signature, should be " + std::string(tc->hex_signature) + "\n");
  }
  ruxo_log(topo_debug, "compile topo: %s\n", tc->hex_signature);
  return tc;
}

}  // namespace

topo_config *topo_compile(xmlDocPtr doc, const char *hexhash, char **err) {
  constexpr char kGeneralMessage[] = "XML parse error";
  if (err != nullptr) *err = nullptr;
  try {
    return compile(doc, hexhash).release();
  } catch (const TopoFault &fault) {
    if (err != nullptr) *err = strdup(*fault.what() == '\0' ? kGeneralMessage : fault.what());
  } catch (const std::bad_alloc &) {
    if (err != nullptr) *err = strdup(kGeneralMessage);
  }
  return nullptr;
}

void topo_free(topo_config *tc) {
  if (tc == nullptr) return;
  ruxo_hash_destroy(&tc->hostset, nullptr);
  for (size_t i = 0; tc->hc != nullptr && i < tc->host_count; ++i) {
    free(tc->hc[i].hostname);
    free(tc->hc[i].url_prefix);
  }
  free(tc->hc);
  // All slots are one block, which the first of them begins. The table of them is the list's own.
  if (tc->fast_slot_ring != nullptr) free(tc->fast_slot_ring[0]);
  if (tc->ring != nullptr) ruxo_skiplist_destroy(tc->ring, nullptr);
  free(tc->fast_loc_ring);
  free(tc->fast_search_hints);
  curl_slist_free_all(tc->connect_to);
  free(tc->ca_chain);
  free(tc);
}
