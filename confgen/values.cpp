// Read access to the stored parameter text: one section's value by parser
// id or by key. No parsed form and no cache: every read fetches the whole
// text from the store and searches it as a string.
#include <string.h>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "store/store.h"

// The section header behind a key: "={" and a newline.
#define SECTION_HEADER_TAIL 3

int value_limit(const char *key) {
  if (key != NULL && strcmp(key, para_keys[4]) == 0) return PROXY_VALUE_SIZE - 1;
  return KEY_VALUE_SIZE - 1;
}

// The three characters behind the key are stepped over unchecked, so a key
// found inside some other value yields whatever follows it there. A text
// that ends within those three characters gives an empty value rather
// than a read past its end.
const char *find_value(const char *text, const char *key, int *length) {
  if (text == NULL || key == NULL || key[0] == '\0') return NULL;
  const char *hit = strstr(text, key);
  if (hit == NULL) return NULL;
  const char *start = hit + strlen(key);
  for (int i = 0; i < SECTION_HEADER_TAIL && *start != '\0'; i++) start++;

  // Inner newlines are kept; the newline in front of the closing brace is
  // not part of the value, and a '}' anywhere ends it.
  int n = 0;
  while (start[n] != '\0' && start[n] != '}' && !(start[n] == '\n' && start[n + 1] == '}')) n++;
  if (length != NULL) *length = n;
  return start;
}

int get_value(const char *key, char *out, int *out_len) {
  if (key == NULL || out == NULL) return -1;
  // One byte beyond what the store may fill keeps a full text terminated.
  char text[STORED_TEXT_SIZE + 1];
  memset(text, 0, sizeof text);
  int length = STORED_TEXT_SIZE;
  if (sec_read_conf(text, &length) != 0) return -1;

  int value_len = 0;
  const char *value = find_value(text, key, &value_len);
  if (value == NULL) {
    DLOG_DEBUG("get key value failed - %s.", key);
    return -1;
  }

  // out has no size argument; the bound by key is the caller's buffer less
  // its terminator, which the caller's zero fill provides.
  int limit = value_limit(key);
  if (value_len > limit) {
    DLOG_ERROR("value of %s has %d characters, cut to %d.", key, value_len, limit);
    value_len = limit;
  }
  memcpy(out, value, (size_t)value_len);

  // The value is copied even without out_len; generation relies on that
  // copy and ignores this -1.
  if (out_len == NULL) return -1;
  *out_len = value_len;
  return 0;
}

int parser_get(int id, char *out, int *out_len) {
  const char *key = parser_key(id);
  if (key == NULL) {
    DLOG_ERROR("parser not support read: %d.\n", id);
    return -1;
  }
  return get_value(key, out, out_len);
}
