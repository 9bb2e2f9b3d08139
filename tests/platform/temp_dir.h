// A fresh directory per test from mkdtemp, wiped afterwards.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "sandbox.h"

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    strcpy(dir_, "/tmp/mox_platform_XXXXXX");
    ASSERT_NE(mkdtemp(dir_), nullptr);
  }
  void TearDown() override {
    if (dir_[0] != '\0') sandbox_wipe(dir_);
  }
  std::string path(const std::string &name) const { return std::string(dir_) + "/" + name; }

  char dir_[32] = {0};
};
