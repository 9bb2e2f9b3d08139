// The day and hour rings and their files under /tmp/mox/log, with the clock pinned: full
// rings through the files, damaged files, the count file and the report hour. Which class
// lands in which counter, the files' text and rolls as the clock moves or jumps are the
// black-box tests' part.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "confgen/confgen.h"
#include "files.h"
#include "platform/platform.h"
#include "sandbox.h"
#include "shipping/shipping.h"
#include "stats/stats.h"

namespace {

time_t utc(const char *text) {
  struct tm t = {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &t);
  return timegm(&t);
}

std::string slot_line(int day, unsigned internal) {
  return "2024-3-" + std::to_string(day) + " 1:2:3," + std::to_string(internal) + ",0,0,0,0,0\n";
}

class StatsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe("/tmp/mox/log");
    ASSERT_EQ(make_dirs("/tmp/mox/log"), 0);
    reset_attack_stats();
    report_due_clear();
    clock_set(utc("2024-03-05 07:08:09"));
  }
  void TearDown() override { clock_set(0); }
  void flush() { flush_stats(&day.dirty, &hour.dirty); }
  void roll_at(const char *when) {
    clock_set(utc(when));
    roll_day_stat();
    roll_hour_stat();
  }
  DayStatRing &day = day_stat();
  HourStatRing &hour = hour_stat();
};

TEST_F(StatsTest, WrappedRingsRoundTrip) {
  for (int i = 0; i < DAY_SLOTS + 3; i++) {
    clock_set(utc("2024-01-01 05:06:07") + i * 86401);
    for (int k = 0; k <= i % 4; k++) count_day_attack(101 + k);
  }
  for (int i = 0; i < HOUR_SLOTS + 2; i++) {
    clock_set(utc("2024-01-01 00:00:00") + i * 3600);
    count_hour_attack(i % 5 + 1);
  }
  StatSlot day_ordered[DAY_SLOTS];
  for (int i = 0; i < DAY_SLOTS; i++) day_ordered[i] = day.slots[(day.head + 1 + i) % DAY_SLOTS];
  StatSlot hour_ordered[HOUR_SLOTS];
  for (int i = 0; i < HOUR_SLOTS; i++) hour_ordered[i] = hour.slots[(hour.head + 1 + i) % HOUR_SLOTS];
  const StatSlot total = day.total;
  flush();
  EXPECT_EQ(day.dirty + hour.dirty, 0);

  reset_attack_stats();
  load_day_stat();
  load_hour_stat();
  EXPECT_EQ(std::make_tuple(day.count, day.head, day.tail, hour.head),
            std::make_tuple(DAY_SLOTS, DAY_SLOTS - 1, DAY_SLOTS - 1, HOUR_SLOTS - 1));
  EXPECT_EQ(0, memcmp(&day.total, &total, sizeof total));
  EXPECT_EQ(0, memcmp(day.slots, day_ordered, sizeof day_ordered));
  EXPECT_EQ(0, memcmp(hour.slots, hour_ordered, sizeof hour_ordered));

  roll_at("2024-06-10 00:00:00");  // the oldest slots are reused
  EXPECT_EQ(std::make_tuple(day.head, day.tail, hour.head, hour.count),
            std::make_tuple(0, DAY_SLOTS - 1, 0, HOUR_SLOTS));
  EXPECT_EQ(day.slots[0].counters.intrusion_attempt, 0u);
  // Counters wrap to zero.
  day.slots[0].counters.automated_attack = day.total.counters.automated_attack = 4294967295u;
  count_day_attack(2);
  EXPECT_EQ(day.slots[0].counters.automated_attack + day.total.counters.automated_attack, 0u);
}

// Damaged files read as far as they scan, never past a ring's end; the fuzz target tries
// every other shape.
TEST_F(StatsTest, DamagedFilesReadAsFarAsTheyScan) {
  // A slot line first is used up as the total line; a cut line keeps what it scanned.
  ASSERT_TRUE(spill(DAY_STAT_PATH, "2024-3-1 1:2:3,1,2,3,4,5,6\n" + slot_line(2, 9) + "2024-3-5 7:8:9,1,2\n"));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.counters.internal_attack, day.count, day.tail), std::make_tuple(0u, 2, 1));
  EXPECT_EQ(std::make_tuple(day.slots[0].counters.internal_attack, day.slots[1].counters.intrusion_attempt,
                            day.slots[1].counters.automated_attack), std::make_tuple(9u, 2u, 0u));
  // Calendar fields at the int's limits stop there instead of wrapping; more lines than slots.
  std::string text = "total,-2147483647--2147483647-1 0:0:0,7\n";
  for (int i = 1; i <= DAY_SLOTS + 1; i++) text += slot_line(i, i);
  ASSERT_TRUE(spill(DAY_STAT_PATH, text));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.counters.internal_attack, day.count,
                            day.slots[DAY_SLOTS - 1].counters.internal_attack), std::make_tuple(7u, DAY_SLOTS, 30u));
  ASSERT_TRUE(spill(DAY_STAT_PATH, ""));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.count, day.slots[0].counters.internal_attack, day.total.time),
            std::make_tuple(0, 0u, (int32_t)utc("2024-03-05 07:08:09")));
  // A first hour line that does not scan still takes a slot.
  text = "garbage\n";
  for (int i = 1; i <= HOUR_SLOTS; i++) text += slot_line(i % 28 + 1, i);
  ASSERT_TRUE(spill(HOUR_STAT_PATH, text));
  load_hour_stat();
  EXPECT_EQ(std::make_tuple(hour.count, hour.slots[1].counters.internal_attack), std::make_tuple(HOUR_SLOTS, 1u));
  unlink(HOUR_STAT_PATH);
  load_hour_stat();
  EXPECT_EQ(hour.count + hour.slots[1].time, 0);
}

// The count goes on from its file, wraps to 0 after 4294967294, and restarts at 1 when the
// file was deleted; a damaged file reads as strtoul reads it, an empty one changes nothing.
TEST_F(StatsTest, CountFileLoadAndBump) {
  const std::tuple<const char *, const char *> cases[] = {
      {"5000\n", "5001\n"}, {"", "5002\n"}, {nullptr, "1\n"}, {"4294967293\n", "4294967294\n"},
      {"abc\n", "1\n"}, {"4294967294\n", "0\n"}, {"99999999999\n", "0\n"},
      {"-5\n", "4294967292\n"}};
  for (const auto &c : cases) {
    unlink(STAT_COUNT_PATH);
    ASSERT_TRUE(!std::get<0>(c) || spill(STAT_COUNT_PATH, std::get<0>(c)));
    load_attack_count();
    bump_attack_count();
    EXPECT_EQ(slurp(STAT_COUNT_PATH), std::get<1>(c)) << (std::get<0>(c) ? std::get<0>(c) : "none");
  }
  ASSERT_TRUE(spill(STAT_COUNT_PATH, "7\n"));
  reset_attack_stats();  // memory only: the file follows at the next attack
  EXPECT_EQ(attack_count(), 0u);
  EXPECT_EQ(slurp(STAT_COUNT_PATH), "7\n");

  // Without the folder nothing is written or made, and the count goes on in memory.
  ASSERT_EQ(sandbox_wipe("/tmp/mox/log"), 0);
  count_day_attack(1);
  flush();
  bump_attack_count();
  EXPECT_EQ(std::make_tuple(day.dirty, attack_count()), std::make_tuple(0, 1u));
  EXPECT_NE(access("/tmp/mox/log", F_OK), 0);
}

// The report hour is drawn anew from randtime once a report is due and its time reached;
// delivery is the black-box tests' part.
TEST_F(StatsTest, ReportTimeIsRenewedOnlyWhenDueAndReached) {
  setenv("TZ", "UTC", 1);
  tzset();
  ASSERT_EQ(0, make_dirs("/media/nand/mox_data"));
  ASSERT_EQ(0, parser_save(PARSER_RANDTIME, "20 2"));
  RateLimitLogSender sender("", 0);
  int hour = 23, minute = 58;
  roll_at("2024-03-05 12:00:00");
  roll_at("2024-03-06 12:00:00");  // due, but 12:00 is before 23:58
  report_cycle(sender, &hour, &minute);
  EXPECT_EQ(std::make_tuple(1, 23, 58), std::make_tuple(report_due(), hour, minute));
  hour = 12;
  minute = 0;  // reached to the minute
  report_cycle(sender, &hour, &minute);
  EXPECT_EQ(0, report_due());
  EXPECT_TRUE((hour == 20 || hour == 21) && minute >= 0 && minute < REPORT_MINUTES) << hour << ":" << minute;
  const int h = hour, m = minute;
  report_cycle(sender, &hour, &minute);  // not due: left alone
  EXPECT_EQ(std::make_tuple(h, m), std::make_tuple(hour, minute));
}

}  // namespace
