/* version_mgr.h -- dotted version strings ("3.2.17") and their records.
 *
 * None of these functions keeps state or allocates memory that outlives the
 * call; all are reentrant. Only version_mgr_get_packman_version_by_file
 * logs; the others log nothing.
 */
#ifndef VERSION_MGR_H
#define VERSION_MGR_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* A version: three numbers, owned by the caller. */
typedef struct version_mgr_version {
  uint32_t major;
  uint32_t minor;
  uint32_t patch;
} version_mgr_version;

/* Parses the dotted string version into *out. The string must have at
 * least three pieces separated by "."; pieces after the third are ignored
 * (1.2.3.4 gives 1.2.3). Each of the first three pieces must begin with an
 * ASCII digit; its value is read in base 10 up to the first non-digit (2rc
 * gives 2) and cut to its low 32 bits. Returns 0 on success; 1 when version
 * or out is null, the string cannot be split, or a piece is missing, empty
 * or does not begin with a digit (1..3, .1.2, 1.2.x, -1.2.3), and then *out
 * is left as it was. Logs nothing. */
TARNAUX_API uint32_t version_mgr_parser_version(const char *version, version_mgr_version *out);

/* Prints *version as "major.minor.patch" into buf, which holds len bytes,
 * cutting it to fit and always terminating it (tarn_str_snprintf). Returns
 * the number of characters written before the terminator. When version or
 * buf is null or len is 0 nothing is written and the value of the buf
 * pointer itself is returned, converted to an integer, as the function has
 * always done. */
TARNAUX_API intptr_t version_mgr_version_tostring(const version_mgr_version *version, char *buf,
                                                  uint32_t len);

/* Compares first with second: the difference of the first field that
 * differs (major, then minor, then patch), computed as a 32-bit wrap-around
 * subtraction and returned signed; 0 when all are equal. Only the sign is
 * meaningful, and it is right while the two fields differ by less than
 * 2^31. 1.10.0 against 1.9.9 gives 1, 1.2.3 against 1.2.5 gives -2. */
TARNAUX_API int32_t version_mgr_compare_version(version_mgr_version first,
                                                version_mgr_version second);

/* Copies *source into *destination; does nothing when either is null. */
TARNAUX_API void version_mgr_version_copy(const version_mgr_version *source,
                                          version_mgr_version *destination);

/* Reads the "version" string of the package manifest (a protected .ejs
 * file, see qiv_ejs.h) at path and parses it into *out. Returns 0 on
 * success, 1 on failure:
 * - path or out null: at once, without logging;
 * - the manifest does not load: warn "load ejs failed, path is %s,
 *   errcode:0x%x" with the path and errno;
 * - no "version" string: warn "get package version failed, ejs file is %s";
 * - the string does not parse: warn "version string is invalid, %s" with
 *   the string; *out is left as it was.
 * Every message ends with a line end. */
TARNAUX_API uint32_t version_mgr_get_packman_version_by_file(const char *path,
                                                             version_mgr_version *out);

TARNAUX_END_DECLS

#endif
