// Environment checks before an installation or upgrade: administrator
// rights, free space in the backup area, and the UOS version rule.

#include "tarn_environment_check.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include <tarnbase/tarn_device.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_directory.h"

namespace {

constexpr uint64_t kDefaultFreeSpace = 0x20000000;  // 512 MiB
constexpr int kBackupDirectoryMode = 0755;
constexpr size_t kBackupPathSize = 4096;
constexpr size_t kLineSize = 1024;
constexpr size_t kValueSize = 16;
// The largest "/etc/os-release" or "/etc/os-version" that is read: both
// are a few hundred bytes.
constexpr unsigned long long kOsFileMaxBytes = 64 * 1024;

constexpr char kOsReleasePath[] = "/etc/os-release";
constexpr char kOsReleaseKey[] = "ID=";
constexpr char kOsVersionPath[] = "/etc/os-version";
constexpr char kOsVersionKey[] = "MinorVersion=";
constexpr char kUosName[] = "uos";

struct CloseFile {
  void operator()(FILE *file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

// Opens path for reading when it is a regular file of at most
// kOsFileMaxBytes bytes: a FIFO would block the open, a device never end.
FILE *open_os_file(const char *path) {
  const int fd = tarn_file_open_regular(path, kOsFileMaxBytes);
  if (fd < 0) return nullptr;
  FILE *file = fdopen(fd, "r");
  if (file == nullptr) close(fd);
  return file;
}

// Copies into value (kValueSize bytes, cut) the rest of the first line of
// the file at path that begins with key, its newline included. Returns
// false, after logging at info, when the file is missing, unreadable, not
// a regular file or too large, or has no such line.
bool read_keyed_value(const char *path, const char *key, char *value) {
  const size_t key_length = strlen(key);
  FilePtr file(open_os_file(path));
  char line[kLineSize];
  while (file && fgets(line, sizeof(line), file.get()) != nullptr) {
    if (strncmp(line, key, key_length) == 0) {
      tarn_str_snprintf(value, kValueSize, "%s", line + key_length);
      return true;
    }
  }
  LOG(info, "read %s failed, continue\n", path);
  return false;
}

}  // namespace

extern "C" {

TARNAUX_API int32_t tarn_envc_is_admin(void) {
  // errno as the caller left it: geteuid cannot fail, and the logging
  // itself may change errno before the line is formatted.
  const int error = errno;
  if (geteuid() == 0) return 1;
  LOG(warn, "Failed to check administrator permissions. error:%d \n", error);
  return 0;
}

TARNAUX_API int32_t tarn_envc_path_free_space(const char *path, uint64_t needed_bytes) {
  if (path == nullptr || path[0] == '\0' || needed_bytes == 0) {
    LOG(warn, "invalid parameter\n");
    return 0;
  }
  uint64_t available = 0;
  if (tarn_device_disk_space(path, TARN_DEVICE_SPACE_AVAILABLE, &available) == 0) {
    const int error = errno;
    LOG(warn, "Failed to obtain system available disk space, error: %d", error);
    return 0;
  }
  return needed_bytes <= available ? 1 : 0;
}

TARNAUX_API int32_t tarn_envc_def(void) {
  if (tarn_envc_is_admin() == 0) {
    LOG(warn, "Insufficient permissions, administrator permissions required\n");
    return 0;
  }
  char backup[kBackupPathSize];
  memset(backup, 0, sizeof(backup));
  // Without a data root the path stays empty, and the space check below
  // refuses it.
  get_backup_path(backup, sizeof(backup));
  tarn_dirutils_mkdir(backup, kBackupDirectoryMode);
  if (tarn_envc_path_free_space(backup, kDefaultFreeSpace) == 1) return 1;
  LOG(warn, "Failed to obtain system available disk space\n");
  return 0;
}

TARNAUX_API int32_t is_uos_and_lower_version(int32_t minor_threshold) {
  char name[kValueSize];
  memset(name, 0, sizeof(name));
  if (!read_keyed_value(kOsReleasePath, kOsReleaseKey, name)) return 0;
  // A quoted name ("uos" in quotation marks) begins with the quote and so
  // is not taken for UOS.
  if (tarn_strnicmp(name, kUosName, strlen(kUosName)) != 0) {
    LOG(info, "not %s, sysinfo is %s", kUosName, name);
    return 0;
  }
  char version[kValueSize];
  memset(version, 0, sizeof(version));
  if (!read_keyed_value(kOsVersionPath, kOsVersionKey, version)) return 0;
  // strtol stops at the newline; a value that is not a number reads as 0.
  const long minor = strtol(version, nullptr, 10);
  if ((long)minor_threshold > minor) {
    LOG(info, "version is %s, lower than %d, os_release:%s", version, minor_threshold, name);
    return 1;
  }
  LOG(info, "up than %d, cur os version is %s", minor_threshold, version);
  return 0;
}

}  // extern "C"
