// tarnctl as its users run it: the built program is started as a child (it
// inherits the test's sandbox) against real state made here -- a heartbeat
// table with registered processes, app home records, packages made with the
// system's tar and manifests sealed at run time -- and its standard output,
// standard error and exit code are checked.

#include <gtest/gtest.h>
#include <errno.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <jansson.h>
#include <tarn_heartbeat.h>
#include <tarnbase/tarn_glock.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_time.h>

#include "child_process.h"
#include "files.h"
#include "install_root.h"
#include "installed_agent.h"
#include "manifests.h"
#include "tarnctl_run.h"

namespace {

using tarn_test::dump;
using tarn_test::lines_of;
using tarn_test::Outcome;
using tarn_test::run_program;
using tarn_test::tarnctl;
using tarn_test::words_of;
using tarn_test::exists;
using tarn_test::kBackupPath;
using tarn_test::kHomeA;
using tarn_test::kHomeB;
using tarn_test::kRecordPath;
using tarn_test::install_agent;
using tarn_test::make_apphome;
using tarn_test::make_dirs;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::replace_with_file;
using tarn_test::ScratchDirectory;
using tarn_test::seal_manifest;
using tarn_test::under_root;
using tarn_test::write_file;


void drop_log_line(void *, uint32_t, const char *, size_t) {}

class TarnctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The library's lines of this test process itself are not wanted.
    tarn_log_register(drop_log_line, nullptr);
    tarn_test::clear_install_root();
  }
};

// ---------------------------------------------------------------------------
// The command line.

const std::vector<std::string> kCommands = {
    "status",       "apphome show", "apphome check",   "apphome restore", "apphome reduce",
    "pkg list",     "pkg unpack",   "pkg show",        "pkg verify",      "env admin",
    "env space",    "env uos",      "version parse",   "version compare", "version print"};

TEST_F(TarnctlTest, HelpListsEverySubcommandAndTheExitCodeTable) {
  const Outcome outcome = tarnctl({"--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  for (const std::string &command : kCommands) {
    EXPECT_NE(outcome.out.find("\n  " + command), std::string::npos) << command << "\n" << outcome.out;
  }
  for (const char *row : {"\n  0  success", "\n  1  the answer is no", "\n  2  usage error",
                          "\n  3  a file, directory or record is missing", "\n  4  a lock could not be taken",
                          "\n  5  bad data"}) {
    EXPECT_NE(outcome.out.find(row), std::string::npos) << row;
  }
}

TEST_F(TarnctlTest, EverySubcommandHasItsOwnHelp) {
  for (const std::string &command : kCommands) {
    std::vector<std::string> args = words_of(command);
    args.push_back("--help");
    const Outcome outcome = tarnctl(args);
    EXPECT_EQ(outcome.status, 0) << command;
    EXPECT_EQ(outcome.err, "") << command;
    EXPECT_EQ(outcome.out.rfind("usage: tarnctl " + command, 0), 0u) << outcome.out;
    EXPECT_NE(outcome.out.find("exit codes:"), std::string::npos) << command;
  }
  const Outcome group = tarnctl({"pkg", "--help"});
  EXPECT_EQ(group.status, 0);
  EXPECT_NE(group.out.find("  pkg verify DIR "), std::string::npos) << group.out;
  EXPECT_EQ(group.out.find("  env admin"), std::string::npos) << group.out;
}

TEST_F(TarnctlTest, UsageErrorsExitTwoWithOneLine) {
  EXPECT_FAILS(tarnctl({}), 2, "tarnctl: usage: missing subcommand (see tarnctl --help)");
  EXPECT_FAILS(tarnctl({"--bogus"}), 2, "tarnctl: usage: unknown option --bogus (see tarnctl --help)");
  EXPECT_FAILS(tarnctl({"bogus"}), 2, "tarnctl: bogus: unknown subcommand (see tarnctl --help)");
  EXPECT_FAILS(tarnctl({"pkg"}), 2, "tarnctl: pkg: missing subcommand (see tarnctl pkg --help)");
  EXPECT_FAILS(tarnctl({"pkg", "bogus"}), 2,
               "tarnctl: pkg: unknown subcommand bogus (see tarnctl pkg --help)");
  EXPECT_FAILS(tarnctl({"status", "--bogus"}), 2,
               "tarnctl: status: unknown option --bogus (usage: tarnctl status [--max-age SECONDS] "
               "[--watch [SECONDS]])");
  EXPECT_FAILS(tarnctl({"pkg", "verify"}), 2,
               "tarnctl: pkg verify: missing argument (usage: tarnctl pkg verify DIR)");
  EXPECT_FAILS(tarnctl({"version", "parse", "1.2.3", "4"}), 2,
               "tarnctl: version parse: unexpected argument 4 (usage: tarnctl version parse V)");
  EXPECT_FAILS(tarnctl({"apphome", "check", "--bogus"}), 2,
               "tarnctl: apphome check: unknown option --bogus (usage: tarnctl apphome check [--backup])");
}

TEST_F(TarnctlTest, DoubleDashEndsTheOptions) {
  const Outcome outcome = tarnctl({"version", "parse", "--", "-1.2.3"});
  EXPECT_FAILS(outcome, 5,
               "tarnctl: version parse: bad version string \"-1.2.3\" (expected MAJOR.MINOR.PATCH, each "
               "beginning with a digit)");
}

TEST_F(TarnctlTest, EmptyArgumentsGiveOneErrorLineAndACode) {
  const std::vector<std::vector<std::string>> cases = {
      {"pkg", "list", ""},           {"pkg", "show", ""},       {"pkg", "verify", ""},    
      {"pkg", "unpack", "", ""},     {"env", "space", "", "1"}, {"env", "uos", ""},
      {"version", "compare", "", ""}, {"version", "print", "", "", ""}, {""}};
  const std::vector<int> codes = {3, 3, 3, 3, 3, 2, 5, 2, 2};
  for (size_t i = 0; i < cases.size(); ++i) {
    const Outcome outcome = tarnctl(cases[i]);
    EXPECT_EQ(outcome.status, codes[i]) << dump(outcome);
    EXPECT_EQ(lines_of(outcome.err).size(), 1u) << dump(outcome);
    EXPECT_EQ(outcome.err.rfind("tarnctl: ", 0), 0u) << dump(outcome);
    EXPECT_EQ(outcome.out, "") << dump(outcome);
  }
}

// ---------------------------------------------------------------------------
// status

struct Registered {
  pid_t live = -1;  // a child registered with type 3
  pid_t gone = -1;  // a child registered with type 2, then ended
};

// Creates the table as the service does and registers this process as the
// service (slot 0, interval 5), a live child (slot 1, type 3, interval 10)
// and a child that then ends (slot 2, type 2, interval 30).
Registered register_processes() {
  Registered registered;
  EXPECT_EQ(proc_heartbeat_init(0), 0);
  proc_heartbeat_info_t service = {getpid(), 0, 5, PROC_HEARTBEAT_TYPE_SERVICE, 0};
  EXPECT_EQ(add_proc_heartbeat(&service), 0);
  registered.live = tarn_test::fork_child([] {
    for (;;) pause();
    return 0;
  });
  proc_heartbeat_info_t worker = {registered.live, 0, 10, 3, 0};
  EXPECT_EQ(add_proc_heartbeat(&worker), 1);
  registered.gone = tarn_test::fork_child([] {
    for (;;) pause();
    return 0;
  });
  proc_heartbeat_info_t other = {registered.gone, 0, 30, 2, 0};
  EXPECT_EQ(add_proc_heartbeat(&other), 2);
  tarn_test::kill_and_reap(registered.gone);
  return registered;
}

class StatusTest : public TarnctlTest {
 protected:
  void TearDown() override {
    if (registered_.live > 0) tarn_test::kill_and_reap(registered_.live);
    proc_heartbeat_deinit(true);
  }
  Registered registered_;
};

// The rows of status's output: the lines after the header up to the
// watchdog's line.
std::vector<std::vector<std::string>> status_rows(const std::string &out) {
  std::vector<std::vector<std::string>> rows;
  bool in_rows = false;
  for (const std::string &line : lines_of(out)) {
    if (line.rfind("watchdog:", 0) == 0) break;
    if (in_rows) rows.push_back(words_of(line));
    in_rows = in_rows || line.rfind("SLOT ", 0) == 0;
  }
  return rows;
}

TEST_F(StatusTest, PrintsEveryRegisteredProcessWithTypeIntervalAgeAndState) {
  const uint64_t before = tarn_time_get_tick_cout();
  registered_ = register_processes();
  const Outcome outcome = tarnctl({"status"});
  const uint64_t span = tarn_time_get_tick_cout() - before;
  // The child that ended makes the table not healthy.
  ASSERT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 12u) << outcome.out;
  EXPECT_EQ(lines[0], "integrity: ok");
  EXPECT_EQ(words_of(lines[6]),
            (std::vector<std::string>{"SLOT", "PID", "NAME", "TYPE", "INTERVAL_S", "AGE_S", "STATE", "EXECUTABLE"}));
  const std::vector<std::vector<std::string>> expected = {
      {"0", std::to_string(getpid()), "service", "5", "ok"},
      {"1", std::to_string(registered_.live), "worker(3)", "10", "ok"},
      {"2", std::to_string(registered_.gone), "worker(2)", "30", "dead"}};
  const std::vector<std::vector<std::string>> rows = status_rows(outcome.out);
  ASSERT_EQ(rows.size(), expected.size()) << outcome.out;
  for (size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(rows[i].size(), 8u) << lines[i + 7];
    // The age lies between 0 and the time since the first registration.
    const double age = std::stod(rows[i][5]);
    EXPECT_GE(age, 0) << lines[i + 7];
    EXPECT_LE(age, (double)span / 1000 + 0.05) << lines[i + 7];
    EXPECT_EQ((std::vector<std::string>{rows[i][0], rows[i][1], rows[i][3], rows[i][4], rows[i][6]}), expected[i])
        << lines[i + 7];
  }
  EXPECT_EQ(lines[10], "watchdog: none");
  EXPECT_EQ(lines[11], "status: not ok: 1 entry not ok");
}

TEST_F(StatusTest, LeavesTheTableAsItWas) {
  registered_ = register_processes();
  proc_heartbeat_info_t before[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(before, PROC_HEARTBEAT_MAX_PROCS), 3);
  ASSERT_EQ(tarnctl({"status"}).status, 3);
  ASSERT_EQ(tarnctl({"status", "--json"}).status, 3);
  proc_heartbeat_info_t after[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(after, PROC_HEARTBEAT_MAX_PROCS), 3);
  EXPECT_EQ(memcmp(before, after, 3 * sizeof(proc_heartbeat_info_t)), 0);
}

TEST_F(StatusTest, JsonHasTheSameRows) {
  const uint64_t before = tarn_time_get_tick_cout();
  registered_ = register_processes();
  const Outcome outcome = tarnctl({"status", "--json"});
  const uint64_t span = tarn_time_get_tick_cout() - before;
  ASSERT_EQ(outcome.status, 3) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(tarn_test::schema_problems("status", outcome.out), "");
  json_error_t error;
  std::unique_ptr<json_t, void (*)(json_t *)> answer(json_loads(outcome.out.c_str(), 0, &error),
                                                     [](json_t *json) { json_decref(json); });
  ASSERT_TRUE(answer) << error.text << "\n" << outcome.out;
  const json_t *array = json_object_get(answer.get(), "entries");
  ASSERT_TRUE(json_is_array(array));
  ASSERT_EQ(json_array_size(array), 3u);
  struct Expected {
    int slot;
    pid_t pid;
    const char *type;
    int type_id;
    int interval;
    const char *state;
  };
  const Expected expected[] = {{0, getpid(), "service", 0, 5, "ok"},
                               {1, registered_.live, "worker", 3, 10, "ok"},
                               {2, registered_.gone, "worker", 2, 30, "dead"}};
  for (size_t i = 0; i < 3; ++i) {
    const json_t *row = json_array_get(array, i);
    EXPECT_EQ(json_object_size(row), 10u);
    EXPECT_EQ(json_integer_value(json_object_get(row, "slot")), expected[i].slot);
    EXPECT_EQ(json_integer_value(json_object_get(row, "pid")), expected[i].pid);
    EXPECT_STREQ(json_string_value(json_object_get(row, "type")), expected[i].type);
    EXPECT_EQ(json_integer_value(json_object_get(row, "type_id")), expected[i].type_id);
    EXPECT_EQ(json_integer_value(json_object_get(row, "interval_s")), expected[i].interval);
    const json_int_t age = json_integer_value(json_object_get(row, "age_ms"));
    EXPECT_TRUE(json_is_integer(json_object_get(row, "age_ms")));
    EXPECT_GE(age, 0);
    EXPECT_LE(age, (json_int_t)span);
    EXPECT_STREQ(json_string_value(json_object_get(row, "state")), expected[i].state) << i;
  }
}

TEST_F(StatusTest, AnEmptyTableHasNoRowsAndNoService) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  const Outcome text = tarnctl({"status"});
  EXPECT_EQ(text.status, 3);
  EXPECT_EQ(status_rows(text.out).size(), 0u) << text.out;
  EXPECT_EQ(lines_of(text.out).back(), "status: not ok: no service entry");
  const Outcome json = tarnctl({"status", "--json"});
  EXPECT_EQ(json.status, 3);
  EXPECT_EQ(tarn_test::schema_problems("status", json.out), "");
  EXPECT_NE(json.out.find("\"entries\": [],"), std::string::npos) << json.out;
}

TEST_F(StatusTest, WithoutATableExitsFourAndCreatesNone) {
  EXPECT_FAILS(tarnctl({"status"}), 4,
               "tarnctl: status: no heartbeat table (shared memory proc_heartbeat_shm.name does not exist; "
               "has the service run?)");
  EXPECT_FALSE(exists("/dev/shm/proc_heartbeat_shm.name"));
}

TEST_F(StatusTest, AHeldLockExitsFour) {
  registered_ = register_processes();
  tarn_glock_t *lock = nullptr;
  ASSERT_EQ(tarn_glock_init("proc_heartbeat_shm.name", &lock), 0);
  ASSERT_EQ(tarn_glock_acquire_timeout(lock, 0), 0);
  const Outcome outcome = tarnctl({"status"});
  tarn_glock_release(lock);
  tarn_glock_destroy(lock);
  EXPECT_FAILS(outcome, 4, "tarnctl: status: the heartbeat table's lock could not be taken within 100 ms");
  EXPECT_EQ(outcome.out, "");
}

TEST_F(StatusTest, LibraryLinesGoToStandardErrorOnlyWithVerbose) {
  registered_ = register_processes();
  const Outcome quiet = tarnctl({"status"});
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out.find("[kep]"), std::string::npos);
  const Outcome verbose = tarnctl({"status", "--verbose"});
  EXPECT_EQ(verbose.status, 3);
  EXPECT_EQ(lines_of(verbose.out).size(), 12u) << verbose.out;
  EXPECT_EQ(verbose.out.find("[kep]"), std::string::npos);
  EXPECT_NE(verbose.err.find("[info]"), std::string::npos) << verbose.err;
  EXPECT_NE(verbose.err.find("process heartbeat init successed, mode:2"), std::string::npos) << verbose.err;
  const Outcome global = tarnctl({"--verbose", "status"});
  EXPECT_NE(global.err.find("[kep]"), std::string::npos) << global.err;
}

// ---------------------------------------------------------------------------
// apphome

const std::string kRoot = tarn_test::kInstallRoot;

TEST_F(TarnctlTest, ApphomeShowPrintsBothFilesWithTheirPaths) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=2\n\n[other]\nkey=value\n"));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  const Outcome outcome = tarnctl({"apphome", "show"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string("record: ") + kRecordPath + "\n" +
                             "  [apphome]\n"
                             "  app_home=" + kHomeA + "\n"
                             "  upgrade_lock_count=2\n"
                             "  [other]\n"
                             "  key=value\n"
                             "  app home: " + under_root(kHomeA) + "\n" +
                             "backup: " + kBackupPath + "\n" +
                             "  [apphome]\n"
                             "  app_home=" + kHomeB + "\n"
                             "  app home: " + under_root(kHomeB) + "\n");
}

TEST_F(TarnctlTest, ApphomeShowOfAMissingBackupStillShowsTheRecordAndExitsThree) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  const Outcome outcome = tarnctl({"apphome", "show"});
  EXPECT_FAILS(outcome, 3,
               std::string("tarnctl: apphome show: backup ") + kBackupPath + ": No such file or directory");
  EXPECT_EQ(outcome.out, std::string("record: ") + kRecordPath + "\n  [apphome]\n  app_home=" + kHomeA +
                             "\n  app home: " + under_root(kHomeA) + "\nbackup: " + kBackupPath + "\n");
}

TEST_F(TarnctlTest, ApphomeShowOfAMalformedRecordExitsFive) {
  ASSERT_TRUE(write_file(kRecordPath, "this is no ini line\n"));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  const Outcome outcome = tarnctl({"apphome", "show"});
  EXPECT_FAILS(outcome, 5, std::string("tarnctl: apphome show: record ") + kRecordPath + ": not a valid ini file");
  EXPECT_NE(outcome.out.find(std::string("app_home=") + kHomeB), std::string::npos);
}

TEST_F(TarnctlTest, ApphomeCheckOfAValidRecordNamesItsAppHome) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  const Outcome outcome = tarnctl({"apphome", "check"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string("valid: ") + kRecordPath + " names app home " + under_root(kHomeA) + "\n");
}

TEST_F(TarnctlTest, ApphomeCheckExplainsEachFailure) {
  EXPECT_FAILS(tarnctl({"apphome", "check"}), 3,
               std::string("tarnctl: apphome check: invalid: ") + kRecordPath + " does not exist");

  ASSERT_TRUE(write_file(kRecordPath, "[apphome]\nother=1\n"));
  EXPECT_FAILS(tarnctl({"apphome", "check"}), 1,
               std::string("tarnctl: apphome check: invalid: ") + kRecordPath +
                   " cannot be read or names no app home (no \"app_home\" in section \"apphome\")");

  make_apphome(kHomeA, false, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  EXPECT_FAILS(tarnctl({"apphome", "check"}), 1,
               "tarnctl: apphome check: invalid: the app home " + under_root(kHomeA) + " that " + kRecordPath +
                   " names is not operational (no config/flags/flag_operational nor its spare)");
}

TEST_F(TarnctlTest, ApphomeCheckWithBackupChecksTheBackup) {
  make_apphome(kHomeB, true, false);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeB)));
  const Outcome outcome = tarnctl({"apphome", "check", "--backup"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.out, std::string("valid: ") + kBackupPath + " names app home " + under_root(kHomeB) + "\n");
}

TEST_F(TarnctlTest, ApphomeRestoreRecordsTheBackupsAppHome) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeB)));
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  const Outcome outcome = tarnctl({"apphome", "restore"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string("restored: app_home=") + kHomeA + "\n");
  const auto record = tarn_test::load_ini(kRecordPath);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ((*record).at("apphome").at("app_home"), kHomeA);
  EXPECT_EQ(tarn_test::load_ini(kBackupPath), record);
}

TEST_F(TarnctlTest, ApphomeRestoreWithoutAUsableBackupLeavesTheRecord) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeB)));
  EXPECT_FAILS(tarnctl({"apphome", "restore"}), 3,
               std::string("tarnctl: apphome restore: backup not restored, the record is left as it was: ") +
                   kBackupPath + " does not exist");
  make_apphome(kHomeA, false, false);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  EXPECT_FAILS(tarnctl({"apphome", "restore"}), 1,
               "tarnctl: apphome restore: backup not restored, the record is left as it was: the app home " +
                   under_root(kHomeA) + " that " + kBackupPath +
                   " names is not operational (no config/flags/flag_operational nor its spare)");
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeB));
}


TEST_F(TarnctlTest, ApphomeReduceKeepsAValidRecord) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  const Outcome outcome = tarnctl({"apphome", "reduce"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.out, std::string("valid: app_home=") + kHomeA + "\n");
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeA));
  EXPECT_FALSE(exists(kBackupPath));
}

TEST_F(TarnctlTest, ApphomeReduceRestoresFromTheBackup) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  const Outcome outcome = tarnctl({"apphome", "reduce"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.out, std::string("restored from the backup: app_home=") + kHomeA + "\n");
  EXPECT_EQ(tarn_test::load_ini(kRecordPath), tarn_test::load_ini(kBackupPath));
}

TEST_F(TarnctlTest, ApphomeReduceRebuildsTheRecordFromTheDirectories) {
  install_agent(kHomeB);
  const Outcome outcome = tarnctl({"apphome", "reduce"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string("rebuilt from the directories: app_home=") + kHomeB + "\n");
  const auto record = tarn_test::load_ini(kRecordPath);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ((*record).at("apphome").at("app_home"), kHomeB);
}

TEST_F(TarnctlTest, ApphomeReduceWithNothingUsableExitsOneWithTheLibrarysReason) {
  install_agent(kHomeB);
  // Not UUID text: reduction passes it over.
  std::filesystem::rename(under_root(kHomeB), under_root("not-a-home"));
  EXPECT_FAILS(tarnctl({"apphome", "reduce"}), 1,
               "tarnctl: apphome reduce: no usable record could be had: get apphome is failed");
  EXPECT_FALSE(exists(kRecordPath));
}

// ---------------------------------------------------------------------------
// pkg

// Digests of the standard SHA-256 test messages.
constexpr char kAbcDigest[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kEmptyDigest[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kMillionADigest[] = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
const std::string kMillionA(1000000, 'a');

std::string upper(std::string text) {
  for (char &c : text) c = (char)toupper((unsigned char)c);
  return text;
}

std::string kav_core_manifest() {
  return std::string(
             "{\"package\": \"kav_core\", \"version\": \"3.2.17\", \"scripts_skippable\": true,"
             " \"requirement\": true, \"arch\": [\"x64\", 7, \"arm64\"], \"platform\": [\"linux\", \"uos\"],"
             " \"platform_version\": {\"uos\": \">=1050\"}, \"depends\": [\"kav_base\", \"kav_net\"],"
             " \"arch_bind\": 2, \"retry\": true, \"files\": ["
             "{\"name\": \"__ROOT/bin/kav_core\", \"sha256\": \"") +
         upper(kAbcDigest) +
         "\"},"
         "{\"name\": \"lib/libkav_core.so\", \"sha256\": \"" +
         kMillionADigest +
         "\"},"
         "{\"name\": \"share/empty\", \"sha256\": \"" +
         kEmptyDigest + "\"}]}";
}

class PkgTest : public TarnctlTest {
 protected:
  // The package directory src/kav_core with its files and sealed manifest.
  void SetUp() override {
    TarnctlTest::SetUp();
    ASSERT_TRUE(make_dirs(package_ + "/bin"));
    ASSERT_TRUE(make_dirs(package_ + "/lib"));
    ASSERT_TRUE(make_dirs(package_ + "/share"));
    ASSERT_TRUE(make_dirs(package_ + "/config/component_info"));
    ASSERT_TRUE(write_file(package_ + "/bin/kav_core", "abc", 0755));
    ASSERT_TRUE(write_file(package_ + "/lib/libkav_core.so", kMillionA));
    ASSERT_TRUE(write_file(package_ + "/share/empty", ""));
    ASSERT_TRUE(seal_manifest(manifest_, kav_core_manifest()));
  }

  // The archive NAME.tgz of src/kav_core, made with the system's tar.
  std::string make_archive() {
    const std::string archive = scratch_ / "kav_core.tgz";
    const Outcome tar = run_program({"tar", "-czf", archive, "-C", scratch_ / "src", "kav_core"});
    EXPECT_EQ(tar.status, 0) << dump(tar);
    return archive;
  }

  ScratchDirectory scratch_{"tarnctl"};
  const std::string package_ = scratch_ / "src/kav_core";
  const std::string manifest_ = package_ + "/config/component_info/kav_core.ejs";
};

const std::string kShown = std::string(
                               "package: kav_core\n"
                               "version: 3.2.17\n"
                               "requirement: yes\n"
                               "scripts_skippable: yes\n"
                               "retry: yes\n"
                               "arch_bind: 2\n"
                               "arch: x64 arm64\n"
                               "platform: linux uos\n"
                               "depends: kav_base kav_net\n"
                               "files: 3\n"
                               "file: ") +
                           upper(kAbcDigest) + " __ROOT/bin/kav_core\nfile: " + kMillionADigest +
                           " lib/libkav_core.so\nfile: " + kEmptyDigest + " share/empty\n";

TEST_F(PkgTest, ShowPrintsEveryFieldAndFile) {
  const Outcome outcome = tarnctl({"pkg", "show", manifest_});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, kShown);
}

TEST_F(PkgTest, ShowListsTheFilesThatFollowASkippedEntry) {
  // The first entry lacks its digest, so the record keeps the second one in
  // its second slot, past its count of one.
  ASSERT_TRUE(seal_manifest(manifest_,
                            "{\"package\": \"p\", \"version\": \"1.0.0\", \"files\": [{\"name\": \"a\"},"
                            " {\"name\": \"b\", \"sha256\": \"00\"}]}"));
  const Outcome outcome = tarnctl({"pkg", "show", manifest_});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_NE(outcome.out.find("files: 1\nfile: 00 b\n"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("arch: -\nplatform: -\ndepends: -\n"), std::string::npos) << outcome.out;
}

TEST_F(PkgTest, ShowOfAMissingTamperedOrIncompleteManifestFails) {
  EXPECT_FAILS(tarnctl({"pkg", "show", scratch_ / "none.ejs"}), 3,
               "tarnctl: pkg show: " + (scratch_ / "none.ejs") + ": No such file or directory");
  ASSERT_TRUE(tarn_test::tamper_file(manifest_));
  EXPECT_FAILS(tarnctl({"pkg", "show", manifest_}), 5,
               "tarnctl: pkg show: " + manifest_ + ": not a protected file, or changed, cut or sealed with another key");
  ASSERT_TRUE(seal_manifest(manifest_, "{\"package\": \"p\", \"version\": \"1.0.0\", \"files\": []}"));
  const Outcome incomplete = tarnctl({"pkg", "show", manifest_});
  EXPECT_EQ(incomplete.status, 5);
  EXPECT_EQ(incomplete.err.rfind("tarnctl: pkg show: " + manifest_ + ": not a component manifest", 0), 0u)
      << incomplete.err;
  EXPECT_EQ(lines_of(incomplete.err).size(), 1u);
  ASSERT_TRUE(seal_manifest(manifest_, "{\"package\": \"p\", \"version\": \"1.x.0\", \"files\": [{\"name\": \"a\", \"sha256\": \"00\"}]}"));
  EXPECT_EQ(tarnctl({"pkg", "show", manifest_}).status, 5);
}

TEST_F(PkgTest, VerifyOfAnIntactPackagePassesEveryFile) {
  const Outcome outcome = tarnctl({"pkg", "verify", package_});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "verified: every file that the manifests list matches its digest\n");
}

TEST_F(PkgTest, VerifyReportsEveryProblemOnALineOfItsOwn) {
  ASSERT_TRUE(write_file(package_ + "/bin/kav_core", "abd", 0755));
  ASSERT_TRUE(write_file(package_ + "/lib/libkav_core.so", kMillionA.substr(1)));
  ASSERT_EQ(unlink((package_ + "/share/empty").c_str()), 0);
  const Outcome outcome = tarnctl({"pkg", "verify", package_});
  EXPECT_EQ(outcome.status, 1) << dump(outcome);
  EXPECT_EQ(outcome.out, "verified: 3 problems\n");
  EXPECT_EQ(lines_of(outcome.err), (std::vector<std::string>{"tarnctl: pkg verify: differs __ROOT/bin/kav_core",
                                                             "tarnctl: pkg verify: differs lib/libkav_core.so",
                                                             "tarnctl: pkg verify: missing share/empty"}));
}

TEST_F(PkgTest, VerifyReportsLinksDirectoriesAndNamesThatLeaveThePackage) {
  ASSERT_EQ(unlink((package_ + "/share/empty").c_str()), 0);
  ASSERT_TRUE(make_dirs(package_ + "/share/empty"));
  ASSERT_TRUE(write_file(scratch_ / "abc", "abc"));
  ASSERT_EQ(unlink((package_ + "/bin/kav_core").c_str()), 0);
  ASSERT_EQ(symlink((scratch_ / "abc").c_str(), (package_ + "/bin/kav_core").c_str()), 0);
  ASSERT_TRUE(seal_manifest(package_ + "/config/component_info/zz.ejs",
                            std::string("{\"package\": \"zz\", \"version\": \"1.0.0\", \"files\": [{\"name\": \"../../abc\", ") +
                                "\"sha256\": \"" + kAbcDigest + "\"}]}"));
  const Outcome outcome = tarnctl({"pkg", "verify", package_});
  EXPECT_EQ(outcome.status, 1) << dump(outcome);
  EXPECT_EQ(outcome.out, "verified: 3 problems\n");
  EXPECT_EQ(lines_of(outcome.err),
            (std::vector<std::string>{"tarnctl: pkg verify: not a regular file __ROOT/bin/kav_core",
                                      "tarnctl: pkg verify: not a regular file share/empty",
                                      "tarnctl: pkg verify: escapes ../../abc"}));
}

TEST_F(PkgTest, VerifySaysSoWhenTheReportWasCut) {
  // 30000 missing files of 40-character names: 49 bytes a line, more than
  // the tool's report of 1 MiB holds (21399 whole lines and a cut one).
  std::string json = "{\"package\": \"kav_core\", \"version\": \"1.0.0\", \"files\": [";
  for (int i = 0; i < 30000; ++i) {
    char name[41];
    snprintf(name, sizeof(name), "missing/file_%027d", i);
    json += std::string(i == 0 ? "" : ",") + "{\"name\": \"" + name + "\", \"sha256\": \"" + kAbcDigest + "\"}";
  }
  ASSERT_TRUE(seal_manifest(manifest_, json + "]}"));
  const Outcome outcome = tarnctl({"pkg", "verify", package_});
  EXPECT_EQ(outcome.status, 1) << outcome.out;
  EXPECT_EQ(outcome.out, "verified: 30000 problems\n");
  const std::vector<std::string> lines = lines_of(outcome.err);
  ASSERT_EQ(lines.size(), 21400u);
  EXPECT_EQ(lines[21398], "tarnctl: pkg verify: missing missing/file_000000000000000000000021398");
  EXPECT_EQ(lines.back(), "tarnctl: pkg verify: report cut after 21399 lines");
}

TEST_F(PkgTest, VerifyWithATamperedOrMissingManifestOrDirectoryFails) {
  EXPECT_FAILS(tarnctl({"pkg", "verify", scratch_ / "nothing"}), 3,
               "tarnctl: pkg verify: " + (scratch_ / "nothing") + ": No such file or directory");
  ASSERT_TRUE(tarn_test::tamper_file(manifest_));
  const Outcome tampered = tarnctl({"pkg", "verify", package_});
  // The first line that the library logged for the failed check is the
  // reason.
  EXPECT_FAILS(tampered, 5, "tarnctl: pkg verify: load plugin config: " + manifest_ + " failed");
  EXPECT_EQ(tampered.out, "");
  ASSERT_EQ(unlink(manifest_.c_str()), 0);
  EXPECT_FAILS(tarnctl({"pkg", "verify", package_}), 3,
               "tarnctl: pkg verify: no package manifest in " + package_ + "/config/component_info");
}

TEST_F(PkgTest, UnpackExtractsASystemTarArchiveThatThenVerifies) {
  const std::string archive = make_archive();
  const std::string dest = scratch_ / "out/new";
  const Outcome outcome = tarnctl({"pkg", "unpack", archive, dest});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "unpacked " + archive + " into " + dest + "\n");
  EXPECT_EQ(read_file(dest + "/kav_core/bin/kav_core"), "abc");
  EXPECT_EQ(read_file(dest + "/kav_core/lib/libkav_core.so"), kMillionA);
  const std::string unpacked = dest + "/kav_core";
  const Outcome verify = tarnctl({"pkg", "verify", unpacked});
  EXPECT_EQ(verify.status, 0) << dump(verify);
  const Outcome list = tarnctl({"pkg", "list", unpacked});
  EXPECT_EQ(list.status, 0) << dump(list);
  EXPECT_EQ(list.out, "kav_core 3.2.17\n");
}

TEST_F(PkgTest, UnpackWithSystemTarExtractsIntoAnExistingDirectory) {
  const std::string archive = make_archive();
  const std::string dest = scratch_ / "out";
  ASSERT_TRUE(make_dirs(dest));
  const Outcome outcome = tarnctl({"pkg", "unpack", "--system-tar", archive, dest});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "unpacked " + archive + " into " + dest + "\n");
  EXPECT_EQ(read_file(dest + "/kav_core/share/empty"), "");
  EXPECT_EQ(read_file(dest + "/kav_core/bin/kav_core"), "abc");
}

TEST_F(PkgTest, UnpackOfACorruptArchiveExitsFiveWithOneLine) {
  const std::string archive = make_archive();
  const std::string whole = read_file(archive);
  const std::string cut = scratch_ / "cut.tgz";
  ASSERT_TRUE(write_file(cut, whole.substr(0, whole.size() / 2)));
  const std::string garbage = scratch_ / "garbage.tgz";
  ASSERT_TRUE(write_file(garbage, "this is no gzip stream, nor a tar archive\n"));
  const std::string dest = scratch_ / "out";
  ASSERT_TRUE(make_dirs(dest));
  for (const std::string &bad : {cut, garbage}) {
    for (const bool system_tar : {false, true}) {
      std::vector<std::string> args = {"pkg", "unpack", bad, dest};
      if (system_tar) args.push_back("--system-tar");
      const Outcome outcome = tarnctl(args);
      EXPECT_EQ(outcome.status, 5) << bad << " " << system_tar << "\n" << dump(outcome);
      EXPECT_EQ(lines_of(outcome.err).size(), 1u) << dump(outcome);
      EXPECT_EQ(outcome.err.rfind("tarnctl: pkg unpack: cannot unpack " + bad + ": ", 0), 0u) << outcome.err;
      EXPECT_EQ(outcome.out, "");
    }
  }
  // tar's own first message ends the line; its other lines are not passed on.
  EXPECT_FAILS(tarnctl({"pkg", "unpack", "--system-tar", garbage, dest}), 5,
               "tarnctl: pkg unpack: cannot unpack " + garbage + ": unzip tgz failed with 2, cmd:tar -zxf \"" +
                   garbage + "\" -C \"" + dest + "\": gzip: stdin: not in gzip format");
}

TEST_F(PkgTest, UnpackRefusesMissingArchivesAndUnsafeSystemTarArguments) {
  const std::string dest = scratch_ / "out";
  ASSERT_TRUE(make_dirs(dest));
  EXPECT_FAILS(tarnctl({"pkg", "unpack", scratch_ / "none.tgz", dest}), 3,
               "tarnctl: pkg unpack: " + (scratch_ / "none.tgz") + ": No such file or directory");
  EXPECT_FAILS(tarnctl({"pkg", "unpack", scratch_.path(), dest}), 3,
               "tarnctl: pkg unpack: " + scratch_.path() + ": not a regular file");
  const std::string archive = make_archive();
  const std::string tar_gz = scratch_ / "kav_core.tar.gz";
  ASSERT_TRUE(write_file(tar_gz, read_file(archive)));
  EXPECT_FAILS(tarnctl({"pkg", "unpack", "--system-tar", tar_gz, dest}), 2,
               "tarnctl: pkg unpack: --system-tar needs an archive whose name ends in .tgz");
  EXPECT_FAILS(tarnctl({"pkg", "unpack", "--system-tar", archive, dest + "/$(touch x)"}), 2,
               "tarnctl: pkg unpack: --system-tar refuses paths that hold '\"', '$', '`' or '\\'");
  EXPECT_FAILS(tarnctl({"pkg", "unpack", "--system-tar", archive, scratch_ / "missing"}), 3,
               "tarnctl: pkg unpack: " + (scratch_ / "missing") + ": not an existing directory");
}

class PkgListTest : public PkgTest {
 protected:
  void SetUp() override {
    PkgTest::SetUp();
    ASSERT_TRUE(make_dirs(manifests_));
    ASSERT_TRUE(seal_manifest(manifests_ + "/b.ejs", "{\"package\": \"beta\", \"version\": \"2.5.1\"}"));
    ASSERT_TRUE(seal_manifest(manifests_ + "/a.ejs", "{\"package\": \"alpha\", \"version\": \"1.0.0.7\"}"));
    ASSERT_TRUE(write_file(manifests_ + "/notes.txt", "not a manifest"));
  }
  const std::string dir_ = scratch_ / "installed";
  const std::string manifests_ = dir_ + "/config/component_info";
};

TEST_F(PkgListTest, ListPrintsNameAndVersionOfEachManifest) {
  const Outcome outcome = tarnctl({"pkg", "list", dir_});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "alpha 1.0.0\nbeta 2.5.1\n");
}

TEST_F(PkgListTest, ListReportsTheManifestsItSkipped) {
  ASSERT_TRUE(tarn_test::tamper_file(manifests_ + "/a.ejs"));
  ASSERT_TRUE(seal_manifest(manifests_ + "/c.ejs", "{\"package\": \"gamma\", \"version\": \"x.1.2\"}"));
  const Outcome outcome = tarnctl({"pkg", "list", dir_});
  EXPECT_EQ(outcome.status, 5) << dump(outcome);
  EXPECT_EQ(outcome.out, "beta 2.5.1\n");
  // Each skipped manifest with the library's reason, its info-level one
  // (the bad version) too, then the count.
  EXPECT_EQ(lines_of(outcome.err),
            (std::vector<std::string>{"tarnctl: pkg list: skipped " + manifests_ + "/a.ejs: load ejs failed, path is " +
                                          manifests_ + "/a.ejs, errcode:0x4a",
                                      "tarnctl: pkg list: skipped " + manifests_ +
                                          "/c.ejs: version string is invalid, x.1.2",
                                      "tarnctl: pkg list: 2 of 3 manifests could not be loaded"}));
}

TEST_F(PkgListTest, ListOfADirectoryWithoutManifestsExitsThree) {
  EXPECT_FAILS(tarnctl({"pkg", "list", scratch_ / "none"}), 3,
               "tarnctl: pkg list: " + (scratch_ / "none") + ": No such file or directory");
  ASSERT_TRUE(make_dirs(scratch_ / "empty"));
  EXPECT_FAILS(tarnctl({"pkg", "list", scratch_ / "empty"}), 3,
               "tarnctl: pkg list: no package manifest in " + (scratch_ / "empty") + "/config/component_info");
}

// ---------------------------------------------------------------------------
// env

TEST_F(TarnctlTest, EnvAdminAnswersForTheEffectiveUser) {
  const Outcome outcome = tarnctl({"env", "admin"});
  if (geteuid() == 0) {
    EXPECT_EQ(outcome.status, 0) << dump(outcome);
    EXPECT_EQ(outcome.out, "yes\n");
  } else {
    EXPECT_EQ(outcome.status, 1) << dump(outcome);
    EXPECT_EQ(outcome.out, "no\n");
  }
  EXPECT_EQ(outcome.err, "");
}

// tarnctl and the three libraries it loads, copied into a new folder of /tmp
// that every user may enter: the build folder may lie below one that only
// its owner may (a root user's clone under /root), and the program's run
// path names the libraries there. Returns the folder, or "" with the reason
// in *error. The loader finds the copies through LD_LIBRARY_PATH, which it
// searches before the run path.
std::string copy_tarnctl_for_any_user(std::string *error) {
  const std::string dir = tarn_test::make_temp_directory("tarnctl_for_any_user");
  if (dir.empty() || chmod(dir.c_str(), 0755) != 0) {
    *error = std::string("cannot make a folder in /tmp: ") + strerror(errno);
    return "";
  }
  std::vector<std::string> files = {TARNCTL_PATH};
  std::istringstream libraries(TARNCTL_LIBRARIES);
  for (std::string library; std::getline(libraries, library, ':');) files.push_back(library);
  for (const std::string &file : files) {
    const std::string copy = dir + file.substr(file.rfind('/'));
    std::error_code ec;
    std::filesystem::copy_file(file, copy, ec);
    if (ec || chmod(copy.c_str(), 0755) != 0) {
      *error = "cannot copy " + file + " to " + copy + ": " + (ec ? ec.message() : strerror(errno));
      return "";
    }
  }
  return dir;
}

TEST_F(TarnctlTest, EnvAdminSaysNoForAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  std::string error;
  const std::string dir = copy_tarnctl_for_any_user(&error);
  ASSERT_FALSE(dir.empty()) << error;
  constexpr uid_t kNobody = 65534;
  const Outcome outcome = run_program({dir + "/tarnctl", "env", "admin"}, [&dir] {
    return setenv("LD_LIBRARY_PATH", dir.c_str(), 1) == 0 && setgroups(0, nullptr) == 0 &&
           setgid(kNobody) == 0 && setuid(kNobody) == 0;
  });
  if (outcome.status == 126) GTEST_SKIP() << "this sandbox maps no other user";
  EXPECT_EQ(outcome.status, 1) << dump(outcome);
  EXPECT_EQ(outcome.out, "no\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(TarnctlTest, EnvSpaceComparesTheAvailableSpace) {
  const Outcome room = tarnctl({"env", "space", "/tmp", "1K"});
  EXPECT_EQ(room.status, 0) << dump(room);
  EXPECT_EQ(room.err, "");
  const std::vector<std::string> words = words_of(room.out);
  ASSERT_EQ(words.size(), 6u) << room.out;
  EXPECT_EQ(words[0], "yes:");
  EXPECT_GE(std::stoull(words[1]), 1024u);
  EXPECT_EQ(room.out.substr(room.out.find(" bytes")), " bytes available, 1024 needed\n");

  const Outcome none = tarnctl({"env", "space", "/tmp", "18446744073709551615"});
  EXPECT_EQ(none.status, 1) << dump(none);
  EXPECT_EQ(none.out.rfind("no: ", 0), 0u) << none.out;
  EXPECT_EQ(none.out.substr(none.out.find(" bytes")), " bytes available, 18446744073709551615 needed\n");
}

TEST_F(TarnctlTest, EnvSpaceRefusesBadArguments) {
  EXPECT_FAILS(tarnctl({"env", "space", "/no/such/dir", "1"}), 3,
               "tarnctl: env space: /no/such/dir: No such file or directory");
  for (const char *bytes : {"0", "12X", "", "16777216T", "1.5G", "K"}) {
    EXPECT_FAILS(tarnctl({"env", "space", "/tmp", bytes}), 2,
                 std::string("tarnctl: env space: BYTES must be a number above 0, optionally followed by K, M, "
                             "G or T, not \"") +
                     bytes + "\"");
  }
}

TEST_F(TarnctlTest, EnvUosComparesTheMinorVersion) {
  ASSERT_TRUE(replace_with_file("/etc/os-release", "NAME=\"UOS\"\nID=uos\nVERSION_ID=20\n"));
  ASSERT_TRUE(replace_with_file("/etc/os-version", "[Version]\nMinorVersion=1040\n"));
  const Outcome lower = tarnctl({"env", "uos", "1050"});
  EXPECT_EQ(lower.status, 0) << dump(lower);
  EXPECT_EQ(lower.out, "yes\n");
  EXPECT_EQ(lower.err, "");
  const Outcome same = tarnctl({"env", "uos", "1040"});
  EXPECT_EQ(same.status, 1) << dump(same);
  EXPECT_EQ(same.out, "no\n");
  ASSERT_TRUE(replace_with_file("/etc/os-release", "ID=debian\n"));
  const Outcome other = tarnctl({"env", "uos", "1050"});
  EXPECT_EQ(other.status, 1) << dump(other);
  EXPECT_EQ(other.out, "no\n");
  EXPECT_FAILS(tarnctl({"env", "uos", "ten"}), 2,
               "tarnctl: env uos: MINOR must be a decimal number from 0 to 2147483647, not \"ten\"");
  EXPECT_FAILS(tarnctl({"env", "uos", "2147483648"}), 2,
               "tarnctl: env uos: MINOR must be a decimal number from 0 to 2147483647, not \"2147483648\"");
}

// ---------------------------------------------------------------------------
// version

TEST_F(TarnctlTest, VersionParsePrintsTheThreeNumbers) {
  const Outcome outcome = tarnctl({"version", "parse", "01.002.3rc.9"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.out, "1.2.3\n");
  EXPECT_EQ(outcome.err, "");
  for (const char *bad : {"1.2", "1..3", "1.2.x", " 1.2.3", ""}) {
    EXPECT_FAILS(tarnctl({"version", "parse", bad}), 5,
                 std::string("tarnctl: version parse: bad version string \"") + bad +
                     "\" (expected MAJOR.MINOR.PATCH, each beginning with a digit)");
  }
}

TEST_F(TarnctlTest, VersionComparePrintsTheOrderAndTheValue) {
  const struct {
    const char *first;
    const char *second;
    const char *out;
  } cases[] = {{"1.10.0", "1.9.9", "> 1\n"},
               {"1.2.3", "1.2.5", "< -2\n"},
               {"2.0.0.1", "2.0.0", "= 0\n"},
               // Fields 2^31 or more apart: compared as the unsigned numbers they are.
               {"4294967295.0.0", "0.0.0", "> 4294967295\n"},
               {"0.0.0", "0.0.4294967295", "< -4294967295\n"},
               {"1.2147483648.0", "1.0.0", "> 2147483648\n"}};
  for (const auto &c : cases) {
    const Outcome outcome = tarnctl({"version", "compare", c.first, c.second});
    EXPECT_EQ(outcome.status, 0) << dump(outcome);
    EXPECT_EQ(outcome.out, c.out) << c.first << " " << c.second;
    EXPECT_EQ(outcome.err, "");
  }
  EXPECT_FAILS(tarnctl({"version", "compare", "1.2.3", "v2"}), 5,
               "tarnctl: version compare: bad version string \"v2\" (expected MAJOR.MINOR.PATCH, each beginning "
               "with a digit)");
}

TEST_F(TarnctlTest, VersionPrintJoinsTheNumbers) {
  const Outcome outcome = tarnctl({"version", "print", "3", "0", "4294967295"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.out, "3.0.4294967295\n");
  EXPECT_FAILS(tarnctl({"version", "print", "3", "4294967296", "1"}), 2,
               "tarnctl: version print: each number must be decimal, from 0 to 4294967295, not \"4294967296\"");
  EXPECT_FAILS(tarnctl({"version", "print", "3", "x", "1"}), 2,
               "tarnctl: version print: each number must be decimal, from 0 to 4294967295, not \"x\"");
}

}  // namespace
