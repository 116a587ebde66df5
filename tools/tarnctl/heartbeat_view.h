// heartbeat_view.h -- the heartbeat table as the operator sees it: a copy
// read through a read-only mapping under the table's lock, checked for
// damage, with every entry judged (ok, late, timed-out, dead, reused).
// Shared by status, doctor and metrics.
#ifndef TARNCTL_HEARTBEAT_VIEW_H
#define TARNCTL_HEARTBEAT_VIEW_H

#include <stdint.h>

#include <string>
#include <vector>

#include "tarnctl.h"

namespace tarnctl {

// One finding about the table as a whole: "magic", "proc_num", "watchdog",
// "library", "journal" or "identities", whether it is sound, and what was
// found, in words.
struct IntegrityCheck {
  std::string name;
  bool ok;
  std::string detail;
};

enum class EntryState { kOk, kLate, kTimedOut, kDead, kReused };
const char *state_text(EntryState state);

// One occupied process slot (pid above 0).
struct EntryView {
  uint32_t slot;
  int32_t pid;
  uint32_t type;
  uint32_t interval_s;
  int64_t age_ms;
  std::string name;        // /proc/PID/comm, "-" when unknown
  std::string executable;  // /proc/PID/exe, "-" when unknown
  bool identity_known;     // the side segment recorded who the process was
  EntryState state;
};

// The watchdog's slot (type 6), when there is one.
struct WatchdogView {
  bool present = false;
  uint32_t slot = 0;
  int32_t pid = 0;
  uint32_t interval_s = 0;
  int64_t age_ms = 0;
  bool late = false;  // no beat for more than twice its interval
};

struct TableView {
  std::vector<IntegrityCheck> integrity;
  std::vector<EntryView> entries;
  WatchdogView watchdog;
  int32_t library_count = 0;  // entries that get_all_proc_heartbeats returned

  bool integrity_ok() const;
  bool has_service() const;
  size_t not_ok() const;  // entries whose state is not ok
  // Every entry ok, a service among them, and the table sound.
  bool healthy() const { return integrity_ok() && has_service() && not_ok() == 0 && !watchdog.late; }
};

// The name of process pid as the kernel keeps it (/proc/PID/comm, which
// may hold any byte but NUL), "-" when it cannot be read.
std::string process_name(int32_t pid);

// "service", "watchdog", "worker" (types 1 to 5) or "invalid" (above 6,
// which only bulk sync writes).
const char *type_name(uint32_t type);

// How long the heartbeat table's lock is waited for, in seconds: --timeout
// when given, else 0.1, as long as the library's own operations wait.
double table_lock_timeout_seconds(const Invocation &inv);

// Reads the table through the library and through its own read-only
// mapping (under the lock, waiting table_lock_timeout_seconds(inv)) and judges
// each entry against max_age_ms. Returns kExitOk, or kExitLocked with the
// reason in *reason (nothing is printed) when there is no table or the lock
// could not be had.
int read_table_view(const Invocation &inv, int64_t max_age_ms, TableView *view, std::string *reason);

}  // namespace tarnctl

#endif
