// The settings file (rzpz): "key=value" lines kept by the firmware, read with every quirk
// the daemon's level and period depend on.
#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <string>

#include "platform/platform.h"
#include "sandbox.h"

TEST(Settings, FirstExactKeyWinsAndHugeValuesStopAtTheEnds) {
  REQUIRE_SANDBOX();
  const char path[] = "/tmp/rzpz";
  struct Case {
    std::string text;
    int rc, value;
  } cases[] = {
      {"other=3\nmox_logd =9\nno equals\nmox_logd=2\nmox_logd=3\n", 0, 2},
      {"mox_logd=1=x\n", 0, 1},
      {"mox_logd= 42abc\n", 0, 42},
      {"mox_logd=99999999999\n", 0, INT_MAX},
      {"mox_logd=-99999999999\n", 0, INT_MIN},
      // A piece of SETTING_LINE_SIZE - 1 bytes ends a line of its own.
      {std::string(SETTING_LINE_SIZE - 1, 'x') + "mox_logd=abc\n", 0, 0},
      {"other=1\nmox_logd\n", 1, 77},
  };
  for (const Case &c : cases) {
    std::ofstream(path) << c.text;
    int value = 77;
    EXPECT_EQ(read_setting(path, "mox_logd", &value), c.rc) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
  int value = 77;
  EXPECT_EQ(read_setting("/tmp/missing", "mox_logd", &value), -1);
  EXPECT_EQ(value, 77);
  std::remove(path);
}
