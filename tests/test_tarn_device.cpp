// Tests of the disk space query: the three figures on a tmpfs of known size
// mounted by the test (inside its private mount namespace), files of a
// known size filling it, and what the query refuses.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tarnbase/tarn_device.h>

#include "files.h"

namespace {

constexpr uint64_t kPage = 4096;
constexpr uint64_t kSize = 256 * kPage;  // 1 MiB

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(sysconf(_SC_PAGESIZE), (long)kPage) << "the sizes below assume 4 KiB pages";
    dir_ = tarn_test::make_temp_directory("device");
    ASSERT_FALSE(dir_.empty());
    const std::string options = "size=" + std::to_string(kSize) + ",mode=0755";
    ASSERT_EQ(mount("tarn-test", dir_.c_str(), "tmpfs", 0, options.c_str()), 0) << strerror(errno);
  }
  void TearDown() override { umount2(dir_.c_str(), MNT_DETACH); }

  static uint64_t space(const std::string &path, int kind) {
    uint64_t bytes = 7;
    EXPECT_EQ(tarn_device_disk_space(path.c_str(), kind, &bytes), 1) << path << ": " << strerror(errno);
    return bytes;
  }

  std::string dir_;
};

TEST_F(DeviceTest, AnEmptyTmpfsHasItsWholeSizeAvailableFreeAndInTotal) {
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_AVAILABLE), kSize);
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_FREE), kSize);
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_TOTAL), kSize);
}

TEST_F(DeviceTest, AFileTakesItsPagesFromTheAvailableAndFreeFiguresNotTheTotal) {
  ASSERT_TRUE(tarn_test::write_file(dir_ + "/data", std::string(100 * kPage, 'x')));
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_AVAILABLE), kSize - 100 * kPage);
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_FREE), kSize - 100 * kPage);
  EXPECT_EQ(space(dir_, TARN_DEVICE_SPACE_TOTAL), kSize);
}

TEST_F(DeviceTest, AFileOnTheFileSystemReportsTheSameAsItsDirectory) {
  ASSERT_TRUE(tarn_test::write_file(dir_ + "/data", std::string(kPage + 1, 'x')));
  EXPECT_EQ(space(dir_ + "/data", TARN_DEVICE_SPACE_AVAILABLE), kSize - 2 * kPage);
}

TEST_F(DeviceTest, AMissingPathFailsWithTheErrnoOfStatvfsAndKeepsTheCount) {
  uint64_t bytes = 7;
  errno = 0;
  EXPECT_EQ(tarn_device_disk_space((dir_ + "/missing").c_str(), TARN_DEVICE_SPACE_AVAILABLE, &bytes), 0);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_TRUE(tarn_test::write_file(dir_ + "/file", "x"));
  errno = 0;
  EXPECT_EQ(tarn_device_disk_space((dir_ + "/file/below").c_str(), TARN_DEVICE_SPACE_AVAILABLE, &bytes), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(bytes, 7u);
}

TEST_F(DeviceTest, BadArgumentsFailWithEinval) {
  uint64_t bytes = 7;
  const int kinds[] = {-1, 3};
  for (int kind : kinds) {
    errno = 0;
    EXPECT_EQ(tarn_device_disk_space(dir_.c_str(), kind, &bytes), 0) << kind;
    EXPECT_EQ(errno, EINVAL);
  }
  errno = 0;
  EXPECT_EQ(tarn_device_disk_space(nullptr, TARN_DEVICE_SPACE_AVAILABLE, &bytes), 0);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(tarn_device_disk_space("", TARN_DEVICE_SPACE_AVAILABLE, &bytes), 0);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(tarn_device_disk_space(dir_.c_str(), TARN_DEVICE_SPACE_AVAILABLE, nullptr), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(bytes, 7u);
}

}  // namespace
