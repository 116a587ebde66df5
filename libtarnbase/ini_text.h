// Reads ini text: the library's own reader, without a bound on the length of
// a line. (Debian's libinih reads lines of at most 200 bytes, a bound fixed
// when that library is compiled, so no build of it found on a system could
// be relied on for longer ones.)
//
// Syntax, one item a line, lines ended by '\n' (the last one may lack it):
// blank lines; comments, whose first non-blank character is ';' or '#';
// "[section]" headers, whose name is kept as written between '[' and the
// first ']' (text after the ']' is ignored); "key=value" and "key:value"
// lines, split at the first '=' or ':', key and value trimmed of blanks. A
// ';' that follows a blank starts a comment that runs to the end of the line
// (in a header before its ']', or in a key, it makes the line malformed).
// A UTF-8 byte order mark at the start of the text is skipped. Blanks at the
// start of a line are dropped like any others: an indented line is read as
// it would be without its indent.
#ifndef TARNBASE_INI_TEXT_H
#define TARNBASE_INI_TEXT_H

#include <stddef.h>

namespace tarnbase {

// The longest ini file read, in bytes (1 MiB).
constexpr unsigned long long kIniFileMaxBytes = 1024 * 1024;

// The UTF-8 byte order mark, skipped at the start of the text.
constexpr char kIniByteOrderMark[] = "\xEF\xBB\xBF";

// The blanks trimmed around keys and values (isspace(3) of the C locale,
// whatever the process's locale).
inline bool is_ini_blank(char c) {
  return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r' || c == '\n';
}

// True when text holds a ';' right after a blank, which the reader takes for
// the start of a comment.
bool has_ini_inline_comment(const char *text);

// Called for each key line, in the order of the text, with its section (""
// before any header), key (possibly "") and value. Returns true to go on,
// false to make that line malformed.
using IniHandler = bool (*)(void *user, const char *section, const char *key, const char *value);

// Reads the file at path, opened with tarn_file_open_regular(path,
// kIniFileMaxBytes), and calls handler for each key. Returns 0 when the whole
// file was read; -1 when it cannot be opened or read, with errno: that of
// tarn_file_open_regular (ENOENT, EACCES, EISDIR, EFTYPE for a FIFO, a device
// or a socket, EFBIG for a file longer than kIniFileMaxBytes), EFBIG as well
// when the file grew past it while being read, EIO and the like from
// read(2), ENOMEM; else the number of the first malformed line: a line that
// is none of the above, a header without its ']', a line holding a NUL byte,
// or a line that handler refused. The handler may already have been called
// for earlier lines when the result is not 0, so callers collect into a
// scratch object and keep it only on 0.
int parse_ini_file(const char *path, IniHandler handler, void *user);

}  // namespace tarnbase

#endif
