// File locks against the local attacker. Lock files are open to every user,
// and flock(2) works on any open descriptor: the user can hold the record's
// lock as long as they like. The root calls that wait for it must give up
// after the configured wait with their lock-failure results.

#include <errno.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child_logs.h"
#include "child_process.h"
#include "files.h"
#include "install_root.h"
#include "log_checks.h"
#include "reset_test.h"
#include "tarn_apphome.h"

namespace {

using tarn_test::format;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kInstallRoot;
using tarn_test::kRecordLockPath;
using tarn_test::kRecordPath;
using tarn_test::record_text;
using tarn_test::write_file;

// What a root call made in a forked child (which reads the one-second lock
// wait afresh) returned, what it logged, and how long it took.
struct BoundedCall {
  tarn_test::ChildOutcome outcome;
  int64_t milliseconds = 0;
  std::vector<std::string> lines() const {
    std::vector<std::string> got;
    for (const tarn_test::LogLine &line : outcome.lines) got.push_back(line.word + " " + line.message);
    return got;
  }
};

// Results are passed as exit statuses, offset so that -1 survives.
constexpr int kResultOffset = 10;

BoundedCall call_while_held(const std::function<int()> &call) {
  BoundedCall result;
  const int64_t start = tarn_test::monotonic_ms();
  result.outcome = tarn_test::run_in_child_with_time_limit(60, [&] { return call() + kResultOffset; });
  result.milliseconds = tarn_test::monotonic_ms() - start;
  return result;
}

// The wait was bounded: it lasted at least one configured wait, and ended.
void expect_bounded(const BoundedCall &call, int waits) {
  EXPECT_TRUE(call.outcome.exited) << "signal " << call.outcome.signal;
  EXPECT_GE(call.milliseconds, 1000 * waits);
  EXPECT_LT(call.milliseconds, 10000);
}

class LockAttackTest : public tarn_test::ResetTest<tarn_test::clear_install_root> {
 protected:
  // The agent's record and backup naming an operational app home, their
  // lock files created open to all as the agent creates them, and a lock
  // wait of one second.
  void SetUp() override {
    ResetTest::SetUp();
    ASSERT_TRUE(tarn_test::lay_out_open_record(kHomeA));
    ASSERT_TRUE(write_file(kRecordLockPath, "", 0666));
    ASSERT_EQ(0, chmod(kRecordLockPath, 0666));
    ASSERT_TRUE(config_.ok());
  }

  const std::string acquire_failed_ = format("flock acquire failed, errcode is %d\n", ETIMEDOUT);

 private:
  tarn_test::BaseConfigFile config_{tarn_test::kOneSecondLockWait};
};

TEST_F(LockAttackTest, AnUpdateGivesUpOnALockTheUserHolds) {
  tarn_test::ForeignLock user(kRecordLockPath, true);
  ASSERT_TRUE(user.held());
  const BoundedCall call = call_while_held([] { return tarn_apphome_update(kHomeB, nullptr); });
  expect_bounded(call, 1);
  EXPECT_EQ(call.outcome.exit_status, 1 + kResultOffset);
  EXPECT_EQ(call.lines(), (std::vector<std::string>{"warn " + acquire_failed_}));
  EXPECT_EQ(tarn_test::read_file(kRecordPath), record_text(kHomeA));
  EXPECT_EQ(tarn_test::read_file(kBackupPath), record_text(kHomeA));
}

TEST_F(LockAttackTest, AReadGivesUpOnALockTheUserHolds) {
  tarn_test::ForeignLock user(kRecordLockPath, true);
  ASSERT_TRUE(user.held());
  const BoundedCall call = call_while_held([] {
    char name[64] = "untouched";
    const int32_t result = tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0);
    return std::string(name) == "untouched" ? result : 50;
  });
  expect_bounded(call, 1);
  EXPECT_EQ(call.outcome.exit_status, 1 + kResultOffset);
  EXPECT_EQ(call.lines(), (std::vector<std::string>{"warn " + acquire_failed_}));
}

// Reduction waits for the record's lock twice, in the validity check and in
// the restore from the backup, gives up on both, and then finds no service
// to scan for.
TEST_F(LockAttackTest, ReductionGivesUpOnALockTheUserHolds) {
  tarn_test::ForeignLock user(kRecordLockPath, true);
  ASSERT_TRUE(user.held());
  const BoundedCall call = call_while_held([] { return tarn_apphome_reduction_file(); });
  expect_bounded(call, 2);
  EXPECT_EQ(call.outcome.exit_status, -1 + kResultOffset);
  const std::string service = std::string(kInstallRoot) + "/tarn_service";
  EXPECT_EQ(call.lines(),
            (std::vector<std::string>{
                "warn " + acquire_failed_,
                "warn tarn_apphome_get_apphome get apphome is failed\n",
                "warn " + format("tarn_flock_acquire %s failed\n", kRecordLockPath),
                "warn " + format("error occurd when write [%s] to [%s]\n", kBackupPath, kRecordPath),
                "warn " + format("file %s is no exist\n", service.c_str()),
                "warn get tarn_service version is failed, errcode is -1, service ver str is \n"}));
  EXPECT_EQ(tarn_test::read_file(kRecordPath), record_text(kHomeA));
}

}  // namespace
