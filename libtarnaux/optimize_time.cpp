// Timing probes: named, nested stretches of the process's work, timed by
// the millisecond tick and reported to the log in creation order.
//
// Three process-wide containers: the probes currently running by name (for
// start and end), the stack of running probes (whose size gives a new
// probe's depth) and the list of every probe, which owns the records and
// orders the report.

#include "optimize_time.h"

#include <stdint.h>
#include <string.h>

#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_str.h>
#include <tarnbase/tarn_time.h>
#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

#include "log_frame.h"

namespace {

constexpr size_t kStackCapacity = 10;
constexpr size_t kListCapacity = 100;
constexpr size_t kNameLimit = 1024;
constexpr size_t kIndentBufferSize = 1024;
constexpr size_t kIndentWidth = 4;

struct Probe {
  char *name;           // the first kNameLimit characters of the probe's name
  uint64_t start_tick;  // tick of the latest start; 0 while not running
  int64_t elapsed_ms;   // duration of the last completed run
  uint32_t depth;       // running probes when it was created
};

tarn_xhash_t *g_running = nullptr;  // name with its terminator -> Probe
tarn_vector_t *g_stack = nullptr;   // running probes, innermost last
tarn_vector_t *g_probes = nullptr;  // every Probe, in creation order; owns them

void free_probe(void *element) {
  Probe *probe = static_cast<Probe *>(element);
  if (probe == nullptr) return;
  tarn_free_(probe->name);
  tarn_free_(probe);
}

// Ends the process for want of memory at the caller's place, first freeing
// a probe that no container holds yet, so that a leak checker run at exit
// finds nothing lost (what the containers hold stays reachable to the end).
[[noreturn]] void out_of_memory(log_site site, Probe *unheld) {
  free_probe(unheld);
  log_out_of_memory(site);
}

char *copy_name(const char *name) {
  const size_t length = strnlen(name, kNameLimit);
  char *copy = static_cast<char *>(tarn_zero_malloc_(length + 1));
  if (copy != nullptr) memcpy(copy, name, length);
  return copy;
}

// The key of a name in g_running: its bytes with the terminator.
size_t key_length(const char *name) { return tarn_strlen(name) + 1; }

}  // namespace

extern "C" {

TARNAUX_API void tarnaux_optimize_time_init(void) {
  if (g_running == nullptr) {
    g_running = tarn_xhash_create(0, nullptr);
    if (g_running == nullptr) out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  }
  if (g_stack == nullptr && tarn_vector_create(&g_stack, kStackCapacity) != 0) {
    out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  }
  if (g_probes == nullptr && tarn_vector_create(&g_probes, kListCapacity) != 0) {
    out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  }
}

// The handles are left as they are: the family is finished for the rest of
// the process, and init does not make the containers again.
TARNAUX_API void tarnaux_optimize_time_finit(void) {
  tarn_xhash_destroy(g_running);
  tarn_vector_destroy(g_stack, nullptr);
  tarn_vector_clear(g_probes, free_probe);
  tarn_vector_destroy(g_probes, nullptr);
}

TARNAUX_API void tarnaux_optimize_time_start(const char *name) {
  if (name == nullptr || g_running == nullptr || g_stack == nullptr || g_probes == nullptr) return;
  void *found = nullptr;
  if (tarn_xhash_search(g_running, name, key_length(name), &found) == 0) {
    // Running already: only restarted, keeping its place and depth.
    static_cast<Probe *>(found)->start_tick = tarn_time_get_tick_cout();
    return;
  }

  Probe *probe = static_cast<Probe *>(tarn_zero_malloc_(sizeof(Probe)));
  if (probe == nullptr) out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  probe->name = copy_name(name);
  if (probe->name == nullptr) out_of_memory(OUT_OF_MEMORY_HERE, probe);
  if (tarn_vector_push_back(g_stack, probe) != 0) out_of_memory(OUT_OF_MEMORY_HERE, probe);
  if (tarn_vector_push_back(g_probes, probe) != 0) out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  probe->depth = (uint32_t)(tarn_vector_size(g_stack) - 1);
  if (tarn_xhash_insert(g_running, name, key_length(name), probe) != 0) {
    out_of_memory(OUT_OF_MEMORY_HERE, nullptr);
  }
  probe->start_tick = tarn_time_get_tick_cout();
}

TARNAUX_API void tarnaux_optimize_time_end(const char *name) {
  if (name == nullptr || g_running == nullptr || g_stack == nullptr) return;
  void *found = nullptr;
  if (tarn_xhash_search(g_running, name, key_length(name), &found) != 0) return;
  Probe *probe = static_cast<Probe *>(found);
  if (probe->start_tick == 0) return;
  probe->elapsed_ms = (int64_t)(tarn_time_get_tick_cout() - probe->start_tick);
  probe->start_tick = 0;
  // Whatever probe is on top leaves the stack: ending out of order only
  // shifts the depth of probes created later.
  tarn_vector_pop_back(g_stack);
  tarn_xhash_delete(g_running, name, key_length(name));
}

TARNAUX_API void tarnaux_optimize_time_print_all(void) {
  if (g_running == nullptr) return;
  const size_t count = tarn_vector_size(g_probes);
  for (size_t i = 0; i < count; ++i) {
    const Probe *probe = static_cast<const Probe *>(tarn_vector_pos_at(g_probes, i));
    char indent[kIndentBufferSize];
    memset(indent, 0, sizeof(indent));
    size_t width = (size_t)probe->depth * kIndentWidth;
    if (width > sizeof(indent) - 1) width = sizeof(indent) - 1;
    memset(indent, ' ', width);
    LOG(info, "------------------ %s%s [%ldms] ------------------\n", indent, probe->name,
        (long)probe->elapsed_ms);
  }
}

}  // extern "C"
