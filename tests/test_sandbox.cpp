// The sandbox that every test program enters before its first test
// (tools/sandbox/sandbox.h), seen from inside: the host's files cannot be
// written, not even through a link out of an overlay, while the overlays,
// the sandbox's own tmpfs mounts, /proc, the device nodes and the build
// folder can; /proc/self/exe names this program inside its root; and the
// marker of a program executed again is honoured only in its own namespace.
//
// The write attempts put a file's own bytes back into it, so a sandbox that
// let one through would change no content of the host's, only the file's
// times, which the tests compare.

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "files.h"

namespace {

using tarn_test::read_file;

constexpr char kHostRelease[] = "/usr/lib/os-release";

// What a file is: its bytes and the times a write changes.
struct FileState {
  std::string content;
  struct timespec modified = {};
  struct timespec changed = {};

  bool operator==(const FileState &other) const {
    return content == other.content && modified.tv_sec == other.modified.tv_sec &&
           modified.tv_nsec == other.modified.tv_nsec && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
  }
};

FileState state_of(const std::string &path) {
  FileState state;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return state;
  state.content = read_file(path);
  state.modified = st.st_mtim;
  state.changed = st.st_ctim;
  return state;
}

// Writes the file's own bytes back into it through path (links followed);
// the error, or 0 when the write went through.
int rewrite(const std::string &path) {
  const std::string content = read_file(path);
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  const bool written = pwrite(fd, content.data(), content.size(), 0) == (ssize_t)content.size();
  const int error = errno;
  close(fd);
  return written ? 0 : error;
}

// Opens an existing file for writing and closes it again unchanged; the
// error, or 0.
int open_for_writing(const std::string &path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

// Creates a file through path, which names nothing yet or is a link to
// target, where nothing is either, and removes what was made; the error, or
// 0 when it was made.
int create_file(const std::string &path, const std::string &target) {
  if (tarn_test::exists(target)) return EEXIST;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  close(fd);
  unlink(target.c_str());
  return 0;
}

// Writes, reads back and removes a file in dir; "" or what went wrong.
std::string round_trip(const std::string &dir) {
  const std::string path = dir + "/tarn_sandbox_probe_" + std::to_string(getpid());
  if (!tarn_test::write_file(path, "probe\n")) return path + ": " + strerror(errno);
  const std::string back = read_file(path);
  if (unlink(path.c_str()) != 0) return path + ": " + strerror(errno);
  return back == "probe\n" ? "" : path + " read back \"" + back + "\"";
}

std::string mount_namespace() {
  char link[64];
  const ssize_t length = readlink("/proc/self/ns/mnt", link, sizeof(link));
  return length > 0 ? std::string(link, (size_t)length) : "";
}

TEST(SandboxTest, TheHostsFilesCannotBeWrittenNorMade) {
  const FileState before = state_of(kHostRelease);
  ASSERT_FALSE(before.content.empty()) << kHostRelease;
  EXPECT_EQ(rewrite(kHostRelease), EROFS);
  EXPECT_EQ(open_for_writing("/usr/bin/env"), EROFS);
  for (const char *dir : {"/usr/lib", "/usr/bin", "/opt", "/root"}) {
    const std::string probe = std::string(dir) + "/tarn_sandbox_probe";
    EXPECT_EQ(create_file(probe, probe), EROFS) << dir;
    const std::string made = probe + "_dir";
    const int error = mkdir(made.c_str(), 0755) == 0 ? 0 : errno;
    if (error == 0) rmdir(made.c_str());
    EXPECT_EQ(error, EROFS) << dir;
  }
  EXPECT_TRUE(state_of(kHostRelease) == before) << kHostRelease << " changed";
}

TEST(SandboxTest, WritesThroughLinksOutOfTheOverlaysFail) {
  const FileState before = state_of(kHostRelease);
  ASSERT_FALSE(before.content.empty()) << kHostRelease;
  // Debian's own link, and links the test makes in two overlays.
  char target[PATH_MAX] = "";
  ASSERT_GT(readlink("/etc/os-release", target, sizeof(target) - 1), 0) << "/etc/os-release is not a link";
  EXPECT_STREQ(target, "../usr/lib/os-release");
  EXPECT_EQ(rewrite("/etc/os-release"), EROFS);
  const std::string link = "/etc/tarn_sandbox_link_" + std::to_string(getpid());
  ASSERT_EQ(symlink(kHostRelease, link.c_str()), 0) << strerror(errno);
  EXPECT_EQ(rewrite(link), EROFS);
  EXPECT_EQ(unlink(link.c_str()), 0);
  const std::string dangling = "/tmp/tarn_sandbox_link_" + std::to_string(getpid());
  const std::string probe = "/usr/bin/tarn_sandbox_probe";
  ASSERT_EQ(symlink(probe.c_str(), dangling.c_str()), 0) << strerror(errno);
  EXPECT_EQ(create_file(dangling, probe), EROFS);
  EXPECT_FALSE(tarn_test::exists(probe));
  EXPECT_EQ(unlink(dangling.c_str()), 0);
  EXPECT_TRUE(state_of(kHostRelease) == before) << kHostRelease << " changed";
}

TEST(SandboxTest, TheOverlaysTmpfsMountsAndBuildFolderStayWritable) {
  for (const char *dir : {"/etc", "/var", "/usr/share", "/tmp", "/dev/shm", "/usr/share/velmora/TARN", "/run",
                          TARN_BUILD_DIR}) {
    EXPECT_EQ(round_trip(dir), "") << dir;
  }
  // A link out of an overlay replaced by a file of its own (as the tests
  // that need their own /etc/os-release do) leaves the host's file alone.
  const FileState host = state_of(kHostRelease);
  const std::string link = "/etc/tarn_sandbox_release_" + std::to_string(getpid());
  ASSERT_EQ(symlink(kHostRelease, link.c_str()), 0) << strerror(errno);
  ASSERT_TRUE(tarn_test::replace_with_file(link, "ID=tarn\n")) << strerror(errno);
  EXPECT_EQ(read_file(link), "ID=tarn\n");
  EXPECT_EQ(unlink(link.c_str()), 0);
  EXPECT_TRUE(state_of(kHostRelease) == host) << kHostRelease << " changed";
}

TEST(SandboxTest, ProcAndTheDeviceNodesStayWritable) {
  EXPECT_TRUE(tarn_test::write_file("/proc/self/comm", "tarn-probe"));
  EXPECT_EQ(read_file("/proc/self/comm"), "tarn-probe\n");
  const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_EQ(write(fd, "x", 1), 1);
  close(fd);
}

TEST(SandboxTest, TheExecutableIsNamedInsideTheRoot) {
  char link[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", link, sizeof(link) - 1);
  ASSERT_GT(length, 0) << strerror(errno);
  link[length] = '\0';
  struct stat named, running;
  ASSERT_EQ(stat(link, &named), 0) << link << ": " << strerror(errno);
  const int fd = open("/proc/self/exe", O_PATH | O_CLOEXEC);
  ASSERT_GE(fd, 0) << strerror(errno);
  ASSERT_EQ(fstat(fd, &running), 0) << strerror(errno);
  close(fd);
  EXPECT_EQ(named.st_dev, running.st_dev) << link;
  EXPECT_EQ(named.st_ino, running.st_ino) << link;
  EXPECT_EQ(getenv("TARN_SANDBOX_ENTERED"), nullptr);
}

// Runs the sandbox tool with marker as TARN_SANDBOX_ENTERED; the command it
// runs prints the marker it inherited ("unset" when none) and its mount
// namespace.
std::string sandbox_tool_with_marker(const std::string &marker) {
  setenv("TARN_SANDBOX_ENTERED", marker.c_str(), 1);
  FILE *out = popen(TARN_SANDBOX_PATH " sh -c 'echo ${TARN_SANDBOX_ENTERED-unset}; readlink /proc/self/ns/mnt'", "r");
  unsetenv("TARN_SANDBOX_ENTERED");
  if (out == nullptr) return "<popen failed>";
  std::string text;
  char chunk[256];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), out)) > 0) text.append(chunk, got);
  const int status = pclose(out);
  return status == 0 ? text : text + "<exit status " + std::to_string(status) + ">";
}

TEST(SandboxTest, TheMarkerOfThisNamespaceEntersNoOther) {
  const std::string here = mount_namespace();
  ASSERT_FALSE(here.empty());
  // The marker holds the namespace's inode number, the digits of
  // "mnt:[NUMBER]": a program executed again keeps the namespace it made.
  const std::string number = here.substr(5, here.size() - 6);
  EXPECT_EQ(sandbox_tool_with_marker(number), "unset\n" + here + "\n");
  // A marker of another namespace (left over in an environment) does not
  // let a program skip its own sandbox.
  const std::string fresh = sandbox_tool_with_marker("1");
  EXPECT_EQ(fresh.substr(0, 6), "unset\n");
  EXPECT_NE(fresh.substr(6), here + "\n");
  EXPECT_EQ(fresh.substr(6, 5), "mnt:[");
}

}  // namespace
