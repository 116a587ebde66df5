// tarnctl -- the operator's view of the agent's shared state: the heartbeat
// table, the app home record, packages and manifests, environment checks
// and version strings, through libtarnaux's public interface
// (docs/tarnctl.md).
//
// The command line is "tarnctl [OPTION...] SUBCOMMAND [OPTION...] ARG...";
// every subcommand takes --help, --verbose, --json and --timeout, before its
// name or among its words. Errors are one line each on
// standard error, "tarnctl: <subcommand>: <reason>", and the exit code says
// what kind of failure it was (kExitUsage ... in tarnctl.h).

#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <tarnaux/tarnaux_version.h>
#include <version_mgr.h>

#include "manual_text.h"

#include "tarnctl.h"

namespace tarnctl {
namespace {

struct Command {
  const char *name;                  // "pkg verify"
  const char *arguments;             // "DIR MANIFEST.ejs"
  std::vector<std::string> options;  // the subcommand's own options
  size_t min_args;
  size_t max_args;
  const char *summary;  // one line for the overview
  const char *details;  // the rest of its --help
  int (*run)(const Invocation &);
};

constexpr char kExitTable[] =
    "exit codes:\n"
    "  0  success; the answer is yes\n"
    "  1  the answer is no, or a check failed (invalid record, missing or\n"
    "     mismatching files, not administrator, no room)\n"
    "  2  usage error: unknown subcommand or option, missing, extra or\n"
    "     malformed argument\n"
    "  3  a file, directory or record is missing, unreadable or unwritable\n"
    "  4  a lock could not be taken, or the heartbeat table is unavailable,\n"
    "     or the time-out passed\n"
    "  5  bad data: corrupt archive, bad or tampered manifest, bad version\n"
    "     string, malformed record\n";

// The options that every subcommand takes, before its name or among its
// words; --help is handled where it stands.
constexpr char kCommonOptions[] =
    "  --help               print the help and exit 0\n"
    "  --verbose            copy the library's log lines to standard error\n"
    "  --json               print the answer as one JSON object\n"
    "  --timeout SECONDS    wait at most SECONDS (above 0, fractions allowed;\n"
    "                       30 by default) for a lock or for a program that\n"
    "                       the library runs; exit 4 after it\n";
constexpr char kTimeoutOption[] = "--timeout";
constexpr double kMaxTimeoutSeconds = 86400;

const std::vector<Command> &commands() {
  static const std::vector<Command> table = {
      {"status", "", {"--max-age SECONDS", "--watch [SECONDS]"}, 0, 0,
       "who in the heartbeat table is healthy, and whether the table is intact",
       "Reads the heartbeat table without changing it (it is never created or\n"
       "cleared): through the library, and through a read-only mapping of its\n"
       "own under the table's lock. Prints the table's integrity (magic,\n"
       "proc_num against the occupied slots, the watchdog slot, the entries the\n"
       "library lists, the journal), one row per process entry\n"
       "  SLOT PID NAME TYPE INTERVAL_S AGE_S STATE EXECUTABLE\n"
       "the watchdog's row and a last line \"status: ok\" or \"status: not ok:\n"
       "REASONS\". STATE is ok; late (no beat for more than twice its\n"
       "interval); timed-out (no beat for --max-age seconds); dead (no such\n"
       "process); reused (its pid now belongs to another process than the one\n"
       "that registered).\n"
       "\n"
       "  --json               one JSON object (docs/tarnctl.md)\n"
       "  --max-age SECONDS    the age that counts as timed out (default 60)\n"
       "  --watch [SECONDS]    redraw every SECONDS (default 2) until stopped\n"
       "\n"
       "Exit 0 when the table is intact, has a service entry and every entry\n"
       "and the watchdog are ok; 3 otherwise; 4 when there is no table or its\n"
       "lock cannot be had within the time-out (100 ms).\n",
       run_status},
      {"doctor", "", {}, 0, 0, "check the agent's shared state, one line per check",
       "Runs every check and prints one line each, \"VERDICT CHECK: WHAT\"\n"
       "with VERDICT ok, warn or fail, followed for warn and fail by a line\n"
       "\"  fix: HINT\". Checks: the heartbeat table's integrity; the app home\n"
       "record and its backup (valid, equal); the flags of the app homes they\n"
       "name; the service's version against the app home's manifests; stray\n"
       "temporaries of saved files; who holds each lock; free space; the modes\n"
       "of the install root, the record and its backup; the signature keys.\n"
       "\n"
       "  --json   one JSON object (docs/tarnctl.md)\n"
       "\n"
       "Exit 0 when every check is ok or warn, 1 when any check fails.\n",
       run_doctor},
      {"metrics", "", {}, 0, 0, "the table and the record in Prometheus text format",
       "Prints the heartbeat table's integrity, its entries' ages, intervals\n"
       "and states, the watchdog's age and the app home record's state as\n"
       "metrics named tarnaux_..., in the Prometheus text exposition format,\n"
       "for node_exporter's textfile collector. A missing or locked table is\n"
       "reported as tarnaux_heartbeat_table_up 0. Exit 0 once the metrics\n"
       "are printed.\n",
       run_metrics},
      {"apphome show", "", {}, 0, 0, "the app home record and its backup, as text",
       "Prints each of the record and its backup: a line \"record: PATH\" or\n"
       "\"backup: PATH\", then every key of the file as \"  [section]\" and\n"
       "\"  key=value\" lines, then \"  app home: PATH\" (and \"  companion app\n"
       "home: PATH\") for the directories the file names. A file that is\n"
       "missing (exit 3) or not an ini file (exit 5) gets an error line; the\n"
       "other file is still shown.\n",
       run_apphome_show},
      {"apphome check", "", {"--backup"}, 0, 0, "whether the app home record is valid, and why not",
       "Checks the record (with --backup: the backup) and prints \"valid: FILE\n"
       "names app home PATH\". Otherwise one line says why, and the exit code\n"
       "is 3 when the file does not exist, 1 when it names no app home, lacks\n"
       "the companion app home the machine needs, or names a directory that is\n"
       "not operational (has no config/flags/flag_operational nor its spare).\n"
       "A lost flag file is restored from its spare by the check.\n"
       "\n"
       "  --backup  check tarn_apphome_backup.ini instead of tarn_apphome.ini\n",
       run_apphome_check},
      {"apphome restore", "", {}, 0, 0, "record the app home that the backup names",
       "When the backup is valid (as \"apphome check --backup\" checks it),\n"
       "records its app home (and companion) as current: the record is\n"
       "written under its lock and the backup rewritten to match it. Prints\n"
       "\"restored: app_home=NAME\" (\", app_home_x86=NAME\" where needed).\n"
       "Exit 3 when the backup is missing, 1 when it is not valid (nothing is\n"
       "written then), 4 when the record's lock cannot be had (within the\n"
       "time-out).\n",
       run_apphome_restore},
      {"apphome reduce", "", {}, 0, 0, "bring back a usable record (record, backup, or a scan)",
       "Keeps the record when it is valid, else copies a valid backup over it,\n"
       "else rebuilds it from the app home directories below the install root\n"
       "(asking the installed tarn_service for its version). Prints one of\n"
       "  valid: app_home=NAME                      nothing was written\n"
       "  restored from the backup: app_home=NAME\n"
       "  rebuilt from the directories: app_home=NAME\n"
       "Exit 1, with the library's reason, when no usable record could be had;\n"
       "the files are then left as they were. Exit 4 when the record's lock\n"
       "stays held or tarn_service -v does not answer within the time-out.\n",
       run_apphome_reduce},
      {"pkg list", "DIR", {}, 1, 1, "the packages whose manifests lie in DIR/config/component_info",
       "Prints \"NAME VERSION\" for each manifest (.ejs file) in\n"
       "DIR/config/component_info that loads, in the order of the file names.\n"
       "A DIR that begins with \"@\" is taken relative to this program's\n"
       "directory. Exit 3 when there is no manifest at all; exit 5, after the\n"
       "list and one line per reason, when some manifests could not be loaded.\n",
       run_pkg_list},
      {"pkg unpack", "ARCHIVE DEST", {"--system-tar"}, 2, 2, "unpack a package archive into DEST",
       "Extracts the gzip-compressed tar archive ARCHIVE into DEST with the\n"
       "library's own extractor (DEST is created when missing; members that\n"
       "would land outside DEST are refused) and prints \"unpacked ARCHIVE\n"
       "into DEST\". Exit 3 when ARCHIVE is missing, 5 when it is corrupt or\n"
       "holds refused members (what was extracted before stays).\n"
       "\n"
       "  --system-tar  run the system's \"tar -zxf\" instead: ARCHIVE must end\n"
       "                in \".tgz\", DEST must exist, and neither path may hold\n"
       "                '\"', '$', '`' or '\\' (exit 2); a failed tar removes\n"
       "                DEST/NAME, the unpack cache of ARCHIVE NAME.tgz\n",
       run_pkg_unpack},
      {"pkg show", "MANIFEST.ejs", {}, 1, 1, "every field of a component manifest",
       "Prints the manifest's fields as \"key: value\" lines: package,\n"
       "version, requirement, scripts_skippable, retry (yes or no), arch_bind,\n"
       "arch, platform, depends (lists separated by blanks, \"-\" when empty),\n"
       "files (their number), then one line \"file: SHA256 NAME\" per file.\n"
       "Exit 3 when the file is missing, 5 when it is not a valid protected\n"
       "manifest (tampered, sealed with another key, no package, version or\n"
       "files).\n",
       run_pkg_show},
      {"pkg verify", "DIR", {}, 1, 1, "check a package's files against its manifests",
       "Checks every file that the manifests in DIR/config/component_info list\n"
       "below the unpacked package directory DIR against its SHA-256 digest\n"
       "(tarn_package_verify; links are not followed, names that leave DIR\n"
       "are not opened). Prints \"verified: every file that the manifests list\n"
       "matches its digest\"; otherwise one error line per problem (\"missing\n"
       "NAME\", \"differs NAME\", \"not a regular file NAME\", \"escapes NAME\",\n"
       "\"unreadable NAME\"), \"verified: N problems\" and exit 1. Exit 3 when\n"
       "DIR or its manifests are missing, 5 when a manifest is not valid.\n",
       run_pkg_verify},
      {"env admin", "", {}, 0, 0, "whether this process has administrator rights",
       "Prints \"yes\" (exit 0) when the effective user id is 0, else \"no\"\n"
       "(exit 1).\n",
       run_env_admin},
      {"env space", "PATH BYTES", {}, 2, 2, "whether PATH's file system has BYTES available",
       "BYTES is a decimal number of bytes above 0, optionally followed by K,\n"
       "M, G or T (powers of 1024). Prints \"yes: A bytes available, N\n"
       "needed\" (exit 0) or \"no: ...\" (exit 1); the figure is the space an\n"
       "unprivileged process may still fill. Exit 3 when PATH does not exist\n"
       "or its space cannot be read.\n",
       run_env_space},
      {"env uos", "MINOR", {}, 1, 1, "whether the system is UOS below minor version MINOR",
       "Prints \"yes\" (exit 0) when /etc/os-release says ID=uos and the\n"
       "MinorVersion of /etc/os-version is below MINOR (a decimal number up to\n"
       "2147483647), else \"no\" (exit 1).\n",
       run_env_uos},
      {"version parse", "V", {}, 1, 1, "parse a dotted version string",
       "Prints V as \"MAJOR.MINOR.PATCH\" (pieces after the third are ignored,\n"
       "each piece is read up to its first non-digit). Exit 5 when V is not a\n"
       "version string.\n",
       run_version_parse},
      {"version compare", "A [RELATION] B", {}, 2, 3, "compare two version strings",
       "Compares A with B field by field (major, then minor, then patch, each\n"
       "as an unsigned number) and prints \"<\", \"=\" or \">\" and the difference\n"
       "of the first field that differs: \"< -2\" for 1.2.3 against 1.2.5,\n"
       "\"> 4294967295\" for 4294967295.0.0 against 0.0.0. With RELATION (lt,\n"
       "le, eq, ne, ge or gt) it prints nothing and answers by its exit code:\n"
       "0 when \"A RELATION B\" holds, 1 when not. Exit 5 when A or B is not a\n"
       "version string, 2 for another RELATION.\n",
       run_version_compare},
      {"version print", "MAJOR MINOR PATCH", {}, 3, 3, "print a version from its three numbers",
       "Prints \"MAJOR.MINOR.PATCH\". Each number is decimal, 0 to 4294967295\n"
       "(exit 2 otherwise).\n",
       run_version_print},
      {"log", "[PROCESS]", {"-f"}, 0, 1, "the library's log files of the agent's processes",
       "Without PROCESS, lists the processes that have a log directory below\n"
       "LOGDIR/velmora/TARN3_LOG/tarn_default_autolog (LOGDIR is \"dir\" in\n"
       "section [log] of /etc/velmora/tarnbase.conf, /var/log by default), one\n"
       "\"PROCESS PATH\" line each. With PROCESS, prints its log: the rotated\n"
       "files tarn.log.N (oldest first), then tarn.log. Exit 3 when there is\n"
       "no such directory or log.\n"
       "\n"
       "  -f  after the log, print lines as they are added to tarn.log (also\n"
       "      across a rotation) until interrupted\n",
       run_log},
      {"upgrade status", "", {}, 0, 0, "the upgrade journal: state, app homes, time left",
       "Prints the upgrade journal (tarn_upgrade.ini at the install root): its\n"
       "state (none, starting, trial, rolling back, committed, rolled back,\n"
       "unreadable), the previous and the new app home, the trial's length and\n"
       "the time left, the last verdict and the reason of a rollback. A journal\n"
       "that cannot be read is reported as \"unreadable\" (exit 0).\n",
       run_upgrade_status},
      {"upgrade begin", "NEW_APPHOME SECONDS [NEW_APPHOME_X86]", {}, 2, 3,
       "put an app home on trial for SECONDS",
       "Records NEW_APPHOME (a name below the install root) as the app home and\n"
       "watches it for SECONDS (1 to 604800); the recorded one is kept as the\n"
       "fallback. NEW_APPHOME_X86 is the companion, on machines that need one.\n"
       "Exit 1 when the app home is not operational or a trial runs already.\n",
       run_upgrade_begin},
      {"upgrade check", "", {}, 0, 0, "judge the trial now; roll back or commit",
       "What the watchdog does on each beat: reads the heartbeat table and\n"
       "rolls the upgrade back when the service is missing, silent or in a\n"
       "crash loop, commits it when the trial time has run out. Prints the\n"
       "verdict (none, running, passed, failed) and why. Exit 4 without a\n"
       "heartbeat table.\n",
       run_upgrade_check},
      {"upgrade commit", "", {}, 0, 0, "end the trial as passed",
       "Marks the upgrade committed; the previous app home stays on disk.\n"
       "Exit 1 when no upgrade is on trial.\n",
       run_upgrade_commit},
      {"upgrade rollback", "[REASON]", {}, 0, 1, "go back to the previous app home",
       "Records the previous app home again and rewrites its service\n"
       "configuration so that the service manager restarts the old service.\n"
       "Exit 1 when no upgrade is on trial.\n",
       run_upgrade_rollback},
  };
  return table;
}

const Command *find_command(const std::string &name) {
  for (const Command &command : commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

bool is_group(const std::string &word) {
  const std::string prefix = word + " ";
  for (const Command &command : commands()) {
    if (strncmp(command.name, prefix.c_str(), prefix.size()) == 0) return true;
  }
  return false;
}

std::string usage_line(const Command &command) {
  std::string line = std::string("tarnctl ") + command.name;
  for (const std::string &option : command.options) line += " [" + option + "]";
  if (command.arguments[0] != '\0') line += std::string(" ") + command.arguments;
  return line;
}

// The overview of every subcommand whose name begins with prefix.
void print_overview(const std::string &prefix) {
  for (const Command &command : commands()) {
    if (strncmp(command.name, prefix.c_str(), prefix.size()) != 0) continue;
    printf("  %-44s %s\n", usage_line(command).substr(8).c_str(), command.summary);
  }
}

void print_main_help() {
  printf(
      "usage: tarnctl [OPTION...] SUBCOMMAND [OPTION...] [ARG...]\n"
      "       tarnctl --version\n"
      "\n"
      "Shows and checks the agent's shared state through libtarnaux.\n"
      "\n"
      "subcommands:\n");
  print_overview("");
  printf(
      "\n"
      "options (before the subcommand, or anywhere among its words):\n"
      "%s"
      "\n"
      "Errors are written to standard error as one line each:\n"
      "\"tarnctl: SUBCOMMAND: REASON\".\n"
      "\n%s",
      kCommonOptions, kExitTable);
}

void print_group_help(const std::string &group) {
  printf("usage: tarnctl %s SUBCOMMAND [OPTION...] [ARG...]\n\nsubcommands:\n", group.c_str());
  print_overview(group + " ");
  printf("\n%s", kExitTable);
}

void print_command_help(const Command &command) {
  printf("usage: %s\n\n%s\n%s\noptions of every subcommand:\n%s\n%s", usage_line(command).c_str(),
         command.summary, command.details, kCommonOptions, kExitTable);
}

// The manual page, from the same table as --help.
int print_man() {
  printf(".TH TARNCTL 1 \"\" \"tarnctl %s\" \"User Commands\"\n", TARN_VERSION);
  printf(".SH NAME\ntarnctl \\- show and check the agent's shared state through libtarnaux\n");
  printf(".SH SYNOPSIS\n.B tarnctl\n[\\fIOPTION\\fR...] \\fISUBCOMMAND\\fR [\\fIOPTION\\fR...] [\\fIARG\\fR...]\n"
         ".br\n.B tarnctl \\-\\-version\n");
  printf(".SH DESCRIPTION\nShows and checks the heartbeat table, the app home record, packages and\n"
         "their manifests, the installer's environment checks, version strings and\n"
         "the library's log files. Errors are written to standard error as one line\n"
         "each: \"tarnctl: SUBCOMMAND: REASON\".\n");
  printf(".SH OPTIONS\n");
  tarn_manual::print_block(std::string(kCommonOptions) + "  --version            print the versions of tarnctl and libtarnaux\n");
  printf(".SH SUBCOMMANDS\n");
  for (const Command &command : commands()) {
    printf(".SS %s\n.B %s\n.PP\n%s.\n", tarn_manual::roff(command.name).c_str(), tarn_manual::roff(usage_line(command)).c_str(),
           tarn_manual::roff(command.summary).c_str());
    tarn_manual::print_block(command.details);
  }
  printf(".SH EXIT STATUS\n");
  tarn_manual::print_block(std::string(kExitTable).substr(strlen("exit codes:\n")));
  printf(".SH SEE ALSO\n.BR tarn\\-ejs (1)\n");
  return kExitOk;
}

// The bash completion of tarnctl, from the same table as --help.
int print_completion() {
  std::vector<tarn_manual::CompletionEntry> entries;
  for (const Command &command : commands()) entries.push_back({command.name, command.options});
  fputs(tarn_manual::bash_completion("tarnctl", "--help --verbose --json --timeout --version",
                                     "--help --verbose --json --timeout", {kTimeoutOption}, entries)
            .c_str(),
        stdout);
  return kExitOk;
}

// Ends the subcommand of inv with code: prints the --json answer when it
// was asked for.
int finish(const Invocation &inv, int code) { return inv.json() ? finish_json(inv, code) : code; }

// A usage error of the subcommand named name; global holds the options
// given before it.
int usage_error(const Invocation &global, const std::string &name, const std::string &reason) {
  Invocation inv = global;
  inv.command = name;
  return finish(inv, fail(inv, kExitUsage, reason));
}

// Parses SECONDS of --timeout: decimal digits, optionally with a fraction,
// above 0 and at most kMaxTimeoutSeconds.
bool parse_seconds(const std::string &text, double *seconds) {
  const size_t point = text.find('.');
  const std::string whole = text.substr(0, point);
  const std::string fraction = point == std::string::npos ? "0" : text.substr(point + 1);
  uint64_t ignored = 0;
  if (!parse_unsigned(whole, UINT32_MAX, &ignored) || fraction.find_first_not_of("0123456789") != std::string::npos ||
      fraction.empty()) {
    return false;
  }
  *seconds = strtod(text.c_str(), nullptr);
  return *seconds > 0 && *seconds <= kMaxTimeoutSeconds;
}

enum class Taken { kNo, kYes, kBad };

// Takes the common option at argv[*i] (--verbose, --json, --timeout
// SECONDS or --timeout=SECONDS) into inv, moving *i past its value. kBad
// leaves the reason in *error.
Taken take_common_option(int argc, char **argv, int *i, Invocation *inv, std::string *error) {
  const std::string word = argv[*i];
  if (word == "--verbose") {
    inv->verbose = true;
    return Taken::kYes;
  }
  if (word == "--json") {
    inv->options.insert(word);
    return Taken::kYes;
  }
  std::string value;
  const std::string with_value = std::string(kTimeoutOption) + "=";
  if (word == kTimeoutOption) {
    if (*i + 1 >= argc) {
      *error = "--timeout needs SECONDS";
      return Taken::kBad;
    }
    value = argv[++*i];
  } else if (word.rfind(with_value, 0) == 0) {
    value = word.substr(with_value.size());
  } else {
    return Taken::kNo;
  }
  if (!parse_seconds(value, &inv->timeout_seconds)) {
    *error = "--timeout needs a number of seconds above 0, at most 86400, not \"" + value + "\"";
    return Taken::kBad;
  }
  return Taken::kYes;
}

// Parses the words after the subcommand's name into inv (which holds the
// options given before it). Returns kExitOk, kExitUsage after the error
// line, or -1 when --help was printed.
int parse_words(const Command &command, int argc, char **argv, int first, Invocation *inv) {
  bool options_end = false;
  for (int i = first; i < argc; ++i) {
    const std::string word = argv[i];
    std::string error;
    if (!options_end && word == "--") {
      options_end = true;
    } else if (!options_end && (word == "--help" || word == "-h")) {
      print_command_help(command);
      return -1;
    } else if (!options_end && word.size() > 1 && word[0] == '-') {
      const Taken taken = take_common_option(argc, argv, &i, inv, &error);
      if (taken == Taken::kBad) return fail(*inv, kExitUsage, error);
      if (taken == Taken::kYes) continue;
      // An option is declared as "--name", "--name VALUE" (a value
      // follows) or "--name [VALUE]" (the next word is its value unless it
      // begins with '-').
      const std::string *declared = nullptr;
      for (const std::string &option : command.options) {
        if (option.substr(0, option.find(' ')) == word) declared = &option;
      }
      if (declared == nullptr) {
        return fail(*inv, kExitUsage, "unknown option " + word + " (usage: " + usage_line(command) + ")");
      }
      inv->options.insert(word);
      const size_t blank = declared->find(' ');
      if (blank == std::string::npos) continue;
      const bool optional = declared->compare(blank + 1, 1, "[") == 0;
      const bool follows = i + 1 < argc && argv[i + 1][0] != '-';
      if (!follows && !optional) {
        return fail(*inv, kExitUsage, "missing value of " + word + " (usage: " + usage_line(command) + ")");
      }
      if (follows) inv->values[word] = argv[++i];
    } else {
      inv->args.push_back(word);
    }
  }
  if (inv->args.size() < command.min_args) {
    return fail(*inv, kExitUsage, "missing argument (usage: " + usage_line(command) + ")");
  }
  if (inv->args.size() > command.max_args) {
    return fail(*inv, kExitUsage,
                "unexpected argument " + inv->args[command.max_args] + " (usage: " + usage_line(command) + ")");
  }
  return kExitOk;
}

// Ends a subcommand that gave code: its --json answer, and exit 3 when
// standard output could not be written.
int answered(const Invocation &inv, int code) {
  code = finish(inv, code);
  if (fflush(stdout) != 0 || ferror(stdout) != 0) {
    const int error = errno != 0 ? errno : EIO;
    return fail(inv, kExitMissing, "cannot write standard output: " + error_text(error));
  }
  return code;
}

// What a subcommand that waits for locks or for a program that the library
// runs was waiting for when its time-out ends it; nullptr for the others,
// which wait for nothing. Those run in a child process that is killed at the
// time-out, since the library's calls wait as long as the base library's
// "[lock] wait_seconds" and the programs it runs take.
const char *time_out_reason(const std::string &name) {
  if (name == "apphome check" || name == "apphome restore") return "the record's lock could not be taken";
  if (name == "apphome reduce") return "the record's lock is held or tarn_service -v does not answer";
  return nullptr;
}

// Parses the words after the subcommand's name and runs it.
int run_command(const Command &command, int argc, char **argv, int first, const Invocation &global) {
  Invocation inv = global;
  inv.command = command.name;
  const int parsed = parse_words(command, argc, argv, first, &inv);
  if (parsed < 0) return kExitOk;
  if (parsed != kExitOk) return finish(inv, parsed);
  set_log_verbose(inv.verbose);
  const char *waits_for = time_out_reason(inv.command);
  if (waits_for == nullptr) return answered(inv, command.run(inv));
  int code = kExitOk;
  if (!run_bounded(lock_timeout_seconds(inv), [&] { return answered(inv, command.run(inv)); }, &code)) {
    code = answered(inv, fail(inv, kExitLocked,
                              "timed out after " + seconds_text(lock_timeout_seconds(inv)) + " s: " + waits_for));
  }
  return code;
}

// "tarnctl X.Y.Z" and the version and file of the library that was loaded,
// which may be another than the one it was built with.
int print_version() {
  Dl_info found;
  memset(&found, 0, sizeof(found));
  const bool located = dladdr(reinterpret_cast<void *>(&version_mgr_parser_version), &found) != 0 &&
                       found.dli_fname != nullptr;
  printf("tarnctl %s\nlibtarnaux %s (%s)\n", TARN_VERSION, tarnaux_version_string(),
         located ? found.dli_fname : "location unknown");
  return kExitOk;
}

int dispatch(int argc, char **argv) {
  int i = 1;
  Invocation global;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string word = argv[i];
    std::string error;
    if (word == "--help" || word == "-h") {
      print_main_help();
      return kExitOk;
    }
    if (word == "--version") return print_version();
    if (word == "--print-man") return print_man();
    if (word == "--print-completion") return print_completion();
    const Taken taken = take_common_option(argc, argv, &i, &global, &error);
    if (taken == Taken::kBad) return usage_error(global, "usage", error);
    if (taken == Taken::kNo) return usage_error(global, "usage", "unknown option " + word + " (see tarnctl --help)");
  }
  if (i >= argc) return usage_error(global, "usage", "missing subcommand (see tarnctl --help)");

  const std::string first = argv[i];
  if (const Command *command = find_command(first)) return run_command(*command, argc, argv, i + 1, global);
  if (!is_group(first)) return usage_error(global, first, "unknown subcommand (see tarnctl --help)");
  if (i + 1 >= argc) return usage_error(global, first, "missing subcommand (see tarnctl " + first + " --help)");
  const std::string second = argv[i + 1];
  if (second == "--help" || second == "-h") {
    print_group_help(first);
    return kExitOk;
  }
  if (const Command *command = find_command(first + " " + second)) {
    return run_command(*command, argc, argv, i + 2, global);
  }
  return usage_error(global, first, "unknown subcommand " + second + " (see tarnctl " + first + " --help)");
}

}  // namespace
}  // namespace tarnctl

int main(int argc, char **argv) {
  // Before any call into the library: its log lines must never reach
  // standard output or a log file of the agent's.
  tarnctl::install_log_sink();
  return tarnctl::dispatch(argc, argv);
}
