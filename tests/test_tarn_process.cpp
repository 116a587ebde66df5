// Starting programs without a shell through libtarnbase.so
// (tarn_process_create): how a command line becomes an argument vector,
// waiting for the exit status, running a program on its own, what the
// program inherits, and the failures.
//
// The programs report through files in a fresh directory (or, for a
// program that runs on its own, through a named pipe that the test reads
// to its end), so no test waits on a clock.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sched.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <tarnbase/tarn_process.h>

#include "child_process.h"
#include "files.h"
#include "seccomp_probe.h"

namespace {

using tarn_test::fork_child;
using tarn_test::make_temp_directory;
using tarn_test::read_file;
using tarn_test::reap;
using tarn_test::write_file;

class ProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_directory("tarn_process");
    ASSERT_FALSE(dir_.empty());
  }
  std::string at(const std::string &name) const { return dir_ + "/" + name; }

  // A command line that runs /bin/sh with a script writing each of its
  // arguments as "[argument]" into the file out, followed by words.
  std::string print_args(const std::string &out, const std::string &words) const {
    return "/bin/sh -c 'for a; do printf \"[%s]\" \"$a\"; done > " + out + "' sh " + words;
  }

  // The arguments that words become, as print_args writes them.
  std::string arguments_of(const std::string &words) {
    const std::string out = at("args");
    unlink(out.c_str());
    EXPECT_EQ(0, tarn_process_create(print_args(out, words).c_str(), 1)) << words;
    return read_file(out);
  }

  std::string dir_;
};

// Sets a signal's disposition for the life of the object.
class Disposition {
 public:
  Disposition(int signal_number, void (*handler)(int)) : signal_(signal_number) {
    saved_ = signal(signal_number, handler);
  }
  ~Disposition() { signal(signal_, saved_); }
  Disposition(const Disposition &) = delete;
  Disposition &operator=(const Disposition &) = delete;

 private:
  int signal_;
  void (*saved_)(int);
};

// ---------------------------------------------------------------------------
// Waiting

// ---------------------------------------------------------------------------
// The calling process's pid, which the base library caches

// Forks with the clone system call itself: no atfork handler runs in the
// child, as for any raw fork made without the C library's fork().
pid_t raw_fork() { return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0)); }

// Whether the system wipes a MADV_WIPEONFORK page in a raw-forked child;
// an emulator may accept the advice and ignore it.
bool pages_are_wiped_on_fork() {
  const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void *page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return false;
  bool wiped = false;
  if (madvise(page, size, MADV_WIPEONFORK) == 0) {
    *static_cast<volatile int *>(page) = 1;
    const pid_t child = raw_fork();
    if (child == 0) _exit(*static_cast<volatile int *>(page) == 0 ? 0 : 1);
    wiped = child > 0 && reap(child) == 0;
  }
  munmap(page, size);
  return wiped;
}

TEST(ProcessPid, IsTheCallersPidInTheParentAndInAForkedChild) {
  EXPECT_EQ(tarn_process_get_pid(), static_cast<int>(getpid()));
  EXPECT_EQ(tarn_process_get_pid(), static_cast<int>(getpid()));
  const pid_t child = fork_child([] { return tarn_process_get_pid() == getpid() ? 0 : 1; });
  ASSERT_GT(child, 0);
  EXPECT_EQ(reap(child), 0);
  EXPECT_EQ(tarn_process_get_pid(), static_cast<int>(getpid()));
}

TEST(ProcessPid, IsTheChildsPidInAChildThatARawForkMadeWithoutAtforkHandlers) {
  if (!pages_are_wiped_on_fork()) GTEST_SKIP() << "this system does not wipe pages on fork";
  ASSERT_EQ(tarn_process_get_pid(), static_cast<int>(getpid()));
  const pid_t child = raw_fork();
  if (child == 0) _exit(tarn_process_get_pid() == static_cast<int>(syscall(SYS_getpid)) ? 0 : 1);
  ASSERT_GT(child, 0);
  EXPECT_EQ(reap(child), 0);
  EXPECT_EQ(tarn_process_get_pid(), static_cast<int>(getpid()));
}

TEST(ProcessPid, StaysTheCallersPidAfterItMovesItsChildrenToANewPidNamespace) {
  const pid_t child = fork_child([] {
    const int before = tarn_process_get_pid();
    if (unshare(CLONE_NEWPID) != 0) return 2;
    if (tarn_process_get_pid() != before || before != getpid()) return 1;
    // The first child there is the new namespace's pid 1.
    const pid_t init = fork_child([] { return tarn_process_get_pid() == 1 ? 0 : 1; });
    return init > 0 && reap(init) == 0 ? 0 : 3;
  });
  ASSERT_GT(child, 0);
  EXPECT_EQ(reap(child), 0);
}

TEST_F(ProcessTest, TheUmaskIsReadWithoutBeingChanged) {
  const mode_t saved = umask(027);
  EXPECT_EQ(027u, tarn_process_get_umask());
  EXPECT_EQ(027u, tarn_process_get_umask());  // still 027: reading left it
  umask(0);
  EXPECT_EQ(0u, tarn_process_get_umask());
  umask(saved);
}

TEST_F(ProcessTest, WaitingReturnsTheExitStatus) {
  EXPECT_EQ(3, tarn_process_create("/bin/sh -c 'exit 3'", 1));
  EXPECT_EQ(0, tarn_process_create("/bin/true", 1));
  EXPECT_EQ(255, tarn_process_create("/bin/sh -c 'exit 255'", 7)) << "any non-zero wait waits";
}

TEST_F(ProcessTest, WaitingForAProgramEndedByASignalGives128PlusTheSignal) {
  EXPECT_EQ(128 + SIGTERM, tarn_process_create("/bin/sh -c 'kill -TERM $$'", 1));
  EXPECT_EQ(128 + SIGKILL, tarn_process_create("/bin/sh -c 'kill -KILL $$'", 1));
}

TEST_F(ProcessTest, AProgramWithoutASlashIsLookedUpInPath) {
  EXPECT_EQ(5, tarn_process_create("sh -c 'exit 5'", 1));
}

// ---------------------------------------------------------------------------
// Words

TEST_F(ProcessTest, AnArgumentWithBlanksInQuotesArrivesAsOneArgument) {
  EXPECT_EQ("[a b][c]", arguments_of("\"a b\" c"));
  EXPECT_EQ("[a b][c]", arguments_of("'a b' c"));
  EXPECT_EQ("[with  two  blanks]", arguments_of("\"with  two  blanks\""));
}

TEST_F(ProcessTest, TheBackupCommandLineShapeKeepsItsQuotedArgumentWhole) {
  // bash -c '"tool" -b "argument"': the inner words reach the tool.
  ASSERT_TRUE(write_file(at("tool"), "#!/bin/sh\nfor a; do printf '[%s]' \"$a\"; done > " + at("args") + "\n",
                         0755));
  const std::string command = "sh -c '\"" + at("tool") + "\" -b \"/var/backup dir/x y\"'";
  EXPECT_EQ(0, tarn_process_create(command.c_str(), 1));
  EXPECT_EQ("[-b][/var/backup dir/x y]", read_file(at("args")));
}

TEST_F(ProcessTest, BlanksOfAnyKindSeparateWordsAndRunsOfThemCountOnce) {
  EXPECT_EQ("[a][b][c][d]", arguments_of("  a \t b\n\nc   d   "));
}

TEST_F(ProcessTest, SingleQuotesTakeEverythingLiterally) {
  EXPECT_EQ("[$HOME \\n \"x\"]", arguments_of("'$HOME \\n \"x\"'"));
}

TEST_F(ProcessTest, DoubleQuotesKeepBackslashOnlyBeforeItsFourCharacters) {
  EXPECT_EQ("[\" \\ $ `]", arguments_of("\"\\\" \\\\ \\$ \\`\""));
  EXPECT_EQ("[\\n \\a]", arguments_of("\"\\n \\a\""));
  EXPECT_EQ("[it's]", arguments_of("\"it's\""));
}

TEST_F(ProcessTest, ABackslashOutsideQuotesTakesTheNextCharacter) {
  EXPECT_EQ("[a b]['][\\]", arguments_of("a\\ b \\' \\\\"));
}

TEST_F(ProcessTest, TouchingPiecesFormOneWordAndEmptyQuotesAnEmptyWord) {
  EXPECT_EQ("[abcd]", arguments_of("a'b'\"c\"d"));
  EXPECT_EQ("[][x][]", arguments_of("\"\" x ''"));
}

TEST_F(ProcessTest, NothingIsExpandedOrRedirected) {
  EXPECT_EQ("[$HOME][*][~][>][out][|][;][&&]", arguments_of("$HOME * ~ > out | ; &&"));
  EXPECT_FALSE(tarn_test::exists(at("out")));
  // ';' separates no commands: the shell gets it as its $0, and /bin/true
  // is never run.
  EXPECT_EQ(1, tarn_process_create("/bin/sh -c 'exit 1' ; /bin/true", 1));
}

// ---------------------------------------------------------------------------
// Running on its own

TEST_F(ProcessTest, WithoutWaitingTheProgramRunsOnItsOwnAndTheResultIsZero) {
  const std::string fifo = at("fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(0, tarn_process_create(print_args(fifo, "\"a b\" c").c_str(), 0));
  // The intermediate process was reaped and the program is not a child of
  // the caller: nothing is left to wait for.
  int status = 0;
  errno = 0;
  EXPECT_EQ(-1, waitpid(-1, &status, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
  // The program runs: it writes its arguments into the pipe.
  EXPECT_EQ("[a b][c]", read_file(fifo));
}

TEST_F(ProcessTest, WithoutWaitingAProgramThatCannotBeStartedIsMinusOne) {
  errno = 0;
  EXPECT_EQ(-1, tarn_process_create("/nonexistent/program", 0));
  EXPECT_EQ(ENOENT, errno);
  int status = 0;
  EXPECT_EQ(-1, waitpid(-1, &status, WNOHANG)) << "no process is left behind";
}

// ---------------------------------------------------------------------------
// What the program inherits

TEST_F(ProcessTest, TheProgramInheritsNoDescriptorAboveTheStandardOnes) {
  const int fd = open(dir_.c_str(), O_RDONLY);  // deliberately not close-on-exec
  ASSERT_GT(fd, 2);
  const std::string check = "/bin/sh -c '[ -e /proc/self/fd/" + std::to_string(fd) + " ] && exit 9; exit 0'";
  EXPECT_EQ(0, tarn_process_create(check.c_str(), 1));
  // The same check sees a descriptor that is there: fd 2.
  EXPECT_EQ(9, tarn_process_create("/bin/sh -c '[ -e /proc/self/fd/2 ] && exit 9; exit 0'", 1));
  close(fd);
}

TEST_F(ProcessTest, TheProgramGetsDefaultSignalHandlingAndAnEmptyMask) {
  Disposition ignored(SIGTERM, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigset_t saved;
  ASSERT_EQ(0, sigprocmask(SIG_BLOCK, &blocked, &saved));
  EXPECT_EQ(128 + SIGTERM, tarn_process_create("/bin/sh -c 'kill -TERM $$'", 1));
  EXPECT_EQ(128 + SIGUSR1, tarn_process_create("/bin/sh -c 'kill -USR1 $$'", 1));
  ASSERT_EQ(0, sigprocmask(SIG_SETMASK, &saved, nullptr));
}

TEST_F(ProcessTest, ACallerWithoutStandardStreamsStillLearnsTheResult) {
  const pid_t pid = fork_child([] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (tarn_process_create("/bin/sh -c 'exit 4'", 1) != 4) return 10;
    errno = 0;
    if (tarn_process_create("/nonexistent/program", 1) != -1 || errno != ENOENT) return 11;
    return 0;
  });
  EXPECT_EQ(0, reap(pid));
}

TEST_F(ProcessTest, ACallerThatIgnoresSigchldCannotWaitButCanStartOnItsOwn) {
  Disposition ignored(SIGCHLD, SIG_IGN);
  errno = 0;
  EXPECT_EQ(-1, tarn_process_create("/bin/sh -c 'exit 3'", 1));
  EXPECT_EQ(ECHILD, errno);
  const std::string fifo = at("fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(0, tarn_process_create(print_args(fifo, "x").c_str(), 0));
  EXPECT_EQ("[x]", read_file(fifo));
}

// ---------------------------------------------------------------------------
// Failures

TEST_F(ProcessTest, AProgramThatCannotBeExecutedIsMinusOneWithItsErrno) {
  ASSERT_TRUE(write_file(at("not_executable"), "#!/bin/sh\nexit 0\n", 0644));
  struct Case {
    std::string command;
    int error;
  };
  const Case cases[] = {{"/nonexistent/program", ENOENT},
                        {"no_such_program_anywhere_in_path", ENOENT},
                        {at("not_executable"), EACCES},
                        {dir_, EACCES}};
  for (const Case &c : cases) {
    errno = 0;
    EXPECT_EQ(-1, tarn_process_create(c.command.c_str(), 1)) << c.command;
    EXPECT_EQ(c.error, errno) << c.command;
  }
}

TEST_F(ProcessTest, ACallerOutOfDescriptorsIsMinusOneWithEmfileAndKeepsNoneOpen) {
  // Descriptors 0 to 2 and nothing else, then a limit of 5 (the pipe gets 3
  // and 4 but cannot be moved) and of 6 (one end moved, the other not).
  for (const rlim_t allowed : {(rlim_t)3, (rlim_t)5, (rlim_t)6}) {
    SCOPED_TRACE(allowed);
    const pid_t pid = fork_child([allowed] {
      close_range(STDERR_FILENO + 1, ~0u, 0);
      struct rlimit limit;
      if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 10;
      const rlim_t before = limit.rlim_cur;
      limit.rlim_cur = allowed;
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 11;
      errno = 0;
      const int result = tarn_process_create("/bin/true", 1);
      const int error = errno;
      // Nothing left open: the lowest free descriptor is still 3.
      const int next = dup(STDIN_FILENO);
      limit.rlim_cur = before;
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 12;
      if (result != -1) return 13;
      if (error != EMFILE) return 14;
      // (With a limit of 3 there is no room for it at all.)
      return next == (allowed > 3 ? 3 : -1) ? 0 : 15;
    });
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, reap(pid));
  }
}

TEST_F(ProcessTest, ACommandLineWithoutAWordOrWithAnOpenQuoteIsEinval) {
  const char *cases[] = {nullptr, "", "   \t\n", "sh -c 'exit 1", "sh -c \"exit 1", "sh \\"};
  for (const char *command : cases) {
    errno = 0;
    EXPECT_EQ(-1, tarn_process_create(command, 1)) << (command != nullptr ? command : "(null)");
    EXPECT_EQ(EINVAL, errno);
  }
}


// ---------------------------------------------------------------------------
// tarn_process_run: a program with an environment and standard streams of
// the caller's choosing, and without the means to make special files.

class RunTest : public ProcessTest {
 protected:
  // Runs /bin/sh -c script with envp, capturing its output.
  int sh(const std::string &script, char *const envp[], unsigned flags = 0, int input_fd = -1) {
    char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(script.c_str()),
                    nullptr};
    return tarn_process_run("/bin/sh", argv, envp, input_fd, flags, out_, sizeof(out_));
  }
  char out_[4096];
};

char *kPathOnly[] = {const_cast<char *>("PATH=/usr/bin:/bin"), nullptr};

TEST_F(RunTest, TheProgramGetsExactlyItsEnvironmentAndTheCallersIsUntouched) {
  ASSERT_EQ(0, setenv("TAR_OPTIONS", "--absolute-names", 1));
  char *envp[] = {const_cast<char *>("ONLY=this one"), nullptr};
  char *argv[] = {const_cast<char *>("env"), nullptr};
  EXPECT_EQ(0, tarn_process_run("/usr/bin/env", argv, envp, -1, 0, out_, sizeof(out_)));
  EXPECT_STREQ("ONLY=this one", out_);
  EXPECT_STREQ("--absolute-names", getenv("TAR_OPTIONS"));
  unsetenv("TAR_OPTIONS");
}

TEST_F(RunTest, ArgumentsAreNotReadByAShell) {
  const std::string marker = at("ran");
  std::string word = "$(touch " + marker + ")';`touch " + marker + "`\"\n";
  char *argv[] = {const_cast<char *>("printf"), const_cast<char *>("[%s]"), &word[0], nullptr};
  EXPECT_EQ(0, tarn_process_run("/usr/bin/printf", argv, kPathOnly, -1, 0, out_, sizeof(out_)));
  EXPECT_EQ("[" + word + "]", std::string(out_));
  EXPECT_FALSE(tarn_test::exists(marker));
}

TEST_F(RunTest, StandardInputIsTheCallersDescriptorAndTheExitStatusIsReturned) {
  ASSERT_TRUE(write_file(at("input"), "from the descriptor\n"));
  const int fd = open(at("input").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(3, sh("cat; exit 3", kPathOnly, 0, fd));
  EXPECT_STREQ("from the descriptor", out_);
  // The caller's descriptor stays open and shares the offset that cat moved.
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), (off_t)strlen("from the descriptor\n"));
  close(fd);
  EXPECT_EQ(0, sh("cat", kPathOnly));
  EXPECT_STREQ("", out_);
}

TEST_F(RunTest, RefusedArgumentsRunNothing) {
  char *argv[] = {const_cast<char *>("true"), nullptr};
  char *no_words[] = {nullptr};
  const struct {
    const char *path;
    char *const *argv;
    char *const *envp;
    int input_fd;
    unsigned flags;
    int error;
  } cases[] = {
      {nullptr, argv, kPathOnly, -1, 0, EINVAL},          {"true", argv, kPathOnly, -1, 0, EINVAL},
      {"/bin/true", nullptr, kPathOnly, -1, 0, EINVAL},   {"/bin/true", no_words, kPathOnly, -1, 0, EINVAL},
      {"/bin/true", argv, nullptr, -1, 0, EINVAL},        {"/bin/true", argv, kPathOnly, -2, 0, EINVAL},
      {"/bin/true", argv, kPathOnly, -1, 2, EINVAL},      {"/bin/true", argv, kPathOnly, 1000, 0, EBADF},
      {"/bin/no_such_program", argv, kPathOnly, -1, 0, ENOENT},
  };
  for (const auto &c : cases) {
    strcpy(out_, "untouched");
    errno = 0;
    EXPECT_EQ(-1, tarn_process_run(c.path, c.argv, c.envp, c.input_fd, c.flags, out_, sizeof(out_)))
        << (c.path ? c.path : "<null>");
    EXPECT_EQ(c.error, errno) << (c.path ? c.path : "<null>");
    EXPECT_STREQ("", out_);
  }
}

// Makes "fifo", "chr" and "blk" in dir from a program run with flags;
// each mknod's exit code, and what each name is afterwards.
struct Made {
  std::string codes;
  std::string fifo, chr, blk;
};
std::string kind_of(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "missing";
  return S_ISFIFO(st.st_mode) ? "fifo" : S_ISCHR(st.st_mode) ? "chr" : S_ISBLK(st.st_mode) ? "blk" : "other";
}

TEST_F(RunTest, WithoutSpecialFilesNeitherTheProgramNorItsChildrenMakeDevicesOrFifos) {
  const std::string script = "cd " + dir_ +
                             " && rm -f fifo chr blk; mkfifo fifo 2>/dev/null; a=$?; "
                             "mknod chr c 1 3 2>/dev/null; b=$?; mknod blk b 7 0 2>/dev/null; echo $a $b $?";
  // Without the flag the FIFO is made, and so are the devices where the
  // system lets root make them (the test sandbox does; a user namespace,
  // as under qemu for a user other than root, does not).
  ASSERT_EQ(0, sh(script, kPathOnly));
  const bool devices = std::string(out_) == "0 0 0";
  ASSERT_STREQ(devices ? "0 0 0" : "0 1 1", out_);
  ASSERT_EQ("fifo", kind_of(at("fifo")));
  ASSERT_EQ(devices ? "chr" : "missing", kind_of(at("chr")));
  ASSERT_EQ(devices ? "blk" : "missing", kind_of(at("blk")));

  EXPECT_EQ(0, sh(script, kPathOnly, TARN_PROCESS_NO_SPECIAL_FILES));
  const bool filtered = tarn_test::seccomp_filters_available();
  EXPECT_STREQ(filtered ? "1 1 1" : "0 1 1", out_);
  EXPECT_EQ(filtered ? "missing" : "fifo", kind_of(at("fifo")));
  EXPECT_EQ("missing", kind_of(at("chr")));
  EXPECT_EQ("missing", kind_of(at("blk")));
}

TEST_F(RunTest, WithoutSpecialFilesCapMknodIsGoneForGoodAndNoPrivilegeCanBeGained) {
  EXPECT_EQ(0, sh("grep -E '^(CapEff|CapPrm|CapBnd|NoNewPrivs|Seccomp):' /proc/self/status", kPathOnly,
                  TARN_PROCESS_NO_SPECIAL_FILES));
  const std::string status = out_;
  const auto field = [&status](const std::string &name) {
    const size_t at = status.find(name + ":\t");
    return at == std::string::npos ? std::string() : status.substr(at + name.size() + 2, status.find('\n', at) - at - name.size() - 2);
  };
  const unsigned long long mknod_bit = 1ull << 27;  // CAP_MKNOD
  for (const char *set : {"CapEff", "CapPrm", "CapBnd"}) {
    ASSERT_FALSE(field(set).empty()) << status;
    EXPECT_EQ(0ull, std::stoull(field(set), nullptr, 16) & mknod_bit) << set << " " << status;
  }
  // Root keeps its other capabilities: tar still reads and writes as root.
  EXPECT_NE(0ull, std::stoull(field("CapEff"), nullptr, 16) & (1ull << 1)) << status;  // CAP_DAC_OVERRIDE
  EXPECT_EQ("1", field("NoNewPrivs"));
  EXPECT_EQ(tarn_test::seccomp_filters_available() ? "2" : "0", field("Seccomp"));
}

}  // namespace

// ---------------------------------------------------------------------------
// Who a process is

// A child that waits until the pipe is closed, so the test decides when it
// ends.
class WaitingChild {
 public:
  WaitingChild() {
    pid_ = fork_child([this] {
      stop_.close_write();
      int ignored = 0;
      stop_.read_int(&ignored, 30000);
      return 0;
    });
    stop_.close_read();
  }
  ~WaitingChild() { end(); }
  pid_t pid() const { return pid_; }
  // Lets it exit and waits until it has, without reaping it (a zombie).
  void end_leaving_zombie() {
    stop_.close_write();
    siginfo_t info;
    while (waitid(P_PID, (id_t)pid_, &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
  }
  void end() {
    if (pid_ <= 0) return;
    stop_.close_write();
    reap(pid_);
    pid_ = -1;
  }

 private:
  tarn_test::Pipe stop_;
  pid_t pid_ = -1;
};

TEST(ProcessIdentity, RefusesBadArgumentsWithEinval) {
  tarn_process_identity_t identity;
  EXPECT_EQ(tarn_process_get_identity(0, &identity), EINVAL);
  EXPECT_EQ(tarn_process_get_identity(-1, &identity), EINVAL);
  EXPECT_EQ(tarn_process_get_identity(getpid(), nullptr), EINVAL);
  EXPECT_EQ(tarn_process_get_self_identity(nullptr), EINVAL);
  EXPECT_EQ(tarn_process_identity_same(nullptr, &identity), 0);
  EXPECT_EQ(tarn_process_identity_same(&identity, nullptr), 0);
  EXPECT_EQ(tarn_process_open(0), -1);
  EXPECT_EQ(errno, EINVAL);
  unsigned char exited[1];
  EXPECT_EQ(tarn_process_poll_exited(nullptr, 1, exited), -1);
  EXPECT_EQ(errno, EINVAL);
  const int fds[1] = {-1};
  errno = 0;
  EXPECT_EQ(tarn_process_poll_exited(fds, 1, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  exited[0] = 7;
  EXPECT_EQ(tarn_process_poll_exited(fds, -1, exited), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(exited[0], 7) << "nothing written";
}

TEST(ProcessIdentity, TheCallersIdentityIsItsOwnAndStaysTheSame) {
  tarn_process_identity_t self;
  tarn_process_identity_t read;
  ASSERT_EQ(tarn_process_get_self_identity(&self), 0);
  ASSERT_EQ(tarn_process_get_identity(getpid(), &read), 0);
  EXPECT_EQ(self.pid, getpid());
  EXPECT_GT(self.start_time, 0u);
  EXPECT_EQ(self.reserved, 0u);
  EXPECT_EQ(tarn_process_identity_same(&self, &read), 1);
  tarn_process_identity_t again;
  ASSERT_EQ(tarn_process_get_self_identity(&again), 0);
  EXPECT_EQ(memcmp(&self, &again, sizeof(self)), 0);
}

TEST(ProcessIdentity, AForkedChildHasAnIdentityOfItsOwn) {
  tarn_process_identity_t parent;
  ASSERT_EQ(tarn_process_get_self_identity(&parent), 0);
  tarn_test::Pipe answer;
  const pid_t child = fork_child([&] {
    tarn_process_identity_t self;
    tarn_process_identity_t read;
    const bool own = tarn_process_get_self_identity(&self) == 0 && self.pid == getpid() &&
                     tarn_process_identity_same(&self, &parent) == 0 &&
                     tarn_process_get_identity(getpid(), &read) == 0 &&
                     tarn_process_identity_same(&self, &read) == 1;
    answer.write_int(own ? 1 : 0);
    return 0;
  });
  int own = -1;
  EXPECT_TRUE(answer.read_int(&own));
  EXPECT_EQ(own, 1);
  EXPECT_EQ(reap(child), 0);
}

TEST(ProcessIdentity, IdentitiesDifferInPidStartTimeBootIdOrPidfsInode) {
  WaitingChild child;
  tarn_process_identity_t a;
  ASSERT_EQ(tarn_process_get_identity(child.pid(), &a), 0);
  EXPECT_EQ(a.pid, child.pid());
  tarn_process_identity_t b = a;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), 1);
  b.start_time += 1;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), 0);
  b = a;
  b.boot_id[15] ^= 1;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), 0);
  b = a;
  b.pid += 1;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), 0);
  b = a;
  b.pidfs_inode = a.pidfs_inode + 1;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), a.pidfs_inode == 0 ? 1 : 0);
  // An inode known on one side only does not decide.
  b.pidfs_inode = 0;
  EXPECT_EQ(tarn_process_identity_same(&a, &b), 1);
}

TEST(ProcessIdentity, AnExitedProcessHasNoneAndItsDescriptorSaysSo) {
  WaitingChild child;
  const int fd = tarn_process_open(child.pid());
  if (fd < 0 && errno == ENOSYS) GTEST_SKIP() << "no pidfd on this system";
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  unsigned char exited[2] = {9, 9};
  const int fds[2] = {fd, fd};
  ASSERT_EQ(tarn_process_poll_exited(fds, 2, exited), 0);
  EXPECT_EQ(exited[0], 0);
  EXPECT_EQ(exited[1], 0);

  child.end_leaving_zombie();
  tarn_process_identity_t identity;
  EXPECT_EQ(tarn_process_get_identity(child.pid(), &identity), ESRCH);
  EXPECT_EQ(identity.pid, 0);
  ASSERT_EQ(tarn_process_poll_exited(fds, 2, exited), 0);
  EXPECT_EQ(exited[0], 1);
  EXPECT_EQ(exited[1], 1);

  const pid_t pid = child.pid();
  child.end();
  EXPECT_EQ(tarn_process_get_identity(pid, &identity), ESRCH);
  ASSERT_EQ(tarn_process_poll_exited(fds, 1, exited), 0);
  EXPECT_EQ(exited[0], 1);
  close(fd);
  EXPECT_EQ(tarn_process_open(pid), -1);
  EXPECT_EQ(errno, ESRCH);
}
