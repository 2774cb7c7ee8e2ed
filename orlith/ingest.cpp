// `orlith ingest`: from lines to rollup files.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/ingest_run.h"
#include "orlith/ingest_summary.h"
#include "orlith/progress.h"
#include "orlith/signals.h"
#include "orlith/topology_file.h"
#include "ruxo/uuid.h"

namespace {

constexpr uint32_t kDefaultPeriod_s = 60;
constexpr uint32_t kMaxPeriod_s = 366 * 86400;

struct Options {
  std::string data;
  std::string topology;
  std::string me;
  std::vector<uint32_t> periods_s;
  uint64_t future_bound_s = 600;
  bool with_source = false;
  std::vector<std::string> files;
};

// The cluster of a lone node, for those who have no topology yet. Its id is fixed, so files never move.
constexpr std::string_view kLoneNodeTopology =
    "<nodes write_copies=\"1\">"
    "<node id=\"00000000-0000-4000-8000-000000000001\" weight=\"32\" address=\"127.0.0.1\" port=\"8112\""
    " apiport=\"8112\"/>"
    "</nodes>";

// Which nodes' data this run keeps, by node number; nothing (and a message) when that cannot be told.
std::optional<std::vector<bool>> choose_me(const Options &options, const topo_config &topology, int *code,
                                           Session &session) {
  const size_t count = topology.host_count;
  *code = exit_usage;
  if (options.me == "all") return std::vector<bool>(count, true);
  if (options.me.empty()) {
    if (count == 1) return std::vector<bool>(1, true);
    session.error(fmt::format("{}: has {} nodes; say which one this is with --me UUID, or --me all",
                              escaped(options.topology), count));
    return std::nullopt;
  }
  std::vector<bool> me(count);
  ruxo_uuid_t id;
  if (ruxo_uuid_parse(options.me.c_str(), id) != 0) {
    session.error(fmt::format("--me: found {}, expected a node's UUID, or all", in_quotes(options.me)));
    return std::nullopt;
  }
  for (size_t i = 0; i < count; ++i) me[i] = ruxo_uuid_compare(id, topology.hc[i].id) == 0;
  if (std::find(me.begin(), me.end(), true) != me.end()) return me;
  *code = exit_not_found;
  session.error(fmt::format("--me {}: the topology has no such node; 'orlith topo show {}' lists them",
                            in_quotes(options.me), escaped(options.topology)));
  return std::nullopt;
}

// Why an input cannot be read, as an errno; 0 when it can.
int input_fault(const std::string &file) {
  struct stat info {};
  if (file == "-") return 0;
  if (stat(file.c_str(), &info) != 0) return errno;
  if (S_ISDIR(info.st_mode)) return EISDIR;
  return access(file.c_str(), R_OK) == 0 ? 0 : errno;
}

// Refuses inputs that cannot be read before anything is written; the exit code.
int check_inputs(const std::vector<std::string> &files, Session &session) {
  int code = exit_fine;
  for (const std::string &file : files) {
    const int fault = input_fault(file);
    if (fault == 0) continue;
    session.error(fmt::format("{}: {}", escaped(file), strerror(fault)));
    if (code != exit_failed) code = fault == ENOENT ? exit_not_found : exit_failed;
  }
  return code;
}

// Folding twice is not folding once: what to do next depends on what is already stored.
std::string how_to_go_on(const IngestRun &run, std::string_view then) {
  const InputPosition &stored = run.stored_up_to();
  if (stored.file == nullptr)
    return fmt::format("nothing of the input was stored{}the same input can be given again", then);
  return fmt::format(
      "the input is stored up to {}:{} (byte {}), nothing after it{}go on after that line: what is stored "
      "would "
      "count twice if it were given again",
      escaped(*stored.file), stored.line, stored.end_byte, then);
}

void explain_failure(const IngestRun &run, Session &session) {
  session.error(escaped(run.error()));
  if (!run.store().unrestored().empty()) {
    session.error(fmt::format("and could not be put back as it was: {}; check it with 'orlith nnt verify'",
                              escaped(run.store().unrestored())));
  }
  session.error(how_to_go_on(run, "; once the cause is mended, "));
}

int exit_code_of(IngestEnd end, const IngestRun &run) {
  switch (end) {
    case IngestEnd::store_failed:
    case IngestEnd::input_failed:
      return exit_failed;
    case IngestEnd::interrupted:
      return exit_interrupted;
    case IngestEnd::complete:
      break;
  }
  return run.totals().refused > 0 || run.store().damaged_records() > 0 ? exit_damaged : exit_fine;
}

IngestOptions ingest_options(const Options &options, const topo_config *topology, std::vector<bool> me,
                             Session &session) {
  IngestOptions result;
  result.data_folder = options.data;
  result.periods_s = options.periods_s.empty() ? std::vector<uint32_t>{kDefaultPeriod_s} : options.periods_s;
  std::sort(result.periods_s.begin(), result.periods_s.end());
  result.periods_s.erase(std::unique(result.periods_s.begin(), result.periods_s.end()),
                         result.periods_s.end());
  result.topology = topology;
  result.me = std::move(me);
  result.folder_per_node = options.me == "all";
  result.with_source = options.with_source;
  result.now_ms = [&clock = session.clock] { return clock.realtime_ms(); };
  result.future_bound_ms = options.future_bound_s * 1000;
  return result;
}

int run(const Options &options, Session &session) {
  start_library();  // refused names are told in the summary, once and with their line
  const std::vector<std::string> files =
      options.files.empty() ? std::vector<std::string>{"-"} : options.files;
  int code = check_inputs(files, session);
  if (code != exit_fine) return code;
  code = exit_failed;
  const Topology topology = options.topology.empty()
                                ? compile_topology(kLoneNodeTopology, "built-in topology", session)
                                : load_topology(options.topology, &code, session);
  if (topology == nullptr) return code;
  auto me = choose_me(options, *topology, &code, session);
  if (!me) return code;

  const IngestOptions run_options = ingest_options(options, topology.get(), std::move(*me), session);
  IngestRun ingestion(run_options);
  if (!ingestion.open()) {
    session.error(escaped(ingestion.error()));
    return exit_failed;
  }
  LineReader reader(files, interrupted);
  const uint64_t started_ns = session.clock.monotonic_ns();
  Progress progress(session, "ingesting", reader.total_bytes(), Progress::bytes);
  uint64_t shown_bytes = 0;
  const IngestEnd end = ingestion.run(reader, [&] {
    progress.advance(reader.bytes_read() - shown_bytes);
    shown_bytes = reader.bytes_read();
  });
  progress.finish();
  const double duration_s = static_cast<double>(session.clock.monotonic_ns() - started_ns) / 1e9;

  if (ingestion.store().damaged_records() > 0) {
    session.warning(fmt::format("{} damaged records were in the way{}; the first: {}",
                                ingestion.store().damaged_records(),
                                end == IngestEnd::store_failed ? "" : " and are replaced",
                                escaped(ingestion.store().first_damaged())));
  }
  if (end == IngestEnd::store_failed || end == IngestEnd::input_failed) explain_failure(ingestion, session);
  if (end == IngestEnd::interrupted)
    session.error("interrupted; " + how_to_go_on(ingestion, "; to finish, "));
  if (const std::string &warning = ingestion.index().warning(); !warning.empty())
    session.warning(escaped(warning));
  const std::string &index_error = ingestion.index().error();
  if (!index_error.empty()) {
    session.error(fmt::format("{}; the samples are stored, and 'orlith index build' makes the index",
                              escaped(index_error)));
  }
  const IngestReport report = {ingestion, run_options, end, duration_s, reader.bytes_read()};
  session.settings.json ? write_summary_json(report, session) : write_summary_text(report, session);
  return index_error.empty() ? exit_code_of(end, ingestion) : exit_failed;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("-d,--data", options->data, "the data folder; made when it is not there")
      ->type_name("DIR")
      ->required();
  app.add_option("-t,--topology", options->topology, "the cluster (default: one node that owns everything)")
      ->type_name("FILE");
  app.add_option("--me", options->me, "whose data to keep: a node's id, or all for one tree of files a node")
      ->type_name("UUID");
  app.add_option("-p,--period", options->periods_s,
                 "width of a slot in seconds, 60 unless given; may be repeated")
      ->type_name("SECONDS")
      ->check(CLI::Range(uint32_t{1}, kMaxPeriod_s))
      ->allow_extra_args(false);
  app.add_option("--future-bound", options->future_bound_s,
                 "refuse samples stamped further ahead of the clock")
      ->type_name("SECONDS")
      ->check(CLI::Range(uint64_t{0}, uint64_t{1} << 40))
      ->capture_default_str();
  app.add_flag("--with-source", options->with_source, "the lines carry the source field");
  app.add_option("FILE", options->files,
                 "files of M lines and histogram lines; standard input when there are none, or for -")
      ->type_name("FILE");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command ingest_command = {
    .name = "ingest",
    .summary = "fold samples into rollup files",
    .description =
        "Reads M lines and histogram lines (those that begin with H), finds the owners of each metric, folds "
        "the "
        "samples of the nodes that are \"me\" into slots and writes them: numbers as NNT files, "
        "DIR/<period>/<check>/<name>.nnt, histograms as series files, "
        "DIR/<period>/<check>/<name>.hist/<start>.hss, all below a folder a node with --me all.\n\n"
        "Samples may come late and out of order; a slot that is already on disk is combined with what comes "
        "in. "
        "Lines that are no samples are counted by reason, and the first of each is shown; the exit code is "
        "then 2. "
        "A text has no slot: the latest of each metric is shown.\n\n"
        "Giving the same lines twice counts them twice. When writing fails, the folder is left as it was at "
        "the "
        "last line that is stored whole, and that line is named.\n\n"
        "The index of the folder, metrics.index, is brought up to date at the end, for 'orlith find': one "
        "that "
        "knew all of the folder is added to, any other is made anew.",
    .examples = {{{"orlith ingest --data data --period 60 --period 300 lines.txt",
                   "a lone node, in slots of one and of five minutes"},
                  {"orlith ingest --data data --topology cluster.xml --me all --json < lines.txt",
                   "every node of a cluster, each in a folder of its own"}}},
    .formats = format_json,
    .configure = configure,
};
