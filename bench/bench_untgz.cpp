// Tar-gzip extraction in process: untgz_file into a tmpfs folder and into a
// disk folder, and the decompression floor (gzread of the whole stream into
// a 128 KB buffer). The whole-command comparison with the archivers is made
// by scripts/bench with untgz_cli and gzread_floor.
//
// --archive=PATH uses an existing archive; otherwise one of --archive_mb
// megabytes (default 100) is made from /usr/include by make_archive.sh.
// --tmpfs_dir and --disk_dir name the folders extracted into (emptied
// before each extraction, outside the measured time).

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/vfs.h>
#include <zlib.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "bench_support.h"
#include "untgz.h"

#ifndef TMPFS_MAGIC
#define TMPFS_MAGIC 0x01021994
#endif

namespace {

std::string g_archive;
std::string g_tmpfs_dir;
std::string g_disk_dir;
uint64_t g_unpacked_bytes = 0;

void empty_folder(const std::string &path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  std::filesystem::create_directories(path, ec);
}

bool is_tmpfs(const std::string &path) {
  struct statfs info;
  return statfs(path.c_str(), &info) == 0 && info.f_type == TMPFS_MAGIC;
}

// The whole decompressed stream, read and dropped; its size, or 0.
uint64_t read_whole_stream(const std::string &archive) {
  static unsigned char buffer[128 * 1024];
  gzFile stream = gzopen(archive.c_str(), "rb");
  if (stream == nullptr) return 0;
  uint64_t total = 0;
  int got;
  while ((got = gzread(stream, buffer, sizeof(buffer))) > 0) total += (uint64_t)got;
  return gzclose(stream) == Z_OK && got == 0 ? total : 0;
}

void gzread_floor(benchmark::State &state) {
  for (auto _ : state) {
    if (read_whole_stream(g_archive) != g_unpacked_bytes) {
      state.SkipWithError("the archive cannot be read");
      break;
    }
  }
  state.SetBytesProcessed((int64_t)(state.iterations() * g_unpacked_bytes));
}

void extract_into(benchmark::State &state, const std::string &folder) {
  for (auto _ : state) {
    state.PauseTiming();
    empty_folder(folder);
    state.ResumeTiming();
    if (untgz_file(g_archive.c_str(), folder.c_str()) != 0) {
      state.SkipWithError("untgz_file failed");
      break;
    }
  }
  state.SetBytesProcessed((int64_t)(state.iterations() * g_unpacked_bytes));
  empty_folder(folder);
}

void untgz_tmpfs(benchmark::State &state) {
  if (!is_tmpfs(g_tmpfs_dir)) {
    state.SkipWithError("the tmpfs folder is not on a tmpfs");
    return;
  }
  extract_into(state, g_tmpfs_dir);
}

void untgz_disk(benchmark::State &state) { extract_into(state, g_disk_dir); }

}  // namespace

BENCHMARK(gzread_floor)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(untgz_tmpfs)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(untgz_disk)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
  g_archive = tarn_bench::take_flag(argc, argv, "archive", "");
  const long megabytes = tarn_bench::take_number_flag(argc, argv, "archive_mb", 100);
  g_tmpfs_dir = tarn_bench::take_flag(argc, argv, "tmpfs_dir", "/dev/shm/bench_untgz");
  g_disk_dir = tarn_bench::take_flag(argc, argv, "disk_dir", TARN_BENCH_DISK_DIR);
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  if (g_archive.empty()) {
    g_archive = "/tmp/bench_untgz_" + std::to_string(megabytes) + ".tgz";
    const std::string make = std::string(TARN_BENCH_MAKE_ARCHIVE) + " " + std::to_string(megabytes) +
                             " " + g_archive;
    if (system(make.c_str()) != 0) return 1;
  }
  g_unpacked_bytes = read_whole_stream(g_archive);
  if (g_unpacked_bytes == 0) {
    fprintf(stderr, "bench_untgz: cannot read %s\n", g_archive.c_str());
    return 1;
  }
  empty_folder(g_tmpfs_dir);
  empty_folder(g_disk_dir);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(g_tmpfs_dir, ec);
  std::filesystem::remove_all(g_disk_dir, ec);
  return 0;
}
