#include "files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tarn_test {

std::string make_temp_directory(const std::string &prefix) {
  std::string name = "/tmp/" + prefix + "_XXXXXX";
  if (mkdtemp(&name[0]) == nullptr) return "";
  return name;
}

namespace {

// Writes content into a file just opened, gives it exactly mode and closes it.
bool fill_and_close(int fd, const std::string &content, mode_t mode) {
  if (fd < 0) return false;
  const bool ok = write(fd, content.data(), content.size()) == (ssize_t)content.size();
  fchmod(fd, mode);
  return close(fd) == 0 && ok;
}

}  // namespace

bool write_file(const std::string &path, const std::string &content, mode_t mode) {
  return fill_and_close(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode), content, mode);
}

bool replace_with_file(const std::string &path, const std::string &content, mode_t mode) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return false;
  return fill_and_close(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode), content,
                        mode);
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::set<std::string> list_directory(const std::string &path) {
  std::set<std::string> names;
  DIR *dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (struct dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(dir);
  return names;
}

bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

int file_mode(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return (int)(st.st_mode & 07777);
}

bool make_dirs(const std::string &path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return !ec;
}

std::string executable_directory() {
  char exe[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (length <= 0) return "";
  exe[length] = '\0';
  const std::string path(exe);
  return path.substr(0, path.rfind('/'));
}

const char *describe(NotAFile kind) { return kind == NotAFile::kFifo ? "a FIFO" : "a link to /dev/zero"; }

bool make_not_a_file(const std::string &path, NotAFile kind) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  return kind == NotAFile::kFifo ? mkfifo(path.c_str(), 0666) == 0 : symlink("/dev/zero", path.c_str()) == 0;
}

bool is_not_a_file(const std::string &path, NotAFile kind) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return false;
  if (kind == NotAFile::kFifo) return S_ISFIFO(st.st_mode);
  char target[16] = {0};
  return S_ISLNK(st.st_mode) && readlink(path.c_str(), target, sizeof(target) - 1) == 9 &&
         std::string(target) == "/dev/zero";
}

namespace {
constexpr char kBaseConfigDir[] = "/etc/velmora";
constexpr char kBaseConfigPath[] = "/etc/velmora/tarnbase.conf";
}  // namespace

BaseConfigFile::BaseConfigFile(const std::string &text)
    : ok_(make_dirs(kBaseConfigDir) && write_file(kBaseConfigPath, text)) {}

BaseConfigFile::~BaseConfigFile() { unlink(kBaseConfigPath); }

}  // namespace tarn_test
