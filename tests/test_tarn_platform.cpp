// The base library's machine questions and shell commands through
// libtarnbase.so: the platform kind and width and the processor
// architecture (the real answers of this x86-64 machine, and the companion
// platform that the configuration file turns on), and tarn_shell_execute.
//
// The configuration file is read once by each process, so every call that
// depends on it runs in a forked child after its test wrote the file; the
// test program itself never asks the platform question. The program runs in
// its own sandbox: /etc/velmora and /tmp are private.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_platform.h>
#include <tarnbase/tarn_shell.h>

#include "child_process.h"
#include "files.h"
#include "interpose.h"

// ---------------------------------------------------------------------------
// The machine name that uname(2) reports to the base library: the real one
// unless a child set another (default visibility, so that libtarnbase.so's
// calls come here).

namespace {
const char *g_machine_name = nullptr;
}  // namespace

extern "C" __attribute__((visibility("default"))) int uname(struct utsname *name) noexcept {
  const int result = tarn_test::next_definition<int (*)(struct utsname *)>("uname")(name);
  if (result == 0 && g_machine_name != nullptr) {
    snprintf(name->machine, sizeof(name->machine), "%s", g_machine_name);
  }
  return result;
}

namespace {

using tarn_test::address_space;
using tarn_test::fork_child;
using tarn_test::monotonic_ms;
using tarn_test::reap;
using tarn_test::write_file;

// ---------------------------------------------------------------------------
// Helpers

// Writes the configuration file; a null text removes it.
void set_config(const char *text) {
  mkdir("/etc/velmora", 0755);
  if (text == nullptr) {
    unlink(TARN_LOG_CONFIG_PATH);
  } else {
    ASSERT_TRUE(write_file(TARN_LOG_CONFIG_PATH, text));
  }
}

std::string machine() {
  struct utsname name;
  return uname(&name) == 0 ? name.machine : "";
}

// The platform as a fresh process sees it under the configuration text,
// packed as kind * 10 + width; 99 when the query fails.
int platform_under(const char *config) {
  set_config(config);
  const pid_t pid = fork_child([] {
    tarn_os_platform_t platform;
    memset(&platform, 0xff, sizeof(platform));
    if (tarn_get_os_platform(&platform) != 0) return 99;
    return platform.kind * 10 + platform.width;
  });
  const int result = pid > 0 ? reap(pid) : -1;
  set_config(nullptr);
  return result;
}

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (machine() != "x86_64") GTEST_SKIP() << "the expected answers are those of an x86-64 machine";
  }
};

// ---------------------------------------------------------------------------
// Platform and processor

TEST_F(PlatformTest, WithoutAConfigurationThisMachineIsA64BitLinuxPlatform) {
  EXPECT_EQ(TARN_OS_PLATFORM_LINUX * 10 + TARN_OS_PLATFORM_WIDTH_64, platform_under(nullptr));
  EXPECT_EQ(22, platform_under(nullptr));
}

TEST_F(PlatformTest, TheProcessorIsX64) {
  EXPECT_EQ(TARN_CPU_ARCH_X64, tarn_get_cpu_arch());
  EXPECT_EQ(2, tarn_get_cpu_arch());
}

TEST_F(PlatformTest, CompanionOneMakesAnX86MachineTheCompanionPlatform) {
  EXPECT_EQ(TARN_OS_PLATFORM_X86_COMPANION * 10 + TARN_OS_PLATFORM_WIDTH_64,
            platform_under("[platform]\nx86_companion = 1\n"));
  EXPECT_EQ(12, platform_under("[log]\nlevel = 3\n[platform]\nx86_companion=1\n"));
}

TEST_F(PlatformTest, AnyOtherCompanionValueOrAMalformedFileLeavesThePlainPlatform) {
  const char *configs[] = {
      "",
      "[platform]\n",
      "[platform]\nx86_companion = 0\n",
      "[platform]\nx86_companion = 2\n",
      "[platform]\nx86_companion = yes\n",
      "[platform]\nx86_companion = 1x\n",
      "[platform]\nx86_companion =\n",
      "[log]\nx86_companion = 1\n",
      "x86_companion = 1\n",
      "[platform]\nx86_companion = 1\nthis line is malformed\n",
  };
  for (const char *config : configs) {
    SCOPED_TRACE(config);
    EXPECT_EQ(22, platform_under(config));
  }
}

TEST_F(PlatformTest, TheLogKeysAreReadFromTheSameFileAsBefore) {
  set_config("[log]\nlevel = 3\ndir = /srv/data\n[platform]\nx86_companion = 1\n");
  const pid_t pid = fork_child([] {
    tarn_os_platform_t platform;
    if (tarn_get_os_platform(&platform) != 0 || platform.kind != TARN_OS_PLATFORM_X86_COMPANION) return 10;
    if (tarn_log_level_get() != 3) return 11;
    char dir[64];
    if (tarn_log_dir(dir, sizeof(dir)) != 9 || strcmp(dir, "/srv/data") != 0) return 12;
    return 0;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
  set_config(nullptr);
}

TEST_F(PlatformTest, TheConfigurationIsReadOnceByEachProcess) {
  set_config("[platform]\nx86_companion = 1\n");
  const pid_t pid = fork_child([] {
    tarn_os_platform_t first;
    if (tarn_get_os_platform(&first) != 0 || first.kind != TARN_OS_PLATFORM_X86_COMPANION) return 10;
    unlink(TARN_LOG_CONFIG_PATH);
    tarn_os_platform_t second;
    if (tarn_get_os_platform(&second) != 0 || second.kind != TARN_OS_PLATFORM_X86_COMPANION) return 11;
    return 0;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
  set_config(nullptr);
}

// The answers of a fresh process on a machine of the given name under the
// configuration text, packed as cpu * 100 + kind * 10 + width; 999 when the
// platform query fails.
int answers_on(const char *machine_name, const char *config) {
  set_config(config);
  tarn_test::Pipe answer;
  const pid_t pid = fork_child([machine_name, &answer] {
    answer.close_read();
    g_machine_name = machine_name;
    tarn_os_platform_t platform;
    const bool known = tarn_get_os_platform(&platform) == 0;
    return answer.write_int(known ? tarn_get_cpu_arch() * 100 + platform.kind * 10 + platform.width : 999) ? 0 : 1;
  });
  answer.close_write();
  int result = -1;
  if (pid <= 0 || !answer.read_int(&result) || reap(pid) != 0) result = -1;
  set_config(nullptr);
  return result;
}

TEST(Platform, EachMachineNameGivesItsProcessorAndWidth) {
  struct Machine {
    const char *name;
    int cpu;
    int width;
  };
  const Machine machines[] = {
      {"x86_64", TARN_CPU_ARCH_X64, TARN_OS_PLATFORM_WIDTH_64},
      {"aarch64", TARN_CPU_ARCH_ARM64, TARN_OS_PLATFORM_WIDTH_64},
      {"mips64", TARN_CPU_ARCH_MIPS64, TARN_OS_PLATFORM_WIDTH_64},
      {"mips64el", TARN_CPU_ARCH_MIPS64, TARN_OS_PLATFORM_WIDTH_64},
      {"i386", TARN_CPU_ARCH_X86, TARN_OS_PLATFORM_WIDTH_32},
      {"i486", TARN_CPU_ARCH_X86, TARN_OS_PLATFORM_WIDTH_32},
      {"i586", TARN_CPU_ARCH_X86, TARN_OS_PLATFORM_WIDTH_32},
      {"i686", TARN_CPU_ARCH_X86, TARN_OS_PLATFORM_WIDTH_32},
      // Neither of the four families: no processor code, the width by name.
      {"i786", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_32},
      {"i86", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_32},
      {"i3860", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_32},
      {"armv7l", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_32},
      {"riscv64", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_64},
      {"s390x", TARN_CPU_ARCH_UNKNOWN, TARN_OS_PLATFORM_WIDTH_64},
  };
  for (const Machine &machine : machines) {
    SCOPED_TRACE(machine.name);
    EXPECT_EQ(machine.cpu * 100 + TARN_OS_PLATFORM_LINUX * 10 + machine.width, answers_on(machine.name, nullptr));
  }
}

TEST(Platform, OnlyAnX86MachineBecomesTheCompanionPlatform) {
  const char *companion = "[platform]\nx86_companion = 1\n";
  EXPECT_EQ(TARN_CPU_ARCH_X86 * 100 + TARN_OS_PLATFORM_X86_COMPANION * 10 + TARN_OS_PLATFORM_WIDTH_32,
            answers_on("i686", companion));
  EXPECT_EQ(TARN_CPU_ARCH_X64 * 100 + TARN_OS_PLATFORM_X86_COMPANION * 10 + TARN_OS_PLATFORM_WIDTH_64,
            answers_on("x86_64", companion));
  EXPECT_EQ(TARN_CPU_ARCH_ARM64 * 100 + TARN_OS_PLATFORM_LINUX * 10 + TARN_OS_PLATFORM_WIDTH_64,
            answers_on("aarch64", companion));
  EXPECT_EQ(TARN_CPU_ARCH_MIPS64 * 100 + TARN_OS_PLATFORM_LINUX * 10 + TARN_OS_PLATFORM_WIDTH_64,
            answers_on("mips64el", companion));
}

TEST(Platform, ANullOutputIsEinval) {
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_get_os_platform(nullptr));
  EXPECT_EQ(EINVAL, errno);
}

// ---------------------------------------------------------------------------
// Shell commands

TEST(ShellExecute, CapturesStandardOutputWithoutItsLineEnd) {
  char out[64];
  EXPECT_EQ(0, tarn_shell_execute("echo 1.2.3", out, sizeof(out)));
  EXPECT_STREQ("1.2.3", out);
  EXPECT_EQ(0, tarn_shell_execute("printf 'a\\nb\\r\\n\\r\\n\\n'", out, sizeof(out)));
  EXPECT_STREQ("a\nb", out);
  EXPECT_EQ(0, tarn_shell_execute("printf 'no line end'", out, sizeof(out)));
  EXPECT_STREQ("no line end", out);
  EXPECT_EQ(0, tarn_shell_execute("printf '  blanks stay  \\n'", out, sizeof(out)));
  EXPECT_STREQ("  blanks stay  ", out);
  EXPECT_EQ(0, tarn_shell_execute("true", out, sizeof(out)));
  EXPECT_STREQ("", out);
}

TEST(ShellExecute, ACommandInQuotesWithAnArgumentRuns) {
  // The shape of the service version command: a quoted path and " -v".
  const std::string script = "/tmp/tarn_shell_version.sh";
  ASSERT_TRUE(write_file(script, "#!/bin/sh\n[ \"$1\" = -v ] && echo 3.0.1.100\n"));
  ASSERT_EQ(0, chmod(script.c_str(), 0755));
  char out[1024];
  EXPECT_EQ(0, tarn_shell_execute(("\"" + script + "\" -v").c_str(), out, sizeof(out)));
  EXPECT_STREQ("3.0.1.100", out);
  unlink(script.c_str());
}

TEST(ShellExecute, ReturnsTheExitStatusOrOneHundredTwentyEightPlusTheSignal) {
  char out[64];
  EXPECT_EQ(3, tarn_shell_execute("echo partial; exit 3", out, sizeof(out)));
  EXPECT_STREQ("partial", out);
  EXPECT_EQ(255, tarn_shell_execute("exit 255", out, sizeof(out)));
  EXPECT_EQ(127, tarn_shell_execute("/no/such/program", out, sizeof(out)));
  EXPECT_EQ(128 + SIGTERM, tarn_shell_execute("kill -TERM $$", out, sizeof(out)));
  EXPECT_EQ(128 + SIGKILL, tarn_shell_execute("echo before; kill -KILL $$", out, sizeof(out)));
  EXPECT_STREQ("before", out);
}

TEST(ShellExecute, StandardErrorIsNotCapturedAndStandardInputIsEmpty) {
  char out[64];
  EXPECT_EQ(0, tarn_shell_execute("echo to-stderr >&2; echo to-stdout", out, sizeof(out)));
  EXPECT_STREQ("to-stdout", out);
  const int64_t start = monotonic_ms();
  EXPECT_EQ(0, tarn_shell_execute("cat; echo done", out, sizeof(out)));
  EXPECT_STREQ("done", out);
  EXPECT_LT(monotonic_ms() - start, 5000);
}

TEST(ShellExecute, LongOutputIsReadToItsEndAndCut) {
  char out[100];
  memset(out, '?', sizeof(out));
  EXPECT_EQ(0, tarn_shell_execute("head -c 1000000 /dev/zero | tr '\\0' x; exit 0", out, sizeof(out)));
  EXPECT_EQ(std::string(99, 'x'), out);
  // The line end is removed from what was kept.
  char six[6];
  EXPECT_EQ(0, tarn_shell_execute("echo hello", six, sizeof(six)));
  EXPECT_STREQ("hello", six);
  char four[4];
  EXPECT_EQ(0, tarn_shell_execute("echo hello", four, sizeof(four)));
  EXPECT_STREQ("hel", four);
  // The command's status after a long output still counts.
  EXPECT_EQ(4, tarn_shell_execute("seq 1 200000; exit 4", out, sizeof(out)));
  std::string lines;
  for (int i = 1; lines.size() < sizeof(out); ++i) lines += std::to_string(i) + "\n";
  lines.resize(sizeof(out) - 1);
  while (lines.back() == '\n') lines.pop_back();
  EXPECT_EQ(lines, out);
}

TEST(ShellExecute, ANullOutputOrZeroLengthDiscardsTheOutput) {
  EXPECT_EQ(0, tarn_shell_execute("seq 1 100000", nullptr, 0));
  EXPECT_EQ(5, tarn_shell_execute("echo x; exit 5", nullptr, 100));
  char out[8] = "keep";
  EXPECT_EQ(0, tarn_shell_execute("echo replaced", out, 0));
  EXPECT_STREQ("keep", out);
  char one[1] = {'x'};
  EXPECT_EQ(0, tarn_shell_execute("echo replaced", one, sizeof(one)));
  EXPECT_EQ('\0', one[0]);
}

TEST(ShellExecute, ANullCommandCannotBeRun) {
  char out[8] = "keep";
  errno = 0;
  EXPECT_EQ(-1, tarn_shell_execute(nullptr, out, sizeof(out)));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_STREQ("", out);
}

TEST(ShellExecute, WithInputTheCommandReadsTheGivenDescriptorFromItsOffset) {
  const std::string path = "/tmp/tarn_shell_input.txt";
  ASSERT_TRUE(write_file(path, "skipped|read by the command\n"));
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(8, lseek(fd, 8, SEEK_SET));
  char out[64];
  EXPECT_EQ(0, tarn_shell_execute_with_input("cat", fd, out, sizeof(out)));
  EXPECT_STREQ("read by the command", out);
  // The offset is shared, and the descriptor stays the caller's.
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), (off_t)strlen("skipped|read by the command\n"));
  EXPECT_NE(-1, fcntl(fd, F_GETFD));
  close(fd);
  unlink(path.c_str());
  // -1 is /dev/null, as without input.
  EXPECT_EQ(0, tarn_shell_execute_with_input("cat; echo done", -1, out, sizeof(out)));
  EXPECT_STREQ("done", out);
}

TEST(ShellExecute, WithInputABadDescriptorCannotBeRun) {
  char out[8] = "keep";
  errno = 0;
  EXPECT_EQ(-1, tarn_shell_execute_with_input("echo run", -2, out, sizeof(out)));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_STREQ("", out);
  const int closed = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(closed, 0);
  close(closed);
  errno = 0;
  EXPECT_EQ(-1, tarn_shell_execute_with_input("echo run", closed, out, sizeof(out)));
  EXPECT_EQ(EBADF, errno);
  errno = 0;
  EXPECT_EQ(-1, tarn_shell_execute_with_input(nullptr, -1, out, sizeof(out)));
  EXPECT_EQ(EINVAL, errno);
}

TEST(ShellExecute, TheCommandInheritsNoDescriptorOfTheCaller) {
  // One descriptor without close-on-exec, one with it.
  const int plain = open("/dev/null", O_RDONLY);
  const int cloexec = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(plain, 0);
  ASSERT_GE(cloexec, 0);
  char out[256];
  // ls lists its own descriptors: the three standard ones and the one with
  // which it reads the listing.
  EXPECT_EQ(0, tarn_shell_execute("exec ls /proc/self/fd", out, sizeof(out)));
  EXPECT_STREQ("0\n1\n2\n3", out);
  close(plain);
  close(cloexec);
}

TEST(ShellExecute, TheCommandGetsDefaultSignalHandling) {
  // A caller that ignores SIGPIPE or blocks SIGTERM does not pass that on.
  const pid_t pid = fork_child([] {
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    char out[64];
    if (tarn_shell_execute("kill -TERM $$; echo survived", out, sizeof(out)) != 128 + SIGTERM) return 10;
    // Nothing blocked, and none of the standard signals ignored (the C
    // library keeps its own internal real-time signals ignored).
    if (tarn_shell_execute("exec sed -n 's/^SigBlk:\\t//p' /proc/self/status", out, sizeof(out)) != 0) return 11;
    if (strtoull(out, nullptr, 16) != 0) return 12;
    if (tarn_shell_execute("exec sed -n 's/^SigIgn:\\t//p' /proc/self/status", out, sizeof(out)) != 0) return 13;
    return (strtoull(out, nullptr, 16) & 0x7fffffffull) == 0 ? 0 : 14;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
}

TEST(ShellExecute, ACallerThatIgnoresSigchldGetsMinusOne) {
  const pid_t pid = fork_child([] {
    signal(SIGCHLD, SIG_IGN);
    char out[16];
    return tarn_shell_execute("echo x", out, sizeof(out)) == -1 ? 0 : 10;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
}

TEST(ShellExecute, AProgramThatClosedItsStandardStreamsStillCapturesOutput) {
  const pid_t pid = fork_child([] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    char out[16];
    if (tarn_shell_execute("echo works", out, sizeof(out)) != 0) return 10;
    return strcmp(out, "works") == 0 ? 0 : 11;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
}

// Runs "echo x" through the shell in a child under a lowered limit (its
// soft value set to allowed, or to what the child holds when allowed is
// 0); the child answers 0 when the call failed with the error expected,
// left the output empty and kept no descriptor open.
int shell_under_limit(int resource, rlim_t allowed, int expected,
                      const std::function<void()> &prepare = {}) {
  const pid_t pid = fork_child([=] {
    close_range(STDERR_FILENO + 1, ~0u, 0);
    if (prepare) prepare();
    struct rlimit limit;
    if (getrlimit(resource, &limit) != 0) return 10;
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = allowed != 0 ? allowed : address_space();
    if (setrlimit(resource, &limit) != 0) return 11;
    char out[16] = "untouched";
    errno = 0;
    const int result = tarn_shell_execute("echo x", out, sizeof(out));
    const int error = errno;
    limit.rlim_cur = before;
    if (setrlimit(resource, &limit) != 0) return 12;
    if (result != -1) return 13;
    if (error != expected) return 14;
    if (out[0] != '\0') return 15;
    // The lowest free descriptor is the lowest that the caller left free.
    const int next = dup(STDERR_FILENO);
    return next == (prepare ? 0 : 3) ? 0 : 16;
  });
  return pid > 0 ? reap(pid) : -1;
}

TEST(ShellExecute, ACallerThatCannotMoveThePipeAboveItsStandardStreamsGetsMinusOne) {
  // Without standard input and output the pipe takes 0 and 1, and with 3
  // taken and a limit of 4 its write end cannot be moved above 2.
  EXPECT_EQ(0, shell_under_limit(RLIMIT_NOFILE, 4, EMFILE, [] {
              close(STDIN_FILENO);
              close(STDOUT_FILENO);
              dup2(STDERR_FILENO, 3);
            }));
}

TEST(ShellExecute, ACommandThatCannotBeStartedGetsMinusOneWithTheReason) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer needs more address space than the test allows";
#else
  // No address space left for the child's start.
  EXPECT_EQ(0, shell_under_limit(RLIMIT_AS, 0, ENOMEM));
#endif
}

}  // namespace
