#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "collector.h"
#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

const time_t T0 = 1795000000;  // 2026-11-18, a fixed point for the pacing

std::string open_frame(const std::string &frame, char want) {
  char *pem = nullptr;
  std::string path = std::string(MOX_SOURCE_DIR "/keys/dev/") +
                     (want == 'A' ? "attack_private.pem" : "access_private.pem");
  if (load_private_key_text(path.c_str(), &pem) != 0) return "no key";
  const char *keys[] = {pem};
  char kind = 0;
  unsigned char *plain = nullptr;
  size_t len = 0;
  int rc = open_sealed_message(frame.data(), frame.size(), keys, 1, &kind, &plain, &len);
  std::string out = rc == 0 && kind == want ? std::string((char *)plain, len) : "unopened";
  std::free(plain);
  std::free(pem);
  return out;
}

class Sender : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandbox_ready()) return;
    sandbox_wipe("/tmp/mox");
    sandbox_wipe("/media/nand");
    ASSERT_EQ(0, system("mkdir -p /tmp/mox/log /media/nand/mox_data"));
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
    clock_set(0);
  }
  void TearDown() override {
    LogSink.level = 3;
    LogSink.mask = 0;
    clock_set(0);
  }
  static void settings(const char *text) {
    std::ofstream(RZPZ_PATH) << text;
  }
  // Feeds n access datagrams through a socket pair, as the loop would.
  static void feed(RateLimitLogSender &s, int n, const char *prefix = "GET /r") {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, sv));
    for (int i = 0; i < n; i++) {
      std::string rec = std::string(prefix) + std::to_string(i) + " 200";
      ASSERT_EQ((ssize_t)rec.size(), send(sv[1], rec.data(), rec.size(), 0));
      ASSERT_EQ((int)rec.size(), s.recv_access_log(sv[0]));
    }
    close(sv[0]);
    close(sv[1]);
  }
};

TEST_F(Sender, LoopPeriodComesFromTheSettingsFile) {
  REQUIRE_SANDBOX();
  const struct {
    const char *text;
    int period;
  } cases[] = {{"", 60},
               {"mox_logd_period=5\n", 5},
               {"mox_logd=1\nmox_logd_period=3600\n", 3600},
               {"mox_logd_period=0\n", 60},
               {"mox_logd_period=3601\n", 60},
               {"mox_logd_period=-4\n", 60},
               {"mox_logd_period=abc\n", 60},
               {"mox_logd_period =5\n", 60}};
  for (const auto &c : cases) {
    settings(c.text);
    testing::internal::CaptureStdout();
    RateLimitLogSender s("", 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(c.period, s.timeout_seconds()) << c.text;
  }
}

TEST_F(Sender, ReloadTakesGoodSettingsAndKeepsOldOnBrokenOnes) {
  REQUIRE_SANDBOX();
  testing::internal::CaptureStdout();
  RateLimitLogSender s("", 0);
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, log.find("RateLimitLogSender init Done!"));
  EXPECT_EQ(3, s.report_hour_span());
  EXPECT_EQ(0, s.report_hour_base());

  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, "127.0.0.1:6514 5"));
  ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "2 0"));  // a zero span never divides
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, s.reload_config());
  log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos,
            log.find("(reload_config) reload configure: server=127.0.0.1:6514, "
                     "m_send_interval=5/m"))
      << log;
  EXPECT_EQ(3, s.report_hour_span());
  EXPECT_EQ(2, s.report_hour_base());

  for (const char *broken : {"127.0.0.1:notaport", "127.0.0.1:70000", "127.0.0.1", "h:1 0",
                             "h:1 5 extra"}) {
    ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, broken));
    ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "7 4"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, s.reload_config()) << broken;
    log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("Warning: reload configure failed,config no change"));
    EXPECT_EQ(2, s.report_hour_base()) << "a failed reload changed the settings";
  }
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, "127.0.0.1:6514"));
  ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "24 4"));  // no such hour
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, s.reload_config());
  ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "1 2147483647"));  // hours that never come
  EXPECT_EQ(0, s.reload_config());
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(24, s.report_hour_span());
}

TEST_F(Sender, OverTheRateOrBeyondTheQueueRecordsAreDroppedAndCountedOnce) {
  REQUIRE_SANDBOX();
  Collector closed;  // a port that refuses: the worker holds its block
  int port = closed.port();
  closed.stop();
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(port) + " 5").c_str()));
  clock_set(T0);
  testing::internal::CaptureStdout();
  RateLimitLogSender s("", 0);
  feed(s, 12);
  EXPECT_EQ(12u, s.access_received());
  EXPECT_EQ(7u, s.access_dropped());  // a minute's worth passes, the rest waits for time
  s.timeout_tick();
  s.timeout_tick();
  clock_set(T0 + 12);  // one more record per 12 s at 5 a minute
  feed(s, 2);
  EXPECT_EQ(8u, s.access_dropped());
  std::string log = testing::internal::GetCapturedStdout();
  size_t first = log.find("access records dropped: 7 ");
  ASSERT_NE(std::string::npos, first) << log;
  EXPECT_EQ(std::string::npos, log.find("access records dropped", first + 1))
      << "the same drops were logged twice";

  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(port) + " 100000").c_str()));
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, s.reload_config());
  clock_set(T0 + 120);
  feed(s, 400);
  testing::internal::GetCapturedStdout();
  // At most one block is held by the worker and the queue is full behind it.
  EXPECT_GE(s.access_dropped(), 8u + 400u - ACCESS_BLOCK_RECORDS - ACCESS_QUEUE_SLOTS);
}

TEST_F(Sender, AccessRecordsReachTheCollectorInBlocks) {
  REQUIRE_SANDBOX();
  Collector c;
  ASSERT_NE(0, c.port());
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(c.port())).c_str()));
  testing::internal::CaptureStdout();
  {
    RateLimitLogSender s("", 0);
    // Fewer than the queue holds, however slow the worker's first send.
    feed(s, ACCESS_QUEUE_SLOTS - 8, "GET /page-");
    std::string all;
    for (int waited = 0; waited < 10000; waited += 50) {
      all.clear();
      // A block's last record may come without its newline.
      for (const std::string &f : c.frames()) all += open_frame(f, 'L') + "\n";
      if (all.find("GET /page-119 200\n") != std::string::npos) break;
      usleep(50000);
    }
    for (int i = 0; i < ACCESS_QUEUE_SLOTS - 8; i++)
      EXPECT_NE(std::string::npos, all.find("GET /page-" + std::to_string(i) + " 200\n")) << i;
    EXPECT_EQ(0u, s.access_dropped());
    EXPECT_GE(c.frames().size(), 2u);  // more records than one block takes
  }
  testing::internal::GetCapturedStdout();
}

TEST_F(Sender, AttackReportsGoToTheirCollectorAndBackOffWhenItIsDown) {
  REQUIRE_SANDBOX();
  const char fragment[] =
      "\"timestamp\":\"2026-11-17 8:0:0\",\"internal_attack\":1,\"intrusion_attempt\":2,"
      "\"automated_attack\":3,\"unauthorized_access\":4,\"browser_hijacking\":5,"
      "\"password_guessing\":6}";
  testing::internal::CaptureStdout();
  RateLimitLogSender none("", 0);
  EXPECT_EQ(0, none.send_attack_report(fragment)) << "no collector: kept, not failed";

  Collector access, attack;
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(access.port())).c_str()));
  ASSERT_EQ(0, parser_save(PARSER_LOGATSERVER, ("127.0.0.1:" + std::to_string(attack.port())).c_str()));
  RateLimitLogSender s("", 0);
  EXPECT_EQ(1, s.send_attack_report(fragment));
  ASSERT_TRUE(attack.wait_for(1, 3000));
  std::string report = open_frame(attack.frames()[0], 'A');
  EXPECT_EQ(0u, report.find("{\"device_name\":\""));
  EXPECT_NE(std::string::npos, report.find(fragment));
  EXPECT_TRUE(access.frames().empty());

  int port = attack.port();
  attack.stop();
  clock_set(T0);
  EXPECT_EQ(-1, s.send_attack_report(fragment));
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, log.find("connect() error:")) << log;
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, s.send_attack_report(fragment)) << "tried again before the pause ended";
  clock_set(T0 + RETRY_MIN_SECONDS);
  EXPECT_EQ(-1, s.send_attack_report(fragment));
  clock_set(T0 + RETRY_MIN_SECONDS + 2 * RETRY_MIN_SECONDS - 1);
  EXPECT_EQ(0, s.send_attack_report(fragment)) << "the pause did not grow";
  log = testing::internal::GetCapturedStdout();
  EXPECT_EQ(1u, [&] {
    size_t n = 0;
    for (size_t at = 0; (at = log.find("connect() error:", at)) != std::string::npos; at++) n++;
    return n;
  }()) << "127.0.0.1:" << port;
}

}  // namespace
