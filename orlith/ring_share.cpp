#include "orlith/ring_share.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "orlith/wide.h"

namespace {

uint64_t point_count(const topo_config &topology) {
  uint64_t count = 0;
  for (int i = 0; i < topology.host_count; ++i) count += topology.hc[i].weight;
  return count;
}

struct Location {
  uint8_t bytes[TOPO_HASH_SIZE];
  bool operator<(const Location &other) const { return memcmp(bytes, other.bytes, sizeof bytes) < 0; }
  // The leading 120 bits: sums of lengths then always fit.
  uint128 leading() const {
    uint128 value = 0;
    for (int i = 0; i < 15; ++i) value = value << 8 | bytes[i];
    return value;
  }
};

// The points of the ring, and the same points mirrored, in ascending order. Mirroring flips the top bit, which swaps
// the halves: the mirrored points in order are the upper half's points, then the lower half's.
class Boundaries {
 public:
  explicit Boundaries(const topo_config &topology)
      : points_(topology.fast_loc_ring), count_(point_count(topology)) {
    uint64_t low = 0, high = count_;
    while (low < high) {
      const uint64_t middle = low + (high - low) / 2;
      if (top_bit(middle)) {
        high = middle;
      } else {
        low = middle + 1;
      }
    }
    first_upper_ = low;
  }
  bool next(Location *location) {
    if (plain_ == count_ && mirrored_ == count_) return false;
    Location plain, mirrored;
    if (plain_ < count_) plain = point(plain_);
    if (mirrored_ < count_) mirrored = mirror(point((mirrored_ + first_upper_) % count_));
    if (mirrored_ == count_ || (plain_ < count_ && plain < mirrored)) {
      *location = plain;
      ++plain_;
    } else {
      *location = mirrored;
      ++mirrored_;
    }
    return true;
  }

 private:
  bool top_bit(uint64_t i) const { return (points_[i * TOPO_HASH_SIZE] & 0x80) != 0; }
  Location point(uint64_t i) const {
    Location location;
    memcpy(location.bytes, points_ + i * TOPO_HASH_SIZE, TOPO_HASH_SIZE);
    return location;
  }
  static Location mirror(Location location) {
    location.bytes[0] ^= 0x80;
    return location;
  }
  const uint8_t *points_;
  uint64_t count_;
  uint64_t first_upper_;
  uint64_t plain_ = 0, mirrored_ = 0;
};

// Adds up arcs, each given by its last location.
class Sums {
 public:
  explicit Sums(const topo_config &topology)
      : topology_(topology), first_(topology.host_count), data_(topology.host_count) {}

  void add_arc_up_to(const Location &last) {
    const uint128 end = last.leading();
    host_config *owners[TOPO_MAX_COPIES];
    const int count = _topo_find_insertion_point_config(&topology_, last.bytes, owners, 0);
    const uint128 length = end - start_;
    for (int i = 0; i < count; ++i) data_[index_of(owners[i])] += length;
    first_[index_of(owners[0])] += length;
    start_ = end;
  }
  std::vector<RingShare> shares() const {
    const double whole = std::ldexp(1.0, 120);
    std::vector<RingShare> shares(first_.size());
    for (size_t i = 0; i < shares.size(); ++i)
      shares[i] = {static_cast<double>(first_[i]) / whole,
                   static_cast<double>(data_[i]) / whole / topology_.w_count};
    return shares;
  }

 private:
  size_t index_of(const host_config *node) const { return static_cast<size_t>(node - topology_.hc); }
  const topo_config &topology_;
  std::vector<uint128> first_, data_;
  uint128 start_ = 0;
};

}  // namespace

uint64_t ring_arc_count(const topo_config &topology) {
  return 2 * point_count(topology) + 2;
}

std::vector<RingShare> ring_shares(const topo_config &topology,
                                   const std::function<void(uint64_t)> &on_progress) {
  constexpr uint64_t arcs_a_report = 4096;
  Sums sums(topology);
  Boundaries boundaries(topology);
  // Where a half of the ring ends, a sided topology starts over at the half's beginning.
  Location half_end;
  memset(half_end.bytes, 0xFF, sizeof half_end.bytes);
  Location ring_end = half_end;
  half_end.bytes[0] = 0x7F;
  bool in_lower_half = true;
  uint64_t arcs = 0;
  for (Location location; boundaries.next(&location);) {
    if (in_lower_half && (location.bytes[0] & 0x80) != 0) {
      sums.add_arc_up_to(half_end);
      in_lower_half = false;
    }
    sums.add_arc_up_to(location);
    if (++arcs % arcs_a_report == 0 && on_progress) on_progress(arcs_a_report);
  }
  if (in_lower_half) sums.add_arc_up_to(half_end);
  sums.add_arc_up_to(ring_end);
  return sums.shares();
}
