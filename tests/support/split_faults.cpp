#include "split_faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>

#include <mutex>
#include <optional>

#include <tarnbase/tarn_str.h>

namespace {

std::mutex g_mutex;
unsigned g_calls = 0;
std::optional<unsigned> g_failing_call;

// Counts one call; true when it is the one that must fail.
bool split_fails() {
  std::lock_guard<std::mutex> guard(g_mutex);
  const unsigned call = g_calls++;
  if (g_failing_call && *g_failing_call == call) {
    g_failing_call.reset();
    return true;
  }
  return false;
}

}  // namespace

extern "C" char **tarn_str_split(const char *str, const char *sep, uint32_t *count) {
  if (split_fails()) {
    errno = ENOMEM;
    return nullptr;
  }
  using Split = char **(*)(const char *, const char *, uint32_t *);
  return reinterpret_cast<Split>(dlsym(RTLD_NEXT, "tarn_str_split"))(str, sep, count);
}

namespace tarn_test {

unsigned split_calls() {
  std::lock_guard<std::mutex> guard(g_mutex);
  return g_calls;
}

void fail_split_after(unsigned succeeding) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_failing_call = g_calls + succeeding;
}

void clear_split_faults() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_calls = 0;
  g_failing_call.reset();
}

}  // namespace tarn_test
