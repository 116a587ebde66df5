// The base library's ini objects through libtarnbase.so: the text syntax,
// lines of any length, the files that it refuses whole (malformed text, a
// NUL byte, anything but a regular file, a file over the size bound), the
// order of sections and keys,
// reading numbers, walking the object, and saving: the file is replaced
// whole through a temporary file that is never the lock file's name, also
// when the saving process is killed at any moment.
//
// The program runs in its own sandbox: /tmp is private and its contents
// vanish with it. Each test works in a fresh directory of its own.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_ini.h>

#include "child_process.h"
#include "files.h"
#include "time_limit.h"

namespace {

using tarn_test::fork_child;
using tarn_test::killed_by;
using tarn_test::list_directory;
using tarn_test::make_temp_directory;
using tarn_test::read_file;
using tarn_test::reap;
using tarn_test::write_file;

// ---------------------------------------------------------------------------
// Helpers

using Entries = std::vector<std::vector<std::string>>;  // {section, key, value} in order

int collect(void *user, const char *section, const char *key, const char *value) {
  static_cast<Entries *>(user)->push_back({section, key, value});
  return 0;
}

Entries entries_of(tarn_ini_t *ini) {
  Entries entries;
  EXPECT_EQ(0, tarn_ini_file_foreach(ini, &entries, collect));
  return entries;
}

// The ini object of a file, freed on leaving the scope.
class Ini {
 public:
  explicit Ini(tarn_ini_t *ini) : ini_(ini) {}
  ~Ini() { tarn_ini_file_free(ini_); }
  Ini(const Ini &) = delete;
  Ini &operator=(const Ini &) = delete;
  tarn_ini_t *get() const { return ini_; }
  explicit operator bool() const { return ini_ != nullptr; }

 private:
  tarn_ini_t *ini_;
};

class IniTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_directory("tarn_ini");
    ASSERT_FALSE(dir_.empty());
    path_ = dir_ + "/test.ini";
  }

  // Loads text written to the test's file; null when it is refused.
  tarn_ini_t *load_text(const std::string &text) {
    EXPECT_TRUE(write_file(path_, text));
    return tarn_ini_file_load(path_.c_str());
  }

  void expect_refused(const std::string &text) {
    SCOPED_TRACE("text: \"" + text + "\"");
    errno = 0;
    tarn_ini_t *ini = load_text(text);
    EXPECT_EQ(nullptr, ini);
    EXPECT_EQ(EINVAL, errno);
    tarn_ini_file_free(ini);
  }

  Entries load_entries(const std::string &text) {
    Ini ini(load_text(text));
    EXPECT_TRUE(ini) << "text: \"" << text << "\" errno " << errno;
    return ini ? entries_of(ini.get()) : Entries();
  }

  std::string dir_;
  std::string path_;
};

// ---------------------------------------------------------------------------
// Loading: syntax

TEST_F(IniTest, ANullPathGivesANewEmptyObject) {
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  EXPECT_EQ(Entries(), entries_of(ini.get()));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "apphome", "app_home"));
}

TEST_F(IniTest, ReadsSectionsKeysCommentsAndBlankLines) {
  const Entries expected = {
      {"apphome", "app_home", "0a1b2c3d-0000-1111-2222-333344445555"},
      {"apphome", "upgrade_lock_count", "3"},
      {"other", "path", "/usr/share/velmora/TARN"},
      {"other", "spaced", "a value with  inner  blanks"},
      {"other", "empty", ""},
  };
  EXPECT_EQ(expected, load_entries("; a comment\n"
                                   "# another comment\n"
                                   "\n"
                                   "[apphome]\n"
                                   "app_home = 0a1b2c3d-0000-1111-2222-333344445555\n"
                                   "upgrade_lock_count=3\n"
                                   "\n"
                                   "   ; an indented comment\n"
                                   "[other]\n"
                                   "  path   =   /usr/share/velmora/TARN   \n"
                                   "spaced = a value with  inner  blanks\n"
                                   "empty =\n"));
}

TEST_F(IniTest, ColonSeparatesLikeEqualsAndOnlyTheFirstSeparatorCounts) {
  const Entries expected = {{"s", "a", "1"}, {"s", "b", "x=y:z"}, {"s", "c", "u=v"}};
  EXPECT_EQ(expected, load_entries("[s]\na: 1\nb = x=y:z\nc: u=v\n"));
}

TEST_F(IniTest, ASemicolonAfterABlankStartsAnInlineCommentOtherwiseItIsText) {
  const Entries expected = {{"s", "a", "1"}, {"s", "b", "x;y"}, {"s", "c", ";z"}};
  EXPECT_EQ(expected, load_entries("[s]\na = 1 ; one\nb = x;y\nc =;z\n"));
}

TEST_F(IniTest, KeysBeforeAnySectionAndAfterEmptyBracketsBelongToSectionEmpty) {
  const Entries expected = {{"", "top", "1"}, {"", "later", "2"}, {"s", "k", "v"}};
  EXPECT_EQ(expected, load_entries("top = 1\n[s]\nk = v\n[]\nlater = 2\n"));
}

TEST_F(IniTest, TextAfterTheClosingBracketIsIgnoredAndSectionNamesKeepTheirBlanks) {
  const Entries expected = {{"s", "a", "1"}, {" t ", "b", "2"}};
  EXPECT_EQ(expected, load_entries("[s] trailing words\na = 1\n[ t ]\nb = 2\n"));
}

TEST_F(IniTest, AByteOrderMarkAtTheStartIsSkipped) {
  const Entries expected = {{"s", "a", "1"}};
  EXPECT_EQ(expected, load_entries("\xEF\xBB\xBF[s]\na = 1\n"));
}

TEST_F(IniTest, ALastLineWithoutANewlineIsRead) {
  const Entries expected = {{"s", "a", "1"}};
  EXPECT_EQ(expected, load_entries("[s]\na = 1"));
}

TEST_F(IniTest, AnEmptyFileGivesAnEmptyObject) { EXPECT_EQ(Entries(), load_entries("")); }

TEST_F(IniTest, ASectionWithoutKeysIsNotKept) {
  const Entries expected = {{"full", "a", "1"}};
  EXPECT_EQ(expected, load_entries("[empty]\n[full]\na = 1\n"));
}

TEST_F(IniTest, SectionsAndKeysAreCaseSensitive) {
  Ini ini(load_text("[S]\nKey = upper\n[s]\nkey = lower\nKEY = shout\n"));
  ASSERT_TRUE(ini);
  EXPECT_STREQ("upper", tarn_ini_file_get(ini.get(), "S", "Key"));
  EXPECT_STREQ("lower", tarn_ini_file_get(ini.get(), "s", "key"));
  EXPECT_STREQ("shout", tarn_ini_file_get(ini.get(), "s", "KEY"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "S", "key"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "s", "Key"));
}

// ---------------------------------------------------------------------------
// Loading: refused files

TEST_F(IniTest, MalformedFilesAreRefusedWhole) {
  expect_refused("[s]\nno separator here\n");
  expect_refused("[s]\na = 1\nb = 2\nthe last line is bad\n");
  expect_refused("bad line before everything\n[s]\na = 1\n");
  expect_refused("[unterminated\na = 1\n");
  expect_refused("[s]\n= value without a key\n");
  expect_refused("[s]\na = 1\na = 2\n");
  expect_refused("[a ;comment inside]\nk = v\n");
  expect_refused("[s]\nkey ;x = 1\n");
}

TEST_F(IniTest, AKeyThatBeginsWithAByteOrderMarkIsRefused) {
  // Saved as the first line, the mark would be skipped at the next load.
  expect_refused("\n\xEF\xBB\xBF:\n");
  expect_refused("[s]\n\xEF\xBB\xBFkey = 1\n");
  expect_refused("\xEF\xBB\xBF\xEF\xBB\xBFkey = 1\n");
}

TEST_F(IniTest, ARepeatedKeyInAnotherSectionIsNoRepetition) {
  const Entries expected = {{"a", "k", "1"}, {"b", "k", "2"}};
  EXPECT_EQ(expected, load_entries("[a]\nk = 1\n[b]\nk = 2\n"));
}

TEST_F(IniTest, AnIndentedLineIsReadAsItWouldBeWithoutItsIndent) {
  // Never as more text for the key line above it, however long that key.
  const std::string long_key(60, 'k');
  const Entries two_keys = {{"s", long_key, "1"}, {"s", "x", "2"}};
  EXPECT_EQ(two_keys, load_entries("[s]\n" + long_key + " = 1\n\n; comment\n  x = 2\n"));
  const Entries two_sections = {{"s", long_key, "1"}, {"t", "y", "3"}};
  EXPECT_EQ(two_sections, load_entries("[s]\n" + long_key + " = 1\n  [t]\n\ty = 3\n"));
  const Entries after_short_key = {{"s", "a", "1"}, {"s", "b", "2"}};
  EXPECT_EQ(after_short_key, load_entries("[s]\na = 1\n  b = 2\n"));
  // An indented line without a separator is as malformed as any other.
  expect_refused("[s]\n" + long_key + " = 1\n\tmore\n");
  expect_refused("[s]\nlevel = 1\n   3\n");
}

TEST_F(IniTest, AnIndentedKeyRightAfterASectionHeaderIsAnOrdinaryKey) {
  const Entries expected = {{"s", "a", "1"}};
  EXPECT_EQ(expected, load_entries("[s]\n   a = 1\n"));
}

// Where a long line can be: the value, the key or the section name.
enum class LongPart { kValue, kKey, kSection };

const char *name_of(LongPart part) {
  return part == LongPart::kValue ? "value" : part == LongPart::kKey ? "key" : "section name";
}

// A file in the saved form ("[section]", "key=value", newlines) whose line
// holding part is line_bytes long, its newline counted; and its entries.
std::pair<std::string, Entries> text_with_long_line(LongPart part, size_t line_bytes) {
  const std::string long_text(line_bytes - 3, part == LongPart::kValue ? 'v' : part == LongPart::kKey ? 'k' : 's');
  const std::string section = part == LongPart::kSection ? long_text : "s";
  const std::string key = part == LongPart::kKey ? long_text : "k";
  const std::string value = part == LongPart::kValue ? long_text : "v";
  return {"[" + section + "]\n" + key + "=" + value + "\n\n[next]\nafter=1\n",
          {{section, key, value}, {"next", "after", "1"}}};
}

TEST_F(IniTest, LongLinesLoadReadBackAndSaveBackByteForByte) {
  const std::string saved = dir_ + "/saved.ini";
  for (const size_t line_bytes : {200u, 4096u, 65535u}) {
    for (const LongPart part : {LongPart::kValue, LongPart::kKey, LongPart::kSection}) {
      SCOPED_TRACE(std::string("a ") + name_of(part) + " on a line of " + std::to_string(line_bytes) + " bytes");
      const auto [text, entries] = text_with_long_line(part, line_bytes);
      Ini ini(load_text(text));
      ASSERT_TRUE(ini) << "errno " << errno;
      EXPECT_EQ(entries, entries_of(ini.get()));
      EXPECT_STREQ(entries[0][2].c_str(), tarn_ini_file_get(ini.get(), entries[0][0].c_str(), entries[0][1].c_str()));
      ASSERT_EQ(0, tarn_ini_file_save(ini.get(), saved.c_str(), 0));
      EXPECT_TRUE(text == read_file(saved)) << "the saved file differs from the loaded one";
    }
  }
}

TEST_F(IniTest, LongLinesLoadWithBlanksCommentsAndWithoutALastNewline) {
  const std::string value(65535, 'v');
  const Entries expected = {{"s", "k", value}};
  EXPECT_EQ(expected, load_entries("[s]\n  k  =  " + value + "  ; a comment\n"));
  EXPECT_EQ(expected, load_entries("[s]\nk = " + value));
  EXPECT_EQ(expected, load_entries("; " + std::string(65535, 'c') + "\n[s]\nk=" + value + "\r\n"));
  const std::string name(65535, 'n');
  const Entries long_section = {{name, "a", "1"}};
  EXPECT_EQ(long_section, load_entries("\xEF\xBB\xBF[" + name + "] words\na = 1\n"));
}

TEST_F(IniTest, ANulByteAnywhereMakesTheFileMalformed) {
  // Never read as the end of a line, nor as the start of another: the text
  // after it must not pass for a line of its own.
  const std::string nul(1, '\0');
  const std::vector<std::pair<const char *, std::string>> cases = {
      {"at the start", nul + "[s]\na = 1\n"},
      {"alone", nul},
      {"mid-line in a value", "[s]\na = 1" + nul + "2\n"},
      {"mid-line before a line of text", "[apphome]\napp_home=A" + nul + "app_home=smuggled\n"},
      {"in a key", "[s]\nk" + nul + "ey = 1\n"},
      {"in a section name", "[s" + nul + "t]\na = 1\n"},
      {"in a comment", "; note" + nul + " more\n[s]\na = 1\n"},
      {"after a line end", "[s]\na = 1\n" + nul + "b = 2\n"},
      {"after a line end, smuggling a key", "[apphome]\napp_home=A\n" + nul + "app_home=smuggled\n"},
      {"after the last line end", "[s]\na = 1\n" + nul},
      {"on a blank line", "[s]\na = 1\n\n" + nul + "\n"},
      {"after a long line", "[s]\na = " + std::string(65535, 'v') + "\n" + nul + "\n"},
  };
  for (const auto &[where, text] : cases) {
    SCOPED_TRACE(where);
    errno = 0;
    Ini ini(load_text(text));
    EXPECT_FALSE(ini);
    EXPECT_EQ(EINVAL, errno);
  }
}

// ---------------------------------------------------------------------------
// Loading: what is not a regular file, and the size bound

constexpr size_t kBound = 1024 * 1024;

TEST_F(IniTest, WhatIsNotARegularFileIsRefusedAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    ASSERT_TRUE(tarn_test::make_not_a_file(path_, kind));
    errno = 0;
    {
      tarn_test::TimeLimit limit(5, std::string("tarn_ini_file_load of ") + tarn_test::describe(kind));
      Ini ini(tarn_ini_file_load(path_.c_str()));
      EXPECT_FALSE(ini);
    }
    EXPECT_EQ(EFTYPE, errno);
    EXPECT_TRUE(tarn_test::is_not_a_file(path_, kind));
  }
}

// A file of exactly size bytes: one key whose value fills it.
std::string text_of_size(size_t size) {
  const std::string head = "[s]\nk=";
  return head + std::string(size - head.size() - 1, 'v') + "\n";
}

TEST_F(IniTest, AFileAtTheBoundLoadsAndOneByteMoreIsRefused) {
  const std::string at_bound = text_of_size(kBound);
  ASSERT_EQ(kBound, at_bound.size());
  Ini ini(load_text(at_bound));
  ASSERT_TRUE(ini) << "errno " << errno;
  EXPECT_EQ(kBound - 7, strlen(tarn_ini_file_get(ini.get(), "s", "k")));
  errno = 0;
  Ini over(load_text(text_of_size(kBound + 1)));
  EXPECT_FALSE(over);
  EXPECT_EQ(EFBIG, errno);
  // A comment counts as much as any other line.
  errno = 0;
  Ini padded(load_text("[s]\nk=v\n; " + std::string(kBound, 'c') + "\n"));
  EXPECT_FALSE(padded);
  EXPECT_EQ(EFBIG, errno);
}

TEST_F(IniTest, ASaveThatALoadWouldRefuseIsEfbigAndLeavesTheFile) {
  ASSERT_TRUE(write_file(path_, "[old]\nkey=value\n"));
  const std::string other = dir_ + "/other.ini";
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  // "[s]\nk=" and the newline around the value: a text of the bound.
  const std::string value(kBound - 7, 'v');
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "s", "k", value.c_str()));
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), other.c_str(), 0));
  EXPECT_EQ(text_of_size(kBound), read_file(other));
  Ini loaded(tarn_ini_file_load(other.c_str()));
  EXPECT_TRUE(loaded);

  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "s", "k", (value + "v").c_str()));
  errno = 0;
  EXPECT_EQ(EFBIG, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ(EFBIG, tarn_ini_file_save_directio(ini.get(), path_.c_str(), 0));
  EXPECT_EQ("[old]\nkey=value\n", read_file(path_));
  EXPECT_EQ((std::set<std::string>{"test.ini", "other.ini"}), list_directory(dir_));
}

TEST_F(IniTest, AMissingFileIsEnoent) {
  errno = 0;
  EXPECT_EQ(nullptr, tarn_ini_file_load((dir_ + "/missing.ini").c_str()));
  EXPECT_EQ(ENOENT, errno);
  errno = 0;
  EXPECT_EQ(nullptr, tarn_ini_file_load((dir_ + "/no/such/dir.ini").c_str()));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(IniTest, ADirectoryIsEisdir) {
  errno = 0;
  EXPECT_EQ(nullptr, tarn_ini_file_load(dir_.c_str()));
  EXPECT_EQ(EISDIR, errno);
}

TEST_F(IniTest, AnUnreadableFileIsEacces) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  ASSERT_EQ(0, chmod(path_.c_str(), 0600));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    errno = 0;
    tarn_ini_t *ini = tarn_ini_file_load(path_.c_str());
    if (ini != nullptr) return 11;
    return errno == EACCES ? 0 : 12;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
}

// ---------------------------------------------------------------------------
// Reading and changing

TEST_F(IniTest, GetOfAnAbsentSectionOrKeyOrANullArgumentIsNull) {
  Ini ini(load_text("[s]\na = 1\n"));
  ASSERT_TRUE(ini);
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "t", "a"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "s", "b"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(nullptr, "s", "a"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), nullptr, "a"));
  EXPECT_EQ(nullptr, tarn_ini_file_get(ini.get(), "s", nullptr));
}

TEST_F(IniTest, AValueStaysValidWhileOtherKeysAreAdded) {
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "s", "first", "short"));
  const char *first = tarn_ini_file_get(ini.get(), "s", "first");
  for (int i = 0; i < 2000; ++i) {
    const std::string name = "k" + std::to_string(i);
    ASSERT_EQ(0, tarn_ini_file_set(ini.get(), i % 2 ? "s" : ("t" + std::to_string(i)).c_str(), name.c_str(), "v"));
  }
  EXPECT_EQ(first, tarn_ini_file_get(ini.get(), "s", "first"));
  EXPECT_STREQ("short", first);
}

TEST_F(IniTest, SetAddsSectionsAndKeysAtTheEndAndAKeySetAgainKeepsItsPlace) {
  Ini ini(load_text("[b]\nz = 1\ny = 2\n[a]\nx = 3\n"));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "a", "w", "4"));
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "c", "v", "5"));
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "b", "z", "changed"));
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "b", "u", "6"));
  const Entries expected = {{"b", "z", "changed"}, {"b", "y", "2"}, {"b", "u", "6"},
                            {"a", "x", "3"},       {"a", "w", "4"}, {"c", "v", "5"}};
  EXPECT_EQ(expected, entries_of(ini.get()));
}

TEST_F(IniTest, SetRefusesTextThatASavedFileWouldNotGiveBack) {
  Ini ini(load_text("[s]\na = 1\n"));
  ASSERT_TRUE(ini);
  const std::vector<std::vector<std::string>> refused = {
      {"a]b", "k", "v"},
      {"a\nb", "k", "v"},
      {"a ;b", "k", "v"},
      {"s", "", "v"},
      {"s", "a=b", "v"},
      {"s", "a:b", "v"},
      {"s", "[k", "v"},
      {"s", ";k", "v"},
      {"s", "#k", "v"},
      {"s", " k", "v"},
      {"s", "k ", "v"},
      {"s", "k\r", "v"},
      {"s", "k ;x", "v"},
      {"s", "\xEF\xBB\xBFk", "v"},
      {"s", "k", " v"},
      {"s", "k", "v "},
      {"s", "k", "v\tx\n"},
      {"s", "k", "line\nbreak"},
      {"s", "k", "cr\rhere"},
      {"s", "k", "x ;y"},
  };
  for (const auto &item : refused) {
    SCOPED_TRACE("[" + item[0] + "] " + item[1] + " = " + item[2]);
    errno = 0;
    EXPECT_EQ(EINVAL, tarn_ini_file_set(ini.get(), item[0].c_str(), item[1].c_str(), item[2].c_str()));
    EXPECT_EQ(EINVAL, errno);
  }
  const Entries unchanged = {{"s", "a", "1"}};
  EXPECT_EQ(unchanged, entries_of(ini.get()));
  EXPECT_EQ(EINVAL, tarn_ini_file_set(nullptr, "s", "k", "v"));
  EXPECT_EQ(EINVAL, tarn_ini_file_set(ini.get(), nullptr, "k", "v"));
  EXPECT_EQ(EINVAL, tarn_ini_file_set(ini.get(), "s", nullptr, "v"));
  EXPECT_EQ(EINVAL, tarn_ini_file_set(ini.get(), "s", "k", nullptr));
}

TEST_F(IniTest, EverythingThatSetAcceptsSavesAndLoadsBackEqual) {
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  const std::vector<std::vector<std::string>> accepted = {
      {"s", "k", std::string(196, 'v')},
      {"s", "kk", std::string(195, 'v')},
      {std::string(49, 's'), "k", "v"},
      {"s", "semi", ";starts with a semicolon"},
      {"s", "inner", "x;y = z: w"},
      {"s", "a;b", "key with a semicolon"},
      {"s", "k#", "hash"},
      {"s", "empty", ""},
      {" blank ends ", "k", "v"},
      {"", "unnamed", "section"},
      {"u", "utf8", "\xC3\xA9t\xC3\xA9"},
      {std::string(65535, 's'), std::string(65535, 'k'), std::string(65535, 'v')},
  };
  for (const auto &item : accepted) {
    SCOPED_TRACE("[" + item[0] + "] " + item[1] + " = " + item[2]);
    EXPECT_EQ(0, tarn_ini_file_set(ini.get(), item[0].c_str(), item[1].c_str(), item[2].c_str()));
  }
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  Ini loaded(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(loaded) << read_file(path_);
  EXPECT_EQ(entries_of(ini.get()), entries_of(loaded.get()));
}

TEST_F(IniTest, EveryFileThatLoadsSavesAndLoadsBackEqual) {
  // Among them a long line with blanks around '=', and a last line without
  // a newline.
  const std::string text =
      "top = 1\n[s]\nk = " + std::string(65535, 'v') + "\nc =;x\n[ t ] words\nb: 2\n[]\nlate = 3";
  Ini ini(load_text(text));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  Ini loaded(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(loaded) << read_file(path_);
  EXPECT_EQ(entries_of(ini.get()), entries_of(loaded.get()));
}

TEST_F(IniTest, GetIntReadsTheWholeValueAsADecimalInt) {
  Ini ini(load_text("[n]\n"
                    "plain = 12\n"
                    "negative = -3\n"
                    "plus = +7\n"
                    "zero = 0\n"
                    "leading_zero = 010\n"
                    "max = 2147483647\n"
                    "min = -2147483648\n"
                    "empty =\n"
                    "trailing = 12abc\n"
                    "hex = 0x10\n"
                    "fraction = 1.5\n"
                    "inner_blank = 1 2\n"
                    "too_big = 2147483648\n"
                    "too_small = -2147483649\n"
                    "huge = 99999999999999999999999\n"
                    "word = three\n"
                    "sign = -\n"));
  ASSERT_TRUE(ini);
  tarn_ini_t *object = ini.get();
  EXPECT_EQ(12, tarn_ini_file_get_int(object, "n", "plain", -1));
  EXPECT_EQ(-3, tarn_ini_file_get_int(object, "n", "negative", -1));
  EXPECT_EQ(7, tarn_ini_file_get_int(object, "n", "plus", -1));
  EXPECT_EQ(0, tarn_ini_file_get_int(object, "n", "zero", -1));
  EXPECT_EQ(10, tarn_ini_file_get_int(object, "n", "leading_zero", -1));
  EXPECT_EQ(INT_MAX, tarn_ini_file_get_int(object, "n", "max", -1));
  EXPECT_EQ(INT_MIN, tarn_ini_file_get_int(object, "n", "min", -1));
  for (const char *key : {"empty", "trailing", "hex", "fraction", "inner_blank", "too_big", "too_small", "huge",
                          "word", "sign", "absent"}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(-42, tarn_ini_file_get_int(object, "n", key, -42));
  }
  EXPECT_EQ(5, tarn_ini_file_get_int(object, "absent", "plain", 5));
  EXPECT_EQ(5, tarn_ini_file_get_int(nullptr, "n", "plain", 5));
  EXPECT_EQ(5, tarn_ini_file_get_int(object, nullptr, "plain", 5));
  EXPECT_EQ(5, tarn_ini_file_get_int(object, "n", nullptr, 5));
}

TEST_F(IniTest, SetIntWritesDecimal) {
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_set_int(ini.get(), "n", "a", 42));
  ASSERT_EQ(0, tarn_ini_file_set_int(ini.get(), "n", "b", INT_MIN));
  ASSERT_EQ(0, tarn_ini_file_set_int(ini.get(), "n", "a", -1));
  EXPECT_STREQ("-1", tarn_ini_file_get(ini.get(), "n", "a"));
  EXPECT_STREQ("-2147483648", tarn_ini_file_get(ini.get(), "n", "b"));
  EXPECT_EQ(INT_MIN, tarn_ini_file_get_int(ini.get(), "n", "b", 0));
  EXPECT_EQ(EINVAL, tarn_ini_file_set_int(ini.get(), "n", "=", 1));
  EXPECT_EQ(EINVAL, tarn_ini_file_set_int(nullptr, "n", "a", 1));
}

// ---------------------------------------------------------------------------
// Walking

struct Walk {
  Entries seen;
  size_t stop_after = 0;  // 0: never stop
  int stop_value = 0;
};

int walk_until(void *user, const char *section, const char *key, const char *value) {
  Walk *walk = static_cast<Walk *>(user);
  walk->seen.push_back({section, key, value});
  return walk->seen.size() == walk->stop_after ? walk->stop_value : 0;
}

TEST_F(IniTest, ForeachVisitsEveryKeyInFileOrder) {
  Ini ini(load_text("[z]\nb = 1\na = 2\n[y]\nd = 3\nc = 4\n[x]\ne = 5\n"));
  ASSERT_TRUE(ini);
  Walk walk;
  EXPECT_EQ(0, tarn_ini_file_foreach(ini.get(), &walk, walk_until));
  const Entries expected = {{"z", "b", "1"}, {"z", "a", "2"}, {"y", "d", "3"}, {"y", "c", "4"}, {"x", "e", "5"}};
  EXPECT_EQ(expected, walk.seen);
}

TEST_F(IniTest, ForeachStopsAtANonZeroResultAndReturnsIt) {
  Ini ini(load_text("[z]\nb = 1\na = 2\n[y]\nd = 3\nc = 4\n"));
  ASSERT_TRUE(ini);
  Walk walk;
  walk.stop_after = 3;
  walk.stop_value = 77;
  EXPECT_EQ(77, tarn_ini_file_foreach(ini.get(), &walk, walk_until));
  EXPECT_EQ(3u, walk.seen.size());
  Walk negative;
  negative.stop_after = 1;
  negative.stop_value = -1;
  EXPECT_EQ(-1, tarn_ini_file_foreach(ini.get(), &negative, walk_until));
  EXPECT_EQ(1u, negative.seen.size());
}

TEST_F(IniTest, ForeachOfAnEmptyObjectCallsNothingAndNullArgumentsAreEinval) {
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  Walk walk;
  EXPECT_EQ(0, tarn_ini_file_foreach(ini.get(), &walk, walk_until));
  EXPECT_TRUE(walk.seen.empty());
  EXPECT_EQ(EINVAL, tarn_ini_file_foreach(nullptr, &walk, walk_until));
  EXPECT_EQ(EINVAL, tarn_ini_file_foreach(ini.get(), &walk, nullptr));
}

// ---------------------------------------------------------------------------
// Saving

TEST_F(IniTest, SaveReplacesTheFileWholeInTheObjectsOrderWithoutComments) {
  ASSERT_TRUE(write_file(path_, "; old comment\n[b]\nz = 1\n\n[a]\nx = " + std::string(150, 'o') + "\n[c]\nold = 1\n"));
  Ini ini(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "a", "x", "short"));
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "d", "new", "4"));
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  EXPECT_EQ("[b]\nz=1\n\n[a]\nx=short\n\n[c]\nold=1\n\n[d]\nnew=4\n", read_file(path_));
}

TEST_F(IniTest, SectionEmptyIsWrittenWithoutAHeaderOnlyWhenItComesFirst) {
  Ini first(tarn_ini_file_load(nullptr));
  ASSERT_EQ(0, tarn_ini_file_set(first.get(), "", "top", "1"));
  ASSERT_EQ(0, tarn_ini_file_set(first.get(), "s", "k", "v"));
  ASSERT_EQ(0, tarn_ini_file_save(first.get(), path_.c_str(), 0));
  EXPECT_EQ("top=1\n\n[s]\nk=v\n", read_file(path_));

  Ini later(tarn_ini_file_load(nullptr));
  ASSERT_EQ(0, tarn_ini_file_set(later.get(), "s", "k", "v"));
  ASSERT_EQ(0, tarn_ini_file_set(later.get(), "", "top", "1"));
  ASSERT_EQ(0, tarn_ini_file_save(later.get(), path_.c_str(), 0));
  EXPECT_EQ("[s]\nk=v\n\n[]\ntop=1\n", read_file(path_));
  Ini loaded(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(loaded);
  EXPECT_EQ(entries_of(later.get()), entries_of(loaded.get()));
}

TEST_F(IniTest, AnEmptyObjectSavesAnEmptyFile) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_EQ(0, tarn_ini_file_save_directio(ini.get(), path_.c_str(), 0));
  EXPECT_EQ("", read_file(path_));
}

TEST_F(IniTest, SaveAndSaveDirectioWriteTheSameText) {
  Ini ini(load_text("[apphome]\napp_home = 0a1b2c3d-0000-1111-2222-333344445555\n"));
  ASSERT_TRUE(ini);
  const std::string other = dir_ + "/other.ini";
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  ASSERT_EQ(0, tarn_ini_file_save_directio(ini.get(), other.c_str(), 0));
  EXPECT_EQ("[apphome]\napp_home=0a1b2c3d-0000-1111-2222-333344445555\n", read_file(other));
  EXPECT_EQ(read_file(path_), read_file(other));
}

TEST_F(IniTest, SaveReplacesTheFileByRenameAndLeavesTheLockFileAlone) {
  const std::string lock = path_ + ".lock";
  ASSERT_TRUE(write_file(lock, "lock content"));
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  struct stat before;
  ASSERT_EQ(0, stat(path_.c_str(), &before));
  struct stat lock_before;
  ASSERT_EQ(0, stat(lock.c_str(), &lock_before));

  // Watch every name created in the directory while saving.
  const int watch_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watch_fd, 0);
  ASSERT_GE(inotify_add_watch(watch_fd, dir_.c_str(), IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_OPEN), 0);

  Ini ini(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_set(ini.get(), "s", "b", "2"));
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  ASSERT_EQ(0, tarn_ini_file_save_directio(ini.get(), path_.c_str(), 0));

  std::vector<std::string> created;
  std::vector<std::string> opened;
  alignas(struct inotify_event) char buffer[16384];
  ssize_t got;
  while ((got = read(watch_fd, buffer, sizeof(buffer))) > 0) {
    for (char *at = buffer; at < buffer + got;) {
      const struct inotify_event *event = reinterpret_cast<const struct inotify_event *>(at);
      const std::string name = event->len > 0 ? event->name : "";
      if (event->mask & IN_CREATE) created.push_back(name);
      if (event->mask & IN_OPEN) opened.push_back(name);
      at += sizeof(struct inotify_event) + event->len;
    }
  }
  close(watch_fd);

  ASSERT_EQ(2u, created.size());
  for (const std::string &name : created) {
    EXPECT_NE("test.ini.lock", name);
    EXPECT_EQ(0u, name.rfind("test.ini.tmp." + std::to_string(getpid()) + ".", 0)) << name;
  }
  EXPECT_NE(created[0], created[1]);
  for (const std::string &name : opened) EXPECT_NE("test.ini.lock", name);

  // Afterwards only the file and the untouched lock file are there.
  EXPECT_EQ((std::set<std::string>{"test.ini", "test.ini.lock"}), list_directory(dir_));
  EXPECT_EQ("lock content", read_file(lock));
  struct stat lock_after;
  ASSERT_EQ(0, stat(lock.c_str(), &lock_after));
  EXPECT_EQ(lock_before.st_ino, lock_after.st_ino);
  struct stat after;
  ASSERT_EQ(0, stat(path_.c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ("[s]\na=1\nb=2\n", read_file(path_));
}

TEST_F(IniTest, SaveKeepsTheModeOfTheFileItReplacesAndANewFileFollowsTheUmask) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  ASSERT_EQ(0, chmod(path_.c_str(), 0640));
  Ini ini(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_save_directio(ini.get(), path_.c_str(), 0));
  struct stat st;
  ASSERT_EQ(0, stat(path_.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);

  const std::string fresh = dir_ + "/fresh.ini";
  const mode_t old_mask = umask(027);
  const int result = tarn_ini_file_save(ini.get(), fresh.c_str(), 0);
  umask(old_mask);
  ASSERT_EQ(0, result);
  ASSERT_EQ(0, stat(fresh.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
}

TEST_F(IniTest, SaveKeepsTheOwnerOfTheFileItReplaces) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  ASSERT_EQ(0, chown(path_.c_str(), 1234, 2345));
  Ini ini(tarn_ini_file_load(path_.c_str()));
  ASSERT_TRUE(ini);
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  struct stat st;
  ASSERT_EQ(0, stat(path_.c_str(), &st));
  EXPECT_EQ(1234u, st.st_uid);
  EXPECT_EQ(2345u, st.st_gid);
}

TEST_F(IniTest, SaveIntoAMissingDirectoryFailsAndLeavesNothing) {
  Ini ini(load_text("[s]\na = 1\n"));
  ASSERT_TRUE(ini);
  const std::set<std::string> before = list_directory(dir_);
  const std::string missing = dir_ + "/missing/test.ini";
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_ini_file_save(ini.get(), missing.c_str(), 0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(ENOENT, tarn_ini_file_save_directio(ini.get(), missing.c_str(), 0));
  EXPECT_EQ(before, list_directory(dir_));
  struct stat st;
  EXPECT_NE(0, stat((dir_ + "/missing").c_str(), &st));
}

TEST_F(IniTest, SaveRejectsFlagsAndNullArgumentsAndChangesNothing) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  Ini ini(tarn_ini_file_load(nullptr));
  ASSERT_TRUE(ini);
  EXPECT_EQ(EINVAL, tarn_ini_file_save(ini.get(), path_.c_str(), 1));
  EXPECT_EQ(EINVAL, tarn_ini_file_save_directio(ini.get(), path_.c_str(), 0x4000));
  EXPECT_EQ(EINVAL, tarn_ini_file_save(nullptr, path_.c_str(), 0));
  EXPECT_EQ(EINVAL, tarn_ini_file_save(ini.get(), nullptr, 0));
  EXPECT_EQ(EINVAL, tarn_ini_file_save_directio(ini.get(), "", 0));
  EXPECT_EQ("[s]\na = 1\n", read_file(path_));
  EXPECT_EQ((std::set<std::string>{"test.ini"}), list_directory(dir_));
}

TEST_F(IniTest, SaveIntoAReadOnlyDirectoryFailsAndLeavesTheOldFile) {
  ASSERT_TRUE(write_file(path_, "[s]\na = 1\n"));
  ASSERT_EQ(0, chmod(path_.c_str(), 0666));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    tarn_ini_t *ini = tarn_ini_file_load(path_.c_str());
    if (ini == nullptr) return 11;
    tarn_ini_file_set(ini, "s", "a", "2");
    const int result = tarn_ini_file_save_directio(ini, path_.c_str(), 0);
    tarn_ini_file_free(ini);
    return result == EACCES ? 0 : 12;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, reap(pid));
  EXPECT_EQ("[s]\na = 1\n", read_file(path_));
  EXPECT_EQ((std::set<std::string>{"test.ini"}), list_directory(dir_));
}

TEST_F(IniTest, AStaleTemporaryFileOfTheSameNameIsTakenOver) {
  // What a dead process with this pid would have left behind.
  Ini ini(load_text("[s]\na = 1\n"));
  ASSERT_TRUE(ini);
  for (int n = 0; n < 1000; ++n) {
    ASSERT_TRUE(write_file(path_ + ".tmp." + std::to_string(getpid()) + "." + std::to_string(n), "stale"));
  }
  ASSERT_EQ(0, tarn_ini_file_save(ini.get(), path_.c_str(), 0));
  EXPECT_EQ("[s]\na=1\n", read_file(path_));
}

// A large object whose keys all carry the same marker, so that a file
// mixing two saves would show.
tarn_ini_t *large_object(const std::string &marker) {
  tarn_ini_t *ini = tarn_ini_file_load(nullptr);
  for (int section = 0; section < 40; ++section) {
    for (int key = 0; key < 50; ++key) {
      const std::string value = marker + "-" + std::to_string(section) + "-" + std::to_string(key) + "-" +
                                std::string(60, marker[0]);
      if (tarn_ini_file_set(ini, ("section" + std::to_string(section)).c_str(), ("key" + std::to_string(key)).c_str(),
                            value.c_str()) != 0) {
        tarn_ini_file_free(ini);
        return nullptr;
      }
    }
  }
  return ini;
}

TEST_F(IniTest, AProcessKilledAtAnyMomentOfASaveLeavesTheOldOrTheNewFile) {
  Ini old_object(large_object("old"));
  Ini new_object(large_object("new"));
  ASSERT_TRUE(old_object);
  ASSERT_TRUE(new_object);
  const Entries old_entries = entries_of(old_object.get());
  const Entries new_entries = entries_of(new_object.get());
  ASSERT_EQ(0, tarn_ini_file_save(old_object.get(), path_.c_str(), 0));
  const size_t file_size = read_file(path_).size();
  ASSERT_GT(file_size, 150000u);

  std::mt19937 random(12345);
  int saw_old = 0;
  int saw_new = 0;
  int left_behind = 0;
  for (int round = 0; round < 200; ++round) {
    tarn_test::Pipe started;
    ASSERT_TRUE(started.ok());
    const pid_t pid = fork_child([&] {
      started.close_read();
      started.send('s');
      // Saves alternate between the two objects, plain and durable.
      for (unsigned n = 0;; ++n) {
        tarn_ini_t *object = n % 2 == 0 ? new_object.get() : old_object.get();
        const int result =
            n % 4 < 2 ? tarn_ini_file_save(object, path_.c_str(), 0) : tarn_ini_file_save_directio(object, path_.c_str(), 0);
        if (result != 0) return 20;
      }
    });
    ASSERT_GT(pid, 0);
    started.close_write();
    ASSERT_EQ('s', started.receive());
    const struct timespec delay = {0, (long)std::uniform_int_distribution<int>(0, 3000)(random) * 1000};
    nanosleep(&delay, nullptr);
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_EQ(killed_by(SIGKILL), reap(pid)) << "round " << round;

    Ini loaded(tarn_ini_file_load(path_.c_str()));
    ASSERT_TRUE(loaded) << "round " << round << ": errno " << errno;
    const Entries entries = entries_of(loaded.get());
    if (entries == old_entries) {
      ++saw_old;
    } else if (entries == new_entries) {
      ++saw_new;
    } else {
      FAIL() << "round " << round << ": the file is neither the old nor the new content";
    }
    // The killed process's temporary file, if it was in the middle of a
    // save, is never the lock file's name; it is cleared for the next round.
    for (const std::string &name : list_directory(dir_)) {
      if (name == "test.ini") continue;
      ASSERT_EQ(0u, name.rfind("test.ini.tmp." + std::to_string(pid) + ".", 0)) << name;
      ++left_behind;
      unlink((dir_ + "/" + name).c_str());
    }
  }
  EXPECT_EQ(200, saw_old + saw_new);
  RecordProperty("old", saw_old);
  RecordProperty("new", saw_new);
  RecordProperty("killed_mid_save", left_behind);
}

}  // namespace
