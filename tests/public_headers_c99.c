/* Compiled as C99 with pedantic errors: every public header must be plain C. */
#include <com_info.h>
#include <kep_result.h>
#include <optimize_time.h>
#include <parameter_parsing.h>
#include <tarn_apphome.h>
#include <tarn_directory.h>
#include <tarn_environment_check.h>
#include <tarn_heartbeat.h>
#include <tarn_utils.h>
#include <untgz.h>
#include <version_mgr.h>
#include <tarn_process_control.h>
#include <tarn_product.h>
#include <tarn_upgrade.h>
#include <tarnbase/tarn_atomic.h>
#include <tarnbase/tarn_device.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_dirwalk.h>
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
#include <tarnbase/tarn_uuid.h>
#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

int public_headers_compile_as_c99(void) { return (int)sizeof(proc_heartbeat_info_t); }
