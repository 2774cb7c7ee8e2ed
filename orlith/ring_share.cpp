#include "orlith/ring_share.h"

#include <cmath>

#include "orlith/ring_arcs.h"

std::vector<RingShare> ring_shares(const topo_config &topology,
                                   const std::function<void(uint64_t)> &on_progress) {
  std::vector<uint128> first(topology.host_count), data(topology.host_count);
  const topo_config *const topologies[] = {&topology};
  for_each_ring_arc(
      topologies,
      [&](const uint8_t *last, uint128 length) {
        host_config *owners[TOPO_MAX_COPIES];
        const int count = _topo_find_insertion_point_config(&topology, last, owners, 0);
        for (int i = 0; i < count; ++i) data[static_cast<size_t>(owners[i] - topology.hc)] += length;
        first[static_cast<size_t>(owners[0] - topology.hc)] += length;
      },
      on_progress);
  const double whole = std::ldexp(1.0, kRingSpaceBits);
  std::vector<RingShare> shares(first.size());
  for (size_t i = 0; i < shares.size(); ++i)
    shares[i] = {static_cast<double>(first[i]) / whole,
                 static_cast<double>(data[i]) / whole / topology.w_count};
  return shares;
}
