#include "ini_text.h"

#include <stdio.h>
#include <string.h>

namespace tarnbase {

namespace {

struct LineReader {
  FILE *file;
  int line;
  int too_long_line;  // number of the first line that did not fit, or 0
};

char *read_line(char *buffer, int size, void *stream) {
  LineReader *reader = static_cast<LineReader *>(stream);
  if (reader->too_long_line != 0 || fgets(buffer, size, reader->file) == nullptr) return nullptr;
  ++reader->line;
  const size_t length = strlen(buffer);
  if (length == (size_t)size - 1 && buffer[length - 1] != '\n' && !feof(reader->file)) {
    reader->too_long_line = reader->line;
    return nullptr;
  }
  return buffer;
}

}  // namespace

int parse_ini_file(const char *path, ini_handler handler, void *user) {
  FILE *file = fopen(path, "re");
  if (file == nullptr) return -1;
  LineReader reader{file, 0, 0};
  const int result = ini_parse_stream(read_line, &reader, handler, user);
  fclose(file);
  if (reader.too_long_line != 0 && (result == 0 || result > reader.too_long_line))
    return reader.too_long_line;
  return result;
}

}  // namespace tarnbase
