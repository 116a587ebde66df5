/* tarnaux.h -- every public header of libtarnaux in one.
 *
 * A program may include this instead of the headers one by one:
 *
 *   #include <tarnaux/tarnaux.h>
 *
 * It brings the whole interface of libtarnaux (and, through it, the
 * libtarnbase headers that libtarnaux's own headers use) with the version
 * macros and tarnaux_version_string() of tarnaux_version.h. Each header is
 * also usable on its own, as <tarnaux/NAME.h> or, with the include folder
 * tarnaux/ itself on the path (pkg-config and the CMake package put both
 * there), as <NAME.h>.
 */
#ifndef TARNAUX_H
#define TARNAUX_H

#include "tarnaux_api.h"
#include "tarnaux_version.h"

#include "com_info.h"
#include "kep_result.h"
#include "optimize_time.h"
#include "parameter_parsing.h"
#include "tarn_apphome.h"
#include "tarn_directory.h"
#include "tarn_environment_check.h"
#include "tarn_heartbeat.h"
#include "tarn_process_control.h"
#include "tarn_product.h"
#include "tarn_upgrade.h"
#include "tarn_utils.h"
#include "untgz.h"
#include "version_mgr.h"

#endif
