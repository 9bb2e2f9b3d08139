#include <gtest/gtest.h>

#include <cstdio>

#include "sandbox.h"

int main(int argc, char **argv) {
  if (sandbox_enter() != 0)
    std::fprintf(stderr, "note: tests needing the fixed paths will skip: %s\n", sandbox_reason());
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
