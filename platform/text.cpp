// Text helpers: the substring replace under the template expansion, and the
// "key   value" field finder.
#include <stdlib.h>
#include <limits.h>
#include <cstring>

#include "platform/platform.h"

// Appends n bytes at *used, keeping one byte for the terminator. When they
// do not fit, what fits goes in, the output is terminated and -1 returned.
static int append_bounded(char *out, size_t out_size, size_t *used, const char *src, size_t n) {
  size_t room = out_size - 1 - *used;
  if (n > room) {
    memcpy(out + *used, src, room);
    out[out_size - 1] = '\0';
    return -1;
  }
  memcpy(out + *used, src, n);
  *used += n;
  return 0;
}

int replace_all(const char *text, const char *needle, const char *repl, char *out, size_t out_size) {
  if (text == nullptr || needle == nullptr || repl == nullptr || out == nullptr) return -1;
  size_t needle_len = strlen(needle);
  if (needle_len == 0) return -1;  // an empty needle would be found forever
  size_t repl_len = strlen(repl);
  const char *hit = strstr(text, needle);
  // Without a hit the output is not touched at all: callers keep the text.
  if (hit == nullptr) return 0;
  if (out_size == 0) return -1;

  int count = 0;
  size_t used = 0;
  const char *read_pos = text;
  // Searching resumes behind each needle in the text, so a replacement that
  // contains the needle is never searched again.
  for (; hit != nullptr; hit = strstr(read_pos, needle)) {
    if (append_bounded(out, out_size, &used, read_pos, static_cast<size_t>(hit - read_pos)) != 0 ||
        append_bounded(out, out_size, &used, repl, repl_len) != 0)
      return -1;
    read_pos = hit + needle_len;
    count++;
  }
  if (append_bounded(out, out_size, &used, read_pos, strlen(read_pos)) != 0) return -1;
  out[used] = '\0';
  return count;
}

int text_to_int(const char *text) {
  if (text == nullptr) return 0;
  long long v = strtoll(text, nullptr, 10);  // saturates at the long long's ends
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

int is_space_char(int c) { return c == ' ' || (c >= 9 && c <= 13); }

const char *find_field_value(const char *text, const char *key) {
  if (text == nullptr || key == nullptr) return nullptr;
  const char *pos = strstr(text, key);
  if (pos == nullptr) return nullptr;
  pos += strlen(key);
  // The character right behind the key is stepped over even as a newline;
  // a newline reached by a later step marks an empty value.
  while (is_space_char(*pos)) {
    pos++;
    if (*pos == '\n') return pos;
  }
  return pos;
}

void hex_text(const unsigned char *bytes, size_t n, char *out) {
  static const char digits[] = "0123456789abcdef";
  for (size_t i = 0; i < n; i++) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  out[2 * n] = '\0';
}
