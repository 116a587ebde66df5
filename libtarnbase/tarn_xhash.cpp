// A hash table with separate chaining, whose entries are also linked in
// insertion order for walks. Allocations go through tarn_zero_malloc_ so
// that tests can make any of them fail.

#include "tarnbase/tarn_xhash.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "tarnbase/tarn_mem.h"
#include "errno_result.h"

// An entry and, right after it in the same block, its key and a zero byte.
struct tarn_xhash_entry {
  tarn_xhash_entry *chain;  // next entry in the same bucket
  tarn_xhash_entry *older;  // insertion order
  tarn_xhash_entry *newer;
  uint64_t hash;
  size_t key_length;
  void *value;
};

struct tarn_xhash {
  tarn_xhash_entry **buckets;
  size_t bucket_count;  // a power of two
  size_t count;
  tarn_xhash_entry *oldest;
  tarn_xhash_entry *newest;
  tarn_xhash_free_fn free_value;
};

namespace {

constexpr size_t kDefaultBuckets = 16;

using tarnbase::fail;

// FNV-1a, 64 bits.
uint64_t hash_of(const void *key, size_t length) {
  const unsigned char *bytes = static_cast<const unsigned char *>(key);
  uint64_t hash = 14695981039346656037ull;
  for (size_t i = 0; i < length; ++i) {
    hash ^= bytes[i];
    hash *= 1099511628211ull;
  }
  return hash;
}

unsigned char *key_of(const tarn_xhash_entry *entry) {
  return reinterpret_cast<unsigned char *>(const_cast<tarn_xhash_entry *>(entry) + 1);
}

tarn_xhash_entry **allocate_buckets(size_t count) {
  if (count > SIZE_MAX / sizeof(tarn_xhash_entry *)) {
    errno = ENOMEM;
    return nullptr;
  }
  return static_cast<tarn_xhash_entry **>(tarn_zero_malloc_(count * sizeof(tarn_xhash_entry *)));
}

size_t bucket_count_for(size_t capacity) {
  size_t count = kDefaultBuckets;
  while (count < capacity && count <= SIZE_MAX / 4) count *= 2;
  return count;
}

// The slot that points to key's entry, or to the null at the end of its
// bucket's chain when the key is not there.
tarn_xhash_entry **find_slot(const tarn_xhash *table, const void *key, size_t key_length,
                             uint64_t hash) {
  tarn_xhash_entry **slot = &table->buckets[hash & (table->bucket_count - 1)];
  for (; *slot != nullptr; slot = &(*slot)->chain) {
    const tarn_xhash_entry *entry = *slot;
    if (entry->hash == hash && entry->key_length == key_length &&
        memcmp(key_of(entry), key, key_length) == 0) {
      break;
    }
  }
  return slot;
}

// Doubles the buckets once the entries outnumber them. When the larger
// array cannot be had the table keeps working with the chains it has.
void grow(tarn_xhash *table) {
  if (table->count <= table->bucket_count || table->bucket_count > SIZE_MAX / 4) return;
  const size_t count = table->bucket_count * 2;
  tarn_xhash_entry **buckets = allocate_buckets(count);
  if (buckets == nullptr) return;
  for (tarn_xhash_entry *entry = table->oldest; entry != nullptr; entry = entry->newer) {
    tarn_xhash_entry **head = &buckets[entry->hash & (count - 1)];
    entry->chain = *head;
    *head = entry;
  }
  tarn_free_(table->buckets);
  table->buckets = buckets;
  table->bucket_count = count;
}

}  // namespace

extern "C" {

TARNBASE_API tarn_xhash_t *tarn_xhash_create(size_t capacity, tarn_xhash_free_fn free_value) {
  tarn_xhash *table = static_cast<tarn_xhash *>(tarn_zero_malloc_(sizeof(tarn_xhash)));
  if (table == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  table->bucket_count = bucket_count_for(capacity);
  table->buckets = allocate_buckets(table->bucket_count);
  if (table->buckets == nullptr) {
    tarn_free_(table);
    errno = ENOMEM;
    return nullptr;
  }
  table->free_value = free_value;
  return table;
}

TARNBASE_API int tarn_xhash_insert(tarn_xhash_t *table, const void *key, size_t key_length, void *value) {
  if (table == nullptr || key == nullptr) return fail(EINVAL);
  const uint64_t hash = hash_of(key, key_length);
  tarn_xhash_entry **slot = find_slot(table, key, key_length, hash);
  if (*slot != nullptr) return fail(EEXIST);
  if (key_length > SIZE_MAX - sizeof(tarn_xhash_entry) - 1) return fail(ENOMEM);
  tarn_xhash_entry *entry =
      static_cast<tarn_xhash_entry *>(tarn_zero_malloc_(sizeof(tarn_xhash_entry) + key_length + 1));
  if (entry == nullptr) return fail(ENOMEM);
  memcpy(key_of(entry), key, key_length);
  entry->hash = hash;
  entry->key_length = key_length;
  entry->value = value;
  *slot = entry;
  entry->older = table->newest;
  if (table->newest != nullptr) {
    table->newest->newer = entry;
  } else {
    table->oldest = entry;
  }
  table->newest = entry;
  ++table->count;
  grow(table);
  return 0;
}

TARNBASE_API int tarn_xhash_search(const tarn_xhash_t *table, const void *key, size_t key_length,
                                   void **value) {
  if (table == nullptr || key == nullptr) return fail(EINVAL);
  const tarn_xhash_entry *entry = *find_slot(table, key, key_length, hash_of(key, key_length));
  if (entry == nullptr) return fail(ENOENT);
  if (value != nullptr) *value = entry->value;
  return 0;
}

TARNBASE_API int tarn_xhash_delete(tarn_xhash_t *table, const void *key, size_t key_length) {
  if (table == nullptr || key == nullptr) return fail(EINVAL);
  tarn_xhash_entry **slot = find_slot(table, key, key_length, hash_of(key, key_length));
  tarn_xhash_entry *entry = *slot;
  if (entry == nullptr) return fail(ENOENT);
  *slot = entry->chain;
  (entry->older != nullptr ? entry->older->newer : table->oldest) = entry->newer;
  (entry->newer != nullptr ? entry->newer->older : table->newest) = entry->older;
  --table->count;
  if (table->free_value != nullptr) table->free_value(entry->value);
  tarn_free_(entry);
  return 0;
}

TARNBASE_API size_t tarn_xhash_count(const tarn_xhash_t *table) {
  return table != nullptr ? table->count : 0;
}

TARNBASE_API tarn_xhash_entry_t *tarn_xhash_first(const tarn_xhash_t *table) {
  return table != nullptr ? table->oldest : nullptr;
}

TARNBASE_API tarn_xhash_entry_t *tarn_xhash_next(const tarn_xhash_t *table, const tarn_xhash_entry_t *entry) {
  return table != nullptr && entry != nullptr ? entry->newer : nullptr;
}

TARNBASE_API const void *tarn_xhash_entry_key(const tarn_xhash_entry_t *entry, size_t *key_length) {
  if (key_length != nullptr) *key_length = entry != nullptr ? entry->key_length : 0;
  return entry != nullptr ? key_of(entry) : nullptr;
}

TARNBASE_API void *tarn_xhash_entry_value(const tarn_xhash_entry_t *entry) {
  return entry != nullptr ? entry->value : nullptr;
}

TARNBASE_API void tarn_xhash_destroy(tarn_xhash_t *table) {
  if (table == nullptr) return;
  tarn_xhash_entry *entry = table->oldest;
  while (entry != nullptr) {
    tarn_xhash_entry *newer = entry->newer;
    if (table->free_value != nullptr) table->free_value(entry->value);
    tarn_free_(entry);
    entry = newer;
  }
  tarn_free_(table->buckets);
  tarn_free_(table);
}

}  // extern "C"
