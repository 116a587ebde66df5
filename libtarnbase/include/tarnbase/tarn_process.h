/* tarn_process.h -- questions about processes, and starting and running
 * programs without a shell.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_PROCESS_H
#define TARN_PROCESS_H

#include <stddef.h>
#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* The calling process's pid. */
TARNBASE_API int tarn_process_get_pid(void);

/* The calling process's file mode creation mask (umask), read without
 * changing it: umask(2) would change it for every thread, for a moment, to
 * read it. 022 when /proc/self/status cannot be read. */
TARNBASE_API unsigned int tarn_process_get_umask(void);

/* Non-zero when a live process with this pid exists, 0 otherwise (pid 0 or
 * less, no such process, or a zombie that has exited and waits for its
 * parent). A process that belongs to another user counts as existing. */
TARNBASE_API int tarn_process_is_exist(int pid);

/* Who a process is, beyond its pid. A pid is given to another process as
 * soon as the first has died and been reaped, at times within the same
 * clock tick, so a pid alone cannot tell a process from its successor.
 * Fixed-width fields at fixed offsets, the same for 32-bit and 64-bit
 * processes, so that an identity can be kept in shared memory. */
typedef struct tarn_process_identity {
  int32_t pid;
  uint32_t reserved;     /* 0 */
  uint64_t start_time;   /* clock ticks after boot at which it started */
  uint64_t pidfs_inode;  /* its inode number in the kernel's pidfs, never
                          * reused while the system runs (Linux 6.9 and
                          * later); 0 when the kernel has none */
  uint8_t boot_id[16];   /* this boot's id (/proc/sys/kernel/random/boot_id) */
} tarn_process_identity_t;

/* Reads the identity of the live process pid into *out (cleared first).
 * The pidfs inode and the start time are read so that both are known to
 * belong to the same process. Returns 0; EINVAL when pid is 0 or less or
 * out is null; ESRCH when there is no such process or it has exited (a
 * zombie); or the errno of reading /proc (ENOENT without /proc). */
TARNBASE_API int tarn_process_get_identity(int pid, tarn_process_identity_t *out);

/* The calling process's identity, read once per process and kept (a forked
 * child reads its own on its first call). Returns 0, or as
 * tarn_process_get_identity. */
TARNBASE_API int tarn_process_get_self_identity(tarn_process_identity_t *out);

/* 1 when a and b name one process: the same pid, boot id and start time,
 * and the same pidfs inode when both know one; 0 otherwise, and when
 * either is null. */
TARNBASE_API int tarn_process_identity_same(const tarn_process_identity_t *a,
                                            const tarn_process_identity_t *b);

/* Opens a descriptor that stays with process pid for as long as it is open
 * (a pidfd), even after its pid has gone to another process. The caller
 * closes it. Returns the descriptor, close-on-exec, or -1 with errno:
 * EINVAL for pid 0 or less, ESRCH when there is no such process, ENOSYS
 * where the kernel or an emulator offers none (Linux before 5.3), EMFILE. */
TARNBASE_API int tarn_process_open(int pid);

/* Asks, in one system call, which of count descriptors from
 * tarn_process_open name a process that has exited (a zombie included):
 * exited[i] becomes 1 for those, 0 for the others. Returns 0, or -1 with
 * errno: EINVAL for null arrays or a negative count, or the errno of
 * poll(2). */
TARNBASE_API int tarn_process_poll_exited(const int *fds, int count, unsigned char *exited);

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

/* Flags of tarn_process_run. */
/* The program, and every program that it runs, cannot make a device node
 * or a FIFO: see tarn_process_run. */
#define TARN_PROCESS_NO_SPECIAL_FILES 0x1u

/* Runs the program path (an absolute path; not looked up in PATH) with the
 * argument vector argv (argv[0] first, null-terminated) and exactly the
 * environment envp (null-terminated; nothing of the caller's environment
 * is added), without a shell, and waits for it to end. The caller's
 * environment is neither read nor changed.
 *
 * Its standard input is a copy of input_fd (sharing its file offset; the
 * caller keeps input_fd and closes it), or /dev/null for -1; its standard
 * output is captured as tarn_shell_execute captures it (read to its end,
 * the first out_len - 1 bytes kept in out without their final line ends,
 * out always terminated when it is not null and out_len is not 0: "" when
 * nothing ran); its standard error is the caller's. It inherits no other
 * descriptor, and starts with default signal handling and an empty signal
 * mask.
 *
 * With TARN_PROCESS_NO_SPECIAL_FILES in flags the child, before it
 * executes the program, sets no_new_privs (no set-ID program or file
 * capability takes effect, and an exec by root keeps no capability the
 * child has dropped), drops CAP_MKNOD from its capability sets and, where
 * it may (root), from its bounding set, and installs a seccomp filter
 * under which mknod and mknodat fail with EPERM. So neither the program nor
 * anything it runs can make a device node or a FIFO, whatever its user.
 * Where the system offers no seccomp filter (a kernel built without them,
 * or an emulator such as qemu-user: PR_SET_SECCOMP gives EINVAL or ENOSYS)
 * the filter is left out: device nodes still cannot be made (no CAP_MKNOD),
 * FIFOs can. Any other failure of these steps runs nothing (-1, errno).
 *
 * Returns 0 when the program exited with status 0; otherwise its exit
 * status (1 to 255), or 128 + the signal number when a signal ended it; -1
 * with errno when it could not be run: EINVAL for a null or relative path,
 * a null argv, argv[0] or envp, an input_fd below -1 or an unknown flag;
 * EBADF when input_fd is not open; the errno of executing it (ENOENT,
 * EACCES, ENOEXEC) or of a failed step above; EAGAIN or ENOMEM when no
 * process or pipe could be made; ECHILD when the caller ignores SIGCHLD. */
TARNBASE_API int tarn_process_run(const char *path, char *const argv[], char *const envp[],
                                  int input_fd, unsigned flags, char *out, size_t out_len);

TARNBASE_END_DECLS

#endif
