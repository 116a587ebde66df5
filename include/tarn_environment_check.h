/* tarn_environment_check.h -- is the machine fit for installing or
 * upgrading the agent?
 *
 * The installer and the upgrader ask before they change anything: does the
 * process run with administrator rights, and is there room in the backup
 * area. A separate query tells whether the machine runs UOS below a given
 * minor version.
 *
 * No function reports an error code: every failure reads as "no" (0: not
 * fit, no room, not lower) and is explained by the warn or info line quoted
 * below (the text after the line prefix, "\n" standing for the line end).
 * The functions keep no state and are re-entrant; they read the file
 * system and the process's credentials only.
 */
#ifndef TARN_ENVIRONMENT_CHECK_H
#define TARN_ENVIRONMENT_CHECK_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Whether the process runs with administrator rights: 1 when its effective
 * user id is 0. Otherwise returns 0 and logs at warn
 *   "Failed to check administrator permissions. error:%d \n"
 * with the value errno had on entry (the call itself cannot fail, so the
 * number says nothing about the check; the blank before the line end is
 * part of the text). Every call by a non-root process logs it. */
TARNAUX_API int32_t tarn_envc_is_admin(void);

/* Whether the file system holding path (which must exist) has at least
 * needed_bytes available to an unprivileged process (the figure
 * TARN_DEVICE_SPACE_AVAILABLE of tarn_device_disk_space, tarnbase/tarn_device.h).
 * Returns 1 when needed_bytes is not above the available count, else 0.
 * Also 0, logged at warn:
 *   "invalid parameter\n"              path null or empty, or needed_bytes 0
 *   "Failed to obtain system available disk space, error: %d"
 *                                      the space cannot be read (errno of
 *                                      the query; this line has no line end)
 * Space that is merely short is not logged. */
TARNAUX_API int32_t tarn_envc_path_free_space(const char *path, uint64_t needed_bytes);

/* The default pre-installation check: 1 when the process is administrator
 * (tarn_envc_is_admin) and the backup components directory (get_backup_path,
 * tarn_directory.h) has at least 512 MiB (0x20000000 bytes) available; else
 * 0. A non-administrator gets, after tarn_envc_is_admin's own line, the
 * warn line
 *   "Insufficient permissions, administrator permissions required\n"
 * and nothing is created. An administrator's call creates the backup
 * components directory with its parents (mode 0755) when it is missing,
 * whether or not there is room, and logs get_backup_path's lines. When the
 * space is short or cannot be read the result is 0 with the warn line
 *   "Failed to obtain system available disk space\n"
 * after tarn_envc_path_free_space's own line, if any; without a data root
 * the directory path is empty, so that line follows "invalid parameter\n". */
TARNAUX_API int32_t tarn_envc_def(void);

/* Whether the machine runs UOS with a minor version below minor_threshold.
 * Reads "/etc/os-release" for the first line that begins with "ID=" (not
 * VERSION_ID= or ID_LIKE=); the rest of that line, newline included, cut to
 * 15 bytes, is the system's name, which is UOS when its first three
 * characters are "uos" in any case (a quoted value, "uos" in quotation
 * marks, is not). For UOS, reads "/etc/os-version" for the first line that
 * begins with "MinorVersion=" and converts the rest (cut to 15 bytes) with
 * strtol in base 10, so that a value that is not a number counts as 0.
 * Lines are read up to 1023 bytes at a time. Both comparisons of a line's
 * beginning are case-sensitive. Each file is read only when it is a
 * regular file (a symbolic link to one is followed) of at most 64 KiB: it
 * is opened so that the open cannot block (tarn_file_open_regular,
 * tarnbase/tarn_file.h), and a FIFO, a device (a link to /dev/zero), a
 * socket, a directory or a larger file is refused at once, as a file that
 * cannot be read.
 *
 * Returns 1 when the system is UOS and minor_threshold is greater than the
 * minor version (signed comparison), logging at info
 *   "version is %s, lower than %d, os_release:%s"
 * with the version text, the threshold and the name (both texts as read,
 * with their newlines). Otherwise returns 0, logging at info one of
 *   "read %s failed, continue\n"          with "/etc/os-release" or
 *                                          "/etc/os-version": the file is
 *                                          missing, cannot be read, is
 *                                          refused as above, or has no
 *                                          such line
 *   "not %s, sysinfo is %s"               with "uos" and the name read
 *   "up than %d, cur os version is %s"    with the threshold and the version
 *                                          text (threshold not above it) */
TARNAUX_API int32_t is_uos_and_lower_version(int32_t minor_threshold);

TARNAUX_END_DECLS

#endif
