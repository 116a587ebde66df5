// upgrade status|begin|check|commit|rollback: upgrades on trial.

#include <stdio.h>

#include <memory>
#include <string>

#include <jansson.h>
#include <tarn_heartbeat.h>
#include <tarn_upgrade.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

struct JsonFree {
  void operator()(json_t *json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonFree>;

// Any mode other than 0 (which clears the table) and 1 (which creates an
// empty segment) attaches to an existing table only.
constexpr uint32_t kAttachExistingOnly = 2;

// The exit code and words for a family result other than 0.
int exit_code(int32_t result) {
  switch (result) {
    case TARN_UPGRADE_E_INVALID:
      return kExitUsage;
    case TARN_UPGRADE_E_LOCK:
    case TARN_UPGRADE_E_HEARTBEAT:
      return kExitLocked;
    case TARN_UPGRADE_E_JOURNAL:
    case TARN_UPGRADE_E_RECORD:
    case TARN_UPGRADE_E_SERVICE:
      return kExitMissing;
    default:
      return kExitNo;
  }
}

std::string result_text(int32_t result) {
  switch (result) {
    case TARN_UPGRADE_E_INVALID: return "invalid argument";
    case TARN_UPGRADE_E_NOT_OPERATIONAL: return "the new app home is not operational";
    case TARN_UPGRADE_E_BUSY: return "an upgrade is on trial already";
    case TARN_UPGRADE_E_NO_TRIAL: return "no upgrade is on trial";
    case TARN_UPGRADE_E_LOCK: return "the upgrade lock could not be taken";
    case TARN_UPGRADE_E_JOURNAL: return "the upgrade journal could not be saved";
    case TARN_UPGRADE_E_RECORD: return "the app home record could not be read or updated";
    case TARN_UPGRADE_E_HEARTBEAT: return "the heartbeat table could not be read";
    case TARN_UPGRADE_E_SERVICE: return "the fallback's service could not be restarted";
    default: return "unknown result " + std::to_string(result);
  }
}

// A failure: the error line, and with --json the answer with "ok" false,
// "error" and members (owned, may be null).
int refuse(const Invocation &inv, int code, const std::string &reason, json_t *members) {
  JsonPtr owned(members);
  fail(inv, code, reason);
  if (!inv.option("--json")) return code;
  json_t *answer = json_object();
  json_object_set_new(answer, "ok", json_false());
  json_object_set_new(answer, "error", json_string(reason.c_str()));
  if (owned) json_object_update(answer, owned.get());
  const int printed = print_json(inv, answer);
  return printed != kExitOk ? printed : code;
}

// Ends a subcommand: refuse() for a failure (the reason is the step's first
// warn line, or the result's words), the answer or nothing for
// success. Takes members (may be null).
int finish(const Invocation &inv, int32_t result, json_t *members) {
  if (result != TARN_UPGRADE_OK) {
    return refuse(inv, exit_code(result), step_reason(result_text(result)), members);
  }
  JsonPtr owned(members);
  if (!inv.option("--json")) return kExitOk;
  json_t *answer = json_object();
  json_object_set_new(answer, "ok", json_true());
  if (owned) json_object_update(answer, owned.get());
  return print_json(inv, answer);
}

}  // namespace

int run_upgrade_status(const Invocation &inv) {
  clear_log_problems();
  tarn_upgrade_status_t status;
  const int32_t result = tarn_upgrade_status(&status);
  if (result != TARN_UPGRADE_OK) return finish(inv, result, nullptr);
  if (!inv.option("--json")) {
    printf("state: %s\n", tarn_upgrade_state_text(status.state));
    printf("previous app home: %s\n", status.old_apphome);
    if (status.old_apphome_arch[0] != '\0') printf("previous companion app home: %s\n", status.old_apphome_arch);
    printf("new app home: %s\n", status.new_apphome);
    if (status.new_apphome_arch[0] != '\0') printf("new companion app home: %s\n", status.new_apphome_arch);
    printf("trial: %d s\n", status.trial_seconds);
    if (status.seconds_left >= 0) printf("time left: %lld s\n", (long long)status.seconds_left);
    printf("last verdict: %s\n", status.last_verdict);
    if (status.reason[0] != '\0') printf("rollback reason: %s\n", status.reason);
    return kExitOk;
  }
  json_t *members = json_object();
  json_object_set_new(members, "state", json_string(tarn_upgrade_state_text(status.state)));
  json_object_set_new(members, "old_app_home", json_string(status.old_apphome));
  json_object_set_new(members, "old_app_home_x86", json_string(status.old_apphome_arch));
  json_object_set_new(members, "new_app_home", json_string(status.new_apphome));
  json_object_set_new(members, "new_app_home_x86", json_string(status.new_apphome_arch));
  json_object_set_new(members, "trial_seconds", json_integer(status.trial_seconds));
  json_object_set_new(members, "seconds_left", json_integer(status.seconds_left));
  json_object_set_new(members, "last_verdict", json_string(status.last_verdict));
  json_object_set_new(members, "reason", json_string(status.reason));
  return finish(inv, TARN_UPGRADE_OK, members);
}

int run_upgrade_begin(const Invocation &inv) {
  uint64_t seconds = 0;
  if (!parse_unsigned(inv.args[1], TARN_UPGRADE_MAX_TRIAL_SECONDS, &seconds) ||
      seconds < TARN_UPGRADE_MIN_TRIAL_SECONDS) {
    return refuse(inv, kExitUsage,
                  "trial length " + inv.args[1] + " is not a number of seconds from 1 to 604800", nullptr);
  }
  clear_log_problems();
  const char *arch = inv.args.size() > 2 ? inv.args[2].c_str() : nullptr;
  const int32_t result = tarn_upgrade_begin(inv.args[0].c_str(), arch, (int32_t)seconds);
  if (result == TARN_UPGRADE_OK && !inv.option("--json")) {
    printf("%s on trial for %llu s\n", inv.args[0].c_str(), (unsigned long long)seconds);
  }
  return finish(inv, result, nullptr);
}

int run_upgrade_check(const Invocation &inv) {
  clear_log_problems();
  tarn_upgrade_verdict_t verdict = {TARN_UPGRADE_VERDICT_NONE, 0, "the heartbeat table is not available"};
  int32_t result = TARN_UPGRADE_E_HEARTBEAT;
  if (proc_heartbeat_init(kAttachExistingOnly) == PROC_HEARTBEAT_OK) {
    result = tarn_upgrade_check(&verdict);
    proc_heartbeat_deinit(false);
  }
  json_t *members = json_object();
  json_object_set_new(members, "verdict", json_string(tarn_upgrade_verdict_text(verdict.verdict)));
  json_object_set_new(members, "seconds_left", json_integer(verdict.seconds_left));
  json_object_set_new(members, "reason", json_string(verdict.reason));
  if (result == TARN_UPGRADE_OK && !inv.option("--json")) {
    printf("%s: %s\n", tarn_upgrade_verdict_text(verdict.verdict), verdict.reason);
  }
  return finish(inv, result, members);
}

int run_upgrade_commit(const Invocation &inv) {
  clear_log_problems();
  const int32_t result = tarn_upgrade_commit();
  if (result == TARN_UPGRADE_OK && !inv.option("--json")) printf("committed\n");
  return finish(inv, result, nullptr);
}

int run_upgrade_rollback(const Invocation &inv) {
  clear_log_problems();
  const int32_t result = tarn_upgrade_rollback(inv.args.empty() ? nullptr : inv.args[0].c_str());
  if (result == TARN_UPGRADE_OK && !inv.option("--json")) printf("rolled back\n");
  return finish(inv, result, nullptr);
}

}  // namespace tarnctl
