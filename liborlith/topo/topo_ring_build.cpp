// Building the ring: every node's points, sorted by location, with the tables that searches use.
//
// The largest ring has 8.4 million points, so the work is laid out to touch each point few times and in
// order:
//   1. hash: the locations of all points, node by node (into memory that the slots get later);
//   2. deal: each point goes to the bucket of its leading bits, a few thousand points each;
//   3. sort: one bucket at a time, inside the cache, by the next bits and then by 64-bit prefix, writing the slots,
//      the locations in ring order and the number of points below each search hint's prefix.
// Locations are hashes, so buckets fill evenly; uneven ones cost time, never correctness.
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo_private.h"

namespace {

constexpr size_t kHugePageBytes = size_t{2} << 20;
constexpr uint32_t kHashChunk =
    256;  // points hashed at a time, so that they are still in the cache when counted
constexpr int kPointsPerBucketBits = 11;
constexpr int kMaxBucketBits = 10;
// With more points than this on one spot the bucket is sorted by comparisons instead of by insertion.
constexpr uint32_t kMaxInsertionRun = 64;

struct Free {
  void operator()(void *memory) const { free(memory); }
};
template <class T>
using Array = std::unique_ptr<T[], Free>;

// Uninitialised memory for free(). Large arrays ask for huge pages: a ring of 8 million points has 200,000
// small ones.
template <class T>
Array<T> allocate(size_t count) {
  const size_t bytes = count * sizeof(T);  // NOLINT(bugprone-sizeof-expression): some T are pointers
  void *memory = nullptr;
  if (bytes < kHugePageBytes) {
    memory = malloc(bytes);
  } else if (posix_memalign(&memory, kHugePageBytes, bytes) == 0) {
    madvise(memory, bytes / kHugePageBytes * kHugePageBytes,
            MADV_HUGEPAGE);  // only advice: failure costs speed
  } else {
    memory = nullptr;
  }
  if (memory == nullptr) throw std::bad_alloc();
  return Array<T>(static_cast<T *>(memory));
}

// Which node a point belongs to and its number there, in one word; ascending in the order of generation.
using Origin = uint32_t;
static_assert(TOPO_MAX_HOSTS <= 65536, "a node and a point of 16 bits fit into an origin");
Origin make_origin(size_t node, uint32_t idx) {
  return (static_cast<Origin>(node) << 16) | idx;
}

struct SortKey {
  uint64_t prefix;
  uint32_t origin;
  uint32_t position;  // in the bucket as it was dealt
};

class RingBuilder {
 public:
  RingBuilder(host_config *hosts, size_t host_count)
      : hosts_(hosts), host_count_(host_count), size_(count_points(hosts, host_count)) {
    const int size_bits = static_cast<int>(std::bit_width(size_));
    bucket_bits_ = std::clamp(size_bits - kPointsPerBucketBits, 1, kMaxBucketBits);
    bucket_begin_.resize((size_t{1} << bucket_bits_) + 1);
    slots_ = allocate<host_config_slot>(size_);
    locations_ = allocate<uint8_t>(size_ * TOPO_HASH_SIZE);
    hints_ = allocate<fast_search_hints_t>(FAST_SIZE);
  }

  TopoRingTables build(TopoHashPoints hash_points) {
    hash(hash_points);
    deal();
    sort();
    drop_equal_points();
    write_hints();
    return {slots_.release(), locations_.release(), hints_.release(), size_};
  }

 private:
  static size_t count_points(const host_config *hosts, size_t host_count) {
    size_t points = 0;
    for (size_t i = 0; i < host_count; ++i) points += hosts[i].weight;
    return points;
  }

  size_t bucket_of(const uint8_t *location) const {
    return topo_location_prefix(location) >> (64 - bucket_bits_);
  }

  // Step 1. The locations lie in the block of the slots, which is larger and unused until step 3.
  void hash(TopoHashPoints hash_points) {
    uint8_t *location = generated();
    for (size_t node = 0; node < host_count_; ++node) {
      for (uint32_t first = 0; first < hosts_[node].weight; first += kHashChunk) {
        const uint32_t count = std::min<uint32_t>(kHashChunk, hosts_[node].weight - first);
        hash_points(hosts_[node].id_str, first, count, location);
        for (uint32_t i = 0; i < count; ++i, location += TOPO_HASH_SIZE) {
          topo_move_to_side(location, hosts_[node].ringside);
          ++bucket_begin_[bucket_of(location) + 1];
        }
      }
    }
    for (size_t i = 1; i < bucket_begin_.size(); ++i) bucket_begin_[i] += bucket_begin_[i - 1];
  }

  // Step 2. The origins lie at the very end of the block of the slots. Slot i ends where origin i or an earlier one
  // begins, so the slots of a bucket overwrite no origins but those of this bucket, which are read before.
  void deal() {
    std::vector<uint32_t> next(bucket_begin_);
    const uint8_t *location = generated();
    for (size_t node = 0; node < host_count_; ++node) {
      for (uint32_t i = 0; i < hosts_[node].weight; ++i, location += TOPO_HASH_SIZE) {
        const size_t position = next[bucket_of(location)]++;
        memcpy(&locations_[position * TOPO_HASH_SIZE], location, TOPO_HASH_SIZE);
        const Origin origin = make_origin(node, i);
        memcpy(dealt_origin(position), &origin, sizeof origin);
      }
    }
  }

  // Step 3.
  void sort() {
    for (size_t bucket = 0; bucket + 1 < bucket_begin_.size(); ++bucket) {
      const size_t begin = bucket_begin_[bucket];
      const size_t count = bucket_begin_[bucket + 1] - begin;
      if (count == 0) continue;
      take_bucket(begin, count);
      order_keys(count);
      emit_bucket(begin, count);
    }
    std::fill(points_below_.begin() + static_cast<std::ptrdiff_t>(next_prefix_), points_below_.end(), size_);
  }

  // Copies a bucket's locations aside and places its keys by the bits that follow the bucket's own.
  void take_bucket(size_t begin, size_t count) {
    const int spread_bits = std::max(1, static_cast<int>(std::bit_width(count - 1)));
    const auto spot_of = [&](uint64_t prefix) {
      return static_cast<size_t>((prefix << bucket_bits_) >> (64 - spread_bits));
    };
    if (bucket_locations_.size() < count * TOPO_HASH_SIZE) bucket_locations_.resize(count * TOPO_HASH_SIZE);
    memcpy(bucket_locations_.data(), &locations_[begin * TOPO_HASH_SIZE], count * TOPO_HASH_SIZE);
    spot_begin_.assign((size_t{1} << spread_bits) + 1, 0);
    for (size_t i = 0; i < count; ++i) ++spot_begin_[spot_of(prefix_in_bucket(i)) + 1];
    largest_spot_ = *std::max_element(spot_begin_.begin(), spot_begin_.end());
    for (size_t i = 1; i < spot_begin_.size(); ++i) spot_begin_[i] += spot_begin_[i - 1];
    if (keys_.size() < count) keys_.resize(count);
    for (size_t i = 0; i < count; ++i) {
      const uint64_t prefix = prefix_in_bucket(i);
      Origin origin;
      memcpy(&origin, dealt_origin(begin + i), sizeof origin);
      keys_[spot_begin_[spot_of(prefix)]++] = {prefix, origin, static_cast<uint32_t>(i)};
    }
  }

  void order_keys(size_t count) {
    const auto before = [this](const SortKey &a, const SortKey &b) { return is_before(a, b); };
    SortKey *const keys = keys_.data();
    if (largest_spot_ > kMaxInsertionRun) {
      std::sort(keys, keys + count, before);
      return;
    }
    for (size_t i = 1; i < count; ++i) {
      if (!before(keys[i], keys[i - 1])) continue;
      const SortKey moving = keys[i];
      size_t hole = i;
      for (; hole > 0 && before(moving, keys[hole - 1]); --hole) keys[hole] = keys[hole - 1];
      keys[hole] = moving;
    }
  }

  // By location; equal ones in the order of generation.
  bool is_before(const SortKey &a, const SortKey &b) const {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    const int order = memcmp(location_in_bucket(a.position), location_in_bucket(b.position), TOPO_HASH_SIZE);
    return order != 0 ? order < 0 : a.origin < b.origin;
  }

  void emit_bucket(size_t begin, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      const SortKey &key = keys_[i];
      const uint8_t *location = location_in_bucket(key.position);
      host_config_slot *slot = new (&slots_[begin + i]) host_config_slot;
      memcpy(slot->location, location, TOPO_HASH_SIZE);
      slot->node = &hosts_[key.origin >> 16];
      slot->idx = static_cast<uint16_t>(key.origin & 0xffff);
      memcpy(&locations_[(begin + i) * TOPO_HASH_SIZE], location, TOPO_HASH_SIZE);
      count_below(key.prefix >> (64 - FAST_SIZE_BITS), begin + i);
      if (i > 0 && key.prefix == keys_[i - 1].prefix) note_if_equal(i);
    }
  }

  // Point `index` is the first one of its hint prefix, or a later one.
  void count_below(size_t prefix, size_t index) {
    while (next_prefix_ <= prefix) points_below_[next_prefix_++] = static_cast<uint32_t>(index);
  }

  void note_if_equal(size_t i) {
    const uint8_t *previous = location_in_bucket(keys_[i - 1].position);
    has_equal_points_ |= memcmp(previous, location_in_bucket(keys_[i].position), TOPO_HASH_SIZE) == 0;
  }

  // A ring holds a location once, whatever the odds against a second one (two points of equal hash).
  void drop_equal_points() {
    if (!has_equal_points_) return;
    size_t kept = 1;
    next_prefix_ = 0;
    count_below(topo_location_prefix(slots_[0].location) >> (64 - FAST_SIZE_BITS), 0);
    for (size_t i = 1; i < size_; ++i) {
      if (memcmp(slots_[kept - 1].location, slots_[i].location, TOPO_HASH_SIZE) == 0) continue;
      slots_[kept] = slots_[i];
      memcpy(&locations_[kept * TOPO_HASH_SIZE], slots_[i].location, TOPO_HASH_SIZE);
      count_below(topo_location_prefix(slots_[i].location) >> (64 - FAST_SIZE_BITS), kept);
      ++kept;
    }
    size_ = kept;
    std::fill(points_below_.begin() + static_cast<std::ptrdiff_t>(next_prefix_), points_below_.end(), size_);
  }

  // A bucket's hint spans from the first point at or above its prefix to the first one beyond it; where there
  // is no such point the last one stands in, so that no search leaves the ring.
  void write_hints() {
    const uint32_t last = static_cast<uint32_t>(size_ - 1);
    for (size_t b = 0; b < FAST_SIZE; ++b) {
      const uint32_t lower = std::min(points_below_[b], last);
      const uint32_t upper = std::min(points_below_[b + 1], last);
      hints_[b] = {static_cast<int32_t>(lower), static_cast<int32_t>(upper)};
    }
  }

  uint8_t *generated() { return reinterpret_cast<uint8_t *>(slots_.get()); }
  uint8_t *dealt_origin(size_t position) {
    return generated() + size_ * (sizeof(host_config_slot) - sizeof(Origin)) + position * sizeof(Origin);
  }
  const uint8_t *location_in_bucket(size_t i) const { return &bucket_locations_[i * TOPO_HASH_SIZE]; }
  uint64_t prefix_in_bucket(size_t i) const { return topo_location_prefix(location_in_bucket(i)); }

  host_config *hosts_;
  size_t host_count_;
  size_t size_;  // points
  int bucket_bits_;
  std::vector<uint32_t> bucket_begin_;  // where each bucket begins, and the end of the last

  Array<host_config_slot> slots_;
  Array<uint8_t> locations_;
  Array<fast_search_hints_t> hints_;

  // The bucket at hand.
  std::vector<uint8_t> bucket_locations_;
  std::vector<uint32_t> spot_begin_;
  std::vector<SortKey> keys_;
  uint32_t largest_spot_ = 0;

  bool has_equal_points_ = false;
  size_t next_prefix_ = 0;  // points_below_ is known for the prefixes before this one
  std::vector<uint32_t> points_below_ = std::vector<uint32_t>(FAST_SIZE + 1);
};

// A slot's place also holds a location and an origin for a while; see hash() and deal().
static_assert(sizeof(host_config_slot) >= TOPO_HASH_SIZE + sizeof(Origin));

void fill_hostset(topo_config *newconf) {
  for (size_t i = 0; i < newconf->host_count; ++i) {
    host_config *host = &newconf->hc[i];
    void *present = nullptr;
    if (ruxo_hash_store(&newconf->hostset, host->id, sizeof host->id, host) == 1) continue;
    if (ruxo_hash_retrieve(&newconf->hostset, host->id, sizeof host->id, &present) == 0)
      throw std::bad_alloc();
    const std::string message = "Same uuid '" + std::string(host->id_str) + "' for different nodes.\n";
    ruxo_log(ruxo_error, "%s", message.c_str());
    throw TopoFault(message);
  }
}

void log_point(const host_config_slot *slot) {
  char hex[TOPO_HASH_HEX_SIZE];
  topo_hash_to_hex(slot->location, hex);
  ruxo_log(topo_debug, "ring(%0.5f%%) %s: %s-%d\n", topo_ring_percent(slot->location), hex,
           slot->node->id_str, slot->idx);
}

// The list keeps its elements in one array in order, which no one changes after compilation: the same array serves as
// the table of slots. A second one would be 67 MB in the largest ring.
host_config_slot **slots_of(const ruxo_skiplist *ring) {
  return reinterpret_cast<host_config_slot **>(const_cast<void **>(ruxo_skiplist_first(ring)));
}

// memcmp's order over the whole location; its first 64 bits decide nearly always.
int compare_locations(const uint8_t *a, const uint8_t *b) {
  const uint64_t prefix_a = topo_location_prefix(a);
  const uint64_t prefix_b = topo_location_prefix(b);
  if (prefix_a != prefix_b) return prefix_a < prefix_b ? -1 : 1;
  return memcmp(a, b, TOPO_HASH_SIZE);
}

}  // namespace

int topo_locator(const void *a, const void *b) {
  return compare_locations(static_cast<const host_config_slot *>(a)->location,
                           static_cast<const host_config_slot *>(b)->location);
}

int topo_locator_k(const void *key, const void *slot) {
  return compare_locations(static_cast<const uint8_t *>(key),
                           static_cast<const host_config_slot *>(slot)->location);
}

double topo_ring_percent(const uint8_t *location) {
  constexpr double kTwoToMinus64 = 5.421010862427522e-20;
  return static_cast<double>(topo_location_prefix(location)) * 100.0 * kTwoToMinus64;
}

TopoRingTables topo_build_ring_tables(host_config *hosts, size_t host_count, TopoHashPoints hash_points) {
  return RingBuilder(hosts, host_count).build(hash_points);
}

void topo_build_ring(topo_config *newconf) {
  fill_hostset(newconf);
  newconf->ring = ruxo_skiplist_alloc(topo_locator, topo_locator_k);
  if (newconf->ring == nullptr) throw std::bad_alloc();
  const TopoRingTables tables = topo_build_ring_tables(newconf->hc, newconf->host_count, topo_hash_points);
  newconf->fast_loc_ring = tables.locations;
  newconf->fast_search_hints = tables.hints;
  if (ruxo_skiplist_build_strided(newconf->ring, tables.slots, sizeof(host_config_slot), tables.size) != 0) {
    free(tables.slots);
    throw std::bad_alloc();  // the points are strictly ascending, so nothing else can be wrong
  }
  newconf->fast_slot_ring = slots_of(newconf->ring);
  size_t i = tables.size;
  liborlith_assert(i == ruxo_skiplist_size(newconf->ring));
  if (!ruxo_log_stream_is_live(topo_debug)) return;
  for (size_t k = 0; k < tables.size; ++k) log_point(newconf->fast_slot_ring[k]);
}
