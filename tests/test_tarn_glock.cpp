// The base library's named global lock and shared-memory segments, through
// libtarnbase.so, with real processes: forked children contend for locks and
// segments, holders are killed, and a 32-bit and a 64-bit heartbeat peer
// share the heartbeat table and its lock.
//
// The test program runs in its own sandbox, so /dev/shm starts out empty.
// Each test uses names of its own, so the tests also pass when they run one
// after another in one process.

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_shm.h>

#include "child_process.h"
#include "files.h"
#include "interpose.h"
#include "local_user.h"
#include "shm_objects.h"

// ---------------------------------------------------------------------------
// A squatter that puts a foreign object back at a name each time the base
// library removes it: shm_unlink of the armed name is passed through, then
// the object is planted again. It is exported, so that libtarnbase.so's own
// calls reach it.

namespace {

std::string g_squatted_name;  // "/<key>", or empty when disarmed
int g_squatter_unlinks = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int shm_unlink(const char *name) {
  static const auto real = tarn_test::next_definition<int (*)(const char *)>("shm_unlink");
  const int result = real(name);
  if (!g_squatted_name.empty() && g_squatted_name == name) {
    ++g_squatter_unlinks;
    tarn_test::plant_object("/dev/shm" + g_squatted_name, "", 65534, 65534, 0666);
  }
  return result;
}

// A counter of the futex system calls that libtarnbase.so makes through
// syscall(), which this definition stands in front of.

namespace {

int g_futex_calls = 0;

bool is_futex(long number) {
#ifdef SYS_futex_time64
  if (number == SYS_futex_time64) return true;
#endif
#ifdef SYS_futex
  if (number == SYS_futex) return true;
#endif
  return false;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) {
  static const auto real = tarn_test::next_definition<long (*)(long, ...)>("syscall");
  // Every system call takes at most six word-sized arguments; reading six
  // is what the C library's own syscall() does.
  va_list list;
  va_start(list, number);
  long args[6];
  for (long &arg : args) arg = va_arg(list, long);
  va_end(list);
  if (is_futex(number)) __atomic_add_fetch(&g_futex_calls, 1, __ATOMIC_SEQ_CST);
  return real(number, args[0], args[1], args[2], args[3], args[4], args[5]);
}

namespace {

using tarn_test::Barrier;
using tarn_test::fork_child;
using tarn_test::kill_and_reap;
using tarn_test::monotonic_ms;
using tarn_test::Peer;
using tarn_test::Pipe;
using tarn_test::reap;

// ---------------------------------------------------------------------------
// Helpers

std::string unique_name(const std::string &tag) {
  static int counter = 0;
  return "glock_test_" + tag + "_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

std::string shm_path(const std::string &key) { return "/dev/shm/" + key; }

bool shm_exists(const std::string &key) {
  struct stat st;
  return stat(shm_path(key).c_str(), &st) == 0;
}

off_t shm_size(const std::string &key) {
  struct stat st;
  if (stat(shm_path(key).c_str(), &st) != 0) return -1;
  return st.st_size;
}

// Makes this process's mounts private to a mount namespace of its own, so
// that what it mounts next is seen by nobody else. False on failure.
bool enter_private_mount_namespace() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Mounts, in a private mount namespace, the /proc of the pid namespace that
// the calling process belongs to, as a container has it. False on failure.
bool mount_own_proc() {
  return enter_private_mount_namespace() &&
         mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
}

// A child process that opens the lock name and takes it. It then waits for
// the parent: release() makes it give the lock back and exit; kill()
// ends it with SIGKILL while it still holds the lock. A holder made with
// kNewPidNamespace is the first process (pid 1) of a pid namespace of its
// own with its own /proc, below an intermediate child; only release() ends
// it.
class Holder {
 public:
  enum Where { kSamePidNamespace, kNewPidNamespace };

  explicit Holder(const std::string &name, Where where = kSamePidNamespace) {
    pid_ = fork_child([&]() {
      to_parent_.close_read();
      from_parent_.close_write();
      if (where == kSamePidNamespace) return hold(name);
      if (unshare(CLONE_NEWPID) != 0) return 3;
      const pid_t inner = fork_child([&]() { return mount_own_proc() ? hold(name) : 5; });
      return inner > 0 ? reap(inner) : 4;
    });
    to_parent_.close_write();
    from_parent_.close_read();
    if (pid_ < 0 || !to_parent_.read_int(&acquired_)) acquired_ = -1;
  }
  ~Holder() {
    if (pid_ > 0) kill();
  }
  Holder(const Holder &) = delete;
  Holder &operator=(const Holder &) = delete;

  // The child's result of taking the lock (0: it holds it).
  int acquired() const { return acquired_; }
  pid_t pid() const { return pid_; }

  // The child's result of releasing; -1 when it could not be asked.
  int release() {
    int result = -1;
    if (pid_ <= 0 || !from_parent_.write_int(1) || !to_parent_.read_int(&result)) result = -1;
    if (pid_ > 0) reap(pid_);
    pid_ = -1;
    return result;
  }

  void kill() {
    if (pid_ > 0) kill_and_reap(pid_);
    pid_ = -1;
  }

  // Kills the child and waits until it has died, but leaves it unreaped (a
  // zombie) until kill() or the destructor.
  void kill_leaving_zombie() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
  }

 private:
  // The holding child's body.
  int hold(const std::string &name) {
    tarn_glock_t *lock = nullptr;
    int ret = tarn_glock_init(name.c_str(), &lock);
    if (ret == 0) ret = tarn_glock_acquire_timeout(lock, 5000);
    to_parent_.write_int(ret);
    if (ret != 0) return 1;
    int command = 0;
    if (!from_parent_.read_int(&command, 60000)) return 2;
    to_parent_.write_int(tarn_glock_release(lock));
    tarn_glock_destroy(lock);
    return 0;
  }

  Pipe to_parent_;
  Pipe from_parent_;
  pid_t pid_ = -1;
  int acquired_ = -1;
};

// Reads one status int from each of count children; missing ones are -1.
std::vector<int> gather(Pipe &from_children, int count) {
  std::vector<int> results;
  for (int i = 0; i < count; ++i) {
    int value = -1;
    if (!from_children.read_int(&value, 30000)) value = -1;
    results.push_back(value);
  }
  return results;
}

// Checks that lock, which holder holds, stays busy for wait_ms, and is free
// once the holder released it.
void expect_held_until_released(Holder &holder, tarn_glock_t *lock, uint32_t wait_ms) {
  EXPECT_EQ(tarn_glock_acquire_timeout(lock, wait_ms), ETIMEDOUT);
  EXPECT_EQ(holder.release(), 0);
  EXPECT_EQ(tarn_glock_acquire_timeout(lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(lock), 0);
}

// A lock handle that is destroyed at the end of the scope.
struct LockHandle {
  tarn_glock_t *lock = nullptr;
  ~LockHandle() {
    if (lock != nullptr) tarn_glock_destroy(lock);
  }
};

// ---------------------------------------------------------------------------
// Global lock: arguments and results

TEST(GlobalLock, InitRejectsNullEmptyLongAndSlashNames) {
  tarn_glock_t *lock = nullptr;
  EXPECT_EQ(tarn_glock_init(nullptr, &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init("", &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init("with/slash", &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init("/leading", &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init(std::string(195, 'n').c_str(), &lock), EINVAL);
}

TEST(GlobalLock, InitAcceptsANameOf194Bytes) {
  const std::string name(194, 'L');
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_NE(h.lock, nullptr);
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, OperationsOnANullHandleReturnEinval) {
  EXPECT_EQ(tarn_glock_acquire_timeout(nullptr, 0), EINVAL);
  EXPECT_EQ(tarn_glock_acquire_timeout(nullptr, 100), EINVAL);
  EXPECT_EQ(tarn_glock_release(nullptr), EINVAL);
  EXPECT_EQ(tarn_glock_destroy(nullptr), EINVAL);
}

TEST(GlobalLock, AcquireReleaseAndDestroySucceedOnAFreeLock) {
  const std::string name = unique_name("basic");
  tarn_glock_t *lock = nullptr;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &lock), 0);
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(tarn_glock_acquire_timeout(lock, 100), 0);
  EXPECT_EQ(tarn_glock_release(lock), 0);
  EXPECT_EQ(tarn_glock_acquire_timeout(lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(lock), 0);
  EXPECT_EQ(tarn_glock_destroy(lock), 0);
}

TEST(GlobalLock, LockStateLivesInTheSegmentNamedAfterTheLock) {
  const std::string name = unique_name("segment");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  EXPECT_TRUE(shm_exists(name + ".glock"));
  EXPECT_EQ(shm_size(name + ".glock"), 8256);
}

TEST(GlobalLock, ReleasingAFreeLockIsEpermAndTheSecondReleaseToo) {
  const std::string name = unique_name("eperm_free");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), EPERM);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), EPERM);
  // Still usable.
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, ReleaseByAProcessThatDoesNotHoldTheLockIsEpermAndChangesNothing) {
  const std::string name = unique_name("eperm_other");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), EPERM);
  // The holder still has it.
  expect_held_until_released(holder, h.lock, 0);
}

TEST(GlobalLock, AcquireTimesOutAfterTheTimeoutOnTheMonotonicClock) {
  const std::string name = unique_name("timeout");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  for (uint32_t timeout : {50u, 200u}) {
    const int64_t start = monotonic_ms();
    EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, timeout), ETIMEDOUT);
    const int64_t elapsed = monotonic_ms() - start;
    EXPECT_GE(elapsed, static_cast<int64_t>(timeout));
    EXPECT_LT(elapsed, static_cast<int64_t>(timeout) + 2000);
  }
  EXPECT_EQ(holder.release(), 0);
}

TEST(GlobalLock, ZeroTimeoutTriesOnceAndReturnsAtOnce) {
  const std::string name = unique_name("try_once");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  {
    Holder holder(name);
    ASSERT_EQ(holder.acquired(), 0);
    const int64_t start = monotonic_ms();
    EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), ETIMEDOUT);
    EXPECT_LT(monotonic_ms() - start, 1000);
    EXPECT_EQ(holder.release(), 0);
  }
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, IsNotRecursiveTheHolderWaitsForItsTimeout) {
  const std::string name = unique_name("recursive");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  const int64_t start = monotonic_ms();
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 100), ETIMEDOUT);
  EXPECT_GE(monotonic_ms() - start, 100);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, DestroyingAHandleLeavesTheLockAndItsHolder) {
  const std::string name = unique_name("destroy");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);

  tarn_glock_t *first = nullptr;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &first), 0);
  EXPECT_EQ(tarn_glock_destroy(first), 0);
  EXPECT_TRUE(shm_exists(name + ".glock"));

  LockHandle second;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &second.lock), 0);
  expect_held_until_released(holder, second.lock, 0);
}

// ---------------------------------------------------------------------------
// Global lock: processes

TEST(GlobalLock, ThirtyTwoProcessesOpenANewLockAtOnceAndAllGetTheSameLock) {
  const std::string name = unique_name("race");
  constexpr int kChildren = 32;
  Barrier start, parent_holds, parent_released;
  Pipe results;
  std::vector<pid_t> pids;
  for (int i = 0; i < kChildren; ++i) {
    pids.push_back(fork_child([&]() {
      results.close_read();
      start.wait();
      tarn_glock_t *lock = nullptr;
      int ret = tarn_glock_init(name.c_str(), &lock);
      results.write_int(ret == 0 ? 0 : 100 + ret);
      if (ret != 0) return 1;
      parent_holds.wait();
      // The parent holds the lock now: the same lock must be busy here.
      ret = tarn_glock_acquire_timeout(lock, 0);
      results.write_int(ret == ETIMEDOUT ? 0 : 200 + ret);
      if (ret == 0) tarn_glock_release(lock);
      parent_released.wait();
      ret = tarn_glock_acquire_timeout(lock, 20000);
      if (ret != 0) return 3;
      ret = tarn_glock_release(lock);
      if (ret != 0) return 4;
      return tarn_glock_destroy(lock) == 0 ? 0 : 5;
    }));
    ASSERT_GT(pids.back(), 0);
  }
  results.close_write();

  start.open();
  const std::vector<int> inited = gather(results, kChildren);
  EXPECT_EQ(inited, std::vector<int>(kChildren, 0)) << "tarn_glock_init results (100 + errno)";

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  parent_holds.open();
  const std::vector<int> tried = gather(results, kChildren);
  EXPECT_EQ(tried, std::vector<int>(kChildren, 0))
      << "children's try-once while the parent held the lock (200 + result)";
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
  parent_released.open();

  for (pid_t pid : pids) EXPECT_EQ(reap(pid), 0) << "child " << pid;
}

TEST(GlobalLock, HolderKilledWithSigkillIsRecoveredByTheNextAcquire) {
  const std::string name = unique_name("killed");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), ETIMEDOUT);
  holder.kill();

  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 100), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
  // And it works normally afterwards.
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, HolderThatDiedButIsNotYetReapedIsRecovered) {
  const std::string name = unique_name("zombie");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);
  holder.kill_leaving_zombie();

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 100), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, HolderKilledWhileAnotherWaitsPassesTheLockToTheWaiter) {
  const std::string name = unique_name("killed_waiting");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);

  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  std::thread killer([&holder]() {
    struct timespec pause = {0, 200 * 1000 * 1000};
    nanosleep(&pause, nullptr);
    holder.kill();
  });
  const int64_t start = monotonic_ms();
  const int ret = tarn_glock_acquire_timeout(h.lock, 5000);
  const int64_t elapsed = monotonic_ms() - start;
  killer.join();
  EXPECT_EQ(ret, 0);
  EXPECT_LT(elapsed, 5000);
  if (ret == 0) {
    EXPECT_EQ(tarn_glock_release(h.lock), 0);
  }
}

TEST(GlobalLock, ExcludesConcurrentProcessesSoSharedCountsAreExact) {
  const std::string name = unique_name("mutex");
  const std::string key = unique_name("mutex_seg");
  constexpr int kProcesses = 6;
  constexpr int kIncrements = 3000;

  struct Shared {
    uint64_t counter;
    uint32_t inside;
    uint32_t overlaps;
  };
  tarn_shm_t *shm = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &shm), 0);
  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(shm, 0, &base), 0);
  Shared *shared = static_cast<Shared *>(base);

  Barrier start;
  std::vector<pid_t> pids;
  for (int i = 0; i < kProcesses; ++i) {
    pids.push_back(fork_child([&]() {
      tarn_glock_t *lock = nullptr;
      if (tarn_glock_init(name.c_str(), &lock) != 0) return 1;
      start.wait();
      for (int n = 0; n < kIncrements; ++n) {
        if (tarn_glock_acquire_timeout(lock, 20000) != 0) return 2;
        if (__atomic_exchange_n(&shared->inside, 1u, __ATOMIC_SEQ_CST) != 0)
          __atomic_fetch_add(&shared->overlaps, 1u, __ATOMIC_SEQ_CST);
        // A plain read-modify-write, which only the lock keeps whole.
        volatile uint64_t *counter = &shared->counter;
        const uint64_t value = *counter;
        if (n % 97 == 0) sched_yield();
        *counter = value + 1;
        __atomic_store_n(&shared->inside, 0u, __ATOMIC_SEQ_CST);
        if (tarn_glock_release(lock) != 0) return 3;
      }
      return tarn_glock_destroy(lock) == 0 ? 0 : 4;
    }));
    ASSERT_GT(pids.back(), 0);
  }
  start.open();
  for (pid_t pid : pids) EXPECT_EQ(reap(pid), 0) << "child " << pid;

  EXPECT_EQ(shared->counter, static_cast<uint64_t>(kProcesses) * kIncrements);
  EXPECT_EQ(shared->overlaps, 0u);
  EXPECT_EQ(tarn_shm_unmap(shm, base), 0);
  EXPECT_EQ(tarn_shm_destroy(shm), 0);
}

// ---------------------------------------------------------------------------
// Global lock: waiting costs, killed waiters, and the holder's liveness

// The CPU time this process has used, user and system, in microseconds.
int64_t cpu_us() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (int64_t)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000 +
         usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

// The state letter of /proc/<pid>/stat (R, S, D, Z...), or '?'.
char process_state(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end = stat.rfind(") ");
  return end == std::string::npos || end + 2 >= stat.size() ? '?' : stat[end + 2];
}

TEST(GlobalLock, ATimedOutWaitOf100MsSleepsAndUsesLessThan2MsOfCpu) {
  const std::string name = unique_name("cpu");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  // A first, short wait, so that an emulator has translated the code.
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 10), ETIMEDOUT);
  const int64_t before = cpu_us();
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 100), ETIMEDOUT);
  EXPECT_LT(cpu_us() - before, 2000);
  EXPECT_EQ(holder.release(), 0);
}

TEST(GlobalLock, AThousandWaitersKilledWhileWaitingLeaveUncontendedUseWithoutFutexCalls) {
  const std::string name = unique_name("killed_waiters");
  constexpr int kWaiters = 1000;
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  // Each waiter uses the handle it inherits; it only ever waits.
  std::vector<pid_t> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.push_back(fork_child([&]() { return tarn_glock_acquire_timeout(h.lock, 600000) + 10; }));
    ASSERT_GT(waiters.back(), 0);
  }
  // A waiter is asleep only on the lock: nothing else in it blocks.
  const int64_t give_up = monotonic_ms() + 120000;
  size_t asleep = 0;
  while (asleep < waiters.size() && monotonic_ms() < give_up) {
    const char state = process_state(waiters[asleep]);
    ASSERT_NE(state, 'Z') << "waiter " << asleep << " ended";
    if (state == 'S') {
      ++asleep;
    } else {
      sched_yield();
    }
  }
  ASSERT_EQ(asleep, waiters.size()) << "waiters asleep on the lock";
  for (pid_t pid : waiters) kill(pid, SIGKILL);
  for (pid_t pid : waiters) EXPECT_EQ(reap(pid), tarn_test::killed_by(SIGKILL));

  g_futex_calls = 0;
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
  EXPECT_LE(g_futex_calls, 1) << "the release after the waiters died";
  g_futex_calls = 0;
  int failures = 0;
  for (int i = 0; i < 1000; ++i) {
    failures += tarn_glock_acquire_timeout(h.lock, 0) != 0;
    failures += tarn_glock_release(h.lock) != 0;
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(g_futex_calls, 0) << "futex calls in 1000 uncontended acquire/release cycles";
}

// In a pid namespace of its own with its own /proc, the holder is killed
// and reaped and its pid given at once to a new process; the waiter must
// see the lock's holder dead and take the lock. Each trial's result goes
// to results: 0, the waiter's result, or 100 + a failed step.
int take_lock_of_dead_holder_whose_pid_was_reused(const std::string &name, Pipe &results, int trials) {
  if (!mount_own_proc()) return 100;
  LockHandle h;
  if (tarn_glock_init(name.c_str(), &h.lock) != 0) return 102;
  for (int trial = 0; trial < trials; ++trial) {
    Pipe took;
    const pid_t holder = fork_child([&]() {
      took.write_int(tarn_glock_acquire_timeout(h.lock, 1000));
      for (;;) pause();
      return 0;
    });
    int held = -1;
    if (holder <= 0 || !took.read_int(&held) || held != 0) return 103;
    kill_and_reap(holder);
    std::ofstream last("/proc/sys/kernel/ns_last_pid");
    last << holder - 1;
    last.close();
    const pid_t again = fork_child([]() {
      for (;;) pause();
      return 0;
    });
    int result = again == holder ? tarn_glock_acquire_timeout(h.lock, 500) : 104;
    if (result == 0 && tarn_glock_release(h.lock) != 0) result = 105;
    if (again > 0) kill_and_reap(again);
    results.write_int(result);
  }
  return 0;
}

TEST(GlobalLock, ADeadHoldersLockIsTakenWhenItsPidWentAtOnceToAnotherProcess) {
  const std::string name = unique_name("pid_reused");
  constexpr int kTrials = 50;
  Pipe results;
  const pid_t outer = fork_child([&]() {
    results.close_read();
    if (unshare(CLONE_NEWPID) != 0) return 1;
    const pid_t init = fork_child(
        [&]() { return take_lock_of_dead_holder_whose_pid_was_reused(name, results, kTrials); });
    return init > 0 ? reap(init) : 2;
  });
  ASSERT_GT(outer, 0);
  results.close_write();
  EXPECT_EQ(gather(results, kTrials), std::vector<int>(kTrials, 0))
      << "each trial: the waiter's result, or 100 + a failed step";
  EXPECT_EQ(reap(outer), 0);
}

TEST(GlobalLock, AHolderInAChildPidNamespaceIsAliveForAWaiterOutsideIt) {
  const std::string name = unique_name("pid_namespace");
  Holder holder(name, Holder::kNewPidNamespace);
  ASSERT_EQ(holder.acquired(), 0);
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  expect_held_until_released(holder, h.lock, 100);
}

TEST(GlobalLock, AWaiterWithoutProcWaitsForALiveHolderAndTakesADeadOnesLock) {
  const std::string name = unique_name("no_proc");
  Holder holder(name);
  ASSERT_EQ(holder.acquired(), 0);
  Pipe answers, go;
  const pid_t waiter = fork_child([&]() {
    answers.close_read();
    go.close_write();
    if (!enter_private_mount_namespace() || mount("tmpfs", "/proc", "tmpfs", 0, "size=4k") != 0)
      return 1;
    if (access("/proc/self/stat", F_OK) == 0) return 2;
    LockHandle h;
    if (tarn_glock_init(name.c_str(), &h.lock) != 0) return 3;
    answers.write_int(tarn_glock_acquire_timeout(h.lock, 100));
    int command = 0;
    if (!go.read_int(&command, 30000)) return 4;
    const int taken = tarn_glock_acquire_timeout(h.lock, 1000);
    answers.write_int(taken);
    return taken == 0 ? tarn_glock_release(h.lock) : 0;
  });
  ASSERT_GT(waiter, 0);
  answers.close_write();
  go.close_read();
  int result = -1;
  EXPECT_TRUE(answers.read_int(&result));
  EXPECT_EQ(result, ETIMEDOUT) << "against the live holder";
  holder.kill();
  go.write_int(1);
  result = -1;
  EXPECT_TRUE(answers.read_int(&result));
  EXPECT_EQ(result, 0) << "after the holder was killed";
  EXPECT_EQ(reap(waiter), 0);
}

// ---------------------------------------------------------------------------
// Global lock: only the agent's own lock segment is used

TEST(GlobalLock, InitExRejectsAnUnknownFlagAndOpenNeedsAnExistingLock) {
  const std::string name = unique_name("flags");
  tarn_glock_t *lock = nullptr;
  EXPECT_EQ(tarn_glock_init_ex(name.c_str(), 3, &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init_ex(name.c_str(), -1, &lock), EINVAL);
  EXPECT_EQ(tarn_glock_init_ex(name.c_str(), TARN_SHM_OPEN, &lock), ENOENT);
  EXPECT_EQ(lock, nullptr);
  EXPECT_FALSE(shm_exists(name + ".glock"));
  LockHandle created;
  ASSERT_EQ(tarn_glock_init_ex(name.c_str(), TARN_SHM_OPEN_OR_CREATE, &created.lock), 0);
  EXPECT_EQ(tarn_test::describe_object(shm_path(name + ".glock")), "regular 0:0 0660 8256");
  LockHandle opened;
  EXPECT_EQ(tarn_glock_init_ex(name.c_str(), TARN_SHM_OPEN, &opened.lock), 0);
}

TEST(GlobalLock, AForeignLockHeldForEverIsRefusedByInitAndReplacedByInitExWithCreate) {
  const std::string name = unique_name("foreign");
  const std::string path = shm_path(name + ".glock");
  // An owner word that no claim made: held, as far as the planted object
  // goes.
  std::string state(64, '\0');
  const uint64_t holder = ~(uint64_t)0;
  memcpy(&state[0], &holder, sizeof(holder));
  ASSERT_TRUE(tarn_test::plant_object(path, state, 65534, 65534, 0666));

  tarn_glock_t *lock = nullptr;
  EXPECT_EQ(tarn_glock_init(name.c_str(), &lock), EPERM);
  EXPECT_EQ(tarn_glock_init_ex(name.c_str(), TARN_SHM_OPEN, &lock), EPERM);
  EXPECT_EQ(lock, nullptr);
  EXPECT_EQ(tarn_test::describe_object(path), "regular 65534:65534 0666 64");

  LockHandle h;
  ASSERT_EQ(tarn_glock_init_ex(name.c_str(), TARN_SHM_CREATE, &h.lock), 0);
  EXPECT_EQ(tarn_test::describe_object(path), "regular 0:0 0660 8256");
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

TEST(GlobalLock, AnotherUserCannotOpenTheLockToHoldIt) {
  const std::string name = unique_name("private");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  EXPECT_EQ(tarn_test::as_local_user([&] {
              tarn_glock_t *lock = nullptr;
              return tarn_glock_init(name.c_str(), &lock);
            }),
            EACCES);
  EXPECT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

// ---------------------------------------------------------------------------
// Shared memory

TEST(SharedMemory, InitRejectsBadArgumentsAndLeavesTheHandle) {
  int sentinel_storage = 0;
  tarn_shm_t *const sentinel = reinterpret_cast<tarn_shm_t *>(&sentinel_storage);
  tarn_shm_t *h = sentinel;
  EXPECT_EQ(tarn_shm_init(nullptr, TARN_SHM_CREATE, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("bad_args", TARN_SHM_CREATE, 64, nullptr), EINVAL);
  EXPECT_EQ(tarn_shm_init("bad_args", TARN_SHM_CREATE, 0, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("", TARN_SHM_CREATE, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("bad/args", TARN_SHM_CREATE, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("/bad_args", TARN_SHM_CREATE, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init(std::string(201, 'k').c_str(), TARN_SHM_CREATE, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("bad_args", 3, 64, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init("bad_args", -1, 64, &h), EINVAL);
  EXPECT_EQ(h, sentinel);
  EXPECT_FALSE(shm_exists("bad_args"));
}

TEST(SharedMemory, InitAcceptsAKeyOf200Bytes) {
  const std::string key(200, 'K');
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 64, &h), 0);
  EXPECT_TRUE(shm_exists(key));
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, OperationsOnANullHandleReturnEinval) {
  void *base = nullptr;
  int dummy = 0;
  EXPECT_EQ(tarn_shm_map(nullptr, 0, &base), EINVAL);
  EXPECT_EQ(tarn_shm_unmap(nullptr, &dummy), EINVAL);
  EXPECT_EQ(tarn_shm_close(nullptr), EINVAL);
  EXPECT_EQ(tarn_shm_destroy(nullptr), EINVAL);
}

TEST(SharedMemory, MapRejectsAnOffsetThatIsNotPageAlignedOrNotBelowTheSize) {
  const std::string key = unique_name("offset");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 8192, &h), 0);
  void *base = nullptr;
  EXPECT_EQ(tarn_shm_map(h, 1, &base), EINVAL);
  EXPECT_EQ(tarn_shm_map(h, 8192, &base), EINVAL);
  EXPECT_EQ(tarn_shm_map(h, 3 * 4096, &base), EINVAL);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, UnmapWithNothingMappedOrANullAddressIsEinval) {
  const std::string key = unique_name("unmap");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  int dummy = 0;
  EXPECT_EQ(tarn_shm_unmap(h, &dummy), EINVAL);
  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(h, 0, &base), 0);
  EXPECT_EQ(tarn_shm_unmap(h, nullptr), EINVAL);
  EXPECT_EQ(tarn_shm_unmap(h, base), 0);
  EXPECT_EQ(tarn_shm_unmap(h, base), EINVAL);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, OpenOfAMissingSegmentIsEnoent) {
  const std::string key = unique_name("missing");
  int sentinel_storage = 0;
  tarn_shm_t *const sentinel = reinterpret_cast<tarn_shm_t *>(&sentinel_storage);
  tarn_shm_t *h = sentinel;
  errno = 0;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 64, &h), ENOENT);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(h, sentinel);
  EXPECT_FALSE(shm_exists(key));
}

TEST(SharedMemory, OpenOrCreateCreatesAZeroFilledSegmentWithMode0660) {
  const std::string key = unique_name("open_or_create");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 5000, &h), 0);
  ASSERT_NE(h, nullptr);
  ASSERT_TRUE(shm_exists(key));
  EXPECT_GE(shm_size(key), 5000);
  struct stat st;
  ASSERT_EQ(stat(shm_path(key).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);

  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(h, 0, &base), 0);
  ASSERT_NE(base, nullptr);
  const unsigned char *bytes = static_cast<const unsigned char *>(base);
  size_t nonzero = 0;
  for (size_t i = 0; i < 5000; ++i) nonzero += bytes[i] != 0;
  EXPECT_EQ(nonzero, 0u);
  EXPECT_EQ(tarn_shm_unmap(h, base), 0);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, CreateGrowsAnUndersizedSegmentAndKeepsItsContents) {
  const std::string key = unique_name("grow");
  tarn_shm_t *small = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &small), 0);
  void *small_base = nullptr;
  ASSERT_EQ(tarn_shm_map(small, 0, &small_base), 0);
  memcpy(small_base, "kept", 5);

  tarn_shm_t *big = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 3 * 4096, &big), 0);
  EXPECT_GE(shm_size(key), 3 * 4096);
  void *big_base = nullptr;
  ASSERT_EQ(tarn_shm_map(big, 0, &big_base), 0);
  const char *bytes = static_cast<const char *>(big_base);
  EXPECT_STREQ(bytes, "kept");
  size_t nonzero = 0;
  for (size_t i = 4096; i < 3 * 4096; ++i) nonzero += bytes[i] != 0;
  EXPECT_EQ(nonzero, 0u);
  // Both views are the same memory.
  memcpy(big_base, "both", 5);
  EXPECT_STREQ(static_cast<const char *>(small_base), "both");

  EXPECT_EQ(tarn_shm_unmap(big, big_base), 0);
  EXPECT_EQ(tarn_shm_unmap(small, small_base), 0);
  EXPECT_EQ(tarn_shm_close(big), 0);
  EXPECT_EQ(tarn_shm_destroy(small), 0);
}

TEST(SharedMemory, OpenAndOpenOrCreateRefuseAnUndersizedSegmentWithEinval) {
  const std::string key = unique_name("undersized");
  tarn_shm_t *owner = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &owner), 0);
  const off_t size_before = shm_size(key);
  ASSERT_GE(size_before, 4096);
  ASSERT_LT(size_before, 3 * 4096);

  int sentinel_storage = 0;
  tarn_shm_t *const sentinel = reinterpret_cast<tarn_shm_t *>(&sentinel_storage);
  tarn_shm_t *h = sentinel;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 3 * 4096, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 3 * 4096, &h), EINVAL);
  EXPECT_EQ(h, sentinel);
  EXPECT_EQ(shm_size(key), size_before);

  // A size the segment has, or less, is fine.
  tarn_shm_t *same = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &same), 0);
  tarn_shm_t *less = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 100, &less), 0);
  if (same != nullptr) {
    EXPECT_EQ(tarn_shm_close(same), 0);
  }
  if (less != nullptr) {
    EXPECT_EQ(tarn_shm_close(less), 0);
  }
  EXPECT_EQ(tarn_shm_destroy(owner), 0);
}

TEST(SharedMemory, CloseLeavesTheSegmentAndItsContents) {
  const std::string key = unique_name("close");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(h, 0, &base), 0);
  memcpy(base, "still here", 11);
  EXPECT_EQ(tarn_shm_unmap(h, base), 0);
  EXPECT_EQ(tarn_shm_close(h), 0);

  EXPECT_TRUE(shm_exists(key));
  tarn_shm_t *again = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &again), 0);
  void *again_base = nullptr;
  ASSERT_EQ(tarn_shm_map(again, 0, &again_base), 0);
  EXPECT_STREQ(static_cast<const char *>(again_base), "still here");
  EXPECT_EQ(tarn_shm_unmap(again, again_base), 0);
  EXPECT_EQ(tarn_shm_destroy(again), 0);
}

TEST(SharedMemory, DestroyRemovesTheNameButNotExistingMappings) {
  const std::string key = unique_name("destroy");
  tarn_shm_t *first = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &first), 0);
  tarn_shm_t *second = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &second), 0);
  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(first, 0, &base), 0);
  memcpy(base, "old", 4);

  EXPECT_EQ(tarn_shm_destroy(first), 0);
  EXPECT_FALSE(shm_exists(key));
  tarn_shm_t *h = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), ENOENT);

  // The mapping made before stays usable.
  memcpy(base, "mapped", 7);
  EXPECT_STREQ(static_cast<const char *>(base), "mapped");

  // The name is gone already for the second handle, which is released anyway.
  EXPECT_EQ(tarn_shm_destroy(second), ENOENT);

  // A new segment of that name starts out empty.
  tarn_shm_t *fresh = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 4096, &fresh), 0);
  void *fresh_base = nullptr;
  ASSERT_EQ(tarn_shm_map(fresh, 0, &fresh_base), 0);
  EXPECT_EQ(static_cast<const char *>(fresh_base)[0], '\0');
  EXPECT_EQ(tarn_shm_unmap(fresh, fresh_base), 0);
  EXPECT_EQ(tarn_shm_destroy(fresh), 0);
  munmap(base, 4096);
}

TEST(SharedMemory, ThirtyTwoProcessesCreateANewSegmentAtOnceAndAllShareIt) {
  const std::string key = unique_name("race_seg");
  constexpr int kChildren = 32;
  constexpr size_t kSize = 4096;
  Barrier start;
  std::vector<pid_t> pids;
  for (int i = 0; i < kChildren; ++i) {
    pids.push_back(fork_child([&, i]() {
      start.wait();
      const int flag = i % 2 == 0 ? TARN_SHM_OPEN_OR_CREATE : TARN_SHM_CREATE;
      tarn_shm_t *h = nullptr;
      int ret = tarn_shm_init(key.c_str(), flag, kSize, &h);
      if (ret != 0) {
        fprintf(stderr, "child %d: tarn_shm_init(flag %d) = %d\n", i, flag, ret);
        return 1;
      }
      void *base = nullptr;
      if (tarn_shm_map(h, 0, &base) != 0) return 2;
      int32_t *words = static_cast<int32_t *>(base);
      __atomic_fetch_add(&words[0], 1, __ATOMIC_SEQ_CST);
      __atomic_store_n(&words[1 + i], static_cast<int32_t>(getpid()), __ATOMIC_SEQ_CST);
      if (tarn_shm_unmap(h, base) != 0) return 3;
      return tarn_shm_close(h) == 0 ? 0 : 4;
    }));
    ASSERT_GT(pids.back(), 0);
  }
  start.open();
  for (pid_t pid : pids) EXPECT_EQ(reap(pid), 0) << "child " << pid;

  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, kSize, &h), 0);
  EXPECT_GE(shm_size(key), static_cast<off_t>(kSize));
  void *base = nullptr;
  ASSERT_EQ(tarn_shm_map(h, 0, &base), 0);
  const int32_t *words = static_cast<const int32_t *>(base);
  EXPECT_EQ(words[0], kChildren);
  for (int i = 0; i < kChildren; ++i) EXPECT_EQ(words[1 + i], pids[i]) << "child " << i;
  EXPECT_EQ(tarn_shm_unmap(h, base), 0);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

// ---------------------------------------------------------------------------
// Shared memory: only the agent's own objects are used

using tarn_test::describe_object;
using tarn_test::inode_of;
using tarn_test::plant_object;

// Plants /dev/shm/<key> holding "forged" and padded to 8192 bytes, as
// another user (or root, uid 0) would have made it.
void plant_segment(const std::string &key, uid_t uid, mode_t mode) {
  std::string content = "forged";
  content.resize(8192, 'x');
  ASSERT_TRUE(plant_object(shm_path(key), content, uid, uid, mode)) << strerror(errno);
}

// The first bytes of the segment as the calling process maps it.
std::string first_bytes(tarn_shm_t *h, size_t count) {
  void *base = nullptr;
  if (tarn_shm_map(h, 0, &base) != 0) return "<not mapped>";
  std::string bytes(static_cast<const char *>(base), count);
  tarn_shm_unmap(h, base);
  return bytes;
}

TEST(SharedMemory, CreationIsExclusiveSizedAndSharedWith0660DespiteTheUmask) {
  const std::string key = unique_name("exclusive");
  const mode_t old_mask = umask(077);
  tarn_shm_t *h = nullptr;
  const int ret = tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 8192, &h);
  umask(old_mask);
  ASSERT_EQ(ret, 0);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:0 0660 8192");
  // Our own segment is opened again, not replaced, by every flag.
  const ino_t inode = inode_of(shm_path(key));
  for (int flag : {TARN_SHM_OPEN, TARN_SHM_OPEN_OR_CREATE, TARN_SHM_CREATE}) {
    tarn_shm_t *again = nullptr;
    EXPECT_EQ(tarn_shm_init(key.c_str(), flag, 8192, &again), 0) << "flag " << flag;
    if (again != nullptr) {
      EXPECT_EQ(tarn_shm_close(again), 0);
    }
  }
  EXPECT_EQ(inode_of(shm_path(key)), inode);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, AnotherUsersSegmentIsRefusedByTheAttachingFlagsAndReplacedByCreate) {
  const std::string key = unique_name("foreign_owner");
  ASSERT_NO_FATAL_FAILURE(plant_segment(key, 65534, 0600));
  const ino_t planted = inode_of(shm_path(key));
  int sentinel_storage = 0;
  tarn_shm_t *const sentinel = reinterpret_cast<tarn_shm_t *>(&sentinel_storage);
  tarn_shm_t *h = sentinel;
  errno = 0;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), EPERM);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 4096, &h), EPERM);
  EXPECT_EQ(h, sentinel);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 65534:65534 0600 8192");
  EXPECT_EQ(inode_of(shm_path(key)), planted);

  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:0 0660 4096");
  EXPECT_NE(inode_of(shm_path(key)), planted);
  EXPECT_EQ(first_bytes(h, 6), std::string(6, '\0'));
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, ASegmentWritableByOthersIsForeignEvenWhenRootOwnsIt) {
  const std::string key = unique_name("others_write");
  ASSERT_NO_FATAL_FAILURE(plant_segment(key, 0, 0666));
  tarn_shm_t *h = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), EPERM);
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 4096, &h), EPERM);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:0 0666 8192");
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:0 0660 4096");
  EXPECT_EQ(first_bytes(h, 6), std::string(6, '\0'));
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, ASegmentWithASecondNameIsForeign) {
  const std::string key = unique_name("two_names");
  const std::string other = key + "_other";
  ASSERT_NO_FATAL_FAILURE(plant_segment(other, 0, 0660));
  ASSERT_EQ(link(shm_path(other).c_str(), shm_path(key).c_str()), 0);
  tarn_shm_t *h = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), EPERM);
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  EXPECT_NE(inode_of(shm_path(key)), inode_of(shm_path(other)));
  EXPECT_EQ(describe_object(shm_path(other)), "regular 0:0 0660 8192");
  EXPECT_EQ(tarn_shm_destroy(h), 0);
  unlink(shm_path(other).c_str());
}

TEST(SharedMemory, ASymbolicLinkIsNeverFollowedAndCreateReplacesTheLinkNotItsTarget) {
  const std::string key = unique_name("link");
  const std::string target = "/tmp/" + key + "_target";
  ASSERT_TRUE(plant_object(target, "precious", 0, 0, 0600));
  ASSERT_EQ(symlink(target.c_str(), shm_path(key).c_str()), 0);
  tarn_shm_t *h = nullptr;
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), ELOOP);
  EXPECT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN_OR_CREATE, 4096, &h), ELOOP);
  EXPECT_EQ(describe_object(shm_path(key)), "link");

  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:0 0660 4096");
  EXPECT_EQ(describe_object(target), "regular 0:0 0600 8");
  EXPECT_EQ(tarn_test::read_file(target), "precious");
  EXPECT_EQ(tarn_shm_destroy(h), 0);
  unlink(target.c_str());
}

TEST(SharedMemory, AFifoIsNoSegmentAndCreateReplacesItButADirectoryStays) {
  const std::string fifo = unique_name("fifo");
  ASSERT_EQ(mkfifo(shm_path(fifo).c_str(), 0600), 0);
  tarn_shm_t *h = nullptr;
  EXPECT_EQ(tarn_shm_init(fifo.c_str(), TARN_SHM_OPEN, 4096, &h), ENODEV);  // EFTYPE
  EXPECT_EQ(describe_object(shm_path(fifo)), "other kind");
  ASSERT_EQ(tarn_shm_init(fifo.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  EXPECT_EQ(describe_object(shm_path(fifo)), "regular 0:0 0660 4096");
  EXPECT_EQ(tarn_shm_destroy(h), 0);

  // The system library answers EINVAL for a directory, which is not
  // removed.
  const std::string dir = unique_name("dir");
  ASSERT_EQ(mkdir(shm_path(dir).c_str(), 0700), 0);
  EXPECT_EQ(tarn_shm_init(dir.c_str(), TARN_SHM_OPEN, 4096, &h), EINVAL);
  EXPECT_EQ(tarn_shm_init(dir.c_str(), TARN_SHM_CREATE, 4096, &h), EINVAL);
  EXPECT_EQ(describe_object(shm_path(dir)), "other kind");
  rmdir(shm_path(dir).c_str());
}

TEST(SharedMemory, ASquatterThatPutsItsObjectBackIsGivenUpOnAfterSixtyFourTries) {
  const std::string key = unique_name("squatter");
  ASSERT_NO_FATAL_FAILURE(plant_segment(key, 65534, 0666));
  g_squatted_name = "/" + key;
  g_squatter_unlinks = 0;
  int sentinel_storage = 0;
  tarn_shm_t *const sentinel = reinterpret_cast<tarn_shm_t *>(&sentinel_storage);
  tarn_shm_t *h = sentinel;
  const int ret = tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h);
  g_squatted_name.clear();
  EXPECT_EQ(ret, EAGAIN);
  EXPECT_EQ(g_squatter_unlinks, 64);
  EXPECT_EQ(h, sentinel);
  unlink(shm_path(key).c_str());
}

TEST(SharedMemory, MapRefusesASegmentShrunkSinceItWasOpened) {
  const std::string key = unique_name("shrunk");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 8192, &h), 0);
  ASSERT_EQ(truncate(shm_path(key).c_str(), 100), 0);
  void *base = nullptr;
  errno = 0;
  EXPECT_EQ(tarn_shm_map(h, 0, &base), EINVAL);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(base, nullptr);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, AnotherUserCannotOpenASegmentWithoutAnAgentGroup) {
  const std::string key = unique_name("private");
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h), 0);
  const std::string path = shm_path(key);
  EXPECT_EQ(tarn_test::as_local_user([&] {
              tarn_shm_t *mine = nullptr;
              return tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &mine);
            }),
            EACCES);
  EXPECT_EQ(tarn_test::as_local_user([&] { return truncate(path.c_str(), 0) == 0 ? 0 : errno; }),
            EACCES);
  EXPECT_EQ(describe_object(path), "regular 0:0 0660 4096");
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

TEST(SharedMemory, WithAnAgentGroupItsMembersAttachAndNobodyElse) {
  const std::string key = unique_name("agent_group");
  // nogroup is 65534 on every Debian system.
  ASSERT_EQ(tarn_test::with_agent_group("nogroup", [&] {
              tarn_shm_t *h = nullptr;
              const int ret = tarn_shm_init(key.c_str(), TARN_SHM_CREATE, 4096, &h);
              return ret == 0 ? tarn_shm_close(h) : ret;
            }),
            0);
  EXPECT_EQ(describe_object(shm_path(key)), "regular 0:65534 0660 4096");
  const auto attach = [&] {
    tarn_shm_t *h = nullptr;
    const int ret = tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h);
    return ret == 0 ? tarn_shm_close(h) : ret;
  };
  EXPECT_EQ(tarn_test::as_user(65534, 65534, attach), 0);
  EXPECT_EQ(tarn_test::as_user(65533, 65533, attach), EACCES);
  tarn_shm_t *h = nullptr;
  ASSERT_EQ(tarn_shm_init(key.c_str(), TARN_SHM_OPEN, 4096, &h), 0);
  EXPECT_EQ(tarn_shm_destroy(h), 0);
}

// ---------------------------------------------------------------------------
// A 32-bit and a 64-bit heartbeat peer on one table and one lock

struct Entry {
  long pid = 0;
  unsigned long idx = 0, interval = 0, ptype = 0;
  unsigned long long tick = 0;
};

// Parses "ok N pid:idx:interval:ptype:tick ..."; false when malformed.
bool parse_all(const std::string &answer, std::vector<Entry> *entries) {
  std::istringstream in(answer);
  std::string ok;
  long count = -1;
  if (!(in >> ok >> count) || ok != "ok" || count < 0) return false;
  entries->clear();
  std::string word;
  while (in >> word) {
    Entry e;
    if (sscanf(word.c_str(), "%ld:%lu:%lu:%lu:%llu", &e.pid, &e.idx, &e.interval, &e.ptype,
               &e.tick) != 5)
      return false;
    entries->push_back(e);
  }
  return static_cast<long>(entries->size()) == count;
}

class PeersOfBothWidths : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TARN_PEER32_PATH).empty())
      GTEST_SKIP() << "no 32-bit peer is built on this host";
    signal(SIGPIPE, SIG_IGN);
  }

  // Checks that a started peer answers.
  static void expect_answers(Peer &peer, const char *path) {
    ASSERT_TRUE(peer.ok()) << path;
    ASSERT_EQ(peer.ask("pid"), "ok " + std::to_string(peer.pid())) << path;
  }

  const std::string timed_out = "ok " + std::to_string(ETIMEDOUT);
};

TEST_F(PeersOfBothWidths, AgreeOnTheRecordLayoutAndDifferInPointerWidth) {
  Peer p64(TARN_PEER_PATH), p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p64, TARN_PEER_PATH));
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));
  EXPECT_EQ(p64.ask("layout"), "ok 24 0 4 8 12 16 64");
  EXPECT_EQ(p32.ask("layout"), "ok 24 0 4 8 12 16 32");
}

TEST_F(PeersOfBothWidths, ShareOneHeartbeatTable) {
  Peer p64(TARN_PEER_PATH), p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p64, TARN_PEER_PATH));
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));

  // The 64-bit peer is the service: it creates and clears the table.
  ASSERT_EQ(p64.ask("init 0"), "ok 0");
  ASSERT_EQ(p64.ask("add 0 10"), "ok 0");
  ASSERT_EQ(p32.ask("init 1"), "ok 0");
  ASSERT_EQ(p32.ask("add 2 5"), "ok 1");
  ASSERT_EQ(p32.ask("beat"), "ok 0");

  const std::string seen64 = p64.ask("all");
  const std::string seen32 = p32.ask("all");
  EXPECT_EQ(seen64, seen32);
  std::vector<Entry> entries;
  ASSERT_TRUE(parse_all(seen64, &entries)) << seen64;
  ASSERT_EQ(entries.size(), 2u) << seen64;
  EXPECT_EQ(entries[0].pid, p64.pid());
  EXPECT_EQ(entries[0].idx, 0u);
  EXPECT_EQ(entries[0].interval, 10u);
  EXPECT_EQ(entries[0].ptype, 0u);
  EXPECT_GT(entries[0].tick, 0u);
  EXPECT_EQ(entries[1].pid, p32.pid());
  EXPECT_EQ(entries[1].idx, 1u);
  EXPECT_EQ(entries[1].interval, 5u);
  EXPECT_EQ(entries[1].ptype, 2u);
  // The 32-bit peer's beat came after the 64-bit peer registered, on the
  // same clock.
  EXPECT_GE(entries[1].tick, entries[0].tick);

  // A removal by the 32-bit peer is seen by the 64-bit one.
  ASSERT_EQ(p32.ask("del"), "ok 0");
  const std::string after = p64.ask("all");
  ASSERT_TRUE(parse_all(after, &entries)) << after;
  ASSERT_EQ(entries.size(), 1u) << after;
  EXPECT_EQ(entries[0].pid, p64.pid());

  EXPECT_EQ(p32.ask("deinit 0"), "ok 0");
  EXPECT_EQ(p64.ask("deinit 1"), "ok 0");
}

TEST_F(PeersOfBothWidths, ContendForOneTableLock) {
  Peer p64(TARN_PEER_PATH), p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p64, TARN_PEER_PATH));
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));

  ASSERT_EQ(p32.ask("lock 0"), "ok 0");
  EXPECT_EQ(p64.ask("lock 50"), timed_out);
  EXPECT_EQ(p64.ask("unlock"), "ok " + std::to_string(EPERM));
  ASSERT_EQ(p32.ask("unlock"), "ok 0");
  ASSERT_EQ(p64.ask("lock 100"), "ok 0");
  EXPECT_EQ(p32.ask("lock 50"), timed_out);
  ASSERT_EQ(p64.ask("unlock"), "ok 0");
  EXPECT_EQ(p32.ask("lock 100"), "ok 0");
  EXPECT_EQ(p32.ask("unlock"), "ok 0");
}

TEST_F(PeersOfBothWidths, LockOfAKilled32BitHolderPassesToA64BitWaiter) {
  Peer p64(TARN_PEER_PATH), p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p64, TARN_PEER_PATH));
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));

  ASSERT_EQ(p32.ask("lock 0"), "ok 0");
  ASSERT_EQ(p64.ask("lock 0"), timed_out);
  p32.kill();
  EXPECT_EQ(p64.ask("lock 100"), "ok 0");
  EXPECT_EQ(p64.ask("unlock"), "ok 0");
}

TEST_F(PeersOfBothWidths, LockOfAKilled64BitHolderPassesToA32BitWaiter) {
  Peer p64(TARN_PEER_PATH), p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p64, TARN_PEER_PATH));
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));

  ASSERT_EQ(p64.ask("lock 0"), "ok 0");
  ASSERT_EQ(p32.ask("lock 0"), timed_out);
  p64.kill();
  EXPECT_EQ(p32.ask("lock 100"), "ok 0");
  EXPECT_EQ(p32.ask("unlock"), "ok 0");
}

TEST_F(PeersOfBothWidths, A32BitPeersTimedOutWaitOf100MsUsesLessThan2MsOfCpu) {
  Peer p32(TARN_PEER32_PATH);
  ASSERT_NO_FATAL_FAILURE(expect_answers(p32, TARN_PEER32_PATH));
  const std::string name = unique_name("cpu32");
  LockHandle h;
  ASSERT_EQ(tarn_glock_init(name.c_str(), &h.lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(h.lock, 0), 0);
  const std::string answer = p32.ask("trylock " + name + " 100");
  int result = -1;
  long cpu = -1;
  ASSERT_EQ(sscanf(answer.c_str(), "ok %d %ld", &result, &cpu), 2) << answer;
  EXPECT_EQ(result, ETIMEDOUT);
  EXPECT_GE(cpu, 0);
  EXPECT_LT(cpu, 2000) << "microseconds of CPU";
  EXPECT_EQ(tarn_glock_release(h.lock), 0);
}

}  // namespace
