#include "tarnbase/tarn_str.h"

#include <stdarg.h>
#include <stdio.h>

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
