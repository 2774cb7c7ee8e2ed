// What the files of this folder share.
#ifndef LIBORLITH_TOPO_PRIVATE_H
#define LIBORLITH_TOPO_PRIVATE_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "liborlith/topo/topo.h"

// Where rings and compiled topologies are reported; null is off. Set by topo_set_debug.
extern ruxo_log_stream_t topo_debug;

// ---- Signature records: hashed as they lie in memory, so their layout is part of the format. ----

struct host_config_sigpart {
  char id_str[37];
  uint8_t padding;
  uint16_t net_weight;  // big-endian
};
static_assert(sizeof(host_config_sigpart) == 40 && offsetof(host_config_sigpart, net_weight) == 38);

struct host_config_sigpart_withside {
  char id_str[37];
  uint8_t padding;
  uint16_t net_weight;  // big-endian
  uint16_t ringside;    // big-endian
};
static_assert(sizeof(host_config_sigpart_withside) == 42 &&
              offsetof(host_config_sigpart_withside, ringside) == 40);

// Writes the signature of the nodes and the copy count.
void topo_sign(std::span<const host_config> hosts, int write_copies, bool sided, uint8_t *signature);

// ---- Compilation ----

// A fault of the document: what() is the message for the caller; an empty one stands for the general message.
class TopoFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct TopoFree {
  void operator()(topo_config *tc) const { topo_free(tc); }
};
using TopoPtr = std::unique_ptr<topo_config, TopoFree>;

// Nodes as they are read; owns their texts until they are moved into a topology.
struct TopoDocument {
  TopoDocument() = default;
  TopoDocument(const TopoDocument &) = delete;
  TopoDocument &operator=(const TopoDocument &) = delete;
  ~TopoDocument() {
    for (const host_config &host : hosts) free(host.hostname);
  }

  std::vector<host_config> hosts;  // id, weight, addresses, side and hostname are set
  int write_copies = 0;
  bool use_tls = false;
};

// Reads and checks a document; throws TopoFault at the first fault. `hexhash` is only named in log lines.
void topo_read_document(struct _xmlDoc *doc, const char *hexhash, TopoDocument *out);

// ---- Nodes ----

inline bool topo_has_id(const host_config *host, const unsigned char *id) {
  return memcmp(host->id, id, RUXO_UUID_SIZE) == 0;
}

// ---- Ring ----

// The place of a location on the ring, 0 to 100.
double topo_ring_percent(const uint8_t *location);

// The first eight bytes of a location as a number: locations of different prefixes are ordered as these are.
inline uint64_t topo_location_prefix(const uint8_t *location) {
  uint64_t prefix;
  memcpy(&prefix, location, sizeof prefix);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  prefix = __builtin_bswap64(prefix);
#endif
  return prefix;
}

// Puts a location into the half of the ring that belongs to a side.
inline void topo_move_to_side(uint8_t *location, topo_host_ringside_t side) {
  if (side == TOPO_RINGSIDE_A) location[0] &= 0x7f;
  if (side == TOPO_RINGSIDE_B) location[0] |= 0x80;
}

// Orders slot with slot, and a bare location with a slot.
int topo_locator(const void *a, const void *b);
int topo_locator_k(const void *key, const void *slot);

// Writes the locations (32 bytes each) of `count` points of a node, numbered from `first`: the hashes of its
// 36 id characters followed by the point's number as two bytes, big-endian.
void topo_hash_points(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations);
// The form for any processor, which the one above falls back to.
void topo_hash_points_portable(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations);

// The search tables of a ring. All arrays are from malloc.
struct TopoRingTables {
  host_config_slot *slots;  // in ring order
  uint8_t *locations;       // the same locations again, close together
  fast_search_hints_t *hints;
  size_t size;  // number of points
};

// Builds the tables from each node's points, whose locations `hash_points` writes before they move to a side.
// Of points with equal locations only the first in document order is kept. Throws std::bad_alloc.
using TopoHashPoints = void (*)(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations);
TopoRingTables topo_build_ring_tables(host_config *hosts, size_t host_count, TopoHashPoints hash_points);

// Fills hostset, ring and the search tables from newconf->hc; throws TopoFault or std::bad_alloc.
void topo_build_ring(topo_config *newconf);

// Index of the first point at or after a location, 0 when it lies after all of them.
int32_t topo_ring_search(const topo_config *tc, const uint8_t *location);

// ---- Lifecycle ----

host_config *topo_self_node();

#endif
