// mox_conf: the operator's tool for the stored parameters and the proxy
// files generated from them. It is the one caller of the generator, so it
// is where the generator's unchecked sizes and its substring look-ups are
// guarded: every value is checked before anything is written, and the store
// is read back after each change.
//
// Decisions kept here:
// - Calls never overlap: each run holds flock(LOCK_EX) on
//   MOX_CONF_LOCK_PATH for the whole read, edit, write or generation.
// - A change does not regenerate anything; "mox_conf generate" does, and
//   the proxy is reloaded by whoever runs it.
// - The generator's diagnostics go to MOX_CONF_LOG_PATH, a file apart from
//   the daemon's; its verbosity is the key "mox_conf" of the settings file.
// - Values are one line of printable text, at most KEY_VALUE_SIZE - 1
//   bytes as reads return them, without '{' and '}', and never
//   hold a section name: the generator finds sections by plain substring,
//   so a name inside a value would later be taken for that section.
//   fixed_key and cluster_key end up inside JSON strings, so '"' and '\'
//   are refused there too. logserver, logatserver, randtime and syslog are
//   stored as given under those rules: their form is their reader's to
//   check (the daemon's sender reads the first three at start and on SIGHUP).
// - Website names are letters, digits, '.', '_' and '-' (they become nginx
//   upstream names); both endpoints need a port 1..65535; the only option is
//   --protect=on|off|monitor. Whether an address belongs to this device is
//   left to generation, since an address may come up later.
// - Generating nginx rewrites website_upstreams.conf from scratch, so a
//   removed last website, or websites the generator leaves out, are gone
//   from it, and the file always exists for nginx's include. Websites left
//   out make the run fail with a count. With no proxy section stored only
//   nginx.conf is built from the template.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"
#include "store/store.h"

#define MOX_DIR "/tmp/mox"
#define MOX_CONF_LOCK_PATH "/tmp/mox/mox_conf.lock"
#define MOX_CONF_LOG_PATH "/tmp/mox/log/mox_conf.log"
#define MOX_CONF_LOG_NAME "mox_conf"

#define EXIT_REFUSED 1
#define EXIT_USAGE 2

#define SECTION_FRAME_SIZE 6                   // "={\n" and "\n}\n" around a value
#define VALUE_BUFFER_SIZE (STORED_TEXT_SIZE + 1)  // parser_get takes no size: room for all
#define PORT_TEXT_SIZE 16
#define WEBSITE_BLOCK_START "upstream upstream_"

static const char usage_text[] =
    "usage: mox_conf get SECTION\n"
    "       mox_conf set SECTION VALUE\n"
    "       mox_conf delete SECTION\n"
    "       mox_conf proxy list\n"
    "       mox_conf proxy add \"NAME SERVER UPSTREAM [--protect=on|off|monitor]\"\n"
    "       mox_conf proxy remove NAME\n"
    "       mox_conf generate nginx|qsp|all\n"
    "       mox_conf --help\n"
    "\n"
    "Edits the stored parameters and generates the proxy's files from them.\n"
    "SECTION is one of: proxy logserver logatserver randtime syslog fixed_key cluster_key\n"
    "\n"
    "  get SECTION       print the stored value (exit 1 when it is not stored)\n"
    "  set SECTION VALUE store VALUE, replacing the old one; websites use proxy add\n"
    "  delete SECTION    remove the section (delete proxy removes every website);\n"
    "                    fixed_key and cluster_key cannot be deleted\n"
    "  proxy list        print the stored websites, one line each\n"
    "  proxy add LINE    store one website; a website of the same NAME is replaced\n"
    "                    NAME: letters, digits, '.', '_', '-'\n"
    "                    SERVER, UPSTREAM: [http://|https://]ADDRESS:PORT, an IPv4\n"
    "                    address or [IPv6] address; both must be addresses of this\n"
    "                    device when generating (https on SERVER turns ssl on)\n"
    "                    --protect: on (default), off, or monitor (learning mode)\n"
    "  proxy remove NAME remove the website NAME\n"
    "  generate nginx    write nginx.conf and website_upstreams.conf\n"
    "  generate qsp      write qsp_conf.json\n"
    "  generate all      both\n"
    "\n"
    "Websites and keys take effect only after \"mox_conf generate\" and a reload\n"
    "of nginx: set, delete and proxy add/remove never regenerate by themselves.\n"
    "logserver, logatserver and randtime are read by mox_logd, at start and on\n"
    "SIGHUP; mox_conf stores them as given.\n"
    "Templates are read from /tmp/mox/release; generated files are written there.\n"
    "Values are one line of at most 127 bytes of printable text without '{',\n"
    "'}' or a section name; fixed_key and cluster_key hold no '\"' or '\\' either.\n"
    "Diagnostics of the generator: /tmp/mox/log/mox_conf.log.\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 bad usage.\n";

struct Section {
  const char *name;
  int id;
};

static const Section sections[] = {
    {"proxy", PARSER_PROXY},         {"logserver", PARSER_LOGSERVER},
    {"logatserver", PARSER_LOGATSERVER}, {"randtime", PARSER_RANDTIME},
    {"syslog", PARSER_SYSLOG},       {"fixed_key", PARSER_FIXED_KEY},
    {"cluster_key", PARSER_CLUSTER_KEY},
};
#define SECTION_COUNT (sizeof sections / sizeof sections[0])

static int failure(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Prints "mox_conf: <reason>" on stderr and gives code back.
static int failure(int code, const char *fmt, ...) {
  char reason[SECTION_SIZE + 256];
  memset(reason, 0, sizeof reason);
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(reason, sizeof reason, fmt, ap);  // a cut reason is still a reason
  va_end(ap);
  fprintf(stderr, "mox_conf: %s\n", reason);
  return code;
}

static int bad_usage(const char *what) {
  return failure(EXIT_USAGE, "%s (see mox_conf --help)", what);
}

static const Section *find_section(const char *name) {
  for (size_t i = 0; i < SECTION_COUNT; i++)
    if (strcmp(sections[i].name, name) == 0) return &sections[i];
  return NULL;
}

static int is_key_section(const Section *s) {
  return s->id == PARSER_FIXED_KEY || s->id == PARSER_CLUSTER_KEY;
}

// ---- checks made before anything is touched ----------------------------------

// 0 when text is one printable line that the stored text can frame and
// the generator can find sections around; otherwise prints why, 1.
static int check_text(const char *what, const char *text) {
  for (const char *p = text; *p != '\0'; p++) {
    unsigned char c = (unsigned char)*p;
    if (c == '\n' || c == '\r') return failure(EXIT_REFUSED, "%s must be one line", what);
    if (c < 0x20 || c == 0x7f)
      return failure(EXIT_REFUSED, "%s must not hold control characters", what);
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

static int check_value(const Section *s, const char *value) {
  if (check_text("the value", value) != 0) return 1;
  if (is_key_section(s) && strpbrk(value, "\"\\") != NULL)
    return failure(EXIT_REFUSED, "%s goes into a JSON string: no '\"' or '\\'", s->name);
  size_t len = strlen(value);
  if (len > value_limit(s))
    return failure(EXIT_REFUSED, "the value is %zu bytes; %s takes at most %zu", len, s->name,
                   value_limit(s));
  return 0;
}

static int is_name_char(int c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '.' || c == '_' || c == '-';
}

// parse_endpoint reports a mismatch on stdout, which carries get and list
// output here: stdout points at /dev/null during the call.
static int parse_endpoint_quietly(const char *text, std::string &scheme, std::string &host,
                                  std::string &port) {
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  int muted = saved >= 0 && null_fd >= 0 && dup2(null_fd, STDOUT_FILENO) >= 0;
  int rc = parse_endpoint(text, scheme, host, port);
  fflush(stdout);
  if (muted) dup2(saved, STDOUT_FILENO);
  if (saved >= 0) close(saved);
  if (null_fd >= 0) close(null_fd);
  return rc;
}

static int check_endpoint(const char *field, const char *text) {
  std::string scheme, host, port;
  if (parse_endpoint_quietly(text, scheme, host, port) != 0)
    return failure(EXIT_REFUSED, "%s \"%s\" is not [http://|https://]ADDRESS:PORT", field, text);
  if (port.empty()) return failure(EXIT_REFUSED, "%s \"%s\" has no port", field, text);
  // normalize_port rewrites its text: it gets a copy.
  char digits[PORT_TEXT_SIZE];
  memset(digits, 0, sizeof digits);
  if (port.size() < sizeof digits) memcpy(digits, port.c_str(), port.size());
  if (digits[0] == '\0' || normalize_port(digits) != 0)
    return failure(EXIT_REFUSED, "%s \"%s\": the port must be 1..65535", field, text);
  return 0;
}

// 0 when line is a website line the generator turns into blocks; its name
// (the text before the first space) is copied to name, of name_size bytes.
static int check_proxy_line(const char *line, char *name, size_t name_size) {
  if (check_text("the website line", line) != 0) return 1;
  size_t len = strlen(line);
  size_t limit = value_limit(find_section("proxy"));
  if (len > limit)
    return failure(EXIT_REFUSED, "the website line is %zu bytes; at most %zu", len, limit);

  // Fields are cut at single spaces, as the generator cuts them.
  char copy[SECTION_SIZE];
  memset(copy, 0, sizeof copy);
  memcpy(copy, line, len);
  char *fields[SECTION_SIZE];
  int count = 0;
  fields[count++] = copy;
  for (char *p = copy; *p != '\0'; p++) {
    if (*p != ' ') continue;
    *p = '\0';
    fields[count++] = p + 1;
  }
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
  for (int i = 3; i < count; i++) {
    if (strcmp(fields[i], "--protect=on") != 0 && strcmp(fields[i], "--protect=off") != 0 &&
        strcmp(fields[i], "--protect=monitor") != 0)
      return failure(EXIT_REFUSED, "unknown option \"%s\" (--protect=on|off|monitor)", fields[i]);
  }
  if (strlen(fields[0]) >= name_size) return failure(EXIT_REFUSED, "the website name is too long");
  memcpy(name, fields[0], strlen(fields[0]) + 1);
  return 0;
}

// ---- the store ----------------------------------------------------------------

// Length of the stored text, or -1 (reported) when the store does not read.
static int stored_length(void) {
  char text[VALUE_BUFFER_SIZE];
  memset(text, 0, sizeof text);
  int length = STORED_TEXT_SIZE;
  if (sec_read_conf(text, &length) != 0 || length < 0) {
    failure(EXIT_REFUSED, "the stored parameters cannot be read (see %s)", MOX_CONF_LOG_PATH);
    return -1;
  }
  return length;
}

// The section's value into value (VALUE_BUFFER_SIZE, zero-filled here);
// 0 when stored, -1 when not.
static int read_value(const Section *s, char *value, int *len) {
  memset(value, 0, VALUE_BUFFER_SIZE);
  *len = 0;
  return parser_get(s->id, value, len) == 0 ? 0 : -1;
}

// The line of value whose name (text before its first space) is name:
// its start, with its length in *line_len; NULL when there is none.
static const char *find_website(const char *value, const char *name, size_t *line_len) {
  size_t name_len = strlen(name);
  for (const char *line = value; *line != '\0';) {
    const char *end = strchr(line, '\n');
    size_t len = end != NULL ? (size_t)(end - line) : strlen(line);
    if (len > name_len && line[name_len] == ' ' && memcmp(line, name, name_len) == 0 &&
        name_len > 0) {
      *line_len = len;
      return line;
    }
    if (end == NULL) break;
    line = end + 1;
  }
  return NULL;
}

static int count_lines(const char *text) {
  int count = 0;
  for (const char *line = text; *line != '\0';) {
    const char *end = strchr(line, '\n');
    if (end != line) count++;
    if (end == NULL) break;
    line = end + 1;
  }
  return count;
}

// 0 when the stored text, with a section of old_value_len replaced by one
// of new_value_len, still fits the buffers that read it. One byte of slack
// covers the empty proxy section, which is a byte shorter than its frame.
static int check_stored_size(const Section *s, int old_len, int stored, size_t old_value_len,
                             size_t new_value_len) {
  size_t frame = strlen(s->name) + SECTION_FRAME_SIZE;
  size_t before = stored ? frame + old_value_len : 0;
  if (before > (size_t)old_len) before = (size_t)old_len;
  size_t after = (size_t)old_len - before + frame + new_value_len + 1;
  if (after > STORED_TEXT_SIZE)
    return failure(EXIT_REFUSED, "the stored parameters would grow to %zu bytes; at most %d",
                   after, STORED_TEXT_SIZE);
  return 0;
}

static int store_did_not_take(void) {
  return failure(EXIT_REFUSED, "the store did not take the change (see %s)", MOX_CONF_LOG_PATH);
}

// ---- commands -------------------------------------------------------------------

static int cmd_get(const Section *s) {
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(s, value, &len) != 0) return failure(EXIT_REFUSED, "%s is not stored", s->name);
  printf("%s\n", value);
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}

static int cmd_set(const Section *s, const char *text) {
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

static int cmd_delete(const Section *s) {
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

static int cmd_proxy_list(void) {
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(find_section("proxy"), value, &len) != 0) return 0;  // no websites
  for (const char *line = value; *line != '\0';) {
    const char *end = strchr(line, '\n');
    size_t n = end != NULL ? (size_t)(end - line) : strlen(line);
    if (n > 0) printf("%.*s\n", (int)n, line);
    if (end == NULL) break;
    line = end + 1;
  }
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}

static int cmd_proxy_add(const char *line, const char *name) {
  const Section *s = find_section("proxy");
  int old_len = stored_length();
  if (old_len < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  int stored = read_value(s, value, &len) == 0;

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

static int cmd_proxy_remove(const char *name) {
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

// Blocks of website_upstreams.conf, counted by their first line.
static int count_website_blocks(void) {
  char text[STORED_TEXT_SIZE + 1];
  memset(text, 0, sizeof text);
  ssize_t got = read_file(WEBSITES_CONF_PATH, text, STORED_TEXT_SIZE);
  if (got <= 0) return 0;
  int count = 0;
  size_t start_len = strlen(WEBSITE_BLOCK_START);
  for (const char *line = text; *line != '\0';) {
    if (strncmp(line, WEBSITE_BLOCK_START, start_len) == 0) count++;
    const char *end = strchr(line, '\n');
    if (end == NULL) break;
    line = end + 1;
  }
  return count;
}

static int generate_nginx(void) {
  if (stored_length() < 0) return EXIT_REFUSED;
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  int stored = read_value(find_section("proxy"), value, &len) == 0;
  // The generator leaves this file alone when it has nothing for it:
  // start it empty so that it holds exactly what this run produces.
  if (write_file(WEBSITES_CONF_PATH, "", 0) != 0)
    return failure(EXIT_REFUSED, "cannot write %s", WEBSITES_CONF_PATH);
  if (stored)
    parser_generate(0);
  else
    generate_data(DATA_NGINX, nginx_para_ids);  // no websites: nothing else to build

  int wanted = stored ? count_lines(value) : 0;
  int made = count_website_blocks();
  if (made < wanted)
    return failure(EXIT_REFUSED,
                   "%d of %d websites left out of %s (address not of this device? see %s)",
                   wanted - made, wanted, WEBSITES_CONF_PATH, MOX_CONF_LOG_PATH);
  return 0;
}

static int cmd_generate(const char *which) {
  int nginx = strcmp(which, "nginx") == 0 || strcmp(which, "all") == 0;
  int qsp = strcmp(which, "qsp") == 0 || strcmp(which, "all") == 0;
  if (nginx && !file_exists(NGINX_TEMPLATE_PATH))
    return failure(EXIT_REFUSED, "template %s is missing", NGINX_TEMPLATE_PATH);
  if (qsp && !file_exists(QSP_TEMPLATE_PATH))
    return failure(EXIT_REFUSED, "template %s is missing", QSP_TEMPLATE_PATH);
  int rc = 0;
  if (nginx) rc = generate_nginx();
  if (qsp) parser_generate(1);
  if (rc == 0) DLOG_INFO("generated %s", which);
  return rc;
}

// ---- set-up -----------------------------------------------------------------------

// Holds the tool's lock until the process ends. 0, or 1 reported.
static int take_lock(void) {
  if (mkdir(MOX_DIR, 0755) != 0 && errno != EEXIST)
    return failure(EXIT_REFUSED, "cannot make %s: %s", MOX_DIR, strerror(errno));
  int fd = open(MOX_CONF_LOCK_PATH, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return failure(EXIT_REFUSED, "cannot open %s: %s", MOX_CONF_LOCK_PATH, strerror(errno));
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR)
      return failure(EXIT_REFUSED, "cannot lock %s: %s", MOX_CONF_LOCK_PATH, strerror(errno));
  }
  return 0;  // fd stays open: the lock lasts as long as the process
}

enum Command { CMD_GET, CMD_SET, CMD_DELETE, CMD_LIST, CMD_ADD, CMD_REMOVE, CMD_GENERATE };

// Turns the arguments into a command; 0, or EXIT_USAGE reported.
static int parse_command(int argc, char **argv, Command *cmd) {
  const char *verb = argv[1];
  int args = argc - 2;
  if (strcmp(verb, "get") == 0 || strcmp(verb, "delete") == 0) {
    if (args != 1) return bad_usage("expected: mox_conf get|delete SECTION");
    *cmd = verb[0] == 'g' ? CMD_GET : CMD_DELETE;
    return 0;
  }
  if (strcmp(verb, "set") == 0) {
    if (args != 2) return bad_usage("expected: mox_conf set SECTION VALUE (quote the value)");
    *cmd = CMD_SET;
    return 0;
  }
  if (strcmp(verb, "generate") == 0) {
    if (args != 1 || (strcmp(argv[2], "nginx") != 0 && strcmp(argv[2], "qsp") != 0 &&
                      strcmp(argv[2], "all") != 0))
      return bad_usage("expected: mox_conf generate nginx|qsp|all");
    *cmd = CMD_GENERATE;
    return 0;
  }
  if (strcmp(verb, "proxy") == 0) {
    if (args == 1 && strcmp(argv[2], "list") == 0) {
      *cmd = CMD_LIST;
      return 0;
    }
    if (args == 2 && strcmp(argv[2], "add") == 0) {
      *cmd = CMD_ADD;
      return 0;
    }
    if (args == 2 && strcmp(argv[2], "remove") == 0) {
      *cmd = CMD_REMOVE;
      return 0;
    }
    return bad_usage("expected: mox_conf proxy list | proxy add \"LINE\" | proxy remove NAME");
  }
  return bad_usage("unknown command");
}

int main(int argc, char **argv) {
  if (argc < 2) return bad_usage("no command");
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    fputs(usage_text, stdout);
    return 0;
  }
  Command cmd = CMD_GET;
  if (parse_command(argc, argv, &cmd) != 0) return EXIT_USAGE;

  // Everything that can be refused without the store is refused here.
  const Section *s = NULL;
  char name[SECTION_SIZE];
  memset(name, 0, sizeof name);
  if (cmd == CMD_GET || cmd == CMD_SET || cmd == CMD_DELETE) {
    s = find_section(argv[2]);
    if (s == NULL) return failure(EXIT_REFUSED, "unknown section \"%s\"", argv[2]);
    if (cmd == CMD_SET && s->id == PARSER_PROXY)
      return failure(EXIT_REFUSED, "websites are stored with: mox_conf proxy add \"LINE\"");
    if (cmd == CMD_SET && check_value(s, argv[3]) != 0) return EXIT_REFUSED;
    if (cmd == CMD_DELETE && is_key_section(s))
      return failure(EXIT_REFUSED, "%s cannot be deleted", s->name);
  }
  if (cmd == CMD_ADD && check_proxy_line(argv[3], name, sizeof name) != 0) return EXIT_REFUSED;

  if (take_lock() != 0) return EXIT_REFUSED;
  log_init(MOX_CONF_LOG_PATH, MOX_CONF_LOG_NAME, LOG_MASK_FILE);

  switch (cmd) {
    case CMD_GET: return cmd_get(s);
    case CMD_SET: return cmd_set(s, argv[3]);
    case CMD_DELETE: return cmd_delete(s);
    case CMD_LIST: return cmd_proxy_list();
    case CMD_ADD: return cmd_proxy_add(argv[3], name);
    case CMD_REMOVE: return cmd_proxy_remove(argv[3]);
    case CMD_GENERATE: return cmd_generate(argv[2]);
  }
  return EXIT_USAGE;
}
