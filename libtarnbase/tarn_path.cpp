// Questions about paths, and path text edited in place.

#include "tarnbase/tarn_path.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

namespace {

bool is_separator(char c) { return c == '/' || c == '\\'; }

bool is_slash(char c) { return c == '/'; }

// Drops the last component of path in place, separators as told by
// separator; see tarn_path_remove_name_w.
char *remove_name(char *path, bool (*separator)(char)) {
  if (path == nullptr) return nullptr;
  const bool absolute = separator(path[0]);
  size_t end = strlen(path);
  // Trailing separators, then the name itself, then the separators before it.
  while (end > 0 && separator(path[end - 1])) --end;
  while (end > 0 && !separator(path[end - 1])) --end;
  while (end > 0 && separator(path[end - 1])) --end;
  if (end == 0 && absolute) {
    // Nothing is left above the root but the root itself.
    path[0] = '/';
    end = 1;
  }
  path[end] = '\0';
  return path;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_path_is_exist_u(const char *path) { return tarn_path_is_exist_safe_u(path, nullptr); }

TARNBASE_API int tarn_path_is_exist_safe_u(const char *path, int *err) {
  int result = 0;
  if (path == nullptr || path[0] == '\0') {
    result = EINVAL;
  } else {
    struct stat st;
    if (stat(path, &st) != 0) result = errno;
  }
  if (err != nullptr) *err = result;
  return result == 0 ? 1 : 0;
}

TARNBASE_API int tarn_path_is_dir_u(const char *path) {
  if (path == nullptr || path[0] == '\0') return 0;
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

TARNBASE_API char *tarn_path_remove_name_w(char *path) { return remove_name(path, is_separator); }

TARNBASE_API char *tarn_path_format_u(char *path) {
  if (path == nullptr) return nullptr;
  size_t out = 0;
  for (size_t in = 0; path[in] != '\0'; ++in) {
    const char c = path[in] == '\\' ? '/' : path[in];
    if (c == '/' && out > 0 && path[out - 1] == '/') continue;
    path[out++] = c;
  }
  if (out > 1 && path[out - 1] == '/') --out;
  path[out] = '\0';
  return path;
}

TARNBASE_API const char *tarn_path_get_ext_u(const char *path) {
  if (path == nullptr) return "";
  const char *name = strrchr(path, '/');
  name = name != nullptr ? name + 1 : path;
  const char *dot = strrchr(name, '.');
  return dot != nullptr ? dot : name + strlen(name);
}

TARNBASE_API char *tarn_path_remove_ext_u(char *path) {
  if (path == nullptr) return nullptr;
  // The extension always lies within path, so the cast only restores the
  // caller's own mutable pointer.
  const_cast<char *>(tarn_path_get_ext_u(path))[0] = '\0';
  return path;
}

TARNBASE_API char *tarn_path_remove_name_u(char *path) { return remove_name(path, is_slash); }

TARNBASE_API const char *tarn_path_get_name_u(const char *path) {
  if (path == nullptr) return "";
  const char *slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // extern "C"
