#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "daemon/daemon.h"
#include "logging/logging.h"
#include "records.h"
#include "sandbox.h"
#include "stats/stats.h"

namespace {

// Diagnostic lines go to standard output for these tests.
class Intake : public ::testing::Test {
 protected:
  void SetUp() override {
    LogSink.level = 0;
    LogSink.mask = LOG_MASK_STDOUT;
  }
  void TearDown() override {
    LogSink.level = 3;
    LogSink.mask = 0;
  }

  AttackRecord fields(const std::string &columns, std::string *log = nullptr) {
    AttackRecord r;
    std::memset(&r, 0, sizeof r);
    testing::internal::CaptureStdout();
    get_attack_fields(&r, columns.c_str(), (int)columns.size());
    std::string out = testing::internal::GetCapturedStdout();
    if (log) *log = out;
    return r;
  }

  AttackClass classify(const std::map<int, std::string> &cols,
                       const char *src = "203.0.113.9") {
    std::string text = "ATTACK=I:" + record_columns(cols);
    testing::internal::CaptureStdout();
    AttackClass c = classify_attack(text.c_str(), (int)text.size(), src);
    testing::internal::GetCapturedStdout();
    return c;
  }
};

TEST_F(Intake, ColumnsLandInTheirFields) {
  AttackRecord r = fields(record_columns({{5, "11"}, {6, "12"}, {7, "13"}, {8, "14"},
                                          {9, "-10"}, {12, "134217728"}, {25, "15"},
                                          {28, "33"}, {32, "77"}, {34, "a-b-9"}}));
  EXPECT_EQ(11, r.slot_a);
  EXPECT_EQ(12, r.slot_b);
  EXPECT_EQ(13, r.slot_c);
  EXPECT_EQ(14, r.slot_d);
  EXPECT_EQ(-10, r.guess_code);
  EXPECT_EQ(134217728, r.flag_word);
  EXPECT_EQ(15, r.slot_e);
  EXPECT_EQ(33, r.bot_code);
  EXPECT_EQ(77, r.spare_code);
  EXPECT_EQ(9, r.intrusion_mark);
}

TEST_F(Intake, EmptyColumnsReadAsZero) {
  // "::" is three columns, ":::" four: column 5 empty, 6 and 7 empty.
  std::string cols = record_columns({{5, ""}, {6, ""}, {7, ""}, {8, "4"}, {34, "a--5"}});
  std::string log;
  AttackRecord r = fields(cols, &log);
  EXPECT_EQ(0, r.slot_a);
  EXPECT_EQ(0, r.slot_c);
  EXPECT_EQ(4, r.slot_d);
  EXPECT_EQ(5, r.intrusion_mark);  // a--5 reads a-0-5
  EXPECT_EQ(std::string::npos, log.find("sscanf error."));
}

TEST_F(Intake, ShortOrBrokenRecordsLogAndKeepZeros) {
  std::string log;
  // A record whose first column is empty stops the scan at once.
  AttackRecord r = fields(":" + record_columns({{5, "7"}}), &log);
  EXPECT_NE(std::string::npos, log.find("sscanf error."));
  EXPECT_EQ(0, r.slot_a);

  // Column 34 with an empty first piece stops before intrusion_mark.
  r = fields(record_columns({{34, "--5"}}), &log);
  EXPECT_NE(std::string::npos, log.find("sscanf error."));
  EXPECT_EQ(0, r.intrusion_mark);

  // 34 columns are complete, 33 are not.
  fields(record_columns({{34, "a-b-1"}}, 34), &log);
  EXPECT_EQ(std::string::npos, log.find("sscanf error."));
  fields(record_columns({}, 33), &log);
  EXPECT_NE(std::string::npos, log.find("sscanf error."));

  // The empty record after a marker at the very end.
  fields("", &log);
  EXPECT_NE(std::string::npos, log.find("sscanf error."));
}

TEST_F(Intake, DecisionListInItsOrder) {
  EXPECT_EQ(1, classify({{34, "a-b-3"}, {9, "-10"}, {5, "1"}}));  // row 1 beats 3 and 6
  EXPECT_EQ(2, classify({{12, "134217728"}, {5, "1"}}));
  EXPECT_EQ(2, classify({{12, "-1"}}));  // every bit set includes bit 27
  EXPECT_EQ(0, classify({{12, "67108864"}}));  // bit 26 alone marks nothing
  EXPECT_EQ(2, classify({{28, "30"}}));
  EXPECT_EQ(2, classify({{28, "38"}}));
  EXPECT_EQ(0, classify({{28, "39"}}));
  EXPECT_EQ(0, classify({{28, "29"}}));
  EXPECT_EQ(3, classify({{5, "1"}, {6, "22"}}));
  EXPECT_EQ(3, classify({{7, "1"}}));  // slot 1 counts from any slot field
  for (const char *slot : {"22", "26", "45", "41", "2", "5", "6", "7", "8", "10", "11", "12",
                           "16", "18", "20", "21", "25"})
    EXPECT_EQ(4, classify({{25, slot}, {9, "-10"}})) << "slot " << slot;
  for (const char *slot : {"3", "4", "9", "13", "27", "40", "42", "55"})
    EXPECT_EQ(5, classify({{6, slot}, {9, "-10"}})) << "slot " << slot;
  EXPECT_EQ(0, classify({}));
  EXPECT_EQ(0, classify({{32, "-10"}}));  // spare_code is never consulted
  EXPECT_EQ(0, classify({{9, "-11"}}));
}

TEST_F(Intake, SlotNumbersOutsideTheTableMarkNothing) {
  // 78 = 56 + 22 and -34 = 22 - 56 would hit slot 22 if wrapped.
  EXPECT_EQ(0, classify({{5, "78"}, {6, "-34"}, {7, "99999"}, {8, "-2147483648"},
                         {25, "2147483647"}}));
  EXPECT_EQ(0, classify({{5, "56"}, {6, "-1"}}));
}

TEST_F(Intake, NullTextIsNoClass) { EXPECT_EQ(0, classify_attack(nullptr, 100, "1.2.3.4")); }

TEST_F(Intake, InternalSourceAddsHundred) {
  REQUIRE_SANDBOX();
  ASSERT_EQ(0, sandbox_add_br0("192.168.77.1/24"));
  EXPECT_EQ(101, classify({{34, "a-b-1"}}, "192.168.77.20"));
  EXPECT_EQ(105, classify({{9, "-10"}}, "192.168.77.1"));
  EXPECT_EQ(1, classify({{34, "a-b-1"}}, "192.168.78.20"));
  EXPECT_EQ(0, classify({}, "192.168.77.20"));  // no class stays 0 inside too
  sandbox_del_br0();
}

// log_handler end to end into the counters and the count file.
class Handler : public Intake {
 protected:
  void SetUp() override {
    Intake::SetUp();
    if (!sandbox_ready()) return;
    sandbox_wipe("/tmp/mox");
    ASSERT_EQ(0, system("mkdir -p /tmp/mox/log"));
    // A regular file stands in for the router log device.
    ASSERT_EQ(0, system("rm -f /dev/zvlog && touch /dev/zvlog"));
    reset_attack_stats();
    std::memset(buf, 0, sizeof buf);
  }
  void TearDown() override {
    if (sandbox_ready()) sandbox_wipe("/dev/zvlog");
    Intake::TearDown();
  }

  // Receives a datagram the way the loop does: into the same buffer, not
  // terminated at its length.
  std::string receive(const std::string &datagram) {
    size_t n = datagram.size() > RECV_MAX ? RECV_MAX : datagram.size();
    std::memcpy(buf, datagram.data(), n);
    testing::internal::CaptureStdout();
    log_handler(buf, (int)n);
    return testing::internal::GetCapturedStdout();
  }

  char buf[RECV_BUF_SIZE];
};

TEST_F(Handler, ClassifiedRecordsAreCountedOthersAreNot) {
  REQUIRE_SANDBOX();
  receive(attack_datagram({{34, "a-b-1"}}));
  receive(attack_datagram({{5, "1"}}));
  receive(attack_datagram({}));                                  // no class
  receive("nginx: ATTACK=I:" + record_columns({{34, "a-b-1"}}));  // no "mox:"
  EXPECT_EQ(2u, attack_count());
  EXPECT_EQ(1u, day_stat().total.counters.intrusion_attempt);
  EXPECT_EQ(1u, day_stat().total.counters.unauthorized_access);
  EXPECT_EQ(1u, hour_stat().slots[hour_stat().head].counters.unauthorized_access);
}

TEST_F(Handler, OldBytesBehindTheDatagramAreNotARecord) {
  REQUIRE_SANDBOX();
  receive(attack_datagram({{34, "a-b-1"}}));
  ASSERT_EQ(1u, attack_count());
  // A shorter datagram leaves the old marker behind it in the buffer.
  receive("<131>x nginx: mox: [Automatic Block] short");
  receive("");
  EXPECT_EQ(1u, attack_count());
}

TEST_F(Handler, HostileDatagramsNeitherCrashNorCount) {
  REQUIRE_SANDBOX();
  std::string address(200, '7');
  std::string noise(RECV_MAX, 'A');
  for (size_t i = 0; i < noise.size(); i += 7) noise[i] = (char)(i * 31);
  noise.replace(10, 4, "mox:");
  std::string huge = attack_datagram({{5, "99999999999999999999"}, {6, "-99999999999999"},
                                      {34, "a-b-0"}});
  std::string log = receive(attack_header(address) + "ATTACK=I:" + record_columns({}));
  receive(noise);
  receive(huge);
  receive(std::string(RECV_MAX, ':'));
  receive(attack_header() + "ATTACK=I:");
  receive("mox:");
  buf[0] = 0;
  testing::internal::CaptureStdout();
  log_handler(buf, -1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, attack_count());
  // An over-long address is cut to its buffer and the record still counts.
  EXPECT_NE(std::string::npos, log.find("sscanf src IP and port error."));
  receive(attack_header(address) + "ATTACK=I:" + record_columns({{5, "1"}}));
  EXPECT_EQ(1u, attack_count());
}

}  // namespace
