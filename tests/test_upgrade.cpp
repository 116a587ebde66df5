// Tests of the upgrade support: the exit information file, the agent id
// directory, the backup tool started as a real process, and single files
// copied or moved into place.
//
// Interposed below: the wall clock (tarn_time), the data root (tarn_log_dir,
// made to fail or to name another directory), popen and tarn_process_create
// (counted, made to fail) and tarn_file_copy_ex (a step run
// after the real copy, to change the files before the mode is copied).
// Lock and save failures are injected, and lock and save calls written
// down, by file_faults.h. Every test starts and ends with an empty install
// root, no configuration directory and no scratch files.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>

#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "file_faults.h"
#include "install_root.h"
#include "interpose.h"
#include "local_user.h"
#include "log_checks.h"
#include "manifests.h"
#include "time_limit.h"
#include "utils_internal.h"

// ---------------------------------------------------------------------------
// Interposed base and system functions: the real ones unless a test armed
// its own answer.

namespace {

struct Overrides {
  std::optional<long> now;
  bool no_data_root = false;
  std::optional<std::string> data_root;  // in place of the configured one
  int popen_error = 0;
  unsigned popen_calls = 0;
  int process_create_error = 0;
  unsigned process_create_calls = 0;
  std::function<void(const char *src, const char *dst)> after_copy;
};
Overrides g_overrides;

using tarn_test::next_definition;

}  // namespace

extern "C" {

long tarn_time(void) {
  if (g_overrides.now) return *g_overrides.now;
  return next_definition<long (*)(void)>("tarn_time")();
}

int tarn_log_dir(char *buf, size_t len) {
  if (g_overrides.no_data_root) {
    if (buf != nullptr && len > 0) buf[0] = '\0';
    return 0;
  }
  if (g_overrides.data_root) {
    snprintf(buf, len, "%s", g_overrides.data_root->c_str());
    return (int)g_overrides.data_root->size();
  }
  return next_definition<int (*)(char *, size_t)>("tarn_log_dir")(buf, len);
}

FILE *popen(const char *command, const char *type) {
  ++g_overrides.popen_calls;
  if (g_overrides.popen_error != 0) {
    errno = g_overrides.popen_error;
    return nullptr;
  }
  return next_definition<FILE *(*)(const char *, const char *)>("popen")(command, type);
}

int tarn_process_create(const char *command_line, int wait) {
  ++g_overrides.process_create_calls;
  if (g_overrides.process_create_error != 0) {
    errno = g_overrides.process_create_error;
    return -1;
  }
  return next_definition<int (*)(const char *, int)>("tarn_process_create")(command_line, wait);
}

int tarn_file_copy_ex(const char *src, const char *dst, int option) {
  const int ret =
      next_definition<int (*)(const char *, const char *, int)>("tarn_file_copy_ex")(src, dst, option);
  if (ret == 0 && g_overrides.after_copy) g_overrides.after_copy(src, dst);
  return ret;
}

}  // extern "C"

namespace {

using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::load_ini;
using tarn_test::make_dirs;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::ScratchDirectory;
using tarn_test::Sections;
using tarn_test::under_root;
using tarn_test::write_file;

// The data root as the base library reports it.
std::string data_root() {
  char buf[1024] = {0};
  return tarn_log_dir(buf, sizeof(buf)) > 0 ? std::string(buf) : std::string();
}
std::string config_dir() { return data_root() + "/velmora/TARN3_CFG"; }
std::string exit_info_path() { return config_dir() + "/tarn_exit_info.eni"; }
std::string exit_info_lock_path() { return exit_info_path() + ".lock"; }
std::string agent_id_dir() { return data_root() + "/velmora/TARN3_CFG/agent_id/"; }

void remove_tree(const std::string &path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

class UpgradeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    ASSERT_FALSE(data_root().empty());
  }
  void TearDown() override { reset(); }

  static void reset() {
    g_overrides = Overrides();
    tarn_test::reset_fakes();
    tarn_test::clear_file_faults();
    tarn_test::clear_install_root();
    remove_tree(config_dir());
  }
};

// ---------------------------------------------------------------------------
// The exit information.

TEST_F(UpgradeTest, AFirstExitInfoCreatesTheDirectoryAndAFileOfOnlyTheConfigSection) {
  ASSERT_FALSE(exists(config_dir()));
  g_overrides.now = 1700000123;
  EXPECT_EQ(tarn_update_exit_info(3), 0) << tarn_test::dump_logs();

  EXPECT_EQ(file_mode(config_dir()), 0777);
  const std::optional<Sections> sections = load_ini(exit_info_path());
  ASSERT_TRUE(sections.has_value()) << read_file(exit_info_path());
  EXPECT_EQ(*sections, (Sections{{"config", {{"exit_type", "3"}, {"exit_time", "1700000123"}}}}));
  // Read back through the ini object as the agent's processes read it.
  tarn_ini_t *ini = tarn_ini_file_load(exit_info_path().c_str());
  ASSERT_NE(ini, nullptr);
  EXPECT_EQ(tarn_ini_file_get_int(ini, "config", "exit_type", -1), 3);
  EXPECT_STREQ(tarn_ini_file_get(ini, "config", "exit_time"), "1700000123");
  tarn_ini_file_free(ini);

  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                "after load\n",
                format("update file %s is successed, exit type is %d\n", exit_info_path().c_str(), 3)}));
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << tarn_test::dump_logs();
}

TEST_F(UpgradeTest, ALaterExitInfoReplacesTheValuesAndKeepsEverythingElse) {
  ASSERT_TRUE(make_dirs(config_dir()));
  ASSERT_TRUE(write_file(exit_info_path(),
                         "[other]\nkey=value\n\n[config]\nexit_time=5\nkept=yes\nexit_type=1\n"));
  g_overrides.now = 42;
  EXPECT_EQ(tarn_update_exit_info(-7), 0);
  EXPECT_EQ(load_ini(exit_info_path()),
            (Sections{{"other", {{"key", "value"}}},
                      {"config", {{"exit_time", "42"}, {"kept", "yes"}, {"exit_type", "-7"}}}}));
  EXPECT_NOT_LOGGED("info", "after load\n");
  EXPECT_LOGGED("info",
                format("update file %s is successed, exit type is %d\n", exit_info_path().c_str(), -7));
}

TEST_F(UpgradeTest, AnExitInfoFileThatIsNotARegularFileIsStartedAfreshAtOnce) {
  ASSERT_TRUE(make_dirs(config_dir()));
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    ASSERT_TRUE(tarn_test::make_not_a_file(exit_info_path(), kind));
    tarn_test::clear_logs();
    g_overrides.now = 42;
    EXPECT_EQ(tarn_test::within_time_limit(
                  std::string("tarn_update_exit_info with a file that is ") + tarn_test::describe(kind),
                  [&] { return tarn_update_exit_info(2); }),
              0);
    EXPECT_EQ(tarn_test::messages("info"),
              (std::vector<std::string>{
                  "after load\n",
                  format("update file %s is successed, exit type is %d\n", exit_info_path().c_str(), 2)}));
    EXPECT_EQ(load_ini(exit_info_path()), (Sections{{"config", {{"exit_type", "2"}, {"exit_time", "42"}}}}));
    EXPECT_FALSE(tarn_test::is_not_a_file(exit_info_path(), kind));
  }
}

TEST_F(UpgradeTest, ExitInfoTakesTheFilesLockAroundTheLoadAndTheSave) {
  EXPECT_EQ(tarn_update_exit_info(0), 0);
  const std::string lock = exit_info_lock_path();
  EXPECT_EQ(tarn_test::file_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "save " + exit_info_path(),
                                      "release " + lock, "destroy " + lock}));
  EXPECT_FALSE(tarn_test::lock_is_held(lock));
}

TEST_F(UpgradeTest, ExitInfoWhoseLockCannotBeOpenedReturnsItsCode) {
  tarn_test::fail_flock_init(exit_info_lock_path(), EACCES);
  EXPECT_EQ(tarn_update_exit_info(1), EACCES);
  EXPECT_LOGGED("warn", format("flock init failed with errcode %d\n", EACCES));
  EXPECT_FALSE(exists(exit_info_path()));
  EXPECT_EQ(tarn_test::file_events(), (std::vector<std::string>{"init " + exit_info_lock_path()}));
}

TEST_F(UpgradeTest, ExitInfoWhoseLockCannotBeTakenReturnsItsCodeAndClosesTheLock) {
  tarn_test::fail_flock_acquire(exit_info_lock_path(), EDEADLK);
  EXPECT_EQ(tarn_update_exit_info(1), EDEADLK);
  EXPECT_LOGGED("warn", format("flock acquire failed with errcode %d\n", EDEADLK));
  EXPECT_FALSE(exists(exit_info_path()));
  const std::string lock = exit_info_lock_path();
  EXPECT_EQ(tarn_test::file_events(), (std::vector<std::string>{"init " + lock, "acquire " + lock,
                                                                "release " + lock, "destroy " + lock}));
}

TEST_F(UpgradeTest, ExitInfoThatCannotBeSavedReturnsTheSavesCodeAndLeavesThePlace) {
  // A directory where the file belongs: it neither loads nor is replaced.
  ASSERT_TRUE(make_dirs(exit_info_path()));
  EXPECT_EQ(tarn_update_exit_info(2), EISDIR);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("update %s failed, result is %d\n", exit_info_path().c_str(), EISDIR)}));
  EXPECT_LOGGED("info", "after load\n");
  EXPECT_NOT_LOGGED("info",
                    format("update file %s is successed, exit type is %d\n", exit_info_path().c_str(), 2));
  struct stat st;
  ASSERT_EQ(stat(exit_info_path().c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_FALSE(tarn_test::lock_is_held(exit_info_lock_path()));
}

// The configuration directory is open to every user: a link at the exit
// information file is not read (the file is started afresh and replaces
// the link), and a link at its lock file is not created through.
TEST_F(UpgradeTest, ExitInfoDoesNotReadThroughALinkAndReplacesIt) {
  const std::string secret = data_root() + "/velmora/secret.ini";
  ASSERT_TRUE(make_dirs(config_dir()));
  ASSERT_TRUE(write_file(secret, "[secret]\nkey=value\n", 0600));
  ASSERT_TRUE(make_dirs(config_dir()));
  ASSERT_EQ(symlink(secret.c_str(), exit_info_path().c_str()), 0);
  g_overrides.now = 1234;
  EXPECT_EQ(tarn_update_exit_info(5), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{"after load\n", format("update file %s is successed, exit type is %d\n",
                                                              exit_info_path().c_str(), 5)}));
  struct stat st;
  ASSERT_EQ(lstat(exit_info_path().c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(read_file(exit_info_path()), "[config]\nexit_type=5\nexit_time=1234\n");
  EXPECT_EQ(read_file(secret), "[secret]\nkey=value\n");
  EXPECT_EQ(file_mode(secret), 0600);
}

TEST_F(UpgradeTest, ExitInfoRefusesALinkAtItsLockFile) {
  const std::string created = data_root() + "/velmora/created";
  ASSERT_TRUE(make_dirs(config_dir()));
  ASSERT_EQ(symlink(created.c_str(), exit_info_lock_path().c_str()), 0);
  EXPECT_EQ(tarn_update_exit_info(1), ELOOP);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{format("flock init failed with errcode %d\n", ELOOP)}));
  EXPECT_FALSE(exists(created));
  EXPECT_FALSE(exists(exit_info_path()));
}

TEST_F(UpgradeTest, ExitInfoWithoutADataRootGivesUp) {
  g_overrides.no_data_root = true;
  EXPECT_EQ(tarn_update_exit_info(1), -1);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"get log dir is error\n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_TRUE(tarn_test::file_events().empty());
  g_overrides.no_data_root = false;
  EXPECT_FALSE(exists(config_dir()));
}

// ---------------------------------------------------------------------------
// The agent id directory.

std::string chmod_command() { return "chmod -R 777 " + agent_id_dir(); }

TEST_F(UpgradeTest, AgentIdDirIsCreatedOpenToAllUsers) {
  ASSERT_FALSE(exists(config_dir()));
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  EXPECT_EQ(file_mode(agent_id_dir()), 0777);
  EXPECT_EQ(file_mode(config_dir()), 0777);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("excute shell succed: [%s]\n", chmod_command().c_str())}));
  EXPECT_TRUE(tarn_test::messages("warn").empty());
}

TEST_F(UpgradeTest, AgentIdDirAndEverythingInItAreOpenedToAllUsers) {
  ASSERT_TRUE(make_dirs(agent_id_dir() + "sub"));
  ASSERT_EQ(chmod(agent_id_dir().c_str(), 0700), 0);
  ASSERT_EQ(chmod((agent_id_dir() + "sub").c_str(), 0700), 0);
  ASSERT_TRUE(write_file(agent_id_dir() + "sub/agent_id", "id", 0600));
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  // The command ran to its end before the call returned.
  EXPECT_EQ(file_mode(agent_id_dir()), 0777);
  EXPECT_EQ(file_mode(agent_id_dir() + "sub"), 0777);
  EXPECT_EQ(file_mode(agent_id_dir() + "sub/agent_id"), 0777);
  EXPECT_LOGGED("info", format("excute shell succed: [%s]\n", chmod_command().c_str()));
}

TEST_F(UpgradeTest, AgentIdDirIsZeroAlsoWhenThePermissionCommandCannotStart) {
  ASSERT_TRUE(make_dirs(agent_id_dir()));
  ASSERT_EQ(chmod(agent_id_dir().c_str(), 0700), 0);
  ASSERT_TRUE(write_file(agent_id_dir() + "agent_id", "id", 0600));
  g_overrides.popen_error = EMFILE;
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("excute shell failed: [%s]\n", chmod_command().c_str())}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_EQ(file_mode(agent_id_dir()), 0700);
  EXPECT_EQ(file_mode(agent_id_dir() + "agent_id"), 0600);
}

// Made on a machine without them: the configuration directory and the
// agent id directory are shared, their new parents are 0755.
TEST_F(UpgradeTest, AgentIdDirSharesOnlyTheDirectoriesItNames) {
  remove_tree(data_root() + "/velmora");
  const mode_t old_mask = umask(0);
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  umask(old_mask);
  EXPECT_EQ(file_mode(data_root() + "/velmora"), 0755);
  EXPECT_EQ(file_mode(config_dir()), 0777);
  EXPECT_EQ(file_mode(agent_id_dir()), 0777);
}

// The command follows a link named on its command line: a link at the
// agent id directory, or a directory that another user made, is refused
// and nothing it names changes.
TEST_F(UpgradeTest, AgentIdDirThatIsALinkOrAnotherUsersIsNotOpened) {
  const std::string tree = data_root() + "/velmora/private";
  ASSERT_TRUE(make_dirs(tree + "/sub"));
  ASSERT_EQ(chmod(tree.c_str(), 0700), 0);
  ASSERT_TRUE(write_file(tree + "/sub/key", "key", 0600));
  ASSERT_TRUE(make_dirs(config_dir()));
  const std::string link = config_dir() + "/agent_id";
  const std::string refusal =
      format("agent id dir %s is not a directory of root or of this user, not opened to all users\n",
             agent_id_dir().c_str());
  ASSERT_EQ(symlink(tree.c_str(), link.c_str()), 0);
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{refusal}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_EQ(file_mode(tree), 0700);
  EXPECT_EQ(file_mode(tree + "/sub/key"), 0600);

  ASSERT_EQ(unlink(link.c_str()), 0);
  ASSERT_EQ(mkdir(link.c_str(), 0700), 0);
  ASSERT_EQ(chown(link.c_str(), 65534, 65534), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{refusal}));
  EXPECT_EQ(file_mode(link), 0700);
}

// With an agent group, the tree is left open to that group only, and a
// link inside it is not followed.
TEST_F(UpgradeTest, AgentIdDirWithAnAgentGroupIsOpenToThatGroupOnly) {
  ASSERT_TRUE(make_dirs(agent_id_dir() + "sub"));
  ASSERT_TRUE(write_file(agent_id_dir() + "sub/agent_id", "id", 0600));
  const std::string outside = data_root() + "/velmora/outside";
  ASSERT_TRUE(write_file(outside, "outside", 0600));
  ASSERT_EQ(symlink(outside.c_str(), (agent_id_dir() + "link").c_str()), 0);
  const tarn_test::BaseConfigFile config(tarn_test::agent_group_config("nogroup"));
  ASSERT_TRUE(config.ok());
  const tarn_test::ChildOutcome outcome =
      tarn_test::run_in_child_with_time_limit(30, [] { return set_tarn_agentid_dir(); });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_EQ(outcome.lines.size(), 1u);
  EXPECT_EQ(outcome.lines[0].word, "info");
  EXPECT_EQ(outcome.lines[0].message, format("excute shell succed: [%s]\n", chmod_command().c_str()));
  for (const std::string &path : {agent_id_dir(), agent_id_dir() + "sub", agent_id_dir() + "sub/agent_id"}) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0770u) << path;
    EXPECT_EQ(st.st_gid, 65534u) << path;
  }
  EXPECT_EQ(file_mode(outside), 0600);
}

TEST_F(UpgradeTest, AgentIdDirWithoutADataRootIsZeroAndDoesNothing) {
  g_overrides.no_data_root = true;
  EXPECT_EQ(set_tarn_agentid_dir(), 0);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"set_tarn_agentid_dir failed! \n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  g_overrides.no_data_root = false;
  EXPECT_FALSE(exists(config_dir()));
}

// A data root through which the command line, which names the directory
// without quotes, would say more than the directory.
TEST_F(UpgradeTest, AgentIdDirOfADataRootThatTheShellWouldReadRunsNoCommand) {
  const std::string base = "/tmp/tarn_data_root";
  const std::pair<std::string, std::string> roots[] = {
      {"/with blank", "/with blank"},  {"/x;touch y", "/x;touch y"}, {"/x$(id)", "/x$(id)"},
      {"/x`id`", "/x`id`"},           {"/x|y", "/x|y"},             {"/x*", "/x*"},
      {"/x\ny", "/x\\x0ay"}};
  for (const auto &root : roots) {
    tarn_test::clear_logs();
    g_overrides.popen_calls = 0;
    g_overrides.data_root = base + root.first;
    EXPECT_EQ(set_tarn_agentid_dir(), 0) << root.first;
    EXPECT_EQ(g_overrides.popen_calls, 0u) << root.first;
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{format("refused text for a shell command: [%s%s/velmora/TARN3_CFG/agent_id/]\n",
                                               base.c_str(), root.second.c_str())}));
    EXPECT_TRUE(tarn_test::messages("info").empty()) << root.first;
  }
  g_overrides.data_root.reset();
  remove_tree(base);
}

// ---------------------------------------------------------------------------
// The backup tool.

constexpr char kArgvRecord[] = "/tmp/tarn_backup_argv";

// A backup tool in the app home kHomeA (recorded as the app home) that
// writes down its arguments, one a line in brackets after their count, and
// moves the whole record into place at once.
void install_backup_tool() {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  const std::string script = std::string("#!/bin/sh\nout=") + kArgvRecord +
                             "\n{ echo \"$#\"; for a in \"$@\"; do echo \"[$a]\"; done; } > \"$out.tmp\" "
                             "&& mv \"$out.tmp\" \"$out\"\n";
  ASSERT_TRUE(make_dirs(under_root(kHomeA) + "/bin"));
  ASSERT_TRUE(write_file(under_root(kHomeA) + "/bin/tarn_backup", script, 0755));
}

// Waits, within a bound, for the tool's record to appear.
bool wait_for_argv_record() {
  const int64_t deadline = tarn_test::monotonic_ms() + 20000;
  while (!exists(kArgvRecord)) {
    if (tarn_test::monotonic_ms() > deadline) return false;
    usleep(2000);
  }
  return true;
}

class BackupTest : public UpgradeTest {
 protected:
  void SetUp() override {
    UpgradeTest::SetUp();
    unlink(kArgvRecord);
  }
  void TearDown() override {
    unlink(kArgvRecord);
    UpgradeTest::TearDown();
  }
};

TEST_F(BackupTest, TheToolGetsDashBAndTheArgumentAsOneWordBlanksAndAll) {
  install_backup_tool();
  const char *argument = "/var/backup dir/with  two blanks ";
  EXPECT_EQ(tarn_backup_by_subprocess(argument), 0) << tarn_test::dump_logs();
  ASSERT_TRUE(wait_for_argv_record());
  EXPECT_EQ(read_file(kArgvRecord), std::string("2\n[-b]\n[") + argument + "]\n");
  const std::string tool = under_root(kHomeA) + "/bin/tarn_backup";
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                "start backup by subprocess\n",
                format("backup cmd: bash -c '\"%s\" -b \"%s\"'\n", tool.c_str(), argument)}));
  EXPECT_TRUE(tarn_test::messages("warn").empty());
}

TEST_F(BackupTest, ANullOrEmptyArgumentIsRefused) {
  install_backup_tool();
  for (const char *argument : {static_cast<const char *>(nullptr), ""}) {
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_backup_by_subprocess(argument), 1);
    EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{"start backup by subprocess\n"}));
    EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"invalid parameter\n"}));
  }
}

TEST_F(BackupTest, WithoutARecordedAppHomeNothingStarts) {
  EXPECT_EQ(tarn_backup_by_subprocess("/var/backup"), 1);
  EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{"start backup by subprocess\n"}));
  EXPECT_EQ(tarn_test::messages("warn").back(), "Failed to obtain tarn main apphome path\n");
}

TEST_F(BackupTest, ACommandLineThatCannotBeStartedIsOneWithErrno) {
  install_backup_tool();
  g_overrides.process_create_error = EAGAIN;
  EXPECT_EQ(tarn_backup_by_subprocess("/var/backup"), 1);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("Starting child process for backup faile. error code %d\n", EAGAIN)}));
  EXPECT_FALSE(exists(kArgvRecord));
}

TEST_F(BackupTest, AnArgumentThatCouldEndTheQuotesIsRefusedAndNothingStarts) {
  install_backup_tool();
  const std::pair<std::string, std::string> arguments[] = {
      {"it's", "it's"}, {"a\"b", "a\"b"}, {"$(id)", "$(id)"}, {"`id`", "`id`"},
      {"a\\b", "a\\b"}, {"a\nb", "a\\x0ab"}, {"a\x1b", "a\\x1b"}};
  for (const auto &argument : arguments) {
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_backup_by_subprocess(argument.first.c_str()), 1) << argument.first;
    EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{"start backup by subprocess\n"}));
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{format("refused text for a shell command: [%s]\n", argument.second.c_str())}));
  }
  EXPECT_EQ(g_overrides.process_create_calls, 0u);
  EXPECT_FALSE(exists(kArgvRecord));
}

TEST_F(BackupTest, ARecordedAppHomeThatCouldEndTheQuotesIsRefusedAndNothingStarts) {
  // A single directory name (no '/'), so that it passes the record's own
  // check and only the check of shell text stops it.
  const std::string name = "x$(touch tarn_pwned)";
  ASSERT_TRUE(write_file(kRecordPath, record_text(name)));
  EXPECT_EQ(tarn_backup_by_subprocess("/var/backup"), 1);
  EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{"start backup by subprocess\n"}));
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("refused text for a shell command: [%s/bin/tarn_backup]\n",
                                             under_root(name).c_str())}));
  EXPECT_EQ(g_overrides.process_create_calls, 0u);
  EXPECT_FALSE(exists("tarn_pwned"));
}

TEST_F(BackupTest, AMissingToolIsNotSeenByTheCaller) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  // bash starts and fails on its own.
  EXPECT_EQ(tarn_backup_by_subprocess("/var/backup"), 0);
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << tarn_test::dump_logs();
}

// ---------------------------------------------------------------------------
// Copying and moving files into place.

class PlaceFileTest : public UpgradeTest {
 protected:
  ScratchDirectory scratch_{"tarn_upgrade"};
  std::string src() const { return scratch_ / "src"; }
  void write_src(const std::string &content, mode_t mode) {
    ASSERT_TRUE(write_file(src(), content, mode));
  }
};

dev_t device_of(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_dev : (dev_t)-1;
}

TEST_F(PlaceFileTest, CopyToCreatesTheDirectoriesAndKeepsTheSourcesMode) {
  write_src("payload", 0751);
  const std::string dst = under_root("a/b/c/file");
  EXPECT_EQ(tarn_copy_file_to(src().c_str(), dst.c_str()), 0);
  EXPECT_EQ(read_file(dst), "payload");
  EXPECT_EQ(file_mode(dst), 0751);
  EXPECT_EQ(file_mode(under_root("a")), 0755);
  EXPECT_EQ(file_mode(under_root("a/b/c")), 0755);
  EXPECT_EQ(read_file(src()), "payload");
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, CopyToReplacesAnExistingDestination) {
  write_src("new", 0640);
  const std::string dst = under_root("file");
  ASSERT_TRUE(write_file(dst, "old content", 0777));
  EXPECT_EQ(tarn_copy_file_to(src().c_str(), dst.c_str()), 0);
  EXPECT_EQ(read_file(dst), "new");
  EXPECT_EQ(file_mode(dst), 0640);
}

TEST_F(PlaceFileTest, CopyToOfAMissingSourceLogsErrnoAndCreatesNoFile) {
  const std::string missing = scratch_ / "missing";
  const std::string dst = under_root("dir/file");
  EXPECT_EQ(tarn_copy_file_to(missing.c_str(), dst.c_str()), ENOENT);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("copy file failed from [%s] to [%s], errcode: %d\n",
                                             missing.c_str(), dst.c_str(), ENOENT)}));
  EXPECT_FALSE(exists(dst));
}

TEST_F(PlaceFileTest, CopyToWhoseDirectoryCannotBeMadeSaysSoAndFails) {
  write_src("payload", 0644);
  ASSERT_TRUE(write_file(under_root("plain"), "a file in the way"));
  const std::string dst = under_root("plain/sub/file");
  EXPECT_EQ(tarn_copy_file_to(src().c_str(), dst.c_str()), ENOTDIR);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("create dest dir [%s] failed\n", under_root("plain/sub").c_str()),
                format("copy file failed from [%s] to [%s], errcode: %d\n", src().c_str(), dst.c_str(),
                       ENOTDIR)}));
  EXPECT_EQ(read_file(under_root("plain")), "a file in the way");
}

TEST_F(PlaceFileTest, CopyToFailureOfTheCopyItselfIsReturned) {
  write_src("payload", 0644);
  const std::string dst = under_root("file");
  ASSERT_TRUE(write_file(dst, "old"));
  tarn_test::fail_copy(dst, ENOSPC);
  EXPECT_EQ(tarn_copy_file_to(src().c_str(), dst.c_str()), ENOSPC);
  EXPECT_LOGGED("warn", format("copy file failed from [%s] to [%s], errcode: %d\n", src().c_str(),
                               dst.c_str(), ENOSPC));
  EXPECT_EQ(read_file(dst), "old");
}

TEST_F(PlaceFileTest, CopyToAndMoveToRefuseNullAndEmptyPathsAndTouchNothing) {
  write_src("payload", 0644);
  const std::string dst = under_root("dir/file");
  for (auto place : {tarn_copy_file_to, tarn_move_file_to}) {
    EXPECT_EQ(place(nullptr, dst.c_str()), -1);
    EXPECT_EQ(place(src().c_str(), nullptr), -1);
    EXPECT_EQ(place("", dst.c_str()), 1);
    EXPECT_EQ(place(src().c_str(), ""), 1);
  }
  EXPECT_FALSE(exists(under_root("dir")));
  EXPECT_EQ(read_file(src()), "payload");
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, MoveToWithinOneFileSystemRenames) {
  write_src("payload", 0700);
  struct stat before;
  ASSERT_EQ(stat(src().c_str(), &before), 0);
  const std::string dst = scratch_ / "x/y/moved";
  EXPECT_EQ(tarn_move_file_to(src().c_str(), dst.c_str()), 0);
  EXPECT_FALSE(exists(src()));
  EXPECT_EQ(read_file(dst), "payload");
  struct stat after;
  ASSERT_EQ(stat(dst.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(file_mode(scratch_ / "x/y"), 0755);
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, MoveToAcrossFileSystemsCopiesAndRemovesTheSource) {
  write_src("payload", 0750);
  // /tmp and the install root are separate file systems in the sandbox.
  ASSERT_NE(device_of(scratch_.path()), device_of(tarn_test::kInstallRoot));
  const std::string dst = under_root("bin/moved");
  ASSERT_TRUE(make_dirs(under_root("bin")));
  ASSERT_TRUE(write_file(dst, "old"));
  EXPECT_EQ(tarn_move_file_to(src().c_str(), dst.c_str()), 0) << tarn_test::dump_logs();
  EXPECT_FALSE(exists(src()));
  EXPECT_EQ(read_file(dst), "payload");
  EXPECT_EQ(file_mode(dst), 0750);
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, MoveToOfAMissingSourceLogsErrno) {
  const std::string missing = scratch_ / "missing";
  const std::string dst = under_root("file");
  EXPECT_EQ(tarn_move_file_to(missing.c_str(), dst.c_str()), ENOENT);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("move file failed from [%s] to [%s], errcode: %d\n",
                                             missing.c_str(), dst.c_str(), ENOENT)}));
  EXPECT_FALSE(exists(dst));
}

TEST_F(PlaceFileTest, MoveToWhoseDirectoryCannotBeMadeSaysSoAndLeavesTheSource) {
  write_src("payload", 0644);
  ASSERT_TRUE(write_file(scratch_ / "plain", "a file in the way"));
  const std::string dst = scratch_ / "plain/file";
  EXPECT_EQ(tarn_move_file_to(src().c_str(), dst.c_str()), ENOTDIR);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("create dest dir [%s] failed\n", (scratch_ / "plain").c_str()),
                format("move file failed from [%s] to [%s], errcode: %d\n", src().c_str(), dst.c_str(),
                       ENOTDIR)}));
  EXPECT_EQ(read_file(src()), "payload");
}

TEST_F(PlaceFileTest, KeepModeCopiesAndKeepsTheModeWithoutDirectoriesOrMessages) {
  write_src("payload", 04751);
  const std::string dst = scratch_ / "dst";
  ASSERT_TRUE(write_file(dst, "old", 0600));
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), TARN_FILE_COPY_REPLACE), 0);
  EXPECT_EQ(read_file(dst), "payload");
  EXPECT_EQ(file_mode(dst), 04751);
  // No directory is made for it.
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), (scratch_ / "none/dst").c_str(), 0), ENOENT);
  EXPECT_FALSE(exists(scratch_ / "none"));
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, KeepModeWithNoReplaceLeavesAnExistingDestination) {
  write_src("payload", 0644);
  const std::string dst = scratch_ / "dst";
  ASSERT_TRUE(write_file(dst, "old", 0600));
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), TARN_FILE_COPY_NO_REPLACE), EEXIST);
  EXPECT_EQ(read_file(dst), "old");
  EXPECT_EQ(file_mode(dst), 0600);
  const std::string fresh = scratch_ / "fresh";
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), fresh.c_str(), TARN_FILE_COPY_NO_REPLACE), 0);
  EXPECT_EQ(read_file(fresh), "payload");
  EXPECT_EQ(tarn_test::list_directory(scratch_.path()),
            (std::set<std::string>{"src", "dst", "fresh"}));
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, KeepModeReturnsTheCopysErrorAsItIs) {
  const std::string dst = scratch_ / "dst";
  EXPECT_EQ(tarn_copy_file_keep_mode((scratch_ / "missing").c_str(), dst.c_str(), 0), ENOENT);
  write_src("payload", 0644);
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), 7), EINVAL);
  EXPECT_EQ(tarn_copy_file_keep_mode(nullptr, dst.c_str(), 0), EINVAL);
  EXPECT_FALSE(exists(dst));
  EXPECT_NO_LINES();
}

TEST_F(PlaceFileTest, KeepModeIsOneWhenTheSourceIsGoneBeforeItsModeIsRead) {
  write_src("payload", 0640);
  const std::string dst = scratch_ / "dst";
  g_overrides.after_copy = [](const char *src, const char *) { unlink(src); };
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), 0), 1);
  EXPECT_EQ(read_file(dst), "payload");
}

TEST_F(PlaceFileTest, KeepModeIsOneWhenTheDestinationIsGoneBeforeItsModeIsSet) {
  write_src("payload", 0640);
  const std::string dst = scratch_ / "dst";
  g_overrides.after_copy = [](const char *, const char *dst) { unlink(dst); };
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), 0), 1);
  EXPECT_FALSE(exists(dst));
}

// A link put at dst between the copy and the mode's copy is not followed:
// the file it names keeps its mode.
TEST_F(PlaceFileTest, KeepModeDoesNotGiveTheModeThroughALinkPutAtTheDestination) {
  write_src("payload", 0777);
  const std::string dst = scratch_ / "dst";
  const std::string victim = scratch_ / "victim";
  ASSERT_TRUE(write_file(victim, "victim", 0600));
  g_overrides.after_copy = [victim](const char *, const char *dst) {
    unlink(dst);
    if (symlink(victim.c_str(), dst) != 0) abort();
  };
  EXPECT_EQ(tarn_copy_file_keep_mode(src().c_str(), dst.c_str(), 0), 1);
  EXPECT_EQ(file_mode(victim), 0600);
  EXPECT_NO_LINES();
}

// A link at the source is refused by the copy (ELOOP), with the copy's
// message; nothing reaches dst.
TEST_F(PlaceFileTest, CopyToRefusesALinkAtTheSource) {
  const std::string secret = scratch_ / "secret";
  ASSERT_TRUE(write_file(secret, "secret", 0600));
  const std::string link = scratch_ / "link";
  ASSERT_EQ(symlink(secret.c_str(), link.c_str()), 0);
  const std::string dst = scratch_ / "dst";
  errno = 0;
  EXPECT_EQ(tarn_copy_file_to(link.c_str(), dst.c_str()), ELOOP);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("copy file failed from [%s] to [%s], errcode: %d\n", link.c_str(), dst.c_str(), ELOOP)}));
  EXPECT_FALSE(exists(dst));
}

}  // namespace
