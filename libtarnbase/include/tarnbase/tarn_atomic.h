/* tarn_atomic.h -- atomic integer operations (sequentially consistent).
 *
 * Nothing here writes to the log.
 */
#ifndef TARN_ATOMIC_H
#define TARN_ATOMIC_H

#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Atomically adds delta to *value and returns the new value. value must be
 * 8-byte aligned (true of any int64_t object on a 64-bit machine; on a
 * 32-bit machine declare it with an 8-byte alignment or keep it static). */
TARNBASE_API int64_t tarn_atomic64_add_and_fetch(int64_t *value, int64_t delta);

TARNBASE_END_DECLS

#endif
