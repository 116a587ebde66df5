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
  bool strict;
  bool after_key;  // a key line came since the last section header
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

// inih reads an indented line that follows a key line (blank and comment
// lines between them included) as more text for that key, which it names
// by its first 49 bytes only: after a longer key the line would make a
// second, shortened key. Such a line is refused; after a shorter key it
// would be refused anyway, as the key given a second time.
bool continues_a_key(LineReader *reader, const char *line) {
  const char *start = line;
  if (reader->line == 1 && strncmp(start, "\xEF\xBB\xBF", 3) == 0) start += 3;
  while (is_blank(*start)) ++start;
  if (*start == '\0' || *start == ';' || *start == '#') return false;
  if (reader->after_key && start > line) return true;
  reader->after_key = *start != '[';
  return false;
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
  if (reader->strict && (section_name_too_long(buffer, reader->line == 1) || continues_a_key(reader, buffer))) {
    reader->bad_line = reader->line;
    return nullptr;
  }
  return buffer;
}

}  // namespace

int parse_ini_file(const char *path, ini_handler handler, void *user, bool strict) {
  FILE *file = fopen(path, "re");
  if (file == nullptr) return -1;
  LineReader reader{file, 0, 0, strict, false};
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
