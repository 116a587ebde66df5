// demo_heartbeat.cpp -- the heartbeat table's part of tarn-demo: the
// service (this process), four workers and the watchdog.
//
// Workers are this same program started with --worker; the watchdog is
// tarn-demo-watchdog, beside this program. Both talk through the pipes of
// demo_child.h; a worker answers
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
// the only timed waiting is the once-a-second beat of the stall step, where
// the demo lets a stalled worker's last beat grow old enough for the scan.

#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "demo.h"
#include "demo_util.h"

namespace demo {
namespace {

constexpr const char *kSegmentPath = "/dev/shm/proc_heartbeat_shm.name";
constexpr const char *kWatchdogProgram = "tarn-demo-watchdog";
constexpr uint32_t kServiceInterval = 10;
constexpr int kKilledWorker = 2;
constexpr int kStalledWorker = 3;
constexpr int32_t kTimeoutSeconds = 60;           // the scan's smallest threshold
constexpr int32_t kWatchdogTimeoutSeconds = 300;  // the watchdog's interval

std::string type_name(uint32_t type) {
  if (type == PROC_HEARTBEAT_TYPE_SERVICE) return "service";
  if (type == PROC_HEARTBEAT_TYPE_WATCHDOG) return "watchdog";
  if (type >= 1 && type <= 5) return format("worker-%" PRIu32, type);
  return format("type-%" PRIu32, type);
}

bool process_exists(int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

// Last beat as an age in seconds, one decimal.
std::string age_of(uint64_t tick, uint64_t now) {
  const int64_t age = (int64_t)(now - tick);
  return format("%.1f s ago", age < 0 ? 0.0 : (double)age / 1000.0);
}

bool holds(const std::vector<proc_heartbeat_info_t> &entries, pid_t pid) {
  for (const proc_heartbeat_info_t &e : entries)
    if (e.pid == (int32_t)pid) return true;
  return false;
}

void expect_exit_zero(Child &child, int status) {
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    fail(child.name + format(": ended with wait status %#x instead of exit status 0", status));
}

}  // namespace

// ---------------------------------------------------------------------------
// The worker role.

int worker_main(int argc, char **argv) {
  long number = 0, type = 0, interval = 0, mode = 0, cmd_fd = -1, reply_fd = -1;
  if (argc != 8 || !parse_int(argv[2], 1, kWorkerCount, &number) ||
      !parse_int(argv[3], 1, 5, &type) || !parse_int(argv[4], 1, 59, &interval) ||
      !parse_int(argv[5], 0, INT_MAX, &mode) || !parse_int(argv[6], 0, INT_MAX, &cmd_fd) ||
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
  while (read_line((int)cmd_fd, &command)) {
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
// Output.

std::string Heartbeats::role_of(int32_t pid) const {
  if (pid == (int32_t)service_pid_) return "the service (this process)";
  for (const Worker &w : workers_) {
    if (w.process.pid != pid) continue;
    std::string role = format("worker %d (mode %" PRIu32 ")", w.number, w.mode);
    if (w.killed) role += ", killed";
    if (w.stalled) role += ", stalled";
    return role;
  }
  return "not started by the demo";
}

void Heartbeats::print_entries(const proc_heartbeat_info_t *entries, int32_t count) {
  const uint64_t now = now_ms();
  printf("  %4s  %7s  %-9s  %8s  %12s  %-7s  %s\n", "slot", "pid", "type", "interval", "last beat",
         "process", "demo role");
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
std::vector<proc_heartbeat_info_t> Heartbeats::print_table(const std::string &title) {
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  memset(entries, 0, sizeof(entries));
  const int32_t count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
  expect(count >= 0 && count <= PROC_HEARTBEAT_MAX_PROCS, "get_all_proc_heartbeats", count);
  printf("\n  %s: %" PRId32 " %s\n", title.c_str(), count, count == 1 ? "entry" : "entries");
  print_entries(entries, count);
  return std::vector<proc_heartbeat_info_t>(entries, entries + count);
}

// The number of occupied slots, the watchdog's included, as the timeout
// scan reports it; the scan itself must list nobody (everyone beat lately).
int32_t Heartbeats::occupied_slots() {
  proc_heartbeat_info_t timed_out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t proc_num = -1;
  const int32_t found =
      get_beat_timeout_procs(timed_out, PROC_HEARTBEAT_MAX_PROCS, kTimeoutSeconds, &proc_num);
  expect(found == 0, format("get_beat_timeout_procs(max_tmdf %" PRId32 ")", kTimeoutSeconds),
         found);
  return proc_num;
}

// ---------------------------------------------------------------------------
// The cast.

void Heartbeats::start_worker(Worker &w) {
  w.process.name = format("worker %d", w.number);
  w.process.start(program_path(), {"--worker", std::to_string(w.number), std::to_string(w.type),
                                   std::to_string(w.interval), std::to_string(w.mode)});
}

// The service beats: besides stamping its own entry, this clears the
// entries of processes that no longer exist.
void Heartbeats::service_beat() {
  const int32_t ret = update_proc_beat_tick();
  expect(ret == PROC_HEARTBEAT_OK, "update_proc_beat_tick (service)", ret);
}

// Tells a worker to beat; false when it answered that it is stalled.
bool Heartbeats::worker_beat(Worker &w) {
  w.process.send("beat");
  const std::string text = w.process.read_reply_for("beat");
  if (text == "skipped") {
    if (!w.stalled) fail(w.process.name + " skipped a beat without being told to stall");
    return false;
  }
  long code = 0;
  if (!parse_int(text.c_str(), INT32_MIN, INT32_MAX, &code))
    fail(w.process.name + " answered \"beat " + text + "\"");
  expect(code == PROC_HEARTBEAT_OK, w.process.name + ": update_proc_beat_tick", code);
  return true;
}

// Beats the service and every running worker once.
void Heartbeats::beat_everyone() {
  service_beat();
  for (Worker &w : workers_)
    if (w.process.running) worker_beat(w);
}

// Asks the watchdog whether its own last beat is threshold seconds old;
// returns the result code of its check.
int32_t Heartbeats::watchdog_check(int32_t threshold, bool *timed_out) {
  watchdog_.send(format("check %" PRId32, threshold));
  const std::string text = watchdog_.read_reply_for("check");
  long code = 0;
  const size_t space = text.find(' ');
  if (space == std::string::npos ||
      !parse_int(text.substr(0, space).c_str(), INT32_MIN, INT32_MAX, &code))
    fail("the watchdog answered \"check " + text + "\"");
  *timed_out = text.substr(space + 1) == "yes";
  return (int32_t)code;
}

// ---------------------------------------------------------------------------
// The steps.

void Heartbeats::service_starts() {
  stage_.heading("the service starts and creates the heartbeat table",
                 "The service is the first process of the agent: it creates the shared table\n"
                 "(and clears what an earlier run left in it) and registers itself, type 0.");
  service_pid_ = getpid();
  int32_t ret = proc_heartbeat_init(0);
  expect(ret == 0, "proc_heartbeat_init(0)", ret);
  initialised_ = true;
  printf("  service pid %d: proc_heartbeat_init(0) -> %s: table created and cleared\n",
         (int)service_pid_, describe_heartbeat(ret).c_str());
  struct stat st;
  if (stat(kSegmentPath, &st) != 0) fail(format("%s does not exist after init", kSegmentPath));
  printf("  shared-memory segment %s, %lld bytes\n", kSegmentPath, (long long)st.st_size);

  proc_heartbeat_info_t self;
  memset(&self, 0, sizeof(self));
  self.pid = (int32_t)service_pid_;
  self.interval = kServiceInterval;
  self.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  ret = add_proc_heartbeat(&self);
  expect(ret >= 0 && ret < PROC_HEARTBEAT_MAX_PROCS,
         format("add_proc_heartbeat(service, interval %" PRIu32 " s)", kServiceInterval), ret);
  printf("  add_proc_heartbeat(type 0 service, interval %" PRIu32 " s) -> slot %" PRId32 "\n",
         kServiceInterval, ret);

  const auto entries = print_table("heartbeat table");
  if (entries.size() != 1 || !holds(entries, service_pid_))
    fail("the table should hold the service's entry alone");
}

void Heartbeats::workers_register() {
  stage_.heading("four workers start and register",
                 "Each worker is a process of its own (fork, then exec of this program): it\n"
                 "attaches to the service's table (mode 1 or 2) and registers its pid, type\n"
                 "and beat interval, so that the service can tell whether it is alive.");
  static const uint32_t kIntervals[kWorkerCount] = {5, 10, 15, 20};
  for (int i = 0; i < kWorkerCount; ++i) {
    Worker &w = workers_[i];
    w.number = i + 1;
    w.type = (uint32_t)(i + 1);
    w.interval = kIntervals[i];
    w.mode = i < 2 ? 1 : 2;
    start_worker(w);
    const int32_t init = w.process.read_code_for("init");
    expect(init == 0, w.process.name + format(": proc_heartbeat_init(%" PRIu32 ")", w.mode), init);
    const int32_t slot = w.process.read_code_for("add");
    expect(slot >= 0 && slot < PROC_HEARTBEAT_MAX_PROCS, w.process.name + ": add_proc_heartbeat",
           slot);
    printf("  worker %d  pid %7d  proc_heartbeat_init(%" PRIu32
           ") -> 0   add_proc_heartbeat(type %" PRIu32 ", interval %2" PRIu32 " s) -> slot %" PRId32
           "\n",
           w.number, (int)w.process.pid, w.mode, w.type, w.interval, slot);
  }
  const auto entries = print_table("heartbeat table");
  for (const Worker &w : workers_)
    if (!holds(entries, w.process.pid)) fail(w.process.name + " is missing from the table");
  if (entries.size() != 1 + kWorkerCount) fail("the table should hold five entries");
}

void Heartbeats::workers_beat() {
  stage_.heading("the workers beat",
                 "A beat stamps the caller's entry with the current tick; the service's own\n"
                 "beat also sweeps the table of processes that no longer exist.");
  for (Worker &w : workers_) {
    worker_beat(w);
    printf("  worker %d  pid %7d  update_proc_beat_tick() -> 0\n", w.number, (int)w.process.pid);
  }
  service_beat();
  printf("  service   pid %7d  update_proc_beat_tick() -> 0 (and sweeps the table)\n",
         (int)service_pid_);
  print_table("heartbeat table");
}

void Heartbeats::watchdog_joins() {
  stage_.heading("the watchdog adds its slot; the operator looks at the table",
                 "The watchdog keeps a slot of its own (pid -1, type 6, a five-minute\n"
                 "interval) that no process can take, the sweep never clears and the\n"
                 "listings skip. tarnctl status is what a support engineer sees.");
  const std::string program = dir_of(program_path()) + "/" + kWatchdogProgram;
  if (access(program.c_str(), X_OK) != 0)
    fail(program + format(": %s (it is built with tarn-demo)", strerror(errno)));
  watchdog_.name = "the watchdog";
  watchdog_.start(program, {});
  const int32_t init = watchdog_.read_code_for("init");
  expect(init == 0, "the watchdog: proc_heartbeat_init(2)", init);
  const int32_t added = watchdog_.read_code_for("add");
  expect(added == 0, "the watchdog: add_wtdog_heartbeat", added);
  printf("  watchdog  pid %7d  proc_heartbeat_init(2) -> 0   add_wtdog_heartbeat() -> 0\n",
         (int)watchdog_.pid);
  watchdog_.send("beat");
  const int32_t beat = watchdog_.read_code_for("beat");
  expect(beat == 0, "the watchdog: update_wtdog_beat_tick", beat);
  printf("  watchdog  update_wtdog_beat_tick() -> 0\n");
  bool timed_out = true;
  int32_t checked = watchdog_check(kWatchdogTimeoutSeconds, &timed_out);
  expect(checked == PROC_HEARTBEAT_OK && !timed_out,
         format("the watchdog: check_wtdog_beat_timeout(%" PRId32 ")", kWatchdogTimeoutSeconds),
         checked);
  printf("  watchdog  check_wtdog_beat_timeout(%" PRId32 ") -> 0, timed out: no\n",
         kWatchdogTimeoutSeconds);
  checked = watchdog_check(kWatchdogTimeoutSeconds - 1, &timed_out);
  expect(checked == PROC_HEARTBEAT_E_INVALID_PARAM,
         format("the watchdog: check_wtdog_beat_timeout(%" PRId32 ")", kWatchdogTimeoutSeconds - 1),
         checked);
  printf("  watchdog  check_wtdog_beat_timeout(%" PRId32
         ") -> %s: its threshold is five minutes at least\n",
         kWatchdogTimeoutSeconds - 1, describe_heartbeat(checked).c_str());

  const auto entries = print_table("heartbeat table (the watchdog's slot is not listed)");
  const int32_t occupied = occupied_slots();
  if (occupied != (int32_t)entries.size() + 1)
    fail(format("%" PRId32 " occupied slots; the listing and the watchdog make %zu", occupied,
                entries.size() + 1));
  printf("  get_beat_timeout_procs reports %" PRId32
         " occupied slots: the %zu listed and the watchdog's\n",
         occupied, entries.size());

  std::vector<std::string> rows;
  for (const proc_heartbeat_info_t &e : entries) rows.push_back(format(" %-7" PRId32 " ", e.pid));
  rows.push_back("service");
  printf("\n");
  stage_.tarnctl({"status"}, 0, rows);
}

void Heartbeats::worker_killed() {
  stage_.heading("a worker is killed; the service's next beat clears its entry",
                 "A process that dies cannot remove its own entry; the service's sweep does\n"
                 "it, so that the table never claims a dead process is alive.");
  Worker &w = worker(kKilledWorker);
  printf("  sending SIGKILL to worker %d (pid %d)\n", w.number, (int)w.process.pid);
  if (kill(w.process.pid, SIGKILL) != 0)
    fail(w.process.name + format(": kill: %s", strerror(errno)));
  const int status = w.process.reap();
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
    fail(w.process.name + format(": ended with wait status %#x instead of SIGKILL", status));
  w.killed = true;
  printf("  reaped worker %d: killed by signal %d (SIGKILL)\n", w.number, WTERMSIG(status));

  auto entries = print_table("before the service's next beat (the dead worker is still listed)");
  if (!holds(entries, w.process.pid)) fail(w.process.name + "'s entry should still be there");

  service_beat();
  printf("\n  service   pid %7d  update_proc_beat_tick() -> 0\n", (int)service_pid_);
  entries = print_table("after the service's beat");
  if (holds(entries, w.process.pid))
    fail(w.process.name + "'s entry should have been cleared by the sweep");

  proc_heartbeat_info_t info;
  memset(&info, 0, sizeof(info));
  const int32_t ret = get_proc_heartbeat_info((int32_t)w.process.pid, &info);
  expect(ret == PROC_HEARTBEAT_E_NOT_FOUND,
         format("get_proc_heartbeat_info(%d)", (int)w.process.pid), ret);
  printf("\n  get_proc_heartbeat_info(%d) -> %s, as expected\n", (int)w.process.pid,
         describe_heartbeat(ret).c_str());
}

void Heartbeats::worker_stalls() {
  stage_.heading("a worker stalls; the timeout scan reports it",
                 "A process that hangs still exists, so the sweep keeps it; a supervisor\n"
                 "finds it by the age of its last beat (at least 60 s).");
  if (quick_) {
    printf("  skipped (--quick)\n");
    return;
  }
  Worker &w = worker(kStalledWorker);
  w.process.send("stall");
  if (w.process.read_code_for("stall") != 0) fail(w.process.name + " did not accept \"stall\"");
  w.stalled = true;

  proc_heartbeat_info_t info;
  memset(&info, 0, sizeof(info));
  const int32_t ret = get_proc_heartbeat_info((int32_t)w.process.pid, &info);
  expect(ret == PROC_HEARTBEAT_OK, format("get_proc_heartbeat_info(%d)", (int)w.process.pid), ret);
  const uint64_t last_beat = info.tick;

  printf(
      "  worker %d (pid %d) stops beating but keeps running and answering; the\n"
      "  service and the other workers beat every second.\n\n",
      w.number, (int)w.process.pid);
  printf("  waiting about 60 s for the stalled worker to pass the 60-second minimum...\n");
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
    found = get_beat_timeout_procs(timed_out, PROC_HEARTBEAT_MAX_PROCS, kTimeoutSeconds, &proc_num);
    expect(found >= 0 && found <= PROC_HEARTBEAT_MAX_PROCS,
           format("get_beat_timeout_procs(max_tmdf %" PRId32 ")", kTimeoutSeconds), found);
    const uint64_t now = now_ms();
    const int elapsed = (int)((now - start) / 1000u);
    if (found > 0) break;
    if (elapsed >= next_progress) {
      printf("  %3d s: worker %d's last beat %s; the scan lists none of the %" PRId32
             " occupied slots yet (still waiting)\n",
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
         ", proc_num %" PRId32 " (the watchdog's slot counted): the timed-out entries\n",
         kTimeoutSeconds, found, proc_num);
  print_entries(timed_out, found);
  if (found != 1 || timed_out[0].pid != (int32_t)w.process.pid)
    fail(format("the timeout scan should list worker %d (pid %d) alone", w.number,
                (int)w.process.pid));
  print_table("heartbeat table");
}

// A worker removes its entry, detaches and exits.
void Heartbeats::leave(Worker &w) {
  w.process.send("exit");
  const int32_t del = w.process.read_code_for("del");
  expect(del == PROC_HEARTBEAT_OK, w.process.name + ": del_proc_heartbeat_by_pid", del);
  const int32_t deinit = w.process.read_code_for("deinit");
  expect(deinit == 0, w.process.name + ": proc_heartbeat_deinit(false)", deinit);
  expect_exit_zero(w.process, w.process.reap());
  printf(
      "  worker %d  pid %7d  del_proc_heartbeat_by_pid -> 0   proc_heartbeat_deinit(false)"
      " -> 0   exited with status 0\n",
      w.number, (int)w.process.pid);
}

void Heartbeats::shutdown() {
  stage_.heading("the processes stop; the service removes the table",
                 "Workers that stop remove their own entries; the watchdog's slot stays\n"
                 "until the service's next start clears the table, and the service, last,\n"
                 "removes the shared segment.");
  for (Worker &w : workers_)
    if (w.process.running) leave(w);

  watchdog_.send("exit");
  const int32_t deinit = watchdog_.read_code_for("deinit");
  expect(deinit == 0, "the watchdog: proc_heartbeat_deinit(false)", deinit);
  expect_exit_zero(watchdog_, watchdog_.reap());
  printf("  watchdog  pid %7d  proc_heartbeat_deinit(false) -> 0   exited with status 0\n",
         (int)watchdog_.pid);

  const auto entries = print_table("heartbeat table");
  if (entries.size() != 1 || !holds(entries, service_pid_))
    fail("only the service's entry should be listed");
  const int32_t occupied = occupied_slots();
  if (occupied != 2)
    fail(format("%" PRId32 " occupied slots; the service's and the watchdog's make 2", occupied));
  printf("  occupied slots: 2, the service's and the watchdog's\n");

  const int32_t ret = proc_heartbeat_deinit(true);
  initialised_ = false;
  expect(ret == 0, "proc_heartbeat_deinit(true)", ret);
  printf("\n  service   pid %7d  proc_heartbeat_deinit(true) -> 0\n", (int)service_pid_);
  struct stat st;
  if (stat(kSegmentPath, &st) == 0) fail(format("%s is still there after destroy", kSegmentPath));
  printf("  shared-memory segment %s: removed\n", kSegmentPath);
}

void Heartbeats::abandon() {
  for (Worker &w : workers_) w.process.abandon();
  watchdog_.abandon();
  if (initialised_) proc_heartbeat_deinit(true);
  initialised_ = false;
}

}  // namespace demo
