// The stored shipping settings as text: one parser each, shared by the
// daemon, which reads them at start and on SIGHUP, and by mox_conf, which
// refuses at "set" what the daemon would refuse later. Numbers are taken
// with range and end checks: "99999", "5141x" or a value that overflows
// is refused, never wrapped or cut into one that happens to be valid.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "shipping/shipping.h"

#define COLLECTOR_PORT_MAX 65535

// Indexed by SHIP_TRANSPORT_.
static const char *const schemes[] = {SHIP_SCHEME_TCP, SHIP_SCHEME_RELP, SHIP_SCHEME_TLS,
                                      SHIP_SCHEME_RELP_TLS};
#define SCHEME_COUNT (int32_t)(sizeof schemes / sizeof schemes[0])

const char *ship_scheme(int32_t transport) {
  return transport >= 0 && transport < SCHEME_COUNT ? schemes[transport] : "?://";
}

int ship_over_relp(const ShipTarget *target) {
  return target->transport == SHIP_TRANSPORT_RELP || target->transport == SHIP_TRANSPORT_RELP_TLS;
}

int parse_collector(const char *text, ShipTarget *target, int32_t *rate) {
  if (text == NULL || target == NULL) return -1;
  ShipTarget t;
  memset(&t, 0, sizeof t);
  const char *p = text;
  while (*p == ' ' || *p == '\t') p++;
  t.transport = SHIP_TRANSPORT_TCP;
  for (int32_t i = 0; i < SCHEME_COUNT; i++) {
    if (strncmp(p, schemes[i], strlen(schemes[i])) == 0) {
      t.transport = i;
      p += strlen(schemes[i]);
      break;
    }
  }
  size_t host_len = strcspn(p, ": \t\n/");
  if (host_len == 0 || host_len >= sizeof t.host || p[host_len] != ':') return -1;
  memcpy(t.host, p, host_len);
  p += host_len + 1;

  // Digits only, checked for range: "99999" or "5141x" is refused, never
  // wrapped or cut into a port that happens to exist.
  char *end = NULL;
  if (*p < '0' || *p > '9') return -1;
  errno = 0;
  long port = strtol(p, &end, 10);
  if (errno != 0 || port < 1 || port > COLLECTOR_PORT_MAX) return -1;
  t.port = (int32_t)port;
  p = end;
  int32_t r = 0;
  int have_rate = 0;
  if (*p == ' ' || *p == '\t') {
    while (*p == ' ' || *p == '\t') p++;
    if (*p >= '0' && *p <= '9') {
      errno = 0;
      long long v = strtoll(p, &end, 10);
      if (errno != 0 || v < 1 || v > SEND_INTERVAL_MAX || rate == NULL) return -1;
      r = (int32_t)v;
      have_rate = 1;
      p = end;
    }
  }
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') p++;
  if (*p != '\0') return -1;
  *target = t;
  if (have_rate) *rate = r;
  return 0;
}

// A decimal integer of up to 32 bits at p, with *end behind it; -1 when
// there is no digit or the value does not fit.
static int take_int(const char *p, long lo, long hi, long *value, const char **end) {
  if (!((*p >= '0' && *p <= '9') || (*p == '-' && p[1] >= '0' && p[1] <= '9'))) return -1;
  char *stop = NULL;
  errno = 0;
  long v = strtol(p, &stop, 10);
  if (errno != 0 || v < lo || v > hi) return -1;
  *value = v;
  *end = stop;
  return 0;
}

int parse_report_hours(const char *text, int32_t *base, int32_t *span) {
  if (text == NULL || base == NULL || span == NULL) return -1;
  const char *p = text;
  while (*p == ' ' || *p == '\t') p++;
  long b = 0, s = 0;
  if (take_int(p, 0, REPORT_HOUR_BASE_MAX, &b, &p) != 0) return -1;
  if (*p != ' ' && *p != '\t') return -1;
  while (*p == ' ' || *p == '\t') p++;
  if (take_int(p, INT32_MIN, INT32_MAX, &s, &p) != 0) return -1;
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') p++;
  if (*p != '\0') return -1;
  // A zero or negative span would divide by zero in the report cycle; a
  // span beyond a day draws hours that never come.
  if (s <= 0) s = REPORT_HOUR_SPAN_DEFAULT;
  if (s > REPORT_HOUR_SPAN_MAX) s = REPORT_HOUR_SPAN_MAX;
  *base = (int32_t)b;
  *span = (int32_t)s;
  return 0;
}
