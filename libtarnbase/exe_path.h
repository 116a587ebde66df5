// "@" paths: a path that begins with "@" is taken relative to the directory
// of the running executable. Shared by the log directory of
// tarn_autolog_init and tarn_dirutils_path_transform.
#ifndef TARNBASE_EXE_PATH_H
#define TARNBASE_EXE_PATH_H

#include <string>

namespace tarnbase {

// Returns path with a leading "@" replaced by the executable's directory
// (no separator added), or with the "@" dropped when the executable's path
// cannot be read. Any other path comes back unchanged.
std::string expand_exe_relative(const char *path);

}  // namespace tarnbase

#endif
