// `orlith collect`: M lines and histogram lines about this host.
#include "orlith/collect.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>

#include "orlith/atomic_file.h"
#include "orlith/check_uuid.h"
#include "orlith/cli.h"
#include "orlith/host_sources.h"
#include "orlith/signals.h"

namespace {

// Of a round, for each latency.
constexpr uint64_t kMostBudget_ns = 10'000'000;
constexpr uint64_t kIntervalPerBudget = 20;

// A source that had no time, or failed at once, has nothing to tell.
void append_latencies(std::string &lines, uint64_t time_ms, const CollectOptions &options, Clock &clock,
                      std::vector<std::string> &problems) {
  const auto interval_ns = static_cast<uint64_t>(options.interval_s * 1e9);
  const uint64_t budget_ns = std::min(kMostBudget_ns, interval_ns / kIntervalPerBudget);
  for (const LatencySource &source : options.latencies) {
    const Histogram latencies = measure_latency(source, clock, budget_ns, problems);
    if (hist_sample_count(latencies.get()) == 0) continue;
    append_h_line(lines, time_ms, options.check_uuid, source.name, latencies.get());
  }
}

}  // namespace

int collect(const CollectOptions &options, Session &session, Output &out) {
  HostContext context{options.root, {}};
  std::set<std::string> warned;
  const auto interval_ns = static_cast<uint64_t>(options.interval_s * 1e9);
  const uint64_t start_ns = session.clock.monotonic_ns();
  uint64_t slot = 0;  // the round's place in the schedule
  bool anything = false;
  for (uint64_t round = 0; options.count == 0 || round < options.count; ++round) {
    if (round > 0) {
      const uint64_t elapsed_ns = session.clock.monotonic_ns() - start_ns;
      slot = std::max(slot + 1, elapsed_ns / interval_ns);
      if (!session.clock.sleep_until_ns(start_ns + slot * interval_ns)) return exit_interrupted;
    }
    const uint64_t time_ms = session.clock.realtime_ms();
    std::vector<std::string> problems;
    std::string lines;
    for (const Sample &sample : read_host(context, problems))
      append_m_line(lines, time_ms, options.check_uuid, sample);
    append_latencies(lines, time_ms, options, session.clock, problems);
    for (const std::string &problem : problems)
      if (warned.insert(problem).second) session.warning(problem + "; left out");
    anything = anything || !lines.empty();
    out << lines;
    if (!out.flush()) return out.reader_gone() ? exit_fine : exit_failed;
    if (interrupted()) return exit_interrupted;
  }
  if (anything) return exit_fine;
  session.error("no source could be read");
  return exit_failed;
}

namespace {

struct Options {
  CollectOptions collect;
  std::string check, state_file, output_file;
  bool no_histograms = false;
};

// The check UUID given or kept; empty after an error, with `code` set.
std::string find_check_uuid(const Options &options, Session &session, int &code) {
  if (!options.check.empty()) {
    std::string uuid = normalized_uuid(options.check);
    if (uuid.empty())
      session.error(fmt::format("--check: found {}, expected a UUID", in_quotes(options.check)));
    code = exit_usage;
    return uuid;
  }
  const std::string path = options.state_file.empty() ? default_check_uuid_path() : options.state_file;
  if (path.empty()) {
    session.error("there is no home folder to keep the check UUID in; give --state FILE or --check UUID");
    code = exit_usage;
    return {};
  }
  const CheckUuid kept = load_or_make_check_uuid(path);
  if (kept.text.empty()) session.error(kept.error);
  code = kept.damaged ? exit_damaged : exit_failed;
  return kept.text;
}

int collect_into_file(const Options &options, Session &session) {
  const auto fail = [&](int error) {
    session.error(fmt::format("cannot write {}: {}", in_quotes(options.output_file), strerror(error)));
    return exit_failed;
  };
  AtomicFile file(options.output_file);
  if (const int error = file.open()) return fail(error);
  FdOutput out(file.fd());
  const int code = collect(options.collect, session, out);
  if (out.failed()) return fail(out.error());
  if (code == exit_failed) return code;
  // An interrupted collection is shorter, but every round in it is whole.
  if (const int error = file.commit()) return fail(error);
  return code;
}

// A folder of another machine's files says nothing of that machine's latencies.
void choose_latencies(Options &options, Session &session) {
  if (options.no_histograms || !options.collect.root.empty()) return;
  std::vector<std::string> problems;
  options.collect.latencies = host_latencies(problems);
  for (const std::string &problem : problems) session.warning(problem + "; left out");
}

int run(Options &options, Session &session) {
  if (!(options.collect.interval_s >= 0.001 && options.collect.interval_s <= 1e6)) {
    session.error("--interval must be from 0.001 to 1000000 seconds");
    return exit_usage;
  }
  int code = exit_failed;
  options.collect.check_uuid = find_check_uuid(options, session, code);
  if (options.collect.check_uuid.empty()) return code;
  while (options.collect.root.ends_with('/')) options.collect.root.pop_back();
  choose_latencies(options, session);
  if (options.output_file.empty() || options.output_file == "-")
    return collect(options.collect, session, session.out);
  return collect_into_file(options, session);
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("-n,--count", options->collect.count, "how many rounds; 0 for no end")
      ->type_name("COUNT")
      ->capture_default_str();
  app.add_option("-i,--interval", options->collect.interval_s, "from one round to the next")
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--check", options->check, "the check UUID, instead of the one kept")->type_name("UUID");
  app.add_option("--state", options->state_file, "where the check UUID is kept")->type_name("FILE");
  app.add_option("-o,--output", options->output_file, "write here instead of to standard output")
      ->type_name("FILE");
  app.add_option("--root", options->collect.root, "read below this folder instead of /; no histogram lines")
      ->type_name("DIR");
  app.add_flag("--no-histograms", options->no_histograms, "M lines only");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command collect_command = {
    .name = "collect",
    .summary = "write M lines and histogram lines about this host",
    .description =
        "Reads the kernel's own files (processors, memory, load, disks, network, file systems, pressure, "
        "temperatures, processes, file handles) and writes one M line a value, in the form without a source "
        "field: "
        "M, time, check UUID, metric name, type, value, separated by tabs.\n\n"
        "Each round also measures latencies itself, some milliseconds long, and writes a histogram line "
        "each: H, "
        "time, "
        "check UUID, metric name, histogram. They tell how late a thread wakes from a short sleep, and what "
        "reading and "
        "writing a page of a temporary file takes.\n\n"
        "The check UUID stands for this host. It is made on first use and kept in orlith/check_uuid below "
        "$XDG_STATE_HOME or ~/.local/state.\n\n"
        "A file that is missing or malformed is left out with one warning. With --output the file appears "
        "whole, "
        "after the last round. An interrupt ends the collection after whole lines, with exit code 130.",
    .examples = {{{"orlith collect --count 2 --interval 0.1 --output lines.txt", "two rounds into a file"},
                  {"orlith collect --check 1b4e28ba-2fa1-11d2-883f-0016d3cca427 | head -3",
                   "one round for a given check, its first lines"}}},
    .configure = configure,
};
