// Configuration generator: the stored parameter sections, template
// expansion, and the proxy files generated from them. Keeps no state
// between calls and takes no lock: callers must not overlap a read, edit
// and write of the stored text.
#pragma once

#include <stdint.h>

#define STORED_TEXT_SIZE 18432     // the whole stored text, and every buffer reading it
#define KEY_VALUE_SIZE 128         // a stored key's value as generation reads it
#define PROXY_VALUE_SIZE 512       // the "proxy" section's value as generation reads it
#define TEMPLATE_LINE_SIZE 512     // one template line, before and after substitution
#define SECTION_SIZE 512           // one formatted section "%s={\n%s\n}\n"
#define PROXY_BLOCK_SIZE 2048      // the upstream and server blocks of one website
#define PARA_KEY_COUNT 23
#define PARA_ENTRY_KEY_SIZE 64
#define PARA_ENTRY_VALUE_SIZE 128
#define PROXY_TEMPLATE_LINES 13

#define RELEASE_DIR "/tmp/mox/release"
#define NGINX_TEMPLATE_PATH "/tmp/mox/release/nginx/nginx_template.conf"
#define QSP_TEMPLATE_PATH "/tmp/mox/release/conf_shared/qsp_conf_template.json"
#define NGINX_CONF_PATH "/tmp/mox/release/nginx/nginx.conf"
#define WEBSITES_CONF_PATH "/tmp/mox/release/nginx/website_upstreams.conf"
#define QSP_CONF_PATH "/tmp/mox/release/conf_shared/qsp_conf.json"

// Parameter keys; the index is the parameter id. Ids 4..10 are the section
// keys of the stored text, the others template placeholders.
extern const char *const para_keys[PARA_KEY_COUNT];

// Sections of the stored text, as the save, delete and read calls name them.
enum ParserId {
  PARSER_PROXY = 16,
  PARSER_LOGSERVER = 17,
  PARSER_SYSLOG = 18,
  PARSER_FIXED_KEY = 19,
  PARSER_CLUSTER_KEY = 20,
  PARSER_LOGATSERVER = 23,
  PARSER_RANDTIME = 24,
};

enum DataKind { DATA_NGINX = 0, DATA_QSP = 1, DATA_PROXY = 2 };

#define NGINX_PARA_COUNT 5
#define QSP_PARA_COUNT 3
#define PROXY_PARA_COUNT 11

// Parameter ids each generated file needs, in the order they are tried.
extern const int32_t nginx_para_ids[NGINX_PARA_COUNT];
extern const int32_t qsp_para_ids[QSP_PARA_COUNT];
extern const int32_t proxy_para_ids[PROXY_PARA_COUNT];

// The built-in template of one website, a line each.
extern const char *const proxy_line_templates[PROXY_TEMPLATE_LINES];

// One placeholder with its replacement; spent (active 0) after the first
// line it was substituted on.
struct para_entry {
  int32_t active;
  char key[PARA_ENTRY_KEY_SIZE];
  char value[PARA_ENTRY_VALUE_SIZE];
};

// Section key of a ParserId ("proxy", "logserver", ...), or null for an
// id that names no section (21, 22 and anything outside 16..24).
const char *parser_key(int id);

// Most characters a read of the section copies: PROXY_VALUE_SIZE - 1 for
// "proxy", KEY_VALUE_SIZE - 1 for every other key. out has no size
// argument, so this bound is what keeps the copy inside the caller's buffer.
int value_limit(const char *key);

// Finds key in the stored text as a plain substring (first occurrence,
// wherever it stands) and returns where its value starts, three characters
// behind the key (never past the text's end). *length gets the value's
// whole length: up to a NUL, a '}', or a newline that has '}' behind it.
// Null when key is not in text.
const char *find_value(const char *text, const char *key, int *length);

// Value of a stored section into out (zero-filled by the caller, at least
// PROXY_VALUE_SIZE bytes for PARSER_PROXY, KEY_VALUE_SIZE for the others).
// At most value_limit() characters are copied; a longer value is cut there
// and logged. out gets no terminator: the caller's zero fill is it.
// 0 with *out_len set; -1 for an unknown id (store not read), an unreadable
// store, a missing key, or a null out_len (out is filled all the same).
int parser_get(int id, char *out, int *out_len);

// As parser_get, by key text of para_keys, with the same bound by key.
int get_value(const char *key, char *out, int *out_len);

// Expands the template of kind with the entries, each spent on the first
// line it matches, into out (zero-filled, STORED_TEXT_SIZE); *out_len gets
// the length. -1 for a bad kind or a null argument, 1 when the template
// does not open or does not read, or when the result would not fit out
// (logged; *out_len untouched in all these cases), otherwise 0 or 1 with
// no meaning. A substitution that would outgrow TEMPLATE_LINE_SIZE is
// logged and not made: the line stays as it was and the entry stays active.
// A template line too long for TEMPLATE_LINE_SIZE passes through unchanged
// (logged). A last line without a newline gets one.
int handle_data(int kind, para_entry *entries, char *out, int *out_len);

// The upstream and server blocks for one proxy line "NAME SERVER UPSTREAM
// [--protect=on|off|monitor]..."; line is cut up in place. Waits up to 5
// seconds for the listening address to come up. 0 with the blocks in block
// (PROXY_BLOCK_SIZE bytes) and their length in *block_len; -1 with block
// empty (also for blocks that would not fit PROXY_BLOCK_SIZE, logged; a
// line of PROXY_VALUE_SIZE never does).
int generate_proxy_conf(char *line, char *block, int *block_len);

// What generate_data writes for kind, built into out (zero-filled by the
// caller, STORED_TEXT_SIZE bytes) and not written: *total gets its length,
// 0 when there is nothing to write (template missing, empty or too large;
// every website left out). 0, or -1 for a bad kind, a null argument or no
// proxy section (not logged here).
int build_data(int kind, const int32_t *ids, char *out, int *total);

// The file generate_data writes for kind, or null for a bad kind.
const char *data_path(int kind);

// Builds and writes the file of kind (ids read for DATA_NGINX and DATA_QSP
// only). 0 written or nothing to write, 1 the file could not be opened,
// -1 bad kind, null ids, no memory or no proxy section. Website blocks
// that would take the file past STORED_TEXT_SIZE are left out (logged),
// the ones before them are written.
int generate_data(int kind, const int32_t *ids);

// 0: nginx.conf then website_upstreams.conf; 1: qsp_conf.json. Always 0.
int parser_generate(int which);

// Stores text as the section's value; for PARSER_PROXY text is one proxy
// line, replacing the line of the same name or added at the end.
// 0, or -1 when the store cannot be read, the id is not a section, text is
// null, or a size would be exceeded: text must fit SECTION_SIZE with its
// key and frame, the new stored text STORED_TEXT_SIZE, and the section's
// value must stay readable whole (value_limit). Sizes are refused with a
// logged error before anything is written. A proxy section without its
// '}' keeps the lines up to there, does not get text, and still gives 0
// (logged). Files are not regenerated here: the caller runs
// parser_generate when it wants them.
int parser_save(int id, const char *text);

// Removes a section, or with PARSER_PROXY and a name the one line of that
// name. 0, or -1 (unknown id, fixed_key/cluster_key, nothing to remove,
// unreadable store).
int parser_delete(int id, const char *name);
