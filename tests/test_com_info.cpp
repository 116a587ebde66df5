// Tests of the component helpers: joining a relative path to a base
// directory or to the app home, with its result codes and the length it
// reports when the caller's buffer is too small.

#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "com_info.h"
#include "fakes.h"
#include "install_root.h"
#include "kep_result.h"
#include "log_checks.h"

namespace {

using tarn_test::dump_logs;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

class ComInfoTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    tarn_test::reset_fakes();
    tarn_test::clear_install_root();
  }
};

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

}  // namespace
