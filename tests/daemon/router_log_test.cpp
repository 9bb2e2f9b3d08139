#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "daemon/daemon.h"
#include "sandbox.h"

namespace {

std::string device_bytes() {
  std::ifstream in(ZVLOG_PATH, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class RouterLog : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandbox_ready()) return;
    sandbox_wipe(ZVLOG_PATH);
    sandbox_wipe("/dev/log");
  }
  void TearDown() override { SetUp(); }

  std::string line_for(const std::string &header, int cls = 1) {
    EXPECT_EQ(0, system("touch " ZVLOG_PATH));
    format_router_log(header.c_str(), (int)header.size(), cls);
    return device_bytes();
  }
};

TEST_F(RouterLog, AutomaticHeaderGivesTheBlockLine) {
  REQUIRE_SANDBOX();
  std::string expect = std::string("[Block Attack] From source: 10.0.0.1, port 80,") + '\0';
  EXPECT_EQ(expect, line_for("[Automatic Block] From source: 10.0.0.1, port 80, more"));
  // The class is not consulted.
  EXPECT_EQ(expect, line_for("[Automatic Block] From source: 10.0.0.1, port 80, more", 105));
  EXPECT_EQ(expect, line_for("[Automatic Block] From source: 10.0.0.1, port 80, more", 0));
}

TEST_F(RouterLog, OtherHeadersGiveAnEmptyLine) {
  REQUIRE_SANDBOX();
  EXPECT_EQ(std::string(1, '\0'), line_for("[Login Guard] From source: 10.0.0.1, port 80,"));
  // A header that does not open with "[" leaves the places empty.
  EXPECT_EQ(std::string("[Block Attack] From source:  port ") + '\0',
            line_for("Automatic x y 10.0.0.1 port 80"));
}

TEST_F(RouterLog, OverlongWordsStayInsideTheirBuffers) {
  REQUIRE_SANDBOX();
  std::string title(40, 'T');
  std::string got = line_for("[Automatic" + title + "] a b 10.0.0.1 c 80");
  EXPECT_EQ(std::string("[Block Attack] From source:  port ") + '\0', got);
  std::string word(100, 'w');
  got = line_for("[Automatic] a b " + word + " c " + word);
  EXPECT_LT(got.size(), (size_t)ROUTER_LINE_SIZE);
  EXPECT_EQ(0u, got.find("[Block Attack] From source: "));
  // Negative and huge lengths are bounded.
  format_router_log("[Automatic] a b 1.2.3.4 c 5", -7, 1);
  std::string big(5000, 'z');
  big.replace(0, 9, "Automatic");
  format_router_log(big.c_str(), (int)big.size(), 1);
}

TEST_F(RouterLog, WithoutTheDeviceLinesGoToSyslog) {
  REQUIRE_SANDBOX();
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, "/dev/log");
  ASSERT_EQ(0, bind(fd, (struct sockaddr *)&addr, sizeof addr));
  char line[ROUTER_LINE_SIZE] = "[Block Attack] From source: 1.2.3.4 port 9";
  EXPECT_EQ(0, write_router_log(line, (int)std::strlen(line)));
  char got[512] = {0};
  struct timeval tv = {2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ssize_t n = recv(fd, got, sizeof got - 1, 0);
  close(fd);
  ASSERT_GT(n, 0);
  std::string msg(got, (size_t)n);
  // Severity info; the facility is the C library's default for argument 0.
  ASSERT_EQ('<', msg[0]) << msg;
  EXPECT_EQ(6, std::atoi(msg.c_str() + 1) % 8) << msg;
  EXPECT_NE(std::string::npos, msg.find("MOXi["));
  EXPECT_NE(std::string::npos, msg.find("]: [Block Attack] From source: 1.2.3.4 port 9"));
}

TEST_F(RouterLog, DeviceThatDoesNotOpenIsAFailure) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, system("mkdir -p " ZVLOG_PATH));  // exists, but cannot be written
  char line[ROUTER_LINE_SIZE] = "x";
  EXPECT_EQ(-1, write_router_log(line, 1));
  EXPECT_EQ(-1, write_router_log(nullptr, 0));
  sandbox_wipe(ZVLOG_PATH);
}

}  // namespace
