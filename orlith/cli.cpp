#include "orlith/cli.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "orlith/help.h"
#include "orlith/near_miss.h"
#include "orlith/version.h"

namespace {

const std::map<std::string, ColorMode> color_words = {
    {"auto", ColorMode::automatic}, {"always", ColorMode::always}, {"never", ColorMode::never}};

// The deepest command or group whose name was read.
const CLI::App *deepest_parsed(const CLI::App *app) {
  for (;;) {
    const auto parsed = app->get_subcommands();
    if (parsed.empty()) return app;
    app = parsed.front();
  }
}

std::string full_name(const CLI::App *app) {
  const std::string &own = app->get_name();
  return app->get_parent() == nullptr ? own : full_name(app->get_parent()) + " " + own;
}

std::vector<std::string> command_names(const CLI::App *app) {
  std::vector<std::string> names;
  for (const CLI::App *sub : app->get_subcommands([](const CLI::App *) { return true; }))
    if (!sub->get_group().empty()) names.push_back(sub->get_name());
  return names;
}

std::vector<std::string> option_names(const CLI::App *app) {
  std::vector<std::string> names;
  for (const CLI::Option *option : app->get_options())
    for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string> &candidates) {
  const std::string near = nearest(word, candidates);
  return near.empty() ? std::string() : fmt::format("; did you mean '{}'?", near);
}

// What is wrong with a word that no command, option or argument took.
std::string about_leftover(const CLI::App *app, const std::string &word) {
  if (word.size() > 1 && word.front() == '-') {
    const std::string name = word.substr(0, word.find('='));
    return fmt::format("unknown option {}{}", in_quotes(name), did_you_mean(name, option_names(app)));
  }
  const std::vector<std::string> names = command_names(app);
  if (names.empty()) return fmt::format("unexpected argument {}", in_quotes(word));
  return fmt::format("unknown command {}{}", in_quotes(word), did_you_mean(word, names));
}

int say_usage(Session &session, const CLI::App *app, std::string_view message) {
  session.command = full_name(app);
  session.error(message);
  session.err << "See '" << full_name(app) << " --help'.\n";
  session.err.flush();
  return exit_usage;
}

// The sub-app for one word of a name, made when it is not there yet.
CLI::App *sub_app(CLI::App *parent, const std::string &word) {
  for (CLI::App *sub : parent->get_subcommands([](CLI::App *) { return true; }))
    if (sub->get_name() == word) return sub;
  CLI::App *group = parent->add_subcommand(word);
  group->set_help_flag("-h,--help", "show this help");
  group->require_subcommand(1);
  for (const Group &known : all_groups())
    if (word == known.name) group->description(known.summary);
  return group;
}

}  // namespace

CommandLine::CommandLine(CommandTable commands) : app_(std::make_unique<CLI::App>()) {
  app_->name("orlith");
  app_->description("the tool around liborlith: host metrics, topologies, time-series files");
  app_->set_help_flag("-h,--help", "show this help");
  app_->set_version_flag("--version", std::string("orlith ") + orlith_version(), "show the version");
  app_->require_subcommand(1);
  add_global_options(*app_, format_json | format_jsonl | format_iso);
  for (const Command *command : commands) add_command(*command);
}

CommandLine::~CommandLine() = default;

const Command *CommandLine::command_of(const CLI::App *app) const {
  for (const Entry &entry : entries_)
    if (entry.app == app) return entry.command;
  return nullptr;
}

void CommandLine::add_command(const Command &command) {
  CLI::App *parent = app_.get();
  std::string_view rest = command.name;
  for (size_t blank; (blank = rest.find(' ')) != std::string_view::npos; rest.remove_prefix(blank + 1))
    parent = sub_app(parent, std::string(rest.substr(0, blank)));
  CLI::App *app = parent->add_subcommand(std::string(rest), command.summary);
  app->set_help_flag("-h,--help", "show this help");
  if (command.hidden) app->group("");
  entries_.push_back({app, &command, command.configure(*app)});
  add_global_options(*app, command.formats);
}

void CommandLine::add_global_options(CLI::App &app, unsigned formats) {
  const auto set_progress = [this](ProgressMode mode) { return [this, mode] { settings_.progress = mode; }; };
  const std::string group = "Global options";
  const auto set_color = [this](const std::string &word) { settings_.color = color_words.at(word); };
  if ((formats & format_json) != 0)
    app.add_flag("--json", settings_.json, "results as one JSON document")->group(group);
  if ((formats & format_jsonl) != 0)
    app.add_flag("--jsonl", settings_.jsonl, "results as a stream, one JSON document a line")->group(group);
  if ((formats & format_iso) != 0)
    app.add_flag("--iso", settings_.iso, "times as ISO 8601 instead of epoch seconds")->group(group);
  app.add_option_function<std::string>("--color", set_color, "when to use colour (auto: on a terminal)")
      ->type_name("WHEN")
      ->check(CLI::IsMember(std::vector<std::string>{"auto", "always", "never"}))
      ->group(group);
  app.add_flag_callback("--progress", set_progress(ProgressMode::always), "show progress always")
      ->group(group);
  app.add_flag_callback("--no-progress", set_progress(ProgressMode::never), "show no progress")->group(group);
  app.add_flag("-q,--quiet", settings_.quiet, "errors and results only")->group(group);
}

int CommandLine::run(const std::vector<std::string> &arguments, Session &session) {
  int code = exit_failed;
  try {
    code = parse_and_run(arguments, session);
  } catch (const std::bad_alloc &) {
    session.error("out of memory");
  } catch (const std::exception &error) {
    session.error(escaped(error.what()));
  }
  return session.finish(code);
}

int CommandLine::parse_and_run(const std::vector<std::string> &arguments, Session &session) {
  try {
    app_->parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::CallForHelp &) {
    session.out << help_text(*this, *deepest_parsed(app_.get()));
    return exit_fine;
  } catch (const CLI::CallForVersion &version) {
    session.out << version.what() << "\n";
    return exit_fine;
  } catch (const CLI::ParseError &error) {
    return usage_error(error, session);
  }
  const CLI::App *chosen = deepest_parsed(app_.get());
  session.settings = settings_;
  session.command = full_name(chosen);
  const auto entry =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry &e) { return e.app == chosen; });
  if (const int code = check_settings(*entry->command, session); code != exit_fine) return code;
  return entry->run(session);
}

int CommandLine::check_settings(const Command &command, Session &session) const {
  const CLI::App *app = deepest_parsed(app_.get());
  const auto refuse = [&](const char *option) {
    return say_usage(session, app, fmt::format("{} has no meaning here", option));
  };
  if (settings_.json && settings_.jsonl) return say_usage(session, app, "give --json or --jsonl, not both");
  if (settings_.json && (command.formats & format_json) == 0) return refuse("--json");
  if (settings_.jsonl && (command.formats & format_jsonl) == 0) return refuse("--jsonl");
  if (settings_.iso && (command.formats & format_iso) == 0) return refuse("--iso");
  return exit_fine;
}

int CommandLine::usage_error(const CLI::ParseError &error, Session &session) const {
  const CLI::App *app = deepest_parsed(app_.get());
  const std::vector<std::string> leftover = app->remaining(false);
  // A mistyped word often makes a required one be missing as well: the word is the cause.
  if (!leftover.empty()) return say_usage(session, app, about_leftover(app, leftover.front()));
  if (app->get_require_subcommand_min() > 0 && app->get_subcommands().empty())
    return say_usage(session, app,
                     fmt::format("a command is needed: {}", fmt::join(command_names(app), ", ")));
  return say_usage(session, app, escaped(error.what()));
}
