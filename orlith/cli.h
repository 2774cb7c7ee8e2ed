// The command line: a table of commands, from which parsing, help, man page and completion are made.
//
// A new command `orlith do it` is one source file and one line:
//   - orlith/do_it.cpp defines the command:
//
//       namespace {
//       struct Options { std::string file; unsigned copies = 2; };
//
//       int run(const Options &options, Session &session) {
//         session.out << "...\n";                // results; session.error(...) for what went wrong
//         return exit_fine;
//       }
//
//       Run configure(CLI::App &app) {
//         auto options = std::make_shared<Options>();
//         app.add_option("FILE", options->file, "file to work on")->type_name("FILE")->required();
//         app.add_option("-c,--copies", options->copies, "how many")
//             ->type_name("COUNT")
//             ->capture_default_str();
//         return [options](Session &session) { return run(*options, session); };
//       }
//       }  // namespace
//
//       extern const Command do_it_command = {
//           .name = "do it",                     // the words before the last one name a group (see cli.cpp)
//           .summary = "does it to a file",      // goes on "orlith do it - "; no capital, no full stop
//           .description = "Paragraphs, separated by empty lines. Wrapped when shown.",
//           .examples = {{{"orlith do it cpu.nnt", "what this shows"}, {"...", "..."}}},
//           .formats = format_json | format_iso,
//           .configure = configure,
//       };
//
//   - ORLITH_COMMANDS in commands.cpp gets the line  X(do_it).
//
// Conventions: argument and value names (FILE, DIR, COUNT, TIME, UUID, NAME, SECONDS) are upper case and go
// into type_name(); FILE and DIR complete as paths; choices are a CLI::IsMember check. Options are long with
// at most a one-letter short form. The global options are added by the table and read from session.settings.
// The examples are run by a test, through sh, in a folder that holds cluster.xml (a topology of four nodes),
// cpu.nnt (a day of 300-second slots), packed.cfssz (the same packed), damaged.nnt, lines.txt (M lines),
// histograms.txt (histogram lines), latency.hss (a series of three histograms), broken.hss, rollups (a data folder with
// one metric), metrics.index (an index of it) and orlith.conf (a configuration); each must end with exit_fine unless it
// says otherwise itself (|| test $? = 2).
#ifndef ORLITH_CLI_H
#define ORLITH_CLI_H

#include <CLI/CLI.hpp>
#include <array>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "orlith/exit_code.h"
#include "orlith/session.h"

// Does the work after everything was parsed; returns an ExitCode. Need not flush: Session::finish does.
using Run = std::function<int(Session &)>;

struct Example {
  const char *line;     // as typed, in sh
  const char *meaning;  // what it shows or does
};

// The global output options that a command understands; giving another one is a usage error.
enum Format : unsigned { format_json = 1, format_jsonl = 2, format_iso = 4 };

struct Command {
  const char *name;
  const char *summary;
  const char *description;
  std::array<Example, 2> examples;
  unsigned formats = 0;             // Format bits
  Run (*configure)(CLI::App &app);  // adds arguments and options, returns what runs
  bool hidden = false;              // works, but help and completion do not list it
};

// A word that several commands share: `orlith nnt ...`.
struct Group {
  const char *name;
  const char *summary;
};

using CommandTable = std::span<const Command *const>;

// Every command of `orlith`, in the order of the help.
CommandTable all_commands();
std::span<const Group> all_groups();

// The parsed-from and shown-from form of the table. Holds the options' storage.
class CommandLine {
 public:
  explicit CommandLine(CommandTable commands);
  ~CommandLine();

  // Parses and runs; `arguments` without the program's name. Returns the exit code, everything flushed. No
  // exception leaves it.
  int run(const std::vector<std::string> &arguments, Session &session);

  const CLI::App &app() const { return *app_; }
  // The command behind an app of the tree; null for the program itself and for groups.
  const Command *command_of(const CLI::App *app) const;

 private:
  struct Entry {
    const CLI::App *app;
    const Command *command;
    Run run;
  };
  void add_command(const Command &command);
  void add_global_options(CLI::App &app, unsigned formats);
  int parse_and_run(const std::vector<std::string> &arguments, Session &session);
  int usage_error(const CLI::ParseError &error, Session &session) const;
  int check_settings(const Command &command, Session &session) const;

  std::unique_ptr<CLI::App> app_;
  std::vector<Entry> entries_;
  Settings settings_;
};

#endif
