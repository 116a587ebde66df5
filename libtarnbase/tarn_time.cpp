#include "tarnbase/tarn_time.h"

#include <time.h>

#include "clock.h"

extern "C" TARNBASE_API uint64_t tarn_time_get_tick_cout(void) { return tarnbase::monotonic_ms(); }

extern "C" TARNBASE_API long tarn_time(void) { return (long)time(nullptr); }
