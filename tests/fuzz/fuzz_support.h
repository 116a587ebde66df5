// The start shared by every fuzzing harness, and small helpers.
//
// LLVMFuzzerInitialize (fuzz_support.cpp) enters a private sandbox once,
// before libFuzzer starts any thread, so that what the harnesses and the
// library write (below /tmp, the log tree below /var/log) never reaches the
// host; and it registers a log destination that drops every line, so that
// the library's messages are still formatted but cost no disk writes.
#ifndef TARN_FUZZ_SUPPORT_H
#define TARN_FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace tarn_fuzz {

// A private directory below /tmp made at start, the same for every input.
const std::string &scratch();

// Creates or replaces path with size bytes of data; aborts when it cannot,
// since every later step would test nothing.
void write_file(const std::string &path, const uint8_t *data, size_t size);

// The whole content of path, or "" when it cannot be read.
std::string read_file(const std::string &path);

// Reports a broken property of the code under test as a crash.
[[noreturn]] void fail(const char *what);

}  // namespace tarn_fuzz

#endif
