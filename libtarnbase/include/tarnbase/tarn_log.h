/* tarn_log.h -- log output: levels, destinations and the log configuration.
 *
 * Configuration. One file, /etc/velmora/tarnbase.conf, in ini form, read
 * once by each process when it first needs a value; a process started or
 * forked after a change sees the change. No environment variable is read.
 *
 *   [log]
 *   level = 2            ; 0 fatal and error only, 1 +warn, 2 +info, 3 +debug
 *   dir = /var/log       ; the system log directory; empty: there is none
 *   file_max_kb = 10240  ; size at which a log file is rotated
 *
 *   [platform]
 *   x86_companion = 0    ; 1: companion x86 components (tarn_platform.h)
 *
 *   [lock]
 *   wait_seconds = 30    ; longest wait for a file lock, 1 to 86400
 *                        ; (tarn_flock.h)
 *
 *   [security]
 *   agent_group =        ; a group name: what the agent shares between
 *                        ; its processes belongs to root and this group,
 *                        ; with no access for others (tarn_file.h,
 *                        ; tarn_file_share_fd); empty: open to all users
 *
 * A missing file, section or key, and a value that is not a number in
 * range, give the default shown. A file that is malformed (a line that is
 * neither a section, a "key = value" pair, a comment nor blank, or a NUL
 * byte anywhere), that is not a regular file (a FIFO or a device is neither
 * waited for nor read) or that is longer than 1 MiB is ignored as a whole:
 * every default applies. Lines may be of any length. The system log
 * directory is also the agent's data root: its log, backup and
 * configuration trees lie below it.
 *
 * Destinations. Until a destination is registered, lines go to standard
 * error. tarn_autolog_init registers a directory of rotated log files;
 * tarn_log_register registers a function of the program's own. The last
 * registration wins.
 *
 * Apart from the lines that callers hand to tarn_log_output, nothing here
 * writes to the log; failures are reported through the results only.
 */
#ifndef TARN_LOG_H
#define TARN_LOG_H

#include <stddef.h>
#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* The path of the configuration file. */
#define TARN_LOG_CONFIG_PATH "/etc/velmora/tarnbase.conf"

/* Level numbers as passed to tarn_log_output. */
#define TARN_LOG_LEVEL_ERROR 0 /* fatal and error */
#define TARN_LOG_LEVEL_WARN 1
#define TARN_LOG_LEVEL_INFO 2
#define TARN_LOG_LEVEL_DEBUG 3

/* The current level from the configuration (default 2). */
TARNBASE_API uint32_t tarn_log_level_get(void);

/* Writes the system log directory (key dir, default "/var/log") into buf
 * and returns its length. Returns 0, and writes an empty string when buf is
 * usable, when there is none (the key is set empty), when it does not fit
 * in len bytes, or when buf is null or len 0. */
TARNBASE_API int tarn_log_dir(char *buf, size_t len);

/* Non-zero once a destination is registered in this process, 0 before. */
TARNBASE_API int tarn_log_is_regestered(void);

/* Registers a directory of rotated log files as this process's destination.
 * A directory that begins with "@" is taken relative to the directory of
 * the running executable ("@/../var/logs" beside /opt/x/bin/agent is
 * /opt/x/bin/../var/logs). The directory is created (mode 0755, parents
 * too) on the first line written. Lines are appended to <directory>/tarn.log;
 * when it reaches file_max_kb it is renamed tarn.log.1, the older ones move
 * up by one, and at most max_files files are kept in all (with 5: tarn.log
 * and tarn.log.1 to tarn.log.4). Processes that share a directory rotate it
 * together under a lock. When the directory cannot be written, lines go to
 * standard error. Returns 0, ENOMEM, or EINVAL for a null or empty
 * directory, a directory longer than 1023 bytes, or max_files outside 1 to
 * 100. May be
 * called again, also by several threads at once; the last call wins. */
TARNBASE_API int tarn_autolog_init(const char *directory, int max_files);

/* A destination of the program's own: called with the level number and one
 * whole formatted line (ending in '\n', terminated) for every line, from
 * the thread that logs, possibly from several threads at once. */
typedef void (*tarn_log_sink_fn)(void *context, uint32_t level, const char *line, size_t length);

/* Registers sink (with its context) as this process's destination. Returns
 * 0, or EINVAL when sink is null. */
TARNBASE_API int tarn_log_register(tarn_log_sink_fn sink, void *context);

/* Formats one line and writes it to the destination. The level number is
 * handed on as it is given; filtering by level is the caller's (the line is
 * written whatever the current level). A line that does not end in '\n'
 * gets one; a line longer than 8191 bytes with its '\n' is cut to that
 * length and still ends in '\n'. Failures to write, and a line that cannot
 * be formatted for want of memory, are not reported (the line is dropped). */
TARNBASE_API void tarn_log_output(uint32_t level, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/* The millisecond tick used in log lines (the monotonic clock of
 * tarn_time_get_tick_cout). */
TARNBASE_API uint64_t tarn_log_get_tick_count(void);

TARNBASE_END_DECLS

#endif
