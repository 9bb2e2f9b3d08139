// generate nginx|qsp|all: the proxy's files from the templates and the
// stored parameters.
//
// Nothing is written unless the store reads, every template asked for is
// usable and every file asked for was built in full; each file then
// replaces its old copy as a whole (replace_file), so a kill at any moment
// leaves the old file or the new one and a reload never sees half a file.
// The website file is always written, empty with no websites stored, so
// that nginx's include finds it. A website the generator leaves out (its
// address is not up yet, or not of this device) is left out of the file
// and the run fails with a count: the others still get served.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "admin/admin.h"
#include "logging/logging.h"
#include "platform/platform.h"

#define GENERATED_MODE 0644
#define WEBSITE_BLOCK_START "upstream upstream_"

struct Output {
  int kind;                 // DataKind
  const int32_t *ids;
  const char *template_path;  // null for the website file
  int total;
  char *text;               // STORED_TEXT_SIZE bytes
};

// Apart from the table, whose pointers would otherwise carry 54 KiB of
// zeros into the program file.
static char output_texts[3][STORED_TEXT_SIZE];
static Output outputs[] = {
    {DATA_NGINX, nginx_para_ids, NGINX_TEMPLATE_PATH, 0, output_texts[0]},
    {DATA_PROXY, proxy_para_ids, NULL, 0, output_texts[1]},
    {DATA_QSP, qsp_para_ids, QSP_TEMPLATE_PATH, 0, output_texts[2]},
};
#define OUTPUT_COUNT (sizeof outputs / sizeof outputs[0])
static_assert(sizeof output_texts / sizeof output_texts[0] == OUTPUT_COUNT, "one text per output");

// 0 when the template of out is a regular file the expansion can take;
// else 1, reported naming the file that is not written.
static int check_template(const Output *out) {
  const char *path = out->template_path;
  const char *target = data_path(out->kind);
  struct stat st;
  if (stat(path, &st) != 0)
    return failure(EXIT_REFUSED, "%s not written: template %s: %s", target, path, strerror(errno));
  if (!S_ISREG(st.st_mode))
    return failure(EXIT_REFUSED, "%s not written: template %s is not a file", target, path);
  if (st.st_size == 0)
    return failure(EXIT_REFUSED, "%s not written: template %s is empty", target, path);
  if (st.st_size >= STORED_TEXT_SIZE)
    return failure(EXIT_REFUSED, "%s not written: template %s is %lld bytes; at most %d", target,
                   path, (long long)st.st_size, STORED_TEXT_SIZE - 1);
  return 0;
}

// 0 when the stored key would make a valid JSON string: a store written by
// an older tool may hold what set refuses today.
static int check_stored_key(const char *name) {
  const Section *s = find_section(name);
  char value[VALUE_BUFFER_SIZE];
  int len = 0;
  if (read_value(s, value, &len) != 0) return 0;  // not stored: the string stays empty
  for (const char *p = value; *p != '\0'; p++) {
    unsigned char c = (unsigned char)*p;
    if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\')
      return failure(EXIT_REFUSED,
                     "stored %s would break qsp_conf.json (byte 0x%02x); set it again", name, c);
  }
  return 0;
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

static int count_blocks(const char *text) {
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

// Builds out in full; *sites and *left_out get the websites stored and
// the ones the generator dropped.
static int build(Output *out, int *sites, int *left_out) {
  memset(out->text, 0, STORED_TEXT_SIZE);
  out->total = 0;
  if (out->kind == DATA_PROXY) {
    char value[VALUE_BUFFER_SIZE];
    int len = 0;
    if (read_value(find_section("proxy"), value, &len) != 0) return 0;  // no websites: empty
    if (build_data(DATA_PROXY, out->ids, out->text, &out->total) != 0)
      return failure(EXIT_REFUSED, "the websites do not read (see %s)", MOX_CONF_LOG_PATH);
    *sites = count_lines(value);
    *left_out = *sites - count_blocks(out->text);
    return 0;
  }
  if (build_data(out->kind, out->ids, out->text, &out->total) != 0 || out->total <= 0)
    return failure(EXIT_REFUSED, "%s could not be built from %s (see %s)",
                   data_path(out->kind), out->template_path, MOX_CONF_LOG_PATH);
  return 0;
}

int cmd_generate(const char *which) {
  int all = strcmp(which, "all") == 0;
  int wanted[OUTPUT_COUNT];
  for (size_t i = 0; i < OUTPUT_COUNT; i++)
    wanted[i] = all || (strcmp(which, "qsp") == 0) == (outputs[i].kind == DATA_QSP);

  if (stored_length() < 0) return EXIT_REFUSED;
  for (size_t i = 0; i < OUTPUT_COUNT; i++)
    if (wanted[i] && outputs[i].template_path != NULL && check_template(&outputs[i]) != 0)
      return EXIT_REFUSED;
  if ((all || strcmp(which, "qsp") == 0) &&
      (check_stored_key("fixed_key") != 0 || check_stored_key("cluster_key") != 0))
    return EXIT_REFUSED;

  int sites = 0, left_out = 0;
  for (size_t i = 0; i < OUTPUT_COUNT; i++)
    if (wanted[i] && build(&outputs[i], &sites, &left_out) != 0) return EXIT_REFUSED;

  for (size_t i = 0; i < OUTPUT_COUNT; i++) {
    if (!wanted[i]) continue;
    const char *path = data_path(outputs[i].kind);
    if (replace_file(path, outputs[i].text, (size_t)outputs[i].total, GENERATED_MODE) != 0)
      return failure(EXIT_REFUSED, "cannot write %s: %s", path, strerror(errno));
  }
  if (left_out > 0)
    return failure(EXIT_REFUSED,
                   "%d of %d websites left out of %s (address not up yet, or not of this "
                   "device? see %s)",
                   left_out, sites, WEBSITES_CONF_PATH, MOX_CONF_LOG_PATH);
  DLOG_INFO("generated %s", which);
  return 0;
}
