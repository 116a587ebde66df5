// Test doubles for the base library, by link-time interposition: a test
// program that links fakes.cpp defines these base functions itself, so the
// library's objects linked into it call the test's versions.
//
// - tarn_log_output: every line is captured (not written anywhere).
// - tarn_log_level_get: the level set by set_log_level (default 3, so that
//   every line passes the gate), or the real configuration after
//   use_configured_log_level().
// - tarn_time_get_tick_cout, tarn_log_get_tick_count: the controlled clock
//   when set_tick was called, else the real monotonic tick.
// - tarn_process_is_exist: the answer given by set_process_exists for that
//   pid, else the real answer.
// - tarn_zero_malloc_, tarn_strdup: counted, and made to fail once by
//   fail_allocation_after.
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_FAKES_H
#define TARN_TEST_FAKES_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tarn_test {

struct LogLine {
  uint32_t number;      // level number handed to tarn_log_output
  std::string word;     // level word from the prefix: fatal, error, warn, info, debug
  std::string message;  // the text after the prefix, with its own newline if any
  std::string line;     // the whole formatted line
};

std::vector<LogLine> logs();
void clear_logs();
// True when a line with this level word and exactly this message was logged.
bool logged(const std::string &word, const std::string &message);
// The messages logged at a level word, in order.
std::vector<std::string> messages(const std::string &word);

void set_log_level(uint32_t level);
void use_configured_log_level();

void set_tick(uint64_t tick);
void advance_tick(uint64_t milliseconds);
void use_real_tick();

void set_process_exists(int pid, bool exists);
void clear_process_overrides();

// The calls of tarn_zero_malloc_ and tarn_strdup since the last
// reset_fakes, made by the test itself or by the library objects linked into
// the test program. The definitions are hidden, so calls made inside
// libtarnbase.so (tarn_str_split, the containers) are neither counted nor
// failed here: split_faults.h and container_faults.h reach those.
unsigned allocation_calls();
// Lets the next `succeeding` calls of tarn_zero_malloc_ and tarn_strdup
// through and makes the one after fail (null, errno ENOMEM), once.
void fail_allocation_after(unsigned succeeding);

// Restores every default above and clears the captured lines.
void reset_fakes();

}  // namespace tarn_test

#endif
