// The heartbeat table against the local attacker. The table and its lock
// live in /dev/shm, where every user may create names: a user who makes
// them before the service, or reaches the service's own, must not be able to
// forge entries, cut the segment under the service or hold its lock.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <tarnbase/tarn_glock.h>

#include "child_process.h"
#include "files.h"
#include "local_user.h"
#include "log_checks.h"
#include "heartbeat_invariant.h"
#include "reset_test.h"
#include "shm_objects.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

namespace {

using tarn_test::as_local_user;
using tarn_test::describe_object;
using tarn_test::format;
using tarn_test::Pipe;

constexpr char kOurs[] = "regular 0:0 0660 1544";
constexpr char kOurLock[] = "regular 0:0 0660 8256";
constexpr uint64_t kTick = 7000;

void clear_heartbeat() {
  proc_heartbeat_deinit(true);
  unlink(tarn_test::kHeartbeatSegmentPath);
  unlink(tarn_test::kHeartbeatLockPath);
}

class HeartbeatAttackTest : public tarn_test::ResetTest<clear_heartbeat> {
 protected:
  // The service's start: init in mode 0 (the table cleared) and its own
  // entry in slot 0.
  static void start_service() {
    tarn_test::set_tick(kTick);
    ASSERT_EQ(0, proc_heartbeat_init(0));
    EXPECT_LOGGED("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n");
    ASSERT_EQ(0, add_self(PROC_HEARTBEAT_TYPE_SERVICE));
    EXPECT_LOGGED("info", format("add process heartbeat [pid:%d, idx:0, ptype:0, tick:%llu successed\n",
                                 (int)getpid(), (unsigned long long)kTick));
  }

  static int32_t add_self(uint32_t ptype) {
    proc_heartbeat_info_t info;
    memset(&info, 0, sizeof(info));
    info.pid = (int32_t)getpid();
    info.interval = 10;
    info.ptype = ptype;
    return add_proc_heartbeat(&info);
  }

  // The table as the service reads it: the number of entries, and its line.
  static void expect_entries(int32_t count) {
    proc_heartbeat_info_t out[PROC_HEARTBEAT_MAX_PROCS];
    EXPECT_EQ(count, get_all_proc_heartbeats(out, PROC_HEARTBEAT_MAX_PROCS));
    EXPECT_LOGGED("info", format("get all processes heartbeats successed, proc_num: %d\n", count));
  }
};

// A table with a forged service entry (pid 1), as the user writes it.
std::string forged_table() {
  proc_heartbeat_segment_t table;
  memset(&table, 0, sizeof(table));
  table.magic = PROC_HEARTBEAT_MAGIC;
  table.proc_num = 1;
  table.entries[0].pid = 1;
  table.entries[0].interval = 10;
  table.entries[0].ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  return std::string(reinterpret_cast<const char *>(&table), sizeof(table));
}

// In the user's process: errno of opening path read-write and of cutting it.
int open_error(const char *path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
    return 0;
  }
  return errno;
}
int truncate_error(const char *path) { return truncate(path, 0) == 0 ? 0 : errno; }

TEST_F(HeartbeatAttackTest, ATableAndLockSquattedBeforeTheServiceAreReplacedWithItsOwn) {
  // The user makes the table (forged entries) and the lock, both 0666, and
  // holds his lock until the end of the test.
  Pipe ready;
  Pipe done;
  const pid_t user = tarn_test::start_as_local_user([&] {
    if (!tarn_test::plant_object(tarn_test::kHeartbeatSegmentPath, forged_table(), 65534, 65534, 0666)) return 1;
    tarn_glock_t *lock = nullptr;
    if (tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock) != 0 || chmod(tarn_test::kHeartbeatLockPath, 0666) != 0) return 2;
    if (tarn_glock_acquire_timeout(lock, 0) != 0) return 3;
    ready.write_int(0);
    int go = 0;
    done.read_int(&go, 60000);
    return 0;
  });
  ASSERT_GT(user, 0);
  int squatted = -1;
  ASSERT_TRUE(ready.read_int(&squatted));
  ASSERT_EQ("regular 65534:65534 0666 1544", describe_object(tarn_test::kHeartbeatSegmentPath));
  ASSERT_EQ("regular 65534:65534 0666 8256", describe_object(tarn_test::kHeartbeatLockPath));

  // A root process that only attaches refuses the user's table.
  EXPECT_EQ(EPERM, proc_heartbeat_init(1));
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:1, flag:1\n", EPERM));
  EXPECT_EQ(-2, add_self(1));
  EXPECT_LOGGED("warn", "add process heartbeat failed, because of not inited\n");

  // The service makes its own: cleared at once (memset 1, so the user's
  // held lock is not the one it took), and no forged entry.
  tarn_test::clear_logs();
  ASSERT_NO_FATAL_FAILURE(start_service());
  EXPECT_EQ(kOurs, describe_object(tarn_test::kHeartbeatSegmentPath));
  EXPECT_EQ(kOurLock, describe_object(tarn_test::kHeartbeatLockPath));
  expect_entries(1);
  proc_heartbeat_info_t entry;
  EXPECT_EQ(-5, get_proc_heartbeat_info(1, &entry));
  EXPECT_LOGGED("warn", "get process heartbeat info failed, because of pid:1 not exist\n");

  done.write_int(1);
  EXPECT_EQ(0, tarn_test::reap(user));
}

TEST_F(HeartbeatAttackTest, ALockSquattedAloneIsRefusedByAnAttachingRootProcess) {
  ASSERT_EQ(0, as_local_user([] {
              return tarn_test::plant_object(tarn_test::kHeartbeatLockPath, std::string(64, '\0'), 65534, 65534, 0666) ? 0 : errno;
            }));
  EXPECT_EQ(EPERM, proc_heartbeat_init(1));
  EXPECT_LOGGED("warn", format("global lock init failed, error: %d\n", EPERM));
  EXPECT_NOT_LOGGED("info", "process heartbeat init successed, mode:1, flag:1, memset:0\n");
  EXPECT_EQ("regular 65534:65534 0666 64", describe_object(tarn_test::kHeartbeatLockPath));

  tarn_test::clear_logs();
  ASSERT_NO_FATAL_FAILURE(start_service());
  EXPECT_EQ(kOurLock, describe_object(tarn_test::kHeartbeatLockPath));
}

TEST_F(HeartbeatAttackTest, TheUserCannotCutTheServicesTable) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  EXPECT_EQ(EACCES, as_local_user([] { return open_error(tarn_test::kHeartbeatSegmentPath); }));
  EXPECT_EQ(EACCES, as_local_user([] { return truncate_error(tarn_test::kHeartbeatSegmentPath); }));
  EXPECT_EQ(kOurs, describe_object(tarn_test::kHeartbeatSegmentPath));
  EXPECT_EQ(0, update_proc_beat_tick());
  expect_entries(1);
}

TEST_F(HeartbeatAttackTest, TheUserCannotOpenTheTablesLockToHoldIt) {
  ASSERT_NO_FATAL_FAILURE(start_service());
  EXPECT_EQ(EACCES, as_local_user([] {
              tarn_glock_t *lock = nullptr;
              return tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock);
            }));
  EXPECT_EQ(EACCES, as_local_user([] { return open_error(tarn_test::kHeartbeatLockPath); }));
  EXPECT_EQ(kOurLock, describe_object(tarn_test::kHeartbeatLockPath));
  EXPECT_EQ(0, del_proc_heartbeat_by_pid((int32_t)getpid()));
  EXPECT_LOGGED("info", format("delete process heartbeat [pid:%d, idx:0] successed\n", (int)getpid()));
  EXPECT_NOT_LOGGED("warn", "delete process heartbeat failed, because of acquire glock timeout\n");
  expect_entries(0);
}

TEST_F(HeartbeatAttackTest, LinksPlantedAtTheTablesNamesAreReplacedNotFollowed) {
  const std::string target = "/tmp/heartbeat_attack_target";
  ASSERT_TRUE(tarn_test::plant_object(target, "precious", 0, 0, 0600));
  ASSERT_EQ(0, as_local_user([&] {
              return symlink(target.c_str(), tarn_test::kHeartbeatSegmentPath) == 0 && symlink(target.c_str(), tarn_test::kHeartbeatLockPath) == 0
                         ? 0
                         : errno;
            }));

  EXPECT_EQ(ELOOP, proc_heartbeat_init(2));
  EXPECT_LOGGED("warn", format("share memory init failed, error:%d, mode:2, flag:0\n", ELOOP));

  tarn_test::clear_logs();
  ASSERT_NO_FATAL_FAILURE(start_service());
  EXPECT_EQ(kOurs, describe_object(tarn_test::kHeartbeatSegmentPath));
  EXPECT_EQ(kOurLock, describe_object(tarn_test::kHeartbeatLockPath));
  EXPECT_EQ("regular 0:0 0600 8", describe_object(target));
  EXPECT_EQ("precious", tarn_test::read_file(target));
  unlink(target.c_str());
}

TEST_F(HeartbeatAttackTest, WithAnAgentGroupOnlyItsMembersReachTheTable) {
  // nogroup is 65534 on every Debian system: the local user is a member.
  EXPECT_EQ(0, tarn_test::with_agent_group("nogroup", [] {
              if (proc_heartbeat_init(0) != 0) return 1;
              if (!tarn_test::logged("info", "process heartbeat init successed, mode:0, flag:2, memset:1\n"))
                return 2;
              return proc_heartbeat_deinit(false) == 0 ? 0 : 3;
            }));
  EXPECT_EQ("regular 0:65534 0660 1544", describe_object(tarn_test::kHeartbeatSegmentPath));
  EXPECT_EQ("regular 0:65534 0660 8256", describe_object(tarn_test::kHeartbeatLockPath));

  const auto attach = [] {
    const int32_t ret = proc_heartbeat_init(2);
    if (ret == 0) {
      const bool logged = tarn_test::logged("info", "process heartbeat init successed, mode:2, flag:0, memset:0\n");
      return logged && add_self(1) == 0 ? 0 : 200;
    }
    const std::string warn = format("share memory init failed, error:%d, mode:2, flag:0\n", ret);
    return tarn_test::logged("warn", warn) ? (int)ret : 201;
  };
  EXPECT_EQ(0, as_local_user(attach));
  EXPECT_EQ(EACCES, tarn_test::as_user(65533, 65533, attach));
  EXPECT_EQ(EACCES, tarn_test::as_user(65533, 65533, [] { return truncate_error(tarn_test::kHeartbeatSegmentPath); }));
  EXPECT_EQ(EACCES, tarn_test::as_user(65533, 65533, [] { return open_error(tarn_test::kHeartbeatLockPath); }));
}

}  // namespace
