// Tests of the directory helpers: the install root, whether a path lies
// under it, the app home name and path read from the record (without its
// lock), the backup trees below the data root, and "@"-path expansion.
//
// The data root is the system log directory of tarn_log_dir, interposed
// below so that a test can give another one or none. Every test starts and
// ends with an empty install root.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <tarnbase/tarn_str.h>

#include "child_process.h"
#include "fakes.h"
#include "install_root.h"
#include "log_checks.h"
#include "tarn_directory.h"
#include "time_limit.h"

// ---------------------------------------------------------------------------
// Interposed data root: the real one unless a test set its own (an empty
// string meaning that there is none).

namespace {

std::optional<std::string> g_data_root;

}  // namespace

extern "C" int tarn_log_dir(char *buf, size_t len) {
  if (!g_data_root) {
    return reinterpret_cast<int (*)(char *, size_t)>(dlsym(RTLD_NEXT, "tarn_log_dir"))(buf, len);
  }
  if (buf != nullptr && len > 0) buf[0] = '\0';
  if (g_data_root->empty() || buf == nullptr || len <= g_data_root->size()) return 0;
  memcpy(buf, g_data_root->c_str(), g_data_root->size() + 1);
  return (int)g_data_root->size();
}

namespace {

using tarn_test::dump_logs;
using tarn_test::executable_directory;
using tarn_test::exists;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kHomeX86;
using tarn_test::kInstallRoot;
using tarn_test::kRecordLockPath;
using tarn_test::kRecordPath;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

class DirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    tarn_test::reset_fakes();
    g_data_root.reset();
    tarn_test::clear_install_root();
  }
};

// ---------------------------------------------------------------------------
// The install root.

TEST_F(DirectoryTest, GetTarnPathCopiesTheInstallRoot) {
  char buf[1024];
  EXPECT_EQ(get_tarn_path(buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "/usr/share/velmora/TARN");
  char exact[24];
  EXPECT_EQ(get_tarn_path(exact, sizeof(exact)), 0);
  EXPECT_STREQ(exact, kInstallRoot);
  EXPECT_NO_LINES();
}

TEST_F(DirectoryTest, GetTarnPathCutsToTheLength) {
  char buf[16];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(get_tarn_path(buf, 5), 0);
  EXPECT_STREQ(buf, "/usr");
  EXPECT_EQ(buf[5], 'Z');
  EXPECT_EQ(get_tarn_path(buf, 1), 0);
  EXPECT_STREQ(buf, "");
}

TEST_F(DirectoryTest, GetTarnPathWithALengthBelowOneOrANullBufferIsOne) {
  char buf[16];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(get_tarn_path(buf, 0), 1);
  EXPECT_EQ(get_tarn_path(buf, -3), 1);
  EXPECT_EQ(buf[0], 'Z');
  EXPECT_EQ(get_tarn_path(nullptr, 16), 1);
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// Paths under the install root.

TEST_F(DirectoryTest, AFileUnderTheRootIsInside) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/0a1b/bin/tarn_service"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/"), 0);  // its directory is velmora
}

TEST_F(DirectoryTest, TheRootItselfTestsItsParentAndIsOutside) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN"), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/other.so"), 0);
  EXPECT_EQ(is_path_in_tarn("/opt/x/bin/agent"), 0);
  EXPECT_EQ(is_path_in_tarn("x.so"), 0);
  EXPECT_EQ(is_path_in_tarn(""), 0);
  EXPECT_EQ(is_path_in_tarn(nullptr), 0);
}

TEST_F(DirectoryTest, TheComparisonIgnoresCase) {
  EXPECT_EQ(is_path_in_tarn("/USR/SHARE/VELMORA/TARN/x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/tarn/x.so"), 1);
}

TEST_F(DirectoryTest, SeparatorsAreNormalisedFirst) {
  EXPECT_EQ(is_path_in_tarn("/usr//share/velmora///TARN//x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("\\usr\\share\\velmora\\TARN\\x.so"), 1);
}

TEST_F(DirectoryTest, ASiblingThatSharesTheRootsPrefixCountsAsInside) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARNX/x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN_old/x.so"), 1);
}

// ".." is resolved from the text alone before the test: a path that climbs
// out of the install root is outside, whatever is on the disk.
TEST_F(DirectoryTest, DotDotComponentsThatLeaveTheRootAreOutside) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/../../../../tmp/evil/x.so"), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/../TARN2/x.so"), 1);  // the prefix test kept
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/../x.so"), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/.."), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/a/.."), 0);  // the root itself
  EXPECT_EQ(is_path_in_tarn("\\usr\\share\\velmora\\TARN\\..\\..\\x.so"), 0);
  EXPECT_EQ(is_path_in_tarn("../usr/share/velmora/TARN/x.so"), 0);
}

TEST_F(DirectoryTest, DotAndDotDotThatStayInsideAreInside) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/a/../x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/./bin/./x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/other/../TARN/x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/../../usr/share/velmora/TARN/x.so"), 1);  // ".." above "/" stays at "/"
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/a/b/../../c/x.so"), 1);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/..x/y.so"), 1);  // a name, not ".."
}

TEST_F(DirectoryTest, OnlyTheFirst1023BytesOfAPathCount) {
  const std::string inside = "/usr/share/velmora/TARN/" + std::string(1100, 'a') + "/x.so";
  EXPECT_EQ(is_path_in_tarn(inside.c_str()), 1);
}

// ---------------------------------------------------------------------------
// The app home name.

TEST_F(DirectoryTest, DirNameRefusesNullArgumentsAndAZeroLength) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_dir_name(nullptr, out, sizeof(out), nullptr), -1);
  EXPECT_LOGGED("warn", "get_apphome_dir_name failed: argument error\n");
  tarn_test::clear_logs();
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, nullptr, 64, nullptr), -1);
  EXPECT_LOGGED("warn", "get_apphome_dir_name failed: argument error\n");
  tarn_test::clear_logs();
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, 0, nullptr), -1);
  EXPECT_LOGGED("warn", "get_apphome_dir_name failed: argument error\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(DirectoryTest, DirNameOfAMissingRecordIsMinusOne) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr), -1);
  EXPECT_LOGGED("debug", std::string("tarn_ini_file_load is failed, path is ") + kRecordPath + ".\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(DirectoryTest, DirNameAndPathMainOfARecordThatIsNotARegularFileFailAtOnce) {
  const std::string message = std::string("tarn_ini_file_load is failed, path is ") + kRecordPath + ".\n";
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    const std::string what = std::string(" of a record that is ") + tarn_test::describe(kind);
    ASSERT_TRUE(tarn_test::make_not_a_file(kRecordPath, kind));
    tarn_test::clear_logs();
    char out[64];
    memset(out, 'Z', sizeof(out));
    EXPECT_EQ(
        tarn_test::within_time_limit("get_apphome_dir_name" + what,
                                     [&] { return get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr); }),
        -1);
    EXPECT_EQ(tarn_test::messages("debug"), std::vector<std::string>{message});
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_test::within_time_limit("get_apphome_path_main" + what,
                                           [&] { return get_apphome_path_main(out, sizeof(out)); }),
              1);
    EXPECT_EQ(tarn_test::messages("debug"), std::vector<std::string>{message});
    EXPECT_EQ(out[0], 'Z');
    EXPECT_TRUE(tarn_test::is_not_a_file(kRecordPath, kind));
  }
}

TEST_F(DirectoryTest, DirNameOfARecordWithoutTheKeyIsOne) {
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\nupgrade_lock_count=1\n"));
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr), 1);
  EXPECT_LOGGED("warn", std::string("app_home is empty in ") + kRecordPath + "\n");
  EXPECT_EQ(out[0], 'Z');
  // An empty value is no better.
  tarn_test::clear_logs();
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\napp_home=\n"));
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr), 1);
  EXPECT_LOGGED("warn", std::string("app_home is empty in ") + kRecordPath + "\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(DirectoryTest, DirNameCopiesTheNameCutToTheBuffer) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[64];
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, kHomeA);
  EXPECT_NO_LINES();
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, 9, nullptr), 0);
  EXPECT_STREQ(out, "0a1b2c3d");
}

TEST_F(DirectoryTest, DirNameWithASuffixReadsTheSuffixedKey) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  char out[64];
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), "x86"), 0);
  EXPECT_STREQ(out, kHomeX86);
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), "arm64"), 1);
  EXPECT_LOGGED("warn", std::string("app_home is empty in ") + kRecordPath + "\n");
}

TEST_F(DirectoryTest, DirNameReadsTheFileGivenWithoutTakingItsLock) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  tarn_test::ForeignLock holder(std::string(kBackupPath) + ".lock");
  ASSERT_TRUE(holder.held());
  char out[64];
  EXPECT_EQ(get_apphome_dir_name(kBackupPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, kHomeB);
}

// The record is open to every user: a value that is not a directory name is
// taken for a missing one.
TEST_F(DirectoryTest, DirNameAndPathMainTakeAValueThatIsNotADirectoryNameForAMissingOne) {
  for (const char *value : tarn_test::kNotDirectoryNames) {
    SCOPED_TRACE(value);
    ASSERT_TRUE(write_file(kRecordPath, record_text(value, value)));
    const std::vector<std::string> warnings = {tarn_test::not_directory_name_warning(value),
                                               std::string("app_home is empty in ") + kRecordPath + "\n"};
    for (const char *suffix : {static_cast<const char *>(nullptr), "x86"}) {
      tarn_test::clear_logs();
      char out[64];
      memset(out, 'Z', sizeof(out));
      EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), suffix), 1);
      EXPECT_EQ(out[0], 'Z');
      EXPECT_EQ(tarn_test::messages("warn"), warnings);
    }
    tarn_test::clear_logs();
    char out[64];
    memset(out, 'Z', sizeof(out));
    EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 1);
    EXPECT_EQ(out[0], 'Z');
    EXPECT_EQ(tarn_test::messages("warn"), warnings);
  }
}

TEST_F(DirectoryTest, DirNameOfANameThatIsNotUuidTextIsReadAsItIs) {
  ASSERT_TRUE(write_file(kRecordPath, record_text("my-home", "..x86")));
  char out[64];
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, "my-home");
  EXPECT_EQ(get_apphome_dir_name(kRecordPath, out, sizeof(out), "x86"), 0);
  EXPECT_STREQ(out, "..x86");
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// The app home path.

TEST_F(DirectoryTest, PathMainIsTheRootAndTheRecordedName) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[1024];
  EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), under_root(kHomeA));
  EXPECT_NO_LINES();
  // Cut to its buffer.
  char small[11];
  EXPECT_EQ(get_apphome_path_main(small, sizeof(small)), 0);
  EXPECT_STREQ(small, "/usr/share");
}

TEST_F(DirectoryTest, PathMainWithoutARecordIsOneAndLeavesTheBuffer) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));  // never consulted here
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 1);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_LOGGED("debug", std::string("tarn_ini_file_load is failed, path is ") + kRecordPath + ".\n");
}

TEST_F(DirectoryTest, PathMainOfARecordWithoutAppHomeIsOne) {
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\napp_home_x86=" + std::string(kHomeX86) + "\n"));
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 1);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_LOGGED("warn", std::string("app_home is empty in ") + kRecordPath + "\n");
}

TEST_F(DirectoryTest, PathMainRefusesANullBuffer) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(get_apphome_path_main(nullptr, 64), 1);
  char out[8];
  EXPECT_EQ(get_apphome_path_main(out, 0), 1);
}

TEST_F(DirectoryTest, PathMainDoesNotWaitForTheRecordsLock) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kRecordLockPath);
  ASSERT_TRUE(holder.held());
  char out[1024];
  EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), under_root(kHomeA));
}

// ---------------------------------------------------------------------------
// The backup trees.

TEST_F(DirectoryTest, BackupPathIsBelowTheDataRoot) {
  g_data_root = "/var/lib/agent";
  char out[1024];
  EXPECT_EQ(get_backup_path(out, sizeof(out)), 1);
  EXPECT_STREQ(out, "/var/lib/agent/velmora/TARN3_BACKUP/tarn_components");
  EXPECT_LOGGED("info", "backup_path /var/lib/agent/velmora/TARN3_BACKUP/tarn_components\n");
  EXPECT_EQ(get_backup_tmp_path(out, sizeof(out)), 1);
  EXPECT_STREQ(out, "/var/lib/agent/velmora/TARN3_BACKUP/var/tmp");
  EXPECT_LOGGED("info", "tmp path /var/lib/agent/velmora/TARN3_BACKUP/var/tmp\n");
  EXPECT_FALSE(exists("/var/lib/agent/velmora"));  // nothing is created
}

TEST_F(DirectoryTest, BackupPathUsesTheConfiguredSystemLogDirectory) {
  char log_dir[1024] = {0};
  ASSERT_GT(tarn_log_dir(log_dir, sizeof(log_dir)), 0);
  char out[1024];
  EXPECT_EQ(get_backup_path(out, sizeof(out)), 1);
  EXPECT_EQ(std::string(out), std::string(log_dir) + "/velmora/TARN3_BACKUP/tarn_components");
}

TEST_F(DirectoryTest, BackupPathIsCutToTheBuffer) {
  g_data_root = "/data";
  char out[16];
  EXPECT_EQ(get_backup_path(out, sizeof(out)), 1);
  EXPECT_STREQ(out, "/data/velmora/T");
  EXPECT_EQ(get_backup_tmp_path(out, 7), 1);
  EXPECT_STREQ(out, "/data/");
}

TEST_F(DirectoryTest, BackupPathRefusesABadBuffer) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_backup_path(out, 0), 0);
  EXPECT_LOGGED("warn", "invalid parameter\n");
  EXPECT_EQ(out[0], 'Z');
  tarn_test::clear_logs();
  EXPECT_EQ(get_backup_path(nullptr, 64), 0);
  EXPECT_LOGGED("warn", "invalid parameter\n");
  tarn_test::clear_logs();
  EXPECT_EQ(get_backup_tmp_path(out, -1), 0);
  EXPECT_LOGGED("warn", "invalid parameter\n");
  tarn_test::clear_logs();
  EXPECT_EQ(get_backup_tmp_path(nullptr, 64), 0);
  EXPECT_LOGGED("warn", "invalid parameter\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(DirectoryTest, BackupPathWithoutADataRootIsZero) {
  g_data_root = "";
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_backup_path(out, sizeof(out)), 0);
  EXPECT_LOGGED("warn", "get log dir is error\n");
  tarn_test::clear_logs();
  EXPECT_EQ(get_backup_tmp_path(out, sizeof(out)), 0);
  EXPECT_LOGGED("warn", "get log dir is error\n");
  EXPECT_EQ(out[0], 'Z');
  EXPECT_TRUE(tarn_test::messages("info").empty()) << dump_logs();
}

// ---------------------------------------------------------------------------
// "@"-path expansion.

TEST_F(DirectoryTest, TransformRefusesBadArguments) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  tarn_agent_path_transform(nullptr, out, sizeof(out));
  EXPECT_LOGGED("warn", "path transform input invalid parameter\n");
  tarn_test::clear_logs();
  tarn_agent_path_transform("@/x", nullptr, 64);
  EXPECT_LOGGED("warn", "path transform input invalid parameter\n");
  tarn_test::clear_logs();
  tarn_agent_path_transform("@/x", out, 0);
  EXPECT_LOGGED("warn", "path transform input invalid parameter\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(DirectoryTest, TransformCopiesAPathWithoutAtUnchanged) {
  char out[64];
  tarn_agent_path_transform("/opt/x/bin/agent", out, sizeof(out));
  EXPECT_STREQ(out, "/opt/x/bin/agent");
  tarn_agent_path_transform("relative/@x", out, sizeof(out));
  EXPECT_STREQ(out, "relative/@x");
  tarn_agent_path_transform("/a/long/path", out, 7);
  EXPECT_STREQ(out, "/a/lon");
  EXPECT_NO_LINES();
}

TEST_F(DirectoryTest, TransformExpandsAtToTheAppHomesBinDirectory) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[1024];
  tarn_agent_path_transform("@/tarn_service", out, sizeof(out));
  EXPECT_EQ(std::string(out), "/usr/share/velmora/TARN/" + std::string(kHomeA) + "/bin/tarn_service");
  tarn_agent_path_transform("@/x/y", out, sizeof(out));
  EXPECT_EQ(std::string(out), under_root(kHomeA) + "/bin/x/y");
  // No separator is inserted.
  tarn_agent_path_transform("@x", out, sizeof(out));
  EXPECT_EQ(std::string(out), under_root(kHomeA) + "/binx");
  tarn_agent_path_transform("@", out, sizeof(out));
  EXPECT_EQ(std::string(out), under_root(kHomeA) + "/bin");
  char small[12];
  tarn_agent_path_transform("@/tarn_service", small, sizeof(small));
  EXPECT_STREQ(small, "/usr/share/");
}

TEST_F(DirectoryTest, TransformOfARecordNamingADirectoryOutsideTheRootLeavesItToTheBaseLibrary) {
  const std::string dir = executable_directory();
  ASSERT_FALSE(dir.empty());
  ASSERT_TRUE(write_file(kRecordPath, record_text(tarn_test::kEscapingName)));
  char out[1024];
  tarn_agent_path_transform("@/tarn_service", out, sizeof(out));
  EXPECT_EQ(std::string(out), dir + "/tarn_service");
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{tarn_test::not_directory_name_warning(tarn_test::kEscapingName),
                                      std::string("app_home is empty in ") + kRecordPath + "\n"}));
}

TEST_F(DirectoryTest, TransformWithoutAnAppHomeLeavesItToTheBaseLibrary) {
  const std::string dir = executable_directory();
  ASSERT_FALSE(dir.empty());
  char out[1024];
  tarn_agent_path_transform("@/tarn_service", out, sizeof(out));
  EXPECT_EQ(std::string(out), dir + "/tarn_service");
  tarn_agent_path_transform("@/../lib", out, sizeof(out));
  EXPECT_EQ(std::string(out), dir + "/../lib");
}

}  // namespace
