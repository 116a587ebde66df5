#include "container_faults.h"
#include "interpose.h"

#include <errno.h>

#include <map>
#include <mutex>

#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

namespace {

using tarn_test::ContainerOp;

std::mutex g_mutex;
std::map<ContainerOp, unsigned> g_calls;
std::map<ContainerOp, unsigned> g_failing_call;  // operation -> the call number that fails

// Counts one call; true (with errno ENOMEM) when it is the one that must fail.
bool fails(ContainerOp operation) {
  std::lock_guard<std::mutex> guard(g_mutex);
  const unsigned call = g_calls[operation]++;
  auto armed = g_failing_call.find(operation);
  if (armed == g_failing_call.end() || armed->second != call) return false;
  g_failing_call.erase(armed);
  errno = ENOMEM;
  return true;
}

using tarn_test::next_definition;

}  // namespace

extern "C" {

tarn_xhash_t *tarn_xhash_create(size_t capacity, tarn_xhash_free_fn free_value) {
  if (fails(ContainerOp::kXhashCreate)) return nullptr;
  return next_definition<tarn_xhash_t *(*)(size_t, tarn_xhash_free_fn)>("tarn_xhash_create")(capacity,
                                                                                  free_value);
}

int tarn_xhash_insert(tarn_xhash_t *table, const void *key, size_t key_length, void *value) {
  if (fails(ContainerOp::kXhashInsert)) return ENOMEM;
  return next_definition<int (*)(tarn_xhash_t *, const void *, size_t, void *)>("tarn_xhash_insert")(
      table, key, key_length, value);
}

int tarn_vector_create(tarn_vector_t **vector, size_t capacity) {
  if (fails(ContainerOp::kVectorCreate)) {
    if (vector != nullptr) *vector = nullptr;
    return ENOMEM;
  }
  return next_definition<int (*)(tarn_vector_t **, size_t)>("tarn_vector_create")(vector, capacity);
}

int tarn_vector_push_back(tarn_vector_t *vector, void *element) {
  if (fails(ContainerOp::kVectorPushBack)) return ENOMEM;
  return next_definition<int (*)(tarn_vector_t *, void *)>("tarn_vector_push_back")(vector, element);
}

}  // extern "C"

namespace tarn_test {

unsigned container_calls(ContainerOp operation) {
  std::lock_guard<std::mutex> guard(g_mutex);
  auto found = g_calls.find(operation);
  return found == g_calls.end() ? 0 : found->second;
}

void fail_container_after(ContainerOp operation, unsigned succeeding) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_failing_call[operation] = g_calls[operation] + succeeding;
}

void clear_container_faults() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_calls.clear();
  g_failing_call.clear();
}

}  // namespace tarn_test
