#include "replace_file.h"

#include "tarnbase/tarn_process.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace tarnbase {

namespace {

std::atomic<unsigned> g_sequence{0};

std::string directory_of(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Opens a fresh temporary file, readable by its owner only until it has
// its final mode: a descriptor opened by another user while the file was
// open to it would read the content written later. A file of that name can
// only be left over from a dead process that had the same pid (the
// sequence number tells this process's saves apart) or be planted in a
// directory that others can write, so it is removed (a link as a link) and
// the name taken.
int create_temporary(const std::string &name) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0 || errno != EEXIST) return fd;
    if (unlink(name.c_str()) != 0 && errno != ENOENT) return -1;
  }
  errno = EEXIST;
  return -1;
}

int sync_directory(const std::string &directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const int result = fsync(fd) == 0 ? 0 : errno;
  close(fd);
  return result;
}


// Gives the new file the permissions of the regular file that it replaces
// (a link at path is replaced, not followed: a link's target lends
// nothing), or those of a new file. Returns 0 or the errno of fchmod(2).
int take_over_attributes(int fd, const char *path) {
  struct stat old;
  if (lstat(path, &old) != 0 || !S_ISREG(old.st_mode)) {
    return fchmod(fd, 0666 & ~(mode_t)tarn_process_get_umask()) == 0 ? 0 : errno;
  }
  // chown first: it may clear set-id bits, which fchmod then restores.
  if (old.st_uid != geteuid() || old.st_gid != getegid()) {
    if (fchown(fd, old.st_uid, old.st_gid) != 0) { /* not permitted: stays the caller's */ }
  }
  return fchmod(fd, old.st_mode & 07777) == 0 ? 0 : errno;
}

// Gives the temporary file its final name: renamed over path, or, with
// no_replace, linked to path (which fails when path exists) and then
// unlinked. Returns 0 or an errno.
int place(const std::string &temporary, const std::string &path, bool no_replace) {
  if (!no_replace) return rename(temporary.c_str(), path.c_str()) == 0 ? 0 : errno;
  if (link(temporary.c_str(), path.c_str()) != 0) return errno;
  unlink(temporary.c_str());
  return 0;
}

}  // namespace

int write_all(int fd, const void *data, size_t size) {
  const char *bytes = static_cast<const char *>(data);
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes += written;
    size -= (size_t)written;
  }
  return 0;
}

int replace_file(const char *path, const WriteContent &write, const ReplaceOptions &options) {
  const std::string target(path);
  const std::string temporary = target + ".tmp." + std::to_string(getpid()) + "." +
                                std::to_string(g_sequence.fetch_add(1, std::memory_order_relaxed));
  // Made before anything changes, so that running out of memory cannot come
  // after the new file is in place.
  const std::string directory = directory_of(target);
  const int fd = create_temporary(temporary);
  if (fd < 0) return errno;

  int result = 0;
  if (options.mode != nullptr) {
    if (fchmod(fd, *options.mode & 07777) != 0) result = errno;
  } else {
    result = take_over_attributes(fd, path);
  }
  if (result == 0) result = write(fd);
  if (result == 0 && options.durable && fsync(fd) != 0) result = errno;
  if (close(fd) != 0 && result == 0 && errno != EINTR) result = errno;
  if (result == 0) result = place(temporary, target, options.no_replace);
  if (result != 0) {
    unlink(temporary.c_str());
    errno = result;
    return result;
  }
  if (options.durable) {
    // The new file is in place and every process sees it: the replacement
    // has happened, and a failure now would tell the caller that path is as
    // it was. A failed directory sync only means that the new name may not
    // survive a crash of the machine yet.
    (void)sync_directory(directory);
  }
  return 0;
}

}  // namespace tarnbase
