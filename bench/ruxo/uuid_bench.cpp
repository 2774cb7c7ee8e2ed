// UUID text, parsed once for every ingested line: goal below 20 ns. Neighbours: the system library, and
// copying the same 36 characters.
#include <benchmark/benchmark.h>
#include <string.h>
#include <uuid/uuid.h>

#include <random>
#include <string>
#include <vector>

#include "ruxo/uuid.h"

namespace {

constexpr size_t kTexts = 1024;  // 36 KB: in the first-level cache or just outside, as lines are

const std::vector<std::string> &texts() {
  static const std::vector<std::string> made = [] {
    std::mt19937 random(1);
    std::vector<std::string> result;
    for (size_t i = 0; i < kTexts; ++i) {
      ruxo_uuid_t uuid;
      for (uint8_t &byte : uuid) byte = static_cast<uint8_t>(random());
      char text[RUXO_UUID_STRING_SIZE];
      ruxo_uuid_unparse_lower(uuid, text);
      result.emplace_back(text);
    }
    return result;
  }();
  return made;
}

void parse_view(benchmark::State &state) {
  size_t i = 0;
  ruxo_uuid_t out;
  for (auto _ : state) {
    const std::string &text = texts()[i++ % kTexts];
    benchmark::DoNotOptimize(ruxo_uuid_parse_n(text.data(), text.size(), out));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(parse_view);

void parse_text(benchmark::State &state) {
  size_t i = 0;
  ruxo_uuid_t out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ruxo_uuid_parse(texts()[i++ % kTexts].c_str(), out));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(parse_text);

void neighbour_system_library_parse(benchmark::State &state) {
  size_t i = 0;
  uuid_t out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(uuid_parse(texts()[i++ % kTexts].c_str(), out));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(neighbour_system_library_parse);

void neighbour_copy_36_bytes(benchmark::State &state) {
  size_t i = 0;
  char out[36];
  for (auto _ : state) {
    memcpy(out, texts()[i++ % kTexts].data(), sizeof out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(neighbour_copy_36_bytes);

void unparse_lower(benchmark::State &state) {
  ruxo_uuid_t uuid = {1, 2, 3};
  char out[RUXO_UUID_STRING_SIZE];
  for (auto _ : state) {
    ++uuid[0];
    ruxo_uuid_unparse_lower(uuid, out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(unparse_lower);

void neighbour_system_library_unparse(benchmark::State &state) {
  uuid_t uuid = {1, 2, 3};
  char out[37];
  for (auto _ : state) {
    ++uuid[0];
    uuid_unparse_lower(uuid, out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(neighbour_system_library_unparse);

}  // namespace
