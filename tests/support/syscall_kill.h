// Kills at system calls, and what a power cut could leave on the disk.
//
// A child runs one operation while this process traces its system calls
// (PTRACE_SYSCALL). Files change only inside system calls, so a child killed
// at the entry of its n-th system call leaves the files exactly as any kill
// between its (n-1)-th and n-th call would: killing once at each system
// call tries every state in which a kill can leave the files.
//
// The same trace also records the file operations (open, write, fsync,
// rename, unlink, close), with the bytes written, so that a test can replay
// them on a model of a file system that loses what was not synced when the
// power goes (power_cut_images).
//
// x86-64 only (the registers are read by name); elsewhere, and under a
// user-mode emulator that offers no ptrace, syscall_kill_unavailable says
// why. Nothing here calls the project's libraries.
#ifndef TARN_TEST_SYSCALL_KILL_H
#define TARN_TEST_SYSCALL_KILL_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn_test {

// One file operation of the traced child, as the kernel carried it out.
struct FileEvent {
  enum Kind { kOpen, kWrite, kFsync, kRename, kUnlink, kClose, kTruncate } kind;
  int fd = -1;         // kOpen: the new descriptor; kWrite, kFsync, kClose, kTruncate: the one used
  std::string path;    // kOpen, kUnlink: the path; kRename: the old path
  std::string target;  // kRename: the new path
  std::string data;    // kWrite: the bytes written
  bool truncate = false;  // kOpen: O_TRUNC; kTruncate: always (to length 0 only)
  long syscall = 0;       // the number of the system call (1 = first) that made it
};

struct SyscallRun {
  std::string error;   // "" when the run went as asked
  long syscalls = 0;   // system calls entered
  bool killed = false;
  int status = -1;     // reap()'s answer
  std::vector<FileEvent> events;  // when asked for
};

// "" when this program can trace a child's system calls; otherwise why not.
std::string syscall_kill_unavailable();

// Runs op in a fresh traced child; with kill_at > 0 it is killed with
// SIGKILL at the entry of its kill_at-th system call (which then never
// runs), otherwise it runs to its end. With record, the file operations of
// the run come back in events.
SyscallRun run_syscall_killed(const std::function<int()> &op, long kill_at, bool record = false);

// What the disk could hold at each moment of a recorded run, were the power
// cut then: for each cut point (before each event, and inside each write at
// every 512-byte block), each way the named files could come back. A file's
// data reaches the disk only through fsync; until then it may come back as
// it was when last synced, cut at any block of what was written, or at its
// new length but holding NUL bytes. A name (rename, unlink, a new file)
// reaches the disk only through an fsync of its directory; until then it
// may come back as before or after. `initial` gives the content of the
// named files before the run (absent: no file). *placed receives, for each
// of the names, every content that a rename put there whole (as it stood
// when it was renamed): the versions a save meant to leave.
using DiskImage = std::map<std::string, std::string>;  // path -> content; absent: no file
std::vector<DiskImage> power_cut_images(const std::vector<FileEvent> &events,
                                        const DiskImage &initial, const std::set<std::string> &names,
                                        std::map<std::string, std::set<std::string>> *placed);

}  // namespace tarn_test

#endif
