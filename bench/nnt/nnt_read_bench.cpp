// Reading a day of slots and a year of them, through a handle and through a view, next to fetching as many rows of a
// round-robin file.
#include "bench/nnt/nnt_bench_support.h"

namespace {

using namespace nnt_bench;

constexpr int64_t kDay = 288;
constexpr int64_t kYear = 105120;

double goal(const benchmark::State &state) {
  return state.range(0) == kDay ? 0.035 : 0.70;
}

struct Files {
  explicit Files(size_t slots) : h(new_file(dir, "ours", slots)), rrd(dir, slots), values(slots) {
    rrd.fill(slots);
    require(rrd.fetch(slots) == slots, "as many rows as slots");
  }
  ~Files() { nnt_close(h); }

  TempDir dir;
  nnt_handle *h;
  RrdFile rrd;
  std::vector<nnt_multitype> values;
};

void BM_ReadByHandle(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  Files files(slots);
  compare(
      state, slots > 1000 ? 1 : 16, goal(state), [] {},
      [&] {
        const int count = static_cast<int>(slots);
        require(nnt_get_range(files.h, kEpoch, count, files.values.data()) == count, "nnt_get_range");
        benchmark::DoNotOptimize(files.values.data());
      },
      [&] { files.rrd.fetch(slots); });
}
BENCHMARK(BM_ReadByHandle)->Arg(kDay)->Arg(kYear)->UseManualTime();

void BM_ReadByView(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  Files files(slots);
  nnt_handle_readfast *rf = nnt_acquire_readfast(files.h);
  compare(
      state, slots > 1000 ? 1 : 16, goal(state), [] {},
      [&] {
        for (size_t i = 0; i < slots; ++i) nnt_get_fast(rf, kEpoch + i * kPeriod, &files.values[i]);
        benchmark::DoNotOptimize(files.values.data());
      },
      [&] { files.rrd.fetch(slots); });
  nnt_release_readfast(rf);
}
BENCHMARK(BM_ReadByView)->Arg(kDay)->Arg(kYear)->UseManualTime();

void BM_ReadRangeByView(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  Files files(slots);
  nnt_handle_readfast *rf = nnt_acquire_readfast(files.h);
  compare(
      state, slots > 1000 ? 1 : 16, goal(state), [] {},
      [&] {
        nnt_get_fast_range(rf, kEpoch, static_cast<int>(slots), files.values.data());
        benchmark::DoNotOptimize(files.values.data());
      },
      [&] { files.rrd.fetch(slots); });
  nnt_release_readfast(rf);
}
BENCHMARK(BM_ReadRangeByView)->Arg(kDay)->Arg(kYear)->UseManualTime();

}  // namespace
