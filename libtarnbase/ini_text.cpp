#include "ini_text.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

namespace tarnbase {

namespace {

struct LineReader {
  FILE *file;
  int line;
  int bad_line;  // number of the first line refused here, or 0
  bool whole_section_names;
};

// True when nothing is left to read: a last line without a newline that
// just fills the buffer is whole.
bool at_end(FILE *file) {
  const int next = getc(file);
  if (next == EOF) return true;
  ungetc(next, file);
  return false;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r' || c == '\n'; }

// True for a section header whose name inih would cut.
bool section_name_too_long(const char *line, bool first_line) {
  if (first_line && strncmp(line, "\xEF\xBB\xBF", 3) == 0) line += 3;
  while (is_blank(*line)) ++line;
  if (*line != '[') return false;
  const char *close = strchr(line + 1, ']');
  return close != nullptr && close - (line + 1) > kIniSectionMax;
}

char *read_line(char *buffer, int size, void *stream) {
  LineReader *reader = static_cast<LineReader *>(stream);
  if (reader->bad_line != 0 || fgets(buffer, size, reader->file) == nullptr) return nullptr;
  ++reader->line;
  const size_t length = strlen(buffer);
  if (length == (size_t)size - 1 && buffer[length - 1] != '\n' && !at_end(reader->file)) {
    reader->bad_line = reader->line;
    return nullptr;
  }
  if (reader->whole_section_names && section_name_too_long(buffer, reader->line == 1)) {
    reader->bad_line = reader->line;
    return nullptr;
  }
  return buffer;
}

}  // namespace

int parse_ini_file(const char *path, ini_handler handler, void *user, bool whole_section_names) {
  FILE *file = fopen(path, "re");
  if (file == nullptr) return -1;
  LineReader reader{file, 0, 0, whole_section_names};
  const int result = ini_parse_stream(read_line, &reader, handler, user);
  // A read error (a directory, an I/O error) looks like the end of the text
  // to inih; it must not pass for a whole file.
  const int read_error = ferror(file) ? (errno != 0 ? errno : EIO) : 0;
  fclose(file);
  if (read_error != 0) {
    errno = read_error;
    return -1;
  }
  if (reader.bad_line != 0 && (result == 0 || result > reader.bad_line)) return reader.bad_line;
  return result;
}

}  // namespace tarnbase
