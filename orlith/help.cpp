#include "orlith/help.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

// A value's type name reads "WHEN:{auto,always,never}" once a choice check is attached.
void split_type_name(const std::string &type, OptionModel &model) {
  const size_t open = type.find(":{");
  model.value = type.substr(0, type.find(':'));
  if (open == std::string::npos || type.back() != '}') return;
  for (const std::string &choice : CLI::detail::split(type.substr(open + 2, type.size() - open - 3), ','))
    model.choices.push_back(choice);
}

OptionModel model_of(const CLI::Option &option) {
  OptionModel model;
  model.argument = option.get_positional();
  if (model.argument) model.names.push_back(option.get_name(true));
  for (const std::string &name : option.get_snames()) model.names.push_back("-" + name);
  for (const std::string &name : option.get_lnames()) model.names.push_back("--" + name);
  if (option.get_items_expected_max() > 0) split_type_name(option.get_type_name(), model);
  model.text = option.get_description();
  model.default_value = option.get_default_str();
  model.required = option.get_required();
  model.repeated = option.get_items_expected_max() > 1;
  model.global = option.get_group() == "Global options";
  return model;
}

std::string full_name(const CLI::App &app) {
  return app.get_parent() == nullptr ? app.get_name() : full_name(*app.get_parent()) + " " + app.get_name();
}

std::vector<Example> examples_of(const CommandLine &line, const CommandModel &model, const CLI::App &app) {
  if (const Command *command = line.command_of(&app))
    return {command->examples.begin(), command->examples.end()};
  // A group shows the first example of its first two commands.
  if (model.commands.size() == 1) return model.commands.front().examples;
  std::vector<Example> examples;
  for (const CommandModel &below : model.commands)
    if (!below.examples.empty() && examples.size() < 2) examples.push_back(below.examples.front());
  return examples;
}

std::string value_text(const OptionModel &option) {
  return option.choices.empty() ? option.value : fmt::format("{}", fmt::join(option.choices, "|"));
}

std::string left_column(const OptionModel &option) {
  if (option.argument) return option.names.front() + (option.repeated ? "..." : "");
  // Long names line up whether or not there is a short one.
  const std::string indent = option.names.front().starts_with("--") ? "    " : "";
  const std::string value = option.value.empty() ? "" : " " + value_text(option);
  return fmt::format("{}{}{}", indent, fmt::join(option.names, ", "), value);
}

std::string right_column(const OptionModel &option) {
  return option.default_value.empty() ? option.text
                                      : fmt::format("{} (default {})", option.text, option.default_value);
}

using Rows = std::vector<std::pair<std::string, std::string>>;

// Two columns; a left text that is too long gets a line of its own.
std::string columns(const char *title, const Rows &rows) {
  if (rows.empty()) return {};
  constexpr size_t indent = 2, widest_left = 30;
  size_t width = 0;
  for (const auto &row : rows)
    if (row.first.size() <= widest_left) width = std::max(width, row.first.size());
  std::string out = fmt::format("\n{}:\n", title);
  for (const auto &[left, right] : rows) {
    const size_t at = indent + width + 2;
    const std::string text = wrapped(right, at);
    out += std::string(indent, ' ') + left;
    if (left.size() > width) {
      out += "\n" + text;
    } else {
      out += text.empty() ? "\n" : std::string(at - indent - left.size(), ' ') + text.substr(at);
    }
  }
  return out;
}

Rows option_rows(const std::vector<OptionModel> &options, bool global) {
  Rows rows;
  for (const OptionModel &option : options)
    if (option.global == global) rows.emplace_back(left_column(option), right_column(option));
  return rows;
}

std::string render(const CommandModel &model) {
  std::string out = fmt::format("{} - {}\n\nUsage: {}\n", model.name, model.summary, model.usage());
  if (!model.description.empty()) out += "\n" + wrapped(model.description, 0);
  Rows commands, arguments;
  for (const CommandModel &below : model.commands) commands.emplace_back(below.last_word(), below.summary);
  for (const OptionModel &argument : model.arguments)
    arguments.emplace_back(left_column(argument), right_column(argument));
  out += columns("Commands", commands) + columns("Arguments", arguments);
  out += columns("Options", option_rows(model.options, false));
  out += columns("Global options", option_rows(model.options, true));
  out += "\nExamples:\n";
  for (const Example &example : model.examples)
    out += fmt::format("  {}\n      {}\n", example.line, example.meaning);
  return out;
}

}  // namespace

std::string CommandModel::last_word() const {
  return name.substr(name.rfind(' ') + 1);
}

std::string CommandModel::usage() const {
  std::string out = name;
  if (!options.empty()) out += " [OPTIONS]";
  if (!commands.empty()) out += " COMMAND ...";
  for (const OptionModel &argument : arguments) {
    const std::string word = argument.names.front() + (argument.repeated ? "..." : "");
    out += argument.required ? " " + word : " [" + word + "]";
  }
  return out;
}

CommandModel model_of(const CommandLine &line, const CLI::App &app) {
  CommandModel model;
  model.name = full_name(app);
  model.summary = app.get_description();
  if (const Command *command = line.command_of(&app)) model.description = command->description;
  for (const CLI::Option *option : app.get_options()) {
    OptionModel one = model_of(*option);
    (one.argument ? model.arguments : model.options).push_back(std::move(one));
  }
  // --help and --version stand first in the library's list; users look for the command's own options first.
  std::stable_partition(model.options.begin(), model.options.end(), [](const OptionModel &option) {
    return option.names.back() != "--help" && option.names.back() != "--version";
  });
  for (const CLI::App *below : app.get_subcommands([](const CLI::App *) { return true; }))
    if (!below->get_group().empty()) model.commands.push_back(model_of(line, *below));
  model.examples = examples_of(line, model, app);
  return model;
}

std::string help_text(const CommandLine &line, const CLI::App &app) {
  return render(model_of(line, app));
}

std::string wrapped(std::string_view text, size_t indent, size_t width) {
  std::string out;
  size_t column = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(" \n"), text.size());
    const std::string_view word = text.substr(0, end);
    if (!word.empty()) {
      const bool breaks = column > indent && column + 1 + word.size() > width;
      if (breaks) out += "\n";
      if (breaks || column == 0) out += std::string(column = indent, ' ');
      if (column > indent) out += " ", ++column;
      out += word;
      column += word.size();
    }
    if (end < text.size() && text[end] == '\n' && end + 1 < text.size() && text[end + 1] == '\n') {
      out += "\n\n";
      column = 0;
      text.remove_prefix(1);
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  if (!out.empty()) out += "\n";
  return out;
}
