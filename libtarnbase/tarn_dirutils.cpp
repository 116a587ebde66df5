// Directories: creating a tree with an exact mode, listing one directory,
// removing a tree without following links, and "@" paths.

#include "tarnbase/tarn_dirutils.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "exe_path.h"
#include "errno_result.h"
#include "unique_fd.h"

namespace {

using tarnbase::fail;

using Fd = tarnbase::UniqueFd;

// Opens the directory name in parent, creating it with exactly mode when it
// is missing. The new directory is opened without following a link and
// its mode set through that descriptor, so that a directory swapped for a
// link in the meantime (by a user who may write parent) never lends the
// mode to what the link names. An existing entry is opened as open(2)
// does, a link to a directory included. Returns the descriptor, or -1 with
// errno (ENOTDIR when the entry is not a directory).
int open_or_make(int parent, const char *name, mode_t mode) {
  if (mkdirat(parent, name, mode) == 0) {
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    // mkdir applies the umask; the mode asked for is the one wanted.
    if (fchmod(fd, mode) != 0) {
      const int error = errno;
      close(fd);
      errno = error;
      return -1;
    }
    return fd;
  }
  if (errno != EEXIST) return -1;
  // Made a moment ago by another process, or there before.
  return openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// Creates the last component of path in its existing parent: 0, ENOENT
// when the parent is missing too, or another errno.
int make_last(const std::string &path, mode_t mode) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return 0;  // "/"
  const size_t slash = path.rfind('/', end);
  const std::string name = path.substr(slash + 1, end - slash);
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  Fd parent_fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent_fd.get() < 0) return errno;
  Fd made(open_or_make(parent_fd.get(), name.c_str(), mode));
  return made.get() < 0 ? errno : 0;
}

// Creates path component by component from the root (or the working
// directory), parents with kParentMode and the last with mode.
int make_tree(const std::string &path, mode_t mode) {
  constexpr mode_t kParentMode = 0755;
  Fd current(open(path[0] == '/' ? "/" : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (current.get() < 0) return errno;
  size_t start = 0;
  while (start < path.size()) {
    if (path[start] == '/') {
      ++start;
      continue;
    }
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const size_t rest = path.find_first_not_of('/', end);
    const bool last = rest == std::string::npos;
    const std::string name = path.substr(start, end - start);
    const int next = open_or_make(current.get(), name.c_str(), last ? mode : kParentMode);
    if (next < 0) return errno;
    current.reset(next);
    start = end;
  }
  return 0;
}


// The names in the open directory fd, "." and ".." excepted, sorted byte
// for byte. The caller keeps fd. Returns 0 or the errno of reading.
int read_names(int fd, std::vector<std::string> *names) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return errno;
  DIR *dir = fdopendir(copy);
  if (dir == nullptr) {
    const int error = errno;
    close(copy);
    return error;
  }
  // readdir continues from where another walk of the same open file stopped.
  rewinddir(dir);
  int error = 0;
  try {
    for (;;) {
      errno = 0;
      const dirent *entry = readdir(dir);
      if (entry == nullptr) {
        error = errno;
        break;
      }
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
        names->emplace_back(entry->d_name);
      }
    }
    std::sort(names->begin(), names->end());
  } catch (const std::bad_alloc &) {
    error = ENOMEM;
  }
  closedir(dir);
  return error;
}

// The type that the listing reports for name in the directory fd, or -1
// when the entry is gone.
int entry_type(int fd, const char *name) {
  struct stat st;
  if (fstatat(fd, name, &st, 0) == 0) {
    if (S_ISREG(st.st_mode)) return TARN_DIRUTILS_FILE;
    if (S_ISDIR(st.st_mode)) return TARN_DIRUTILS_DIR;
    return TARN_DIRUTILS_OTHER;
  }
  return fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 ? TARN_DIRUTILS_OTHER : -1;
}

// Walks dir for tarn_dirutils_listdir: returns the value that stopped the
// walk or 0, and stores in *error 0 or the reason that nothing was listed.
int list(const char *dir, void *user, tarn_dirutils_listdir_fn callback, int *error) {
  Fd fd(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) {
    *error = errno;
    return 0;
  }
  std::vector<std::string> names;
  *error = read_names(fd.get(), &names);
  if (*error != 0) return 0;
  std::string path(dir);
  if (path.back() != '/') path += '/';
  const size_t prefix = path.size();
  for (const std::string &name : names) {
    const int type = entry_type(fd.get(), name.c_str());
    if (type < 0) continue;
    path.resize(prefix);
    path += name;
    const int result = callback(type, path.c_str(), user);
    if (result != 0) return result;
  }
  return 0;
}

// Keeps the first failure of a walk that goes on after failures.
void note(int *first, int error) {
  if (*first == 0) *first = error;
}

// Removes everything in the open directory fd; symbolic links are unlinked,
// never followed (O_NOFOLLOW also stops a directory that is swapped for a
// link between the check and the open). Returns 0 or the first errno.
int remove_contents(int fd) {
  std::vector<std::string> names;
  int first = read_names(fd, &names);
  for (const std::string &name : names) {
    struct stat st;
    if (fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) note(&first, errno);
      continue;
    }
    int flags = 0;
    if (S_ISDIR(st.st_mode)) {
      Fd child(openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (child.get() < 0) {
        note(&first, errno);
        continue;
      }
      note(&first, remove_contents(child.get()));
      flags = AT_REMOVEDIR;
    }
    if (unlinkat(fd, name.c_str(), flags) != 0 && errno != ENOENT) note(&first, errno);
  }
  return first;
}

int remove_tree(const char *path) {
  Fd fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) return errno == ELOOP ? ENOTDIR : errno;
  int first = remove_contents(fd.get());
  if (rmdir(path) != 0) note(&first, errno);
  return first;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_dirutils_mkdir(const char *path, int mode) try {
  if (path == nullptr || path[0] == '\0') return fail(EINVAL);
  // The common cases are short: the directory exists already (an
  // extractor asks for every file's folder), or only it is missing. The
  // walk from the top runs when a parent is missing too.
  struct stat existing;
  if (stat(path, &existing) == 0 && S_ISDIR(existing.st_mode)) return 0;
  const mode_t bits = (mode_t)mode & 07777;
  int result = make_last(path, bits);
  if (result == ENOENT) result = make_tree(path, bits);
  return result == 0 ? 0 : fail(result);
} catch (const std::bad_alloc &) {
  return fail(ENOMEM);
}

TARNBASE_API int tarn_dirutils_path_transform(const char *in, char *out, size_t out_len) try {
  if (in == nullptr || out == nullptr || out_len == 0) return fail(EINVAL);
  const std::string expanded = tarnbase::expand_exe_relative(in);
  const size_t kept = expanded.size() < out_len ? expanded.size() : out_len - 1;
  memcpy(out, expanded.data(), kept);
  out[kept] = '\0';
  return kept == expanded.size() ? 0 : fail(ENAMETOOLONG);
} catch (const std::bad_alloc &) {
  return fail(ENOMEM);
}

TARNBASE_API int tarn_dirutils_listdir(const char *dir, void *user, tarn_dirutils_listdir_fn callback) {
  int error = EINVAL;
  int result = 0;
  if (dir != nullptr && dir[0] != '\0' && callback != nullptr) {
    try {
      result = list(dir, user, callback, &error);
    } catch (const std::bad_alloc &) {
      error = ENOMEM;
    }
  }
  errno = error;
  return result;
}

TARNBASE_API int tarn_dirutils_rmdir(const char *path) {
  if (path == nullptr || path[0] == '\0') return fail(EINVAL);
  int result = 0;
  try {
    result = remove_tree(path);
  } catch (const std::bad_alloc &) {
    result = ENOMEM;
  }
  return result == 0 ? 0 : fail(result);
}

}  // extern "C"
