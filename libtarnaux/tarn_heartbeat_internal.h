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

#include "tarn_heartbeat.h"

#define PROC_HEARTBEAT_SHM_NAME "proc_heartbeat_shm.name"
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
