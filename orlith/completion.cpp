#include "orlith/completion.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

bool is_path(const OptionModel &option) {
  return option.value == "FILE" || option.value == "DIR";
}

std::string joined(const std::vector<std::string> &words, const char *separator = " ") {
  return fmt::format("{}", fmt::join(words, separator));
}

// Text between single quotes, for any of the shells.
std::string shell_quoted(const std::string &text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? "'\\''" : std::string(1, c);
  return out + "'";
}

// Every command and group with its path below the program, in depth-first order: "" is the program, then "nnt",
// "nnt info", ...
struct Place {
  std::string path;
  const CommandModel *model;
};

void collect_places(const CommandModel &model, const std::string &path, std::vector<Place> &places) {
  places.push_back({path, &model});
  for (const CommandModel &below : model.commands)
    collect_places(below, path.empty() ? below.last_word() : path + " " + below.last_word(), places);
}

std::vector<Place> places_of(const CommandModel &program) {
  std::vector<Place> places;
  collect_places(program, "", places);
  return places;
}

std::vector<std::string> option_words(const CommandModel &model) {
  std::vector<std::string> words;
  for (const OptionModel &option : model.options)
    words.insert(words.end(), option.names.begin(), option.names.end());
  return words;
}

std::vector<std::string> command_words(const CommandModel &model) {
  std::vector<std::string> words;
  for (const CommandModel &below : model.commands) words.push_back(below.last_word());
  return words;
}

// What an argument by position may be: files, listed choices or nothing known.
bool takes_paths(const CommandModel &model) {
  return std::any_of(model.arguments.begin(), model.arguments.end(), is_path);
}

std::vector<std::string> argument_choices(const CommandModel &model) {
  return model.arguments.empty() ? std::vector<std::string>() : model.arguments.front().choices;
}

// ---- bash ----

// The cases of `case "$previous" in`: what may follow an option that takes a value.
std::string bash_value_cases(const CommandModel &model) {
  std::string out;
  for (const OptionModel &option : model.options) {
    if (option.value.empty()) continue;
    std::string action = "return";  // a value of the user's own: nothing to offer
    if (!option.choices.empty())
      action = fmt::format("COMPREPLY=($(compgen -W '{}' -- \"$current\")); return", joined(option.choices));
    if (option.value == "DIR")
      action = "compopt -o filenames; COMPREPLY=($(compgen -d -- \"$current\")); return";
    if (option.value == "FILE")
      action = "compopt -o filenames; COMPREPLY=($(compgen -f -- \"$current\")); return";
    out += fmt::format("        {}) {} ;;\n", joined(option.names, "|"), action);
  }
  return out;
}

std::string bash_place(const Place &place) {
  const CommandModel &model = *place.model;
  std::string out = fmt::format("    '{}')\n", place.path);
  const std::string values = bash_value_cases(model);
  if (!values.empty()) out += "      case \"$previous\" in\n" + values + "      esac\n";
  out += fmt::format("      options='{}'\n", joined(option_words(model)));
  std::vector<std::string> words = command_words(model);
  const std::vector<std::string> choices = argument_choices(model);
  words.insert(words.end(), choices.begin(), choices.end());
  out += fmt::format("      words='{}'\n", joined(words));
  if (takes_paths(model)) out += "      files=yes\n";
  return out + "      ;;\n";
}

// ---- zsh ----

// In the specifications of _arguments a colon, a bracket and a backslash separate parts.
std::string zsh_text(const std::string &text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\' || c == '[' || c == ']' || c == ':') out += '\\';
    out += c;
  }
  return out;
}

std::string zsh_action(const OptionModel &option) {
  if (!option.choices.empty()) return "(" + joined(option.choices) + ")";
  if (option.value == "FILE") return "_files";
  if (option.value == "DIR") return "_files -/";
  return "";
}

std::string zsh_option(const OptionModel &option) {
  const std::string value =
      option.value.empty() ? "" : fmt::format(":{}:{}", zsh_text(option.value), zsh_action(option));
  const std::string text = fmt::format("[{}]{}", zsh_text(option.text), value);
  if (option.names.size() == 1) return shell_quoted(option.names.front() + text);
  // One of several names excludes the others: '(-o --output)'{-o,--output}'[...]'.
  return fmt::format("{}{{{}}}{}", shell_quoted("(" + joined(option.names) + ")"), joined(option.names, ","),
                     shell_quoted(text));
}

std::string zsh_argument(const OptionModel &argument) {
  const std::string action = zsh_action(argument).empty() ? " " : zsh_action(argument);
  const std::string value = argument.value.empty() ? argument.names.front() : argument.value;
  return shell_quoted(fmt::format("{}:{}:{}",
                                  argument.repeated   ? "*"
                                  : argument.required ? ""
                                                      : ":",
                                  zsh_text(value), action));
}

std::string zsh_function_name(const std::string &path) {
  std::string name = "_orlith" + (path.empty() ? "" : "_" + path);
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

std::string zsh_place(const Place &place) {
  const CommandModel &model = *place.model;
  std::string out = fmt::format("{}() {{\n", zsh_function_name(place.path));
  if (!model.commands.empty()) out += "  local curcontext=$curcontext state line\n  typeset -A opt_args\n";
  out += fmt::format("  _arguments -s{}", model.commands.empty() ? "" : " -C");
  for (const OptionModel &option : model.options) out += " \\\n    " + zsh_option(option);
  for (const OptionModel &argument : model.arguments) out += " \\\n    " + zsh_argument(argument);
  if (model.commands.empty()) return out + "\n}\n\n";
  out += " \\\n    '1:command:->command' \\\n    '*::argument:->argument'\n";
  out += "  case $state in\n  command)\n    local -a commands=(";
  for (const CommandModel &below : model.commands)
    out += "\n      " + shell_quoted(zsh_text(below.last_word()) + ":" + below.summary);
  out += "\n    )\n    _describe command commands ;;\n  argument)\n    case $line[1] in\n";
  for (const CommandModel &below : model.commands)
    out += fmt::format(
        "    {}) {} ;;\n", below.last_word(),
        zsh_function_name(place.path.empty() ? below.last_word() : place.path + " " + below.last_word()));
  return out + "    esac ;;\n  esac\n}\n\n";
}

// ---- fish ----

// True when the words before the cursor, options left out, are exactly this path (or, for a command without others
// below it, begin with it).
std::string fish_condition(const Place &place) {
  const char *test = place.model->commands.empty() ? "__orlith_within" : "__orlith_at";
  return shell_quoted(place.path.empty() ? test : fmt::format("{} {}", test, place.path));
}

std::string fish_place(const Place &place) {
  const CommandModel &model = *place.model;
  const std::string start = "complete -c orlith -n " + fish_condition(place);
  std::string out;
  for (const CommandModel &below : model.commands)
    out += fmt::format("{} -f -a {} -d {}\n", start, below.last_word(), shell_quoted(below.summary));
  for (const OptionModel &option : model.options) {
    out += start;
    for (const std::string &name : option.names)
      out += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    if (!option.value.empty()) out += option.value == "FILE" || option.value == "DIR" ? " -r -F" : " -x";
    if (!option.choices.empty()) out += " -a " + shell_quoted(joined(option.choices));
    out += " -d " + shell_quoted(option.text) + "\n";
  }
  if (takes_paths(model)) out += start + " -F\n";
  const std::vector<std::string> choices = argument_choices(model);
  if (!choices.empty()) out += start + " -f -a " + shell_quoted(joined(choices)) + "\n";
  return out;
}

}  // namespace

std::string bash_completion(const CommandModel &program) {
  std::string groups;
  for (const Place &place : places_of(program))
    if (!place.path.empty()) groups += (groups.empty() ? "'" : "|'") + place.path + "'";
  std::string out = R"(# bash completion for orlith; made by 'orlith completion bash'
_orlith() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local path= word options= words= files= i
  COMPREPLY=()
  # The command so far: words are added as long as they name one.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case "${path:+$path }$word" in
)";
  out += "      " + groups + ") path=\"${path:+$path }$word\" ;;\n    esac\n  done\n  case \"$path\" in\n";
  for (const Place &place : places_of(program)) out += bash_place(place);
  return out + R"(  esac
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$current"))
    return
  fi
  COMPREPLY=($(compgen -W "$words" -- "$current"))
  if [[ $files ]]; then
    compopt -o filenames
    COMPREPLY+=($(compgen -f -- "$current"))
  fi
}
complete -F _orlith orlith
)";
}

std::string zsh_completion(const CommandModel &program) {
  std::string out = "#compdef orlith\n# zsh completion for orlith; made by 'orlith completion zsh'\n\n";
  for (const Place &place : places_of(program)) out += zsh_place(place);
  return out +
         "if [[ $zsh_eval_context[-1] == loadautofunc ]]; then\n  _orlith \"$@\"\nelse\n  compdef _orlith "
         "orlith\nfi\n";
}

std::string fish_completion(const CommandModel &program) {
  std::vector<std::string> with_value;
  for (const Place &place : places_of(program))
    for (const OptionModel &option : place.model->options)
      if (!option.value.empty())
        with_value.insert(with_value.end(), option.names.begin(), option.names.end());
  std::sort(with_value.begin(), with_value.end());
  with_value.erase(std::unique(with_value.begin(), with_value.end()), with_value.end());
  std::string out = R"(# fish completion for orlith; made by 'orlith completion fish'
# The words before the cursor without options and their values.
function __orlith_words
    set -l previous
    for word in (commandline -opc)[2..-1]
        string match -q -- '-*' $word; or contains -- "$previous" )" +
                    joined(with_value) + R"(; or echo $word
        set previous $word
    end
end
function __orlith_at
    set -l words (__orlith_words)
    test "$words" = "$argv"
end
function __orlith_within
    set -l words (__orlith_words)
    test (count $words) -ge (count $argv); or return 1
    set -l first $words[1..(count $argv)]
    test "$first" = "$argv"
end
complete -c orlith -f
)";
  for (const Place &place : places_of(program)) out += fish_place(place);
  return out;
}
