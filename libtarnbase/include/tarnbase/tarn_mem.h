/* tarn_mem.h -- the allocator that the agent's libraries share.
 *
 * Memory that one library allocates and another frees goes through these
 * three calls, so that every block has one owner protocol: what
 * tarn_zero_malloc_ or tarn_strdup returns is released with tarn_free_.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_MEM_H
#define TARN_MEM_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Allocates size bytes, all zero. A size of 0 allocates a one-byte block,
 * so that a non-null result always means success. Returns the block, or
 * null with errno ENOMEM when memory runs out. Free it with tarn_free_. */
TARNBASE_API void *tarn_zero_malloc_(size_t size);

/* Returns a newly allocated copy of the zero-terminated string s, or null
 * when s is null (errno EINVAL) or memory runs out (errno ENOMEM). Free it
 * with tarn_free_. */
TARNBASE_API char *tarn_strdup(const char *s);

/* Releases a block from tarn_zero_malloc_, tarn_strdup or any other call
 * of the base library that hands memory to its caller. Null is ignored. */
TARNBASE_API void tarn_free_(void *block);

TARNBASE_END_DECLS

#endif
