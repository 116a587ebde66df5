// Helpers for tests of the app home record and the directory helpers: the
// fixed paths below the install root (a fresh tmpfs in the test sandbox),
// emptying it between tests, small file operations, app home directories
// with their flag files, and a lock file held by another process.
#ifndef TARN_TEST_INSTALL_ROOT_H
#define TARN_TEST_INSTALL_ROOT_H

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "child_process.h"

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

inline bool write_file(const std::string &path, const std::string &content, mode_t mode = 0644) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  const bool ok = write(fd, content.data(), content.size()) == (ssize_t)content.size();
  fchmod(fd, mode);
  return close(fd) == 0 && ok;
}

// The whole content, or "<missing>" when the file cannot be read.
inline std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The permission bits, or -1 when there is no such file.
inline int file_mode(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return (int)(st.st_mode & 07777);
}

inline bool make_dirs(const std::string &path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return !ec;
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

// An exclusive flock(2) on a lock file, taken by a forked child and held
// until release() or the end of the holder's scope. Releasing kills the
// child, whose lock the kernel then drops (other children forked meanwhile
// may share the test's pipes, so the child is not told by end of input).
class ForeignLock {
 public:
  explicit ForeignLock(const std::string &path) {
    Pipe locked;
    pid_ = fork_child([&]() {
      locked.close_read();
      const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
      if (fd < 0 || flock(fd, LOCK_EX) != 0) return 1;
      locked.send('L');
      for (;;) pause();
      return 0;
    });
    locked.close_write();
    held_ = pid_ > 0 && locked.receive() == 'L';
  }
  ~ForeignLock() { release(); }
  ForeignLock(const ForeignLock &) = delete;
  ForeignLock &operator=(const ForeignLock &) = delete;

  bool held() const { return held_; }
  void release() {
    if (pid_ > 0) kill_and_reap(pid_);
    pid_ = -1;
    held_ = false;
  }

 private:
  pid_t pid_ = -1;
  bool held_ = false;
};

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
