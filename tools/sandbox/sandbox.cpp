// Private mount namespace: the host's file system read-only, overlays over
// the host's trees that the library writes into, fresh tmpfs mounts for
// scratch, shared memory and the install root, and the build folder
// writable.

#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
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
constexpr const char *kEnteredMarker = "TARN_SANDBOX_ENTERED";

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

bool same_file(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The identity of this process's mount namespace, "" when it cannot be read.
std::string mount_namespace_id() {
  struct stat st;
  if (stat("/proc/self/ns/mnt", &st) != 0) return "";
  return std::to_string(st.st_ino);
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

// Whether the root directory is the root of a mount. A kernel too old to
// say (before 5.8) is taken to run outside a chroot, where it always is.
bool root_is_a_mount_point() {
  struct statx stx;
  if (statx(AT_FDCWD, "/", 0, 0, &stx) != 0 || !(stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT)) return true;
  return (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Runs seal_the_host() with the namespace's own root as this process's root.
//
// In a container the root is a mount point and nothing more is needed. In a
// plain chroot it is a directory inside some mount, and the kernel changes
// propagation and mount attributes only at the root of a mount; the mounts
// above the chroot's folder must be made private too, or a mount made on a
// folder of a shared one would appear on the host. The namespace's own root
// is still reachable from a chroot by a root process: chroot into a
// subdirectory while the working directory stays above it, and ".." then
// leads past the old root until it no longer changes. This runs only in the
// new namespace, whose mounts are copies of the host's, and the process
// returns to its chroot (through a descriptor of it) before anything else.
int seal_the_host_from_its_root() {
  if (root_is_a_mount_point()) return seal_the_host();
  const Fd old_root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const Fd old_cwd(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (old_root.get() < 0 || old_cwd.get() < 0) return fail("open the chroot's root");
  if (chdir("/") != 0 || chroot("/etc") != 0) return fail("leave the chroot");
  struct stat here, up;
  if (stat(".", &here) != 0) return fail("leave the chroot");
  for (;;) {
    if (chdir("..") != 0 || stat(".", &up) != 0) return fail("leave the chroot");
    if (same_file(here, up)) break;
    here = up;
  }
  if (chroot(".") != 0) return fail("leave the chroot");
  const int sealed = seal_the_host();
  if (fchdir(old_root.get()) != 0 || chroot(".") != 0 || fchdir(old_cwd.get()) != 0)
    return fail("return to the chroot");
  return sealed;
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

// ---------------------------------------------------------------------------
// The executable's name.

// Executes this program again from path, with its arguments and the marker.
int execute_again(const std::string &path) {
  FILE *cmdline = fopen("/proc/self/cmdline", "re");
  if (cmdline == nullptr) return fail("read /proc/self/cmdline");
  std::string words;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), cmdline)) > 0) words.append(chunk, got);
  fclose(cmdline);
  std::vector<char *> argv;
  for (size_t start = 0; start < words.size(); start = words.find('\0', start) + 1) {
    argv.push_back(&words[start]);
  }
  argv.push_back(nullptr);
  const std::string id = mount_namespace_id();
  if (id.empty() || setenv(kEnteredMarker, id.c_str(), 1) != 0) return fail("mark the sandbox as entered");
  execv(path.c_str(), argv.data());
  return fail("execute " + path + " again");
}

// After unshare(CLONE_NEWNS) the running executable is still the file opened
// through a mount of the old namespace, so /proc/self/exe names it by its
// path from that namespace's root. In a chroot that path begins with the
// chroot's folder, and a program that finds files beside itself through the
// link would look outside its root. Such a program is executed again, once
// the sandbox is ready, through the tail of that path that names the same
// file inside this root: *again is set to it, or left empty when the link
// is right. This runs before the overlays are laid, which give the files
// below them other device numbers.
int find_executable_name(std::string *again) {
  struct stat exe, named;
  const Fd fd(open("/proc/self/exe", O_PATH | O_CLOEXEC));
  if (fd.get() < 0 || fstat(fd.get(), &exe) != 0) return fail("open /proc/self/exe");
  char link[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", link, sizeof(link) - 1);
  if (length <= 0) return fail("read /proc/self/exe");
  const std::string path(link, (size_t)length);
  if (stat(path.c_str(), &named) == 0 && same_file(exe, named)) return 0;
  // An executable replaced on disk while it runs has no path at all.
  if (exe.st_nlink == 0) return 0;
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string inside = path.substr(slash);
    if (stat(inside.c_str(), &named) == 0 && same_file(exe, named)) {
      *again = inside;
      return 0;
    }
  }
  errno = ENOENT;
  return fail("find the executable " + path + " inside the root");
}

// Whether this process is the run that execute_again() started, in the
// namespace it had entered. The marker is removed either way, so that the
// programs this one starts do not inherit it.
bool entered_already() {
  const char *marker = getenv(kEnteredMarker);
  if (marker == nullptr) return false;
  const std::string value = marker;
  unsetenv(kEnteredMarker);
  return value == mount_namespace_id();
}

}  // namespace

extern "C" int tarn_sandbox_enter(void) {
  if (entered_already()) return 0;
  if (geteuid() != 0 && enter_user_namespace() != 0) return -1;
  if (unshare(CLONE_NEWNS) != 0) return fail("unshare(CLONE_NEWNS)");
  std::string again;
  if (find_executable_name(&again) != 0) return -1;
  if (seal_the_host_from_its_root() != 0) return -1;
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
  return again.empty() ? 0 : execute_again(again);
}
