// The metrics that a stream of lines names: each is identified and placed once, then found by the bytes its lines
// carry.
#ifndef ORLITH_INGEST_METRICS_H
#define ORLITH_INGEST_METRICS_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "liborlith/orollupd/rollup.h"
#include "liborlith/topo/topo.h"
#include "orlith/rollup_slots.h"

struct Metric {
  std::string key;                 // check UUID, "-", canonical name
  std::string file;                // below a period's folder
  std::vector<size_t> my_owners;   // those owners, as node numbers, whose data is kept here
  std::vector<SlotSeries> series;  // one a period; empty for a text and where nothing is kept
  bool dirty = false;              // holds samples that no checkpoint has written
  bool has_files = false;          // some checkpoint has written its files
  bool is_text = false;
  uint64_t text_whence_ms = 0;  // of a text metric: its latest sample
  std::string text;
};

struct MetricsConfig {
  const topo_config *topology = nullptr;
  std::vector<bool> me;  // by node number: whether this run keeps the node's data
  std::vector<uint32_t> periods_s;
};

class IngestMetrics {
 public:
  explicit IngestMetrics(MetricsConfig config);

  // The metric of a split line; null with *code (as of the line parser) when its check or name is refused.
  Metric *find(const mline_fields_t &fields, int *code);

  size_t numeric_count() const { return numeric_.canonical.size(); }
  size_t text_count() const { return texts_.canonical.size(); }
  std::vector<const Metric *> texts() const;
  // By node number: how many metrics the topology gives to it.
  const std::vector<uint64_t> &metrics_per_node() const { return metrics_per_node_; }

 private:
  struct Hash {
    using is_transparent = void;
    uint64_t seed;  // drawn once a process: names come from outside
    size_t operator()(std::string_view bytes) const;
  };
  template <typename Value>
  using Map = std::unordered_map<std::string, Value, Hash, std::equal_to<>>;

  // A host reports its metrics in the same order time after time: each spelling remembers which one came behind it, so
  // that most lines are known by one comparison.
  struct Spelling;
  using SpellingEntry = std::pair<const std::string, Spelling>;
  struct Spelling {
    Metric *metric;
    SpellingEntry *follower = nullptr;
  };

  // A numeric and a text metric may share a name; they are two metrics.
  struct Kind {
    explicit Kind(const Hash &hash) : as_written(16, hash), canonical(16, hash) {}
    Map<Spelling> as_written;         // by check and name fields as their lines have them
    SpellingEntry *latest = nullptr;  // that of the line before this one
    size_t spelling_bytes = 0;        // about what as_written holds
    Map<std::unique_ptr<Metric>> canonical;
  };

  SpellingEntry *identify(const mline_fields_t &fields, Kind &kind, bool is_text, int *code);
  static SpellingEntry *remember(std::string_view as_written, Metric *metric, Kind &kind);
  std::unique_ptr<Metric> place(const orlith_metric_locator_t *locator, bool is_text);

  MetricsConfig config_;
  Kind numeric_;
  Kind texts_;
  std::vector<uint64_t> metrics_per_node_;
};

#endif
