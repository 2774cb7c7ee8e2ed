// One run of ingestion: lines in, slots folded in memory, checkpoints on the disk.
//
// The memory a run takes depends on the number of metrics and of open slots, not on the number of lines: when
// `max_open_slots` are open (or a few for each metric, if that is more), or the open slots of histograms hold
// `max_open_buckets`, everything is written (a checkpoint) and all is closed but the newest slot of each metric of
// numbers; of the newest slot of each metric of histograms a copy stays. A checkpoint is whole or undone, so the input
// is always stored up to exactly one line.
#ifndef ORLITH_INGEST_RUN_H
#define ORLITH_INGEST_RUN_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "orlith/ingest_index.h"
#include "orlith/ingest_metrics.h"
#include "orlith/ingest_refusal.h"
#include "orlith/line_reader.h"
#include "orlith/rollup_store.h"

struct IngestOptions {
  std::string data_folder;
  std::vector<uint32_t> periods_s;
  const topo_config *topology = nullptr;
  std::vector<bool> me;          // by node number
  bool folder_per_node = false;  // one tree of files for each node that is me
  bool with_source = false;      // lines carry the source field
  // A sample stamped further ahead of the clock (milliseconds since the Unix epoch) is refused; without a clock none.
  std::function<uint64_t()> now_ms;
  uint64_t future_bound_ms = 0;
  size_t max_open_slots = size_t{1} << 18;
  size_t max_open_buckets = size_t{1} << 22;  // of histograms, as HistogramSlots::fold() tells
  // What a pipe brought is written at least this often, also while it brings nothing more.
  time_t pipe_checkpoint_interval_s = 15;
};

struct RefusalCount {
  uint64_t count = 0;
  std::string first_file;  // where the first such line stands
  uint64_t first_line = 0;
  std::string first_text;  // its beginning, as it is
  std::string detail;      // of a refused name: what the canonicaliser says
};

struct IngestTotals {
  uint64_t lines = 0;
  uint64_t blank_lines = 0;
  uint64_t samples = 0;  // numeric, not null, of any owner
  uint64_t null_samples = 0;
  uint64_t text_samples = 0;
  uint64_t histogram_samples = 0;  // not null, of any owner
  uint64_t foreign_samples = 0;    // of the samples and histograms: none of its owners is me
  uint64_t refused = 0;
  std::array<RefusalCount, kRefusalCount> refusals;
  uint64_t first_ms = UINT64_MAX;  // times of the samples that were folded
  uint64_t last_ms = 0;
  uint64_t files = 0;            // distinct NNT files written
  uint64_t histogram_files = 0;  // distinct series files written
  uint64_t checkpoints = 0;
  std::vector<uint64_t> samples_per_node;  // folded, by node number
};

enum class IngestEnd { complete, interrupted, input_failed, store_failed };

class IngestRun {
 public:
  explicit IngestRun(IngestOptions options);

  // Opens the data folder; false with error().
  bool open();
  // Takes every line of the reader. `tick` is called every now and then, for progress.
  IngestEnd run(LineReader &reader, const std::function<void()> &tick);

  const IngestTotals &totals() const { return totals_; }
  const IngestMetrics &metrics() const { return metrics_; }
  const RollupStore &store() const { return store_; }
  // Brought up to date at the end of run(), unless the store failed.
  const IngestIndex &index() const { return index_; }
  const std::string &error() const { return error_; }
  // Everything up to here is on the disk, nothing after it; no file: nothing at all.
  const InputPosition &stored_up_to() const { return stored_up_to_; }

 private:
  bool lies_too_far_ahead(uint64_t whence_ms);
  void update_index();
  bool take_all(LineReader &reader, const std::function<void()> &tick);
  bool pipe_checkpoint_is_due(const LineReader &reader);
  bool checkpoint_is_due(const LineReader &reader);
  void take(const InputLine &line);
  void take_text(Metric &metric, const mline_fields_t &fields);
  void take_number(Metric &metric, const mline_fields_t &fields, const InputLine &line);
  void fold(Metric &metric, const metric_value_t &sample);
  void take_histogram_line(const InputLine &line, mline_fields_t *fields);
  void take_histogram(Metric &metric, uint64_t whence_ms, const histogram_t *sample, const InputLine &line);
  void count_fold(Metric &metric, uint64_t whence_ms);
  void refuse(Refusal refusal, const InputLine &line, const mline_fields_t *fields = nullptr);
  bool checkpoint();
  bool write_metric(Metric &metric);
  bool write_series(Metric &metric, SlotSeries &series);
  bool write_histograms(Metric &metric, const HistogramSlots &slots);
  std::string file_of(const Metric &metric, size_t owner, uint32_t period_s) const;
  void close_slots();

  IngestOptions options_;
  IngestMetrics metrics_;
  RollupStore store_;
  IngestIndex index_;
  IngestTotals totals_;
  std::vector<Metric *> dirty_;
  size_t open_slots_ = 0;
  size_t open_buckets_ = 0;
  uint64_t latest_ms_ = 0;      // what the clock allowed when it was last asked
  size_t slots_kept_open_ = 0;  // of these, left by the last checkpoint
  time_t last_checkpoint_s_;
  bool store_failed_ = false;
  InputPosition taken_up_to_;
  InputPosition stored_up_to_;
  std::string error_;
};

#endif
