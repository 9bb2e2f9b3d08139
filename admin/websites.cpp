// proxy list, add and remove: the websites of the stored "proxy" section,
// one line each.
//
// Website names are letters, digits, '.', '_' and '-' (they become nginx
// upstream names); both endpoints need a port 1..65535; the only option is
// --protect=on|off|monitor. Two websites may not listen on the same
// address and port, and none on ADMIN_PORT: nginx would give all of that
// traffic to one server block and ignore the other. Whether an address
// belongs to this device is left to generation, since an address may come
// up later.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "admin/admin.h"
#include "logging/logging.h"
#include "platform/platform.h"

#define PORT_TEXT_SIZE 16
#define LISTENER_TEXT_SIZE 80   // "[v6 address]:port", canonical

static int is_name_char(int c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '.' || c == '_' || c == '-';
}

// parse_endpoint reports a mismatch on stdout, which carries get and list
// output here: stdout points at /dev/null during the call.
static int parse_endpoint_quietly(const char *text, Endpoint *end) {
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  int muted = saved >= 0 && null_fd >= 0 && dup2(null_fd, STDOUT_FILENO) >= 0;
  int rc = parse_endpoint(text, end);
  fflush(stdout);
  if (muted) dup2(saved, STDOUT_FILENO);
  if (saved >= 0) close(saved);
  if (null_fd >= 0) close(null_fd);
  return rc;
}

// The canonical "address:port" of an endpoint into out (LISTENER_TEXT_SIZE),
// and its port number; 0, or -1 when it does not parse.
static int listener_of(const char *endpoint, char *out, int *port_number) {
  Endpoint end;
  memset(out, 0, LISTENER_TEXT_SIZE);
  if (parse_endpoint_quietly(endpoint, &end) != 0 || end.port[0] == '\0') return -1;
  char address[LISTENER_TEXT_SIZE];
  char digits[PORT_TEXT_SIZE];
  memset(address, 0, sizeof address);
  memset(digits, 0, sizeof digits);
  size_t host_len = strlen(end.host), port_len = strlen(end.port);
  if (host_len >= sizeof address || port_len >= sizeof digits) return -1;
  memcpy(address, end.host, host_len);
  memcpy(digits, end.port, port_len);
  // normalize_* rewrite their text in place: the copies take it.
  if (normalize_ip(address) != 0 || normalize_port(digits) != 0) return -1;
  int n = snprintf(out, LISTENER_TEXT_SIZE, "%s:%s", address, digits);
  if (n < 0 || n >= LISTENER_TEXT_SIZE) return -1;
  if (sscanf(digits, "%d", port_number) != 1) return -1;
  return 0;
}

static int check_endpoint(const char *field, const char *text) {
  Endpoint end;
  if (parse_endpoint_quietly(text, &end) != 0)
    return failure(EXIT_REFUSED, "%s \"%s\" is not [http://|https://]ADDRESS:PORT", field, text);
  if (end.port[0] == '\0') return failure(EXIT_REFUSED, "%s \"%s\" has no port", field, text);
  char listener[LISTENER_TEXT_SIZE];
  int number = 0;
  if (listener_of(text, listener, &number) != 0)
    return failure(EXIT_REFUSED, "%s \"%s\": the port must be 1..65535", field, text);
  return 0;
}

// Cuts a copy of line (SECTION_SIZE) at single spaces, as the generator
// cuts it; the field count.
static int split_fields(const char *line, char *copy, char **fields) {
  memset(copy, 0, SECTION_SIZE);
  size_t len = strlen(line);
  if (len >= SECTION_SIZE) len = SECTION_SIZE - 1;
  memcpy(copy, line, len);
  int count = 0;
  fields[count++] = copy;
  for (char *p = copy; *p != '\0'; p++) {
    if (*p != ' ') continue;
    *p = '\0';
    fields[count++] = p + 1;
  }
  return count;
}

int check_proxy_line(const char *line, char *name, size_t name_size) {
  if (check_text("the website line", line) != 0) return 1;
  size_t len = strlen(line);
  size_t limit = SECTION_SIZE - 1 - 6 - strlen("proxy");  // a first line is a whole section
  if (len > limit)
    return failure(EXIT_REFUSED, "the website line is %zu bytes; at most %zu", len, limit);

  char copy[SECTION_SIZE];
  char *fields[SECTION_SIZE];
  int count = split_fields(line, copy, fields);
  if (fields[0][0] == '\0') return failure(EXIT_REFUSED, "the website name is empty");
  if (count < 3)
    return failure(EXIT_REFUSED,
                   "a website line is \"NAME SERVER UPSTREAM [--protect=on|off|monitor]\"");
  for (int i = 1; i < count; i++)
    if (fields[i][0] == '\0')
      return failure(EXIT_REFUSED, "empty field in the website line (one space between fields)");
  for (const char *p = fields[0]; *p != '\0'; p++)
    if (!is_name_char((unsigned char)*p))
      return failure(EXIT_REFUSED, "website name \"%s\": only letters, digits, '.', '_', '-'",
                     fields[0]);
  if (check_endpoint("SERVER", fields[1]) != 0) return 1;
  if (check_endpoint("UPSTREAM", fields[2]) != 0) return 1;
  char listener[LISTENER_TEXT_SIZE];
  int port = 0;
  if (listener_of(fields[1], listener, &port) == 0 && port == ADMIN_PORT)
    return failure(EXIT_REFUSED, "SERVER \"%s\": port %d is the proxy's own listener", fields[1],
                   ADMIN_PORT);
  for (int i = 3; i < count; i++) {
    if (strcmp(fields[i], "--protect=on") != 0 && strcmp(fields[i], "--protect=off") != 0 &&
        strcmp(fields[i], "--protect=monitor") != 0)
      return failure(EXIT_REFUSED, "unknown option \"%s\" (--protect=on|off|monitor)", fields[i]);
  }
  if (strlen(fields[0]) >= name_size) return failure(EXIT_REFUSED, "the website name is too long");
  memcpy(name, fields[0], strlen(fields[0]) + 1);
  return 0;
}

// Calls visit(line, length, arg) for each non-empty line of value; stops
// at and gives the first non-zero result.
template <typename Visit>
static int each_line(const char *value, Visit visit) {
  for (const char *line = value; *line != '\0';) {
    const char *end = strchr(line, '\n');
    size_t len = end != NULL ? (size_t)(end - line) : strlen(line);
    if (len > 0) {
      int rc = visit(line, len);
      if (rc != 0) return rc;
    }
    if (end == NULL) break;
    line = end + 1;
  }
  return 0;
}

// 1 when the line of len bytes is the website name.
static int names(const char *line, size_t len, const char *name) {
  size_t name_len = strlen(name);
  return name_len > 0 && len > name_len && line[name_len] == ' ' &&
         memcmp(line, name, name_len) == 0;
}

// The line of value whose name is name: its start, with its length in
// *line_len; NULL when there is none.
static const char *find_website(const char *value, const char *name, size_t *line_len) {
  const char *found = NULL;
  each_line(value, [&](const char *line, size_t len) {
    if (!names(line, len, name)) return 0;
    found = line;
    *line_len = len;
    return 1;
  });
  return found;
}

// The other website (not named name) that listens where line's SERVER
// does, into other (SECTION_SIZE); 1 when there is one.
static int listener_taken(const char *value, const char *line, const char *name, char *other) {
  char copy[SECTION_SIZE];
  char *fields[SECTION_SIZE];
  char mine[LISTENER_TEXT_SIZE];
  int port = 0;
  if (split_fields(line, copy, fields) < 2 || listener_of(fields[1], mine, &port) != 0) return 0;
  return each_line(value, [&](const char *stored, size_t len) {
    if (names(stored, len, name) || len >= SECTION_SIZE) return 0;
    char text[SECTION_SIZE];
    memset(text, 0, sizeof text);
    memcpy(text, stored, len);
    char theirs_copy[SECTION_SIZE];
    char *theirs[SECTION_SIZE];
    char listener[LISTENER_TEXT_SIZE];
    if (split_fields(text, theirs_copy, theirs) < 2 ||
        listener_of(theirs[1], listener, &port) != 0 || strcmp(listener, mine) != 0)
      return 0;
    memcpy(other, theirs[0], strlen(theirs[0]) + 1);
    return 1;
  });
}

int cmd_proxy_list(void) {
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(find_section("proxy"), value, &len) != 0) return 0;  // no websites
  each_line(value, [](const char *line, size_t n) {
    printf("%.*s\n", (int)n, line);
    return 0;
  });
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}

int cmd_proxy_add(const char *line, const char *name) {
  const Section *s = find_section("proxy");
  int old_len = stored_length();
  if (old_len < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  int stored = read_value(s, value, &len) == 0;

  char other[SECTION_SIZE];
  memset(other, 0, sizeof other);
  if (stored && listener_taken(value, line, name, other))
    return failure(EXIT_REFUSED, "website %s already listens on that address and port", other);

  size_t old_line_len = 0;
  size_t new_len;
  if (stored && find_website(value, name, &old_line_len) != NULL)
    new_len = (size_t)len - old_line_len + strlen(line);
  else
    new_len = (size_t)len + (len > 0 ? 1 : 0) + strlen(line);
  if (new_len > PROXY_VALUE_SIZE - 1)
    return failure(EXIT_REFUSED, "the websites would take %zu bytes; at most %d", new_len,
                   PROXY_VALUE_SIZE - 1);
  if (check_stored_size(s, old_len, stored, (size_t)len, new_len) != 0) return EXIT_REFUSED;

  if (parser_save(PARSER_PROXY, line) != 0)
    return failure(EXIT_REFUSED, "saving website %s failed (see %s)", name, MOX_CONF_LOG_PATH);
  size_t got_len = 0;
  const char *got = read_value(s, value, &len) == 0 ? find_website(value, name, &got_len) : NULL;
  if (got == NULL || got_len != strlen(line) || memcmp(got, line, got_len) != 0)
    return store_did_not_take();
  DLOG_INFO("website %s stored", name);
  return 0;
}

int cmd_proxy_remove(const char *name) {
  const Section *s = find_section("proxy");
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  size_t line_len = 0;
  if (read_value(s, value, &len) != 0 || strchr(name, ' ') != NULL ||
      find_website(value, name, &line_len) == NULL)
    return failure(EXIT_REFUSED, "no website named \"%s\"", name);
  if (parser_delete(PARSER_PROXY, name) != 0)
    return failure(EXIT_REFUSED, "removing website %s failed (see %s)", name, MOX_CONF_LOG_PATH);
  if (read_value(s, value, &len) != 0 || find_website(value, name, &line_len) != NULL)
    return store_did_not_take();
  DLOG_INFO("website %s removed", name);
  return 0;
}
