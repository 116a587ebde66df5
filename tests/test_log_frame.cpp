// The log frame (log_frame.h): the line prefix, the level gate, the level
// numbers handed to tarn_log_output, the time string, the check statement,
// the default destination and the end of the process when memory runs out.
//
// The log statements are used directly in this file, so the file name and
// line numbers in the lines are this file's. tarn_log_output, the level and
// the tick are the fakes of tests/support; the base functions that decide
// the default destination (tarn_log_is_regestered, tarn_autolog_init,
// tarn_log_dir, tarn_process_get_path) and the wall clock (time) are
// replaced below, in this program only, by versions whose answers the tests
// set and which record how they were called.

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dlfcn.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "log_frame.h"

// The success value of the library's result codes, as the library's own
// sources compare with it.
#define KEP_E_SUCCESS 0

namespace {

// ---------------------------------------------------------------------------
// Replaced base functions and clock

struct AutologCall {
  std::string directory;
  int max_files;
  size_t lines_before;  // lines handed to tarn_log_output before this call
};

struct FrameDoubles {
  std::mutex mutex;

  int registered = 1;
  int is_registered_calls = 0;
  std::vector<AutologCall> autolog_calls;

  std::optional<std::string> log_dir;  // empty optional: there is none
  int log_dir_calls = 0;
  size_t log_dir_length = 0;
  bool log_dir_buffer_zeroed = false;

  std::optional<std::string> exe_path;  // empty optional: the real path
  int get_path_calls = 0;
  int get_path_pid = 0;
  size_t get_path_length = 0;
  bool get_path_buffer_zeroed = false;

  std::optional<time_t> now;  // empty optional: the real wall clock

  void reset() {
    std::lock_guard<std::mutex> guard(mutex);
    registered = 1;
    is_registered_calls = 0;
    autolog_calls.clear();
    log_dir = "/var/log";
    log_dir_calls = 0;
    log_dir_length = 0;
    log_dir_buffer_zeroed = false;
    exe_path.reset();
    get_path_calls = 0;
    get_path_pid = 0;
    get_path_length = 0;
    get_path_buffer_zeroed = false;
    now.reset();
  }
};

FrameDoubles &doubles() {
  static FrameDoubles instance;
  return instance;
}

bool all_zero(const char *buffer, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (buffer[i] != '\0') return false;
  }
  return true;
}

}  // namespace

extern "C" {

int tarn_log_is_regestered(void) {
  FrameDoubles &d = doubles();
  std::lock_guard<std::mutex> guard(d.mutex);
  ++d.is_registered_calls;
  return d.registered;
}

int tarn_autolog_init(const char *directory, int max_files) {
  const size_t lines_before = tarn_test::logs().size();
  FrameDoubles &d = doubles();
  std::lock_guard<std::mutex> guard(d.mutex);
  d.autolog_calls.push_back({directory != nullptr ? std::string(directory) : std::string("(null)"),
                             max_files, lines_before});
  d.registered = 1;
  return 0;
}

int tarn_log_dir(char *buf, size_t len) {
  FrameDoubles &d = doubles();
  std::lock_guard<std::mutex> guard(d.mutex);
  ++d.log_dir_calls;
  d.log_dir_length = len;
  d.log_dir_buffer_zeroed = buf != nullptr && all_zero(buf, len);
  if (buf == nullptr || len == 0) return 0;
  if (!d.log_dir || d.log_dir->empty() || d.log_dir->size() >= len) {
    buf[0] = '\0';
    return 0;
  }
  memcpy(buf, d.log_dir->c_str(), d.log_dir->size() + 1);
  return (int)d.log_dir->size();
}

int tarn_process_get_path(int pid, char *buf, size_t len) {
  std::optional<std::string> path;
  {
    FrameDoubles &d = doubles();
    std::lock_guard<std::mutex> guard(d.mutex);
    ++d.get_path_calls;
    d.get_path_pid = pid;
    d.get_path_length = len;
    d.get_path_buffer_zeroed = buf != nullptr && all_zero(buf, len);
    path = d.exe_path;
  }
  if (!path) {
    auto real = reinterpret_cast<int (*)(int, char *, size_t)>(dlsym(RTLD_NEXT, "tarn_process_get_path"));
    return real(pid, buf, len);
  }
  if (buf == nullptr || len == 0) return -1;
  const size_t kept = path->size() < len ? path->size() : len - 1;
  memcpy(buf, path->data(), kept);
  buf[kept] = '\0';
  return (int)kept;
}

time_t time(time_t *out) noexcept {
  std::optional<time_t> fixed;
  {
    FrameDoubles &d = doubles();
    std::lock_guard<std::mutex> guard(d.mutex);
    fixed = d.now;
  }
  time_t now;
  if (fixed) {
    now = *fixed;
  } else {
    struct timespec wall;
    clock_gettime(CLOCK_REALTIME, &wall);
    now = wall.tv_sec;
  }
  if (out != nullptr) *out = now;
  return now;
}

}  // extern "C"

namespace {

void set_registered(int registered) {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  doubles().registered = registered;
}

void set_log_dir(const std::optional<std::string> &dir) {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  doubles().log_dir = dir;
}

void set_exe_path(const std::string &path) {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  doubles().exe_path = path;
}

void set_now(time_t now) {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  doubles().now = now;
}

std::vector<AutologCall> autolog_calls() {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  return doubles().autolog_calls;
}

int is_registered_calls() {
  std::lock_guard<std::mutex> guard(doubles().mutex);
  return doubles().is_registered_calls;
}

long long current_tid() { return (long long)syscall(SYS_gettid); }

// The time string that the frame should write for the wall-clock second
// when and the millisecond field millis.
std::string time_text(time_t when, unsigned millis) {
  struct tm local;
  if (localtime_r(&when, &local) == nullptr) return "localtime_r failed";
  char text[64];
  snprintf(text, sizeof(text), "%d-%02d-%02d %02d:%02d:%02d.%03u", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
  return text;
}

// A local instant at 12:05:09 on 21 November 2026.
time_t local_noon_instant() {
  struct tm local;
  memset(&local, 0, sizeof(local));
  local.tm_year = 2026 - 1900;
  local.tm_mon = 10;
  local.tm_mday = 21;
  local.tm_hour = 12;
  local.tm_min = 5;
  local.tm_sec = 9;
  local.tm_isdst = -1;
  return mktime(&local);
}

std::vector<std::string> words_of(const std::vector<tarn_test::LogLine> &lines) {
  std::vector<std::string> words;
  for (const tarn_test::LogLine &line : lines) words.push_back(line.word);
  return words;
}

// The "[file:line]" part of a captured line, without the brackets.
std::string source_of(const std::string &line) {
  const size_t tag = line.find(" [kep] [");
  if (tag == std::string::npos) return "";
  const size_t start = tag + 8;
  const size_t end = line.find("] ", start);
  if (end == std::string::npos) return "";
  return line.substr(start, end - start);
}

class LogFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_test::reset_fakes();
    doubles().reset();
  }
  void TearDown() override {
    tarn_test::reset_fakes();
    doubles().reset();
  }
};

// ---------------------------------------------------------------------------
// Line layout

TEST_F(LogFrame, LineIsTheFullPrefixFollowedByTheMessage) {
  tarn_test::set_tick(4000123);
  const long long tid = current_tid();
  const time_t before = time(nullptr);
  const int line = __LINE__ + 1;
  LOG(info, "connected to %s on port %d\n", "service", 8080);
  const time_t after = time(nullptr);

  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(1u, lines.size());
  const std::string rest = "] [info] [pid:" + std::to_string(getpid()) + "] [tid:" + std::to_string(tid) +
                           "] [kep] [test_log_frame.cpp:" + std::to_string(line) +
                           "] connected to service on port 8080\n";
  const std::string at_before = "[" + time_text(before, 123) + rest;
  const std::string at_after = "[" + time_text(after, 123) + rest;
  EXPECT_TRUE(lines[0].line == at_before || lines[0].line == at_after)
      << "line:     " << lines[0].line << "expected: " << at_before;
  EXPECT_EQ(2u, lines[0].number);
}

TEST_F(LogFrame, LineAtAFixedLocalTimeIsExact) {
  const time_t noon = local_noon_instant();
  set_now(noon);
  tarn_test::set_tick(987654789);
  const int line = __LINE__ + 1;
  LOG(warn, "disk %s at %d%%\n", "/data", 93);

  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("[2026-11-21 12:05:09.789] [warn] [pid:" + std::to_string(getpid()) + "] [tid:" +
                std::to_string(current_tid()) + "] [kep] [test_log_frame.cpp:" + std::to_string(line) +
                "] disk /data at 93%\n",
            lines[0].line);
}

TEST_F(LogFrame, EachLevelWordCarriesItsLevelNumber) {
  LOG(fatal, "a\n");
  LOG(error, "b\n");
  LOG(warn, "c\n");
  LOG(info, "d\n");
  LOG(debug, "e\n");

  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(5u, lines.size());
  const char *words[] = {"fatal", "error", "warn", "info", "debug"};
  const uint32_t numbers[] = {0, 0, 1, 2, 3};
  const char *messages[] = {"a\n", "b\n", "c\n", "d\n", "e\n"};
  for (size_t i = 0; i < 5; ++i) {
    SCOPED_TRACE(words[i]);
    EXPECT_EQ(words[i], lines[i].word);
    EXPECT_EQ(numbers[i], lines[i].number);
    EXPECT_EQ(messages[i], lines[i].message);
    EXPECT_NE(std::string::npos, lines[i].line.find(std::string("] [") + words[i] + "] [pid:"));
  }
}

TEST_F(LogFrame, FileNameIsTheBareNameWithItsExtension) {
  const int line = __LINE__ + 1;
  LOG(error, "x\n");
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(line), source_of(lines[0].line));
  EXPECT_EQ(std::string::npos, lines[0].line.find('/'));
}

TEST_F(LogFrame, BaseNameIsEverythingAfterTheLastSlash) {
  EXPECT_STREQ("c.cpp", log_base_name("/a/b/c.cpp"));
  EXPECT_STREQ("c.cpp", log_base_name("c.cpp"));
  EXPECT_STREQ("c", log_base_name("a/c"));
  EXPECT_STREQ("", log_base_name("a/b/"));
}

TEST_F(LogFrame, EachStatementNamesItsOwnLine) {
  const int first = __LINE__ + 1;
  LOG(info, "one\n");
  const int second = __LINE__ + 1;
  LOG(info, "two\n");
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(first), source_of(lines[0].line));
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(second), source_of(lines[1].line));
}

TEST_F(LogFrame, MessageArgumentsFollowThePrefixArguments) {
  LOG(debug, "%s=%d, %lld bytes, %c%c, %u%%\n", "count", -7, 1099511627776LL, 'o', 'k', 42u);
  EXPECT_TRUE(tarn_test::logged("debug", "count=-7, 1099511627776 bytes, ok, 42%\n"));
}

TEST_F(LogFrame, ThreadIdIsTheLoggingThreadsOwn) {
  long long worker_tid = 0;
  std::thread worker([&] {
    worker_tid = current_tid();
    LOG(info, "from worker\n");
  });
  worker.join();
  LOG(info, "from main\n");

  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(2u, lines.size());
  EXPECT_NE(worker_tid, current_tid());
  EXPECT_NE(std::string::npos, lines[0].line.find("] [tid:" + std::to_string(worker_tid) + "] [kep] "));
  EXPECT_NE(std::string::npos, lines[1].line.find("] [tid:" + std::to_string(current_tid()) + "] [kep] "));
  const std::string pid = "] [pid:" + std::to_string(getpid()) + "] ";
  EXPECT_NE(std::string::npos, lines[0].line.find(pid));
  EXPECT_NE(std::string::npos, lines[1].line.find(pid));
}

TEST_F(LogFrame, StatementsAreSingleStatements) {
  for (int branch = 0; branch < 2; ++branch) {
    if (branch == 0)
      LOG(info, "then\n");
    else
      LOG(info, "else\n");
    if (branch == 0)
      CHECK_EXPR(branch != 0, "then\n");
    else
      CHECK_EXPR(branch == 0, "else\n");
  }
  EXPECT_EQ((std::vector<std::string>{"then\n", "else\n"}), tarn_test::messages("info"));
  EXPECT_EQ((std::vector<std::string>{"expr[branch != 0] false! then\n", "expr[branch == 0] false! else\n"}),
            tarn_test::messages("warn"));
}

// ---------------------------------------------------------------------------
// Level gate

TEST_F(LogFrame, AtLevelZeroOnlyErrorAndFatalPassAndTheDefaultDestinationIsStillRegistered) {
  tarn_test::set_log_level(0);
  set_registered(0);
  set_log_dir(std::string("/var/log"));
  set_exe_path("/opt/x/bin/agent");

  LOG(warn, "w\n");
  // The filtered statement registered the default destination.
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ("/var/log//velmora/TARN3_LOG/tarn_default_autolog//agent/", autolog_calls()[0].directory);
  EXPECT_EQ(5, autolog_calls()[0].max_files);

  LOG(info, "i\n");
  LOG(debug, "d\n");
  EXPECT_TRUE(tarn_test::logs().empty());

  LOG(error, "e\n");
  LOG(fatal, "f\n");
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("error", lines[0].word);
  EXPECT_EQ(0u, lines[0].number);
  EXPECT_EQ("e\n", lines[0].message);
  EXPECT_EQ("fatal", lines[1].word);
  EXPECT_EQ(0u, lines[1].number);
  EXPECT_EQ("f\n", lines[1].message);
  EXPECT_EQ(1u, autolog_calls().size());
}

TEST_F(LogFrame, EachLevelLetsThroughTheStatementsAtOrBelowIt) {
  struct Case {
    uint32_t level;
    std::vector<std::string> passed;
  };
  const std::vector<Case> cases = {
      {0, {"fatal", "error"}},
      {1, {"fatal", "error", "warn"}},
      {2, {"fatal", "error", "warn", "info"}},
      {3, {"fatal", "error", "warn", "info", "debug"}},
      {4, {"fatal", "error", "warn", "info", "debug"}},
      // Compared as an unsigned number: the largest value lets all through.
      {UINT32_MAX, {"fatal", "error", "warn", "info", "debug"}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE("level " + std::to_string(c.level));
    tarn_test::clear_logs();
    tarn_test::set_log_level(c.level);
    LOG(fatal, "x\n");
    LOG(error, "x\n");
    LOG(warn, "x\n");
    LOG(info, "x\n");
    LOG(debug, "x\n");
    EXPECT_EQ(c.passed, words_of(tarn_test::logs()));
  }
}

TEST_F(LogFrame, AtLevelTwoInfoPassesAndDebugDoesNot) {
  tarn_test::set_log_level(2);
  LOG(info, "shown\n");
  LOG(debug, "hidden\n");
  EXPECT_EQ((std::vector<std::string>{"shown\n"}), tarn_test::messages("info"));
  EXPECT_TRUE(tarn_test::messages("debug").empty());
  ASSERT_EQ(1u, tarn_test::logs().size());
  EXPECT_EQ(2u, tarn_test::logs()[0].number);
}

TEST_F(LogFrame, AtLevelThreeAllPass) {
  tarn_test::set_log_level(3);
  LOG(debug, "d\n");
  LOG(info, "i\n");
  LOG(warn, "w\n");
  EXPECT_EQ((std::vector<std::string>{"debug", "info", "warn"}), words_of(tarn_test::logs()));
  EXPECT_EQ(3u, tarn_test::logs()[0].number);
}

// ---------------------------------------------------------------------------
// Time string

TEST_F(LogFrame, TimeStringHasTheTickMillisecondsAndTheLocalSeconds) {
  tarn_test::set_tick(123456789);
  char text[LOG_TIME_BUFFER_SIZE];
  memset(text, 'x', sizeof(text));
  const time_t before = time(nullptr);
  const int length = log_format_time(text);
  const time_t after = time(nullptr);

  EXPECT_EQ(23, length);
  EXPECT_EQ('\0', text[23]);
  const std::string got(text);
  EXPECT_EQ(".789", got.substr(got.size() - 4));
  EXPECT_TRUE(got == time_text(before, 789) || got == time_text(after, 789))
      << got << " vs " << time_text(before, 789);
}

TEST_F(LogFrame, TimeStringAtTwelveFiveNineWithTick789EndsIn120509Dot789) {
  set_now(local_noon_instant());
  tarn_test::set_tick(5000789);
  char text[LOG_TIME_BUFFER_SIZE];
  ASSERT_EQ(23, log_format_time(text));
  EXPECT_STREQ("2026-11-21 12:05:09.789", text);
}

TEST_F(LogFrame, MillisecondsAreTheTickModuloOneThousandZeroPadded) {
  set_now(local_noon_instant());
  const struct {
    uint64_t tick;
    const char *millis;
  } cases[] = {
      {0, ".000"},  {7, ".007"},       {42, ".042"},        {999, ".999"},
      {1000, ".000"}, {1001, ".001"}, {UINT64_MAX, ".615"}, {(1ull << 63) + 5, ".813"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.tick));
    tarn_test::set_tick(c.tick);
    char text[LOG_TIME_BUFFER_SIZE];
    ASSERT_EQ(23, log_format_time(text));
    EXPECT_EQ(std::string("2026-11-21 12:05:09") + c.millis, text);
  }
}

TEST_F(LogFrame, TimeStringFallsBackWhenLocalTimeFails) {
  // No broken-down time holds this second: its year does not fit an int.
  set_now((time_t)INT64_MAX);
  tarn_test::set_tick(123456789);
  char text[LOG_TIME_BUFFER_SIZE];
  memset(text, 'x', sizeof(text));
  EXPECT_EQ(24, log_format_time(text));
  EXPECT_STREQ("1970-01-01 00:00:00.000", text);

  LOG(error, "late\n");
  ASSERT_EQ(1u, tarn_test::logs().size());
  EXPECT_EQ(0u, tarn_test::logs()[0].line.find("[1970-01-01 00:00:00.000] [error] [pid:"));
}

TEST_F(LogFrame, FormatTimeWithoutABufferReturnsZero) { EXPECT_EQ(0, log_format_time(nullptr)); }

// ---------------------------------------------------------------------------
// Check statement

TEST_F(LogFrame, FailedCheckLogsItsConditionAtWarn) {
  const int ret = 1;
  const int line = __LINE__ + 1;
  CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");

  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("warn", lines[0].word);
  EXPECT_EQ(1u, lines[0].number);
  EXPECT_EQ("expr[KEP_E_SUCCESS == ret] false! get apphome path fail!\n", lines[0].message);
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(line), source_of(lines[0].line));
}

TEST_F(LogFrame, PassedCheckLogsNothing) {
  const int ret = 0;
  CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");
  EXPECT_TRUE(tarn_test::logs().empty());
}

TEST_F(LogFrame, FailedCheckFormatsItsArguments) {
  const int count = -3;
  CHECK_EXPR(count >= 0, "bad count %d for %s\n", count, "table");
  EXPECT_TRUE(tarn_test::logged("warn", "expr[count >= 0] false! bad count -3 for table\n"));
}

TEST_F(LogFrame, FailedCheckUsesItsFormatAsItStands) {
  const char *path = nullptr;
  CHECK_EXPR(path != nullptr, "no path");
  CHECK_EXPR(path != nullptr, "first\nsecond");
  EXPECT_EQ((std::vector<std::string>{"expr[path != nullptr] false! no path",
                                      "expr[path != nullptr] false! first\nsecond"}),
            tarn_test::messages("warn"));
}

TEST_F(LogFrame, FailedCheckIsGatedLikeAnyWarnStatement) {
  tarn_test::set_log_level(0);
  const int ret = 1;
  CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");
  EXPECT_TRUE(tarn_test::logs().empty());
  tarn_test::set_log_level(1);
  CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");
  EXPECT_EQ(1u, tarn_test::logs().size());
}

// ---------------------------------------------------------------------------
// Default destination

TEST_F(LogFrame, UnregisteredProcessGetsTheDefaultDestinationBelowTheLogDirectory) {
  set_registered(0);
  set_log_dir(std::string("LOGDIR"));
  set_exe_path("/opt/x/bin/agent");
  LOG(info, "hello\n");

  const std::vector<AutologCall> calls = autolog_calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("LOGDIR//velmora/TARN3_LOG/tarn_default_autolog//agent/", calls[0].directory);
  EXPECT_EQ(5, calls[0].max_files);
  // Registered before the line was handed out, and the line still written.
  EXPECT_EQ(0u, calls[0].lines_before);
  EXPECT_TRUE(tarn_test::logged("info", "hello\n"));
}

TEST_F(LogFrame, WithoutALogDirectoryTheDefaultDestinationIsBesideTheExecutable) {
  set_registered(0);
  set_log_dir(std::nullopt);
  set_exe_path("/opt/x/bin/agent");
  LOG(error, "hello\n");

  const std::vector<AutologCall> calls = autolog_calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("@/../var/logs/tarn_default_autolog//agent/", calls[0].directory);
  EXPECT_EQ(5, calls[0].max_files);
}

TEST_F(LogFrame, AnEmptyLogDirectoryCountsAsNone) {
  set_registered(0);
  set_log_dir(std::string(""));
  set_exe_path("/opt/x/bin/agent");
  LOG(error, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ("@/../var/logs/tarn_default_autolog//agent/", autolog_calls()[0].directory);
}

TEST_F(LogFrame, AnExecutablePathWithoutASlashIsTheWholeName) {
  set_registered(0);
  set_log_dir(std::string("LOGDIR"));
  set_exe_path("agent");
  LOG(info, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ("LOGDIR//velmora/TARN3_LOG/tarn_default_autolog//agent/", autolog_calls()[0].directory);

  doubles().reset();
  set_registered(0);
  set_log_dir(std::nullopt);
  set_exe_path("agent");
  LOG(info, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ("@/../var/logs/tarn_default_autolog//agent/", autolog_calls()[0].directory);
}

TEST_F(LogFrame, TheLookupsUseOwnPidAndZeroedBuffersOf1024Bytes) {
  set_registered(0);
  set_exe_path("/opt/x/bin/agent");
  LOG(info, "hello\n");

  std::lock_guard<std::mutex> guard(doubles().mutex);
  EXPECT_EQ(1, doubles().get_path_calls);
  EXPECT_EQ((int)getpid(), doubles().get_path_pid);
  EXPECT_EQ(1024u, doubles().get_path_length);
  EXPECT_TRUE(doubles().get_path_buffer_zeroed);
  EXPECT_EQ(1, doubles().log_dir_calls);
  EXPECT_EQ(1024u, doubles().log_dir_length);
  EXPECT_TRUE(doubles().log_dir_buffer_zeroed);
}

TEST_F(LogFrame, TheRealExecutableNameIsUsedWhenNotOverridden) {
  set_registered(0);
  set_log_dir(std::string("/var/log"));
  LOG(info, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ("/var/log//velmora/TARN3_LOG/tarn_default_autolog//test_log_frame/", autolog_calls()[0].directory);
}

TEST_F(LogFrame, DefaultDestinationIsRegisteredOnlyOnce) {
  set_registered(0);
  set_log_dir(std::string("LOGDIR"));
  set_exe_path("/opt/x/bin/agent");
  LOG(info, "first\n");
  LOG(debug, "second\n");
  CHECK_EXPR(1 == 2, "third\n");

  EXPECT_EQ(1u, autolog_calls().size());
  EXPECT_EQ(3, is_registered_calls());
  EXPECT_EQ(3u, tarn_test::logs().size());
}

TEST_F(LogFrame, AnAlreadyRegisteredProcessKeepsItsDestination) {
  set_registered(1);
  set_exe_path("/opt/x/bin/agent");
  LOG(info, "hello\n");
  LOG(error, "again\n");

  EXPECT_TRUE(autolog_calls().empty());
  EXPECT_EQ(2, is_registered_calls());
  std::lock_guard<std::mutex> guard(doubles().mutex);
  EXPECT_EQ(0, doubles().get_path_calls);
  EXPECT_EQ(0, doubles().log_dir_calls);
}

TEST_F(LogFrame, EnsureRegisteredCallsTheDefaultInitOnlyWhenUnregistered) {
  set_log_dir(std::string("LOGDIR"));
  set_exe_path("/opt/x/bin/agent");
  set_registered(1);
  log_ensure_registered();
  EXPECT_TRUE(autolog_calls().empty());

  set_registered(0);
  log_ensure_registered();
  ASSERT_EQ(1u, autolog_calls().size());
  log_ensure_registered();
  EXPECT_EQ(1u, autolog_calls().size());
}

TEST_F(LogFrame, DefaultInitAlwaysRegistersWithFive) {
  set_log_dir(std::string("LOGDIR"));
  set_exe_path("/opt/x/bin/agent");
  set_registered(1);
  log_default_autolog_init();
  log_default_autolog_init();
  const std::vector<AutologCall> calls = autolog_calls();
  ASSERT_EQ(2u, calls.size());
  for (const AutologCall &call : calls) {
    EXPECT_EQ("LOGDIR//velmora/TARN3_LOG/tarn_default_autolog//agent/", call.directory);
    EXPECT_EQ(5, call.max_files);
  }
}

TEST_F(LogFrame, AnOverlongDestinationIsCutAt1023Bytes) {
  const std::string dir = "/" + std::string(1000, 'd');
  set_registered(0);
  set_log_dir(dir);
  set_exe_path("/opt/x/bin/agent");
  LOG(info, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  const std::string whole = dir + "//velmora/TARN3_LOG/tarn_default_autolog//agent/";
  EXPECT_EQ(whole.substr(0, 1023), autolog_calls()[0].directory);

  doubles().reset();
  set_registered(0);
  set_log_dir(std::nullopt);
  const std::string name(1020, 'n');
  set_exe_path("/opt/" + name);
  LOG(info, "hello\n");
  ASSERT_EQ(1u, autolog_calls().size());
  EXPECT_EQ(("@/../var/logs/tarn_default_autolog//" + name + "/").substr(0, 1023), autolog_calls()[0].directory);
}

// ---------------------------------------------------------------------------
// Out of memory

// Two places in one function where memory runs out, on the lines that the
// constants name.
constexpr int kFirstSiteLine = __LINE__ + 4;
constexpr int kSecondSiteLine = __LINE__ + 6;
void run_out_of_memory_at(int site) {
  if (site == 1) {
    LOG_OUT_OF_MEMORY();
  }
  if (site == 2) {
    LOG_OUT_OF_MEMORY();
  }
}

TEST_F(LogFrame, OutOfMemoryLogsAtFatalAndEndsTheProcessWithStatusZero) {
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] {
    run_out_of_memory_at(1);
    LOG(error, "still running\n");
  });

  EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
  EXPECT_EQ(0, outcome.exit_status);
  ASSERT_EQ(1u, outcome.lines.size());
  EXPECT_EQ("fatal", outcome.lines[0].word);
  EXPECT_EQ(0u, outcome.lines[0].number);
  EXPECT_EQ("Out of memory\n", outcome.lines[0].message);
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(kFirstSiteLine), source_of(outcome.lines[0].line));
}

TEST_F(LogFrame, OutOfMemoryIsLoggedAtLevelZeroToo) {
  tarn_test::set_log_level(0);
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] { LOG_OUT_OF_MEMORY(); });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(0, outcome.exit_status);
  ASSERT_EQ(1u, outcome.lines.size());
  EXPECT_EQ("fatal", outcome.lines[0].word);
  EXPECT_EQ("Out of memory\n", outcome.lines[0].message);
}

TEST_F(LogFrame, TwoOutOfMemorySitesReportTheirOwnLines) {
  const tarn_test::ChildOutcome first = tarn_test::run_in_child([] { run_out_of_memory_at(1); });
  const tarn_test::ChildOutcome second = tarn_test::run_in_child([] { run_out_of_memory_at(2); });

  EXPECT_EQ(0, first.exit_status);
  EXPECT_EQ(0, second.exit_status);
  ASSERT_EQ(1u, first.lines.size());
  ASSERT_EQ(1u, second.lines.size());
  EXPECT_NE(kFirstSiteLine, kSecondSiteLine);
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(kFirstSiteLine), source_of(first.lines[0].line));
  EXPECT_EQ("test_log_frame.cpp:" + std::to_string(kSecondSiteLine), source_of(second.lines[0].line));
  EXPECT_NE(source_of(first.lines[0].line), source_of(second.lines[0].line));
}

// A condition's own text may hold '%' (a remainder); it is logged as it
// stands and is not read as a conversion of the format. Run in a child, so
// that a conversion reading an argument that is not there cannot take the
// test program down.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
void check_remainder(long offset, long size) { CHECK_EXPR(offset % size == 0, "unaligned offset\n"); }
#pragma GCC diagnostic pop

TEST_F(LogFrame, FailedCheckLogsAConditionWithAPercentSignAsItStands) {
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] { check_remainder(5, 4); });
  EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
  EXPECT_EQ(3, outcome.exit_status);
  ASSERT_EQ(1u, outcome.lines.size());
  EXPECT_EQ("warn", outcome.lines[0].word);
  EXPECT_EQ("expr[offset % size == 0] false! unaligned offset\n", outcome.lines[0].message);
}

}  // namespace
