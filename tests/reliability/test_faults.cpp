// Faults injected at the platform calls that the libraries make: each open,
// read, write, fsync, rename, mmap, shm_open, ftruncate, flock and
// allocation that an operation makes is made to fail in turn, one at a time
// (fault_calls.h), and the answer is checked: the result code and the
// messages that the function's contract gives, no descriptor left open, no
// temporary file left behind, and nothing lost -- the app home record and
// its backup both stay loadable after any single failure, each naming the
// old or the new app home. A full disk is also made for real, with a small
// tmpfs mounted on the install root (fault_disk.h).
//
// Memory that leaks on any of these ways out is reported by the leak
// checker of the sanitizer build when the test program ends.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_platform.h>
#include <tarnbase/tarn_process.h>

#include "child_logs.h"
#include "fakes.h"
#include "fault_calls.h"
#include "fault_disk.h"
#include "fault_records.h"
#include "install_root.h"
#include "interpose.h"
#include "log_checks.h"
#include "manifests.h"
#include "tarn_apphome.h"
#include "tarn_apphome_internal.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"
#include "tarn_utils.h"
#include "utils_internal.h"

// ---------------------------------------------------------------------------
// The platform answer: the real one unless a test makes this a machine that
// carries the companion x86 app home.

namespace {
bool g_companion_machine = false;
}  // namespace

extern "C" int tarn_get_os_platform(tarn_os_platform_t *out) {
  if (!g_companion_machine || out == nullptr) {
    return tarn_test::next_definition<int (*)(tarn_os_platform_t *)>("tarn_get_os_platform")(out);
  }
  *out = {TARN_OS_PLATFORM_X86_COMPANION, TARN_OS_PLATFORM_WIDTH_64};
  return 0;
}

namespace {

using tarn_test::Call;
using tarn_test::counted;
using tarn_test::counted_targets;
using tarn_test::describe;
using tarn_test::dump_logs;
using tarn_test::exists;
using tarn_test::FailedCall;
using tarn_test::format;
using tarn_test::kBackupLockPath;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kHomeX86;
using tarn_test::kHomeX86B;
using tarn_test::kInstallRoot;
using tarn_test::kRecordLockPath;
using tarn_test::kRecordPath;
using tarn_test::kServicePath;
using tarn_test::leftover_temporaries;
using tarn_test::load_ini;
using tarn_test::make_apphome;
using tarn_test::named_apphome;
using tarn_test::open_descriptors;
using tarn_test::read_file;
using tarn_test::recorded_names;
using tarn_test::RecordNames;
using tarn_test::Sections;
using tarn_test::under_root;
using tarn_test::write_file;

// The error that each kind of call fails with: what the system answers when
// it runs out of the resource behind the call.
int error_for(Call call) {
  switch (call) {
    case Call::kOpen: return EMFILE;
    case Call::kRead: return EIO;
    case Call::kWrite: return ENOSPC;
    case Call::kFsync: return EIO;
    case Call::kRename: return EDQUOT;
    case Call::kMmap: return ENOMEM;
    case Call::kShmOpen: return ENFILE;
    case Call::kFtruncate: return ENOSPC;
    case Call::kLock: return ENOLCK;
    case Call::kAlloc: return ENOMEM;
  }
  return EIO;
}

// True when one of the lines was logged (each a level word and a message).
bool logged_any(const std::vector<std::pair<std::string, std::string>> &lines) {
  for (const auto &line : lines) {
    if (tarn_test::logged(line.first, line.second)) return true;
  }
  return false;
}

// How an operation reacts to every single failure of its platform calls.
struct FaultRun {
  std::function<void()> arrange;  // puts the files in place, afresh each time
  std::function<int()> act;       // the operation; its result
  // Checks one outcome: the result and the failure that was injected.
  std::function<void(int result, const FailedCall &failed)> check;
};

// Runs the operation once to settle what it sets up once per process (the
// configuration, the log destination), once more to count its calls of
// each kind, and then once for every call of every kind, that call failing.
// Each run must leave as many descriptors open as before it and no
// temporary file in the install root. Returns the number of failing runs.
unsigned fail_each_call(const FaultRun &run) {
  run.arrange();
  run.act();
  run.arrange();
  tarn_test::start_counting();
  run.act();
  tarn_test::stop_counting();
  std::map<Call, std::vector<std::string>> targets;
  for (Call call : tarn_test::all_calls()) targets[call] = counted_targets(call);

  unsigned runs = 0;
  for (Call call : tarn_test::all_calls()) {
    for (unsigned index = 0; index < targets[call].size(); ++index) {
      SCOPED_TRACE(format("%s call %u of %zu (%s)", tarn_test::call_name(call), index,
                          targets[call].size(), targets[call][index].c_str()));
      run.arrange();
      tarn_test::clear_logs();
      const int descriptors = open_descriptors();
      tarn_test::start_counting();
      tarn_test::fail_call(call, index, error_for(call));
      const int result = run.act();
      tarn_test::stop_counting();
      const std::optional<FailedCall> failed = tarn_test::failed_call();
      EXPECT_TRUE(failed.has_value()) << "the call was not made again";
      if (failed) run.check(result, *failed);
      EXPECT_EQ(open_descriptors(), descriptors);
      EXPECT_EQ(leftover_temporaries(kInstallRoot), std::vector<std::string>());
      ++runs;
      if (::testing::Test::HasFailure()) {
        ADD_FAILURE() << "result " << result << "\ncaptured:\n" << dump_logs();
        return runs;
      }
    }
  }
  EXPECT_GT(runs, 0u) << "the operation made no call that could fail";
  std::string figures;
  for (Call call : tarn_test::all_calls()) {
    if (!targets[call].empty()) figures += format(" %s %zu", tarn_test::call_name(call), targets[call].size());
  }
  printf("[ faults   ] %u failing runs:%s\n", runs, figures.c_str());
  return runs;
}

// The kinds of call that failed at least once in the runs, to show that
// the operation's every kind of call was reached.
std::set<std::string> kinds_counted() {
  std::set<std::string> kinds;
  for (Call call : tarn_test::all_calls()) {
    if (counted(call) != 0) kinds.insert(tarn_test::call_name(call));
  }
  return kinds;
}

// ---------------------------------------------------------------------------
// The record files.

constexpr char kOtherKey[] = "upgrade_lock_count";

// A record naming home, with a key of the upgrade tools beside it.
std::string full_record(const std::string &home) {
  return "[apphome]\napp_home=" + home + "\n" + kOtherKey + "=3\n";
}
std::string full_record(const std::string &home, const std::string &arch) {
  return "[apphome]\napp_home=" + home + "\napp_home_x86=" + arch + "\n" + kOtherKey + "=3\n";
}

constexpr char kDamaged[] = "[apphome\ngarbage\n";

// The record and the backup both naming kHomeA.
void arrange_both_old() {
  tarn_test::clear_install_root();
  ASSERT_TRUE(write_file(kRecordPath, full_record(kHomeA)));
  ASSERT_TRUE(write_file(kBackupPath, full_record(kHomeA)));
}

// What tarn_apphome_update(new_home) may leave after one failure, starting
// from arrange_both_old(): both files loadable and naming the old or the
// new app home; a failed update changes neither file; a successful one has
// written the record, and the backup too unless writing it failed, which
// is logged and not returned. failure is the injected error, when known.
void expect_update_outcome(int result, std::optional<int> failure, const std::string &new_home) {
  const RecordNames names = recorded_names();
  ASSERT_TRUE(names.record.has_value()) << read_file(kRecordPath);
  ASSERT_TRUE(names.backup.has_value()) << read_file(kBackupPath);
  EXPECT_TRUE(*names.record == kHomeA || *names.record == new_home) << *names.record;
  EXPECT_TRUE(*names.backup == kHomeA || *names.backup == new_home) << *names.backup;
  if (result != 0) {
    EXPECT_EQ(*names.record, kHomeA) << "a failed update wrote the record";
    EXPECT_EQ(*names.backup, kHomeA);
    EXPECT_EQ(read_file(kRecordPath), full_record(kHomeA));
    if (result == 1) {
      const int error = failure.value_or(ENOSPC);
      EXPECT_TRUE(logged_any({{"warn", format("flock init failed, errcode is %d\n", error)},
                              {"warn", format("flock acquire failed, errcode is %d\n", error)}}))
          << dump_logs();
    } else {
      if (failure) {
        EXPECT_EQ(result, *failure);
      }
      EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", result));
    }
    return;
  }
  EXPECT_EQ(*names.record, new_home);
  if (*names.backup == new_home) {
    EXPECT_LOGGED("info", "backup ini to file successful!\n");
    EXPECT_EQ(read_file(kBackupPath), read_file(kRecordPath));
  } else {
    EXPECT_TRUE(logged_any({{"warn", format("tarn_flock_init %s failed\n", kBackupLockPath)},
                            {"warn", format("tarn_flock_acquire %s failed\n", kBackupLockPath)},
                            {"error", format("tarn_ini_file_save_directio %s failed\n", kBackupPath)}}))
        << dump_logs();
    EXPECT_EQ(read_file(kBackupPath), full_record(kHomeA));
  }
  // The other keys stay, except when the record could not be loaded: then
  // it is started afresh, as the contract says.
  const std::optional<Sections> record = load_ini(kRecordPath);
  ASSERT_TRUE(record.has_value());
  if (record->at("apphome").count(kOtherKey) == 0) {
    EXPECT_LOGGED("info", "after load\n");
  } else {
    EXPECT_EQ(record->at("apphome").at(kOtherKey), "3");
  }
}

// The heartbeat table's segment and its lock's, by shm_open name and path.
constexpr char kTableName[] = "/" PROC_HEARTBEAT_SHM_NAME;
constexpr char kLockName[] = "/" PROC_HEARTBEAT_SHM_NAME ".glock";
constexpr char kTablePath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME;
constexpr char kLockPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME ".glock";

// Removes both, as no process of the test uses them any more.
void remove_heartbeat_segments() {
  shm_unlink(kTableName);
  shm_unlink(kLockName);
  shm_unlink("/" PROC_HEARTBEAT_SIDE_NAME);
}

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    tarn_test::stop_counting();
    tarn_test::reset_fakes();
    g_companion_machine = false;
    proc_heartbeat_deinit(true);
    remove_heartbeat_segments();
    tarn_test::clear_install_root();
  }
};

// ---------------------------------------------------------------------------
// Saving the record and its backup.

TEST_F(FaultTest, UpdateSurvivesEverySingleFailedCallWithBothFilesUsable) {
  const unsigned runs = fail_each_call({
      arrange_both_old,
      [] { return tarn_apphome_update(kHomeB, nullptr); },
      [](int result, const FailedCall &failed) { expect_update_outcome(result, failed.error, kHomeB); },
  });
  EXPECT_EQ(kinds_counted(),
            (std::set<std::string>{"open", "read", "write", "fsync", "rename", "lock", "alloc"}));
  EXPECT_GT(runs, 20u);
}

TEST_F(FaultTest, UpdateOnACompanionMachineSurvivesEverySingleFailedCall) {
  g_companion_machine = true;
  fail_each_call({
      [] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(kRecordPath, full_record(kHomeA, kHomeX86)));
        ASSERT_TRUE(write_file(kBackupPath, full_record(kHomeA, kHomeX86)));
      },
      [] { return tarn_apphome_update(kHomeB, kHomeX86B); },
      [](int result, const FailedCall &failed) {
        const RecordNames names = recorded_names();
        ASSERT_TRUE(names.record && names.backup);
        // Each file names both homes of one generation.
        for (const std::string path : {kRecordPath, kBackupPath}) {
          const std::optional<Sections> file = load_ini(path);
          ASSERT_TRUE(file.has_value()) << path;
          const auto &apphome = file->at("apphome");
          const bool old_pair = apphome.at("app_home") == kHomeA && apphome.at("app_home_x86") == kHomeX86;
          const bool new_pair = apphome.at("app_home") == kHomeB && apphome.at("app_home_x86") == kHomeX86B;
          EXPECT_TRUE(old_pair || new_pair) << path << ":\n" << read_file(path);
        }
        if (result != 0 && result != 1) {
          EXPECT_EQ(result, failed.error);
        }
        EXPECT_EQ(*names.record == kHomeB, result == 0);
      },
  });
}

TEST_F(FaultTest, UpdateOfTheRecordAloneSurvivesEverySingleFailedCall) {
  fail_each_call({
      arrange_both_old,
      [] { return update_app_home_dir(kRecordPath, kHomeB, nullptr, nullptr); },
      [](int result, const FailedCall &failed) {
        // The backup is not this writer's: it stays as it was.
        EXPECT_EQ(read_file(kBackupPath), full_record(kHomeA));
        const std::optional<std::string> record = named_apphome(kRecordPath);
        ASSERT_TRUE(record.has_value()) << read_file(kRecordPath);
        if (result == 0) {
          EXPECT_EQ(*record, kHomeB);
          return;
        }
        EXPECT_EQ(read_file(kRecordPath), full_record(kHomeA));
        if (result == 1) {
          EXPECT_TRUE(logged_any({{"warn", format("flock init failed with errcode %d\n", failed.error)},
                                  {"warn", format("flock acquire failed with errcode %d\n", failed.error)}}))
              << dump_logs();
        } else {
          EXPECT_EQ(result, failed.error);
          EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", result));
        }
      },
  });
}

TEST_F(FaultTest, BackupWriteSurvivesEverySingleFailedCallAndNeverTouchesTheRecord) {
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  ASSERT_NE(ini, nullptr);
  ASSERT_EQ(tarn_ini_file_set(ini, "apphome", "app_home", kHomeB), 0);
  fail_each_call({
      arrange_both_old,
      [ini] {
        tarn_apphome_backup_ini(ini);
        return 0;
      },
      [](int, const FailedCall &) {
        EXPECT_EQ(read_file(kRecordPath), full_record(kHomeA));
        const std::optional<std::string> backup = named_apphome(kBackupPath);
        ASSERT_TRUE(backup.has_value()) << read_file(kBackupPath);
        if (*backup == kHomeB) {
          EXPECT_LOGGED("info", "backup ini to file successful!\n");
        } else {
          EXPECT_EQ(read_file(kBackupPath), full_record(kHomeA));
          EXPECT_TRUE(logged_any({{"warn", format("tarn_flock_init %s failed\n", kBackupLockPath)},
                                  {"warn", format("tarn_flock_acquire %s failed\n", kBackupLockPath)},
                                  {"error", format("tarn_ini_file_save_directio %s failed\n", kBackupPath)}}))
              << dump_logs();
          EXPECT_NOT_LOGGED("info", "backup ini to file successful!\n");
        }
      },
  });
  tarn_ini_file_free(ini);
}

TEST_F(FaultTest, RestoreFromTheBackupSurvivesEverySingleFailedCall) {
  fail_each_call({
      [] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(kRecordPath, kDamaged));
        ASSERT_TRUE(write_file(kBackupPath, full_record(kHomeA)));
      },
      [] { return tarn_apphome_restore_from_backup(); },
      [](int result, const FailedCall &) {
        // The backup is only read.
        EXPECT_EQ(read_file(kBackupPath), full_record(kHomeA));
        if (result == 0) {
          EXPECT_EQ(read_file(kRecordPath), full_record(kHomeA));
          EXPECT_LOGGED("info", "restore ini from file successful!\n");
          return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(read_file(kRecordPath), kDamaged);
        EXPECT_LOGGED("warn", format("error occurd when write [%s] to [%s]\n", kBackupPath, kRecordPath));
      },
  });
}

// ---------------------------------------------------------------------------
// Rebuilding a lost record (reduction).

constexpr char kVersion[] = "3.1.4.159";

void install_service() {
  ASSERT_TRUE(write_file(kServicePath, std::string("#!/bin/sh\necho ") + kVersion + "\n", 0755));
}

// An operational main app home whose manifests name themselves at kVersion.
void make_main_home(const std::string &name) {
  make_apphome(name, true, true);
  const std::string dir = under_root(name) + "/config/component_info";
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  for (const char *component : {"tarn_base", "tarn_sys", "tarn_service"}) {
    const std::string json = std::string("{\"package\": \"") + component + "\", \"version\": \"" +
                             kVersion + "\", \"files\": []}";
    ASSERT_TRUE(tarn_test::seal_manifest(dir + "/" + component + ".ejs", json));
  }
}

const std::vector<std::pair<std::string, std::string>> &reduction_failures() {
  static const std::vector<std::pair<std::string, std::string>> lines = {
      {"warn", "get apphome is failed\n"},
      {"warn", format("tarn_dirwalk_create is failed, path is %s\n", kInstallRoot)},
      {"warn", format("get tarn_service version is failed, errcode is %d, service ver str is \n", -1)},
  };
  return lines;
}

TEST_F(FaultTest, ReductionSurvivesEverySingleFailedCall) {
  fail_each_call({
      [] {
        tarn_test::clear_install_root();
        install_service();
        make_main_home(kHomeA);
        ASSERT_TRUE(write_file(kRecordPath, kDamaged));
        ASSERT_TRUE(write_file(kBackupPath, kDamaged));
      },
      [] { return tarn_apphome_reduction_file(); },
      [](int result, const FailedCall &failed) {
        const RecordNames names = recorded_names();
        if (result == 0) {
          // Rebuilt: the record names the one app home there is.
          EXPECT_EQ(describe(names.record), kHomeA);
          EXPECT_LOGGED("info", "apphome reduction successed, apphome is " + std::string(kHomeA) +
                                    ", apphome_arch is (null)");
          return;
        }
        // Nothing written: both files as they were.
        EXPECT_EQ(read_file(kRecordPath), kDamaged);
        EXPECT_EQ(read_file(kBackupPath), kDamaged);
        const std::vector<std::string> warnings = tarn_test::messages("warn");
        ASSERT_FALSE(warnings.empty()) << dump_logs();
        if (result == -1) {
          // The scan did not come to an app home: the last warning says why.
          const std::string &last = warnings.back();
          bool documented = last.rfind("get tarn_service version is failed, errcode is ", 0) == 0;
          for (const auto &line : reduction_failures()) documented = documented || last == line.second;
          EXPECT_TRUE(documented) << last;
        } else {
          EXPECT_EQ(warnings.back(), format("apphome update failed, errcode %d\n", result));
          if (result != 1) {
            EXPECT_EQ(result, failed.error);
          }
        }
      },
  });
}

TEST_F(FaultTest, ReductionOutOfMemoryForTheFoundNameEndsTheProcessWithStatusZero) {
  install_service();
  make_main_home(kHomeA);
  // The name kept for the found app home is the reduction's one allocation.
  const unsigned before = tarn_test::allocation_calls();
  ASSERT_EQ(tarn_apphome_reduction_file(), 0);
  ASSERT_EQ(tarn_test::allocation_calls() - before, 1u);
  tarn_test::clear_install_root();
  install_service();
  make_main_home(kHomeA);
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] {
    tarn_test::fail_allocation_after(0);
    tarn_apphome_reduction_file();
  });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_FALSE(outcome.lines.empty());
  EXPECT_EQ(outcome.lines.back().word, "fatal");
  EXPECT_EQ(outcome.lines.back().message, "Out of memory\n");
  EXPECT_FALSE(exists(kRecordPath));
}

// ---------------------------------------------------------------------------
// Reading the record.

TEST_F(FaultTest, ReadingTheRecordAnswersOneWithItsMessageForEveryFailedCall) {
  fail_each_call({
      arrange_both_old,
      [] {
        char home[64] = "untouched";
        const int result = tarn_apphome_get_apphome(kRecordPath, home, sizeof(home), nullptr, 0);
        if (result == 0) {
          EXPECT_STREQ(home, kHomeA);
        }
        if (result != 0) {
          EXPECT_STREQ(home, "untouched");
        }
        return result;
      },
      [](int result, const FailedCall &failed) {
        if (result == 0) return;
        EXPECT_EQ(result, 1);
        EXPECT_TRUE(logged_any({{"warn", format("flock init failed, errcode is %d\n", failed.error)},
                                {"warn", format("flock acquire failed, errcode is %d\n", failed.error)},
                                {"warn", "tarn_ini_file_load is failed\n"}}))
            << dump_logs();
      },
  });
}

TEST_F(FaultTest, TheUpgradeToolsReaderReadsWithoutItsLockAndFailsOnlyOnTheLoad) {
  fail_each_call({
      arrange_both_old,
      [] {
        char home[64] = "untouched";
        const int result = get_app_home_dir(kRecordPath, home, sizeof(home), nullptr);
        if (result == 0) {
          EXPECT_STREQ(home, kHomeA);
        }
        return result;
      },
      [](int result, const FailedCall &failed) {
        if (result == 0) {
          // Only the load needs its calls: a lock that cannot be had does not stop the read.
          EXPECT_NE(failed.target, kRecordPath);
          return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_LOGGED("warn", format("qiv_eni_file_load is failed, path is %s.\n", kRecordPath));
      },
  });
}

TEST_F(FaultTest, TheUpgradeLockCountIsZeroWithItsMessageForEveryFailedCall) {
  fail_each_call({
      arrange_both_old,
      [] { return tarn_get_upgrade_lock_count(); },
      [](int result, const FailedCall &failed) {
        if (result == 3) {
          EXPECT_LOGGED("info", format("get %s upgrade_lock_count %d\n", kRecordPath, 3));
          return;
        }
        EXPECT_EQ(result, 0);
        if (failed.call == Call::kAlloc &&
            tarn_test::logged("info", format("get %s upgrade_lock_count %d\n", kRecordPath, 0))) {
          // The key's lookup ran out of memory: the base library answers it
          // as a missing key, which counts 0.
          return;
        }
        EXPECT_TRUE(logged_any({{"warn", format("tarn_flock_init is failed, ret is %d\n", failed.error)},
                                {"warn", format("tarn_flock_acquire is failed, ret is %d\n", failed.error)},
                                {"info", format("tarn_ini_file_load is failed, path is %s.\n", kRecordPath)}}))
            << dump_logs();
      },
  });
}

// ---------------------------------------------------------------------------
// The operational flags.

TEST_F(FaultTest, AFlagRestoredFromItsSpareIsWholeOrTheDirectoryIsNotOperational) {
  const std::string home = under_root(kHomeA);
  const std::string flag = home + "/config/flags/flag_operational";
  const std::string spare = home + "/config/flags/flag_operational_backup";
  fail_each_call({
      [] {
        tarn_test::clear_install_root();
        make_apphome(kHomeA, false, true, "", "spare content\n");
      },
      [home] {
        int32_t err = 0;
        return tarn_apphome_is_operational_path(home.c_str(), &err);
      },
      [flag, spare](int result, const FailedCall &) {
        EXPECT_EQ(read_file(spare), "spare content\n");
        EXPECT_EQ(leftover_temporaries(under_root(kHomeA) + "/config/flags"), std::vector<std::string>());
        if (result == 1) {
          EXPECT_EQ(read_file(flag), "spare content\n");
          return;
        }
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(exists(flag));
        EXPECT_LOGGED("info", "copy operational backup file to operational file failed\n");
      },
  });
}

TEST_F(FaultTest, AFlagThatCannotBeCreatedIsMinusOneWithItsMessage) {
  const std::string home = under_root(kHomeA);
  fail_each_call({
      [] { tarn_test::clear_install_root(); },
      [home] { return tarn_apphome_create_flag(home.c_str(), "flag_operational"); },
      [home](int result, const FailedCall &failed) {
        // The making of the directories may fail after the flags directory
        // is made (its own open, to set its mode): its result is not looked
        // at, and the directory is shared and the flag made all the same.
        if (result == 0) {
          EXPECT_EQ(failed.call, Call::kOpen);
          EXPECT_EQ(tarn_test::file_mode(home + "/config/flags"), 0777);
          EXPECT_EQ(read_file(home + "/config/flags/flag_operational"), "");
          EXPECT_NO_LINES();
          return;
        }
        // Anything else (the flag's open, an open of a directory walked to
        // it, an allocation) gives the same answer.
        EXPECT_EQ(result, -1);
        EXPECT_LOGGED("warn", format("flag file %s/config/flags/flag_operational create failed\n", home.c_str()));
      },
  });
}

// ---------------------------------------------------------------------------
// The base library's C functions that build C++ objects inside: memory that
// runs out there is an ENOMEM answer, never an exception that would cross
// into a C caller.

TEST_F(FaultTest, MakingDirectoriesAnswersEveryFailedAllocationWithENOMEM) {
  const std::string dir = under_root("made/in/three");
  fail_each_call({
      [] { tarn_test::clear_install_root(); },
      [dir] { return tarn_dirutils_mkdir(dir.c_str(), 0755); },
      [dir](int result, const FailedCall &failed) {
        if (result == 0) {
          EXPECT_TRUE(tarn_test::file_mode(dir) >= 0);
          return;
        }
        // An allocation is ENOMEM; the directories are walked through
        // descriptors, whose failed open is its own error.
        const int expected = failed.call == Call::kAlloc ? ENOMEM : failed.error;
        EXPECT_EQ(result, expected);
        EXPECT_EQ(errno, expected);
      },
  });
}

TEST_F(FaultTest, ExpandingAnAtPathAnswersEveryFailedAllocationWithENOMEM) {
  fail_each_call({
      [] {},
      [] {
        char out[1024] = "untouched";
        const int result = tarn_dirutils_path_transform("@/bin/tool", out, sizeof(out));
        if (result == 0) {
          EXPECT_EQ(std::string(out), tarn_test::executable_directory() + "/bin/tool");
        }
        return result;
      },
      [](int result, const FailedCall &) {
        if (result != 0) {
          EXPECT_EQ(result, ENOMEM);
        }
      },
  });
}

TEST_F(FaultTest, CopyingAFileAnswersEveryFailedCallWithItsErrorAndLeavesTheTarget) {
  const std::string source = under_root("source");
  const std::string target = under_root("target");
  fail_each_call({
      [source, target] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(source, "new content\n", 0640));
        ASSERT_TRUE(write_file(target, "old content\n"));
      },
      [source, target] { return tarn_file_copy(source.c_str(), target.c_str()); },
      [target](int result, const FailedCall &failed) {
        if (result == 0) {
          EXPECT_EQ(read_file(target), "new content\n");
          EXPECT_EQ(tarn_test::file_mode(target), 0640);
          return;
        }
        EXPECT_EQ(result, failed.error);
        EXPECT_EQ(read_file(target), "old content\n");
      },
  });
}

// The entries that a listing reported, by name.
int collect_entry(int, const char *path, void *user) {
  static_cast<std::set<std::string> *>(user)->insert(path);
  return 0;
}

TEST_F(FaultTest, ListingAndRemovingADirectoryAnswerEveryFailedCallWithItsError) {
  const std::string dir = under_root("a_directory_name_longer_than_short");
  const auto arrange = [dir] {
    tarn_test::clear_install_root();
    ASSERT_TRUE(tarn_test::make_dirs(dir + "/a_subdirectory_longer_than_short"));
    ASSERT_TRUE(write_file(dir + "/a_file_name_longer_than_a_short_one", "x"));
    ASSERT_TRUE(write_file(dir + "/a_subdirectory_longer_than_short/another_long_file_name", "y"));
  };
  const std::set<std::string> all = {dir + "/a_file_name_longer_than_a_short_one",
                                     dir + "/a_subdirectory_longer_than_short"};
  fail_each_call({
      arrange,
      [dir, all] {
        std::set<std::string> listed;
        errno = 0;
        const int result = tarn_dirutils_listdir(dir.c_str(), &listed, collect_entry);
        EXPECT_EQ(result, 0);
        if (errno == 0) {
          EXPECT_EQ(listed, all);
        }
        return errno;
      },
      [](int error, const FailedCall &failed) {
        if (error != 0) {
          EXPECT_EQ(error, failed.error);
        }
      },
  });
  fail_each_call({
      arrange,
      [dir] { return tarn_dirutils_rmdir(dir.c_str()); },
      [dir](int result, const FailedCall &failed) {
        if (result == 0) {
          EXPECT_FALSE(exists(dir));
          return;
        }
        EXPECT_EQ(result, failed.error);
        EXPECT_TRUE(exists(dir));
      },
  });
}

TEST_F(FaultTest, StartingAProgramAnswersAFailedAllocationWithENOMEMAndStillWaitsAfterAFailedRead) {
  fail_each_call({
      [] {},
      [] {
        errno = 0;
        const int result = tarn_process_create("/bin/true an_argument_longer_than_short 'and another one'", 1);
        return result == 0 ? 0 : errno;
      },
      [](int error, const FailedCall &failed) {
        if (failed.call == Call::kRead) {
          // The start report could not be read: the program is taken for
          // started, and its exit status is still collected.
          EXPECT_EQ(error, 0);
          return;
        }
        EXPECT_EQ(failed.call, Call::kAlloc);
        if (error != 0) {
          EXPECT_EQ(error, ENOMEM);
        }
      },
  });
}

// The sections and keys of an ini object.
Sections contents(tarn_ini_t *ini) {
  Sections sections;
  tarn_ini_file_foreach(ini, &sections, [](void *user, const char *section, const char *key, const char *value) {
    (*static_cast<Sections *>(user))[section][key] = value;
    return 0;
  });
  return sections;
}

struct IniFree {
  void operator()(tarn_ini_t *ini) const { tarn_ini_file_free(ini); }
};
using IniPtr = std::unique_ptr<tarn_ini_t, IniFree>;

constexpr char kIniText[] =
    "[first]\nalpha=1\na_key_longer_than_a_short_string=a value longer than a short string\n\n"
    "[a_section_name_longer_than_short]\nbeta=2\n";

Sections ini_text_sections() {
  return {{"first", {{"alpha", "1"}, {"a_key_longer_than_a_short_string", "a value longer than a short string"}}},
          {"a_section_name_longer_than_short", {{"beta", "2"}}}};
}

TEST_F(FaultTest, LoadingAnIniFileAnswersEveryFailedCallWithNullAndItsError) {
  const std::string path = under_root("settings.ini");
  fail_each_call({
      [path] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(path, kIniText));
      },
      [path] {
        IniPtr ini(tarn_ini_file_load(path.c_str()));
        if (!ini) return errno;
        EXPECT_EQ(contents(ini.get()), ini_text_sections());
        return 0;
      },
      [](int result, const FailedCall &failed) {
        if (result != 0) {
          EXPECT_EQ(result, failed.error);
        }
      },
  });
}

TEST_F(FaultTest, SettingAnIniValueAnswersEveryFailedAllocationWithENOMEMAndChangesNothing) {
  static IniPtr ini;
  const std::string path = under_root("settings.ini");
  fail_each_call({
      [path] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(path, kIniText));
        ini.reset(tarn_ini_file_load(path.c_str()));
        ASSERT_TRUE(ini);
      },
      [] {
        // A new key of a new section, a new key, and a new value.
        int result = tarn_ini_file_set(ini.get(), "a_new_section_name_longer_than_short", "gamma", "3");
        if (result == 0) result = tarn_ini_file_set(ini.get(), "first", "a_new_key_longer_than_short", "4");
        if (result == 0) result = tarn_ini_file_set(ini.get(), "first", "alpha", "a new value longer than short");
        return result;
      },
      [](int result, const FailedCall &failed) {
        EXPECT_EQ(failed.call, Call::kAlloc);
        Sections sections = contents(ini.get());
        if (result == 0) {
          EXPECT_EQ(sections.at("first").at("alpha"), "a new value longer than short");
          return;
        }
        EXPECT_EQ(result, ENOMEM);
        EXPECT_EQ(errno, ENOMEM);
        // The failed set added nothing: no half-made section or key.
        sections.erase("a_new_section_name_longer_than_short");
        sections["first"].erase("a_new_key_longer_than_short");
        sections["first"]["alpha"] = "1";
        EXPECT_EQ(sections, ini_text_sections());
        for (const auto &section : contents(ini.get())) {
          EXPECT_FALSE(section.second.empty()) << section.first;
        }
      },
  });
  ini.reset();
}

TEST_F(FaultTest, SavingAnIniFileAnswersEveryFailedCallWithItsErrorAndKeepsTheOldFile) {
  static IniPtr ini;
  const std::string path = under_root("settings.ini");
  fail_each_call({
      [path] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(write_file(path, "[old]\nkey=value\n"));
        ini.reset(tarn_ini_file_load(nullptr));
        ASSERT_EQ(tarn_ini_file_set(ini.get(), "a_section_name_longer_than_short", "a_key_longer_than_short", "v"), 0);
      },
      [path] { return tarn_ini_file_save_directio(ini.get(), path.c_str(), 0); },
      [path](int result, const FailedCall &failed) {
        if (result == 0) {
          EXPECT_EQ(read_file(path), "[a_section_name_longer_than_short]\na_key_longer_than_short=v\n");
          return;
        }
        EXPECT_EQ(result, failed.error);
        EXPECT_EQ(read_file(path), "[old]\nkey=value\n");
      },
  });
  ini.reset();
}

TEST_F(FaultTest, ALookupThatRunsOutOfMemoryFindsNothing) {
  static IniPtr ini;
  fail_each_call({
      [] {
        ini.reset(tarn_ini_file_load(nullptr));
        ASSERT_EQ(tarn_ini_file_set(ini.get(), "a_section_name_longer_than_short", "a_key_longer_than_short", "v"), 0);
      },
      [] {
        const char *value = tarn_ini_file_get(ini.get(), "a_section_name_longer_than_short", "a_key_longer_than_short");
        if (value == nullptr) return -1;
        EXPECT_STREQ(value, "v");
        return 0;
      },
      [](int result, const FailedCall &failed) {
        EXPECT_EQ(failed.call, Call::kAlloc);
        EXPECT_EQ(result, -1);
      },
  });
  ini.reset();
}

// The base library's own log output, which the fakes stand in front of.
void real_log_output(const char *line) {
  static const auto real = tarn_test::next_definition<void (*)(uint32_t, const char *, ...)>("tarn_log_output");
  real(TARN_LOG_LEVEL_INFO, "%s", line);
}

TEST_F(FaultTest, RegisteringAndWritingTheLogSurviveEveryFailedCall) {
  const std::string dir = under_root("logs");
  fail_each_call({
      [] { tarn_test::clear_install_root(); },
      [dir] { return tarn_autolog_init(dir.c_str(), 2); },
      [](int result, const FailedCall &) {
        if (result != 0) {
          EXPECT_EQ(result, ENOMEM);
        }
      },
  });
  fail_each_call({
      [dir] {
        tarn_test::clear_install_root();
        ASSERT_EQ(tarn_autolog_init(dir.c_str(), 2), 0);
      },
      [] {
        real_log_output("one line\n");
        return 0;
      },
      [dir](int, const FailedCall &) {
        // The line is written whole or not at all (a file that cannot be
        // opened sends it to standard error); a later line finds its way to
        // the file.
        const std::string before = read_file(dir + "/tarn.log");
        EXPECT_TRUE(before == "<missing>" || before == "one line\n" || before.empty()) << before;
        real_log_output("next line\n");
        const std::string after = read_file(dir + "/tarn.log");
        EXPECT_EQ(after.substr(after.size() - 10), "next line\n") << after;
        // Registering again closes the file that the line opened.
        EXPECT_EQ(tarn_autolog_init(dir.c_str(), 2), 0);
      },
  });
}

// ---------------------------------------------------------------------------
// Protected manifests.

constexpr char kManifestJson[] = "{\"package\": \"tarn_base\", \"version\": \"3.1.4.159\", \"files\": []}";

TEST_F(FaultTest, LoadingAProtectedManifestAnswersEveryFailedCallWithNullAndAnError) {
  const std::string path = under_root("tarn_base.ejs");
  fail_each_call({
      [path] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(tarn_test::seal_manifest(path, kManifestJson));
      },
      [path] {
        errno = 0;
        json_t *manifest = qiv_json_load_file_ejs(path.c_str());
        if (manifest == nullptr) return errno != 0 ? errno : -1;
        EXPECT_STREQ(qiv_json_string_value_ejs(qiv_json_object_get_ejs(manifest, "package")), "tarn_base");
        qiv_json_decref_ejs(manifest);
        return 0;
      },
      [](int result, const FailedCall &failed) {
        if (result != 0) {
          EXPECT_EQ(result, failed.error);
        }
      },
  });
}

TEST_F(FaultTest, SealingAManifestAnswersEveryFailedCallWithMinusOneAndKeepsTheOldFile) {
  const std::string path = under_root("tarn_base.ejs");
  const std::string old_json = "{\"package\": \"old\"}";
  fail_each_call({
      [path, old_json] {
        tarn_test::clear_install_root();
        ASSERT_TRUE(tarn_test::seal_manifest(path, old_json));
      },
      [path] {
        errno = 0;
        return qiv_ejs_sign_file(path.c_str(), kManifestJson, strlen(kManifestJson), QIV_EJS_BUILD_SECRET_KEY) == 0 ? 0 : errno;
      },
      [path, old_json](int result, const FailedCall &failed) {
        // Only the manifest is there: no temporary file is left.
        EXPECT_EQ(tarn_test::list_directory(kInstallRoot), std::set<std::string>{"tarn_base.ejs"});
        char *text = nullptr;
        size_t length = 0;
        ASSERT_EQ(qiv_ejs_open_file(path.c_str(), &text, &length), 0);
        const std::string found(text, length);
        qiv_ejs_free(text);
        if (result == 0) {
          EXPECT_EQ(found, kManifestJson);
          return;
        }
        EXPECT_EQ(result, failed.error);
        EXPECT_EQ(found, old_json);
      },
  });
}

// ---------------------------------------------------------------------------
// The heartbeat table's segment and lock.


// The mappings of the table and its lock in this process.
int heartbeat_mappings() {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(PROC_HEARTBEAT_SHM_NAME) != std::string::npos) ++count;
  }
  return count;
}

// What proc_heartbeat_init(mode) answers to each failure of its segment and
// lock set-up: the error as its result, the message of the step (the
// table's segment, the lock, the table's mapping), everything undone, and
// a later init that works.
void expect_init_faults(uint32_t mode, int flag) {
  unsigned runs = 0;
  for (Call call : {Call::kShmOpen, Call::kFtruncate, Call::kMmap}) {
    ASSERT_EQ(proc_heartbeat_deinit(true), 0);
    remove_heartbeat_segments();
    tarn_test::start_counting();
    ASSERT_EQ(proc_heartbeat_init(mode), 0);
    tarn_test::stop_counting();
    const std::vector<std::string> targets = counted_targets(call);
    ASSERT_FALSE(targets.empty()) << tarn_test::call_name(call);
    for (unsigned index = 0; index < targets.size(); ++index) {
      SCOPED_TRACE(format("mode %u, %s call %u (%s)", mode, tarn_test::call_name(call), index,
                          targets[index].c_str()));
      ASSERT_EQ(proc_heartbeat_deinit(true), 0);
      remove_heartbeat_segments();
      tarn_test::clear_logs();
      const int descriptors = open_descriptors();
      const int mappings = heartbeat_mappings();
      const int error = error_for(call);
      tarn_test::start_counting();
      tarn_test::fail_call(call, index, error);
      const int32_t result = proc_heartbeat_init(mode);
      tarn_test::stop_counting();
      ASSERT_TRUE(tarn_test::failed_call().has_value());
      EXPECT_EQ(result, error);

      const std::string &target = targets[index];
      const bool lock_step = target == kLockName || target == kLockPath;
      if (lock_step) {
        EXPECT_EQ(tarn_test::messages("warn"),
                  (std::vector<std::string>{format("global lock init failed, error: %d\n", error)}));
      } else if (call == Call::kMmap) {
        EXPECT_EQ(tarn_test::messages("warn"),
                  (std::vector<std::string>{format("share memory map failed, error: %d\n", error)}));
      } else {
        EXPECT_EQ(tarn_test::messages("warn"),
                  (std::vector<std::string>{format("share memory init failed, error:%d, mode:%u, flag:%d\n",
                                                   error, mode, flag)}));
      }
      EXPECT_TRUE(tarn_test::messages("info").empty()) << dump_logs();
      // Undone: nothing open, nothing mapped. The service leaves no table
      // behind but an empty segment that could not be sized, which the
      // next opener sizes; a worker leaves what it made to the others.
      EXPECT_EQ(open_descriptors(), descriptors);
      EXPECT_EQ(heartbeat_mappings(), mappings);
      struct stat table;
      if (stat(kTablePath, &table) == 0 && mode == 0) {
        EXPECT_EQ(table.st_size, 0);
        EXPECT_EQ(call, Call::kFtruncate);
      }
      if (stat(kTablePath, &table) == 0 && mode != 0) {
        EXPECT_TRUE(table.st_size == 0 || table.st_size == (off_t)sizeof(proc_heartbeat_segment_t))
            << table.st_size;
      }
      tarn_test::clear_logs();
      proc_heartbeat_info_t info = {(int32_t)getpid(), 0, 10, 1, 0};
      EXPECT_EQ(add_proc_heartbeat(&info), PROC_HEARTBEAT_E_UNINITIALIZED);
      EXPECT_LOGGED("warn", "add process heartbeat failed, because of not inited\n");
      // The next init starts afresh.
      EXPECT_EQ(proc_heartbeat_init(mode), 0);
      EXPECT_EQ(add_proc_heartbeat(&info), 0);
      ++runs;
      if (::testing::Test::HasFailure()) {
        ADD_FAILURE() << dump_logs();
        return;
      }
    }
  }
  // Each kind once for the table, once for the lock and once for the side
  // segment, the lock's segment being mapped before the table's, and one
  // more shm_open: the lock's second descriptor, which holds this
  // process's liveness slot.
  EXPECT_EQ(runs, 10u);
}

TEST_F(FaultTest, ServiceInitUndoesEverythingOnEveryFailedSegmentOrLockCall) {
  expect_init_faults(0, 2);
}

TEST_F(FaultTest, WorkerInitUndoesEverythingOnEveryFailedSegmentOrLockCall) {
  expect_init_faults(1, 1);
}

TEST_F(FaultTest, ATableLockSegmentThatCannotGrowFailsInitWithItsError) {
  // A lock segment left at size 0 by a process that died before sizing it:
  // whoever opens it next sizes it, and a failure to do so is the init's.
  ASSERT_EQ(close(shm_open(kLockName, O_RDWR | O_CREAT | O_EXCL, 0660)), 0);
  tarn_test::start_counting();
  tarn_test::fail_call(Call::kFtruncate, 1, ENOSPC);
  EXPECT_EQ(proc_heartbeat_init(0), ENOSPC);
  tarn_test::stop_counting();
  EXPECT_EQ(tarn_test::failed_call()->target, kLockPath);
  EXPECT_LOGGED("warn", format("global lock init failed, error: %d\n", ENOSPC));
  EXPECT_EQ(proc_heartbeat_init(0), 0);
}

// ---------------------------------------------------------------------------
// A full disk, for real.

class FullDiskTest : public FaultTest {
 protected:
  void TearDown() override {
    disk_.reset();
    FaultTest::TearDown();
  }
  // A small tmpfs on the install root (16 pages, at most inodes files).
  void mount_root(unsigned inodes = 0) {
    disk_.reset();
    disk_.emplace(kInstallRoot, 64, inodes);
    ASSERT_TRUE(disk_->ok()) << disk_->error();
  }
  std::optional<tarn_test::SmallDisk> disk_;
};

TEST_F(FullDiskTest, UpdateOnAFullDiskFailsWithNoSpaceAndKeepsBothFiles) {
  mount_root();
  arrange_both_old();
  ASSERT_TRUE(disk_->leave_free_pages(0));
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), ENOSPC);
  EXPECT_LOGGED("warn", format("update tarn_apphome.ini failed, result is %d\n", ENOSPC));
  EXPECT_EQ(read_file(kRecordPath), full_record(kHomeA));
  EXPECT_EQ(read_file(kBackupPath), full_record(kHomeA));
  EXPECT_EQ(leftover_temporaries(kInstallRoot), std::vector<std::string>());
  // Room again: the same update goes through.
  disk_->unfill();
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_update(kHomeB, nullptr), 0);
  EXPECT_EQ(named_apphome(kRecordPath), std::optional<std::string>(kHomeB));
  EXPECT_EQ(named_apphome(kBackupPath), std::optional<std::string>(kHomeB));
}

TEST_F(FullDiskTest, UpdateAtEveryFillLevelKeepsBothFilesUsable) {
  // Out of pages, then out of inodes, with a little more room each time;
  // the record's lock file is there, the backup's is not yet, so the disk
  // runs out before the record, between the record and the backup, or not.
  std::set<std::string> outcomes;
  for (const bool inodes : {false, true}) {
    for (uint64_t left = 0; left <= 3; ++left) {
      SCOPED_TRACE(format("%s left: %u", inodes ? "inodes" : "pages", (unsigned)left));
      mount_root(inodes ? 64 : 0);
      arrange_both_old();
      ASSERT_TRUE(write_file(kRecordLockPath, ""));
      ASSERT_TRUE(inodes ? disk_->leave_free_inodes(left) : disk_->leave_free_pages(left));
      tarn_test::clear_logs();
      const int descriptors = open_descriptors();
      const int result = tarn_apphome_update(kHomeB, nullptr);
      ASSERT_NO_FATAL_FAILURE(expect_update_outcome(result, ENOSPC, kHomeB));
      EXPECT_EQ(open_descriptors(), descriptors);
      EXPECT_EQ(leftover_temporaries(kInstallRoot), std::vector<std::string>());
      const RecordNames names = recorded_names();
      outcomes.insert(format("%d %s %s", result, names.record->c_str(), names.backup->c_str()));
    }
  }
  // Each of the three ways was taken.
  EXPECT_EQ(outcomes, (std::set<std::string>{format("%d %s %s", ENOSPC, kHomeA, kHomeA),
                                             format("0 %s %s", kHomeB, kHomeA),
                                             format("0 %s %s", kHomeB, kHomeB)}));
}

TEST_F(FullDiskTest, ReductionOnAFullDiskReturnsTheUpdatesErrorAndWritesNothing) {
  mount_root();
  install_service();
  make_main_home(kHomeA);
  ASSERT_TRUE(disk_->leave_free_pages(0));
  EXPECT_EQ(tarn_apphome_reduction_file(), ENOSPC);
  EXPECT_LOGGED("warn", format("apphome update failed, errcode %d\n", ENOSPC));
  EXPECT_FALSE(exists(kRecordPath));
  EXPECT_FALSE(exists(kBackupPath));
  EXPECT_EQ(leftover_temporaries(kInstallRoot), std::vector<std::string>());
  disk_->unfill();
  EXPECT_EQ(tarn_apphome_reduction_file(), 0);
  EXPECT_EQ(named_apphome(kRecordPath), std::optional<std::string>(kHomeA));
}

TEST_F(FullDiskTest, AFlagOnADiskWithoutInodesIsMinusOneAndARestoreLeavesTheSpare) {
  mount_root(64);
  make_apphome(kHomeA, false, true, "", "spare\n");
  const std::string home = under_root(kHomeA);
  ASSERT_TRUE(disk_->leave_free_inodes(0));
  EXPECT_EQ(tarn_apphome_create_flag(home.c_str(), "flag_operational"), -1);
  EXPECT_LOGGED("warn", format("flag file %s/config/flags/flag_operational create failed\n", home.c_str()));
  int32_t err = 0;
  EXPECT_EQ(tarn_apphome_is_operational_path(home.c_str(), &err), 0);
  EXPECT_LOGGED("info", "copy operational backup file to operational file failed\n");
  EXPECT_EQ(read_file(home + "/config/flags/flag_operational_backup"), "spare\n");
  EXPECT_EQ(leftover_temporaries(home + "/config/flags"), std::vector<std::string>());
}

}  // namespace
