#include "step_kill.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "child_process.h"

namespace tarn_test {

namespace {

constexpr char kShmDir[] = "/dev/shm";

// ---------------------------------------------------------------------------
// The watched objects.

// Read-only mappings of the objects in /dev/shm whose names begin with a
// prefix, each with a copy of its bytes at the last poll.
class WatchedMemory {
 public:
  explicit WatchedMemory(std::string prefix) : prefix_(std::move(prefix)) {
    directory_changed();
    rescan();
  }
  ~WatchedMemory() {
    for (auto &[name, object] : objects_) forget(object);
  }
  WatchedMemory(const WatchedMemory &) = delete;
  WatchedMemory &operator=(const WatchedMemory &) = delete;

  // Brings every copy up to date; returns the names of the objects that
  // appeared, went or changed since the last poll, comma-separated, or "".
  std::string poll() {
    std::string changed = directory_changed() ? rescan() : "";
    for (auto &[name, object] : objects_) {
      if (refresh(object)) changed += (changed.empty() ? "" : ", ") + name;
    }
    return changed;
  }

  MemoryState state() const {
    MemoryState state;
    for (const auto &[name, object] : objects_) state[name] = object.copy;
    return state;
  }

 private:
  struct Object {
    int fd = -1;
    const char *base = nullptr;
    size_t mapped = 0;
    std::string copy;
  };

  // The directory's size on tmpfs grows and shrinks with its entries, and
  // its times change with them; a stat per step is cheap beside the step.
  bool directory_changed() {
    struct stat st;
    if (stat(kShmDir, &st) != 0) return false;
    const bool changed = st.st_size != dir_.st_size || st.st_ino != dir_.st_ino ||
                         st.st_mtim.tv_sec != dir_.st_mtim.tv_sec ||
                         st.st_mtim.tv_nsec != dir_.st_mtim.tv_nsec;
    dir_ = st;
    return changed;
  }

  // Maps the objects that appeared and drops the ones that went; returns
  // their names.
  std::string rescan() {
    std::set<std::string> present;
    DIR *dir = opendir(kShmDir);
    if (dir != nullptr) {
      while (const dirent *entry = readdir(dir)) {
        if (strncmp(entry->d_name, prefix_.c_str(), prefix_.size()) == 0) present.insert(entry->d_name);
      }
      closedir(dir);
    }
    std::string changed;
    for (auto it = objects_.begin(); it != objects_.end();) {
      if (present.count(it->first) != 0) {
        ++it;
        continue;
      }
      changed += (changed.empty() ? "" : ", ") + it->first;
      forget(it->second);
      it = objects_.erase(it);
    }
    for (const std::string &name : present) {
      if (objects_.count(name) != 0) continue;
      Object object;
      object.fd = open((std::string(kShmDir) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
      if (object.fd < 0) continue;
      refresh(object);
      objects_.emplace(name, std::move(object));
      if (initialised_) changed += (changed.empty() ? "" : ", ") + name;
    }
    initialised_ = true;
    return changed;
  }

  // Remaps an object whose size changed and updates its copy; true when
  // its bytes differ from the copy.
  static bool refresh(Object &object) {
    struct stat st;
    if (fstat(object.fd, &st) != 0) return false;
    const size_t size = (size_t)st.st_size;
    if (size != object.mapped) {
      if (object.base != nullptr) munmap(const_cast<char *>(object.base), object.mapped);
      object.base = nullptr;
      object.mapped = 0;
      if (size > 0) {
        void *base = mmap(nullptr, size, PROT_READ, MAP_SHARED, object.fd, 0);
        if (base != MAP_FAILED) {
          object.base = static_cast<const char *>(base);
          object.mapped = size;
        }
      }
    }
    if (object.copy.size() == object.mapped &&
        memcmp(object.copy.data(), object.base == nullptr ? "" : object.base, object.mapped) == 0) {
      return false;
    }
    object.copy.assign(object.base == nullptr ? "" : object.base, object.mapped);
    return true;
  }

  static void forget(Object &object) {
    if (object.base != nullptr) munmap(const_cast<char *>(object.base), object.mapped);
    if (object.fd >= 0) close(object.fd);
    object = Object();
  }

  std::string prefix_;
  std::map<std::string, Object> objects_;
  struct stat dir_ = {};
  bool initialised_ = false;
};

// ---------------------------------------------------------------------------
// Bounded waits for a traced child.

volatile sig_atomic_t g_deadline_passed = 0;

void on_deadline(int) { g_deadline_passed = 1; }

// While it exists, SIGALRM comes after `seconds` and interrupts a blocked
// waitpid (the handler is installed without SA_RESTART).
class Deadline {
 public:
  explicit Deadline(unsigned seconds) {
    g_deadline_passed = 0;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_deadline;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved_action_);
    struct itimerval timer = {};
    timer.it_value.tv_sec = seconds;
    setitimer(ITIMER_REAL, &timer, &saved_timer_);
  }
  ~Deadline() {
    setitimer(ITIMER_REAL, &saved_timer_, nullptr);
    sigaction(SIGALRM, &saved_action_, nullptr);
  }
  Deadline(const Deadline &) = delete;
  Deadline &operator=(const Deadline &) = delete;

  bool passed() const { return g_deadline_passed != 0; }

 private:
  struct sigaction saved_action_;
  struct itimerval saved_timer_;
};

// While it exists, this process runs on one CPU only, the one it was on;
// the traced child is pinned to the same CPU. A step hands control from
// tracer to child and back: on one CPU that is a plain switch, across two
// CPUs a wake-up of the other CPU each way, which on a virtual machine
// made every step about three times as slow.
class OneCpu {
 public:
  OneCpu() {
    const int cpu = sched_getcpu();
    pinned_ = cpu >= 0 && sched_getaffinity(0, sizeof(saved_), &saved_) == 0;
    if (!pinned_) return;
    CPU_ZERO(&one_);
    CPU_SET(cpu, &one_);
    pinned_ = sched_setaffinity(0, sizeof(one_), &one_) == 0;
  }
  ~OneCpu() {
    if (pinned_) sched_setaffinity(0, sizeof(saved_), &saved_);
  }
  OneCpu(const OneCpu &) = delete;
  OneCpu &operator=(const OneCpu &) = delete;

  // In the forked child, which inherits the pinning: back to the whole
  // set while it prepares, then onto the tracer's CPU.
  void release_in_child() const {
    if (pinned_) sched_setaffinity(0, sizeof(saved_), &saved_);
  }
  void pin_in_child() const {
    if (pinned_) sched_setaffinity(0, sizeof(one_), &one_);
  }

 private:
  bool pinned_ = false;
  cpu_set_t saved_;
  cpu_set_t one_;
};

// The next state change of a traced child; false when the deadline passed
// first or waitpid failed.
bool wait_traced(pid_t pid, int *status, const Deadline &deadline) {
  for (;;) {
    if (deadline.passed()) return false;
    const pid_t got = waitpid(pid, status, __WALL);
    if (got == pid) return true;
    if (got < 0 && errno != EINTR) return false;
  }
}

int decode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return killed_by(WTERMSIG(status));
  return -1;
}

// Kills a traced child and waits for its end; returns its status.
int kill_traced(pid_t pid) {
  kill(pid, SIGKILL);
  int status = 0;
  for (;;) {
    const pid_t got = waitpid(pid, &status, __WALL);
    if (got < 0 && errno == EINTR) continue;
    if (got != pid) return -1;
    if (WIFEXITED(status) || WIFSIGNALED(status)) return decode(status);
  }
}

std::string read_link(const std::string &path) {
  char target[PATH_MAX];
  const ssize_t n = readlink(path.c_str(), target, sizeof(target) - 1);
  return n < 0 ? std::string("(unreadable: ") + strerror(errno) + ")" : std::string(target, (size_t)n);
}

// A user-mode emulator shows a program its own path at /proc/self/exe, but
// a child's /proc/<pid>/exe names the emulator.
bool child_is_emulated(std::string *child_exe, std::string *own_exe) {
  Barrier hold;
  const pid_t pid = hold.start([] { return 0; });
  *child_exe = read_link("/proc/" + std::to_string(pid) + "/exe");
  *own_exe = read_link("/proc/self/exe");
  hold.open();
  reap(pid);
  return *child_exe != *own_exe;
}

}  // namespace

// ---------------------------------------------------------------------------
// Runs

SteppedRun run_stepped(const SteppedOperation &op, int kill_after) {
  SteppedRun run;
  const Deadline deadline(op.time_limit_s);
  const OneCpu one_cpu;
  run.pid = fork_flushed();
  if (run.pid < 0) {
    run.error = std::string("fork: ") + strerror(errno);
    return run;
  }
  if (run.pid == 0) {
    one_cpu.release_in_child();
    op.setup();
    one_cpu.pin_in_child();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) end_child(errno & 0xff);
    raise(SIGSTOP);
    end_child(op.operation() & 0xff);
  }
  int status = 0;
  if (!wait_traced(run.pid, &status, deadline)) {
    run.status = kill_traced(run.pid);
    run.error = "the child did not reach its operation within " + std::to_string(op.time_limit_s) + " s";
    return run;
  }
  if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGSTOP) {
    run.status = WIFSTOPPED(status) ? kill_traced(run.pid) : decode(status);
    run.error = "the child ended or stopped otherwise before its operation (status " +
                std::to_string(run.status) + ")";
    return run;
  }
  // Should this process die, the kernel ends the child too.
  ptrace(PTRACE_SETOPTIONS, run.pid, nullptr, (void *)(long)PTRACE_O_EXITKILL);
  WatchedMemory watched(op.prefix);
  run.first = watched.state();
  int deliver = 0;  // a signal that stopped the child, passed on at its next step
  for (;;) {
    if (run.steps >= op.step_budget) {
      run.status = kill_traced(run.pid);
      run.error = "the operation did not end within " + std::to_string(op.step_budget) + " steps";
      break;
    }
    if (ptrace(PTRACE_SINGLESTEP, run.pid, nullptr, (void *)(long)deliver) != 0) {
      run.error = std::string("PTRACE_SINGLESTEP: ") + strerror(errno);
      run.status = kill_traced(run.pid);
      break;
    }
    if (!wait_traced(run.pid, &status, deadline)) {
      run.status = kill_traced(run.pid);
      run.error = "the operation did not end within " + std::to_string(op.time_limit_s) + " s (" +
                  std::to_string(run.steps) + " steps)";
      break;
    }
    if (!WIFSTOPPED(status)) {
      run.status = decode(status);
      break;
    }
    ++run.steps;
    deliver = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
    const std::string changed = watched.poll();
    if (changed.empty()) continue;
    run.change_steps.push_back(run.steps);
    run.changed.push_back(changed);
    if (kill_after > 0 && (int)run.change_steps.size() == kill_after) {
      run.status = kill_traced(run.pid);
      break;
    }
  }
  run.last = watched.state();
  return run;
}

std::string single_step_unavailable(bool *emulated) {
  std::string child_exe;
  std::string own_exe;
  *emulated = child_is_emulated(&child_exe, &own_exe);
  if (*emulated) {
    return "this program runs under a user-mode emulator (a child's /proc/<pid>/exe is " + child_exe +
           ", not " + own_exe + "), which lets no program trace another";
  }
  const Deadline deadline(10);
  const pid_t pid = fork_flushed();
  if (pid == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) end_child(errno & 0xff);
    raise(SIGSTOP);
    end_child(0);
  }
  int status = 0;
  if (!wait_traced(pid, &status, deadline)) {
    kill_traced(pid);
    return "a child that asked to be traced did not stop within 10 s";
  }
  if (WIFEXITED(status)) {
    *emulated = WEXITSTATUS(status) == ENOSYS;
    return std::string("PTRACE_TRACEME failed: ") + strerror(WEXITSTATUS(status));
  }
  std::string reason;
  if (ptrace(PTRACE_SINGLESTEP, pid, nullptr, nullptr) != 0) {
    *emulated = errno == ENOSYS;
    reason = std::string("PTRACE_SINGLESTEP failed: ") + strerror(errno);
  } else if (!wait_traced(pid, &status, deadline) || !WIFSTOPPED(status) ||
             WSTOPSIG(status) != SIGTRAP) {
    reason = "a single step did not stop the child with SIGTRAP";
  }
  kill_traced(pid);
  return reason;
}

StepKillResult step_kill_all(
    const SteppedOperation &op, const std::function<std::string()> &prepare,
    const std::function<std::string(const SteppedRun &, const SteppedRun &)> &check) {
  StepKillResult result;
  result.error = prepare();
  if (!result.error.empty()) return result;
  result.reference = run_stepped(op);
  const SteppedRun &reference = result.reference;
  if (!reference.error.empty()) {
    result.error = "the run to the end: " + reference.error;
    return result;
  }
  const int states = (int)reference.change_steps.size();
  if (states > 0) result.steps_between = reference.change_steps.back() - reference.change_steps.front() + 1;
  for (int state = 1; state <= states; ++state) {
    const std::string prepared = prepare();
    if (!prepared.empty()) {
      result.error = "before the replay killed after change " + std::to_string(state) + ": " + prepared;
      return result;
    }
    const SteppedRun replay = run_stepped(op, state);
    if (!replay.error.empty()) {
      result.error = "the replay killed after change " + std::to_string(state) + ": " + replay.error;
      return result;
    }
    std::string problems;
    if ((int)replay.change_steps.size() != state || replay.status != killed_by(SIGKILL)) {
      // The replay made fewer changes than the reference: the operation is
      // not deterministic for this harness, and its states are not covered.
      problems = "the replay ended (status " + std::to_string(replay.status) + ") after " +
                 std::to_string(replay.change_steps.size()) + " changes\n";
    } else {
      problems = check(reference, replay);
    }
    if (problems.empty()) continue;
    result.failures.push_back(
        {state, reference.change_steps[state - 1], reference.changed[state - 1], problems});
  }
  return result;
}

std::string describe_failures(const std::string &operation, const StepKillResult &result) {
  const size_t states = result.reference.change_steps.size();
  std::string text;
  for (const KillPoint &point : result.failures) {
    text += operation + " killed after change " + std::to_string(point.state) + " of " +
            std::to_string(states) + " (step " + std::to_string(point.step) + " of " +
            std::to_string(result.reference.steps) + ", in " + point.changed + "):\n";
    size_t start = 0;
    while (start < point.problems.size()) {
      size_t end = point.problems.find('\n', start);
      if (end == std::string::npos) end = point.problems.size();
      text += "    " + point.problems.substr(start, end - start) + "\n";
      start = end + 1;
    }
  }
  return text;
}

}  // namespace tarn_test
