// `orlith nnt info`: header and extent of files.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/nnt_reader.h"
#include "orlith/table.h"

namespace {

struct Options {
  std::vector<std::string> files;
};

int run(const Options &options, Session &session) {
  Table table({{"file", "file"},
               {"version", "version"},
               {"period", "period", Align::right},
               {"epoch", "epoch", Align::right},
               {"end", "end", Align::right},
               {"slots", "slots", Align::right},
               {"bytes", "bytes", Align::right},
               {"tail_bytes", "tail", Align::right}});
  int worst = exit_fine;
  for (const std::string &file : options.files) {
    Problem problem;
    const auto reader = NntReader::open(file, &problem);
    if (!reader) {
      session.error(fmt::format("{}: {}", escaped(file), problem.text));
      worst = worse_exit(worst, problem.code);
      continue;
    }
    const auto time = [&](uint64_t time_s) {
      return Cell(session.time_text(time_s), session.time_json(time_s));
    };
    table.add(file, NNT_V1_MAGIC, reader->period_s(), time(reader->epoch_s()), time(reader->end_s()),
              reader->slot_count(), reader->size_bytes(), reader->tail_bytes());
    if (reader->tail_bytes() != 0) worst = worse_exit(worst, exit_damaged);
  }
  if (table.size() > 0 || session.settings.json) print(session, std::move(table));
  return worst;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->files, "NNT files")->type_name("FILE")->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command nnt_info_command = {
    .name = "nnt info",
    .summary = "show header and extent of NNT files",
    .description =
        "One row a file: version, width of a slot in seconds, time of the first slot, time where the last "
        "one ends, number of slots, size. A tail other than 0 is a file cut inside a record.",
    .examples = {{{"orlith nnt info cpu.nnt", "one file, times in epoch seconds"},
                  {"orlith nnt info --iso --json cpu.nnt", "the same as JSON, times as ISO 8601"}}},
    .formats = format_json | format_jsonl | format_iso,
    .configure = configure,
};
