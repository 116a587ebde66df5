// The command-line parser: a table from each one-letter option to the list
// of its arguments, built from argc/argv, and the queries on it.

#include "parameter_parsing.h"

#include <string.h>

#include <tarnbase/tarn_mem.h>

#include "log_frame.h"

namespace {

// The table's value destructor: an option's argument list and its strings.
void free_option_args(void *value) {
  if (value == nullptr) {
    LOG(warn, "Invalid input\n");
    return;
  }
  tarn_vector_destroy(static_cast<tarn_vector_t *>(value), tarn_free_);
}

// Frees a handle and whatever its table holds, also a handle under
// construction whose table is still null.
void destroy_handle(argment_paras *handle) {
  tarn_xhash_destroy(handle->options);
  tarn_free_(handle);
}

// A null handle or a handle without a table is logged as bad input.
bool handle_is_usable(const argment_paras *handle) {
  if (handle != nullptr && handle->options != nullptr) return true;
  LOG(warn, "Invalid input\n");
  return false;
}

// As handle_is_usable, and a null option text, or one without its dash
// when the query asks for the dash, is bad input too.
bool query_is_usable(const argment_paras *handle, const char *option, bool dash_required) {
  if (option != nullptr && (!dash_required || option[0] == '-')) return handle_is_usable(handle);
  LOG(warn, "Invalid input\n");
  return false;
}

// The option's list, or null when it is absent. The key length counts the
// terminator, so only two-character texts can match.
tarn_vector_t *find_option(const argment_paras *handle, const char *option) {
  void *list = nullptr;
  if (tarn_xhash_search(handle->options, option, strlen(option) + 1, &list) != 0) return nullptr;
  return static_cast<tarn_vector_t *>(list);
}

// The list of option, made and entered in the table when the option is new.
// Null when memory runs out.
tarn_vector_t *list_of(argment_paras *handle, const char *option) {
  tarn_vector_t *list = find_option(handle, option);
  if (list != nullptr) return list;
  if (tarn_vector_create(&list, 1) != 0) return nullptr;
  if (tarn_xhash_insert(handle->options, option, strlen(option) + 1, list) != 0) {
    tarn_vector_destroy(list, nullptr);
    return nullptr;
  }
  return list;
}

// Appends a copy of word to list. Returns false, after logging, when
// memory runs out.
bool append_argument(tarn_vector_t *list, const char *word) {
  char *copy = tarn_strdup(word);
  if (copy == nullptr) {
    LOG(warn, "Failed to strdup\n");
    return false;
  }
  if (tarn_vector_push_back(list, copy) != 0) {
    tarn_free_(copy);
    LOG(warn, "Fail to malloc\n");
    return false;
  }
  return true;
}

// Walks argv[1] to argv[argc - 1] into the handle's table. Returns false,
// after logging whatever the refusal logs, when the command line is refused.
bool parse_words(argment_paras *handle, int32_t argc, char **argv) {
  tarn_vector_t *current = nullptr;
  for (int32_t i = 1; i < argc; ++i) {
    const char *word = argv[i];
    if (word == nullptr) {
      LOG(warn, "Invalid argument at index %d\n", i);
      return false;
    }
    if (word[0] == '-') {
      if (strlen(word) != 2) return false;
      current = list_of(handle, word);
      if (current == nullptr) {
        LOG(warn, "Fail to malloc\n");
        return false;
      }
    } else if (current == nullptr) {
      LOG(warn, "There is an illegal command line present\n");
      return false;
    } else if (!append_argument(current, word)) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" {

TARNAUX_API argment_paras *argment_paras_create(int32_t argc, char **argv) {
  if (argc < 2 || argv == nullptr) {
    LOG(warn, "Invalid input\n");
    return nullptr;
  }
  argment_paras *handle = static_cast<argment_paras *>(tarn_zero_malloc_(sizeof(argment_paras)));
  if (handle == nullptr) {
    LOG(warn, "Fail to malloc\n");
    return nullptr;
  }
  handle->options = tarn_xhash_create(0, free_option_args);
  if (handle->options == nullptr) {
    LOG(warn, "Fail to create hash\n");
    destroy_handle(handle);
    return nullptr;
  }
  handle->args_count = (uint32_t)(argc - 1);
  if (!parse_words(handle, argc, argv)) {
    destroy_handle(handle);
    return nullptr;
  }
  return handle;
}

TARNAUX_API void argment_paras_free_args(argment_paras *handle) {
  if (!handle_is_usable(handle)) return;
  destroy_handle(handle);
}

TARNAUX_API void argment_paras_print(const argment_paras *handle) {
  if (!handle_is_usable(handle)) return;
  for (tarn_xhash_entry_t *entry = tarn_xhash_first(handle->options); entry != nullptr;
       entry = tarn_xhash_next(handle->options, entry)) {
    LOG(info, "option[%s]\n", static_cast<const char *>(tarn_xhash_entry_key(entry, nullptr)));
    const tarn_vector_t *list = static_cast<const tarn_vector_t *>(tarn_xhash_entry_value(entry));
    const size_t count = tarn_vector_size(list);
    for (size_t i = 0; i < count; ++i) {
      LOG(info, "parameters[%d][%s]\n", (int)i, static_cast<const char *>(tarn_vector_pos_at(list, i)));
    }
  }
}

TARNAUX_API int32_t argment_paras_option_is_exist(const argment_paras *handle, const char *option) {
  if (!query_is_usable(handle, option, false)) return 0;
  return find_option(handle, option) != nullptr ? 1 : 0;
}

TARNAUX_API tarn_vector_t *argment_paras_get_option_args(const argment_paras *handle,
                                                         const char *option) {
  if (!query_is_usable(handle, option, true)) return nullptr;
  return find_option(handle, option);
}

TARNAUX_API uint32_t argment_paras_get_option_args_count(const argment_paras *handle,
                                                         const char *option) {
  if (!query_is_usable(handle, option, true)) return 0;
  return (uint32_t)tarn_vector_size(find_option(handle, option));
}

TARNAUX_API uint32_t argment_paras_get_option_count(const argment_paras *handle) {
  if (!handle_is_usable(handle)) return 0;
  return (uint32_t)tarn_xhash_count(handle->options);
}

TARNAUX_API const char *argment_paras_get_option_arg_pos_at(const argment_paras *handle,
                                                            const char *option, int32_t index) {
  if (!query_is_usable(handle, option, false)) return nullptr;
  const tarn_vector_t *list = find_option(handle, option);
  // An index equal to the size is left to the vector's own bound check.
  if (list == nullptr || index < 0 || (size_t)index > tarn_vector_size(list)) return nullptr;
  return static_cast<const char *>(tarn_vector_pos_at(list, (size_t)index));
}

TARNAUX_API const char *argment_paras_get_option_pos_at(const argment_paras *handle, int32_t index) {
  if (index < 0) {
    LOG(warn, "Invalid input\n");
    return nullptr;
  }
  if (!handle_is_usable(handle)) return nullptr;
  tarn_xhash_entry_t *entry = tarn_xhash_first(handle->options);
  for (int32_t i = 0; i < index && entry != nullptr; ++i) {
    entry = tarn_xhash_next(handle->options, entry);
  }
  return static_cast<const char *>(tarn_xhash_entry_key(entry, nullptr));
}

TARNAUX_API uint32_t argment_paras_get_args_count(const argment_paras *handle) {
  if (!handle_is_usable(handle)) return 0;
  return handle->args_count;
}

}  // extern "C"
