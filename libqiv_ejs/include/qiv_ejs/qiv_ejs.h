/* qiv_ejs.h -- protected JSON files (.ejs) read into jansson trees.
 *
 * A protected file holds JSON text sealed with authenticated encryption
 * (XChaCha20-Poly1305 from libsodium) under the build's key; docs/ejs.md
 * describes the byte layout and the key handling. Opening checks the whole
 * file before any of it is parsed, so a changed, cut or appended byte, or a
 * file sealed under another key, makes a load fail: a load never yields a
 * half-read tree.
 *
 * Plain JSON files are refused unless the library was built with the CMake
 * option QIV_EJS_ALLOW_PLAIN=ON (off by default); such a build loads a file
 * that does not begin with the protected header as plain JSON text.
 *
 * The trees are ordinary jansson trees: the accessors below are the jansson
 * calls of the same stem, and jansson's own calls work on the same trees.
 *
 * Errors. A failed load returns null and sets errno:
 *   EINVAL   null path, or the text inside is not JSON that the flags
 *            accept, or the path is neither a regular file nor a directory
 *            (a named pipe or a device such as a link to /dev/zero): the
 *            open cannot block and the kind is checked before anything is
 *            read, so such a path is refused at once
 *   EBADMSG  not a protected file (too short, foreign header, plain JSON in
 *            a build that refuses it) or it fails authentication (changed,
 *            cut or appended bytes, another key)
 *   EFBIG    larger than QIV_EJS_MAX_FILE_SIZE
 *   ENOMEM   memory ran out
 *   ENOSYS   libsodium could not be initialised
 *   other    the errno of opening or reading the file (ENOENT, EACCES,
 *            EISDIR for a directory...)
 * and, when an error record is given, fills it as jansson does: text says
 * what failed ("not a regular file: Invalid argument" for a named pipe or
 * a device; docs/ejs.md lists every text), source is the path, line,
 * column and position are -1 for failures that come before parsing, and
 * the code that json_error_code reads is json_error_cannot_open_file for a
 * file that cannot be read, is refused as above or is too large,
 * json_error_invalid_format for EBADMSG, json_error_out_of_memory for
 * ENOMEM, json_error_invalid_argument for a null path, jansson's own for a
 * parse error, and json_error_unknown for ENOSYS and after a successful
 * load.
 *
 * Nothing here writes to a log or to standard error: failures are reported
 * through the results, errno and the error record only.
 */
#ifndef QIV_EJS_H
#define QIV_EJS_H

#include <stddef.h>

#include <jansson.h>

#if defined(QIV_EJS_BUILDING)
#define QIV_EJS_API __attribute__((visibility("default")))
#else
#define QIV_EJS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The largest protected file that a load or an open accepts, in bytes
 * (16 MiB): a larger one is refused (EFBIG) before it is read. */
#define QIV_EJS_MAX_FILE_SIZE (16u * 1024u * 1024u)

/* Loads the protected file at path as a JSON object or array (jansson's
 * json_load_file with flags 0). Returns a new tree with one reference, to
 * release with qiv_json_decref_ejs or qiv_json_delete_ejs; or null with
 * errno set (see above). */
QIV_EJS_API json_t *qiv_json_load_file_ejs(const char *path);

/* As qiv_json_load_file_ejs, with jansson's decoding flags (JSON_DECODE_ANY
 * (4) accepts any JSON value at top level, and so on) and an optional error
 * record (may be null). */
QIV_EJS_API json_t *qiv_json_load_file_ejs_ex(const char *path, size_t flags, json_error_t *error);

/* jansson's json_object_get: the member key of object (a borrowed
 * reference), or null when object is not an object, key is null or there is
 * no such member. */
QIV_EJS_API json_t *qiv_json_object_get_ejs(const json_t *object, const char *key);

/* jansson's json_array_size: the number of elements, or 0 when array is not
 * an array. */
QIV_EJS_API size_t qiv_json_array_size_ejs(const json_t *array);

/* jansson's json_array_get: element index (a borrowed reference), or null
 * when array is not an array or index is out of range. */
QIV_EJS_API json_t *qiv_json_array_get_ejs(const json_t *array, size_t index);

/* jansson's json_string_value: the string's text (owned by the tree), or
 * null when json is not a string. */
QIV_EJS_API const char *qiv_json_string_value_ejs(const json_t *json);

/* jansson's json_delete: frees the tree json at once, whatever its
 * reference count. Null is ignored. */
QIV_EJS_API void qiv_json_delete_ejs(json_t *json);

/* jansson's json_decref: drops one reference and frees the tree with the
 * last one. Null is ignored. */
QIV_EJS_API void qiv_json_decref_ejs(json_t *json);

/* Seals length bytes of text into a protected file at path, replacing it
 * whole: the file is written beside its final name and renamed into place,
 * so a crash leaves the old file or the new one, never a mix. The text is
 * sealed as it stands (layout and key order kept); it is not checked for
 * being JSON. Returns 0, or -1 with errno (EINVAL for a null path or a null
 * text with a non-zero length, EFBIG when the sealed file would exceed
 * QIV_EJS_MAX_FILE_SIZE, ENOMEM, or the errno of writing). */
QIV_EJS_API int qiv_ejs_seal_file(const char *path, const void *text, size_t length);

/* Opens the protected file at path: on success *text receives a newly
 * allocated, zero-terminated copy of the sealed text and *length its length
 * (without the terminator); free it with qiv_ejs_free. Returns 0, or -1
 * with errno as for a load (EINVAL also for a null text or length pointer);
 * *text and *length are left alone on failure. A build that allows plain
 * JSON returns a file without the protected header as it stands. */
QIV_EJS_API int qiv_ejs_open_file(const char *path, char **text, size_t *length);

/* Releases the text of qiv_ejs_open_file. Null is ignored. */
QIV_EJS_API void qiv_ejs_free(char *text);

/* jansson's json_dump_file into a protected file: the tree is encoded with
 * jansson's encoding flags and sealed with qiv_ejs_seal_file. Returns 0, or
 * -1 with errno (EINVAL when json is null or cannot be encoded). */
QIV_EJS_API int qiv_json_dump_file_ejs(const json_t *json, const char *path, size_t flags);

#ifdef __cplusplus
}
#endif

#endif
