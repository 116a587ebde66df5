// pkg list | unpack | show | verify: package archives, component manifests
// and the files they list.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <com_info.h>
#include <qiv_ejs/qiv_ejs.h>
#include <tarn_utils.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_path.h>
#include <untgz.h>
#include <version_mgr.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

constexpr char kManifestDir[] = "/config/component_info";
constexpr char kManifestExt[] = ".ejs";
constexpr size_t kVerifyReportSize = 1 << 20;
constexpr size_t kPathSize = 1024;
// Characters that the shell still interprets inside double quotes.
constexpr char kShellActive[] = "\"$`\\";

std::string version_text(const version_mgr_version &version) {
  char text[64] = {0};
  version_mgr_version_tostring(&version, text, sizeof(text));
  return text;
}

// A component record freed at the end of its scope.
class Manifest {
 public:
  Manifest() { memset(&info_, 0, sizeof(info_)); }
  ~Manifest() { free_com_info_var(&info_); }
  Manifest(const Manifest &) = delete;
  Manifest &operator=(const Manifest &) = delete;
  com_info_var *get() { return &info_; }
  const com_info_var &operator*() const { return info_; }

 private:
  com_info_var info_;
};

// Why the protected file at path does not load, and the exit code for it.
int manifest_load_failure(const Invocation &inv, const std::string &path) {
  json_error_t error;
  json_t *tree = qiv_json_load_file_ejs_ex(path.c_str(), 0, &error);
  const int cause = errno;
  if (tree != nullptr) {
    qiv_json_decref_ejs(tree);
    return fail(inv, kExitBadData,
                path + ": not a component manifest (it needs the strings \"package\" and \"version\", a valid version and a non-empty \"files\" list): " +
                    step_reason("the library gave no reason"));
  }
  if (cause == EBADMSG) {
    return fail(inv, kExitBadData, path + ": not a protected file, or changed, cut or sealed with another key");
  }
  if (cause == EINVAL || cause == EFBIG) return fail(inv, kExitBadData, path + ": " + error.text);
  return fail(inv, kExitMissing, path + ": " + error_text(cause));
}

// Loads the manifest at path into manifest. Returns 0 or the exit code of
// the failure, after the error line.
int load_manifest(const Invocation &inv, const std::string &path, Manifest *manifest) {
  const int missing = path_error(path);
  if (missing != 0) return fail(inv, kExitMissing, path + ": " + error_text(missing));
  clear_log_problems();
  if (load_com_info(path.c_str(), manifest->get()) != 0) return manifest_load_failure(inv, path);
  return kExitOk;
}

// Calls fn for each stored entry of an array of a component record. Stored
// entries are the non-empty slots, count of them; a manifest entry that was
// skipped leaves an empty slot and moves the later ones past the count, so
// the walk goes on until it has met count entries.
template <typename Entry, typename IsSet, typename Fn>
void for_each_stored(const Entry *slots, uint32_t count, IsSet is_set, Fn fn) {
  if (slots == nullptr) return;
  for (uint32_t i = 0, met = 0; met < count; ++i) {
    if (!is_set(slots[i])) continue;
    ++met;
    fn(slots[i]);
  }
}

std::string joined(char *const *items, uint32_t count) {
  std::string text;
  for_each_stored(items, count, [](const char *item) { return item != nullptr; },
                  [&](const char *item) { text += (text.empty() ? "" : " ") + std::string(item); });
  return text.empty() ? "-" : text;
}

bool file_is_set(const com_file &file) { return file.name != nullptr && file.sha256 != nullptr; }

const char *yes_no(uint32_t flag) { return flag != 0 ? "yes" : "no"; }

// The files in the manifest directory that load_local_pack takes for
// manifests: entries that are not directories and whose names end in
// ".ejs", at most COM_INFO_MAX_LOCAL_MANIFESTS, sorted by name. dir may
// begin with "@".
std::vector<std::string> manifest_paths(const std::string &dir) {
  char expanded[kPathSize] = {0};
  if (tarn_dirutils_path_transform(dir.c_str(), expanded, sizeof(expanded)) != 0) return {};
  std::vector<std::string> paths;
  tarn_dirutils_listdir((expanded + std::string(kManifestDir)).c_str(), &paths, [](int type, const char *path, void *user) {
    auto *found = static_cast<std::vector<std::string> *>(user);
    if (type != TARN_DIRUTILS_DIR && strcmp(tarn_path_get_ext_u(path), kManifestExt) == 0 &&
        found->size() < COM_INFO_MAX_LOCAL_MANIFESTS) {
      found->push_back(path);
    }
    return 0;
  });
  std::sort(paths.begin(), paths.end());
  return paths;
}

// Why load_local_pack leaves the manifest at path out, "" when it does
// not: the library's reason from reading the manifest's version on its own,
// or the missing package name.
std::string list_problem(const std::string &path) {
  clear_log_problems();
  version_mgr_version version = {0, 0, 0};
  if (version_mgr_get_packman_version_by_file(path.c_str(), &version) != 0) {
    return step_reason("the manifest's version cannot be read");
  }
  json_t *tree = qiv_json_load_file_ejs(path.c_str());
  const bool named = qiv_json_string_value_ejs(qiv_json_object_get_ejs(tree, "package")) != nullptr;
  qiv_json_decref_ejs(tree);
  return named ? "" : "no \"package\" string";
}

// The reason of a failed extraction: the first line that the library
// logged for it, and the first line that the programs it ran (tar) wrote to
// standard error.
std::string unpack_reason(const std::string &archive, const std::string &program_errors) {
  std::string first_line;
  const size_t start = program_errors.find_first_not_of(" \t\n");
  if (start != std::string::npos) first_line = program_errors.substr(start, program_errors.find('\n', start) - start);
  std::string reason = "cannot unpack " + archive + ": " + step_reason("not a complete tar-gzip archive");
  if (!first_line.empty()) reason += ": " + first_line;
  return reason;
}

json_t *json_list(char *const *items, uint32_t count) {
  json_t *list = json_array();
  for_each_stored(items, count, [](const char *item) { return item != nullptr; },
                  [&](const char *item) { json_array_append_new(list, json_string(item)); });
  return list;
}

bool ends_with(const std::string &text, const std::string &end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

int run_pkg_list(const Invocation &inv) {
  const std::string &dir = inv.args[0];
  if (dir[0] != '@' && !is_directory(dir)) {
    const int error = path_error(dir);
    return fail(inv, kExitMissing, dir + ": " + error_text(error != 0 ? error : ENOTDIR));
  }
  com_list_var list;
  memset(&list, 0, sizeof(list));
  if (load_local_pack(dir.c_str(), &list) != 0) {
    return fail(inv, kExitMissing, "no package manifest in " + dir + kManifestDir);
  }
  const auto *items = static_cast<const com_depend *>(list.items);
  json_t *packages = json_array();
  for (uint32_t i = 0; i < list.count; ++i) {
    const std::string version = version_text(items[i].version);
    say(inv, "%s %s\n", items[i].name, version.c_str());
    json_array_append_new(packages, json_pack("{s:s, s:s}", "name", items[i].name, "version", version.c_str()));
  }
  answer(inv, "packages", packages);
  const uint32_t listed = list.count;
  free_com_list_var(&list);

  const std::vector<std::string> manifests = manifest_paths(dir);
  const uint32_t found = std::max<uint32_t>(listed, (uint32_t)manifests.size());
  answer(inv, "manifests", json_integer(found));
  json_t *skipped = json_array();
  answer(inv, "skipped", skipped);
  if (listed >= found) return kExitOk;
  for (const std::string &path : manifests) {
    const std::string problem = list_problem(path);
    if (problem.empty()) continue;
    complain(inv, "skipped " + path + ": " + problem);
    json_array_append_new(skipped, json_pack("{s:s, s:s}", "manifest", path.c_str(), "reason", problem.c_str()));
  }
  return fail(inv, kExitBadData,
              std::to_string(found - listed) + " of " + std::to_string(found) + " manifests could not be loaded");
}

int run_pkg_unpack(const Invocation &inv) {
  const std::string &archive = inv.args[0];
  const std::string &dest = inv.args[1];
  int error = 0;
  const std::string problem = regular_file_problem(archive, &error);
  if (!problem.empty()) return fail(inv, kExitMissing, archive + ": " + problem);

  const bool system_tar = inv.option("--system-tar");
  if (system_tar) {
    if (!ends_with(archive, ".tgz")) return fail(inv, kExitUsage, "--system-tar needs an archive whose name ends in .tgz");
    if (archive.find_first_of(kShellActive) != std::string::npos ||
        dest.find_first_of(kShellActive) != std::string::npos) {
      return fail(inv, kExitUsage, "--system-tar refuses paths that hold '\"', '$', '`' or '\\'");
    }
    if (!is_directory(dest)) return fail(inv, kExitMissing, dest + ": not an existing directory");
  }
  clear_log_problems();
  int32_t result = 0;
  const std::string program_errors = capture_stderr(inv.verbose, [&]() {
    result = system_tar ? unpack_tgz(archive.c_str(), dest.c_str()) : untgz_file(archive.c_str(), dest.c_str());
  });
  answer(inv, "archive", json_string(archive.c_str()));
  answer(inv, "destination", json_string(dest.c_str()));
  if (result != 0) return fail(inv, kExitBadData, unpack_reason(archive, program_errors));
  say(inv, "unpacked %s into %s\n", archive.c_str(), dest.c_str());
  return kExitOk;
}

int run_pkg_show(const Invocation &inv) {
  Manifest manifest;
  const int code = load_manifest(inv, inv.args[0], &manifest);
  if (code != kExitOk) return code;
  const com_info_var &info = *manifest;
  const std::string version = version_text(info.version);
  say(inv, "package: %s\n", info.package);
  say(inv, "version: %s\n", version.c_str());
  say(inv, "requirement: %s\n", yes_no(info.requirement));
  say(inv, "scripts_skippable: %s\n", yes_no(info.scripts_skippable));
  say(inv, "retry: %s\n", yes_no(info.retry));
  say(inv, "arch_bind: %d\n", (int)info.arch_bind);
  say(inv, "arch: %s\n", joined(info.archs, info.arch_count).c_str());
  say(inv, "platform: %s\n", joined(info.platforms, info.platform_count).c_str());
  std::string depends;
  json_t *depend_list = json_array();
  for_each_stored(info.depends, info.depend_count, [](const com_depend &d) { return d.name != nullptr; },
                  [&](const com_depend &d) {
                    depends += (depends.empty() ? "" : " ") + std::string(d.name);
                    json_array_append_new(depend_list, json_string(d.name));
                  });
  say(inv, "depends: %s\n", depends.empty() ? "-" : depends.c_str());
  say(inv, "files: %u\n", (unsigned)info.file_count);
  json_t *files = json_array();
  for_each_stored(info.files, info.file_count, file_is_set, [&](const com_file &file) {
    say(inv, "file: %s %s\n", file.sha256, file.name);
    json_array_append_new(files, json_pack("{s:s, s:s}", "name", file.name, "sha256", file.sha256));
  });
  answer(inv, "package", json_string(info.package));
  answer(inv, "version", json_string(version.c_str()));
  answer(inv, "requirement", json_boolean(info.requirement != 0));
  answer(inv, "scripts_skippable", json_boolean(info.scripts_skippable != 0));
  answer(inv, "retry", json_boolean(info.retry != 0));
  answer(inv, "arch_bind", json_integer(info.arch_bind));
  answer(inv, "arch", json_list(info.archs, info.arch_count));
  answer(inv, "platform", json_list(info.platforms, info.platform_count));
  answer(inv, "depends", depend_list);
  answer(inv, "files", files);
  return kExitOk;
}

int run_pkg_verify(const Invocation &inv) {
  const std::string &dir = inv.args[0];
  if (!is_directory(dir)) {
    const int error = path_error(dir);
    return fail(inv, kExitMissing, dir + ": " + error_text(error != 0 ? error : ENOTDIR));
  }
  // Large enough for every line of any real package; a longer report is cut
  // by the library and said so below.
  std::string report(kVerifyReportSize, '\0');
  clear_log_problems();
  const int result = tarn_package_verify(dir.c_str(), &report[0], report.size());
  if (result == TARN_PACKAGE_VERIFY_BAD_MANIFEST) {
    return fail(inv, kExitBadData, step_reason("a manifest does not load, package not verified"));
  }
  if (result < 0) return fail(inv, kExitMissing, "no package manifest in " + dir + kManifestDir);
  report.resize(strlen(report.c_str()));
  int shown = 0;
  json_t *problems = json_array();
  for (size_t start = 0, end = 0; (end = report.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string problem = report.substr(start, end - start);
    complain(inv, problem);
    json_array_append_new(problems, json_string(problem.c_str()));
    ++shown;
  }
  if (shown < result) complain(inv, "report cut after " + std::to_string(shown) + " lines");
  answer(inv, "problems", json_integer(result));
  answer(inv, "reported", problems);
  if (result == 0) {
    say(inv, "verified: every file that the manifests list matches its digest\n");
    return kExitOk;
  }
  say(inv, "verified: %d problems\n", result);
  return kExitNo;
}

}  // namespace tarnctl
