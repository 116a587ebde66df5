/* tarn_dirwalk.h -- walking a directory tree one entry at a time.
 *
 * A walk reports the entries below its root, "." and ".." excepted, in a
 * fixed order that does not depend on the file system: the entries of each
 * directory in the order of their names compared byte for byte (strcmp:
 * "B" before "a", "a" before "a0"), depth first, each directory right
 * before its own entries (when the walk goes down into it).
 *
 * The names of a directory are read when the walk enters it (the root's by
 * tarn_dirwalk_create): an entry removed after that, or one that cannot be
 * examined (lstat(2) fails), is skipped when its turn comes, and an entry
 * added after that is not reported.
 *
 * Symbolic links are not followed unless the walk was created with
 * TARN_DIRWALK_FOLLOW_LINKS: a link, also one to a directory, is then
 * reported as TARN_DIRWALK_NOT_DIR and never entered. The root itself is
 * opened as named, through a link if it is one.
 *
 * A walk is not guarded: one thread at a time.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_DIRWALK_H
#define TARN_DIRWALK_H

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_dirwalk tarn_dirwalk_t;

/* The entry kinds that tarn_dirwalk_read reports. */
#define TARN_DIRWALK_NOT_DIR 0 /* anything but a directory: file, link (not followed), device... */
#define TARN_DIRWALK_DIR 1     /* a directory */

/* Flags of tarn_dirwalk_create. */
#define TARN_DIRWALK_FOLLOW_LINKS 0x1 /* a link to a directory is a directory, and entered */

/* Opens a walk of the directory root. depth says how far below the root the
 * walk goes: 0 reports the root's own entries only, 1 also the entries of
 * each directory among them, and so on. flags is 0 or
 * TARN_DIRWALK_FOLLOW_LINKS. err may be null; otherwise it receives 0 or
 * the error. Returns the walk, which the caller closes with
 * tarn_dirwalk_close; or null with errno (and *err) set: EINVAL for a null
 * or empty root, a negative depth or an unknown flag; the errno of opening
 * or reading root (ENOENT, ENOTDIR, EACCES); ENOMEM.
 * tarn_dirwalk_create(root, 0, 0, 0) walks the root's own entries, links
 * not followed, without an error output. */
TARNBASE_API tarn_dirwalk_t *tarn_dirwalk_create(const char *root, int depth, int flags, int *err);

/* The next entry's full path: root, a '/' unless root already ends in one,
 * and the path below it ("<root>/<dir>/<name>"). Stores its kind in *kind
 * when kind is not null. The string belongs to the walk and stays valid
 * until the next tarn_dirwalk_read or tarn_dirwalk_close.
 *
 * Returns null at the end of the walk, with errno 0 (and every later call
 * returns null too); null with errno EINVAL for a null walk, or ENOMEM. A
 * directory that cannot be entered (removed meanwhile, not readable) is
 * reported itself, and the walk goes on after it without its entries. */
TARNBASE_API const char *tarn_dirwalk_read(tarn_dirwalk_t *walk, int *kind);

/* Ends the walk and frees it. Null is ignored. */
TARNBASE_API void tarn_dirwalk_close(tarn_dirwalk_t *walk);

TARNBASE_END_DECLS

#endif
