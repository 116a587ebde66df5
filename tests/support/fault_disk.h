// A full disk for real: a small tmpfs mounted on a directory in the test's
// own mount namespace (test_main.cpp enters one), filled until only as many
// pages or inodes as the test asks for are left, and unmounted again when the
// holder goes out of scope.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_FAULT_DISK_H
#define TARN_TEST_FAULT_DISK_H

#include <stdint.h>

#include <string>

namespace tarn_test {

class SmallDisk {
 public:
  // Mounts a tmpfs of size_kb kilobytes (and at most inodes inodes, when
  // not 0) on dir, which is made when missing. What was below dir is hidden
  // until the disk is unmounted.
  SmallDisk(const std::string &dir, unsigned size_kb, unsigned inodes = 0);
  ~SmallDisk();
  SmallDisk(const SmallDisk &) = delete;
  SmallDisk &operator=(const SmallDisk &) = delete;

  bool ok() const { return mounted_; }
  // strerror of the failed mount, or "".
  const std::string &error() const { return error_; }

  uint64_t free_pages() const;
  uint64_t free_inodes() const;

  // Fills the disk with the file ".filler" (replacing an earlier one) until
  // exactly pages pages are free. False when that cannot be done.
  bool leave_free_pages(uint64_t pages);
  // Makes empty files ".inode.<n>" until exactly inodes inodes are free.
  bool leave_free_inodes(uint64_t inodes);

  // Removes every file that the two calls above made.
  void unfill();

 private:
  std::string dir_;
  bool mounted_ = false;
  std::string error_;
  unsigned inode_files_ = 0;
};

}  // namespace tarn_test

#endif  // TARN_TEST_FAULT_DISK_H
