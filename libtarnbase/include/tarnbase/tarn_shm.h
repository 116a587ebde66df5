/* tarn_shm.h -- named shared-memory segments (POSIX shared memory).
 *
 * A segment is named by a short key such as "proc_heartbeat_shm.name"; it
 * lives as /dev/shm/<key> until a process destroys it. Its pages start out
 * zero.
 *
 * Who may use a segment. A segment is created exclusively (O_CREAT|O_EXCL,
 * never through a symbolic link), given its size while only its creator
 * can open it, and then shared as tarn_file_share_fd (tarn_file.h) shares
 * what the agent's processes use together with mode 0660: owner and group
 * read and write, nothing for others; with an agent group configured, the
 * group is that group. An existing object at the name is used only when it
 * is ours: a regular object of one name, owned by root or by the calling
 * process's effective user, not writable by others. Anything else (another
 * user's object, one writable by others, a symbolic link, a FIFO, a
 * socket, an object with a second name) is foreign: a local user who made
 * it first could change, shrink or read the segment under the agent.
 * TARN_SHM_CREATE removes a foreign object and creates its own in its
 * place; the other flags refuse it. A directory at the name is refused by
 * every flag (EINVAL): it is never removed.
 *
 * Results: 0 on success, otherwise a positive errno value (which errno also
 * holds), so that callers can tell them from their own negative codes.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_SHM_H
#define TARN_SHM_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* What tarn_shm_init may do with the name. */
enum tarn_shm_flag {
  /* Attach only: the segment must exist already (ENOENT otherwise), be
   * ours (see above) and be at least size bytes (EINVAL otherwise). */
  TARN_SHM_OPEN = 0,
  /* Attach, creating the segment (zero-filled, size bytes) when it is
   * missing; an existing segment that is foreign or smaller than size is
   * refused as TARN_SHM_OPEN refuses it. */
  TARN_SHM_OPEN_OR_CREATE = 1,
  /* The owner's open: create the segment when it is missing, replace a
   * foreign object with a new segment of its own, and grow one of ours that
   * is smaller than size (its contents are kept). */
  TARN_SHM_CREATE = 2
};

typedef struct tarn_shm tarn_shm_t;

/* Opens or creates the segment key (1 to 200 bytes, no '/') as flag says,
 * and stores a new handle in *handle. Creation is race-free: any number of
 * processes of the agent may call this at the same moment with any flag,
 * and all of them end up with the same segment of at least size bytes (a
 * process of another user may meet EACCES for the moment between the
 * creation and the sharing). Returns 0; EINVAL for a bad argument (null
 * pointer, size 0, bad key, unknown flag) or a segment of ours smaller
 * than size (TARN_SHM_OPEN, TARN_SHM_OPEN_OR_CREATE); for a foreign object
 * that the flag does not replace: EPERM (another owner, writable by others,
 * a second name), ELOOP (a symbolic link), EFTYPE (tarn_file.h: a FIFO or
 * another kind that is not a regular object), ENXIO (a socket), EINVAL (a
 * directory);
 * EAGAIN when the name was taken from under the call 64 times in a row (a
 * squatter that puts its object back after each removal); or the errno of
 * the failed system call (ENOENT, EACCES, the EPERM of shm_unlink when the
 * caller may not remove a foreign object, the errors of
 * tarn_file_share_fd). On failure *handle is left unchanged, and an object
 * that the call created is removed again. */
TARNBASE_API int tarn_shm_init(const char *key, int flag, size_t size, tarn_shm_t **handle);

/* Maps the segment read-write and shared, from offset (0 or a multiple of
 * the page size, below the size given to tarn_shm_init) to that size, and
 * stores the address in *base. The segment's size is checked first: one
 * that has become smaller than the size given to tarn_shm_init is not
 * mapped (reading past its end would raise SIGBUS). Returns 0, EINVAL (bad
 * arguments, or a segment that has become too small), or the errno of
 * fstat or mmap. */
TARNBASE_API int tarn_shm_map(tarn_shm_t *handle, size_t offset, void **base);

/* Unmaps the latest mapping made by tarn_shm_map with this handle; base
 * must be its address. Returns 0, EINVAL (null arguments, nothing mapped,
 * or base is not that address; nothing is unmapped then), or the errno of
 * munmap. The handle stays valid. */
TARNBASE_API int tarn_shm_unmap(tarn_shm_t *handle, void *base);

/* Releases the handle and leaves the segment, and its contents, to the
 * other processes. Returns 0 (EINVAL for a null handle). */
TARNBASE_API int tarn_shm_close(tarn_shm_t *handle);

/* Removes the segment's name, so that later tarn_shm_init calls make a new
 * one (processes that still map the old one keep their mapping), and
 * releases the handle. Returns 0, EINVAL for a null handle, or the errno of
 * shm_unlink (ENOENT when another process removed it first); the handle is
 * released in every case. */
TARNBASE_API int tarn_shm_destroy(tarn_shm_t *handle);

TARNBASE_END_DECLS

#endif
