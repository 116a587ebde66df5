// The process heartbeat table: one shared segment, one global lock, and the
// operations that register, beat, sweep, scan and sync its 64 slots.

#include "tarn_heartbeat.h"

#include <errno.h>
#include <inttypes.h>
#include <string.h>
#include <unistd.h>

#include <tarnbase/tarn_atomic.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_shm.h>
#include <tarnbase/tarn_time.h>

#include "log_frame.h"
#include "tarn_heartbeat_internal.h"

namespace {

constexpr int kMaxSlots = PROC_HEARTBEAT_MAX_PROCS;

// Process-local handles; g_table being non-null means "initialised".
tarn_shm_t *g_shm = nullptr;
proc_heartbeat_segment_t *g_table = nullptr;
tarn_shm_t *g_side_shm = nullptr;
proc_heartbeat_side_t *g_side = nullptr;
tarn_glock_t *g_lock = nullptr;
alignas(8) int64_t g_init_count = 0;

// The sweeper's descriptors on the processes it has seen alive (pidfds),
// slot by slot, with the identity each was opened for: one poll over them
// tells which have exited, without reading /proc for each.
struct WatchedProcess {
  int fd = -1;
  tarn_process_identity_t identity{};
};
WatchedProcess g_watched[PROC_HEARTBEAT_MAX_PROCS];

void forget_watched(WatchedProcess &watched) {
  if (watched.fd >= 0) close(watched.fd);
  watched = WatchedProcess();
}

bool slot_occupied(const proc_heartbeat_info_t &entry) {
  return entry.pid > 0 || entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG;
}

void clear_slot(proc_heartbeat_info_t &entry) { memset(&entry, 0, sizeof(entry)); }

// A holder killed in the middle of changing a slot leaves the journal
// active; the slot and proc_num go back to what they were before that
// change, so that the table is whole again before anyone reads it.
void repair_interrupted_change() {
  proc_heartbeat_journal_t &journal = g_side->journal;
  if (__atomic_load_n(&journal.active, __ATOMIC_ACQUIRE) == 0) return;
  const uint32_t slot = journal.slot;
  if (slot < (uint32_t)kMaxSlots) {
    g_table->entries[slot] = journal.entry;
    g_table->proc_num = journal.proc_num;
  }
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  __atomic_store_n(&journal.active, 0u, __ATOMIC_RELEASE);
  LOG(warn, "heartbeat slot %u was left half-changed by a process that died, restored\n", slot);
}

// One journaled change of one slot (and of proc_num): everything written
// to the table between construction and destruction is undone by the next
// holder if this process dies in between. Journal and table are written in
// program order, which is all a killed process can leave behind.
class SlotChange {
 public:
  explicit SlotChange(int slot) {
    proc_heartbeat_journal_t &journal = g_side->journal;
    journal.slot = (uint32_t)slot;
    journal.proc_num = g_table->proc_num;
    journal.entry = g_table->entries[slot];
    __atomic_store_n(&journal.active, 1u, __ATOMIC_RELEASE);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
  }
  ~SlotChange() { __atomic_store_n(&g_side->journal.active, 0u, __ATOMIC_RELEASE); }
  SlotChange(const SlotChange &) = delete;
  SlotChange &operator=(const SlotChange &) = delete;
};

// Who the process of a slot is, when that is known: the identity counts
// only while it was recorded for the slot's present pid.
const tarn_process_identity_t *known_identity(int slot) {
  const tarn_process_identity_t &identity = g_side->identity[slot];
  const int32_t pid = g_table->entries[slot].pid;
  return pid > 0 && identity.pid == pid ? &identity : nullptr;
}

void record_identity(int slot, const tarn_process_identity_t *identity) {
  if (identity != nullptr) {
    g_side->identity[slot] = *identity;
  } else {
    memset(&g_side->identity[slot], 0, sizeof(g_side->identity[slot]));
  }
}

// False when the slot's pid is known to belong now to a process other than
// the one that holds `who`'s identity.
bool same_process(int slot, const tarn_process_identity_t *who) {
  const tarn_process_identity_t *recorded = known_identity(slot);
  // A beat asks this of its own slot each time: the whole identity is
  // compared first, which settles the usual case without a call.
  return recorded == nullptr || who == nullptr || memcmp(recorded, who, sizeof(*who)) == 0 ||
         tarn_process_identity_same(recorded, who) != 0;
}

void log_cleared(int slot) {
  const proc_heartbeat_info_t &entry = g_table->entries[slot];
  LOG(warn, "the process[pid:%d, ptype:%d, pidx:%d] is not exist, heartbeat will be cleared\n",
      entry.pid, (int)entry.ptype, slot);
}

void clear_occupied_slot(int slot) {
  SlotChange change(slot);
  clear_slot(g_table->entries[slot]);
  g_table->proc_num -= 1;
}

void store_tick(proc_heartbeat_info_t &entry, uint64_t tick) {
  // One store, also on 32-bit machines: a reader never sees half a tick.
  __atomic_store_n(&entry.tick, tick, __ATOMIC_RELAXED);
}

// Holds the global lock for one operation; releases it on every way out.
// The table is repaired as soon as the lock is had.
class TableLock {
 public:
  explicit TableLock(uint32_t timeout_ms)
      : held_(tarn_glock_acquire_timeout(g_lock, timeout_ms) == 0) {
    if (held_) repair_interrupted_change();
  }
  ~TableLock() { release(); }
  TableLock(const TableLock &) = delete;
  TableLock &operator=(const TableLock &) = delete;

  bool held() const { return held_; }
  void release() {
    if (held_) tarn_glock_release(g_lock);
    held_ = false;
  }

 private:
  bool held_;
};

// The registration scan: visits slots from 0 upward, counting occupied
// ones, until a slot matches, slot 63 has been visited, or the count has
// reached proc_num. Remembers the lowest free slot seen and where it ended.
struct SlotScan {
  int match = -1;       // the matching slot, or -1
  int first_free = -1;  // the lowest free slot seen, or -1
  int end = 0;          // the slot after the last one visited
};

template <typename Match>
SlotScan scan_slots(const proc_heartbeat_segment_t *table, Match match) {
  SlotScan scan;
  int counted = 0;
  int slot = 0;
  for (; slot < kMaxSlots && counted < table->proc_num; ++slot) {
    const proc_heartbeat_info_t &entry = table->entries[slot];
    if (!slot_occupied(entry)) {
      if (scan.first_free < 0) scan.first_free = slot;
      continue;
    }
    ++counted;
    if (match(entry)) {
      scan.match = slot;
      break;
    }
  }
  scan.end = slot;
  return scan;
}

// Where a new entry goes after a scan that found no match: slot 0 in an
// empty table, else the lowest free slot seen, else the slot after a scan
// that stopped early; -1 when all 64 slots are occupied.
int new_entry_slot(const proc_heartbeat_segment_t *table, const SlotScan &scan) {
  if (table->proc_num <= 0) return 0;
  if (scan.first_free >= 0) return scan.first_free;
  if (scan.end < kMaxSlots) return scan.end;
  return -1;
}

SlotScan find_pid(const proc_heartbeat_segment_t *table, int32_t pid) {
  return scan_slots(table, [pid](const proc_heartbeat_info_t &entry) { return entry.pid == pid; });
}

// The watchdog's slot: the first slot of type 6, whatever its pid; this scan
// counts only slots with a pid above 0 towards proc_num.
int find_watchdog(const proc_heartbeat_segment_t *table) {
  int counted = 0;
  for (int slot = 0; slot < kMaxSlots && counted < table->proc_num; ++slot) {
    const proc_heartbeat_info_t &entry = table->entries[slot];
    if (entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) return slot;
    if (entry.pid > 0) ++counted;
  }
  return -1;
}

// True when the slot's pid is known to belong now to a process other than
// the one that registered: such an entry names no hung process, and the
// service's next sweep clears it.
bool pid_went_elsewhere(int slot) {
  const tarn_process_identity_t *recorded = known_identity(slot);
  if (recorded == nullptr) return false;
  tarn_process_identity_t now;
  return tarn_process_get_identity(recorded->pid, &now) == 0 &&
         tarn_process_identity_same(&now, recorded) == 0;
}

int64_t age_seconds(uint64_t now, uint64_t tick) { return (int64_t)(now - tick) / 1000; }

// Whether the process of an occupied slot has died, or its pid has gone to
// another process. A slot whose identity is not known gets the plain
// existence test. A known one is watched through a pidfd opened once and
// checked against the recorded identity, and all watched slots are then
// asked in one poll.
void find_dead_slots(bool dead[kMaxSlots]) {
  int fds[kMaxSlots];
  int polled_slots[kMaxSlots];
  int polled = 0;
  for (int slot = 0; slot < kMaxSlots; ++slot) {
    dead[slot] = false;
    const proc_heartbeat_info_t &entry = g_table->entries[slot];
    if (!slot_occupied(entry) || entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) continue;
    const tarn_process_identity_t *identity = known_identity(slot);
    if (identity == nullptr) {
      dead[slot] = tarn_process_is_exist(entry.pid) == 0;
      continue;
    }
    WatchedProcess &watched = g_watched[slot];
    if (watched.fd < 0 || memcmp(&watched.identity, identity, sizeof(*identity)) != 0) {
      forget_watched(watched);
      const int fd = tarn_process_open(entry.pid);
      const int open_errno = errno;
      tarn_process_identity_t now;
      const bool same = tarn_process_get_identity(entry.pid, &now) == 0 &&
                        tarn_process_identity_same(&now, identity) != 0;
      if (fd < 0 || !same) {
        if (fd >= 0) close(fd);
        dead[slot] = !same || open_errno == ESRCH;
        continue;
      }
      watched.fd = fd;
      watched.identity = *identity;
    }
    fds[polled] = watched.fd;
    polled_slots[polled++] = slot;
  }
  unsigned char exited[kMaxSlots];
  if (tarn_process_poll_exited(fds, polled, exited) != 0) return;
  for (int i = 0; i < polled; ++i) dead[polled_slots[i]] = exited[i] != 0;
}

// The service's beat clears the entries of processes that no longer exist
// and recounts the table. Runs under the lock; each clearing is one
// journaled change.
void sweep_dead_processes(proc_heartbeat_segment_t *table) {
  if (table->magic != PROC_HEARTBEAT_MAGIC) {
    LOG(warn, "shared memory data may have been modified\n");
  }
  bool dead[kMaxSlots];
  find_dead_slots(dead);
  int kept = 0;
  for (int slot = 0; slot < kMaxSlots; ++slot) {
    if (!slot_occupied(table->entries[slot])) continue;
    if (!dead[slot]) {
      ++kept;
      continue;
    }
    log_cleared(slot);
    clear_occupied_slot(slot);
  }
  table->proc_num = kept;
}

void reset_handles() {
  for (WatchedProcess &watched : g_watched) forget_watched(watched);
  g_table = nullptr;
  g_side = nullptr;
  g_lock = nullptr;
  g_shm = nullptr;
  g_side_shm = nullptr;
  g_init_count = 0;
}

// The side segment, opened as the lock is and mapped; 0 or the base
// library's error, logged with the step's message.
int open_side_segment(int flag, uint32_t mode) {
  void *base = nullptr;
  int ret = tarn_shm_init(PROC_HEARTBEAT_SIDE_NAME, flag, sizeof(proc_heartbeat_side_t), &g_side_shm);
  if (ret != 0) {
    LOG(warn, "share memory init failed, error:%d, mode:%d, flag:%d\n", ret, (int)mode, flag);
    return ret;
  }
  if ((ret = tarn_shm_map(g_side_shm, 0, &base)) != 0) {
    LOG(warn, "share memory map failed, error: %d\n", ret);
    return ret;
  }
  g_side = static_cast<proc_heartbeat_side_t *>(base);
  return 0;
}

// Undoes a failed init. The service removes what it made; a process that
// only attaches leaves the table, the side segment and the lock to the
// others, who are using them.
void undo_init(uint32_t mode, void *table_base) {
  if (table_base != nullptr) tarn_shm_unmap(g_shm, table_base);
  if (g_side != nullptr) tarn_shm_unmap(g_side_shm, g_side);
  if (mode == 0) {
    tarn_shm_destroy(g_shm);
    tarn_shm_destroy(g_side_shm);
  } else {
    tarn_shm_close(g_shm);
    tarn_shm_close(g_side_shm);
  }
  tarn_glock_destroy(g_lock);
  reset_handles();
}

}  // namespace

extern "C" {

TARNAUX_API int32_t proc_heartbeat_init(uint32_t mode) {
  if (g_table != nullptr) return PROC_HEARTBEAT_E_REINITIALIZED;
  if (tarn_atomic64_add_and_fetch(&g_init_count, 1) != 1) return PROC_HEARTBEAT_E_REINITIALIZED;

  const int flag = mode == 0 ? TARN_SHM_CREATE : mode == 1 ? TARN_SHM_OPEN_OR_CREATE : TARN_SHM_OPEN;
  // Only the service replaces a segment or lock that a local user made in
  // their place; every other process refuses them. Every mode may create
  // the lock.
  const int lock_flag = mode == 0 ? TARN_SHM_CREATE : TARN_SHM_OPEN_OR_CREATE;
  void *base = nullptr;
  int ret = tarn_shm_init(PROC_HEARTBEAT_SHM_NAME, flag, sizeof(proc_heartbeat_segment_t), &g_shm);
  if (ret != 0) {
    LOG(warn, "share memory init failed, error:%d, mode:%d, flag:%d\n", ret, (int)mode, flag);
  } else if ((ret = tarn_glock_init_ex(PROC_HEARTBEAT_SHM_NAME, lock_flag, &g_lock)) != 0) {
    LOG(warn, "global lock init failed, error: %d\n", ret);
  } else if ((ret = tarn_shm_map(g_shm, 0, &base)) != 0) {
    LOG(warn, "share memory map failed, error: %d\n", ret);
  } else {
    ret = open_side_segment(lock_flag, mode);
  }
  if (ret != 0) {
    undo_init(mode, base);
    return ret;
  }
  g_table = static_cast<proc_heartbeat_segment_t *>(base);

  int memset_done = 0;
  if (mode == 0) {
    TableLock lock(PROC_HEARTBEAT_CLEAR_TIMEOUT_MS);
    if (lock.held()) {
      memset(g_table, 0, sizeof(*g_table));
      g_table->magic = PROC_HEARTBEAT_MAGIC;
      memset(g_side, 0, sizeof(*g_side));
      g_side->magic = PROC_HEARTBEAT_SIDE_MAGIC;
      memset_done = 1;
    }
  }
  LOG(info, "process heartbeat init successed, mode:%d, flag:%d, memset:%d\n", (int)mode, flag,
      memset_done);
  return PROC_HEARTBEAT_OK;
}

TARNAUX_API int32_t proc_heartbeat_deinit(bool destroy) {
  if (g_table == nullptr) return PROC_HEARTBEAT_OK;
  const int32_t lock_ret = tarn_glock_destroy(g_lock);
  const int32_t unmap_ret = tarn_shm_unmap(g_shm, g_table) | tarn_shm_unmap(g_side_shm, g_side);
  if (destroy) {
    tarn_shm_destroy(g_shm);
    tarn_shm_destroy(g_side_shm);
  } else {
    tarn_shm_close(g_shm);
    tarn_shm_close(g_side_shm);
  }
  reset_handles();
  const int32_t ret = lock_ret | unmap_ret;
  LOG(info, "process heartbeat has deinit, ret: %d\n", ret);
  return ret;
}

TARNAUX_API const char *get_heartbeat_errmsg(int32_t code) {
  switch (code) {
    case PROC_HEARTBEAT_OK: return "successed";
    case PROC_HEARTBEAT_E_INVALID_PARAM: return "invalid parameter";
    case PROC_HEARTBEAT_E_UNINITIALIZED: return "uninitialized";
    case PROC_HEARTBEAT_E_REINITIALIZED: return "reinitialized";
    case PROC_HEARTBEAT_E_TIMEOUT: return "wait to timeout";
    case PROC_HEARTBEAT_E_NOT_FOUND: return "object not found";
    case PROC_HEARTBEAT_E_EXISTS: return "object already exists";
    case PROC_HEARTBEAT_E_FULL: return "buffer write full";
    case PROC_HEARTBEAT_E_SHM: return "share memory error";
    default: return "unknown error";
  }
}

TARNAUX_API uint32_t get_beat_proc_pid(const proc_heartbeat_info_t *info) {
  return info == nullptr ? UINT32_MAX : (uint32_t)info->pid;
}

TARNAUX_API uint32_t get_proc_beat_interval(const proc_heartbeat_info_t *info) {
  return info == nullptr ? UINT32_MAX : info->interval;
}

TARNAUX_API uint32_t get_beat_proc_type(const proc_heartbeat_info_t *info) {
  return info == nullptr ? UINT32_MAX : info->ptype;
}

TARNAUX_API int32_t add_proc_heartbeat(const proc_heartbeat_info_t *info) {
  if (g_table == nullptr) {
    LOG(warn, "add process heartbeat failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (info == nullptr || info->pid <= 0 || info->ptype > PROC_HEARTBEAT_TYPE_WATCHDOG ||
      info->interval - 1u > 58u) {
    LOG(warn, "add process heartbeat failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  if (tarn_process_is_exist(info->pid) == 0) {
    LOG(warn, "add process heartbeat failed, because of process: %d is not exit\n", info->pid);
    return PROC_HEARTBEAT_E_NOT_FOUND;
  }
  tarn_process_identity_t who;
  const bool who_known = (info->pid == tarn_process_get_pid()
                              ? tarn_process_get_self_identity(&who)
                              : tarn_process_get_identity(info->pid, &who)) == 0;
  const tarn_process_identity_t *identity = who_known ? &who : nullptr;
  const uint64_t tick = tarn_time_get_tick_cout();
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "add process heartbeat failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }

  const bool is_service = info->ptype == PROC_HEARTBEAT_TYPE_SERVICE;
  SlotScan scan =
      is_service ? scan_slots(g_table,
                              [](const proc_heartbeat_info_t &entry) {
                                return entry.pid > 0 && entry.ptype == PROC_HEARTBEAT_TYPE_SERVICE;
                              })
                 : find_pid(g_table, info->pid);

  if (scan.match >= 0 && !is_service && !same_process(scan.match, identity)) {
    // The entry is a dead process's whose pid has gone to the caller: it
    // goes as the sweep would clear it, and the caller registers afresh.
    log_cleared(scan.match);
    clear_occupied_slot(scan.match);
    scan = find_pid(g_table, info->pid);
  }
  if (scan.match >= 0 && !is_service) return scan.match;  // the existing registration stands

  if (scan.match >= 0) {
    proc_heartbeat_info_t &entry = g_table->entries[scan.match];
    LOG(info, "service heartbeat info update, old_pid:%d, new_pid:%d, tick:%" PRIu64 "\n",
        entry.pid, info->pid, tick);
    record_identity(scan.match, identity);
    SlotChange change(scan.match);
    entry.pid = info->pid;
    entry.idx = info->idx;
    entry.interval = info->interval;
    entry.ptype = info->ptype;
    entry.tick = tick;
    return scan.match;
  }

  const int slot = new_entry_slot(g_table, scan);
  if (slot < 0) {
    LOG(warn, "add process heartbeat failed, because of the process number over max\n");
    return PROC_HEARTBEAT_E_FULL;
  }
  record_identity(slot, identity);
  {
    SlotChange change(slot);
    proc_heartbeat_info_t &entry = g_table->entries[slot];
    entry.pid = info->pid;
    entry.interval = info->interval;
    entry.ptype = info->ptype;
    entry.tick = tick;
    entry.idx = (uint32_t)slot;
    g_table->proc_num += 1;
  }
  LOG(info, "add process heartbeat [pid:%d, idx:%d, ptype:%d, tick:%" PRIu64 " successed\n",
      info->pid, slot, (int)info->ptype, tick);
  return slot;
}

TARNAUX_API int32_t del_proc_heartbeat_by_pid(int32_t pid) {
  if (g_table == nullptr) {
    LOG(warn, "delete process heartbeat failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (pid < 1) {
    LOG(warn, "delete process heartbeat failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "delete process heartbeat failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const SlotScan scan = find_pid(g_table, pid);
  int idx;
  if (scan.match >= 0) {
    clear_occupied_slot(scan.match);
    idx = scan.match;
  } else {
    idx = scan.first_free >= 0 ? scan.first_free : scan.end;
  }
  lock.release();
  LOG(info, "delete process heartbeat [pid:%d, idx:%d] successed\n", pid, idx);
  return PROC_HEARTBEAT_OK;
}

TARNAUX_API int32_t del_proc_heartbeat_by_idx(uint32_t idx) {
  if (g_table == nullptr) {
    LOG(warn, "delete process heartbeat failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (idx >= (uint32_t)kMaxSlots) {
    LOG(warn, "delete process heartbeat failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "delete process heartbeat failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  proc_heartbeat_info_t &entry = g_table->entries[idx];
  const proc_heartbeat_info_t former = entry;
  if (entry.pid > 0) clear_occupied_slot((int)idx);
  lock.release();
  LOG(info, "delete process heartbeat [pid:%d, idx:%d] successed\n", former.pid, (int)former.idx);
  return PROC_HEARTBEAT_OK;
}

TARNAUX_API int32_t update_proc_beat_tick(void) {
  if (g_table == nullptr) {
    LOG(warn, "update process heartbeat tick failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  tarn_process_identity_t self;
  const bool self_known = tarn_process_get_self_identity(&self) == 0;
  const int32_t pid = self_known ? self.pid : tarn_process_get_pid();
  const uint64_t tick = tarn_time_get_tick_cout();
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "update process heartbeat tick failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  // An entry left by a dead process whose pid the caller now has is not
  // the caller's.
  int slot = find_pid(g_table, pid).match;
  if (slot >= 0 && !same_process(slot, self_known ? &self : nullptr)) slot = -1;
  if (slot < 0) {
    LOG(warn, "update process heartbeat tick failed, because of pid:%d not exist\n", pid);
    return PROC_HEARTBEAT_E_NOT_FOUND;
  }
  if (g_table->entries[slot].ptype == PROC_HEARTBEAT_TYPE_SERVICE) sweep_dead_processes(g_table);
  store_tick(g_table->entries[slot], tick);
  LOG(debug, "update process heartbeat [pid:%d, idx:%d] tick successed\n", pid, slot);
  return PROC_HEARTBEAT_OK;
}

TARNAUX_API int32_t get_beat_timeout_procs(proc_heartbeat_info_t *out, uint64_t capacity,
                                           int32_t max_tmdf, int32_t *proc_num_out) {
  if (g_table == nullptr) {
    LOG(warn, "get heartbeat timeout processes failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (out == nullptr || capacity < (uint64_t)kMaxSlots || max_tmdf < 60) {
    LOG(warn, "get heartbeat timeout processes failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  const uint64_t now = tarn_time_get_tick_cout();
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "get heartbeat timeout processes failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  if (proc_num_out != nullptr) *proc_num_out = g_table->proc_num;
  int32_t written = 0;
  int counted = 0;
  for (int slot = 0; slot < kMaxSlots && g_table->proc_num > counted; ++slot) {
    const proc_heartbeat_info_t &entry = g_table->entries[slot];
    if (entry.pid <= 0 || entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) continue;
    ++counted;
    if (age_seconds(now, entry.tick) >= max_tmdf && !pid_went_elsewhere(slot)) out[written++] = entry;
  }
  lock.release();
  LOG(info, "get heartbeat timeout processes successed, total: %d, max_tmdf:%d\n", written,
      max_tmdf);
  return written;
}

TARNAUX_API int32_t sync_proc_heartbeat_infos(proc_heartbeat_info_t **list, uint64_t count) {
  if (g_table == nullptr) {
    LOG(warn, "sync process heartbeat infos failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (list == nullptr || count == 0) {
    LOG(warn, "sync process heartbeat infos failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "sync process heartbeat infos failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const int32_t list_count = (int32_t)count;
  int added = 0;
  int deleted = 0;
  int updated = 0;

  for (int32_t pos = 0; pos < list_count; ++pos) {
    proc_heartbeat_info_t *record = list[pos];
    if (record == nullptr || record->pid <= 0) continue;
    const SlotScan scan = find_pid(g_table, record->pid);
    if (scan.match >= 0) {
      record->idx = (uint32_t)scan.match;
      ++updated;
      continue;
    }
    const int slot = new_entry_slot(g_table, scan);
    if (slot < 0) continue;  // no room: skipped
    record->idx = (uint32_t)slot;
    ++added;
    record->tick = tarn_time_get_tick_cout();
    tarn_process_identity_t identity;
    record_identity(slot, tarn_process_get_identity(record->pid, &identity) == 0 ? &identity : nullptr);
    {
      SlotChange change(slot);
      g_table->entries[slot] = *record;
      g_table->proc_num += 1;
    }
    LOG(info, "sync_add process heartbeat [pid:%d, idx:%d, ptype:%d, tick:%" PRIu64 "] successed\n",
        record->pid, slot, (int)record->ptype, record->tick);
  }

  // The list mirrors the table slot by slot, so slot s is compared with the
  // record at position s; positions beyond the list count as absent.
  int seen = 0;
  for (int slot = 0; slot < kMaxSlots && seen < g_table->proc_num; ++slot) {
    proc_heartbeat_info_t &entry = g_table->entries[slot];
    if (entry.pid <= 0) continue;
    ++seen;
    const proc_heartbeat_info_t *mirror = slot < list_count ? list[slot] : nullptr;
    if (mirror != nullptr && mirror->pid > 0 && mirror->pid == entry.pid) continue;
    ++deleted;
    LOG(info, "sync_del process heartbeat [pid:%d, idx:%d] successed\n", entry.pid, slot);
    clear_occupied_slot(slot);
  }
  const int32_t proc_num = g_table->proc_num;
  lock.release();
  LOG(info, "sync process heartbeat infos successed, add:%d, del:%d, upd:%d, proc_num:%d\n", added,
      deleted, updated, proc_num);
  return PROC_HEARTBEAT_OK;
}

TARNAUX_API int32_t get_all_proc_heartbeats(proc_heartbeat_info_t *out, uint64_t capacity) {
  if (g_table == nullptr) {
    LOG(warn, "get all processes heartbeats failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (out == nullptr || capacity < (uint64_t)kMaxSlots) {
    LOG(warn, "get all processes heartbeats failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "get all processes heartbeats failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  int32_t copied = 0;
  for (int slot = 0; slot < kMaxSlots && g_table->proc_num > copied; ++slot) {
    const proc_heartbeat_info_t &entry = g_table->entries[slot];
    if (entry.pid > 0 && entry.ptype != PROC_HEARTBEAT_TYPE_WATCHDOG) out[copied++] = entry;
  }
  lock.release();
  LOG(info, "get all processes heartbeats successed, proc_num: %d\n", copied);
  return copied;
}

TARNAUX_API int32_t get_proc_heartbeat_info(int32_t pid, proc_heartbeat_info_t *out) {
  if (g_table == nullptr) {
    LOG(warn, "get process heartbeat info failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (pid <= 0 || out == nullptr) {
    LOG(warn, "get process heartbeat info failed, because of invalid parameter\n");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "get process heartbeat info failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const int slot = find_pid(g_table, pid).match;
  if (slot < 0) {
    LOG(warn, "get process heartbeat info failed, because of pid:%d not exist\n", pid);
    return PROC_HEARTBEAT_E_NOT_FOUND;
  }
  *out = g_table->entries[slot];
  LOG(info, "get process heartbeat [pid:%d, idx:%d] info successed\n", pid, slot);
  return PROC_HEARTBEAT_OK;
}

}  // extern "C"

int32_t add_wtdog_heartbeat(void) {
  if (g_table == nullptr) {
    LOG(warn, "add process heartbeat failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "add process heartbeat failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const SlotScan scan = scan_slots(g_table, [](const proc_heartbeat_info_t &entry) {
    return entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG;
  });
  if (scan.match >= 0) return PROC_HEARTBEAT_OK;  // already registered
  const int slot = new_entry_slot(g_table, scan);
  if (slot < 0) {
    LOG(warn, "add wtdog heartbeat failed, because of the process number over max\n");
    return PROC_HEARTBEAT_OK;
  }
  record_identity(slot, nullptr);
  proc_heartbeat_info_t &entry = g_table->entries[slot];
  {
    SlotChange change(slot);
    entry.idx = (uint32_t)slot;
    entry.pid = -1;
    entry.interval = WTDOG_BEAT_INTERVAL;
    entry.ptype = PROC_HEARTBEAT_TYPE_WATCHDOG;
    entry.tick = tarn_time_get_tick_cout();
    g_table->proc_num += 1;
  }
  LOG(info, "add wtdog heartbeat [tick:%" PRIu64 "] successed\n", entry.tick);
  return PROC_HEARTBEAT_OK;
}

int32_t update_wtdog_beat_tick(void) {
  if (g_table == nullptr) {
    LOG(warn, "update process heartbeat tick failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  const uint64_t tick = tarn_time_get_tick_cout();
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "update process heartbeat tick failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const int slot = find_watchdog(g_table);
  if (slot < 0) {
    LOG(warn, "update wtdog heartbeat tick failed, because of watchdog not exist\n");
    return PROC_HEARTBEAT_E_NOT_FOUND;
  }
  store_tick(g_table->entries[slot], tick);
  LOG(debug, "update wtdog heartbeat [tick:%" PRIu64 "] successed\n", tick);
  return PROC_HEARTBEAT_OK;
}

int32_t check_wtdog_beat_timeout(int32_t max_tmdf, bool *timed_out) {
  if (g_table == nullptr) {
    LOG(warn, "get heartbeat timeout processes failed, because of not inited\n");
    return PROC_HEARTBEAT_E_UNINITIALIZED;
  }
  if (max_tmdf <= 299 || timed_out == nullptr) {
    LOG(warn, "The value of max_tmdf requires more than WTDOG_BEAT_INTERVAL(5min)");
    return PROC_HEARTBEAT_E_INVALID_PARAM;
  }
  *timed_out = false;
  const uint64_t now = tarn_time_get_tick_cout();
  TableLock lock(PROC_HEARTBEAT_LOCK_TIMEOUT_MS);
  if (!lock.held()) {
    LOG(warn, "get heartbeat timeout processes failed, because of acquire glock timeout\n");
    return PROC_HEARTBEAT_E_TIMEOUT;
  }
  const int slot = find_watchdog(g_table);
  if (slot < 0) {
    LOG(warn, "check wtdog beat timeout failed, because of watchdog not exist\n");
    return PROC_HEARTBEAT_E_NOT_FOUND;
  }
  if (age_seconds(now, g_table->entries[slot].tick) >= max_tmdf) *timed_out = true;
  return PROC_HEARTBEAT_OK;
}
