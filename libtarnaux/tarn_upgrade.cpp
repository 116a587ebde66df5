// Upgrades on trial: the journal beside the app home record, the verdict
// read from the heartbeat table, commit and rollback.
//
// Every change is a step between two durable states of the journal, and the
// record is changed only through tarn_apphome_update, which is idempotent:
// a process killed anywhere leaves a journal that names the step under way
// ("starting", "rolling back"), and the next operation simply does that
// step again from its start.

#include "tarn_upgrade.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"
#include "tarn_heartbeat.h"
#include "tarn_process_control.h"

namespace {

constexpr char kJournalName[] = "tarn_upgrade.ini";
constexpr char kOperationLockName[] = "tarn_upgrade.lock";
constexpr char kSection[] = "upgrade";
constexpr char kBootIdPath[] = "/proc/sys/kernel/random/boot_id";
constexpr uint64_t kCrashLoopWindowMs = 60000;
constexpr char kRolledBackByRequest[] = "rolled back by request";

const char *const kStateTexts[] = {"none",         "starting",  "trial",      "rolling back",
                                   "committed",    "rolled back", "unreadable"};
const char *const kVerdictTexts[] = {"none", "running", "passed", "failed"};

std::string install_path(const char *name) {
  char root[TARN_PATH_BUFFER_SIZE];
  memset(root, 0, sizeof(root));
  get_tarn_path(root, sizeof(root));
  return std::string(root) + "/" + name;
}

// This boot's id, "" when it cannot be read: a trial then never sees a
// restart, which is the safe side (no spurious rollback). A restart of the
// machine ends every process, so the id is read once per process (again in
// a forked child, which is a process of its own): the watchdog's beat then
// costs no file read for it.
std::string current_boot_id() {
  static std::mutex mutex;
  static int read_by = 0;
  static std::string cached;
  const int pid = tarn_process_get_pid();
  std::lock_guard<std::mutex> guard(mutex);
  if (read_by == pid) return cached;
  char text[64];
  const int fd = open(kBootIdPath, O_RDONLY | O_CLOEXEC);
  const ssize_t length = fd < 0 ? -1 : read(fd, text, sizeof(text) - 1);
  if (fd >= 0) close(fd);
  std::string id(text, length > 0 ? (size_t)length : 0);
  while (!id.empty() && (id.back() == '\n' || id.back() == ' ')) id.pop_back();
  cached = id;
  read_by = pid;
  return cached;
}

// Ini values cannot hold line ends or blanks at either end.
std::string storable(const char *text, const char *fallback) {
  std::string out(text != nullptr ? text : "");
  for (char &c : out) {
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  }
  const size_t first = out.find_first_not_of(' ');
  if (first == std::string::npos) return fallback;
  out = out.substr(first, out.find_last_not_of(' ') - first + 1);
  if (out.size() >= TARN_UPGRADE_TEXT_SIZE) out.resize(TARN_UPGRADE_TEXT_SIZE - 1);
  return out;
}

std::string format_text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string format_text(const char *format, ...) {
  char text[TARN_UPGRADE_TEXT_SIZE];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  return text;
}

bool parse_u64(const char *text, uint64_t *out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char *end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0') return false;
  *out = value;
  return true;
}

bool is_name_or_empty(const std::string &name) {
  return name.empty() || (name.size() < TARN_UPGRADE_NAME_SIZE &&
                          tarn_apphome_check_format(name.c_str()) == 0);
}

struct Journal {
  int32_t state = TARN_UPGRADE_STATE_NONE;
  std::string old_home, old_arch, new_home, new_arch;
  std::string boot_id;
  uint64_t start_tick = 0;
  int32_t trial_seconds = 0;
  int32_t reboots = 0;
  int32_t service_pid = 0;      // the service's pid at the last check, 0 before the first
  uint64_t missing_since = 0;   // tick since which the service has had no entry, 0 while it has
  std::vector<uint64_t> replacements;  // ticks of the service replacements seen, last minute
  std::string verdict, reason;
};

int32_t state_from_text(const char *text) {
  if (text == nullptr) return TARN_UPGRADE_STATE_UNREADABLE;
  for (int32_t state = TARN_UPGRADE_STATE_STARTING; state <= TARN_UPGRADE_STATE_ROLLED_BACK; ++state) {
    if (strcmp(text, kStateTexts[state]) == 0) return state;
  }
  return TARN_UPGRADE_STATE_UNREADABLE;
}

std::string get_text(tarn_ini_t *ini, const char *key) {
  const char *value = tarn_ini_file_get(ini, kSection, key);
  return value != nullptr ? value : "";
}

bool parse_ticks(const std::string &text, std::vector<uint64_t> *out) {
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find(',', begin);
    if (end == std::string::npos) end = text.size();
    uint64_t tick = 0;
    if (!parse_u64(text.substr(begin, end - begin).c_str(), &tick)) return false;
    out->push_back(tick);
    begin = end + 1;
  }
  return true;
}

// Reads the journal into *journal: its state, NONE for a missing file,
// UNREADABLE (with the warn line, unless quiet) for one that is damaged in
// any way.
void load_journal(Journal *journal, bool quiet = false) {
  const std::string path = install_path(kJournalName);
  *journal = Journal();
  TarnIniPtr ini(tarn_ini_file_load(path.c_str()));
  if (!ini && errno == ENOENT) return;
  Journal read;
  uint64_t value = 0;
  bool good = ini != nullptr;
  if (good) {
    read.state = state_from_text(tarn_ini_file_get(ini.get(), kSection, "state"));
    read.old_home = get_text(ini.get(), "old_app_home");
    read.old_arch = get_text(ini.get(), "old_app_home_x86");
    read.new_home = get_text(ini.get(), "new_app_home");
    read.new_arch = get_text(ini.get(), "new_app_home_x86");
    read.boot_id = get_text(ini.get(), "boot_id");
    read.verdict = get_text(ini.get(), "verdict");
    read.reason = get_text(ini.get(), "reason");
    read.trial_seconds = tarn_ini_file_get_int(ini.get(), kSection, "trial_seconds", 0);
    read.reboots = tarn_ini_file_get_int(ini.get(), kSection, "reboots", -1);
    read.service_pid = tarn_ini_file_get_int(ini.get(), kSection, "service_pid", -1);
    good = read.state != TARN_UPGRADE_STATE_UNREADABLE && !read.old_home.empty() &&
           !read.new_home.empty() && is_name_or_empty(read.old_home) &&
           is_name_or_empty(read.old_arch) && is_name_or_empty(read.new_home) &&
           is_name_or_empty(read.new_arch) && read.reboots >= 0 && read.service_pid >= 0 &&
           read.trial_seconds >= TARN_UPGRADE_MIN_TRIAL_SECONDS &&
           read.trial_seconds <= TARN_UPGRADE_MAX_TRIAL_SECONDS &&
           parse_u64(tarn_ini_file_get(ini.get(), kSection, "start_tick"), &read.start_tick) &&
           parse_u64(tarn_ini_file_get(ini.get(), kSection, "missing_since"), &value) &&
           parse_ticks(get_text(ini.get(), "replacements"), &read.replacements);
    read.missing_since = value;
  }
  if (!good) {
    if (!quiet) LOG(warn, "upgrade journal %s cannot be read, the record stands\n", path.c_str());
    journal->state = TARN_UPGRADE_STATE_UNREADABLE;
    return;
  }
  *journal = read;
}

// Saves the journal whole and durably under its own lock. Returns 0 or
// TARN_UPGRADE_E_JOURNAL (logged).
int32_t save_journal(const Journal &journal) {
  const std::string path = install_path(kJournalName);
  const std::string lock_path = path + ".lock";
  TarnFileLock lock;
  int error = lock.init(lock_path.c_str());
  if (error == 0) error = lock.acquire();
  TarnIniPtr ini(error == 0 ? tarn_ini_file_load(nullptr) : nullptr);
  if (error == 0 && !ini) error = ENOMEM;
  std::string ticks;
  for (uint64_t tick : journal.replacements) {
    if (!ticks.empty()) ticks += ",";
    ticks += std::to_string(tick);
  }
  const std::pair<const char *, std::string> values[] = {
      {"state", kStateTexts[journal.state]},
      {"old_app_home", journal.old_home},
      {"old_app_home_x86", journal.old_arch},
      {"new_app_home", journal.new_home},
      {"new_app_home_x86", journal.new_arch},
      {"boot_id", journal.boot_id},
      {"start_tick", std::to_string(journal.start_tick)},
      {"trial_seconds", std::to_string(journal.trial_seconds)},
      {"reboots", std::to_string(journal.reboots)},
      {"service_pid", std::to_string(journal.service_pid)},
      {"missing_since", std::to_string(journal.missing_since)},
      {"replacements", ticks},
      {"verdict", journal.verdict},
      {"reason", journal.reason},
  };
  for (const auto &value : values) {
    if (error == 0) error = tarn_ini_file_set(ini.get(), kSection, value.first, value.second.c_str());
  }
  if (error == 0) error = tarn_ini_file_save_directio(ini.get(), path.c_str(), 0);
  if (error == 0) return TARN_UPGRADE_OK;
  LOG(warn, "upgrade journal %s cannot be saved, error %d\n", path.c_str(), error);
  return TARN_UPGRADE_E_JOURNAL;
}

bool needs_companion() { return tarn_apphome_com_arch_str() != nullptr; }

int32_t record(const std::string &home, const std::string &arch) {
  const int32_t result =
      tarn_apphome_update(home.c_str(), needs_companion() ? arch.c_str() : nullptr);
  if (result == 0) return TARN_UPGRADE_OK;
  LOG(warn, "upgrade record cannot be updated, error %d\n", result);
  return TARN_UPGRADE_E_RECORD;
}

// Records the new app home and puts the journal on trial. On a failed
// update the upgrade is over: the record still names the fallback.
int32_t finish_begin(Journal *journal) {
  const int32_t result = record(journal->new_home, journal->new_arch);
  if (result != TARN_UPGRADE_OK) {
    journal->state = TARN_UPGRADE_STATE_ROLLED_BACK;
    journal->reason = "the record could not be updated";
    journal->verdict = journal->reason;
    const int32_t saved = save_journal(*journal);
    return saved != TARN_UPGRADE_OK ? saved : result;
  }
  journal->state = TARN_UPGRADE_STATE_TRIAL;
  return save_journal(*journal);
}

// Records the fallback, asks the service manager to restart its service and
// closes the journal. Any failure leaves "rolling back" for the next call.
int32_t finish_rollback(Journal *journal) {
  int32_t result = record(journal->old_home, journal->old_arch);
  if (result != TARN_UPGRADE_OK) return result;
  // The configuration file is rewritten whether or not the new service
  // still runs: the manager restarts what the renewed file names, and a
  // crashed service is exactly the case that needs it.
  const int32_t restarted = restart_tarn_process(TARN_SERVICE_FILE_NAME);
  if (restarted != 0) {
    LOG(warn, "upgrade service restart failed, error %d\n", restarted);
    return TARN_UPGRADE_E_SERVICE;
  }
  journal->state = TARN_UPGRADE_STATE_ROLLED_BACK;
  result = save_journal(*journal);
  if (result == TARN_UPGRADE_OK) {
    LOG(warn, "upgrade to %s rolled back to %s: %s\n", journal->new_home.c_str(),
        journal->old_home.c_str(), journal->reason.c_str());
  }
  return result;
}

int32_t rollback(Journal *journal, const std::string &reason, const std::string &verdict) {
  journal->state = TARN_UPGRADE_STATE_ROLLING_BACK;
  journal->reason = reason;
  journal->verdict = verdict;
  const int32_t result = save_journal(*journal);
  return result != TARN_UPGRADE_OK ? result : finish_rollback(journal);
}

int32_t commit(Journal *journal, const std::string &verdict) {
  journal->state = TARN_UPGRADE_STATE_COMMITTED;
  journal->verdict = verdict;
  const int32_t result = save_journal(*journal);
  if (result == TARN_UPGRADE_OK) {
    LOG(info, "upgrade to %s committed: %s\n", journal->new_home.c_str(), verdict.c_str());
  }
  return result;
}

// Finishes a step that a stopped process left under way.
int32_t converge(Journal *journal) {
  if (journal->state != TARN_UPGRADE_STATE_STARTING &&
      journal->state != TARN_UPGRADE_STATE_ROLLING_BACK) {
    return TARN_UPGRADE_OK;
  }
  LOG(info, "upgrade finishes the step left by a stopped process: %s\n",
      kStateTexts[journal->state]);
  return journal->state == TARN_UPGRADE_STATE_STARTING ? finish_begin(journal)
                                                       : finish_rollback(journal);
}

// The operation lock, held for a whole operation.
class OperationLock {
 public:
  OperationLock() {
    const std::string path = install_path(kOperationLockName);
    int error = lock_.init(path.c_str());
    if (error == 0) error = lock_.acquire();
    held_ = error == 0;
    if (!held_) LOG(warn, "upgrade lock %s cannot be taken, error %d\n", path.c_str(), error);
  }
  bool held() const { return held_; }

 private:
  TarnFileLock lock_;
  bool held_ = false;
};

bool is_operational(const std::string &name) {
  const std::string path = install_path(name.c_str());
  int32_t err = 0;
  if (tarn_apphome_is_operational_path(path.c_str(), &err) == 1) return true;
  LOG(warn, "upgrade app home %s is not operational\n", path.c_str());
  return false;
}

uint64_t elapsed_ms(uint64_t now, uint64_t since) { return now > since ? now - since : 0; }

// What the heartbeat table says of the trial. Fills *reason when the trial
// fails; updates the journal's view of the service, *changed when it moved.
bool service_failed(Journal *journal, const proc_heartbeat_info_t *service, uint64_t now,
                    bool *changed, std::string *reason) {
  if (service == nullptr) {
    if (journal->missing_since == 0) {
      journal->missing_since = now;
      *changed = true;
    }
    const uint64_t missing = elapsed_ms(now, journal->missing_since);
    if (missing <= (uint64_t)TARN_UPGRADE_SERVICE_GRACE_SECONDS * 1000u) return false;
    *reason = format_text("the service has had no heartbeat entry for %" PRIu64
                          " seconds, more than its grace of %d seconds",
                          missing / 1000u, TARN_UPGRADE_SERVICE_GRACE_SECONDS);
    return true;
  }
  if (journal->missing_since != 0) {
    journal->missing_since = 0;
    *changed = true;
  }
  if (journal->service_pid != service->pid) {
    if (journal->service_pid != 0) journal->replacements.push_back(now);
    journal->service_pid = service->pid;
    *changed = true;
  }
  std::vector<uint64_t> recent;
  for (uint64_t tick : journal->replacements) {
    if (elapsed_ms(now, tick) < kCrashLoopWindowMs) recent.push_back(tick);
  }
  if (recent.size() != journal->replacements.size()) {
    journal->replacements.swap(recent);
    *changed = true;
  }
  if (journal->replacements.size() > TARN_UPGRADE_MAX_REPLACEMENTS) {
    *reason = format_text("the service was restarted %zu times within a minute (a crash loop)",
                          journal->replacements.size());
    return true;
  }
  const uint64_t silent = elapsed_ms(now, service->tick);
  if (silent > 2u * 1000u * (uint64_t)service->interval) {
    *reason = format_text("the service (pid %d) has not beaten for %" PRIu64
                          " seconds, more than twice its interval of %u seconds",
                          service->pid, silent / 1000u, service->interval);
    return true;
  }
  return false;
}

void put_text(char *out, size_t size, const std::string &text) {
  tarn_strlcpy(out, text.c_str(), size);
}

void set_verdict(tarn_upgrade_verdict_t *out, int32_t verdict, int32_t seconds_left,
                 const std::string &reason) {
  out->verdict = verdict;
  out->seconds_left = seconds_left;
  put_text(out->reason, sizeof(out->reason), reason);
}

// What judge() returns, when asked not to write, for a verdict that needs
// the journal or the record written.
constexpr int32_t kNeedsWrite = 1;

// Judges a journal on trial and acts on the verdict. With dry, nothing is
// written: a verdict that needs a write returns kNeedsWrite instead.
int32_t judge(Journal *journal, tarn_upgrade_verdict_t *out, bool dry) {
  const uint64_t now = tarn_time_get_tick_cout();
  const std::string boot_id = current_boot_id();
  if (boot_id != journal->boot_id) {
    if (dry) return kNeedsWrite;
    if (journal->reboots >= 1) {
      const std::string reason = "the machine restarted twice during the trial";
      const std::string verdict = reason + "; rolled back to " + journal->old_home;
      set_verdict(out, TARN_UPGRADE_VERDICT_FAILED, 0, verdict);
      return rollback(journal, reason, verdict);
    }
    LOG(info, "upgrade trial restarts: the machine restarted\n");
    journal->reboots += 1;
    journal->boot_id = boot_id;
    journal->start_tick = now;
    journal->missing_since = now;
    journal->service_pid = 0;
    journal->replacements.clear();
    journal->verdict = "the machine restarted during the trial of " + journal->new_home +
                       "; the trial starts again";
    set_verdict(out, TARN_UPGRADE_VERDICT_RUNNING, journal->trial_seconds, journal->verdict);
    return save_journal(*journal);
  }

  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  const int32_t count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
  if (count < 0) {
    LOG(warn, "upgrade heartbeat table cannot be read, error %d\n", count);
    set_verdict(out, TARN_UPGRADE_VERDICT_RUNNING, 0, "the heartbeat table cannot be read");
    return TARN_UPGRADE_E_HEARTBEAT;
  }
  const proc_heartbeat_info_t *service = nullptr;
  for (int32_t i = 0; i < count && service == nullptr; ++i) {
    if (entries[i].ptype == PROC_HEARTBEAT_TYPE_SERVICE) service = &entries[i];
  }

  bool changed = false;
  std::string reason;
  const bool failed = service_failed(journal, service, now, &changed, &reason);
  const uint64_t trial_ms = (uint64_t)journal->trial_seconds * 1000u;
  const uint64_t elapsed = elapsed_ms(now, journal->start_tick);
  if (dry && (failed || changed || elapsed >= trial_ms)) return kNeedsWrite;
  if (failed) {
    const std::string verdict = reason + "; rolled back to " + journal->old_home;
    set_verdict(out, TARN_UPGRADE_VERDICT_FAILED, 0, verdict);
    return rollback(journal, reason, verdict);
  }
  if (elapsed >= trial_ms) {
    const std::string verdict = format_text("the trial of %s passed after %d seconds; committed",
                                            journal->new_home.c_str(), journal->trial_seconds);
    set_verdict(out, TARN_UPGRADE_VERDICT_PASSED, 0, verdict);
    return commit(journal, verdict);
  }
  const int32_t left = (int32_t)((trial_ms - elapsed + 999u) / 1000u);
  set_verdict(out, TARN_UPGRADE_VERDICT_RUNNING, left,
              format_text("the trial of %s runs, %d seconds left", journal->new_home.c_str(), left));
  if (!changed) return TARN_UPGRADE_OK;
  journal->verdict = "the trial runs";
  return save_journal(*journal);
}

// Loads the journal and finishes a step left under way; the common start of
// begin, check, commit and rollback.
int32_t load_settled(Journal *journal) {
  load_journal(journal);
  return converge(journal);
}

// Ends the trial by hand with how(), under the operation lock, once a step
// left under way is finished; TARN_UPGRADE_E_NO_TRIAL without a trial.
int32_t end_trial(const std::function<int32_t(Journal *)> &how) {
  OperationLock lock;
  if (!lock.held()) return TARN_UPGRADE_E_LOCK;
  Journal journal;
  const int32_t result = load_settled(&journal);
  if (result != TARN_UPGRADE_OK) return result;
  if (journal.state != TARN_UPGRADE_STATE_TRIAL) return TARN_UPGRADE_E_NO_TRIAL;
  return how(&journal);
}

}  // namespace

extern "C" {

TARNAUX_API const char *tarn_upgrade_state_text(int32_t state) {
  if (state < TARN_UPGRADE_STATE_NONE || state > TARN_UPGRADE_STATE_UNREADABLE) return "unknown";
  return kStateTexts[state];
}

TARNAUX_API const char *tarn_upgrade_verdict_text(int32_t verdict) {
  if (verdict < TARN_UPGRADE_VERDICT_NONE || verdict > TARN_UPGRADE_VERDICT_FAILED) return "unknown";
  return kVerdictTexts[verdict];
}

TARNAUX_API int32_t tarn_upgrade_begin(const char *new_apphome, const char *new_apphome_arch,
                                       int32_t trial_seconds) {
  const bool companion = needs_companion();
  if (new_apphome == nullptr || !is_name_or_empty(new_apphome) || new_apphome[0] == '\0') {
    return TARN_UPGRADE_E_INVALID;
  }
  if (companion && new_apphome_arch != nullptr &&
      (!is_name_or_empty(new_apphome_arch) || new_apphome_arch[0] == '\0')) {
    return TARN_UPGRADE_E_INVALID;
  }
  if (trial_seconds < TARN_UPGRADE_MIN_TRIAL_SECONDS || trial_seconds > TARN_UPGRADE_MAX_TRIAL_SECONDS) {
    return TARN_UPGRADE_E_INVALID;
  }
  if (companion && new_apphome_arch == nullptr) {
    LOG(warn, "upgrade refused: %s\n", "a companion app home is needed");
    return TARN_UPGRADE_E_INVALID;
  }
  OperationLock lock;
  if (!lock.held()) return TARN_UPGRADE_E_LOCK;
  Journal journal;
  int32_t result = load_settled(&journal);
  if (result != TARN_UPGRADE_OK) return result;
  if (journal.state == TARN_UPGRADE_STATE_TRIAL) {
    LOG(warn, "upgrade refused: %s\n", "an upgrade is on trial");
    return TARN_UPGRADE_E_BUSY;
  }

  char old_home[TARN_UPGRADE_NAME_SIZE] = {0};
  char old_arch[TARN_UPGRADE_NAME_SIZE] = {0};
  const std::string record_path = install_path(TARN_APPHOME_FILE_NAME);
  if (tarn_apphome_get_apphome(record_path.c_str(), old_home, sizeof(old_home), old_arch,
                               sizeof(old_arch)) != 0) {
    LOG(warn, "upgrade refused: %s\n", "the record cannot be read");
    return TARN_UPGRADE_E_RECORD;
  }
  if (strcmp(old_home, new_apphome) == 0) {
    LOG(warn, "upgrade refused: %s\n", "the new app home is the recorded one");
    return TARN_UPGRADE_E_INVALID;
  }
  if (!is_operational(new_apphome)) return TARN_UPGRADE_E_NOT_OPERATIONAL;
  if (companion && !is_operational(new_apphome_arch)) return TARN_UPGRADE_E_NOT_OPERATIONAL;

  journal = Journal();
  journal.state = TARN_UPGRADE_STATE_STARTING;
  journal.old_home = old_home;
  journal.old_arch = companion ? old_arch : "";
  journal.new_home = new_apphome;
  journal.new_arch = companion ? new_apphome_arch : "";
  journal.boot_id = current_boot_id();
  journal.start_tick = tarn_time_get_tick_cout();
  journal.trial_seconds = trial_seconds;
  // The service is looked for from the start of the trial: its grace runs
  // from here until a check first finds its entry.
  journal.missing_since = journal.start_tick;
  journal.verdict = "the trial begins";
  result = save_journal(journal);
  if (result != TARN_UPGRADE_OK) return result;
  result = finish_begin(&journal);
  if (result == TARN_UPGRADE_OK) {
    LOG(info, "upgrade to %s on trial for %d seconds, fallback %s\n", journal.new_home.c_str(),
        trial_seconds, journal.old_home.c_str());
  }
  return result;
}

TARNAUX_API int32_t tarn_upgrade_check(tarn_upgrade_verdict_t *verdict_out) {
  if (verdict_out == nullptr) return TARN_UPGRADE_E_INVALID;
  set_verdict(verdict_out, TARN_UPGRADE_VERDICT_NONE, 0, "no upgrade is on trial");
  Journal journal;
  // The watchdog's usual beat changes nothing: it is judged without the
  // operation lock (saves replace the journal in one step, so the read is
  // whole), and only a verdict that writes takes the lock and judges again.
  load_journal(&journal, true);
  if (journal.state == TARN_UPGRADE_STATE_NONE || journal.state == TARN_UPGRADE_STATE_COMMITTED ||
      journal.state == TARN_UPGRADE_STATE_ROLLED_BACK) {
    return TARN_UPGRADE_OK;
  }
  if (journal.state == TARN_UPGRADE_STATE_TRIAL) {
    const int32_t quiet = judge(&journal, verdict_out, true);
    if (quiet != kNeedsWrite) return quiet;
  }
  OperationLock lock;
  if (!lock.held()) return TARN_UPGRADE_E_LOCK;
  const int32_t result = load_settled(&journal);
  if (journal.state == TARN_UPGRADE_STATE_UNREADABLE) {
    set_verdict(verdict_out, TARN_UPGRADE_VERDICT_NONE, 0,
                "the upgrade journal cannot be read; the record stands");
  }
  if (result != TARN_UPGRADE_OK || journal.state != TARN_UPGRADE_STATE_TRIAL) return result;
  return judge(&journal, verdict_out, false);
}

TARNAUX_API int32_t tarn_upgrade_commit(void) {
  return end_trial([](Journal *journal) { return commit(journal, "committed by request"); });
}

TARNAUX_API int32_t tarn_upgrade_rollback(const char *reason) {
  const std::string why = storable(reason, kRolledBackByRequest);
  return end_trial([&why](Journal *journal) {
    return rollback(journal, why, why + "; rolled back to " + journal->old_home);
  });
}

TARNAUX_API int32_t tarn_upgrade_remove_apphome(const char *apphome) {
  if (apphome == nullptr || apphome[0] == '\0' || !is_name_or_empty(apphome)) return TARN_UPGRADE_E_INVALID;
  OperationLock lock;
  if (!lock.held()) return TARN_UPGRADE_E_LOCK;
  Journal journal;
  const int32_t settled = load_settled(&journal);
  if (settled != TARN_UPGRADE_OK) return settled;
  const std::string path = install_path(apphome);
  const auto keep = [&path](const char *why, int32_t result) {
    LOG(warn, "upgrade keeps app home %s: %s\n", path.c_str(), why);
    return result;
  };
  if (journal.state == TARN_UPGRADE_STATE_TRIAL) return keep("an upgrade is on trial", TARN_UPGRADE_E_BUSY);
  if (journal.state == TARN_UPGRADE_STATE_UNREADABLE) {
    return keep("the upgrade journal cannot be read", TARN_UPGRADE_E_KEPT);
  }
  if (journal.old_home == apphome || journal.old_arch == apphome) {
    return keep("it is the upgrade's fallback", TARN_UPGRADE_E_KEPT);
  }
  char home[TARN_UPGRADE_NAME_SIZE] = {0};
  char arch[TARN_UPGRADE_NAME_SIZE] = {0};
  const std::string record_path = install_path(TARN_APPHOME_FILE_NAME);
  if (tarn_apphome_get_apphome(record_path.c_str(), home, sizeof(home), arch, sizeof(arch)) != 0) {
    return keep("the record cannot be read", TARN_UPGRADE_E_RECORD);
  }
  if (strcmp(home, apphome) == 0 || strcmp(arch, apphome) == 0) {
    return keep("it is the recorded one", TARN_UPGRADE_E_KEPT);
  }
  const int error = tarn_dirutils_rmdir(path.c_str());
  if (error != 0) {
    LOG(warn, "upgrade cannot remove app home %s, error %d\n", path.c_str(), error);
    return TARN_UPGRADE_E_REMOVE;
  }
  LOG(info, "upgrade removed app home %s\n", path.c_str());
  return TARN_UPGRADE_OK;
}

TARNAUX_API int32_t tarn_upgrade_status(tarn_upgrade_status_t *out) {
  if (out == nullptr) return TARN_UPGRADE_E_INVALID;
  memset(out, 0, sizeof(*out));
  Journal journal;
  load_journal(&journal);
  out->state = journal.state;
  out->trial_seconds = journal.trial_seconds;
  out->seconds_left = -1;
  put_text(out->old_apphome, sizeof(out->old_apphome), journal.old_home);
  put_text(out->old_apphome_arch, sizeof(out->old_apphome_arch), journal.old_arch);
  put_text(out->new_apphome, sizeof(out->new_apphome), journal.new_home);
  put_text(out->new_apphome_arch, sizeof(out->new_apphome_arch), journal.new_arch);
  put_text(out->last_verdict, sizeof(out->last_verdict), journal.verdict);
  put_text(out->reason, sizeof(out->reason), journal.reason);
  const bool timed = journal.state == TARN_UPGRADE_STATE_STARTING ||
                     journal.state == TARN_UPGRADE_STATE_TRIAL;
  if (timed && journal.boot_id == current_boot_id()) {
    const uint64_t trial_ms = (uint64_t)journal.trial_seconds * 1000u;
    const uint64_t elapsed = elapsed_ms(tarn_time_get_tick_cout(), journal.start_tick);
    out->seconds_left = elapsed >= trial_ms ? 0 : (int64_t)((trial_ms - elapsed + 999u) / 1000u);
  }
  return TARN_UPGRADE_OK;
}

}  // extern "C"
