// common.cpp -- error lines, the library's log lines, standard error
// capture, and argument and path checks shared by the subcommands.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include <tarnbase/tarn_log.h>

#include "tarnctl.h"

namespace tarnctl {

namespace {

bool g_verbose = false;
std::vector<std::string> g_problems;

// text with every line end and tab turned into a blank and trailing blanks
// dropped, so that it fits on one line.
std::string one_line(std::string text) {
  for (char &c : text) {
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// The message of one of the library's lines: the text after the prefix
// "[time] [level] [pid:..] [tid:..] [kep] [file:line] ". A line without that
// prefix (from the base library) is kept whole.
std::string message_of(const char *line, size_t length) {
  std::string text(line, length);
  constexpr char kTag[] = "] [kep] [";
  const size_t tag = text.find(kTag);
  if (tag != std::string::npos) {
    const size_t end = text.find("] ", tag + sizeof(kTag) - 1);
    if (end != std::string::npos) text.erase(0, end + 2);
  }
  return one_line(text);
}

void log_sink(void *, uint32_t level, const char *line, size_t length) {
  if (g_verbose) fwrite(line, 1, length, stderr);
  if (level <= TARN_LOG_LEVEL_WARN) g_problems.push_back(message_of(line, length));
}

// A descriptor closed at the end of its scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Everything in the file open at fd, read from its start.
std::string read_all(int fd) {
  std::string text;
  if (lseek(fd, 0, SEEK_SET) != 0) return text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, (size_t)got);
  return text;
}

}  // namespace

void complain(const Invocation &inv, const std::string &reason) {
  fprintf(stderr, "tarnctl: %s: %s\n", inv.command.c_str(), one_line(reason).c_str());
}

int fail(const Invocation &inv, int code, const std::string &reason) {
  complain(inv, reason);
  return code;
}

void install_log_sink() { tarn_log_register(log_sink, nullptr); }

void set_log_verbose(bool verbose) { g_verbose = verbose; }

void clear_log_problems() { g_problems.clear(); }

const std::vector<std::string> &log_problems() { return g_problems; }

std::string last_log_problem(const std::string &fallback) {
  return g_problems.empty() ? fallback : g_problems.back();
}

std::string capture_stderr(bool verbose, const std::function<void()> &fn) {
  fflush(stderr);
  Descriptor saved(dup(STDERR_FILENO));
  std::unique_ptr<FILE, int (*)(FILE *)> capture(tmpfile(), fclose);
  if (saved.get() < 0 || !capture || dup2(fileno(capture.get()), STDERR_FILENO) < 0) {
    // Without a place to put it, the output stays where it was.
    fn();
    return "";
  }
  fn();
  fflush(stderr);
  dup2(saved.get(), STDERR_FILENO);
  const std::string text = read_all(fileno(capture.get()));
  if (verbose) fwrite(text.data(), 1, text.size(), stderr);
  return text;
}

int print_json(const Invocation &inv, json_t *object) {
  std::unique_ptr<json_t, void (*)(json_t *)> members(object, json_decref);
  std::unique_ptr<json_t, void (*)(json_t *)> answer(json_object(), json_decref);
  bool built = answer && json_object_set_new(answer.get(), "schema", json_integer(kJsonSchema)) == 0 &&
               json_object_set_new(answer.get(), "command", json_string(inv.command.c_str())) == 0;
  if (built && members) built = json_object_update(answer.get(), members.get()) == 0;
  if (!built || json_dumpf(answer.get(), stdout, JSON_INDENT(2) | JSON_PRESERVE_ORDER) != 0 ||
      putchar('\n') == EOF || fflush(stdout) != 0) {
    return fail(inv, kExitMissing, "cannot write the JSON text");
  }
  return kExitOk;
}

double lock_timeout_seconds(const Invocation &) { return 0.1; }

bool parse_unsigned(const std::string &text, uint64_t max, uint64_t *out) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = (uint64_t)(c - '0');
    if (digit > max || value > (max - digit) / 10) return false;
    value = value * 10 + digit;
  }
  *out = value;
  return true;
}

bool is_directory(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int path_error(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? 0 : errno;
}

std::string regular_file_problem(const std::string &path, int *error) {
  struct stat st;
  *error = stat(path.c_str(), &st) == 0 ? 0 : errno;
  if (*error != 0) return error_text(*error);
  return S_ISREG(st.st_mode) ? "" : "not a regular file";
}

std::string file_contents(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string error_text(int error) { return strerror(error); }

}  // namespace tarnctl
