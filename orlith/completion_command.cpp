// `orlith completion`: completion scripts for shells.
#include "orlith/cli.h"
#include "orlith/completion.h"

namespace {

struct Options {
  std::string shell;
};

int run(const Options &options, Session &session) {
  const CommandLine line(all_commands());
  const CommandModel program = model_of(line, line.app());
  if (options.shell == "bash") {
    session.out << bash_completion(program);
  } else if (options.shell == "zsh") {
    session.out << zsh_completion(program);
  } else {
    session.out << fish_completion(program);
  }
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("SHELL", options->shell, "bash, zsh or fish")
      ->type_name("SHELL")
      ->required()
      ->check(CLI::IsMember(std::vector<std::string>{"bash", "zsh", "fish"}));
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command completion_command = {
    .name = "completion",
    .summary = "write the completion script for a shell",
    .description =
        "Load it at the start of the shell: for bash 'source <(orlith completion bash)' in ~/.bashrc; for "
        "zsh "
        "the same in ~/.zshrc, after compinit; for fish 'orlith completion fish | source' in config.fish.",
    .examples = {{{"orlith completion bash > orlith.bash", "into a file, for bash"},
                  {"orlith completion fish | head -1", "for fish"}}},
    .configure = configure,
};
