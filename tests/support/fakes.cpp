#include "fakes.h"
#include "interpose.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include <map>
#include <mutex>
#include <optional>

#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_time.h>

namespace {

std::mutex g_mutex;
std::vector<tarn_test::LogLine> g_lines;
uint32_t g_level = 3;
bool g_configured_level = false;
std::optional<uint64_t> g_tick;
std::map<int, bool> g_process_exists;
unsigned g_allocation_calls = 0;
std::optional<unsigned> g_failing_allocation;  // the call number that fails

// Counts one allocation; true when it is the one that must fail.
bool allocation_fails() {
  std::lock_guard<std::mutex> guard(g_mutex);
  const unsigned call = g_allocation_calls++;
  if (g_failing_allocation && *g_failing_allocation == call) {
    g_failing_allocation.reset();
    return true;
  }
  return false;
}

using tarn_test::next_definition;

// Splits "[time] [word] [pid:..] [tid:..] [kep] [file:line] message".
tarn_test::LogLine parse_line(uint32_t number, const std::string &line) {
  tarn_test::LogLine parsed{number, "", "", line};
  const size_t word_start = line.find("] [");
  if (word_start != std::string::npos) {
    const size_t word_end = line.find(']', word_start + 3);
    if (word_end != std::string::npos) parsed.word = line.substr(word_start + 3, word_end - word_start - 3);
  }
  const size_t tag = line.find(" [kep] [");
  if (tag != std::string::npos) {
    const size_t end = line.find("] ", tag + 8);
    if (end != std::string::npos) parsed.message = line.substr(end + 2);
  }
  return parsed;
}

}  // namespace

extern "C" {

void tarn_log_output(uint32_t level, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char *text = nullptr;
  const int length = vasprintf(&text, fmt, args);
  va_end(args);
  if (length < 0) return;
  std::lock_guard<std::mutex> guard(g_mutex);
  g_lines.push_back(parse_line(level, std::string(text, (size_t)length)));
  free(text);
}

uint32_t tarn_log_level_get(void) {
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    if (!g_configured_level) return g_level;
  }
  return next_definition<uint32_t (*)(void)>("tarn_log_level_get")();
}

uint64_t tarn_time_get_tick_cout(void) {
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_tick) return *g_tick;
  }
  return next_definition<uint64_t (*)(void)>("tarn_time_get_tick_cout")();
}

uint64_t tarn_log_get_tick_count(void) {
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_tick) return *g_tick;
  }
  return next_definition<uint64_t (*)(void)>("tarn_log_get_tick_count")();
}

int tarn_process_is_exist(int pid) {
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    auto it = g_process_exists.find(pid);
    if (it != g_process_exists.end()) return it->second ? 1 : 0;
  }
  return next_definition<int (*)(int)>("tarn_process_is_exist")(pid);
}

void *tarn_zero_malloc_(size_t size) {
  if (allocation_fails()) {
    errno = ENOMEM;
    return nullptr;
  }
  return next_definition<void *(*)(size_t)>("tarn_zero_malloc_")(size);
}

char *tarn_strdup(const char *s) {
  if (s != nullptr && allocation_fails()) {
    errno = ENOMEM;
    return nullptr;
  }
  return next_definition<char *(*)(const char *)>("tarn_strdup")(s);
}

}  // extern "C"

namespace tarn_test {

std::vector<LogLine> logs() {
  std::lock_guard<std::mutex> guard(g_mutex);
  return g_lines;
}

void clear_logs() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_lines.clear();
}

bool logged(const std::string &word, const std::string &message) {
  std::lock_guard<std::mutex> guard(g_mutex);
  for (const LogLine &line : g_lines) {
    if (line.word == word && line.message == message) return true;
  }
  return false;
}

std::vector<std::string> messages(const std::string &word) {
  std::lock_guard<std::mutex> guard(g_mutex);
  std::vector<std::string> found;
  for (const LogLine &line : g_lines) {
    if (line.word == word) found.push_back(line.message);
  }
  return found;
}

void set_log_level(uint32_t level) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_level = level;
  g_configured_level = false;
}

void use_configured_log_level() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_configured_level = true;
}

void set_tick(uint64_t tick) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_tick = tick;
}

void advance_tick(uint64_t milliseconds) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_tick = g_tick.value_or(0) + milliseconds;
}

void use_real_tick() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_tick.reset();
}

void set_process_exists(int pid, bool exists) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_process_exists[pid] = exists;
}

void clear_process_overrides() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_process_exists.clear();
}

unsigned allocation_calls() {
  std::lock_guard<std::mutex> guard(g_mutex);
  return g_allocation_calls;
}

void fail_allocation_after(unsigned succeeding) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_failing_allocation = g_allocation_calls + succeeding;
}

void reset_fakes() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_allocation_calls = 0;
  g_failing_allocation.reset();
  g_lines.clear();
  g_level = 3;
  g_configured_level = false;
  g_tick.reset();
  g_process_exists.clear();
}

}  // namespace tarn_test
