// Parsing: a component manifest of many files (load_com_info, which also
// opens the protected file), ini files (the app home record and a large
// file), a version string, and a command line of many options.

#include <benchmark/benchmark.h>
#include <stdio.h>

#include <string>
#include <vector>

#include <qiv_ejs/qiv_ejs.h>

#include <tarnbase/tarn_ini.h>

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
  if (qiv_ejs_sign_file(kManifestPath, json.data(), json.size(), QIV_EJS_BUILD_SECRET_KEY) != 0) {
    state.SkipWithError("cannot sign the manifest");
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

// An ini file of key_count keys: the app home record's three keys, or
// sections of 50 keys with values of 60 bytes, written as a save writes them
// but with blanks around '=' and a comment line before each section.
std::string ini_text(long key_count) {
  if (key_count <= 3) {
    return "[apphome]\napp_home = 0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d\n"
           "app_home_x86 = 2c3d4e5f-6a7b-4c8d-9e0f-1a2b3c4d5e6f\nupgrade_lock_count = 0\n";
  }
  std::string text;
  for (long i = 0; i < key_count; ++i) {
    if (i % 50 == 0) text += "; section " + std::to_string(i / 50) + "\n[section" + std::to_string(i / 50) + "]\n";
    text += "key" + std::to_string(i % 50) + " = " + std::string(60, (char)('a' + i % 26)) + "\n";
  }
  return text;
}

// tarn_ini_file_load of an ini file of state.range(0) keys.
void load_ini(benchmark::State &state) {
  const std::string path = "/tmp/bench_parse_" + std::to_string(state.range(0)) + ".ini";
  const std::string text = ini_text(state.range(0));
  if (!tarn_bench::write_text(path, text)) {
    state.SkipWithError("cannot write the ini file");
    return;
  }
  for (auto _ : state) {
    tarn_ini_t *ini = tarn_ini_file_load(path.c_str());
    if (ini == nullptr) {
      state.SkipWithError("tarn_ini_file_load failed");
      break;
    }
    tarn_ini_file_free(ini);
  }
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
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
BENCHMARK(load_ini)->Arg(3)->Arg(2000);
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
