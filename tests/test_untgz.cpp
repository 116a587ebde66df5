// Tests of untgz_file: archives are made at test time, either by the
// system's tar program or, for exact header fields and broken archives, by
// writing the tar blocks here (tar_builder.h) and compressing them with zlib.
//
// Failures are real: a file where a directory belongs, a directory that
// an unprivileged caller cannot write (the test drops its DAC-override
// capabilities for the call), and a small tmpfs mounted inside the test's
// private mount namespace for a disk that fills up.

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zlib.h>

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "child_logs.h"
#include "fakes.h"
#include "files.h"
#include "interpose.h"
#include "local_user.h"
#include "log_checks.h"
#include "tar_builder.h"
#include "untgz.h"
#include "without_dac_override.h"

namespace {

using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::list_directory;
using tarn_test::make_dirs;
using tarn_test::read_file;
using tarn_test::WithoutDacOverride;
using tarn_test::write_file;

using Member = tarn_test::TarMember;
using tarn_test::gzip_of;
using tarn_test::noise;
using tarn_test::tar_header_of;
using tarn_test::tar_of;

constexpr size_t kBlock = tarn_test::kTarBlock;

int run(const std::string &command) {
  const int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

off_t size_of(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Every captured line as "<level word>: <message>", in order.
std::vector<std::string> lines() {
  std::vector<std::string> all;
  for (const tarn_test::LogLine &line : tarn_test::logs()) all.push_back(line.word + ": " + line.message);
  return all;
}

std::string warn(const std::string &message) { return "warn: " + message; }

std::vector<std::string> lines_of(const tarn_test::ChildOutcome &outcome) {
  std::vector<std::string> all;
  for (const tarn_test::LogLine &line : outcome.lines) all.push_back(line.word + ": " + line.message);
  return all;
}

// A call that blocks is ended after this many seconds.
constexpr unsigned kTimeLimitSeconds = 10;

// The stack of the thread that extracts in the small-stack test. The
// sanitizer build puts redzones around the local arrays of the library (the
// log frame's path buffers) and runs its own interceptors (realpath, the
// printf family) on the same stack: 52 KiB is the least it needs (with 48
// KiB the log frame overflows), for its instrumentation alone.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kSmallStack = 52 * 1024;
#else
constexpr size_t kSmallStack = 32 * 1024;
#endif

struct ThreadCall {
  const char *tgz;
  const char *dest;
  int32_t result;
};

void *untgz_on_thread(void *argument) {
  ThreadCall *call = static_cast<ThreadCall *>(argument);
  call->result = untgz_file(call->tgz, call->dest);
  return nullptr;
}

// Runs untgz_file on a new thread with a stack of stack_size bytes and
// returns its result; 100 + the error when the thread cannot be made.
int32_t untgz_on_a_small_stack(const std::string &tgz, const std::string &dest, size_t stack_size) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return 100;
  int error = pthread_attr_setstacksize(&attributes, stack_size);
  ThreadCall call = {tgz.c_str(), dest.c_str(), -1};
  pthread_t thread;
  if (error == 0) error = pthread_create(&thread, &attributes, untgz_on_thread, &call);
  pthread_attr_destroy(&attributes);
  if (error != 0) return 100 + error;
  pthread_join(thread, nullptr);
  return call.result;
}

// An action run just before one chosen read of the decompressed stream
// (numbered from 0, one 512-byte block per read), that is between two
// members of the archive or between a header and its data. Once armed, it
// runs once.
struct ReadHook {
  unsigned reads = 0;
  unsigned at = 0;
  std::function<void()> action;
};
ReadHook read_hook;

void run_before_read(unsigned at, std::function<void()> action) {
  read_hook = ReadHook{0, at, std::move(action)};
}

}  // namespace

// The extractor's reads come here first (the library's objects are linked
// into this program).
extern "C" int gzread(gzFile file, voidp buffer, unsigned length) {
  static const auto real = tarn_test::next_definition<int (*)(gzFile, voidp, unsigned)>("gzread");
  if (read_hook.action && read_hook.reads++ == read_hook.at) {
    const std::function<void()> action = std::move(read_hook.action);
    read_hook.action = nullptr;
    action();
  }
  return real(file, buffer, length);
}

namespace {

// The read of the second member's header block.
constexpr unsigned kSecondHeaderRead = 2;

class UntgzTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_test::reset_fakes();
    read_hook = ReadHook{};
    umask(022);
    tmp_ = tarn_test::make_temp_directory("untgz");
    ASSERT_FALSE(tmp_.empty());
    dest_ = tmp_ + "/out";
  }
  void TearDown() override {
    for (const std::string &mount_point : mounts_) umount2(mount_point.c_str(), MNT_DETACH);
  }

  // Compresses tar bytes into <tmp>/<name>.tgz, whose path is returned.
  std::string tgz_of(const std::string &tar, const std::string &name = "archive") {
    const std::string tgz_path = tmp_ + "/" + name + ".tgz";
    EXPECT_TRUE(write_file(tgz_path, gzip_of(tar)));
    return tgz_path;
  }
  std::string tgz_of(const std::vector<Member> &members, const std::string &name = "archive") {
    return tgz_of(tar_of(members), name);
  }

  std::string in_dest(const std::string &relative) const { return dest_ + "/" + relative; }

  // A tmpfs of size_kb kilobytes on path, undone at the end of the test.
  void mount_small_tmpfs(const std::string &path, int size_kb) {
    ASSERT_TRUE(make_dirs(path));
    ASSERT_EQ(mount("untgz-test", path.c_str(), "tmpfs", 0, format("size=%dk", size_kb).c_str()), 0)
        << strerror(errno);
    mounts_.push_back(path);
  }

  // In a destination that every user may write, another user moves the
  // directory "d" away to "moved" and puts a link to <tmp>/outside
  // (returned) in its place, just before the second header is read: after
  // the first member was written. *swapped gets the user's result.
  std::string swap_d_for_a_link_after_its_first_file(int *swapped) {
    const std::string outside = tmp_ + "/outside";
    EXPECT_TRUE(make_dirs(outside));
    EXPECT_TRUE(make_dirs(dest_));
    EXPECT_EQ(chmod(tmp_.c_str(), 0755), 0);
    EXPECT_EQ(chmod(dest_.c_str(), 0777), 0);
    run_before_read(kSecondHeaderRead, [this, outside, swapped] {
      *swapped = tarn_test::as_local_user([&] {
        return rename(in_dest("d").c_str(), in_dest("moved").c_str()) == 0 &&
                       symlink(outside.c_str(), in_dest("d").c_str()) == 0
                   ? 0
                   : 1;
      });
    });
    return outside;
  }

  std::string tmp_;
  std::string dest_;
  std::vector<std::string> mounts_;
};

// ---------------------------------------------------------------------------
// Arguments, opening, and whole archives

TEST_F(UntgzTest, NullArchivePathReturnsOneAndLogsNothing) {
  EXPECT_EQ(untgz_file(nullptr, dest_.c_str()), 1);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(dest_));
}

TEST_F(UntgzTest, ArchiveThatCannotBeOpenedLogsCanotOpenFile) {
  const std::string missing = tmp_ + "/missing.tgz";
  EXPECT_EQ(untgz_file(missing.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn(format("canot open file [%s]\n", missing.c_str()))});
  // The destination is made before the archive is opened.
  EXPECT_EQ(file_mode(dest_), 0755);
}

TEST_F(UntgzTest, BuffersThatCannotBeAllocatedLogOutOfMemoryAndReturnOne) {
  const std::string tgz = tgz_of({{"x.txt", "x"}});
  tarn_test::fail_allocation_after(0);
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("Out of memory\n")});
  EXPECT_EQ(file_mode(dest_), 0755);
  EXPECT_TRUE(list_directory(dest_).empty());
}

// Each is refused at once (a reader that blocks is ended at the time limit)
// as an archive that cannot be opened, and nothing is extracted.
TEST_F(UntgzTest, ArchiveThatIsNotARegularFileOrIsTooLargeIsRefusedAtOnce) {
  const std::string fifo = tmp_ + "/fifo.tgz";
  const std::string zero = tmp_ + "/zero.tgz";
  const std::string directory = tmp_ + "/directory.tgz";
  const std::string too_large = tmp_ + "/too_large.tgz";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
  ASSERT_TRUE(make_dirs(directory));
  // A good archive, then a hole up to one byte past the bound: zlib would
  // extract the archive and ignore the zeros after it.
  ASSERT_TRUE(write_file(too_large, gzip_of(tar_of({{"inside.txt", "in"}}))));
  ASSERT_EQ(truncate(too_large.c_str(), (off_t)(UNTGZ_ARCHIVE_MAX_BYTES + 1)), 0) << strerror(errno);
  for (const std::string &archive : {fifo, zero, directory, too_large}) {
    SCOPED_TRACE(archive);
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(
        kTimeLimitSeconds, [&] { return untgz_file(archive.c_str(), dest_.c_str()); });
    EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
    EXPECT_EQ(outcome.exit_status, 1);
    EXPECT_EQ(lines_of(outcome), std::vector<std::string>{warn(format("canot open file [%s]\n", archive.c_str()))});
    EXPECT_TRUE(list_directory(dest_).empty());
  }
  // At the bound itself the archive is read.
  ASSERT_EQ(truncate(too_large.c_str(), (off_t)UNTGZ_ARCHIVE_MAX_BYTES), 0);
  EXPECT_EQ(untgz_file(too_large.c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("inside.txt")), "in");
}

TEST_F(UntgzTest, ExtractsATreeMadeByTarWithContentsAndModesAndIgnoresItsSymbolicLink) {
  const std::string src = tmp_ + "/src";
  ASSERT_TRUE(make_dirs(src + "/pkg/bin") && make_dirs(src + "/pkg/etc") && make_dirs(src + "/pkg/data"));
  const std::string big = noise(1024 * 1024 + 123);
  ASSERT_TRUE(write_file(src + "/pkg/bin/tool", "#!/bin/sh\necho tool\n", 0755));
  ASSERT_TRUE(write_file(src + "/pkg/etc/conf.ini", "[a]\nb = 1\n", 0640));
  ASSERT_TRUE(write_file(src + "/pkg/empty", "", 0600));
  ASSERT_TRUE(write_file(src + "/pkg/block.bin", std::string(kBlock, 'b'), 0644));
  ASSERT_TRUE(write_file(src + "/pkg/big.bin", big, 0644));
  ASSERT_EQ(chmod((src + "/pkg/etc").c_str(), 0750), 0);
  ASSERT_EQ(chmod((src + "/pkg/data").c_str(), 0700), 0);
  ASSERT_EQ(symlink("bin/tool", (src + "/pkg/link").c_str()), 0);
  const std::string tgz = tmp_ + "/pkg.tgz";
  ASSERT_EQ(run("tar -czf " + tgz + " -C " + src + " pkg"), 0);
  // An older, longer file in the way is replaced.
  ASSERT_TRUE(make_dirs(in_dest("pkg/etc")));
  ASSERT_TRUE(write_file(in_dest("pkg/etc/conf.ini"), std::string(5000, 'o'), 0644));

  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("pkg/bin/tool")), "#!/bin/sh\necho tool\n");
  EXPECT_EQ(file_mode(in_dest("pkg/bin/tool")), 0755);
  EXPECT_EQ(read_file(in_dest("pkg/etc/conf.ini")), "[a]\nb = 1\n");
  EXPECT_EQ(file_mode(in_dest("pkg/etc/conf.ini")), 0640);
  EXPECT_EQ(read_file(in_dest("pkg/empty")), "");
  EXPECT_EQ(file_mode(in_dest("pkg/empty")), 0600);
  EXPECT_EQ(read_file(in_dest("pkg/block.bin")), std::string(kBlock, 'b'));
  EXPECT_TRUE(read_file(in_dest("pkg/big.bin")) == big);
  EXPECT_EQ(file_mode(in_dest("pkg/data")), 0700);
  EXPECT_FALSE(exists(in_dest("pkg/link")));
  EXPECT_EQ(list_directory(in_dest("pkg")),
            (std::set<std::string>{"bin", "etc", "data", "empty", "block.bin", "big.bin"}));
}

TEST_F(UntgzTest, ArchiveEndingWithTheZeroBlockReturnsZero) {
  const std::vector<Member> members = {{"a.txt", "alpha"}, {"b.txt", "beta"}};
  EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("a.txt")), "alpha");
  EXPECT_EQ(read_file(in_dest("b.txt")), "beta");
}

TEST_F(UntgzTest, SameArchiveWithoutTheZeroBlockReturnsOneWithoutBrokenArchive) {
  const std::vector<Member> members = {{"a.txt", "alpha"}, {"b.txt", "beta"}};
  EXPECT_EQ(untgz_file(tgz_of(tar_of(members, false)).c_str(), dest_.c_str()), 1);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("a.txt")), "alpha");
  EXPECT_EQ(read_file(in_dest("b.txt")), "beta");
  EXPECT_EQ(file_mode(in_dest("b.txt")), 0644);
}

TEST_F(UntgzTest, NullDestinationIsTheCurrentDirectory) {
  const std::string tgz = tgz_of({{"here.txt", "here"}});
  const std::string work = tmp_ + "/work";
  ASSERT_TRUE(make_dirs(work));
  char previous[4096];
  ASSERT_NE(getcwd(previous, sizeof(previous)), nullptr);
  ASSERT_EQ(chdir(work.c_str()), 0);
  const int32_t result = untgz_file(tgz.c_str(), nullptr);
  ASSERT_EQ(chdir(previous), 0);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(read_file(work + "/here.txt"), "here");
}

TEST_F(UntgzTest, MissingDestinationIsCreatedWithItsParentsAsMode0755) {
  const std::string deeper = tmp_ + "/new/deeper";
  EXPECT_EQ(untgz_file(tgz_of({{"x.txt", "x"}}).c_str(), deeper.c_str()), 0);
  EXPECT_EQ(file_mode(tmp_ + "/new"), 0755);
  EXPECT_EQ(file_mode(deeper), 0755);
  EXPECT_EQ(read_file(deeper + "/x.txt"), "x");
}

TEST_F(UntgzTest, DestinationThatIsAFileStaysAndEveryMemberFails) {
  ASSERT_TRUE(write_file(dest_, "a file"));
  EXPECT_EQ(untgz_file(tgz_of({{"x.txt", "x"}}).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("make base dir %s failed, errcode:0x%x\n", dest_.c_str(), ENOTDIR)),
                         warn(format("Couldn't create %s/x.txt, errcode:0x%x\n", dest_.c_str(), ENOTDIR)),
                         warn("broken archive\n")}));
  EXPECT_EQ(read_file(dest_), "a file");
}

// ---------------------------------------------------------------------------
// A small stack

// In a child, so that a stack overflow ends the child (SIGSEGV) and not the
// test program.
TEST_F(UntgzTest, ExtractsOnAThreadWithA32KiBStack) {
  const std::string big = noise(300 * 1024);  // more than the 64 KiB stream buffer
  const std::string tgz = tgz_of({{"pkg/", "", '5', "0000750"},
                                  {"pkg/big.bin", big, '0', "0000600"},
                                  {"pkg/small.txt", "small"},
                                  {"inside/f.txt", "through a link that stays inside"}});
  // A member through a link that stays inside the destination is resolved
  // (realpath); one through a link that leaves it is refused and logged.
  ASSERT_TRUE(make_dirs(in_dest("real")) && make_dirs(tmp_ + "/outside"));
  ASSERT_EQ(symlink("real", in_dest("inside").c_str()), 0);
  ASSERT_EQ(symlink((tmp_ + "/outside").c_str(), in_dest("leaving").c_str()), 0);
  const std::string refused = tgz_of({{"leaving/x.txt", "x"}}, "refused");

  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(kTimeLimitSeconds, [&] {
    const int32_t first = untgz_on_a_small_stack(tgz, dest_, kSmallStack);
    const int32_t second = untgz_on_a_small_stack(refused, dest_, kSmallStack);
    return first == 0 && second == 1 ? 0 : 10 + first * 10 + second;
  });
  EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
  EXPECT_EQ(outcome.exit_status, 0);
  EXPECT_EQ(lines_of(outcome), std::vector<std::string>{warn(format(
                                   "member leaving/x.txt goes through symbolic link %s/leaving -- skipping\n",
                                   dest_.c_str()))});
  EXPECT_EQ(file_mode(in_dest("pkg")), 0750);
  EXPECT_TRUE(read_file(in_dest("pkg/big.bin")) == big);
  EXPECT_EQ(file_mode(in_dest("pkg/big.bin")), 0600);
  EXPECT_EQ(read_file(in_dest("pkg/small.txt")), "small");
  EXPECT_EQ(read_file(in_dest("real/f.txt")), "through a link that stays inside");
  EXPECT_TRUE(list_directory(tmp_ + "/outside").empty());
}

// ---------------------------------------------------------------------------
// Member types and header fields

TEST_F(UntgzTest, DirectoryMemberIsCreatedWithItsModeAndParents) {
  Member dir{"top/sub/", "", '5', "0000750"};
  EXPECT_EQ(untgz_file(tgz_of({dir, {"top/sub/f.txt", "f"}}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(file_mode(in_dest("top")), 0755);  // a parent made on the way
  EXPECT_EQ(file_mode(in_dest("top/sub")), 0750);
  EXPECT_EQ(read_file(in_dest("top/sub/f.txt")), "f");
}

TEST_F(UntgzTest, DirectoryMemberThatCannotBeCreatedIsNotReported) {
  ASSERT_TRUE(make_dirs(dest_));
  ASSERT_TRUE(write_file(in_dest("taken"), "file"));
  Member dir{"taken/inner", "", '5', "0000755"};
  EXPECT_EQ(untgz_file(tgz_of({dir, {"next.txt", "n"}}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("taken")), "file");
  EXPECT_EQ(read_file(in_dest("next.txt")), "n");
}

TEST_F(UntgzTest, FileMemberCreatesItsDirectoriesWithTheMembersOwnMode) {
  // Run as root, so the directory's missing write permission does not stop
  // the member itself.
  Member file{"a/b/c.txt", "read only", '0', "0000444"};
  EXPECT_EQ(untgz_file(tgz_of({file}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(file_mode(in_dest("a")), 0755);  // a parent made on the way
  EXPECT_EQ(file_mode(in_dest("a/b")), 0444);
  EXPECT_EQ(read_file(in_dest("a/b/c.txt")), "read only");
  EXPECT_EQ(file_mode(in_dest("a/b/c.txt")), 0444);
}

TEST_F(UntgzTest, EveryFileEndsWithItsMembersModeWhateverTheUmask) {
  // A new file whose mode is what its creation gave it is not changed
  // again; every other one is.
  for (const mode_t mask : {0000, 0022, 0077}) {
    umask(mask);
    const std::string dest = dest_ + std::to_string(mask);
    const std::vector<Member> members = {{"rw.txt", "a", '0', "0000644"}, {"own.txt", "b", '0', "0000600"},
                                         {"all.txt", "c", '0', "0000666"}, {"run.sh", "d", '0', "0000755"}};
    EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest.c_str()), 0) << mask;
    EXPECT_EQ(file_mode(dest + "/rw.txt"), 0644) << mask;
    EXPECT_EQ(file_mode(dest + "/own.txt"), 0600) << mask;
    EXPECT_EQ(file_mode(dest + "/all.txt"), 0666) << mask;
    EXPECT_EQ(file_mode(dest + "/run.sh"), 0755) << mask;
  }
  umask(022);
  EXPECT_NO_LINES();
}

TEST_F(UntgzTest, DirectoryMadeForAMemberOfMode0444MakesLaterSiblingsFailCouldntCreate) {
  EXPECT_EQ(untgz_file(tgz_of({{"a/b/c.txt", "first", '0', "0000444"}}, "first").c_str(), dest_.c_str()), 0);
  ASSERT_EQ(file_mode(in_dest("a/b")), 0444);
  tarn_test::clear_logs();

  const std::string later = tgz_of({{"a/b/d.txt", "sibling"}, {"e.txt", "e"}}, "later");
  WithoutDacOverride unprivileged;
  ASSERT_TRUE(unprivileged.ok());
  EXPECT_EQ(untgz_file(later.c_str(), dest_.c_str()), 1);
  // a/b exists (a, its parent, is 0755), but nothing can be made in it.
  const char *d = dest_.c_str();
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("Couldn't create %s/a/b/d.txt, errcode:0x%x\n", d, EACCES)),
                         warn("broken archive\n")}));
  EXPECT_FALSE(exists(in_dest("a/b/d.txt")));
  EXPECT_FALSE(exists(in_dest("e.txt")));
}

TEST_F(UntgzTest, UnprivilegedMemberOfMode0444CannotBeCreatedInTheDirectoryItMade) {
  const std::string tgz = tgz_of({{"d/c.txt", "c", '0', "0000444"}, {"d/e.txt", "e"}});
  ASSERT_TRUE(make_dirs(dest_));
  WithoutDacOverride unprivileged;
  ASSERT_TRUE(unprivileged.ok());
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("Couldn't create %s/d/c.txt, errcode:0x%x\n", dest_.c_str(), EACCES)),
                         warn("broken archive\n")}));
  EXPECT_EQ(file_mode(in_dest("d")), 0444);
  EXPECT_TRUE(list_directory(in_dest("d")).empty());
}

TEST_F(UntgzTest, SizeFieldWithABlankAtTheEndIsRead) {
  Member exact{"exact.bin", std::string(kBlock, 'e')};
  exact.size = "00000001000 ";
  EXPECT_EQ(untgz_file(tgz_of({exact, {"after.txt", "after"}}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("exact.bin")), std::string(kBlock, 'e'));
  EXPECT_EQ(read_file(in_dest("after.txt")), "after");
}

TEST_F(UntgzTest, SizeFieldWithAnInvalidCharacterIsABrokenArchive) {
  Member bad{"bad.bin", std::string(kBlock, 'x')};
  bad.size = "0000000100x";
  EXPECT_EQ(untgz_file(tgz_of({{"before.txt", "before"}, bad, {"after.txt", "a"}}).c_str(), dest_.c_str()),
            1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("broken archive\n")});
  EXPECT_EQ(read_file(in_dest("before.txt")), "before");
  EXPECT_FALSE(exists(in_dest("bad.bin")));
  EXPECT_FALSE(exists(in_dest("after.txt")));
}

TEST_F(UntgzTest, SizeAboveTheSigned32BitCountIsABrokenArchive) {
  Member huge{"huge.bin", "h"};
  huge.size = "20000000000";  // 2^31
  EXPECT_EQ(untgz_file(tgz_of({huge}).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("broken archive\n")});
  EXPECT_FALSE(exists(in_dest("huge.bin")));
}

TEST_F(UntgzTest, ModeFieldsWithBlanksOrEightDigitsOrNothingAreRead) {
  std::vector<Member> members = {{"trailing_blank", "1", '0', "0000644 "},
                                 {"leading_blanks", "2", '0', "    644"},
                                 {"eight_digits", "3", '0', "00000640"},
                                 {"no_mode", "4", '0', std::string(8, '\0')}};
  EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(file_mode(in_dest("trailing_blank")), 0644);
  EXPECT_EQ(file_mode(in_dest("leading_blanks")), 0644);
  EXPECT_EQ(file_mode(in_dest("eight_digits")), 0640);
  EXPECT_EQ(file_mode(in_dest("no_mode")), 0);
  EXPECT_EQ(read_file(in_dest("no_mode")), "4");
}

TEST_F(UntgzTest, InvalidModeStopsWithResultOneAndNoMessage) {
  for (const std::string &mode : {std::string("00006x4"), std::string("0000644x")}) {
    SCOPED_TRACE(mode);
    tarn_test::clear_logs();
    const std::string out = tmp_ + "/out_" + mode;
    const std::string tgz =
        tgz_of({{"before.txt", "b"}, {"bad.txt", "x", '0', mode}, {"after.txt", "a"}}, mode);
    EXPECT_EQ(untgz_file(tgz.c_str(), out.c_str()), 1);
    EXPECT_NO_LINES();
    EXPECT_EQ(list_directory(out), std::set<std::string>{"before.txt"});
  }
}

TEST_F(UntgzTest, HeaderChecksumIsNotVerified) {
  Member member{"unchecked.txt", "data"};
  member.good_checksum = false;
  EXPECT_EQ(untgz_file(tgz_of({member}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("unchecked.txt")), "data");
}

TEST_F(UntgzTest, SymbolicLinkAndOtherMemberTypesAreIgnored) {
  std::vector<Member> members;
  for (char type : {'1', '2', '3', '4', '6', '7'}) {
    Member member{std::string("type_") + type, "", type};
    member.link = "/etc/passwd";
    members.push_back(member);
  }
  members.push_back({"kept.txt", "kept"});
  EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{"kept.txt"});
}

TEST_F(UntgzTest, DataOfAnIgnoredMemberIsReadAsTheNextHeader) {
  // An extended header whose data block happens to be a header itself.
  const std::string inner = tar_header_of({"from_data.txt", "", '0', "0000600", "0"});
  Member extended{"pax_header", inner, 'x'};
  EXPECT_EQ(untgz_file(tgz_of({extended}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{"from_data.txt"});
  EXPECT_EQ(file_mode(in_dest("from_data.txt")), 0600);
}

TEST_F(UntgzTest, NameOfExactly100CharactersRunsOnIntoTheModeField) {
  const std::string name(100, 'n');
  EXPECT_EQ(untgz_file(tgz_of({{name, "long"}}).c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{name + "0000644"});
  EXPECT_EQ(read_file(in_dest(name + "0000644")), "long");
}

TEST_F(UntgzTest, PathsLongerThan1023BytesAreCut) {
  // A destination of 1020 bytes leaves room for two bytes of a name.
  std::string deep = tmp_;
  while (deep.size() + 201 <= 1020) deep += "/" + std::string(200, 'd');
  deep += "/" + std::string(1020 - deep.size() - 1, 'e');
  ASSERT_EQ(deep.size(), 1020u);
  ASSERT_TRUE(make_dirs(deep));
  EXPECT_EQ(untgz_file(tgz_of({{"abcdef", "cut"}}).c_str(), deep.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(list_directory(deep), std::set<std::string>{"ab"});
  EXPECT_EQ(read_file(deep + "/ab"), "cut");
}

// ---------------------------------------------------------------------------
// Nothing is written outside the destination

TEST_F(UntgzTest, UnsafeNamesAreRefusedAndExtractionGoesOn) {
  const std::string victim = tmp_ + "/victim_abs";
  const std::vector<Member> members = {
      {"../x", noise(1500, 1)},  // three data blocks that must be skipped
      {victim, "absolute"},
      {"a/../../b", "up"},
      {"../escape_dir", "", '5', "0000755"},
      {"safe/ok.txt", "ok", '0', "0000600"}};
  EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn("unsafe member name ../x -- skipping\n"),
                         warn(format("unsafe member name %s -- skipping\n", victim.c_str())),
                         warn("unsafe member name a/../../b -- skipping\n"),
                         warn("unsafe member name ../escape_dir -- skipping\n")}));
  EXPECT_EQ(read_file(in_dest("safe/ok.txt")), "ok");
  EXPECT_EQ(file_mode(in_dest("safe/ok.txt")), 0600);
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{"safe"});
  EXPECT_FALSE(exists(tmp_ + "/x"));
  EXPECT_FALSE(exists(victim));
  EXPECT_FALSE(exists(tmp_ + "/b"));
  EXPECT_FALSE(exists(tmp_ + "/escape_dir"));
}

TEST_F(UntgzTest, NameThatTheCutTurnsIntoDotDotIsRefused) {
  std::string deep = tmp_;
  while (deep.size() + 201 <= 1020) deep += "/" + std::string(200, 'd');
  deep += "/" + std::string(1020 - deep.size() - 1, 'e');
  ASSERT_TRUE(make_dirs(deep));
  EXPECT_EQ(untgz_file(tgz_of({{"..abc", "x"}, {"ok", "ok"}}).c_str(), deep.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("unsafe member name ..abc -- skipping\n")});
  EXPECT_EQ(list_directory(deep), std::set<std::string>{"ok"});
}

TEST_F(UntgzTest, SymbolicLinksLeavingTheDestinationAreNotWrittenThrough) {
  const std::string outside = tmp_ + "/outside";
  ASSERT_TRUE(make_dirs(outside) && make_dirs(in_dest("real")));
  ASSERT_TRUE(write_file(outside + "/victim.txt", "original"));
  ASSERT_EQ(symlink(outside.c_str(), in_dest("link").c_str()), 0);
  ASSERT_EQ(symlink((outside + "/victim.txt").c_str(), in_dest("victim").c_str()), 0);
  ASSERT_EQ(symlink((outside + "/new").c_str(), in_dest("dangling").c_str()), 0);
  ASSERT_EQ(symlink("real", in_dest("inside").c_str()), 0);
  ASSERT_EQ(symlink("real/kept.txt", in_dest("to_kept").c_str()), 0);
  ASSERT_TRUE(write_file(in_dest("real/kept.txt"), "kept"));

  const std::vector<Member> members = {{"link/file", "through"},
                                       {"link/sub/", "", '5', "0000755"},
                                       {"victim", "overwritten"},
                                       {"dangling/x", "x"},
                                       {"to_kept", "replaced"},
                                       {"inside/f.txt", "inside"},
                                       {"inside/deeper/", "", '5', "0000700"}};
  EXPECT_EQ(untgz_file(tgz_of(members).c_str(), dest_.c_str()), 1);
  const char *d = dest_.c_str();
  EXPECT_EQ(lines(),
            (std::vector<std::string>{
                warn(format("member link/file goes through symbolic link %s/link -- skipping\n", d)),
                warn(format("member link/sub/ goes through symbolic link %s/link -- skipping\n", d)),
                warn(format("member victim goes through symbolic link %s/victim -- skipping\n", d)),
                warn(format("member dangling/x goes through symbolic link %s/dangling -- skipping\n", d)),
                warn(format("member to_kept goes through symbolic link %s/to_kept -- skipping\n", d))}));
  EXPECT_EQ(list_directory(outside), std::set<std::string>{"victim.txt"});
  EXPECT_EQ(read_file(outside + "/victim.txt"), "original");
  EXPECT_EQ(read_file(in_dest("real/kept.txt")), "kept");
  EXPECT_EQ(read_file(in_dest("real/f.txt")), "inside");
  EXPECT_EQ(file_mode(in_dest("real/deeper")), 0700);
}

// ---------------------------------------------------------------------------
// Broken streams and archives

TEST_F(UntgzTest, CorruptGzipStreamLogsZlibsErrorText) {
  // A gzip header followed by a deflate block of the reserved type 3.
  const std::string corrupt("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03\x07\x00\x00\x00\x00", 15);
  const std::string path = tmp_ + "/corrupt.tgz";
  ASSERT_TRUE(write_file(path, corrupt));
  EXPECT_EQ(untgz_file(path.c_str(), dest_.c_str()), 1);
  // zlib's error text names the file.
  EXPECT_EQ(lines(), std::vector<std::string>{warn("read tgz failed, err: " + path + ": invalid block type")});
  EXPECT_TRUE(list_directory(dest_).empty());
}

TEST_F(UntgzTest, GzipStreamWithAWrongChecksumLogsZlibsErrorText) {
  const std::string path = tgz_of({{"a.txt", "alpha"}});
  std::string bytes = read_file(path);
  bytes[bytes.size() - 8] ^= 0x55;  // the CRC-32 of the trailer
  ASSERT_TRUE(write_file(path, bytes));
  EXPECT_EQ(untgz_file(path.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("read tgz failed, err: " + path + ": incorrect data check")});
}

TEST_F(UntgzTest, GzipStreamCutShortLeavesThePartialFileWithoutItsModeAndFailsGzclose) {
  const std::string big = noise(256 * 1024);
  const std::string path = tgz_of({{"big.bin", big, '0', "0000700"}, {"after.txt", "a"}});
  std::string bytes = read_file(path);
  ASSERT_TRUE(write_file(path, bytes.substr(0, bytes.size() / 2)));
  EXPECT_EQ(untgz_file(path.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{warn("broken archive\n"), warn("failed gzclose\n")}));
  const off_t written = size_of(in_dest("big.bin"));
  EXPECT_GT(written, 0);
  EXPECT_LT(written, (off_t)big.size());
  EXPECT_EQ(written % (off_t)kBlock, 0);
  EXPECT_TRUE(read_file(in_dest("big.bin")) == big.substr(0, (size_t)written));
  EXPECT_EQ(file_mode(in_dest("big.bin")), 0644);  // as created, not the member's 0700
  EXPECT_FALSE(exists(in_dest("after.txt")));
}

TEST_F(UntgzTest, ArchiveEndingInsideAFilesDataKeepsWhatWasWrittenWithoutItsMode) {
  const std::string data = noise(2000);
  const std::string tar = tar_of({{"cut.bin", data, '0', "0000700"}}, false);
  // The header and two of the four data blocks.
  EXPECT_EQ(untgz_file(tgz_of(tar.substr(0, 3 * kBlock)).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("broken archive\n")});
  EXPECT_EQ(read_file(in_dest("cut.bin")), data.substr(0, 2 * kBlock));
  EXPECT_EQ(file_mode(in_dest("cut.bin")), 0644);
}

TEST_F(UntgzTest, PartialDataBlockAtTheEndIsNotWritten) {
  const std::string data = noise(2000);
  const std::string tar = tar_of({{"cut.bin", data, '0', "0000700"}}, false);
  EXPECT_EQ(untgz_file(tgz_of(tar.substr(0, 3 * kBlock + 100)).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("broken archive\n")});
  EXPECT_EQ(read_file(in_dest("cut.bin")), data.substr(0, 2 * kBlock));
}

TEST_F(UntgzTest, PartialHeaderAtTheEndIsStillProcessedThenTheArchiveIsBroken) {
  // 150 bytes: name, mode and size; the type byte (156) is missing and reads as zero.
  const std::string tar = tar_of({{"first.txt", "1"}, {"tail.txt", "", '5', "0000600"}}, false);
  EXPECT_EQ(untgz_file(tgz_of(tar.substr(0, 2 * kBlock + 150)).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{warn("broken archive\n")});
  EXPECT_EQ(read_file(in_dest("first.txt")), "1");
  EXPECT_EQ(read_file(in_dest("tail.txt")), "");
  EXPECT_EQ(file_mode(in_dest("tail.txt")), 0600);  // size 0: the mode is applied at once
}

TEST_F(UntgzTest, PartialEndBlockReturnsOneWithoutBrokenArchive) {
  const std::string tar = tar_of({{"first.txt", "1"}}, false) + std::string(100, '\0');
  EXPECT_EQ(untgz_file(tgz_of(tar).c_str(), dest_.c_str()), 1);
  EXPECT_NO_LINES();
  EXPECT_EQ(read_file(in_dest("first.txt")), "1");
}

// ---------------------------------------------------------------------------
// Failures of the file system

TEST_F(UntgzTest, BaseDirectoryThatCannotBeMadeIsLoggedAndTheOpenFailsNext) {
  ASSERT_TRUE(make_dirs(dest_));
  ASSERT_TRUE(write_file(in_dest("f"), "plain file"));
  EXPECT_EQ(untgz_file(tgz_of({{"f/x.txt", "x"}, {"later.txt", "l"}}).c_str(), dest_.c_str()), 1);
  const char *d = dest_.c_str();
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("make base dir %s/f failed, errcode:0x%x\n", d, ENOTDIR)),
                         warn(format("Couldn't create %s/f/x.txt, errcode:0x%x\n", d, ENOTDIR)),
                         warn("broken archive\n")}));
  EXPECT_EQ(read_file(in_dest("f")), "plain file");
  EXPECT_FALSE(exists(in_dest("later.txt")));
}

TEST_F(UntgzTest, ReadOnlyDirectoryStopsExtractionWithCouldntCreate) {
  ASSERT_TRUE(make_dirs(in_dest("ro")));
  ASSERT_EQ(chmod(in_dest("ro").c_str(), 0555), 0);
  const std::string tgz = tgz_of({{"ok.txt", "ok"}, {"ro/x.txt", "x"}, {"after.txt", "a"}});
  WithoutDacOverride unprivileged;
  ASSERT_TRUE(unprivileged.ok());
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("Couldn't create %s/ro/x.txt, errcode:0x%x\n", dest_.c_str(), EACCES)),
                         warn("broken archive\n")}));
  EXPECT_EQ(read_file(in_dest("ok.txt")), "ok");
  EXPECT_TRUE(list_directory(in_dest("ro")).empty());
  EXPECT_FALSE(exists(in_dest("after.txt")));
}

TEST_F(UntgzTest, FullDiskDeletesTheFileBeingWrittenAndStops) {
  mount_small_tmpfs(dest_, 16);
  const std::string tgz =
      tgz_of({{"small.txt", "small"}, {"big.bin", noise(64 * 1024)}, {"after.txt", "a"}});
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("Error writing %s/big.bin -- skipping, errcode:0x%x\n", dest_.c_str(),
                                     ENOSPC)),
                         warn("broken archive\n")}));
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{"small.txt"});
  EXPECT_EQ(read_file(in_dest("small.txt")), "small");
}

TEST_F(UntgzTest, FullDiskFoundWhenTheLastBufferedBytesAreFlushedDeletesTheFile) {
  mount_small_tmpfs(dest_, 16);
  // Fill the disk: the extracted file's few bytes stay in the stream's
  // buffer until it is flushed at the file's end.
  FILE *filler = fopen(in_dest("filler").c_str(), "wb");
  ASSERT_NE(filler, nullptr);
  const std::string chunk(4096, 'f');
  while (fwrite(chunk.data(), 1, chunk.size(), filler) == chunk.size() && fflush(filler) == 0) {
  }
  fclose(filler);
  EXPECT_EQ(untgz_file(tgz_of({{"tail.txt", "a few bytes"}}).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("Error writing %s/tail.txt -- skipping, errcode:0x%x\n", dest_.c_str(),
                                     ENOSPC)),
                         warn("broken archive\n")}));
  EXPECT_EQ(list_directory(dest_), std::set<std::string>{"filler"});
}

// ---------------------------------------------------------------------------
// Files created through their open directory

// The blocks read before the second member's header: the first member's
// header and its one data block.

TEST_F(UntgzTest, DirectorySwappedForALinkOutsideBetweenTwoOfItsFilesIsNotFollowed) {
  int swapped = -1;
  const std::string outside = swap_d_for_a_link_after_its_first_file(&swapped);
  const std::string tgz = tgz_of({{"d/one.txt", "one"}, {"d/two.txt", "two"}, {"next.txt", "next"}});
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 0);
  EXPECT_EQ(swapped, 0);
  EXPECT_NO_LINES();
  EXPECT_TRUE(list_directory(outside).empty());
  EXPECT_EQ(list_directory(in_dest("moved")), (std::set<std::string>{"one.txt", "two.txt"}));
  EXPECT_EQ(read_file(in_dest("moved/two.txt")), "two");
  EXPECT_EQ(read_file(in_dest("next.txt")), "next");
}

TEST_F(UntgzTest, DirectorySwappedForALinkOutsideIsNotFollowedByItsSubdirectoryMember) {
  int swapped = -1;
  const std::string outside = swap_d_for_a_link_after_its_first_file(&swapped);
  Member sub{"d/sub/", "", '5', "0000750"};
  const std::string tgz = tgz_of({{"d/one.txt", "one"}, sub, {"d/sub/two.txt", "two"}});
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 0);
  EXPECT_EQ(swapped, 0);
  EXPECT_NO_LINES();
  EXPECT_TRUE(list_directory(outside).empty());
  EXPECT_EQ(file_mode(in_dest("moved/sub")), 0750);
  EXPECT_EQ(read_file(in_dest("moved/sub/two.txt")), "two");
}

TEST_F(UntgzTest, DirectoryMembersGetTheirModeWhateverTheUmask) {
  for (const mode_t mask : {0000, 0022, 0077}) {
    umask(mask);
    const std::string dest = dest_ + std::to_string(mask);
    Member top{"top/", "", '5', "0000755"};
    Member open{"top/open/", "", '5', "0000777"};
    Member own{"top/own/", "", '5', "0000700"};
    EXPECT_EQ(untgz_file(tgz_of({{"top/first.txt", "f"}, top, open, own}).c_str(), dest.c_str()), 0) << mask;
    EXPECT_EQ(file_mode(dest + "/top/open"), 0777) << mask;
    EXPECT_EQ(file_mode(dest + "/top/own"), 0700) << mask;
  }
  umask(022);
  EXPECT_NO_LINES();
}

TEST_F(UntgzTest, LinkAtADirectoryMembersNameInAnOpenDirectoryIsCheckedByItsPath) {
  const std::string outside = tmp_ + "/outside";
  ASSERT_TRUE(make_dirs(outside));
  ASSERT_TRUE(make_dirs(in_dest("d")));
  ASSERT_EQ(symlink(outside.c_str(), in_dest("d/away").c_str()), 0);
  Member away{"d/away/", "", '5', "0000755"};
  EXPECT_EQ(untgz_file(tgz_of({{"d/one.txt", "one"}, away, {"d/two.txt", "two"}}).c_str(), dest_.c_str()), 1);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("member d/away/ goes through symbolic link %s -- skipping\n",
                                             in_dest("d/away").c_str())}));
  EXPECT_TRUE(list_directory(outside).empty());
  EXPECT_EQ(read_file(in_dest("d/two.txt")), "two");
}

TEST_F(UntgzTest, ExistingFileWithSetIdBitsLosesThemBeforeItsNewDataIsWritten) {
  ASSERT_TRUE(make_dirs(in_dest("bin")));
  ASSERT_TRUE(write_file(in_dest("bin/tool"), "old program", 06755));
  ASSERT_EQ(chmod(in_dest("bin/tool").c_str(), 06755), 0);
  const std::string tgz = tgz_of({{"bin/tool", "new program", '0', "0000755"}});
  // Before the data block is read: the file is open, truncated, and not
  // written yet.
  std::string while_written;
  run_before_read(1, [&] { while_written = format("%04o", (unsigned)file_mode(in_dest("bin/tool"))); });
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 0);
  EXPECT_NO_LINES();
  EXPECT_EQ(while_written, "0755");
  EXPECT_EQ(file_mode(in_dest("bin/tool")), 0755);
  EXPECT_EQ(read_file(in_dest("bin/tool")), "new program");
}

TEST_F(UntgzTest, LinkInAFilesPlaceInTheOpenDirectoryIsRefusedAndItsDataDropped) {
  const std::string outside = tmp_ + "/outside";
  ASSERT_TRUE(write_file(outside, "kept"));
  ASSERT_TRUE(make_dirs(in_dest("d")));
  ASSERT_EQ(symlink(outside.c_str(), in_dest("d/victim").c_str()), 0);
  ASSERT_EQ(symlink("one.txt", in_dest("d/inside").c_str()), 0);
  const std::string tgz = tgz_of({{"d/one.txt", "one"},
                                  {"d/victim", "through"},
                                  {"d/inside", "through a link inside"},
                                  {"d/two.txt", "two"}});
  EXPECT_EQ(untgz_file(tgz.c_str(), dest_.c_str()), 1);
  const char *d = dest_.c_str();
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         warn(format("member d/victim goes through symbolic link %s/d/victim -- skipping\n", d)),
                         warn(format("member d/inside goes through symbolic link %s/d/inside -- skipping\n", d))}));
  EXPECT_EQ(read_file(outside), "kept");
  EXPECT_EQ(read_file(in_dest("d/one.txt")), "one");
  EXPECT_EQ(read_file(in_dest("d/two.txt")), "two");
}

}  // namespace
