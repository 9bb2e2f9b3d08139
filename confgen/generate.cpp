// Generated files: the two template kinds filled from fixed defaults, the
// device's address and the stored keys; the proxy kind built line by line
// from the stored "proxy" section. parser_generate is the one entry.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"

#define MOX_USER "root"
#define SYSLOG_IP "127.0.0.1"
#define SYSLOG_PORT "514"
#define SYSLOG_FACILITY "authpriv"

// Value of one placeholder record by parameter id. The syslog values and
// the user are fixed: the stored "syslog" section plays no part in them.
// A key that is not stored leaves the value empty (a debug line says so).
static void fill_value(int32_t para_id, char *value) {
  switch (para_id) {
    case 0: get_lan_ip(value); break;
    case 1: memcpy(value, MOX_USER, sizeof MOX_USER); break;
    // No out_len: parser_get answers -1 but fills the value all the same.
    case 2: parser_get(PARSER_FIXED_KEY, value, NULL); break;
    case 3: parser_get(PARSER_CLUSTER_KEY, value, NULL); break;
    case 11: memcpy(value, SYSLOG_IP, sizeof SYSLOG_IP); break;
    case 12: memcpy(value, SYSLOG_PORT, sizeof SYSLOG_PORT); break;
    case 13: memcpy(value, SYSLOG_FACILITY, sizeof SYSLOG_FACILITY); break;
    default: break;
  }
}

// The records for a template kind from the id list, expanded into out.
// The total stays 0 when the template cannot be used.
static void build_from_template(int kind, const int32_t *ids, int count, char *out, int *total) {
  para_entry entries[PARA_KEY_COUNT];
  memset(entries, 0, sizeof entries);
  for (int i = 0; i < count; i++) {
    para_entry *entry = &entries[i];
    int32_t para_id = ids[i];
    if (para_id < 0 || para_id >= PARA_KEY_COUNT) {
      DLOG_ERROR("parameter id %d is not known, its record is left out.", (int)para_id);
      continue;  // stays inactive with an empty key
    }
    entry->active = 1;
    fill_value(para_id, entry->value);
    int n = snprintf(entry->key, sizeof entry->key, "%s", para_keys[para_id]);
    if (n < 0 || (size_t)n >= sizeof entry->key) entry->active = 0;  // keys are short; never
  }
  handle_data(kind, entries, out, total);
}

// The website blocks of every proxy line into out. -1 when the section
// can't be read (the caller logs it). A failing line adds nothing; the
// lines behind it count.
static int build_websites(char *out, int *total) {
  char value[PROXY_VALUE_SIZE];
  memset(value, 0, sizeof value);
  int value_len = 0;
  if (parser_get(PARSER_PROXY, value, &value_len) != 0) return -1;

  char line[PROXY_VALUE_SIZE];
  memset(line, 0, sizeof line);
  int line_start = 0;
  // Up to and including the terminator, so that a last line without a
  // newline is taken too. Empty lines do nothing.
  for (int i = 0; i <= value_len; i++) {
    if (value[i] != '\n' && value[i] != '\0') continue;
    int n = i - line_start;
    if (n > 0) {
      memcpy(line, value + line_start, (size_t)n);
      char block[PROXY_BLOCK_SIZE];
      int block_len = 0;
      generate_proxy_conf(line, block, &block_len);  // a failed line leaves it empty
      if (*total + block_len > STORED_TEXT_SIZE) {
        // line was cut up in place: its first field is the website's name.
        DLOG_ERROR("websites exceed %d bytes: %s and the lines behind it are left out.",
                   STORED_TEXT_SIZE, line);
        break;
      }
      memcpy(out + *total, block, (size_t)block_len);
      *total += block_len;
      memset(line, 0, sizeof line);
    }
    line_start = i + 1;
  }
  return 0;
}

// The output path and entry count of kind; -1 for a bad kind.
static int kind_info(int kind, const char **path, int *count) {
  switch (kind) {
    case DATA_NGINX: *count = NGINX_PARA_COUNT; *path = NGINX_CONF_PATH; return 0;
    case DATA_QSP: *count = QSP_PARA_COUNT; *path = QSP_CONF_PATH; return 0;
    case DATA_PROXY: *count = PROXY_PARA_COUNT; *path = WEBSITES_CONF_PATH; return 0;
    default: return -1;
  }
}

const char *data_path(int kind) {
  const char *path = NULL;
  int count = 0;
  return kind_info(kind, &path, &count) == 0 ? path : NULL;
}

int build_data(int kind, const int32_t *ids, char *out, int *total) {
  int count = 0;
  const char *path = NULL;
  if (kind_info(kind, &path, &count) != 0) return -1;
  if ((kind != DATA_PROXY && ids == NULL) || out == NULL || total == NULL) return -1;
  *total = 0;
  if (kind == DATA_PROXY) {
    if (build_websites(out, total) != 0) return -1;  // the caller says so
  } else {
    build_from_template(kind, ids, count, out, total);
  }
  return 0;
}

int generate_data(int kind, const int32_t *ids) {
  const char *path = data_path(kind);
  if (path == NULL) return -1;
  if (kind != DATA_PROXY && ids == NULL) return -1;

  char *out = (char *)malloc(STORED_TEXT_SIZE);
  if (out == NULL) {
    DLOG_ERROR("malloc failed.");
    return -1;
  }
  memset(out, 0, STORED_TEXT_SIZE);
  int total = 0;
  if (build_data(kind, ids, out, &total) != 0) {
    DLOG_ERROR("Read the proxy parameter failed.");  // the one failure left
    // Released here too: the buffer is no use to anyone after this exit.
    free(out);
    return -1;
  }

  // Nothing to write leaves the file of an earlier run as it is, so
  // removing the last website does not empty the file.
  int result = 0;
  if (total > 0) {
    result = write_file(path, out, (size_t)total);
    if (result != 0) DLOG_ERROR("Generate data: write data fail.");
  }
  free(out);
  return result;
}

int parser_generate(int which) {
  if (which == 0) {
    generate_data(DATA_NGINX, nginx_para_ids);
    generate_data(DATA_PROXY, proxy_para_ids);
  } else if (which == 1) {
    generate_data(DATA_QSP, qsp_para_ids);
  }
  return 0;
}
