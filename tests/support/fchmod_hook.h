// fchmod(2) interposed, so that a test can look at or act on a file just
// before the library sets its mode (a temporary file just created, a new
// directory). Include it in one source file of a test program only: it
// defines fchmod for the whole program, passed through to the system's
// unless a test armed before_fchmod().
#ifndef TARN_TEST_FCHMOD_HOOK_H
#define TARN_TEST_FCHMOD_HOOK_H

#include <sys/stat.h>

#include <functional>

#include "interpose.h"

namespace tarn_test {

// Called with the descriptor before each fchmod while set; the test resets it.
inline std::function<void(int fd)> &before_fchmod() {
  static std::function<void(int fd)> hook;
  return hook;
}

}  // namespace tarn_test

extern "C" __attribute__((visibility("default"))) int fchmod(int fd, mode_t mode) {
  if (tarn_test::before_fchmod()) tarn_test::before_fchmod()(fd);
  return tarn_test::next_definition<int (*)(int, mode_t)>("fchmod")(fd, mode);
}

#endif  // TARN_TEST_FCHMOD_HOOK_H
