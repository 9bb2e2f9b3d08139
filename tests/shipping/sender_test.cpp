// The access side of the sender: every loss counted by its cause and logged once, the
// pacing on the monotonic clock, and the spool that holds what fits while the collector is
// away and delivers it in order with no gap in the sequence numbers.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "collector.h"
#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "shipping/shipping.h"

namespace {

const int64_t M0 = 1000000;  // a fixed point of the monotonic clock for the pacing

class Sender : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandbox_ready()) return;
    sandbox_wipe("/tmp/mox");
    sandbox_wipe("/media/nand");
    ASSERT_EQ(0, system("mkdir -p /tmp/mox/log /media/nand/mox_data"));
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
    monotonic_set(0);
  }
  void TearDown() override {
    LogSink.level = 3;
    LogSink.mask = 0;
    monotonic_set(0);
  }
  // Feeds n access datagrams through a socket pair, as the loop would.
  static void feed(RateLimitLogSender &s, int n) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, sv));
    for (int i = 0; i < n; i++) {
      std::string rec = "GET /r" + std::to_string(i) + " 200";
      ASSERT_EQ((ssize_t)rec.size(), send(sv[1], rec.data(), rec.size(), 0));
      ASSERT_EQ((int)rec.size(), s.recv_access_log(sv[0]));
    }
    close(sv[0]);
    close(sv[1]);
  }
};

// Every loss has its cause, and the pacing follows the monotonic clock
// only: it neither overflows at the largest rate after a long gap nor
// stalls when that clock stands still.
TEST_F(Sender, LostRecordsAreCountedByCauseAndLoggedOnce) {
  REQUIRE_SANDBOX();
  Collector closed;  // a port that refuses: blocks wait in the spool
  int port = closed.port();
  closed.stop();
  testing::internal::CaptureStdout();
  {
    RateLimitLogSender off("", 0);  // no logserver
    feed(off, 3);
    EXPECT_EQ(3u, off.access_losses().shipping_off);
  }
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(port) + " 5").c_str()));
  monotonic_set(M0);
  RateLimitLogSender s("", 0);
  feed(s, 12);
  EXPECT_EQ(12u, s.access_received());
  EXPECT_EQ(7u, s.access_losses().over_rate);  // a minute's worth passes, the rest waits
  s.timeout_tick();
  s.timeout_tick();
  monotonic_set(M0 + 12000);  // one more record per 12 s at 5 a minute
  feed(s, 2);
  EXPECT_EQ(8u, s.access_dropped());

  // A datagram longer than a record is counted whole, not cut.
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, sv));
  std::string huge(ACCESS_RECORD_SIZE + 100, 'x');
  ASSERT_EQ((ssize_t)huge.size(), send(sv[1], huge.data(), huge.size(), 0));
  EXPECT_EQ(ACCESS_RECORD_SIZE - 1, s.recv_access_log(sv[0]));
  close(sv[0]);
  close(sv[1]);
  EXPECT_EQ(1u, s.access_losses().too_long);
  s.timeout_tick();
  std::string log = testing::internal::GetCapturedStdout();
  size_t first = log.find("access records dropped: 7 (over 5/m 7, queue full 0, spool full 0, "
                          "shipping off 0, too long 0, unsealable 0)");
  ASSERT_NE(std::string::npos, first) << log;
  EXPECT_NE(std::string::npos, log.find("access records dropped: 2 (over 5/m 8, queue full 0, "
                                        "spool full 0, shipping off 0, too long 1, unsealable 0)"))
      << log;
  EXPECT_EQ(2u, [&] {
    size_t n = 0;
    for (size_t at = 0; (at = log.find("access records dropped", at)) != std::string::npos; at++) n++;
    return n;
  }()) << "the same losses were logged twice\n" << log;

  // The largest rate, an hour later on the monotonic clock: no overflow,
  // the whole minute's allowance is there.
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER,
                           ("127.0.0.1:" + std::to_string(port) + " 2147483647").c_str()));
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, s.reload_config());
  monotonic_set(M0 + 3600 * 1000);
  feed(s, 300);
  monotonic_set(0);
  testing::internal::GetCapturedStdout();
  AccessLosses l = s.access_losses();
  EXPECT_EQ(8u, l.over_rate);
  // The worker keeps up or the queue fills; the rate lets every record by.
  EXPECT_EQ(300u + 15u, s.access_received());
}

// While the collector is away, sealed blocks wait in the spool up to its
// size; what does not fit is counted, takes no sequence number, and the
// rest leaves in order once the collector is back.
TEST_F(Sender, SpoolHoldsWhatFitsAndDeliversItInOrder) {
  REQUIRE_SANDBOX();
  int port;
  {
    Collector gone;
    port = gone.port();
  }
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(port) + " 100000").c_str()));
  testing::internal::CaptureStdout();
  RateLimitLogSender s("", 0);
  // Records that do not compress: each block is cut into messages of
  // about 5.5 KiB, so the 1 MiB spool holds some 3700 of these 5000.
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, sv));
  srand(7);
  const int total = 5000;
  for (int i = 0; i < total; i++) {
    std::string rec = "r" + std::to_string(i) + " ";
    while (rec.size() < 200) rec += (char)('!' + rand() % 90);
    ASSERT_EQ((ssize_t)rec.size(), send(sv[1], rec.data(), rec.size(), 0));
    ASSERT_GT(s.recv_access_log(sv[0]), 0);
    // The sealer's pace, not a flood; an emulated sealer is some ten times slower.
    if (i % 16 == 15) usleep(under_emulator() ? 20000 : 2000);
  }
  close(sv[0]);
  close(sv[1]);
  AccessLosses lost{};
  ASSERT_TRUE([&] {
    for (int waited = 0; waited < 10000; waited += 50, usleep(50000))
      if ((lost = s.access_losses()).spool_full > 0) return true;
    return false;
  }()) << "nothing was dropped: the spool is larger than it should be";
  // A sealer that falls behind on a busy machine loses records too, counted as queue full.
  EXPECT_EQ(0u, lost.over_rate + lost.unsealable);
  EXPECT_LT(lost.spool_full, 2000u) << "the spool held less than 1 MiB";

  Collector c;
  ASSERT_EQ(0, parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(c.port()) + " 100000").c_str()));
  ASSERT_EQ(0, s.reload_config());
  // Every record not counted lost arrives, in order, in messages numbered
  // 1, 2, 3 ... with no gap.
  auto kept = [&] { return total - (int)(s.access_losses().spool_full + s.access_losses().queue_full); };
  std::string records;
  uint64_t last_seq = 0;
  size_t seen = 0;
  bool in_order = true;
  char *pem = nullptr;
  ASSERT_EQ(0, load_private_key_text(MOX_SOURCE_DIR "/keys/dev/access_private.pem", &pem));
  const char *keys[] = {pem};
  for (int waited = 0; waited < 20000 && (int)(std::count(records.begin(), records.end(), '\n')) < kept();
       waited += 100, usleep(100000)) {
    std::vector<std::string> frames = c.frames();
    for (; seen < frames.size(); seen++) {
      char kind = 0;
      SealMeta meta{};
      unsigned char *plain = nullptr;
      size_t len = 0;
      ASSERT_EQ(0, open_sealed_message(frames[seen].data(), frames[seen].size(), keys, 1, &kind,
                                       &meta, &plain, &len));
      // Blocks that do not compress are cut to fit a receiver's 8 KiB.
      EXPECT_LE(frames[seen].size(), (size_t)SHIP_MESSAGE_MAX);
      in_order = in_order && meta.seq == last_seq + 1;
      last_seq = meta.seq;
      records.append((char *)plain, len);
      std::free(plain);
    }
  }
  std::free(pem);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(in_order) << "a message came out of order, twice, or with a gap before " << last_seq;
  ASSERT_EQ(kept(), (int)std::count(records.begin(), records.end(), '\n'));
  // The records themselves in the order they came; the dropped ones leave
  // a gap where the spool was full.
  long previous = -1;
  for (size_t at = 0; at < records.size(); at = records.find('\n', at) + 1) {
    long number = std::strtol(records.c_str() + at + 1, nullptr, 10);
    ASSERT_GT(number, previous) << records.substr(at, 20);
    previous = number;
  }
}

}  // namespace
