// Hostile archives: crafted ".tgz" files, written header by header while the
// tests run, go through both extractors of the library, untgz_file and
// unpack_tgz (the system's tar). Whatever an archive holds:
//  - nothing outside the destination changes: the tree around it (types,
//    modes, owners, link counts, sizes, contents, link targets and device
//    numbers, the destination's own entry included) is listed before and
//    after each call and must be the same;
//  - nothing extracted keeps a set-user-ID or set-group-ID bit, and what tar
//    makes belongs to the caller, whatever owner the archive records;
//  - tar makes no device node and no FIFO;
//  - the result and every log line are those of each function's contract.
// tar's own complaints go to its standard error, which is kept aside and
// shown only when a check fails.

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fakes.h"
#include "files.h"
#include "log_checks.h"
#include "seccomp_probe.h"
#include "tar_builder.h"
#include "tarn_utils.h"
#include "untgz.h"
#include "without_dac_override.h"

namespace {

using tarn_test::exists;
using tarn_test::file_mode;
using tarn_test::format;
using tarn_test::gzip_of;
using tarn_test::kTarBlock;
using tarn_test::list_directory;
using tarn_test::make_dirs;
using tarn_test::noise;
using tarn_test::read_file;
using tarn_test::tar_of;
using tarn_test::write_file;
using Member = tarn_test::TarMember;
using Lines = std::vector<std::string>;

constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;

// Calls visit(path, relative path, lstat) for everything below dir, links
// not followed; visit says whether to go into a directory.
void walk(const std::string &dir, const std::string &relative,
          const std::function<bool(const std::string &, const std::string &, const struct stat &)> &visit) {
  DIR *stream = opendir(dir.c_str());
  if (stream == nullptr) return;
  std::set<std::string> names;
  while (const dirent *entry = readdir(stream)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(stream);
  for (const std::string &name : names) {
    const std::string path = dir + "/" + name;
    const std::string inner = relative.empty() ? name : relative + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (visit(path, inner, st) && S_ISDIR(st.st_mode)) walk(path, inner, visit);
  }
}

std::string link_target(const std::string &path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof(target));
  return length < 0 ? std::string("<unreadable>") : std::string(target, (size_t)length);
}

// Everything about one entry that an extraction could change.
std::string describe(const std::string &path, const struct stat &st) {
  std::string text =
      format("mode %o owner %u:%u", (unsigned)st.st_mode, (unsigned)st.st_uid, (unsigned)st.st_gid);
  // A directory's link count follows its subdirectories; a file's tells of
  // hard links made to it.
  if (!S_ISDIR(st.st_mode)) text += format(" links %lu", (unsigned long)st.st_nlink);
  if (S_ISREG(st.st_mode)) text += " content [" + read_file(path) + "]";
  if (S_ISLNK(st.st_mode)) text += " -> " + link_target(path);
  if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
    text += format(" device %u,%u", major(st.st_rdev), minor(st.st_rdev));
  }
  return text;
}

// The type and permission bits of what is at path: "file 0644",
// "directory 0755", "link", "fifo 0644", ...; "missing" when nothing is.
std::string kind(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "missing";
  const char *type = S_ISREG(st.st_mode)    ? "file"
                     : S_ISDIR(st.st_mode)  ? "directory"
                     : S_ISLNK(st.st_mode)  ? "link"
                     : S_ISFIFO(st.st_mode) ? "fifo"
                     : S_ISCHR(st.st_mode)  ? "character device"
                     : S_ISBLK(st.st_mode)  ? "block device"
                                            : "other";
  if (S_ISLNK(st.st_mode)) return type;
  return format("%s %04o", type, (unsigned)(st.st_mode & 07777));
}

std::vector<std::string> captured() {
  std::vector<std::string> all;
  for (const tarn_test::LogLine &line : tarn_test::logs()) all.push_back(line.word + ": " + line.message);
  return all;
}

std::string warn(const std::string &message) { return "warn: " + message; }
std::string info(const std::string &message) { return "info: " + message; }

// The mode text of a tar header field.
std::string mode_field(unsigned mode) { return format("%07o", mode); }

// What one call did.
struct Outcome {
  int32_t result;
  Lines lines;
};

// Standard error sent to a file for the lifetime of the object.
class StderrTo {
 public:
  explicit StderrTo(const std::string &path) : saved_(dup(STDERR_FILENO)) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      dup2(fd, STDERR_FILENO);
      close(fd);
    }
  }
  ~StderrTo() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  StderrTo(const StderrTo &) = delete;
  StderrTo &operator=(const StderrTo &) = delete;

 private:
  int saved_;
};

class HostileArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_test::reset_fakes();
    umask(022);
    tmp_ = tarn_test::make_temp_directory("hostile");
    ASSERT_FALSE(tmp_.empty());
    world_ = tmp_ + "/world";
    untgz_dest_ = world_ + "/a/b/untgz";
    tar_dest_ = world_ + "/a/b/tar";
    // The sentinel tree: everything here but the contents of the
    // destination in use must stay as it is. Three ".." from a destination
    // reach world.
    ASSERT_TRUE(make_dirs(tmp_ + "/archives") && make_dirs(world_ + "/outside/dir") &&
                make_dirs(untgz_dest_) && make_dirs(tar_dest_));
    ASSERT_TRUE(write_file(world_ + "/victim.txt", "original"));
    ASSERT_TRUE(write_file(world_ + "/outside/victim.txt", "original outside"));
    ASSERT_TRUE(write_file(world_ + "/a/sibling.txt", "sibling", 0600));
    ASSERT_TRUE(write_file(world_ + "/a/b/near.txt", "near", 0640));
  }

  // Writes the gzip-compressed bytes of tar as <tmp>/archives/<name>.tgz.
  std::string archive(const std::string &name, const std::string &tar) {
    return raw_archive(name, gzip_of(tar));
  }
  std::string archive(const std::string &name, const std::vector<Member> &members) {
    return archive(name, tar_of(members));
  }
  // Writes bytes as they are as <tmp>/archives/<name>.tgz.
  std::string raw_archive(const std::string &name, const std::string &bytes) {
    const std::string path = tmp_ + "/archives/" + name + ".tgz";
    EXPECT_TRUE(write_file(path, bytes));
    return path;
  }

  // Extracts tgz with untgz_file into its destination.
  Outcome untgz(const std::string &tgz) {
    return guarded(untgz_dest_, [&] { return untgz_file(tgz.c_str(), untgz_dest_.c_str()); });
  }
  // Extracts tgz with unpack_tgz into its destination.
  Outcome unpack(const std::string &tgz) {
    const std::string errors = tmp_ + "/tar_stderr.txt";
    const Outcome outcome = guarded(tar_dest_, [&] {
      StderrTo redirect(errors);
      return unpack_tgz(tgz.c_str(), tar_dest_.c_str());
    });
    tar_errors_ = read_file(errors);
    // Whatever the archive says, tar made everything as the caller.
    walk(tar_dest_, "", [&](const std::string &, const std::string &relative, const struct stat &st) {
      EXPECT_EQ(st.st_uid, geteuid()) << relative;
      EXPECT_EQ(st.st_gid, getegid()) << relative;
      return true;
    });
    return outcome;
  }

  // unpack_tgz's lines when tar exits with code; removed: the unpack cache
  // <tar_dest>/<removed> is removed after a failure.
  Lines tar_lines(const std::string &tgz, int code, const std::string &removed = "") const {
    const std::string command = format("tar -zxf \"%s\" -C \"%s\"", tgz.c_str(), tar_dest_.c_str());
    Lines lines{info(format("exitcode:[%d] cmd:[%s] cmd_result:[]\n", code, command.c_str()))};
    if (code == 0) return lines;
    lines.push_back(warn(format("unzip tgz failed with %d, cmd:%s\n", code, command.c_str())));
    if (!removed.empty()) {
      lines.push_back(info(format("remove unpack cache dir [%s/%s]\n", tar_dest_.c_str(), removed.c_str())));
    }
    return lines;
  }

  std::string in_untgz(const std::string &relative) const { return untgz_dest_ + "/" + relative; }
  std::string in_tar(const std::string &relative) const { return tar_dest_ + "/" + relative; }

  void TearDown() override {
    if (HasFailure() && !tar_errors_.empty()) std::cerr << "tar's standard error:\n" << tar_errors_;
  }

  std::string tmp_;
  std::string world_;
  std::string untgz_dest_;
  std::string tar_dest_;
  std::string tar_errors_;

 private:
  // The listing of world, without what is inside dest (the other
  // destination is listed like everything else).
  std::map<std::string, std::string> sentinel(const std::string &dest) const {
    std::map<std::string, std::string> listing;
    struct stat st;
    if (lstat(world_.c_str(), &st) == 0) listing["."] = describe(world_, st);
    walk(world_, "", [&](const std::string &path, const std::string &relative, const struct stat &entry) {
      listing[relative] = describe(path, entry);
      return path != dest;
    });
    return listing;
  }

  // Runs extract with the sentinel listed around it, then checks that the
  // listing is unchanged and that nothing in dest keeps a set-ID bit.
  Outcome guarded(const std::string &dest, const std::function<int32_t()> &extract) {
    const std::map<std::string, std::string> before = sentinel(dest);
    tarn_test::clear_logs();
    Outcome outcome{extract(), captured()};
    const std::map<std::string, std::string> after = sentinel(dest);
    for (const auto &entry : after) {
      const auto old = before.find(entry.first);
      if (old == before.end()) {
        ADD_FAILURE() << "appeared outside the destination: " << entry.first << " " << entry.second;
      } else if (old->second != entry.second) {
        ADD_FAILURE() << "changed outside the destination: " << entry.first << "\n  before: " << old->second
                      << "\n  after:  " << entry.second;
      }
    }
    for (const auto &entry : before) {
      if (after.count(entry.first) == 0) ADD_FAILURE() << "removed outside the destination: " << entry.first;
    }
    walk(dest, "", [](const std::string &, const std::string &relative, const struct stat &st) {
      if (!S_ISLNK(st.st_mode)) {
        EXPECT_EQ(st.st_mode & kSetIdBits, 0u) << relative << " keeps a set-ID bit";
      }
      return true;
    });
    return outcome;
  }
};

// The result and the lines of untgz_file on tgz.
#define EXPECT_UNTGZ_RESULT(tgz, code, expected_lines) \
  do {                                                 \
    const Outcome untgz_outcome = untgz(tgz);          \
    EXPECT_EQ(untgz_outcome.result, code);             \
    EXPECT_EQ(untgz_outcome.lines, expected_lines);    \
  } while (0)

// The result of unpack_tgz on tgz when tar exits with code, and its lines.
#define EXPECT_TAR_RESULT(tgz, code)                      \
  do {                                                    \
    const Outcome tar_outcome = unpack(tgz);              \
    EXPECT_EQ(tar_outcome.result, code);                  \
    EXPECT_EQ(tar_outcome.lines, tar_lines(tgz, code));   \
  } while (0)

// ---------------------------------------------------------------------------
// Names that point elsewhere

TEST_F(HostileArchiveTest, AbsoluteNamesAreRefusedByUntgzAndMadeRelativeByTar) {
  const std::string file = world_ + "/outside/planted.txt";
  const std::string dir = world_ + "/outside/planted_dir/";
  const std::string tgz = archive("absolute", {{file, "planted"}, {dir, "", '5', mode_field(0755)}, {"kept.txt", "kept"}});

  EXPECT_UNTGZ_RESULT(tgz, 1, (Lines{warn(format("unsafe member name %s -- skipping\n", file.c_str())),
                                    warn(format("unsafe member name %s -- skipping\n", dir.c_str()))}));
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"kept.txt"});

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(tar_dest_ + file), "planted");
  EXPECT_EQ(kind(tar_dest_ + dir), "directory 0755");
  EXPECT_EQ(read_file(in_tar("kept.txt")), "kept");
}

TEST_F(HostileArchiveTest, DotDotComponentsNeverLeaveTheDestination) {
  const std::string tgz = archive("dotdot", {{"../../../escape.txt", noise(1500, 3)},
                                             {"a/../../../../escape2.txt", "up"},
                                             {"../../../escape_dir/", "", '5', mode_field(0755)},
                                             {"sub/../inside.txt", "inside"},
                                             {"kept.txt", "kept"}});

  EXPECT_UNTGZ_RESULT(tgz, 1, (Lines{warn("unsafe member name ../../../escape.txt -- skipping\n"),
                                    warn("unsafe member name a/../../../../escape2.txt -- skipping\n"),
                                    warn("unsafe member name ../../../escape_dir/ -- skipping\n"),
                                    warn("unsafe member name sub/../inside.txt -- skipping\n")}));
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"kept.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(list_directory(tar_dest_), std::set<std::string>{"kept.txt"});
}

TEST_F(HostileArchiveTest, SymbolicLinkOutOfTheDestinationFollowedByAFileThroughIt) {
  Member link{"link", "", '2', mode_field(0777)};
  link.link = world_ + "/outside";
  const std::string tgz =
      archive("symlink_abs", {link, {"link/planted.txt", "planted"}, {"link/planted_dir/", "", '5', mode_field(0755)}});

  // No link is made: the members land in a directory of that name.
  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(kind(in_untgz("link")), "directory 0644");
  EXPECT_EQ(read_file(in_untgz("link/planted.txt")), "planted");
  EXPECT_EQ(kind(in_untgz("link/planted_dir")), "directory 0755");

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(kind(in_tar("link")), "link");
}

TEST_F(HostileArchiveTest, RelativeSymbolicLinkUpwardsFollowedByAFileThroughIt) {
  Member up{"up", "", '2', mode_field(0777)};
  up.link = "../../..";
  const std::string tgz = archive("symlink_up", {up, {"up/escape.txt", "escape"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("up/escape.txt")), "escape");

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(kind(in_tar("up")), "link");
  EXPECT_EQ(list_directory(tar_dest_), std::set<std::string>{"up"});
}

TEST_F(HostileArchiveTest, SymbolicLinkThenAFileOfTheSameNameLeavesTheTargetAlone) {
  Member link{"victim", "", '2', mode_field(0777)};
  link.link = world_ + "/victim.txt";
  const std::string tgz = archive("symlink_same_name", {link, {"victim", "overwritten"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("victim")), "overwritten");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar("victim")), "overwritten");
}

TEST_F(HostileArchiveTest, SymbolicLinkAlreadyInTheDestinationIsNotWrittenThroughByUntgz) {
  // Only untgz_file looks at what the destination held before: tar takes
  // the destination as it finds it, so only the first extractor runs here.
  ASSERT_EQ(symlink((world_ + "/outside").c_str(), in_untgz("planted_link").c_str()), 0);
  const std::string tgz = archive("existing_link", {{"planted_link/x.txt", "x"}, {"kept.txt", "kept"}});
  const Outcome untgz_run = untgz(tgz);
  EXPECT_EQ(untgz_run.result, 1);
  EXPECT_EQ(untgz_run.lines,
            Lines{warn(format("member planted_link/x.txt goes through symbolic link %s -- skipping\n",
                              in_untgz("planted_link").c_str()))});
  EXPECT_EQ(read_file(in_untgz("kept.txt")), "kept");
}

TEST_F(HostileArchiveTest, HardLinksToFilesOutsideAreNeverMade) {
  Member absolute{"hard_abs", "", '1'};
  absolute.link = world_ + "/victim.txt";
  Member upwards{"hard_up", "", '1'};
  upwards.link = "../../../victim.txt";
  Member inside{"hard_in", "", '1'};
  inside.link = "inside.txt";
  const std::string tgz = archive("hardlinks", {absolute, upwards, {"inside.txt", "in"}, inside});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"inside.txt"});

  // The link counts of the files outside are part of the sentinel listing.
  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(list_directory(tar_dest_), (std::set<std::string>{"inside.txt", "hard_in"}));
  EXPECT_EQ(read_file(in_tar("hard_in")), "in");
}

TEST_F(HostileArchiveTest, DeviceAndFifoEntriesAreIgnoredByUntgzAndRefusedToTar) {
  Member chr{"chr", "", '3', mode_field(0666)};
  chr.devmajor = mode_field(1);
  chr.devminor = mode_field(3);
  Member blk{"blk", "", '4', mode_field(0666)};
  blk.devmajor = mode_field(7);
  blk.devminor = mode_field(0);
  const std::string tgz = archive("devices", {chr, blk, {"fifo", "", '6', mode_field(0666)}, {"kept.txt", "kept"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"kept.txt"});

  // tar cannot make them, says so and goes on with the rest: exit code 2.
  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(kind(in_tar("chr")), "missing");
  EXPECT_EQ(kind(in_tar("blk")), "missing");
  // Without seccomp filters (under qemu-user) FIFOs stay possible.
  EXPECT_EQ(kind(in_tar("fifo")), tarn_test::seccomp_filters_available() ? "missing" : "fifo 0644");
  EXPECT_EQ(read_file(in_tar("kept.txt")), "kept");
}

// ---------------------------------------------------------------------------
// Header fields

TEST_F(HostileArchiveTest, NameWithoutItsTerminatingZeroRunsIntoTheModeForUntgzOnly) {
  const std::string name(100, 'n');
  const std::string tgz = archive("no_terminator", {{name, "long"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{name + "0000644"});

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar(name)), "long");
}

TEST_F(HostileArchiveTest, HeaderWithoutAnyZeroByteMakesANameTooLongForUntgz) {
  // An old-style header whose every field is filled to its last byte.
  std::string block(kTarBlock, 'x');
  tarn_test::put_field(block, 0, 100, std::string(100, 'n'));
  tarn_test::put_field(block, 100, 8, "0000644 ");
  tarn_test::put_field(block, 108, 8, "0000000 ");
  tarn_test::put_field(block, 116, 8, "0000000 ");
  tarn_test::put_field(block, 124, 12, "00000000005 ");
  tarn_test::put_field(block, 136, 12, "14567123456 ");
  block[156] = '0';
  tarn_test::put_field(block, 157, 100, std::string(100, 'l'));
  tarn_test::put_field(block, 148, 8, "        ");
  unsigned sum = 0;
  for (unsigned char c : block) sum += c;
  tarn_test::put_field(block, 148, 8, format("%07o ", sum));
  ASSERT_EQ(block.find('\0'), std::string::npos);
  const std::string tgz =
      archive("no_zero_byte", block + tarn_test::tar_padded("12345") + std::string(2 * kTarBlock, '\0'));

  const Outcome untgz_run = untgz(tgz);
  EXPECT_EQ(untgz_run.result, 1);
  const std::string path = untgz_dest_ + "/" + block;
  EXPECT_EQ(untgz_run.lines, (Lines{warn(format("Couldn't create %s, errcode:0x%x\n", path.c_str(), ENAMETOOLONG)),
                                    warn("broken archive\n")}));
  EXPECT_TRUE(list_directory(untgz_dest_).empty());

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar(std::string(100, 'n'))), "12345");
}

TEST_F(HostileArchiveTest, BadOctalDigitInTheModeStopsBothExtractors) {
  const std::string tgz =
      archive("bad_mode", {{"before.txt", "b"}, {"bad.txt", "x", '0', "00006x4"}, {"after.txt", "a"}});

  // The contract: an invalid mode ends extraction without a message.
  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"before.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(read_file(in_tar("before.txt")), "b");
}

TEST_F(HostileArchiveTest, BadOctalDigitInTheSizeIsABrokenArchive) {
  Member bad{"bad.bin", std::string(kTarBlock, 'x')};
  bad.size = "0000000100x";
  const std::string tgz = archive("bad_size", {{"before.txt", "b"}, bad, {"after.txt", "a"}});

  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("broken archive\n")});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"before.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(read_file(in_tar("before.txt")), "b");
  EXPECT_FALSE(exists(in_tar("bad.bin")));
}

TEST_F(HostileArchiveTest, WrongHeaderChecksumIsIgnoredByUntgzOnly) {
  Member unchecked{"unchecked.txt", "data"};
  unchecked.good_checksum = false;
  const std::string tgz = archive("bad_checksum", {unchecked, {"after.txt", "a"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(list_directory(untgz_dest_), (std::set<std::string>{"unchecked.txt", "after.txt"}));

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_FALSE(exists(in_tar("unchecked.txt")));
}

TEST_F(HostileArchiveTest, SizeLargerThanTheDataEndsInsideTheData) {
  Member short_data{"short.bin", "abc"};
  short_data.size = "00000010000";  // 4096 bytes; the archive holds 1536 after the header
  const std::string tgz = archive("size_too_large", {short_data});

  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("broken archive\n")});
  EXPECT_EQ(read_file(in_untgz("short.bin")), tarn_test::tar_padded("abc") + std::string(2 * kTarBlock, '\0'));
  EXPECT_EQ(kind(in_untgz("short.bin")), "file 0644");

  EXPECT_TAR_RESULT(tgz, 2);
}

TEST_F(HostileArchiveTest, HugeOctalSizeIsABrokenArchive) {
  Member huge{"huge.bin", "h"};
  huge.size = "77777777777";  // 8 GiB less one byte
  const std::string tgz = archive("huge_size", {{"before.txt", "b"}, huge});

  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("broken archive\n")});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"before.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(read_file(in_tar("before.txt")), "b");
}

TEST_F(HostileArchiveTest, HugeBase256SizeIsABrokenArchiveForUntgz) {
  Member huge{"huge.bin", "h"};
  huge.size = std::string("\x80\0\0\0\0\0\x01\0\0\0\0\0", 12);  // 2^40 in base 256
  const std::string tgz = archive("base256_size", {huge});

  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("broken archive\n")});
  EXPECT_TRUE(list_directory(untgz_dest_).empty());

  EXPECT_TAR_RESULT(tgz, 2);
}

// ---------------------------------------------------------------------------
// Modes and owners

TEST_F(HostileArchiveTest, SetUserAndGroupIdBitsAreNeverExtracted) {
  std::vector<Member> members = {{"suid", "#!/bin/sh\n", '0', mode_field(04755)},
                                 {"sgid", "", '0', mode_field(02755)},
                                 {"both", "x", '0', mode_field(06777)},
                                 {"sgid_dir/", "", '5', mode_field(02775)},
                                 {"made/by/file", "f", '0', mode_field(04750)}};
  for (Member &member : members) member.uid = member.gid = mode_field(1000);
  const std::string tgz = archive("set_id", members);

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(kind(in_untgz("suid")), "file 0755");
  EXPECT_EQ(kind(in_untgz("sgid")), "file 0755");
  EXPECT_EQ(kind(in_untgz("both")), "file 0777");
  EXPECT_EQ(kind(in_untgz("sgid_dir")), "directory 0775");
  EXPECT_EQ(kind(in_untgz("made")), "directory 0755");  // a parent: 0755
  EXPECT_EQ(kind(in_untgz("made/by")), "directory 0750");
  EXPECT_EQ(kind(in_untgz("made/by/file")), "file 0750");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(kind(in_tar("suid")), "file 0755");
  EXPECT_EQ(kind(in_tar("sgid")), "file 0755");
  EXPECT_EQ(kind(in_tar("both")), "file 0755");
  EXPECT_EQ(kind(in_tar("sgid_dir")), "directory 0755");
  EXPECT_EQ(kind(in_tar("made/by/file")), "file 0750");
}

TEST_F(HostileArchiveTest, SetUserIdFileRewrittenByAStreamCutShortLosesTheBit) {
  for (const std::string &dest : {untgz_dest_, tar_dest_}) {
    ASSERT_TRUE(write_file(dest + "/tool", "old program", 04755));
  }
  const std::string data = noise(256 * 1024, 5);
  const std::string whole = gzip_of(tar_of({{"tool", data, '0', mode_field(0700)}, {"after.txt", "a"}}));
  const std::string tgz = raw_archive("rewrite_cut", whole.substr(0, whole.size() / 2));

  EXPECT_UNTGZ_RESULT(tgz, 1, (Lines{warn("broken archive\n"), warn("failed gzclose\n")}));
  // Cut short, the file keeps its old permission bits, without set-ID.
  EXPECT_EQ(kind(in_untgz("tool")), "file 0755");
  const std::string written = read_file(in_untgz("tool"));
  EXPECT_GT(written.size(), 0u);
  EXPECT_TRUE(written == data.substr(0, written.size()));

  EXPECT_TAR_RESULT(tgz, 2);
}

TEST_F(HostileArchiveTest, WorldWritableModesAreKeptByUntgzAndFilteredByTheUmaskInTar) {
  // tar keeps only the permission bits, less the umask: no sticky bit.
  const std::string tgz = archive("world_writable", {{"ww.txt", "w", '0', mode_field(0666)},
                                                     {"wx.sh", "x", '0', mode_field(0777)},
                                                     {"tmpdir/", "", '5', mode_field(01777)},
                                                     {"open/inner.txt", "i", '0', mode_field(0777)}});

  // The contract keeps the archive's permission bits.
  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(kind(in_untgz("ww.txt")), "file 0666");
  EXPECT_EQ(kind(in_untgz("wx.sh")), "file 0777");
  EXPECT_EQ(kind(in_untgz("tmpdir")), "directory 1777");
  EXPECT_EQ(kind(in_untgz("open")), "directory 0777");
  EXPECT_EQ(kind(in_untgz("open/inner.txt")), "file 0777");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(kind(in_tar("ww.txt")), "file 0644");
  EXPECT_EQ(kind(in_tar("wx.sh")), "file 0755");
  EXPECT_EQ(kind(in_tar("tmpdir")), "directory 0755");
  EXPECT_EQ(kind(in_tar("open")), "directory 0755");
  EXPECT_EQ(kind(in_tar("open/inner.txt")), "file 0755");
}

TEST_F(HostileArchiveTest, DirectoryOfMode0444StillTakesItsChildrenForRoot) {
  const std::string tgz = archive("read_only_dir", {{"ro/", "", '5', mode_field(0444)},
                                                    {"ro/inner.txt", "inner"},
                                                    {"ro/sub/deeper.txt", "deeper", '0', mode_field(0600)}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(kind(in_untgz("ro")), "directory 0444");
  EXPECT_EQ(read_file(in_untgz("ro/inner.txt")), "inner");
  EXPECT_EQ(kind(in_untgz("ro/sub")), "directory 0600");
  EXPECT_EQ(read_file(in_untgz("ro/sub/deeper.txt")), "deeper");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(kind(in_tar("ro")), "directory 0444");
  EXPECT_EQ(read_file(in_tar("ro/inner.txt")), "inner");
  EXPECT_EQ(read_file(in_tar("ro/sub/deeper.txt")), "deeper");
}

TEST_F(HostileArchiveTest, DirectoryOfMode0444BlocksItsChildrenForAnUnprivilegedUntgz) {
  const std::string tgz = archive("read_only_dir_unprivileged",
                                  {{"ro/", "", '5', mode_field(0444)}, {"ro/inner.txt", "inner"}, {"after.txt", "a"}});
  Outcome untgz_run{};
  {
    tarn_test::WithoutDacOverride unprivileged;
    ASSERT_TRUE(unprivileged.ok());
    untgz_run = untgz(tgz);
  }
  EXPECT_EQ(untgz_run.result, 1);
  EXPECT_EQ(untgz_run.lines,
            (Lines{warn(format("Couldn't create %s, errcode:0x%x\n", in_untgz("ro/inner.txt").c_str(), EACCES)),
                   warn("broken archive\n")}));
  EXPECT_EQ(kind(in_untgz("ro")), "directory 0444");
  EXPECT_FALSE(exists(in_untgz("after.txt")));

  // tar, a program of its own, runs with root's capabilities.
  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar("ro/inner.txt")), "inner");
}

TEST_F(HostileArchiveTest, ZeroLengthFilesAreMadeWithTheirModes) {
  Member no_size{"empty_no_size", "", '\0', mode_field(0640)};
  no_size.size = std::string(12, '\0');
  const std::string tgz = archive("zero_length", {{"empty", "", '0', mode_field(0600)},
                                                  no_size,
                                                  {"empty_suid", "", '0', mode_field(04755)},
                                                  {"after.txt", "a"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(kind(in_untgz("empty")), "file 0600");
  EXPECT_EQ(kind(in_untgz("empty_no_size")), "file 0640");
  EXPECT_EQ(kind(in_untgz("empty_suid")), "file 0755");
  EXPECT_EQ(read_file(in_untgz("empty")), "");
  EXPECT_EQ(read_file(in_untgz("after.txt")), "a");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(kind(in_tar("empty")), "file 0600");
  EXPECT_EQ(kind(in_tar("empty_no_size")), "file 0640");
  EXPECT_EQ(kind(in_tar("empty_suid")), "file 0755");
  EXPECT_EQ(read_file(in_tar("after.txt")), "a");
}

// ---------------------------------------------------------------------------
// Streams

TEST_F(HostileArchiveTest, TruncatedStreamKeepsThePartialFileWithoutItsModeOrRemovesTarsFolder) {
  const std::string data = noise(256 * 1024, 9);
  const std::string whole = gzip_of(tar_of({{"truncated/", "", '5', mode_field(0700)},
                                            {"truncated/big.bin", data, '0', mode_field(04700)},
                                            {"truncated/after.txt", "a"}}));
  const std::string tgz = raw_archive("truncated", whole.substr(0, whole.size() / 2));

  EXPECT_UNTGZ_RESULT(tgz, 1, (Lines{warn("broken archive\n"), warn("failed gzclose\n")}));
  EXPECT_EQ(kind(in_untgz("truncated/big.bin")), "file 0644");
  EXPECT_FALSE(exists(in_untgz("truncated/after.txt")));

  const Outcome tar_run = unpack(tgz);
  EXPECT_EQ(tar_run.result, 2);
  EXPECT_EQ(tar_run.lines, tar_lines(tgz, 2, "truncated"));
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, PlainTarNamedTgzIsReadByUntgzAndRefusedByTar) {
  const std::string tgz = raw_archive("not_gzip", tar_of({{"plain/file.txt", "plain"}}));

  // zlib reads a stream without a gzip header as it is.
  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("plain/file.txt")), "plain");

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, TrailingGarbageAfterTheGzipStream) {
  const std::string bytes =
      gzip_of(tar_of({{"trailing/file.txt", "data"}})) + "trailing garbage that is not gzip" + noise(700, 4);
  const std::string tgz = raw_archive("trailing", bytes);

  // The end block comes first; what follows the stream is never looked at.
  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("trailing/file.txt")), "data");

  // gzip warns about the garbage and exits with 2; tar passes that on, and
  // the folder it made goes.
  const Outcome tar_run = unpack(tgz);
  EXPECT_EQ(tar_run.result, 2);
  EXPECT_EQ(tar_run.lines, tar_lines(tgz, 2, "trailing"));
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, ArchiveOfOnlyTheEndBlocksExtractsNothing) {
  const std::string tgz = archive("empty", std::vector<Member>{});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_TRUE(list_directory(untgz_dest_).empty());

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

// ---------------------------------------------------------------------------
// Long names and extended headers

TEST_F(HostileArchiveTest, GnuLongNameWithDotDotIsRefusedByBoth) {
  const std::string long_name = "../../../long_escape.txt";
  const std::string tgz = archive("long_name_escape", {{"././@LongLink", long_name + '\0', 'L'},
                                                       {"short_name.txt", "payload"}});

  // The long name's data block is read as a header of its own: an empty
  // file of that name, which is refused; the next member keeps its name.
  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("unsafe member name ../../../long_escape.txt -- skipping\n")});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"short_name.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, GnuLongNameStopsUntgzAtItsDataBlock) {
  const std::string long_name = std::string(150, 'a') + "/f.txt";
  const std::string tgz =
      archive("long_name", {{"././@LongLink", long_name + '\0', 'L'}, {"short_name.txt", "payload"}});

  // The data block as a header has letters in its mode field: invalid, so
  // extraction ends there without a message.
  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{});
  EXPECT_TRUE(list_directory(untgz_dest_).empty());

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar(long_name)), "payload");
}

TEST_F(HostileArchiveTest, PaxPathWithDotDotIsRefusedByBoth) {
  const std::string record = " path=../../../pax_escape.txt\n";
  const std::string pax = std::to_string(record.size() + 2) + record;
  ASSERT_EQ(pax.size(), record.size() + 2);
  const std::string tgz = archive("pax_escape", {{"PaxHeaders/pax_short.txt", pax, 'x'}, {"pax_short.txt", "payload"}});

  // The extended header's data read as a header: its "name" has a ".."
  // component.
  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn("unsafe member name " + pax + " -- skipping\n")});
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"pax_short.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, UstarPrefixWithDotDotIsIgnoredByUntgzAndRefusedByTar) {
  Member prefixed{"x.txt", "prefixed"};
  prefixed.prefix = "../../..";
  const std::string tgz = archive("prefix_escape", {prefixed});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("x.txt")), "prefixed");

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_TRUE(list_directory(tar_dest_).empty());
}

TEST_F(HostileArchiveTest, DeeplyNestedPathsAreMadeInside) {
  std::string deep;
  for (int i = 0; i < 45; ++i) deep += "d/";
  ASSERT_LT(deep.size() + 8, 100u);
  const std::string tgz =
      archive("deep", {{deep + "leaf.txt", "leaf", '0', mode_field(0700)}, {"./a//b/./c.txt", "c"}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz(deep + "leaf.txt")), "leaf");
  EXPECT_EQ(read_file(in_untgz("a/b/c.txt")), "c");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar(deep + "leaf.txt")), "leaf");
  EXPECT_EQ(read_file(in_tar("a/b/c.txt")), "c");
}

// ---------------------------------------------------------------------------
// Members that collide with the destination or with each other

TEST_F(HostileArchiveTest, DirectoryMembersNamedDotLeaveTheDestinationsModeAndOwner) {
  std::vector<Member> members = {{".", "", '5', mode_field(0)},
                                 {"./", "", '5', mode_field(0777)},
                                 {"after.txt", "a"}};
  for (Member &member : members) member.uid = member.gid = mode_field(1000);
  const std::string tgz = archive("dot_dirs", members);

  // The sentinel listing holds each destination's own mode and owner.
  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("after.txt")), "a");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar("after.txt")), "a");
}

TEST_F(HostileArchiveTest, FileOrLinkNamedDotCannotReplaceTheDestination) {
  Member link{".", "", '2', mode_field(0777)};
  link.link = world_ + "/outside";
  const std::string tgz = archive("dot_file", {link, {"before.txt", "b"}, {".", "replaced"}, {"after.txt", "a"}});

  EXPECT_UNTGZ_RESULT(tgz, 1, (Lines{warn(format("Couldn't create %s/., errcode:0x%x\n", untgz_dest_.c_str(), EISDIR)),
                                    warn("broken archive\n")}));
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"before.txt"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(list_directory(tar_dest_), (std::set<std::string>{"before.txt", "after.txt"}));
}

TEST_F(HostileArchiveTest, DuplicateNamesTakeTheLastFileAndTheFirstDirectory) {
  const std::string tgz = archive("duplicates", {{"dup.txt", "first", '0', mode_field(0600)},
                                                 {"dup.txt", "second", '0', mode_field(0640)},
                                                 {"dupdir/", "", '5', mode_field(0700)},
                                                 {"dupdir/", "", '5', mode_field(0755)}});

  EXPECT_UNTGZ_RESULT(tgz, 0, Lines{});
  EXPECT_EQ(read_file(in_untgz("dup.txt")), "second");
  EXPECT_EQ(kind(in_untgz("dup.txt")), "file 0640");
  EXPECT_EQ(kind(in_untgz("dupdir")), "directory 0700");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(in_tar("dup.txt")), "second");
  EXPECT_EQ(kind(in_tar("dup.txt")), "file 0640");
  EXPECT_EQ(kind(in_tar("dupdir")), "directory 0700");
}

TEST_F(HostileArchiveTest, FileWhereADirectoryIsNeeded) {
  const std::string tgz = archive("file_as_dir", {{"x", "file"}, {"x/y", "under"}, {"after.txt", "a"}});

  const Outcome untgz_run = untgz(tgz);
  EXPECT_EQ(untgz_run.result, 1);
  EXPECT_EQ(untgz_run.lines,
            (Lines{warn(format("make base dir %s failed, errcode:0x%x\n", in_untgz("x").c_str(), ENOTDIR)),
                   warn(format("Couldn't create %s, errcode:0x%x\n", in_untgz("x/y").c_str(), ENOTDIR)),
                   warn("broken archive\n")}));
  EXPECT_EQ(list_directory(untgz_dest_), std::set<std::string>{"x"});

  EXPECT_TAR_RESULT(tgz, 2);
  EXPECT_EQ(read_file(in_tar("x")), "file");
  EXPECT_EQ(read_file(in_tar("after.txt")), "a");
}

// ---------------------------------------------------------------------------
// tar's environment

TEST_F(HostileArchiveTest, CallersTarOptionsCannotLoosenUnpackTgzNorAreTheyTouched) {
  const std::string planted = world_ + "/outside/planted.txt";
  std::vector<Member> members = {{planted, "planted"}, {"suid", "x", '0', mode_field(04755)}};
  members[1].uid = members[1].gid = mode_field(1000);
  const std::string tgz = archive("callers_options", members);
  const char *callers = "--absolute-names --same-permissions --same-owner";
  ASSERT_EQ(setenv("TAR_OPTIONS", callers, 1), 0);
  const char *entry = getenv("TAR_OPTIONS");

  EXPECT_UNTGZ_RESULT(tgz, 1, Lines{warn(format("unsafe member name %s -- skipping\n", planted.c_str()))});
  EXPECT_EQ(kind(in_untgz("suid")), "file 0755");

  EXPECT_TAR_RESULT(tgz, 0);
  EXPECT_EQ(read_file(tar_dest_ + planted), "planted");
  EXPECT_EQ(kind(in_tar("suid")), "file 0755");
  // tar got an environment of its own: the caller's entry is the same one.
  EXPECT_EQ(getenv("TAR_OPTIONS"), entry);
  EXPECT_STREQ(entry, callers);
  unsetenv("TAR_OPTIONS");
}

}  // namespace
