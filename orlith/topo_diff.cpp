// `orlith topo diff`: what moves when one topology gives way to another.
#include <fmt/format.h>

#include <algorithm>

#include "orlith/check_uuid.h"
#include "orlith/cli.h"
#include "orlith/line_reader.h"
#include "orlith/locator.h"
#include "orlith/progress.h"
#include "orlith/ring_arcs.h"
#include "orlith/ring_moves.h"
#include "orlith/signals.h"
#include "orlith/table.h"
#include "orlith/topology_file.h"

namespace {

struct Options {
  std::string before, after;
  std::string metrics;  // file of metric keys; empty: none given
};

Cell node_cell(const std::string &id) {
  return id.empty() ? Cell("-", Json()) : Cell(id);
}

struct RingReport {
  Table moves{{{"from", "from"},
               {"to", "to"},
               {"space_share", "hash space", Align::right},
               {"data_share", "data", Align::right}}};
  double data_share = 0;  // all moves together, of the data that the first topology stores
};

RingReport compare_rings(const topo_config &before, const topo_config &after, Session &session) {
  const topo_config *const topologies[] = {&before, &after};
  Progress progress(session, "comparing the rings", ring_arc_count(topologies), Progress::items, "arcs");
  const std::vector<MoveShare> moves =
      ring_moves(before, after, [&](uint64_t arcs) { progress.advance(arcs); });
  progress.finish();
  RingReport report;
  for (const MoveShare &entry : moves) {
    const double data = entry.share / before.w_count;
    report.moves.add(node_cell(entry.move.from), node_cell(entry.move.to),
                     Cell(fmt::format("{:.3f}%", entry.share * 100), entry.share),
                     Cell(fmt::format("{:.3f}%", data * 100), data));
    report.data_share += data;
  }
  return report;
}

// Reads metric keys, one a line, and finds those that move.
class MetricList {
 public:
  MetricList(const topo_config &before, const topo_config &after, Session &session)
      : before_(before), after_(after), session_(session) {}

  // False after an error message when the file cannot be read.
  bool read(const std::string &file) {
    LineReader reader({file}, interrupted);
    Progress progress(session_, "placing", reader.total_bytes(), Progress::bytes);
    uint64_t reported = 0;
    for (InputLine line; reader.next(&line);) {
      add(line);
      progress.advance(reader.bytes_read() - reported);
      reported = reader.bytes_read();
    }
    progress.finish();
    if (reader.error().empty()) return true;
    session_.error(reader.error());
    return false;
  }

  Table moves{{{"metric", "metric"}, {"from", "from"}, {"to", "to"}}};
  uint64_t total = 0, moving = 0, refused = 0;

 private:
  void add(const InputLine &line) {
    if (line.text.empty()) return;
    std::string fault;
    const Locator locator = parse_key(line, &fault);
    if (locator == nullptr) return refuse(line, fault);
    ++total;
    const std::vector<CopyMove> copies =
        moves_at(before_, after_, orlith_metric_locator_get_hash(locator.get()));
    if (!copies.empty()) ++moving;
    for (const CopyMove &move : copies) moves.add(line.text, node_cell(move.from), node_cell(move.to));
  }
  static Locator parse_key(const InputLine &line, std::string *fault) {
    constexpr size_t uuid_length = 36;
    const std::string_view key = line.text;
    const std::string uuid = normalized_uuid(std::string(key.substr(0, uuid_length)));
    if (line.too_long) {
      *fault = "the line is too long";
    } else if (uuid.empty() || key.size() <= uuid_length || key[uuid_length] != '-') {
      *fault = fmt::format("found {}, expected a key as in UUID-NAME", in_quotes(key));
    } else {
      return make_locator(uuid, key.substr(uuid_length + 1), fault);
    }
    return nullptr;
  }
  // The first one is told in full; the count stands in the summary.
  void refuse(const InputLine &line, const std::string &fault) {
    if (refused++ == 0)
      session_.warning(
          fmt::format("{}: line {}: {}", escaped(*line.position.file), line.position.line, fault));
  }
  const topo_config &before_;
  const topo_config &after_;
  Session &session_;
};

void print_json(const topo_config &before, const topo_config &after, RingReport &rings, MetricList *metrics,
                Session &session) {
  Json json = Json::object();
  json.set("before", before.hex_signature).set("after", after.hex_signature);
  json.set("data_share", rings.data_share).set("moves", rings.moves.take_json());
  if (metrics != nullptr) {
    Json list = Json::object();
    list.set("total", metrics->total).set("moving", metrics->moving).set("refused", metrics->refused);
    list.set("moves", metrics->moves.take_json());
    json.set("metrics", std::move(list));
  }
  session.out << json.text() << "\n";
}

void print_text(const topo_config &before, const topo_config &after, const RingReport &rings,
                const MetricList *metrics, Session &session) {
  session.out << fmt::format("before  {}\nafter   {}\nmoving  {:.3f}% of the data\n", before.hex_signature,
                             after.hex_signature, rings.data_share * 100);
  if (rings.moves.size() > 0) session.out << "\n" << rings.moves.text(session);
  if (metrics == nullptr) return;
  session.out << fmt::format("\nmetrics {}, moving {}, refused {}\n", metrics->total, metrics->moving,
                             metrics->refused);
  if (metrics->moves.size() > 0) session.out << "\n" << metrics->moves.text(session);
}

int run(const Options &options, Session &session) {
  int code = exit_fine;
  const Topology before = load_topology(options.before, &code, session);
  if (before == nullptr) return code;
  const Topology after = load_topology(options.after, &code, session);
  if (after == nullptr) return code;
  MetricList metrics(*before, *after, session);
  const bool with_metrics = !options.metrics.empty();
  if (with_metrics && !metrics.read(options.metrics)) return exit_failed;
  if (interrupted()) return exit_interrupted;
  RingReport rings = compare_rings(*before, *after, session);
  MetricList *shown = with_metrics ? &metrics : nullptr;
  if (session.settings.json) {
    print_json(*before, *after, rings, shown, session);
  } else {
    print_text(*before, *after, rings, shown, session);
  }
  return metrics.refused > 0 ? exit_damaged : exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("BEFORE", options->before, "the topology that is in force")->type_name("BEFORE")->required();
  app.add_option("AFTER", options->after, "the one to move to")->type_name("AFTER")->required();
  app.add_option("-m,--metrics", options->metrics,
                 "also tell which of these metrics move: a key, UUID-NAME, a line; - reads standard input")
      ->type_name("FILE");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command topo_diff_command = {
    .name = "topo diff",
    .summary = "tell what moves between two topologies",
    .description =
        "For each pair of nodes, the part of the hash space of which a copy moves from the one to the other, "
        "and the "
        "part of all stored copies that this is. Measured on both rings, not estimated. Nodes are the same "
        "when their "
        "ids are; \"-\" as one end is a copy that is new or given up. Copies on nodes that stay owners do "
        "not move, "
        "also when their order changes.\n\n"
        "Exit code 2 when a topology or a line of the list is refused.",
    .examples = {{{"orlith topo diff cluster.xml cluster.xml", "nothing moves"},
                  {"orlith topo diff --json cluster.xml cluster.xml --metrics /dev/null",
                   "shares as fractions of 1"}}},
    .formats = format_json,
    .configure = configure,
};
