// The report cycle on a pinned clock: finished days leave in pairs, and the report time is
// drawn anew once it is reached. Delivery through a collector that fails is the black-box
// tests' part.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "collector.h"
#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "shipping/shipping.h"
#include "stats/stats.h"

namespace {

const time_t DAY = 86400;
const time_t DAY1 = 1795262400;  // 2026-11-21 12:00:00 UTC

std::string open_report(const std::string &frame) {
  char *pem = nullptr;
  if (load_private_key_text(MOX_SOURCE_DIR "/keys/dev/attack_private.pem", &pem) != 0)
    return "no key";
  const char *keys[] = {pem};
  char kind = 0;
  unsigned char *plain = nullptr;
  size_t len = 0;
  int rc = open_sealed_message(frame.data(), frame.size(), keys, 1, &kind, nullptr, &plain, &len);
  std::string out = rc == 0 ? std::string((char *)plain, len) : "unopened";
  std::free(plain);
  std::free(pem);
  return out;
}

class ReportCycle : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    if (!sandbox_ready()) return;
    sandbox_wipe("/media/nand");
    sandbox_wipe("/tmp/mox");
    ASSERT_EQ(0, system("mkdir -p /tmp/mox/log /media/nand/mox_data"));
    reset_attack_stats();
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
    clock_set(DAY1);
    roll_day_stat();  // the first slot opens on day 1
  }
  void TearDown() override {
    clock_set(0);
    LogSink.level = 3;
    LogSink.mask = 0;
  }

  void point_at(int port) {
    ASSERT_EQ(0, parser_save(PARSER_LOGATSERVER, ("127.0.0.1:" + std::to_string(port)).c_str()));
  }

  // Moves the clock on by whole days, rolling as the loop does.
  void next_day(int days = 1) {
    clock_set(DAY1 + (days_ += days) * DAY);
    roll_day_stat();
  }

  // Runs the cycle as the loop's timeouts would, every 20 ms, until the
  // collector holds n reports or ms have passed. The sender delivers on its
  // worker, and a day leaves the ring at the first cycle after its
  // delivery. true once the collector holds n.
  bool cycle_until(RateLimitLogSender &sender, Collector &c, size_t n, int ms) {
    for (int waited = 0; waited <= ms; waited += 20) {
      report_cycle(sender, &hour, &minute);
      if (c.frames().size() >= n) return true;
      usleep(20000);
    }
    return false;
  }

  int hour = 23, minute = 58;  // not reached before 23:58
  time_t days_ = 0;
};

TEST_F(ReportCycle, FinishedDaysLeaveInPairsOldestFirst) {
  REQUIRE_SANDBOX();
  Collector c;
  point_at(c.port());
  RateLimitLogSender sender("", 0);
  count_day_attack(1);
  count_day_attack(104);
  next_day();  // one finished day waits for the next
  EXPECT_FALSE(cycle_until(sender, c, 1, 300));
  next_day();
  ASSERT_TRUE(cycle_until(sender, c, 2, 5000));
  std::string first = open_report(c.frames()[0]), second = open_report(c.frames()[1]);
  EXPECT_NE(std::string::npos,
            first.find("\"timestamp\":\"2026-11-21 12:0:0\",\"internal_attack\":1,"
                       "\"intrusion_attempt\":1,\"automated_attack\":0,"
                       "\"unauthorized_access\":0,\"browser_hijacking\":1,"))
      << first;
  EXPECT_NE(std::string::npos, second.find("\"timestamp\":\"2026-11-22 12:0:0\",\"internal_attack\":0,"))
      << second;
  // The second day's delivery is taken at the next roll; until then nothing
  // is sent again, and the open slot never.
  EXPECT_FALSE(cycle_until(sender, c, 3, 300)) << "the open slot or a sent slot went out";
  EXPECT_EQ(1, day_stat().tail);
}

TEST_F(ReportCycle, ReportTimeIsRenewedOnlyWhenDueAndReached) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "20 2"));
  RateLimitLogSender sender("", 0);
  next_day();  // due, but 12:00 is before 23:58
  ASSERT_EQ(1, report_due());
  report_cycle(sender, &hour, &minute);
  EXPECT_EQ(23, hour);
  EXPECT_EQ(1, report_due());
  hour = 12;
  minute = 0;  // reached to the minute
  report_cycle(sender, &hour, &minute);
  EXPECT_EQ(0, report_due());
  EXPECT_TRUE(hour == 20 || hour == 21) << hour;
  EXPECT_TRUE(minute >= 0 && minute < REPORT_MINUTES) << minute;
  int h = hour, m = minute;
  report_cycle(sender, &hour, &minute);  // not due: left alone
  EXPECT_EQ(h, hour);
  EXPECT_EQ(m, minute);
}

}  // namespace
