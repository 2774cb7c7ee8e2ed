#include "orlith/ingest_run.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "orlith/data_path.h"
#include "orlith/histogram_line.h"
#include "orlith/signals.h"
#include "pobe/pobe.h"

namespace {

// No file can begin later.
constexpr uint64_t kLastStorable_ms = NNT_MAX_EPOCH * 1000 + 999;
constexpr uint64_t kLinesPerTick = 4096;
constexpr size_t kExampleBytes = 200;
constexpr uint64_t kLinesPerClockLook = 16;
constexpr size_t kSlotsPerSeries = 4;

time_t monotonic_s() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

std::string_view view(const mline_view_t &field) {
  return {field.text, field.len};
}

// What the canonicaliser says of a name that the locator refused; empty when the name is merely too long.
std::string name_fault(std::string_view name) {
  char canonical[4096];
  const ssize_t code =
      pobe_metric_canonicalize_ex(name.data(), name.size(), canonical, sizeof canonical, true, true, false);
  if (code < 0) return pobe_error_text(code);
  return code >= static_cast<ssize_t>(sizeof canonical) ? "longer than 4095 bytes in canonical form"
                                                        : "a tag category is reserved for the system";
}

}  // namespace

IngestRun::IngestRun(IngestOptions options)
    : options_(std::move(options)),
      metrics_({options_.topology, options_.me, options_.periods_s}),
      last_checkpoint_s_(monotonic_s()) {
  totals_.samples_per_node.resize(options_.me.size());
}

bool IngestRun::open() {
  if (!store_.open(options_.data_folder)) {
    error_ = store_.error();
    return false;
  }
  index_.look_at(options_.data_folder);
  return true;
}

IngestEnd IngestRun::run(LineReader &reader, const std::function<void()> &tick) {
  reader.on_idle([&] {
    tick();
    return !pipe_checkpoint_is_due(reader) || checkpoint();
  });
  // A disk that took no samples takes no index either: the next run sees that the folder is ahead of it.
  if (!take_all(reader, tick) || (taken_up_to_.file != nullptr && !checkpoint()))
    return IngestEnd::store_failed;
  update_index();
  if (!reader.error().empty()) {
    error_ = reader.error();
    return IngestEnd::input_failed;
  }
  return interrupted() ? IngestEnd::interrupted : IngestEnd::complete;
}

void IngestRun::update_index() {
  IngestIndex::Stored stored;
  for (const Metric *metric : metrics_.stored()) {
    MetricFiles files;
    for (const size_t owner : metric->my_owners) {
      MetricPlace place;
      place.below_node = options_.folder_per_node;
      if (place.below_node) memcpy(place.node.data(), options_.topology->hc[owner].id, place.node.size());
      place.kinds = metric->kind == MetricKind::histogram ? kind_histograms : kind_rollup;
      for (const uint32_t period_s : options_.periods_s) {
        place.period_s = period_s;
        add_place(&files, place);
      }
    }
    stored.emplace_back(metric->key, std::move(files));
  }
  index_.update(stored);
}

bool IngestRun::take_all(LineReader &reader, const std::function<void()> &tick) {
  InputLine line;
  while (!interrupted() && reader.next(&line)) {
    take(line);
    taken_up_to_ = line.position;
    if (checkpoint_is_due(reader) && !checkpoint()) return false;
    if (totals_.lines % kLinesPerTick == 0) tick();
  }
  return !store_failed_;
}

// Files are cut into checkpoints by the slots they open alone, so that the same input always gives the same files.
// A pipe may go on for ever, slowly: what it brought is written every now and then.
bool IngestRun::checkpoint_is_due(const LineReader &reader) {
  // Every metric keeps a slot open; with many of them a checkpoint for a few slots each would spend its time on
  // opening files.
  const size_t may_open = std::max(options_.max_open_slots, kSlotsPerSeries * slots_kept_open_);
  if (open_slots_ >= slots_kept_open_ + may_open || open_buckets_ >= options_.max_open_buckets) return true;
  return totals_.lines % kLinesPerClockLook == 0 && pipe_checkpoint_is_due(reader);
}

bool IngestRun::pipe_checkpoint_is_due(const LineReader &reader) {
  if (reader.total_bytes() > 0 || dirty_.empty()) return false;
  return monotonic_s() - last_checkpoint_s_ >= options_.pipe_checkpoint_interval_s;
}

// Input may come for days through a pipe: the clock is asked again whenever the bound of its last answer is passed.
bool IngestRun::lies_too_far_ahead(uint64_t whence_ms) {
  latest_ms_ = kLastStorable_ms;
  if (options_.now_ms) latest_ms_ = std::min(latest_ms_, options_.now_ms() + options_.future_bound_ms);
  return whence_ms > latest_ms_;
}

void IngestRun::take(const InputLine &line) {
  ++totals_.lines;
  if (line.too_long) return refuse(Refusal::line_too_long, line);
  if (line.text.empty()) {
    ++totals_.blank_lines;
    return;
  }
  // The splitter stops at a NUL byte. That is told as what it is, not as what its stopping makes of the line.
  mline_fields_t fields;
  int code = mline_split(line.text.data(), line.text.size(), !options_.with_source, &fields);
  if (code == 0 && line.text.front() == 'H') return take_histogram_line(line, &fields);
  const bool reached_end =
      code == 1 && fields.value.text + fields.value.len == line.text.data() + line.text.size();
  if (!reached_end && memchr(line.text.data(), '\0', line.text.size()) != nullptr)
    return refuse(Refusal::nul_byte, line);
  if (code != 1) return refuse(refusal_of_code(code), line);
  if (const auto fault = timestamp_fault(view(fields.timestamp))) return refuse(*fault, line);
  if (fields.whence_ms > latest_ms_ && lies_too_far_ahead(fields.whence_ms))
    return refuse(Refusal::in_the_future, line);
  if (const auto fault = value_fault(static_cast<char>(fields.type), view(fields.value)))
    return refuse(*fault, line);

  Metric *metric = metrics_.find(fields, &code);
  if (metric == nullptr) return refuse(refusal_of_code(code), line, &fields);
  if (metric->kind == MetricKind::text) {
    take_text(*metric, fields);
  } else {
    take_number(*metric, fields, line);
  }
}

// A text has no place in a slot: the latest one of each metric is kept for the summary.
void IngestRun::take_text(Metric &metric, const mline_fields_t &fields) {
  if (view(fields.value) == "[[null]]") {
    ++totals_.null_samples;
    return;
  }
  ++totals_.text_samples;
  if (fields.whence_ms < metric.text_whence_ms) return;
  metric.text_whence_ms = fields.whence_ms;
  metric.text = view(fields.value);
}

void IngestRun::take_number(Metric &metric, const mline_fields_t &fields, const InputLine &line) {
  metric_value_t sample;
  const int code = mline_value(&fields, &sample);
  if (code != 1) return refuse(refusal_of_code(code), line);
  if (sample.is_null) {
    ++totals_.null_samples;
    return;
  }
  if (sample.type == ORLITH_METRIC_DOUBLE && !std::isfinite(sample.storage.v_double)) {
    return refuse(Refusal::value_out_of_range, line);
  }
  ++totals_.samples;
  if (metric.my_owners.empty()) {
    ++totals_.foreign_samples;
    return;
  }
  fold(metric, sample);
}

void IngestRun::fold(Metric &metric, const metric_value_t &sample) {
  for (SlotSeries &series : metric.series) open_slots_ += series.fold(sample) ? 1 : 0;
  count_fold(metric, sample.whence_ms);
}

void IngestRun::take_histogram_line(const InputLine &line, mline_fields_t *fields) {
  if (memchr(line.text.data(), '\0', line.text.size()) != nullptr) return refuse(Refusal::nul_byte, line);
  int code = histogram_line_split(fields);
  if (code != 1) return refuse(refusal_of_histogram_code(code), line);
  if (const auto fault = timestamp_fault(view(fields->timestamp))) return refuse(*fault, line);
  if (fields->whence_ms > latest_ms_ && lies_too_far_ahead(fields->whence_ms))
    return refuse(Refusal::in_the_future, line);
  const bool is_null = fields->value.len == 0;
  const Histogram sample = is_null ? nullptr : histogram_of_text(view(fields->value));
  if (!is_null && sample == nullptr) return refuse(Refusal::value_no_histogram, line);

  Metric *metric = metrics_.find_histogram(*fields, &code);
  if (metric == nullptr) return refuse(refusal_of_histogram_code(code), line, fields);
  if (is_null) {
    ++totals_.null_samples;
    return;
  }
  take_histogram(*metric, fields->whence_ms, sample.get(), line);
}

void IngestRun::take_histogram(Metric &metric, uint64_t whence_ms, const histogram_t *sample,
                               const InputLine &line) {
  const bool has_room =
      std::all_of(metric.histograms.begin(), metric.histograms.end(),
                  [&](const HistogramSlots &slots) { return slots.has_room(whence_ms, sample); });
  if (!has_room) return refuse(Refusal::count_too_large, line);
  ++totals_.histogram_samples;
  if (metric.my_owners.empty()) {
    ++totals_.foreign_samples;
    return;
  }
  for (HistogramSlots &slots : metric.histograms) open_buckets_ += slots.fold(whence_ms, sample);
  if (metric.total != nullptr) accumulate(metric.total.get(), sample);
  count_fold(metric, whence_ms);
}

void IngestRun::count_fold(Metric &metric, uint64_t whence_ms) {
  for (const size_t node : metric.my_owners) ++totals_.samples_per_node[node];
  totals_.first_ms = std::min(totals_.first_ms, whence_ms);
  totals_.last_ms = std::max(totals_.last_ms, whence_ms);
  if (metric.dirty) return;
  metric.dirty = true;
  dirty_.push_back(&metric);
}

void IngestRun::refuse(Refusal refusal, const InputLine &line, const mline_fields_t *fields) {
  ++totals_.refused;
  RefusalCount &entry = totals_.refusals[static_cast<size_t>(refusal)];
  if (entry.count++ > 0) return;
  entry.first_file = *line.position.file;
  entry.first_line = line.position.line;
  entry.first_text = line.text.substr(0, kExampleBytes);
  if (refusal == Refusal::name_refused) entry.detail = name_fault(view(fields->name));
}

bool IngestRun::checkpoint() {
  const bool written = std::all_of(dirty_.begin(), dirty_.end(), [&](Metric *m) { return write_metric(*m); });
  if (!written || !store_.commit()) {
    store_failed_ = true;
    error_ = store_.error();
    store_.roll_back();
    return false;
  }
  close_slots();
  slots_kept_open_ = open_slots_;
  last_checkpoint_s_ = monotonic_s();
  stored_up_to_ = taken_up_to_;
  ++totals_.checkpoints;
  return true;
}

bool IngestRun::write_metric(Metric &metric) {
  for (SlotSeries &series : metric.series) {
    if (!write_series(metric, series)) return false;
  }
  for (const HistogramSlots &slots : metric.histograms) {
    if (!write_histograms(metric, slots)) return false;
  }
  return true;
}

// Below the data folder.
std::string IngestRun::file_of(const Metric &metric, size_t owner, uint32_t period_s) const {
  const std::string below_node = std::to_string(period_s) + "/" + metric.file;
  if (!options_.folder_per_node) return below_node;
  return std::string(options_.topology->hc[metric.my_owners[owner]].id_str) + "/" + below_node;
}

bool IngestRun::write_series(Metric &metric, SlotSeries &series) {
  std::vector<SlotWrite> writes;
  for (SlotList::Block &block : series.slots().blocks()) {
    for (OpenSlot &slot : block) {
      if (slot.dirty) writes.push_back({slot.start_s, &slot});
    }
  }
  if (writes.empty()) return true;
  for (size_t i = 0; i < metric.my_owners.size(); ++i) {
    const SlotFile file = {file_of(metric, i, series.period_s()), series.period_s(), i,
                           metric.my_owners.size()};
    if (!store_.write(file, writes)) return false;
  }
  return true;
}

bool IngestRun::write_histograms(Metric &metric, const HistogramSlots &slots) {
  for (auto first = slots.slots().begin(); first != slots.slots().end();) {
    const uint64_t start_s = slots.window_start_s(first->first);
    const auto end = slots.slots().lower_bound(start_s + std::max(slots.window_s(), slots.period_s()));
    for (size_t i = 0; i < metric.my_owners.size(); ++i) {
      const HistogramWindowFile file = {
          file_of(metric, i, slots.period_s()) + "/" + std::to_string(start_s) + std::string(kSeriesSuffix),
          start_s, slots.window_s()};
      if (!write_histogram_window(store_, file, first, end)) return false;
    }
    first = end;
  }
  return true;
}

void IngestRun::close_slots() {
  for (Metric *metric : dirty_) {
    for (SlotSeries &series : metric->series) {
      open_slots_ -= series.close_all_but_newest();
      series.slots().newest().dirty = false;
    }
    for (HistogramSlots &slots : metric->histograms)
      totals_.histogram_files += slots.close_all() * metric->my_owners.size();
    if (!metric->has_files) totals_.files += metric->series.size() * metric->my_owners.size();
    metric->has_files = true;
    metric->dirty = false;
  }
  dirty_.clear();
  open_buckets_ = 0;
}
