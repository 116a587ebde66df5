// The directory walk through libtarnbase.so: its order (names byte for
// byte, depth first, a directory before its entries), the paths and kinds
// it reports, its depth, symbolic links followed or not, entries that come
// and go during the walk, its end, and its errors.
//
// Each test works in a fresh directory below the sandbox's private /tmp.

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_dirwalk.h>

#include "child_process.h"
#include "files.h"

namespace {

using tarn_test::fork_child;
using tarn_test::make_dirs;
using tarn_test::make_temp_directory;
using tarn_test::reap;
using tarn_test::write_file;

// One reported entry: its path below the root (the root's prefix cut off)
// and its kind.
using Entry = std::pair<std::string, int>;
constexpr int kDir = TARN_DIRWALK_DIR;
constexpr int kNotDir = TARN_DIRWALK_NOT_DIR;

class DirwalkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_directory("tarn_dirwalk");
    ASSERT_FALSE(dir_.empty());
  }
  std::string at(const std::string &name) const { return dir_ + "/" + name; }

  // Reads the walk to its end. Every path must begin with prefix, which is
  // cut off; the walk must end with errno 0.
  static std::vector<Entry> read_all(tarn_dirwalk_t *walk, const std::string &prefix) {
    std::vector<Entry> entries;
    int kind = -1;
    for (const char *path = tarn_dirwalk_read(walk, &kind); path != nullptr;
         path = tarn_dirwalk_read(walk, &kind)) {
      const std::string text(path);
      EXPECT_EQ(prefix, text.substr(0, prefix.size())) << text;
      entries.emplace_back(text.substr(prefix.size()), kind);
      kind = -1;
    }
    EXPECT_EQ(0, errno);
    return entries;
  }

  // The whole walk of the test directory with depth and flags.
  std::vector<Entry> walk_all(int depth, int flags) const {
    tarn_dirwalk_t *walk = tarn_dirwalk_create(dir_.c_str(), depth, flags, nullptr);
    EXPECT_NE(nullptr, walk);
    if (walk == nullptr) return {};
    std::vector<Entry> entries = read_all(walk, dir_ + "/");
    tarn_dirwalk_close(walk);
    return entries;
  }

  std::string dir_;
};

TEST_F(DirwalkTest, ReportsTheRootsEntriesInByteOrderOfTheirNames) {
  // Made in an order unlike the walk's.
  for (const char *name : {"b", "a0", "_x", "9"}) ASSERT_TRUE(make_dirs(at(name)));
  for (const char *name : {"a", "B", "10", "a.txt"}) ASSERT_TRUE(write_file(at(name), "x"));
  const std::vector<Entry> expected = {{"10", kNotDir}, {"9", kDir},    {"B", kNotDir},
                                       {"_x", kDir},    {"a", kNotDir}, {"a.txt", kNotDir},
                                       {"a0", kDir},    {"b", kDir}};
  EXPECT_EQ(expected, walk_all(0, 0));
}

TEST_F(DirwalkTest, DepthZeroStaysAtTheRootAndDeeperWalksGoDownDepthFirst) {
  ASSERT_TRUE(make_dirs(at("b/y/deep")));
  ASSERT_TRUE(make_dirs(at("a")));
  ASSERT_TRUE(write_file(at("b/x"), "x"));
  ASSERT_TRUE(write_file(at("b/y/z"), "z"));
  ASSERT_TRUE(write_file(at("c"), "c"));
  EXPECT_EQ((std::vector<Entry>{{"a", kDir}, {"b", kDir}, {"c", kNotDir}}), walk_all(0, 0));
  EXPECT_EQ((std::vector<Entry>{
                {"a", kDir}, {"b", kDir}, {"b/x", kNotDir}, {"b/y", kDir}, {"c", kNotDir}}),
            walk_all(1, 0));
  const std::vector<Entry> whole = {{"a", kDir},        {"b", kDir},         {"b/x", kNotDir},
                                    {"b/y", kDir},      {"b/y/deep", kDir},  {"b/y/z", kNotDir},
                                    {"c", kNotDir}};
  EXPECT_EQ(whole, walk_all(2, 0));
  EXPECT_EQ(whole, walk_all(50, 0));
}

TEST_F(DirwalkTest, ARootEndingInASlashGetsNoSecondOne) {
  ASSERT_TRUE(make_dirs(at("d/e")));
  const std::string root = dir_ + "/";
  tarn_dirwalk_t *walk = tarn_dirwalk_create(root.c_str(), 1, 0, nullptr);
  ASSERT_NE(nullptr, walk);
  int kind = -1;
  EXPECT_EQ(root + "d", tarn_dirwalk_read(walk, &kind));
  EXPECT_EQ(kDir, kind);
  EXPECT_EQ(root + "d/e", tarn_dirwalk_read(walk, &kind));
  EXPECT_EQ(nullptr, tarn_dirwalk_read(walk, &kind));
  tarn_dirwalk_close(walk);
}

TEST_F(DirwalkTest, LinksAreNotFollowedUnlessAskedFor) {
  ASSERT_TRUE(make_dirs(at("real")));
  ASSERT_TRUE(write_file(at("real/inside"), "x"));
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, symlink(at("real").c_str(), at("link_dir").c_str()));
  ASSERT_EQ(0, symlink(at("file").c_str(), at("link_file").c_str()));
  ASSERT_EQ(0, symlink(at("nowhere").c_str(), at("link_none").c_str()));
  EXPECT_EQ((std::vector<Entry>{{"file", kNotDir},
                                {"link_dir", kNotDir},
                                {"link_file", kNotDir},
                                {"link_none", kNotDir},
                                {"real", kDir},
                                {"real/inside", kNotDir}}),
            walk_all(3, 0));
  EXPECT_EQ((std::vector<Entry>{{"file", kNotDir},
                                {"link_dir", kDir},
                                {"link_dir/inside", kNotDir},
                                {"link_file", kNotDir},
                                {"link_none", kNotDir},
                                {"real", kDir},
                                {"real/inside", kNotDir}}),
            walk_all(3, TARN_DIRWALK_FOLLOW_LINKS));
}

TEST_F(DirwalkTest, ARootThatIsALinkIsWalkedThroughIt) {
  ASSERT_TRUE(make_dirs(at("real/sub")));
  const std::string link = dir_ + "_link";
  ASSERT_EQ(0, symlink(dir_.c_str(), link.c_str()));
  tarn_dirwalk_t *walk = tarn_dirwalk_create(link.c_str(), 1, 0, nullptr);
  ASSERT_NE(nullptr, walk);
  EXPECT_EQ((std::vector<Entry>{{"real", kDir}, {"real/sub", kDir}}), read_all(walk, link + "/"));
  tarn_dirwalk_close(walk);
  unlink(link.c_str());
}

TEST_F(DirwalkTest, DevicesAndPipesAreNotDirectories) {
  ASSERT_EQ(0, mkfifo(at("pipe").c_str(), 0600));
  ASSERT_EQ(0, symlink("/dev/null", at("null").c_str()));
  EXPECT_EQ((std::vector<Entry>{{"null", kNotDir}, {"pipe", kNotDir}}),
            walk_all(0, TARN_DIRWALK_FOLLOW_LINKS));
}

TEST_F(DirwalkTest, TheNamesAreThoseOfTheMomentTheDirectoryIsEntered) {
  for (const char *name : {"a", "b", "c"}) ASSERT_TRUE(make_dirs(at(name)));
  tarn_dirwalk_t *walk = tarn_dirwalk_create(dir_.c_str(), 1, 0, nullptr);
  ASSERT_NE(nullptr, walk);
  int kind = -1;
  EXPECT_EQ(at("a"), tarn_dirwalk_read(walk, &kind));
  // Removed before its turn: skipped. Added at the root: not reported.
  // Added to a directory not entered yet: reported when it is entered.
  ASSERT_EQ(0, rmdir(at("b").c_str()));
  ASSERT_TRUE(make_dirs(at("ab")));
  ASSERT_TRUE(write_file(at("c/new"), "x"));
  EXPECT_EQ((std::vector<Entry>{{"c", kDir}, {"c/new", kNotDir}}), read_all(walk, dir_ + "/"));
  tarn_dirwalk_close(walk);
}

TEST_F(DirwalkTest, TheEndIsNullWithErrnoZeroAndStaysTheEnd) {
  ASSERT_TRUE(write_file(at("only"), "x"));
  tarn_dirwalk_t *walk = tarn_dirwalk_create(dir_.c_str(), 0, 0, nullptr);
  ASSERT_NE(nullptr, walk);
  // The kind may be left out.
  EXPECT_EQ(at("only"), tarn_dirwalk_read(walk, nullptr));
  for (int i = 0; i < 3; ++i) {
    errno = EIO;
    int kind = -1;
    EXPECT_EQ(nullptr, tarn_dirwalk_read(walk, &kind));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(-1, kind);
  }
  tarn_dirwalk_close(walk);
}

TEST_F(DirwalkTest, AnEmptyRootHasNoEntries) { EXPECT_TRUE(walk_all(5, 0).empty()); }

TEST_F(DirwalkTest, ADirectoryThatCannotBeReadIsReportedWithoutItsEntries) {
  ASSERT_TRUE(make_dirs(at("closed")));
  ASSERT_TRUE(make_dirs(at("open")));
  ASSERT_TRUE(write_file(at("closed/hidden"), "x"));
  ASSERT_TRUE(write_file(at("open/seen"), "x"));
  ASSERT_EQ(0, chmod(at("closed").c_str(), 0700));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const std::string root = dir_;
  // Another user may search the root but not read "closed".
  const pid_t pid = fork_child([&root] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    tarn_dirwalk_t *walk = tarn_dirwalk_create(root.c_str(), 1, 0, nullptr);
    if (walk == nullptr) return 11;
    const std::vector<Entry> entries = read_all(walk, root + "/");
    tarn_dirwalk_close(walk);
    const std::vector<Entry> expected = {{"closed", kDir}, {"open", kDir}, {"open/seen", kNotDir}};
    return entries == expected ? 0 : 12;
  });
  EXPECT_EQ(0, reap(pid));
}

TEST_F(DirwalkTest, CreateRefusesBadArgumentsWithEinval) {
  struct Case {
    const char *root;
    int depth;
    int flags;
  };
  const std::string root = dir_;
  for (const Case &c : {Case{nullptr, 0, 0}, Case{"", 0, 0}, Case{root.c_str(), -1, 0},
                        Case{root.c_str(), 0, 2}, Case{root.c_str(), 0, TARN_DIRWALK_FOLLOW_LINKS | 4}}) {
    int err = 0;
    errno = 0;
    EXPECT_EQ(nullptr, tarn_dirwalk_create(c.root, c.depth, c.flags, &err));
    EXPECT_EQ(EINVAL, err);
    EXPECT_EQ(EINVAL, errno);
  }
}

TEST_F(DirwalkTest, CreateOfARootThatCannotBeListedGivesItsErrno) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  int err = 0;
  EXPECT_EQ(nullptr, tarn_dirwalk_create(at("missing").c_str(), 0, 0, &err));
  EXPECT_EQ(ENOENT, err);
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(nullptr, tarn_dirwalk_create(at("file").c_str(), 0, 0, &err));
  EXPECT_EQ(ENOTDIR, err);
  // Without an error output only errno says it.
  errno = 0;
  EXPECT_EQ(nullptr, tarn_dirwalk_create(at("missing").c_str(), 0, 0, nullptr));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(DirwalkTest, CreateStoresZeroOnSuccess) {
  int err = EIO;
  tarn_dirwalk_t *walk = tarn_dirwalk_create(dir_.c_str(), 0, 0, &err);
  ASSERT_NE(nullptr, walk);
  EXPECT_EQ(0, err);
  tarn_dirwalk_close(walk);
}

TEST_F(DirwalkTest, ReadOfNullIsEinvalAndCloseOfNullIsHarmless) {
  errno = 0;
  int kind = -1;
  EXPECT_EQ(nullptr, tarn_dirwalk_read(nullptr, &kind));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, kind);
  tarn_dirwalk_close(nullptr);
}

TEST_F(DirwalkTest, AWalkClosedHalfwayFreesEverything) {
  // Run under the sanitizers, a leak of the levels still open would show.
  ASSERT_TRUE(make_dirs(at("a/b/c")));
  ASSERT_TRUE(write_file(at("a/b/c/d"), "x"));
  tarn_dirwalk_t *walk = tarn_dirwalk_create(dir_.c_str(), 5, 0, nullptr);
  ASSERT_NE(nullptr, walk);
  EXPECT_EQ(at("a"), tarn_dirwalk_read(walk, nullptr));
  EXPECT_EQ(at("a/b"), tarn_dirwalk_read(walk, nullptr));
  tarn_dirwalk_close(walk);
}

}  // namespace
