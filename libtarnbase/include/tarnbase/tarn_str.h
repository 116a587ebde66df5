/* tarn_str.h -- bounded string formatting.
 *
 * Every function here always terminates its output and never writes past
 * the length it is given; text that does not fit is cut silently.
 */
#ifndef TARN_STR_H
#define TARN_STR_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Formats into buf, which holds len bytes, and always terminates it.
 * Returns the number of bytes written before the terminating zero (less
 * than len; cut output counts only what was kept), or -1 when buf is null,
 * len is 0 or fmt is null (nothing is written then) or the format fails
 * (buf then holds an empty string). */
TARNBASE_API int tarn_str_snprintf(char *buf, size_t len, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

TARNBASE_END_DECLS

#endif
