// Component manifests: loading a manifest into a component record, freeing
// records and lists, logging a component's architectures, looking up one
// file's digest; packages: listing the manifests under an install
// directory, unpacking a package and loading its manifest, checking that a
// component's files are there, checking their contents against the
// manifests' digests, fresh identifiers; and joining a relative path to a
// base directory or, by default, to the app home.

#include "com_info.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <mutex>

#include <qiv_ejs/qiv_ejs.h>
#include <sodium.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_uuid.h>

#include "com_info_internal.h"
#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"
#include "tarn_utils.h"

namespace {

// Allocations that have no error return end the process, as the agent's
// processes expect; the fatal line names the caller's place (site).
void *zero_slots(size_t count, size_t size, log_site site) {
  void *slots = tarn_zero_malloc_(count * size);
  if (slots == nullptr) log_out_of_memory(site);
  return slots;
}

char *copy_text(const char *text, log_site site) {
  char *copy = tarn_strdup(text);
  if (copy == nullptr) log_out_of_memory(site);
  return copy;
}

const json_t *member(const json_t *object, const char *key) {
  return qiv_json_object_get_ejs(object, key);
}

const char *member_text(const json_t *object, const char *key) {
  return qiv_json_string_value_ejs(member(object, key));
}

uint32_t member_is_true(const json_t *object, const char *key) {
  return json_is_true(member(object, key)) ? 1 : 0;
}

// The manifest at path as a tree; null, after logging, when it does not load.
JsonTree load_manifest(const char *path) {
  JsonTree tree(qiv_json_load_file_ejs(path));
  if (!tree) LOG(warn, "load plugin config: %s failed\n", path);
  return tree;
}

// The "package" and "version" strings of a manifest's tree; false, after
// logging, when either is missing.
bool name_and_version(const json_t *root, const char *path, const char **package,
                      const char **version) {
  *package = member_text(root, "package");
  *version = member_text(root, "version");
  if (*package != nullptr && *version != nullptr) return true;
  LOG(warn, "get package name or version failed, in config: %s\n", path);
  return false;
}

// Parses a manifest's "version" into *version; false, after logging, when
// it does not parse.
bool parse_version(const char *text, version_mgr_version *version) {
  if (version_mgr_parser_version(text, version) == 0) return true;
  LOG(info, "version string is invalid, %s\n", text);
  return false;
}

// The "name" and "sha256" strings of an entry of "files"; false when the
// entry is not an object holding both.
bool file_entry(const json_t *entry, const char **name, const char **sha256) {
  *name = member_text(entry, "name");
  *sha256 = member_text(entry, "sha256");
  return *name != nullptr && *sha256 != nullptr;
}

// Each array below is allocated at the length of its JSON array and an
// entry is stored at the slot of its JSON index: a skipped entry leaves an
// empty slot and the count counts the stored entries only.

// The slots for the entries of a JSON array of strings; null when it has
// none.
char **string_slots(const json_t *array, log_site site) {
  const size_t size = qiv_json_array_size_ejs(array);
  if (size == 0) return nullptr;
  return static_cast<char **>(zero_slots(size, sizeof(char *), site));
}

// Copies the strings of the JSON array into slots (from string_slots), each
// at its index.
void load_strings(const json_t *array, char **slots, uint32_t *count, log_site site) {
  const size_t size = qiv_json_array_size_ejs(array);
  for (size_t i = 0; i < size; ++i) {
    const char *text = qiv_json_string_value_ejs(qiv_json_array_get_ejs(array, i));
    if (text == nullptr) continue;
    slots[i] = copy_text(text, site);
    ++*count;
  }
}

// version is the component's own version string: every dependency entry
// carries it, whatever the dependency's own version may be.
uint32_t load_depends(const json_t *array, const char *version, com_info_var *info) {
  const size_t size = qiv_json_array_size_ejs(array);
  if (size == 0) return 0;
  // Sized as component records, larger than the entries need; the entries
  // are indexed as com_depend.
  info->depends =
      static_cast<com_depend *>(zero_slots(size, sizeof(com_info_var), OUT_OF_MEMORY_HERE));
  for (size_t i = 0; i < size; ++i) {
    const char *name = qiv_json_string_value_ejs(qiv_json_array_get_ejs(array, i));
    if (name == nullptr) continue;
    com_depend &entry = info->depends[i];
    entry.name = copy_text(name, OUT_OF_MEMORY_HERE);
    // Counted with its name, so that freeing the record after a failed
    // parse below frees the name too.
    ++info->depend_count;
    if (version_mgr_parser_version(version, &entry.version) != 0) {
      LOG(info, "version string is invalid, %s", version);
      return 1;
    }
  }
  return 0;
}

uint32_t load_files(const json_t *array, com_info_var *info) {
  const size_t size = qiv_json_array_size_ejs(array);
  if (size == 0) return 1;
  info->files = static_cast<com_file *>(zero_slots(size, sizeof(com_file), OUT_OF_MEMORY_HERE));
  for (size_t i = 0; i < size; ++i) {
    const char *name = nullptr;
    const char *sha256 = nullptr;
    if (!file_entry(qiv_json_array_get_ejs(array, i), &name, &sha256)) continue;
    info->files[i].name = copy_text(name, OUT_OF_MEMORY_HERE);
    info->files[i].sha256 = copy_text(sha256, OUT_OF_MEMORY_HERE);
    ++info->file_count;
  }
  return 0;
}

// Fills the zero-filled *info from the manifest's tree; 1 on failure, after
// logging, with whatever was stored left for the caller to free.
uint32_t fill_com_info(const json_t *root, const char *path, com_info_var *info) {
  info->scripts_skippable = member_is_true(root, "scripts_skippable");
  const char *package = nullptr;
  const char *version = nullptr;
  if (!name_and_version(root, path, &package, &version)) return 1;
  info->package = copy_text(package, OUT_OF_MEMORY_HERE);
  if (!parse_version(version, &info->version)) return 1;
  info->requirement = member_is_true(root, "requirement");
  const json_t *archs = member(root, "arch");
  info->archs = string_slots(archs, OUT_OF_MEMORY_HERE);
  load_strings(archs, info->archs, &info->arch_count, OUT_OF_MEMORY_HERE);
  const json_t *platforms = member(root, "platform");
  info->platforms = string_slots(platforms, OUT_OF_MEMORY_HERE);
  load_strings(platforms, info->platforms, &info->platform_count, OUT_OF_MEMORY_HERE);
  load_plat_support_info(member(root, "platform_version"), info);
  if (load_depends(member(root, "depends"), version, info) != 0) return 1;
  // Cut to 32 bits; 0 when absent or not an integer.
  info->arch_bind = (int32_t)(uint32_t)json_integer_value(member(root, "arch_bind"));
  info->retry = member_is_true(root, "retry");
  return load_files(member(root, "files"), info);
}

// ---- Freeing records ----
//
// A loaded record's array may hold entries past its count (after an empty
// slot), which a walk of the slots below the count would leave behind. A
// record built by hand, though, may own nothing from its count on. So the
// loader notes, by address, each array it made that has an empty slot, with
// the number of slots it was given; freeing visits every slot of a noted
// array (and drops the note) and only the slots below the count of any
// other. The notes are process-wide and guarded by a mutex: records are
// loaded and freed on any thread.

enum RecordArray { kPlatforms, kArchs, kDepends, kFiles, kRecordArrays };

// One number per array of a record.
using ArrayCounts = std::array<uint32_t, kRecordArrays>;

std::array<const void *, kRecordArrays> arrays_of(const com_info_var &info) {
  return {info.platforms, info.archs, info.depends, info.files};
}

ArrayCounts counts_of(const com_info_var &info) {
  return {info.platform_count, info.arch_count, info.depend_count, info.file_count};
}

// The slots that the loader gives each array: the length of its JSON array.
ArrayCounts slot_capacities(const json_t *root) {
  ArrayCounts capacity;
  const char *const keys[kRecordArrays] = {"platform", "arch", "depends", "files"};
  for (size_t i = 0; i < kRecordArrays; ++i) {
    capacity[i] = (uint32_t)qiv_json_array_size_ejs(member(root, keys[i]));
  }
  return capacity;
}

// The noted arrays of one loaded record; an entry is null when that array
// was not noted or has been freed since.
struct LoadedArrays {
  const void *slots[kRecordArrays];
  uint32_t capacity[kRecordArrays];
  LoadedArrays *next;
};

std::mutex g_loaded_mutex;
LoadedArrays *g_loaded = nullptr;  // guarded by g_loaded_mutex

// Notes the arrays of the record just loaded that have an empty slot, with
// their capacities.
void note_loaded_arrays(const com_info_var &info, const ArrayCounts &capacity) {
  const auto arrays = arrays_of(info);
  const ArrayCounts counts = counts_of(info);
  bool any = false;
  for (size_t i = 0; i < kRecordArrays; ++i) {
    any = any || (arrays[i] != nullptr && counts[i] < capacity[i]);
  }
  if (!any) return;
  auto *note = static_cast<LoadedArrays *>(tarn_zero_malloc_(sizeof(LoadedArrays)));
  if (note == nullptr) LOG_OUT_OF_MEMORY();
  for (size_t i = 0; i < kRecordArrays; ++i) {
    if (arrays[i] == nullptr || counts[i] == capacity[i]) continue;
    note->slots[i] = arrays[i];
    note->capacity[i] = capacity[i];
  }
  const std::lock_guard<std::mutex> lock(g_loaded_mutex);
  note->next = g_loaded;
  g_loaded = note;
}

// How many slots of each array of info to visit when it is freed: every
// slot of a noted array, whose note is dropped, and the slots below the
// count of any other.
ArrayCounts slots_to_free(const com_info_var &info) {
  const auto arrays = arrays_of(info);
  ArrayCounts visit = counts_of(info);
  const std::lock_guard<std::mutex> lock(g_loaded_mutex);
  for (LoadedArrays **link = &g_loaded; *link != nullptr;) {
    LoadedArrays *note = *link;
    bool noted = false;
    for (size_t i = 0; i < kRecordArrays; ++i) {
      if (arrays[i] != nullptr && note->slots[i] == arrays[i]) {
        visit[i] = note->capacity[i];
        note->slots[i] = nullptr;
      }
      noted = noted || note->slots[i] != nullptr;
    }
    if (noted) {
      link = &note->next;
    } else {
      *link = note->next;
      tarn_free_(note);
    }
  }
  return visit;
}

// Frees the entries in the first `visit` slots of an array and the array,
// and zeroes its pointer and count.
template <typename Entry, typename FreeEntry>
void free_slots(Entry *&slots, uint32_t &count, uint32_t visit, FreeEntry free_entry) {
  if (slots != nullptr) {
    for (uint32_t i = 0; i < visit; ++i) free_entry(slots[i]);
  }
  tarn_free_(slots);
  slots = nullptr;
  count = 0;
}

void free_record(com_info_var *info, const ArrayCounts &visit) {
  tarn_free_(info->package);
  info->package = nullptr;
  free_slots(info->platforms, info->platform_count, visit[kPlatforms], tarn_free_);
  free_slots(info->archs, info->arch_count, visit[kArchs], tarn_free_);
  free_slots(info->depends, info->depend_count, visit[kDepends],
             [](com_depend &entry) { tarn_free_(entry.name); });
  free_slots(info->files, info->file_count, visit[kFiles], [](com_file &entry) {
    tarn_free_(entry.name);
    tarn_free_(entry.sha256);
  });
}

// The first entry of "files" named file_name: its digest, or null. The walk
// stops at the first index that holds no entry.
const char *find_digest(const json_t *files, const char *file_name) {
  const json_t *entry = nullptr;
  for (size_t i = 0; (entry = json_array_get(files, i)) != nullptr; ++i) {
    const char *name = nullptr;
    const char *sha256 = nullptr;
    if (file_entry(entry, &name, &sha256) && strcmp(name, file_name) == 0) return sha256;
  }
  return nullptr;
}

// ---- Packages ----

constexpr char kManifestDir[] = "config/component_info";
constexpr char kManifestExt[] = ".ejs";
// The manifest path of an unpacked package: destination, name, directory
// and name again.
constexpr size_t kManifestPathSize = 2048;
constexpr int kNameAttempts = 3;
constexpr size_t kNameLength = TARN_UUID_CSTR_SIZE - 1;
constexpr char kRootPrefix[] = "__ROOT";

// The manifests found in one directory, owned until the list goes. The
// array has a fixed size: manifests past it are left out, never written
// past its end.
struct ManifestPaths {
  char *paths[COM_INFO_MAX_LOCAL_MANIFESTS] = {};
  uint32_t count = 0;
  ManifestPaths() = default;
  ManifestPaths(const ManifestPaths &) = delete;
  ManifestPaths &operator=(const ManifestPaths &) = delete;
  ~ManifestPaths() {
    for (uint32_t i = 0; i < count; ++i) tarn_free_(paths[i]);
  }
};

// tarn_dirutils_listdir's callback: keeps the path of each entry that is
// not a directory and ends in ".ejs". Never stops the walk.
int collect_manifest(int type, const char *path, void *user) {
  auto *found = static_cast<ManifestPaths *>(user);
  if (type == TARN_DIRUTILS_DIR || strcmp(tarn_path_get_ext_u(path), kManifestExt) != 0) {
    LOG(info, "%s is not ejs\n", path);
    return 0;
  }
  if (found->count == COM_INFO_MAX_LOCAL_MANIFESTS) {
    LOG(warn, "too many manifests, %s ignored\n", path);
    return 0;
  }
  found->paths[found->count++] = copy_text(path, OUT_OF_MEMORY_HERE);
  return 0;
}

// Stores the package name and version of the manifest at path in the empty
// *entry; false, after logging, when the manifest gives none (*entry is then
// left empty).
bool load_local_manifest(const char *path, com_depend *entry) {
  const JsonTree tree(load_manifest(path));
  if (!tree) return false;
  const char *package = nullptr;
  const char *version = nullptr;
  if (!name_and_version(tree.get(), path, &package, &version)) return false;
  entry->name = copy_text(package, OUT_OF_MEMORY_HERE);
  if (parse_version(version, &entry->version)) return true;
  tarn_free_(entry->name);
  entry->name = nullptr;
  return false;
}

// A file's name below the package directory: a name that begins with
// "__ROOT" loses it and the separator after it.
const char *below_package_root(const char *name) {
  const size_t length = sizeof(kRootPrefix) - 1;
  if (strncmp(name, kRootPrefix, length) != 0) return name;
  return name[length] == '\0' ? name + length : name + length + 1;
}

// Gathers the manifests of the directory at path into *found. A directory
// that cannot be listed holds no manifest.
void list_manifests(const char *path, ManifestPaths *found) {
  (void)tarn_dirutils_listdir(path, found, collect_manifest);
}

// ---- Verifying a package ----

constexpr char kVerifyPrefix[] = "package verify: ";

// The problems found in a package, as report lines in the caller's buffer
// (always terminated, cut silently when full) and as log lines.
class VerifyReport {
 public:
  VerifyReport(const char *package_dir, char *buf, size_t len)
      : package_dir_(package_dir), buf_(buf), len_(len) {
    buf_[0] = '\0';
  }
  void add(const char *kind, const char *name) {
    ++problems_;
    LOG(warn, "%s%s: %s %s\n", kVerifyPrefix, package_dir_, kind, name);
    const size_t room = len_ - used_;
    if (room <= 1) return;
    const int length = snprintf(buf_ + used_, room, "%s %s\n", kind, name);
    if (length > 0) used_ += (size_t)length < room ? (size_t)length : room - 1;
  }
  uint32_t problems() const { return problems_; }

 private:
  const char *package_dir_;
  char *buf_;
  size_t len_;
  size_t used_ = 0;
  uint32_t problems_ = 0;
};

// Whether a listed name (below the package root) would leave the package
// directory: an absolute name, or one with a ".." component.
bool escapes_package(const char *name) {
  if (name[0] == '/') return true;
  for (const char *part = name; *part != '\0';) {
    const size_t length = strcspn(part, "/");
    if (length == 2 && part[0] == '.' && part[1] == '.') return true;
    part += length;
    if (*part == '/') ++part;
  }
  return false;
}

// Opens listed files for reading below the package directory, one
// component at a time and never following a link: a link at any component
// fails with ELOOP (or ENOTDIR). The directory of the last file opened is
// kept open, so that the files of one directory, which manifests list
// together, cost one open each and not one per component.
class PackageFiles {
 public:
  explicit PackageFiles(int root) : root_(root) {}
  PackageFiles(const PackageFiles &) = delete;
  PackageFiles &operator=(const PackageFiles &) = delete;

  // The descriptor of the file name (relative, components separated by
  // '/'; empty components are skipped, and a name ending in '/' opens that
  // directory itself), or -1 with errno.
  int open(const char *name) {
    if (strlen(name) >= sizeof(parent_name_)) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const char *slash = strrchr(name, '/');
    const int at = slash == nullptr ? root_ : enter(name, (size_t)(slash - name));
    if (at < 0) return -1;
    const char *leaf = slash == nullptr ? name : slash + 1;
    // O_NONBLOCK: a fifo in a file's place must not hold the check up.
    return openat(at, leaf[0] == '\0' ? "." : leaf,
                  O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }

 private:
  // The directory made of the first length characters of name, opened
  // below the root or kept from the file before; -1 with errno.
  int enter(const char *name, size_t length) {
    if (parent_.get() >= 0 && strlen(parent_name_) == length &&
        memcmp(parent_name_, name, length) == 0) {
      return parent_.get();
    }
    parent_.reset();
    char path[TARN_PATH_BUFFER_SIZE];
    memcpy(path, name, length);
    path[length] = '\0';
    TarnFd walked;
    int at = root_;
    char *save = nullptr;
    for (char *part = strtok_r(path, "/", &save); part != nullptr;
         part = strtok_r(nullptr, "/", &save)) {
      const int next = openat(at, part, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (next < 0) return -1;
      walked.reset(next);
      at = next;
    }
    if (walked.get() < 0) return root_;
    memcpy(parent_name_, name, length);
    parent_name_[length] = '\0';
    parent_.reset(walked.release());
    return parent_.get();
  }

  int root_;
  TarnFd parent_;
  char parent_name_[TARN_PATH_BUFFER_SIZE] = {};
};

// How one listed file compares with its manifest.
enum class FileCheck { kMatch, kMissing, kDiffers, kNotRegular, kUnreadable };

// Reads the open file fd through buffer (TARN_PACKAGE_VERIFY_BUFFER_SIZE
// bytes) and compares its SHA-256 digest with the text expected.
FileCheck compare_digest(int fd, unsigned char *buffer, const char *expected) {
  crypto_hash_sha256_state state;
  crypto_hash_sha256_init(&state);
  for (;;) {
    const ssize_t got = read(fd, buffer, TARN_PACKAGE_VERIFY_BUFFER_SIZE);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      return FileCheck::kUnreadable;
    }
    crypto_hash_sha256_update(&state, buffer, (unsigned long long)got);
  }
  unsigned char digest[crypto_hash_sha256_BYTES];
  crypto_hash_sha256_final(&state, digest);
  char hex[crypto_hash_sha256_BYTES * 2 + 1];
  sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
  return strcasecmp(hex, expected) == 0 ? FileCheck::kMatch : FileCheck::kDiffers;
}

FileCheck check_listed_file(PackageFiles *files, const char *name, const char *expected,
                            unsigned char *buffer) {
  const TarnFd file(files->open(name));
  if (file.get() < 0) {
    if (errno == ENOENT) return FileCheck::kMissing;
    return errno == ELOOP || errno == ENOTDIR ? FileCheck::kNotRegular : FileCheck::kUnreadable;
  }
  struct stat st;
  if (fstat(file.get(), &st) != 0) return FileCheck::kUnreadable;
  if (!S_ISREG(st.st_mode)) return FileCheck::kNotRegular;
  return compare_digest(file.get(), buffer, expected);
}

const char *problem_kind(FileCheck check) {
  switch (check) {
    case FileCheck::kMissing: return "missing";
    case FileCheck::kDiffers: return "differs";
    case FileCheck::kNotRegular: return "not a regular file";
    default: return "unreadable";
  }
}

// Checks the stored files of one loaded record. A skipped manifest entry
// leaves an empty slot and moves the later ones past the count, so the walk
// goes on until it has met file_count stored entries. Returns how many were
// checked.
uint32_t verify_record(PackageFiles *files, const com_info_var &info, unsigned char *buffer,
                       VerifyReport *report) {
  uint32_t met = 0;
  for (uint32_t i = 0; info.files != nullptr && met < info.file_count; ++i) {
    const com_file &file = info.files[i];
    if (file.name == nullptr || file.sha256 == nullptr) continue;
    ++met;
    const char *name = below_package_root(file.name);
    if (escapes_package(name)) {
      report->add("escapes", file.name);
      continue;
    }
    const FileCheck check = check_listed_file(files, name, file.sha256, buffer);
    if (check != FileCheck::kMatch) report->add(problem_kind(check), file.name);
  }
  return met;
}

// The records of a package's manifests, freed with their owner.
class LoadedRecords {
 public:
  explicit LoadedRecords(uint32_t count)
      : items_(static_cast<com_info_var *>(
            zero_slots(count, sizeof(com_info_var), OUT_OF_MEMORY_HERE))),
        count_(count) {}
  ~LoadedRecords() {
    for (uint32_t i = 0; i < count_; ++i) free_com_info_var(&items_[i]);
    tarn_free_(items_);
  }
  LoadedRecords(const LoadedRecords &) = delete;
  LoadedRecords &operator=(const LoadedRecords &) = delete;
  com_info_var &operator[](uint32_t i) { return items_[i]; }

 private:
  com_info_var *items_;
  uint32_t count_;
};

struct BufferFree {
  void operator()(unsigned char *buffer) const { tarn_free_(buffer); }
};

}  // namespace

const char *archive_package_name(const char *archive, char *buf, size_t len) {
  tarn_strlcpy(buf, archive, len);
  const char *name = get_basename(buf);
  if (name == nullptr || name[0] == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
    return nullptr;
  }
  return name;
}

UnpackCache::UnpackCache(const char *archive, const char *dest) {
  memset(path_, 0, sizeof(path_));
  name_ = archive_package_name(archive, copy_, sizeof(copy_));
  if (name_ == nullptr) return;
  const int length = tarn_str_snprintf(path_, sizeof(path_), "%s/%s", dest, name_);
  // A cut path names another directory: it is never the unpack's own.
  if (length < 0 || (size_t)length >= sizeof(path_)) return;
  struct stat st;
  existed_ = lstat(path_, &st) == 0 || errno != ENOENT;
}

void UnpackCache::remove() const {
  if (name_ == nullptr) return;
  struct stat st;
  if (existed_) {
    LOG(info, "unpack cache dir [%s] was there before the unpack, kept\n", path_);
  } else if (lstat(path_, &st) == 0 && S_ISDIR(st.st_mode)) {
    LOG(info, "remove unpack cache dir [%s]\n", path_);
    (void)tarn_dirutils_rmdir(path_);
  }
}

int32_t load_plat_support_info(const json_t *value, com_info_var *info) {
  (void)value;
  return info != nullptr ? 0 : 1;
}

extern "C" {

TARNAUX_API uint32_t load_com_info(const char *path, com_info_var *info) {
  if (path == nullptr || info == nullptr) return 1;
  memset(info, 0, sizeof(*info));
  // Nothing in the record points into the tree, so it is deleted on every
  // path, success included.
  const JsonTree tree(load_manifest(path));
  if (!tree) return 1;
  const ArrayCounts capacity = slot_capacities(tree.get());
  if (fill_com_info(tree.get(), path, info) != 0) {
    free_record(info, capacity);
    return 1;
  }
  note_loaded_arrays(*info, capacity);
  return 0;
}

TARNAUX_API void free_com_info_var(com_info_var *info) {
  if (info == nullptr) return;
  free_record(info, slots_to_free(*info));
}

TARNAUX_API void free_com_list_var(com_list_var *list) {
  if (list == nullptr || list->items == nullptr) return;
  for (uint32_t i = 0; i < list->count; ++i) {
    if (list->kind == 0) {
      tarn_free_(static_cast<com_depend *>(list->items)[i].name);
    } else {
      free_com_info_var(&static_cast<com_info_var *>(list->items)[i]);
    }
  }
  tarn_free_(list->items);
  list->items = nullptr;
  list->count = 0;
}

TARNAUX_API void print_arch_failed_info(const com_info_var *info) {
  if (info == nullptr) return;
  for (uint32_t i = 0; i < info->arch_count; ++i) {
    // An empty slot holds no architecture to show.
    if (info->archs[i] == nullptr) continue;
    LOG(info, "%s arch: %s\n", info->package, info->archs[i]);
  }
}

TARNAUX_API kep_result_t tarn_get_component_file_sha256(const char *path, const char *file_name,
                                                        char *buf, uint32_t len) {
  if (path == nullptr) return KEP_E_INVALID_PARAM;
  if (buf == nullptr) return KEP_E_NULL_BUFFER;
  if (file_name == nullptr) return KEP_E_NULL_NAME;
  if (tarn_path_is_exist_u(path) == 0) return KEP_E_FILE_NOT_EXIST;

  json_error_t error;
  memset(&error, 0, sizeof(error));
  const JsonTree jroot(qiv_json_load_file_ejs_ex(path, JSON_DECODE_ANY, &error));
  CHECK_EXPR(jroot, "load driver config file[%s] fail!\n, err[%s]", path, error.text);
  if (!jroot) return KEP_E_LOAD_FAILED;

  const json_t *jarr = json_object_get(jroot.get(), "files");
  CHECK_EXPR(jarr, "find json object[files] fail!\n");
  if (jarr == nullptr) return KEP_E_NOT_FOUND;
  const size_t size_val = json_array_size(jarr);
  CHECK_EXPR(size_val > 0, "[files] array size = 0!\n");
  if (size_val == 0) return KEP_E_NOT_FOUND;

  // The next two messages keep the wording that readers of the agent's
  // logs search for; each names the check made at that line.
  const char *sha256 = find_digest(jarr, file_name);
  if (sha256 == nullptr) {
    LOG(warn, "expr[KEP_E_SUCCESS == uRet] false! find [%s] in file[%s] fail!\n", file_name, path);
    return KEP_E_NOT_FOUND;
  }
  const size_t digest_length = strlen(sha256);
  if (len <= digest_length) {
    LOG(warn,
        "expr[buflen > tarn_strlen(sha256)] false! sha256 strlen[%d], buffer len[%d], too short!\n",
        (int)digest_length, (int)len);
    return KEP_E_NOT_FOUND;
  }
  tarn_strlcpy(buf, sha256, len);
  return KEP_E_SUCCESS;
}

TARNAUX_API kep_result_t tarn_apphome_path_cat_auto(const char *base, const char *rel, char *out,
                                                    int32_t out_len) {
  if (out == nullptr || rel == nullptr || out_len <= 0) return KEP_E_INVALID_PARAM;
  const int32_t buf_len = out_len;

  char joined[TARN_PATH_BUFFER_SIZE];
  memset(joined, 0, sizeof(joined));
  int length = 0;
  if (base != nullptr) {
    length = tarn_str_snprintf(joined, sizeof(joined), "%s/%s", base, rel);
  } else {
    char apphome[TARN_PATH_BUFFER_SIZE];
    memset(apphome, 0, sizeof(apphome));
    const kep_result_t ret = (kep_result_t)get_apphome_path_main(apphome, sizeof(apphome));
    CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");
    if (KEP_E_SUCCESS != ret) return ret;
    length = tarn_str_snprintf(joined, sizeof(joined), "%s/%s", apphome, rel);
  }

  const int ret = length;
  CHECK_EXPR(ret < buf_len, "len err! expect[%d], buf_len[%d]", ret, buf_len);
  if (ret >= buf_len) {
    // The caller learns how many characters the path needs; out is left
    // as it was.
    return (kep_result_t)ret;
  }
  tarn_strlcpy(out, joined, (size_t)buf_len);
  return KEP_E_SUCCESS;
}

TARNAUX_API uint32_t load_local_pack(const char *dir, com_list_var *list) {
  if (dir == nullptr || list == nullptr) return 1;
  char path[TARN_PATH_BUFFER_SIZE];
  memset(path, 0, sizeof(path));
  if (strchr(dir, '@') != nullptr) {
    // A cut expansion is used as it stands: its listing finds nothing.
    (void)tarn_dirutils_path_transform(dir, path, sizeof(path));
  } else {
    tarn_strlcpy(path, dir, sizeof(path));
  }
  tarn_str_strncat(path, "/", sizeof(path));
  tarn_str_strncat(path, kManifestDir, sizeof(path));
  LOG(info, "current dir: %s\n", path);

  ManifestPaths found;
  list_manifests(path, &found);
  if (found.count == 0) return 1;

  auto *items =
      static_cast<com_depend *>(zero_slots(found.count, sizeof(com_depend), OUT_OF_MEMORY_HERE));
  uint32_t stored = 0;
  for (uint32_t i = 0; i < found.count; ++i) {
    if (load_local_manifest(found.paths[i], &items[stored])) ++stored;
  }
  list->items = items;
  list->count = stored;
  return 0;
}

TARNAUX_API uint32_t unpack_com(const char *archive, const char *dest, com_info_var *info) {
  if (archive == nullptr || dest == nullptr || info == nullptr) return 1;
  const UnpackCache cache(archive, dest);
  if (unpack_tgz(archive, dest) != 0) {
    LOG(warn, "unzip component failed, tgz: %s\n", archive);
    return 1;
  }
  const char *name = cache.name();
  if (name == nullptr) {
    LOG(debug, "get base name failed from: [%s]\n", archive);
    return 1;
  }
  char manifest[kManifestPathSize];
  memset(manifest, 0, sizeof(manifest));
  tarn_str_snprintf(manifest, sizeof(manifest), "%s/%s/%s/%s%s", dest, name, kManifestDir, name,
                    kManifestExt);
  if (load_com_info(manifest, info) == 0) return 0;

  LOG(info, "load component info failed from (%s)\n", manifest);
  cache.remove();
  return 1;
}

TARNAUX_API int32_t check_file(const char *dir, const com_info_var *info) {
  if (dir == nullptr || info == nullptr || tarn_path_is_dir_u(dir) == 0) return 1;
  if (info->files == nullptr) return 0;
  for (uint32_t i = 0; i < info->file_count; ++i) {
    const com_file &file = info->files[i];
    if (file.name == nullptr || file.sha256 == nullptr) continue;
    char path[TARN_PATH_BUFFER_SIZE];
    memset(path, 0, sizeof(path));
    tarn_str_snprintf(path, sizeof(path), "%s/%s", dir, below_package_root(file.name));
    const int32_t ret = check_file_hash(path, file.sha256);
    if (ret != 0) return ret;
  }
  return 0;
}

TARNAUX_API int tarn_package_verify(const char *package_dir, char *report, size_t report_len) {
  if (package_dir == nullptr || package_dir[0] == '\0') {
    LOG(warn, "%sno package directory given\n", kVerifyPrefix);
    if (report != nullptr && report_len > 0) report[0] = '\0';
    return TARN_PACKAGE_VERIFY_BAD_ARGUMENT;
  }
  if (report == nullptr || report_len == 0) {
    LOG(warn, "%sno report buffer given\n", kVerifyPrefix);
    return TARN_PACKAGE_VERIFY_BAD_ARGUMENT;
  }
  report[0] = '\0';
  const TarnFd dir(open(package_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() < 0) {
    LOG(warn, "%scannot open package directory %s: %s\n", kVerifyPrefix, package_dir,
        strerror(errno));
    return TARN_PACKAGE_VERIFY_NO_MANIFEST;
  }
  char manifest_dir[TARN_PATH_BUFFER_SIZE];
  memset(manifest_dir, 0, sizeof(manifest_dir));
  tarn_str_snprintf(manifest_dir, sizeof(manifest_dir), "%s/%s", package_dir, kManifestDir);
  ManifestPaths found;
  list_manifests(manifest_dir, &found);
  if (found.count == 0) {
    LOG(warn, "%sno manifest in %s\n", kVerifyPrefix, manifest_dir);
    return TARN_PACKAGE_VERIFY_NO_MANIFEST;
  }
  // Every manifest loads before any file is read: a package with one
  // manifest that cannot be trusted is not verified at all.
  LoadedRecords records(found.count);
  for (uint32_t i = 0; i < found.count; ++i) {
    if (load_com_info(found.paths[i], &records[i]) == 0) continue;
    LOG(warn, "%smanifest %s does not load, package not verified\n", kVerifyPrefix,
        found.paths[i]);
    return TARN_PACKAGE_VERIFY_BAD_MANIFEST;
  }
  // One buffer for every file, whatever its size.
  const std::unique_ptr<unsigned char, BufferFree> buffer(static_cast<unsigned char *>(
      zero_slots(1, TARN_PACKAGE_VERIFY_BUFFER_SIZE, OUT_OF_MEMORY_HERE)));
  VerifyReport problems(package_dir, report, report_len);
  PackageFiles files(dir.get());
  uint32_t checked = 0;
  for (uint32_t i = 0; i < found.count; ++i) {
    checked += verify_record(&files, records[i], buffer.get(), &problems);
  }
  LOG(info, "%s%s: %u files checked, %u problems\n", kVerifyPrefix, package_dir,
      (unsigned)checked, (unsigned)problems.problems());
  return (int)problems.problems();
}

TARNAUX_API char *generate_new_name(const char *previous) {
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    tarn_uuid_t uuid;
    char text[TARN_UUID_CSTR_SIZE];
    memset(text, 0, sizeof(text));
    if (tarn_uuid_create(&uuid) != 0 || tarn_uuid_make_cstr(&uuid, text, sizeof(text)) != 0) continue;
    if (previous != nullptr && strncmp(text, previous, kNameLength) == 0) continue;
    return copy_text(text, OUT_OF_MEMORY_HERE);
  }
  return copy_text(COM_INFO_FALLBACK_NAME, OUT_OF_MEMORY_HERE);
}

}  // extern "C"
