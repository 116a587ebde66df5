/* tarn_flock.h -- exclusive locks on lock files, between processes and
 * between handles.
 *
 * A handle holds its own open of the lock file and locks it with flock(2)
 * (an advisory whole-file lock): two handles exclude each other whether
 * they are in two processes or in one (even in one thread, which then
 * waits for itself until its wait ends, see tarn_flock_acquire). The kernel drops the lock when its holder
 * closes the handle or dies (SIGKILL, crash), so a dead holder never keeps
 * others waiting. The lock file itself is created when missing and never
 * deleted; its content is never read or written.
 *
 * The lock belongs to the handle's open file, which a forked child shares:
 * a release in the child releases it for the parent too. Descriptors are
 * closed on exec, so programs started later hold nothing.
 *
 * Results: 0 on success, otherwise a positive errno value (errno is also
 * set).
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_FLOCK_H
#define TARN_FLOCK_H

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_flock tarn_flock_t;

/* Opens the lock file lock_path, creating it with mode 0666 (whatever the
 * umask, so that every user of the agent can lock it; with an agent group,
 * 0660 and the group's, as tarn_file_share_fd gives it, since whoever can
 * open a lock file can hold its lock) when it does not exist, and stores a new unlocked handle in *handle. A lock file that the
 * caller may not write is opened for reading, which locks as well. Since
 * the file is never read, an existing one may be of any kind; it is opened
 * so that the open cannot block (a FIFO put at lock_path locks as a file
 * does, instead of waiting for a writer) and so that a terminal does not
 * become the caller's controlling terminal. A symbolic link at lock_path
 * is never followed, dangling or not: nothing is created or opened through
 * it, and the call fails with ELOOP. Returns 0, EINVAL for a null or empty
 * path or a null handle (*handle is set to null on every failure when
 * handle is not null), ENOMEM, ELOOP, or the errno of open(2) (ENOENT for
 * a missing directory, EACCES). */
TARNBASE_API int tarn_flock_init(const char *lock_path, tarn_flock_t **handle);

/* Takes the lock, waiting while another handle holds it, but no longer
 * than "[lock] wait_seconds" of the configuration file (tarn_log.h; 30
 * seconds by default), measured on the monotonic clock: since lock files
 * are open to every user, any of them could otherwise keep the caller
 * waiting for ever. The wait tries the lock without blocking, pausing
 * between tries (1 ms at first, growing to 50 ms), so a lock is taken at
 * most that long after its release; no signal, timer or handler is used,
 * and a signal during the wait does not end it. Taking it again through a
 * handle that holds it returns 0 at once (not counted: one release frees
 * it). Returns 0, EINVAL for a null handle, ETIMEDOUT when the lock was
 * still held by another handle at the end of the wait (the handle then
 * holds nothing), or another errno of flock(2). */
TARNBASE_API int tarn_flock_acquire(tarn_flock_t *handle);

/* Gives the lock back; 0 also when the handle did not hold it. Returns 0,
 * EINVAL for a null handle, or the errno of flock(2). */
TARNBASE_API int tarn_flock_release(tarn_flock_t *handle);

/* Closes the lock file, which releases the lock when the handle holds it,
 * and frees the handle. Returns 0, EINVAL for a null handle. */
TARNBASE_API int tarn_flock_destroy(tarn_flock_t *handle);

TARNBASE_END_DECLS

#endif
