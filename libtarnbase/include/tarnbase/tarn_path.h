/* tarn_path.h -- questions about paths, and path text edited in place.
 *
 * The "_u" functions take '/' as the separator; tarn_path_remove_name_w
 * takes '/' and '\\' both. Functions that edit a path work in place on the
 * caller's buffer and only ever shorten it.
 */
#ifndef TARN_PATH_H
#define TARN_PATH_H

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Non-zero when something exists at path (stat(2), so a symbolic link
 * counts when its target exists), 0 otherwise, also for a null or empty
 * path and when the path cannot be examined (no search permission). */
TARNBASE_API int tarn_path_is_exist_u(const char *path);

/* As tarn_path_is_exist_u, and stores in *err (when err is not null) 0
 * when the path exists, otherwise the errno of the failed check: ENOENT or
 * ENOTDIR for a path that is not there, EACCES when it cannot be examined,
 * EINVAL for a null or empty path. */
TARNBASE_API int tarn_path_is_exist_safe_u(const char *path, int *err);

/* Non-zero when path names an existing directory (a symbolic link to one
 * counts), 0 otherwise and for a null or empty path. */
TARNBASE_API int tarn_path_is_dir_u(const char *path);

/* Drops the last component of path in place, so that what is left is the
 * directory that holds it, without a trailing separator except the root.
 * Separators are '/' and '\\'; trailing separators are not a component.
 *   "/a/b/c.so" -> "/a/b"     "/a/b/" -> "/a"     "/x" -> "/"
 *   "/" -> "/"                "a/b" -> "a"        "name" -> ""
 *   "//x" -> "/"              "" -> ""            "a//b" -> "a"
 * Returns path (null for a null path). */
TARNBASE_API char *tarn_path_remove_name_w(char *path);

/* Normalises the separators of path in place: every '\\' becomes '/', each
 * run of '/' becomes one, and a trailing '/' is dropped unless the path is
 * the root "/". Nothing else changes ("." and ".." stay; no file system
 * access). "\\\\a//b\\" -> "/a/b", "//" -> "/", "" -> "". Returns path
 * (null for a null path). */
TARNBASE_API char *tarn_path_format_u(char *path);

TARNBASE_END_DECLS

#endif
