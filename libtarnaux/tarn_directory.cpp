// The install root, the app home read from its record, the backup trees
// below the data root, and the expansion of "@"-paths. Nothing is kept
// between calls: every answer is built afresh into the caller's buffer.

#include "tarn_directory.h"

#include <string.h>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"

namespace {

constexpr char kBackupComponentsSuffix[] = "/velmora/TARN3_BACKUP/tarn_components";
constexpr char kBackupTmpSuffix[] = "/velmora/TARN3_BACKUP/var/tmp";

// The data root followed by suffix, for the two backup trees. Returns 1
// with the path in out, or 0.
int32_t backup_tree_path(char *out, int32_t out_len, const char *suffix, bool tmp) {
  if (out == nullptr || out_len <= 0) {
    LOG(warn, "invalid parameter\n");
    return 0;
  }
  char data_root[TARN_PATH_BUFFER_SIZE];
  memset(data_root, 0, sizeof(data_root));
  if (tarn_log_dir(data_root, sizeof(data_root)) == 0) {
    LOG(warn, "get log dir is error\n");
    return 0;
  }
  tarn_str_snprintf(out, (size_t)out_len, "%s%s", data_root, suffix);
  if (tmp) {
    LOG(info, "tmp path %s\n", out);
  } else {
    LOG(info, "backup_path %s\n", out);
  }
  return 1;
}

// Resolves the "." and ".." components of a path in "/" form by its text
// alone, without looking at the disk: "/a/b/../c" becomes "/a/c", ".."
// above "/" stays at "/", and a relative path keeps its leading "..".
void resolve_dots(char *path) {
  const size_t base = path[0] == '/' ? 1 : 0;
  size_t out = base;   // end of the resolved part, never beyond in
  size_t kept = base;  // end of the leading ".." of a relative path
  size_t in = base;
  while (path[in] != '\0') {
    size_t end = in;
    while (path[end] != '\0' && path[end] != '/') ++end;
    const size_t length = end - in;
    const bool dot = length == 1 && path[in] == '.';
    const bool dot_dot = length == 2 && path[in] == '.' && path[in + 1] == '.';
    if (dot_dot && out > kept) {
      while (out > kept && path[out - 1] != '/') --out;
      if (out > kept) --out;
    } else if (!dot && !(dot_dot && base == 1)) {
      if (out > base) path[out++] = '/';
      memmove(path + out, path + in, length);
      out += length;
      if (dot_dot) kept = out;
    }
    in = path[end] == '/' ? end + 1 : end;
  }
  path[out] = '\0';
}

}  // namespace

extern "C" {

TARNAUX_API int32_t get_tarn_path(char *buf, int32_t len) {
  if (buf == nullptr || len < 1) return 1;
  tarn_strlcpy(buf, TARN_INSTALL_ROOT, (size_t)len);
  return 0;
}

TARNAUX_API int32_t is_path_in_tarn(const char *path) {
  char dir[TARN_PATH_BUFFER_SIZE];
  memset(dir, 0, sizeof(dir));
  tarn_strncpy(dir, path, sizeof(dir));
  char root[TARN_PATH_BUFFER_SIZE];
  memset(root, 0, sizeof(root));
  get_tarn_path(root, sizeof(root));

  // What lies inside is decided by the directory that holds path, once
  // its ".." components are resolved: .../TARN/../../x is not inside.
  tarn_path_format_u(dir);
  resolve_dots(dir);
  tarn_path_remove_name_w(dir);
  tarn_path_format_u(root);
  // A plain prefix test of the root's length: a sibling such as
  // /usr/share/velmora/TARNX counts as inside as well.
  return tarn_strnicmp(dir, root, strlen(root)) == 0 ? 1 : 0;
}

TARNAUX_API int32_t get_apphome_dir_name(const char *ini_path, char *out, uint32_t out_len,
                                         const char *suffix) {
  if (ini_path == nullptr || out == nullptr || out_len == 0) {
    LOG(warn, "get_apphome_dir_name failed: argument error\n");
    return -1;
  }
  char key[TARN_KEY_BUFFER_SIZE];
  memset(key, 0, sizeof(key));
  if (suffix != nullptr) {
    tarn_str_snprintf(key, sizeof(key), TARN_APPHOME_KEY "_%s", suffix);
  } else {
    tarn_strlcpy(key, TARN_APPHOME_KEY, sizeof(key));
  }

  // A plain read without the record's lock: writers replace the file whole,
  // so a load sees either the old or the new record (or, in the moment of a
  // replacement, none).
  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  if (!ini) {
    LOG(debug, "tarn_ini_file_load is failed, path is %s.\n", ini_path);
    return -1;
  }
  const char *name = tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, key);
  if (name != nullptr && tarn_apphome_is_dir_name(name)) {
    tarn_str_snprintf(out, out_len, "%s", name);
    return 0;
  }
  LOG(warn, "app_home is empty in %s\n", ini_path);
  return 1;
}

TARNAUX_API int32_t get_apphome_path_main(char *out, int32_t out_len) {
  if (out == nullptr || out_len < 1) return 1;
  char root[TARN_PATH_BUFFER_SIZE];
  memset(root, 0, sizeof(root));
  if (get_tarn_path(root, sizeof(root)) != 0) return 1;

  char record[TARN_PATH_BUFFER_SIZE];
  memset(record, 0, sizeof(record));
  tarn_str_snprintf(record, sizeof(record), "%s/%s", root, TARN_APPHOME_FILE_NAME);
  char name[TARN_PATH_BUFFER_SIZE];
  memset(name, 0, sizeof(name));
  if (get_apphome_dir_name(record, name, sizeof(name), nullptr) != 0) return 1;

  tarn_str_snprintf(out, (size_t)out_len, "%s/%s", root, name);
  return 0;
}

TARNAUX_API int32_t get_backup_path(char *out, int32_t out_len) {
  return backup_tree_path(out, out_len, kBackupComponentsSuffix, false);
}

TARNAUX_API int32_t get_backup_tmp_path(char *out, int32_t out_len) {
  return backup_tree_path(out, out_len, kBackupTmpSuffix, true);
}

TARNAUX_API void tarn_agent_path_transform(const char *in, char *out, size_t out_len) {
  if (in == nullptr || out == nullptr || out_len == 0) {
    LOG(warn, "path transform input invalid parameter\n");
    return;
  }
  if (in[0] != '@') {
    tarn_str_snprintf(out, out_len, "%s", in);
    return;
  }
  char apphome[TARN_PATH_BUFFER_SIZE];
  memset(apphome, 0, sizeof(apphome));
  if (get_apphome_path_main(apphome, sizeof(apphome)) == 1) {
    // No app home recorded: the base library expands "@" relative to the
    // running executable instead.
    tarn_dirutils_path_transform(in, out, out_len);
    return;
  }
  // "@rest" is the app home's bin directory followed by rest as it stands:
  // no separator is inserted.
  tarn_str_snprintf(out, out_len, "%s/bin%s", apphome, in + 1);
}

}  // extern "C"
