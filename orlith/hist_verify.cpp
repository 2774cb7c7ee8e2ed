// `orlith hist verify`: decodes every histogram of series files and folders of files.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "orlith/cli.h"
#include "orlith/data_path.h"
#include "orlith/file_verifier.h"
#include "orlith/histogram_line.h"
#include "orlith/histogram_series_file.h"
#include "orlith/signals.h"

namespace {

struct Options {
  std::vector<std::string> paths;
};

struct SeriesReport {
  uint64_t entries = 0, damaged = 0;
  std::string first_fault;
  uint64_t first_fault_entry = 0, first_fault_ms = 0;
};

Problem read_series(const std::string &path, HistogramSeriesFile *series) {
  const ReachablePath reachable(path, false);
  struct stat info {};
  if (stat(reachable.path().c_str(), &info) != 0) return system_problem(errno);
  if (!S_ISREG(info.st_mode)) return {"is no regular file", exit_damaged};
  if (const int error = series->read(reachable.path())) return system_problem(error);
  if (!series->is_sound()) return {"is no histogram series, or a damaged one", exit_damaged};
  return {};
}

class SeriesVerifier final : public FileVerifier {
 public:
  explicit SeriesVerifier(Session &session) : FileVerifier(session, "histogram") {}

 protected:
  // By name alone: other compressed files begin as a series does.
  bool belongs(const std::string &path) const override { return path.ends_with(kSeriesSuffix); }

  void verify(const std::string &path, uint64_t size_bytes, Progress &progress) override {
    HistogramSeriesFile series;
    const Problem problem = read_series(path, &series);
    SeriesReport report;
    if (problem.text.empty() && !check(series, report)) return;
    progress.advance(size_bytes);
    progress.pause();
    if (!problem.text.empty()) return tell_problem(path, problem);
    tell(path, findings_of(path, series, report));
  }

 private:
  // False after an interrupt. Readers take times as they are; writers only make such that ascend within the window.
  static bool check(HistogramSeriesFile &series, SeriesReport &report) {
    uint64_t last_ms = 0;
    return series.for_each([&](uint64_t time_ms, const histogram_t *histogram) {
      const uint64_t entry = report.entries++;
      const char *fault = histogram == nullptr              ? "does not decode"
                          : entry > 0 && time_ms <= last_ms ? "is not later than the one before"
                          : time_ms > series.base_ms() + series.window_ms() ? "lies behind the window"
                                                                            : nullptr;
      last_ms = time_ms;
      if (fault != nullptr && report.damaged++ == 0) {
        report.first_fault = fault;
        report.first_fault_entry = entry;
        report.first_fault_ms = time_ms;
      }
      return !interrupted();
    });
  }

  Findings findings_of(const std::string &path, const HistogramSeriesFile &series,
                       const SeriesReport &report) const {
    Findings findings;
    findings.items = report.entries;
    findings.damaged_items = report.damaged;
    findings.json = Json::object();
    findings.json.set("file", path).set("ok", report.damaged == 0);
    findings.json.set("base", session_.time_json(series.base_ms() / 1000));
    findings.json.set("window_ms", series.window_ms());
    findings.json.set("histograms", report.entries).set("damaged", report.damaged);
    if (report.damaged == 0) return findings;
    findings.damage.push_back(
        fmt::format("{} of {} histograms, the first at entry {} ({}): {}", human_count(report.damaged),
                    human_count(report.entries), report.first_fault_entry,
                    session_.time_text(report.first_fault_ms / 1000), report.first_fault));
    Json first = Json::object();
    first.set("entry", report.first_fault_entry)
        .set("time", session_.time_json(report.first_fault_ms / 1000));
    first.set("fault", report.first_fault);
    findings.json.set("first_damaged", std::move(first));
    return findings;
  }
};

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->paths, "series files, or folders that hold some")
      ->type_name("FILE")
      ->required();
  return [options](Session &session) {
    start_library();
    return SeriesVerifier(session).run(options->paths);
  };
}

}  // namespace

extern const Command hist_verify_command = {
    .name = "hist verify",
    .summary = "decode every histogram of series files",
    .description =
        "Decompresses histogram series and decodes all their histograms, one after the other. Folders are "
        "searched, all levels down, for files that are named *.hss. Says for each damaged file how many "
        "histograms are bad and where the first one is: its number, from 0, and its time. A file that is no "
        "whole series is named as such.\n\n"
        "Series that 'orlith ingest' writes carry a checksum: any change of what they hold is found.\n\n"
        "Exit code 2 when damage was found, 3 when a file is not there, 1 when one cannot be read.",
    .examples = {{{"orlith hist verify latency.hss", "one file"},
                  {"orlith hist verify --json broken.hss || test $? = 2", "a damaged file, as JSON"}}},
    .formats = format_json | format_jsonl | format_iso,
    .configure = configure,
};
