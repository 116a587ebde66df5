// tarn-demo -- a walk through the process heartbeat table, for people who
// support the agent and want to see what the table holds at each moment of
// a process's life.
//
// The program plays the service itself and starts four worker processes
// (fork, then exec of this same program in worker mode), each of which
// attaches to the table, registers itself and beats when the service tells
// it to. The service drives the workers through one pair of pipes each:
//
//   service -> worker   one command per line: "beat", "stall", "exit"
//   worker -> service   one reply per line: "<call> <result>"
//
//   on start   "init R" (proc_heartbeat_init), then "add R" (registration)
//   beat       "beat R" (update_proc_beat_tick), or "beat skipped" once
//              the worker has been told to stall
//   stall      "stall 0"; from then on the worker answers but never beats,
//              like a process that hangs while it still exists
//   exit       "del R" (del_proc_heartbeat_by_pid), "deinit R"
//              (proc_heartbeat_deinit), then the worker exits with status 0
//
// so every step waits for the answers it needs and nothing depends on sleeps;
// the only timed waiting is the once-a-second beat of step 5, where the demo
// lets a stalled worker's last beat grow old enough for the timeout scan.
//
// Everything runs inside a private sandbox (tarn_sandbox_enter), entered
// before anything else, so the table, its lock, the configuration file and
// the library's log file exist only for the run and the host is not touched.

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox.h"
#include "tarn_heartbeat.h"

namespace {

constexpr const char *kProgram = "tarn-demo";
constexpr const char *kConfigPath = "/etc/velmora/tarnbase.conf";
constexpr const char *kConfigText = "[log]\nlevel = 2\n";
// The base library's default log directory (the configuration names none)
// and the library's default destination below it; the last component is
// this program's executable name.
constexpr const char *kLogDir = "/var/log";
constexpr const char *kAutologDir = "velmora/TARN3_LOG/tarn_default_autolog";
constexpr const char *kSegmentPath = "/dev/shm/proc_heartbeat_shm.name";

constexpr uint32_t kServiceInterval = 10;
constexpr int kWorkerCount = 4;
constexpr int kKilledWorker = 2;   // step 4
constexpr int kStalledWorker = 3;  // step 5
constexpr int32_t kTimeoutSeconds = 60;
constexpr int kReplyTimeoutMs = 5000;
constexpr size_t kLogTailLines = 12;

// ---------------------------------------------------------------------------
// Small helpers shared by both roles.

uint64_t now_ms() {
  // The library's tick (tarn_time_get_tick_cout) reads the same clock.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *fmt, ...) {
  char text[1024];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  return text;
}

bool write_line(int fd, const std::string &line) {
  const std::string text = line + "\n";
  const char *data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t written = write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    left -= (size_t)written;
  }
  return true;
}

bool parse_int(const char *text, long min, long max, long *value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char *end = nullptr;
  const long parsed = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || parsed < min || parsed > max) return false;
  *value = parsed;
  return true;
}

// "-4 (wait to timeout)"; init reports failing system calls as positive
// errno values, which get their system text as well.
std::string describe(int32_t code) {
  std::string text = format("%" PRId32 " (%s", code, get_heartbeat_errmsg(code));
  if (code > 0) text += format(": %s", strerror(code));
  return text + ")";
}

// ---------------------------------------------------------------------------
// Worker role: tarn-demo --worker NUMBER TYPE INTERVAL MODE CMD_FD REPLY_FD

// Reads one command line; false at end of input or on a read error.
bool read_command(int fd, std::string *line) {
  line->clear();
  for (;;) {
    char c;
    const ssize_t got = read(fd, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    if (c == '\n') return true;
    line->push_back(c);
  }
}

bool is_pipe(long fd) {
  struct stat st;
  return fstat((int)fd, &st) == 0 && S_ISFIFO(st.st_mode);
}

int worker_main(int argc, char **argv) {
  long number = 0, type = 0, interval = 0, mode = 0, cmd_fd = -1, reply_fd = -1;
  if (argc != 8 || !parse_int(argv[2], 1, kWorkerCount, &number) ||
      !parse_int(argv[3], 1, 5, &type) || !parse_int(argv[4], 1, 59, &interval) ||
      !parse_int(argv[5], 0, UINT32_MAX, &mode) || !parse_int(argv[6], 0, INT_MAX, &cmd_fd) ||
      !parse_int(argv[7], 0, INT_MAX, &reply_fd) || !is_pipe(cmd_fd) || !is_pipe(reply_fd)) {
    fprintf(stderr, "%s: --worker is used by the demo itself to start its workers\n", kProgram);
    return 2;
  }
  const int out = (int)reply_fd;

  int32_t ret = proc_heartbeat_init((uint32_t)mode);
  if (!write_line(out, format("init %" PRId32, ret)) || ret != 0) return 1;

  proc_heartbeat_info_t self;
  memset(&self, 0, sizeof(self));
  self.pid = (int32_t)getpid();
  self.interval = (uint32_t)interval;
  self.ptype = (uint32_t)type;
  ret = add_proc_heartbeat(&self);
  if (!write_line(out, format("add %" PRId32, ret)) || ret < 0) {
    proc_heartbeat_deinit(false);
    return 1;
  }

  bool stalled = false;
  std::string command;
  while (read_command((int)cmd_fd, &command)) {
    bool sent;
    if (command == "beat") {
      sent = stalled ? write_line(out, "beat skipped")
                     : write_line(out, format("beat %" PRId32, update_proc_beat_tick()));
    } else if (command == "stall") {
      stalled = true;
      sent = write_line(out, "stall 0");
    } else if (command == "exit") {
      write_line(out, format("del %" PRId32, del_proc_heartbeat_by_pid((int32_t)getpid())));
      write_line(out, format("deinit %" PRId32, proc_heartbeat_deinit(false)));
      return 0;
    } else {
      sent = write_line(out, "unknown " + command);
    }
    if (!sent) break;
  }
  // The service has gone: leave the table as a well-behaved worker would.
  fprintf(stderr, "%s: worker %ld: the service went away, leaving\n", kProgram, number);
  del_proc_heartbeat_by_pid((int32_t)getpid());
  proc_heartbeat_deinit(false);
  return 3;
}

// ---------------------------------------------------------------------------
// Service role.

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string &what) { throw Failure(what); }

// A heartbeat call whose result is not what the demo expects ends the run.
void expect(bool ok, const std::string &call, int32_t code) {
  if (!ok) fail(call + " returned " + describe(code));
}

struct Worker {
  int number = 0;
  uint32_t type = 0;
  uint32_t interval = 0;
  uint32_t mode = 0;
  pid_t pid = -1;
  int cmd_fd = -1;
  int reply_fd = -1;
  int32_t slot = -1;
  bool running = false;  // started and not yet reaped
  bool killed = false;
  bool stalled = false;
  bool left = false;  // deleted itself and exited

  std::string name() const { return format("worker %d", number); }

  void close_pipes() {
    if (cmd_fd >= 0) close(cmd_fd);
    if (reply_fd >= 0) close(reply_fd);
    cmd_fd = reply_fd = -1;
  }

  // Reads one reply line within kReplyTimeoutMs.
  std::string read_reply() {
    std::string line;
    const uint64_t deadline = now_ms() + kReplyTimeoutMs;
    for (;;) {
      const uint64_t now = now_ms();
      if (now >= deadline) fail(name() + " did not answer within 5 s");
      struct pollfd p = {reply_fd, POLLIN, 0};
      const int ready = poll(&p, 1, (int)(deadline - now));
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) fail(format("poll: %s", strerror(errno)));
      if (ready == 0) continue;
      char c;
      const ssize_t got = read(reply_fd, &c, 1);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) fail(name() + format(": reading its answer: %s", strerror(errno)));
      if (got == 0) fail(name() + " closed its pipe (did it exit?)");
      if (c == '\n') return line;
      line.push_back(c);
    }
  }

  // Reads a reply "<call> <text>" and returns the text.
  std::string read_reply_for(const std::string &call) {
    const std::string line = read_reply();
    const size_t space = line.find(' ');
    if (space == std::string::npos || line.compare(0, space, call) != 0)
      fail(name() + " answered \"" + line + "\" where \"" + call + " ...\" was expected");
    return line.substr(space + 1);
  }

  // Reads a reply "<call> <code>" and returns the code.
  int32_t read_code_for(const std::string &call) {
    const std::string text = read_reply_for(call);
    long code = 0;
    if (!parse_int(text.c_str(), INT32_MIN, INT32_MAX, &code))
      fail(name() + " answered \"" + call + " " + text + "\": not a result code");
    return (int32_t)code;
  }

  void send(const char *command) {
    if (!write_line(cmd_fd, command))
      fail(name() + format(": sending \"%s\": %s", command, strerror(errno)));
  }
};

struct Demo {
  bool quick = false;
  pid_t service_pid = 0;
  bool initialised = false;
  Worker workers[kWorkerCount];
  std::string log_file;

  Worker &worker(int number) { return workers[number - 1]; }

  // -------------------------------------------------------------------------
  // Output.

  void heading(int step, const std::string &title) {
    const std::string text = format("Step %d of 6: %s", step, title.c_str());
    printf("\n%s\n%s\n", text.c_str(), std::string(text.size(), '=').c_str());
  }

  std::string role_of(int32_t pid) const {
    if (pid == (int32_t)service_pid) return "the service (this process)";
    for (const Worker &w : workers) {
      if (w.pid != pid) continue;
      std::string role = format("worker %d (mode %" PRIu32 ")", w.number, w.mode);
      if (w.killed) role += ", killed";
      if (w.stalled) role += ", stalled";
      return role;
    }
    return "not started by the demo";
  }

  static std::string type_name(uint32_t type) {
    if (type == PROC_HEARTBEAT_TYPE_SERVICE) return "service";
    if (type == PROC_HEARTBEAT_TYPE_WATCHDOG) return "watchdog";
    if (type >= 1 && type <= 5) return format("worker-%" PRIu32, type);
    return format("type-%" PRIu32, type);
  }

  static bool process_exists(int32_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
  }

  // Last beat as an age in seconds, one decimal; the library's own test
  // truncates the same difference to whole seconds.
  static std::string age_of(uint64_t tick, uint64_t now) {
    const int64_t age = (int64_t)(now - tick);
    return format("%.1f s ago", age < 0 ? 0.0 : (double)age / 1000.0);
  }

  void print_entries(const proc_heartbeat_info_t *entries, int32_t count) {
    const uint64_t now = now_ms();
    printf("  %4s  %7s  %-9s  %8s  %12s  %-7s  %s\n", "slot", "pid", "type", "interval",
           "last beat", "process", "demo role");
    printf("  %4s  %7s  %-9s  %8s  %12s  %-7s  %s\n", "----", "-------", "---------", "--------",
           "------------", "-------", "---------------------------");
    if (count == 0) printf("  (no entries)\n");
    for (int32_t i = 0; i < count; ++i) {
      const proc_heartbeat_info_t &e = entries[i];
      printf("  %4" PRIu32 "  %7" PRId32 "  %-9s  %6" PRIu32 " s  %12s  %-7s  %s\n", e.idx, e.pid,
             type_name(e.ptype).c_str(), e.interval, age_of(e.tick, now).c_str(),
             process_exists(e.pid) ? "running" : "gone", role_of(e.pid).c_str());
    }
  }

  // Prints the table as get_all_proc_heartbeats sees it; returns the entries.
  std::vector<proc_heartbeat_info_t> print_table(const std::string &title) {
    proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
    memset(entries, 0, sizeof(entries));
    const int32_t count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
    expect(count >= 0 && count <= PROC_HEARTBEAT_MAX_PROCS, "get_all_proc_heartbeats", count);
    printf("\n  %s: %" PRId32 " %s\n", title.c_str(), count, count == 1 ? "entry" : "entries");
    print_entries(entries, count);
    return std::vector<proc_heartbeat_info_t>(entries, entries + count);
  }

  static bool holds(const std::vector<proc_heartbeat_info_t> &entries, pid_t pid) {
    for (const proc_heartbeat_info_t &e : entries)
      if (e.pid == (int32_t)pid) return true;
    return false;
  }

  // -------------------------------------------------------------------------
  // Set-up.

  void write_config() {
    FILE *file = fopen(kConfigPath, "w");
    if (file == nullptr) fail(format("cannot write %s: %s", kConfigPath, strerror(errno)));
    const bool written = fputs(kConfigText, file) >= 0;
    if (fclose(file) != 0 || !written)
      fail(format("cannot write %s: %s", kConfigPath, strerror(errno)));
  }

  void find_log_file() {
    char exe[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    std::string name = kProgram;
    if (length > 0) {
      exe[length] = '\0';
      const char *slash = strrchr(exe, '/');
      name = slash != nullptr ? slash + 1 : exe;
    }
    log_file = format("%s/%s/%s/tarn.log", kLogDir, kAutologDir, name.c_str());
  }

  void introduce() {
    printf("%s: the process heartbeat table of libtarnaux, step by step\n\n", kProgram);
    printf(
        "  sandbox        private mount namespace: fresh /dev/shm, private /etc, /var,\n"
        "                 /usr/share and /tmp; all of it vanishes when the demo ends\n");
    printf("  configuration  %s: log level 2 (info; beats log at debug and are not shown)\n",
           kConfigPath);
    printf("  library log    %s (inside the sandbox; service and workers share it)\n",
           log_file.c_str());
    printf("  processes      one service (this process) and %d workers, driven through pipes\n",
           kWorkerCount);
    if (quick) printf("  --quick        step 5 (the 60-second timeout scan) is skipped\n");
  }

  // -------------------------------------------------------------------------
  // Workers.

  void start_worker(Worker &w) {
    int cmd[2], reply[2];
    if (pipe2(cmd, O_CLOEXEC) != 0) fail(format("pipe: %s", strerror(errno)));
    if (pipe2(reply, O_CLOEXEC) != 0) {
      close(cmd[0]);
      close(cmd[1]);
      fail(format("pipe: %s", strerror(errno)));
    }
    const std::string args[] = {kProgram,
                                "--worker",
                                std::to_string(w.number),
                                std::to_string(w.type),
                                std::to_string(w.interval),
                                std::to_string(w.mode),
                                std::to_string(cmd[0]),
                                std::to_string(reply[1])};
    char *argv[9];
    for (int i = 0; i < 8; ++i) argv[i] = const_cast<char *>(args[i].c_str());
    argv[8] = nullptr;

    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
      const int error = errno;
      close(cmd[0]), close(cmd[1]), close(reply[0]), close(reply[1]);
      fail(format("fork: %s", strerror(error)));
    }
    if (pid == 0) {
      // The worker keeps its own two ends across exec; every other pipe of
      // the demo is close-on-exec.
      fcntl(cmd[0], F_SETFD, 0);
      fcntl(reply[1], F_SETFD, 0);
      execv("/proc/self/exe", argv);
      dprintf(STDERR_FILENO, "%s: cannot start worker %d: %s\n", kProgram, w.number,
              strerror(errno));
      _exit(127);
    }
    close(cmd[0]);
    close(reply[1]);
    w.pid = pid;
    w.cmd_fd = cmd[1];
    w.reply_fd = reply[0];
    w.running = true;
  }

  // Waits for a worker that is expected to end; returns its wait status.
  int reap(Worker &w) {
    int status = 0;
    pid_t got;
    while ((got = waitpid(w.pid, &status, 0)) < 0 && errno == EINTR) {
    }
    if (got != w.pid) fail(w.name() + format(": waitpid: %s", strerror(errno)));
    w.running = false;
    w.close_pipes();
    return status;
  }

  // On failure: stop every worker still running and remove the table.
  void abandon() {
    for (Worker &w : workers) {
      if (!w.running) continue;
      kill(w.pid, SIGKILL);
      while (waitpid(w.pid, nullptr, 0) < 0 && errno == EINTR) {
      }
      w.running = false;
      w.close_pipes();
    }
    if (initialised) proc_heartbeat_deinit(true);
    initialised = false;
  }

  // -------------------------------------------------------------------------
  // The steps.

  void step1_service_starts() {
    heading(1, "the service starts");
    service_pid = getpid();
    int32_t ret = proc_heartbeat_init(0);
    expect(ret == 0, "proc_heartbeat_init(0)", ret);
    initialised = true;
    printf("  service pid %d: proc_heartbeat_init(0) -> %s: table created and cleared\n",
           (int)service_pid, describe(ret).c_str());
    struct stat st;
    if (stat(kSegmentPath, &st) == 0)
      printf("  shared-memory segment %s, %lld bytes\n", kSegmentPath, (long long)st.st_size);

    proc_heartbeat_info_t self;
    memset(&self, 0, sizeof(self));
    self.pid = (int32_t)service_pid;
    self.interval = kServiceInterval;
    self.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
    ret = add_proc_heartbeat(&self);
    expect(ret >= 0 && ret < PROC_HEARTBEAT_MAX_PROCS,
           format("add_proc_heartbeat(service, interval %" PRIu32 " s)", kServiceInterval), ret);
    printf("  add_proc_heartbeat(type 0 service, interval %" PRIu32 " s) -> slot %" PRId32 "\n",
           kServiceInterval, ret);

    const auto entries = print_table("heartbeat table");
    if (entries.size() != 1 || !holds(entries, service_pid))
      fail("the table should hold the service's entry alone");
  }

  void step2_workers_register() {
    heading(2, "four workers start and register");
    printf(
        "  each worker is a process of its own: it attaches to the table\n"
        "  (proc_heartbeat_init with mode 1 or 2) and registers itself\n\n");
    static const uint32_t kIntervals[kWorkerCount] = {5, 10, 15, 20};
    for (int i = 0; i < kWorkerCount; ++i) {
      Worker &w = workers[i];
      w.number = i + 1;
      w.type = (uint32_t)(i + 1);
      w.interval = kIntervals[i];
      w.mode = i < 2 ? 1 : 2;
      start_worker(w);
      const int32_t init = w.read_code_for("init");
      expect(init == 0, w.name() + format(": proc_heartbeat_init(%" PRIu32 ")", w.mode), init);
      const int32_t slot = w.read_code_for("add");
      expect(slot >= 0 && slot < PROC_HEARTBEAT_MAX_PROCS, w.name() + ": add_proc_heartbeat", slot);
      w.slot = slot;
      printf("  worker %d  pid %7d  proc_heartbeat_init(%" PRIu32
             ") -> 0   add_proc_heartbeat("
             "type %" PRIu32 ", interval %2" PRIu32 " s) -> slot %" PRId32 "\n",
             w.number, (int)w.pid, w.mode, w.type, w.interval, slot);
    }
    const auto entries = print_table("heartbeat table");
    for (const Worker &w : workers)
      if (!holds(entries, w.pid)) fail(w.name() + " is missing from the table");
    if (entries.size() != 1 + kWorkerCount) fail("the table should hold five entries");
  }

  // The service beats: besides stamping its own entry, this clears the
  // entries of processes that no longer exist.
  void service_beat() {
    const int32_t ret = update_proc_beat_tick();
    expect(ret == PROC_HEARTBEAT_OK, "update_proc_beat_tick (service)", ret);
  }

  // Tells a worker to beat; false when it answered that it is stalled.
  bool worker_beat(Worker &w) {
    w.send("beat");
    const std::string text = w.read_reply_for("beat");
    if (text == "skipped") {
      if (!w.stalled) fail(w.name() + " skipped a beat without being told to stall");
      return false;
    }
    long code = 0;
    if (!parse_int(text.c_str(), INT32_MIN, INT32_MAX, &code))
      fail(w.name() + " answered \"beat " + text + "\"");
    expect(code == PROC_HEARTBEAT_OK, w.name() + ": update_proc_beat_tick", (int32_t)code);
    return true;
  }

  void step3_workers_beat() {
    heading(3, "the workers beat");
    for (Worker &w : workers) {
      worker_beat(w);
      printf("  worker %d  pid %7d  update_proc_beat_tick() -> 0\n", w.number, (int)w.pid);
    }
    service_beat();
    printf("  service   pid %7d  update_proc_beat_tick() -> 0 (and sweeps the table)\n",
           (int)service_pid);
    print_table("heartbeat table");
  }

  void step4_worker_killed() {
    heading(4, "a worker is killed; the service's next beat clears its entry");
    Worker &w = worker(kKilledWorker);
    printf("  sending SIGKILL to worker %d (pid %d): it cannot remove its own entry\n", w.number,
           (int)w.pid);
    if (kill(w.pid, SIGKILL) != 0) fail(w.name() + format(": kill: %s", strerror(errno)));
    const int status = reap(w);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
      fail(w.name() + format(": ended with wait status %#x instead of SIGKILL", status));
    w.killed = true;
    printf("  reaped worker %d: killed by signal %d (SIGKILL)\n", w.number, WTERMSIG(status));

    auto entries = print_table("before the service's next beat (the dead worker is still listed)");
    if (!holds(entries, w.pid)) fail(w.name() + "'s entry should still be in the table");

    service_beat();
    printf("\n  service   pid %7d  update_proc_beat_tick() -> 0\n", (int)service_pid);
    entries = print_table("after the service's beat");
    if (holds(entries, w.pid)) fail(w.name() + "'s entry should have been cleared by the sweep");

    proc_heartbeat_info_t info;
    memset(&info, 0, sizeof(info));
    const int32_t ret = get_proc_heartbeat_info((int32_t)w.pid, &info);
    expect(ret == PROC_HEARTBEAT_E_NOT_FOUND, format("get_proc_heartbeat_info(%d)", (int)w.pid),
           ret);
    printf("\n  get_proc_heartbeat_info(%d) -> %s, as expected\n", (int)w.pid,
           describe(ret).c_str());
  }

  // Beats the service and every running worker once.
  void beat_everyone() {
    service_beat();
    for (Worker &w : workers)
      if (w.running) worker_beat(w);
  }

  void step5_worker_stalls() {
    heading(5, "a worker stalls; the timeout scan reports it");
    if (quick) {
      printf("  skipped (--quick)\n");
      return;
    }
    Worker &w = worker(kStalledWorker);
    w.send("stall");
    if (w.read_code_for("stall") != 0) fail(w.name() + " did not accept \"stall\"");
    w.stalled = true;

    proc_heartbeat_info_t info;
    memset(&info, 0, sizeof(info));
    int32_t ret = get_proc_heartbeat_info((int32_t)w.pid, &info);
    expect(ret == PROC_HEARTBEAT_OK, format("get_proc_heartbeat_info(%d)", (int)w.pid), ret);
    const uint64_t last_beat = info.tick;

    printf(
        "  worker %d (pid %d) stops beating but keeps running and answering; the\n"
        "  service and the other workers beat every second. get_beat_timeout_procs\n"
        "  lists entries whose last beat is at least max_tmdf seconds old, and\n"
        "  max_tmdf cannot be below %" PRId32 ".\n\n",
        w.number, (int)w.pid, kTimeoutSeconds);
    printf("  waiting 60 s for the stalled worker to pass the 60-second minimum...\n");
    fflush(stdout);

    proc_heartbeat_info_t timed_out[PROC_HEARTBEAT_MAX_PROCS];
    int32_t found = 0;
    int32_t proc_num = 0;
    const uint64_t start = now_ms();
    // Generous: the last beat is at most a second or two older than start.
    const uint64_t give_up = start + (uint64_t)(kTimeoutSeconds + 15) * 1000u;
    int next_progress = 10;
    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (;;) {
      next.tv_sec += 1;
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
      }
      beat_everyone();
      memset(timed_out, 0, sizeof(timed_out));
      found =
          get_beat_timeout_procs(timed_out, PROC_HEARTBEAT_MAX_PROCS, kTimeoutSeconds, &proc_num);
      expect(found >= 0 && found <= PROC_HEARTBEAT_MAX_PROCS,
             format("get_beat_timeout_procs(max_tmdf %" PRId32 ")", kTimeoutSeconds), found);
      const uint64_t now = now_ms();
      const int elapsed = (int)((now - start) / 1000u);
      if (found > 0) break;
      if (elapsed >= next_progress) {
        printf("  %3d s: worker %d's last beat %s; the scan lists none of %" PRId32
               " entries yet\n",
               elapsed, w.number, age_of(last_beat, now).c_str(), proc_num);
        fflush(stdout);
        next_progress += 10;
      }
      if (now >= give_up)
        fail(format("get_beat_timeout_procs still lists nothing after %d s", elapsed));
    }
    const uint64_t now = now_ms();
    printf("  %3d s: worker %d's last beat %s; the scan lists it\n", (int)((now - start) / 1000u),
           w.number, age_of(last_beat, now).c_str());

    printf("\n  get_beat_timeout_procs(out, 64, %" PRId32 ", &proc_num) -> %" PRId32
           ", proc_num %" PRId32 ": the timed-out entries\n",
           kTimeoutSeconds, found, proc_num);
    print_entries(timed_out, found);
    if (found != 1 || timed_out[0].pid != (int32_t)w.pid)
      fail(format("the timeout scan should list worker %d (pid %d) alone", w.number, (int)w.pid));
    print_table("heartbeat table");
  }

  void step6_shutdown() {
    heading(6, "the workers remove themselves and exit; the service removes the table");
    for (Worker &w : workers) {
      if (!w.running) continue;
      w.send("exit");
      const int32_t del = w.read_code_for("del");
      expect(del == PROC_HEARTBEAT_OK, w.name() + ": del_proc_heartbeat_by_pid", del);
      const int32_t deinit = w.read_code_for("deinit");
      expect(deinit == 0, w.name() + ": proc_heartbeat_deinit(false)", deinit);
      const int status = reap(w);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        fail(w.name() + format(": ended with wait status %#x instead of exit status 0", status));
      w.left = true;
      printf(
          "  worker %d  pid %7d  del_proc_heartbeat_by_pid -> 0   proc_heartbeat_deinit(false)"
          " -> 0   exited with status 0\n",
          w.number, (int)w.pid);
    }
    const auto entries = print_table("heartbeat table");
    if (entries.size() != 1 || !holds(entries, service_pid))
      fail("only the service's entry should be left");

    const int32_t ret = proc_heartbeat_deinit(true);
    initialised = false;
    expect(ret == 0, "proc_heartbeat_deinit(true)", ret);
    printf("\n  service   pid %7d  proc_heartbeat_deinit(true) -> 0\n", (int)service_pid);
    struct stat st;
    if (stat(kSegmentPath, &st) == 0) fail(format("%s is still there after destroy", kSegmentPath));
    printf("  shared-memory segment %s: removed\n", kSegmentPath);
  }

  // The log file is gone with the sandbox, so its interesting lines are
  // shown here: every warning, then the last few lines.
  void show_log() {
    printf("\nLibrary log\n===========\n  %s\n", log_file.c_str());
    FILE *file = fopen(log_file.c_str(), "r");
    if (file == nullptr) {
      printf(
          "  (cannot read it: %s; when the library cannot create its log file, it\n"
          "  writes its lines to standard error instead)\n",
          strerror(errno));
      return;
    }
    std::vector<std::string> lines;
    char *line = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = getline(&line, &capacity, file)) >= 0) {
      if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
      lines.emplace_back(line);
    }
    free(line);
    fclose(file);

    std::vector<const std::string *> warnings;
    for (const std::string &l : lines)
      if (l.find("] [warn] [") != std::string::npos || l.find("] [error] [") != std::string::npos ||
          l.find("] [fatal] [") != std::string::npos)
        warnings.push_back(&l);
    printf("  %zu lines; %zu at warn or above:\n", lines.size(), warnings.size());
    for (const std::string *l : warnings) printf("    %s\n", l->c_str());
    const size_t first = lines.size() > kLogTailLines ? lines.size() - kLogTailLines : 0;
    printf("  the last %zu lines:\n", lines.size() - first);
    for (size_t i = first; i < lines.size(); ++i) printf("    %s\n", lines[i].c_str());
  }

  void run() {
    find_log_file();
    write_config();
    introduce();
    step1_service_starts();
    step2_workers_register();
    step3_workers_beat();
    step4_worker_killed();
    step5_worker_stalls();
    step6_shutdown();
    show_log();
  }
};

void usage(FILE *to) {
  fprintf(to,
          "usage: %s [--quick] [--help]\n"
          "\n"
          "Shows the process heartbeat table of libtarnaux at work: this process plays\n"
          "the service and starts four worker processes, and the table is printed\n"
          "after each step:\n"
          "  1  the service creates the table and registers itself\n"
          "  2  four workers attach and register\n"
          "  3  the workers beat\n"
          "  4  a worker is killed with SIGKILL; the service's next beat clears its entry\n"
          "  5  a worker stalls; the demo waits until the timeout scan lists it\n"
          "     (the scan's threshold is at least 60 s, so this step takes a minute)\n"
          "  6  the workers remove themselves and exit; the service removes the table\n"
          "At the end it shows the warnings and the last lines of the library's log.\n"
          "\n"
          "Everything happens in a private sandbox (a mount namespace of its own with a\n"
          "fresh /dev/shm and private /etc, /var, /usr/share and /tmp), which vanishes\n"
          "when the demo ends; nothing on the host is changed. Run it as root, or as a\n"
          "user where unprivileged user namespaces are allowed.\n"
          "\n"
          "options:\n"
          "  --quick   skip step 5, so that the demo ends within a second or so\n"
          "  --help    show this text\n"
          "\n"
          "Exit status: 0 when every step gave the expected result; 1 otherwise, after\n"
          "a message naming the call and its result code; 2 for a usage error.\n",
          kProgram);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && strcmp(argv[1], "--worker") == 0) return worker_main(argc, argv);

  Demo demo;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--quick") == 0) {
      demo.quick = true;
    } else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      usage(stdout);
      return 0;
    } else {
      fprintf(stderr, "%s: unknown argument: %s\n\n", kProgram, argv[i]);
      usage(stderr);
      return 2;
    }
  }

  // Still single-threaded, as the sandbox requires.
  if (tarn_sandbox_enter() != 0) {
    fprintf(stderr, "%s: cannot enter the sandbox; nothing was run\n", kProgram);
    return 1;
  }
  // A worker that dies leaves a pipe without reader; that is reported as an
  // error of the write, not as a signal.
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  try {
    demo.run();
  } catch (const Failure &failure) {
    fflush(stdout);
    fprintf(stderr, "\n%s: FAILED: %s\n", kProgram, failure.what());
    demo.abandon();
    return 1;
  }
  printf("\n%s: all steps gave the expected results\n", kProgram);
  return 0;
}
