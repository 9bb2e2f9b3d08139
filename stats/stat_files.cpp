// The day and hour ring files: restored once at start-up, rewritten whole
// at timeouts when dirty. Files are rewritten in place with no temporary
// file, so an outside reader may catch one half written; but they are not
// truncated before the write (overwrite_file), so a disk that is full
// keeps the last content instead of an empty file. Reads and writes refuse
// anything but a regular file, so a FIFO at a path never holds the loop.
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "platform/platform.h"
#include "stats/stats.h"

// The reader scans straight into the slot; a line that scans only in part
// keeps what it got, and the scan result is not looked at.
#define TOTAL_LINE_SCAN "total,%d-%d-%d %d:%d:%d,%u,%u,%u,%u,%u,%u"
#define SLOT_LINE_SCAN "%d-%d-%d %d:%d:%d,%u,%u,%u,%u,%u,%u"

// Scans one line into the calendar fields and the counters of a slot.
// The calendar fields belong to the caller's loop and are never cleared
// between lines: a line that does not scan takes the previous line's
// (already converted) fields, which then lose 1900 and 1 a second time.
static int32_t scan_line(const char *line, int total_line, struct tm *cal, AttackCounters *c) {
  if (total_line)
    sscanf(line, TOTAL_LINE_SCAN, &cal->tm_year, &cal->tm_mon, &cal->tm_mday, &cal->tm_hour,
           &cal->tm_min, &cal->tm_sec, &c->internal_attack, &c->intrusion_attempt,
           &c->automated_attack, &c->unauthorized_access, &c->browser_hijacking,
           &c->password_guessing);
  else
    sscanf(line, SLOT_LINE_SCAN, &cal->tm_year, &cal->tm_mon, &cal->tm_mday, &cal->tm_hour,
           &cal->tm_min, &cal->tm_sec, &c->internal_attack, &c->intrusion_attempt,
           &c->automated_attack, &c->unauthorized_access, &c->browser_hijacking,
           &c->password_guessing);
  // A year or month near the int's limit must not wrap: it stops there.
  cal->tm_year = cal->tm_year >= INT_MIN + 1900 ? cal->tm_year - 1900 : INT_MIN;
  cal->tm_mon = cal->tm_mon >= INT_MIN + 1 ? cal->tm_mon - 1 : INT_MIN;
  return (int32_t)timegm(cal);
}

// Reads slot lines into slots[0..] until the end of the file or until
// limit slots are in; with has_total the first line is the total line,
// whatever it holds. Returns the number of slots read.
//
// Before the first line the calendar fields are zero, so a first line that
// does not scan at all gets the time of zeroed fields minus 1900 and 1
// (30 Nov of year -1), cut to 32 bits: -2040441856, which reads as
// 1905-05-05 18:35:44 UTC. The slot (or total) is still stored with it.
static int32_t read_slots(FILE *f, StatSlot *slots, int32_t limit, StatSlot *total) {
  struct tm cal;
  memset(&cal, 0, sizeof cal);
  char line[STAT_LINE_SIZE];
  int32_t count = 0;
  int first = 1;
  for (;;) {
    memset(line, 0, sizeof line);
    if (fgets(line, sizeof line, f) == NULL) break;
    // Tested after the read, so a file with one slot line too many stops
    // at that line without scanning it.
    if (count >= limit) break;
    if (first && total != NULL) {
      total->time = scan_line(line, 1, &cal, &total->counters);
    } else {
      slots[count].time = scan_line(line, 0, &cal, &slots[count].counters);
      count++;
    }
    first = 0;
  }
  return count;
}

// On a missing or empty file the ring stays empty and the total starts
// now. What was waiting to be reported is not restored: tail points at
// the newest slot.
void load_day_stat(void) {
  DayStatRing &d = day_stat();
  memset(d.slots, 0, sizeof d.slots);
  memset(&d.total, 0, sizeof d.total);
  d.head = 0;
  d.tail = 0;
  d.count = 0;
  d.total.time = (int32_t)clock_now();

  FILE *f = fopen_regular(DAY_STAT_PATH);
  if (f == NULL) return;
  d.count = read_slots(f, d.slots, DAY_SLOTS, &d.total);
  d.head = d.count > 0 ? d.count - 1 : 0;
  d.tail = d.head;
  fclose(f);
}

void load_hour_stat(void) {
  HourStatRing &h = hour_stat();
  memset(h.slots, 0, sizeof h.slots);
  h.head = 0;
  h.count = 0;

  FILE *f = fopen_regular(HOUR_STAT_PATH);
  if (f == NULL) return;
  h.count = read_slots(f, h.slots, HOUR_SLOTS, NULL);
  h.head = h.count > 0 ? h.count - 1 : 0;
  fclose(f);
}

// Lines of the longer ring file; the day file's total line included.
#define RING_TEXT_SIZE (HOUR_SLOTS * STAT_LINE_SIZE)
static_assert(HOUR_SLOTS >= DAY_SLOTS + 1, "the day file with its total fits too");
#define RING_FILE_MODE 0666   // as fopen "w+" creates it; the umask applies

// Appends one line of a ring file in UTC, prefix "total," or "", to text
// (RING_TEXT_SIZE) at *len. A line that would not fit (it cannot: the
// longest is far below the size) is left out.
static void add_line(char *text, size_t *len, const char *prefix, const StatSlot *slot) {
  struct tm cal;
  memset(&cal, 0, sizeof cal);
  time_t t = slot->time;
  if (gmtime_r(&t, &cal) == NULL) memset(&cal, 0, sizeof cal);

  const AttackCounters &c = slot->counters;
  size_t room = RING_TEXT_SIZE - *len;
  int n = snprintf(text + *len, room < STAT_LINE_SIZE ? room : STAT_LINE_SIZE,
                   "%s%d-%d-%d %d:%d:%d,%u,%u,%u,%u,%u,%u\n", prefix, cal.tm_year + 1900,
                   cal.tm_mon + 1, cal.tm_mday, cal.tm_hour, cal.tm_min, cal.tm_sec,
                   c.internal_attack, c.intrusion_attempt, c.automated_attack,
                   c.unauthorized_access, c.browser_hijacking, c.password_guessing);
  if (n < 0 || (size_t)n >= (room < STAT_LINE_SIZE ? room : STAT_LINE_SIZE)) {
    text[*len] = '\0';
    return;
  }
  *len += (size_t)n;
}

// Oldest first: a full ring starts after head, a filling one at 0.
static void add_slots(char *text, size_t *len, const StatSlot *slots, int32_t size,
                      int32_t head, int32_t count) {
  int32_t index = count >= size ? (head + 1) % size : 0;
  for (int32_t i = 0; i < count && i < size; i++) {
    add_line(text, len, "", &slots[index]);
    index = (index + 1) % size;
  }
}

void save_day_stat(void) {
  const DayStatRing &d = day_stat();
  static char text[RING_TEXT_SIZE];  // the loop's thread only
  memset(text, 0, sizeof text);
  size_t len = 0;
  add_line(text, &len, "total,", &d.total);
  add_slots(text, &len, d.slots, DAY_SLOTS, d.head, d.count);
  overwrite_file(DAY_STAT_PATH, text, len, RING_FILE_MODE);  // unwritten: as before the call
}

void save_hour_stat(void) {
  const HourStatRing &h = hour_stat();
  static char text[RING_TEXT_SIZE];
  memset(text, 0, sizeof text);
  size_t len = 0;
  add_slots(text, &len, h.slots, HOUR_SLOTS, h.head, h.count);
  overwrite_file(HOUR_STAT_PATH, text, len, RING_FILE_MODE);
}

// A write that failed is not retried until the next attack sets the flag.
void flush_stats(int32_t *day_dirty, int32_t *hour_dirty) {
  if (day_dirty != NULL && *day_dirty) save_day_stat();
  if (hour_dirty != NULL && *hour_dirty) save_hour_stat();
  if (day_dirty != NULL) *day_dirty = 0;
  if (hour_dirty != NULL) *hour_dirty = 0;
}
