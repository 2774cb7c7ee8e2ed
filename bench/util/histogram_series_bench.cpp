// A day of histograms, one a minute: what the series' image takes next to general compressors on the same histograms,
// and what writing and reading it costs next to what cannot be avoided: compressing the image, and copying the
// histograms that are decoded.
//
// Compressing is one call of the LZ4 library for the same frame of the same image, into a buffer that is there. Copying
// makes a new histogram of every decoded one, and frees them, as whoever reads a series does; that of the columns alone
// moves codes and counts into one buffer that is there, so it is what touching all of the histograms takes.
//
// `per_minute` is how many values a cumulative histogram gets in addition to those of the one before; 0 is a day of
// histograms of independent values instead, where hardly any count stays as it was, and differences do not pay.
#include <benchmark/benchmark.h>
#include <lz4frame.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "liborlith/util/histogram_series.h"
#include "liborlith/util/histogram_series_columns_private.h"
#include "ruxo/lz4f.h"
#if __has_include(<zstd.h>)
#include <zstd.h>
#define HAS_ZSTD 1
#endif

namespace {

constexpr uint32_t kMinuteMs = 60000;
constexpr uint32_t kMinutes = 1440;
constexpr uint32_t kDayMs = kMinutes * kMinuteMs;

struct SeriesFree {
  void operator()(histogram_series_t *hs) const { histogram_series_free(hs); }
};
using Series = std::unique_ptr<histogram_series_t, SeriesFree>;

// Latencies in seconds: log-normal around 20 ms, about 100 buckets.
Series make_day(int64_t per_minute) {
  std::mt19937 random(1);
  std::lognormal_distribution<double> latency(std::log(0.02), 0.6);
  Series hs(histogram_series_alloc(0, kDayMs));
  histogram_t *h = hist_alloc();
  for (uint32_t minute = 0; minute < kMinutes; ++minute) {
    if (per_minute == 0) hist_clear(h);
    const int64_t values = minute == 0 || per_minute == 0 ? 2000 : per_minute;
    for (int64_t i = 0; i < values; ++i) hist_insert(h, latency(random), 1);
    histogram_series_add(hs.get(), uint64_t{minute} * kMinuteMs, h, ruxo_false);
  }
  hist_free(h);
  return hs;
}

std::vector<char> serialized(histogram_series_t *hs) {
  std::vector<char> image(histogram_series_serialize_maxsize(hs));
  size_t size = 0;
  if (!histogram_series_serialize(hs, image.data(), image.size(), &size)) abort();
  image.resize(size);
  return image;
}

// The histograms' own stored forms, one after another.
std::vector<char> plain(const histogram_series_t *hs) {
  std::vector<char> bytes;
  for (uint32_t i = 0; i < hs->n_entries; ++i) {
    const size_t at = bytes.size();
    bytes.resize(at + hist_serialized_size(hs->histograms[i]));
    hist_serialize(hs->histograms[i], bytes.data() + at, bytes.size() - at);
  }
  return bytes;
}

std::vector<char> uncompressed(const std::vector<char> &image) {
  void *bytes = nullptr;
  size_t len = 0;
  if (ruxo_lz4f_decompress(image.data(), image.size(), HISTOGRAM_SERIES_MAX_IMAGE_BYTES, &bytes, &len) !=
      RUXO_LZ4F_OK) {
    abort();
  }
  std::vector<char> result(static_cast<char *>(bytes), static_cast<char *>(bytes) + len);
  free(bytes);
  return result;
}

size_t lz4_size(const std::vector<char> &bytes) {
  std::vector<char> out(ruxo_lz4f_compress_bound(bytes.size()));
  return ruxo_lz4f_compress(bytes.data(), bytes.size(), out.data(), out.size());
}

#ifdef HAS_ZSTD
size_t zstd_size(const std::vector<char> &bytes) {
  std::vector<char> out(ZSTD_compressBound(bytes.size()));
  return ZSTD_compress(out.data(), out.size(), bytes.data(), bytes.size(), 1);
}
#endif

// ---- Sizes, as counters: bytes, and the ratios to the neighbours

void BM_Size(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> histograms = plain(hs.get());
  std::vector<char> image;
  for (auto _ : state) image = serialized(hs.get());
  const auto size = static_cast<double>(image.size());
  state.counters["image"] = size;
  state.counters["uncompressed"] = static_cast<double>(uncompressed(image).size());
  state.counters["plain"] = static_cast<double>(histograms.size());
  state.counters["to_lz4"] = size / static_cast<double>(lz4_size(histograms));
#ifdef HAS_ZSTD
  state.counters["to_zstd1"] = size / static_cast<double>(zstd_size(histograms));
#endif
}
BENCHMARK(BM_Size)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0)->Iterations(1);

// ---- Writing

void BM_CompressTheImage(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = uncompressed(serialized(hs.get()));
  LZ4F_preferences_t preferences{};
  preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
  std::vector<char> out(LZ4F_compressFrameBound(image.size(), &preferences));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        LZ4F_compressFrame(out.data(), out.size(), image.data(), image.size(), &preferences));
  }
}
BENCHMARK(BM_CompressTheImage)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

// The least that is read to write a series: the codes and the counts of any two neighbours, with nothing made of it.
void BM_CompareTheColumns(benchmark::State &state) {
  typedef uint64_t Counts __attribute__((vector_size(16)));
  const Series hs = make_day(state.range(0));
  for (auto _ : state) {
    Counts differ = {};
    size_t same = 0;
    for (uint32_t i = 1; i < kMinutes; ++i) {
      const histogram_t *h = hs->histograms[i];
      const histogram_t *prior = hs->histograms[i - 1];
      const auto n = static_cast<size_t>(std::min(hist_bucket_count(h), hist_bucket_count(prior)));
      same += memcmp(hist_codes(h), hist_codes(prior), n * sizeof(hist_code_t)) == 0;
      const uint64_t *counts = hist_counts(h);
      const uint64_t *prior_counts = hist_counts(prior);
      constexpr size_t kAtOnce = sizeof(Counts) / sizeof(uint64_t);
      for (size_t k = 0; k + kAtOnce <= n; k += kAtOnce) {
        Counts now;
        Counts before;
        memcpy(&now, counts + k, sizeof(now));
        memcpy(&before, prior_counts + k, sizeof(before));
        differ |= now ^ before;
      }
    }
    benchmark::DoNotOptimize(differ);
    benchmark::DoNotOptimize(same);
  }
}
BENCHMARK(BM_CompareTheColumns)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

// With the best instructions that the processor has of these and the ones before them.
void serialize(benchmark::State &state, hss::Instructions instructions) {
  hss::limit_instructions(instructions);
  const Series hs = make_day(state.range(0));
  std::vector<char> out(histogram_series_serialize_maxsize(hs.get()));
  size_t size = 0;
  for (auto _ : state) {
    if (!histogram_series_serialize(hs.get(), out.data(), out.size(), &size)) abort();
    benchmark::DoNotOptimize(size);
  }
}
void BM_Serialize(benchmark::State &state) {
  serialize(state, hss::Instructions::avx512);
}
BENCHMARK(BM_Serialize)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);
void BM_SerializeWithAvx2(benchmark::State &state) {
  serialize(state, hss::Instructions::avx2);
}
BENCHMARK(BM_SerializeWithAvx2)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);
void BM_SerializePlain(benchmark::State &state) {
  serialize(state, hss::Instructions::plain);
}
BENCHMARK(BM_SerializePlain)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

// ---- Reading

void BM_CopyTheHistograms(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = serialized(hs.get());
  const Series decoded(histogram_series_deserialize(image.data(), image.size()));
  std::vector<histogram_t *> copies(kMinutes);
  size_t buckets = 0;
  for (uint32_t i = 0; i < kMinutes; ++i) {
    histogram_series_populate(decoded.get(), i);
    buckets += static_cast<size_t>(hist_bucket_count(decoded->histograms[i]));
  }
  for (auto _ : state) {
    for (uint32_t i = 0; i < kMinutes; ++i) copies[i] = hist_clone(decoded->histograms[i]);
    for (histogram_t *copy : copies) hist_free(copy);
  }
  state.counters["buckets"] = static_cast<double>(buckets);
}
BENCHMARK(BM_CopyTheHistograms)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

void BM_CopyTheColumns(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = serialized(hs.get());
  const Series decoded(histogram_series_deserialize(image.data(), image.size()));
  std::vector<hist_code_t> codes(size_t{kMinutes} * 1024);
  std::vector<uint64_t> counts(codes.size());
  for (uint32_t i = 0; i < kMinutes; ++i) histogram_series_populate(decoded.get(), i);
  for (auto _ : state) {
    size_t at = 0;
    for (uint32_t i = 0; i < kMinutes; ++i) {
      const histogram_t *h = decoded->histograms[i];
      const auto n = static_cast<size_t>(hist_bucket_count(h));
      memcpy(codes.data() + at, hist_codes(h), n * sizeof(hist_code_t));
      memcpy(counts.data() + at, hist_counts(h), n * sizeof(uint64_t));
      at += n;
    }
    benchmark::DoNotOptimize(codes.data());
    benchmark::DoNotOptimize(counts.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_CopyTheColumns)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

// Decompresses, decodes every histogram and frees them, as the copies are freed.
void BM_DecodeAll(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = serialized(hs.get());
  for (auto _ : state) {
    const Series read(histogram_series_deserialize(image.data(), image.size()));
    for (uint32_t i = 0; i < kMinutes; ++i) histogram_series_populate(read.get(), i);
    benchmark::DoNotOptimize(read->histograms[kMinutes - 1]);
  }
}
BENCHMARK(BM_DecodeAll)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

void BM_Deserialize(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = serialized(hs.get());
  for (auto _ : state) {
    const Series read(histogram_series_deserialize(image.data(), image.size()));
    benchmark::DoNotOptimize(read->n_entries);
  }
}
BENCHMARK(BM_Deserialize)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

// One entry of each series; `decoded` is how many entries the first look at it decoded.
void BM_FirstLook(benchmark::State &state) {
  const Series hs = make_day(state.range(0));
  const std::vector<char> image = serialized(hs.get());
  std::mt19937 random(2);
  size_t decoded = 0;
  size_t looks = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Series read(histogram_series_deserialize(image.data(), image.size()));
    const auto minute = static_cast<uint32_t>(random() % kMinutes);
    state.ResumeTiming();
    benchmark::DoNotOptimize(histogram_series_at(read.get(), uint64_t{minute} * kMinuteMs));
    state.PauseTiming();
    for (uint32_t i = 0; i < kMinutes; ++i) decoded += read->histograms[i] != HISTOGRAM_SERIES_NOT_DECODED;
    ++looks;
    read.reset();
    state.ResumeTiming();
  }
  state.counters["decoded"] = static_cast<double>(decoded) / static_cast<double>(looks);
}
BENCHMARK(BM_FirstLook)->ArgName("per_minute")->Arg(10)->Arg(60)->Arg(300)->Arg(0);

}  // namespace
