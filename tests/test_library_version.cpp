// The version headers and the version functions of the three libraries:
// compiled as C++ here (the C99 build of the headers is public_headers_c99).
#include <gtest/gtest.h>

#include <string>

#include <qiv_ejs/qiv_ejs_version.h>
#include <tarnaux/tarnaux.h>
#include <tarnbase/tarnbase_version.h>

namespace {

// "MAJOR.MINOR.PATCH" of the three macros.
std::string dotted(unsigned major, unsigned minor, unsigned patch) {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

TEST(LibraryVersion, EachLibraryReportsTheVersionOfItsHeaders) {
  EXPECT_STREQ(tarnaux_version_string(), TARNAUX_VERSION_STRING);
  EXPECT_STREQ(tarnbase_version_string(), TARNBASE_VERSION_STRING);
  EXPECT_STREQ(qiv_ejs_version_string(), QIV_EJS_VERSION_STRING);
}

TEST(LibraryVersion, TheMacrosGiveTheProjectVersionInEachForm) {
  EXPECT_STREQ(TARNAUX_VERSION_STRING, TARN_PROJECT_VERSION);
  EXPECT_EQ(dotted(TARNAUX_VERSION_MAJOR, TARNAUX_VERSION_MINOR, TARNAUX_VERSION_PATCH),
            TARN_PROJECT_VERSION);
  EXPECT_EQ(TARNAUX_VERSION_HEX,
            (TARNAUX_VERSION_MAJOR << 16) | (TARNAUX_VERSION_MINOR << 8) | TARNAUX_VERSION_PATCH);
  EXPECT_STREQ(TARNBASE_VERSION_STRING, TARN_PROJECT_VERSION);
  EXPECT_EQ(dotted(TARNBASE_VERSION_MAJOR, TARNBASE_VERSION_MINOR, TARNBASE_VERSION_PATCH),
            TARN_PROJECT_VERSION);
  EXPECT_EQ(TARNBASE_VERSION_HEX, TARNAUX_VERSION_HEX);
  EXPECT_STREQ(QIV_EJS_VERSION_STRING, TARN_PROJECT_VERSION);
  EXPECT_EQ(dotted(QIV_EJS_VERSION_MAJOR, QIV_EJS_VERSION_MINOR, QIV_EJS_VERSION_PATCH),
            TARN_PROJECT_VERSION);
  EXPECT_EQ(QIV_EJS_VERSION_HEX, TARNAUX_VERSION_HEX);
}

// 0xMMmmpp: a later version is a greater number, whichever part grows.
TEST(LibraryVersion, TheHexFormPutsEachPartInItsOwnByte) {
#if TARNAUX_VERSION_HEX >= 0x010000 && TARNAUX_VERSION_HEX < 0x020000
  EXPECT_EQ(TARNAUX_VERSION_HEX >> 16, TARNAUX_VERSION_MAJOR);
  EXPECT_EQ((TARNAUX_VERSION_HEX >> 8) & 0xff, TARNAUX_VERSION_MINOR);
  EXPECT_EQ(TARNAUX_VERSION_HEX & 0xff, TARNAUX_VERSION_PATCH);
#else
  FAIL() << "TARNAUX_VERSION_HEX is not usable in #if as a 1.x version: " << TARNAUX_VERSION_HEX;
#endif
}

}  // namespace
