#include "tarnbase/tarn_atomic.h"

extern "C" TARNBASE_API int64_t tarn_atomic64_add_and_fetch(int64_t *value, int64_t delta) {
  return __atomic_add_fetch(value, delta, __ATOMIC_SEQ_CST);
}
