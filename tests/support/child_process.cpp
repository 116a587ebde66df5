#include "child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace tarn_test {

namespace {

void pause_ms(long milliseconds) {
  struct timespec pause = {0, milliseconds * 1000 * 1000};
  while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
  }
}

}  // namespace

int decode_status(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return killed_by(WTERMSIG(status));
  return -1;
}

int64_t monotonic_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// ---------------------------------------------------------------------------
// Pipe

Pipe::Pipe() {
  if (pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
}

Pipe::~Pipe() {
  close_read();
  close_write();
}

void Pipe::close_end(int i) {
  if (fds_[i] >= 0) close(fds_[i]);
  fds_[i] = -1;
}

bool Pipe::send(char byte) {
  ssize_t n;
  do n = write(fds_[1], &byte, 1);
  while (n < 0 && errno == EINTR);
  return n == 1;
}

int Pipe::receive() {
  char byte = 0;
  ssize_t n;
  do n = read(fds_[0], &byte, 1);
  while (n < 0 && errno == EINTR);
  return n == 1 ? static_cast<unsigned char>(byte) : -1;
}

bool Pipe::write_int(int value) {
  ssize_t n;
  do n = write(fds_[1], &value, sizeof(value));
  while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof(value));
}

bool Pipe::read_int(int *value, int timeout_ms) {
  size_t got = 0;
  const int64_t deadline = monotonic_ms() + timeout_ms;
  while (got < sizeof(*value)) {
    const int64_t left = deadline - monotonic_ms();
    if (left <= 0) return false;
    struct pollfd p = {fds_[0], POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t n = read(fds_[0], reinterpret_cast<char *>(value) + got, sizeof(*value) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

// ---------------------------------------------------------------------------
// Barrier

void Barrier::wait() {
  pipe_.close_write();
  char byte;
  while (read(pipe_.read_fd(), &byte, 1) < 0 && errno == EINTR) {
  }
}

pid_t Barrier::start(const std::function<int()> &body) {
  return fork_child([&]() {
    wait();
    return body();
  });
}

// ---------------------------------------------------------------------------
// Forking and reaping

pid_t fork_flushed() {
  fflush(stdout);
  fflush(stderr);
  return fork();
}

void end_child(int status) {
#ifdef TARN_COVERAGE
  // exit() runs the exit handlers that write the coverage counters of the
  // program and of each library it loaded; _exit() would lose them.
  exit(status);
#else
  _exit(status);
#endif
}

pid_t fork_child(const std::function<int()> &body) {
  const pid_t pid = fork_flushed();
  if (pid == 0) end_child(body());
  return pid;
}

int reap(pid_t pid) {
  int status = 0;
  pid_t got;
  while ((got = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  if (got != pid) return -1;
  return decode_status(status);
}

void kill_and_reap(pid_t pid) {
  kill(pid, SIGKILL);
  reap(pid);
}

int run_with_time_limit(unsigned seconds, const std::function<int()> &body) {
  return reap(fork_child([&] {
    alarm(seconds);
    return body();
  }));
}

bool limit_file_size(uint64_t bytes) {
  const struct rlimit limit = {(rlim_t)bytes, (rlim_t)bytes};
  return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// ---------------------------------------------------------------------------
// Peer

Peer::Peer(const char *path, Stderr peer_stderr) {
  signal(SIGPIPE, SIG_IGN);  // a peer that died makes ask() fail, not this program
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return;
  }
  pid_ = fork_flushed();
  if (pid_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    if (peer_stderr == Stderr::kDiscard) {
      const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
      if (null_fd >= 0) dup2(null_fd, STDERR_FILENO);
    }
    execl(path, path, static_cast<char *>(nullptr));
    fprintf(stderr, "cannot run %s: %s\n", path, strerror(errno));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  if (pid_ < 0) {
    close(in[1]);
    close(out[0]);
    return;
  }
  to_peer_ = in[1];
  from_peer_ = out[0];
}

Peer::~Peer() { end_and_reap(); }

std::string Peer::ask(const std::string &command) {
  const std::string line = command + "\n";
  if (to_peer_ < 0 || write(to_peer_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    return "<no answer>";
  const int64_t deadline = monotonic_ms() + 10000;
  for (;;) {
    const size_t newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      std::string answer = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      return answer;
    }
    const int64_t left = deadline - monotonic_ms();
    if (left <= 0) return "<no answer>";
    struct pollfd p = {from_peer_, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return "<no answer>";
    char chunk[4096];
    const ssize_t n = read(from_peer_, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "<no answer>";
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

int Peer::finish() {
  if (to_peer_ >= 0) {
    const std::string line = "exit\n";
    (void)!write(to_peer_, line.data(), line.size());
  }
  return end_and_reap();
}

void Peer::kill() {
  if (pid_ > 0) kill_and_reap(pid_);
  pid_ = -1;
}

int Peer::end_and_reap() {
  if (to_peer_ >= 0) close(to_peer_);
  if (from_peer_ >= 0) close(from_peer_);
  to_peer_ = from_peer_ = -1;
  if (pid_ <= 0) return -1;
  const pid_t pid = pid_;
  pid_ = -1;
  // End of input ends the peer; one that hangs is killed.
  const int64_t deadline = monotonic_ms() + 5000;
  for (;;) {
    int status = 0;
    const pid_t got = waitpid(pid, &status, WNOHANG);
    if (got == pid) return decode_status(status);
    if (got < 0 && errno != EINTR) return -1;
    if (monotonic_ms() > deadline) {
      ::kill(pid, SIGKILL);
      return reap(pid);
    }
    pause_ms(5);
  }
}

uint64_t address_space() {
  FILE *statm = fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  unsigned long long pages = 0;
  const bool read = fscanf(statm, "%llu", &pages) == 1;
  fclose(statm);
  return read ? pages * (uint64_t)sysconf(_SC_PAGESIZE) : 0;
}

}  // namespace tarn_test
