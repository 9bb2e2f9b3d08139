// The tool's view of the protected store: reading it with a reason when it
// does not read, the size checks that keep every section readable whole,
// and the two recovery commands.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "admin/admin.h"
#include "logging/logging.h"
#include "store/store.h"

#define SECTION_FRAME_SIZE 6   // "={\n" and "\n}\n" around a value

// Reads the whole store into a buffer of its own; sec_read_conf's result,
// with the text's length in *length.
static int read_store(int *length) {
  static char text[VALUE_BUFFER_SIZE];  // a store's worth: not on the stack
  memset(text, 0, sizeof text);
  *length = STORED_TEXT_SIZE;
  return sec_read_conf(text, length);
}

int stored_length(void) {
  int length = 0;
  if (read_store(&length) != 0 || length < 0) {
    failure(EXIT_REFUSED,
            "the stored parameters do not read (%s); nothing was changed. "
            "\"mox_conf store reset\" keeps the store aside and starts an empty one",
            sec_conf_problem()[0] != '\0' ? sec_conf_problem() : "see " MOX_CONF_LOG_PATH);
    return -1;
  }
  return length;
}

int read_value(const Section *s, char *value, int *len) {
  memset(value, 0, VALUE_BUFFER_SIZE);
  *len = 0;
  return parser_get(s->id, value, len) == 0 ? 0 : -1;
}

// One byte of slack covers the empty proxy section, which is a byte
// shorter than its frame.
int check_stored_size(const Section *s, int old_len, int stored, size_t old_value_len,
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

int store_did_not_take(void) {
  return failure(EXIT_REFUSED, "the store did not take the change (see %s)", MOX_CONF_LOG_PATH);
}

int cmd_store_check(void) {
  int length = 0;
  if (read_store(&length) != 0)
    return failure(EXIT_REFUSED,
                   "%s does not read: %s. \"mox_conf store reset\" keeps it as %s and starts "
                   "an empty store",
                   STORE_PATH, sec_conf_problem(), STORE_BAD_PATH);
  if (access(STORE_PATH, F_OK) != 0)
    printf("%s does not exist yet: it reads as empty\n", STORE_PATH);
  else
    printf("%s reads: %d bytes of parameters\n", STORE_PATH, length);
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}

int cmd_store_reset(void) {
  int length = 0;
  if (read_store(&length) == 0)
    return failure(EXIT_REFUSED, "%s reads: nothing to reset (delete sections instead)",
                   STORE_PATH);
  // An earlier damaged store is someone's only copy too: never overwritten.
  if (access(STORE_BAD_PATH, F_OK) == 0)
    return failure(EXIT_REFUSED, "%s holds an earlier damaged store: move it away first",
                   STORE_BAD_PATH);
  if (rename(STORE_PATH, STORE_BAD_PATH) != 0)
    return failure(EXIT_REFUSED, "cannot move %s to %s: %s", STORE_PATH, STORE_BAD_PATH,
                   strerror(errno));
  if (sec_write_conf("", 0) != 0)
    return failure(EXIT_REFUSED, "the damaged store is kept as %s, but a new one could not be "
                   "written (see %s)", STORE_BAD_PATH, MOX_CONF_LOG_PATH);
  DLOG_INFO("damaged store kept as %s, empty store started", STORE_BAD_PATH);
  printf("the damaged store is kept as %s; the new store is empty: set fixed_key, "
         "cluster_key and the other values again\n", STORE_BAD_PATH);
  return fflush(stdout) == 0 ? 0 : EXIT_REFUSED;
}
