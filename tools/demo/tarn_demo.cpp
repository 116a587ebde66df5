// tarn-demo -- the life of the agent, step by step, for people who support
// it and want to see what the library does at each moment: the service,
// its workers and the watchdog sharing the heartbeat table; an installer
// run that checks the machine, unpacks a component package, lays out and
// records the app home and installs a service configuration; and the app
// home record lost and rebuilt. The operator tool tarnctl shows the same
// state as a support engineer would see it.
//
// The program plays the service and the installer itself; workers (this
// program with --worker) and the watchdog (tarn-demo-watchdog) are
// processes of their own. Everything runs inside a private sandbox
// (tarn_sandbox_enter), entered before anything else, so the table, its
// lock, the install root, the configuration file and the library's log
// files exist only for the run and the host is not touched.
//
// The parts live in demo_heartbeat.cpp and demo_installer.cpp; every
// library call's result is checked, and the first one that is not what the
// demo expects ends the run with exit status 1.

#include <errno.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "demo.h"
#include "demo_util.h"
#include "sandbox.h"

namespace demo {

std::string describe_heartbeat(int32_t code) {
  std::string text = format("%" PRId32 " (%s", code, get_heartbeat_errmsg(code));
  if (code > 0) text += format(": %s", strerror(code));
  return text + ")";
}

void expect(bool ok, const std::string &call, long code) {
  if (!ok) fail(call + format(" returned %ld", code));
}

void Stage::find_tarnctl() {
  const std::string dir = dir_of(program_path());
  for (const std::string &candidate : {dir + "/../tarnctl/tarnctl", dir + "/tarnctl"}) {
    if (access(candidate.c_str(), X_OK) == 0) {
      tarnctl_ = candidate;
      return;
    }
  }
  fail("tarnctl is neither in " + dir + "/../tarnctl nor in " + dir +
       " (build the tarnctl target)");
}

void Stage::heading(const std::string &title, const std::string &why) {
  const std::string text = format("Step %d of %d: %s", ++step_, steps_, title.c_str());
  printf("\n%s\n%s\n", text.c_str(), std::string(text.size(), '=').c_str());
  print_indented(why, "  ");
  printf("\n");
}

std::string Stage::tarnctl(const std::vector<std::string> &args, int expected_exit,
                           const std::vector<std::string> &must_show) {
  std::string shown = "tarnctl";
  for (const std::string &arg : args) shown += " " + arg;
  std::vector<std::string> argv = {tarnctl_};
  argv.insert(argv.end(), args.begin(), args.end());
  const ProgramRun run = run_program(argv);
  printf("  $ %s    (exit status %d)\n", shown.c_str(), run.exit_status);
  print_indented(run.output);
  if (run.exit_status != expected_exit)
    fail(shown + format(" exited with %d instead of %d", run.exit_status, expected_exit));
  for (const std::string &text : must_show)
    if (run.output.find(text) == std::string::npos) fail(shown + " did not print \"" + text + "\"");
  return run.output;
}

}  // namespace demo

namespace {

using namespace demo;

constexpr const char *kConfigPath = "/etc/velmora/tarnbase.conf";
constexpr const char *kConfigText = "[log]\nlevel = 2\n";
// The library's default log destination below the base library's default
// log directory (the configuration names none); the last component is the
// program's executable name.
constexpr const char *kAutologDir = "/var/log/velmora/TARN3_LOG/tarn_default_autolog";
constexpr int kSteps = 15;
constexpr size_t kLogTailLines = 12;

std::string log_file_of(const std::string &program) {
  return std::string(kAutologDir) + "/" + program + "/tarn.log";
}

void introduce(bool quick, const Stage &stage) {
  const std::string program = program_path();
  printf("%s: the life of the agent's processes and its installer, step by step\n\n", kProgram);
  printf(
      "  sandbox        private mount namespace: fresh /dev/shm and install root\n"
      "                 %s, private /etc, /var, /usr/share and /tmp;\n"
      "                 all of it vanishes when the demo ends\n",
      kInstallRoot);
  printf("  configuration  %s: log level 2 (info; beats log at debug)\n", kConfigPath);
  printf("  library log    %s\n", log_file_of(program.substr(program.rfind('/') + 1)).c_str());
  printf(
      "  processes      this process plays the service and the installer; four workers\n"
      "                 and the watchdog are processes of their own\n");
  printf("  operator tool  %s\n", stage.tarnctl_path().c_str());
  if (quick) printf("  --quick        step 6 (the 60-second timeout scan) is skipped\n");
}

// The log files vanish with the sandbox, so their interesting lines are
// shown here: every warning, then the last few lines.
void show_log(const std::string &title, const std::string &path, size_t tail) {
  const std::string underline(title.size(), '=');
  printf("\n%s\n%s\n  %s\n", title.c_str(), underline.c_str(), path.c_str());
  if (!path_exists(path)) {
    printf(
        "  (it is not there; when the library cannot create its log file, it writes\n"
        "  its lines to standard error instead)\n");
    return;
  }
  const std::string text = read_file(path);
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  std::vector<const std::string *> warnings;
  for (const std::string &l : lines)
    if (l.find("] [warn] [") != std::string::npos || l.find("] [error] [") != std::string::npos ||
        l.find("] [fatal] [") != std::string::npos)
      warnings.push_back(&l);
  printf("  %zu lines; %zu at warn or above:\n", lines.size(), warnings.size());
  for (const std::string *l : warnings) printf("    %s\n", l->c_str());
  const size_t first = lines.size() > tail ? lines.size() - tail : 0;
  printf("  the last %zu lines:\n", lines.size() - first);
  for (size_t i = first; i < lines.size(); ++i) printf("    %s\n", lines[i].c_str());
}

void run(bool quick, Stage &stage, Heartbeats &heartbeats, Installer &installer) {
  stage.find_tarnctl();
  make_dirs("/etc/velmora");
  write_file(kConfigPath, kConfigText);
  introduce(quick, stage);

  heartbeats.service_starts();
  heartbeats.workers_register();
  heartbeats.workers_beat();
  heartbeats.watchdog_joins();
  heartbeats.worker_killed();
  heartbeats.worker_stalls();

  installer.check_environment();
  installer.build_package();
  installer.unpack_package();
  installer.record_apphome();
  installer.install_service();
  installer.rebuild_record();

  heartbeats.upgrade_committed();
  heartbeats.upgrade_rolled_back();
  heartbeats.shutdown();

  const std::string program = program_path();
  show_log("Library log of the service, the installer and the workers",
           log_file_of(program.substr(program.rfind('/') + 1)), kLogTailLines);
  show_log("Library log of the watchdog", log_file_of("tarn-demo-watchdog"), kLogTailLines);
}

void usage(FILE *to) {
  fprintf(to,
          "usage: %s [--quick] [--help]\n"
          "\n"
          "Shows libtarnaux at work through the life of the agent. This process plays\n"
          "the service and the installer; four workers and the watchdog are processes\n"
          "of their own. The operator tool tarnctl (found beside this program) shows\n"
          "the same state as a support engineer sees it.\n"
          "   1  the service creates the heartbeat table and registers itself\n"
          "   2  four workers attach and register\n"
          "   3  the workers beat\n"
          "   4  the watchdog adds its slot and checks it; tarnctl status\n"
          "   5  a worker is killed with SIGKILL; the service's next beat clears its entry\n"
          "   6  a worker stalls; the demo waits until the timeout scan lists it\n"
          "      (the scan's threshold is at least 60 s, so this step takes a minute)\n"
          "   7  the installer checks the machine (administrator, room, UOS rule)\n"
          "   8  a component package is made: files, a sealed manifest, a .tgz\n"
          "   9  the installer unpacks it, loads its manifest and checks its files\n"
          "  10  the installer lays out the app home and records it\n"
          "  11  the installer installs the service's configuration\n"
          "  12  the record and its backup are lost; reduction rebuilds them\n"
          "  13  a new app home is put on trial; the watchdog's beats commit it\n"
          "  14  a new app home whose service exits at start is rolled back by the\n"
          "      watchdog's beat that sees the crash loop\n"
          "  15  the processes stop; the service removes the table\n"
          "At the end it shows the warnings and the last lines of the library's logs.\n"
          "\n"
          "Everything happens in a private sandbox (a mount namespace of its own with a\n"
          "fresh /dev/shm and install root, and private /etc, /var, /usr/share and\n"
          "/tmp), which vanishes when the demo ends; nothing on the host is changed.\n"
          "Run it as root, or as a user where unprivileged user namespaces are allowed.\n"
          "\n"
          "options:\n"
          "  --quick   skip step 6, so that the demo ends within a few seconds\n"
          "  --help    show this text\n"
          "\n"
          "Exit status: 0 when every step gave the expected result; 1 otherwise, after\n"
          "a message naming the call and its result; 2 for a usage error.\n",
          kProgram);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && strcmp(argv[1], "--worker") == 0) return worker_main(argc, argv);
  if (argc >= 2 && strcmp(argv[1], "--exiting-service") == 0) return exiting_service_main(argc, argv);

  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--quick") == 0) {
      quick = true;
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
  // A child that dies leaves a pipe without reader; that is reported as an
  // error of the write, not as a signal.
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  Stage stage(kSteps);
  Heartbeats heartbeats(stage, quick);
  Installer installer(stage);
  try {
    run(quick, stage, heartbeats, installer);
  } catch (const Failure &failure) {
    fflush(stdout);
    fprintf(stderr, "\n%s: FAILED: %s\n", kProgram, failure.what());
    heartbeats.abandon();
    return 1;
  }
  printf("\n%s: all steps gave the expected results\n", kProgram);
  return 0;
}
