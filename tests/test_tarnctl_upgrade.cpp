// tarnctl upgrade as its users run it: the built program is started as a
// child (in the test's sandbox, tarnctl_run.h) against app homes, a record
// and a heartbeat table made here; its standard output, standard error and
// exit code are checked, and every --json answer is validated against its
// schema in docs/tarnctl.md.

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include <tarn_heartbeat.h>

#include "files.h"
#include "install_root.h"
#include "tarnctl_run.h"

namespace {

using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::Outcome;
using tarn_test::schema_problems;
using tarn_test::tarnctl;

class TarnctlUpgradeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_test::clear_install_root();
    for (const char *home : {kHomeA, kHomeB}) {
      tarn_test::make_apphome(home, true, true);
      const std::string services = tarn_test::under_root(home) + "/config/services/TARN";
      ASSERT_TRUE(tarn_test::make_dirs(services));
      ASSERT_TRUE(tarn_test::write_file(services + "/tarn_service.eni", "[service]\n"));
    }
    ASSERT_TRUE(tarn_test::write_file(tarn_test::kRecordPath, tarn_test::record_text(kHomeA)));
    ASSERT_TRUE(tarn_test::write_file(tarn_test::kBackupPath, tarn_test::record_text(kHomeA)));
    ASSERT_EQ(proc_heartbeat_init(0), 0);
    proc_heartbeat_info_t info{};
    info.pid = getpid();
    info.interval = 30;
    info.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
    ASSERT_GE(add_proc_heartbeat(&info), 0);
  }
  void TearDown() override {
    proc_heartbeat_deinit(true);
    tarn_test::clear_install_root();
  }

  // Runs a subcommand with --json; expects status and a valid object.
  std::string json(const std::vector<std::string> &words, const std::string &command, int status) {
    std::vector<std::string> args = words;
    args.push_back("--json");
    const Outcome outcome = tarnctl(args);
    EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
    EXPECT_EQ(schema_problems(command, outcome.out), "") << outcome.out;
    return outcome.out;
  }
};

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST_F(TarnctlUpgradeTest, BeginCheckRollbackAndStatus) {
  std::string out = json({"upgrade", "status"}, "upgrade status", 0);
  EXPECT_TRUE(has(out, "\"state\": \"none\"")) << out;

  out = json({"upgrade", "begin", kHomeB, "60"}, "upgrade begin", 0);
  EXPECT_TRUE(has(out, "\"ok\": true")) << out;
  Outcome text = tarnctl({"upgrade", "status"});
  EXPECT_EQ(text.status, 0);
  EXPECT_TRUE(has(text.out, "state: trial\n")) << text.out;
  EXPECT_TRUE(has(text.out, std::string("previous app home: ") + kHomeA + "\n")) << text.out;
  EXPECT_TRUE(has(text.out, std::string("new app home: ") + kHomeB + "\n")) << text.out;
  EXPECT_TRUE(has(text.out, "trial: 60 s\n")) << text.out;

  out = json({"upgrade", "check"}, "upgrade check", 0);
  EXPECT_TRUE(has(out, "\"verdict\": \"running\"")) << out;

  text = tarnctl({"upgrade", "begin", kHomeB, "60"});
  EXPECT_EQ(text.status, 1);
  EXPECT_EQ(text.err, "tarnctl: upgrade begin: upgrade refused: an upgrade is on trial\n");

  out = json({"upgrade", "rollback", "operator saw errors"}, "upgrade rollback", 0);
  EXPECT_TRUE(has(out, "\"ok\": true")) << out;
  out = json({"upgrade", "status"}, "upgrade status", 0);
  EXPECT_TRUE(has(out, "\"state\": \"rolled back\"")) << out;
  EXPECT_TRUE(has(out, "\"reason\": \"operator saw errors\"")) << out;

  const Outcome refused = tarnctl({"upgrade", "commit", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "tarnctl: upgrade commit: no upgrade is on trial\n");
  EXPECT_TRUE(has(refused.out, "\"error\": \"no upgrade is on trial\"")) << refused.out;
  EXPECT_EQ(schema_problems("upgrade commit", refused.out), "");
}

TEST_F(TarnctlUpgradeTest, BeginAndCommit) {
  json({"upgrade", "begin", kHomeB, "60"}, "upgrade begin", 0);
  const std::string out = json({"upgrade", "commit"}, "upgrade commit", 0);
  EXPECT_TRUE(has(out, "\"ok\": true")) << out;
  const Outcome text = tarnctl({"upgrade", "status"});
  EXPECT_TRUE(has(text.out, "state: committed\n")) << text.out;
  EXPECT_TRUE(has(text.out, "last verdict: committed by request\n")) << text.out;
}

TEST_F(TarnctlUpgradeTest, BadTrialLengthIsAUsageError) {
  const Outcome outcome = tarnctl({"upgrade", "begin", kHomeB, "0", "--json"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "tarnctl: upgrade begin: trial length 0 is not a number of seconds from 1 to 604800\n");
  EXPECT_EQ(schema_problems("upgrade begin", outcome.out), "");
}

TEST_F(TarnctlUpgradeTest, UnreadableJournalIsReportedNotFatal) {
  ASSERT_TRUE(tarn_test::write_file("/usr/share/velmora/TARN/tarn_upgrade.ini", std::string(64, '\0')));
  const std::string out = json({"upgrade", "status"}, "upgrade status", 0);
  EXPECT_TRUE(has(out, "\"state\": \"unreadable\"")) << out;
  const std::string check = json({"upgrade", "check"}, "upgrade check", 0);
  EXPECT_TRUE(has(check, "\"reason\": \"the upgrade journal cannot be read; the record stands\"")) << check;
}

}  // namespace
