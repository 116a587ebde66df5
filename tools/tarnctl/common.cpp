// common.cpp -- error lines, the --json answer, the library's log lines,
// standard error capture, the time-out of library calls that wait, and
// argument and path checks shared by the subcommands.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include <tarnbase/tarn_log.h>

#include "tarnctl.h"

namespace tarnctl {

namespace {

bool g_verbose = false;
// The standard error that the program started with: verbose lines go there
// also while capture_stderr() has standard error elsewhere.
FILE *g_verbose_stream = stderr;

// A library line kept for the reason of the current step.
struct StepLine {
  uint32_t level;
  std::string text;
};
std::vector<StepLine> g_step;
std::string g_complaint;
json_t *g_answer = nullptr;  // the --json answer's own members
bool g_json_printed = false;  // whether the subcommand printed its answer itself

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
  if (g_verbose) {
    fflush(stdout);
    fflush(stderr);
    fwrite(line, 1, length, g_verbose_stream);
    fflush(g_verbose_stream);
  }
  if (level <= TARN_LOG_LEVEL_INFO) g_step.push_back(StepLine{level, message_of(line, length)});
}

uint64_t monotonic_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
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
  g_complaint = one_line(reason);
  fflush(stdout);
  fprintf(stderr, "tarnctl: %s: %s\n", inv.command.c_str(), g_complaint.c_str());
  fflush(stderr);
}

const std::string &last_complaint() { return g_complaint; }

double lock_timeout_seconds(const Invocation &inv) {
  return inv.timeout_seconds > 0 ? inv.timeout_seconds : kDefaultTimeoutSeconds;
}

std::string seconds_text(double seconds) {
  char text[32];
  snprintf(text, sizeof(text), "%g", seconds);
  return text;
}

void answer(const Invocation &inv, const char *key, json_t *value) {
  if (!inv.json()) {
    json_decref(value);
    return;
  }
  if (g_answer == nullptr) g_answer = json_object();
  json_object_set_new(g_answer, key, value);
}

int finish_json(const Invocation &inv, int code) {
  if (g_json_printed) return code;
  json_t *object = json_object();
  json_object_set_new(object, "ok", json_boolean(g_complaint.empty()));
  if (!g_complaint.empty()) json_object_set_new(object, "error", json_string(g_complaint.c_str()));
  if (g_answer != nullptr) json_object_update(object, g_answer);
  json_decref(g_answer);
  g_answer = nullptr;
  const int printed = print_json(inv, object);
  return printed != kExitOk ? printed : code;
}

void say(const Invocation &inv, const char *format, ...) {
  if (inv.json()) return;
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
}

int fail(const Invocation &inv, int code, const std::string &reason) {
  complain(inv, reason);
  return code;
}

void install_log_sink() {
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  FILE *stream = saved >= 0 ? fdopen(saved, "w") : nullptr;
  if (stream != nullptr) g_verbose_stream = stream;
  tarn_log_register(log_sink, nullptr);
}

void set_log_verbose(bool verbose) { g_verbose = verbose; }

void clear_log_problems() { g_step.clear(); }

std::string step_reason(const std::string &fallback, size_t skip) {
  for (uint32_t most = TARN_LOG_LEVEL_WARN; most <= TARN_LOG_LEVEL_INFO; ++most) {
    for (size_t i = skip; i < g_step.size(); ++i) {
      if (g_step[i].level <= most) return g_step[i].text;
    }
  }
  return fallback;
}

size_t step_line_count() { return g_step.size(); }

bool run_bounded(double seconds, const std::function<int()> &fn, int *result) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    // Without a pipe no child can report back: run it here, unbounded.
    *result = fn();
    return true;
  }
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    close(report[0]);
    const int result = fn();
    fflush(stdout);
    fflush(stderr);
    FILE *out = fdopen(report[1], "w");
    if (out != nullptr) {
      fprintf(out, "%d", result);
      fclose(out);
    }
    _exit(0);
  }
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    *result = fn();
    return true;
  }
  // Set here as well: whichever of the two runs first, the group exists
  // before the deadline can kill it.
  setpgid(pid, pid);
  const uint64_t deadline = monotonic_ms() + (uint64_t)(seconds * 1000);
  std::string text;
  bool ended = false;
  for (;;) {
    const uint64_t now = monotonic_ms();
    if (now >= deadline) break;
    struct pollfd ready = {report[0], POLLIN, 0};
    const int polled = poll(&ready, 1, (int)(deadline - now));
    if (polled < 0 && errno != EINTR) break;
    if (polled <= 0) continue;
    char buffer[4096];
    const ssize_t got = read(report[0], buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ended = true;
      break;
    }
    text.append(buffer, (size_t)got);
  }
  close(report[0]);
  if (!ended) kill(-pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  // A child that died before it reported counts as a failure.
  if (ended) *result = text.empty() ? kExitMissing : atoi(text.c_str());
  return ended;
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
  g_json_printed = true;
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
