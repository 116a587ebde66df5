// Crash trials: processes killed with SIGKILL at chosen moments of their
// work on the heartbeat table and on the app home record, and many
// processes creating the table and its lock at the same moment.
//
// The moments are found by interposition, not by sleeping. This program
// defines functions that the library calls on its way: the table lock's
// acquire and release and the first step of every log line (called by the
// heartbeat objects linked in), and write, fsync, close, rename, flock,
// fchmod and chmod (called by libtarnbase.so while it saves a file). Each
// passes the call through. A forked child armed with a number n stops at
// the n-th such call of the armed family, before running it, writes which
// moment it reached to a pipe and waits; the parent kills it there. The
// numbers come from generators with fixed seeds, printed with the figures,
// so every run kills at the same moments.
//
// The processes that create the table together wait at a start line in
// shared memory (a futex) that releases all of them with one wake-up.

#include <gtest/gtest.h>

#include <errno.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <tarnbase/tarn_glock.h>

#include "child_process.h"
#include "fakes.h"
#include "heartbeat_invariant.h"
#include "install_root.h"
#include "interpose.h"
#include "log_checks.h"
#include "tarn_apphome.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

// ---------------------------------------------------------------------------
// Kill points.

namespace {

using tarn_test::next_definition;

// The two families of interposed calls; a child arms one of them.
enum class Family { kNone, kTable, kFiles };

struct KillPlan {
  Family family = Family::kNone;
  int stop_at = 0;                            // the numbered call to stop at, from 1
  int calls = 0;                              // calls of the armed family numbered so far
  int report_fd = -1;                         // where the child writes the moment it stopped at
  std::vector<std::string> *names = nullptr;  // dry run: names the calls, never stops
};

KillPlan g_plan;
bool g_holds_table_lock = false;  // this process holds the table's lock

void arm(Family family, int stop_at, int report_fd) {
  g_plan = KillPlan();
  g_plan.family = family;
  g_plan.stop_at = stop_at;
  g_plan.report_fd = report_fd;
}

void disarm() { g_plan = KillPlan(); }

void report(int fd, int value) {
  ssize_t n;
  do n = write(fd, &value, sizeof(value));
  while (n < 0 && errno == EINTR);
}

// Writes what the child reached and waits for the parent's SIGKILL.
[[noreturn]] void stop_here(int moment) {
  const int fd = g_plan.report_fd;
  disarm();
  report(fd, moment);
  for (;;) pause();
}

// Numbers one call of family; stops when it is the armed one.
void reach(Family family, int moment, const char *name) {
  if (g_plan.family != family) return;
  ++g_plan.calls;
  if (g_plan.names != nullptr) {
    g_plan.names->push_back(name);
    return;
  }
  // A file call reports its number.
  if (g_plan.calls == g_plan.stop_at) stop_here(family == Family::kFiles ? g_plan.calls : moment);
}

void file_call(const char *name) { reach(Family::kFiles, 0, name); }

// The moments of a table operation.
enum TableMoment : int {
  kBeforeLock = 'B',     // about to take the table's lock
  kLockTaken = 'L',      // has just taken it
  kUnderLock = 'M',      // a log line while holding it: in the middle of the update
  kBeforeRelease = 'R',  // about to give it back, the update complete
  kUnlocked = 'A',       // a log line while not holding it
  kDone = 'D',           // the operation returned what it should
  kWrongResult = 'E',    // it returned something else
};

bool holds_lock_at(int moment) {
  return moment == kLockTaken || moment == kUnderLock || moment == kBeforeRelease;
}

}  // namespace

// The table's lock and the log lines, for the heartbeat objects linked in.
extern "C" {

int tarn_glock_acquire_timeout(tarn_glock_t *lock, uint32_t timeout_ms) {
  static const auto real =
      next_definition<int (*)(tarn_glock_t *, uint32_t)>("tarn_glock_acquire_timeout");
  reach(Family::kTable, kBeforeLock, "acquire");
  const int ret = real(lock, timeout_ms);
  if (ret == 0) {
    g_holds_table_lock = true;
    reach(Family::kTable, kLockTaken, "taken");
  }
  return ret;
}

int tarn_glock_release(tarn_glock_t *lock) {
  static const auto real = next_definition<int (*)(tarn_glock_t *)>("tarn_glock_release");
  reach(Family::kTable, kBeforeRelease, "release");
  g_holds_table_lock = false;
  return real(lock);
}

int tarn_log_is_regestered(void) {
  static const auto real = next_definition<int (*)(void)>("tarn_log_is_regestered");
  reach(Family::kTable, g_holds_table_lock ? kUnderLock : kUnlocked, "log");
  return real();
}

}  // extern "C"

// The file calls of a save. They are exported, so that libtarnbase.so's
// calls reach them too.
#define TARN_TEST_EXPORTED extern "C" __attribute__((visibility("default")))

TARN_TEST_EXPORTED ssize_t write(int fd, const void *data, size_t size) {
  static const auto real = next_definition<ssize_t (*)(int, const void *, size_t)>("write");
  file_call("write");
  return real(fd, data, size);
}

TARN_TEST_EXPORTED int fsync(int fd) {
  static const auto real = next_definition<int (*)(int)>("fsync");
  file_call("fsync");
  return real(fd);
}

TARN_TEST_EXPORTED int close(int fd) {
  static const auto real = next_definition<int (*)(int)>("close");
  file_call("close");
  return real(fd);
}

TARN_TEST_EXPORTED int rename(const char *from, const char *to) noexcept {
  static const auto real = next_definition<int (*)(const char *, const char *)>("rename");
  file_call("rename");
  return real(from, to);
}

TARN_TEST_EXPORTED int flock(int fd, int operation) noexcept {
  static const auto real = next_definition<int (*)(int, int)>("flock");
  file_call("flock");
  return real(fd, operation);
}

TARN_TEST_EXPORTED int fchmod(int fd, mode_t mode) noexcept {
  static const auto real = next_definition<int (*)(int, mode_t)>("fchmod");
  file_call("fchmod");
  return real(fd, mode);
}

TARN_TEST_EXPORTED int chmod(const char *path, mode_t mode) noexcept {
  static const auto real = next_definition<int (*)(const char *, mode_t)>("chmod");
  file_call("chmod");
  return real(path, mode);
}

namespace {

using tarn_test::fork_child;
using tarn_test::heartbeat_lock_holder;
using tarn_test::heartbeat_occupied;
using tarn_test::heartbeat_violations;
using tarn_test::killed_by;
using tarn_test::make_info;
using tarn_test::Pipe;
using tarn_test::reap;
using tarn_test::TableRead;

constexpr int32_t kDeadPidBase = 100000;  // above the machine's pid_max: never a live process
constexpr int kReportWaitMs = 10000;

int64_t monotonic_us() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int32_t self_pid() { return (int32_t)getpid(); }

proc_heartbeat_segment_t table_as_it_is() {
  proc_heartbeat_segment_t table;
  memset(&table, 0, sizeof(table));
  EXPECT_EQ(tarn_test::read_heartbeat_table(&table, TableRead::kAsItIs), "");
  return table;
}

// Count, mean and maximum of durations in microseconds.
class Durations {
 public:
  void add(int64_t us) {
    ++count_;
    total_ += us;
    max_ = std::max(max_, us);
  }
  std::string text() const {
    return tarn_test::format("%d, mean %.3f ms, max %.3f ms", count_,
                             count_ == 0 ? 0.0 : (double)total_ / count_ / 1000.0, max_ / 1000.0);
  }

 private:
  int count_ = 0;
  int64_t total_ = 0;
  int64_t max_ = 0;
};

std::string histogram(const std::map<std::string, int> &counts) {
  std::string text;
  for (const auto &[name, count] : counts) text += tarn_test::format(" %s:%d", name.c_str(), count);
  return text;
}

class CrashTrialsTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void reset() {
    disarm();
    proc_heartbeat_deinit(true);
    unlink(tarn_test::kHeartbeatSegmentPath);
    unlink(tarn_test::kHeartbeatLockPath);
    tarn_test::reset_fakes();
    tarn_test::clear_install_root();
  }
};

// ---------------------------------------------------------------------------
// A table operation killed at any moment.

enum class TableOp { kRegister, kDeleteByPid, kDeleteByIdx, kServiceBeat, kSync, kScan, kCount };

const char *op_name(TableOp op) {
  switch (op) {
    case TableOp::kRegister: return "register";
    case TableOp::kDeleteByPid: return "delete-by-pid";
    case TableOp::kDeleteByIdx: return "delete-by-idx";
    case TableOp::kServiceBeat: return "service-beat";
    case TableOp::kSync: return "sync";
    case TableOp::kScan: return "scan";
    default: return "?";
  }
}

// What a child does, chosen by the parent before the fork.
struct TableTrial {
  TableOp op = TableOp::kRegister;
  int stop_at = 1;
  uint32_t ptype = 1;
  // For sync: the records that mirror the table slot by slot (null where
  // absent), and the slot where the child puts its own record.
  proc_heartbeat_info_t records[PROC_HEARTBEAT_MAX_PROCS] = {};
  bool listed[PROC_HEARTBEAT_MAX_PROCS] = {};
  int own_slot = 0;
};

// Runs the trial's operation in the child, armed, and never returns.
[[noreturn]] void run_table_trial(TableTrial &trial, int report_fd) {
  const int32_t pid = self_pid();
  proc_heartbeat_info_t self = make_info(pid, trial.ptype);
  int32_t slot = -1;
  // The set-up that the operation needs runs before arming.
  if (trial.op == TableOp::kDeleteByPid || trial.op == TableOp::kDeleteByIdx) {
    slot = add_proc_heartbeat(&self);
  } else if (trial.op == TableOp::kServiceBeat) {
    self.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
    slot = add_proc_heartbeat(&self);
  }
  proc_heartbeat_info_t *list[PROC_HEARTBEAT_MAX_PROCS] = {};
  for (int s = 0; s < PROC_HEARTBEAT_MAX_PROCS; ++s) {
    if (trial.listed[s]) list[s] = &trial.records[s];
  }
  trial.records[trial.own_slot] = self;
  list[trial.own_slot] = &trial.records[trial.own_slot];
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t proc_num = 0;

  arm(Family::kTable, trial.stop_at, report_fd);
  bool ok = false;
  switch (trial.op) {
    case TableOp::kRegister: ok = add_proc_heartbeat(&self) >= 0; break;
    case TableOp::kDeleteByPid: ok = slot >= 0 && del_proc_heartbeat_by_pid(pid) == 0; break;
    case TableOp::kDeleteByIdx:
      ok = slot >= 0 && del_proc_heartbeat_by_idx((uint32_t)slot) == 0;
      break;
    case TableOp::kServiceBeat: ok = slot >= 0 && update_proc_beat_tick() == 0; break;
    case TableOp::kSync: ok = sync_proc_heartbeat_infos(list, PROC_HEARTBEAT_MAX_PROCS) == 0; break;
    case TableOp::kScan:
      ok = get_beat_timeout_procs(out, PROC_HEARTBEAT_MAX_PROCS, 60, &proc_num) >= 0;
      break;
    default: break;
  }
  stop_here(ok ? kDone : kWrongResult);
}

// The parent's side of the table trials: it is the service, keeps the table
// from filling up with the entries that killed children leave, and makes
// the operation that follows each kill.
class TableKeeper {
 public:
  // Registers this process as the service unless it is, and sweeps when the
  // table is getting full.
  void tend(const proc_heartbeat_segment_t &table) {
    bool serving = false;
    for (const proc_heartbeat_info_t &e : table.entries) {
      serving = serving || (e.pid == self_pid() && e.ptype == PROC_HEARTBEAT_TYPE_SERVICE);
    }
    if (serving && heartbeat_occupied(table) <= 40) return;
    const proc_heartbeat_info_t service = make_info(self_pid(), PROC_HEARTBEAT_TYPE_SERVICE);
    ASSERT_GE(add_proc_heartbeat(&service), 0) << tarn_test::dump_logs();
    ASSERT_EQ(update_proc_beat_tick(), 0) << tarn_test::dump_logs();
  }

  // Adds entries of pids that do not exist until there are `wanted`, so
  // that a service's sweep has several to clear.
  void add_dead(const proc_heartbeat_segment_t &table, int wanted) {
    int present = 0;
    for (const proc_heartbeat_info_t &e : table.entries) present += e.pid >= kDeadPidBase ? 1 : 0;
    for (; present < wanted; ++present) {
      const int32_t pid = kDeadPidBase + (next_dead_++ % 100000);
      tarn_test::set_process_exists(pid, true);
      const proc_heartbeat_info_t info = make_info(pid, 2);
      EXPECT_GE(add_proc_heartbeat(&info), 0) << tarn_test::dump_logs();
      tarn_test::clear_process_overrides();
    }
  }

  // One operation that needs the table's lock, the kind chosen by turn.
  // Returns whether it gave a success result.
  bool next_operation(int turn) {
    proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
    int32_t proc_num = -1;
    switch (turn % 4) {
      case 0: return get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS) >= 0;
      case 1: return get_beat_timeout_procs(out, PROC_HEARTBEAT_MAX_PROCS, 60, &proc_num) >= 0;
      case 2: {
        const proc_heartbeat_info_t service = make_info(self_pid(), PROC_HEARTBEAT_TYPE_SERVICE);
        return add_proc_heartbeat(&service) >= 0;
      }
      default: {
        const int32_t pid = kDeadPidBase + 200000;  // made live for this call
        tarn_test::set_process_exists(pid, true);
        const proc_heartbeat_info_t info = make_info(pid, 3);
        const bool added = add_proc_heartbeat(&info) >= 0;
        tarn_test::clear_process_overrides();
        return added && del_proc_heartbeat_by_pid(pid) == 0;
      }
    }
  }

 private:
  int next_dead_ = 0;
};

TEST_F(CrashTrialsTest, ATableLockHolderKilledAtAnyMomentLeavesTheTableWhole) {
  constexpr int kTrials = 1000;
  constexpr int kMaxStop = 7;  // moments numbered 1..7; an operation with fewer completes
  constexpr uint32_t kSeed = 20260401u;
  std::mt19937 rng(kSeed);
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  TableKeeper keeper;

  std::map<std::string, int> moments;
  std::map<std::string, int> operations;
  Durations recovery_held;   // the next operation after a kill while holding the lock
  Durations recovery_other;  // the same after any other kill
  const int64_t started = monotonic_us();
  for (int trial = 0; trial < kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    tarn_test::clear_logs();
    proc_heartbeat_segment_t table = table_as_it_is();
    ASSERT_NO_FATAL_FAILURE(keeper.tend(table));
    TableTrial plan;
    plan.op = (TableOp)(rng() % (unsigned)TableOp::kCount);
    plan.stop_at = 1 + (int)(rng() % kMaxStop);
    plan.ptype = 1 + rng() % 5;
    if (plan.op == TableOp::kServiceBeat) keeper.add_dead(table_as_it_is(), 3);
    table = table_as_it_is();
    plan.own_slot = -1;
    for (int s = 0; s < PROC_HEARTBEAT_MAX_PROCS; ++s) {
      const proc_heartbeat_info_t &e = table.entries[s];
      plan.records[s] = e;
      plan.listed[s] = e.pid > 0 && rng() % 4 != 0;  // about one in four is dropped
      if (e.pid <= 0 && e.ptype != PROC_HEARTBEAT_TYPE_WATCHDOG && plan.own_slot < 0)
        plan.own_slot = s;
    }
    ASSERT_GE(plan.own_slot, 0) << "the table is full";
    ++operations[op_name(plan.op)];

    Pipe moment_pipe;
    const pid_t child = fork_child([&]() -> int {
      moment_pipe.close_read();
      run_table_trial(plan, moment_pipe.write_fd());
    });
    ASSERT_GT(child, 0);
    moment_pipe.close_write();
    int moment = 0;
    const bool reported = moment_pipe.read_int(&moment, kReportWaitMs);
    const pid_t holder = heartbeat_lock_holder();
    ASSERT_EQ(kill(child, SIGKILL), 0);
    if (!reported) {
      reap(child);
      FAIL() << op_name(plan.op) << ": the child reported no moment";
    }
    ASSERT_NE(moment, kWrongResult) << op_name(plan.op) << " gave a wrong result";
    ++moments[std::string(1, (char)moment)];
    if (holds_lock_at(moment)) {
      EXPECT_EQ(holder, child) << "moment " << (char)moment;
    } else {
      EXPECT_NE(holder, child) << "moment " << (char)moment;
    }
    // What the dead process left, before anyone repairs it.
    const std::string left = heartbeat_violations(TableRead::kAsItIs);
    ASSERT_EQ(left, "") << op_name(plan.op) << " killed at moment " << (char)moment << " (call "
                        << plan.stop_at << ")";

    const int64_t before = monotonic_us();
    const bool ok = keeper.next_operation(trial);
    const int64_t took = monotonic_us() - before;
    // Had the lock not come within its time-out, the operation would have
    // returned -4.
    EXPECT_TRUE(ok) << "the operation after a kill at moment " << (char)moment << " failed\n"
                    << tarn_test::dump_logs();
    (holds_lock_at(moment) ? recovery_held : recovery_other).add(took);
    EXPECT_EQ(reap(child), killed_by(SIGKILL));
    ASSERT_EQ(heartbeat_violations(TableRead::kUnderLock), "");
    if (HasFailure()) break;
  }
  const double seconds = (double)(monotonic_us() - started) / 1e6;
  printf("table kills: seed %u, %d trials in %.1f s\n", kSeed, kTrials, seconds);
  printf("  operations:%s\n", histogram(operations).c_str());
  printf(
      "  moments (B before lock, L lock taken, M mid-update, R before release, A unlocked log, "
      "D after):%s\n",
      histogram(moments).c_str());
  printf("  next operation after a kill holding the lock: %s\n", recovery_held.text().c_str());
  printf("  next operation after any other kill: %s\n", recovery_other.text().c_str());
  EXPECT_GT(moments["M"], 0);
  EXPECT_GT(moments["L"], 0);
  EXPECT_GT(moments["R"], 0);
}

// ---------------------------------------------------------------------------
// A save of the app home record killed at any moment.

// The record's and the backup's app home names; "" for a file that does not
// load.
std::string apphome_of(const char *path) {
  char name[128] = {0};
  return tarn_apphome_get_apphome(path, name, sizeof(name), nullptr, 0) == 0 ? name : "";
}

TEST_F(CrashTrialsTest, ARecordSaveKilledAtAnyMomentLeavesTheOldOrTheNewAppHome) {
  using tarn_test::kBackupPath;
  using tarn_test::kHomeA;
  using tarn_test::kHomeB;
  using tarn_test::kHomeX86;
  using tarn_test::kRecordPath;
  constexpr int kTrials = 1000;
  constexpr uint32_t kSeed = 20260402u;
  std::mt19937 rng(kSeed);

  // A first update, so that the dry run below takes the path of every
  // later one (the files exist; the log is set up).
  ASSERT_EQ(tarn_apphome_update(kHomeA, kHomeX86), 0) << tarn_test::dump_logs();
  std::vector<std::string> calls;
  arm(Family::kFiles, 0, -1);
  g_plan.names = &calls;
  ASSERT_EQ(tarn_apphome_update(kHomeB, kHomeX86), 0) << tarn_test::dump_logs();
  disarm();
  // The record is renamed into place first, the backup second.
  std::vector<int> renames;
  std::string sequence;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i] == "rename") renames.push_back((int)i + 1);
    sequence += " " + calls[i];
  }
  ASSERT_EQ(renames.size(), 2u) << sequence;
  const int record_rename = renames[0];
  const int backup_rename = renames[1];

  std::string record = kHomeB;
  std::string backup = kHomeB;
  std::map<std::string, int> stops;
  Durations reads;
  const int64_t started = monotonic_us();
  for (int trial = 0; trial < kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    tarn_test::clear_logs();
    const std::string next = record == kHomeA ? kHomeB : kHomeA;
    // Call n is stopped before it runs; n past the last call kills after
    // the update returned.
    const int stop_at = 1 + (int)(rng() % (calls.size() + 1));
    Pipe moment_pipe;
    const pid_t child = fork_child([&]() -> int {
      moment_pipe.close_read();
      arm(Family::kFiles, stop_at, moment_pipe.write_fd());
      const int ret = tarn_apphome_update(next.c_str(), kHomeX86);
      stop_here(ret == 0 ? 0 : -1);
    });
    ASSERT_GT(child, 0);
    moment_pipe.close_write();
    int moment = -2;
    const bool reported = moment_pipe.read_int(&moment, kReportWaitMs);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(reap(child), killed_by(SIGKILL));
    ASSERT_TRUE(reported) << "the child reported no moment";
    ASSERT_NE(moment, -1) << "the update failed";
    const bool finished = moment == 0;
    ASSERT_EQ(finished ? (int)calls.size() + 1 : moment, stop_at);
    ++stops[finished ? "after" : tarn_test::format("%02d.%s", stop_at, calls[stop_at - 1].c_str())];

    // Before the record's rename the old name stands, after it the new.
    if (stop_at > record_rename) record = next;
    if (stop_at > backup_rename) backup = next;
    const int64_t before = monotonic_us();
    const std::string found = apphome_of(kRecordPath);
    reads.add(monotonic_us() - before);
    ASSERT_EQ(found, record) << "killed before call " << stop_at << " of" << sequence << "\n"
                             << tarn_test::read_file(kRecordPath);
    ASSERT_EQ(apphome_of(kBackupPath), backup)
        << "killed before call " << stop_at << " of" << sequence << "\n"
        << tarn_test::read_file(kBackupPath);
  }
  const double seconds = (double)(monotonic_us() - started) / 1e6;
  int leftovers = 0;
  for (const auto &entry : std::filesystem::directory_iterator(tarn_test::kInstallRoot)) {
    leftovers += entry.path().filename().string().find(".tmp.") != std::string::npos ? 1 : 0;
  }
  printf("record kills: seed %u, %d trials in %.1f s\n", kSeed, kTrials, seconds);
  printf("  an update's file calls:%s\n", sequence.c_str());
  printf("  killed before:%s\n", histogram(stops).c_str());
  printf("  temporary files left by killed saves: %d\n", leftovers);
  printf("  reading the record after a kill: %s\n", reads.text().c_str());
}

// ---------------------------------------------------------------------------
// Many processes creating the table and its lock at the same moment.

// A start line in shared memory that releases every process waiting at it
// at once: a generation number on which they sleep (a futex), raised by the
// test process.
class StartLine {
 public:
  StartLine() {
    void *shared =
        mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared != MAP_FAILED) generation_ = static_cast<uint32_t *>(shared);
  }
  ~StartLine() {
    if (generation_ != nullptr) munmap(generation_, sizeof(uint32_t));
  }
  StartLine(const StartLine &) = delete;
  StartLine &operator=(const StartLine &) = delete;

  bool ok() const { return generation_ != nullptr; }

  // Sleeps until the generation has reached `generation`.
  void wait_for(uint32_t generation) {
    for (;;) {
      const uint32_t now = __atomic_load_n(generation_, __ATOMIC_SEQ_CST);
      if (now >= generation) return;
      syscall(SYS_futex, generation_, FUTEX_WAIT, now, nullptr, nullptr, 0);
    }
  }

  // Raises the generation and wakes every sleeper.
  void release() {
    __atomic_add_fetch(generation_, 1, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, generation_, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  }

 private:
  uint32_t *generation_ = nullptr;
};

// Forked children that are killed, unless they were reaped, when the test
// leaves early.
class Children {
 public:
  ~Children() {
    for (pid_t pid : pids_) tarn_test::kill_and_reap(pid);
  }
  void add(pid_t pid) { pids_.push_back(pid); }
  // Reaps every child; returns how many did not exit with status 0.
  int reap_all() {
    int failed = 0;
    for (pid_t pid : pids_) failed += reap(pid) == 0 ? 0 : 1;
    pids_.clear();
    return failed;
  }

 private:
  std::vector<pid_t> pids_;
};

constexpr int kCreationRounds = 100;
constexpr int kPhasesPerRound = 3;  // attach, register and beat, leave
constexpr int kNotAttached = -100;
constexpr int kEntryMissing = -101;

// Registers the process, beats a few times and checks that its entry is in
// the slot that registration gave. Returns that slot, or a negative result.
int32_t register_and_beat(int index) {
  constexpr int kBeats = 4;
  const proc_heartbeat_info_t self =
      make_info(self_pid(), index == 0 ? PROC_HEARTBEAT_TYPE_SERVICE : 1 + index % 5);
  const int32_t slot = add_proc_heartbeat(&self);
  if (slot < 0) return slot;
  for (int beat = 0; beat < kBeats; ++beat) {
    const int32_t ret = update_proc_beat_tick();
    if (ret != 0) return ret;
  }
  proc_heartbeat_info_t mine;
  if (get_proc_heartbeat_info(self.pid, &mine) != 0 || (int32_t)mine.idx != slot)
    return kEntryMissing;
  return slot;
}

// One of the processes: in every round it attaches when released (the
// first as the service, which clears the table), then registers and beats,
// then deletes its entry and detaches; it reports each step's result.
int contender(int index, StartLine &line, int report_fd) {
  for (int round = 0; round < kCreationRounds; ++round) {
    const uint32_t phase = (uint32_t)(round * kPhasesPerRound);
    line.wait_for(phase + 1);
    const int32_t init = proc_heartbeat_init(index == 0 ? 0 : 1);
    report(report_fd, init);
    line.wait_for(phase + 2);
    report(report_fd, init == 0 ? register_and_beat(index) : kNotAttached);
    line.wait_for(phase + 3);
    int32_t left = kNotAttached;
    if (init == 0) {
      left = del_proc_heartbeat_by_pid(self_pid());
      if (left == 0) left = proc_heartbeat_deinit(false);
    }
    report(report_fd, left);
  }
  return 0;
}

// Releases the contenders into their next step and collects one report
// from each.
std::vector<int> next_step(StartLine &line, Pipe &reports, int count) {
  line.release();
  std::vector<int> results;
  for (int i = 0; i < count; ++i) {
    int result = 0;
    if (!reports.read_int(&result, kReportWaitMs)) break;
    results.push_back(result);
  }
  return results;
}

TEST_F(CrashTrialsTest, SixtyFourProcessesCreatingTheTableAtOnceAllAttachToOneWorkingLock) {
  constexpr int kProcesses = PROC_HEARTBEAT_MAX_PROCS;
  StartLine line;
  ASSERT_TRUE(line.ok());
  Pipe reports;
  Children children;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t pid = fork_child([&, i]() {
      reports.close_read();
      return contender(i, line, reports.write_fd());
    });
    ASSERT_GT(pid, 0);
    children.add(pid);
  }
  reports.close_write();

  Durations rounds;
  for (int round = 0; round < kCreationRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int64_t round_started = monotonic_us();
    // Neither the table nor its lock exists: every process creates them.
    unlink(tarn_test::kHeartbeatSegmentPath);
    unlink(tarn_test::kHeartbeatLockPath);

    const std::vector<int> attached = next_step(line, reports, kProcesses);
    ASSERT_EQ((int)attached.size(), kProcesses) << "attach reports";
    for (int init : attached) EXPECT_EQ(init, 0) << "proc_heartbeat_init gave " << init;
    proc_heartbeat_segment_t table = table_as_it_is();
    EXPECT_EQ(table.magic, PROC_HEARTBEAT_MAGIC) << "the service did not clear the table";
    EXPECT_EQ(heartbeat_violations(table), "");
    EXPECT_EQ(heartbeat_lock_holder(), 0);

    const std::vector<int> slots = next_step(line, reports, kProcesses);
    ASSERT_EQ((int)slots.size(), kProcesses) << "registration reports";
    for (int slot : slots) EXPECT_GE(slot, 0) << "a registration or beat gave " << slot;
    EXPECT_EQ(std::set<int>(slots.begin(), slots.end()).size(), slots.size())
        << "two processes were given one slot";
    ASSERT_EQ(tarn_test::read_heartbeat_table(&table, TableRead::kUnderLock), "");
    EXPECT_EQ(heartbeat_violations(table), "");
    EXPECT_EQ(table.proc_num, kProcesses);

    const std::vector<int> left = next_step(line, reports, kProcesses);
    ASSERT_EQ((int)left.size(), kProcesses) << "leave reports";
    for (int result : left) EXPECT_EQ(result, 0) << "deleting or detaching gave " << result;
    table = table_as_it_is();
    EXPECT_EQ(heartbeat_violations(table), "");
    EXPECT_EQ(table.proc_num, 0);
    EXPECT_EQ(heartbeat_lock_holder(), 0);
    rounds.add(monotonic_us() - round_started);
    if (HasFailure()) break;
  }
  if (!HasFailure()) {
    EXPECT_EQ(children.reap_all(), 0);
  }
  printf("simultaneous creation: %d processes, rounds %s\n", kProcesses, rounds.text().c_str());
}

}  // namespace
