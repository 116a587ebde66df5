// doctor: every check of the agent's shared state that an on-call engineer
// would make by hand, one line each, with a verdict and a hint to fix it.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <qiv_ejs/qiv_ejs.h>
#include <tarn_apphome.h>
#include <tarn_heartbeat_internal.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>

#include "heartbeat_view.h"
#include "tarnctl.h"

namespace tarnctl {
namespace {

enum class Verdict { kOk, kWarn, kFail };

const char *verdict_text(Verdict verdict) {
  return verdict == Verdict::kOk ? "ok" : verdict == Verdict::kWarn ? "warn" : "fail";
}

struct Check {
  std::string name;
  Verdict verdict;
  std::string detail;
  std::string fix;  // "" for ok
};

using Checks = std::vector<Check>;

// Below these, free space at the install root is a failure or a warning:
// an update unpacks a package and saves the record there.
constexpr uint64_t kFailBelowBytes = 16ull << 20;
constexpr uint64_t kWarnBelowBytes = 256ull << 20;
// How deep below the install root stray temporaries are looked for.
constexpr int kTemporaryDepth = 6;
constexpr char kKeysDirectory[] = "/etc/velmora/keys.d";
constexpr char kGlockSuffix[] = ".glock";

std::string octal(mode_t mode) {
  char text[8];
  snprintf(text, sizeof(text), "%04o", (unsigned)(mode & 07777));
  return text;
}

void check_table(const Invocation &inv, Checks *checks) {
  TableView view;
  std::string reason;
  if (read_table_view(inv, 60000, &view, &reason) != kExitOk) {
    checks->push_back({"heartbeat table", Verdict::kFail, reason, "start the service (it creates the table)"});
    return;
  }
  std::string damage;
  for (const IntegrityCheck &check : view.integrity) {
    if (!check.ok) damage += (damage.empty() ? "" : "; ") + check.name + ": " + check.detail;
  }
  if (!damage.empty()) {
    checks->push_back({"heartbeat table", Verdict::kFail, damage,
                       "restart the service: it clears the table and the processes register again"});
  } else {
    checks->push_back({"heartbeat table", Verdict::kOk,
                       "intact, " + std::to_string(view.entries.size()) + " process entries", ""});
  }
}

// A lock file's holders, and whether anybody holds it.
struct FileLock {
  std::string path;
  std::string holders;  // "free", "no lock file" or "held by ..."
  bool held() const { return holders.rfind("held", 0) == 0; }
};

// Whether the record file at path (locked by lock) is valid. A file whose
// lock another process holds is not read: the library would wait for it.
void check_record(const char *name, const std::string &path, const FileLock &lock, Verdict invalid,
                  const char *fix, Checks *checks) {
  if (lock.held()) {
    checks->push_back({name, Verdict::kWarn, "not checked: " + lock.path + " is " + lock.holders,
                       "see why that process keeps the lock; stop it if it hangs"});
    return;
  }
  const int32_t result = tarn_apphome_check_validity(path.c_str());
  const bool valid = result == TARN_APPHOME_VALID;
  checks->push_back({name, valid ? Verdict::kOk : invalid, validity_text(result, path), valid ? "" : fix});
}

void check_records(const FileLock &record_lock, const FileLock &backup_lock, Checks *checks) {
  const std::string record = record_path();
  const std::string backup = backup_path();
  check_record("record", record, record_lock, Verdict::kFail, "tarnctl apphome reduce", checks);
  check_record("backup", backup, backup_lock, Verdict::kWarn, "the next update of the record rewrites it", checks);
  const bool same = path_error(record) == 0 && path_error(backup) == 0 && file_contents(record) == file_contents(backup);
  checks->push_back({"record and backup", same ? Verdict::kOk : Verdict::kWarn,
                     same ? "the same" : "they differ",
                     same ? "" : "tarnctl apphome restore, when the backup names the right app home"});
}

// The app homes that the record names (and its companion).
std::vector<std::string> recorded_apphomes() {
  char apphome[1024] = {0};
  char companion[1024] = {0};
  std::vector<std::string> names;
  if (tarn_apphome_get_apphome(record_path().c_str(), apphome, sizeof(apphome), companion, sizeof(companion)) != 0) {
    return names;
  }
  if (apphome[0] != '\0') names.push_back(apphome);
  if (companion[0] != '\0') names.push_back(companion);
  return names;
}

void check_flags(Checks *checks) {
  for (const std::string &name : recorded_apphomes()) {
    const std::string flags = install_root() + "/" + name + "/config/flags";
    std::vector<std::string> present;
    if (DIR *dir = opendir(flags.c_str())) {
      while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') present.push_back(entry->d_name);
      }
      closedir(dir);
    }
    std::sort(present.begin(), present.end());
    std::string listed;
    bool operational = false;
    for (const std::string &flag : present) {
      listed += (listed.empty() ? "" : " ") + flag;
      operational = operational || flag == "flag_operational" || flag == "flag_operational_backup";
    }
    checks->push_back({"flags of " + name, operational ? Verdict::kOk : Verdict::kFail,
                       flags + ": " + (listed.empty() ? "none" : listed),
                       operational ? "" : "reinstall the app home, or tarnctl apphome reduce to find an operational one"});
  }
}

void check_service_version(Checks *checks) {
  const std::vector<std::string> homes = recorded_apphomes();
  if (homes.empty()) return;
  char text[1024] = {0};
  if (tarn_apphome_get_service_version(text, sizeof(text)) != 0) {
    checks->push_back({"service version", Verdict::kWarn, "the installed tarn_service gives no version",
                       "reinstall the service"});
    return;
  }
  std::string service = text;
  while (!service.empty() && (service.back() == '\n' || service.back() == ' ')) service.pop_back();
  const std::string manifest = install_root() + "/" + homes[0] + "/config/component_info/tarn_base.ejs";
  json_t *tree = qiv_json_load_file_ejs(manifest.c_str());
  if (tree == nullptr) {
    checks->push_back({"service version", Verdict::kFail, "cannot load " + manifest + ": " + error_text(errno),
                       "reinstall the app home's base package"});
    return;
  }
  // As reduction matches them: the package is tarn_base and its version
  // is the service's text exactly.
  const char *package = json_string_value(qiv_json_object_get_ejs(tree, "package"));
  const char *version = json_string_value(qiv_json_object_get_ejs(tree, "version"));
  const std::string base = version != nullptr ? version : "none";
  const bool same = package != nullptr && strcmp(package, "tarn_base") == 0 && base == service;
  const std::string named = package != nullptr ? package : "no package";
  qiv_json_decref_ejs(tree);
  checks->push_back({"service version", same ? Verdict::kOk : Verdict::kFail,
                     "service " + service + ", base manifest " + named + " " + base,
                     same ? "" : "the service and the recorded app home are of different releases: tarnctl apphome reduce"});
}

// The PID of a save's temporary name "NAME.tmp.PID.N", or 0 when name is
// not one.
int temporary_pid(const std::string &name) {
  const size_t mark = name.rfind(".tmp.");
  if (mark == std::string::npos || mark == 0) return 0;
  const std::string rest = name.substr(mark + 5);
  const size_t dot = rest.find('.');
  uint64_t pid = 0;
  uint64_t sequence = 0;
  if (dot == std::string::npos || !parse_unsigned(rest.substr(0, dot), INT32_MAX, &pid) ||
      !parse_unsigned(rest.substr(dot + 1), UINT64_MAX, &sequence)) {
    return 0;
  }
  return (int)pid;
}

// Saves write "NAME.tmp.PID.N" beside NAME and rename it over NAME; one
// whose process is gone was left by a save that was cut short.
void find_temporaries(const std::string &directory, int depth, std::vector<std::string> *found) {
  DIR *dir = opendir(directory.c_str());
  if (dir == nullptr) return;
  while (const dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = directory + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    const int pid = temporary_pid(name);
    if (S_ISREG(st.st_mode) && pid > 0 && tarn_process_is_exist(pid) == 0) {
      found->push_back(path);
    } else if (S_ISDIR(st.st_mode) && depth > 0) {
      find_temporaries(path, depth - 1, found);
    }
  }
  closedir(dir);
}

void check_temporaries(Checks *checks) {
  std::vector<std::string> found;
  find_temporaries(install_root(), kTemporaryDepth, &found);
  std::sort(found.begin(), found.end());
  std::string listed;
  for (const std::string &path : found) listed += " " + path;
  checks->push_back({"save temporaries", found.empty() ? Verdict::kOk : Verdict::kWarn,
                     found.empty() ? "none left by interrupted saves" : "left by interrupted saves:" + listed,
                     found.empty() ? "" : "remove them: rm --" + listed});
}

// The heartbeat table's lock: its owner word names the holder's liveness
// slot, whose record keeps the claimer's pid (docs/heartbeat.md).
std::string glock_holder() {
  const std::string path = std::string("/dev/shm/") + PROC_HEARTBEAT_SHM_NAME + kGlockSuffix;
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return "no lock (" + error_text(errno) + ")";
  uint64_t owner = 0;
  std::string text = "free";
  if (pread(fd, &owner, sizeof(owner), 0) == (ssize_t)sizeof(owner) && owner != 0) {
    const uint32_t slot = (uint32_t)(owner & 0x7fffffffu) - 1;
    uint32_t record[2] = {0, 0};
    text = "held";
    if (pread(fd, record, sizeof(record), 64 + 8 * (off_t)slot) == (ssize_t)sizeof(record) &&
        record[0] == (uint32_t)(owner >> 32)) {
      text += " by pid " + std::to_string(record[1]) + " (" + process_name((int)record[1]) + ")";
    }
  }
  close(fd);
  return text;
}

// Who holds a lock on path, from /proc/locks: "free", or "held by pid P
// (NAME)" for each holder.
std::string file_lock_holders(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "no lock file";
  char device[64];
  snprintf(device, sizeof(device), "%02x:%02x:%lu", major(st.st_dev), minor(st.st_dev), (unsigned long)st.st_ino);
  std::ifstream locks("/proc/locks");
  std::string line;
  std::string text;
  while (std::getline(locks, line)) {
    std::istringstream words(line);
    std::string number, kind, advisory, access, pid, where;
    words >> number >> kind;
    if (kind == "->") words >> kind;  // a waiter, listed under the holder
    words >> advisory >> access >> pid >> where;
    if (where != device || line.find("->") != std::string::npos) continue;
    text += (text.empty() ? "held by " : ", ") + std::string("pid ") + pid + " (" + process_name(atoi(pid.c_str())) +
            ", " + kind + " " + access + ")";
  }
  return text.empty() ? "free" : text;
}

void check_locks(const FileLock &record_lock, const FileLock &backup_lock, Checks *checks) {
  checks->push_back({"lock " PROC_HEARTBEAT_SHM_NAME, Verdict::kOk, glock_holder(), ""});
  for (const FileLock *lock : {&record_lock, &backup_lock}) {
    checks->push_back({"lock " + lock->path, Verdict::kOk, lock->holders, ""});
  }
}

void check_space(Checks *checks) {
  const std::string root = install_root();
  struct statvfs fs;
  if (statvfs(root.c_str(), &fs) != 0) {
    checks->push_back({"free space", Verdict::kFail, root + ": " + error_text(errno), "create the install root"});
    return;
  }
  const uint64_t available = (uint64_t)fs.f_bavail * fs.f_frsize;
  const Verdict verdict =
      available < kFailBelowBytes ? Verdict::kFail : available < kWarnBelowBytes ? Verdict::kWarn : Verdict::kOk;
  checks->push_back({"free space", verdict, std::to_string(available >> 20) + " MiB available at " + root,
                     verdict == Verdict::kOk ? "" : "free space on that file system (an update needs 256 MiB)"});
}

// The agent group of the security settings, or "" when unset.
std::string agent_group() {
  tarn_ini_t *ini = tarn_ini_file_load(TARN_LOG_CONFIG_PATH);
  if (ini == nullptr) return "";
  const char *value = tarn_ini_file_get(ini, "security", "agent_group");
  const std::string group = value != nullptr ? value : "";
  tarn_ini_file_free(ini);
  return group;
}

void check_modes(Checks *checks) {
  const std::string group = agent_group();
  struct stat st;
  const std::string root = install_root();
  if (stat(root.c_str(), &st) == 0) {
    const bool open = (st.st_mode & S_IWOTH) != 0;
    checks->push_back({"mode " + root, open ? Verdict::kFail : Verdict::kOk, octal(st.st_mode),
                       open ? "chmod o-w " + root : ""});
  }
  for (const std::string &file : {record_path(), backup_path()}) {
    if (stat(file.c_str(), &st) != 0) continue;
    const bool open = (st.st_mode & S_IWOTH) != 0;
    Verdict verdict = Verdict::kOk;
    std::string fix;
    if (open && group.empty()) {
      // 0666 is what the library gives the record without an agent group.
      verdict = Verdict::kWarn;
      fix = "any local user can rewrite it: set [security] agent_group (docs/security.md)";
    } else if (open) {
      verdict = Verdict::kFail;
      fix = "chmod o-rw " + file + " (the agent group " + group + " is set)";
    }
    checks->push_back({"mode " + file, verdict, octal(st.st_mode), fix});
  }
}

void check_keys(Checks *checks) {
  DIR *dir = opendir(kKeysDirectory);
  std::vector<std::string> trusted;
  std::vector<std::string> ignored;
  if (dir != nullptr) {
    while (const dirent *entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name[0] == '.' || name == "revoked") continue;
      struct stat st;
      const std::string path = std::string(kKeysDirectory) + "/" + name;
      if (lstat(path.c_str(), &st) != 0) continue;
      const bool counts = S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
      (counts ? trusted : ignored).push_back(name);
    }
    closedir(dir);
  }
  std::sort(trusted.begin(), trusted.end());
  std::sort(ignored.begin(), ignored.end());
  if (!ignored.empty()) {
    std::string listed;
    for (const std::string &name : ignored) listed += " " + std::string(kKeysDirectory) + "/" + name;
    checks->push_back({"signature keys", Verdict::kFail, "ignored (not root's or writable by others):" + listed,
                       "chown root and chmod go-w them, or remove them"});
  } else if (trusted.empty()) {
    checks->push_back({"signature keys", Verdict::kWarn,
                       std::string("no key file in ") + kKeysDirectory + ": only the build's key is trusted",
                       std::string("install the publisher's public key as ") + kKeysDirectory + "/NAME (docs/ejs.md)"});
  } else {
    std::string listed;
    for (const std::string &name : trusted) listed += " " + name;
    checks->push_back({"signature keys", Verdict::kOk, std::string(kKeysDirectory) + ":" + listed, ""});
  }
}

json_t *checks_json(const Checks &checks) {
  json_t *array = json_array();
  for (const Check &check : checks) {
    json_array_append_new(array, json_pack("{s:s, s:s, s:s, s:s}", "name", check.name.c_str(), "verdict",
                                           verdict_text(check.verdict), "detail", check.detail.c_str(), "fix",
                                           check.fix.c_str()));
  }
  return array;
}

}  // namespace

int run_doctor(const Invocation &inv) {
  Checks checks;
  check_table(inv, &checks);
  const std::string record_lock_path = record_path() + ".lock";
  const std::string backup_lock_path = backup_path() + ".lock";
  const FileLock record_lock{record_lock_path, file_lock_holders(record_lock_path)};
  const FileLock backup_lock{backup_lock_path, file_lock_holders(backup_lock_path)};
  check_locks(record_lock, backup_lock, &checks);
  check_records(record_lock, backup_lock, &checks);
  // Both read the record, under its lock.
  if (!record_lock.held()) {
    check_flags(&checks);
    check_service_version(&checks);
  }
  check_temporaries(&checks);
  check_space(&checks);
  check_modes(&checks);
  check_keys(&checks);
  size_t counts[3] = {0, 0, 0};
  for (const Check &check : checks) ++counts[(int)check.verdict];
  const int code = counts[(int)Verdict::kFail] == 0 ? kExitOk : kExitNo;
  if (inv.option("--json")) {
    const int printed = print_json(inv, json_pack("{s:b, s:b, s:o, s:{s:i, s:i, s:i}}", "ok", 1, "healthy", code == kExitOk, "checks",
                                                  checks_json(checks), "counts", "ok", (int)counts[0], "warn",
                                                  (int)counts[1], "fail", (int)counts[2]));
    return printed != kExitOk ? printed : code;
  }
  for (const Check &check : checks) {
    printf("%-4s %s: %s\n", verdict_text(check.verdict), check.name.c_str(), check.detail.c_str());
    if (!check.fix.empty()) printf("     fix: %s\n", check.fix.c_str());
  }
  printf("doctor: %zu ok, %zu warn, %zu fail\n", counts[0], counts[1], counts[2]);
  return code;
}

}  // namespace tarnctl
