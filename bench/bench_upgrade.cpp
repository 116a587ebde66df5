// tarn_upgrade_check on the watchdog's beat: a trial running and a full
// heartbeat table (64 entries, the service among them), when nothing has
// changed since the last check, so nothing is written; next to reading the
// table alone (its floor) and to a check without an upgrade on trial.
//
// The install root is the sandbox's tmpfs. --log_level=N (default 2, info)
// sets the configured log level: the table read logs one info line.

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "tarn_apphome.h"
#include "tarn_heartbeat.h"
#include "tarn_upgrade.h"

namespace {

constexpr char kInstallRoot[] = "/usr/share/velmora/TARN";
constexpr char kHomeA[] = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";
constexpr char kHomeB[] = "1b2c3d4e-5f6a-4b7c-8d9e-0f1a2b3c4d5e";

bool make_home(const char *name) {
  const std::string flags = std::string(kInstallRoot) + "/" + name + "/config/flags/";
  return tarn_bench::write_text(flags + "flag_operational", "") &&
         tarn_bench::write_text(flags + "flag_operational_backup", "");
}

// 64 entries: this process as the service in slot 0, then 63 workers (the
// sync does not ask whether their pids live).
bool fill_table() {
  std::vector<proc_heartbeat_info_t> entries(PROC_HEARTBEAT_MAX_PROCS);
  std::vector<proc_heartbeat_info_t *> list;
  for (int i = 0; i < PROC_HEARTBEAT_MAX_PROCS; ++i) {
    entries[i].pid = i == 0 ? getpid() : 100000 + i;
    entries[i].interval = 59;
    entries[i].ptype = i == 0 ? PROC_HEARTBEAT_TYPE_SERVICE : 1 + i % 5;
    list.push_back(&entries[i]);
  }
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  return sync_proc_heartbeat_infos(list.data(), list.size()) == 0 &&
         get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS) == PROC_HEARTBEAT_MAX_PROCS;
}

void check_on_trial(benchmark::State &state) {
  tarn_upgrade_verdict_t verdict;
  if (tarn_upgrade_check(&verdict) != 0 || verdict.verdict != TARN_UPGRADE_VERDICT_RUNNING) {
    state.SkipWithError("no trial running");
    return;
  }
  for (auto _ : state) {
    tarn_upgrade_check(&verdict);
    benchmark::DoNotOptimize(verdict);
  }
  if (verdict.verdict != TARN_UPGRADE_VERDICT_RUNNING) state.SkipWithError(verdict.reason);
}

void table_read_floor(benchmark::State &state) {
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  for (auto _ : state) benchmark::DoNotOptimize(get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS));
}

void check_without_trial(benchmark::State &state) {
  const std::string journal = std::string(kInstallRoot) + "/tarn_upgrade.ini";
  const std::string saved = journal + ".saved";
  rename(journal.c_str(), saved.c_str());
  tarn_upgrade_verdict_t verdict;
  for (auto _ : state) {
    tarn_upgrade_check(&verdict);
    benchmark::DoNotOptimize(verdict);
  }
  rename(saved.c_str(), journal.c_str());
}

}  // namespace

BENCHMARK(table_read_floor)->UseRealTime();
BENCHMARK(check_on_trial)->UseRealTime();
BENCHMARK(check_without_trial)->UseRealTime();

int main(int argc, char **argv) {
  const long level = tarn_bench::take_number_flag(argc, argv, "log_level", 2);
  if (!tarn_bench::enter_sandbox_with_log_level((int)level)) return 1;
  const std::string record = std::string(kInstallRoot) + "/tarn_apphome.ini";
  if (!make_home(kHomeA) || !make_home(kHomeB) ||
      !tarn_bench::write_text(record, std::string("[apphome]\napp_home=") + kHomeA + "\n") ||
      proc_heartbeat_init(0) != 0 || !fill_table() ||
      tarn_upgrade_begin(kHomeB, nullptr, TARN_UPGRADE_MAX_TRIAL_SECONDS) != 0) {
    fprintf(stderr, "cannot lay out the trial\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  proc_heartbeat_deinit(true);
  return 0;
}
