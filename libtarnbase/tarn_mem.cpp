// The shared allocator: plain calloc and free behind exported names, so that
// blocks cross library boundaries under one owner protocol.

#include "tarnbase/tarn_mem.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

TARNBASE_API void *tarn_zero_malloc_(size_t size) {
  void *block = calloc(1, size == 0 ? 1 : size);
  if (block == nullptr) errno = ENOMEM;
  return block;
}

TARNBASE_API char *tarn_strdup(const char *s) {
  if (s == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  const size_t size = strlen(s) + 1;
  char *copy = static_cast<char *>(malloc(size));
  if (copy == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  memcpy(copy, s, size);
  return copy;
}

TARNBASE_API void tarn_free_(void *block) { free(block); }

}  // extern "C"
