// The help of a command, and the plain model of the command tree that help, man page and completion share.
#ifndef ORLITH_HELP_H
#define ORLITH_HELP_H

#include <string>
#include <vector>

#include "orlith/cli.h"

struct OptionModel {
  std::vector<std::string> names;    // as typed: "-o", "--output"; for an argument its name alone: "FILE"
  std::string value;                 // the value's name, "FILE"; empty for a flag
  std::vector<std::string> choices;  // the only values allowed, if they are listed
  std::string text;
  std::string default_value;
  bool argument = false;  // given by position
  bool required = false;
  bool repeated = false;
  bool global = false;
};

struct CommandModel {
  std::string name;  // "orlith nnt info"
  std::string summary;
  std::string description;
  std::vector<OptionModel> arguments, options;
  std::vector<CommandModel> commands;  // what stands below a group or the program, without the hidden ones
  std::vector<Example> examples;
  std::string usage() const;
  std::string last_word() const;
};

CommandModel model_of(const CommandLine &line, const CLI::App &app);
std::string help_text(const CommandLine &line, const CLI::App &app);

// The text broken into lines of at most `width` columns, each after `indent` blanks; empty lines separate
// paragraphs.
std::string wrapped(std::string_view text, size_t indent, size_t width = 80);

#endif
