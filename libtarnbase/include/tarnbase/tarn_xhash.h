/* tarn_xhash.h -- a hash table from byte-string keys to pointers.
 *
 * A key is key_length bytes compared byte for byte: "-p" with its
 * terminating zero (length 3) and "-p" without it (length 2) are two
 * different keys. The table stores its own copy of each key (the caller's
 * key may go away after the call), followed by one zero byte, so that a key
 * given as text reads back as a zero-terminated string whether or not its
 * terminator was counted in key_length.
 *
 * Values are pointers that the table never looks at. A table created with
 * a value free function owns its values: it calls the function for the
 * value of each entry that tarn_xhash_delete removes and for every value
 * left when it is destroyed. Without one, values stay the caller's.
 *
 * Iteration order is insertion order: tarn_xhash_first gives the oldest
 * entry still in the table and tarn_xhash_next the one inserted after it.
 * The order does not change between walks; a deleted key that is inserted
 * again comes last. Inserting during a walk does not disturb it (the new
 * entry comes at the end and is visited); deleting the entry that the walk
 * stands on ends that entry's validity, so take its successor first.
 *
 * Memory comes from tarn_zero_malloc_ (tarn_mem.h). A table is not locked:
 * one thread at a time.
 *
 * Results: 0 on success, otherwise a positive errno value (errno is also
 * set), unless a function says otherwise.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_XHASH_H
#define TARN_XHASH_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_xhash tarn_xhash_t;

/* One entry of a table, for walks; valid until the entry is deleted or the
 * table destroyed. */
typedef struct tarn_xhash_entry tarn_xhash_entry_t;

/* Frees one value; called with every value, null values included. */
typedef void (*tarn_xhash_free_fn)(void *value);

/* Creates an empty table sized for about capacity entries before it first
 * grows (0: a small default; the table grows as needed either way), whose
 * values are freed with free_value (may be null: the values stay the
 * caller's). Returns the table, or null with errno ENOMEM. Release it with
 * tarn_xhash_destroy. */
TARNBASE_API tarn_xhash_t *tarn_xhash_create(size_t capacity, tarn_xhash_free_fn free_value);

/* Adds key (key_length bytes, copied) with value. A key that is already in
 * the table is not replaced: the result is EEXIST, the table is unchanged
 * and value stays the caller's. Returns 0, EINVAL for a null table or key,
 * EEXIST, or ENOMEM (the table is then unchanged and value stays the
 * caller's). */
TARNBASE_API int tarn_xhash_insert(tarn_xhash_t *table, const void *key, size_t key_length, void *value);

/* Looks key up. Returns 0 when it is in the table, storing its value in
 * *value (when value is not null); ENOENT when it is not (*value is left
 * alone); EINVAL for a null table or key. */
TARNBASE_API int tarn_xhash_search(const tarn_xhash_t *table, const void *key, size_t key_length,
                                   void **value);

/* Removes key and frees its value with the table's value free function,
 * when it has one. Returns 0, ENOENT when the key is not in the table, or
 * EINVAL for a null table or key. */
TARNBASE_API int tarn_xhash_delete(tarn_xhash_t *table, const void *key, size_t key_length);

/* The number of entries; 0 for a null table. */
TARNBASE_API size_t tarn_xhash_count(const tarn_xhash_t *table);

/* The first entry in insertion order, or null when the table is empty or
 * null. */
TARNBASE_API tarn_xhash_entry_t *tarn_xhash_first(const tarn_xhash_t *table);

/* The entry inserted after entry, or null at the end of the table or when
 * an argument is null. */
TARNBASE_API tarn_xhash_entry_t *tarn_xhash_next(const tarn_xhash_t *table, const tarn_xhash_entry_t *entry);

/* The table's copy of the entry's key (zero-terminated, see above), and its
 * length in *key_length when key_length is not null. Null for a null
 * entry (*key_length is then 0). */
TARNBASE_API const void *tarn_xhash_entry_key(const tarn_xhash_entry_t *entry, size_t *key_length);

/* The entry's value; null for a null entry. */
TARNBASE_API void *tarn_xhash_entry_value(const tarn_xhash_entry_t *entry);

/* Frees the table and its keys, first calling the value free function
 * (when the table has one) for every value, in insertion order. A null
 * table is ignored. */
TARNBASE_API void tarn_xhash_destroy(tarn_xhash_t *table);

TARNBASE_END_DECLS

#endif
