// metrics: the heartbeat table and the app home record in the Prometheus
// text exposition format (version 0.0.4), for node_exporter's textfile
// collector.

#include <stdio.h>

#include <string>
#include <vector>

#include <tarn_apphome.h>

#include "heartbeat_view.h"
#include "tarnctl.h"

namespace tarnctl {
namespace {

// The age at which status counts an entry as timed out by default.
constexpr int64_t kMaxAgeMs = 60000;

// A label value with backslash, double quote and line end escaped as the
// format requires.
std::string escaped(const std::string &value) {
  std::string text;
  for (const char c : value) {
    if (c == '\\') {
      text += "\\\\";
    } else if (c == '"') {
      text += "\\\"";
    } else if (c == '\n') {
      text += "\\n";
    } else {
      text += c;
    }
  }
  return text;
}

// With --json the families are gathered here instead of printed.
json_t *g_families = nullptr;

// One metric family: its HELP and TYPE lines, then its samples; with
// --json, an object {name, type, help, samples} of g_families.
class Family {
 public:
  Family(const char *name, const char *type, const char *help) : name_(name) {
    if (g_families == nullptr) {
      printf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
      return;
    }
    samples_ = json_array();
    json_array_append_new(g_families, json_pack("{s:s, s:s, s:s, s:O}", "name", name, "type", type, "help",
                                                help, "samples", samples_));
    json_decref(samples_);  // the family holds it now
  }
  // labels: name and value pairs.
  void sample(const std::vector<std::pair<std::string, std::string>> &labels, double value) const {
    if (samples_ != nullptr) {
      json_t *names = json_object();
      for (const auto &label : labels) json_object_set_new(names, label.first.c_str(), json_string(label.second.c_str()));
      json_array_append_new(samples_, json_pack("{s:o, s:f}", "labels", names, "value", value));
      return;
    }
    std::string text = name_;
    if (!labels.empty()) {
      text += "{";
      for (size_t i = 0; i < labels.size(); ++i) {
        text += (i == 0 ? "" : ",") + labels[i].first + "=\"" + escaped(labels[i].second) + "\"";
      }
      text += "}";
    }
    printf("%s %.15g\n", text.c_str(), value);
  }

 private:
  std::string name_;
  json_t *samples_ = nullptr;  // owned by g_families
};

void table_metrics(const TableView &view, bool up) {
  Family("tarnaux_heartbeat_table_up", "gauge",
         "Whether the heartbeat table could be read (1) or not: missing, or its lock not had (0).")
      .sample({}, up ? 1 : 0);
  if (!up) return;
  const Family intact("tarnaux_heartbeat_table_check_ok", "gauge",
                      "Whether each integrity check of the heartbeat table passed.");
  for (const IntegrityCheck &check : view.integrity) intact.sample({{"check", check.name}}, check.ok ? 1 : 0);
  const Family states("tarnaux_heartbeat_entries", "gauge", "Process entries of the heartbeat table by state.");
  for (const EntryState state :
       {EntryState::kOk, EntryState::kLate, EntryState::kTimedOut, EntryState::kDead, EntryState::kReused}) {
    size_t count = 0;
    for (const EntryView &entry : view.entries) count += entry.state == state;
    states.sample({{"state", state_text(state)}}, (double)count);
  }
  const Family age("tarnaux_heartbeat_age_seconds", "gauge", "Seconds since the entry's last beat.");
  for (const EntryView &entry : view.entries) {
    const std::vector<std::pair<std::string, std::string>> labels = {
        {"slot", std::to_string(entry.slot)}, {"pid", std::to_string(entry.pid)}, {"name", entry.name},
        {"type", type_name(entry.type)},      {"state", state_text(entry.state)}};
    age.sample(labels, (double)entry.age_ms / 1000.0);
  }
  // A family's samples follow its own HELP and TYPE lines, before the next
  // family's.
  const Family interval("tarnaux_heartbeat_interval_seconds", "gauge", "The beat interval the entry declared.");
  for (const EntryView &entry : view.entries) {
    interval.sample({{"slot", std::to_string(entry.slot)}, {"pid", std::to_string(entry.pid)}},
                    (double)entry.interval_s);
  }
  Family("tarnaux_watchdog_present", "gauge", "Whether the heartbeat table has a watchdog slot.")
      .sample({}, view.watchdog.present ? 1 : 0);
  if (view.watchdog.present) {
    Family("tarnaux_watchdog_age_seconds", "gauge", "Seconds since the watchdog's last beat.")
        .sample({}, (double)view.watchdog.age_ms / 1000.0);
  }
  Family("tarnaux_healthy", "gauge", "Whether tarnctl status would exit 0.").sample({}, view.healthy() ? 1 : 0);
}

void record_metrics() {
  const std::string record = record_path();
  const std::string backup = backup_path();
  const Family valid("tarnaux_apphome_record_valid", "gauge",
                     "Whether the app home record (file=\"record\") and its backup (file=\"backup\") are valid.");
  valid.sample({{"file", "record"}}, tarn_apphome_check_validity(record.c_str()) == TARN_APPHOME_VALID ? 1 : 0);
  valid.sample({{"file", "backup"}}, tarn_apphome_check_validity(backup.c_str()) == TARN_APPHOME_VALID ? 1 : 0);
  Family("tarnaux_apphome_backup_matches", "gauge", "Whether the backup holds the same bytes as the record.")
      .sample({}, path_error(record) == 0 && file_contents(record) == file_contents(backup) ? 1 : 0);
}

}  // namespace

int run_metrics(const Invocation &inv) {
  TableView view;
  std::string reason;
  // A missing table is a metric of its own; the error line still says why.
  const bool up = read_table_view(inv, kMaxAgeMs, &view, &reason) == kExitOk;
  if (!up) complain(inv, reason);
  if (inv.json()) g_families = json_array();
  table_metrics(view, up);
  record_metrics();
  if (g_families == nullptr) return kExitOk;
  json_t *families = g_families;
  g_families = nullptr;
  // As every answer: "ok" false, with the error line's reason, when one was written.
  json_t *answer = json_pack("{s:b}", "ok", up ? 1 : 0);
  if (!up) json_object_set_new(answer, "error", json_string(reason.c_str()));
  json_object_set_new(answer, "metrics", families);
  return print_json(inv, answer);
}

}  // namespace tarnctl
