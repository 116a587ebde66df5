// Small file operations for tests: fresh directories below /tmp, writing and
// reading whole files, replacing a system file (a link included) with a file
// of its own, listing a directory, whether a path exists, its
// permission bits, making a directory tree, the directory of the running
// test program, and what a reader of files must refuse in place of one.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_FILES_H
#define TARN_TEST_FILES_H

#include <sys/types.h>

#include <set>
#include <string>

namespace tarn_test {

// A new directory /tmp/<prefix>_XXXXXX; "" when it cannot be made.
std::string make_temp_directory(const std::string &prefix);

// Creates or replaces path with content; the file ends up with exactly the
// permission bits mode, whatever the umask or its mode before.
bool write_file(const std::string &path, const std::string &content, mode_t mode = 0644);

// Puts content at path as a new regular file with exactly the permission
// bits mode. Whatever was at path is removed first and never followed: on
// Debian /etc/os-release is a symbolic link to ../usr/lib/os-release, which
// no overlay of the sandbox covers. False, with errno set, when a step
// failed.
bool replace_with_file(const std::string &path, const std::string &content, mode_t mode = 0644);

// The whole content, or "<missing>" when the file cannot be read.
std::string read_file(const std::string &path);

// The names in a directory, without "." and ".."; empty when it cannot be read.
std::set<std::string> list_directory(const std::string &path);

// Whether there is anything at path (a dangling link included).
bool exists(const std::string &path);

// The permission bits, or -1 when there is no such file.
int file_mode(const std::string &path);

// Makes the directory and its missing parents.
bool make_dirs(const std::string &path);

// The directory of this program's executable, or "".
std::string executable_directory();

// What can stand at a file's path in place of a regular file, for the
// readers that must refuse it at once: a FIFO, whose open would wait for a
// writer, and a symbolic link to /dev/zero, which never ends.
enum class NotAFile { kFifo, kLinkToDevZero };
constexpr NotAFile kNotAFiles[] = {NotAFile::kFifo, NotAFile::kLinkToDevZero};

// "a FIFO", "a link to /dev/zero".
const char *describe(NotAFile kind);

// Replaces whatever is at path with one of kind.
bool make_not_a_file(const std::string &path, NotAFile kind);

// Whether path is (still) one of kind: a FIFO, or a symbolic link naming
// /dev/zero.
bool is_not_a_file(const std::string &path, NotAFile kind);

// The base library's configuration file (/etc/velmora/tarnbase.conf) holding
// text for the holder's lifetime, removed afterwards. A process reads it once,
// so it reaches the children forked while it is held, not the test itself if
// that has read it already.
class BaseConfigFile {
 public:
  explicit BaseConfigFile(const std::string &text);
  ~BaseConfigFile();
  BaseConfigFile(const BaseConfigFile &) = delete;
  BaseConfigFile &operator=(const BaseConfigFile &) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

// The lock wait of the configuration shortened to one second.
constexpr char kOneSecondLockWait[] = "[lock]\nwait_seconds = 1\n";

}  // namespace tarn_test

#endif
