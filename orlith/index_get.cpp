// `orlith index get`: the files of one metric.
#include <fmt/format.h>

#include "orlith/check_uuid.h"
#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"
#include "orlith/locator.h"

namespace {

struct Options {
  std::string file, key;
};

// The key of a metric whose name is spelled in any way; empty, with *fault, for what is none.
std::string canonical_key(const std::string &text, std::string *fault) {
  const std::string uuid = normalized_uuid(text.substr(0, kKeyUuidBytes));
  if (uuid.empty() || text.size() <= kKeyUuidBytes || text[kKeyUuidBytes] != '-') {
    *fault = "expected a check's UUID, a dash and a metric's name";
    return "";
  }
  const Locator locator = make_locator(uuid, name_of_key(text), fault);
  return locator != nullptr ? locator_key(locator.get()) : "";
}

void show(std::string_view key, const MetricFiles &found, Session &session) {
  const std::vector<MetricFile> files = files_of(key, found);
  if (session.settings.json) {
    session.out << metric_json(key, files).text() << "\n";
    return;
  }
  session.out << fmt::format("check   {}\nmetric  {}\n", check_of_key(key), escaped(name_of_key(key)));
  const char *label = "files";
  for (const MetricFile &file : files) {
    session.out << fmt::format("{:<8}{}\n", label, file.path);
    label = "";
  }
}

int run(const Options &options, Session &session) {
  start_library();
  std::string fault;
  const std::string key = canonical_key(options.key, &fault);
  if (key.empty()) {
    session.error(fmt::format("KEY: found {}, {}", in_quotes(options.key), fault));
    return exit_usage;
  }
  int code = exit_fine;
  const auto index = open_index(options.file, session, &code);
  if (index == nullptr) return code;
  std::optional<MetricFiles> files;
  if (fault = index->find(key, &files); !fault.empty()) return say_damage(options.file, fault, session);
  if (!files) {
    session.error(fmt::format("{}: has no metric {}", escaped(options.file), in_quotes(key)));
    return exit_not_found;
  }
  show(key, *files, session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "the index")->type_name("FILE")->required();
  app.add_option("KEY", options->key, "the check's UUID, a dash, and the metric's name in any spelling")
      ->type_name("KEY")
      ->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_get_command = {
    .name = "index get",
    .summary = "show the files of one metric",
    .description =
        "Looks the metric up and prints the paths of its files below the data folder; of histograms, the "
        "folder of "
        "their files. Only the parts of the index are read that lead to it.\n\n"
        "Exit code 3 when the index does not have the metric, 2 when what leads to it is damaged.",
    .examples =
        {{{"orlith index get metrics.index '1b4e28ba-2fa1-11d2-883f-0016d3cca427-cpu|ST[core:1]'",
           "the paths of its files"},
          {"orlith index get --json metrics.index '1b4e28ba-2fa1-11d2-883f-0016d3cca427-cpu|ST[core:1]'",
           "the same as JSON"}}},
    .formats = format_json,
    .configure = configure,
};
