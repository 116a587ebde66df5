// Step-kill trials of the heartbeat table: each operation that changes the
// table is single-stepped once to its end in a child process, and then
// replayed in fresh children, each killed with SIGKILL right after one
// more change of the shared objects (the table, its lock, and any other
// object whose name begins with the table's). After every kill another
// process attaches as a worker does and works on the table, and the table,
// read under its lock, must be whole: its invariants hold, and every slot
// holds exactly what it held before the operation or exactly what the
// operation leaves in it.
//
// Every kill point between two changes leaves the same memory, so one
// replay per change tries every state that a kill can leave; the harness
// (support/step_kill.h) explains the method.
//
// The table is the same before every run: the service's start, then six
// live helper processes registered and two of them deleted again, which
// leaves A _ B C _ D in slots 0 to 5. The controlled clock of the fakes
// gives every run the same ticks, so the only values that differ between a
// run and its replays are the pids of the child and of the processes it
// makes.

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "child_process.h"
#include "fakes.h"
#include "heartbeat_invariant.h"
#include "log_checks.h"
#include "step_kill.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

namespace {

using tarn_test::end_child;
using tarn_test::format;
using tarn_test::make_info;
using tarn_test::SteppedRun;
using tarn_test::TableRead;

constexpr uint64_t kSetupTick = 1000000;  // the clock while the table is built
constexpr uint64_t kOperationTick = 2000000;
constexpr uint32_t kWorkerType = 1;
constexpr int kSetupFailed = 99;  // a child whose set-up failed exits with it
constexpr int kCheckerWaitMs = 10000;
constexpr int kHelpers = 6;

// The helpers' places: A, B, C, D stay in the table; E and F are
// registered and deleted again to make the gaps, and sync adds them.
enum Helper { kA, kB, kC, kD, kE, kF };

bool add(int32_t pid, uint32_t ptype, int expected_slot) {
  const proc_heartbeat_info_t info = make_info(pid, ptype);
  return add_proc_heartbeat(&info) == expected_slot;
}

// Ends a child whose set-up went wrong; the harness reports its status.
void require(bool done) {
  if (!done) end_child(kSetupFailed);
}

std::string describe(int slot, const proc_heartbeat_info_t &e) {
  return format("slot %d {pid:%d idx:%u interval:%u ptype:%u tick:%llu}", slot, e.pid, e.idx,
                e.interval, e.ptype, (unsigned long long)e.tick);
}

bool same(const proc_heartbeat_info_t &a, const proc_heartbeat_info_t &b) {
  return memcmp(&a, &b, sizeof(a)) == 0;
}

// The table's bytes in a state of the watched memory.
bool table_in(const tarn_test::MemoryState &state, proc_heartbeat_segment_t *table) {
  const auto it = state.find(PROC_HEARTBEAT_SHM_NAME);
  if (it == state.end() || it->second.size() < sizeof(*table)) return false;
  memcpy(table, it->second.data(), sizeof(*table));
  return true;
}

// Removes the table, its lock and every object beside them.
void remove_heartbeat_objects() {
  DIR *dir = opendir("/dev/shm");
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (const dirent *entry = readdir(dir)) {
    if (strncmp(entry->d_name, PROC_HEARTBEAT_SHM_NAME, strlen(PROC_HEARTBEAT_SHM_NAME)) == 0) {
      names.push_back(entry->d_name);
    }
  }
  closedir(dir);
  for (const std::string &name : names) unlink(("/dev/shm/" + name).c_str());
}

// A new table, as the service's start leaves it.
std::string fresh_table() {
  remove_heartbeat_objects();
  const int status = tarn_test::reap(tarn_test::fork_child([] {
    if (proc_heartbeat_init(0) != PROC_HEARTBEAT_OK) return 1;
    return proc_heartbeat_deinit(false) == PROC_HEARTBEAT_OK ? 0 : 2;
  }));
  return status == 0 ? "" : format("the service's start ended with %d", status);
}

// After a kill: a process attaches as a worker does, lists the table,
// registers itself and deletes itself again. Returns what went wrong.
std::string work_as_next_process() {
  tarn_test::Pipe results;
  const pid_t pid = tarn_test::fork_child([&results] {
    results.close_read();
    const int32_t self = (int32_t)getpid();
    proc_heartbeat_info_t all[PROC_HEARTBEAT_MAX_PROCS];
    const proc_heartbeat_info_t info = make_info(self, kWorkerType);
    results.write_int(proc_heartbeat_init(1));
    results.write_int(get_all_proc_heartbeats(all, PROC_HEARTBEAT_MAX_PROCS));
    results.write_int(add_proc_heartbeat(&info));
    results.write_int(del_proc_heartbeat_by_pid(self));
    proc_heartbeat_deinit(false);
    return 0;
  });
  results.close_write();
  static const char *const kCalls[] = {"proc_heartbeat_init(1)", "get_all_proc_heartbeats",
                                       "add_proc_heartbeat of itself",
                                       "del_proc_heartbeat_by_pid of itself"};
  std::string problems;
  for (int call = 0; call < 4; ++call) {
    int result = 0;
    if (!results.read_int(&result, kCheckerWaitMs)) {
      problems += format("the next process gave no answer for %s within %d ms\n", kCalls[call],
                         kCheckerWaitMs);
      tarn_test::kill_and_reap(pid);
      return problems;
    }
    const bool expected = call == 0 || call == 3 ? result == PROC_HEARTBEAT_OK : result >= 0;
    if (!expected) problems += format("the next process's %s returned %d\n", kCalls[call], result);
  }
  const int status = tarn_test::reap(pid);
  if (status != 0) problems += format("the next process ended with %d\n", status);
  return problems;
}

// What a kill left: the next process's work, the invariants, and each
// slot against its state before the operation (the replay's own) and
// after it (the reference run's, with the reference child's pid replaced
// by the replay child's).
std::string check_after_kill(const SteppedRun &reference, const SteppedRun &replay) {
  std::string problems = work_as_next_process();
  proc_heartbeat_segment_t now;
  const std::string error = tarn_test::read_heartbeat_table(&now, TableRead::kUnderLock);
  if (!error.empty()) return problems + error + "\n";
  problems += tarn_test::heartbeat_violations(now);
  proc_heartbeat_segment_t before;
  proc_heartbeat_segment_t after;
  if (!table_in(replay.first, &before) || !table_in(reference.last, &after)) {
    return problems + "the table was not among the watched objects\n";
  }
  for (int slot = 0; slot < PROC_HEARTBEAT_MAX_PROCS; ++slot) {
    proc_heartbeat_info_t &expected_after = after.entries[slot];
    if (expected_after.pid == reference.pid) expected_after.pid = replay.pid;
    if (same(now.entries[slot], before.entries[slot]) || same(now.entries[slot], expected_after)) {
      continue;
    }
    problems += describe(slot, now.entries[slot]) + " is neither its state before, " +
                describe(slot, before.entries[slot]) + ", nor after, " +
                describe(slot, expected_after) + "\n";
  }
  return problems;
}

// The slots whose bytes an operation changed.
std::set<int> touched_slots(const SteppedRun &run) {
  proc_heartbeat_segment_t before;
  proc_heartbeat_segment_t after;
  std::set<int> slots;
  if (!table_in(run.first, &before) || !table_in(run.last, &after)) return slots;
  for (int slot = 0; slot < PROC_HEARTBEAT_MAX_PROCS; ++slot) {
    if (!same(before.entries[slot], after.entries[slot])) slots.insert(slot);
  }
  return slots;
}

// An operation as its process runs it.
struct TableOperation {
  const char *name;
  uint32_t mode;                     // proc_heartbeat_init's mode for the process
  std::function<void()> own_setup;   // after the table is built: the process's own entries
  std::function<int()> call;         // the operation
  int expected_result;
  std::set<int> expected_slots;      // the slots it changes
};

class StepKillTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bool emulated = false;
    const std::string unavailable = tarn_test::single_step_unavailable(&emulated);
    if (emulated) GTEST_SKIP() << "single steps are not available: " << unavailable;
    ASSERT_EQ(unavailable, "");
    for (pid_t &helper : helpers_) {
      helper = tarn_test::fork_child([] {
        for (;;) pause();
        return 0;
      });
      ASSERT_GT(helper, 0);
    }
  }

  void TearDown() override {
    for (pid_t helper : helpers_) {
      if (helper > 0) tarn_test::kill_and_reap(helper);
    }
    remove_heartbeat_objects();
    tarn_test::reset_fakes();
  }

  int32_t helper(Helper which) const { return (int32_t)helpers_[which]; }

  // In the child: A E B C F D registered in slots 0 to 5, then E and F
  // deleted.
  void build_table() const {
    const Helper order[kHelpers] = {kA, kE, kB, kC, kF, kD};
    for (int slot = 0; slot < kHelpers; ++slot) require(add(helper(order[slot]), kWorkerType, slot));
    require(del_proc_heartbeat_by_pid(helper(kE)) == PROC_HEARTBEAT_OK);
    require(del_proc_heartbeat_by_pid(helper(kF)) == PROC_HEARTBEAT_OK);
  }

  void step_kill(const TableOperation &op) {
    tarn_test::SteppedOperation stepped;
    stepped.prefix = PROC_HEARTBEAT_SHM_NAME;
    stepped.setup = [this, &op] {
      tarn_test::set_tick(kSetupTick);
      require(proc_heartbeat_init(op.mode) == PROC_HEARTBEAT_OK);
      build_table();
      op.own_setup();
      tarn_test::set_tick(kOperationTick);
      // Formatting the warn, info and debug lines was most of an
      // operation's steps; they touch no shared object, so the states
      // are the same without them, and the runs are several times faster.
      tarn_test::set_log_level(0);
    };
    stepped.operation = op.call;
    const tarn_test::StepKillResult result =
        tarn_test::step_kill_all(stepped, fresh_table, check_after_kill);
    ASSERT_EQ(result.error, "") << op.name;
    const SteppedRun &reference = result.reference;
    ASSERT_EQ(reference.status, op.expected_result & 0xff) << op.name;
    EXPECT_EQ(touched_slots(reference), op.expected_slots) << op.name;
    EXPECT_EQ(tarn_test::heartbeat_violations(TableRead::kAsItIs), "") << op.name << " run to its end";

    const int states = (int)reference.change_steps.size();
    printf("%s: %ld steps, %ld under the lock, %d states\n", op.name, reference.steps,
           result.steps_between, states);
    RecordProperty("steps", (int)reference.steps);
    RecordProperty("steps_under_lock", (int)result.steps_between);
    RecordProperty("states", states);
    EXPECT_TRUE(result.failures.empty())
        << result.failures.size() << " of " << states << " kill points left the table broken:\n"
        << tarn_test::describe_failures(op.name, result);
  }

  // The process's own entry, of type ptype, in the first gap (slot 1).
  static void register_self(uint32_t ptype) { require(add((int32_t)getpid(), ptype, 1)); }

  pid_t helpers_[kHelpers] = {};
};

TEST_F(StepKillTest, AWorkerRegisteringKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"add_proc_heartbeat", 1, [] {},
             [] {
               const proc_heartbeat_info_t info = make_info((int32_t)getpid(), kWorkerType);
               return add_proc_heartbeat(&info);
             },
             1, {1}});
}

TEST_F(StepKillTest, AWorkerDeletingItselfKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"del_proc_heartbeat_by_pid", 1, [] { register_self(kWorkerType); },
             [] { return del_proc_heartbeat_by_pid((int32_t)getpid()); }, PROC_HEARTBEAT_OK, {1}});
}

TEST_F(StepKillTest, DeletingBySlotKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"del_proc_heartbeat_by_idx", 1, [] {}, [] { return del_proc_heartbeat_by_idx(2); },
             PROC_HEARTBEAT_OK, {2}});
}

TEST_F(StepKillTest, AWorkersBeatKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"update_proc_beat_tick (worker)", 1, [] { register_self(kWorkerType); },
             [] { return update_proc_beat_tick(); }, PROC_HEARTBEAT_OK, {1}});
}

// The service's beat sweeps the entries of three processes that have ended
// (slots 4, 6 and 7) and stamps its own (slot 1).
TEST_F(StepKillTest, TheServicesBeatAndSweepKilledAtEveryStateLeaveTheTableWhole) {
  step_kill({"update_proc_beat_tick (service, sweep)", 0,
             [] {
               register_self(PROC_HEARTBEAT_TYPE_SERVICE);
               for (const int slot : {4, 6, 7}) {
                 const pid_t ended = tarn_test::fork_child([] {
                   for (;;) pause();
                   return 0;
                 });
                 require(add((int32_t)ended, kWorkerType, slot));
                 tarn_test::kill_and_reap(ended);
               }
             },
             [] { return update_proc_beat_tick(); }, PROC_HEARTBEAT_OK, {1, 4, 6, 7}});
}

// The list adds E and F (into the gaps, slots 1 and 4) and, mirroring the
// table slot by slot, deletes B and C (slots 2 and 3, absent from it).
TEST_F(StepKillTest, SyncKilledAtEveryStateLeavesTheTableWhole) {
  const int32_t a = helper(kA);
  const int32_t d = helper(kD);
  const int32_t e = helper(kE);
  const int32_t f = helper(kF);
  step_kill({"sync_proc_heartbeat_infos", 0, [] {},
             [a, d, e, f] {
               proc_heartbeat_info_t records[4] = {make_info(a, kWorkerType), make_info(e, kWorkerType),
                                                   make_info(f, kWorkerType), make_info(d, kWorkerType)};
               proc_heartbeat_info_t *list[6] = {&records[0], &records[1], nullptr,
                                                 nullptr,     &records[2], &records[3]};
               return sync_proc_heartbeat_infos(list, 6);
             },
             PROC_HEARTBEAT_OK, {1, 2, 3, 4}});
}

TEST_F(StepKillTest, TheWatchdogRegisteringKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"add_wtdog_heartbeat", 1, [] {}, [] { return add_wtdog_heartbeat(); },
             PROC_HEARTBEAT_OK, {1}});
}

TEST_F(StepKillTest, TheWatchdogsBeatKilledAtEveryStateLeavesTheTableWhole) {
  step_kill({"update_wtdog_beat_tick", 1, [] { require(add_wtdog_heartbeat() == PROC_HEARTBEAT_OK); },
             [] { return update_wtdog_beat_tick(); }, PROC_HEARTBEAT_OK, {1}});
}

}  // namespace
