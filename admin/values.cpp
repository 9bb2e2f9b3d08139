// get, set and delete of the stored sections, and the checks every value
// passes before the store is touched.
//
// Values are one line of printable ASCII, at most KEY_VALUE_SIZE - 1 bytes
// as reads return them, without '{' and '}', and never hold a section
// name: the generator finds sections by plain substring, so a name inside
// a value would later be taken for that section. fixed_key and cluster_key
// end up inside JSON strings, so '"' and '\' are refused there too, which
// with the ASCII rule keeps qsp_conf.json valid JSON in UTF-8.
// logserver, logatserver and randtime are checked by the very parsers the
// daemon reads them with, so that a value the daemon would refuse (and
// then ship nothing) never gets stored. syslog is stored as given.
#include <stdio.h>
#include <string.h>

#include "admin/admin.h"
#include "logging/logging.h"
#include "shipping/shipping.h"

#define SECTION_FRAME_SIZE 6   // "={\n" and "\n}\n" around a value

static const Section sections[] = {
    {"proxy", PARSER_PROXY},         {"logserver", PARSER_LOGSERVER},
    {"logatserver", PARSER_LOGATSERVER}, {"randtime", PARSER_RANDTIME},
    {"syslog", PARSER_SYSLOG},       {"fixed_key", PARSER_FIXED_KEY},
    {"cluster_key", PARSER_CLUSTER_KEY},
};
#define SECTION_COUNT (sizeof sections / sizeof sections[0])

const Section *find_section(const char *name) {
  for (size_t i = 0; i < SECTION_COUNT; i++)
    if (strcmp(sections[i].name, name) == 0) return &sections[i];
  return NULL;
}

static int is_key_section(const Section *s) {
  return s->id == PARSER_FIXED_KEY || s->id == PARSER_CLUSTER_KEY;
}

int check_text(const char *what, const char *text) {
  for (const char *p = text; *p != '\0'; p++) {
    unsigned char c = (unsigned char)*p;
    if (c == '\n' || c == '\r') return failure(EXIT_REFUSED, "%s must be one line", what);
    if (c < 0x20 || c >= 0x7f)
      return failure(EXIT_REFUSED, "%s must be printable ASCII (byte 0x%02x at %zu)", what, c,
                     (size_t)(p - text));
    if (c == '{' || c == '}') return failure(EXIT_REFUSED, "%s must not hold '{' or '}'", what);
  }
  for (size_t i = 0; i < SECTION_COUNT; i++)
    if (strstr(text, sections[i].name) != NULL)
      return failure(EXIT_REFUSED, "%s must not hold the section name \"%s\"", what,
                     sections[i].name);
  return 0;
}

// Largest value a section takes: the value as reads return it, or for
// proxy the website line that fits the section buffer with key and frame
// (a first line is saved as a whole section).
static size_t value_limit(const Section *s) {
  if (s->id == PARSER_PROXY) return SECTION_SIZE - 1 - SECTION_FRAME_SIZE - strlen(s->name);
  return KEY_VALUE_SIZE - 1;  // far inside the section buffer with any key
}

// The daemon's own reading of the shipping values; an empty value means
// "not set" to it and is taken as such.
static int check_setting(const Section *s, const char *value) {
  if (value[0] == '\0') return 0;
  ShipTarget target;
  int32_t rate = 0, base = 0, span = 0;
  switch (s->id) {
    case PARSER_LOGSERVER:
      if (parse_collector(value, &target, &rate) != 0)
        return failure(EXIT_REFUSED,
                       "logserver \"%s\" is not [tcp://|tls://|relp://|relp+tls://]HOST:PORT [RATE] "
                       "(PORT 1..65535, RATE records a minute 1..%d, nothing after)",
                       value, SEND_INTERVAL_MAX);
      return 0;
    case PARSER_LOGATSERVER:
      if (parse_collector(value, &target, NULL) != 0)
        return failure(EXIT_REFUSED,
                       "logatserver \"%s\" is not [tcp://|tls://|relp://|relp+tls://]HOST:PORT "
                       "(PORT 1..65535, nothing after)", value);
      return 0;
    case PARSER_RANDTIME:
      if (parse_report_hours(value, &base, &span) != 0)
        return failure(EXIT_REFUSED,
                       "randtime \"%s\" is not \"BASE SPAN\" (BASE hour 0..%d, SPAN hours)", value,
                       REPORT_HOUR_BASE_MAX);
      return 0;
    default:
      return 0;
  }
}

int check_value(const Section *s, const char *value) {
  if (check_text("the value", value) != 0) return 1;
  if (is_key_section(s) && strpbrk(value, "\"\\") != NULL)
    return failure(EXIT_REFUSED, "%s goes into a JSON string: no '\"' or '\\'", s->name);
  size_t len = strlen(value);
  if (len > value_limit(s))
    return failure(EXIT_REFUSED, "the value is %zu bytes; %s takes at most %zu", len, s->name,
                   value_limit(s));
  return check_setting(s, value);
}

int cmd_get(const Section *s) {
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(s, value, &len) != 0) return failure(EXIT_REFUSED, "%s is not stored", s->name);
  printf("%s\n", value);
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}

int cmd_set(const Section *s, const char *text) {
  int old_len = stored_length();
  if (old_len < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  int stored = read_value(s, value, &len) == 0;
  if (check_stored_size(s, old_len, stored, (size_t)len, strlen(text)) != 0) return EXIT_REFUSED;
  if (parser_save(s->id, text) != 0)
    return failure(EXIT_REFUSED, "saving %s failed (see %s)", s->name, MOX_CONF_LOG_PATH);
  if (read_value(s, value, &len) != 0 || strcmp(value, text) != 0) return store_did_not_take();
  DLOG_INFO("%s set", s->name);
  return 0;
}

int cmd_delete(const Section *s) {
  if (is_key_section(s)) return failure(EXIT_REFUSED, "%s cannot be deleted", s->name);
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(s, value, &len) != 0) return failure(EXIT_REFUSED, "%s is not stored", s->name);
  if (parser_delete(s->id, NULL) != 0)
    return failure(EXIT_REFUSED, "deleting %s failed (see %s)", s->name, MOX_CONF_LOG_PATH);
  if (stored_length() < 0) return EXIT_REFUSED;
  if (read_value(s, value, &len) == 0) return store_did_not_take();
  DLOG_INFO("%s deleted", s->name);
  return 0;
}
