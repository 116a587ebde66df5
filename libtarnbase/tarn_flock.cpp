// Exclusive locks on lock files with flock(2): one open of the file per
// handle, so handles exclude each other also within one process.

#include "tarnbase/tarn_flock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "clock.h"
#include "config.h"
#include "errno_result.h"
#include "tarnbase/tarn_file.h"

struct tarn_flock {
  int fd;
};

namespace {

using tarnbase::fail;

// Opens the lock file, creating it open to every user when it is missing.
// A file that this user may not write is opened for reading: flock(2)
// needs only an open descriptor. An existing file is never read, so it may
// be of any kind, but it is opened so that the open cannot block (a FIFO
// opened for reading would wait for a writer) and a terminal does not
// become the process's controlling terminal. A link at path is neither
// followed nor created through: lock files sit in directories that every
// user may write, and a planted link would have the caller create or open
// the file it names.
int open_lock_file(const char *path) {
  constexpr int kExisting = O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const int created = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (created >= 0) {
      // The umask has been applied to the mode; every process of the agent
      // must be able to open the file later (only the agent group's with
      // one: whoever can open a lock file can hold its lock).
      if (tarn_file_share_fd(created, 0666) != 0) { /* the owner can still lock it */ }
      return created;
    }
    if (errno != EEXIST) return -1;
    int fd = open(path, O_RDWR | kExisting);
    if (fd < 0 && (errno == EACCES || errno == EROFS)) fd = open(path, O_RDONLY | kExisting);
    if (fd >= 0 || errno != ENOENT) return fd;
    // Removed between the two opens: create it again.
  }
  return -1;
}

int flock_retrying(int fd, int operation) {
  while (flock(fd, operation) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// The pauses between two tries of a waiting acquire: short at first, so a
// lock held briefly is taken soon after its release, then longer, so a long
// wait costs little.
constexpr uint64_t kFirstPauseNs = 1000000u;     // 1 ms
constexpr uint64_t kLongestPauseNs = 50000000u;  // 50 ms

// Takes the exclusive lock, trying without blocking until the configured
// wait has passed on the monotonic clock. A blocking flock(2) cut short by
// a timer would need a signal handler, which is the host program's to set,
// not a library's. Returns 0, ETIMEDOUT, or the errno of flock(2).
int lock_within_wait(int fd) {
  const uint64_t wait_ns = (uint64_t)tarnbase::base_config().lock_wait_seconds * 1000000000u;
  const uint64_t deadline = tarnbase::monotonic_ns() + wait_ns;
  uint64_t pause_ns = kFirstPauseNs;
  for (;;) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
    if (errno != EWOULDBLOCK && errno != EINTR) return errno;
    const uint64_t now = tarnbase::monotonic_ns();
    if (now >= deadline) return ETIMEDOUT;
    const uint64_t sleep_ns = pause_ns < deadline - now ? pause_ns : deadline - now;
    struct timespec pause = {(time_t)(sleep_ns / 1000000000u), (long)(sleep_ns % 1000000000u)};
    // A signal only shortens this pause; the deadline stays.
    (void)nanosleep(&pause, nullptr);
    if (pause_ns < kLongestPauseNs) pause_ns *= 2;
  }
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_flock_init(const char *lock_path, tarn_flock_t **handle) {
  if (handle != nullptr) *handle = nullptr;
  if (lock_path == nullptr || lock_path[0] == '\0' || handle == nullptr) return fail(EINVAL);
  tarn_flock_t *lock = static_cast<tarn_flock_t *>(malloc(sizeof(tarn_flock_t)));
  if (lock == nullptr) return fail(ENOMEM);
  lock->fd = open_lock_file(lock_path);
  if (lock->fd < 0) {
    const int error = errno;
    free(lock);
    return fail(error);
  }
  *handle = lock;
  return 0;
}

TARNBASE_API int tarn_flock_acquire(tarn_flock_t *handle) {
  if (handle == nullptr) return fail(EINVAL);
  const int result = lock_within_wait(handle->fd);
  return result == 0 ? 0 : fail(result);
}

TARNBASE_API int tarn_flock_release(tarn_flock_t *handle) {
  if (handle == nullptr) return fail(EINVAL);
  const int result = flock_retrying(handle->fd, LOCK_UN);
  return result == 0 ? 0 : fail(result);
}

TARNBASE_API int tarn_flock_destroy(tarn_flock_t *handle) {
  if (handle == nullptr) return fail(EINVAL);
  close(handle->fd);
  free(handle);
  return 0;
}

}  // extern "C"
