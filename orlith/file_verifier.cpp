#include "orlith/file_verifier.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

#include "orlith/data_path.h"
#include "orlith/signals.h"

namespace {

struct CloseFolder {
  void operator()(DIR *folder) const { closedir(folder); }
};

}  // namespace

int FileVerifier::run(const std::vector<std::string> &paths) {
  // All files first, so that progress knows the whole.
  for (const std::string &path : paths) find(path);
  return verify_all();
}

void FileVerifier::find(const std::string &path) {
  struct stat info {};
  if (const ReachablePath reachable(path, false); stat(reachable.path().c_str(), &info) != 0) {
    tell_problem(path, system_problem(errno));
  } else if (S_ISDIR(info.st_mode)) {
    find_below(path);
  } else {
    files_.push_back({path, false, static_cast<uint64_t>(info.st_size)});
  }
}

// In the order of names, so that two runs say the same. Links are not followed: a loop would never end. What is
// still to do stands in a list of its own and one folder is open at a time, so that no depth is too much.
void FileVerifier::find_below(const std::string &folder) {
  std::vector<Found> to_do = {{folder, true, 0}};
  while (!to_do.empty() && !interrupted()) {
    const Found next = std::move(to_do.back());
    to_do.pop_back();
    if (!next.is_folder) {
      // Folders of data hold other files as well.
      if (belongs(next.path)) {
        files_.push_back(next);
      } else {
        ++totals_.skipped;
      }
      continue;
    }
    std::vector<Found> entries = list(next.path);
    std::sort(entries.begin(), entries.end(), [](const Found &a, const Found &b) { return a.path > b.path; });
    to_do.insert(to_do.end(), std::make_move_iterator(entries.begin()),
                 std::make_move_iterator(entries.end()));
  }
}

std::vector<FileVerifier::Found> FileVerifier::list(const std::string &folder) {
  std::vector<Found> entries;
  const ReachablePath reachable(folder, false);
  const std::unique_ptr<DIR, CloseFolder> open_folder(opendir(reachable.path().c_str()));
  if (!open_folder) {
    tell_problem(folder, {strerror(errno), exit_failed});
    return entries;
  }
  const std::string prefix = folder + (folder.ends_with('/') ? "" : "/");
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(open_folder.get());
    if (entry == nullptr) {
      if (errno != 0) tell_problem(folder, {strerror(errno), exit_failed});
      return entries;
    }
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    struct stat info {};
    if (fstatat(dirfd(open_folder.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
      tell_problem(prefix + entry->d_name, {strerror(errno), exit_failed});
    } else if (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode)) {
      entries.push_back({prefix + entry->d_name, S_ISDIR(info.st_mode), static_cast<uint64_t>(info.st_size)});
    }
  }
}

int FileVerifier::verify_all() {
  uint64_t total_bytes = 0;
  for (const Found &file : files_) total_bytes += file.size_bytes;
  Progress progress(session_, "verifying", total_bytes, Progress::bytes);
  for (const Found &file : files_) {
    if (interrupted()) break;
    ++totals_.files;
    verify(file.path, file.size_bytes, progress);
  }
  progress.finish();
  print_totals();
  return interrupted() ? int{exit_interrupted} : code_;
}

void FileVerifier::tell(const std::string &path, Findings findings) {
  totals_.items += findings.items;
  totals_.damaged_items += findings.damaged_items;
  if (!findings.damage.empty()) {
    ++totals_.damaged_files;
    worsen(exit_damaged);
  }
  if (session_.settings.json || session_.settings.jsonl) return add_json(std::move(findings.json));
  for (const std::string &text : findings.damage)
    session_.out << escaped(path) << ": " << styled("damaged", Style::red, session_.color_out()) << ": "
                 << text << "\n";
}

void FileVerifier::tell_problem(const std::string &path, const Problem &problem) {
  session_.error(fmt::format("{}: {}", escaped(path), problem.text));
  if (problem.code == exit_damaged) ++totals_.damaged_files;
  worsen(problem.code);
  if (!session_.settings.json && !session_.settings.jsonl) return;
  Json json = Json::object();
  json.set("file", path).set("ok", false).set("error", problem.text);
  add_json(std::move(json));
}

void FileVerifier::add_json(Json json) {
  if (session_.settings.jsonl) {
    session_.out << json.text() << "\n";
  } else {
    files_json_.add(std::move(json));
  }
}

void FileVerifier::print_totals() {
  if (session_.settings.jsonl) return;
  if (session_.settings.json) {
    session_.out << files_json_.text() << "\n";
    return;
  }
  std::string line =
      fmt::format("{} file(s), {} {}s: ", human_count(totals_.files), human_count(totals_.items), noun_);
  line += totals_.damaged_files == 0
              ? "no damage found"
              : fmt::format("{} damaged file(s), {} damaged {}(s)", human_count(totals_.damaged_files),
                            human_count(totals_.damaged_items), noun_);
  if (totals_.skipped > 0) line += fmt::format("; {} other file(s) skipped", human_count(totals_.skipped));
  session_.out << line << "\n";
}
