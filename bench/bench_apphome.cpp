// The app home record: tarn_apphome_update (the record and its backup saved
// durably under their locks) next to the floor of writing, syncing and
// renaming two small files in the same directory; and the reduction that
// rebuilds a lost record by scanning an install root of many candidate
// app home directories.
//
// --disk_root=DIR puts the install root on DIR's file system (bound over
// it inside the sandbox), where syncing reaches the disk; without it the
// install root is the sandbox's tmpfs.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <qiv_ejs/qiv_ejs.h>

#include "bench_support.h"
#include "tarn_apphome.h"

namespace {

constexpr char kInstallRoot[] = "/usr/share/velmora/TARN";
constexpr char kVersion[] = "3.1.4.159";
constexpr char kHomeA[] = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";
constexpr char kHomeB[] = "1b2c3d4e-5f6a-4b7c-8d9e-0f1a2b3c4d5e";
long g_candidates = 1000;

std::string under_root(const std::string &name) { return std::string(kInstallRoot) + "/" + name; }

void record_update(benchmark::State &state) {
  bool second = false;
  for (auto _ : state) {
    if (tarn_apphome_update(second ? kHomeB : kHomeA, nullptr) != 0) {
      state.SkipWithError("tarn_apphome_update failed");
      break;
    }
    second = !second;
  }
}

// One small file written to a temporary name, synced and renamed over path.
bool replace_durably(const std::string &path, const std::string &text) {
  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == (ssize_t)text.size() && fsync(fd) == 0;
  return close(fd) == 0 && written && rename(temporary.c_str(), path.c_str()) == 0;
}

void write_sync_rename_floor(benchmark::State &state) {
  const std::string record = under_root("floor_record.ini");
  const std::string backup = under_root("floor_backup.ini");
  bool second = false;
  for (auto _ : state) {
    const std::string text = std::string("[apphome]\napp_home=") + (second ? kHomeB : kHomeA) + "\n";
    if (!replace_durably(record, text) || !replace_durably(backup, text)) {
      state.SkipWithError("write, sync or rename failed");
      break;
    }
    second = !second;
  }
}

// The name of candidate i: UUID text, in walk order by i.
std::string candidate_name(long i) {
  char name[64];
  snprintf(name, sizeof(name), "%08lx-0000-4000-8000-%012lx", (unsigned long)i, (unsigned long)i);
  return name;
}

bool sign_manifest(const std::string &home, const char *component, const char *version) {
  const std::string json = std::string("{\"package\":\"") + component + "\",\"version\":\"" + version +
                           "\",\"files\":[{\"name\":\"bin/x\",\"sha256\":\"00\"}]}";
  const std::string path = home + "/config/component_info/" + component + ".ejs";
  return qiv_ejs_sign_file(path.c_str(), json.data(), json.size(), QIV_EJS_BUILD_SECRET_KEY) == 0;
}

// An install root of count operational candidate directories whose base
// manifests all load; only the last one in walk order is of the service's
// version, so the scan reads every manifest before it finds the app home.
bool make_candidates(long count) {
  if (!tarn_bench::write_text(under_root("tarn_service"), std::string("#!/bin/sh\necho ") + kVersion + "\n") ||
      chmod(under_root("tarn_service").c_str(), 0755) != 0)
    return false;
  for (long i = 0; i < count; ++i) {
    const std::string home = under_root(candidate_name(i));
    const bool last = i == count - 1;
    if (!tarn_bench::write_text(home + "/config/flags/flag_operational", "") ||
        !tarn_bench::write_text(home + "/config/flags/flag_operational_backup", "") ||
        !tarn_bench::write_text(home + "/config/component_info/.keep", "") ||
        !sign_manifest(home, "tarn_base", last ? kVersion : "3.1.4.158"))
      return false;
    if (last && (!sign_manifest(home, "tarn_sys", kVersion) || !sign_manifest(home, "tarn_service", kVersion)))
      return false;
  }
  return true;
}

void reduction_scan(benchmark::State &state) {
  if (!make_candidates(g_candidates)) {
    state.SkipWithError("cannot make the candidate app homes");
    return;
  }
  const std::string record = under_root("tarn_apphome.ini");
  const std::string backup = under_root("tarn_apphome_backup.ini");
  for (auto _ : state) {
    state.PauseTiming();
    unlink(record.c_str());
    unlink(backup.c_str());
    state.ResumeTiming();
    if (tarn_apphome_reduction_file() != 0) {
      state.SkipWithError("tarn_apphome_reduction_file failed");
      break;
    }
  }
  state.counters["candidates"] = (double)g_candidates;
}

}  // namespace

BENCHMARK(write_sync_rename_floor)->UseRealTime();
BENCHMARK(record_update)->UseRealTime();
BENCHMARK(reduction_scan)->UseRealTime();

int main(int argc, char **argv) {
  g_candidates = tarn_bench::take_number_flag(argc, argv, "candidates", 1000);
  const std::string disk_root = tarn_bench::take_flag(argc, argv, "disk_root", "");
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  if (!disk_root.empty() && mount(disk_root.c_str(), kInstallRoot, nullptr, MS_BIND, nullptr) != 0) {
    perror("bind the install root");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
