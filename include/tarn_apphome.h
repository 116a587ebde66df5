/* tarn_apphome.h -- the app home record: finding, checking, updating and
 * rebuilding it.
 *
 * The agent's installation lives in a directory below the install root
 * "/usr/share/velmora/TARN" whose name is a UUID. Which of the directories
 * there is current is recorded in a small ini file at the install root,
 * with a backup copy beside it:
 *
 *   /usr/share/velmora/TARN/tarn_apphome.ini          the record
 *   /usr/share/velmora/TARN/tarn_apphome_backup.ini   its backup
 *
 *   [apphome]
 *   app_home = <name of the app home directory>
 *   app_home_x86 = <name of the companion app home directory>
 *   upgrade_lock_count = <kept by the upgrade tools>
 *
 * "app_home" is always present. "app_home_x86" is required, and written, only
 * on machines that carry a second app home for components of the companion
 * architecture (tarn_apphome_com_arch_str() is not null); elsewhere it is
 * neither read nor written. Other sections and keys are kept by every
 * writer, which loads the whole file, sets its keys and saves the whole
 * file.
 *
 * Values. The record is open to every user, so its values are not trusted:
 * a value of "app_home" or "app_home_x86" that is not a single directory
 * name (empty, ".", "..", or holding "/") would lead out of the install
 * root, and every reader of the library (here, tarn_directory.h,
 * tarn_utils.h, and through them the service configuration and product
 * records) takes it for a missing key, after a warn line "app home value
 * [%s] is not a directory name\n" with the value. Readers do not check the
 * UUID form: any other name is read as it stands.
 *
 * Locking. Each file is guarded by an exclusive file lock on its path
 * followed by ".lock". Every operation here loads the file afresh under its
 * lock; nothing is cached. Where both locks are held the record's is taken
 * first. A file is always saved whole with direct I/O and then opened to
 * all users. An update writes the backup right after the record, so that
 * the backup equals the record after it (a backup that cannot be written
 * is logged, not returned), and a lost or damaged record can be restored
 * from the last good one.
 *
 * An app home directory is usable ("operational") when it holds the flag
 * file config/flags/flag_operational; its spare copy
 * config/flags/flag_operational_backup restores it when it is lost.
 *
 * Results are plain integers; the convention of each function is stated
 * below. Every failure other than a refused null argument is logged before
 * the function returns. Messages are
 * quoted as logged (the text after the line prefix, "\n" the line end); a
 * function whose comment names no message logs nothing. Where a lock is
 * taken for ini_path, a failure logs at warn "flock init failed, errcode
 * is %d\n" or "flock acquire failed, errcode is %d\n" with errno.
 *
 * The operational test (used by tarn_apphome_check_validity and the
 * reduction) logs at info "current path %s not operational path,
 * errcode:0x%x\n" when the flag is missing, then "current path %s not
 * operational backup path, errcode:0x%x\n" when the spare is missing too,
 * or "copy operational backup file to operational file failed\n" when the
 * spare cannot be copied back: also when the spare is not a regular file
 * (a FIFO, a device such as a link to /dev/zero), which the copy
 * (tarn_file_copy) refuses at once instead of blocking or copying without
 * end; the directory is then not operational.
 */
#ifndef TARN_APPHOME_H
#define TARN_APPHOME_H

#include <stddef.h>
#include <stdint.h>

#include <tarnbase/tarn_ini.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Writes the record file's full path, "/usr/share/velmora/TARN/
 * tarn_apphome.ini" (40 characters), into buf, which holds len bytes.
 * Returns 0; -1, writing nothing, for a null buf or a len of 0 or below,
 * and for a len below 41 (warn "get apphoem file is failed, length %d is
 * low\n" with len). */
TARNAUX_API int32_t tarn_apphome_get_file(char *buf, int32_t len);

/* The machine's architecture as a static string: "x86" or "x64" on a
 * machine of platform kind 1 (by its platform width, whatever the CPU
 * reports), otherwise by the CPU: "x86", "x64", "arm64", "mips64". Null
 * when the platform query fails or the CPU is of another kind. */
TARNAUX_API const char *tarn_apphome_sys_arch_str(void);

/* The companion architecture as a static string: "x86" on a machine that
 * carries a second app home for 32-bit x86 components (platform kind 1,
 * width 2); null on every other machine and when the platform query
 * fails. Where it is not null, every record must hold "app_home_x86". */
TARNAUX_API const char *tarn_apphome_com_arch_str(void);

/* Returns 0 when name is UUID text: groups of 8, 4, 4, 4 and 12 hexadecimal
 * digits of either case joined by "-"; -1 otherwise, also for a null name.
 * Text after the twelfth digit of the last group is not examined. */
TARNAUX_API int32_t tarn_apphome_check_format(const char *name);

/* Reads the record file ini_path (the record or its backup) under its lock.
 * Copies the "app_home" value into apphome (apphome_len bytes, cut and
 * always terminated). When apphome_arch is not null, arch_len is not 0 and
 * the machine needs a companion app home, also copies the "app_home_x86"
 * value into apphome_arch (arch_len bytes); a missing companion value is
 * not an error, and apphome_arch then keeps what it held. A value that is
 * not a directory name (see Values above) counts as missing.
 * Returns 0; 1 when the lock cannot be taken (the flock lines above; the
 * wait for it is bounded, tarn_flock.h), the file cannot be loaded (warn
 * "tarn_ini_file_load is failed\n") or it has no "app_home" that is a
 * directory name (warn "get apphome field failed\n"); -1 for a null
 * ini_path or apphome (nothing logged). */
TARNAUX_API int32_t tarn_apphome_get_apphome(const char *ini_path, char *apphome,
                                             size_t apphome_len, char *apphome_arch,
                                             size_t arch_len);

/* Result codes of tarn_apphome_check_validity. */
#define TARN_APPHOME_VALID 0
#define TARN_APPHOME_E_NO_FILE 1          /* the given file does not exist */
#define TARN_APPHOME_E_NO_APPHOME 2       /* unreadable, or no "app_home" */
#define TARN_APPHOME_E_NO_ARCH_APPHOME 3  /* companion value needed, missing or empty */
#define TARN_APPHOME_E_APPHOME_DIR 4      /* the app home is not operational */
#define TARN_APPHOME_E_ARCH_APPHOME_DIR 5 /* the companion app home is not operational */
#define TARN_APPHOME_E_INVALID (-1)       /* null ini_path, or no install root */

/* Checks whether the record file ini_path (the record or its backup) is
 * usable, stopping at the first failure: the file exists (else 1), names an
 * app home (else 2) and, where the machine needs one, a companion app home
 * (else 3), and the named directories below the install root are
 * operational (else 4 for the app home, 5 for the companion). Returns 0
 * when valid; -1 for a null ini_path (nothing logged) or when the install
 * root cannot be had (warn "get_tarn_path is failed\n"). The other
 * failures are logged at warn: 1 "file %s is no
 * exist, errcode:0x%x\n" (path, errno); 2 tarn_apphome_get_apphome's line,
 * then "tarn_apphome_get_apphome get apphome is failed\n"; 3
 * "tarn_apphome_get_apphome get apphome_arch is failed\n"; 4 "apphome is
 * invalid, %s no exists, errcode:0x%x\n" and 5 "apphome_arch is invalid, %s
 * no exists, errcode:0x%x\n" (the directory, errno), each after the
 * operational test's info lines. The record is never modified, but the
 * operational test restores a lost flag file from its spare. */
TARNAUX_API int32_t tarn_apphome_check_validity(const char *ini_path);

/* Records apphome (and, on a machine that needs one, the companion name
 * apphome_arch) as the current app home: under the record's lock, loads the
 * record (or starts an empty one when it cannot be loaded), sets "app_home"
 * and "app_home_x86", saves it, opens it to all users and then writes the
 * same content to the backup (under the backup's lock, still holding the
 * record's). apphome_arch is ignored on machines that need no companion.
 * Returns 0; -1 for a null apphome; 1 when a companion name is needed and
 * apphome_arch is null, or when the record path or its lock cannot be had;
 * the save's non-zero code when the record cannot be saved, or the ini
 * object's code when a name cannot be set in it (EINVAL for text that an
 * ini file cannot hold, such as a line end or blanks at either end;
 * ENOMEM); in these cases nothing is written and the backup is not
 * touched. A failure to open the file to all users is only logged.
 * Logs at warn "arch apphome is NULL, need arch apphome\n" (missing
 * companion name), "get apphome file path is failed\n" (no record path),
 * the flock lines above, and "update tarn_apphome.ini failed, result is
 * %d\n" when a name cannot be set or the save fails; at info "after
 * load\n" when the record is started empty, and "file %s add user full
 * control is failed, error code is %x\n" (path, errno); then the lines of
 * tarn_apphome_backup_ini. A null apphome logs nothing. */
TARNAUX_API int32_t tarn_apphome_update(const char *apphome, const char *apphome_arch);

/* Writes ini to the backup file "tarn_apphome_backup.ini" at the install
 * root, under the backup's lock, and opens it to all users. Does nothing
 * for a null ini. Failures are logged, not returned: warn "tarn_flock_init
 * %s failed\n" or "tarn_flock_acquire %s failed\n" (the lock path), error
 * "tarn_ini_file_save_directio %s failed\n" (the backup path), warn "file
 * %s add user full privileges failed, error code is 0x%x\n" (path, errno;
 * the save stands). A saved backup logs at info "backup ini to file
 * successful!\n". The caller keeps ownership of ini. */
TARNAUX_API void tarn_apphome_backup_ini(tarn_ini_t *ini);

/* Creates the empty flag file flag_name ("flag_operational" or
 * "flag_operational_backup"; a name, not a path) in the directory
 * config/flags of the app home apphome_path, creating that directory when
 * it is missing: missing parents (the app home and config included) get
 * mode 0755 and config/flags itself 0777 through tarn_file_share_fd (0770
 * and the agent group when one is set). The flags directory is open to
 * every user, so no link is followed: config and config/flags are opened
 * without following a link, and the flag is created with O_CREAT|O_EXCL|
 * O_NOFOLLOW (mode 0666 less the umask), its existence test and creation in
 * one step. Returns 0, also when a regular file is at the flag's name
 * already (info "%s is existed\n" with the flag's path); -1 for a null
 * argument (nothing logged), or when the file cannot be created, which
 * includes a link (dangling or not), a directory or any other kind that is
 * not a regular file at the flag's name, a link at config or config/flags,
 * and an empty name or one holding '/' (warn "flag file %s create
 * failed\n"); nothing is created or truncated through a link. The file is
 * not synced to the disk. */
TARNAUX_API int32_t tarn_apphome_create_flag(const char *apphome_path, const char *flag_name);

/* Runs the service executable at the install root,
 * "/usr/share/velmora/TARN/tarn_service", with " -v" through the shell and
 * stores what it prints in buf (len bytes) as tarn_shell_execute does. The
 * command, "\"/usr/share/velmora/TARN/tarn_service\" -v", holds only the
 * fixed install root and the executable's fixed name: no text from disk
 * or from the caller reaches the shell.
 * Returns tarn_shell_execute's result (0 on success; the command's exit
 * status otherwise, nothing logged); -1, leaving buf untouched, for a null
 * buf (nothing logged), when the install root cannot be had (warn
 * "get_tarn_path is failed\n") or when the executable does not exist (warn
 * "file %s is no exist\n" with its path). */
TARNAUX_API int32_t tarn_apphome_get_service_version(char *buf, int32_t len);

/* Brings back a usable record after loss or damage, trusting in turn:
 *
 * 1. the record, when tarn_apphome_check_validity says it is valid
 *    (info "apphome file is validity, path is %s\n"): nothing is written;
 * 2. the backup, when it is valid and copies over the record (info "resum
 *    apphome successed from backup\n"); a backup that is invalid or cannot
 *    be copied leads on to the scan. The copy loads the backup under the
 *    record's lock and saves it as the record with direct I/O, logging at
 *    info "resume app_home is [%s]\n" and "restore ini from file
 *    successful!\n"; its failures log warn "%s is not existed!\n",
 *    "tarn_flock_init %s failed\n", "tarn_flock_acquire %s failed\n", "load
 *    ini file %s failed\n", error "resume app_home is empty, path is %s.\n"
 *    (also for a value that is not a directory name, after its warn line),
 *    "tarn_ini_file_save_directio %s failed\n", then warn "error occurd when
 *    write [%s] to [%s]\n" (backup, record);
 * 3. a scan of the install root. The version of the installed service is
 *    read first (tarn_apphome_get_service_version). The root's own entries
 *    are then walked (tarn_dirwalk.h: by name, byte for byte, so "0a..."
 *    before "1b..." and "B..." before "a..."; links are not followed).
 *    A directory qualifies when its name is UUID text
 *    (tarn_apphome_check_format; else info "%s not apphome path\n" with
 *    the entry's path), it is operational (which may restore its flag from
 *    the spare), and its manifest config/component_info/tarn_base.ejs
 *    loads and has the string members "package" equal to "tarn_base" and
 *    "version" equal to the service's version text (else, for a manifest
 *    that does not load, info "load plugin config: %s failed\n"). A
 *    qualifying directory that holds the tarn_base and tarn_sys manifests
 *    but not tarn_service.ejs is a companion app home; any other is a main
 *    app home. Of each kind the first in walk order is taken; the others
 *    are ignored. The two names are then recorded with
 *    tarn_apphome_update (the companion's only where the machine needs
 *    one; where it does and none was found, the update refuses).
 *
 * Returns 0 when the record is valid, restored or rebuilt (the last logged
 * at info "apphome reduction successed, apphome is %s, apphome_arch is %s",
 * without a line end, with "(null)" for a missing companion); -1 when the
 * install root cannot be had (warn "get_tarn_path is failed\n"), the
 * service's version cannot be read or is empty (warn "get tarn_service
 * version is failed, errcode is %d, service ver str is %s\n"), the walk
 * cannot be opened (warn "tarn_dirwalk_create is failed, path is %s\n")
 * or no main app home qualifies (warn "get apphome is failed\n"); or
 * tarn_apphome_update's non-zero result (warn "apphome update failed,
 * errcode %d\n"). Until the update, nothing is written: a failed scan
 * leaves both files as they were. Once it succeeded, the next call stops at
 * the first check. The checks, the version query and the update log their
 * own lines as described above. Directories are never created, renamed or
 * removed.
 * When memory runs out while a name is kept, the process logs "Out of
 * memory" at fatal and ends with exit status 0. */
TARNAUX_API int32_t tarn_apphome_reduction_file(void);

TARNAUX_END_DECLS

#endif
