// apphome show | check | restore | reduce: the app home record
// "tarn_apphome.ini" and its backup at the install root.

#include <errno.h>
#include <stdio.h>

#include <memory>
#include <string>

#include <tarn_apphome.h>
#include <tarn_directory.h>
#include <tarnbase/tarn_ini.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

constexpr char kBackupFileName[] = "tarn_apphome_backup.ini";
constexpr char kCompanionKey[] = "app_home_x86";
constexpr size_t kPathSize = 1024;

}  // namespace

std::string install_root() {
  char root[kPathSize] = {0};
  return get_tarn_path(root, sizeof(root)) == 0 ? root : "";
}

std::string record_path() {
  char path[kPathSize] = {0};
  return tarn_apphome_get_file(path, sizeof(path)) == 0 ? path : "";
}

std::string backup_path() { return install_root() + "/" + kBackupFileName; }

namespace {

std::string under_root(const std::string &name) { return install_root() + "/" + name; }

// The names a record file gives: app home and, where the machine needs one,
// the companion app home.
struct Names {
  std::string apphome;
  std::string companion;
};

// Reads the names of the record file path under its lock. Returns whether
// the file named an app home.
bool read_names(const std::string &path, Names *names) {
  char apphome[kPathSize] = {0};
  char companion[kPathSize] = {0};
  if (tarn_apphome_get_apphome(path.c_str(), apphome, sizeof(apphome), companion, sizeof(companion)) != 0) {
    return false;
  }
  names->apphome = apphome;
  names->companion = companion;
  return true;
}

std::string names_text(const Names &names) {
  std::string text = "app_home=" + names.apphome;
  if (tarn_apphome_com_arch_str() != nullptr) text += std::string(", ") + kCompanionKey + "=" + names.companion;
  return text;
}

// The names as members of the --json answer.
void answer_names(const Invocation &inv, const Names &names) {
  answer(inv, "app_home", json_string(names.apphome.c_str()));
  if (tarn_apphome_com_arch_str() != nullptr) answer(inv, kCompanionKey, json_string(names.companion.c_str()));
}

// The exit code of a validity result.
int validity_exit(int32_t result) {
  switch (result) {
    case TARN_APPHOME_VALID:
      return kExitOk;
    case TARN_APPHOME_E_NO_FILE:
    case TARN_APPHOME_E_INVALID:
      return kExitMissing;
    default:
      return kExitNo;
  }
}

struct IniFree {
  void operator()(tarn_ini_t *ini) const { tarn_ini_file_free(ini); }
};

// Prints one record file for "apphome show" and sets it as member label of
// the --json answer. Returns 0 or the exit code of its failure, after the
// error line.
int show_file(const Invocation &inv, const char *label, const std::string &path) {
  say(inv, "%s: %s\n", label, path.c_str());
  json_t *file = json_pack("{s:s}", "path", path.c_str());
  answer(inv, label, file);
  std::unique_ptr<tarn_ini_t, IniFree> ini(tarn_ini_file_load(path.c_str()));
  if (!ini) {
    const int error = errno;
    const std::string why = error == EINVAL ? "not a valid ini file" : error_text(error);
    json_object_set_new(file, "problem", json_string(why.c_str()));
    return fail(inv, error == EINVAL ? kExitBadData : kExitMissing, std::string(label) + " " + path + ": " + why);
  }
  struct Walk {
    const Invocation &inv;
    json_t *sections;
    std::string section;
    bool first = true;
  } walk{inv, json_object(), "", true};
  json_object_set_new(file, "sections", walk.sections);
  tarn_ini_file_foreach(ini.get(), &walk, [](void *user, const char *section, const char *key, const char *value) {
    auto *state = static_cast<Walk *>(user);
    if (state->first || state->section != section) say(state->inv, "  [%s]\n", section);
    state->first = false;
    state->section = section;
    say(state->inv, "  %s=%s\n", key, value);
    json_t *keys = json_object_get(state->sections, section);
    if (keys == nullptr) {
      keys = json_object();
      json_object_set_new(state->sections, section, keys);
    }
    json_object_set_new(keys, key, json_string(value));
    return 0;
  });
  const char *apphome = tarn_ini_file_get(ini.get(), "apphome", "app_home");
  if (apphome != nullptr) {
    say(inv, "  app home: %s\n", under_root(apphome).c_str());
    json_object_set_new(file, "app_home", json_string(under_root(apphome).c_str()));
  }
  const char *companion = tarn_ini_file_get(ini.get(), "apphome", kCompanionKey);
  if (companion != nullptr) {
    say(inv, "  companion app home: %s\n", under_root(companion).c_str());
    json_object_set_new(file, "companion_app_home", json_string(under_root(companion).c_str()));
  }
  return kExitOk;
}

// Writes the record with tarn_apphome_update. Returns 0 or the exit code of
// its failure, after the error line.
int record_names(const Invocation &inv, const Names &names) {
  const char *companion = names.companion.empty() ? nullptr : names.companion.c_str();
  clear_log_problems();
  const int32_t result = tarn_apphome_update(names.apphome.c_str(), companion);
  if (result == 0) return kExitOk;
  const std::string why = step_reason("error " + std::to_string(result));
  if (result == 1) return fail(inv, kExitLocked, "the record or its lock cannot be had: " + why);
  if (result == EINVAL) return fail(inv, kExitBadData, "the backup's names cannot be written to a record: " + why);
  return fail(inv, kExitMissing, "the record cannot be written: " + error_text(result));
}

}  // namespace

std::string validity_text(int32_t result, const std::string &path) {
  Names names;
  read_names(path, &names);
  switch (result) {
    case TARN_APPHOME_VALID:
      return "valid: " + path + " names app home " + under_root(names.apphome);
    case TARN_APPHOME_E_NO_FILE:
      return path + " does not exist";
    case TARN_APPHOME_E_NO_APPHOME:
      return path + " cannot be read or names no app home (no \"app_home\" in section \"apphome\")";
    case TARN_APPHOME_E_NO_ARCH_APPHOME:
      return path + " names no companion app home (\"" + kCompanionKey +
             "\"), which this machine needs";
    case TARN_APPHOME_E_APPHOME_DIR:
      return "the app home " + under_root(names.apphome) + " that " + path +
             " names is not operational (no config/flags/flag_operational nor its spare)";
    case TARN_APPHOME_E_ARCH_APPHOME_DIR:
      return "the companion app home " + under_root(names.companion) + " that " + path +
             " names is not operational (no config/flags/flag_operational nor its spare)";
    default:
      return "the install root cannot be had";
  }
}

int run_apphome_show(const Invocation &inv) {
  const int record = show_file(inv, "record", record_path());
  const int backup = show_file(inv, "backup", backup_path());
  return record != kExitOk ? record : backup;
}

int run_apphome_check(const Invocation &inv) {
  const std::string path = inv.option("--backup") ? backup_path() : record_path();
  const int32_t result = tarn_apphome_check_validity(path.c_str());
  answer(inv, "file", json_string(path.c_str()));
  answer(inv, "valid", json_boolean(result == TARN_APPHOME_VALID));
  if (result != TARN_APPHOME_VALID) return fail(inv, validity_exit(result), "invalid: " + validity_text(result, path));
  Names names;
  read_names(path, &names);
  answer(inv, "app_home", json_string(under_root(names.apphome).c_str()));
  say(inv, "%s\n", validity_text(result, path).c_str());
  return kExitOk;
}

int run_apphome_restore(const Invocation &inv) {
  const std::string backup = backup_path();
  const int32_t validity = tarn_apphome_check_validity(backup.c_str());
  if (validity != TARN_APPHOME_VALID) {
    return fail(inv, validity_exit(validity),
                "backup not restored, the record is left as it was: " + validity_text(validity, backup));
  }
  Names names;
  if (!read_names(backup, &names)) return fail(inv, kExitMissing, "the backup " + backup + " cannot be read");
  const int code = record_names(inv, names);
  if (code != kExitOk) return code;
  answer_names(inv, names);
  say(inv, "restored: %s\n", names_text(names).c_str());
  return kExitOk;
}

int run_apphome_reduce(const Invocation &inv) {
  const std::string record = record_path();
  const std::string backup = backup_path();
  // Which of the three sources the library will trust, as far as can be
  // told beforehand.
  clear_log_problems();
  const bool record_valid = tarn_apphome_check_validity(record.c_str()) == TARN_APPHOME_VALID;
  const bool backup_checked_valid = !record_valid && tarn_apphome_check_validity(backup.c_str()) == TARN_APPHOME_VALID;
  // The reduction begins with the same checks, which log the same lines
  // again; they say why the record and the backup were not used, not why
  // the rebuild after them failed.
  const size_t checks_logged = step_line_count();
  Names backup_names;
  const bool backup_valid = backup_checked_valid && read_names(backup, &backup_names);

  clear_log_problems();
  if (tarn_apphome_reduction_file() != 0) {
    return fail(inv, kExitNo, "no usable record could be had: " + step_reason("reduction failed", checks_logged));
  }
  Names names;
  if (!read_names(record, &names)) return fail(inv, kExitMissing, "the record " + record + " cannot be read");
  const char *how = record_valid ? "valid"
                    : backup_valid && names.apphome == backup_names.apphome ? "restored from the backup"
                                                                            : "rebuilt from the directories";
  answer(inv, "how", json_string(how));
  answer_names(inv, names);
  say(inv, "%s: %s\n", how, names_text(names).c_str());
  return kExitOk;
}

}  // namespace tarnctl
