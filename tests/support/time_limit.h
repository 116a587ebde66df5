// A time limit for a call that must return at once, such as a reader given
// a FIFO or a device in place of a file: should the call block or read
// without end, the limit ends the whole test program (status 124) after it
// names the call on standard error, so that the failure shows instead of a
// hang. It is armed by the constructor (alarm(2) and a SIGALRM handler)
// and disarmed by the destructor; one at a time per process. A forked child
// may arm its own. within_time_limit wraps one call in one.
#ifndef TARN_TEST_TIME_LIMIT_H
#define TARN_TEST_TIME_LIMIT_H

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace tarn_test {

class TimeLimit {
 public:
  TimeLimit(unsigned seconds, const std::string &what) {
    const std::string text = "time limit of " + std::to_string(seconds) + " s passed: " + what + "\n";
    strncpy(message_, text.c_str(), sizeof(message_) - 1);
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_alarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved_);
    alarm(seconds);
  }
  ~TimeLimit() {
    alarm(0);
    sigaction(SIGALRM, &saved_, nullptr);
  }
  TimeLimit(const TimeLimit &) = delete;
  TimeLimit &operator=(const TimeLimit &) = delete;

 private:
  static void on_alarm(int) {
    const ssize_t ignored = write(STDERR_FILENO, message_, strlen(message_));
    (void)ignored;
    _exit(124);
  }

  static inline char message_[512] = {0};
  struct sigaction saved_;
};

// What call() returns, called under a TimeLimit of 5 seconds that names it
// what.
template <typename Call>
auto within_time_limit(const std::string &what, Call call) -> decltype(call()) {
  const TimeLimit limit(5, what);
  return call();
}

}  // namespace tarn_test

#endif
