// The access side of the sender: every loss counted by its cause and logged once, the pacing
// on the monotonic clock, and the spool that holds what fits while the collector is away
// and delivers it in order with no gap in the sequence numbers.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "collector.h"
#include "confgen/confgen.h"
#include "files.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "run_binary.h"
#include "shipping/shipping.h"

namespace {

const int64_t M0 = 1000000;  // a fixed point of the monotonic clock for the pacing

int set_logserver(int port, const char *rate) {
  return parser_save(PARSER_LOGSERVER, ("127.0.0.1:" + std::to_string(port) + " " + rate).c_str());
}

int port_refused() { return Collector().port(); }  // closed again at once

class Sender : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
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
  // Feeds records through a socket pair as the loop would: "r<i> ", padded to pad bytes
  // with characters that do not compress, at the sealer's pace rather than a flood.
  static void feed(RateLimitLogSender &s, int n, size_t pad = 0) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, sv));
    for (int i = 0; i < n; i++) {
      std::string rec = "r" + std::to_string(i) + " ";
      while (rec.size() < pad) rec += (char)('!' + rand() % 90);
      ASSERT_EQ((ssize_t)rec.size(), send(sv[1], rec.data(), rec.size(), 0));
      ASSERT_EQ((int)std::min(rec.size(), (size_t)ACCESS_RECORD_SIZE - 1), s.recv_access_log(sv[0]));
      // The sealer's pace, not a flood; an emulated sealer is some ten times slower.
      if (pad && i % 16 == 15) usleep(under_emulator() ? 20000 : 2000);
    }
    close(sv[0]);
    close(sv[1]);
  }
};

// The pacing follows the monotonic clock; the largest rate after a long gap is the
// black-box tests' part.
TEST_F(Sender, LostRecordsAreCountedByCauseAndLoggedOnce) {
  int port = port_refused();  // blocks wait in the spool
  testing::internal::CaptureStdout();
  {
    RateLimitLogSender off("", 0);  // no logserver
    feed(off, 3);
    EXPECT_EQ(3u, off.access_losses().shipping_off);
  }
  ASSERT_EQ(0, set_logserver(port, "5"));
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

  feed(s, 1, ACCESS_RECORD_SIZE + 100);  // longer than a record: counted whole, not cut
  EXPECT_EQ(1u, s.access_losses().too_long);
  s.timeout_tick();
  std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, log.find("access records dropped: 7 (over 5/m 7, queue full 0, "
                                        "spool full 0, shipping off 0, too long 0, unsealable 0)"))
      << log;
  EXPECT_NE(std::string::npos, log.find("access records dropped: 2 (over 5/m 8, queue full 0, "
                                        "spool full 0, shipping off 0, too long 1, unsealable 0)"))
      << log;
  EXPECT_EQ(2u, count_of(log, "access records dropped")) << "the same losses were logged twice";
}

// While the collector is away, sealed blocks wait in the spool up to its size; what does
// not fit is counted and takes no sequence number, and the rest leaves in order once the
// collector is back.
TEST_F(Sender, SpoolHoldsWhatFitsAndDeliversItInOrder) {
  ASSERT_EQ(0, set_logserver(port_refused(), "100000"));
  testing::internal::CaptureStdout();
  RateLimitLogSender s("", 0);
  // Blocks are cut into messages of about 5.5 KiB: the 1 MiB spool holds some 3700 of these.
  srand(7);
  const int total = 5000;
  feed(s, total, 200);
  ASSERT_TRUE(wait_for([&] { return s.access_losses().spool_full > 0; }, 10))
      << "nothing was dropped: the spool is larger than it should be";
  AccessLosses lost = s.access_losses();
  // A sealer that falls behind on a busy machine loses records too, counted as queue full.
  EXPECT_EQ(0u, lost.over_rate + lost.unsealable);
  EXPECT_LT(lost.spool_full, 2000u) << "the spool held less than 1 MiB";

  Collector c;
  ASSERT_EQ(0, set_logserver(c.port(), "100000"));
  ASSERT_EQ(0, s.reload_config());
  // Losses go on being counted until the sealer has drained its queue.
  auto kept = [&] { return total - s.access_losses().spool_full - s.access_losses().queue_full; };
  RunResult r;
  auto decode = [&] {
    spill("/tmp/mox/got", c.bytes());
    r = run_binary(sandbox_logdecode_path(), {"mox_logdecode", "--stats", "-k",
                                              MOX_SOURCE_DIR "/keys/dev/access_private.pem",
                                              "/tmp/mox/got"});
    return count_of(r.out, "\n");
  };
  wait_for([&] { return decode() >= kept(); }, 20, 100);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(kept(), count_of(r.out, "\n")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(" duplicates=0 replays=0 missing=0\n")) << r.err;
  for (const std::string &m : c.frames()) EXPECT_LE(m.size(), (size_t)SHIP_MESSAGE_MAX);  // 8 KiB
  // The records in the order they came; the dropped ones leave a gap where the spool was full.
  long previous = -1;
  const std::string record = "\"record\":\"r";
  for (size_t at = 0; (at = r.out.find(record, at)) != std::string::npos; at += record.size()) {
    long number = std::strtol(r.out.c_str() + at + record.size(), nullptr, 10);
    ASSERT_GT(number, previous) << r.out.substr(at, 20);
    previous = number;
  }
}

}  // namespace
