// A call on a dead stream, which every hot path makes, beside an empty loop; a line written to /dev/null,
// beside formatting its message alone and beside the sink library of the distribution writing a line of the
// same kind.
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>

#include "ruxo/log.h"

namespace {

void log_dead_stream(benchmark::State &state) {
  int i = 0;
  for (auto _ : state) {
    ruxo_log(ruxo_debug, "line %d\n", ++i);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(log_dead_stream);

void neighbour_empty_loop(benchmark::State &state) {
  for (auto _ : state) benchmark::ClobberMemory();
}
BENCHMARK(neighbour_empty_loop);

ruxo_log_stream_t null_stream() {
  const ruxo_log_stream_t ls = ruxo_log_stream_new("bench/null");
  static const ruxo_log_outlet_t outlet = ruxo_log_outlet_file("/dev/null", false);
  ruxo_log_stream_add_outlet(ls, outlet);
  return ls;
}

// Includes the writing: on few cores, what a caller is spared the writer thread has to do.
void log_line_asynchronous(benchmark::State &state) {
  const ruxo_log_stream_t ls = null_stream();
  int i = 0;
  for (auto _ : state) ruxo_log(ls, "line %d of %s\n", ++i, "some text");
  ruxo_log_flush();
}
BENCHMARK(log_line_asynchronous)->UseRealTime();

void log_line_synchronous(benchmark::State &state) {
  const ruxo_log_stream_t ls = null_stream();
  ruxo_log_go_synch();
  int i = 0;
  for (auto _ : state) ruxo_log(ls, "line %d of %s\n", ++i, "some text");
  ruxo_log_go_asynch();
}
BENCHMARK(log_line_synchronous)->UseRealTime();

void neighbour_format_only(benchmark::State &state) {
  int i = 0;
  char text[128];
  for (auto _ : state) {
    benchmark::DoNotOptimize(snprintf(text, sizeof text, "line %d of %s\n", ++i, "some text"));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(neighbour_format_only);

void neighbour_sink_library_asynchronous(benchmark::State &state) {
  const auto logger = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>("asynchronous", "/dev/null");
  int i = 0;
  for (auto _ : state) logger->info("line {} of {}", ++i, "some text");
  logger->flush();
  spdlog::drop("asynchronous");
}
BENCHMARK(neighbour_sink_library_asynchronous)->UseRealTime();

void neighbour_sink_library_synchronous(benchmark::State &state) {
  const auto logger = spdlog::basic_logger_mt("synchronous", "/dev/null");
  logger->flush_on(spdlog::level::info);  // as our lines are: written when the call returns
  int i = 0;
  for (auto _ : state) logger->info("line {} of {}", ++i, "some text");
  spdlog::drop("synchronous");
}
BENCHMARK(neighbour_sink_library_synchronous)->UseRealTime();

}  // namespace
