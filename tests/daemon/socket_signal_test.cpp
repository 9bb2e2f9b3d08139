#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "sandbox.h"

namespace {

const char SOCK[] = "/tmp/mox/log/test.sock";

class UnixSock : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandbox_ready()) return;
    sandbox_wipe("/tmp/mox");
    ASSERT_EQ(0, system("mkdir -p /tmp/mox/log"));
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
  }
  void TearDown() override {
    LogSink.level = 3;
    LogSink.mask = 0;
  }
  int open_sock(std::string *log) {
    testing::internal::CaptureStdout();
    int fd = init_unix_sock(SOCK);
    *log = testing::internal::GetCapturedStdout();
    return fd;
  }
};

TEST_F(UnixSock, BindsAndTakesDatagramsFromOtherUsers) {
  REQUIRE_SANDBOX();
  std::string log;
  int fd = open_sock(&log);
  ASSERT_GT(fd, 0);
  struct stat st;
  ASSERT_EQ(0, stat(SOCK, &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0666u, st.st_mode & 0777);
  close(fd);
}

TEST_F(UnixSock, StaleFileIsReplacedLiveInstanceIsNot) {
  REQUIRE_SANDBOX();
  std::string log;
  int first = open_sock(&log);
  ASSERT_GT(first, 0);
  int second = open_sock(&log);
  EXPECT_EQ(-1, second);
  EXPECT_NE(std::string::npos, log.find("mox_logd is already running"));
  close(first);  // the file stays behind, as after a crash
  int third = open_sock(&log);
  EXPECT_GT(third, 0) << log;
  close(third);
  // A plain file in the way is replaced as well.
  ASSERT_EQ(0, system("rm -f /tmp/mox/log/test.sock && echo junk > /tmp/mox/log/test.sock"));
  int fourth = open_sock(&log);
  EXPECT_GT(fourth, 0) << log;
  close(fourth);
}

TEST_F(UnixSock, FailuresSayWhy) {
  REQUIRE_SANDBOX();
  sandbox_wipe("/tmp/mox/log");
  std::string log;
  EXPECT_EQ(-1, open_sock(&log));  // folder missing
  EXPECT_NE(std::string::npos, log.find("bind failure: "));
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, init_unix_sock(("/tmp/" + std::string(200, 'p')).c_str()));
  log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, log.find("bind failure: "));
}

TEST(Signals, EachSignalSetsOnlyItsFlag) {
  logd_running = 1;
  reload_requested = 0;
  reset_requested = 0;
  logd_signal_handler(SIGUSR1);
  logd_signal_handler(SIGINT);
  EXPECT_EQ(1, logd_running);
  EXPECT_EQ(0, reload_requested);
  EXPECT_EQ(0, reset_requested);
  logd_signal_handler(SIGHUP);
  EXPECT_EQ(1, reload_requested);
  EXPECT_EQ(0, reset_requested);
  logd_signal_handler(SIGUSR2);
  EXPECT_EQ(1, reset_requested);
  EXPECT_EQ(1, logd_running);
  logd_signal_handler(SIGTERM);
  EXPECT_EQ(0, logd_running);
  logd_signal_handler(SIGHUP);
  EXPECT_EQ(0, logd_running);  // never back to 1
  logd_running = 1;
  reload_requested = 0;
  reset_requested = 0;
}

}  // namespace
