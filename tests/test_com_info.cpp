// Tests of the component helpers: loading manifests into component records
// (every key, its defaults and wrong types, empty slots, dependencies, each
// failure and each allocation that runs out), freeing records and lists,
// logging a component's architectures, looking up a file's digest with each
// result code; and joining a relative path to a base directory or to the app
// home, with its result codes and the length it reports when the caller's
// buffer is too small. Packages: listing the manifests of an install
// directory, unpacking real archives made by the system's tar (and what a
// failed unpack removes), checking a component's files, and fresh
// identifiers with their creation controlled by the test.

#include <gtest/gtest.h>
#include <sodium.h>

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_uuid.h>

#include "child_logs.h"
#include "com_info.h"
#include "com_info_internal.h"
#include "fakes.h"
#include "install_root.h"
#include "interpose.h"
#include "kep_result.h"
#include "log_checks.h"
#include "manifests.h"
#include "reset_test.h"
#include "split_faults.h"
#include "tarn_utils.h"
#include "untgz.h"
#include "without_dac_override.h"

// The blocks that the library's objects linked into this program (and the
// test) hand to tarn_free_ while g_watch_frees is set, to see what freeing a
// record releases.
namespace {
bool g_watch_frees = false;
std::set<const void *> g_freed;
}  // namespace

extern "C" void tarn_free_(void *block) {
  if (g_watch_frees && block != nullptr) g_freed.insert(block);
  tarn_test::next_definition<void (*)(void *)>("tarn_free_")(block);
}

namespace {

using tarn_test::dump_logs;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

class ComInfoTest : public tarn_test::ResetTest<tarn_test::clear_install_root> {};

TEST_F(ComInfoTest, ResultCodesHaveTheirValues) {
  EXPECT_EQ(KEP_E_SUCCESS, 0u);
  EXPECT_EQ(KEP_E_INVALID_PARAM, 0x84CE0003u);
  EXPECT_EQ(sizeof(kep_result_t), 4u);
}

TEST_F(ComInfoTest, PathCatRefusesNullOutputNullRelativeAndALengthOfZeroOrBelow) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(tarn_apphome_path_cat_auto("/base", "rel", nullptr, 64), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_apphome_path_cat_auto("/base", nullptr, out, sizeof(out)), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_apphome_path_cat_auto("/base", "rel", out, 0), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_apphome_path_cat_auto("/base", "rel", out, -1), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_apphome_path_cat_auto(nullptr, nullptr, out, sizeof(out)), KEP_E_INVALID_PARAM);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_NO_LINES();
}

TEST_F(ComInfoTest, PathCatJoinsToTheBaseGiven) {
  char out[64];
  EXPECT_EQ(tarn_apphome_path_cat_auto("/opt/base", "config/x.ejs", out, sizeof(out)), KEP_E_SUCCESS);
  EXPECT_STREQ(out, "/opt/base/config/x.ejs");
  // Separators are not merged.
  EXPECT_EQ(tarn_apphome_path_cat_auto("/opt/base/", "/x", out, sizeof(out)), KEP_E_SUCCESS);
  EXPECT_STREQ(out, "/opt/base///x");
  EXPECT_EQ(tarn_apphome_path_cat_auto("", "x", out, sizeof(out)), KEP_E_SUCCESS);
  EXPECT_STREQ(out, "/x");
  EXPECT_NO_LINES();
}

TEST_F(ComInfoTest, PathCatTooLongForTheBufferReturnsTheLengthAndLeavesIt) {
  char out[32];
  memset(out, 'Z', sizeof(out));
  const char *base = "/abcd";
  const char *rel = "012345678";  // "/abcd/012345678" has 15 characters
  ASSERT_EQ(strlen(base) + 1 + strlen(rel), 15u);
  EXPECT_EQ(tarn_apphome_path_cat_auto(base, rel, out, 10), 15u);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_LOGGED("warn", "expr[ret < buf_len] false! len err! expect[15], buf_len[10]");
  // Exactly the length leaves no room for the terminator.
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_path_cat_auto(base, rel, out, 15), 15u);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_LOGGED("warn", "expr[ret < buf_len] false! len err! expect[15], buf_len[15]");
  tarn_test::clear_logs();
  EXPECT_EQ(tarn_apphome_path_cat_auto(base, rel, out, 16), KEP_E_SUCCESS);
  EXPECT_STREQ(out, "/abcd/012345678");
  EXPECT_NO_LINES();
}

TEST_F(ComInfoTest, PathCatWithoutABaseJoinsToTheAppHome) {
  ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
  char out[1024];
  EXPECT_EQ(tarn_apphome_path_cat_auto(nullptr, "bin/tarn_service", out, sizeof(out)), KEP_E_SUCCESS);
  EXPECT_EQ(std::string(out), under_root(kHomeA) + "/bin/tarn_service");
  EXPECT_NO_LINES();
}

TEST_F(ComInfoTest, PathCatWithoutABaseOrAnAppHomeFails) {
  char out[64];
  memset(out, 'Z', sizeof(out));
  EXPECT_EQ(tarn_apphome_path_cat_auto(nullptr, "bin", out, sizeof(out)), 1u);
  EXPECT_LOGGED("warn", "expr[KEP_E_SUCCESS == ret] false! get apphome path fail!\n");
  EXPECT_EQ(out[0], 'Z');
}

TEST_F(ComInfoTest, PathCatLogsUnderItsOwnSourceFile) {
  char out[4];
  tarn_apphome_path_cat_auto("/base", "rel", out, sizeof(out));
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << dump_logs();
  EXPECT_NE(lines[0].line.find(" [kep] [com_info.cpp:"), std::string::npos) << lines[0].line;
  EXPECT_EQ(lines[0].number, 1u);
}


// ---- Component manifests -------------------------------------------------

using tarn_test::format;
using tarn_test::ScratchDirectory;

// SHA-256 digests as text (64 characters).
constexpr char kDigestCore[] = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
constexpr char kDigestLib[] = "2c26b46b68ffc68ff99b453c1d30413413422d706483bfa0f98a5e886266e7ae";

// A manifest with every key, two entries in each array.
std::string full_manifest() {
  return format(R"({"package":"kav_core","version":"3.2.17","scripts_skippable":true,)"
                R"("requirement":true,"arch":["x64","arm64"],"platform":["linux","uos"],)"
                R"("platform_version":{"uos":">=1050","kylin":["v10"]},)"
                R"("depends":["kav_base","kav_net"],"arch_bind":2,"retry":true,)"
                R"("files":[{"name":"__ROOT/bin/kav_core","sha256":"%s"},)"
                R"({"name":"lib/libkav_core.so","sha256":"%s"}]})",
                kDigestCore, kDigestLib);
}

// A manifest of package "p", version 1.0.0 and one file, with extra members
// (text that begins with a comma, or is empty) placed before "files".
std::string manifest_with(const std::string &extra) {
  return R"({"package":"p","version":"1.0.0")" + extra +
         R"(,"files":[{"name":"bin/p","sha256":"d"}]})";
}

// A record that frees what it owns when it goes.
struct Record {
  com_info_var info;
  Record() { memset(&info, 0, sizeof(info)); }
  ~Record() { free_com_info_var(&info); }
  Record(const Record &) = delete;
  Record &operator=(const Record &) = delete;
};

::testing::AssertionResult holds_nothing(const com_info_var &info) {
  if (info.package == nullptr && info.platforms == nullptr && info.platform_count == 0 &&
      info.archs == nullptr && info.arch_count == 0 && info.depends == nullptr &&
      info.depend_count == 0 && info.files == nullptr && info.file_count == 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "the record still holds pointers or counts";
}

class ManifestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    ASSERT_FALSE(dir_.path().empty());
  }
  void TearDown() override { reset(); }
  static void reset() {
    tarn_test::reset_fakes();
    tarn_test::clear_split_faults();
    g_watch_frees = false;
    g_freed.clear();
  }

  // Seals json as <name>.ejs in the scratch directory and returns its path.
  std::string manifest(const std::string &json, const std::string &name = "kav_core") {
    const std::string path = dir_ / (name + ".ejs");
    EXPECT_TRUE(tarn_test::seal_manifest(path, json)) << path;
    return path;
  }
  // Seals json and loads it into record; returns load_com_info's result.
  uint32_t load(const std::string &json, Record *record) {
    return load_com_info(manifest(json).c_str(), &record->info);
  }

  ScratchDirectory dir_{"tarn_com_info"};
};

TEST_F(ManifestTest, LoadReadsEveryKey) {
  Record record;
  ASSERT_EQ(load(full_manifest(), &record), 0u);
  const com_info_var &info = record.info;
  EXPECT_STREQ(info.package, "kav_core");
  EXPECT_EQ(info.version.major, 3u);
  EXPECT_EQ(info.version.minor, 2u);
  EXPECT_EQ(info.version.patch, 17u);
  EXPECT_EQ(info.scripts_skippable, 1u);
  EXPECT_EQ(info.requirement, 1u);
  ASSERT_EQ(info.arch_count, 2u);
  EXPECT_STREQ(info.archs[0], "x64");
  EXPECT_STREQ(info.archs[1], "arm64");
  ASSERT_EQ(info.platform_count, 2u);
  EXPECT_STREQ(info.platforms[0], "linux");
  EXPECT_STREQ(info.platforms[1], "uos");
  ASSERT_EQ(info.depend_count, 2u);
  EXPECT_STREQ(info.depends[0].name, "kav_base");
  EXPECT_STREQ(info.depends[1].name, "kav_net");
  EXPECT_EQ(info.arch_bind, 2);
  EXPECT_EQ(info.retry, 1u);
  ASSERT_EQ(info.file_count, 2u);
  EXPECT_STREQ(info.files[0].name, "__ROOT/bin/kav_core");
  EXPECT_STREQ(info.files[0].sha256, kDigestCore);
  EXPECT_STREQ(info.files[1].name, "lib/libkav_core.so");
  EXPECT_STREQ(info.files[1].sha256, kDigestLib);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadZeroFillsTheRecordAndLeavesEveryOptionalKeyAtItsDefault) {
  Record record;
  // Whatever the record held is overwritten, not freed.
  memset(&record.info, 0xab, sizeof(record.info));
  ASSERT_EQ(load(manifest_with(""), &record), 0u);
  const com_info_var &info = record.info;
  EXPECT_STREQ(info.package, "p");
  EXPECT_EQ(info.version.major, 1u);
  EXPECT_EQ(info.version.minor, 0u);
  EXPECT_EQ(info.version.patch, 0u);
  EXPECT_EQ(info.scripts_skippable, 0u);
  EXPECT_EQ(info.requirement, 0u);
  EXPECT_EQ(info.archs, nullptr);
  EXPECT_EQ(info.arch_count, 0u);
  EXPECT_EQ(info.platforms, nullptr);
  EXPECT_EQ(info.platform_count, 0u);
  EXPECT_EQ(info.depends, nullptr);
  EXPECT_EQ(info.depend_count, 0u);
  EXPECT_EQ(info.arch_bind, 0);
  EXPECT_EQ(info.retry, 0u);
  ASSERT_EQ(info.file_count, 1u);
  EXPECT_STREQ(info.files[0].name, "bin/p");
  EXPECT_STREQ(info.files[0].sha256, "d");
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadTakesOnlyJsonTrueForTheFlags) {
  const std::vector<std::string> values = {"1", R"("true")", "false", "null", "{}", "[true]"};
  for (const std::string &value : values) {
    Record record;
    const std::string extra =
        format(R"(,"scripts_skippable":%s,"requirement":%s,"retry":%s)", value.c_str(),
               value.c_str(), value.c_str());
    ASSERT_EQ(load(manifest_with(extra), &record), 0u) << value;
    EXPECT_EQ(record.info.scripts_skippable, 0u) << value;
    EXPECT_EQ(record.info.requirement, 0u) << value;
    EXPECT_EQ(record.info.retry, 0u) << value;
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadStoresArchAndPlatformStringsAtTheirIndexesLeavingEmptySlots) {
  Record record;
  ASSERT_EQ(load(manifest_with(R"(,"arch":[1,"x64",null,"mips64"],"platform":[true,"linux"])"),
                 &record),
            0u);
  const com_info_var &info = record.info;
  EXPECT_EQ(info.arch_count, 2u);
  EXPECT_EQ(info.archs[0], nullptr);
  EXPECT_STREQ(info.archs[1], "x64");
  EXPECT_EQ(info.archs[2], nullptr);
  EXPECT_STREQ(info.archs[3], "mips64");  // past the count
  EXPECT_EQ(info.platform_count, 1u);
  EXPECT_EQ(info.platforms[0], nullptr);
  EXPECT_STREQ(info.platforms[1], "linux");  // past the count
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadIgnoresArchPlatformAndDependsThatAreNotArraysOrAreEmpty) {
  const std::vector<std::string> extras = {
      R"(,"arch":"x64","platform":{"linux":1},"depends":"kav_base")",
      R"(,"arch":[],"platform":[],"depends":[])",
      R"(,"arch":null,"platform":5,"depends":{"kav_base":"1.0.0"})",
  };
  for (const std::string &extra : extras) {
    Record record;
    ASSERT_EQ(load(manifest_with(extra), &record), 0u) << extra;
    EXPECT_EQ(record.info.archs, nullptr) << extra;
    EXPECT_EQ(record.info.arch_count, 0u);
    EXPECT_EQ(record.info.platforms, nullptr) << extra;
    EXPECT_EQ(record.info.platform_count, 0u);
    EXPECT_EQ(record.info.depends, nullptr) << extra;
    EXPECT_EQ(record.info.depend_count, 0u);
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadAcceptsAndIgnoresPlatformVersionOfAnyShape) {
  const std::string common = R"(,"arch":["x64"],"platform":["uos"],"depends":["b"],"arch_bind":1)";
  Record plain;
  ASSERT_EQ(load(manifest_with(common), &plain), 0u);
  const std::vector<std::string> shapes = {R"("uos>=20")", "5", R"([1,"a"])",
                                           R"({"uos":{"min":"1.0"}})", "null", "true", "{}"};
  for (const std::string &shape : shapes) {
    Record record;
    ASSERT_EQ(load(manifest_with(common + R"(,"platform_version":)" + shape), &record), 0u)
        << shape;
    const com_info_var &a = record.info;
    const com_info_var &b = plain.info;
    EXPECT_STREQ(a.package, b.package);
    EXPECT_EQ(a.arch_count, b.arch_count);
    EXPECT_STREQ(a.archs[0], b.archs[0]);
    EXPECT_EQ(a.platform_count, b.platform_count);
    EXPECT_STREQ(a.platforms[0], b.platforms[0]);
    EXPECT_EQ(a.depend_count, b.depend_count);
    EXPECT_EQ(a.arch_bind, b.arch_bind);
    EXPECT_EQ(a.requirement, b.requirement);
    EXPECT_EQ(a.retry, b.retry);
    EXPECT_EQ(a.file_count, b.file_count);
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, PlatformVersionLoaderStoresNothing) {
  json_error_t error;
  json_t *value = json_loads(R"({"uos":">=1050"})", 0, &error);
  ASSERT_NE(value, nullptr);
  com_info_var info;
  memset(&info, 0x5c, sizeof(info));
  com_info_var before;
  memcpy(&before, &info, sizeof(info));
  EXPECT_EQ(load_plat_support_info(value, &info), 0);
  EXPECT_EQ(memcmp(&before, &info, sizeof(info)), 0);
  EXPECT_EQ(load_plat_support_info(nullptr, &info), 0);
  EXPECT_EQ(load_plat_support_info(value, nullptr), 1);
  EXPECT_EQ(load_plat_support_info(nullptr, nullptr), 1);
  json_decref(value);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadGivesEveryDependencyTheComponentsOwnVersion) {
  Record record;
  const std::string json = R"({"package":"kav_core","version":"3.2.17",)"
                           R"("depends":["kav_base","kav_net 9.9.9",5,"kav_ui"],)"
                           R"("files":[{"name":"a","sha256":"d"}]})";
  ASSERT_EQ(load(json, &record), 0u);
  const com_info_var &info = record.info;
  ASSERT_EQ(info.depend_count, 3u);
  for (uint32_t i : {0u, 1u, 3u}) {
    EXPECT_EQ(info.depends[i].version.major, 3u) << i;
    EXPECT_EQ(info.depends[i].version.minor, 2u) << i;
    EXPECT_EQ(info.depends[i].version.patch, 17u) << i;
  }
  EXPECT_STREQ(info.depends[0].name, "kav_base");
  EXPECT_STREQ(info.depends[1].name, "kav_net 9.9.9");
  // The number leaves an empty slot; the last name stands past the count.
  EXPECT_EQ(info.depends[2].name, nullptr);
  EXPECT_EQ(info.depends[2].version.major, 0u);
  EXPECT_STREQ(info.depends[3].name, "kav_ui");
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadSizesTheDependencyArrayAsComponentRecords) {
  Record record;
  ASSERT_EQ(load(manifest_with(R"(,"depends":["a","b","c"])"), &record), 0u);
  ASSERT_NE(record.info.depends, nullptr);
  // Three entries would need 3 * sizeof(com_depend); the array has room for
  // three component records.
  EXPECT_GE(malloc_usable_size(record.info.depends), 3 * sizeof(com_info_var));
  EXPECT_GT(sizeof(com_info_var), sizeof(com_depend) + 16);
}

TEST_F(ManifestTest, LoadTakesArchBindAsA32BitInteger) {
  struct Case {
    const char *json;
    int32_t expected;
  };
  const Case cases[] = {{"2", 2},          {"-1", -1},         {"4294967295", -1},
                        {"4294967301", 5}, {"2147483648", INT32_MIN}, {R"("2")", 0},
                        {"2.5", 0},        {"true", 0},        {"null", 0},
                        {"[2]", 0}};
  for (const Case &c : cases) {
    Record record;
    ASSERT_EQ(load(manifest_with(std::string(R"(,"arch_bind":)") + c.json), &record), 0u)
        << c.json;
    EXPECT_EQ(record.info.arch_bind, c.expected) << c.json;
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadRefusesAManifestWithoutFilesSilently) {
  const std::string before_files =
      R"({"package":"p","version":"1.0.0","arch":["x64"],"platform":["linux"],"depends":["b"])";
  for (const std::string files : {"", R"(,"files":[])", R"(,"files":{})", R"(,"files":"a")",
                                  R"(,"files":5)", R"(,"files":null)"}) {
    Record record;
    EXPECT_EQ(load(before_files + files + "}", &record), 1u) << files;
    // What was loaded before "files" is freed again.
    EXPECT_TRUE(holds_nothing(record.info)) << files;
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadStoresOnlyFileEntriesWithANameAndADigestAtTheirIndexes) {
  Record record;
  ASSERT_EQ(load(R"({"package":"p","version":"1.0.0",)"
                 R"("files":[{"name":"a"},{"name":"b","sha256":"x"}]})",
                 &record),
            0u);
  ASSERT_EQ(record.info.file_count, 1u);
  EXPECT_EQ(record.info.files[0].name, nullptr);
  EXPECT_EQ(record.info.files[0].sha256, nullptr);
  EXPECT_STREQ(record.info.files[1].name, "b");
  EXPECT_STREQ(record.info.files[1].sha256, "x");

  Record mixed;
  ASSERT_EQ(load(R"({"package":"p","version":"1.0.0","files":[1,"a",{"name":1,"sha256":"x"},)"
                 R"({"name":"n","sha256":2},{"sha256":"d"},{"name":"ok","sha256":"d"}]})",
                 &mixed),
            0u);
  ASSERT_EQ(mixed.info.file_count, 1u);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(mixed.info.files[i].name, nullptr) << i;
    EXPECT_EQ(mixed.info.files[i].sha256, nullptr) << i;
  }
  EXPECT_STREQ(mixed.info.files[5].name, "ok");
  EXPECT_STREQ(mixed.info.files[5].sha256, "d");
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadWithEveryFileLackingADigestHasNoFiles) {
  Record record;
  ASSERT_EQ(load(R"({"package":"p","version":"1.0.0","files":[{"name":"a"},{"name":"b"}]})",
                 &record),
            0u);
  EXPECT_EQ(record.info.file_count, 0u);
  ASSERT_NE(record.info.files, nullptr);
  EXPECT_EQ(record.info.files[0].name, nullptr);
  EXPECT_EQ(record.info.files[1].name, nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadRefusesNullArgumentsWithoutLoggingOrTouchingTheRecord) {
  const std::string path = manifest(full_manifest());
  com_info_var info;
  memset(&info, 0x5c, sizeof(info));
  com_info_var before;
  memcpy(&before, &info, sizeof(info));
  EXPECT_EQ(load_com_info(nullptr, &info), 1u);
  EXPECT_EQ(memcmp(&before, &info, sizeof(info)), 0);
  EXPECT_EQ(load_com_info(path.c_str(), nullptr), 1u);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, LoadLogsAManifestThatDoesNotLoadAndLeavesTheRecordZero) {
  const std::string tampered = manifest(full_manifest(), "tampered");
  ASSERT_TRUE(tarn_test::tamper_file(tampered));
  const std::string not_json = manifest("package = kav_core", "not_json");
  // The loader takes only an object or an array at top level.
  const std::string bare_string = manifest(R"("kav_core")", "bare_string");
  for (const std::string &path :
       {dir_ / "absent.ejs", tampered, not_json, bare_string, dir_.path()}) {
    tarn_test::clear_logs();
    com_info_var info;
    memset(&info, 0x5c, sizeof(info));
    EXPECT_EQ(load_com_info(path.c_str(), &info), 1u) << path;
    com_info_var zero;
    memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(memcmp(&zero, &info, sizeof(info)), 0) << path;
    EXPECT_LOGGED("warn", format("load plugin config: %s failed\n", path.c_str()));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(ManifestTest, LoadRefusesAManifestWithoutAPackageOrVersionString) {
  const std::vector<std::string> texts = {
      R"({"version":"1.0.0","files":[{"name":"a","sha256":"d"}]})",
      R"({"package":5,"version":"1.0.0","files":[{"name":"a","sha256":"d"}]})",
      R"({"package":"p","files":[{"name":"a","sha256":"d"}]})",
      R"({"package":"p","version":3.2,"files":[{"name":"a","sha256":"d"}]})",
      R"([{"package":"p","version":"1.0.0"}])",
  };
  for (const std::string &text : texts) {
    tarn_test::clear_logs();
    Record record;
    const std::string path = manifest(text);
    EXPECT_EQ(load_com_info(path.c_str(), &record.info), 1u) << text;
    EXPECT_TRUE(holds_nothing(record.info)) << text;
    EXPECT_LOGGED("warn", format("get package name or version failed, in config: %s\n",
                                 path.c_str()));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(ManifestTest, LoadStoresScriptsSkippableBeforeCheckingNameAndVersion) {
  Record record;
  EXPECT_EQ(load(R"({"package":"p","scripts_skippable":true,"files":[{"name":"a","sha256":"d"}]})",
                 &record),
            1u);
  // Freeing the record clears what it owns, not its plain fields.
  EXPECT_TRUE(holds_nothing(record.info));
  EXPECT_EQ(record.info.scripts_skippable, 1u);
}

TEST_F(ManifestTest, LoadRefusesAnInvalidVersionAtInfo) {
  for (const char *version : {"1.2.x", "1.2", "", "v3"}) {
    tarn_test::clear_logs();
    Record record;
    const std::string json = format(
        R"({"package":"p","version":"%s","arch":["x64"],"files":[{"name":"a","sha256":"d"}]})",
        version);
    EXPECT_EQ(load(json, &record), 1u) << version;
    EXPECT_TRUE(holds_nothing(record.info)) << version;
    EXPECT_LOGGED("info", format("version string is invalid, %s\n", version));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(ManifestTest, LoadFailsWhenTheVersionOfADependencyDoesNotParse) {
  // The dependencies take the component's own version, which has already
  // parsed once: a second parse fails only when the string cannot be split.
  // The splits of this manifest: 0 the component's version, 1 and 2 one for
  // each dependency.
  const std::string path =
      manifest(R"({"package":"p","version":"1.2.3","arch":["x64"],"depends":["d","e"],)"
               R"("files":[{"name":"a","sha256":"x"}]})");
  for (unsigned split : {1u, 2u}) {
    tarn_test::clear_logs();
    Record record;
    tarn_test::fail_split_after(split);
    EXPECT_EQ(load_com_info(path.c_str(), &record.info), 1u) << split;
    // The names copied so far are freed with the record.
    EXPECT_TRUE(holds_nothing(record.info)) << split;
    // The same text as for the component's version, without the line end.
    EXPECT_LOGGED("info", "version string is invalid, 1.2.3");
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
  tarn_test::clear_logs();
  Record record;
  tarn_test::fail_split_after(0);
  EXPECT_EQ(load_com_info(path.c_str(), &record.info), 1u);
  EXPECT_LOGGED("info", "version string is invalid, 1.2.3\n");
  EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
}

TEST_F(ManifestTest, LoadEndsTheProcessWhenACopyOrAnArrayRunsOutOfMemory) {
  // The allocations of a load of the full manifest: "package"; the arch
  // array and its two strings; the same for "platform"; the depends array;
  // the two dependency names; the files array, and each file's name and
  // digest.
  const unsigned sites = 1 + 3 + 3 + 1 + 2 + 1 + 2 * 2;
  const std::string path = manifest(full_manifest());
  {
    Record counted;
    const unsigned before = tarn_test::allocation_calls();
    ASSERT_EQ(load_com_info(path.c_str(), &counted.info), 0u);
    ASSERT_EQ(tarn_test::allocation_calls() - before, sites);
  }
  for (unsigned i = 0; i < sites; ++i) {
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&path, i] {
      com_info_var info;
      tarn_test::fail_allocation_after(i);
      load_com_info(path.c_str(), &info);
      free_com_info_var(&info);
    });
    ASSERT_TRUE(outcome.exited) << "allocation " << i << " signal " << outcome.signal;
    EXPECT_EQ(outcome.exit_status, 0) << "allocation " << i;
    ASSERT_EQ(outcome.lines.size(), 1u) << "allocation " << i;
    EXPECT_EQ(outcome.lines.back().word, "fatal") << "allocation " << i;
    EXPECT_EQ(outcome.lines.back().number, 0u) << "allocation " << i;
    EXPECT_EQ(outcome.lines.back().message, "Out of memory\n") << "allocation " << i;
  }
}

TEST_F(ManifestTest, FreeIgnoresNullAndZeroesPointersAndCountsButNotThePlainFields) {
  free_com_info_var(nullptr);
  Record record;
  ASSERT_EQ(load(full_manifest(), &record), 0u);
  free_com_info_var(&record.info);
  const com_info_var &info = record.info;
  EXPECT_TRUE(holds_nothing(info));
  EXPECT_EQ(info.version.major, 3u);
  EXPECT_EQ(info.version.patch, 17u);
  EXPECT_EQ(info.requirement, 1u);
  EXPECT_EQ(info.arch_bind, 2);
  EXPECT_EQ(info.retry, 1u);
  EXPECT_EQ(info.scripts_skippable, 1u);
  // A freed record may be freed again.
  free_com_info_var(&record.info);
  EXPECT_TRUE(holds_nothing(info));
  EXPECT_NO_LINES();
}

// A manifest whose every array has an empty slot before a stored entry,
// which stands past the count: slot 1 of each array.
constexpr char kPastTheCount[] =
    R"({"package":"p","version":"1.0.0","arch":[1,"x64"],"platform":[null,"uos"],)"
    R"("depends":[0,"d"],"files":[{"name":"a"},{"name":"b","sha256":"x"}]})";

// The blocks that stand past the counts of a record loaded from
// kPastTheCount.
std::set<const void *> past_the_count(const com_info_var &info) {
  return {info.archs[1], info.platforms[1], info.depends[1].name, info.files[1].name,
          info.files[1].sha256};
}

// Whether every block of `blocks` was freed while watched.
::testing::AssertionResult all_freed(const std::set<const void *> &blocks) {
  for (const void *block : blocks) {
    if (g_freed.count(block) == 0) return ::testing::AssertionFailure() << block << " was not freed";
  }
  return ::testing::AssertionSuccess();
}

TEST_F(ManifestTest, FreeReleasesEntriesThatStandPastTheCount) {
  // What the load allocated is all freed, the entries past the counts too
  // (the sanitizer build's leak checker agrees).
  Record record;
  const unsigned before = tarn_test::allocation_calls();
  ASSERT_EQ(load(kPastTheCount, &record), 0u);
  const unsigned allocated = tarn_test::allocation_calls() - before;
  const com_info_var &info = record.info;
  ASSERT_EQ(info.arch_count, 1u);
  ASSERT_STREQ(info.archs[1], "x64");
  ASSERT_STREQ(info.platforms[1], "uos");
  ASSERT_STREQ(info.depends[1].name, "d");
  ASSERT_STREQ(info.files[1].name, "b");
  const std::set<const void *> past = past_the_count(info);
  g_watch_frees = true;
  free_com_info_var(&record.info);
  g_watch_frees = false;
  EXPECT_TRUE(holds_nothing(record.info));
  EXPECT_TRUE(all_freed(past));
  EXPECT_EQ(g_freed.size(), allocated);
  // Freed again: nothing is left to free.
  g_freed.clear();
  g_watch_frees = true;
  free_com_info_var(&record.info);
  g_watch_frees = false;
  EXPECT_TRUE(g_freed.empty());
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, FreeOfARecordBuiltByHandVisitsOnlyTheSlotsBelowTheCounts) {
  // Each array has an empty slot below its count of 1 and, past the count,
  // a pointer that the record does not own: a buffer on the stack, which
  // free() refuses by aborting, or a string the caller keeps.
  enum Outcome { kReturned = 3, kFreedPastTheCount = 4, kChanged = 5, kNotZeroed = 6 };
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([] {
    char on_stack[] = "the caller's buffer";
    char *kept = tarn_strdup("the caller's string");
    com_info_var info;
    memset(&info, 0, sizeof(info));
    info.archs = static_cast<char **>(tarn_zero_malloc_(4 * sizeof(char *)));
    info.archs[3] = on_stack;
    info.arch_count = 1;
    info.platforms = static_cast<char **>(tarn_zero_malloc_(3 * sizeof(char *)));
    info.platforms[2] = kept;
    info.platform_count = 1;
    info.depends = static_cast<com_depend *>(tarn_zero_malloc_(2 * sizeof(com_depend)));
    info.depends[1].name = kept;
    info.depend_count = 1;
    info.files = static_cast<com_file *>(tarn_zero_malloc_(2 * sizeof(com_file)));
    info.files[1].name = on_stack;
    info.files[1].sha256 = kept;
    info.file_count = 1;
    g_watch_frees = true;
    free_com_info_var(&info);
    g_watch_frees = false;
    if (g_freed.count(on_stack) != 0 || g_freed.count(kept) != 0) tarn_test::end_child(kFreedPastTheCount);
    if (strcmp(on_stack, "the caller's buffer") != 0 || strcmp(kept, "the caller's string") != 0) {
      tarn_test::end_child(kChanged);
    }
    if (!holds_nothing(info)) tarn_test::end_child(kNotZeroed);
    tarn_free_(kept);
  });
  ASSERT_TRUE(outcome.exited) << "signal " << outcome.signal;
  EXPECT_EQ(outcome.exit_status, kReturned)
      << "4: a pointer past a count was freed, 5: what it points to changed, 6: not zeroed";
  EXPECT_TRUE(outcome.lines.empty());
}

TEST_F(ManifestTest, FreeOfALoadedRecordForgetsItsArrays) {
  // Once freed, a loaded array's address means nothing more: an array built
  // by hand at the same address is walked below its count only. (Where the
  // allocator hands the block out again at once, as glibc's does, this
  // checks it; otherwise the hand-built array merely lies elsewhere.)
  Record record;
  ASSERT_EQ(load(manifest_with(R"(,"arch":[1,"x64"])"), &record), 0u);
  const void *loaded_archs = record.info.archs;
  free_com_info_var(&record.info);

  std::vector<char **> blocks;  // arrays of two slots, until one reuses the address
  for (int i = 0; i < 8 && (blocks.empty() || blocks.back() != loaded_archs); ++i) {
    blocks.push_back(static_cast<char **>(tarn_zero_malloc_(2 * sizeof(char *))));
  }
  char *kept = tarn_strdup("the caller's string");
  com_info_var info;
  memset(&info, 0, sizeof(info));
  info.archs = blocks.back();
  blocks.pop_back();
  info.archs[1] = kept;
  info.arch_count = 1;
  const bool reused = info.archs == loaded_archs;
  g_watch_frees = true;
  free_com_info_var(&info);
  g_watch_frees = false;
  EXPECT_EQ(g_freed.count(kept), 0u) << (reused ? "at the loaded array's address" : "elsewhere");
  EXPECT_STREQ(kept, "the caller's string");
  tarn_free_(kept);
  for (char **block : blocks) tarn_free_(block);
}

// A record built by hand, as callers that assemble lists do: one stored
// string in each array and one file.
void fill_by_hand(com_info_var *info, const char *package) {
  memset(info, 0, sizeof(*info));
  info->package = tarn_strdup(package);
  info->archs = static_cast<char **>(tarn_zero_malloc_(sizeof(char *)));
  info->archs[0] = tarn_strdup("x64");
  info->arch_count = 1;
  info->platforms = static_cast<char **>(tarn_zero_malloc_(sizeof(char *)));
  info->platforms[0] = tarn_strdup("linux");
  info->platform_count = 1;
  info->depends = static_cast<com_depend *>(tarn_zero_malloc_(sizeof(com_depend)));
  info->depends[0].name = tarn_strdup("base");
  info->depend_count = 1;
  info->files = static_cast<com_file *>(tarn_zero_malloc_(sizeof(com_file)));
  info->files[0].name = tarn_strdup("bin/a");
  info->files[0].sha256 = tarn_strdup(kDigestCore);
  info->file_count = 1;
}

TEST_F(ManifestTest, FreeListOfDependencyEntriesFreesTheNamesAndTheArray) {
  com_list_var list;
  list.kind = 0;
  list.count = 3;
  com_depend *entries = static_cast<com_depend *>(tarn_zero_malloc_(3 * sizeof(com_depend)));
  ASSERT_NE(entries, nullptr);
  entries[0].name = tarn_strdup("kav_base");
  entries[1].name = tarn_strdup("kav_net");
  entries[2].name = tarn_strdup("kav_ui");
  list.items = entries;
  free_com_list_var(&list);
  EXPECT_EQ(list.items, nullptr);
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(list.kind, 0u);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, FreeListOfComponentRecordsFreesEachRecordAndTheArray) {
  for (uint32_t kind : {1u, 7u}) {
    com_list_var list;
    list.kind = kind;
    list.count = 2;
    com_info_var *records = static_cast<com_info_var *>(tarn_zero_malloc_(2 * sizeof(com_info_var)));
    ASSERT_NE(records, nullptr);
    fill_by_hand(&records[0], "kav_core");
    // The second comes from a manifest with empty slots.
    ASSERT_EQ(load_com_info(manifest(R"({"package":"p","version":"1.0.0","arch":[1,"x64"],)"
                                     R"("files":[{"name":"a"},{"name":"b","sha256":"x"}]})")
                                .c_str(),
                            &records[1]),
              0u);
    list.items = records;
    free_com_list_var(&list);
    EXPECT_EQ(list.items, nullptr) << kind;
    EXPECT_EQ(list.count, 0u) << kind;
    EXPECT_EQ(list.kind, kind);
  }
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, FreeListFreesEntriesPastTheCountOfLoadedRecordsCopiedIntoIt) {
  // Records loaded on their own and copied into the list by value: the
  // copies own the arrays now, and only the list is freed.
  const std::string path = manifest(kPastTheCount);
  const unsigned before = tarn_test::allocation_calls();
  com_list_var list;
  list.kind = 1;
  list.count = 2;
  auto *records = static_cast<com_info_var *>(tarn_zero_malloc_(2 * sizeof(com_info_var)));
  ASSERT_NE(records, nullptr);
  list.items = records;
  std::set<const void *> past;
  for (uint32_t i = 0; i < list.count; ++i) {
    com_info_var loaded;
    ASSERT_EQ(load_com_info(path.c_str(), &loaded), 0u);
    records[i] = loaded;
    past.merge(past_the_count(loaded));
  }
  const unsigned allocated = tarn_test::allocation_calls() - before;
  ASSERT_EQ(past.size(), 10u);
  g_watch_frees = true;
  free_com_list_var(&list);
  g_watch_frees = false;
  EXPECT_EQ(list.items, nullptr);
  EXPECT_EQ(list.count, 0u);
  EXPECT_TRUE(all_freed(past));
  EXPECT_EQ(g_freed.size(), allocated);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, FreeListIgnoresNullAndFreesAnEmptyArray) {
  free_com_list_var(nullptr);
  com_list_var without_items;
  without_items.kind = 1;
  without_items.items = nullptr;
  without_items.count = 4;
  free_com_list_var(&without_items);
  EXPECT_EQ(without_items.count, 4u);

  com_list_var empty;
  empty.kind = 0;
  empty.items = tarn_zero_malloc_(2 * sizeof(com_depend));
  empty.count = 0;
  free_com_list_var(&empty);
  EXPECT_EQ(empty.items, nullptr);
  EXPECT_EQ(empty.count, 0u);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, PrintArchLogsEachArchitectureAtInfo) {
  Record record;
  ASSERT_EQ(load(full_manifest(), &record), 0u);
  tarn_test::clear_logs();
  print_arch_failed_info(&record.info);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 2u) << tarn_test::dump_logs();
  EXPECT_EQ(lines[0].word, "info");
  EXPECT_EQ(lines[0].message, "kav_core arch: x64\n");
  EXPECT_EQ(lines[1].word, "info");
  EXPECT_EQ(lines[1].message, "kav_core arch: arm64\n");
  EXPECT_NE(lines[0].line.find(" [kep] [com_info.cpp:"), std::string::npos) << lines[0].line;
}

TEST_F(ManifestTest, PrintArchLogsNothingForNullOrNoArchitectures) {
  print_arch_failed_info(nullptr);
  Record record;
  ASSERT_EQ(load(manifest_with(""), &record), 0u);
  print_arch_failed_info(&record.info);
  EXPECT_NO_LINES();
}

TEST_F(ManifestTest, PrintArchWalksSlotsBelowTheCountAndSkipsEmptyOnes) {
  Record record;
  // Count 2: slot 0 "x64", slot 1 empty, slot 2 "arm64" past the count.
  ASSERT_EQ(load(manifest_with(R"(,"arch":["x64",1,"arm64"])"), &record), 0u);
  ASSERT_EQ(record.info.arch_count, 2u);
  print_arch_failed_info(&record.info);
  EXPECT_EQ(tarn_test::messages("info"), std::vector<std::string>{"p arch: x64\n"})
      << tarn_test::dump_logs();
  EXPECT_EQ(tarn_test::logs().size(), 1u);
}

TEST_F(ManifestTest, LoadLogsUnderItsOwnSourceFile) {
  Record record;
  EXPECT_EQ(load_com_info((dir_ / "absent.ejs").c_str(), &record.info), 1u);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << tarn_test::dump_logs();
  EXPECT_NE(lines[0].line.find(" [kep] [com_info.cpp:"), std::string::npos) << lines[0].line;
  EXPECT_EQ(lines[0].number, 1u);
}

// ---- Digest lookup ---------------------------------------------------------

class DigestLookupTest : public ManifestTest {
 protected:
  // Runs the lookup into buf_ (filled with 'Z' first) of len bytes.
  kep_result_t lookup(const std::string &path, const char *file_name, uint32_t len = 65) {
    memset(buf_, 'Z', sizeof(buf_));
    return tarn_get_component_file_sha256(path.c_str(), file_name, buf_, len);
  }
  bool buffer_untouched() const {
    for (char c : buf_) {
      if (c != 'Z') return false;
    }
    return true;
  }
  // The error text that the loader gives for path, as the lookup loads it.
  static std::string load_error(const std::string &path) {
    json_error_t error;
    memset(&error, 0, sizeof(error));
    json_t *tree = qiv_json_load_file_ejs_ex(path.c_str(), JSON_DECODE_ANY, &error);
    qiv_json_delete_ejs(tree);
    return tree == nullptr ? std::string(error.text) : "<loaded>";
  }

  char buf_[80];
};

TEST_F(DigestLookupTest, CopiesTheDigestOfTheNamedFile) {
  const std::string path = manifest(full_manifest());
  EXPECT_EQ(lookup(path, "__ROOT/bin/kav_core"), KEP_E_SUCCESS);
  EXPECT_STREQ(buf_, kDigestCore);
  EXPECT_EQ(lookup(path, "lib/libkav_core.so", sizeof(buf_)), KEP_E_SUCCESS);
  EXPECT_STREQ(buf_, kDigestLib);
  EXPECT_EQ(buf_[65], 'Z');
  EXPECT_NO_LINES();
}

TEST_F(DigestLookupTest, ResultCodesHaveTheirValues) {
  EXPECT_EQ(KEP_E_LOAD_FAILED, 0x84CE0001u);
  EXPECT_EQ(KEP_E_NULL_BUFFER, 0x84CE0004u);
  EXPECT_EQ(KEP_E_NULL_NAME, 0x84CE0005u);
  EXPECT_EQ(KEP_E_FILE_NOT_EXIST, 0x84CE0015u);
  EXPECT_EQ(KEP_E_NOT_FOUND, 0x84CE0018u);
}

TEST_F(DigestLookupTest, ChecksPathThenBufferThenNameWithoutLogging) {
  const std::string path = manifest(full_manifest());
  char buf[65];
  EXPECT_EQ(tarn_get_component_file_sha256(nullptr, nullptr, nullptr, 65), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_get_component_file_sha256(nullptr, "a", buf, 65), KEP_E_INVALID_PARAM);
  EXPECT_EQ(tarn_get_component_file_sha256(path.c_str(), nullptr, nullptr, 65), KEP_E_NULL_BUFFER);
  EXPECT_EQ(tarn_get_component_file_sha256(path.c_str(), nullptr, buf, 65), KEP_E_NULL_NAME);
  // The arguments come before the file.
  const std::string absent = dir_ / "absent.ejs";
  EXPECT_EQ(tarn_get_component_file_sha256(absent.c_str(), "a", nullptr, 65), KEP_E_NULL_BUFFER);
  EXPECT_EQ(tarn_get_component_file_sha256(absent.c_str(), nullptr, buf, 65), KEP_E_NULL_NAME);
  EXPECT_NO_LINES();
}

TEST_F(DigestLookupTest, AManifestThatIsNotThereIsReportedWithoutLogging) {
  EXPECT_EQ(lookup(dir_ / "absent.ejs", "a"), KEP_E_FILE_NOT_EXIST);
  EXPECT_EQ(lookup(dir_ / "no_dir/absent.ejs", "a"), KEP_E_FILE_NOT_EXIST);
  EXPECT_EQ(lookup("", "a"), KEP_E_FILE_NOT_EXIST);
  EXPECT_TRUE(buffer_untouched());
  EXPECT_NO_LINES();
}

TEST_F(DigestLookupTest, AManifestThatDoesNotLoadLogsTheLoadersError) {
  const std::string tampered = manifest(full_manifest(), "tampered");
  ASSERT_TRUE(tarn_test::tamper_file(tampered));
  const std::string not_json = manifest("files = a", "not_json");
  for (const std::string &path : {tampered, not_json, dir_.path()}) {
    tarn_test::clear_logs();
    const std::string error = load_error(path);
    ASSERT_NE(error, "<loaded>");
    ASSERT_FALSE(error.empty());
    EXPECT_EQ(lookup(path, "a"), KEP_E_LOAD_FAILED) << path;
    EXPECT_TRUE(buffer_untouched());
    EXPECT_LOGGED("warn", format("expr[jroot] false! load driver config file[%s] fail!\n, err[%s]",
                                 path.c_str(), error.c_str()));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
  EXPECT_NE(load_error(tampered).find("bad signature"), std::string::npos) << load_error(tampered);
}

TEST_F(DigestLookupTest, AManifestWithoutFilesIsNotFound) {
  // Any JSON value loads at top level; only an object can hold "files".
  for (const std::string &json : {std::string(R"({"package":"p"})"), std::string(R"(["files"])"),
                                  std::string(R"("files")"), std::string("17")}) {
    tarn_test::clear_logs();
    EXPECT_EQ(lookup(manifest(json), "a"), KEP_E_NOT_FOUND) << json;
    EXPECT_TRUE(buffer_untouched());
    EXPECT_LOGGED("warn", "expr[jarr] false! find json object[files] fail!\n");
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(DigestLookupTest, EmptyFilesIsNotFound) {
  for (const std::string files : {"[]", "{}", R"("a")", "null"}) {
    tarn_test::clear_logs();
    EXPECT_EQ(lookup(manifest(R"({"files":)" + files + "}"), "a"), KEP_E_NOT_FOUND) << files;
    EXPECT_TRUE(buffer_untouched());
    EXPECT_LOGGED("warn", "expr[size_val > 0] false! [files] array size = 0!\n");
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(DigestLookupTest, AFileThatIsNotListedIsNotFound) {
  const std::string path =
      manifest(R"({"files":[{"name":"bin/a"},{"name":"Bin/B","sha256":"d"},5,)"
               R"({"name":"bin/c","sha256":7},{"sha256":"d"}]})");
  // Names compare byte for byte; entries without both strings never match.
  for (const char *name : {"bin/a", "bin/b", "bin/c", "bin", ""}) {
    tarn_test::clear_logs();
    EXPECT_EQ(lookup(path, name), KEP_E_NOT_FOUND) << name;
    EXPECT_TRUE(buffer_untouched());
    EXPECT_LOGGED("warn", format("expr[KEP_E_SUCCESS == uRet] false! find [%s] in file[%s] fail!\n",
                                 name, path.c_str()));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
}

TEST_F(DigestLookupTest, TheFirstEntryWithTheNameAndADigestWins) {
  const std::string path = manifest(
      R"({"files":[{"name":"a"},{"name":"a","sha256":"first"},{"name":"a","sha256":"second"}]})");
  EXPECT_EQ(lookup(path, "a"), KEP_E_SUCCESS);
  EXPECT_STREQ(buf_, "first");
  EXPECT_NO_LINES();
}

TEST_F(DigestLookupTest, TheBufferMustHoldTheDigestAndItsTerminator) {
  const std::string path = manifest(full_manifest());
  for (uint32_t len : {64u, 10u, 0u}) {
    tarn_test::clear_logs();
    EXPECT_EQ(lookup(path, "__ROOT/bin/kav_core", len), KEP_E_NOT_FOUND) << len;
    EXPECT_TRUE(buffer_untouched());
    EXPECT_LOGGED("warn", format("expr[buflen > tarn_strlen(sha256)] false! sha256 strlen[64], "
                                 "buffer len[%u], too short!\n",
                                 len));
    EXPECT_EQ(tarn_test::logs().size(), 1u) << tarn_test::dump_logs();
  }
  tarn_test::clear_logs();
  EXPECT_EQ(lookup(path, "__ROOT/bin/kav_core", 65), KEP_E_SUCCESS);
  EXPECT_STREQ(buf_, kDigestCore);
  EXPECT_NO_LINES();
}

}  // namespace

// ---- Packages ----------------------------------------------------------------

// Interposed identifier creation and shell commands: the library's objects
// linked into this program call these definitions.
namespace {

// One scripted answer of tarn_uuid_create: an error, or these bytes.
struct UuidAnswer {
  int error;
  tarn_uuid_t uuid;
};
std::deque<UuidAnswer> g_uuid_answers;  // consumed in order; then the real call
std::deque<int> g_uuid_text_errors;     // the same for tarn_uuid_make_cstr
unsigned g_uuid_create_calls = 0;

unsigned g_shell_calls = 0;  // commands run, by the shell or as a program
std::function<void()> g_before_shell;  // run before the real command starts
std::function<void()> g_after_shell;   // run once the real command has ended

using tarn_test::next_definition;

}  // namespace

extern "C" {

int tarn_uuid_create(tarn_uuid_t *uuid) {
  ++g_uuid_create_calls;
  if (g_uuid_answers.empty()) return next_definition<int (*)(tarn_uuid_t *)>("tarn_uuid_create")(uuid);
  const UuidAnswer answer = g_uuid_answers.front();
  g_uuid_answers.pop_front();
  if (answer.error != 0) return answer.error;
  *uuid = answer.uuid;
  return 0;
}

int tarn_uuid_make_cstr(const tarn_uuid_t *uuid, char *buf, size_t len) {
  if (!g_uuid_text_errors.empty()) {
    const int error = g_uuid_text_errors.front();
    g_uuid_text_errors.pop_front();
    if (error != 0) return error;
  }
  return next_definition<int (*)(const tarn_uuid_t *, char *, size_t)>("tarn_uuid_make_cstr")(uuid, buf,
                                                                                              len);
}

int tarn_shell_execute(const char *command, char *out, size_t out_len) {
  ++g_shell_calls;
  if (g_before_shell) g_before_shell();
  const int code =
      next_definition<int (*)(const char *, char *, size_t)>("tarn_shell_execute")(command, out, out_len);
  if (g_after_shell) g_after_shell();
  return code;
}

int tarn_process_run(const char *path, char *const argv[], char *const envp[], int input_fd, unsigned flags,
                     char *out, size_t out_len) {
  ++g_shell_calls;
  if (g_before_shell) g_before_shell();
  const int code =
      next_definition<int (*)(const char *, char *const *, char *const *, int, unsigned, char *, size_t)>(
          "tarn_process_run")(path, argv, envp, input_fd, flags, out, out_len);
  if (g_after_shell) g_after_shell();
  return code;
}

}  // extern "C"

namespace {

using tarn_test::exists;
using tarn_test::format;
using tarn_test::make_dirs;
using tarn_test::ScratchDirectory;

constexpr char kDigest[] = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";

// An identifier whose 16 bytes are all `fill`.
tarn_uuid_t uuid_of(unsigned char fill) {
  tarn_uuid_t uuid;
  memset(uuid.bytes, fill, sizeof(uuid.bytes));
  return uuid;
}

// The text form of uuid_of(fill).
std::string uuid_text(unsigned char fill) {
  const tarn_uuid_t uuid = uuid_of(fill);
  char text[TARN_UUID_CSTR_SIZE];
  EXPECT_EQ(tarn_uuid_make_cstr(&uuid, text, sizeof(text)), 0);
  return text;
}

using NamePtr = std::unique_ptr<char, decltype(&tarn_free_)>;

NamePtr new_name(const char *previous) { return NamePtr(generate_new_name(previous), tarn_free_); }

// 36 characters: lower-case hexadecimal digits with '-' at 8, 13, 18, 23.
::testing::AssertionResult is_identifier_text(const char *text) {
  if (text == nullptr) return ::testing::AssertionFailure() << "null";
  if (strlen(text) != 36) return ::testing::AssertionFailure() << text << " is not 36 characters";
  for (size_t i = 0; i < 36; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool ok = dash ? text[i] == '-' : strchr("0123456789abcdef", text[i]) != nullptr;
    if (!ok) return ::testing::AssertionFailure() << text << " at " << i;
  }
  return ::testing::AssertionSuccess();
}

// The manifest of package `name`, version 2.1.0, listing its two files.
std::string package_manifest(const std::string &name) {
  return format(R"({"package":"%s","version":"2.1.0","files":[)"
                R"({"name":"__ROOT/bin/%s","sha256":"%s"},{"name":"lib/lib%s.so","sha256":"%s"}]})",
                name.c_str(), name.c_str(), kDigest, name.c_str(), kDigest);
}

// Asserts that running child ended with status 0 after logging fatal
// "Out of memory" last.
void expect_out_of_memory_exit(const tarn_test::ChildOutcome &outcome, const std::string &what) {
  ASSERT_TRUE(outcome.exited) << what << " signal " << outcome.signal;
  EXPECT_EQ(outcome.exit_status, 0) << what;
  ASSERT_FALSE(outcome.lines.empty()) << what;
  EXPECT_EQ(outcome.lines.back().word, "fatal") << what;
  EXPECT_EQ(outcome.lines.back().message, "Out of memory\n") << what;
}

class PackageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    ASSERT_FALSE(src_.path().empty());
    ASSERT_FALSE(work_.path().empty());
    ASSERT_FALSE(dest_.path().empty());
    // Things beside the unpacked packages that no failure may remove.
    ASSERT_TRUE(make_dirs(dest_ / "other/sub"));
    ASSERT_TRUE(tarn_test::write_file(dest_ / "other/sub/keep", "keep"));
    ASSERT_TRUE(tarn_test::write_file(dest_ / "keep.txt", "keep"));
  }
  void TearDown() override { reset(); }
  static void reset() {
    tarn_test::reset_fakes();
    g_uuid_answers.clear();
    g_uuid_text_errors.clear();
    g_uuid_create_calls = 0;
    g_shell_calls = 0;
    g_before_shell = nullptr;
    g_after_shell = nullptr;
  }

  // Lays out package `name` in the source directory: its two files and,
  // unless manifest_json is empty, its sealed manifest.
  void lay_out_package(const std::string &name, const std::string &manifest_json) {
    const std::string root = src_ / name;
    ASSERT_TRUE(make_dirs(root + "/bin"));
    ASSERT_TRUE(make_dirs(root + "/lib"));
    ASSERT_TRUE(tarn_test::write_file(root + "/bin/" + name, "program"));
    ASSERT_TRUE(tarn_test::write_file(root + "/lib/lib" + name + ".so", "library"));
    if (manifest_json.empty()) return;
    ASSERT_TRUE(make_dirs(root + "/config/component_info"));
    ASSERT_TRUE(tarn_test::seal_manifest(root + "/config/component_info/" + name + ".ejs", manifest_json));
  }
  // Archives the source directory's folder `top` with the system's tar as
  // archive_name in the work directory; returns the archive's path.
  std::string archive(const std::string &top, const std::string &archive_name) {
    const std::string path = work_ / archive_name;
    const std::string command = "tar -czf '" + path + "' -C '" + src_.path() + "' '" + top + "'";
    EXPECT_EQ(system(command.c_str()), 0) << command;
    return path;
  }
  // A package laid out and archived as <name>.tgz.
  std::string package(const std::string &name, const std::string &manifest_json) {
    lay_out_package(name, manifest_json);
    return archive(name, name + ".tgz");
  }
  // The tar command that unpack_tgz runs.
  std::string tar_command(const std::string &archive_path) const {
    return format("tar -zxf \"%s\" -C \"%s\"", archive_path.c_str(), dest_.path().c_str());
  }
  // execute_cmd's line for the tar command that exited with code.
  std::string tar_line(const std::string &archive_path, int code) const {
    return format("exitcode:[%d] cmd:[%s] cmd_result:[]\n", code, tar_command(archive_path).c_str());
  }
  // Whether the things beside the unpacked packages are all still there.
  ::testing::AssertionResult others_kept() const {
    if (tarn_test::read_file(dest_ / "other/sub/keep") != "keep" ||
        tarn_test::read_file(dest_ / "keep.txt") != "keep") {
      return ::testing::AssertionFailure() << "something beside the package was removed";
    }
    return ::testing::AssertionSuccess();
  }

  ScratchDirectory src_{"tarn_pkg_src"};
  ScratchDirectory work_{"tarn_pkg_work"};
  ScratchDirectory dest_{"tarn_pkg_dest"};
};

// ---- unpack_tgz ----

TEST_F(PackageTest, UnpackTgzRefusesBadArgumentsWithoutRunningAnything) {
  const std::string good = package("pkg", package_manifest("pkg"));
  const std::string upper = archive("pkg", "pkg.TGZ");
  const std::string tar_gz = archive("pkg", "pkg.tar.gz");
  const std::string bare = archive("pkg", "pkg");
  const std::string not_dir = dest_ / "keep.txt";
  const std::string missing_dir = dest_ / "missing";
  const std::string missing_archive = work_ / "missing.tgz";
  const struct {
    const char *archive;
    const char *dest;
  } cases[] = {
      {nullptr, dest_.path().c_str()},
      {good.c_str(), nullptr},
      {good.c_str(), missing_dir.c_str()},
      {good.c_str(), not_dir.c_str()},
      {missing_archive.c_str(), dest_.path().c_str()},
      {upper.c_str(), dest_.path().c_str()},
      {tar_gz.c_str(), dest_.path().c_str()},
      {bare.c_str(), dest_.path().c_str()},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(unpack_tgz(c.archive, c.dest), 1)
        << (c.archive ? c.archive : "<null>") << " " << (c.dest ? c.dest : "<null>");
  }
  EXPECT_EQ(g_shell_calls, 0u);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(dest_ / "pkg"));
}

// Characters that could end the quotes of tar's command line, each with
// the way the refusal shows it.
const std::pair<std::string, std::string> kQuoteBreakers[] = {
    {"\"", "\""}, {"$", "$"}, {"`", "`"}, {"\\", "\\"}, {"'", "'"}, {"\n", "\\x0a"}, {"\t", "\\x09"},
    {"\x01", "\\x01"}, {"\x7f", "\\x7f"}};

TEST_F(PackageTest, UnpackTgzRefusesAnArchiveOrDestinationThatCouldEndTheCommandsQuotes) {
  const std::string good = package("pkg", package_manifest("pkg"));
  for (const auto &breaker : kQuoteBreakers) {
    const std::string archive_path = work_ / ("pkg" + breaker.first + ".tgz");
    const std::string dest = dest_ / ("d" + breaker.first);
    ASSERT_TRUE(tarn_test::write_file(archive_path, tarn_test::read_file(good)));
    ASSERT_TRUE(make_dirs(dest));
    tarn_test::clear_logs();
    EXPECT_EQ(unpack_tgz(archive_path.c_str(), dest_.path().c_str()), 1);
    EXPECT_EQ(unpack_tgz(good.c_str(), dest.c_str()), 1);
    EXPECT_EQ(tarn_test::messages("warn"),
              (std::vector<std::string>{
                  format("refused text for a shell command: [%s]\n", (work_ / ("pkg" + breaker.second + ".tgz")).c_str()),
                  format("refused text for a shell command: [%s]\n", (dest_ / ("d" + breaker.second)).c_str())}));
    EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
    EXPECT_TRUE(tarn_test::list_directory(dest).empty());
  }
  EXPECT_EQ(g_shell_calls, 0u);
  EXPECT_FALSE(exists(dest_ / "pkg"));
}

TEST_F(PackageTest, UnpackTgzTakesBlanksAndOtherCharactersInsideTheQuotes) {
  lay_out_package("pkg", package_manifest("pkg"));
  const std::string path = archive("pkg", "pkg ;|&<>*?~#é.tgz");
  ASSERT_TRUE(make_dirs(dest_ / "with blank"));
  const std::string dest = dest_ / "with blank";
  EXPECT_EQ(unpack_tgz(path.c_str(), dest.c_str()), 0) << dump_logs();
  EXPECT_EQ(tarn_test::read_file(dest + "/pkg/bin/pkg"), "program");
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("exitcode:[0] cmd:[tar -zxf \"%s\" -C \"%s\"] cmd_result:[]\n",
                                             path.c_str(), dest.c_str())}));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
}

TEST_F(PackageTest, UnpackTgzUnpacksWithTheSystemsTar) {
  const std::string path = package("pkg", package_manifest("pkg"));
  EXPECT_EQ(unpack_tgz(path.c_str(), dest_.path().c_str()), 0);
  EXPECT_EQ(tarn_test::read_file(dest_ / "pkg/bin/pkg"), "program");
  EXPECT_EQ(tarn_test::read_file(dest_ / "pkg/lib/libpkg.so"), "library");
  EXPECT_TRUE(exists(dest_ / "pkg/config/component_info/pkg.ejs"));
  EXPECT_EQ(g_shell_calls, 1u);
  EXPECT_LOGGED("info", tar_line(path, 0));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
  EXPECT_TRUE(others_kept());
}

// Each is refused at once, as a missing archive is: result 1, nothing run
// or logged. A reader that blocks is ended at the time limit.
TEST_F(PackageTest, UnpackTgzRefusesAnArchiveThatIsNotARegularFileOrIsTooLargeAtOnce) {
  const std::string fifo = work_ / "fifo.tgz";
  const std::string zero = work_ / "zero.tgz";
  const std::string directory = work_ / "directory.tgz";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
  ASSERT_TRUE(make_dirs(directory));
  // A package, then a hole up to one byte past the bound.
  const std::string too_large = package("big", package_manifest("big"));
  ASSERT_EQ(truncate(too_large.c_str(), (off_t)(UNTGZ_ARCHIVE_MAX_BYTES + 1)), 0) << strerror(errno);
  for (const std::string &archive : {fifo, zero, directory, too_large}) {
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(10, [&] {
      const int32_t result = unpack_tgz(archive.c_str(), dest_.path().c_str());
      return g_shell_calls == 0 ? result : 100 + result;
    });
    EXPECT_TRUE(outcome.exited) << archive << " signal " << outcome.signal;
    EXPECT_EQ(outcome.exit_status, 1) << archive;
    EXPECT_TRUE(outcome.lines.empty()) << archive;
  }
  EXPECT_FALSE(exists(dest_ / "big"));
  EXPECT_TRUE(others_kept());
}

// tar is handed the archive that was checked: a FIFO put in its place
// after the check is never opened (a tar that opened it would block until
// the time limit), and the logged command still names the archive.
TEST_F(PackageTest, UnpackTgzHandsTarTheCheckedArchiveSoAFifoPutInItsPlaceIsNotOpened) {
  const std::string path = package("pkg", package_manifest("pkg"));
  g_before_shell = [&path] {
    if (unlink(path.c_str()) != 0 || mkfifo(path.c_str(), 0644) != 0) abort();
  };
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(
      10, [&] { return unpack_tgz(path.c_str(), dest_.path().c_str()); });
  // Frees a tar that did open the FIFO, so that it ends.
  const int writer = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (writer >= 0) close(writer);
  EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
  EXPECT_EQ(outcome.exit_status, 0);
  ASSERT_EQ(outcome.lines.size(), 1u);
  EXPECT_EQ(outcome.lines[0].word, "info");
  EXPECT_EQ(outcome.lines[0].message, tar_line(path, 0));
  EXPECT_EQ(tarn_test::read_file(dest_ / "pkg/bin/pkg"), "program");
  EXPECT_TRUE(others_kept());
}

TEST_F(PackageTest, UnpackTgzOfACutArchiveRemovesWhatTarUnpackedAndReturnsTarsCode) {
  // Data that does not compress, so that the cut lands inside the archive's
  // members, after tar has made the package's folder.
  lay_out_package("pkg", package_manifest("pkg"));
  std::mt19937 random(7);
  std::string blob(512 * 1024, '\0');
  for (char &c : blob) c = (char)(random() & 0xff);
  ASSERT_TRUE(tarn_test::write_file(src_ / "pkg/lib/blob", blob));
  const std::string path = archive("pkg", "pkg.tgz");
  const std::string whole = tarn_test::read_file(path);
  ASSERT_TRUE(tarn_test::write_file(path, whole.substr(0, whole.size() / 2)));

  bool unpacked_by_tar = false;
  g_after_shell = [this, &unpacked_by_tar] { unpacked_by_tar = tarn_test::exists(dest_ / "pkg"); };
  const int32_t code = unpack_tgz(path.c_str(), dest_.path().c_str());
  // GNU tar exits with 2 when the archive ends early.
  EXPECT_EQ(code, 2);
  EXPECT_TRUE(unpacked_by_tar);
  EXPECT_FALSE(exists(dest_ / "pkg"));
  EXPECT_TRUE(others_kept());
  EXPECT_TRUE(exists(path));
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 3u) << dump_logs();
  EXPECT_EQ(lines[0].word, "info");
  EXPECT_EQ(lines[0].message, tar_line(path, code));
  EXPECT_EQ(lines[1].word, "warn");
  EXPECT_EQ(lines[1].message,
            format("unzip tgz failed with %d, cmd:%s\n", code, tar_command(path).c_str()));
  EXPECT_EQ(lines[2].word, "info");
  EXPECT_EQ(lines[2].message, format("remove unpack cache dir [%s]\n", (dest_ / "pkg").c_str()));
}

// A directory of the archive's name that was there before the unpack is not
// the unpack's to remove: it may be a live one (the app home, say).
TEST_F(PackageTest, UnpackTgzFailureKeepsADirectoryOfItsNameThatWasThereBefore) {
  const std::string path = work_ / "pkg.tgz";
  ASSERT_TRUE(tarn_test::write_file(path, "this is not a gzip stream"));
  ASSERT_TRUE(make_dirs(dest_ / "pkg/bin"));
  ASSERT_TRUE(tarn_test::write_file(dest_ / "pkg/bin/old", "old"));
  const int32_t code = unpack_tgz(path.c_str(), dest_.path().c_str());
  EXPECT_EQ(code, 2);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 3u) << dump_logs();
  EXPECT_EQ(lines[1].word, "warn");
  EXPECT_EQ(lines[1].message, format("unzip tgz failed with %d, cmd:%s\n", code, tar_command(path).c_str()));
  EXPECT_EQ(lines[2].word, "info");
  EXPECT_EQ(lines[2].message,
            format("unpack cache dir [%s] was there before the unpack, kept\n", (dest_ / "pkg").c_str()));
  EXPECT_EQ(tarn_test::read_file(dest_ / "pkg/bin/old"), "old");
  EXPECT_TRUE(others_kept());
}

// Nor is a link of the archive's name, nor what it points to.
TEST_F(PackageTest, UnpackTgzFailureKeepsALinkOfItsNameAndItsTarget) {
  const std::string path = work_ / "other2.tgz";
  ASSERT_TRUE(tarn_test::write_file(path, "this is not a gzip stream"));
  ASSERT_EQ(symlink((dest_ / "other").c_str(), (dest_ / "other2").c_str()), 0);
  const int32_t code = unpack_tgz(path.c_str(), dest_.path().c_str());
  EXPECT_EQ(code, 2);
  EXPECT_LOGGED("info", format("unpack cache dir [%s] was there before the unpack, kept\n",
                               (dest_ / "other2").c_str()));
  EXPECT_NOT_LOGGED("info", format("remove unpack cache dir [%s]\n", (dest_ / "other2").c_str()));
  struct stat st;
  ASSERT_EQ(lstat((dest_ / "other2").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_TRUE(others_kept());
}

TEST_F(PackageTest, UnpackTgzFailureWithoutACacheDirectoryRemovesNothing) {
  // No folder of the archive's name; and an archive named ".tgz", whose base
  // name is empty and would name the destination itself.
  for (const std::string name : {"pkg.tgz", ".tgz"}) {
    tarn_test::clear_logs();
    const std::string path = work_ / name;
    ASSERT_TRUE(tarn_test::write_file(path, "junk"));
    const int32_t code = unpack_tgz(path.c_str(), dest_.path().c_str());
    EXPECT_EQ(code, 2) << name;
    EXPECT_LOGGED("warn", format("unzip tgz failed with %d, cmd:%s\n", code, tar_command(path).c_str()));
    EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
    EXPECT_TRUE(others_kept()) << name;
  }
  EXPECT_EQ(tarn_test::list_directory(dest_.path()), (std::set<std::string>{"keep.txt", "other"}));
}

// ---- unpack_com ----

TEST_F(PackageTest, UnpackComRefusesNullArgumentsWithoutTouchingTheRecord) {
  const std::string path = package("pkg", package_manifest("pkg"));
  com_info_var info;
  memset(&info, 0x5a, sizeof(info));
  const com_info_var before = info;
  EXPECT_EQ(unpack_com(nullptr, dest_.path().c_str(), &info), 1u);
  EXPECT_EQ(unpack_com(path.c_str(), nullptr, &info), 1u);
  EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), nullptr), 1u);
  EXPECT_EQ(memcmp(&info, &before, sizeof(info)), 0);
  EXPECT_EQ(g_shell_calls, 0u);
  EXPECT_NO_LINES();
  EXPECT_FALSE(exists(dest_ / "pkg"));
}

TEST_F(PackageTest, UnpackComUnpacksThePackageAndLoadsItsManifest) {
  const std::string path = package("kav_net", package_manifest("kav_net"));
  Record record;
  ASSERT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &record.info), 0u) << dump_logs();
  EXPECT_STREQ(record.info.package, "kav_net");
  EXPECT_EQ(record.info.version.major, 2u);
  EXPECT_EQ(record.info.version.minor, 1u);
  EXPECT_EQ(record.info.version.patch, 0u);
  ASSERT_EQ(record.info.file_count, 2u);
  EXPECT_STREQ(record.info.files[0].name, "__ROOT/bin/kav_net");
  EXPECT_EQ(tarn_test::read_file(dest_ / "kav_net/bin/kav_net"), "program");
  EXPECT_LOGGED("info", tar_line(path, 0));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();

  // The unpacked package holds every file its manifest lists.
  tarn_test::clear_logs();
  EXPECT_EQ(check_file((dest_ / "kav_net").c_str(), &record.info), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("file: %s hash: %s\n", (dest_ / "kav_net/bin/kav_net").c_str(), kDigest),
                format("file: %s hash: %s\n", (dest_ / "kav_net/lib/libkav_net.so").c_str(), kDigest)}));
}

TEST_F(PackageTest, UnpackComWhoseUnpackFailsLeavesTheRecord) {
  lay_out_package("pkg", package_manifest("pkg"));
  const std::string upper = archive("pkg", "pkg.TGZ");
  const std::string cut = work_ / "pkg.tgz";
  ASSERT_TRUE(tarn_test::write_file(cut, "junk"));
  for (const std::string &path : {upper, cut}) {
    tarn_test::clear_logs();
    com_info_var info;
    memset(&info, 0x5a, sizeof(info));
    const com_info_var before = info;
    EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &info), 1u) << path;
    EXPECT_EQ(memcmp(&info, &before, sizeof(info)), 0) << path;
    EXPECT_LOGGED("warn", format("unzip component failed, tgz: %s\n", path.c_str()));
    // The refused archive logs only that; the corrupt one also tar's lines.
    EXPECT_EQ(tarn_test::logs().size(), path == upper ? 1u : 3u) << dump_logs();
  }
  EXPECT_TRUE(others_kept());
}

TEST_F(PackageTest, UnpackComOfAnArchiveThatCouldEndTheCommandsQuotesRunsNothing) {
  const std::string good = package("pkg", package_manifest("pkg"));
  const std::string path = work_ / "pkg$(id).tgz";
  ASSERT_TRUE(tarn_test::write_file(path, tarn_test::read_file(good)));
  com_info_var info;
  memset(&info, 0x5a, sizeof(info));
  const com_info_var before = info;
  EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &info), 1u);
  EXPECT_EQ(memcmp(&info, &before, sizeof(info)), 0);
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{format("refused text for a shell command: [%s]\n", path.c_str()),
                                      format("unzip component failed, tgz: %s\n", path.c_str())}));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
  EXPECT_EQ(g_shell_calls, 0u);
  EXPECT_TRUE(others_kept());
}

TEST_F(PackageTest, UnpackComWhoseManifestDoesNotLoadRemovesTheUnpackedFolder) {
  struct Variant {
    std::string name;
    std::string manifest;  // empty: the package has no manifest
    bool tamper;
    std::vector<std::pair<std::string, std::string>> loader_lines;  // word, message (%s: path)
  };
  const Variant variants[] = {
      {"no_manifest", "", false, {{"warn", "load plugin config: %s failed\n"}}},
      {"tampered", package_manifest("tampered"), true, {{"warn", "load plugin config: %s failed\n"}}},
      {"no_files", R"({"package":"no_files","version":"1.0.0"})", false, {}},
      {"no_version", R"({"package":"no_version","files":[{"name":"a","sha256":"b"}]})", false,
       {{"warn", "get package name or version failed, in config: %s\n"}}},
  };
  for (const Variant &v : variants) {
    tarn_test::clear_logs();
    lay_out_package(v.name, v.manifest);
    const std::string manifest = src_ / (v.name + "/config/component_info/" + v.name + ".ejs");
    if (v.tamper) {
      ASSERT_TRUE(tarn_test::tamper_file(manifest));
    }
    const std::string path = archive(v.name, v.name + ".tgz");
    const std::string unpacked = dest_ / v.name;
    const std::string loaded = unpacked + "/config/component_info/" + v.name + ".ejs";

    bool unpacked_by_tar = false;
    g_after_shell = [&unpacked, &unpacked_by_tar] { unpacked_by_tar = tarn_test::exists(unpacked); };
    Record record;
    EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &record.info), 1u) << v.name;
    EXPECT_TRUE(unpacked_by_tar) << v.name;
    EXPECT_FALSE(exists(unpacked)) << v.name;
    EXPECT_TRUE(others_kept()) << v.name;
    EXPECT_TRUE(holds_nothing(record.info)) << v.name;

    std::vector<std::string> expected = {"info " + tar_line(path, 0)};
    for (const auto &line : v.loader_lines) {
      expected.push_back(line.first + " " + format(line.second.c_str(), loaded.c_str()));
    }
    expected.push_back("info " + format("load component info failed from (%s)\n", loaded.c_str()));
    expected.push_back("info " + format("remove unpack cache dir [%s]\n", unpacked.c_str()));
    std::vector<std::string> got;
    for (const tarn_test::LogLine &line : tarn_test::logs()) got.push_back(line.word + " " + line.message);
    EXPECT_EQ(got, expected) << v.name;
  }
  EXPECT_EQ(tarn_test::list_directory(dest_.path()), (std::set<std::string>{"keep.txt", "other"}));
}

// A package named after a directory that is already in the destination
// unpacks into it; when its manifest does not load, the directory is not the
// unpack's to remove.
TEST_F(PackageTest, UnpackComWhoseManifestDoesNotLoadKeepsADirectoryThatWasThereBefore) {
  lay_out_package("other", "");
  const std::string path = archive("other", "other.tgz");
  const std::string loaded = dest_ / "other/config/component_info/other.ejs";
  Record record;
  EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &record.info), 1u);
  std::vector<std::string> got;
  for (const tarn_test::LogLine &line : tarn_test::logs()) got.push_back(line.word + " " + line.message);
  EXPECT_EQ(got, (std::vector<std::string>{
                     "info " + tar_line(path, 0),
                     "warn " + format("load plugin config: %s failed\n", loaded.c_str()),
                     "info " + format("load component info failed from (%s)\n", loaded.c_str()),
                     "info " + format("unpack cache dir [%s] was there before the unpack, kept\n",
                                      (dest_ / "other").c_str())}));
  EXPECT_TRUE(others_kept());
  EXPECT_TRUE(exists(dest_ / "other/bin/other"));
  EXPECT_TRUE(holds_nothing(record.info));
}

TEST_F(PackageTest, UnpackComOfAnArchiveWithoutABaseNameStopsAfterUnpacking) {
  lay_out_package("pkg", package_manifest("pkg"));
  const std::string path = archive("pkg", ".tgz");
  com_info_var info;
  memset(&info, 0x5a, sizeof(info));
  const com_info_var before = info;
  EXPECT_EQ(unpack_com(path.c_str(), dest_.path().c_str(), &info), 1u);
  EXPECT_EQ(memcmp(&info, &before, sizeof(info)), 0);
  EXPECT_LOGGED("debug", format("get base name failed from: [%s]\n", path.c_str()));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
  // What was unpacked has no name to be removed by.
  EXPECT_TRUE(exists(dest_ / "pkg/bin/pkg"));
  EXPECT_TRUE(others_kept());
}

TEST_F(PackageTest, UnpackComEndsTheProcessWhenTheManifestRunsOutOfMemory) {
  const std::string path = package("pkg", package_manifest("pkg"));
  const std::string dest = dest_.path();
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&path, &dest] {
    com_info_var info;
    tarn_test::fail_allocation_after(0);
    unpack_com(path.c_str(), dest.c_str(), &info);
  });
  expect_out_of_memory_exit(outcome, "unpack_com");
}

// ---- check_file ----

TEST_F(PackageTest, CheckFileRefusesBadArgumentsSilently) {
  com_file files[] = {{const_cast<char *>("x"), const_cast<char *>(kDigest)}};
  com_info_var info;
  memset(&info, 0, sizeof(info));
  info.files = files;
  info.file_count = 1;
  EXPECT_EQ(check_file(nullptr, &info), 1);
  EXPECT_EQ(check_file(dest_.path().c_str(), nullptr), 1);
  EXPECT_EQ(check_file((dest_ / "missing").c_str(), &info), 1);
  EXPECT_EQ(check_file((dest_ / "keep.txt").c_str(), &info), 1);
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, CheckFileOfARecordWithoutFilesSucceeds) {
  com_info_var info;
  memset(&info, 0, sizeof(info));
  EXPECT_EQ(check_file(dest_.path().c_str(), &info), 0);
  // A count without an array is no files either.
  info.file_count = 3;
  EXPECT_EQ(check_file(dest_.path().c_str(), &info), 0);
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, CheckFileLooksForRootFilesBelowTheDirectory) {
  ASSERT_TRUE(make_dirs(dest_ / "pkg/bin"));
  ASSERT_TRUE(tarn_test::write_file(dest_ / "pkg/bin/x", "x"));
  com_file files[] = {{const_cast<char *>("__ROOT/bin/x"), const_cast<char *>(kDigest)},
                      {const_cast<char *>("bin/x"), const_cast<char *>("other")},
                      {const_cast<char *>("__ROOT"), const_cast<char *>("root")}};
  com_info_var info;
  memset(&info, 0, sizeof(info));
  info.files = files;
  info.file_count = 3;
  const std::string dir = dest_ / "pkg";
  EXPECT_EQ(check_file(dir.c_str(), &info), 0);
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{format("file: %s/bin/x hash: %s\n", dir.c_str(), kDigest),
                                      format("file: %s/bin/x hash: other\n", dir.c_str()),
                                      format("file: %s/ hash: root\n", dir.c_str())}));
  EXPECT_EQ(tarn_test::logs().size(), 3u) << dump_logs();
}

TEST_F(PackageTest, CheckFileReturnsTheFirstFailureAndChecksNoFurther) {
  ASSERT_TRUE(tarn_test::write_file(dest_ / "a", "a"));
  com_file files[] = {{const_cast<char *>("a"), const_cast<char *>("da")},
                      {const_cast<char *>("b"), const_cast<char *>("db")},
                      {const_cast<char *>("keep.txt"), const_cast<char *>("dk")},
                      {const_cast<char *>("c"), const_cast<char *>("dc")}};
  com_info_var info;
  memset(&info, 0, sizeof(info));
  info.files = files;
  info.file_count = 4;
  EXPECT_EQ(check_file(dest_.path().c_str(), &info), 1);
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 2u) << dump_logs();
  EXPECT_EQ(lines[0].word, "info");
  EXPECT_EQ(lines[0].message, format("file: %s hash: da\n", (dest_ / "a").c_str()));
  EXPECT_EQ(lines[1].word, "warn");
  EXPECT_EQ(lines[1].message, format("file does not exist, file path:%s\n", (dest_ / "b").c_str()));
}

TEST_F(PackageTest, CheckFileSkipsEmptySlotsAndVisitsOnlySlotsBelowTheCount) {
  ASSERT_TRUE(tarn_test::write_file(dest_ / "a", "a"));
  // Slot 0 empty, slot 1 without a digest, slot 2 without a name: skipped.
  com_file files[] = {{nullptr, nullptr},
                      {const_cast<char *>("missing1"), nullptr},
                      {nullptr, const_cast<char *>("d2")},
                      {const_cast<char *>("a"), const_cast<char *>("da")}};
  com_info_var info;
  memset(&info, 0, sizeof(info));
  info.files = files;
  info.file_count = 4;
  EXPECT_EQ(check_file(dest_.path().c_str(), &info), 0);
  EXPECT_LOGGED("info", format("file: %s hash: da\n", (dest_ / "a").c_str()));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();

  // A loaded manifest whose first entry was skipped: its one stored entry
  // stands past the count and is not checked.
  tarn_test::clear_logs();
  const std::string manifest = work_ / "m.ejs";
  ASSERT_TRUE(tarn_test::seal_manifest(
      manifest, R"({"package":"p","version":"1.0.0","files":[{"name":"a"},{"name":"missing","sha256":"x"}]})"));
  Record record;
  ASSERT_EQ(load_com_info(manifest.c_str(), &record.info), 0u);
  ASSERT_EQ(record.info.file_count, 1u);
  EXPECT_EQ(check_file(dest_.path().c_str(), &record.info), 0);
  EXPECT_NO_LINES();
}

// ---- load_local_pack ----

class LocalPackTest : public PackageTest {
 protected:
  // The manifest directory of the install directory in the work area.
  std::string manifest_dir() const { return work_ / "config/component_info"; }
  std::string manifest_path(const std::string &file) const { return manifest_dir() + "/" + file; }
  void seal(const std::string &file, const std::string &json) {
    ASSERT_TRUE(make_dirs(manifest_dir()));
    ASSERT_TRUE(tarn_test::seal_manifest(manifest_path(file), json));
  }
  static std::string version_manifest(const std::string &package, const std::string &version) {
    return format(R"({"package":"%s","version":"%s"})", package.c_str(), version.c_str());
  }
  std::string current_dir_line() const {
    return format("current dir: %s\n", manifest_dir().c_str());
  }

  com_list_var list_ = {0, nullptr, 0};
  void TearDown() override {
    free_com_list_var(&list_);
    PackageTest::TearDown();
  }
};

TEST_F(LocalPackTest, RefusesNullArgumentsSilently) {
  EXPECT_EQ(load_local_pack(nullptr, &list_), 1u);
  EXPECT_EQ(load_local_pack(work_.path().c_str(), nullptr), 1u);
  EXPECT_NO_LINES();
}

TEST_F(LocalPackTest, ADirectoryWithoutManifestsIsOne) {
  // No manifest directory at all.
  EXPECT_EQ(load_local_pack(work_.path().c_str(), &list_), 1u);
  EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{current_dir_line()}));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();

  // Only entries that are not manifests: the extension test is exact, and a
  // directory is never one.
  tarn_test::clear_logs();
  ASSERT_TRUE(make_dirs(manifest_path("d.ejs")));
  for (const char *file : {"a.txt", "b.EJS", "c.ejs.bak", "noext"}) {
    ASSERT_TRUE(tarn_test::write_file(manifest_path(file), "x"));
  }
  EXPECT_EQ(load_local_pack(work_.path().c_str(), &list_), 1u);
  EXPECT_EQ(list_.items, nullptr);
  EXPECT_EQ(list_.count, 0u);
  std::vector<std::string> expected = {current_dir_line()};
  for (const char *file : {"a.txt", "b.EJS", "c.ejs.bak", "d.ejs", "noext"}) {
    expected.push_back(format("%s is not ejs\n", manifest_path(file).c_str()));
  }
  EXPECT_EQ(tarn_test::messages("info"), expected);
  EXPECT_EQ(tarn_test::logs().size(), expected.size()) << dump_logs();
}

TEST_F(LocalPackTest, ASingleBrokenManifestIsZeroWithAnEmptyList) {
  seal("broken.ejs", version_manifest("p", "1.0.0"));
  ASSERT_TRUE(tarn_test::tamper_file(manifest_path("broken.ejs")));
  EXPECT_EQ(load_local_pack(work_.path().c_str(), &list_), 0u);
  EXPECT_EQ(list_.count, 0u);
  EXPECT_NE(list_.items, nullptr);
  EXPECT_EQ(list_.kind, 0u);
  EXPECT_LOGGED("info", current_dir_line());
  EXPECT_LOGGED("warn", format("load plugin config: %s failed\n", manifest_path("broken.ejs").c_str()));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
}

TEST_F(LocalPackTest, StoresTheManifestsThatLoadPackedInNameOrder) {
  seal("a.ejs", version_manifest("pkg_a", "1.2.3"));
  seal("b.ejs", R"({"package":"pkg_b"})");
  seal("c.ejs", version_manifest("pkg_c", "1.2"));
  seal("d.ejs", version_manifest("pkg_d", "4.5.6"));
  seal("B.ejs", version_manifest("pkg_upper", "7.8.9"));
  ASSERT_TRUE(tarn_test::write_file(manifest_path("e.txt"), "x"));
  ASSERT_TRUE(make_dirs(manifest_path("sub")));

  EXPECT_EQ(load_local_pack(work_.path().c_str(), &list_), 0u);
  ASSERT_EQ(list_.count, 3u);
  const auto *items = static_cast<const com_depend *>(list_.items);
  const struct {
    const char *name;
    uint32_t major, minor, patch;
  } expected[] = {{"pkg_upper", 7, 8, 9}, {"pkg_a", 1, 2, 3}, {"pkg_d", 4, 5, 6}};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_STREQ(items[i].name, expected[i].name) << i;
    EXPECT_EQ(items[i].version.major, expected[i].major) << i;
    EXPECT_EQ(items[i].version.minor, expected[i].minor) << i;
    EXPECT_EQ(items[i].version.patch, expected[i].patch) << i;
  }
  // One entry was allocated per manifest; those not stored stay empty.
  EXPECT_GE(malloc_usable_size(list_.items), 5 * sizeof(com_depend));
  EXPECT_EQ(items[3].name, nullptr);
  EXPECT_EQ(items[4].name, nullptr);
  EXPECT_EQ(items[4].version.major, 0u);

  std::vector<std::string> got;
  for (const tarn_test::LogLine &line : tarn_test::logs()) got.push_back(line.word + " " + line.message);
  const std::vector<std::string> want = {
      "info " + current_dir_line(),
      "info " + format("%s is not ejs\n", manifest_path("e.txt").c_str()),
      "info " + format("%s is not ejs\n", manifest_path("sub").c_str()),
      "warn " + format("get package name or version failed, in config: %s\n", manifest_path("b.ejs").c_str()),
      "info version string is invalid, 1.2\n",
  };
  EXPECT_EQ(got, want);
}

TEST_F(LocalPackTest, ExpandsAnInstallDirectoryThatBeginsWithAt) {
  seal("a.ejs", version_manifest("pkg_a", "1.0.0"));
  // "@" stands for this program's directory; enough ".." reach the root.
  const std::string program_dir = tarn_test::executable_directory();
  ASSERT_FALSE(program_dir.empty());
  std::string up;
  for (char c : program_dir) {
    if (c == '/') up += "/..";
  }
  const std::string dir = "@" + up + work_.path();
  EXPECT_EQ(load_local_pack(dir.c_str(), &list_), 0u);
  ASSERT_EQ(list_.count, 1u);
  EXPECT_STREQ(static_cast<const com_depend *>(list_.items)[0].name, "pkg_a");
  EXPECT_LOGGED("info", format("current dir: %s%s%s/config/component_info\n", program_dir.c_str(),
                               up.c_str(), work_.path().c_str()));
  EXPECT_EQ(tarn_test::logs().size(), 1u) << dump_logs();
}

TEST_F(LocalPackTest, TakesTheFirst128ManifestsAndLogsEachOneBeyond) {
  EXPECT_EQ(COM_INFO_MAX_LOCAL_MANIFESTS, 128);
  for (int i = 0; i < 129; ++i) {
    seal(format("m%03d.ejs", i), version_manifest(format("pkg%03d", i), "1.0.0"));
  }
  std::vector<std::string> ignored;
  // 129 manifests, then 130.
  for (int extra = 128; extra < 130; ++extra) {
    if (extra == 129) seal("m129.ejs", version_manifest("pkg129", "1.0.0"));
    tarn_test::clear_logs();
    free_com_list_var(&list_);
    EXPECT_EQ(load_local_pack(work_.path().c_str(), &list_), 0u);
    ASSERT_EQ(list_.count, 128u);
    const auto *items = static_cast<const com_depend *>(list_.items);
    for (int i = 0; i < 128; ++i) EXPECT_EQ(std::string(items[i].name), format("pkg%03d", i)) << i;
    ignored.push_back(
        format("too many manifests, %s ignored\n", manifest_path(format("m%03d.ejs", extra)).c_str()));
    EXPECT_EQ(tarn_test::messages("warn"), ignored);
    EXPECT_EQ(tarn_test::logs().size(), 1u + ignored.size()) << dump_logs();
  }
}

TEST_F(LocalPackTest, EndsTheProcessWhenAPathTheListOrANameRunsOutOfMemory) {
  seal("a.ejs", version_manifest("pkg_a", "1.0.0"));
  seal("b.ejs", version_manifest("pkg_b", "1.0.0"));
  // Two manifest paths, the list's array, two names.
  const unsigned sites = 5;
  {
    com_list_var counted = {0, nullptr, 0};
    const unsigned before = tarn_test::allocation_calls();
    ASSERT_EQ(load_local_pack(work_.path().c_str(), &counted), 0u);
    ASSERT_EQ(tarn_test::allocation_calls() - before, sites);
    free_com_list_var(&counted);
  }
  const std::string dir = work_.path();
  for (unsigned i = 0; i < sites; ++i) {
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&dir, i] {
      com_list_var list = {0, nullptr, 0};
      tarn_test::fail_allocation_after(i);
      load_local_pack(dir.c_str(), &list);
      free_com_list_var(&list);
    });
    expect_out_of_memory_exit(outcome, "allocation " + std::to_string(i));
  }
}

// ---- generate_new_name ----

TEST_F(PackageTest, NewNamesAreFreshIdentifiers) {
  const NamePtr first = new_name(nullptr);
  const NamePtr second = new_name(first.get());
  EXPECT_TRUE(is_identifier_text(first.get()));
  EXPECT_TRUE(is_identifier_text(second.get()));
  EXPECT_STRNE(first.get(), second.get());
  EXPECT_EQ(g_uuid_create_calls, 2u);
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, NewNameIsNeverThePreviousNameWhenCreationWorks) {
  const std::string previous = uuid_text(0x11);
  // The previous name, then another; also when previous is longer: only its
  // first 36 characters are compared.
  for (const std::string &given : {previous, previous + "-old"}) {
    g_uuid_create_calls = 0;
    g_uuid_answers = {{0, uuid_of(0x11)}, {0, uuid_of(0x22)}};
    const NamePtr name = new_name(given.c_str());
    EXPECT_EQ(std::string(name.get()), uuid_text(0x22)) << given;
    EXPECT_EQ(g_uuid_create_calls, 2u) << given;
  }
  // Without a previous name the first identifier is taken.
  g_uuid_create_calls = 0;
  g_uuid_answers = {{0, uuid_of(0x11)}};
  EXPECT_EQ(std::string(new_name(nullptr).get()), previous);
  EXPECT_EQ(g_uuid_create_calls, 1u);
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, NewNameRetriesAFailedCreation) {
  // Made before the text errors are queued, which it would otherwise take.
  const std::string third = uuid_text(0x44);
  g_uuid_answers = {{EIO, uuid_of(0)}, {0, uuid_of(0x33)}, {0, uuid_of(0x44)}};
  g_uuid_text_errors = {ERANGE};
  // The first creation fails, the second's text cannot be made: the third
  // is taken.
  EXPECT_EQ(std::string(new_name(nullptr).get()), third);
  EXPECT_EQ(g_uuid_create_calls, 3u);
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, NewNameFallsBackToTheFixedIdentifierAfterThreeFailedTries) {
  const std::string previous = uuid_text(0x55);
  // Creation failing, text failing, the previous name again; a fourth
  // answer is never asked for.
  g_uuid_answers = {{ENOMEM, uuid_of(0)}, {0, uuid_of(0x66)}, {0, uuid_of(0x55)}, {0, uuid_of(0x77)}};
  g_uuid_text_errors = {ERANGE};
  const NamePtr name = new_name(previous.c_str());
  EXPECT_STREQ(name.get(), COM_INFO_FALLBACK_NAME);
  EXPECT_TRUE(is_identifier_text(name.get()));
  EXPECT_EQ(g_uuid_create_calls, 3u);
  EXPECT_EQ(g_uuid_answers.size(), 1u);

  g_uuid_answers = {{EIO, uuid_of(0)}, {EIO, uuid_of(0)}, {EIO, uuid_of(0)}};
  const NamePtr again = new_name(nullptr);
  EXPECT_STREQ(again.get(), COM_INFO_FALLBACK_NAME);
  // Each call hands out its own copy.
  EXPECT_NE(name.get(), again.get());
  EXPECT_NO_LINES();
}

TEST_F(PackageTest, NewNameEndsTheProcessWhenItsCopyRunsOutOfMemory) {
  for (const bool fallback : {false, true}) {
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([fallback] {
      if (fallback) g_uuid_answers = {{EIO, uuid_of(0)}, {EIO, uuid_of(0)}, {EIO, uuid_of(0)}};
      tarn_test::fail_allocation_after(0);
      tarn_free_(generate_new_name(nullptr));
    });
    expect_out_of_memory_exit(outcome, fallback ? "fallback copy" : "copy");
    EXPECT_EQ(outcome.lines.size(), 1u);
  }
}

// ---- tarn_package_verify ----

// The SHA-256 digest of text, in lower-case hexadecimal.
std::string sha256_hex(const std::string &text) {
  unsigned char digest[crypto_hash_sha256_BYTES];
  crypto_hash_sha256(digest, reinterpret_cast<const unsigned char *>(text.data()), text.size());
  char hex[sizeof(digest) * 2 + 1];
  sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
  return hex;
}

// A package directory in the scratch area: files written with their
// contents remembered, and manifests sealed from (name, digest) entries.
class PackageVerifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn_test::reset_fakes();
    ASSERT_FALSE(scratch_.path().empty());
    ASSERT_TRUE(make_dirs(dir_ + "/config/component_info"));
  }
  void TearDown() override { tarn_test::reset_fakes(); }

  // Writes the file name below the package with text.
  void put(const std::string &name, const std::string &text) {
    const std::string path = dir_ + "/" + name;
    ASSERT_TRUE(make_dirs(path.substr(0, path.rfind('/'))));
    ASSERT_TRUE(tarn_test::write_file(path, text)) << path;
  }
  // Seals the manifest <manifest>.ejs listing each (name, digest).
  void seal(const std::vector<std::pair<std::string, std::string>> &files,
            const std::string &manifest = "pkg") {
    std::string json = R"({"package":")" + manifest + R"(","version":"1.0.0","files":[)";
    for (size_t i = 0; i < files.size(); ++i) {
      json += format(R"(%s{"name":"%s","sha256":"%s"})", i == 0 ? "" : ",", files[i].first.c_str(),
                     files[i].second.c_str());
    }
    json += "]}";
    ASSERT_TRUE(tarn_test::seal_manifest(manifest_path(manifest), json));
  }
  std::string manifest_path(const std::string &manifest = "pkg") const {
    return dir_ + "/config/component_info/" + manifest + ".ejs";
  }
  // Five good files, listed by one manifest.
  void lay_out_good_package() {
    std::vector<std::pair<std::string, std::string>> listed;
    for (const char *name : {"bin/app", "lib/libx.so", "share/data", "etc/conf", "doc/readme"}) {
      const std::string text = std::string("contents of ") + name;
      put(name, text);
      listed.emplace_back(name, sha256_hex(text));
    }
    seal(listed);
  }
  int verify(size_t report_len = sizeof(report_)) {
    return tarn_package_verify(dir_.c_str(), report_, report_len);
  }
  std::string problem_line(const std::string &kind, const std::string &name) const {
    return format("package verify: %s: %s %s\n", dir_.c_str(), kind.c_str(), name.c_str());
  }
  std::string summary_line(unsigned checked, unsigned problems) const {
    return format("package verify: %s: %u files checked, %u problems\n", dir_.c_str(), checked,
                  problems);
  }

  ScratchDirectory scratch_{"tarn_verify"};
  const std::string dir_ = scratch_ / "pkg";
  char report_[4096];
};

TEST_F(PackageVerifyTest, ResultCodesHaveTheirValues) {
  EXPECT_EQ(TARN_PACKAGE_VERIFY_BAD_ARGUMENT, -EINVAL);
  EXPECT_EQ(TARN_PACKAGE_VERIFY_NO_MANIFEST, -ENOENT);
  EXPECT_EQ(TARN_PACKAGE_VERIFY_BAD_MANIFEST, -EBADMSG);
}

TEST_F(PackageVerifyTest, AnIntactPackageIsZeroWithAnEmptyReport) {
  lay_out_good_package();
  memset(report_, 'Z', sizeof(report_));
  EXPECT_EQ(verify(), 0);
  EXPECT_STREQ(report_, "");
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 1u) << dump_logs();
  EXPECT_EQ(lines[0].word, "info");
  EXPECT_EQ(lines[0].message, summary_line(5, 0));
}

TEST_F(PackageVerifyTest, EveryKindOfProblemIsReportedInManifestOrder) {
  lay_out_good_package();
  // A file outside the package with the digest the manifest gives, which
  // would match if it were opened.
  ASSERT_TRUE(tarn_test::write_file(scratch_ / "outside", "outside"));
  std::vector<std::pair<std::string, std::string>> listed;
  for (const char *name : {"bin/app", "lib/libx.so", "share/data", "etc/conf", "doc/readme"}) {
    listed.emplace_back(name, sha256_hex(std::string("contents of ") + name));
  }
  listed.emplace_back("../outside", sha256_hex("outside"));
  listed.emplace_back("/etc/hostname", sha256_hex("x"));
  listed.emplace_back("bin/../../outside", sha256_hex("outside"));
  listed.emplace_back("fifo", sha256_hex(""));
  listed.emplace_back("linked/file", sha256_hex("linked"));
  seal(listed);

  ASSERT_EQ(unlink((dir_ + "/bin/app").c_str()), 0);                        // missing
  put("lib/libx.so", "contents of lib/libx.sO");                            // one changed byte
  put("share/data", "contents of share/dat");                               // truncated
  ASSERT_EQ(unlink((dir_ + "/etc/conf").c_str()), 0);                       // a link to the
  put("real_conf", "contents of etc/conf");                                 // right contents
  ASSERT_EQ(symlink((dir_ + "/real_conf").c_str(), (dir_ + "/etc/conf").c_str()), 0);
  ASSERT_EQ(unlink((dir_ + "/doc/readme").c_str()), 0);                     // a directory
  ASSERT_TRUE(make_dirs(dir_ + "/doc/readme"));
  ASSERT_EQ(mkfifo((dir_ + "/fifo").c_str(), 0600), 0);                      // never blocks
  put("real_dir/file", "linked");                                           // a link in place
  ASSERT_EQ(symlink((dir_ + "/real_dir").c_str(), (dir_ + "/linked").c_str()), 0);  // of a dir

  EXPECT_EQ(verify(), 10);
  EXPECT_STREQ(report_,
               "missing bin/app\n"
               "differs lib/libx.so\n"
               "differs share/data\n"
               "not a regular file etc/conf\n"
               "not a regular file doc/readme\n"
               "escapes ../outside\n"
               "escapes /etc/hostname\n"
               "escapes bin/../../outside\n"
               "not a regular file fifo\n"
               "not a regular file linked/file\n");
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                problem_line("missing", "bin/app"), problem_line("differs", "lib/libx.so"),
                problem_line("differs", "share/data"), problem_line("not a regular file", "etc/conf"),
                problem_line("not a regular file", "doc/readme"), problem_line("escapes", "../outside"),
                problem_line("escapes", "/etc/hostname"), problem_line("escapes", "bin/../../outside"),
                problem_line("not a regular file", "fifo"),
                problem_line("not a regular file", "linked/file")}));
  EXPECT_EQ(tarn_test::messages("info"), (std::vector<std::string>{summary_line(10, 10)}));
  EXPECT_EQ(tarn_test::logs().size(), 11u) << dump_logs();
}

TEST_F(PackageVerifyTest, AFileThatCannotBeReadIsUnreadable) {
  lay_out_good_package();
  ASSERT_EQ(chmod((dir_ + "/etc/conf").c_str(), 0), 0);
  const tarn_test::WithoutDacOverride unprivileged;
  ASSERT_TRUE(unprivileged.ok());
  EXPECT_EQ(verify(), 1);
  EXPECT_STREQ(report_, "unreadable etc/conf\n");
  EXPECT_EQ(tarn_test::messages("warn"), (std::vector<std::string>{problem_line("unreadable", "etc/conf")}));
}

TEST_F(PackageVerifyTest, RootNamesUpperCaseDigestsAndEveryManifestAreTaken) {
  put("bin/app", "app");
  put("lib/lib.so", "lib");
  put("other/file", "other");
  // "__ROOT/bin/app" is looked for at bin/app; the second entry lacks its
  // digest, so the third stands past the record's count and is still
  // checked.
  ASSERT_TRUE(tarn_test::seal_manifest(
      manifest_path("a"),
      format(R"({"package":"a","version":"1.0.0","files":[{"name":"__ROOT/bin/app","sha256":"%s"},)"
             R"({"name":"nodigest"},{"name":"lib/lib.so","sha256":"%s"}]})",
             sha256_hex("app").c_str(), sha256_hex("LIB").c_str())));
  std::string upper = sha256_hex("other");
  for (char &c : upper) c = (char)toupper((unsigned char)c);
  seal({{"other/file", upper}}, "b");
  ASSERT_TRUE(tarn_test::write_file(dir_ + "/config/component_info/notes.txt", "x"));
  EXPECT_EQ(verify(), 1);
  EXPECT_STREQ(report_, "differs lib/lib.so\n");
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("%s/config/component_info/notes.txt is not ejs\n", dir_.c_str()),
                summary_line(3, 1)}));
}

TEST_F(PackageVerifyTest, FilesOfAlternatingAndNestedDirectoriesAreEachFoundInTheirOwn) {
  // The same leaf names in directories whose names begin alike: a file
  // looked for in the directory of the file before would differ.
  const std::vector<std::string> names = {"d/x", "dd/x", "d/y", "d/sub/x", "d//x", "x", "dd/x", "d/x"};
  std::vector<std::pair<std::string, std::string>> listed;
  for (const std::string &name : names) {
    put(name == "d//x" ? "d/x" : name, "contents of " + (name == "d//x" ? std::string("d/x") : name));
    listed.emplace_back(name, sha256_hex("contents of " + (name == "d//x" ? std::string("d/x") : name)));
  }
  seal(listed);
  EXPECT_EQ(verify(), 0) << report_;
  EXPECT_STREQ(report_, "");
}

TEST_F(PackageVerifyTest, ADigestMustEqualTheFilesInFull) {
  put("a", "a");
  const std::string digest = sha256_hex("a");
  std::string last_changed = digest;
  last_changed.back() = last_changed.back() == '0' ? '1' : '0';
  seal({{"a", digest + "0"}, {"a", last_changed}, {"a", digest.substr(0, 63)}, {"a", ""}, {"a", digest}});
  EXPECT_EQ(verify(), 4);
  EXPECT_STREQ(report_, "differs a\ndiffers a\ndiffers a\ndiffers a\n");
}

TEST_F(PackageVerifyTest, AReportTooSmallIsCutAndTerminated) {
  lay_out_good_package();
  ASSERT_EQ(unlink((dir_ + "/bin/app").c_str()), 0);
  ASSERT_EQ(unlink((dir_ + "/etc/conf").c_str()), 0);
  memset(report_, 'Z', sizeof(report_));
  EXPECT_EQ(verify(10), 2);
  EXPECT_STREQ(report_, "missing b");
  EXPECT_EQ(report_[10], 'Z');
  EXPECT_EQ(verify(17), 2);
  EXPECT_STREQ(report_, "missing bin/app\n");
  EXPECT_EQ(report_[17], 'Z');
  memset(report_, 'Z', sizeof(report_));
  EXPECT_EQ(verify(1), 2);
  EXPECT_STREQ(report_, "");
  EXPECT_EQ(report_[1], 'Z');
}

TEST_F(PackageVerifyTest, NullOrEmptyArgumentsAreRefusedWithALine) {
  lay_out_good_package();
  memset(report_, 'Z', sizeof(report_));
  EXPECT_EQ(tarn_package_verify(nullptr, report_, sizeof(report_)), TARN_PACKAGE_VERIFY_BAD_ARGUMENT);
  EXPECT_STREQ(report_, "");
  report_[0] = 'Z';
  EXPECT_EQ(tarn_package_verify("", report_, sizeof(report_)), TARN_PACKAGE_VERIFY_BAD_ARGUMENT);
  EXPECT_STREQ(report_, "");
  EXPECT_EQ(tarn_package_verify(dir_.c_str(), nullptr, 10), TARN_PACKAGE_VERIFY_BAD_ARGUMENT);
  report_[0] = 'Z';
  EXPECT_EQ(tarn_package_verify(dir_.c_str(), report_, 0), TARN_PACKAGE_VERIFY_BAD_ARGUMENT);
  EXPECT_EQ(report_[0], 'Z');
  const std::vector<tarn_test::LogLine> lines = tarn_test::logs();
  ASSERT_EQ(lines.size(), 4u) << dump_logs();
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].word, "warn");
    EXPECT_EQ(lines[i].message, i < 2 ? "package verify: no package directory given\n"
                                      : "package verify: no report buffer given\n");
  }
}

TEST_F(PackageVerifyTest, NoDirectoryOrNoManifestIsNoManifest) {
  const std::string none = scratch_ / "none";
  EXPECT_EQ(tarn_package_verify(none.c_str(), report_, sizeof(report_)),
            TARN_PACKAGE_VERIFY_NO_MANIFEST);
  ASSERT_TRUE(tarn_test::write_file(scratch_ / "file", "x"));
  EXPECT_EQ(tarn_package_verify((scratch_ / "file").c_str(), report_, sizeof(report_)),
            TARN_PACKAGE_VERIFY_NO_MANIFEST);
  // The manifest directory holds no ".ejs" file.
  put("bin/app", "app");
  ASSERT_TRUE(tarn_test::write_file(dir_ + "/config/component_info/pkg.EJS", "x"));
  EXPECT_EQ(verify(), TARN_PACKAGE_VERIFY_NO_MANIFEST);
  EXPECT_STREQ(report_, "");
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("package verify: cannot open package directory %s: No such file or directory\n",
                       none.c_str()),
                format("package verify: cannot open package directory %s: Not a directory\n",
                       (scratch_ / "file").c_str()),
                format("package verify: no manifest in %s/config/component_info\n", dir_.c_str())}));
  EXPECT_EQ(tarn_test::messages("info"),
            (std::vector<std::string>{
                format("%s/config/component_info/pkg.EJS is not ejs\n", dir_.c_str())}));
  EXPECT_EQ(tarn_test::logs().size(), 4u) << dump_logs();
}

TEST_F(PackageVerifyTest, AManifestThatDoesNotLoadStopsTheCheckBeforeAnyFile) {
  lay_out_good_package();
  ASSERT_EQ(unlink((dir_ + "/bin/app").c_str()), 0);
  seal({{"bin/app", sha256_hex("x")}}, "z_other");
  ASSERT_TRUE(tarn_test::tamper_file(manifest_path("z_other")));
  report_[0] = 'Z';
  EXPECT_EQ(verify(), TARN_PACKAGE_VERIFY_BAD_MANIFEST);
  EXPECT_STREQ(report_, "");
  EXPECT_EQ(tarn_test::messages("warn"),
            (std::vector<std::string>{
                format("load plugin config: %s failed\n", manifest_path("z_other").c_str()),
                format("package verify: manifest %s does not load, package not verified\n",
                       manifest_path("z_other").c_str())}));
  EXPECT_EQ(tarn_test::logs().size(), 2u) << dump_logs();
}

// Several buffers' worth of file: every byte is read and hashed, and the
// memory the check takes does not grow with the file.
TEST_F(PackageVerifyTest, ALargeFileIsStreamedThroughOneBuffer) {
  std::string big(8 * 1024 * 1024 + 123, '\0');
  std::mt19937 random(7);
  for (char &c : big) c = (char)random();
  ASSERT_GT(big.size(), 100u * TARN_PACKAGE_VERIFY_BUFFER_SIZE);
  put("big", big);
  seal({{"big", sha256_hex(big)}});
  tarn_test::reset_fakes();
  EXPECT_EQ(verify(), 0) << report_;
  const unsigned big_allocations = tarn_test::allocation_calls();

  // The last byte changed, far past the first buffer.
  big.back() = (char)(big.back() ^ 1);
  put("big", big);
  EXPECT_EQ(verify(), 1);
  EXPECT_STREQ(report_, "differs big\n");

  // The same manifest over a file of one byte allocates as often.
  put("big", "x");
  seal({{"big", sha256_hex("x")}});
  tarn_test::reset_fakes();
  EXPECT_EQ(verify(), 0) << report_;
  EXPECT_EQ(tarn_test::allocation_calls(), big_allocations);
}

}  // namespace
