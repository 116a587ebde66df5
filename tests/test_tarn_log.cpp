// The base library through libtarnbase.so: log output and its configuration
// file, the destinations (standard error, a directory of rotated files, a
// function of the program's own), and the small families: bounded
// formatting, process questions, the millisecond tick and atomics.
//
// The configuration file is read once by each process, and a destination
// stays registered for the rest of a process. So everything that reads the
// configuration or registers a destination runs in a forked child, and the
// test program itself never calls into the log family: a child then starts
// unregistered and reads the configuration file that its test wrote before
// the fork. Each child reports the checks that failed through a pipe.
//
// The program runs in its own sandbox: /etc/velmora, /var and /tmp are
// private and their contents vanish with it.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_atomic.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>

#include "child_process.h"
#include "files.h"
#include "time_limit.h"

namespace {

using tarn_test::Barrier;
using tarn_test::fork_flushed;
using tarn_test::killed_by;
using tarn_test::monotonic_ms;
using tarn_test::reap;

// ---------------------------------------------------------------------------
// Helpers

bool write_all(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += (size_t)n;
  }
  return true;
}

std::string read_all(int fd) {
  std::string text;
  char chunk[4096];
  for (;;) {
    const ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, (size_t)n);
  }
  return text;
}

bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

long long file_size(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return (long long)st.st_size;
}

std::string read_file(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  std::string text = read_all(fd);
  close(fd);
  return text;
}

void write_file(const std::string &path, const std::string &text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  EXPECT_TRUE(write_all(fd, text));
  close(fd);
}

std::vector<std::string> split_lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::string own_exe_path() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length < 0) return "";
  return std::string(path, (size_t)length);
}

// A directory path of its own for each call (nothing is created).
std::string fresh_dir(const std::string &tag) {
  static int counter = 0;
  return "/var/log/tarn_log_test/" + tag + "_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

std::string log_file(const std::string &dir, int generation = 0) {
  return dir + "/tarn.log" + (generation > 0 ? "." + std::to_string(generation) : "");
}

const char *const kConfigPath = TARN_LOG_CONFIG_PATH;

void write_config(const std::string &text) { write_file(kConfigPath, text); }

// ---------------------------------------------------------------------------
// Forked children

// The checks of one child: each failure is written to the parent.
class Child {
 public:
  explicit Child(int fd) : fd_(fd) {}

  bool expect(bool ok, const std::string &what, int line) {
    if (!ok) fail(what, line);
    return ok;
  }

  template <typename Expected, typename Actual>
  bool expect_eq(const Expected &expected, const Actual &actual, const char *what, int line) {
    if (expected == actual) return true;
    std::ostringstream text;
    text << what << ": expected " << show(expected) << ", got " << show(actual);
    fail(text.str(), line);
    return false;
  }

  void fail(const std::string &what, int line) {
    failed_ = true;
    write_all(fd_, "child check at line " + std::to_string(line) + ": " + what + "\n");
  }

  bool failed() const { return failed_; }

 private:
  template <typename T>
  static std::string show(const T &value) {
    std::ostringstream text;
    text << value;
    return text.str();
  }
  static std::string show(const std::string &value) { return "\"" + value + "\""; }
  static std::string show(char value) { return "char " + std::to_string((int)value); }
  static std::string show(const char *value) { return value == nullptr ? "(null)" : "\"" + std::string(value) + "\""; }

  int fd_;
  bool failed_ = false;
};

#define CHILD_EXPECT(child, condition) (child).expect((condition), #condition, __LINE__)
#define CHILD_EXPECT_EQ(child, expected, actual) (child).expect_eq((expected), (actual), #actual, __LINE__)

// Runs body in a forked child and turns its failed checks into failures of
// the current test.
void in_child(const std::function<void(Child &)> &body) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const pid_t pid = fork_flushed();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(fds[0]);
    Child child(fds[1]);
    body(child);
    tarn_test::end_child(child.failed() ? 1 : 0);
  }
  close(fds[1]);
  const std::string report = read_all(fds[0]);
  close(fds[0]);
  const int status = reap(pid);
  EXPECT_EQ("", report);
  EXPECT_EQ(0, status) << "the child ended with " << status;
}

// Redirects standard error of the calling process into a pipe until
// taken(), which restores it and returns what was written.
class StderrCapture {
 public:
  StderrCapture() {
    saved_ = dup(STDERR_FILENO);
    if (pipe2(fds_, O_CLOEXEC) == 0) dup2(fds_[1], STDERR_FILENO);
  }
  ~StderrCapture() { taken(); }
  std::string taken() {
    if (saved_ < 0) return text_;
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
    close(fds_[1]);
    text_ = read_all(fds_[0]);
    close(fds_[0]);
    return text_;
  }

 private:
  int saved_ = -1;
  int fds_[2] = {-1, -1};
  std::string text_;
};

// What a sink of the program's own received.
struct SinkRecord {
  std::mutex mutex;
  struct Call {
    void *context;
    uint32_t level;
    std::string line;
    size_t length;
    bool terminated;
    long long tid;
  };
  std::vector<Call> calls;
};

void record_sink(void *context, uint32_t level, const char *line, size_t length) {
  SinkRecord *record = static_cast<SinkRecord *>(context);
  std::lock_guard<std::mutex> guard(record->mutex);
  record->calls.push_back(
      {context, level, std::string(line, length), length, line[length] == '\0', (long long)syscall(SYS_gettid)});
}

class TarnLog : public ::testing::Test {
 protected:
  void SetUp() override { unlink(kConfigPath); }
  void TearDown() override { unlink(kConfigPath); }
};

// ---------------------------------------------------------------------------
// Configuration

TEST_F(TarnLog, WithoutAConfigFileTheLevelIsTwoAndTheDirectoryIsVarLog) {
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 2u, tarn_log_level_get());
    char dir[1024];
    memset(dir, 'x', sizeof(dir));
    CHILD_EXPECT_EQ(child, 8, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, std::string("/var/log"), std::string(dir));
  });
}

TEST_F(TarnLog, ConfiguredLevelsZeroToThreeAreReturned) {
  for (uint32_t level = 0; level <= 3; ++level) {
    SCOPED_TRACE("level " + std::to_string(level));
    write_config("[log]\nlevel = " + std::to_string(level) + "\n");
    in_child([level](Child &child) { CHILD_EXPECT_EQ(child, level, tarn_log_level_get()); });
  }
}

TEST_F(TarnLog, ALevelOutOfRangeOrNotANumberGivesTheDefault) {
  const char *values[] = {"4", "-1", "abc", "2x", "1.5", "", "0x1", "99999999999999999999", "3 3"};
  for (const char *value : values) {
    SCOPED_TRACE(std::string("level = ") + value);
    write_config(std::string("[log]\nlevel = ") + value + "\n");
    in_child([](Child &child) { CHILD_EXPECT_EQ(child, 2u, tarn_log_level_get()); });
  }
}

TEST_F(TarnLog, AMissingSectionOrKeyGivesTheDefaults) {
  const char *configs[] = {"", "[log]\n", "[other]\nlevel = 0\ndir = /srv/other\n", "level = 0\ndir = /srv/x\n",
                           "[log]\nfile_max_kb = 1\n"};
  for (const char *config : configs) {
    SCOPED_TRACE(config);
    write_config(config);
    in_child([](Child &child) {
      CHILD_EXPECT_EQ(child, 2u, tarn_log_level_get());
      char dir[1024];
      CHILD_EXPECT_EQ(child, 8, tarn_log_dir(dir, sizeof(dir)));
      CHILD_EXPECT_EQ(child, std::string("/var/log"), std::string(dir));
    });
  }
}

TEST_F(TarnLog, TheDocumentedFormWithCommentsIsRead) {
  write_config(
      "[log]\n"
      "level = 3            ; 0 fatal and error only, 1 +warn, 2 +info, 3 +debug\n"
      "dir = /srv/agent     ; the system log directory; empty: there is none\n"
      "file_max_kb = 10240  ; size at which a log file is rotated\n");
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 3u, tarn_log_level_get());
    char dir[1024];
    CHILD_EXPECT_EQ(child, 10, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, std::string("/srv/agent"), std::string(dir));
  });
}

TEST_F(TarnLog, TheConfiguredDirectoryAndItsLengthAreReturned) {
  write_config("[log]\ndir = /srv/tarn data\n");
  in_child([](Child &child) {
    char dir[1024];
    CHILD_EXPECT_EQ(child, 14, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, std::string("/srv/tarn data"), std::string(dir));
    // Exactly enough room for the text and its terminator.
    char fits[15];
    CHILD_EXPECT_EQ(child, 14, tarn_log_dir(fits, sizeof(fits)));
    CHILD_EXPECT_EQ(child, std::string("/srv/tarn data"), std::string(fits));
  });
}

TEST_F(TarnLog, AnEmptyDirectoryMeansThereIsNone) {
  write_config("[log]\ndir =\n");
  in_child([](Child &child) {
    char dir[64];
    memset(dir, 'x', sizeof(dir));
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, '\0', dir[0]);
  });
}

TEST_F(TarnLog, ADirectoryThatDoesNotFitTheBufferGivesZeroAndAnEmptyString) {
  in_child([](Child &child) {
    char dir[8];  // "/var/log" needs 9 bytes
    memset(dir, 'x', sizeof(dir));
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, '\0', dir[0]);
    char one[1] = {'x'};
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(one, sizeof(one)));
    CHILD_EXPECT_EQ(child, '\0', one[0]);
  });
}

TEST_F(TarnLog, ANullBufferOrZeroLengthGivesZeroAndWritesNothing) {
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(nullptr, 64));
    char dir[4] = {'x', 'x', 'x', 'x'};
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(dir, 0));
    CHILD_EXPECT_EQ(child, 'x', dir[0]);
  });
}

TEST_F(TarnLog, LongLinesAreReadWhole) {
  const std::string long_dir = "/srv/" + std::string(1018, 'd');
  write_config("[other]\nnote = " + std::string(65535, 'n') + "\n[log]\nlevel = 3\ndir = " + long_dir + "\n");
  in_child([&long_dir](Child &child) {
    char dir[1024];
    CHILD_EXPECT_EQ(child, (int)long_dir.size(), tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT(child, long_dir == std::string(dir));
    CHILD_EXPECT_EQ(child, 3u, tarn_log_level_get());
  });
}

// Checks in child that every value is its default.
void expect_defaults(Child &child) {
  char dir[1024];
  CHILD_EXPECT_EQ(child, 8, tarn_log_dir(dir, sizeof(dir)));
  CHILD_EXPECT(child, std::string("/var/log") == dir);
  CHILD_EXPECT_EQ(child, 2u, tarn_log_level_get());
}

// A configuration of exactly size bytes that sets level 3, padded by a
// comment.
std::string config_of_size(size_t size) {
  const std::string head = "[log]\nlevel = 3\n; ";
  return head + std::string(size - head.size() - 1, 'c') + "\n";
}

TEST_F(TarnLog, AFileAtTheSizeBoundIsReadAndOneByteMoreGivesEveryDefault) {
  constexpr size_t kBound = 1024 * 1024;
  write_config(config_of_size(kBound));
  in_child([](Child &child) { CHILD_EXPECT_EQ(child, 3u, tarn_log_level_get()); });
  write_config(config_of_size(kBound + 1));
  in_child(expect_defaults);
}

TEST_F(TarnLog, ANulByteMakesTheWholeFileIgnored) {
  const std::string nul(1, '\0');
  for (const std::string &config : {"[log]\nlevel = 3\n" + nul + "dir = /srv/x\n",
                                    "[log]\nlevel = 3\ndir = /srv/x" + nul + "\n", nul + "[log]\nlevel = 3\n"}) {
    write_config(config);
    in_child(expect_defaults);
  }
}

TEST_F(TarnLog, AConfigurationThatIsNotARegularFileGivesEveryDefaultAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    ASSERT_TRUE(tarn_test::make_not_a_file(kConfigPath, kind));
    in_child([kind](Child &child) {
      tarn_test::TimeLimit limit(5, std::string("reading a configuration that is ") + tarn_test::describe(kind));
      expect_defaults(child);
    });
    EXPECT_TRUE(tarn_test::is_not_a_file(kConfigPath, kind));
  }
}

TEST_F(TarnLog, AnIndentedLineIsReadAsItWouldBeWithoutItsIndent) {
  write_config("[log]\n   level = 3\n\tdir = /srv/x\n");
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 3u, tarn_log_level_get());
    char dir[64];
    CHILD_EXPECT_EQ(child, 6, tarn_log_dir(dir, sizeof(dir)));
  });
  // Never as more text for the key line above it: this file is malformed.
  write_config("[log]\nlevel = 1\n   3\n");
  in_child(expect_defaults);
}

TEST_F(TarnLog, AMalformedLineMakesTheWholeFileIgnored) {
  write_config("[log]\nlevel = 0\ndir = /srv/x\nthis line has no equals sign\n");
  in_child([](Child &child) {
    char dir[64];
    CHILD_EXPECT_EQ(child, 8, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT(child, std::string("/var/log") == dir);
    CHILD_EXPECT_EQ(child, 2u, tarn_log_level_get());
  });
}

TEST_F(TarnLog, AConfiguredDirectoryLongerThanTheBufferGivesZero) {
  const std::string long_dir = "/srv/" + std::string(100, 'd');
  write_config("[log]\ndir = " + long_dir + "\n");
  in_child([&long_dir](Child &child) {
    char dir[64];
    memset(dir, 'x', sizeof(dir));
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(dir, sizeof(dir)));
    CHILD_EXPECT_EQ(child, '\0', dir[0]);
    char exact[106];
    CHILD_EXPECT_EQ(child, 0, tarn_log_dir(exact, long_dir.size()));
    CHILD_EXPECT_EQ(child, (int)long_dir.size(), tarn_log_dir(exact, sizeof(exact)));
    CHILD_EXPECT(child, long_dir == std::string(exact));
  });
}

TEST_F(TarnLog, TheConfigurationIsReadOncePerProcess) {
  write_config("[log]\nlevel = 1\ndir = /srv/first\n");
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 1u, tarn_log_level_get());
    write_config("[log]\nlevel = 3\ndir = /srv/second\n");
    CHILD_EXPECT_EQ(child, 1u, tarn_log_level_get());
    char dir[64];
    tarn_log_dir(dir, sizeof(dir));
    CHILD_EXPECT_EQ(child, std::string("/srv/first"), std::string(dir));
  });
  // A process started after the change sees it.
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 3u, tarn_log_level_get());
    char dir[64];
    tarn_log_dir(dir, sizeof(dir));
    CHILD_EXPECT_EQ(child, std::string("/srv/second"), std::string(dir));
  });
}

TEST_F(TarnLog, TheLevelDoesNotFilterOutput) {
  write_config("[log]\nlevel = 0\n");
  in_child([](Child &child) {
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    tarn_log_output(TARN_LOG_LEVEL_DEBUG, "debug line\n");
    tarn_log_output(TARN_LOG_LEVEL_INFO, "info line\n");
    if (CHILD_EXPECT_EQ(child, (size_t)2, record.calls.size())) {
      CHILD_EXPECT_EQ(child, std::string("debug line\n"), record.calls[0].line);
      CHILD_EXPECT_EQ(child, 3u, record.calls[0].level);
      CHILD_EXPECT_EQ(child, 2u, record.calls[1].level);
    }
    const std::string dir = fresh_dir("unfiltered");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    tarn_log_output(TARN_LOG_LEVEL_DEBUG, "debug to file\n");
    CHILD_EXPECT_EQ(child, std::string("debug to file\n"), read_file(log_file(dir)));
  });
}

// ---------------------------------------------------------------------------
// Registration

TEST_F(TarnLog, AutologInitRegisters) {
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_log_is_regestered());
    CHILD_EXPECT_EQ(child, 0, tarn_log_is_regestered());
    const std::string dir = fresh_dir("registers");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    CHILD_EXPECT(child, tarn_log_is_regestered() != 0);
    CHILD_EXPECT(child, tarn_log_is_regestered() != 0);
  });
}

TEST_F(TarnLog, LogRegisterRegistersAndRejectsANullSink) {
  in_child([](Child &child) {
    CHILD_EXPECT_EQ(child, EINVAL, tarn_log_register(nullptr, nullptr));
    CHILD_EXPECT_EQ(child, 0, tarn_log_is_regestered());
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    CHILD_EXPECT(child, tarn_log_is_regestered() != 0);
  });
}

TEST_F(TarnLog, AutologInitRejectsBadArgumentsWithEinval) {
  in_child([](Child &child) {
    const std::string dir = fresh_dir("einval");
    const std::string too_long = "/tmp/" + std::string(1019, 'l');  // 1024 bytes
    CHILD_EXPECT_EQ(child, (size_t)1024, too_long.size());
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init(nullptr, 5));
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init("", 5));
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init(too_long.c_str(), 5));
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init(dir.c_str(), 0));
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init(dir.c_str(), 101));
    CHILD_EXPECT_EQ(child, EINVAL, tarn_autolog_init(dir.c_str(), -1));
    CHILD_EXPECT_EQ(child, 0, tarn_log_is_regestered());
    // Nothing was registered: lines still go to standard error.
    StderrCapture capture;
    tarn_log_output(0, "after the refusals\n");
    CHILD_EXPECT_EQ(child, std::string("after the refusals\n"), capture.taken());
  });
}

TEST_F(TarnLog, AutologInitAcceptsTheLimits) {
  in_child([](Child &child) {
    const std::string longest = "/tmp/" + std::string(1018, 'l');  // 1023 bytes
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(longest.c_str(), 5));
    const std::string dir = fresh_dir("limits");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 1));
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 100));
    CHILD_EXPECT(child, tarn_log_is_regestered() != 0);
  });
}

// ---------------------------------------------------------------------------
// Directory of log files

TEST_F(TarnLog, LinesLandInTarnLogOfTheDirectoryCreatedWithItsParentsOnTheFirstLine) {
  in_child([](Child &child) {
    umask(022);
    const std::string top = fresh_dir("created");
    const std::string dir = top + "/a/b/c";
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    CHILD_EXPECT(child, !exists(top));
    tarn_log_output(2, "first %d\n", 1);
    tarn_log_output(0, "second %s\n", "two");
    struct stat st;
    if (CHILD_EXPECT(child, stat(dir.c_str(), &st) == 0)) {
      CHILD_EXPECT(child, S_ISDIR(st.st_mode));
      CHILD_EXPECT_EQ(child, 0755u, (unsigned)(st.st_mode & 07777));
    }
    if (CHILD_EXPECT(child, stat((top + "/a").c_str(), &st) == 0)) {
      CHILD_EXPECT_EQ(child, 0755u, (unsigned)(st.st_mode & 07777));
    }
    CHILD_EXPECT_EQ(child, std::string("first 1\nsecond two\n"), read_file(log_file(dir)));
    CHILD_EXPECT(child, !exists(log_file(dir, 1)));
  });
}

TEST_F(TarnLog, LinesAreAppendedToAnExistingLog) {
  const std::string dir = fresh_dir("append");
  mkdir("/var/log/tarn_log_test", 0755);
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755)) << strerror(errno);
  write_file(log_file(dir), "earlier\n");
  in_child([&dir](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    tarn_log_output(1, "later\n");
  });
  EXPECT_EQ("earlier\nlater\n", read_file(log_file(dir)));
}

TEST_F(TarnLog, AtStandsForTheExecutablesDirectory) {
  const std::string exe = own_exe_path();
  ASSERT_FALSE(exe.empty());
  const std::string exe_dir = exe.substr(0, exe.rfind('/'));
  // Climb from the executable's directory to the root, then into /tmp, so
  // that nothing is written beside the executable itself.
  std::string up;
  for (char c : exe_dir) {
    if (c == '/') up += "/..";
  }
  const std::string name = "tarn_at_" + std::to_string(getpid());
  const std::string relative = up + "/tmp/" + name + "/logs";
  in_child([&relative](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(("@" + relative).c_str(), 5));
    tarn_log_output(2, "beside the executable\n");
  });
  EXPECT_EQ("beside the executable\n", read_file(exe_dir + relative + "/tarn.log"));
  EXPECT_EQ("beside the executable\n", read_file("/tmp/" + name + "/logs/tarn.log"));
  EXPECT_FALSE(exists("@"));
}

TEST_F(TarnLog, AnUnwritableDirectorySendsLinesToStandardError) {
  const std::string blocker = "/tmp/tarn_log_blocker_" + std::to_string(getpid());
  write_file(blocker, "a file, not a directory\n");
  in_child([&blocker](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init((blocker + "/logs").c_str(), 5));
    StderrCapture capture;
    tarn_log_output(0, "nowhere to write %d\n", 9);
    CHILD_EXPECT_EQ(child, std::string("nowhere to write 9\n"), capture.taken());
  });
}

TEST_F(TarnLog, UnregisteredLinesGoToStandardError) {
  in_child([](Child &child) {
    StderrCapture capture;
    tarn_log_output(2, "to stderr %d %s\n", 5, "five");
    tarn_log_output(3, "second\n");
    CHILD_EXPECT_EQ(child, std::string("to stderr 5 five\nsecond\n"), capture.taken());
  });
}

TEST_F(TarnLog, TheLastRegistrationWins) {
  in_child([](Child &child) {
    const std::string first = fresh_dir("first");
    const std::string second = fresh_dir("second");
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(first.c_str(), 5));
    tarn_log_output(2, "one\n");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(second.c_str(), 5));
    tarn_log_output(2, "two\n");
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    tarn_log_output(2, "three\n");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(first.c_str(), 5));
    tarn_log_output(2, "four\n");
    CHILD_EXPECT_EQ(child, std::string("one\nfour\n"), read_file(log_file(first)));
    CHILD_EXPECT_EQ(child, std::string("two\n"), read_file(log_file(second)));
    if (CHILD_EXPECT_EQ(child, (size_t)1, record.calls.size())) {
      CHILD_EXPECT_EQ(child, std::string("three\n"), record.calls[0].line);
    }
  });
}

// Lines of the rotation tests: "line <number> " padded with '.' to width
// bytes, newline included.
std::string numbered_line(int number, size_t width) {
  std::string line = "line " + std::to_string(number) + " ";
  if (line.size() + 1 < width) line.append(width - 1 - line.size(), '.');
  return line + "\n";
}

int number_of(const std::string &line) { return atoi(line.c_str() + 5); }

TEST_F(TarnLog, AFullLogIsRotatedAndAtMostMaxFilesAreKept) {
  write_config("[log]\nfile_max_kb = 1\n");
  const std::string dir = fresh_dir("rotate");
  const int count = 200;
  const size_t width = 100;
  in_child([&](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    for (int i = 0; i < count; ++i) tarn_log_output(2, "%s", numbered_line(i, width).c_str());
  });

  ASSERT_TRUE(exists(log_file(dir)));
  for (int generation = 1; generation <= 4; ++generation) {
    SCOPED_TRACE(log_file(dir, generation));
    EXPECT_TRUE(exists(log_file(dir, generation)));
    EXPECT_GE(file_size(log_file(dir, generation)), 1024);
    EXPECT_LT(file_size(log_file(dir, generation)), 1024 + (long long)width);
  }
  for (int generation = 5; generation <= 8; ++generation) EXPECT_FALSE(exists(log_file(dir, generation)));

  // Oldest first, the kept files hold the last lines written, in order.
  std::vector<std::string> kept;
  for (int generation = 4; generation >= 0; --generation) {
    for (const std::string &line : split_lines(read_file(log_file(dir, generation)))) kept.push_back(line);
  }
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(count - 1, number_of(kept.back()));
  for (size_t i = 1; i < kept.size(); ++i) {
    ASSERT_EQ(number_of(kept[i - 1]) + 1, number_of(kept[i])) << kept[i - 1] << " / " << kept[i];
  }
  EXPECT_GE(kept.size(), 4u * 1024 / width);
  const std::vector<std::string> newest = split_lines(read_file(log_file(dir)));
  ASSERT_FALSE(newest.empty());
  EXPECT_EQ(numbered_line(count - 1, width), newest.back() + "\n");
}

TEST_F(TarnLog, WithOneFileOnlyTarnLogIsKept) {
  write_config("[log]\nfile_max_kb = 1\n");
  const std::string dir = fresh_dir("one_file");
  in_child([&](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 1));
    for (int i = 0; i < 50; ++i) tarn_log_output(2, "%s", numbered_line(i, 100).c_str());
  });
  EXPECT_TRUE(exists(log_file(dir)));
  EXPECT_FALSE(exists(log_file(dir, 1)));
  EXPECT_LT(file_size(log_file(dir)), 1024);
  const std::vector<std::string> lines = split_lines(read_file(log_file(dir)));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(49, number_of(lines.back()));
}

TEST_F(TarnLog, WithTwoFilesTarnLogAndTarnLog1AreKept) {
  write_config("[log]\nfile_max_kb = 1\n");
  const std::string dir = fresh_dir("two_files");
  in_child([&](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 2));
    for (int i = 0; i < 50; ++i) tarn_log_output(2, "%s", numbered_line(i, 100).c_str());
  });
  EXPECT_TRUE(exists(log_file(dir)));
  EXPECT_TRUE(exists(log_file(dir, 1)));
  EXPECT_FALSE(exists(log_file(dir, 2)));
}

// With the default size a file is rotated when it reaches 10240 KiB.
void expect_rotation_at_default_size(const std::string &config) {
  write_config(config);
  const std::string dir = fresh_dir("default_size");
  const size_t width = 1024;
  const int lines_to_limit = 10240;  // 10240 lines of 1 KiB
  in_child([&](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    const std::string line(width - 1, 'k');
    for (int i = 0; i < lines_to_limit - 1; ++i) tarn_log_output(2, "%s\n", line.c_str());
    CHILD_EXPECT(child, !exists(log_file(dir, 1)));
    CHILD_EXPECT_EQ(child, (long long)(lines_to_limit - 1) * (long long)width, file_size(log_file(dir)));
    tarn_log_output(2, "%s\n", line.c_str());
    CHILD_EXPECT_EQ(child, 10240LL * 1024, file_size(log_file(dir, 1)));
    tarn_log_output(2, "after\n");
    CHILD_EXPECT_EQ(child, std::string("after\n"), read_file(log_file(dir)));
  });
}

TEST_F(TarnLog, WithoutAFileSizeAFileIsRotatedAt10240KiB) {
  expect_rotation_at_default_size("[log]\nlevel = 2\n");
}

TEST_F(TarnLog, AFileSizeOutOfRangeGivesTheDefault) { expect_rotation_at_default_size("[log]\nfile_max_kb = 0\n"); }

TEST_F(TarnLog, AConfiguredFileSizeIsUsed) {
  write_config("[log]\nfile_max_kb = 2\n");
  const std::string dir = fresh_dir("two_kib");
  in_child([&](Child &child) {
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    const std::string line(127, 'k');
    for (int i = 0; i < 15; ++i) tarn_log_output(2, "%s\n", line.c_str());
    CHILD_EXPECT(child, !exists(log_file(dir, 1)));
    tarn_log_output(2, "%s\n", line.c_str());
    CHILD_EXPECT_EQ(child, 2048LL, file_size(log_file(dir, 1)));
  });
}

// Lines written by several processes: "proc <p> line <n> ....\n".
struct WriterLine {
  int proc;
  int number;
};

bool parse_writer_line(const std::string &line, size_t width, WriterLine *parsed) {
  if (line.size() + 1 != width) return false;
  if (sscanf(line.c_str(), "proc %d line %d ", &parsed->proc, &parsed->number) != 2) return false;
  return line.back() == '.';
}

// Starts writers processes that each write count lines of width bytes into
// dir (kept files: max_files), all released at once.
void run_writers(const std::string &dir, int max_files, int writers, int count, size_t width) {
  Barrier gate;
  std::vector<pid_t> pids;
  for (int p = 0; p < writers; ++p) {
    pids.push_back(gate.start([&, p]() {
      if (tarn_autolog_init(dir.c_str(), max_files) != 0) return 2;
      for (int i = 0; i < count; ++i) {
        std::string line = "proc " + std::to_string(p) + " line " + std::to_string(i) + " ";
        line.append(width - 1 - line.size(), '.');
        tarn_log_output(2, "%s\n", line.c_str());
      }
      return 0;
    }));
  }
  gate.open();
  for (pid_t pid : pids) EXPECT_EQ(0, reap(pid));
}

TEST_F(TarnLog, ProcessesSharingADirectoryLoseNoLineWhileRotating) {
  write_config("[log]\nfile_max_kb = 1\n");
  const std::string dir = fresh_dir("shared");
  const int writers = 3;
  const int count = 300;
  const size_t width = 48;
  // 3 * 300 * 48 bytes is about 42 KiB: fewer than 60 rotations of files of
  // at least 1 KiB, so 100 files keep every line.
  run_writers(dir, 100, writers, count, width);

  std::map<std::pair<int, int>, int> seen;
  int files = 0;
  for (int generation = 0; generation < 100; ++generation) {
    if (!exists(log_file(dir, generation))) continue;
    ++files;
    for (const std::string &line : split_lines(read_file(log_file(dir, generation)))) {
      WriterLine parsed;
      ASSERT_TRUE(parse_writer_line(line, width, &parsed)) << "torn line: " << line;
      ++seen[{parsed.proc, parsed.number}];
    }
  }
  EXPECT_GT(files, 20);
  EXPECT_FALSE(exists(log_file(dir, 100)));
  EXPECT_EQ((size_t)writers * count, seen.size());
  for (const auto &entry : seen) {
    EXPECT_EQ(1, entry.second) << "proc " << entry.first.first << " line " << entry.first.second;
  }
  for (int p = 0; p < writers; ++p) {
    for (int i = 0; i < count; ++i) {
      if (seen.count({p, i}) == 0) ADD_FAILURE() << "lost: proc " << p << " line " << i;
    }
  }
}

TEST_F(TarnLog, ProcessesSharingADirectoryKeepAtMostMaxFiles) {
  write_config("[log]\nfile_max_kb = 1\n");
  const std::string dir = fresh_dir("shared_five");
  const int writers = 3;
  const int count = 400;
  const size_t width = 64;
  run_writers(dir, 5, writers, count, width);

  EXPECT_TRUE(exists(log_file(dir)));
  for (int generation = 1; generation <= 4; ++generation) EXPECT_TRUE(exists(log_file(dir, generation)));
  for (int generation = 5; generation <= 10; ++generation) EXPECT_FALSE(exists(log_file(dir, generation)));
  std::set<std::pair<int, int>> seen;
  for (int generation = 0; generation <= 4; ++generation) {
    for (const std::string &line : split_lines(read_file(log_file(dir, generation)))) {
      WriterLine parsed;
      ASSERT_TRUE(parse_writer_line(line, width, &parsed)) << "torn line: " << line;
      EXPECT_TRUE(seen.insert({parsed.proc, parsed.number}).second) << "twice: " << line;
    }
  }
  // Each writer writes into ever newer files and the oldest file goes
  // first, so what is kept of a writer is nothing or its last lines; and
  // the writer that wrote last keeps its last line.
  int kept_last = 0;
  for (int p = 0; p < writers; ++p) {
    SCOPED_TRACE("proc " + std::to_string(p));
    int first_kept = count;
    for (int i = 0; i < count; ++i) {
      if (seen.count({p, i}) != 0) {
        first_kept = i;
        break;
      }
    }
    for (int i = first_kept; i < count; ++i) EXPECT_EQ(1u, seen.count({p, i})) << "line " << i;
    if (first_kept < count) ++kept_last;
  }
  EXPECT_GE(kept_last, 1);
  EXPECT_GE(seen.size(), 4u * 1024 / width);
}

TEST_F(TarnLog, ThreadsMayReinitialiseWhileOthersLog) {
  in_child([](Child &child) {
    std::vector<std::string> dirs;
    for (int i = 0; i < 4; ++i) dirs.push_back(fresh_dir("threads"));
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dirs[0].c_str(), 5));
    const int loggers = 4;
    const int count = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&dirs, t] {
        for (int i = 0; i < 200; ++i) tarn_autolog_init(dirs[(size_t)(t + i) % dirs.size()].c_str(), 5);
      });
    }
    for (int t = 0; t < loggers; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < count; ++i) tarn_log_output(2, "thread %d line %d\n", t, i);
      });
    }
    for (std::thread &thread : threads) thread.join();
    // Every line went whole into exactly one of the directories.
    std::set<std::pair<int, int>> seen;
    for (const std::string &dir : dirs) {
      for (const std::string &line : split_lines(read_file(log_file(dir)))) {
        int t = -1, i = -1;
        if (!CHILD_EXPECT(child, sscanf(line.c_str(), "thread %d line %d", &t, &i) == 2)) continue;
        CHILD_EXPECT_EQ(child, "thread " + std::to_string(t) + " line " + std::to_string(i), line);
        CHILD_EXPECT(child, seen.insert({t, i}).second);
      }
    }
    CHILD_EXPECT_EQ(child, (size_t)(loggers * count), seen.size());
    CHILD_EXPECT(child, tarn_log_is_regestered() != 0);
  });
}

// ---------------------------------------------------------------------------
// A destination of the program's own

TEST_F(TarnLog, ASinkReceivesItsContextTheLevelAndTheWholeLine) {
  in_child([](Child &child) {
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    tarn_log_output(3, "abc %s %d\n", "def", 5);
    for (uint32_t level : {0u, 1u, 2u, 7u}) tarn_log_output(level, "level %u\n", level);
    if (!CHILD_EXPECT_EQ(child, (size_t)5, record.calls.size())) return;
    CHILD_EXPECT(child, record.calls[0].context == &record);
    CHILD_EXPECT_EQ(child, 3u, record.calls[0].level);
    CHILD_EXPECT_EQ(child, std::string("abc def 5\n"), record.calls[0].line);
    CHILD_EXPECT_EQ(child, (size_t)10, record.calls[0].length);
    CHILD_EXPECT(child, record.calls[0].terminated);
    const uint32_t levels[] = {0, 1, 2, 7};
    for (size_t i = 0; i < 4; ++i) {
      CHILD_EXPECT_EQ(child, levels[i], record.calls[i + 1].level);
      CHILD_EXPECT_EQ(child, "level " + std::to_string(levels[i]) + "\n", record.calls[i + 1].line);
    }
  });
}

TEST_F(TarnLog, ALineWithoutItsOwnNewlineGetsOne) {
  in_child([](Child &child) {
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    tarn_log_output(1, "no newline %d", 7);
    tarn_log_output(1, "%s", "");
    if (!CHILD_EXPECT_EQ(child, (size_t)2, record.calls.size())) return;
    CHILD_EXPECT_EQ(child, std::string("no newline 7\n"), record.calls[0].line);
    CHILD_EXPECT_EQ(child, std::string("\n"), record.calls[1].line);
  });
}

TEST_F(TarnLog, ASinkIsCalledFromEachLoggingThread) {
  in_child([](Child &child) {
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    const int threads = 4;
    const int count = 500;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([t] {
        const long long tid = (long long)syscall(SYS_gettid);
        for (int i = 0; i < count; ++i) tarn_log_output(2, "tid %lld thread %d line %d\n", tid, t, i);
      });
    }
    for (std::thread &worker : workers) worker.join();
    CHILD_EXPECT_EQ(child, (size_t)(threads * count), record.calls.size());
    std::set<std::pair<int, int>> seen;
    for (const SinkRecord::Call &call : record.calls) {
      long long tid = 0;
      int t = -1, i = -1;
      if (!CHILD_EXPECT(child, sscanf(call.line.c_str(), "tid %lld thread %d line %d", &tid, &t, &i) == 3)) break;
      CHILD_EXPECT_EQ(child, tid, call.tid);
      CHILD_EXPECT(child, seen.insert({t, i}).second);
    }
    CHILD_EXPECT_EQ(child, (size_t)(threads * count), seen.size());
  });
}

TEST_F(TarnLog, ALineLongerThan8191BytesIsCutAndEndsInANewline) {
  in_child([](Child &child) {
    SinkRecord record;
    CHILD_EXPECT_EQ(child, 0, tarn_log_register(record_sink, &record));
    const std::string longest(8190, 'a');  // with its newline: 8191 bytes
    tarn_log_output(1, "%s\n", longest.c_str());
    tarn_log_output(1, "%sb\n", longest.c_str());           // 8192 bytes
    tarn_log_output(1, "%s\n", std::string(20000, 'c').c_str());  // far longer
    if (!CHILD_EXPECT_EQ(child, (size_t)3, record.calls.size())) return;
    CHILD_EXPECT_EQ(child, longest + "\n", record.calls[0].line);
    CHILD_EXPECT_EQ(child, (size_t)8191, record.calls[1].length);
    CHILD_EXPECT_EQ(child, longest + "\n", record.calls[1].line);
    CHILD_EXPECT(child, record.calls[1].terminated);
    CHILD_EXPECT_EQ(child, (size_t)8191, record.calls[2].length);
    CHILD_EXPECT_EQ(child, std::string(8190, 'c') + "\n", record.calls[2].line);
    CHILD_EXPECT(child, record.calls[2].terminated);
  });
  in_child([](Child &child) {
    const std::string dir = fresh_dir("long_line");
    CHILD_EXPECT_EQ(child, 0, tarn_autolog_init(dir.c_str(), 5));
    tarn_log_output(1, "%s\n", std::string(10000, 'f').c_str());
    tarn_log_output(1, "next\n");
    CHILD_EXPECT_EQ(child, std::string(8190, 'f') + "\nnext\n", read_file(log_file(dir)));
  });
  in_child([](Child &child) {
    StderrCapture capture;
    tarn_log_output(1, "%s\n", std::string(9000, 'e').c_str());
    CHILD_EXPECT_EQ(child, std::string(8190, 'e') + "\n", capture.taken());
  });
}

// ---------------------------------------------------------------------------
// Bounded formatting

TEST(TarnStr, FormatsAndReturnsTheLength) {
  char buf[64];
  EXPECT_EQ(8, tarn_str_snprintf(buf, sizeof(buf), "hello %d", 42));
  EXPECT_STREQ("hello 42", buf);
  EXPECT_EQ(0, tarn_str_snprintf(buf, sizeof(buf), "%s", ""));
  EXPECT_STREQ("", buf);
}

TEST(TarnStr, CutsTerminatesAndReturnsTheKeptLength) {
  char buf[16];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(5, tarn_str_snprintf(buf, 6, "hello world"));
  EXPECT_STREQ("hello", buf);
  EXPECT_EQ('#', buf[6]);  // nothing past the given length

  EXPECT_EQ(8, tarn_str_snprintf(buf, 9, "hello %d", 42));  // just fits
  EXPECT_STREQ("hello 42", buf);
  EXPECT_EQ(7, tarn_str_snprintf(buf, 8, "hello %d", 42));  // one short
  EXPECT_STREQ("hello 4", buf);
  EXPECT_EQ(0, tarn_str_snprintf(buf, 1, "hello"));
  EXPECT_STREQ("", buf);

  std::vector<char> small(32, '#');
  EXPECT_EQ(15, tarn_str_snprintf(small.data(), 16, "%s", std::string(5000, 'z').c_str()));
  EXPECT_EQ(std::string(15, 'z'), std::string(small.data()));
  EXPECT_EQ('#', small[16]);
}

TEST(TarnStr, NullBufferZeroLengthOrNullFormatGiveMinusOneAndWriteNothing) {
  char buf[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
  EXPECT_EQ(-1, tarn_str_snprintf(nullptr, 8, "x"));
  EXPECT_EQ(-1, tarn_str_snprintf(buf, 0, "x"));
  EXPECT_EQ('#', buf[0]);
  const char *no_format = nullptr;
  EXPECT_EQ(-1, tarn_str_snprintf(buf, sizeof(buf), no_format));
  EXPECT_EQ('#', buf[0]);
}

TEST(TarnStr, AFailedFormatLeavesAnEmptyString) {
  // In the C locale a wide character outside ASCII cannot be converted.
  const wchar_t euro[] = {0x20AC, 0};
  char buf[16];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(-1, tarn_str_snprintf(buf, sizeof(buf), "a%lsb", euro));
  EXPECT_STREQ("", buf);
}

// ---------------------------------------------------------------------------
// Processes

TEST(TarnProcess, OwnPidAndItsExistence) {
  EXPECT_EQ((int)getpid(), tarn_process_get_pid());
  EXPECT_EQ(1, tarn_process_is_exist(getpid()));
}

TEST(TarnProcess, PidZeroAndNegativePidsDoNotExist) {
  EXPECT_EQ(0, tarn_process_is_exist(0));
  EXPECT_EQ(0, tarn_process_is_exist(-5));
  EXPECT_EQ(0, tarn_process_is_exist(-1));
  EXPECT_EQ(0, tarn_process_is_exist(INT_MAX));
}

TEST(TarnProcess, InitExists) {
  // Another user's process in a user namespace, root's otherwise: it
  // counts as existing either way.
  EXPECT_EQ(1, tarn_process_is_exist(1));
}

TEST(TarnProcess, AReapedChildDoesNotExist) {
  const pid_t pid = fork_flushed();
  ASSERT_GE(pid, 0);
  if (pid == 0) _exit(0);
  ASSERT_EQ(0, reap(pid));
  EXPECT_EQ(0, tarn_process_is_exist(pid));
  char path[256];
  errno = 0;
  EXPECT_EQ(-1, tarn_process_get_path(pid, path, sizeof(path)));
  EXPECT_NE(0, errno);
}

TEST(TarnProcess, ALiveOrStoppedChildExistsAndAZombieDoesNot) {
  const pid_t pid = fork_flushed();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    for (;;) pause();
  }
  EXPECT_EQ(1, tarn_process_is_exist(pid));

  ASSERT_EQ(0, kill(pid, SIGSTOP));
  siginfo_t info;
  memset(&info, 0, sizeof(info));
  ASSERT_EQ(0, waitid(P_PID, (id_t)pid, &info, WSTOPPED | WNOWAIT));
  EXPECT_EQ(1, tarn_process_is_exist(pid));

  // Killed but not yet reaped: a zombie.
  ASSERT_EQ(0, kill(pid, SIGKILL));
  memset(&info, 0, sizeof(info));
  ASSERT_EQ(0, waitid(P_PID, (id_t)pid, &info, WEXITED | WNOWAIT));
  EXPECT_EQ(0, kill(pid, 0));  // the pid is still taken
  EXPECT_EQ(0, tarn_process_is_exist(pid));
  EXPECT_EQ(killed_by(SIGKILL), reap(pid));
  EXPECT_EQ(0, tarn_process_is_exist(pid));
}

TEST(TarnProcess, OwnPathIsTheExecutable) {
  const std::string exe = own_exe_path();
  ASSERT_FALSE(exe.empty());
  char path[PATH_MAX];
  EXPECT_EQ((int)exe.size(), tarn_process_get_path(getpid(), path, sizeof(path)));
  EXPECT_EQ(exe, std::string(path));

  char exact[PATH_MAX];
  EXPECT_EQ((int)exe.size(), tarn_process_get_path(getpid(), exact, exe.size() + 1));
  EXPECT_EQ(exe, std::string(exact));
}

TEST(TarnProcess, AChildsPathIsItsExecutable) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const pid_t pid = fork_flushed();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(fds[1]);
    char byte;
    while (read(fds[0], &byte, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  close(fds[0]);
  char path[PATH_MAX];
  const int length = tarn_process_get_path(pid, path, sizeof(path));
  close(fds[1]);
  reap(pid);
  EXPECT_EQ(own_exe_path(), std::string(path));
  EXPECT_EQ((int)own_exe_path().size(), length);
}

TEST(TarnProcess, PathIsCutToAShortBuffer) {
  const std::string exe = own_exe_path();
  char path[16];
  memset(path, '#', sizeof(path));
  EXPECT_EQ(4, tarn_process_get_path(getpid(), path, 5));
  EXPECT_EQ(exe.substr(0, 4), std::string(path));
  EXPECT_EQ('#', path[5]);
  EXPECT_EQ(0, tarn_process_get_path(getpid(), path, 1));
  EXPECT_STREQ("", path);
}

TEST(TarnProcess, PathWithoutABufferIsEinval) {
  char path[16];
  errno = 0;
  EXPECT_EQ(-1, tarn_process_get_path(getpid(), nullptr, 16));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, tarn_process_get_path(getpid(), path, 0));
  EXPECT_EQ(EINVAL, errno);
}

TEST(TarnProcess, PathOfAMissingPidFails) {
  char path[64];
  memset(path, '#', sizeof(path));
  errno = 0;
  EXPECT_EQ(-1, tarn_process_get_path(INT_MAX, path, sizeof(path)));
  EXPECT_NE(0, errno);
  EXPECT_EQ(-1, tarn_process_get_path(0, path, sizeof(path)));
  EXPECT_EQ(-1, tarn_process_get_path(-3, path, sizeof(path)));
}

// ---------------------------------------------------------------------------
// Tick

TEST(TarnTime, TickIsTheMonotonicClockInMilliseconds) {
  for (int round = 0; round < 100; ++round) {
    const int64_t before = monotonic_ms();
    const uint64_t tick = tarn_time_get_tick_cout();
    const int64_t after = monotonic_ms();
    ASSERT_LE((uint64_t)before, tick);
    ASSERT_GE((uint64_t)after, tick);
  }
}

TEST(TarnTime, LogTickIsTheSameClock) {
  const int64_t before = monotonic_ms();
  const uint64_t tick = tarn_log_get_tick_count();
  const int64_t after = monotonic_ms();
  EXPECT_LE((uint64_t)before, tick);
  EXPECT_GE((uint64_t)after, tick);
}

TEST(TarnTime, TickNeverGoesBackAndCountsMilliseconds) {
  uint64_t last = tarn_time_get_tick_cout();
  for (int i = 0; i < 100000; ++i) {
    const uint64_t now = tarn_time_get_tick_cout();
    ASSERT_GE(now, last);
    last = now;
  }
  const uint64_t start = tarn_time_get_tick_cout();
  struct timespec pause_for = {0, 120 * 1000 * 1000};
  while (nanosleep(&pause_for, &pause_for) != 0 && errno == EINTR) {
  }
  const uint64_t elapsed = tarn_time_get_tick_cout() - start;
  EXPECT_GE(elapsed, 119u);
  EXPECT_LT(elapsed, 2000u);
}

TEST(TarnTime, TickIsTheSameInAnotherProcess) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const int64_t before = monotonic_ms();
  const pid_t pid = fork_flushed();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const uint64_t tick = tarn_time_get_tick_cout();
    _exit(write(fds[1], &tick, sizeof(tick)) == (ssize_t)sizeof(tick) ? 0 : 1);
  }
  close(fds[1]);
  uint64_t child_tick = 0;
  const ssize_t got = read(fds[0], &child_tick, sizeof(child_tick));
  close(fds[0]);
  EXPECT_EQ(0, reap(pid));
  const int64_t after = monotonic_ms();
  ASSERT_EQ((ssize_t)sizeof(child_tick), got);
  EXPECT_LE((uint64_t)before, child_tick);
  EXPECT_GE((uint64_t)after, child_tick);
}

TEST(TarnTime, WallClockIsTimeInSeconds) {
  for (int round = 0; round < 100; ++round) {
    const time_t before = time(nullptr);
    const long now = tarn_time();
    const time_t after = time(nullptr);
    ASSERT_LE((long)before, now);
    ASSERT_GE((long)after, now);
  }
}

// ---------------------------------------------------------------------------
// Atomics

TEST(TarnAtomic, AddAndFetchReturnsTheNewValue) {
  alignas(8) int64_t value = 10;
  EXPECT_EQ(15, tarn_atomic64_add_and_fetch(&value, 5));
  EXPECT_EQ(-5, tarn_atomic64_add_and_fetch(&value, -20));
  EXPECT_EQ(-5, tarn_atomic64_add_and_fetch(&value, 0));
  EXPECT_EQ(-5, value);
  value = (int64_t)1 << 40;
  EXPECT_EQ((int64_t)1 << 41, tarn_atomic64_add_and_fetch(&value, (int64_t)1 << 40));
  EXPECT_EQ((int64_t)1 << 41, value);
}

TEST(TarnAtomic, ConcurrentAddsGiveAnExactTotalAndDistinctResults) {
  alignas(8) static int64_t counter = 0;
  counter = 0;
  const int threads = 8;
  const int adds = 50000;
  std::vector<std::vector<int64_t>> results((size_t)threads);
  std::atomic<bool> go{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      while (!go.load()) {
      }
      results[(size_t)t].reserve(adds);
      for (int i = 0; i < adds; ++i) results[(size_t)t].push_back(tarn_atomic64_add_and_fetch(&counter, 1));
    });
  }
  go = true;
  for (std::thread &worker : workers) worker.join();
  EXPECT_EQ((int64_t)threads * adds, counter);
  std::vector<int64_t> all;
  for (const std::vector<int64_t> &some : results) all.insert(all.end(), some.begin(), some.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ((size_t)threads * adds, all.size());
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ((int64_t)i + 1, all[i]);
}

TEST(TarnAtomic, ConcurrentMixedDeltasGiveAnExactTotal) {
  alignas(8) static int64_t counter = 0;
  counter = 1000;
  std::vector<std::thread> workers;
  for (int t = 0; t < 6; ++t) {
    workers.emplace_back([t] {
      const int64_t delta = (t % 2 == 0) ? 3 : -1;
      for (int i = 0; i < 100000; ++i) tarn_atomic64_add_and_fetch(&counter, delta);
    });
  }
  for (std::thread &worker : workers) worker.join();
  EXPECT_EQ(1000 + 3 * 100000 * 3 - 1 * 100000 * 3, counter);
}

}  // namespace
