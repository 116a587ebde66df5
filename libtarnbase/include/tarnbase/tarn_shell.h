/* tarn_shell.h -- running a shell command and taking its output.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_SHELL_H
#define TARN_SHELL_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Runs "/bin/sh -c command" and waits for it to end.
 *
 * The command's standard input is /dev/null, its standard output is
 * captured, its standard error is the caller's. It inherits no other
 * descriptor of the caller (every descriptor above 2 is closed in it).
 *
 * The output is read to its end, however long, so the command never blocks
 * on a full pipe; the first out_len - 1 bytes are kept in out, then the line
 * ends at the end of what was kept (any run of '\n' and '\r') are removed,
 * so that a one-line answer such as a version number compares exactly:
 * "1.2.3\n" gives "1.2.3", "a\nb\r\n" gives "a\nb". out is always
 * terminated when it is not null and out_len is not 0 (also when the
 * command cannot be run: "" then); with a null out or out_len 0 the output
 * is read and discarded. The wait lasts until the command has ended and
 * every process that it started has closed its standard output.
 *
 * Returns 0 when the command exited with status 0; otherwise its exit
 * status (1 to 255; the shell gives 127 for a command not found), or 128 +
 * the signal number when a signal ended it; -1 (errno set) when it could
 * not be run: a null command, no pipe or process could be made, or the
 * process could not be waited for (SIGCHLD ignored by the caller). */
TARNBASE_API int tarn_shell_execute(const char *command, char *out, size_t out_len);

/* tarn_shell_execute with the command's standard input read from the
 * descriptor input_fd instead of /dev/null: the command gets a copy of it
 * as its descriptor 0 (sharing its file offset), and the caller keeps
 * input_fd open and closes it. An input_fd of -1 means /dev/null, as
 * tarn_shell_execute. Returns as tarn_shell_execute; -1 with EINVAL also
 * for an input_fd below -1, and with EBADF when input_fd is not open. */
TARNBASE_API int tarn_shell_execute_with_input(const char *command, int input_fd, char *out,
                                               size_t out_len);

TARNBASE_END_DECLS

#endif
