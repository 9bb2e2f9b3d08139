// The process clock: every time-dependent decision reads it here, so a test
// can pin the time instead of waiting for it.
#include "platform/platform.h"

static time_t pinned_time;  // 0: follow the system clock

time_t clock_now(void) {
  if (pinned_time != 0) return pinned_time;
  return time(nullptr);
}

void clock_set(time_t t) { pinned_time = t; }
