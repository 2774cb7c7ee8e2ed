// Queries about a topology's nodes, and the one change to them: where a node is reached.
#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo.h"
#include "liborlith/topo/topo_private.h"

namespace {

// The nodes that `wanted` picks, in document order, into loc unless that is null. Returns their number.
template <class Wanted>
int collect(topo_config *tc, host_config **loc, Wanted wanted) {
  int count = 0;
  for (int i = 0; i < topo_size(tc); ++i) {
    host_config *host = &tc->hc[i];
    if (!wanted(host)) continue;
    if (loc != nullptr) loc[count] = host;
    ++count;
  }
  return count;
}

struct Draw {
  int index;
  long value;
};

int compare_draws(const void *a, const void *b) {
  const long left = static_cast<const Draw *>(a)->value;
  const long right = static_cast<const Draw *>(b)->value;
  return (left > right) - (left < right);
}

struct Free {
  void operator()(void *memory) const { free(memory); }
};

// Addresses and ports are read by other threads meanwhile: each is one word, old or new.
template <class Field>
void replace(Field &field, Field value) {
  std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

// Not checked, as documented: what is no number is port 0, and higher bits are cut off.
uint16_t port_from_text(const char *text) {
  return htons(static_cast<uint16_t>(strtol(text, nullptr, 10)));
}

}  // namespace

host_config *topo_contains(topo_config *conf, const unsigned char *hostid) {
  void *found = nullptr;
  if (conf == nullptr || ruxo_hash_retrieve(&conf->hostset, hostid, RUXO_UUID_SIZE, &found) == 0)
    return nullptr;
  return static_cast<host_config *>(found);
}

int topo_size(topo_config *tc) {
  return tc == nullptr ? 0 : tc->host_count;
}

int topo_n(topo_config *tc) {
  return tc == nullptr ? 0 : tc->w_count;
}

int topo_w(topo_config *tc) {
  return topo_n(tc);
}

ruxo_boolean topo_sided(topo_config *tc) {
  return tc != nullptr && tc->use_side;
}

topo_host_ringside_t topo_side(topo_config *tc, unsigned char *id) {
  if (tc == nullptr) {
    const host_config *self = topo_self_node();
    if (self != nullptr && topo_has_id(self, id)) return self->ringside;
    tc = topo_active();
  }
  for (int i = 0; i < topo_size(tc); ++i) {
    if (topo_has_id(&tc->hc[i], id)) return tc->hc[i].ringside;
  }
  return TOPO_RINGSIDE_BOTH;
}

int topo_get_all_nodes(topo_config *tc, host_config **loc) {
  return collect(tc, loc, [](const host_config *) { return true; });
}

int topo_get_all_nodes_except_self(topo_config *tc, host_config **loc) {
  if (loc == nullptr) return topo_size(tc);
  ruxo_uuid_t me;
  topo_me(me);
  return collect(tc, loc, [&me](const host_config *host) { return !topo_has_id(host, me); });
}

int topo_get_just_self(topo_config *tc, host_config **loc) {
  if (loc == nullptr) return 0;
  ruxo_uuid_t me;
  topo_me(me);
  host_config *self = topo_contains(tc, me);
  if (self == nullptr) return 0;
  *loc = self;
  return 1;
}

int topo_get_all_nodes_in_tcs(topo_config *tc0, topo_config *tc1, host_config **loc) {
  const int count = topo_get_all_nodes(tc0, loc);
  host_config **const rest = loc == nullptr ? nullptr : loc + count;
  return count + collect(tc1, rest,
                         [tc0](const host_config *host) { return topo_contains(tc0, host->id) == nullptr; });
}

int topo_get_all_nodes_on_side(topo_config *tc, host_config **loc, const unsigned char *my_id,
                               ruxo_boolean mine) {
  const host_config *me = topo_contains(tc, my_id);
  if (me == nullptr) return mine ? 0 : topo_get_all_nodes(tc, loc);
  if (me->ringside == TOPO_RINGSIDE_BOTH || !topo_sided(tc)) return mine ? topo_get_all_nodes(tc, loc) : 0;
  return collect(tc, loc, [&](const host_config *host) { return (host->ringside == me->ringside) == mine; });
}

int topo_randomize_hosts(topo_config *tc, host_config **h, int cnt) {
  const int wanted = std::min(cnt, topo_size(tc));
  if (wanted <= 0) return 0;
  const size_t size = static_cast<size_t>(topo_size(tc));
  const std::unique_ptr<Draw[], Free> draws(static_cast<Draw *>(calloc(size, sizeof(Draw))));
  liborlith_assert(draws);
  for (size_t i = 0; i < size; ++i) draws[i] = {static_cast<int>(i), random()};
  qsort(draws.get(), size, sizeof(Draw), compare_draws);
  for (int i = 0; i < wanted; ++i) h[i] = &tc->hc[draws[static_cast<size_t>(i)].index];
  return wanted;
}

int topo_update_ip(topo_config *conf, char *node_id, char *ip_address, char *port, char *apiport) {
  ruxo_uuid_t id;
  if (conf == nullptr || node_id == nullptr || ruxo_uuid_parse(node_id, id) != 0) return -1;
  host_config *host = topo_contains(conf, id);
  if (host == nullptr) return -1;
  in_addr address{};
  if (ip_address != nullptr && inet_aton(ip_address, &address) == 0) return -1;
  if (ip_address != nullptr) replace(host->net_address.s_addr, address.s_addr);
  if (port != nullptr) replace(host->net_port, port_from_text(port));
  if (apiport != nullptr) replace(host->net_apiport, port_from_text(apiport));
  return 0;
}
