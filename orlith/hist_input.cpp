#include "orlith/hist_input.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "orlith/exit_code.h"
#include "orlith/histogram_line.h"
#include "orlith/histogram_series_file.h"
#include "orlith/ingest_refusal.h"
#include "orlith/line_reader.h"
#include "orlith/signals.h"

namespace {

constexpr size_t kShownBytes = 200;

int exit_of_errno(int error) {
  return error == ENOENT || error == ENOTDIR ? exit_not_found : exit_failed;
}

bool is_there(const std::string &path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

// A text that was meant as a histogram and is damaged, rather than the name of a file: in base64, mark and version of
// the stored form come out as "aB" and a letter that also has the two bits behind them.
bool is_like_a_histogram(std::string_view text) {
  return text.size() > 2 && text.starts_with("aB") && text[2] >= 'A' && text[2] <= 'H';
}

}  // namespace

uint64_t HistInput::samples() const {
  uint64_t sum = 0;
  for (const HistSamples &metric : metrics_) sum += metric.samples;
  return sum;
}

int HistInput::read(const std::string &argument) {
  if (argument == "-") return read_lines(argument);
  if (!is_there(argument)) return read_argument(argument);
  return is_series_file(argument) ? read_series(argument) : read_lines(argument);
}

int HistInput::read_argument(const std::string &argument) {
  const bool is_text = argument.find('\t') != std::string::npos || is_like_a_histogram(argument);
  if (!is_text) {
    session_.error(fmt::format("{}: No such file, and neither a histogram line nor a histogram in base64",
                               in_quotes(argument.substr(0, kShownBytes))));
    return exit_not_found;
  }
  const std::string fault = take_line(argument);
  if (fault.empty()) return exit_fine;
  session_.error(fmt::format("{}: {}", in_quotes(argument.substr(0, kShownBytes)), fault));
  return exit_damaged;
}

int HistInput::read_lines(const std::string &file) {
  LineReader reader({file}, interrupted);
  uint64_t faults = 0;
  for (InputLine line; reader.next(&line);) {
    const std::string fault = line.too_long ? refusal_text(Refusal::line_too_long) : take_line(line.text);
    if (fault.empty() || faults++ > 0) continue;
    session_.error(fmt::format("{}:{}: {}: {}", escaped(file), line.position.line, fault,
                               in_quotes(line.text.substr(0, kShownBytes))));
  }
  if (!reader.error().empty()) {
    session_.error(escaped(reader.error()));
    return exit_failed;
  }
  if (interrupted()) return exit_interrupted;
  if (faults > 1)
    session_.error(fmt::format("{}: {} more lines are left out", escaped(file), human_count(faults - 1)));
  return faults > 0 ? exit_damaged : exit_fine;
}

int HistInput::read_series(const std::string &file) {
  HistogramSeriesFile series;
  if (const int error = series.read(file)) {
    session_.error(fmt::format("{}: {}", escaped(file), strerror(error)));
    return exit_of_errno(error);
  }
  if (!series.is_sound()) {
    session_.error(fmt::format("{}: is no histogram series, or a damaged one", escaped(file)));
    return exit_damaged;
  }
  uint64_t damaged = 0;
  series.for_each([&](uint64_t time_ms, const histogram_t *histogram) {
    if (histogram == nullptr) {
      ++damaged;
    } else {
      add("", time_ms, histogram);
    }
    return true;
  });
  if (damaged == 0) return exit_fine;
  session_.error(fmt::format("{}: {} damaged entries left out", escaped(file), human_count(damaged)));
  return exit_damaged;
}

// What is wrong with it; nothing when it was taken, or is of a kind to be passed over.
std::string HistInput::take_line(std::string_view line) {
  if (line.empty() || line.starts_with('M')) return "";
  if (line.find('\0') != std::string_view::npos) return refusal_text(Refusal::nul_byte);
  if (line.find('\t') != std::string_view::npos) return take_histogram_line(line);
  const Histogram histogram = histogram_of_text(line);
  if (histogram == nullptr) return "neither a histogram line nor a histogram in base64";
  add("", std::nullopt, histogram.get());
  return "";
}

std::string HistInput::take_histogram_line(std::string_view line) {
  mline_fields_t fields;
  int code = mline_split(line.data(), line.size(), !options_.with_source, &fields);
  if (code == 0 && !line.starts_with('H')) return refusal_text(Refusal::unknown_kind);
  if (code == 0) code = histogram_line_split(&fields);
  if (code != 1) return refusal_text(refusal_of_histogram_code(code));
  if (const auto fault = timestamp_fault({fields.timestamp.text, fields.timestamp.len}))
    return refusal_text(*fault);
  const Locator locator = histogram_line_locator(fields, &code);
  if (locator == nullptr) return refusal_text(refusal_of_histogram_code(code));
  const std::string key = locator_key(locator.get());
  if (fields.value.len == 0) {
    if (!options_.at_s || fields.whence_ms / 1000 <= *options_.at_s) ++samples_of(key).null_samples;
    return "";
  }
  const Histogram histogram = histogram_of_text({fields.value.text, fields.value.len});
  if (histogram == nullptr) return refusal_text(Refusal::value_no_histogram);
  add(key, fields.whence_ms, histogram.get());
  return "";
}

HistSamples &HistInput::samples_of(const std::string &key) {
  const auto [found, is_new] = by_key_.emplace(key, metrics_.size());
  if (is_new) metrics_.emplace_back().key = key;
  return metrics_[found->second];
}

void HistInput::add(const std::string &key, std::optional<uint64_t> time_ms, const histogram_t *histogram) {
  if (options_.at_s && (!time_ms || *time_ms / 1000 > *options_.at_s)) return;
  HistSamples &metric = samples_of(key);
  if (options_.at_s && metric.has_times) {
    if (*time_ms < metric.last_ms) return;
    if (*time_ms > metric.last_ms) {
      hist_clear(metric.sum.get());
      metric.samples = 0;
      metric.first_ms = *time_ms;
    }
  }
  accumulate(metric.sum.get(), histogram);
  ++metric.samples;
  if (!time_ms) return;
  metric.first_ms = metric.has_times ? std::min(metric.first_ms, *time_ms) : *time_ms;
  metric.last_ms = std::max(metric.last_ms, *time_ms);
  metric.has_times = true;
}
