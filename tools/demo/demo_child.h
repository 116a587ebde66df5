// demo_child.h -- a process of the demo's cast (a worker or the watchdog),
// started with fork and exec and driven through one pair of pipes:
//
//   demo -> child   one command per line
//   child -> demo   one reply per line: "<call> <result>"
//
// The child's program gets the two descriptors as its last two arguments.
#ifndef TARN_DEMO_CHILD_H
#define TARN_DEMO_CHILD_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace demo {

class Child {
 public:
  Child() = default;
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  ~Child() { close_pipes(); }

  std::string name;
  pid_t pid = -1;
  bool running = false;  // started and not yet reaped

  // Starts program with args, then the command and reply descriptors.
  void start(const std::string &program, const std::vector<std::string> &args);

  void send(const std::string &command);

  // Reads a reply "<call> <text>" within 5 s and returns the text.
  std::string read_reply_for(const std::string &call);

  // Reads a reply "<call> <code>" and returns the code.
  int32_t read_code_for(const std::string &call);

  // Waits for the child, which is expected to end; returns its wait status.
  int reap();

  // Kills and reaps a child that is still running (after a failure).
  void abandon();

 private:
  int cmd_fd_ = -1;
  int reply_fd_ = -1;

  std::string read_reply();
  void close_pipes();
};

}  // namespace demo

#endif
