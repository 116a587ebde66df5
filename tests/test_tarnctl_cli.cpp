// tarnctl's command line as a whole: the options that every subcommand
// takes (--json, --timeout, --version), the order of its output and error
// lines, the reasons it gives, version relations, the log subcommand, and
// the manual page and shell completion made from its command table. The
// built program runs as a child in the test's sandbox; every answer is
// checked word for word, --json answers against the schemas of
// docs/tarnctl.md.

#include <gtest/gtest.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <jansson.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>

#include "child_process.h"
#include "files.h"
#include "install_root.h"
#include "installed_agent.h"
#include "manifests.h"
#include "tar_builder.h"
#include "tarnctl_run.h"

// Inside the helpers' namespace, so that they need no qualification.
namespace tarn_test {
namespace {

void drop_log_line(void *, uint32_t, const char *, size_t) {}

struct JsonFree {
  void operator()(json_t *json) const { json_decref(json); }
};
using Json = std::unique_ptr<json_t, JsonFree>;

Json parse_json(const std::string &text) {
  json_error_t error;
  return Json(json_loads(text.c_str(), 0, &error));
}

// The --json answer of subcommand, checked against its schema; null (after
// a test failure) when it is not valid.
Json checked_answer(const std::string &subcommand, const Outcome &outcome) {
  EXPECT_EQ(schema_problems(subcommand, outcome.out), "") << dump(outcome);
  EXPECT_EQ(outcome.out.back(), '\n');
  Json answer = parse_json(outcome.out);
  EXPECT_TRUE(answer) << dump(outcome);
  return answer;
}

// The JSON text of member key of object, compact, members in their order.
std::string member_text(const Json &object, const char *key) {
  json_t *member = object ? json_object_get(object.get(), key) : nullptr;
  if (member == nullptr) return "(none)";
  char *text = json_dumps(member, JSON_COMPACT | JSON_PRESERVE_ORDER | JSON_ENCODE_ANY);
  std::string copy = text;
  free(text);
  return copy;
}

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_log_register(drop_log_line, nullptr);
    clear_install_root();
  }
  ScratchDirectory scratch_{"tarnctl_cli"};
};

// ---------------------------------------------------------------------------
// Options of every subcommand

TEST_F(CliTest, VersionNamesTheToolAndTheLibraryItLoaded) {
  const Outcome outcome = tarnctl({"--version"});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  EXPECT_EQ(outcome.err, "");
  const std::vector<std::string> lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 2u) << outcome.out;
  EXPECT_EQ(lines[0], std::string("tarnctl ") + TARN_VERSION);
  const std::string prefix = std::string("libtarnaux ") + TARN_VERSION + " (";
  ASSERT_EQ(lines[1].rfind(prefix, 0), 0u) << lines[1];
  ASSERT_EQ(lines[1].back(), ')');
  const std::string library = lines[1].substr(prefix.size(), lines[1].size() - prefix.size() - 1);
  EXPECT_NE(library.find("/libtarnaux.so"), std::string::npos) << library;
  EXPECT_TRUE(exists(library)) << library;
}

TEST_F(CliTest, CommonOptionsStandBeforeOrAmongTheSubcommandsWords) {
  const std::string expected = "{\n  \"schema\": 1,\n  \"command\": \"version parse\",\n  \"ok\": true,\n"
                               "  \"version\": \"1.2.3\",\n  \"major\": 1,\n  \"minor\": 2,\n  \"patch\": 3\n}\n";
  for (const std::vector<std::string> &args :
       {std::vector<std::string>{"--json", "--timeout", "2", "version", "parse", "1.2.3"},
        std::vector<std::string>{"version", "parse", "--timeout=0.5", "1.2.3", "--json"}}) {
    const Outcome outcome = tarnctl(args);
    EXPECT_EQ(outcome.status, 0) << dump(outcome);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, expected);
  }
}

TEST_F(CliTest, TimeoutNeedsAPositiveNumberOfSeconds) {
  EXPECT_FAILS(tarnctl({"--timeout", "0", "env", "admin"}), 2,
               "tarnctl: usage: --timeout needs a number of seconds above 0, at most 86400, not \"0\"");
  EXPECT_FAILS(tarnctl({"env", "admin", "--timeout", "1e3"}), 2,
               "tarnctl: env admin: --timeout needs a number of seconds above 0, at most 86400, not \"1e3\"");
  EXPECT_FAILS(tarnctl({"env", "admin", "--timeout=86401"}), 2,
               "tarnctl: env admin: --timeout needs a number of seconds above 0, at most 86400, not \"86401\"");
  EXPECT_FAILS(tarnctl({"env", "admin", "--timeout"}), 2, "tarnctl: env admin: --timeout needs SECONDS");
  EXPECT_FAILS(tarnctl({"env", "admin", "--timeout", "-1"}), 2,
               "tarnctl: env admin: --timeout needs a number of seconds above 0, at most 86400, not \"-1\"");
}

TEST_F(CliTest, ErrorLinesFollowTheOutputTheyBelongTo) {
  const std::string manifests = scratch_ / "installed/config/component_info";
  ASSERT_TRUE(make_dirs(manifests));
  ASSERT_TRUE(seal_manifest(manifests + "/a.ejs", "{\"package\": \"alpha\", \"version\": \"1.0.0\"}"));
  ASSERT_TRUE(seal_manifest(manifests + "/b.ejs", "{\"package\": \"beta\", \"version\": \"b.1.2\"}"));
  // Standard output and error into one file, as in "2>&1 | less": a line
  // buffered in standard output would come after the error lines.
  const Outcome outcome = tarnctl({"pkg", "list", scratch_ / "installed"}, [] { return dup2(1, 2) == 2; });
  EXPECT_EQ(outcome.status, 5) << dump(outcome);
  EXPECT_EQ(outcome.out, "alpha 1.0.0\n"
                         "tarnctl: pkg list: skipped " + manifests + "/b.ejs: version string is invalid, b.1.2\n"
                         "tarnctl: pkg list: 1 of 2 manifests could not be loaded\n");
}

// ---------------------------------------------------------------------------
// version compare

TEST_F(CliTest, VersionCompareWithARelationAnswersByItsExitCode) {
  const struct {
    const char *first;
    const char *second;
    const char *holding;  // the relations that hold
  } cases[] = {{"1.2.3", "1.2.4", "lt le ne"},
               {"1.2.3", "1.2.3.9", "le eq ge"},
               {"1.10.0", "1.9.9", "ne ge gt"},
               {"4294967295.0.0", "0.0.0", "ne ge gt"},
               {"0.0.0", "0.4294967295.0", "lt le ne"}};
  for (const auto &c : cases) {
    for (const std::string relation : {"lt", "le", "eq", "ne", "ge", "gt"}) {
      const Outcome outcome = tarnctl({"version", "compare", c.first, relation, c.second});
      const bool holds = (std::string(" ") + c.holding + " ").find(" " + relation + " ") != std::string::npos;
      EXPECT_EQ(outcome.status, holds ? 0 : 1) << c.first << " " << relation << " " << c.second;
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(outcome.err, "");
    }
  }
  EXPECT_FAILS(tarnctl({"version", "compare", "1.2.3", "<", "1.2.4"}), 2,
               "tarnctl: version compare: RELATION must be lt, le, eq, ne, ge or gt, not \"<\"");
  EXPECT_FAILS(tarnctl({"version", "compare", "1.2", "lt", "1.2.4"}), 5,
               "tarnctl: version compare: bad version string \"1.2\" (expected MAJOR.MINOR.PATCH, each beginning "
               "with a digit)");
}

TEST_F(CliTest, VersionJsonAnswers) {
  const Outcome compared = tarnctl({"version", "compare", "--json", "4294967295.0.0", "0.0.0"});
  EXPECT_EQ(compared.status, 0) << dump(compared);
  Json answer = checked_answer("version compare", compared);
  EXPECT_EQ(member_text(answer, "order"), "\">\"");
  EXPECT_EQ(member_text(answer, "difference"), "4294967295");
  EXPECT_EQ(member_text(answer, "relation"), "(none)");

  const Outcome related = tarnctl({"version", "compare", "--json", "1.2.3", "ge", "1.2.4"});
  EXPECT_EQ(related.status, 1) << dump(related);
  answer = checked_answer("version compare", related);
  EXPECT_EQ(member_text(answer, "ok"), "true");
  EXPECT_EQ(member_text(answer, "holds"), "false");

  const Outcome printed = tarnctl({"version", "print", "--json", "3", "0", "7"});
  EXPECT_EQ(member_text(checked_answer("version print", printed), "version"), "\"3.0.7\"");

  const Outcome bad = tarnctl({"version", "parse", "--json", "1.x.3"});
  EXPECT_EQ(bad.status, 5);
  EXPECT_EQ(bad.err,
            "tarnctl: version parse: bad version string \"1.x.3\" (expected MAJOR.MINOR.PATCH, each beginning with "
            "a digit)\n");
  answer = checked_answer("version parse", bad);
  EXPECT_EQ(member_text(answer, "ok"), "false");
  EXPECT_EQ(member_text(answer, "error"),
            "\"bad version string \\\"1.x.3\\\" (expected MAJOR.MINOR.PATCH, each beginning with a digit)\"");
}

TEST_F(CliTest, UsageErrorsWithJsonStillAnswer) {
  const Outcome outcome = tarnctl({"--json", "version", "print", "1"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "tarnctl: version print: missing argument (usage: tarnctl version print MAJOR MINOR PATCH)\n");
  const Json answer = checked_answer("version print", outcome);
  EXPECT_EQ(member_text(answer, "ok"), "false");
}

// ---------------------------------------------------------------------------
// env

TEST_F(CliTest, EnvJsonAnswers) {
  const Outcome admin = tarnctl({"env", "admin", "--json"});
  EXPECT_EQ(admin.status, geteuid() == 0 ? 0 : 1);
  EXPECT_EQ(member_text(checked_answer("env admin", admin), "answer"), geteuid() == 0 ? "true" : "false");

  const Outcome space = tarnctl({"env", "space", "--json", "/tmp", "1"});
  EXPECT_EQ(space.status, 0) << dump(space);
  const Json answer = checked_answer("env space", space);
  EXPECT_EQ(member_text(answer, "needed"), "1");
  EXPECT_EQ(member_text(answer, "answer"), "true");

  const Outcome uos = tarnctl({"env", "uos", "--json", "20"});
  EXPECT_EQ(member_text(checked_answer("env uos", uos), "minor"), "20");
}

// ---------------------------------------------------------------------------
// pkg

class CliPkgTest : public CliTest {
 protected:
  // The archive of a package "kav_core" with one file and its manifest.
  std::string archive_bytes() {
    const std::string manifest = scratch_ / "kav_core.ejs";
    EXPECT_TRUE(seal_manifest(manifest,
                              "{\"package\": \"kav_core\", \"version\": \"3.2.17\", \"files\": [{\"name\": "
                              "\"bin/kav_core\", \"sha256\": \"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\"}]}"));
    return gzip_of(tar_of({TarMember("kav_core/bin/kav_core", "abc"),
                                                  TarMember("kav_core/config/component_info/kav_core.ejs",
                                                                       read_file(manifest)),
                                                  TarMember("kav_core/share/padding",
                                                                       noise(200000))}));
  }
};

TEST_F(CliPkgTest, UnpackOfACutArchiveGivesTheFirstReasonWithOrWithoutVerbose) {
  const std::string whole = archive_bytes();
  const std::string cut = scratch_ / "cut.tgz";
  ASSERT_TRUE(write_file(cut, whole.substr(0, whole.size() / 2)));
  const std::string expected = "tarnctl: pkg unpack: cannot unpack " + cut + ": broken archive";
  EXPECT_FAILS(tarnctl({"pkg", "unpack", cut, scratch_ / "out"}), 5, expected);

  // With --verbose the library's lines come first, as they are; the error
  // line is the same.
  const Outcome verbose = tarnctl({"--verbose", "pkg", "unpack", cut, scratch_ / "out2"});
  EXPECT_EQ(verbose.status, 5) << dump(verbose);
  const std::vector<std::string> lines = lines_of(verbose.err);
  ASSERT_GE(lines.size(), 2u) << dump(verbose);
  EXPECT_EQ(lines.back(), expected);
  for (size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_NE(lines[i].find("] [kep] ["), std::string::npos) << lines[i];

  const Outcome json = tarnctl({"pkg", "unpack", "--json", cut, scratch_ / "out3"});
  EXPECT_EQ(json.status, 5);
  EXPECT_EQ(json.err, expected + "\n");
  const Json answer = checked_answer("pkg unpack", json);
  EXPECT_EQ(member_text(answer, "error"), "\"cannot unpack " + cut + ": broken archive\"");
  EXPECT_EQ(member_text(answer, "archive"), "\"" + cut + "\"");
}

TEST_F(CliPkgTest, UnpackShowVerifyAndListAnswerInJson) {
  const std::string archive = scratch_ / "kav_core.tgz";
  ASSERT_TRUE(write_file(archive, archive_bytes()));
  const std::string dest = scratch_ / "out";
  const Outcome unpacked = tarnctl({"--json", "pkg", "unpack", archive, dest});
  EXPECT_EQ(unpacked.status, 0) << dump(unpacked);
  EXPECT_EQ(unpacked.out, "{\n  \"schema\": 1,\n  \"command\": \"pkg unpack\",\n  \"ok\": true,\n  \"archive\": \"" +
                              archive + "\",\n  \"destination\": \"" + dest + "\"\n}\n");
  checked_answer("pkg unpack", unpacked);

  const std::string package = dest + "/kav_core";
  const std::string manifest = package + "/config/component_info/kav_core.ejs";
  const Outcome shown = tarnctl({"--json", "pkg", "show", manifest});
  EXPECT_EQ(shown.status, 0) << dump(shown);
  Json answer = checked_answer("pkg show", shown);
  EXPECT_EQ(member_text(answer, "package"), "\"kav_core\"");
  EXPECT_EQ(member_text(answer, "arch"), "[]");
  EXPECT_EQ(member_text(answer, "files"),
            "[{\"name\":\"bin/kav_core\",\"sha256\":\"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\"}]");

  const Outcome verified = tarnctl({"--json", "pkg", "verify", package});
  EXPECT_EQ(verified.status, 0) << dump(verified);
  answer = checked_answer("pkg verify", verified);
  EXPECT_EQ(member_text(answer, "problems"), "0");
  ASSERT_TRUE(write_file(package + "/bin/kav_core", "abd"));
  const Outcome differs = tarnctl({"--json", "pkg", "verify", package});
  EXPECT_EQ(differs.status, 1) << dump(differs);
  EXPECT_EQ(differs.err, "tarnctl: pkg verify: differs bin/kav_core\n");
  answer = checked_answer("pkg verify", differs);
  EXPECT_EQ(member_text(answer, "reported"), "[\"differs bin/kav_core\"]");

  const Outcome listed = tarnctl({"--json", "pkg", "list", package});
  EXPECT_EQ(listed.status, 0) << dump(listed);
  answer = checked_answer("pkg list", listed);
  EXPECT_EQ(member_text(answer, "packages"), "[{\"name\":\"kav_core\",\"version\":\"3.2.17\"}]");
  EXPECT_EQ(member_text(answer, "skipped"), "[]");
}

TEST_F(CliPkgTest, ListGivesEachSkippedManifestsReason) {
  const std::string dir = scratch_ / "installed";
  const std::string manifests = dir + "/config/component_info";
  ASSERT_TRUE(make_dirs(manifests));
  ASSERT_TRUE(seal_manifest(manifests + "/a.ejs", "{\"package\": \"alpha\", \"version\": \"1.0.0\"}"));
  ASSERT_TRUE(seal_manifest(manifests + "/b.ejs", "{\"package\": \"beta\", \"version\": 2}"));
  ASSERT_TRUE(seal_manifest(manifests + "/c.ejs", "{\"version\": \"3.0.0\"}"));
  ASSERT_TRUE(seal_manifest(manifests + "/d.ejs", "{\"package\": \"delta\", \"version\": \".1.2\"}"));
  const Outcome outcome = tarnctl({"pkg", "list", "--json", dir});
  EXPECT_EQ(outcome.status, 5) << dump(outcome);
  EXPECT_EQ(lines_of(outcome.err),
            (std::vector<std::string>{
                "tarnctl: pkg list: skipped " + manifests + "/b.ejs: get package version failed, ejs file is " +
                    manifests + "/b.ejs",
                "tarnctl: pkg list: skipped " + manifests + "/c.ejs: no \"package\" string",
                "tarnctl: pkg list: skipped " + manifests + "/d.ejs: version string is invalid, .1.2",
                "tarnctl: pkg list: 3 of 4 manifests could not be loaded"}));
  const Json answer = checked_answer("pkg list", outcome);
  EXPECT_EQ(member_text(answer, "error"), "\"3 of 4 manifests could not be loaded\"");
  EXPECT_EQ(member_text(answer, "manifests"), "4");
  EXPECT_EQ(member_text(answer, "skipped"),
            "[{\"manifest\":\"" + manifests + "/b.ejs\",\"reason\":\"get package version failed, ejs file is " +
                manifests + "/b.ejs\"},{\"manifest\":\"" + manifests +
                "/c.ejs\",\"reason\":\"no \\\"package\\\" string\"},{\"manifest\":\"" + manifests +
                "/d.ejs\",\"reason\":\"version string is invalid, .1.2\"}]");
}

TEST_F(CliPkgTest, ShowGivesTheLibrarysReasonForAManifestItRefuses) {
  const std::string manifest = scratch_ / "nofiles.ejs";
  ASSERT_TRUE(seal_manifest(manifest, "{\"package\": \"p\", \"version\": \"1.x.0\", \"files\": [{\"name\": \"a\", "
                                      "\"sha256\": \"00\"}]}"));
  EXPECT_FAILS(tarnctl({"pkg", "show", manifest}), 5,
               "tarnctl: pkg show: " + manifest +
                   ": not a component manifest (it needs the strings \"package\" and \"version\", a valid version "
                   "and a non-empty \"files\" list): version string is invalid, 1.x.0");
  const Outcome json = tarnctl({"pkg", "show", "--json", scratch_ / "none.ejs"});
  EXPECT_EQ(json.status, 3);
  EXPECT_EQ(member_text(checked_answer("pkg show", json), "error"),
            "\"" + (scratch_ / "none.ejs") + ": No such file or directory\"");
}

// ---------------------------------------------------------------------------
// apphome and --timeout


// Whether the process pid has ended (gone, or a zombie that no one reaped).
// Whether the process pid, running `command` (its argv joined by NULs),
// ends within 10 s: a process killed with SIGKILL ends soon after kill()
// returns, not at once. Other tests' processes may be given the pid once
// it has ended, so the process is held by a pidfd and checked to be the
// one that ran command.
bool ends_soon(pid_t pid, const std::string &command) {
  const int fd = tarn_process_open(pid);
  if (fd < 0) return errno == ESRCH;
  const std::string running = read_file("/proc/" + std::to_string(pid) + "/cmdline");
  bool ended = running != command;
  if (!ended) {
    struct pollfd exited = {fd, POLLIN, 0};
    ended = poll(&exited, 1, 10000) == 1;
  }
  close(fd);
  return ended;
}

TEST_F(CliTest, RestoreEndsWithExitFourWhenTheRecordsLockStaysHeld) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kBackupPath, record_text(kHomeA)));
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeB)));
  ForeignLock lock(kRecordLockPath);
  ASSERT_TRUE(lock.held());
  const int64_t start = monotonic_ms();
  EXPECT_FAILS(tarnctl({"apphome", "restore", "--timeout", "0.5"}), 4,
               "tarnctl: apphome restore: timed out after 0.5 s: the record's lock could not be taken");
  // Bounded by the time-out, not by the library's own wait (30 s).
  EXPECT_LT(monotonic_ms() - start, 10000);
  EXPECT_EQ(read_file(kRecordPath), record_text(kHomeB));

  const Outcome json = tarnctl({"--timeout", "0.2", "--json", "apphome", "restore"});
  EXPECT_EQ(json.status, 4);
  EXPECT_EQ(member_text(checked_answer("apphome restore", json), "error"),
            "\"timed out after 0.2 s: the record's lock could not be taken\"");
  lock.release();
  const Outcome restored = tarnctl({"--json", "apphome", "restore"});
  EXPECT_EQ(restored.status, 0) << dump(restored);
  EXPECT_EQ(member_text(checked_answer("apphome restore", restored), "app_home"), std::string("\"") + kHomeA + "\"");
}

TEST_F(CliTest, ReduceEndsWithExitFourWhenTheServiceDoesNotAnswer) {
  const std::string pid_file = scratch_ / "service.pid";
  install_agent(kHomeB, "echo $$ > " + pid_file + "\nexec sleep 100000");
  EXPECT_FAILS(tarnctl({"--timeout", "1", "apphome", "reduce"}), 4,
               "tarnctl: apphome reduce: timed out after 1 s: the record's lock is held or tarn_service -v does "
               "not answer");
  // The service that did not answer was ended with the subcommand.
  const std::string pid_text = read_file(pid_file);
  ASSERT_FALSE(pid_text.empty());
  EXPECT_TRUE(ends_soon((pid_t)atoi(pid_text.c_str()), std::string("sleep\0" "100000\0", 13))) << pid_text;
  EXPECT_FALSE(exists(kRecordPath));
}

TEST_F(CliTest, ReduceEndsWithExitFourWhenTheRecordsLockStaysHeld) {
  install_agent(kHomeB);
  ForeignLock lock(kRecordLockPath);
  ASSERT_TRUE(lock.held());
  EXPECT_FAILS(tarnctl({"apphome", "reduce", "--timeout", "0.5"}), 4,
               "tarnctl: apphome reduce: timed out after 0.5 s: the record's lock is held or tarn_service -v does "
               "not answer");
  lock.release();
  const Outcome reduced = tarnctl({"apphome", "reduce", "--json"});
  EXPECT_EQ(reduced.status, 0) << dump(reduced);
  const Json answer = checked_answer("apphome reduce", reduced);
  EXPECT_EQ(member_text(answer, "how"), "\"rebuilt from the directories\"");
  EXPECT_EQ(member_text(answer, "app_home"), std::string("\"") + kHomeB + "\"");
}

TEST_F(CliTest, ApphomeShowAndCheckAnswerInJson) {
  make_apphome(kHomeA, true, false);
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA) + "upgrade_lock_count=2\n"));
  const Outcome shown = tarnctl({"apphome", "show", "--json"});
  EXPECT_EQ(shown.status, 3) << dump(shown);
  EXPECT_EQ(shown.err, std::string("tarnctl: apphome show: backup ") + kBackupPath + ": No such file or directory\n");
  const Json answer = checked_answer("apphome show", shown);
  EXPECT_EQ(member_text(answer, "record"),
            std::string("{\"path\":\"") + kRecordPath + "\",\"sections\":{\"apphome\":{\"app_home\":\"" + kHomeA +
                "\",\"upgrade_lock_count\":\"2\"}},\"app_home\":\"" + under_root(kHomeA) + "\"}");
  EXPECT_EQ(member_text(answer, "backup"),
            std::string("{\"path\":\"") + kBackupPath + "\",\"problem\":\"No such file or directory\"}");

  const Outcome checked = tarnctl({"apphome", "check", "--json"});
  EXPECT_EQ(checked.status, 0) << dump(checked);
  EXPECT_EQ(member_text(checked_answer("apphome check", checked), "app_home"), "\"" + under_root(kHomeA) + "\"");
  const Outcome backup = tarnctl({"apphome", "check", "--backup", "--json"});
  EXPECT_EQ(backup.status, 3);
  EXPECT_EQ(member_text(checked_answer("apphome check", backup), "valid"), "false");
}

// ---------------------------------------------------------------------------
// log

class LogTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    ASSERT_TRUE(config_.ok());
    ASSERT_TRUE(make_dirs(agent_));
  }
  const std::string log_dir_ = scratch_ / "logs";
  BaseConfigFile config_{"[log]\ndir = " + log_dir_ + "\n"};
  const std::string root_ = log_dir_ + "/velmora/TARN3_LOG/tarn_default_autolog/";
  const std::string agent_ = root_ + "agent";
};

TEST_F(LogTest, ListsTheProcessesAndPrintsALogOldestFileFirst) {
  ASSERT_TRUE(make_dirs(root_ + "another"));
  ASSERT_TRUE(write_file(root_ + "not-a-directory", ""));
  const Outcome listed = tarnctl({"log"});
  EXPECT_EQ(listed.status, 0) << dump(listed);
  EXPECT_EQ(listed.out, "agent " + root_ + "agent/\nanother " + root_ + "another/\n");

  ASSERT_TRUE(write_file(agent_ + "/tarn.log.2", "oldest\n"));
  ASSERT_TRUE(write_file(agent_ + "/tarn.log.1", "older\n"));
  ASSERT_TRUE(write_file(agent_ + "/tarn.log", "newest\n"));
  ASSERT_TRUE(write_file(agent_ + "/tarn.log.lock", "not a log\n"));
  const Outcome shown = tarnctl({"log", "agent"});
  EXPECT_EQ(shown.status, 0) << dump(shown);
  EXPECT_EQ(shown.err, "");
  EXPECT_EQ(shown.out, "oldest\nolder\nnewest\n");

  const Outcome json = tarnctl({"log", "--json", "agent"});
  const Json answer = checked_answer("log", json);
  EXPECT_EQ(member_text(answer, "files"),
            "[\"" + agent_ + "/tarn.log.2\",\"" + agent_ + "/tarn.log.1\",\"" + agent_ + "/tarn.log\"]");
  EXPECT_EQ(member_text(answer, "text"), "\"oldest\\nolder\\nnewest\\n\"");
  checked_answer("log", tarnctl({"log", "--json"}));

  EXPECT_FAILS(tarnctl({"log", "nobody"}), 3, "tarnctl: log: " + root_ + "nobody/: no log of nobody");
  EXPECT_FAILS(tarnctl({"log", ".."}), 2, "tarnctl: log: PROCESS must be a program's name, not \"..\"");
  EXPECT_FAILS(tarnctl({"log", "-f", "--json", "agent"}), 2, "tarnctl: log: -f cannot be combined with --json");
}

// Appends text to the file at path.
bool append_file(const std::string &path, const std::string &text) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == (ssize_t)text.size();
  close(fd);
  return written;
}

// Reads from fd until the text read ends with expected; false at end of
// input or after 20 s without it (the test then fails instead of hanging).
bool read_until(int fd, std::string *text, const std::string &expected) {
  const int64_t deadline = monotonic_ms() + 20000;
  while (text->size() < expected.size() || text->compare(text->size() - expected.size(), expected.size(), expected) != 0) {
    const int64_t now = monotonic_ms();
    if (now >= deadline) return false;
    struct pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, (int)(deadline - now)) <= 0) continue;
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got <= 0) return false;
    text->append(buffer, (size_t)got);
  }
  return true;
}

TEST_F(LogTest, FollowPrintsAddedLinesAlsoAcrossARotation) {
  ASSERT_TRUE(write_file(agent_ + "/tarn.log", "first\n"));
  Pipe out;
  const pid_t pid = fork_child([&] {
    out.close_read();
    if (dup2(out.write_fd(), STDOUT_FILENO) < 0) return 125;
    execl(TARNCTL_PATH, TARNCTL_PATH, "log", "-f", "agent", (char *)nullptr);
    return 127;
  });
  out.close_write();
  std::string text;
  EXPECT_TRUE(read_until(out.read_fd(), &text, "first\n")) << text;
  ASSERT_TRUE(append_file(agent_ + "/tarn.log", "second\n"));
  EXPECT_TRUE(read_until(out.read_fd(), &text, "second\n")) << text;
  // Rotated as the base library rotates: the file renamed, a new one begun.
  ASSERT_TRUE(append_file(agent_ + "/tarn.log", "third\n"));
  std::filesystem::rename(agent_ + "/tarn.log", agent_ + "/tarn.log.1");
  ASSERT_TRUE(write_file(agent_ + "/tarn.log", "fourth\n"));
  EXPECT_TRUE(read_until(out.read_fd(), &text, "fourth\n")) << text;
  EXPECT_EQ(text, "first\nsecond\nthird\nfourth\n");
  kill_and_reap(pid);
}

// ---------------------------------------------------------------------------
// Manual page and completion

const std::vector<std::string> kSubcommands = {
    "status",  "apphome show", "apphome check", "apphome restore", "apphome reduce",  "pkg list",
    "pkg unpack", "pkg show", "pkg verify",  "env admin",       "env space",       "env uos",
    "version parse", "version compare", "version print", "log"};

// Renders the manual page text of program with groff, warnings on, and
// reads its NAME line as lexgrog (mandb) does.
void expect_renders_cleanly(const ScratchDirectory &scratch, const std::string &program, const std::string &text,
                            const std::string &whatis) {
  const std::string page = scratch / (program + ".1");
  ASSERT_TRUE(write_file(page, text));
  const Outcome rendered = run_program({"groff", "-man", "-Tutf8", "-ww", "-z", page});
  EXPECT_EQ(rendered.status, 0) << dump(rendered);
  EXPECT_EQ(rendered.err, "");
  const Outcome name = run_program({"lexgrog", page});
  EXPECT_EQ(name.status, 0) << dump(name);
  EXPECT_EQ(name.out, page + ": \"" + program + " - " + whatis + "\"\n");
}

TEST_F(CliTest, ManualPageListsEverySubcommandAndOptionAndRendersCleanly) {
  const Outcome man = tarnctl({"--print-man"});
  EXPECT_EQ(man.status, 0) << dump(man);
  for (const std::string &command : kSubcommands) {
    EXPECT_NE(man.out.find(".SS " + command + "\n"), std::string::npos) << command;
  }
  for (const char *option : {"\\-\\-help", "\\-\\-verbose", "\\-\\-json", "\\-\\-timeout", "\\-\\-version",
                             "\\-\\-backup", "\\-\\-system\\-tar", "\\-f"}) {
    EXPECT_NE(man.out.find(option), std::string::npos) << option;
  }
  expect_renders_cleanly(scratch_, "tarnctl", man.out, "show and check the agent's shared state through libtarnaux");

  const Outcome ejs = run_program({TARN_EJS_PATH, "--print-man"});
  EXPECT_EQ(ejs.status, 0) << dump(ejs);
  for (const char *command : {"keygen", "sign", "verify", "inspect", "unpack", "convert"}) {
    EXPECT_NE(ejs.out.find(std::string(".TP\n.B ") + command + " "), std::string::npos) << command;
  }
  EXPECT_NE(ejs.out.find("\\-\\-keys DIR"), std::string::npos);
  EXPECT_NE(ejs.out.find("\\-\\-key SECRET"), std::string::npos);
  expect_renders_cleanly(scratch_, "tarn-ejs", ejs.out, "make, read and check protected JSON files (.ejs)");
}

// The words that bash's completion of program (whose completion function
// is function) offers after words.
std::vector<std::string> completions(const std::string &script, const std::vector<std::string> &words,
                                     const std::string &program = "tarnctl", const std::string &function = "_tarnctl") {
  std::string array;
  for (const std::string &word : words) array += " '" + word + "'";
  const Outcome outcome =
      run_program({"bash", "--norc", "--noprofile", "-c",
                   "source '" + script + "' && COMP_WORDS=(" + program + array + ") && COMP_CWORD=" +
                       std::to_string(words.size()) + " && " + function + " && printf '%s\\n' \"${COMPREPLY[@]}\""});
  EXPECT_EQ(outcome.status, 0) << dump(outcome);
  return lines_of(outcome.out);
}

TEST_F(CliTest, CompletionOffersSubcommandsAndTheirOptions) {
  const Outcome completion = tarnctl({"--print-completion"});
  EXPECT_EQ(completion.status, 0) << dump(completion);
  const std::string script = scratch_ / "tarnctl.bash";
  ASSERT_TRUE(write_file(script, completion.out));
  EXPECT_EQ(completions(script, {""}),
            (std::vector<std::string>{"--help", "--verbose", "--json", "--timeout", "--version", "status", "doctor",
                                      "metrics", "apphome", "pkg", "env", "version", "log", "upgrade"}));
  EXPECT_EQ(completions(script, {"status", "--"}),
            (std::vector<std::string>{"--help", "--verbose", "--json", "--timeout", "--max-age", "--watch"}));
  EXPECT_EQ(completions(script, {"ap"}), (std::vector<std::string>{"apphome"}));
  EXPECT_EQ(completions(script, {"apphome", ""}),
            (std::vector<std::string>{"show", "check", "restore", "reduce"}));
  EXPECT_EQ(completions(script, {"--json", "version", "c"}), (std::vector<std::string>{"compare"}));
  EXPECT_EQ(completions(script, {"apphome", "check", "--b"}), (std::vector<std::string>{"--backup"}));
  EXPECT_EQ(completions(script, {"--timeout", "3", "pkg", "unpack", "--s"}),
            (std::vector<std::string>{"--system-tar"}));
  ASSERT_TRUE(write_file(scratch_ / "archive.tgz", ""));
  EXPECT_EQ(completions(script, {"pkg", "unpack", scratch_ / "arch"}),
            (std::vector<std::string>{scratch_ / "archive.tgz"}));
}

TEST_F(CliTest, TarnEjsCompletionOffersItsSubcommandsAndOptions) {
  const Outcome completion = run_program({TARN_EJS_PATH, "--print-completion"});
  EXPECT_EQ(completion.status, 0) << dump(completion);
  const std::string script = scratch_ / "tarn-ejs.bash";
  ASSERT_TRUE(write_file(script, completion.out));
  const auto offered = [&](const std::vector<std::string> &words) {
    return completions(script, words, "tarn-ejs", "_tarn_ejs");
  };
  EXPECT_EQ(offered({""}),
            (std::vector<std::string>{"--help", "keygen", "sign", "verify", "inspect", "unpack", "convert"}));
  EXPECT_EQ(offered({"sign", "-"}), (std::vector<std::string>{"--key"}));
  EXPECT_EQ(offered({"verify", "--k"}), (std::vector<std::string>{"--keys"}));
  ASSERT_TRUE(write_file(scratch_ / "secret.key", ""));
  EXPECT_EQ(offered({"sign", "--key", scratch_ / "sec"}), (std::vector<std::string>{scratch_ / "secret.key"}));
}

}  // namespace
}  // namespace tarn_test
