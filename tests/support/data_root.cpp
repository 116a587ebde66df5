#include "data_root.h"

#include <dlfcn.h>
#include <string.h>

#include <mutex>
#include <optional>

namespace {

std::mutex g_mutex;
std::optional<std::string> g_data_root;

}  // namespace

// Writes the data root into buf as the base library does: the length, or 0
// with an empty string when there is none or it does not fit.
extern "C" int tarn_log_dir(char *buf, size_t len) {
  std::optional<std::string> root;
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    root = g_data_root;
  }
  if (!root) return reinterpret_cast<int (*)(char *, size_t)>(dlsym(RTLD_NEXT, "tarn_log_dir"))(buf, len);
  if (buf != nullptr && len > 0) buf[0] = '\0';
  if (root->empty() || buf == nullptr || len <= root->size()) return 0;
  memcpy(buf, root->c_str(), root->size() + 1);
  return (int)root->size();
}

namespace tarn_test {

void set_data_root(const std::string &root) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_data_root = root;
}

void use_real_data_root() {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_data_root.reset();
}

}  // namespace tarn_test
