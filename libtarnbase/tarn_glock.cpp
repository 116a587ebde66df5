// The named global lock: one 64-bit owner word in shared memory, taken with
// a compare-and-swap; waiters sleep on a futex on the owner word itself.
//
// Who holds the lock is told by a liveness slot, not by a pid. Each process
// that opens a lock claims one of kSlots slots in the lock's segment: it
// opens a descriptor of its own on the segment and write-locks the slot's
// byte with an open-file-description lock (F_OFD_SETLK), which the kernel
// drops when the process dies, whatever its pid namespace and whether or not
// /proc is mounted; and it records a claim id, new for every claim, in the
// slot. The owner word names the slot and the claim id. A waiter takes the
// holder for dead when the slot records another claim id or its byte is no
// longer locked (F_OFD_GETLK), and then swaps the dead holder's word for its
// own, which takes the lock. A pid that went to another process changes
// nothing: pids are recorded for diagnostics only.
//
// The owner word: claim id in the high 32 bits; in the low 32 bits the slot
// number + 1 (never 0 while held) and kWaitersBit, which a waiter sets
// before it sleeps. The futex is the low half, whichever end of the word
// it is at. A release that finds the bit set wakes one waiter; a waiter
// that slept takes the lock with the bit set, since others may still sleep.
// A waiter killed in its sleep thus costs at most one needless wake.
//
// The layout holds only fixed-width fields at fixed offsets, so 32-bit and
// 64-bit processes, of either byte order, share one lock.

#include "tarnbase/tarn_glock.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <linux/time_types.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "clock.h"
#include "self_pid.h"
#include "shm_name.h"
#include "shm_reopen.h"
#include "tarnbase/tarn_shm.h"

namespace {

constexpr uint32_t kSlots = 1024;

struct SlotRecord {
  uint32_t claim;  // the claim id of the slot's latest claim; 0: never claimed
  int32_t pid;     // the claimer's pid as it saw it, for diagnostics only
};

struct GlockState {
  uint64_t owner;       // 0: free; else claim id << 32 | [kWaitersBit] | slot + 1
  uint32_t next_claim;  // the last claim id handed out
  uint8_t reserved[52];
  SlotRecord slots[kSlots];  // slot k is claimed while the first byte of its
                             // record is write-locked (F_OFD_SETLK)
};
static_assert(sizeof(SlotRecord) == 8, "a slot record is 8 bytes on every architecture");
static_assert(sizeof(GlockState) == 64 + 8 * kSlots, "the lock state is 8256 bytes on every architecture");
static_assert(offsetof(GlockState, owner) == 0, "owner at 0");
static_assert(offsetof(GlockState, next_claim) == 8, "next_claim at 8");
static_assert(offsetof(GlockState, slots) == 64, "slots at 64");

constexpr uint64_t kWaitersBit = 1u << 31;
constexpr const char *kLockSuffix = ".glock";
// A waiter checks the holder's liveness at once, then after each period,
// which doubles up to the longest: a dead holder is noticed within that,
// and a long wait wakes up seldom.
constexpr uint64_t kFirstCheckPeriodNs = 1 * 1000 * 1000;
constexpr uint64_t kLongestCheckPeriodNs = 64 * 1000 * 1000;
constexpr int kSpinTries = 100;

off_t slot_lock_offset(uint32_t slot) {
  return (off_t)(offsetof(GlockState, slots) + slot * sizeof(SlotRecord));
}

// The half of the owner word that holds the slot and kWaitersBit: the
// futex word.
uint32_t *futex_word(GlockState *state) {
  return reinterpret_cast<uint32_t *>(&state->owner) +
         (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 1 : 0);
}

// This process's claim on one lock segment, shared by all its handles of
// that segment, so that the lock is held by a process as it always was.
struct Claim {
  dev_t dev;           // the segment
  ino_t ino;
  int fd;              // our own open file description; -1 once forked
  uint64_t token;      // our owner word; 0 while not claimed
  int pid;             // the process that claimed; another one is a raw-forked child
  int handles;         // handles that use this claim
  Claim *next;
};

// Every claim of the process, under g_claims_mutex.
Claim *g_claims = nullptr;
pthread_mutex_t g_claims_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;

void lock_claims() { pthread_mutex_lock(&g_claims_mutex); }
void unlock_claims() { pthread_mutex_unlock(&g_claims_mutex); }

// In a child: the inherited descriptors share the parent's descriptions,
// and so its slot locks, which would keep the parent's slots claimed after
// its death. They are closed; the child claims slots of its own on use.
void forget_claims_in_child() {
  for (Claim *claim = g_claims; claim != nullptr; claim = claim->next) {
    if (claim->fd >= 0) close(claim->fd);
    claim->fd = -1;
    __atomic_store_n(&claim->token, 0, __ATOMIC_RELAXED);
  }
  unlock_claims();
}

void register_atfork() { pthread_atfork(lock_claims, unlock_claims, forget_claims_in_child); }

uint32_t next_claim_id(GlockState *state) {
  uint32_t id;
  do {
    id = __atomic_add_fetch(&state->next_claim, 1, __ATOMIC_SEQ_CST);
  } while (id == 0);
  return id;
}

struct flock slot_lock(short type, uint32_t slot) {
  struct flock lock;
  memset(&lock, 0, sizeof(lock));
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = slot_lock_offset(slot);
  lock.l_len = 1;
  return lock;
}

// Claims a free slot through fd, as the process pid; stores its owner
// word in *token. Returns 0, EAGAIN when every slot is claimed, or the
// error of fcntl.
int claim_slot(GlockState *state, int fd, int pid, uint64_t *token) {
  const uint32_t id = next_claim_id(state);
  for (uint32_t i = 0; i < kSlots; ++i) {
    const uint32_t slot = (id + i) % kSlots;
    struct flock lock = slot_lock(F_WRLCK, slot);
    if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
      if (errno == EAGAIN || errno == EACCES) continue;
      return errno;
    }
    __atomic_store_n(&state->slots[slot].pid, (int32_t)pid, __ATOMIC_RELAXED);
    __atomic_store_n(&state->slots[slot].claim, id, __ATOMIC_RELEASE);
    *token = (uint64_t)id << 32 | (slot + 1);
    return 0;
  }
  return EAGAIN;
}

// Claims a slot for claim through fd, a new descriptor on state's segment,
// which it takes over (closed on failure); under g_claims_mutex.
int claim_through(Claim *claim, int fd, GlockState *state) {
  if (claim->fd >= 0) close(claim->fd);  // a raw-forked child's, shared with its parent
  claim->fd = -1;
  __atomic_store_n(&claim->token, 0, __ATOMIC_RELAXED);
  const int pid = tarnbase::self_pid();
  uint64_t token = 0;
  const int error = claim_slot(state, fd, pid, &token);
  if (error != 0) {
    close(fd);
    return error;
  }
  claim->fd = fd;
  __atomic_store_n(&claim->pid, pid, __ATOMIC_RELAXED);
  __atomic_store_n(&claim->token, token, __ATOMIC_RELEASE);
  return 0;
}

}  // namespace

struct tarn_glock {
  tarn_shm_t *shm;
  GlockState *state;
  Claim *claim;
};

namespace {

// Finds or makes this process's claim on the segment of lock, into
// lock->claim.
int attach_claim(tarn_glock_t *lock) {
  pthread_once(&g_atfork_once, register_atfork);
  int fd = -1;
  int error = tarnbase::shm_reopen(lock->shm, &fd);
  if (error != 0) return error;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    error = errno;
    close(fd);
    return error;
  }
  lock_claims();
  Claim *claim = g_claims;
  while (claim != nullptr && (claim->dev != st.st_dev || claim->ino != st.st_ino)) claim = claim->next;
  if (claim != nullptr) {
    close(fd);
  } else {
    claim = static_cast<Claim *>(calloc(1, sizeof(Claim)));
    error = claim == nullptr ? ENOMEM : 0;
    if (claim != nullptr) {
      claim->dev = st.st_dev;
      claim->ino = st.st_ino;
      claim->fd = -1;
      error = claim_through(claim, fd, lock->state);
    } else {
      close(fd);
    }
    if (error != 0) {
      unlock_claims();
      free(claim);
      return error;
    }
    claim->next = g_claims;
    g_claims = claim;
  }
  ++claim->handles;
  lock->claim = claim;
  unlock_claims();
  return 0;
}

void detach_claim(Claim *gone) {
  lock_claims();
  for (Claim **link = &g_claims; *link != nullptr; link = &(*link)->next) {
    if (*link != gone) continue;
    if (--gone->handles == 0) {
      *link = gone->next;
      if (gone->fd >= 0) close(gone->fd);
      free(gone);
    }
    break;
  }
  unlock_claims();
}

// Our owner word, claiming a slot first when this process has none (a
// forked child). Returns 0 or the error of claiming.
int own_token(tarn_glock_t *lock, uint64_t *token) {
  Claim *claim = lock->claim;
  uint64_t mine = __atomic_load_n(&claim->token, __ATOMIC_ACQUIRE);
  if (mine != 0 && __atomic_load_n(&claim->pid, __ATOMIC_RELAXED) == tarnbase::self_pid()) {
    *token = mine;
    return 0;
  }
  lock_claims();
  int error = 0;
  mine = __atomic_load_n(&claim->token, __ATOMIC_ACQUIRE);
  if (mine == 0 || claim->pid != tarnbase::self_pid()) {
    int fd = -1;
    error = tarnbase::shm_reopen(lock->shm, &fd);
    if (error == 0) error = claim_through(claim, fd, lock->state);
    mine = __atomic_load_n(&claim->token, __ATOMIC_ACQUIRE);
  }
  unlock_claims();
  *token = mine;
  return error;
}

// Our owner word when this process has a claim of its own, else 0 (a
// forked child holds none of its parent's locks).
uint64_t current_token(const tarn_glock_t *lock) {
  const Claim *claim = lock->claim;
  const uint64_t mine = __atomic_load_n(&claim->token, __ATOMIC_ACQUIRE);
  return __atomic_load_n(&claim->pid, __ATOMIC_RELAXED) == tarnbase::self_pid() ? mine : 0;
}

// Whether the holder that word names is alive, as lock's process sees it.
bool holder_alive(const tarn_glock_t *lock, uint64_t word, uint64_t token) {
  const uint64_t holder = word & ~kWaitersBit;
  if (holder == token) return true;  // ourselves: the lock is not recursive
  const uint32_t slot = (uint32_t)holder - 1;
  if (slot >= kSlots) return false;  // no word that a claim makes
  if (__atomic_load_n(&lock->state->slots[slot].claim, __ATOMIC_ACQUIRE) != (uint32_t)(holder >> 32))
    return false;
  struct flock probe = slot_lock(F_WRLCK, slot);
  // A holder we cannot check is taken for alive: its lock is never stolen.
  if (fcntl(lock->claim->fd, F_OFD_GETLK, &probe) != 0) return true;
  return probe.l_type != F_UNLCK;
}

bool try_take(GlockState *state, uint64_t expected, uint64_t word) {
  return __atomic_compare_exchange_n(&state->owner, &expected, word, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

// Sleeps while the futex word holds expected, at most timeout_ns. On a
// 32-bit ABI with a 64-bit time_t, the plain futex call reads a 32-bit
// timespec: there the 64-bit time call is used, and the plain call with
// the old timespec only on a kernel without it.
void futex_wait(uint32_t *word, uint32_t expected, uint64_t timeout_ns) {
  const uint64_t seconds = timeout_ns / 1000000000u;
  const uint64_t nanoseconds = timeout_ns % 1000000000u;
#if defined(SYS_futex_time64) && !defined(__LP64__)
  struct __kernel_timespec timeout64;
  timeout64.tv_sec = (__kernel_time64_t)seconds;
  timeout64.tv_nsec = (long long)nanoseconds;
  if (syscall(SYS_futex_time64, word, FUTEX_WAIT, expected, &timeout64, nullptr, 0) == 0 ||
      errno != ENOSYS)
    return;
#endif
#ifdef SYS_futex
  struct __kernel_old_timespec timeout;
  timeout.tv_sec = (__kernel_old_time_t)seconds;
  timeout.tv_nsec = (long)nanoseconds;
  syscall(SYS_futex, word, FUTEX_WAIT, expected, &timeout, nullptr, 0);
#endif
}

void futex_wake_one(uint32_t *word) {
#ifdef SYS_futex
  syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
#else
  syscall(SYS_futex_time64, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
#endif
}

// The slow path: sleeps on the owner word in slices, checking between them
// whether the holder is still alive.
int wait_and_take(tarn_glock_t *lock, uint64_t token, uint32_t timeout_ms) {
  GlockState *state = lock->state;
  const uint64_t deadline = tarnbase::monotonic_ns() + (uint64_t)timeout_ms * 1000000u;
  uint64_t next_check = 0;
  uint64_t period = kFirstCheckPeriodNs;
  uint64_t slept = 0;  // kWaitersBit once this waiter has slept
  for (;;) {
    uint64_t word = __atomic_load_n(&state->owner, __ATOMIC_ACQUIRE);
    if (word == 0) {
      if (try_take(state, 0, token | slept)) return 0;
      continue;
    }
    const uint64_t now = tarnbase::monotonic_ns();
    if (now >= next_check) {
      if (!holder_alive(lock, word, token)) {
        if (try_take(state, word, token | slept | (word & kWaitersBit))) return 0;
        continue;
      }
      next_check = now + period;
      if (period < kLongestCheckPeriodNs) period *= 2;
    }
    if (now >= deadline) return ETIMEDOUT;
    if ((word & kWaitersBit) == 0) {
      if (!try_take(state, word, word | kWaitersBit)) continue;
      word |= kWaitersBit;
    }
    futex_wait(futex_word(state), (uint32_t)word,
               (deadline < next_check ? deadline : next_check) - now);
    slept = kWaitersBit;
  }
}

}  // namespace

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
  tarn_glock_t *handle = static_cast<tarn_glock_t *>(calloc(1, sizeof(tarn_glock_t)));
  if (handle == nullptr) {
    errno = ENOMEM;
    return ENOMEM;
  }
  int result = tarn_shm_init(key + 1, flag, sizeof(GlockState), &handle->shm);
  void *base = nullptr;
  if (result == 0 && (result = tarn_shm_map(handle->shm, 0, &base)) == 0) {
    handle->state = static_cast<GlockState *>(base);
    if ((result = attach_claim(handle)) == 0) {
      *lock = handle;
      return 0;
    }
    tarn_shm_unmap(handle->shm, base);
  }
  if (handle->shm != nullptr) tarn_shm_close(handle->shm);
  free(handle);
  errno = result;
  return result;
}

TARNBASE_API int tarn_glock_acquire_timeout(tarn_glock_t *lock, uint32_t timeout_ms) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  uint64_t token = 0;
  int result = own_token(lock, &token);
  if (result == 0) {
    for (int spin = 0; spin < kSpinTries; ++spin) {
      if (__atomic_load_n(&lock->state->owner, __ATOMIC_RELAXED) == 0 &&
          try_take(lock->state, 0, token))
        return 0;
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    }
    result = wait_and_take(lock, token, timeout_ms);
  }
  if (result != 0) errno = result;
  return result;
}

TARNBASE_API int tarn_glock_release(tarn_glock_t *lock) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  const uint64_t token = current_token(lock);
  uint64_t word = __atomic_load_n(&lock->state->owner, __ATOMIC_RELAXED);
  do {
    if (token == 0 || (word & ~kWaitersBit) != token) {
      errno = EPERM;
      return EPERM;
    }
  } while (!__atomic_compare_exchange_n(&lock->state->owner, &word, 0, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED));
  if ((word & kWaitersBit) != 0) futex_wake_one(futex_word(lock->state));
  return 0;
}

TARNBASE_API int tarn_glock_destroy(tarn_glock_t *lock) {
  if (lock == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  detach_claim(lock->claim);
  tarn_shm_unmap(lock->shm, lock->state);
  tarn_shm_close(lock->shm);
  free(lock);
  return 0;
}

}  // extern "C"
