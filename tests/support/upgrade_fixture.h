// The setting of the upgrade tests: an install root holding the operational
// app homes kHomeA (recorded) and kHomeB, each with the service
// configuration "tarn_service.eni", and a boot id that the test sets.
//
// The boot id is a file in the test's private /tmp, bind-mounted once per
// process over /proc/sys/kernel/random/boot_id in the sandbox's own mount
// namespace; set_boot_id rewrites it in place, so the mount keeps showing it.
#ifndef TARN_TEST_UPGRADE_FIXTURE_H
#define TARN_TEST_UPGRADE_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "fakes.h"
#include "install_root.h"  // also the file, directory and container headers used here

namespace tarn_test {

constexpr char kJournalPath[] = "/usr/share/velmora/TARN/tarn_upgrade.ini";
constexpr char kBootId1[] = "6f1c2a3b-0d4e-4f5a-9b6c-7d8e9f0a1b2c";
constexpr char kBootId2[] = "7a2d3b4c-1e5f-4a6b-8c7d-8e9f0a1b2c3d";
constexpr char kBootId3[] = "8b3e4c5d-2f6a-4b7c-9d8e-9f0a1b2c3d4e";

// Puts id (and a line end, as the kernel writes it) into the boot id file.
inline bool set_boot_id(const std::string &id) {
  static bool mounted = false;
  const char *file = "/tmp/upgrade_test_boot_id";
  const int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string text = id + "\n";
  const bool written = write(fd, text.data(), text.size()) == (ssize_t)text.size();
  close(fd);
  if (!written) return false;
  if (!mounted) {
    mounted = mount(file, "/proc/sys/kernel/random/boot_id", nullptr, MS_BIND, nullptr) == 0;
  }
  return mounted;
}

class UpgradeFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_fakes();
    ASSERT_TRUE(set_boot_id(kBootId1)) << "bind mount of the boot id: " << strerror(errno);
    ASSERT_TRUE(lay_out());
  }

  // Empties the install root and lays out the two app homes and the record
  // naming kHomeA. Returns whether all was written.
  bool lay_out() {
    clear_install_root();
    for (const char *home : {kHomeA, kHomeB}) {
      make_apphome(home, true, true);
      const std::string services = under_root(home) + "/config/services/TARN";
      const std::string config = services + "/tarn_service.eni";
      struct stat info;
      if (!make_dirs(services) ||
          !write_file(config, std::string("[service]\nhome=") + home + "\n") ||
          stat(config.c_str(), &info) != 0) {
        return false;
      }
      config_inodes_[home] = info.st_ino;
    }
    return write_file(kRecordPath, record_text(kHomeA)) && write_file(kBackupPath, record_text(kHomeA));
  }
  void TearDown() override {
    clear_install_root();
    reset_fakes();
  }

  // The record's "app_home", "<unreadable>" when it cannot be loaded.
  static std::string recorded_home() {
    const auto record = load_ini(kRecordPath);
    if (!record) return "<unreadable>";
    auto sections = record.value();
    return sections["apphome"]["app_home"];
  }

  // Whether the service configuration of home was rewritten (a new file
  // put in place, as restart_tarn_process does) since SetUp.
  bool service_config_renewed(const std::string &home) {
    struct stat info;
    const std::string path = under_root(home) + "/config/services/TARN/tarn_service.eni";
    return stat(path.c_str(), &info) == 0 && info.st_ino != config_inodes_[home];
  }

 private:
  std::map<std::string, ino_t> config_inodes_;
};

}  // namespace tarn_test

#endif
