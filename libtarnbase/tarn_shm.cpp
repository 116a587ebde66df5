#include "tarnbase/tarn_shm.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shm_name.h"
#include "shm_reopen.h"
#include "errno_result.h"
#include "tarnbase/tarn_file.h"

struct tarn_shm {
  char name[tarnbase::kShmNameMax];
  int fd;
  size_t size;
  void *map_base;  // the latest mapping, or null
  size_t map_length;
};

namespace {

// What the agent's processes share: owner and group, as tarn_file_share_fd
// gives it.
constexpr mode_t kShmMode = 0660;
// How often a call starts again when the name changes under it (a squatter
// that puts its object back after each removal); then EAGAIN.
constexpr int kOpenTries = 64;

using tarnbase::fail;

// Why the object fd is not ours to use, or 0: only a regular object of one
// name, owned by root or by us and not writable by others, can be trusted
// not to be changed, shrunk or read by a user beside the agent.
int foreign_reason(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return EFTYPE;
  if (st.st_uid != 0 && st.st_uid != geteuid()) return EPERM;
  if ((st.st_mode & S_IWOTH) != 0 || st.st_nlink != 1) return EPERM;
  return 0;
}

// Gives an object smaller than size its size where the flag allows. A
// size of 0 is an object whose creator has not sized it yet: every opener
// sizes it, so that none maps a segment too short.
int fit_size(int fd, int flag, size_t size) {
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  const size_t current = (size_t)st.st_size;
  if (current >= size) return 0;
  if (current != 0 && flag != TARN_SHM_CREATE) return EINVAL;
  return ftruncate(fd, (off_t)size) == 0 ? 0 : errno;
}

// Creates the object exclusively, sized, then shared: until then only its
// creator can open it.
int create_object(const char *name, size_t size, int *fd) {
  const int created = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (created < 0) return errno;
  int error = ftruncate(created, (off_t)size) == 0 ? 0 : errno;
  if (error == 0) error = tarn_file_share_fd(created, kShmMode);
  if (error != 0) {
    shm_unlink(name);
    close(created);
    return error;
  }
  *fd = created;
  return 0;
}

// Opens the object as flag says, sized, into *fd. TARN_SHM_CREATE removes
// a foreign object and creates its own in its place; the other flags
// refuse it.
int open_object(const char *name, int flag, size_t size, int *fd) {
  for (int tries = 0; tries < kOpenTries; ++tries) {
    if (flag != TARN_SHM_OPEN) {
      const int error = create_object(name, size, fd);
      if (error != EEXIST) return error;
    }
    const int opened = shm_open(name, O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
    int error = opened < 0 ? errno : foreign_reason(opened);
    // A link or a socket at the name cannot even be opened.
    const bool foreign = opened < 0 ? error == ELOOP || error == ENXIO : error != 0;
    if (opened >= 0) {
      if (error == 0 && (error = fit_size(opened, flag, size)) == 0) {
        *fd = opened;
        return 0;
      }
      close(opened);
    }
    if (error == ENOENT && flag != TARN_SHM_OPEN) continue;  // removed since: again
    if (!foreign || flag != TARN_SHM_CREATE) return error;
    if (shm_unlink(name) != 0 && errno != ENOENT) return errno;
  }
  return EAGAIN;
}

}  // namespace

int tarnbase::shm_reopen(const tarn_shm_t *handle, int *fd) {
  const int opened = shm_open(handle->name, O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
  if (opened < 0) return errno;
  struct stat ours, again;
  if (fstat(handle->fd, &ours) != 0 || fstat(opened, &again) != 0 || ours.st_dev != again.st_dev ||
      ours.st_ino != again.st_ino) {
    close(opened);
    return ESTALE;
  }
  *fd = opened;
  return 0;
}

extern "C" {

TARNBASE_API int tarn_shm_init(const char *key, int flag, size_t size, tarn_shm_t **handle) {
  char name[tarnbase::kShmNameMax];
  if (handle == nullptr || size == 0 || flag < TARN_SHM_OPEN || flag > TARN_SHM_CREATE ||
      !tarnbase::make_shm_name(key, "", name))
    return fail(EINVAL);

  int fd = -1;
  const int error = open_object(name, flag, size, &fd);
  if (error != 0) return fail(error);
  tarn_shm_t *shm = static_cast<tarn_shm_t *>(calloc(1, sizeof(tarn_shm_t)));
  if (shm == nullptr) {
    close(fd);
    return fail(ENOMEM);
  }
  memcpy(shm->name, name, sizeof(name));
  shm->fd = fd;
  shm->size = size;
  *handle = shm;
  return 0;
}

TARNBASE_API int tarn_shm_map(tarn_shm_t *handle, size_t offset, void **base) {
  if (handle == nullptr || base == nullptr || offset >= handle->size ||
      offset % (size_t)sysconf(_SC_PAGESIZE) != 0)
    return fail(EINVAL);
  // A segment shrunk since it was opened would fault (SIGBUS) when read.
  struct stat st;
  if (fstat(handle->fd, &st) != 0) return errno;
  if ((size_t)st.st_size < handle->size) return fail(EINVAL);
  const size_t length = handle->size - offset;
  void *mapped = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd, (off_t)offset);
  if (mapped == MAP_FAILED) return errno;
  handle->map_base = mapped;
  handle->map_length = length;
  *base = mapped;
  return 0;
}

TARNBASE_API int tarn_shm_unmap(tarn_shm_t *handle, void *base) {
  if (handle == nullptr || base == nullptr || base != handle->map_base) return fail(EINVAL);
  if (munmap(base, handle->map_length) != 0) return errno;
  handle->map_base = nullptr;
  handle->map_length = 0;
  return 0;
}

TARNBASE_API int tarn_shm_close(tarn_shm_t *handle) {
  if (handle == nullptr) return fail(EINVAL);
  close(handle->fd);
  free(handle);
  return 0;
}

TARNBASE_API int tarn_shm_destroy(tarn_shm_t *handle) {
  if (handle == nullptr) return fail(EINVAL);
  const int result = shm_unlink(handle->name) == 0 ? 0 : errno;
  tarn_shm_close(handle);
  if (result != 0) errno = result;
  return result;
}

}  // extern "C"
