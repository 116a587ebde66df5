// The shared allocator (tarn_zero_malloc_, tarn_strdup, tarn_free_) and
// string splitting (tarn_str_split, tarn_str_split_free) through
// libtarnbase.so. The allocator is interposed by fakes.h, which hands every
// call on to the library's own function unless a test makes it fail.

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_str.h>

#include "child_process.h"
#include "fakes.h"

// An allocation that cannot be satisfied must come back as null, as it
// does without the sanitizers, instead of ending the program. The
// sanitizer runtime looks this name up dynamically, hence visible.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using tarn_test::address_space;
using tarn_test::allocation_calls;
using tarn_test::fail_allocation_after;
using tarn_test::reset_fakes;

class StrTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_fakes(); }
};

// The pieces of str split at sep, or {"<null>"} when the split fails.
std::vector<std::string> split(const char *str, const char *sep) {
  uint32_t count = 0;
  char **pieces = tarn_str_split(str, sep, &count);
  if (pieces == nullptr) return {"<null>"};
  std::vector<std::string> all(pieces, pieces + count);
  tarn_str_split_free(pieces, count);
  return all;
}

using Pieces = std::vector<std::string>;

// ---------------------------------------------------------------------------
// tarn_str_split

TEST_F(StrTest, SplitKeepsEmptyPiecesBetweenSeparators) {
  EXPECT_EQ((Pieces{"1", "", "3"}), split("1..3", "."));
  EXPECT_EQ((Pieces{"1", "2", "3"}), split("1.2.3", "."));
}

TEST_F(StrTest, SplitKeepsEmptyPiecesAtEitherEnd) {
  EXPECT_EQ((Pieces{"", "1", "2"}), split(".1.2", "."));
  EXPECT_EQ((Pieces{"a", ""}), split("a.", "."));
  EXPECT_EQ((Pieces{"", ""}), split(".", "."));
  EXPECT_EQ((Pieces{"", "", ""}), split("..", "."));
}

TEST_F(StrTest, SplitOfTheEmptyStringIsOneEmptyPiece) { EXPECT_EQ(Pieces{""}, split("", ".")); }

TEST_F(StrTest, SplitWithoutASeparatorIsOneCopy) {
  uint32_t count = 0;
  const char *text = "abc";
  char **pieces = tarn_str_split(text, ".", &count);
  ASSERT_NE(nullptr, pieces);
  ASSERT_EQ(1u, count);
  EXPECT_STREQ("abc", pieces[0]);
  EXPECT_NE(text, pieces[0]);
  tarn_str_split_free(pieces, count);
}

TEST_F(StrTest, SplitAtAMultiCharacterSeparator) {
  EXPECT_EQ((Pieces{"a", "b", "", "c"}), split("a::b::::c", "::"));
  EXPECT_EQ((Pieces{"", ""}), split("::", "::"));
  EXPECT_EQ(Pieces{"a:b"}, split("a:b", "::"));
  EXPECT_EQ((Pieces{"1", "2"}), split("1<->2", "<->"));
  // Occurrences are taken from the left and do not overlap.
  EXPECT_EQ((Pieces{"", "a"}), split("aaa", "aa"));
  EXPECT_EQ((Pieces{"", "", ""}), split("aaaa", "aa"));
}

TEST_F(StrTest, SplitPiecesAreSeparateTerminatedBlocks) {
  uint32_t count = 0;
  char **pieces = tarn_str_split("ab,c,,d", ",", &count);
  ASSERT_NE(nullptr, pieces);
  ASSERT_EQ(4u, count);
  // Each piece is its own block: writing one leaves the others alone.
  pieces[0][0] = 'X';
  EXPECT_STREQ("Xb", pieces[0]);
  EXPECT_STREQ("c", pieces[1]);
  EXPECT_STREQ("", pieces[2]);
  EXPECT_STREQ("d", pieces[3]);
  tarn_str_split_free(pieces, count);
}

TEST_F(StrTest, SplitRefusesNullArgumentsAndAnEmptySeparatorLeavingTheCountAlone) {
  struct Case {
    const char *str;
    const char *sep;
    bool with_count;
  } cases[] = {{nullptr, ".", true}, {"a.b", nullptr, true}, {"a.b", "", true}, {"a.b", ".", false}};
  for (const Case &c : cases) {
    uint32_t count = 77;
    errno = 0;
    EXPECT_EQ(nullptr, tarn_str_split(c.str, c.sep, c.with_count ? &count : nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(77u, count);
  }
}

TEST_F(StrTest, SplitThatRunsOutOfMemoryFreesWhatItMadeAndLeavesTheCountAlone) {
  // "a.b.c": the array and three pieces, four allocations; each in turn fails.
  const unsigned before = allocation_calls();
  EXPECT_EQ((Pieces{"a", "b", "c"}), split("a.b.c", "."));
  ASSERT_EQ(before + 4, allocation_calls());
  for (unsigned succeeding = 0; succeeding < 4; ++succeeding) {
    fail_allocation_after(succeeding);
    uint32_t count = 77;
    errno = 0;
    EXPECT_EQ(nullptr, tarn_str_split("a.b.c", ".", &count)) << succeeding;
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(77u, count);
  }
  EXPECT_EQ((Pieces{"a", "b", "c"}), split("a.b.c", "."));
}

// ---------------------------------------------------------------------------
// tarn_zero_malloc_, tarn_strdup, tarn_free_

TEST_F(StrTest, ZeroMallocGivesZeroFilledBlocks) {
  for (size_t size : {1u, 7u, 4096u, 100000u}) {
    unsigned char *block = static_cast<unsigned char *>(tarn_zero_malloc_(size));
    ASSERT_NE(nullptr, block);
    std::vector<unsigned char> zeros(size, 0);
    EXPECT_EQ(0, memcmp(zeros.data(), block, size)) << size;
    memset(block, 0xff, size);  // the whole block is writable
    tarn_free_(block);
  }
}

TEST_F(StrTest, ZeroMallocOfZeroBytesIsANonNullBlock) {
  void *block = tarn_zero_malloc_(0);
  EXPECT_NE(nullptr, block);
  EXPECT_EQ(0, *static_cast<unsigned char *>(block)) << "one zero byte";
  tarn_free_(block);
}

TEST_F(StrTest, ZeroMallocThatCannotBeSatisfiedIsNullWithEnomem) {
  errno = 0;
  EXPECT_EQ(nullptr, tarn_zero_malloc_(SIZE_MAX));
  EXPECT_EQ(ENOMEM, errno);
  // Above PTRDIFF_MAX, which malloc refuses on every word width; SIZE_MAX / 2
  // itself is 2 GiB on a 32-bit machine, and may be granted.
  errno = 0;
  EXPECT_EQ(nullptr, tarn_zero_malloc_(SIZE_MAX / 2 + 1));
  EXPECT_EQ(ENOMEM, errno);
}

TEST_F(StrTest, StrdupCopiesIntoANewBlock) {
  const char *texts[] = {"", "a", "some longer text with blanks", "\xc3\xa9t\xc3\xa9"};
  for (const char *text : texts) {
    char *copy = tarn_strdup(text);
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(text, copy);
    EXPECT_STREQ(text, copy);
    tarn_free_(copy);
  }
}

TEST_F(StrTest, StrdupThatCannotBeSatisfiedIsNullWithEnomem) {
  // A child whose address space may grow by 8 MiB copies a text of 32 MiB.
  const pid_t pid = tarn_test::fork_child([] {
    const std::string text(32u << 20, 'x');
    const uint64_t held = address_space();
    if (held == 0) return 10;
    struct rlimit limit;
    limit.rlim_cur = limit.rlim_max = held + (8u << 20);
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 11;
    errno = 0;
    char *copy = tarn_strdup(text.c_str());
    if (copy != nullptr) return 12;
    return errno == ENOMEM ? 0 : 13;
  });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, tarn_test::reap(pid));
}

TEST_F(StrTest, StrdupOfNullIsEinval) {
  errno = 0;
  EXPECT_EQ(nullptr, tarn_strdup(nullptr));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(StrTest, FreeAndSplitFreeIgnoreNull) {
  tarn_free_(nullptr);
  tarn_str_split_free(nullptr, 0);
  tarn_str_split_free(nullptr, 5);
}

TEST_F(StrTest, StrlenCountsTheBytesBeforeTheTerminatorAndNullIsZero) {
  EXPECT_EQ(0u, tarn_strlen(nullptr));
  EXPECT_EQ(0u, tarn_strlen(""));
  EXPECT_EQ(3u, tarn_strlen("abc"));
  EXPECT_EQ(5u, tarn_strlen("\xc3\xa9t\xc3\xa9"));  // bytes, not characters
  const char embedded[] = {'a', 'b', '\0', 'c', '\0'};
  EXPECT_EQ(2u, tarn_strlen(embedded));
}

}  // namespace
