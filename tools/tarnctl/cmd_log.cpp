// log [-f] [PROCESS]: the library's log files, where the log frame puts
// them when a process logs without a destination of its own:
// LOGDIR//velmora/TARN3_LOG/tarn_default_autolog//PROCESS/ (LOGDIR from the
// base library's configuration), or "@/../var/logs/tarn_default_autolog//
// PROCESS/" when there is no log directory; the base library writes
// tarn.log there and rotates it to tarn.log.1, tarn.log.2 ... (oldest last).

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_log.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

constexpr char kAutologSubdir[] = "/velmora/TARN3_LOG/tarn_default_autolog/";
constexpr char kAutologFallback[] = "@/../var/logs/tarn_default_autolog/";
constexpr char kLogFile[] = "tarn.log";
// The base library keeps at most this many files per directory.
constexpr int kMaxGenerations = 100;
constexpr size_t kPathSize = 1024;
// How often -f looks for new lines.
constexpr long kFollowPauseNs = 100 * 1000 * 1000;

// The directory that holds one directory per process.
std::string log_root() {
  char dir[kPathSize] = {0};
  if (tarn_log_dir(dir, sizeof(dir)) != 0) return std::string(dir) + kAutologSubdir;
  char expanded[kPathSize] = {0};
  if (tarn_dirutils_path_transform(kAutologFallback, expanded, sizeof(expanded)) != 0) return kAutologFallback;
  return expanded;
}

// The names of the directories in root, sorted.
std::vector<std::string> processes(const std::string &root) {
  std::vector<std::string> names;
  DIR *dir = opendir(root.c_str());
  if (dir == nullptr) return names;
  while (const dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && is_directory(root + name)) names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

// The log files of the process directory dir, oldest first.
std::vector<std::string> log_files(const std::string &dir) {
  std::vector<std::string> files;
  for (int generation = kMaxGenerations; generation > 0; --generation) {
    const std::string path = dir + kLogFile + "." + std::to_string(generation);
    if (path_error(path) == 0) files.push_back(path);
  }
  if (path_error(dir + kLogFile) == 0) files.push_back(dir + kLogFile);
  return files;
}

// Copies what fd holds from its position on to standard output. Returns
// false when standard output cannot be written.
bool copy_out(int fd) {
  char buffer[65536];
  ssize_t got = 0;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0) {
    if (fwrite(buffer, 1, (size_t)got, stdout) != (size_t)got) return false;
  }
  return fflush(stdout) == 0;
}

bool same_file(int fd, const std::string &path) {
  struct stat open_file, named;
  return fstat(fd, &open_file) == 0 && stat(path.c_str(), &named) == 0 && open_file.st_ino == named.st_ino &&
         open_file.st_dev == named.st_dev;
}

// Prints what is added to path from fd's position on, for ever: when the
// file is rotated (path names another file) the rest of the old one is
// printed and the new one followed from its start; when it is cut, it is
// followed from its start again.
int follow(const Invocation &inv, const std::string &path, int fd) {
  for (;;) {
    if (fd >= 0 && !copy_out(fd)) return fail(inv, kExitMissing, "cannot write standard output");
    struct stat st;
    const bool rotated = fd < 0 || !same_file(fd, path);
    const bool cut = !rotated && fstat(fd, &st) == 0 && st.st_size < lseek(fd, 0, SEEK_CUR);
    if (rotated) {
      const int next = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (next >= 0) {
        if (fd >= 0) {
          copy_out(fd);
          close(fd);
        }
        fd = next;
        continue;
      }
    } else if (cut) {
      lseek(fd, 0, SEEK_SET);
      continue;
    }
    struct timespec pause = {0, kFollowPauseNs};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace

int run_log(const Invocation &inv) {
  const std::string root = log_root();
  answer(inv, "directory", json_string(root.c_str()));
  if (inv.args.empty()) {
    if (!is_directory(root)) return fail(inv, kExitMissing, root + ": no log directory");
    json_t *list = json_array();
    for (const std::string &name : processes(root)) {
      say(inv, "%s %s%s/\n", name.c_str(), root.c_str(), name.c_str());
      json_array_append_new(list, json_pack("{s:s, s:s}", "process", name.c_str(), "path", (root + name + "/").c_str()));
    }
    answer(inv, "processes", list);
    return kExitOk;
  }
  const std::string &process = inv.args[0];
  if (process.empty() || process == "." || process == ".." || process.find('/') != std::string::npos) {
    return fail(inv, kExitUsage, "PROCESS must be a program's name, not \"" + process + "\"");
  }
  const bool following = inv.option("-f");
  if (following && inv.json()) return fail(inv, kExitUsage, "-f cannot be combined with --json");
  const std::string dir = root + process + "/";
  answer(inv, "process", json_string(process.c_str()));
  if (!is_directory(dir)) return fail(inv, kExitMissing, dir + ": no log of " + process);
  const std::vector<std::string> files = log_files(dir);
  if (files.empty() && !following) return fail(inv, kExitMissing, dir + ": no log file");
  json_t *paths = json_array();
  std::string text;
  int current = -1;
  for (const std::string &path : files) {
    json_array_append_new(paths, json_string(path.c_str()));
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      json_decref(paths);
      return fail(inv, kExitMissing, path + ": " + error_text(errno));
    }
    if (inv.json()) {
      char buffer[65536];
      ssize_t got = 0;
      while ((got = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, (size_t)got);
    } else if (!copy_out(fd)) {
      close(fd);
      json_decref(paths);
      return fail(inv, kExitMissing, "cannot write standard output");
    }
    if (path == dir + kLogFile) {
      current = fd;
    } else {
      close(fd);
    }
  }
  answer(inv, "files", paths);
  answer(inv, "text", json_string(text.c_str()));
  if (following) return follow(inv, dir + kLogFile, current);
  if (current >= 0) close(current);
  return kExitOk;
}

}  // namespace tarnctl
