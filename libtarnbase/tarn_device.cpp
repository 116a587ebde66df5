// Disk space through statvfs(3), in its 64-bit form so that a 32-bit build
// reads large file systems too.

#include "tarnbase/tarn_device.h"

#include <errno.h>
#include <sys/statvfs.h>

namespace {

// blocks * block_size, held at UINT64_MAX when it does not fit.
uint64_t bytes_of(uint64_t blocks, uint64_t block_size) {
  if (block_size != 0 && blocks > UINT64_MAX / block_size) return UINT64_MAX;
  return blocks * block_size;
}

}  // namespace

extern "C" TARNBASE_API int tarn_device_disk_space(const char *path, int kind, uint64_t *bytes) {
  if (path == nullptr || path[0] == '\0' || bytes == nullptr ||
      (kind != TARN_DEVICE_SPACE_AVAILABLE && kind != TARN_DEVICE_SPACE_FREE &&
       kind != TARN_DEVICE_SPACE_TOTAL)) {
    errno = EINVAL;
    return 0;
  }
  struct statvfs64 fs;
  if (statvfs64(path, &fs) != 0) return 0;
  uint64_t blocks = fs.f_bavail;
  if (kind == TARN_DEVICE_SPACE_FREE) blocks = fs.f_bfree;
  if (kind == TARN_DEVICE_SPACE_TOTAL) blocks = fs.f_blocks;
  *bytes = bytes_of(blocks, fs.f_frsize);
  return 1;
}
