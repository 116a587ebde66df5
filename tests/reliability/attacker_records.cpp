// The app home record against the local attacker. The record is open to
// every user, so anything in it may be the attacker's; the root calls that
// read it must not take the attacker's text for the agent's.

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "install_root.h"
#include "local_user.h"
#include "log_checks.h"
#include "reset_test.h"
#include "tarn_apphome.h"
#include "tarnbase/tarn_log.h"

namespace {

using tarn_test::as_local_user;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::write_file;

class RecordAttackTest : public tarn_test::ResetTest<tarn_test::clear_install_root> {};

// A record that the agent opened to all users.
void open_record(const std::string &text) {
  ASSERT_TRUE(write_file(kRecordPath, text, 0666));
  ASSERT_EQ(0, chmod(tarn_test::kInstallRoot, 0755));
}

TEST_F(RecordAttackTest, ALineSmuggledPastANulByteIsNotRead) {
  open_record(tarn_test::record_text(kHomeA));
  const std::string forged = std::string("[apphome]\napp_home=") + kHomeA + std::string(1, '\0') +
                             "\napp_home=smuggled\n";
  ASSERT_EQ(0, as_local_user([&] { return write_file(kRecordPath, forged, 0666) ? 0 : 1; }));

  char name[1024] = "untouched";
  EXPECT_EQ(1, tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0));
  EXPECT_STREQ("untouched", name);
  EXPECT_LOGGED("warn", "tarn_ini_file_load is failed\n");
}

// The record and its backup after a fresh process, with group as the
// agent group ("": none), updated them: "mode gid" of each.
std::string record_access_after_update(const std::string &group) {
  const int status = tarn_test::with_agent_group(group, [] { return tarn_apphome_update(kHomeA, nullptr); });
  if (status != 0) return "update gave " + std::to_string(status);
  std::string access;
  for (const char *path : {kRecordPath, tarn_test::kBackupPath}) {
    struct stat st;
    if (stat(path, &st) != 0) return std::string("no ") + path;
    access += tarn_test::format("%04o %u;", (unsigned)(st.st_mode & 07777), (unsigned)st.st_gid);
  }
  return access;
}

// A user in no group of the agent's.
constexpr uid_t kOtherUser = 65533;
constexpr gid_t kOtherGroup = 65533;

// Whether a user of uid and gid, with no other group, can read path.
bool readable_by(uid_t uid, gid_t gid, const char *path) {
  return tarn_test::as_user(uid, gid, [&] { return open(path, O_RDONLY | O_CLOEXEC) >= 0 ? 0 : 1; }) == 0;
}

TEST_F(RecordAttackTest, WithoutAnAgentGroupTheRecordIsOpenToAllUsers) {
  EXPECT_EQ("0666 0;0666 0;", record_access_after_update(""));
  EXPECT_TRUE(readable_by(kOtherUser, kOtherGroup, kRecordPath));
}

TEST_F(RecordAttackTest, WithAnAgentGroupOnlyRootAndTheGroupReachTheRecord) {
  EXPECT_EQ("0660 65534;0660 65534;", record_access_after_update("nogroup"));
  EXPECT_TRUE(readable_by(tarn_test::kLocalUser, tarn_test::kLocalGroup, kRecordPath));
  EXPECT_FALSE(readable_by(kOtherUser, kOtherGroup, kRecordPath));
  EXPECT_FALSE(readable_by(kOtherUser, kOtherGroup, tarn_test::kBackupPath));
  const std::string before = tarn_test::read_file(kRecordPath);
  EXPECT_EQ(1, tarn_test::as_user(kOtherUser, kOtherGroup, [] { return write_file(kRecordPath, "forged", 0666) ? 0 : 1; }));
  EXPECT_EQ(before, tarn_test::read_file(kRecordPath));
}

}  // namespace
