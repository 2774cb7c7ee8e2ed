#include "orlith/ring_moves.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <span>

#include "orlith/ring_arcs.h"

namespace {

struct Owners {
  Owners(const topo_config &topology, const uint8_t *location)
      : count(static_cast<size_t>(_topo_find_insertion_point_config(&topology, location, nodes, 0))) {}
  std::span<host_config *const> all() const { return {nodes, count}; }
  bool has(const host_config &node) const {
    return std::any_of(nodes, nodes + count, [&](const host_config *owner) {
      return memcmp(owner->id, node.id, sizeof node.id) == 0;
    });
  }
  host_config *nodes[TOPO_MAX_COPIES];
  size_t count;
};

// The owners that the other side lacks, in the order of the copies.
struct Difference {
  Difference(const Owners &owners, const Owners &other) {
    for (const host_config *node : owners.all())
      if (!other.has(*node)) nodes[count++] = node;
  }
  const char *id_at(size_t i) const { return i < count ? nodes[i]->id_str : ""; }
  const host_config *nodes[TOPO_MAX_COPIES];
  size_t count = 0;
};

// Calls visit(from, to) with node ids for each move at the location.
template <typename Visit>
void for_each_move(const topo_config &before, const topo_config &after, const uint8_t *location,
                   Visit visit) {
  const Owners old_owners(before, location), new_owners(after, location);
  const Difference losers(old_owners, new_owners), gainers(new_owners, old_owners);
  for (size_t i = 0; i < std::max(losers.count, gainers.count); ++i) visit(losers.id_at(i), gainers.id_at(i));
}

}  // namespace

std::vector<CopyMove> moves_at(const topo_config &before, const topo_config &after, const uint8_t *location) {
  std::vector<CopyMove> moves;
  for_each_move(before, after, location, [&](const char *from, const char *to) {
    moves.push_back({from, to});
  });
  return moves;
}

std::vector<MoveShare> ring_moves(const topo_config &before, const topo_config &after,
                                  const std::function<void(uint64_t)> &on_progress) {
  // Node ids are held by the topologies, so their addresses do as keys while the arcs are walked.
  std::map<std::pair<const char *, const char *>, uint128> lengths;
  const topo_config *const topologies[] = {&before, &after};
  for_each_ring_arc(
      topologies,
      [&](const uint8_t *last, uint128 length) {
        for_each_move(before, after, last, [&](const char *from, const char *to) {
          lengths[{from, to}] += length;
        });
      },
      on_progress);
  std::vector<MoveShare> shares;
  shares.reserve(lengths.size());
  for (const auto &[ends, length] : lengths)
    shares.push_back({{ends.first, ends.second}, std::ldexp(static_cast<double>(length), -kRingSpaceBits)});
  std::sort(shares.begin(), shares.end(), [](const MoveShare &a, const MoveShare &b) {
    return a.share != b.share ? a.share > b.share : a.move < b.move;
  });
  return shares;
}
