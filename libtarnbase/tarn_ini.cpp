// Ini files as objects: sections and keys in their order, loaded whole
// through ini_text.h, saved whole through replace_file.h.

#include "tarnbase/tarn_ini.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "ini_text.h"
#include "replace_file.h"
#include "errno_result.h"

namespace {

struct Entry {
  std::string key;
  std::string value;
};

struct Section {
  std::string name;
  // Entries are held by pointer so that a value's string never moves when
  // other keys are added: tarn_ini_file_get hands out its c_str().
  std::vector<std::unique_ptr<Entry>> entries;
  std::unordered_map<std::string, Entry *> index;
};

}  // namespace

struct tarn_ini {
  std::vector<std::unique_ptr<Section>> sections;
  std::unordered_map<std::string, Section *> index;
};

namespace {

using tarnbase::fail;
using tarnbase::has_ini_inline_comment;
using tarnbase::is_ini_blank;

bool has_line_end(const char *text) { return strpbrk(text, "\r\n") != nullptr; }

bool blank_at_ends(const char *text) {
  const size_t length = strlen(text);
  return length > 0 && (is_ini_blank(text[0]) || is_ini_blank(text[length - 1]));
}

// What a saved file gives back unchanged. A section is written "[name]",
// a key "key=value".
bool section_saves(const char *name) {
  return strchr(name, ']') == nullptr && !has_line_end(name) && !has_ini_inline_comment(name);
}

bool key_saves(const char *key) {
  return key[0] != '\0' && strpbrk(key, "=:") == nullptr && strchr("[;#", key[0]) == nullptr &&
         strncmp(key, tarnbase::kIniByteOrderMark, 3) != 0 && !blank_at_ends(key) && !has_line_end(key) &&
         !has_ini_inline_comment(key);
}

bool value_saves(const char *value) {
  return !blank_at_ends(value) && !has_line_end(value) && !has_ini_inline_comment(value);
}

Section *find_section(tarn_ini *ini, const char *name) {
  const auto found = ini->index.find(name);
  return found == ini->index.end() ? nullptr : found->second;
}

Entry *find_entry(Section *section, const char *key) {
  const auto found = section->index.find(key);
  return found == section->index.end() ? nullptr : found->second;
}

Section *add_section(tarn_ini *ini, const char *name) {
  std::unique_ptr<Section> section(new Section);
  section->name = name;
  Section *raw = section.get();
  ini->sections.push_back(std::move(section));
  try {
    ini->index.emplace(raw->name, raw);
  } catch (...) {
    ini->sections.pop_back();
    throw;
  }
  return raw;
}

void add_entry(Section *section, const char *key, const char *value) {
  std::unique_ptr<Entry> entry(new Entry{key, value});
  Entry *raw = entry.get();
  section->entries.push_back(std::move(entry));
  try {
    section->index.emplace(raw->key, raw);
  } catch (...) {
    section->entries.pop_back();
    throw;
  }
}

// Adds or replaces; throws std::bad_alloc.
void put(tarn_ini *ini, const char *section_name, const char *key, const char *value) {
  Section *section = find_section(ini, section_name);
  Entry *entry = section == nullptr ? nullptr : find_entry(section, key);
  if (entry != nullptr) {
    entry->value = value;
    return;
  }
  const bool new_section = section == nullptr;
  if (new_section) section = add_section(ini, section_name);
  try {
    add_entry(section, key, value);
  } catch (...) {
    if (new_section) {
      ini->index.erase(section->name);
      ini->sections.pop_back();
    }
    throw;
  }
}

struct LoadState {
  tarn_ini *ini;
  int error;  // ENOMEM, or 0
};

bool on_entry(void *user, const char *section_name, const char *key, const char *value) {
  LoadState *state = static_cast<LoadState *>(user);
  if (key[0] == '\0') return false;
  // A key that begins with a byte order mark: saved as the first line, the
  // mark would be skipped at the next load.
  if (strncmp(key, tarnbase::kIniByteOrderMark, 3) == 0) return false;
  // A key given twice: one of its values would be lost silently.
  try {
    Section *section = find_section(state->ini, section_name);
    if (section != nullptr && find_entry(section, key) != nullptr) return false;
    put(state->ini, section_name, key, value);
  } catch (const std::bad_alloc &) {
    state->error = ENOMEM;
    return false;
  }
  return true;
}

void append_text(std::string *text, const tarn_ini *ini) {
  bool first = true;
  for (const auto &section : ini->sections) {
    if (!first) *text += '\n';
    // Keys before any header belong to section "", so it needs no header
    // when it comes first.
    if (!(first && section->name.empty())) *text += "[" + section->name + "]\n";
    first = false;
    for (const auto &entry : section->entries) *text += entry->key + "=" + entry->value + "\n";
  }
}

int save(tarn_ini_t *ini, const char *path, int flags, bool durable) {
  if (ini == nullptr || path == nullptr || path[0] == '\0' || flags != 0) return fail(EINVAL);
  std::string text;
  try {
    append_text(&text, ini);
  } catch (const std::bad_alloc &) {
    return fail(ENOMEM);
  }
  // A load would refuse the file.
  if (text.size() > tarnbase::kIniFileMaxBytes) return fail(EFBIG);
  tarnbase::ReplaceOptions options;
  options.durable = durable;
  try {
    const int result = tarnbase::replace_file(
        path, [&text](int fd) { return tarnbase::write_all(fd, text.data(), text.size()); }, options);
    return result == 0 ? 0 : fail(result);
  } catch (const std::bad_alloc &) {
    return fail(ENOMEM);
  }
}

}  // namespace

extern "C" {

TARNBASE_API tarn_ini_t *tarn_ini_file_load(const char *path) {
  tarn_ini_t *ini = new (std::nothrow) tarn_ini_t;
  if (ini == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  if (path == nullptr) return ini;
  LoadState state{ini, 0};
  const int result = tarnbase::parse_ini_file(path, on_entry, &state);
  if (result == 0) return ini;
  const int error = result < 0 ? errno : (state.error != 0 ? state.error : EINVAL);
  delete ini;
  errno = error;
  return nullptr;
}

TARNBASE_API const char *tarn_ini_file_get(tarn_ini_t *ini, const char *section_name, const char *key) {
  if (ini == nullptr || section_name == nullptr || key == nullptr) return nullptr;
  try {
    Section *section = find_section(ini, section_name);
    Entry *entry = section == nullptr ? nullptr : find_entry(section, key);
    return entry == nullptr ? nullptr : entry->value.c_str();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

TARNBASE_API int tarn_ini_file_set(tarn_ini_t *ini, const char *section, const char *key, const char *value) {
  if (ini == nullptr || section == nullptr || key == nullptr || value == nullptr) return fail(EINVAL);
  if (!section_saves(section) || !key_saves(key) || !value_saves(value)) return fail(EINVAL);
  try {
    put(ini, section, key, value);
  } catch (const std::bad_alloc &) {
    return fail(ENOMEM);
  }
  return 0;
}

TARNBASE_API int tarn_ini_file_get_int(tarn_ini_t *ini, const char *section, const char *key, int default_value) {
  const char *value = tarn_ini_file_get(ini, section, key);
  if (value == nullptr || value[0] == '\0' || is_ini_blank(value[0])) return default_value;
  char *end = nullptr;
  const int saved_errno = errno;
  errno = 0;
  const long parsed = strtol(value, &end, 10);
  const bool whole = errno == 0 && *end == '\0' && parsed >= INT_MIN && parsed <= INT_MAX;
  errno = saved_errno;
  return whole ? (int)parsed : default_value;
}

TARNBASE_API int tarn_ini_file_set_int(tarn_ini_t *ini, const char *section, const char *key, int value) {
  char text[16];
  snprintf(text, sizeof(text), "%d", value);
  return tarn_ini_file_set(ini, section, key, text);
}

TARNBASE_API int tarn_ini_file_foreach(tarn_ini_t *ini, void *user, tarn_ini_foreach_fn fn) {
  if (ini == nullptr || fn == nullptr) return fail(EINVAL);
  for (const auto &section : ini->sections) {
    for (const auto &entry : section->entries) {
      const int result = fn(user, section->name.c_str(), entry->key.c_str(), entry->value.c_str());
      if (result != 0) return result;
    }
  }
  return 0;
}

TARNBASE_API int tarn_ini_file_save(tarn_ini_t *ini, const char *path, int flags) {
  return save(ini, path, flags, false);
}

TARNBASE_API int tarn_ini_file_save_directio(tarn_ini_t *ini, const char *path, int flags) {
  return save(ini, path, flags, true);
}

TARNBASE_API void tarn_ini_file_free(tarn_ini_t *ini) { delete ini; }

}  // extern "C"
