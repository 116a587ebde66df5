// The global lock's uncontended cost next to its two reference points: one
// atomic compare-and-swap pair on a word in shared memory (the floor), and
// a file-lock system call pair.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <tarnbase/tarn_glock.h>

#include "sandbox.h"

namespace {

void glock_acquire_release(benchmark::State &state) {
  tarn_glock_t *lock = nullptr;
  if (tarn_glock_init("bench_glock", &lock) != 0) {
    state.SkipWithError("tarn_glock_init failed");
    return;
  }
  for (auto _ : state) {
    tarn_glock_acquire_timeout(lock, 100);
    tarn_glock_release(lock);
  }
  tarn_glock_destroy(lock);
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
BENCHMARK(flock_pair);

int main(int argc, char **argv) {
  if (tarn_sandbox_enter() != 0) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
