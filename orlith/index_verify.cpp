// `orlith index verify`: whether an index is sound, and what is wrong where.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"

namespace {

struct Options {
  std::vector<std::string> files;
};

Json file_json(const std::string &file, const Problem &problem, const MetricIndex *index) {
  Json json = Json::object();
  json.set("file", file).set("ok", problem.text.empty());
  if (!problem.text.empty()) return std::move(json.set("error", problem.text));
  json.set("metrics", index->directory().metric_count).set("tags", index->directory().tag_count);
  return std::move(
      json.set("tagged", index->directory().tagged_count).set("bytes", index->directory().file_bytes));
}

int run(const Options &options, Session &session) {
  start_library();
  int worst = exit_fine;
  Json files = Json::array();
  for (const std::string &file : options.files) {
    Problem problem;
    const auto index = MetricIndex::open(file, &problem);
    if (index != nullptr) {
      problem.text = index->verify();
      if (!problem.text.empty()) problem.code = exit_damaged;
    }
    worst = worse_exit(worst, problem.code);
    if (!problem.text.empty()) session.error(fmt::format("{}: {}", escaped(file), escaped(problem.text)));
    if (session.settings.json) {
      files.add(file_json(file, problem, index.get()));
    } else if (problem.text.empty()) {
      session.out << fmt::format("{}: {} metrics, {} tags: no damage found\n", escaped(file),
                                 human_count(index->directory().metric_count),
                                 human_count(index->directory().tag_count));
    }
  }
  if (session.settings.json) session.out << files.text() << "\n";
  return worst;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->files, "indexes")->type_name("FILE")->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_verify_command = {
    .name = "index verify",
    .summary = "check all of an index",
    .description =
        "Reads every byte that means something: that the cells of both trees lie within the file, apart from "
        "each other "
        "and where their keys lead, that each metric has a canonical name and files, and that each tag lists "
        "exactly "
        "the metrics that have it. Says what is wrong at which offset. Whether the files are there is not "
        "looked at.\n\n"
        "Exit code 2 when damage was found, 3 when a file is not there, 1 when one cannot be read.",
    .examples = {{{"orlith index verify metrics.index", "whether it is sound"},
                  {"orlith index verify --json metrics.index", "the same as JSON"}}},
    .formats = format_json,
    .configure = configure,
};
