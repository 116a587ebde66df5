// The argument parser on a command line made from the input: words are
// the pieces between zero bytes, after the program name. A handle that is
// made is queried in every way and freed; its counts must add up.

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_support.h"
#include "parameter_parsing.h"

namespace {

constexpr size_t kMaxWords = 256;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> words{"prog"};
  const char *text = reinterpret_cast<const char *>(data);
  for (size_t start = 0; start < size && words.size() < kMaxWords;) {
    const void *zero = memchr(text + start, '\0', size - start);
    const size_t end = zero != nullptr ? (size_t)(static_cast<const char *>(zero) - text) : size;
    words.emplace_back(text + start, end - start);
    start = end + 1;
  }
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);

  argment_paras *handle = argment_paras_create((int32_t)words.size(), argv.data());
  if (handle == nullptr) return 0;
  if (argment_paras_get_args_count(handle) != words.size() - 1) tarn_fuzz::fail("args_count is not argc - 1");
  argment_paras_print(handle);
  const uint32_t options = argment_paras_get_option_count(handle);
  uint32_t arguments = 0;
  for (uint32_t i = 0; i < options; ++i) {
    const char *option = argment_paras_get_option_pos_at(handle, (int32_t)i);
    if (option == nullptr || strlen(option) != 2 || option[0] != '-') tarn_fuzz::fail("a bad option text");
    if (argment_paras_option_is_exist(handle, option) != 1) tarn_fuzz::fail("a listed option is not found");
    const uint32_t count = argment_paras_get_option_args_count(handle, option);
    tarn_vector_t *list = argment_paras_get_option_args(handle, option);
    if (list == nullptr || tarn_vector_size(list) != count) tarn_fuzz::fail("an argument list of another size");
    for (uint32_t j = 0; j < count; ++j) {
      if (argment_paras_get_option_arg_pos_at(handle, option, (int32_t)j) == nullptr) {
        tarn_fuzz::fail("an argument is missing");
      }
    }
    if (argment_paras_get_option_arg_pos_at(handle, option, (int32_t)count) != nullptr) {
      tarn_fuzz::fail("an argument past the end");
    }
    arguments += count;
  }
  if (argment_paras_get_option_pos_at(handle, (int32_t)options) != nullptr) tarn_fuzz::fail("an option past the end");
  // Every word after the program name is an option or an argument.
  if (arguments + options > words.size() - 1) tarn_fuzz::fail("more arguments than words");
  argment_paras_free_args(handle);
  return 0;
}
