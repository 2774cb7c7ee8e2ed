// The finished program, run as users run it.
#include <gmock/gmock.h>

#include <algorithm>

#include "orlith/cli.h"
#include "test/orlith/program_fixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST_F(ProgramTest, TheExamplesOfEveryHelpWork) {
  for (const Command *command : all_commands()) {
    for (const Example &example : command->examples) {
      SCOPED_TRACE(example.line);
      const Result result = run(example.line);
      EXPECT_EQ(result.code, 0) << result.err;
      // No node listens here, and an example that asks a cluster says itself that it expects that.
      const bool asks_nobody = std::string(example.line).ends_with("|| test $? = 4");
      EXPECT_EQ(result.err.find("error:") != std::string::npos, asks_nobody) << result.err;
    }
  }
}

TEST_F(ProgramTest, TheExamplesBeginWithTheCommandTheyStandUnder) {
  for (const Command *command : all_commands())
    for (const Example &example : command->examples)
      EXPECT_THAT(std::string(example.line), StartsWith(std::string("orlith ") + command->name));
}

TEST_F(ProgramTest, ExitCodesAreTheDocumentedOnes) {
  EXPECT_EQ(run("orlith nnt verify cpu.nnt").code, 0);
  EXPECT_EQ(run("orlith nnt verify damaged.nnt").code, 2);
  EXPECT_EQ(run("orlith nnt verify none.nnt").code, 3);
  EXPECT_EQ(run("orlith where --boot 127.0.0.1:1 1b4e28ba-2fa1-11d2-883f-0016d3cca427 cpu").code, 4);
  EXPECT_EQ(run("orlith nnt verifi cpu.nnt").code, 64);
  EXPECT_EQ(run("orlith").code, 64);
  EXPECT_EQ(run("orlith topo check cpu.nnt").code, 2);
  EXPECT_EQ(run("orlith topo check none.xml").code, 3);
  EXPECT_EQ(run("orlith collect --root none --check 1b4e28ba-2fa1-11d2-883f-0016d3cca427").code, 1);
  EXPECT_EQ(run("orlith nnt dump cpu.nnt >/dev/full").code, 1);
}

TEST_F(ProgramTest, QuietChangesNoExitCode) {
  EXPECT_EQ(run("orlith -q nnt verify damaged.nnt").code, 2);
  EXPECT_EQ(run("orlith nnt verify --quiet none.nnt").code, 3);
}

TEST_F(ProgramTest, ResultsAndMessagesGoApart) {
  const Result result = run("orlith nnt dump damaged.nnt --jsonl --all");
  EXPECT_THAT(result.out, StartsWith("{"));
  EXPECT_THAT(result.err, StartsWith("orlith nnt dump: error: damaged.nnt: 2 damaged record(s)"));
}

TEST_F(ProgramTest, AReaderThatLeavesIsNoError) {
  const Result result = run("{ orlith nnt dump --all --jsonl cpu.nnt; echo $? >&2; } | head -1");
  EXPECT_EQ(result.err, "0\n");
}

TEST_F(ProgramTest, AnInterruptEndsACollectionAfterWholeLines) {
  // The first line tells that it runs; the interrupt then comes while it waits for the next round. A shell without job
  // control has its background jobs ignore interrupts, unless they undo that.
  const Result result =
      run("trap : INT\n"
          "mkfifo lines\n"
          "env --default-signal=INT orlith collect --count 0 --interval 3600 --check "
          "1b4e28ba-2fa1-11d2-883f-0016d3cca427 >lines & "
          "pid=$!\n"
          "{ IFS= read -r first; kill -INT $pid; cat >rest; } <lines\n"
          "wait $pid; echo $?\n"
          "tail -c 1 rest | od -An -c",
          "bash");
  EXPECT_THAT(result.out, StartsWith("130\n")) << result.err;
  EXPECT_THAT(result.out, EndsWith("\\n\n"));
}

TEST_F(ProgramTest, AnInterruptedOutputFileHoldsWholeRoundsAndNothingElseIsLeft) {
  const Result result =
      run("trap : INT\n"
          "env --default-signal=INT orlith collect --count 0 --interval 3600 --check "
          "1b4e28ba-2fa1-11d2-883f-0016d3cca427 -o out.txt "
          "& pid=$!\n"
          "until compgen -G 'out.txt.*' >/dev/null; do :; done\n"
          "kill -INT $pid; wait $pid; echo $?; ls out.txt*",
          "bash");
  EXPECT_EQ(result.out, "130\nout.txt\n") << result.err;
  EXPECT_THAT(folder.read("out.txt"), EndsWith("\n"));
}

TEST_F(ProgramTest, IgnoresAnInterruptThatItsShellIgnores) {
  // Without job control, the shell starts a background job with interrupts ignored.
  const Result result = run(
      "mkfifo gate\n"
      "orlith collect --count 2 --interval 0.01 --check 1b4e28ba-2fa1-11d2-883f-0016d3cca427 >gate & pid=$!\n"
      "{ IFS= read -r first; kill -INT $pid; cat >rest; } <gate\n"
      "wait $pid; echo $?",
      "sh");
  EXPECT_EQ(result.out, "0\n") << result.err;
}

TEST_F(ProgramTest, DrawsAsciiWhereTheLocaleIsNotUtf8) {
  EXPECT_THAT(run("LC_ALL=C orlith nnt plot cpu.nnt").out, Not(HasSubstr("┤")));
  EXPECT_THAT(run("orlith nnt plot cpu.nnt").out, HasSubstr("┤"));
}

TEST_F(ProgramTest, ColoursOnlyOnDemandWhereThereIsNoTerminal) {
  EXPECT_THAT(run("orlith nnt verify damaged.nnt").out, Not(HasSubstr("\033[")));
  EXPECT_THAT(run("orlith nnt verify --color=always damaged.nnt").out, HasSubstr("\033[31mdamaged\033[0m"));
}

// ---- made from the same tables ----

TEST_F(ProgramTest, TheManualPageNamesEveryCommandOptionAndExample) {
  const std::string page = run("orlith help --man").out;
  EXPECT_THAT(page, StartsWith(".TH ORLITH 1"));
  const auto roff = [](std::string text) {
    for (size_t at = 0; (at = text.find_first_of("-'", at)) != std::string::npos;) {
      const std::string_view escape = text[at] == '-' ? "\\-" : "\\(aq";
      text.replace(at, 1, escape);
      at += escape.size();
    }
    return text;
  };
  const CommandLine line(all_commands());
  for (const Command *command : all_commands()) {
    EXPECT_THAT(page, HasSubstr("\n.SS " + roff(std::string("orlith ") + command->name) + "\n"));
    for (const Example &example : command->examples)
      EXPECT_THAT(page, HasSubstr("\n" + roff(example.line) + "\n"));
  }
  for (const char *option : {"\\fB\\-\\-interval\\fR \\fISECONDS\\fR", "\\fB\\-\\-from\\fR \\fITIME\\fR",
                             "\\fB\\-\\-copies\\fR \\fICOUNT\\fR", "\\fB\\-\\-color\\fR auto|always|never"})
    EXPECT_THAT(page, HasSubstr(option));
}

TEST_F(ProgramTest, TheManualPageIsWellFormed) {
  if (!has("groff")) GTEST_SKIP() << "groff is not installed";
  const Result result = run("orlith help --man | groff -man -Tutf8 -ww -z");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.err, "");
}

// Completes the words as bash would; one candidate a line, sorted.
std::string bash_words(ProgramTest &test, const std::string &words) {
  return test
      .run("source <(orlith completion bash)\ncompopt() { :; }\nCOMP_WORDS=(" + words +
               ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_orlith\nprintf '%s\\n' \"${COMPREPLY[@]}\" | sort",
           "bash")
      .out;
}

TEST_F(ProgramTest, CompletesInBash) {
  EXPECT_EQ(bash_words(*this, "orlith nn"), "nnt\n");
  EXPECT_EQ(bash_words(*this, "orlith nnt ''"), "dump\ninfo\nplot\nverify\n");
  EXPECT_EQ(bash_words(*this, "orlith nnt dump --f"), "--from\n");
  EXPECT_EQ(bash_words(*this, "orlith nnt dump --json --t"), "--to\n");
  EXPECT_EQ(bash_words(*this, "orlith nnt dump cp"), "cpu.nnt\n");
  EXPECT_EQ(bash_words(*this, "orlith nnt plot --color a"), "always\nauto\n");
  EXPECT_EQ(bash_words(*this, "orlith --color never topo ch"), "check\n");
  EXPECT_EQ(bash_words(*this, "orlith completion z"), "zsh\n");
  EXPECT_EQ(bash_words(*this, "orlith collect --output clu"), "cluster.xml\n");
  EXPECT_EQ(bash_words(*this, "orlith collect --check ''"), "\n");
}

TEST_F(ProgramTest, CompletesInFish) {
  if (!has("fish")) GTEST_SKIP() << "fish is not installed";
  const auto words = [&](const std::string &line) {
    return run("orlith completion fish | source\ncomplete -C '" + line +
                   "' | string replace -r '\\t.*' '' | sort",
               "fish")
        .out;
  };
  EXPECT_EQ(words("orlith nn"), "nnt\n");
  EXPECT_EQ(words("orlith nnt "), "dump\ninfo\nplot\nverify\n");
  EXPECT_EQ(words("orlith nnt dump --fr"), "--from\n");
  EXPECT_EQ(words("orlith nnt dump cp"), "cpu.nnt\n");
  EXPECT_EQ(words("orlith nnt plot --color a"), "always\nauto\n");
  EXPECT_EQ(words("orlith completion z"), "zsh\n");
  EXPECT_EQ(words("orlith --color never topo ch"), "check\n");
  EXPECT_EQ(words("orlith nnt verify cpu.nnt dam"), "damaged.nnt\n");
}

TEST_F(ProgramTest, TheZshScriptIsSoundAndNamesEveryCommand) {
  if (!has("zsh")) GTEST_SKIP() << "zsh is not installed";
  EXPECT_EQ(run("orlith completion zsh >_orlith; zsh -n _orlith").code, 0);
  // Every command has its function, and every function is called by that of its parent.
  const std::string script = run("orlith completion zsh").out;
  for (const Command *command : all_commands()) {
    std::string name = std::string("_orlith_") + command->name;
    std::replace(name.begin(), name.end(), ' ', '_');
    EXPECT_THAT(script, HasSubstr("\n" + name + "() {"));
    EXPECT_THAT(script, HasSubstr(") " + name + " ;;"));
  }
}

}  // namespace
