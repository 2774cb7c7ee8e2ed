#include "orlith/ingest_summary.h"

#include <fmt/format.h>

#include <string>
#include <vector>

namespace {

constexpr size_t kTextsShown = 10;
constexpr uint64_t kRecordBytes = 32;

void row(Session &session, std::string_view label, const std::string &value) {
  session.out << fmt::format("{:<12}{}\n", label, value);
}

std::string counted(uint64_t count, std::string_view what) {
  return fmt::format("{} {}", human_count(count), what);
}

std::string stored_text(const InputPosition &position) {
  if (position.file == nullptr) return "nothing";
  return fmt::format("up to {}:{} (byte {})", escaped(*position.file), position.line, position.end_byte);
}

void write_counts(const IngestReport &report, Session &session) {
  const IngestTotals &totals = report.run.totals();
  row(session, "lines",
      fmt::format("{} in {}", human_count(totals.lines), human_duration_s(report.duration_s)));
  std::string samples = human_count(totals.samples);
  if (totals.foreign_samples > 0)
    samples += fmt::format(", {} of other nodes' metrics", human_count(totals.foreign_samples));
  if (totals.null_samples > 0) samples += ", and " + counted(totals.null_samples, "null");
  if (totals.text_samples > 0) samples += ", and " + counted(totals.text_samples, "texts");
  if (totals.histogram_samples > 0) samples += ", and " + counted(totals.histogram_samples, "histograms");
  row(session, "samples", samples);
  row(session, "metrics",
      fmt::format("{} numeric, {} text, {} histogram", human_count(report.run.metrics().numeric_count()),
                  human_count(report.run.metrics().text_count()),
                  human_count(report.run.metrics().histogram_count())));
  if (totals.last_ms >= totals.first_ms) {
    row(session, "time",
        fmt::format("{} to {}", iso_time(totals.first_ms / 1000), iso_time(totals.last_ms / 1000)));
  }
  if (report.end != IngestEnd::complete) row(session, "stored", stored_text(report.run.stored_up_to()));
  const RollupStore &store = report.run.store();
  row(session, "files",
      fmt::format("{} written, {} of them new", human_count(totals.files + totals.histogram_files),
                  human_count(store.files_created())));
  row(session, "records",
      fmt::format("{}, {}", human_count(store.records_written()),
                  human_bytes(store.records_written() * kRecordBytes)));
  if (totals.histogram_files == 0) return;
  row(session, "histograms",
      fmt::format("{}, {} written", counted(totals.histogram_files, "series files"),
                  human_bytes(store.whole_file_bytes_written())));
}

void write_owners(const IngestReport &report, Session &session) {
  session.out << "\nowners\n";
  const std::vector<uint64_t> &metrics = report.run.metrics().metrics_per_node();
  for (size_t node = 0; node < metrics.size(); ++node) {
    session.out << fmt::format("  {}  {:>9} metrics  {:>12} samples{}\n",
                               report.options.topology->hc[node].id_str, human_count(metrics[node]),
                               human_count(report.run.totals().samples_per_node[node]),
                               report.options.me[node] ? "" : "  (not me)");
  }
}

void write_refusals(const IngestReport &report, Session &session) {
  const IngestTotals &totals = report.run.totals();
  if (totals.refused == 0) return;
  session.out << fmt::format("\nrefused     {} lines\n", human_count(totals.refused));
  for (size_t i = 0; i < kRefusalCount; ++i) {
    const RefusalCount &refusal = totals.refusals[i];
    if (refusal.count == 0) continue;
    const std::string detail = refusal.detail.empty() ? "" : ": " + refusal.detail;
    session.out << fmt::format("  {:>9}  {}{}\n             first {}:{}: {}\n", human_count(refusal.count),
                               refusal_text(static_cast<Refusal>(i)), detail, escaped(refusal.first_file),
                               refusal.first_line, in_quotes(refusal.first_text));
  }
}

void write_texts(const IngestReport &report, Session &session) {
  const std::vector<const Metric *> texts = report.run.metrics().texts();
  if (texts.empty()) return;
  session.out << "\nlatest texts\n";
  for (size_t i = 0; i < texts.size() && i < kTextsShown; ++i) {
    session.out << fmt::format("  {}  {} = {}\n", iso_time(texts[i]->text_whence_ms / 1000),
                               escaped(texts[i]->key), in_quotes(texts[i]->text.substr(0, 120)));
  }
  if (texts.size() > kTextsShown) {
    session.out << fmt::format("  and {} more (--json has them all)\n",
                               human_count(texts.size() - kTextsShown));
  }
}

void write_histograms(const IngestReport &report, Session &session) {
  const IngestMetrics &metrics = report.run.metrics();
  if (metrics.totals().empty()) return;
  session.out << "\nhistograms\n";
  for (const Metric *metric : metrics.totals()) {
    const histogram_t *total = metric->total.get();
    session.out << fmt::format("  {}\n  {:>12} values", escaped(metric->key),
                               human_count(hist_sample_count(total)));
    if (hist_number_count(total) > 0)
      session.out << fmt::format("  p50 {:.4g}  p99 {:.4g}", quantile_of(total, 0.5),
                                 quantile_of(total, 0.99));
    session.out << "\n";
  }
  if (metrics.totals().size() == IngestMetrics::kTotals && metrics.histogram_count() > IngestMetrics::kTotals)
    session.out << "  and more; 'orlith hist show' draws any\n";
}

Json histograms_json(const IngestMetrics &metrics) {
  Json result = Json::array();
  for (const Metric *metric : metrics.totals()) {
    const histogram_t *total = metric->total.get();
    Json entry = Json::object();
    entry.set("metric", metric->key)
        .set("count", hist_sample_count(total))
        .set("p50", quantile_of(total, 0.5))
        .set("p99", quantile_of(total, 0.99));
    result.add(std::move(entry));
  }
  return result;
}

Json position_json(const InputPosition &position) {
  if (position.file == nullptr) return nullptr;
  Json result = Json::object();
  result.set("file", *position.file).set("line", position.line).set("byte", position.end_byte);
  return result;
}

Json refusals_json(const IngestTotals &totals) {
  Json result = Json::array();
  for (size_t i = 0; i < kRefusalCount; ++i) {
    const RefusalCount &refusal = totals.refusals[i];
    if (refusal.count == 0) continue;
    Json first = Json::object();
    first.set("file", refusal.first_file).set("line", refusal.first_line).set("text", refusal.first_text);
    Json entry = Json::object();
    entry.set("reason", refusal_name(static_cast<Refusal>(i)))
        .set("text", refusal_text(static_cast<Refusal>(i)))
        .set("count", refusal.count)
        .set("first", std::move(first));
    if (!refusal.detail.empty()) entry.set("detail", refusal.detail);
    result.add(std::move(entry));
  }
  return result;
}

Json owners_json(const IngestReport &report) {
  Json result = Json::array();
  const std::vector<uint64_t> &metrics = report.run.metrics().metrics_per_node();
  for (size_t node = 0; node < metrics.size(); ++node) {
    Json entry = Json::object();
    entry.set("node", report.options.topology->hc[node].id_str)
        .set("me", bool{report.options.me[node]})
        .set("metrics", metrics[node])
        .set("samples", report.run.totals().samples_per_node[node]);
    result.add(std::move(entry));
  }
  return result;
}

Json texts_json(const IngestRun &run) {
  Json result = Json::array();
  for (const Metric *metric : run.metrics().texts()) {
    Json entry = Json::object();
    entry.set("metric", metric->key).set("time_ms", metric->text_whence_ms).set("text", metric->text);
    result.add(std::move(entry));
  }
  return result;
}

}  // namespace

void write_summary_text(const IngestReport &report, Session &session) {
  write_counts(report, session);
  write_owners(report, session);
  write_histograms(report, session);
  write_texts(report, session);
  write_refusals(report, session);
}

void write_summary_json(const IngestReport &report, Session &session) {
  const IngestTotals &totals = report.run.totals();
  const RollupStore &store = report.run.store();
  Json periods = Json::array();
  for (const uint32_t period_s : report.options.periods_s) periods.add(period_s);
  Json files = Json::object();
  files.set("written", totals.files)
      .set("created", store.files_created())
      .set("records", store.records_written())
      .set("bytes", store.records_written() * kRecordBytes)
      .set("damaged_records_replaced", store.damaged_records());

  Json histogram_files = Json::object();
  histogram_files.set("written", totals.histogram_files).set("bytes", store.whole_file_bytes_written());

  Json summary = Json::object();
  summary.set("complete", report.end == IngestEnd::complete)
      .set("stored_up_to", position_json(report.run.stored_up_to()))
      .set("lines", totals.lines)
      .set("blank_lines", totals.blank_lines)
      .set("samples", totals.samples)
      .set("foreign_samples", totals.foreign_samples)
      .set("null_samples", totals.null_samples)
      .set("text_samples", totals.text_samples)
      .set("histogram_samples", totals.histogram_samples)
      .set("metrics", report.run.metrics().numeric_count())
      .set("text_metrics", report.run.metrics().text_count())
      .set("histogram_metrics", report.run.metrics().histogram_count())
      .set("refused", totals.refused)
      .set("refusals", refusals_json(totals))
      .set("periods", std::move(periods))
      .set("files", std::move(files))
      .set("histogram_files", std::move(histogram_files))
      .set("owners", owners_json(report))
      .set("histograms", histograms_json(report.run.metrics()))
      .set("texts", texts_json(report.run))
      .set("bytes_read", report.bytes_read)
      .set("duration_s", report.duration_s);
  session.out << summary.text() << "\n";
}
