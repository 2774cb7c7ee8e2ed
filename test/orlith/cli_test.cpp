#include "orlith/cli.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test/orlith/tool_fixture.h"

namespace {

using testing::HasSubstr;

struct Options {
  std::string file;
  unsigned copies = 2;
};

Run configure_fold(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "file to fold")->type_name("FILE")->required();
  app.add_option("-c,--copies", options->copies, "how many copies")
      ->type_name("COUNT")
      ->capture_default_str();
  return [options](Session &session) {
    session.out << options->file << " " << std::to_string(options->copies)
                << (session.settings.json ? " json" : "");
    return 2;
  };
}

Run configure_throwing(CLI::App &) {
  return [](Session &) -> int { throw std::runtime_error("no\nluck"); };
}

constexpr Command fold_command = {
    .name = "paper fold",
    .summary = "fold a file",
    .description = "Folds it along the middle.\n\nTwice.",
    .examples = {{{"orlith paper fold a", "folds a"}, {"orlith paper fold b", "folds b"}}},
    .formats = format_json,
    .configure = configure_fold,
};
constexpr Command burn_command = {
    .name = "burn",
    .summary = "burn it",
    .description = "",
    .examples = {{{"orlith burn", "burns"}, {"orlith burn -q", "burns in silence"}}},
    .configure = configure_throwing,
};
constexpr const Command *commands[] = {&fold_command, &burn_command};

TEST(CommandLine, RunsTheCommandWithItsOptionsAndReturnsItsCode) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "x.txt", "--copies", "7"}), 2);
  EXPECT_EQ(tool.out.text, "x.txt 7");
  EXPECT_EQ(tool.err.text, "");
}

TEST(CommandLine, TakesGlobalOptionsBeforeAndAfterTheCommand) {
  for (const auto &arguments : {std::vector<std::string>{"--json", "paper", "fold", "x"},
                                std::vector<std::string>{"paper", "fold", "x", "--json"}}) {
    ToolSession tool;
    tool.run(commands, arguments);
    EXPECT_EQ(tool.out.text, "x 2 json");
  }
}

TEST(CommandLine, SuggestsTheNearCommand) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"papre"}), exit_usage);
  EXPECT_EQ(tool.err.text,
            "orlith: error: unknown command 'papre'; did you mean 'paper'?\nSee 'orlith --help'.\n");
}

TEST(CommandLine, SuggestsTheNearCommandInAGroup) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "flod"}), exit_usage);
  EXPECT_EQ(
      tool.err.text,
      "orlith paper: error: unknown command 'flod'; did you mean 'fold'?\nSee 'orlith paper --help'.\n");
}

TEST(CommandLine, SuggestsTheNearOption) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "--copeis=3"}), exit_usage);
  EXPECT_EQ(tool.err.text,
            "orlith paper fold: error: unknown option '--copeis'; did you mean '--copies'?\n"
            "See 'orlith paper fold --help'.\n");
}

TEST(CommandLine, SuggestsNothingForAWordFarFromAll) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"xylophone"}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith: error: unknown command 'xylophone'\nSee 'orlith --help'.\n");
}

TEST(CommandLine, EscapesWhatItRepeats) {
  ToolSession tool;
  tool.run(commands, {"\x1b[31mpaper\xff"});
  EXPECT_THAT(tool.err.text, HasSubstr("unknown command '\\x1b[31mpaper\\xff'"));
}

TEST(CommandLine, NamesTheCommandsWhenNoneIsGiven) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith: error: a command is needed: paper, burn\nSee 'orlith --help'.\n");
}

TEST(CommandLine, RefusesAMissingArgument) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold"}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith paper fold: error: FILE is required\nSee 'orlith paper fold --help'.\n");
}

TEST(CommandLine, RefusesAnArgumentTooMany) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "a", "burn"}), exit_usage);
  EXPECT_EQ(tool.err.text,
            "orlith paper fold: error: unexpected argument 'burn'\nSee 'orlith paper fold --help'.\n");
}

TEST(CommandLine, TakesACommandsNameAsAnArgument) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "burn"}), 2);
  EXPECT_EQ(tool.out.text, "burn 2");
}

TEST(CommandLine, RefusesANumberThatIsNone) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "a", "--copies", "many"}), exit_usage);
  EXPECT_THAT(tool.err.text, HasSubstr("many"));
}

TEST(CommandLine, RefusesAnOutputFormTheCommandDoesNotHave) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"--jsonl", "paper", "fold", "a"}), exit_usage);
  EXPECT_EQ(tool.err.text,
            "orlith paper fold: error: --jsonl has no meaning here\nSee 'orlith paper fold --help'.\n");
}

TEST(CommandLine, TurnsAnExceptionIntoAMessage) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"burn"}), exit_failed);
  EXPECT_EQ(tool.err.text, "orlith burn: error: no\\nluck\n");
}

TEST(CommandLine, ShowsTheVersion) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"--version"}), exit_fine);
  EXPECT_THAT(tool.out.text, testing::MatchesRegex("orlith [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(Help, ShowsEverythingAboutACommandAndEndsWithItsExamples) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"paper", "fold", "--help"}), exit_fine);
  EXPECT_EQ(tool.out.text, R"(orlith paper fold - fold a file

Usage: orlith paper fold [OPTIONS] FILE

Folds it along the middle.

Twice.

Arguments:
  FILE  file to fold

Options:
  -c, --copies COUNT  how many copies (default 2)
  -h, --help          show this help

Global options:
      --json                     results as one JSON document
      --color auto|always|never  when to use colour (auto: on a terminal)
      --progress                 show progress always
      --no-progress              show no progress
  -q, --quiet                    errors and results only

Examples:
  orlith paper fold a
      folds a
  orlith paper fold b
      folds b
)");
}

TEST(Help, OfTheProgramListsTheCommands) {
  ToolSession tool;
  EXPECT_EQ(tool.run(commands, {"-h"}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("\nCommands:\n  paper\n  burn   burn it\n"));
}

TEST(Help, OfEveryCommandEndsWithTwoExamples) {
  for (const Command *command : all_commands()) {
    SCOPED_TRACE(command->name);
    ToolSession tool;
    std::vector<std::string> arguments = CLI::detail::split(command->name, ' ');
    arguments.push_back("--help");
    EXPECT_EQ(tool.run(arguments), exit_fine);
    std::string end = "\nExamples:\n";
    for (const Example &example : command->examples)
      end += std::string("  ") + example.line + "\n      " + example.meaning + "\n";
    EXPECT_THAT(tool.out.text, testing::EndsWith(end));
    EXPECT_NE(std::string(command->examples[0].line), command->examples[1].line);
  }
}

}  // namespace
