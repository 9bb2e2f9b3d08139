// Rolls and counting of the day and hour rings, with the clock pinned. Which class lands
// in which counter is the black-box tests' part.
#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include <tuple>

#include "platform/platform.h"
#include "stats/stats.h"

namespace {

time_t utc(const char *text) {
  struct tm t = {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &t);
  return timegm(&t);
}

using Shape = std::tuple<int, int, int, int, int>;

class RingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_attack_stats();
    report_due_clear();
    clock_set(utc("2024-03-05 23:59:59"));
  }
  void TearDown() override { clock_set(0); }
  void roll_at(const char *when) {
    clock_set(utc(when));
    roll_day_stat();
    roll_hour_stat();
  }
  // count, head and tail of the day ring, then count and head of the hour ring.
  Shape shape() { return Shape(day.count, day.head, day.tail, hour.count, hour.head); }
  DayStatRing &day = day_stat();
  HourStatRing &hour = hour_stat();
};

// A slot opens when the day of the month or the hour of the day differs, whichever way the
// clock went; only a new day makes a report due.
TEST_F(RingsTest, DayOfMonthAndHourOfDayOpenOneSlotEach) {
  const std::tuple<const char *, Shape, int> steps[] = {
      {"2024-03-05 23:59:59", Shape(1, 0, 0, 1, 0), 0}, {"2024-03-05 23:59:59", Shape(1, 0, 0, 1, 0), 0},
      {"2024-03-06 00:00:00", Shape(2, 1, 0, 2, 1), 1}, {"2024-03-06 00:59:59", Shape(2, 1, 0, 2, 1), 1},
      {"2024-03-06 01:00:00", Shape(2, 1, 0, 3, 2), 1}, {"2024-03-05 22:00:00", Shape(3, 2, 0, 4, 3), 1},
      {"2024-04-05 22:30:00", Shape(3, 2, 0, 4, 3), 0},  // a month on, same day and hour
  };
  for (const auto &s : steps) {
    if (std::get<2>(s) == 0) report_due_clear();
    roll_at(std::get<0>(s));
    EXPECT_EQ(shape(), std::get<1>(s)) << std::get<0>(s);
    EXPECT_EQ(report_due(), std::get<2>(s)) << std::get<0>(s);
  }
  EXPECT_EQ(day.slots[1].time, utc("2024-03-06 00:00:00"));
  EXPECT_LT(day.slots[2].time, day.slots[1].time);
  count_day_attack(2);
  EXPECT_EQ(day.slots[2].time, utc("2024-04-05 22:30:00"));  // the last attack's time
  EXPECT_EQ(day.slots[2].counters.automated_attack, 1u);
}

TEST_F(RingsTest, FullRingsReuseNextSlotAndPushTail) {
  for (int i = 0; i < DAY_SLOTS; i++) {
    clock_set(utc("2024-03-01 00:00:00") + i * 86400);
    count_day_attack(1);
  }
  EXPECT_EQ(std::make_tuple(day.head, day.tail), std::make_tuple(DAY_SLOTS - 1, 0));
  roll_at("2024-03-31 00:00:00");
  EXPECT_EQ(std::make_tuple(day.count, day.head, day.tail), std::make_tuple(DAY_SLOTS, 0, 1));
  EXPECT_EQ(day.slots[0].counters.intrusion_attempt, 0u);
  EXPECT_EQ(day.slots[0].time, utc("2024-03-31 00:00:00"));
  EXPECT_EQ(day.total.counters.intrusion_attempt, 30u);

  reset_attack_stats();
  for (int i = 0; i <= HOUR_SLOTS; i++) {
    clock_set(utc("2024-03-01 00:00:00") + i * 3600);
    count_hour_attack(5);
  }
  EXPECT_EQ(std::make_tuple(hour.count, hour.head), std::make_tuple(HOUR_SLOTS, 0));
  EXPECT_EQ(hour.slots[0].counters.password_guessing, 1u);
}

TEST_F(RingsTest, CountersWrapToZeroAndResetKeepsReportDue) {
  count_day_attack(4);
  day.slots[0].counters.browser_hijacking = 4294967295u;
  day.total.counters.internal_attack = 4294967295u;
  count_day_attack(104);
  EXPECT_EQ(day.slots[0].counters.browser_hijacking, 0u);
  EXPECT_EQ(day.total.counters.internal_attack, 0u);

  count_hour_attack(1);
  clock_set(utc("2024-03-06 01:00:00"));
  count_day_attack(1);
  set_report_send_ok(0);
  reset_attack_stats();
  EXPECT_TRUE(report_due() == 1 && report_send_ok() == 1);
  EXPECT_EQ(day.count + day.head + day.dirty + hour.count + hour.dirty, 0);
  EXPECT_EQ(day.total.time + day.slots[1].time, 0);
  EXPECT_EQ(day.total.counters.intrusion_attempt + hour.slots[0].counters.intrusion_attempt, 0u);
  roll_at("2024-03-06 02:00:00");
  EXPECT_EQ(shape(), Shape(1, 0, 0, 1, 0));
}

}  // namespace
