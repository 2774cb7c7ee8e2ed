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
#include "orlith/histogram_slots.h"
#include "orlith/rollup_slots.h"

enum class MetricKind { number, text, histogram };

struct Metric {
  std::string key;                 // check UUID, "-", canonical name
  std::string file;                // below a period's folder; of a histogram, the folder of its files
  std::vector<size_t> my_owners;   // those owners, as node numbers, whose data is kept here
  std::vector<SlotSeries> series;  // one a period; of numbers only, and empty where nothing is kept
  bool dirty = false;              // holds samples that no checkpoint has written
  bool has_files = false;          // some checkpoint has written its files
  MetricKind kind = MetricKind::number;
  std::vector<HistogramSlots>
      histograms;               // one a period; of histograms only, and empty where nothing is kept
  Histogram total;              // of the first few histogram metrics: all that came in
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
  Metric *find(const mline_fields_t &fields, int *code) {
    const bool is_text = fields.type == ORLITH_METRIC_STRING;
    return find_in(is_text ? texts_ : numeric_, fields, code);
  }
  // The same for a histogram line.
  Metric *find_histogram(const mline_fields_t &fields, int *code) {
    return find_in(histograms_, fields, code);
  }

  size_t numeric_count() const { return numeric_.canonical.size(); }
  size_t text_count() const { return texts_.canonical.size(); }
  size_t histogram_count() const { return histograms_.canonical.size(); }
  std::vector<const Metric *> texts() const;
  // Those of which some checkpoint has written files.
  std::vector<const Metric *> stored() const;
  // Those that have a total, in the order in which they came.
  static constexpr size_t kTotals = 10;
  const std::vector<const Metric *> &totals() const { return totals_; }
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

  // Metrics of different kinds may share a name; they are several metrics.
  struct Kind {
    Kind(MetricKind of, const Hash &hash) : kind(of), as_written(16, hash), canonical(16, hash) {}
    MetricKind kind;
    Map<Spelling> as_written;         // by check and name fields as their lines have them
    SpellingEntry *latest = nullptr;  // that of the line before this one
    size_t spelling_bytes = 0;        // about what as_written holds
    Map<std::unique_ptr<Metric>> canonical;
  };

  Metric *find_in(Kind &kind, const mline_fields_t &fields, int *code);
  SpellingEntry *identify(const mline_fields_t &fields, Kind &kind, int *code);
  static SpellingEntry *remember(std::string_view as_written, Metric *metric, Kind &kind);
  std::unique_ptr<Metric> place(const orlith_metric_locator_t *locator, MetricKind kind);
  void add_slots(Metric *metric);

  MetricsConfig config_;
  Kind numeric_;
  Kind texts_;
  Kind histograms_;
  std::vector<const Metric *> totals_;
  std::vector<uint64_t> metrics_per_node_;
};

#endif
