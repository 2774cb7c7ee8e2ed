// Writing slots next to a bare write of as many bytes, and next to updating a round-robin file. A bare write does not
// touch the values; what it costs to touch them at all is measured as well, and bounds the first ratio from below.
#include <unistd.h>

#include <cstring>

#include "bench/nnt/nnt_bench_support.h"

namespace {

using namespace nnt_bench;

constexpr size_t kSlots = 20000;

// Moves through a file of kSlots slots, `step` at a time.
class Cursor {
 public:
  explicit Cursor(size_t step) : step_(step) {}
  size_t next() {
    slot_ = slot_ + 2 * step_ <= kSlots ? slot_ + step_ : 0;
    return slot_;
  }

 private:
  size_t step_;
  size_t slot_ = 0;
};

void put_next(nnt_handle *h, Cursor *at, const std::vector<nnt_multitype> &values) {
  const uint64_t whence = kEpoch + at->next() * kPeriod;
  const int count = static_cast<int>(values.size());
  const int written =
      count == 1 ? nnt_put(h, whence, values.data()) : nnt_put_range(h, whence, count, values.data());
  require(written == count, "nnt_put");
}

void write_next(nnt_handle *h, Cursor *at, const std::string &bytes) {
  const off_t offset = static_cast<off_t>(16 + 32 * at->next());
  require(pwrite(h->fd, bytes.data(), bytes.size(), offset) > 0, "pwrite");
}

void BM_PutNextToPwrite(benchmark::State &state) {
  const size_t count = static_cast<size_t>(state.range(0));
  TempDir dir;
  nnt_handle *h = new_file(dir, "ours", kSlots);
  nnt_handle *other = new_file(dir, "bare", kSlots);
  const std::vector<nnt_multitype> values = samples(count);
  const std::string bytes(count * 32, 'x');
  Cursor ours(count), bare(count);
  compare(
      state, count == 1 ? 64 : 8, count == 1 ? 1.15 : 1.3, [] {}, [&] { put_next(h, &ours, values); },
      [&] { write_next(other, &bare, bytes); });
  nnt_close(h);
  nnt_close(other);
}
BENCHMARK(BM_PutNextToPwrite)->Arg(1)->Arg(1000)->UseManualTime();

// The limit: half of each value is copied as it is in place of making a record of it.
void BM_CopyAndPwriteNextToPwrite(benchmark::State &state) {
  const size_t count = static_cast<size_t>(state.range(0));
  TempDir dir;
  nnt_handle *h = new_file(dir, "copied", kSlots);
  nnt_handle *other = new_file(dir, "bare", kSlots);
  const std::vector<nnt_multitype> values = samples(count);
  const std::string bytes(count * 32, 'x');
  std::string halves(count * 32, 'x');
  Cursor copied(count), bare(count);
  compare(
      state, count == 1 ? 64 : 8, 0, [] {},
      [&] {
        for (size_t i = 0; i < count; ++i) memcpy(&halves[32 * i], &values[i], 32);
        write_next(h, &copied, halves);
      },
      [&] { write_next(other, &bare, bytes); });
  nnt_close(h);
  nnt_close(other);
}
BENCHMARK(BM_CopyAndPwriteNextToPwrite)->Arg(1)->Arg(1000)->UseManualTime();

#if NNT_BENCH_HAS_RRD
void BM_PutNextToRrdUpdate(benchmark::State &state) {
  const size_t count = static_cast<size_t>(state.range(0));
  const int batch = count == 1 ? 16 : 2;
  TempDir dir;
  nnt_handle *h = new_file(dir, "ours", kSlots);
  RrdFile rrd(dir, kSlots);
  rrd.fill(kSlots);
  const std::vector<nnt_multitype> values = samples(count);
  Cursor ours(count);
  compare(
      state, batch, count == 1 ? 0.045 : 0.025, [&] { rrd.prepare(count * static_cast<size_t>(batch)); },
      [&] { put_next(h, &ours, values); }, [&] { rrd.update(static_cast<int>(count)); });
  nnt_close(h);
}
BENCHMARK(BM_PutNextToRrdUpdate)->Arg(1)->Arg(1000)->UseManualTime();
#endif

}  // namespace
