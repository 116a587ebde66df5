/* com_info.h -- component manifests, component records and lists, local
 * packages (listing, unpacking, file checks, fresh names), and joining
 * paths below the app home.
 *
 * A component manifest is a protected JSON file (see qiv_ejs.h and
 * docs/components.md) in a package's "config/component_info" directory,
 * named after the component with ".ejs". Its keys:
 *
 *   "package"           string, required: the component's name
 *   "version"           string, required: its dotted version (version_mgr.h)
 *   "scripts_skippable" true or anything else (false)
 *   "requirement"       true or anything else (false): the component is required
 *   "arch"              array of strings: processor architectures; others skipped
 *   "platform"          array of strings: platforms; others skipped
 *   "platform_version"  anything: accepted and ignored
 *   "depends"           array of strings: the components this one needs
 *   "arch_bind"         integer: architecture-binding mode (0 when absent)
 *   "retry"             true or anything else (false): an install is retried
 *   "files"             array of objects, required and not empty: each
 *                       {"name": path below the package root, optionally
 *                       beginning "__ROOT/", "sha256": hex digest}; objects
 *                       lacking either string are skipped
 *
 * Slots. Each array of a record is allocated at the length of its JSON
 * array and zero-filled, and an entry is stored at the slot of its JSON
 * index, while the count counts only the entries stored. When an entry is
 * skipped its slot stays empty (null strings) and later entries stand past
 * the count: readers walk slots 0 to count-1 and must tolerate empty slots.
 *
 * Ownership. Every pointer in a record or list is owned by it and released
 * by free_com_info_var or free_com_list_var; the record or list structure
 * itself belongs to the caller. A structure copied by value (a loaded
 * record put into a list, say) shares its pointers with the original: free
 * exactly one of the two, once. Release the arrays of a loaded record only
 * through these functions, never with tarn_free_: the library remembers
 * them (see free_com_info_var) until they are freed through it, and a
 * memory of an array freed otherwise could mislead it about a later array
 * that the allocator places at the same address.
 *
 * Results of the digest lookup and tarn_apphome_path_cat_auto are codes of
 * the family in kep_result.h. Messages named below are logged through the
 * library's log and end with a line end unless said otherwise; a function
 * whose comment names no message logs nothing.
 */
#ifndef COM_INFO_H
#define COM_INFO_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#include "kep_result.h"
#include "tarnaux_api.h"
#include "version_mgr.h"

TARNAUX_BEGIN_DECLS

/* A dependency (name and version); also a package of a local package list. */
typedef struct com_depend {
  char *name;
  version_mgr_version version;
} com_depend;

/* A file of a component and its SHA-256 digest as text. */
typedef struct com_file {
  char *name;
  char *sha256;
} com_file;

/* A component record, loaded from its manifest by load_com_info. */
typedef struct com_info_var {
  char *package;
  version_mgr_version version;
  char **platforms;
  uint32_t platform_count;
  char **archs;
  uint32_t arch_count;
  uint32_t requirement; /* 0 or 1 */
  com_depend *depends;  /* every entry carries the component's own version */
  uint32_t depend_count;
  int32_t arch_bind;
  uint32_t retry; /* 0 or 1 */
  com_file *files;
  uint32_t file_count;
  uint32_t scripts_skippable; /* 0 or 1 */
} com_info_var;

/* A list of components: kind 0 when items is an array of com_depend (names
 * and versions), non-zero when it is an array of com_info_var. */
typedef struct com_list_var {
  uint32_t kind;
  void *items;
  uint32_t count;
} com_list_var;

/* Loads the manifest at path into *info, which is zero-filled first: a
 * record that still owns memory must be freed before it is passed. The
 * record keeps no reference to the manifest's JSON tree, which is released
 * before the call returns. Returns 0 on success, 1 on failure, and then
 * *info is freed as free_com_info_var frees it (its pointers and counts are
 * zero; plain fields read before the failure, such as scripts_skippable or
 * the version, keep their values):
 * - path or info null (nothing logged, *info untouched);
 * - the manifest does not load: warn "load plugin config: %s failed";
 * - no "package" or "version" string: warn "get package name or version
 *   failed, in config: %s";
 * - the version does not parse: info "version string is invalid, %s"; the
 *   same check made again for a dependency entry logs the same text without
 *   the line end;
 * - "files" absent or empty: nothing logged.
 * When memory runs out it logs fatal "Out of memory" and ends the process
 * with status 0. */
TARNAUX_API uint32_t load_com_info(const char *path, com_info_var *info);

/* Frees every member that *info owns and zeroes the pointers and counts;
 * the plain fields (version, flags, arch_bind) are left as they are. Null
 * is ignored; a freed record may be freed again.
 * Each array is visited below its count only, skipping empty slots:
 * whatever a slot from the count on holds (in a record built by hand) is
 * never read and stays the caller's. The one exception is an array that
 * load_com_info allocated with an empty slot, whose entries may stand past
 * the count (see Slots): the library remembers such arrays, by address,
 * with their full length, from the load until they are freed here, and
 * frees every entry of them up to that length. Records may be loaded and
 * freed on any thread; for copies of a record see Ownership above. */
TARNAUX_API void free_com_info_var(com_info_var *info);

/* Frees the entries of *list below count (the name of each com_depend when
 * kind is 0, else each com_info_var with free_com_info_var) and the array,
 * then sets items to null and count to 0. A null list or null items is
 * ignored. */
TARNAUX_API void free_com_list_var(com_list_var *list);

/* Logs at info "%s arch: %s" with the package name and each architecture of
 * *info in slots 0 to arch_count-1, one line each, skipping empty slots; for
 * use after a component was found not to fit the machine. A null info logs
 * nothing. */
TARNAUX_API void print_arch_failed_info(const com_info_var *info);

/* Copies the SHA-256 digest that the manifest at path records for the file
 * file_name (compared byte for byte with each entry's "name"; the first
 * equal one wins) into buf, which holds len bytes. Returns:
 *   KEP_E_SUCCESS         the digest was copied
 *   KEP_E_INVALID_PARAM   path is null          (arguments are checked in
 *   KEP_E_NULL_BUFFER     buf is null            this order, without
 *   KEP_E_NULL_NAME       file_name is null      logging)
 *   KEP_E_FILE_NOT_EXIST  there is no file at path
 *   KEP_E_LOAD_FAILED     the manifest does not load; warn "expr[jroot]
 *                         false! load driver config file[%s] fail!\n,
 *                         err[%s]" (the line end stands inside the text)
 *   KEP_E_NOT_FOUND       no "files" (warn "expr[jarr] false! find json
 *                         object[files] fail!"), empty "files" (warn
 *                         "expr[size_val > 0] false! [files] array size =
 *                         0!"), the file is not listed (warn
 *                         "expr[KEP_E_SUCCESS == uRet] false! find [%s] in
 *                         file[%s] fail!"), or buf cannot hold the digest and
 *                         its terminator (warn "expr[buflen >
 *                         tarn_strlen(sha256)] false! sha256 strlen[%d],
 *                         buffer len[%d], too short!")
 * The walk of "files" stops at the first entry that is not there. */
TARNAUX_API kep_result_t tarn_get_component_file_sha256(const char *path, const char *file_name,
                                                        char *buf, uint32_t len);

/* Joins rel to the directory base as "<base>/<rel>", or, when base is null,
 * to the app home path as "<app home>/<rel>", and copies the result into
 * out, which holds out_len bytes. The joined path is formed in a 1024-byte
 * buffer (longer paths are cut there).
 * Returns KEP_E_SUCCESS (0) when the path was copied;
 * KEP_E_INVALID_PARAM for a null out or rel or an out_len of 0 or below;
 * the non-zero result of get_apphome_path_main (tarn_directory.h) when base
 * is null and there is no app home; or, when the path does not fit in out,
 * its length (a positive number: out must hold that many characters and a
 * terminator), leaving out untouched. The last two are logged at warn:
 * "expr[KEP_E_SUCCESS == ret] false! get apphome path fail!" (after
 * get_apphome_path_main's own line) and "expr[ret < buf_len] false! len
 * err! expect[%d], buf_len[%d]" (the length, out_len; no line end). The
 * first is not logged. */
TARNAUX_API kep_result_t tarn_apphome_path_cat_auto(const char *base, const char *rel, char *out,
                                                    int32_t out_len);

/* ---- Packages ----------------------------------------------------------
 *
 * A package is a ".tgz" archive NAME.tgz whose top directory NAME holds the
 * component's files and its manifest "NAME/config/component_info/NAME.ejs"
 * (see docs/components.md). The archive is unpacked by the system's tar
 * (unpack_tgz, tarn_utils.h) into a destination directory, where the
 * unpacked directory "<dest>/NAME" stays as the unpack cache; a failed
 * unpack removes it so that a retry starts clean, when the unpack made it:
 * one that was there before is kept. */

/* The most manifests that load_local_pack takes from one directory. */
#define COM_INFO_MAX_LOCAL_MANIFESTS 128

/* The identifier that generate_new_name returns when it cannot make one. */
#define COM_INFO_FALLBACK_NAME "6f1d2c3b-8a47-4e59-9b0c-7d2e5f4a1c38"

/* Lists the packages present under the install directory dir: the
 * manifests (".ejs" files) of "<dir>/config/component_info". A dir that
 * begins with "@" is first expanded (tarn_dirutils_path_transform: "@"
 * stands for the running program's directory). The manifest directory's
 * path is cut at 1023 characters; logged at info "current dir: %s".
 * Every entry of it that is not a directory and whose name ends in exactly
 * ".ejs" (case matters) is a manifest; every other entry, directories
 * included, logs at info "%s is not ejs" with its path. At most
 * COM_INFO_MAX_LOCAL_MANIFESTS (128) manifests are taken, the first in the
 * order of their names compared byte for byte; each one past them logs at
 * warn "too many manifests, %s ignored" with its path and is not read.
 *
 * list must be empty (zero-filled, or freed with free_com_list_var): its
 * items are replaced without being freed, and kind is not touched (0 is
 * the kind of what is stored). When at least one manifest was found,
 * items becomes a new zero-filled array of one com_depend per manifest
 * and each manifest that loads stores its "package" and parsed "version"
 * in the next free entry; count is the number stored. Entries are packed:
 * the first count entries are all stored, the rest of the array is empty.
 * A manifest that does not load is skipped, logged as load_com_info logs
 * it: warn "load plugin config: %s failed" (path), warn "get package name
 * or version failed, in config: %s" (path), info "version string is
 * invalid, %s" (version text). Free the list with free_com_list_var, also
 * when count is 0.
 * Returns 0 when at least one manifest was found, even if none loaded; 1,
 * list untouched, when dir or list is null (nothing logged) and when no
 * manifest is there (also when the directory is missing or unreadable).
 * When memory runs out it logs fatal "Out of memory" and ends the process
 * with status 0. */
TARNAUX_API uint32_t load_local_pack(const char *dir, com_list_var *list);

/* Unpacks the package archive (NAME.tgz) into the directory dest with
 * unpack_tgz (tarn_utils.h, which logs its own lines) and loads the
 * manifest "<dest>/NAME/config/component_info/NAME.ejs" into *info with
 * load_com_info (which zero-fills *info first and logs its own lines).
 * NAME is the archive's base name (get_basename). Returns 0 when both
 * worked: "<dest>/NAME" then holds the unpacked package and *info the
 * manifest (free it with free_com_info_var). Returns 1:
 * - archive, dest or info null: nothing logged, nothing touched;
 * - unpack_tgz failed: warn "unzip component failed, tgz: %s" (archive);
 *   *info untouched;
 * - the archive path has no base name usable as a directory name (empty,
 *   "." or "..", as for an archive named ".tgz"): debug "get base name
 *   failed from: [%s]" (archive); the unpacked files are left as they are
 *   and *info is untouched;
 * - the manifest does not load: info "load component info failed from
 *   (%s)" (manifest path, cut at 2047 characters), then, when nothing
 *   stood at "<dest>/NAME" before the call and a directory (not a link)
 *   stands there now, info "remove unpack cache dir [%s]" with that path,
 *   which is removed with everything in it; when something stood there
 *   before (a live directory that the package is named after), info
 *   "unpack cache dir [%s] was there before the unpack, kept" instead, and
 *   it stays; *info is zero (load_com_info freed it).
 * An archive or dest that unpack_tgz refuses as text for a shell command
 * logs its warn line "refused text for a shell command: [%s]" before
 * "unzip component failed"; tar itself runs without a shell: see
 * unpack_tgz. */
TARNAUX_API uint32_t unpack_com(const char *archive, const char *dest, com_info_var *info);

/* Checks that the files of *info are present below the unpacked package
 * directory dir: for each slot below file_count whose name and digest are
 * both set (empty slots are skipped; entries that stand past the count are
 * not visited), the file "<dir>/<name>" (cut at 1023 characters) is
 * checked with check_file_hash (tarn_utils.h), which logs each file at
 * info, or a missing one at warn. A name that begins with "__ROOT" is
 * looked for without its first 7 characters: "__ROOT/bin/x" at
 * "<dir>/bin/x" (a name that is exactly "__ROOT" at "<dir>/"). Only
 * presence is checked, never the digest.
 * Returns 0 when every checked file is there, also when *info has no
 * files; the first non-zero result of check_file_hash (1), without looking
 * at the files after it; 1 without logging when dir or info is null or dir
 * is not a directory. */
TARNAUX_API int32_t check_file(const char *dir, const com_info_var *info);

/* Results of tarn_package_verify other than 0 and a count of problems. */
#define TARN_PACKAGE_VERIFY_BAD_ARGUMENT (-EINVAL) /* null or empty argument */
#define TARN_PACKAGE_VERIFY_NO_MANIFEST (-ENOENT)  /* no directory, or no manifest */
#define TARN_PACKAGE_VERIFY_BAD_MANIFEST (-EBADMSG) /* a manifest does not load */

/* The size of the one buffer through which tarn_package_verify reads every
 * file, whatever its size. */
#define TARN_PACKAGE_VERIFY_BUFFER_SIZE 65536

/* Checks the contents of the unpacked package directory package_dir
 * against its manifests: every ".ejs" file of
 * "<package_dir>/config/component_info" (the files load_local_pack takes,
 * at most COM_INFO_MAX_LOCAL_MANIFESTS, in the order of their names) is
 * loaded with load_com_info, so that a manifest is trusted exactly as far
 * as that loader authenticates it, and then every file that a manifest
 * lists with a "name" and a "sha256" (entries lacking either are not in the
 * record and not checked) is read and its SHA-256 digest compared, without
 * regard to case, with the manifest's. A name that begins with "__ROOT" is
 * looked for without its first 7 characters, as check_file does.
 *
 * Trust. The listed name is opened below package_dir one component at a
 * time with openat and O_NOFOLLOW: a symbolic link anywhere below
 * package_dir is never followed (package_dir itself is opened as given).
 * A name that is absolute or has a ".." component is never opened. Each
 * file is read through one buffer of TARN_PACKAGE_VERIFY_BUFFER_SIZE bytes
 * and hashed as it is read: memory does not grow with the files' sizes.
 *
 * report, which holds report_len bytes, receives one line per problem, in
 * the order of the manifests and of their "files", each "<kind> <name>\n"
 * with the name as the manifest writes it:
 *   "missing <name>"             nothing at the path (ENOENT)
 *   "differs <name>"             the digest is another
 *   "not a regular file <name>"  a link, a directory, a device, a fifo, or
 *                                a link or file in place of a directory
 *   "escapes <name>"             absolute, or a ".." component
 *   "unreadable <name>"          any other failure to open or read it
 * The report is always terminated and is cut silently (possibly inside a
 * line) when it is full; the result still counts every problem. A file
 * listed by two manifests is checked, and reported, twice.
 *
 * Returns:
 *   0                                  every listed file matches; report ""
 *   a positive number                  the number of problems (report lines)
 *   TARN_PACKAGE_VERIFY_BAD_ARGUMENT   (-EINVAL) package_dir null or "",
 *                                      report null or report_len 0
 *   TARN_PACKAGE_VERIFY_NO_MANIFEST    (-ENOENT) package_dir cannot be
 *                                      opened as a directory, or holds no
 *                                      manifest
 *   TARN_PACKAGE_VERIFY_BAD_MANIFEST   (-EBADMSG) a manifest does not load
 *                                      (tampered, sealed with another key,
 *                                      not a component manifest): no file
 *                                      is checked
 * For a negative result the report is "" when there is one.
 *
 * Logs (a line end ends each):
 *   warn "package verify: no package directory given" (null or "")
 *   warn "package verify: no report buffer given" (null or length 0)
 *   warn "package verify: cannot open package directory %s: %s" (path,
 *        strerror)
 *   info "%s is not ejs" for each entry of the manifest directory that is
 *        not a manifest, as load_local_pack logs it
 *   warn "package verify: no manifest in %s" (the manifest directory)
 *   load_com_info's lines for a manifest that does not load, then warn
 *        "package verify: manifest %s does not load, package not verified"
 *   warn "package verify: %s: %s %s" (package_dir, kind, name) per problem
 *   info "package verify: %s: %u files checked, %u problems" (package_dir)
 *        at the end of a check
 * When memory runs out it logs fatal "Out of memory" and ends the process
 * with status 0. Thread-safe; the caller owns report. */
TARNAUX_API int tarn_package_verify(const char *package_dir, char *report, size_t report_len);

/* A new random identifier in its 36-character text form
 * ("3f2504e0-4f89-41d3-9a0c-0305e82c3301", tarn_uuid.h), newly allocated:
 * the caller frees it with tarn_free_ (tarn_mem.h). When previous is not
 * null the identifier differs from previous in its first 36 characters.
 * Up to three identifiers are made; when none of them could be made or
 * each equalled previous, the result is a copy of the fixed identifier
 * COM_INFO_FALLBACK_NAME, so that the caller always receives a usable name
 * (which may then equal previous). Never null and nothing logged, except
 * that when memory runs out it logs fatal "Out of memory" and ends the
 * process with status 0. */
TARNAUX_API char *generate_new_name(const char *previous);

TARNAUX_END_DECLS

#endif
