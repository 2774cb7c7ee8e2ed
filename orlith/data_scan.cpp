#include "orlith/data_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <memory>

#include "orlith/data_path.h"
#include "orlith/locator.h"
#include "orlith/signals.h"
#include "orlith/text.h"

namespace {

constexpr size_t kMaxEncoded = (size_t{ORLITH_METRIC_LOCATOR_MAX_NAME} + 2) / 3 * 4;
// A folder that holds none has this many links, on file systems that count them; others say 1.
constexpr nlink_t kLinksWithoutFolders = 2;

struct CloseFolder {
  void operator()(DIR *folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

bool parse_period(std::string_view name, uint32_t *period_s) {
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), *period_s);
  return error == std::errc() && end == name.data() + name.size() && *period_s > 0 && name.front() != '0';
}

bool is_later(const struct timespec &a, const struct timespec &b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// One walk over the folders of a data folder, and over their files too unless only folders are asked for.
class Walker {
 public:
  // False ends the walk.
  std::function<bool(const struct stat &)> on_folder = [](const struct stat &) { return true; };
  // `file` is the path below the period's folder, `encoded` the name in it.
  std::function<void(const MetricPlace &, std::string_view check, std::string_view encoded,
                     std::string_view file)>
      on_file;
  std::function<void()> on_other = [] {};

  // False with problem() when it could not be finished.
  bool walk(const std::string &folder) {
    const Folder top(opendir(folder.c_str()));
    if (!top) {
      problem_ = {strerror(errno), errno == ENOENT || errno == ENOTDIR ? exit_not_found : exit_failed};
      return false;
    }
    std::vector<Entry> entries;
    if (!read(top.get(), "", &entries)) return false;
    std::vector<std::string> trees;
    for (const Entry &entry : entries)
      if (is_tree(entry)) trees.push_back(entry.name + "\n");
    std::sort(trees.begin(), trees.end());
    std::string all;
    for (const std::string &tree : trees) all += tree;
    trees_hash_ = XXH3_64bits(all.data(), all.size());
    rewinddir(top.get());
    return each_folder(top.get(), "", [&](const std::string &name, DIR *opened) {
      MetricPlace place;
      if (parse_period(name, &place.period_s)) return walk_period(opened, name, place);
      place.below_node = parse_uuid(name, &place.node);
      return walk_node(opened, name, place);
    });
  }

  const Problem &problem() const { return problem_; }
  bool stopped() const { return stopped_; }
  uint64_t trees_hash() const { return trees_hash_; }

 private:
  struct Entry {
    std::string name;
    bool is_folder, is_file;
  };
  using Visit = std::function<bool(const std::string &, DIR *)>;

  // Folders have one of two forms of name: a period, or the UUID of a node or a check.
  static bool is_tree(const Entry &entry) {
    uint32_t ignored;
    return entry.is_folder && (parse_period(entry.name, &ignored) || is_uuid_text(entry.name));
  }

  bool fail(const std::string &path) {
    problem_ = {fmt::format("{}: {}", in_quotes(path), strerror(errno)), exit_failed};
    return false;
  }

  // What is linked in counts as what it is.
  static void look_at(DIR *folder, const dirent *entry, Entry *found) {
    found->is_folder = entry->d_type == DT_DIR;
    found->is_file = entry->d_type == DT_REG;
    if (entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN) return;
    struct stat info {};
    if (fstatat(dirfd(folder), entry->d_name, &info, 0) != 0) return;
    found->is_folder = S_ISDIR(info.st_mode);
    found->is_file = S_ISREG(info.st_mode);
  }

  bool read(DIR *folder, const std::string &path, std::vector<Entry> *entries) {
    errno = 0;
    while (const dirent *entry = readdir(folder)) {
      Entry found = {entry->d_name, false, false};
      if (found.name != "." && found.name != "..") {
        look_at(folder, entry, &found);
        entries->push_back(std::move(found));
      }
      errno = 0;
    }
    if (errno != 0) return fail(path.empty() ? "." : path);
    return true;
  }

  // Opens a folder and tells on_folder; one that went away meanwhile is passed over.
  bool enter(DIR *parent, const std::string &path, const std::string &name, const Visit &visit) {
    if (interrupted()) {
      problem_ = {"interrupted", exit_interrupted};
      return false;
    }
    const int fd = openat(dirfd(parent), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const Folder opened(fd < 0 ? nullptr : fdopendir(fd));
    if (!opened) {
      if (fd >= 0) close(fd);
      return errno == ENOENT || fail(path);
    }
    struct stat info {};
    if (fstat(fd, &info) != 0) return fail(path);
    if (!on_folder(info)) {
      stopped_ = true;
      return false;
    }
    if (!on_file && info.st_nlink == kLinksWithoutFolders) return true;
    return visit(name, opened.get());
  }

  bool each_folder(DIR *folder, const std::string &path, const Visit &visit) {
    std::vector<Entry> entries;
    if (!read(folder, path, &entries)) return false;
    return std::all_of(entries.begin(), entries.end(), [&](const Entry &entry) {
      return !is_tree(entry) || enter(folder, path + entry.name, entry.name, visit);
    });
  }

  bool walk_node(DIR *folder, const std::string &path, MetricPlace place) {
    return each_folder(folder, path + "/", [&](const std::string &name, DIR *opened) {
      return !parse_period(name, &place.period_s) || walk_period(opened, path + "/" + name, place);
    });
  }

  bool walk_period(DIR *folder, const std::string &path, const MetricPlace &place) {
    return each_folder(folder, path + "/", [&](const std::string &name, DIR *opened) {
      return !is_uuid_text(name) || walk_files(opened, path + "/" + name, place, name, "", name);
    });
  }

  // `file` is the path from the check's folder on, `encoded` the parts of it behind that, joined.
  bool walk_files(DIR *folder, const std::string &path, const MetricPlace &place, const std::string &check,
                  const std::string &encoded, const std::string &file) {
    std::vector<Entry> entries;
    if (!read(folder, path, &entries)) return false;
    for (const Entry &entry : entries) {
      const std::string below = file + "/" + entry.name;
      if (entry.is_folder && entry.name.size() == kEncodedChunk && encoded.size() < kMaxEncoded) {
        if (!enter(folder, path + "/" + entry.name, entry.name, [&](const std::string &name, DIR *opened) {
              return walk_files(opened, path + "/" + name, place, check, encoded + name, below);
            }))
          return false;
        continue;
      }
      if (!on_file) continue;
      const std::string_view suffix = entry.is_folder ? kHistSuffix : kNntSuffix;
      if ((entry.is_folder || entry.is_file) && entry.name.ends_with(suffix)) {
        MetricPlace found = place;
        found.kinds = entry.is_folder ? kind_histograms : kind_rollup;
        const std::string_view last(entry.name.data(), entry.name.size() - suffix.size());
        on_file(found, check, encoded + std::string(last), below);
      } else {
        on_other();
      }
    }
    return true;
  }

  Problem problem_;
  bool stopped_ = false;
  uint64_t trees_hash_ = 0;
};

// The metric that a path belongs to; empty when it is none that `orlith ingest` gives to any.
std::string key_of_path(const MetricPlace &place, std::string_view check, std::string_view encoded,
                        std::string_view file) {
  const std::string_view suffix = place.kinds == kind_rollup ? kNntSuffix : kHistSuffix;
  if (metric_file_path(check, encoded, suffix) != file) return "";
  const std::optional<std::string> name = decoded_name(encoded);
  if (!name) return "";
  std::string fault;
  const Locator locator = make_locator(std::string(check), *name, &fault);
  if (locator == nullptr) return "";
  const std::string_view canonical(orlith_metric_locator_get_name_with_tags(locator.get()),
                                   orlith_metric_locator_get_name_len_with_tags(locator.get()));
  return canonical == *name ? std::string(check) + "-" + *name : "";
}

}  // namespace

bool scan_data_folder(const std::string &folder, MetricIndexBuilder *builder, DataScan *scan,
                      Problem *problem) {
  *scan = {};
  Walker walker;
  walker.on_file = [&](const MetricPlace &place, std::string_view check, std::string_view encoded,
                       std::string_view file) {
    const std::string key = key_of_path(place, check, encoded, file);
    ++(key.empty() ? scan->passed_over : scan->files);
    if (!key.empty()) builder->add(key, place);
  };
  walker.on_other = [&] { ++scan->passed_over; };
  const bool done = walker.walk(folder);
  scan->trees_hash = walker.trees_hash();
  *problem = walker.problem();
  return done;
}

bool hash_trees(const std::string &folder, uint64_t *hash, Problem *problem) {
  Walker walker;
  walker.on_folder = [](const struct stat &) { return false; };
  const bool done = walker.walk(folder) || walker.stopped();
  *hash = walker.trees_hash();
  *problem = walker.problem();
  return done;
}

bool index_is_current(const std::string &folder, const MetricIndex &index, bool *is_current,
                      Problem *problem) {
  Walker walker;
  walker.on_folder = [&](const struct stat &info) { return !is_later(info.st_ctim, index.as_of()); };
  const bool done = walker.walk(folder);
  *problem = walker.problem();
  *is_current = done && walker.trees_hash() == index.directory().trees_hash;
  return done || walker.stopped();
}
