// Step-kill trials: a child runs one operation on shared memory while this
// process single-steps it (ptrace), one instruction at a time, and watches
// the memory after every step; then the operation is replayed in fresh
// children, each killed with SIGKILL right after one more of the changes it
// makes, so that every state the memory can be left in by a kill is tried.
//
// A kill changes nothing in memory: every kill point between two changes
// leaves the same state, so one kill per change covers all of them.
//
// The watched memory is every object in /dev/shm whose name begins with a
// prefix, mapped read-only here: the ones present when the child stops
// before its operation, and any that appear (or grow) while it runs.
//
// Nothing here calls the project's libraries, so every test program can
// link it.
#ifndef TARN_TEST_STEP_KILL_H
#define TARN_TEST_STEP_KILL_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarn_test {

// The watched memory at one moment: each object's name (without /dev/shm/)
// and its bytes.
using MemoryState = std::map<std::string, std::string>;

// What runs in the child, and the bounds of a run.
struct SteppedOperation {
  std::string prefix;              // the watched names in /dev/shm begin with it
  std::function<void()> setup;     // in the child, untraced: the process state the operation needs
  std::function<int()> operation;  // in the child, traced; the child exits with its result's low byte
  long step_budget = 4000000;      // a run that takes more steps fails
  unsigned time_limit_s = 120;     // a run that takes longer fails
};

// One run of the child.
struct SteppedRun {
  std::string error;   // "" when the run went as asked, else what went wrong
  pid_t pid = -1;      // the traced child
  int status = -1;     // reap()'s answer: the exit status, or killed_by(SIGKILL)
  long steps = 0;      // instructions stepped
  // For each change of the watched memory: the step after which it was
  // seen, and the names of the objects that changed.
  std::vector<long> change_steps;
  std::vector<std::string> changed;
  MemoryState first;  // when the child stopped before its operation
  MemoryState last;   // at its end, or when it was killed
};

// Runs the operation in a fresh child. With kill_after > 0 the child is
// killed with SIGKILL and reaped as soon as the kill_after-th change has
// been seen; otherwise it runs to its end.
SteppedRun run_stepped(const SteppedOperation &op, int kill_after = 0);

// "" when this process can single-step a child of its own; otherwise why
// not. *emulated tells whether the reason is that the program runs under a
// user-mode emulator (qemu-user), which offers no ptrace to the programs it
// runs and shows its own program as a child's /proc/<pid>/exe.
std::string single_step_unavailable(bool *emulated);

// A killed replay and what its checker found; "" for a kill that left
// nothing wrong.
struct KillPoint {
  int state;             // the replay was killed after this many changes
  long step;             // the step of the reference run at which that change was seen
  std::string changed;   // which objects that change touched
  std::string problems;  // what was wrong after the kill, one line each
};

// The figures of an operation and the kill points that left something wrong.
struct StepKillResult {
  std::string error;       // "" when every run went as asked
  SteppedRun reference;    // the run to the end
  long steps_between = 0;  // steps from the first change to the last, both included
  std::vector<KillPoint> failures;
};

// Runs the operation once to its end (the reference), then once per change
// it made, killed right after that change. Before every run prepare() puts
// the shared objects back into their starting state; after every kill
// check(reference, replay) says what is wrong ("" for nothing).
StepKillResult step_kill_all(
    const SteppedOperation &op, const std::function<std::string()> &prepare,
    const std::function<std::string(const SteppedRun &, const SteppedRun &)> &check);

// The failures, one paragraph per kill point, for a test's message.
std::string describe_failures(const std::string &operation, const StepKillResult &result);

}  // namespace tarn_test

#endif
