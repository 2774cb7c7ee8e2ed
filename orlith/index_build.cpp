// `orlith index build`: an index of all metrics below a data folder.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "orlith/atomic_file.h"
#include "orlith/cli.h"
#include "orlith/data_scan.h"
#include "orlith/histogram_line.h"

namespace {

struct Options {
  std::string data, output;
};

// The index knows of all that came before it was begun.
int stamp(int fd, const struct timespec &begun) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, begun};
  return futimens(fd, times) == 0 ? 0 : errno;
}

void report(const Options &options, const DataScan &scan, const MetricIndexBuilder::Counts &counts,
            Session &session) {
  if (session.settings.json) {
    Json json = Json::object();
    json.set("data", options.data).set("output", options.output).set("metrics", counts.metrics);
    json.set("tags", counts.tags).set("files", scan.files).set("passed_over", scan.passed_over);
    json.set("bytes", counts.bytes);
    session.out << json.text() << "\n";
    return;
  }
  session.out << fmt::format("{}: {} metrics, {} tags, {} files, {} bytes", escaped(options.output),
                             human_count(counts.metrics), human_count(counts.tags), human_count(scan.files),
                             human_count(counts.bytes));
  if (scan.passed_over > 0) session.out << fmt::format("; {} passed over", human_count(scan.passed_over));
  session.out << "\n";
}

int run(Options options, Session &session) {
  start_library();
  if (options.output.empty())
    options.output = options.data + (options.data.ends_with('/') ? "" : "/") + std::string(kIndexFile);
  const auto fail = [&](int error) {
    session.error(fmt::format("{}: cannot be written: {}", escaped(options.output), strerror(error)));
    return exit_failed;
  };
  struct stat info {};
  if (const bool is_there = stat(options.data.c_str(), &info) == 0; !is_there || !S_ISDIR(info.st_mode)) {
    const int error = is_there ? ENOTDIR : errno;
    session.error(fmt::format("{}: {}", escaped(options.data), strerror(error)));
    return error == ENOENT || error == ENOTDIR ? exit_not_found : exit_failed;
  }
  AtomicFile file(options.output);
  if (const int error = file.open()) return fail(error);
  if (fstat(file.fd(), &info) != 0) return fail(errno);

  MetricIndexBuilder builder;
  DataScan scan;
  Problem problem;
  if (!scan_data_folder(options.data, &builder, &scan, &problem)) {
    session.error(fmt::format("{}: {}", escaped(options.data), problem.text));
    return problem.code;
  }
  MetricIndexBuilder::Counts counts;
  if (const int error = builder.write(file.fd(), scan.trees_hash, &counts)) return fail(error);
  if (const int error = stamp(file.fd(), info.st_mtim)) return fail(error);
  if (const int error = file.commit()) return fail(error);
  report(options, scan, counts, session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("DIR", options->data, "the data folder")->type_name("DIR")->required();
  app.add_option("-o,--output", options->output,
                 "write here; metrics.index in the data folder unless given, which 'orlith find' looks at")
      ->type_name("FILE");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_build_command = {
    .name = "index build",
    .summary = "write an index of the metrics of a data folder",
    .description =
        "Looks through all folders for rollup files and folders of histogram files, and writes one file in "
        "which a "
        "metric's files are found by its key, by the beginning of it, or by tags. The file is used in place: "
        "it can "
        "be far larger than memory.\n\n"
        "'orlith ingest' keeps the index in its data folder up to date. What is named as no metric's file is "
        "passed "
        "over and counted. An older file under the output's name is replaced when the new one is whole.",
    .examples = {{{"orlith index build rollups", "the index that belongs to the folder"},
                  {"orlith index build rollups -o other.index --json",
                   "another one; how much is in it, as JSON"}}},
    .formats = format_json,
    .configure = configure,
};
