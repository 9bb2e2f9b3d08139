// Rolls and counting of the day and hour rings, with the clock pinned.
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
  std::tuple<int, int, int, int, int> shape() { return {day.count, day.head, day.tail, hour.count, hour.head}; }
  DayStatRing &day = day_stat();
  HourStatRing &hour = hour_stat();
};
using Shape = std::tuple<int, int, int, int, int>;

TEST_F(RingsTest, MidnightAndHourOpenOneSlotEach) {
  roll_at("2024-03-05 23:59:59");
  roll_at("2024-03-05 23:59:59");
  EXPECT_EQ(shape(), Shape(1, 0, 0, 1, 0));
  EXPECT_EQ(report_due(), 0);

  roll_at("2024-03-06 00:00:00");
  roll_at("2024-03-06 00:59:59");
  EXPECT_EQ(shape(), Shape(2, 1, 0, 2, 1));
  EXPECT_EQ(day.slots[1].time, utc("2024-03-06 00:00:00"));
  EXPECT_EQ(report_due(), 1);

  roll_at("2024-03-06 01:00:00");
  EXPECT_EQ(shape(), Shape(2, 1, 0, 3, 2));
}

TEST_F(RingsTest, OnlyDayOfMonthAndHourOfDayCount) {
  roll_at("2024-01-31 12:00:00");
  roll_at("2024-02-01 12:00:00");  // same hour a day later: no new hour slot
  EXPECT_EQ(shape(), Shape(2, 1, 0, 1, 0));

  report_due_clear();
  clock_set(utc("2024-03-01 12:30:00"));  // a month on, same day of the month
  count_day_attack(2);
  count_hour_attack(2);
  EXPECT_EQ(shape(), Shape(2, 1, 0, 1, 0));
  EXPECT_EQ(report_due(), 0);
  EXPECT_EQ(day.slots[1].time, utc("2024-03-01 12:30:00"));
  EXPECT_EQ(day.slots[1].counters.automated_attack, 1u);
}

TEST_F(RingsTest, BackwardJumpOpensSlotWithOlderTime) {
  roll_at("2024-03-05 23:59:59");
  roll_at("2024-03-04 22:00:00");
  EXPECT_EQ(shape(), Shape(2, 1, 0, 2, 1));
  EXPECT_LT(day.slots[1].time, day.slots[0].time);
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

TEST_F(RingsTest, ClassesCountByTheTable) {
  count_day_attack(101);
  count_day_attack(3);
  count_hour_attack(104);
  const AttackCounters &c = day.slots[0].counters;
  AttackCounters expected = {};
  expected.internal_attack = expected.intrusion_attempt = expected.unauthorized_access = 1;
  EXPECT_EQ(0, memcmp(&c, &expected, sizeof c));
  EXPECT_EQ(0, memcmp(&day.total.counters, &expected, sizeof c));
  expected.intrusion_attempt = expected.unauthorized_access = 0;
  expected.browser_hijacking = 1;
  EXPECT_EQ(0, memcmp(&hour.slots[0].counters, &expected, sizeof c));

  reset_attack_stats();
  clock_set(utc("2024-03-06 08:00:00"));
  count_day_attack(7);  // counts nothing, but marks, opens and stamps
  EXPECT_EQ(std::make_tuple(day.dirty, day.count), std::make_tuple(1, 1));
  EXPECT_EQ(day.total.time, utc("2024-03-06 08:00:00"));
  count_day_attack(150);
  AttackCounters only_internal = {};
  only_internal.internal_attack = 1;
  EXPECT_EQ(0, memcmp(&c, &only_internal, sizeof c));
  EXPECT_EQ(0, memcmp(&day.total.counters, &only_internal, sizeof c));
}

TEST_F(RingsTest, CountersWrapToZero) {
  count_day_attack(4);
  day.slots[0].counters.browser_hijacking = 4294967295u;
  day.total.counters.internal_attack = 4294967295u;
  count_day_attack(104);
  EXPECT_EQ(day.slots[0].counters.browser_hijacking, 0u);
  EXPECT_EQ(day.total.counters.internal_attack, 0u);
}

TEST_F(RingsTest, ResetEmptiesEverythingButReportDue) {
  count_day_attack(1);
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
