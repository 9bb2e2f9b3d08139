// Attack statistics: the day and hour rings, the lifetime total and the
// count of classified attacks, with their files under /tmp/mox/log.
// All state is static here and touched on the main loop's thread only.
// The statistics operations print nothing.
#pragma once

#include <stddef.h>
#include <stdint.h>

#define DAY_SLOTS 30
#define HOUR_SLOTS 48
#define STAT_LINE_SIZE 256
#define REPORT_FRAGMENT_SIZE 256   // longest fragment: 219 characters
#define REPORT_MINUTES 59          // report minutes are drawn from 0..58

#define STAT_COUNT_PATH "/tmp/mox/log/stat"
#define DAY_STAT_PATH "/tmp/mox/log/day_stat"
#define HOUR_STAT_PATH "/tmp/mox/log/hour_stat"

// Always in this order: in memory, in the files and in the report fragment.
struct AttackCounters {
  uint32_t internal_attack;
  uint32_t intrusion_attempt;
  uint32_t automated_attack;
  uint32_t unauthorized_access;
  uint32_t browser_hijacking;
  uint32_t password_guessing;
};

// One bucket: time of its opening or of its last attack, then the counters.
struct StatSlot {
  int32_t time;
  AttackCounters counters;
};

struct DayStatRing {
  StatSlot slots[DAY_SLOTS];
  StatSlot total;   // lifetime sums, never rolled
  int32_t head;     // open slot
  int32_t tail;     // oldest slot not yet reported
  int32_t count;    // slots in use
  int32_t dirty;    // day file behind memory
};

struct HourStatRing {
  StatSlot slots[HOUR_SLOTS];
  int32_t head;
  int32_t count;
  int32_t dirty;
};

// The process-wide rings.
DayStatRing &day_stat(void);
HourStatRing &hour_stat(void);

// Running count of classified attacks, as in the count file.
uint32_t attack_count(void);

// 1 once the UTC day has moved on and a report is due; report_due_clear
// ends it.
int report_due(void);
void report_due_clear(void);

// 1 if the UTC day of the month differs from the open day slot's (and then
// marks a report due), else 0.
int day_changed(void);

// 1 if the UTC hour differs from the open hour slot's, else 0.
int hour_changed(void);

// Opens the first slot of an empty ring, and one new slot when the day
// (hour) has changed, however much time passed.
void roll_day_stat(void);
void roll_hour_stat(void);

// Counts one attack of the class (1..5, 101..105) into the open slot, after
// a roll; marks the ring dirty whatever the class.
void count_day_attack(int32_t attack_class);
void count_hour_attack(int32_t attack_class);

// Result of the last attack report send (1 sent); 1 at start and after a
// reset.
int32_t report_send_ok(void);
void set_report_send_ok(int32_t ok);

// Clears both rings, the total and attack_count in memory; the files stay.
void reset_attack_stats(void);

// Restore the rings and the count from their files at start-up; a missing
// or damaged file leaves an empty ring (zero count).
void load_day_stat(void);
void load_hour_stat(void);
void load_attack_count(void);

class RateLimitLogSender;

// The closing piece of one day's JSON report, from "timestamp" (the slot's
// time in UTC) through the six counters and the closing brace.
// Characters written, or -1 when out is too small.
int format_report_fragment(const StatSlot *slot, char *out, size_t size);

// At each timeout: once a day has finished and the local time has reached
// *report_hour:*report_minute, draws the next report time; then sends the
// finished day slots oldest first, in pairs, keeping the first that fails
// for a later timeout. The open slot is never sent.
void report_cycle(RateLimitLogSender &sender, int *report_hour, int *report_minute);

// Rewrite a ring file whole from memory; a failed open writes nothing.
void save_day_stat(void);
void save_hour_stat(void);

// Saves each ring whose flag is set, then clears both flags.
void flush_stats(int32_t *day_dirty, int32_t *hour_dirty);

// Steps the count (to 1 when the count file was deleted, from 4294967294
// to 0) and rewrites the count file.
void bump_attack_count(void);
