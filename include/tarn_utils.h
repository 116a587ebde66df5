/* tarn_utils.h -- app home helpers of the upgrade tools.
 *
 * These read and write the app home record "tarn_apphome.ini" at the
 * install root "/usr/share/velmora/TARN" (section "apphome"; see
 * tarn_apphome.h for the file and its lock). Unlike the readers of
 * tarn_directory.h they take the record's lock, "<record>.lock", while
 * they load it; the writer holds it for the whole update. They never touch
 * the backup record or the files' permissions.
 */
#ifndef TARN_UTILS_H
#define TARN_UTILS_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* A newly allocated copy of the install root, "/usr/share/velmora/TARN"
 * (24 bytes with the terminator); the caller frees it with free(). Never
 * null: when memory runs out the process logs "Out of memory" at fatal and
 * ends with exit status 0. */
TARNAUX_API char *get_tarn_root_dir(void);

/* Reads the app home name from the record file ini_path (key "app_home", or
 * "app_home_<suffix>" when suffix is not null) into out, which holds out_len
 * bytes. The file's lock is held while it is loaded; a lock that cannot be
 * taken does not stop the read. Returns 0 when the name was copied; 1 when
 * the key is absent (logged at warn); -1 when ini_path or out is null or
 * out_len is 0 (not logged), or when the file cannot be loaded (logged at
 * warn). */
TARNAUX_API int32_t get_app_home_dir(const char *ini_path, char *out, uint32_t out_len,
                                     const char *suffix);

/* Writes the install root + "/" + the recorded app home name (key
 * "app_home", or "app_home_<suffix>" when suffix is not null) into out,
 * which holds out_len bytes. Returns 0; 1 when out is null, out_len is 0,
 * or no name can be read from the record (logged at info: the caller is
 * expected to regenerate the record). */
TARNAUX_API int32_t get_app_home_path(const char *suffix, char *out, uint32_t out_len);

/* Under the lock of ini_path, loads the record (or starts an empty one when
 * it cannot be loaded), sets "app_home" to app_home and, when both suffix
 * and companion_home are given, "app_home_<suffix>" to companion_home, and
 * saves the whole file with direct I/O; other sections and keys are kept.
 * Returns 0; 1 for a null ini_path or app_home, or when the lock cannot be
 * taken (logged at warn); the save's non-zero code when the save fails,
 * or the ini object's code (EINVAL, ENOMEM) when a name cannot be set in
 * it, in which case nothing is written (both logged at warn). */
TARNAUX_API int32_t update_app_home_dir(const char *ini_path, const char *app_home,
                                        const char *suffix, const char *companion_home);

TARNAUX_END_DECLS

#endif
