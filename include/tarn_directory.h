/* tarn_directory.h -- the install root, the app home, the backup trees and
 * "@"-paths.
 *
 * Every module finds the agent's files through these functions:
 *   install root   "/usr/share/velmora/TARN" (no trailing separator)
 *   app home       install root + "/" + the name that section "apphome",
 *                  key "app_home" of the record "tarn_apphome.ini" at the
 *                  install root holds (see tarn_apphome.h)
 *   backup trees   the data root (the system log directory that
 *                  tarn_log_dir reports) + "/velmora/TARN3_BACKUP/..."
 *   "@"-paths      a path that begins with "@" names a file below the app
 *                  home's bin directory
 *
 * The functions keep no state: each call builds its answer afresh from the
 * fixed strings, the record file and the base library, and writes it into
 * the caller's buffer, cut (and always terminated) when it does not fit. On
 * failure the caller's buffer is left as it was. They read the record
 * without taking its lock (writers replace the file whole), so a read that
 * meets a writer may find no record and fail. The result conventions differ
 * from function to function; each is stated below. All are re-entrant.
 *
 * Messages are logged through the library's log at the level given; each
 * ends with a line end. A function whose comment names no message logs
 * nothing.
 */
#ifndef TARN_DIRECTORY_H
#define TARN_DIRECTORY_H

#include <stddef.h>
#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Copies the install root into buf, which holds len bytes, cut to len - 1
 * characters. Returns 0; 1 (writing nothing) for a null buf or a len below
 * 1. */
TARNAUX_API int32_t get_tarn_path(char *buf, int32_t len);

/* Whether the directory that holds path (path without its last component)
 * lies under the install root: 1 when, after both are brought to one
 * separator form, the directory begins with the install root, compared
 * without regard to case; 0 otherwise. It is a plain prefix test, so a
 * directory such as /usr/share/velmora/TARNX counts as inside too, and the
 * install root itself (whose directory is /usr/share/velmora) does not.
 * The "." and ".." components of path are resolved first, from its text
 * alone (no link is followed, the disk is not read), so a path that climbs
 * out of the install root, such as /usr/share/velmora/TARN/../../x/y.so,
 * is outside (0). Only the first 1023 bytes of path are considered; a null
 * path is taken as empty (0). */
TARNAUX_API int32_t is_path_in_tarn(const char *path);

/* Reads the app home name from the record file ini_path (section "apphome",
 * key "app_home", or "app_home_<suffix>" when suffix is not null) into out,
 * which holds out_len bytes. The file is loaded without its lock. Returns
 * 0 when the name was copied; 1 when the file was loaded but the key is
 * absent, or its value is not a single directory name (empty, ".", "..",
 * or holding "/": the record is open to every user, see tarn_apphome.h;
 * first warn "app home value [%s] is not a directory name" with the value),
 * each with warn "app_home is empty in %s" with ini_path, whatever the key;
 * -1 when ini_path or out is null or out_len is 0 (warn
 * "get_apphome_dir_name failed: argument error"), or when the file cannot
 * be loaded (debug "tarn_ini_file_load is failed, path is %s." with
 * ini_path). */
TARNAUX_API int32_t get_apphome_dir_name(const char *ini_path, char *out, uint32_t out_len,
                                         const char *suffix);

/* Writes the app home path (install root + "/" + the name recorded under
 * "app_home" in the record file; never the backup, never the companion
 * key) into out, which holds out_len bytes. Returns 0; 1 when there is no
 * usable record or name (out is then untouched), logging only what
 * get_apphome_dir_name logs (debug for a missing or unloadable record, warn
 * for a record without the name or whose value is not a directory name); a null out or an out_len below 1 gives 1
 * without a message. */
TARNAUX_API int32_t get_apphome_path_main(char *out, int32_t out_len);

/* Writes the backup components directory, the data root followed by
 * "/velmora/TARN3_BACKUP/tarn_components", into out (out_len bytes) and
 * logs it at info "backup_path %s". Returns 1 on success; 0 when out is
 * null or out_len is not above 0 (warn "invalid parameter"), or when there
 * is no data root (warn "get log dir is error"). The directory is not
 * created. */
TARNAUX_API int32_t get_backup_path(char *out, int32_t out_len);

/* As get_backup_path, for the backup temporary directory, the data root
 * followed by "/velmora/TARN3_BACKUP/var/tmp", logged at info "tmp path
 * %s". Returns 1 on success, 0 on failure, with the same warn lines. */
TARNAUX_API int32_t get_backup_tmp_path(char *out, int32_t out_len);

/* Expands in into out (out_len bytes). A path that does not begin with "@"
 * is copied unchanged. "@rest" becomes the app home path + "/bin" + rest,
 * with no separator added: "@/x/y" gives <app home>/bin/x/y and "@x" gives
 * <app home>/binx. When no app home is recorded (or the recorded value is
 * not a directory name, as get_apphome_dir_name says), the base library's
 * tarn_dirutils_path_transform expands it (relative to the running
 * executable's directory) and out holds whatever that writes. A null in or
 * out or an out_len of 0 is logged at warn "path transform input invalid
 * parameter" and nothing is written. An "@" path also logs what
 * get_apphome_path_main logs. Returns nothing. */
TARNAUX_API void tarn_agent_path_transform(const char *in, char *out, size_t out_len);

TARNAUX_END_DECLS

#endif
