// The statistics files under /tmp/mox/log: exact text, round trips,
// damaged input and the count file.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "platform/platform.h"
#include "stats/stats.h"
#include "support/sandbox.h"

namespace {

time_t utc(const char *text) {
  struct tm t = {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &t);
  return timegm(&t);
}

// Time of a first line that does not scan: the zeroed calendar fields
// less 1900 and 1 (30 Nov of year -1), cut to 32 bits; as timegm gives it
// for the target's time_t (-2040441856 where it has 64 bits).
const int32_t UNSCANNED_FIRST_TIME = [] {
  struct tm t = {};
  t.tm_year = -1900;
  t.tm_mon = -1;
  return (int32_t)timegm(&t);
}();

void put(const char *path, const std::string &text) {
  FILE *f = fopen(path, "w");
  ASSERT_NE(f, nullptr);
  fputs(text.c_str(), f);
  fclose(f);
}

std::string get(const char *path) {
  char buf[4096] = {};
  FILE *f = fopen(path, "r");
  if (f == nullptr) return "<missing>";
  size_t n = fread(buf, 1, sizeof buf - 1, f);
  fclose(f);
  return std::string(buf, n);
}

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
  EXPECT_EQ(get(DAY_STAT_PATH), "total,2024-3-5 7:8:9,1,1,0,1,0,0\n2024-3-5 7:8:9,1,1,0,1,0,0\n");
  EXPECT_EQ(get(HOUR_STAT_PATH), "2024-3-5 7:8:9,1,1,0,1,0,0\n");
  EXPECT_EQ(get(STAT_COUNT_PATH), "2\n");

  reset_attack_stats();
  day.dirty = 1;
  flush();  // empty ring: total line only; the clean hour file is left
  EXPECT_EQ(get(DAY_STAT_PATH), "total,1970-1-1 0:0:0,0,0,0,0,0,0\n");
  EXPECT_EQ(get(HOUR_STAT_PATH), "2024-3-5 7:8:9,1,1,0,1,0,0\n");
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
  put(DAY_STAT_PATH, "2024-3-1 1:2:3,1,2,3,4,5,6\n" + slot_line(2, 9));
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.time, day.total.counters.internal_attack, day.count),
            std::make_tuple(UNSCANNED_FIRST_TIME, 0u, 1));
  EXPECT_EQ(day.slots[0].counters.internal_attack, 9u);

  // A cut line keeps what it scanned; a line that does not scan reuses the
  // converted fields of the line before, losing 1900 and 1 once more.
  put(DAY_STAT_PATH, "total,2024-3-1 0:0:0,5\n2024-3-5 7:8:9,1,2\nnonsense\n");
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.total.counters.internal_attack, day.count, day.tail), std::make_tuple(5u, 2, 1));
  EXPECT_EQ(day.slots[0].time, utc("2024-03-05 07:08:09"));
  EXPECT_EQ(std::make_tuple(day.slots[0].counters.intrusion_attempt, day.slots[0].counters.automated_attack),
            std::make_tuple(2u, 0u));
  EXPECT_EQ(day.slots[1].time, (int32_t)utc("0124-02-05 07:08:09"));

  std::string text = "total,2024-3-1 0:0:0,0,0,0,0,0,0\n";
  for (int i = 1; i <= DAY_SLOTS + 1; i++) text += slot_line(i, i);
  put(DAY_STAT_PATH, text);
  load_day_stat();
  EXPECT_EQ(day.count, DAY_SLOTS);
  EXPECT_EQ(day.slots[DAY_SLOTS - 1].counters.internal_attack, 30u);

  // Calendar fields at the int's limits stop there instead of wrapping.
  put(DAY_STAT_PATH, "total,-2147483647--2147483647-1 0:0:0,7\n");
  load_day_stat();
  EXPECT_EQ(day.total.counters.internal_attack, 7u);

  put(DAY_STAT_PATH, "");
  load_day_stat();
  EXPECT_EQ(std::make_tuple(day.count, day.slots[0].counters.internal_attack), std::make_tuple(0, 0u));
  EXPECT_EQ(day.total.time, utc("2024-03-05 07:08:09"));
}

TEST_F(StatFilesTest, DamagedHourFiles) {
  std::string text = "garbage\n";
  for (int i = 1; i <= HOUR_SLOTS; i++) text += slot_line(i % 28 + 1, i);
  put(HOUR_STAT_PATH, text);
  load_hour_stat();
  EXPECT_EQ(std::make_tuple(hour.count, hour.slots[0].time, hour.slots[1].counters.internal_attack),
            std::make_tuple(HOUR_SLOTS, UNSCANNED_FIRST_TIME, 1u));

  unlink(HOUR_STAT_PATH);
  load_hour_stat();
  EXPECT_EQ(hour.count + hour.slots[1].time, 0);
}

TEST_F(StatFilesTest, CountFileLoadAndBump) {
  put(STAT_COUNT_PATH, "5000\n");
  load_attack_count();
  EXPECT_EQ(attack_count(), 5000u);
  unlink(STAT_COUNT_PATH);
  bump_attack_count();
  EXPECT_EQ(get(STAT_COUNT_PATH), "1\n");

  put(STAT_COUNT_PATH, "4294967294\n");
  load_attack_count();
  bump_attack_count();
  EXPECT_EQ(get(STAT_COUNT_PATH), "0\n");
  bump_attack_count();
  EXPECT_EQ(get(STAT_COUNT_PATH), "1\n");

  put(STAT_COUNT_PATH, "99999999999\n");
  load_attack_count();
  EXPECT_EQ(attack_count(), 4294967295u);
  put(STAT_COUNT_PATH, "");
  load_attack_count();  // an empty file changes nothing
  bump_attack_count();
  EXPECT_EQ(get(STAT_COUNT_PATH), "0\n");
  for (auto c : {std::make_pair("abc\n", 0u), std::make_pair("-5\n", 4294967291u)}) {
    put(STAT_COUNT_PATH, c.first);
    load_attack_count();
    EXPECT_EQ(attack_count(), c.second) << c.first;
  }

  reset_attack_stats();
  EXPECT_EQ(attack_count(), 0u);
  EXPECT_EQ(get(STAT_COUNT_PATH), "-5\n");
}

TEST_F(StatFilesTest, MissingDirectoryFailsQuietly) {
  count_day_attack(1);
  count_hour_attack(1);
  ASSERT_EQ(sandbox_wipe("/tmp/mox/log"), 0);
  flush();
  EXPECT_EQ(day.dirty + hour.dirty, 0);
  bump_attack_count();
  EXPECT_EQ(attack_count(), 1u);
  EXPECT_NE(access("/tmp/mox/log", F_OK), 0);
}

}  // namespace
