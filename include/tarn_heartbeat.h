/* tarn_heartbeat.h -- the process heartbeat table.
 *
 * The agent's processes share one table of heartbeats in the shared-memory
 * segment "proc_heartbeat_shm.name", guarded by the global lock of the same
 * name. The service initialises it in mode 0 (which clears it) and
 * registers itself with type 0; every other process attaches with a
 * non-zero mode, registers itself, and beats on its interval. Each beat of
 * the service also clears the entries of processes that no longer exist. A
 * supervisor lists the processes whose last beat is too old.
 *
 * Every operation first checks that this process has initialised the
 * family, then its arguments, then takes the lock for at most 100 ms. It
 * returns one of the codes below (registration returns a slot index on
 * success) and logs its outcome. get_heartbeat_errmsg names each code.
 *
 * Messages. Each operation names itself with a fixed text, <op> below, and
 * logs its three common failures at warn:
 *   "<op> failed, because of not inited"            -2
 *   "<op> failed, because of invalid parameter"     -1
 *   "<op> failed, because of acquire glock timeout" -4
 * Its other lines are given with the function. Every message ends with a
 * line end. Functions whose comment names no message log nothing.
 *
 * One thread of a process initialises and de-initialises; the operations
 * may then be called from any thread.
 */
#ifndef TARN_HEARTBEAT_H
#define TARN_HEARTBEAT_H

#include <stdbool.h>
#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Result codes. */
#define PROC_HEARTBEAT_OK 0
#define PROC_HEARTBEAT_E_INVALID_PARAM (-1)
#define PROC_HEARTBEAT_E_UNINITIALIZED (-2)
#define PROC_HEARTBEAT_E_REINITIALIZED (-3)
#define PROC_HEARTBEAT_E_TIMEOUT (-4)
#define PROC_HEARTBEAT_E_NOT_FOUND (-5)
#define PROC_HEARTBEAT_E_EXISTS (-6)
#define PROC_HEARTBEAT_E_FULL (-7)
#define PROC_HEARTBEAT_E_SHM (-8)

/* The table has this many slots. Output arrays hold at least this many. */
#define PROC_HEARTBEAT_MAX_PROCS 64

/* Process types: 0 is the service, 6 the watchdog, 1 to 5 the others. */
#define PROC_HEARTBEAT_TYPE_SERVICE 0
#define PROC_HEARTBEAT_TYPE_WATCHDOG 6

/* One process's entry: the same 24 bytes on every architecture, in the
 * table and in the records that callers pass in and get back.
 *   pid       the process; 0 or less means no process
 *   idx       the slot of the entry
 *   interval  the beat interval the process declared, 1 to 59 seconds
 *   ptype     the process type, 0 to 6
 *   tick      milliseconds tick (tarn_time_get_tick_cout) of the last beat */
typedef struct proc_heartbeat_info {
  int32_t pid;
  uint32_t idx;
  uint32_t interval;
  uint32_t ptype;
  uint64_t tick;
} proc_heartbeat_info_t;

/* Creates or attaches the shared table and its lock and maps the table.
 * Mode 0 is the service's: the segment is created when missing and the
 * table is cleared, if the lock can be had within 1000 ms (otherwise the
 * table is left as it is and initialisation still succeeds). Mode 1
 * attaches, creating an empty segment when the service has not yet made
 * it; any other mode attaches to an existing segment only. Every mode
 * creates the lock when it is missing.
 *
 * The segment and the lock are created exclusively and shared as the base
 * library shares what the agent's processes use (tarn_shm.h,
 * tarn_file_share_fd): owned by the creating user (root for the service),
 * mode 0660, with the configured agent group as their group. An object
 * found at either name that is foreign -- another user's, writable by
 * others, a symbolic link, not a regular object -- is replaced by mode 0
 * with a new one of its own (the service's table then starts empty, whatever
 * the foreign one held) and refused by every other mode, with the step's
 * warn line and the base library's error (EPERM, ELOOP, EFTYPE...).
 *
 * Returns 0; -3 when this process has initialised already; or the positive
 * errno value of the step that failed (the segment, the lock, the mapping,
 * which refuses a segment that has become smaller than the table), in which
 * case everything is undone and a later call starts afresh. Logs at warn the
 * failed step: "share memory init failed, error:%d, mode:%d, flag:%d",
 * "global lock init failed, error: %d" or "share memory map failed, error:
 * %d"; on success at info "process heartbeat init successed, mode:%d,
 * flag:%d, memset:%d" (memset 1 when the table was cleared). -3 logs
 * nothing. */
TARNAUX_API int32_t proc_heartbeat_init(uint32_t mode);

/* Releases this process's lock handle and mapping. With destroy true the
 * segment is removed too (processes that still map it keep their view);
 * otherwise it stays for the other processes. Returns 0 when the family was
 * not initialised, otherwise the bitwise OR of the results of releasing the
 * lock handle and of unmapping (0 when both succeeded). Logs at info
 * "process heartbeat has deinit, ret: %d", except when not initialised. */
TARNAUX_API int32_t proc_heartbeat_deinit(bool destroy);

/* A static text for a result code: "successed", "invalid parameter",
 * "uninitialized", "reinitialized", "wait to timeout", "object not found",
 * "object already exists", "buffer write full", "share memory error" for
 * 0 to -8, "unknown error" for any other code. */
TARNAUX_API const char *get_heartbeat_errmsg(int32_t code);

/* The record's pid, interval and type; 4294967295 for a null record. */
TARNAUX_API uint32_t get_beat_proc_pid(const proc_heartbeat_info_t *info);
TARNAUX_API uint32_t get_proc_beat_interval(const proc_heartbeat_info_t *info);
TARNAUX_API uint32_t get_beat_proc_type(const proc_heartbeat_info_t *info);

/* Registers info->pid with its interval and type, stamped with the current
 * tick. A pid already in the table keeps its slot and its entry unchanged
 * (nothing logged). A service (type 0) takes over the slot of the first
 * service entry with a pid above 0 in place, storing info->idx there
 * (info "service heartbeat info update, old_pid:%d, new_pid:%d, tick:%llu").
 * Otherwise the lowest free slot is taken (info "add process heartbeat
 * [pid:%d, idx:%d, ptype:%d, tick:%llu successed", the bracket unclosed).
 * Returns the slot index (0 to 63); -2; -1 for a null info, a pid of 0 or
 * less, a type above 6 or an interval outside 1 to 59; -5 when no process
 * has that pid (warn "add process heartbeat failed, because of process: %d
 * is not exit"); -4 on lock time-out; -7 when all 64 slots are occupied
 * (warn "add process heartbeat failed, because of the process number over
 * max"). <op> is "add process heartbeat". */
TARNAUX_API int32_t add_proc_heartbeat(const proc_heartbeat_info_t *info);

/* Removes the entry of pid. Returns 0 (also when pid has no entry), -2, -1
 * for a pid below 1, -4. On 0 logs at info "delete process heartbeat
 * [pid:%d, idx:%d] successed" (for a pid without an entry, idx is the lowest
 * free slot the scan met, or the slot where it ended). <op> is "delete process heartbeat". */
TARNAUX_API int32_t del_proc_heartbeat_by_pid(int32_t pid);

/* Removes the entry in slot idx when it holds a process (pid above 0; the
 * watchdog's slot is left alone). Returns 0, -2, -1 for idx above 63, -4.
 * On 0 logs at info "delete process heartbeat [pid:%d, idx:%d] successed"
 * with the pid and idx fields the slot held (0 and 0 for a free slot).
 * <op> is "delete process heartbeat". */
TARNAUX_API int32_t del_proc_heartbeat_by_idx(uint32_t idx);

/* Stamps the calling process's entry with the current tick. When the caller
 * is the service (type 0), the beat first clears the entries of processes
 * that no longer exist (the watchdog's is kept) and recounts the table.
 * Returns 0, -2, -4, -5 when the caller has no entry (warn "update process
 * heartbeat tick failed, because of pid:%d not exist"). On 0 logs at debug
 * "update process heartbeat [pid:%d, idx:%d] tick successed". The
 * service's sweep logs at warn "shared memory data may have been modified"
 * when the table's magic is not 12321, and "the process[pid:%d, ptype:%d,
 * pidx:%d] is not exist, heartbeat will be cleared" for each entry cleared.
 * <op> is "update process heartbeat tick". */
TARNAUX_API int32_t update_proc_beat_tick(void);

/* Copies into out, in slot order, every process entry (not the watchdog's)
 * whose last beat is at least max_tmdf seconds old, and stores the number
 * of occupied entries in *proc_num_out when it is not null. out holds
 * capacity records, at least 64. Returns the number of records written
 * (0 to 64), -2, -1 for a null out, a capacity below 64 or a max_tmdf below
 * 60, -4. On success logs at info "get heartbeat timeout processes
 * successed, total: %d, max_tmdf:%d". <op> is "get heartbeat timeout
 * processes". */
TARNAUX_API int32_t get_beat_timeout_procs(proc_heartbeat_info_t *out, uint64_t capacity,
                                           int32_t max_tmdf, int32_t *proc_num_out);

/* Brings the table in line with list, an array of count record pointers
 * (null pointers allowed) that mirrors the table slot by slot: adds the
 * records whose pid is not in the table (stamping their tick), fills in
 * idx of every record found or added, then removes each entry whose slot
 * position in list holds no record of the same pid. The removal pass ends
 * one occupied slot earlier for each entry it removes, so entries near the
 * end may survive until the next call. Returns 0, -2, -1 for a null list or
 * count 0, -4. Records that find no free slot are skipped. Logs at info
 * "sync_add process heartbeat [pid:%d, idx:%d, ptype:%d, tick:%llu]
 * successed" for each entry added, "sync_del process heartbeat [pid:%d,
 * idx:%d] successed" for each removed, and at the end "sync process
 * heartbeat infos successed, add:%d, del:%d, upd:%d, proc_num:%d". <op> is
 * "sync process heartbeat infos". */
TARNAUX_API int32_t sync_proc_heartbeat_infos(proc_heartbeat_info_t **list, uint64_t count);

/* Copies every process entry (not the watchdog's) into out, in slot order,
 * without gaps. out holds capacity records, at least 64. Returns the number
 * copied, -2, -1 for a null out or a capacity below 64, -4. On success logs
 * at info "get all processes heartbeats successed, proc_num: %d" (the
 * number copied). <op> is "get all processes heartbeats". */
TARNAUX_API int32_t get_all_proc_heartbeats(proc_heartbeat_info_t *out, uint64_t capacity);

/* Copies the entry of pid into *out. Returns 0 (info "get process heartbeat
 * [pid:%d, idx:%d] info successed"), -2, -1 for a pid below 1 or a null
 * out, -4, -5 when pid has no entry (warn "get process heartbeat info
 * failed, because of pid:%d not exist"). <op> is "get process heartbeat
 * info". */
TARNAUX_API int32_t get_proc_heartbeat_info(int32_t pid, proc_heartbeat_info_t *out);

TARNAUX_END_DECLS

#endif
