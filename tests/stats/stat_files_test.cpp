// The statistics files under /tmp/mox/log: exact text, round trips,
// damaged input and the count file.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "platform/platform.h"
#include "stats/stats.h"
#include "files.h"
#include "sandbox.h"

namespace {

time_t utc(const char *text) {
  struct tm t = {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &t);
  return timegm(&t);
}

// Time of a first line that does not scan: the zeroed calendar fields
// less 1900 and 1 (30 Nov of year -1), cut to 32 bits.
const int32_t UNSCANNED_FIRST_TIME = -2040441856;

std::string slot_line(int day, unsigned internal) {
  return "2024-3-" + std::to_string(day) + " 1:2:3," + std::to_string(internal) + ",0,0,0,0,0\n";
}

class StatFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    sandbox_wipe("/tmp/mox/log");
    mkdir("/tmp/mox", 0777);
    ASSERT_EQ(mkdir("/tmp/mox/log", 0777), 0);
    reset_attack_stats();
    clock_set(utc("2024-03-05 07:08:09"));
  }
  void TearDown() override { clock_set(0); }
  void flush() { flush_stats(&day.dirty, &hour.dirty); }
  DayStatRing &day = day_stat();
  HourStatRing &hour = hour_stat();
};

TEST_F(StatFilesTest, ExactTextOfAllThreeFiles) {
  for (int attack_class : {101, 3}) {
    count_day_attack(attack_class);
    count_hour_attack(attack_class);
    bump_attack_count();
  }
  flush();
  EXPECT_EQ(day.dirty + hour.dirty, 0);
  EXPECT_EQ(slurp(DAY_STAT_PATH), "total,2024-3-5 7:8:9,1,1,0,1,0,0\n2024-3-5 7:8:9,1,1,0,1,0,0\n");
  EXPECT_EQ(slurp(HOUR_STAT_PATH), "2024-3-5 7:8:9,1,1,0,1,0,0\n");
  EXPECT_EQ(slurp(STAT_COUNT_PATH), "2\n");

  reset_attack_stats();
  day.dirty = 1;
  flush();  // empty ring: total line only; the clean hour file is left
  EXPECT_EQ(slurp(DAY_STAT_PATH), "total,1970-1-1 0:0:0,0,0,0,0,0,0\n");
  EXPECT_EQ(slurp(HOUR_STAT_PATH), "2024-3-5 7:8:9,1,1,0,1,0,0\n");

  // Without the folder nothing is written, nothing is made, and the counts go on.
  count_day_attack(1);
  count_hour_attack(1);
  ASSERT_EQ(sandbox_wipe("/tmp/mox/log"), 0);
  flush();
  EXPECT_EQ(day.dirty + hour.dirty, 0);
  bump_attack_count();
  EXPECT_EQ(attack_count(), 1u);
  EXPECT_NE(access("/tmp/mox/log", F_OK), 0);
}

TEST_F(StatFilesTest, WrappedRingsRoundTrip) {
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

  reset_attack_stats();
  load_day_stat();
  load_hour_stat();
  EXPECT_EQ(std::make_tuple(day.count, day.head, day.tail, hour.head),
            std::make_tuple(DAY_SLOTS, DAY_SLOTS - 1, DAY_SLOTS - 1, HOUR_SLOTS - 1));
  EXPECT_EQ(0, memcmp(&day.total, &total, sizeof total));
  EXPECT_EQ(0, memcmp(day.slots, day_ordered, sizeof day_ordered));
  EXPECT_EQ(0, memcmp(hour.slots, hour_ordered, sizeof hour_ordered));

  clock_set(utc("2024-06-10 00:00:00"));
  roll_day_stat();
  roll_hour_stat();
  EXPECT_EQ(std::make_tuple(day.head, day.tail, hour.head, hour.count),
            std::make_tuple(0, DAY_SLOTS - 1, 0, HOUR_SLOTS));
  EXPECT_EQ(day.slots[0].counters.intrusion_attempt, 0u);
}

TEST_F(StatFilesTest, DamagedDayFiles) {
  // A slot line first is used up as the total line, and "total," fails.
  ASSERT_TRUE(spill(DAY_STAT_PATH, "2024-3-1 1:2:3,1,2,3,4,5,6\n" + slot_line(2, 9)));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.time, day.total.counters.internal_attack, day.count),
            std::make_tuple(UNSCANNED_FIRST_TIME, 0u, 1));
  EXPECT_EQ(day.slots[0].counters.internal_attack, 9u);

  // A cut line keeps what it scanned; a line that does not scan reuses the
  // converted fields of the line before, losing 1900 and 1 once more.
  ASSERT_TRUE(spill(DAY_STAT_PATH, "total,2024-3-1 0:0:0,5\n2024-3-5 7:8:9,1,2\nnonsense\n"));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.counters.internal_attack, day.count, day.tail), std::make_tuple(5u, 2, 1));
  EXPECT_EQ(day.slots[0].time, utc("2024-03-05 07:08:09"));
  EXPECT_EQ(std::make_tuple(day.slots[0].counters.intrusion_attempt, day.slots[0].counters.automated_attack),
            std::make_tuple(2u, 0u));
  EXPECT_EQ(day.slots[1].time, (int32_t)utc("0124-02-05 07:08:09"));

  std::string text = "total,2024-3-1 0:0:0,0,0,0,0,0,0\n";
  for (int i = 1; i <= DAY_SLOTS + 1; i++) text += slot_line(i, i);
  ASSERT_TRUE(spill(DAY_STAT_PATH, text));
  load_day_stat();
  EXPECT_EQ(day.count, DAY_SLOTS);
  EXPECT_EQ(day.slots[DAY_SLOTS - 1].counters.internal_attack, 30u);

  // Calendar fields at the int's limits stop there instead of wrapping.
  ASSERT_TRUE(spill(DAY_STAT_PATH, "total,-2147483647--2147483647-1 0:0:0,7\n"));
  load_day_stat();
  EXPECT_EQ(day.total.counters.internal_attack, 7u);

  ASSERT_TRUE(spill(DAY_STAT_PATH, ""));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.count, day.slots[0].counters.internal_attack), std::make_tuple(0, 0u));
  EXPECT_EQ(day.total.time, utc("2024-03-05 07:08:09"));
}

TEST_F(StatFilesTest, DamagedHourFiles) {
  std::string text = "garbage\n";
  for (int i = 1; i <= HOUR_SLOTS; i++) text += slot_line(i % 28 + 1, i);
  ASSERT_TRUE(spill(HOUR_STAT_PATH, text));
  load_hour_stat();
  EXPECT_EQ(std::make_tuple(hour.count, hour.slots[0].time, hour.slots[1].counters.internal_attack),
            std::make_tuple(HOUR_SLOTS, UNSCANNED_FIRST_TIME, 1u));

  unlink(HOUR_STAT_PATH);
  load_hour_stat();
  EXPECT_EQ(hour.count + hour.slots[1].time, 0);
}

// The count goes on from its file, wraps to 0 after 4294967294, and restarts at 1 when the
// file was deleted; a damaged file reads as strtoul reads it, an empty one changes nothing.
TEST_F(StatFilesTest, CountFileLoadAndBump) {
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
}

}  // namespace
