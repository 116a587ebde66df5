// The upgrade steps of tarn-demo: a new app home put on trial and committed
// when its service behaves, and one whose service exits at start, rolled
// back by the watchdog's beat that sees the crash loop.

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "demo.h"
#include "demo_util.h"
#include "tarn_apphome.h"
#include "tarn_upgrade.h"

namespace demo {
namespace {

constexpr const char *kGoodHome = "5e6f7a8b-9c0d-4e1f-8a2b-3c4d5e6f7a8b";
constexpr const char *kBadHome = "6f7a8b9c-0d1e-4f2a-9b3c-4d5e6f7a8b9c";
constexpr const char *kServiceConfig = "config/services/TARN/tarn_service.eni";

std::string under_root(const std::string &name) { return std::string(kInstallRoot) + "/" + name; }

// The app home the record names now.
std::string recorded_home() {
  char home[256] = {0};
  const std::string record = under_root("tarn_apphome.ini");
  const int32_t ret = tarn_apphome_get_apphome(record.c_str(), home, sizeof(home), nullptr, 0);
  expect(ret == 0, "tarn_apphome_get_apphome", ret);
  return home;
}

// Lays out an operational app home beside the recorded one, with the same
// service configuration, as an upgrader would after unpacking it.
void lay_out_home(const std::string &name, const std::string &from) {
  const std::string dir = under_root(name);
  for (const char *flag : {"flag_operational", "flag_operational_backup"}) {
    const int32_t ret = tarn_apphome_create_flag(dir.c_str(), flag);
    expect(ret == 0, format("tarn_apphome_create_flag(%s)", flag), ret);
  }
  const std::string config = dir + "/" + kServiceConfig;
  make_dirs(config.substr(0, config.rfind('/')));
  write_file(config, read_file(under_root(from) + "/" + kServiceConfig));
  printf("  laid out %s (operational, with its service configuration)\n", dir.c_str());
}

time_t config_time(const std::string &home) {
  struct stat st;
  return stat((under_root(home) + "/" + kServiceConfig).c_str(), &st) == 0 ? st.st_mtime : 0;
}

}  // namespace

// What the watchdog's beat found: "<verdict> <reason>".
std::string Heartbeats::watchdog_upgrade_check() {
  watchdog_.send("upgrade");
  const std::string text = watchdog_.read_reply_for("upgrade");
  long code = -1;
  const size_t blank = text.find(' ');
  if (blank == std::string::npos || !parse_int(text.substr(0, blank).c_str(), INT32_MIN, INT32_MAX, &code))
    fail("the watchdog answered \"upgrade " + text + "\"");
  expect(code == TARN_UPGRADE_OK, "the watchdog: tarn_upgrade_check", code);
  const std::string verdict = text.substr(blank + 1);
  printf("  watchdog beat: tarn_upgrade_check -> 0, %s\n", verdict.c_str());
  return verdict;
}

void Heartbeats::upgrade_committed() {
  stage_.heading("a new app home is put on trial, and passes",
                 "The upgrader lays out a new app home and calls tarn_upgrade_begin: the\n"
                 "journal tarn_upgrade.ini names the current app home as the fallback, and\n"
                 "the record names the new one. On each of its beats the watchdog calls\n"
                 "tarn_upgrade_check, which reads the heartbeat table: the service keeps\n"
                 "beating, so when the trial's 2 seconds have run out, it commits.");
  const std::string old_home = recorded_home();
  lay_out_home(kGoodHome, old_home);
  stage_.tarnctl({"upgrade", "begin", kGoodHome, "2"}, 0, {"on trial for 2 s"});
  stage_.tarnctl({"upgrade", "status"}, 0, {"state: trial", "previous app home: " + old_home});
  std::string verdict;
  for (int beat = 0; beat < 6 && verdict.compare(0, 6, "passed") != 0; ++beat) {
    usleep(600 * 1000);
    service_beat();
    verdict = watchdog_upgrade_check();
  }
  if (verdict.compare(0, 6, "passed") != 0) fail("the good upgrade was not committed: " + verdict);
  if (recorded_home() != kGoodHome) fail("the record does not name the committed app home");
  stage_.tarnctl({"upgrade", "status"}, 0, {"state: committed", "passed after 2 seconds"});
  printf("  the previous app home %s is still on disk: %s\n", old_home.c_str(),
         path_exists(under_root(old_home)) ? "yes" : "NO");
}

void Heartbeats::upgrade_rolled_back() {
  stage_.heading("a bad app home is put on trial: its service exits at start",
                 "The new service registers in the heartbeat table and exits at once; the\n"
                 "service manager starts it again, and again. Each start takes over the\n"
                 "service's entry. The watchdog's beat that sees the third replacement\n"
                 "within a minute rolls back at once: the record names the previous app\n"
                 "home again, and its service configuration is rewritten so that the\n"
                 "service manager starts the old service.");
  const std::string old_home = recorded_home();
  lay_out_home(kBadHome, old_home);
  stage_.tarnctl({"upgrade", "begin", kBadHome, "60"}, 0, {"on trial for 60 s"});
  watchdog_upgrade_check();
  const time_t config_before = config_time(old_home);
  sleep(1);  // the configuration's time stamp has a resolution of a second
  std::string verdict;
  for (int start = 1; start <= 3; ++start) {
    Child bad;
    bad.name = format("new service, start %d", start);
    bad.start(program_path(), {"--exiting-service"});
    const int32_t added = bad.read_code_for("add");
    const int status = bad.reap();
    printf("  the service manager starts the new service: pid %d registers (add_proc_heartbeat -> %" PRId32
           ") and exits with status %d\n",
           (int)bad.pid, added, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    verdict = watchdog_upgrade_check();
    if (start < 3 && verdict.compare(0, 7, "running") != 0) fail("rolled back too early: " + verdict);
  }
  if (verdict.compare(0, 6, "failed") != 0) fail("the crash loop was not rolled back: " + verdict);
  if (recorded_home() != old_home) fail("the record does not name the previous app home");
  printf("  the record names %s again; its service configuration was rewritten: %s\n", old_home.c_str(),
         config_time(old_home) > config_before ? "yes" : "NO");
  // The service manager starts the old service: here this process takes its
  // entry back.
  proc_heartbeat_info_t info{};
  info.pid = (int32_t)service_pid_;
  info.interval = 10;
  info.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  const int32_t slot = add_proc_heartbeat(&info);
  expect(slot >= 0, "add_proc_heartbeat (the old service again)", slot);
  service_beat();
  stage_.tarnctl({"upgrade", "status"}, 0, {"state: rolled back", "(a crash loop)"});
}

// The new service of the bad upgrade: tarn-demo --exiting-service CMD_FD REPLY_FD.
// It registers as the service, answers "add R" and exits with status 1.
int exiting_service_main(int argc, char **argv) {
  long reply_fd = -1;
  if (argc != 4 || !parse_int(argv[3], 0, INT32_MAX, &reply_fd)) return 2;
  const int32_t init = proc_heartbeat_init(1);
  proc_heartbeat_info_t info{};
  info.pid = (int32_t)getpid();
  info.interval = 10;
  info.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  const int32_t added = init == 0 ? add_proc_heartbeat(&info) : init;
  write_line((int)reply_fd, format("add %" PRId32, added));
  proc_heartbeat_deinit(false);
  return 1;
}

}  // namespace demo
