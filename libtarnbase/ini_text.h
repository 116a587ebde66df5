// Reads ini text with inih, and refuses what inih would read only in part.
//
// inih reads a line into a buffer of a fixed size and treats the rest of a
// longer line as a line of its own, so a long value would arrive cut. Here
// a line that does not fit makes the whole text malformed instead.
#ifndef TARNBASE_INI_TEXT_H
#define TARNBASE_INI_TEXT_H

#include <ini.h>

namespace tarnbase {

// The longest line inih reads whole, its newline included (one byte of its
// buffer goes to the terminator).
constexpr int kIniLineMax = INI_MAX_LINE - 1;
// The longest section name inih keeps whole; it cuts longer ones silently.
constexpr int kIniSectionMax = 49;

// Parses the file at path, calling handler for each key. Returns 0 when the
// whole file was read; -1 when it cannot be opened or read (errno says
// why); else the number of the first malformed line (a line too long
// included, and, when strict is set, a section header whose name is longer
// than kIniSectionMax and an indented line after a key line, which inih
// would take for more of that key's value). The handler may already have been
// called for earlier lines when the result is not 0, so callers collect
// into a scratch object and keep it only on 0.
int parse_ini_file(const char *path, ini_handler handler, void *user, bool strict = false);

}  // namespace tarnbase

#endif
