// `orlith nnt verify`: checks every record of files and folders of files.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "orlith/cli.h"
#include "orlith/data_path.h"
#include "orlith/file_verifier.h"
#include "orlith/nnt_reader.h"
#include "orlith/signals.h"

namespace {

struct Options {
  std::vector<std::string> paths;
};

struct FileReport {
  uint64_t records = 0, with_data = 0, damaged = 0;
  std::string first_fault;
  uint64_t first_fault_slot = 0;
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

class NntVerifier final : public FileVerifier {
 public:
  explicit NntVerifier(Session &session) : FileVerifier(session, "record") {}

 protected:
  bool belongs(const std::string &path) const override {
    return path.ends_with(kNntSuffix) || begins_with_magic(path);
  }

  void verify(const std::string &path, uint64_t size_bytes, Progress &progress) override {
    Problem problem;
    const auto reader = NntReader::open(path, &problem);
    if (!reader) {
      progress.pause();
      progress.advance(size_bytes);
      return tell_problem(path, problem);
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
    if (!problem.text.empty()) return tell_problem(path, problem);
    tell(path, findings_of(path, *reader, report));
  }

 private:
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

  Findings findings_of(const std::string &path, const NntReader &reader, const FileReport &report) const {
    Findings findings;
    findings.items = report.records;
    findings.damaged_items = report.damaged;
    if (report.damaged > 0)
      findings.damage.push_back(
          fmt::format("{} of {} records, the first at offset {} (slot {}, {}): {}",
                      human_count(report.damaged), human_count(report.records),
                      NntReader::offset_bytes(report.first_fault_slot), report.first_fault_slot,
                      session_.time_text(reader.slot_time_s(report.first_fault_slot)), report.first_fault));
    if (reader.tail_bytes() != 0)
      findings.damage.push_back(
          fmt::format("{} bytes after the last whole record, at offset {}; expected none",
                      reader.tail_bytes(), NntReader::offset_bytes(reader.slot_count())));
    findings.json = file_json(path, reader, report);
    return findings;
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
};

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->paths, "NNT files, or folders that hold some")
      ->type_name("FILE")
      ->required();
  return [options](Session &session) { return NntVerifier(session).run(options->paths); };
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
        "the first one is: slot, offset in bytes, time. Series of histograms (*.hss) are other files here: "
        "'orlith "
        "hist verify' checks those.\n\n"
        "Exit code 2 when damage was found, 3 when a file is not there, 1 when one cannot be read.",
    .examples = {{{"orlith nnt verify cpu.nnt", "one file"},
                  {"orlith nnt verify --json damaged.nnt || test $? = 2", "a damaged file, as JSON"}}},
    .formats = format_json | format_jsonl | format_iso,
    .configure = configure,
};
