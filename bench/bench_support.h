// What the benchmark programs share: entering the private sandbox, the
// base library's configuration file, and flags of their own that are taken
// out of argv before Google Benchmark reads it.
#ifndef TARN_BENCH_SUPPORT_H
#define TARN_BENCH_SUPPORT_H

#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <tarnbase/tarn_log.h>

#include "sandbox.h"

namespace tarn_bench {

// Removes "--name=value" from argv and returns value, or fallback when the
// flag is not given.
inline std::string take_flag(int &argc, char **argv, const char *name, const std::string &fallback) {
  const std::string prefix = std::string("--") + name + "=";
  std::string value = fallback;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) {
      value = argv[i] + prefix.size();
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  argv[argc] = nullptr;
  return value;
}

inline long take_number_flag(int &argc, char **argv, const char *name, long fallback) {
  const std::string text = take_flag(argc, argv, name, "");
  return text.empty() ? fallback : strtol(text.c_str(), nullptr, 10);
}

inline bool write_text(const std::string &path, const std::string &text) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out.flush());
}

// Moves into the private sandbox (fixed paths become private and writable)
// and writes the log configuration there, before anything reads it: level 2
// lets info and warn lines through and filters debug lines out.
inline bool enter_sandbox_with_log_level(int level) {
  if (tarn_sandbox_enter() != 0) return false;
  return write_text(TARN_LOG_CONFIG_PATH,
                    "[log]\nlevel = " + std::to_string(level) + "\ndir = /var/log\n");
}

}  // namespace tarn_bench

#endif
