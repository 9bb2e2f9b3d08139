// The day and hour rings in memory: change tests, rolls and counting.
// Counting runs for every classified attack, so nothing here allocates,
// touches a file or prints.
#include <string.h>
#include <time.h>

#include "platform/platform.h"
#include "stats/stats.h"

static DayStatRing g_day_stat;
static HourStatRing g_hour_stat;
static int g_report_due;
static int32_t g_report_send_ok = 1;

DayStatRing &day_stat(void) { return g_day_stat; }

HourStatRing &hour_stat(void) { return g_hour_stat; }

int report_due(void) { return g_report_due; }

void report_due_clear(void) { g_report_due = 0; }

int32_t report_send_ok(void) { return g_report_send_ok; }

void set_report_send_ok(int32_t ok) { g_report_send_ok = ok; }

static int32_t now_stamp(void) { return (int32_t)clock_now(); }

// UTC calendar fields of a time; all zero if it cannot be broken down, so
// the comparison stays defined.
static void utc_fields(time_t t, struct tm *out) {
  memset(out, 0, sizeof *out);
  if (gmtime_r(&t, out) == NULL) memset(out, 0, sizeof *out);
}

// Only the day of the month is compared: a jump of whole months that lands
// on the same day keeps the open slot, and a backward jump opens a new one.
int day_changed(void) {
  struct tm now_tm;
  struct tm slot_tm;
  utc_fields(clock_now(), &now_tm);
  utc_fields(g_day_stat.slots[g_day_stat.head].time, &slot_tm);
  if (now_tm.tm_mday == slot_tm.tm_mday) return 0;
  g_report_due = 1;
  return 1;
}

int hour_changed(void) {
  struct tm now_tm;
  struct tm slot_tm;
  utc_fields(clock_now(), &now_tm);
  utc_fields(g_hour_stat.slots[g_hour_stat.head].time, &slot_tm);
  return now_tm.tm_hour != slot_tm.tm_hour;
}

void roll_day_stat(void) {
  DayStatRing &d = g_day_stat;
  if (d.slots[d.head].time == 0 && d.count == 0) {
    d.slots[d.head].time = now_stamp();
    d.count = 1;
  }
  if (!day_changed()) return;

  int32_t next = (d.head + 1) % DAY_SLOTS;
  // The oldest unreported slot is about to be overwritten: it is given up.
  if (next == d.tail) d.tail = (d.tail + 1) % DAY_SLOTS;
  d.head = next;
  if (d.count < DAY_SLOTS)
    d.count++;  // never used since the last clear, so already zero
  else
    memset(&d.slots[next], 0, sizeof d.slots[next]);
  d.slots[next].time = now_stamp();
}

// The hour ring is never reported, so it overwrites its oldest slot freely.
void roll_hour_stat(void) {
  HourStatRing &h = g_hour_stat;
  if (h.slots[h.head].time == 0 && h.count == 0) {
    h.slots[h.head].time = now_stamp();
    h.count = 1;
  }
  if (!hour_changed()) return;

  int32_t next = (h.head + 1) % HOUR_SLOTS;
  h.head = next;
  if (h.count < HOUR_SLOTS)
    h.count++;
  else
    memset(&h.slots[next], 0, sizeof h.slots[next]);
  h.slots[next].time = now_stamp();
}

// An internal attack counts under its kind and again under internal_attack;
// unknown classes above 100 count as internal only. Counters wrap freely.
static void add_attack(AttackCounters *c, int32_t attack_class) {
  switch (attack_class) {
    case 1:
    case 101:
      c->intrusion_attempt++;
      break;
    case 2:
    case 102:
      c->automated_attack++;
      break;
    case 3:
    case 103:
      c->unauthorized_access++;
      break;
    case 4:
    case 104:
      c->browser_hijacking++;
      break;
    case 5:
    case 105:
      c->password_guessing++;
      break;
    default:
      break;
  }
  if (attack_class > 100) c->internal_attack++;
}

void count_day_attack(int32_t attack_class) {
  g_day_stat.dirty = 1;
  roll_day_stat();
  StatSlot &open_slot = g_day_stat.slots[g_day_stat.head];
  open_slot.time = now_stamp();
  add_attack(&open_slot.counters, attack_class);
  add_attack(&g_day_stat.total.counters, attack_class);
  g_day_stat.total.time = now_stamp();
}

void count_hour_attack(int32_t attack_class) {
  g_hour_stat.dirty = 1;
  roll_hour_stat();
  StatSlot &open_slot = g_hour_stat.slots[g_hour_stat.head];
  open_slot.time = now_stamp();
  add_attack(&open_slot.counters, attack_class);
}
