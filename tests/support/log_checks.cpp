#include "log_checks.h"

#include <stdarg.h>
#include <stdio.h>

namespace tarn_test {

std::string format(const char *fmt, ...) {
  char buffer[2048];
  va_list args;
  va_start(args, fmt);
  vsnprintf(buffer, sizeof(buffer), fmt, args);
  va_end(args);
  return buffer;
}

std::string dump_logs() {
  std::string text;
  for (const LogLine &line : logs()) text += "  " + line.line + "\n";
  return text.empty() ? "  (no lines)\n" : text;
}

}  // namespace tarn_test
