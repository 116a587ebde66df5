// Tests of upgrades on trial: begin, the verdicts of the watchdog's check
// with a real service process and real workers in the heartbeat table,
// commit, rollback, status, and a journal that cannot be read.
//
// The install root is a fresh tmpfs in the test sandbox; the app homes, the
// record and the service configurations are real files. Time is the
// controlled tick of fakes.h: the service child beats at the tick the test
// hands it. The boot id is a file of the test's own, bind-mounted over
// /proc/sys/kernel/random/boot_id in the sandbox's mount namespace.

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "child_process.h"
#include "fakes.h"
#include "install_root.h"
#include "log_checks.h"
#include "tarn_apphome.h"
#include "tarn_heartbeat.h"
#include "tarn_upgrade.h"
#include "upgrade_fixture.h"

using tarn_test::kBootId1;
using tarn_test::kBootId2;
using tarn_test::kBootId3;
using tarn_test::kJournalPath;
using tarn_test::set_boot_id;

namespace {

using tarn_test::fork_child;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::Pipe;

constexpr uint64_t kStart = 1000000;  // the tick at which each trial begins
constexpr int kTrial = 120;

// A process of the agent in the heartbeat table: a forked child that
// registers itself with its type and interval, then beats at each tick the
// test sends it (its clock is set to that tick first) and answers with the
// beat's result.
class AgentProcess {
 public:
  AgentProcess(uint32_t ptype, uint32_t interval, uint64_t tick) {
    pid_ = fork_child([&]() {
      to_child_.close_write();
      from_child_.close_read();
      tarn_test::set_tick(tick);
      proc_heartbeat_info_t info{};
      info.pid = getpid();
      info.interval = interval;
      info.ptype = ptype;
      from_child_.write_int(add_proc_heartbeat(&info) >= 0 ? 0 : 1);
      int beat_at = 0;
      while (to_child_.read_int(&beat_at, 600000)) {
        tarn_test::set_tick((uint64_t)beat_at);
        from_child_.write_int(update_proc_beat_tick());
      }
      return 0;
    });
    to_child_.close_read();
    from_child_.close_write();
    int registered = -1;
    registered_ = from_child_.read_int(&registered) && registered == 0;
  }
  ~AgentProcess() { stop(); }
  AgentProcess(const AgentProcess &) = delete;
  AgentProcess &operator=(const AgentProcess &) = delete;

  bool registered() const { return registered_; }
  pid_t pid() const { return pid_; }
  // Beats at tick; returns update_proc_beat_tick's result, -100 without one.
  int beat(uint64_t tick) {
    int result = -100;
    if (!to_child_.write_int((int)tick) || !from_child_.read_int(&result)) return -100;
    return result;
  }
  // A crash: SIGKILL, and the child is reaped.
  void stop() {
    if (pid_ > 0) tarn_test::kill_and_reap(pid_);
    pid_ = -1;
  }

 private:
  Pipe to_child_, from_child_;
  pid_t pid_ = -1;
  bool registered_ = false;
};

class UpgradeTest : public tarn_test::UpgradeFixture {
 protected:
  void SetUp() override {
    UpgradeFixture::SetUp();
    tarn_test::set_tick(kStart);
    ASSERT_EQ(proc_heartbeat_init(0), 0);
    tarn_test::clear_logs();
  }
  void TearDown() override {
    workers_.clear();
    proc_heartbeat_deinit(true);
    UpgradeFixture::TearDown();
  }

  // A service and two workers, all registered at the current tick.
  void start_agent(uint64_t tick) {
    service_.reset(new AgentProcess(PROC_HEARTBEAT_TYPE_SERVICE, 5, tick));
    ASSERT_TRUE(service_->registered());
    for (uint32_t type = 1; type <= 2; ++type) {
      workers_.emplace_back(new AgentProcess(type, 10, tick));
      ASSERT_TRUE(workers_.back()->registered());
    }
  }

  tarn_upgrade_verdict_t check_at(uint64_t tick, int32_t expected_result = TARN_UPGRADE_OK) {
    tarn_test::set_tick(tick);
    tarn_upgrade_verdict_t verdict;
    memset(&verdict, 0x55, sizeof(verdict));
    EXPECT_EQ(tarn_upgrade_check(&verdict), expected_result) << tarn_test::dump_logs();
    return verdict;
  }

  void expect_rolled_back(const std::string &reason) {
    EXPECT_EQ(recorded_home(), kHomeA);
    tarn_upgrade_status_t status;
    ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
    EXPECT_EQ(status.state, TARN_UPGRADE_STATE_ROLLED_BACK);
    EXPECT_STREQ(status.reason, reason.c_str());
    EXPECT_EQ(status.last_verdict, reason + "; rolled back to " + kHomeA);
    EXPECT_EQ(status.seconds_left, -1);
    EXPECT_LOGGED("warn", std::string("upgrade to ") + kHomeB + " rolled back to " + kHomeA + ": " +
                              reason + "\n");
    EXPECT_TRUE(service_config_renewed(kHomeA));
  }

  // A trial whose first check sees the service; then at each tick the
  // service crashes and the manager starts it again (the new process takes
  // over the service's entry), and the watchdog checks half a second later.
  // Returns the verdicts of those checks.
  std::vector<tarn_upgrade_verdict_t> crash_and_restart(const std::vector<uint64_t> &ticks) {
    start_agent(kStart);
    EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
    EXPECT_EQ(check_at(kStart + 1000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
    std::vector<tarn_upgrade_verdict_t> verdicts;
    for (uint64_t tick : ticks) {
      service_->stop();
      tarn_test::set_tick(tick);
      service_.reset(new AgentProcess(PROC_HEARTBEAT_TYPE_SERVICE, 5, tick));
      EXPECT_TRUE(service_->registered());
      verdicts.push_back(check_at(tick + 500));
    }
    return verdicts;
  }

  std::unique_ptr<AgentProcess> service_;
  std::vector<std::unique_ptr<AgentProcess>> workers_;
};

// ---------------------------------------------------------------------------
// begin

TEST_F(UpgradeTest, BeginWritesTheJournalAndRecordsTheNewAppHome) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK) << tarn_test::dump_logs();
  EXPECT_EQ(recorded_home(), kHomeB);
  EXPECT_EQ(tarn_test::load_ini(tarn_test::kBackupPath).value()["apphome"]["app_home"], kHomeB);
  EXPECT_LOGGED("info", tarn_test::format("upgrade to %s on trial for %d seconds, fallback %s\n",
                                          kHomeB, kTrial, kHomeA));
  const auto journal = tarn_test::load_ini(kJournalPath);
  ASSERT_TRUE(journal.has_value());
  auto upgrade = journal.value().at("upgrade");
  EXPECT_EQ(upgrade["state"], "trial");
  EXPECT_EQ(upgrade["old_app_home"], kHomeA);
  EXPECT_EQ(upgrade["new_app_home"], kHomeB);
  EXPECT_EQ(upgrade["boot_id"], kBootId1);
  EXPECT_EQ(upgrade["start_tick"], std::to_string(kStart));
  EXPECT_EQ(upgrade["trial_seconds"], std::to_string(kTrial));

  tarn_upgrade_status_t status;
  tarn_test::set_tick(kStart + 20500);
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_TRIAL);
  EXPECT_EQ(status.trial_seconds, kTrial);
  EXPECT_EQ(status.seconds_left, kTrial - 20);
  EXPECT_STREQ(status.old_apphome, kHomeA);
  EXPECT_STREQ(status.new_apphome, kHomeB);
  EXPECT_STREQ(status.old_apphome_arch, "");
  EXPECT_STREQ(status.last_verdict, "the trial begins");
  EXPECT_STREQ(status.reason, "");
}

TEST_F(UpgradeTest, BeginRefusesBadArgumentsSilently) {
  EXPECT_EQ(tarn_upgrade_begin(nullptr, nullptr, kTrial), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_begin("not-a-uuid", nullptr, kTrial), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, 0), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, TARN_UPGRADE_MAX_TRIAL_SECONDS + 1),
            TARN_UPGRADE_E_INVALID);
  EXPECT_NO_LINES();
  EXPECT_FALSE(tarn_test::exists(kJournalPath));
  EXPECT_EQ(recorded_home(), kHomeA);
}

TEST_F(UpgradeTest, BeginRefusesTheRecordedAppHomeAndOneNotOperational) {
  EXPECT_EQ(tarn_upgrade_begin(kHomeA, nullptr, kTrial), TARN_UPGRADE_E_INVALID);
  EXPECT_LOGGED("warn", "upgrade refused: the new app home is the recorded one\n");
  tarn_test::make_apphome(tarn_test::kHomeX86, false, false);
  EXPECT_EQ(tarn_upgrade_begin(tarn_test::kHomeX86, nullptr, kTrial), TARN_UPGRADE_E_NOT_OPERATIONAL);
  EXPECT_LOGGED("warn", std::string("upgrade app home ") + tarn_test::under_root(tarn_test::kHomeX86) +
                            " is not operational\n");
  EXPECT_FALSE(tarn_test::exists(kJournalPath));
  EXPECT_EQ(recorded_home(), kHomeA);
}

TEST_F(UpgradeTest, BeginRefusesWhileATrialRuns) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  tarn_test::make_apphome(tarn_test::kHomeX86, true, true);
  EXPECT_EQ(tarn_upgrade_begin(tarn_test::kHomeX86, nullptr, kTrial), TARN_UPGRADE_E_BUSY);
  EXPECT_LOGGED("warn", "upgrade refused: an upgrade is on trial\n");
  EXPECT_EQ(recorded_home(), kHomeB);
}

// ---------------------------------------------------------------------------
// The verdicts.

TEST_F(UpgradeTest, NoServiceFailsAfterItsGrace) {
  start_agent(kStart);
  const pid_t pid = service_->pid();
  service_->stop();  // the new service never comes up; only the workers run
  ASSERT_EQ(del_proc_heartbeat_by_pid(pid), 0);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  tarn_upgrade_verdict_t verdict = check_at(kStart + 30000);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_RUNNING);
  EXPECT_EQ(verdict.seconds_left, kTrial - 30);
  EXPECT_STREQ(verdict.reason, tarn_test::format("the trial of %s runs, %d seconds left", kHomeB,
                                                 kTrial - 30).c_str());
  EXPECT_EQ(recorded_home(), kHomeB);

  verdict = check_at(kStart + 30001);
  const std::string reason =
      "the service has had no heartbeat entry for 30 seconds, more than its grace of 30 seconds";
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_FAILED);
  EXPECT_EQ(verdict.seconds_left, 0);
  EXPECT_EQ(verdict.reason, reason + "; rolled back to " + kHomeA);
  expect_rolled_back(reason);
}

TEST_F(UpgradeTest, ServiceGoneAfterItWasSeenFailsAGraceAfterTheCheckThatMissedIt) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  EXPECT_EQ(check_at(kStart + 1000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
  const pid_t pid = service_->pid();
  service_->stop();
  ASSERT_EQ(del_proc_heartbeat_by_pid(pid), 0);
  EXPECT_EQ(check_at(kStart + 5000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
  EXPECT_EQ(check_at(kStart + 35000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
  const tarn_upgrade_verdict_t verdict = check_at(kStart + 35001);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_FAILED);
  expect_rolled_back(
      "the service has had no heartbeat entry for 30 seconds, more than its grace of 30 seconds");
}

TEST_F(UpgradeTest, SilentServiceFailsAfterTwiceItsInterval) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  ASSERT_EQ(service_->beat(kStart + 4000), 0);
  for (auto &worker : workers_) ASSERT_EQ(worker->beat(kStart + 14000), 0);
  // Interval 5 s: silent for exactly 10 s is still within bounds.
  EXPECT_EQ(check_at(kStart + 14000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
  const tarn_upgrade_verdict_t verdict = check_at(kStart + 14001);
  const std::string reason = tarn_test::format(
      "the service (pid %d) has not beaten for 10 seconds, more than twice its interval of 5 seconds",
      service_->pid());
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_FAILED);
  EXPECT_EQ(verdict.reason, reason + "; rolled back to " + kHomeA);
  expect_rolled_back(reason);
}

TEST_F(UpgradeTest, CrashLoopFailsOnTheThirdReplacementWithinAMinute) {
  // The first replacement is 59.5 s before the third's check: three within
  // a minute.
  const auto verdicts = crash_and_restart({kStart + 2000, kStart + 20000, kStart + 61000});
  EXPECT_EQ(verdicts[0].verdict, TARN_UPGRADE_VERDICT_RUNNING) << verdicts[0].reason;
  EXPECT_EQ(verdicts[1].verdict, TARN_UPGRADE_VERDICT_RUNNING) << verdicts[1].reason;
  EXPECT_EQ(verdicts[2].verdict, TARN_UPGRADE_VERDICT_FAILED);
  const std::string reason = "the service was restarted 3 times within a minute (a crash loop)";
  EXPECT_EQ(verdicts[2].reason, reason + "; rolled back to " + kHomeA);
  expect_rolled_back(reason);
}

TEST_F(UpgradeTest, ReplacementsMoreThanAMinuteApartAreNoCrashLoop) {
  for (const auto &verdict : crash_and_restart({kStart + 2000, kStart + 30000, kStart + 62000})) {
    EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_RUNNING) << verdict.reason;
  }
  EXPECT_EQ(recorded_home(), kHomeB);
}

// What a process started after a restart of the machine sees (the boot id
// is read once per process): runs body in a forked child and returns the
// number of the first of its expectations that failed, 0 when none did.
int in_new_process(const std::function<int()> &body) {
  return tarn_test::reap(fork_child(body));
}

TEST_F(UpgradeTest, RebootDuringTheTrialStartsItAgainAndASecondOneFailsIt) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  ASSERT_TRUE(set_boot_id(kBootId2));
  // On the new boot the clock starts afresh, below the trial's start.
  start_agent(5000);
  const std::string restarted =
      std::string("the machine restarted during the trial of ") + kHomeB + "; the trial starts again";
  EXPECT_EQ(in_new_process([&] {
              tarn_test::set_tick(5000);
              tarn_upgrade_verdict_t verdict;
              if (tarn_upgrade_check(&verdict) != TARN_UPGRADE_OK) return 1;
              if (verdict.verdict != TARN_UPGRADE_VERDICT_RUNNING) return 2;
              if (verdict.seconds_left != kTrial) return 3;
              if (verdict.reason != restarted) return 4;
              if (!tarn_test::logged("info", "upgrade trial restarts: the machine restarted\n")) return 5;
              tarn_test::set_tick(15000);
              tarn_upgrade_status_t status;
              if (tarn_upgrade_status(&status) != TARN_UPGRADE_OK) return 6;
              if (status.seconds_left != kTrial - 10) return 7;
              if (status.last_verdict != restarted) return 8;
              return 0;
            }),
            0);
  EXPECT_EQ(recorded_home(), kHomeB);
  ASSERT_EQ(service_->beat(15000), 0);
  EXPECT_EQ(in_new_process([&] {
              tarn_test::set_tick(15000);
              tarn_upgrade_verdict_t verdict;
              if (tarn_upgrade_check(&verdict) != TARN_UPGRADE_OK) return 1;
              return verdict.verdict == TARN_UPGRADE_VERDICT_RUNNING && verdict.seconds_left == kTrial - 10 ? 0 : 2;
            }),
            0);
  // This process, which began on the first boot, sees no time left.
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.seconds_left, -1);

  ASSERT_TRUE(set_boot_id(kBootId3));
  const std::string reason = "the machine restarted twice during the trial";
  EXPECT_EQ(in_new_process([&] {
              tarn_test::set_tick(2000);
              tarn_upgrade_verdict_t verdict;
              if (tarn_upgrade_check(&verdict) != TARN_UPGRADE_OK) return 1;
              if (verdict.verdict != TARN_UPGRADE_VERDICT_FAILED) return 2;
              return verdict.reason == reason + "; rolled back to " + kHomeA ? 0 : 3;
            }),
            0);
  tarn_test::clear_logs();
  EXPECT_EQ(recorded_home(), kHomeA);
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_ROLLED_BACK);
  EXPECT_STREQ(status.reason, reason.c_str());
  EXPECT_TRUE(service_config_renewed(kHomeA));
}

TEST_F(UpgradeTest, HealthyTrialPassesWhenItsTimeRunsOutAndIsCommitted) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  tarn_upgrade_verdict_t verdict;
  for (uint64_t at = kStart + 5000; at < kStart + kTrial * 1000; at += 5000) {
    ASSERT_EQ(service_->beat(at), 0);
    for (auto &worker : workers_) ASSERT_EQ(worker->beat(at), 0);
    verdict = check_at(at);
    ASSERT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_RUNNING) << verdict.reason;
  }
  EXPECT_EQ(verdict.seconds_left, 5);
  verdict = check_at(kStart + kTrial * 1000);
  const std::string why =
      tarn_test::format("the trial of %s passed after %d seconds; committed", kHomeB, kTrial);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_PASSED);
  EXPECT_EQ(verdict.reason, why);
  EXPECT_LOGGED("info", std::string("upgrade to ") + kHomeB + " committed: " + why + "\n");
  EXPECT_EQ(recorded_home(), kHomeB);
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_COMMITTED);
  EXPECT_EQ(status.last_verdict, why);
  // The fallback stays on disk; a later check has nothing to judge.
  EXPECT_TRUE(tarn_test::exists(tarn_test::under_root(kHomeA) + "/config/flags/flag_operational"));
  verdict = check_at(kStart + kTrial * 2000);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_NONE);
  EXPECT_STREQ(verdict.reason, "no upgrade is on trial");
}

TEST_F(UpgradeTest, QuietChecksWriteNothing) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  EXPECT_EQ(check_at(kStart + 1000).verdict, TARN_UPGRADE_VERDICT_RUNNING);  // sees the service
  struct stat before;
  ASSERT_EQ(stat(kJournalPath, &before), 0);
  ASSERT_EQ(service_->beat(kStart + 3000), 0);
  EXPECT_EQ(check_at(kStart + 3000).verdict, TARN_UPGRADE_VERDICT_RUNNING);
  struct stat after;
  ASSERT_EQ(stat(kJournalPath, &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

// ---------------------------------------------------------------------------
// commit, rollback, status by hand

TEST_F(UpgradeTest, CommitAndRollbackNeedATrial) {
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_NO_TRIAL);
  EXPECT_EQ(tarn_upgrade_rollback("why"), TARN_UPGRADE_E_NO_TRIAL);
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_NONE);
  EXPECT_EQ(tarn_upgrade_status(nullptr), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_check(nullptr), TARN_UPGRADE_E_INVALID);
  const tarn_upgrade_verdict_t verdict = check_at(kStart);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_NONE);
  EXPECT_STREQ(verdict.reason, "no upgrade is on trial");
  EXPECT_NO_LINES();
}

TEST_F(UpgradeTest, RollbackByHandRecordsTheFallbackAndRestartsItsService) {
  start_agent(kStart);
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  service_->stop();  // the new service has crashed: the restart must not need it
  EXPECT_EQ(tarn_upgrade_rollback(" operator\nsaw errors "), TARN_UPGRADE_OK);
  expect_rolled_back("operator saw errors");
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_NO_TRIAL);
}

TEST_F(UpgradeTest, RollbackWithoutReasonSaysByRequest) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  EXPECT_EQ(tarn_upgrade_rollback(nullptr), TARN_UPGRADE_OK);
  expect_rolled_back("rolled back by request");
}

TEST_F(UpgradeTest, FailedServiceRestartLeavesRollingBackForTheNextCall) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  const std::string config = tarn_test::under_root(kHomeA) + "/config/services/TARN/tarn_service.eni";
  ASSERT_EQ(unlink(config.c_str()), 0);
  EXPECT_EQ(tarn_upgrade_rollback("bad"), TARN_UPGRADE_E_SERVICE);
  EXPECT_LOGGED("warn", "upgrade service restart failed, error -1\n");
  EXPECT_EQ(recorded_home(), kHomeA);
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_ROLLING_BACK);
  ASSERT_TRUE(tarn_test::write_file(config, "[service]\nname=old\n"));
  tarn_test::clear_logs();
  EXPECT_EQ(check_at(kStart + 1000).verdict, TARN_UPGRADE_VERDICT_NONE);
  EXPECT_LOGGED("info", "upgrade finishes the step left by a stopped process: rolling back\n");
  expect_rolled_back("bad");
}

TEST_F(UpgradeTest, CommitByHand) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_OK);
  EXPECT_LOGGED("info", std::string("upgrade to ") + kHomeB + " committed: committed by request\n");
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_COMMITTED);
  EXPECT_EQ(recorded_home(), kHomeB);
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_NO_TRIAL);
}

TEST_F(UpgradeTest, StateAndVerdictTexts) {
  const char *const states[] = {"none", "starting", "trial", "rolling back", "committed",
                                "rolled back", "unreadable"};
  for (int32_t i = 0; i < 7; ++i) EXPECT_STREQ(tarn_upgrade_state_text(i), states[i]);
  EXPECT_STREQ(tarn_upgrade_state_text(7), "unknown");
  EXPECT_STREQ(tarn_upgrade_state_text(-1), "unknown");
  const char *const verdicts[] = {"none", "running", "passed", "failed"};
  for (int32_t i = 0; i < 4; ++i) EXPECT_STREQ(tarn_upgrade_verdict_text(i), verdicts[i]);
  EXPECT_STREQ(tarn_upgrade_verdict_text(4), "unknown");
}

// ---------------------------------------------------------------------------
// A journal that cannot be read never blocks the agent.

// ---------------------------------------------------------------------------
// clean-up

TEST_F(UpgradeTest, CleanUpKeepsTheFallbackAndTheRecordedAppHomeAndRemovesOthers) {
  constexpr char kHomeC[] = "2c3d4e5f-6a7b-4c8d-9e0f-1a2b3c4d5e6f";
  const auto kept = [](const char *home, const char *why) {
    return "upgrade keeps app home " + tarn_test::under_root(home) + ": " + why + "\n";
  };
  EXPECT_EQ(tarn_upgrade_remove_apphome(nullptr), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_remove_apphome(""), TARN_UPGRADE_E_INVALID);
  EXPECT_EQ(tarn_upgrade_remove_apphome("../../../../tmp"), TARN_UPGRADE_E_INVALID);
  EXPECT_NO_LINES();

  // Nothing goes while the new version is unproven, the previous one least.
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeA), TARN_UPGRADE_E_BUSY);
  EXPECT_LOGGED("warn", kept(kHomeA, "an upgrade is on trial"));
  ASSERT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_OK);
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeA), TARN_UPGRADE_E_KEPT);
  EXPECT_LOGGED("warn", kept(kHomeA, "it is the upgrade's fallback"));
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeB), TARN_UPGRADE_E_KEPT);
  EXPECT_LOGGED("warn", kept(kHomeB, "it is the recorded one"));
  EXPECT_TRUE(tarn_test::exists(tarn_test::under_root(kHomeA)));
  EXPECT_TRUE(tarn_test::exists(tarn_test::under_root(kHomeB)));

  // Another app home goes, whole; a link inside it is removed, not followed.
  const std::string outside = "/tmp/upgrade_outside";
  ASSERT_TRUE(tarn_test::make_dirs(outside));
  ASSERT_TRUE(tarn_test::write_file(outside + "/keep", "mine"));
  tarn_test::make_apphome(kHomeC, true, true);
  ASSERT_EQ(symlink(outside.c_str(), (tarn_test::under_root(kHomeC) + "/config/link").c_str()), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeC), TARN_UPGRADE_OK);
  EXPECT_LOGGED("info", "upgrade removed app home " + tarn_test::under_root(kHomeC) + "\n");
  EXPECT_FALSE(tarn_test::exists(tarn_test::under_root(kHomeC)));
  EXPECT_EQ(tarn_test::read_file(outside + "/keep"), "mine");
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeC), TARN_UPGRADE_E_REMOVE);
  EXPECT_LOGGED("warn", "upgrade cannot remove app home " + tarn_test::under_root(kHomeC) + ", error 2\n");
  // An app home that is a link is left, and so is what it points to.
  ASSERT_EQ(symlink(outside.c_str(), tarn_test::under_root(kHomeC).c_str()), 0);
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeC), TARN_UPGRADE_E_REMOVE);
  EXPECT_LOGGED("warn", "upgrade cannot remove app home " + tarn_test::under_root(kHomeC) + ", error 20\n");
  EXPECT_EQ(tarn_test::read_file(outside + "/keep"), "mine");
  ASSERT_EQ(unlink(tarn_test::under_root(kHomeC).c_str()), 0);

  // When what must stay cannot be known, everything stays.
  tarn_test::make_apphome(kHomeC, true, true);
  ASSERT_TRUE(tarn_test::write_file(kJournalPath, std::string(64, '\0')));
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeC), TARN_UPGRADE_E_KEPT);
  EXPECT_LOGGED("warn", kept(kHomeC, "the upgrade journal cannot be read"));
  ASSERT_EQ(unlink(kJournalPath), 0);
  ASSERT_EQ(unlink(tarn_test::kRecordPath), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_upgrade_remove_apphome(kHomeC), TARN_UPGRADE_E_RECORD);
  EXPECT_LOGGED("warn", kept(kHomeC, "the record cannot be read"));
  EXPECT_TRUE(tarn_test::exists(tarn_test::under_root(kHomeC)));
}

TEST_F(UpgradeTest, UnreadableJournalLeavesTheRecordAndIsReported) {
  const std::string warning =
      std::string("upgrade journal ") + kJournalPath + " cannot be read, the record stands\n";
  const std::string damaged[] = {std::string(300, '\0'), "[upgrade]\nstate=tri",
                                 "[upgrade]\nstate=trial\nold_app_home=x\n", ""};
  for (const std::string &content : damaged) {
    ASSERT_TRUE(tarn_test::write_file(kJournalPath, content));
    tarn_test::clear_logs();
    const tarn_upgrade_verdict_t verdict = check_at(kStart);
    EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_NONE);
    EXPECT_STREQ(verdict.reason, "the upgrade journal cannot be read; the record stands");
    EXPECT_LOGGED("warn", warning);
    tarn_upgrade_status_t status;
    ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
    EXPECT_EQ(status.state, TARN_UPGRADE_STATE_UNREADABLE);
    EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_NO_TRIAL);
    EXPECT_EQ(recorded_home(), kHomeA);
  }
  // A new upgrade starts afresh from the record.
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_TRIAL);
  EXPECT_STREQ(status.old_apphome, kHomeA);
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------
// Failures of the steps, each with its line.

TEST_F(UpgradeTest, AJournalThatCannotBeSavedStopsBeginBeforeTheRecord) {
  // A directory at the journal's name: it cannot be read, nor replaced.
  ASSERT_TRUE(tarn_test::make_dirs(kJournalPath));
  EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_E_JOURNAL);
  EXPECT_LOGGED("warn", std::string("upgrade journal ") + kJournalPath + " cannot be read, the record stands\n");
  EXPECT_LOGGED("warn", tarn_test::format("upgrade journal %s cannot be saved, error %d\n", kJournalPath, EISDIR));
  EXPECT_EQ(recorded_home(), kHomeA);
}

TEST_F(UpgradeTest, AnOperationLockThatCannotBeTakenIsReported) {
  const std::string lock = std::string(tarn_test::kInstallRoot) + "/tarn_upgrade.lock";
  ASSERT_EQ(symlink("/tmp/elsewhere", lock.c_str()), 0);
  EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_E_LOCK);
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_LOCK);
  EXPECT_EQ(tarn_upgrade_rollback(nullptr), TARN_UPGRADE_E_LOCK);
  EXPECT_LOGGED("warn", tarn_test::format("upgrade lock %s cannot be taken, error %d\n", lock.c_str(), ELOOP));
  EXPECT_EQ(recorded_home(), kHomeA);
  EXPECT_FALSE(tarn_test::exists(kJournalPath));
}

TEST_F(UpgradeTest, ARecordThatCannotBeUpdatedLeavesRollingBackUntilItCan) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  // The record's lock file replaced by a link: tarn_apphome_update refuses.
  ASSERT_EQ(unlink(tarn_test::kRecordLockPath), 0);
  ASSERT_EQ(symlink("/tmp/elsewhere", tarn_test::kRecordLockPath), 0);
  EXPECT_EQ(tarn_upgrade_rollback("bad"), TARN_UPGRADE_E_RECORD);
  EXPECT_LOGGED("warn", "upgrade record cannot be updated, error 1\n");
  tarn_upgrade_status_t status;
  ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
  EXPECT_EQ(status.state, TARN_UPGRADE_STATE_ROLLING_BACK);
  ASSERT_EQ(unlink(tarn_test::kRecordLockPath), 0);
  EXPECT_EQ(tarn_upgrade_commit(), TARN_UPGRADE_E_NO_TRIAL);
  expect_rolled_back("bad");
}

TEST_F(UpgradeTest, ACheckWithoutTheHeartbeatTableLeavesTheTrial) {
  ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  tarn_test::clear_logs();
  const tarn_upgrade_verdict_t verdict = check_at(kStart + 1000, TARN_UPGRADE_E_HEARTBEAT);
  EXPECT_EQ(verdict.verdict, TARN_UPGRADE_VERDICT_RUNNING);
  EXPECT_STREQ(verdict.reason, "the heartbeat table cannot be read");
  EXPECT_LOGGED("warn", "upgrade heartbeat table cannot be read, error -2\n");
  EXPECT_EQ(recorded_home(), kHomeB);
  ASSERT_EQ(proc_heartbeat_init(1), 0);
}

TEST_F(UpgradeTest, BeginWithoutARecordIsRefused) {
  ASSERT_EQ(unlink(tarn_test::kRecordPath), 0);
  EXPECT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_E_RECORD);
  EXPECT_LOGGED("warn", "upgrade refused: the record cannot be read\n");
  EXPECT_FALSE(tarn_test::exists(kJournalPath));
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------
// Operations of several processes at once.

TEST_F(UpgradeTest, ConcurrentCommitsAndRollbacksEndTheTrialOnce) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(lay_out());
    ASSERT_EQ(tarn_upgrade_begin(kHomeB, nullptr, kTrial), TARN_UPGRADE_OK);
    tarn_test::Barrier start;
    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) {
      children.push_back(start.start([i] {
        const int32_t result = i % 2 == 0 ? tarn_upgrade_commit() : tarn_upgrade_rollback("race");
        return result == TARN_UPGRADE_OK ? 0 : result == TARN_UPGRADE_E_NO_TRIAL ? 1 : 2;
      }));
    }
    start.open();
    int ended = 0, refused = 0;
    for (pid_t child : children) {
      const int status = tarn_test::reap(child);
      ended += status == 0;
      refused += status == 1;
    }
    EXPECT_EQ(ended, 1) << "round " << round;
    EXPECT_EQ(refused, 5) << "round " << round;
    tarn_upgrade_status_t status;
    ASSERT_EQ(tarn_upgrade_status(&status), TARN_UPGRADE_OK);
    if (status.state == TARN_UPGRADE_STATE_COMMITTED) {
      EXPECT_EQ(recorded_home(), kHomeB);
    } else {
      EXPECT_EQ(status.state, TARN_UPGRADE_STATE_ROLLED_BACK);
      EXPECT_EQ(recorded_home(), kHomeA);
    }
  }
}

}  // namespace
