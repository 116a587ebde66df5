// Private mount namespace: overlays over the host's trees that the library
// writes into, and fresh tmpfs mounts for shared memory and the install root.

#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

constexpr const char *kScratch = "/run/tarn-sandbox";
constexpr const char *kOverlaid[] = {"/etc", "/var", "/usr/share", "/tmp"};
constexpr const char *kInstallRoot = "/usr/share/velmora/TARN";

int fail(const std::string &what) {
  fprintf(stderr, "tarn-sandbox: %s: %s\n", what.c_str(), strerror(errno));
  return -1;
}

bool write_file(const char *path, const std::string &text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
  close(fd);
  return ok;
}

int enter_user_namespace() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER) != 0) return fail("unshare(CLONE_NEWUSER)");
  write_file("/proc/self/setgroups", "deny");
  if (!write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n")) return fail("uid_map");
  if (!write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")) return fail("gid_map");
  return 0;
}

int mount_tmpfs(const char *target, const char *options) {
  if (mount("tarn-sandbox", target, "tmpfs", MS_NOSUID | MS_NODEV, options) != 0)
    return fail(std::string("mount tmpfs on ") + target);
  return 0;
}

int mount_overlay(const char *target, int index) {
  const std::string base = std::string(kScratch) + "/" + std::to_string(index);
  const std::string upper = base + "/upper";
  const std::string work = base + "/work";
  if (mkdir(base.c_str(), 0755) != 0 || mkdir(upper.c_str(), 0755) != 0 ||
      mkdir(work.c_str(), 0755) != 0)
    return fail("mkdir " + base);
  const std::string options =
      std::string("lowerdir=") + target + ",upperdir=" + upper + ",workdir=" + work;
  if (mount("tarn-sandbox", target, "overlay", 0, options.c_str()) != 0)
    return fail(std::string("mount overlay on ") + target);
  return 0;
}

}  // namespace

extern "C" int tarn_sandbox_enter(void) {
  if (geteuid() != 0 && enter_user_namespace() != 0) return -1;
  if (unshare(CLONE_NEWNS) != 0) return fail("unshare(CLONE_NEWNS)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return fail("make / private");
  // The overlays' upper layers live in a tmpfs of their own, mounted on an
  // existing directory that none of the overlays covers.
  mkdir("/run", 0755);
  if (mount_tmpfs("/run", "mode=0755") != 0) return -1;
  if (mkdir(kScratch, 0700) != 0) return fail("mkdir scratch");
  int index = 0;
  for (const char *target : kOverlaid) {
    if (mount_overlay(target, index++) != 0) return -1;
  }
  if (mount_tmpfs("/dev/shm", "mode=1777") != 0) return -1;
  if (mkdir("/usr/share/velmora", 0755) != 0 && errno != EEXIST) return fail("mkdir velmora");
  if (mkdir(kInstallRoot, 0755) != 0 && errno != EEXIST) return fail("mkdir install root");
  if (mount_tmpfs(kInstallRoot, "mode=0755") != 0) return -1;
  if (mkdir("/etc/velmora", 0755) != 0 && errno != EEXIST) return fail("mkdir /etc/velmora");
  return 0;
}
