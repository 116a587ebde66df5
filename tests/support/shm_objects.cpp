#include "shm_objects.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn_test {

bool plant_object(const std::string &path, const std::string &content, uid_t uid, gid_t gid,
                  mode_t mode) {
  unlink(path.c_str());
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool ok = write(fd, content.data(), content.size()) == (ssize_t)content.size() &&
                  fchown(fd, uid, gid) == 0 && fchmod(fd, mode) == 0;
  close(fd);
  return ok;
}

std::string describe_object(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "missing";
  if (S_ISLNK(st.st_mode)) return "link";
  if (!S_ISREG(st.st_mode)) return "other kind";
  char text[96];
  snprintf(text, sizeof(text), "regular %u:%u %04o %lld", (unsigned)st.st_uid, (unsigned)st.st_gid,
           (unsigned)(st.st_mode & 07777), (long long)st.st_size);
  return text;
}

ino_t inode_of(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

}  // namespace tarn_test
