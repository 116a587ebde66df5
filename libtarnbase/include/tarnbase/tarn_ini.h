/* tarn_ini.h -- ini files as objects: loaded whole, changed in memory,
 * saved whole.
 *
 * Syntax, one item a line:
 *
 *   ; a comment           a line whose first non-blank character is ';' or '#'
 *   # a comment
 *   [section]             a section header; text after the ']' is ignored
 *   key = value           also "key: value"; blanks around key and value go
 *                         (blank lines are ignored)
 *
 * - Lines end at '\n' (a "\r\n" end loses its '\r' as a trailing blank)
 *   and may be of any length: the file's size is the only bound (below).
 * - Blanks at the start of a line are dropped: an indented line is read as
 *   it would be without its indent.
 * - A key before any section header belongs to the section "" (as does a
 *   key after "[]").
 * - Section names are kept as written between '[' and the first ']'
 *   (blanks included, of any length); keys and values are trimmed of
 *   surrounding blanks. Sections and keys are case-sensitive.
 * - In a value (and a key or section name) a ';' that follows a blank starts
 *   a comment that runs to the end of the line: "a = 1 ; one" gives "1".
 *   A ';' with no blank before it is text: "a = x;y" gives "x;y".
 * - A UTF-8 byte order mark at the start of the file is skipped.
 *
 * A file is malformed, and tarn_ini_file_load refuses it whole (no object,
 * never a part of the file), when it holds a NUL byte anywhere (a comment
 * included), or when any line is:
 *   - neither a comment, blank, a section header nor a key line: text
 *     without '=' or ':' outside a header, or a '[' without its ']';
 *   - a key line with an empty key ("= value"), or with a key that begins
 *     with a UTF-8 byte order mark (only the file's first one is skipped);
 *   - a key given a second time in one section.
 *
 * Order: sections and keys keep the order in which they were loaded or
 * first added; a key set again keeps its place. A save writes them in that
 * order: "[section]" a header, "key=value" a line (no blanks around '=', so
 * that no line grows longer than the line it was loaded from), a blank line
 * between sections; section "" gets no header when it comes first and
 * "[]" otherwise. Comments, blank lines and sections without keys are not
 * kept: a saved file holds none, and a loaded section without keys is not
 * in the object.
 *
 * Only text that a saved file gives back unchanged can be set, so that a
 * save never writes a file that a load would refuse or read differently:
 * tarn_ini_file_set refuses (EINVAL) a section name holding ']'; a key that
 * is empty, holds '=' or ':', begins with '[', ';', '#' or a UTF-8 byte
 * order mark, or begins or ends with a blank; a value that begins or ends
 * with a blank; any text holding a line end ('\n', '\r') or a ';' right
 * after a blank. (A C string holds no NUL byte.) A save refuses (EFBIG) an
 * object whose text would be longer than a load reads (1 MiB). Every file
 * that loads saves and loads back equal, but for one near that bound: a
 * save puts a blank line between sections, so a file within about one byte
 * a section of 1 MiB may save longer than 1 MiB, which the save refuses.
 *
 * Saving. A save replaces the file whole and crash-safely: the text goes to
 * a temporary file in the same directory, "<path>.tmp.<pid>.<n>" (never the
 * "<path>.lock" name used by lock files), which is then renamed over path.
 * A process killed at any moment, during a save too, leaves at path either
 * the complete old file or the complete new one (it may leave its
 * temporary file behind, which nothing reads; a later save that picks the
 * same name replaces it). A symbolic link at path is replaced by the file.
 * The new file keeps the permission bits of the file it replaces (and, when
 * the caller may, its owner and group); a new file gets 0666 less the
 * umask.
 *
 * Direct I/O. tarn_ini_file_save_directio is the durable save: it also
 * fsyncs the temporary file before the rename and the directory after it,
 * so that on return the new content is on the disk and survives a power
 * failure or a crash of the machine. tarn_ini_file_save leaves both to the
 * kernel: it is as safe against the death of processes but, after a crash
 * of the machine, may give back the old content. O_DIRECT itself is not
 * used: several file systems (tmpfs among them) refuse it, and for a small
 * file it buys nothing that fsync does not.
 *
 * An object is not guarded: one thread at a time. Cross-process exclusion
 * is the caller's, with tarn_flock.h. Results are 0 on success, otherwise
 * a positive errno value.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_INI_H
#define TARN_INI_H

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_ini tarn_ini_t;

/* Loads the whole file at path into a new object, which the caller frees
 * with tarn_ini_file_free. A null path gives a new empty object. Only a
 * regular file (a symbolic link to one included) of at most 1 MiB
 * (1,048,576 bytes) is read: anything else is refused at once, without
 * waiting for a FIFO's writer or reading a device. Returns null with errno
 * set when the object cannot be made: ENOENT (and the like) for a missing
 * file, EACCES for an unreadable one, EISDIR for a directory, EFTYPE
 * (tarn_file.h: ENODEV where the system has none) for a FIFO, a device, a socket or anything else that is not
 * a regular file, EFBIG for a file longer than 1 MiB (or one that grows past
 * it while it is read), EIO and the like when reading fails, EINVAL for a
 * malformed file (see above), ENOMEM. */
TARNBASE_API tarn_ini_t *tarn_ini_file_load(const char *path);

/* The value of key in section, or null when either is absent or an
 * argument is null. The string belongs to the object and stays valid until
 * that key is set again or the object is freed (changes to other keys do
 * not move it). */
TARNBASE_API const char *tarn_ini_file_get(tarn_ini_t *ini, const char *section, const char *key);

/* Sets key in section to value, adding the section (at the end) and the key
 * (at the end of its section) when they are new; a key that exists keeps
 * its place. Returns 0, EINVAL for a null argument or for text that cannot
 * be saved (see above; the object is then unchanged), ENOMEM. */
TARNBASE_API int tarn_ini_file_set(tarn_ini_t *ini, const char *section, const char *key, const char *value);

/* The value of key in section read as a decimal int: the whole value must
 * be an optional sign and decimal digits within the range of int ("12",
 * "-3", "+7"). Returns default_value when the key is absent, an argument is
 * null, or the value is anything else: empty, "12abc", "0x10", "1.5", out
 * of range. */
TARNBASE_API int tarn_ini_file_get_int(tarn_ini_t *ini, const char *section, const char *key, int default_value);

/* Sets key in section to value written in decimal ("%d"), as
 * tarn_ini_file_set. */
TARNBASE_API int tarn_ini_file_set_int(tarn_ini_t *ini, const char *section, const char *key, int value);

/* Called for each key with its section, key and value (strings of the
 * object). Returns 0 to go on, non-zero to stop. It must not change the
 * object. */
typedef int (*tarn_ini_foreach_fn)(void *user, const char *section, const char *key, const char *value);

/* Calls fn with user for every key, in the object's order (sections in
 * order, keys in order within each). Returns 0 when every key was visited,
 * the non-zero value that fn returned when it stopped the walk, or EINVAL
 * for a null ini or fn. */
TARNBASE_API int tarn_ini_file_foreach(tarn_ini_t *ini, void *user, tarn_ini_foreach_fn fn);

/* Writes the whole object to path, replacing the file as described above,
 * without waiting for the disk. flags must be 0. Returns 0, EINVAL for a
 * null ini or path, an empty path or other flags, EFBIG when the text would
 * be longer than 1 MiB (tarn_ini_file_load would refuse it), or the errno
 * of the failed step (ENOENT when path's directory is missing, EACCES,
 * ENOSPC, ...); on failure the file at path is unchanged and no temporary file is
 * left. */
TARNBASE_API int tarn_ini_file_save(tarn_ini_t *ini, const char *path, int flags);

/* As tarn_ini_file_save, and durable: when it returns 0 the new content is
 * on the disk (the temporary file and the directory are fsync-ed). Once the
 * file has been renamed into place the save reports success: a directory
 * that cannot be synced after that is not reported, since path already
 * holds the new content and a failure would tell the caller otherwise. */
TARNBASE_API int tarn_ini_file_save_directio(tarn_ini_t *ini, const char *path, int flags);

/* Frees the object and every string that it handed out. Null is allowed. */
TARNBASE_API void tarn_ini_file_free(tarn_ini_t *ini);

TARNBASE_END_DECLS

#endif
