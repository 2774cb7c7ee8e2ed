// `orlith find`: metrics of a data folder and their files, by parts of names and by tags.
#include <fmt/format.h>
#include <fnmatch.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "orlith/check_uuid.h"
#include "orlith/cli.h"
#include "orlith/data_scan.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"
#include "orlith/table.h"

namespace {

struct Options {
  std::string data, check;
  std::vector<std::string> words, names;
};

struct Wanted {
  std::string check;  // normalized; empty for all
  std::vector<std::string> texts, tags;
};

struct Found {
  std::string key;
  MetricFiles files;
};

constexpr std::string_view kTagBlock = "|ST[";

bool is_pattern(std::string_view text) {
  return text.find_first_of("*?") != std::string_view::npos;
}

// Brackets stand in every name with tags: they are taken as they are.
bool matches_pattern(std::string_view text, const std::string &name) {
  std::string pattern;
  for (const char c : text) {
    if (c == '[' || c == '\\') pattern += '\\';
    pattern += c;
  }
  return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

bool matches(const std::string &text, const std::string &name) {
  if (!is_pattern(text)) return name.find(text) != std::string::npos;
  return matches_pattern(text, name) || matches_pattern(text, name.substr(0, name.find(kTagBlock)));
}

// False, said so, when the words make no sense.
bool understand(const Options &options, Wanted *wanted, Session &session) {
  wanted->texts = options.names;
  for (const std::string &word : options.words) {
    // A name with its tags is no tag.
    if (word.find(':') == std::string::npos || word.find(kTagBlock) != std::string::npos) {
      wanted->texts.push_back(word);
    } else if (const std::string fault = canonical_tags(word, &wanted->tags); !fault.empty()) {
      session.error(fmt::format("{} is no tag category:value: {}; for a part of a name give it with --name",
                                in_quotes(word), fault));
      return false;
    }
  }
  if (options.check.empty()) return true;
  wanted->check = normalized_uuid(options.check);
  if (wanted->check.empty())
    session.error(fmt::format("--check: found {}, expected a UUID", in_quotes(options.check)));
  return !wanted->check.empty();
}

std::string ask(const MetricIndex &index, const Wanted &wanted, std::vector<Found> *found) {
  found->clear();
  const std::string prefix = wanted.check.empty() ? "" : wanted.check + "-";
  const auto take = [&](std::string_view key, const MetricFiles &files) {
    const std::string name(name_of_key(key));
    const bool is_wanted =
        key.starts_with(prefix) && std::all_of(wanted.texts.begin(), wanted.texts.end(),
                                               [&](const std::string &text) { return matches(text, name); });
    if (is_wanted) found->push_back({std::string(key), files});
    return true;
  };
  const std::string fault =
      wanted.tags.empty() ? index.each(prefix, take) : index.each_with_tags(wanted.tags, take);
  std::sort(found->begin(), found->end(), [](const Found &a, const Found &b) { return a.key < b.key; });
  return fault;
}

// What the folder's own index knows, when it knows all; otherwise says why not.
bool ask_stored_index(const Options &options, const Wanted &wanted, std::vector<Found> *found,
                      Session &session) {
  const std::string path = options.data + (options.data.ends_with('/') ? "" : "/") + std::string(kIndexFile);
  const std::string advice = "; looking through the folder ('orlith index build' brings it up to date)";
  Problem problem;
  const auto index = MetricIndex::open(path, &problem);
  if (index == nullptr) {
    if (problem.code == exit_not_found) {
      session.note(
          fmt::format("{}: has no index; looking through the folder ('orlith index build' makes one)",
                      escaped(options.data)));
    } else {
      session.warning(fmt::format("{}: {}{}", escaped(path), escaped(problem.text), advice));
    }
    return false;
  }
  bool is_current = false;
  if (!index_is_current(options.data, *index, &is_current, &problem))
    return false;  // told when it is looked through
  if (!is_current) {
    session.note(fmt::format("{}: older than the folder{}", escaped(path), advice));
    return false;
  }
  const std::string fault = ask(*index, wanted, found);
  if (!fault.empty()) session.warning(fmt::format("{}: {}{}", escaped(path), escaped(fault), advice));
  return fault.empty();
}

class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("metrics.index", MFD_CLOEXEC)) {}
  ~MemoryFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemoryFile(const MemoryFile &) = delete;
  MemoryFile &operator=(const MemoryFile &) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// The same from an index that is made for this one question.
Problem ask_folder(const Options &options, const Wanted &wanted, std::vector<Found> *found) {
  Problem problem;
  DataScan scan;
  MetricIndexBuilder builder;
  if (!scan_data_folder(options.data, &builder, &scan, &problem)) return problem;
  const MemoryFile file;
  MetricIndexBuilder::Counts counts;
  const int error = file.fd() < 0 ? errno : builder.write(file.fd(), scan.trees_hash, &counts);
  if (error != 0) return {fmt::format("an index in memory: {}", strerror(error)), exit_failed};
  const auto index = MetricIndex::open(file.fd(), &problem);
  if (index == nullptr) return problem;
  problem.text = ask(*index, wanted, found);
  if (!problem.text.empty()) problem.code = exit_failed;
  return problem;
}

void show(const std::vector<Found> &found, const std::string &data, Session &session) {
  const std::string folder = data + (data.ends_with('/') ? "" : "/");
  if (session.settings.json || session.settings.jsonl) {
    const char *separator = session.settings.json ? "[" : "";
    for (const Found &metric : found) {
      session.out << separator << metric_json(metric.key, files_of(metric.key, metric.files), folder).text();
      separator = session.settings.json ? "," : "\n";
    }
    if (session.settings.json && found.empty()) session.out << "[";
    if (session.settings.json) session.out << "]\n";
    if (session.settings.jsonl && !found.empty()) session.out << "\n";
    return;
  }
  if (found.empty()) return;
  Table table({{"metric", "metric"},
               {"check", "check"},
               {"period", "period", Align::right},
               {"kind", "kind"},
               {"file", "file"}});
  for (const Found &metric : found)
    for (const MetricFile &file : files_of(metric.key, metric.files))
      table.add(name_of_key(metric.key), check_of_key(metric.key), file.period_s, kind_word(file.kind),
                folder + file.path);
  session.out << table.text(session);
}

int run(const Options &options, Session &session) {
  start_library();
  Wanted wanted;
  if (!understand(options, &wanted, session)) return exit_usage;
  std::vector<Found> found;
  if (access(options.data.c_str(), F_OK) != 0) {
    session.error(fmt::format("{}: {}", escaped(options.data), strerror(errno)));
    return errno == ENOENT || errno == ENOTDIR ? exit_not_found : exit_failed;
  }
  if (!ask_stored_index(options, wanted, &found, session)) {
    if (const Problem problem = ask_folder(options, wanted, &found); problem.code != exit_fine) {
      session.error(fmt::format("{}: {}", escaped(options.data), problem.text));
      return problem.code;
    }
  }
  show(found, options.data, session);
  if (!found.empty()) return exit_fine;
  session.error(fmt::format("{}: no metric is like that", escaped(options.data)));
  return exit_not_found;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("DIR", options->data, "the data folder")->type_name("DIR")->required();
  app.add_option(
         "WORD", options->words,
         "a part of the name, a pattern of * and ? for all of it, or a tag category:value; all must hold")
      ->type_name("WORD");
  app.add_option("-n,--name", options->names, "as a word, but never a tag; may be repeated")
      ->type_name("WORD")
      ->allow_extra_args(false);
  app.add_option("-c,--check", options->check, "metrics of this check only")->type_name("UUID");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command find_command = {
    .name = "find",
    .summary = "find metrics in a data folder, and their files",
    .description =
        "Lists the metrics for which all of the words hold. A word with a colon is a tag, compared whole in "
        "any "
        "spelling; one with * (any text) or ? (any character) has to match the whole name, with its tags or "
        "without; "
        "any other is a part of the name or its tags. Without words all metrics are listed.\n\n"
        "Uses the index in the folder, which 'orlith ingest' keeps. When there is none or it is older than "
        "the folder, "
        "says so, and looks through the folder itself.\n\n"
        "Exit code 3 when nothing is found.",
    .examples = {{{"orlith find rollups cpu core:1", "by a part of the name and a tag"},
                  {"orlith find --json rollups 'c*'", "by a pattern, as JSON"}}},
    .formats = format_json | format_jsonl,
    .configure = configure,
};
