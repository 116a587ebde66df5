// Tests of the environment checks: administrator rights (as root, and in a
// child that has become an unprivileged user), free space (with the disk
// query answered by the test, and for real on small tmpfs mounts), the
// default check with its backup directory, and the UOS version rule read
// from the real /etc/os-release and /etc/os-version.
//
// Everything runs in the test sandbox's own mount namespace: /etc and /tmp
// are private overlays and the tmpfs mounts are seen by no one else. The
// data root (below which the backup directory lies) is set per test through
// data_root.h.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <tarnbase/tarn_device.h>

#include "child_logs.h"
#include "data_root.h"
#include "fakes.h"
#include "files.h"
#include "log_checks.h"
#include "tarn_environment_check.h"

// ---------------------------------------------------------------------------
// The disk query, answered by the test when it sets an answer, otherwise by
// the base library. Every query is recorded.

namespace {

struct DiskAnswer {
  int result;          // what tarn_device_disk_space returns
  uint64_t available;  // stored when result is not 0
  int error;           // errno when result is 0
};

struct DiskQuery {
  std::string path;
  int kind;
  bool operator==(const DiskQuery &other) const { return path == other.path && kind == other.kind; }
};

std::optional<DiskAnswer> g_disk_answer;
std::vector<DiskQuery> g_disk_queries;

}  // namespace

extern "C" int tarn_device_disk_space(const char *path, int kind, uint64_t *bytes) {
  g_disk_queries.push_back({path != nullptr ? path : "<null>", kind});
  if (!g_disk_answer) {
    using Query = int (*)(const char *, int, uint64_t *);
    return reinterpret_cast<Query>(dlsym(RTLD_NEXT, "tarn_device_disk_space"))(path, kind, bytes);
  }
  if (g_disk_answer->result == 0) {
    errno = g_disk_answer->error;
  } else {
    *bytes = g_disk_answer->available;
  }
  return g_disk_answer->result;
}

namespace {

using tarn_test::ChildOutcome;
using Line = std::pair<std::string, std::string>;  // level word, message
using Lines = std::vector<Line>;

constexpr uint64_t kPage = 4096;
constexpr uint64_t kDefaultNeeded = 0x20000000;  // 512 MiB
constexpr char kDataRoot[] = "/tmp/envc_data";
constexpr char kBackupDir[] = "/tmp/envc_data/velmora/TARN3_BACKUP/tarn_components";
constexpr char kOpenRoot[] = "/tmp/envc_open";  // a data root that everyone may write
constexpr char kOsRelease[] = "/etc/os-release";
constexpr char kOsVersion[] = "/etc/os-version";
constexpr uid_t kNobody = 65534;

// Exit status of a child that could not give up its privileges.
constexpr int kCannotDrop = 77;

const Line kNotAdminErrno0 = {"warn", "Failed to check administrator permissions. error:0 \n"};
const Line kInsufficient = {"warn", "Insufficient permissions, administrator permissions required\n"};
const Line kNoSpace = {"warn", "Failed to obtain system available disk space\n"};
const Line kInvalid = {"warn", "invalid parameter\n"};
const Line kBackupPathLine = {"info", std::string("backup_path ") + kBackupDir + "\n"};
const Line kNoOsRelease = {"info", "read /etc/os-release failed, continue\n"};
const Line kNoOsVersion = {"info", "read /etc/os-version failed, continue\n"};

Lines lines_of(const std::vector<tarn_test::LogLine> &captured) {
  Lines lines;
  for (const tarn_test::LogLine &line : captured) lines.push_back({line.word, line.message});
  return lines;
}

Lines captured_lines() { return lines_of(tarn_test::logs()); }

std::string text_of(const std::vector<tarn_test::LogLine> &captured) {
  std::string text;
  for (const tarn_test::LogLine &line : captured) text += "  " + line.line;
  return text.empty() ? "  (no lines)" : text;
}

// Makes this forked, single-threaded process an unprivileged user. As the
// host's root: no supplementary groups, group and user 65534 ('nobody'),
// which also drops every capability. In the sandbox of a host user other
// than root only that user is mapped (as 0), so setgid/setuid cannot
// succeed; the process moves instead into a user namespace of its own with
// no mapping, where its ids read as the overflow id (65534) and no
// capability applies to any file. Returns "" or why neither worked.
std::string drop_privileges() {
  if (setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0) return "";
  const std::string setuid_error = strerror(errno);
  if (unshare(CLONE_NEWUSER) != 0) {
    return "setgid/setuid: " + setuid_error + "; unshare(CLONE_NEWUSER): " + strerror(errno);
  }
  return geteuid() == 0 ? "still user 0 in a new user namespace" : "";
}

// Runs body in a child that has first become an unprivileged user; the
// child exits with body's result. When the child cannot drop its
// privileges it exits with kCannotDrop after printing why.
ChildOutcome run_unprivileged(const std::function<int()> &body) {
  return tarn_test::run_in_child([&] {
    const std::string reason = drop_privileges();
    if (!reason.empty()) {
      fprintf(stderr, "cannot become an unprivileged user: %s\n", reason.c_str());
      exit(kCannotDrop);
    }
    exit(body());
  });
}

#define SKIP_IF_CANNOT_DROP(outcome)                                                       \
  if ((outcome).exit_status == kCannotDrop)                                                \
  GTEST_SKIP() << "this sandbox cannot run a process as an unprivileged user (see stderr)"

// Puts content at a system path as a regular file of its own, with exactly
// the mode given, never writing through the link that may be there.
void put_system_file(const char *path, const std::string &content, mode_t mode = 0644) {
  const bool put = tarn_test::replace_with_file(path, content, mode);
  const int error = errno;
  ASSERT_TRUE(put) << path << ": " << strerror(error);
}

// Puts a FIFO, or a symbolic link to /dev/zero, at a system path, which is
// first unlinked as put_system_file does.
enum class Special { kFifo, kZero };
void put_system_special(const char *path, Special kind) {
  ASSERT_TRUE(unlink(path) == 0 || errno == ENOENT) << path << ": " << strerror(errno);
  const int made = kind == Special::kFifo ? mkfifo(path, 0644) : symlink("/dev/zero", path);
  ASSERT_EQ(made, 0) << path << ": " << strerror(errno);
}

void remove_system_file(const char *path) {
  ASSERT_TRUE(unlink(path) == 0 || errno == ENOENT) << path << ": " << strerror(errno);
  ASSERT_FALSE(tarn_test::exists(path));
}

// A release file as UOS ships it, with its name line given.
std::string os_release_with(const std::string &id_line) {
  return "PRETTY_NAME=\"UOS Desktop 20 Pro\"\n"
         "NAME=\"uos\"\n"
         "VERSION_ID=\"20\"\n"
         "VERSION=\"20\"\n" +
         id_line +
         "HOME_URL=\"https://www.example.com/\"\n";
}

// A version file as UOS ships it, with its minor version line given.
std::string os_version_with(const std::string &minor_line) {
  return "[Version]\n"
         "SystemName=UOS Desktop\n"
         "ProductType=Desktop\n"
         "MajorVersion=20\n" +
         minor_line + "OsBuild=11018.107\n";
}

class EnvironmentCheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(geteuid(), 0u) << "the test sandbox runs its tests as user 0";
    tarn_test::reset_fakes();
    g_disk_answer.reset();
    g_disk_queries.clear();
    tarn_test::set_data_root(kDataRoot);
    // Each test starts from an empty data root, also when the whole program
    // runs in one process.
    std::error_code ignored;
    std::filesystem::remove_all(kDataRoot, ignored);
    std::filesystem::remove_all(kOpenRoot, ignored);
    ASSERT_TRUE(tarn_test::make_dirs(kDataRoot));
  }

  void TearDown() override {
    for (const std::string &dir : mounted_) umount2(dir.c_str(), MNT_DETACH);
    tarn_test::reset_fakes();
    g_disk_answer.reset();
    tarn_test::use_real_data_root();
  }

  // Mounts a fresh tmpfs of size bytes on dir (made when missing), in this
  // test's own mount namespace.
  void mount_tmpfs(const std::string &dir, uint64_t size) {
    ASSERT_TRUE(tarn_test::make_dirs(dir)) << dir;
    const std::string options = "size=" + std::to_string(size) + ",mode=0755";
    ASSERT_EQ(mount("tarn-test", dir.c_str(), "tmpfs", 0, options.c_str()), 0)
        << dir << ": " << strerror(errno);
    mounted_.push_back(dir);
  }

  // The UOS files of a UOS machine with the given minor version line.
  static void put_uos(const std::string &id_line, const std::string &minor_line) {
    put_system_file(kOsRelease, os_release_with(id_line));
    put_system_file(kOsVersion, os_version_with(minor_line));
  }

  // Calls is_uos_and_lower_version and expects its result and exactly the
  // one info line it logs.
  static void expect_uos(int32_t threshold, int32_t result, const std::string &message) {
    tarn_test::clear_logs();
    EXPECT_EQ(is_uos_and_lower_version(threshold), result) << threshold;
    EXPECT_EQ(captured_lines(), (Lines{{"info", message}})) << tarn_test::dump_logs();
  }

  // expect_uos for a call that must not block or read without end: it runs
  // in a child that the time limit ends.
  static void expect_uos_at_once(int32_t threshold, int32_t result, const std::string &message) {
    const ChildOutcome outcome =
        tarn_test::run_in_child_with_time_limit(10, [threshold] { return is_uos_and_lower_version(threshold); });
    EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
    EXPECT_EQ(outcome.exit_status, result) << threshold;
    EXPECT_EQ(lines_of(outcome.lines), (Lines{{"info", message}})) << text_of(outcome.lines);
  }

  std::vector<std::string> mounted_;
};

// ---------------------------------------------------------------------------
// tarn_envc_is_admin

TEST_F(EnvironmentCheckTest, UserZeroIsAdministratorSilently) {
  errno = EACCES;
  EXPECT_EQ(tarn_envc_is_admin(), 1);
  EXPECT_NO_LINES();
}

TEST_F(EnvironmentCheckTest, AnUnprivilegedUserIsNotAdministratorAndEachCallLogsErrno) {
  const ChildOutcome outcome = run_unprivileged([] {
    errno = EACCES;
    const int first = tarn_envc_is_admin();
    errno = 0;
    const int second = tarn_envc_is_admin();
    return 10 + first * 2 + second;
  });
  SKIP_IF_CANNOT_DROP(outcome);
  EXPECT_EQ(outcome.exit_status, 10) << "both calls return 0";
  EXPECT_EQ(lines_of(outcome.lines),
            (Lines{{"warn", "Failed to check administrator permissions. error:13 \n"},
                   kNotAdminErrno0}))
      << text_of(outcome.lines);
}

// ---------------------------------------------------------------------------
// tarn_envc_path_free_space with the disk query answered by the test

TEST_F(EnvironmentCheckTest, ExactlyTheNeededBytesAvailableIsEnough) {
  g_disk_answer = DiskAnswer{1, 4096, 0};
  EXPECT_EQ(tarn_envc_path_free_space("/some/dir", 4096), 1);
  EXPECT_EQ(tarn_envc_path_free_space("/some/dir", 1), 1);
  EXPECT_EQ(tarn_envc_path_free_space("/some/dir", 4097), 0);
  EXPECT_NO_LINES();  // short space is not logged
  EXPECT_EQ(g_disk_queries, (std::vector<DiskQuery>(3, DiskQuery{"/some/dir", 0})));
}

TEST_F(EnvironmentCheckTest, TheComparisonUsesAllSixtyFourBits) {
  g_disk_answer = DiskAnswer{1, 0x100000000ULL, 0};
  EXPECT_EQ(tarn_envc_path_free_space("/d", 0x100000000ULL), 1);
  EXPECT_EQ(tarn_envc_path_free_space("/d", 0x100000001ULL), 0);
  EXPECT_EQ(tarn_envc_path_free_space("/d", 0x200000000ULL), 0);
  g_disk_answer = DiskAnswer{1, UINT64_MAX, 0};
  EXPECT_EQ(tarn_envc_path_free_space("/d", UINT64_MAX), 1);
  g_disk_answer = DiskAnswer{1, 0, 0};
  EXPECT_EQ(tarn_envc_path_free_space("/d", 1), 0);
  EXPECT_NO_LINES();
}

TEST_F(EnvironmentCheckTest, AFailedQueryLogsItsErrnoWithoutALineEnd) {
  g_disk_answer = DiskAnswer{0, 0, EIO};
  EXPECT_EQ(tarn_envc_path_free_space("/some/dir", 1), 0);
  EXPECT_EQ(captured_lines(), (Lines{{"warn", "Failed to obtain system available disk space, error: 5"}}))
      << tarn_test::dump_logs();
}

TEST_F(EnvironmentCheckTest, ANullOrEmptyPathOrZeroBytesIsInvalidAndNotQueried) {
  g_disk_answer = DiskAnswer{1, 4096, 0};
  EXPECT_EQ(tarn_envc_path_free_space(nullptr, 1), 0);
  EXPECT_EQ(tarn_envc_path_free_space("", 1), 0);
  EXPECT_EQ(tarn_envc_path_free_space("/some/dir", 0), 0);
  EXPECT_EQ(captured_lines(), (Lines{kInvalid, kInvalid, kInvalid})) << tarn_test::dump_logs();
  EXPECT_TRUE(g_disk_queries.empty());
}

// ---------------------------------------------------------------------------
// tarn_envc_path_free_space with real queries

TEST_F(EnvironmentCheckTest, ARealQueryOnASmallTmpfsComparesWithItsFreeSpace) {
  const std::string dir = "/tmp/envc_small";
  mount_tmpfs(dir, 256 * kPage);
  EXPECT_EQ(tarn_envc_path_free_space(dir.c_str(), 256 * kPage), 1);
  EXPECT_EQ(tarn_envc_path_free_space(dir.c_str(), 256 * kPage + 1), 0);
  // A file of 128 pages leaves exactly 128 pages.
  ASSERT_TRUE(tarn_test::write_file(dir + "/fill", std::string(128 * kPage, 'x')));
  EXPECT_EQ(tarn_envc_path_free_space(dir.c_str(), 128 * kPage), 1);
  EXPECT_EQ(tarn_envc_path_free_space((dir + "/fill").c_str(), 128 * kPage), 1);
  EXPECT_EQ(tarn_envc_path_free_space(dir.c_str(), 128 * kPage + 1), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(g_disk_queries.front(), (DiskQuery{dir, TARN_DEVICE_SPACE_AVAILABLE}));
}

TEST_F(EnvironmentCheckTest, ARealQueryOfAMissingPathLogsTheErrnoOfTheQuery) {
  EXPECT_EQ(tarn_envc_path_free_space("/tmp/envc_no/such/dir", 1), 0);
  EXPECT_EQ(captured_lines(),
            (Lines{{"warn", tarn_test::format("Failed to obtain system available disk space, error: %d",
                                              ENOENT)}}))
      << tarn_test::dump_logs();
}

// ---------------------------------------------------------------------------
// tarn_envc_def

TEST_F(EnvironmentCheckTest, DefaultCheckWithExactly512MiBCreatesTheBackupDirectoryAndIsOne) {
  mount_tmpfs(kDataRoot, kDefaultNeeded);
  EXPECT_EQ(tarn_envc_def(), 1);
  EXPECT_EQ(captured_lines(), (Lines{kBackupPathLine})) << tarn_test::dump_logs();
  EXPECT_EQ(tarn_test::file_mode(kBackupDir), 0755);
  EXPECT_EQ(tarn_test::file_mode("/tmp/envc_data/velmora"), 0755);
  EXPECT_EQ(g_disk_queries, (std::vector<DiskQuery>{{kBackupDir, TARN_DEVICE_SPACE_AVAILABLE}}));
}

TEST_F(EnvironmentCheckTest, DefaultCheckOnePageShortIsZeroAndStillCreatesTheDirectory) {
  mount_tmpfs(kDataRoot, kDefaultNeeded - kPage);
  EXPECT_EQ(tarn_envc_def(), 0);
  EXPECT_EQ(captured_lines(), (Lines{kBackupPathLine, kNoSpace})) << tarn_test::dump_logs();
  EXPECT_EQ(tarn_test::file_mode(kBackupDir), 0755);
}

TEST_F(EnvironmentCheckTest, DefaultCheckKeepsAnExistingDirectoryAndItsMode) {
  ASSERT_TRUE(tarn_test::make_dirs(kBackupDir));
  ASSERT_EQ(chmod(kBackupDir, 0700), 0);
  g_disk_answer = DiskAnswer{1, kDefaultNeeded, 0};
  EXPECT_EQ(tarn_envc_def(), 1);
  EXPECT_EQ(tarn_test::file_mode(kBackupDir), 0700);
}

TEST_F(EnvironmentCheckTest, DefaultCheckWhoseQueryFailsLogsBothSpaceMessages) {
  g_disk_answer = DiskAnswer{0, 0, EIO};
  EXPECT_EQ(tarn_envc_def(), 0);
  EXPECT_EQ(captured_lines(),
            (Lines{kBackupPathLine, {"warn", "Failed to obtain system available disk space, error: 5"},
                   kNoSpace}))
      << tarn_test::dump_logs();
  EXPECT_EQ(tarn_test::file_mode(kBackupDir), 0755);
}

TEST_F(EnvironmentCheckTest, DefaultCheckWithoutADataRootChecksAnEmptyPath) {
  tarn_test::set_data_root("");
  EXPECT_EQ(tarn_envc_def(), 0);
  EXPECT_EQ(captured_lines(), (Lines{{"warn", "get log dir is error\n"}, kInvalid, kNoSpace}))
      << tarn_test::dump_logs();
  EXPECT_TRUE(g_disk_queries.empty());
}

TEST_F(EnvironmentCheckTest, DefaultCheckByAnUnprivilegedUserLogsBothMessagesAndCreatesNothing) {
  // The data root is open to everyone, so a directory made by mistake would
  // be there to see; the child proves that it could have made one.
  const std::string open_root = kOpenRoot;
  ASSERT_TRUE(tarn_test::make_dirs(open_root));
  ASSERT_EQ(chmod(open_root.c_str(), 0777), 0);
  tarn_test::set_data_root(open_root);
  const ChildOutcome outcome = run_unprivileged([&] {
    errno = 0;
    const int result = tarn_envc_def();
    const std::string probe = open_root + "/probe";
    const bool could_create = mkdir(probe.c_str(), 0755) == 0 && rmdir(probe.c_str()) == 0;
    return could_create ? 10 + result : 20;
  });
  SKIP_IF_CANNOT_DROP(outcome);
  EXPECT_EQ(outcome.exit_status, 10) << "20: the unprivileged child could not create a directory";
  EXPECT_EQ(lines_of(outcome.lines), (Lines{kNotAdminErrno0, kInsufficient})) << text_of(outcome.lines);
  EXPECT_TRUE(tarn_test::list_directory(open_root).empty());
}

// ---------------------------------------------------------------------------
// is_uos_and_lower_version

TEST_F(EnvironmentCheckTest, AMissingOsReleaseIsNotUos) {
  remove_system_file(kOsRelease);
  put_system_file(kOsVersion, os_version_with("MinorVersion=1000\n"));
  expect_uos(2000, 0, kNoOsRelease.second);
}

TEST_F(EnvironmentCheckTest, AnOsReleaseWithoutAnIdLineIsNotUos) {
  put_system_file(kOsRelease,
                  "NAME=\"uos\"\nVERSION_ID=uos\nID_LIKE=uos\n ID=uos\nid=uos\nIDENT=uos\n");
  put_system_file(kOsVersion, os_version_with("MinorVersion=1000\n"));
  expect_uos(2000, 0, kNoOsRelease.second);
}

TEST_F(EnvironmentCheckTest, AnEmptyOsReleaseIsNotUos) {
  put_system_file(kOsRelease, "");
  expect_uos(2000, 0, kNoOsRelease.second);
}

TEST_F(EnvironmentCheckTest, AnOsReleaseThatCannotBeReadIsNotUos) {
  // A file that exists but that the unprivileged child may not open.
  put_uos("ID=uos\n", "MinorVersion=1000\n");
  ASSERT_EQ(chmod(kOsRelease, 0), 0);
  const ChildOutcome outcome = run_unprivileged([] { return 10 + is_uos_and_lower_version(2000); });
  SKIP_IF_CANNOT_DROP(outcome);
  EXPECT_EQ(outcome.exit_status, 10);
  EXPECT_EQ(lines_of(outcome.lines), (Lines{kNoOsRelease})) << text_of(outcome.lines);
}

// Each file in turn, the other one as on a UOS machine below the
// threshold.
TEST_F(EnvironmentCheckTest, AnOsFileThatIsAFifoOrALinkToDevZeroIsRefusedAtOnce) {
  for (const char *path : {kOsRelease, kOsVersion}) {
    for (Special kind : {Special::kFifo, Special::kZero}) {
      SCOPED_TRACE(path);
      put_uos("ID=uos\n", "MinorVersion=1000\n");
      put_system_special(path, kind);
      expect_uos_at_once(2000, 0, std::string("read ") + path + " failed, continue\n");
    }
  }
}

TEST_F(EnvironmentCheckTest, AnOsFileLargerThan64KiBIsRefusedAndOneOfExactly64KiBRead) {
  for (const char *path : {kOsRelease, kOsVersion}) {
    SCOPED_TRACE(path);
    put_uos("ID=uos\n", "MinorVersion=1000\n");
    ASSERT_EQ(truncate(path, 64 * 1024 + 1), 0) << strerror(errno);
    expect_uos_at_once(2000, 0, std::string("read ") + path + " failed, continue\n");
    ASSERT_EQ(truncate(path, 64 * 1024), 0) << strerror(errno);
    expect_uos_at_once(2000, 1, "version is 1000\n, lower than 2000, os_release:uos\n");
  }
}

TEST_F(EnvironmentCheckTest, AnotherSystemIsNotUosAndItsNameIsLoggedWithItsLineEnd) {
  put_system_file(kOsRelease,
                  "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
                  "VERSION_ID=\"12\"\nID=debian\nID_LIKE=uos\n");
  put_system_file(kOsVersion, os_version_with("MinorVersion=1000\n"));
  expect_uos(2000, 0, "not uos, sysinfo is debian\n");
}

TEST_F(EnvironmentCheckTest, AQuotedUosNameIsNotUos) {
  put_uos("ID=\"uos\"\n", "MinorVersion=1000\n");
  expect_uos(2000, 0, "not uos, sysinfo is \"uos\"\n");
}

TEST_F(EnvironmentCheckTest, OnlyTheFirstIdLineCounts) {
  put_system_file(kOsRelease, "ID=debian\nID=uos\n");
  put_system_file(kOsVersion, os_version_with("MinorVersion=1000\n"));
  expect_uos(2000, 0, "not uos, sysinfo is debian\n");
}

TEST_F(EnvironmentCheckTest, UosBelowTheThresholdIsOne) {
  put_uos("ID=uos\n", "MinorVersion=1050\n");
  expect_uos(1060, 1, "version is 1050\n, lower than 1060, os_release:uos\n");
}

TEST_F(EnvironmentCheckTest, AThresholdEqualToTheMinorVersionIsZero) {
  put_uos("ID=uos\n", "MinorVersion=1050\n");
  expect_uos(1050, 0, "up than 1050, cur os version is 1050\n");
  expect_uos(1051, 1, "version is 1050\n, lower than 1051, os_release:uos\n");
  expect_uos(-1, 0, "up than -1, cur os version is 1050\n");
}

TEST_F(EnvironmentCheckTest, AnIdWrittenInCapitalsTakesTheUosBranch) {
  put_uos("ID=UOS\n", "MinorVersion=1050\n");
  expect_uos(1060, 1, "version is 1050\n, lower than 1060, os_release:UOS\n");
  put_uos("ID=Uos\n", "MinorVersion=1070\n");
  expect_uos(1060, 0, "up than 1060, cur os version is 1070\n");
}

TEST_F(EnvironmentCheckTest, AMinorVersionThatIsNotANumberConvertsToZero) {
  put_uos("ID=uos\n", "MinorVersion=beta\n");
  expect_uos(1, 1, "version is beta\n, lower than 1, os_release:uos\n");
  expect_uos(1060, 1, "version is beta\n, lower than 1060, os_release:uos\n");
  expect_uos(0, 0, "up than 0, cur os version is beta\n");
}

TEST_F(EnvironmentCheckTest, AMissingOsVersionIsNotLower) {
  put_system_file(kOsRelease, os_release_with("ID=uos\n"));
  remove_system_file(kOsVersion);
  expect_uos(1060, 0, kNoOsVersion.second);
}

TEST_F(EnvironmentCheckTest, AnOsVersionWithoutAMinorVersionLineIsNotLower) {
  put_uos("ID=uos\n", "minorversion=1000\nMinorVersion 1000\n MinorVersion=1000\nMinor=1000\n");
  expect_uos(1060, 0, kNoOsVersion.second);
}

TEST_F(EnvironmentCheckTest, OnlyTheFirstMinorVersionLineCounts) {
  put_uos("ID=uos\n", "MinorVersion=1070\nMinorVersion=1000\n");
  expect_uos(1060, 0, "up than 1060, cur os version is 1070\n");
}

TEST_F(EnvironmentCheckTest, LastLinesWithoutALineEndAreReadToTheirEnd) {
  put_system_file(kOsRelease, "NAME=x\nID=uos");
  put_system_file(kOsVersion, "[Version]\nMinorVersion=1000");
  expect_uos(2000, 1, "version is 1000, lower than 2000, os_release:uos");
}

TEST_F(EnvironmentCheckTest, ValuesAreCutToFifteenBytes) {
  put_uos("ID=uos-professional-edition\n", "MinorVersion=00000000000001234\n");
  // "000000000000012" converts to 12.
  expect_uos(13, 1, "version is 000000000000012, lower than 13, os_release:uos-professiona");
  expect_uos(12, 0, "up than 12, cur os version is 000000000000012");
}

}  // namespace
