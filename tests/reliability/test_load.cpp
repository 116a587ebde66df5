// Load: sixty-four processes registering, beating and deleting themselves
// in the heartbeat table, while a service beats and sweeps it and a
// supervisor scans it for late processes, for a fixed time. Every process
// counts its operations by kind and every result it did not expect; the
// test process checks the table's invariants in rounds meanwhile.
//
// Each worker registers, beats a few times and deletes itself, over and
// over. After a fixed number of such cycles it ends without deleting its
// entry, and a new worker takes its place, so that the service's sweep
// always finds entries of dead processes to clear. With the service there
// are sixty-five processes for sixty-four slots: a registration may find
// the table full, which is counted, not a failure.
//
// The run lasts kDefaultSeconds, or the number of seconds in the
// environment variable TARN_LOAD_SECONDS (the sanitizer build's test
// registration sets a shorter run there).

#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "child_process.h"
#include "fakes.h"
#include "heartbeat_invariant.h"
#include "log_checks.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

namespace {

using tarn_test::fork_child;
using tarn_test::reap;
using tarn_test::TableRead;

constexpr int kDefaultSeconds = 60;
constexpr int kWorkers = 64;
constexpr int kBeatsPerCycle = 3;
constexpr int kCyclesPerLife = 500;
constexpr int kRoundMs = 100;
// The pause after each operation: a worker's, and the service's and the
// supervisor's. Real processes beat once in 1 to 59 seconds, the service
// every few seconds; these rates are hundreds to thousands of times higher.
// A sweep holds the lock for about 2 ms (it asks the system about every
// entry's process), so at one sweep in 20 ms the workers still find the
// lock free most of the time.
constexpr long kWorkerPauseUs = 1000;
constexpr long kOtherPauseUs = 20000;
constexpr int kMaxTmdf = 60;
constexpr char kSegmentPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME;
constexpr char kLockSegmentPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME ".glock";

enum Kind { kRegister, kBeat, kDelete, kServiceBeat, kScan, kKinds };
const char *const kKindNames[kKinds] = {"register", "beat", "delete", "service beat+sweep", "scan"};

// One process's figures; workers that take another's place add to its slot.
struct Counters {
  uint64_t done[kKinds];       // operations that gave a success result
  int64_t total_us[kKinds];    // their time together
  int64_t slowest_us[kKinds];  // the longest of them
  uint64_t timeouts;           // results -4
  uint64_t full;               // registrations refused with -7
  uint64_t unexpected;         // any other result
  int32_t unexpected_kind;     // the last unexpected result and its operation
  int32_t unexpected_code;
  uint64_t abandoned;      // entries left behind by ending workers
  int64_t late_wakeup_us;  // the most that a pause overran: the machine's own delay
};

// Shared by every process of the run: the stop signals and the figures.
struct Board {
  volatile int stop_workers;
  volatile int stop_others;
  Counters service;
  Counters supervisor;
  Counters workers[kWorkers];
};

int64_t monotonic_us() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int run_seconds() {
  const char *text = getenv("TARN_LOAD_SECONDS");
  const int seconds = text != nullptr ? atoi(text) : 0;
  return seconds > 0 ? seconds : kDefaultSeconds;
}

// Pauses and notes by how much the pause overran: how long a ready process
// waited for a processor, with no lock involved.
void pause_us(Counters &c, long us) {
  const int64_t until = monotonic_us() + us;
  struct timespec pause = {0, us * 1000};
  while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
  }
  c.late_wakeup_us = std::max(c.late_wakeup_us, monotonic_us() - until);
}

// Runs one operation, times it, counts its result (success when ok(ret))
// and pauses.
template <typename Call, typename Ok>
int32_t counted(Counters &c, Kind kind, long pause, Call call, Ok ok) {
  const int64_t before = monotonic_us();
  const int32_t ret = call();
  const int64_t took = monotonic_us() - before;
  if (ok(ret)) {
    ++c.done[kind];
    c.total_us[kind] += took;
    c.slowest_us[kind] = std::max(c.slowest_us[kind], took);
  } else if (ret == PROC_HEARTBEAT_E_TIMEOUT) {
    ++c.timeouts;
  } else if (kind == kRegister && ret == PROC_HEARTBEAT_E_FULL) {
    ++c.full;
  } else {
    ++c.unexpected;
    c.unexpected_kind = kind;
    c.unexpected_code = ret;
  }
  if (pause > 0) pause_us(c, pause);
  return ret;
}

bool is_zero(int32_t ret) { return ret == 0; }
bool is_slot(int32_t ret) { return ret >= 0 && ret < PROC_HEARTBEAT_MAX_PROCS; }

proc_heartbeat_info_t self_info(uint32_t ptype) {
  proc_heartbeat_info_t info;
  memset(&info, 0, sizeof(info));
  info.pid = (int32_t)getpid();
  info.interval = 10;
  info.ptype = ptype;
  return info;
}

int worker(Board *board, int index) {
  Counters &c = board->workers[index];
  const proc_heartbeat_info_t self = self_info(1 + index % 5);
  for (int cycle = 0; board->stop_workers == 0; ++cycle) {
    if (!is_slot(counted(
            c, kRegister, kWorkerPauseUs, [&] { return add_proc_heartbeat(&self); }, is_slot)))
      continue;
    for (int beat = 0; beat < kBeatsPerCycle; ++beat) {
      counted(c, kBeat, kWorkerPauseUs, update_proc_beat_tick, is_zero);
    }
    if (cycle + 1 == kCyclesPerLife) {
      ++c.abandoned;  // ends with its entry in the table
      return 0;
    }
    counted(
        c, kDelete, kWorkerPauseUs, [&] { return del_proc_heartbeat_by_pid(self.pid); }, is_zero);
  }
  return 0;
}

int service(Board *board) {
  Counters &c = board->service;
  const proc_heartbeat_info_t self = self_info(PROC_HEARTBEAT_TYPE_SERVICE);
  if (!is_slot(counted(
          c, kRegister, kOtherPauseUs, [&] { return add_proc_heartbeat(&self); }, is_slot)))
    return 1;
  while (board->stop_others == 0)
    counted(c, kServiceBeat, kOtherPauseUs, update_proc_beat_tick, is_zero);
  // A last sweep clears the entries that the last workers left.
  counted(c, kServiceBeat, kOtherPauseUs, update_proc_beat_tick, is_zero);
  counted(
      c, kDelete, 0, [&] { return del_proc_heartbeat_by_pid(self.pid); }, is_zero);
  return 0;
}

int supervisor(Board *board) {
  Counters &c = board->supervisor;
  proc_heartbeat_info_t late[PROC_HEARTBEAT_MAX_PROCS];
  while (board->stop_others == 0) {
    int32_t proc_num = -1;
    counted(
        c, kScan, kOtherPauseUs,
        [&] { return get_beat_timeout_procs(late, PROC_HEARTBEAT_MAX_PROCS, kMaxTmdf, &proc_num); },
        [&](int32_t ret) {
          return ret >= 0 && proc_num >= 0 && proc_num <= PROC_HEARTBEAT_MAX_PROCS;
        });
  }
  return 0;
}

// Totals over the service, the supervisor and the workers.
Counters total(const Board &board) {
  Counters sum;
  memset(&sum, 0, sizeof(sum));
  std::vector<const Counters *> all = {&board.service, &board.supervisor};
  for (const Counters &c : board.workers) all.push_back(&c);
  for (const Counters *c : all) {
    for (int k = 0; k < kKinds; ++k) {
      sum.done[k] += c->done[k];
      sum.total_us[k] += c->total_us[k];
      sum.slowest_us[k] = std::max(sum.slowest_us[k], c->slowest_us[k]);
    }
    sum.timeouts += c->timeouts;
    sum.full += c->full;
    sum.abandoned += c->abandoned;
    sum.late_wakeup_us = std::max(sum.late_wakeup_us, c->late_wakeup_us);
    if (c->unexpected != 0) {
      sum.unexpected_kind = c->unexpected_kind;
      sum.unexpected_code = c->unexpected_code;
    }
    sum.unexpected += c->unexpected;
  }
  return sum;
}

// The board in memory that forked processes share, zero at the start.
class SharedBoard {
 public:
  SharedBoard() {
    void *base =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (base != MAP_FAILED) board_ = static_cast<Board *>(base);  // zero-filled
  }
  ~SharedBoard() {
    if (board_ != nullptr) munmap(board_, sizeof(Board));
  }
  SharedBoard(const SharedBoard &) = delete;
  SharedBoard &operator=(const SharedBoard &) = delete;

  bool ok() const { return board_ != nullptr; }
  Board *get() const { return board_; }

 private:
  Board *board_ = nullptr;
};

// The run's processes: on the way out, also an early one, every process
// not yet reaped is told to stop and then killed.
class Crew {
 public:
  explicit Crew(Board *board) : board_(board) {}
  ~Crew() {
    board_->stop_workers = 1;
    board_->stop_others = 1;
    for (pid_t pid : pids_) {
      if (pid > 0) tarn_test::kill_and_reap(pid);
    }
  }
  Crew(const Crew &) = delete;
  Crew &operator=(const Crew &) = delete;

  // Starts body in a new process, in a new place or in place i.
  void add(const std::function<int()> &body) { pids_.push_back(fork_child(body)); }
  void replace(int i, const std::function<int()> &body) { pids_[i] = fork_child(body); }
  pid_t pid(int i) const { return pids_[i]; }
  // Reaps the process in place i: its exit status, or -1 when it ended otherwise.
  int reap_place(int i) {
    const int status = reap(pids_[i]);
    pids_[i] = -1;
    return status;
  }
  // Reaps the process in place i when it has ended: true then, with its
  // status in *status.
  bool reap_if_ended(int i, int *status) {
    int raw = 0;
    if (pids_[i] <= 0 || waitpid(pids_[i], &raw, WNOHANG) != pids_[i]) return false;
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    pids_[i] = -1;
    return true;
  }

 private:
  Board *board_;
  std::vector<pid_t> pids_;
};

class LoadTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void reset() {
    proc_heartbeat_deinit(true);
    unlink(kSegmentPath);
    unlink(kLockSegmentPath);
    tarn_test::reset_fakes();
  }
};

TEST_F(LoadTest, SixtyFourProcessesWorkingOnTheTableNeverTimeOutAndKeepItWhole) {
  const int seconds = run_seconds();
  // Only fatal and error lines pass: the millions of operations would
  // otherwise fill every process's captured lines.
  tarn_test::set_log_level(0);
  ASSERT_EQ(proc_heartbeat_init(0), 0) << tarn_test::dump_logs();

  const SharedBoard shared;
  ASSERT_TRUE(shared.ok());
  Board *board = shared.get();

  // Places 0 to 63 are the workers', 64 the service's, 65 the supervisor's.
  Crew crew(board);
  for (int i = 0; i < kWorkers; ++i) crew.add([board, i] { return worker(board, i); });
  crew.add([board] { return service(board); });
  crew.add([board] { return supervisor(board); });
  for (int i = 0; i < kWorkers + 2; ++i) ASSERT_GT(crew.pid(i), 0);
  int started_workers = kWorkers;
  int worker_failures = 0;
  // Reaps the workers that have ended and starts new ones in their place.
  auto replace_ended = [&]() {
    for (int i = 0; i < kWorkers; ++i) {
      int status = 0;
      if (!crew.reap_if_ended(i, &status)) continue;
      worker_failures += status == 0 ? 0 : 1;
      crew.replace(i, [board, i] { return worker(board, i); });
      ++started_workers;
    }
  };

  int rounds = 0;
  int violations = 0;
  std::string first_violation;
  const int64_t started = monotonic_us();
  const int64_t deadline = started + (int64_t)seconds * 1000000;
  while (monotonic_us() < deadline) {
    poll(nullptr, 0, kRoundMs);
    replace_ended();
    const std::string found = tarn_test::heartbeat_violations(TableRead::kUnderLock);
    ++rounds;
    if (!found.empty()) {
      ++violations;
      if (first_violation.empty()) first_violation = found;
    }
  }
  board->stop_workers = 1;
  for (int i = 0; i < kWorkers; ++i) {
    if (crew.pid(i) > 0) worker_failures += crew.reap_place(i) == 0 ? 0 : 1;
  }
  board->stop_others = 1;
  EXPECT_EQ(crew.reap_place(kWorkers), 0);
  EXPECT_EQ(crew.reap_place(kWorkers + 1), 0);
  const double elapsed = (double)(monotonic_us() - started) / 1e6;

  // Every worker has deleted its entry or died, the last sweep cleared the
  // dead ones, and the service deleted its own.
  proc_heartbeat_segment_t table;
  ASSERT_EQ(tarn_test::read_heartbeat_table(&table, TableRead::kAsItIs), "");
  const std::string at_end = tarn_test::heartbeat_violations(table);
  EXPECT_EQ(at_end, "");
  EXPECT_EQ(table.proc_num, 0);
  EXPECT_EQ(tarn_test::heartbeat_lock_holder(), 0);

  const Counters sum = total(*board);
  printf("load: %d workers (%d started), a service and a supervisor for %.1f s\n", kWorkers,
         started_workers, elapsed);
  for (int k = 0; k < kKinds; ++k) {
    printf("  %-19s %10llu  %9.0f/s  mean %.3f ms  slowest %.3f ms\n", kKindNames[k],
           (unsigned long long)sum.done[k], sum.done[k] / elapsed,
           sum.done[k] == 0 ? 0.0 : sum.total_us[k] / 1000.0 / sum.done[k],
           sum.slowest_us[k] / 1000.0);
  }
  printf("  registrations refused, table full: %llu; entries left by ending workers: %llu\n",
         (unsigned long long)sum.full, (unsigned long long)sum.abandoned);
  printf("  the most a pause overran (no lock involved): %.3f ms\n", sum.late_wakeup_us / 1000.0);
  printf("  time-outs (-4): %llu; other unexpected results: %llu\n",
         (unsigned long long)sum.timeouts, (unsigned long long)sum.unexpected);
  printf("  invariant rounds: %d, violations: %d\n", rounds, violations);

  EXPECT_EQ(sum.timeouts, 0u) << "meanwhile a pause overran by up to " << sum.late_wakeup_us / 1000
                              << " ms with no lock involved: a longer stall of the machine itself "
                                 "outlasts any lock's 100 ms time-out";
  EXPECT_EQ(sum.unexpected, 0u) << "last: " << kKindNames[sum.unexpected_kind] << " gave "
                                << sum.unexpected_code;
  EXPECT_EQ(violations, 0) << first_violation;
  EXPECT_EQ(worker_failures, 0);
  EXPECT_GT(rounds, 0);
  for (int k = 0; k < kKinds; ++k) EXPECT_GT(sum.done[k], 0u) << kKindNames[k];
  EXPECT_GT(sum.abandoned, 0u);
}

}  // namespace
