/* qiv_ejs.h -- protected JSON files (.ejs) read into jansson trees.
 *
 * A protected file holds JSON text signed with Ed25519 (libsodium) by its
 * publisher; docs/ejs.md describes the byte layout, the trust model and the
 * keys. A file opens only when its signature checks out under a trusted
 * public key that is not revoked: the build's own public key (compiled in)
 * or a key file in /etc/velmora/keys.d (a regular file owned by root that
 * group and others may not write; others are ignored, and each scan of the
 * directory that meets one logs at warn "key file <dir>/<name> ignored (not
 * root's or writable by others)" through libtarnbase's log). A key is revoked by
 * any entry /etc/velmora/keys.d/revoked/<key id>. The whole file is checked
 * before any of it is parsed, so a changed, cut or appended byte, an
 * unsigned file or one signed by another key makes a load fail: a load
 * never yields a half-read tree. Endpoints hold no secret key: signing needs
 * the publisher's secret key file.
 *
 * Files of the earlier sealed form (format 1, authenticated only by a key
 * that every build holds) are refused unless the library was built with
 * QIV_EJS_ACCEPT_SEALED=ON (off by default); qiv_ejs_open_sealed_file reads
 * them for conversion. Plain JSON files are refused unless the library was
 * built with QIV_EJS_ALLOW_PLAIN=ON (off by default); such a build loads a
 * file that begins with neither header as plain JSON text.
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
 *   EBADMSG  not a signed file (too short, foreign header, plain JSON or a
 *            sealed file in a build that refuses them), a key that is not
 *            trusted or is revoked, or a bad signature (changed, cut or
 *            appended bytes)
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
 * through the results, errno and the error record only (a key file ignored
 * for its owner or mode is named in the text of the load that needed it).
 */
#ifndef QIV_EJS_H
#define QIV_EJS_H

#include <stddef.h>

#include <jansson.h>

#include <qiv_ejs/qiv_ejs_api.h>

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

/* The size of a key identifier as text: 16 hexadecimal digits and the
 * terminator. */
#define QIV_EJS_KEY_ID_SIZE 17

/* Signs length bytes of text with the Ed25519 secret key in the file
 * secret_key_file (64 hexadecimal digits, as qiv_ejs_keygen writes it) into
 * a protected file at path, replacing it whole: the file is written beside
 * its final name and renamed into place, so a crash leaves the old file or
 * the new one, never a mix. The text is signed as it stands (layout and key
 * order kept); it is not checked for being JSON. The file loads wherever
 * the matching public key is trusted. Returns 0, or -1 with errno (EINVAL
 * for a null path or key file, a null text with a non-zero length, or a
 * key file that is not a regular file of 64 hexadecimal digits; EFBIG when
 * the signed file would exceed QIV_EJS_MAX_FILE_SIZE; ENOMEM; ENOSYS; or
 * the errno of reading the key or writing). */
QIV_EJS_API int qiv_ejs_sign_file(const char *path, const void *text, size_t length,
                                  const char *secret_key_file);

/* jansson's json_dump_file into a protected file: the tree is encoded with
 * jansson's encoding flags and signed with qiv_ejs_sign_file. Returns 0, or
 * -1 with errno (EINVAL when json is null or cannot be encoded, else as
 * qiv_ejs_sign_file). */
QIV_EJS_API int qiv_json_sign_file_ejs(const json_t *json, const char *path, size_t flags,
                                       const char *secret_key_file);

/* Makes a new Ed25519 key pair: the secret key (its 32-byte seed as 64
 * hexadecimal digits and a line end) into the new file secret_key_file,
 * mode 0600, and the public key likewise into the new file public_key_file,
 * mode 0644; neither may exist. key_id, when not null, receives the key's
 * identifier (QIV_EJS_KEY_ID_SIZE bytes). Returns 0, or -1 with errno
 * (EINVAL for a null path, EEXIST when a file exists, ENOSYS, or the errno
 * of writing; no file is left behind). */
QIV_EJS_API int qiv_ejs_keygen(const char *secret_key_file, const char *public_key_file, char *key_id);

/* Opens the protected file at path: on success *text receives a newly
 * allocated, zero-terminated copy of the signed text and *length its length
 * (without the terminator); free it with qiv_ejs_free. Returns 0, or -1
 * with errno as for a load (EINVAL also for a null text or length pointer);
 * *text and *length are left alone on failure. A build that allows plain
 * JSON returns a file without a protected header as it stands. */
QIV_EJS_API int qiv_ejs_open_file(const char *path, char **text, size_t *length);

/* As qiv_ejs_open_file, trusting the key files of the directory keys_dir
 * (null: /etc/velmora/keys.d; revocations in keys_dir/revoked) besides the
 * build's key; key_id, when not null, receives on success the identifier of
 * the signing key (QIV_EJS_KEY_ID_SIZE bytes; "" for a plain or sealed file
 * that a build accepts). */
QIV_EJS_API int qiv_ejs_open_file_ex(const char *path, const char *keys_dir, char **text, size_t *length,
                                     char *key_id);

/* Opens a file of the earlier sealed form (format 1) for conversion: its
 * text as qiv_ejs_open_file gives it. Its authenticity rests only on a key
 * that every build holds: sign the text anew before trusting it. Returns 0,
 * or -1 with errno (EBADMSG for any other form or a file that fails
 * authentication, else as qiv_ejs_open_file). */
QIV_EJS_API int qiv_ejs_open_sealed_file(const char *path, char **text, size_t *length);

/* Releases the text of qiv_ejs_open_file and its kin. Null is ignored. */
QIV_EJS_API void qiv_ejs_free(char *text);

#ifdef __cplusplus
}
#endif

#endif
