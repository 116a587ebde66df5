/* tarn_dirutils.h -- directories: creating, listing and removing a tree,
 * and "@" paths.
 *
 * Results are 0 on success, otherwise a positive errno value; errno is also
 * set on failure -- except tarn_dirutils_listdir, which says its own.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_DIRUTILS_H
#define TARN_DIRUTILS_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Creates the directory path and every missing parent: path with exactly
 * the permission bits mode & 07777, each missing parent with exactly 0755,
 * whatever the process's umask. Only the directory named gets mode, so
 * that a shared directory (0777) does not open its parents to other users.
 * The tree is made component by component from the root (or the working
 * directory for a relative path); each new directory is opened without
 * following a link and given its mode through that descriptor, so a new
 * directory swapped for a link by another user never passes its mode to
 * what the link names. Existing components are entered as open(2) does (a
 * link to a directory is followed). Directories that already exist, path
 * included, are success and keep their own mode. Several processes may
 * create the same tree at once. Returns 0, EINVAL for a null or empty path,
 * ENOTDIR when path or one of its parents exists and is not a directory,
 * ENOMEM, or the errno of the failed mkdir(2) / open(2) / fchmod(2)
 * (EACCES, ENOSPC, ELOOP when a new directory was replaced by a link...);
 * directories created before a failure stay. */
TARNBASE_API int tarn_dirutils_mkdir(const char *path, int mode);

/* Expands an "@" path into out (out_len bytes). An input beginning with
 * "@" stands for the directory of the running executable followed by the
 * rest of the input: "@/../lib" for /opt/x/bin/agent gives
 * "/opt/x/bin/../lib" (no separator is added: "@x" gives "/opt/x/binx").
 * When the executable's path cannot be read the "@" is dropped. Any other
 * input is copied unchanged. The same expansion serves tarn_autolog_init
 * (tarn_log.h). The output is always terminated and cut when it does not
 * fit. Returns 0, EINVAL (out untouched) for a null argument or out_len 0,
 * ENOMEM, or ENAMETOOLONG when the output was cut (out then holds the cut
 * text). */
TARNBASE_API int tarn_dirutils_path_transform(const char *in, char *out, size_t out_len);

/* The entry types that tarn_dirutils_listdir reports. A symbolic link has
 * the type of what it points to; a dangling one is TARN_DIRUTILS_OTHER. */
enum {
  TARN_DIRUTILS_FILE = 0,  /* a regular file */
  TARN_DIRUTILS_DIR = 1,   /* a directory */
  TARN_DIRUTILS_OTHER = 2  /* anything else: device, pipe, socket, dangling link */
};

/* Called by tarn_dirutils_listdir for one entry: its type (above), its path
 * (dir, a '/' unless dir already ends in one, and the entry's name; valid
 * during the call only) and the caller's user pointer. Returns 0 to go on
 * with the next entry, anything else to stop the walk. */
typedef int (*tarn_dirutils_listdir_fn)(int type, const char *path, void *user);

/* Calls callback for each entry of the directory dir, "." and ".."
 * excepted, in the order of their names compared byte for byte (strcmp;
 * "B" before "a"), not descending into subdirectories. The names are read
 * first, so the callback may create or remove entries; an entry removed
 * before its turn is skipped.
 *
 * Returns the non-zero value that callback returned when it stopped the
 * walk, otherwise 0: after every entry was visited, and also when nothing
 * could be listed. A search callback's "found" answer is thus never taken
 * for a failure. errno tells the cases apart: after the call it is 0 when
 * the directory was listed (whole or up to the stop), otherwise the reason:
 * EINVAL (dir or callback null, dir empty), ENOENT, ENOTDIR, EACCES (the
 * errno of opening or reading dir), ENOMEM. */
TARNBASE_API int tarn_dirutils_listdir(const char *dir, void *user, tarn_dirutils_listdir_fn callback);

/* Removes the directory path and everything below it. Symbolic links are
 * removed as links and never followed, so nothing outside the tree is
 * touched, even when a link inside it points to a directory elsewhere. path
 * itself must be a directory, not a link to one. On a failure the walk goes
 * on with the rest of the tree and the first failure is returned; what
 * could be removed is gone. Returns 0; EINVAL for a null or empty path;
 * ENOTDIR when path is not a directory (a file or a symbolic link: nothing
 * is removed); or the errno of the first failed step (ENOENT for a missing
 * path, EACCES, EBUSY, ...). */
TARNBASE_API int tarn_dirutils_rmdir(const char *path);

TARNBASE_END_DECLS

#endif
