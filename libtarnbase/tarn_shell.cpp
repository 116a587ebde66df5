// Running a shell command with its standard output captured.

#include "tarnbase/tarn_shell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "command_output.h"

extern char **environ;

namespace {

// Starts "/bin/sh -c command" reading input_fd (-1: /dev/null) and writing
// to output_fd. The child gets default signal dispositions and an empty
// signal mask, whatever the caller set up, and only descriptors 0 to 2.
pid_t spawn_shell(const char *command, int input_fd, int output_fd) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  int error = input_fd >= 0
                  ? posix_spawn_file_actions_adddup2(&actions, input_fd, STDIN_FILENO)
                  : posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (error == 0) error = posix_spawn_file_actions_adddup2(&actions, output_fd, STDOUT_FILENO);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors that the caller opened without close-on-exec stay out too.
  if (error == 0) error = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
  if (error == 0) error = posix_spawnattr_setsigdefault(&attributes, &all);
  if (error == 0) error = posix_spawnattr_setsigmask(&attributes, &none);
  if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  if (error == 0) {
    char sh[] = "sh";
    char dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(command), nullptr};
    error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv, environ);
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return pid;
}

int wait_for(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Both exported functions: input_fd -1 is /dev/null.
int execute(const char *command, int input_fd, char *out, size_t out_len) {
  if (out != nullptr && out_len > 0) out[0] = '\0';
  if (command == nullptr || input_fd < -1) {
    errno = EINVAL;
    return -1;
  }
  if (input_fd >= 0 && fcntl(input_fd, F_GETFD) < 0) return -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  // The child's end must not be 0 or 1 (a caller may have closed its own
  // standard streams): the child's dup2 onto 1 would then keep it
  // close-on-exec.
  if (fds[1] <= STDERR_FILENO) {
    const int moved = fcntl(fds[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fds[1]);
    if (moved < 0) {
      close(fds[0]);
      errno = error;
      return -1;
    }
    fds[1] = moved;
  }
  const pid_t pid = spawn_shell(command, input_fd, fds[1]);
  const int spawn_error = errno;
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    errno = spawn_error;
    return -1;
  }
  tarnbase::read_command_output(fds[0], out, out_len);
  close(fds[0]);
  return wait_for(pid);
}

}  // namespace

namespace tarnbase {

void read_command_output(int fd, char *out, size_t out_len) {
  size_t kept = 0;
  char discard[4096];
  for (;;) {
    const bool room = out != nullptr && kept + 1 < out_len;
    char *target = room ? out + kept : discard;
    const size_t wanted = room ? out_len - 1 - kept : sizeof(discard);
    const ssize_t got = read(fd, target, wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (room) kept += (size_t)got;
  }
  if (out == nullptr || out_len == 0) return;
  while (kept > 0 && (out[kept - 1] == '\n' || out[kept - 1] == '\r')) --kept;
  out[kept] = '\0';
}

}  // namespace tarnbase

extern "C" {

TARNBASE_API int tarn_shell_execute(const char *command, char *out, size_t out_len) {
  return execute(command, -1, out, out_len);
}

TARNBASE_API int tarn_shell_execute_with_input(const char *command, int input_fd, char *out,
                                               size_t out_len) {
  return execute(command, input_fd, out, out_len);
}

}  // extern "C"
