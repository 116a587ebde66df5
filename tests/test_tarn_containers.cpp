// The base library's containers and identifiers through libtarnbase.so: the
// growable array of pointers (tarn_vector), the hash table with byte-string
// keys and insertion-order walks (tarn_xhash), and random UUIDs with their
// text form (tarn_uuid). Allocation failures are injected through the
// interposed tarn_zero_malloc_ (fakes.h), which the library's own calls
// reach too.

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_uuid.h>
#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

#include "fakes.h"

namespace {

using tarn_test::allocation_calls;
using tarn_test::fail_allocation_after;
using tarn_test::reset_fakes;

class ContainersTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_fakes(); }
};

// Element and value free functions that record what they were given.
std::vector<void *> g_freed;
void record_free(void *element) { g_freed.push_back(element); }

// Distinct non-null pointers to store.
int g_items[64];
void *item(int i) { return &g_items[i]; }

std::vector<void *> contents(const tarn_vector_t *vector) {
  std::vector<void *> all;
  for (size_t i = 0; i < tarn_vector_size(vector); ++i) all.push_back(tarn_vector_pos_at(vector, i));
  return all;
}

// The keys of a table as strings (copies of the stored bytes), in walk order.
std::vector<std::string> walk_keys(const tarn_xhash_t *table) {
  std::vector<std::string> keys;
  for (tarn_xhash_entry_t *entry = tarn_xhash_first(table); entry != nullptr;
       entry = tarn_xhash_next(table, entry)) {
    size_t length = 0;
    const char *key = static_cast<const char *>(tarn_xhash_entry_key(entry, &length));
    keys.emplace_back(key, length);
  }
  return keys;
}

// Inserts text with its terminator counted, as the library's callers do.
int insert_text(tarn_xhash_t *table, const char *text, void *value) {
  return tarn_xhash_insert(table, text, strlen(text) + 1, value);
}

void *search_text(const tarn_xhash_t *table, const char *text) {
  void *value = nullptr;
  return tarn_xhash_search(table, text, strlen(text) + 1, &value) == 0 ? value : nullptr;
}

// ---------------------------------------------------------------------------
// tarn_vector

TEST_F(ContainersTest, VectorKeepsElementsInPushOrderAndGrowsPastItsCapacity) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 1));
  ASSERT_NE(nullptr, vector);
  EXPECT_EQ(0u, tarn_vector_size(vector));
  std::vector<void *> expected;
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(0, tarn_vector_push_back(vector, item(i)));
    expected.push_back(item(i));
    ASSERT_EQ(expected.size(), tarn_vector_size(vector));
  }
  EXPECT_EQ(expected, contents(vector));
  tarn_vector_destroy(vector, nullptr);
}

TEST_F(ContainersTest, VectorCapacityZeroTakesADefaultAndNullElementsAreElements) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 0));
  ASSERT_EQ(0, tarn_vector_push_back(vector, nullptr));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(1)));
  EXPECT_EQ(2u, tarn_vector_size(vector));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(vector, 0));
  EXPECT_EQ(item(1), tarn_vector_pos_at(vector, 1));
  tarn_vector_destroy(vector, nullptr);
}

TEST_F(ContainersTest, VectorPosAtTheSizeOrBeyondIsNull) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 4));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(vector, 0));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(0)));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(1)));
  EXPECT_EQ(item(1), tarn_vector_pos_at(vector, 1));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(vector, 2));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(vector, SIZE_MAX));
  tarn_vector_destroy(vector, nullptr);
}

TEST_F(ContainersTest, VectorPopBackDropsTheLastElementWithoutFreeingIt) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 2));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(0)));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(1)));
  g_freed.clear();
  EXPECT_EQ(0, tarn_vector_pop_back(vector));
  EXPECT_EQ(std::vector<void *>{item(0)}, contents(vector));
  EXPECT_EQ(0, tarn_vector_pop_back(vector));
  EXPECT_EQ(0u, tarn_vector_size(vector));
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_vector_pop_back(vector));
  EXPECT_EQ(ENOENT, errno);
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(2)));
  EXPECT_EQ(std::vector<void *>{item(2)}, contents(vector));
  tarn_vector_destroy(vector, record_free);
  EXPECT_EQ(std::vector<void *>{item(2)}, g_freed);
}

TEST_F(ContainersTest, VectorClearFreesEachElementInOrderAndStaysUsable) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 2));
  for (int i = 0; i < 5; ++i) ASSERT_EQ(0, tarn_vector_push_back(vector, item(i)));
  ASSERT_EQ(0, tarn_vector_push_back(vector, nullptr));
  g_freed.clear();
  EXPECT_EQ(0, tarn_vector_clear(vector, record_free));
  EXPECT_EQ((std::vector<void *>{item(0), item(1), item(2), item(3), item(4), nullptr}), g_freed);
  EXPECT_EQ(0u, tarn_vector_size(vector));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(vector, 0));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(9)));
  EXPECT_EQ(std::vector<void *>{item(9)}, contents(vector));
  g_freed.clear();
  EXPECT_EQ(0, tarn_vector_clear(vector, nullptr));
  EXPECT_TRUE(g_freed.empty());
  EXPECT_EQ(0u, tarn_vector_size(vector));
  tarn_vector_destroy(vector, record_free);
  EXPECT_TRUE(g_freed.empty());
}

TEST_F(ContainersTest, VectorDestroyFreesOwnedElementsWithTheGivenFunction) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 1));
  // Strings from the shared allocator, freed by tarn_free_ (a leak would
  // show in the sanitizer build).
  for (const char *text : {"a", "bb", "ccc"}) {
    ASSERT_EQ(0, tarn_vector_push_back(vector, tarn_strdup(text)));
  }
  EXPECT_STREQ("bb", static_cast<const char *>(tarn_vector_pos_at(vector, 1)));
  tarn_vector_destroy(vector, tarn_free_);
}

TEST_F(ContainersTest, VectorNullArguments) {
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_vector_create(nullptr, 4));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, tarn_vector_push_back(nullptr, item(0)));
  EXPECT_EQ(EINVAL, tarn_vector_pop_back(nullptr));
  EXPECT_EQ(EINVAL, tarn_vector_clear(nullptr, record_free));
  EXPECT_EQ(0u, tarn_vector_size(nullptr));
  EXPECT_EQ(nullptr, tarn_vector_pos_at(nullptr, 0));
  g_freed.clear();
  tarn_vector_destroy(nullptr, record_free);
  EXPECT_TRUE(g_freed.empty());
}

TEST_F(ContainersTest, VectorCreateFailingAllocationsGiveEnomemAndANullVector) {
  for (unsigned succeeding = 0; succeeding < 2; ++succeeding) {
    tarn_vector_t *vector = reinterpret_cast<tarn_vector_t *>(item(0));
    fail_allocation_after(succeeding);
    errno = 0;
    EXPECT_EQ(ENOMEM, tarn_vector_create(&vector, 4)) << succeeding;
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(nullptr, vector);
  }
  // A capacity that no allocation can hold.
  tarn_vector_t *vector = nullptr;
  EXPECT_EQ(ENOMEM, tarn_vector_create(&vector, SIZE_MAX / 2));
  EXPECT_EQ(nullptr, vector);
}

TEST_F(ContainersTest, VectorPushBackThatCannotGrowLeavesTheVectorUnchanged) {
  tarn_vector_t *vector = nullptr;
  ASSERT_EQ(0, tarn_vector_create(&vector, 2));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(0)));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(1)));
  const unsigned before = allocation_calls();
  fail_allocation_after(0);
  errno = 0;
  EXPECT_EQ(ENOMEM, tarn_vector_push_back(vector, item(2)));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(before + 1, allocation_calls());
  EXPECT_EQ((std::vector<void *>{item(0), item(1)}), contents(vector));
  ASSERT_EQ(0, tarn_vector_push_back(vector, item(2)));
  EXPECT_EQ((std::vector<void *>{item(0), item(1), item(2)}), contents(vector));
  tarn_vector_destroy(vector, nullptr);
}

// ---------------------------------------------------------------------------
// tarn_xhash

TEST_F(ContainersTest, XhashInsertSearchAndCount) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  EXPECT_EQ(0u, tarn_xhash_count(table));
  EXPECT_EQ(0, insert_text(table, "-a", item(1)));
  EXPECT_EQ(0, insert_text(table, "-b", item(2)));
  EXPECT_EQ(2u, tarn_xhash_count(table));
  EXPECT_EQ(item(1), search_text(table, "-a"));
  EXPECT_EQ(item(2), search_text(table, "-b"));
  void *value = item(9);
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_xhash_search(table, "-c", 3, &value));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(item(9), value) << "a miss leaves *value alone";
  EXPECT_EQ(0, tarn_xhash_search(table, "-a", 3, nullptr)) << "a membership test needs no value";
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashKeysAreBytesOfTheGivenLength) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  ASSERT_EQ(0, tarn_xhash_insert(table, "-p", 3, item(1)));
  void *value = nullptr;
  EXPECT_EQ(ENOENT, tarn_xhash_search(table, "-p", 2, &value)) << "without the terminator";
  EXPECT_EQ(ENOENT, tarn_xhash_search(table, "-pq", 3, &value));
  EXPECT_EQ(0, tarn_xhash_insert(table, "-p", 2, item(2))) << "another key";
  EXPECT_EQ(0, tarn_xhash_search(table, "-p", 2, &value));
  EXPECT_EQ(item(2), value);
  // Keys with zero bytes inside, and the empty key.
  const char binary[] = {'a', '\0', 'b'};
  EXPECT_EQ(0, tarn_xhash_insert(table, binary, sizeof(binary), item(3)));
  EXPECT_EQ(0, tarn_xhash_insert(table, "a", 1, item(4)));
  EXPECT_EQ(0, tarn_xhash_insert(table, "", 0, item(5)));
  EXPECT_EQ(0, tarn_xhash_search(table, binary, sizeof(binary), &value));
  EXPECT_EQ(item(3), value);
  EXPECT_EQ(0, tarn_xhash_search(table, "", 0, &value));
  EXPECT_EQ(item(5), value);
  EXPECT_EQ(5u, tarn_xhash_count(table));
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashCopiesItsKeysAndTerminatesTheCopy) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  char key[] = "-x";
  ASSERT_EQ(0, tarn_xhash_insert(table, key, 2, item(1)));  // terminator not counted
  key[1] = 'y';
  EXPECT_EQ(nullptr, search_text(table, "-x")) << "the key with its terminator is another key";
  void *value = nullptr;
  EXPECT_EQ(0, tarn_xhash_search(table, "-x", 2, &value));
  EXPECT_EQ(item(1), value);
  EXPECT_EQ(ENOENT, tarn_xhash_search(table, "-y", 2, &value));
  size_t length = 99;
  const char *stored = static_cast<const char *>(tarn_xhash_entry_key(tarn_xhash_first(table), &length));
  EXPECT_EQ(2u, length);
  EXPECT_STREQ("-x", stored);
  EXPECT_NE(static_cast<const void *>(key), static_cast<const void *>(stored));
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashInsertOfAPresentKeyIsEexistAndKeepsTheOldValue) {
  tarn_xhash_t *table = tarn_xhash_create(0, record_free);
  ASSERT_NE(nullptr, table);
  ASSERT_EQ(0, insert_text(table, "k", item(1)));
  g_freed.clear();
  errno = 0;
  EXPECT_EQ(EEXIST, insert_text(table, "k", item(2)));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_TRUE(g_freed.empty()) << "the refused value stays the caller's";
  EXPECT_EQ(item(1), search_text(table, "k"));
  EXPECT_EQ(1u, tarn_xhash_count(table));
  tarn_xhash_destroy(table);
  EXPECT_EQ(std::vector<void *>{item(1)}, g_freed);
}

TEST_F(ContainersTest, XhashWalksInInsertionOrderTheSameEachTime) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  std::vector<std::string> expected;
  // Enough keys to make the table grow several times.
  for (int i = 0; i < 200; ++i) {
    const std::string key = "key" + std::to_string((i * 37) % 200);
    ASSERT_EQ(0, tarn_xhash_insert(table, key.data(), key.size(), item(i % 64)));
    expected.push_back(key);
  }
  EXPECT_EQ(200u, tarn_xhash_count(table));
  EXPECT_EQ(expected, walk_keys(table));
  EXPECT_EQ(expected, walk_keys(table));
  for (int i = 0; i < 200; ++i) {
    void *value = nullptr;
    ASSERT_EQ(0, tarn_xhash_search(table, expected[i].data(), expected[i].size(), &value)) << i;
    EXPECT_EQ(item(i % 64), value);
  }
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashDeleteFreesTheValueAndAReinsertedKeyComesLast) {
  tarn_xhash_t *table = tarn_xhash_create(4, record_free);
  ASSERT_NE(nullptr, table);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(0, insert_text(table, std::string(1, (char)('a' + i)).c_str(), item(i)));
  }
  g_freed.clear();
  EXPECT_EQ(0, tarn_xhash_delete(table, "b", 2));
  EXPECT_EQ(std::vector<void *>{item(1)}, g_freed);
  EXPECT_EQ(3u, tarn_xhash_count(table));
  EXPECT_EQ(nullptr, search_text(table, "b"));
  EXPECT_EQ((std::vector<std::string>{std::string("a", 2), std::string("c", 2), std::string("d", 2)}),
            walk_keys(table));
  errno = 0;
  EXPECT_EQ(ENOENT, tarn_xhash_delete(table, "b", 2));
  EXPECT_EQ(ENOENT, errno);
  // The first and the last entry.
  EXPECT_EQ(0, tarn_xhash_delete(table, "a", 2));
  EXPECT_EQ(0, tarn_xhash_delete(table, "d", 2));
  EXPECT_EQ(std::vector<std::string>{std::string("c", 2)}, walk_keys(table));
  ASSERT_EQ(0, insert_text(table, "a", item(7)));
  EXPECT_EQ((std::vector<std::string>{std::string("c", 2), std::string("a", 2)}), walk_keys(table));
  EXPECT_EQ(0, tarn_xhash_delete(table, "c", 2));
  EXPECT_EQ(0, tarn_xhash_delete(table, "a", 2));
  EXPECT_EQ(0u, tarn_xhash_count(table));
  EXPECT_EQ(nullptr, tarn_xhash_first(table));
  EXPECT_EQ((std::vector<void *>{item(1), item(0), item(3), item(2), item(7)}), g_freed);
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashWithoutAFreeFunctionLeavesValuesToTheCaller) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  char *owned = tarn_strdup("value");
  ASSERT_EQ(0, insert_text(table, "k", owned));
  ASSERT_EQ(0, insert_text(table, "j", owned));
  EXPECT_EQ(0, tarn_xhash_delete(table, "k", 2));
  tarn_xhash_destroy(table);
  EXPECT_STREQ("value", owned) << "still the caller's, and still alive";
  tarn_free_(owned);
}

TEST_F(ContainersTest, XhashDestroyFreesEveryValueInInsertionOrder) {
  tarn_xhash_t *table = tarn_xhash_create(0, record_free);
  ASSERT_NE(nullptr, table);
  for (int i = 0; i < 30; ++i) {
    const std::string key = std::to_string(30 - i);
    ASSERT_EQ(0, insert_text(table, key.c_str(), item(i)));
  }
  ASSERT_EQ(0, insert_text(table, "null", nullptr));
  g_freed.clear();
  tarn_xhash_destroy(table);
  std::vector<void *> expected;
  for (int i = 0; i < 30; ++i) expected.push_back(item(i));
  expected.push_back(nullptr);
  EXPECT_EQ(expected, g_freed);
}

TEST_F(ContainersTest, XhashAWalkVisitsEntriesInsertedDuringIt) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  ASSERT_EQ(0, insert_text(table, "1", item(1)));
  std::vector<std::string> seen;
  for (tarn_xhash_entry_t *entry = tarn_xhash_first(table); entry != nullptr;
       entry = tarn_xhash_next(table, entry)) {
    const std::string key = static_cast<const char *>(tarn_xhash_entry_key(entry, nullptr));
    seen.push_back(key);
    if (seen.size() < 20) {
      ASSERT_EQ(0, insert_text(table, std::to_string(seen.size() + 1).c_str(), nullptr));
    }
  }
  EXPECT_EQ(20u, seen.size());
  EXPECT_EQ("20", seen.back());
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashEntryAccessorsAndNullArguments) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  ASSERT_EQ(0, insert_text(table, "only", item(5)));
  tarn_xhash_entry_t *entry = tarn_xhash_first(table);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(item(5), tarn_xhash_entry_value(entry));
  EXPECT_STREQ("only", static_cast<const char *>(tarn_xhash_entry_key(entry, nullptr)));
  EXPECT_EQ(nullptr, tarn_xhash_next(table, entry));
  EXPECT_EQ(nullptr, tarn_xhash_next(table, nullptr));
  EXPECT_EQ(nullptr, tarn_xhash_next(nullptr, entry));
  size_t length = 7;
  EXPECT_EQ(nullptr, tarn_xhash_entry_key(nullptr, &length));
  EXPECT_EQ(0u, length);
  EXPECT_EQ(nullptr, tarn_xhash_entry_value(nullptr));
  EXPECT_EQ(nullptr, tarn_xhash_first(nullptr));
  EXPECT_EQ(0u, tarn_xhash_count(nullptr));
  void *value = nullptr;
  EXPECT_EQ(EINVAL, tarn_xhash_insert(nullptr, "k", 2, item(0)));
  EXPECT_EQ(EINVAL, tarn_xhash_insert(table, nullptr, 2, item(0)));
  EXPECT_EQ(EINVAL, tarn_xhash_search(nullptr, "k", 2, &value));
  EXPECT_EQ(EINVAL, tarn_xhash_search(table, nullptr, 2, &value));
  EXPECT_EQ(EINVAL, tarn_xhash_delete(nullptr, "k", 2));
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_xhash_delete(table, nullptr, 2));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(1u, tarn_xhash_count(table));
  tarn_xhash_destroy(table);
  tarn_xhash_destroy(nullptr);
}

TEST_F(ContainersTest, XhashCreateFailingAllocationsGiveNullWithEnomem) {
  for (unsigned succeeding = 0; succeeding < 2; ++succeeding) {
    fail_allocation_after(succeeding);
    errno = 0;
    EXPECT_EQ(nullptr, tarn_xhash_create(0, record_free)) << succeeding;
    EXPECT_EQ(ENOMEM, errno);
  }
  tarn_xhash_t *table = tarn_xhash_create(0, record_free);
  EXPECT_NE(nullptr, table);
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashInsertThatCannotAllocateLeavesTheTableUnchanged) {
  tarn_xhash_t *table = tarn_xhash_create(0, record_free);
  ASSERT_NE(nullptr, table);
  ASSERT_EQ(0, insert_text(table, "a", item(0)));
  fail_allocation_after(0);
  errno = 0;
  g_freed.clear();
  EXPECT_EQ(ENOMEM, insert_text(table, "b", item(1)));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_TRUE(g_freed.empty()) << "the value stays the caller's";
  EXPECT_EQ(1u, tarn_xhash_count(table));
  EXPECT_EQ(nullptr, search_text(table, "b"));
  EXPECT_EQ(std::vector<std::string>{std::string("a", 2)}, walk_keys(table));
  tarn_xhash_destroy(table);
}

TEST_F(ContainersTest, XhashThatCannotGrowItsBucketsStillWorks) {
  tarn_xhash_t *table = tarn_xhash_create(0, nullptr);
  ASSERT_NE(nullptr, table);
  // Every insert allocates its entry; an insert that outgrows the buckets
  // allocates the larger array after it. Fail each second allocation from
  // the 17th insert on: the growth fails, the entries do not.
  std::vector<std::string> keys;
  for (int i = 0; i < 100; ++i) {
    const std::string key = "k" + std::to_string(i);
    const unsigned before = allocation_calls();
    if (i >= 16) fail_allocation_after(1);
    ASSERT_EQ(0, tarn_xhash_insert(table, key.data(), key.size(), item(i % 64))) << i;
    if (i >= 16) {
      EXPECT_EQ(before + 2, allocation_calls()) << "the growth was tried: " << i;
    }
    keys.push_back(key);
  }
  EXPECT_EQ(keys, walk_keys(table));
  for (int i = 0; i < 100; ++i) {
    void *value = nullptr;
    ASSERT_EQ(0, tarn_xhash_search(table, keys[i].data(), keys[i].size(), &value)) << i;
    EXPECT_EQ(item(i % 64), value);
  }
  tarn_xhash_destroy(table);
}

// ---------------------------------------------------------------------------
// tarn_uuid

std::string uuid_text(const tarn_uuid_t &uuid) {
  char text[TARN_UUID_CSTR_SIZE];
  EXPECT_EQ(0, tarn_uuid_make_cstr(&uuid, text, sizeof(text)));
  return text;
}

TEST(Uuid, TheTextFormIsThirtySixLowerCaseCharacters) {
  tarn_uuid_t uuid;
  ASSERT_EQ(0, tarn_uuid_create(&uuid));
  const std::string text = uuid_text(uuid);
  ASSERT_EQ(36u, text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      EXPECT_EQ('-', text[i]) << text;
    } else {
      EXPECT_TRUE(isdigit((unsigned char)text[i]) || (text[i] >= 'a' && text[i] <= 'f')) << text;
    }
  }
  // A random (version 4, variant 1) identifier.
  EXPECT_EQ('4', text[14]) << text;
  EXPECT_NE(std::string::npos, std::string("89ab").find(text[19])) << text;
}

TEST(Uuid, TheTextFormSpellsTheBytesInOrder) {
  tarn_uuid_t uuid;
  for (int i = 0; i < 16; ++i) uuid.bytes[i] = (unsigned char)(0x10 * (i % 16) + 0x0f - i);
  EXPECT_EQ("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0", uuid_text(uuid));
}

TEST(Uuid, EachIdentifierIsNew) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    tarn_uuid_t uuid;
    ASSERT_EQ(0, tarn_uuid_create(&uuid));
    EXPECT_TRUE(seen.insert(uuid_text(uuid)).second);
  }
}

TEST(Uuid, AShortBufferHoldsAnEmptyStringNeverACutIdentifier) {
  tarn_uuid_t uuid;
  ASSERT_EQ(0, tarn_uuid_create(&uuid));
  char text[TARN_UUID_CSTR_SIZE];
  memset(text, 'x', sizeof(text));
  errno = 0;
  EXPECT_EQ(ERANGE, tarn_uuid_make_cstr(&uuid, text, TARN_UUID_CSTR_SIZE - 1));
  EXPECT_EQ(ERANGE, errno);
  EXPECT_STREQ("", text);
  EXPECT_EQ(ERANGE, tarn_uuid_make_cstr(&uuid, text, 1));
  EXPECT_STREQ("", text);
}

TEST(Uuid, NullArgumentsAreEinvalAndWriteNothing) {
  tarn_uuid_t uuid;
  ASSERT_EQ(0, tarn_uuid_create(&uuid));
  char text[TARN_UUID_CSTR_SIZE] = "unchanged";
  errno = 0;
  EXPECT_EQ(EINVAL, tarn_uuid_create(nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, tarn_uuid_make_cstr(nullptr, text, sizeof(text)));
  EXPECT_EQ(EINVAL, tarn_uuid_make_cstr(&uuid, nullptr, sizeof(text)));
  EXPECT_EQ(EINVAL, tarn_uuid_make_cstr(&uuid, text, 0));
  EXPECT_STREQ("unchanged", text);
}

}  // namespace
