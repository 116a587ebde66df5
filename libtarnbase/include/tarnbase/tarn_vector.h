/* tarn_vector.h -- a growable array of pointers.
 *
 * The vector holds void pointers in order; it never looks at what they
 * point to. Elements are owned by the caller: the vector frees an element
 * only through a free function handed to tarn_vector_clear or
 * tarn_vector_destroy. A null element is an ordinary element.
 *
 * Memory comes from tarn_zero_malloc_ (tarn_mem.h). A vector is not locked:
 * one thread at a time.
 *
 * Results: 0 on success, otherwise a positive errno value (errno is also
 * set), unless a function says otherwise.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_VECTOR_H
#define TARN_VECTOR_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

typedef struct tarn_vector tarn_vector_t;

/* Frees one element; called by tarn_vector_clear and tarn_vector_destroy
 * for every element, null elements included. */
typedef void (*tarn_vector_free_fn)(void *element);

/* Creates an empty vector with room for capacity elements before it first
 * grows (0: a small default) and stores it in *vector. Returns 0, EINVAL
 * for a null vector, or ENOMEM (*vector is then set to null). */
TARNBASE_API int tarn_vector_create(tarn_vector_t **vector, size_t capacity);

/* Appends element at the end, growing the vector when it is full. Returns
 * 0, EINVAL for a null vector, or ENOMEM (the vector is then unchanged). */
TARNBASE_API int tarn_vector_push_back(tarn_vector_t *vector, void *element);

/* Drops the last element without freeing it. Returns 0, EINVAL for a null
 * vector, or ENOENT when the vector is empty. */
TARNBASE_API int tarn_vector_pop_back(tarn_vector_t *vector);

/* The number of elements; 0 for a null vector. */
TARNBASE_API size_t tarn_vector_size(const tarn_vector_t *vector);

/* The element at index (0 is the first pushed), or null when vector is
 * null or index is not below the size (an index equal to the size is out
 * of range). A stored null element also reads as null. */
TARNBASE_API void *tarn_vector_pos_at(const tarn_vector_t *vector, size_t index);

/* Empties the vector, first calling free_element (when not null) for each
 * element from the first to the last. The vector keeps its room and stays
 * usable. Returns 0, or EINVAL for a null vector. */
TARNBASE_API int tarn_vector_clear(tarn_vector_t *vector, tarn_vector_free_fn free_element);

/* Frees the vector, first calling free_element (when not null) for each
 * element from the first to the last. A null vector is ignored. */
TARNBASE_API void tarn_vector_destroy(tarn_vector_t *vector, tarn_vector_free_fn free_element);

TARNBASE_END_DECLS

#endif
