// status: the heartbeat table, read without changing it.

#include <errno.h>
#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include <jansson.h>
#include <tarn_heartbeat.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_time.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

// Any mode other than 0 (which clears the table) and 1 (which creates an
// empty segment) attaches to an existing table only.
constexpr uint32_t kAttachExistingOnly = 2;

struct Row {
  uint32_t slot;
  uint32_t pid;
  uint32_t type;
  uint32_t interval;
  int64_t age_ms;
  bool alive;
};

// The name of a process type, or its number for the types without one.
std::string type_text(uint32_t type) {
  if (type == PROC_HEARTBEAT_TYPE_SERVICE) return "service";
  if (type == PROC_HEARTBEAT_TYPE_WATCHDOG) return "watchdog";
  return std::to_string(type);
}

// Attaches to the table, copies its entries and detaches. Returns 0, or an
// exit code after writing the error line.
int read_table(const Invocation &inv, std::vector<Row> *rows) {
  const int32_t attached = proc_heartbeat_init(kAttachExistingOnly);
  if (attached == ENOENT) {
    return fail(inv, kExitLocked, "no heartbeat table (shared memory proc_heartbeat_shm.name does not exist; has the service run?)");
  }
  if (attached != PROC_HEARTBEAT_OK) {
    const std::string why = attached > 0 ? error_text(attached) : get_heartbeat_errmsg(attached);
    return fail(inv, kExitLocked, "cannot attach the heartbeat table: " + why);
  }
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  const int32_t count = get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS);
  proc_heartbeat_deinit(false);
  if (count == PROC_HEARTBEAT_E_TIMEOUT) {
    return fail(inv, kExitLocked, "the heartbeat table's lock could not be taken within 100 ms");
  }
  if (count < 0) return fail(inv, kExitLocked, std::string("cannot read the heartbeat table: ") + get_heartbeat_errmsg(count));

  const uint64_t now = tarn_time_get_tick_cout();
  for (int32_t i = 0; i < count; ++i) {
    const proc_heartbeat_info_t &entry = entries[i];
    const uint32_t pid = get_beat_proc_pid(&entry);
    rows->push_back(Row{entry.idx, pid, get_beat_proc_type(&entry), get_proc_beat_interval(&entry),
                        (int64_t)(now - entry.tick), tarn_process_is_exist((int)pid) != 0});
  }
  return kExitOk;
}

void print_text(const std::vector<Row> &rows) {
  constexpr char kFormat[] = "%-5s %-9s %-9s %-10s %-10s %s\n";
  printf(kFormat, "SLOT", "PID", "TYPE", "INTERVAL_S", "AGE_MS", "ALIVE");
  for (const Row &row : rows) {
    printf(kFormat, std::to_string(row.slot).c_str(), std::to_string(row.pid).c_str(),
           type_text(row.type).c_str(), std::to_string(row.interval).c_str(),
           std::to_string(row.age_ms).c_str(), row.alive ? "yes" : "no");
  }
}

struct JsonFree {
  void operator()(json_t *json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonFree>;

int print_json(const Invocation &inv, const std::vector<Row> &rows) {
  JsonPtr array(json_array());
  for (const Row &row : rows) {
    json_t *object = json_object();
    json_object_set_new(object, "slot", json_integer(row.slot));
    json_object_set_new(object, "pid", json_integer(row.pid));
    json_object_set_new(object, "type", json_string(type_text(row.type).c_str()));
    json_object_set_new(object, "type_id", json_integer(row.type));
    json_object_set_new(object, "interval_s", json_integer(row.interval));
    json_object_set_new(object, "age_ms", json_integer(row.age_ms));
    json_object_set_new(object, "alive", json_boolean(row.alive));
    json_array_append_new(array.get(), object);
  }
  if (!array || json_dumpf(array.get(), stdout, JSON_INDENT(2) | JSON_PRESERVE_ORDER) != 0) {
    return fail(inv, kExitMissing, "cannot write the JSON text");
  }
  putchar('\n');
  return kExitOk;
}

}  // namespace

int run_status(const Invocation &inv) {
  std::vector<Row> rows;
  const int code = read_table(inv, &rows);
  if (code != kExitOk) return code;
  if (inv.option("--json")) return print_json(inv, rows);
  print_text(rows);
  return kExitOk;
}

}  // namespace tarnctl
