/* tarn_process_control.h -- the configuration files of the agent's service
 * processes: whether a process is configured, installing, uninstalling and
 * restarting it.
 *
 * The agent's service manager runs one process for each configuration file
 * in the services directory of the current app home (tarn_directory.h):
 *
 *   <app home>/config/services/TARN/<name>.eni        the configuration
 *   <app home>/config/services/TARN/<name>.eni.lock   its lock file
 *
 * A configuration file is an ini object (tarnbase/tarn_ini.h) saved whole
 * with tarn_ini_file_save; its sections and keys belong to the caller and
 * are never looked at here. This library never starts or stops a process:
 * installing writes the file, uninstalling deletes it, and a restart
 * rewrites the file unchanged, which the service manager takes as the
 * request to restart the process.
 *
 * Locking. Install and restart write the file while holding an exclusive
 * lock on its lock file (tarnbase/tarn_flock.h), as the service manager
 * does when it reads it. Uninstall deletes the file without the lock. The
 * services directory is never created here: it must exist.
 *
 * Every call reads the app home record afresh; with no app home recorded,
 * every function fails. Messages named below are logged through the
 * library's log with the level given; each ends with a line end. Where the
 * app home is read, the reader's own line (get_apphome_dir_name,
 * tarn_directory.h) may come first.
 */
#ifndef TARN_PROCESS_CONTROL_H
#define TARN_PROCESS_CONTROL_H

#include <stdint.h>

#include <tarnbase/tarn_ini.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Whether the process name has a configuration file (anything that exists
 * at its path, a symbolic link to an existing file included). Returns 1
 * when it exists, otherwise 0; also 0 when there is no app home, logged at
 * error "is_tarn_process_config_exists failed: get_apphome_path_main
 * failed!". name must not be null (it is not checked). */
TARNAUX_API int32_t is_tarn_process_config_exists(const char *name);

/* Writes ini, whole, as the configuration file of the process name,
 * replacing the file that is there, under the file's lock. The caller keeps
 * ini (it is not freed or changed). Returns the result of
 * tarn_ini_file_save: 0 on success, a positive errno value on failure
 * (ENOENT when the services directory is missing); -1 when name or ini is
 * null (nothing logged), when there is no app home (logged at error
 * "install_tarn_process <name> failed: get_apphome_path_main failed!"), or
 * when the lock cannot be taken (logged at warn "install_tarn_process
 * <name> failed: lock file failed"). */
TARNAUX_API int32_t install_tarn_process(const char *name, tarn_ini_t *ini);

/* Deletes the configuration file of the process name, without taking its
 * lock. Returns the result of tarn_file_unlink: 0 on success, a positive
 * errno value on failure; -1 when name is null (nothing logged), when the
 * file does not exist (logged at warn "uninstall_tarn_process failed:
 * config <name> not exists!", after the error of
 * is_tarn_process_config_exists when there is no app home), or when the app
 * home is gone by the time the file is to be deleted (logged at error
 * "uninstall_tarn_process <name> failed: get_apphome_path_main failed!"). */
TARNAUX_API int32_t uninstall_tarn_process(const char *name);

/* Asks the service manager to restart the process name: loads its
 * configuration file and saves it back unchanged, under the file's lock,
 * so that the file is renewed on disk (a new file with a new modification
 * time; the text is the base library's saved form of what was loaded,
 * which is the file as it was when it was written by tarn_ini_file_save).
 * Returns the result of tarn_ini_file_save: 0 on success, a positive errno
 * value on failure; -1 when name is null (nothing logged), when the file
 * does not exist (logged at warn "restart_tarn_process failed: config
 * <name> not exists!", after the error of is_tarn_process_config_exists
 * when there is no app home), when the app home is gone by the time the
 * file is to be rewritten (logged at error "restart_tarn_process <name>
 * failed: get_apphome_path_main failed!"), when the lock cannot be taken
 * (logged at warn "install_tarn_process <name> failed: lock file failed",
 * the install's message), or when the file cannot be loaded (logged at
 * error "restart_tarn_process <name> failed: tarn_ini_file_load failed!";
 * the file is left as it is). */
TARNAUX_API int32_t restart_tarn_process(const char *name);

TARNAUX_END_DECLS

#endif
