// App home helpers of the upgrade tools: the install root as an allocated
// string, the locked readers of the record, its writer, and the upgrade
// lock counter kept in it. The record's lock is held while it is loaded
// (and, by the writer, until it is saved); the backup record is not
// touched here.

#include "tarn_utils.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "utils_internal.h"

namespace {

struct FreeString {
  void operator()(char *text) const { free(text); }
};
using StringPtr = std::unique_ptr<char, FreeString>;

// The record's path below the install root.
void record_path_of(char (&path)[TARN_PATH_BUFFER_SIZE], const char *root) {
  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, TARN_APPHOME_FILE_NAME);
}

}  // namespace

int32_t tarn_get_upgrade_lock_count(void) {
  char record[TARN_PATH_BUFFER_SIZE];
  memset(record, 0, sizeof(record));
  {
    StringPtr root(get_tarn_root_dir());
    record_path_of(record, root.get());
  }
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, record);

  TarnFileLock lock;
  int ret = lock.init(lock_path);
  if (ret != 0) {
    LOG(warn, "tarn_flock_init is failed, ret is %d\n", ret);
    return 0;
  }
  ret = lock.acquire();
  if (ret != 0) {
    LOG(warn, "tarn_flock_acquire is failed, ret is %d\n", ret);
    return 0;
  }
  TarnIniPtr ini(tarn_ini_file_load(record));
  lock.close();
  if (!ini) {
    LOG(info, "tarn_ini_file_load is failed, path is %s.\n", record);
    return 0;
  }
  const char *value =
      tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_UPGRADE_LOCK_COUNT_KEY);
  const int32_t count = value != nullptr ? (int32_t)strtol(value, nullptr, 10) : 0;
  LOG(info, "get %s upgrade_lock_count %d\n", record, count);
  return count;
}

extern "C" {

TARNAUX_API char *get_tarn_root_dir(void) {
  char *root = static_cast<char *>(malloc(sizeof(TARN_INSTALL_ROOT)));
  if (root == nullptr) LOG_OUT_OF_MEMORY();
  memcpy(root, TARN_INSTALL_ROOT, sizeof(TARN_INSTALL_ROOT));
  return root;
}

TARNAUX_API int32_t get_app_home_dir(const char *ini_path, char *out, uint32_t out_len,
                                     const char *suffix) {
  if (ini_path == nullptr || out == nullptr || out_len == 0) return -1;
  char key[TARN_KEY_BUFFER_SIZE];
  memset(key, 0, sizeof(key));
  if (suffix != nullptr) {
    tarn_str_snprintf(key, sizeof(key), TARN_APPHOME_KEY "_%s", suffix);
  } else {
    tarn_strlcpy(key, TARN_APPHOME_KEY, sizeof(key));
  }

  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, ini_path);
  // The lock covers the load only, and a lock that cannot be had does not
  // stop the read: the record is replaced whole, so an unlocked load still
  // sees a complete file.
  TarnFileLock lock;
  if (lock.init(lock_path) == 0) lock.acquire();
  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  lock.close();

  if (!ini) {
    LOG(warn, "qiv_eni_file_load is failed, path is %s.\n", ini_path);
    return -1;
  }
  const char *name = tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, key);
  if (name != nullptr) {
    tarn_str_snprintf(out, out_len, "%s", name);
    return 0;
  }
  LOG(warn, "app_home is empty in %s\n", ini_path);
  return 1;
}

TARNAUX_API int32_t get_app_home_path(const char *suffix, char *out, uint32_t out_len) {
  StringPtr root(get_tarn_root_dir());
  if (out == nullptr || out_len == 0) return 1;

  char record[TARN_PATH_BUFFER_SIZE];
  memset(record, 0, sizeof(record));
  record_path_of(record, root.get());
  char name[TARN_PATH_BUFFER_SIZE];
  memset(name, 0, sizeof(name));
  if (get_app_home_dir(record, name, sizeof(name), suffix) != 0) {
    LOG(info, "apphome cannot be fetched or does not exist and will be regenerated\n");
    return 1;
  }
  tarn_str_snprintf(out, out_len, "%s/%s", root.get(), name);
  return 0;
}

TARNAUX_API int32_t update_app_home_dir(const char *ini_path, const char *app_home,
                                        const char *suffix, const char *companion_home) {
  if (ini_path == nullptr || app_home == nullptr) return 1;
  char companion_key[TARN_KEY_BUFFER_SIZE];
  memset(companion_key, 0, sizeof(companion_key));
  if (suffix != nullptr) {
    tarn_str_snprintf(companion_key, sizeof(companion_key), "%s_%s", TARN_APPHOME_KEY, suffix);
  }

  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, ini_path);
  TarnFileLock lock;
  int ret = lock.init(lock_path);
  if (ret != 0) {
    LOG(warn, "flock init failed with errcode %d\n", ret);
    return 1;
  }
  ret = lock.acquire();
  if (ret != 0) {
    LOG(warn, "flock acquire failed with errcode %d\n", ret);
    return 1;
  }

  // Loading the whole record keeps every other section and key.
  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  if (!ini) {
    ini.reset(tarn_ini_file_load(nullptr));
    LOG(info, "after load\n");
  }
  ret = ini ? 0 : ENOMEM;
  if (ret == 0) ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_KEY, app_home);
  if (ret == 0 && suffix != nullptr && companion_home != nullptr) {
    ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, companion_key, companion_home);
  }
  if (ret == 0) ret = tarn_ini_file_save_directio(ini.get(), ini_path, 0);
  if (ret != 0) LOG(warn, "update tarn_apphome.ini failed, result is %d\n", ret);
  return ret;
}

}  // extern "C"
