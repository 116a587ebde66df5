// Walking a directory tree one entry at a time, in name order, depth first.

#include "tarnbase/tarn_dirwalk.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

namespace {

// One directory being walked: the prefix of its entries' paths (its path
// and a '/'), its names in order, the next one to report, and how far below
// the root it lies.
struct Level {
  std::string prefix;
  std::vector<std::string> names;
  size_t next = 0;
  int depth = 0;
};

int not_dots(const struct dirent *entry) {
  return strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0;
}

int by_name(const struct dirent **a, const struct dirent **b) {
  return strcmp((*a)->d_name, (*b)->d_name);
}

// Reads the names of the directory path, sorted byte for byte, into
// *names. With follow false a symbolic link is refused (O_NOFOLLOW), also
// one swapped in after the entry was examined. Returns 0 or an errno.
int read_names(const std::string &path, bool follow, std::vector<std::string> *names) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
  if (fd < 0) return errno;
  struct dirent **list = nullptr;
  const int count = scandirat(fd, ".", &list, not_dots, by_name);
  const int scan_error = errno;
  close(fd);
  if (count < 0) return scan_error;
  int result = 0;
  try {
    names->reserve((size_t)count);
    for (int i = 0; i < count; ++i) names->emplace_back(list[i]->d_name);
  } catch (const std::bad_alloc &) {
    result = ENOMEM;
  }
  for (int i = 0; i < count; ++i) free(list[i]);
  free(list);
  return result;
}

// The kind of the entry at path, or -1 when it is gone or cannot be
// examined. A dangling link is not a directory, followed or not.
int entry_kind(const std::string &path, bool follow) {
  struct stat st;
  if (follow && stat(path.c_str(), &st) == 0) {
    return S_ISDIR(st.st_mode) ? TARN_DIRWALK_DIR : TARN_DIRWALK_NOT_DIR;
  }
  if (lstat(path.c_str(), &st) != 0) return -1;
  return S_ISDIR(st.st_mode) ? TARN_DIRWALK_DIR : TARN_DIRWALK_NOT_DIR;
}

}  // namespace

struct tarn_dirwalk {
  int max_depth = 0;
  bool follow = false;
  std::vector<Level> levels;  // the directories entered, innermost last
  std::string current;        // the path that the last read returned
};

namespace {

// Enters the directory path (its entries' prefix being prefix) at depth.
// Returns 0 or the errno of reading it.
int enter(tarn_dirwalk *walk, const std::string &path, std::string prefix, int depth, bool follow) {
  Level level;
  const int result = read_names(path, follow, &level.names);
  if (result != 0) return result;
  level.prefix = std::move(prefix);
  level.depth = depth;
  walk->levels.push_back(std::move(level));
  return 0;
}

const char *next_entry(tarn_dirwalk *walk, int *kind) {
  while (!walk->levels.empty()) {
    Level &level = walk->levels.back();
    if (level.next == level.names.size()) {
      walk->levels.pop_back();
      continue;
    }
    walk->current = level.prefix + level.names[level.next++];
    const int found = entry_kind(walk->current, walk->follow);
    if (found < 0) continue;
    if (found == TARN_DIRWALK_DIR && level.depth < walk->max_depth) {
      // A directory that cannot be read is reported without its entries.
      (void)enter(walk, walk->current, walk->current + "/", level.depth + 1, walk->follow);
    }
    if (kind != nullptr) *kind = found;
    errno = 0;
    return walk->current.c_str();
  }
  errno = 0;
  return nullptr;
}

}  // namespace

extern "C" {

TARNBASE_API tarn_dirwalk_t *tarn_dirwalk_create(const char *root, int depth, int flags, int *err) {
  int error = 0;
  tarn_dirwalk *walk = nullptr;
  if (root == nullptr || root[0] == '\0' || depth < 0 || (flags & ~TARN_DIRWALK_FOLLOW_LINKS) != 0) {
    error = EINVAL;
  } else {
    try {
      walk = new tarn_dirwalk;
      walk->max_depth = depth;
      walk->follow = (flags & TARN_DIRWALK_FOLLOW_LINKS) != 0;
      std::string prefix(root);
      if (prefix.back() != '/') prefix += '/';
      // The root is opened as named, through a link if it is one.
      error = enter(walk, root, std::move(prefix), 0, true);
    } catch (const std::bad_alloc &) {
      error = ENOMEM;
    }
  }
  if (err != nullptr) *err = error;
  if (error != 0) {
    delete walk;
    walk = nullptr;
    errno = error;
  }
  return walk;
}

TARNBASE_API const char *tarn_dirwalk_read(tarn_dirwalk_t *walk, int *kind) {
  if (walk == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    return next_entry(walk, kind);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return nullptr;
  }
}

TARNBASE_API void tarn_dirwalk_close(tarn_dirwalk_t *walk) { delete walk; }

}  // extern "C"
