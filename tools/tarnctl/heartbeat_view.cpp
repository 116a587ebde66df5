// heartbeat_view.cpp -- reading and judging the heartbeat table for status,
// doctor and metrics.
//
// The library's bulk query follows proc_num and skips the watchdog, so it
// cannot show a damaged table. The table is therefore also read here, from
// a mapping of its own that is read-only (the tool can never change it),
// under the table's lock so that no half-made change is copied.

#include "heartbeat_view.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>

#include <tarn_heartbeat.h>
#include <tarn_heartbeat_internal.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_shm.h>
#include <tarnbase/tarn_time.h>

namespace tarnctl {
namespace {

// Any mode other than 0 (which clears the table) and 1 (which creates an
// empty segment) attaches to an existing table only.
constexpr uint32_t kAttachExistingOnly = 2;

// A copy of one shared segment, or why there is none.
template <typename T>
struct Copy {
  bool present = false;
  int error = 0;  // why it is not present
  T data;
};

// The lock's handle, released and closed at the end of its scope.
class LockHandle {
 public:
  ~LockHandle() {
    if (held_) tarn_glock_release(lock_);
    if (lock_ != nullptr) tarn_glock_destroy(lock_);
  }
  int open() { return tarn_glock_init_ex(PROC_HEARTBEAT_SHM_NAME, TARN_SHM_OPEN, &lock_); }
  int take(uint32_t timeout_ms) {
    const int result = tarn_glock_acquire_timeout(lock_, timeout_ms);
    held_ = result == 0;
    return result;
  }

 private:
  tarn_glock_t *lock_ = nullptr;
  bool held_ = false;
};

// Maps the segment name read-only and copies its first sizeof(T) bytes.
// The same objects are refused as the library refuses them: another user's,
// writable by others, with a second name, not regular, or too small.
template <typename T>
void copy_segment(const char *name, Copy<T> *copy) {
  const int fd = shm_open((std::string("/") + name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) {
    copy->error = errno;
    return;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    copy->error = errno;
  } else if (!S_ISREG(st.st_mode) || st.st_nlink != 1 || (st.st_mode & S_IWOTH) != 0 ||
             (st.st_uid != 0 && st.st_uid != geteuid())) {
    copy->error = EPERM;
  } else if ((size_t)st.st_size < sizeof(T)) {
    copy->error = EINVAL;
  } else {
    void *base = mmap(nullptr, sizeof(T), PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
      copy->error = errno;
    } else {
      memcpy(&copy->data, base, sizeof(T));
      munmap(base, sizeof(T));
      copy->present = true;
    }
  }
  close(fd);
}


std::string executable_of(int32_t pid) {
  char path[4096];
  return tarn_process_get_path(pid, path, sizeof(path)) > 0 ? path : "-";
}

bool occupied(const proc_heartbeat_info_t &entry) {
  return entry.pid > 0 || entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG;
}

// The library's own view: the number of process entries its bulk query
// returns (it follows proc_num). Returns kExitOk or kExitLocked with *reason.
int library_count(int32_t *count, std::string *reason) {
  const int32_t attached = proc_heartbeat_init(kAttachExistingOnly);
  if (attached == ENOENT) {
    *reason = "no heartbeat table (shared memory " PROC_HEARTBEAT_SHM_NAME " does not exist; has the service run?)";
    return kExitLocked;
  }
  if (attached != PROC_HEARTBEAT_OK) {
    *reason = "cannot attach the heartbeat table: " +
              (attached > 0 ? error_text(attached) : std::string(get_heartbeat_errmsg(attached)));
    return kExitLocked;
  }
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  *count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
  proc_heartbeat_deinit(false);
  if (*count == PROC_HEARTBEAT_E_TIMEOUT) {
    *reason = "the heartbeat table's lock could not be taken within 100 ms";
    return kExitLocked;
  }
  if (*count < 0) {
    *reason = std::string("cannot read the heartbeat table: ") + get_heartbeat_errmsg(*count);
    return kExitLocked;
  }
  return kExitOk;
}

// Copies the table and the side segment while holding the table's lock for
// at most timeout seconds. False, with *reason, when the lock could not be
// had or the table could not be mapped.
bool copy_under_lock(double timeout, Copy<proc_heartbeat_segment_t> *table, Copy<proc_heartbeat_side_t> *side,
                     std::string *reason) {
  const uint32_t timeout_ms = (uint32_t)(timeout * 1000 + 0.5);
  LockHandle lock;
  int result = lock.open();
  if (result == 0) result = lock.take(timeout_ms);
  if (result == ETIMEDOUT) {
    *reason = "the heartbeat table's lock could not be taken within " + std::to_string(timeout_ms) + " ms";
    return false;
  }
  if (result != 0) {
    *reason = "cannot open the heartbeat table's lock: " + error_text(result);
    return false;
  }
  copy_segment(PROC_HEARTBEAT_SHM_NAME, table);
  copy_segment(PROC_HEARTBEAT_SIDE_NAME, side);
  if (!table->present) *reason = "cannot read the heartbeat table: " + error_text(table->error);
  return table->present;
}

// Judges one process entry; identity is the side segment's record of who
// registered it, or null when none is known.
EntryState judge(const proc_heartbeat_info_t &entry, int64_t age_ms, int64_t max_age_ms,
                 const tarn_process_identity_t *identity) {
  tarn_process_identity_t now;
  const int looked = tarn_process_get_identity(entry.pid, &now);
  if (looked == ESRCH || tarn_process_is_exist(entry.pid) == 0) return EntryState::kDead;
  if (identity != nullptr && looked == 0 && tarn_process_identity_same(&now, identity) == 0) {
    return EntryState::kReused;
  }
  if (age_ms >= max_age_ms) return EntryState::kTimedOut;
  if (age_ms > 2 * 1000 * (int64_t)entry.interval) return EntryState::kLate;
  return EntryState::kOk;
}

// The findings about the copied table.
void check_integrity(const proc_heartbeat_segment_t &table, const Copy<proc_heartbeat_side_t> &side,
                     int32_t library, TableView *view) {
  uint32_t slots = 0;
  uint32_t processes = 0;
  std::vector<uint32_t> watchdogs;
  for (uint32_t slot = 0; slot < PROC_HEARTBEAT_MAX_PROCS; ++slot) {
    const proc_heartbeat_info_t &entry = table.entries[slot];
    if (!occupied(entry)) continue;
    ++slots;
    if (entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) {
      watchdogs.push_back(slot);
    } else {
      ++processes;
    }
  }
  auto add = [view](const char *name, bool ok, const std::string &detail) {
    view->integrity.push_back(IntegrityCheck{name, ok, detail});
  };
  add("magic", table.magic == PROC_HEARTBEAT_MAGIC,
      table.magic == PROC_HEARTBEAT_MAGIC
          ? std::to_string(table.magic)
          : std::to_string(table.magic) + ", not " + std::to_string(PROC_HEARTBEAT_MAGIC) +
                ": the table was overwritten or never cleared by the service");
  add("proc_num", table.proc_num >= 0 && (uint32_t)table.proc_num == slots,
      std::to_string(table.proc_num) + ", " + std::to_string(slots) + " slots occupied");
  std::string slots_text;
  for (const uint32_t slot : watchdogs) slots_text += (slots_text.empty() ? "slot " : ", slot ") + std::to_string(slot);
  add("watchdog", watchdogs.size() <= 1,
      watchdogs.empty() ? "no watchdog slot" : watchdogs.size() == 1 ? slots_text : "several watchdog slots: " + slots_text);
  add("library", (uint32_t)library == processes,
      "the library lists " + std::to_string(library) + " of " + std::to_string(processes) + " process entries");
  if (!side.present) {
    add("identities", false, "no side segment " PROC_HEARTBEAT_SIDE_NAME ": " + error_text(side.error));
  } else if (side.data.magic != PROC_HEARTBEAT_SIDE_MAGIC) {
    add("identities", false, "the side segment's magic is " + std::to_string(side.data.magic));
  } else {
    add("journal", side.data.journal.active == 0,
        side.data.journal.active == 0 ? "no change left half-made"
                                      : "slot " + std::to_string(side.data.journal.slot) +
                                            " was left half-changed by a process that died");
  }
}

}  // namespace

// The process's name as the kernel keeps it, "-" when it cannot be read. A
// name may hold any byte but NUL, a line end included: only the line end
// that the kernel adds is dropped.
std::string process_name(int32_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm", std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text.empty() ? "-" : text;
}

const char *state_text(EntryState state) {
  switch (state) {
    case EntryState::kOk: return "ok";
    case EntryState::kLate: return "late";
    case EntryState::kTimedOut: return "timed-out";
    case EntryState::kDead: return "dead";
    case EntryState::kReused: return "reused";
  }
  return "?";
}

const char *type_name(uint32_t type) {
  if (type == PROC_HEARTBEAT_TYPE_SERVICE) return "service";
  if (type == PROC_HEARTBEAT_TYPE_WATCHDOG) return "watchdog";
  // Bulk sync writes whatever type it is given.
  return type < PROC_HEARTBEAT_TYPE_WATCHDOG ? "worker" : "invalid";
}

bool TableView::integrity_ok() const {
  for (const IntegrityCheck &check : integrity) {
    if (!check.ok) return false;
  }
  return true;
}

bool TableView::has_service() const {
  for (const EntryView &entry : entries) {
    if (entry.type == PROC_HEARTBEAT_TYPE_SERVICE) return true;
  }
  return false;
}

size_t TableView::not_ok() const {
  size_t count = 0;
  for (const EntryView &entry : entries) count += entry.state != EntryState::kOk;
  return count;
}

double table_lock_timeout_seconds(const Invocation &inv) {
  return inv.timeout_seconds > 0 ? inv.timeout_seconds : 0.1;
}

int read_table_view(const Invocation &inv, int64_t max_age_ms, TableView *view, std::string *reason) {
  const int code = library_count(&view->library_count, reason);
  if (code != kExitOk) return code;

  std::unique_ptr<Copy<proc_heartbeat_segment_t>> table(new Copy<proc_heartbeat_segment_t>());
  std::unique_ptr<Copy<proc_heartbeat_side_t>> side(new Copy<proc_heartbeat_side_t>());
  if (!copy_under_lock(table_lock_timeout_seconds(inv), table.get(), side.get(), reason)) return kExitLocked;
  check_integrity(table->data, *side, view->library_count, view);

  const bool identities = side->present && side->data.magic == PROC_HEARTBEAT_SIDE_MAGIC;
  const uint64_t now = tarn_time_get_tick_cout();
  for (uint32_t slot = 0; slot < PROC_HEARTBEAT_MAX_PROCS; ++slot) {
    const proc_heartbeat_info_t &entry = table->data.entries[slot];
    if (!occupied(entry)) continue;
    const int64_t age_ms = (int64_t)(now - entry.tick);
    if (entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) {
      if (view->watchdog.present) continue;
      view->watchdog = WatchdogView{true, slot, entry.pid, entry.interval, age_ms,
                                    age_ms > 2 * 1000 * (int64_t)entry.interval};
      continue;
    }
    const tarn_process_identity_t *identity =
        identities && side->data.identity[slot].pid == entry.pid ? &side->data.identity[slot] : nullptr;
    view->entries.push_back(EntryView{slot, entry.pid, entry.ptype, entry.interval, age_ms,
                                      process_name(entry.pid), executable_of(entry.pid),
                                      identity != nullptr, judge(entry, age_ms, max_age_ms, identity)});
  }
  return kExitOk;
}

}  // namespace tarnctl
