// Tests of the service processes' configuration files: whether a process is
// configured, installing (writing the file under its lock), uninstalling
// (deleting it without the lock) and restarting (rewriting it unchanged
// under its lock), and each failure with its message.
//
// The files are real files at the real paths below the install root (a
// fresh tmpfs in the test sandbox). Lock calls are written down by
// file_faults.h, which also injects lock failures. The ini saves and loads
// are interposed below to see whether the file's lock is held at that
// moment and to inject save failures; the existence check is interposed to
// let the app home record vanish right after it, as when another process
// removes it between two steps. Every test starts and ends with an empty
// install root.

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include <tarnbase/tarn_ini.h>

#include "child_process.h"
#include "fakes.h"
#include "file_faults.h"
#include "install_root.h"
#include "interpose.h"
#include "log_checks.h"
#include "tarn_process_control.h"
#include "time_limit.h"

// ---------------------------------------------------------------------------
// Interposed base operations.

namespace {

// One ini save or load of a configuration file (a path ending in ".eni"),
// and whether its lock file was locked at that moment.
struct IniCall {
  std::string path;
  bool lock_held;
};

std::vector<IniCall> g_saves;
std::vector<IniCall> g_loads;
int g_save_error = 0;
bool g_drop_record_after_exist_check = false;

using tarn_test::next_definition;

bool is_config_path(const char *path) {
  const size_t length = path != nullptr ? strlen(path) : 0;
  return length > 4 && strcmp(path + length - 4, ".eni") == 0;
}

void note(std::vector<IniCall> *calls, const char *path) {
  if (!is_config_path(path)) return;
  calls->push_back({path, tarn_test::lock_is_held(std::string(path) + ".lock")});
}

}  // namespace

extern "C" {

int tarn_ini_file_save(tarn_ini_t *ini, const char *path, int flags) {
  note(&g_saves, path);
  if (g_save_error != 0) {
    errno = g_save_error;
    return g_save_error;
  }
  return next_definition<int (*)(tarn_ini_t *, const char *, int)>("tarn_ini_file_save")(ini, path, flags);
}

tarn_ini_t *tarn_ini_file_load(const char *path) {
  note(&g_loads, path);
  return next_definition<tarn_ini_t *(*)(const char *)>("tarn_ini_file_load")(path);
}

int tarn_path_is_exist_u(const char *path) {
  const int result = next_definition<int (*)(const char *)>("tarn_path_is_exist_u")(path);
  if (g_drop_record_after_exist_check) unlink(tarn_test::kRecordPath);
  return result;
}

}  // extern "C"

namespace {

using tarn_test::dump_logs;
using tarn_test::exists;
using tarn_test::format;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::list_directory;
using tarn_test::make_dirs;
using tarn_test::messages;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

const std::string kServicesDir = under_root(kHomeA) + "/config/services/TARN";
const std::string kConfig = kServicesDir + "/tarn_worker.eni";
const std::string kLock = kConfig + ".lock";
// A configuration as tarn_ini_file_save writes it, so that a load and a
// save give back the same text.
const char kConfigText[] = "[service]\nexe=@/tarn_worker\nargs=-d\n\n[limits]\ncpu=50\n";

const std::vector<std::string> kLockEvents = {"init " + kLock, "acquire " + kLock, "release " + kLock,
                                              "destroy " + kLock};

const char kNoAppHomeForExists[] = "is_tarn_process_config_exists failed: get_apphome_path_main failed!\n";

// An ini object freed at the end of the test.
class Ini {
 public:
  Ini() : ini_(tarn_ini_file_load(nullptr)) {}
  ~Ini() { tarn_ini_file_free(ini_); }
  Ini(const Ini &) = delete;
  Ini &operator=(const Ini &) = delete;
  tarn_ini_t *get() const { return ini_; }
  void set(const char *section, const char *key, const char *value) {
    ASSERT_EQ(0, tarn_ini_file_set(ini_, section, key, value));
  }

 private:
  tarn_ini_t *ini_;
};

struct timespec mtime_of(const std::string &path) {
  struct stat st;
  memset(&st, 0, sizeof(st));
  stat(path.c_str(), &st);
  return st.st_mtim;
}

// Sets the file's access and modification times to 2001-09-09.
void age(const std::string &path) {
  const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), old, 0));
}

bool renewed_since_aged(const std::string &path) { return mtime_of(path).tv_sec > 1000000000; }

class ProcessControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
    ASSERT_TRUE(make_dirs(kServicesDir));
  }
  void TearDown() override { reset(); }

  static void reset() {
    tarn_test::reset_fakes();
    tarn_test::clear_file_faults();
    g_saves.clear();
    g_loads.clear();
    g_save_error = 0;
    g_drop_record_after_exist_check = false;
    tarn_test::clear_install_root();
  }

  static void configure() { ASSERT_TRUE(write_file(kConfig, kConfigText)); }

  static void fill(Ini *ini) {
    ini->set("service", "exe", "@/tarn_worker");
    ini->set("service", "args", "-d");
    ini->set("limits", "cpu", "50");
  }
};

// ---------------------------------------------------------------------------
// Whether a process is configured.

TEST_F(ProcessControlTest, ExistsIsOneForAConfigurationFileInTheServicesDirectory) {
  configure();
  EXPECT_EQ(1, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, ExistsIsZeroForAProcessWithoutAConfigurationFile) {
  ASSERT_TRUE(write_file(kServicesDir + "/tarn_worker.ini", kConfigText));
  ASSERT_TRUE(write_file(kServicesDir + "/tarn_worker", kConfigText));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, ExistsFollowsASymbolicLinkToItsTarget) {
  ASSERT_TRUE(write_file(under_root("elsewhere.eni"), kConfigText));
  ASSERT_EQ(0, symlink(under_root("elsewhere.eni").c_str(), kConfig.c_str()));
  EXPECT_EQ(1, is_tarn_process_config_exists("tarn_worker"));
  ASSERT_EQ(0, unlink(under_root("elsewhere.eni").c_str()));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
}

TEST_F(ProcessControlTest, ExistsReadsTheAppHomeAfreshOnEachCall) {
  configure();
  ASSERT_TRUE(write_file(kRecordPath, record_text(tarn_test::kHomeB)));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_EQ(1, is_tarn_process_config_exists("tarn_worker"));
}

TEST_F(ProcessControlTest, ExistsWithoutAnAppHomeIsZeroAndLogsAnError) {
  configure();
  ASSERT_EQ(0, unlink(kRecordPath));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{kNoAppHomeForExists}, messages("error"));
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
}

TEST_F(ProcessControlTest, ExistsWithARecordThatNamesNoAppHomeIsZeroAndLogsAnError) {
  configure();
  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\nupgrade_lock_count=1\n"));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_LOGGED("error", kNoAppHomeForExists);
}

// ---------------------------------------------------------------------------
// Install.

TEST_F(ProcessControlTest, InstallWritesTheWholeObjectUnderTheLockAndKeepsItForTheCaller) {
  Ini ini;
  fill(&ini);
  EXPECT_EQ(0, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(kConfigText, read_file(kConfig));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  ASSERT_EQ(1u, g_saves.size());
  EXPECT_EQ(kConfig, g_saves[0].path);
  EXPECT_TRUE(g_saves[0].lock_held);
  EXPECT_FALSE(tarn_test::lock_is_held(kLock));
  // The caller still owns the object, unchanged.
  EXPECT_STREQ("@/tarn_worker", tarn_ini_file_get(ini.get(), "service", "exe"));
  EXPECT_EQ(1, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, InstallReplacesAnExistingConfiguration) {
  ASSERT_TRUE(write_file(kConfig, "[old]\nkey=gone\n"));
  Ini ini;
  fill(&ini);
  EXPECT_EQ(0, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(kConfigText, read_file(kConfig));
}

TEST_F(ProcessControlTest, InstallWithANullObjectOrNameIsMinusOneAndWritesNothing) {
  Ini ini;
  fill(&ini);
  EXPECT_EQ(-1, install_tarn_process("tarn_worker", nullptr));
  EXPECT_EQ(-1, install_tarn_process(nullptr, ini.get()));
  EXPECT_EQ(std::set<std::string>{}, list_directory(kServicesDir));
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_TRUE(g_saves.empty());
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, InstallWithoutAnAppHomeIsMinusOneAndLogsAnError) {
  ASSERT_EQ(0, unlink(kRecordPath));
  Ini ini;
  fill(&ini);
  EXPECT_EQ(-1, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(std::vector<std::string>{"install_tarn_process tarn_worker failed: get_apphome_path_main failed!\n"},
            messages("error"));
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_FALSE(exists(kConfig));
}

TEST_F(ProcessControlTest, InstallWhoseLockFileCannotBeOpenedIsMinusOne) {
  tarn_test::fail_flock_init(kLock, EACCES);
  Ini ini;
  fill(&ini);
  EXPECT_EQ(-1, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(std::vector<std::string>{"install_tarn_process tarn_worker failed: lock file failed\n"},
            messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"init " + kLock}, tarn_test::file_events());
  EXPECT_TRUE(g_saves.empty());
  EXPECT_FALSE(exists(kConfig));
}

TEST_F(ProcessControlTest, InstallWhoseLockCannotBeTakenDestroysTheHandleAndIsMinusOne) {
  tarn_test::fail_flock_acquire(kLock, EDEADLK);
  Ini ini;
  fill(&ini);
  EXPECT_EQ(-1, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(std::vector<std::string>{"install_tarn_process tarn_worker failed: lock file failed\n"},
            messages("warn"));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  EXPECT_TRUE(g_saves.empty());
  EXPECT_FALSE(exists(kConfig));
}

TEST_F(ProcessControlTest, InstallReturnsTheSavesErrorAndReleasesTheLock) {
  g_save_error = ENOSPC;
  Ini ini;
  fill(&ini);
  EXPECT_EQ(ENOSPC, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  EXPECT_FALSE(tarn_test::lock_is_held(kLock));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, InstallDoesNotCreateTheServicesDirectory) {
  tarn_test::clear_install_root();
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  ASSERT_TRUE(make_dirs(under_root(kHomeA)));
  Ini ini;
  fill(&ini);
  // Without the directory there is no lock file either.
  EXPECT_EQ(-1, install_tarn_process("tarn_worker", ini.get()));
  EXPECT_LOGGED("warn", "install_tarn_process tarn_worker failed: lock file failed\n");
  EXPECT_FALSE(exists(kServicesDir));
}

TEST_F(ProcessControlTest, InstallWaitsForTheLockHeldByAnotherProcess) {
  tarn_test::ForeignLock holder(kLock);
  ASSERT_TRUE(holder.held());
  const tarn_test::LockedCall call = tarn_test::call_behind_lock(
      holder,
      [] {
        Ini ini;
        fill(&ini);
        return install_tarn_process("tarn_worker", ini.get());
      },
      [] { EXPECT_FALSE(exists(kConfig)); });
  ASSERT_TRUE(call.started);
  EXPECT_TRUE(call.waited) << "install did not wait for the lock";
  ASSERT_TRUE(call.answered);
  EXPECT_EQ(0, call.value);
  EXPECT_EQ(0, call.status);
  EXPECT_EQ(kConfigText, read_file(kConfig));
}

// ---------------------------------------------------------------------------
// Uninstall.

TEST_F(ProcessControlTest, UninstallRemovesTheFileWithoutTheLock) {
  configure();
  ASSERT_TRUE(write_file(kServicesDir + "/tarn_other.eni", kConfigText));
  EXPECT_EQ(0, uninstall_tarn_process("tarn_worker"));
  EXPECT_FALSE(exists(kConfig));
  EXPECT_EQ(std::set<std::string>{"tarn_other.eni"}, list_directory(kServicesDir));
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_FALSE(exists(kLock));
  EXPECT_EQ(0, is_tarn_process_config_exists("tarn_worker"));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, UninstallDoesNotWaitForTheLock) {
  configure();
  tarn_test::ForeignLock holder(kLock);
  ASSERT_TRUE(holder.held());
  EXPECT_EQ(0, uninstall_tarn_process("tarn_worker"));
  EXPECT_FALSE(exists(kConfig));
}

TEST_F(ProcessControlTest, UninstallOfAProcessWithoutAConfigurationIsMinusOneAndTouchesNothing) {
  ASSERT_TRUE(write_file(kServicesDir + "/tarn_other.eni", kConfigText));
  EXPECT_EQ(-1, uninstall_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"uninstall_tarn_process failed: config tarn_worker not exists!\n"},
            messages("warn"));
  EXPECT_EQ(std::set<std::string>{"tarn_other.eni"}, list_directory(kServicesDir));
  EXPECT_EQ(kConfigText, read_file(kServicesDir + "/tarn_other.eni"));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(ProcessControlTest, UninstallOfANullNameIsMinusOne) {
  EXPECT_EQ(-1, uninstall_tarn_process(nullptr));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, UninstallWithoutAnAppHomeIsMinusOneAndSaysTheConfigIsMissing) {
  configure();
  ASSERT_EQ(0, unlink(kRecordPath));
  EXPECT_EQ(-1, uninstall_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{kNoAppHomeForExists}, messages("error"));
  EXPECT_EQ(std::vector<std::string>{"uninstall_tarn_process failed: config tarn_worker not exists!\n"},
            messages("warn"));
  EXPECT_EQ(kConfigText, read_file(kConfig));
}

TEST_F(ProcessControlTest, UninstallWhenTheAppHomeVanishesAfterTheCheckIsMinusOne) {
  configure();
  g_drop_record_after_exist_check = true;
  EXPECT_EQ(-1, uninstall_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"uninstall_tarn_process tarn_worker failed: get_apphome_path_main failed!\n"},
            messages("error"));
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
  EXPECT_EQ(kConfigText, read_file(kConfig));
}

TEST_F(ProcessControlTest, UninstallReturnsTheUnlinkError) {
  ASSERT_TRUE(make_dirs(kConfig));
  EXPECT_EQ(EISDIR, uninstall_tarn_process("tarn_worker"));
  EXPECT_TRUE(exists(kConfig));
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// Restart.

TEST_F(ProcessControlTest, RestartRenewsTheFileUnderTheLockAndKeepsItsContent) {
  configure();
  age(kConfig);
  ASSERT_FALSE(renewed_since_aged(kConfig));
  EXPECT_EQ(0, restart_tarn_process("tarn_worker"));
  EXPECT_TRUE(renewed_since_aged(kConfig));
  EXPECT_EQ(kConfigText, read_file(kConfig));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  ASSERT_EQ(1u, g_loads.size());
  EXPECT_EQ(kConfig, g_loads[0].path);
  EXPECT_TRUE(g_loads[0].lock_held);
  ASSERT_EQ(1u, g_saves.size());
  EXPECT_EQ(kConfig, g_saves[0].path);
  EXPECT_TRUE(g_saves[0].lock_held);
  EXPECT_FALSE(tarn_test::lock_is_held(kLock));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, RestartOfAProcessWithoutAConfigurationIsMinusOneAndTouchesNothing) {
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"restart_tarn_process failed: config tarn_worker not exists!\n"},
            messages("warn"));
  EXPECT_EQ(std::set<std::string>{}, list_directory(kServicesDir));
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_TRUE(g_saves.empty());
}

TEST_F(ProcessControlTest, RestartOfANullNameIsMinusOne) {
  EXPECT_EQ(-1, restart_tarn_process(nullptr));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, RestartWithoutAnAppHomeIsMinusOneAndSaysTheConfigIsMissing) {
  configure();
  age(kConfig);
  ASSERT_EQ(0, unlink(kRecordPath));
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{kNoAppHomeForExists}, messages("error"));
  EXPECT_EQ(std::vector<std::string>{"restart_tarn_process failed: config tarn_worker not exists!\n"},
            messages("warn"));
  EXPECT_FALSE(renewed_since_aged(kConfig));
}

TEST_F(ProcessControlTest, RestartWhenTheAppHomeVanishesAfterTheCheckIsMinusOne) {
  configure();
  age(kConfig);
  g_drop_record_after_exist_check = true;
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"restart_tarn_process tarn_worker failed: get_apphome_path_main failed!\n"},
            messages("error"));
  EXPECT_TRUE(tarn_test::file_events().empty());
  EXPECT_FALSE(renewed_since_aged(kConfig));
}

TEST_F(ProcessControlTest, RestartWhoseLockCannotBeTakenLogsTheInstallMessage) {
  configure();
  age(kConfig);
  tarn_test::fail_flock_acquire(kLock, EDEADLK);
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"install_tarn_process tarn_worker failed: lock file failed\n"},
            messages("warn"));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  EXPECT_TRUE(g_loads.empty());
  EXPECT_FALSE(renewed_since_aged(kConfig));

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_init(kLock, EACCES);
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"install_tarn_process tarn_worker failed: lock file failed\n"},
            messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"init " + kLock}, tarn_test::file_events());
}

TEST_F(ProcessControlTest, RestartOfAFileThatDoesNotLoadIsMinusOneAndLeavesIt) {
  const std::string malformed = "[service]\nthis line has no equals sign\n";
  ASSERT_TRUE(write_file(kConfig, malformed));
  age(kConfig);
  EXPECT_EQ(-1, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(std::vector<std::string>{"restart_tarn_process tarn_worker failed: tarn_ini_file_load failed!\n"},
            messages("error"));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  EXPECT_TRUE(g_saves.empty());
  EXPECT_EQ(malformed, read_file(kConfig));
  EXPECT_FALSE(renewed_since_aged(kConfig));
}

TEST_F(ProcessControlTest, RestartOfAConfigurationThatIsNotARegularFileIsMinusOneAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    tarn_test::clear_logs();
    tarn_test::clear_file_events();
    ASSERT_TRUE(tarn_test::make_not_a_file(kConfig, kind));
    EXPECT_EQ(-1, tarn_test::within_time_limit(
                      std::string("restart_tarn_process of a configuration that is ") + tarn_test::describe(kind),
                      [&] { return restart_tarn_process("tarn_worker"); }));
    EXPECT_EQ(std::vector<std::string>{"restart_tarn_process tarn_worker failed: tarn_ini_file_load failed!\n"},
              messages("error"));
    EXPECT_EQ(1u, tarn_test::logs().size()) << dump_logs();
    EXPECT_EQ(kLockEvents, tarn_test::file_events());
    EXPECT_TRUE(g_saves.empty());
    EXPECT_TRUE(tarn_test::is_not_a_file(kConfig, kind));
  }
}

TEST_F(ProcessControlTest, RestartReturnsTheSavesError) {
  configure();
  g_save_error = EIO;
  EXPECT_EQ(EIO, restart_tarn_process("tarn_worker"));
  EXPECT_EQ(kLockEvents, tarn_test::file_events());
  EXPECT_EQ(kConfigText, read_file(kConfig));
  EXPECT_NO_LINES();
}

TEST_F(ProcessControlTest, RestartWaitsForTheLockHeldByAnotherProcess) {
  configure();
  age(kConfig);
  tarn_test::ForeignLock holder(kLock);
  ASSERT_TRUE(holder.held());
  const tarn_test::LockedCall call = tarn_test::call_behind_lock(
      holder, [] { return restart_tarn_process("tarn_worker"); },
      [] { EXPECT_FALSE(renewed_since_aged(kConfig)); });
  ASSERT_TRUE(call.started);
  EXPECT_TRUE(call.waited) << "restart did not wait for the lock";
  ASSERT_TRUE(call.answered);
  EXPECT_EQ(0, call.value);
  EXPECT_EQ(0, call.status);
  EXPECT_TRUE(renewed_since_aged(kConfig));
  EXPECT_EQ(kConfigText, read_file(kConfig));
}

}  // namespace
