// Replacing a file whole and crash-safely: the new content goes to a
// temporary file beside the target, "<path>.tmp.<pid>.<n>" (created 0600,
// never through a link), which is then renamed over it. rename(2) swaps the name in one step, so a process that
// dies at any moment leaves the complete old or the complete new file.
#ifndef TARNBASE_REPLACE_FILE_H
#define TARNBASE_REPLACE_FILE_H

#include <sys/types.h>

#include <functional>

namespace tarnbase {

// Writes the new content to fd; returns 0 or an errno value.
using WriteContent = std::function<int(int fd)>;

struct ReplaceOptions {
  // fsync the new file before the rename and the directory after it, so
  // that the new content is on the disk when replace_file returns. Once the
  // rename is done the replacement has happened: a directory that cannot be
  // synced is not reported.
  bool durable = false;
  // Permission bits of the new file. Null: those of the regular file it
  // replaces (with its owner and group where the caller may set them), or,
  // for a new file or one that replaces a link, 0666 less the umask. The
  // temporary file is made 0600 and given these bits before it is placed.
  const mode_t *mode = nullptr;
  // Fail with EEXIST, leaving it as it is, when something is at path
  // already: the new file is linked to path instead of renamed over it, so
  // that the check and the placing are one step.
  bool no_replace = false;
};

// Replaces path with what write puts into the temporary file (or, with
// no_replace, places it there). Returns 0, or the errno of the failed step;
// on failure path is unchanged and the temporary file is removed.
int replace_file(const char *path, const WriteContent &write, const ReplaceOptions &options);

// Writes all of data to fd, retrying after signals; returns 0 or an errno.
int write_all(int fd, const void *data, size_t size);

}  // namespace tarnbase

#endif
