// The heartbeat table's invariants, checked on the real segment from
// outside the library: a read-only mapping of
// /dev/shm/proc_heartbeat_shm.name, and the owner word of its global lock.
//
// What every writer of the table keeps true between two of its operations
// (a slot is occupied when its pid is above 0 or its type is 6):
//   - magic is 0 (never cleared by the service) or 12321;
//   - proc_num is the number of occupied slots (so 0 to 64);
//   - a free slot is all zero bytes;
//   - an occupied slot holds a pid above 0, or is the watchdog's entry
//     (pid -1, type 6); there is at most one watchdog entry;
//   - an occupied slot that is not the service's (type 0) names its own
//     slot in idx (a service taking over a slot stores the idx it was given);
//   - no pid above 0 is in two slots.
// Types and intervals are not checked: registration refuses bad ones, but
// bulk sync stores its records as the caller gave them.
//
// The file needs the table layout from tarn_heartbeat_internal.h, so a test
// program that compiles it is built with the library's internal headers.
#ifndef TARN_TEST_HEARTBEAT_INVARIANT_H
#define TARN_TEST_HEARTBEAT_INVARIANT_H

#include <sys/types.h>

#include <string>

#include "tarn_heartbeat_internal.h"

namespace tarn_test {

// Where the table's segment and its global lock live.
constexpr char kHeartbeatSegmentPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME;
constexpr char kHeartbeatLockPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME ".glock";
constexpr char kHeartbeatSidePath[] = "/dev/shm/" PROC_HEARTBEAT_SIDE_NAME;

// How to read the segment.
enum class TableRead {
  kAsItIs,     // without the lock: for a table whose writers are all stopped or dead
  kUnderLock,  // holding the table's lock, so that no writer is half-way
};

// Copies the segment into *table. Returns "" on success, otherwise why it
// could not (no segment, too short, lock not had within 1000 ms).
std::string read_heartbeat_table(proc_heartbeat_segment_t *table, TableRead how);

// Every invariant that table breaks, one line each; "" when it breaks none.
std::string heartbeat_violations(const proc_heartbeat_segment_t &table);

// Reads the segment as asked and checks it; a segment that cannot be read
// is a violation too.
std::string heartbeat_violations(TableRead how);

// The number of occupied slots.
int heartbeat_occupied(const proc_heartbeat_segment_t &table);

// A registration record for pid with type ptype and an interval of 10
// seconds; its idx and tick are 0.
proc_heartbeat_info_t make_info(int32_t pid, uint32_t ptype);

// The pid that holds the table's lock, as the holder's liveness slot
// records it: 0 when the lock is free, -1 when the lock's segment cannot be
// read.
pid_t heartbeat_lock_holder();

}  // namespace tarn_test

#endif
