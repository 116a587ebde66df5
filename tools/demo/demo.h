// demo.h -- the parts of tarn-demo: the stage (headings and the operator
// tool), the heartbeat table's cast of processes, and the installer.
#ifndef TARN_DEMO_H
#define TARN_DEMO_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "com_info.h"
#include "demo_child.h"
#include "tarn_heartbeat.h"

namespace demo {

constexpr const char *kProgram = "tarn-demo";
constexpr const char *kInstallRoot = "/usr/share/velmora/TARN";

// "-4 (wait to timeout)" for a heartbeat result code; positive codes are
// errno values and get their system text as well.
std::string describe_heartbeat(int32_t code);

// Fails the run with "<call> returned <code>" unless ok.
void expect(bool ok, const std::string &call, long code);

// What every step shares: numbered headings, and the operator tool.
class Stage {
 public:
  explicit Stage(int steps) : steps_(steps) {}

  // Finds tarnctl beside this program: in the build tree it is
  // ../tarnctl/tarnctl from tools/demo, once installed it is in the same bin
  // directory.
  void find_tarnctl();
  const std::string &tarnctl_path() const { return tarnctl_; }

  // "Step N of M: title", underlined, then why the step is there.
  void heading(const std::string &title, const std::string &why);

  // Runs "tarnctl args...", prints the command and its output, and fails
  // the run unless it exits with expected_exit and its output holds every
  // text of must_show. Returns the output.
  std::string tarnctl(const std::vector<std::string> &args, int expected_exit,
                      const std::vector<std::string> &must_show = {});

 private:
  int step_ = 0;
  int steps_;
  std::string tarnctl_;
};

// A worker process of the demo (this program started with --worker).
struct Worker {
  Child process;
  int number = 0;
  uint32_t type = 0;
  uint32_t interval = 0;
  uint32_t mode = 0;
  bool killed = false;
  bool stalled = false;
};

constexpr int kWorkerCount = 4;

// The heartbeat table: this process plays the service, four workers and
// the watchdog are processes of their own.
class Heartbeats {
 public:
  Heartbeats(Stage &stage, bool quick) : stage_(stage), quick_(quick) {}

  void service_starts();
  void workers_register();
  void workers_beat();
  void watchdog_joins();
  void worker_killed();
  void worker_stalls();
  // The upgrade steps (demo_upgrade.cpp): one committed, one rolled back.
  void upgrade_committed();
  void upgrade_rolled_back();
  void shutdown();
  // After a failure: ends every child and removes the table.
  void abandon();

 private:
  Stage &stage_;
  bool quick_;
  pid_t service_pid_ = 0;
  bool initialised_ = false;
  Worker workers_[kWorkerCount];
  Child watchdog_;

  Worker &worker(int number) { return workers_[number - 1]; }
  std::string role_of(int32_t pid) const;
  void print_entries(const proc_heartbeat_info *entries, int32_t count);
  std::vector<proc_heartbeat_info> print_table(const std::string &title);
  int32_t occupied_slots();
  void start_worker(Worker &w);
  void service_beat();
  bool worker_beat(Worker &w);
  void beat_everyone();
  int32_t watchdog_check(int32_t threshold, bool *timed_out);
  std::string watchdog_upgrade_check();
  void leave(Worker &w);
};

// The worker role: tarn-demo --worker NUMBER TYPE INTERVAL MODE CMD_FD REPLY_FD.
int worker_main(int argc, char **argv);

// The bad upgrade's new service: tarn-demo --exiting-service CMD_FD REPLY_FD.
int exiting_service_main(int argc, char **argv);

// An installer run, then the loss of the app home record and its rebuilding.
class Installer {
 public:
  explicit Installer(Stage &stage) : stage_(stage) {}
  ~Installer();
  Installer(const Installer &) = delete;
  Installer &operator=(const Installer &) = delete;

  void check_environment();
  void build_package();
  void unpack_package();
  void record_apphome();
  void install_service();
  void rebuild_record();

 private:
  Stage &stage_;
  std::string arch_;          // the machine's architecture, as the library names it
  std::string archive_;       // the package
  std::string unpacked_;      // its unpacked directory (the unpack cache)
  com_info_var manifest_{};   // its manifest, loaded
  std::string apphome_name_;  // the new app home's name
  std::string apphome_;       // and its path
  std::string secret_key_;    // the publisher's secret key file, once made

  std::string record_path() const;
  std::string backup_path() const;
  void sign_manifest(const std::string &path, const std::string &version,
                     const std::vector<std::pair<std::string, std::string>> &files);
  const std::string &publisher_key();
  void show_tampered_copies_refused();
  void keep_backup_copy();
  void install_files();
  void expect_valid(const std::string &ini_path);
  void show_record();
  void leave_old_apphome();
  std::string recorded_apphome(const std::string &ini_path);
};

}  // namespace demo

#endif
