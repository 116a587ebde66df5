// Processes: questions about them, and starting programs without a shell.

#include "tarnbase/tarn_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "proc_stat.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Splits a command line into words as tarn_process_create describes.
// Returns false for an unclosed quote or a trailing backslash.
bool split_words(const char *line, std::vector<std::string> *words) {
  std::string word;
  bool in_word = false;
  for (const char *p = line; *p != '\0'; ++p) {
    if (is_blank(*p)) {
      if (in_word) words->push_back(word);
      word.clear();
      in_word = false;
      continue;
    }
    in_word = true;
    if (*p == '\'') {
      const char *end = strchr(p + 1, '\'');
      if (end == nullptr) return false;
      word.append(p + 1, end);
      p = end;
    } else if (*p == '"') {
      for (++p; *p != '"'; ++p) {
        if (*p == '\0') return false;
        if (*p == '\\' && p[1] != '\0' && strchr("\"\\$`", p[1]) != nullptr) ++p;
        word += *p;
      }
    } else if (*p == '\\') {
      if (p[1] == '\0') return false;
      word += *++p;
    } else {
      word += *p;
    }
  }
  if (in_word) words->push_back(word);
  return true;
}

// A close-on-exec pipe whose ends are both above the standard descriptors:
// a caller that closed its own standard streams would otherwise get them
// as 0 or 1, and the child's copies would then be closed by its exec.
bool open_report_pipe(int fds[2]) {
  int raw[2];
  if (pipe2(raw, O_CLOEXEC) != 0) return false;
  fds[0] = fcntl(raw[0], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  fds[1] = fcntl(raw[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(raw[0]);
  close(raw[1]);
  if (fds[0] >= 0 && fds[1] >= 0) return true;
  if (fds[0] >= 0) close(fds[0]);
  if (fds[1] >= 0) close(fds[1]);
  errno = error;
  return false;
}

// In a forked child: writes the errno of the failed step to report_fd and
// ends the child.
[[noreturn]] void report_and_exit(int report_fd) {
  const int error = errno;
  ssize_t ignored = write(report_fd, &error, sizeof(error));
  (void)ignored;
  _exit(127);
}

// In a forked child: gives the program default signal handling, an empty
// signal mask and no descriptor above 2, then executes it. Only
// async-signal-safe calls, since the caller may have other threads.
[[noreturn]] void exec_program(char *const argv[], int report_fd) {
  struct sigaction default_action;
  memset(&default_action, 0, sizeof(default_action));
  default_action.sa_handler = SIG_DFL;
  for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
    sigaction(signal_number, &default_action, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
    const long limit = sysconf(_SC_OPEN_MAX);
    for (int fd = STDERR_FILENO + 1; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  execvp(argv[0], argv);
  report_and_exit(report_fd);
}

// Reads an errno that a child reported before the pipe's end of file.
// Returns 0 when there was none: the program was executed.
int read_report(int fd) {
  int error = 0;
  size_t got = 0;
  while (got < sizeof(error)) {
    const ssize_t n = read(fd, reinterpret_cast<char *>(&error) + got, sizeof(error) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += (size_t)n;
  }
  return got == sizeof(error) ? error : 0;
}

// Waits for pid; its exit status, 128 + the signal that ended it, or -1
// with errno.
int wait_status(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts argv; see tarn_process_create.
int create(char *const argv[], bool wait_for_end) {
  int fds[2];
  if (!open_report_pipe(fds)) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (!wait_for_end) {
      // The intermediate process: the program becomes its child, and init's
      // (or the nearest subreaper's) once it has exited.
      const pid_t program = fork();
      if (program < 0) report_and_exit(fds[1]);
      if (program > 0) _exit(0);
    }
    exec_program(argv, fds[1]);
  }
  const int fork_error = errno;
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    errno = fork_error;
    return -1;
  }
  const int start_error = read_report(fds[0]);
  close(fds[0]);
  const int status = wait_status(pid);
  if (start_error != 0) {
    errno = start_error;
    return -1;
  }
  return wait_for_end ? status : 0;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_process_get_pid(void) { return (int)getpid(); }

TARNBASE_API int tarn_process_is_exist(int pid) {
  if (pid <= 0) return 0;
  if (kill(pid, 0) != 0 && errno != EPERM) return 0;
  // kill() also succeeds for a zombie, which has exited already.
  tarnbase::ProcStat stat;
  if (!tarnbase::read_proc_stat(pid, &stat)) return 0;
  return stat.exited() ? 0 : 1;
}

TARNBASE_API int tarn_process_get_path(int pid, char *buf, size_t len) {
  if (buf == nullptr || len == 0) {
    errno = EINVAL;
    return -1;
  }
  char link[64];
  snprintf(link, sizeof(link), "/proc/%d/exe", pid);
  char path[4096];
  const ssize_t length = readlink(link, path, sizeof(path) - 1);
  if (length < 0) {
    buf[0] = '\0';
    return -1;
  }
  const size_t kept = (size_t)length < len ? (size_t)length : len - 1;
  memcpy(buf, path, kept);
  buf[kept] = '\0';
  return (int)kept;
}

TARNBASE_API int tarn_process_create(const char *command_line, int wait) {
  if (command_line == nullptr) {
    errno = EINVAL;
    return -1;
  }
  try {
    std::vector<std::string> words;
    if (!split_words(command_line, &words) || words.empty()) {
      errno = EINVAL;
      return -1;
    }
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    return create(argv.data(), wait != 0);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

}  // extern "C"
