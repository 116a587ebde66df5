// status: the heartbeat table's integrity and who in it is healthy, read
// without changing it; once, or redrawn with --watch.

#include <errno.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <jansson.h>

#include "heartbeat_view.h"
#include "tarnctl.h"

namespace tarnctl {
namespace {

// Exit codes of status, as systemctl status gives them.
constexpr int kExitNotHealthy = 3;

constexpr uint64_t kDefaultMaxAge = 60;
constexpr uint64_t kDefaultWatch = 2;
constexpr uint64_t kMaxSeconds = 86400;

std::string decimal(int64_t ms) {
  char text[32];
  snprintf(text, sizeof(text), "%.1f", (double)ms / 1000.0);
  return text;
}

// "service", or "worker(N)" and "invalid(N)" for the types without a name.
std::string type_column(uint32_t type) {
  const std::string name = type_name(type);
  return name == "service" ? name : name + "(" + std::to_string(type) + ")";
}

// text with every control character shown as '?', so that a process name
// cannot break a row.
std::string printable(std::string text) {
  for (char &c : text) {
    if ((unsigned char)c < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

// Why the table is not healthy, or "" when it is.
std::string trouble(const TableView &view) {
  std::string text;
  auto add = [&text](const std::string &what) { text += (text.empty() ? "" : ", ") + what; };
  if (!view.integrity_ok()) add("the table is damaged");
  if (view.not_ok() != 0) add(std::to_string(view.not_ok()) + (view.not_ok() == 1 ? " entry" : " entries") + " not ok");
  if (!view.has_service()) add("no service entry");
  if (view.watchdog.late) add("the watchdog is late");
  return text;
}

void print_text(const TableView &view) {
  printf("integrity: %s\n", view.integrity_ok() ? "ok" : "damaged");
  for (const IntegrityCheck &check : view.integrity) {
    printf("  %-10s %-3s %s\n", check.name.c_str(), check.ok ? "ok" : "bad", check.detail.c_str());
  }
  constexpr char kFormat[] = "%-4s %-7s %-15s %-9s %-10s %-7s %-9s %s\n";
  printf(kFormat, "SLOT", "PID", "NAME", "TYPE", "INTERVAL_S", "AGE_S", "STATE", "EXECUTABLE");
  for (const EntryView &entry : view.entries) {
    printf(kFormat, std::to_string(entry.slot).c_str(), std::to_string(entry.pid).c_str(), printable(entry.name).c_str(),
           type_column(entry.type).c_str(), std::to_string(entry.interval_s).c_str(),
           decimal(entry.age_ms).c_str(), state_text(entry.state), entry.executable.c_str());
  }
  const WatchdogView &dog = view.watchdog;
  if (dog.present) {
    printf("watchdog: slot %u, interval %u s, age %s s, %s\n", dog.slot, dog.interval_s, decimal(dog.age_ms).c_str(),
           dog.late ? "late" : "ok");
  } else {
    printf("watchdog: none\n");
  }
  const std::string why = trouble(view);
  printf("status: %s\n", why.empty() ? "ok" : ("not ok: " + why).c_str());
}

json_t *integrity_json(const TableView &view) {
  json_t *checks = json_array();
  for (const IntegrityCheck &check : view.integrity) {
    json_array_append_new(checks, json_pack("{s:s, s:b, s:s}", "name", check.name.c_str(), "ok", check.ok,
                                            "detail", check.detail.c_str()));
  }
  return json_pack("{s:b, s:o}", "ok", view.integrity_ok(), "checks", checks);
}

json_t *entries_json(const TableView &view) {
  json_t *entries = json_array();
  for (const EntryView &entry : view.entries) {
    json_t *object = json_object();
    json_object_set_new(object, "slot", json_integer(entry.slot));
    json_object_set_new(object, "pid", json_integer(entry.pid));
    json_object_set_new(object, "name", json_string(entry.name.c_str()));
    json_object_set_new(object, "executable", json_string(entry.executable.c_str()));
    json_object_set_new(object, "type", json_string(type_name(entry.type)));
    json_object_set_new(object, "type_id", json_integer(entry.type));
    json_object_set_new(object, "interval_s", json_integer(entry.interval_s));
    json_object_set_new(object, "age_ms", json_integer(entry.age_ms));
    json_object_set_new(object, "identity_known", json_boolean(entry.identity_known));
    json_object_set_new(object, "state", json_string(state_text(entry.state)));
    json_array_append_new(entries, object);
  }
  return entries;
}

json_t *watchdog_json(const WatchdogView &dog) {
  if (!dog.present) return json_pack("{s:b, s:s}", "present", 0, "state", "none");
  return json_pack("{s:b, s:i, s:i, s:I, s:s}", "present", 1, "slot", (int)dog.slot, "interval_s",
                   (int)dog.interval_s, "age_ms", (json_int_t)dog.age_ms, "state", dog.late ? "late" : "ok");
}

// One look at the table: printed, and its exit code returned.
int show(const Invocation &inv, int64_t max_age_ms) {
  TableView view;
  std::string reason;
  const int code = read_table_view(inv, max_age_ms, &view, &reason);
  const bool json = inv.option("--json");
  if (code != kExitOk) {
    complain(inv, reason);
    if (json) print_json(inv, json_pack("{s:b, s:s}", "ok", 0, "error", reason.c_str()));
    return code;
  }
  const int status = view.healthy() ? kExitOk : kExitNotHealthy;
  if (!json) {
    print_text(view);
    return status;
  }
  json_t *object = json_object();
  json_object_set_new(object, "ok", json_true());
  json_object_set_new(object, "healthy", json_boolean(view.healthy()));
  json_object_set_new(object, "max_age_s", json_integer(max_age_ms / 1000));
  json_object_set_new(object, "integrity", integrity_json(view));
  json_object_set_new(object, "entries", entries_json(view));
  json_object_set_new(object, "watchdog", watchdog_json(view.watchdog));
  const int printed = print_json(inv, object);
  return printed != kExitOk ? printed : status;
}

// Reads the value of option name: *out keeps its default when the option
// has no value; false after the usage error when the value is not 1 to
// kMaxSeconds.
bool seconds_option(const Invocation &inv, const char *name, uint64_t *out) {
  const std::string text = inv.value(name);
  if (text.empty()) return true;
  if (parse_unsigned(text, kMaxSeconds, out) && *out > 0) return true;
  fail(inv, kExitUsage, std::string("bad value of ") + name + ": " + text + " (a whole number of seconds, 1 to 86400)");
  return false;
}

}  // namespace

int run_status(const Invocation &inv) {
  uint64_t max_age = kDefaultMaxAge;
  uint64_t every = kDefaultWatch;
  if (!seconds_option(inv, "--max-age", &max_age) || !seconds_option(inv, "--watch", &every)) return kExitUsage;
  if (!inv.option("--watch")) return show(inv, (int64_t)max_age * 1000);
  // Redrawn until the program is stopped (or its output closed): on a
  // terminal the screen is cleared first, elsewhere frames are separated
  // by a blank line.
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  for (bool first = true;; first = false) {
    if (terminal) {
      printf("\033[H\033[2J");
    } else if (!first) {
      putchar('\n');
    }
    show(inv, (int64_t)max_age * 1000);
    if (fflush(stdout) != 0) return kExitMissing;
    struct timespec pause = {(time_t)every, 0};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }
}

}  // namespace tarnctl
