// Injected failures of the platform calls that the libraries make, by
// interposition: a test program that links fault_calls.cpp defines the libc
// functions below (and the global operator new) itself, with default
// visibility, so that the calls made by libtarnbase.so and by the library
// objects linked into the program reach these definitions first. Each one
// passes the call on to the next definition (libc's, or the sanitizer's in
// front of it) unless it is the call that a test armed to fail: that one
// fails as the operation does when the system refuses it (-1, null or
// MAP_FAILED, with errno set; a read also sets the stream's error flag).
//
// Calls are counted only inside a window that the test opens at a chosen
// point (start_counting) and closes before it checks the outcome, so the
// test's own calls outside it never count. Numbering starts at 0 with the
// first call of each kind inside the window.
//
//   kOpen       open, open64, openat, fopen, fopen64
//   kRead       read, fgets
//   kWrite      write
//   kFsync      fsync
//   kRename     rename, link (the placing of a file under its final name)
//   kMmap       mmap of a file (anonymous mappings are not counted)
//   kShmOpen    shm_open
//   kFtruncate  ftruncate (the sizing of a shared segment)
//   kLock       flock
//   kAlloc      operator new (all forms) called from the code of
//               libtarnbase.so or libqiv_ejs.so, as their C++ objects (ini
//               objects, strings) allocate; the log capture of fakes.h is
//               never counted. The
//               library's own allocations are failed through fakes.h
//               (fail_allocation_after).
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_FAULT_CALLS_H
#define TARN_TEST_FAULT_CALLS_H

#include <optional>
#include <string>
#include <vector>

namespace tarn_test {

enum class Call { kOpen, kRead, kWrite, kFsync, kRename, kMmap, kShmOpen, kFtruncate, kLock, kAlloc };

// Every kind, in the order above.
const std::vector<Call> &all_calls();
// "open", "read", "write", "fsync", "rename", "mmap", "shm_open",
// "ftruncate", "lock", "alloc".
const char *call_name(Call call);

// The failure that happened in the window.
struct FailedCall {
  Call call;
  unsigned index;
  int error;
  std::string target;  // the path, or the path of the descriptor; "" for an allocation
};

// Opens a window: restarts every count at 0 and disarms.
void start_counting();
// Inside the window, makes call number index of that kind fail with error,
// once.
void fail_call(Call call, unsigned index, int error);
// Closes the window: nothing is counted or failed until the next
// start_counting. The counts and the failure stay readable.
void stop_counting();

unsigned counted(Call call);
// The target of each counted call of that kind, in order.
std::vector<std::string> counted_targets(Call call);
std::optional<FailedCall> failed_call();

}  // namespace tarn_test

#endif  // TARN_TEST_FAULT_CALLS_H
