/* tarn_heartbeat_internal.h -- the watchdog's own heartbeat entry and the
 * table layout, for the family's source file and its tests. Not exported.
 *
 * The watchdog's entry has pid -1, type 6 and interval 300 (five minutes),
 * so that registration and deletion by pid never match it, the service's
 * sweep keeps it, and the timeout scan and the bulk query skip it.
 */
#ifndef TARN_HEARTBEAT_INTERNAL_H
#define TARN_HEARTBEAT_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <tarnbase/tarn_process.h>

#include "tarn_heartbeat.h"

#define PROC_HEARTBEAT_SHM_NAME "proc_heartbeat_shm.name"
/* The side segment, beside the table and guarded by the same lock. */
#define PROC_HEARTBEAT_SIDE_NAME PROC_HEARTBEAT_SHM_NAME ".ident"
#define PROC_HEARTBEAT_SIDE_MAGIC 0x74646973u /* "sidt" */
#define PROC_HEARTBEAT_MAGIC 12321u
#define PROC_HEARTBEAT_LOCK_TIMEOUT_MS 100u
#define PROC_HEARTBEAT_CLEAR_TIMEOUT_MS 1000u
#define WTDOG_BEAT_INTERVAL 300u /* seconds */

/* The shared segment, 1544 bytes, little-endian, naturally aligned. */
typedef struct proc_heartbeat_segment {
  uint32_t magic;    /* PROC_HEARTBEAT_MAGIC once the service has cleared it */
  int32_t proc_num;  /* number of occupied slots */
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
} proc_heartbeat_segment_t;

static_assert(sizeof(proc_heartbeat_info_t) == 24, "entry is 24 bytes");
static_assert(offsetof(proc_heartbeat_info_t, pid) == 0, "pid at 0");
static_assert(offsetof(proc_heartbeat_info_t, idx) == 4, "idx at 4");
static_assert(offsetof(proc_heartbeat_info_t, interval) == 8, "interval at 8");
static_assert(offsetof(proc_heartbeat_info_t, ptype) == 12, "ptype at 12");
static_assert(offsetof(proc_heartbeat_info_t, tick) == 16, "tick at 16");
static_assert(offsetof(proc_heartbeat_segment_t, magic) == 0, "magic at 0");
static_assert(offsetof(proc_heartbeat_segment_t, proc_num) == 4, "proc_num at 4");
static_assert(offsetof(proc_heartbeat_segment_t, entries) == 8, "entries at 8");
static_assert(sizeof(proc_heartbeat_segment_t) == 1544, "segment is 1544 bytes");

/* The change of one slot that a lock holder is making. A holder that is
 * killed half-way leaves `active` set, and the next holder puts the slot
 * and proc_num back as they were before the change. */
typedef struct proc_heartbeat_journal {
  uint32_t active;              /* 1 from before the first write to after the last */
  uint32_t slot;                /* the slot being changed */
  int32_t proc_num;             /* proc_num before the change */
  uint32_t reserved;
  proc_heartbeat_info_t entry;  /* the slot before the change */
} proc_heartbeat_journal_t;

/* The side segment: the journal, and who each slot's process is. A slot's
 * identity counts only while its pid equals the slot's pid; otherwise
 * (never recorded, a fake or foreign pid, a table written by an older
 * library) nothing is known beyond the pid. Fixed-width fields at fixed
 * offsets: the same layout for 32-bit and 64-bit processes. */
typedef struct proc_heartbeat_side {
  uint32_t magic;  /* PROC_HEARTBEAT_SIDE_MAGIC once the service has cleared it */
  uint32_t reserved;
  proc_heartbeat_journal_t journal;
  tarn_process_identity_t identity[PROC_HEARTBEAT_MAX_PROCS];
} proc_heartbeat_side_t;

static_assert(sizeof(tarn_process_identity_t) == 40, "identity is 40 bytes");
static_assert(sizeof(proc_heartbeat_journal_t) == 40, "journal is 40 bytes");
static_assert(offsetof(proc_heartbeat_side_t, journal) == 8, "journal at 8");
static_assert(offsetof(proc_heartbeat_side_t, identity) == 48, "identities at 48");
static_assert(sizeof(proc_heartbeat_side_t) == 2608, "side segment is 2608 bytes");

/* Adds the watchdog's entry unless it exists. Returns 0 (also when the
 * table is full: that is only logged), -2, -4. */
int32_t add_wtdog_heartbeat(void);

/* Stamps the watchdog's entry with the current tick. Returns 0, -2, -4, -5
 * when there is no watchdog entry. */
int32_t update_wtdog_beat_tick(void);

/* Sets *timed_out to whether the watchdog's last beat is at least max_tmdf
 * seconds old. Returns 0, -2, -1 for max_tmdf below 300 or a null
 * timed_out, -4, -5 when there is no watchdog entry. */
int32_t check_wtdog_beat_timeout(int32_t max_tmdf, bool *timed_out);

#endif
