// App home helpers of the upgrade tools: the install root as an allocated
// string, the locked readers of the record, its writer, and the upgrade
// lock counter kept in it. The record's lock is held while it is loaded
// (and, by the writer, until it is saved); the backup record is not
// touched here.
//
// Package helpers: the presence check of a component's file, path pieces
// found in the caller's buffer, shell commands whose output is logged, and
// package archives unpacked by the system's tar.
//
// Upgrade support (internal): the exit information file, the agent id
// directory, the backup tool started as a process of its own, and single
// files copied or moved into place.

#include "tarn_utils.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_shell.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>

#include "com_info_internal.h"
#include "log_frame.h"
#include "parameter_parsing.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"
#include "untgz.h"
#include "utils_internal.h"

// Last: libgen.h turns basename into the POSIX version, which must not
// rename the GNU declarations of string.h.
#include <libgen.h>

namespace {

// The output of the last command that execute_cmd ran, shared by every call.
char g_command_output[102400];

struct FreeString {
  void operator()(char *text) const { free(text); }
};
using StringPtr = std::unique_ptr<char, FreeString>;

// The system's tar as unpack_tgz runs it, without a shell. GNU tar run by
// root restores the owners recorded in the archive and every mode bit,
// set-user-ID and set-group-ID included, and gives directories that exist
// (the destination too) the archive's modes; the options make it extract
// as it does for an ordinary user: files owned by the caller, modes
// filtered by the umask and without set-ID bits, directories that exist
// left as they are, and no extended attributes, ACLs or SELinux contexts
// from the archive. Its environment is this one alone: no TAR_OPTIONS (the
// caller's could loosen tar's checks, -P), no GZIP, and a fixed PATH for
// the gzip that -z runs.
constexpr char kTarPath[] = "/bin/tar";
const char *const kTarArguments[] = {"tar",          "--no-same-owner", "--no-same-permissions",
                                     "--no-overwrite-dir", "--no-xattrs", "--no-acls",
                                     "--no-selinux", "-zxf",            "-",
                                     "-C"};  // the destination follows
char *const kTarEnvironment[] = {const_cast<char *>("PATH=/usr/bin:/bin"), nullptr};

// Characters that end the quoting of text written into a command line
// between double quotes (also inside single quotes around those), and
// those that a shell interprets in a word written without quotes.
constexpr char kEndsQuotedText[] = "\"$`\\'";
constexpr char kEndsUnquotedText[] = "\"$`\\' |&;<>()*?[]{}#~!";
constexpr size_t kRefusedTextShown = 2048;

// execute_cmd's line for a command that ended with code, its output in
// g_command_output.
void log_command(int32_t code, const char *command) {
  LOG(info, "exitcode:[%d] cmd:[%s] cmd_result:[%s]\n", code, command, g_command_output);
}

// Appends a blank and word to the command line in line (size bytes in all).
void append_word(char *line, size_t size, const char *word) {
  tarn_str_strncat(line, " ", size);
  tarn_str_strncat(line, word, size);
}

// The record's path below the install root.
void record_path_of(char (&path)[TARN_PATH_BUFFER_SIZE], const char *root) {
  tarn_str_snprintf(path, sizeof(path), "%s/%s", root, TARN_APPHOME_FILE_NAME);
}

}  // namespace

bool refuse_shell_text(const char *text, ShellQuoting quoting) {
  const char *special = quoting == SHELL_TEXT_UNQUOTED ? kEndsUnquotedText : kEndsQuotedText;
  bool refused = false;
  for (const unsigned char *p = (const unsigned char *)text; *p != '\0' && !refused; ++p) {
    refused = *p < 0x20 || *p == 0x7f || strchr(special, *p) != nullptr;
  }
  if (!refused) return false;
  // Control characters are shown as \xHH, so that the line stays one line.
  char shown[kRefusedTextShown];
  size_t used = 0;
  for (const unsigned char *p = (const unsigned char *)text; *p != '\0' && used + 5 < sizeof(shown); ++p) {
    if (*p < 0x20 || *p == 0x7f) {
      used += (size_t)snprintf(shown + used, sizeof(shown) - used, "\\x%02x", *p);
    } else {
      shown[used++] = (char)*p;
    }
  }
  shown[used] = '\0';
  LOG(warn, "refused text for a shell command: [%s]\n", shown);
  return true;
}

int32_t tarn_get_upgrade_lock_count(void) {
  char record[TARN_PATH_BUFFER_SIZE];
  memset(record, 0, sizeof(record));
  {
    StringPtr root(get_tarn_root_dir());
    record_path_of(record, root.get());
  }
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, record);

  TarnFileLock lock;
  int ret = lock.init(lock_path);
  if (ret != 0) {
    LOG(warn, "tarn_flock_init is failed, ret is %d\n", ret);
    return 0;
  }
  ret = lock.acquire();
  if (ret != 0) {
    LOG(warn, "tarn_flock_acquire is failed, ret is %d\n", ret);
    return 0;
  }
  TarnIniPtr ini(tarn_ini_file_load(record));
  lock.close();
  if (!ini) {
    LOG(info, "tarn_ini_file_load is failed, path is %s.\n", record);
    return 0;
  }
  const char *value =
      tarn_ini_file_get(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_UPGRADE_LOCK_COUNT_KEY);
  const int32_t count = value != nullptr ? (int32_t)strtol(value, nullptr, 10) : 0;
  LOG(info, "get %s upgrade_lock_count %d\n", record, count);
  return count;
}

extern "C" {

TARNAUX_API char *get_tarn_root_dir(void) {
  // The shared allocator is calloc behind an exported name: free() releases
  // its blocks, and tests can make it fail.
  char *root = static_cast<char *>(tarn_zero_malloc_(sizeof(TARN_INSTALL_ROOT)));
  if (root == nullptr) LOG_OUT_OF_MEMORY();
  memcpy(root, TARN_INSTALL_ROOT, sizeof(TARN_INSTALL_ROOT));
  return root;
}

TARNAUX_API int32_t get_app_home_dir(const char *ini_path, char *out, uint32_t out_len,
                                     const char *suffix) {
  if (ini_path == nullptr || out == nullptr || out_len == 0) return -1;
  char key[TARN_KEY_BUFFER_SIZE];
  memset(key, 0, sizeof(key));
  if (suffix != nullptr) {
    tarn_str_snprintf(key, sizeof(key), TARN_APPHOME_KEY "_%s", suffix);
  } else {
    tarn_strlcpy(key, TARN_APPHOME_KEY, sizeof(key));
  }

  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, ini_path);
  // The lock covers the load only, and a lock that cannot be had does not
  // stop the read: the record is replaced whole, so an unlocked load still
  // sees a complete file.
  TarnFileLock lock;
  if (lock.init(lock_path) == 0) lock.acquire();
  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  lock.close();

  if (!ini) {
    LOG(warn, "qiv_eni_file_load is failed, path is %s.\n", ini_path);
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

TARNAUX_API int32_t get_app_home_path(const char *suffix, char *out, uint32_t out_len) {
  StringPtr root(get_tarn_root_dir());
  if (out == nullptr || out_len == 0) return 1;

  char record[TARN_PATH_BUFFER_SIZE];
  memset(record, 0, sizeof(record));
  record_path_of(record, root.get());
  char name[TARN_PATH_BUFFER_SIZE];
  memset(name, 0, sizeof(name));
  if (get_app_home_dir(record, name, sizeof(name), suffix) != 0) {
    LOG(info, "apphome cannot be fetched or does not exist and will be regenerated\n");
    return 1;
  }
  tarn_str_snprintf(out, out_len, "%s/%s", root.get(), name);
  return 0;
}

TARNAUX_API int32_t update_app_home_dir(const char *ini_path, const char *app_home,
                                        const char *suffix, const char *companion_home) {
  if (ini_path == nullptr || app_home == nullptr) return 1;
  char companion_key[TARN_KEY_BUFFER_SIZE];
  memset(companion_key, 0, sizeof(companion_key));
  if (suffix != nullptr) {
    tarn_str_snprintf(companion_key, sizeof(companion_key), "%s_%s", TARN_APPHOME_KEY, suffix);
  }

  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, ini_path);
  TarnFileLock lock;
  int ret = lock.init(lock_path);
  if (ret != 0) {
    LOG(warn, "flock init failed with errcode %d\n", ret);
    return 1;
  }
  ret = lock.acquire();
  if (ret != 0) {
    LOG(warn, "flock acquire failed with errcode %d\n", ret);
    return 1;
  }

  // Loading the whole record keeps every other section and key.
  TarnIniPtr ini(tarn_ini_file_load(ini_path));
  if (!ini) {
    ini.reset(tarn_ini_file_load(nullptr));
    LOG(info, "after load\n");
  }
  ret = ini ? 0 : ENOMEM;
  if (ret == 0) ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, TARN_APPHOME_KEY, app_home);
  if (ret == 0 && suffix != nullptr && companion_home != nullptr) {
    ret = tarn_ini_file_set(ini.get(), TARN_APPHOME_SECTION, companion_key, companion_home);
  }
  if (ret == 0) ret = tarn_ini_file_save_directio(ini.get(), ini_path, 0);
  if (ret != 0) LOG(warn, "update tarn_apphome.ini failed, result is %d\n", ret);
  return ret;
}

TARNAUX_API int32_t check_file_hash(const char *path, const char *hash) {
  if (path == nullptr || hash == nullptr) {
    LOG(warn, "Invalid input\n");
    return 1;
  }
  // Presence only: the digest is recorded in the log, not verified.
  if (access(path, F_OK) != 0) {
    LOG(warn, "file does not exist, file path:%s\n", path);
    return 1;
  }
  LOG(info, "file: %s hash: %s\n", path, hash);
  return 0;
}

TARNAUX_API int32_t execute_cmd(const char *cmd) {
  if (cmd == nullptr) {
    LOG(warn, "Invalid input\n");
    return -1;
  }
  const int32_t code = tarn_shell_execute(cmd, g_command_output, sizeof(g_command_output));
  log_command(code, cmd);
  return code;
}

TARNAUX_API int32_t execute_command(const char *program, struct argment_paras *handle) {
  if (program == nullptr || handle == nullptr) return (int32_t)0xFFFFFFFF;
  const size_t size = ((size_t)argment_paras_get_args_count(handle) + 1) * 1025 + 3;
  std::unique_ptr<char, decltype(&tarn_free_)> line(static_cast<char *>(tarn_zero_malloc_(size)),
                                                    tarn_free_);
  if (!line) LOG_OUT_OF_MEMORY();
  tarn_strlcpy(line.get(), program, size);
  append_word(line.get(), size, "-p");

  const uint32_t options = argment_paras_get_option_count(handle);
  for (uint32_t i = 0; i < options; ++i) {
    const char *option = argment_paras_get_option_pos_at(handle, (int32_t)i);
    append_word(line.get(), size, option);
    const uint32_t arguments = argment_paras_get_option_args_count(handle, option);
    for (uint32_t j = 0; j < arguments; ++j) {
      const char *argument = argment_paras_get_option_arg_pos_at(handle, option, (int32_t)j);
      if (argument != nullptr && strchr(argument, ' ') != nullptr) {
        // Quote, blank, quote for each blank keeps the argument one word.
        char quoted[1124];
        tarn_strlcpy(quoted, argument, sizeof(quoted));
        tarn_str_replace(quoted, sizeof(quoted), " ", "\" \"", 1);
        append_word(line.get(), size, quoted);
      } else {
        append_word(line.get(), size, argument);
      }
    }
  }
  LOG(info, "run child packman, cmd is %s\n", line.get());
  return execute_cmd(line.get());
}

TARNAUX_API char *get_basename(char *path) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  return tarn_path_remove_ext_u(basename(path));
}

TARNAUX_API char *get_basedir(char *path) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  return dirname(path);
}

TARNAUX_API int32_t unpack_tgz(const char *archive, const char *dest) {
  if (archive == nullptr || dest == nullptr || tarn_path_is_dir_u(dest) == 0 ||
      strcmp(tarn_path_get_ext_u(archive), ".tgz") != 0) {
    return 1;
  }
  // The command line below is the one logged, and it must be safe to run
  // as it stands: nothing in it may end its quotes.
  if (refuse_shell_text(archive, SHELL_TEXT_QUOTED) || refuse_shell_text(dest, SHELL_TEXT_QUOTED)) {
    return 1;
  }
  // Noted before tar runs: only what this unpack made is removed after it.
  const UnpackCache cache(archive, dest);
  // Only a regular file within the bound, checked without blocking on a
  // FIFO; anything else is refused as a missing archive is.
  const int input = tarn_file_open_regular(archive, UNTGZ_ARCHIVE_MAX_BYTES);
  if (input < 0) return 1;
  char command[2048];
  memset(command, 0, sizeof(command));
  tarn_str_snprintf(command, sizeof(command), "tar -zxf \"%s\" -C \"%s\"", archive, dest);
  // The command line names the archive and says what was unpacked; tar
  // itself runs without a shell, reads the checked descriptor on its
  // standard input ("-f -") and never opens the path, so that a FIFO put in
  // the archive's place after the check cannot block it (nor another file
  // be unpacked), and can make no device node or FIFO.
  constexpr size_t kFixed = sizeof(kTarArguments) / sizeof(kTarArguments[0]);
  char *argv[kFixed + 2];
  for (size_t i = 0; i < kFixed; ++i) argv[i] = const_cast<char *>(kTarArguments[i]);
  argv[kFixed] = const_cast<char *>(dest);
  argv[kFixed + 1] = nullptr;
  const int32_t code = tarn_process_run(kTarPath, argv, kTarEnvironment, input,
                                        TARN_PROCESS_NO_SPECIAL_FILES, g_command_output,
                                        sizeof(g_command_output));
  log_command(code, command);
  close(input);
  if (code == 0) return 0;

  LOG(warn, "unzip tgz failed with %d, cmd:%s\n", code, command);
  // What tar unpacked before it failed goes, so that a retry starts clean.
  cache.remove();
  return code;
}

}  // extern "C"

// ---------------------------------------------------------------------------
// Upgrade support.

namespace {

// Directories below the data root (appended to it without a separator),
// both shared by every process of the agent, whatever its user (0777, or
// 0770 for an agent group).
constexpr char kConfigDir[] = "/velmora/TARN3_CFG";
constexpr char kAgentIdDir[] = "/velmora/TARN3_CFG/agent_id/";
constexpr unsigned kSharedDirMode = 0777;

constexpr char kExitInfoFileName[] = "tarn_exit_info.eni";
constexpr char kExitInfoSection[] = "config";

// The app home path and the backup tool's path are given room beyond a
// path buffer; the command line that holds the tool's path is not.
constexpr size_t kBackupPathSize = 4096;
constexpr size_t kBackupCommandSize = 1024;

constexpr int kDestDirMode = 0755;

// Writes the data root followed by subdir into path, creates that
// directory when it is not one (parents 0755, the directory shared 0777)
// and opens it without following a link below the data root into *dir;
// a failure shows in whatever the caller does there next (*dir is then
// -1). Returns false when there is no data root.
bool make_data_dir(char (&path)[TARN_PATH_BUFFER_SIZE], const char *subdir, TarnFd *dir) {
  memset(path, 0, sizeof(path));
  const int root_length = tarn_log_dir(path, sizeof(path));
  if (root_length == 0) return false;
  char root[TARN_PATH_BUFFER_SIZE];
  memset(root, 0, sizeof(root));
  tarn_strlcpy(root, path, sizeof(root));
  tarn_str_strncat(path, subdir, sizeof(path));
  dir->reset(tarn_open_shared_dir(root, subdir, path, kSharedDirMode));
  return true;
}

// Gives every entry below the open directory dir, and dir itself, the
// access that the agent shares (tarn_file_share_fd: with an agent group
// 0770 and that group, else 0777), without following a link: links are
// left alone and directories are entered through descriptors opened
// without following one. Entries deeper than kShareDepth are left as they
// are, so that a tree that others made cannot exhaust the stack.
constexpr int kShareDepth = 32;
void share_tree(int dir, int depth) {
  (void)tarn_file_share_fd(dir, kSharedDirMode);
  if (depth >= kShareDepth) return;
  const int copy = fcntl(dir, F_DUPFD_CLOEXEC, 0);
  DIR *stream = copy < 0 ? nullptr : fdopendir(copy);
  if (stream == nullptr) {
    if (copy >= 0) close(copy);
    return;
  }
  while (const dirent *entry = readdir(stream)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    struct stat st;
    if (fstatat(dir, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || S_ISLNK(st.st_mode)) continue;
    if (S_ISDIR(st.st_mode)) {
      const TarnFd child(openat(dir, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (child.get() >= 0) share_tree(child.get(), depth + 1);
      continue;
    }
    const TarnFd child(openat(dir, entry->d_name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (child.get() >= 0) (void)tarn_file_share_fd(child.get(), kSharedDirMode);
  }
  closedir(stream);
}

// Sets the exit type and the current time in ini.
int set_exit_info(tarn_ini_t *ini, int32_t exit_type) {
  char exit_time[32];
  memset(exit_time, 0, sizeof(exit_time));
  tarn_str_snprintf(exit_time, sizeof(exit_time), "%ld", tarn_time());
  int ret = tarn_ini_file_set_int(ini, kExitInfoSection, "exit_type", exit_type);
  if (ret == 0) ret = tarn_ini_file_set(ini, kExitInfoSection, "exit_time", exit_time);
  return ret;
}

// Loads the ini file at path when it is a regular file itself (not a link
// to one); null otherwise. The file is opened once without following a
// link and loaded through that descriptor, so it cannot be swapped for a
// link between the check and the load.
tarn_ini_t *load_regular_ini(const char *path) {
  const TarnFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  char opened[64];
  memset(opened, 0, sizeof(opened));
  tarn_str_snprintf(opened, sizeof(opened), "/proc/self/fd/%d", fd.get());
  return tarn_ini_file_load(opened);
}

// Refuses a null (-1) or empty (1) source or destination path; 0 lets both
// through.
int32_t refuse_paths(const char *src, const char *dst) {
  if (src == nullptr || dst == nullptr) return -1;
  if (src[0] == '\0' || dst[0] == '\0') return 1;
  return 0;
}

// Creates the directory that is to hold dst (with its parents).
void make_dest_dir(const char *dst) {
  char copy[TARN_PATH_BUFFER_SIZE];
  memset(copy, 0, sizeof(copy));
  tarn_strlcpy(copy, dst, sizeof(copy));
  const char *dir = get_basedir(copy);
  if (dir != nullptr && tarn_dirutils_mkdir(dir, kDestDirMode) != 0) {
    LOG(warn, "create dest dir [%s] failed\n", dir);
  }
}

// Gives dst the permission bits of src: 0, or 1 when src cannot be
// examined or dst cannot be changed. A link at either is not followed
// (and is 1): one put at dst after the copy must not pass src's mode to
// what it names.
int32_t copy_mode(const char *src, const char *dst) {
  struct stat st;
  if (lstat(src, &st) != 0 || S_ISLNK(st.st_mode)) return 1;
  return fchmodat(AT_FDCWD, dst, st.st_mode & 07777, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : 1;
}

// Puts src at dst with place (a copy or a move, named by verb in the
// failure message), its directory created first. Returns 0, the refusal of
// refuse_paths, or place's error.
int32_t place_file(const char *src, const char *dst, int (*place)(const char *, const char *),
                   const char *verb) {
  const int32_t refused = refuse_paths(src, dst);
  if (refused != 0) return refused;
  make_dest_dir(dst);
  const int ret = place(src, dst);
  if (ret != 0) {
    const int error = errno;
    LOG(warn, "%s file failed from [%s] to [%s], errcode: %d\n", verb, src, dst, error);
  }
  return ret;
}

}  // namespace

int32_t tarn_update_exit_info(int32_t exit_type) {
  char dir[TARN_PATH_BUFFER_SIZE];
  TarnFd config;
  if (!make_data_dir(dir, kConfigDir, &config)) {
    LOG(warn, "get log dir is error\n");
    return -1;
  }
  char path[TARN_PATH_BUFFER_SIZE];
  char lock_path[TARN_PATH_BUFFER_SIZE];
  memset(path, 0, sizeof(path));
  memset(lock_path, 0, sizeof(lock_path));
  tarn_str_snprintf(path, sizeof(path), "%s/%s", dir, kExitInfoFileName);
  tarn_str_snprintf(lock_path, sizeof(lock_path), TARN_LOCK_PATH_FORMAT, path);

  TarnFileLock lock;
  int ret = lock.init(lock_path);
  if (ret != 0) {
    LOG(warn, "flock init failed with errcode %d\n", ret);
    return ret;
  }
  ret = lock.acquire();
  if (ret != 0) {
    LOG(warn, "flock acquire failed with errcode %d\n", ret);
    return ret;
  }
  // Other processes' keys in the file are kept; a file that cannot be
  // loaded is started afresh, and so is a link: the directory is open to
  // every user, and what a link there names must not be read into a file
  // that every user may read.
  TarnIniPtr ini(load_regular_ini(path));
  if (!ini) {
    ini.reset(tarn_ini_file_load(nullptr));
    LOG(info, "after load\n");
  }
  ret = ini ? set_exit_info(ini.get(), exit_type) : ENOMEM;
  if (ret == 0) ret = tarn_ini_file_save_directio(ini.get(), path, 0);
  if (ret != 0) {
    LOG(warn, "update %s failed, result is %d\n", path, ret);
    return ret;
  }
  LOG(info, "update file %s is successed, exit type is %d\n", path, exit_type);
  return 0;
}

int32_t set_tarn_agentid_dir(void) {
  char dir[TARN_PATH_BUFFER_SIZE];
  TarnFd agent_id;
  // The configuration directory first: it is shared too, not a parent.
  if (!make_data_dir(dir, kConfigDir, &agent_id) || !make_data_dir(dir, kAgentIdDir, &agent_id)) {
    LOG(warn, "set_tarn_agentid_dir failed! \n");
    return 0;
  }
  // The directory stands in the command line without quotes.
  if (refuse_shell_text(dir, SHELL_TEXT_UNQUOTED)) return 0;
  char command[TARN_PATH_BUFFER_SIZE + 16];
  memset(command, 0, sizeof(command));
  tarn_str_snprintf(command, sizeof(command), "chmod -R 777 %s", dir);
  // chmod follows a link named on its command line (the path ends in '/'),
  // so the command runs only on a real directory that no other user made:
  // one planted by another user, or a link to a tree elsewhere, would be
  // opened to everyone.
  struct stat st;
  if (agent_id.get() < 0 || fstat(agent_id.get(), &st) != 0 || (st.st_uid != 0 && st.st_uid != geteuid())) {
    LOG(warn, "agent id dir %s is not a directory of root or of this user, not opened to all users\n", dir);
    return 0;
  }
  FILE *stream = popen(command, "r");
  if (stream == nullptr) {
    LOG(warn, "excute shell failed: [%s]\n", command);
    return 0;
  }
  // pclose waits for the command to end.
  pclose(stream);
  LOG(info, "excute shell succed: [%s]\n", command);
  // The command opened the tree to others; with an agent group only the
  // group keeps that access.
  share_tree(agent_id.get(), 0);
  return 0;
}

int32_t tarn_backup_by_subprocess(const char *backup_arg) {
  LOG(info, "start backup by subprocess\n");
  if (backup_arg == nullptr || backup_arg[0] == '\0') {
    LOG(warn, "invalid parameter\n");
    return 1;
  }
  char apphome[kBackupPathSize];
  memset(apphome, 0, sizeof(apphome));
  if (get_apphome_path_main(apphome, (int32_t)sizeof(apphome)) != 0) {
    LOG(warn, "Failed to obtain tarn main apphome path\n");
    return 1;
  }
  char tool[kBackupPathSize];
  char command[kBackupCommandSize];
  memset(tool, 0, sizeof(tool));
  memset(command, 0, sizeof(command));
  tarn_str_snprintf(tool, sizeof(tool), "%s/bin/tarn_backup", apphome);
  // The app home's name comes from the record; neither it nor the argument
  // may end the quotes that keep each one word for bash.
  if (refuse_shell_text(tool, SHELL_TEXT_QUOTED) || refuse_shell_text(backup_arg, SHELL_TEXT_QUOTED)) {
    return 1;
  }
  // bash runs the tool with the quoted path and argument as one word each.
  tarn_str_snprintf(command, sizeof(command), "bash -c '\"%s\" -b \"%s\"'", tool, backup_arg);
  LOG(info, "backup cmd: %s\n", command);
  const int result = tarn_process_create(command, 0);
  if (result < 0) {
    const int error = errno;
    LOG(warn, "Starting child process for backup faile. error code %d\n", error);
    return 1;
  }
  return result;
}

int32_t tarn_copy_file_to(const char *src, const char *dst) {
  const int32_t ret = place_file(src, dst, tarn_file_copy, "copy");
  return ret != 0 ? ret : copy_mode(src, dst);
}

int32_t tarn_move_file_to(const char *src, const char *dst) {
  return place_file(src, dst, tarn_file_rename, "move");
}

int32_t tarn_copy_file_keep_mode(const char *src, const char *dst, int32_t option) {
  const int ret = tarn_file_copy_ex(src, dst, option);
  return ret != 0 ? ret : copy_mode(src, dst);
}
