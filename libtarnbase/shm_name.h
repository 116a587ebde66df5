// Checks and builds the POSIX shared-memory object names of the base library.
#ifndef TARNBASE_SHM_NAME_H
#define TARNBASE_SHM_NAME_H

#include <stddef.h>
#include <stdio.h>
#include <string.h>

namespace tarnbase {

constexpr size_t kShmKeyMax = 200;  // key and suffix together
constexpr size_t kShmNameMax = kShmKeyMax + 2;

// Writes "/<key><suffix>" into name. Returns false for a null or empty key,
// a key holding '/', or a key and suffix longer than kShmKeyMax together.
inline bool make_shm_name(const char *key, const char *suffix, char name[kShmNameMax]) {
  if (key == nullptr || key[0] == '\0' || strchr(key, '/') != nullptr) return false;
  if (strlen(key) + strlen(suffix) > kShmKeyMax) return false;
  snprintf(name, kShmNameMax, "/%s%s", key, suffix);
  return true;
}

}  // namespace tarnbase

#endif
