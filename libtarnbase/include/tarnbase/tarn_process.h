/* tarn_process.h -- questions about processes, and starting programs.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_PROCESS_H
#define TARN_PROCESS_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* The calling process's pid. */
TARNBASE_API int tarn_process_get_pid(void);

/* Non-zero when a live process with this pid exists, 0 otherwise (pid 0 or
 * less, no such process, or a zombie that has exited and waits for its
 * parent). A process that belongs to another user counts as existing. */
TARNBASE_API int tarn_process_is_exist(int pid);

/* Writes the absolute path of the executable of process pid into buf (len
 * bytes, always terminated, cut when it does not fit). Returns the length
 * written, or -1 with errno set when the path cannot be read (no such
 * process, no permission, buf null or len 0). */
TARNBASE_API int tarn_process_get_path(int pid, char *buf, size_t len);

/* Starts the program that command_line names, without a shell.
 *
 * command_line is split into an argument vector the way a shell splits
 * words, and nothing more: words are separated by blanks (space, tab, new
 * line); text in single quotes is taken as it stands; in double quotes a
 * backslash keeps its meaning only before '"', '\\', '$' and '`' and is
 * taken literally otherwise; outside quotes a backslash takes the next
 * character literally; quoted and unquoted pieces that touch form one word,
 * and "" or '' alone is an empty word. There is no expansion of any kind
 * ($, *, ~), no redirection and no pipe: those characters are plain text.
 *   bash -c '"/opt/x/tool" -b "a b"'   gives   bash | -c | "/opt/x/tool" -b "a b"
 * The first word names the program; without a '/' it is looked up in PATH.
 *
 * The program inherits the caller's standard input, output and error and
 * environment, and none of its other descriptors; it starts with default
 * signal handling and an empty signal mask, whatever the caller set up.
 *
 * With wait 0 the program runs on its own: it is started from a short-lived
 * intermediate process (which this call reaps), so it is not the caller's
 * child and never stays behind as the caller's zombie. The call returns as
 * soon as the program was started, with 0.
 *
 * With any other wait the program is the caller's child and the call waits
 * for it to end, returning its exit status (0 to 255), or 128 + the signal
 * number when a signal ended it.
 *
 * Either way the call returns -1 with errno set when the program could not
 * be started or waited for: EINVAL for a null command line, one without a
 * word or one with an unclosed quote or a trailing backslash; the errno of
 * executing it (ENOENT for a program that is not found, EACCES, ENOEXEC);
 * EAGAIN or ENOMEM when no process could be made; ECHILD when the caller
 * ignores SIGCHLD, which makes a child unwaitable (with wait 0 that is no
 * failure). */
TARNBASE_API int tarn_process_create(const char *command_line, int wait);

TARNBASE_END_DECLS

#endif
