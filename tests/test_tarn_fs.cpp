// The base library's file-system families through libtarnbase.so: path
// questions and path text, bounded string copies, files (removing, copying
// crash-safely, opening, opening to all users), directory trees (creating,
// listing, removing) and "@" paths, and file locks between processes and
// between handles.
//
// The program runs in its own sandbox: /tmp is private and its contents
// vanish with it. Each test works in a fresh directory of its own.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>
#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_str.h>

#include "child_process.h"
#include "files.h"
#include "local_user.h"
#include "fchmod_hook.h"
#include "without_dac_override.h"

namespace {

using tarn_test::Barrier;
using tarn_test::executable_directory;
using tarn_test::fork_child;
using tarn_test::kill_and_reap;
using tarn_test::list_directory;
using tarn_test::make_dirs;
using tarn_test::make_temp_directory;
using tarn_test::monotonic_ms;
using tarn_test::Pipe;
using tarn_test::read_file;
using tarn_test::reap;
using tarn_test::write_file;

// ---------------------------------------------------------------------------
// Helpers


mode_t mode_of(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return (mode_t)-1;
  return st.st_mode & 07777;
}

class FsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_directory("tarn_fs");
    ASSERT_FALSE(dir_.empty());
  }
  std::string at(const std::string &name) const { return dir_ + "/" + name; }

  std::string dir_;
};

// Sets the umask for the life of the object.
class Umask {
 public:
  explicit Umask(mode_t mask) : saved_(umask(mask)) {}
  ~Umask() { umask(saved_); }
  Umask(const Umask &) = delete;
  Umask &operator=(const Umask &) = delete;

 private:
  mode_t saved_;
};

// What an in-place path edit leaves of path, after checking that it
// returns the buffer that it was given.
std::string edited(const char *path, char *(*edit)(char *)) {
  std::string text(path);
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  EXPECT_EQ(buffer.data(), edit(buffer.data()));
  return buffer.data();
}

std::string removed_name(const char *path) { return edited(path, tarn_path_remove_name_w); }
std::string formatted(const char *path) { return edited(path, tarn_path_format_u); }
std::string without_ext(const char *path) { return edited(path, tarn_path_remove_ext_u); }

// The text of tarn_str_replace's buffer of size bytes that starts as text,
// and its result.
struct Replaced {
  int result;
  std::string text;
};
Replaced replaced(const char *text, size_t size, const char *old_str, const char *new_str,
                  int all) {
  std::vector<char> buffer(size, 'x');
  tarn_strlcpy(buffer.data(), text, size);
  const int result = tarn_str_replace(buffer.data(), size, old_str, new_str, all);
  EXPECT_NE(nullptr, memchr(buffer.data(), '\0', size)) << "not terminated";
  return {result, buffer.data()};
}
// One replacement and its expected count and text.
#define EXPECT_REPLACED(input, size, old_str, new_str, all, want_count, want_text) \
  do {                                                                           \
    const Replaced got = replaced(input, size, old_str, new_str, all);           \
    EXPECT_EQ(want_count, got.result) << (input);                                \
    EXPECT_EQ(want_text, got.text) << (input);                                   \
  } while (0)

// ---------------------------------------------------------------------------
// Paths

TEST_F(FsTest, IsExistAnswersForFilesDirectoriesAndMissingPaths) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, symlink(at("nowhere").c_str(), at("dangling").c_str()));
  ASSERT_EQ(0, symlink(at("file").c_str(), at("link").c_str()));
  EXPECT_NE(0, tarn_path_is_exist_u(at("file").c_str()));
  EXPECT_NE(0, tarn_path_is_exist_u(dir_.c_str()));
  EXPECT_NE(0, tarn_path_is_exist_u(at("link").c_str()));
  EXPECT_EQ(0, tarn_path_is_exist_u(at("missing").c_str()));
  EXPECT_EQ(0, tarn_path_is_exist_u(at("dangling").c_str()));
  EXPECT_EQ(0, tarn_path_is_exist_u(""));
  EXPECT_EQ(0, tarn_path_is_exist_u(nullptr));
}

TEST_F(FsTest, IsExistSafeStoresZeroOrTheErrnoOfTheCheck) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  int err = -1;
  EXPECT_NE(0, tarn_path_is_exist_safe_u(at("file").c_str(), &err));
  EXPECT_EQ(0, err);
  err = -1;
  EXPECT_EQ(0, tarn_path_is_exist_safe_u(at("missing").c_str(), &err));
  EXPECT_EQ(ENOENT, err);
  err = -1;
  EXPECT_EQ(0, tarn_path_is_exist_safe_u(at("file/below").c_str(), &err));
  EXPECT_EQ(ENOTDIR, err);
  err = -1;
  EXPECT_EQ(0, tarn_path_is_exist_safe_u(nullptr, &err));
  EXPECT_EQ(EINVAL, err);
  err = -1;
  EXPECT_EQ(0, tarn_path_is_exist_safe_u("", &err));
  EXPECT_EQ(EINVAL, err);
  EXPECT_NE(0, tarn_path_is_exist_safe_u(at("file").c_str(), nullptr));
  EXPECT_EQ(0, tarn_path_is_exist_safe_u(at("missing").c_str(), nullptr));
}

TEST_F(FsTest, IsExistSafeReportsEaccesForAPathThatCannotBeExamined) {
  ASSERT_EQ(0, mkdir(at("closed").c_str(), 0700));
  ASSERT_TRUE(write_file(at("closed/file"), "x"));
  const std::string path = at("closed/file");
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    int err = 0;
    if (tarn_path_is_exist_safe_u(path.c_str(), &err) != 0) return 11;
    return err == EACCES ? 0 : 12;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
}

TEST_F(FsTest, IsDirIsTrueForDirectoriesAndLinksToThemOnly) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, mkdir(at("sub").c_str(), 0755));
  ASSERT_EQ(0, symlink(at("sub").c_str(), at("link").c_str()));
  EXPECT_NE(0, tarn_path_is_dir_u(dir_.c_str()));
  EXPECT_NE(0, tarn_path_is_dir_u(at("sub").c_str()));
  EXPECT_NE(0, tarn_path_is_dir_u(at("link").c_str()));
  EXPECT_NE(0, tarn_path_is_dir_u("/"));
  EXPECT_EQ(0, tarn_path_is_dir_u(at("file").c_str()));
  EXPECT_EQ(0, tarn_path_is_dir_u(at("missing").c_str()));
  EXPECT_EQ(0, tarn_path_is_dir_u(""));
  EXPECT_EQ(0, tarn_path_is_dir_u(nullptr));
}

TEST(PathText, RemoveNameDropsTheLastComponent) {
  EXPECT_EQ("/a/b", removed_name("/a/b/c.so"));
  EXPECT_EQ("/a", removed_name("/a/b/"));
  EXPECT_EQ("/a", removed_name("/a/b//"));
  EXPECT_EQ("/", removed_name("/x"));
  EXPECT_EQ("/", removed_name("//x"));
  EXPECT_EQ("/", removed_name("/"));
  EXPECT_EQ("/", removed_name("///"));
  EXPECT_EQ("a", removed_name("a/b"));
  EXPECT_EQ("a", removed_name("a//b"));
  EXPECT_EQ("", removed_name("name"));
  EXPECT_EQ("", removed_name("name/"));
  EXPECT_EQ("", removed_name(""));
  EXPECT_EQ("C:\\dir", removed_name("C:\\dir\\file.txt"));
  EXPECT_EQ("/a\\b", removed_name("/a\\b/c"));
  EXPECT_EQ("/usr/share/velmora", removed_name("/usr/share/velmora/TARN"));
  EXPECT_EQ("/usr/share/velmora/TARN", removed_name("/usr/share/velmora/TARN/x.so"));
  EXPECT_EQ(nullptr, tarn_path_remove_name_w(nullptr));
}

TEST(PathText, FormatNormalisesSeparators) {
  EXPECT_EQ("/a/b", formatted("\\\\a//b\\"));
  EXPECT_EQ("/a/b/c", formatted("/a//b///c/"));
  EXPECT_EQ("/", formatted("/"));
  EXPECT_EQ("/", formatted("//"));
  EXPECT_EQ("/", formatted("\\"));
  EXPECT_EQ("a/b", formatted("a\\b"));
  EXPECT_EQ("a", formatted("a/"));
  EXPECT_EQ("./a/../b", formatted("./a/../b"));
  EXPECT_EQ("", formatted(""));
  EXPECT_EQ("/usr/share/velmora/TARN", formatted("/usr/share/velmora/TARN"));
  EXPECT_EQ(nullptr, tarn_path_format_u(nullptr));
}

TEST(PathText, GetExtPointsAtTheLastDotOfTheLastComponent) {
  const char *path = "/tmp/a.tar.gz";
  EXPECT_EQ(path + 10, tarn_path_get_ext_u(path));
  EXPECT_STREQ(".gz", tarn_path_get_ext_u(path));
  EXPECT_STREQ(".ejs", tarn_path_get_ext_u("config/component_info/core.ejs"));
  EXPECT_STREQ(".ejs", tarn_path_get_ext_u(".ejs"));
  EXPECT_STREQ(".", tarn_path_get_ext_u("name."));
  const char *no_ext = "dir.d/name";
  EXPECT_EQ(no_ext + strlen(no_ext), tarn_path_get_ext_u(no_ext));
  EXPECT_STREQ("", tarn_path_get_ext_u("a.b/"));
  EXPECT_STREQ("", tarn_path_get_ext_u("name"));
  EXPECT_STREQ("", tarn_path_get_ext_u(""));
  ASSERT_NE(nullptr, tarn_path_get_ext_u(nullptr));
  EXPECT_STREQ("", tarn_path_get_ext_u(nullptr));
}

TEST(PathText, RemoveExtCutsAtTheLastDotOfTheLastComponent) {
  EXPECT_EQ("/tmp/pkg", without_ext("/tmp/pkg.tgz"));
  EXPECT_EQ("a.tar", without_ext("a.tar.gz"));
  EXPECT_EQ("dir.d/name", without_ext("dir.d/name"));
  EXPECT_EQ("dir.d/", without_ext("dir.d/"));
  EXPECT_EQ("", without_ext(".ejs"));
  EXPECT_EQ("/a/", without_ext("/a/.hidden"));
  EXPECT_EQ("name", without_ext("name."));
  EXPECT_EQ("", without_ext(""));
  EXPECT_EQ(nullptr, tarn_path_remove_ext_u(nullptr));
}

// ---------------------------------------------------------------------------
// Bounded strings

TEST(BoundedStrings, StrlcpyCopiesWhatFitsAndReturnsTheSourceLength) {
  char buf[8];
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(3u, tarn_strlcpy(buf, "abc", sizeof(buf)));
  EXPECT_STREQ("abc", buf);
  EXPECT_EQ(10u, tarn_strlcpy(buf, "0123456789", sizeof(buf)));
  EXPECT_STREQ("0123456", buf);
  EXPECT_EQ(23u, tarn_strlcpy(buf, "/usr/share/velmora/TARN", 5));
  EXPECT_STREQ("/usr", buf);
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(3u, tarn_strlcpy(buf, "abc", 0));
  EXPECT_EQ('x', buf[0]);
  EXPECT_EQ(3u, tarn_strlcpy(buf, "abc", 1));
  EXPECT_EQ('\0', buf[0]);
  EXPECT_EQ('x', buf[1]);
  EXPECT_EQ(0u, tarn_strlcpy(buf, nullptr, sizeof(buf)));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(3u, tarn_strlcpy(nullptr, "abc", 4));
}

TEST(BoundedStrings, StrncpyAlwaysTerminatesAndReturnsTheDestination) {
  char buf[6];
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(buf, tarn_strncpy(buf, "abcdefgh", sizeof(buf)));
  EXPECT_STREQ("abcde", buf);
  EXPECT_EQ(buf, tarn_strncpy(buf, "ab", sizeof(buf)));
  EXPECT_STREQ("ab", buf);
  EXPECT_EQ('\0', buf[2]);
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(buf, tarn_strncpy(buf, "ab", 0));
  EXPECT_EQ('x', buf[0]);
  EXPECT_EQ(buf, tarn_strncpy(buf, nullptr, sizeof(buf)));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(nullptr, tarn_strncpy(nullptr, "ab", 4));
}

TEST(BoundedStrings, StrnicmpComparesIgnoringAsciiCase) {
  EXPECT_EQ(0, tarn_strnicmp("/USR/Share/VELMORA/tarn", "/usr/share/velmora/TARN", 23));
  EXPECT_EQ(0, tarn_strnicmp("/usr/share/velmora/TARNX", "/usr/share/velmora/TARN", 23));
  EXPECT_EQ(0, tarn_strnicmp("abc", "abd", 2));
  EXPECT_LT(tarn_strnicmp("abc", "abd", 3), 0);
  EXPECT_GT(tarn_strnicmp("ABD", "abc", 3), 0);
  EXPECT_LT(tarn_strnicmp("ab", "abc", 3), 0);
  EXPECT_GT(tarn_strnicmp("abc", "AB", 10), 0);
  EXPECT_EQ(0, tarn_strnicmp("same", "SAME", 100));
  EXPECT_EQ(0, tarn_strnicmp("x", "y", 0));
  EXPECT_NE(0, tarn_strnicmp("\xC3\xA9", "\xC3\x89", 2));  // not ASCII: compared as bytes
  EXPECT_LT(tarn_strnicmp(nullptr, "a", 1), 0);
  EXPECT_GT(tarn_strnicmp("a", nullptr, 1), 0);
  EXPECT_EQ(0, tarn_strnicmp(nullptr, nullptr, 1));
}

TEST(BoundedStrings, StrncatAppendsWithinTheWholeSize) {
  char buf[12] = "/a/b/";
  EXPECT_EQ(buf, tarn_str_strncat(buf, "flag", sizeof(buf)));
  EXPECT_STREQ("/a/b/flag", buf);
  EXPECT_EQ(buf, tarn_str_strncat(buf, "_operational", sizeof(buf)));
  EXPECT_STREQ("/a/b/flag_o", buf);
  EXPECT_EQ(buf, tarn_str_strncat(buf, "more", sizeof(buf)));
  EXPECT_STREQ("/a/b/flag_o", buf);
  EXPECT_EQ(buf, tarn_str_strncat(buf, nullptr, sizeof(buf)));
  EXPECT_STREQ("/a/b/flag_o", buf);
  char full[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(full, tarn_str_strncat(full, "x", sizeof(full)));
  EXPECT_STREQ("abc", full);
  char untouched[4] = "ab";
  EXPECT_EQ(untouched, tarn_str_strncat(untouched, "x", 0));
  EXPECT_STREQ("ab", untouched);
  EXPECT_EQ(nullptr, tarn_str_strncat(nullptr, "x", 4));
}

TEST(BoundedStrings, ReplaceWithAllSetReplacesEveryOccurrence) {
  EXPECT_REPLACED("my file name", 64, " ", "\" \"", 1, 2, "my\" \"file\" \"name");
  EXPECT_REPLACED("abcabc", 64, "bc", "X", 1, 2, "aXaX");
  EXPECT_REPLACED("aaa", 64, "aa", "b", 1, 1, "ba");
  EXPECT_REPLACED("a-b", 64, "-", "", 1, 1, "ab");
}

TEST(BoundedStrings, ReplaceWithAllClearReplacesTheFirstOnly) {
  EXPECT_REPLACED("a b c", 64, " ", "_", 0, 1, "a_b c");
}

TEST(BoundedStrings, ReplaceSearchesOnAfterTheInsertedText) {
  EXPECT_REPLACED("a.a", 64, "a", "aa", 1, 2, "aa.aa");
}

TEST(BoundedStrings, ReplaceWithoutAnOccurrenceChangesNothing) {
  EXPECT_REPLACED("plain", 64, " ", "\" \"", 1, 0, "plain");
  EXPECT_REPLACED("", 64, " ", "x", 1, 0, "");
}

TEST(BoundedStrings, ReplaceCutsWhatNoLongerFits) {
  // The rest of the string is cut first.
  EXPECT_REPLACED("a b", 6, " ", "\" \"", 1, 1, "a\" \"b");
  EXPECT_REPLACED("a b c", 7, " ", "\" \"", 1, 2, "a\" \"b\"");
  // Then the new text itself, after which nothing more is replaced.
  EXPECT_REPLACED("ab c d", 5, " ", "\" \"", 1, 1, "ab\" ");
  // A shorter new text never cuts.
  EXPECT_REPLACED("a--b--c", 8, "--", "-", 1, 2, "a-b-c");
}

TEST(BoundedStrings, ReplaceTerminatesABufferWithoutTerminator) {
  char buf[4] = {'a', ' ', 'b', 'c'};
  EXPECT_EQ(1, tarn_str_replace(buf, sizeof(buf), " ", "_", 1));
  EXPECT_STREQ("a_b", buf);
}

TEST(BoundedStrings, ReplaceRefusesBadArgumentsWithEinval) {
  char buf[8] = "a b";
  const struct {
    char *buf;
    size_t len;
    const char *old_str;
    const char *new_str;
  } cases[] = {{nullptr, 8, " ", "_"}, {buf, 0, " ", "_"},   {buf, 8, nullptr, "_"},
               {buf, 8, " ", nullptr}, {buf, 8, "", "_"}};
  for (const auto &c : cases) {
    errno = 0;
    EXPECT_EQ(-1, tarn_str_replace(c.buf, c.len, c.old_str, c.new_str, 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_STREQ("a b", buf);
  }
}

// ---------------------------------------------------------------------------
// Files

TEST_F(FsTest, UnlinkRemovesFilesAndReportsWhatItCannotRemove) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  EXPECT_EQ(0, tarn_file_unlink(at("file").c_str()));
  EXPECT_EQ(0, tarn_path_is_exist_u(at("file").c_str()));
  EXPECT_EQ(ENOENT, tarn_file_unlink(at("file").c_str()));
  ASSERT_EQ(0, mkdir(at("sub").c_str(), 0755));
  EXPECT_EQ(EISDIR, tarn_file_unlink(at("sub").c_str()));
  EXPECT_NE(0, tarn_path_is_dir_u(at("sub").c_str()));
  EXPECT_EQ(EINVAL, tarn_file_unlink(nullptr));
  EXPECT_EQ(EINVAL, tarn_file_unlink(""));
}

TEST_F(FsTest, CopyReplacesTheDestinationWholeAndKeepsTheSourceMode) {
  ASSERT_TRUE(write_file(at("src"), "new content"));
  ASSERT_EQ(0, chmod(at("src").c_str(), 0751));
  ASSERT_TRUE(write_file(at("dst"), std::string(100000, 'o')));
  ASSERT_EQ(0, chmod(at("dst").c_str(), 0600));
  struct stat before;
  ASSERT_EQ(0, stat(at("dst").c_str(), &before));
  {
    Umask mask(077);
    ASSERT_EQ(0, tarn_file_copy(at("src").c_str(), at("dst").c_str()));
  }
  EXPECT_EQ("new content", read_file(at("dst")));
  EXPECT_EQ(0751u, mode_of(at("dst")));
  struct stat after;
  ASSERT_EQ(0, stat(at("dst").c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);  // replaced by a rename, not rewritten
  EXPECT_EQ((std::set<std::string>{"src", "dst"}), list_directory(dir_));
}

TEST_F(FsTest, CopyCreatesAMissingDestinationAndCopiesLargeAndEmptyFiles) {
  std::string large;
  for (int i = 0; i < 300000; ++i) large += (char)('a' + i % 26);
  ASSERT_TRUE(write_file(at("large"), large));
  ASSERT_EQ(0, tarn_file_copy(at("large").c_str(), at("large.copy").c_str()));
  EXPECT_EQ(large, read_file(at("large.copy")));
  ASSERT_TRUE(write_file(at("empty"), ""));
  ASSERT_TRUE(write_file(at("empty.copy"), "not empty"));
  ASSERT_EQ(0, tarn_file_copy(at("empty").c_str(), at("empty.copy").c_str()));
  EXPECT_EQ("", read_file(at("empty.copy")));
}

TEST_F(FsTest, CopyFailuresLeaveTheDestinationAsItWas) {
  ASSERT_TRUE(write_file(at("dst"), "old"));
  EXPECT_EQ(ENOENT, tarn_file_copy(at("missing").c_str(), at("dst").c_str()));
  ASSERT_EQ(0, mkdir(at("sub").c_str(), 0755));
  EXPECT_EQ(EISDIR, tarn_file_copy(at("sub").c_str(), at("dst").c_str()));
  EXPECT_EQ("old", read_file(at("dst")));
  ASSERT_TRUE(write_file(at("src"), "data"));
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_file_copy(at("src").c_str(), at("no/such/dst").c_str()));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ((std::set<std::string>{"dst", "src", "sub"}), list_directory(dir_));
  EXPECT_EQ(EINVAL, tarn_file_copy(nullptr, at("dst").c_str()));
  EXPECT_EQ(EINVAL, tarn_file_copy(at("src").c_str(), ""));
}

// Each is refused at once: a copy that blocks (a FIFO without a writer) is
// ended at the time limit, and one of /dev/zero by the file size limit.
TEST_F(FsTest, CopyRefusesASourceThatIsNotARegularFileWithoutBlocking) {
  ASSERT_EQ(0, mkfifo(at("fifo").c_str(), 0644));
  ASSERT_TRUE(write_file(at("dst"), "old"));
  for (const std::string &source : {at("fifo"), std::string("/dev/zero")}) {
    SCOPED_TRACE(source);
    const int status = tarn_test::run_with_time_limit(10, [&] {
      if (!tarn_test::limit_file_size(64 * 1024)) return 2;
      errno = 0;
      const int result = tarn_file_copy(source.c_str(), at("dst").c_str());
      return result == EFTYPE && errno == EFTYPE ? 0 : 1;
    });
    EXPECT_EQ(0, status) << (status == tarn_test::killed_by(SIGALRM)   ? "the copy blocked"
                             : status == tarn_test::killed_by(SIGXFSZ) ? "the copy went on without end"
                                                                       : "");
    EXPECT_EQ("old", read_file(at("dst")));
    EXPECT_EQ((std::set<std::string>{"dst", "fifo"}), list_directory(dir_));
  }
}

// A link at the source is refused whatever it names, so that one planted
// where others may write cannot have the caller copy a file they may not
// read; links in the source's directories are followed.
TEST_F(FsTest, CopyRefusesASymbolicLinkAtTheSource) {
  ASSERT_TRUE(write_file(at("secret"), "secret"));
  ASSERT_EQ(0, chmod(at("secret").c_str(), 0600));
  ASSERT_EQ(0, symlink(at("secret").c_str(), at("link").c_str()));
  ASSERT_EQ(0, symlink("/dev/zero", at("zero").c_str()));
  ASSERT_TRUE(write_file(at("dst"), "old"));
  for (const std::string &source : {at("link"), at("zero")}) {
    SCOPED_TRACE(source);
    errno = 0;
    EXPECT_EQ(ELOOP, tarn_file_copy(source.c_str(), at("dst").c_str()));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(ELOOP, tarn_file_copy_ex(source.c_str(), at("new").c_str(), TARN_FILE_COPY_NO_REPLACE));
    EXPECT_EQ("old", read_file(at("dst")));
  }
  EXPECT_EQ((std::set<std::string>{"dst", "link", "secret", "zero"}), list_directory(dir_));
  ASSERT_EQ(0, mkdir(at("real").c_str(), 0755));
  ASSERT_TRUE(write_file(at("real/file"), "through a directory link"));
  ASSERT_EQ(0, symlink(at("real").c_str(), at("dirlink").c_str()));
  EXPECT_EQ(0, tarn_file_copy(at("dirlink/file").c_str(), at("dst").c_str()));
  EXPECT_EQ("through a directory link", read_file(at("dst")));
}

// The temporary file of a copy or an ini save is made 0600, so that no
// other user can open it while it fills (a descriptor opened then would
// read the content written later), and only then given its final mode.
TEST_F(FsTest, CopyAndSaveMakeTheirTemporaryFileReadableByTheOwnerOnly) {
  ASSERT_TRUE(write_file(at("src"), "data"));
  ASSERT_EQ(0, chmod(at("src").c_str(), 0644));
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  ASSERT_NE(nullptr, ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini, "s", "k", "v"));
  const std::vector<std::pair<std::string, std::function<int()>>> writers = {
      {"copy", [&] { return tarn_file_copy(at("src").c_str(), at("copy").c_str()); }},
      {"save", [&] { return tarn_ini_file_save(ini, at("saved.ini").c_str(), 0); }},
      {"direct save", [&] { return tarn_ini_file_save_directio(ini, at("direct.ini").c_str(), 0); }},
  };
  Umask mask(0);
  for (const auto &[name, write] : writers) {
    SCOPED_TRACE(name);
    std::vector<mode_t> modes;
    tarn_test::before_fchmod() = [&](int fd) {
      struct stat st;
      if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) modes.push_back(st.st_mode & 07777);
    };
    const int result = write();
    tarn_test::before_fchmod() = nullptr;
    EXPECT_EQ(0, result);
    EXPECT_EQ((std::vector<mode_t>{0600}), modes);
  }
  tarn_ini_file_free(ini);
  // Then the final modes: the source's, and 0666 less the umask (0 here).
  EXPECT_EQ(0644u, mode_of(at("copy")));
  EXPECT_EQ(0666u, mode_of(at("saved.ini")));
  EXPECT_EQ(0666u, mode_of(at("direct.ini")));
}

// A save over a link replaces the link and takes nothing from what it
// names: neither its mode nor its owner.
TEST_F(FsTest, SaveOverASymbolicLinkTakesNoAttributesFromItsTarget) {
  ASSERT_TRUE(write_file(at("target"), "[old]\nk=v\n"));
  ASSERT_EQ(0, chmod(at("target").c_str(), 0600));
  ASSERT_EQ(0, chown(at("target").c_str(), 65534, 65534));
  ASSERT_EQ(0, symlink(at("target").c_str(), at("saved.ini").c_str()));
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  ASSERT_NE(nullptr, ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini, "s", "k", "v"));
  {
    Umask mask(022);
    EXPECT_EQ(0, tarn_ini_file_save(ini, at("saved.ini").c_str(), 0));
  }
  tarn_ini_file_free(ini);
  struct stat st;
  ASSERT_EQ(0, lstat(at("saved.ini").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0644u, st.st_mode & 07777);
  EXPECT_EQ(geteuid(), st.st_uid);
  EXPECT_EQ("[old]\nk=v\n", read_file(at("target")));
  EXPECT_EQ(0600u, mode_of(at("target")));
}

TEST_F(FsTest, CopyReplacesASymbolicLinkAtTheDestinationInsteadOfFollowingIt) {
  ASSERT_TRUE(write_file(at("src"), "data"));
  ASSERT_TRUE(write_file(at("target"), "target"));
  ASSERT_EQ(0, symlink(at("target").c_str(), at("dst").c_str()));
  ASSERT_EQ(0, tarn_file_copy(at("src").c_str(), at("dst").c_str()));
  struct stat st;
  ASSERT_EQ(0, lstat(at("dst").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ("data", read_file(at("dst")));
  EXPECT_EQ("target", read_file(at("target")));
}

TEST_F(FsTest, OpenGivesAStreamClosedOnExec) {
  FILE *file = tarn_file_open(at("flag").c_str(), "w");
  ASSERT_NE(nullptr, file);
  const int flags = fcntl(fileno(file), F_GETFD);
  EXPECT_NE(0, flags & FD_CLOEXEC);
  EXPECT_EQ(0, fclose(file));
  EXPECT_EQ("", read_file(at("flag")));

  file = tarn_file_open(at("flag").c_str(), "ab");
  ASSERT_NE(nullptr, file);
  fputs("appended", file);
  fclose(file);
  file = tarn_file_open(at("flag").c_str(), "re");
  ASSERT_NE(nullptr, file);
  char line[32] = {0};
  EXPECT_NE(nullptr, fgets(line, sizeof(line), file));
  EXPECT_STREQ("appended", line);
  EXPECT_NE(0, fcntl(fileno(file), F_GETFD) & FD_CLOEXEC);
  fclose(file);
}

TEST_F(FsTest, OpenFailuresGiveNullWithErrno) {
  errno = 0;
  EXPECT_EQ(nullptr, tarn_file_open(at("missing").c_str(), "r"));
  EXPECT_EQ(ENOENT, errno);
  errno = 0;
  EXPECT_EQ(nullptr, tarn_file_open(nullptr, "r"));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(nullptr, tarn_file_open(at("x").c_str(), nullptr));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(nullptr, tarn_file_open(at("x").c_str(), ""));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(nullptr, tarn_file_open(at("x").c_str(), "rrrrrrrrrrrrrrr"));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0, tarn_path_is_exist_u(at("x").c_str()));
}

TEST_F(FsTest, OpenRegularGivesABlockingDescriptorForAFileWithinTheBound) {
  write_file(at("record"), "0123456789");
  const int fd = tarn_file_open_regular(at("record").c_str(), 10);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  char text[16] = {0};
  EXPECT_EQ(10, read(fd, text, sizeof(text)));
  EXPECT_STREQ("0123456789", text);
  close(fd);
  ASSERT_EQ(0, symlink(at("record").c_str(), at("link").c_str()));
  const int through_link = tarn_file_open_regular(at("link").c_str(), 10);
  EXPECT_GE(through_link, 0);
  close(through_link);
}

TEST_F(FsTest, OpenRegularRefusesWhatIsNotARegularFileWithoutBlocking) {
  ASSERT_EQ(0, mkfifo(at("fifo").c_str(), 0644));
  ASSERT_EQ(0, symlink("/dev/zero", at("zero").c_str()));
  make_dirs(at("dir"));
  const struct {
    std::string path;
    unsigned long long bound;
    int error;
  } cases[] = {
      {at("fifo"), 1 << 20, EFTYPE}, {at("zero"), 1 << 20, EFTYPE}, {at("dir"), 1 << 20, EISDIR},
      {at("missing"), 1 << 20, ENOENT}, {"", 1 << 20, EINVAL},
  };
  for (const auto &c : cases) {
    errno = 0;
    EXPECT_EQ(-1, tarn_file_open_regular(c.path.c_str(), c.bound)) << c.path;
    EXPECT_EQ(c.error, errno) << c.path;
  }
  errno = 0;
  EXPECT_EQ(-1, tarn_file_open_regular(nullptr, 1));
  EXPECT_EQ(EINVAL, errno);
  write_file(at("record"), "0123456789");
  errno = 0;
  EXPECT_EQ(-1, tarn_file_open_regular(at("record").c_str(), 9));
  EXPECT_EQ(EFBIG, errno);
}

TEST_F(FsTest, FullControlForAllUsersAddsReadAndWriteToFilesAndAllToDirectories) {
  ASSERT_TRUE(write_file(at("private"), "x"));
  ASSERT_EQ(0, chmod(at("private").c_str(), 0600));
  EXPECT_EQ(0, tarn_file_add_user_full_ctrl(at("private").c_str(), ""));
  EXPECT_EQ(0666u, mode_of(at("private")));

  ASSERT_TRUE(write_file(at("program"), "x"));
  ASSERT_EQ(0, chmod(at("program").c_str(), 0755));
  EXPECT_EQ(0, tarn_file_add_user_full_ctrl(at("program").c_str(), ""));
  EXPECT_EQ(0777u, mode_of(at("program")));

  ASSERT_EQ(0, mkdir(at("dir").c_str(), 0700));
  EXPECT_EQ(0, tarn_file_add_user_full_ctrl(at("dir").c_str(), ""));
  EXPECT_EQ(0777u, mode_of(at("dir")));

  // Again: nothing more to add.
  EXPECT_EQ(0, tarn_file_add_user_full_ctrl(at("private").c_str(), ""));
  EXPECT_EQ(0666u, mode_of(at("private")));
}

TEST_F(FsTest, FullControlKeepsTheOwner) {
  ASSERT_TRUE(write_file(at("owned"), "x"));
  ASSERT_EQ(0, chown(at("owned").c_str(), 1234, 2345));
  ASSERT_EQ(0, chmod(at("owned").c_str(), 0640));
  EXPECT_EQ(0, tarn_file_add_user_full_ctrl(at("owned").c_str(), ""));
  struct stat st;
  ASSERT_EQ(0, stat(at("owned").c_str(), &st));
  EXPECT_EQ(1234u, st.st_uid);
  EXPECT_EQ(2345u, st.st_gid);
  EXPECT_EQ(0666u, st.st_mode & 07777);
}

TEST_F(FsTest, FullControlDoesNotFollowALink) {
  ASSERT_TRUE(write_file(at("target"), "x"));
  ASSERT_EQ(0, chmod(at("target").c_str(), 0600));
  ASSERT_EQ(0, symlink(at("target").c_str(), at("link").c_str()));
  EXPECT_EQ(ELOOP, tarn_file_add_user_full_ctrl(at("link").c_str(), ""));
  EXPECT_EQ(0600u, mode_of(at("target")));
}

// Mode and group of path after a fresh process, configured with config,
// shares it with mode; "error N" when the call fails.
std::string shared_under(const std::string &config, const std::string &path, unsigned mode) {
  tarn_test::Pipe answer;
  const tarn_test::BaseConfigFile file(config);
  const pid_t child = tarn_test::fork_child([&] {
    if (!file.ok()) return 1;
    const int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
    const int result = tarn_file_share_fd(fd, mode);
    close(fd);
    return answer.write_int(result) ? 0 : 1;
  });
  int result = -1;
  const bool got = answer.read_int(&result);
  EXPECT_EQ(0, tarn_test::reap(child));
  if (!got) return "no answer";
  if (result != 0) return "error " + std::to_string(result);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "missing";
  char text[32];
  snprintf(text, sizeof(text), "%04o %u", (unsigned)(st.st_mode & 07777), (unsigned)st.st_gid);
  return text;
}

TEST_F(FsTest, SharingOpensToAllUsersWithoutAnAgentGroup) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, chown(at("file").c_str(), 0, 0));
  ASSERT_EQ(0, chmod(at("file").c_str(), 0600));
  ASSERT_EQ(0, mkdir(at("dir").c_str(), 0700));
  EXPECT_EQ("0666 0", shared_under("[security]\nagent_group =\n", at("file"), 0666));
  EXPECT_EQ("0777 0", shared_under("", at("dir"), 0777));
}

TEST_F(FsTest, SharingGivesTheAgentGroupWhatOthersWouldHave) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, chmod(at("file").c_str(), 0644));
  ASSERT_EQ(0, mkdir(at("dir").c_str(), 0755));
  ASSERT_TRUE(write_file(at("program"), "x"));
  // nogroup is 65534 on every Debian system.
  const std::string config = "[security]\nagent_group = nogroup\n";
  EXPECT_EQ("0660 65534", shared_under(config, at("file"), 0666));
  EXPECT_EQ("0770 65534", shared_under(config, at("dir"), 0777));
  EXPECT_EQ("0770 65534", shared_under(config, at("program"), 0777));
}

TEST_F(FsTest, SharingWithAnUnknownAgentGroupOpensToNobodyElse) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, chown(at("file").c_str(), 0, 0));
  ASSERT_EQ(0, chmod(at("file").c_str(), 0666));
  EXPECT_EQ("0660 0", shared_under("[security]\nagent_group = no-such-group\n", at("file"), 0666));
}

TEST_F(FsTest, ANewLockFileIsTheAgentGroupsOnlyWhenOneIsSet) {
  const std::string lock = at("record.ini.lock");
  EXPECT_EQ(0, tarn_test::with_agent_group("nogroup", [&] {
    tarn_flock_t *handle = nullptr;
    if (tarn_flock_init(lock.c_str(), &handle) != 0) return 2;
    tarn_flock_destroy(handle);
    return 0;
  }));
  struct stat st;
  ASSERT_EQ(0, stat(lock.c_str(), &st));
  EXPECT_EQ(0660u, st.st_mode & 07777);
  EXPECT_EQ(65534u, st.st_gid);
}

TEST_F(FsTest, SharingRefusesBadArguments) {
  errno = 0;
  EXPECT_EQ(EBADF, tarn_file_share_fd(-1, 0666));
  EXPECT_EQ(EBADF, errno);
  ASSERT_TRUE(write_file(at("file"), "x"));
  const int fd = open(at("file").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(EINVAL, tarn_file_share_fd(fd, 010000));
  close(fd);
}

TEST_F(FsTest, FullControlRefusesNamedUsersAndReportsFailures) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, chmod(at("file").c_str(), 0600));
  EXPECT_EQ(EINVAL, tarn_file_add_user_full_ctrl(at("file").c_str(), "nobody"));
  EXPECT_EQ(EINVAL, tarn_file_add_user_full_ctrl(at("file").c_str(), nullptr));
  EXPECT_EQ(EINVAL, tarn_file_add_user_full_ctrl(nullptr, ""));
  EXPECT_EQ(EINVAL, tarn_file_add_user_full_ctrl("", ""));
  EXPECT_EQ(0600u, mode_of(at("file")));
  EXPECT_EQ(ENOENT, tarn_file_add_user_full_ctrl(at("missing").c_str(), ""));

  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const std::string path = at("file");
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    return tarn_file_add_user_full_ctrl(path.c_str(), "") == EPERM ? 0 : 11;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
  EXPECT_EQ(0600u, mode_of(at("file")));
}

// ---------------------------------------------------------------------------
// Directories

TEST_F(FsTest, MkdirCreatesTheTreeWithTheExactModeDespiteTheUmask) {
  {
    Umask mask(022);
    ASSERT_EQ(0, tarn_dirutils_mkdir(at("a/b/c").c_str(), 0777));
  }
  // Only the directory named gets the mode; its new parents get 0755.
  EXPECT_EQ(0755u, mode_of(at("a")));
  EXPECT_EQ(0755u, mode_of(at("a/b")));
  EXPECT_EQ(0777u, mode_of(at("a/b/c")));
  {
    Umask mask(077);
    ASSERT_EQ(0, tarn_dirutils_mkdir(at("p/q/").c_str(), 0700));
  }
  EXPECT_EQ(0755u, mode_of(at("p")));
  EXPECT_EQ(0700u, mode_of(at("p/q")));
  {
    Umask mask(077);
    ASSERT_EQ(0, tarn_dirutils_mkdir(at("sticky").c_str(), 01777));
  }
  EXPECT_EQ(01777u, mode_of(at("sticky")));
}

TEST_F(FsTest, MkdirOfExistingDirectoriesSucceedsAndKeepsTheirModes) {
  ASSERT_EQ(0, mkdir(at("old").c_str(), 0700));
  ASSERT_EQ(0, chmod(at("old").c_str(), 0700));
  EXPECT_EQ(0, tarn_dirutils_mkdir(at("old").c_str(), 0777));
  EXPECT_EQ(0700u, mode_of(at("old")));
  EXPECT_EQ(0, tarn_dirutils_mkdir(at("old/new").c_str(), 0755));
  EXPECT_EQ(0700u, mode_of(at("old")));
  EXPECT_EQ(0755u, mode_of(at("old/new")));
  EXPECT_EQ(0, tarn_dirutils_mkdir(at("old/new/").c_str(), 0755));
  EXPECT_EQ(0, tarn_dirutils_mkdir(at("x//y///z/").c_str(), 0755));
  EXPECT_NE(0, tarn_path_is_dir_u(at("x/y/z").c_str()));
  EXPECT_EQ(0, tarn_dirutils_mkdir("/", 0755));
}

// A directory that mkdir has just made and another user swaps for a link
// before its mode is set: the mode is never given to what the link names.
TEST_F(FsTest, MkdirNeverGivesItsModeThroughALinkSwappedInForANewDirectory) {
  ASSERT_EQ(0, mkdir(at("victim").c_str(), 0700));
  ASSERT_EQ(0, chmod(at("victim").c_str(), 0700));
  bool swapped = false;
  tarn_test::before_fchmod() = [&](int fd) {
    // The first new directory, "a", is open: swap the name for a link.
    struct stat st;
    if (swapped || fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) return;
    swapped = rename(at("a").c_str(), at("moved").c_str()) == 0 &&
              symlink(at("victim").c_str(), at("a").c_str()) == 0;
  };
  const int result = tarn_dirutils_mkdir(at("a/b").c_str(), 0777);
  tarn_test::before_fchmod() = nullptr;
  ASSERT_TRUE(swapped);
  // The parent was set through its own descriptor (now "moved"), and the
  // last one was made in what "a" names now, the walk holding "moved".
  EXPECT_EQ(0, result);
  EXPECT_EQ(0700u, mode_of(at("victim")));
  EXPECT_EQ(0755u, mode_of(at("moved")));
  EXPECT_EQ(0777u, mode_of(at("moved/b")));
  EXPECT_EQ(0, tarn_path_is_exist_u(at("victim/b").c_str()));
}

TEST_F(FsTest, MkdirReportsAFileInTheWay) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  errno = 0;
  EXPECT_EQ(ENOTDIR, tarn_dirutils_mkdir(at("file").c_str(), 0755));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(ENOTDIR, tarn_dirutils_mkdir(at("file/sub").c_str(), 0755));
  EXPECT_EQ(EINVAL, tarn_dirutils_mkdir(nullptr, 0755));
  EXPECT_EQ(EINVAL, tarn_dirutils_mkdir("", 0755));
}

TEST_F(FsTest, MkdirByManyProcessesAtOnceSucceedsForEach) {
  Barrier barrier;
  std::vector<pid_t> children;
  const std::string path = at("shared/deep/tree/of/directories");
  for (int i = 0; i < 6; ++i) {
    children.push_back(barrier.start([&] { return tarn_dirutils_mkdir(path.c_str(), 0750); }));
    ASSERT_GT(children.back(), 0);
  }
  barrier.open();
  for (pid_t pid : children) EXPECT_EQ(0, reap(pid));
  EXPECT_EQ(0750u, mode_of(path));
  EXPECT_EQ(0755u, mode_of(at("shared")));
}

TEST(PathTransform, AnAtPathIsTakenRelativeToTheExecutablesDirectory) {
  const std::string dir = executable_directory();
  ASSERT_FALSE(dir.empty());
  char out[PATH_MAX];
  EXPECT_EQ(0, tarn_dirutils_path_transform("@/../var/logs", out, sizeof(out)));
  EXPECT_EQ(dir + "/../var/logs", out);
  EXPECT_EQ(0, tarn_dirutils_path_transform("@x", out, sizeof(out)));
  EXPECT_EQ(dir + "x", out);
  EXPECT_EQ(0, tarn_dirutils_path_transform("@", out, sizeof(out)));
  EXPECT_EQ(dir, out);
}

TEST(PathTransform, OtherPathsAreCopiedUnchanged) {
  char out[64];
  EXPECT_EQ(0, tarn_dirutils_path_transform("/usr/share/velmora/TARN/x", out, sizeof(out)));
  EXPECT_STREQ("/usr/share/velmora/TARN/x", out);
  EXPECT_EQ(0, tarn_dirutils_path_transform("relative/@x", out, sizeof(out)));
  EXPECT_STREQ("relative/@x", out);
  EXPECT_EQ(0, tarn_dirutils_path_transform("", out, sizeof(out)));
  EXPECT_STREQ("", out);
}

TEST(PathTransform, TheOutputIsCutAndTerminated) {
  char out[8];
  memset(out, 'x', sizeof(out));
  errno = 0;
  EXPECT_EQ(ENAMETOOLONG, tarn_dirutils_path_transform("/usr/share/velmora", out, 5));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_STREQ("/usr", out);
  EXPECT_EQ('x', out[5]);
  EXPECT_EQ(ENAMETOOLONG, tarn_dirutils_path_transform("@/bin", out, sizeof(out)));
  EXPECT_EQ(executable_directory().substr(0, 7), out);
  EXPECT_EQ(0, tarn_dirutils_path_transform("1234567", out, sizeof(out)));
  EXPECT_STREQ("1234567", out);
}

TEST(PathTransform, BadArgumentsAreEinvalAndLeaveTheOutputAlone) {
  char out[8] = "keep";
  EXPECT_EQ(EINVAL, tarn_dirutils_path_transform(nullptr, out, sizeof(out)));
  EXPECT_EQ(EINVAL, tarn_dirutils_path_transform("/x", nullptr, sizeof(out)));
  EXPECT_EQ(EINVAL, tarn_dirutils_path_transform("/x", out, 0));
  EXPECT_STREQ("keep", out);
}

// ---------------------------------------------------------------------------
// File locks

// A lock handle closed on leaving the scope.
class Flock {
 public:
  explicit Flock(const std::string &path) { result_ = tarn_flock_init(path.c_str(), &handle_); }
  ~Flock() {
    if (handle_ != nullptr) tarn_flock_destroy(handle_);
  }
  Flock(const Flock &) = delete;
  Flock &operator=(const Flock &) = delete;
  int result() const { return result_; }
  tarn_flock_t *get() const { return handle_; }

 private:
  tarn_flock_t *handle_ = nullptr;
  int result_ = -1;
};

// True when flag becomes set within timeout_ms.
bool becomes_true(const std::atomic<bool> &flag, int timeout_ms) {
  const int64_t end = monotonic_ms() + timeout_ms;
  while (!flag.load()) {
    if (monotonic_ms() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

TEST_F(FsTest, FlockInitCreatesTheLockFileOpenToEveryUserAndNeverDeletesIt) {
  const std::string path = at("record.ini.lock");
  {
    Umask mask(022);
    Flock lock(path);
    ASSERT_EQ(0, lock.result());
    ASSERT_NE(nullptr, lock.get());
    EXPECT_EQ(0666u, mode_of(path));
    EXPECT_EQ(0, tarn_flock_acquire(lock.get()));
    EXPECT_EQ(0, tarn_flock_release(lock.get()));
  }
  EXPECT_NE(0, tarn_path_is_exist_u(path.c_str()));
  EXPECT_EQ("", read_file(path));

  // An existing lock file is opened as it is, its content untouched.
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  ASSERT_TRUE(write_file(path, "kept"));
  Flock again(path);
  ASSERT_EQ(0, again.result());
  EXPECT_EQ(0644u, mode_of(path));
  EXPECT_EQ(0, tarn_flock_acquire(again.get()));
  EXPECT_EQ("kept", read_file(path));
}

// A FIFO that the caller may not write is opened for reading, which would
// wait for a writer: the time limit ends a child that blocks.
TEST_F(FsTest, FlockInitOfAFifoLockFileThatCannotBeWrittenDoesNotBlock) {
  const std::string path = at("fifo.lock");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0444));
  ASSERT_EQ(0, chmod(path.c_str(), 0444));
  const int status = tarn_test::run_with_time_limit(10, [&path] {
    tarn_test::WithoutDacOverride unprivileged;
    if (!unprivileged.ok()) return 2;
    Flock lock(path);
    if (lock.result() != 0) return 10 + lock.result();
    return tarn_flock_acquire(lock.get()) == 0 && tarn_flock_release(lock.get()) == 0 ? 0 : 3;
  });
  EXPECT_EQ(0, status) << (status == tarn_test::killed_by(SIGALRM) ? "the open blocked" : "");
}

// Lock files sit in directories that every user may write: a link there,
// dangling or not, is neither created through nor opened.
TEST_F(FsTest, FlockInitRefusesASymbolicLinkAtTheLockPath) {
  ASSERT_TRUE(write_file(at("victim"), "victim"));
  ASSERT_EQ(0, chmod(at("victim").c_str(), 0600));
  ASSERT_EQ(0, symlink(at("victim").c_str(), at("to_file.lock").c_str()));
  ASSERT_EQ(0, symlink(at("created").c_str(), at("dangling.lock").c_str()));
  for (const char *name : {"to_file.lock", "dangling.lock"}) {
    SCOPED_TRACE(name);
    tarn_flock_t *handle = reinterpret_cast<tarn_flock_t *>(&handle);
    errno = 0;
    EXPECT_EQ(ELOOP, tarn_flock_init(at(name).c_str(), &handle));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(nullptr, handle);
  }
  EXPECT_EQ(0, tarn_path_is_exist_u(at("created").c_str()));
  EXPECT_EQ(0600u, mode_of(at("victim")));
  EXPECT_EQ("victim", read_file(at("victim")));
}

TEST_F(FsTest, FlockBadArgumentsAndAMissingDirectory) {
  tarn_flock_t *handle = reinterpret_cast<tarn_flock_t *>(&handle);
  EXPECT_EQ(EINVAL, tarn_flock_init(nullptr, &handle));
  EXPECT_EQ(nullptr, handle);
  handle = reinterpret_cast<tarn_flock_t *>(&handle);
  EXPECT_EQ(EINVAL, tarn_flock_init("", &handle));
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(EINVAL, tarn_flock_init(at("x.lock").c_str(), nullptr));
  handle = reinterpret_cast<tarn_flock_t *>(&handle);
  EXPECT_EQ(ENOENT, tarn_flock_init(at("missing/x.lock").c_str(), &handle));
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(EINVAL, tarn_flock_acquire(nullptr));
  EXPECT_EQ(EINVAL, tarn_flock_release(nullptr));
  EXPECT_EQ(EINVAL, tarn_flock_destroy(nullptr));
}

TEST_F(FsTest, FlockAcquireTwiceThroughOneHandleAndReleaseWhenNotHeldSucceed) {
  Flock lock(at("x.lock"));
  ASSERT_EQ(0, lock.result());
  EXPECT_EQ(0, tarn_flock_release(lock.get()));
  EXPECT_EQ(0, tarn_flock_acquire(lock.get()));
  EXPECT_EQ(0, tarn_flock_acquire(lock.get()));
  EXPECT_EQ(0, tarn_flock_release(lock.get()));
  // One release freed it: another handle takes it at once.
  Flock other(at("x.lock"));
  ASSERT_EQ(0, other.result());
  EXPECT_EQ(0, tarn_flock_acquire(other.get()));
}

TEST_F(FsTest, FlockExcludesAnotherHandleInTheSameProcess) {
  const std::string path = at("x.lock");
  Flock first(path);
  Flock second(path);
  ASSERT_EQ(0, first.result());
  ASSERT_EQ(0, second.result());
  ASSERT_EQ(0, tarn_flock_acquire(first.get()));
  std::atomic<bool> taken{false};
  std::thread waiter([&] {
    if (tarn_flock_acquire(second.get()) == 0) taken = true;
  });
  EXPECT_FALSE(becomes_true(taken, 300));
  ASSERT_EQ(0, tarn_flock_release(first.get()));
  EXPECT_TRUE(becomes_true(taken, 5000));
  waiter.join();
  // Now the second handle holds it and the first waits.
  std::atomic<bool> retaken{false};
  std::thread again([&] {
    if (tarn_flock_acquire(first.get()) == 0) retaken = true;
  });
  EXPECT_FALSE(becomes_true(retaken, 200));
  ASSERT_EQ(0, tarn_flock_release(second.get()));
  EXPECT_TRUE(becomes_true(retaken, 5000));
  again.join();
}

TEST_F(FsTest, FlockDestroyReleasesAHeldLock) {
  const std::string path = at("x.lock");
  tarn_flock_t *first = nullptr;
  ASSERT_EQ(0, tarn_flock_init(path.c_str(), &first));
  ASSERT_EQ(0, tarn_flock_acquire(first));
  Flock second(path);
  std::atomic<bool> taken{false};
  std::thread waiter([&] {
    if (tarn_flock_acquire(second.get()) == 0) taken = true;
  });
  EXPECT_FALSE(becomes_true(taken, 200));
  EXPECT_EQ(0, tarn_flock_destroy(first));
  EXPECT_TRUE(becomes_true(taken, 5000));
  waiter.join();
}

TEST_F(FsTest, FlockExcludesOtherProcesses) {
  const std::string path = at("x.lock");
  Flock lock(path);
  ASSERT_EQ(0, lock.result());
  ASSERT_EQ(0, tarn_flock_acquire(lock.get()));
  Pipe report;
  ASSERT_TRUE(report.ok());
  const pid_t pid = fork_child([&] {
    report.close_read();
    tarn_flock_t *handle = nullptr;
    if (tarn_flock_init(path.c_str(), &handle) != 0) return 10;
    report.send('i');
    if (tarn_flock_acquire(handle) != 0) return 11;
    report.send('a');
    tarn_flock_release(handle);
    tarn_flock_destroy(handle);
    return 0;
  });
  ASSERT_GT(pid, 0);
  report.close_write();
  ASSERT_EQ('i', report.receive());
  // The child waits while the parent holds the lock.
  const int64_t start = monotonic_ms();
  struct timeval none = {0, 300000};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(report.read_fd(), &readable);
  EXPECT_EQ(0, select(report.read_fd() + 1, &readable, nullptr, nullptr, &none));
  EXPECT_GE(monotonic_ms() - start, 250);
  ASSERT_EQ(0, tarn_flock_release(lock.get()));
  EXPECT_EQ('a', report.receive());
  EXPECT_EQ(0, reap(pid));
}

// Lock files are open to every user, so any of them can hold one: the wait
// ends after "[lock] wait_seconds" with ETIMEDOUT.
TEST_F(FsTest, FlockAcquireGivesUpAfterTheConfiguredWait) {
  const std::string path = at("x.lock");
  Flock holder(path);
  ASSERT_EQ(0, holder.result());
  ASSERT_EQ(0, tarn_flock_acquire(holder.get()));
  tarn_test::BaseConfigFile config(tarn_test::kOneSecondLockWait);
  ASSERT_TRUE(config.ok());
  Pipe report;
  ASSERT_TRUE(report.ok());
  // A forked child reads the configuration afresh.
  const pid_t pid = fork_child([&] {
    report.close_read();
    Flock lock(path);
    if (lock.result() != 0) return 10;
    const int64_t start = monotonic_ms();
    const int result = tarn_flock_acquire(lock.get());
    const int error = errno;
    const int64_t waited = monotonic_ms() - start;
    return report.write_int(result) && report.write_int(error) && report.write_int((int)waited) ? 0 : 11;
  });
  ASSERT_GT(pid, 0);
  report.close_write();
  int result = -1, error = -1, waited = -1;
  if (!report.read_int(&result, 20000)) {
    kill_and_reap(pid);
    FAIL() << "the wait did not end";
  }
  EXPECT_TRUE(report.read_int(&error));
  EXPECT_TRUE(report.read_int(&waited));
  EXPECT_EQ(0, reap(pid));
  EXPECT_EQ(ETIMEDOUT, result);
  EXPECT_EQ(ETIMEDOUT, error);
  EXPECT_GE(waited, 1000);
  EXPECT_LT(waited, 10000);
  // The holder still holds it: the child that gave up took nothing.
  Flock other(path);
  ASSERT_EQ(0, other.result());
  ASSERT_EQ(0, tarn_flock_release(holder.get()));
  EXPECT_EQ(0, tarn_flock_acquire(other.get()));
}

TEST_F(FsTest, FlockOfAHolderKilledBySigkillIsReleased) {
  const std::string path = at("x.lock");
  Pipe report;
  ASSERT_TRUE(report.ok());
  const pid_t pid = fork_child([&] {
    report.close_read();
    tarn_flock_t *handle = nullptr;
    if (tarn_flock_init(path.c_str(), &handle) != 0 || tarn_flock_acquire(handle) != 0) return 10;
    report.send('a');
    for (;;) pause();
  });
  ASSERT_GT(pid, 0);
  report.close_write();
  ASSERT_EQ('a', report.receive());
  Flock lock(path);
  ASSERT_EQ(0, lock.result());
  std::atomic<bool> taken{false};
  std::thread waiter([&] {
    if (tarn_flock_acquire(lock.get()) == 0) taken = true;
  });
  EXPECT_FALSE(becomes_true(taken, 300));
  kill_and_reap(pid);
  EXPECT_TRUE(becomes_true(taken, 5000));
  waiter.join();
}

TEST_F(FsTest, FlockManyProcessesTakeTurns) {
  // Each child increments a counter in a file under the lock; with the
  // lock no increment is lost.
  const std::string path = at("counter");
  const std::string lock_path = at("counter.lock");
  ASSERT_TRUE(write_file(path, "0"));
  Barrier barrier;
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    children.push_back(barrier.start([&] {
      tarn_flock_t *handle = nullptr;
      if (tarn_flock_init(lock_path.c_str(), &handle) != 0) return 10;
      for (int n = 0; n < 200; ++n) {
        if (tarn_flock_acquire(handle) != 0) return 11;
        const int value = atoi(read_file(path).c_str());
        if (!write_file(path, std::to_string(value + 1))) return 12;
        if (tarn_flock_release(handle) != 0) return 13;
      }
      tarn_flock_destroy(handle);
      return 0;
    }));
    ASSERT_GT(children.back(), 0);
  }
  barrier.open();
  for (pid_t pid : children) EXPECT_EQ(0, reap(pid));
  EXPECT_EQ("800", read_file(path));
}

TEST_F(FsTest, FlockOfALockFileThatTheUserMayOnlyReadStillExcludes) {
  const std::string path = at("root.lock");
  ASSERT_TRUE(write_file(path, ""));
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  Flock lock(path);
  ASSERT_EQ(0, lock.result());
  ASSERT_EQ(0, tarn_flock_acquire(lock.get()));
  Pipe report;
  ASSERT_TRUE(report.ok());
  const pid_t pid = fork_child([&] {
    report.close_read();
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    tarn_flock_t *handle = nullptr;
    if (tarn_flock_init(path.c_str(), &handle) != 0) return 11;
    report.send('i');
    if (tarn_flock_acquire(handle) != 0) return 12;
    report.send('a');
    tarn_flock_destroy(handle);
    return 0;
  });
  ASSERT_GT(pid, 0);
  report.close_write();
  ASSERT_EQ('i', report.receive());
  struct timeval wait = {0, 200000};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(report.read_fd(), &readable);
  EXPECT_EQ(0, select(report.read_fd() + 1, &readable, nullptr, nullptr, &wait));
  ASSERT_EQ(0, tarn_flock_release(lock.get()));
  EXPECT_EQ('a', report.receive());
  EXPECT_EQ(0, reap(pid));
}

// ---------------------------------------------------------------------------
// Listing a directory

struct Listed {
  int type;
  std::string path;
};

struct Listing {
  std::vector<Listed> entries;
  int stop_at = -1;  // the index whose call returns stop_value
  int stop_value = 0;
  std::function<void(const std::string &)> on_entry;
};

int collect(int type, const char *path, void *user) {
  Listing *listing = static_cast<Listing *>(user);
  listing->entries.push_back({type, path});
  if (listing->on_entry) listing->on_entry(path);
  return (int)listing->entries.size() - 1 == listing->stop_at ? listing->stop_value : 0;
}

std::vector<std::string> listed_paths(const Listing &listing) {
  std::vector<std::string> paths;
  for (const Listed &entry : listing.entries) paths.push_back(entry.path);
  return paths;
}

TEST_F(FsTest, ListdirReportsEachEntrySortedByNameWithItsTypeAndPath) {
  ASSERT_TRUE(write_file(at("b_file"), "x"));
  ASSERT_EQ(0, mkdir(at("a_dir").c_str(), 0755));
  ASSERT_TRUE(write_file(at("a_dir/inner"), "x"));
  ASSERT_EQ(0, mkfifo(at("c_fifo").c_str(), 0644));
  ASSERT_EQ(0, symlink(at("b_file").c_str(), at("d_link_to_file").c_str()));
  ASSERT_EQ(0, symlink(at("a_dir").c_str(), at("e_link_to_dir").c_str()));
  ASSERT_EQ(0, symlink(at("nowhere").c_str(), at("f_dangling").c_str()));
  ASSERT_TRUE(write_file(at("B_upper"), "x"));
  ASSERT_TRUE(write_file(at(".hidden"), "x"));
  Listing listing;
  errno = EINVAL;
  EXPECT_EQ(0, tarn_dirutils_listdir(dir_.c_str(), &listing, collect));
  EXPECT_EQ(0, errno);
  // Byte order: '.' < 'B' < 'a'; a link has the type of its target.
  const std::vector<std::pair<int, std::string>> expected = {
      {TARN_DIRUTILS_FILE, at(".hidden")},        {TARN_DIRUTILS_FILE, at("B_upper")},
      {TARN_DIRUTILS_DIR, at("a_dir")},           {TARN_DIRUTILS_FILE, at("b_file")},
      {TARN_DIRUTILS_OTHER, at("c_fifo")},        {TARN_DIRUTILS_FILE, at("d_link_to_file")},
      {TARN_DIRUTILS_DIR, at("e_link_to_dir")},   {TARN_DIRUTILS_OTHER, at("f_dangling")}};
  ASSERT_EQ(expected.size(), listing.entries.size()) << testing::PrintToString(listed_paths(listing));
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].first, listing.entries[i].type) << expected[i].second;
    EXPECT_EQ(expected[i].second, listing.entries[i].path);
  }
  EXPECT_EQ(0, TARN_DIRUTILS_FILE) << "a file is type 0";
}

TEST_F(FsTest, ListdirOfADirectoryEndingInASlashAddsNoSecondOne) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  Listing listing;
  EXPECT_EQ(0, tarn_dirutils_listdir((dir_ + "/").c_str(), &listing, collect));
  EXPECT_EQ(std::vector<std::string>{at("file")}, listed_paths(listing));
  Listing root;
  ASSERT_EQ(0, tarn_dirutils_listdir("/", &root, collect));
  ASSERT_FALSE(root.entries.empty());
  for (const Listed &entry : root.entries) EXPECT_NE("//", entry.path.substr(0, 2)) << entry.path;
}

TEST_F(FsTest, ListdirStopsAtTheFirstNonZeroResultAndReturnsIt) {
  for (const char *name : {"1", "2", "3", "4"}) ASSERT_TRUE(write_file(at(name), "x"));
  for (int stop_value : {1, -1, 42}) {
    Listing listing;
    listing.stop_at = 1;
    listing.stop_value = stop_value;
    errno = EINVAL;
    EXPECT_EQ(stop_value, tarn_dirutils_listdir(dir_.c_str(), &listing, collect));
    EXPECT_EQ(0, errno);
    EXPECT_EQ((std::vector<std::string>{at("1"), at("2")}), listed_paths(listing));
  }
}

TEST_F(FsTest, ListdirOfAnEmptyDirectoryCallsNothing) {
  Listing listing;
  errno = EINVAL;
  EXPECT_EQ(0, tarn_dirutils_listdir(dir_.c_str(), &listing, collect));
  EXPECT_EQ(0, errno);
  EXPECT_TRUE(listing.entries.empty());
}

TEST_F(FsTest, ListdirSkipsAnEntryRemovedBeforeItsTurn) {
  for (const char *name : {"a", "b", "c"}) ASSERT_TRUE(write_file(at(name), "x"));
  Listing listing;
  listing.on_entry = [this](const std::string &path) {
    if (path == at("a")) unlink(at("b").c_str());
  };
  EXPECT_EQ(0, tarn_dirutils_listdir(dir_.c_str(), &listing, collect));
  EXPECT_EQ((std::vector<std::string>{at("a"), at("c")}), listed_paths(listing));
}

TEST_F(FsTest, ListdirThatCannotListReturnsZeroWithTheReasonInErrno) {
  ASSERT_TRUE(write_file(at("file"), "x"));
  struct Case {
    const char *dir;
    bool with_callback;
    int error;
  };
  const std::string missing = at("missing");
  const std::string file = at("file");
  const Case cases[] = {{missing.c_str(), true, ENOENT}, {file.c_str(), true, ENOTDIR},
                        {nullptr, true, EINVAL},         {"", true, EINVAL},
                        {dir_.c_str(), false, EINVAL}};
  for (const Case &c : cases) {
    Listing listing;
    errno = 0;
    EXPECT_EQ(0, tarn_dirutils_listdir(c.dir, &listing, c.with_callback ? collect : nullptr));
    EXPECT_EQ(c.error, errno) << (c.dir != nullptr ? c.dir : "(null)");
    EXPECT_TRUE(listing.entries.empty());
  }
}

TEST_F(FsTest, ListdirOfADirectoryThatCannotBeReadIsEacces) {
  ASSERT_EQ(0, mkdir(at("closed").c_str(), 0700));
  ASSERT_TRUE(write_file(at("closed/file"), "x"));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const std::string closed = at("closed");
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    Listing listing;
    errno = 0;
    if (tarn_dirutils_listdir(closed.c_str(), &listing, collect) != 0) return 11;
    if (!listing.entries.empty()) return 12;
    return errno == EACCES ? 0 : 13;
  });
  EXPECT_EQ(0, reap(pid));
}

// ---------------------------------------------------------------------------
// Removing a tree

TEST_F(FsTest, RmdirRemovesAWholeTree) {
  ASSERT_TRUE(make_dirs(at("tree/a/b/c")));
  ASSERT_TRUE(write_file(at("tree/top"), "x"));
  ASSERT_TRUE(write_file(at("tree/a/b/c/deep"), "x", 0400));
  ASSERT_EQ(0, mkdir(at("tree/empty").c_str(), 0500));
  ASSERT_EQ(0, mkfifo(at("tree/a/fifo").c_str(), 0644));
  ASSERT_EQ(0, symlink(at("nowhere").c_str(), at("tree/a/dangling").c_str()));
  ASSERT_EQ(0, tarn_dirutils_rmdir(at("tree").c_str()));
  EXPECT_FALSE(tarn_test::exists(at("tree")));
  EXPECT_TRUE(list_directory(dir_).empty());
}

TEST_F(FsTest, RmdirNeverFollowsALinkOutOfTheTree) {
  ASSERT_TRUE(make_dirs(at("outside/sub")));
  ASSERT_TRUE(write_file(at("outside/keep"), "keep"));
  ASSERT_TRUE(write_file(at("outside/sub/keep"), "keep"));
  ASSERT_TRUE(write_file(at("outside_file"), "keep"));
  ASSERT_TRUE(make_dirs(at("tree/inner")));
  ASSERT_EQ(0, symlink(at("outside").c_str(), at("tree/link_to_dir").c_str()));
  ASSERT_EQ(0, symlink(at("outside").c_str(), at("tree/inner/link_to_dir").c_str()));
  ASSERT_EQ(0, symlink(at("outside_file").c_str(), at("tree/inner/link_to_file").c_str()));
  ASSERT_EQ(0, tarn_dirutils_rmdir(at("tree").c_str()));
  EXPECT_FALSE(tarn_test::exists(at("tree")));
  EXPECT_EQ("keep", read_file(at("outside/keep")));
  EXPECT_EQ("keep", read_file(at("outside/sub/keep")));
  EXPECT_EQ("keep", read_file(at("outside_file")));
  EXPECT_EQ((std::set<std::string>{"keep", "sub"}), list_directory(at("outside")));
}

TEST_F(FsTest, RmdirRefusesALinkToADirectoryAndAFile) {
  ASSERT_TRUE(make_dirs(at("real")));
  ASSERT_TRUE(write_file(at("real/keep"), "keep"));
  ASSERT_EQ(0, symlink(at("real").c_str(), at("link").c_str()));
  ASSERT_TRUE(write_file(at("file"), "x"));
  errno = 0;
  EXPECT_EQ(ENOTDIR, tarn_dirutils_rmdir(at("link").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(ENOTDIR, tarn_dirutils_rmdir(at("file").c_str()));
  EXPECT_EQ((std::set<std::string>{"file", "link", "real"}), list_directory(dir_));
  EXPECT_EQ("keep", read_file(at("real/keep")));
}

TEST_F(FsTest, RmdirBadArgumentsAndAMissingPath) {
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_dirutils_rmdir(nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, tarn_dirutils_rmdir(""));
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_dirutils_rmdir(at("missing").c_str()));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(FsTest, RmdirGoesOnPastAFailureAndReturnsTheFirst) {
  // A tree that nobody owns, with one subdirectory that only root may
  // change: the rest goes, that part stays, and the result is EACCES.
  ASSERT_TRUE(make_dirs(at("tree/a_free")));
  ASSERT_TRUE(write_file(at("tree/a_free/file"), "x"));
  ASSERT_TRUE(make_dirs(at("tree/b_locked")));
  ASSERT_TRUE(write_file(at("tree/b_locked/file"), "x"));
  ASSERT_TRUE(write_file(at("tree/c_file"), "x"));
  for (const char *name : {"tree", "tree/a_free", "tree/a_free/file", "tree/c_file"}) {
    ASSERT_EQ(0, chown(at(name).c_str(), 65534, 65534)) << name;
  }
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const std::string tree = at("tree");
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    const int result = tarn_dirutils_rmdir(tree.c_str());
    return result == EACCES && errno == EACCES ? 0 : 11;
  });
  EXPECT_EQ(0, reap(pid));
  EXPECT_EQ(std::set<std::string>{"b_locked"}, list_directory(at("tree")));
  EXPECT_EQ("x", read_file(at("tree/b_locked/file")));
}

// ---------------------------------------------------------------------------
// Path text with '/' as the only separator

TEST(PathText, RemoveNameUDropsTheLastComponentAtSlashesOnly) {
  const auto removed_name_u = [](const char *path) { return edited(path, tarn_path_remove_name_u); };
  EXPECT_EQ("/a/b", removed_name_u("/a/b/c.eni"));
  EXPECT_EQ("/a", removed_name_u("/a/b/"));
  EXPECT_EQ("/a//config", removed_name_u("/a//config/product_register.eni"));
  EXPECT_EQ("/a", removed_name_u("/a//config"));
  EXPECT_EQ("/", removed_name_u("/x"));
  EXPECT_EQ("/", removed_name_u("//x"));
  EXPECT_EQ("/", removed_name_u("/"));
  EXPECT_EQ("a", removed_name_u("a/b"));
  EXPECT_EQ("", removed_name_u("name"));
  EXPECT_EQ("", removed_name_u(""));
  EXPECT_EQ("a\\b", removed_name_u("a\\b/c"));
  EXPECT_EQ("", removed_name_u("a\\b"));
  EXPECT_EQ("", removed_name_u("C:\\dir\\file.txt"));
  EXPECT_EQ(nullptr, tarn_path_remove_name_u(nullptr));
}

TEST(PathText, GetNameUPointsJustAfterTheLastSlash) {
  const char *path = "/dir/sub/core.ejs";
  EXPECT_EQ(path + 9, tarn_path_get_name_u(path));
  EXPECT_STREQ("core.ejs", tarn_path_get_name_u(path));
  const char *bare = "core.ejs";
  EXPECT_EQ(bare, tarn_path_get_name_u(bare));
  EXPECT_STREQ("c", tarn_path_get_name_u("a\\b/c"));
  EXPECT_STREQ("a\\b", tarn_path_get_name_u("a\\b"));
  const char *dir = "/dir/";
  EXPECT_EQ(dir + 5, tarn_path_get_name_u(dir));
  EXPECT_STREQ("", tarn_path_get_name_u("/"));
  EXPECT_STREQ("", tarn_path_get_name_u(""));
  ASSERT_NE(nullptr, tarn_path_get_name_u(nullptr));
  EXPECT_STREQ("", tarn_path_get_name_u(nullptr));
}

// ---------------------------------------------------------------------------
// Copying with an option, and moving

// A fresh directory below /dev/shm (another file system than /tmp in the
// sandbox), removed with its content at the end.
class ScratchShm {
 public:
  ScratchShm() {
    char name[] = "/dev/shm/tarn_fs_XXXXXX";
    if (mkdtemp(name) != nullptr) path_ = name;
  }
  ~ScratchShm() {
    if (!path_.empty()) tarn_dirutils_rmdir(path_.c_str());
  }
  ScratchShm(const ScratchShm &) = delete;
  ScratchShm &operator=(const ScratchShm &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

dev_t device_of(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_dev : (dev_t)-1;
}

TEST_F(FsTest, CopyExWithReplaceCopiesAsCopyDoes) {
  ASSERT_TRUE(write_file(at("src"), "new content"));
  ASSERT_EQ(0, chmod(at("src").c_str(), 0751));
  ASSERT_TRUE(write_file(at("dst"), "old"));
  ASSERT_EQ(0, tarn_file_copy_ex(at("src").c_str(), at("dst").c_str(), TARN_FILE_COPY_REPLACE));
  EXPECT_EQ("new content", read_file(at("dst")));
  EXPECT_EQ(0751u, mode_of(at("dst")));
  EXPECT_EQ((std::set<std::string>{"src", "dst"}), list_directory(dir_));
}

TEST_F(FsTest, CopyExWithNoReplaceLeavesWhateverIsAtTheDestination) {
  ASSERT_TRUE(write_file(at("src"), "new content"));
  ASSERT_EQ(0, chmod(at("src").c_str(), 0640));
  ASSERT_TRUE(write_file(at("file"), "old"));
  ASSERT_EQ(0, mkdir(at("dir").c_str(), 0755));
  ASSERT_EQ(0, symlink(at("nowhere").c_str(), at("dangling").c_str()));
  for (const char *name : {"file", "dir", "dangling"}) {
    errno = 0;
    EXPECT_EQ(EEXIST, tarn_file_copy_ex(at("src").c_str(), at(name).c_str(), TARN_FILE_COPY_NO_REPLACE))
        << name;
    EXPECT_EQ(EEXIST, errno);
  }
  EXPECT_EQ("old", read_file(at("file")));
  EXPECT_FALSE(tarn_test::exists(at("nowhere")));
  // A free name gets the copy with the source's mode; no temporary file stays.
  ASSERT_EQ(0, tarn_file_copy_ex(at("src").c_str(), at("fresh").c_str(), TARN_FILE_COPY_NO_REPLACE));
  EXPECT_EQ("new content", read_file(at("fresh")));
  EXPECT_EQ(0640u, mode_of(at("fresh")));
  EXPECT_EQ((std::set<std::string>{"src", "file", "dir", "dangling", "fresh"}), list_directory(dir_));
}

TEST_F(FsTest, CopyExWithNoReplaceByManyProcessesAtOnceLetsExactlyOneWin) {
  constexpr int kCopiers = 6;
  for (int i = 0; i < kCopiers; ++i) {
    ASSERT_TRUE(write_file(at("src" + std::to_string(i)), "content of " + std::to_string(i)));
  }
  Barrier barrier;
  std::vector<pid_t> children;
  const std::string dst = at("dst");
  for (int i = 0; i < kCopiers; ++i) {
    const std::string src = at("src" + std::to_string(i));
    children.push_back(barrier.start([src, dst, i] {
      const int result = tarn_file_copy_ex(src.c_str(), dst.c_str(), TARN_FILE_COPY_NO_REPLACE);
      if (result == 0) return 100 + i;
      return result == EEXIST ? 0 : 1;
    }));
    ASSERT_GT(children.back(), 0);
  }
  barrier.open();
  std::vector<int> winners;
  for (pid_t pid : children) {
    const int status = reap(pid);
    EXPECT_TRUE(status == 0 || status >= 100) << status;
    if (status >= 100) winners.push_back(status - 100);
  }
  ASSERT_EQ(1u, winners.size());
  EXPECT_EQ("content of " + std::to_string(winners[0]), read_file(dst));
  EXPECT_EQ((size_t)kCopiers + 1, list_directory(dir_).size());
}

TEST_F(FsTest, CopyExRefusesAnUnknownOption) {
  ASSERT_TRUE(write_file(at("src"), "x"));
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_file_copy_ex(at("src").c_str(), at("dst").c_str(), 2));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, tarn_file_copy_ex(at("src").c_str(), at("dst").c_str(), -1));
  EXPECT_EQ(EINVAL, tarn_file_copy_ex(nullptr, at("dst").c_str(), 0));
  EXPECT_EQ((std::set<std::string>{"src"}), list_directory(dir_));
}

TEST_F(FsTest, RenameWithinAFileSystemIsOneStepAndReplacesTheDestination) {
  ASSERT_TRUE(write_file(at("src"), "moved"));
  ASSERT_TRUE(write_file(at("dst"), "old"));
  struct stat before;
  ASSERT_EQ(0, stat(at("src").c_str(), &before));
  ASSERT_EQ(0, tarn_file_rename(at("src").c_str(), at("dst").c_str()));
  struct stat after;
  ASSERT_EQ(0, stat(at("dst").c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ("moved", read_file(at("dst")));
  EXPECT_FALSE(tarn_test::exists(at("src")));
  // A directory moves too.
  ASSERT_TRUE(make_dirs(at("tree")));
  ASSERT_TRUE(write_file(at("tree/leaf"), "leaf"));
  ASSERT_EQ(0, tarn_file_rename(at("tree").c_str(), at("moved_tree").c_str()));
  EXPECT_EQ("leaf", read_file(at("moved_tree/leaf")));
}

TEST_F(FsTest, RenameAcrossFileSystemsCopiesAFileAndRemovesTheSource) {
  // /tmp and /dev/shm are separate file systems in the sandbox.
  ScratchShm shm;
  ASSERT_NE(device_of(dir_), device_of(shm.path()));
  ASSERT_TRUE(write_file(at("src"), "across"));
  ASSERT_EQ(0, chmod(at("src").c_str(), 0751));
  const std::string dst = shm.path() + "/dst";
  ASSERT_TRUE(write_file(dst, "old"));
  ASSERT_EQ(0, tarn_file_rename(at("src").c_str(), dst.c_str()));
  EXPECT_EQ("across", read_file(dst));
  EXPECT_EQ(0751u, mode_of(dst));
  EXPECT_FALSE(tarn_test::exists(at("src")));
  EXPECT_EQ((std::set<std::string>{"dst"}), list_directory(shm.path()));
}

TEST_F(FsTest, RenameAcrossFileSystemsOfAnythingButAFileIsExdev) {
  ScratchShm shm;
  ASSERT_EQ(0, mkdir(at("dir").c_str(), 0755));
  ASSERT_TRUE(write_file(at("file"), "x"));
  ASSERT_EQ(0, symlink(at("file").c_str(), at("link").c_str()));
  for (const char *name : {"dir", "link"}) {
    errno = 0;
    EXPECT_EQ(EXDEV, tarn_file_rename(at(name).c_str(), (shm.path() + "/" + name).c_str())) << name;
    EXPECT_EQ(EXDEV, errno);
  }
  EXPECT_EQ((std::set<std::string>{"dir", "file", "link"}), list_directory(dir_));
  EXPECT_TRUE(list_directory(shm.path()).empty());
}

TEST_F(FsTest, RenameFailuresLeaveBothPathsAsTheyWere) {
  ASSERT_TRUE(write_file(at("src"), "x"));
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_file_rename(at("missing").c_str(), at("dst").c_str()));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(ENOENT, tarn_file_rename(at("src").c_str(), at("no/such/dst").c_str()));
  ASSERT_EQ(0, mkdir(at("full").c_str(), 0755));
  ASSERT_TRUE(write_file(at("full/inside"), "x"));
  EXPECT_EQ(EISDIR, tarn_file_rename(at("src").c_str(), at("full").c_str()));
  EXPECT_EQ(EINVAL, tarn_file_rename(nullptr, at("dst").c_str()));
  EXPECT_EQ(EINVAL, tarn_file_rename(at("src").c_str(), ""));
  EXPECT_EQ("x", read_file(at("src")));
  EXPECT_EQ((std::set<std::string>{"src", "full"}), list_directory(dir_));
}

}  // namespace
