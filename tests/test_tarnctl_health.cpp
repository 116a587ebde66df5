// tarnctl status, doctor and metrics as an on-call engineer runs them:
// against a heartbeat table that real processes registered in (the test
// process as the service, forked workers, one that has ended, one whose
// recorded identity is no longer its pid's), a watchdog slot, damaged
// tables, and a real app home record; the built program is started as a
// child and its output, its --json answer (against the schema of
// docs/tarnctl.md) and its exit status are checked.
//
// Ages are made by moving an entry's last beat back (the tick is in the
// table), never by waiting: each age is checked to lie between what was set
// and that plus the time the run took.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <jansson.h>
#include <tarn_heartbeat.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_time.h>

#include "child_process.h"
#include "files.h"
#include "install_root.h"
#include "manifests.h"
#include "tarnctl_run.h"

namespace {

using tarn_test::dump;
using tarn_test::lines_of;
using tarn_test::Outcome;
using tarn_test::tarnctl;
using tarn_test::words_of;

void drop_log_line(void *, uint32_t, const char *, size_t) {}

// The table's and the side segment's layout (docs/heartbeat.md).
constexpr size_t kTableSize = 1544;
constexpr size_t kSideSize = 2608;
constexpr size_t kIdentityOffset = 48;
constexpr char kOddName[] = "a\\b\"c\nd";

// A read-write view of the shared segments, for the faults and ages the
// test sets.
class Segment {
 public:
  Segment(const char *name, size_t size) : size_(size) {
    const int fd = shm_open(name, O_RDWR, 0);
    if (fd >= 0) {
      void *base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      close(fd);
      if (base != MAP_FAILED) base_ = (uint8_t *)base;
    }
  }
  ~Segment() {
    if (base_ != nullptr) munmap(base_, size_);
  }
  uint8_t *base() const { return base_; }

 private:
  uint8_t *base_ = nullptr;
  size_t size_;
};

struct TableFaults {
  Segment table{"/proc_heartbeat_shm.name", kTableSize};
  Segment side{"/proc_heartbeat_shm.name.ident", kSideSize};

  uint32_t *magic() { return (uint32_t *)table.base(); }
  int32_t *proc_num() { return (int32_t *)(table.base() + 4); }
  proc_heartbeat_info_t *entry(uint32_t slot) { return (proc_heartbeat_info_t *)(table.base() + 8) + slot; }
  tarn_process_identity_t *identity(uint32_t slot) {
    return (tarn_process_identity_t *)(side.base() + kIdentityOffset) + slot;
  }
  // The entry's last beat, ms before now.
  void age(uint32_t slot, uint64_t ms) { entry(slot)->tick = tarn_time_get_tick_cout() - ms; }
  // The watchdog's slot as the library writes it: pid -1, type 6, 300 s.
  void add_watchdog(uint32_t slot, uint64_t age_ms) {
    *entry(slot) = proc_heartbeat_info_t{-1, slot, 300, PROC_HEARTBEAT_TYPE_WATCHDOG, 0};
    age(slot, age_ms);
    ++*proc_num();
  }
};

pid_t idle_child() {
  return tarn_test::fork_child([] {
    for (;;) pause();
    return 0;
  });
}

int32_t add(pid_t pid, uint32_t interval, uint32_t type) {
  proc_heartbeat_info_t info = {pid, 0, interval, type, 0};
  return add_proc_heartbeat(&info);
}

// This process's name and executable as another process sees them in
// /proc/PID (tarnctl does). /proc/self is not used: an emulator such as
// qemu-user answers for it with the emulated program, where other
// processes see the emulator.
std::string self_name() {
  std::string name = tarn_test::read_file("/proc/" + std::to_string(getpid()) + "/comm");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return name.substr(0, 15);
}

std::string self_executable() {
  // Relative to /proc, which the emulator does not take for its own.
  const int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (proc < 0) return "";
  char path[4096];
  const ssize_t length = readlinkat(proc, (std::to_string(getpid()) + "/exe").c_str(), path, sizeof(path) - 1);
  close(proc);
  return length > 0 ? std::string(path, (size_t)length) : "";
}

// The column layout of status's rows.
std::string row(const std::string &slot, const std::string &pid, const std::string &name, const std::string &type,
                const std::string &interval, const std::string &age, const std::string &state,
                const std::string &executable) {
  char text[1024];
  snprintf(text, sizeof(text), "%-4s %-7s %-15s %-9s %-10s %-7s %-9s %s", slot.c_str(), pid.c_str(), name.c_str(),
           type.c_str(), interval.c_str(), age.c_str(), state.c_str(), executable.c_str());
  return text;
}

class HealthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_log_register(drop_log_line, nullptr);
    tarn_test::clear_install_root();
    std::error_code ignored;
    std::filesystem::remove_all("/etc/velmora/keys.d", ignored);
    ASSERT_EQ(proc_heartbeat_init(0), 0);
  }
  void TearDown() override {
    for (const pid_t pid : children_) tarn_test::kill_and_reap(pid);
    proc_heartbeat_deinit(true);
  }

  // A live worker registered with interval and type, in slot `slot`.
  pid_t worker(uint32_t interval, uint32_t type, int32_t slot) {
    const pid_t pid = idle_child();
    children_.push_back(pid);
    EXPECT_EQ(add(pid, interval, type), slot);
    return pid;
  }

  // The whole cast: the test process as the service (slot 0, 5 s), workers
  // that are ok (1), late (2), timed out (3), dead (4) and whose pid went to
  // another process (5), and the watchdog (6).
  void register_everyone() {
    ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
    ok_ = worker(10, 3, 1);
    late_ = worker(1, 3, 2);
    timed_out_ = worker(10, 2, 3);
    dead_ = idle_child();
    ASSERT_EQ(add(dead_, 10, 4), 4);
    tarn_test::kill_and_reap(dead_);
    reused_ = worker(10, 5, 5);
    TableFaults faults;
    ASSERT_NE(faults.table.base(), nullptr);
    ASSERT_NE(faults.side.base(), nullptr);
    // The recorded identity is of another process that had the same pid:
    // it started earlier.
    ASSERT_EQ(faults.identity(5)->pid, reused_);
    faults.identity(5)->start_time -= 1;
    faults.age(0, 500);
    faults.age(1, 3500);
    faults.age(2, 2500);
    faults.age(3, 61500);
    faults.age(4, 4500);
    faults.age(5, 5500);
    faults.add_watchdog(6, 12500);
  }

  // A live worker named kOddName (which needs every escape of a label
  // value, and holds a line end), registered with type 1 in slot `slot`.
  pid_t odd_named_worker(int32_t slot) {
    const pid_t pid = tarn_test::fork_child([] {
      prctl(PR_SET_NAME, kOddName, 0, 0, 0);
      for (;;) pause();
      return 0;
    });
    children_.push_back(pid);
    // The child names itself after the fork; its name is read until then.
    while (tarn_test::read_file("/proc/" + std::to_string(pid) + "/comm") != std::string(kOddName) + "\n") {
      EXPECT_NE(tarn_process_is_exist(pid), 0);
    }
    EXPECT_EQ(add(pid, 10, 1), slot);
    return pid;
  }

  std::vector<pid_t> children_;
  pid_t ok_ = -1, late_ = -1, timed_out_ = -1, dead_ = -1, reused_ = -1;
};

// Checks that text's age column (seconds, one decimal) lies between set_ms
// and set_ms plus span_ms, and replaces it with "AGE".
void check_age(std::string *age, uint64_t set_ms, uint64_t span_ms) {
  const double seconds = atof(age->c_str());
  EXPECT_GE(seconds, (double)set_ms / 1000 - 0.05) << *age;
  EXPECT_LE(seconds, (double)(set_ms + span_ms) / 1000 + 0.05) << *age;
  *age = "AGE";
}

// status's output with every row's age and the watchdog's checked and
// replaced by AGE (ages[i] is row i's set age; the watchdog's is last).
std::string with_ages_checked(const std::string &out, const std::vector<uint64_t> &ages, uint64_t span_ms) {
  std::vector<std::string> lines = lines_of(out);
  std::string text;
  size_t next = 0;
  bool rows = false;
  for (std::string &line : lines) {
    if (rows && line.rfind("watchdog: slot", 0) == 0 && next < ages.size()) {
      std::smatch match;
      std::regex pattern("age ([0-9.]+) s");
      if (std::regex_search(line, match, pattern)) {
        std::string age = match[1];
        check_age(&age, ages[next++], span_ms);
        line = match.prefix().str() + "age AGE s" + match.suffix().str();
      }
    } else if (rows && line.rfind("watchdog:", 0) != 0 && line.rfind("status:", 0) != 0 && next < ages.size()) {
      std::vector<std::string> words = words_of(line);
      if (words.size() >= 8) {
        check_age(&words[5], ages[next++], span_ms);
        std::string executable;
        for (size_t i = 7; i < words.size(); ++i) executable += (i == 7 ? "" : " ") + words[i];
        line = row(words[0], words[1], words[2], words[3], words[4], words[5], words[6], executable);
      }
    }
    if (line.rfind("SLOT ", 0) == 0) rows = true;
    text += line + "\n";
  }
  EXPECT_EQ(next, ages.size()) << out;
  return text;
}

// ---------------------------------------------------------------------------
// status

// status's first lines for an intact table of `occupied` slots, whose
// watchdog is in watchdog_slot, and the rows' header.
std::string intact_head(int occupied, int watchdog_slot) {
  return "integrity: ok\n"
         "  magic      ok  12321\n"
         "  proc_num   ok  " + std::to_string(occupied) + ", " + std::to_string(occupied) + " slots occupied\n" +
         "  watchdog   ok  slot " + std::to_string(watchdog_slot) + "\n" +
         "  library    ok  the library lists " + std::to_string(occupied - 1) + " of " +
         std::to_string(occupied - 1) + " process entries\n" +
         "  journal    ok  no change left half-made\n" +
         row("SLOT", "PID", "NAME", "TYPE", "INTERVAL_S", "AGE_S", "STATE", "EXECUTABLE") + "\n";
}

TEST_F(HealthTest, StatusJudgesEveryEntryAndShowsTheWatchdog) {
  const uint64_t before = tarn_test::monotonic_ms();
  register_everyone();
  const Outcome outcome = tarnctl({"status"});
  const uint64_t span = tarn_test::monotonic_ms() - before;
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  const std::string name = self_name();
  const std::string exe = self_executable();
  const std::string id = std::to_string(getpid());
  EXPECT_EQ(with_ages_checked(outcome.out, {500, 3500, 2500, 61500, 4500, 5500, 12500}, span),
            intact_head(7, 6) +
                row("0", id, name, "service", "5", "AGE", "ok", exe) + "\n" +
                row("1", std::to_string(ok_), name, "worker(3)", "10", "AGE", "ok", exe) + "\n" +
                row("2", std::to_string(late_), name, "worker(3)", "1", "AGE", "late", exe) + "\n" +
                row("3", std::to_string(timed_out_), name, "worker(2)", "10", "AGE", "timed-out", exe) + "\n" +
                row("4", std::to_string(dead_), "-", "worker(4)", "10", "AGE", "dead", "-") + "\n" +
                row("5", std::to_string(reused_), name, "worker(5)", "10", "AGE", "reused", exe) + "\n" +
                "watchdog: slot 6, interval 300 s, age AGE s, ok\n"
                "status: not ok: 4 entries not ok\n");
}

// A real reused pid: in a new pid namespace, whose first process (the
// service here) can choose the next pid through ns_last_pid, a worker
// registers and ends, and another process is started at once with its pid.
// status, run in the namespace, tells the two apart by the identity the
// worker's registration recorded. Returns "W <pid>\n" and status's exit
// status and output, or why the scenario could not be made.
std::string reused_pid_scenario() {
  tarn_test::Pipe reported;
  const pid_t outer = tarn_test::fork_child([&] {
    reported.close_read();
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) return 80;
    return tarn_test::reap(tarn_test::fork_child([&]() -> int {
      if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("proc", "/proc", "proc", 0, nullptr) != 0)
        return 90;
      if (add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE) != 0) return 91;
      const pid_t worker = tarn_test::fork_child([] { return add(getpid(), 10, 3) == 1 ? 0 : 1; });
      if (tarn_test::reap(worker) != 0) return 92;
      const int last_pid = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
      const std::string previous = std::to_string(worker - 1);
      if (last_pid < 0 || write(last_pid, previous.data(), previous.size()) <= 0) return 93;
      close(last_pid);
      const pid_t impostor = idle_child();
      if (impostor != worker) return 94;
      const Outcome outcome = tarnctl({"status"});
      tarn_test::kill_and_reap(impostor);
      const std::string text = "W " + std::to_string(worker) + "\n" + std::to_string(outcome.status) + "\n" +
                               outcome.out + outcome.err;
      return write(reported.write_fd(), text.data(), text.size()) == (ssize_t)text.size() ? 0 : 95;
    }));
  });
  reported.close_write();
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = read(reported.read_fd(), buffer, sizeof(buffer))) > 0) text.append(buffer, (size_t)got);
  const int status = tarn_test::reap(outer);
  return status == 0 ? text : text + "<scenario ended with " + std::to_string(status) + ">";
}

TEST_F(HealthTest, StatusTellsAProcessThatWasGivenADeadWorkersPidFromTheWorker) {
  const std::vector<std::string> lines = lines_of(reused_pid_scenario());
  ASSERT_EQ(lines.size(), 13u);
  ASSERT_EQ(lines[0].rfind("W ", 0), 0u) << lines[0];
  const std::string worker = lines[0].substr(2);
  EXPECT_EQ(lines[1], "3");
  EXPECT_EQ(lines[2], "integrity: ok");
  std::vector<std::string> row = words_of(lines[10]);
  ASSERT_EQ(row.size(), 8u) << lines[10];
  EXPECT_EQ(row[0], "1");
  EXPECT_EQ(row[1], worker);
  EXPECT_EQ(row[2], self_name());  // the impostor's name: the pid is alive
  EXPECT_EQ(row[6], "reused");
  EXPECT_EQ(lines[12], "status: not ok: 1 entry not ok");
}

// What bulk sync puts in the table is shown as it is: another program's pid
// with that program's name and executable, and a type that no process has.
TEST_F(HealthTest, StatusShowsWhoAPidThatSyncInjectedReallyIs) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  tarn_test::Pipe started;
  const pid_t sleeper = tarn_test::fork_child([&] {
    started.close_read();
    execl("/bin/sleep", "sleep", "1000", (char *)nullptr);
    return 127;
  });
  children_.push_back(sleeper);
  // The pipe's write end is close-on-exec: end of input once the exec is
  // under way; the kernel names the process a moment later.
  started.close_write();
  ASSERT_EQ(started.receive(), -1);
  while (tarn_test::read_file("/proc/" + std::to_string(sleeper) + "/comm") != "sleep\n") {
    ASSERT_NE(tarn_process_is_exist(sleeper), 0);
  }
  proc_heartbeat_info_t first = {getpid(), 0, 5, PROC_HEARTBEAT_TYPE_SERVICE, 0};
  proc_heartbeat_info_t injected = {sleeper, 0, 0, 9, 0};
  proc_heartbeat_info_t *list[] = {&first, &injected};
  ASSERT_EQ(sync_proc_heartbeat_infos(list, 2), 0);
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 11u) << outcome.out;
  std::vector<std::string> row = words_of(lines[8]);
  ASSERT_EQ(row.size(), 8u) << lines[8];
  char sleep_path[4096];
  ASSERT_GT(tarn_process_get_path(sleeper, sleep_path, sizeof(sleep_path)), 0);
  EXPECT_EQ(row[1], std::to_string(sleeper));
  EXPECT_EQ(row[2], "sleep");
  EXPECT_EQ(row[3], "invalid(9)");
  EXPECT_EQ(row[4], "0");
  EXPECT_EQ(row[6], "late");  // an interval of 0: any age is more than twice it
  EXPECT_EQ(row[7], sleep_path);
  const Outcome json = tarnctl({"status", "--json"});
  EXPECT_EQ(tarn_test::schema_problems("status", json.out), "");
  EXPECT_NE(json.out.find("\"type\": \"invalid\",\n      \"type_id\": 9,"), std::string::npos) << json.out;
}

TEST_F(HealthTest, StatusOfAHealthyTableExitsZero) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  worker(10, 3, 1);
  const uint64_t before = tarn_test::monotonic_ms();
  TableFaults faults;
  faults.age(0, 500);
  faults.age(1, 15000);  // more than its interval, but late only after two
  faults.add_watchdog(2, 500);
  const Outcome outcome = tarnctl({"status"});
  const uint64_t span = tarn_test::monotonic_ms() - before;
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(with_ages_checked(outcome.out, {500, 15000, 500}, span),
            intact_head(3, 2) +
                row("0", std::to_string(getpid()), self_name(), "service", "5", "AGE", "ok", self_executable()) +
                "\n" + row("1", std::to_string(children_[0]), self_name(), "worker(3)", "10", "AGE", "ok",
                           self_executable()) + "\n" +
                "watchdog: slot 2, interval 300 s, age AGE s, ok\n"
                "status: ok\n");
}

TEST_F(HealthTest, StatusWithoutAServiceEntryExitsThree) {
  worker(10, 3, 0);
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(lines_of(outcome.out).back(), "status: not ok: no service entry");
  EXPECT_NE(outcome.out.find("\nwatchdog: none\n"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("  watchdog   ok  no watchdog slot\n"), std::string::npos) << outcome.out;
}

TEST_F(HealthTest, StatusShowsControlCharactersOfANameAsQuestionMarks) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  const pid_t odd = odd_named_worker(1);
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 11u) << outcome.out;
  // The row up to its age: one line, the name's line end shown as '?'.
  const std::string head = row("1", std::to_string(odd), "a\\b\"c?d", "worker(1)", "10", "", "", "").substr(0, 50);
  EXPECT_EQ(lines[8].substr(0, 50), head) << lines[8];
  const Outcome json = tarnctl({"status", "--json"});
  EXPECT_NE(json.out.find("\"name\": \"a\\\\b\\\"c\\nd\""), std::string::npos) << json.out;
}

TEST_F(HealthTest, StatusSeesADamagedTableThatTheLibraryCannot) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  worker(10, 3, 1);
  worker(10, 2, 2);
  TableFaults faults;
  faults.add_watchdog(3, 0);
  *faults.proc_num() = 1;
  *faults.magic() = 0xdeadbeef;
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 12u) << outcome.out;
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 6),
            (std::vector<std::string>{
                "integrity: damaged",
                "  magic      bad 3735928559, not 12321: the table was overwritten or never cleared by the service",
                "  proc_num   bad 1, 4 slots occupied", "  watchdog   ok  slot 3",
                "  library    bad the library lists 1 of 3 process entries",
                "  journal    ok  no change left half-made"}));
  // Every occupied slot is shown, not only the one proc_num counts.
  EXPECT_EQ(words_of(lines[7])[0], "0");
  EXPECT_EQ(words_of(lines[8])[0], "1");
  EXPECT_EQ(words_of(lines[9])[0], "2");
  EXPECT_EQ(lines[11], "status: not ok: the table is damaged");
}

TEST_F(HealthTest, StatusCountsALateWatchdog) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  TableFaults faults;
  faults.add_watchdog(1, 600500);
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 10u) << outcome.out;
  EXPECT_TRUE(std::regex_match(lines[8], std::regex("watchdog: slot 1, interval 300 s, age 600\\.[5-9] s, late")))
      << lines[8];
  EXPECT_EQ(lines[9], "status: not ok: the watchdog is late");
}

TEST_F(HealthTest, MaxAgeSetsWhenAnEntryHasTimedOut) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  worker(5, 3, 1);
  TableFaults faults;
  faults.age(1, 6500);
  const Outcome standard = tarnctl({"status"});
  EXPECT_EQ(words_of(lines_of(standard.out)[8])[6], "ok") << standard.out;
  const Outcome strict = tarnctl({"status", "--max-age", "6"});
  EXPECT_EQ(strict.status, 3) << dump(strict);
  EXPECT_EQ(words_of(lines_of(strict.out)[8])[6], "timed-out") << strict.out;
}

TEST_F(HealthTest, StatusOptionsNeedWholeSeconds) {
  const Outcome zero = tarnctl({"status", "--max-age", "0"});
  EXPECT_EQ(zero.status, 2);
  EXPECT_EQ(zero.err, "tarnctl: status: bad value of --max-age: 0 (a whole number of seconds, 1 to 86400)\n");
  const Outcome missing = tarnctl({"status", "--max-age"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err,
            "tarnctl: status: missing value of --max-age (usage: tarnctl status [--max-age SECONDS] "
            "[--watch [SECONDS]])\n");
  const Outcome watch = tarnctl({"status", "--watch", "1.5"});
  EXPECT_EQ(watch.status, 2);
  EXPECT_EQ(watch.err, "tarnctl: status: bad value of --watch: 1.5 (a whole number of seconds, 1 to 86400)\n");
}

TEST_F(HealthTest, StatusJsonFollowsItsSchema) {
  const uint64_t before = tarn_test::monotonic_ms();
  register_everyone();
  const Outcome outcome = tarnctl({"status", "--json"});
  const uint64_t span = tarn_test::monotonic_ms() - before;
  EXPECT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(tarn_test::schema_problems("status", outcome.out), "");
  json_error_t error;
  std::unique_ptr<json_t, void (*)(json_t *)> answer(json_loads(outcome.out.c_str(), 0, &error),
                                                     [](json_t *json) { json_decref(json); });
  ASSERT_TRUE(answer) << error.text;
  EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "schema")), 1);
  EXPECT_STREQ(json_string_value(json_object_get(answer.get(), "command")), "status");
  EXPECT_TRUE(json_is_true(json_object_get(answer.get(), "ok")));
  EXPECT_TRUE(json_is_false(json_object_get(answer.get(), "healthy")));
  EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "max_age_s")), 60);
  EXPECT_TRUE(json_is_true(json_object_get(json_object_get(answer.get(), "integrity"), "ok")));
  const json_t *entries = json_object_get(answer.get(), "entries");
  ASSERT_EQ(json_array_size(entries), 6u);
  const char *states[] = {"ok", "ok", "late", "timed-out", "dead", "reused"};
  const pid_t pids[] = {getpid(), ok_, late_, timed_out_, dead_, reused_};
  const uint64_t ages[] = {500, 3500, 2500, 61500, 4500, 5500};
  for (size_t i = 0; i < 6; ++i) {
    const json_t *entry = json_array_get(entries, i);
    EXPECT_EQ(json_integer_value(json_object_get(entry, "slot")), (json_int_t)i);
    EXPECT_EQ(json_integer_value(json_object_get(entry, "pid")), pids[i]);
    EXPECT_STREQ(json_string_value(json_object_get(entry, "state")), states[i]) << i;
    EXPECT_STREQ(json_string_value(json_object_get(entry, "type")), i == 0 ? "service" : "worker");
    const json_int_t age = json_integer_value(json_object_get(entry, "age_ms"));
    EXPECT_GE(age, (json_int_t)ages[i]);
    EXPECT_LE(age, (json_int_t)(ages[i] + span));
  }
  EXPECT_STREQ(json_string_value(json_object_get(json_array_get(entries, 4), "name")), "-");
  const json_t *dog = json_object_get(answer.get(), "watchdog");
  EXPECT_EQ(json_integer_value(json_object_get(dog, "slot")), 6);
  EXPECT_STREQ(json_string_value(json_object_get(dog, "state")), "ok");
}

TEST_F(HealthTest, StatusWithoutATableExitsFourAndSaysSoInJsonToo) {
  proc_heartbeat_deinit(true);
  const char kReason[] = "no heartbeat table (shared memory proc_heartbeat_shm.name does not exist; has the service run?)";
  const Outcome text = tarnctl({"status"});
  EXPECT_EQ(text.status, 4);
  EXPECT_EQ(text.out, "");
  EXPECT_EQ(text.err, std::string("tarnctl: status: ") + kReason + "\n");
  const Outcome json = tarnctl({"status", "--json"});
  EXPECT_EQ(json.status, 4);
  EXPECT_EQ(json.err, text.err);
  EXPECT_EQ(tarn_test::schema_problems("status", json.out), "");
  EXPECT_EQ(json.out, std::string("{\n  \"schema\": 1,\n  \"command\": \"status\",\n  \"ok\": false,\n  \"error\": \"") +
                          kReason + "\"\n}\n");
}

TEST_F(HealthTest, WatchRedrawsUntilStopped) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  tarn_test::Pipe output;
  const pid_t watcher = tarn_test::fork_child([&] {
    dup2(output.write_fd(), STDOUT_FILENO);
    execl(TARNCTL_PATH, TARNCTL_PATH, "status", "--watch", "1", (char *)nullptr);
    return 127;
  });
  output.close_write();
  // Three frames: read until the third frame's last line has come.
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  size_t frames = 0;
  while (frames < 3 && (got = read(output.read_fd(), buffer, sizeof(buffer))) > 0) {
    text.append(buffer, (size_t)got);
    frames = 0;
    for (size_t at = text.find("status: "); at != std::string::npos; at = text.find("status: ", at + 1)) ++frames;
  }
  tarn_test::kill_and_reap(watcher);
  ASSERT_EQ(frames, 3u) << text;
  // Frames are separated by a blank line when the output is not a terminal.
  const std::vector<std::string> lines = lines_of(text);
  ASSERT_EQ(lines.size(), 32u) << text;
  for (const size_t first : {0, 11, 22}) {
    EXPECT_EQ(lines[first], "integrity: ok") << first;
    EXPECT_EQ(lines[first + 8], "watchdog: none") << first;
    EXPECT_EQ(lines[first + 9], "status: ok") << first;
  }
  EXPECT_EQ(lines[10], "");
  EXPECT_EQ(lines[21], "");
}

TEST_F(HealthTest, AHeldLockExitsFour) {
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  const pid_t holder = tarn_test::fork_child([] {
    tarn_glock_t *lock = nullptr;
    if (tarn_glock_init("proc_heartbeat_shm.name", &lock) != 0 || tarn_glock_acquire_timeout(lock, 0) != 0) return 1;
    for (;;) pause();
    return 0;
  });
  children_.push_back(holder);
  // The holder has the lock once the library's own call times out.
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  while (get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS) != PROC_HEARTBEAT_E_TIMEOUT) {
    ASSERT_NE(tarn_process_is_exist(holder), 0);
  }
  const Outcome outcome = tarnctl({"status"});
  EXPECT_EQ(outcome.status, 4) << dump(outcome);
  EXPECT_EQ(outcome.err, "tarnctl: status: the heartbeat table's lock could not be taken within 100 ms\n");
  EXPECT_EQ(outcome.out, "");
}

// ---------------------------------------------------------------------------
// metrics

// A sample of the Prometheus text format.
struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  double value;
};

// Parses text strictly as the text exposition format 0.0.4: every line is
// "# HELP NAME TEXT", "# TYPE NAME TYPE" or a sample "NAME{LABEL="VALUE",...}
// VALUE"; names and label names are well-formed; a label value holds no raw
// line end and only the escapes \\, \" and \n; each family has one HELP and
// one TYPE line before its samples, and its samples are not interleaved with
// another family's. Returns "" or the first problem; fills *samples.
std::string parse_exposition(const std::string &text, std::vector<Sample> *samples) {
  static const std::regex kName("[a-zA-Z_:][a-zA-Z0-9_:]*");
  static const std::regex kLabelName("[a-zA-Z_][a-zA-Z0-9_]*");
  static const std::set<std::string> kTypes = {"counter", "gauge", "histogram", "summary", "untyped"};
  if (text.empty() || text.back() != '\n') return "does not end in a line end";
  std::set<std::string> helped, typed, finished;
  std::string current;
  size_t number = 0;
  for (const std::string &line : lines_of(text)) {
    ++number;
    const std::string where = "line " + std::to_string(number) + ": " + line;
    if (line.rfind("# ", 0) == 0) {
      std::istringstream words(line.substr(2));
      std::string keyword, name, rest;
      words >> keyword >> name;
      std::getline(words, rest);
      if (!std::regex_match(name, kName)) return "bad metric name: " + where;
      if (keyword == "HELP") {
        if (!helped.insert(name).second) return "second HELP: " + where;
      } else if (keyword == "TYPE") {
        if (!typed.insert(name).second) return "second TYPE: " + where;
        if (kTypes.count(rest.substr(rest.empty() ? 0 : 1)) == 0) return "bad type: " + where;
      } else {
        return "unknown comment: " + where;
      }
      if (name != current) {
        if (!current.empty()) finished.insert(current);
        if (finished.count(name) != 0) return "family resumed: " + where;
        current = name;
      }
      continue;
    }
    Sample sample;
    size_t at = 0;
    while (at < line.size() && line[at] != '{' && line[at] != ' ') ++at;
    sample.name = line.substr(0, at);
    if (!std::regex_match(sample.name, kName)) return "bad sample name: " + where;
    if (sample.name != current || typed.count(current) == 0 || helped.count(current) == 0) {
      return "sample outside its family, or before its HELP and TYPE: " + where;
    }
    if (at < line.size() && line[at] == '{') {
      ++at;
      while (at < line.size() && line[at] != '}') {
        const size_t equals = line.find('=', at);
        if (equals == std::string::npos || equals + 1 >= line.size() || line[equals + 1] != '"') {
          return "bad label: " + where;
        }
        const std::string label = line.substr(at, equals - at);
        if (!std::regex_match(label, kLabelName)) return "bad label name: " + where;
        std::string value;
        at = equals + 2;
        for (; at < line.size() && line[at] != '"'; ++at) {
          if (line[at] != '\\') {
            value += line[at];
            continue;
          }
          if (++at >= line.size()) return "escape at the end: " + where;
          if (line[at] == 'n') {
            value += '\n';
          } else if (line[at] == '\\' || line[at] == '"') {
            value += line[at];
          } else {
            return "bad escape: " + where;
          }
        }
        if (at >= line.size()) return "unterminated label value: " + where;
        if (!sample.labels.emplace(label, value).second) return "label twice: " + where;
        ++at;
        if (at < line.size() && line[at] == ',') ++at;
      }
      if (at >= line.size()) return "unterminated labels: " + where;
      ++at;
    }
    if (at >= line.size() || line[at] != ' ') return "no blank before the value: " + where;
    const std::string value = line.substr(at + 1);
    char *end = nullptr;
    sample.value = strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0') return "bad value: " + where;
    samples->push_back(sample);
  }
  return "";
}

// The value of the sample named name with exactly labels, or NAN.
double value_of(const std::vector<Sample> &samples, const std::string &name,
                const std::map<std::string, std::string> &labels = {}) {
  for (const Sample &sample : samples) {
    if (sample.name == name && sample.labels == labels) return sample.value;
  }
  return NAN;
}

TEST_F(HealthTest, MetricsGiveTheTableAndTheRecordInTheTextFormat) {
  tarn_test::make_apphome(tarn_test::kHomeA, true, false);
  ASSERT_TRUE(tarn_test::write_file(tarn_test::kRecordPath, tarn_test::record_text(tarn_test::kHomeA)));
  ASSERT_TRUE(tarn_test::write_file(tarn_test::kBackupPath, tarn_test::record_text(tarn_test::kHomeB)));
  const uint64_t before = tarn_test::monotonic_ms();
  register_everyone();
  const pid_t odd = odd_named_worker(7);
  const Outcome outcome = tarnctl({"metrics"});
  const uint64_t span = tarn_test::monotonic_ms() - before;
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  std::vector<Sample> samples;
  ASSERT_EQ(parse_exposition(outcome.out, &samples), "") << outcome.out;
  EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_table_up"), 1);
  EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_table_check_ok", {{"check", "magic"}}), 1);
  EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_table_check_ok", {{"check", "proc_num"}}), 1);
  const std::map<std::string, double> states = {
      {"ok", 3}, {"late", 1}, {"timed-out", 1}, {"dead", 1}, {"reused", 1}};
  for (const auto &state : states) {
    EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_entries", {{"state", state.first}}), state.second) << state.first;
  }
  const double late_age = value_of(samples, "tarnaux_heartbeat_age_seconds",
                                   {{"slot", "2"}, {"pid", std::to_string(late_)}, {"name", self_name()},
                                    {"type", "worker"}, {"state", "late"}});
  EXPECT_GE(late_age, 2.5);
  EXPECT_LE(late_age, (2500.0 + span) / 1000);
  EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_age_seconds",
                     {{"slot", "7"}, {"pid", std::to_string(odd)}, {"name", "a\\b\"c\nd"}, {"type", "worker"},
                      {"state", "ok"}}) >= 0, true) << outcome.out;
  EXPECT_NE(outcome.out.find("name=\"a\\\\b\\\"c\\nd\""), std::string::npos) << outcome.out;
  EXPECT_EQ(value_of(samples, "tarnaux_heartbeat_interval_seconds", {{"slot", "2"}, {"pid", std::to_string(late_)}}), 1);
  EXPECT_EQ(value_of(samples, "tarnaux_watchdog_present"), 1);
  EXPECT_GE(value_of(samples, "tarnaux_watchdog_age_seconds"), 12.5);
  EXPECT_EQ(value_of(samples, "tarnaux_healthy"), 0);
  EXPECT_EQ(value_of(samples, "tarnaux_apphome_record_valid", {{"file", "record"}}), 1);
  EXPECT_EQ(value_of(samples, "tarnaux_apphome_record_valid", {{"file", "backup"}}), 0);
  EXPECT_EQ(value_of(samples, "tarnaux_apphome_backup_matches"), 0);
}

TEST_F(HealthTest, MetricsWithoutATableSayItIsDown) {
  proc_heartbeat_deinit(true);
  const Outcome outcome = tarnctl({"metrics"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err,
            "tarnctl: metrics: no heartbeat table (shared memory proc_heartbeat_shm.name does not exist; has the "
            "service run?)\n");
  std::vector<Sample> samples;
  ASSERT_EQ(parse_exposition(outcome.out, &samples), "") << outcome.out;
  EXPECT_EQ(outcome.out,
            "# HELP tarnaux_heartbeat_table_up Whether the heartbeat table could be read (1) or not: missing, or its "
            "lock not had (0).\n"
            "# TYPE tarnaux_heartbeat_table_up gauge\n"
            "tarnaux_heartbeat_table_up 0\n"
            "# HELP tarnaux_apphome_record_valid Whether the app home record (file=\"record\") and its backup "
            "(file=\"backup\") are valid.\n"
            "# TYPE tarnaux_apphome_record_valid gauge\n"
            "tarnaux_apphome_record_valid{file=\"record\"} 0\n"
            "tarnaux_apphome_record_valid{file=\"backup\"} 0\n"
            "# HELP tarnaux_apphome_backup_matches Whether the backup holds the same bytes as the record.\n"
            "# TYPE tarnaux_apphome_backup_matches gauge\n"
            "tarnaux_apphome_backup_matches 0\n");
}

// The samples of a metrics --json answer, in the parser's form.
std::vector<Sample> samples_of_json(const json_t *answer) {
  std::vector<Sample> samples;
  size_t f;
  json_t *family;
  json_array_foreach(json_object_get(answer, "metrics"), f, family) {
    size_t s;
    json_t *sample;
    json_array_foreach(json_object_get(family, "samples"), s, sample) {
      Sample taken{json_string_value(json_object_get(family, "name")), {},
                   json_number_value(json_object_get(sample, "value"))};
      const char *key;
      json_t *value;
      json_object_foreach(json_object_get(sample, "labels"), key, value) taken.labels[key] = json_string_value(value);
      samples.push_back(taken);
    }
  }
  return samples;
}

TEST_F(HealthTest, MetricsAsJsonCarryTheSameFamiliesAndSamples) {
  proc_heartbeat_deinit(true);
  const Outcome text = tarnctl({"metrics"});
  const Outcome json = tarnctl({"metrics", "--json"});
  EXPECT_EQ(json.status, 0) << dump(json);
  EXPECT_EQ(json.err, text.err);
  EXPECT_EQ(tarn_test::schema_problems("metrics", json.out), "");
  std::unique_ptr<json_t, void (*)(json_t *)> answer(json_loads(json.out.c_str(), 0, nullptr), json_decref);
  ASSERT_NE(answer, nullptr) << json.out;
  EXPECT_EQ(json_object_get(answer.get(), "ok"), json_false());
  EXPECT_STREQ(json_string_value(json_object_get(answer.get(), "error")),
               "no heartbeat table (shared memory proc_heartbeat_shm.name does not exist; has the service run?)");
  std::vector<Sample> from_text;
  ASSERT_EQ(parse_exposition(text.out, &from_text), "");
  const std::vector<Sample> from_json = samples_of_json(answer.get());
  ASSERT_EQ(from_json.size(), from_text.size()) << json.out;
  for (size_t i = 0; i < from_text.size(); ++i) {
    EXPECT_EQ(from_json[i].name, from_text[i].name);
    EXPECT_EQ(from_json[i].labels, from_text[i].labels);
    EXPECT_EQ(from_json[i].value, from_text[i].value);
  }
  const json_t *first = json_array_get(json_object_get(answer.get(), "metrics"), 0);
  EXPECT_STREQ(json_string_value(json_object_get(first, "help")),
               "Whether the heartbeat table could be read (1) or not: missing, or its lock not had (0).");
  EXPECT_STREQ(json_string_value(json_object_get(first, "type")), "gauge");
}

// The parser itself refuses what the format does not allow.
TEST(ExpositionParserTest, RefusesWhatTheFormatDoesNotAllow) {
  std::vector<Sample> samples;
  const std::string head = "# HELP m x\n# TYPE m gauge\n";
  EXPECT_EQ(parse_exposition(head + "m{a=\"1\"} 1\n", &samples), "");
  EXPECT_NE(parse_exposition("m 1\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "m{a=\"x\\t\"} 1\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "m{a=\"x} 1\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "m{1a=\"x\"} 1\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "m one\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "m 1", &samples), "");
  EXPECT_NE(parse_exposition(head + "n 1\n", &samples), "");
  EXPECT_NE(parse_exposition(head + "# HELP n y\n# TYPE n gauge\nn 1\n" + "# HELP m x\n", &samples), "");
}

// ---------------------------------------------------------------------------
// doctor

constexpr char kVersion[] = "3.1.4.159";
constexpr char kKeys[] = "/etc/velmora/keys.d";

// The agent as installed: a service answering " -v" with version, the app
// home name with its flags and base manifest of kVersion, the record and
// its backup naming it (0666, as the library leaves them), one trusted key.
void install(const std::string &name, const std::string &version) {
  ASSERT_TRUE(tarn_test::lay_out_open_record(name));
  ASSERT_TRUE(tarn_test::write_file(tarn_test::kServicePath, "#!/bin/sh\necho " + version + "\n", 0755));
  const std::string manifests = tarn_test::under_root(name) + "/config/component_info";
  ASSERT_TRUE(tarn_test::make_dirs(manifests));
  ASSERT_TRUE(tarn_test::seal_manifest(manifests + "/tarn_base.ejs",
                                       std::string("{\"package\": \"tarn_base\", \"version\": \"") + kVersion +
                                           "\", \"files\": []}"));
  ASSERT_TRUE(tarn_test::make_dirs(kKeys));
  ASSERT_TRUE(tarn_test::write_file(std::string(kKeys) + "/publisher.pub", std::string(32, 'k'), 0644));
}

// doctor's output with the free space figure replaced by N, after checking
// it is a number.
std::string without_space_figure(const std::string &out) {
  static const std::regex kSpace("(ok   |warn |fail )free space: [0-9]+ MiB");
  return std::regex_replace(out, kSpace, "$1free space: N MiB");
}

// doctor's lines for locks nobody holds and have not been made yet.
std::string free_locks() {
  const std::string root = tarn_test::kInstallRoot;
  return "ok   lock proc_heartbeat_shm.name: free\n"
         "ok   lock " + root + "/tarn_apphome.ini.lock: no lock file\n" +
         "ok   lock " + root + "/tarn_apphome_backup.ini.lock: no lock file\n";
}

// doctor's lines for the free space (its figure as N) and the modes that
// install() leaves.
std::string space_and_modes() {
  const std::string root = tarn_test::kInstallRoot;
  const std::string fix = "     fix: any local user can rewrite it: set [security] agent_group (docs/security.md)\n";
  return "ok   free space: N MiB available at " + root + "\n" +
         "ok   mode " + root + ": 0755\n" +
         "warn mode " + root + "/tarn_apphome.ini: 0666\n" + fix +
         "warn mode " + root + "/tarn_apphome_backup.ini: 0666\n" + fix;
}

TEST_F(HealthTest, DoctorOfAHealthyAgentPassesEveryCheck) {
  install(tarn_test::kHomeA, kVersion);
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  const Outcome outcome = tarnctl({"doctor"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  const std::string root = tarn_test::kInstallRoot;
  const std::string home = tarn_test::under_root(tarn_test::kHomeA);
  EXPECT_EQ(without_space_figure(outcome.out),
            "ok   heartbeat table: intact, 1 process entries\n" + free_locks() +
            "ok   record: valid: " + root + "/tarn_apphome.ini names app home " + home + "\n" +
            "ok   backup: valid: " + root + "/tarn_apphome_backup.ini names app home " + home + "\n" +
            "ok   record and backup: the same\n"
            "ok   flags of " + tarn_test::kHomeA + ": " + home + "/config/flags: flag_operational flag_operational_backup\n" +
            "ok   service version: service " + kVersion + ", base manifest tarn_base 3.1.4.159\n" +
            "ok   save temporaries: none left by interrupted saves\n" + space_and_modes() +
            "ok   signature keys: " + kKeys + ": publisher.pub\n"
            "doctor: 13 ok, 2 warn, 0 fail\n");
}

TEST_F(HealthTest, DoctorNamesWhoHoldsALockAndDoesNotWaitForIt) {
  install(tarn_test::kHomeA, kVersion);
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  const std::string lock = std::string(tarn_test::kRecordPath) + ".lock";
  tarn_test::ForeignLock holder(lock);
  ASSERT_TRUE(holder.held());
  const Outcome outcome = tarnctl({"doctor"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  const std::string held = "held by pid " + std::to_string(holder.pid()) + " (" + self_name() + ", FLOCK WRITE)";
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_GE(lines.size(), 6u) << outcome.out;
  EXPECT_EQ(lines[2], "ok   lock " + lock + ": " + held);
  EXPECT_EQ(lines[4], "warn record: not checked: " + lock + " is " + held);
  EXPECT_EQ(lines[5], "     fix: see why that process keeps the lock; stop it if it hangs");
  // Nothing else reads the record while its lock is held.
  EXPECT_EQ(outcome.out.find("flags of"), std::string::npos) << outcome.out;
  EXPECT_EQ(outcome.out.find("service version"), std::string::npos) << outcome.out;
}

TEST_F(HealthTest, DoctorFailsWithAFixForEachProblem) {
  install(tarn_test::kHomeA, "3.1.5");
  ASSERT_EQ(add(getpid(), 5, PROC_HEARTBEAT_TYPE_SERVICE), 0);
  TableFaults faults;
  *faults.magic() = 7;
  const std::string root = tarn_test::kInstallRoot;
  const std::string home = tarn_test::under_root(tarn_test::kHomeA);
  ASSERT_TRUE(tarn_test::write_file(tarn_test::kBackupPath, tarn_test::record_text(tarn_test::kHomeB), 0666));
  // A save cut short by a process that is gone, and one still in progress.
  const pid_t gone = idle_child();
  tarn_test::kill_and_reap(gone);
  const std::string stray = root + "/tarn_apphome.ini.tmp." + std::to_string(gone) + ".0";
  ASSERT_TRUE(tarn_test::write_file(stray, "x"));
  ASSERT_TRUE(tarn_test::write_file(home + "/config/x.ini.tmp." + std::to_string(getpid()) + ".3", "x"));
  ASSERT_TRUE(tarn_test::make_dirs(home + "/config/deeper"));
  const std::string deeper = home + "/config/deeper/y.json.tmp." + std::to_string(gone) + ".12";
  ASSERT_TRUE(tarn_test::write_file(deeper, "x"));
  ASSERT_TRUE(tarn_test::write_file(std::string(kKeys) + "/loose.pub", std::string(32, 'l'), 0666));
  ASSERT_EQ(chmod((std::string(kKeys) + "/loose.pub").c_str(), 0666), 0);
  const Outcome outcome = tarnctl({"doctor"});
  EXPECT_EQ(outcome.status, 1) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(without_space_figure(outcome.out),
            "fail heartbeat table: magic: 7, not 12321: the table was overwritten or never cleared by the service\n"
            "     fix: restart the service: it clears the table and the processes register again\n" + free_locks() +
            "ok   record: valid: " + root + "/tarn_apphome.ini names app home " + home + "\n" +
            "warn backup: the app home " + tarn_test::under_root(tarn_test::kHomeB) + " that " + root +
            "/tarn_apphome_backup.ini names is not operational (no config/flags/flag_operational nor its spare)\n" +
            "     fix: the next update of the record rewrites it\n"
            "warn record and backup: they differ\n"
            "     fix: tarnctl apphome restore, when the backup names the right app home\n"
            "ok   flags of " + tarn_test::kHomeA + ": " + home + "/config/flags: flag_operational flag_operational_backup\n" +
            "fail service version: service 3.1.5, base manifest tarn_base 3.1.4.159\n"
            "     fix: the service and the recorded app home are of different releases: tarnctl apphome reduce\n"
            "warn save temporaries: left by interrupted saves: " + deeper + " " + stray + "\n" +
            "     fix: remove them: rm -- " + deeper + " " + stray + "\n" +
            space_and_modes() +
            "fail signature keys: ignored (not root's or writable by others): " + kKeys + "/loose.pub\n" +
            "     fix: chown root and chmod go-w them, or remove them\n"
            "doctor: 7 ok, 5 warn, 3 fail\n");
  const Outcome json = tarnctl({"doctor", "--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(tarn_test::schema_problems("doctor", json.out), "");
  EXPECT_NE(json.out.find("\"counts\": {\n    \"ok\": 7,\n    \"warn\": 5,\n    \"fail\": 3\n  }"),
            std::string::npos) << json.out;
}

TEST_F(HealthTest, DoctorWithoutAnAgentFailsEachCheckThatNeedsOne) {
  proc_heartbeat_deinit(true);
  const Outcome outcome = tarnctl({"doctor"});
  EXPECT_EQ(outcome.status, 1) << dump(outcome);
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "fail heartbeat table: no heartbeat table (shared memory proc_heartbeat_shm.name does not "
                      "exist; has the service run?)");
  EXPECT_EQ(lines[1], "     fix: start the service (it creates the table)");
  EXPECT_NE(outcome.out.find("\nfail record: " + std::string(tarn_test::kRecordPath) + " does not exist\n"),
            std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("\nwarn signature keys: no key file in /etc/velmora/keys.d: only the build's key is "
                             "trusted\n     fix: install the publisher's public key as /etc/velmora/keys.d/NAME "
                             "(docs/ejs.md)\n"),
            std::string::npos) << outcome.out;
  const Outcome json = tarnctl({"doctor", "--json"});
  EXPECT_EQ(tarn_test::schema_problems("doctor", json.out), "");
}

TEST_F(HealthTest, DoctorAndMetricsHaveTheirHelp) {
  for (const char *command : {"doctor", "metrics"}) {
    const Outcome outcome = tarnctl({command, "--help"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out.rfind(std::string("usage: tarnctl ") + command, 0), 0u) << outcome.out;
  }
  const Outcome overview = tarnctl({"--help"});
  EXPECT_NE(overview.out.find("\n  doctor "), std::string::npos) << overview.out;
  EXPECT_NE(overview.out.find("\n  metrics "), std::string::npos) << overview.out;
}
}  // namespace
