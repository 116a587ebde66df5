/* utils_internal.h -- the record's upgrade lock counter, for the upgrade
 * support of this library and its tests. Not exported.
 */
#ifndef TARN_UTILS_INTERNAL_H
#define TARN_UTILS_INTERNAL_H

#include <stdint.h>

#include "tarn_utils.h"

/* The record's "upgrade_lock_count" (section "apphome"), read as a decimal
 * number under the record's lock. Returns 0 when the key is absent or not a
 * number, when the lock cannot be taken (logged at warn) and when the
 * record cannot be loaded (logged at info). */
int32_t tarn_get_upgrade_lock_count(void);

#endif
