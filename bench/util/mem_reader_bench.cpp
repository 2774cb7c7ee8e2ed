// Cutting a line into its fields with byte readers, next to the same work with memchr and with std::string_view.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <string_view>

#include "liborlith/util/mem_reader.h"

namespace {

// The shape of an ingestion line: nine fields.
const std::string line =
    "M\t1700000000.000\tc_1_0::httptrap`9c4b8c5e-0d4a-4f0e-9d0a-0a1b2c3d4e5f\t"
    "requests|ST[host:web-17.example.org,service:checkout,zone:eu-west-1b]\tL\t123456789\t"
    "some more text that nobody looks at\tand yet more\tend";

size_t check(benchmark::State &state, size_t fields) {
  if (fields != 9) state.SkipWithError("a field is missing");
  return fields;
}

void BM_FieldsByMemchr(benchmark::State &state) {
  for (auto _ : state) {
    const char *cursor = line.data();
    const char *const end = cursor + line.size();
    size_t fields = 1, bytes = 0;
    while (const void *hit = memchr(cursor, '\t', static_cast<size_t>(end - cursor))) {
      const char *tab = static_cast<const char *>(hit);
      bytes += static_cast<size_t>(tab - cursor);
      cursor = tab + 1;
      ++fields;
    }
    benchmark::DoNotOptimize(bytes);
    check(state, fields);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(line.size()));
}
BENCHMARK(BM_FieldsByMemchr);

void BM_FieldsByStringView(benchmark::State &state) {
  for (auto _ : state) {
    std::string_view rest = line;
    size_t fields = 1, bytes = 0;
    for (size_t tab; (tab = rest.find('\t')) != std::string_view::npos; ++fields) {
      bytes += rest.substr(0, tab).size();
      rest.remove_prefix(tab + 1);
    }
    benchmark::DoNotOptimize(bytes);
    check(state, fields);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(line.size()));
}
BENCHMARK(BM_FieldsByStringView);

void BM_FieldsByMemReader(benchmark::State &state) {
  for (auto _ : state) {
    mem_reader_t cursor, later, field;
    mem_reader_init_mem(&cursor, line.data(), line.size());
    size_t fields = 1, bytes = 0;
    while (mem_reader_find_pos_after_sep(&cursor, '\t', &later) <= mem_reader_get_buffer_size(&cursor)) {
      mem_reader_truncate_to(&cursor, &later, 1, &field);
      bytes += mem_reader_get_buffer_size(&field);
      cursor = later;
      ++fields;
    }
    benchmark::DoNotOptimize(bytes);
    check(state, fields);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(line.size()));
}
BENCHMARK(BM_FieldsByMemReader);

void BM_LastSeparatorByStringView(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::string_view(line).rfind('|'));
}
BENCHMARK(BM_LastSeparatorByStringView);

void BM_LastSeparatorByMemReader(benchmark::State &state) {
  mem_reader_t input, output;
  mem_reader_init_mem(&input, line.data(), line.size());
  for (auto _ : state) benchmark::DoNotOptimize(mem_reader_find_pos_after_sep_from_end(&input, '|', &output));
}
BENCHMARK(BM_LastSeparatorByMemReader);

}  // namespace
