/* tarn_str.h -- bounded string formatting, copying, comparison,
 * splitting and replacing.
 *
 * Every function here that writes into a caller's buffer always terminates
 * its output (when it is given room for at least the terminator) and never
 * writes past the length it is given; text that does not fit is cut
 * silently.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_STR_H
#define TARN_STR_H

#include <stddef.h>
#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Formats into buf, which holds len bytes, and always terminates it.
 * Returns the number of bytes written before the terminating zero (less
 * than len; cut output counts only what was kept), or -1 when buf is null,
 * len is 0 or fmt is null (nothing is written then) or the format fails
 * (buf then holds an empty string). */
TARNBASE_API int tarn_str_snprintf(char *buf, size_t len, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Copies src into dst, which holds size bytes: at most size - 1 bytes, then
 * a terminating zero (nothing is written when size is 0 or dst is null).
 * Returns strlen(src), so a result of size or more means the copy was cut.
 * A null src counts as "" (dst gets an empty string, the result is 0). */
TARNBASE_API size_t tarn_strlcpy(char *dst, const char *src, size_t size);

/* Copies at most size - 1 bytes of src into dst and terminates it; unlike
 * strncpy it always terminates and does not pad the rest of dst. Returns
 * dst. Nothing is written when dst is null or size is 0; a null src counts
 * as "". */
TARNBASE_API char *tarn_strncpy(char *dst, const char *src, size_t size);

/* Compares at most n bytes of a and b ignoring ASCII case (bytes are
 * compared as unsigned characters after mapping 'A'-'Z' to 'a'-'z'; other
 * bytes, UTF-8 included, compare as they are). Returns a negative number, 0
 * or a positive number as a sorts before, equal to or after b. n 0 gives 0.
 * A null string sorts before any other; two nulls are equal. */
TARNBASE_API int tarn_strnicmp(const char *a, const char *b, size_t n);

/* Appends src to the string in dst, which holds size bytes in all: the
 * result is cut so that it has at most size - 1 bytes, and it is always
 * terminated. Returns dst. When dst holds no terminator within its size
 * bytes, dst[size - 1] is set to zero and nothing is appended. Nothing is
 * written when dst is null or size is 0; a null src appends nothing. */
TARNBASE_API char *tarn_str_strncat(char *dst, const char *src, size_t size);

/* Splits str at every occurrence of the separator string sep. Returns a
 * newly allocated array of newly allocated pieces, in order, and stores
 * their number in *count. Every separator ends a piece, so empty pieces are
 * kept: "1..3" at "." gives "1", "" and "3"; "" gives one empty piece; a
 * string without sep gives one piece, a copy of str. Returns null (and
 * leaves *count alone) when str, sep or count is null or sep is empty
 * (errno EINVAL), or when memory runs out (errno ENOMEM; nothing is left
 * allocated). Free the result with tarn_str_split_free. */
TARNBASE_API char **tarn_str_split(const char *str, const char *sep, uint32_t *count);

/* Frees an array from tarn_str_split and its count pieces. Null is
 * ignored. */
TARNBASE_API void tarn_str_split_free(char **pieces, uint32_t count);

/* Replaces old_str with new_str in the string in buf, in place; buf holds
 * buf_len bytes in all. With all non-zero every occurrence is replaced,
 * with all 0 only the first. The search goes on after each inserted text,
 * so new_str may contain old_str ("a" -> "aa" doubles each "a" once).
 * Text that no longer fits is cut silently at buf_len - 1 bytes (the rest
 * of the string first, then new_str itself, after which nothing more is
 * replaced); buf is always terminated. When buf holds no terminator within
 * its buf_len bytes, buf[buf_len - 1] is set to zero first. new_str must
 * not lie within buf.
 * Example: with all set, replacing each blank in  a b c  by quote, blank,
 * quote gives  a" "b" "c .
 * Returns the number of occurrences replaced (0 when there is none), or -1
 * with errno EINVAL, writing nothing, when buf, old_str or new_str is null,
 * old_str is empty or buf_len is 0. */
TARNBASE_API int tarn_str_replace(char *buf, size_t buf_len, const char *old_str,
                                  const char *new_str, int all);

/* The number of bytes before the terminating zero of s; 0 for a null s. */
TARNBASE_API size_t tarn_strlen(const char *s);

TARNBASE_END_DECLS

#endif
