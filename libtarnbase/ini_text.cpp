#include "ini_text.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>

#include "tarnbase/tarn_file.h"
#include "unique_fd.h"

namespace tarnbase {

namespace {

// The next size of a buffer that the first used bytes of fd filled: the
// file's size and a byte more (so that its end shows without growing
// again), at least twice used, at most a byte over the bound.
size_t next_size(int fd, size_t used) {
  unsigned long long wanted = used * 2ULL;
  struct stat st;
  if (fstat(fd, &st) == 0) wanted = std::max(wanted, (unsigned long long)st.st_size + 1);
  return (size_t)std::min(wanted, kIniFileMaxBytes + 1);
}

// Reads everything from fd into text; EFBIG once it holds more than
// kIniFileMaxBytes (the file may grow after it was opened). Throws
// std::bad_alloc.
int read_whole(int fd, std::string *text) {
  // Enough for a record at once; the size of a larger file is asked for
  // only when this fills up, which spares the usual load a system call.
  text->resize(4096);
  size_t used = 0;
  for (;;) {
    if (used == text->size()) {
      if (used > kIniFileMaxBytes) return EFBIG;
      text->resize(next_size(fd, used));
    }
    const ssize_t got = read(fd, &(*text)[used], text->size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    used += (size_t)got;
  }
  text->resize(used);
  return 0;
}

char *skip_blanks(char *text) {
  while (is_ini_blank(*text)) ++text;
  return text;
}

// Cuts the blanks at the end of the text that begins at start and ends at
// end, and returns start.
char *cut_trailing_blanks(char *start, char *end) {
  while (end > start && is_ini_blank(end[-1])) --end;
  *end = '\0';
  return start;
}

// The first of the characters in stops, or of a ';' right after a blank,
// from text on; the terminator when there is neither.
char *find_stop(char *text, const char *stops) {
  bool after_blank = false;
  for (; *text != '\0'; ++text) {
    if (strchr(stops, *text) != nullptr || (after_blank && *text == ';')) break;
    after_blank = is_ini_blank(*text);
  }
  return text;
}

struct Parser {
  IniHandler handler;
  void *user;
  const char *section;

  // Reads one line, terminated in place and trimmed; false when it is
  // malformed.
  bool line(char *start) {
    if (*start == '\0' || *start == ';' || *start == '#') return true;
    if (*start == '[') {
      char *end = find_stop(start + 1, "]");
      if (*end != ']') return false;
      *end = '\0';
      section = start + 1;
      return true;
    }
    char *separator = find_stop(start, "=:");
    if (*separator != '=' && *separator != ':') return false;
    char *key = cut_trailing_blanks(start, separator);
    char *value = separator + 1;
    *find_stop(value, "") = '\0';
    value = skip_blanks(value);
    cut_trailing_blanks(value, value + strlen(value));
    return handler(user, section, key, value);
  }
};

// Parses text in place (it is cut into strings). Returns 0 or the number of
// the first malformed line.
int parse_text(std::string *text, IniHandler handler, void *user) {
  Parser parser{handler, user, ""};
  char *at = &(*text)[0];
  char *const end = at + text->size();
  if (text->compare(0, 3, kIniByteOrderMark) == 0) at += 3;
  for (int number = 1; at < end; ++number) {
    char *line_end = static_cast<char *>(memchr(at, '\n', (size_t)(end - at)));
    if (line_end == nullptr) line_end = end;
    if (memchr(at, '\0', (size_t)(line_end - at)) != nullptr) return number;
    // Terminated at its '\n', the last line at the string's own terminator.
    if (!parser.line(skip_blanks(cut_trailing_blanks(at, line_end)))) return number;
    at = line_end + 1;
  }
  return 0;
}

}  // namespace

bool has_ini_inline_comment(const char *text) {
  for (const char *c = text; *c != '\0'; ++c) {
    if (*c == ';' && c > text && is_ini_blank(c[-1])) return true;
  }
  return false;
}

int parse_ini_file(const char *path, IniHandler handler, void *user) {
  const tarnbase::UniqueFd fd(tarn_file_open_regular(path, kIniFileMaxBytes));
  if (fd.get() < 0) return -1;
  try {
    std::string text;
    const int error = read_whole(fd.get(), &text);
    if (error != 0) {
      errno = error;
      return -1;
    }
    return parse_text(&text, handler, user);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace tarnbase
