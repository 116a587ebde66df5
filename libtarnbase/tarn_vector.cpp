// A growable array of pointers, allocated through tarn_zero_malloc_ so that
// tests can make any of its allocations fail.

#include "tarnbase/tarn_vector.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "tarnbase/tarn_mem.h"
#include "errno_result.h"

struct tarn_vector {
  void **items;
  size_t size;
  size_t capacity;
};

namespace {

constexpr size_t kDefaultCapacity = 8;

using tarnbase::fail;

void **allocate_items(size_t capacity) {
  if (capacity > SIZE_MAX / sizeof(void *)) {
    errno = ENOMEM;
    return nullptr;
  }
  return static_cast<void **>(tarn_zero_malloc_(capacity * sizeof(void *)));
}

void free_each(tarn_vector *vector, tarn_vector_free_fn free_element) {
  if (free_element == nullptr) return;
  for (size_t i = 0; i < vector->size; ++i) free_element(vector->items[i]);
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_vector_create(tarn_vector_t **vector, size_t capacity) {
  if (vector == nullptr) return fail(EINVAL);
  *vector = nullptr;
  if (capacity == 0) capacity = kDefaultCapacity;
  tarn_vector *created = static_cast<tarn_vector *>(tarn_zero_malloc_(sizeof(tarn_vector)));
  if (created == nullptr) return fail(ENOMEM);
  created->items = allocate_items(capacity);
  if (created->items == nullptr) {
    tarn_free_(created);
    return fail(ENOMEM);
  }
  created->capacity = capacity;
  *vector = created;
  return 0;
}

TARNBASE_API int tarn_vector_push_back(tarn_vector_t *vector, void *element) {
  if (vector == nullptr) return fail(EINVAL);
  if (vector->size == vector->capacity) {
    if (vector->capacity > SIZE_MAX / 2) return fail(ENOMEM);
    const size_t capacity = vector->capacity * 2;
    void **items = allocate_items(capacity);
    if (items == nullptr) return fail(ENOMEM);
    memcpy(items, vector->items, vector->size * sizeof(void *));
    tarn_free_(vector->items);
    vector->items = items;
    vector->capacity = capacity;
  }
  vector->items[vector->size++] = element;
  return 0;
}

TARNBASE_API int tarn_vector_pop_back(tarn_vector_t *vector) {
  if (vector == nullptr) return fail(EINVAL);
  if (vector->size == 0) return fail(ENOENT);
  vector->items[--vector->size] = nullptr;
  return 0;
}

TARNBASE_API size_t tarn_vector_size(const tarn_vector_t *vector) {
  return vector != nullptr ? vector->size : 0;
}

TARNBASE_API void *tarn_vector_pos_at(const tarn_vector_t *vector, size_t index) {
  if (vector == nullptr || index >= vector->size) return nullptr;
  return vector->items[index];
}

TARNBASE_API int tarn_vector_clear(tarn_vector_t *vector, tarn_vector_free_fn free_element) {
  if (vector == nullptr) return fail(EINVAL);
  free_each(vector, free_element);
  memset(vector->items, 0, vector->size * sizeof(void *));
  vector->size = 0;
  return 0;
}

TARNBASE_API void tarn_vector_destroy(tarn_vector_t *vector, tarn_vector_free_fn free_element) {
  if (vector == nullptr) return;
  free_each(vector, free_element);
  tarn_free_(vector->items);
  tarn_free_(vector);
}

}  // extern "C"
