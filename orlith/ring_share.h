// Which part of the hash space, and of the data, each node of a topology holds.
#ifndef ORLITH_RING_SHARE_H
#define ORLITH_RING_SHARE_H

#include <cstdint>
#include <functional>
#include <vector>

#include "liborlith/topo/topo.h"

struct RingShare {
  double first = 0;  // of the hash space: locations whose first owner the node is
  double data = 0;   // of all copies together: what a node stores when names are spread evenly
};

// The shares of all nodes in document order; each column adds up to 1. Not an estimate: one placement for each arc of
// the ring tells everything. `on_progress` (may be empty) is called with the arcs done since its last call.
std::vector<RingShare> ring_shares(const topo_config &topology,
                                   const std::function<void(uint64_t)> &on_progress);

#endif
