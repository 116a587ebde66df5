// A second, independent descriptor on a shared-memory segment.
#ifndef TARNBASE_SHM_REOPEN_H
#define TARNBASE_SHM_REOPEN_H

#include "tarnbase/tarn_shm.h"

namespace tarnbase {

// Opens the segment of handle again by its name, read-write and
// close-on-exec, into *fd: a new open file description, so that the locks
// taken through it (F_OFD_SETLK) are its own. Returns 0, the error of
// shm_open, or ESTALE when the name no longer leads to the segment that
// handle has open (it was replaced since).
int shm_reopen(const tarn_shm_t *handle, int *fd);

}  // namespace tarnbase

#endif
