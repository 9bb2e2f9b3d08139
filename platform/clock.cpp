// The process clock: every time-dependent decision reads it here, so a test
// can pin the time instead of waiting for it.
#include "platform/platform.h"

static time_t pinned_time;  // 0: follow the system clock

time_t clock_now(void) {
  if (pinned_time != 0) return pinned_time;
  return time(nullptr);
}

void clock_set(time_t t) { pinned_time = t; }

static int64_t pinned_ms;  // 0: follow the monotonic clock

void monotonic_set(int64_t ms) { pinned_ms = ms; }

int64_t monotonic_ms(void) {
  if (pinned_ms != 0) return pinned_ms;
  struct timespec now;
  now.tv_sec = 0;
  now.tv_nsec = 0;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}
