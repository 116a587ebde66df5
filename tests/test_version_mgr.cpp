// Tests of the version strings: parsing dotted strings into records (and
// leaving the record alone when a string is refused), printing into bounded
// buffers, comparing, copying, and reading a package's version from its
// protected manifest with each failure's message.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fakes.h"
#include "log_checks.h"
#include "manifests.h"
#include "reset_test.h"
#include "split_faults.h"
#include "version_mgr.h"

namespace {

using tarn_test::format;
using tarn_test::ScratchDirectory;
using tarn_test::seal_manifest;

constexpr version_mgr_version kUntouched = {7, 8, 9};

version_mgr_version make(uint32_t major, uint32_t minor, uint32_t patch) {
  return version_mgr_version{major, minor, patch};
}

::testing::AssertionResult has_fields(const version_mgr_version &v, uint32_t major, uint32_t minor,
                                      uint32_t patch) {
  if (v.major == major && v.minor == minor && v.patch == patch) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "record is " << v.major << "." << v.minor << "."
                                       << v.patch << ", expected " << major << "." << minor << "."
                                       << patch;
}

// Parses text into a record that starts as kUntouched.
struct Parsed {
  uint32_t result;
  version_mgr_version version;
};
Parsed parse(const char *text) {
  Parsed parsed{99, kUntouched};
  parsed.result = version_mgr_parser_version(text, &parsed.version);
  return parsed;
}

class VersionMgrTest : public tarn_test::ResetTest<tarn_test::clear_split_faults> {};

TEST_F(VersionMgrTest, ParsesThreeDottedNumbers) {
  const Parsed parsed = parse("1.2.3");
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 1, 2, 3));
  EXPECT_TRUE(has_fields(parse("0.0.0").version, 0, 0, 0));
  EXPECT_TRUE(has_fields(parse("3.2.17").version, 3, 2, 17));
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, ParserIgnoresPiecesAfterTheThird) {
  const Parsed parsed = parse("1.2.3.4");
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 1, 2, 3));
  // The ignored pieces are not checked at all.
  const Parsed loose = parse("4.5.6.x..");
  EXPECT_EQ(loose.result, 0u);
  EXPECT_TRUE(has_fields(loose.version, 4, 5, 6));
}

TEST_F(VersionMgrTest, ParserReadsLeadingZerosAsDecimal) {
  const Parsed parsed = parse("01.002.3");
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 1, 2, 3));
  // Not octal: 010 is ten.
  EXPECT_TRUE(has_fields(parse("010.08.09").version, 10, 8, 9));
}

TEST_F(VersionMgrTest, ParserStopsEachPieceAtItsFirstNonDigit) {
  const Parsed parsed = parse("1.2.3x");
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 1, 2, 3));
  const Parsed release = parse("2rc.0beta.1-final");
  EXPECT_EQ(release.result, 0u);
  EXPECT_TRUE(has_fields(release.version, 2, 0, 1));
}

TEST_F(VersionMgrTest, ParserRefusesFewerThanThreePiecesAndLeavesTheRecord) {
  for (const char *text : {"1.2", "1", "", "123"}) {
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 1u) << text;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << text;
  }
}

TEST_F(VersionMgrTest, ParserRefusesAPieceThatDoesNotBeginWithADigitAndLeavesTheRecord) {
  for (const char *text : {"1.2.x", "x.2.3", "1.x.3", "1.2.rc1", "1.2.\xc3\xa9"}) {
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 1u) << text;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << text;
  }
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, ParserRefusesEmptyPieces) {
  for (const char *text : {"1..3", ".1.2", "1.2.", "..", "..."}) {
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 1u) << text;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << text;
  }
}

TEST_F(VersionMgrTest, ParserRefusesALeadingSignOrBlank) {
  for (const char *text : {"-1.2.3", "+1.2.3", " 1.2.3", "1. 2.3", "1.2.-3", "1.2.\t3"}) {
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 1u) << text;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << text;
  }
}

TEST_F(VersionMgrTest, ParserKeepsTheLow32BitsOfALargePiece) {
  // 2^32 + 1, 2^32 and 2^32 - 1.
  const Parsed parsed = parse("4294967297.4294967296.4294967295");
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 1, 0, 4294967295u));
  // 2^40 + 5.
  EXPECT_TRUE(has_fields(parse("1099511627781.0.0").version, 5, 0, 0));
}

TEST_F(VersionMgrTest, ParserRefusesNullArgumentsWithoutLogging) {
  version_mgr_version version = kUntouched;
  EXPECT_EQ(version_mgr_parser_version(nullptr, &version), 1u);
  EXPECT_TRUE(has_fields(version, 7, 8, 9));
  EXPECT_EQ(version_mgr_parser_version("1.2.3", nullptr), 1u);
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, ParserFailsWhenTheStringCannotBeSplit) {
  // The splitter gives no pieces when memory runs out inside it.
  tarn_test::fail_split_after(0);
  const Parsed parsed = parse("1.2.3");
  EXPECT_EQ(parsed.result, 1u);
  EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9));
  // Once the failure has passed the same string parses.
  EXPECT_EQ(parse("1.2.3").result, 0u);
  EXPECT_EQ(tarn_test::split_calls(), 2u);
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, TostringPrintsTheThreeFields) {
  const version_mgr_version version = make(3, 2, 17);
  char buf[40];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(version_mgr_version_tostring(&version, buf, sizeof(buf)), 6);
  EXPECT_STREQ(buf, "3.2.17");
  const version_mgr_version largest = make(UINT32_MAX, UINT32_MAX, UINT32_MAX);
  EXPECT_EQ(version_mgr_version_tostring(&largest, buf, sizeof(buf)), 32);
  EXPECT_STREQ(buf, "4294967295.4294967295.4294967295");
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, TostringCutsToTheBufferAndTerminates) {
  const version_mgr_version version = make(3, 2, 17);
  char buf[8];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(version_mgr_version_tostring(&version, buf, 4), 3);
  EXPECT_EQ(std::string(buf, 4), std::string("3.2\0", 4));
  EXPECT_EQ(std::string(buf + 4, 4), "ZZZZ");
  // Room for the terminator only.
  EXPECT_EQ(version_mgr_version_tostring(&version, buf, 1), 0);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], '.');
}

TEST_F(VersionMgrTest, TostringWithoutARecordABufferOrALengthReturnsTheBufferPointer) {
  const version_mgr_version version = make(3, 2, 17);
  char buf[8];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(version_mgr_version_tostring(&version, nullptr, sizeof(buf)), (intptr_t)0);
  EXPECT_EQ(version_mgr_version_tostring(&version, buf, 0), (intptr_t)buf);
  EXPECT_EQ(version_mgr_version_tostring(nullptr, buf, sizeof(buf)), (intptr_t)buf);
  EXPECT_EQ(std::string(buf, sizeof(buf)), "ZZZZZZZZ");
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, CompareReturnsTheDifferenceOfTheFirstFieldThatDiffers) {
  EXPECT_EQ(version_mgr_compare_version(make(1, 2, 3), make(1, 2, 3)), 0);
  EXPECT_EQ(version_mgr_compare_version(make(1, 10, 0), make(1, 9, 9)), 1);
  EXPECT_EQ(version_mgr_compare_version(make(2, 0, 0), make(1, 9, 9)), 1);
  EXPECT_EQ(version_mgr_compare_version(make(1, 2, 3), make(1, 2, 5)), -2);
  EXPECT_EQ(version_mgr_compare_version(make(1, 2, 5), make(1, 2, 3)), 2);
  EXPECT_EQ(version_mgr_compare_version(make(1, 9, 9), make(4, 0, 0)), -3);
  EXPECT_EQ(version_mgr_compare_version(make(0, 99, 99), make(1, 0, 0)), -1);
  EXPECT_EQ(version_mgr_compare_version(make(1, 0, 7), make(1, 5, 0)), -5);
  EXPECT_NO_LINES();
}

TEST_F(VersionMgrTest, CompareSignIsTheWrapAroundDifferenceOfTheFields) {
  // A gap of 2^31 or more turns the sign: only smaller gaps compare right.
  EXPECT_EQ(version_mgr_compare_version(make(UINT32_MAX, 0, 0), make(0, 0, 0)), -1);
  EXPECT_EQ(version_mgr_compare_version(make(0x80000000u, 0, 0), make(0, 0, 0)), INT32_MIN);
  EXPECT_EQ(version_mgr_compare_version(make(0x7fffffffu, 0, 0), make(0, 0, 0)), INT32_MAX);
}

TEST_F(VersionMgrTest, CopyCopiesEveryFieldAndIgnoresNull) {
  const version_mgr_version source = make(4, 5, 6);
  version_mgr_version destination = kUntouched;
  version_mgr_version_copy(&source, &destination);
  EXPECT_TRUE(has_fields(destination, 4, 5, 6));
  version_mgr_version other = kUntouched;
  version_mgr_version_copy(nullptr, &other);
  EXPECT_TRUE(has_fields(other, 7, 8, 9));
  version_mgr_version_copy(&source, nullptr);
  EXPECT_TRUE(has_fields(source, 4, 5, 6));
  EXPECT_NO_LINES();
}

class PackageVersionTest : public VersionMgrTest {
 protected:
  ScratchDirectory dir_{"tarn_version_mgr"};

  // Seals json as <name>.ejs in the scratch directory and returns its path.
  std::string manifest(const std::string &name, const std::string &json) {
    const std::string path = dir_ / (name + ".ejs");
    EXPECT_TRUE(seal_manifest(path, json)) << path;
    return path;
  }
  static Parsed read(const std::string &path) {
    Parsed parsed{99, kUntouched};
    parsed.result = version_mgr_get_packman_version_by_file(path.c_str(), &parsed.version);
    return parsed;
  }
};

TEST_F(PackageVersionTest, ReadsTheVersionOfTheManifest) {
  ASSERT_FALSE(dir_.path().empty());
  const std::string path = manifest("core", R"({"package":"core","version":"3.2.17","files":[]})");
  const Parsed parsed = read(path);
  EXPECT_EQ(parsed.result, 0u);
  EXPECT_TRUE(has_fields(parsed.version, 3, 2, 17));
  EXPECT_NO_LINES();
}

TEST_F(PackageVersionTest, RefusesNullArgumentsWithoutLogging) {
  const std::string path = manifest("core", R"({"version":"1.2.3"})");
  version_mgr_version version = kUntouched;
  EXPECT_EQ(version_mgr_get_packman_version_by_file(nullptr, &version), 1u);
  EXPECT_EQ(version_mgr_get_packman_version_by_file(path.c_str(), nullptr), 1u);
  EXPECT_TRUE(has_fields(version, 7, 8, 9));
  EXPECT_NO_LINES();
}

TEST_F(PackageVersionTest, AMissingManifestLogsTheErrno) {
  const std::string path = dir_ / "absent.ejs";
  const Parsed parsed = read(path);
  EXPECT_EQ(parsed.result, 1u);
  EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9));
  ASSERT_EQ(ENOENT, 2);
  EXPECT_LOGGED("warn", format("load ejs failed, path is %s, errcode:0x2\n", path.c_str()));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
}

TEST_F(PackageVersionTest, ATamperedManifestLogsBadMessage) {
  const std::string path = manifest("core", R"({"version":"1.2.3"})");
  ASSERT_TRUE(tarn_test::tamper_file(path));
  const Parsed parsed = read(path);
  EXPECT_EQ(parsed.result, 1u);
  EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9));
  // EBADMSG is 0x4a on x86 and arm64, 0x4d on mips64.
  EXPECT_LOGGED("warn", format("load ejs failed, path is %s, errcode:0x%x\n", path.c_str(), EBADMSG));
}

TEST_F(PackageVersionTest, AManifestWhoseTextIsNotJsonLogsInvalidArgument) {
  const std::string path = manifest("core", "version = 1.2.3");
  EXPECT_EQ(read(path).result, 1u);
  EXPECT_LOGGED("warn", format("load ejs failed, path is %s, errcode:0x16\n", path.c_str()));
}

TEST_F(PackageVersionTest, AManifestWithoutAVersionStringFails) {
  const std::vector<std::string> texts = {
      R"({"package":"core"})",           // no "version"
      R"({"package":"core","version":317})",  // a number
      R"({"version":null})",             // null
      R"({"version":["1.2.3"]})",        // an array
      R"(["1.2.3"])",                    // not an object at all
  };
  for (const std::string &text : texts) {
    tarn_test::clear_logs();
    const std::string path = manifest("core", text);
    const Parsed parsed = read(path);
    EXPECT_EQ(parsed.result, 1u) << text;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << text;
    EXPECT_LOGGED("warn", format("get package version failed, ejs file is %s\n", path.c_str()))
        << text;
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(PackageVersionTest, AnInvalidVersionStringFailsAndLeavesTheRecord) {
  for (const char *version : {"1.2.x", "1.2", "", "v1.2.3"}) {
    tarn_test::clear_logs();
    const std::string path = manifest("core", format(R"({"version":"%s"})", version));
    const Parsed parsed = read(path);
    EXPECT_EQ(parsed.result, 1u) << version;
    EXPECT_TRUE(has_fields(parsed.version, 7, 8, 9)) << version;
    EXPECT_LOGGED("warn", format("version string is invalid, %s\n", version));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(PackageVersionTest, LogsUnderItsOwnSourceFile) {
  read(dir_ / "absent.ejs");
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << tarn_test::dump_logs();
  EXPECT_NE(lines[0].line.find(" [kep] [version_mgr.cpp:"), std::string::npos) << lines[0].line;
  EXPECT_EQ(lines[0].number, 1u);
}

}  // namespace
