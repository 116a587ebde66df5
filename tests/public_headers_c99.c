/* Compiled as C99 with pedantic errors: every public header must be plain C. */
#include <com_info.h>
#include <kep_result.h>
#include <tarn_apphome.h>
#include <tarn_directory.h>
#include <tarn_heartbeat.h>
#include <tarn_utils.h>
#include <tarnbase/tarn_atomic.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_platform.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_shell.h>
#include <tarnbase/tarn_shm.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>

int public_headers_compile_as_c99(void) { return (int)sizeof(proc_heartbeat_info_t); }
