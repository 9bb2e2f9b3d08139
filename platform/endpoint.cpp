// Endpoint texts: "[scheme://][host][:][port]" split by one POSIX extended
// expression, and the syslog facility names the generated proxy accepts.
#include <regex.h>

#include <cstdio>
#include <cstring>
#include <string>

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

// Text of one group; a group that took no part gives an empty text.
static std::string group_text(const char *text, const regmatch_t &group) {
  if (group.rm_so < 0 || group.rm_eo < group.rm_so) return std::string();
  return std::string(text + group.rm_so, static_cast<size_t>(group.rm_eo - group.rm_so));
}

// The expression is compiled at every call and released on every path,
// the failed matches included: a compiled form left behind on a failed
// match would leak at each bad website line of every generation run.
// Nothing is checked beyond the grammar: the scheme keeps its case, an
// IPv6 host keeps its brackets, and octets and ports are not range-tested;
// the caller decides. A null text is taken as a failed match.
int parse_endpoint(const char *text, std::string &scheme, std::string &host, std::string &port) {
  regex_t expr;
  memset(&expr, 0, sizeof expr);
  if (regcomp(&expr, ENDPOINT_PATTERN, REG_EXTENDED | REG_ICASE) != 0) {
    fputs("Could not compile regex\n", stderr);
    return -1;
  }
  regmatch_t groups[ENDPOINT_GROUPS];
  memset(groups, 0, sizeof groups);
  int code = text != nullptr ? regexec(&expr, text, ENDPOINT_GROUPS, groups, 0) : REG_NOMATCH;
  regfree(&expr);
  if (code == REG_NOMATCH) {
    printf("Unmatch value return value: %d\n", code);
    return -2;
  }
  if (code != 0) {
    printf("Unexpected return value: %d\n", code);
    return -3;
  }
  scheme = group_text(text, groups[ENDPOINT_SCHEME_GROUP]);
  if (scheme.empty()) scheme = "http";
  host = group_text(text, groups[ENDPOINT_HOST_GROUP]);
  if (host.empty()) host = "0.0.0.0";
  // No default port: an empty port is the caller's to fill.
  port = group_text(text, groups[ENDPOINT_PORT_GROUP]);
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
