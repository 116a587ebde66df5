// Parsing: a component manifest of many files (load_com_info, which also
// opens the protected file), a version string, and a command line of many
// options.

#include <benchmark/benchmark.h>
#include <stdio.h>

#include <string>
#include <vector>

#include <qiv_ejs/qiv_ejs.h>

#include "bench_support.h"
#include "com_info.h"
#include "parameter_parsing.h"
#include "version_mgr.h"

namespace {

constexpr char kManifestPath[] = "/tmp/bench_parse_manifest.ejs";
long g_manifest_files = 1000;
long g_options = 100;

// A manifest of the base component listing file_count files, each with a
// SHA-256 digest.
std::string manifest_json(long file_count) {
  std::string json =
      R"({"package":"tarn_base","version":"3.1.4.159","requirement":true,)"
      R"("arch":["x64","arm64"],"platform":["linux"],"depends":["tarn_sys"],"files":[)";
  char entry[192];
  for (long i = 0; i < file_count; ++i) {
    snprintf(entry, sizeof(entry),
             R"(%s{"name":"bin/lib/component_file_%05ld.so","sha256":"%064lx"})", i == 0 ? "" : ",",
             i, (unsigned long)i * 2654435761u);
    json += entry;
  }
  return json + "]}";
}

void load_manifest(benchmark::State &state) {
  const std::string json = manifest_json(g_manifest_files);
  if (qiv_ejs_seal_file(kManifestPath, json.data(), json.size()) != 0) {
    state.SkipWithError("cannot seal the manifest");
    return;
  }
  for (auto _ : state) {
    com_info_var info;
    if (load_com_info(kManifestPath, &info) != 0 || info.file_count != (uint32_t)g_manifest_files) {
      state.SkipWithError("load_com_info failed");
      break;
    }
    free_com_info_var(&info);
  }
  state.counters["files"] = (double)g_manifest_files;
}

void parse_version(benchmark::State &state) {
  version_mgr_version version = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(version_mgr_parser_version("3.1.4.159", &version));
    benchmark::ClobberMemory();
  }
}

// "prog -a v0 -b v1 ...": option_count options of one letter or digit, each
// with one argument; past 62 options the letters repeat, whose arguments
// join the earlier occurrence's list.
std::vector<std::string> command_line(long option_count) {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::vector<std::string> words = {"prog"};
  for (long i = 0; i < option_count; ++i) {
    words.push_back(std::string("-") + kLetters[i % (long)(sizeof(kLetters) - 1)]);
    words.push_back("value" + std::to_string(i));
  }
  return words;
}

void create_arguments(benchmark::State &state) {
  std::vector<std::string> words = command_line(g_options);
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  for (auto _ : state) {
    argment_paras *handle = argment_paras_create((int32_t)words.size(), argv.data());
    if (handle == nullptr) {
      state.SkipWithError("argment_paras_create failed");
      break;
    }
    argment_paras_free_args(handle);
  }
  state.counters["options"] = (double)g_options;
}

}  // namespace

BENCHMARK(load_manifest);
BENCHMARK(parse_version);
BENCHMARK(create_arguments);

int main(int argc, char **argv) {
  g_manifest_files = tarn_bench::take_number_flag(argc, argv, "manifest_files", 1000);
  g_options = tarn_bench::take_number_flag(argc, argv, "options", 100);
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
