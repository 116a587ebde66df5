// The named global lock: one 64-bit owner word in shared memory, taken with
// a compare-and-swap, and a futex word on which waiters sleep.
//
// The owner word names the holder by its pid (low half) and the low half of
// its start time (high half), so a waiter can tell a live holder from one
// that died, and from a later process that was given the same pid. Waiters
// check the holder every kLivenessCheckNs while they wait; a dead holder's
// word is swapped for the waiter's own, which takes the lock.
//
// The layout holds only fixed-width fields at fixed offsets, so 32-bit and
// 64-bit processes share one lock.

#include "tarnbase/tarn_glock.h"

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "clock.h"
#include "proc_stat.h"
#include "shm_name.h"
#include "tarnbase/tarn_shm.h"

namespace {

struct GlockState {
  uint64_t owner;     // 0: free; else (start time & 0xffffffff) << 32 | pid
  uint32_t wake_seq;  // futex word: bumped by a release that finds waiters
  uint32_t waiters;   // processes waiting, or about to wait, on wake_seq
  uint8_t reserved[48];
};
static_assert(sizeof(GlockState) == 64, "the lock state is 64 bytes on every architecture");
static_assert(offsetof(GlockState, owner) == 0, "owner at 0");
static_assert(offsetof(GlockState, wake_seq) == 8, "wake_seq at 8");
static_assert(offsetof(GlockState, waiters) == 12, "waiters at 12");

constexpr const char *kLockSuffix = ".glock";
constexpr uint64_t kLivenessCheckNs = 5 * 1000 * 1000;
constexpr int kSpinTries = 100;

// The calling process's owner word, computed once per process (a forked
// child computes its own).
uint64_t g_owner_token = 0;
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;

void forget_owner_token() { __atomic_store_n(&g_owner_token, 0, __ATOMIC_RELAXED); }
void register_atfork() { pthread_atfork(nullptr, nullptr, forget_owner_token); }

uint64_t make_owner_token(int pid, uint64_t start_time) {
  return (start_time & 0xffffffffu) << 32 | (uint32_t)pid;
}

uint64_t owner_token() {
  uint64_t token = __atomic_load_n(&g_owner_token, __ATOMIC_RELAXED);
  if (token != 0) return token;
  pthread_once(&g_atfork_once, register_atfork);
  const int pid = (int)getpid();
  tarnbase::ProcStat stat{};
  if (!tarnbase::read_proc_stat(pid, &stat)) stat.start_time = 0;
  token = make_owner_token(pid, stat.start_time);
  __atomic_store_n(&g_owner_token, token, __ATOMIC_RELAXED);
  return token;
}

bool owner_alive(uint64_t token) {
  const int pid = (int)(uint32_t)token;
  tarnbase::ProcStat stat{};
  if (!tarnbase::read_proc_stat(pid, &stat) || stat.exited()) return false;
  return make_owner_token(pid, stat.start_time) == token;
}

bool try_take(GlockState *state, uint64_t expected, uint64_t token) {
  return __atomic_compare_exchange_n(&state->owner, &expected, token, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED);
}

void futex_wait(uint32_t *word, uint32_t expected, uint64_t timeout_ns) {
  struct timespec timeout;
  timeout.tv_sec = (time_t)(timeout_ns / 1000000000u);
  timeout.tv_nsec = (long)(timeout_ns % 1000000000u);
  syscall(SYS_futex, word, FUTEX_WAIT, expected, &timeout, nullptr, 0);
}

void futex_wake_one(uint32_t *word) { syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0); }

// The slow path: sleeps on the futex word in slices, checking between them
// whether the holder is still alive.
int wait_and_take(GlockState *state, uint64_t token, uint32_t timeout_ms) {
  const uint64_t deadline = tarnbase::monotonic_ns() + (uint64_t)timeout_ms * 1000000u;
  __atomic_add_fetch(&state->waiters, 1, __ATOMIC_SEQ_CST);
  int result = ETIMEDOUT;
  uint64_t next_check = 0;
  for (;;) {
    const uint32_t seq = __atomic_load_n(&state->wake_seq, __ATOMIC_SEQ_CST);
    const uint64_t holder = __atomic_load_n(&state->owner, __ATOMIC_SEQ_CST);
    if (holder == 0) {
      if (try_take(state, 0, token)) {
        result = 0;
        break;
      }
      continue;
    }
    const uint64_t now = tarnbase::monotonic_ns();
    if (now >= next_check) {
      if (!owner_alive(holder)) {
        if (try_take(state, holder, token)) {
          result = 0;
          break;
        }
        continue;
      }
      next_check = now + kLivenessCheckNs;
    }
    if (now >= deadline) break;
    futex_wait(&state->wake_seq, seq, (deadline < next_check ? deadline : next_check) - now);
  }
  __atomic_sub_fetch(&state->waiters, 1, __ATOMIC_SEQ_CST);
  return result;
}

}  // namespace

struct tarn_glock {
  tarn_shm_t *shm;
  GlockState *state;
};

extern "C" {

TARNBASE_API int tarn_glock_init(const char *name, tarn_glock_t **lock) {
  return tarn_glock_init_ex(name, TARN_SHM_OPEN_OR_CREATE, lock);
}

TARNBASE_API int tarn_glock_init_ex(const char *name, int flag, tarn_glock_t **lock) {
  char key[tarnbase::kShmNameMax];
  if (lock == nullptr || flag < TARN_SHM_OPEN || flag > TARN_SHM_CREATE ||
      !tarnbase::make_shm_name(name, kLockSuffix, key)) {
    errno = EINVAL;
    return EINVAL;
  }
  tarn_shm_t *shm = nullptr;
  int result = tarn_shm_init(key + 1, flag, sizeof(GlockState), &shm);
  if (result != 0) return result;
  void *base = nullptr;
  if ((result = tarn_shm_map(shm, 0, &base)) != 0) {
    tarn_shm_close(shm);
    return result;
  }
  tarn_glock_t *handle = static_cast<tarn_glock_t *>(calloc(1, sizeof(tarn_glock_t)));
  if (handle == nullptr) {
    tarn_shm_unmap(shm, base);
    tarn_shm_close(shm);
    errno = ENOMEM;
    return ENOMEM;
  }
  handle->shm = shm;
  handle->state = static_cast<GlockState *>(base);
  *lock = handle;
  return 0;
}

TARNBASE_API int tarn_glock_acquire_timeout(tarn_glock_t *lock, uint32_t timeout_ms) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  const uint64_t token = owner_token();
  for (int spin = 0; spin < kSpinTries; ++spin) {
    if (__atomic_load_n(&lock->state->owner, __ATOMIC_RELAXED) == 0 &&
        try_take(lock->state, 0, token))
      return 0;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  const int result = wait_and_take(lock->state, token, timeout_ms);
  if (result != 0) errno = result;
  return result;
}

TARNBASE_API int tarn_glock_release(tarn_glock_t *lock) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  uint64_t expected = owner_token();
  if (!__atomic_compare_exchange_n(&lock->state->owner, &expected, 0, false, __ATOMIC_SEQ_CST,
                                   __ATOMIC_RELAXED)) {
    errno = EPERM;
    return EPERM;
  }
  if (__atomic_load_n(&lock->state->waiters, __ATOMIC_SEQ_CST) != 0) {
    __atomic_add_fetch(&lock->state->wake_seq, 1, __ATOMIC_SEQ_CST);
    futex_wake_one(&lock->state->wake_seq);
  }
  return 0;
}

TARNBASE_API int tarn_glock_destroy(tarn_glock_t *lock) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  tarn_shm_unmap(lock->shm, lock->state);
  tarn_shm_close(lock->shm);
  free(lock);
  return 0;
}

}  // extern "C"
