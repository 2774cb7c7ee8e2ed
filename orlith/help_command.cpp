// `orlith help`: the same texts as --help, found by those who look for a command.
#include "orlith/cli.h"
#include "orlith/help.h"
#include "orlith/man.h"
#include "orlith/version.h"

namespace {

struct Options {
  std::vector<std::string> words;
  bool man = false;
};

const CLI::App *find_below(const CLI::App *app, const std::string &word) {
  for (const CLI::App *below : app->get_subcommands([](const CLI::App *) { return true; }))
    if (below->get_name() == word) return below;
  return nullptr;
}

int run(const Options &options, Session &session) {
  const CommandLine line(all_commands());
  const CLI::App *app = &line.app();
  if (options.man) {
    session.out << man_page(model_of(line, *app), orlith_version());
    return exit_fine;
  }
  for (const std::string &word : options.words) {
    app = find_below(app, word);
    if (app == nullptr) {
      session.error("there is no command " + in_quotes(word) + "; 'orlith help' lists them");
      return exit_usage;
    }
  }
  session.out << help_text(line, *app);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("COMMAND", options->words, "the command to explain; none for the overview")
      ->type_name("COMMAND");
  app.add_flag("--man", options->man, "the whole manual page, for man -l or groff");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command help_command = {
    .name = "help",
    .summary = "explain a command",
    .description = "Shows the help of a command, the same as its --help.",
    .examples = {{{"orlith help", "the list of commands"},
                  {"orlith help --man > orlith.1", "the manual page as a file"}}},
    .configure = configure,
};
