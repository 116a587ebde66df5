// Tests of the process heartbeat table: initialisation and its handles, the
// result codes and their texts, registration and removal, beats and the
// service's sweep of dead processes, the timeout scan, bulk sync and
// queries, the watchdog's own entry, and sharing the table and its global
// lock between processes (forked children, a killed lock holder, and the
// peer programs that link the shared libraries, 64-bit and 32-bit).
//
// Time is the controlled clock of the fakes; whether a fake pid exists is
// answered by the fakes too. Every test starts and ends with the family
// de-initialised and no table segment, so tests are independent also when
// the whole program runs in one process.

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_shm.h>

#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "files.h"
#include "heartbeat_invariant.h"
#include "interpose.h"
#include "local_user.h"
#include "log_checks.h"
#include "shm_objects.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

// ---------------------------------------------------------------------------
// Injected failures of the base library's segment and lock set-up.
//
// These definitions take the place of the base library's for the heartbeat
// objects linked into this program and pass every call through, except that
// a test can make the lock set-up or the mapping of the table's own segment
// fail with a chosen error.

namespace {

int g_glock_init_error = 0;  // returned by tarn_glock_init for the table's lock
int g_shm_map_error = 0;     // returned by tarn_shm_map for the table's segment
int g_shrink_before_map = 0;  // the table's segment is cut to this size before mapping
tarn_shm_t *g_table_shm = nullptr;

using tarn_test::next_definition;

}  // namespace

extern "C" {

int tarn_shm_init(const char *key, int flag, size_t size, tarn_shm_t **handle) {
  static const auto real =
      next_definition<int (*)(const char *, int, size_t, tarn_shm_t **)>("tarn_shm_init");
  const int ret = real(key, flag, size, handle);
  if (ret == 0 && key != nullptr && handle != nullptr && strcmp(key, PROC_HEARTBEAT_SHM_NAME) == 0)
    g_table_shm = *handle;
  return ret;
}

int tarn_shm_map(tarn_shm_t *handle, size_t offset, void **base) {
  static const auto real = next_definition<int (*)(tarn_shm_t *, size_t, void **)>("tarn_shm_map");
  if (g_shm_map_error != 0 && handle != nullptr && handle == g_table_shm) return g_shm_map_error;
  // A failed shrink shows in the test as a map that does not fail.
  if (g_shrink_before_map != 0 && handle != nullptr && handle == g_table_shm)
    (void)!truncate("/dev/shm/" PROC_HEARTBEAT_SHM_NAME, g_shrink_before_map);
  return real(handle, offset, base);
}

int tarn_glock_init_ex(const char *name, int flag, tarn_glock_t **lock) {
  static const auto real =
      next_definition<int (*)(const char *, int, tarn_glock_t **)>("tarn_glock_init_ex");
  if (g_glock_init_error != 0 && name != nullptr && strcmp(name, PROC_HEARTBEAT_SHM_NAME) == 0)
    return g_glock_init_error;
  return real(name, flag, lock);
}

}  // extern "C"

namespace {

using tarn_test::dump_logs;
using tarn_test::fork_child;
using tarn_test::format;
using tarn_test::killed_by;
using tarn_test::Peer;
using tarn_test::Pipe;
using tarn_test::reap;

// ---------------------------------------------------------------------------
// Helpers.

constexpr uint64_t kTick = 5000000000ull;  // above 32 bits on purpose
constexpr int32_t kFakePid = 100000;       // above the machine's pid_max: never a real process

int32_t self_pid() { return (int32_t)getpid(); }

proc_heartbeat_info_t make_info(int32_t pid, uint32_t ptype, uint32_t interval, uint32_t idx = 0,
                                uint64_t tick = 0) {
  proc_heartbeat_info_t info;
  memset(&info, 0, sizeof(info));
  info.pid = pid;
  info.idx = idx;
  info.interval = interval;
  info.ptype = ptype;
  info.tick = tick;
  return info;
}

// Registers a fake pid that the fakes report as a live process.
int32_t add_fake(int32_t pid, uint32_t ptype = 1, uint32_t interval = 10) {
  tarn_test::set_process_exists(pid, true);
  const proc_heartbeat_info_t info = make_info(pid, ptype, interval);
  return add_proc_heartbeat(&info);
}

int32_t add_self(uint32_t ptype, uint32_t interval = 10, uint32_t idx = 0) {
  const proc_heartbeat_info_t info = make_info(self_pid(), ptype, interval, idx);
  return add_proc_heartbeat(&info);
}

bool is_zero(const proc_heartbeat_info_t &entry) {
  proc_heartbeat_info_t zero;
  memset(&zero, 0, sizeof(zero));
  return memcmp(&entry, &zero, sizeof(zero)) == 0;
}

bool same_entry(const proc_heartbeat_info_t &a, const proc_heartbeat_info_t &b) {
  return a.pid == b.pid && a.idx == b.idx && a.interval == b.interval && a.ptype == b.ptype &&
         a.tick == b.tick;
}

std::string describe(const proc_heartbeat_info_t &e) {
  return format("{pid:%d idx:%u interval:%u ptype:%u tick:%" PRIu64 "}", e.pid, e.idx, e.interval,
                e.ptype, e.tick);
}

size_t count_lines() { return tarn_test::logs().size(); }

#define EXPECT_NO_LINES_AT(word) \
  EXPECT_TRUE(tarn_test::messages(word).empty()) << "captured:\n" << dump_logs()

// A second mapping of the table's segment, to read and arrange the raw
// layout directly.
class RawTable {
 public:
  RawTable() {
    const int fd = open(tarn_test::kHeartbeatSegmentPath, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    void *base =
        mmap(nullptr, sizeof(proc_heartbeat_segment_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base != MAP_FAILED) table_ = static_cast<proc_heartbeat_segment_t *>(base);
  }
  ~RawTable() {
    if (table_ != nullptr) munmap(table_, sizeof(*table_));
  }
  RawTable(const RawTable &) = delete;
  RawTable &operator=(const RawTable &) = delete;

  bool ok() const { return table_ != nullptr; }
  proc_heartbeat_segment_t *operator->() const { return table_; }
  proc_heartbeat_info_t &slot(int i) const { return table_->entries[i]; }
  int occupied() const {
    int count = 0;
    for (const proc_heartbeat_info_t &e : table_->entries)
      if (e.pid > 0 || e.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) ++count;
    return count;
  }
  int watchdog_slots() const {
    int count = 0;
    for (const proc_heartbeat_info_t &e : table_->entries)
      if (e.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG) ++count;
    return count;
  }
  proc_heartbeat_segment_t snapshot() const { return *table_; }
  bool equals(const proc_heartbeat_segment_t &other) const {
    return memcmp(table_, &other, sizeof(other)) == 0;
  }

 private:
  proc_heartbeat_segment_t *table_ = nullptr;
};

bool segment_exists() {
  struct stat st;
  return stat(tarn_test::kHeartbeatSegmentPath, &st) == 0;
}

// The table's global lock, held through a handle of the test's own.
class TableLockHolder {
 public:
  TableLockHolder() { init_ret_ = tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock_); }
  ~TableLockHolder() {
    if (held_) tarn_glock_release(lock_);
    if (lock_ != nullptr) tarn_glock_destroy(lock_);
  }
  TableLockHolder(const TableLockHolder &) = delete;
  TableLockHolder &operator=(const TableLockHolder &) = delete;

  bool ok() const { return init_ret_ == 0 && lock_ != nullptr; }
  int acquire(uint32_t timeout_ms) {
    const int ret = tarn_glock_acquire_timeout(lock_, timeout_ms);
    if (ret == 0) held_ = true;
    return ret;
  }
  int release() {
    held_ = false;
    return tarn_glock_release(lock_);
  }
  // True when the lock is free: takes it at once and gives it back.
  bool is_free() {
    if (acquire(0) != 0) return false;
    release();
    return true;
  }

 private:
  tarn_glock_t *lock_ = nullptr;
  int init_ret_ = -1;
  bool held_ = false;
};

// One call of a table operation, and the warn line it logs when it fails.
struct OperationCase {
  std::string what;
  std::function<int32_t()> call;
  std::string message;
};

// Every operation of the family, each called once, on arguments of its own:
// add and sync take info, the operations that name a process take pid, and
// deletion by slot takes idx.
class EveryOperation {
 public:
  EveryOperation(const proc_heartbeat_info_t &record, int32_t pid, uint32_t idx)
      : info(record), pid_(pid), idx_(idx) {}
  EveryOperation(const EveryOperation &) = delete;
  EveryOperation &operator=(const EveryOperation &) = delete;

  // The calls, each expected to fail with "<what failed>, because of
  // <reason>\n". With bad_arguments, each operation that takes arguments is
  // called a second time, right after the first, with arguments it refuses.
  std::vector<OperationCase> cases(const std::string &reason, bool bad_arguments) {
    const std::string because = " failed, because of " + reason + "\n";
    const std::string add = "add process heartbeat" + because;
    const std::string del = "delete process heartbeat" + because;
    const std::string beat = "update process heartbeat tick" + because;
    const std::string timeouts = "get heartbeat timeout processes" + because;
    const std::string sync = "sync process heartbeat infos" + because;
    const std::string all = "get all processes heartbeats" + because;
    const std::string one = "get process heartbeat info" + because;
    std::vector<OperationCase> cases;
    const auto twice = [&](OperationCase valid, OperationCase bad) {
      cases.push_back(std::move(valid));
      if (bad_arguments) cases.push_back(std::move(bad));
    };
    twice({"add", [this] { return add_proc_heartbeat(&info); }, add},
          {"add null", [] { return add_proc_heartbeat(nullptr); }, add});
    twice({"del pid", [this] { return del_proc_heartbeat_by_pid(pid_); }, del},
          {"del pid 0", [] { return del_proc_heartbeat_by_pid(0); }, del});
    twice({"del idx", [this] { return del_proc_heartbeat_by_idx(idx_); }, del},
          {"del idx 64", [] { return del_proc_heartbeat_by_idx(64); }, del});
    cases.push_back({"beat", [] { return update_proc_beat_tick(); }, beat});
    twice({"timeouts", [this] { return get_beat_timeout_procs(out_, 64, 60, &proc_num); }, timeouts},
          {"timeouts bad", [] { return get_beat_timeout_procs(nullptr, 0, 0, nullptr); }, timeouts});
    twice({"sync", [this] { return sync_proc_heartbeat_infos(list_, 1); }, sync},
          {"sync bad", [] { return sync_proc_heartbeat_infos(nullptr, 0); }, sync});
    twice({"all", [this] { return get_all_proc_heartbeats(out_, 64); }, all},
          {"all bad", [] { return get_all_proc_heartbeats(nullptr, 0); }, all});
    twice({"info", [this] { return get_proc_heartbeat_info(pid_, out_); }, one},
          {"info bad", [] { return get_proc_heartbeat_info(0, nullptr); }, one});
    cases.push_back({"add wtdog", [] { return add_wtdog_heartbeat(); }, add});
    cases.push_back({"beat wtdog", [] { return update_wtdog_beat_tick(); }, beat});
    twice({"check wtdog", [this] { return check_wtdog_beat_timeout(300, &timed_out); }, timeouts},
          {"check wtdog bad", [] { return check_wtdog_beat_timeout(0, nullptr); }, timeouts});
    return cases;
  }

  proc_heartbeat_info_t info;
  int32_t proc_num = 77;  // where the timeout scan stores its count
  bool timed_out = true;  // where the watchdog check stores its answer

 private:
  int32_t pid_;
  uint32_t idx_;
  proc_heartbeat_info_t out_[PROC_HEARTBEAT_MAX_PROCS];
  proc_heartbeat_info_t *list_[1] = {&info};
};

// Runs each case: it returns result and logs exactly its one warn line.
void expect_each_fails(const std::vector<OperationCase> &cases, int32_t result) {
  for (const OperationCase &c : cases) {
    SCOPED_TRACE(c.what);
    tarn_test::clear_logs();
    EXPECT_EQ(c.call(), result);
    const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
    ASSERT_EQ(lines.size(), 1u) << dump_logs();
    EXPECT_EQ(lines[0].word, "warn");
    EXPECT_EQ(lines[0].message, c.message);
  }
}

// ---------------------------------------------------------------------------
// The fixture: fakes at their defaults, the family de-initialised and no
// table segment, before and after every test.

class ProcHeartbeatTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void reset() {
    g_glock_init_error = 0;
    g_shm_map_error = 0;
    g_shrink_before_map = 0;
    proc_heartbeat_deinit(true);
    unlink(tarn_test::kHeartbeatSegmentPath);
    unlink(tarn_test::kHeartbeatLockPath);
    unlink(tarn_test::kHeartbeatSidePath);
    tarn_test::reset_fakes();
  }

  // Initialises as the service and registers this process as type 0.
  static void start_service() {
    ASSERT_EQ(proc_heartbeat_init(0), 0) << dump_logs();
    ASSERT_EQ(add_self(PROC_HEARTBEAT_TYPE_SERVICE), 0) << dump_logs();
  }

  // Fills the free slots with live fake pids kFakePid + i until proc_num
  // reaches count.
  static void fill_to(int count) {
    RawTable raw;
    ASSERT_TRUE(raw.ok());
    for (int i = 0; raw->proc_num < count; ++i) {
      ASSERT_LT(i, 200);
      ASSERT_GE(add_fake(kFakePid + i), 0) << dump_logs();
    }
  }
};

// ---------------------------------------------------------------------------
// Result codes and their texts; the record accessors.

TEST_F(ProcHeartbeatTest, ErrmsgNamesEveryResultCode) {
  EXPECT_STREQ(get_heartbeat_errmsg(0), "successed");
  EXPECT_STREQ(get_heartbeat_errmsg(-1), "invalid parameter");
  EXPECT_STREQ(get_heartbeat_errmsg(-2), "uninitialized");
  EXPECT_STREQ(get_heartbeat_errmsg(-3), "reinitialized");
  EXPECT_STREQ(get_heartbeat_errmsg(-4), "wait to timeout");
  EXPECT_STREQ(get_heartbeat_errmsg(-5), "object not found");
  EXPECT_STREQ(get_heartbeat_errmsg(-6), "object already exists");
  EXPECT_STREQ(get_heartbeat_errmsg(-7), "buffer write full");
  EXPECT_STREQ(get_heartbeat_errmsg(-8), "share memory error");
  // The texts are static: the same address on every call.
  EXPECT_EQ(get_heartbeat_errmsg(-5), get_heartbeat_errmsg(-5));
}

TEST_F(ProcHeartbeatTest, ErrmsgOfOneAndOfMinusNineIsUnknownError) {
  EXPECT_STREQ(get_heartbeat_errmsg(1), "unknown error");
  EXPECT_STREQ(get_heartbeat_errmsg(-9), "unknown error");
  EXPECT_STREQ(get_heartbeat_errmsg(INT32_MIN), "unknown error");
  EXPECT_STREQ(get_heartbeat_errmsg(INT32_MAX), "unknown error");
  EXPECT_STREQ(get_heartbeat_errmsg(ENOENT), "unknown error");
}

TEST_F(ProcHeartbeatTest, AccessorsReadPidIntervalAndType) {
  const proc_heartbeat_info_t info = make_info(4321, 5, 17, 3, kTick);
  EXPECT_EQ(get_beat_proc_pid(&info), 4321u);
  EXPECT_EQ(get_proc_beat_interval(&info), 17u);
  EXPECT_EQ(get_beat_proc_type(&info), 5u);
}

TEST_F(ProcHeartbeatTest, AccessorsOfANullRecordReturnAllBitsSet) {
  EXPECT_EQ(get_beat_proc_pid(nullptr), 4294967295u);
  EXPECT_EQ(get_proc_beat_interval(nullptr), 4294967295u);
  EXPECT_EQ(get_beat_proc_type(nullptr), 4294967295u);
}

// ---------------------------------------------------------------------------
// Log lines.

TEST_F(ProcHeartbeatTest, LogLinesCarryTimePidThreadTagFileAndLine) {
  tarn_test::set_tick(1234567);  // the milliseconds come from the tick: .567
  EXPECT_EQ(add_proc_heartbeat(nullptr), -2);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << dump_logs();
  const tarn_test::LogLine &line = lines[0];
  EXPECT_EQ(line.number, 1u);
  EXPECT_EQ(line.word, "warn");
  const std::string message = "add process heartbeat failed, because of not inited\n";
  EXPECT_EQ(line.message, message);
  ASSERT_GT(line.line.size(), message.size());
  const std::string prefix = line.line.substr(0, line.line.size() - message.size());
  const std::regex expected(
      "\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.567\\] \\[warn\\] \\[pid:" +
      std::to_string(getpid()) + "\\] \\[tid:" + std::to_string((long long)syscall(SYS_gettid)) +
      "\\] \\[kep\\] \\[tarn_heartbeat\\.cpp:[1-9][0-9]*\\] ");
  EXPECT_TRUE(std::regex_match(prefix, expected)) << line.line;
}

TEST_F(ProcHeartbeatTest, LogLinesNameTheThreadThatLogged) {
  long long other_tid = 0;
  std::thread other([&other_tid] {
    other_tid = (long long)syscall(SYS_gettid);
    get_all_proc_heartbeats(nullptr, 0);
  });
  other.join();
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << dump_logs();
  EXPECT_NE(other_tid, (long long)getpid());
  EXPECT_NE(lines[0].line.find(format("[pid:%d] [tid:%lld] [kep] ", (int)getpid(), other_tid)),
            std::string::npos)
      << lines[0].line;
}

TEST_F(ProcHeartbeatTest, InfoAndDebugLinesCarryTheirLevelNumbers) {
  start_service();
  tarn_test::clear_logs();
  ASSERT_EQ(update_proc_beat_tick(), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  bool saw_debug = false;
  bool saw_info = false;
  for (const tarn_test::LogLine &line : tarn_test::logs()) {
    if (line.word == "debug") {
      saw_debug = true;
      EXPECT_EQ(line.number, 3u) << line.line;
    }
    if (line.word == "info") {
      saw_info = true;
      EXPECT_EQ(line.number, 2u) << line.line;
    }
    EXPECT_NE(line.line.find(" [kep] [tarn_heartbeat.cpp:"), std::string::npos) << line.line;
  }
  EXPECT_TRUE(saw_debug) << dump_logs();
  EXPECT_TRUE(saw_info) << dump_logs();
}

TEST_F(ProcHeartbeatTest, TheLogLevelGatesWarnInfoAndDebugLines) {
  start_service();
  tarn_test::set_log_level(0);
  tarn_test::clear_logs();
  EXPECT_EQ(add_proc_heartbeat(nullptr), -1);
  EXPECT_GE(add_fake(kFakePid), 0);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();

  tarn_test::set_log_level(1);
  EXPECT_EQ(add_proc_heartbeat(nullptr), -1);
  EXPECT_GE(add_fake(kFakePid + 1), 0);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(tarn_test::messages("warn").size(), 1u) << dump_logs();
  EXPECT_NO_LINES_AT("info");
  EXPECT_NO_LINES_AT("debug");

  tarn_test::set_log_level(2);
  tarn_test::clear_logs();
  EXPECT_GE(add_fake(kFakePid + 2), 0);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(tarn_test::messages("info").size(), 1u) << dump_logs();
  EXPECT_NO_LINES_AT("debug");

  tarn_test::set_log_level(3);
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(tarn_test::messages("debug").size(), 1u) << dump_logs();
}

// ---------------------------------------------------------------------------
// Every operation before initialisation.

TEST_F(ProcHeartbeatTest, EveryOperationBeforeInitReturnsUninitialized) {
  EveryOperation every(make_info(self_pid(), 1, 10), self_pid(), 0);
  ASSERT_NO_FATAL_FAILURE(expect_each_fails(every.cases("not inited", true), -2));
  EXPECT_EQ(every.proc_num, 77);
  EXPECT_TRUE(every.timed_out);
  EXPECT_FALSE(segment_exists());
}

TEST_F(ProcHeartbeatTest, OperationsAfterDeinitReturnUninitialized) {
  start_service();
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), -2);
  EXPECT_LOGGED("warn", "update process heartbeat tick failed, because of not inited\n");
  EXPECT_EQ(add_self(1), -2);
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of not inited\n");
}

// ---------------------------------------------------------------------------
// Initialisation and de-initialisation.

TEST_F(ProcHeartbeatTest, InitModeZeroCreatesAClearedTableStampedWithTheMagic) {
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  struct stat st;
  ASSERT_EQ(stat(tarn_test::kHeartbeatSegmentPath, &st), 0);
  EXPECT_GE(st.st_size, 1544);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->magic, 12321u);
  EXPECT_EQ(raw->proc_num, 0);
  for (int i = 0; i < PROC_HEARTBEAT_MAX_PROCS; ++i) EXPECT_TRUE(is_zero(raw.slot(i))) << i;
}

TEST_F(ProcHeartbeatTest, InitModeZeroClearsATableLeftByAnEarlierService) {
  start_service();
  ASSERT_GE(add_fake(kFakePid), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  {
    RawTable raw;
    ASSERT_TRUE(raw.ok());
    ASSERT_EQ(raw->proc_num, 3);
    raw->magic = 1;
  }
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->magic, 12321u);
  EXPECT_EQ(raw->proc_num, 0);
  for (int i = 0; i < PROC_HEARTBEAT_MAX_PROCS; ++i) EXPECT_TRUE(is_zero(raw.slot(i))) << i;
}

TEST_F(ProcHeartbeatTest, InitModeOneAttachesWithoutClearing) {
  start_service();
  ASSERT_EQ(add_fake(kFakePid, 2, 5), 1);
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  tarn_test::clear_logs();

  EXPECT_EQ(proc_heartbeat_init(1), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:1, flag:1, memset:0\n");
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_EQ(out[0].pid, self_pid());
  EXPECT_EQ(out[1].pid, kFakePid);
  EXPECT_EQ(out[1].ptype, 2u);
  EXPECT_EQ(out[1].interval, 5u);
}

TEST_F(ProcHeartbeatTest, InitModeOneCreatesAnEmptySegmentWhenNoneExists) {
  ASSERT_FALSE(segment_exists());
  EXPECT_EQ(proc_heartbeat_init(1), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:1, flag:1, memset:0\n");
  ASSERT_TRUE(segment_exists());
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->magic, 0u);  // only the service's clearing writes the magic
  EXPECT_EQ(raw->proc_num, 0);
  EXPECT_GE(add_self(1), 0);
}

TEST_F(ProcHeartbeatTest, InitWithAnyOtherModeAttachesToAnExistingSegmentOnly) {
  EXPECT_EQ(proc_heartbeat_init(2), ENOENT);
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:2, flag:0\n", ENOENT));
  EXPECT_NO_LINES_AT("info");
  EXPECT_FALSE(segment_exists());
  EXPECT_EQ(add_self(1), -2);

  start_service();
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_init(7), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:7, flag:0, memset:0\n");
  proc_heartbeat_info_t entry;
  EXPECT_EQ(get_proc_heartbeat_info(self_pid(), &entry), 0);
}

TEST_F(ProcHeartbeatTest, AFailedInitIsUndoneAndTheNextInitStartsAfresh) {
  ASSERT_EQ(proc_heartbeat_init(2), ENOENT);
  ASSERT_EQ(proc_heartbeat_init(3), ENOENT);  // not -3: nothing stayed initialised
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  EXPECT_EQ(add_self(0), 0);
}

TEST_F(ProcHeartbeatTest, InitModeOneRefusesASegmentSmallerThanTheTable) {
  const int fd = open(tarn_test::kHeartbeatSegmentPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0660);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 100), 0);
  close(fd);

  EXPECT_EQ(proc_heartbeat_init(1), EINVAL);
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:1, flag:1\n", EINVAL));
  EXPECT_EQ(add_self(1), -2);
  // The service's open grows it.
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  struct stat st;
  ASSERT_EQ(stat(tarn_test::kHeartbeatSegmentPath, &st), 0);
  EXPECT_GE(st.st_size, 1544);
}

TEST_F(ProcHeartbeatTest, AFailedLockSetUpFailsInitAndRemovesTheSegment) {
  g_glock_init_error = EMFILE;
  EXPECT_EQ(proc_heartbeat_init(0), EMFILE);
  EXPECT_LOGGED("warn", format("global lock init failed, error: %d\n", EMFILE));
  EXPECT_NO_LINES_AT("info");
  EXPECT_FALSE(segment_exists());
  EXPECT_EQ(add_self(0), -2);

  g_glock_init_error = 0;
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  EXPECT_EQ(add_self(0), 0);
}

TEST_F(ProcHeartbeatTest, AFailedMappingFailsInitAndRemovesTheSegment) {
  g_shm_map_error = ENOMEM;
  EXPECT_EQ(proc_heartbeat_init(0), ENOMEM);
  EXPECT_LOGGED("warn", format("share memory map failed, error: %d\n", ENOMEM));
  EXPECT_NO_LINES_AT("info");
  EXPECT_FALSE(segment_exists());
  EXPECT_EQ(add_self(0), -2);

  g_shm_map_error = 0;
  EXPECT_EQ(proc_heartbeat_init(1), 0);
  EXPECT_EQ(add_self(1), 0);
}

// ---------------------------------------------------------------------------
// A process that only attaches and fails its init leaves the table, the
// side segment and the lock to the service and the other workers.

// What the others depend on: each shared object's inode, and the table.
std::string shared_state() {
  std::string state;
  for (const char *path : {tarn_test::kHeartbeatSegmentPath, tarn_test::kHeartbeatSidePath,
                           tarn_test::kHeartbeatLockPath})
    state += format("%s:%llu ", path, (unsigned long long)tarn_test::inode_of(path));
  return state + tarn_test::read_file(tarn_test::kHeartbeatSegmentPath);
}

// What init(1) did in a child that started as a fresh process would.
struct AttachOutcome {
  int32_t result = INT32_MIN;  // init's result; INT32_MIN when none came back
  std::vector<tarn_test::LogLine> lines;
};

// Runs init(1) in a child after `before` has been done there.
AttachOutcome attach_in_child(const std::function<void()> &before) {
  tarn_test::Pipe answer;
  AttachOutcome outcome;
  outcome.lines = tarn_test::run_in_child([&] {
    proc_heartbeat_deinit(false);
    tarn_test::clear_logs();
    // What before() limits is given back for the way out.
    struct rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    before();
    const int32_t result = proc_heartbeat_init(1);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    answer.write_int(result);
  }).lines;
  int result = 0;
  if (answer.read_int(&result, 1000)) outcome.result = result;
  return outcome;
}

// Lets the calling process open `spare` more descriptors, and no more.
void allow_descriptors(int spare) {
  const int lowest_free = dup(0);
  close(lowest_free);
  const struct rlimit limit = {(rlim_t)(lowest_free + spare), (rlim_t)(lowest_free + spare)};
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(ProcHeartbeatTest, AnAttachingProcessOutOfDescriptorsLeavesTheTableAndItsLockToTheOthers) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  const std::string before = shared_state();
  // Each number of spare descriptors makes a later step of init fail.
  const std::vector<std::string> expected = {
      format("share memory init failed, error:%d, mode:1, flag:1\n", EMFILE),
      format("global lock init failed, error: %d\n", EMFILE),
      // The lock's second descriptor holds this process's liveness slot.
      format("global lock init failed, error: %d\n", EMFILE),
      format("share memory init failed, error:%d, mode:1, flag:1\n", EMFILE),
  };
  for (int spare = 0; spare < (int)expected.size(); ++spare) {
    SCOPED_TRACE(format("spare descriptors: %d", spare));
    const AttachOutcome outcome = attach_in_child([spare] { allow_descriptors(spare); });
    EXPECT_EQ(outcome.result, EMFILE);
    ASSERT_EQ(outcome.lines.size(), 1u);
    EXPECT_EQ(outcome.lines[0].word, "warn");
    EXPECT_EQ(outcome.lines[0].message, expected[spare]);
    EXPECT_EQ(shared_state(), before);
  }
  EXPECT_EQ(update_proc_beat_tick(), 0) << dump_logs();
  const AttachOutcome worker = attach_in_child([] {});
  EXPECT_EQ(worker.result, 0);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{});
}

TEST_F(ProcHeartbeatTest, AnAttachingProcessWhoseMappingIsRefusedLeavesTheTableAndItsLockToTheOthers) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  const std::string before = shared_state();
  const AttachOutcome outcome = attach_in_child([] { g_shm_map_error = ENOMEM; });
  EXPECT_EQ(outcome.result, ENOMEM);
  ASSERT_EQ(outcome.lines.size(), 1u);
  EXPECT_EQ(outcome.lines[0].word, "warn");
  EXPECT_EQ(outcome.lines[0].message, format("share memory map failed, error: %d\n", ENOMEM));
  EXPECT_EQ(shared_state(), before);
  EXPECT_EQ(update_proc_beat_tick(), 0) << dump_logs();
}

// ---------------------------------------------------------------------------
// A change of the table that a killed holder left half-done.

// The side segment, mapped read-write by the test.
proc_heartbeat_side_t *map_side() {
  const int fd = open(tarn_test::kHeartbeatSidePath, O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  void *base = mmap(nullptr, sizeof(proc_heartbeat_side_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return base == MAP_FAILED ? nullptr : static_cast<proc_heartbeat_side_t *>(base);
}

TEST_F(ProcHeartbeatTest, TheNextHolderUndoesAChangeThatItsKilledHolderLeftHalfDone) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  ASSERT_EQ(add_fake(kFakePid), 1);
  RawTable table;
  proc_heartbeat_side_t *side = map_side();
  ASSERT_TRUE(table.ok());
  ASSERT_NE(side, nullptr);
  EXPECT_EQ(side->magic, PROC_HEARTBEAT_SIDE_MAGIC);
  EXPECT_EQ(side->journal.active, 0u);
  const proc_heartbeat_segment_t before = table.snapshot();

  // A delete of slot 1 killed after it lowered the count and cleared the pid.
  side->journal.slot = 1;
  side->journal.proc_num = table->proc_num;
  side->journal.entry = table.slot(1);
  side->journal.active = 1;
  table->proc_num -= 1;
  table.slot(1).pid = 0;

  tarn_test::clear_logs();
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  EXPECT_EQ(get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS), 2);
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
  EXPECT_LOGGED("warn", "heartbeat slot 1 was left half-changed by a process that died, restored\n");
  EXPECT_LOGGED("info", "get all processes heartbeats successed, proc_num: 2\n");
  EXPECT_TRUE(table.equals(before));
  EXPECT_EQ(side->journal.active, 0u);

  // Repaired once: the next holder finds nothing to do.
  tarn_test::clear_logs();
  EXPECT_EQ(get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS), 2);
  EXPECT_NO_LINES_AT("warn");
  munmap(side, sizeof(*side));
}

TEST_F(ProcHeartbeatTest, EveryChangeOfTheTableLeavesTheJournalInactive) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  proc_heartbeat_side_t *side = map_side();
  ASSERT_NE(side, nullptr);
  ASSERT_EQ(add_fake(kFakePid), 1);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_EQ(del_proc_heartbeat_by_pid(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  EXPECT_EQ(del_proc_heartbeat_by_idx(1), 0);
  // The list mirrors slot 0 (the service) and adds one record.
  proc_heartbeat_info_t service = make_info(self_pid(), PROC_HEARTBEAT_TYPE_SERVICE, 10);
  proc_heartbeat_info_t record = make_info(kFakePid + 2, 1, 10);
  proc_heartbeat_info_t *list[2] = {&service, &record};
  tarn_test::set_process_exists(kFakePid + 2, false);
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 2), 0);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(side->journal.active, 0u);
  RawTable table;
  ASSERT_TRUE(table.ok());
  EXPECT_EQ(table->proc_num, table.occupied());
  munmap(side, sizeof(*side));
}

// ---------------------------------------------------------------------------
// A worker's pid that goes to another process before the service sweeps.
//
// The scenario runs in a new pid namespace, whose first process (the
// service here) can choose the next pid through ns_last_pid: a worker
// registers and dies, and an unrelated process is started at once with
// the worker's pid. Each process reports what it saw as text through a
// pipe.

enum class ReuseCheck { kTimeoutScan, kSweep, kImpostorBeats, kImpostorRegisters };

void report(int fd, const std::string &text) {
  if (write(fd, text.data(), text.size()) != (ssize_t)text.size()) _exit(98);
}

// What the impostor or the service does once the worker's pid is taken.
std::string reuse_check(ReuseCheck check, pid_t worker) {
  std::string seen;
  tarn_test::clear_logs();
  switch (check) {
    case ReuseCheck::kTimeoutScan: {
      tarn_test::set_tick(kTick + 61000);
      proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
      int32_t total = 0;
      const int32_t found = get_beat_timeout_procs(out, PROC_HEARTBEAT_MAX_PROCS, 60, &total);
      seen = format("found:%d total:%d", found, total);
      for (int32_t i = 0; i < found; ++i) seen += format(" pid:%d", out[i].pid);
      break;
    }
    case ReuseCheck::kSweep: seen = format("beat:%d", update_proc_beat_tick()); break;
    case ReuseCheck::kImpostorBeats: seen = format("beat:%d", update_proc_beat_tick()); break;
    case ReuseCheck::kImpostorRegisters: {
      seen = format("add:%d", add_self(2));
      proc_heartbeat_info_t entry;
      if (get_proc_heartbeat_info(worker, &entry) == 0)
        seen += format(" ptype:%u tick:%" PRIu64, entry.ptype, entry.tick);
      break;
    }
  }
  seen += "\n";
  for (const tarn_test::LogLine &line : tarn_test::logs()) seen += line.word + " " + line.message;
  return seen;
}

// The namespace's first process: the service.
int reuse_scenario(ReuseCheck check, int report_fd) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("proc", "/proc", "proc", 0, nullptr) != 0)
    return 90;
  tarn_test::set_tick(kTick);
  if (proc_heartbeat_init(0) != 0 || add_self(PROC_HEARTBEAT_TYPE_SERVICE) != 0) return 91;
  const pid_t worker = fork_child([] { return add_self(1); });
  if (reap(worker) != 1) return 92;
  report(report_fd, format("worker %d\n", (int)worker));
  const int last_pid = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
  const std::string previous = std::to_string(worker - 1);
  if (last_pid < 0 || write(last_pid, previous.data(), previous.size()) <= 0) return 93;
  close(last_pid);
  const bool impostor_acts = check == ReuseCheck::kImpostorBeats || check == ReuseCheck::kImpostorRegisters;
  tarn_test::Pipe done;
  const pid_t impostor = fork_child([&] {
    if (getpid() != worker) return 94;
    if (impostor_acts) report(report_fd, reuse_check(check, worker));
    int ignored = 0;
    return done.read_int(&ignored, 10000) ? 0 : 95;
  });
  if (impostor != worker) return 96;
  if (!impostor_acts) report(report_fd, reuse_check(check, worker));
  done.write_int(1);
  return reap(impostor);
}

// Runs the scenario; returns what was reported, with the worker's pid
// written as W (the namespace's second process under a kernel, a later one
// under an emulator that starts processes of its own).
std::string run_reuse_scenario(ReuseCheck check) {
  tarn_test::Pipe reported;
  const pid_t outer = fork_child([&] {
    reported.close_read();
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) return 80;
    return reap(fork_child([&] { return reuse_scenario(check, reported.write_fd()); }));
  });
  reported.close_write();
  std::string text;
  char buffer[512];
  ssize_t length;
  while ((length = read(reported.read_fd(), buffer, sizeof(buffer))) > 0) text.append(buffer, (size_t)length);
  const int status = reap(outer);
  if (status != 0) text += format("\n<scenario ended with %d>", status);
  int worker = 0;
  const size_t first_line = text.find('\n');
  if (sscanf(text.c_str(), "worker %d", &worker) != 1 || first_line == std::string::npos)
    return "<no worker reported>\n" + text;
  text.erase(0, first_line + 1);
  return std::regex_replace(text, std::regex("pid:" + std::to_string(worker) + "\\b"), "pid:W");
}

TEST_F(ProcHeartbeatTest, TheTimeoutScanDoesNotReportAProcessThatWasGivenADeadWorkersPid) {
  EXPECT_EQ(run_reuse_scenario(ReuseCheck::kTimeoutScan),
            "found:1 total:2 pid:1\n"
            "info get heartbeat timeout processes successed, total: 1, max_tmdf:60\n");
}

TEST_F(ProcHeartbeatTest, TheSweepClearsTheEntryOfAWorkerWhosePidWentToAnotherProcess) {
  EXPECT_EQ(run_reuse_scenario(ReuseCheck::kSweep),
            "beat:0\n"
            "warn the process[pid:W, ptype:1, pidx:1] is not exist, heartbeat will be cleared\n"
            "debug update process heartbeat [pid:1, idx:0] tick successed\n");
}

TEST_F(ProcHeartbeatTest, AProcessGivenADeadWorkersPidDoesNotBeatForIt) {
  EXPECT_EQ(run_reuse_scenario(ReuseCheck::kImpostorBeats),
            "beat:-5\n"
            "warn update process heartbeat tick failed, because of pid:W not exist\n");
}

TEST_F(ProcHeartbeatTest, AProcessGivenADeadWorkersPidRegistersAfreshInsteadOfTakingItsEntry) {
  EXPECT_EQ(run_reuse_scenario(ReuseCheck::kImpostorRegisters),
            format("add:1 ptype:2 tick:%" PRIu64 "\n", kTick) +
                "warn the process[pid:W, ptype:1, pidx:1] is not exist, heartbeat will be cleared\n"
                "info add process heartbeat [pid:W, idx:1, ptype:2, tick:" +
                std::to_string(kTick) + " successed\n" + "info get process heartbeat [pid:W, idx:1] info successed\n");
}

// ---------------------------------------------------------------------------
// Segments and locks that the agent did not make.

using tarn_test::describe_object;

// A table as another user would have left it: forged entries, mode 0666.
void plant_foreign_table(const char *path) {
  proc_heartbeat_segment_t forged;
  memset(&forged, 0, sizeof(forged));
  forged.magic = PROC_HEARTBEAT_MAGIC;
  forged.proc_num = 1;
  forged.entries[0] = make_info(kFakePid, PROC_HEARTBEAT_TYPE_SERVICE, 10);
  const std::string bytes(reinterpret_cast<const char *>(&forged), sizeof(forged));
  ASSERT_TRUE(tarn_test::plant_object(path, bytes, 65534, 65534, 0666)) << strerror(errno);
}

TEST_F(ProcHeartbeatTest, InitModeZeroReplacesASegmentAndALockOfAnotherUser) {
  ASSERT_NO_FATAL_FAILURE(plant_foreign_table(tarn_test::kHeartbeatSegmentPath));
  ASSERT_TRUE(tarn_test::plant_object(tarn_test::kHeartbeatLockPath, std::string(64, '\0'), 65534, 65534, 0666));
  tarn_test::set_process_exists(kFakePid, true);

  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatSegmentPath), "regular 0:0 0660 1544");
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatLockPath), "regular 0:0 0660 8256");
  proc_heartbeat_info_t entry;
  EXPECT_EQ(get_proc_heartbeat_info(kFakePid, &entry), -5);
  EXPECT_EQ(add_self(PROC_HEARTBEAT_TYPE_SERVICE), 0);
}

TEST_F(ProcHeartbeatTest, AttachingModesRefuseASegmentOfAnotherUserAndLeaveIt) {
  ASSERT_NO_FATAL_FAILURE(plant_foreign_table(tarn_test::kHeartbeatSegmentPath));
  EXPECT_EQ(proc_heartbeat_init(1), EPERM);
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:1, flag:1\n", EPERM));
  EXPECT_EQ(proc_heartbeat_init(2), EPERM);
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:2, flag:0\n", EPERM));
  EXPECT_NO_LINES_AT("info");
  EXPECT_EQ(add_self(1), -2);
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatSegmentPath), "regular 65534:65534 0666 1544");
}

TEST_F(ProcHeartbeatTest, AnAttachingModeRefusesALockOfAnotherUserAndUndoesItsInit) {
  ASSERT_TRUE(tarn_test::plant_object(tarn_test::kHeartbeatLockPath, std::string(64, '\0'), 65534, 65534, 0666));
  EXPECT_EQ(proc_heartbeat_init(1), EPERM);
  EXPECT_LOGGED("warn", format("global lock init failed, error: %d\n", EPERM));
  EXPECT_NO_LINES_AT("info");
  // An attaching process leaves the segment it may have made to the others.
  EXPECT_TRUE(segment_exists());
  EXPECT_EQ(add_self(1), -2);
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatLockPath), "regular 65534:65534 0666 64");
}

TEST_F(ProcHeartbeatTest, ALinkAtTheSegmentsNameIsRefusedByAttachingAndReplacedByTheService) {
  const std::string target = "/tmp/heartbeat_link_target";
  ASSERT_TRUE(tarn_test::plant_object(target, "precious", 0, 0, 0600));
  ASSERT_EQ(symlink(target.c_str(), tarn_test::kHeartbeatSegmentPath), 0);
  EXPECT_EQ(proc_heartbeat_init(2), ELOOP);
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:2, flag:0\n", ELOOP));
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatSegmentPath), "link");

  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatSegmentPath), "regular 0:0 0660 1544");
  EXPECT_EQ(describe_object(target), "regular 0:0 0600 8");
  EXPECT_EQ(tarn_test::read_file(target), "precious");
  unlink(target.c_str());
}

TEST_F(ProcHeartbeatTest, ASegmentShrunkBeforeItIsMappedFailsInitInsteadOfFaulting) {
  g_shrink_before_map = 100;
  EXPECT_EQ(proc_heartbeat_init(0), EINVAL);
  EXPECT_LOGGED("warn", format("share memory map failed, error: %d\n", EINVAL));
  EXPECT_NO_LINES_AT("info");
  EXPECT_FALSE(segment_exists());
  EXPECT_EQ(add_self(0), -2);
}

TEST_F(ProcHeartbeatTest, WithAnAgentGroupTheTableAndItsLockBelongToRootAndThatGroup) {
  // nogroup is 65534 on every Debian system.
  EXPECT_EQ(tarn_test::with_agent_group("nogroup", [] {
              if (proc_heartbeat_init(0) != 0) return 1;
              if (!tarn_test::logged("info",
                                     "process heartbeat init successed, mode:0, flag:2, memset:1\n"))
                return 2;
              return proc_heartbeat_deinit(false) == 0 ? 0 : 3;
            }),
            0);
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatSegmentPath), "regular 0:65534 0660 1544");
  EXPECT_EQ(describe_object(tarn_test::kHeartbeatLockPath), "regular 0:65534 0660 8256");
  // A member of the group attaches; another user cannot.
  const auto attach = [] {
    const int32_t ret = proc_heartbeat_init(2);
    if (ret == 0) return add_self(1) >= 0 ? 0 : 200;
    const std::string warn = format("share memory init failed, error:%d, mode:2, flag:0\n", ret);
    return tarn_test::logged("warn", warn) ? (int)ret : 201;
  };
  EXPECT_EQ(tarn_test::as_user(65534, 65534, attach), 0);
  EXPECT_EQ(tarn_test::as_user(65533, 65533, attach), EACCES);
}

TEST_F(ProcHeartbeatTest, ASecondInitReturnsReinitializedAndChangesNothing) {
  start_service();
  ASSERT_EQ(add_fake(kFakePid), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();

  EXPECT_EQ(proc_heartbeat_init(0), -3);
  EXPECT_EQ(proc_heartbeat_init(1), -3);
  EXPECT_EQ(proc_heartbeat_init(2), -3);
  EXPECT_STREQ(get_heartbeat_errmsg(-3), "reinitialized");
  EXPECT_TRUE(raw.equals(before));  // mode 0 did not clear the table again
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
  // Still initialised and working.
  EXPECT_EQ(add_fake(kFakePid + 1), 2);
}

TEST_F(ProcHeartbeatTest, DeinitBeforeInitReturnsZeroAndLogsNothing) {
  EXPECT_EQ(proc_heartbeat_deinit(false), 0);
  EXPECT_EQ(proc_heartbeat_deinit(true), 0);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
}

TEST_F(ProcHeartbeatTest, DeinitReleasesTheHandlesAndSaysSo) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_deinit(false), 0);
  EXPECT_LOGGED("info", "process heartbeat has deinit, ret: 0\n");
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  // A second deinit finds nothing to release.
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_deinit(false), 0);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
}

TEST_F(ProcHeartbeatTest, DeinitWithoutDestroyLeavesTheSegmentForOthersAndALaterInitAttachesAgain) {
  start_service();
  ASSERT_EQ(add_fake(kFakePid, 3, 20), 1);
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);
  EXPECT_TRUE(segment_exists());

  // Another process attaches to what this one left and finds both entries.
  const pid_t child = fork_child([] {
    if (proc_heartbeat_init(2) != 0) return 100;
    proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
    const int32_t n = get_all_proc_heartbeats(out, 64);
    if (n != 2) return 101;
    if (out[0].pid != (int32_t)getppid() || out[0].ptype != 0) return 102;
    if (out[1].pid != kFakePid || out[1].ptype != 3 || out[1].interval != 20) return 103;
    return 0;
  });
  ASSERT_GT(child, 0);
  EXPECT_EQ(reap(child), 0);

  // And this process attaches again.
  tarn_test::clear_logs();
  ASSERT_EQ(proc_heartbeat_init(1), 0);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:1, flag:1, memset:0\n");
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_EQ(out[0].pid, self_pid());
  EXPECT_EQ(out[1].pid, kFakePid);
  EXPECT_EQ(update_proc_beat_tick(), 0);
}

TEST_F(ProcHeartbeatTest, DeinitWithDestroyRemovesTheSegment) {
  start_service();
  tarn_test::clear_logs();
  EXPECT_EQ(proc_heartbeat_deinit(true), 0);
  EXPECT_LOGGED("info", "process heartbeat has deinit, ret: 0\n");
  EXPECT_FALSE(segment_exists());
  EXPECT_EQ(proc_heartbeat_init(2), ENOENT);
  ASSERT_EQ(proc_heartbeat_init(1), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 0);
  EXPECT_TRUE(is_zero(raw.slot(0)));
}

// ---------------------------------------------------------------------------
// The global lock.

TEST_F(ProcHeartbeatTest, EveryOperationTimesOutWhileTheLockIsHeld) {
  start_service();
  ASSERT_EQ(add_fake(kFakePid), 1);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();

  TableLockHolder holder;
  ASSERT_TRUE(holder.ok());
  ASSERT_EQ(holder.acquire(0), 0);

  tarn_test::set_process_exists(kFakePid + 1, true);
  EveryOperation every(make_info(kFakePid + 1, 1, 10), kFakePid, 1);
  ASSERT_NO_FATAL_FAILURE(expect_each_fails(every.cases("acquire glock timeout", false), -4));
  EXPECT_EQ(every.proc_num, 77);  // stored only under the lock
  EXPECT_FALSE(every.timed_out);  // cleared before the lock is asked for
  EXPECT_EQ(every.info.idx, 0u);  // sync wrote nothing back
  EXPECT_TRUE(raw.equals(before));
  EXPECT_STREQ(get_heartbeat_errmsg(-4), "wait to timeout");

  ASSERT_EQ(holder.release(), 0);
  EXPECT_EQ(update_proc_beat_tick(), 0);
}

TEST_F(ProcHeartbeatTest, TheLockIsFreeAfterEveryOutcome) {
  TableLockHolder holder;
  ASSERT_TRUE(holder.ok());
  start_service();
  EXPECT_TRUE(holder.is_free());
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  bool timed_out = false;

  EXPECT_EQ(add_fake(kFakePid), 1);
  EXPECT_TRUE(holder.is_free()) << "after a registration";
  EXPECT_EQ(add_fake(kFakePid), 1);
  EXPECT_TRUE(holder.is_free()) << "after a repeated registration";
  EXPECT_EQ(add_self(0), 0);
  EXPECT_TRUE(holder.is_free()) << "after a service replacement";
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_TRUE(holder.is_free()) << "after the service's beat";
  EXPECT_EQ(get_proc_heartbeat_info(kFakePid + 50, out), -5);
  EXPECT_TRUE(holder.is_free()) << "after an unknown pid's info";
  EXPECT_EQ(update_wtdog_beat_tick(), -5);
  EXPECT_TRUE(holder.is_free()) << "after a beat without a watchdog";
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), -5);
  EXPECT_TRUE(holder.is_free()) << "after a check without a watchdog";
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 60, nullptr), 0);
  EXPECT_TRUE(holder.is_free()) << "after a timeout scan";
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_TRUE(holder.is_free()) << "after a listing";
  EXPECT_EQ(del_proc_heartbeat_by_pid(kFakePid + 50), 0);
  EXPECT_TRUE(holder.is_free()) << "after deleting an unknown pid";
  EXPECT_EQ(del_proc_heartbeat_by_idx(5), 0);
  EXPECT_TRUE(holder.is_free()) << "after deleting a free slot";
  fill_to(64);
  EXPECT_EQ(add_fake(kFakePid + 99), -7);
  EXPECT_TRUE(holder.is_free()) << "after a full table refused a registration";
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_TRUE(holder.is_free()) << "after a full table refused the watchdog";
  proc_heartbeat_info_t extra = make_info(kFakePid + 98, 1, 10);
  proc_heartbeat_info_t *list[1] = {&extra};
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 1), 0);
  EXPECT_TRUE(holder.is_free()) << "after a sync";
}

TEST_F(ProcHeartbeatTest, AHolderKilledWhileHoldingTheLockDoesNotWedgeTheTable) {
  start_service();
  Pipe locked;
  ASSERT_TRUE(locked.ok());
  const pid_t child = fork_child([&locked] {
    locked.close_read();
    tarn_glock_t *lock = nullptr;
    if (tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock) != 0) return 20;
    if (tarn_glock_acquire_timeout(lock, 0) != 0) return 21;
    locked.send('L');
    for (;;) pause();
  });
  ASSERT_GT(child, 0);
  locked.close_write();
  ASSERT_EQ(locked.receive(), 'L');
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), -4);  // it is held

  ASSERT_EQ(kill(child, SIGKILL), 0);
  EXPECT_EQ(reap(child), killed_by(SIGKILL));

  tarn_test::clear_logs();
  EXPECT_EQ(add_fake(kFakePid, 2, 5), 1);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_TRUE(tarn_test::messages("warn").empty()) << dump_logs();
}

TEST_F(ProcHeartbeatTest, InitModeZeroWhileAnotherProcessHoldsTheLockKeepsTheOldTable) {
  start_service();
  ASSERT_EQ(add_fake(kFakePid, 4, 30), 1);
  ASSERT_EQ(proc_heartbeat_deinit(false), 0);

  Pipe locked;
  Pipe release;
  ASSERT_TRUE(locked.ok() && release.ok());
  const pid_t child = fork_child([&locked, &release] {
    locked.close_read();
    release.close_write();
    tarn_glock_t *lock = nullptr;
    if (tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock) != 0) return 30;
    if (tarn_glock_acquire_timeout(lock, 0) != 0) return 31;
    locked.send('L');
    if (release.receive() != 'r') return 32;
    if (tarn_glock_release(lock) != 0) return 33;
    return 0;
  });
  ASSERT_GT(child, 0);
  locked.close_write();
  release.close_read();
  ASSERT_EQ(locked.receive(), 'L');

  tarn_test::clear_logs();
  const auto start = std::chrono::steady_clock::now();
  const int32_t ret = proc_heartbeat_init(0);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(ret, 0);
  EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count(), 990);
  EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:0\n");
  EXPECT_NO_LINES_AT("warn");
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), -4);  // still held by the child

  ASSERT_TRUE(release.send('r'));
  EXPECT_EQ(reap(child), 0);

  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_EQ(out[0].pid, self_pid());
  EXPECT_EQ(out[0].ptype, 0u);
  EXPECT_EQ(out[1].pid, kFakePid);
  EXPECT_EQ(out[1].ptype, 4u);
  EXPECT_EQ(out[1].interval, 30u);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->magic, 12321u);
  EXPECT_EQ(raw->proc_num, 2);
}

// ---------------------------------------------------------------------------
// Registration.

TEST_F(ProcHeartbeatTest, AddStoresTheEntryInTheLowestFreeSlotWithTheClockTick) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  tarn_test::clear_logs();
  const proc_heartbeat_info_t info = make_info(self_pid(), 1, 5, 42, 7);
  EXPECT_EQ(add_proc_heartbeat(&info), 0);
  EXPECT_LOGGED("info", format("add process heartbeat [pid:%d, idx:0, ptype:1, tick:5000000000 "
                               "successed\n",
                               self_pid()));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 1);
  const proc_heartbeat_info_t &entry = raw.slot(0);
  EXPECT_EQ(entry.pid, self_pid());
  EXPECT_EQ(entry.idx, 0u);  // the slot, not the caller's idx
  EXPECT_EQ(entry.interval, 5u);
  EXPECT_EQ(entry.ptype, 1u);
  EXPECT_EQ(entry.tick, kTick);  // the clock's tick, not the caller's

  tarn_test::advance_tick(10);
  EXPECT_EQ(add_fake(kFakePid, 2, 7), 1);
  EXPECT_EQ(add_fake(kFakePid + 1, 3, 9), 2);
  EXPECT_EQ(raw.slot(1).idx, 1u);
  EXPECT_EQ(raw.slot(2).idx, 2u);
  EXPECT_EQ(raw.slot(2).tick, kTick + 10);
  EXPECT_EQ(raw->proc_num, 3);
}

TEST_F(ProcHeartbeatTest, AddFillsAGapBeforeAppending) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  ASSERT_EQ(add_fake(kFakePid + 2), 2);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid), 0);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  EXPECT_EQ(add_fake(kFakePid + 3), 0);
  EXPECT_EQ(add_fake(kFakePid + 4), 1);
  EXPECT_EQ(add_fake(kFakePid + 5), 3);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 4);
}

TEST_F(ProcHeartbeatTest, AddAcceptsIntervalsOneToFiftyNineAndTypesZeroToSix) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  EXPECT_GE(add_fake(kFakePid, 1, 1), 0);
  EXPECT_GE(add_fake(kFakePid + 1, 1, 59), 0);
  for (uint32_t ptype = 0; ptype <= 6; ++ptype)
    EXPECT_GE(add_fake(kFakePid + 10 + (int32_t)ptype, ptype, 10), 0) << ptype;
  EXPECT_NO_LINES_AT("warn");
}

TEST_F(ProcHeartbeatTest, AddRejectsIntervalZeroOrSixtyAndTypeSeven) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::clear_logs();
  const std::string message = "add process heartbeat failed, because of invalid parameter\n";
  struct Case {
    uint32_t ptype;
    uint32_t interval;
  };
  for (const Case c :
       {Case{1, 0}, Case{1, 60}, Case{7, 10}, Case{1, UINT32_MAX}, Case{UINT32_MAX, 10}}) {
    SCOPED_TRACE(format("ptype %u interval %u", c.ptype, c.interval));
    tarn_test::clear_logs();
    EXPECT_EQ(add_self(c.ptype, c.interval), -1);
    EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  }
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 0);
}

TEST_F(ProcHeartbeatTest, AddRejectsANullRecordAndPidsBelowOne) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  const std::string message = "add process heartbeat failed, because of invalid parameter\n";
  tarn_test::clear_logs();
  EXPECT_EQ(add_proc_heartbeat(nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  for (int32_t pid : {0, -1, INT32_MIN}) {
    SCOPED_TRACE(pid);
    tarn_test::clear_logs();
    const proc_heartbeat_info_t info = make_info(pid, 1, 10);
    EXPECT_EQ(add_proc_heartbeat(&info), -1);
    EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  }
}

TEST_F(ProcHeartbeatTest, AddRejectsAPidWithNoProcess) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_process_exists(kFakePid, false);
  tarn_test::clear_logs();
  const proc_heartbeat_info_t info = make_info(kFakePid, 1, 10);
  EXPECT_EQ(add_proc_heartbeat(&info), -5);
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of process: 100000 is not exit\n");
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  // The arguments are checked before the process.
  tarn_test::clear_logs();
  const proc_heartbeat_info_t bad = make_info(kFakePid, 1, 0);
  EXPECT_EQ(add_proc_heartbeat(&bad), -1);
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of invalid parameter\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 0);
}

TEST_F(ProcHeartbeatTest, AddingARegisteredPidReturnsItsSlotAndKeepsTheEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid, 1, 5), 0);
  ASSERT_EQ(add_self(2, 8), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();

  tarn_test::advance_tick(5000);
  tarn_test::clear_logs();
  EXPECT_EQ(add_fake(kFakePid, 3, 30), 0);
  EXPECT_EQ(add_self(4, 40), 1);
  EXPECT_TRUE(raw.equals(before)) << describe(raw.slot(0)) << describe(raw.slot(1));
  EXPECT_EQ(raw.slot(0).interval, 5u);
  EXPECT_EQ(raw.slot(0).ptype, 1u);
  EXPECT_EQ(raw.slot(0).tick, kTick);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
}

TEST_F(ProcHeartbeatTest, AddingAServiceReplacesTheLiveServiceEntryInPlace) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid, 1), 0);
  ASSERT_EQ(add_fake(kFakePid + 1, 0, 15), 1);  // the earlier service
  ASSERT_EQ(add_fake(kFakePid + 2, 2), 2);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  ASSERT_EQ(raw->proc_num, 3);

  tarn_test::advance_tick(1000);
  tarn_test::clear_logs();
  EXPECT_EQ(add_self(0, 7, 42), 1);
  EXPECT_LOGGED("info", format("service heartbeat info update, old_pid:100001, new_pid:%d, "
                               "tick:5000001000\n",
                               self_pid()));
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  const proc_heartbeat_info_t &entry = raw.slot(1);
  EXPECT_EQ(entry.pid, self_pid());
  EXPECT_EQ(entry.idx, 42u);  // the caller's idx is stored on this path
  EXPECT_EQ(entry.interval, 7u);
  EXPECT_EQ(entry.ptype, 0u);
  EXPECT_EQ(entry.tick, kTick + 1000);
  EXPECT_EQ(raw->proc_num, 3);
  EXPECT_EQ(raw.slot(0).pid, kFakePid);
  EXPECT_EQ(raw.slot(2).pid, kFakePid + 2);
}

TEST_F(ProcHeartbeatTest, AddingTheSameServiceAgainUpdatesItsEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_self(0, 10), 0);
  tarn_test::advance_tick(2500);
  tarn_test::clear_logs();
  EXPECT_EQ(add_self(0, 20, 9), 0);
  EXPECT_LOGGED("info", format("service heartbeat info update, old_pid:%d, new_pid:%d, "
                               "tick:5000002500\n",
                               self_pid(), self_pid()));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 1);
  EXPECT_EQ(raw.slot(0).interval, 20u);
  EXPECT_EQ(raw.slot(0).idx, 9u);
  EXPECT_EQ(raw.slot(0).tick, kTick + 2500);
}

TEST_F(ProcHeartbeatTest, AServiceWithNoServiceEntryTakesAFreeSlotPastTheWatchdog) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);  // slot 0, pid -1: counts as occupied only
  tarn_test::set_tick(kTick);
  tarn_test::clear_logs();
  EXPECT_EQ(add_self(0, 10, 42), 1);
  EXPECT_LOGGED("info", format("add process heartbeat [pid:%d, idx:1, ptype:0, tick:5000000000 "
                               "successed\n",
                               self_pid()));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw.slot(1).idx, 1u);  // a new entry gets its slot as idx
  EXPECT_EQ(raw.slot(0).ptype, 6u);
  EXPECT_EQ(raw.slot(0).pid, -1);
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, AddToATableWithSixtyFourOccupiedSlotsReturnsMinus7) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(add_fake(kFakePid + 64), -7);
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of the process number over max\n");
  EXPECT_EQ(add_self(0), -7);  // no service entry to replace either
  EXPECT_TRUE(raw.equals(before));
  EXPECT_EQ(raw->proc_num, 64);
  EXPECT_STREQ(get_heartbeat_errmsg(-7), "buffer write full");
  // A pid already in the full table still gets its slot.
  EXPECT_EQ(add_fake(kFakePid + 63), 63);
}

TEST_F(ProcHeartbeatTest, AddCountsTheWatchdogSlotAsOccupied) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  for (int i = 0; i < 63; ++i) ASSERT_EQ(add_fake(kFakePid + i), i + 1);
  tarn_test::clear_logs();
  EXPECT_EQ(add_fake(kFakePid + 63), -7);
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of the process number over max\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 64);
}

// ---------------------------------------------------------------------------
// Removal.

TEST_F(ProcHeartbeatTest, DeleteByPidClearsTheSlotAndLowersProcNum) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  ASSERT_EQ(add_fake(kFakePid + 2), 2);
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  EXPECT_LOGGED("info", "delete process heartbeat [pid:100001, idx:1] successed\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 2);
  EXPECT_TRUE(is_zero(raw.slot(1)));
  EXPECT_EQ(raw.slot(0).pid, kFakePid);
  EXPECT_EQ(raw.slot(2).pid, kFakePid + 2);
  proc_heartbeat_info_t out;
  EXPECT_EQ(get_proc_heartbeat_info(kFakePid + 2, &out), 0);  // found past the gap
}

TEST_F(ProcHeartbeatTest, DeleteByPidRejectsPidsBelowOne) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int32_t pid : {0, -1}) {
    SCOPED_TRACE(pid);
    tarn_test::clear_logs();
    EXPECT_EQ(del_proc_heartbeat_by_pid(pid), -1);
    EXPECT_EQ(tarn_test::messages("warn"),
              std::vector<std::string>{
                  "delete process heartbeat failed, because of invalid parameter\n"});
  }
}

TEST_F(ProcHeartbeatTest, DeletingAnUnknownPidReturnsZero) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_pid(4242), 0);  // empty table: the scan stops at once
  EXPECT_LOGGED("info", "delete process heartbeat [pid:4242, idx:0] successed\n");

  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_pid(4242), 0);  // the scan stops after two occupied slots
  EXPECT_LOGGED("info", "delete process heartbeat [pid:4242, idx:2] successed\n");
  EXPECT_TRUE(raw.equals(before));

  ASSERT_EQ(add_fake(kFakePid + 2), 2);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_pid(4242), 0);  // the lowest free slot seen
  EXPECT_LOGGED("info", "delete process heartbeat [pid:4242, idx:1] successed\n");
  EXPECT_TRUE(raw.equals(before));
  EXPECT_NO_LINES_AT("warn");
}

TEST_F(ProcHeartbeatTest, DeleteByIdxClearsAProcessSlot) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_idx(1), 0);
  EXPECT_LOGGED("info", "delete process heartbeat [pid:100001, idx:1] successed\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 1);
  EXPECT_TRUE(is_zero(raw.slot(1)));
}

TEST_F(ProcHeartbeatTest, DeleteByIdxRejectsIndicesAbove63) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (uint32_t idx : {64u, 65u, UINT32_MAX}) {
    SCOPED_TRACE(idx);
    tarn_test::clear_logs();
    EXPECT_EQ(del_proc_heartbeat_by_idx(idx), -1);
    EXPECT_EQ(tarn_test::messages("warn"),
              std::vector<std::string>{
                  "delete process heartbeat failed, because of invalid parameter\n"});
  }
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_idx(63), 0);  // a free slot: left alone
  EXPECT_LOGGED("info", "delete process heartbeat [pid:0, idx:0] successed\n");
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 0);
}

TEST_F(ProcHeartbeatTest, DeleteByIdxOfTheWatchdogSlotReturnsZeroAndKeepsIt) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_idx(1), 0);
  EXPECT_LOGGED("info", "delete process heartbeat [pid:-1, idx:1] successed\n");
  EXPECT_TRUE(raw.equals(before));
  EXPECT_EQ(raw.slot(1).ptype, 6u);
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, DeleteByIdxLogsTheIdxStoredInTheSlot) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid, 0), 0);
  ASSERT_EQ(add_self(0, 10, 42), 0);  // the replacement stores idx 42 in slot 0
  tarn_test::clear_logs();
  EXPECT_EQ(del_proc_heartbeat_by_idx(0), 0);
  EXPECT_LOGGED("info",
                format("delete process heartbeat [pid:%d, idx:42] successed\n", self_pid()));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_TRUE(is_zero(raw.slot(0)));
  EXPECT_EQ(raw->proc_num, 0);
}

// ---------------------------------------------------------------------------
// Beats and the service's sweep.

TEST_F(ProcHeartbeatTest, AWorkerBeatChangesOnlyItsOwnTick) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_self(1, 5), 0);
  ASSERT_EQ(add_fake(kFakePid, 2), 1);
  ASSERT_EQ(add_fake(kFakePid + 1, 0), 2);
  tarn_test::set_process_exists(kFakePid, false);  // dead, but only the service sweeps
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  raw->magic = 1;  // nor is the magic looked at
  proc_heartbeat_segment_t expected = raw.snapshot();
  expected.entries[0].tick = kTick + 3000;

  tarn_test::advance_tick(3000);
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_LOGGED("debug",
                format("update process heartbeat [pid:%d, idx:0] tick successed\n", self_pid()));
  EXPECT_EQ(count_lines(), 1u) << dump_logs();
  EXPECT_TRUE(raw.equals(expected));
  EXPECT_EQ(raw->proc_num, 3);
}

TEST_F(ProcHeartbeatTest, TheServiceBeatClearsEntriesOfProcessesThatNoLongerExist) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_self(0), 0);
  ASSERT_EQ(add_fake(kFakePid, 2), 1);
  ASSERT_EQ(add_fake(kFakePid + 1, 3), 2);
  ASSERT_EQ(add_fake(kFakePid + 2, 1), 3);
  tarn_test::set_process_exists(kFakePid, false);
  tarn_test::set_process_exists(kFakePid + 2, false);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_info_t survivor = raw.slot(2);

  tarn_test::advance_tick(1000);
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      (std::vector<std::string>{
          "the process[pid:100000, ptype:2, pidx:1] is not exist, heartbeat will be cleared\n",
          "the process[pid:100002, ptype:1, pidx:3] is not exist, heartbeat will be cleared\n"}));
  EXPECT_LOGGED("debug",
                format("update process heartbeat [pid:%d, idx:0] tick successed\n", self_pid()));
  EXPECT_TRUE(is_zero(raw.slot(1)));
  EXPECT_TRUE(is_zero(raw.slot(3)));
  EXPECT_TRUE(same_entry(raw.slot(2), survivor)) << describe(raw.slot(2));
  EXPECT_EQ(raw.slot(0).tick, kTick + 1000);
  EXPECT_EQ(raw->proc_num, 2);
  EXPECT_EQ(raw->magic, 12321u);
}

TEST_F(ProcHeartbeatTest, TheServiceBeatKeepsTheWatchdogEntryThoughItsPidDoesNotExist) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  ASSERT_EQ(add_self(0), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_info_t watchdog = raw.slot(0);
  ASSERT_EQ(watchdog.pid, -1);
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_NO_LINES_AT("warn");
  EXPECT_TRUE(same_entry(raw.slot(0), watchdog)) << describe(raw.slot(0));
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, TheServiceBeatVisitsEverySlotAndRecountsProcNum) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_self(0), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  // Entries past where proc_num would stop a scan: one live, one dead.
  tarn_test::set_process_exists(kFakePid, true);
  tarn_test::set_process_exists(kFakePid + 1, false);
  raw.slot(40) = make_info(kFakePid, 2, 10, 40, 1);
  raw.slot(50) = make_info(kFakePid + 1, 3, 10, 50, 1);
  raw->proc_num = 1;
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      std::vector<std::string>{
          "the process[pid:100001, ptype:3, pidx:50] is not exist, heartbeat will be cleared\n"});
  EXPECT_EQ(raw.slot(40).pid, kFakePid);
  EXPECT_TRUE(is_zero(raw.slot(50)));
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, TheServiceBeatWarnsOfAChangedMagicAndSweepsAnyway) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_self(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 1);
  tarn_test::set_process_exists(kFakePid, false);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  raw->magic = 0x1234;
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      (std::vector<std::string>{
          "shared memory data may have been modified\n",
          "the process[pid:100000, ptype:1, pidx:1] is not exist, heartbeat will be cleared\n"}));
  EXPECT_EQ(raw->magic, 0x1234u);  // reported, not repaired
  EXPECT_TRUE(is_zero(raw.slot(1)));
  EXPECT_EQ(raw->proc_num, 1);
}

TEST_F(ProcHeartbeatTest, ABeatFromAProcessWithoutAnEntryReturnsMinus5) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), -5);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      std::vector<std::string>{format(
          "update process heartbeat tick failed, because of pid:%d not exist\n", self_pid())});
  EXPECT_TRUE(raw.equals(before));
}

TEST_F(ProcHeartbeatTest, TheServiceBeatClearsARealProcessKilledWithoutDeletingItself) {
  start_service();
  Pipe hold;
  ASSERT_TRUE(hold.ok());
  const pid_t child = fork_child([&hold] {
    hold.close_write();
    hold.receive();
    return 0;
  });
  ASSERT_GT(child, 0);
  hold.close_read();
  // Registration takes a pid: the service registers the child.
  const proc_heartbeat_info_t info = make_info((int32_t)child, 3, 10);
  ASSERT_EQ(add_proc_heartbeat(&info), 1) << dump_logs();
  tarn_test::clear_logs();
  ASSERT_EQ(update_proc_beat_tick(), 0);
  EXPECT_NO_LINES_AT("warn");  // alive: kept

  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(reap(child), killed_by(SIGKILL));
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{format(
                "the process[pid:%d, ptype:3, pidx:1] is not exist, heartbeat will be cleared\n",
                (int)child)});
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_TRUE(is_zero(raw.slot(1)));
  EXPECT_EQ(raw->proc_num, 1);

  // Nor can the dead pid register again.
  tarn_test::clear_logs();
  EXPECT_EQ(add_proc_heartbeat(&info), -5);
  EXPECT_LOGGED("warn", format("add process heartbeat failed, because of process: %d is not exit\n",
                               (int)child));
}

// ---------------------------------------------------------------------------
// The timeout scan.

TEST_F(ProcHeartbeatTest, TimeoutScanRejectsMaxTmdf59AndAccepts60) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  tarn_test::clear_logs();
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 59, nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "get heartbeat timeout processes failed, because of invalid parameter\n"});
  EXPECT_EQ(get_beat_timeout_procs(out, 64, INT32_MIN, nullptr), -1);
  tarn_test::clear_logs();
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 60, nullptr), 0);
  EXPECT_LOGGED("info", "get heartbeat timeout processes successed, total: 0, max_tmdf:60\n");
}

TEST_F(ProcHeartbeatTest, TimeoutScanRejectsACapacityOf63EvenWithFewEntries) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t proc_num = 77;
  tarn_test::clear_logs();
  EXPECT_EQ(get_beat_timeout_procs(out, 63, 60, &proc_num), -1);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "get heartbeat timeout processes failed, because of invalid parameter\n"});
  EXPECT_EQ(proc_num, 77);
  EXPECT_EQ(get_beat_timeout_procs(out, 0, 60, &proc_num), -1);
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 60, &proc_num), 0);
  EXPECT_EQ(proc_num, 1);
}

TEST_F(ProcHeartbeatTest, TimeoutScanRejectsANullOutput) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(get_beat_timeout_procs(nullptr, 64, 60, nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "get heartbeat timeout processes failed, because of invalid parameter\n"});
}

TEST_F(ProcHeartbeatTest, AnEntryExactlyMaxTmdfOldIsReportedAndOneAMillisecondYoungerIsNot) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid, 2, 30), 0);
  tarn_test::advance_tick(1);
  ASSERT_EQ(add_fake(kFakePid + 1, 3, 30), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_info_t older = raw.slot(0);

  tarn_test::set_tick(kTick + 60000);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  memset(out, 0, sizeof(out));
  int32_t proc_num = 0;
  tarn_test::clear_logs();
  ASSERT_EQ(get_beat_timeout_procs(out, 64, 60, &proc_num), 1);
  EXPECT_TRUE(same_entry(out[0], older)) << describe(out[0]);  // copied whole
  EXPECT_EQ(out[0].tick, kTick);
  EXPECT_TRUE(is_zero(out[1]));
  EXPECT_EQ(proc_num, 2);
  EXPECT_LOGGED("info", "get heartbeat timeout processes successed, total: 1, max_tmdf:60\n");

  tarn_test::advance_tick(1);  // now both are 60 seconds old
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 60, nullptr), 2);
  EXPECT_EQ(out[1].pid, kFakePid + 1);
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 61, nullptr), 0);
}

TEST_F(ProcHeartbeatTest, TimeoutScanReportsInSlotOrderAndStoresProcNum) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(add_fake(kFakePid + i, 1 + (uint32_t)i % 5, 10), i);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 3), 0);
  tarn_test::advance_tick(130000);

  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t proc_num = 0;
  tarn_test::clear_logs();
  ASSERT_EQ(get_beat_timeout_procs(out, 64, 100, &proc_num), 3);
  EXPECT_EQ(out[0].pid, kFakePid);
  EXPECT_EQ(out[0].idx, 0u);
  EXPECT_EQ(out[1].pid, kFakePid + 2);
  EXPECT_EQ(out[1].idx, 2u);
  EXPECT_EQ(out[2].pid, kFakePid + 4);
  EXPECT_EQ(out[2].idx, 4u);
  EXPECT_EQ(proc_num, 3);
  EXPECT_LOGGED("info", "get heartbeat timeout processes successed, total: 3, max_tmdf:100\n");
  EXPECT_EQ(get_beat_timeout_procs(out, 1000, 131, nullptr), 0);
}

TEST_F(ProcHeartbeatTest, AnEntryStampedLaterThanNowHasANegativeAgeAndIsNotReported) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  // A clock read before the entry's own stamp (another process beat in
  // between): the age is a signed difference.
  tarn_test::set_tick(kTick - 120000);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  EXPECT_EQ(get_beat_timeout_procs(out, 64, 60, nullptr), 0);
  bool timed_out = true;
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), 0);
  EXPECT_FALSE(timed_out);
}

TEST_F(ProcHeartbeatTest, TheTimeoutScanNeverReportsTheWatchdog) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  ASSERT_EQ(add_fake(kFakePid), 1);
  tarn_test::advance_tick(3600 * 1000);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  int32_t proc_num = 0;
  ASSERT_EQ(get_beat_timeout_procs(out, 64, 60, &proc_num), 1);
  EXPECT_EQ(out[0].pid, kFakePid);
  EXPECT_EQ(proc_num, 2);  // the watchdog is counted
}

// ---------------------------------------------------------------------------
// Bulk sync.

TEST_F(ProcHeartbeatTest, SyncRejectsANullListOrACountOfZero) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  proc_heartbeat_info_t info = make_info(kFakePid, 1, 10);
  proc_heartbeat_info_t *list[1] = {&info};
  const std::string message = "sync process heartbeat infos failed, because of invalid parameter\n";
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(nullptr, 1), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 0), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 0);
}

TEST_F(ProcHeartbeatTest, SyncAddsRecordsNotInTheTableAndWritesBackIdxAndTick) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  // No existence or range checks here, unlike registration.
  proc_heartbeat_info_t a = make_info(kFakePid, 9, 0, 33, 1);
  proc_heartbeat_info_t b = make_info(kFakePid + 1, 2, 15, 0, 2);
  proc_heartbeat_info_t *list[2] = {&a, &b};
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 2), 0);
  EXPECT_EQ(a.idx, 0u);
  EXPECT_EQ(b.idx, 1u);
  EXPECT_EQ(a.tick, kTick);
  EXPECT_EQ(b.tick, kTick);
  EXPECT_EQ(
      tarn_test::messages("info"),
      (std::vector<std::string>{
          "sync_add process heartbeat [pid:100000, idx:0, ptype:9, tick:5000000000] successed\n",
          "sync_add process heartbeat [pid:100001, idx:1, ptype:2, tick:5000000000] successed\n",
          "sync process heartbeat infos successed, add:2, del:0, upd:0, proc_num:2\n"}));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_TRUE(same_entry(raw.slot(0), a)) << describe(raw.slot(0));
  EXPECT_TRUE(same_entry(raw.slot(1), b)) << describe(raw.slot(1));
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, SyncSkipsNullPointersAndRecordsWithoutAPid) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  proc_heartbeat_info_t a = make_info(kFakePid, 1, 10);
  proc_heartbeat_info_t no_pid = make_info(0, 1, 10, 77, 5);
  proc_heartbeat_info_t negative = make_info(-3, 1, 10, 78, 6);
  proc_heartbeat_info_t *list[4] = {&a, nullptr, &no_pid, &negative};
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 4), 0);
  EXPECT_LOGGED("info",
                "sync process heartbeat infos successed, add:1, del:0, upd:0, proc_num:1\n");
  EXPECT_EQ(no_pid.idx, 77u);
  EXPECT_EQ(no_pid.tick, 5u);
  EXPECT_EQ(negative.idx, 78u);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 1);
  EXPECT_EQ(raw.slot(0).pid, kFakePid);
  EXPECT_TRUE(is_zero(raw.slot(1)));
}

TEST_F(ProcHeartbeatTest, SyncFillsIdxOfARecordAlreadyInTheTableAndKeepsItsTick) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid, 1, 10), 0);
  ASSERT_EQ(add_fake(kFakePid + 1, 2, 20), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();

  tarn_test::advance_tick(9000);
  proc_heartbeat_info_t a = make_info(kFakePid, 5, 55, 99, 123);
  proc_heartbeat_info_t b = make_info(kFakePid + 1, 2, 20, 98, 456);
  proc_heartbeat_info_t *list[2] = {&a, &b};
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 2), 0);
  EXPECT_EQ(a.idx, 0u);
  EXPECT_EQ(b.idx, 1u);
  EXPECT_EQ(a.tick, 123u);  // only added records get a tick
  EXPECT_EQ(b.tick, 456u);
  EXPECT_TRUE(raw.equals(before)) << describe(raw.slot(0));  // no new tick, type or interval
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{
                "sync process heartbeat infos successed, add:0, del:0, upd:2, proc_num:2\n"});
}

TEST_F(ProcHeartbeatTest, SyncWithACompactedListDeletesEntriesWhoseSlotDiffersFromTheirPosition) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);  // a gap at slot 1
  proc_heartbeat_info_t all[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(all, 64), 3);
  proc_heartbeat_info_t *list[3] = {&all[0], &all[1], &all[2]};

  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 3), 0);
  EXPECT_EQ(all[0].idx, 0u);
  EXPECT_EQ(all[1].idx, 2u);
  EXPECT_EQ(all[2].idx, 3u);
  // Slot 2 is compared with position 2, which holds slot 3's pid.
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                "sync_del process heartbeat [pid:100002, idx:2] successed\n",
                "sync process heartbeat infos successed, add:0, del:1, upd:3, proc_num:2\n"}));
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw.slot(0).pid, kFakePid);
  EXPECT_TRUE(is_zero(raw.slot(2)));
  EXPECT_EQ(raw.slot(3).pid, kFakePid + 3);  // the pass ended before slot 3
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, SyncWithAListThatMirrorsTheSlotsDeletesNothing) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  proc_heartbeat_info_t copies[4];
  for (int i = 0; i < 4; ++i) copies[i] = raw.slot(i);
  proc_heartbeat_info_t *list[4] = {&copies[0], nullptr, &copies[2], &copies[3]};

  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 4), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{
                "sync process heartbeat infos successed, add:0, del:0, upd:3, proc_num:3\n"});
  EXPECT_TRUE(raw.equals(before));
}

TEST_F(ProcHeartbeatTest, SyncOnAFullTableAddsNothingAndReturnsZero) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  std::vector<proc_heartbeat_info_t> records(65);
  std::vector<proc_heartbeat_info_t *> list(65);
  for (int i = 0; i < 64; ++i) records[i] = raw.slot(i);
  records[64] = make_info(kFakePid + 500, 1, 10, 7, 8);
  for (int i = 0; i < 65; ++i) list[i] = &records[i];

  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list.data(), 65), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{
                "sync process heartbeat infos successed, add:0, del:0, upd:64, proc_num:64\n"});
  EXPECT_NO_LINES_AT("warn");
  EXPECT_EQ(records[64].idx, 7u);  // skipped silently
  EXPECT_EQ(records[64].tick, 8u);
  EXPECT_TRUE(raw.equals(before));
}

TEST_F(ProcHeartbeatTest, EachSyncDeletionEndsThePassOneOccupiedSlotEarlier) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  proc_heartbeat_info_t keep = raw.slot(0);
  proc_heartbeat_info_t *list[1] = {&keep};

  // Slots 1 to 3 lie beyond the list and should all go; the two deletions
  // end the pass before slot 3.
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 1), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                "sync_del process heartbeat [pid:100001, idx:1] successed\n",
                "sync_del process heartbeat [pid:100002, idx:2] successed\n",
                "sync process heartbeat infos successed, add:0, del:2, upd:1, proc_num:2\n"}));
  EXPECT_TRUE(is_zero(raw.slot(1)));
  EXPECT_TRUE(is_zero(raw.slot(2)));
  EXPECT_EQ(raw.slot(3).pid, kFakePid + 3);
  EXPECT_EQ(raw->proc_num, 2);

  // The next sync removes it.
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 1), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                "sync_del process heartbeat [pid:100003, idx:3] successed\n",
                "sync process heartbeat infos successed, add:0, del:1, upd:1, proc_num:1\n"}));
  EXPECT_TRUE(is_zero(raw.slot(3)));
  EXPECT_EQ(raw.slot(0).pid, kFakePid);
  EXPECT_EQ(raw->proc_num, 1);
}

TEST_F(ProcHeartbeatTest, SyncLeavesTheWatchdogEntryAlone) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  ASSERT_EQ(add_fake(kFakePid), 1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_info_t watchdog = raw.slot(0);
  proc_heartbeat_info_t entry = raw.slot(1);
  proc_heartbeat_info_t *list[2] = {nullptr, &entry};
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(list, 2), 0);
  EXPECT_LOGGED("info",
                "sync process heartbeat infos successed, add:0, del:0, upd:1, proc_num:2\n");
  EXPECT_TRUE(same_entry(raw.slot(0), watchdog));

  // Even a list that holds nothing of the table keeps it.
  proc_heartbeat_info_t stranger = make_info(kFakePid + 7, 1, 10);
  proc_heartbeat_info_t *other[1] = {&stranger};
  tarn_test::clear_logs();
  EXPECT_EQ(sync_proc_heartbeat_infos(other, 1), 0);
  EXPECT_TRUE(same_entry(raw.slot(0), watchdog));
  EXPECT_EQ(raw.watchdog_slots(), 1);
}

// ---------------------------------------------------------------------------
// Queries.

TEST_F(ProcHeartbeatTest, GetAllRejectsANullOutputOrACapacityOf63) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  const std::string message = "get all processes heartbeats failed, because of invalid parameter\n";
  tarn_test::clear_logs();
  EXPECT_EQ(get_all_proc_heartbeats(out, 63), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  tarn_test::clear_logs();
  EXPECT_EQ(get_all_proc_heartbeats(nullptr, 64), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 1);
}

TEST_F(ProcHeartbeatTest, GetAllCopiesProcessEntriesInSlotOrderWithoutGaps) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid, 1, 11), 0);
  ASSERT_EQ(add_fake(kFakePid + 1, 2, 12), 1);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);  // slot 2
  ASSERT_EQ(add_fake(kFakePid + 2, 3, 13), 3);
  ASSERT_EQ(add_fake(kFakePid + 3, 4, 14), 4);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());

  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  memset(out, 0, sizeof(out));
  tarn_test::clear_logs();
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 3);
  EXPECT_TRUE(same_entry(out[0], raw.slot(0))) << describe(out[0]);
  EXPECT_TRUE(same_entry(out[1], raw.slot(3))) << describe(out[1]);
  EXPECT_TRUE(same_entry(out[2], raw.slot(4))) << describe(out[2]);
  EXPECT_TRUE(is_zero(out[3]));
  EXPECT_LOGGED("info", "get all processes heartbeats successed, proc_num: 3\n");
}

TEST_F(ProcHeartbeatTest, GetProcessInfoCopiesTheEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_self(5, 25), 1);
  proc_heartbeat_info_t out = make_info(0, 0, 0);
  tarn_test::clear_logs();
  EXPECT_EQ(get_proc_heartbeat_info(self_pid(), &out), 0);
  EXPECT_EQ(out.pid, self_pid());
  EXPECT_EQ(out.idx, 1u);
  EXPECT_EQ(out.interval, 25u);
  EXPECT_EQ(out.ptype, 5u);
  EXPECT_EQ(out.tick, kTick);
  EXPECT_LOGGED("info",
                format("get process heartbeat [pid:%d, idx:1] info successed\n", self_pid()));
}

TEST_F(ProcHeartbeatTest, GetProcessInfoRejectsPidsBelowOneAndANullOutput) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  proc_heartbeat_info_t out;
  const std::string message = "get process heartbeat info failed, because of invalid parameter\n";
  for (int32_t pid : {0, -1}) {
    SCOPED_TRACE(pid);
    tarn_test::clear_logs();
    EXPECT_EQ(get_proc_heartbeat_info(pid, &out), -1);
    EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
  }
  tarn_test::clear_logs();
  EXPECT_EQ(get_proc_heartbeat_info(self_pid(), nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"), std::vector<std::string>{message});
}

TEST_F(ProcHeartbeatTest, GetProcessInfoForAnUnknownPidReturnsMinus5) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  proc_heartbeat_info_t out = make_info(1, 2, 3, 4, 5);
  tarn_test::clear_logs();
  EXPECT_EQ(get_proc_heartbeat_info(123456, &out), -5);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "get process heartbeat info failed, because of pid:123456 not exist\n"});
  EXPECT_NO_LINES_AT("info");
  EXPECT_TRUE(same_entry(out, make_info(1, 2, 3, 4, 5)));
  EXPECT_STREQ(get_heartbeat_errmsg(-5), "object not found");
}

// ---------------------------------------------------------------------------
// The watchdog's entry.

TEST_F(ProcHeartbeatTest, AddWatchdogCreatesItsEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  tarn_test::set_tick(kTick);
  tarn_test::clear_logs();
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            std::vector<std::string>{"add wtdog heartbeat [tick:5000000000] successed\n"});
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_info_t &entry = raw.slot(1);
  EXPECT_EQ(entry.pid, -1);
  EXPECT_EQ(entry.idx, 1u);
  EXPECT_EQ(entry.interval, 300u);
  EXPECT_EQ(entry.ptype, 6u);
  EXPECT_EQ(entry.tick, kTick);
  EXPECT_EQ(raw->proc_num, 2);
}

TEST_F(ProcHeartbeatTest, AddWatchdogTakesTheLowestFreeSlot) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  ASSERT_EQ(add_fake(kFakePid + 2), 2);
  ASSERT_EQ(del_proc_heartbeat_by_pid(kFakePid + 1), 0);
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw.slot(1).ptype, 6u);
  EXPECT_EQ(raw.slot(1).idx, 1u);
  EXPECT_EQ(raw->proc_num, 3);
}

TEST_F(ProcHeartbeatTest, AddingTheWatchdogTwiceLeavesOneEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::advance_tick(1000);
  tarn_test::clear_logs();
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
  EXPECT_TRUE(raw.equals(before));
  EXPECT_EQ(raw.watchdog_slots(), 1);
  EXPECT_EQ(raw->proc_num, 1);
}

TEST_F(ProcHeartbeatTest, AddingTheWatchdogToAFullTableOnlyLogs) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(add_fake(kFakePid + i), i);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  const proc_heartbeat_segment_t before = raw.snapshot();
  tarn_test::clear_logs();
  EXPECT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "add wtdog heartbeat failed, because of the process number over max\n"});
  EXPECT_TRUE(raw.equals(before));
  EXPECT_EQ(raw.watchdog_slots(), 0);
}

TEST_F(ProcHeartbeatTest, UpdateWatchdogTickStampsItsEntry) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 1);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);  // after every process slot
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  proc_heartbeat_segment_t expected = raw.snapshot();
  expected.entries[2].tick = kTick + 7000;
  tarn_test::advance_tick(7000);
  tarn_test::clear_logs();
  EXPECT_EQ(update_wtdog_beat_tick(), 0);
  EXPECT_EQ(tarn_test::messages("debug"),
            std::vector<std::string>{"update wtdog heartbeat [tick:5000007000] successed\n"});
  EXPECT_TRUE(raw.equals(expected));
}

TEST_F(ProcHeartbeatTest, UpdateWatchdogTickWithoutAWatchdogReturnsMinus5) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(update_wtdog_beat_tick(), -5);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "update wtdog heartbeat tick failed, because of watchdog not exist\n"});
}

TEST_F(ProcHeartbeatTest, CheckWatchdogRejects299AndAccepts300) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  bool timed_out = true;
  tarn_test::clear_logs();
  EXPECT_EQ(check_wtdog_beat_timeout(299, &timed_out), -1);
  // The text has no newline of its own.
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "The value of max_tmdf requires more than WTDOG_BEAT_INTERVAL(5min)"});
  EXPECT_TRUE(timed_out);  // untouched on a refused call
  EXPECT_EQ(check_wtdog_beat_timeout(INT32_MIN, &timed_out), -1);
  tarn_test::clear_logs();
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), 0);
  EXPECT_FALSE(timed_out);
  EXPECT_EQ(count_lines(), 0u) << dump_logs();
}

TEST_F(ProcHeartbeatTest, CheckWatchdogRejectsANullFlag) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  tarn_test::clear_logs();
  EXPECT_EQ(check_wtdog_beat_timeout(300, nullptr), -1);
  EXPECT_EQ(tarn_test::messages("warn"),
            std::vector<std::string>{
                "The value of max_tmdf requires more than WTDOG_BEAT_INTERVAL(5min)"});
}

TEST_F(ProcHeartbeatTest, AWatchdogThatBeatExactlyMaxTmdfAgoHasTimedOut) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  tarn_test::advance_tick(1000);
  ASSERT_EQ(update_wtdog_beat_tick(), 0);  // last beat at kTick + 1000

  bool timed_out = true;
  tarn_test::set_tick(kTick + 1000 + 300000 - 1);
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), 0);
  EXPECT_FALSE(timed_out);
  tarn_test::advance_tick(1);
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), 0);
  EXPECT_TRUE(timed_out);
  EXPECT_EQ(check_wtdog_beat_timeout(301, &timed_out), 0);
  EXPECT_FALSE(timed_out);
  tarn_test::set_tick(kTick + 1000 + 600000);
  EXPECT_EQ(check_wtdog_beat_timeout(600, &timed_out), 0);
  EXPECT_TRUE(timed_out);
}

TEST_F(ProcHeartbeatTest, CheckWatchdogWithoutAWatchdogReturnsMinus5AndClearsTheFlag) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_fake(kFakePid), 0);
  bool timed_out = true;
  tarn_test::clear_logs();
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), -5);
  EXPECT_FALSE(timed_out);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      std::vector<std::string>{"check wtdog beat timeout failed, because of watchdog not exist\n"});
}

TEST_F(ProcHeartbeatTest, TheWatchdogIsNeverListedButCountsInProcNum) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);
  ASSERT_EQ(add_fake(kFakePid), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  ASSERT_EQ(add_fake(kFakePid + 1), 2);
  tarn_test::advance_tick(24 * 3600 * 1000ull);

  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_EQ(out[0].pid, kFakePid);
  EXPECT_EQ(out[1].pid, kFakePid + 1);
  int32_t proc_num = 0;
  ASSERT_EQ(get_beat_timeout_procs(out, 64, 60, &proc_num), 2);
  EXPECT_EQ(out[0].pid, kFakePid);
  EXPECT_EQ(out[1].pid, kFakePid + 1);
  EXPECT_EQ(proc_num, 3);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw->proc_num, 3);
  bool timed_out = false;
  EXPECT_EQ(check_wtdog_beat_timeout(300, &timed_out), 0);
  EXPECT_TRUE(timed_out);
}

TEST_F(ProcHeartbeatTest, TheWatchdogCannotBeAddressedByItsPid) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  ASSERT_EQ(add_wtdog_heartbeat(), 0);
  EXPECT_EQ(del_proc_heartbeat_by_pid(-1), -1);
  proc_heartbeat_info_t out;
  EXPECT_EQ(get_proc_heartbeat_info(-1, &out), -1);
  RawTable raw;
  ASSERT_TRUE(raw.ok());
  EXPECT_EQ(raw.watchdog_slots(), 1);
  EXPECT_EQ(raw->proc_num, 1);
}

// ---------------------------------------------------------------------------
// Several processes.

// Runs in a forked child: waits for 'g', attaches in mode, registers itself
// with ptype and interval, beats, reports its slot, then waits for 'q' and
// leaves without deleting its entry.
int worker_process(uint32_t mode, uint32_t ptype, uint32_t interval, Pipe &go, Pipe &ready) {
  go.close_write();
  ready.close_read();
  if (go.receive() != 'g') return 40;
  if (proc_heartbeat_init(mode) != 0) return 41;
  const proc_heartbeat_info_t self = make_info(self_pid(), ptype, interval);
  const int32_t slot = add_proc_heartbeat(&self);
  if (slot < 0) return 42;
  if (update_proc_beat_tick() != 0) return 43;
  proc_heartbeat_info_t mine;
  if (get_proc_heartbeat_info(self_pid(), &mine) != 0) return 44;
  if (mine.ptype != ptype || mine.interval != interval || mine.idx != (uint32_t)slot) return 45;
  if (!ready.send((char)slot)) return 46;
  if (go.receive() != 'q') return 47;
  if (proc_heartbeat_deinit(false) != 0) return 48;
  return 0;
}

TEST_F(ProcHeartbeatTest, WorkersInOtherProcessesRegisterAndBeatAndTheServiceSeesThem) {
  // The workers start before the service initialises, as separate processes.
  Pipe go1, ready1;
  ASSERT_TRUE(go1.ok() && ready1.ok());
  const pid_t worker1 = fork_child([&] { return worker_process(1, 1, 5, go1, ready1); });
  ASSERT_GT(worker1, 0);
  go1.close_read();
  ready1.close_write();
  Pipe go2, ready2;
  ASSERT_TRUE(go2.ok() && ready2.ok());
  const pid_t worker2 = fork_child([&] { return worker_process(2, 2, 7, go2, ready2); });
  ASSERT_GT(worker2, 0);
  go2.close_read();
  ready2.close_write();

  start_service();
  ASSERT_TRUE(go1.send('g'));
  const int slot1 = ready1.receive();
  ASSERT_TRUE(go2.send('g'));
  const int slot2 = ready2.receive();
  ASSERT_EQ(slot1, 1);
  ASSERT_EQ(slot2, 2);

  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 3);
  EXPECT_EQ(out[0].pid, self_pid());
  EXPECT_EQ(out[0].ptype, 0u);
  EXPECT_EQ(out[1].pid, (int32_t)worker1);
  EXPECT_EQ(out[1].ptype, 1u);
  EXPECT_EQ(out[1].interval, 5u);
  EXPECT_EQ(out[1].idx, 1u);
  EXPECT_EQ(out[2].pid, (int32_t)worker2);
  EXPECT_EQ(out[2].ptype, 2u);
  EXPECT_EQ(out[2].interval, 7u);
  EXPECT_EQ(out[2].idx, 2u);
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_NO_LINES_AT("warn");  // both alive

  ASSERT_TRUE(go1.send('q'));
  ASSERT_TRUE(go2.send('q'));
  EXPECT_EQ(reap(worker1), 0);
  EXPECT_EQ(reap(worker2), 0);

  // They left without deleting their entries: the service's beat clears them.
  tarn_test::clear_logs();
  EXPECT_EQ(update_proc_beat_tick(), 0);
  EXPECT_EQ(
      tarn_test::messages("warn"),
      (std::vector<std::string>{
          format("the process[pid:%d, ptype:1, pidx:1] is not exist, heartbeat will be cleared\n",
                 (int)worker1),
          format("the process[pid:%d, ptype:2, pidx:2] is not exist, heartbeat will be cleared\n",
                 (int)worker2)}));
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 1);
}

// ---------------------------------------------------------------------------
// Peer programs that link the shared libraries, driven through pipes.

// A peer registers and beats through the shared libraries; the service here
// sees it, and it sees the service, field for field.
void share_table_with_peer(const char *path, uint32_t ptype, uint32_t interval) {
  struct stat st;
  ASSERT_EQ(stat(path, &st), 0) << path;
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  tarn_test::set_tick(kTick);  // far from the real clock: the service's entry shows it
  ASSERT_EQ(add_self(0, 10), 0);

  Peer peer(path, Peer::Stderr::kDiscard);
  ASSERT_TRUE(peer.ok());
  const std::string layout = peer.ask("layout");
  EXPECT_EQ(layout.rfind("ok 24 0 4 8 12 16 ", 0), 0u) << layout;
  EXPECT_EQ(peer.ask("pid"), "ok " + std::to_string(peer.pid()));
  EXPECT_EQ(peer.ask("init 1"), "ok 0");
  EXPECT_EQ(peer.ask(format("add %u %u", ptype, interval)), "ok 1");
  EXPECT_EQ(peer.ask("beat"), "ok 0");

  proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(out, 64), 2);
  EXPECT_EQ(out[1].pid, (int32_t)peer.pid());
  EXPECT_EQ(out[1].idx, 1u);
  EXPECT_EQ(out[1].ptype, ptype);
  EXPECT_EQ(out[1].interval, interval);
  EXPECT_NE(out[1].tick, 0u);
  EXPECT_EQ(peer.ask("all"), format("ok 2 %d:0:10:0:%" PRIu64 " %d:1:%u:%u:%" PRIu64, self_pid(),
                                    kTick, (int)peer.pid(), interval, ptype, out[1].tick));

  // The peer holds the table's lock: this process waits in vain.
  EXPECT_EQ(peer.ask("lock 0"), "ok 0");
  tarn_test::clear_logs();
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), -4);
  EXPECT_LOGGED("warn", "get all processes heartbeats failed, because of acquire glock timeout\n");
  EXPECT_EQ(peer.ask("unlock"), "ok 0");
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 2);

  // And the other way round.
  {
    TableLockHolder holder;
    ASSERT_TRUE(holder.ok());
    ASSERT_EQ(holder.acquire(0), 0);
    EXPECT_EQ(peer.ask("beat"), "ok -4");
    holder.release();
  }
  EXPECT_EQ(peer.ask("del"), "ok 0");
  EXPECT_EQ(get_all_proc_heartbeats(out, 64), 1);
  EXPECT_EQ(peer.ask("deinit 0"), "ok 0");
  EXPECT_EQ(peer.finish(), 0);
}

TEST_F(ProcHeartbeatTest, APeerProcessSharesTheTableAndTheLock) {
  share_table_with_peer(TARN_PEER_PATH, 3, 12);
}

TEST_F(ProcHeartbeatTest, A32BitPeerSharesTheTableAndTheLock) {
  const std::string path = TARN_PEER32_PATH;
  if (path.empty()) GTEST_SKIP() << "no 32-bit peer on this host";
  {
    Peer peer(path.c_str(), Peer::Stderr::kDiscard);
    ASSERT_TRUE(peer.ok());
    EXPECT_EQ(peer.ask("layout"), "ok 24 0 4 8 12 16 32");
    EXPECT_EQ(peer.finish(), 0);
  }
  share_table_with_peer(path.c_str(), 4, 9);
}

}  // namespace
