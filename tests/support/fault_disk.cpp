#include "fault_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <vector>

#include "files.h"

namespace tarn_test {

namespace {

bool stat_disk(const std::string &dir, struct statvfs *st) { return statvfs(dir.c_str(), st) == 0; }

// Writes size bytes of zeros to a new file at path.
bool write_zeros(const std::string &path, uint64_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::vector<char> block(64 * 1024, '\0');
  bool ok = true;
  while (ok && size > 0) {
    const size_t chunk = size < block.size() ? (size_t)size : block.size();
    const ssize_t written = write(fd, block.data(), chunk);
    ok = written > 0;
    if (ok) size -= (uint64_t)written;
  }
  return close(fd) == 0 && ok;
}

}  // namespace

SmallDisk::SmallDisk(const std::string &dir, unsigned size_kb, unsigned inodes) : dir_(dir) {
  if (!make_dirs(dir)) {
    error_ = "cannot make " + dir;
    return;
  }
  std::string options = "size=" + std::to_string(size_kb) + "k,mode=0755";
  if (inodes != 0) options += ",nr_inodes=" + std::to_string(inodes);
  mounted_ = mount("tarn-small-disk", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
  if (!mounted_) error_ = strerror(errno);
}

SmallDisk::~SmallDisk() {
  if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
}

uint64_t SmallDisk::free_pages() const {
  struct statvfs st;
  return stat_disk(dir_, &st) ? st.f_bavail : 0;
}

uint64_t SmallDisk::free_inodes() const {
  struct statvfs st;
  return stat_disk(dir_, &st) ? st.f_favail : 0;
}

bool SmallDisk::leave_free_pages(uint64_t pages) {
  const std::string filler = dir_ + "/.filler";
  unlink(filler.c_str());
  struct statvfs st;
  if (!stat_disk(dir_, &st) || st.f_bavail < pages) return false;
  if (st.f_bavail > pages && !write_zeros(filler, (st.f_bavail - pages) * st.f_bsize)) return false;
  return free_pages() == pages;
}

bool SmallDisk::leave_free_inodes(uint64_t inodes) {
  while (free_inodes() > inodes) {
    const std::string path = dir_ + "/.inode." + std::to_string(inode_files_++);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    close(fd);
  }
  return free_inodes() == inodes;
}

void SmallDisk::unfill() {
  unlink((dir_ + "/.filler").c_str());
  for (unsigned n = 0; n < inode_files_; ++n) unlink((dir_ + "/.inode." + std::to_string(n)).c_str());
  inode_files_ = 0;
}

}  // namespace tarn_test
