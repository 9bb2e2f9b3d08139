// mox_conf: the operator's tool for the stored parameters, the proxy files
// generated from them, the store's recovery and the release package. main
// only parses, takes the lock and dispatches; each group of commands has
// its file in this folder.
//
// Decisions kept here:
// - Calls never overlap: each run holds flock(LOCK_EX) on
//   MOX_CONF_LOCK_PATH for the whole read, edit, write or generation.
// - A change does not regenerate anything; "mox_conf generate" does, and
//   the proxy is reloaded by whoever runs it.
// - The generator's diagnostics go to MOX_CONF_LOG_PATH, a file apart from
//   the daemon's; its verbosity is the key "mox_conf" of the settings file.
// - Exit status 0 means everything asked for was done; 1 refused or
//   failed, with one "mox_conf: ..." line on stderr; 2 bad usage.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "admin/admin.h"
#include "logging/logging.h"
#include "shipping/shipping.h"

#define MOX_DIR "/tmp/mox"
#define MOX_CONF_LOCK_PATH "/tmp/mox/mox_conf.lock"
#define MOX_CONF_LOG_NAME "mox_conf"
#define REASON_SIZE (SECTION_SIZE + 256)

static const char usage_text[] =
    "usage: mox_conf get SECTION\n"
    "       mox_conf set SECTION VALUE\n"
    "       mox_conf delete SECTION\n"
    "       mox_conf proxy list\n"
    "       mox_conf proxy add \"NAME SERVER UPSTREAM [--protect=on|off|monitor]\"\n"
    "       mox_conf proxy remove NAME\n"
    "       mox_conf generate nginx|qsp|all\n"
    "       mox_conf store check|reset\n"
    "       mox_conf release verify|install [FILE]\n"
    "       mox_conf status\n"
    "       mox_conf --help | --version\n"
    "\n"
    "Edits the stored parameters and generates the proxy's files from them.\n"
    "SECTION is one of: proxy logserver logatserver randtime syslog fixed_key cluster_key\n"
    "\n"
    "  get SECTION       print the stored value (exit 1 when it is not stored)\n"
    "  set SECTION VALUE store VALUE, replacing the old one; websites use proxy add\n"
    "                    logserver:   [SCHEME://]HOST:PORT [RATE records/minute]\n"
    "                    logatserver: [SCHEME://]HOST:PORT\n"
    "                    SCHEME: tcp (without one), tls, relp, relp+tls; tls and\n"
    "                    relp+tls trust " SHIP_CA_FILE "\n"
    "                    randtime:    BASE SPAN (report hour BASE 0..23, spread SPAN)\n"
    "  delete SECTION    remove the section (delete proxy removes every website);\n"
    "                    fixed_key and cluster_key cannot be deleted\n"
    "  proxy list        print the stored websites, one line each\n"
    "  proxy add LINE    store one website; a website of the same NAME is replaced\n"
    "                    NAME: letters, digits, '.', '_', '-'\n"
    "                    SERVER, UPSTREAM: [http://|https://]ADDRESS:PORT, an IPv4\n"
    "                    address or [IPv6] address; both must be addresses of this\n"
    "                    device when generating (https on SERVER turns ssl on);\n"
    "                    one website per SERVER address and port, and port 8088\n"
    "                    is the proxy's own\n"
    "                    --protect: on (default), off, or monitor (learning mode)\n"
    "  proxy remove NAME remove the website NAME\n"
    "  generate nginx    write nginx.conf and website_upstreams.conf\n"
    "  generate qsp      write qsp_conf.json\n"
    "  generate all      all three\n"
    "  store check       say whether the stored parameters read, and if not why\n"
    "  store reset       keep a store that does not read aside as mox_conf.dat.bad\n"
    "                    and start an empty one (then set the keys and values again)\n"
    "  release verify    check the release package carried by this program, or FILE\n"
    "  release install   verify it and unpack it into /tmp/mox/release, replacing\n"
    "                    the folder as a whole (generated files are kept)\n"
    "  status            what mox_logd has done since it started (its status file,\n"
    "                    rewritten every period); exit 1 when it does not run\n"
    "\n"
    "Websites and keys take effect only after \"mox_conf generate\" and a reload\n"
    "of nginx: set, delete and proxy add/remove never regenerate by themselves.\n"
    "Generated files are written whole or not at all, and only from a store that\n"
    "reads. logserver, logatserver and randtime are read by mox_logd at start and\n"
    "on SIGHUP; set refuses what it would refuse.\n"
    "Templates are read from /tmp/mox/release; generated files are written there.\n"
    "Values are one line of at most 127 bytes of printable ASCII without '{',\n"
    "'}' or a section name; fixed_key and cluster_key hold no '\"' or '\\' either.\n"
    "Diagnostics: /tmp/mox/log/mox_conf.log.\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed (nothing claimed), 2 bad usage.\n";

int failure(int code, const char *fmt, ...) {
  char reason[REASON_SIZE];
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

// Holds the tool's lock until the process ends. 0, or 1 reported.
static int take_lock(void) {
  if (mkdir(MOX_DIR, 0755) != 0 && errno != EEXIST)
    return failure(EXIT_REFUSED, "cannot make %s: %s", MOX_DIR, strerror(errno));
  int fd = open(MOX_CONF_LOCK_PATH, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return failure(EXIT_REFUSED, "cannot open %s: %s", MOX_CONF_LOCK_PATH, strerror(errno));
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR)
      return failure(EXIT_REFUSED, "cannot lock %s: %s", MOX_CONF_LOCK_PATH, strerror(errno));
  }
  return 0;  // fd stays open: the lock lasts as long as the process
}

enum Command {
  CMD_GET, CMD_SET, CMD_DELETE, CMD_LIST, CMD_ADD, CMD_REMOVE, CMD_GENERATE,
  CMD_STORE_CHECK, CMD_STORE_RESET, CMD_RELEASE_VERIFY, CMD_RELEASE_INSTALL, CMD_STATUS,
};

struct Verb {
  const char *word;      // argv[1]
  const char *object;    // argv[2], or null when argv[2] is free
  int min_args, max_args;  // after argv[1]
  Command cmd;
  const char *usage;
};

static const Verb verbs[] = {
    {"get", NULL, 1, 1, CMD_GET, "mox_conf get SECTION"},
    {"set", NULL, 2, 2, CMD_SET, "mox_conf set SECTION VALUE (quote the value)"},
    {"delete", NULL, 1, 1, CMD_DELETE, "mox_conf delete SECTION"},
    {"proxy", "list", 1, 1, CMD_LIST,
     "mox_conf proxy list | proxy add \"LINE\" | proxy remove NAME"},
    {"proxy", "add", 2, 2, CMD_ADD, NULL},
    {"proxy", "remove", 2, 2, CMD_REMOVE, NULL},
    {"generate", "nginx", 1, 1, CMD_GENERATE, "mox_conf generate nginx|qsp|all"},
    {"generate", "qsp", 1, 1, CMD_GENERATE, NULL},
    {"generate", "all", 1, 1, CMD_GENERATE, NULL},
    {"store", "check", 1, 1, CMD_STORE_CHECK, "mox_conf store check|reset"},
    {"store", "reset", 1, 1, CMD_STORE_RESET, NULL},
    {"release", "verify", 1, 2, CMD_RELEASE_VERIFY, "mox_conf release verify|install [FILE]"},
    {"release", "install", 1, 2, CMD_RELEASE_INSTALL, NULL},
    {"status", NULL, 0, 0, CMD_STATUS, "mox_conf status"},
};
#define VERB_COUNT (sizeof verbs / sizeof verbs[0])

// Turns the arguments into a command; 0, or EXIT_USAGE reported.
static int parse_command(int argc, char **argv, Command *cmd) {
  int args = argc - 2;
  const char *usage = NULL;
  for (size_t i = 0; i < VERB_COUNT; i++) {
    const Verb *v = &verbs[i];
    if (strcmp(v->word, argv[1]) != 0) continue;
    if (usage == NULL) usage = v->usage;  // the verb's first entry says it all
    if (args < v->min_args || args > v->max_args) continue;
    if (v->object != NULL && strcmp(v->object, argv[2]) != 0) continue;
    *cmd = v->cmd;
    return 0;
  }
  if (usage == NULL) return bad_usage("unknown command");
  return failure(EXIT_USAGE, "expected: %s (see mox_conf --help)", usage);
}

int main(int argc, char **argv) {
  umask(022);  // nothing made here is writable by others, whatever the caller's umask
  if (argc < 2) return bad_usage("no command");
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    fputs(usage_text, stdout);
    return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
  }
  if (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "-V") == 0) {
    printf("mox_conf %s\n", get_firmware_version());
    return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
  }
  Command cmd = CMD_GET;
  if (parse_command(argc, argv, &cmd) != 0) return EXIT_USAGE;
  // Reads one file and takes nothing: no lock, and it works while another
  // mox_conf holds the tool's lock.
  if (cmd == CMD_STATUS) return cmd_status();

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
  }
  if (cmd == CMD_ADD && check_proxy_line(argv[3], name, sizeof name) != 0) return EXIT_REFUSED;

  if (take_lock() != 0) return EXIT_REFUSED;
  log_init(MOX_CONF_LOG_PATH, MOX_CONF_LOG_NAME, LOG_MASK_FILE);

  const char *file = argc > 3 ? argv[3] : NULL;
  switch (cmd) {
    case CMD_GET: return cmd_get(s);
    case CMD_SET: return cmd_set(s, argv[3]);
    case CMD_DELETE: return cmd_delete(s);
    case CMD_LIST: return cmd_proxy_list();
    case CMD_ADD: return cmd_proxy_add(argv[3], name);
    case CMD_REMOVE: return cmd_proxy_remove(argv[3]);
    case CMD_GENERATE: return cmd_generate(argv[2]);
    case CMD_STORE_CHECK: return cmd_store_check();
    case CMD_STORE_RESET: return cmd_store_reset();
    case CMD_RELEASE_VERIFY: return cmd_release_verify(file);
    case CMD_RELEASE_INSTALL: return cmd_release_install(file);
    case CMD_STATUS: break;  // answered above, without the lock
  }
  return EXIT_USAGE;
}
