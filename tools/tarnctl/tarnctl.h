// tarnctl.h -- what the subcommands of tarnctl share: exit codes, the parsed
// command line, error lines and the --json answer, the library's captured
// log lines, the time-out of library calls that wait, and small checks of
// arguments and paths.
#ifndef TARNCTL_H
#define TARNCTL_H

#include <stdint.h>

#include <jansson.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarnctl {

// Exit codes; docs/tarnctl.md and `tarnctl --help` have the same table.
enum ExitCode : int {
  kExitOk = 0,       // success; the answer is yes
  kExitNo = 1,       // the answer is no, or a check failed
  kExitUsage = 2,    // unknown subcommand or option, missing or malformed argument
  kExitMissing = 3,  // a file, directory or record is missing, unreadable or unwritable
  kExitLocked = 4,   // a lock could not be taken, the heartbeat table is unavailable, or the time-out passed
  kExitBadData = 5,  // corrupt archive, bad or tampered manifest, bad version string
};

// One subcommand as the user gave it.
struct Invocation {
  std::string command;            // "pkg verify"
  std::vector<std::string> args;  // the positional arguments
  std::set<std::string> options;  // the options that were given, "--json" among them
  std::map<std::string, std::string> values;  // the values given to those that take one
  bool verbose = false;
  double timeout_seconds = 0;  // --timeout; 0 when not given

  bool option(const char *name) const { return options.count(name) != 0; }
  bool json() const { return option("--json"); }
  // The value given to option name, or "" when it was given none.
  std::string value(const char *name) const {
    const auto found = values.find(name);
    return found == values.end() ? "" : found->second;
  }
};

// The seconds that a wait for a lock or for a program that the library
// runs may last: --timeout, else kDefaultTimeoutSeconds.
constexpr double kDefaultTimeoutSeconds = 30;
double lock_timeout_seconds(const Invocation &inv);
// The time-out as the error lines give it: "2", "0.5".
std::string seconds_text(double seconds);

// Writes "tarnctl: <command>: <reason>" to standard error as one line (line
// ends inside reason become blanks), after flushing standard output so that
// the line comes after the output it belongs to. The reason is also kept as
// the "error" of the --json answer (the last one wins).
void complain(const Invocation &inv, const std::string &reason);
// complain(), then returns code.
int fail(const Invocation &inv, int code, const std::string &reason);
// The reason of the last complain(), "" when there was none.
const std::string &last_complaint();

// The --json answer's own members, gathered while the subcommand runs and
// printed by finish_json(). answer() takes the caller's reference to value
// and sets it as member key (a later call with the same key replaces it);
// without --json the value is dropped.
void answer(const Invocation &inv, const char *key, json_t *value);
// Prints the gathered answer with "ok" (whether the subcommand wrote no
// error line) and, on failure, "error" (the last error line's reason),
// unless the subcommand printed its answer itself with print_json().
// Returns code, or kExitMissing when the text cannot be written.
int finish_json(const Invocation &inv, int code);
// printf() to standard output, only without --json.
void say(const Invocation &inv, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The library's log lines. install_log_sink() registers this program as the
// library's log destination before any other call, so that no line reaches
// standard output or a log file: each line down to info is kept in memory,
// and every line is also written to the standard error that the program
// started with when verbose is set (never into a capture_stderr() text).
void install_log_sink();
void set_log_verbose(bool verbose);
// Starts a step: forgets the kept lines; call it before the library call
// whose lines give the reason of its failure.
void clear_log_problems();
// The reason of the step's failure as the library logged it: the first
// fatal, error or warn line since clear_log_problems(), else its first info
// line, else fallback (the configured log level may filter them out). The
// first skip lines of the step are passed over.
std::string step_reason(const std::string &fallback, size_t skip = 0);
// The number of lines kept since clear_log_problems().
size_t step_line_count();
// Runs fn in a child process (in a process group of its own, with whatever
// programs it starts) and waits for it at most seconds. Returns true with
// fn's result (0 to 255) in *result when it ended in time (kExitMissing when
// it died without one); false when it did not, after killing the group.
bool run_bounded(double seconds, const std::function<int()> &fn, int *result);

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
int run_log(const Invocation &inv);
int run_upgrade_status(const Invocation &inv);
int run_upgrade_begin(const Invocation &inv);
int run_upgrade_check(const Invocation &inv);
int run_upgrade_commit(const Invocation &inv);
int run_upgrade_rollback(const Invocation &inv);

}  // namespace tarnctl

#endif
