#include "child_logs.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "child_process.h"

namespace {

// The lines captured in a forked child, sent to the parent when the child
// exits.
int g_report_fd = -1;

void write_text(int fd, const std::string &text) {
  const uint32_t size = (uint32_t)text.size();
  if (write(fd, &size, sizeof(size)) != (ssize_t)sizeof(size)) return;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += (size_t)n;
  }
}

void send_captured_lines() {
  if (g_report_fd < 0) return;
  for (const tarn_test::LogLine &line : tarn_test::logs()) {
    write_text(g_report_fd, std::to_string(line.number));
    write_text(g_report_fd, line.word);
    write_text(g_report_fd, line.message);
    write_text(g_report_fd, line.line);
  }
  close(g_report_fd);
  g_report_fd = -1;
}

bool read_exact(int fd, void *data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, static_cast<char *>(data) + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += (size_t)n;
  }
  return true;
}

bool read_text(int fd, std::string *text) {
  uint32_t size = 0;
  if (!read_exact(fd, &size, sizeof(size))) return false;
  text->assign(size, '\0');
  return size == 0 || read_exact(fd, &(*text)[0], size);
}

}  // namespace

namespace tarn_test {

ChildOutcome run_in_child(const std::function<void()> &body) {
  ChildOutcome outcome;
  int fds[2];
  if (pipe(fds) != 0) return outcome;
  const pid_t pid = tarn_test::fork_flushed();
  if (pid == 0) {
    close(fds[0]);
    g_report_fd = fds[1];
    tarn_test::clear_logs();
    atexit(send_captured_lines);
    body();
    send_captured_lines();
    tarn_test::end_child(3);
  }
  close(fds[1]);
  if (pid > 0) {
    std::string number, word, message, line;
    while (read_text(fds[0], &number) && read_text(fds[0], &word) && read_text(fds[0], &message) &&
           read_text(fds[0], &line)) {
      outcome.lines.push_back({(uint32_t)strtoul(number.c_str(), nullptr, 10), word, message, line});
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.exited = WIFEXITED(status);
    outcome.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  close(fds[0]);
  return outcome;
}

ChildOutcome run_in_child_with_time_limit(unsigned seconds, const std::function<int()> &body) {
  return run_in_child([&] {
    alarm(seconds);
    exit(body());
  });
}

}  // namespace tarn_test
