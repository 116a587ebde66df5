// Directories: creating a tree with an exact mode, and "@" paths.

#include "tarnbase/tarn_dirutils.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "exe_path.h"

namespace {

int fail(int error) {
  errno = error;
  return error;
}

// Creates one directory with exactly mode. Returns 0 also when a directory
// is already there (made by another process a moment ago, perhaps).
int make_one(const std::string &path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) {
    // mkdir applies the umask; the mode asked for is the one wanted.
    return chmod(path.c_str(), mode) == 0 ? 0 : errno;
  }
  const int error = errno;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  return error;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_dirutils_mkdir(const char *path, int mode) {
  if (path == nullptr || path[0] == '\0') return fail(EINVAL);
  const std::string full(path);
  const mode_t bits = (mode_t)mode & 07777;
  // Each prefix that ends before a '/', then the whole path.
  for (size_t end = full.find('/', 1); end != std::string::npos; end = full.find('/', end + 1)) {
    if (full[end - 1] == '/') continue;
    const int result = make_one(full.substr(0, end), bits);
    if (result != 0) return fail(result);
  }
  const int result = make_one(full, bits);
  return result == 0 ? 0 : fail(result);
}

TARNBASE_API int tarn_dirutils_path_transform(const char *in, char *out, size_t out_len) {
  if (in == nullptr || out == nullptr || out_len == 0) return fail(EINVAL);
  const std::string expanded = tarnbase::expand_exe_relative(in);
  const size_t kept = expanded.size() < out_len ? expanded.size() : out_len - 1;
  memcpy(out, expanded.data(), kept);
  out[kept] = '\0';
  return kept == expanded.size() ? 0 : fail(ENAMETOOLONG);
}

}  // extern "C"
