// Helpers for tests that run code in other processes: the monotonic clock in
// milliseconds, pipes between a test and its children, a start line that
// releases forked children at once, forking and reaping, and a peer program
// driven through its standard input and output.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_CHILD_PROCESS_H
#define TARN_TEST_CHILD_PROCESS_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace tarn_test {

// CLOCK_MONOTONIC in milliseconds.
int64_t monotonic_ms();

// A pipe whose ends are closed on exec, so that programs started later do
// not keep them open. It carries single bytes (send, receive) or ints
// (write_int, read_int).
class Pipe {
 public:
  Pipe();
  ~Pipe();
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  bool ok() const { return fds_[0] >= 0 && fds_[1] >= 0; }
  int read_fd() const { return fds_[0]; }
  int write_fd() const { return fds_[1]; }
  void close_read() { close_end(0); }
  void close_write() { close_end(1); }

  bool send(char byte);
  // The next byte, or -1 at end of input.
  int receive();

  bool write_int(int value);
  // Reads one int, waiting at most timeout_ms; false on time-out or end of file.
  bool read_int(int *value, int timeout_ms = 10000);

 private:
  void close_end(int i);
  int fds_[2];
};

// A start line for forked children: each child blocks in wait() until the
// parent calls open(), which releases all of them at the same moment.
class Barrier {
 public:
  // In the child.
  void wait();
  // In the parent.
  void open() { pipe_.close_write(); }
  // Forks a child that waits at this start line, then runs body and exits
  // with its result.
  pid_t start(const std::function<int()> &body);

 private:
  Pipe pipe_;
};

// fork() after flushing the standard streams, so that nothing buffered is
// written twice.
pid_t fork_flushed();

// Ends a forked child at once with status (_exit: no exit handlers run).
// In the coverage build (scripts/coverage, TARN_COVERAGE) it ends through
// exit() instead, so that the child's coverage counters are written.
[[noreturn]] void end_child(int status);

// Forks a child that runs body and exits with its result (0 for success);
// no test framework code runs in the child after body.
pid_t fork_child(const std::function<int()> &body);

// What reap() returns for a child that a signal ended; it cannot be taken
// for an exit status.
constexpr int killed_by(int signal_number) { return 1000 + signal_number; }

// A wait status (waitpid's) as reap() reports it: the exit status,
// killed_by(the signal that ended the child), or -1 for any other.
int decode_status(int status);

// Waits for a child; returns its exit status, or killed_by(the signal that
// ended it), or -1.
int reap(pid_t pid);

void kill_and_reap(pid_t pid);

// For a call that must not block: forks a child that runs body under
// alarm(seconds) and returns reap()'s answer, body's result, or
// killed_by(SIGALRM) when body was still running at the time limit, so
// that the test fails instead of hanging.
int run_with_time_limit(unsigned seconds, const std::function<int()> &body);

// Lets this process write no file beyond bytes (RLIMIT_FSIZE): a write past
// that ends it with SIGXFSZ. For a child whose call must not copy a device
// (/dev/zero) without end. False when the limit cannot be set.
bool limit_file_size(uint64_t bytes);

// The address space that this process holds, in bytes; 0 when
// /proc/self/statm cannot be read. A test that lowers RLIMIT_AS in a child
// starts from it.
uint64_t address_space();

// A peer program started with pipes for its standard input and output and
// driven by command lines: one command line in, one answer line out. End of
// input, or the command "exit", ends it.
class Peer {
 public:
  enum class Stderr { kInherit, kDiscard };

  explicit Peer(const char *path, Stderr peer_stderr = Stderr::kInherit);
  // Closes the pipes and waits for the peer to end; one that hangs for 5
  // seconds is killed.
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  bool ok() const { return pid_ > 0 && to_peer_ >= 0 && from_peer_ >= 0; }
  pid_t pid() const { return pid_; }

  // Sends one command and returns the answer line without its newline;
  // "<no answer>" when none came within 10 seconds or the peer ended.
  std::string ask(const std::string &command);

  // Sends "exit", waits for the peer to end and returns reap()'s result.
  int finish();

  // Ends the peer with SIGKILL.
  void kill();

 private:
  int end_and_reap();

  pid_t pid_ = -1;
  int to_peer_ = -1;
  int from_peer_ = -1;
  std::string buffer_;
};

}  // namespace tarn_test

#endif
