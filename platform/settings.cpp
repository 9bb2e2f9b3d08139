// The settings file reader: "key=value" lines maintained outside this
// program, read only.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

int read_setting(const char *path, const char *key, int *value) {
  if (path == nullptr || key == nullptr) return -1;
  FILE *file = fopen_regular(path);
  if (file == nullptr) return -1;

  int result = 1;
  char line[SETTING_LINE_SIZE];
  // A line longer than the buffer arrives in pieces, and each piece is
  // judged as a line of its own.
  while (!feof(file)) {
    memset(line, 0, sizeof line);
    if (fgets(line, sizeof line, file) == nullptr) break;
    char *rest = line;
    const char *name = strsep(&rest, "=");
    // Nothing is trimmed: "key =1" names the key "key ", which is another key.
    if (rest == nullptr || strcmp(name, key) != 0) continue;
    if (value != nullptr) *value = text_to_int(rest);  // a huge value stops at INT_MAX: out of every range
    result = 0;
    break;
  }
  fclose(file);
  return result;
}
