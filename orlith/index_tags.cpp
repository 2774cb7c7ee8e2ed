// `orlith index tags`: the metrics that have all of some tags.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"
#include "orlith/signals.h"

namespace {

struct Options {
  std::string file;
  std::vector<std::string> tags;
};

int run(const Options &options, Session &session) {
  start_library();
  std::vector<std::string> tags;
  for (const std::string &tag : options.tags) {
    const std::string fault = canonical_tags(tag, &tags);
    if (fault.empty()) continue;
    session.error(fmt::format("TAG: found {}, expected category:value: {}", in_quotes(tag), fault));
    return exit_usage;
  }
  int code = exit_fine;
  const auto index = open_index(options.file, session, &code);
  if (index == nullptr) return code;
  MetricPrinter printer(session);
  const std::string fault = index->each_with_tags(tags, [&](std::string_view key, const MetricFiles &files) {
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
  app.add_option("TAG", options->tags, "a tag, category:value, in any spelling")
      ->type_name("TAG")
      ->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_tags_command = {
    .name = "index tags",
    .summary = "list the metrics that have all of these tags",
    .description =
        "Tags are compared whole, category and value, in their canonical spelling. The list of the rarest "
        "tag is gone "
        "through and looked up in the others, so that common tags cost little beside a rare one.\n\n"
        "Exit code 3 when no metric has all of them, 2 when something on the way is damaged.",
    .examples = {{{"orlith index tags metrics.index core:1", "the metrics of one core"},
                  {"orlith index tags --json metrics.index core:1", "with their files, as JSON"}}},
    .formats = format_json | format_jsonl,
    .configure = configure,
};
