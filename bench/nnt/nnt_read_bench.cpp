// Reading a day of slots and a year of them, through a handle and through a view, next to fetching as many rows of a
// round-robin file, and next to what bounds them: the bare read of the records, and copying as many values in memory.
#include <unistd.h>

#include <cstring>

#include "bench/nnt/nnt_bench_support.h"

namespace {

using namespace nnt_bench;

constexpr int64_t kDay = 288;
constexpr int64_t kYear = 105120;

void read_bare(const nnt_handle *h, std::string *records) {
  const ssize_t got = pread(h->fd, records->data(), records->size(), 16);
  require(got == static_cast<ssize_t>(records->size()), "pread");
}

#if NNT_BENCH_HAS_RRD
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

// The limit of reading by handle: only the bytes are read, and nothing is made of them.
void BM_BareReadByHandle(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  Files files(slots);
  std::string records(slots * 32, '\0');
  compare(
      state, slots > 1000 ? 1 : 16, goal(state), [] {}, [&] { read_bare(files.h, &records); },
      [&] { files.rrd.fetch(slots); });
}
BENCHMARK(BM_BareReadByHandle)->Arg(kDay)->Arg(kYear)->UseManualTime();

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

#endif

void BM_ReadByHandleNextToPread(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  TempDir dir;
  nnt_handle *h = new_file(dir, "ours", slots);
  std::vector<nnt_multitype> values(slots);
  std::string records(slots * 32, '\0');
  compare(
      state, slots > 1000 ? 1 : 16, 0, [] {},
      [&] {
        const int count = static_cast<int>(slots);
        require(nnt_get_range(h, kEpoch, count, values.data()) == count, "nnt_get_range");
      },
      [&] { read_bare(h, &records); });
  nnt_close(h);
}
BENCHMARK(BM_ReadByHandleNextToPread)->Arg(kDay)->Arg(kYear)->UseManualTime();

void BM_ReadRangeByViewNextToMemcpy(benchmark::State &state) {
  const size_t slots = static_cast<size_t>(state.range(0));
  TempDir dir;
  nnt_handle *h = new_file(dir, "ours", slots);
  nnt_handle_readfast *rf = nnt_acquire_readfast(h);
  std::vector<nnt_multitype> values(slots), copies(slots);
  compare(
      state, slots > 1000 ? 1 : 16, 0, [] {},
      [&] {
        nnt_get_fast_range(rf, kEpoch, static_cast<int>(slots), values.data());
        benchmark::DoNotOptimize(values.data());
      },
      [&] {
        memcpy(copies.data(), values.data(), slots * sizeof(nnt_multitype));
        benchmark::ClobberMemory();
      });
  nnt_release_readfast(rf);
  nnt_close(h);
}
BENCHMARK(BM_ReadRangeByViewNextToMemcpy)->Arg(kDay)->Arg(kYear)->UseManualTime();

}  // namespace
