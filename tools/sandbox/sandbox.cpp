// Private mount namespace: the host's file system read-only, overlays over
// the host's trees that the library writes into, fresh tmpfs mounts for
// scratch, shared memory and the install root, and the build folder
// writable.

#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

constexpr const char *kScratch = "/run/tarn-sandbox";
constexpr const char *kHeldBuild = "/run/tarn-sandbox/build";
constexpr const char *kOverlaid[] = {"/etc", "/var", "/usr/share", "/tmp"};
constexpr const char *kInstallRoot = "/usr/share/velmora/TARN";
constexpr const char *kBuildFolder = TARN_SANDBOX_BUILD_DIR;

int fail(const std::string &what) {
  fprintf(stderr, "tarn-sandbox: %s: %s\n", what.c_str(), strerror(errno));
  return -1;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool write_file(const char *path, const std::string &text) {
  Fd fd(open(path, O_WRONLY | O_CLOEXEC));
  return fd.get() >= 0 && write(fd.get(), text.data(), text.size()) == (ssize_t)text.size();
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

// ---------------------------------------------------------------------------
// Read-only and writable mounts. The flag is one of each mount of this
// namespace, never of the file system below it: the host's mounts keep
// theirs.

// The flags a bind remount must repeat: the kernel refuses to clear those
// that a user namespace's copy of a mount has locked.
unsigned long kept_flags(const char *path) {
  struct statvfs st;
  if (statvfs(path, &st) != 0) return 0;
  unsigned long flags = 0;
  if (st.f_flag & ST_NOSUID) flags |= MS_NOSUID;
  if (st.f_flag & ST_NODEV) flags |= MS_NODEV;
  if (st.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
  return flags;
}

// The fallback where mount_setattr() is missing (kernels before 5.12,
// qemu-user): a bind remount of the one mount at path.
bool bind_remount(const char *path, bool read_only) {
  const unsigned long flags = MS_BIND | MS_REMOUNT | kept_flags(path) | (read_only ? MS_RDONLY : 0);
  return mount(nullptr, path, nullptr, flags, nullptr) == 0;
}

// The mount points of this namespace that the root reaches, in the order of
// /proc/self/mountinfo (the fifth field, with its octal escapes undone).
bool list_mount_points(std::vector<std::string> *points) {
  FILE *mountinfo = fopen("/proc/self/mountinfo", "re");
  if (mountinfo == nullptr) return false;
  char *line = nullptr;
  size_t size = 0;
  while (getline(&line, &size, mountinfo) > 0) {
    const char *field = line;
    for (int skip = 0; skip < 4 && field != nullptr; ++skip) {
      field = strchr(field, ' ');
      if (field != nullptr) ++field;
    }
    if (field == nullptr) continue;
    std::string point;
    for (const char *c = field; *c != '\0' && *c != ' '; ++c) {
      if (c[0] == '\\' && c[1] >= '0' && c[1] <= '3' && c[2] >= '0' && c[2] <= '7' && c[3] >= '0' &&
          c[3] <= '7') {
        point += (char)((c[1] - '0') * 64 + (c[2] - '0') * 8 + (c[3] - '0'));
        c += 3;
      } else {
        point += *c;
      }
    }
    points->push_back(point);
  }
  free(line);
  fclose(mountinfo);
  return true;
}

// Makes every mount of this namespace read-only; the root must be the
// namespace's own.
int make_all_read_only() {
  struct mount_attr attr = {};
  attr.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attr, sizeof(attr)) == 0) return 0;
  if (errno != ENOSYS) return fail("make every mount read-only");
  std::vector<std::string> points;
  if (!list_mount_points(&points)) return fail("read /proc/self/mountinfo");
  for (const std::string &point : points) {
    // A mount hidden under a later one is no longer found at its path (the
    // path is gone, or names a directory of the mount above): nothing
    // reaches it by a path any more.
    if (!bind_remount(point.c_str(), true) && errno != ENOENT && errno != EINVAL)
      return fail("remount " + point + " read-only");
  }
  return 0;
}

// Makes the one mount at path writable again.
int make_writable(const char *path) {
  struct mount_attr attr = {};
  attr.attr_clr = MOUNT_ATTR_RDONLY;
  if (mount_setattr(AT_FDCWD, path, 0, &attr, sizeof(attr)) == 0) return 0;
  if (errno != ENOSYS || !bind_remount(path, false)) return fail(std::string("make ") + path + " writable");
  return 0;
}

// Every mount made private (so that nothing mounted here reaches the host's
// namespace), then read-only.
int seal_the_host() {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make / private");
  return make_all_read_only();
}

// ---------------------------------------------------------------------------
// The writable mounts.

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

// The build folder is bound writable under the scratch tmpfs before the
// overlays are laid, and moved onto its own path after them: a build folder
// inside an overlaid tree (/tmp) is then still the host's folder, not the
// overlay's copy. A program run without its build folder has none to keep.
int hold_build_folder(bool *held) {
  struct stat st;
  *held = false;
  if (stat(kBuildFolder, &st) != 0) return errno == ENOENT ? 0 : fail(std::string("stat ") + kBuildFolder);
  if (mkdir(kHeldBuild, 0700) != 0) return fail(std::string("mkdir ") + kHeldBuild);
  if (mount(kBuildFolder, kHeldBuild, nullptr, MS_BIND, nullptr) != 0)
    return fail(std::string("bind the build folder ") + kBuildFolder);
  if (make_writable(kHeldBuild) != 0) return -1;
  *held = true;
  return 0;
}

int place_build_folder() {
  if (mount(kHeldBuild, kBuildFolder, nullptr, MS_MOVE, nullptr) != 0)
    return fail(std::string("place the build folder on ") + kBuildFolder);
  return 0;
}

}  // namespace

extern "C" int tarn_sandbox_enter(void) {
  if (geteuid() != 0 && enter_user_namespace() != 0) return -1;
  if (unshare(CLONE_NEWNS) != 0) return fail("unshare(CLONE_NEWNS)");
  if (seal_the_host() != 0) return -1;
  // Tests write files of /proc/self; writes to device nodes pass a
  // read-only mount anyway.
  if (make_writable("/proc") != 0) return -1;
  // The overlays' upper layers live in a tmpfs of their own, mounted on an
  // existing directory that none of the overlays covers.
  if (mount_tmpfs("/run", "mode=0755") != 0) return -1;
  if (mkdir(kScratch, 0700) != 0) return fail("mkdir scratch");
  bool build_held = false;
  if (hold_build_folder(&build_held) != 0) return -1;
  int index = 0;
  for (const char *target : kOverlaid) {
    if (mount_overlay(target, index++) != 0) return -1;
  }
  if (mount_tmpfs("/dev/shm", "mode=1777") != 0) return -1;
  if (mkdir("/usr/share/velmora", 0755) != 0 && errno != EEXIST) return fail("mkdir velmora");
  if (mkdir(kInstallRoot, 0755) != 0 && errno != EEXIST) return fail("mkdir install root");
  if (mount_tmpfs(kInstallRoot, "mode=0755") != 0) return -1;
  if (mkdir("/etc/velmora", 0755) != 0 && errno != EEXIST) return fail("mkdir /etc/velmora");
  if (build_held && place_build_folder() != 0) return -1;
  return 0;
}
