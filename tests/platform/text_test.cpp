#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "temp_dir.h"

TEST(ReplaceAllTest, NoHitLeavesOutputUntouched) {
  char out[16];
  memset(out, 'x', sizeof out);
  EXPECT_EQ(replace_all("plain text", "{a}", "b", out, sizeof out), 0);
  EXPECT_EQ(std::string(out, sizeof out), std::string(sizeof out, 'x'));
}

TEST(ReplaceAllTest, ReplacesEveryHitAndKeepsTheTail) {
  char out[64];
  memset(out, 'x', sizeof out);
  EXPECT_EQ(replace_all("a{x}b{x}{x}tail", "{x}", "123", out, sizeof out), 3);
  EXPECT_STREQ(out, "a123b123123tail");
  EXPECT_EQ(replace_all("{x}", "{x}", "whole", out, sizeof out), 1);
  EXPECT_STREQ(out, "whole");
  // Inserted text is not searched again.
  EXPECT_EQ(replace_all("x-x", "x", "xx", out, sizeof out), 2);
  EXPECT_STREQ(out, "xx-xx");
}

TEST(ReplaceAllTest, RefusesWhatDoesNotFit) {
  char out[10];
  EXPECT_EQ(replace_all("aaaa{x}", "{x}", "12345", out, sizeof out), 1);  // 9 + NUL fits
  EXPECT_STREQ(out, "aaaa12345");
  EXPECT_EQ(replace_all("aaaa{x}", "{x}", "12345", out, 9), -1);
  EXPECT_STREQ(out, "aaaa1234");
  EXPECT_EQ(replace_all("{x}abcdefghij", "{x}", "1", out, sizeof out), -1);  // the tail overflows
  EXPECT_STREQ(out, "1abcdefgh");
  EXPECT_EQ(replace_all("abc", "", "1", out, sizeof out), -1);
}

TEST(FindFieldValueTest, PointsAtValueEmptyValueOrEnd) {
  const char *status = "Name:\tlogd\nState:\n\nPPid:   42\nTracerPid:";
  EXPECT_EQ(find_field_value(status, "Name:"), strstr(status, "logd"));
  EXPECT_EQ(find_field_value(status, "PPid:"), strstr(status, "42"));
  EXPECT_EQ(find_field_value(status, "State:"), strstr(status, "\n\n") + 1);
  EXPECT_EQ(find_field_value(status, "TracerPid:"), status + strlen(status));
  EXPECT_EQ(find_field_value(status, "Uid:"), nullptr);
}

class ReadSettingTest : public TempDirTest {
 protected:
  int read(const char *content, int *value) {
    std::string file = path("rzpz");
    FILE *f = fopen(file.c_str(), "w");
    fputs(content, f);
    fclose(f);
    return read_setting(file.c_str(), "mox_logd", value);
  }
};

TEST_F(ReadSettingTest, FirstExactKeyWins) {
  int value = 77;
  EXPECT_EQ(read("other=3\nmox_logd =9\nno equals\nmox_logd=2\nmox_logd=3\n", &value), 0);
  EXPECT_EQ(value, 2);
  EXPECT_EQ(read("mox_logd=1=x\n", &value), 0);
  EXPECT_EQ(value, 1);
  // A piece of SETTING_LINE_SIZE - 1 bytes ends a line of its own.
  std::string long_line = std::string(SETTING_LINE_SIZE - 1, 'x') + "mox_logd=abc\n";
  EXPECT_EQ(read(long_line.c_str(), &value), 0);
  EXPECT_EQ(value, 0);
}

TEST_F(ReadSettingTest, MissingKeyOrFileLeavesValue) {
  int value = 77;
  EXPECT_EQ(read("other=1\nmox_logd\n", &value), 1);
  EXPECT_EQ(read_setting(path("missing").c_str(), "mox_logd", &value), -1);
  EXPECT_EQ(read_setting(path("rzpz").c_str(), nullptr, &value), -1);
  EXPECT_EQ(value, 77);
}

TEST(ClockTest, PinnedUntilReleased) {
  clock_set(1700000000);
  EXPECT_EQ(clock_now(), 1700000000);
  clock_set(0);
  EXPECT_LE(labs(static_cast<long>(clock_now() - time(nullptr))), 1);
}
