// The app home record: its file and the architecture strings that decide
// its keys, reading and checking it, updating it together with its backup,
// restoring it from the backup, the app home's operational flags, the
// installed service's version, and rebuilding a lost record from the app
// home directories found below the install root (reduction).
//
// Every read or write of either ini file happens under that file's lock
// ("<file>.lock"), and the file is loaded afresh each time. The update holds
// the record's lock while it writes the backup under the backup's lock:
// record before backup, never the other way round. The restore holds only
// the record's lock while it reads the backup.

#include "tarn_apphome.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_dirwalk.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_platform.h>
#include <tarnbase/tarn_shell.h>
#include <tarnbase/tarn_str.h>

#include "com_info_internal.h"
#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"

namespace {

// Fills root with the installation root. Logs "get_tarn_path is failed"
// and returns false when there is none.
bool read_tarn_root(char (&root)[TARN_PATH_BUFFER_SIZE]) {
  memset(root, 0, sizeof(root));
  if (get_tarn_path(root, sizeof(root)) == 0) return true;
  LOG(warn, "get_tarn_path is failed\n");
  return false;
}

constexpr char kArchX86[] = "x86";
constexpr char kArchX64[] = "x64";
constexpr char kArchArm64[] = "arm64";
constexpr char kArchMips64[] = "mips64";

constexpr char kOperationalFlag[] = TARN_APPHOME_FLAGS_DIR "/" TARN_APPHOME_FLAG_OPERATIONAL;
constexpr char kOperationalSpareFlag[] =
    TARN_APPHOME_FLAGS_DIR "/" TARN_APPHOME_FLAG_OPERATIONAL_BACKUP;

// The command buffer holds a path buffer's worth plus the quotes and " -v".
constexpr size_t kCommandBufferSize = TARN_PATH_BUFFER_SIZE + 3;

// The companion key, "app_home_<arch>", into a key buffer.
void companion_key(char (&key)[TARN_KEY_BUFFER_SIZE], const char *arch) {
  tarn_str_snprintf(key, sizeof(key), "%s_%s", TARN_APPHOME_KEY, arch);
}

// Writes the updated record's object to the backup and opens it to all
// users; the caller holds the record's lock.
void write_backup(tarn_ini_t *ini, const char *backup_path, const char *lock_path) {
  TarnFileLock lock;
  if (lock.init(lock_path) != 0) {
    LOG(warn, "tarn_flock_init %s failed\n", lock_path);
    return;
  }
  if (lock.acquire() != 0) {
    LOG(warn, "tarn_flock_acquire %s failed\n", lock_path);
    return;
  }
  if (tarn_ini_file_save_directio(ini, backup_path, 0) != 0) {
    LOG(error, "tarn_ini_file_save_directio %s failed\n", backup_path);
    return;
  }
  if (tarn_file_add_user_full_ctrl(backup_path, "") != 0) {
    const int error = errno;
    LOG(warn, "file %s add user full privileges failed, error code is 0x%x\n", backup_path, error);
  }
  LOG(info, "backup ini to file successful!\n");
}

// Copies the backup over the record under the record's lock. Returns true
// on success; every failure has been logged.
bool copy_backup_to_record(const char *backup_path, const char *record_path,
                           const char *lock_path) {
  if (tarn_path_is_exist_u(backup_path) == 0) {
    LOG(warn, "%s is not existed!\n", backup_path);
    return false;
  }
  TarnFileLock lock;
  if (lock.init(lock_path) != 0) {
    LOG(warn, "tarn_flock_init %s failed\n", lock_path);
    return false;
  }
  if (lock.acquire() != 0) {
    LOG(warn, "tarn_flock_acquire %s failed\n", lock_path);
    return false;
  }
  // The backup is read without its own lock: its writer holds the record's
  // lock, which is held here.
  TarnIniPtr ini(tarn_ini_file_load(backup_path));
  if (!ini) {
    LOG(warn, "load ini file %s failed\n", backup_path);
    return false;
  }
  const char *apphome = tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_KEY);
  if (apphome == nullptr || !tarn_apphome_is_dir_name(apphome)) {
    LOG(error, "resume app_home is empty, path is %s.\n", backup_path);
    return false;
  }
  LOG(info, "resume app_home is [%s]\n", apphome);
  if (tarn_ini_file_save_directio(ini.get(), record_path, 0) != 0) {
    LOG(error, "tarn_ini_file_save_directio %s failed\n", record_path);
    return false;
  }
  if (tarn_file_add_user_full_ctrl(record_path, "") != 0) {
    const int error = errno;
    LOG(warn, "file %s add user full privileges failed, error code is 0x%x\n", record_path, error);
  }
  LOG(info, "restore ini from file successful!\n");
  return true;
}

// The manifests that reduction reads in a candidate app home directory.
constexpr char kComponentInfoDir[] = "config/component_info";
constexpr char kBaseComponent[] = "tarn_base";
constexpr char kSysComponent[] = "tarn_sys";
constexpr char kServiceComponent[] = "tarn_service";

// The manifest of component in the app home dir:
// "<dir>/config/component_info/<component>.ejs".
void manifest_path(char (&path)[TARN_PATH_BUFFER_SIZE], const char *dir, const char *component) {
  memset(path, 0, sizeof(path));
  tarn_str_snprintf(path, sizeof(path), "%s/%s/%s.ejs", dir, kComponentInfoDir, component);
}

bool has_manifest(const char *dir, const char *component) {
  char path[TARN_PATH_BUFFER_SIZE];
  manifest_path(path, dir, component);
  return tarn_path_is_exist_u(path) != 0;
}

// Whether the base manifest of dir loads and names the package "tarn_base"
// at exactly version.
bool is_base_of_version(const char *dir, const char *version) {
  char path[TARN_PATH_BUFFER_SIZE];
  manifest_path(path, dir, kBaseComponent);
  const JsonTree manifest(qiv_json_load_file_ejs(path));
  if (!manifest) {
    LOG(info, "load plugin config: %s failed\n", path);
    return false;
  }
  const char *package = json_string_value(json_object_get(manifest.get(), "package"));
  const char *found = json_string_value(json_object_get(manifest.get(), "version"));
  return package != nullptr && found != nullptr && strcmp(package, kBaseComponent) == 0 &&
         strcmp(found, version) == 0;
}

// A companion app home carries the base and system components but not the
// service, which only the main app home has.
bool is_companion_home(const char *dir) {
  return has_manifest(dir, kBaseComponent) && has_manifest(dir, kSysComponent) &&
         !has_manifest(dir, kServiceComponent);
}

struct TarnFreeString {
  void operator()(char *text) const { tarn_free_(text); }
};
using TarnString = std::unique_ptr<char, TarnFreeString>;

struct TarnDirwalkClose {
  void operator()(tarn_dirwalk_t *walk) const { tarn_dirwalk_close(walk); }
};
using TarnDirwalk = std::unique_ptr<tarn_dirwalk_t, TarnDirwalkClose>;

// Reads the walk of the install root to its end and keeps in main and
// companion the names of the first directories, in walk order, that are
// operational app homes of the service's version, of either kind.
void find_apphomes(tarn_dirwalk_t *walk, const char *version, TarnString &main,
                   TarnString &companion) {
  int kind = TARN_DIRWALK_NOT_DIR;
  for (const char *entry = tarn_dirwalk_read(walk, &kind); entry != nullptr;
       entry = tarn_dirwalk_read(walk, &kind)) {
    if (kind == TARN_DIRWALK_NOT_DIR || (main && companion)) continue;
    const char *name = tarn_path_get_name_u(entry);
    if (tarn_apphome_check_format(name) != 0) {
      LOG(info, "%s not apphome path\n", entry);
      continue;
    }
    int32_t err = 0;
    if (tarn_apphome_is_operational_path(entry, &err) == 0) continue;
    if (!is_base_of_version(entry, version)) continue;
    TarnString &slot = is_companion_home(entry) ? companion : main;
    if (slot) continue;
    // A directory entry's name (at most NAME_MAX bytes) is always within
    // the 1024 characters that a record's value may hold.
    slot.reset(tarn_strdup(name));
    if (!slot) LOG_OUT_OF_MEMORY();
  }
}

// Opens the directory relative below the directory base, one component at
// a time, without following a link below base. Returns the descriptor or
// -1 with errno.
int open_below(const char *base, const char *relative) {
  TarnFd dir(open(base, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const char *name = relative;
  while (dir.get() >= 0 && *name != '\0') {
    const char *end = strchr(name, '/');
    const size_t length = end == nullptr ? strlen(name) : (size_t)(end - name);
    if (length > 0) {
      char component[TARN_PATH_BUFFER_SIZE];
      memset(component, 0, sizeof(component));
      tarn_strlcpy(component, name, length + 1 < sizeof(component) ? length + 1 : sizeof(component));
      dir.reset(openat(dir.get(), component, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    name += length + (end == nullptr ? 0 : 1);
  }
  return dir.release();
}

}  // namespace

void TarnFd::reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

int tarn_open_shared_dir(const char *base, const char *relative, const char *path, unsigned mode) {
  const bool missing = tarn_path_is_dir_u(path) == 0;
  // Made 0755, so that it is never more open than its final mode, and
  // shared through its descriptor below.
  if (missing) (void)tarn_dirutils_mkdir(path, 0755);
  const int fd = open_below(base, relative);
  if (fd >= 0 && missing) (void)tarn_file_share_fd(fd, mode);
  return fd;
}

// ---------------------------------------------------------------------------
// Internal operations.

int32_t tarn_apphome_is_operational_path(const char *dir, int32_t *err) {
  if (dir == nullptr || err == nullptr) {
    LOG(error, "Invalid parameter\n");
    return 0;
  }
  char flag[TARN_PATH_BUFFER_SIZE];
  memset(flag, 0, sizeof(flag));
  tarn_str_snprintf(flag, sizeof(flag), "%s/%s", dir, kOperationalFlag);
  if (tarn_path_is_exist_safe_u(flag, err) != 0) return 1;
  LOG(info, "current path %s not operational path, errcode:0x%x\n", dir, *err);

  char spare[TARN_PATH_BUFFER_SIZE];
  memset(spare, 0, sizeof(spare));
  tarn_str_snprintf(spare, sizeof(spare), "%s/%s", dir, kOperationalSpareFlag);
  if (tarn_path_is_exist_safe_u(spare, err) == 0) {
    LOG(info, "current path %s not operational backup path, errcode:0x%x\n", dir, *err);
    return 0;
  }
  // The spare is there: bring the operational flag back from it.
  tarn_file_unlink(flag);
  if (tarn_file_copy(spare, flag) == 0) return 1;
  LOG(info, "copy operational backup file to operational file failed\n");
  return 0;
}

bool tarn_apphome_is_dir_name(const char *value) {
  if (value == nullptr) return false;
  if (value[0] != '\0' && strcmp(value, ".") != 0 && strcmp(value, "..") != 0 &&
      strchr(value, '/') == nullptr) {
    return true;
  }
  LOG(warn, "app home value [%s] is not a directory name\n", value);
  return false;
}

int32_t tarn_apphome_restore_from_backup(void) {
  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return -1;
  char backup_path[TARN_PATH_BUFFER_SIZE];
  char record_path[TARN_PATH_BUFFER_SIZE];
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(backup_path, 0, sizeof(backup_path));
  memset(record_path, 0, sizeof(record_path));
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(backup_path, sizeof(backup_path), "%s/%s", root, TARN_APPHOME_BACKUP_FILE_NAME);
  tarn_str_snprintf(record_path, sizeof(record_path), "%s/%s", root, TARN_APPHOME_FILE_NAME);
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, record_path);

  if (copy_backup_to_record(backup_path, record_path, lock_path)) return 0;
  LOG(warn, "error occurd when write [%s] to [%s]\n", backup_path, record_path);
  return -1;
}

// Takes the lock of an ini file ("<ini_path>.lock") for a reader or writer
// of the record, logging the errno of the step that failed. Returns whether
// the lock is held.
static bool lock_ini_file(TarnFileLock &lock, const char *ini_path) {
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, ini_path);
  if (lock.init(lock_path) != 0) {
    const int error = errno;
    LOG(warn, "flock init failed, errcode is %d\n", error);
    return false;
  }
  if (lock.acquire() != 0) {
    const int error = errno;
    LOG(warn, "flock acquire failed, errcode is %d\n", error);
    return false;
  }
  return true;
}

extern "C" {

// ---------------------------------------------------------------------------
// The record file and the architecture strings.

TARNAUX_API int32_t tarn_apphome_get_file(char *buf, int32_t len) {
  if (buf == nullptr || len <= 0) return -1;
  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return -1;
  // The path, its separator and its terminator must fit.
  if ((size_t)len <= strlen(root) + strlen(TARN_APPHOME_FILE_NAME) + 1) {
    LOG(warn, "get apphoem file is failed, length %d is low\n", len);
    return -1;
  }
  tarn_str_snprintf(buf, (size_t)len, "%s/%s", root, TARN_APPHOME_FILE_NAME);
  return 0;
}

TARNAUX_API const char *tarn_apphome_sys_arch_str(void) {
  tarn_os_platform_t platform;
  memset(&platform, 0, sizeof(platform));
  if (tarn_get_os_platform(&platform) != 0) return nullptr;
  const int cpu = tarn_get_cpu_arch();
  // On the companion platform the width decides, whatever the CPU says.
  if (platform.kind == TARN_OS_PLATFORM_X86_COMPANION) {
    return platform.width == TARN_OS_PLATFORM_WIDTH_32 ? kArchX86 : kArchX64;
  }
  switch (cpu) {
    case TARN_CPU_ARCH_X64: return kArchX64;
    case TARN_CPU_ARCH_X86: return kArchX86;
    case TARN_CPU_ARCH_ARM64: return kArchArm64;
    case TARN_CPU_ARCH_MIPS64: return kArchMips64;
    default: return nullptr;
  }
}

TARNAUX_API const char *tarn_apphome_com_arch_str(void) {
  tarn_os_platform_t platform;
  memset(&platform, 0, sizeof(platform));
  if (tarn_get_os_platform(&platform) != 0) return nullptr;
  if (platform.kind == TARN_OS_PLATFORM_X86_COMPANION &&
      platform.width == TARN_OS_PLATFORM_WIDTH_64) {
    return kArchX86;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// Resolution and validity.

TARNAUX_API int32_t tarn_apphome_check_format(const char *name) {
  if (name == nullptr) return -1;
  char group1[9], group2[5], group3[5], group4[5], group5[13];
  // Text after the last group's twelfth digit is not looked at.
  if (sscanf(name, "%8[a-fA-F0-9]-%4[a-fA-F0-9]-%4[a-fA-F0-9]-%4[a-fA-F0-9]-%12[a-fA-F0-9]", group1,
             group2, group3, group4, group5) != 5) {
    return -1;
  }
  if (strlen(group1) != 8 || strlen(group2) != 4 || strlen(group3) != 4 || strlen(group4) != 4 ||
      strlen(group5) != 12) {
    return -1;
  }
  return 0;
}

TARNAUX_API int32_t tarn_apphome_get_apphome(const char *ini_path, char *apphome,
                                             size_t apphome_len, char *apphome_arch,
                                             size_t arch_len) {
  if (ini_path == nullptr || apphome == nullptr) return -1;

  const char *arch = tarn_apphome_com_arch_str();
  const bool want_arch = apphome_arch != nullptr && arch_len != 0 && arch != nullptr;
  char arch_key[TARN_KEY_BUFFER_SIZE];
  memset(arch_key, 0, sizeof(arch_key));
  if (want_arch) companion_key(arch_key, arch);

  TarnFileLock lock;
  if (!lock_ini_file(lock, ini_path)) return 1;

  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  if (!ini) {
    LOG(warn, "tarn_ini_file_load is failed\n");
    return 1;
  }
  const char *name = tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_KEY);
  if (name == nullptr || !tarn_apphome_is_dir_name(name)) {
    LOG(warn, "get apphome field failed\n");
    return 1;
  }
  tarn_strlcpy(apphome, name, apphome_len);
  if (want_arch) {
    // A record without the companion value still names the app home; the
    // caller's buffer keeps what it held.
    const char *arch_name = tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, arch_key);
    if (arch_name != nullptr && tarn_apphome_is_dir_name(arch_name)) {
      tarn_strlcpy(apphome_arch, arch_name, arch_len);
    }
  }
  return 0;
}

TARNAUX_API int32_t tarn_apphome_check_validity(const char *ini_path) {
  if (ini_path == nullptr) return TARN_APPHOME_E_INVALID;

  int err = 0;
  if (tarn_path_is_exist_safe_u(ini_path, &err) == 0) {
    LOG(warn, "file %s is no exist, errcode:0x%x\n", ini_path, err);
    return TARN_APPHOME_E_NO_FILE;
  }

  char apphome[TARN_PATH_BUFFER_SIZE];
  char arch[TARN_PATH_BUFFER_SIZE];
  memset(apphome, 0, sizeof(apphome));
  memset(arch, 0, sizeof(arch));
  if (tarn_apphome_get_apphome(ini_path, apphome, sizeof(apphome), arch, sizeof(arch)) != 0) {
    LOG(warn, "tarn_apphome_get_apphome get apphome is failed\n");
    return TARN_APPHOME_E_NO_APPHOME;
  }
  if (tarn_apphome_com_arch_str() != nullptr && arch[0] == '\0') {
    LOG(warn, "tarn_apphome_get_apphome get apphome_arch is failed\n");
    return TARN_APPHOME_E_NO_ARCH_APPHOME;
  }

  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return TARN_APPHOME_E_INVALID;
  char path[TARN_PATH_BUFFER_SIZE];
  memset(path, 0, sizeof(path));
  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, apphome);
  int32_t path_err = 0;
  if (tarn_apphome_is_operational_path(path, &path_err) == 0) {
    LOG(warn, "apphome is invalid, %s no exists, errcode:0x%x\n", path, path_err);
    return TARN_APPHOME_E_APPHOME_DIR;
  }
  // Only a machine that needs the companion has read its name.
  if (arch[0] == '\0') return TARN_APPHOME_VALID;

  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, arch);
  if (tarn_apphome_is_operational_path(path, &path_err) == 0) {
    LOG(warn, "apphome_arch is invalid, %s no exists, errcode:0x%x\n", path, path_err);
    return TARN_APPHOME_E_ARCH_APPHOME_DIR;
  }
  return TARN_APPHOME_VALID;
}

// ---------------------------------------------------------------------------
// Updating the record and its backup.

TARNAUX_API int32_t tarn_apphome_update(const char *apphome, const char *apphome_arch) {
  if (apphome == nullptr) return -1;

  const char *arch = tarn_apphome_com_arch_str();
  if (arch != nullptr && apphome_arch == nullptr) {
    LOG(warn, "arch apphome is NULL, need arch apphome\n");
    return 1;
  }
  // Where no companion is needed, apphome_arch is ignored.
  char arch_key[TARN_KEY_BUFFER_SIZE];
  memset(arch_key, 0, sizeof(arch_key));
  const bool with_arch = arch != nullptr;
  if (with_arch) companion_key(arch_key, arch);

  char record_path[TARN_PATH_BUFFER_SIZE];
  memset(record_path, 0, sizeof(record_path));
  if (tarn_apphome_get_file(record_path, sizeof(record_path)) != 0) {
    LOG(warn, "get apphome file path is failed\n");
    return 1;
  }
  TarnFileLock lock;
  if (!lock_ini_file(lock, record_path)) return 1;

  // The whole record is loaded so that keys and sections of others are
  // saved back unchanged; a record that cannot be loaded is started afresh.
  TarnIniPtr ini(tarn_ini_file_load(record_path));
  if (!ini) {
    ini.reset(tarn_ini_file_load(nullptr));
    LOG(info, "after load\n");
  }
  int ret = ini ? 0 : ENOMEM;
  if (ret == 0) ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_KEY, apphome);
  if (ret == 0 && with_arch) {
    ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, arch_key, apphome_arch);
  }
  if (ret == 0) ret = tarn_ini_file_save_directio(ini.get(), record_path, 0);
  if (ret != 0) {
    // The backup keeps the last good record.
    LOG(warn, "update tarn_apphome.ini failed, result is %d\n", ret);
    return ret;
  }
  if (tarn_file_add_user_full_ctrl(record_path, "") != 0) {
    const int error = errno;
    LOG(info, "file %s add user full control is failed, error code is %x\n", record_path, error);
  }
  // Still under the record's lock, so that no update can come between the
  // record and its backup.
  tarn_apphome_backup_ini(ini.get());
  return 0;
}

TARNAUX_API void tarn_apphome_backup_ini(tarn_ini_t *ini) {
  if (ini == nullptr) return;
  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return;
  char backup_path[TARN_PATH_BUFFER_SIZE];
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(backup_path, 0, sizeof(backup_path));
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(backup_path, sizeof(backup_path), "%s/%s", root, TARN_APPHOME_BACKUP_FILE_NAME);
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, backup_path);
  write_backup(ini, backup_path, lock_path);
}

// ---------------------------------------------------------------------------
// Operational flags and the service version.

TARNAUX_API int32_t tarn_apphome_create_flag(const char *apphome_path, const char *flag_name) {
  if (apphome_path == nullptr || flag_name == nullptr) return -1;
  char path[TARN_PATH_BUFFER_SIZE];
  memset(path, 0, sizeof(path));
  tarn_str_snprintf(path, sizeof(path), "%s/%s/", apphome_path, TARN_APPHOME_FLAGS_DIR);
  // A directory that cannot be made or opened shows up as a failed create.
  const TarnFd flags(tarn_open_shared_dir(apphome_path, TARN_APPHOME_FLAGS_DIR, path, TARN_APPHOME_FLAGS_DIR_MODE));
  tarn_str_strncat(path, flag_name, sizeof(path));

  // The test for the flag and its creation are one step, and a link at the
  // flag's name is never followed: the directory is open to every user,
  // who must not have the caller create or truncate a file elsewhere. Only
  // a regular file counts as an existing flag.
  const bool plain_name = flag_name[0] != '\0' && strchr(flag_name, '/') == nullptr;
  if (flags.get() >= 0 && plain_name) {
    const TarnFd created(
        openat(flags.get(), flag_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0666));
    if (created.get() >= 0) return 0;
    struct stat st;
    if (errno == EEXIST && fstatat(flags.get(), flag_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(st.st_mode)) {
      LOG(info, "%s is existed\n", path);
      return 0;
    }
  }
  LOG(warn, "flag file %s create failed\n", path);
  return -1;
}

TARNAUX_API int32_t tarn_apphome_get_service_version(char *buf, int32_t len) {
  if (buf == nullptr) return -1;
  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return -1;
  char service[TARN_PATH_BUFFER_SIZE];
  memset(service, 0, sizeof(service));
  tarn_str_snprintf(service, sizeof(service), "%s/%s", root, TARN_SERVICE_FILE_NAME);
  if (tarn_path_is_exist_u(service) == 0) {
    LOG(warn, "file %s is no exist\n", service);
    return -1;
  }
  char command[kCommandBufferSize];
  memset(command, 0, sizeof(command));
  tarn_str_snprintf(command, sizeof(command), "\"%s/%s\" -v", root, TARN_SERVICE_FILE_NAME);
  // The shell drops the output's final line end, so the version compares
  // exactly with the text of a manifest.
  return tarn_shell_execute(command, buf, len > 0 ? (size_t)len : 0);
}

// ---------------------------------------------------------------------------
// Reduction: rebuilding the record.

TARNAUX_API int32_t tarn_apphome_reduction_file(void) {
  char root[TARN_PATH_BUFFER_SIZE];
  if (!read_tarn_root(root)) return -1;
  char path[TARN_PATH_BUFFER_SIZE];
  memset(path, 0, sizeof(path));
  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, TARN_APPHOME_FILE_NAME);
  if (tarn_apphome_check_validity(path) == TARN_APPHOME_VALID) {
    LOG(info, "apphome file is validity, path is %s\n", path);
    return 0;
  }
  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, TARN_APPHOME_BACKUP_FILE_NAME);
  if (tarn_apphome_check_validity(path) == TARN_APPHOME_VALID &&
      tarn_apphome_restore_from_backup() == 0) {
    LOG(info, "resum apphome successed from backup\n");
    return 0;
  }

  char version[TARN_PATH_BUFFER_SIZE];
  memset(version, 0, sizeof(version));
  const int32_t ret = tarn_apphome_get_service_version(version, sizeof(version));
  if (ret != 0 || version[0] == '\0') {
    LOG(warn, "get tarn_service version is failed, errcode is %d, service ver str is %s\n", ret,
        version);
    return -1;
  }

  TarnString main;
  TarnString companion;
  {
    TarnDirwalk walk(tarn_dirwalk_create(root, 0, 0, nullptr));
    if (!walk) {
      LOG(warn, "tarn_dirwalk_create is failed, path is %s\n", root);
      return -1;
    }
    find_apphomes(walk.get(), version, main, companion);
  }
  if (!main) {
    LOG(warn, "get apphome is failed\n");
    return -1;
  }
  const int32_t result = tarn_apphome_update(main.get(), companion.get());
  if (result != 0) {
    LOG(warn, "apphome update failed, errcode %d\n", result);
    return result;
  }
  LOG(info, "apphome reduction successed, apphome is %s, apphome_arch is %s", main.get(),
      companion ? companion.get() : "(null)");
  return 0;
}

}  // extern "C"
