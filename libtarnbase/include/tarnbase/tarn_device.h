/* tarn_device.h -- disk space of the file system that holds a path.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_DEVICE_H
#define TARN_DEVICE_H

#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* The figures that tarn_device_disk_space reports, in bytes (statvfs(3)
 * block counts multiplied by the fragment size f_frsize). */
enum {
  /* Free space that a process without administrator rights may fill:
   * f_bavail * f_frsize. The blocks that the file system keeps back for the
   * administrator are not counted. */
  TARN_DEVICE_SPACE_AVAILABLE = 0,
  /* All free space, the administrator's reserve included: f_bfree * f_frsize. */
  TARN_DEVICE_SPACE_FREE = 1,
  /* The size of the file system: f_blocks * f_frsize. */
  TARN_DEVICE_SPACE_TOTAL = 2
};

/* Stores in *bytes the figure kind (above) of the file system that holds
 * path, which must exist (a file or a directory; symbolic links are
 * followed). A product that does not fit in 64 bits is reported as
 * UINT64_MAX.
 *
 * Unlike most functions of this library, the result is 1 on success and 0
 * on failure; *bytes is then left as it was and errno tells why: EINVAL for
 * a null or empty path, a null bytes or an unknown kind, otherwise the errno
 * of statvfs(3) (ENOENT, ENOTDIR, EACCES, ...). */
TARNBASE_API int tarn_device_disk_space(const char *path, int kind, uint64_t *bytes);

TARNBASE_END_DECLS

#endif
