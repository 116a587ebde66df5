// The log frame: a statement that the level gate filters out (it still
// formats the time), one that is written to the default log file, and the
// time string alone.

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "log_frame.h"

namespace {

void filtered_statement(benchmark::State &state) {
  int64_t count = 0;
  for (auto _ : state) LOG(debug, "filtered statement %lld\n", (long long)++count);
  state.SetItemsProcessed(state.iterations());
}

void written_statement(benchmark::State &state) {
  int64_t count = 0;
  for (auto _ : state) LOG(info, "written statement %lld\n", (long long)++count);
  state.SetItemsProcessed(state.iterations());
}

void time_string(benchmark::State &state) {
  char text[LOG_TIME_BUFFER_SIZE];
  for (auto _ : state) {
    benchmark::DoNotOptimize(log_format_time(text));
    benchmark::ClobberMemory();
  }
}

}  // namespace

BENCHMARK(filtered_statement);
BENCHMARK(written_statement);
BENCHMARK(time_string);

int main(int argc, char **argv) {
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  // The first statement registers the default destination; the benchmarks
  // measure the statements that follow.
  LOG(info, "log frame benchmark\n");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
