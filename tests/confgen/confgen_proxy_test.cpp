// One proxy line to its website blocks: the exact text, the endpoint
// defaults, the mode table and option cut, and every way a line fails.
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "confgen_test_util.h"

namespace {

class ProxyConfTest : public LogCaptureTest {
 protected:
  int run(const char *text, std::string *result) {
    snprintf(line_, sizeof line_, "%s", text);
    *result = "stale";
    return generate_proxy_conf(line_, *result);
  }
  double seconds_since(const timespec &start) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
  }
  char line_[PROXY_VALUE_SIZE];
};

TEST_F(ProxyConfTest, BlockTextSchemesAndLastModeWins) {
  std::string out;
  ASSERT_EQ(run("site https://127.0.0.1:443 8080 --protect=off --protect=monitor", &out), 0);
  EXPECT_EQ(out,
            "upstream upstream_site {\n    server 0.0.0.0:8080;\n}\n\nserver {\n"
            "    listen 127.0.0.1:443;\n    ssl on;\n    kvsafe on;\n    kvsafe_learning_mode on;\n"
            "    set $proxy_upstream http://upstream_site;\n    set $proxy_ssl on;\n"
            "    include policy_default.conf;\n}\n\n\n");

  // No ports: nothing between colon and semicolon. An upper-case scheme
  // parses but is not "https".
  ASSERT_EQ(run("w HTTPS://127.0.0.1 https://0.0.0.0 --protect=off", &out), 0);
  EXPECT_NE(out.find("    server 0.0.0.0:;\n"), std::string::npos);
  EXPECT_NE(out.find("    listen 127.0.0.1:;\n    ssl off;\n    kvsafe off;\n"
                     "    kvsafe_learning_mode off;\n    set $proxy_upstream https://upstream_w;\n"
                     "    set $proxy_ssl off;\n"),
            std::string::npos);
}

TEST_F(ProxyConfTest, FailingLinesLeaveResultEmpty) {
  struct Case {
    const char *line;
    const char *error;  // "" for a line that fails without an error line
  } cases[] = {
      {"name", ""},
      {"name 127.0.0.1:80", ""},
      {"name  127.0.0.1:80 81", ""},
      {"name bad!:80 81", ""},
      {"n 80 81 ", "unknown option: ="},
      {"n 80 81  --protect=on", "unknown option: ="},
      {"n 80 81 --protect", "unknown option value: --protect="},
      {"n 80 81 --protect=on=x", "unknown option value: --protect=on=x"},
      {"n 80 81 --protect=monitor --protect=bad", "unknown option value: --protect=bad"},
      {"n 80 81 --other=on", "unknown option: --other=on"},
      {"n 80 203.0.113.1:81", "upstream IP=203.0.113.1 is not local address."},
  };
  for (const Case &c : cases) {
    rewind(log_);
    ASSERT_EQ(ftruncate(fileno(log_), 0), 0);
    std::string out;
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    EXPECT_EQ(run(c.line, &out), -1) << c.line;
    EXPECT_EQ(out, "") << c.line;
    EXPECT_LT(seconds_since(start), 1.0) << c.line;  // local listening address: no wait
    if (c.error[0] != '\0') {
      EXPECT_TRUE(logged("ERROR", "generate_proxy_conf", c.error)) << c.line;
    } else {
      EXPECT_EQ(log_text().find("ERROR"), std::string::npos) << c.line;
    }
  }
  std::string out = "stale";
  EXPECT_EQ(generate_proxy_conf(nullptr, out), -1);
  EXPECT_EQ(out, "");
}

// The one test that waits on purpose: 6 tests of the address, 5 seconds.
TEST_F(ProxyConfTest, ListeningAddressThatNeverComesUp) {
  REQUIRE_SANDBOX();  // 203.0.113.1 is surely not on the private interfaces
  std::string out;
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  EXPECT_EQ(run("n 203.0.113.1:80 81", &out), -1);
  double waited = seconds_since(start);
  EXPECT_GE(waited, 5.0);
  EXPECT_LT(waited, 5.9);
  EXPECT_EQ(out, "");
  EXPECT_TRUE(logged("ERROR", "generate_proxy_conf", "website IP=203.0.113.1 is not local address."));
}

}  // namespace
