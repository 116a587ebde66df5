#include "file_faults.h"
#include "interpose.h"

#include <errno.h>

#include <map>
#include <utility>
#include <mutex>

#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_flock.h>
#include <tarnbase/tarn_ini.h>

namespace {

std::mutex g_mutex;
std::map<std::string, int> g_init_faults;
std::map<std::string, int> g_acquire_faults;
std::map<std::string, int> g_save_faults;
std::map<std::string, int> g_grant_faults;
std::map<std::string, int> g_copy_faults;
std::map<std::string, std::function<void()>> g_copy_actions;
std::map<const tarn_flock_t *, std::string> g_lock_paths;
std::vector<std::string> g_events;

using tarn_test::next_definition;

// The armed error for path, or 0; writes the event down.
int check(const std::map<std::string, int> &faults, const char *operation, const std::string &path) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_events.push_back(std::string(operation) + " " + path);
  auto it = faults.find(path);
  return it != faults.end() ? it->second : 0;
}

std::string path_of(const tarn_flock_t *handle) {
  std::lock_guard<std::mutex> guard(g_mutex);
  auto it = g_lock_paths.find(handle);
  return it != g_lock_paths.end() ? it->second : std::string("<unknown>");
}

std::string text(const char *path) { return path != nullptr ? path : "<null>"; }

}  // namespace

extern "C" {

int tarn_flock_init(const char *lock_path, tarn_flock_t **handle) {
  if (const int error = check(g_init_faults, "init", text(lock_path))) {
    if (handle != nullptr) *handle = nullptr;
    errno = error;
    return error;
  }
  const int ret = next_definition<int (*)(const char *, tarn_flock_t **)>("tarn_flock_init")(lock_path, handle);
  if (ret == 0 && handle != nullptr) {
    std::lock_guard<std::mutex> guard(g_mutex);
    g_lock_paths[*handle] = text(lock_path);
  }
  return ret;
}

int tarn_flock_acquire(tarn_flock_t *handle) {
  if (const int error = check(g_acquire_faults, "acquire", path_of(handle))) {
    errno = error;
    return error;
  }
  return next_definition<int (*)(tarn_flock_t *)>("tarn_flock_acquire")(handle);
}

int tarn_flock_release(tarn_flock_t *handle) {
  check({}, "release", path_of(handle));
  return next_definition<int (*)(tarn_flock_t *)>("tarn_flock_release")(handle);
}

int tarn_flock_destroy(tarn_flock_t *handle) {
  check({}, "destroy", path_of(handle));
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    g_lock_paths.erase(handle);
  }
  return next_definition<int (*)(tarn_flock_t *)>("tarn_flock_destroy")(handle);
}

int tarn_ini_file_save_directio(tarn_ini_t *ini, const char *path, int flags) {
  if (const int error = check(g_save_faults, "save", text(path))) {
    errno = error;
    return error;
  }
  return next_definition<int (*)(tarn_ini_t *, const char *, int)>("tarn_ini_file_save_directio")(ini, path,
                                                                                        flags);
}

int tarn_file_add_user_full_ctrl(const char *path, const char *user) {
  if (const int error = check(g_grant_faults, "grant", text(path))) {
    errno = error;
    return error;
  }
  return next_definition<int (*)(const char *, const char *)>("tarn_file_add_user_full_ctrl")(path, user);
}

int tarn_file_copy(const char *src, const char *dst) {
  if (const int error = check(g_copy_faults, "copy", text(dst))) {
    errno = error;
    return error;
  }
  std::function<void()> action;
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    auto it = g_copy_actions.find(text(dst));
    if (it != g_copy_actions.end()) {
      action = std::move(it->second);
      g_copy_actions.erase(it);
    }
  }
  if (action) action();
  return next_definition<int (*)(const char *, const char *)>("tarn_file_copy")(src, dst);
}

}  // extern "C"

namespace tarn_test {

namespace {
void arm(std::map<std::string, int> &faults, const std::string &path, int error) {
  std::lock_guard<std::mutex> guard(g_mutex);
  faults[path] = error;
}
}  // namespace

void fail_flock_init(const std::string &lock_path, int error) { arm(g_init_faults, lock_path, error); }
void fail_flock_acquire(const std::string &lock_path, int error) {
  arm(g_acquire_faults, lock_path, error);
}
void fail_save(const std::string &path, int error) { arm(g_save_faults, path, error); }
void fail_grant(const std::string &path, int error) { arm(g_grant_faults, path, error); }
void fail_copy(const std::string &destination, int error) { arm(g_copy_faults, destination, error); }
void before_copy(const std::string &destination, const std::function<void()> &action) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_copy_actions[destination] = action;
}

std::vector<std::string> file_events() {
  std::lock_guard<std::mutex> guard(g_mutex);
  return g_events;
}

void clear_file_events() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_events.clear();
}

void clear_file_faults() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_init_faults.clear();
  g_acquire_faults.clear();
  g_save_faults.clear();
  g_grant_faults.clear();
  g_copy_faults.clear();
  g_copy_actions.clear();
  g_events.clear();
}

}  // namespace tarn_test
