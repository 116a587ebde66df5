// Installed products and components: the product install record, the
// product register with its repair from the backup, and the component
// manifests, all in the current app home.

#include "tarn_product.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <initializer_list>
#include <memory>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"
#include "tarn_product_internal.h"

namespace {

// The fixed parts begin with "/" and are joined to the app home with
// "%s/%s", which gives a doubled separator; the doubled form is the path.
constexpr char kInstallRecord[] = "/config/promotions_install/inskey.eni";
constexpr char kRegister[] = "/config/product_register.eni";
constexpr char kRegisterBackupName[] = "/product_register_backup.eni";
constexpr char kComponentDir[] = "/config/component_info/";
constexpr char kInstallPathKey[] = "install_path";
constexpr char kRegisterSection[] = "product";
constexpr char kRegisterCount[] = "count";

// The product's install state.
enum InstallState { kPathMissing = 0, kNoPathRecorded = 1, kInstalled = 2 };

// The entries that a whole register holds, as bits of a flag word.
constexpr unsigned kSeenProduct = 1u;
constexpr unsigned kSeenCount = 2u;

using TarnString = std::unique_ptr<char, decltype(&tarn_free_)>;

// Writes the app home followed by "/" and part into out. Returns false,
// writing nothing, when there is no app home.
bool apphome_file(const char *part, char (&out)[TARN_PATH_BUFFER_SIZE]) {
  char apphome[TARN_PATH_BUFFER_SIZE];
  memset(apphome, 0, sizeof(apphome));
  if (get_apphome_path_main(apphome, sizeof(apphome)) != 0) return false;
  memset(out, 0, sizeof(out));
  tarn_str_snprintf(out, sizeof(out), "%s/%s", apphome, part);
  return true;
}

// Takes the lock of the ini file at path (its path followed by ".lock").
// Returns false after logging when it cannot be taken.
bool lock_ini_file(TarnFileLock *lock, const char *path) {
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, path);
  if (lock->init(lock_path) == 0 && lock->acquire() == 0) return true;
  LOG(warn, "flock file failed %s\n", lock_path);
  return false;
}

InstallState install_state(const char *product) {
  TarnString path(tarn_product_get_install_path(product), tarn_free_);
  if (!path) {
    LOG(warn, "%s get_production_install_path failed!\n", product);
    return kNoPathRecorded;
  }
  // stat follows symbolic links: a link to a directory counts as one.
  struct stat st;
  if (stat(path.get(), &st) != 0) return kPathMissing;
  return S_ISDIR(st.st_mode) || S_ISREG(st.st_mode) ? kInstalled : kPathMissing;
}

// tarn_dirutils_listdir's callback: 1 when the entry is a file named after
// the component (user) followed by ".ejs".
int is_component_manifest(int type, const char *path, void *user) {
  if (type != TARN_DIRUTILS_FILE) return 0;
  char manifest[TARN_PATH_BUFFER_SIZE];
  memset(manifest, 0, sizeof(manifest));
  tarn_str_snprintf(manifest, sizeof(manifest), "%s.ejs", static_cast<const char *>(user));
  return strcmp(tarn_path_get_name_u(path), manifest) == 0 ? 1 : 0;
}

// tarn_ini_file_foreach's callback: notes in the flag word (user) the
// entries, sections and keys alike, that a whole register needs.
int note_register_entry(void *user, const char *section, const char *key, const char * /*value*/) {
  unsigned *seen = static_cast<unsigned *>(user);
  for (const char *name : {section, key}) {
    if (strcmp(name, kRegisterSection) == 0) *seen |= kSeenProduct;
    if (strcmp(name, kRegisterCount) == 0) *seen |= kSeenCount;
  }
  return 0;
}

// Whether the register at path exists, loads and holds both "product" and
// "count"; logs why it does not when it is missing or does not load.
bool register_is_whole(const char *path) {
  if (tarn_path_is_exist_u(path) == 0) {
    LOG(warn, "file does't exist [%s]\n", path);
    return false;
  }
  TarnIniPtr ini(tarn_ini_file_load(path));
  if (!ini) {
    LOG(warn, "load [%s] error!\n", path);
    return false;
  }
  LOG(info, "ready to check [%s]\n", path);
  unsigned seen = 0;
  return tarn_ini_file_foreach(ini.get(), &seen, note_register_entry) == 0 &&
         seen == (kSeenProduct | kSeenCount);
}

}  // namespace

char *tarn_product_get_install_path(const char *product) {
  char record[TARN_PATH_BUFFER_SIZE];
  if (!apphome_file(kInstallRecord, record)) {
    LOG(warn, "get_apphome_path_main failed\n");
    return nullptr;
  }
  TarnFileLock lock;
  if (!lock_ini_file(&lock, record)) return nullptr;
  TarnIniPtr ini(tarn_ini_file_load(record));
  // A record that does not load holds no path either: both lines are
  // logged, the second as for a product that is not in the record.
  if (!ini) LOG(warn, "load ini file failed: %s\n", record);
  const char *value = tarn_ini_file_get(ini.get(), product, kInstallPathKey);
  if (value == nullptr) {
    LOG(warn, "read %s failed: missing section[%s] field[%s]\n", record, product, kInstallPathKey);
    return nullptr;
  }
  char *copy = tarn_strdup(value);
  if (copy == nullptr) LOG_OUT_OF_MEMORY();
  return copy;
}

extern "C" {

TARNAUX_API int32_t is_product_installed(const char *product) {
  return install_state(product) == kInstalled ? 1 : 0;
}

TARNAUX_API int32_t is_component_installed(const char *component) {
  if (component == nullptr) {
    LOG(warn, "check is_component_installed failed: empty component_name!\n");
    return 0;
  }
  char dir[TARN_PATH_BUFFER_SIZE];
  if (!apphome_file(kComponentDir, dir)) return 0;
  // The component is handed over as the walk's user value; the callback
  // only reads it.
  return tarn_dirutils_listdir(dir, const_cast<char *>(component), is_component_manifest);
}

TARNAUX_API int32_t check_and_reset_pro_reg_by_backup(const char *register_path) {
  if (register_path == nullptr) return -1;
  char backup[TARN_PATH_BUFFER_SIZE];
  memset(backup, 0, sizeof(backup));
  tarn_strncpy(backup, register_path, sizeof(backup));
  tarn_path_remove_name_u(backup);
  tarn_str_strncat(backup, kRegisterBackupName, sizeof(backup));

  if (tarn_path_is_exist_u(backup) == 0) {
    LOG(warn, "product_register backup file is no exists, path is %s\n", backup);
    return -1;
  }
  // Loaded only to know that the backup is a readable register; the copy
  // below takes the file as it is.
  TarnIniPtr backup_ini(tarn_ini_file_load(backup));
  if (!backup_ini) {
    LOG(warn, "product_register backup file is failed, path is %s\n", backup);
    return -1;
  }
  if (register_is_whole(register_path)) return 0;

  const int32_t result = tarn_file_copy(backup, register_path);
  if (result != 0) {
    // Taken before logging, which may change errno.
    const int error = errno;
    LOG(warn, "tarn_file_copy is failed, backup path is %s, inskey path is %s, errcode is %d\n", backup,
        register_path, error);
    return result;
  }
  // Deliberately the decimal 777 (octal 01411: sticky, owner read, group
  // and others execute), not 0777: a restored register has always been
  // given exactly this mode.
  chmod(register_path, 777);
  LOG(info, "reset backup product_register successed\n");
  return result;
}

TARNAUX_API int32_t is_product_register(const char *product) {
  if (product == nullptr) {
    LOG(warn, "check is_product_register failed: invalid parameter\n");
    return 0;
  }
  char reg[TARN_PATH_BUFFER_SIZE];
  if (!apphome_file(kRegister, reg)) {
    LOG(warn, "get_apphome_path_main failed\n");
    return 0;
  }
  TarnFileLock lock;
  if (!lock_ini_file(&lock, reg)) return 0;
  // A register that cannot be repaired is still read as it is.
  check_and_reset_pro_reg_by_backup(reg);
  TarnIniPtr ini(tarn_ini_file_load(reg));
  if (!ini) {
    LOG(warn, "tarn_ini_file_load failed path[%s]\n", reg);
    return 0;
  }
  return tarn_ini_file_get_int(ini.get(), kRegisterSection, product, 0) > 0 ? 1 : 0;
}

}  // extern "C"
