// Tests of the upgrade tools' app home helpers (the install root as an
// allocated string, the locked readers of the record, its writer, and the
// upgrade lock counter) and of the package helpers (the presence check of a
// file, path pieces, and shell commands with a real child program).
//
// Failures of locks and saves are injected by file_faults.h, which also
// writes down the lock and save calls. Every test starts and ends with an
// empty install root.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_str.h>

#include "argv_words.h"
#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "file_faults.h"
#include "install_root.h"
#include "log_checks.h"
#include "parameter_parsing.h"
#include "reset_test.h"
#include "tarn_utils.h"
#include "time_limit.h"
#include "utils_internal.h"

namespace {

using tarn_test::dump_logs;
using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kHomeX86;
using tarn_test::kHomeX86B;
using tarn_test::kInstallRoot;
using tarn_test::kRecordLockPath;
using tarn_test::kRecordPath;
using tarn_test::load_ini;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::Sections;
using tarn_test::under_root;
using tarn_test::write_file;

std::vector<std::string> lock_events(const std::string &lock) {
  return {"init " + lock, "acquire " + lock, "release " + lock, "destroy " + lock};
}

class UtilsTest : public tarn_test::ResetTest<tarn_test::clear_file_faults, tarn_test::clear_install_root> {};

// ---------------------------------------------------------------------------
// The install root.

TEST_F(UtilsTest, RootDirIsANewCopyOfTheInstallRoot) {
  char *root = get_tarn_root_dir();
  ASSERT_NE(root, nullptr);
  EXPECT_STREQ(root, "/usr/share/velmora/TARN");
  EXPECT_EQ(strlen(root), 23u);
  char *again = get_tarn_root_dir();
  EXPECT_NE(again, root);
  root[0] = 'X';  // the caller's own
  EXPECT_STREQ(again, kInstallRoot);
  free(root);
  free(again);
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, RootDirOutOfMemoryEndsTheProcessWithStatusZero) {
  const unsigned before = tarn_test::allocation_calls();
  free(get_tarn_root_dir());
  ASSERT_EQ(tarn_test::allocation_calls() - before, 1u);
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] {
    tarn_test::fail_allocation_after(0);
    get_tarn_root_dir();
  });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_EQ(outcome.lines.size(), 1u) << tarn_test::dump_logs();
  EXPECT_EQ(outcome.lines.back().word, "fatal");
  EXPECT_EQ(outcome.lines.back().message, "Out of memory\n");
}

// ---------------------------------------------------------------------------
// The locked reader.

TEST_F(UtilsTest, AppHomeDirRefusesNullArgumentsAndAZeroLengthSilently) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_dir(nullptr, out, sizeof(out), nullptr), -1);
  EXPECT_EQ(get_app_home_dir(kRecordPath, nullptr, 64, nullptr), -1);
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, 0, nullptr), -1);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_NO_LINES();
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(UtilsTest, AppHomeDirReadsTheNameUnderTheLock) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[64];
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, kHomeA);
  EXPECT_NO_LINES();
  EXPECT_EQ(tarn_test::file_events(), lock_events(kRecordLockPath));
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, 5, nullptr), 0);
  EXPECT_STREQ(out, "0a1b");
}

TEST_F(UtilsTest, AppHomeDirWithASuffixReadsTheSuffixedKey) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  char out[64];
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), "x86"), 0);
  EXPECT_STREQ(out, kHomeX86);
}

TEST_F(UtilsTest, AppHomeDirOfAMissingRecordIsMinusOne) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), nullptr), -1);
  EXPECT_LOGGED("warn", format("qiv_eni_file_load is failed, path is %s.\n", kRecordPath));
  EXPECT_EQ(out[0], 'Z');
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(UtilsTest, ReadersOfARecordThatIsNotARegularFileFailAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    const std::string what = std::string(" of a record that is ") + tarn_test::describe(kind);
    ASSERT_TRUE(tarn_test::make_not_a_file(kRecordPath, kind));
    tarn_test::clear_logs();
    char out[64];
    memset(out, 'Z', sizeof(out));
    EXPECT_EQ(tarn_test::within_time_limit("get_app_home_dir" + what,
                                           [&] { return get_app_home_dir(kRecordPath, out, sizeof(out), nullptr); }),
              -1);
    EXPECT_EQ(out[0], 'Z');
    EXPECT_EQ(tarn_test::messages("warn"),
              std::vector<std::string>{format("qiv_eni_file_load is failed, path is %s.\n", kRecordPath)});
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_test::within_time_limit("tarn_get_upgrade_lock_count" + what,
                                           [&] { return tarn_get_upgrade_lock_count(); }),
              0);
    EXPECT_EQ(tarn_test::messages("info"),
              std::vector<std::string>{format("tarn_ini_file_load is failed, path is %s.\n", kRecordPath)});
    EXPECT_TRUE(tarn_test::is_not_a_file(kRecordPath, kind));
    EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
    // An update starts afresh and puts a regular file in its place.
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_test::within_time_limit("update_app_home_dir" + what,
                                           [&] { return update_app_home_dir(kRecordPath, kHomeA, nullptr, nullptr); }),
              0);
    EXPECT_EQ(tarn_test::messages("info"), std::vector<std::string>{"after load\n"});
    EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  }
}

TEST_F(UtilsTest, AppHomeDirWithoutTheKeyIsOne) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), "x86"), 1);
  EXPECT_LOGGED("warn", format("app_home is empty in %s\n", kRecordPath));
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(UtilsTest, AppHomeDirReadsEvenWhenTheLockCannotBeHad) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  char out[64] = {0};
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, kHomeA);

  tarn_test::clear_file_faults();
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  memset(out, 0, sizeof(out));
  EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), nullptr), 0);
  EXPECT_STREQ(out, kHomeA);
  EXPECT_EQ(tarn_test::file_events(), lock_events(kRecordLockPath));
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, AppHomeDirWaitsForTheRecordsLock) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kRecordLockPath);
  ASSERT_TRUE(holder.held());
  const tarn_test::LockedCall call = tarn_test::call_behind_lock(holder, [] {
    char out[64] = {0};
    const int ret = get_app_home_dir(kRecordPath, out, sizeof(out), nullptr);
    return ret == 0 && strcmp(out, kHomeA) == 0 ? 0 : 1;
  });
  ASSERT_TRUE(call.started);
  EXPECT_TRUE(call.waited) << "the read did not wait for the lock";
  EXPECT_TRUE(call.answered);
  EXPECT_EQ(call.value, 0);
  EXPECT_EQ(call.status, 0);
}

// ---------------------------------------------------------------------------
// The app home path.

TEST_F(UtilsTest, AppHomePathWithoutASuffixReadsAppHome) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  char out[1024];
  EXPECT_EQ(get_app_home_path(nullptr, out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), under_root(kHomeA));
  EXPECT_EQ(get_app_home_path("x86", out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), under_root(kHomeX86));
  EXPECT_NO_LINES();
  char small[8];
  EXPECT_EQ(get_app_home_path(nullptr, small, sizeof(small)), 0);
  EXPECT_STREQ(small, "/usr/sh");
}

TEST_F(UtilsTest, AppHomePathRefusesANullBufferOrAZeroLength) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[8];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_path(nullptr, nullptr, 64), 1);
  EXPECT_EQ(get_app_home_path(nullptr, out, 0), 1);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, AppHomePathWithoutANameIsOneAndAsksForRegeneration) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(get_app_home_path(nullptr, out, sizeof(out)), 1);
  EXPECT_LOGGED("info", "apphome cannot be fetched or does not exist and will be regenerated\n");
  EXPECT_EQ(out[0], 'Z');

  tarn_test::clear_logs();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(get_app_home_path("x86", out, sizeof(out)), 1);
  EXPECT_LOGGED("warn", format("app_home is empty in %s\n", kRecordPath));
  EXPECT_LOGGED("info", "apphome cannot be fetched or does not exist and will be regenerated\n");
  EXPECT_EQ(out[0], 'Z');
}

// The record is open to every user: a value that is not a directory name is
// taken for a missing one, for the app home and the companion alike.
TEST_F(UtilsTest, AppHomeDirAndPathTakeAValueThatIsNotADirectoryNameForAMissingOne) {
  for (const char *value : tarn_test::kNotDirectoryNames) {
    SCOPED_TRACE(value);
    ASSERT_TRUE(write_file(kRecordPath, record_text(value, value)));
    for (const char *suffix : {static_cast<const char *>(nullptr), "x86"}) {
      tarn_test::clear_logs();
      char out[64];
      memset(out, 'Z', sizeof(out));
      EXPECT_EQ(get_app_home_dir(kRecordPath, out, sizeof(out), suffix), 1);
      EXPECT_EQ(out[0], 'Z');
      EXPECT_EQ(tarn_test::messages("warn"),
                (std::vector<std::string>{tarn_test::not_directory_name_warning(value),
                                          format("app_home is empty in %s\n", kRecordPath)}));
      tarn_test::clear_logs();
      EXPECT_EQ(get_app_home_path(suffix, out, sizeof(out)), 1);
      EXPECT_EQ(out[0], 'Z');
      EXPECT_EQ(tarn_test::messages("warn"),
                (std::vector<std::string>{tarn_test::not_directory_name_warning(value),
                                          format("app_home is empty in %s\n", kRecordPath)}));
      EXPECT_EQ(tarn_test::messages("info"),
                (std::vector<std::string>{
                    "apphome cannot be fetched or does not exist and will be regenerated\n"}));
    }
  }
}

TEST_F(UtilsTest, AppHomePathOfANameThatIsNotUuidTextIsReadAsItIs) {
  ASSERT_TRUE(write_file(kRecordPath, record_text("my-home")));
  char out[1024];
  EXPECT_EQ(get_app_home_path(nullptr, out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), under_root("my-home"));
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// The writer.

TEST_F(UtilsTest, UpdateDirRefusesANullPathOrName) {
  EXPECT_EQ(update_app_home_dir(nullptr, kHomeA, nullptr, nullptr), 1);
  EXPECT_EQ(update_app_home_dir(kRecordPath, nullptr, nullptr, nullptr), 1);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(UtilsTest, UpdateDirOfAMissingRecordCreatesOnlyTheAppHomeSection) {
  const mode_t old_mask = umask(022);
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeA, nullptr, nullptr), 0);
  umask(old_mask);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(Sections{{"apphome", {{"app_home", kHomeA}}}}));
  EXPECT_LOGGED("info", "after load\n");
  // Neither the backup nor the permissions are its business.
  EXPECT_FALSE(exists(kBackupPath));
  EXPECT_EQ(file_mode(kRecordPath), 0644);
  const std::string lock = kRecordLockPath;
  EXPECT_EQ(tarn_test::file_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock,
                                      "save " + std::string(kRecordPath), "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(UtilsTest, UpdateDirKeepsOtherKeysAndSetsTheCompanion) {
  ASSERT_TRUE(write_file(kRecordPath,
                         "[apphome]\napp_home=" + std::string(kHomeA) +
                             "\nupgrade_lock_count=4\n\n[agent]\nid=9\n",
                         0600));
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, "x86", kHomeX86B), 0);
  const Sections expected = {
      {"apphome", {{"app_home", kHomeB}, {"upgrade_lock_count", "4"}, {"app_home_x86", kHomeX86B}}},
      {"agent", {{"id", "9"}}}};
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(expected));
  EXPECT_FALSE(tarn_test::logged("info", "after load\n")) << dump_logs();
  EXPECT_EQ(file_mode(kRecordPath), 0600);
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(UtilsTest, UpdateDirSetsTheCompanionOnlyWithBothSuffixAndName) {
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeA, "x86", nullptr), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(Sections{{"apphome", {{"app_home", kHomeA}}}}));
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, nullptr, kHomeX86), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(Sections{{"apphome", {{"app_home", kHomeB}}}}));
}

TEST_F(UtilsTest, UpdateDirWritesAnyIniPathGiven) {
  const std::string other = under_root("other.ini");
  EXPECT_EQ(update_app_home_dir(other.c_str(), kHomeA, nullptr, nullptr), 0);
  EXPECT_EQ(load_ini(other), std::optional<Sections>(Sections{{"apphome", {{"app_home", kHomeA}}}}));
  EXPECT_EQ(tarn_test::file_events()[0], "init " + other + ".lock");
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(UtilsTest, UpdateDirWhoseSaveFailsReturnsItsCode) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_save(kRecordPath, ENOSPC);
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, nullptr, nullptr), ENOSPC);
  EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", ENOSPC));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(UtilsTest, UpdateDirWithANameThatTheRecordCannotHoldChangesNothing) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(update_app_home_dir(kRecordPath, "two\nlines", nullptr, nullptr), EINVAL);
  EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", EINVAL));
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, "x86", "trailing "), EINVAL);
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
}

TEST_F(UtilsTest, UpdateDirGivesOneWhenTheLockCannotBeOpenedOrTaken) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, nullptr, nullptr), 1);
  EXPECT_LOGGED("warn", format("flock init failed with errcode %d\n", EACCES));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  EXPECT_EQ(update_app_home_dir(kRecordPath, kHomeB, nullptr, nullptr), 1);
  EXPECT_LOGGED("warn", format("flock acquire failed with errcode %d\n", ENOLCK));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_EQ(tarn_test::file_events(), lock_events(kRecordLockPath));
}

TEST_F(UtilsTest, UpdateDirHoldsTheLockUntilItHasSaved) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kRecordLockPath);
  ASSERT_TRUE(holder.held());
  const pid_t child = tarn_test::fork_child(
      [] { return update_app_home_dir(kRecordPath, kHomeB, nullptr, nullptr); });
  usleep(300000);
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  holder.release();
  EXPECT_EQ(tarn_test::reap(child), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(Sections{{"apphome", {{"app_home", kHomeB}}}}));
}

// ---------------------------------------------------------------------------
// The upgrade lock counter.

TEST_F(UtilsTest, UpgradeLockCountReadsTheNumber) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=3\n"));
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 3);
  EXPECT_LOGGED("info", format("get %s upgrade_lock_count 3\n", kRecordPath));
  EXPECT_EQ(tarn_test::file_events(), lock_events(kRecordLockPath));
}

TEST_F(UtilsTest, UpgradeLockCountOfANonNumericValueIsZero) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=many\n"));
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 0);
  EXPECT_LOGGED("info", format("get %s upgrade_lock_count 0\n", kRecordPath));
  // A leading number counts.
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=12abc\n"));
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 12);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=-2\n"));
  EXPECT_EQ(tarn_get_upgrade_lock_count(), -2);
}

TEST_F(UtilsTest, UpgradeLockCountWithoutTheKeyIsZero) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 0);
  EXPECT_LOGGED("info", format("get %s upgrade_lock_count 0\n", kRecordPath));
}

TEST_F(UtilsTest, UpgradeLockCountOfAMissingRecordIsZero) {
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 0);
  EXPECT_LOGGED("info", format("tarn_ini_file_load is failed, path is %s.\n", kRecordPath));
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(UtilsTest, UpgradeLockCountIsZeroWhenTheLockCannotBeHad) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=3\n"));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 0);
  EXPECT_LOGGED("warn", format("tarn_flock_init is failed, ret is %d\n", EACCES));

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  EXPECT_EQ(tarn_get_upgrade_lock_count(), 0);
  EXPECT_LOGGED("warn", format("tarn_flock_acquire is failed, ret is %d\n", ENOLCK));
  EXPECT_EQ(tarn_test::file_events(), lock_events(kRecordLockPath));
}

// ---------------------------------------------------------------------------
// The presence check of a component's file.

TEST_F(UtilsTest, CheckFileHashOfAnExistingFileWithAWrongDigestIsZero) {
  const std::string dir = tarn_test::make_temp_directory("check_file");
  const std::string path = dir + "/core.so";
  ASSERT_TRUE(write_file(path, "not what the digest says"));
  EXPECT_EQ(check_file_hash(path.c_str(), "deadbeef"), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{format("file: %s hash: deadbeef\n", path.c_str())});
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
}

TEST_F(UtilsTest, CheckFileHashOfAMissingFileIsOne) {
  const std::string path = tarn_test::make_temp_directory("check_file") + "/missing.so";
  EXPECT_EQ(check_file_hash(path.c_str(), "deadbeef"), 1);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{format("file does not exist, file path:%s\n", path.c_str())});
  EXPECT_TRUE(tarn_test::messages("info").empty()) << dump_logs();
}

TEST_F(UtilsTest, CheckFileHashRefusesANullPathOrDigest) {
  EXPECT_EQ(check_file_hash(nullptr, "deadbeef"), 1);
  EXPECT_EQ(check_file_hash(kInstallRoot, nullptr), 1);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{"Invalid input\n", "Invalid input\n"}));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
}

// ---------------------------------------------------------------------------
// Path pieces, found in the caller's buffer.

// The result of piece on a writable copy of path: its text (or "<null>"),
// where in the copy it points (-1 when it is outside the copy), and what
// the copy holds afterwards.
struct Piece {
  std::string text;
  long offset;
  std::string buffer;
};
Piece piece_of(char *(*piece)(char *), const char *path) {
  char buffer[256];
  tarn_strlcpy(buffer, path, sizeof(buffer));
  const char *result = piece(buffer);
  const bool inside = result >= buffer && result < buffer + sizeof(buffer);
  return {result != nullptr ? result : "<null>", inside ? (long)(result - buffer) : -1, buffer};
}

TEST_F(UtilsTest, BasenameIsTheLastComponentWithoutItsExtension) {
  Piece p = piece_of(get_basename, "/tmp/pkg.tgz");
  EXPECT_EQ(p.text, "pkg");
  EXPECT_EQ(p.offset, 5);
  EXPECT_EQ(p.buffer, "/tmp/pkg");
  p = piece_of(get_basename, "dir/name");
  EXPECT_EQ(p.text, "name");
  EXPECT_EQ(p.offset, 4);
  EXPECT_EQ(piece_of(get_basename, "a/b.tar.gz").text, "b.tar");
  EXPECT_EQ(piece_of(get_basename, "pkg.tgz").text, "pkg");
  p = piece_of(get_basename, "/tmp/pkg.d/");
  EXPECT_EQ(p.text, "pkg");
  EXPECT_EQ(p.buffer, "/tmp/pkg");  // the trailing slash is cut in place too
  p = piece_of(get_basename, "/");
  EXPECT_EQ(p.text, "/");
  EXPECT_EQ(p.offset, 0);
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, BasenameOfAnEmptyOrNullPathIsNull) {
  char empty[1] = "";
  EXPECT_EQ(get_basename(empty), nullptr);
  EXPECT_EQ(get_basename(nullptr), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, BasedirCutsThePathInPlace) {
  Piece p = piece_of(get_basedir, "/a/b/c.so");
  EXPECT_EQ(p.text, "/a/b");
  EXPECT_EQ(p.offset, 0);
  EXPECT_EQ(p.buffer, "/a/b");
  EXPECT_EQ(piece_of(get_basedir, "/x").text, "/");
  EXPECT_EQ(piece_of(get_basedir, "/a/b/").text, "/a");
  p = piece_of(get_basedir, "name");
  EXPECT_EQ(p.text, ".");
  EXPECT_EQ(p.buffer, "name");
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, BasedirOfAnEmptyOrNullPathIsNull) {
  char empty[1] = "";
  EXPECT_EQ(get_basedir(empty), nullptr);
  EXPECT_EQ(get_basedir(nullptr), nullptr);
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// The check of text written into a shell command line.

TEST_F(UtilsTest, ShellTextCheckAcceptsTextThatStaysInsideItsQuotes) {
  for (const char *text : {"", "/usr/share/velmora/TARN/pkg.tgz", "with blank;|&<>()*?[]{}#~!",
                           "caf\xc3\xa9 \xff", "%s%n"}) {
    EXPECT_FALSE(refuse_shell_text(text, SHELL_TEXT_QUOTED)) << text;
  }
  for (const char *text : {"", "/var/log/velmora/TARN3_CFG/agent_id/", "a-b_c.d,e+f=g%h@i:j^k",
                           "caf\xc3\xa9"}) {
    EXPECT_FALSE(refuse_shell_text(text, SHELL_TEXT_UNQUOTED)) << text;
  }
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, ShellTextCheckRefusesWhatEndsTheQuotesAndEveryControlCharacter) {
  for (const char *special : {"\"", "$", "`", "\\", "'"}) {
    for (ShellQuoting quoting : {SHELL_TEXT_QUOTED, SHELL_TEXT_UNQUOTED}) {
      tarn_test::clear_logs();
      const std::string text = std::string("a") + special + "b";
      EXPECT_TRUE(refuse_shell_text(text.c_str(), quoting)) << text;
      EXPECT_EQ(tarn_test::messages("warn"),
                std::vector<std::string>{format("refused text for a shell command: [%s]\n", text.c_str())});
      EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
    }
  }
  for (int c = 1; c < 0x20; ++c) {
    tarn_test::clear_logs();
    const std::string text = std::string("x") + (char)c + "y";
    EXPECT_TRUE(refuse_shell_text(text.c_str(), SHELL_TEXT_QUOTED)) << c;
    EXPECT_EQ(tarn_test::messages("warn"),
              std::vector<std::string>{format("refused text for a shell command: [x\\x%02xy]\n", c)});
  }
  tarn_test::clear_logs();
  EXPECT_TRUE(refuse_shell_text("x\x7f", SHELL_TEXT_UNQUOTED));
  EXPECT_LOGGED("warn", "refused text for a shell command: [x\\x7f]\n");
}

TEST_F(UtilsTest, ShellTextCheckWithoutQuotesAlsoRefusesBlanksAndOperators) {
  for (const char special : std::string(" |&;<>()*?[]{}#~!")) {
    tarn_test::clear_logs();
    const std::string text = std::string("/dir") + special + "x";
    EXPECT_FALSE(refuse_shell_text(text.c_str(), SHELL_TEXT_QUOTED)) << text;
    EXPECT_TRUE(refuse_shell_text(text.c_str(), SHELL_TEXT_UNQUOTED)) << text;
    EXPECT_EQ(tarn_test::messages("warn"),
              std::vector<std::string>{format("refused text for a shell command: [%s]\n", text.c_str())});
  }
}

TEST_F(UtilsTest, ShellTextCheckShowsAtMostItsBuffer) {
  const std::string text = std::string(3000, 'a') + "$";
  EXPECT_TRUE(refuse_shell_text(text.c_str(), SHELL_TEXT_QUOTED));
  const std::vector<std::string> warns = tarn_test::messages("warn");
  ASSERT_EQ(warns.size(), 1u);
  EXPECT_EQ(warns[0].substr(0, 35), "refused text for a shell command: [");
  EXPECT_EQ(warns[0].find('$'), std::string::npos);
}

// ---------------------------------------------------------------------------
// Shell commands.

TEST_F(UtilsTest, ExecuteCmdLogsTheExitCodeTheCommandAndItsOutput) {
  const char *cmd = "echo first line; echo second; exit 3";
  EXPECT_EQ(execute_cmd(cmd), 3);
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{format(
                "exitcode:[3] cmd:[%s] cmd_result:[first line\nsecond]\n", cmd)});
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
}

TEST_F(UtilsTest, ExecuteCmdLogsOnlyTheLastCommandsOutput) {
  EXPECT_EQ(execute_cmd("echo earlier"), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(execute_cmd("true"), 0);
  EXPECT_LOGGED("info", "exitcode:[0] cmd:[true] cmd_result:[]\n");
}

TEST_F(UtilsTest, ExecuteCmdKeepsAtMostTheBuffersLengthOfOutput) {
  const char *cmd = "head -c 150000 /dev/zero | tr '\\0' a";
  EXPECT_EQ(execute_cmd(cmd), 0);
  const std::string expected = std::string("exitcode:[0] cmd:[") + cmd + "] cmd_result:[" +
                               std::string(102399, 'a') + "]\n";
  EXPECT_EQ(tarn_test::messages("info"), std::vector<std::string>{expected});
}

TEST_F(UtilsTest, ExecuteCmdGivesTheShellsCodeForACommandNotFound) {
  EXPECT_EQ(execute_cmd("/nonexistent/program"), 127);
  EXPECT_LOGGED("info", "exitcode:[127] cmd:[/nonexistent/program] cmd_result:[]\n");
}

TEST_F(UtilsTest, ExecuteCmdRefusesANullCommand) {
  EXPECT_EQ(execute_cmd(nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{"Invalid input\n"});
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
}

// ---------------------------------------------------------------------------
// The child package manager, a real program: a script that writes each of
// its arguments on a line of argv.txt beside it, prints how many it got and
// exits with that number.

class Packman {
 public:
  Packman() : dir_(tarn_test::make_temp_directory("packman")) {
    EXPECT_TRUE(write_file(path(),
                           "#!/bin/sh\n"
                           "out=\"$(dirname \"$0\")/argv.txt\"\n"
                           ": > \"$out\"\n"
                           "for word in \"$@\"; do printf '%s\\n' \"$word\" >> \"$out\"; done\n"
                           "echo \"packman got $# words\"\n"
                           "exit $#\n",
                           0755));
  }
  std::string path() const { return dir_ + "/packman"; }
  bool ran() const { return exists(dir_ + "/argv.txt"); }
  // The arguments that the last run received, in order.
  std::vector<std::string> words() const {
    std::vector<std::string> words;
    const std::string text = read_file(dir_ + "/argv.txt");
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      words.push_back(text.substr(start, end - start));
    }
    return words;
  }

 private:
  std::string dir_;
};

struct FreeHandle {
  void operator()(argment_paras *handle) const { argment_paras_free_args(handle); }
};
using Handle = std::unique_ptr<argment_paras, FreeHandle>;

Handle parse(std::initializer_list<const char *> words) {
  tarn_test::Argv args(words);
  Handle handle(argment_paras_create(args.argc(), args.argv()));
  EXPECT_NE(handle, nullptr);
  return handle;
}

// The two info lines of a run of line whose child got `count` words.
std::vector<std::string> run_lines(const std::string &line, int count) {
  const std::string n = std::to_string(count);
  return {"run child packman, cmd is " + line + "\n",
          "exitcode:[" + n + "] cmd:[" + line + "] cmd_result:[packman got " + n + " words]\n"};
}

TEST_F(UtilsTest, ExecuteCommandRunsTheChildWithPFirstThenTheOptions) {
  Packman packman;
  Handle handle = parse({"prog", "-a", "x", "-b"});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(packman.path().c_str(), handle.get()), 4);
  EXPECT_EQ(packman.words(), (std::vector<std::string>{"-p", "-a", "x", "-b"}));
  EXPECT_EQ(tarn_test::messages("info"), run_lines(packman.path() + " -p -a x -b", 4));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
}

TEST_F(UtilsTest, ExecuteCommandFollowsTheTableOrderNotTheCommandLine) {
  Packman packman;
  Handle handle = parse({"prog", "-b", "1", "-a", "2", "-b", "3", "-p", "z"});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(packman.path().c_str(), handle.get()), 8);
  EXPECT_EQ(packman.words(),
            (std::vector<std::string>{"-p", "-b", "1", "3", "-a", "2", "-p", "z"}));
  EXPECT_EQ(tarn_test::messages("info"), run_lines(packman.path() + " -p -b 1 3 -a 2 -p z", 8));
}

TEST_F(UtilsTest, ExecuteCommandKeepsAnArgumentWithBlanksOneWord) {
  Packman packman;
  Handle handle = parse({"prog", "-f", "my file", "-g", "a  b", "-h", " lead"});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(packman.path().c_str(), handle.get()), 7);
  EXPECT_EQ(packman.words(),
            (std::vector<std::string>{"-p", "-f", "my file", "-g", "a  b", "-h", " lead"}));
  EXPECT_EQ(tarn_test::messages("info"),
            run_lines(packman.path() + " -p -f my\" \"file -g a\" \"\" \"b -h \" \"lead", 7));
}

TEST_F(UtilsTest, ExecuteCommandCutsAQuotedArgumentAtItsBuffer) {
  Packman packman;
  // Quoting happens in 1124 bytes: the copy keeps 1123, and the quote,
  // blank, quote that replaces the blank pushes two more out.
  const std::string argument = "a " + std::string(2000, 'b');
  Handle handle = parse({"prog", "-a", argument.c_str()});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(packman.path().c_str(), handle.get()), 3);
  EXPECT_EQ(packman.words(), (std::vector<std::string>{"-p", "-a", "a " + std::string(1119, 'b')}));
}

TEST_F(UtilsTest, ExecuteCommandCutsTheLineAtItsBuffer) {
  Packman packman;
  // Two words after the program name: (2 + 1) * 1025 + 3 bytes, so the line
  // keeps 3077 characters.
  const std::string argument(5000, 'c');
  Handle handle = parse({"prog", "-a", argument.c_str()});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(packman.path().c_str(), handle.get()), 3);
  const std::string prefix = packman.path() + " -p -a ";
  const std::string kept(3077 - prefix.size(), 'c');
  EXPECT_EQ(packman.words(), (std::vector<std::string>{"-p", "-a", kept}));
  EXPECT_EQ(tarn_test::messages("info"), run_lines(prefix + kept, 3));
}

TEST_F(UtilsTest, ExecuteCommandRefusesANullProgramOrHandleSilently) {
  Packman packman;
  Handle handle = parse({"prog", "-a"});
  tarn_test::clear_logs();
  EXPECT_EQ(execute_command(nullptr, handle.get()), (int32_t)0xFFFFFFFF);
  EXPECT_EQ(execute_command(packman.path().c_str(), nullptr), -1);
  EXPECT_FALSE(packman.ran());
  EXPECT_NO_LINES();
}

TEST_F(UtilsTest, ExecuteCommandOutOfMemoryEndsTheProcessWithStatusZero) {
  Packman packman;
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&packman] {
    Handle handle = parse({"prog", "-a", "x"});
    tarn_test::fail_allocation_after(0);
    execute_command(packman.path().c_str(), handle.get());
  });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_FALSE(outcome.lines.empty());
  EXPECT_EQ(outcome.lines.back().word, "fatal");
  EXPECT_EQ(outcome.lines.back().message, "Out of memory\n");
  EXPECT_FALSE(packman.ran());
}

}  // namespace
