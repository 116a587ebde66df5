/* tarn_path.h -- questions about paths, and path text edited in place.
 *
 * The "_u" functions take '/' as the separator; tarn_path_remove_name_w
 * takes '/' and '\\' both. Functions that edit a path work in place on the
 * caller's buffer and only ever shorten it.
 *
 * Nothing here writes to the log.
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

/* The extension of the last component of path (the text after the last
 * '/'): a pointer into path at the last '.' of that component, so the
 * extension is returned with its dot. When the last component has no dot
 * the result points at path's terminating zero (an empty string), and a
 * null path gives a static empty string; the result is never null.
 *   "/tmp/a.tar.gz" -> ".gz"   "dir.d/name" -> ""   "a/" -> ""
 *   ".ejs" -> ".ejs" (a leading dot counts like any other) */
TARNBASE_API const char *tarn_path_get_ext_u(const char *path);

/* Cuts the extension of the last component of path in place: the string
 * ends at the last '.' of the text after the last '/'. A component without
 * a dot is left as it is.
 *   "/tmp/pkg.tgz" -> "/tmp/pkg"   "a.tar.gz" -> "a.tar"
 *   "dir.d/name" -> "dir.d/name"   ".ejs" -> ""
 * Returns path (null for a null path). */
TARNBASE_API char *tarn_path_remove_ext_u(char *path);

/* As tarn_path_remove_name_w with '/' as the only separator: a '\\' is
 * text like any other character.
 *   "/a/b/c.eni" -> "/a/b"    "/a//config/x.eni" -> "/a//config"   "/x" -> "/"
 *   "a\\b/c" -> "a\\b"        "a\\b" -> ""                       "" -> ""
 * Returns path (null for a null path). */
TARNBASE_API char *tarn_path_remove_name_u(char *path);

/* The last component of path: a pointer into path just after its last
 * '/', or path itself when it holds none. A path that ends in '/' gives an
 * empty string (its terminating zero); a null path gives a static empty
 * string, so the result is never null.
 *   "/dir/core.ejs" -> "core.ejs"   "core.ejs" -> "core.ejs"   "/dir/" -> "" */
TARNBASE_API const char *tarn_path_get_name_u(const char *path);

TARNBASE_END_DECLS

#endif
