// Packed record streams of 8 fields, written and read, next to a general compressor at its fastest level on the same
// records, and to a plain copy of them.
//
//   host/...       four minutes of a busy host, a record a second, as `orlith collect` read it (host_series.txt)
//   synthetic/...  a clock that ticks evenly, counters, a state that seldom changes, gauges that wave, walk and jump
//   coarse/...     the same with gauges in steps of a quarter: few different values, which come back often and far
//                  apart. A compressor that remembers them is at its best here, and a packed stream at its worst: its
//                  size is no goal
//
// `ratio` is the packed size over the compressor's; times are for a whole stream of records, `per_field` for one
// field of it. Compare times with the neighbour of the same records in the same run.
#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "liborlith/util/cfssz.h"
#if __has_include(<zstd.h>)
#include <zstd.h>
#define HAS_ZSTD 1
#endif

namespace {

constexpr size_t kFields = 8;
constexpr size_t kRecords = 4096;

// The bits of each field.
using Sampled = std::array<uint64_t, kFields>;

struct Free {
  void operator()(void *p) const { free(p); }
};

using Definition = std::unique_ptr<cfssz_definition, Free>;

size_t encode(cfssz_definition *def, const std::vector<Sampled> &records, std::vector<uint8_t> &stream) {
  const std::unique_ptr<cfssz_state, Free> state(cfssz_enc_state_alloc(def));
  for (const Sampled &record : records)
    if (cfssz_enc_state_add(state.get(), stream.data(), stream.size(), &record) != 0) abort();
  return cfssz_enc_state_finalize(state.get(), stream.data(), stream.size());
}

std::vector<uint8_t> room_for(const std::vector<Sampled> &records) {
  return std::vector<uint8_t>(64 + records.size() * (sizeof(Sampled) + 2 * kFields));
}

struct Data {
  std::vector<Sampled> records;
  std::array<bool, kFields> is_double{};

  void set(size_t field, double value) { records.back()[field] = std::bit_cast<uint64_t>(value); }

  // Each field in the encoding that takes least, as whoever defines a stream would choose.
  Definition definition() const {
    cfssz_field fields[kFields] = {};
    const cfssz_field *list[kFields + 1] = {};
    for (size_t i = 0; i < kFields; ++i) {
      fields[i] = field(i, CFSSZ_DELTADELTA_VARBIT);
      const cfssz_field other = field(i, CFSSZ_XOR_VARBIT);
      if (xor_comes_back(i) && bytes_of(other) < bytes_of(fields[i])) fields[i] = other;
      list[i] = &fields[i];
    }
    return Definition(cfssz_compile_definition(0xbe4c, list));
  }

 private:
  cfssz_field field(size_t i, cfssz_field_encoding encoding) const {
    return {i * 8, 0, 0, is_double[i] ? CFSSZ_DOUBLE : CFSSZ_INT64, encoding};
  }
  // Three trailing zeros do not.
  bool xor_comes_back(size_t i) const {
    for (size_t n = 1; n < records.size(); ++n)
      if (std::countr_zero(records[n][i] ^ records[n - 1][i]) == 3) return false;
    return true;
  }
  size_t bytes_of(const cfssz_field &field) const {
    const cfssz_field *list[] = {&field, nullptr};
    const Definition def(cfssz_compile_definition(0, list));
    std::vector<uint8_t> stream = room_for(records);
    return encode(def.get(), records, stream);
  }
};

const Data &host() {
  static const Data data = [] {
    Data read;
    read.is_double[kFields - 1] = true;
    std::ifstream file(ORLITH_HOST_SERIES);
    file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');  // what the columns are
    Sampled record;
    double load;
    const auto next = [&] {
      for (size_t i = 0; i < kFields - 1; ++i) file >> record[i];
      return static_cast<bool>(file >> load);
    };
    while (next()) {
      read.records.push_back(record);
      read.set(kFields - 1, load);
    }
    if (read.records.size() < 2) abort();
    return read;
  }();
  return data;
}

// `step` is what gauges are rounded to; 0 for as many digits as they have.
Data made_up(double step) {
  std::mt19937_64 random(1);
  std::normal_distribution<double> noise;
  const auto rounded = [step](double value) { return step == 0 ? value : std::round(value / step) * step; };
  Data data;
  data.is_double = {false, false, false, false, true, true, true, true};
  Sampled record = {1700000000000, 0, 1000000, 3};
  double walk = 50, jump = 0;
  for (size_t n = 0; n < kRecords; ++n) {
    record[0] += 1000;
    record[1] += 150 + random() % 20;
    record[2] += random() % 5000;
    if (random() % 100 == 0) record[3] = random() % 5;
    data.records.push_back(record);
    data.set(4, rounded(12 * std::sin(static_cast<double>(n) / 50)));
    data.set(5, walk = rounded(walk + noise(random)));
    data.set(6, rounded(20 + noise(random)));
    if (random() % 10 == 0) jump = static_cast<double>(random() % 4096) * 4096;
    data.set(7, jump);
  }
  return data;
}

const Data &synthetic() {
  static const Data data = made_up(0);
  return data;
}

const Data &coarse() {
  static const Data data = made_up(0.25);
  return data;
}

using Source = const Data &(*)();

void set_counters(benchmark::State &state, const std::vector<Sampled> &records) {
  const auto fields = static_cast<double>(records.size() * kFields);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(records.size() * sizeof(Sampled)));
  state.counters["per_field"] =
      benchmark::Counter(fields, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

#if HAS_ZSTD
size_t zstd(const std::vector<Sampled> &records, std::vector<uint8_t> &out) {
  static ZSTD_CCtx *context = ZSTD_createCCtx();
  return ZSTD_compressCCtx(context, out.data(), out.size(), records.data(), records.size() * sizeof(Sampled),
                           1);
}
#endif

void encode_stream(benchmark::State &state, Source source) {
  const std::vector<Sampled> &records = source().records;
  const auto def = source().definition();
  std::vector<uint8_t> stream = room_for(records);
  size_t len = 0;
  for (auto _ : state) {
    len = encode(def.get(), records, stream);
    benchmark::ClobberMemory();
  }
  set_counters(state, records);
  state.counters["bytes"] = static_cast<double>(len);
#if HAS_ZSTD
  std::vector<uint8_t> other(ZSTD_compressBound(records.size() * sizeof(Sampled)));
  state.counters["ratio"] = static_cast<double>(len) / static_cast<double>(zstd(records, other));
#endif
}
BENCHMARK_CAPTURE(encode_stream, host, host);
BENCHMARK_CAPTURE(encode_stream, synthetic, synthetic);
BENCHMARK_CAPTURE(encode_stream, coarse, coarse);

void decode_stream(benchmark::State &state, Source source) {
  const std::vector<Sampled> &records = source().records;
  const auto def = source().definition();
  std::vector<uint8_t> stream = room_for(records);
  stream.resize(encode(def.get(), records, stream));
  std::vector<Sampled> out(records.size());
  for (auto _ : state) {
    const std::unique_ptr<cfssz_state, Free> dec(
        cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
    for (Sampled &record : out)
      if (cfssz_dec_state_next(dec.get(), stream.data(), stream.size(), &record) <= 0) break;
    benchmark::ClobberMemory();
  }
  if (memcmp(out.data(), records.data(), records.size() * sizeof(Sampled)) != 0)
    state.SkipWithError("the records did not come back");
  set_counters(state, records);
}
BENCHMARK_CAPTURE(decode_stream, host, host);
BENCHMARK_CAPTURE(decode_stream, synthetic, synthetic);
BENCHMARK_CAPTURE(decode_stream, coarse, coarse);

#if HAS_ZSTD
void neighbour_zstd_compress(benchmark::State &state, Source source) {
  const std::vector<Sampled> &records = source().records;
  std::vector<uint8_t> out(ZSTD_compressBound(records.size() * sizeof(Sampled)));
  size_t len = 0;
  for (auto _ : state) {
    len = zstd(records, out);
    benchmark::ClobberMemory();
  }
  set_counters(state, records);
  state.counters["bytes"] = static_cast<double>(len);
}
BENCHMARK_CAPTURE(neighbour_zstd_compress, host, host);
BENCHMARK_CAPTURE(neighbour_zstd_compress, synthetic, synthetic);
BENCHMARK_CAPTURE(neighbour_zstd_compress, coarse, coarse);

void neighbour_zstd_decompress(benchmark::State &state, Source source) {
  const std::vector<Sampled> &records = source().records;
  std::vector<uint8_t> frame(ZSTD_compressBound(records.size() * sizeof(Sampled)));
  frame.resize(zstd(records, frame));
  std::vector<Sampled> out(records.size());
  ZSTD_DCtx *context = ZSTD_createDCtx();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        ZSTD_decompressDCtx(context, out.data(), out.size() * sizeof(Sampled), frame.data(), frame.size()));
    benchmark::ClobberMemory();
  }
  ZSTD_freeDCtx(context);
  set_counters(state, records);
}
BENCHMARK_CAPTURE(neighbour_zstd_decompress, host, host);
BENCHMARK_CAPTURE(neighbour_zstd_decompress, synthetic, synthetic);
BENCHMARK_CAPTURE(neighbour_zstd_decompress, coarse, coarse);
#endif

void neighbour_copy(benchmark::State &state, Source source) {
  const std::vector<Sampled> &records = source().records;
  std::vector<Sampled> out(records.size());
  for (auto _ : state) {
    memcpy(out.data(), records.data(), records.size() * sizeof(Sampled));
    benchmark::ClobberMemory();
  }
  set_counters(state, records);
}
BENCHMARK_CAPTURE(neighbour_copy, host, host);
BENCHMARK_CAPTURE(neighbour_copy, synthetic, synthetic);
BENCHMARK_CAPTURE(neighbour_copy, coarse, coarse);

}  // namespace
