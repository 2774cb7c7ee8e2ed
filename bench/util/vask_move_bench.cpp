// Copying and moving files next to cp(1) on the same ones: one of 1 GiB (256 MiB where the folder has no room for
// three of these), and 10,000 of 4 KiB. Compare the wall-clock times. The destination is new each time, and everything
// is in the page cache.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "liborlith/util/vask_move.h"

namespace {

namespace fs = std::filesystem;

constexpr int kSmallFiles = 10000;
constexpr size_t kSmallBytes = 4096;

// Where the files lie, removed at the end.
class Folder {
 public:
  Folder() {
    std::string path = fs::temp_directory_path() / "vask_move_bench_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) abort();
    path_ = path;
    struct statvfs info {};
    statvfs(path_.c_str(), &info);
    const uint64_t room = static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
    big_bytes_ = room > (uint64_t{4} << 30) ? uint64_t{1} << 30 : uint64_t{1} << 28;
    const std::vector<char> piece(1 << 20, 'x');
    std::ofstream big(at("big"));
    for (uint64_t written = 0; written < big_bytes_; written += piece.size())
      big.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    fs::create_directory(at("small"));
    for (int n = 0; n < kSmallFiles; ++n) std::ofstream(small(n)).write(piece.data(), kSmallBytes);
  }
  ~Folder() { fs::remove_all(path_); }
  std::string at(const std::string &name) const { return path_ + "/" + name; }
  std::string small(int n) const { return at("small/") + std::to_string(n); }
  uint64_t big_bytes() const { return big_bytes_; }

 private:
  std::string path_;
  uint64_t big_bytes_ = 0;
};

const Folder &folder() {
  static const Folder instance;
  return instance;
}

void run(std::vector<std::string> words) {
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  int status = 0;
  if (posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0 ||
      waitpid(child, &status, 0) != child || status != 0)
    abort();
}

void one_big_file(benchmark::State &state, void (*copy)(const std::string &, const std::string &)) {
  const std::string from = folder().at("big"), to = folder().at("copy");
  for (auto _ : state) {
    copy(from, to);
    state.PauseTiming();
    if (fs::file_size(to) != folder().big_bytes()) abort();
    fs::remove(to);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(folder().big_bytes()));
}

void many_small_files(benchmark::State &state, void (*copy)(const std::string &, const std::string &)) {
  const std::string from = folder().at("small"), to = folder().at("copies");
  for (auto _ : state) {
    copy(from, to);
    state.PauseTiming();
    fs::remove_all(to);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kSmallFiles);
}

void ours(const std::string &from, const std::string &to) {
  if (vask_synch_copy(from.c_str(), to.c_str()) != 0) abort();
}
void ours_each(const std::string &from, const std::string &to) {
  for (int n = 0; n < kSmallFiles; ++n) ours(from + "/" + std::to_string(n), to + "/" + std::to_string(n));
}
void cp(const std::string &from, const std::string &to) {
  run({"cp", from, to});
}
// What cp does where the file system cannot share or splice the bytes.
void cp_by_reading(const std::string &from, const std::string &to) {
  run({"cp", "--reflink=never", "--sparse=always", from, to});
}
void cp_r(const std::string &from, const std::string &to) {
  run({"cp", "-r", from, to});
}

BENCHMARK_CAPTURE(one_big_file, vask_synch_copy, ours)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(one_big_file, cp, cp)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(one_big_file, cp_that_reads, cp_by_reading)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(many_small_files, vask_synch_copy, ours_each)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(many_small_files, cp_r, cp_r)->UseRealTime()->Unit(benchmark::kMillisecond);

// Moves there and back again.
void move_big_file(benchmark::State &state) {
  std::string from = folder().at("big"), to = folder().at("moved");
  for (auto _ : state) {
    if (vask_synch_move(from.c_str(), to.c_str()) != 0) abort();
    std::swap(from, to);
  }
  if (from != folder().at("big")) vask_synch_move(from.c_str(), to.c_str());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(folder().big_bytes()));
}
BENCHMARK(move_big_file)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
