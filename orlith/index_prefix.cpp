// `orlith index prefix`: the metrics whose keys begin with a text.
#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"
#include "orlith/signals.h"

namespace {

struct Options {
  std::string file, text;
};

int run(const Options &options, Session &session) {
  start_library();
  int code = exit_fine;
  const auto index = open_index(options.file, session, &code);
  if (index == nullptr) return code;
  MetricPrinter printer(session);
  const std::string fault = index->each(options.text, [&](std::string_view key, const MetricFiles &files) {
    printer.add(key, files);
    return !interrupted() && !session.out.failed();
  });
  code = printer.finish();
  if (!fault.empty()) return say_damage(options.file, fault, session);
  return interrupted() ? int{exit_interrupted} : code;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "the index")->type_name("FILE")->required();
  app.add_option("TEXT", options->text, "the beginning of a key, as it is; an empty text means all")
      ->type_name("TEXT")
      ->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_prefix_command = {
    .name = "index prefix",
    .summary = "list the metrics whose keys begin with a text",
    .description =
        "A key is the check's UUID, a dash and the metric's canonical name: the UUID alone lists a check's "
        "metrics. "
        "Keys come in the order of the index, which is that of their bytes except that bytes beyond ASCII "
        "may come "
        "first. Only the parts of the index are read that hold them.\n\n"
        "Exit code 3 when there is none, 2 when something on the way is damaged; what was found before is "
        "listed.",
    .examples = {{{"orlith index prefix metrics.index 1b4e28ba-2fa1-11d2-883f-0016d3cca427-cpu",
                   "metrics of one check, by the beginning of their names"},
                  {"orlith index prefix --jsonl metrics.index ''",
                   "all metrics with their files, a line each"}}},
    .formats = format_json | format_jsonl,
    .configure = configure,
};
