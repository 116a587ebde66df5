/* utils_internal.h -- the record's upgrade lock counter and the upgrade
 * support, for the agent's processes built with this library and its
 * tests. Not exported.
 */
#ifndef TARN_UTILS_INTERNAL_H
#define TARN_UTILS_INTERNAL_H

#include <stdint.h>

#include "tarn_utils.h"

/* The record's "upgrade_lock_count" (section "apphome"), read as a decimal
 * number under the record's lock. Returns 0 when the key is absent or not a
 * number, when the lock cannot be taken (logged at warn) and when the
 * record cannot be loaded (logged at info). */
int32_t tarn_get_upgrade_lock_count(void);

/* Where text stands in a command line that a shell reads: between double
 * quotes (alone, or inside single quotes as well), or as a word without
 * quotes. */
typedef enum { SHELL_TEXT_QUOTED, SHELL_TEXT_UNQUOTED } ShellQuoting;

/* The one check of text from disk or from a caller before it is written
 * into a shell command line. Refuses (returns true) text that holds a
 * character that could end its quoting or be read by the shell: '"', '$',
 * '`', '\', '\'' and every control character (0x01 to 0x1f, 0x7f, the line
 * end among them); for SHELL_TEXT_UNQUOTED also the blank and
 * "|&;<>()*?[]{}#~!". A refusal logs at warn
 *   "refused text for a shell command: [%s]\n"
 * with the text, each control character in it shown as \xHH (cut at 2047
 * characters). Returns false, logging nothing, for acceptable text. Bytes
 * from 0x80 up (UTF-8 names) are accepted. */
bool refuse_shell_text(const char *text, ShellQuoting quoting);

/* Upgrade support. The data root is the system log directory of the base
 * library (tarn_log_dir; "/var/log" by default); the agent's configuration
 * directory is the data root followed by "/velmora/TARN3_CFG". */

/* Records how and when this process exits: under the lock
 * "<file>.lock", loads "<configuration directory>/tarn_exit_info.eni" (or
 * starts an empty one, logged at info "after load\n"; other sections and
 * keys are kept), sets in section "config" "exit_type" to exit_type and
 * "exit_time" to tarn_time() (seconds of the wall clock, in decimal), and
 * saves the whole file with direct I/O. The configuration directory is
 * created when it is missing (parents 0755, the directory shared 0777
 * through tarn_file_share_fd: 0770 and the agent group when one is set).
 * A link at the file is not read (the file is started afresh, info "after
 * load\n", and the save replaces the link); a link at the lock file fails
 * tarn_flock_init with ELOOP.
 * Returns 0, logged at info "update file %s is successed, exit type is
 * %d\n" (path, exit_type); -1 when there is no data root (warn "get log
 * dir is error\n"); the errno-style code of tarn_flock_init (warn "flock
 * init failed with errcode %d\n"), of tarn_flock_acquire (warn "flock
 * acquire failed with errcode %d\n"), or of setting or saving the ini
 * object (warn "update %s failed, result is %d\n" with the path; the file
 * is then as it was). */
int32_t tarn_update_exit_info(int32_t exit_type);

/* Prepares the directory shared by the agent's processes for the agent's
 * identifier: creates the configuration directory and
 * "<data root>/velmora/TARN3_CFG/agent_id/" when they are missing (both
 * shared as tarn_update_exit_info makes the first), then runs "chmod -R 777
 * <directory>" through popen and waits for it, so that it and everything in
 * it is open to all users (info "excute shell succed: [%s]\n" with the
 * command; warn "excute shell failed: [%s]\n" when the command cannot be
 * started). chmod follows a link named on its command line, so the command
 * runs only when agent_id, opened without following a link below the data
 * root, is a real directory owned by root or the caller; otherwise nothing
 * is changed and it logs at warn "agent id dir %s is not a directory of
 * root or of this user, not opened to all users\n" (the directory's path).
 * The directory stands in the command without quotes, so a directory that
 * refuse_shell_text refuses with SHELL_TEXT_UNQUOTED (a blank, ';', '$'
 * and the like in the configured data root) runs no command: its warn
 * line only, after the directory was created.
 * After the command every entry of the tree, links excepted and never
 * followed, is given tarn_file_share_fd(0777): with an agent group the
 * tree ends 0770 and the group's. Without a data root it logs at warn
 * "set_tarn_agentid_dir failed! \n" and does nothing. The command's own
 * exit status is not looked at. Returns 0 always. */
int32_t set_tarn_agentid_dir(void);

/* Starts the backup tool "<app home>/bin/tarn_backup" with "-b" and
 * backup_arg as a process of its own (not the caller's child) and returns
 * without waiting for it. The command line is
 *   bash -c '"<tool>" -b "<backup_arg>"'
 * (tarn_process_create), so backup_arg reaches the tool as one argument,
 * blanks and all. The tool's path (whose app home name comes from the
 * record, open to all users) and backup_arg are first checked with
 * refuse_shell_text (SHELL_TEXT_QUOTED): a single quote, '"', '$', '`',
 * '\' or a control character in either starts nothing and gives 1 after
 * its warn line "refused text for a shell command: [%s]\n".
 * Logs at info "start backup by subprocess\n" and "backup cmd: %s\n".
 * Returns tarn_process_create's result (0) once the tool is started (its
 * own failure, such as a missing tool, is bash's and is not seen here); 1
 * for a null or empty backup_arg (warn "invalid parameter\n"), when no app
 * home is recorded (warn "Failed to obtain tarn main apphome path\n"), for
 * refused text (above; no "backup cmd" line) and when the process cannot
 * be started (warn "Starting child process for backup faile. error code
 * %d\n" with errno). */
int32_t tarn_backup_by_subprocess(const char *backup_arg);

/* Copies the file src to dst (tarn_file_copy: whole, replacing dst; a link
 * at src is refused with ELOOP), first
 * creating dst's directory with its parents (mode 0755; warn "create dest
 * dir [%s] failed\n" when it cannot be, and the copy then fails too), and
 * gives dst src's permission bits.
 * Returns 0; -1 for a null src or dst and 1 for an empty one (nothing is
 * touched, nothing logged); the copy's error (warn "copy file failed from
 * [%s] to [%s], errcode: %d\n" with both paths and errno); 1 when src's
 * permission bits cannot be read or dst's set after the copy (a link at
 * src or dst by then is not followed and gives 1). */
int32_t tarn_copy_file_to(const char *src, const char *dst);

/* Moves the file src to dst (tarn_file_rename: a rename, or across file
 * systems a copy and a removal), first creating dst's directory as
 * tarn_copy_file_to does. Returns 0; -1 for a null src or dst and 1 for an
 * empty one (nothing is touched, nothing logged); the move's error (warn
 * "move file failed from [%s] to [%s], errcode: %d\n" with both paths and
 * errno). */
int32_t tarn_move_file_to(const char *src, const char *dst);

/* Copies src to dst with tarn_file_copy_ex(src, dst, option)
 * (TARN_FILE_COPY_REPLACE or TARN_FILE_COPY_NO_REPLACE, tarn_file.h), then
 * gives dst src's permission bits. No directory is created and nothing is
 * logged. Returns 0; the copy's non-zero error as it is (EEXIST for an
 * existing dst with TARN_FILE_COPY_NO_REPLACE, ELOOP for a link at src,
 * EINVAL...); 1 when src's permission bits cannot be read or dst's set (a
 * link at either is not followed and gives 1). */
int32_t tarn_copy_file_keep_mode(const char *src, const char *dst, int32_t option);

#endif
