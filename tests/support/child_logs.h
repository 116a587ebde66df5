// Code run in a forked child whose captured log lines (fakes.h) reach the
// parent, also when the child ends inside the code through exit() -- as it
// does when memory runs out.
#ifndef TARN_TEST_CHILD_LOGS_H
#define TARN_TEST_CHILD_LOGS_H

#include <functional>
#include <vector>

#include "fakes.h"

namespace tarn_test {

struct ChildOutcome {
  bool exited = false;
  int exit_status = -1;
  int signal = 0;
  std::vector<LogLine> lines;
};

// Runs body in a forked child that starts with no captured lines; the lines
// it captured reach the parent when it exits (also through exit()). A child
// whose body returns exits with status 3.
ChildOutcome run_in_child(const std::function<void()> &body);

// run_in_child for a call that must not block: the child exits with body's
// result, and one still running after seconds is ended by SIGALRM
// (outcome.signal), so that the test fails instead of hanging.
ChildOutcome run_in_child_with_time_limit(unsigned seconds, const std::function<int()> &body);

}  // namespace tarn_test

#endif
