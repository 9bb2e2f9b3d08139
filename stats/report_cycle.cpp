// The daily attack report: finished day slots leave through the sender.
#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "shipping/shipping.h"
#include "stats/stats.h"

int format_report_fragment(const StatSlot *slot, char *out, size_t size) {
  time_t t = slot->time;
  struct tm tm;
  std::memset(&tm, 0, sizeof tm);
  gmtime_r(&t, &tm);
  const AttackCounters &c = slot->counters;
  int n = std::snprintf(out, size,
                        "\"timestamp\":\"%d-%d-%d %d:%d:%d\",\"internal_attack\":%u,"
                        "\"intrusion_attempt\":%u,\"automated_attack\":%u,"
                        "\"unauthorized_access\":%u,\"browser_hijacking\":%u,"
                        "\"password_guessing\":%u}",
                        tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                        tm.tm_sec, c.internal_attack, c.intrusion_attempt, c.automated_attack,
                        c.unauthorized_access, c.browser_hijacking, c.password_guessing);
  if (n < 0 || (size_t)n >= size) return -1;
  return n;
}

void report_cycle(RateLimitLogSender &sender, int *report_hour, int *report_minute) {
  time_t now = clock_now();
  struct tm local;
  std::memset(&local, 0, sizeof local);
  localtime_r(&now, &local);
  int span = sender.report_hour_span();
  if (span <= 0) span = 1;  // the sender promises otherwise; a zero must not divide

  // Only the renewal waits for the report time; sending below does not.
  if (report_due() && (local.tm_hour > *report_hour ||
                       (local.tm_hour == *report_hour && local.tm_min >= *report_minute))) {
    int r = rand();
    *report_hour = r % span + sender.report_hour_base();
    *report_minute = rand() % REPORT_MINUTES;
    report_due_clear();
  }

  // Two slots ahead to start, one to go on: a lone finished slot waits for
  // the next, and then both leave together.
  DayStatRing &day = day_stat();
  if (day.tail == day.head || (day.tail + 1) % DAY_SLOTS == day.head) return;
  for (;;) {
    char fragment[REPORT_FRAGMENT_SIZE];
    std::memset(fragment, 0, sizeof fragment);
    format_report_fragment(&day.slots[day.tail], fragment, sizeof fragment);
    int ok = sender.send_attack_report(fragment);
    set_report_send_ok(ok);
    if (ok != 1) return;
    day.tail = (day.tail + 1) % DAY_SLOTS;
    if (day.tail == day.head) return;
  }
}
