// A test fixture that starts and ends every test with the fakes reset.
#ifndef TARN_TEST_RESET_TEST_H
#define TARN_TEST_RESET_TEST_H

#include <gtest/gtest.h>

#include "fakes.h"

namespace tarn_test {

// Resets the fakes and then calls each of Clear (the clear_* functions of the
// fault families the tests arm) before and after every test.
template <void (*... Clear)()>
class ResetTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    reset_fakes();
    (Clear(), ...);
  }
};

}  // namespace tarn_test

#endif  // TARN_TEST_RESET_TEST_H
