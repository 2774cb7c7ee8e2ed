#include "orlith/man.h"

#include <fmt/format.h>

namespace {

// Text as the formatter shows it unchanged: no escapes, no requests at the start of a line, hyphens that can be copied.
std::string roff(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool line_start = i == 0 || text[i - 1] == '\n';
    if (line_start && (text[i] == '.' || text[i] == '\'')) out += "\\&";
    switch (text[i]) {
      case '\\':
        out += "\\e";
        break;
      case '-':
        out += "\\-";
        break;
      case '\'':
        out += "\\(aq";
        break;
      case '~':
        out += "\\(ti";
        break;
      case '^':
        out += "\\(ha";
        break;
      case '`':
        out += "\\(ga";
        break;
      default:
        out += text[i];
    }
  }
  return out;
}

std::string paragraphs(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t end = std::min(text.find("\n\n"), text.size());
    out += ".PP\n" + roff(text.substr(0, end)) + "\n";
    text.remove_prefix(std::min(end + 2, text.size()));
  }
  return out;
}

std::string option_entry(const OptionModel &option) {
  std::string names;
  for (const std::string &name : option.names)
    names += (names.empty() ? "\\fB" : ", \\fB") + roff(name) + "\\fR";
  if (option.argument && option.repeated) names += " ...";
  if (!option.choices.empty()) {
    names += " " + roff(fmt::format("{}", fmt::join(option.choices, "|")));
  } else if (!option.value.empty() && !option.argument) {
    names += " \\fI" + roff(option.value) + "\\fR";
  }
  std::string text = roff(option.text);
  if (!option.default_value.empty()) text += roff(fmt::format(" (default {})", option.default_value));
  return ".TP\n" + names + "\n" + text + "\n";
}

std::string command_section(const CommandModel &command) {
  std::string out = fmt::format(".SS {}\n{}\n", roff(command.name), roff(command.summary));
  out += ".PP\n\\fB" + roff(command.usage()) + "\\fR\n" + paragraphs(command.description);
  for (const OptionModel &argument : command.arguments) out += option_entry(argument);
  std::string global;
  for (const OptionModel &option : command.options) {
    if (option.names.back() == "--help") continue;  // the same everywhere
    if (!option.global) out += option_entry(option);
    const bool is_format =
        option.names.back() == "--json" || option.names.back() == "--jsonl" || option.names.back() == "--iso";
    if (option.global && is_format) global += (global.empty() ? "" : ", ") + option.names.back();
  }
  if (!global.empty()) out += ".PP\nUnderstands " + roff(global) + ".\n";
  for (const Example &example : command.examples)
    out +=
        fmt::format(".PP\n{}:\n.PP\n.RS 4\n.nf\n{}\n.fi\n.RE\n", roff(example.meaning), roff(example.line));
  return out;
}

std::string command_sections(const CommandModel &model) {
  std::string out;
  for (const CommandModel &below : model.commands)
    out += below.commands.empty() ? command_section(below) : command_sections(below);
  return out;
}

constexpr const char *exit_codes = R"(.SH EXIT STATUS
.TP
0
all is well
.TP
1
failed: the work could not be done
.TP
2
damage was found, or some input was refused
.TP
3
what was asked for is not there, or has no owner
.TP
4
a peer or the network failed
.TP
64
the command line makes no sense
.TP
130
stopped by an interrupt, everything complete up to there
)";

constexpr const char *environment = R"(.SH ENVIRONMENT
.TP
NO_COLOR
set and not empty: no colour unless \fB\-\-color=always\fR
.TP
XDG_STATE_HOME
where the host's check UUID is kept (default ~/.local/state)
.TP
LC_ALL, LC_CTYPE, LANG
the encoding; charts are drawn in ASCII where it is not UTF\-8
)";

}  // namespace

std::string man_page(const CommandModel &program, const std::string &version) {
  std::string out = fmt::format(".TH ORLITH 1 \"\" \"orlith {}\" \"User Commands\"\n", roff(version));
  out += fmt::format(".SH NAME\n{} \\- {}\n", roff(program.name), roff(program.summary));
  out += fmt::format(".SH SYNOPSIS\n\\fB{}\\fR [\\fIOPTIONS\\fR] \\fICOMMAND\\fR ...\n", roff(program.name));
  out += ".SH OPTIONS\nThey stand before or after the command.\n";
  for (const OptionModel &option : program.options) out += option_entry(option);
  out += ".SH COMMANDS\n" + command_sections(program);
  return out + exit_codes + environment;
}
