#include "orlith/ingest_metrics.h"

#include <xxhash.h>

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "liborlith/util/metric_locator.h"
#include "orlith/data_path.h"
#include "orlith/histogram_line.h"

namespace {

// Spellings are remembered to save work, not to be right: a stream that spells its names in ever new ways must
// not fill the memory with them. As much as a million names of usual length take.
constexpr size_t kMaxSpellingBytes = size_t{256} << 20;
constexpr size_t kSpellingOverheadBytes = 100;

constexpr size_t kMaxNameBytes = 4095;
constexpr size_t kUuidChars = 36;
constexpr size_t kMaxPathForm = kUuidChars + 2 + (kMaxNameBytes + 2) / 3 * 4;

uint64_t random_seed() {
  std::random_device device;
  return (uint64_t{device()} << 32) | device();
}

// The bytes that identify a metric within a stream of lines: the check and the name, with the TAB between them.
std::string_view spelling(const mline_fields_t &fields) {
  return {fields.check.text, static_cast<size_t>(fields.name.text - fields.check.text) + fields.name.len};
}

Locator m_line_locator(const mline_fields_t &fields, int *code) {
  orlith_metric_locator_t *created = nullptr;
  *code = mline_locator(&fields, &created);
  return Locator(created);
}

}  // namespace

size_t IngestMetrics::Hash::operator()(std::string_view bytes) const {
  return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

IngestMetrics::IngestMetrics(MetricsConfig config)
    : config_(std::move(config)),
      numeric_(MetricKind::number, Hash{random_seed()}),
      texts_(MetricKind::text, Hash{random_seed()}),
      histograms_(MetricKind::histogram, Hash{random_seed()}),
      metrics_per_node_(config_.me.size()) {}

Metric *IngestMetrics::find_in(Kind &kind, const mline_fields_t &fields, int *code) {
  const std::string_view as_written = spelling(fields);
  SpellingEntry *entry = kind.latest != nullptr ? kind.latest->second.follower : nullptr;
  if (entry == nullptr || entry->first != as_written) {
    const auto known = kind.as_written.find(as_written);
    entry = known != kind.as_written.end() ? &*known : identify(fields, kind, code);
    if (entry == nullptr) return nullptr;
    if (kind.latest != nullptr) kind.latest->second.follower = entry;
  }
  kind.latest = entry;
  return entry->second.metric;
}

IngestMetrics::SpellingEntry *IngestMetrics::identify(const mline_fields_t &fields, Kind &kind, int *code) {
  const Locator locator = kind.kind == MetricKind::histogram ? histogram_line_locator(fields, code)
                                                             : m_line_locator(fields, code);
  if (locator == nullptr) return nullptr;

  std::unique_ptr<Metric> &metric = kind.canonical[locator_key(locator.get())];
  if (metric == nullptr) metric = place(locator.get(), kind.kind);
  return remember(spelling(fields), metric.get(), kind);
}

IngestMetrics::SpellingEntry *IngestMetrics::remember(std::string_view as_written, Metric *metric,
                                                      Kind &kind) {
  const size_t bytes = as_written.size() + kSpellingOverheadBytes;
  if (kind.spelling_bytes + bytes > kMaxSpellingBytes) {
    kind.as_written.clear();
    kind.latest = nullptr;
    kind.spelling_bytes = 0;
  }
  kind.spelling_bytes += bytes;
  return &*kind.as_written.emplace(as_written, Spelling{metric}).first;
}

std::unique_ptr<Metric> IngestMetrics::place(const orlith_metric_locator_t *locator, MetricKind kind) {
  auto metric = std::make_unique<Metric>();
  metric->key = locator_key(locator);
  metric->kind = kind;

  std::array<host_config *, 10> owners{};
  const int count = topo_find_insertion_point_config_locator(config_.topology, locator, owners.data(), 0);
  for (int i = 0; i < count; ++i) {
    const size_t node = static_cast<size_t>(owners[static_cast<size_t>(i)] - config_.topology->hc);
    ++metrics_per_node_[node];
    if (config_.me[node]) metric->my_owners.push_back(node);
  }
  std::sort(metric->my_owners.begin(), metric->my_owners.end());
  if (kind == MetricKind::text || metric->my_owners.empty()) return metric;

  std::array<char, kMaxPathForm + 1> path{};
  const size_t name_at =
      static_cast<size_t>(orlith_metric_locator_b64_path(locator, path.data(), path.size()));
  const std::string_view whole(path.data());
  metric->file =
      metric_file_path(whole.substr(0, kUuidChars), whole.size() > name_at ? whole.substr(name_at) : "",
                       kind == MetricKind::histogram ? kHistSuffix : kNntSuffix);
  add_slots(metric.get());
  return metric;
}

void IngestMetrics::add_slots(Metric *metric) {
  if (metric->kind == MetricKind::number) {
    metric->series.reserve(config_.periods_s.size());
    for (const uint32_t period_s : config_.periods_s) metric->series.emplace_back(period_s);
    return;
  }
  for (const uint32_t period_s : config_.periods_s) metric->histograms.emplace_back(period_s);
  if (totals_.size() == kTotals) return;
  metric->total = new_histogram();
  totals_.push_back(metric);
}

std::vector<const Metric *> IngestMetrics::texts() const {
  std::vector<const Metric *> result;
  for (const auto &[key, metric] : texts_.canonical) result.push_back(metric.get());
  std::sort(result.begin(), result.end(), [](const Metric *a, const Metric *b) { return a->key < b->key; });
  return result;
}

std::vector<const Metric *> IngestMetrics::stored() const {
  std::vector<const Metric *> result;
  for (const Kind *kind : {&numeric_, &histograms_})
    for (const auto &[key, metric] : kind->canonical)
      if (metric->has_files) result.push_back(metric.get());
  return result;
}
