// Template expansion: a template of one kind, walked line by line, with a
// caller's list of placeholder records applied to each line. A record is
// spent on the first line that holds its placeholder, so a placeholder
// that stands on two lines needs two records.
#include <string.h>
#include <sys/types.h>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "platform/platform.h"

static int entry_count(int kind) {
  switch (kind) {
    case DATA_NGINX: return NGINX_PARA_COUNT;
    case DATA_QSP: return QSP_PARA_COUNT;
    case DATA_PROXY: return PROXY_PARA_COUNT;
    default: return -1;
  }
}

// Appends len bytes to out, which keeps room for a terminator within
// STORED_TEXT_SIZE. -1 (nothing appended) when they would not fit.
static int append_out(char *out, int *total, const char *data, size_t len) {
  if ((size_t)*total + len > STORED_TEXT_SIZE - 1) return -1;
  memcpy(out + *total, data, len);
  *total += (int)len;
  return 0;
}

// Applies the active records of the list to one line in list order; a
// record that finds its placeholder replaces every occurrence on this line
// and is spent. *last becomes the outcome of each substitution tried.
static void apply_entries(char *line, para_entry *entries, int count, int line_no, int *last) {
  char scratch[TEMPLATE_LINE_SIZE];
  for (int i = 0; i < count; i++) {
    para_entry *entry = &entries[i];
    if (entry->active == 0 || entry->key[0] == '\0') continue;
    memset(scratch, 0, sizeof scratch);
    int hits = replace_all(line, entry->key, entry->value, scratch, sizeof scratch);
    if (hits < 0) {
      // The line would outgrow its buffer: no substitution, the record stays
      // active for a later line, and the placeholder shows in the output.
      DLOG_ERROR("template line %d with %s would exceed %d bytes, left unreplaced.", line_no,
                 entry->key, TEMPLATE_LINE_SIZE - 1);
      *last = 0;
      continue;
    }
    *last = hits > 0 ? 1 : 0;
    if (hits == 0) continue;
    entry->active = 0;
    memset(line, 0, TEMPLATE_LINE_SIZE);
    memcpy(line, scratch, strlen(scratch));
  }
}

int handle_data(int kind, para_entry *entries, char *out, int *out_len) {
  int count = entry_count(kind);
  if (count < 0 || entries == NULL || out == NULL || out_len == NULL) return -1;

  // One byte beyond the read size keeps a full template terminated.
  char tmpl[STORED_TEXT_SIZE + 1];
  memset(tmpl, 0, sizeof tmpl);
  ssize_t length = 0;
  if (kind == DATA_PROXY) {
    for (int i = 0; i < PROXY_TEMPLATE_LINES; i++) {
      size_t n = strlen(proxy_line_templates[i]);
      memcpy(tmpl + length, proxy_line_templates[i], n);
      length += (ssize_t)n;
    }
  } else {
    const char *path = kind == DATA_NGINX ? NGINX_TEMPLATE_PATH : QSP_TEMPLATE_PATH;
    length = STORED_TEXT_SIZE;  // a longer template is cut here by the one read
    if (read_file_into(path, tmpl, &length) != 0) {
      // The nginx template's path stands in this message whichever
      // template failed to open.
      DLOG_ERROR("read file: %s fail.", NGINX_TEMPLATE_PATH);
      return 1;
    }
    if (length < 0) {
      // A read error after a good open (a directory, for one) is not taken
      // for a length: it fails like the open, with the same fixed path.
      DLOG_ERROR("read file: %s fail.", NGINX_TEMPLATE_PATH);
      return 1;
    }
  }
  if (length == 0) {
    *out_len = 0;
    return 0;
  }

  char line[TEMPLATE_LINE_SIZE];
  const char *read_pos = tmpl;
  ssize_t remaining = length;
  int total = 0;
  int result = 0;
  for (int line_no = 1; remaining > 0; line_no++) {
    // A line ends at its newline; a NUL or the end of the text also ends
    // it, so a template without a last newline cannot run past its length.
    ssize_t n = 0;
    while (n < remaining && read_pos[n] != '\n' && read_pos[n] != '\0') n++;

    int fits;
    if (n > TEMPLATE_LINE_SIZE - 2) {
      // No room for the line and its newline: it goes out unchanged.
      DLOG_ERROR("template line %d has %ld bytes, over %d: left as it is.", line_no, (long)n,
                 TEMPLATE_LINE_SIZE - 2);
      fits = append_out(out, &total, read_pos, (size_t)n) == 0 &&
             append_out(out, &total, "\n", 1) == 0;
    } else {
      memset(line, 0, sizeof line);
      memcpy(line, read_pos, (size_t)n);
      line[n] = '\n';  // the newline stays part of the line through substitution
      apply_entries(line, entries, count, line_no, &result);
      fits = append_out(out, &total, line, strlen(line)) == 0;
    }
    if (!fits) {
      DLOG_ERROR("expanded template of kind %d exceeds %d bytes, nothing generated.", kind,
                 STORED_TEXT_SIZE - 1);
      return 1;
    }
    remaining -= n + 1;
    read_pos += n + 1;
  }
  *out_len = total;
  return result;
}
