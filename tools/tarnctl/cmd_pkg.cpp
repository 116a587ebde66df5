// pkg list | unpack | show | verify: package archives, component manifests
// and the files they list.

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <string>

#include <com_info.h>
#include <openssl/evp.h>
#include <qiv_ejs/qiv_ejs.h>
#include <tarn_utils.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_path.h>
#include <untgz.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

constexpr char kManifestDir[] = "/config/component_info";
constexpr char kManifestExt[] = ".ejs";
constexpr char kRootPrefix[] = "__ROOT";
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
                    last_log_problem("load failed"));
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

// A listed file's path below the package directory: a name that begins
// with "__ROOT" is looked for without it and the separator after it.
std::string file_path(const std::string &dir, const char *name) {
  const size_t length = sizeof(kRootPrefix) - 1;
  if (strncmp(name, kRootPrefix, length) == 0) name += name[length] == '\0' ? length : length + 1;
  return dir + "/" + name;
}

struct DigestFree {
  void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};

// The SHA-256 digest of the file at path in lower-case hexadecimal. Returns
// 0, or the errno of opening or reading it.
int sha256_file(const std::string &path, std::string *hex) {
  std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "rbe"), fclose);
  if (!file) return errno;
  std::unique_ptr<EVP_MD_CTX, DigestFree> context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return ENOMEM;
  char buffer[65536];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof(buffer), file.get())) > 0) {
    if (EVP_DigestUpdate(context.get(), buffer, got) != 1) return ENOMEM;
  }
  if (ferror(file.get()) != 0) return errno != 0 ? errno : EIO;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return ENOMEM;
  hex->clear();
  for (unsigned int i = 0; i < length; ++i) {
    char pair[3];
    snprintf(pair, sizeof(pair), "%02x", digest[i]);
    hex->append(pair);
  }
  return 0;
}

std::string lower(std::string text) {
  for (char &c : text) c = (char)tolower((unsigned char)c);
  return text;
}

// The number of files in the manifest directory that load_local_pack
// takes for manifests: entries that are not directories and whose names end
// in ".ejs", at most COM_INFO_MAX_LOCAL_MANIFESTS.
uint32_t count_manifests(const std::string &dir) {
  uint32_t count = 0;
  tarn_dirutils_listdir((dir + kManifestDir).c_str(), &count, [](int type, const char *path, void *user) {
    auto *found = static_cast<uint32_t *>(user);
    if (type != TARN_DIRUTILS_DIR && strcmp(tarn_path_get_ext_u(path), kManifestExt) == 0 &&
        *found < COM_INFO_MAX_LOCAL_MANIFESTS) {
      ++*found;
    }
    return 0;
  });
  return count;
}

// The error line of a failed extraction, from what the library logged and
// what the programs it ran wrote to standard error.
std::string unpack_reason(const std::string &archive, const std::string &program_errors) {
  std::string first_line;
  const size_t start = program_errors.find_first_not_of(" \t\n");
  if (start != std::string::npos) first_line = program_errors.substr(start, program_errors.find('\n', start) - start);
  std::string reason = "cannot unpack " + archive;
  if (!log_problems().empty()) reason += ": " + log_problems().back();
  if (!first_line.empty()) reason += ": " + first_line;
  if (log_problems().empty() && first_line.empty()) reason += ": not a complete tar-gzip archive";
  return reason;
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
  clear_log_problems();
  if (load_local_pack(dir.c_str(), &list) != 0) {
    return fail(inv, kExitMissing, "no package manifest in " + dir + kManifestDir);
  }
  const auto *items = static_cast<const com_depend *>(list.items);
  for (uint32_t i = 0; i < list.count; ++i) printf("%s %s\n", items[i].name, version_text(items[i].version).c_str());
  const uint32_t listed = list.count;
  free_com_list_var(&list);

  const uint32_t found = dir[0] == '@' ? listed : count_manifests(dir);
  if (listed >= found && log_problems().empty()) return kExitOk;
  for (const std::string &problem : log_problems()) complain(inv, "skipped: " + problem);
  if (listed < found) complain(inv, std::to_string(found - listed) + " of " + std::to_string(found) + " manifests could not be loaded");
  return kExitBadData;
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
  if (result != 0) return fail(inv, kExitBadData, unpack_reason(archive, program_errors));
  printf("unpacked %s into %s\n", archive.c_str(), dest.c_str());
  return kExitOk;
}

int run_pkg_show(const Invocation &inv) {
  Manifest manifest;
  const int code = load_manifest(inv, inv.args[0], &manifest);
  if (code != kExitOk) return code;
  const com_info_var &info = *manifest;
  printf("package: %s\n", info.package);
  printf("version: %s\n", version_text(info.version).c_str());
  printf("requirement: %s\n", yes_no(info.requirement));
  printf("scripts_skippable: %s\n", yes_no(info.scripts_skippable));
  printf("retry: %s\n", yes_no(info.retry));
  printf("arch_bind: %d\n", (int)info.arch_bind);
  printf("arch: %s\n", joined(info.archs, info.arch_count).c_str());
  printf("platform: %s\n", joined(info.platforms, info.platform_count).c_str());
  std::string depends;
  for_each_stored(info.depends, info.depend_count, [](const com_depend &d) { return d.name != nullptr; },
                  [&](const com_depend &d) { depends += (depends.empty() ? "" : " ") + std::string(d.name); });
  printf("depends: %s\n", depends.empty() ? "-" : depends.c_str());
  printf("files: %u\n", (unsigned)info.file_count);
  for_each_stored(info.files, info.file_count, file_is_set,
                  [](const com_file &file) { printf("file: %s %s\n", file.sha256, file.name); });
  return kExitOk;
}

int run_pkg_verify(const Invocation &inv) {
  const std::string &dir = inv.args[0];
  if (!is_directory(dir)) {
    const int error = path_error(dir);
    return fail(inv, kExitMissing, dir + ": " + error_text(error != 0 ? error : ENOTDIR));
  }
  Manifest manifest;
  const int code = load_manifest(inv, inv.args[1], &manifest);
  if (code != kExitOk) return code;
  const com_info_var &info = *manifest;

  const bool all_present = check_file(dir.c_str(), &info) == 0;
  uint32_t checked = 0;
  uint32_t missing = 0;
  uint32_t unreadable = 0;
  uint32_t mismatching = 0;
  for_each_stored(info.files, info.file_count, file_is_set, [&](const com_file &file) {
    ++checked;
    const std::string path = file_path(dir, file.name);
    int error = 0;
    std::string problem = regular_file_problem(path, &error);
    std::string digest;
    if (problem.empty()) {
      error = sha256_file(path, &digest);
      if (error != 0) problem = error_text(error);
    }
    if (error == ENOENT) {
      ++missing;
      complain(inv, std::string(file.name) + ": missing (" + path + ")");
    } else if (!problem.empty()) {
      ++unreadable;
      complain(inv, std::string(file.name) + ": unreadable (" + path + "): " + problem);
    } else if (digest != lower(file.sha256)) {
      ++mismatching;
      complain(inv, std::string(file.name) + ": digest mismatch: manifest " + file.sha256 + ", file " + digest);
    } else {
      printf("ok %s\n", file.name);
    }
  });
  printf("verified: %u files, %u missing, %u unreadable, %u mismatching\n", checked, missing, unreadable,
         mismatching);
  if (!all_present && missing == 0) complain(inv, "the library's presence check failed");
  return all_present && missing + unreadable + mismatching == 0 ? kExitOk : kExitNo;
}

}  // namespace tarnctl
