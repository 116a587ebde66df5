#include "config.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "ini_text.h"
#include "tarnbase/tarn_log.h"

namespace tarnbase {

namespace {

constexpr long kDefaultFileMaxKb = 10240;
constexpr long kFileMaxKbLimit = 1024 * 1024;

BaseConfig defaults() {
  BaseConfig config;
  config.log_level = TARN_LOG_LEVEL_INFO;
  config.log_dir = "/var/log";
  config.log_file_max_bytes = (uint64_t)kDefaultFileMaxKb * 1024;
  config.x86_companion = false;
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

bool on_config_entry(void *user, const char *section, const char *name, const char *value) {
  BaseConfig *config = static_cast<BaseConfig *>(user);
  if (strcmp(section, "log") == 0) {
    on_log_entry(config, name, value);
  } else if (strcmp(section, "platform") == 0) {
    on_platform_entry(config, name, value);
  }
  return true;
}

}  // namespace

const BaseConfig &base_config() {
  static const BaseConfig loaded = [] {
    BaseConfig parsed = defaults();
    if (parse_ini_file(TARN_LOG_CONFIG_PATH, on_config_entry, &parsed) != 0) return defaults();
    return parsed;
  }();
  return loaded;
}

}  // namespace tarnbase
