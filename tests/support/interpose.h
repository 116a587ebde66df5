// Reaching the definition an interposed function stands in front of.
#ifndef TARN_TEST_INTERPOSE_H
#define TARN_TEST_INTERPOSE_H

#include <dlfcn.h>

namespace tarn_test {

// The next definition of name after the caller's (RTLD_NEXT), as Fn: what an
// interposer calls to pass a call through to the real function.
template <typename Fn>
Fn next_definition(const char *name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace tarn_test

#endif  // TARN_TEST_INTERPOSE_H
