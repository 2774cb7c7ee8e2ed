// Input of arbitrary bytes through a whole run of ingestion, into a folder in memory: the first byte chooses whether
// lines carry a source and how often the run is cut into checkpoints. Every file of numbers that comes of it must hold
// whole records with right checksums, every file of histograms must be a series of whole entries, the index must stand
// up to its verification, and the run must account for every line.
#include <fcntl.h>
#include <libxml/tree.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "liborlith/liborlith_init.h"
#include "liborlith/util/histogram_series.h"
#include "orlith/ingest_run.h"
#include "orlith/ingest_summary.h"
#include "orlith/metric_index.h"
#include "orlith/topology_file.h"
#include "ruxo/json.h"
#include "ruxo/log.h"

namespace {

namespace fs = std::filesystem;

void require(bool condition) {
  if (!condition) abort();
}

// A file of the bytes that has a name.
class InputFile {
 public:
  InputFile(const uint8_t *bytes, size_t size) : fd_(memfd_create("ingest_fuzz", MFD_CLOEXEC)) {
    require(fd_ >= 0 && write(fd_, bytes, size) == static_cast<ssize_t>(size));
  }
  ~InputFile() { close(fd_); }
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;
  std::string name() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

// In memory where the system has such a folder: a run syncs its file system.
class Folder {
 public:
  Folder() {
    const bool in_memory = fs::is_directory("/dev/shm");
    name_ = (in_memory ? fs::path("/dev/shm") : fs::temp_directory_path()) / "ingest_fuzz_XXXXXX";
    require(mkdtemp(name_.data()) != nullptr);
  }
  ~Folder() { fs::remove_all(name_); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  const std::string &name() const { return name_; }

 private:
  std::string name_;
};

const topo_config *two_nodes() {
  static constexpr std::string_view kDocument =
      "<nodes write_copies=\"1\">"
      "<node id=\"00000000-0000-4000-8000-000000000001\" weight=\"32\" address=\"127.0.0.1\" port=\"1\" "
      "apiport=\"1\"/>"
      "<node id=\"00000000-0000-4000-8000-000000000002\" weight=\"32\" address=\"127.0.0.1\" port=\"2\" "
      "apiport=\"2\"/>"
      "</nodes>";
  xmlDoc *document = topo_parse_document(kDocument.data(), kDocument.size(), nullptr);
  const topo_config *topology = topo_compile(document, nullptr, nullptr);
  xmlFreeDoc(document);
  require(topology != nullptr);
  return topology;
}

void require_sound_series(const std::string &bytes) {
  histogram_series_t *series = histogram_series_deserialize(bytes.data(), bytes.size());
  require(series != nullptr && series->n_entries > 0);
  const auto is_whole = [](uint64_t, histogram_t *histogram, void *) { return histogram != nullptr; };
  require(histogram_series_foreach(series, is_whole, nullptr));
  histogram_series_free(series);
}

void require_sound_index(const std::string &path) {
  Problem problem;
  const auto index = MetricIndex::open(path, &problem);
  require(index != nullptr && index->verify().empty());
}

void require_sound_file(const fs::path &path) {
  if (path.filename() == kIndexFile) return require_sound_index(path);
  const bool is_series = path.extension() == ".hss";
  require(is_series || path.string().ends_with(".nnt"));  // an empty name has nothing before it
  // A far apart pair of times makes a long file of nothing.
  if (fs::file_size(path) > (1U << 20)) return;
  std::ifstream in(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (is_series) return require_sound_series(bytes);
  require(bytes.size() % 32 == 16 && bytes.starts_with("NNT1"));
  for (size_t record = 16; record < bytes.size(); record += 32) {
    char sum = 0;
    for (const char byte : std::string_view(bytes).substr(record, 32)) sum = static_cast<char>(sum ^ byte);
    require(sum == 0);
  }
}

void require_all_accounted_for(const IngestTotals &totals) {
  uint64_t refused = 0;
  for (const RefusalCount &refusal : totals.refusals) refused += refusal.count;
  require(refused == totals.refused);
  require(totals.lines == totals.blank_lines + totals.samples + totals.null_samples + totals.text_samples +
                              totals.histogram_samples + refused);
}

void require_summaries(const IngestReport &report) {
  StringOutput text, json, ignored;
  SystemClock clock;
  Session for_people{.out = text, .err = ignored, .clock = clock, .terminal = {}, .settings = {}};
  write_summary_text(report, for_people);
  for (const char byte : text.text) require(byte == '\n' || static_cast<unsigned char>(byte) >= ' ');
  Session for_programs{.out = json, .err = ignored, .clock = clock, .terminal = {}, .settings = {}};
  write_summary_json(report, for_programs);
  ruxo_json_object *document = ruxo_json_parse(json.text.c_str());
  require(document != nullptr);
  ruxo_json_free(document);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ruxo_log_stream_new("error/metric_locator");  // refused names are no news here
  liborlith_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  static const int ready = LLVMFuzzerInitialize(nullptr, nullptr);
  static const topo_config *const topology = two_nodes();
  if (ready != 0 || size == 0) return 0;
  const InputFile input(bytes + 1, size - 1);
  const Folder folder;
  IngestOptions options;
  options.data_folder = folder.name();
  options.periods_s = {60, 86400};
  options.topology = topology;
  options.me = {true, true};
  options.folder_per_node = true;
  options.with_source = (bytes[0] & 1) != 0;
  options.max_open_slots = options.max_open_buckets = size_t{1} << (bytes[0] >> 1) % 8;
  {
    IngestRun run(options);
    require(run.open());
    LineReader reader({input.name()}, [] { return false; });
    const IngestEnd end = run.run(reader, [] {});
    const bool is_full =
        run.error().find("cannot count beyond") != std::string::npos;  // a slot of a series file
    require(end == IngestEnd::complete || (end == IngestEnd::store_failed && is_full));
    require_all_accounted_for(run.totals());
    require_summaries({run, options, end, 1.0, reader.bytes_read()});
  }
  for (const auto &entry : fs::recursive_directory_iterator(folder.name())) {
    if (entry.is_regular_file()) require_sound_file(entry.path());
  }
  return 0;
}
