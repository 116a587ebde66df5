/* log_frame.h -- the logging frame that every source file of libtarnaux uses.
 *
 * LOG(level, format, ...) writes one line through tarn_log_output:
 *
 *   [2026-11-21 12:05:09.789] [warn] [pid:1234] [tid:1240] [kep] [file.cpp:42] message
 *
 * level is one of the words fatal, error, warn, info, debug. fatal and
 * error are always written (level number 0); warn, info and debug (1, 2, 3)
 * only when tarn_log_level_get() is at least their number. The milliseconds
 * of the time come from the tick counter, not from the wall clock. A process
 * that logs before registering a destination of its own gets the default
 * destination (see log_default_autolog_init), also when the line itself is
 * filtered out.
 *
 * CHECK_EXPR(condition, format, ...) logs at warn "expr[<condition>] false! "
 * followed by the format when the condition is false; it only logs. The
 * condition's text is an argument, not part of the format, so a '%' in it
 * is printed as it stands.
 *
 * LOG_OUT_OF_MEMORY() logs "Out of memory" at fatal and ends the process
 * with status 0, which is what the agent's processes expect; it is used
 * where an allocation fails at a place that has no error return. The line
 * names the place: every allocation that can end the process this way has
 * its own line. A helper that allocates on its callers' behalf takes their
 * place (OUT_OF_MEMORY_HERE, a log_site) and ends the process with
 * log_out_of_memory(site), so that the line names the caller's allocation
 * and not the helper.
 */
#ifndef TARNAUX_LOG_FRAME_H
#define TARNAUX_LOG_FRAME_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <tarnbase/tarn_log.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_str.h>

#define LOG_TIME_BUFFER_SIZE 256
#define LOG_PATH_BUFFER_SIZE 1024
#define LOG_MODULE_TAG "[kep]"
#define LOG_TIME_FALLBACK "1970-01-01 00:00:00.000"
#define LOG_AUTOLOG_SUBDIR "/velmora/TARN3_LOG/tarn_default_autolog/"
#define LOG_AUTOLOG_FALLBACK_DIR "@/../var/logs/tarn_default_autolog/"
#define LOG_AUTOLOG_MAX_FILES 5

/* The last component of a source path, computed at compile time. */
static constexpr const char *log_base_name(const char *path) {
  const char *name = path;
  for (const char *p = path; *p != '\0'; ++p) {
    if (*p == '/') name = p + 1;
  }
  return name;
}

/* Registers the default destination: the system log directory followed by
 * LOG_AUTOLOG_SUBDIR and the process name, or, when there is no system log
 * directory, LOG_AUTOLOG_FALLBACK_DIR and the process name. The doubled
 * slashes that the formats produce are kept. */
static inline void log_default_autolog_init(void) {
  char exe_path[LOG_PATH_BUFFER_SIZE];
  memset(exe_path, 0, sizeof(exe_path));
  tarn_process_get_path(getpid(), exe_path, sizeof(exe_path));
  const char *slash = strrchr(exe_path, '/');
  const char *process_name = slash != nullptr ? slash + 1 : exe_path;

  char log_dir[LOG_PATH_BUFFER_SIZE];
  memset(log_dir, 0, sizeof(log_dir));
  char destination[LOG_PATH_BUFFER_SIZE];
  if (tarn_log_dir(log_dir, sizeof(log_dir)) != 0) {
    tarn_str_snprintf(destination, sizeof(destination), "%s/%s/%s/", log_dir, LOG_AUTOLOG_SUBDIR,
                      process_name);
  } else {
    tarn_str_snprintf(destination, sizeof(destination), "%s/%s/", LOG_AUTOLOG_FALLBACK_DIR,
                      process_name);
  }
  tarn_autolog_init(destination, LOG_AUTOLOG_MAX_FILES);
}

static inline void log_ensure_registered(void) {
  if (tarn_log_is_regestered() == 0) log_default_autolog_init();
}

/* Writes value as exactly width decimal digits at out. */
static inline void log_put_digits(char *out, int value, int width) {
  for (int i = width - 1; i >= 0; --i) {
    out[i] = (char)('0' + value % 10);
    value /= 10;
  }
}

/* The local time of one second, converted once per second and thread (the
 * conversion is the larger part of a statement's cost), with its text
 * "YYYY-MM-DD hh:mm:ss." when the year has four digits and every field two.
 * Initial-exec TLS: the library is loaded with the program, and the
 * general model's lookup costs as much as the rest of the time text. */
struct log_second {
  time_t second;
  bool converted; /* local holds that second's broken-down time */
  bool has_text;  /* text holds its first 20 characters */
  struct tm local;
  char text[20];
};

static inline const log_second *log_local_time(time_t now) {
  static thread_local __attribute__((tls_model("initial-exec"))) log_second cached = {(time_t)-1, false,
                                                                                      false, {}, {}};
  if (now != cached.second || now == (time_t)-1 || !cached.converted) {
    cached.second = now;
    cached.converted = localtime_r(&now, &cached.local) != nullptr;
    if (!cached.converted) return nullptr;
    const struct tm &local = cached.local;
    const int year = local.tm_year + 1900;
    cached.has_text = year >= 1000 && year <= 9999 && local.tm_mon >= 0 && local.tm_mon <= 11 &&
                      local.tm_mday >= 0 && local.tm_mday <= 99 && local.tm_hour >= 0 &&
                      local.tm_hour <= 99 && local.tm_min >= 0 && local.tm_min <= 99 &&
                      local.tm_sec >= 0 && local.tm_sec <= 99;
    if (cached.has_text) {
      memcpy(cached.text, "0000-00-00 00:00:00.", 20);
      log_put_digits(cached.text, year, 4);
      log_put_digits(cached.text + 5, local.tm_mon + 1, 2);
      log_put_digits(cached.text + 8, local.tm_mday, 2);
      log_put_digits(cached.text + 11, local.tm_hour, 2);
      log_put_digits(cached.text + 14, local.tm_min, 2);
      log_put_digits(cached.text + 17, local.tm_sec, 2);
    }
  }
  return &cached;
}

/* Writes the local time with tick milliseconds into buffer, which holds
 * LOG_TIME_BUFFER_SIZE bytes. Returns the formatted length; the length of
 * the fallback text plus its terminator when localtime_r fails; 0 without
 * writing when buffer is null.
 *
 * Every statement formats the time, the filtered ones too, so the common
 * case (a four-digit year) copies the second's text, made once per second,
 * and writes the millisecond digits: the same text as the printf format
 * below at a fraction of its cost. */
static inline int log_format_time(char *buffer) {
  if (buffer == nullptr) return 0;
  const log_second *now = log_local_time(time(nullptr));
  if (now == nullptr) {
    memcpy(buffer, LOG_TIME_FALLBACK, sizeof(LOG_TIME_FALLBACK));
    return (int)sizeof(LOG_TIME_FALLBACK);
  }
  const int millis = (int)(tarn_log_get_tick_count() % 1000);
  if (!now->has_text) {
    const struct tm &local = now->local;
    return tarn_str_snprintf(buffer, LOG_TIME_BUFFER_SIZE, "%d-%02d-%02d %02d:%02d:%02d.%03d",
                             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                             local.tm_min, local.tm_sec, millis);
  }
  /* "YYYY-MM-DD hh:mm:ss.mmm" */
  memcpy(buffer, now->text, sizeof(now->text));
  log_put_digits(buffer + 20, millis, 3);
  buffer[23] = '\0';
  return 23;
}

/* fatal and error skip the gate; the others pass when the current level is
 * at least their number. */
static inline bool log_passes_gate(bool gated, uint32_t number) {
  return !gated || tarn_log_level_get() >= number;
}

/* A statement that names the source file file_name and the line line. */
#define LOG_EMIT_AT_(word, number, gated, file_name, line, fmt, ...)                                \
  do {                                                                                             \
    log_ensure_registered();                                                                       \
    char log_time_[LOG_TIME_BUFFER_SIZE];                                                          \
    memset(log_time_, 0, sizeof(log_time_));                                                       \
    log_format_time(log_time_);                                                                    \
    if (log_passes_gate((gated), (number))) {                                                      \
      long long log_tid_ = (long long)syscall(SYS_gettid);                                         \
      int log_pid_ = (int)getpid();                                                                \
      tarn_log_output((number), "[%s] [" word "] [pid:%d] [tid:%lld] %s [%s:%d] " fmt, log_time_, \
                      log_pid_, log_tid_, LOG_MODULE_TAG, (file_name), (line), ##__VA_ARGS__);     \
    }                                                                                              \
  } while (0)

#define LOG_EMIT_(word, number, gated, fmt, ...) \
  LOG_EMIT_AT_(word, number, gated, log_base_name(__FILE__), __LINE__, fmt, ##__VA_ARGS__)

#define LOG_fatal(fmt, ...) LOG_EMIT_("fatal", 0, false, fmt, ##__VA_ARGS__)
#define LOG_error(fmt, ...) LOG_EMIT_("error", 0, false, fmt, ##__VA_ARGS__)
#define LOG_warn(fmt, ...) LOG_EMIT_("warn", 1, true, fmt, ##__VA_ARGS__)
#define LOG_info(fmt, ...) LOG_EMIT_("info", 2, true, fmt, ##__VA_ARGS__)
#define LOG_debug(fmt, ...) LOG_EMIT_("debug", 3, true, fmt, ##__VA_ARGS__)
#define LOG(level, fmt, ...) LOG_##level(fmt, ##__VA_ARGS__)

#define CHECK_EXPR(condition, fmt, ...)                                                            \
  do {                                                                                             \
    if (!(condition)) LOG(warn, "expr[%s] false! " fmt, #condition, ##__VA_ARGS__);                \
  } while (0)

/* A place in a source file: the one that an "Out of memory" line names. */
struct log_site {
  const char *path; /* __FILE__; the line shows its last component */
  int line;
};

#define OUT_OF_MEMORY_HERE (log_site{__FILE__, __LINE__})

[[noreturn]] static inline void log_out_of_memory(log_site site) {
  LOG_EMIT_AT_("fatal", 0, false, log_base_name(site.path), site.line, "Out of memory\n");
  exit(0);
}

#define LOG_OUT_OF_MEMORY() log_out_of_memory(OUT_OF_MEMORY_HERE)

#endif
