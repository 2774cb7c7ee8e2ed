// LZ4 frames of the size that histogram series have, and of 1 MiB. Neighbours: a copy of the content, and the
// compression library called with everything at hand: a buffer of the right size, a context that is made already, and
// (compressing) no checksum of the content.
#include <benchmark/benchmark.h>
#include <lz4frame.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <random>
#include <string>

#include "ruxo/lz4f.h"

namespace {

// Runs of up to 16 equal bytes.
std::string content(size_t len) {
  std::mt19937 random(1);
  std::string bytes;
  while (bytes.size() < len) bytes.append(1 + random() % 16, static_cast<char>(random() % 256));
  bytes.resize(len);
  return bytes;
}

std::string frame_of(const std::string &bytes) {
  std::string frame(ruxo_lz4f_compress_bound(bytes.size()), '\0');
  frame.resize(ruxo_lz4f_compress(bytes.data(), bytes.size(), frame.data(), frame.size()));
  return frame;
}

void set_bytes(benchmark::State &state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void compress(benchmark::State &state) {
  const std::string bytes = content(static_cast<size_t>(state.range(0)));
  std::string frame(ruxo_lz4f_compress_bound(bytes.size()), '\0');
  for (auto _ : state) {
    benchmark::DoNotOptimize(ruxo_lz4f_compress(bytes.data(), bytes.size(), frame.data(), frame.size()));
    benchmark::ClobberMemory();
  }
  set_bytes(state);
}
BENCHMARK(compress)->Arg(4 << 10)->Arg(1 << 20);

void neighbour_library_compress(benchmark::State &state) {
  const std::string bytes = content(static_cast<size_t>(state.range(0)));
  std::string frame(ruxo_lz4f_compress_bound(bytes.size()), '\0');
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        LZ4F_compressFrame(frame.data(), frame.size(), bytes.data(), bytes.size(), nullptr));
    benchmark::ClobberMemory();
  }
  set_bytes(state);
}
BENCHMARK(neighbour_library_compress)->Arg(4 << 10)->Arg(1 << 20);

void decompress(benchmark::State &state) {
  const std::string frame = frame_of(content(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    void *out;
    size_t len;
    benchmark::DoNotOptimize(ruxo_lz4f_decompress(frame.data(), frame.size(), 64 << 20, &out, &len));
    free(out);
  }
  set_bytes(state);
}
BENCHMARK(decompress)->Arg(4 << 10)->Arg(1 << 20);

void neighbour_library_decompress(benchmark::State &state) {
  const std::string frame = frame_of(content(static_cast<size_t>(state.range(0))));
  std::string out(static_cast<size_t>(state.range(0)), '\0');
  LZ4F_dctx *context = nullptr;
  if (LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION))) abort();
  for (auto _ : state) {
    size_t made = out.size(), used = frame.size();
    benchmark::DoNotOptimize(LZ4F_decompress(context, out.data(), &made, frame.data(), &used, nullptr));
    benchmark::ClobberMemory();
  }
  LZ4F_freeDecompressionContext(context);
  set_bytes(state);
}
BENCHMARK(neighbour_library_decompress)->Arg(4 << 10)->Arg(1 << 20);

void neighbour_copy(benchmark::State &state) {
  const std::string bytes = content(static_cast<size_t>(state.range(0)));
  std::string out(bytes.size(), '\0');
  for (auto _ : state) {
    memcpy(out.data(), bytes.data(), bytes.size());
    benchmark::ClobberMemory();
  }
  set_bytes(state);
}
BENCHMARK(neighbour_copy)->Arg(4 << 10)->Arg(1 << 20);

}  // namespace
