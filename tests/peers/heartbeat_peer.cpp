// heartbeat_peer -- a process that a test drives through pipes to share the
// heartbeat table and its global lock with other processes, possibly of
// another word width (a 32-bit peer beside 64-bit ones).
//
// It links the real libtarnaux.so and libtarnbase.so and calls only their
// exported functions. It reads one command per line on standard input and
// answers each with exactly one line on standard output, flushed at once,
// so that the driver needs no sleeps:
//
//   init MODE           ok RET   proc_heartbeat_init(MODE)
//   deinit DESTROY      ok RET   proc_heartbeat_deinit(DESTROY, 0 or 1)
//   add PTYPE INTERVAL  ok RET   add_proc_heartbeat of this process (idx 0)
//   beat                ok RET   update_proc_beat_tick()
//   del                 ok RET   del_proc_heartbeat_by_pid(this process)
//   all                 ok N pid:idx:interval:ptype:tick ...
//                                get_all_proc_heartbeats, one word per entry
//   lock TIMEOUT_MS     ok RET   tarn_glock_acquire_timeout on the table's
//                                lock (opened on first use); held until unlock
//   unlock              ok RET   tarn_glock_release (EPERM when the lock was
//                                never opened)
//   trylock NAME TIMEOUT_MS
//                       ok RET CPU_US
//                                opens the lock NAME and tries to take it,
//                                waiting at most TIMEOUT_MS; gives it back
//                                when taken. CPU_US: the CPU time, user and
//                                system, that the waiting used (getrusage)
//   layout              ok SIZE OFF_PID OFF_IDX OFF_INTERVAL OFF_PTYPE OFF_TICK BITS
//                                the record's size and field offsets, and
//                                the pointer width of this build
//   pid                 ok PID
//   exit                (no answer) exits with status 0, as does end of input
//
// A command that is not known is answered "err unknown"; a known command
// with missing or malformed arguments is answered "err usage". Log lines of
// the libraries go to standard error, never to standard output.

#include <errno.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include <tarnbase/tarn_glock.h>

#include "tarn_heartbeat.h"

namespace {

const char kTableName[] = "proc_heartbeat_shm.name";

tarn_glock_t *g_lock = nullptr;

void answer(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void answer(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vfprintf(stdout, fmt, args);
  va_end(args);
  fputc('\n', stdout);
  fflush(stdout);
}

// Answers a known command whose arguments are missing or malformed.
bool usage() {
  answer("err usage");
  return true;
}

// Splits line into at most max words separated by blanks; returns the count,
// or max + 1 when there are more.
size_t split(char *line, char **words, size_t max) {
  size_t count = 0;
  char *save = nullptr;
  for (char *word = strtok_r(line, " \t\r", &save); word != nullptr;
       word = strtok_r(nullptr, " \t\r", &save)) {
    if (count == max) return max + 1;
    words[count++] = word;
  }
  return count;
}

bool parse_u32(const char *text, uint32_t *value) {
  if (text == nullptr || *text == '\0' || *text == '-') return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long parsed = strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || parsed > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(parsed);
  return true;
}

void do_all() {
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  memset(entries, 0, sizeof(entries));
  int32_t count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
  std::string line = "ok " + std::to_string(count);
  for (int32_t i = 0; i < count && i < PROC_HEARTBEAT_MAX_PROCS; ++i) {
    char word[96];
    snprintf(word, sizeof(word), " %" PRId32 ":%" PRIu32 ":%" PRIu32 ":%" PRIu32 ":%" PRIu64,
             entries[i].pid, entries[i].idx, entries[i].interval, entries[i].ptype,
             entries[i].tick);
    line += word;
  }
  answer("%s", line.c_str());
}

void do_lock(uint32_t timeout_ms) {
  if (g_lock == nullptr) {
    int ret = tarn_glock_init(kTableName, &g_lock);
    if (ret != 0) {
      g_lock = nullptr;
      answer("ok %d", ret);
      return;
    }
  }
  answer("ok %d", tarn_glock_acquire_timeout(g_lock, timeout_ms));
}

void do_unlock() {
  // Without an open handle there is nothing this process could hold.
  answer("ok %d", g_lock == nullptr ? EPERM : tarn_glock_release(g_lock));
}

int64_t cpu_us() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (int64_t)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000 +
         usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

void do_trylock(const char *name, uint32_t timeout_ms) {
  tarn_glock_t *lock = nullptr;
  const int opened = tarn_glock_init(name, &lock);
  if (opened != 0) {
    answer("ok %d 0", opened);
    return;
  }
  const int64_t before = cpu_us();
  const int ret = tarn_glock_acquire_timeout(lock, timeout_ms);
  const int64_t used = cpu_us() - before;
  if (ret == 0) tarn_glock_release(lock);
  tarn_glock_destroy(lock);
  answer("ok %d %" PRId64, ret, used);
}

// Runs one command line; returns false when the peer is to exit.
bool run(char *line) {
  // No command takes more than two arguments; a longer line gets "err usage"
  // from its command's argument check (or "err unknown").
  char *words[4];
  size_t count = split(line, words, 4);
  if (count == 0) {
    answer("err unknown");
    return true;
  }
  const std::string command = words[0];
  const size_t nargs = count - 1;
  uint32_t a = 0;
  uint32_t b = 0;

  if (command == "exit") return false;

  if (command == "init") {
    if (nargs != 1 || !parse_u32(words[1], &a)) return usage();
    answer("ok %" PRId32, proc_heartbeat_init(a));
  } else if (command == "deinit") {
    if (nargs != 1 || !parse_u32(words[1], &a) || a > 1) return usage();
    answer("ok %" PRId32, proc_heartbeat_deinit(a == 1));
  } else if (command == "add") {
    if (nargs != 2 || !parse_u32(words[1], &a) || !parse_u32(words[2], &b))
      return usage();
    proc_heartbeat_info_t info;
    memset(&info, 0, sizeof(info));
    info.pid = static_cast<int32_t>(getpid());
    info.idx = 0;
    info.ptype = a;
    info.interval = b;
    answer("ok %" PRId32, add_proc_heartbeat(&info));
  } else if (command == "beat") {
    if (nargs != 0) return usage();
    answer("ok %" PRId32, update_proc_beat_tick());
  } else if (command == "del") {
    if (nargs != 0) return usage();
    answer("ok %" PRId32, del_proc_heartbeat_by_pid(static_cast<int32_t>(getpid())));
  } else if (command == "all") {
    if (nargs != 0) return usage();
    do_all();
  } else if (command == "lock") {
    if (nargs != 1 || !parse_u32(words[1], &a)) return usage();
    do_lock(a);
  } else if (command == "trylock") {
    if (nargs != 2 || !parse_u32(words[2], &a)) return usage();
    do_trylock(words[1], a);
  } else if (command == "unlock") {
    if (nargs != 0) return usage();
    do_unlock();
  } else if (command == "layout") {
    if (nargs != 0) return usage();
    answer("ok %zu %zu %zu %zu %zu %zu %zu", sizeof(proc_heartbeat_info_t),
           offsetof(proc_heartbeat_info_t, pid), offsetof(proc_heartbeat_info_t, idx),
           offsetof(proc_heartbeat_info_t, interval), offsetof(proc_heartbeat_info_t, ptype),
           offsetof(proc_heartbeat_info_t, tick), sizeof(void *) * 8);
  } else if (command == "pid") {
    if (nargs != 0) return usage();
    answer("ok %d", static_cast<int>(getpid()));
  } else {
    answer("err unknown");
  }
  return true;
}

}  // namespace

int main() {
  char *line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&line, &capacity, stdin)) >= 0) {
    if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
    if (!run(line)) break;
  }
  free(line);
  return 0;
}
