// Tests of the app home record: the record file's path, the architecture
// strings, the UUID form of app home names, reading and checking the record
// and its backup, updating both, restoring the record from the backup, the
// operational flags, the service version, and rebuilding the record from
// the app home directories below the install root (reduction); then several
// processes updating and reading at once, and updaters killed in the middle
// of a save.
//
// The platform answers are interposed below, so each test says whether the
// machine needs the companion "app_home_x86"; so is the opening of the
// directory walk, so that a test can make it fail. Failures of locks, saves,
// permission grants and copies are injected by file_faults.h, which also
// writes down the order of lock and save calls. Every test starts and ends
// with an empty install root.

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <tarnbase/tarn_dirwalk.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_platform.h>

#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "file_faults.h"
#include "install_root.h"
#include "interpose.h"
#include "log_checks.h"
#include "manifests.h"
#include "tarn_apphome.h"
#include "tarn_apphome_internal.h"
#include "time_limit.h"

// ---------------------------------------------------------------------------
// Interposed platform answers: the real ones unless a test set its own.

namespace {

struct PlatformAnswer {
  bool platform_set = false;
  int platform_error = 0;  // returned instead of an answer when not 0
  tarn_os_platform_t platform = {0, 0};
  bool cpu_set = false;
  int cpu = 0;
  int cpu_calls = 0;
};
PlatformAnswer g_answer;

// The walks opened, with their arguments, and the error that makes the
// opening fail when it is not 0.
struct WalkAnswer {
  int error = 0;
  std::vector<std::string> calls;  // "<root> <depth> <flags> <err null or not>"
};
WalkAnswer g_walk;

using tarn_test::next_definition;

}  // namespace

extern "C" {

int tarn_get_os_platform(tarn_os_platform_t *out) {
  if (!g_answer.platform_set) {
    return next_definition<int (*)(tarn_os_platform_t *)>("tarn_get_os_platform")(out);
  }
  if (g_answer.platform_error != 0) return g_answer.platform_error;
  if (out == nullptr) return EINVAL;
  *out = g_answer.platform;
  return 0;
}

int tarn_get_cpu_arch(void) {
  ++g_answer.cpu_calls;
  if (!g_answer.cpu_set) return next_definition<int (*)(void)>("tarn_get_cpu_arch")();
  return g_answer.cpu;
}

tarn_dirwalk_t *tarn_dirwalk_create(const char *root, int depth, int flags, int *err) {
  g_walk.calls.push_back(std::string(root != nullptr ? root : "<null>") + " " + std::to_string(depth) +
                         " " + std::to_string(flags) + (err == nullptr ? " null" : " err"));
  if (g_walk.error != 0) {
    if (err != nullptr) *err = g_walk.error;
    errno = g_walk.error;
    return nullptr;
  }
  return next_definition<tarn_dirwalk_t *(*)(const char *, int, int, int *)>("tarn_dirwalk_create")(
      root, depth, flags, err);
}

}  // extern "C"

namespace {

using tarn_test::dump_logs;
using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::kBackupLockPath;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kHomeX86;
using tarn_test::kHomeX86B;
using tarn_test::kInstallRoot;
using tarn_test::kRecordLockPath;
using tarn_test::kRecordPath;
using tarn_test::kServicePath;
using tarn_test::load_ini;
using tarn_test::make_apphome;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::Sections;
using tarn_test::under_root;
using tarn_test::write_file;

void set_machine(int kind, int width, int cpu) {
  g_answer.platform_set = true;
  g_answer.platform_error = 0;
  g_answer.platform = {kind, width};
  g_answer.cpu_set = true;
  g_answer.cpu = cpu;
}

// An x64 machine that carries the companion x86 app home.
void companion_machine() { set_machine(TARN_OS_PLATFORM_X86_COMPANION, TARN_OS_PLATFORM_WIDTH_64, 2); }
// An x64 machine without one.
void plain_machine() { set_machine(TARN_OS_PLATFORM_LINUX, TARN_OS_PLATFORM_WIDTH_64, 2); }

Sections apphome_only(const std::string &name) { return {{"apphome", {{"app_home", name}}}}; }

Sections apphome_with_arch(const std::string &name, const std::string &arch) {
  return {{"apphome", {{"app_home", name}, {"app_home_x86", arch}}}};
}

// The lock and save events, without the grants and copies.
std::vector<std::string> lock_and_save_events() {
  std::vector<std::string> events;
  for (const std::string &event : tarn_test::file_events()) {
    if (event.rfind("grant ", 0) != 0 && event.rfind("copy ", 0) != 0) events.push_back(event);
  }
  return events;
}

std::string joined(const std::vector<std::string> &events) {
  std::string text;
  for (const std::string &event : events) text += "  " + event + "\n";
  return text;
}

// Runs body in a child that reports its int result through a pipe.
class ChildCall {
 public:
  explicit ChildCall(const std::function<int()> &body) {
    pid_ = tarn_test::fork_child([&]() {
      result_.close_read();
      result_.write_int(body());
      return 0;
    });
    result_.close_write();
  }
  ~ChildCall() {
    if (pid_ > 0) tarn_test::kill_and_reap(pid_);
  }
  ChildCall(const ChildCall &) = delete;
  ChildCall &operator=(const ChildCall &) = delete;

  // The child's result, if it came within timeout_ms.
  std::optional<int> result(int timeout_ms) {
    int value = 0;
    if (!result_.read_int(&value, timeout_ms)) return std::nullopt;
    tarn_test::reap(pid_);
    pid_ = -1;
    return value;
  }

 private:
  tarn_test::Pipe result_;
  pid_t pid_ = -1;
};

// ---------------------------------------------------------------------------
// The fixture: fakes and faults at their defaults, an x64 machine without
// the companion, and an empty install root, before and after every test.

class AppHomeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    plain_machine();
  }
  void TearDown() override { reset(); }

  static void reset() {
    tarn_test::reset_fakes();
    tarn_test::clear_file_faults();
    g_answer = PlatformAnswer();
    g_walk = WalkAnswer();
    tarn_test::clear_install_root();
    std::error_code ignored;
    std::filesystem::remove_all(tarn_test::kOutsideHome, ignored);
  }
};

// ---------------------------------------------------------------------------
// The record file's path.

TEST_F(AppHomeTest, GetFileWritesTheRecordPathIntoFortyOneBytes) {
  char buf[41];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(tarn_apphome_get_file(buf, 41), 0);
  EXPECT_STREQ(buf, "/usr/share/velmora/TARN/tarn_apphome.ini");
  EXPECT_EQ(strlen(buf), 40u);
  char big[1024];
  EXPECT_EQ(tarn_apphome_get_file(big, sizeof(big)), 0);
  EXPECT_STREQ(big, kRecordPath);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, GetFileRefusesFortyBytesAndWritesNothing) {
  char buf[64];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(tarn_apphome_get_file(buf, 40), -1);
  EXPECT_EQ(buf[0], 'Z');
  EXPECT_EQ(buf[39], 'Z');
  EXPECT_LOGGED("warn", "get apphoem file is failed, length 40 is low\n");
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_get_file(buf, 1), -1);
  EXPECT_LOGGED("warn", "get apphoem file is failed, length 1 is low\n");
}

TEST_F(AppHomeTest, GetFileRefusesANullBufferAndALengthOfZeroOrBelow) {
  char buf[64];
  EXPECT_EQ(tarn_apphome_get_file(nullptr, 64), -1);
  EXPECT_EQ(tarn_apphome_get_file(buf, 0), -1);
  EXPECT_EQ(tarn_apphome_get_file(buf, -41), -1);
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// The architecture strings.

TEST_F(AppHomeTest, SysArchOnPlatformKindOneFollowsTheWidthAndIgnoresTheCpu) {
  set_machine(1, 1, TARN_CPU_ARCH_ARM64);
  EXPECT_STREQ(tarn_apphome_sys_arch_str(), "x86");
  EXPECT_EQ(g_answer.cpu_calls, 1);  // asked even though the answer is not used
  set_machine(1, 2, TARN_CPU_ARCH_MIPS64);
  g_answer.cpu_calls = 0;
  EXPECT_STREQ(tarn_apphome_sys_arch_str(), "x64");
  EXPECT_EQ(g_answer.cpu_calls, 1);
  set_machine(1, 2, 99);
  EXPECT_STREQ(tarn_apphome_sys_arch_str(), "x64");
}

TEST_F(AppHomeTest, SysArchElsewhereMapsTheCpuCode) {
  const struct {
    int cpu;
    const char *arch;
  } cases[] = {{2, "x64"}, {1, "x86"}, {3, "arm64"}, {4, "mips64"}};
  for (const auto &c : cases) {
    set_machine(TARN_OS_PLATFORM_LINUX, TARN_OS_PLATFORM_WIDTH_64, c.cpu);
    EXPECT_STREQ(tarn_apphome_sys_arch_str(), c.arch) << "cpu " << c.cpu;
    set_machine(TARN_OS_PLATFORM_LINUX, TARN_OS_PLATFORM_WIDTH_32, c.cpu);
    EXPECT_STREQ(tarn_apphome_sys_arch_str(), c.arch) << "cpu " << c.cpu << " width 1";
  }
}

TEST_F(AppHomeTest, SysArchIsNullForAnUnknownCpuCode) {
  for (int cpu : {0, 5, 99, -1}) {
    set_machine(TARN_OS_PLATFORM_LINUX, TARN_OS_PLATFORM_WIDTH_64, cpu);
    EXPECT_EQ(tarn_apphome_sys_arch_str(), nullptr) << "cpu " << cpu;
  }
  set_machine(0, 2, 7);
  EXPECT_EQ(tarn_apphome_sys_arch_str(), nullptr);
}

TEST_F(AppHomeTest, SysArchIsNullWhenThePlatformQueryFails) {
  set_machine(1, 2, 2);
  g_answer.platform_error = EIO;
  EXPECT_EQ(tarn_apphome_sys_arch_str(), nullptr);
  EXPECT_EQ(g_answer.cpu_calls, 0);
}

TEST_F(AppHomeTest, ComArchIsX86OnlyOnPlatformKindOneOfWidthTwo) {
  set_machine(1, 2, 2);
  EXPECT_STREQ(tarn_apphome_com_arch_str(), "x86");
  set_machine(1, 2, 3);  // the CPU does not matter
  EXPECT_STREQ(tarn_apphome_com_arch_str(), "x86");
  set_machine(1, 1, 1);
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
  set_machine(2, 2, 2);
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
  set_machine(0, 2, 2);
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
  set_machine(1, 2, 2);
  g_answer.platform_error = ENOSYS;
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
}

TEST_F(AppHomeTest, ArchStringsOfThisMachineFollowItsKernel) {
  g_answer = PlatformAnswer();  // the base library's own answers
  struct utsname name;
  ASSERT_EQ(uname(&name), 0);
  const std::string machine = name.machine;
  const char *expected = machine == "x86_64"    ? "x64"
                         : machine == "aarch64" ? "arm64"
                         : machine == "mips64"  ? "mips64"
                                                : nullptr;
  if (expected == nullptr) GTEST_SKIP() << "machine " << machine;
  EXPECT_STREQ(tarn_apphome_sys_arch_str(), expected);
  // The sandbox's configuration does not declare a companion platform.
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
}

// ---------------------------------------------------------------------------
// The UUID form of app home names.

TEST_F(AppHomeTest, CheckFormatAcceptsUuidTextOfEitherCase) {
  EXPECT_EQ(tarn_apphome_check_format(kHomeA), 0);
  EXPECT_EQ(tarn_apphome_check_format("0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D"), 0);
  EXPECT_EQ(tarn_apphome_check_format("0a1B2c3D-4e5F-4A6b-8c7D-9E0f1a2B3c4D"), 0);
  EXPECT_EQ(tarn_apphome_check_format("00000000-0000-0000-0000-000000000000"), 0);
}

TEST_F(AppHomeTest, CheckFormatRejectsAFirstGroupOfSevenDigits) {
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), -1);
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d9-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), -1);
}

TEST_F(AppHomeTest, CheckFormatRejectsANonHexadecimalCharacterInAnyGroup) {
  const char *names[] = {
      "0a1b2g3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d", "0a1b2c3d-4e5z-4a6b-8c7d-9e0f1a2b3c4d",
      "0a1b2c3d-4e5f-4a 6b-8c7d-9e0f1a2b3c4d", "0a1b2c3d-4e5f-4a6b-8c7-d9e0f1a2b3c4d",
      "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3x4d", "0a1b2c3d_4e5f_4a6b_8c7d_9e0f1a2b3c4d",
  };
  for (const char *name : names) EXPECT_EQ(tarn_apphome_check_format(name), -1) << name;
}

TEST_F(AppHomeTest, CheckFormatRejectsMissingGroupsEmptyTextAndNull) {
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d"), -1);
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d-"), -1);
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4"), -1);
  EXPECT_EQ(tarn_apphome_check_format(""), -1);
  EXPECT_EQ(tarn_apphome_check_format("tarn_apphome.ini"), -1);
  EXPECT_EQ(tarn_apphome_check_format(nullptr), -1);
}

TEST_F(AppHomeTest, CheckFormatDoesNotLookPastTheTwelfthDigitOfTheLastGroup) {
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d5"), 0);
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d.old"), 0);
  EXPECT_EQ(tarn_apphome_check_format("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d/bin"), 0);
}

// ---------------------------------------------------------------------------
// Reading the record.

TEST_F(AppHomeTest, GetApphomeRefusesANullPathOrBuffer) {
  char name[64];
  EXPECT_EQ(tarn_apphome_get_apphome(nullptr, name, sizeof(name), nullptr, 0), -1);
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, nullptr, 64, nullptr, 0), -1);
  EXPECT_NO_LINES();
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(AppHomeTest, GetApphomeCopiesTheAppHomeName) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char name[1024];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 0);
  EXPECT_STREQ(name, kHomeA);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, GetApphomeCutsTheNameToTheBuffer) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char name[16];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, 9, nullptr, 0), 0);
  EXPECT_STREQ(name, "0a1b2c3d");
  EXPECT_EQ(name[9], 'Z');
}

TEST_F(AppHomeTest, GetApphomeReadsTheBackupFileUnderTheBackupsLock) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  char name[64] = {0};
  EXPECT_EQ(tarn_apphome_get_apphome(kBackupPath, name, sizeof(name), nullptr, 0), 0);
  EXPECT_STREQ(name, kHomeB);
  const std::string lock = kBackupLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "release " + lock,
                                      "destroy " + lock}))
      << joined(tarn_test::file_events());
}

TEST_F(AppHomeTest, GetApphomeOfAMissingFileIsOne) {
  char name[64];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
  EXPECT_EQ(name[0], 'Z');
  EXPECT_LOGGED("warn", "tarn_ini_file_load is failed\n");
  // The lock was given back.
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
  const std::vector<std::string> events = lock_and_save_events();
  ASSERT_EQ(events.size(), 4u) << joined(events);
  EXPECT_EQ(events[2], std::string("release ") + kRecordLockPath);
  EXPECT_EQ(events[3], std::string("destroy ") + kRecordLockPath);
}

TEST_F(AppHomeTest, GetApphomeOfARecordWithoutAppHomeIsOne) {
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\napp_home_x86=" + std::string(kHomeX86) + "\n"));
  char name[64];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
  EXPECT_EQ(name[0], 'Z');
  EXPECT_LOGGED("warn", "get apphome field failed\n");
}

// The record is open to every user: a value that is not a directory name
// would take the app home out of the install root.
TEST_F(AppHomeTest, GetApphomeTakesAValueThatIsNotADirectoryNameForAMissingOne) {
  for (const char *value : tarn_test::kNotDirectoryNames) {
    SCOPED_TRACE(value);
    tarn_test::clear_logs();
    ASSERT_TRUE(write_file(kRecordPath, record_text(value)));
    char name[64] = "keep";
    EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
    EXPECT_STREQ(name, "keep");
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{tarn_test::not_directory_name_warning(value),
                                        "get apphome field failed\n"}));
    EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
  }
}

TEST_F(AppHomeTest, GetApphomeTakesACompanionThatIsNotADirectoryNameForAMissingOne) {
  companion_machine();
  for (const char *value : tarn_test::kNotDirectoryNames) {
    SCOPED_TRACE(value);
    tarn_test::clear_logs();
    ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, value)));
    char name[64] = {0};
    char arch[64] = "keep";
    EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)), 0);
    EXPECT_STREQ(name, kHomeA);
    EXPECT_STREQ(arch, "keep");
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{tarn_test::not_directory_name_warning(value)}));
  }
}

// Readers do not check the UUID form: any single directory name is read.
TEST_F(AppHomeTest, GetApphomeReadsANameThatIsNotUuidText) {
  companion_machine();
  ASSERT_TRUE(write_file(kRecordPath, record_text("my home..", ".x86")));
  char name[64] = {0};
  char arch[64] = {0};
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)), 0);
  EXPECT_STREQ(name, "my home..");
  EXPECT_STREQ(arch, ".x86");
  EXPECT_NO_LINES();
}

// A record of exactly size bytes naming kHomeA, padded by a key of its own.
std::string record_of_size(size_t size) {
  const std::string head = record_text(kHomeA) + "\n[pad]\nk=";
  return head + std::string(size - head.size() - 1, 'p') + "\n";
}

TEST_F(AppHomeTest, GetApphomeReadsARecordAtTheSizeBoundAndRefusesOneByteMore) {
  constexpr size_t kBound = 1024 * 1024;
  ASSERT_TRUE(write_file(kRecordPath, record_of_size(kBound)));
  char name[64] = {0};
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 0) << dump_logs();
  EXPECT_STREQ(name, kHomeA);
  EXPECT_NO_LINES();
  ASSERT_TRUE(write_file(kRecordPath, record_of_size(kBound + 1)));
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
  EXPECT_EQ(name[0], 'Z');
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
  EXPECT_LOGGED("warn", "tarn_ini_file_load is failed\n");
}

TEST_F(AppHomeTest, GetApphomeRefusesARecordOrBackupThatIsNotARegularFileAtOnce) {
  for (const char *path : {kRecordPath, kBackupPath}) {
    for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
      const std::string what = std::string(path) + " as " + tarn_test::describe(kind);
      SCOPED_TRACE(what);
      tarn_test::clear_logs();
      ASSERT_TRUE(tarn_test::make_not_a_file(path, kind));
      char name[64];
      memset(name, 'Z', sizeof(name));
      EXPECT_EQ(
          tarn_test::within_time_limit("tarn_apphome_get_apphome of " + what,
                                       [&] { return tarn_apphome_get_apphome(path, name, sizeof(name), nullptr, 0); }),
          1);
      EXPECT_EQ(name[0], 'Z');
      EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
      EXPECT_LOGGED("warn", "tarn_ini_file_load is failed\n");
      // The validity check reports it as a record that cannot be read.
      tarn_test::clear_logs();
      EXPECT_EQ(tarn_test::within_time_limit("tarn_apphome_check_validity of " + what,
                                             [&] { return tarn_apphome_check_validity(path); }),
                2);
      EXPECT_EQ(tarn_test::messages("warn"),
                (std::vector<std::string>{"tarn_ini_file_load is failed\n",
                                          "tarn_apphome_get_apphome get apphome is failed\n"}));
      EXPECT_TRUE(tarn_test::is_not_a_file(path, kind));
      EXPECT_FALSE(tarn_test::lock_is_held(std::string(path) + ".lock"));
    }
  }
}

TEST_F(AppHomeTest, GetApphomeReadsTheCompanionNameWhereTheMachineNeedsIt) {
  companion_machine();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  char name[64] = {0};
  char arch[64] = {0};
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)), 0);
  EXPECT_STREQ(name, kHomeA);
  EXPECT_STREQ(arch, kHomeX86);
  // Cut to its buffer.
  memset(arch, 'Z', sizeof(arch));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, 5), 0);
  EXPECT_STREQ(arch, "2c3d");
}

TEST_F(AppHomeTest, GetApphomeWithoutTheCompanionValueSucceedsAndKeepsTheCallersText) {
  companion_machine();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char name[64] = {0};
  char arch[64] = "keep";
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)), 0);
  EXPECT_STREQ(name, kHomeA);
  EXPECT_STREQ(arch, "keep");
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, GetApphomeReadsNoCompanionNameWithoutABufferOrOnAPlainMachine) {
  companion_machine();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  char name[64] = {0};
  char arch[64] = "keep";
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, 0), 0);
  EXPECT_STREQ(arch, "keep");
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 64), 0);
  plain_machine();
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)), 0);
  EXPECT_STREQ(name, kHomeA);
  EXPECT_STREQ(arch, "keep");
}

TEST_F(AppHomeTest, GetApphomeGivesOneWhenTheLockCannotBeOpened) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  char name[64];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
  EXPECT_EQ(name[0], 'Z');
  EXPECT_LOGGED("warn", format("flock init failed, errcode is %d\n", EACCES));
  EXPECT_EQ(lock_and_save_events(), std::vector<std::string>{std::string("init ") + kRecordLockPath});
}

TEST_F(AppHomeTest, GetApphomeGivesOneWhenTheLockCannotBeTakenAndClosesIt) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  char name[64];
  memset(name, 'Z', sizeof(name));
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 1);
  EXPECT_EQ(name[0], 'Z');
  EXPECT_LOGGED("warn", format("flock acquire failed, errcode is %d\n", ENOLCK));
  const std::string lock = kRecordLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(AppHomeTest, GetApphomeWaitsForTheRecordsLock) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kRecordLockPath);
  ASSERT_TRUE(holder.held());
  ChildCall reader([] {
    char name[64] = {0};
    const int ret = tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0);
    return ret == 0 && strcmp(name, kHomeA) == 0 ? 0 : 1;
  });
  EXPECT_FALSE(reader.result(300).has_value()) << "the read did not wait for the lock";
  holder.release();
  EXPECT_EQ(reader.result(10000), std::optional<int>(0));
}

// ---------------------------------------------------------------------------
// Validity of the record and of its backup.

TEST_F(AppHomeTest, ValidityOfNullIsMinusOne) {
  EXPECT_EQ(tarn_apphome_check_validity(nullptr), -1);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, ValidityOfAMissingFileIsOne) {
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 1);
  EXPECT_LOGGED("warn", format("file %s is no exist, errcode:0x%x\n", kRecordPath, ENOENT));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(AppHomeTest, ValidityOfARecordWithoutAppHomeIsTwo) {
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\nupgrade_lock_count=1\n"));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 2);
  EXPECT_LOGGED("warn", "get apphome field failed\n");
  EXPECT_LOGGED("warn", "tarn_apphome_get_apphome get apphome is failed\n");
  // An unreadable record is reported the same way.
  tarn_test::clear_logs();
  ASSERT_TRUE(write_file(kRecordPath, "this is not an ini file\n"));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 2);
  EXPECT_LOGGED("warn", "tarn_ini_file_load is failed\n");
  EXPECT_LOGGED("warn", "tarn_apphome_get_apphome get apphome is failed\n");
}

TEST_F(AppHomeTest, ValidityStopsAtTheFirstFailure) {
  companion_machine();
  ASSERT_TRUE(write_file(kRecordPath, "[other]\nkey=value\n"));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 2);
  EXPECT_NOT_LOGGED("warn", "tarn_apphome_get_apphome get apphome_arch is failed\n");
}

TEST_F(AppHomeTest, ValidityWhereTheCompanionIsNeededButMissingOrEmptyIsThree) {
  companion_machine();
  make_apphome(kHomeA, true, true);
  make_apphome(kHomeX86, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 3);
  EXPECT_LOGGED("warn", "tarn_apphome_get_apphome get apphome_arch is failed\n");
  tarn_test::clear_logs();
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\napp_home=" + std::string(kHomeA) +
                                          "\napp_home_x86=\n"));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 3);
  EXPECT_LOGGED("warn", "tarn_apphome_get_apphome get apphome_arch is failed\n");
}

TEST_F(AppHomeTest, ValidityWithAnAppHomeThatIsNotOperationalIsFour) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  const std::string dir = under_root(kHomeA);
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 4);
  EXPECT_LOGGED("warn", format("apphome is invalid, %s no exists, errcode:0x%x\n", dir.c_str(), ENOENT));
  EXPECT_LOGGED("info", format("current path %s not operational path, errcode:0x%x\n", dir.c_str(), ENOENT));
  EXPECT_LOGGED("info",
                format("current path %s not operational backup path, errcode:0x%x\n", dir.c_str(), ENOENT));
  // A directory without flags is no better.
  make_apphome(kHomeA, false, false);
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 4);
}

TEST_F(AppHomeTest, ValidityWithACompanionThatIsNotOperationalIsFive) {
  companion_machine();
  make_apphome(kHomeA, true, false);
  make_apphome(kHomeX86, false, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 5);
  EXPECT_LOGGED("warn", format("apphome_arch is invalid, %s no exists, errcode:0x%x\n",
                               under_root(kHomeX86).c_str(), ENOENT));
}

TEST_F(AppHomeTest, ValidRecordsAreZero) {
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();

  companion_machine();
  make_apphome(kHomeX86, true, true);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA, kHomeX86)));
  EXPECT_EQ(tarn_apphome_check_validity(kBackupPath), 0);
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
}

TEST_F(AppHomeTest, ValidityNeverChecksADirectoryOutsideTheInstallRoot) {
  companion_machine();
  make_apphome(tarn_test::kEscapingName, true, true);
  make_apphome(kHomeA, true, true);
  make_apphome(kHomeX86, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(tarn_test::kEscapingName, kHomeX86)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 2);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{tarn_test::not_directory_name_warning(tarn_test::kEscapingName),
                                      "get apphome field failed\n",
                                      "tarn_apphome_get_apphome get apphome is failed\n"}));
  tarn_test::clear_logs();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, tarn_test::kEscapingName)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 3);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{tarn_test::not_directory_name_warning(tarn_test::kEscapingName),
                                      "tarn_apphome_get_apphome get apphome_arch is failed\n"}));
  EXPECT_TRUE(tarn_test::messages("info").empty()) << dump_logs();
}

TEST_F(AppHomeTest, ValidityOfANameThatIsNotUuidTextIsZero) {
  make_apphome("my-home", true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text("my-home")));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, ValidityRestoresTheFlagOfAnAppHomeThatHasOnlyItsSpare) {
  const std::string dir = make_apphome(kHomeA, false, true, "", "spare");
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "spare");
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational_backup"), "spare");
  // The record itself is never written.
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
}

TEST_F(AppHomeTest, ValidityOnAPlainMachineIgnoresABrokenCompanion) {
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA, kHomeX86)));  // no such directory
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
  EXPECT_FALSE(exists(under_root(kHomeX86)));
}

TEST_F(AppHomeTest, ValidityOfACompleteRecordWithOnlyAppHomeOnAPlainMachine) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
}

// ---------------------------------------------------------------------------
// Updating the record and its backup.

TEST_F(AppHomeTest, UpdateOfNullIsMinusOne) {
  EXPECT_EQ(tarn_apphome_update(nullptr, kHomeX86), -1);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, UpdateWithoutARecordCreatesOneHoldingOnlyTheAppHomeSection) {
  EXPECT_EQ(tarn_apphome_update(kHomeA, nullptr), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeA)));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_LOGGED("info", "after load\n");
  EXPECT_LOGGED("info", "backup ini to file successful!\n");
  // Both files are open to every user.
  EXPECT_EQ(file_mode(kRecordPath) & 0666, 0666);
  EXPECT_EQ(file_mode(kBackupPath) & 0666, 0666);
}

TEST_F(AppHomeTest, UpdateOfAnExistingRecordKeepsItsOtherSectionsAndKeys) {
  ASSERT_TRUE(write_file(kRecordPath,
                         "[agent]\nid=42\n\n[apphome]\napp_home=" + std::string(kHomeA) +
                             "\nupgrade_lock_count=2\nnote=kept\n\n[z]\nlast=1\n"));
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 0) << dump_logs();
  const Sections expected = {{"agent", {{"id", "42"}}},
                             {"apphome",
                              {{"app_home", kHomeB}, {"upgrade_lock_count", "2"}, {"note", "kept"}}},
                             {"z", {{"last", "1"}}}};
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(expected));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_NOT_LOGGED("info", "after load\n");
}

TEST_F(AppHomeTest, UpdateOfAnUnreadableRecordStartsAfresh) {
  ASSERT_TRUE(write_file(kRecordPath, "garbage without an equals sign\n"));
  EXPECT_EQ(tarn_apphome_update(kHomeA, nullptr), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeA)));
  EXPECT_LOGGED("info", "after load\n");
}

TEST_F(AppHomeTest, UpdateOfARecordThatIsNotARegularFileStartsAfreshAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    tarn_test::clear_logs();
    ASSERT_TRUE(tarn_test::make_not_a_file(kRecordPath, kind));
    EXPECT_EQ(tarn_test::within_time_limit(
                  std::string("tarn_apphome_update of a record that is ") + tarn_test::describe(kind),
                  [&] { return tarn_apphome_update(kHomeA, nullptr); }),
              0)
        << dump_logs();
    EXPECT_EQ(tarn_test::messages("info"),
              (std::vector<std::string>{"after load\n", "backup ini to file successful!\n"}));
    EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
    // The record is a regular file again, in place of what was there.
    EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
    EXPECT_FALSE(tarn_test::is_not_a_file(kRecordPath, kind));
    EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  }
}

// An app home name of length bytes: UUID text and more after it.
std::string long_name(size_t length) { return kHomeA + std::string(length - strlen(kHomeA), 'x'); }

TEST_F(AppHomeTest, UpdateRecordsAppHomeNamesOfAnyLength) {
  for (const size_t length : {190u, 200u, 4096u}) {
    SCOPED_TRACE("a name of " + std::to_string(length) + " bytes");
    const std::string name = long_name(length);
    EXPECT_EQ(tarn_apphome_update(name.c_str(), nullptr), 0) << dump_logs();
    char read_back[8192];
    memset(read_back, 'Z', sizeof(read_back));
    EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, read_back, sizeof(read_back), nullptr, 0), 0) << dump_logs();
    EXPECT_EQ(std::string(read_back), name);
    EXPECT_EQ(read_file(kRecordPath), record_text(name));
    EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  }
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
}

TEST_F(AppHomeTest, UpdateKeepsLongLinesOfOtherSectionsAndTheUpgradeLockCount) {
  const std::string note(65535, 'n');
  const std::string section(4096, 's');
  const std::string key(4096, 'k');
  ASSERT_TRUE(write_file(kRecordPath, "[agent]\nnote = " + note + "\n\n[apphome]\napp_home=" + std::string(kHomeA) +
                                          "\nupgrade_lock_count=2\n\n[" + section + "]\n" + key + "=1\n"));
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 0) << dump_logs();
  const Sections expected = {{"agent", {{"note", note}}},
                             {"apphome", {{"app_home", kHomeB}, {"upgrade_lock_count", "2"}}},
                             {section, {{key, "1"}}}};
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(expected));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_NOT_LOGGED("info", "after load\n");
}

TEST_F(AppHomeTest, UpdateOnAPlainMachineWritesOnlyAppHome) {
  EXPECT_EQ(tarn_apphome_update(kHomeA, kHomeX86), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeA)));
  EXPECT_EQ(load_ini(kBackupPath), std::optional<Sections>(apphome_only(kHomeA)));
  EXPECT_EQ(read_file(kRecordPath).find("app_home_x86"), std::string::npos);
}

TEST_F(AppHomeTest, UpdateWhereTheCompanionIsNeededWritesBothNames) {
  companion_machine();
  EXPECT_EQ(tarn_apphome_update(kHomeA, kHomeX86), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_with_arch(kHomeA, kHomeX86)));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_EQ(tarn_apphome_update(kHomeB, kHomeX86B), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_with_arch(kHomeB, kHomeX86B)));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
}

TEST_F(AppHomeTest, UpdateWhereTheCompanionIsNeededRefusesANullCompanionName) {
  companion_machine();
  EXPECT_EQ(tarn_apphome_update(kHomeA, nullptr), 1);
  EXPECT_LOGGED("warn", "arch apphome is NULL, need arch apphome\n");
  EXPECT_FALSE(exists(kRecordPath));
  EXPECT_FALSE(exists(kBackupPath));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(AppHomeTest, UpdateWhoseSaveFailsReturnsItsCodeAndLeavesTheBackup) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_save(kRecordPath, EIO);
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), EIO);
  EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", EIO));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_EQ(read_file(kBackupPath), record_text(kHomeA));
  for (const std::string &event : tarn_test::file_events()) {
    EXPECT_EQ(event.find(kBackupPath), std::string::npos) << event;
  }
  EXPECT_NOT_LOGGED("info", "backup ini to file successful!\n");
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(AppHomeTest, UpdateWithANameThatTheRecordCannotHoldChangesNothing) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_update("two\nlines", nullptr), EINVAL);
  EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", EINVAL));
  companion_machine();
  EXPECT_EQ(tarn_apphome_update(kHomeB, " padded"), EINVAL);
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_EQ(read_file(kBackupPath), record_text(kHomeA));
}

TEST_F(AppHomeTest, UpdateWhosePermissionGrantFailsStillRefreshesTheBackup) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_grant(kRecordPath, EPERM);
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 0);
  EXPECT_LOGGED("info", format("file %s add user full control is failed, error code is %x\n",
                               kRecordPath, EPERM));
  EXPECT_LOGGED("info", "backup ini to file successful!\n");
  EXPECT_EQ(load_ini(kBackupPath), std::optional<Sections>(apphome_only(kHomeB)));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
}

TEST_F(AppHomeTest, UpdateGivesOneWhenTheRecordsLockCannotBeOpenedOrTaken) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 1);
  EXPECT_LOGGED("warn", format("flock init failed, errcode is %d\n", EACCES));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_FALSE(exists(kBackupPath));

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 1);
  EXPECT_LOGGED("warn", format("flock acquire failed, errcode is %d\n", ENOLCK));
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_FALSE(exists(kBackupPath));
  const std::string lock = kRecordLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(AppHomeTest, UpdateTakesTheRecordsLockBeforeTheBackupsAndHoldsItThroughout) {
  EXPECT_EQ(tarn_apphome_update(kHomeA, nullptr), 0);
  const std::string record_lock = kRecordLockPath;
  const std::string backup_lock = kBackupLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{
                "init " + record_lock, "acquire " + record_lock, "save " + std::string(kRecordPath),
                "init " + backup_lock, "acquire " + backup_lock, "save " + std::string(kBackupPath),
                "release " + backup_lock, "destroy " + backup_lock, "release " + record_lock,
                "destroy " + record_lock}))
      << joined(tarn_test::file_events());
}

TEST_F(AppHomeTest, UpdateWaitingForTheBackupsLockHoldsTheRecordsLock) {
  ASSERT_EQ(tarn_apphome_update(kHomeA, nullptr), 0);
  tarn_test::ForeignLock holder(kBackupLockPath);
  ASSERT_TRUE(holder.held());
  ChildCall updater([] { return tarn_apphome_update(kHomeB, nullptr); });
  // The record is saved, and its lock held, while the backup waits.
  bool record_locked = false;
  for (int i = 0; i < 500 && !record_locked; ++i) {
    record_locked = tarn_test::lock_is_held(kRecordLockPath) &&
                    load_ini(kRecordPath) == std::optional<Sections>(apphome_only(kHomeB));
    if (!record_locked) usleep(10000);
  }
  EXPECT_TRUE(record_locked);
  EXPECT_FALSE(updater.result(200).has_value());
  EXPECT_EQ(load_ini(kBackupPath), std::optional<Sections>(apphome_only(kHomeA)));
  holder.release();
  EXPECT_EQ(updater.result(10000), std::optional<int>(0));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(AppHomeTest, UpdateWhoseBackupFailsStillSucceeds) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_save(kBackupPath, ENOSPC);
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 0);
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeB)));
  EXPECT_EQ(read_file(kBackupPath), record_text(kHomeA));
  EXPECT_LOGGED("error", format("tarn_ini_file_save_directio %s failed\n", kBackupPath));
}

// ---------------------------------------------------------------------------
// Writing the backup.

class BackupIniTest : public AppHomeTest {
 protected:
  void SetUp() override {
    AppHomeTest::SetUp();
    ini_ = tarn_ini_file_load(nullptr);
    ASSERT_NE(ini_, nullptr);
    ASSERT_EQ(tarn_ini_file_set(ini_, "apphome", "app_home", kHomeB), 0);
    ASSERT_EQ(tarn_ini_file_set(ini_, "extra", "kept", "yes"), 0);
  }
  void TearDown() override {
    tarn_ini_file_free(ini_);
    AppHomeTest::TearDown();
  }
  tarn_ini_t *ini_ = nullptr;
};

TEST_F(BackupIniTest, NullDoesNothing) {
  tarn_apphome_backup_ini(nullptr);
  EXPECT_NO_LINES();
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(BackupIniTest, WritesTheObjectToTheBackupUnderItsLockAndOpensIt) {
  tarn_apphome_backup_ini(ini_);
  const Sections expected = {{"apphome", {{"app_home", kHomeB}}}, {"extra", {{"kept", "yes"}}}};
  EXPECT_EQ(load_ini(kBackupPath), std::optional<Sections>(expected));
  EXPECT_EQ(file_mode(kBackupPath) & 0666, 0666);
  EXPECT_LOGGED("info", "backup ini to file successful!\n");
  EXPECT_FALSE(exists(kRecordPath));
  const std::string lock = kBackupLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock,
                                      "save " + std::string(kBackupPath), "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(BackupIniTest, StopsWhenTheLockCannotBeOpened) {
  tarn_test::fail_flock_init(kBackupLockPath, EACCES);
  tarn_apphome_backup_ini(ini_);
  EXPECT_LOGGED("warn", format("tarn_flock_init %s failed\n", kBackupLockPath));
  EXPECT_FALSE(exists(kBackupPath));
  EXPECT_NOT_LOGGED("info", "backup ini to file successful!\n");
}

TEST_F(BackupIniTest, StopsWhenTheLockCannotBeTaken) {
  tarn_test::fail_flock_acquire(kBackupLockPath, ENOLCK);
  tarn_apphome_backup_ini(ini_);
  EXPECT_LOGGED("warn", format("tarn_flock_acquire %s failed\n", kBackupLockPath));
  EXPECT_FALSE(exists(kBackupPath));
  const std::string lock = kBackupLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(BackupIniTest, AFailedSaveIsLoggedAtError) {
  tarn_test::fail_save(kBackupPath, EROFS);
  tarn_apphome_backup_ini(ini_);
  EXPECT_LOGGED("error", format("tarn_ini_file_save_directio %s failed\n", kBackupPath));
  EXPECT_NOT_LOGGED("info", "backup ini to file successful!\n");
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(BackupIniTest, AFailedGrantIsLoggedAndTheBackupIsWritten) {
  tarn_test::fail_grant(kBackupPath, EPERM);
  tarn_apphome_backup_ini(ini_);
  EXPECT_LOGGED("warn", format("file %s add user full privileges failed, error code is 0x%x\n",
                               kBackupPath, EPERM));
  EXPECT_LOGGED("info", "backup ini to file successful!\n");
  EXPECT_TRUE(load_ini(kBackupPath).has_value());
}

// ---------------------------------------------------------------------------
// Restoring the record from the backup.

std::string error_occurd() {
  return format("error occurd when write [%s] to [%s]\n", kBackupPath, kRecordPath);
}

TEST_F(AppHomeTest, RestoreWithoutABackupFails) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("warn", format("%s is not existed!\n", kBackupPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
}

TEST_F(AppHomeTest, RestoreFromABackupWithoutAppHomeLeavesTheRecord) {
  ASSERT_TRUE(write_file(kRecordPath, "damaged"));
  ASSERT_TRUE(write_file(kBackupPath, "[apphome]\napp_home_x86=" + std::string(kHomeX86) + "\n"));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("error", format("resume app_home is empty, path is %s.\n", kBackupPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_EQ(read_file(kRecordPath), "damaged");
  EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
}

TEST_F(AppHomeTest, RestoreFromABackupWhoseAppHomeIsNotADirectoryNameLeavesTheRecord) {
  ASSERT_TRUE(write_file(kRecordPath, "damaged"));
  ASSERT_TRUE(write_file(kBackupPath, record_text(tarn_test::kEscapingName)));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{tarn_test::not_directory_name_warning(tarn_test::kEscapingName),
                                      error_occurd()}));
  EXPECT_EQ(tarn_test::messages("error"),
            (std::vector<std::string>{format("resume app_home is empty, path is %s.\n", kBackupPath)}));
  EXPECT_EQ(read_file(kRecordPath), "damaged");
}

TEST_F(AppHomeTest, RestoreFromAnUnreadableBackupFails) {
  ASSERT_TRUE(write_file(kBackupPath, "no ini here\n"));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("warn", format("load ini file %s failed\n", kBackupPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, RestoreFromABackupThatIsNotARegularFileFailsAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    tarn_test::clear_logs();
    ASSERT_TRUE(tarn_test::make_not_a_file(kBackupPath, kind));
    EXPECT_EQ(
        tarn_test::within_time_limit(std::string("the restore from a backup that is ") + tarn_test::describe(kind),
                                     [&] { return tarn_apphome_restore_from_backup(); }),
        -1);
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{format("load ini file %s failed\n", kBackupPath), error_occurd()}));
    EXPECT_FALSE(exists(kRecordPath));
    EXPECT_TRUE(tarn_test::is_not_a_file(kBackupPath, kind));
    EXPECT_FALSE(tarn_test::lock_is_held(kRecordLockPath));
  }
}

TEST_F(AppHomeTest, RestoreFailsWhenTheRecordsLockCannotBeOpenedOrTaken) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_flock_init(kRecordLockPath, EACCES);
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("warn", format("tarn_flock_init %s failed\n", kRecordLockPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_FALSE(exists(kRecordPath));

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kRecordLockPath, ENOLCK);
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("warn", format("tarn_flock_acquire %s failed\n", kRecordLockPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_FALSE(exists(kRecordPath));
  const std::string lock = kRecordLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock, "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(AppHomeTest, RestoreWhoseSaveFailsLeavesTheRecord) {
  ASSERT_TRUE(write_file(kRecordPath, "damaged"));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_save(kRecordPath, ENOSPC);
  EXPECT_EQ(tarn_apphome_restore_from_backup(), -1);
  EXPECT_LOGGED("error", format("tarn_ini_file_save_directio %s failed\n", kRecordPath));
  EXPECT_LOGGED("warn", error_occurd());
  EXPECT_EQ(read_file(kRecordPath), "damaged");
}

TEST_F(AppHomeTest, RestoreCopiesTheBackupOverTheRecord) {
  ASSERT_TRUE(write_file(kRecordPath, "damaged", 0600));
  ASSERT_TRUE(write_file(kBackupPath, "[apphome]\napp_home=" + std::string(kHomeA) +
                                          "\nupgrade_lock_count=3\n\n[agent]\nid=7\n"));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), 0) << dump_logs();
  const Sections expected = {{"apphome", {{"app_home", kHomeA}, {"upgrade_lock_count", "3"}}},
                             {"agent", {{"id", "7"}}}};
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(expected));
  EXPECT_LOGGED("info", format("resume app_home is [%s]\n", kHomeA));
  EXPECT_LOGGED("info", "restore ini from file successful!\n");
  EXPECT_NOT_LOGGED("warn", error_occurd());
  EXPECT_EQ(file_mode(kRecordPath) & 0666, 0666);
}

TEST_F(AppHomeTest, RestoreWhoseGrantFailsStillSucceeds) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::fail_grant(kRecordPath, EPERM);
  EXPECT_EQ(tarn_apphome_restore_from_backup(), 0);
  EXPECT_LOGGED("warn", format("file %s add user full privileges failed, error code is 0x%x\n",
                               kRecordPath, EPERM));
  EXPECT_LOGGED("info", "restore ini from file successful!\n");
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeA)));
}

TEST_F(AppHomeTest, RestoreTakesOnlyTheRecordsLock) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_restore_from_backup(), 0);
  const std::string lock = kRecordLockPath;
  EXPECT_EQ(lock_and_save_events(),
            (std::vector<std::string>{"init " + lock, "acquire " + lock,
                                      "save " + std::string(kRecordPath), "release " + lock,
                                      "destroy " + lock}));
}

TEST_F(AppHomeTest, RestoreIsNotBlockedByAnotherProcessHoldingTheBackupsLock) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kBackupLockPath);
  ASSERT_TRUE(holder.held());
  ChildCall restorer([] { return tarn_apphome_restore_from_backup(); });
  EXPECT_EQ(restorer.result(5000), std::optional<int>(0));
  EXPECT_EQ(load_ini(kRecordPath), std::optional<Sections>(apphome_only(kHomeA)));
}

TEST_F(AppHomeTest, RestoreWaitsForTheRecordsLock) {
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  tarn_test::ForeignLock holder(kRecordLockPath);
  ASSERT_TRUE(holder.held());
  ChildCall restorer([] { return tarn_apphome_restore_from_backup(); });
  EXPECT_FALSE(restorer.result(300).has_value());
  EXPECT_FALSE(exists(kRecordPath));
  holder.release();
  EXPECT_EQ(restorer.result(10000), std::optional<int>(0));
}

// ---------------------------------------------------------------------------
// The operational test.

TEST_F(AppHomeTest, OperationalTestRefusesNullArguments) {
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(nullptr, &err), 0);
  EXPECT_LOGGED("error", "Invalid parameter\n");
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_is_operational_path(under_root(kHomeA).c_str(), nullptr), 0);
  EXPECT_LOGGED("error", "Invalid parameter\n");
}

TEST_F(AppHomeTest, ADirectoryWithBothFlagsIsOperationalAndUnchanged) {
  const std::string dir = make_apphome(kHomeA, true, true, "flag", "spare");
  int32_t err = -7;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 1);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "flag");
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational_backup"), "spare");
  EXPECT_NO_LINES();
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(AppHomeTest, ADirectoryWithOnlyTheSpareGetsItsFlagBack) {
  const std::string dir = make_apphome(kHomeA, false, true, "", "spare-content");
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 1);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "spare-content");
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational_backup"), "spare-content");
  EXPECT_LOGGED("info", format("current path %s not operational path, errcode:0x%x\n", dir.c_str(), ENOENT));
  // Now it passes without a repair.
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 1);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, ADirectoryWithoutFlagsIsNotOperational) {
  const std::string dir = make_apphome(kHomeA, false, false);
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 0);
  EXPECT_EQ(err, ENOENT);
  EXPECT_LOGGED("info", format("current path %s not operational path, errcode:0x%x\n", dir.c_str(), ENOENT));
  EXPECT_LOGGED("info",
                format("current path %s not operational backup path, errcode:0x%x\n", dir.c_str(), ENOENT));
  EXPECT_TRUE(tarn_test::messages("warn").empty());
  EXPECT_FALSE(exists(dir + "/config/flags/flag_operational"));
  // A missing directory too.
  EXPECT_EQ(tarn_apphome_is_operational_path(under_root(kHomeB).c_str(), &err), 0);
}

TEST_F(AppHomeTest, AFailedRepairIsNotOperational) {
  const std::string dir = make_apphome(kHomeA, false, true);
  tarn_test::fail_copy(dir + "/config/flags/flag_operational", EIO);
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 0);
  EXPECT_LOGGED("info", "copy operational backup file to operational file failed\n");
  EXPECT_FALSE(exists(dir + "/config/flags/flag_operational"));
}

// A link at the spare is not copied, whatever it names: the flags
// directory is open to every user, and the copy would hand them a file
// they may not read.
TEST_F(AppHomeTest, ALinkAtTheSpareIsNotCopiedAndNotOperational) {
  const std::string dir = make_apphome(kHomeA, false, false);
  const std::string secret = under_root("secret");
  ASSERT_TRUE(write_file(secret, "secret", 0600));
  ASSERT_EQ(symlink(secret.c_str(), (dir + "/config/flags/flag_operational_backup").c_str()), 0);
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("current path %s not operational path, errcode:0x%x\n", dir.c_str(), ENOENT),
                "copy operational backup file to operational file failed\n"}));
  EXPECT_FALSE(exists(dir + "/config/flags/flag_operational"));
}

// The spare is copied only when it is a regular file: a FIFO (which would
// block the copy until the time limit ends it) and a link to /dev/zero
// (which would be copied until the file size limit ends the child) are
// refused at once, as a failed repair.
TEST_F(AppHomeTest, ASpareThatIsNotARegularFileIsNotCopiedAndNotOperational) {
  const std::string dir = make_apphome(kHomeA, false, false);
  const std::string spare = dir + "/config/flags/flag_operational_backup";
  for (const std::function<int()> &make_spare : std::vector<std::function<int()>>{
           [&] { return mkfifo(spare.c_str(), 0644); }, [&] { return symlink("/dev/zero", spare.c_str()); }}) {
    ASSERT_TRUE(unlink(spare.c_str()) == 0 || errno == ENOENT);
    ASSERT_EQ(make_spare(), 0) << strerror(errno);
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(10, [&] {
      if (!tarn_test::limit_file_size(64 * 1024)) return 2;
      int32_t err = 0;
      return tarn_apphome_is_operational_path(dir.c_str(), &err);
    });
    EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
    EXPECT_EQ(outcome.exit_status, 0);
    std::vector<std::string> lines;
    for (const tarn_test::LogLine &line : outcome.lines) lines.push_back(line.word + ": " + line.message);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "info: " + format("current path %s not operational path, errcode:0x%x\n", dir.c_str(),
                                           ENOENT),
                         "info: copy operational backup file to operational file failed\n"}));
    EXPECT_FALSE(exists(dir + "/config/flags/flag_operational"));
    EXPECT_TRUE(exists(spare));
  }
}

// ---------------------------------------------------------------------------
// Creating flags.

TEST_F(AppHomeTest, CreateFlagRefusesNullArguments) {
  EXPECT_EQ(tarn_apphome_create_flag(nullptr, "flag_operational"), -1);
  EXPECT_EQ(tarn_apphome_create_flag(under_root(kHomeA).c_str(), nullptr), -1);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(under_root(kHomeA)));
}

TEST_F(AppHomeTest, CreateFlagOnAFreshAppHomeMakesTheDirectoryAndAnEmptyFlag) {
  const std::string dir = under_root(kHomeA);
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), 0);
  EXPECT_EQ(file_mode(dir + "/config/flags"), 0777);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "");
  EXPECT_NO_LINES();
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational_backup"), 0);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational_backup"), "");
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(dir.c_str(), &err), 1);
}

// Only config/flags is shared: the app home and config, when the call
// makes them, are 0755 whatever the umask.
TEST_F(AppHomeTest, CreateFlagOnANewAppHomeSharesOnlyTheFlagsDirectory) {
  const std::string dir = under_root(kHomeB);
  const mode_t old_mask = umask(0);
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), 0);
  umask(old_mask);
  EXPECT_NO_LINES();
  EXPECT_EQ(file_mode(dir), 0755);
  EXPECT_EQ(file_mode(dir + "/config"), 0755);
  EXPECT_EQ(file_mode(dir + "/config/flags"), 0777);
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "");
}

// Anything at the flag's name that is not a regular file is neither
// followed nor taken for the flag: a link (to a file or dangling), a
// directory, a FIFO. Nothing is created or truncated through it.
TEST_F(AppHomeTest, CreateFlagOverALinkOrANonRegularFileFailsAndFollowsNothing) {
  const std::string dir = make_apphome(kHomeA, false, false);
  const std::string flag = dir + "/config/flags/flag_operational";
  const std::string victim = under_root("victim");
  const std::string target = under_root("target");
  ASSERT_TRUE(write_file(victim, "victim"));
  const std::vector<std::function<int()>> kinds = {
      [&] { return symlink(victim.c_str(), flag.c_str()); },
      [&] { return symlink(target.c_str(), flag.c_str()); },
      [&] { return mkdir(flag.c_str(), 0755); },
      [&] { return mkfifo(flag.c_str(), 0644); },
  };
  for (const auto &make : kinds) {
    ASSERT_EQ(make(), 0) << strerror(errno);
    tarn_test::clear_logs();
    EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), -1);
    EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{"flag file " + flag + " create failed\n"}));
    EXPECT_TRUE(tarn_test::messages("info").empty());
    EXPECT_EQ(read_file(victim), "victim");
    EXPECT_FALSE(exists(target));
    ASSERT_TRUE(unlink(flag.c_str()) == 0 || rmdir(flag.c_str()) == 0);
  }
}

// A link at config or config/flags is not entered: the flag is not made
// in the directory that it names.
TEST_F(AppHomeTest, CreateFlagDoesNotEnterALinkBelowTheAppHome) {
  const std::string dir = under_root(kHomeA);
  const std::string elsewhere = under_root("elsewhere");
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  ASSERT_TRUE(tarn_test::make_dirs(elsewhere + "/flags"));
  ASSERT_EQ(symlink(elsewhere.c_str(), (dir + "/config").c_str()), 0);
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), -1);
  EXPECT_LOGGED("warn", "flag file " + dir + "/config/flags/flag_operational create failed\n");
  EXPECT_FALSE(exists(elsewhere + "/flags/flag_operational"));
}

TEST_F(AppHomeTest, CreateFlagOfAnExistingFlagSaysSoAndLeavesIt) {
  const std::string dir = make_apphome(kHomeA, true, false, "content");
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), 0);
  EXPECT_LOGGED("info", dir + "/config/flags/flag_operational is existed\n");
  EXPECT_EQ(read_file(dir + "/config/flags/flag_operational"), "content");
}

TEST_F(AppHomeTest, CreateFlagMakesMissingParents) {
  const std::string dir = under_root(kHomeB);
  EXPECT_EQ(tarn_apphome_create_flag(dir.c_str(), "flag_operational"), 0);
  EXPECT_TRUE(exists(dir + "/config/flags/flag_operational"));
}

TEST_F(AppHomeTest, CreateFlagThatCannotBeCreatedIsMinusOne) {
  const std::string not_a_dir = under_root("plain_file");
  ASSERT_TRUE(write_file(not_a_dir, "x"));
  EXPECT_EQ(tarn_apphome_create_flag(not_a_dir.c_str(), "flag_operational"), -1);
  EXPECT_LOGGED("warn", "flag file " + not_a_dir + "/config/flags/flag_operational create failed\n");
}

// ---------------------------------------------------------------------------
// The service version.

void write_service(const std::string &script) { ASSERT_TRUE(write_file(kServicePath, script, 0755)); }

TEST_F(AppHomeTest, ServiceVersionWithoutTheServiceIsMinusOneAndLeavesTheBuffer) {
  char buf[64];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(tarn_apphome_get_service_version(buf, sizeof(buf)), -1);
  EXPECT_EQ(buf[0], 'Z');
  EXPECT_LOGGED("warn", format("file %s is no exist\n", kServicePath));
}

TEST_F(AppHomeTest, ServiceVersionOfANullBufferIsMinusOne) {
  write_service("#!/bin/sh\necho 1.0\n");
  EXPECT_EQ(tarn_apphome_get_service_version(nullptr, 64), -1);
  EXPECT_NO_LINES();
}

TEST_F(AppHomeTest, ServiceVersionRunsTheServiceWithDashV) {
  // The script answers only the exact argument list "-v".
  write_service("#!/bin/sh\n[ \"$#\" = 1 ] && [ \"$1\" = \"-v\" ] || exit 9\necho 3.1.4.159\n");
  char buf[64];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(tarn_apphome_get_service_version(buf, sizeof(buf)), 0) << dump_logs();
  EXPECT_STREQ(buf, "3.1.4.159");
  // Cut to the buffer.
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(tarn_apphome_get_service_version(buf, 4), 0);
  EXPECT_STREQ(buf, "3.1");
}

TEST_F(AppHomeTest, ServiceVersionReturnsTheCommandsExitStatus) {
  write_service("#!/bin/sh\necho broken\nexit 3\n");
  char buf[64];
  EXPECT_EQ(tarn_apphome_get_service_version(buf, sizeof(buf)), 3);
  EXPECT_STREQ(buf, "broken");
}

// ---------------------------------------------------------------------------
// Reduction: rebuilding the record.

constexpr char kVersion[] = "3.1.4.159";
constexpr char kRunsPath[] = "/usr/share/velmora/TARN/service_runs";

// A service at the install root that answers " -v" with version (nothing
// when it is empty) and exit status, and writes down each run.
void install_service(const std::string &version, int status = 0) {
  std::string script = "#!/bin/sh\n[ \"$#\" = 1 ] && [ \"$1\" = \"-v\" ] || exit 9\n";
  script += std::string("echo run >> ") + kRunsPath + "\n";
  if (!version.empty()) script += "echo " + version + "\n";
  script += "exit " + std::to_string(status) + "\n";
  write_service(script);
}

// How many times the service ran.
size_t service_runs() {
  const std::string runs = read_file(kRunsPath);
  return runs == "<missing>" ? 0 : (size_t)std::count(runs.begin(), runs.end(), '\n');
}

std::string manifest_of(const std::string &home, const std::string &component) {
  return under_root(home) + "/config/component_info/" + component + ".ejs";
}

// Seals the manifest of component in the app home home with json.
void seal(const std::string &home, const std::string &component, const std::string &json) {
  ASSERT_TRUE(tarn_test::make_dirs(under_root(home) + "/config/component_info"));
  ASSERT_TRUE(tarn_test::seal_manifest(manifest_of(home, component), json)) << home << " " << component;
}

std::string manifest_json(const std::string &package, const std::string &version) {
  return "{\"package\": \"" + package + "\", \"version\": \"" + version + "\", \"files\": []}";
}

// An operational app home holding the manifests of components, each
// naming itself at version.
void make_home(const std::string &name, const std::vector<std::string> &components,
               const std::string &version = kVersion) {
  make_apphome(name, true, true);
  for (const std::string &component : components) seal(name, component, manifest_json(component, version));
}
// A main app home, and a companion one (no service manifest).
void make_main_home(const std::string &name) {
  make_home(name, {"tarn_base", "tarn_sys", "tarn_service"});
}
void make_companion_home(const std::string &name) { make_home(name, {"tarn_base", "tarn_sys"}); }

std::string reduced_message(const std::string &main, const std::string &arch) {
  return "apphome reduction successed, apphome is " + main + ", apphome_arch is " + arch;
}

std::string service_version_failed(int code, const std::string &text) {
  return format("get tarn_service version is failed, errcode is %d, service ver str is %s\n", code,
                text.c_str());
}

// Lock events on the backup's lock file.
bool backup_lock_touched() {
  for (const std::string &event : tarn_test::file_events()) {
    if (event.find(kBackupLockPath) != std::string::npos) return true;
  }
  return false;
}

TEST_F(AppHomeTest, ReductionOfAValidRecordStopsAfterOneCheckWithoutReadingTheBackup) {
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  install_service(kVersion);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("apphome file is validity, path is %s\n", kRecordPath)}));
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
  EXPECT_FALSE(backup_lock_touched()) << joined(tarn_test::file_events());
  EXPECT_EQ(service_runs(), 0u);
  EXPECT_TRUE(g_walk.calls.empty());
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_EQ(read_file(kBackupPath), record_text(kHomeB));
}

TEST_F(AppHomeTest, ReductionOfADamagedRecordCopiesAValidBackupWithoutAScan) {
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, "[apphome\ngarbage\n"));
  ASSERT_TRUE(write_file(kBackupPath, "[apphome]\napp_home=" + std::string(kHomeA) + "\nextra=kept\n"));
  install_service(kVersion);
  make_main_home(kHomeB);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(read_file(kRecordPath), read_file(kBackupPath));
  EXPECT_EQ(load_ini(kRecordPath), (Sections{{"apphome", {{"app_home", kHomeA}, {"extra", "kept"}}}}));
  EXPECT_LOGGED("info", "resum apphome successed from backup\n");
  EXPECT_LOGGED("warn", "tarn_apphome_get_apphome get apphome is failed\n");
  EXPECT_EQ(service_runs(), 0u);
  EXPECT_TRUE(g_walk.calls.empty());
}

TEST_F(AppHomeTest, ReductionOfARecordNamingADirectoryOutsideTheRootRestoresTheBackup) {
  make_apphome(tarn_test::kEscapingName, true, true);
  make_apphome(kHomeA, true, true);
  ASSERT_TRUE(write_file(kRecordPath, record_text(tarn_test::kEscapingName)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(kHomeA));
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{tarn_test::not_directory_name_warning(tarn_test::kEscapingName),
                                      "get apphome field failed\n",
                                      "tarn_apphome_get_apphome get apphome is failed\n"}));
  EXPECT_LOGGED("info", "resum apphome successed from backup\n");
  EXPECT_TRUE(g_walk.calls.empty());
}

TEST_F(AppHomeTest, ReductionWhoseBackupCannotBeCopiedScans) {
  make_main_home(kHomeA);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  install_service(kVersion);
  // The record cannot be written: neither the restore nor the update can
  // save it.
  tarn_test::fail_save(kRecordPath, EIO);
  EXPECT_EQ(tarn_apphome_reduction_file(), EIO);
  EXPECT_LOGGED("warn", format("error occurd when write [%s] to [%s]\n", kBackupPath, kRecordPath));
  EXPECT_NOT_LOGGED("info", "resum apphome successed from backup\n");
  EXPECT_EQ(service_runs(), 1u);
  EXPECT_EQ(g_walk.calls, (std::vector<std::string>{std::string(kInstallRoot) + " 0 0 null"}));
  EXPECT_LOGGED("warn", format("apphome update failed, errcode %d\n", EIO));
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionScanRecordsTheMainAppHomeAndItsBackup) {
  install_service(kVersion);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(kHomeA));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_LOGGED("info", reduced_message(kHomeA, "(null)"));
  // The whole walk of the install root's own entries, links not followed.
  EXPECT_EQ(g_walk.calls, (std::vector<std::string>{std::string(kInstallRoot) + " 0 0 null"}));
  // Neither file existed, so each check stopped at once.
  EXPECT_LOGGED("warn", format("file %s is no exist, errcode:0x%x\n", kRecordPath, ENOENT));
  EXPECT_LOGGED("warn", format("file %s is no exist, errcode:0x%x\n", kBackupPath, ENOENT));
}

TEST_F(AppHomeTest, ReductionRunTwiceStopsAtTheFirstCheckTheSecondTime) {
  install_service(kVersion);
  make_main_home(kHomeA);
  ASSERT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  const std::string record = read_file(kRecordPath);
  tarn_test::clear_logs();
  tarn_test::clear_file_events();
  EXPECT_EQ(tarn_apphome_reduction_file(), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("apphome file is validity, path is %s\n", kRecordPath)}));
  EXPECT_FALSE(backup_lock_touched());
  EXPECT_EQ(service_runs(), 1u);
  EXPECT_EQ(g_walk.calls.size(), 1u);
  EXPECT_EQ(read_file(kRecordPath), record);
}

TEST_F(AppHomeTest, ReductionRecordsAQualifyingDirectoryWhoseNameGoesOnPastItsUuid) {
  // Only the name's first 36 bytes must be UUID text.
  const std::string name = long_name(36 + 200);
  install_service(kVersion);
  make_main_home(name);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(name));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_LOGGED("info", reduced_message(name, "(null)"));
  char read_back[1024] = {0};
  EXPECT_EQ(tarn_apphome_get_apphome(kRecordPath, read_back, sizeof(read_back), nullptr, 0), 0);
  EXPECT_EQ(std::string(read_back), name);
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
}

TEST_F(AppHomeTest, ReductionTakesTheFirstQualifyingDirectoryInWalkOrder) {
  install_service(kVersion);
  // Made in the opposite order: the walk goes by name, "0a1b..." first.
  make_main_home(kHomeB);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(kHomeA));
  EXPECT_LOGGED("info", reduced_message(kHomeA, "(null)"));
}

TEST_F(AppHomeTest, ReductionWalkOrderIsByteOrderSoUpperCaseNamesComeFirst) {
  install_service(kVersion);
  const std::string lower = "abcdef01-2345-4678-9abc-def012345678";
  const std::string upper = "ABCDEF01-2345-4678-9ABC-DEF012345678";
  make_main_home(lower);
  make_main_home(upper);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(upper));
}

TEST_F(AppHomeTest, ReductionNeverChoosesAnotherPackageOrVersion) {
  install_service(kVersion);
  const std::string other_package = "00000000-0000-4000-8000-000000000001";
  const std::string older = "00000000-0000-4000-8000-000000000002";
  const std::string longer = "00000000-0000-4000-8000-000000000003";
  const std::string no_version = "00000000-0000-4000-8000-000000000004";
  const std::string number_version = "00000000-0000-4000-8000-000000000005";
  const std::string no_package = "00000000-0000-4000-8000-000000000006";
  const std::string chosen = "ffffffff-0000-4000-8000-000000000000";
  make_home(other_package, {"tarn_sys", "tarn_service"});
  seal(other_package, "tarn_base", manifest_json("tarn_other", kVersion));
  make_home(older, {"tarn_base", "tarn_sys", "tarn_service"}, "3.1.4.158");
  make_home(longer, {"tarn_base", "tarn_sys", "tarn_service"}, "3.1.4.1590");
  make_home(no_version, {"tarn_sys", "tarn_service"});
  seal(no_version, "tarn_base", "{\"package\": \"tarn_base\"}");
  make_home(number_version, {"tarn_sys", "tarn_service"});
  seal(number_version, "tarn_base", "{\"package\": \"tarn_base\", \"version\": 3}");
  make_home(no_package, {"tarn_sys", "tarn_service"});
  seal(no_package, "tarn_base", "{\"version\": \"3.1.4.159\"}");
  make_main_home(chosen);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(chosen));
}

TEST_F(AppHomeTest, ReductionWithoutAQualifyingDirectoryIsMinusOneAndChangesNothing) {
  install_service(kVersion);
  const std::string record = "[apphome]\napp_home=" + std::string(kHomeB) + "\n";
  ASSERT_TRUE(write_file(kRecordPath, record));
  ASSERT_TRUE(write_file(kBackupPath, record));
  // Not UUID text; not operational (its manifests would qualify); a
  // manifest that does not authenticate; a file of a UUID name; a link to a
  // directory that would qualify.
  ASSERT_TRUE(tarn_test::make_dirs(under_root("notes")));
  make_home(kHomeA, {"tarn_base", "tarn_sys", "tarn_service"});
  ASSERT_EQ(unlink((under_root(kHomeA) + "/config/flags/flag_operational").c_str()), 0);
  ASSERT_EQ(unlink((under_root(kHomeA) + "/config/flags/flag_operational_backup").c_str()), 0);
  make_home(kHomeX86, {"tarn_base", "tarn_sys", "tarn_service"});
  ASSERT_TRUE(tarn_test::tamper_file(manifest_of(kHomeX86, "tarn_base")));
  ASSERT_TRUE(write_file(under_root("4e5f6a7b-8c9d-4e0f-8a1b-2c3d4e5f6a7b"), "a file"));
  tarn_test::ScratchDirectory elsewhere("tarn_reduction");
  const std::string real_home = elsewhere / "home";
  ASSERT_TRUE(tarn_test::make_dirs(real_home + "/config/flags"));
  ASSERT_TRUE(write_file(real_home + "/config/flags/flag_operational", ""));
  ASSERT_TRUE(tarn_test::make_dirs(real_home + "/config/component_info"));
  ASSERT_TRUE(tarn_test::seal_manifest(real_home + "/config/component_info/tarn_base.ejs",
                                       manifest_json("tarn_base", kVersion)));
  ASSERT_EQ(symlink(real_home.c_str(), under_root("5f6a7b8c-9d0e-4f1a-8b2c-3d4e5f6a7b8c").c_str()), 0);

  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_EQ(tarn_test::messages("warn").back(), "get apphome is failed\n") << dump_logs();
  EXPECT_LOGGED("info", under_root("notes") + " not apphome path\n");
  EXPECT_LOGGED("info", format("current path %s not operational path, errcode:0x%x\n",
                               under_root(kHomeA).c_str(), ENOENT));
  EXPECT_LOGGED("info", format("current path %s not operational backup path, errcode:0x%x\n",
                               under_root(kHomeA).c_str(), ENOENT));
  EXPECT_LOGGED("info", format("load plugin config: %s failed\n",
                               manifest_of(kHomeX86, "tarn_base").c_str()));
  // The record and its backup name kHomeB, which is not there.
  EXPECT_LOGGED("warn", format("apphome is invalid, %s no exists, errcode:0x%x\n",
                               under_root(kHomeB).c_str(), ENOENT));
  EXPECT_EQ(read_file(kRecordPath), record);
  EXPECT_EQ(read_file(kBackupPath), record);
  EXPECT_NOT_LOGGED("info", reduced_message(kHomeA, "(null)"));
}

TEST_F(AppHomeTest, ReductionRestoresTheFlagOfACandidateThatHasOnlyItsSpare) {
  install_service(kVersion);
  make_main_home(kHomeA);
  const std::string flag = under_root(kHomeA) + "/config/flags/flag_operational";
  ASSERT_EQ(unlink(flag.c_str()), 0);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_TRUE(exists(flag));
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(kHomeA));
}

TEST_F(AppHomeTest, ReductionWithoutTheServiceIsMinusOne) {
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_LOGGED("warn", format("file %s is no exist\n", kServicePath));
  EXPECT_EQ(tarn_test::messages("warn").back(), service_version_failed(-1, ""));
  EXPECT_TRUE(g_walk.calls.empty());
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionWithAnEmptyServiceVersionIsMinusOne) {
  install_service("");
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_EQ(tarn_test::messages("warn").back(), service_version_failed(0, ""));
  EXPECT_TRUE(g_walk.calls.empty());
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionWithAFailingServiceIsMinusOne) {
  install_service(kVersion, 3);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_EQ(tarn_test::messages("warn").back(), service_version_failed(3, kVersion));
  EXPECT_TRUE(g_walk.calls.empty());
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionWhoseWalkCannotBeOpenedIsMinusOne) {
  install_service(kVersion);
  make_main_home(kHomeA);
  g_walk.error = EMFILE;
  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_EQ(tarn_test::messages("warn").back(),
            format("tarn_dirwalk_create is failed, path is %s\n", kInstallRoot));
  EXPECT_EQ(g_walk.calls, (std::vector<std::string>{std::string(kInstallRoot) + " 0 0 null"}));
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionWhoseUpdateFailsReturnsItsCode) {
  install_service(kVersion);
  make_main_home(kHomeA);
  tarn_test::fail_save(kRecordPath, ENOSPC);
  EXPECT_EQ(tarn_apphome_reduction_file(), ENOSPC);
  EXPECT_EQ(tarn_test::messages("warn").back(), format("apphome update failed, errcode %d\n", ENOSPC));
  EXPECT_NOT_LOGGED("info", reduced_message(kHomeA, "(null)"));
  EXPECT_FALSE(exists(kRecordPath));
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(AppHomeTest, ReductionOfOnlyCompanionCandidatesFindsNoAppHome) {
  companion_machine();
  install_service(kVersion);
  make_companion_home(kHomeX86);
  EXPECT_EQ(tarn_apphome_reduction_file(), -1);
  EXPECT_EQ(tarn_test::messages("warn").back(), "get apphome is failed\n");
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(AppHomeTest, ReductionOnACompanionMachineRecordsTheCompanionUnderItsKey) {
  companion_machine();
  install_service(kVersion);
  // Main and companion app homes in walk order: A, B (main); X86, X86B.
  make_main_home(kHomeB);
  make_companion_home(kHomeX86B);
  make_companion_home(kHomeX86);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_with_arch(kHomeA, kHomeX86));
  EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  EXPECT_LOGGED("info", reduced_message(kHomeA, kHomeX86));
  // The record is now valid, companion included.
  EXPECT_EQ(tarn_apphome_check_validity(kRecordPath), 0);
}

TEST_F(AppHomeTest, ReductionOnACompanionMachineWithoutACompanionCandidateIsRefused) {
  companion_machine();
  install_service(kVersion);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), 1);
  const std::vector<std::string> warnings = tarn_test::messages("warn");
  ASSERT_GE(warnings.size(), 2u);
  EXPECT_EQ(warnings[warnings.size() - 2], "arch apphome is NULL, need arch apphome\n");
  EXPECT_EQ(warnings.back(), "apphome update failed, errcode 1\n");
  EXPECT_FALSE(exists(kRecordPath));
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(AppHomeTest, ReductionOnAPlainMachineRecordsNoCompanion) {
  install_service(kVersion);
  make_companion_home(kHomeX86);
  make_main_home(kHomeA);
  EXPECT_EQ(tarn_apphome_reduction_file(), 0) << dump_logs();
  EXPECT_EQ(load_ini(kRecordPath), apphome_only(kHomeA));
  EXPECT_LOGGED("info", reduced_message(kHomeA, kHomeX86));
}

TEST_F(AppHomeTest, ReductionOutOfMemoryForANameEndsTheProcessWithStatusZero) {
  install_service(kVersion);
  // The allocations made before the scan: those of a reduction that finds
  // nothing.
  tarn_test::reset_fakes();
  ASSERT_EQ(tarn_apphome_reduction_file(), -1);
  const unsigned before_scan = tarn_test::allocation_calls();
  make_main_home(kHomeA);
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([before_scan] {
    tarn_test::reset_fakes();
    tarn_test::fail_allocation_after(before_scan);
    tarn_apphome_reduction_file();
  });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_FALSE(outcome.lines.empty());
  EXPECT_EQ(outcome.lines.back().word, "fatal");
  EXPECT_EQ(outcome.lines.back().message, "Out of memory\n");
  EXPECT_FALSE(exists(kRecordPath));
}

// ---------------------------------------------------------------------------
// Several processes at once.

constexpr int kWriters = 8;
constexpr int kUpdatesPerWriter = 200;
constexpr int kLockedReaders = 3;
constexpr int kUnlockedReaders = 2;

std::string writer_name(int writer, int update) {
  return format("%08x-0000-4000-8000-%012x", writer, update);
}
std::string writer_arch(int writer, int update) {
  return format("%08x-1111-4000-8000-%012x", writer, update);
}

// The writer and update that wrote name, or false for any other text.
bool parse_writer_name(const char *name, const char *group2, int *writer, int *update) {
  unsigned w = 0, u = 0;
  char tail = 0;
  const std::string pattern = std::string("%8x-") + group2 + "-4000-8000-%12x%c";
  if (strlen(name) != 36 || sscanf(name, pattern.c_str(), &w, &u, &tail) != 2) return false;
  if (w >= (unsigned)kWriters || u >= (unsigned)kUpdatesPerWriter) return false;
  if (std::string(name) != (std::string(group2) == "0000" ? writer_name((int)w, (int)u)
                                                          : writer_arch((int)w, (int)u)))
    return false;
  *writer = (int)w;
  *update = (int)u;
  return true;
}

bool stop_requested(int fd) {
  struct pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, 0) > 0;
}

TEST_F(AppHomeTest, ConcurrentUpdatesAndReadsSeeOnlyCompleteRecords) {
  companion_machine();
  ASSERT_EQ(tarn_apphome_update(kHomeA, kHomeX86), 0);

  tarn_test::Barrier start;
  tarn_test::Pipe stop;
  std::vector<pid_t> writers;
  std::vector<pid_t> readers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(start.start([w] {
      for (int u = 0; u < kUpdatesPerWriter; ++u) {
        if (tarn_apphome_update(writer_name(w, u).c_str(), writer_arch(w, u).c_str()) != 0) return 1;
      }
      return 0;
    }));
  }
  // Readers under the lock: the name and its companion come from one write.
  for (int r = 0; r < kLockedReaders; ++r) {
    readers.push_back(start.start([&stop] {
      stop.close_write();  // so that the parent's close is the last
      int successes = 0;
      while (!stop_requested(stop.read_fd())) {
        char name[1024] = {0};
        char arch[1024] = {0};
        if (tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), arch, sizeof(arch)) != 0)
          continue;
        ++successes;
        if (strcmp(name, kHomeA) == 0 && strcmp(arch, kHomeX86) == 0) continue;
        int w1, u1, w2, u2;
        if (!parse_writer_name(name, "0000", &w1, &u1)) return 2;
        if (!parse_writer_name(arch, "1111", &w2, &u2)) return 3;
        if (w1 != w2 || u1 != u2) return 4;
      }
      return successes > 0 ? 0 : 5;
    }));
  }
  // Readers without the lock rely on the record being replaced whole.
  for (int r = 0; r < kUnlockedReaders; ++r) {
    readers.push_back(start.start([&stop] {
      stop.close_write();  // so that the parent's close is the last
      int successes = 0;
      while (!stop_requested(stop.read_fd())) {
        tarn_ini_t *ini = tarn_ini_file_load(kRecordPath);
        if (ini == nullptr) continue;
        const char *name = tarn_ini_file_get(ini, "apphome", "app_home");
        const char *arch = tarn_ini_file_get(ini, "apphome", "app_home_x86");
        int w1 = -1, u1 = -1, w2 = -2, u2 = -2;
        const bool initial = name != nullptr && arch != nullptr && strcmp(name, kHomeA) == 0 &&
                             strcmp(arch, kHomeX86) == 0;
        const bool complete = initial || (name != nullptr && arch != nullptr &&
                                          parse_writer_name(name, "0000", &w1, &u1) &&
                                          parse_writer_name(arch, "1111", &w2, &u2) && w1 == w2 &&
                                          u1 == u2);
        tarn_ini_file_free(ini);
        if (!complete) return 6;
        ++successes;
      }
      return successes > 0 ? 0 : 5;
    }));
  }
  start.open();
  for (pid_t pid : writers) EXPECT_EQ(tarn_test::reap(pid), 0);
  stop.close_write();  // end of file: readers stop
  for (pid_t pid : readers) EXPECT_EQ(tarn_test::reap(pid), 0);

  // Each writer's last update is the last of some writer, and the backup
  // equals the record.
  const std::string record = read_file(kRecordPath);
  EXPECT_EQ(read_file(kBackupPath), record);
  const std::optional<Sections> sections = load_ini(kRecordPath);
  ASSERT_TRUE(sections.has_value());
  int w1, u1, w2, u2;
  ASSERT_TRUE(parse_writer_name(sections->at("apphome").at("app_home").c_str(), "0000", &w1, &u1));
  ASSERT_TRUE(parse_writer_name(sections->at("apphome").at("app_home_x86").c_str(), "1111", &w2, &u2));
  EXPECT_EQ(w1, w2);
  EXPECT_EQ(u1, kUpdatesPerWriter - 1);
  EXPECT_EQ(u2, kUpdatesPerWriter - 1);
}

TEST_F(AppHomeTest, AnUpdaterKilledAtAnyMomentLeavesTheOldOrTheNewRecord) {
  constexpr int kTrials = 200;
  std::mt19937 rng(20241121u);
  std::uniform_int_distribution<int> delay_us(0, 3000);
  ASSERT_EQ(tarn_apphome_update(kHomeA, nullptr), 0);
  for (int trial = 0; trial < kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    tarn_test::Pipe ready;
    const pid_t child = tarn_test::fork_child([&ready] {
      ready.close_read();
      ready.send('R');
      for (int i = 0;; ++i) tarn_apphome_update(i % 2 == 0 ? kHomeB : kHomeA, nullptr);
      return 0;
    });
    ASSERT_GT(child, 0);
    ready.close_write();
    ASSERT_EQ(ready.receive(), 'R');
    usleep((useconds_t)delay_us(rng));
    EXPECT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(tarn_test::reap(child), tarn_test::killed_by(SIGKILL));

    for (const char *path : {kRecordPath, kBackupPath}) {
      const std::optional<Sections> sections = load_ini(path);
      ASSERT_TRUE(sections.has_value()) << path << ":\n" << read_file(path);
      ASSERT_TRUE(*sections == apphome_only(kHomeA) || *sections == apphome_only(kHomeB))
          << path << ":\n" << read_file(path);
    }
    // The dead process's locks are gone: the record reads at once.
    char name[64] = {0};
    ASSERT_EQ(tarn_apphome_get_apphome(kRecordPath, name, sizeof(name), nullptr, 0), 0);
    ASSERT_TRUE(strcmp(name, kHomeA) == 0 || strcmp(name, kHomeB) == 0) << name;
  }
  // Kills that came in the middle of a save leave its temporary file.
  int interrupted_saves = 0;
  for (const auto &entry : std::filesystem::directory_iterator(kInstallRoot)) {
    if (entry.path().filename().string().find(".tmp.") != std::string::npos) ++interrupted_saves;
  }
  RecordProperty("interrupted_saves", interrupted_saves);
  printf("%d of %d kills interrupted a save\n", interrupted_saves, kTrials);
}

}  // namespace
