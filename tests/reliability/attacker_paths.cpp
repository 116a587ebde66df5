// Paths against the local attacker. The app home record is open to every
// user, so a value in it may be the attacker's path; and a package may be
// named after a live directory. The root calls must never take the
// attacker's directory for the app home, nor remove what they did not make.

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_ini.h>

#include "com_info.h"
#include "files.h"
#include "install_root.h"
#include "local_user.h"
#include "log_checks.h"
#include "reset_test.h"
#include "tarn_apphome.h"
#include "tarn_directory.h"
#include "tarn_process_control.h"

namespace {

using tarn_test::as_local_user;
using tarn_test::exists;
using tarn_test::format;
using tarn_test::kEscapingName;
using tarn_test::kHomeA;
using tarn_test::kInstallRoot;
using tarn_test::kOutsideHome;
using tarn_test::kRecordPath;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

void remove_outside_home() {
  std::error_code ignored;
  std::filesystem::remove_all(kOutsideHome, ignored);
}

class PathAttackTest
    : public tarn_test::ResetTest<tarn_test::clear_install_root, remove_outside_home> {
 protected:
  // The agent's app home kHomeA, recorded in a record and a backup that the
  // agent opened to all users.
  void SetUp() override {
    ResetTest::SetUp();
    ASSERT_TRUE(tarn_test::lay_out_open_record(kHomeA));
    // A directory of the user's own.
    ASSERT_EQ(0, mkdir(kOutsideHome, 0755));
    ASSERT_EQ(0, chown(kOutsideHome, tarn_test::kLocalUser, tarn_test::kLocalGroup));
  }
};

// The user makes an operational app home of their own, with a service
// program and a services directory, and points the record at it.
int plant_outside_home() {
  const std::string home = kOutsideHome;
  if (!tarn_test::make_dirs(home + "/config/flags") || !tarn_test::make_dirs(home + "/bin") ||
      !tarn_test::make_dirs(home + "/config/services/TARN")) {
    return 1;
  }
  if (!write_file(home + "/config/flags/flag_operational", "") ||
      !write_file(home + "/bin/tarn_service", "#!/bin/sh\n", 0755)) {
    return 2;
  }
  return write_file(kRecordPath, record_text(kEscapingName), 0666) ? 0 : 3;
}

const std::string kRecordEmpty = std::string("app_home is empty in ") + kRecordPath + "\n";

TEST_F(PathAttackTest, ARecordPointingOutsideTheInstallRootIsNeverUsed) {
  ASSERT_EQ(0, as_local_user(plant_outside_home));
  const std::string not_a_name = tarn_test::not_directory_name_warning(kEscapingName);

  // The record is not valid: it names no app home.
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 2);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{not_a_name, "get apphome field failed\n",
                                      "tarn_apphome_get_apphome get apphome is failed\n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty()) << tarn_test::dump_logs();

  // The path helpers find no app home.
  tarn_test::clear_logs();
  char out[1024] = "untouched";
  EXPECT_EQ(get_apphome_path_main(out, sizeof(out)), 1);
  EXPECT_STREQ(out, "untouched");
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{not_a_name, kRecordEmpty}));

  // "@" paths are not expanded into the user's directory.
  tarn_test::clear_logs();
  tarn_agent_path_transform("@/tarn_service", out, sizeof(out));
  EXPECT_EQ(std::string(out), tarn_test::executable_directory() + "/tarn_service");
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{not_a_name, kRecordEmpty}));

  // Nothing is installed into the user's directory.
  tarn_test::clear_logs();
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  ASSERT_NE(ini, nullptr);
  ASSERT_EQ(tarn_ini_file_set(ini, "service", "path", "@/tarn_service"), 0);
  EXPECT_EQ(install_tarn_process("tarn_x", ini), -1);
  tarn_ini_file_free(ini);
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{not_a_name, kRecordEmpty}));
  EXPECT_EQ(tarn_test::messages("error"),
            (std::vector<std::string>{
                "install_tarn_process tarn_x failed: get_apphome_path_main failed!\n"}));
  EXPECT_EQ(tarn_test::list_directory(std::string(kOutsideHome) + "/config/services/TARN"),
            (std::set<std::string>{}));

  // Reduction restores the agent's record from the backup.
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_reduction_file(), 0);
  EXPECT_EQ(tarn_test::load_ini(kRecordPath), (tarn_test::Sections{{"apphome", {{"app_home", kHomeA}}}}));
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{not_a_name, "get apphome field failed\n",
                                      "tarn_apphome_get_apphome get apphome is failed\n"}));
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("resume app_home is [%s]\n", kHomeA),
                                      "restore ini from file successful!\n",
                                      "resum apphome successed from backup\n"}));
  char path[1024];
  EXPECT_EQ(get_apphome_path_main(path, sizeof(path)), 0);
  EXPECT_EQ(std::string(path), under_root(kHomeA));
}

TEST_F(PathAttackTest, APathThatClimbsOutOfTheInstallRootIsNotInIt) {
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/../../../tmp/evil/x.so"), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/0a1b/../../../../tmp/evil/x.so"), 0);
  EXPECT_EQ(is_path_in_tarn("/usr/share/velmora/TARN/0a1b/bin/x.so"), 1);
  EXPECT_NO_LINES();
}

// A package that the user hands over, named after the live app home, and
// unpacked by root into the install root, fails: the live app home stays.
class PackageAttackTest : public PathAttackTest {
 protected:
  const std::string archive_ = std::string(kOutsideHome) + "/" + kHomeA + ".tgz";

  // The live app home is still there, flags and all.
  void expect_live_home() {
    EXPECT_TRUE(exists(under_root(kHomeA) + "/config/flags/flag_operational"));
    EXPECT_TRUE(exists(under_root(kHomeA) + "/config/flags/flag_operational_backup"));
    EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
  }
  std::string tar_command() const {
    return format("tar -zxf \"%s\" -C \"%s\"", archive_.c_str(), kInstallRoot);
  }
  std::string kept() const {
    return format("unpack cache dir [%s] was there before the unpack, kept\n",
                  under_root(kHomeA).c_str());
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> got;
    for (const tarn_test::LogLine &line : tarn_test::logs()) got.push_back(line.word + " " + line.message);
    return got;
  }
};

TEST_F(PackageAttackTest, APackageNamedAfterTheLiveAppHomeThatTarRefusesLeavesIt) {
  ASSERT_EQ(0, as_local_user([&] { return write_file(archive_, "not a gzip stream") ? 0 : 1; }));
  com_info_var info;
  memset(&info, 0, sizeof(info));
  EXPECT_EQ(unpack_com(archive_.c_str(), kInstallRoot, &info), 1u);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         "info " + format("exitcode:[2] cmd:[%s] cmd_result:[]\n", tar_command().c_str()),
                         "warn " + format("unzip tgz failed with 2, cmd:%s\n", tar_command().c_str()),
                         "info " + kept(),
                         "warn " + format("unzip component failed, tgz: %s\n", archive_.c_str())}));
  expect_live_home();
}

TEST_F(PackageAttackTest, APackageNamedAfterTheLiveAppHomeWithoutAManifestLeavesIt) {
  ASSERT_EQ(0, as_local_user([&] {
              const std::string staging = std::string(kOutsideHome) + "/pkg";
              const std::string top = staging + "/" + kHomeA;
              if (!tarn_test::make_dirs(top) || !write_file(top + "/readme", "x")) return 1;
              const std::string command = "tar -czf '" + archive_ + "' -C '" + staging + "' '" + kHomeA + "'";
              return system(command.c_str()) == 0 ? 0 : 2;
            }));
  const std::string manifest = under_root(kHomeA) + "/config/component_info/" + kHomeA + ".ejs";
  com_info_var info;
  memset(&info, 0, sizeof(info));
  EXPECT_EQ(unpack_com(archive_.c_str(), kInstallRoot, &info), 1u);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         "info " + format("exitcode:[0] cmd:[%s] cmd_result:[]\n", tar_command().c_str()),
                         "warn " + format("load plugin config: %s failed\n", manifest.c_str()),
                         "info " + format("load component info failed from (%s)\n", manifest.c_str()),
                         "info " + kept()}));
  expect_live_home();
}

}  // namespace
