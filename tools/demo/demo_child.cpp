// demo_child.cpp -- starting and driving the demo's child processes.

#include "demo_child.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "demo_util.h"

namespace demo {
namespace {

constexpr int kReplyTimeoutMs = 5000;

}  // namespace

void Child::start(const std::string &program, const std::vector<std::string> &args) {
  int cmd[2], reply[2];
  if (pipe2(cmd, O_CLOEXEC) != 0) fail(format("pipe: %s", strerror(errno)));
  if (pipe2(reply, O_CLOEXEC) != 0) {
    const int error = errno;
    close(cmd[0]);
    close(cmd[1]);
    fail(format("pipe: %s", strerror(error)));
  }
  std::vector<std::string> words = {program};
  words.insert(words.end(), args.begin(), args.end());
  words.push_back(std::to_string(cmd[0]));
  words.push_back(std::to_string(reply[1]));
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);

  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child < 0) {
    const int error = errno;
    close(cmd[0]), close(cmd[1]), close(reply[0]), close(reply[1]);
    fail(format("fork: %s", strerror(error)));
  }
  if (child == 0) {
    // The child keeps its own two ends across exec; every other pipe of the
    // demo is close-on-exec.
    fcntl(cmd[0], F_SETFD, 0);
    fcntl(reply[1], F_SETFD, 0);
    execv(program.c_str(), argv.data());
    dprintf(STDERR_FILENO, "tarn-demo: cannot start %s: %s\n", name.c_str(), strerror(errno));
    _exit(127);
  }
  close(cmd[0]);
  close(reply[1]);
  pid = child;
  cmd_fd_ = cmd[1];
  reply_fd_ = reply[0];
  running = true;
}

void Child::send(const std::string &command) {
  if (!write_line(cmd_fd_, command))
    fail(name + format(": sending \"%s\": %s", command.c_str(), strerror(errno)));
}

std::string Child::read_reply() {
  std::string line;
  const uint64_t deadline = now_ms() + kReplyTimeoutMs;
  for (;;) {
    const uint64_t now = now_ms();
    if (now >= deadline) fail(name + " did not answer within 5 s");
    struct pollfd p = {reply_fd_, POLLIN, 0};
    const int ready = poll(&p, 1, (int)(deadline - now));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) fail(format("poll: %s", strerror(errno)));
    if (ready == 0) continue;
    char c;
    const ssize_t got = read(reply_fd_, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail(name + format(": reading its answer: %s", strerror(errno)));
    if (got == 0) fail(name + " closed its pipe (did it exit?)");
    if (c == '\n') return line;
    line.push_back(c);
  }
}

std::string Child::read_reply_for(const std::string &call) {
  const std::string line = read_reply();
  const size_t space = line.find(' ');
  if (space == std::string::npos || line.compare(0, space, call) != 0)
    fail(name + " answered \"" + line + "\" where \"" + call + " ...\" was expected");
  return line.substr(space + 1);
}

int32_t Child::read_code_for(const std::string &call) {
  const std::string text = read_reply_for(call);
  long code = 0;
  if (!parse_int(text.c_str(), INT32_MIN, INT32_MAX, &code))
    fail(name + " answered \"" + call + " " + text + "\": not a result code");
  return (int32_t)code;
}

int Child::reap() {
  int status = 0;
  pid_t got;
  while ((got = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  if (got != pid) fail(name + format(": waitpid: %s", strerror(errno)));
  running = false;
  close_pipes();
  return status;
}

void Child::abandon() {
  if (!running) return;
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  running = false;
  close_pipes();
}

void Child::close_pipes() {
  if (cmd_fd_ >= 0) close(cmd_fd_);
  if (reply_fd_ >= 0) close(reply_fd_);
  cmd_fd_ = reply_fd_ = -1;
}

}  // namespace demo
