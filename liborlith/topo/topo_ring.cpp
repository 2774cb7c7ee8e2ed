// Placement: finding a location on the ring and walking to its owners.
//
// Facts about a compiled ring that the code below leans on:
//   - slots lie in ring order in one block, which fast_slot_ring[0] begins (topo_free needs that as well);
//   - the last hint's upper is the index of the last point;
//   - the points of a bucket are between its hints, and the first point at or after any location of the bucket
//     is between lower and upper, or it is upper + 1 == size (then the location is beyond all points).
#include "liborlith/topo/topo.h"

#include <algorithm>
#include <cstring>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo_private.h"

namespace {

constexpr uint8_t kTopBit = 0x80;
constexpr int32_t kWindow = 6;  // points compared around a guess

// ---- Search ----

struct Ring {
  const host_config_slot *slots;
  const fast_search_hints_t *hints;
  int32_t last;  // index of the last point
};

Ring ring_of(const topo_config *tc) {
  return {tc->fast_slot_ring[0], tc->fast_search_hints, tc->fast_search_hints[FAST_SIZE - 1].upper};
}

// A location as the search wants it: the first 64 bits decide nearly always. Going to the other half only
// touches `prefix`, never the bytes, because reading back bytes just written would stall the processor for
// longer than a search takes.
struct Location {
  explicit Location(const uint8_t *hash) : prefix(topo_location_prefix(hash)), bytes(hash) {}
  Location mirrored() const {
    Location result = *this;
    result.prefix ^= uint64_t{1} << 63;
    return result;
  }
  bool is_upper() const { return prefix >> 63 != 0; }

  uint64_t prefix;
  const uint8_t *bytes;  // 32 of them; the first 8 may differ from the prefix in the top bit
};

uint64_t prefix_of(const host_config_slot &slot) {
  return topo_location_prefix(slot.location);
}

bool is_below(const host_config_slot &slot, Location location) {
  const uint64_t prefix = prefix_of(slot);
  if (prefix != location.prefix) return prefix < location.prefix;
  constexpr size_t kDecided = sizeof prefix;
  return memcmp(slot.location + kDecided, location.bytes + kDecided, TOPO_HASH_SIZE - kDecided) < 0;
}

// Index of the first point in [first, end) that is not below the location; end when there is none.
int32_t lower_bound(Ring ring, int32_t first, int32_t end, Location location) {
  while (first < end) {
    const int32_t mid = first + (end - first) / 2;
    if (is_below(ring.slots[mid], location)) {
      first = mid + 1;
    } else {
      end = mid;
    }
  }
  return first;
}

// The same for an answer that is likely near `first`, and for one likely near `end`: strides double from
// there on.
int32_t gallop_up(Ring ring, int32_t first, int32_t end, Location location) {
  int32_t stride = 1;
  for (; stride <= end - first && is_below(ring.slots[first + stride - 1], location); stride *= 2)
    first += stride;
  return lower_bound(ring, first, first + std::min(stride, end - first), location);
}

int32_t gallop_down(Ring ring, int32_t first, int32_t end, Location location) {
  int32_t stride = 1;
  for (; stride <= end - first && !is_below(ring.slots[end - stride], location); stride *= 2) end -= stride;
  return lower_bound(ring, end - std::min(stride, end - first), end, location);
}

// The rare cases of the search below: the ring is shorter than the window, the answer is not inside the
// window, or a point shares the location's prefix.
[[gnu::noinline]] int32_t search_beside(Ring ring, Location location, fast_search_hints_t hint,
                                        int32_t begin) {
  if (hint.upper < kWindow) return lower_bound(ring, hint.lower, hint.upper + 1, location);
  const int32_t window_last = begin + kWindow - 1;
  if (is_below(ring.slots[window_last], location)) {
    return gallop_up(ring, window_last + 1, hint.upper + 1, location);
  }
  return gallop_down(ring, hint.lower, window_last, location);
}

// The first point that is not below the location, between the hints of its bucket. Locations are spread
// evenly, so the place of this one in its bucket tells by proportion where to look; counting the points below
// it in a small window there needs no branches and touches neighbouring memory. Placement waits for memory,
// and the fewer instructions it takes, the further the processor runs ahead to the next locations: hence the
// care here.
inline int32_t first_not_below(Ring ring, Location location) {
  const fast_search_hints_t hint = ring.hints[location.prefix >> (64 - FAST_SIZE_BITS)];
  const uint64_t fraction = (location.prefix << FAST_SIZE_BITS) >> 32;
  const uint64_t span = static_cast<uint64_t>(hint.upper - hint.lower);
  const int32_t guess = hint.lower + static_cast<int32_t>((fraction * span) >> 32);
  const int32_t begin = std::min(std::max(guess - kWindow / 2, 0), hint.upper + 1 - kWindow);
  if (begin < 0) [[unlikely]]
    return search_beside(ring, location, hint, begin);
  int32_t below = 0;
#pragma GCC unroll 8
  for (int32_t i = 0; i < kWindow; ++i) below += prefix_of(ring.slots[begin + i]) < location.prefix;
  const bool is_inside = below < kWindow && (below > 0 || begin <= hint.lower);
  if (is_inside && prefix_of(ring.slots[begin + below]) != location.prefix) [[likely]]
    return begin + below;
  return search_beside(ring, location, hint, begin);
}

int32_t search(Ring ring, Location location) {
  const int32_t index = first_not_below(ring, location);
  return index > ring.last ? 0 : index;
}

// ---- The two walks ----

int checked_copies(const topo_config *tc, int count) {
  const int return_count = count != 0 && count < tc->w_count ? count : tc->w_count;
  liborlith_assert(return_count >= 1);
  return std::min(return_count, TOPO_MAX_COPIES);
}

bool in_upper_half(const uint8_t *location) {
  return (location[0] & kTopBit) != 0;
}

bool contains_node(host_config *const *loc, int count, const host_config *node) {
  for (int i = 0; i < count; ++i) {
    if (loc[i] == node) return true;
  }
  return false;
}

int32_t successor(Ring ring, int32_t index) {
  return index == ring.last ? 0 : index + 1;
}

// Sided topologies keep each copy in its half: the first point from `index` on in the half of the location.
int32_t first_in_half(Ring ring, int32_t index, bool upper) {
  for (int32_t steps = 0; steps < ring.last && in_upper_half(ring.slots[index].location) != upper; ++steps) {
    index = successor(ring, index);
  }
  return index;
}

// The first point after `index` on the wanted side whose node is not yet an owner. Once round the ring
// without one means that there are fewer eligible nodes than copies.
[[gnu::noinline]] int32_t walk_to_new_owner(Ring ring, int32_t index, topo_host_ringside_t side,
                                            host_config *const *loc, int owner_count) {
  for (int32_t steps = 0; steps < ring.last; ++steps) {
    index = successor(ring, index);
    const host_config *node = ring.slots[index].node;
    if (node->ringside == side && !contains_node(loc, owner_count, node)) return index;
  }
  liborlith_assert(0);
  return 0;
}

topo_host_ringside_t side_of_half(bool upper) {
  return upper ? TOPO_RINGSIDE_B : TOPO_RINGSIDE_A;
}

// Makes the first eligible node from `index` on the owner of copy i; the index of its point is the result.
template <bool sided>
int32_t take_owner(Ring ring, int32_t index, bool upper, host_config **loc, int i) {
  if (sided) index = first_in_half(ring, index, upper);
  if (contains_node(loc, i, ring.slots[index].node)) {
    index = walk_to_new_owner(ring, index, sided ? side_of_half(upper) : TOPO_RINGSIDE_BOTH, loc, i);
  }
  loc[i] = ring.slots[index].node;
  return index;
}

// Copies alternate between the halves of the ring: copy 0 starts at the location, copy 1 at its mirror in the
// other half, and every later copy goes on behind the owner two before it, in whose half it is. All points
// that it thereby passes over belong to owners, which is why the reference walk, starting anew each time,
// finds the same nodes.
template <bool sided>
void fast_walk(Ring ring, Location location, host_config **loc, int copies) {
  const bool halves[2] = {location.is_upper(), !location.is_upper()};
  int32_t found_index[TOPO_MAX_COPIES];
  found_index[0] = take_owner<sided>(ring, search(ring, location), halves[0], loc, 0);
  if (copies == 1) return;
  found_index[1] = take_owner<sided>(ring, search(ring, location.mirrored()), halves[1], loc, 1);
  for (int i = 2; i < copies; ++i) {
    const int32_t start = successor(ring, found_index[i - 2]);
    found_index[i] = take_owner<sided>(ring, start, halves[i % 2], loc, i);
  }
}

// The reference walk's search: the point at the location or right of it; beyond the last point, the first.
ruxo_skiplist_node find_start(const topo_config *tc, const uint8_t *location) {
  ruxo_skiplist_node node = nullptr;
  ruxo_skiplist_node next = nullptr;
  ruxo_skiplist_find_neighbors(tc->ring, location, &node, nullptr, &next);
  if (node != nullptr) return node;
  if (next == nullptr) next = ruxo_skiplist_first(tc->ring);
  liborlith_assert(next);
  return next;
}

// Walks from `node` to the first point whose node is none of loc[0..i-1] (and, with sides, in the half of the
// location) and makes that loc[i]. The walk may pass the end of the list twice.
void walk_to_owner(const topo_config *tc, ruxo_skiplist_node node, const uint8_t *location, host_config **loc,
                   int i) {
  for (int wraps = 0; loc[i] == nullptr && wraps <= 2; ++wraps) {
    for (; loc[i] == nullptr && node != nullptr; node = ruxo_skiplist_next(tc->ring, node)) {
      const auto *slot = static_cast<const host_config_slot *>(ruxo_skiplist_data(node));
      if (tc->use_side && in_upper_half(slot->location) != in_upper_half(location)) continue;
      if (!contains_node(loc, i, slot->node)) loc[i] = slot->node;
    }
    node = ruxo_skiplist_first(tc->ring);
  }
  liborlith_assert(loc[i]);
}

}  // namespace

int32_t topo_ring_search(const topo_config *tc, const uint8_t *location) {
  return search(ring_of(tc), Location(location));
}

int _topo_find_insertion_point_config(const topo_config *tc, const uint8_t *hash, host_config **loc,
                                      int count) {
  const int copies = checked_copies(tc, count);
  if (tc->use_side) {
    fast_walk<true>(ring_of(tc), Location(hash), loc, copies);
  } else {
    fast_walk<false>(ring_of(tc), Location(hash), loc, copies);
  }
  return copies;
}

int _topo_find_insertion_point_config_slow(const topo_config *tc, const uint8_t *hash, host_config **loc,
                                           int count) {
  const int copies = checked_copies(tc, count);
  std::fill_n(loc, copies, nullptr);
  uint8_t location[TOPO_HASH_SIZE];
  memcpy(location, hash, sizeof location);
  for (int i = 0; i < copies; ++i) {
    walk_to_owner(tc, find_start(tc, location), location, loc, i);
    location[0] ^= kTopBit;
  }
  return copies;
}

int topo_find_insertion_point_config(const topo_config *tc, const void *buf, size_t buflen, host_config **loc,
                                     int count) {
  uint8_t hash[TOPO_HASH_SIZE];
  topo_hash(buf, buflen, hash);
  return _topo_find_insertion_point_config(tc, hash, loc, count);
}

int topo_find_insertion_point_config_slow(topo_config *tc, const void *buf, size_t buflen, host_config **loc,
                                          int count) {
  uint8_t hash[TOPO_HASH_SIZE];
  topo_hash(buf, buflen, hash);
  return _topo_find_insertion_point_config_slow(tc, hash, loc, count);
}
