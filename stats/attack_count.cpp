// The running count of classified attacks and its file, plus the reset,
// which is the only other writer of the count. The bump runs for every
// attack, so it writes from a stack buffer with plain system calls.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/platform.h"
#include "stats/stats.h"

// One read of the count file takes this many bytes.
#define COUNT_READ_SIZE 32
// "4294967295\n" and the terminator.
#define COUNT_LINE_SIZE 12

// Largest value before the step to 0; one short of the type's limit.
#define ATTACK_COUNT_LAST 4294967294u

static uint32_t g_attack_count;

uint32_t attack_count(void) { return g_attack_count; }

// strtoul in base 10 as the 32-bit target does it on any host: a value too
// large saturates to 4294967295 and a minus sign negates modulo 2^32.
static uint32_t parse_count(const char *text) {
  const char *p = text;
  while (isspace((unsigned char)*p)) p++;
  int negative = (*p == '-');

  errno = 0;
  unsigned long long value = strtoull(text, NULL, 10);
  if (errno == ERANGE) return UINT32_MAX;
  if (negative) {
    unsigned long long magnitude = 0ULL - value;
    if (magnitude > UINT32_MAX) return UINT32_MAX;
    return 0u - (uint32_t)magnitude;
  }
  if (value > UINT32_MAX) return UINT32_MAX;
  return (uint32_t)value;
}

// An empty or missing file leaves the count as it was. The buffer has one
// byte more than a read can fill, so the text is always terminated even
// when the closing newline is missing.
void load_attack_count(void) {
  FILE *f = fopen_regular(STAT_COUNT_PATH);
  if (f == NULL) return;
  char buf[COUNT_READ_SIZE + 1];
  memset(buf, 0, sizeof buf);
  size_t n = fread(buf, 1, COUNT_READ_SIZE, f);
  fclose(f);
  if (n > 0) g_attack_count = parse_count(buf);
}

// A deleted count file restarts the count at 1, over the value in memory.
void bump_attack_count(void) {
  if (!file_exists(STAT_COUNT_PATH))
    g_attack_count = 1;
  else if (g_attack_count < ATTACK_COUNT_LAST)
    g_attack_count++;
  else
    g_attack_count = 0;

  char line[COUNT_LINE_SIZE];
  memset(line, 0, sizeof line);
  int len = snprintf(line, sizeof line, "%u\n", g_attack_count);
  if (len < 0 || (size_t)len >= sizeof line) return;

  // In place but not truncated first: a full disk keeps the last count in
  // the file (it needs no new room), never an empty one that would restart
  // the lifetime count at 1 after a restart. A failure leaves the new value
  // in memory; the next attack writes again.
  overwrite_file(STAT_COUNT_PATH, line, (size_t)len, 0666);
}

// Memory only: the files keep their content until the next attack and
// timeout rewrite them. report_due is left for the report cycle.
void reset_attack_stats(void) {
  DayStatRing &d = day_stat();
  memset(d.slots, 0, sizeof d.slots);
  memset(&d.total, 0, sizeof d.total);
  d.head = 0;
  d.tail = 0;
  d.count = 0;
  d.dirty = 0;

  HourStatRing &h = hour_stat();
  memset(h.slots, 0, sizeof h.slots);
  h.head = 0;
  h.count = 0;
  h.dirty = 0;

  g_attack_count = 0;
  set_report_send_ok(1);
}
