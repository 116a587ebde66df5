// Log output: the configuration file, the registered destination and the
// directory of rotated log files.

#include "tarnbase/tarn_log.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>

#include "clock.h"
#include "config.h"
#include "exe_path.h"

namespace {

constexpr size_t kLineMax = 8192;
constexpr size_t kDirMax = 1024;
constexpr int kMaxFilesLimit = 100;
constexpr const char *kLogFileName = "tarn.log";
constexpr const char *kRotateLockName = "tarn.log.lock";

const tarnbase::BaseConfig &config() { return tarnbase::base_config(); }

// The destination. Guarded by g_mutex, which fork handlers hold across a
// fork so that a child never inherits it locked by a thread it lacks.
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;
int g_registered = 0;
tarn_log_sink_fn g_sink = nullptr;
void *g_sink_context = nullptr;
std::string g_dir;  // autolog directory, "@" already expanded
int g_max_files = 0;
int g_fd = -1;

void lock_for_fork() { pthread_mutex_lock(&g_mutex); }
void unlock_after_fork() { pthread_mutex_unlock(&g_mutex); }
void register_atfork() { pthread_atfork(lock_for_fork, unlock_after_fork, unlock_after_fork); }

class MutexGuard {
 public:
  MutexGuard() {
    pthread_once(&g_atfork_once, register_atfork);
    pthread_mutex_lock(&g_mutex);
  }
  ~MutexGuard() { pthread_mutex_unlock(&g_mutex); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;
};

void close_file() {
  if (g_fd >= 0) close(g_fd);
  g_fd = -1;
}

bool make_directories(const std::string &path) {
  std::string partial;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    partial = path.substr(0, end);
    if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    start = end + 1;
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string log_path(int generation) {
  std::string path = g_dir + "/" + kLogFileName;
  if (generation > 0) path += "." + std::to_string(generation);
  return path;
}

bool open_file() {
  if (g_fd >= 0) return true;
  if (!make_directories(g_dir)) return false;
  g_fd = open(log_path(0).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  return g_fd >= 0;
}

// Moves tarn.log to tarn.log.1 and each older file up by one, dropping the
// oldest, under a lock shared by every process writing to the directory.
// A process that finds the file already rotated by another only reopens.
void rotate_if_needed() {
  struct stat own;
  if (fstat(g_fd, &own) != 0 || (uint64_t)own.st_size < config().log_file_max_bytes) return;
  const std::string lock_path = g_dir + "/" + kRotateLockName;
  const int lock_fd = open(lock_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (lock_fd < 0) return;
  if (flock(lock_fd, LOCK_EX) == 0) {
    struct stat current;
    const bool same_file = stat(log_path(0).c_str(), &current) == 0 && current.st_ino == own.st_ino &&
                           current.st_dev == own.st_dev;
    if (same_file) {
      if (g_max_files == 1) {
        unlink(log_path(0).c_str());
      } else {
        for (int generation = g_max_files - 1; generation > 0; --generation) {
          rename(log_path(generation - 1).c_str(), log_path(generation).c_str());
        }
      }
    }
    close_file();
    open_file();
    flock(lock_fd, LOCK_UN);
  }
  close(lock_fd);
}

void write_all(int fd, const char *text, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    length -= (size_t)written;
  }
}

}  // namespace

extern "C" {

TARNBASE_API uint32_t tarn_log_level_get(void) { return config().log_level; }

TARNBASE_API int tarn_log_dir(char *buf, size_t len) {
  if (buf == nullptr || len == 0) return 0;
  const std::string &dir = config().log_dir;
  if (dir.empty() || dir.size() >= len) {
    buf[0] = '\0';
    return 0;
  }
  memcpy(buf, dir.c_str(), dir.size() + 1);
  return (int)dir.size();
}

TARNBASE_API int tarn_log_is_regestered(void) { return __atomic_load_n(&g_registered, __ATOMIC_ACQUIRE); }

TARNBASE_API int tarn_autolog_init(const char *directory, int max_files) try {
  if (directory == nullptr || directory[0] == '\0' || strlen(directory) >= kDirMax || max_files < 1 ||
      max_files > kMaxFilesLimit) {
    errno = EINVAL;
    return EINVAL;
  }
  std::string expanded = tarnbase::expand_exe_relative(directory);
  MutexGuard guard;
  close_file();
  g_dir = std::move(expanded);
  g_max_files = max_files;
  g_sink = nullptr;
  g_sink_context = nullptr;
  __atomic_store_n(&g_registered, 1, __ATOMIC_RELEASE);
  return 0;
} catch (const std::bad_alloc &) {
  errno = ENOMEM;
  return ENOMEM;
}

TARNBASE_API int tarn_log_register(tarn_log_sink_fn sink, void *context) {
  if (sink == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  MutexGuard guard;
  close_file();
  g_dir.clear();
  g_sink = sink;
  g_sink_context = context;
  __atomic_store_n(&g_registered, 1, __ATOMIC_RELEASE);
  return 0;
}

TARNBASE_API void tarn_log_output(uint32_t level, const char *fmt, ...) try {
  if (fmt == nullptr) return;
  char line[kLineMax];
  va_list args;
  va_start(args, fmt);
  const int formatted = vsnprintf(line, sizeof(line), fmt, args);
  va_end(args);
  if (formatted < 0) return;
  size_t length = (size_t)formatted < sizeof(line) - 1 ? (size_t)formatted : sizeof(line) - 2;
  if (length == 0 || line[length - 1] != '\n') line[length++] = '\n';
  line[length] = '\0';

  tarn_log_sink_fn sink = nullptr;
  void *context = nullptr;
  {
    MutexGuard guard;
    if (g_sink != nullptr) {
      sink = g_sink;
      context = g_sink_context;
    } else if (!g_dir.empty() && open_file()) {
      write_all(g_fd, line, length);
      rotate_if_needed();
      return;
    }
  }
  // The program's own destination runs outside the lock, so that it may log.
  if (sink != nullptr) {
    sink(context, level, line, length);
  } else {
    write_all(STDERR_FILENO, line, length);
  }
} catch (const std::bad_alloc &) {
  // The line is lost, as when it cannot be written.
}

TARNBASE_API uint64_t tarn_log_get_tick_count(void) { return tarnbase::monotonic_ms(); }

}  // extern "C"
