// demo_util.cpp -- helpers shared by tarn-demo and tarn-demo-watchdog.

#include "demo_util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace demo {

void fail(const std::string &what) { throw Failure(what); }

std::string format(const char *fmt, ...) {
  char text[1024];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  return text;
}

uint64_t now_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

bool write_line(int fd, const std::string &line) {
  const std::string text = line + "\n";
  const char *data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t written = write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    left -= (size_t)written;
  }
  return true;
}

bool read_line(int fd, std::string *line) {
  line->clear();
  for (;;) {
    char c;
    const ssize_t got = read(fd, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    if (c == '\n') return true;
    line->push_back(c);
  }
}

bool parse_int(const char *text, long min, long max, long *value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char *end = nullptr;
  const long parsed = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || parsed < min || parsed > max) return false;
  *value = parsed;
  return true;
}

bool is_pipe(long fd) {
  struct stat st;
  return fd >= 0 && fd <= INT_MAX && fstat((int)fd, &st) == 0 && S_ISFIFO(st.st_mode);
}

std::string program_path() {
  char exe[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (length <= 0) fail(format("cannot read /proc/self/exe: %s", strerror(errno)));
  exe[length] = '\0';
  return exe;
}

std::string dir_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool path_exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void write_file(const std::string &path, const std::string &text, unsigned mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) fail(format("cannot create %s: %s", path.c_str(), strerror(errno)));
  const bool written = write(fd, text.data(), text.size()) == (ssize_t)text.size();
  const int error = errno;
  // The mode is given whatever the umask and whatever the file had.
  const bool moded = fchmod(fd, mode) == 0;
  if (close(fd) != 0 || !written || !moded)
    fail(format("cannot write %s: %s", path.c_str(), strerror(written ? errno : error)));
}

std::string read_file(const std::string &path) {
  FILE *file = fopen(path.c_str(), "re");
  if (file == nullptr) fail(format("cannot read %s: %s", path.c_str(), strerror(errno)));
  std::string text;
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
  const bool failed = ferror(file) != 0;
  fclose(file);
  if (failed) fail(format("cannot read %s", path.c_str()));
  return text;
}

void make_dirs(const std::string &path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
      fail(format("cannot create %s: %s", part.c_str(), strerror(errno)));
    if (slash == std::string::npos) return;
  }
}

namespace {

// Reads everything from fd until it closes or the deadline passes; false
// on time-out.
bool read_all(int fd, uint64_t deadline, std::string *out) {
  for (;;) {
    const uint64_t now = now_ms();
    if (now >= deadline) return false;
    struct pollfd p = {fd, POLLIN, 0};
    const int ready = poll(&p, 1, (int)(deadline - now));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) fail(format("poll: %s", strerror(errno)));
    if (ready == 0) continue;
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return true;
    out->append(buffer, (size_t)got);
  }
}

}  // namespace

ProgramRun run_program(const std::vector<std::string> &argv, int timeout_ms) {
  std::vector<char *> args;
  for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
  args.push_back(nullptr);

  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) fail(format("pipe: %s", strerror(errno)));
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid < 0) {
    const int error = errno;
    close(out[0]);
    close(out[1]);
    fail(format("fork: %s", strerror(error)));
  }
  if (pid == 0) {
    const int null_fd = open("/dev/null", O_RDONLY);
    if (null_fd < 0 || dup2(null_fd, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
        dup2(out[1], STDERR_FILENO) < 0)
      _exit(126);
    execvp(args[0], args.data());
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", args[0], strerror(errno));
    _exit(127);
  }
  close(out[1]);
  ProgramRun run;
  const bool ended = read_all(out[0], now_ms() + (uint64_t)timeout_ms, &run.output);
  close(out[0]);
  if (!ended) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!ended) fail(argv[0] + format(" did not end within %d ms", timeout_ms));
  if (WIFEXITED(status)) run.exit_status = WEXITSTATUS(status);
  return run;
}

void print_indented(const std::string &text, const char *indent) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    printf("%s%s\n", indent, text.substr(start, end - start).c_str());
    start = end + 1;
  }
}

}  // namespace demo
