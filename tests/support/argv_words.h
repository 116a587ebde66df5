// A writable argv for tests of code that takes argc/argv: the words are
// copies that a test may change afterwards, and a null word stays null.
#ifndef TARN_TEST_ARGV_WORDS_H
#define TARN_TEST_ARGV_WORDS_H

#include <stdint.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace tarn_test {

class Argv {
 public:
  Argv(std::initializer_list<const char *> words) {
    for (const char *word : words) {
      storage_.push_back(word != nullptr ? std::make_unique<std::string>(word) : nullptr);
    }
    for (const auto &word : storage_) pointers_.push_back(word ? &(*word)[0] : nullptr);
  }
  int32_t argc() const { return (int32_t)pointers_.size(); }
  char **argv() { return pointers_.data(); }

 private:
  std::vector<std::unique_ptr<std::string>> storage_;
  std::vector<char *> pointers_;
};

}  // namespace tarn_test

#endif
