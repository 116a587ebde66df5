// The heartbeat table under load: the service and its workers fill all 64
// slots and beat as fast as they can while a supervisor scans for timed-out
// processes, for a fixed time. Prints the workers' beats per second, the
// latency of a beat (p50, p99, max), the service's and the supervisor's
// rates, and how many calls failed, time-outs (-4) counted apart.
//
//   bench_heartbeat_load [--workers=63] [--seconds=10] [--pace_ms=0]
//
// --pace_ms=N makes the service and the supervisor wait N ms between their
// calls (their usual rhythm) instead of calling as fast as they can.
//
// Output: one "name value" line per figure. Exit status 1 when a process
// could not register or a call failed otherwise than by a time-out (the
// time-outs are a figure to report, not a failure of the program).

#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "bench_support.h"
#include "tarn_heartbeat.h"

namespace {

// Latencies in a log-linear histogram: 16 buckets per power of two, so a
// bucket's width is at most 1/16 of its values.
constexpr int kSubBuckets = 16;
constexpr int kBuckets = 64 * kSubBuckets;

int bucket_of(uint64_t ns) {
  if (ns < kSubBuckets) return (int)ns;
  const int exponent = 63 - __builtin_clzll(ns);
  return (exponent - 3) * kSubBuckets + (int)((ns >> (exponent - 4)) & (kSubBuckets - 1));
}

// The smallest value that falls in bucket.
uint64_t bucket_floor(int bucket) {
  if (bucket < kSubBuckets) return (uint64_t)bucket;
  const int exponent = bucket / kSubBuckets + 3;
  return (uint64_t)(kSubBuckets + bucket % kSubBuckets) << (exponent - 4);
}

// What one process counts, in memory shared with the parent.
struct Tally {
  uint64_t calls;
  uint64_t timeouts;  // results of -4
  uint64_t failures;  // other negative results
  uint64_t max_ns;
  uint64_t histogram[kBuckets];
};

struct Shared {
  int ready;   // processes registered and waiting for the start
  int failed;  // processes that could not start
  int go;
  int stop;
  Tally tallies[];  // service, supervisor, then the workers
};

enum class Role { kService, kSupervisor, kWorker };

uint64_t now_ns() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

bool flag_set(int *flag) { return __atomic_load_n(flag, __ATOMIC_ACQUIRE) != 0; }

long g_pace_ms = 0;

int32_t one_call(Role role) {
  if (role != Role::kSupervisor) return update_proc_beat_tick();
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t count = 0;
  return get_beat_timeout_procs(out, PROC_HEARTBEAT_MAX_PROCS, 60, &count);
}

// The life of one child: attach, register (service and workers), wait for
// the start, call until told to stop, detach.
int run_child(Shared *shared, Tally *tally, Role role) {
  const uint32_t mode = role == Role::kService ? 0 : role == Role::kWorker ? 1 : 2;
  bool started = proc_heartbeat_init(mode) == PROC_HEARTBEAT_OK;
  if (started && role != Role::kSupervisor) {
    proc_heartbeat_info_t self = {};
    self.pid = getpid();
    self.interval = 10;
    self.ptype = role == Role::kService ? PROC_HEARTBEAT_TYPE_SERVICE : 1;
    started = add_proc_heartbeat(&self) >= 0;
  }
  __atomic_add_fetch(started ? &shared->ready : &shared->failed, 1, __ATOMIC_ACQ_REL);
  if (!started) return 1;
  while (!flag_set(&shared->go)) usleep(1000);
  while (!flag_set(&shared->stop)) {
    const uint64_t begin = now_ns();
    const int32_t result = one_call(role);
    const uint64_t took = now_ns() - begin;
    ++tally->calls;
    if (result == PROC_HEARTBEAT_E_TIMEOUT) ++tally->timeouts;
    else if (result < 0) ++tally->failures;
    ++tally->histogram[bucket_of(took)];
    tally->max_ns = std::max(tally->max_ns, took);
    if (role != Role::kWorker && g_pace_ms > 0) usleep((useconds_t)g_pace_ms * 1000);
  }
  if (role != Role::kSupervisor) del_proc_heartbeat_by_pid(getpid());
  proc_heartbeat_deinit(false);
  return 0;
}

// Forks a child that plays role and waits until it has registered (or
// failed). Returns its pid, or -1.
pid_t start_child(Shared *shared, Tally *tally, Role role) {
  const int before = __atomic_load_n(&shared->ready, __ATOMIC_ACQUIRE) +
                     __atomic_load_n(&shared->failed, __ATOMIC_ACQUIRE);
  const pid_t pid = fork();
  if (pid == 0) _exit(run_child(shared, tally, role));
  if (pid < 0) return -1;
  while (__atomic_load_n(&shared->ready, __ATOMIC_ACQUIRE) +
             __atomic_load_n(&shared->failed, __ATOMIC_ACQUIRE) ==
         before)
    usleep(1000);
  return pid;
}

uint64_t percentile(const Tally &tally, double fraction) {
  const uint64_t wanted = (uint64_t)((double)tally.calls * fraction);
  uint64_t seen = 0;
  for (int bucket = 0; bucket < kBuckets; ++bucket) {
    seen += tally.histogram[bucket];
    if (seen > wanted) return bucket_floor(bucket);
  }
  return tally.max_ns;
}

void add_into(Tally &sum, const Tally &part) {
  sum.calls += part.calls;
  sum.timeouts += part.timeouts;
  sum.failures += part.failures;
  sum.max_ns = std::max(sum.max_ns, part.max_ns);
  for (int bucket = 0; bucket < kBuckets; ++bucket) sum.histogram[bucket] += part.histogram[bucket];
}

void report(const char *name, const Tally &tally, double seconds) {
  printf("%s_per_second %.0f\n", name, (double)tally.calls / seconds);
  printf("%s_p50_us %.2f\n", name, (double)percentile(tally, 0.50) / 1000.0);
  printf("%s_p99_us %.2f\n", name, (double)percentile(tally, 0.99) / 1000.0);
  printf("%s_max_us %.2f\n", name, (double)tally.max_ns / 1000.0);
  printf("%s_timeouts %llu\n", name, (unsigned long long)tally.timeouts);
}

}  // namespace

int main(int argc, char **argv) {
  const long workers = tarn_bench::take_number_flag(argc, argv, "workers", PROC_HEARTBEAT_MAX_PROCS - 1);
  const long seconds = tarn_bench::take_number_flag(argc, argv, "seconds", 10);
  g_pace_ms = tarn_bench::take_number_flag(argc, argv, "pace_ms", 0);
  if (argc != 1 || workers < 1 || workers > PROC_HEARTBEAT_MAX_PROCS - 1 || seconds < 1 || g_pace_ms < 0) {
    fprintf(stderr, "usage: bench_heartbeat_load [--workers=1..63] [--seconds=N] [--pace_ms=N]\n");
    return 2;
  }
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;

  const size_t size = sizeof(Shared) + (size_t)(workers + 2) * sizeof(Tally);
  void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 1;
  Shared *shared = static_cast<Shared *>(memory);

  std::vector<pid_t> children;
  children.push_back(start_child(shared, &shared->tallies[0], Role::kService));
  for (long i = 0; i < workers; ++i) children.push_back(start_child(shared, &shared->tallies[2 + i], Role::kWorker));
  children.push_back(start_child(shared, &shared->tallies[1], Role::kSupervisor));

  const bool all_started = shared->failed == 0 &&
                           std::find(children.begin(), children.end(), -1) == children.end();
  const uint64_t begin = now_ns();
  __atomic_store_n(&shared->go, 1, __ATOMIC_RELEASE);
  if (all_started) sleep((unsigned)seconds);
  __atomic_store_n(&shared->stop, 1, __ATOMIC_RELEASE);
  const double elapsed = (double)(now_ns() - begin) / 1e9;
  int exits_failed = 0;
  for (pid_t pid : children) {
    int status = 0;
    if (pid > 0 && (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0))
      ++exits_failed;
  }

  static Tally beats;  // the workers' together
  for (long i = 0; i < workers; ++i) add_into(beats, shared->tallies[2 + i]);
  const Tally &service = shared->tallies[0];
  const Tally &supervisor = shared->tallies[1];
  printf("registered %ld\n", workers + 1);
  printf("seconds %.2f\n", elapsed);
  report("worker_beats", beats, elapsed);
  report("service_beats", service, elapsed);
  report("supervisor_scans", supervisor, elapsed);
  const uint64_t timeouts = beats.timeouts + service.timeouts + supervisor.timeouts;
  const uint64_t failures = beats.failures + service.failures + supervisor.failures;
  printf("timeouts %llu\n", (unsigned long long)timeouts);
  printf("other_failures %llu\n", (unsigned long long)failures);
  return all_started && exits_failed == 0 && failures == 0 ? 0 : 1;
}
