// What a test checks after an injected fault: the app home each of the
// record and its backup names, the temporary files that a save may have
// left, and the descriptors this process holds.
#ifndef TARN_TEST_FAULT_RECORDS_H
#define TARN_TEST_FAULT_RECORDS_H

#include <dirent.h>

#include <optional>
#include <string>
#include <vector>

#include "install_root.h"

namespace tarn_test {

// The "app_home" value of the ini file at path; nullopt when the file does
// not load or names none.
inline std::optional<std::string> named_apphome(const std::string &path) {
  const std::optional<Sections> sections = load_ini(path);
  if (!sections) return std::nullopt;
  const auto section = sections->find("apphome");
  if (section == sections->end()) return std::nullopt;
  const auto key = section->second.find("app_home");
  if (key == section->second.end()) return std::nullopt;
  return key->second;
}

struct RecordNames {
  std::optional<std::string> record;
  std::optional<std::string> backup;
};

inline RecordNames recorded_names() { return {named_apphome(kRecordPath), named_apphome(kBackupPath)}; }

inline std::string describe(const std::optional<std::string> &name) {
  return name ? *name : std::string("<unusable>");
}

// The names in dir that a save's temporary file carries ("<name>.tmp.<pid>.<n>").
inline std::vector<std::string> leftover_temporaries(const std::string &dir) {
  std::vector<std::string> found;
  for (const std::string &name : list_directory(dir)) {
    if (name.find(".tmp.") != std::string::npos) found.push_back(name);
  }
  return found;
}

// The number of descriptors open in this process.
inline int open_descriptors() {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (struct dirent *entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

}  // namespace tarn_test

#endif  // TARN_TEST_FAULT_RECORDS_H
