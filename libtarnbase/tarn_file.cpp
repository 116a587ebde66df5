// Files: removing, copying crash-safely, moving, opening close-on-exec, and
// opening to all users.

#include "tarnbase/tarn_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "config.h"
#include "replace_file.h"
#include "errno_result.h"

namespace {

bool is_empty(const char *text) { return text == nullptr || text[0] == '\0'; }

using tarnbase::fail;

// Copies everything that remains to be read from in to out.
int copy_content(int in, int out) {
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = read(in, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    const int result = tarnbase::write_all(out, buffer, (size_t)got);
    if (result != 0) return result;
  }
}

// tarn_file_open_regular with extra open(2) flags (O_NOFOLLOW).
int open_regular(const char *path, unsigned long long max_bytes, int extra_flags) {
  if (is_empty(path)) {
    errno = EINVAL;
    return -1;
  }
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | extra_flags);
  if (fd < 0) return -1;
  struct stat st;
  int error = fstat(fd, &st) == 0 ? 0 : errno;
  if (error == 0 && S_ISDIR(st.st_mode)) error = EISDIR;
  if (error == 0 && !S_ISREG(st.st_mode)) error = EFTYPE;
  if (error == 0 && (unsigned long long)st.st_size > max_bytes) error = EFBIG;
  if (error == 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) error = errno;
  if (error != 0) {
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_file_unlink(const char *path) {
  if (is_empty(path)) return fail(EINVAL);
  return unlink(path) == 0 ? 0 : errno;
}

TARNBASE_API int tarn_file_copy(const char *src, const char *dst) {
  return tarn_file_copy_ex(src, dst, TARN_FILE_COPY_REPLACE);
}

TARNBASE_API int tarn_file_copy_ex(const char *src, const char *dst, int option) {
  if (is_empty(src) || is_empty(dst)) return fail(EINVAL);
  if (option != TARN_FILE_COPY_REPLACE && option != TARN_FILE_COPY_NO_REPLACE) return fail(EINVAL);
  // A FIFO must not block the open, nor a device (/dev/zero) make a copy
  // without end: only a regular file is read, of any size. A link at src
  // is not followed: planted where others may write, it would have the
  // caller copy a file that the link's owner may not read.
  const int in = open_regular(src, ULLONG_MAX, O_NOFOLLOW);
  if (in < 0) return errno;
  struct stat st;
  int result = fstat(in, &st) == 0 ? 0 : errno;
  if (result == 0) {
    tarnbase::ReplaceOptions options;
    options.durable = true;
    const mode_t mode = st.st_mode & 07777;
    options.mode = &mode;
    options.no_replace = option == TARN_FILE_COPY_NO_REPLACE;
    try {
      result = tarnbase::replace_file(dst, [in](int out) { return copy_content(in, out); }, options);
    } catch (const std::bad_alloc &) {
      result = ENOMEM;
    }
  }
  close(in);
  return result == 0 ? 0 : fail(result);
}

TARNBASE_API int tarn_file_rename(const char *src, const char *dst) {
  if (is_empty(src) || is_empty(dst)) return fail(EINVAL);
  if (rename(src, dst) == 0) return 0;
  if (errno != EXDEV) return errno;
  struct stat st;
  if (lstat(src, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return fail(EXDEV);
  const int result = tarn_file_copy(src, dst);
  if (result != 0) return result;
  return unlink(src) == 0 ? 0 : errno;
}

TARNBASE_API int tarn_file_open_regular(const char *path, unsigned long long max_bytes) {
  return open_regular(path, max_bytes, 0);
}

TARNBASE_API FILE *tarn_file_open(const char *path, const char *mode) {
  char with_cloexec[16];
  if (is_empty(path) || is_empty(mode) || strlen(mode) > sizeof(with_cloexec) - 2) {
    errno = EINVAL;
    return nullptr;
  }
  strcpy(with_cloexec, mode);
  if (strchr(mode, 'e') == nullptr) strcat(with_cloexec, "e");
  return fopen(path, with_cloexec);
}

TARNBASE_API int tarn_file_add_user_full_ctrl(const char *path, const char *user) {
  if (is_empty(path) || user == nullptr || user[0] != '\0') return fail(EINVAL);
  const int fd = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  int result = fstat(fd, &st) == 0 ? 0 : errno;
  if (result == 0 && S_ISLNK(st.st_mode)) result = ELOOP;
  if (result == 0) {
    const mode_t wanted = S_ISDIR(st.st_mode) ? 0777 : 0666;
    result = tarn_file_share_fd(fd, (st.st_mode & 07777) | wanted);
  }
  close(fd);
  return result == 0 ? 0 : fail(result);
}

TARNBASE_API int tarn_file_share_fd(int fd, unsigned int mode) {
  if (fd < 0) return fail(EBADF);
  if (mode > 07777) return fail(EINVAL);
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  const tarnbase::AgentGroup group = tarnbase::agent_group();
  mode_t wanted = (mode_t)mode;
  if (group.set) {
    wanted &= ~(mode_t)S_IRWXO;
    if (group.found && st.st_gid != group.gid && fchownat(fd, "", (uid_t)-1, group.gid, AT_EMPTY_PATH) != 0) {
      return errno;
    }
  }
  // A change of group may have cleared set-ID bits: compare with the
  // object as it is now.
  if (group.set && fstat(fd, &st) != 0) return errno;
  if ((st.st_mode & 07777) == wanted) return 0;
  if (fchmod(fd, wanted) == 0) return 0;
  if (errno != EBADF) return errno;
  // An O_PATH descriptor: chmod(2) through its /proc name changes the
  // object it holds, never what a path now names.
  char name[64];
  snprintf(name, sizeof(name), "/proc/self/fd/%d", fd);
  return chmod(name, wanted) == 0 ? 0 : errno;
}

}  // extern "C"
