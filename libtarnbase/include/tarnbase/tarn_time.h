/* tarn_time.h -- the monotonic millisecond tick, and the wall clock.
 *
 * Nothing here writes to the log.
 */
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

/* The wall clock: seconds since 1970-01-01 00:00:00 UTC, as time(2) gives
 * them. It follows changes of the system's clock; for measuring intervals
 * use the tick above. */
TARNBASE_API long tarn_time(void);

TARNBASE_END_DECLS

#endif
