// tarnctl.h -- what the subcommands of tarnctl share: exit codes, the parsed
// command line, error lines, the library's captured log lines, and small
// checks of arguments and paths.
#ifndef TARNCTL_H
#define TARNCTL_H

#include <stdint.h>

#include <jansson.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarnctl {

// Exit codes; docs/tarnctl.md and `tarnctl --help` have the same table.
enum ExitCode : int {
  kExitOk = 0,       // success; the answer is yes
  kExitNo = 1,       // the answer is no, or a check failed
  kExitUsage = 2,    // unknown subcommand or option, missing or malformed argument
  kExitMissing = 3,  // a file, directory or record is missing, unreadable or unwritable
  kExitLocked = 4,   // a lock could not be taken, or the heartbeat table is unavailable
  kExitBadData = 5,  // corrupt archive, bad or tampered manifest, bad version string
};

// One subcommand as the user gave it.
struct Invocation {
  std::string command;            // "pkg verify"
  std::vector<std::string> args;  // the positional arguments
  std::set<std::string> options;  // the subcommand's own options that were given
  std::map<std::string, std::string> values;  // the values given to those that take one
  bool verbose = false;

  bool option(const char *name) const { return options.count(name) != 0; }
  // The value given to option name, or "" when it was given none.
  std::string value(const char *name) const {
    const auto found = values.find(name);
    return found == values.end() ? "" : found->second;
  }
};

// Writes "tarnctl: <command>: <reason>" to standard error as one line (line
// ends inside reason become blanks).
void complain(const Invocation &inv, const std::string &reason);
// complain(), then returns code.
int fail(const Invocation &inv, int code, const std::string &reason);

// The library's log lines. install_log_sink() registers this program as the
// library's log destination before any other call, so that no line reaches
// standard output or a log file: each line is kept in memory when it is a
// warn, error or fatal line, and also written to standard error when
// verbose is set.
void install_log_sink();
void set_log_verbose(bool verbose);
// Forgets the kept lines; call it before the library call whose lines count.
void clear_log_problems();
// The text (after the line prefix, on one line) of each warn, error or fatal
// line logged since the last clear_log_problems(), oldest first.
const std::vector<std::string> &log_problems();
// The last of them, or fallback when there is none (the configured log
// level may filter warn lines out).
std::string last_log_problem(const std::string &fallback);

// Runs fn with this process's standard error sent to a temporary file and
// returns what was written there, so that the programs the library starts
// (tar) cannot add lines to the tool's own error output. With verbose the
// text is copied to standard error as well.
std::string capture_stderr(bool verbose, const std::function<void()> &fn);

// Prints object as the --json answer of inv's subcommand: one JSON object on
// standard output whose first members are "schema" (the version of the
// output's layout, kJsonSchema) and "command" (the subcommand as typed), then
// object's own members in their order, and a line end; standard output is
// flushed. Takes the caller's reference to object (it may be NULL, for "no
// members"). Returns kExitOk, or kExitMissing after an error line when the
// text cannot be written.
constexpr int kJsonSchema = 1;
int print_json(const Invocation &inv, json_t *object);

// How long a subcommand waits for a lock of the agent's (the heartbeat
// table's), in seconds: 0.1, as long as the library's own operations wait.
double lock_timeout_seconds(const Invocation &inv);

// The install root, or "" when the library cannot give it; the app home
// record's path and its backup's (cmd_apphome.cpp).
std::string install_root();
std::string record_path();
std::string backup_path();
// Why tarn_apphome_check_validity(path) gave result, in words ("valid:
// PATH names app home DIR" when it is valid).
std::string validity_text(int32_t result, const std::string &path);

// Parses decimal digits only (no sign, no blanks) into *out, refusing values
// above max.
bool parse_unsigned(const std::string &text, uint64_t max, uint64_t *out);

// Whether path names a directory (symbolic links followed).
bool is_directory(const std::string &path);
// 0 when something exists at path, else the errno of looking.
int path_error(const std::string &path);
// "" when path is a regular file (symbolic links followed); otherwise why
// not, with *error set to the errno of looking (0 when something else is
// there).
std::string regular_file_problem(const std::string &path, int *error);
// The bytes of the file at path, "" when it cannot be read.
std::string file_contents(const std::string &path);
// strerror() of an errno value as a std::string.
std::string error_text(int error);

// The subcommands.
int run_status(const Invocation &inv);
int run_doctor(const Invocation &inv);
int run_metrics(const Invocation &inv);
int run_apphome_show(const Invocation &inv);
int run_apphome_check(const Invocation &inv);
int run_apphome_restore(const Invocation &inv);
int run_apphome_reduce(const Invocation &inv);
int run_pkg_list(const Invocation &inv);
int run_pkg_unpack(const Invocation &inv);
int run_pkg_show(const Invocation &inv);
int run_pkg_verify(const Invocation &inv);
int run_env_admin(const Invocation &inv);
int run_env_space(const Invocation &inv);
int run_env_uos(const Invocation &inv);
int run_version_parse(const Invocation &inv);
int run_version_compare(const Invocation &inv);
int run_version_print(const Invocation &inv);

}  // namespace tarnctl

#endif
