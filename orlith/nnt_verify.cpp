// `orlith nnt verify`: checks every record of files and folders of files.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "orlith/cli.h"
#include "orlith/data_path.h"
#include "orlith/nnt_reader.h"
#include "orlith/progress.h"
#include "orlith/signals.h"

namespace {

struct Options {
  std::vector<std::string> paths;
};

struct Target {
  std::string path;
  uint64_t size_bytes;
};

struct FileReport {
  uint64_t records = 0, with_data = 0, damaged = 0;
  std::string first_fault;
  uint64_t first_fault_slot = 0;
};

struct Totals {
  uint64_t files = 0, damaged_files = 0, records = 0, damaged_records = 0, skipped = 0;
};

bool begins_with_magic(const std::string &path) {
  char magic[sizeof(nnt_hdr::version)];
  const ReachablePath reachable(path, false);
  const int fd = open(reachable.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return true;  // cannot tell: to be reported when it is opened
  const ssize_t count = pread(fd, magic, sizeof magic, 0);
  close(fd);
  if (count < 0) return true;  // cannot tell either
  return count == sizeof magic && memcmp(magic, NNT_V1_MAGIC, sizeof magic) == 0;
}

struct CloseFolder {
  void operator()(DIR *folder) const { closedir(folder); }
};

class Verifier {
 public:
  explicit Verifier(Session &session) : session_(session) {}

  // Finds the files first, so that progress knows the whole.
  void find(const std::string &path) {
    struct stat info {};
    if (const ReachablePath reachable(path, false); stat(reachable.path().c_str(), &info) != 0) {
      report_problem(path,
                     {strerror(errno), errno == ENOENT || errno == ENOTDIR ? exit_not_found : exit_failed});
    } else if (S_ISDIR(info.st_mode)) {
      find_below(path);
    } else {
      targets_.push_back({path, static_cast<uint64_t>(info.st_size)});
    }
  }

  int verify_all() {
    uint64_t total_bytes = 0;
    for (const Target &target : targets_) total_bytes += target.size_bytes;
    Progress progress(session_, "verifying", total_bytes, Progress::bytes);
    for (const Target &target : targets_) {
      if (interrupted()) break;
      verify(target, progress);
    }
    progress.finish();
    print_totals();
    return interrupted() ? int{exit_interrupted} : code_;
  }

 private:
  struct Found {
    std::string path;
    bool is_folder;
    uint64_t size_bytes;
  };

  // In the order of names, so that two runs say the same. Links are not followed: a loop would never end. What is
  // still to do stands in a list of its own and one folder is open at a time, so that no depth is too much.
  void find_below(const std::string &folder) {
    std::vector<Found> to_do = {{folder, true, 0}};
    while (!to_do.empty() && !interrupted()) {
      const Found next = std::move(to_do.back());
      to_do.pop_back();
      if (!next.is_folder) {
        add_found(next.path, next.size_bytes);
        continue;
      }
      std::vector<Found> entries = list(next.path);
      std::sort(entries.begin(), entries.end(),
                [](const Found &a, const Found &b) { return a.path > b.path; });
      to_do.insert(to_do.end(), std::make_move_iterator(entries.begin()),
                   std::make_move_iterator(entries.end()));
    }
  }

  std::vector<Found> list(const std::string &folder) {
    std::vector<Found> entries;
    const ReachablePath reachable(folder, false);
    const std::unique_ptr<DIR, CloseFolder> open_folder(opendir(reachable.path().c_str()));
    if (!open_folder) {
      report_problem(folder, {strerror(errno), exit_failed});
      return entries;
    }
    const std::string prefix = folder + (folder.ends_with('/') ? "" : "/");
    while (const dirent *entry = next_entry(folder, open_folder.get())) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      struct stat info {};
      if (fstatat(dirfd(open_folder.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        report_problem(prefix + entry->d_name, {strerror(errno), exit_failed});
      } else if (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode)) {
        entries.push_back(
            {prefix + entry->d_name, S_ISDIR(info.st_mode), static_cast<uint64_t>(info.st_size)});
      }
    }
    return entries;
  }

  // Null at the end, and, said so, where the folder cannot be read any further.
  const dirent *next_entry(const std::string &folder, DIR *open_folder) {
    errno = 0;
    const dirent *entry = readdir(open_folder);
    if (entry == nullptr && errno != 0) report_problem(folder, {strerror(errno), exit_failed});
    return entry;
  }

  // Folders of data hold other files as well; those that claim to be NNT files count.
  void add_found(const std::string &path, uint64_t size_bytes) {
    if (path.ends_with(kNntSuffix) || begins_with_magic(path)) {
      targets_.push_back({path, size_bytes});
    } else {
      ++totals_.skipped;
    }
  }

  void verify(const Target &target, Progress &progress) {
    Problem problem;
    const auto reader = NntReader::open(target.path, &problem);
    ++totals_.files;
    if (!reader) {
      progress.pause();
      progress.advance(target.size_bytes);
      if (problem.code == exit_damaged) ++totals_.damaged_files;
      return report_problem(target.path, problem);
    }
    FileReport report;
    uint64_t seen_bytes = 0;
    problem =
        reader->read(0, reader->slot_count(), [&](uint64_t slot, std::span<const nnt_datum_v1> records) {
          check(slot, records, report);
          // Holes are not read, but count as done.
          const uint64_t now_bytes = NntReader::offset_bytes(slot + records.size());
          progress.advance(now_bytes - seen_bytes);
          seen_bytes = now_bytes;
          return !interrupted();
        });
    if (interrupted()) return;  // nothing is known of the rest of it
    progress.advance(reader->size_bytes() - std::min(seen_bytes, reader->size_bytes()));
    report.records = reader->slot_count();
    progress.pause();
    if (!problem.text.empty()) return report_problem(target.path, problem);
    finish_file(target.path, *reader, report);
  }

  static void check(uint64_t slot, std::span<const nnt_datum_v1> records, FileReport &report) {
    for (size_t i = 0; i < records.size(); ++i) {
      nnt_multitype value;
      std::string fault = check_record(records[i], &value);
      if (fault.empty()) {
        report.with_data += value.type != NNT_TYPE_ABSENT ? 1 : 0;
        continue;
      }
      if (report.damaged++ > 0) continue;
      report.first_fault = std::move(fault);
      report.first_fault_slot = slot + i;
    }
  }

  void finish_file(const std::string &path, const NntReader &reader, const FileReport &report) {
    const bool damaged = report.damaged > 0 || reader.tail_bytes() != 0;
    totals_.records += report.records;
    totals_.damaged_records += report.damaged;
    if (damaged) {
      ++totals_.damaged_files;
      worsen(exit_damaged);
    }
    if (session_.settings.json || session_.settings.jsonl) return add_json(file_json(path, reader, report));
    if (report.damaged > 0)
      say_damage(path, fmt::format("{} of {} records, the first at offset {} (slot {}, {}): {}",
                                   human_count(report.damaged), human_count(report.records),
                                   NntReader::offset_bytes(report.first_fault_slot), report.first_fault_slot,
                                   session_.time_text(reader.slot_time_s(report.first_fault_slot)),
                                   report.first_fault));
    if (reader.tail_bytes() != 0)
      say_damage(path, fmt::format("{} bytes after the last whole record, at offset {}; expected none",
                                   reader.tail_bytes(), NntReader::offset_bytes(reader.slot_count())));
  }

  void say_damage(const std::string &path, const std::string &text) {
    session_.out << escaped(path) << ": " << styled("damaged", Style::red, session_.color_out()) << ": "
                 << text << "\n";
  }

  Json file_json(const std::string &path, const NntReader &reader, const FileReport &report) const {
    Json json = Json::object();
    json.set("file", path).set("ok", report.damaged == 0 && reader.tail_bytes() == 0);
    json.set("records", report.records).set("with_data", report.with_data).set("damaged", report.damaged);
    json.set("tail_bytes", reader.tail_bytes());
    if (report.damaged == 0) return json;
    Json first = Json::object();
    first.set("slot", report.first_fault_slot)
        .set("offset", NntReader::offset_bytes(report.first_fault_slot));
    first.set("time", session_.time_json(reader.slot_time_s(report.first_fault_slot)))
        .set("fault", report.first_fault);
    json.set("first_damaged", std::move(first));
    return json;
  }

  void report_problem(const std::string &path, const Problem &problem) {
    session_.error(fmt::format("{}: {}", escaped(path), problem.text));
    worsen(problem.code);
    if (session_.settings.json || session_.settings.jsonl) {
      Json json = Json::object();
      json.set("file", path).set("ok", false).set("error", problem.text);
      add_json(std::move(json));
    }
  }

  void add_json(Json json) {
    if (session_.settings.jsonl) {
      session_.out << json.text() << "\n";
    } else {
      files_json_.add(std::move(json));
    }
  }

  void print_totals() {
    if (session_.settings.jsonl) return;
    if (session_.settings.json) {
      session_.out << files_json_.text() << "\n";
      return;
    }
    std::string line =
        fmt::format("{} file(s), {} records: ", human_count(totals_.files), human_count(totals_.records));
    line += totals_.damaged_files == 0
                ? "no damage found"
                : fmt::format("{} damaged file(s), {} damaged record(s)", human_count(totals_.damaged_files),
                              human_count(totals_.damaged_records));
    if (totals_.skipped > 0) line += fmt::format("; {} other file(s) skipped", human_count(totals_.skipped));
    session_.out << line << "\n";
  }

  void worsen(int code) { code_ = worse_exit(code_, code); }

  Session &session_;
  std::vector<Target> targets_;
  Totals totals_;
  Json files_json_ = Json::array();
  int code_ = exit_fine;
};

int run(const Options &options, Session &session) {
  Verifier verifier(session);
  for (const std::string &path : options.paths) verifier.find(path);
  return verifier.verify_all();
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->paths, "NNT files, or folders that hold some")
      ->type_name("FILE")
      ->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command nnt_verify_command = {
    .name = "nnt verify",
    .summary = "check every record of NNT files",
    .description =
        "Reads the header and the checksum and type of every record. Folders are searched, all levels down, "
        "for files "
        "that are named *.nnt or begin as NNT files do. Says for each damaged file how many records are bad "
        "and where "
        "the first one is: slot, offset in bytes, time.\n\n"
        "Exit code 2 when damage was found, 3 when a file is not there, 1 when one cannot be read.",
    .examples = {{{"orlith nnt verify cpu.nnt", "one file"},
                  {"orlith nnt verify --json damaged.nnt || test $? = 2", "a damaged file, as JSON"}}},
    .formats = format_json | format_jsonl | format_iso,
    .configure = configure,
};
