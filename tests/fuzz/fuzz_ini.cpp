// The ini loader on a file written from the input. Every file that loads
// must save and load back equal: same sections, keys and values, in the
// same order.

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include <tarnbase/tarn_ini.h>

#include "fuzz_support.h"

namespace {

using Entries = std::vector<std::string>;

int collect(void *user, const char *section, const char *key, const char *value) {
  auto *entries = static_cast<Entries *>(user);
  entries->push_back(std::string(section) + '\0' + key + '\0' + value);
  return 0;
}

Entries entries_of(tarn_ini_t *ini) {
  Entries entries;
  if (tarn_ini_file_foreach(ini, &entries, collect) != 0) tarn_fuzz::fail("foreach stopped");
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input = tarn_fuzz::scratch() + "/in.ini";
  const std::string saved = tarn_fuzz::scratch() + "/saved.ini";
  tarn_fuzz::write_file(input, data, size);

  tarn_ini_t *ini = tarn_ini_file_load(input.c_str());
  if (ini == nullptr) return 0;
  const Entries loaded = entries_of(ini);
  for (const std::string &entry : loaded) {
    const char *section = entry.c_str();
    const char *key = section + strlen(section) + 1;
    const char *value = key + strlen(key) + 1;
    const char *got = tarn_ini_file_get(ini, section, key);
    if (got == nullptr || strcmp(got, value) != 0) tarn_fuzz::fail("a key reads back another value");
    (void)tarn_ini_file_get_int(ini, section, key, -1);
  }
  if (tarn_ini_file_save(ini, saved.c_str(), 0) != 0) tarn_fuzz::fail("a loaded file cannot be saved");
  tarn_ini_file_free(ini);

  tarn_ini_t *again = tarn_ini_file_load(saved.c_str());
  if (again == nullptr) tarn_fuzz::fail("a saved file does not load");
  if (entries_of(again) != loaded) tarn_fuzz::fail("a saved file loads back different");
  tarn_ini_file_free(again);
  return 0;
}
