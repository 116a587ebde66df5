#include "config.h"

#include <errno.h>
#include <grp.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "ini_text.h"
#include "tarnbase/tarn_log.h"

namespace tarnbase {

namespace {

constexpr long kDefaultFileMaxKb = 10240;
constexpr long kFileMaxKbLimit = 1024 * 1024;
constexpr long kDefaultLockWaitSeconds = 30;
constexpr long kLockWaitSecondsLimit = 24 * 60 * 60;

BaseConfig defaults() {
  BaseConfig config;
  config.log_level = TARN_LOG_LEVEL_INFO;
  config.log_dir = "/var/log";
  config.log_file_max_bytes = (uint64_t)kDefaultFileMaxKb * 1024;
  config.x86_companion = false;
  config.lock_wait_seconds = kDefaultLockWaitSeconds;
  return config;
}

bool parse_number(const char *text, long min, long max, long *value) {
  char *end = nullptr;
  errno = 0;
  const long parsed = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || parsed < min || parsed > max) return false;
  *value = parsed;
  return true;
}

void on_log_entry(BaseConfig *config, const char *name, const char *value) {
  long number = 0;
  if (strcmp(name, "level") == 0) {
    if (parse_number(value, 0, 3, &number)) config->log_level = (uint32_t)number;
  } else if (strcmp(name, "dir") == 0) {
    config->log_dir = value;
  } else if (strcmp(name, "file_max_kb") == 0) {
    if (parse_number(value, 1, kFileMaxKbLimit, &number)) config->log_file_max_bytes = (uint64_t)number * 1024;
  }
}

void on_platform_entry(BaseConfig *config, const char *name, const char *value) {
  long number = 0;
  if (strcmp(name, "x86_companion") == 0) {
    config->x86_companion = parse_number(value, LONG_MIN, LONG_MAX, &number) && number == 1;
  }
}

void on_lock_entry(BaseConfig *config, const char *name, const char *value) {
  long number = 0;
  if (strcmp(name, "wait_seconds") == 0) {
    if (parse_number(value, 1, kLockWaitSecondsLimit, &number)) config->lock_wait_seconds = (uint32_t)number;
  }
}

void on_security_entry(BaseConfig *config, const char *name, const char *value) {
  if (strcmp(name, "agent_group") == 0) config->agent_group = value;
}

bool on_config_entry(void *user, const char *section, const char *name, const char *value) {
  BaseConfig *config = static_cast<BaseConfig *>(user);
  if (strcmp(section, "log") == 0) {
    on_log_entry(config, name, value);
  } else if (strcmp(section, "platform") == 0) {
    on_platform_entry(config, name, value);
  } else if (strcmp(section, "lock") == 0) {
    on_lock_entry(config, name, value);
  } else if (strcmp(section, "security") == 0) {
    on_security_entry(config, name, value);
  }
  return true;
}

}  // namespace

namespace {

BaseConfig load() {
  BaseConfig parsed = defaults();
  if (parse_ini_file(TARN_LOG_CONFIG_PATH, on_config_entry, &parsed) != 0) return defaults();
  return parsed;
}

// One configuration per process: a forked child reads the file afresh on
// its first need, as a process that was started does. What a child
// inherited is never freed (a thread of the parent may have been reading
// it); each loaded configuration links to the one before, so that all stay
// reachable.
struct Loaded {
  BaseConfig config;
  const Loaded *inherited;
};

std::mutex loading;
std::atomic<const Loaded *> current{nullptr};
const Loaded *last_inherited = nullptr;

void lock_for_fork() { loading.lock(); }
void unlock_after_fork() { loading.unlock(); }
void forget_in_child() {
  const Loaded *inherited = current.load(std::memory_order_relaxed);
  if (inherited != nullptr) last_inherited = inherited;
  current.store(nullptr, std::memory_order_relaxed);
  loading.unlock();
}

const int fork_handlers = pthread_atfork(lock_for_fork, unlock_after_fork, forget_in_child);

}  // namespace

const BaseConfig &base_config() {
  (void)fork_handlers;
  const Loaded *loaded = current.load(std::memory_order_acquire);
  if (loaded != nullptr) return loaded->config;
  std::lock_guard<std::mutex> guard(loading);
  loaded = current.load(std::memory_order_acquire);
  if (loaded == nullptr) {
    loaded = new Loaded{load(), last_inherited};
    current.store(loaded, std::memory_order_release);
  }
  return loaded->config;
}

AgentGroup agent_group() {
  AgentGroup group;
  const std::string &name = base_config().agent_group;
  if (name.empty()) return group;
  group.set = true;
  std::vector<char> buffer(16384);
  struct group entry;
  struct group *found = nullptr;
  while (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 24)) {
    buffer.resize(buffer.size() * 2);
  }
  if (found != nullptr) {
    group.found = true;
    group.gid = found->gr_gid;
  }
  return group;
}

}  // namespace tarnbase
