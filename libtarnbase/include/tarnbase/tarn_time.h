/* tarn_time.h -- the monotonic millisecond tick. */
#ifndef TARN_TIME_H
#define TARN_TIME_H

#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Milliseconds on the system's monotonic clock (CLOCK_MONOTONIC): never
 * goes back, is not changed by setting the wall clock, and is the same
 * clock in every process of the machine, so ticks stored by one process
 * can be compared with ticks read by another. */
TARNBASE_API uint64_t tarn_time_get_tick_cout(void);

TARNBASE_END_DECLS

#endif
