// Bounded formatting, copying, comparison, splitting and replacing of byte
// strings.

#include "tarnbase/tarn_str.h"

#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "tarnbase/tarn_mem.h"

extern "C" TARNBASE_API int tarn_str_snprintf(char *buf, size_t len, const char *fmt, ...) {
  if (buf == nullptr || len == 0 || fmt == nullptr) return -1;
  va_list args;
  va_start(args, fmt);
  const int wanted = vsnprintf(buf, len, fmt, args);
  va_end(args);
  if (wanted < 0) {
    buf[0] = '\0';
    return -1;
  }
  return (size_t)wanted < len ? wanted : (int)(len - 1);
}

extern "C" TARNBASE_API size_t tarn_strlcpy(char *dst, const char *src, size_t size) {
  if (src == nullptr) src = "";
  const size_t length = strlen(src);
  if (dst != nullptr && size > 0) {
    const size_t kept = length < size ? length : size - 1;
    memmove(dst, src, kept);
    dst[kept] = '\0';
  }
  return length;
}

extern "C" TARNBASE_API char *tarn_strncpy(char *dst, const char *src, size_t size) {
  tarn_strlcpy(dst, src, size);
  return dst;
}

extern "C" TARNBASE_API int tarn_strnicmp(const char *a, const char *b, size_t n) {
  if (n == 0 || a == b) return 0;
  if (a == nullptr) return -1;
  if (b == nullptr) return 1;
  for (size_t i = 0; i < n; ++i) {
    unsigned char ca = (unsigned char)a[i];
    unsigned char cb = (unsigned char)b[i];
    if (ca >= 'A' && ca <= 'Z') ca = (unsigned char)(ca - 'A' + 'a');
    if (cb >= 'A' && cb <= 'Z') cb = (unsigned char)(cb - 'A' + 'a');
    if (ca != cb) return (int)ca - (int)cb;
    if (ca == '\0') return 0;
  }
  return 0;
}

extern "C" TARNBASE_API char *tarn_str_strncat(char *dst, const char *src, size_t size) {
  if (dst == nullptr || size == 0) return dst;
  const char *end = static_cast<const char *>(memchr(dst, '\0', size));
  if (end == nullptr) {
    dst[size - 1] = '\0';
    return dst;
  }
  const size_t used = (size_t)(end - dst);
  tarn_strlcpy(dst + used, src, size - used);
  return dst;
}

extern "C" TARNBASE_API char **tarn_str_split(const char *str, const char *sep, uint32_t *count) {
  if (str == nullptr || sep == nullptr || count == nullptr || sep[0] == '\0') {
    errno = EINVAL;
    return nullptr;
  }
  const size_t sep_length = strlen(sep);
  size_t pieces = 1;
  for (const char *at = strstr(str, sep); at != nullptr; at = strstr(at + sep_length, sep)) ++pieces;
  if (pieces > UINT32_MAX) {
    errno = EINVAL;
    return nullptr;
  }

  char **array = static_cast<char **>(tarn_zero_malloc_(pieces * sizeof(char *)));
  if (array == nullptr) return nullptr;
  const char *start = str;
  for (size_t i = 0; i < pieces; ++i) {
    const char *end = strstr(start, sep);
    const size_t length = end != nullptr ? (size_t)(end - start) : strlen(start);
    array[i] = static_cast<char *>(tarn_zero_malloc_(length + 1));
    if (array[i] == nullptr) {
      tarn_str_split_free(array, (uint32_t)i);
      errno = ENOMEM;
      return nullptr;
    }
    memcpy(array[i], start, length);
    if (end != nullptr) start = end + sep_length;
  }
  *count = (uint32_t)pieces;
  return array;
}

extern "C" TARNBASE_API void tarn_str_split_free(char **pieces, uint32_t count) {
  if (pieces == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) tarn_free_(pieces[i]);
  tarn_free_(pieces);
}

extern "C" TARNBASE_API int tarn_str_replace(char *buf, size_t buf_len, const char *old_str,
                                             const char *new_str, int all) {
  if (buf == nullptr || buf_len == 0 || old_str == nullptr || new_str == nullptr ||
      old_str[0] == '\0') {
    errno = EINVAL;
    return -1;
  }
  if (memchr(buf, '\0', buf_len) == nullptr) buf[buf_len - 1] = '\0';
  const size_t capacity = buf_len - 1;
  const size_t old_length = strlen(old_str);
  const size_t new_length = strlen(new_str);
  size_t length = strlen(buf);
  size_t from = 0;
  int replaced = 0;
  for (const char *at = strstr(buf + from, old_str); at != nullptr; at = strstr(buf + from, old_str)) {
    const size_t position = (size_t)(at - buf);
    const size_t tail = position + old_length;
    // The rest of the string moves first, so that a longer new text does not
    // overwrite it; what does not fit is cut.
    const size_t kept_new = new_length < capacity - position ? new_length : capacity - position;
    const size_t tail_to = position + kept_new;
    size_t kept_tail = 0;
    if (kept_new == new_length) {
      kept_tail = length - tail < capacity - tail_to ? length - tail : capacity - tail_to;
    }
    memmove(buf + tail_to, buf + tail, kept_tail);
    memcpy(buf + position, new_str, kept_new);
    length = tail_to + kept_tail;
    buf[length] = '\0';
    ++replaced;
    from = tail_to;
    if (all == 0 || kept_new < new_length) break;
  }
  return replaced;
}

extern "C" TARNBASE_API size_t tarn_strlen(const char *s) { return s == nullptr ? 0 : strlen(s); }
