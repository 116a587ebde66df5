/* tarn_upgrade.h -- upgrades on trial: a new app home is watched through the
 * heartbeat table for a trial period, committed when it behaves and rolled
 * back to the previous app home when it does not.
 *
 * The upgrade journal. Beside the app home record, at the install root, the
 * ini file "tarn_upgrade.ini" (section "upgrade") says which app homes the
 * upgrade went from and to, when its trial began and how long it lasts,
 * what state it is in and what the last verdict was. It is saved whole and
 * durably (a temporary file, fsync, rename, fsync of the directory, as the
 * record is), under its own lock file "tarn_upgrade.ini.lock". The record
 * "tarn_apphome.ini" keeps its format and its readers: this family writes
 * it only through tarn_apphome_update.
 *
 * Locks. Every operation but tarn_upgrade_status holds the operation lock
 * "tarn_upgrade.lock" (install root) from start to end, so that two
 * upgraders or a watchdog and an operator never interleave. Order: the
 * operation lock, then the record's lock (inside tarn_apphome_update), then
 * the backup's; the journal's lock is taken on its own or after the
 * record's, never before it. The waits are bounded as tarn_flock.h says.
 *
 * States, as the journal's "state" key spells them:
 *   "starting"     begin wrote the journal; the record may still name the
 *                  previous app home. The next call records the new one
 *                  and goes on to "trial".
 *   "trial"        the record names the new app home; tarn_upgrade_check
 *                  watches it until the trial ends.
 *   "rolling back" a rollback was decided; the record may still name the
 *                  new app home. The next call records the fallback,
 *                  restarts its service and goes on to "rolled back".
 *   "committed"    the new app home passed. The fallback stays on disk.
 *   "rolled back"  the record names the fallback again.
 * A process killed at any point of an operation leaves the record naming
 * the previous or the new app home and the journal in one of these states;
 * the next operation (any of them but status) first finishes the step that
 * was under way.
 *
 * A journal that is missing means that no upgrade has been made. One that
 * cannot be read (cut, NUL bytes, malformed, names that are not app home
 * names) never blocks the agent: the record stands as it is, each
 * operation logs at warn "upgrade journal %s cannot be read, the record
 * stands\n" (the journal's path), tarn_upgrade_status reports
 * TARN_UPGRADE_STATE_UNREADABLE and tarn_upgrade_begin may start afresh,
 * taking the recorded app home as the fallback.
 *
 * The trial fails, in tarn_upgrade_check, when
 *   - the service (heartbeat type 0) has had no entry for more than
 *     TARN_UPGRADE_SERVICE_GRACE_SECONDS (counted from the start of the
 *     trial, or from the check that first found its entry gone);
 *   - its last beat is older than twice its declared interval;
 *   - its entry was taken over by another service process (the table's
 *     service replacement) more than twice within a minute: a crash loop.
 *     Replacements are counted by comparing the service's pid from one
 *     check to the next, so the watchdog must check at least as often as
 *     the service can be restarted;
 *   - the machine restarted twice during the trial (its boot id changed).
 *     A first restart begins the trial again on the new boot: the
 *     monotonic clock of the old boot says nothing on the new one. The
 *     boot id is read once per process (a restart ends every process).
 * It passes when the trial time has run out without any of these.
 *
 * Messages (each ends with a line end):
 *   info "upgrade to %s on trial for %d seconds, fallback %s\n"
 *        (new app home, trial seconds, fallback app home) -- begin
 *   info "upgrade to %s committed: %s\n" (new app home, why) -- commit
 *   warn "upgrade to %s rolled back to %s: %s\n" (new app home, fallback,
 *        reason) -- rollback
 *   warn "upgrade journal %s cannot be read, the record stands\n"
 *   warn "upgrade journal %s cannot be saved, error %d\n" (path, errno)
 *   warn "upgrade app home %s is not operational\n" (the app home's path)
 *   warn "upgrade refused: %s\n" with one of "an upgrade is on trial",
 *        "the record cannot be read", "the new app home is the recorded
 *        one", "a companion app home is needed"
 *   warn "upgrade lock %s cannot be taken, error %d\n" (path, errno)
 *   warn "upgrade record cannot be updated, error %d\n" (the result of
 *        tarn_apphome_update)
 *   warn "upgrade service restart failed, error %d\n" (the result of
 *        restart_tarn_process)
 *   warn "upgrade heartbeat table cannot be read, error %d\n" (the
 *        heartbeat family's code)
 *   info "upgrade trial restarts: the machine restarted\n"
 *   info "upgrade finishes the step left by a stopped process: %s\n" (the
 *        state it found)
 *   info "upgrade removed app home %s\n" (the app home's path) -- clean-up
 *   warn "upgrade keeps app home %s: %s\n" (the app home's path, and one
 *        of "an upgrade is on trial", "the upgrade journal cannot be read",
 *        "it is the upgrade's fallback", "the record cannot be read", "it
 *        is the recorded one") -- clean-up
 *   warn "upgrade cannot remove app home %s, error %d\n" (path, errno)
 * tarn_apphome_get_apphome (begin reads the record with it),
 * tarn_apphome_update, restart_tarn_process, get_all_proc_heartbeats and
 * the operational test (its info lines, tarn_apphome.h) log their own
 * lines as their headers say.
 */
#ifndef TARN_UPGRADE_H
#define TARN_UPGRADE_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Result codes. */
#define TARN_UPGRADE_OK 0
#define TARN_UPGRADE_E_INVALID (-1)         /* a bad argument */
#define TARN_UPGRADE_E_NOT_OPERATIONAL (-2) /* a new app home fails the operational test */
#define TARN_UPGRADE_E_BUSY (-3)            /* an upgrade is on trial already */
#define TARN_UPGRADE_E_NO_TRIAL (-4)        /* no upgrade is on trial */
#define TARN_UPGRADE_E_LOCK (-5)            /* the operation lock cannot be taken */
#define TARN_UPGRADE_E_JOURNAL (-6)         /* the journal cannot be saved */
#define TARN_UPGRADE_E_RECORD (-7)          /* the record cannot be read or updated */
#define TARN_UPGRADE_E_HEARTBEAT (-8)       /* the heartbeat table cannot be read */
#define TARN_UPGRADE_E_SERVICE (-9)         /* the fallback's service cannot be restarted */
#define TARN_UPGRADE_E_KEPT (-10)           /* the app home must stay (recorded or fallback) */
#define TARN_UPGRADE_E_REMOVE (-11)         /* the app home cannot be removed (whole) */

/* Journal states (tarn_upgrade_status_t.state). */
#define TARN_UPGRADE_STATE_NONE 0         /* no journal: no upgrade made */
#define TARN_UPGRADE_STATE_STARTING 1     /* "starting" */
#define TARN_UPGRADE_STATE_TRIAL 2        /* "trial" */
#define TARN_UPGRADE_STATE_ROLLING_BACK 3 /* "rolling back" */
#define TARN_UPGRADE_STATE_COMMITTED 4    /* "committed" */
#define TARN_UPGRADE_STATE_ROLLED_BACK 5  /* "rolled back" */
#define TARN_UPGRADE_STATE_UNREADABLE 6   /* the journal exists but cannot be read */

/* Verdicts of tarn_upgrade_check. */
#define TARN_UPGRADE_VERDICT_NONE 0    /* no upgrade is on trial */
#define TARN_UPGRADE_VERDICT_RUNNING 1 /* the trial goes on */
#define TARN_UPGRADE_VERDICT_PASSED 2  /* the trial passed and was committed */
#define TARN_UPGRADE_VERDICT_FAILED 3  /* the trial failed and was rolled back */

/* The service may go without a heartbeat entry this long during a trial. */
#define TARN_UPGRADE_SERVICE_GRACE_SECONDS 30
/* A crash loop: more than this many service replacements within a minute. */
#define TARN_UPGRADE_MAX_REPLACEMENTS 2
/* Trial lengths that tarn_upgrade_begin accepts. */
#define TARN_UPGRADE_MIN_TRIAL_SECONDS 1
#define TARN_UPGRADE_MAX_TRIAL_SECONDS 604800 /* a week */

#define TARN_UPGRADE_NAME_SIZE 64   /* an app home name and its terminator */
#define TARN_UPGRADE_TEXT_SIZE 256  /* a verdict or reason, terminated, cut */

/* What one tarn_upgrade_check found. */
typedef struct tarn_upgrade_verdict {
  int32_t verdict;       /* TARN_UPGRADE_VERDICT_* */
  int32_t seconds_left;  /* RUNNING: whole seconds of the trial left; else 0 */
  /* For an operator, e.g. "the service was restarted 3 times within a
   * minute (a crash loop); rolled back to <app home>". */
  char reason[TARN_UPGRADE_TEXT_SIZE];
} tarn_upgrade_verdict_t;

/* What the journal says. Names are "" where the journal has none. */
typedef struct tarn_upgrade_status {
  int32_t state;          /* TARN_UPGRADE_STATE_* */
  int32_t trial_seconds;  /* the trial's length; 0 without a journal */
  /* Seconds of the trial left in states "starting" and "trial" (0 once it
   * has run out); -1 in the other states, and when the trial began on an
   * earlier boot (the next check starts it again). */
  int64_t seconds_left;
  char old_apphome[TARN_UPGRADE_NAME_SIZE];       /* the fallback */
  char old_apphome_arch[TARN_UPGRADE_NAME_SIZE];  /* its companion */
  char new_apphome[TARN_UPGRADE_NAME_SIZE];
  char new_apphome_arch[TARN_UPGRADE_NAME_SIZE];
  char last_verdict[TARN_UPGRADE_TEXT_SIZE];  /* the last verdict recorded */
  char reason[TARN_UPGRADE_TEXT_SIZE];        /* why it was rolled back */
} tarn_upgrade_status_t;

/* Puts the app home new_apphome (a name below the install root, UUID text)
 * and, on a machine that needs one (tarn_apphome_com_arch_str), its
 * companion new_apphome_arch on trial for trial_seconds. Both must pass the
 * operational test (which may restore a lost flag from its spare). The
 * journal is written first, state "starting", naming the recorded app
 * home(s) as the fallback, the new ones, the start (this boot's id and the
 * monotonic tick) and the trial's length; then the new app home is recorded
 * with tarn_apphome_update and the journal goes to "trial".
 * Returns 0; TARN_UPGRADE_E_INVALID for a null or non-UUID new_apphome, a
 * non-UUID new_apphome_arch where one is needed, or a trial_seconds outside
 * TARN_UPGRADE_MIN_TRIAL_SECONDS..TARN_UPGRADE_MAX_TRIAL_SECONDS (nothing
 * logged); TARN_UPGRADE_E_INVALID also when the new app home is the
 * recorded one or a needed companion is missing; TARN_UPGRADE_E_NOT_OPERATIONAL;
 * TARN_UPGRADE_E_BUSY when an upgrade is on trial; TARN_UPGRADE_E_RECORD
 * when the record cannot be read (nothing written) or updated (the journal
 * then says "rolled back", with the reason "the record could not be
 * updated"); TARN_UPGRADE_E_LOCK; TARN_UPGRADE_E_JOURNAL (nothing changed
 * when the first save fails); or, when a step left under way by a stopped
 * process cannot be finished first, that step's TARN_UPGRADE_E_RECORD,
 * TARN_UPGRADE_E_SERVICE or TARN_UPGRADE_E_JOURNAL. */
TARNAUX_API int32_t tarn_upgrade_begin(const char *new_apphome, const char *new_apphome_arch,
                                       int32_t trial_seconds);

/* The watchdog's beat: judges the upgrade on trial and acts on the verdict
 * at once -- a failed trial is rolled back (as tarn_upgrade_rollback with
 * the verdict's reason), a passed one committed. The calling process must
 * have initialised the heartbeat family (proc_heartbeat_init). The verdict
 * goes to *verdict_out. Without a trial the verdict is NONE, "no upgrade is
 * on trial" (also when the journal cannot be read: then "the upgrade
 * journal cannot be read; the record stands"), and nothing is written. A
 * check that sees nothing new writes nothing either: the journal is saved
 * only when the service's pid or presence changed, or on a verdict.
 * Returns 0 (whatever the verdict); TARN_UPGRADE_E_INVALID for a null
 * verdict_out (nothing logged); TARN_UPGRADE_E_LOCK; TARN_UPGRADE_E_HEARTBEAT
 * when the table cannot be read (the trial is left as it is);
 * TARN_UPGRADE_E_JOURNAL, TARN_UPGRADE_E_RECORD, TARN_UPGRADE_E_SERVICE
 * from the commit or rollback it began (the journal then tells the next
 * call what to finish; *verdict_out still holds the verdict). */
TARNAUX_API int32_t tarn_upgrade_check(tarn_upgrade_verdict_t *verdict_out);

/* Ends the trial as passed: the journal says "committed". The fallback app
 * home is kept on disk. Returns 0; TARN_UPGRADE_E_NO_TRIAL when no upgrade
 * is on trial (after finishing a step left by a stopped process);
 * TARN_UPGRADE_E_LOCK; TARN_UPGRADE_E_JOURNAL; TARN_UPGRADE_E_RECORD when a
 * "starting" journal's new app home cannot be recorded; the errors of a
 * "rolling back" journal's rollback, which is finished first. */
TARNAUX_API int32_t tarn_upgrade_commit(void);

/* Ends the trial as failed, for reason (an operator's words; null is taken
 * as "rolled back by request"; line ends become blanks): the journal says
 * "rolling back", the fallback app home(s) are recorded with
 * tarn_apphome_update, the fallback's service configuration "tarn_service"
 * is rewritten with restart_tarn_process so that the service manager
 * starts the old service whether or not the new one still runs, and the
 * journal says "rolled back".
 * Returns 0; TARN_UPGRADE_E_NO_TRIAL when no upgrade is on trial;
 * TARN_UPGRADE_E_LOCK; TARN_UPGRADE_E_JOURNAL; TARN_UPGRADE_E_RECORD or
 * TARN_UPGRADE_E_SERVICE when that step failed: the journal stays "rolling
 * back" and the next call of any operation but status tries again. */
TARNAUX_API int32_t tarn_upgrade_rollback(const char *reason);

/* The clean-up after an upgrade: removes the app home apphome (a name below
 * the install root, UUID text) and everything in it, unless it must stay.
 * It stays while an upgrade is on trial (the new version is not proven
 * yet), when the journal cannot be read or the record cannot be read (what
 * must stay is then unknown), when it is the last upgrade's fallback (or
 * its companion), and when the record names it (or its companion). Under
 * the operation lock, after finishing a step left by a stopped process.
 * Links are removed as links and never followed; an app home that is a
 * link is not removed.
 * Returns 0 when it was removed; TARN_UPGRADE_E_INVALID for a null or
 * non-UUID apphome (nothing logged); TARN_UPGRADE_E_BUSY while a trial
 * runs; TARN_UPGRADE_E_KEPT when it must stay for another reason;
 * TARN_UPGRADE_E_RECORD when the record cannot be read; TARN_UPGRADE_E_LOCK;
 * TARN_UPGRADE_E_REMOVE when it is missing, not a directory, or a part of it
 * could not be removed (what could be removed is gone); the errors of a
 * step left under way, which is finished first. */
TARNAUX_API int32_t tarn_upgrade_remove_apphome(const char *apphome);

/* Fills *out from the journal, without a lock (saves replace the file in
 * one step). Returns 0, also for a missing journal (state NONE) and an
 * unreadable one (state UNREADABLE, and the warn line above);
 * TARN_UPGRADE_E_INVALID for a null out (nothing logged). */
TARNAUX_API int32_t tarn_upgrade_status(tarn_upgrade_status_t *out);

/* A static text for a state: "none", "starting", "trial", "rolling back",
 * "committed", "rolled back", "unreadable"; "unknown" for anything else. */
TARNAUX_API const char *tarn_upgrade_state_text(int32_t state);

/* A static text for a verdict: "none", "running", "passed", "failed";
 * "unknown" for anything else. */
TARNAUX_API const char *tarn_upgrade_verdict_text(int32_t verdict);

TARNAUX_END_DECLS

#endif
