// Checks of the lines that fakes.h captures: printf-style text for the
// expected messages, the captured lines for failure messages, and the
// EXPECT_ macros built on them.
#ifndef TARN_TEST_LOG_CHECKS_H
#define TARN_TEST_LOG_CHECKS_H

#include <string>

#include "fakes.h"

namespace tarn_test {

// printf(3) into a string (at most 2047 characters).
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The captured lines, each indented on its own line; "  (no lines)" when
// there are none.
std::string dump_logs();

}  // namespace tarn_test

#define EXPECT_LOGGED(word, message)                                          \
  EXPECT_TRUE(tarn_test::logged(word, message))                               \
      << "expected [" << (word) << "] " << (message) << "\ncaptured:\n" \
      << tarn_test::dump_logs()

#define EXPECT_NOT_LOGGED(word, message)                                         \
  EXPECT_FALSE(tarn_test::logged(word, message)) << "unexpected [" << (word) << "] " \
                                                 << (message) << "\ncaptured:\n"     \
                                                 << tarn_test::dump_logs()

#define EXPECT_NO_LINES() EXPECT_TRUE(tarn_test::logs().empty()) << tarn_test::dump_logs()

#endif
