// The base library's configuration file (TARN_LOG_CONFIG_PATH), read once by
// each process when a value is first needed. tarn_log.h documents the keys.
#ifndef TARNBASE_CONFIG_H
#define TARNBASE_CONFIG_H

#include <stdint.h>

#include <string>

namespace tarnbase {

struct BaseConfig {
  // [log]
  uint32_t log_level;
  std::string log_dir;
  uint64_t log_file_max_bytes;
  // [platform]
  bool x86_companion;
};

// The configuration of this process. A missing file, section or key, and a
// value out of range, give the key's default; a malformed file gives every
// default.
const BaseConfig &base_config();

}  // namespace tarnbase

#endif
