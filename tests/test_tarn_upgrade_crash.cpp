// Crash safety of upgrades on trial: processes killed inside begin, check,
// commit and rollback, and power cuts during their saves.
//
// Kills. Each operation runs in a traced child that is killed at the entry
// of one of its system calls (syscall_kill.h): first at every one of them
// in turn, then at random ones (seeded, so a failure can be replayed) up to
// the kill count. After each kill the record must load and name the old or
// the new app home, the journal must be readable and agree with the
// record, and the same operation called again must bring both to the end
// that an uninterrupted run reaches.
//
// Power cuts. Each operation is traced to its end with its file operations
// recorded and replayed on a model disk that keeps only what was synced
// (syscall_kill.h): at every cut point, every way the journal and the
// record could come back must be a whole version (the one before, or one
// that a save put in place), never a cut or NUL-filled file.

#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>

#include "child_process.h"
#include "fakes.h"
#include "files.h"
#include "install_root.h"
#include "syscall_kill.h"
#include "tarn_heartbeat.h"
#include "tarn_upgrade.h"
#include "upgrade_fixture.h"

namespace {

using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kJournalPath;

#if defined(__SANITIZE_ADDRESS__)
constexpr int kKills = 250;  // the sanitizers make each traced run several times slower
#else
constexpr int kKills = 1000;
#endif
constexpr uint64_t kStart = 1000000;
constexpr int kTrial = 10;

struct Scenario {
  const char *name;
  bool begun;                    // the trial is begun before the operation
  uint64_t tick;                 // the clock during the operation
  std::function<int()> operation;
  int32_t end_state;             // where the operation, run again after a kill, ends
};

int check_once() {
  tarn_upgrade_verdict_t verdict;
  return tarn_upgrade_check(&verdict);
}

class UpgradeCrashTest : public tarn_test::UpgradeFixture {
 protected:
  void SetUp() override {
    UpgradeFixture::SetUp();
    const std::string why = tarn_test::syscall_kill_unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    tarn_test::set_tick(kStart);
    ASSERT_EQ(proc_heartbeat_init(0), 0);
  }
  void TearDown() override {
    if (service_ > 0) tarn_test::kill_and_reap(service_);
    proc_heartbeat_deinit(true);
    UpgradeFixture::TearDown();
  }

  // A real service process in the heartbeat table, registered at kStart
  // with the longest interval, so that it never counts as silent here.
  void start_service() {
    service_ = tarn_test::fork_child([] {
      for (;;) pause();
      return 0;
    });
    proc_heartbeat_info_t info{};
    info.pid = service_;
    info.interval = 59;
    info.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
    ASSERT_GE(add_proc_heartbeat(&info), 0);
  }

  // The state before the operation. Returns "" or what went wrong.
  std::string prepare(const Scenario &scenario) {
    tarn_test::clear_logs();
    tarn_test::set_tick(kStart);
    if (!lay_out()) return "the install root could not be laid out";
    if (scenario.begun && tarn_upgrade_begin(kHomeB, nullptr, kTrial) != TARN_UPGRADE_OK) {
      return "begin failed while preparing";
    }
    tarn_test::set_tick(scenario.tick);
    return "";
  }

  // What is wrong after a kill, "" for nothing.
  std::string check_after_kill() {
    const std::string home = recorded_home();
    if (home != kHomeA && home != kHomeB) return "the record names [" + home + "]";
    const auto backup = tarn_test::load_ini(tarn_test::kBackupPath);
    if (!backup) return "the backup cannot be loaded";
    tarn_upgrade_status_t status;
    if (tarn_upgrade_status(&status) != TARN_UPGRADE_OK) return "status failed";
    switch (status.state) {
      case TARN_UPGRADE_STATE_UNREADABLE:
        return "the journal was lost: it cannot be read";
      case TARN_UPGRADE_STATE_NONE:
      case TARN_UPGRADE_STATE_ROLLED_BACK:
        if (home != kHomeA) return std::string("journal ") + tarn_upgrade_state_text(status.state) +
                                   " but the record names the new app home";
        break;
      case TARN_UPGRADE_STATE_TRIAL:
      case TARN_UPGRADE_STATE_COMMITTED:
        if (home != kHomeB) return std::string("journal ") + tarn_upgrade_state_text(status.state) +
                                   " but the record names the old app home";
        break;
      default:
        break;  // a step under way: either app home
    }
    return "";
  }

  // What is wrong once the operation was called again, "" for nothing.
  std::string check_converged(const Scenario &scenario) {
    tarn_test::clear_logs();
    scenario.operation();
    tarn_upgrade_status_t status;
    tarn_upgrade_status(&status);
    if (status.state != scenario.end_state) {
      return std::string("the next call left the journal ") + tarn_upgrade_state_text(status.state);
    }
    const bool back = scenario.end_state == TARN_UPGRADE_STATE_ROLLED_BACK;
    if (recorded_home() != (back ? kHomeA : kHomeB)) return "the next call left the record " + recorded_home();
    if (back && !service_config_renewed(kHomeA)) return "the fallback's service was not restarted";
    return "";
  }

  void kill_everywhere(const Scenario &scenario) {
    ASSERT_EQ(prepare(scenario), "");
    const tarn_test::SyscallRun reference = tarn_test::run_syscall_killed(scenario.operation, 0);
    ASSERT_EQ(reference.error, "");
    ASSERT_EQ(reference.status, 0) << scenario.name;
    ASSERT_GT(reference.syscalls, 10);
    tarn_upgrade_status_t status;
    tarn_upgrade_status(&status);
    ASSERT_EQ(status.state, scenario.end_state) << "reference run of " << scenario.name;

    std::mt19937 random(20261125u + (unsigned)reference.syscalls);
    std::uniform_int_distribution<long> any_call(1, reference.syscalls);
    int failures = 0;
    int killed = 0;
    for (int kill = 0; kill < kKills && failures < 5; ++kill) {
      const long at = kill < reference.syscalls ? kill + 1 : any_call(random);
      ASSERT_EQ(prepare(scenario), "");
      const tarn_test::SyscallRun run = tarn_test::run_syscall_killed(scenario.operation, at);
      ASSERT_EQ(run.error, "");
      // A run may make a few system calls fewer than the reference (the
      // sanitizers' allocator maps memory when it likes); one that ended
      // before the kill point must simply have succeeded.
      if (run.killed) {
        ++killed;
      } else {
        ASSERT_EQ(run.status, 0) << "system call " << at << " of " << reference.syscalls;
      }
      std::string problem = check_after_kill();
      if (problem.empty()) problem = check_converged(scenario);
      if (!problem.empty()) {
        ++failures;
        ADD_FAILURE() << scenario.name << " killed at system call " << at << " of "
                      << reference.syscalls << ": " << problem;
      }
    }
    EXPECT_GE(killed, kKills * 9 / 10);
    printf("%s: %ld system calls; %d of %d runs killed\n", scenario.name, reference.syscalls, killed,
           kKills);
  }

  void cut_power_everywhere(const Scenario &scenario) {
    ASSERT_EQ(prepare(scenario), "");
    tarn_test::DiskImage initial;
    for (const char *path : {kJournalPath, tarn_test::kRecordPath}) {
      if (tarn_test::exists(path)) initial[path] = tarn_test::read_file(path);
    }
    const tarn_test::SyscallRun run = tarn_test::run_syscall_killed(scenario.operation, 0, true);
    ASSERT_EQ(run.error, "");
    ASSERT_EQ(run.status, 0);
    std::map<std::string, std::set<std::string>> placed;
    const std::set<std::string> names = {kJournalPath, tarn_test::kRecordPath};
    const auto images = tarn_test::power_cut_images(run.events, initial, names, &placed);
    ASSERT_FALSE(placed[kJournalPath].empty()) << scenario.name << " saved no journal";
    int failures = 0;
    for (const auto &image : images) {
      for (const std::string &name : names) {
        auto found = image.find(name);
        const bool was = initial.count(name) != 0;
        std::string problem;
        if (found == image.end()) {
          if (was) problem = "is gone";
        } else if (!(was && found->second == initial.at(name)) && placed[name].count(found->second) == 0) {
          problem = "holds a version no save made: [" + found->second.substr(0, 80) + "] (" +
                    std::to_string(found->second.size()) + " bytes)";
        }
        if (!problem.empty() && ++failures <= 5) {
          ADD_FAILURE() << scenario.name << ": after a power cut " << name << " " << problem;
        }
      }
    }
    // Every whole version loads, as old or new.
    for (const auto &versions : placed) {
      for (const std::string &content : versions.second) {
        ASSERT_TRUE(tarn_test::write_file("/tmp/version.ini", content));
        EXPECT_TRUE(tarn_test::load_ini("/tmp/version.ini").has_value()) << content;
      }
    }
    EXPECT_GT(images.size(), 10u);
    printf("%s: %zu file operations, %zu disk images after a cut\n", scenario.name, run.events.size(),
           images.size());
  }

  pid_t service_ = -1;
};

const Scenario kBegin = {"begin", false, kStart,
                         [] { return tarn_upgrade_begin(kHomeB, nullptr, kTrial) == TARN_UPGRADE_OK ? 0 : 1; },
                         TARN_UPGRADE_STATE_TRIAL};
// No service at all and its grace over: the check rolls back.
const Scenario kFailingCheck = {"check (rolls back)", true, kStart + 31000,
                                [] { return check_once(); }, TARN_UPGRADE_STATE_ROLLED_BACK};
// A service that is there and the trial over: the check commits.
const Scenario kPassingCheck = {"check (commits)", true, kStart + kTrial * 1000,
                                [] { return check_once(); }, TARN_UPGRADE_STATE_COMMITTED};
const Scenario kCommit = {"commit", true, kStart, [] { return tarn_upgrade_commit(); },
                          TARN_UPGRADE_STATE_COMMITTED};
const Scenario kRollback = {"rollback", true, kStart, [] { return tarn_upgrade_rollback("bad"); },
                            TARN_UPGRADE_STATE_ROLLED_BACK};

TEST_F(UpgradeCrashTest, KillsInsideBegin) { kill_everywhere(kBegin); }
TEST_F(UpgradeCrashTest, KillsInsideACheckThatRollsBack) { kill_everywhere(kFailingCheck); }
TEST_F(UpgradeCrashTest, KillsInsideACheckThatCommits) {
  start_service();
  kill_everywhere(kPassingCheck);
}
TEST_F(UpgradeCrashTest, KillsInsideCommit) { kill_everywhere(kCommit); }
TEST_F(UpgradeCrashTest, KillsInsideRollback) { kill_everywhere(kRollback); }

TEST_F(UpgradeCrashTest, PowerCutsDuringBegin) { cut_power_everywhere(kBegin); }
TEST_F(UpgradeCrashTest, PowerCutsDuringACheckThatRollsBack) { cut_power_everywhere(kFailingCheck); }
TEST_F(UpgradeCrashTest, PowerCutsDuringCommit) { cut_power_everywhere(kCommit); }
TEST_F(UpgradeCrashTest, PowerCutsDuringRollback) { cut_power_everywhere(kRollback); }

}  // namespace
