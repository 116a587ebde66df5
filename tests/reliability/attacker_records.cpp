// The app home record against the local attacker. The record is open to
// every user, so anything in it may be the attacker's; the root calls that
// read it must not take the attacker's text for the agent's.

#include <string.h>
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>

#include "install_root.h"
#include "local_user.h"
#include "log_checks.h"
#include "reset_test.h"
#include "tarn_apphome.h"

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

}  // namespace
