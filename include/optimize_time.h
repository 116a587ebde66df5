/* optimize_time.h -- timing probes: named stretches of a process's own work,
 * nested to any depth, reported to the log with their durations.
 *
 *   tarnaux_optimize_time_init();
 *   tarnaux_optimize_time_start("install");
 *   tarnaux_optimize_time_start("unpack");
 *   tarnaux_optimize_time_end("unpack");
 *   tarnaux_optimize_time_end("install");
 *   tarnaux_optimize_time_print_all();
 *   tarnaux_optimize_time_finit();
 *
 * logs at info, one line per probe in the order the probes were created,
 * indented by four spaces per nesting level:
 *
 *   ------------------ install [1520ms] ------------------
 *   ------------------     unpack [1490ms] ------------------
 *
 * Durations are differences of the millisecond tick (tarn_time_get_tick_cout,
 * tarnbase/tarn_time.h). The probes live in this process's memory only, in
 * process-wide containers without a lock: one thread at a time. None of the
 * functions returns anything or logs anything but the report and the fatal
 * line below; a null name, or a call before tarnaux_optimize_time_init,
 * does nothing. When memory runs out the process logs "Out of memory\n" at
 * fatal and ends with exit(0).
 */
#ifndef OPTIMIZE_TIME_H
#define OPTIMIZE_TIME_H

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Creates the containers that do not exist yet: the table of running
 * probes, the stack of running probes and the list of all probes. Calling
 * it again does nothing. */
TARNAUX_API void tarnaux_optimize_time_init(void);

/* Frees the containers and every probe. Call it once, at the end: the
 * containers are not made afresh afterwards, so no function of this family
 * (init included) may be called after it in the same process. */
TARNAUX_API void tarnaux_optimize_time_finit(void);

/* Starts the probe name (its first 1024 characters are kept for the report;
 * the whole name identifies it). A name that is not running gets a new
 * probe, at the end of the report, nested one level below the probes that
 * are running. A name that is running is restarted: its duration will be
 * measured from now, and it keeps its place and depth. A name that was
 * started and ended before gets a new probe with a line of its own. */
TARNAUX_API void tarnaux_optimize_time_start(const char *name);

/* Ends the running probe name: its duration becomes the time since its
 * latest start, and the probe on top of the nesting stack (the most
 * recently created one still on it, whichever name that is) leaves the
 * stack; ending probes out of order therefore only shifts the depth of
 * probes created later. A name that is not running is ignored. */
TARNAUX_API void tarnaux_optimize_time_end(const char *name);

/* Logs at info, for every probe in creation order,
 *   "------------------ %s%s [%ldms] ------------------\n"
 * with four spaces per nesting level, the name and the duration of its
 * last completed run (a running probe shows that of its previous run, 0 if
 * it never ended). Nothing is written when info lines are filtered out. */
TARNAUX_API void tarnaux_optimize_time_print_all(void);

TARNAUX_END_DECLS

#endif
