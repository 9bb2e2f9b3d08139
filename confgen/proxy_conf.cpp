// One proxy line of the stored "proxy" section turned into the nginx text
// of one protected website: its upstream block and its server block.
#include <string.h>
#include <unistd.h>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"

// One-second waits for the listening address to come up, after the first
// test: 6 tests and at most 5 seconds. An interface that is still being
// configured at boot gets that long.
#define LOCAL_WAIT_TRIES 5

#define PROTECT_OPTION "--protect"

// The next field up to a single space; two spaces in a row make an empty
// field, and a line that has run out gives empty fields.
static const char *cut_field(char **rest) {
  const char *field = strsep(rest, " ");
  return field != NULL ? field : "";
}

#define MODE_BAD_KEY 1
#define MODE_BAD_VALUE 2

// Protection mode from the options; the last "--protect" counts. 0, or
// MODE_BAD_KEY / MODE_BAD_VALUE with the offending word cut into *key and
// *value (the caller logs, under its own label).
static int read_mode(char **rest, const char **kvsafe, const char **learning, const char **key,
                     const char **value) {
  *kvsafe = "on";
  *learning = "off";
  while (*rest != NULL) {
    char *word = strsep(rest, " ");
    *key = word;
    *value = "";  // a word without '=' has an empty value
    char *cut = strchr(word, '=');
    if (cut != NULL) {
      *cut = '\0';  // the first '=' cuts; any later one stays in the value
      *value = cut + 1;
    }
    if (strcmp(word, PROTECT_OPTION) != 0) return MODE_BAD_KEY;
    if (strcmp(*value, "on") == 0) {
      *kvsafe = "on";
      *learning = "off";
    } else if (strcmp(*value, "off") == 0) {
      *kvsafe = "off";
      *learning = "off";
    } else if (strcmp(*value, "monitor") == 0) {
      *kvsafe = "on";
      *learning = "on";
    } else {
      return MODE_BAD_VALUE;
    }
  }
  return 0;
}

int generate_proxy_conf(char *line, char *block, int *block_len) {
  block[0] = '\0';
  *block_len = 0;
  char *rest = line;
  const char *name = cut_field(&rest);
  const char *server = cut_field(&rest);
  const char *upstream = cut_field(&rest);

  if (server[0] == '\0') return -1;
  Endpoint listener;
  if (parse_endpoint(server, &listener) != 0) return -1;
  DLOG_DEBUG("proxy server: %s", server);

  int local = is_local_address(listener.host);
  for (int waits = 0; !local && waits < LOCAL_WAIT_TRIES; waits++) {
    sleep(1);
    local = is_local_address(listener.host);
  }
  if (!local) {
    DLOG_ERROR("website IP=%s is not local address.", listener.host);
    return -1;
  }
  // The listening side's scheme decides both ssl directives.
  const char *ssl = strcmp(listener.scheme, "https") == 0 ? "on" : "off";

  if (upstream[0] == '\0') return -1;
  Endpoint target;
  if (parse_endpoint(upstream, &target) != 0) return -1;
  DLOG_DEBUG("proxy upstream: %s", upstream);

  if (!is_local_address(target.host)) {
    DLOG_ERROR("upstream IP=%s is not local address.", target.host);
    return -1;
  }
  const char *upstream_prot = strcmp(target.scheme, "https") == 0 ? "https" : "http";

  const char *kvsafe = NULL;
  const char *learning = NULL;
  const char *key = NULL;
  const char *value = NULL;
  int mode = read_mode(&rest, &kvsafe, &learning, &key, &value);
  if (mode == MODE_BAD_KEY) {
    DLOG_ERROR("unknown option: %s=%s", key, value);
    return -1;
  }
  if (mode == MODE_BAD_VALUE) {
    DLOG_ERROR("unknown option value: %s=%s", key, value);
    return -1;
  }

  int n = snprintf(block, PROXY_BLOCK_SIZE,
                   "upstream upstream_%s {\n    server %s:%s;\n}\n\nserver {\n    listen %s:%s;\n"
                   "    ssl %s;\n    kvsafe %s;\n    kvsafe_learning_mode %s;\n"
                   "    set $proxy_upstream %s://upstream_%s;\n    set $proxy_ssl %s;\n"
                   "    include policy_default.conf;\n}\n\n\n",
                   name, target.host, target.port, listener.host, listener.port, ssl, kvsafe,
                   learning, upstream_prot, name, ssl);
  if (n < 0 || n >= PROXY_BLOCK_SIZE) {
    block[0] = '\0';
    // A cut block would end inside a directive and break the whole file:
    // the line fails instead. A line read from the store (at most
    // PROXY_VALUE_SIZE - 1 characters) never gets here.
    DLOG_ERROR("website %s does not fit %d bytes, left out.", name, PROXY_BLOCK_SIZE);
    return -1;
  }
  DLOG_DEBUG("%s", block);
  *block_len = n;
  return 0;
}
