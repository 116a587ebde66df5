// Every test program starts here: it enters a private sandbox before any
// test runs, so the tests use the real fixed paths without touching the host.

#include <gtest/gtest.h>
#include <stdio.h>

#include "sandbox.h"

int main(int argc, char **argv) {
  if (tarn_sandbox_enter() != 0) {
    fprintf(stderr, "cannot enter the test sandbox\n");
    return 1;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
