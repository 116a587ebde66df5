// Helpers for tests of the app home record and the directory helpers: the
// fixed paths below the install root (a fresh tmpfs in the test sandbox),
// emptying it between tests, the record's text and an ini file's content,
// app home directories with their flag files, and a lock file held by
// another process. The small file operations come from files.h.
#ifndef TARN_TEST_INSTALL_ROOT_H
#define TARN_TEST_INSTALL_ROOT_H

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <system_error>

#include <tarnbase/tarn_ini.h>

#include "child_process.h"
#include "files.h"
#include "local_user.h"

namespace tarn_test {

constexpr char kInstallRoot[] = "/usr/share/velmora/TARN";
constexpr char kRecordPath[] = "/usr/share/velmora/TARN/tarn_apphome.ini";
constexpr char kBackupPath[] = "/usr/share/velmora/TARN/tarn_apphome_backup.ini";
constexpr char kRecordLockPath[] = "/usr/share/velmora/TARN/tarn_apphome.ini.lock";
constexpr char kBackupLockPath[] = "/usr/share/velmora/TARN/tarn_apphome_backup.ini.lock";
constexpr char kServicePath[] = "/usr/share/velmora/TARN/tarn_service";

// App home names as the reduction chooses them (UUID text).
constexpr char kHomeA[] = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";
constexpr char kHomeB[] = "1b2c3d4e-5f6a-4b7c-8d9e-0f1a2b3c4d5e";
constexpr char kHomeX86[] = "2c3d4e5f-6a7b-4c8d-9e0f-1a2b3c4d5e6f";
constexpr char kHomeX86B[] = "3d4e5f6a-7b8c-4d9e-8f0a-2b3c4d5e6f70";

// Record values that cannot name a directory below the install root: every
// reader takes them for a missing key. kEscapingName, below the install
// root, names kOutsideHome: make_apphome(kEscapingName, ...) makes an
// operational app home there, which clear_install_root leaves.
constexpr const char *kNotDirectoryNames[] = {"", ".", "..", "../../../../tmp/evil", "sub/dir",
                                              "/tmp/evil"};
constexpr char kEscapingName[] = "../../../../tmp/evil";
constexpr char kOutsideHome[] = "/tmp/evil";

// The warning of a reader given one of kNotDirectoryNames.
inline std::string not_directory_name_warning(const std::string &value) {
  return "app home value [" + value + "] is not a directory name\n";
}

inline std::string under_root(const std::string &name) {
  return std::string(kInstallRoot) + "/" + name;
}

// Removes everything below the install root, keeping the root itself.
inline void clear_install_root() {
  std::error_code ec;
  for (const auto &entry : std::filesystem::directory_iterator(kInstallRoot, ec)) {
    std::filesystem::remove_all(entry.path(), ec);
  }
}

// The record's text naming the app home name, and with it the companion
// x86 app home name.
inline std::string record_text(const std::string &name) {
  return "[apphome]\napp_home=" + name + "\n";
}
inline std::string record_text(const std::string &name, const std::string &arch) {
  return "[apphome]\napp_home=" + name + "\napp_home_x86=" + arch + "\n";
}

// An ini file's content: section -> key -> value.
using Sections = std::map<std::string, std::map<std::string, std::string>>;

// The whole content of an ini file as the base library reads it; nullopt
// when it cannot be loaded.
inline std::optional<Sections> load_ini(const std::string &path) {
  tarn_ini_t *ini = tarn_ini_file_load(path.c_str());
  if (ini == nullptr) return std::nullopt;
  Sections sections;
  tarn_ini_file_foreach(ini, &sections, [](void *user, const char *section, const char *key,
                                           const char *value) {
    (*static_cast<Sections *>(user))[section][key] = value;
    return 0;
  });
  tarn_ini_file_free(ini);
  return sections;
}

// Makes the app home directory name below the install root, with the flag
// files asked for (flag_operational, flag_operational_backup), each holding
// the given content. Returns the directory's path.
inline std::string make_apphome(const std::string &name, bool flag, bool spare,
                                const std::string &flag_content = "",
                                const std::string &spare_content = "") {
  const std::string dir = under_root(name);
  make_dirs(dir + "/config/flags");
  if (flag) write_file(dir + "/config/flags/flag_operational", flag_content);
  if (spare) write_file(dir + "/config/flags/flag_operational_backup", spare_content);
  return dir;
}

// The agent's record and backup naming the operational app home name, both
// opened to all users as the agent leaves them, in an install root that
// only root may write. Returns whether all was laid out.
inline bool lay_out_open_record(const std::string &name) {
  make_apphome(name, true, true);
  const std::string text = record_text(name);
  return chmod(kInstallRoot, 0755) == 0 && write_file(kRecordPath, text, 0666) &&
         write_file(kBackupPath, text, 0666) && chmod(kRecordPath, 0666) == 0 &&
         chmod(kBackupPath, 0666) == 0;
}

// An exclusive flock(2) on a lock file, taken by a forked child and held
// until release() or the end of the holder's scope; the child is the local
// user (local_user.h) when by_local_user is set, which the lock file must
// then let in. Releasing kills the child, whose lock the kernel then drops
// (other children forked meanwhile may share the test's pipes, so the child
// is not told by end of input).
class ForeignLock {
 public:
  explicit ForeignLock(const std::string &path, bool by_local_user = false) {
    Pipe locked;
    const std::function<int()> hold = [&]() {
      locked.close_read();
      const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
      if (fd < 0 || flock(fd, LOCK_EX) != 0) return 1;
      locked.send('L');
      for (;;) pause();
      return 0;
    };
    pid_ = by_local_user ? start_as_local_user(hold) : fork_child(hold);
    locked.close_write();
    held_ = pid_ > 0 && locked.receive() == 'L';
  }
  ~ForeignLock() { release(); }
  ForeignLock(const ForeignLock &) = delete;
  ForeignLock &operator=(const ForeignLock &) = delete;

  bool held() const { return held_; }
  pid_t pid() const { return pid_; }
  void release() {
    if (pid_ > 0) kill_and_reap(pid_);
    pid_ = -1;
    held_ = false;
  }

 private:
  pid_t pid_ = -1;
  bool held_ = false;
};

// What a call made in a child behind a ForeignLock came to.
struct LockedCall {
  bool started = false;   // the child was forked
  bool waited = false;    // it gave no answer while the lock was held
  bool answered = false;  // it answered once the lock was released
  int value = -2;         // its answer
  int status = -1;        // reap()'s result for it
};

// Runs call in a child while holder holds its lock, gives the child 300 ms
// to answer (it must not), runs while_waiting with the lock still held, then
// releases the lock and collects the child's answer and exit status.
inline LockedCall call_behind_lock(ForeignLock &holder, const std::function<int()> &call,
                                   const std::function<void()> &while_waiting = {}) {
  LockedCall outcome;
  Pipe result;
  const pid_t pid = fork_child([&]() {
    result.close_read();
    result.write_int(call());
    return 0;
  });
  outcome.started = pid > 0;
  if (!outcome.started) return outcome;
  result.close_write();
  outcome.waited = !result.read_int(&outcome.value, 300);
  if (while_waiting) while_waiting();
  holder.release();
  outcome.answered = result.read_int(&outcome.value);
  outcome.status = reap(pid);
  return outcome;
}

// Whether some open file description holds an exclusive flock(2) on path:
// tries to take it without waiting (from this process's own open).
inline bool lock_is_held(const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return held;
}

}  // namespace tarn_test

#endif
