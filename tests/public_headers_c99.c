/* Compiled as C99 with pedantic errors: every public header must be plain C. */
#include <tarn_heartbeat.h>
#include <tarnbase/tarn_atomic.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_shm.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>

int public_headers_compile_as_c99(void) { return (int)sizeof(proc_heartbeat_info_t); }
