// What the base library reads from /proc/<pid>/stat: whether the process
// has exited, and its start time, which tells a live process from a later
// one that was given the same pid.
#ifndef TARNBASE_PROC_STAT_H
#define TARNBASE_PROC_STAT_H

#include <stdint.h>

namespace tarnbase {

struct ProcStat {
  char state;           // R, S, D, Z, X...
  uint64_t start_time;  // clock ticks after boot

  bool exited() const { return state == 'Z' || state == 'X' || state == 'x'; }
};

// Reads the stat line of pid. Returns false when there is no such process.
bool read_proc_stat(int pid, ProcStat *stat);

}  // namespace tarnbase

#endif
