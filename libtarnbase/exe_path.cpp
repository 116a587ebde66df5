#include "exe_path.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "tarnbase/tarn_process.h"

namespace tarnbase {

std::string expand_exe_relative(const char *path) {
  if (path[0] != '@') return path;
  char exe[PATH_MAX];
  if (tarn_process_get_path(getpid(), exe, sizeof(exe)) < 0) return path + 1;
  char *slash = strrchr(exe, '/');
  if (slash != nullptr) *slash = '\0';
  return std::string(exe) + (path + 1);
}

}  // namespace tarnbase
