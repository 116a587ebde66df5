/* tarn_utils.h -- helpers of the upgrade tools and the package code.
 *
 * App home helpers: these read and write the app home record
 * "tarn_apphome.ini" at the install root "/usr/share/velmora/TARN"
 * (section "apphome"; see tarn_apphome.h for the file and its lock).
 * Unlike the readers of tarn_directory.h they take the record's lock,
 * "<record>.lock", while they load it; the writer holds it for the whole
 * update. They never touch the backup record or the files' permissions.
 *
 * Package helpers: the presence check of a component's file, the base name
 * and directory part of a path (both edit the caller's buffer), running
 * commands through the shell with their output logged, and unpacking
 * package archives with the system's tar.
 *
 * execute_cmd and execute_command hand a command line to the shell
 * ("/bin/sh -c") by contract, and check nothing in it: the shell
 * interprets every quote, blank, ';', '$', '`', redirection and the like.
 * Callers must pass them only trusted text: never a path, argument or
 * command built from a file or from input that another user controls.
 * (unpack_tgz, which names a package path in its command, checks that path
 * itself and runs tar without a shell.)
 *
 * Messages named below are logged through the library's log with the level
 * given; each ends with a line end. A function whose comment names no
 * message logs nothing.
 */
#ifndef TARN_UTILS_H
#define TARN_UTILS_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

struct argment_paras; /* the argument parser's handle, parameter_parsing.h */

/* A newly allocated copy of the install root, "/usr/share/velmora/TARN"
 * (24 bytes with the terminator); the caller frees it with free(). Never
 * null: when memory runs out the process logs "Out of memory" at fatal and
 * ends with exit status 0. */
TARNAUX_API char *get_tarn_root_dir(void);

/* Reads the app home name from the record file ini_path (key "app_home", or
 * "app_home_<suffix>" when suffix is not null) into out, which holds out_len
 * bytes. The file's lock is held while it is loaded; a lock that cannot be
 * taken does not stop the read (nothing is logged for it; the wait for it
 * is bounded, tarn_flock.h). Returns 0 when the name was copied; 1 when the
 * key is absent (warn "app_home is empty in <ini_path>"), also when its
 * value is not a single directory name (empty, ".", "..", or holding "/":
 * first warn "app home value [%s] is not a directory name" with the value,
 * see tarn_apphome.h); -1 when ini_path or out is null or
 * out_len is 0 (not logged), or when the file cannot be loaded (warn
 * "qiv_eni_file_load is failed, path is <ini_path>."). */
TARNAUX_API int32_t get_app_home_dir(const char *ini_path, char *out, uint32_t out_len,
                                     const char *suffix);

/* Writes the install root + "/" + the recorded app home name (key
 * "app_home", or "app_home_<suffix>" when suffix is not null) into out,
 * which holds out_len bytes. Returns 0; 1 when out is null or out_len is 0
 * (not logged), or when no name can be read from the record: after
 * get_app_home_dir's warn line, logs at info "apphome cannot be fetched or
 * does not exist and will be regenerated" (the caller is expected to
 * regenerate the record). When memory for the install root runs out, logs
 * "Out of memory" at fatal and ends the process with exit status 0. */
TARNAUX_API int32_t get_app_home_path(const char *suffix, char *out, uint32_t out_len);

/* Under the lock of ini_path, loads the record (or starts an empty one when
 * it cannot be loaded), sets "app_home" to app_home and, when both suffix
 * and companion_home are given, "app_home_<suffix>" to companion_home, and
 * saves the whole file with direct I/O; other sections and keys are kept.
 * Returns 0; 1 for a null ini_path or app_home (not logged), or when the
 * lock cannot be taken (warn "flock init failed with errcode <code>" or
 * "flock acquire failed with errcode <code>"); the save's non-zero code
 * when the save fails, or the ini object's code (EINVAL, ENOMEM) when a
 * name cannot be set in it, in which case nothing is written (both warn
 * "update tarn_apphome.ini failed, result is <code>", whatever ini_path
 * is). A record that cannot be loaded logs at info "after load" before it
 * is started empty. */
TARNAUX_API int32_t update_app_home_dir(const char *ini_path, const char *app_home,
                                        const char *suffix, const char *companion_home);

/* The last component of path without its extension, found in place:
 * trailing slashes are cut from path (POSIX basename), then the component
 * is cut at its last '.'. "/tmp/pkg.tgz" gives "pkg", "dir/name" gives
 * "name", "a.tar.gz" gives "a.tar", "/" gives "/". The result points into
 * path, which the caller owns and which is changed; null for a null or
 * empty path. Nothing is logged. */
TARNAUX_API char *get_basename(char *path);

/* The directory part of path, found in place with POSIX dirname: a zero is
 * written into path after the directory part, so a caller that still needs
 * the full path must rebuild it. "/a/b/c.so" gives "/a/b", "/x" gives "/".
 * The result usually points at path itself, but for a path without a '/'
 * it is the static string "." (do not write into it). Null for a null or
 * empty path. Nothing is logged. */
TARNAUX_API char *get_basedir(char *path);

/* The check made when a component's files are verified: only whether path
 * exists (access(2) with F_OK). The digest is logged, never computed or
 * compared. Returns 0 when the file exists, logging at info
 * "file: <path> hash: <hash>"; 1 when it does not, logging at warn
 * "file does not exist, file path:<path>"; 1 with "Invalid input" at warn
 * when path or hash is null. */
TARNAUX_API int32_t check_file_hash(const char *path, const char *hash);

/* Runs cmd through the shell (tarn_shell.h's tarn_shell_execute: standard
 * input /dev/null, standard error the caller's) and logs at info
 * "exitcode:[<code>] cmd:[<cmd>] cmd_result:[<output>]" with the
 * command's standard output, at most 102399 bytes of it and without its
 * final line ends. The output is kept in one buffer static to the library
 * and shared by every call, unguarded: call it from one thread at a time.
 * cmd goes to the shell as it stands: see the warning at the top.
 * Returns the command's exit code: 0, its exit status, 128 + the signal
 * number that ended it, or -1 when it could not be run; -1 with
 * "Invalid input" at warn (and nothing run) for a null cmd. */
TARNAUX_API int32_t execute_cmd(const char *cmd);

/* Starts the child package manager: runs through execute_cmd the command
 * line
 *
 *   <program> -p <option> <argument>... <option> <argument>...
 *
 * rebuilt from handle (parameter_parsing.h). " -p" always comes first, then
 * each option of the handle in its table order (the order in which the
 * options first appeared, each with all of its arguments: -a x -b -a y
 * gives " -a x y -b"), each word after one blank. An option "-p" of the
 * handle is passed again in its place. An argument that contains a blank
 * is written with each blank replaced by quote, blank, quote, so that the
 * shell keeps it one word: my file becomes my" "file. Nothing else is
 * quoted or escaped: quotes, '$', ';' and the like in program or in the
 * arguments reach the shell as they stand (see the warning at the top), so
 * the handle must hold only trusted text.
 * The line is held in a buffer of (args_count + 1) * 1025 + 3 bytes
 * (args_count from argment_paras_get_args_count) and each argument is
 * quoted in one of 1124 bytes; text that does not fit is cut silently.
 * Logs "run child packman, cmd is <line>" at info, then execute_cmd's line.
 * Returns execute_cmd's result, the child's exit code; 0xFFFFFFFF (-1),
 * without a message, for a null program or handle. When memory for the
 * line runs out, logs "Out of memory" at fatal and ends the process with
 * exit status 0. */
TARNAUX_API int32_t execute_command(const char *program, struct argment_paras *handle);

/* Unpacks the package archive archive (a gzip-compressed tar file whose
 * name ends in exactly ".tgz") into the existing directory dest with the
 * system's tar. The command is
 *
 *   tar -zxf "<archive>" -C "<dest>"
 *
 * (cut at 2047 characters): it is logged at info as execute_cmd logs a
 * command, "exitcode:[%d] cmd:[%s] cmd_result:[%s]" with tar's exit code,
 * that command and tar's output, and it is what the warn line below
 * names; the result is tar's exit code.
 *
 * Added safeguards (the command line, its messages and the results stay
 * as above):
 * - archive and dest must pass the check of text for a shell command: one
 *   that holds '"', '$', '`', '\', '\'' or a control character (the line
 *   end among them) is refused, logged at warn "refused text for a shell
 *   command: [%s]" with the path (control characters as \xHH), and the
 *   result is 1, as for any bad argument; nothing runs. So the logged
 *   command is always safe to run as it stands.
 * - The archive must be a regular file (a symbolic link to one is
 *   followed) of at most UNTGZ_ARCHIVE_MAX_BYTES (64 GiB, untgz.h). It is
 *   opened and checked first, so that the check cannot block on a FIFO.
 * - No shell runs: /bin/tar is executed directly (tarn_process_run,
 *   tarnbase/tarn_process.h) as
 *     tar --no-same-owner --no-same-permissions --no-overwrite-dir
 *         --no-xattrs --no-acls --no-selinux -zxf - -C <dest>
 *   reading the checked descriptor on its standard input, so that a FIFO
 *   or another file put in the archive's place after the check is never
 *   read. Even for root, everything is then owned by the caller (not by the
 *   archive's owners), modes lose their set-ID and sticky bits and are
 *   filtered by the umask, directories that exist (dest itself too) keep
 *   their mode and owner, and no extended attribute, ACL or SELinux context
 *   is taken from the archive.
 * - tar's environment is its own, "PATH=/usr/bin:/bin" alone (for the
 *   gzip that -z starts): the caller's TAR_OPTIONS (which could turn off
 *   tar's own checks, -P), GZIP and the like do not reach it, and the
 *   caller's environment is neither read nor changed, so other threads may
 *   use it meanwhile.
 * - tar runs with TARN_PROCESS_NO_SPECIAL_FILES: it cannot make device
 *   nodes or FIFOs. It reports each such member on its standard error and
 *   goes on with the others, and then exits with 2: the call fails as
 *   below. (Where the system has no seccomp filters, such as under
 *   qemu-user, FIFOs can still be made; devices cannot.)
 *
 * Returns 0 when tar exited with 0; 1, running nothing, when archive or
 * dest is null, dest is not a directory, the extension of archive is not
 * exactly ".tgz" ("pkg.TGZ" and "pkg.tar.gz" are refused) (nothing
 * logged), archive or dest is refused by the text check (its warn line), or
 * archive is missing, cannot be opened, is not a regular file (a FIFO, a
 * device such as a link to /dev/zero, a socket, a directory) or is larger
 * than UNTGZ_ARCHIVE_MAX_BYTES (nothing logged); otherwise tar's exit code
 * (-1 when it could not be run), after logging at warn "unzip tgz failed
 * with %d, cmd:%s" (the code and the command) and removing the unpack
 * cache: when the archive has a base name NAME (get_basename; not empty,
 * "." or ".."), nothing stood at "<dest>/NAME" before the call (lstat) and
 * a directory (not a link) stands there now, logs at info "remove unpack
 * cache dir [%s]" with that path and removes it with everything in it.
 * Whatever stood there before the call is not the call's to remove (a live
 * directory that the archive happens to be named after): it is kept,
 * logged at info "unpack cache dir [%s] was there before the unpack, kept"
 * with the path. */
TARNAUX_API int32_t unpack_tgz(const char *archive, const char *dest);

TARNAUX_END_DECLS

#endif
