/* tarn_shm.h -- named shared-memory segments (POSIX shared memory).
 *
 * A segment is named by a short key such as "proc_heartbeat_shm.name"; it
 * lives as /dev/shm/<key> until a process destroys it. Its pages start out
 * zero. Segments are created with mode 0660: the agent's processes run as
 * one user or group.
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
  /* Attach only: the segment must exist already (ENOENT otherwise) and be
   * at least size bytes (EINVAL otherwise). */
  TARN_SHM_OPEN = 0,
  /* Attach, creating the segment with size zero bytes when it is missing;
   * an existing segment smaller than size is refused with EINVAL. */
  TARN_SHM_OPEN_OR_CREATE = 1,
  /* The owner's open: create the segment when it is missing, and grow an
   * existing one that is smaller than size. */
  TARN_SHM_CREATE = 2
};

typedef struct tarn_shm tarn_shm_t;

/* Opens or creates the segment key (1 to 200 bytes, no '/') as flag says,
 * and stores a new handle in *handle. Creation is race-free: any number of
 * processes may call this at the same moment with any flag, and all of them
 * end up with the same segment of at least size bytes. Returns 0, EINVAL
 * for a bad argument (null pointer, size 0, bad key, unknown flag), or the
 * errno of the failed system call. On failure *handle is left unchanged. */
TARNBASE_API int tarn_shm_init(const char *key, int flag, size_t size, tarn_shm_t **handle);

/* Maps the segment read-write and shared, from offset (0 or a multiple of
 * the page size, below the size given to tarn_shm_init) to that size, and
 * stores the address in *base. Returns 0, EINVAL, or the errno of mmap. */
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
