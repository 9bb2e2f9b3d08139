// Shared fixture of the generator tests: the diagnostic log captured in a
// temporary stream at debug level, and the stored text set and read
// through the store itself.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "store/store.h"
#include "support/sandbox.h"

class LogCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = tmpfile();
    ASSERT_NE(log_, nullptr);
    LogSink.file = log_;
    LogSink.mask = LOG_MASK_FILE;
    LogSink.level = 0;
  }
  void TearDown() override {
    LogSink.file = nullptr;
    LogSink.mask = 0;
    LogSink.level = 3;
    if (log_ != nullptr) fclose(log_);
  }
  std::string log_text() {
    fflush(log_);
    std::string text(ftell(log_), '\0');
    rewind(log_);
    text.resize(fread(&text[0], 1, text.size(), log_));
    return text;
  }
  // True when a line of this level and function carries msg (up to its
  // first newline: a message's own newline ends the line).
  bool logged(const char *level, const char *func, std::string msg) {
    msg = msg.substr(0, msg.find('\n'));
    char head[128];
    snprintf(head, sizeof head, "  %-5s  (%s:", level, func);
    std::string text = log_text();
    for (size_t pos = 0; (pos = text.find(head, pos)) != std::string::npos; pos++) {
      size_t end = text.find('\n', pos);
      std::string line = text.substr(pos, end - pos);
      if (line.find(")  " + msg) != std::string::npos) return true;
    }
    return false;
  }
  FILE *log_ = nullptr;
};

// For tests of the stored text and the fixed paths: a fresh store each time.
class StoreTest : public LogCaptureTest {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe(STORE_DIR);
    LogCaptureTest::SetUp();
  }
  void set_store(const std::string &text) {
    ASSERT_EQ(sec_write_conf(text.data(), (int)text.size()), 0);
  }
  std::string stored() {
    char buf[STORED_TEXT_SIZE + 1] = {};
    int length = STORED_TEXT_SIZE;
    if (sec_read_conf(buf, &length) != 0) return "<unreadable>";
    return std::string(buf, (size_t)length);
  }
};

inline std::string read_text(const char *path) {
  char buf[STORED_TEXT_SIZE + 1] = {};
  ssize_t n = read_file(path, buf, STORED_TEXT_SIZE);
  return n < 0 ? "<missing>" : std::string(buf, (size_t)n);
}

inline void write_text(const char *path, const std::string &text) {
  std::string dir(path, strrchr(path, '/') - path);
  ASSERT_EQ(make_dirs(dir.c_str()), 0) << dir;
  ASSERT_EQ(write_file(path, text.data(), text.size()), 0) << path;
}
