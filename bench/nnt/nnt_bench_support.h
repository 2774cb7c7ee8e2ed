// Measures an operation and its neighbour in turns, so that both meet the same machine, and reports medians.
#ifndef BENCH_NNT_NNT_BENCH_SUPPORT_H
#define BENCH_NNT_NNT_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "liborlith/nnt/nnt.h"
#include "test/support/temp_dir.h"

// Round-robin files are measured where their library is installed (script/bootstrap --bench).
#if __has_include(<rrd.h>)
#include <rrd.h>
#define NNT_BENCH_HAS_RRD 1
#else
#define NNT_BENCH_HAS_RRD 0
#endif

namespace nnt_bench {

constexpr uint32_t kPeriod = 300;
constexpr uint64_t kEpoch = UINT64_C(1500000000);

inline void require(bool condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "benchmark: %s failed\n", what);
  exit(1);
}

inline double median(std::vector<double> samples) {
  const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
  std::nth_element(samples.begin(), middle, samples.end());
  return *middle;
}

template <typename Work>
double nanoseconds(int batch, Work work) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < batch; ++i) work();
  const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
  return taken.count() / batch;
}

// Runs `ours` and `neighbour` in turns, `batch` times each; `prepare` comes before each turn and is not measured.
// Reports the medians in nanoseconds, their ratio and the goal for it (0: there is none).
template <typename Prepare, typename Ours, typename Neighbour>
void compare(benchmark::State &state, int batch, double goal, Prepare prepare, Ours ours,
             Neighbour neighbour) {
  std::vector<double> ours_ns, neighbour_ns;
  for (auto _ : state) {
    prepare();
    ours_ns.push_back(nanoseconds(batch, ours));
    neighbour_ns.push_back(nanoseconds(batch, neighbour));
    state.SetIterationTime(ours_ns.back() * batch * 1e-9);
  }
  state.counters["ours_ns"] = median(ours_ns);
  state.counters["neighbour_ns"] = median(neighbour_ns);
  state.counters["ratio"] = median(ours_ns) / median(neighbour_ns);
  if (goal > 0) state.counters["goal"] = goal;
}

inline nnt_multitype sample(uint64_t number) {
  nnt_multitype v{};
  v.type = NNT_TYPE_UINT64;
  v.count = 5;
  v.stddev_present = 1;
  v.stddev = 1.5F;
  v.value.v_uint64 = number;
  v.derivative = 0.5F;
  v.counter = 0.25F;
  return v;
}

inline std::vector<nnt_multitype> samples(size_t count) {
  std::vector<nnt_multitype> values;
  for (size_t i = 0; i < count; ++i) values.push_back(sample(i * 977));
  return values;
}

// An NNT file with `slots` values.
inline nnt_handle *new_file(const TempDir &dir, const std::string &name, size_t slots) {
  require(nnt_create(nullptr, dir.file(name).c_str(), kEpoch, kPeriod, 0644) == 0, "nnt_create");
  nnt_handle *h = nnt_open_sync(dir.file(name).c_str(), false, nullptr);
  require(h != nullptr, "nnt_open");
  if (slots == 0) return h;
  const std::vector<nnt_multitype> values = samples(slots);
  require(nnt_put_range(h, kEpoch, static_cast<int>(slots), values.data()) == static_cast<int>(slots),
          "fill");
  return h;
}

#if NNT_BENCH_HAS_RRD
// A round-robin file with one value a slot and one archive of averages over one slot each.
class RrdFile {
 public:
  RrdFile(const TempDir &dir, size_t rows) : path_(dir.file("neighbour.rrd")) {
    const std::string archive = "RRA:AVERAGE:0.5:1:" + std::to_string(rows);
    const char *args[] = {"DS:v:GAUGE:600:U:U", archive.c_str()};
    require(rrd_create_r(path_.c_str(), kPeriod, kEpoch, 2, args) == 0, "rrd_create");
  }

  // Makes `count` arguments for later updates, each one slot after the last.
  void prepare(size_t count) {
    texts_.clear();
    args_.clear();
    for (size_t i = 0; i < count; ++i) {
      time_ += kPeriod;
      texts_.push_back(std::to_string(time_) + ":" + std::to_string(time_ % 1009));
    }
    for (const std::string &text : texts_) args_.push_back(text.c_str());
    used_ = 0;
  }
  void update(int count) {
    require(rrd_update_r(path_.c_str(), nullptr, count, args_.data() + used_) == 0, "rrd_update");
    used_ += static_cast<size_t>(count);
  }
  void fill(size_t rows) {
    for (size_t done = 0; done < rows; done += 1000) {
      prepare(1000);
      update(1000);
    }
  }
  // Fetches the newest `rows` rows; returns how many there were.
  size_t fetch(size_t rows) const {
    time_t start = time_ - static_cast<time_t>(rows * kPeriod), end = time_ - kPeriod;
    unsigned long step = kPeriod, columns = 0;
    char **names = nullptr;
    rrd_value_t *data = nullptr;
    require(rrd_fetch_r(path_.c_str(), "AVERAGE", &start, &end, &step, &columns, &names, &data) == 0,
            "rrd_fetch");
    benchmark::DoNotOptimize(data);
    for (unsigned long i = 0; i < columns; ++i) rrd_freemem(names[i]);
    rrd_freemem(names);
    rrd_freemem(data);
    return static_cast<size_t>(end - start) / step;
  }

 private:
  std::string path_;
  time_t time_ = static_cast<time_t>(kEpoch);
  std::vector<std::string> texts_;
  std::vector<const char *> args_;
  size_t used_ = 0;
};
#endif

}  // namespace nnt_bench

#endif
