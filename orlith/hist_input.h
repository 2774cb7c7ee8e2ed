// The histograms that an argument of `orlith hist` names: in a file of lines, in a series file, in a line or as a text.
#ifndef ORLITH_HIST_INPUT_H
#define ORLITH_HIST_INPUT_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orlith/histogram_value.h"
#include "orlith/session.h"

// One metric's samples, merged.
struct HistSamples {
  std::string key;  // "<check uuid>-<canonical name>"; empty where no line names a metric
  Histogram sum = new_histogram();
  uint64_t samples = 0;
  uint64_t null_samples = 0;
  bool has_times = false;
  uint64_t first_ms = 0, last_ms = 0;  // of the samples that are not null
};

struct HistInputOptions {
  bool with_source = false;
  std::optional<uint64_t> at_s;  // only each metric's last sample that is not later than this second
};

class HistInput {
 public:
  HistInput(HistInputOptions options, Session &session) : options_(options), session_(session) {}

  // Reads `argument`: "-", the path of a file, a line, or a histogram's text. The exit code; what is wrong is told.
  // exit_damaged when only a part of it could be read.
  int read(const std::string &argument);

  // By metric, in the order in which they came first.
  const std::vector<HistSamples> &metrics() const { return metrics_; }
  uint64_t samples() const;

 private:
  int read_lines(const std::string &file);
  int read_series(const std::string &file);
  int read_argument(const std::string &argument);
  std::string take_line(std::string_view line);
  std::string take_histogram_line(std::string_view line);
  void add(const std::string &key, std::optional<uint64_t> time_ms, const histogram_t *histogram);
  HistSamples &samples_of(const std::string &key);

  HistInputOptions options_;
  Session &session_;
  std::vector<HistSamples> metrics_;
  std::map<std::string, size_t> by_key_;
};

#endif
