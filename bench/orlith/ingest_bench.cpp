// A million lines of 1000 metrics into slots of 60 and of 300 seconds, beside what merely reading them costs.
// Goal: at most 0.6 microseconds of processor time a line (the counter cpu_us_per_line), files included; and memory
// that does not grow with the number of lines (peak_rss_MiB of twice the lines beside that of the lines once).
//
// A round is a process of its own that ingests into a fresh folder, so that it pays for its memory as the program does;
// its processor time is the user and the system time that the kernel counted for it (wait4). Nothing is deleted before
// the last round: a file system searches long for a free inode where many have just been given back.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libxml/tree.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

double seconds(const struct timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Where the rounds work; removed after the last one.
class Folder {
 public:
  Folder() : path_(make((fs::temp_directory_path() / "ingest_bench_XXXXXX").string())) {
    spread_below(path_);
  }
  ~Folder() { fs::remove_all(path_); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  std::string file(const std::string &name) const { return path_ + "/" + name; }
  // A fresh folder of a name that no run had before.
  std::string fresh() const { return make(file("round_XXXXXX")); }

 private:
  static std::string make(std::string name) {
    if (mkdtemp(name.data()) == nullptr) abort();
    return name;
  }
  // Asks for folders far apart on the disk, away from what an earlier run deleted. File systems that do not know the
  // flag refuse it, which is as well.
  static void spread_below(const std::string &folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
      flags |= FS_TOPDIR_FL;
      ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    close(fd);
  }

  std::string path_;
};

const Folder &folder() {
  static const Folder the_folder;
  return the_folder;
}

// What a host that reports every 30 seconds writes: round after round of all its metrics, counters and gauges.
std::string file_of_lines(int lines) {
  const std::string path = folder().file("lines" + std::to_string(lines));
  if (fs::exists(path)) return path;
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
  return path;
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

// Whether all the lines were taken and stored.
bool ingest_file(const std::string &lines, const std::string &data) {
  liborlith_init();
  const Topology topology = lone_node();
  IngestOptions options;
  options.data_folder = data;
  options.periods_s = {60, 300};
  options.topology = topology.get();
  options.me = {true};
  IngestRun run(options);
  LineReader reader({lines}, never);
  return run.open() && run.run(reader, [] {}) == IngestEnd::complete && run.totals().refused == 0;
}

void ingest(benchmark::State &state) {
  const int lines = static_cast<int>(state.range(0));
  const std::string input = file_of_lines(lines);
  for (auto _ : state) {
    const std::string data = folder().fresh();
    const pid_t child = fork();
    if (child == 0) _exit(ingest_file(input, data) ? 0 : 1);
    int status = -1;
    struct rusage used {};
    if (child < 0 || wait4(child, &status, 0, &used) != child || status != 0) {
      state.SkipWithError("a round failed");
      break;
    }
    const double user_s = seconds(used.ru_utime);
    const double system_s = seconds(used.ru_stime);
    state.SetIterationTime(user_s + system_s);
    state.counters["cpu_us_per_line"] = (user_s + system_s) * 1e6 / lines;
    state.counters["user_us_per_line"] = user_s * 1e6 / lines;
    state.counters["system_us_per_line"] = system_s * 1e6 / lines;
    state.counters["peak_rss_MiB"] = static_cast<double>(used.ru_maxrss) / 1024;
  }
  state.SetLabel("user + system time of a process a round");
}

double least(const std::vector<double> &values) {
  return *std::min_element(values.begin(), values.end());
}

BENCHMARK(ingest)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->ComputeStatistics("min", least)
    ->UseManualTime();
// For its memory.
BENCHMARK(ingest)
    ->Arg(2'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(1)
    ->UseManualTime();

// The neighbour: every line found, its last field read as a number.
void read_lines_and_numbers(benchmark::State &state) {
  const int lines = static_cast<int>(state.range(0));
  const std::string input = file_of_lines(lines);
  double cpu_s = 0;
  int runs = 0;
  for (auto _ : state) {
    const double before_s = process_cpu_s();
    LineReader reader({input}, never);
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
