// The service processes' configuration files in the current app home:
// existence, install (write), uninstall (delete) and restart (rewrite
// unchanged, which the service manager takes as a restart request).

#include "tarn_process_control.h"

#include <string.h>

#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"

namespace {

constexpr char kServicesDir[] = "config/services/TARN";

// The paths of one process's configuration file and its lock file.
struct ConfigPaths {
  char config[TARN_PATH_BUFFER_SIZE];
  char lock[TARN_PATH_BUFFER_SIZE];
};

// Fills paths for the process name from the current app home. Returns
// false when there is no app home or the recorded one is empty.
bool config_paths(const char *name, ConfigPaths *paths) {
  char apphome[TARN_PATH_BUFFER_SIZE];
  memset(apphome, 0, sizeof(apphome));
  if (get_apphome_path_main(apphome, sizeof(apphome)) != 0 || apphome[0] == '\0') return false;
  memset(paths, 0, sizeof(*paths));
  tarn_str_snprintf(paths->config, sizeof(paths->config), "%s/%s/%s.eni", apphome, kServicesDir, name);
  tarn_str_snprintf(paths->lock, sizeof(paths->lock), "%s/%s/%s.eni.lock", apphome, kServicesDir, name);
  return true;
}

// config_paths for caller (an exported function's name): logs
// "<caller> <name> failed: get_apphome_path_main failed!" when it fails.
bool caller_config_paths(const char *caller, const char *name, ConfigPaths *paths) {
  if (config_paths(name, paths)) return true;
  LOG(error, "%s %s failed: get_apphome_path_main failed!\n", caller, name);
  return false;
}

// The paths of a configuration file that must already exist, for uninstall
// and restart: false, with caller's warning, when it does not.
bool existing_config_paths(const char *caller, const char *name, ConfigPaths *paths) {
  if (is_tarn_process_config_exists(name) == 0) {
    LOG(warn, "%s failed: config %s not exists!\n", caller, name);
    return false;
  }
  return caller_config_paths(caller, name, paths);
}

// Takes the configuration file's lock. Install and restart share the
// message of a failure.
bool lock_config(TarnFileLock *lock, const ConfigPaths &paths, const char *name) {
  if (lock->init(paths.lock) == 0 && lock->acquire() == 0) return true;
  LOG(warn, "install_tarn_process %s failed: lock file failed\n", name);
  return false;
}

}  // namespace

extern "C" {

TARNAUX_API int32_t is_tarn_process_config_exists(const char *name) {
  ConfigPaths paths;
  if (!config_paths(name, &paths)) {
    LOG(error, "is_tarn_process_config_exists failed: get_apphome_path_main failed!\n");
    return 0;
  }
  return tarn_path_is_exist_u(paths.config) != 0 ? 1 : 0;
}

TARNAUX_API int32_t install_tarn_process(const char *name, tarn_ini_t *ini) {
  if (name == nullptr || ini == nullptr) return -1;
  ConfigPaths paths;
  if (!caller_config_paths("install_tarn_process", name, &paths)) return -1;
  TarnFileLock lock;
  if (!lock_config(&lock, paths, name)) return -1;
  return tarn_ini_file_save(ini, paths.config, 0);
}

TARNAUX_API int32_t uninstall_tarn_process(const char *name) {
  if (name == nullptr) return -1;
  ConfigPaths paths;
  if (!existing_config_paths("uninstall_tarn_process", name, &paths)) return -1;
  // Deliberately without the lock, unlike install and restart: an unlink
  // removes the file whole, so no reader can see a part of it.
  return tarn_file_unlink(paths.config);
}

TARNAUX_API int32_t restart_tarn_process(const char *name) {
  if (name == nullptr) return -1;
  ConfigPaths paths;
  if (!existing_config_paths("restart_tarn_process", name, &paths)) return -1;
  TarnFileLock lock;
  if (!lock_config(&lock, paths, name)) return -1;
  TarnIniPtr ini(tarn_ini_file_load(paths.config));
  if (!ini) {
    LOG(error, "restart_tarn_process %s failed: tarn_ini_file_load failed!\n", name);
    return -1;
  }
  // The rewrite itself is the restart request: the service manager restarts
  // a process whose configuration file has been renewed.
  return tarn_ini_file_save(ini.get(), paths.config, 0);
}

}  // extern "C"
