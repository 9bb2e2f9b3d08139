// The generator's vocabulary: parameter keys, the parser ids that name the
// stored sections, the id lists of the generated files, and the built-in
// template of one website.
#include <stddef.h>

#include "confgen/confgen.h"

// Index = parameter id. 0..3 and 11..22 are template placeholders, 4..10
// the section keys of the stored text.
const char *const para_keys[PARA_KEY_COUNT] = {
    "{admin_ip}",      "{mox_user}",    "{fixed_key}",      "{cluster_key}",
    "proxy",           "logserver",     "logatserver",      "randtime",
    "syslog",          "fixed_key",     "cluster_key",      "{syslog_ip}",
    "{syslog_port}",   "{syslog_facility}", "{proxy_name}", "{proxy_prot}",
    "{proxy_ssl}",     "{proxy_ip}",    "{proxy_port}",     "{upstream_ip}",
    "{upstream_port}", "{protect_option}", "{learning_mode}",
};

const int32_t nginx_para_ids[NGINX_PARA_COUNT] = {0, 1, 11, 12, 13};
const int32_t qsp_para_ids[QSP_PARA_COUNT] = {0, 2, 3};
// An entry serves one template line only, so the placeholders that stand
// on two lines ({proxy_name}, {proxy_ssl}) have two entries each, placed
// in the order of the lines.
const int32_t proxy_para_ids[PROXY_PARA_COUNT] = {14, 19, 20, 17, 18, 16, 21, 22, 15, 14, 16};

const char *const proxy_line_templates[PROXY_TEMPLATE_LINES] = {
    "upstream upstream_{proxy_name} {\n",
    "    server {upstream_ip}:{upstream_port};\n",
    "}\n",
    "server {\n",
    "    listen {proxy_ip}:{proxy_port};\n",
    "    ssl {proxy_ssl};\n",
    "    kvsafe {protect_option};\n",
    "    kvsafe_learning_mode {learning_mode};\n",
    "    set $proxy_upstream {proxy_prot}://upstream_{proxy_name};\n",
    "    set $proxy_ssl {proxy_ssl};\n",
    "    include policy_default.conf;\n",
    "}\n",
    "\n",
};

#define PARSER_ID_FIRST PARSER_PROXY
#define PARSER_ID_LAST PARSER_RANDTIME

// Parameter id of each parser id from PARSER_ID_FIRST on; -1 marks the two
// numbers that name no section.
static const int parser_para_ids[PARSER_ID_LAST - PARSER_ID_FIRST + 1] = {
    4,   // PARSER_PROXY
    5,   // PARSER_LOGSERVER
    8,   // PARSER_SYSLOG
    9,   // PARSER_FIXED_KEY
    10,  // PARSER_CLUSTER_KEY
    -1,  // 21
    -1,  // 22
    6,   // PARSER_LOGATSERVER
    7,   // PARSER_RANDTIME
};

const char *parser_key(int id) {
  if (id < PARSER_ID_FIRST || id > PARSER_ID_LAST) return NULL;
  int para_id = parser_para_ids[id - PARSER_ID_FIRST];
  return para_id < 0 ? NULL : para_keys[para_id];
}
