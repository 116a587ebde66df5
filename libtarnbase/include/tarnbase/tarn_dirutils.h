/* tarn_dirutils.h -- directories: creating a tree, and "@" paths.
 *
 * Results are 0 on success, otherwise a positive errno value; errno is also
 * set on failure.
 */
#ifndef TARN_DIRUTILS_H
#define TARN_DIRUTILS_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Creates the directory path and every missing parent, each with exactly
 * the permission bits mode & 07777 whatever the process's umask (each new
 * directory is chmod-ed after mkdir(2)). Directories that already exist,
 * path included, are success and keep their own mode. Several processes may
 * create the same tree at once. Returns 0, EINVAL for a null or empty path,
 * ENOTDIR when path or one of its parents exists and is not a directory,
 * or the errno of the failed mkdir(2) / chmod(2) (EACCES, ENOSPC, ...);
 * directories created before a failure stay. */
TARNBASE_API int tarn_dirutils_mkdir(const char *path, int mode);

/* Expands an "@" path into out (out_len bytes). An input beginning with
 * "@" stands for the directory of the running executable followed by the
 * rest of the input: "@/../lib" for /opt/x/bin/agent gives
 * "/opt/x/bin/../lib" (no separator is added: "@x" gives "/opt/x/binx").
 * When the executable's path cannot be read the "@" is dropped. Any other
 * input is copied unchanged. The same expansion serves tarn_autolog_init
 * (tarn_log.h). The output is always terminated and cut when it does not
 * fit. Returns 0, EINVAL (out untouched) for a null argument or out_len 0,
 * or ENAMETOOLONG when the output was cut (out then holds the cut text). */
TARNBASE_API int tarn_dirutils_path_transform(const char *in, char *out, size_t out_len);

TARNBASE_END_DECLS

#endif
