#include "self_pid.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tarnbase {
namespace {

// Where the pid is kept: a page of its own that the kernel wipes on fork,
// or, when the kernel refuses the advice, this variable, which only the
// atfork handler empties.
int g_fallback_cache = 0;
int *g_cache = nullptr;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

void forget_pid() { __atomic_store_n(g_cache, 0, __ATOMIC_RELAXED); }

void set_up_cache() {
  int *cache = &g_fallback_cache;
  const size_t size = (size_t)sysconf(_SC_PAGESIZE);
  void *page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page != MAP_FAILED) {
    if (madvise(page, size, MADV_WIPEONFORK) == 0) {
      cache = static_cast<int *>(page);
    } else {
      munmap(page, size);
    }
  }
  __atomic_store_n(&g_cache, cache, __ATOMIC_RELEASE);
  pthread_atfork(nullptr, nullptr, forget_pid);
}

}  // namespace

int self_pid() {
  int *cache = __atomic_load_n(&g_cache, __ATOMIC_ACQUIRE);
  if (cache == nullptr) {
    pthread_once(&g_once, set_up_cache);
    cache = __atomic_load_n(&g_cache, __ATOMIC_ACQUIRE);
  }
  int pid = __atomic_load_n(cache, __ATOMIC_RELAXED);
  if (pid == 0) {
    pid = (int)getpid();
    __atomic_store_n(cache, pid, __ATOMIC_RELAXED);
  }
  return pid;
}

}  // namespace tarnbase
