// Command lines against the local attacker: names and values that user
// 65534 plants on disk (a package file in a directory it may write, the app
// home record, which is open to every user) reach root's command lines.
// None of them may end their quotes and run a command as root; the system's
// tar, run by root, makes no device node or FIFO, keeps no owner or set-ID
// bit of the archive and leaves the caller's environment alone.

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "install_root.h"
#include "local_user.h"
#include "log_checks.h"
#include "reset_test.h"
#include "seccomp_probe.h"
#include "tar_builder.h"
#include "tarn_utils.h"
#include "utils_internal.h"

extern char **environ;

namespace {

using tarn_test::as_local_user;
using tarn_test::format;
using tarn_test::write_file;

constexpr char kPwned[] = "/tmp/pwned";

void remove_tree(const std::string &path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

class ShellAttackTest : public tarn_test::ResetTest<tarn_test::clear_install_root> {
 protected:
  void SetUp() override {
    ResetTest::SetUp();
    unlink(kPwned);
    umask(022);
    // A drop directory that the user may write, and root's destination.
    ASSERT_TRUE(tarn_test::make_dirs(kDrop));
    ASSERT_EQ(0, chmod(kDrop, 01777));
    ASSERT_TRUE(tarn_test::make_dirs(kDest));
  }
  void TearDown() override {
    remove_tree(kDrop);
    remove_tree(kDest);
    unlink(kPwned);
    ResetTest::TearDown();
  }

  static constexpr char kDrop[] = "/tmp/tarn_drop";
  static constexpr char kDest[] = "/tmp/tarn_dest";
};

// A well-formed package archive: pkg/file.txt.
std::string package_bytes() {
  return tarn_test::gzip_of(tarn_test::tar_of({{"pkg/", "", '5', "0000755"}, {"pkg/file.txt", "text"}}));
}

TEST_F(ShellAttackTest, APackageNamedToRunACommandIsRefusedAndRunsNothing) {
  // Each name with the way the refusal line shows it. A name holds no '/':
  // a command run from it would write "pwned" into the working directory,
  // /tmp for this test.
  const std::pair<std::string, std::string> names[] = {
      {"pkg$(id>pwned).tgz", "pkg$(id>pwned).tgz"},
      {"pkg`id>pwned`.tgz", "pkg`id>pwned`.tgz"},
      {"pkg\";id>pwned;\".tgz", "pkg\";id>pwned;\".tgz"},
      {"pkg\\\";id>pwned;\\\".tgz", "pkg\\\";id>pwned;\\\".tgz"},
      {"pkg';id>pwned;'.tgz", "pkg';id>pwned;'.tgz"},
      {"pkg\nid>pwned\n.tgz", "pkg\\x0aid>pwned\\x0a.tgz"},
  };
  const std::filesystem::path working = std::filesystem::current_path();
  std::filesystem::current_path("/tmp");
  const std::string bytes = package_bytes();
  for (const auto &name : names) {
    const std::string path = std::string(kDrop) + "/" + name.first;
    ASSERT_EQ(0, as_local_user([&] { return write_file(path, bytes, 0644) ? 0 : 1; })) << name.first;
    tarn_test::clear_logs();
    EXPECT_EQ(1, unpack_tgz(path.c_str(), kDest)) << name.first;
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{format("refused text for a shell command: [%s/%s]\n", kDrop,
                                               name.second.c_str())}));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
    EXPECT_FALSE(tarn_test::exists(kPwned)) << name.first;
    EXPECT_TRUE(tarn_test::list_directory(kDest).empty()) << name.first;
  }
  std::filesystem::current_path(working);
}

TEST_F(ShellAttackTest, ARecordValueNamedToRunACommandStartsNoBackup) {
  // A single directory name, as the record's readers take it: only the
  // check of shell text stands in its way. Its command would write "pwned"
  // in the working directory.
  const std::string name = "x$(id>pwned)";
  ASSERT_TRUE(write_file(tarn_test::kRecordPath, tarn_test::record_text("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), 0666));
  ASSERT_EQ(0, chmod(tarn_test::kInstallRoot, 0755));
  ASSERT_EQ(0, as_local_user([&] {
    return write_file(tarn_test::kRecordPath, tarn_test::record_text(name), 0666) ? 0 : 1;
  }));
  // The tool that the command line would name, so that only the check stops it.
  ASSERT_TRUE(tarn_test::make_dirs(tarn_test::under_root(name) + "/bin"));
  ASSERT_TRUE(write_file(tarn_test::under_root(name) + "/bin/tarn_backup", "#!/bin/sh\nexit 0\n", 0755));

  EXPECT_EQ(1, tarn_backup_by_subprocess("/var/backup"));
  EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{"start backup by subprocess\n"}));
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("refused text for a shell command: [%s/bin/tarn_backup]\n",
                                             tarn_test::under_root(name).c_str())}));
  // A started bash would have made it by now or soon: the call returns after
  // the start; nothing was started, so nothing can make it later either.
  EXPECT_FALSE(tarn_test::exists("pwned"));
}

TEST_F(ShellAttackTest, AnArchiveOfDevicesFifosForeignOwnersAndSetIdBitsMakesNoneOfThem) {
  using Member = tarn_test::TarMember;
  Member chr{"pkg/chr", "", '3', "0000666"};
  chr.devmajor = "0000001";
  chr.devminor = "0000003";
  Member blk{"pkg/blk", "", '4', "0000666"};
  blk.devmajor = "0000007";
  blk.devminor = "0000000";
  Member fifo{"pkg/fifo", "", '6', "0000666"};
  Member suid{"pkg/suid", "#!/bin/sh\n", '0', "0004755"};
  Member sgid_dir{"pkg/sgid_dir/", "", '5', "0002775"};
  Member owned{"pkg/owned.txt", "owned", '0', "0000644"};
  for (Member *member : {&chr, &blk, &fifo, &suid, &sgid_dir, &owned}) member->uid = member->gid = "0177776";
  const std::string bytes =
      tarn_test::gzip_of(tarn_test::tar_of({{"pkg/", "", '5', "0000755"}, chr, blk, fifo, suid, sgid_dir, owned}));
  const std::string path = std::string(kDrop) + "/pkg.tgz";
  ASSERT_EQ(0, as_local_user([&] { return write_file(path, bytes, 0644) ? 0 : 1; }));

  const int32_t code = unpack_tgz(path.c_str(), kDest);
  // tar refuses the special entries and says so with exit code 2; the
  // failure path then removes the half-unpacked package.
  EXPECT_EQ(2, code);
  const std::string command = format("tar -zxf \"%s\" -C \"%s\"", path.c_str(), kDest);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 3u) << tarn_test::dump_logs();
  EXPECT_EQ(lines[0].word, "info");
  EXPECT_EQ(lines[0].message, format("exitcode:[2] cmd:[%s] cmd_result:[]\n", command.c_str()));
  EXPECT_EQ(lines[1].word, "warn");
  EXPECT_EQ(lines[1].message, format("unzip tgz failed with 2, cmd:%s\n", command.c_str()));
  EXPECT_EQ(lines[2].word, "info");
  EXPECT_EQ(lines[2].message, format("remove unpack cache dir [%s/pkg]\n", kDest));
  EXPECT_TRUE(tarn_test::list_directory(kDest).empty());
}

// The same archive without the special entries is unpacked: what is left
// belongs to root and has no set-ID bit; and the special entries alone
// never appear, seen while tar runs.
TEST_F(ShellAttackTest, WhatRootsTarMakesIsRootsWithoutSetIdBitsAndNoSpecialFileAppears) {
  using Member = tarn_test::TarMember;
  Member fifo{"pkg/fifo", "", '6', "0000666"};
  Member chr{"pkg/chr", "", '3', "0000666"};
  chr.devmajor = "0000001";
  chr.devminor = "0000003";
  Member suid{"pkg/suid", "#!/bin/sh\n", '0', "0006755"};
  Member sgid_dir{"pkg/sgid_dir/", "", '5', "0002775"};
  for (Member *member : {&fifo, &chr, &suid, &sgid_dir}) member->uid = member->gid = "0177776";
  const std::string clean = std::string(kDrop) + "/clean.tgz";
  const std::string special = std::string(kDrop) + "/special.tgz";
  ASSERT_EQ(0, as_local_user([&] {
    const bool ok = write_file(clean, tarn_test::gzip_of(tarn_test::tar_of({suid, sgid_dir})), 0644) &&
                    write_file(special, tarn_test::gzip_of(tarn_test::tar_of({fifo, chr, {"keep/x", "x"}})), 0644);
    return ok ? 0 : 1;
  }));

  EXPECT_EQ(0, unpack_tgz(clean.c_str(), kDest)) << tarn_test::dump_logs();
  for (const char *name : {"/pkg/suid", "/pkg/sgid_dir"}) {
    struct stat st;
    ASSERT_EQ(0, lstat((std::string(kDest) + name).c_str(), &st)) << name;
    EXPECT_EQ(0u, st.st_uid) << name;
    EXPECT_EQ(0u, st.st_gid) << name;
    EXPECT_EQ(0u, st.st_mode & (S_ISUID | S_ISGID)) << name;
  }

  tarn_test::clear_logs();
  // special's base name is not in it: nothing is removed after the failure.
  EXPECT_EQ(2, unpack_tgz(special.c_str(), kDest));
  struct stat st;
  EXPECT_NE(0, lstat((std::string(kDest) + "/pkg/chr").c_str(), &st));
  if (tarn_test::seccomp_filters_available()) {
    EXPECT_NE(0, lstat((std::string(kDest) + "/pkg/fifo").c_str(), &st));
  }
  EXPECT_EQ("x", tarn_test::read_file(std::string(kDest) + "/keep/x"));
  const std::string command = format("tar -zxf \"%s\" -C \"%s\"", special.c_str(), kDest);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("unzip tgz failed with 2, cmd:%s\n", command.c_str())}));
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("exitcode:[2] cmd:[%s] cmd_result:[]\n", command.c_str())}));
}

TEST_F(ShellAttackTest, TheCallersEnvironmentIsNeitherChangedNorReplacedWhileTarRuns) {
  const std::string path = std::string(kDrop) + "/pkg.tgz";
  const std::string bytes = package_bytes();
  ASSERT_EQ(0, as_local_user([&] { return write_file(path, bytes, 0644) ? 0 : 1; }));
  ASSERT_EQ(0, unsetenv("TAR_OPTIONS"));
  std::vector<std::string> before;
  for (char **entry = environ; *entry != nullptr; ++entry) before.push_back(*entry);
  char **const array_before = environ;

  std::atomic<bool> done{false};
  std::atomic<unsigned> seen{0};
  std::atomic<unsigned> reads{0};
  std::thread reader([&] {
    while (!done.load()) {
      if (getenv("TAR_OPTIONS") != nullptr) ++seen;
      ++reads;
    }
  });
  const int32_t code = unpack_tgz(path.c_str(), kDest);
  done = true;
  reader.join();

  EXPECT_EQ(0, code) << tarn_test::dump_logs();
  EXPECT_EQ(0u, seen.load());
  EXPECT_GT(reads.load(), 0u);
  EXPECT_EQ(array_before, environ);
  std::vector<std::string> after;
  for (char **entry = environ; *entry != nullptr; ++entry) after.push_back(*entry);
  EXPECT_EQ(before, after);
  EXPECT_EQ("text", tarn_test::read_file(std::string(kDest) + "/pkg/file.txt"));
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("exitcode:[0] cmd:[tar -zxf \"%s\" -C \"%s\"] cmd_result:[]\n",
                                             path.c_str(), kDest)}));
}

}  // namespace
