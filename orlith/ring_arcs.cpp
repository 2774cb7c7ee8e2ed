#include "orlith/ring_arcs.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

uint64_t point_count(const topo_config &topology) {
  uint64_t count = 0;
  for (int i = 0; i < topology.host_count; ++i) count += topology.hc[i].weight;
  return count;
}

struct Location {
  uint8_t bytes[TOPO_HASH_SIZE];
  bool operator<(const Location &other) const { return memcmp(bytes, other.bytes, sizeof bytes) < 0; }
  uint128 leading() const {
    uint128 value = 0;
    for (int i = 0; i < kRingSpaceBits / 8; ++i) value = value << 8 | bytes[i];
    return value;
  }
};

// The points of one ring, and the same points mirrored, in ascending order. Mirroring flips the top bit, which swaps
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
    advance();
  }
  bool at_end() const { return at_end_; }
  const Location &current() const { return current_; }
  void advance() {
    at_end_ = plain_ == count_ && mirrored_ == count_;
    if (at_end_) return;
    Location plain, mirrored;
    if (plain_ < count_) plain = point(plain_);
    if (mirrored_ < count_) mirrored = mirror(point((mirrored_ + first_upper_) % count_));
    if (mirrored_ == count_ || (plain_ < count_ && plain < mirrored)) {
      current_ = plain;
      ++plain_;
    } else {
      current_ = mirrored;
      ++mirrored_;
    }
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
  Location current_{};
  bool at_end_ = false;
};

// The one that stands at the lowest location; null when all are at their end.
Boundaries *lowest(std::vector<Boundaries> &rings) {
  Boundaries *lowest = nullptr;
  for (Boundaries &ring : rings)
    if (!ring.at_end() && (lowest == nullptr || ring.current() < lowest->current())) lowest = &ring;
  return lowest;
}

}  // namespace

uint64_t ring_arc_count(std::span<const topo_config *const> topologies) {
  uint64_t count = 2;
  for (const topo_config *topology : topologies) count += 2 * point_count(*topology);
  return count;
}

void for_each_ring_arc(std::span<const topo_config *const> topologies,
                       const std::function<void(const uint8_t *last, uint128 length)> &visit,
                       const std::function<void(uint64_t)> &on_progress) {
  constexpr uint64_t arcs_a_report = 4096;
  std::vector<Boundaries> rings;
  for (const topo_config *topology : topologies) rings.emplace_back(*topology);
  Location ring_end;
  memset(ring_end.bytes, 0xFF, sizeof ring_end.bytes);
  Location half_end = ring_end;
  half_end.bytes[0] = 0x7F;
  uint128 start = 0;
  const auto end_arc_at = [&](const Location &last) {
    const uint128 end = last.leading();
    visit(last.bytes, end - start);
    start = end;
  };
  bool in_lower_half = true;
  uint64_t arcs = 0;
  while (Boundaries *ring = lowest(rings)) {
    if (in_lower_half && half_end < ring->current()) {
      end_arc_at(half_end);
      in_lower_half = false;
    }
    end_arc_at(ring->current());
    ring->advance();
    if (++arcs % arcs_a_report == 0 && on_progress) on_progress(arcs_a_report);
  }
  if (in_lower_half) end_arc_at(half_end);
  end_arc_at(ring_end);
}
