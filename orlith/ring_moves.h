// What has to move when one topology gives way to another: who loses a copy, and who gets it.
#ifndef ORLITH_RING_MOVES_H
#define ORLITH_RING_MOVES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "liborlith/topo/topo.h"

// One copy that changes hands. An empty node id stands for nobody: a copy that is new, or given up.
struct CopyMove {
  std::string from, to;
  bool operator<(const CopyMove &other) const {
    return from != other.from ? from < other.from : to < other.to;
  }
  bool operator==(const CopyMove &other) const = default;
};

// The moves of what lies at a location (32 bytes). Nodes are the same when their ids are. Those that lose their copy
// and those that gain one are paired in the order of the copies; what is left over is paired with nobody.
std::vector<CopyMove> moves_at(const topo_config &before, const topo_config &after, const uint8_t *location);

struct MoveShare {
  CopyMove move;
  double share = 0;  // of the hash space: locations for which this move happens
};

// All moves with their shares, the largest first. Exact, by way of the arcs that both rings cut the space into.
std::vector<MoveShare> ring_moves(const topo_config &before, const topo_config &after,
                                  const std::function<void(uint64_t)> &on_progress);

#endif
