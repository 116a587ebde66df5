/* tarn_file.h -- files: removing, copying, moving, opening and opening to
 * all users.
 *
 * Results are 0 on success, otherwise a positive errno value, unless a
 * function says otherwise. errno is also set on failure.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_FILE_H
#define TARN_FILE_H

#include <errno.h>
#include <stdio.h>

#include "tarn_base_api.h"

/* The errno of a file that is not of the kind a function reads (a FIFO or
 * a device where a regular file is wanted): EFTYPE, defined as ENODEV where
 * the system has none (Linux). */
#ifndef EFTYPE
#define EFTYPE ENODEV
#endif

TARNBASE_BEGIN_DECLS

/* Removes the file (or symbolic link) path. Returns 0, EINVAL for a null or
 * empty path, or the errno of unlink(2): ENOENT when there is none, EISDIR
 * for a directory (never removed here). */
TARNBASE_API int tarn_file_unlink(const char *path);

/* Replaces dst with a copy of the regular file src, whole and crash-safely:
 * the data is written to a new temporary file in dst's directory
 * ("<dst>.tmp.<pid>.<n>", created with mode 0600 and never through a
 * link, so that no other user can open it while it fills), given src's
 * permission bits (mode & 07777), flushed to the disk (fsync), and renamed
 * over dst; the directory is then synced too. A process killed at any
 * moment leaves either the old dst or the complete copy, never a part (it
 * may leave its temporary file behind, mode 0600 or src's bits). The new
 * dst belongs to the calling user; a symbolic link at dst is replaced by
 * the file, not followed. src must be a regular file itself, of any size:
 * a symbolic link at src is not followed but refused with ELOOP (one
 * planted where others may write must not have the caller copy what its
 * owner may not read; links in src's directories are followed). src is
 * opened so that a FIFO cannot block the call, and anything else is
 * refused before dst is touched. Returns 0, EINVAL for a null or empty
 * argument, ELOOP for a link at src, EISDIR when src is a directory,
 * EFTYPE when it is another kind that is not a regular file (a FIFO, a
 * device), ENXIO for a socket (which cannot be opened), ENOMEM, or the
 * errno of the failed step (ENOENT for a missing src or a missing
 * directory of dst); on failure dst is as it was and the temporary file is
 * removed. */
TARNBASE_API int tarn_file_copy(const char *src, const char *dst);

/* Options of tarn_file_copy_ex. */
#define TARN_FILE_COPY_REPLACE 0    /* replace dst, as tarn_file_copy does */
#define TARN_FILE_COPY_NO_REPLACE 1 /* fail with EEXIST when anything is at dst */

/* tarn_file_copy with an option: TARN_FILE_COPY_REPLACE copies exactly as
 * tarn_file_copy; TARN_FILE_COPY_NO_REPLACE copies the same way but leaves
 * an existing dst (a file, a directory, a link, even a dangling one) as it
 * is and returns EEXIST; the test for dst and the placing of the copy are
 * one step, so two processes copying to the same dst at once cannot both
 * succeed. Returns as tarn_file_copy, and EINVAL for any other option. */
TARNBASE_API int tarn_file_copy_ex(const char *src, const char *dst, int option);

/* Moves the file src to dst, replacing dst. Within one file system this is
 * rename(2): one step, and src may be of any kind (a directory too, over
 * an empty directory or nothing). Across file systems (EXDEV) a regular
 * file is copied as tarn_file_copy does (crash-safely, with its permission
 * bits) and src is then removed; should that removal fail, dst holds the
 * copy, src stays, and the error is returned. Returns 0, EINVAL for a null
 * or empty argument, EXDEV for anything but a regular file across file
 * systems, or the errno of the failed step (ENOENT for a missing src or a
 * missing directory of dst, EISDIR, ENOTEMPTY...). */
TARNBASE_API int tarn_file_rename(const char *src, const char *dst);

/* fopen(3) with the descriptor closed on exec ("e" is added to mode), so
 * that programs started later do not inherit it. mode is fopen's ("r",
 * "w", "a", "rb", "r+", ...; at most 14 characters). Returns the stream,
 * which the caller closes with fclose, or null with errno set (EINVAL for
 * a null or empty argument or a longer mode). */
TARNBASE_API FILE *tarn_file_open(const char *path, const char *mode);

/* Opens path for reading, only when it is a regular file of at most
 * max_bytes bytes: a reader given a FIFO, a device (a link to /dev/zero), a
 * socket or a directory in place of a file must neither block nor read
 * without end. The open itself cannot block (O_NONBLOCK, dropped again once
 * fstat(2) shows a regular file); links are followed as open(2) does.
 * Returns a descriptor, closed on exec, which the caller closes; or -1 with
 * errno: EINVAL for a null or empty path, EISDIR for a directory, EFTYPE
 * (above) for any other kind that is not a regular file, EFBIG when the
 * file is longer than max_bytes, else the errno of open(2) or fstat(2)
 * (ENOENT, EACCES, ENXIO for a socket...). */
TARNBASE_API int tarn_file_open_regular(const char *path, unsigned long long max_bytes);

/* Opens path to a user. user "" means every process of the agent: read
 * and write permission for owner, group and others are added to a file
 * (0666 at least) and read, write and search permission to a directory
 * (0777 at least), as tarn_file_share_fd gives them: with an agent group
 * set, the group's bits instead of the others' (0660, 0770). Bits already
 * set stay set (an executable keeps its execute bits), and the owner is
 * kept. A symbolic link at path is not followed: it is refused with ELOOP
 * and nothing changes. Returns 0, EINVAL for a null or empty path, a null
 * user, or a user other than "" (naming one user is not supported yet),
 * ELOOP, or the errno of open(2) / fstat(2) / tarn_file_share_fd (ENOENT,
 * EPERM when the caller neither owns the file nor is root). */
TARNBASE_API int tarn_file_add_user_full_ctrl(const char *path, const char *user);

/* Gives the open file, directory or shared-memory object fd the access of
 * what the agent's processes share between them, whatever their users.
 * mode is the mode that opens it to all of them (0666 for a file, 0777 for
 * a directory; other bits such as execute are kept as given).
 *
 * Without an agent group (key agent_group of [security] in
 * TARN_LOG_CONFIG_PATH, tarn_log.h, unset or empty) the mode becomes mode.
 * With one, the object's group becomes that group (its owner is kept) and
 * its mode becomes mode without the others' bits: 0666 gives 0660 and 0777
 * gives 0770. A name that names no group drops the others' bits as well and
 * leaves the group as it is, so that a mistyped name never opens anything.
 * The group is looked up on each call. fd may be opened with O_PATH.
 * Returns 0, EBADF for a negative fd, EINVAL for a mode outside 07777, or
 * the errno of fchownat(2) / fchmod(2) (EPERM when the caller neither owns
 * the object nor is root). */
TARNBASE_API int tarn_file_share_fd(int fd, unsigned int mode);

TARNBASE_END_DECLS

#endif
