/* tarn_apphome_internal.h -- the app home record's names and the family's
 * internal operations, shared by the record, directory, utils and
 * component sources and their tests. Not exported.
 */
#ifndef TARN_APPHOME_INTERNAL_H
#define TARN_APPHOME_INTERNAL_H

#include <stdint.h>

#include <memory>

#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>

#include "tarn_apphome.h"

/* The install root and the files and keys of the record kept there. */
#define TARN_INSTALL_ROOT "/usr/share/velmora/TARN"
#define TARN_APPHOME_FILE_NAME "tarn_apphome.ini"
#define TARN_APPHOME_BACKUP_FILE_NAME "tarn_apphome_backup.ini"
#define TARN_APPHOME_SECTION "apphome"
#define TARN_APPHOME_KEY "app_home"
#define TARN_APPHOME_UPGRADE_LOCK_COUNT_KEY "upgrade_lock_count"
#define TARN_SERVICE_FILE_NAME "tarn_service"

/* The flag files inside an app home directory. */
#define TARN_APPHOME_FLAGS_DIR "config/flags"
#define TARN_APPHOME_FLAG_OPERATIONAL "flag_operational"
#define TARN_APPHOME_FLAG_OPERATIONAL_BACKUP "flag_operational_backup"

/* Buffer sizes: paths and names, and record keys. */
#define TARN_PATH_BUFFER_SIZE 1024
#define TARN_KEY_BUFFER_SIZE 64

/* The mode of the flags directory, given through tarn_file_share_fd (an
 * agent group makes it 0770). */
#define TARN_APPHOME_FLAGS_DIR_MODE 0777

/* A descriptor closed at the end of its scope. */
class TarnFd {
 public:
  explicit TarnFd(int fd = -1) : fd_(fd) {}
  ~TarnFd() { reset(); }
  TarnFd(const TarnFd &) = delete;
  TarnFd &operator=(const TarnFd &) = delete;
  int get() const { return fd_; }
  void reset(int fd = -1);
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

/* Opens the directory that every process of the agent shares at path,
 * which names base followed by "/" and relative (components separated by
 * '/'). When path is not a directory it is created first: missing parents
 * with mode 0755 and the directory itself given `mode` (0777) through
 * tarn_file_share_fd, whatever the umask; the result of the creation is
 * not looked at. The directory is opened below base one component at a
 * time without following a link (base itself is opened as open(2) does),
 * so a link that another user planted below base is neither entered nor
 * given the mode. Returns the descriptor (read-only, closed on exec), or
 * -1 with errno: ELOOP for a link below base, ENOTDIR, ENOENT... */
int tarn_open_shared_dir(const char *base, const char *relative, const char *path, unsigned mode);

/* The lock file of an ini file: its path followed by ".lock". */
#define TARN_LOCK_PATH_FORMAT "%s.lock"

/* One exclusive lock on a lock file, held for a scope: init() opens the
 * lock file, acquire() takes the lock, and close() (or the end of the
 * scope) releases the lock and destroys the handle once init() has
 * succeeded, also when acquire() failed. */
class TarnFileLock {
 public:
  TarnFileLock() = default;
  ~TarnFileLock() { close(); }
  TarnFileLock(const TarnFileLock &) = delete;
  TarnFileLock &operator=(const TarnFileLock &) = delete;

  int init(const char *lock_path) { return tarn_flock_init(lock_path, &handle_); }
  int acquire() { return tarn_flock_acquire(handle_); }
  void close() {
    if (handle_ == nullptr) return;
    tarn_flock_release(handle_);
    tarn_flock_destroy(handle_);
    handle_ = nullptr;
  }

 private:
  tarn_flock_t *handle_ = nullptr;
};

/* An ini object freed at the end of its scope. */
struct TarnIniFree {
  void operator()(tarn_ini_t *ini) const { tarn_ini_file_free(ini); }
};
using TarnIniPtr = std::unique_ptr<tarn_ini_t, TarnIniFree>;

/* Whether dir is an operational app home: 1 when it holds
 * config/flags/flag_operational. When only the spare flag is there, the
 * operational flag is restored from it (and 1 returned) if the copy
 * succeeds. Stores in *err the error code of the last existence check.
 * Returns 0 for a directory that is not operational (logged at info) and
 * for a null argument (logged at error). */
int32_t tarn_apphome_is_operational_path(const char *dir, int32_t *err);

/* Whether value, read from the record under "app_home" or a companion key,
 * can name a directory below the install root: a single directory name,
 * not empty, "." or "..", and without "/". The record is open to every
 * user, so a value such as "../../tmp/x" would take the app home out of
 * the install root. Logs at warn "app home value [%s] is not a directory
 * name\n" with the value when it is not one; every reader then treats the
 * key as absent. The UUID form is not checked here. */
bool tarn_apphome_is_dir_name(const char *value);

/* Copies the backup record over the record, holding only the record's lock
 * (the backup is read without its own lock). Returns 0, or -1 when there is
 * no install root, no backup, no lock, no loadable backup, no "app_home" in
 * it, or the save fails; the record is then left as it was. */
int32_t tarn_apphome_restore_from_backup(void);

#endif
