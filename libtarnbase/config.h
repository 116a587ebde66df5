// The base library's configuration file (TARN_LOG_CONFIG_PATH), read once by
// each process when a value is first needed. tarn_log.h documents the keys.
#ifndef TARNBASE_CONFIG_H
#define TARNBASE_CONFIG_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace tarnbase {

struct BaseConfig {
  // [log]
  uint32_t log_level;
  std::string log_dir;
  uint64_t log_file_max_bytes;
  // [platform]
  bool x86_companion;
  // [lock]
  uint32_t lock_wait_seconds;
  // [security]
  std::string agent_group;
};

// The configuration of this process, read on its first need (a forked
// child reads it again). A missing file, section or key, and a
// value out of range, give the key's default; a malformed file gives every
// default.
const BaseConfig &base_config();

// The agent group of the configuration, looked up in the group database
// now: set when a name is configured, found when a group has that name.
struct AgentGroup {
  bool set = false;
  bool found = false;
  gid_t gid = 0;
};
AgentGroup agent_group();

}  // namespace tarnbase

#endif
