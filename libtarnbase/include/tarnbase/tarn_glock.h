/* tarn_glock.h -- named global locks shared by every process of the machine.
 *
 * A lock named "x" lives in the shared-memory segment "x.glock" (see
 * tarn_shm.h), 8256 bytes. Its layout is the same for 32-bit and 64-bit
 * processes and for either byte order, so all of them can contend for one
 * lock. The lock is held by a process, not a thread or a handle: every
 * handle of the process may release it. It is not recursive: a process
 * that holds it and asks again waits for its own release, that is until
 * its time-out.
 *
 * Taking a free lock is one atomic compare-and-swap in shared memory; no
 * system call. A process that waits sleeps on a futex on the owner word,
 * and checks at once, then every 1, 2, 4... up to 64 milliseconds, that the
 * holder is still alive. A holder that died while holding the lock
 * (SIGKILL, crash) is detected and the lock passes to the waiter, within
 * the waiter's time-out. The data that the lock guarded may then be
 * half-changed, as with any robust lock.
 *
 * Liveness. Each process that opens a lock claims one of the segment's 1024
 * liveness slots: through a descriptor of its own on the segment it
 * write-locks the slot's byte with an open-file-description lock
 * (F_OFD_SETLK), and records a claim id, new for every claim, in the slot.
 * The owner word names the slot and the claim id, never a pid. A holder is
 * dead when its slot records another claim id or its byte is no longer
 * locked (F_OFD_GETLK): the kernel drops the lock when the last descriptor
 * of the process closes, at exit or death. So the rule holds across pid
 * namespaces, without /proc, and whatever process is given the dead
 * holder's pid. A child made by fork() closes the inherited descriptors
 * (atfork handler) and claims a slot of its own when it first takes the
 * lock; it never holds its parent's lock. Descriptors are close-on-exec.
 *
 * Limits: at most 1024 processes can have a lock open at once (init then
 * returns EAGAIN); claim ids are 32-bit, so a dead holder could pass for
 * alive only if exactly 2^32 claims later its slot were claimed again. A
 * child made by a raw fork or clone that runs no atfork handler keeps its
 * parent's slot claimed until it first uses or destroys the handle (it then
 * claims its own), or exits. A waiter that cannot ask the kernel about a
 * slot lock takes the holder for alive.
 *
 * Layout (offsets in bytes; integers in the byte order of the machine):
 *   0   8 bytes   owner word: 0 when free; else the claim id in the high 32
 *                 bits, and in the low 32 bits the slot number + 1 (bits
 *                 0-30) and the waiters bit (bit 31), set by a waiter before
 *                 it sleeps and cleared by the release, which then wakes one
 *                 waiter. The futex is the low half: bytes 0-3 on a
 *                 little-endian machine, 4-7 on a big-endian one.
 *   8   4 bytes   the last claim id handed out
 *   12  52 bytes  reserved, zero
 *   64  1024 x 8  slot records: the claim id (4 bytes), then the claimer's
 *                 pid as it saw it (4 bytes, for diagnostics only). Slot k
 *                 is claimed while byte 64 + 8k is write-locked.
 * A waiter killed in its sleep leaves the waiters bit set: the next release
 * makes one needless wake call, later ones none.
 *
 * The segment is made and checked as tarn_shm.h says: created exclusively,
 * shared with mode 0660 through tarn_file_share_fd (the agent group's when
 * one is configured), and used only when it is ours. A local user who could
 * open the lock could hold it for ever, or forge its owner word; one who
 * made the segment first is refused or replaced (tarn_glock_init_ex).
 *
 * Results: 0 on success, otherwise a positive errno value, also stored in
 * errno.
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
 * longer excludes anybody). Claims this process's liveness slot in the
 * lock, unless another handle of the process has. Returns 0, EINVAL for a
 * null or bad name (1 to 194 bytes, no '/') or an unknown flag, the error of
 * tarn_shm_init or tarn_shm_map (EPERM, ELOOP, EFTYPE... for a foreign lock
 * segment; EINVAL for one smaller than 8256 bytes, which TARN_SHM_CREATE
 * grows instead), EAGAIN when all 1024 liveness slots are claimed, ESTALE
 * when the segment was replaced while it was being opened, ENOMEM, or the
 * error of shm_open or fcntl. */
TARNBASE_API int tarn_glock_init_ex(const char *name, int flag, tarn_glock_t **lock);

/* Takes the lock, waiting at most timeout_ms milliseconds measured on the
 * monotonic clock (0: try once; a dead holder's lock is taken even then).
 * Returns 0 when taken, ETIMEDOUT when the time ran out, EINVAL for a null
 * handle; in a forked child whose process has no liveness slot yet, the
 * errors of claiming one as tarn_glock_init_ex. */
TARNBASE_API int tarn_glock_acquire_timeout(tarn_glock_t *lock, uint32_t timeout_ms);

/* Gives the lock back and wakes one waiter. Returns 0, EINVAL for a null
 * handle, EPERM when the calling process does not hold the lock (nothing is
 * changed then). */
TARNBASE_API int tarn_glock_release(tarn_glock_t *lock);

/* Releases the handle; the lock itself stays for the other processes. The
 * process's last handle of a lock gives up its liveness slot: a lock the
 * process still holds then counts as a dead holder's. Returns 0, EINVAL for
 * a null handle. */
TARNBASE_API int tarn_glock_destroy(tarn_glock_t *lock);

TARNBASE_END_DECLS

#endif
