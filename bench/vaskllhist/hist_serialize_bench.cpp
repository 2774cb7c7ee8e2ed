// Writing and reading the stored form, next to copying a histogram; the bytes it takes are counted.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "vaskllhist/vaskllhist.h"

namespace {

histogram_t *make() {
  std::mt19937_64 random(7);
  histogram_t *h = hist_alloc();
  for (int i = 0; i < 100; ++i) hist_insert_scaled(h, 10 + i % 90, i / 90, 1 + random() % 1000);
  return h;
}

void write_and_read(benchmark::State &state) {
  histogram_t *h = make();
  histogram_t *copy = hist_alloc();
  std::vector<char> bytes(hist_serialized_size(h));
  for (auto _ : state) {
    hist_serialize(h, bytes.data(), bytes.size());
    if (hist_deserialize(copy, bytes.data(), bytes.size()) < 0) state.SkipWithError("refused");
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
  hist_free(copy);
  hist_free(h);
}
BENCHMARK(write_and_read);

void write_and_read_text(benchmark::State &state) {
  histogram_t *h = make();
  histogram_t *copy = hist_alloc();
  std::vector<char> text(hist_serialized_b64_size(h));
  for (auto _ : state) {
    hist_serialize_b64(h, text.data(), text.size());
    if (hist_deserialize_b64(copy, text.data(), text.size()) < 0) state.SkipWithError("refused");
  }
  state.counters["bytes"] = static_cast<double>(text.size());
  hist_free(copy);
  hist_free(h);
}
BENCHMARK(write_and_read_text);

void clone(benchmark::State &state) {
  histogram_t *h = make();
  for (auto _ : state) hist_free(hist_clone(h));
  state.counters["bytes"] = 100.0 * 10;
  hist_free(h);
}
BENCHMARK(clone);

}  // namespace
