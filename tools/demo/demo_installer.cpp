// demo_installer.cpp -- the installer's part of tarn-demo: the machine's
// checks, a component package made and unpacked, the app home laid out and
// recorded, a service configuration installed, and the record lost and
// rebuilt by reduction.

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <jansson.h>
#include <openssl/evp.h>
#include <qiv_ejs/qiv_ejs.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_mem.h>

#include "demo.h"
#include "demo_util.h"
#include "tarn_apphome.h"
#include "tarn_directory.h"
#include "tarn_environment_check.h"
#include "tarn_process_control.h"
#include "tarn_product.h"
#include "tarn_utils.h"
#include "untgz.h"
#include "version_mgr.h"

namespace demo {
namespace {

constexpr const char *kWorkDir = "/tmp/tarn-demo";
constexpr const char *kTrustedKeysDir = "/etc/velmora/keys.d";
constexpr const char *kComponent = "tarn_base";
constexpr const char *kVersion = "1.4.2";
constexpr const char *kOldVersion = "1.3.9";
constexpr const char *kMinimumVersion = "1.0.0";
constexpr const char *kManifestDir = "config/component_info";
constexpr const char *kServicesDir = "config/services/TARN";
constexpr const char *kServiceName = "tarn_service";
// Sorts before any other UUID, so that the reduction scan meets it first.
constexpr const char *kOldApphome = "00000000-0000-4000-8000-000000000000";
constexpr uint64_t kInstallRootNeed = 64ull << 20;
constexpr uint64_t kDefaultCheckNeed = 512ull << 20;  // what tarn_envc_def asks for
constexpr int32_t kUosMinorThreshold = 1060;
// A name that begins with this is installed at the install root; the
// others go below the app home.
constexpr const char *kRootMark = "__ROOT/";

// The component's files: the name the manifest gives, its text, its mode.
struct PackageFile {
  std::string name;
  std::string text;
  unsigned mode;
};

std::vector<PackageFile> package_files() {
  return {
      {"__ROOT/tarn_service",
       format("#!/bin/sh\n"
              "# Stands in for the agent's service program: -v prints its version.\n"
              "if [ \"$1\" = -v ]; then echo %s; fi\n",
              kVersion),
       0755},
      {"bin/tarn_worker",
       "#!/bin/sh\n"
       "# Stands in for one of the agent's worker programs.\n"
       "exit 0\n",
       0755},
      {"config/tarn_base.ini", "[base]\nlog_level=2\n", 0644},
  };
}

std::string sha256_hex(const std::string &data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    fail("SHA-256 digest failed");
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += format("%02x", digest[i]);
  return hex;
}

bool at_root(const std::string &name) { return name.compare(0, strlen(kRootMark), kRootMark) == 0; }

// Where a manifest's file name lies below a package directory.
std::string package_relative(const std::string &name) {
  return at_root(name) ? name.substr(strlen(kRootMark)) : name;
}

// The component's manifest below a package directory or an app home.
std::string manifest_below(const std::string &dir) {
  return dir + "/" + kManifestDir + "/" + kComponent + ".ejs";
}

uint64_t available_bytes(const std::string &path) {
  struct statvfs st;
  if (statvfs(path.c_str(), &st) != 0)
    fail(format("statvfs %s: %s", path.c_str(), strerror(errno)));
  return (uint64_t)st.f_bavail * (uint64_t)st.f_frsize;
}

std::string mib(uint64_t bytes) { return format("%" PRIu64 " MiB", bytes >> 20); }

const char *yes_no(int32_t answer) { return answer ? "yes" : "no"; }

// What the UOS rule should answer, read from the same two files: the value
// of the first line that begins with key, or nothing without such a line.
std::optional<std::string> value_of(const char *path, const std::string &key) {
  if (!path_exists(path)) return std::nullopt;
  const std::string text = read_file(path);
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    if (text.compare(at, key.size(), key) == 0)
      return text.substr(at + key.size(), end - at - key.size());
    at = end + 1;
  }
  return std::nullopt;
}

int32_t expected_uos_answer(int32_t threshold) {
  const auto id = value_of("/etc/os-release", "ID=");
  if (!id || strncasecmp(id->c_str(), "uos", 3) != 0) return 0;
  const auto minor = value_of("/etc/os-version", "MinorVersion=");
  return minor && threshold > (int32_t)strtol(minor->c_str(), nullptr, 10) ? 1 : 0;
}

std::string version_text(const version_mgr_version &version) {
  char text[64];
  version_mgr_version_tostring(&version, text, sizeof(text));
  return text;
}

std::string joined(char **items, uint32_t count) {
  std::string text;
  for (uint32_t i = 0; i < count; ++i)
    if (items[i] != nullptr) text += (text.empty() ? "" : " ") + std::string(items[i]);
  return text.empty() ? "-" : text;
}

void copy_file(const std::string &from, const std::string &to) {
  struct stat st;
  if (stat(from.c_str(), &st) != 0) fail(format("stat %s: %s", from.c_str(), strerror(errno)));
  make_dirs(dir_of(to));
  write_file(to, read_file(from), st.st_mode & 07777);
}

ino_t inode_of(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) fail(format("stat %s: %s", path.c_str(), strerror(errno)));
  return st.st_ino;
}

// The backup components directory, where the installer keeps packages.
std::string backup_components_dir() {
  char path[1024];
  const int32_t found = get_backup_path(path, sizeof(path));
  expect(found == 1, "get_backup_path", found);
  return path;
}

void remove_file(const std::string &path) {
  if (unlink(path.c_str()) != 0)
    fail(format("cannot remove %s: %s", path.c_str(), strerror(errno)));
}

}  // namespace

Installer::~Installer() { free_com_info_var(&manifest_); }

std::string Installer::record_path() const {
  char path[1024];
  const int32_t ret = tarn_apphome_get_file(path, sizeof(path));
  expect(ret == 0, "tarn_apphome_get_file", ret);
  return path;
}

std::string Installer::backup_path() const {
  return std::string(kInstallRoot) + "/tarn_apphome_backup.ini";
}

// The publisher's signing key, made on first use in the release build's
// folder. Endpoints trust only its public key, which goes to the trusted
// keys folder; the secret key never leaves the release build.
const std::string &Installer::publisher_key() {
  if (!secret_key_.empty()) return secret_key_;
  const std::string release = std::string(kWorkDir) + "/release";
  const std::string secret = release + "/publisher.key";
  const std::string public_key = release + "/publisher.pub";
  make_dirs(release);
  char key_id[QIV_EJS_KEY_ID_SIZE] = {};
  if (qiv_ejs_keygen(secret.c_str(), public_key.c_str(), key_id) != 0)
    fail(format("qiv_ejs_keygen: %s", strerror(errno)));
  make_dirs(kTrustedKeysDir);
  const std::string trusted = std::string(kTrustedKeysDir) + "/demo-publisher.pub";
  write_file(trusted, read_file(public_key), 0644);
  printf("  qiv_ejs_keygen -> key %s: the secret key stays in %s,\n"
         "  its public key is trusted as %s\n",
         key_id, secret.c_str(), trusted.c_str());
  secret_key_ = secret;
  return secret_key_;
}

// Signs the component's manifest at path, with its version and its files
// (name and SHA-256 digest).
void Installer::sign_manifest(const std::string &path, const std::string &version,
                              const std::vector<std::pair<std::string, std::string>> &files) {
  json_t *list = json_array();
  for (const auto &file : files)
    json_array_append_new(
        list, json_pack("{s:s, s:s}", "name", file.first.c_str(), "sha256", file.second.c_str()));
  json_t *manifest = json_pack("{s:s, s:s, s:b, s:[s], s:[s], s:[], s:o}", "package", kComponent,
                               "version", version.c_str(), "requirement", 1, "arch", arch_.c_str(),
                               "platform", "linux", "depends", "files", list);
  if (manifest == nullptr) fail("cannot build the manifest's JSON tree");
  make_dirs(dir_of(path));
  const int ret = qiv_json_sign_file_ejs(manifest, path.c_str(), JSON_INDENT(2), publisher_key().c_str());
  const int error = errno;
  json_decref(manifest);
  if (ret != 0) fail(format("qiv_json_sign_file_ejs(%s): %s", path.c_str(), strerror(error)));
}

void Installer::check_environment() {
  stage_.heading("the installer checks the machine",
                 "Before it changes anything an installer asks: does it run as administrator,\n"
                 "is there room, and is this an old UOS release that needs its own handling?");
  const int32_t admin = tarn_envc_is_admin();
  expect(admin == (geteuid() == 0 ? 1 : 0), "tarn_envc_is_admin", admin);
  if (admin != 1) fail("the installer needs administrator rights, and the sandbox gives them");
  printf("  tarn_envc_is_admin() -> 1: effective user id 0 (root inside the sandbox)\n");

  const uint64_t root_free = available_bytes(kInstallRoot);
  const int32_t room = tarn_envc_path_free_space(kInstallRoot, kInstallRootNeed);
  expect(room == (root_free >= kInstallRootNeed ? 1 : 0), "tarn_envc_path_free_space", room);
  printf("  tarn_envc_path_free_space(%s, %s) -> %d: %s available\n", kInstallRoot,
         mib(kInstallRootNeed).c_str(), room, mib(root_free).c_str());

  const int32_t fit = tarn_envc_def();
  const std::string backup = backup_components_dir();
  const uint64_t backup_free = available_bytes(backup);
  expect(fit == (backup_free >= kDefaultCheckNeed ? 1 : 0), "tarn_envc_def", fit);
  printf(
      "  tarn_envc_def() -> %d: administrator, and %s of the %s it needs in\n"
      "                     %s (which it created)\n",
      fit, mib(backup_free).c_str(), mib(kDefaultCheckNeed).c_str(), backup.c_str());

  const int32_t uos = is_uos_and_lower_version(kUosMinorThreshold);
  expect(uos == expected_uos_answer(kUosMinorThreshold), "is_uos_and_lower_version", uos);
  printf("  is_uos_and_lower_version(%d) -> %d: %s\n", kUosMinorThreshold, uos,
         uos ? "UOS below that minor version" : "not UOS below that minor version");

  const char *arch = tarn_apphome_sys_arch_str();
  if (arch == nullptr)
    fail("tarn_apphome_sys_arch_str: this machine's architecture is not supported");
  arch_ = arch;
  if (tarn_apphome_com_arch_str() != nullptr)
    fail("tarn_apphome_com_arch_str names a companion; the demo's configuration has none");
  printf("  tarn_apphome_sys_arch_str() -> \"%s\"; no companion app home (not configured)\n", arch);
  if (!fit || !room)
    printf("  (short of room: a real installer would stop here; the demo goes on in memory)\n");
}

void Installer::build_package() {
  stage_.heading("the release build makes a component package",
                 "No package ships with the sources, so the demo makes one as a release build\n"
                 "would: the files of component tarn_base, a manifest with their SHA-256\n"
                 "digests signed as a protected JSON file with a publisher key that it makes\n"
                 "(endpoints hold only its public key), all in tarn_base.tgz.");
  const std::string release = std::string(kWorkDir) + "/release";
  const std::string top = release + "/" + kComponent;
  std::vector<std::pair<std::string, std::string>> listed;
  for (const PackageFile &file : package_files()) {
    const std::string path = top + "/" + package_relative(file.name);
    make_dirs(dir_of(path));
    write_file(path, file.text, file.mode);
    listed.emplace_back(file.name, sha256_hex(file.text));
    printf("  %-22s sha256 %s\n", file.name.c_str(), listed.back().second.c_str());
  }
  const std::string manifest = manifest_below(top);
  sign_manifest(manifest, kVersion, listed);
  printf("  manifest %s (signed)\n", manifest.c_str());

  archive_ = release + "/" + kComponent + ".tgz";
  const ProgramRun tar = run_program({"tar", "-czf", archive_, "-C", release, kComponent});
  if (tar.exit_status != 0) fail("tar -czf failed: " + tar.output);
  struct stat st;
  if (stat(archive_.c_str(), &st) != 0) fail(archive_ + " was not made");
  printf("  package  %s, %lld bytes\n", archive_.c_str(), (long long)st.st_size);
}

void Installer::unpack_package() {
  stage_.heading("the installer unpacks the package and reads its manifest",
                 "unpack_com unpacks it (the system's tar) into an unpack cache and loads the\n"
                 "manifest; check_file sees that every listed file arrived and tarnctl checks\n"
                 "their digests, and refuses copies with a file or the manifest changed. A\n"
                 "copy, unpacked by the library's own extractor, goes to the\n"
                 "backup tree, from which a later repair can take the files.");
  const std::string cache = std::string(kWorkDir) + "/unpack";
  make_dirs(cache);
  uint32_t ret = unpack_com(archive_.c_str(), cache.c_str(), &manifest_);
  expect(ret == 0, "unpack_com", ret);
  unpacked_ = cache + "/" + kComponent;
  printf("  unpack_com(%s, %s) -> 0\n", archive_.c_str(), cache.c_str());
  printf("    package %s, version %s, required %s, arch %s, platform %s, %" PRIu32 " files\n",
         manifest_.package, version_text(manifest_.version).c_str(),
         yes_no((int32_t)manifest_.requirement),
         joined(manifest_.archs, manifest_.arch_count).c_str(),
         joined(manifest_.platforms, manifest_.platform_count).c_str(), manifest_.file_count);
  if (strcmp(manifest_.package, kComponent) != 0 || manifest_.file_count != package_files().size())
    fail("the loaded manifest is not the one the release build signed");

  bool fits = false;
  for (uint32_t i = 0; i < manifest_.arch_count; ++i)
    fits = fits || (manifest_.archs[i] != nullptr && arch_ == manifest_.archs[i]);
  if (!fits) {
    print_arch_failed_info(&manifest_);
    fail("the package does not list this machine's architecture");
  }
  version_mgr_version minimum{};
  ret = version_mgr_parser_version(kMinimumVersion, &minimum);
  expect(ret == 0, "version_mgr_parser_version", ret);
  const int32_t newer = version_mgr_compare_version(manifest_.version, minimum);
  if (newer <= 0)
    fail("version_mgr_compare_version: the package should be above " +
         std::string(kMinimumVersion));
  printf("  it fits: its arch list holds %s, and version_mgr_compare_version(%s, %s) > 0\n",
         arch_.c_str(), version_text(manifest_.version).c_str(), kMinimumVersion);

  const int32_t present = check_file(unpacked_.c_str(), &manifest_);
  expect(present == 0, "check_file", present);
  printf("  check_file(%s) -> 0: every listed file is there\n", unpacked_.c_str());

  com_list_var list{};
  ret = load_local_pack(unpacked_.c_str(), &list);
  const bool listed = ret == 0 && list.count == 1 &&
                      strcmp(static_cast<com_depend *>(list.items)[0].name, kComponent) == 0;
  free_com_list_var(&list);
  if (!listed)
    fail(format("load_local_pack returned %" PRIu32 " without listing %s alone", ret, kComponent));
  printf("  load_local_pack(%s) -> 0: one package, %s\n\n", unpacked_.c_str(), kComponent);

  stage_.tarnctl({"pkg", "verify", unpacked_}, 0,
                 {"verified: every file that the manifests list matches its digest"});
  show_tampered_copies_refused();

  keep_backup_copy();
}

// Two copies of the unpacked package: one with a byte of a file changed,
// which the digests give away, and one with a byte of its manifest changed,
// which the signature gives away.
void Installer::show_tampered_copies_refused() {
  printf("\n  A copy with one byte of a file changed, and one with its manifest changed:\n");
  const PackageFile file = package_files().front();
  const std::string changed_file = std::string(kWorkDir) + "/tampered-file";
  const std::string changed_manifest = std::string(kWorkDir) + "/tampered-manifest";
  for (const std::string &copy : {changed_file, changed_manifest}) {
    const ProgramRun cp = run_program({"cp", "-a", unpacked_, copy});
    if (cp.exit_status != 0) fail("cp -a failed: " + cp.output);
  }
  const std::string victim = changed_file + "/" + package_relative(file.name);
  std::string text = read_file(victim);
  text[0] = (char)(text[0] ^ 1);
  write_file(victim, text, file.mode);
  stage_.tarnctl({"pkg", "verify", changed_file}, 1, {"differs " + file.name, "verified: 1 problems"});

  const std::string manifest = manifest_below(changed_manifest);
  std::string signed_text = read_file(manifest);
  const size_t version = signed_text.find(kVersion);
  if (version == std::string::npos) fail("the signed manifest does not hold its version");
  signed_text[version] = (char)(signed_text[version] == '9' ? '8' : signed_text[version] + 1);
  write_file(manifest, signed_text, 0644);
  stage_.tarnctl({"pkg", "verify", changed_manifest}, 5, {"load plugin config: "});
}

// Unpacks the package once more, with the library's own extractor, into the
// backup components directory, and compares the files with the package's.
void Installer::keep_backup_copy() {
  const std::string backup = backup_components_dir();
  const int32_t untgz = untgz_file(archive_.c_str(), backup.c_str());
  expect(untgz == 0, "untgz_file", untgz);
  const std::string copy = backup + "/" + kComponent;
  for (const PackageFile &file : package_files())
    if (read_file(copy + "/" + package_relative(file.name)) != file.text)
      fail("the backup copy of " + file.name + " differs from the package's");
  printf("\n  untgz_file(%s, %s) -> 0: the backup copy holds the same files\n", archive_.c_str(),
         backup.c_str());
}

// Copies each file the manifest lists from the unpack cache to its place,
// and the manifest itself to the app home's manifest directory.
void Installer::install_files() {
  for (uint32_t i = 0; i < manifest_.file_count; ++i) {
    const com_file &file = manifest_.files[i];
    if (file.name == nullptr) continue;
    const std::string name = file.name;
    const std::string to =
        (at_root(name) ? std::string(kInstallRoot) : apphome_) + "/" + package_relative(name);
    copy_file(unpacked_ + "/" + package_relative(name), to);
    printf("  installed %s\n", to.c_str());
  }
  copy_file(manifest_below(unpacked_), manifest_below(apphome_));
  printf("  installed %s\n", manifest_below(apphome_).c_str());
  make_dirs(apphome_ + "/" + kServicesDir);
}

void Installer::expect_valid(const std::string &ini_path) {
  const int32_t ret = tarn_apphome_check_validity(ini_path.c_str());
  expect(ret == TARN_APPHOME_VALID, "tarn_apphome_check_validity(" + ini_path + ")", ret);
  printf("  tarn_apphome_check_validity(%s) -> 0 (valid)\n", ini_path.c_str());
}

// The operator's view of the record: both files, and the check.
void Installer::show_record() {
  stage_.tarnctl({"apphome", "show"}, 0, {"app_home=" + apphome_name_});
  stage_.tarnctl({"apphome", "check"}, 0, {"valid: "});
}

std::string Installer::recorded_apphome(const std::string &ini_path) {
  char name[1024];
  const int32_t ret = get_apphome_dir_name(ini_path.c_str(), name, sizeof(name), nullptr);
  expect(ret == 0, "get_apphome_dir_name(" + ini_path + ")", ret);
  return name;
}

void Installer::record_apphome() {
  stage_.heading("the installer lays out the app home and records it",
                 "The app home is a directory below the install root named by a fresh UUID.\n"
                 "Its flag file marks it complete; the record tarn_apphome.ini names it, and\n"
                 "the backup beside the record lets a damaged record be restored.");
  char *name = generate_new_name(nullptr);
  apphome_name_ = name;
  tarn_free_(name);
  const int32_t format_ok = tarn_apphome_check_format(apphome_name_.c_str());
  expect(format_ok == 0, "tarn_apphome_check_format(" + apphome_name_ + ")", format_ok);
  apphome_ = std::string(kInstallRoot) + "/" + apphome_name_;
  printf("  generate_new_name() -> %s\n", apphome_name_.c_str());
  make_dirs(apphome_);
  install_files();

  for (const char *flag : {"flag_operational", "flag_operational_backup"}) {
    const int32_t ret = tarn_apphome_create_flag(apphome_.c_str(), flag);
    expect(ret == 0, format("tarn_apphome_create_flag(%s)", flag), ret);
  }
  printf("  tarn_apphome_create_flag: flag_operational and its spare -> 0\n");

  const int32_t updated = tarn_apphome_update(apphome_name_.c_str(), nullptr);
  expect(updated == 0, "tarn_apphome_update", updated);
  printf("  tarn_apphome_update(%s) -> 0: record and backup written\n", apphome_name_.c_str());
  expect_valid(record_path());
  expect_valid(backup_path());

  char path[1024];
  const int32_t main_ok = get_apphome_path_main(path, sizeof(path));
  expect(main_ok == 0, "get_apphome_path_main", main_ok);
  if (apphome_ != path) fail(std::string("get_apphome_path_main gave ") + path);
  tarn_agent_path_transform("@/tarn_worker", path, sizeof(path));
  if (apphome_ + "/bin/tarn_worker" != path || !path_exists(path))
    fail(std::string("tarn_agent_path_transform(@/tarn_worker) gave ") + path);
  printf("  tarn_agent_path_transform(\"@/tarn_worker\") -> %s\n", path);
  const int32_t installed = is_component_installed(kComponent);
  expect(installed == 1, "is_component_installed(tarn_base)", installed);
  printf("  is_component_installed(\"%s\") -> 1\n\n", kComponent);

  show_record();
}

void Installer::install_service() {
  stage_.heading("the installer installs the service's configuration",
                 "The service manager runs one process per configuration file in the app\n"
                 "home's config/services/TARN: installing writes the file, and rewriting it\n"
                 "unchanged asks for a restart.");
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  if (ini == nullptr) fail("tarn_ini_file_load(null) made no object");
  const std::string program = std::string(kInstallRoot) + "/" + kServiceName;
  const std::pair<const char *, std::string> keys[] = {
      {"path", program}, {"args", "--run"}, {"heartbeat_interval", "10"}, {"restart", "always"}};
  int set = 0;
  for (const auto &key : keys)
    if (set == 0) set = tarn_ini_file_set(ini, "process", key.first, key.second.c_str());
  const int32_t ret = set ? -1 : install_tarn_process(kServiceName, ini);
  tarn_ini_file_free(ini);
  expect(set == 0, "tarn_ini_file_set", set);
  expect(ret == 0, "install_tarn_process(tarn_service)", ret);
  const std::string file = apphome_ + "/" + kServicesDir + "/" + kServiceName + ".eni";
  printf("  install_tarn_process(\"%s\") -> 0: %s\n", kServiceName, file.c_str());
  const std::string text = read_file(file);
  print_indented(text);

  const int32_t exists = is_tarn_process_config_exists(kServiceName);
  expect(exists == 1, "is_tarn_process_config_exists(tarn_service)", exists);
  printf("  is_tarn_process_config_exists(\"%s\") -> 1\n", kServiceName);

  const ino_t before = inode_of(file);
  const int32_t restarted = restart_tarn_process(kServiceName);
  expect(restarted == 0, "restart_tarn_process(tarn_service)", restarted);
  if (inode_of(file) == before || read_file(file) != text)
    fail("restart_tarn_process should renew the file with the same text");
  printf("  restart_tarn_process(\"%s\") -> 0: the file is renewed, its text unchanged\n",
         kServiceName);
}

// An operational app home of an older version, as an earlier installation
// leaves it: its manifest lists the same files with the older version.
void Installer::leave_old_apphome() {
  const std::string old_home = std::string(kInstallRoot) + "/" + kOldApphome;
  std::vector<std::pair<std::string, std::string>> listed;
  for (uint32_t i = 0; i < manifest_.file_count; ++i)
    if (manifest_.files[i].name != nullptr)
      listed.emplace_back(manifest_.files[i].name, manifest_.files[i].sha256);
  sign_manifest(manifest_below(old_home), kOldVersion, listed);
  const int32_t flagged = tarn_apphome_create_flag(old_home.c_str(), "flag_operational");
  expect(flagged == 0, "tarn_apphome_create_flag(" + old_home + ")", flagged);
  printf("  left behind by version %s: %s (operational)\n", kOldVersion, old_home.c_str());
}

void Installer::rebuild_record() {
  stage_.heading("the record is lost and rebuilt from the directories",
                 "With the record and its backup both gone, reduction scans the install root\n"
                 "for an operational app home whose tarn_base manifest has the version the\n"
                 "installed service reports, and records it again. An app home that an older\n"
                 "version left behind, met first by the scan, shows that the version decides.");
  leave_old_apphome();
  remove_file(record_path());
  remove_file(backup_path());
  printf("  removed %s and %s\n\n", record_path().c_str(), backup_path().c_str());
  stage_.tarnctl({"apphome", "check"}, 3, {"does not exist"});
  char path[1024];
  const int32_t none = get_apphome_path_main(path, sizeof(path));
  expect(none == 1, "get_apphome_path_main without a record", none);
  printf("\n  get_apphome_path_main -> 1: no app home is known now\n");

  char version[1024] = "";
  const int32_t asked = tarn_apphome_get_service_version(version, sizeof(version));
  expect(asked == 0, "tarn_apphome_get_service_version", asked);
  if (strcmp(version, kVersion) != 0)
    fail(format("the installed service reports version \"%s\", not %s", version, kVersion));
  printf("  tarn_apphome_get_service_version -> 0, \"%s\"\n", version);

  const int32_t reduced = tarn_apphome_reduction_file();
  expect(reduced == 0, "tarn_apphome_reduction_file", reduced);
  printf("  tarn_apphome_reduction_file() -> 0\n");
  for (const std::string &file : {record_path(), backup_path()}) {
    const std::string name = recorded_apphome(file);
    if (name != apphome_name_) fail(file + " names " + name + " instead of " + apphome_name_);
  }
  printf("  record and backup name %s again, not the older %s\n", apphome_name_.c_str(),
         kOldApphome);
  expect_valid(record_path());
  const int32_t exists = is_tarn_process_config_exists(kServiceName);
  expect(exists == 1, "is_tarn_process_config_exists(tarn_service)", exists);
  printf("  is_tarn_process_config_exists(\"%s\") -> 1: found through the new record\n\n",
         kServiceName);

  show_record();
}

}  // namespace demo
