// The failure path shared by the base library's functions that answer with
// an errno value and leave the same value in errno.
#ifndef TARNBASE_ERRNO_RESULT_H
#define TARNBASE_ERRNO_RESULT_H

#include <errno.h>

namespace tarnbase {

// Sets errno to error and returns it.
inline int fail(int error) {
  errno = error;
  return error;
}

}  // namespace tarnbase

#endif  // TARNBASE_ERRNO_RESULT_H
