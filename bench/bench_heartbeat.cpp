// A worker's beat (update_proc_beat_tick, its debug line filtered out by the
// configured level) next to what a worker could use instead, sd_notify's
// watchdog message to a local datagram socket, and to the floor of any
// shared-memory beat: taking and giving back a lock word with atomic
// instructions and storing a tick. Also the service's beat over a full
// table.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "tarn_heartbeat.h"

namespace {

constexpr char kNotifySocket[] = "/tmp/bench_heartbeat_notify.sock";

uint64_t monotonic_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

void worker_beat(benchmark::State &state) {
  proc_heartbeat_info_t self = {};
  self.pid = getpid();
  self.interval = 10;
  self.ptype = 1;
  if (add_proc_heartbeat(&self) < 0) {
    state.SkipWithError("add_proc_heartbeat failed");
    return;
  }
  int64_t failures = 0;
  for (auto _ : state) failures += update_proc_beat_tick() != PROC_HEARTBEAT_OK;
  if (failures != 0) state.SkipWithError("update_proc_beat_tick failed");
  del_proc_heartbeat_by_pid(self.pid);
}

// The service's beat with every other slot held by a live process: the
// sweep tests each one's existence under the lock.
void service_beat_full_table(benchmark::State &state) {
  std::vector<pid_t> sleepers;
  for (int i = 1; i < PROC_HEARTBEAT_MAX_PROCS; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      pause();
      _exit(0);
    }
    proc_heartbeat_info_t entry = {};
    entry.pid = pid;
    entry.interval = 10;
    entry.ptype = 1;
    if (pid < 0 || add_proc_heartbeat(&entry) < 0) break;
    sleepers.push_back(pid);
  }
  proc_heartbeat_info_t self = {};
  self.pid = getpid();
  self.interval = 10;
  self.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  const bool full = sleepers.size() == PROC_HEARTBEAT_MAX_PROCS - 1 && add_proc_heartbeat(&self) >= 0;
  if (!full) state.SkipWithError("cannot fill the table");
  int64_t failures = 0;
  if (full) {
    for (auto _ : state) failures += update_proc_beat_tick() != PROC_HEARTBEAT_OK;
  }
  if (failures != 0) state.SkipWithError("update_proc_beat_tick failed");
  for (pid_t pid : sleepers) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    del_proc_heartbeat_by_pid(pid);
  }
  del_proc_heartbeat_by_pid(self.pid);
}

// The receiving end of the watchdog messages: a bound datagram socket that a
// thread drains, so that senders never wait for room.
class NotifyReceiver {
 public:
  NotifyReceiver() {
    unlink(kNotifySocket);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, kNotifySocket, sizeof(address.sun_path) - 1);
    ok_ = fd_ >= 0 && bind(fd_, (struct sockaddr *)&address, sizeof(address)) == 0;
    if (ok_) drain_ = std::thread([this] { run(); });
  }
  ~NotifyReceiver() {
    stop_ = true;
    if (drain_.joinable()) drain_.join();
    if (fd_ >= 0) close(fd_);
    unlink(kNotifySocket);
  }
  bool ok() const { return ok_; }
  uint64_t received() const { return received_; }

 private:
  void run() {
    char buffer[256];
    while (!stop_) {
      struct pollfd ready = {fd_, POLLIN, 0};
      if (poll(&ready, 1, 50) <= 0) continue;
      while (recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT) > 0) ++received_;
    }
  }

  int fd_ = -1;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> received_{0};
  std::thread drain_;
};

void sd_notify_watchdog(benchmark::State &state) {
  NotifyReceiver receiver;
  if (!receiver.ok()) {
    state.SkipWithError("cannot bind the notification socket");
    return;
  }
  setenv("NOTIFY_SOCKET", kNotifySocket, 1);
  int64_t failures = 0;
  for (auto _ : state) failures += sd_notify(0, "WATCHDOG=1") <= 0;
  unsetenv("NOTIFY_SOCKET");
  if (failures != 0) state.SkipWithError("sd_notify failed");
}

// A shared page for one benchmark's lock and tick, unmapped at its end.
class SharedPage {
 public:
  SharedPage() : page_(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
  ~SharedPage() {
    if (ok()) munmap(page_, 4096);
  }
  SharedPage(const SharedPage &) = delete;
  SharedPage &operator=(const SharedPage &) = delete;
  bool ok() const { return page_ != MAP_FAILED; }
  template <typename T>
  T *as() const {
    return static_cast<T *>(page_);
  }

 private:
  void *page_;
};

// The lock word and the tick of one entry, in a shared page.
struct FloorEntry {
  uint64_t lock;
  uint64_t tick;
};

void lock_word_floor(benchmark::State &state) {
  SharedPage page;
  if (!page.ok()) {
    state.SkipWithError("mmap failed");
    return;
  }
  FloorEntry *entry = page.as<FloorEntry>();
  const uint64_t owner = (uint64_t)getpid();
  for (auto _ : state) {
    uint64_t expected = 0;
    while (!__atomic_compare_exchange_n(&entry->lock, &expected, owner, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
      expected = 0;
    entry->tick = monotonic_ms();
    __atomic_store_n(&entry->lock, 0, __ATOMIC_RELEASE);
  }
}

// The same with a process-shared robust mutex, which also survives a killed
// holder (though only among processes of one word width).
struct RobustEntry {
  pthread_mutex_t lock;
  uint64_t tick;
};

void robust_mutex_floor(benchmark::State &state) {
  SharedPage page;
  if (!page.ok()) {
    state.SkipWithError("mmap failed");
    return;
  }
  RobustEntry *entry = page.as<RobustEntry>();
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int made = pthread_mutex_init(&entry->lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (made != 0) {
    state.SkipWithError("no robust shared mutex here");
  } else {
    for (auto _ : state) {
      pthread_mutex_lock(&entry->lock);
      entry->tick = monotonic_ms();
      pthread_mutex_unlock(&entry->lock);
    }
    pthread_mutex_destroy(&entry->lock);
  }
}

}  // namespace

BENCHMARK(lock_word_floor);
BENCHMARK(robust_mutex_floor);
BENCHMARK(worker_beat);
BENCHMARK(sd_notify_watchdog);
BENCHMARK(service_beat_full_table);

int main(int argc, char **argv) {
  if (!tarn_bench::enter_sandbox_with_log_level(TARN_LOG_LEVEL_INFO)) return 1;
  if (proc_heartbeat_init(0) != PROC_HEARTBEAT_OK) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  proc_heartbeat_deinit(true);
  return 0;
}
