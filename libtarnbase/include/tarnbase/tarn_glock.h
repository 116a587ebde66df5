/* tarn_glock.h -- named global locks shared by every process of the machine.
 *
 * A lock named "x" is a 64-byte state word block in the shared-memory
 * segment "x.glock" (see tarn_shm.h). Its layout is the same for 32-bit and
 * 64-bit processes, so both kinds can contend for one lock. It is not
 * recursive: a process that holds it and asks again waits for its own
 * release, that is until its time-out.
 *
 * Taking a free lock is one atomic compare-and-swap in shared memory; no
 * system call. A process that waits sleeps on a futex and, every few
 * milliseconds, checks that the holder is still alive: a holder that died
 * while holding the lock (SIGKILL, crash) is detected by its pid and start
 * time, and the lock passes to the waiter, within the waiter's time-out.
 * The data that the lock guarded may then be half-changed, as with any
 * robust lock.
 *
 * The segment is made and checked as tarn_shm.h says: created exclusively,
 * shared with mode 0660 through tarn_file_share_fd (the agent group's when
 * one is configured), and used only when it is ours. A local user who could
 * open the lock could hold it for ever, or forge its owner word; one who
 * made the segment first is refused or replaced (tarn_glock_init_ex).
 *
 * Results: 0 on success, otherwise a positive errno value.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_GLOCK_H
#define TARN_GLOCK_H

#include <stdint.h>

#include "tarn_base_api.h"
#include "tarn_shm.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_glock tarn_glock_t;

/* Opens the lock name, creating it (free) when it does not exist yet, and
 * stores a new handle in *lock: tarn_glock_init_ex with
 * TARN_SHM_OPEN_OR_CREATE, so a foreign lock segment is refused. Any number
 * of processes may do this at the same moment. Returns as
 * tarn_glock_init_ex. */
TARNBASE_API int tarn_glock_init(const char *name, tarn_glock_t **lock);

/* Opens the lock name with a flag of tarn_shm.h and stores a new handle in
 * *lock. TARN_SHM_OPEN needs the lock to exist; TARN_SHM_OPEN_OR_CREATE
 * creates it (free) when missing; both refuse a foreign lock segment.
 * TARN_SHM_CREATE, for the lock's owner, also replaces a foreign one with a
 * new, free lock of its own (a process that still maps the old one no
 * longer excludes anybody). Returns 0, EINVAL for a null or bad name (1 to
 * 194 bytes, no '/') or an unknown flag, or the error of tarn_shm_init or
 * tarn_shm_map (EPERM, ELOOP, EFTYPE... for a foreign lock segment). */
TARNBASE_API int tarn_glock_init_ex(const char *name, int flag, tarn_glock_t **lock);

/* Takes the lock, waiting at most timeout_ms milliseconds measured on the
 * monotonic clock (0: try once). Returns 0 when taken, ETIMEDOUT when the
 * time ran out, EINVAL for a null handle. */
TARNBASE_API int tarn_glock_acquire_timeout(tarn_glock_t *lock, uint32_t timeout_ms);

/* Gives the lock back and wakes one waiter. Returns 0, EINVAL for a null
 * handle, EPERM when the calling process does not hold the lock (nothing is
 * changed then). */
TARNBASE_API int tarn_glock_release(tarn_glock_t *lock);

/* Releases the handle; the lock itself stays for the other processes.
 * Returns 0, EINVAL for a null handle. */
TARNBASE_API int tarn_glock_destroy(tarn_glock_t *lock);

TARNBASE_END_DECLS

#endif
