// Checking an unpacked package against its manifest: tarn_package_verify
// over a package of about --package_mb megabytes (default 100). The
// comparison with sha256sum -c on the same files is made by run_all.sh with
// the list this program writes beside the package.
//
// --package=DIR names the package folder. When DIR holds no manifest yet it
// is made first: an archive of make_archive.sh unpacked into DIR, a sealed
// manifest DIR/config/component_info/bench.ejs listing every file with its
// SHA-256 digest, and DIR.sha256, the same list in sha256sum's format with
// absolute paths. Without --package the folder is made below the sandbox's
// private /tmp and goes with it.

#include <benchmark/benchmark.h>
#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include <qiv_ejs/qiv_ejs.h>

#include "bench_support.h"
#include "com_info.h"

namespace {

namespace fs = std::filesystem;

constexpr char kManifest[] = "/config/component_info/bench.ejs";

std::string g_package;
uint64_t g_package_bytes = 0;

std::string file_digest(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  unsigned char digest[crypto_hash_sha256_BYTES];
  crypto_hash_sha256(digest, reinterpret_cast<const unsigned char *>(text.data()), text.size());
  char hex[sizeof(digest) * 2 + 1];
  sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
  return hex;
}

// A name as a JSON string's contents.
std::string json_text(const std::string &name) {
  std::string out;
  for (const char c : name) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// Unpacks an archive of megabytes into g_package and writes its manifest
// and sha256sum list; false after a line on standard error.
bool make_package(long megabytes) {
  const std::string archive = g_package + ".tgz";
  std::error_code ec;
  fs::create_directories(g_package, ec);
  const std::string make = std::string(TARN_BENCH_MAKE_ARCHIVE) + " " + std::to_string(megabytes) + " " +
                           archive + " && tar -xzf " + archive + " -C " + g_package;
  if (system(make.c_str()) != 0) {
    fprintf(stderr, "bench_package_verify: cannot make the package in %s\n", g_package.c_str());
    return false;
  }
  fs::remove(archive, ec);
  std::string json = R"({"package":"bench","version":"1.0.0","files":[)";
  std::string sums;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(g_package)) {
    if (!entry.is_regular_file()) continue;
    const std::string digest = file_digest(entry.path());
    const std::string name = entry.path().lexically_relative(g_package).string();
    json += std::string(sums.empty() ? "" : ",") + R"({"name":")" + json_text(name) + R"(","sha256":")" +
            digest + R"("})";
    sums += digest + "  " + entry.path().string() + "\n";
  }
  json += "]}";
  fs::create_directories(g_package + "/config/component_info", ec);
  if (qiv_ejs_sign_file((g_package + kManifest).c_str(), json.data(), json.size(), QIV_EJS_BUILD_SECRET_KEY) != 0 ||
      !tarn_bench::write_text(g_package + ".sha256", sums)) {
    fprintf(stderr, "bench_package_verify: cannot write the manifest of %s\n", g_package.c_str());
    return false;
  }
  return true;
}

uint64_t package_bytes() {
  uint64_t total = 0;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(g_package)) {
    if (entry.is_regular_file() && entry.path().string().find("/config/component_info/") == std::string::npos) {
      total += entry.file_size();
    }
  }
  return total;
}

void package_verify(benchmark::State &state) {
  static char report[4096];
  for (auto _ : state) {
    if (tarn_package_verify(g_package.c_str(), report, sizeof(report)) != 0) {
      state.SkipWithError("the package does not verify");
      break;
    }
  }
  state.SetBytesProcessed((int64_t)(state.iterations() * g_package_bytes));
}

}  // namespace

BENCHMARK(package_verify)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
  g_package = tarn_bench::take_flag(argc, argv, "package", "");
  const long megabytes = tarn_bench::take_number_flag(argc, argv, "package_mb", 100);
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  if (g_package.empty()) g_package = "/tmp/bench_package_verify_" + std::to_string(megabytes);
  if (!fs::exists(g_package + kManifest) && !make_package(megabytes)) return 1;
  g_package_bytes = package_bytes();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
