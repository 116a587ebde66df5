// Monotonic time for the base library's own use (ticks and lock time-outs).
#ifndef TARNBASE_CLOCK_H
#define TARNBASE_CLOCK_H

#include <stdint.h>
#include <time.h>

namespace tarnbase {

inline uint64_t monotonic_ns() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

inline uint64_t monotonic_ms() { return monotonic_ns() / 1000000u; }

}  // namespace tarnbase

#endif
