#include "tarnbase/tarn_shm.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shm_name.h"
#include "errno_result.h"

struct tarn_shm {
  char name[tarnbase::kShmNameMax];
  int fd;
  size_t size;
  void *map_base;  // the latest mapping, or null
  size_t map_length;
};

namespace {

constexpr mode_t kShmMode = 0660;

using tarnbase::fail;

// Opens the object, creating it when the flag allows. *created tells
// whether this call made it.
int open_object(const char *name, int flag, bool *created) {
  *created = false;
  if (flag == TARN_SHM_OPEN) return shm_open(name, O_RDWR | O_CLOEXEC, 0);
  for (;;) {
    int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kShmMode);
    if (fd >= 0) {
      *created = true;
      fchmod(fd, kShmMode);  // the umask must not narrow who may attach
      return fd;
    }
    if (errno != EEXIST) return -1;
    fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0 || errno != ENOENT) return fd;
    // Removed between the two calls: try again.
  }
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_shm_init(const char *key, int flag, size_t size, tarn_shm_t **handle) {
  char name[tarnbase::kShmNameMax];
  if (handle == nullptr || size == 0 || flag < TARN_SHM_OPEN || flag > TARN_SHM_CREATE ||
      !tarnbase::make_shm_name(key, "", name))
    return fail(EINVAL);

  bool created = false;
  const int fd = open_object(name, flag, &created);
  if (fd < 0) return errno;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    const int error = errno;
    close(fd);
    return fail(error);
  }
  // A segment of size 0 has just been created by someone who has not sized
  // it yet; every opener sizes it, so that none maps a segment too short.
  const size_t current = (size_t)st.st_size;
  if (current < size) {
    if (current != 0 && !created && flag != TARN_SHM_CREATE) {
      close(fd);
      return fail(EINVAL);
    }
    if (ftruncate(fd, (off_t)size) != 0) {
      const int error = errno;
      close(fd);
      return fail(error);
    }
  }
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
