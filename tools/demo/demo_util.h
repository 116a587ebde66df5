// demo_util.h -- small helpers shared by tarn-demo and tarn-demo-watchdog:
// text, lines over pipes, files, and running other programs.
#ifndef TARN_DEMO_UTIL_H
#define TARN_DEMO_UTIL_H

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace demo {

// A step that did not give what the demo expects; main reports it and
// ends the run with exit status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string &what);

// printf into a std::string (cut at 1023 characters).
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The monotonic clock in milliseconds; the library's tick reads the same.
uint64_t now_ms();

// Writes line and a line end; false when the pipe is gone.
bool write_line(int fd, const std::string &line);

// Reads one line (without its end) byte by byte, so that nothing past it is
// taken from the pipe; false at end of input or on a read error.
bool read_line(int fd, std::string *line);

// Parses a whole decimal number within [min, max].
bool parse_int(const char *text, long min, long max, long *value);

// Whether fd is an open pipe (the demo's processes talk through pipes).
bool is_pipe(long fd);

// The running program's full path (from /proc/self/exe), and the
// directory part of a path.
std::string program_path();
std::string dir_of(const std::string &path);

bool path_exists(const std::string &path);

// Writes text to path with mode, replacing what is there; fails the run on
// any error.
void write_file(const std::string &path, const std::string &text, unsigned mode = 0644);

// The whole file; fails the run when it cannot be read.
std::string read_file(const std::string &path);

// mkdir -p; fails the run on any error.
void make_dirs(const std::string &path);

// What a program printed (standard output and error together, in order) and
// how it ended.
struct ProgramRun {
  int exit_status = -1;  // -1 when it did not exit normally
  std::string output;
};

// Runs argv[0] (looked up in PATH when it holds no '/') with standard input
// from /dev/null, waits at most timeout_ms and returns what it printed.
// Fails the run when it cannot be started or does not end in time.
ProgramRun run_program(const std::vector<std::string> &argv, int timeout_ms = 10000);

// Prints text with every line indented by indent.
void print_indented(const std::string &text, const char *indent = "    ");

}  // namespace demo

#endif
