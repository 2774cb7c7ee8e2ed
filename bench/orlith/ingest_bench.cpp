// A million lines of 1000 metrics into slots of 60 and of 300 seconds, beside what merely reading them costs.
// Goal: at most 0.6 microseconds of processor time a line (the counter cpu_us_per_line), files included; and memory
// that does not grow with the number of lines (rss_growth_MiB: what twice the lines take over the lines once).
#include <benchmark/benchmark.h>
#include <libxml/tree.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "liborlith/liborlith_init.h"
#include "orlith/ingest_run.h"
#include "orlith/topology_file.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMetrics = 1000;

double process_cpu_s() {
  struct timespec now {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class Folder {
 public:
  Folder() {
    std::string name = (fs::temp_directory_path() / "ingest_bench_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) abort();
    path_ = name;
  }
  ~Folder() { fs::remove_all(path_); }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What a host that reports every 30 seconds writes: round after round of all its metrics, counters and gauges.
void write_lines(const std::string &path, int lines) {
  std::ofstream out(path);
  char line[256];
  for (int i = 0; i < lines; ++i) {
    const int metric = i % kMetrics;
    const int round = i / kMetrics;
    const long time_s = 1700000000L + 30L * round;
    const char type = "nLIl"[metric % 4];
    int length = snprintf(line, sizeof line,
                          "M\t%ld.%03d\t6f2d1c66-9d0e-4c35-8a35-0123456789ab\t"
                          "disk_operations|ST[device:sd%d,direction:write,units:operations]\t%c\t%d",
                          time_s, metric % 1000, metric, type, (round * 17 + metric) % 100000);
    if (type == 'n')
      length += snprintf(line + length, sizeof line - static_cast<size_t>(length), ".%d", round % 97);
    out.write(line, length).put('\n');
  }
}

Topology lone_node() {
  static const char document[] =
      "<nodes write_copies=\"1\"><node id=\"00000000-0000-4000-8000-000000000001\" weight=\"32\""
      " address=\"127.0.0.1\" port=\"1\" apiport=\"1\"/></nodes>";
  char *error = nullptr;
  xmlDocPtr parsed = topo_parse_document(document, sizeof document - 1, &error);
  Topology topology(topo_compile(parsed, nullptr, &error));
  xmlFreeDoc(parsed);
  return topology;
}

bool never() {
  return false;
}

void ingest(benchmark::State &state) {
  liborlith_init();
  const Folder folder;
  const int lines = static_cast<int>(state.range(0));
  write_lines(folder.file("lines"), lines);
  const Topology topology = lone_node();
  double cpu_s = 0;
  int runs = 0;
  for (auto _ : state) {
    const double before_s = process_cpu_s();
    IngestOptions options;
    options.data_folder = folder.file("data" + std::to_string(runs++));
    options.periods_s = {60, 300};
    options.topology = topology.get();
    options.me = {true};
    IngestRun run(options);
    LineReader reader({folder.file("lines")}, never);
    if (!run.open() || run.run(reader, [] {}) != IngestEnd::complete || run.totals().refused != 0) {
      state.SkipWithError(run.error().c_str());
      break;
    }
    cpu_s += process_cpu_s() - before_s;
  }
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["cpu_us_per_line"] = cpu_s * 1e6 / runs / lines;
  state.counters["peak_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}
BENCHMARK(ingest)
    ->Arg(1'000'000)
    ->Arg(2'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();

// The neighbour: every line found, its last field read as a number.
void read_lines_and_numbers(benchmark::State &state) {
  const Folder folder;
  const int lines = static_cast<int>(state.range(0));
  write_lines(folder.file("lines"), lines);
  double cpu_s = 0;
  int runs = 0;
  for (auto _ : state) {
    const double before_s = process_cpu_s();
    LineReader reader({folder.file("lines")}, never);
    InputLine line;
    double sum = 0;
    while (reader.next(&line)) sum += strtod(line.text.data() + line.text.rfind('\t') + 1, nullptr);
    benchmark::DoNotOptimize(sum);
    cpu_s += process_cpu_s() - before_s;
    ++runs;
  }
  state.counters["cpu_us_per_line"] = cpu_s * 1e6 / runs / lines;
}
BENCHMARK(read_lines_and_numbers)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace
