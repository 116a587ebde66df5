// Files and directories that the agent shares against the local attacker.
// The flags directory of an app home and the configuration directory are
// open to every user, so anything found in them may be the attacker's: a
// link there must never make a root call create, truncate, read or change
// the mode of what it names.

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_log.h>

#include "child_logs.h"
#include "files.h"
#include "install_root.h"
#include "fchmod_hook.h"
#include "local_user.h"
#include "log_checks.h"
#include "reset_test.h"
#include "tarn_apphome.h"
#include "tarn_apphome_internal.h"
#include "utils_internal.h"

namespace {

using tarn_test::as_local_user;
using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::kHomeA;
using tarn_test::read_file;
using tarn_test::under_root;
using tarn_test::write_file;

std::string data_root() {
  char buf[1024] = {0};
  return tarn_log_dir(buf, sizeof(buf)) > 0 ? std::string(buf) : std::string();
}
std::string velmora_dir() { return data_root() + "/velmora"; }

void clear_data_dir() {
  std::error_code ec;
  std::filesystem::remove_all(velmora_dir(), ec);
}

class FilesAttackTest : public tarn_test::ResetTest<tarn_test::clear_install_root, clear_data_dir> {
 protected:
  void SetUp() override {
    ResetTest::SetUp();
    ASSERT_EQ(0, chmod(tarn_test::kInstallRoot, 0755));
    ASSERT_FALSE(data_root().empty());
    tarn_test::before_fchmod() = nullptr;
  }
  void TearDown() override {
    tarn_test::before_fchmod() = nullptr;
    ResetTest::TearDown();
  }

  // An app home whose flags directory root made, open to every user.
  std::string app_home() {
    const std::string home = under_root(kHomeA);
    EXPECT_EQ(0, tarn_apphome_create_flag(home.c_str(), "flag_operational_backup"));
    tarn_test::clear_logs();
    return home;
  }
};

std::string flags_of(const std::string &home) { return home + "/config/flags"; }

// The user plants a symbolic link at path naming target.
void plant_link(const std::string &target, const std::string &path) {
  ASSERT_EQ(0, as_local_user([&] { return symlink(target.c_str(), path.c_str()) == 0 ? 0 : 1; }));
}

// What the user gets from opening path for reading: 0 or the errno.
int user_open_error(const std::string &path) {
  return as_local_user([&] {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd >= 0) return 0;
    return errno;
  });
}

TEST_F(FilesAttackTest, ADanglingLinkAtTheSpareFlagDoesNotMakeRootCreateItsTarget) {
  const std::string home = app_home();
  const std::string spare = flags_of(home) + "/flag_operational_backup";
  ASSERT_EQ(0, unlink(spare.c_str()));
  const std::string target = under_root("planted_by_user");
  plant_link(target, spare);

  EXPECT_EQ(-1, tarn_apphome_create_flag(home.c_str(), "flag_operational_backup"));
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"flag file " + spare + " create failed\n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_FALSE(exists(target));
}

TEST_F(FilesAttackTest, ALinkAtTheSpareToARootOnlyFileIsNotCopiedForTheUser) {
  const std::string home = app_home();
  const std::string spare = flags_of(home) + "/flag_operational_backup";
  const std::string flag = flags_of(home) + "/flag_operational";
  const std::string secret = under_root("secret");
  ASSERT_TRUE(write_file(secret, "root only", 0600));
  ASSERT_EQ(0, unlink(spare.c_str()));
  plant_link(secret, spare);

  int32_t err = 0;
  EXPECT_EQ(0, tarn_apphome_is_operational_path(home.c_str(), &err));
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("current path %s not operational path, errcode:0x%x\n", home.c_str(), ENOENT),
                "copy operational backup file to operational file failed\n"}));
  EXPECT_TRUE(tarn_test::messages("warn").empty());
  EXPECT_FALSE(exists(flag));
  EXPECT_EQ(ENOENT, user_open_error(flag));
  EXPECT_EQ(EACCES, user_open_error(secret));
}

// The repair's copy of a legitimate spare that only root may read: its
// temporary file, caught just before it gets its final mode, cannot be
// opened by the user, who would otherwise keep a descriptor that reads
// the content written next.
TEST_F(FilesAttackTest, TheRepairsTemporaryFileCannotBeOpenedByTheUser) {
  const std::string home = app_home();
  const std::string spare = flags_of(home) + "/flag_operational_backup";
  const std::string flag = flags_of(home) + "/flag_operational";
  ASSERT_TRUE(write_file(spare, "root only", 0600));
  std::vector<std::string> temporaries;
  std::vector<int> user_errors;
  tarn_test::before_fchmod() = [&](int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
    char name[4096] = {0};
    const std::string proc = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(proc.c_str(), name, sizeof(name) - 1) <= 0) return;
    temporaries.push_back(name);
    user_errors.push_back(user_open_error(name));
  };
  const mode_t old_mask = umask(0);
  int32_t err = 0;
  const int32_t result = tarn_apphome_is_operational_path(home.c_str(), &err);
  umask(old_mask);
  tarn_test::before_fchmod() = nullptr;

  EXPECT_EQ(1, result);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("current path %s not operational path, errcode:0x%x\n", home.c_str(), ENOENT)}));
  ASSERT_EQ(1u, temporaries.size());
  EXPECT_EQ(0u, temporaries[0].rfind(flag + ".tmp.", 0)) << temporaries[0];
  EXPECT_EQ(std::vector<int>{EACCES}, user_errors);
  EXPECT_EQ(0600, file_mode(flag));
  EXPECT_EQ(EACCES, user_open_error(flag));
}

// The existence test and the create are one step (O_EXCL, no link
// followed), so there is no window to race: the link is planted before
// the call, which is what winning the race would give.
TEST_F(FilesAttackTest, ALinkAtTheOperationalFlagNeverMakesRootTruncateItsTarget) {
  const std::string home = app_home();
  const std::string flag = flags_of(home) + "/flag_operational";
  const std::string victim = under_root("victim");
  ASSERT_TRUE(write_file(victim, "precious", 0600));
  plant_link(victim, flag);

  EXPECT_EQ(-1, tarn_apphome_create_flag(home.c_str(), "flag_operational"));
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"flag file " + flag + " create failed\n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_EQ("precious", read_file(victim));
  EXPECT_EQ(0600, file_mode(victim));
}

TEST_F(FilesAttackTest, ALinkAtTheAgentIdDirectoryDoesNotOpenARootOnlyTree) {
  // Root made the shared configuration directory.
  ASSERT_EQ(0, tarn_update_exit_info(0));
  const std::string config = velmora_dir() + "/TARN3_CFG";
  ASSERT_EQ(0777, file_mode(config));
  const std::string tree = velmora_dir() + "/root_only";
  ASSERT_TRUE(tarn_test::make_dirs(tree + "/keys"));
  ASSERT_EQ(0, chmod(tree.c_str(), 0700));
  ASSERT_EQ(0, chmod((tree + "/keys").c_str(), 0700));
  ASSERT_TRUE(write_file(tree + "/keys/key", "key", 0600));
  plant_link(tree, config + "/agent_id");
  tarn_test::clear_logs();

  EXPECT_EQ(0, set_tarn_agentid_dir());
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format(
                "agent id dir %s/agent_id/ is not a directory of root or of this user, not opened to all users\n",
                config.c_str())}));
  EXPECT_TRUE(tarn_test::messages("info").empty());
  EXPECT_EQ(0700, file_mode(tree));
  EXPECT_EQ(0700, file_mode(tree + "/keys"));
  EXPECT_EQ(0600, file_mode(tree + "/keys/key"));
  EXPECT_EQ(EACCES, user_open_error(tree + "/keys/key"));
}

// Only config/flags is shared; the app home and config that the call
// makes are root's alone to write, so nothing can be planted in them.
TEST_F(FilesAttackTest, ANewAppHomeGivesTheUserOnlyTheFlagsDirectory) {
  const std::string home = under_root(kHomeA);
  const mode_t old_mask = umask(0);
  EXPECT_EQ(0, tarn_apphome_create_flag(home.c_str(), "flag_operational"));
  umask(old_mask);
  EXPECT_NO_LINES();
  EXPECT_EQ(0755, file_mode(home));
  EXPECT_EQ(0755, file_mode(home + "/config"));
  EXPECT_EQ(0777, file_mode(flags_of(home)));
  for (const std::string &dir : {home, home + "/config"}) {
    const std::string planted = dir + "/planted";
    EXPECT_EQ(EACCES, as_local_user([&] { return symlink("/etc/shadow", planted.c_str()) == 0 ? 0 : errno; }))
        << dir;
  }
}

// With an agent group the flags directory is the group's (0770), nothing
// of it is left to others, and its parents are 0755 as before.
TEST_F(FilesAttackTest, WithAnAgentGroupTheFlagsDirectoryIsTheGroupsOnly) {
  const std::string home = under_root(kHomeA);
  const tarn_test::BaseConfigFile config(tarn_test::agent_group_config("nogroup"));
  ASSERT_TRUE(config.ok());
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(
      30, [&] { return tarn_apphome_create_flag(home.c_str(), "flag_operational") == 0 ? 0 : 2; });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(0, outcome.exit_status);
  EXPECT_TRUE(outcome.lines.empty());
  EXPECT_EQ(0755, file_mode(home));
  EXPECT_EQ(0755, file_mode(home + "/config"));
  EXPECT_EQ(0770, file_mode(flags_of(home)));
  struct stat st;
  ASSERT_EQ(0, stat(flags_of(home).c_str(), &st));
  EXPECT_EQ(0u, st.st_uid);
  EXPECT_EQ(65534u, st.st_gid);
}

}  // namespace
