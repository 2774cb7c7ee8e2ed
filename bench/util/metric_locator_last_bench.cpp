// Updates of last values next to what bounds them: the locator's own spin lock, taken and released around two stores.
// Each update is of a later time, so that none returns early; with threads, all work on one locator.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"

namespace {

orlith_metric_locator_t *make_locator() {
  const uint8_t uuid[16] = {};
  return orlith_metric_locator_create(uuid, nullptr, METRIC_TYPE_ANY);
}

orlith_metric_locator_t *shared_locator() {
  static orlith_metric_locator_t *const loc = make_locator();
  return loc;
}

// Times that rise: counted by the one thread there is, or else from the clock that all threads share, since a thread
// that counts for itself falls behind the others whenever it is not running, and its updates would be stale.
class RisingTime {
 public:
  explicit RisingTime(const benchmark::State &state) : counts_(state.threads() == 1) {}
  uint64_t next() { return counts_ ? ++now_ : clock_ticks(); }

 private:
  static uint64_t clock_ticks() {
#if defined(__x86_64__)
    return __builtin_ia32_rdtsc();
#else
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
  }

  bool counts_;
  uint64_t now_ = 0;
};

// The neighbour.
void BM_LockAroundTwoStores(benchmark::State &state) {
  static ck_spinlock_fas_t lock;
  static uint64_t stored[2];
  RisingTime time(state);
  for (auto _ : state) {
    const uint64_t now = time.next();
    const last_update_lock::Guard guard(&lock);
    benchmark::DoNotOptimize(stored[0] = now);
    benchmark::DoNotOptimize(stored[1] = now);
  }
}
BENCHMARK(BM_LockAroundTwoStores)->Threads(1)->Threads(4)->UseRealTime();

void BM_UpdateNumeric(benchmark::State &state) {
  static orlith_metric_locator_t *loc;
  if (state.thread_index() == 0) loc = make_locator();
  RisingTime time(state);
  orlith_metric_locator_numeric_value_t value;
  for (auto _ : state) {
    value.v_uint64 = time.next();
    orlith_metric_locator_update_numeric(loc, value.v_uint64, 'L', &value, ruxo_true);
  }
  if (state.thread_index() == 0) orlith_metric_locator_deref(loc);
}
BENCHMARK(BM_UpdateNumeric)->Threads(1)->Threads(4)->UseRealTime();

// Found out without a lock.
void BM_UpdateNumericStale(benchmark::State &state) {
  orlith_metric_locator_t *loc = shared_locator();
  orlith_metric_locator_numeric_value_t value = {};
  for (uint64_t i = 1; i <= 2; ++i) orlith_metric_locator_update_numeric(loc, i, 'L', &value, ruxo_true);
  for (auto _ : state) orlith_metric_locator_update_numeric(loc, 1, 'L', &value, ruxo_true);
}
BENCHMARK(BM_UpdateNumericStale)->Threads(1)->Threads(4)->UseRealTime();

void BM_LastTwoNumeric(benchmark::State &state) {
  orlith_metric_locator_t *loc = shared_locator();
  uint64_t whence_ms[2];
  uint8_t type[2];
  orlith_metric_locator_numeric_value_t value[2] = {};
  orlith_metric_locator_update_numeric(loc, 1, 'L', value, ruxo_true);
  for (auto _ : state)
    benchmark::DoNotOptimize(orlith_metric_locator_last2_numeric(loc, whence_ms, type, value));
}
BENCHMARK(BM_LastTwoNumeric);

void BM_UpdateText(benchmark::State &state) {
  orlith_metric_locator_t *loc = shared_locator();
  RisingTime time(state);
  for (auto _ : state)
    orlith_metric_locator_update_text(loc, time.next(), "a text of some length", ruxo_true);
}
BENCHMARK(BM_UpdateText);

}  // namespace
