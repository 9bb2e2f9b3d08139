// Endpoint texts: "[scheme://][host][:][port]" split by one POSIX extended
// expression, and the syslog facility names the generated proxy accepts.
#include <regex.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"

#define ENDPOINT_PATTERN                                                              \
  "^((http|https)://)?((([0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+)|(\\[[a-z0-9:]+\\])):?)?" \
  "([0-9]+)?$"
#define ENDPOINT_GROUPS 10     // room the matcher gets; groups 2, 4 and 7 are used
#define ENDPOINT_SCHEME_GROUP 2
#define ENDPOINT_HOST_GROUP 4
#define ENDPOINT_PORT_GROUP 7

static const char *const syslog_facilities[] = {
    "authpriv", "local0", "local1", "local2", "local3", "local4", "local5", "local6", "local7",
};

// Text of one group into field (size bytes); a group that took no part
// gives fallback. 0, or -1 when it does not fit.
static int group_text(const char *text, const regmatch_t &group, char *field, size_t size,
                      const char *fallback) {
  int took = group.rm_so >= 0 && group.rm_eo > group.rm_so;
  int n = took ? snprintf(field, size, "%.*s", static_cast<int>(group.rm_eo - group.rm_so),
                          text + group.rm_so)
               : snprintf(field, size, "%s", fallback);
  return n < 0 || static_cast<size_t>(n) >= size ? -1 : 0;
}

// The expression is compiled at every call and released on every path,
// the failed matches included: a compiled form left behind on a failed
// match would leak at each bad website line of every generation run.
// Nothing is checked beyond the grammar: the scheme keeps its case, an
// IPv6 host keeps its brackets, and octets and ports are not range-tested;
// the caller decides. A null text is taken as a failed match, and so is a
// text longer than any field could hold: no stored line is that long.
int parse_endpoint(const char *text, Endpoint *out) {
  regex_t expr;
  memset(&expr, 0, sizeof expr);
  if (regcomp(&expr, ENDPOINT_PATTERN, REG_EXTENDED | REG_ICASE) != 0) {
    fputs("Could not compile regex\n", stderr);
    return -1;
  }
  regmatch_t groups[ENDPOINT_GROUPS];
  memset(groups, 0, sizeof groups);
  int code = text != nullptr && strlen(text) <= ENDPOINT_TEXT_MAX
                 ? regexec(&expr, text, ENDPOINT_GROUPS, groups, 0)
                 : REG_NOMATCH;
  regfree(&expr);
  if (code == REG_NOMATCH) {
    printf("Unmatch value return value: %d\n", code);
    return -2;
  }
  if (code != 0) {
    printf("Unexpected return value: %d\n", code);
    return -3;
  }
  // The text's bound makes every group fit (the scheme group holds only
  // "http" or "https"), so a -3 here is never seen from a stored line.
  Endpoint got;
  if (group_text(text, groups[ENDPOINT_SCHEME_GROUP], got.scheme, sizeof got.scheme, "http") ||
      group_text(text, groups[ENDPOINT_HOST_GROUP], got.host, sizeof got.host, "0.0.0.0") ||
      // No default port: an empty port is the caller's to fill.
      group_text(text, groups[ENDPOINT_PORT_GROUP], got.port, sizeof got.port, ""))
    return -3;
  *out = got;
  return 0;
}

// Exact, case-sensitive names only.
int check_syslog_facility(const char *name) {
  if (name != nullptr) {
    for (const char *facility : syslog_facilities)
      if (strcmp(name, facility) == 0) return 0;
  }
  printf("Syslog facility not support: %s.\n", name != nullptr ? name : "(null)");
  return -1;
}
