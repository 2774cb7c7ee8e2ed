// The hash space cut into arcs: stretches in which every location has the same owners.
#ifndef ORLITH_RING_ARCS_H
#define ORLITH_RING_ARCS_H

#include <cstdint>
#include <functional>
#include <span>

#include "liborlith/topo/topo.h"
#include "orlith/wide.h"

// Arc lengths count locations by their leading 120 bits, so that sums of them always fit: the whole space is 2^120.
inline constexpr int kRingSpaceBits = 120;

// Calls `visit` for each arc in ascending order with its last location and its length. Owners can only change at the
// ring points of the topologies, at the same points mirrored to the other half of the ring, where further copies
// begin, and where a half ends and a sided topology starts over. `on_progress` (may be empty) is called with the arcs
// done since its last call.
void for_each_ring_arc(std::span<const topo_config *const> topologies,
                       const std::function<void(const uint8_t *last, uint128 length)> &visit,
                       const std::function<void(uint64_t)> &on_progress);

// How many arcs that are, at most.
uint64_t ring_arc_count(std::span<const topo_config *const> topologies);

#endif
