// The global lock's uncontended cost next to its reference points: one
// atomic compare-and-swap pair on a word in shared memory (the floor), a
// process-shared robust pthread mutex, and a file-lock system call pair;
// the same cost after 1,000 waiters were killed while they waited; and the
// cached pid against getpid().

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_process.h>

#include "sandbox.h"

namespace {

void acquire_release(benchmark::State &state, tarn_glock_t *lock) {
  for (auto _ : state) {
    tarn_glock_acquire_timeout(lock, 100);
    tarn_glock_release(lock);
  }
}

void glock_acquire_release(benchmark::State &state) {
  tarn_glock_t *lock = nullptr;
  if (tarn_glock_init("bench_glock", &lock) != 0) {
    state.SkipWithError("tarn_glock_init failed");
    return;
  }
  acquire_release(state, lock);
  tarn_glock_destroy(lock);
}

// The state letter of /proc/<pid>/stat, or '?'.
char process_state(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end = stat.rfind(") ");
  return end == std::string::npos || end + 2 >= stat.size() ? '?' : stat[end + 2];
}

// Lets count children wait for lock, which this process holds, kills them
// with SIGKILL once all are asleep, and releases the lock. False when a
// child could not be made or did not fall asleep.
bool kill_waiters(tarn_glock_t *lock, int count) {
  if (tarn_glock_acquire_timeout(lock, 0) != 0) return false;
  std::vector<pid_t> waiters;
  bool ok = true;
  for (int i = 0; i < count && ok; ++i) {
    const pid_t pid = fork();
    if (pid == 0) _exit(tarn_glock_acquire_timeout(lock, 600000));
    ok = pid > 0;
    if (ok) waiters.push_back(pid);
  }
  for (size_t asleep = 0; ok && asleep < waiters.size();) {
    const char state = process_state(waiters[asleep]);
    ok = state != 'Z' && state != '?';
    if (state == 'S') {
      ++asleep;
    } else {
      sched_yield();
    }
  }
  for (pid_t pid : waiters) kill(pid, SIGKILL);
  for (pid_t pid : waiters) waitpid(pid, nullptr, 0);
  return tarn_glock_release(lock) == 0 && ok;
}

void glock_after_killed_waiters(benchmark::State &state) {
  static tarn_glock_t *lock = nullptr;
  if (lock == nullptr &&
      (tarn_glock_init("bench_glock_killed", &lock) != 0 || !kill_waiters(lock, 1000))) {
    state.SkipWithError("no lock with 1000 killed waiters");
    return;
  }
  acquire_release(state, lock);
}

void robust_mutex_pair(benchmark::State &state) {
  void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  pthread_mutex_t *mutex = static_cast<pthread_mutex_t *>(page);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  for (auto _ : state) {
    pthread_mutex_lock(mutex);
    pthread_mutex_unlock(mutex);
  }
  pthread_mutex_destroy(mutex);
  munmap(page, 4096);
}

void process_get_pid(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(tarn_process_get_pid());
}

void getpid_call(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(getpid());
}

void atomic_cas_pair(benchmark::State &state) {
  void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  uint64_t *word = static_cast<uint64_t *>(page);
  for (auto _ : state) {
    uint64_t expected = 0;
    __atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
    expected = 1;
    __atomic_compare_exchange_n(word, &expected, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
  }
  munmap(page, 4096);
}

void flock_pair(benchmark::State &state) {
  const int fd = open("/tmp/bench_glock.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  for (auto _ : state) {
    flock(fd, LOCK_EX);
    flock(fd, LOCK_UN);
  }
  close(fd);
}

}  // namespace

BENCHMARK(atomic_cas_pair);
BENCHMARK(glock_acquire_release);
BENCHMARK(glock_after_killed_waiters);
BENCHMARK(robust_mutex_pair);
BENCHMARK(flock_pair);
BENCHMARK(process_get_pid);
BENCHMARK(getpid_call);

int main(int argc, char **argv) {
  if (tarn_sandbox_enter() != 0) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
